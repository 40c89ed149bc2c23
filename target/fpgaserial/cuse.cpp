#include "target/fpgaserial/cuse.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string>

namespace {

constexpr uint32_t kMaxData = 4096;
// What the kernel demands at least.
constexpr size_t kRequestSize = FUSE_MIN_READ_BUFFER + kMaxData;

}  // namespace

bool CuseDevice::Start(const char* name) {
    fd_ = open("/dev/cuse", O_RDWR | O_CLOEXEC);
    CuseRequest request{};
    if (fd_ < 0 || !Receive(&request) || request.header.opcode != CUSE_INIT) {
        return false;
    }
    const auto asked = request.As<cuse_init_in>();
    cuse_init_out answer{};
    answer.major = FUSE_KERNEL_VERSION;
    answer.minor = FUSE_KERNEL_MINOR_VERSION;
    // The driver's requests encode no usable size, so their data must be fetched by retry.
    answer.flags = asked.flags & CUSE_UNRESTRICTED_IOCTL;
    answer.max_read = kMaxData;
    answer.max_write = kMaxData;
    std::string message(reinterpret_cast<const char*>(&answer), sizeof answer);
    message += "DEVNAME=";
    message += name;
    message += '\0';
    Reply(request, message.data(), message.size());
    return fcntl(fd_, F_SETFL, O_RDWR | O_NONBLOCK) == 0;
}

bool CuseDevice::Receive(CuseRequest* request) {
    uint8_t buffer[kRequestSize];
    const ssize_t size = read(fd_, buffer, sizeof buffer);
    if (size < static_cast<ssize_t>(sizeof request->header)) {
        return false;
    }
    memcpy(&request->header, buffer, sizeof request->header);
    request->body.assign(buffer + sizeof request->header, buffer + size);
    return true;
}

void CuseDevice::Reply(const CuseRequest& request, const void* data, size_t size) {
    Send(request.header.unique, 0, data, size);
}

void CuseDevice::ReplyError(uint64_t unique, int error) {
    Send(unique, -error, nullptr, 0);
}

void CuseDevice::WakePoll(uint64_t pollHandle) {
    const fuse_notify_poll_wakeup_out wakeup{.kh = pollHandle};
    Send(0, FUSE_NOTIFY_POLL, &wakeup, sizeof wakeup);
}

void CuseDevice::Send(uint64_t unique, int error, const void* data, size_t size) {
    fuse_out_header header{};
    header.len = static_cast<uint32_t>(sizeof header + size);
    header.error = error;
    header.unique = unique;
    const iovec parts[] = {{&header, sizeof header}, {const_cast<void*>(data), size}};
    // ENOENT: the caller was killed meanwhile, or nobody polls any more.
    if (writev(fd_, parts, size > 0 ? 2 : 1) < 0 && errno != ENOENT) {
        perror("fpgaserial: answer to the kernel");
    }
}
