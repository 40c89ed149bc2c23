// Frames: any payload against the rule applied byte by byte.
#include <gtest/gtest.h>
#include <string.h>

#include <random>

#include "devlib/kestrelflash/linkmsg.h"
#include "tests/kestrelflash/frame_decoder.h"

namespace {

constexpr unsigned char kUntouched = 0xA5;

// The frame of a payload, built into the smallest buffer that is promised to do.
Bytes Frame(int type, const Bytes& payload) {
    const int size = static_cast<int>(payload.size());
    const std::size_t room = static_cast<std::size_t>(LinkFrameBound(size));
    Bytes frame(room + 16, kUntouched);
    int length = -1;
    EXPECT_EQ(kNoError, buildHarborToKestrelMsg(static_cast<HARBOR_KESTREL_MESAGE_TYPE>(type), size,
                                                payload.data(), &length, frame.data()));
    EXPECT_EQ(Bytes(16, kUntouched), Bytes(frame.begin() + static_cast<long>(room), frame.end()))
        << "written beyond the buffer";
    frame.resize(static_cast<std::size_t>(length));
    return frame;
}

// Bytes of which one in `every` needs stuffing; 0: none does.
Bytes Payload(std::mt19937* random, std::size_t size, unsigned every) {
    Bytes payload(size);
    for (unsigned char& byte : payload) {
        const unsigned value = static_cast<unsigned>((*random)());
        const bool stuffed = every != 0 && value / 512 % every == 0;
        byte = static_cast<unsigned char>(stuffed ? 0xFE + value % 2 : value % 0xFE);
    }
    return payload;
}

TEST(Framing, OtherTypesAreFramedOrTheirLengthIsLeft) {
    std::string framed;
    testing::internal::CaptureStdout();
    for (int type = 0; type < 256; type++) {
        int length = 7;
        unsigned char frame[LinkFrameBound(0)] = {};
        if (buildHarborToKestrelMsg(static_cast<HARBOR_KESTREL_MESAGE_TYPE>(type), 0, nullptr,
                                    &length, frame) == kNoError) {
            framed += std::to_string(type) + " ";
        } else if (length != 0) {
            framed += "?";
        }
    }
    EXPECT_EQ("65 66 67 68 72 73 129 136 137 ", framed);
    EXPECT_EQ(247 * strlen("packetizeHarborToKestrelMsg() -- Invalid message.\n"),
              testing::internal::GetCapturedStdout().size());
}

TEST(Framing, AnyPayloadComesBackFromAnIndependentDecoder) {
    // The largest, and sizes that make the length's bytes need stuffing.
    const std::size_t kSizes[] = {64514, 0xFB, 0xFC, 0xFDFF};
    std::mt19937 random(20);
    for (unsigned round = 0; round < 1500; round++) {
        const std::size_t size = round < 4 ? kSizes[round] : round % 300;
        // One sums to nothing: its checksum is 0x1000000 and loses its top bit.
        const Bytes payload =
            round == 5 ? Bytes(size)
                       : Payload(&random, size, round / 300 == 4 ? 0 : 1U << (round / 300 * 3));
        unsigned char type = 0;
        Bytes decoded;
        // Only the low eight bits of the type count.
        ASSERT_TRUE(DecodeFrame(Frame(0x189, payload), &type, &decoded)) << round;
        ASSERT_EQ(0x89, type);
        ASSERT_EQ(payload, decoded) << round;
    }
}

}  // namespace
