// The table of lines, and opening, closing, reading and writing, which both kinds of line share.
#include "devlib/devmgr_serial/devmgr_serial.h"

#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

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

struct EntryPointsT {
    DevOpenFuncT* open;
    DevCloseFuncT* close;
    DevRequestFuncT* read;
    DevRequestFuncT* write;
    DevRequestFuncT* ioctl;
};

constexpr EntryPointsT kFpgaEntryPoints = {DevMgrFPGASerial_Open, DevMgrFPGASerial_Close,
                                           DevMgrFPGASerial_Read, DevMgrFPGASerial_Write,
                                           DevMgrFPGASerial_Ioctl};
constexpr EntryPointsT kCpuEntryPoints = {DevMgrCPUSerial_Open, DevMgrCPUSerial_Close,
                                          DevMgrCPUSerial_Read, DevMgrCPUSerial_Write,
                                          DevMgrCPUSerial_Ioctl};

// How late a request that waits may see that its line was closed.
constexpr UInt64 kWaitSlice = 50000;  // us

UInt64 MonotonicMicros() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<UInt64>(now.tv_sec) * 1000000 + static_cast<UInt64>(now.tv_nsec) / 1000;
}

// A descriptor that select(2) can watch, else -1.
int Watchable(int fd) {
    if (fd >= FD_SETSIZE) {
        close(fd);
        return -1;
    }
    return fd;
}

// Returns the descriptor, or a negative number.
int OpenLine(DevMgrSerial_CB_t* serialCB) {
    const NoCancelT no_cancel;  // between having the descriptor and noting it
    const int fd = Watchable(BoardOpenDevice(SerialPort_DevNames[serialCB->portnum]));
    if (fd < 0) {
        return fd;
    }
    DEVCB* device = &serialCB->devCB;
    const MutexGuardT held(&serialCB->lock);
    if (device->numOpens > 0 && !serialCB->closed) {
        close(fd);  // two opened it at once, and the other was first
    } else {
        device->fd = fd;
        device->numOpens++;
        serialCB->closed = false;
    }
    device->state = kDevOpened;
    return fd;
}

UInt32 CloseLine(DevMgrSerial_CB_t* serialCB, bool remember) {
    if (serialCB == nullptr || serialCB->devCB.fd < 0) {
        return SERIAL_INVALID_PARAM;
    }
    {
        MutexGuardT held(&serialCB->lock);
        const int fd = serialCB->closed ? -1 : serialCB->devCB.fd.load();
        serialCB->closed = true;
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
        if (fd >= 0) {
            close(fd);
        }
    }
    SerialLineSettleThread(serialCB);
    return SERIAL_NOERROR;
}

// How long a request may wait. More than 2^31 microseconds count as negative, as on the board: not
// at all.
UInt64 WaitOf(const IORB* pIORB) {
    if (pIORB->timeout == 0) {
        return UINT64_MAX;
    }
    return static_cast<SInt32>(pIORB->timeout) < 0 ? 0 : pIORB->timeout;
}

void WriteLine(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    if (serialCB == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return;
    }
    const SerialLineUseT use(serialCB);
    if (!use.TransmitterOn()) {
        pIORB->err = SERIAL_TX_DISABLED;
        return;
    }
    UInt64 left = WaitOf(pIORB);
    int ready = 1;
    if (pIORB->timeout != 0) {
        ready = left != 0 ? use.Wait(true, &left) : -1;
    }
    const ssize_t written = ready > 0 ? write(use.fd(), pIORB->pBuffer, pIORB->reqLen) : 0;
    if (written > 0) {
        BoardDrain(use.fd());
    }
    pIORB->actLen = written > 0 ? static_cast<UInt32>(written) : 0;
    pIORB->err = written > 0 ? SERIAL_NOERROR : ready == 0 ? SERIAL_TIMEOUT : SERIAL_WRITE_ERROR;
}

// With a time-out reads until that is over, however many pieces the bytes come in, otherwise until
// something comes. A line that is readable but yields nothing (hung up) would stay so without any
// time passing: it ends the loop. Returns read(2)'s result where a read without a time-out failed,
// else 1.
int ReadLine(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    if (serialCB == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return 1;
    }
    const SerialLineUseT use(serialCB);
    const bool all = pIORB->timeout != 0;
    UInt64 left = WaitOf(pIORB);
    UInt32 received = 0;
    ssize_t count = pIORB->reqLen > 0 ? -1 : 0;
    while (left > 0 && received < pIORB->reqLen && use.Wait(false, &left) > 0) {
        if (!use.ReadNow(pIORB->pBuffer + received, pIORB->reqLen - received, &count)) {
            continue;
        }
        if (count < 1) {
            break;
        }
        received += static_cast<UInt32>(count);
        left = all ? left : 0;
    }
    const bool failed = !all && received == 0;
    pIORB->actLen = received;
    pIORB->err = failed ? SERIAL_READ_ERROR : SERIAL_NOERROR;
    return failed ? static_cast<int>(count) : 1;
}

}  // namespace

SerialLineUseT::SerialLineUseT(DevMgrSerial_CB_t* serialCB) : serialCB_(serialCB) {
    const MutexGuardT held(&serialCB->lock);
    closings_ = serialCB->devCB.numCloses;
    transmitter_on_ = serialCB->tx_enabled != 0;
    if (!serialCB->closed) {
        fd_ = Watchable(dup(serialCB->devCB.fd));
    }
}

SerialLineUseT::~SerialLineUseT() {
    const NoCancelT no_cancel;
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool SerialLineUseT::Closed() const {
    return fd_ < 0 || serialCB_->devCB.numCloses != closings_;
}

bool SerialLineUseT::ReadNow(SInt8* buffer, UInt32 size, ssize_t* got) const {
    const MutexGuardT held(&serialCB_->lock);
    pollfd ready = {fd_, POLLIN, 0};
    *got = -1;
    if (Closed() || poll(&ready, 1, 0) < 0) {
        return true;
    }
    if (ready.revents == 0) {
        return false;
    }
    *got = read(fd_, buffer, size);
    return true;
}

int SerialLineUseT::Wait(bool output, UInt64* left) const {
    do {
        {
            const MutexGuardT held(&serialCB_->lock);
            if (Closed()) {
                return -1;
            }
        }
        const UInt64 start = MonotonicMicros();
        timeval slice = {0, static_cast<suseconds_t>(std::min(*left, kWaitSlice))};
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd_, &set);
        const int ready =
            select(fd_ + 1, output ? nullptr : &set, output ? &set : nullptr, nullptr, &slice);
        *left -= std::min(*left, MonotonicMicros() - start);
        if (ready != 0) {
            return ready;
        }
    } while (*left > 0);
    return 0;
}

void SerialLineSetCallbacks(DevMgrSerial_CB_t* serialCB, const DevmgrSerial_CBInfo_t* info) {
    const bool enabled = serialCB->tx_enabled != 0 || serialCB->rx_enabled != 0;
    serialCB->cbInfo = info != nullptr ? *info : DevmgrSerial_CBInfo_t{};
    SerialLineWantThread(serialCB, info != nullptr && (enabled || serialCB->threadWanted));
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
        pIORB->err = serialCB->closed ? SERIAL_ERROR_UNKNOWN
                                      : change(serialCB, serialCB->devCB.fd, pIORB->ctlCode, *data);
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
        const EntryPointsT& entry = fpga ? kFpgaEntryPoints : kCpuEntryPoints;
        CBList[port].portnum = port;
        dev_init(&CBList[port].devCB, "Ser", port + 1, entry.open, entry.close, entry.read,
                 entry.write, entry.ioctl);
        dev_add(&CBList[port].devCB);
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
