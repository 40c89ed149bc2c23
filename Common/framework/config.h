// Configuration: named text variables, each with an instance number, in a memory cache in front of
// the store (configstore.h). A read takes from the cache, and once, found or not, from the store; a
// write changes the cache and the store, is logged and told to callbacks.
//
// Names are taken without regard to case, 32 characters of them; texts are bytes. Any task may call
// and nothing needs to be called first: the first call runs ConfigInit. The cache's semaphore
// "cnfg" is held for searches and changes only, never during files or callbacks, so callbacks may
// write, delete and watch any variable, the one that they watch too. A call blocks as the store
// does when it needs the store.
//
// A name that is empty or holds '/' or '.' is refused with kBadParameter, a line in the log and no
// other effect, because its file could lie outside the store's folders. A null name, value, buffer
// or callback ends the program.
//
// When the semaphore is gone (after ConfigExit) each call logs that it cannot acquire it: reads
// then ask the store, writes do nothing.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/list.h"
#include "Common/framework/mod.h"

constexpr int kConfigNameLen = 32;     // characters of a name that count
constexpr int kConfigValueSize = 371;  // bytes of a caller's value buffer
constexpr int kConfigValueLen = 369;   // characters of a value that the cache keeps
constexpr int kConfigShortLen = 29;    // characters of a value that a short item keeps
constexpr int kConfigBuckets = 128;

// Flags of ConfigWriteEx.
constexpr UInt32 kConfigCacheOnly = 0x1;

// What the cache holds for a variable that the store does not have.
constexpr char kConfigNotSet[] = "*(config item not set)*";

// The configuration module. Callbacks registered on it (event 0) see every change of any variable.
typedef struct ConfigS {
    ModT mod;  // "Config", instance 0
    ListT* pItems[kConfigBuckets];
} ConfigT;

// A cached variable: a module with the variable's name and instance, owned by gConfig.
typedef struct ConfigItemS {
    ModT mod;
    int instance;
    char* value;  // shortValue, or kConfigValueLen + 1 bytes once it was longer
    // Private to the service:
    UInt32 hash;                    // of name and instance
    struct ConfigItemS* pNextHash;  // chain of items of like hash
    std::atomic<int> uses;          // the cache, and those who call its callbacks
    bool known;                     // the value was written, or read from the store
    char shortValue[kConfigShortLen + 1];
} ConfigItemT;

// What change callbacks receive.
typedef struct ConfigItemCallbackArgsS {
    UInt32 instance;
    UInt32 flags;         // of the write
    char permissions[4];  // of the write, "rw" as a rule
    char name[kConfigNameLen + 1];
    char value[kConfigValueSize];  // at most kConfigValueLen characters
} ConfigValueChangedCallbackArgsT;

// A change callback: gets the variable's item (valid during the call), 0, the registration's user
// data, and a ConfigValueChangedCallbackArgsT.
typedef CallbackFuncPtrT ConfigValueChangedCallbackT;

extern ConfigT gConfig;
extern std::atomic<int> gConfigInitialized;
extern std::atomic<UInt32> configSemaphore;

// Makes the database and starts the store, the first time, and gives the log its configuration: the
// first line that is printed from then on loads filters and format. Always kNoError.
eErrorT ConfigInit();

// ConfigInit for a program's start, before it has tasks: loads the log's filters, format and repeat
// filter at once, in the calling task, and shows the filters. So what the program sets afterwards
// is not overtaken by another task's first line.
void ConfigLoadLogSettings();

// Empties the cache and deletes the semaphore; for the end of a program, when no other task uses
// the configuration. Always kNoError.
eErrorT ConfigExit();

ModT* getConfigModule();

// Copies the value into `value` (kConfigValueSize bytes). kNoError; kItemNotFound with an empty
// text when there is no such variable.
eErrorT ConfigRead(const char* pName, int instance, char* value);

// The value as a decimal number, as far as it is one and within 32 bits, else 0; Int16: its low 16
// bits. Bool: 1 when the value is "true" in any case, else 0.
UInt32 ConfigReadInt32(const char* pName, int instance);
UInt16 ConfigReadInt16(const char* pName, int instance);
Boolean ConfigReadBool(const char* pName, int instance);

// Read instance 0 of the variables "name<instance>_<instance1>" and "..._<instance2>".
eErrorT ConfigRead2(const char* pName, int instance, int instance1, char* pString);
eErrorT ConfigRead3(const char* pName, int instance, int instance1, int instance2, char* pString);

// Writes a variable; a value that the cache holds already, under the name as given, is not written
// again. The store gets the value up to its first line end, in full length; the cache keeps 369
// characters. `perm` (four characters count) and `flags` travel to the callbacks; with
// kConfigCacheOnly the store is left alone. Callbacks that are not deferred run before it returns.
// Always kNoError but for a refused name: what the store reports is in the log only.
eErrorT ConfigWriteEx(const char* pName, int instance, const char* value, const char* perm,
                      UInt32 flags);

// The same with permission "rw": into cache and store; into the cache; or with a permission given.
eErrorT ConfigWrite(const char* pName, int instance, const char* value);
eErrorT ConfigWriteCacheOnly(const char* pName, int instance, const char* value);
eErrorT ConfigWritePerm(const char* pName, int instance, const char* value, const char* perm);

// Write a number in decimal (signed), or "True" or "False".
eErrorT ConfigWriteInt32(const char* pName, int instance, UInt32 i);
eErrorT ConfigWriteInt16(const char* pName, int instance, UInt16 i);
eErrorT ConfigWriteBool(const char* pName, int instance, Boolean b);

// Write what ConfigRead2 and ConfigRead3 read.
eErrorT ConfigWrite2(const char* pName, int instance, int instance1, const char* pString);
eErrorT ConfigWrite3(const char* pName, int instance, int instance1, int instance2,
                     const char* pString);

// Removes the variable's current value from the store, and the variable, its callbacks with it,
// from the cache. The next read finds the default. Always kNoError but for a refused name.
eErrorT ConfigDelete(const char* pName, int instance);

// Writes the variable's default. kNoError, or kItemNotFound when it has none.
eErrorT ConfigRestore(const char* pName, int instance);

// Registers a callback for changes of a variable, which need not exist. `callBackType` is
// kModCallbackDeferred (called in the registering task, which serves its modules) or 0 (called in
// the writing task). Registered again it changes nothing; a delete of the variable ends it.
// kNoError, or kOutOfMemory. ConfigAddCallback, 2 and 3 are deferred.
eErrorT ConfigAddCallbackEx(const char* pName, int instance, ConfigValueChangedCallbackT pFunc,
                            void* userDefined, UInt32 callBackType);
eErrorT ConfigAddCallback(const char* pName, int instance, ConfigValueChangedCallbackT pFunc,
                          void* userDefined);
eErrorT ConfigAddImmediateCallback(const char* pName, int instance,
                                   ConfigValueChangedCallbackT pFunc, void* userDefined);
eErrorT ConfigAddCallback2(const char* pName, int instance, int instance1,
                           ConfigValueChangedCallbackT pFunc, void* userDefined);
eErrorT ConfigAddCallback3(const char* pName, int instance, int instance1, int instance2,
                           ConfigValueChangedCallbackT pFunc, void* userDefined);

// Takes a registration back; a change under way may still reach it. kItemNotFound when there is
// none, or the variable is not cached under the name as given (whose first letter must be in lower
// case then).
eErrorT ConfigDeleteCallback(const char* pName, int instance, ConfigValueChangedCallbackT pFunc,
                             void* userDefined);

// Print the cache, or one variable, to standard output. Lines are consistent each for itself.
void ConfigDumpHeading();
void ConfigDumpAll();
void ConfigDumpByName(const char* pName, int instance);
