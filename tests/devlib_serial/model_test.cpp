// Eight ports beside a model of them: seeded random operations, and after each one its result, the
// line's flags and thread, and every byte that went either way.
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
    int askedAlone = -1;  // how often it was asked for output, while nobody asks
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

    void Switch(int port, PortT& p, UInt32 dice) {
        const bool on = (dice & 4) != 0;
        const UInt32 direction = dice % 4;
        const auto call = on ? Serial_Enable : Serial_Disable;
        const eErrorT result = call(port, SerialDirectionType(direction));
        if (p.state != PortT::kOpen) {
            return Expect(result, p.state == PortT::kFree ? kItemNotFound : kNoError);
        }
        if (direction == SERIAL_DIRECTION_NONE) {
            return Expect(result, kBadParameter);
        }
        const UInt32 crossed = on ? SERIAL_DIRECTION_RX : SERIAL_DIRECTION_TX;
        p.rx = direction == SERIAL_DIRECTION_BOTH || direction == crossed ? on : p.rx;
        p.tx = direction == SERIAL_DIRECTION_BOTH || direction != crossed ? on : p.tx;
        if (!p.tx && !p.rx) {
            p.thread = false;
        } else if (!Fpga(port) || (p.tx && p.asks) || (p.rx && p.takes)) {
            p.thread = true;
        }
        return Expect(result, kNoError);
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
        if (dice % 2 == 0) {
            const bool free = p.state == PortT::kFree;
            p.state = free ? PortT::kSession : p.state;
            return Expect(Serial_Open_PSH(port, &kPlain), free ? kNoError : kAlreadyInUse);
        }
        if (p.state == PortT::kOpen) {
            return;
        }
        p.state = PortT::kFree;
        return Expect(Serial_Close_PSH(port), kNoError);
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
            std::chrono::seconds(10)))
            << "thread " << p.thread << " takes " << p.takes << " pending " << p.pending.size()
            << " received " << client.received.size() << " of " << p.received.size();
        {
            const std::lock_guard guard(client.lock);
            EXPECT_EQ(client.received, p.received);
        }
        const int asked = client.asked;
        if (p.thread && p.tx && p.asks) {
            EXPECT_TRUE(Eventually([&] { return client.asked > asked; }));
        } else if (!p.thread && p.askedAlone >= 0) {
            EXPECT_EQ(client.asked, p.askedAlone);
        }
        p.askedAlone = p.thread ? -1 : asked;
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
    struct {
        const char* name;
        OperationT run;
    } const operations[] = {
        {"open", &SerialModel::Open},           {"open", &SerialModel::Open},
        {"close", &SerialModel::Close},         {"switch", &SerialModel::Switch},
        {"switch", &SerialModel::Switch},       {"switch", &SerialModel::Switch},
        {"callbacks", &SerialModel::Callbacks}, {"session", &SerialModel::Session},
        {"send", &SerialModel::Send},           {"send", &SerialModel::Send},
        {"read", &SerialModel::Read},           {"write", &SerialModel::Write}};
    std::mt19937 random(20);
    for (int step = 0; step < 3000 && !HasFailure(); step++) {
        const auto& operation = operations[random() % std::size(operations)];
        const int port = static_cast<int>(random() % kSerialPorts);
        const UInt32 dice = static_cast<UInt32>(random());
        SCOPED_TRACE(testing::Message() << "step " << step << ": " << operation.name << " port "
                                        << port << " dice " << dice);
        (this->*operation.run)(port, ports_[port], dice);
        Check(port, ports_[port]);
        int threads = 0;
        for (const PortT& p : ports_) {
            threads += p.thread ? 1 : 0;
        }
        EXPECT_EQ(LineTasks(), threads);
    }
    for (int port = 0; port < kSerialPorts; port++) {
        Serial_Close(port);
    }
    EXPECT_EQ(FreeDescriptor(), before);
}
