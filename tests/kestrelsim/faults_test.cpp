// Faults: which answers they strike, what they make of them, and that a seed repeats a run.
#include "tools/kestrelsim/faults.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace kestrelsim {
namespace {

const AnswerId kVersion = {UnitName::kMicro, AnswerKind::kVersion};

AnswerId Block(UnitName unit, Image image, int block, int attempt = 1) {
    return {unit, AnswerKind::kBlock, image, block, attempt};
}

// "nack" for an answer that is to be refused, otherwise "0:0102 5:03": delay and bytes of each
// piece of what becomes of 01020304.
std::string Strike(Faults* faults, const AnswerId& id) {
    if (!faults->Acknowledges(id)) {
        return "nack";
    }
    std::string text;
    for (const Piece& piece : faults->Shape({id, {1, 2, 3, 4}, ""})) {
        text +=
            (text.empty() ? "" : " ") + std::to_string(piece.delay_ms) + ":" + ToHex(piece.bytes);
    }
    return text;
}

TEST(Faults, StrikeOnlyTheAnswersThatAreAskedAndShapeThemAsTheirNamesSay) {
    const struct {
        std::vector<const char*> texts;
        std::vector<AnswerId> answers;
        std::vector<std::string> outcomes;
    } cases[] = {
        {{"split ms=3", "late ms=7"}, {kVersion}, {"7:01 3:02 3:03 3:04"}},
        {{"corrupt byte=3 value=0xff after=1"}, {kVersion, kVersion}, {"0:01020304", "0:010203ff"}},
        {{"noise bytes=FF00", "late ms=7", "short count=3"}, {kVersion}, {"7:ff00 0:010203"}},
        {{"late unit=camera", "drop answer=block", "late block=1", "wrong-type", "slow-erase",
          "nack"},
         {kVersion},
         {"0:01020304"}},
        {{"nack unit=micro block=3 attempt=2", "drop image=system times=1"},
         {Block(UnitName::kMicro, Image::kMicro, 3), Block(UnitName::kMicro, Image::kMicro, 3, 2),
          Block(UnitName::kCamera, Image::kCamera, 3, 2),
          Block(UnitName::kCamera, Image::kSystem, 0), Block(UnitName::kCamera, Image::kSystem, 0)},
         {"0:01020304", "nack", "0:01020304", "", "0:01020304"}},
        {{"silent unit=camera image=camera block=5"},
         {Block(UnitName::kCamera, Image::kCamera, 4), Block(UnitName::kCamera, Image::kCamera, 5),
          Block(UnitName::kCamera, Image::kCamera, 6), kVersion},
         {"0:01020304", "", "", "0:01020304"}},
    };
    for (const auto& it : cases) {
        Faults faults;
        for (const char* text : it.texts) {
            faults.Add(text);
        }
        std::vector<std::string> outcomes;
        for (const AnswerId& id : it.answers) {
            outcomes.push_back(Strike(&faults, id));
        }
        EXPECT_EQ(outcomes, it.outcomes) << testing::PrintToString(it.texts);
    }
}

TEST(Faults, TheSameSeedMakesTheSameNoise) {
    const auto noise = [](uint32_t seed) {
        Faults faults;
        faults.AddScript(nlohmann::json::parse(
            R"({"seed": 5, "faults": [{"fault": "noise", "unit": "micro", "count": 400}]})"));
        if (seed != 5) {
            faults.Seed(seed);
        }
        Bytes bytes = faults.Shape({kVersion, {1}, ""}).at(0).bytes;
        EXPECT_EQ(bytes.size(), 400U);
        for (const uint8_t byte : bytes) {
            EXPECT_TRUE(byte != 0xFF && byte != 0xA0) << "noise must not look like an answer";
        }
        return bytes;
    };
    EXPECT_EQ(noise(5), noise(5));
    EXPECT_NE(noise(5), noise(6));
}

}  // namespace
}  // namespace kestrelsim
