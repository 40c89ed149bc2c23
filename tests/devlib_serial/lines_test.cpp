// Waiting for a serial line, and its thread: draining, callbacks both ways, and every way in which
// it ends.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <string>
#include <thread>

#include "Common/OS/linux/launcher.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "devlib/devmgr_serial/line.h"
#include "tests/devlib_serial/port_config.h"
#include "tests/support/eventually.h"
#include "tests/support/pty_lines.h"

namespace {

constexpr int kCpu = 4;
constexpr int kFpga = 1;

std::atomic<int> waits{0};        // calls of select(2) that watch a line
std::atomic<int> secondsLeft{0};  // what they write back as time left; 0: what the system says

int LineTasks() {
    const MutexGuardT held(&tcblistmutex);
    int count = 0;
    for (TCB* tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        count += std::string(tcb->taskname) == "seri" ? 1 : 0;
    }
    return count;
}

// A line's client: what its callbacks bring.
std::atomic<int> asked{0};
std::atomic<size_t> received{0};
std::string bytes;  // complete once `received` says so
std::atomic<void (*)()> inReceive{nullptr};

void Asked(void*) {
    asked++;
}

void Received(void*, SerialCallbackData* data) {
    bytes.append(data->buff, data->size);
    received += data->NumBytes;
    if (inReceive.load() != nullptr) {
        inReceive.load()();
    }
}

bool WaitForBytes(size_t count) {
    return Eventually([&] { return received >= count; });
}

void SetCallbacks(int port, DevmgrSerial_CBInfo_t* info) {
    DevmgrSerial_IoctlData_t data = {};
    data.CBInfo = info;
    IORB iorb = {};
    iorb.pBuffer = reinterpret_cast<SInt8*>(&data);
    dev_ioctl(port_devids[port], &iorb, kSerialCtlCallbacks);
    EXPECT_EQ(iorb.err, SERIAL_NOERROR);
}

class SerialLine : public testing::Test {
  protected:
    SerialLine() { DevMgrSerial_Init(); }
    ~SerialLine() override {
        Serial_Close(kCpu);
        Serial_Close(kFpga);
        EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
    }

    void Start(int port, bool tx, bool rx, SerialDirectionType direction) {
        ASSERT_EQ(
            Serial_Open(port, tx ? Asked : nullptr, rx ? Received : nullptr, nullptr, &kPlain),
            kNoError);
        ASSERT_EQ(Serial_Enable(port, direction), kNoError);
    }

    PtyLines lines_;
};

std::atomic<int> calls[2];
std::atomic<int> strange;

template <int kWhich>
void CheckContext(void* context) {
    calls[kWhich]++;
    strange += context == &calls[kWhich] ? 0 : 1;
}

}  // namespace

// In place of the launcher's pipe and of the C library's.
int system_pthread(const char*) {
    return 0;
}

extern "C" int select(int count, fd_set* in, fd_set* out, fd_set* odd, timeval* timeout) {
    const timespec wait = {timeout->tv_sec + timeout->tv_usec / 1000000,
                           timeout->tv_usec % 1000000 * 1000};
    waits += count > 0 ? 1 : 0;
    const int ready = pselect(count, in, out, odd, &wait, nullptr);
    if (secondsLeft > 0) {
        *timeout = {secondsLeft, 0};
    }
    return ready;
}

TEST_F(SerialLine, AThreadExistsOnlyWhereTheKindOfLineNeedsOne) {
    struct {
        int port;
        bool tx, rx;
        SerialDirectionType enabled;
        int threads;
    } const cases[] = {
        {kCpu, false, false, SERIAL_DIRECTION_RX, 1},  // an enabled receiver is drained
        {kCpu, false, false, SERIAL_DIRECTION_TX, 1},
        {kFpga, false, false, SERIAL_DIRECTION_BOTH, 0},
        {kFpga, true, false, SERIAL_DIRECTION_RX, 0},
        {kFpga, true, false, SERIAL_DIRECTION_TX, 1},
        {kFpga, false, true, SERIAL_DIRECTION_TX, 0},
        {kFpga, false, true, SERIAL_DIRECTION_BOTH, 1},
    };
    for (const auto& c : cases) {
        CBList[c.port].tx_enabled = CBList[c.port].rx_enabled = 0;
        Start(c.port, c.tx, c.rx, c.enabled);
        EXPECT_EQ(LineTasks(), c.threads);
        ASSERT_EQ(Serial_Disable(c.port, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(LineTasks(), 0);
        ASSERT_EQ(Serial_Enable(c.port, c.enabled), kNoError);
        EXPECT_EQ(CBList[c.port].asyncThread_running, static_cast<UInt32>(c.threads));
        EXPECT_EQ(Serial_Close(c.port), kNoError);  // ends it too
        EXPECT_EQ(LineTasks(), 0);
    }
    // An FPGA line remembers its flags, so the callbacks alone start a thread.
    Serial_Open(kFpga, nullptr, Received, nullptr, &kPlain);
    EXPECT_EQ(LineTasks(), 1);
}

TEST_F(SerialLine, CallbacksGetEveryByteInOrderUntilTheyAreTakenBack) {
    std::string sent(6000, '\0');
    for (size_t i = 0; i < sent.size(); i++) {
        sent[i] = static_cast<char>(i * 7);
    }
    Start(kCpu, true, true, SERIAL_DIRECTION_BOTH);
    lines_.Send(kCpu, sent);
    EXPECT_TRUE(WaitForBytes(sent.size()));
    EXPECT_EQ(bytes, sent);
    EXPECT_TRUE(Eventually([] { return asked > 3; }));
    SetCallbacks(kCpu, nullptr);
    EXPECT_EQ(LineTasks(), 0);
    const int before = asked;
    lines_.Send(kCpu, "b");
    char byte = 0;
    EXPECT_EQ(Serial_Read(kCpu, &byte, 1, 60000000), 1);  // left for the client
    EXPECT_EQ(asked, before);
    DevmgrSerial_CBInfo_t info = {nullptr, Received, nullptr};
    SetCallbacks(kCpu, &info);  // a direction is enabled: a thread again
    lines_.Send(kCpu, "c");
    EXPECT_TRUE(WaitForBytes(sent.size() + 1));
}

TEST_F(SerialLine, ACallbackIsNeverPairedWithAnothersContext) {
    const DevmgrSerial_CBInfo_t infos[2] = {{CheckContext<0>, nullptr, &calls[0]},
                                            {CheckContext<1>, nullptr, &calls[1]}};
    Start(kCpu, false, false, SERIAL_DIRECTION_TX);
    while (calls[0] < 100000 || calls[1] < 100000) {
        for (int i = 0; i < 1000; i++) {
            SerialLineSetCallbacks(&CBList[kCpu], &infos[i % 2]);
        }
    }
    Serial_Close(kCpu);
    EXPECT_EQ(strange, 0);
}

TEST_F(SerialLine, ACallbackMayStopStartAndCloseItsOwnLine) {
    inReceive = [] {
        EXPECT_EQ(Serial_Disable(kCpu, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Enable(kCpu, SERIAL_DIRECTION_RX), kNoError);
    };
    Start(kCpu, false, true, SERIAL_DIRECTION_RX);
    for (size_t i = 1; i <= 20; i++) {
        lines_.Send(kCpu, "x");
        EXPECT_TRUE(WaitForBytes(i));
    }
    EXPECT_TRUE(Eventually([] { return LineTasks() == 1; }));
    inReceive = [] { EXPECT_EQ(Serial_Close(kCpu), kNoError); };
    lines_.Send(kCpu, "x");
    EXPECT_TRUE(Eventually([] { return port_devids[kCpu] == 0 && LineTasks() == 0; }));
    EXPECT_EQ(Open(kCpu), kNoError);
}

TEST_F(SerialLine, ClosingEndsACallbackThatWaitsForThePorts) {
    inReceive = [] {
        for (;;) {
            Open(2);
            Serial_Close(2);
        }
    };
    Start(kCpu, false, true, SERIAL_DIRECTION_RX);
    lines_.Send(kCpu, "x");
    EXPECT_TRUE(WaitForBytes(1));
    EXPECT_EQ(Serial_Close(kCpu), kNoError);
    EXPECT_EQ(LineTasks(), 0);
    EXPECT_EQ(Open(5), kNoError);  // the lock is free
}

TEST_F(SerialLine, ManyClientsAtOnceMakeOneThreadAndLeaveNone) {
    ASSERT_EQ(Open(kCpu), kNoError);
    for (int round = 0; round < 20; round++) {
        std::thread clients[6];
        for (std::thread& client : clients) {
            const bool enable = (&client - clients) % 3 != 2;
            client = std::thread([enable] {
                (enable ? Serial_Enable : Serial_Disable)(kCpu, SERIAL_DIRECTION_BOTH);
            });
        }
        for (std::thread& client : clients) {
            client.join();
        }
        EXPECT_LE(LineTasks(), 1);
        Serial_Enable(kCpu, SERIAL_DIRECTION_BOTH);
        EXPECT_EQ(LineTasks(), 1);
        Serial_Disable(kCpu, SERIAL_DIRECTION_BOTH);
        EXPECT_EQ(LineTasks(), 0);
    }
}

TEST_F(SerialLine, ATimedReadNeverHangsBesideTheDrainingThread) {
    Start(kCpu, false, false, SERIAL_DIRECTION_RX);
    lines_.Send(kCpu, std::string(20000, 'x'));  // more than the line holds
    char buffer[4];
    for (int i = 0; i < 200; i++) {
        std::thread sender([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            lines_.Send(kCpu, "x");
        });
        EXPECT_GE(Serial_Read(kCpu, buffer, sizeof(buffer), 2000), 0);
        sender.join();
    }
}

TEST_F(SerialLine, AReadGoesOnWhileWholeSecondsAreLeft) {
    Start(kFpga, false, false, SERIAL_DIRECTION_RX);
    secondsLeft = 60;
    lines_.Send(kFpga, "a");
    std::thread sender([&] {
        EXPECT_TRUE(Eventually([&] { return lines_.Unread(kFpga) == 0; }));
        lines_.Send(kFpga, "b");
    });
    char buffer[2];
    EXPECT_EQ(Serial_Read(kFpga, buffer, 2, 100000), 2);
    sender.join();
    secondsLeft = 0;
}

TEST_F(SerialLine, AHungUpLineDoesNotKeepItsThreadBusy) {
    Start(kCpu, false, false, SERIAL_DIRECTION_RX);
    lines_.HangUp(kCpu);
    const int before = waits;
    int during = 0;
    const double elapsed = MillisecondsOf([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        during = waits - before;
    });
    EXPECT_LE(during, elapsed / 5 + 2);
    EXPECT_EQ(Serial_Close(kCpu), kNoError);
    EXPECT_EQ(LineTasks(), 0);
}

TEST_F(SerialLine, AThreadThatEndedByItselfIsStoppedWithoutHarm) {
    DevMgrSerial_CB_t& line = CBList[kCpu];
    line.devCB.fd = dup(0);
    close(line.devCB.fd);  // waiting for it fails
    line.rx_enabled = 1;
    UInt32 err = 99;
    DevMgrSerial_Start_AsyncThread(&line, &err);
    EXPECT_EQ(err, SERIAL_NOERROR);
    EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
    DevMgrSerial_Start_AsyncThread(&line, &err);
    EXPECT_EQ(LineTasks(), 0);  // still counts, so none is started
    // Its control block now belongs to another task, which must not be taken for it.
    UInt32 other = 0;
    ASSERT_EQ(t_create("othr", 0, 0, 0, 0, &other), kTaskOk);
    DevMgrSerial_Stop_AsyncThread(&line);
    EXPECT_EQ(line.asyncThread_running, 0u);
    EXPECT_EQ(t_exists(other), 1u);
    t_delete(other);
}
