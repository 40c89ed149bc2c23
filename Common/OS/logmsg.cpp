// Lines are assembled under logmsgmutex and judged by the filters without it. The filter tables
// have a short lock of their own, taken only while there are filters. See logmsg.h.
#include "Common/OS/logmsg.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/system.h"
#include "Common/OS/syslogq.h"

std::atomic<int> gConfigLoaded{0};

namespace {

constexpr size_t kFormatSize = 1024;  // header and message of one call

const char* const gLogMsgLevelStr[] = {"CRIT  ", "CRIT  ", "CRIT  ", "ERROR ",
                                       "WARN  ", "INFO  ", "INFO  ", "DEBUG "};

// Under logmsgmutex.
char gCurLine[kLogLineSize];   // the line being assembled
char gLastLine[kLogLineSize];  // the line completed last
int gSpewCount;                // lines held back since the last one let through

std::atomic<int> gSpewFilter{0};
std::atomic<int> gLogFormat{kLogFormatProc};
std::atomic<int> gEchoToSyslog{0};
std::atomic<const LogConfigT*> gConfig{nullptr};

typedef char FilterSlotsT[kLogFilterCount][kLogFilterSize];
pthread_mutex_t gFilterMutex = PTHREAD_MUTEX_INITIALIZER;  // guards the slots; no calls under it
FilterSlotsT gShowFilters;                                 // an empty slot is an empty string
FilterSlotsT gCullFilters;
std::atomic<int> gNumShowFilters{0};  // written under gFilterMutex
std::atomic<int> gNumCullFilters{0};

// Written only; see "Names that nothing here reads" in docs/log.md.
std::atomic<int> gLastLineWasFiltered{0};
std::atomic<int> gShowFiltersLoaded{0};  // 1 once read from the configuration
std::atomic<int> gCullFiltersLoaded{0};

struct FilterTableT {
    const char* kind;
    const char* variable;
    FilterSlotsT& slots;
    std::atomic<int>& count;
    std::atomic<int>& loaded;
};
constexpr FilterTableT kShow = {"show", "showfilter", gShowFilters, gNumShowFilters,
                                gShowFiltersLoaded};
constexpr FilterTableT kCull = {"cull", "cullfilter", gCullFilters, gNumCullFilters,
                                gCullFiltersLoaded};

struct KeywordT {
    int bit;
    const char* word;
};
constexpr KeywordT kFormatKeywords[] = {{kLogFormatDate, "date"},
                                        {kLogFormatTime, "time"},
                                        {kLogFormatLevel, "level"},
                                        {kLogFormatProc, "proc"}};

// ---- the configuration, as far as there is one ----

// The registered configuration; null also on processors that keep no settings.
const LogConfigT* Config() {
    return GetProcessorNum() == 0 ? gConfig.load() : nullptr;
}

bool ReadConfig(const LogConfigT* config, const char* name, int instance, char* value) {
    value[0] = '\0';
    const eErrorT err = config->read(name, instance, value);
    value[kLogConfigValueSize - 1] = '\0';
    return err == kNoError;
}

int WriteConfig(const char* name, int instance, const char* value) {
    const LogConfigT* config = Config();
    return config == nullptr || config->write(name, instance, value) == kNoError ? 0 : -1;
}

// ---- filter tables ----

int AddFilter(const FilterTableT& table, const char* filter) {
    if (filter == nullptr || filter[0] == '\0') {
        return -1;
    }
    {
        MutexGuardT guard(&gFilterMutex);
        for (auto& slot : table.slots) {
            if (slot[0] == '\0') {
                const size_t length = strnlen(filter, kLogFilterSize - 1);
                memcpy(slot, filter, length);
                slot[length] = '\0';
                table.count++;
                return 0;
            }
        }
    }
    printf("\"%s\" %s filter not added, table full\n", filter, table.kind);
    return -1;
}

int DeleteFilter(const FilterTableT& table, const char* filter) {
    const char* wanted = filter != nullptr ? filter : "";
    const bool all = strcmp(wanted, "*") == 0;
    {
        MutexGuardT guard(&gFilterMutex);
        for (auto& slot : table.slots) {
            if (slot[0] == '\0' || (!all && strncasecmp(slot, wanted, kLogFilterSize - 1) != 0)) {
                continue;
            }
            slot[0] = '\0';
            table.count--;
            if (!all) {
                return 0;
            }
        }
    }
    if (!all) {
        printf("\"%s\" %s filter not found\n", wanted, table.kind);
    }
    return 0;
}

// Copies one slot, so that it can be printed or stored without the lock.
void CopySlot(const FilterTableT& table, int index, char* out) {
    MutexGuardT guard(&gFilterMutex);
    memcpy(out, table.slots[index], kLogFilterSize);
}

int DumpFilters(const FilterTableT& table) {
    char filter[kLogFilterSize];
    printf("%s filters:\n", table.kind);
    for (int i = 0; i < kLogFilterCount; i++) {
        CopySlot(table, i, filter);
        if (filter[0] != '\0') {
            printf("  \"%s\"\n", filter);
        }
    }
    return 0;
}

int LoadFilters(const FilterTableT& table) {
    const LogConfigT* config = Config();
    if (config == nullptr) {
        return 0;
    }
    table.loaded = 1;
    int added = 0;
    for (int i = 0; i < kLogFilterCount; i++) {
        char value[kLogConfigValueSize];
        ReadConfig(config, table.variable, i, value);
        if (value[0] != '\0' && AddFilter(table, value) == 0) {
            added++;
        }
    }
    return added;
}

int SaveFilters(const FilterTableT& table) {
    char filter[kLogFilterSize];
    int result = 0;
    for (int i = 0; i < kLogFilterCount; i++) {
        CopySlot(table, i, filter);
        if (WriteConfig(table.variable, i, filter) != 0) {
            result = -1;
        }
    }
    return result;
}

// Whether the first `length` characters contain one of the filters; `if_empty` when there is none.
bool Matches(const FilterTableT& table, const char* line, size_t length, bool if_empty) {
    if (table.count == 0) {
        return if_empty;
    }
    MutexGuardT guard(&gFilterMutex);
    if (table.count == 0) {
        return if_empty;
    }
    for (const auto& slot : table.slots) {
        if (slot[0] != '\0' && memmem(line, length, slot, strlen(slot)) != nullptr) {
            return true;
        }
    }
    return false;
}

// Whether the filters let a line of at most `len` characters through.
bool Passes(const char* line, int len) {
    const size_t length = strnlen(line, static_cast<size_t>(len));
    const bool passes = Matches(kShow, line, length, true) && !Matches(kCull, line, length, false);
    gLastLineWasFiltered = passes ? 0 : 1;
    return passes;
}

void LoadSettings() {
    if (logmsg_showfilter_load() > 0) {
        logmsg_showfilter_dump();
    }
    if (logmsg_cullfilter_load() > 0) {
        logmsg_cullfilter_dump();
    }
    logmsg_format_load();
}

// ---- assembling lines ----

// Appends up to `length` characters of `text` at `used`, as far as `size` allows with the NUL.
// Returns the new length.
size_t Append(char* out, size_t used, size_t size, const char* text, size_t length) {
    const size_t fits = length < size - 1 - used ? length : size - 1 - used;
    memcpy(out + used, text, fits);
    out[used + fits] = '\0';
    return used + fits;
}

size_t Append(char* out, size_t used, size_t size, const char* text) {
    return Append(out, used, size, text, strlen(text));
}

// Appends a number as printf's %x would; every line has one, and printf is slow. There is room.
size_t AppendHex(char* out, size_t used, UInt32 number) {
    int shift = 28;
    while (shift > 0 && number >> shift == 0) {
        shift -= 4;
    }
    for (; shift >= 0; shift -= 4) {
        out[used++] = "0123456789abcdef"[number >> shift & 0xF];
    }
    return used;
}

// Writes level, processor and component. Returns the header's length.
size_t WriteHeader(char* out, int level, const char* component) {
    const int row = level < 0 ? 0 : level > kLogDebug ? kLogDebug : level;
    size_t used = Append(out, 0, kFormatSize, gLogMsgLevelStr[row]);
    used = Append(out, used, kFormatSize, "pc[", 3);
    used = AppendHex(out, used, GetProcessorNum());
    used = Append(out, used, kFormatSize, "]: ", 3);
    if (component != nullptr) {
        used = Append(out, used, kFormatSize, component);
        used = Append(out, used, kFormatSize, ": ", 2);
    }
    return used;
}

// The line that tells how often the last one came; the printed occurrence counts.
int RepeatLine(char* out, int held_back) {
    const size_t header = WriteHeader(out, kLogDebug, nullptr);
    return static_cast<int>(header) + snprintf(out + header, kLogLineSize - header,
                                               "...last line repeated %d times\n", held_back + 1);
}

// Adds a call's text, of which `header` characters are the header, to the current line. When that
// completes a line which is to be printed, moves it into `text` and returns its length; else 0.
// What became of the repeat filter's report is left in *repeat, for syslogFinish.
int AssembleLine(char* text, size_t header, LogPutT* repeat) {
    const bool ends = strchr(text, '\n') != nullptr;
    CancellableMutexGuardT guard(&logmsgmutex);
    size_t used = strlen(gCurLine);
    used = Append(gCurLine, used, kLogLineSize, used == 0 ? text : text + header);
    if (!ends) {
        return 0;
    }
    memcpy(text, gCurLine, used + 1);
    gCurLine[0] = '\0';
    int held_back = 0;
    if (gSpewFilter != 0) {
        if (strcmp(gLastLine, text) == 0) {
            gSpewCount++;
            return 0;
        }
        held_back = gSpewCount;
        gSpewCount = 0;
    }
    memcpy(gLastLine, text, used + 1);
    if (held_back > 0) {
        // With the lock held, so that no other task's line comes between. The state is complete
        // before: the task may be deleted in here. The configuration is left alone in here, it may
        // be held by a task that waits for this lock.
        char line[kLogLineSize];
        const int length = RepeatLine(line, held_back);
        if (Passes(line, length)) {
            *repeat = syslogPut(line, length);
        }
    }
    return static_cast<int>(used);
}

}  // namespace

int va_logmsg(std::va_list ap, int level, const char* component, const char* fmt) {
    if (fmt == nullptr) {
        return 0;
    }
    char text[kFormatSize];
    const size_t header = WriteHeader(text, level, component);
    int formatted = vsnprintf(text + header, kFormatSize - header, fmt, ap);
    if (formatted < 0) {
        text[header] = '\0';
        formatted = 0;
    }
    if (syslogInOwnCalls()) {
        if (write(STDERR_FILENO, text, strlen(text)) < 0) {
            formatted = 0;
        }
        return static_cast<int>(header) + formatted;
    }
    LogPutT repeat = {};
    const int length = AssembleLine(text, header, &repeat);
    syslogFinish(repeat);
    logmsg_print(text, length);
    return static_cast<int>(header) + formatted;
}

int logmsg_print(const char* msg, int len) {
    if (msg == nullptr || msg[0] == '\0' || len <= 0) {
        return 0;
    }
    if (gConfigLoaded == 0 && Config() != nullptr && gConfigLoaded.exchange(1) == 0) {
        LoadSettings();
    }
    if (!Passes(msg, len)) {
        return 0;
    }
    syslogAdd(msg, len);
    return len;
}

#define LOG_FORWARD(level, component)                            \
    std::va_list ap;                                             \
    va_start(ap, fmt);                                           \
    const int result = va_logmsg(ap, (level), (component), fmt); \
    va_end(ap);                                                  \
    return result

int logcrit(const char* component, const char* fmt, ...) {
    LOG_FORWARD(kLogEmergency, component);
}

int logerr(const char* component, const char* fmt, ...) {
    LOG_FORWARD(kLogError, component);
}

int logwarn(const char* component, const char* fmt, ...) {
    LOG_FORWARD(kLogWarning, component);
}

int loginfo(const char* component, const char* fmt, ...) {
    LOG_FORWARD(kLogInfo, component);
}

int logdebug(const char* component, const char* fmt, ...) {
    LOG_FORWARD(kLogDebug, component);
}

int logmsg(int level, const char* component, const char* fmt, ...) {
    LOG_FORWARD(level, component);
}

int cm_syslog(int pri, const char* fmt, ...) {
    LOG_FORWARD(pri, nullptr);
}

#undef LOG_FORWARD

void logmsg_set_config(const LogConfigT* config) {
    gConfig = config;
}

int logmsg_set_syslog_echo(int on) {
    gEchoToSyslog = on != 0 ? 1 : 0;
    return 0;
}

int logmsg_get_syslog_echo() {
    return gEchoToSyslog;
}

int logmsg_set_format(int format) {
    gLogFormat = format;
    return 0;
}

int logmsg_get_format() {
    return gLogFormat;
}

int logmsg_set_spewfilter(int on) {
    gSpewFilter = on != 0 ? 1 : 0;
    WriteConfig("spewfilter", 0, on != 0 ? "True" : "False");
    return 0;
}

int logmsg_get_spewfilter() {
    return gSpewFilter;
}

int logmsg_showfilter_add(const char* filter) {
    return AddFilter(kShow, filter);
}

int logmsg_showfilter_delete(const char* filter) {
    return DeleteFilter(kShow, filter);
}

int logmsg_showfilter_dump() {
    return DumpFilters(kShow);
}

int logmsg_showfilter_load() {
    return LoadFilters(kShow);
}

int logmsg_showfilter_save() {
    return SaveFilters(kShow);
}

int logmsg_cullfilter_add(const char* filter) {
    return AddFilter(kCull, filter);
}

int logmsg_cullfilter_delete(const char* filter) {
    return DeleteFilter(kCull, filter);
}

int logmsg_cullfilter_dump() {
    return DumpFilters(kCull);
}

int logmsg_cullfilter_load() {
    return LoadFilters(kCull);
}

int logmsg_cullfilter_save() {
    return SaveFilters(kCull);
}

int logmsg_format_string(int format, char* out) {
    size_t used = 0;
    out[0] = '\0';
    for (const KeywordT& keyword : kFormatKeywords) {
        if ((format & keyword.bit) != 0) {
            used = Append(out, used, kLogFormatTextSize, keyword.word);
            used = Append(out, used, kLogFormatTextSize, " ", 1);
        }
    }
    return static_cast<int>(used);
}

int logmsg_format_save() {
    char text[kLogFormatTextSize];
    logmsg_format_string(logmsg_get_format(), text);
    return WriteConfig("logformat", 0, text);
}

int logmsg_format_load() {
    const LogConfigT* config = Config();
    if (config == nullptr) {
        return 0;
    }
    char value[kLogConfigValueSize];
    ReadConfig(config, "logformat", 0, value);
    int format = 0;
    char* rest = nullptr;
    for (char* word = strtok_r(value, " ", &rest); word != nullptr;
         word = strtok_r(nullptr, " ", &rest)) {
        for (const KeywordT& keyword : kFormatKeywords) {
            if (strcmp(word, keyword.word) == 0) {
                format |= keyword.bit;
            }
        }
    }
    return logmsg_set_format(format);
}

int logmsg_format_dump() {
    char text[kLogFormatTextSize];
    logmsg_format_string(logmsg_get_format(), text);
    printf("%s\n", text);
    return 0;
}

int logmsg_spewfilter_load() {
    const LogConfigT* config = Config();
    char value[kLogConfigValueSize];
    if (config != nullptr && ReadConfig(config, "spewfilter", 0, value)) {
        gSpewFilter = strcasecmp(value, "True") == 0 ? 1 : 0;
    }
    return 0;
}
