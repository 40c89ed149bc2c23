// Waiting for a serial line, and its thread: draining, callbacks both ways, and every way in which
// it ends.
#include <sys/select.h>

#include <thread>
#include <vector>

#include "devlib/devmgr_serial/line.h"
#include "tests/devlib_serial/serialfixture.h"

namespace {

constexpr int kCpu = 4;
constexpr int kFpga = 1;

std::atomic<int> waits{0};  // calls of select(2) that watch a line

// A line's client: what its callbacks bring.
std::atomic<int> asked[2];
std::atomic<int> strange{0};
std::atomic<size_t> received{0};
std::string bytes;  // complete once `received` says so
std::atomic<void (*)()> inReceive{nullptr};

template <int kWhich>
void Asked(void* context) {
    asked[kWhich]++;
    strange += context == &asked[kWhich] ? 0 : 1;
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

class SerialLine : public Serial {
  protected:
    void Start(int port, bool tx, bool rx, SerialDirectionType direction) {
        Serial_Open(port, tx ? Asked<0> : nullptr, rx ? Received : nullptr, nullptr, &kPlain);
        ASSERT_EQ(Serial_Enable(port, direction), kNoError);
    }
};

}  // namespace

// In place of the C library's.
extern "C" int select(int count, fd_set* in, fd_set* out, fd_set* odd, timeval* timeout) {
    const timespec wait = {timeout->tv_sec + timeout->tv_usec / 1000000,
                           timeout->tv_usec % 1000000 * 1000};
    waits += count > 0 ? 1 : 0;
    return pselect(count, in, out, odd, &wait, nullptr);
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
        {kFpga, true, false, SERIAL_DIRECTION_RX, 0},
        {kFpga, true, false, SERIAL_DIRECTION_TX, 1},
        {kFpga, false, true, SERIAL_DIRECTION_TX, 0},
        {kFpga, false, true, SERIAL_DIRECTION_BOTH, 1},
        {kFpga, false, false, SERIAL_DIRECTION_BOTH, 0},  // closing took both callbacks
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
    EXPECT_TRUE(Eventually([] { return asked[0] > 3; }));
    Request(kCpu, kSerialCtlCallbacks, {.CBInfo = nullptr});
    EXPECT_EQ(LineTasks(), 0);
    const int before = asked[0];
    lines_.Send(kCpu, "b");
    char byte = 0;
    EXPECT_EQ(Serial_Read(kCpu, &byte, 1, 60000000), 1);  // left for the client
    EXPECT_EQ(asked[0], before);
}

TEST_F(SerialLine, ACallbackIsNeverPairedWithAnothersContext) {
    const DevmgrSerial_CBInfo_t infos[2] = {{Asked<0>, nullptr, &asked[0]},
                                            {Asked<1>, nullptr, &asked[1]}};
    Start(kCpu, false, false, SERIAL_DIRECTION_TX);
    while (asked[0] < 100000 || asked[1] < 100000) {
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
        std::vector<std::jthread> clients;
        for (const auto change : {Serial_Enable, Serial_Enable, Serial_Disable}) {
            clients.emplace_back(change, kCpu, SERIAL_DIRECTION_BOTH);
            clients.emplace_back(change, kCpu, SERIAL_DIRECTION_BOTH);
        }
        clients.clear();  // waits for them
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
        const std::jthread sender([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            lines_.Send(kCpu, "x");
        });
        EXPECT_GE(Serial_Read(kCpu, buffer, sizeof(buffer), 2000), 0);
    }
}

TEST_F(SerialLine, AHungUpLineDoesNotKeepItsThreadBusy) {
    Start(kCpu, false, false, SERIAL_DIRECTION_RX);
    lines_.HangUp(kCpu);
    int during = -waits;
    const double elapsed = MillisecondsOf([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        during += waits;
    });
    EXPECT_LE(during, elapsed / 5 + 2);
    EXPECT_EQ(Serial_Close(kCpu), kNoError);
    EXPECT_EQ(LineTasks(), 0);
}
