// Waiting for a serial line, and its thread: draining, callbacks both ways, and every way in which
// it ends.
#include <dlfcn.h>
#include <sys/select.h>

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
std::atomic<void (*)()> inReceive{nullptr};

template <int kWhich>
void Asked(void* context) {
    asked[kWhich]++;
    strange += context == &asked[kWhich] ? 0 : 1;
}

void Received(void*, SerialCallbackData* data) {
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
    void Start(int port, bool rx, SerialDirectionType direction) {
        Serial_Open(port, nullptr, rx ? Received : nullptr, nullptr, &kPlain);
        ASSERT_EQ(Serial_Enable(port, direction), kNoError);
    }
};

}  // namespace

// In place of the C library's.
extern "C" int select(int count, fd_set* in, fd_set* out, fd_set* odd, timeval* timeout) {
    static const auto real = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    waits += count > 0 ? 1 : 0;
    return real(count, in, out, odd, timeout);
}

TEST_F(SerialLine, ACallbackIsNeverPairedWithAnothersContext) {
    DevmgrSerial_CBInfo_t infos[2] = {{Asked<0>, nullptr, &asked[0]},
                                      {Asked<1>, nullptr, &asked[1]}};
    Start(kCpu, false, SERIAL_DIRECTION_TX);
    while (asked[0] < 100000 || asked[1] < 100000) {
        for (int i = 0; i < 1000; i++) {
            Request(kCpu, kSerialCtlCallbacks, {.CBInfo = &infos[i % 2]});
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
    Start(kCpu, true, SERIAL_DIRECTION_RX);
    for (size_t i = 1; i <= 20; i++) {
        lines_.Send(kCpu, "x");
        EXPECT_TRUE(WaitForBytes(i));
    }
    inReceive = [] { EXPECT_EQ(Serial_Close(kCpu), kNoError); };
    lines_.Send(kCpu, "x");
    EXPECT_TRUE(Eventually([] { return port_devids[kCpu] == 0 && LineTasks() == 0; }));
}

TEST_F(SerialLine, ClosingEndsACallbackWhateverPortItOpensAndLosesNone) {
    const int before = FreeDescriptor();
    inReceive = [] {
        for (;;) {
            Open(2);
            Serial_Close(2);
        }
    };
    for (int round = 0; round < 200; round++) {
        Start(kCpu, true, SERIAL_DIRECTION_RX);
        lines_.Send(kCpu, "x");
        EXPECT_TRUE(WaitForBytes(static_cast<size_t>(round) + 1));
        std::this_thread::sleep_for(std::chrono::microseconds(round));
        ASSERT_EQ(Serial_Close(kCpu), kNoError);
        EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
        Serial_Close(2);  // where the callback ended between the two
        ASSERT_EQ(Open(2), kNoError) << round;
        ASSERT_EQ(Serial_Close(2), kNoError);
    }
    EXPECT_EQ(FreeDescriptor(), before);
}

TEST_F(SerialLine, ClosingAndEnablingKnowACallbackThatHasStoppedItsOwnLine) {
    static std::atomic<int> inside, left;
    inReceive = [] {
        EXPECT_EQ(Serial_Disable(kCpu, SERIAL_DIRECTION_BOTH), kNoError);
        const NoCancelT busy;
        inside++;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        left++;
    };
    Start(kCpu, true, SERIAL_DIRECTION_RX);
    lines_.Send(kCpu, "x");
    EXPECT_TRUE(Eventually([] { return inside == 1; }));
    EXPECT_EQ(Serial_Enable(kCpu, SERIAL_DIRECTION_RX), kNoError);
    EXPECT_EQ(LineTasks(), 1);  // it goes on
    lines_.Send(kCpu, "x");
    EXPECT_TRUE(Eventually([] { return inside == 2; }));
    EXPECT_EQ(Serial_Close(kCpu), kNoError);
    EXPECT_EQ(left, 2);
    EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
}

TEST_F(SerialLine, ARequestThatWaitsEndsWithItsPortAndTouchesNoOther) {
    for (int round = 0; round < 4; round++) {
        const bool writes = round % 2 == 0;
        const int usecs = round / 2 * 20000000;
        std::string bytes(5000, 'x');
        Start(kCpu, false, SERIAL_DIRECTION_TX);
        out_.Fresh();
        while (writes && Serial_Write(kCpu, bytes.data(), 1, 20000) > 0) {
        }
        EXPECT_EQ(
            out_.Fresh(),
            writes ? "SERIALAPI: In WRITE, Port: 4 Device Manager write failed, err: 8\n" : "");
        waits = 0;
        std::atomic<int> count{-1};
        std::thread user([&] {
            count = (writes ? Serial_Write : Serial_Read)(kCpu, bytes.data(), 5000, usecs);
        });
        EXPECT_TRUE(Eventually([] { return waits > 10; }));
        ASSERT_EQ(Serial_Close(kCpu), kNoError);
        ASSERT_EQ(Open(6), kNoError);  // gets the same descriptor
        lines_.Send(6, "other");
        EXPECT_TRUE(Eventually([&] {
            lines_.Taken(kCpu);
            return count != -1;
        }));
        user.join();
        EXPECT_EQ(count, writes && usecs == 0 ? 5000 : 0);
        EXPECT_EQ(lines_.Taken(6), "");
        EXPECT_EQ(Serial_Read(6, bytes.data(), 5, 1000000), 5);
        EXPECT_EQ(Serial_Close(6), kNoError);
    }
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
        EXPECT_TRUE(Eventually([] { return LineTasks() <= 1; }));
        Serial_Enable(kCpu, SERIAL_DIRECTION_BOTH);
        EXPECT_TRUE(Eventually([] { return LineTasks() == 1; }));
        Serial_Disable(kCpu, SERIAL_DIRECTION_BOTH);
        EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
    }
}

TEST_F(SerialLine, ATimedReadNeverHangsBesideTheDrainingThread) {
    Start(kCpu, false, SERIAL_DIRECTION_RX);
    std::atomic<int> reads{0};
    std::jthread reader([&] {
        for (char bytes[4]; reads < 400; reads++) {
            EXPECT_GE(Serial_Read(kCpu, bytes, sizeof(bytes), 2000), 0);
        }
    });
    for (int i = 0; i < 400; i++) {
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        lines_.Send(kCpu, "x");
    }
    EXPECT_TRUE(Eventually([&] { return reads == 400; }, std::chrono::seconds(20)));
    Eventually([&] {
        lines_.Send(kCpu, "x");  // ends one that hangs
        return reads == 400;
    });
}

TEST_F(SerialLine, AHungUpLineEndsEveryRequestAndKeepsNoThreadBusy) {
    char byte = 'x';
    ASSERT_EQ(Open(kFpga), kNoError);
    ASSERT_EQ(Serial_Enable(kFpga, SERIAL_DIRECTION_BOTH), kNoError);
    lines_.HangUp(kFpga);
    EXPECT_EQ(Serial_Read(kFpga, &byte, 1, 2000000000), 0);
    EXPECT_EQ(Serial_Read(kFpga, &byte, 1, 0), 0);
    EXPECT_EQ(Serial_Write(kFpga, &byte, 1, 10000), 0);
    Start(kCpu, false, SERIAL_DIRECTION_RX);
    lines_.HangUp(kCpu);
    int during = -waits;
    const double elapsed = MillisecondsOf([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        during += waits;
    });
    EXPECT_LE(during, elapsed / 5 + 2);
    EXPECT_EQ(Serial_Disable(kCpu, SERIAL_DIRECTION_BOTH), kSystemCallFailed);
    EXPECT_EQ(Serial_Close(kCpu), kNoError);
    EXPECT_TRUE(Eventually([] { return LineTasks() == 0; }));
}
