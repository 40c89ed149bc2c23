// The table of lines, and opening, closing, reading and writing, which both kinds of line share.
#include "devlib/devmgr_serial/devmgr_serial.h"

#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "Common/OS/linux/board.h"
#include "Common/OS/linux/mutexguard.h"
#include "devlib/devmgr_serial/line.h"
#include "devlib/serialapi/serialapi.h"

DevMgrSerial_CB_t CBList[kSerialLines];

// The FPGA's lines 2 and 3 are not wired on the board.
const SInt8* const SerialPort_DevNames[kSerialLines] = {
    "/dev/fpgaserial0", "/dev/fpgaserial1", "/dev/fpgaserial4", "/dev/fpgaserial5",
    "/dev/ttyS1",       "/dev/fpgaserial6", "/dev/ttyUSB0",     "/dev/ttyUSB1"};

namespace {

constexpr char kFpgaPrefix[] = "/dev/fpgaserial";

// How late a request that waits may see that its line was closed.
constexpr UInt64 kWaitSlice = 50000;  // us

// Returns the descriptor, or a negative number.
int OpenLine(DevMgrSerial_CB_t* serialCB) {
    DEVCB* device = &serialCB->devCB;
    const MutexGuardT held(&serialCB->lock);  // a cancelled opening would lose its descriptor
    if (!serialCB->opened) {                  // else another one was first
        const int fd = BoardOpenDevice(SerialPort_DevNames[serialCB->portnum]);
        if (fd < 0 || fd >= FD_SETSIZE) {  // which select(2) cannot watch
            close(fd);
            return -1;
        }
        device->fd = fd;
        device->numOpens++;
        serialCB->opened = true;
    }
    device->state = kDevOpened;
    return device->fd;
}

UInt32 CloseLine(DevMgrSerial_CB_t* serialCB, bool remember) {
    if (serialCB == nullptr || serialCB->devCB.fd < 0) {
        return SERIAL_INVALID_PARAM;
    }
    {
        MutexGuardT held(&serialCB->lock);
        const int fd = std::exchange(serialCB->opened, false) ? serialCB->devCB.fd.load() : -1;
        serialCB->devCB.state = kDevClosed;
        serialCB->devCB.numCloses++;
        SerialLineWantThread(serialCB, false);
        serialCB->cbInfo.txCBFunc = nullptr;
        serialCB->cbInfo.rxCBFunc = nullptr;
        if (!remember) {
            serialCB->cbInfo.Context_Data = nullptr;
            serialCB->tx_enabled = serialCB->rx_enabled = 0;
        }
        held.Unlock();
        close(fd);
    }
    SerialLineSettleThread(serialCB);
    return SERIAL_NOERROR;
}

// Whether the line is still open as it was. The lock is held.
bool StillOpen(const DevMgrSerial_CB_t* serialCB, const SerialLineOpeningT& opening) {
    return opening.fd >= 0 && serialCB->devCB.numCloses == opening.closings;
}

// Waits for the line to have or to take (`output`) bytes, for at most `left` microseconds, and
// lowers them by the time spent. Returns 1 when it does, 0 when the time is over, -1 when the line
// fails or is closed, or there was no time.
int Wait(DevMgrSerial_CB_t* serialCB, const SerialLineOpeningT& opening, bool output,
         UInt64* left) {
    while (*left > 0) {
        {
            const MutexGuardT held(&serialCB->lock);
            if (!StillOpen(serialCB, opening)) {
                return -1;
            }
        }
        const auto most = static_cast<suseconds_t>(std::min(*left, kWaitSlice));
        timeval slice = {0, most};  // select(2) lowers it
        fd_set set;
        FD_ZERO(&set);
        FD_SET(opening.fd, &set);
        const int ready = select(opening.fd + 1, output ? nullptr : &set, output ? &set : nullptr,
                                 nullptr, &slice);
        *left -= static_cast<UInt64>(most - slice.tv_usec);
        if (ready != 0 || *left == 0) {
            return ready;
        }
    }
    return -1;
}

// A descriptor of its own for a write, which may last: closing the line takes no number away from
// it. Negative where the line was closed.
class WriteFdT {
  public:
    WriteFdT(DevMgrSerial_CB_t* serialCB, const SerialLineOpeningT& opening) {
        const MutexGuardT held(&serialCB->lock);
        fd_ = StillOpen(serialCB, opening) ? dup(opening.fd) : -1;
    }
    ~WriteFdT() {
        const NoCancelT no_cancel;
        close(fd_);
    }
    WriteFdT(const WriteFdT&) = delete;
    WriteFdT& operator=(const WriteFdT&) = delete;

    ssize_t Write(const IORB& iorb) const {
        const ssize_t written = write(fd_, iorb.pBuffer, iorb.reqLen);
        if (written > 0) {
            BoardDrain(fd_);
        }
        return written;
    }

  private:
    int fd_;
};

// How long a request may wait. More than 2^31 microseconds count as negative, as on the board: not
// at all.
UInt64 WaitOf(const IORB* pIORB) {
    if (pIORB->timeout == 0) {
        return UINT64_MAX;
    }
    return static_cast<SInt32>(pIORB->timeout) < 0 ? 0 : pIORB->timeout;
}

// The line as a request finds it; false, with the result set, where it has no line or no buffer.
bool Begin(DevMgrSerial_CB_t* serialCB, IORB* pIORB, SerialLineOpeningT* opening) {
    if (serialCB == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return false;
    }
    const MutexGuardT held(&serialCB->lock);
    *opening = SerialLineOpening(serialCB);
    return true;
}

void WriteLine(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    SerialLineOpeningT opening;
    if (!Begin(serialCB, pIORB, &opening)) {
        return;
    }
    if (!opening.transmits) {
        pIORB->err = SERIAL_TX_DISABLED;
        return;
    }
    UInt64 left = WaitOf(pIORB);
    const int ready = pIORB->timeout != 0 ? Wait(serialCB, opening, true, &left) : 1;
    const ssize_t written = ready > 0 ? WriteFdT(serialCB, opening).Write(*pIORB) : 0;
    pIORB->actLen = written > 0 ? static_cast<UInt32>(written) : 0;
    pIORB->err = written > 0 ? SERIAL_NOERROR : ready == 0 ? SERIAL_TIMEOUT : SERIAL_WRITE_ERROR;
}

// With a time-out reads until that is over, however many pieces the bytes come in, otherwise until
// something comes. A line that is readable but yields nothing (hung up) would stay so without any
// time passing: it ends the loop. Returns read(2)'s result where a read without a time-out failed,
// else 1.
int ReadLine(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    SerialLineOpeningT opening;
    if (!Begin(serialCB, pIORB, &opening)) {
        return 1;
    }
    const bool all = pIORB->timeout != 0;
    UInt64 left = WaitOf(pIORB);
    UInt32 received = 0;
    ssize_t count = pIORB->reqLen > 0 ? -1 : 0;
    while ((all || received == 0) && received < pIORB->reqLen &&
           Wait(serialCB, opening, false, &left) > 0) {
        const MutexGuardT held(&serialCB->lock);
        count = SerialLineReadNow(serialCB, opening, pIORB->pBuffer + received,
                                  pIORB->reqLen - received);
        if (count > 0) {
            received += static_cast<UInt32>(count);
        } else if (count != kNothingThere) {
            break;
        }
    }
    const bool failed = !all && received == 0;
    pIORB->actLen = received;
    pIORB->err = failed ? SERIAL_READ_ERROR : SERIAL_NOERROR;
    return failed ? static_cast<int>(count) : 1;
}

}  // namespace

SerialLineOpeningT SerialLineOpening(const DevMgrSerial_CB_t* serialCB) {
    return {serialCB->opened ? serialCB->devCB.fd.load() : -1, serialCB->devCB.numCloses,
            serialCB->tx_enabled != 0};
}

ssize_t SerialLineReadNow(const DevMgrSerial_CB_t* serialCB, const SerialLineOpeningT& opening,
                          SInt8* buffer, UInt32 size) {
    pollfd ready = {opening.fd, POLLIN, 0};
    if (!StillOpen(serialCB, opening) || poll(&ready, 1, 0) < 0) {
        return -1;
    }
    return ready.revents != 0 ? read(opening.fd, buffer, size) : kNothingThere;
}

UInt32 SerialLineSetCallbacks(DevMgrSerial_CB_t* serialCB, UInt32 ctlCode,
                              const DevmgrSerial_IoctlData_t& data) {
    if (ctlCode != kSerialCtlCallbacks) {
        return SERIAL_UNKNOWN_IOCTL;
    }
    const bool enabled = serialCB->tx_enabled != 0 || serialCB->rx_enabled != 0;
    const bool set = data.CBInfo != nullptr;
    serialCB->cbInfo = set ? *data.CBInfo : DevmgrSerial_CBInfo_t{};
    SerialLineWantThread(serialCB, set && (enabled || serialCB->threadWanted));
    return SERIAL_NOERROR;
}

void SerialLineSetTransmitter(DevMgrSerial_CB_t* serialCB, UInt32 status) {
    if ((status & (PORT_TX_ENABLE | PORT_TX_DISABLE)) != 0) {
        serialCB->tx_enabled = (status & PORT_TX_ENABLE) != 0 ? 1 : 0;
    }
}

void SerialLineControl(DEVCB* pDev, IORB* pIORB, SerialLineChangeT* change) {
    DevMgrSerial_CB_t* serialCB = SerialLineOf(pDev);
    if (serialCB == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return;
    }
    const auto* data = reinterpret_cast<const DevmgrSerial_IoctlData_t*>(pIORB->pBuffer);
    {
        const MutexGuardT held(&serialCB->lock);
        pIORB->err = serialCB->opened ? change(serialCB, serialCB->devCB.fd, pIORB->ctlCode, *data)
                                      : SERIAL_ERROR_UNKNOWN;
    }
    const UInt32 err = SerialLineSettleThread(serialCB);
    if (pIORB->err == SERIAL_NOERROR) {
        pIORB->err = err;
    }
}

void DevMgrSerial_Init() {
    for (DevMgrSerial_CB_t& line : CBList) {
        new (&line) DevMgrSerial_CB_t();
        pthread_mutex_init(&line.lock, nullptr);
        pthread_cond_init(&line.threadGone, nullptr);
    }
    Serial_Init();
    for (UInt32 port = 0; port < kSerialLines; port++) {
        const bool fpga =
            strncmp(SerialPort_DevNames[port], kFpgaPrefix, sizeof(kFpgaPrefix) - 1) == 0;
        DEVCB* device = &CBList[port].devCB;
        CBList[port].portnum = port;
        if (fpga) {
            dev_init(device, "Ser", port + 1, DevMgrFPGASerial_Open, DevMgrFPGASerial_Close,
                     DevMgrFPGASerial_Read, DevMgrFPGASerial_Write, DevMgrFPGASerial_Ioctl);
        } else {
            dev_init(device, "Ser", port + 1, DevMgrCPUSerial_Open, DevMgrCPUSerial_Close,
                     DevMgrCPUSerial_Read, DevMgrCPUSerial_Write, DevMgrCPUSerial_Ioctl);
        }
        dev_add(device);
    }
}

UInt32 DevMgrFPGASerial_Open(DEVCB* pDev) {
    puts("DevMgrFPGASerial_Open() ...");
    const int fd = OpenLine(SerialLineOf(pDev));
    if (fd < 0) {
        printf("########## FAILED to open serial port ... serialCB->devCB.fd[d%d -- 0x%x] ...\n",
               fd, static_cast<unsigned>(fd));
        return SERIAL_ERROR_UNKNOWN;
    }
    return SERIAL_NOERROR;
}

UInt32 DevMgrCPUSerial_Open(DEVCB* pDev) {
    return OpenLine(SerialLineOf(pDev)) < 0 ? SERIAL_ERROR_UNKNOWN : SERIAL_NOERROR;
}

UInt32 DevMgrFPGASerial_Close(DEVCB* pDev) {
    return CloseLine(SerialLineOf(pDev), true);
}

UInt32 DevMgrCPUSerial_Close(DEVCB* pDev) {
    return CloseLine(SerialLineOf(pDev), false);
}

void DevMgrFPGASerial_Write(DEVCB* pDev, IORB* pIORB) {
    WriteLine(SerialLineOf(pDev), pIORB);
}

void DevMgrCPUSerial_Write(DEVCB* pDev, IORB* pIORB) {
    WriteLine(SerialLineOf(pDev), pIORB);
}

void DevMgrFPGASerial_Read(DEVCB* pDev, IORB* pIORB) {
    const int result = ReadLine(SerialLineOf(pDev), pIORB);
    if (result < 1) {
        printf("DevMgrFPGASerial_Read(): Err: %d, portfd: %d buffer: 0x%x ReqLen: %d\n", result,
               pDev->fd.load(),
               static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(pIORB->pBuffer)),
               static_cast<int>(pIORB->reqLen));
    }
}

void DevMgrCPUSerial_Read(DEVCB* pDev, IORB* pIORB) {
    ReadLine(SerialLineOf(pDev), pIORB);
}
