// The category tables are all made from TRACE_CATEGORY_TABLE, so that numbers and names agree.
#include "Common/OS/syslogf.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/system.h"
#include "Common/OS/log.h"

namespace {

constexpr int kComponentWidth = 5;
constexpr int kModuleWidth = 5;
constexpr int kSubmoduleWidth = 4;
constexpr int kNameWidth = kComponentWidth + kModuleWidth + kSubmoduleWidth;

struct DisplayNameT {
    char text[kNameWidth + 1];
};

constexpr bool Absent(const char* part) {
    return part[0] == 'N' && part[1] == 'U' && part[2] == 'L' && part[3] == 'L' && part[4] == 0;
}

// Writes `part` at a column; the columns up to there become blanks.
constexpr void PutPart(DisplayNameT* name, int column, const char* part) {
    if (Absent(part)) {
        return;
    }
    for (int i = 0; i < column; i++) {
        if (name->text[i] == 0) {
            name->text[i] = ' ';
        }
    }
    for (int i = 0; part[i] != 0; i++) {
        name->text[column + i] = part[i];
    }
}

constexpr DisplayNameT MakeName(const char* component, const char* module, const char* submodule) {
    DisplayNameT name{};
    PutPart(&name, 0, Absent(component) ? "(NOCAT)" : component);
    PutPart(&name, kComponentWidth, module);
    PutPart(&name, kComponentWidth + kModuleWidth, submodule);
    return name;
}

constexpr DisplayNameT kNames[] = {
#define TRACE_CATEGORY_NAME(component, module, submodule, description) \
    MakeName(#component, #module, #submodule),
    TRACE_CATEGORY_TABLE(TRACE_CATEGORY_NAME)
#undef TRACE_CATEGORY_NAME
};

// The header's fields in their order: the status byte that shows each, and its conversion.
struct HeaderFieldT {
    int status_byte;
    const char* conversion;
    int width;
};
constexpr HeaderFieldT kHeaderFields[] = {
    {0, "%- 13.13s", 13},
    {1, "%- 2.2s", 2},
    {2, "%- 15.15s", 15},
};

bool IsCategory(gRtCategoryT category) {
    return category < CM_DEBG_NUM_CATEGORIES;
}

UInt8 Status(UInt32 index) {
    return gRtCategoryStatusWord[index];
}

// The value of an upper-case hexadecimal digit, -1 for any other character.
int DigitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

}  // namespace

const LutT gRtCategoryLut[] = {
#define TRACE_CATEGORY_ROW(component, module, submodule, description)                     \
    {kNames[component##_##module##_##submodule].text, component##_##module##_##submodule, \
     description},
    TRACE_CATEGORY_TABLE(TRACE_CATEGORY_ROW)
#undef TRACE_CATEGORY_ROW
        {nullptr, 0, nullptr},
};

// The row with the null name behind the empty one ends a search for a name that is not there.
const LutT gRtExecScripts[] = {
    {"A_DEFAULT", 0, "full headers, text wrap 80, debug disable *, category enable *"},
    {"", 0, nullptr},
    {nullptr, 0, nullptr},
};

const LutT gRtScriptCmds[] = {
    {"A_DEFAULT", 0, "trace category listen *"},
    {"A_DEFAULT", 1, "trace format enable *"},
    {"A_DEFAULT", 2, "trace text wrap 80"},
    {"A_DEFAULT", 3, "trace debug disable *"},
    {"", 0, nullptr},
    {nullptr, 0, nullptr},
};

const LutT gRtGroups[] = {{"CONTENT", 0, nullptr}, {"", 0, nullptr}, {nullptr, 0, nullptr}};

const LutT gRtGroupMap[] = {
    {"CONTENT", COMM_CONF_CAPS, nullptr}, {"", 0, nullptr}, {nullptr, 0, nullptr}};

const char* const syslogf_level_str[] = {"F", "F", "E", "E", "I", "I", "I", "D"};
const char* const gRtTraceFormatNames[] = {"TIMESTAMP", "LOGLEVEL", "CATEGORY", "ID"};

const gRtCategoryT gCmDebgDefaultDebugEnabledCategories[] = {
    SYS_TERM_NULL,  NULL_NULL_NULL, UI_JVM_NULL,    COMM_CONN_NULL, COMM_CONF_NULL, COMM_CALL_NULL,
    COMM_CAPS_MAN,  COMM_H320_CAPX, COMM_H320_CALL, COMM_H320_CONN, COMM_ISDN_CALL, COMM_ISDN_BCHN,
    COMM_ISDN_TSFT, COMM_H320_BMXC, COMM_H320_MUXC, COMM_SIP_CALL,  COMM_SIP_CONN,  COMM_SIP_NIC,
    COMM_SIP_MSG,   COMM_SIP_REG,   SYS_NOTF_NULL,  COMM_NOTF_NULL, AUD_NULL_NULL,  VID_NULL_NULL,
    AUD_NOTF_NULL,  VID_NOTF_NULL,  UI_NOTF_NULL,   WEB_NOTF_NULL,
};

std::atomic<UInt8> gRtCategoryStatusWord[192] = {0x0F};

char gRtTraceHeaderFormatString[40] = "%s%s%s";
int gRtTraceHeaderOffset;
int gRtTraceIndentOffset;
std::atomic<int> gRtTraceSyslogEcho{0};
std::atomic<int> gRtTraceSyslogEchoAtStartup{0};

int syslogf(int pri, gRtCategoryT, UInt32, const char* fmt, ...) {
    const int level = static_cast<UInt32>(pri) > kLogDebug ? kLogDebug : pri;
    std::va_list ap;
    va_start(ap, fmt);
    const int result = va_logmsg(ap, level, nullptr, fmt);
    va_end(ap);
    return result;
}

int category_printf(gRtCategoryT, const char* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    const int result = va_logmsg(ap, kLogDebug, nullptr, fmt);
    va_end(ap);
    return result;
}

eErrorT CmDebgCategoryEnable(gRtCategoryT category) {
    if (!IsCategory(category)) {
        syslogf(kLogError, SYS_TERM_NULL, 0, "CmDebgCategoryEnable:  category %d out of bounds\n",
                static_cast<int>(category));
        return kBadParameter;
    }
    gRtCategoryStatusWord[category] |= kTraceDebugEnabled | kTraceEnabled;
    return kNoError;
}

eErrorT CmDebgCategoryDisable(gRtCategoryT category) {
    if (!IsCategory(category)) {
        syslogf(kLogError, SYS_TERM_NULL, 0, "CmDebgCategoryDisable:  category %d out of bounds\n",
                static_cast<int>(category));
        return kBadParameter;
    }
    gRtCategoryStatusWord[category] &= static_cast<UInt8>(~kTraceDebugEnabled);
    return kNoError;
}

int CmDebgCategoryAndLevelBlock(int pri, gRtCategoryT rtCategory) {
    if (!IsCategory(rtCategory) || (Status(rtCategory) & kTraceEnabled) == 0) {
        return 1;
    }
    if (pri == kLogDebug && (Status(rtCategory) & kTraceDebugEnabled) == 0) {
        return 1;
    }
    return (Status(GetProcessorNum()) & kTraceProcessorTraces) == 0 ? 1 : 0;
}

void CmDebgSetDefaultSettings() {
    // Each byte is stored once and complete: other tasks may be looking.
    UInt8 status[192] = {};
    for (UInt32 i = 0; i < CM_DEBG_NUM_CATEGORIES; i++) {
        status[i] = kTraceEnabled | kTraceProcessorTraces;
    }
    for (const gRtCategoryT category : gCmDebgDefaultDebugEnabledCategories) {
        status[category] |= kTraceDebugEnabled;
    }
    status[CM_DEBG_VARIABLE_WORD_WRAP] = 255;
    status[CM_DEBG_FILTER_END_SENTINEL] = 255;
    for (UInt32 i = 0; i < sizeof(status); i++) {
        gRtCategoryStatusWord[i] = status[i];
    }
    CmDebgRebuildHeaderFormatString();
    puts("Trace set to default settings.");
}

void CmDebgRebuildHeaderFormatString() {
    gRtTraceHeaderOffset = 0;
    gRtTraceIndentOffset = 0;
    gRtTraceHeaderFormatString[0] = '\0';
    for (const HeaderFieldT& field : kHeaderFields) {
        if ((Status(static_cast<UInt32>(field.status_byte)) & kTraceFieldShown) == 0) {
            strcat(gRtTraceHeaderFormatString, "%s");
            continue;
        }
        strcat(gRtTraceHeaderFormatString, field.conversion);
        gRtTraceHeaderOffset += field.width;
        gRtTraceIndentOffset += field.width;
    }
}

void CmDebgMakeHeaderTimestamp(char* time_str) {
    const time_t now = time(nullptr);
    tm utc;
    gmtime_r(&now, &utc);
    const size_t used = strftime(time_str, 10, "%H.%M.%S.", &utc);
    snprintf(time_str + used, 4, "%03u", RealTimeMilliSeconds() % 1000);
}

void CmDebgCheckTime(char* time_str) {
    time_str[0] = '\0';
    if ((Status(0) & kTraceFieldShown) != 0) {
        CmDebgMakeHeaderTimestamp(time_str);
    }
}

gRtCategoryT CmDebgCategoryFromStrings(const char* comp, const char* mod, const char* submod) {
    UInt32 found = NULL_NULL_NULL;
    if (comp == nullptr || mod == nullptr || submod == nullptr) {
        return NULL_NULL_NULL;
    }
    char name[kNameWidth + 1];
    snprintf(name, sizeof(name), "%-5.5s%-5.5s%-4.4s", comp, mod, submod);
    for (UInt32 i = 0; i < CM_DEBG_NUM_CATEGORIES; i++) {
        OsAssert(gRtCategoryLut[i].value == static_cast<SInt32>(i));
        if (strcmp(gRtCategoryLut[i].name, name) == 0) {
            found = i;
        }
    }
    return static_cast<gRtCategoryT>(found);
}

const char* LutGetString(const LutT* Lut, SInt32 searchValue) {
    for (; Lut != nullptr && Lut->name != nullptr; Lut++) {
        if (Lut->value == searchValue) {
            return Lut->name;
        }
    }
    return nullptr;
}

SInt32 LutGetValue(const LutT* Lut, char* searchString) {
    if (searchString == nullptr) {
        return -1;
    }
    for (size_t end = strlen(searchString); end > 0 && searchString[end - 1] == ' '; end--) {
        searchString[end - 1] = '\0';
    }
    for (; Lut != nullptr && Lut->name != nullptr; Lut++) {
        if (strcasecmp(Lut->name, searchString) == 0) {
            return Lut->value;
        }
    }
    return -1;
}

int CmDebgHexToBinCopy(const char* hexBuf, UInt8* binBuf, int length) {
    for (int i = 0; i + 1 < length; i += 2) {
        for (int k = i; k < i + 2; k++) {
            if (DigitValue(hexBuf[k]) < 0) {
                return static_cast<UInt8>(hexBuf[k]);
            }
        }
        binBuf[i / 2] = static_cast<UInt8>(DigitValue(hexBuf[i]) << 4 | DigitValue(hexBuf[i + 1]));
    }
    return 0;
}

int CmDebgBinToHexCopy(const UInt8* binBuf, char* hexBuf, int length) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    for (int i = 0; i < length; i++) {
        *hexBuf++ = kDigits[binBuf[i] >> 4];
        *hexBuf++ = kDigits[binBuf[i] & 0x0F];
    }
    return 0;
}

eErrorT CmDebgRtCategoryStatusWordRead() {
    return kBadParameter;
}

eErrorT CmDebgRtCategoryStatusWordWrite() {
    return kBadParameter;
}

eErrorT CmDebgRtCategoryStatusWordInit() {
    if (GetProcessorNum() == 0 && gRtTraceSyslogEchoAtStartup == 1) {
        gRtTraceSyslogEcho = 1;
    }
    return kNoError;
}

void CmDebgFlagSpewCheck(const char*) {}
