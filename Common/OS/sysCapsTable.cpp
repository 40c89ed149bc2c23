// See sysCapsTable.h. Values are replaced while others read them, so they are read and written
// atomically; rows are the product's and do not change.
#include "Common/OS/sysCapsTable.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "Common/OS/assertion.h"
#include "Common/framework/config.h"

const char* const sectionName[eSysCapNumSections] = {"video", "audio", "comm", "hardware",
                                                     "system"};

std::atomic<sysCapsT**> pSystemCapsTbl{nullptr};
std::atomic<int> crntTableRate{0};

namespace {

constexpr int kTamariskRate = 8192;
constexpr int kFullRate = 6144;
constexpr int kSecureRate = 4096;

std::atomic<const SysCapsProductT*> gProduct{nullptr};

// The section's rows, the table built first if need be; null for none.
sysCapsT* SectionTable(UInt32 section) {
    if (pSystemCapsTbl == nullptr) {
        initSysCapsTbl(GetSystemHardwareType());
    }
    sysCapsT** table = pSystemCapsTbl;
    return table != nullptr && section < eSysCapNumSections ? table[section] : nullptr;
}

void* ValueOf(sysCapsT* row) {
    return std::atomic_ref<void*>(row->val).load();
}

void FormatValue(const sysCapsT* row, void* val, char* out) {
    if (strcmp(row->fmt, kSysCapFloatFormat) == 0) {
        const double number = val != nullptr ? *static_cast<const float*>(val) : 0;
        snprintf(out, kSysCapValueSize, kSysCapFloatFormat, number);
    } else {
        snprintf(out, kSysCapValueSize, row->fmt, val);
    }
}

void DumpSection(SysCapDumpFuncT dumpFunc, UInt32 section) {
    sysCapsT* row = SectionTable(section);
    for (; row != nullptr && row->keyName != nullptr; row++) {
        char value[kSysCapValueSize];
        FormatValue(row, ValueOf(row), value);
        if (dumpFunc != nullptr) {
            dumpFunc(sectionName[section], row->keyName, row->instance, value);
        } else {
            printf("Section: %s\tKey: %s\tInstance: %d\tValue: %s\n", sectionName[section],
                   row->keyName, static_cast<int>(row->instance), value);
        }
    }
}

int MaximumRate(const char* board) {
    if (strcasecmp(board, "tamarisk") == 0) {
        return kTamariskRate;
    }
    return ConfigReadBool("securemode", 0) != 0 ? kSecureRate : kFullRate;
}

}  // namespace

void sysCapsSetProduct(const SysCapsProductT* product) {
    gProduct = product;
    pSystemCapsTbl = nullptr;
}

void initSysCapsTbl(hwTypeT hwType) {
    const SysCapsProductT* product = gProduct;
    if (product != nullptr && product->build != nullptr) {
        pSystemCapsTbl = product->build(hwType);
    }
}

const sysCapsT* getRateCaps(hwTypeT hwType, int maxRate, Boolean asymmetricVideo,
                            Boolean encryptionEnabled) {
    const SysCapsProductT* product = gProduct;
    if (product == nullptr || product->rateCaps == nullptr) {
        return nullptr;
    }
    return product->rateCaps(hwType, maxRate, asymmetricVideo, encryptionEnabled);
}

sysCapsT* lookupCapability(const char* keyName, unsigned int instance, sysCapsT* table) {
    OsAssert(keyName);
    for (sysCapsT* row = table; row != nullptr && row->keyName != nullptr; row++) {
        if (row->instance == instance && strcmp(row->keyName, keyName) == 0) {
            return row;
        }
    }
    return nullptr;
}

eErrorT setCapability(UInt32 section, const char* keyName, unsigned int instance, void* pVal) {
    sysCapsT* row = lookupCapability(keyName, instance, SectionTable(section));
    if (row == nullptr) {
        return kFuncReturnedError;
    }
    std::atomic_ref<void*>(row->val).store(pVal);
    return kNoError;
}

void* getCapability(UInt32 section, const char* keyName, unsigned int instance,
                    char* formattedVal) {
    sysCapsT* row = lookupCapability(keyName, instance, SectionTable(section));
    if (row == nullptr) {
        return nullptr;
    }
    void* val = ValueOf(row);
    if (formattedVal != nullptr) {
        FormatValue(row, val, formattedVal);
    }
    return val;
}

void dumpCapabilities(SysCapDumpFuncT dumpFunc, UInt32 section) {
    if (section < eSysCapNumSections) {
        DumpSection(dumpFunc, section);
        return;
    }
    for (UInt32 each = 0; each < eSysCapNumSections; each++) {
        DumpSection(dumpFunc, each);
    }
}

Boolean setRateCapabilities(Boolean asymmetricVideo, Boolean encryptionEnabled) {
    const hwTypeT hwType = GetSystemHardwareType();
    const char* board = getenv("CORVANE_BOARDID");
    if (board == nullptr) {
        return 0;
    }
    const int rate = MaximumRate(board);
    const sysCapsT* row = getRateCaps(hwType, rate, asymmetricVideo, encryptionEnabled);
    if (row == nullptr) {
        return 0;
    }
    for (; row->keyName != nullptr; row++) {
        setCapability(eSysCapComm, row->keyName, row->instance, row->val);
    }
    crntTableRate = rate;
    return 1;
}
