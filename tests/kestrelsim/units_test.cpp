// The two units: what they answer, what they keep, and what they refuse.
#include <gtest/gtest.h>

#include "tools/kestrelsim/camera_unit.h"
#include "tools/kestrelsim/micro_unit.h"

namespace kestrelsim {
namespace {

Message Frame(uint8_t type, Bytes payload) {
    return {MessageKind::kFrame, type, std::move(payload), {}};
}

Message Block(uint8_t type, int number, size_t size, uint8_t fill = 7) {
    Bytes payload = {static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    payload.resize(2 + size, fill);
    return Frame(type, std::move(payload));
}

Message FlashMode(const char* hex) {
    return {MessageKind::kFlashModeRequest, 0, FromHex(hex).value(), {}};
}

// The answer's bytes, or the reason of the refusal, or nothing.
std::string Reply(Unit* unit, const Message& message) {
    const Outcome outcome = unit->OnMessage(message);
    return outcome.refusal  ? ReasonText(outcome.refusal->reason)
           : outcome.answer ? ToHex(outcome.answer->bytes)
                            : "";
}

struct Units {
    bool ack = true;
    std::string kept;
    CameraVersions versions{"1000", "2000"};
    Verdict verdict = [this](const AnswerId&) { return ack; };
    ImageSink sink = [this](Image image, const Bytes& data) {
        kept += std::string(ImageText(image)) + " " + std::to_string(data.size()) + ";";
    };
    MicroUnit micro{0x12, verdict, sink};
    CameraUnit camera{&versions, verdict, sink};
};

TEST(MicroUnit, AnswersItsVersionAndTheVersionOfTheImageItReceived) {
    Units units;
    EXPECT_EQ(Reply(&units.micro, Frame(0x44, {1})), "ff14000d126b65737472656c73696d");
    EXPECT_EQ(Reply(&units.micro, Frame(0x44, {0})), "");
    EXPECT_EQ(Reply(&units.micro, Frame(0x49, {0x69})), "");
    for (int block = 0; block < 12; block++) {
        EXPECT_EQ(Reply(&units.micro, Block(0x48, block,
                                            block == 0   ? 512
                                            : block == 1 ? 88
                                                         : 0)),
                  "4806");
    }
    EXPECT_EQ(units.kept, "microcontroller 600;");
    EXPECT_EQ(units.micro.version(), 7);
    EXPECT_EQ(units.micro.OnLineClosed(), "") << "a complete transfer is not given up";
}

TEST(MicroUnit, KeepsARefusedBlockForTheRetryThatCarriesNoData) {
    Units units;
    EXPECT_EQ(Reply(&units.micro, Frame(0x48, {})), "out of order") << "nothing to retry";
    units.ack = false;
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 0, 512)), "480f");
    EXPECT_EQ(Reply(&units.micro, Frame(0x48, {})), "480f");
    units.ack = true;
    EXPECT_EQ(Reply(&units.micro, Frame(0x48, {})), "4806");
    for (int block = 1; block < 12; block++) {
        Reply(&units.micro, Block(0x48, block, 512));
    }
    EXPECT_EQ(units.kept, "microcontroller 6144;");
}

TEST(MicroUnit, RefusesBlocksOutOfOrderAndMessagesOfTheOtherLine) {
    Units units;
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 1, 512)), "out of order");
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 0, 512)), "4806");
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 0, 512)), "out of order") << "the same again";
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 2, 512)), "out of order") << "one left out";
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 1, 10)), "4806");
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 2, 1)), "out of order") << "data after the end";
    EXPECT_EQ(Reply(&units.micro, Block(0x88, 0, 1)), "wrong line");
    EXPECT_EQ(units.micro.OnLineClosed(), "microcontroller image: 2 of 12 blocks");
    EXPECT_EQ(Reply(&units.micro, Block(0x48, 0, 512)), "4806") << "the next run starts afresh";
}

TEST(CameraUnit, HoldsTheSenderToTheAnnouncedCounts) {
    Units units;
    const Message request = {MessageKind::kDeviceTypeRequest, 0, {}, {}};
    EXPECT_EQ(Reply(&units.camera, request),
              "a04f564c4b"
              "32303030"
              "31303030");
    for (const char* wrong : {"0100010001", "0300010001", "0500000000", "0200010000"}) {
        EXPECT_EQ(Reply(&units.camera, FlashMode(wrong)), "bad request") << wrong;
    }
    EXPECT_EQ(Reply(&units.camera, Block(0x88, 0, 5)), "out of order") << "before the flash mode";
    EXPECT_EQ(Reply(&units.camera, FlashMode("0500020001")), "a0437205");
    EXPECT_EQ(Reply(&units.camera, Block(0x89, 0, 5)), "out of order") << "camera image first";
    EXPECT_EQ(Reply(&units.camera, Block(0x88, 0, 5)), "out of order") << "short in the middle";
    EXPECT_EQ(Reply(&units.camera, Block(0x88, 0, 64512)), "4806");
    EXPECT_EQ(Reply(&units.camera, Block(0x88, 1, 0)), "out of order") << "an empty last block";
    EXPECT_EQ(Reply(&units.camera, Block(0x88, 1, 1)), "4806");
    EXPECT_EQ(Reply(&units.camera, Block(0x88, 2, 1)), "out of order") << "one too many";
    EXPECT_EQ(Reply(&units.camera, Block(0x89, 0, 9)), "4806");
    EXPECT_EQ(units.kept, "camera 64513;system 9;");
    EXPECT_EQ(Reply(&units.camera, Frame(0x44, {1})), "wrong line");
}

}  // namespace
}  // namespace kestrelsim
