// The FPGA serial driver's substitute, as a program that opens its device sees it. The stream
// behind the tested line is a pseudo-terminal whose other end the test holds. Runs only inside the
// machine.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "tests/target/driver_process.h"
#include "tests/target/read_bytes.h"

namespace {

constexpr unsigned long kSetConfig = 0x80260001;
constexpr unsigned long kReceiverOff = 0x80260002;
constexpr const char* kNode = "/dev/fpgaserial4";

struct FpgaSerial : ::testing::Test {
    ~FpgaSerial() override {
        close(device_);
        close(peer_);
    }

    const DriverProcess driver_{{"--line", "4=pty:/tmp/line4"}};
    const int peer_ = open("/tmp/line4", O_RDWR | O_NOCTTY);
    int device_ = open(kNode, O_RDWR);
};

}  // namespace

TEST_F(FpgaSerial, DriverRequestsAreMisreadOrNotRecorded) {
    const uint32_t config[6] = {0x1F, 115200, 2, 1, 0, 3};
    ASSERT_EQ(ioctl(device_, kSetConfig, config), 0) << strerror(errno);
    const uint32_t narrow[6] = {3, 9600, 0, 0, 0, 0};
    ASSERT_EQ(ioctl(device_, kSetConfig, narrow), 0);
    ASSERT_EQ(ioctl(device_, kReceiverOff, 0), 0);
    ASSERT_EQ(ioctl(device_, kReceiverOff, 1), 0);
    EXPECT_EQ(ioctl(device_, kSetConfig, 16), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(ioctl(device_, 0x80260003, 0), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_FALSE(isatty(device_));
    close(device_);
    device_ = open("/dev/fpgaserial1", O_RDWR);
    EXPECT_EQ(driver_.Log().substr(0, driver_.Log().find("fpgaserial4 close")),
              "fpgaserial4 open\n"
              "fpgaserial4 config valid_mask=31 baudrate=115200 parity=2 stopbits=1 hwflowctrl=0 "
              "databits_size=3\n"
              "fpgaserial4 config valid_mask=3 baudrate=9600 parity=0 stopbits=0 hwflowctrl=0 "
              "databits_size=0\n"
              "fpgaserial4 receiver on\n"
              "fpgaserial4 receiver off\n"
              "fpgaserial4 unknown request 80260003\n"
              "fpgaserial4 unknown request 402c7413\n");
}

TEST_F(FpgaSerial, BytesAreChangedOnTheWayOrArriveWhileTheReceiverIsOff) {
    ASSERT_EQ(write(peer_, "lost", 4), 4);
    // An answered request shows that the driver went round its loop; twice, as the bytes may come
    // to it after the first.
    for (int i = 0; i < 2; ++i) {
        usleep(50000);
        ASSERT_EQ(ioctl(device_, kReceiverOff, 1), 0);
    }
    ASSERT_EQ(ioctl(device_, kReceiverOff, 0), 0);
    std::string bytes;
    for (int i = 0; i < 3000; ++i) {
        bytes += static_cast<char>(i * 7);
    }
    for (const auto& [from, to] : {std::pair{device_, peer_}, std::pair{peer_, device_}}) {
        ASSERT_EQ(write(from, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_TRUE(ReadBytes(to, bytes.size()) == bytes);
    }
}

TEST_F(FpgaSerial, SelectIsNotWokenByALateByte) {
    ASSERT_EQ(ioctl(device_, kReceiverOff, 0), 0);
    for (int round = 0; round < 20; ++round) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(device_, &readable);
        timeval none{0, 1000};
        ASSERT_EQ(select(device_ + 1, &readable, nullptr, nullptr, &none), 0);
        const std::jthread late([this] {
            usleep(20000);
            EXPECT_EQ(write(peer_, "x", 1), 1);
        });
        FD_SET(device_, &readable);
        timeval longWait{30, 0};
        ASSERT_EQ(select(device_ + 1, &readable, nullptr, nullptr, &longWait), 1);
        char byte = 0;
        EXPECT_EQ(read(device_, &byte, 1), 1);
        EXPECT_EQ(byte, 'x');
    }
}

TEST_F(FpgaSerial, BlockedReadSurvivesItsThreadsCancellation) {
    ASSERT_EQ(ioctl(device_, kReceiverOff, 0), 0);
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        char byte = 0;
        return read(*static_cast<int*>(argument), &byte, 1) == 1 ? argument : nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &device_), 0);
    usleep(100000);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    // The byte after it belongs to the next reader.
    ASSERT_EQ(write(peer_, "y", 1), 1);
    EXPECT_EQ(ReadBytes(device_, 1), "y");
}
