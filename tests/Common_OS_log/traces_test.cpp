// Trace categories, their tables and helpers.
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/syslogf.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {

class Traces : public LogFixtureT {};

TEST_F(Traces, ACategoryIsOutOfPlaceOrMisnamed) {
    std::string names;
    for (const gRtCategoryT spot : {NULL_NULL_NULL, SYS_TERM_CMD, AUD_ZZ14_NULL, COMM_CAPS_MAN,
                                    COMM_H320_H242, COMM_H323_GK, COMM_SIP_PROX, WEB_NOTF_NULL}) {
        names += std::to_string(spot) + LutGetString(gRtCategoryLut, spot) + "|";
    }
    EXPECT_EQ(names,
              "0(NOCAT)|4SYS  TERM CMD|17AUD  ZZ14|32COMM CAPS MAN|62COMM H320 H242|"
              "82COMM H323 GK|116COMM SIP  PROX|122WEB  NOTF|");
    EXPECT_STREQ(gRtCategoryLut[WEB_NOTF_NULL].description, "Web NOTIFY messages");
    EXPECT_EQ(gRtCategoryLut[WEB_NOTF_NULL + 1].name, nullptr);
    for (const int wanted : {0, 1}) {
        gRtTraceSyslogEchoAtStartup = wanted;
        EXPECT_EQ(CmDebgRtCategoryStatusWordInit() + gRtTraceSyslogEcho, wanted);
    }
}

TEST_F(Traces, SwitchingACategoryTouchesTheWrongBits) {
    EXPECT_EQ(CmDebgCategoryEnable(SYS_OS_NULL), kNoError);
    EXPECT_EQ(gRtCategoryStatusWord[5], 0x03);
    const auto blocked = [](int level, gRtCategoryT category) {
        return CmDebgCategoryAndLevelBlock(level, category) != 0;
    };
    EXPECT_TRUE(blocked(3, SYS_OS_NULL));  // no bit in byte 0: this processor does not trace
    gRtCategoryStatusWord[0] = 0x10;
    EXPECT_TRUE(!blocked(7, SYS_OS_NULL) && blocked(3, SYS_NOTF_NULL));
    EXPECT_EQ(CmDebgCategoryDisable(SYS_OS_NULL), kNoError);
    EXPECT_TRUE(!blocked(6, SYS_OS_NULL) && blocked(7, SYS_OS_NULL));
    const auto foreign = static_cast<gRtCategoryT>(100000);
    EXPECT_EQ(CmDebgCategoryEnable(CM_DEBG_NUM_CATEGORIES), kBadParameter);
    EXPECT_EQ(CmDebgCategoryDisable(foreign), kBadParameter);
    EXPECT_TRUE(blocked(3, foreign));
}

TEST_F(Traces, DefaultsOrTheHeaderFormatAreWrong) {
    gRtCategoryStatusWord[COMM_H221_MUX] = 0x07;
    CmDebgSetDefaultSettings();
    EXPECT_EQ(Printed(), "Trace set to default settings.\n");
    int sum = 0;
    for (int i = 0; i < 123; i++) {
        ASSERT_EQ(gRtCategoryStatusWord[i] & ~1, 0x12) << i;
        sum += (gRtCategoryStatusWord[i] & 1) * (100000 + i);
    }
    EXPECT_EQ(sum, 2800000 + 1793);  // 28 numbers and their sum
    EXPECT_EQ(gRtCategoryStatusWord[124] + gRtCategoryStatusWord[125], 255 + 255);
    EXPECT_STREQ(gRtTraceHeaderFormatString, "%s%s%s");
    gRtCategoryStatusWord[1] = 4;
    CmDebgRebuildHeaderFormatString();
    EXPECT_STREQ(gRtTraceHeaderFormatString, "%s%- 2.2s%s");
    EXPECT_EQ(gRtTraceHeaderOffset, 2);
    gRtCategoryStatusWord[0] = gRtCategoryStatusWord[2] = 7;
    CmDebgRebuildHeaderFormatString();
    EXPECT_STREQ(gRtTraceHeaderFormatString, "%- 13.13s%- 2.2s%- 15.15s");
    EXPECT_EQ(gRtTraceHeaderOffset * 100 + gRtTraceIndentOffset, 3030);
    char stamp[16];
    CmDebgCheckTime(stamp);
    EXPECT_THAT(stamp, testing::MatchesRegex("([0-9]{2}\\.){3}[0-9]{3}"));
    UInt32 before;
    do {  // until the clock stands still meanwhile, at three digits
        before = RealTimeMilliSeconds();
        CmDebgMakeHeaderTimestamp(stamp);
    } while (before != RealTimeMilliSeconds() || before % 1000 < 100);
    EXPECT_EQ(stamp + 9, std::to_string(before % 1000));
}

TEST_F(Traces, ASearchFindsTheWrongRowOrRunsOffTheTable) {
    EXPECT_EQ(CmDebgCategoryFromStrings("COMM", "SIP", "PROXY"), COMM_SIP_PROX);
    EXPECT_EQ(CmDebgCategoryFromStrings("COMM", "H323", "GK"), NULL_NULL_NULL);
    char blanks[] = "Content  ";
    EXPECT_EQ(LutGetValue(gRtGroups, blanks), 0);
    EXPECT_STREQ(blanks, "Content");
    EXPECT_EQ(LutGetValue(gRtGroupMap, blanks), 37);
    for (const LutT* table : {gRtCategoryLut, gRtExecScripts, gRtScriptCmds}) {
        EXPECT_EQ(LutGetValue(table, blanks) + LutGetValue(table, nullptr), -2);
        EXPECT_EQ(LutGetString(table, 4711), nullptr);
    }

    char tab[] = "CONTENT\t ";
    EXPECT_EQ(LutGetValue(gRtGroups, tab), -1);

    UInt8 bytes[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(CmDebgHexToBinCopy("10AF77", bytes, 5), 0);  // half a byte is none
    EXPECT_EQ(CmDebgHexToBinCopy("10a4", bytes, 4), 'a');
    char text[] = "?????????";
    EXPECT_EQ(CmDebgBinToHexCopy(bytes, text, 3), 0);
    EXPECT_STREQ(text, "10AFEE???");
}

}  // namespace
