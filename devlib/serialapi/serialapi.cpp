// Ports driven by this process: every call becomes a request to the port's device.
#include "devlib/serialapi/serialapi.h"

#include <pthread.h>
#include <stdio.h>

#include "Common/OS/dev.h"
#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/linux/system.h"
#include "devlib/serialapi/serialports.h"

std::atomic<UInt32> port_devids[kSerialPorts];
RS232Cfg port_cfgs[kSerialPorts];
std::atomic<UInt32> Serialport_Modes[kSerialPorts];
UInt32 portdevids_lock;

namespace {

constexpr int kOpenAttempts = 10;
constexpr UInt32 kOpenPauseTicks = 2;
constexpr int kLeftoverSessions[] = {2, 3};  // ports that an earlier run may have left in a session

constexpr UInt32 kBaudRates[] = {115200, 57600, 38400, 19200, 14400, 9600, 4800, 2400, 1200};
constexpr UInt32 kDataBits[] = {kSerialDataBits5, kSerialDataBits6, kSerialDataBits7,
                                kSerialDataBits8};
constexpr UInt32 kParity[] = {kSerialParityEven, kSerialParityOdd, 0};
constexpr UInt32 kStopBits[] = {kSerialStopBits1, kSerialStopBits2, kSerialStopBits2};

// Status bits by direction. Those for disabling are crossed.
constexpr UInt32 kEnableStatus[] = {PORT_RX_ENABLE, PORT_TX_ENABLE,
                                    PORT_TX_ENABLE | PORT_RX_ENABLE};
constexpr UInt32 kDisableStatus[] = {PORT_TX_DISABLE, PORT_RX_DISABLE,
                                     PORT_TX_DISABLE | PORT_RX_DISABLE};

struct AppErrorT {
    DevMgrSerial_error_t sererr;
    eErrorT result;
    const char* message;
};

constexpr AppErrorT kAppErrors[] = {
    {SERIAL_NOT_SUPPORTED, kNotYetSupported, "Serial API Error - Not Supported"},
    {SERIAL_INVALID_PARAM, kBadParameter, "Serial API Error - Invalid Parameter"},
    {SERIAL_UNKNOWN_IOCTL, kBadParameter, "Serial API Error - Invalid Parameter"},
    {SERIAL_READ_ERROR, kSystemCallFailed, "Serial API Error - Read System call failed"},
    {SERIAL_WRITE_ERROR, kSystemCallFailed, "Serial API Error - Write System call failed"},
    {SERIAL_TX_DISABLED, kBadState, "Serial API Error - TX Disabled"},
    {SERIAL_RX_DISABLED, kBadState, "Serial API Error - RX Disabled"},
    {SERIAL_TIMEOUT, kTimeOut, "Serial API Error - Timeout"},
    {SERIAL_ERROR_UNKNOWN, kSystemCallFailed, "Serial API Error - Unknown Error"},
};

// The entry of `table` that `value` chooses; false outside the table.
template <size_t kCount>
bool Translate(const UInt32 (&table)[kCount], UInt32 value, UInt32* entry) {
    if (value >= kCount) {
        return false;
    }
    *entry = table[value];
    return true;
}

// False where a value has no setting on the line.
bool TranslateConfig(const RS232Cfg& cfg, DevmgrSerial_Config_t* config) {
    UInt32 data = 0;
    UInt32 parity = 0;
    UInt32 stop = 0;
    config->BaudRate = SerialBitsPerSecond(cfg.bitRate);
    if (config->BaudRate == 0 || !Translate(kDataBits, cfg.dataBits, &data) ||
        !Translate(kParity, cfg.parityBits, &parity) ||
        !Translate(kStopBits, cfg.stopBits, &stop)) {
        return false;
    }
    UInt32 flow = 0;
    if (cfg.hwFlowControlRtsCts != 0) {
        flow = kSerialRtsCts;
    } else if (cfg.swFlowControlXonXoff != 0) {
        flow = kSerialXonXoff;
    } else if (cfg.hwFlowControlDtrDsr != 0) {
        flow = kSerialDtrDsr;
    }
    config->CtrlBitMask = data | parity | stop | flow;
    return true;
}

void StoreConfig(int port, const RS232Cfg& cfg) {
    const InterruptsOffT off;
    port_cfgs[port] = cfg;
}

bool IsDevice(UInt32 slot) {
    return slot != kSerialPortFree && slot != kSerialPortReserved;
}

bool OpenDevice(int port, UInt32* devid) {
    for (int attempt = 1;; attempt++) {
        const UInt32 err = dev_open("Ser", static_cast<UInt32>(port + 1), devid);
        if (err == kDevOk) {
            return true;
        }
        if (attempt == kOpenAttempts) {
            printf("SERIALAPI: In OPEN, Port: %d Device Manager open returned err: %d\n", port,
                   static_cast<int>(err));
            printf("SERIALAPI: GIVE UP in Serial_Open() ... at Iteration:%d ...\n", attempt);
            return false;
        }
        tm_wkafter(kOpenPauseTicks);
    }
}

// Prints a request that failed.
void PrintFailed(int port, const char* operation, const char* request, UInt32 err) {
    printf("SERIALAPI: In %s, Port: %d Device Manager %s failed, err: %d\n", operation, port,
           request, static_cast<int>(err));
}

// Sends a control request and returns its result.
UInt32 Control(UInt32 devid, UInt32 ctlCode, DevmgrSerial_IoctlData_t data) {
    IORB iorb = {};
    iorb.pBuffer = reinterpret_cast<SInt8*>(&data);
    dev_ioctl(devid, &iorb, ctlCode);
    return iorb.err;
}

// Sets the device up and lets others use it. Returns the result of the request that failed, else 0.
UInt32 SetUpDevice(UInt32 devid, const DevmgrSerial_Config_t& config,
                   DevmgrSerial_CBInfo_t* callbacks, ReservedPortT* reserved) {
    const char* request = "config";
    UInt32 err = Control(devid, kSerialCtlConfig, {.serConfig = config});
    if (err == 0) {
        // The callbacks, which come from now on, may use the port.
        port_devids[reserved->port] = reserved->entry = devid;
        if (callbacks->txCBFunc != nullptr || callbacks->rxCBFunc != nullptr) {
            request = "set callback";
            err = Control(devid, kSerialCtlCallbacks, {.CBInfo = callbacks});
        }
    }
    if (err != 0) {
        PrintFailed(reserved->port, "OPEN", request, err);
    }
    return err;
}

// Common to enabling and disabling; `table` holds the status bits by direction.
eErrorT ChangeDirection(int port, SerialDirectionType serialDir, const UInt32 (&table)[3],
                        const char* operation) {
    if (!SerialPortExists(port)) {
        return kBadParameter;
    }
    const UInt32 slot = port_devids[port];
    if (slot == kSerialPortFree) {
        return kItemNotFound;
    }
    if (Serialport_Modes[port] == 1) {
        return kNoError;
    }
    UInt32 status = 0;
    if (!Translate(table, serialDir, &status)) {
        return kBadParameter;
    }
    if (!IsDevice(slot)) {
        return kItemNotFound;
    }
    const auto bits = static_cast<DevmgrSerial_Status_t>(status);
    const UInt32 err = Control(slot, kSerialCtlStatus, {.PortStatus = bits});
    if (err == 0) {
        return kNoError;
    }
    PrintFailed(port, operation, "ioctl", err);
    return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
}

typedef void RequestT(UInt32 devid, IORB* pIORB);

// Common to writing and reading.
int Transfer(int port, char* buffer, int size, int numOfMicroseconds, RequestT* request,
             const char* operation, const char* verb) {
    if (!SerialPortExists(port) || buffer == nullptr || size < 0) {
        return kBadParameter;
    }
    const UInt32 slot = port_devids[port];
    if (!IsDevice(slot)) {
        return kItemNotFound;
    }
    IORB iorb = {};
    iorb.pBuffer = buffer;
    iorb.reqLen = static_cast<UInt32>(size);
    iorb.timeout = static_cast<UInt32>(numOfMicroseconds);
    request(slot, &iorb);
    if (iorb.err != 0) {
        PrintFailed(port, operation, verb, iorb.err);
        return 0;
    }
    return static_cast<int>(iorb.actLen);
}

}  // namespace

bool SerialPortExists(int port) {
    return port >= 0 && port < kSerialPorts;
}

PortTableLockT::PortTableLockT(int port, const char* operation, const char* failed) {
    const UInt32 err = Serial_Lock_PortDevids();
    held_ = err == kSmOk;
    if (!held_) {
        printf("SERIALAPI: In %s, Port: %d Mutex %s, err: %d\n", operation, port, failed,
               static_cast<int>(err));
    }
}

PortTableLockT::~PortTableLockT() noexcept(false) {
    if (held_) {
        Serial_Unlock_PortDevids();
    }
}

ReservedPortT::~ReservedPortT() {
    port_devids[port].compare_exchange_strong(entry, kSerialPortFree);
}

UInt32 SerialBitsPerSecond(UInt32 bitRate) {
    UInt32 bitsPerSecond = 0;
    return Translate(kBaudRates, bitRate, &bitsPerSecond) ? bitsPerSecond : 0;
}

void Serial_Init() {
    const UInt32 err = sm_create("SERI", 1, 0, &portdevids_lock);
    if (err != kSmOk) {
        printf("SERIALAPI: In INIT, sm_create() err: %d\n", static_cast<int>(err));
    }
    for (std::atomic<UInt32>& slot : port_devids) {
        slot = kSerialPortFree;
    }
    if (GetSystemHardwareType() == kHarbor) {
        return;
    }
    for (const int port : kLeftoverSessions) {
        Serial_Close_PSH(port);
    }
}

UInt32 Serial_Lock_PortDevids() {
    return sm_p(portdevids_lock, 0, 0);
}

UInt32 Serial_Unlock_PortDevids() {
    return sm_v(portdevids_lock);
}

eErrorT Serial_Open(int port, SerialTxCallbackFuncPtrT txCallbackFuncPtr,
                    SerialRxCallbackFuncPtrT rxCallbackFuncPtr, void* rxCallbackContext,
                    const RS232Cfg* serialCfg) {
    if (!SerialPortExists(port) || serialCfg == nullptr) {
        return kBadParameter;
    }
    pthread_testcancel();
    {
        const PortTableLockT lock(port, "Open", "Lock failed....");
        if (!lock.Held()) {
            return kSemUnavail;
        }
        if (port_devids[port] != kSerialPortFree) {
            return kAlreadyInUse;
        }
        port_devids[port] = kSerialPortReserved;
    }
    const NoCancelT no_cancel;  // the device would be lost
    ReservedPortT reserved{port};
    UInt32 devid = 0;
    if (!OpenDevice(port, &devid)) {
        return kItemNotFound;
    }
    DevmgrSerial_Config_t config = {};
    if (!TranslateConfig(*serialCfg, &config)) {
        dev_close(devid);
        return kBadParameter;
    }
    DevmgrSerial_CBInfo_t callbacks = {txCallbackFuncPtr, rxCallbackFuncPtr, rxCallbackContext};
    Serialport_Modes[port] = 0;
    const UInt32 err = SetUpDevice(devid, config, &callbacks, &reserved);
    if (err != 0) {
        dev_close(devid);
        // 0, for a failure of the device table that no code stands for.
        return Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err));
    }
    reserved.Keep();
    StoreConfig(port, *serialCfg);
    return kNoError;
}

eErrorT Serial_Enable(int port, SerialDirectionType serialDir) {
    return ChangeDirection(port, serialDir, kEnableStatus, "ENABLE");
}

eErrorT Serial_Disable(int port, SerialDirectionType serialDir) {
    return ChangeDirection(port, serialDir, kDisableStatus, "DISABLE");
}

int Serial_Write(int port, char* writeBuf, int writeSize, int numOfMicroseconds) {
    return Transfer(port, writeBuf, writeSize, numOfMicroseconds, dev_write, "WRITE", "write");
}

int Serial_Read(int port, char* readBuf, int readSize, int numOfMicroseconds) {
    return Transfer(port, readBuf, readSize, numOfMicroseconds, dev_read, "READ", "read");
}

eErrorT Serial_Close(int port) {
    if (!SerialPortExists(port)) {
        return kBadParameter;
    }
    UInt32 devid;
    {
        const PortTableLockT lock(port, "CLOSE");
        if (!lock.Held()) {
            return kSemUnavail;
        }
        devid = port_devids[port];
        if (!IsDevice(devid)) {
            return kItemNotFound;
        }
        port_devids[port] = kSerialPortReserved;
    }
    const ReservedPortT reserved{port};
    dev_close(devid);  // without the lock: it may wait for a callback
    return kNoError;
}

eErrorT Serial_GetCfg(int port, const RS232Cfg* cfgPtr) {
    if (!SerialPortExists(port) || cfgPtr == nullptr) {
        return kBadParameter;
    }
    if (port_devids[port] == kSerialPortFree) {
        return kItemNotFound;
    }
    StoreConfig(port, *cfgPtr);
    return kNoError;
}

eErrorT Serial_Get_AppErr(DevMgrSerial_error_t sererr) {
    for (const AppErrorT& row : kAppErrors) {
        if (row.sererr == sererr) {
            puts(row.message);
            return row.result;
        }
    }
    return kNoError;
}
