#include "target/fpgaserial/device.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

namespace {

// The driver's requests, and the record of the first: six 32-bit words in the processor's order.
constexpr uint32_t kSetConfig = 0x80260001;
constexpr uint32_t kReceiverOff = 0x80260002;

struct Config {
    uint32_t validMask;
    uint32_t baudRate;
    uint32_t parity;
    uint32_t stopBits;
    uint32_t flowControl;
    uint32_t dataBits;
};
static_assert(sizeof(Config) == 24);

bool MakeRaw(int fd) {
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) {
        return false;
    }
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD;
    cfsetspeed(&settings, B115200);
    return tcsetattr(fd, TCSANOW, &settings) == 0;
}

// Raw, and never waiting.
int OpenTerminal(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0 && !MakeRaw(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

// The slave side stays open here, so that the master does not see a hang-up between two users.
int OpenPseudoTerminal(const std::string& link) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        return -1;
    }
    const char* slaveName = ptsname(master);
    const int slave = open(slaveName, O_RDWR | O_NOCTTY | O_CLOEXEC);
    unlink(link.c_str());
    if (slave < 0 || !MakeRaw(slave) || symlink(slaveName, link.c_str()) != 0) {
        return -1;
    }
    return master;
}

}  // namespace

FpgaSerialDevice::FpgaSerialDevice(int number, FILE* log)
    : name_("fpgaserial" + std::to_string(number)), log_(log) {}

bool FpgaSerialDevice::Start() {
    return cuse_.Start(name_.c_str());
}

bool FpgaSerialDevice::Connect(const std::string& stream) {
    if (stream.starts_with("with:")) {
        linePath_ = stream.substr(5);
        return true;
    }
    lineFd_ =
        stream.starts_with("pty:") ? OpenPseudoTerminal(stream.substr(4)) : OpenTerminal(stream);
    return lineFd_ >= 0 && fcntl(lineFd_, F_SETFL, O_RDWR | O_NONBLOCK) == 0;
}

bool FpgaSerialDevice::OpenLine() {
    if (linePath_.empty() || users_ > 0) {
        return true;
    }
    lineFd_ = OpenTerminal(linePath_);
    hungUp_ = false;
    return lineFd_ >= 0;
}

void FpgaSerialDevice::CloseLine() {
    if (linePath_.empty() || users_ > 0) {
        return;
    }
    close(lineFd_);
    lineFd_ = -1;
    fromLine_.clear();
    toLine_.clear();
}

void FpgaSerialDevice::ServeRequests() {
    CuseRequest request{};
    while (cuse_.Receive(&request)) {
        Serve(request);
    }
}

void FpgaSerialDevice::Serve(const CuseRequest& request) {
    struct Entry {
        uint32_t opcode;
        void (FpgaSerialDevice::*serve)(const CuseRequest&);
    };
    static constexpr Entry kEntries[] = {
        {FUSE_OPEN, &FpgaSerialDevice::Open},           {FUSE_RELEASE, &FpgaSerialDevice::Release},
        {FUSE_READ, &FpgaSerialDevice::Read},           {FUSE_WRITE, &FpgaSerialDevice::Write},
        {FUSE_IOCTL, &FpgaSerialDevice::Ioctl},         {FUSE_POLL, &FpgaSerialDevice::Poll},
        {FUSE_FLUSH, &FpgaSerialDevice::Nothing},       {FUSE_FSYNC, &FpgaSerialDevice::Nothing},
        {FUSE_INTERRUPT, &FpgaSerialDevice::Interrupt},
    };
    for (const Entry& entry : kEntries) {
        if (entry.opcode == request.header.opcode) {
            (this->*entry.serve)(request);
            return;
        }
    }
    cuse_.ReplyError(request.header.unique, ENOSYS);
}

void FpgaSerialDevice::Open(const CuseRequest& request) {
    if (!OpenLine()) {
        cuse_.ReplyError(request.header.unique, errno);
        return;
    }
    fuse_open_out answer{};
    answer.fh = ++opens_;
    users_++;
    answer.open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE;
    Log("open");
    cuse_.Reply(request, &answer, sizeof answer);
}

void FpgaSerialDevice::Release(const CuseRequest& request) {
    const auto call = request.As<fuse_release_in>();
    std::erase_if(polls_, [&](const PendingPoll& poll) { return poll.file == call.fh; });
    users_--;
    CloseLine();
    Log("close");
    cuse_.ReplyError(request.header.unique, 0);
}

void FpgaSerialDevice::Nothing(const CuseRequest& request) {
    cuse_.ReplyError(request.header.unique, 0);
}

void FpgaSerialDevice::Read(const CuseRequest& request) {
    const auto call = request.As<fuse_read_in>();
    if (fromLine_.empty() && !hungUp_ && (call.flags & O_NONBLOCK) != 0) {
        cuse_.ReplyError(request.header.unique, EAGAIN);
        return;
    }
    reads_.push_back({request.header.unique, call.size});
    AnswerReads();
}

void FpgaSerialDevice::AnswerReads() {
    while (!reads_.empty() && (!fromLine_.empty() || hungUp_)) {
        const PendingTransfer read = reads_.front();
        reads_.pop_front();
        const size_t size = std::min<size_t>(read.size, fromLine_.size());
        const auto end = fromLine_.begin() + static_cast<ptrdiff_t>(size);
        const std::vector<uint8_t> bytes(fromLine_.begin(), end);
        fromLine_.erase(fromLine_.begin(), end);
        CuseRequest answered{};
        answered.header.unique = read.unique;
        cuse_.Reply(answered, bytes.data(), bytes.size());
    }
}

void FpgaSerialDevice::Write(const CuseRequest& request) {
    const auto call = request.As<fuse_write_in>();
    const size_t size = std::min<size_t>(call.size, request.body.size() - sizeof call);
    const auto start = request.body.begin() + sizeof call;
    toLine_.insert(toLine_.end(), start, start + static_cast<ptrdiff_t>(size));
    writes_.push_back({request.header.unique, static_cast<uint32_t>(size)});
    WriteLine();
}

// Those that wait: `sent`, or failed with the line.
void FpgaSerialDevice::AnswerWrites(bool sent) {
    for (const PendingTransfer& write : writes_) {
        CuseRequest answered{};
        answered.header.unique = write.unique;
        const fuse_write_out answer{.size = write.size, .padding = 0};
        if (sent) {
            cuse_.Reply(answered, &answer, sizeof answer);
        } else {
            cuse_.ReplyError(write.unique, EIO);
        }
    }
    writes_.clear();
}

bool FpgaSerialDevice::TakesOutput() const {
    pollfd line{lineFd_, POLLOUT, 0};
    return lineFd_ < 0 || hungUp_ || (toLine_.empty() && poll(&line, 1, 0) == 1);
}

void FpgaSerialDevice::Ioctl(const CuseRequest& request) {
    const auto call = request.As<fuse_ioctl_in>();
    if (hungUp_) {
        cuse_.ReplyError(request.header.unique, EIO);
    } else if (call.cmd == kSetConfig) {
        Configure(request, call);
    } else if (call.cmd == kReceiverOff) {
        SwitchReceiver(request, call);
    } else {
        Log("unknown request %08x", call.cmd);
        cuse_.ReplyError(request.header.unique, ENOTTY);
    }
}

void FpgaSerialDevice::Configure(const CuseRequest& request, const fuse_ioctl_in& call) {
    fuse_ioctl_out answer{};
    Config config{};
    if (call.in_size < sizeof config) {
        const fuse_ioctl_iovec record{.base = call.arg, .len = sizeof config};
        answer.flags = FUSE_IOCTL_RETRY;
        answer.in_iovs = 1;
        std::string retry(reinterpret_cast<const char*>(&answer), sizeof answer);
        retry.append(reinterpret_cast<const char*>(&record), sizeof record);
        cuse_.Reply(request, retry.data(), retry.size());
        return;
    }
    __builtin_memcpy(&config, request.body.data() + sizeof call, sizeof config);
    Log("config valid_mask=%u baudrate=%u parity=%u stopbits=%u hwflowctrl=%u databits_size=%u",
        config.validMask, config.baudRate, config.parity, config.stopBits, config.flowControl,
        config.dataBits);
    cuse_.Reply(request, &answer, sizeof answer);
}

void FpgaSerialDevice::SwitchReceiver(const CuseRequest& request, const fuse_ioctl_in& call) {
    const fuse_ioctl_out answer{};
    receiverOn_ = call.arg == 0;
    Log("receiver %s", receiverOn_ ? "on" : call.arg == 1 ? "off" : "with an odd argument");
    cuse_.Reply(request, &answer, sizeof answer);
}

void FpgaSerialDevice::Poll(const CuseRequest& request) {
    const auto call = request.As<fuse_poll_in>();
    if ((call.flags & FUSE_POLL_SCHEDULE_NOTIFY) != 0) {
        std::erase_if(polls_, [&](const PendingPoll& poll) { return poll.handle == call.kh; });
        polls_.push_back({call.fh, call.kh});
    }
    fuse_poll_out answer{};
    outputAwaited_ = !TakesOutput();
    answer.revents = static_cast<uint32_t>(
        (fromLine_.empty() && !hungUp_ ? 0 : POLLIN | POLLRDNORM) |
        (outputAwaited_ ? 0 : POLLOUT | POLLWRNORM) | (hungUp_ ? POLLHUP | POLLERR : 0));
    cuse_.Reply(request, &answer, sizeof answer);
}

void FpgaSerialDevice::WakePolls() {
    for (const PendingPoll& poll : polls_) {
        cuse_.WakePoll(poll.handle);
    }
    polls_.clear();
}

// A signal, such as a thread's cancellation, ends a blocked read or write; what the write had not
// sent yet is lost.
void FpgaSerialDevice::Interrupt(const CuseRequest& request) {
    const auto call = request.As<fuse_interrupt_in>();
    const auto meant = [&](const PendingTransfer& pending) {
        return pending.unique == call.unique;
    };
    const bool written = std::erase_if(writes_, meant) != 0;
    if (written) {
        toLine_.clear();
    }
    if (written || std::erase_if(reads_, meant) != 0) {
        cuse_.ReplyError(call.unique, EINTR);
    }
}

void FpgaSerialDevice::ReadLine() {
    uint8_t bytes[1024];
    const ssize_t size = read(lineFd_, bytes, sizeof bytes);
    hungUp_ = !linePath_.empty() && (size == 0 || (size < 0 && errno != EAGAIN));
    if (hungUp_) {
        toLine_.clear();
        AnswerWrites(false);
    } else if (size <= 0 || !receiverOn_) {
        return;
    } else {
        fromLine_.insert(fromLine_.end(), bytes, bytes + size);
    }
    AnswerReads();
    WakePolls();
}

void FpgaSerialDevice::WriteLine() {
    while (!toLine_.empty() && lineFd() >= 0) {
        uint8_t bytes[1024];
        const size_t size = std::min(sizeof bytes, toLine_.size());
        std::copy_n(toLine_.begin(), size, bytes);
        const ssize_t written = write(lineFd_, bytes, size);
        if (written <= 0) {
            return;
        }
        toLine_.erase(toLine_.begin(), toLine_.begin() + written);
    }
    toLine_.clear();
    AnswerWrites(!hungUp_);
    outputAwaited_ = false;
    WakePolls();
}

void FpgaSerialDevice::Log(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fprintf(log_, "%s ", name_.c_str());
    vfprintf(log_, format, arguments);
    fputc('\n', log_);
    fflush(log_);
    va_end(arguments);
}
