// The table of lines, and opening, closing, reading and writing, which both kinds of line share.
#include "devlib/devmgr_serial/devmgr_serial.h"

#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

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

// One per line: held from seeing that bytes are there to reading them, so that of two readers (a
// request and the line's thread) neither blocks in read(2) for bytes that the other took.
struct ReadLockT {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};
constinit ReadLockT readLocks[kSerialLines];

int DescriptorOf(const DevMgrSerial_CB_t* serialCB) {
    return serialCB->devCB.fd.load(std::memory_order_acquire);
}

// Requests carry a 32-bit count of microseconds, read as signed: with more than 2^31 of them the
// wait is refused by the system as on the board, whatever the width of the field here.
timeval TimeoutOf(const IORB* pIORB) {
    timeval timeout = {};
    timeout.tv_usec = static_cast<SInt32>(pIORB->timeout);
    return timeout;
}

void SetResult(IORB* pIORB, UInt32 actLen, DevMgrSerial_error_t err) {
    pIORB->actLen = actLen;
    pIORB->err = err;
}

// Returns the descriptor, or a negative number.
int OpenLine(DevMgrSerial_CB_t* serialCB) {
    int fd = BoardOpenDevice(SerialPort_DevNames[serialCB->portnum]);
    if (fd >= FD_SETSIZE) {
        close(fd);  // select(2) could not watch it
        fd = -1;
    }
    if (fd >= 0) {
        serialCB->devCB.fd.store(fd, std::memory_order_release);
        serialCB->devCB.state.store(kDevOpened, std::memory_order_release);
        serialCB->devCB.numOpens++;
    }
    return fd;
}

// The thread goes before the descriptor: once closed, the descriptor's number may be given to
// another file at any moment, and the thread must not read that.
UInt32 CloseLine(DevMgrSerial_CB_t* serialCB) {
    if (serialCB == nullptr || DescriptorOf(serialCB) < 0) {
        return SERIAL_INVALID_PARAM;
    }
    DevMgrSerial_Stop_AsyncThread(serialCB);
    close(DescriptorOf(serialCB));
    serialCB->devCB.state.store(kDevClosed, std::memory_order_release);
    serialCB->devCB.numCloses++;
    serialCB->cbInfo.txCBFunc.store(nullptr, std::memory_order_release);
    serialCB->cbInfo.rxCBFunc.store(nullptr, std::memory_order_release);
    return SERIAL_NOERROR;
}

DevMgrSerial_error_t WaitWritable(int fd, timeval timeout) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(fd, &writable);
    const int ready = select(fd + 1, nullptr, &writable, nullptr, &timeout);
    if (ready < 0) {
        return SERIAL_WRITE_ERROR;
    }
    return ready == 0 ? SERIAL_TIMEOUT : SERIAL_NOERROR;
}

void WriteLine(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    if (serialCB == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return;
    }
    if (serialCB->tx_enabled.load(std::memory_order_acquire) == 0) {
        pIORB->err = SERIAL_TX_DISABLED;
        return;
    }
    const int fd = DescriptorOf(serialCB);
    if (pIORB->timeout != 0) {
        const DevMgrSerial_error_t err = WaitWritable(fd, TimeoutOf(pIORB));
        if (err != SERIAL_NOERROR) {
            SetResult(pIORB, 0, err);
            return;
        }
    }
    const ssize_t written = write(fd, pIORB->pBuffer, pIORB->reqLen);
    if (written > 0) {
        SetResult(pIORB, static_cast<UInt32>(written), SERIAL_NOERROR);
    } else {
        SetResult(pIORB, 0, SERIAL_WRITE_ERROR);
    }
}

// select(2) lowers the time left, which bounds the loop, and writes it back with whole seconds in
// their own field. A line that is readable but yields nothing (hung up) would stay so without any
// time passing: it ends the loop.
void ReadWithTimeout(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    const int fd = DescriptorOf(serialCB);
    timeval left = TimeoutOf(pIORB);
    UInt32 received = 0;
    while ((left.tv_sec > 0 || left.tv_usec > 0) && received < pIORB->reqLen) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        if (select(fd + 1, &readable, nullptr, nullptr, &left) < 1) {
            break;
        }
        const int count =
            SerialLineReadNow(serialCB, pIORB->pBuffer + received, pIORB->reqLen - received);
        if (count < 0) {
            break;
        }
        received += static_cast<UInt32>(count);
    }
    SetResult(pIORB, received, SERIAL_NOERROR);
}

// Returns the result of read(2) where that failed, else 1.
int ReadLine(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    if (serialCB == nullptr || pIORB->pBuffer == nullptr) {
        pIORB->err = SERIAL_INVALID_PARAM;
        return 1;
    }
    if (pIORB->timeout != 0) {
        ReadWithTimeout(serialCB, pIORB);
        return 1;
    }
    const ssize_t count = read(DescriptorOf(serialCB), pIORB->pBuffer, pIORB->reqLen);
    if (count < 1) {
        SetResult(pIORB, 0, SERIAL_READ_ERROR);
        return static_cast<int>(count);
    }
    SetResult(pIORB, static_cast<UInt32>(count), SERIAL_NOERROR);
    return 1;
}

}  // namespace

bool SerialLineEnabled(const DevMgrSerial_CB_t* serialCB) {
    return serialCB->tx_enabled.load(std::memory_order_acquire) != 0 ||
           serialCB->rx_enabled.load(std::memory_order_acquire) != 0;
}

void SerialLineCallbackRequest(DevMgrSerial_CB_t* serialCB, IORB* pIORB) {
    const auto* data = reinterpret_cast<const DevmgrSerial_IoctlData_t*>(pIORB->pBuffer);
    if (data->CBInfo == nullptr) {
        DevMgrSerial_Stop_AsyncThread(serialCB);
        SerialLineSetCallbacks(serialCB, nullptr);
        return;
    }
    SerialLineSetCallbacks(serialCB, data->CBInfo);
    if (SerialLineEnabled(serialCB)) {
        DevMgrSerial_Start_AsyncThread(serialCB, &pIORB->err);
    }
}

void SerialLineSetTransmitter(DevMgrSerial_CB_t* serialCB, UInt32 status) {
    if ((status & PORT_TX_ENABLE) != 0) {
        serialCB->tx_enabled.store(1, std::memory_order_release);
    } else if ((status & PORT_TX_DISABLE) != 0) {
        serialCB->tx_enabled.store(0, std::memory_order_release);
    }
}

int SerialLineReadNow(DevMgrSerial_CB_t* serialCB, SInt8* buffer, UInt32 size) {
    const CancellableMutexGuardT held(&readLocks[serialCB->portnum].mutex);
    pollfd ready = {DescriptorOf(serialCB), POLLIN, 0};
    const int count = poll(&ready, 1, 0);
    if (count == 0) {
        return 0;
    }
    const ssize_t got = count < 0 ? -1 : read(ready.fd, buffer, size);
    return got > 0 ? static_cast<int>(got) : -1;
}

void DevMgrSerial_Init() {
    for (DevMgrSerial_CB_t& line : CBList) {
        new (&line) DevMgrSerial_CB_t();
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
    return CloseLine(SerialLineOf(pDev));
}

UInt32 DevMgrCPUSerial_Close(DEVCB* pDev) {
    DevMgrSerial_CB_t* serialCB = SerialLineOf(pDev);
    const UInt32 err = CloseLine(serialCB);
    if (err == SERIAL_NOERROR) {
        serialCB->cbInfo.Context_Data.store(nullptr, std::memory_order_release);
        serialCB->tx_enabled.store(0, std::memory_order_release);
        serialCB->rx_enabled.store(0, std::memory_order_release);
    }
    return err;
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
               DescriptorOf(SerialLineOf(pDev)),
               static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(pIORB->pBuffer)),
               static_cast<int>(pIORB->reqLen));
    }
}

void DevMgrCPUSerial_Read(DEVCB* pDev, IORB* pIORB) {
    ReadLine(SerialLineOf(pDev), pIORB);
}
