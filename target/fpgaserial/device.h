// One line of the FPGA serial driver's substitute: the character device /dev/fpgaserialN with the
// driver's two control requests on one side, a byte stream (a serial line of the machine or a
// pseudo-terminal) on the other. Single-threaded: the main loop calls it when a descriptor is
// ready.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <deque>
#include <string>
#include <vector>

#include "target/fpgaserial/cuse.h"

class FpgaSerialDevice {
  public:
    FpgaSerialDevice(int number, FILE* log);

    // Creates the device node. False with errno set where that fails.
    bool Start();

    // Connects the stream behind the line. "pty:LINK" makes a pseudo-terminal and a symbolic link
    // LINK to it; "with:PATH" is a terminal device that is opened with the node and closed with it,
    // so that whoever stands at its other end sees both; anything else is a terminal device to open
    // raw. False with errno set.
    bool Connect(const std::string& stream);

    int cuseFd() const { return cuse_.fd(); }
    int lineFd() const { return hungUp_ ? -1 : lineFd_; }
    bool wantsToWrite() const { return !toLine_.empty() || outputAwaited_; }

    // From the kernel: serves every request that waits.
    void ServeRequests();

    // From the line: takes what has arrived, or drops it while the receiver is off. A line that has
    // gone away is so for the device's users too.
    void ReadLine();

    // To the line: writes what it takes.
    void WriteLine();

  private:
    struct PendingTransfer {
        uint64_t unique;
        uint32_t size;
    };
    struct PendingPoll {
        uint64_t file;
        uint64_t handle;
    };

    void Serve(const CuseRequest& request);
    void Open(const CuseRequest& request);
    void Release(const CuseRequest& request);
    void Read(const CuseRequest& request);
    void Write(const CuseRequest& request);
    void Ioctl(const CuseRequest& request);
    void Configure(const CuseRequest& request, const fuse_ioctl_in& call);
    void SwitchReceiver(const CuseRequest& request, const fuse_ioctl_in& call);
    void Poll(const CuseRequest& request);
    void Interrupt(const CuseRequest& request);
    void Nothing(const CuseRequest& request);
    void AnswerReads();
    void AnswerWrites(bool sent);
    bool TakesOutput() const;
    bool OpenLine();
    void CloseLine();
    void WakePolls();
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));

    CuseDevice cuse_;
    std::string name_;
    FILE* log_;
    std::string linePath_;  // of a line that is opened with the node
    int lineFd_ = -1;
    bool hungUp_ = false;
    bool receiverOn_ = false;
    bool outputAwaited_ = false;
    uint64_t opens_ = 0;
    uint64_t users_ = 0;
    std::deque<uint8_t> toLine_;
    std::deque<uint8_t> fromLine_;
    std::deque<PendingTransfer> reads_;
    std::deque<PendingTransfer> writes_;  // answered when all is out, as the driver does
    std::vector<PendingPoll> polls_;
};
