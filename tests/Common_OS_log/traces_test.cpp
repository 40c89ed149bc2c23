// Trace categories, their tables and helpers.
#include <gmock/gmock.h>

#include "Common/OS/syslogf.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {

class Traces : public LogFixtureT {
  protected:
    void SetUp() override {
        LogFixtureT::SetUp();
        logmsg_set_format(kLogFormatLevel);
    }
};

UInt8 Status(int index) {
    return gRtCategoryStatusWord[index].load();
}

TEST_F(Traces, ACategoryIsOutOfPlaceOrMisnamed) {
    const struct {
        int index;
        gRtCategoryT category;
        const char* name;
    } spots[] = {
        {0, NULL_NULL_NULL, "(NOCAT)"},         {1, SYS_NULL_NULL, "SYS"},
        {2, SYS_BOOT_NULL, "SYS  BOOT"},        {4, SYS_TERM_CMD, "SYS  TERM CMD"},
        {13, AUD_7221_NULL, "AUD  7221"},       {17, AUD_ZZ14_NULL, "AUD  ZZ14"},
        {25, VID_NOTF_NULL, "VID  NOTF"},       {32, COMM_CAPS_MAN, "COMM CAPS MAN"},
        {38, COMM_CONF_MP, "COMM CONF MP"},     {44, COMM_H320_AGGC, "COMM H320 AGGC"},
        {62, COMM_H320_H242, "COMM H320 H242"}, {77, COMM_H221_LSD, "COMM H221 LSD"},
        {82, COMM_H323_GK, "COMM H323 GK"},     {101, COMM_V35_NULL, "COMM V35"},
        {103, COMM_V35_NIC, "COMM V35  NIC"},   {116, COMM_SIP_PROX, "COMM SIP  PROX"},
        {119, UI_JVM_NULL, "UI   JVM"},         {122, WEB_NOTF_NULL, "WEB  NOTF"},
    };
    for (const auto& s : spots) {
        EXPECT_EQ(s.category, static_cast<UInt32>(s.index)) << s.name;
        EXPECT_STREQ(gRtCategoryLut[s.index].name, s.name);
        EXPECT_EQ(gRtCategoryLut[s.index].value, s.index);
    }
    EXPECT_STREQ(gRtCategoryLut[122].description, "Web NOTIFY messages");
    EXPECT_STREQ(gRtCategoryLut[0].description, "Uncategorized output");
    EXPECT_EQ(gRtCategoryLut[7].description, nullptr);
    EXPECT_EQ(gRtCategoryLut[123].name, nullptr);
    EXPECT_EQ(CM_DEBG_VARIABLE_WORD_WRAP, 124U);
    EXPECT_EQ(CM_DEBG_FILTER_END_SENTINEL, 125U);
    std::string letters;
    for (const char* letter : syslogf_level_str) {
        letters += letter;
    }
    EXPECT_EQ(letters, "FFEEIIID");
}

TEST_F(Traces, ATraceMessageGetsAWrongLevelOrTrapsOnNull) {
    const char* none = nullptr;
    EXPECT_EQ(syslogf(9, SYS_TERM_NULL, 7, "nine %d\n", 9), 20);
    EXPECT_EQ(syslogf(-1, SYS_TERM_NULL, 7, "minus\n"), 19);
    EXPECT_EQ(syslogf(3, static_cast<gRtCategoryT>(500), 7, "three\n"), 19);
    EXPECT_EQ(category_printf(UI_JVM_NULL, "cat %s\n", "x"), 19);
    EXPECT_EQ(syslogf(3, SYS_TERM_NULL, 7, none), 0);
    EXPECT_EQ(category_printf(UI_JVM_NULL, none), 0);
    EXPECT_EQ(Printed(),
              "DEBUG pc[0]: nine 9\nDEBUG pc[0]: minus\nERROR pc[0]: three\n"
              "DEBUG pc[0]: cat x\n");
}

TEST_F(Traces, SwitchingACategoryTouchesTheWrongBits) {
    EXPECT_EQ(Status(0), 0x0F);
    EXPECT_EQ(Status(5), 0);
    EXPECT_EQ(CmDebgCategoryEnable(SYS_OS_NULL), kNoError);
    EXPECT_EQ(Status(5), 0x03);
    // This processor does not trace yet: byte 0 lacks its bit.
    EXPECT_EQ(CmDebgCategoryAndLevelBlock(3, SYS_OS_NULL), 1);
    gRtCategoryStatusWord[0] = 0x10;
    EXPECT_EQ(CmDebgCategoryAndLevelBlock(7, SYS_OS_NULL), 0);
    EXPECT_EQ(CmDebgCategoryDisable(SYS_OS_NULL), kNoError);
    EXPECT_EQ(Status(5), 0x02);
    EXPECT_EQ(CmDebgCategoryAndLevelBlock(7, SYS_OS_NULL), 1);
    EXPECT_EQ(CmDebgCategoryAndLevelBlock(6, SYS_OS_NULL), 0);
    EXPECT_EQ(CmDebgCategoryAndLevelBlock(3, SYS_NOTF_NULL), 1);
    EXPECT_EQ(Printed(), "");
    EXPECT_EQ(CmDebgCategoryEnable(CM_DEBG_NUM_CATEGORIES), kBadParameter);
    EXPECT_EQ(CmDebgCategoryDisable(static_cast<gRtCategoryT>(100000)), kBadParameter);
    EXPECT_EQ(CmDebgCategoryAndLevelBlock(3, static_cast<gRtCategoryT>(100000)), 1);
    EXPECT_EQ(Printed(),
              "ERROR pc[0]: CmDebgCategoryEnable:  category 123 out of bounds\n"
              "ERROR pc[0]: CmDebgCategoryDisable:  category 100000 out of bounds\n");
}

TEST_F(Traces, DefaultsLeaveACategoryOrTheHeaderBehind) {
    CmDebgCategoryEnable(COMM_H221_MUX);
    gRtCategoryStatusWord[150] = 0xAA;
    CmDebgSetDefaultSettings();
    EXPECT_EQ(Printed(), "Trace set to default settings.\n");
    int debug = 0;
    int sum = 0;
    for (int i = 0; i < 123; i++) {
        ASSERT_EQ(Status(i) & ~1, 0x12) << i;
        debug += Status(i) & 1;
        sum += (Status(i) & 1) * i;
    }
    EXPECT_EQ(debug, 28);
    EXPECT_EQ(sum, 1793);  // of the 28 numbers
    EXPECT_EQ(Status(COMM_H320_CAPX), 0x13);
    EXPECT_EQ(Status(COMM_H221_MUX), 0x12);
    EXPECT_EQ(Status(123) + Status(150), 0);
    EXPECT_EQ(Status(124) + Status(125), 510);
    EXPECT_STREQ(gRtTraceHeaderFormatString, "%s%s%s");
    EXPECT_EQ(gRtTraceHeaderOffset + gRtTraceIndentOffset, 0);
}

TEST_F(Traces, TheHeaderFormatDisagreesWithItsWidth) {
    const struct {
        const char* format;
        int width;
        int shown[3];
    } cases[] = {
        {"%- 13.13s%- 2.2s%- 15.15s", 30, {4, 4, 4}},
        {"%s%- 2.2s%s", 2, {0, 4, 0}},
        {"%- 13.13s%s%- 15.15s", 28, {4, 0, 4}},
        {"%s%s%s", 0, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        for (int i = 0; i < 3; i++) {
            gRtCategoryStatusWord[i] = static_cast<UInt8>(c.shown[i] | 0x02);
        }
        CmDebgRebuildHeaderFormatString();
        EXPECT_STREQ(gRtTraceHeaderFormatString, c.format);
        EXPECT_EQ(gRtTraceHeaderOffset, c.width);
        EXPECT_EQ(gRtTraceIndentOffset, c.width);
    }
    char stamp[16] = "unchanged";
    CmDebgCheckTime(stamp);
    EXPECT_STREQ(stamp, "");
    gRtCategoryStatusWord[0] = 4;
    CmDebgCheckTime(stamp);
    EXPECT_THAT(stamp, testing::MatchesRegex("([0-9]{2}\\.){3}[0-9]{3}"));
}

TEST_F(Traces, ASearchFindsTheWrongRowOrRunsOffTheTable) {
    EXPECT_EQ(CmDebgCategoryFromStrings("COMM", "H320", "AGGC"), COMM_H320_AGGC);
    EXPECT_EQ(CmDebgCategoryFromStrings("COMMON", "H320", "AGGCX"), NULL_NULL_NULL);
    EXPECT_EQ(CmDebgCategoryFromStrings("COMM", "SIP", "PROXY"), COMM_SIP_PROX);
    EXPECT_EQ(CmDebgCategoryFromStrings("COMM", "H323", "GK"), NULL_NULL_NULL);
    EXPECT_EQ(CmDebgCategoryFromStrings("comm", "H320", "AGGC"), NULL_NULL_NULL);
    EXPECT_EQ(CmDebgCategoryFromStrings("COMM", nullptr, "AGGC"), NULL_NULL_NULL);

    char blanks[] = "CONTENT  ";
    EXPECT_EQ(LutGetValue(gRtGroups, blanks), 0);
    EXPECT_STREQ(blanks, "CONTENT");
    EXPECT_EQ(LutGetValue(gRtGroupMap, blanks), 37);
    char sip[] = "comm sip  prox";
    EXPECT_EQ(LutGetValue(gRtCategoryLut, sip), 116);
    char unknown[] = "nonesuch";
    for (const LutT* table :
         {gRtCategoryLut, gRtGroups, gRtGroupMap, gRtExecScripts, gRtScriptCmds}) {
        EXPECT_EQ(LutGetValue(table, unknown), -1);
        EXPECT_EQ(LutGetString(table, 4711), nullptr);
    }
    EXPECT_EQ(LutGetValue(gRtCategoryLut, nullptr), -1);
    EXPECT_EQ(LutGetValue(nullptr, unknown), -1);
    EXPECT_STREQ(LutGetString(gRtCategoryLut, 122), "WEB  NOTF");
    EXPECT_STREQ(LutGetString(gRtExecScripts, 0), "A_DEFAULT");
    EXPECT_STREQ(gRtScriptCmds[2].description, "trace text wrap 80");
}

TEST_F(Traces, HexadecimalTextIsSwappedOrOverrun) {
    UInt8 bytes[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(CmDebgHexToBinCopy("09AF7", bytes, 5), 0);
    EXPECT_EQ(bytes[0] << 16 | bytes[1] << 8 | bytes[2], 0x09AFEE);
    EXPECT_EQ(CmDebgHexToBinCopy("12a4", bytes, 4), 'a');
    EXPECT_EQ(bytes[0] << 8 | bytes[1], 0x12AF);
    EXPECT_EQ(CmDebgHexToBinCopy("\xE9", bytes, 1), 0);  // half a byte is none
    EXPECT_EQ(CmDebgHexToBinCopy("1\xE9", bytes, 2), 0xE9);
    char text[] = "????????";
    EXPECT_EQ(CmDebgBinToHexCopy(bytes, text, 2), 0);
    EXPECT_STREQ(text, "12AF????");
    EXPECT_EQ(CmDebgRtCategoryStatusWordRead(), kBadParameter);
    EXPECT_EQ(CmDebgRtCategoryStatusWordWrite(), kBadParameter);
    EXPECT_EQ(CmDebgRtCategoryStatusWordInit(), kNoError);
    EXPECT_EQ(gRtTraceSyslogEcho, 0);
    gRtTraceSyslogEchoAtStartup = 1;
    EXPECT_EQ(CmDebgRtCategoryStatusWordInit(), kNoError);
    EXPECT_EQ(gRtTraceSyslogEcho, 1);
}

}  // namespace
