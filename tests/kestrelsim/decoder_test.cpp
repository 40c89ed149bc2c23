// The decoder against frames worked out by hand, and against every way of spoiling them.
#include <gtest/gtest.h>

#include <algorithm>

#include "tools/kestrelsim/link_decoder.h"

namespace kestrelsim {
namespace {

// What becomes of bytes that come by `chunk`: "frame 44 01", "device-type ", the refusal's reason.
std::string Decode(const std::string& hex, size_t chunk, bool camera) {
    const Bytes bytes = FromHex(hex).value();
    LinkDecoder decoder(camera);
    std::string text;
    const auto show = [&](const std::vector<Decoded>& decoded) {
        for (const Decoded& it : decoded) {
            text += text.empty() ? "" : "; ";
            if (const auto* refusal = std::get_if<Refusal>(&it)) {
                text += ReasonText(refusal->reason);
                continue;
            }
            const auto& message = std::get<Message>(it);
            static const char* const kKinds[] = {"frame", "device-type", "flash-mode"};
            text += kKinds[static_cast<int>(message.kind)] + std::string(" ") +
                    (message.type != 0 ? ToHex({&message.type, 1}) + " " : "") +
                    ToHex(message.payload);
        }
    };
    for (size_t at = 0; at < bytes.size(); at += chunk) {
        show(decoder.Feed(ByteView(bytes).subspan(at, std::min(chunk, bytes.size() - at))));
    }
    show(decoder.Finish());
    return text;
}

struct Case {
    const char* wire;
    const char* outcome;
    bool camera = false;
};

constexpr Case kCases[] = {
    // Worked frames.
    {"FF 44 00 04 01 FE01 FE01 FE01", "frame 44 01"},
    {"FF 49 00 04 69 FE01 FE01 97", "frame 49 69"},
    {"FF 48 00 03 00 00 00", "frame 48 "},
    {"FF 48 00 06 00 05 10 FE01 FE01 EB", "frame 48 000510"},
    {"FF 48 00 07 00 00 FE00 FE01 FE01 FE00 03", "frame 48 0000feff"},
    {"82 06 77", "device-type ", true},
    {"87 43 72 05 00 FF 00 02", "flash-mode 0500ff0002", true},
    {"82 06 77 FF 44 00 04 01 FE01 FE01 FE01", "device-type ; frame 44 01", true},
    // Spoiled ones. What follows a refusal is skipped up to the next start byte.
    {"FF 48 00 06 00 05 10 FE01 FE01 EC", "bad checksum"},
    {"FF 44 00 04 01 FE02 FE01 FE01", "bad stuffing; stray bytes"},
    {"FF 44 00 04 01 FE FF 44 00 04 01 FE01 FE01 FE01", "cut short; frame 44 01"},
    {"FF 44 00 05 01 FE01 FE01 FE01", "wrong length; stray bytes"},
    {"FF 48 02 06 00 00", "wrong length; stray bytes"},
    {"FF 45 00 04 01 FE01 FE01 FE01", "unknown type; stray bytes"},
    {"FF 44 00 04 01 FE01", "cut short"},
    {"00 FF 44 00 04 01 FE01 FE01 FE01", "stray bytes; frame 44 01"},
    {"00 82 06 77 FF 44 00 04 01 FE01 FE01 FE01", "stray bytes; stray bytes; frame 44 01", true},
    {"82 06 78", "bad request", true},
    {"87 43", "cut short", true},
};

TEST(LinkDecoder, JudgesEveryStreamTheSameHoweverItIsCut) {
    for (const Case& it : kCases) {
        for (const size_t chunk : {1, 2, 3, 5, 64}) {
            EXPECT_EQ(Decode(it.wire, chunk, it.camera), it.outcome) << it.wire << " by " << chunk;
        }
    }
}

}  // namespace
}  // namespace kestrelsim
