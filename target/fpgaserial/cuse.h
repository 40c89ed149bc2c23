// One character device served from user space, over the kernel's raw CUSE protocol (/dev/cuse).
// Single-threaded; the protocol's records are in the processor's byte order.
#pragma once

#include <linux/fuse.h>
#include <stddef.h>
#include <stdint.h>

#include <vector>

// A request of the kernel: its header, and the bytes behind it.
struct CuseRequest {
    fuse_in_header header;
    std::vector<uint8_t> body;

    // The record at the start of the body; zero where the body is shorter.
    template <typename T>
    T As() const {
        T record{};
        const size_t size = body.size() < sizeof record ? body.size() : sizeof record;
        __builtin_memcpy(&record, body.data(), size);
        return record;
    }
};

class CuseDevice {
  public:
    // Opens /dev/cuse and creates /dev/<name>. Returns false with errno set where that fails.
    bool Start(const char* name);

    int fd() const { return fd_; }

    // Reads the next request. False when there is none.
    bool Receive(CuseRequest* request);

    // Each answers the request once. `error` is an errno value, 0 for none.
    void Reply(const CuseRequest& request, const void* data, size_t size);
    void ReplyError(uint64_t unique, int error);

    // Wakes whoever polls the open file with this poll handle; it then asks again.
    void WakePoll(uint64_t pollHandle);

  private:
    void Send(uint64_t unique, int error, const void* data, size_t size);

    int fd_ = -1;
};
