// Control requests of FPGA lines, which are set up through their driver's two requests.
#include <stdio.h>

#include "Common/OS/linux/board.h"
#include "devlib/devmgr_serial/line.h"

namespace {

constexpr UInt32 kMinBaudRate = 9600;
constexpr UInt32 kMaxBaudRate = 115200;
// Up to this instance a line has fixed stop bits, data bits and flow control.
constexpr UInt32 kLastFixedInstance = 2;

fpgaserial_parity_t Parity(UInt32 mask) {
    if ((mask & kSerialParityEven) != 0) {
        return FPGASERIAL_EVEN_PARITY;
    }
    return (mask & kSerialParityOdd) != 0 ? FPGASERIAL_ODD_PARITY : FPGASERIAL_PARITY_NONE;
}

UInt32 Configure(const DevMgrSerial_CB_t* serialCB, int fd, const DevmgrSerial_Config_t& config) {
    const UInt32 mask = config.CtrlBitMask;
    fpgaserial_config_t line = {};
    if (serialCB->devCB.instance > kLastFixedInstance) {
        line.valid_mask = kFpgaSerialValidAll;
        line.databits_size = static_cast<fpgaserial_databits_t>(SerialLineDataBits(mask));
        line.stopbits =
            (mask & kSerialStopBits2) != 0 ? FPGASERIAL_STOPBITS_2 : FPGASERIAL_STOPBITS_1;
    } else {
        line.valid_mask = kFpgaSerialValidBaudRate | kFpgaSerialValidParity;
    }
    if (config.BaudRate < kMinBaudRate || config.BaudRate > kMaxBaudRate) {
        return SERIAL_INVALID_PARAM;
    }
    line.baudrate = config.BaudRate;
    line.parity = Parity(mask);
    line.hwflowctrl = FPGASERIAL_HWFLOWCTRL_NONE;
    const int err = BoardFpgaSerialConfigure(fd, &line);
    if (err != 0) {
        printf(
            "DevMgrFPGASerial_Ioctl(): ^^^^^^^^^^^Setting Configuration in FPGA Serial Driver "
            "failed, err: %d...\n",
            err);
        return SERIAL_ERROR_UNKNOWN;
    }
    return SERIAL_NOERROR;
}

// Returns false where the driver refused.
bool SetReceiver(DevMgrSerial_CB_t* serialCB, int fd, UInt32 status) {
    const bool on = (status & PORT_RX_ENABLE) != 0;
    if (!on && (status & PORT_RX_DISABLE) == 0) {
        return true;
    }
    if (BoardFpgaSerialReceiver(fd, on ? 0 : 1) != 0) {
        return false;
    }
    serialCB->rx_enabled = on ? 1 : 0;
    return true;
}

UInt32 ChangeStatus(DevMgrSerial_CB_t* serialCB, int fd, UInt32 status) {
    if (!SetReceiver(serialCB, fd, status)) {
        return SERIAL_ERROR_UNKNOWN;
    }
    SerialLineSetTransmitter(serialCB, status);
    const bool tx = serialCB->tx_enabled != 0;
    const bool rx = serialCB->rx_enabled != 0;
    // Without a callback for an enabled direction the client reads and writes by itself.
    if ((tx && serialCB->cbInfo.txCBFunc != nullptr) ||
        (rx && serialCB->cbInfo.rxCBFunc != nullptr)) {
        SerialLineWantThread(serialCB, true);
    } else if (!tx && !rx) {
        SerialLineWantThread(serialCB, false);
    }
    return SERIAL_NOERROR;
}

UInt32 Change(DevMgrSerial_CB_t* serialCB, int fd, UInt32 ctlCode,
              const DevmgrSerial_IoctlData_t& data) {
    switch (ctlCode) {
        case kSerialCtlConfig:
            return Configure(serialCB, fd, data.serConfig);
        case kSerialCtlStatus:
            return ChangeStatus(serialCB, fd, data.PortStatus);
        default:
            return SerialLineSetCallbacks(serialCB, ctlCode, data);
    }
}

}  // namespace

void DevMgrFPGASerial_Ioctl(DEVCB* pDev, IORB* pIORB) {
    SerialLineControl(pDev, pIORB, Change);
}
