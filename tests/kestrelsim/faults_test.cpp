// Faults: which answers they strike, what they make of them, and that a seed repeats a run.
#include "tools/kestrelsim/faults.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kestrelsim {
namespace {

const Answer kVersionAnswer = {{UnitName::kMicro, AnswerKind::kVersion}, {1, 2, 3, 4}, "version"};

Answer BlockAnswer(UnitName unit, Image image, int block, int attempt = 1) {
    return {{unit, AnswerKind::kBlock, image, block, attempt}, {0x48, 0x06}, "ACK"};
}

// "0:0102 5:03": delay and bytes of each piece.
std::string Show(const std::vector<Piece>& pieces) {
    std::string text;
    for (const Piece& piece : pieces) {
        text +=
            (text.empty() ? "" : " ") + std::to_string(piece.delay_ms) + ":" + ToHex(piece.bytes);
    }
    return text;
}

TEST(Faults, ShapeAnAnswerAsTheirNamesSay) {
    const struct {
        std::vector<const char*> texts;
        const char* pieces;
    } cases[] = {
        {{}, "0:01020304"},
        {{"drop"}, ""},
        {{"late ms=7"}, "7:01020304"},
        {{"split ms=3"}, "0:01 3:02 3:03 3:04"},
        {{"split ms=3", "late ms=7"}, "7:01 3:02 3:03 3:04"},
        {{"duplicate"}, "0:0102030401020304"},
        {{"corrupt"}, "0:01550304"},
        {{"corrupt byte=3 value=0xff"}, "0:010203ff"},
        {{"corrupt byte=9"}, "0:01020304"},
        {{"short count=2"}, "0:0102"},
        {{"noise bytes=FF00", "late ms=7"}, "7:ff00 0:01020304"},
        {{"late unit=camera", "late answer=block", "late block=1"}, "0:01020304"},
        {{"wrong-type", "slow-erase", "nack"}, "0:01020304"},
    };
    for (const auto& it : cases) {
        Faults faults;
        for (const char* text : it.texts) {
            faults.Add(text);
        }
        EXPECT_EQ(Show(faults.Shape(kVersionAnswer)), it.pieces)
            << testing::PrintToString(it.texts);
    }
}

TEST(Faults, StrikeOnlyTheBlockAttemptAndTimesThatAreAsked) {
    Faults faults;
    faults.Add("nack unit=micro block=3 attempt=2");
    faults.Add("nack image=system times=1");
    faults.Add("silent unit=camera image=camera block=5");
    const auto acknowledged = [&](const Answer& answer) { return faults.Acknowledges(answer.id); };
    EXPECT_TRUE(acknowledged(BlockAnswer(UnitName::kMicro, Image::kMicro, 3, 1)));
    EXPECT_FALSE(acknowledged(BlockAnswer(UnitName::kMicro, Image::kMicro, 3, 2)));
    EXPECT_TRUE(acknowledged(BlockAnswer(UnitName::kCamera, Image::kCamera, 3, 2)));
    EXPECT_FALSE(acknowledged(BlockAnswer(UnitName::kCamera, Image::kSystem, 0)));
    EXPECT_TRUE(acknowledged(BlockAnswer(UnitName::kCamera, Image::kSystem, 0))) << "times=1";
    EXPECT_FALSE(faults.Shape(BlockAnswer(UnitName::kCamera, Image::kCamera, 4)).empty());
    EXPECT_TRUE(faults.Shape(BlockAnswer(UnitName::kCamera, Image::kCamera, 5)).empty());
    EXPECT_TRUE(faults.Shape(BlockAnswer(UnitName::kCamera, Image::kCamera, 6)).empty());
    EXPECT_FALSE(faults.Shape(kVersionAnswer).empty()) << "the other unit still answers";
}

TEST(Faults, TheSameSeedMakesTheSameNoise) {
    const auto noise = [](uint32_t seed) {
        Faults faults;
        faults.AddScript(nlohmann::json::parse(
            R"({"seed": 5, "faults": [{"fault": "noise", "unit": "micro", "count": 400}]})"));
        if (seed != 5) {
            faults.Seed(seed);
        }
        Bytes bytes = faults.Shape(kVersionAnswer).at(0).bytes;
        EXPECT_EQ(bytes.size(), 400U);
        for (const uint8_t byte : bytes) {
            EXPECT_TRUE(byte != 0xFF && byte != 0xA0) << "noise must not look like an answer";
        }
        return bytes;
    };
    EXPECT_EQ(noise(5), noise(5));
    EXPECT_NE(noise(5), noise(6));
}

TEST(Faults, NamesWhatIsWrongWithASpecOrScript) {
    for (const char* text : {"", "melt", "late ms", "late ms=x", "late ms=-1", "late count=2",
                             "drop unit=keypad", "noise bytes=f", "close", "nack image=both"}) {
        EXPECT_THROW(Faults().Add(text), std::invalid_argument) << text;
    }
    for (const char* script : {"[1]", R"({"faults": 1})", R"({"faults": [1]})", R"({"seed": -1})",
                               R"({"faults": [{"fault": "late", "ms": 1.5}]})"}) {
        EXPECT_THROW(Faults().AddScript(nlohmann::json::parse(script)), std::invalid_argument)
            << script;
    }
}

}  // namespace
}  // namespace kestrelsim
