// The capabilities table, with a product of the test's own.
#include "Common/OS/sysCapsTable.h"

#include <gtest/gtest.h>

#include <string>

#include "Common/framework/config.h"
#include "tests/config/store_tree.h"

namespace {

float gZoom = 2.5F;

void* Number(std::uintptr_t number) {
    return reinterpret_cast<void*>(number);
}

char gCodec[] = "wideband";
sysCapsT gVideo[] = {{"zoom", &gZoom, 0, " %f "}, {}};
sysCapsT gAudio[] = {{"codec", gCodec, 0, "%s"}, {}};
sysCapsT gComm[] = {{"rate", Number(64), 0, "%d"}, {"rate", Number(128), 1, "%d"}, {}};
sysCapsT gSystem[] = {{"ports", Number(7), 0, "0x%02x"}, {}};
sysCapsT* gTable[] = {gVideo, gAudio, gComm, nullptr, gSystem, gComm};  // the last is no section

sysCapsT** Build(hwTypeT hwType) {
    EXPECT_EQ(hwType, kHarbor);
    return gTable;
}

std::string gAsked;

const sysCapsT* Rates(hwTypeT, int rate, Boolean asymmetric, Boolean encrypted) {
    static sysCapsT rows[] = {{"rate", nullptr, 1, "%d"}, {"unknown", nullptr, 0, "%d"}, {}};
    gAsked += std::to_string(rate) + (asymmetric != 0 ? " asymmetric;" : ";");
    rows[0].val = Number(static_cast<unsigned int>(rate));
    return encrypted != 0 ? nullptr : rows;
}

constexpr SysCapsProductT kProduct = {Build, Rates};

struct SysCaps : testing::Test {
    SysCaps() {
        SetSystemHardwareType(kHarbor);
        sysCapsSetProduct(&kProduct);
    }
};

std::string Formatted(UInt32 section, const char* name, unsigned int instance) {
    char text[kSysCapValueSize] = "(none)";
    getCapability(section, name, instance, text);
    return text;
}

}  // namespace

TEST_F(SysCaps, WithoutAProductThereAreNoRows) {
    EXPECT_EQ(Formatted(eSysCapComm, "rate", 0), "64");
    sysCapsSetProduct(nullptr);
    EXPECT_EQ(getCapability(eSysCapComm, "rate", 0, nullptr), nullptr);
    dumpCapabilities(nullptr, 7);
    setenv("CORVANE_BOARDID", "tamarisk", 1);
    EXPECT_EQ(setRateCapabilities(0, 0), 0U);
}

TEST_F(SysCaps, RowsAreFoundByExactNameAndInstance) {
    EXPECT_EQ(Formatted(eSysCapComm, "Rate", 1) + Formatted(eSysCapComm, "rate", 2) +
                  Formatted(7, "rate", 0),
              "(none)(none)(none)");
    EXPECT_EQ(setCapability(eSysCapComm, "rate", 1, Number(99)), kNoError);
    EXPECT_EQ(setCapability(5, "rate", 1, Number(98)), kFuncReturnedError);
    testing::internal::CaptureStdout();
    dumpCapabilities(nullptr, eSysCapComm);
    // Beyond the sections: all of them.
    dumpCapabilities([](const char* section, const char* key, unsigned int,
                        const char* value) { printf("%s/%s=%s;", section, key, value); },
                     eSysCapNumSections);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Section: comm\tKey: rate\tInstance: 0\tValue: 64\n"
              "Section: comm\tKey: rate\tInstance: 1\tValue: 99\n"
              "video/zoom= 2.500000 ;audio/codec=wideband;comm/rate=64;"
              "comm/rate=99;system/ports=0x07;");
}

TEST_F(SysCaps, TheRateFollowsBoardAndSecurityAndChangesNothingWhenRefused) {
    const StoreTree tree;
    const struct {
        const char* board;
        const char* secure;
        const char* rate;
    } cases[] = {
        {"Tamarisk", "True", "8192"}, {"willow", "False", "6144"}, {"oak", "TRUE", "4096"}};
    for (const auto& c : cases) {
        setenv("CORVANE_BOARDID", c.board, 1);
        ConfigWrite("securemode", 0, c.secure);
        EXPECT_EQ(setRateCapabilities(1, 0), 1U);
        EXPECT_EQ(std::to_string(crntTableRate), c.rate);
        EXPECT_EQ(Formatted(eSysCapComm, "rate", 1), c.rate);
    }
    ConfigWrite("securemode", 0, "False");
    EXPECT_EQ(setRateCapabilities(0, 1), 0U) << "no rates";
    EXPECT_EQ(crntTableRate, 4096);
    EXPECT_EQ(gAsked, "8192 asymmetric;6144 asymmetric;4096 asymmetric;6144;");
}
