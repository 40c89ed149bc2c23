// Sessions: a port's line handed to the script ./config_port, which the external launcher runs.
#include <stdio.h>

#include "Common/OS/linux/launcher.h"
#include "Common/OS/linux/semaphores.h"
#include "devlib/serialapi/serialapi.h"
#include "devlib/serialapi/serialports.h"

const SInt8* const Serilport_ttynames[kSerialPorts] = {
    "ttyFPGAS0", "ttyFPGAS1", "ttyFPGAS4", "ttyFPGAS5", "ttyS1", "ttyFPGAS6", "ttyUSB0", "ttyUSB1"};

namespace {

constexpr char kScript[] = "./config_port";
constexpr int kCommandSize = 128;
constexpr UInt32 kDefaultBitsPerSecond = 9600;

int DataBits(SerialDataBitsType dataBits) {
    constexpr int kFewest = 5;
    return dataBits < SERIAL_DATABITS_8 ? kFewest + static_cast<int>(dataBits) : 8;
}

const char* Parity(SerialParityType parity) {
    if (parity == SERIAL_PARITY_EVEN) {
        return "E";
    }
    return parity == SERIAL_PARITY_ODD ? "O" : "N";
}

const char* Flow(const RS232Cfg& cfg) {
    if (cfg.hwFlowControlDtrDsr != 0) {
        return "dtrdsr";
    }
    if (cfg.hwFlowControlRtsCts != 0) {
        return "rtscts";
    }
    return cfg.swFlowControlXonXoff != 0 ? "xonxoff" : "none";
}

int RunOpen(int port, const RS232Cfg& cfg) {
    const UInt32 bitsPerSecond = SerialBitsPerSecond(cfg.bitRate);
    char command[kCommandSize];
    snprintf(command, sizeof(command), "%s open %s %d %d %s %d %s", kScript,
             Serilport_ttynames[port],
             static_cast<int>(bitsPerSecond != 0 ? bitsPerSecond : kDefaultBitsPerSecond),
             DataBits(cfg.dataBits), Parity(cfg.parityBits),
             cfg.stopBits == SERIAL_STOPBITS_2 ? 2 : 1, Flow(cfg));
    return system_pthread(command);
}

}  // namespace

eErrorT Serial_Open_PSH(int port, const RS232Cfg* serialCfg) {
    if (!SerialPortExists(port) || serialCfg == nullptr) {
        return kBadParameter;
    }
    {
        const PortTableLockT lock(port, "PSH OPEN");
        if (!lock.Held()) {
            return kSemUnavail;
        }
        if (port_devids[port] != kSerialPortFree) {
            return kAlreadyInUse;
        }
        Serial_Stop_PSHSession(port, 1);
        port_devids[port] = kSerialPortReserved;
    }
    ReservedPortT reserved{port};
    Serialport_Modes[port] = 1;
    const int err = RunOpen(port, *serialCfg);
    if (err != 0) {
        printf("SERIALAPI: In PSH OPEN, Port: %d System call failed, err: %d\n", port, err);
        return kSystemCallFailed;
    }
    reserved.Keep();
    return kNoError;
}

eErrorT Serial_Close_PSH(int port) {
    return Serial_Stop_PSHSession(port, 0);
}

eErrorT Serial_Stop_PSHSession(int port, int port_locked) {
    if (!SerialPortExists(port)) {
        return kBadParameter;
    }
    if (port_locked == 0) {
        const PortTableLockT lock(port, "PSH CLOSE");
        return lock.Held() ? Serial_Stop_PSHSession(port, 1) : kSemUnavail;
    }
    char command[kCommandSize];
    snprintf(command, sizeof(command), "%s close %s", kScript, Serilport_ttynames[port]);
    system_pthread(command);
    Serialport_Modes[port] = 0;
    port_devids[port] = kSerialPortFree;
    return kNoError;
}
