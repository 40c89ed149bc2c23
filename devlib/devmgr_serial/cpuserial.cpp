// Control requests of CPU and USB lines, which are set up through termios.
#include <stdio.h>
#include <termios.h>

#include "Common/OS/linux/board.h"
#include "Common/OS/linux/serialspeed.h"
#include "devlib/devmgr_serial/line.h"

namespace {

constexpr int kSpeedAttempts = 5;
constexpr tcflag_t kCookedModes =
    ICANON | ISIG | XCASE | ECHO | ECHOE | ECHOK | ECHONL | ECHOPRT | ECHOCTL | ECHOKE;

constexpr tcflag_t kCharacterSizes[] = {CS5, CS6, CS7, CS8};

void SetBits(tcflag_t* modes, tcflag_t bits, bool on) {
    *modes = on ? *modes | bits : *modes & ~bits;
}

void SetModes(termios* line, UInt32 mask) {
    const bool hardwareFlow = (mask & (kSerialRtsCts | kSerialDtrDsr)) != 0;
    line->c_iflag = 0;
    SetBits(&line->c_iflag, IXON | IXOFF, (mask & kSerialXonXoff) != 0 && !hardwareFlow);
    line->c_oflag &= ~static_cast<tcflag_t>(OPOST);
    line->c_lflag &= ~kCookedModes;
    line->c_cflag =
        (line->c_cflag & ~static_cast<tcflag_t>(CSIZE)) | kCharacterSizes[SerialLineDataBits(mask)];
    // Even parity leaves PARODD as it was.
    const bool odd = (mask & kSerialParityEven) == 0 && (mask & kSerialParityOdd) != 0;
    SetBits(&line->c_cflag, PARENB, (mask & (kSerialParityEven | kSerialParityOdd)) != 0);
    SetBits(&line->c_cflag, PARODD, odd || (line->c_cflag & PARODD) != 0);
    SetBits(&line->c_cflag, CSTOPB, (mask & kSerialStopBits2) != 0);
    SetBits(&line->c_cflag, CRTSCTS, hardwareFlow);
    // The receiver stays off until a status request switches it on.
    SetBits(&line->c_cflag, CREAD, false);
}

bool SetSpeed(termios* line, UInt32 baudRate) {
    const speed_t speed = SerialSpeed(baudRate);
    for (int attempt = 0; attempt < kSpeedAttempts; attempt++) {
        if (cfsetispeed(line, speed) != 0) {
            printf("DevMgrCPUSerial_Ioctl(): Setting IN Baudrate failed...Try: %d\n", attempt);
        } else if (cfsetospeed(line, speed) != 0) {
            printf("DevMgrCPUSerial_Ioctl(): Setting OUT Baudrate failed...Try: %d\n", attempt);
        } else {
            return true;
        }
    }
    return false;
}

UInt32 Configure(int fd, termios* line, const DevmgrSerial_Config_t& config) {
    SetModes(line, config.CtrlBitMask);
    if (!SetSpeed(line, config.BaudRate)) {
        return SERIAL_ERROR_UNKNOWN;
    }
    if (BoardSetTerminal(fd, line) != 0) {
        puts("DevMgrCPUSerial_Ioctl(): Setting terminal options failed...");
        return SERIAL_ERROR_UNKNOWN;
    }
    return SERIAL_NOERROR;
}

UInt32 ChangeStatus(DevMgrSerial_CB_t* serialCB, int fd, termios* line, UInt32 status) {
    if ((status & PORT_RX_ENABLE) != 0) {
        SetBits(&line->c_cflag, CREAD, true);
        serialCB->rx_enabled = 1;
    } else if ((status & PORT_RX_DISABLE) != 0) {
        SetBits(&line->c_cflag, CREAD, false);
        serialCB->rx_enabled = 0;
    }
    SerialLineSetTransmitter(serialCB, status);
    const bool applied = BoardSetTerminal(fd, line) == 0;
    const bool enabled = serialCB->tx_enabled != 0 || serialCB->rx_enabled != 0;
    // Refused attributes start no thread.
    SerialLineWantThread(serialCB, enabled && (applied || serialCB->threadWanted));
    return applied ? SERIAL_NOERROR : SERIAL_ERROR_UNKNOWN;
}

UInt32 Change(DevMgrSerial_CB_t* serialCB, int fd, UInt32 ctlCode,
              const DevmgrSerial_IoctlData_t& data) {
    termios line = {};
    if (tcgetattr(fd, &line) != 0) {
        return SERIAL_ERROR_UNKNOWN;
    }
    switch (ctlCode) {
        case kSerialCtlConfig:
            return Configure(fd, &line, data.serConfig);
        case kSerialCtlStatus:
            return ChangeStatus(serialCB, fd, &line, data.PortStatus);
        default:
            return SerialLineSetCallbacks(serialCB, ctlCode, data);
    }
}

}  // namespace

void DevMgrCPUSerial_Ioctl(DEVCB* pDev, IORB* pIORB) {
    SerialLineControl(pDev, pIORB, Change);
}
