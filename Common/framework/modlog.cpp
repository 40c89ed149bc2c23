// Log lines of modules and the filters that let them through.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "Common/OS/linux/mutexguard.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
#include "Common/framework/sharedfield.h"

char traceFilters[kModNumTraceFilters][kModTraceFilterLen];
std::atomic<int> NumTraceFilters{0};

namespace {

constexpr size_t kLabelSize = 128;    // owner and module, each a name and an instance
constexpr size_t kFormatSize = 1024;  // a label, its per cent signs doubled, and a format

pthread_mutex_t gFilterMutex = PTHREAD_MUTEX_INITIALIZER;

// The index of the filter that equals a name; an empty name finds a free one. -1 if there is none.
// gFilterMutex is held.
int FindFilter(const char* pName) {
    for (int i = 0; i < kModNumTraceFilters; i++) {
        if (strncasecmp(traceFilters[i], pName, kModTraceFilterLen) == 0) {
            return i;
        }
    }
    return -1;
}

bool LetThrough(const ModT* pMod) {
    if (pMod == nullptr || pMod->initializedSig != kModSignature) {
        return false;
    }
    if (NumTraceFilters == 0) {
        return true;
    }
    const MutexGuardT guard(&gFilterMutex);
    return pMod->name[0] != '\0' && FindFilter(pMod->name) >= 0;
}

void MakeLabel(const ModT* pMod, char* label) {
    const ModT* owner = FieldRead(pMod->pOwner);
    if ((FieldRead(pMod->flags) & kModFlagLogOwner) != 0 && owner != nullptr) {
        snprintf(label, kLabelSize, "%s[%d].%s[%d]", owner->name, owner->instance, pMod->name,
                 pMod->instance);
    } else {
        snprintf(label, kLabelSize, "%s[%d]", pMod->name, pMod->instance);
    }
}

// Writes "label: format" with the label's per cent signs doubled. False when it does not fit.
bool MakeFormat(const char* label, const char* format, char* combined) {
    size_t at = 0;
    for (; *label != '\0'; label++) {
        if (*label == '%') {
            combined[at++] = '%';
        }
        combined[at++] = *label;
    }
    const int length = snprintf(combined + at, kFormatSize - at, ": %s", format);
    return static_cast<size_t>(length) < kFormatSize - at;
}

}  // namespace

void ModLog(ModT* pMod, LogLevelT level, const char* format, ...) {
    ModAssert(format);
    if (!LetThrough(pMod)) {
        return;
    }
    char label[kLabelSize];
    char combined[kFormatSize];
    MakeLabel(pMod, label);
    va_list args;
    va_start(args, format);
    va_logmsg(args, level, nullptr, MakeFormat(label, format, combined) ? combined : format);
    va_end(args);
}

void ModTrace(ModT* pMod, const char* format, ...) {
    ModAssert(format);
    if (!LetThrough(pMod)) {
        return;
    }
    char label[kLabelSize];
    MakeLabel(pMod, label);
    va_list args;
    va_start(args, format);
    va_logmsg(args, kLogDebug, label, format);
    va_end(args);
}

eErrorT ModTraceFilterAdd(const char* pName) {
    ModAssert(pName);
    if (*pName == '\0') {
        return kBadParameter;
    }
    {
        const MutexGuardT guard(&gFilterMutex);
        const int index = FindFilter("");
        if (index >= 0) {
            memcpy(traceFilters[index], pName, strnlen(pName, kModTraceFilterLen));
            NumTraceFilters++;
            return kNoError;
        }
    }
    logwarn("MOD", "can't add trace, out of filter entries\n");
    return kOutOfMemory;
}

eErrorT ModTraceFilterDelete(const char* pName) {
    ModAssert(pName);
    {
        const MutexGuardT guard(&gFilterMutex);
        if (strcmp(pName, "*") == 0) {
            memset(traceFilters, 0, sizeof(traceFilters));
            NumTraceFilters = 0;
            return kNoError;
        }
        const int index = *pName != '\0' ? FindFilter(pName) : -1;
        if (index >= 0) {
            memset(traceFilters[index], 0, sizeof(traceFilters[index]));
            NumTraceFilters--;
            return kNoError;
        }
    }
    logwarn("MOD", "can't delete trace filter, name not found\n");
    return kBadParameter;
}

char* strEndCopy(char* dest, const char* src, int destSize) {
    ModAssert(dest);
    ModAssert(src);
    ModAssert(destSize > 0);
    const size_t room = static_cast<size_t>(destSize) - 1;
    const size_t length = strlen(src);
    const size_t count = length < room ? length : room;
    memmove(dest, src + (length - count), count);
    dest[count] = '\0';
    return dest;
}
