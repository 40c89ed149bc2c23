// Eight ports beside a model of them: seeded random operations, and after each one its result, the
// line's flags and thread, and every byte that went either way.
#include <climits>
#include <mutex>
#include <random>

#include "tests/devlib_serial/serialfixture.h"

namespace {

struct ClientT {
    std::mutex lock;
    std::string received;
    std::atomic<int> asked{0};
} clients[kSerialPorts];

void Asked(void* context) {
    static_cast<ClientT*>(context)->asked++;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
}

void Received(void* context, SerialCallbackData* data) {
    auto* client = static_cast<ClientT*>(context);
    const std::lock_guard guard(client->lock);
    client->received.append(data->buff, data->size);
}

struct PortT {
    enum { kFree, kOpen, kSession } state = kFree;
    bool tx = false, rx = false;       // enabled
    bool asks = false, takes = false;  // callbacks
    bool thread = false;
    int askedAlone = -1;  // how often it was asked for output when that ended
    std::string pending;  // on the line, for whoever reads
    std::string received;
};

class SerialModel : public Serial {
  public:
    static bool Fpga(int port) { return port != 4 && port < 6; }

    void Open(int port, PortT& p, UInt32 dice) {
        const bool bad = dice % 16 == 0;
        const bool slow = dice % 16 == 1;
        const bool asks = (dice & 32) != 0;
        const bool takes = (dice & 64) != 0;
        const RS232Cfg cfg = bad ? Cfg(0, 3, 3) : Cfg(slow ? 6 : 0);
        const eErrorT result = Serial_Open(port, asks ? Asked : nullptr, takes ? Received : nullptr,
                                           &clients[port], &cfg);
        if (p.state != PortT::kFree) {
            return Expect(result, kAlreadyInUse);
        }
        if (bad || (slow && Fpga(port))) {
            return Expect(result, kBadParameter);
        }
        p.state = PortT::kOpen;
        p.asks = asks;
        p.takes = takes;
        p.thread = (asks || takes) && (p.tx || p.rx);
        return Expect(result, kNoError);
    }

    void Close(int port, PortT& p, UInt32) {
        const eErrorT result = Serial_Close(port);
        if (p.state != PortT::kOpen) {
            return Expect(result, kItemNotFound);
        }
        p.state = PortT::kFree;
        p.thread = p.asks = p.takes = false;
        p.tx = p.tx && Fpga(port);
        p.rx = p.rx && Fpga(port);
        return Expect(result, kNoError);
    }

    // What the bits of a status request do. Returns whether the line takes them; a CPU line that
    // does not is changed all the same, but gets no thread.
    static bool Apply(int port, PortT& p, UInt32 bits) {
        const bool switchesReceiver = (bits & (PORT_RX_ENABLE | PORT_RX_DISABLE)) != 0;
        const bool takes = refusal == 0 || (Fpga(port) && !switchesReceiver);
        if (Fpga(port)) {
            const UInt32 off = (bits & PORT_RX_ENABLE) != 0 ? 0 : 1;
            EXPECT_EQ(words, switchesReceiver ? Words{off} : Words{});
        }
        if (Fpga(port) && !takes) {
            return false;
        }
        p.rx = switchesReceiver ? (bits & PORT_RX_ENABLE) != 0 : p.rx;
        p.tx = (bits & (PORT_TX_ENABLE | PORT_TX_DISABLE)) != 0 ? bits & PORT_TX_ENABLE : p.tx;
        if (!Fpga(port) && switchesReceiver) {
            EXPECT_EQ((applied.c_cflag & CREAD) != 0, p.rx);
        }
        if (!p.tx && !p.rx) {
            p.thread = false;
        } else if (Fpga(port) ? (p.tx && p.asks) || (p.rx && p.takes) : takes) {
            p.thread = true;
        }
        return takes;
    }

    void Switch(int port, PortT& p, UInt32 dice) {
        constexpr UInt32 kOn[] = {PORT_RX_ENABLE, PORT_TX_ENABLE, 3, 0};
        constexpr UInt32 kOff[] = {PORT_TX_DISABLE, PORT_RX_DISABLE, 12, 0};
        const bool any = p.state == PortT::kOpen && dice % 5 == 0;  // any bits at once
        const bool on = (dice & 4) != 0;
        const UInt32 direction = dice % 4;
        const UInt32 bits = any ? dice % 16 : (on ? kOn : kOff)[direction];
        words.clear();
        refusal = dice % 64 < 8 ? -1 : 0;
        int result, failed = kSystemCallFailed;
        if (any) {
            failed = SERIAL_ERROR_UNKNOWN;
            result = static_cast<int>(
                Request(port, kSerialCtlStatus, {.PortStatus = DevmgrSerial_Status_t(bits)}));
        } else {
            result = (on ? Serial_Enable : Serial_Disable)(port, SerialDirectionType(direction));
        }
        if (p.state != PortT::kOpen) {
            EXPECT_EQ(result, p.state == PortT::kFree ? kItemNotFound : kNoError);
        } else if (!any && direction == SERIAL_DIRECTION_NONE) {
            EXPECT_EQ(result, kBadParameter);
        } else {
            EXPECT_EQ(result, Apply(port, p, bits) ? 0 : failed);
        }
        refusal = 0;
    }

    void Callbacks(int port, PortT& p, UInt32 dice) {
        if (p.state != PortT::kOpen) {
            return;
        }
        const bool set = dice % 4 != 0;
        p.asks = set && (dice & 4) != 0;
        p.takes = set && (dice & 8) != 0;
        DevmgrSerial_CBInfo_t info = {p.asks ? Asked : nullptr, p.takes ? Received : nullptr,
                                      &clients[port]};
        p.thread = set && (p.thread || p.tx || p.rx);
        const UInt32 result = Request(port, kSerialCtlCallbacks, {.CBInfo = set ? &info : nullptr});
        return Expect(static_cast<eErrorT>(result), kNoError);
    }

    void Session(int port, PortT& p, UInt32 dice) {
        launcherAnswer = dice % 8 < 2 ? 3 : 0;
        if (dice % 2 == 0) {
            const eErrorT result = Serial_Open_PSH(port, &kPlain);
            if (p.state != PortT::kFree) {
                return Expect(result, kAlreadyInUse);
            }
            p.state = launcherAnswer == 0 ? PortT::kSession : PortT::kFree;
            Expect(result, launcherAnswer == 0 ? kNoError : kSystemCallFailed);
        } else if (p.state != PortT::kOpen) {
            p.state = PortT::kFree;
            Expect(Serial_Close_PSH(port), kNoError);
            EXPECT_EQ(Serialport_Modes[port], 0u);
        }
    }

    void Send(int port, PortT& p, UInt32 dice) {
        // What is dropped cannot be waited for.
        if (p.pending.size() < 1000 && (!p.thread || !p.rx || p.takes)) {
            const std::string bytes(1 + dice % 300, static_cast<char>('a' + dice % 26));
            lines_.Send(port, bytes);
            p.pending += bytes;
        }
    }

    void Read(int port, PortT& p, UInt32 dice) {
        const size_t size = dice % 100;
        std::string bytes(size, '\0');
        const size_t count = std::min(size, p.pending.size());
        // With nothing there it could wait for ever.
        const int usecs = count > 0 && dice % 3 == 0 ? 0 : count == size ? 60000000 : 2000;
        const int got = Serial_Read(port, bytes.data(), static_cast<int>(size), usecs);
        if (p.state != PortT::kOpen) {
            return Expect(got, kItemNotFound);
        }
        EXPECT_EQ(bytes.substr(0, count), p.pending.substr(0, count));
        p.pending.erase(0, count);
        return Expect(got, static_cast<int>(count));
    }

    void Write(int port, PortT& p, UInt32 dice) {
        std::string bytes(1 + dice % 100, static_cast<char>('A' + dice % 26));
        const int size = static_cast<int>(bytes.size());
        const int got = Serial_Write(port, bytes.data(), size, dice % 2 == 0 ? 0 : 60000000);
        if (p.state != PortT::kOpen) {
            return Expect(got, kItemNotFound);
        }
        std::string taken;
        Eventually(
            [&] { return (taken += lines_.Taken(port)).size() >= (p.tx ? bytes.size() : 0); });
        EXPECT_EQ(taken, p.tx ? bytes : "");
        return Expect(got, p.tx ? size : 0);
    }

    void Check(int port, PortT& p) {
        EXPECT_EQ(Enabled(port), std::string(p.tx ? "tx" : "") + (p.rx ? "rx" : ""));
        EXPECT_EQ(port_devids[port] > kSerialPortReserved, p.state == PortT::kOpen);
        EXPECT_EQ(port_devids[port] == kSerialPortFree, p.state == PortT::kFree);
        EXPECT_EQ(CBList[port].devCB.state == kDevOpened, p.state == PortT::kOpen);
        if (p.thread && p.rx) {  // it takes all that comes
            p.received += p.takes ? p.pending : "";
            p.pending.clear();
        }
        ClientT& client = clients[port];
        EXPECT_TRUE(Eventually(
            [&] {
                int left = 0;
                ioctl(lines_.near(port), FIONREAD, &left);
                const std::lock_guard guard(client.lock);
                return client.received.size() >= p.received.size() &&
                       static_cast<size_t>(left) == p.pending.size();
            },
            std::chrono::seconds(10)));
        {
            const std::lock_guard guard(client.lock);
            EXPECT_EQ(client.received, p.received);
        }
        const int asked = client.asked;
        if (p.thread && p.tx && p.asks) {
            EXPECT_TRUE(Eventually([&] { return client.asked > asked; }));
            p.askedAlone = -1;
        } else if (p.askedAlone < 0) {
            p.askedAlone = asked;
        }
        EXPECT_LE(client.asked, p.askedAlone < 0 ? INT_MAX : p.askedAlone + 1);  // under way
    }

    PortT ports_[kSerialPorts];

  private:
    template <typename ResultT>
    static void Expect(ResultT result, int expected) {
        EXPECT_EQ(static_cast<int>(result), expected);
    }
};

}  // namespace

TEST_F(SerialModel, PortsFollowTheModelWhateverIsAskedOfThem) {
    for (int port = 0; port < kSerialPorts; port++) {
        ASSERT_EQ(::Open(port), kNoError);  // makes the terminal raw, once and for all
        ASSERT_EQ(Serial_Close(port), kNoError);
    }
    const int before = FreeDescriptor();
    using OperationT = void (SerialModel::*)(int, PortT&, UInt32);
    constexpr OperationT kOperations[] = {
        &SerialModel::Open,   &SerialModel::Open,   &SerialModel::Close,     &SerialModel::Switch,
        &SerialModel::Switch, &SerialModel::Switch, &SerialModel::Callbacks, &SerialModel::Session,
        &SerialModel::Send,   &SerialModel::Send,   &SerialModel::Read,      &SerialModel::Write};
    std::mt19937 random(20);
    for (int step = 0; step < 3000 && !HasFailure(); step++) {
        const size_t operation = random() % std::size(kOperations);
        const int port = static_cast<int>(random() % kSerialPorts);
        const UInt32 dice = static_cast<UInt32>(random());
        SCOPED_TRACE(testing::Message() << "step " << step << " operation " << operation << " port "
                                        << port << " dice " << dice);
        (this->*kOperations[operation])(port, ports_[port], dice);
        Check(port, ports_[port]);
        int threads = 0;
        for (const PortT& p : ports_) {
            threads += p.thread ? 1 : 0;
        }
        // One that has left its line takes a moment to go.
        EXPECT_TRUE(Eventually([&] { return LineTasks() == threads; }));
    }
    for (int port = 0; port < kSerialPorts; port++) {
        Serial_Close(port);
    }
    EXPECT_EQ(FreeDescriptor(), before);
}
