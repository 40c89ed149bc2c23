// Trace categories: the category-aware entry to the log, a status byte per category, the layout of
// the trace header, and the name tables that the trace commands show and search.
//
// Messages go to the log whatever the category's state: the state is kept for the trace commands.
// Any thread may log here and change a category; the header layout and the defaults are for one
// task at a time, the one that runs the trace commands. Nothing blocks but as a log call does.
#pragma once

#include <atomic>
#include <cstdarg>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"

// X(component, module, submodule, description): NULL for an absent level, null for no description.
// The position in the table is the category's number.
// clang-format off
#define TRACE_CATEGORY_TABLE(X)                                                                   \
    X(NULL, NULL, NULL, "Uncategorized output")                                                   \
    X(SYS, NULL, NULL, nullptr)                                                                   \
    X(SYS, BOOT, NULL, nullptr)                                                                   \
    X(SYS, TERM, NULL, "Trace directed message response output")                                  \
    X(SYS, TERM, CMD, "Debugging for subsystem command messages")                                 \
    X(SYS, OS, NULL, "Debug related to OS")                                                       \
    X(SYS, NOTF, NULL, "System NOTIFY messages")                                                  \
    X(AUD, NULL, NULL, nullptr)                                                                   \
    X(AUD, G711, NULL, nullptr)                                                                   \
    X(AUD, G711, ENC, nullptr)                                                                    \
    X(AUD, G711, DEC, nullptr)                                                                    \
    X(AUD, G722, NULL, nullptr)                                                                   \
    X(AUD, G723, NULL, nullptr)                                                                   \
    X(AUD, 7221, NULL, nullptr)                                                                   \
    X(AUD, G728, NULL, nullptr)                                                                   \
    X(AUD, G729, NULL, nullptr)                                                                   \
    X(AUD, Q14, NULL, nullptr)                                                                    \
    X(AUD, ZZ14, NULL, nullptr)                                                                   \
    X(AUD, NOTF, NULL, nullptr)                                                                   \
    X(VID, NULL, NULL, nullptr)                                                                   \
    X(VID, H261, NULL, nullptr)                                                                   \
    X(VID, H261, ENC, nullptr)                                                                    \
    X(VID, H261, DEC, nullptr)                                                                    \
    X(VID, H263, NULL, nullptr)                                                                   \
    X(VID, H264, NULL, nullptr)                                                                   \
    X(VID, NOTF, NULL, nullptr)                                                                   \
    X(COMM, NULL, NULL, nullptr)                                                                  \
    X(COMM, FRMW, NULL, nullptr)                                                                  \
    X(COMM, FRMW, CHAN, nullptr)                                                                  \
    X(COMM, CALL, NULL, nullptr)                                                                  \
    X(COMM, CONN, NULL, nullptr)                                                                  \
    X(COMM, CAPS, NULL, nullptr)                                                                  \
    X(COMM, CAPS, MAN, nullptr)                                                                   \
    X(COMM, CONF, NULL, nullptr)                                                                  \
    X(COMM, CONF, CONN, nullptr)                                                                  \
    X(COMM, CONF, RATE, nullptr)                                                                  \
    X(COMM, CONF, TERM, nullptr)                                                                  \
    X(COMM, CONF, CAPS, nullptr)                                                                  \
    X(COMM, CONF, MP, nullptr)                                                                    \
    X(COMM, CONF, MPR, nullptr)                                                                   \
    X(COMM, CONF, CONT, nullptr)                                                                  \
    X(COMM, CONF, CCTL, nullptr)                                                                  \
    X(COMM, CONF, MSG, nullptr)                                                                   \
    X(COMM, H320, NULL, nullptr)                                                                  \
    X(COMM, H320, AGGC, nullptr)                                                                  \
    X(COMM, H320, BOND, nullptr)                                                                  \
    X(COMM, H320, CONN, nullptr)                                                                  \
    X(COMM, H320, CALL, nullptr)                                                                  \
    X(COMM, H320, PVRX, nullptr)                                                                  \
    X(COMM, H320, PVTX, nullptr)                                                                  \
    X(COMM, H320, CVRX, nullptr)                                                                  \
    X(COMM, H320, CVTX, nullptr)                                                                  \
    X(COMM, H320, ARX, nullptr)                                                                   \
    X(COMM, H320, ATX, nullptr)                                                                   \
    X(COMM, H320, FCTX, nullptr)                                                                  \
    X(COMM, H320, FCRX, nullptr)                                                                  \
    X(COMM, H320, BMXC, nullptr)                                                                  \
    X(COMM, H320, CRYP, nullptr)                                                                  \
    X(COMM, H320, TASK, nullptr)                                                                  \
    X(COMM, H320, MUXC, nullptr)                                                                  \
    X(COMM, H320, FSTM, nullptr)                                                                  \
    X(COMM, H320, STCK, nullptr)                                                                  \
    X(COMM, H320, H242, nullptr)                                                                  \
    X(COMM, H320, BASQ, nullptr)                                                                  \
    X(COMM, H320, BASP, nullptr)                                                                  \
    X(COMM, H320, CAPD, nullptr)                                                                  \
    X(COMM, H320, CAPX, nullptr)                                                                  \
    X(COMM, H320, CAPF, nullptr)                                                                  \
    X(COMM, H320, TXBS, nullptr)                                                                  \
    X(COMM, H320, RXBS, nullptr)                                                                  \
    X(COMM, H320, TXBC, nullptr)                                                                  \
    X(COMM, H320, TXBM, nullptr)                                                                  \
    X(COMM, H320, RXBM, nullptr)                                                                  \
    X(COMM, H221, NULL, nullptr)                                                                  \
    X(COMM, H221, MUX, nullptr)                                                                   \
    X(COMM, H221, DMUX, nullptr)                                                                  \
    X(COMM, H221, MLP, nullptr)                                                                   \
    X(COMM, H221, LSD, nullptr)                                                                   \
    X(COMM, H323, NULL, nullptr)                                                                  \
    X(COMM, H323, CONN, nullptr)                                                                  \
    X(COMM, H323, CALL, nullptr)                                                                  \
    X(COMM, H323, H245, nullptr)                                                                  \
    X(COMM, H323, GK, nullptr)                                                                    \
    X(COMM, H323, TPKT, nullptr)                                                                  \
    X(COMM, H323, CM, nullptr)                                                                    \
    X(COMM, H323, CMAP, nullptr)                                                                  \
    X(COMM, H323, CMER, nullptr)                                                                  \
    X(COMM, H323, CONF, nullptr)                                                                  \
    X(COMM, H323, CMCB, nullptr)                                                                  \
    X(COMM, H323, APPL, nullptr)                                                                  \
    X(COMM, FECC, NULL, nullptr)                                                                  \
    X(COMM, FECC, MSG, nullptr)                                                                   \
    X(COMM, ISDN, NULL, nullptr)                                                                  \
    X(COMM, ISDN, CALL, nullptr)                                                                  \
    X(COMM, ISDN, BCHN, nullptr)                                                                  \
    X(COMM, ISDN, BRIN, nullptr)                                                                  \
    X(COMM, ISDN, PRIN, nullptr)                                                                  \
    X(COMM, ISDN, NIC, nullptr)                                                                   \
    X(COMM, ISDN, TSFT, nullptr)                                                                  \
    X(COMM, BOND, NULL, nullptr)                                                                  \
    X(COMM, BOND, CALL, nullptr)                                                                  \
    X(COMM, V35, NULL, nullptr)                                                                   \
    X(COMM, V35, CALL, nullptr)                                                                   \
    X(COMM, V35, NIC, nullptr)                                                                    \
    X(COMM, XLNK, NULL, nullptr)                                                                  \
    X(COMM, XLNK, CTRL, nullptr)                                                                  \
    X(COMM, SIP, NULL, nullptr)                                                                   \
    X(COMM, SIP, CONN, nullptr)                                                                   \
    X(COMM, SIP, CALL, nullptr)                                                                   \
    X(COMM, SIP, AUTH, nullptr)                                                                   \
    X(COMM, SIP, MSG, nullptr)                                                                    \
    X(COMM, SIP, MEM, nullptr)                                                                    \
    X(COMM, SIP, SDP, nullptr)                                                                    \
    X(COMM, SIP, BDDY, nullptr)                                                                   \
    X(COMM, SIP, NIC, nullptr)                                                                    \
    X(COMM, SIP, REG, nullptr)                                                                    \
    X(COMM, SIP, PROX, nullptr)                                                                   \
    X(COMM, NOTF, NULL, nullptr)                                                                  \
    X(UI, NULL, NULL, nullptr)                                                                    \
    X(UI, JVM, NULL, nullptr)                                                                     \
    X(UI, NOTF, NULL, "UI NOTIFY messages")                                                       \
    X(WEB, NULL, NULL, nullptr)                                                                   \
    X(WEB, NOTF, NULL, "Web NOTIFY messages")
// clang-format on

typedef enum gRtCategoryS : UInt32 {
#define TRACE_CATEGORY_ENUM(component, module, submodule, description) \
    component##_##module##_##submodule,
    TRACE_CATEGORY_TABLE(TRACE_CATEGORY_ENUM)
#undef TRACE_CATEGORY_ENUM
        CM_DEBG_NUM_CATEGORIES,
    CM_DEBG_VARIABLE_WORD_WRAP,   // index of the wrap column in the status table
    CM_DEBG_FILTER_END_SENTINEL,  // index of the sentinel in the status table
} gRtCategoryT;
static_assert(CM_DEBG_NUM_CATEGORIES == 123);

// A row of a name table. A table ends with a row whose name is null; in the small tables below a
// row with an empty name comes before that.
typedef struct LutS {
    const char* name;
    SInt32 value;
    const char* description;  // may be null
} LutT;

extern const LutT gRtCategoryLut[CM_DEBG_NUM_CATEGORIES + 1];  // display names; value = category
extern const LutT gRtExecScripts[];                            // the trace scripts
extern const LutT gRtScriptCmds[];  // script, step, and the step's command as description
extern const LutT gRtGroups[];      // groups of categories
extern const LutT gRtGroupMap[];    // group, and a category in it

extern const char* const syslogf_level_str[8];    // one letter per level
extern const char* const gRtTraceFormatNames[4];  // names of the header's fields
extern const gRtCategoryT gCmDebgDefaultDebugEnabledCategories[28];

// Bits of a category's status byte.
constexpr UInt8 kTraceDebugEnabled = 0x01;     // debug-level output enabled
constexpr UInt8 kTraceEnabled = 0x02;          // category enabled
constexpr UInt8 kTraceFieldShown = 0x04;       // bytes 0 to 2: header field shown
constexpr UInt8 kTraceProcessorTraces = 0x10;  // byte of a processor's number: it traces

// One status byte per category, then the two bytes of the sentinels above.
extern std::atomic<UInt8> gRtCategoryStatusWord[192];

// The trace header: its format, and its width as the two offsets.
extern char gRtTraceHeaderFormatString[40];
extern int gRtTraceHeaderOffset;
extern int gRtTraceIndentOffset;

extern std::atomic<int> gRtTraceSyslogEcho;
extern std::atomic<int> gRtTraceSyslogEchoAtStartup;

// Log a message without a component: syslogf at level `pri` (a value outside 0 to 7 counts as 7),
// category_printf at level debug. Category and id are not used. Return the number of characters
// formatted, header included, or 0 for a null format.
int syslogf(int pri, gRtCategoryT gRtCategory, UInt32 id, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int category_printf(gRtCategoryT rtCategory, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

// Enable a category with its debug output; disable only its debug output. kNoError, or
// kBadParameter for a number above 122, which is logged.
eErrorT CmDebgCategoryEnable(gRtCategoryT category);
eErrorT CmDebgCategoryDisable(gRtCategoryT category);

// 1 when a message of that level and category is to be held back: the category or, for level 7, its
// debug output is not enabled, this processor does not trace, or there is no such category. Else 0.
int CmDebgCategoryAndLevelBlock(int pri, gRtCategoryT rtCategory);

// Puts all categories and the header into the default state and says so on standard output.
void CmDebgSetDefaultSettings();

// Makes the header's format and offsets from the fields shown.
void CmDebgRebuildHeaderFormatString();

// Writes the time of day in UTC as hours.minutes.seconds.milliseconds into `time_str` (at least 16
// bytes); the milliseconds are those of the millisecond clock. CmDebgCheckTime writes an empty text
// when the header does not show the time.
void CmDebgMakeHeaderTimestamp(char* time_str);
void CmDebgCheckTime(char* time_str);

// The category whose display name has these three parts, each cut to its column; the last one, if
// there are several. 0 for a null part or when there is none. The name looked for fills all 14
// columns, so only categories with a submodule of four characters are found.
gRtCategoryT CmDebgCategoryFromStrings(const char* comp, const char* mod, const char* submod);

// The name of the first row with that value, or null.
const char* LutGetString(const LutT* Lut, SInt32 searchValue);

// Removes trailing blanks from `searchString`, in place, and returns the value of the first row
// with that name, ignoring case, or -1.
SInt32 LutGetValue(const LutT* Lut, char* searchString);

// Converts `length` hexadecimal digits (0 to 9, A to F; high digit first; an odd one at the end is
// left out) into `length` / 2 bytes. Returns 0, or the first character that is no such digit; the
// bytes before it are written.
int CmDebgHexToBinCopy(const char* hexBuf, UInt8* binBuf, int length);

// Writes `length` bytes as twice as many upper-case digits, high digit first, without an ending
// NUL. Returns 0.
int CmDebgBinToHexCopy(const UInt8* binBuf, char* hexBuf, int length);

// Keeping the status table is not provided: kBadParameter.
eErrorT CmDebgRtCategoryStatusWordRead();
eErrorT CmDebgRtCategoryStatusWordWrite();

// On processor 0, switches the trace echo on when it is to be on from the start. kNoError.
eErrorT CmDebgRtCategoryStatusWordInit();

// Does nothing.
void CmDebgFlagSpewCheck(const char* fmt);
