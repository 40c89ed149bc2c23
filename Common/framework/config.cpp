// The cache, under the semaphore "cnfg", and what reads and writes do around it.
//
// Life of an item: the cache counts as one user of it, and so does every task that calls its
// callbacks. What leaves the cache (a deleted variable, a short item replaced by a long one) is not
// found any more, and goes when its last user lets go; when callbacks deferred with it are still on
// their way it waits among the retired items until they have run. So callbacks need no lock and
// never see an item that is gone.
//
// Items hang on two kinds of lists: the 128 buckets by first letter, which give the order of dumps
// and say which spellings of a name are found, and short chains by hash, which make searches
// independent of how the names are spread.
#include "Common/framework/config.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/log.h"
#include "Common/OS/logmsg.h"
#include "Common/framework/configstore.h"
#include "Common/framework/proxy.h"
#include "Common/framework/semguard.h"

ConfigT gConfig;
std::atomic<int> gConfigInitialized{0};
std::atomic<UInt32> configSemaphore{0};

namespace {

constexpr UInt32 kLockTime = 1000;
constexpr int kStoreReadLen = 370;
constexpr size_t kJoinedNameSize = 256;  // of names built from instances
constexpr size_t kHashHeads = 2048;      // a power of two
constexpr size_t kChangeMutexes = 16;

pthread_mutex_t gInitMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
bool gInitRunning;                    // set by the first ConfigInit; under gInitMutex
ConfigItemT* gHashHeads[kHashHeads];  // under configSemaphore
UInt32 gChanges;                      // writes and deletes so far; under configSemaphore

// Held by a write or delete from the change of the cache to that of the file, so that of several
// tasks the last in the cache is the last in the file too. By hash of the variable; reads and
// callbacks are done without, but keep no value that they find in the file meanwhile.
struct ChangeMutexT {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<bool> held{false};
};
constinit ChangeMutexT gChangeMutexes[kChangeMutexes];

pthread_mutex_t gRetiredMutex = PTHREAD_MUTEX_INITIALIZER;
ListT* gRetired;  // under gRetiredMutex

// Variables whose values are never logged.
constexpr const char* kSecrets[] = {"sw",
                                    "roomsw",
                                    "websw",
                                    "userpassword0",
                                    "meetingpassword",
                                    "sippassword",
                                    "softwareupdatepassword",
                                    "mppassword",
                                    "dot1xpwd",
                                    "ldappassword",
                                    "loginpassword",
                                    "norteldirectoryurlsp",
                                    "xmpppassword",
                                    "yahoopassword",
                                    "pwencryptiontyperemote",
                                    "pwencryptiontyperoom",
                                    "pwencryptiontypeuser0",
                                    "pwencryptiontypemeeting"};
constexpr char kSecretPrefix[] = "globaldirectoryurlsp";

// ---- names ----

// A variable as it is searched for.
struct KeyT {
    alignas(UInt64) char name[kConfigNameLen + sizeof(UInt64)];  // lower case, zeros behind
    size_t length;
    int instance;
    UInt32 hash;
    bool allowed;
    // Whether the name as given leads to the variable too: it is not longer than what counts, and
    // its first letter, which chooses the bucket, is in lower case.
    bool found_as_given;
};

constexpr UInt64 EachByte(unsigned char byte) {
    return byte * 0x0101010101010101ULL;
}

// Eight characters with the letters A to Z in lower case.
UInt64 LowerCase(UInt64 word) {
    const UInt64 low = word & EachByte(0x7F);
    const UInt64 from_a = low + EachByte(0x80 - 'A');
    const UInt64 behind_z = low + EachByte(0x80 - 'Z' - 1);
    return word | ((from_a ^ behind_z) & ~word & EachByte(0x80)) >> 2;
}

// Whether '.' or '/', which differ in the lowest bit, is among eight characters.
bool HasDotOrSlash(UInt64 word) {
    static_assert(('.' | 1) == '/');
    const UInt64 zero_if = (word & EachByte(0xFE)) ^ EachByte('.');
    return (~((zero_if & EachByte(0x7F)) + EachByte(0x7F)) & ~zero_if & EachByte(0x80)) != 0;
}

KeyT MakeKey(const char* pName, int instance) {
    OsAssert(pName);
    KeyT key;
    memset(key.name, 0, sizeof(key.name));
    key.length = strnlen(pName, kConfigNameLen);
    memcpy(key.name, pName, key.length);
    key.instance = instance;
    bool refused = key.length == 0;
    UInt64 hash = static_cast<UInt32>(instance) * 0x9E3779B97F4A7C15ULL;
    for (size_t i = 0; i < key.length; i += sizeof(UInt64)) {
        UInt64 word;
        memcpy(&word, key.name + i, sizeof(word));
        word = LowerCase(word);
        memcpy(key.name + i, &word, sizeof(word));
        refused = refused || HasDotOrSlash(word);
        hash = (hash ^ word) * 0xD6E8FEB86659FD93ULL;
        hash ^= hash >> 32;
    }
    key.hash = static_cast<UInt32>(hash);
    const bool whole = pName[key.length] == '\0';
    key.allowed = !refused && (whole || strpbrk(pName + key.length, "/.") == nullptr);
    key.found_as_given = whole && key.name[0] == pName[0];
    return key;
}

// What every operation begins with: the database exists, and the name may be used.
bool Begin(const KeyT& key, const char* pName) {
    if (gConfigInitialized.load(std::memory_order_acquire) == 0) {
        ConfigInit();
    }
    return key.allowed || ConfigStoreCheckName(pName) == kNoError;
}

struct JoinedNameT {
    char text[kJoinedNameSize];
};

JoinedNameT JoinName(const char* pName, int instance, int instance1) {
    OsAssert(pName);
    JoinedNameT name;
    snprintf(name.text, sizeof(name.text), "%s%d_%d", pName, instance, instance1);
    return name;
}

JoinedNameT JoinName(const char* pName, int instance, int instance1, int instance2) {
    OsAssert(pName);
    JoinedNameT name;
    snprintf(name.text, sizeof(name.text), "%s%d_%d_%d", pName, instance, instance1, instance2);
    return name;
}

bool IsSecret(const char* name) {
    for (const char* secret : kSecrets) {
        if (strcasecmp(name, secret) == 0) {
            return true;
        }
    }
    return strncasecmp(name, kSecretPrefix, sizeof(kSecretPrefix) - 1) == 0;
}

// ---- items; all but disposal under configSemaphore ----

// The cache for a scope; not held, with a line in the log, when it cannot be had. Nothing that is
// done meanwhile is a cancellation point.
class CacheGuardT {
  public:
    explicit CacheGuardT(const char* purpose)
        : smid_(configSemaphore.load(std::memory_order_acquire)),
          held_(sm_p(smid_, 0, kLockTime) == kSmOk) {
        if (!held_) [[unlikely]] {
            logerr("config", "can't acquire config database semaphore for %s, task=\"%s\"\n",
                   purpose, t_name(0));
        }
    }
    ~CacheGuardT() noexcept(false) {
        if (held_) {
            sm_v(smid_);
        }
    }
    CacheGuardT(const CacheGuardT&) = delete;
    CacheGuardT& operator=(const CacheGuardT&) = delete;

    bool Held() const { return held_; }

  private:
    UInt32 smid_;
    bool held_;
};

ListT** BucketOf(const KeyT& key) {
    return &gConfig.pItems[key.name[0] & (kConfigBuckets - 1)];
}

ConfigItemT** HashLink(UInt32 hash) {
    return &gHashHeads[hash & (kHashHeads - 1)];
}

ChangeMutexT* ChangeMutex(const KeyT& key) {
    return &gChangeMutexes[key.hash % kChangeMutexes];
}

// Holds a change mutex for a scope.
class ChangeGuardT {
  public:
    explicit ChangeGuardT(ChangeMutexT* change) : guard_(&change->mutex), held_(&change->held) {
        held_->store(true, std::memory_order_relaxed);
    }
    ~ChangeGuardT() noexcept(false) { held_->store(false, std::memory_order_release); }
    ChangeGuardT(const ChangeGuardT&) = delete;
    ChangeGuardT& operator=(const ChangeGuardT&) = delete;

  private:
    CancellableMutexGuardT guard_;
    std::atomic<bool>* held_;
};

ConfigItemT* Find(const KeyT& key) {
    for (ConfigItemT* item = *HashLink(key.hash); item != nullptr; item = item->pNextHash) {
        if (item->hash == key.hash && item->instance == key.instance &&
            memcmp(item->mod.name, key.name, key.length + 1) == 0) {
            return item;
        }
    }
    return nullptr;
}

bool IsLongValue(const char* value) {
    return strnlen(value, kConfigShortLen + 1) > kConfigShortLen;
}

// Copies as much of a value as its length's class of item keeps.
void SetValue(ConfigItemT* item, const char* value) {
    const size_t length =
        strnlen(value, IsLongValue(value) ? size_t{kConfigValueLen} : size_t{kConfigShortLen});
    memcpy(item->value, value, length);
    item->value[length] = '\0';
}

// An item in the cache; null when memory is exhausted.
ConfigItemT* AddItem(const KeyT& key, const char* value) {
    const size_t size = (IsLongValue(value) ? kConfigValueLen : kConfigShortLen) + 1;
    auto* item = static_cast<ConfigItemT*>(calloc(1, sizeof(ConfigItemT) + size));
    if (item == nullptr) {
        return nullptr;
    }
    ModInit(&item->mod, key.name, key.instance, &gConfig);
    item->instance = key.instance;
    item->hash = key.hash;
    item->uses.store(1, std::memory_order_relaxed);
    SetValue(item, value);
    ConfigItemT** link = HashLink(key.hash);
    item->pNextHash = *link;
    *link = item;
    ListEnqueueUnprot(BucketOf(key), &item->mod.list);
    return item;
}

// Takes an item out of the cache, whose use of it stays with the caller.
void RemoveItem(ListT** bucket, ConfigItemT* item) {
    ConfigItemT** link = HashLink(item->hash);
    while (*link != item) {
        link = &(*link)->pNextHash;
    }
    *link = item->pNextHash;
    ListExtractUnprot(bucket, &item->mod.list);
}

ConfigItemT* ItemOf(ListT* node) {
    return reinterpret_cast<ConfigItemT*>(node);
}

void FreeItem(ConfigItemT* item) {
    ModExit(&item->mod);
    free(item);
}

// Frees the retired items whose last deferred callback has run.
void FreeRetired() {
    ListT* idle = nullptr;
    {
        const MutexGuardT guard(&gRetiredMutex);
        int left = ListLenUnprot(&gRetired);
        for (ListT* at = gRetired; left > 0; left--) {
            ListT* next = at->next;
            if (ModCountDeferredCallbacks(&ItemOf(at)->mod) == 0) {
                ListExtractUnprot(&gRetired, at);
                ListEnqueueUnprot(&idle, at);
            }
            at = next;
        }
    }
    while (ListT* node = ListDequeueUnprot(&idle)) {
        FreeItem(ItemOf(node));
    }
}

// Lets an item go; null is ignored. No lock is held.
void LetGo(ConfigItemT* item) {
    if (item == nullptr || item->uses.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    const NoCancelT no_cancel;
    {
        const MutexGuardT guard(&gRetiredMutex);
        ListEnqueueUnprot(&gRetired, &item->mod.list);
    }
    FreeRetired();
}

// A use of an item for a scope.
class ItemUseT {
  public:
    ItemUseT() = default;
    ~ItemUseT() noexcept(false) { LetGo(item_); }
    ItemUseT(const ItemUseT&) = delete;
    ItemUseT& operator=(const ItemUseT&) = delete;

    // Takes over a use.
    void Own(ConfigItemT* item) { item_ = item; }
    // Begins a use; configSemaphore is held.
    void Use(ConfigItemT* item) {
        item->uses.fetch_add(1, std::memory_order_relaxed);
        item_ = item;
    }
    ConfigItemT* Get() const { return item_; }

  private:
    ConfigItemT* item_ = nullptr;
};

// Registers an item's callbacks on the item that takes its place. They are copied, so that a call
// of them that is under way reaches all.
void CopyCallbacks(const ConfigItemT* from, ConfigItemT* to) {
    for (int i = 0;; i++) {
        ModCallbackT slot;
        {
            const SemGuardT lock(callbackSemaphore);
            if (i >= from->mod.numCallbacks) {
                return;
            }
            slot = from->mod.pCallbacks[i];
        }
        if (slot.pFunc != nullptr) {
            ModAddCallbackToTask(&to->mod, slot.funcIndex, slot.pFunc, slot.userDefined,
                                 slot.whenFlags, slot.destTaskID);
        }
    }
}

// Puts a value into the cache; the semaphore is held. `replaced` receives the use of an item that
// had to go. Null when memory is exhausted.
ConfigItemT* PutItem(const KeyT& key, const char* value, ItemUseT* replaced) {
    ConfigItemT* item = Find(key);
    if (item == nullptr) {
        item = AddItem(key, value);
    } else if (IsLongValue(value) && !IsLongValue(item->value)) {
        ConfigItemT* old = item;
        item = AddItem(key, value);
        if (item != nullptr) {
            RemoveItem(BucketOf(key), old);
            replaced->Own(old);
            CopyCallbacks(old, item);
        }
    } else {
        SetValue(item, value);
    }
    if (item != nullptr) {
        item->known = true;
    }
    return item;
}

// Caches a value that is written; `use` receives a use of the item. False when the semaphore or
// memory is not to be had.
bool WriteItemToCache(const KeyT& key, const char* value, ItemUseT* use, ItemUseT* replaced) {
    const CacheGuardT cache("writing");
    ConfigItemT* item = cache.Held() ? PutItem(key, value, replaced) : nullptr;
    if (item == nullptr) {
        return false;
    }
    gChanges++;
    use->Use(item);
    return true;
}

// What a read found when it asked the cache.
struct AskedT {
    UInt32 changes = 0;     // so far
    bool changing = false;  // the cache may be ahead of the file
};

// Caches a value that was read from the store, unless anything was written or deleted since the
// cache was asked, or was being so: then the value may be the one of before.
void CacheRead(const KeyT& key, const char* value, const AskedT& asked) {
    ItemUseT replaced;
    const CacheGuardT cache("writing");
    if (cache.Held() && !asked.changing && gChanges == asked.changes) {
        PutItem(key, value, &replaced);
    }
}

// Copies a cached value; false when there is none or an empty one.
bool ReadItemFromCache(const KeyT& key, char* value, AskedT* asked) {
    const CacheGuardT cache("reading");
    const ConfigItemT* item = nullptr;
    if (cache.Held()) {
        item = Find(key);
        asked->changes = gChanges;
        asked->changing = ChangeMutex(key)->held.load(std::memory_order_acquire);
    }
    if (item == nullptr || item->value[0] == '\0') {
        return false;
    }
    memcpy(value, item->value, strlen(item->value) + 1);
    return true;
}

// Whether the cache holds just this value under the name as given.
bool IsUnchanged(const KeyT& key, const char* value) {
    const CacheGuardT cache("lookup");
    const ConfigItemT* item = cache.Held() && key.found_as_given ? Find(key) : nullptr;
    return item != nullptr && item->known && strcmp(item->value, value) == 0;
}

// ---- reads and writes ----

// A name and value for a dump; false when the cache cannot be had or there is no such item.
struct DumpLineT {
    char name[sizeof(ModT::fullname)];
    char value[kConfigValueSize];

    void Take(ConfigItemT* item) {
        snprintf(name, sizeof(name), "%s", ModName(&item->mod));
        snprintf(value, sizeof(value), "%s", item->value);
    }
    void Print() const { printf("%-35s %s\n", name, value); }
};

// The n-th item of a bucket; false when it has fewer.
bool TakeDumpLine(int bucket, int n, DumpLineT* line) {
    const CacheGuardT cache("lookup");
    ListT* head = cache.Held() ? gConfig.pItems[bucket] : nullptr;
    ListT* at = head;
    while (at != nullptr && n-- > 0) {
        at = ListNextElement(head, at);
    }
    if (at == nullptr) {
        return false;
    }
    line->Take(ItemOf(at));
    return true;
}

void CallCallbacks(ConfigItemT* item, const KeyT& key, const char* value, size_t length,
                   const char* perm, UInt32 flags) {
    ConfigValueChangedCallbackArgsT args;
    memset(&args, 0, sizeof(args));
    args.instance = static_cast<UInt32>(key.instance);
    args.flags = flags;
    memcpy(args.permissions, perm, strnlen(perm, sizeof(args.permissions)));
    memcpy(args.name, key.name, key.length);
    memcpy(args.value, value, length < kConfigValueLen ? length : size_t{kConfigValueLen});
    ModCallCallbacks(&item->mod, 0, &args, sizeof(args));
    ModCallCallbacks(&gConfig.mod, 0, &args, sizeof(args));
}

// Logs as much of the value as a line holds with its end: a line that lost it would take the next
// one along, whosever that is.
void LogChange(const KeyT& key, const char* value, size_t length) {
    const int rest = snprintf(nullptr, 0, "INFO  pc[0]: config: %s[%d]:\n", key.name, key.instance);
    const size_t room = static_cast<size_t>(kLogLineSize - 1 - rest);
    loginfo("config", "%s[%d]:%.*s\n", key.name, key.instance,
            static_cast<int>(length < room ? length : room), value);
}

long ReadNumber(const char* pName, int instance) {
    char value[kConfigValueSize];
    ConfigRead(pName, instance, value);
    const long number = strtol(value, nullptr, 10);
    return number > INT32_MAX ? INT32_MAX : number < INT32_MIN ? INT32_MIN : number;
}

constexpr LogConfigT kLogConfig = {ConfigRead, ConfigWrite};

}  // namespace

eErrorT ConfigInit() {
    if (gConfigInitialized.load(std::memory_order_acquire) != 0) {
        return kNoError;
    }
    const NoCancelT no_cancel;
    const MutexGuardT guard(&gInitMutex);
    if (gInitRunning) {
        // Done meanwhile, or a line that is logged in here asks for its filters.
        return kNoError;
    }
    gInitRunning = true;
    UInt32 smid = 0;
    sm_create("cnfg", 1, 2, &smid);
    configSemaphore.store(smid);
    ModInit(&gConfig.mod, "Config", 0, nullptr);
    memset(gConfig.pItems, 0, sizeof(gConfig.pItems));
    // Before the flush task starts: every task logs its start, and the first line of all loads the
    // log's settings.
    logmsg_set_config(&kLogConfig);
    ConfigStoreInit();
    gConfigInitialized.store(1, std::memory_order_release);
    return kNoError;
}

void ConfigLoadLogSettings() {
    const bool loaded = gConfigLoaded.exchange(1) != 0;
    ConfigInit();
    if (!loaded) {
        if (logmsg_showfilter_load() > 0) {
            logmsg_showfilter_dump();
        }
        if (logmsg_cullfilter_load() > 0) {
            logmsg_cullfilter_dump();
        }
        logmsg_format_load();
    }
    logmsg_spewfilter_load();
}

eErrorT ConfigExit() {
    const UInt32 smid = configSemaphore.exchange(0);
    if (smid == 0) {
        return kNoError;
    }
    logmsg_set_config(nullptr);
    {
        const SemGuardT lock(smid);
        for (ListT*& bucket : gConfig.pItems) {
            while (bucket != nullptr) {
                ConfigItemT* item = ItemOf(bucket);
                RemoveItem(&bucket, item);
                LetGo(item);
            }
        }
    }
    ModExit(&gConfig.mod);
    sm_delete(smid);
    return kNoError;
}

ModT* getConfigModule() {
    return &gConfig.mod;
}

eErrorT ConfigRead(const char* pName, int instance, char* value) {
    OsAssert(value);
    const KeyT key = MakeKey(pName, instance);
    value[0] = '\0';
    if (!Begin(key, pName)) {
        return kBadParameter;
    }
    AskedT asked;
    if (!ReadItemFromCache(key, value, &asked)) {
        if (ConfigStoreRead(key.name, instance, value, kStoreReadLen) != kNoError) {
            memcpy(value, kConfigNotSet, sizeof(kConfigNotSet));
        }
        CacheRead(key, value, asked);
    }
    if (value[0] == kConfigNotSet[0] && strcmp(value, kConfigNotSet) == 0) {
        value[0] = '\0';
        return kItemNotFound;
    }
    return kNoError;
}

UInt32 ConfigReadInt32(const char* pName, int instance) {
    return static_cast<UInt32>(ReadNumber(pName, instance));
}

UInt16 ConfigReadInt16(const char* pName, int instance) {
    return static_cast<UInt16>(ReadNumber(pName, instance));
}

Boolean ConfigReadBool(const char* pName, int instance) {
    char value[kConfigValueSize];
    return ConfigRead(pName, instance, value) == kNoError && strcasecmp(value, "true") == 0 ? 1 : 0;
}

eErrorT ConfigRead2(const char* pName, int instance, int instance1, char* pString) {
    return ConfigRead(JoinName(pName, instance, instance1).text, 0, pString);
}

eErrorT ConfigRead3(const char* pName, int instance, int instance1, int instance2, char* pString) {
    return ConfigRead(JoinName(pName, instance, instance1, instance2).text, 0, pString);
}

eErrorT ConfigWriteEx(const char* pName, int instance, const char* value, const char* perm,
                      UInt32 flags) {
    OsAssert(value);
    OsAssert(perm);
    const KeyT key = MakeKey(pName, instance);
    if (!Begin(key, pName)) {
        return kBadParameter;
    }
    const bool store = (flags & kConfigCacheOnly) == 0;
    const size_t length = store ? strcspn(value, "\r\n") : strlen(value);
    ItemUseT replaced;
    ItemUseT use;
    if (IsUnchanged(key, value)) {
        return kNoError;
    }
    {
        const ChangeGuardT change(ChangeMutex(key));
        if (!WriteItemToCache(key, value, &use, &replaced)) {
            return kNoError;
        }
        if (store) {
            ConfigStoreWriteText(key.name, instance, value, length);
        }
    }
    if (ProxyProcessorNum() == 0 && !IsSecret(key.name)) {
        LogChange(key, value, length);
    }
    CallCallbacks(use.Get(), key, value, length, perm, flags);
    return kNoError;
}

eErrorT ConfigWrite(const char* pName, int instance, const char* value) {
    return ConfigWriteEx(pName, instance, value, "rw", 0);
}

eErrorT ConfigWriteCacheOnly(const char* pName, int instance, const char* value) {
    return ConfigWriteEx(pName, instance, value, "rw", kConfigCacheOnly);
}

eErrorT ConfigWritePerm(const char* pName, int instance, const char* value, const char* perm) {
    return ConfigWriteEx(pName, instance, value, perm, 0);
}

eErrorT ConfigWriteInt32(const char* pName, int instance, UInt32 i) {
    char value[16];
    snprintf(value, sizeof(value), "%d", static_cast<int>(i));
    return ConfigWrite(pName, instance, value);
}

eErrorT ConfigWriteInt16(const char* pName, int instance, UInt16 i) {
    return ConfigWriteInt32(pName, instance, i);
}

eErrorT ConfigWriteBool(const char* pName, int instance, Boolean b) {
    return ConfigWrite(pName, instance, b != 0 ? "True" : "False");
}

eErrorT ConfigWrite2(const char* pName, int instance, int instance1, const char* pString) {
    return ConfigWrite(JoinName(pName, instance, instance1).text, 0, pString);
}

eErrorT ConfigWrite3(const char* pName, int instance, int instance1, int instance2,
                     const char* pString) {
    return ConfigWrite(JoinName(pName, instance, instance1, instance2).text, 0, pString);
}

eErrorT ConfigDelete(const char* pName, int instance) {
    const KeyT key = MakeKey(pName, instance);
    if (!Begin(key, pName)) {
        return kBadParameter;
    }
    if (ProxyProcessorNum() == 0) {
        loginfo("config", "delete %s[%d]\n", key.name, instance);
    }
    ItemUseT removed;
    const ChangeGuardT change(ChangeMutex(key));
    ConfigStoreDelete(key.name, instance);
    const CacheGuardT cache("deleting");
    ConfigItemT* item = nullptr;
    if (cache.Held()) {
        item = Find(key);
        gChanges++;
    }
    if (item != nullptr) {
        RemoveItem(BucketOf(key), item);
        removed.Own(item);
    }
    return kNoError;
}

eErrorT ConfigRestore(const char* pName, int instance) {
    const KeyT key = MakeKey(pName, instance);
    if (!Begin(key, pName)) {
        return kBadParameter;
    }
    char value[kConfigValueSize];
    if (ConfigStoreChoiceRead(key.name, instance, value, kStoreReadLen) != kNoError) {
        return kItemNotFound;
    }
    return ConfigWrite(pName, instance, value);
}

eErrorT ConfigAddCallbackEx(const char* pName, int instance, ConfigValueChangedCallbackT pFunc,
                            void* userDefined, UInt32 callBackType) {
    OsAssert(pFunc);
    const KeyT key = MakeKey(pName, instance);
    if (!Begin(key, pName)) {
        return kBadParameter;
    }
    const CacheGuardT cache("adding callback");
    if (!cache.Held()) {
        return kOutOfMemory;
    }
    ConfigItemT* item = Find(key);
    if (item == nullptr) {
        item = AddItem(key, "");
    }
    if (item == nullptr) {
        return kOutOfMemory;
    }
    return ModAddCallback(&item->mod, 0, pFunc, userDefined, callBackType);
}

eErrorT ConfigAddCallback(const char* pName, int instance, ConfigValueChangedCallbackT pFunc,
                          void* userDefined) {
    return ConfigAddCallbackEx(pName, instance, pFunc, userDefined, kModCallbackDeferred);
}

eErrorT ConfigAddImmediateCallback(const char* pName, int instance,
                                   ConfigValueChangedCallbackT pFunc, void* userDefined) {
    return ConfigAddCallbackEx(pName, instance, pFunc, userDefined, 0);
}

eErrorT ConfigAddCallback2(const char* pName, int instance, int instance1,
                           ConfigValueChangedCallbackT pFunc, void* userDefined) {
    return ConfigAddCallback(JoinName(pName, instance, instance1).text, 0, pFunc, userDefined);
}

eErrorT ConfigAddCallback3(const char* pName, int instance, int instance1, int instance2,
                           ConfigValueChangedCallbackT pFunc, void* userDefined) {
    return ConfigAddCallback(JoinName(pName, instance, instance1, instance2).text, 0, pFunc,
                             userDefined);
}

eErrorT ConfigDeleteCallback(const char* pName, int instance, ConfigValueChangedCallbackT pFunc,
                             void* userDefined) {
    OsAssert(pFunc);
    const KeyT key = MakeKey(pName, instance);
    if (!Begin(key, pName)) {
        return kBadParameter;
    }
    const CacheGuardT cache("deleting callback");
    ConfigItemT* item = cache.Held() && key.found_as_given ? Find(key) : nullptr;
    return item != nullptr ? ModDeleteCallback(&item->mod, 0, pFunc, userDefined) : kItemNotFound;
}

void ConfigDumpHeading() {
    puts("\nConfig item                         value");
    puts(
        "----------------------------------- "
        "----------------------------------------------------------");
}

void ConfigDumpAll() {
    ConfigInit();
    ConfigDumpHeading();
    DumpLineT line;
    for (int bucket = 0; bucket < kConfigBuckets; bucket++) {
        for (int n = 0; TakeDumpLine(bucket, n, &line); n++) {
            line.Print();
        }
    }
    puts("<end>");
}

void ConfigDumpByName(const char* pName, int instance) {
    const KeyT key = MakeKey(pName, instance);
    if (!Begin(key, pName)) {
        return;
    }
    DumpLineT line;
    bool found;
    {
        const CacheGuardT cache("lookup");
        ConfigItemT* item = cache.Held() ? Find(key) : nullptr;
        found = item != nullptr;
        if (found) {
            line.Take(item);
        }
    }
    if (!found) {
        printf("ERROR, cannot locate item %s\n", pName);
        return;
    }
    ConfigDumpHeading();
    line.Print();
}
