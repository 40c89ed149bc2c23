// What the tests of serial ports share: the eight lines as pseudo-terminals with the device manager
// started on them.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "devlib/devmgr_serial/devmgr_serial.h"
#include "tests/support/pty_lines.h"
#include "tests/support/serial_config.h"
#include "tests/support/stdout_file.h"
#include "tests/support/tasks_named.h"

constexpr RS232Cfg kPlain = Cfg();

inline eErrorT Open(int port, const RS232Cfg& cfg = kPlain) {
    return Serial_Open(port, nullptr, nullptr, nullptr, &cfg);
}

// The next free descriptor: the same after everything was closed.
inline int FreeDescriptor() {
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

// The threads of all lines.
inline int LineTasks() {
    return TasksNamed("seri");
}

// What stands in for the FPGA serial driver, the terminals and the launcher.
typedef std::vector<UInt32> Words;
extern Words words;         // of the driver's last request
extern termios applied;     // the last attributes of a terminal
extern int refusal;         // of the driver and of terminals: -1, else 0
extern int launcherAnswer;  // of every command

class Serial : public testing::Test {
  protected:
    Serial() { DevMgrSerial_Init(); }
    ~Serial() override {
        for (int port = 0; port < kSerialPorts; port++) {
            Serial_Close(port);
        }
        EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
    }

    // Sends a request straight to a line's device and returns its result.
    static UInt32 Request(int port, UInt32 code, DevmgrSerial_IoctlData_t data) {
        UInt32 id = 0;
        EXPECT_EQ(dev_open("Ser", static_cast<UInt32>(port + 1), &id), kDevOk);
        IORB iorb = {};
        iorb.pBuffer = reinterpret_cast<SInt8*>(&data);
        dev_ioctl(id, &iorb, code);
        return iorb.err;
    }

    static std::string Enabled(int port) {
        return std::string(CBList[port].tx_enabled != 0 ? "tx" : "") +
               (CBList[port].rx_enabled != 0 ? "rx" : "");
    }

    PtyLines lines_;
    StdoutFile out_;
};
