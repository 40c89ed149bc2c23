// The two units: what they answer, what they keep, and what they refuse.
#include <gtest/gtest.h>

#include "tools/kestrelsim/camera_unit.h"
#include "tools/kestrelsim/micro_unit.h"

namespace kestrelsim {
namespace {

Message Frame(uint8_t type, Bytes payload) {
    return {MessageKind::kFrame, type, std::move(payload), {}};
}

Message Block(uint8_t type, int number, size_t size) {
    Bytes payload = {static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    payload.resize(2 + size, 7);
    return Frame(type, std::move(payload));
}

Message FlashMode(const char* hex) {
    return {MessageKind::kFlashModeRequest, 0, FromHex(hex).value(), {}};
}

// What becomes of each message: the answer's bytes, the reason of the refusal, or nothing.
std::string Replies(Unit* unit, const std::vector<Message>& messages) {
    std::string text;
    for (const Message& message : messages) {
        const Outcome outcome = unit->OnMessage(message);
        text += outcome.refusal ? ReasonText(outcome.refusal->reason) : "";
        text += outcome.answer ? ToHex(outcome.answer->bytes) : "";
        text += ";";
    }
    return text;
}

struct Units {
    std::string kept;
    CameraVersions versions{"1000", "2000"};
    Verdict verdict = [](const AnswerId&) { return true; };
    ImageSink sink = [this](Image image, const Bytes& data) {
        kept += std::string(ImageText(image)) + " " + std::to_string(data.size()) + ";";
    };
    EraseSink erase = [this](Image image) { kept += std::string(ImageText(image)) + " erased;"; };
    uint8_t version = 0x12;
    MicroUnit micro{&version, verdict, erase, sink};
    CameraUnit camera{&versions, verdict, erase, sink};
};

TEST(MicroUnit, RefusesBlocksOutOfOrderAndMessagesOfTheOtherLine) {
    Units units;
    // A retry of nothing, repeated, left out, behind the data's end, and a camera's.
    EXPECT_EQ(
        Replies(&units.micro, {Frame(0x48, {}), Block(0x48, 1, 512), Block(0x48, 0, 512),
                               Block(0x48, 0, 512), Block(0x48, 2, 512), Block(0x48, 1, 10),
                               Block(0x48, 2, 1), Block(0x88, 0, 1), Frame(0x44, {0})}),
        "out of order;out of order;4806;out of order;out of order;4806;out of order;wrong line;;");
    EXPECT_EQ(units.micro.OnLineClosed(), "microcontroller image: 2 of 12 blocks");
    EXPECT_EQ(Replies(&units.micro, {Block(0x48, 0, 512)}), "4806;") << "the next run's";
    EXPECT_EQ(units.kept, "microcontroller erased;microcontroller erased;");
}

TEST(CameraUnit, HoldsTheSenderToTheAnnouncedCounts) {
    Units units;
    for (const char* wrong : {"0100010001", "0300010001", "0500000000", "0200010000"}) {
        EXPECT_EQ(Replies(&units.camera, {FlashMode(wrong)}), "bad request;") << wrong;
    }
    EXPECT_EQ(Replies(&units.camera, {Block(0x88, 0, 5), FlashMode("0500020001")}),
              "out of order;a0437205;");
    // The system image first, a short block in the middle, an empty last one, one too many.
    EXPECT_EQ(Replies(&units.camera, {Block(0x89, 0, 5), Block(0x88, 0, 5), Block(0x88, 0, 64512),
                                      Block(0x88, 1, 0), Block(0x88, 1, 1), Block(0x88, 2, 1),
                                      Block(0x89, 0, 9), Frame(0x44, {1})}),
              "out of order;out of order;4806;out of order;4806;out of order;4806;wrong line;");
    EXPECT_EQ(units.kept, "camera erased;camera 64513;system erased;system 9;");
}

}  // namespace
}  // namespace kestrelsim
