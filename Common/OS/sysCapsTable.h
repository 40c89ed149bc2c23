// What this unit can do: named values in sections, each with the printf format that shows it. Which
// rows there are is the product's business: it registers a builder of the table and a table of call
// rates; without them there are no rows. Any thread may call once the product is registered; calls
// block as the configuration does where they read it.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/linux/system.h"
#include "Common/OS/types.h"

typedef enum : UInt32 {
    eSysCapVideo = 0,
    eSysCapAudio = 1,
    eSysCapComm = 2,
    eSysCapHardware = 3,
    eSysCapSystem = 4,
    eSysCapNumSections = 5
} eSysCapSectionT;

// The names of the sections; the system section is shown as "system".
extern const char* const sectionName[eSysCapNumSections];

// Bytes of a formatted value, its end included.
constexpr int kSysCapValueSize = 80;

// The format of rows whose value is the address of a float.
constexpr char kSysCapFloatFormat[] = " %f ";

// One row. A section's rows end with one whose name is null.
typedef struct sysCapsS {
    const char* keyName;
    void* val;              // passed to `fmt` as it is (a text, or an integer in the pointer's
                            // place), but for floats
    unsigned int instance;  // tells rows of one name apart
    const char* fmt;
} sysCapsT;

// Receives each row of a dump.
typedef void (*SysCapDumpFuncT)(const char* section, const char* keyName, unsigned int instance,
                                const char* formattedVal);

// What a product provides. Tables stay its own and must last.
typedef struct SysCapsProductS {
    // The five sections' rows for a type of board; null for none. Tasks that ask for the first time
    // together may each call it.
    sysCapsT** (*build)(hwTypeT hwType);
    // The rows to set for a rate; null when there are none.
    const sysCapsT* (*rateCaps)(hwTypeT hwType, int maxRate, Boolean asymmetricVideo,
                                Boolean encryptionEnabled);
} SysCapsProductT;

// The table, five sections; null until it is built, and while the product has none.
extern std::atomic<sysCapsT**> pSystemCapsTbl;

// The maximum call rate of the rates last set.
extern std::atomic<int> crntTableRate;

// Registers the product (null: none) and forgets the table built. Call at start-up.
void sysCapsSetProduct(const SysCapsProductT* product);

// Builds the table. Called by the operations below when there is none.
void initSysCapsTbl(hwTypeT hwType);

// The product's rows for a rate; null when there are none.
const sysCapsT* getRateCaps(hwTypeT hwType, int maxRate, Boolean asymmetricVideo,
                            Boolean encryptionEnabled);

// The first row of that name (exactly) and instance; null when there is none, or no table.
sysCapsT* lookupCapability(const char* keyName, unsigned int instance, sysCapsT* table);

// Stores a value, which stays the caller's. kNoError; kFuncReturnedError for a section above 4 or
// an unknown row.
eErrorT setCapability(UInt32 section, const char* keyName, unsigned int instance, void* pVal);

// The row's value, formatted into `formattedVal` (kSysCapValueSize bytes) unless that is null; null
// for a section above 4 or an unknown row.
void* getCapability(UInt32 section, const char* keyName, unsigned int instance, char* formattedVal);

// Gives each row of a section (above 4: of all sections) to `dumpFunc`, or prints it to standard
// output when that is null.
void dumpCapabilities(SysCapDumpFuncT dumpFunc, UInt32 section);

// Sets the call capabilities for the board and the configured security. 1 when it did; 0, with
// nothing changed, when the environment does not name the board (CORVANE_BOARDID) or the product
// has no rows for the rate.
Boolean setRateCapabilities(Boolean asymmetricVideo, Boolean encryptionEnabled);
