// The cache, under the semaphore "cnfg", and what reads and writes do around it.
//
// Items hang on two kinds of lists, because each does what the other cannot: the 128 buckets by
// first letter give the order of dumps, the chains by hash make a search independent of how names
// are spread.
//
// Life of an item: the cache counts as one user of it, and so does every task that calls its
// callbacks, which need no lock therefore and never see an item that is gone. A deleted variable's
// item is not found any more; its last user ends it. Its memory then serves the next item, after
// the callbacks deferred with it have run, and never goes back to the heap: what walks the module
// table without a lock finds a module there, if not the one that it looked for.
//
// Why a read never caches an old value: only changes carry a value into a file, one at a time for
// each variable, and each change is under way (gUnderWay) until its file is done, and counted
// (gChanges) when the cache has it. A read that goes to the file caches what it found only if, when
// it looked into the cache, no change of the variable was under way, and if the count is still the
// same now. So no file was changed between the look and now but by a change whose value has yet
// to reach the cache, where it will replace what the read puts there.
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
#include "Common/framework/hash.h"
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

pthread_mutex_t gInitMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
bool gInitRunning;                    // set by the first ConfigInit; under gInitMutex
ConfigItemT* gHashHeads[kHashHeads];  // under configSemaphore
UInt32 gChanges;                      // writes and deletes so far; under configSemaphore

pthread_mutex_t gChangeMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gChangeOver = PTHREAD_COND_INITIALIZER;
ListT* gUnderWay;  // changes; under gChangeMutex

ListT* gSpareItems;  // ended; taken under configSemaphore

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
    char name[kConfigNameLen + 1];  // in lower case
    int instance;
    UInt32 hash;
    // Whether the name as given leads to the variable too: it is not longer than what counts, and
    // its first letter, which chooses the bucket, is in lower case.
    bool found_as_given;

    bool operator==(const KeyT& other) const {
        return instance == other.instance && strcmp(name, other.name) == 0;
    }
};

// What every operation begins with: the database exists, and the name may be used.
bool Begin(const char* pName, int instance, KeyT* key) {
    OsAssert(pName);
    ConfigInit();
    if (ConfigStoreCheckName(pName) != kNoError) {
        return false;
    }
    size_t length = 0;
    for (; length < kConfigNameLen && pName[length] != '\0'; length++) {
        const char c = pName[length];
        key->name[length] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    key->name[length] = '\0';
    key->instance = instance;
    key->hash = HashAppend(HashText(key->name), static_cast<UInt32>(instance));
    key->found_as_given = pName[length] == '\0' && pName[0] == key->name[0];
    return true;
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
        if (strcmp(name, secret) == 0) {
            return true;
        }
    }
    return strncmp(name, kSecretPrefix, sizeof(kSecretPrefix) - 1) == 0;
}

// ---- changes ----

// A write or delete of a variable, from the change of the cache to that of the file; waits while
// another task has one of the same variable, so that the last in the cache is the last in the file
// too. Writes that leave the file alone need none.
class ChangeT {
  public:
    explicit ChangeT(const KeyT& key) : node_{{}, &key} {
        const CancellableMutexGuardT guard(&gChangeMutex);
        while (Find(key) != nullptr) {
            pthread_cond_wait(&gChangeOver, &gChangeMutex);
        }
        ListEnqueueUnprot(&gUnderWay, &node_.list);
    }
    ~ChangeT() {
        const MutexGuardT guard(&gChangeMutex);
        ListExtractUnprot(&gUnderWay, &node_.list);
        pthread_cond_broadcast(&gChangeOver);
    }
    ChangeT(const ChangeT&) = delete;
    ChangeT& operator=(const ChangeT&) = delete;

    static bool IsUnderWay(const KeyT& key) {
        const MutexGuardT guard(&gChangeMutex);
        return Find(key) != nullptr;
    }

  private:
    struct NodeT {
        ListT list;
        const KeyT* key;
    };

    static ListT* Find(const KeyT& key) {
        const auto same = [](ListT* at, void* wanted, void*) -> int {
            return *reinterpret_cast<NodeT*>(at)->key == *static_cast<const KeyT*>(wanted);
        };
        return ListSearch(gUnderWay, same, const_cast<KeyT*>(&key), nullptr);
    }

    NodeT node_;
};

// ---- items; all but their end under configSemaphore ----

// The cache for a scope; not held, with a line in the log, when it cannot be had. Nothing that is
// done meanwhile is a cancellation point.
class CacheGuardT {
  public:
    explicit CacheGuardT(const char* purpose)
        : smid_(configSemaphore), held_(sm_p(smid_, 0, kLockTime) == kSmOk) {
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

ListT** BucketOf(const char* name) {
    return &gConfig.pItems[name[0] & (kConfigBuckets - 1)];
}

ConfigItemT** HashLink(UInt32 hash) {
    return &gHashHeads[hash & (kHashHeads - 1)];
}

ConfigItemT* ItemOf(ListT* node) {
    return reinterpret_cast<ConfigItemT*>(node);
}

ConfigItemT* Find(const KeyT& key) {
    for (ConfigItemT* item = *HashLink(key.hash); item != nullptr; item = item->pNextHash) {
        if (item->instance == key.instance && strcmp(item->mod.name, key.name) == 0) {
            return item;
        }
    }
    return nullptr;
}

// Memory for an item: the oldest spare one that no deferred callback is on its way with, or new.
ConfigItemT* TakeItem() {
    for (int left = ListLen(&gSpareItems); left > 0; left--) {
        ConfigItemT* item = ItemOf(ListDequeue(&gSpareItems));
        if (ModCountDeferredCallbacks(&item->mod) == 0) {
            return item;
        }
        ListEnqueue(&gSpareItems, &item->mod.list);
    }
    return static_cast<ConfigItemT*>(calloc(1, sizeof(ConfigItemT)));
}

// An empty item in the cache; null when memory is exhausted.
ConfigItemT* AddItem(const KeyT& key) {
    ConfigItemT* item = TakeItem();
    if (item == nullptr) {
        return nullptr;
    }
    if (item->value != item->shortValue) {
        free(item->value);
    }
    item->value = item->shortValue;
    item->value[0] = '\0';
    item->instance = key.instance;
    item->hash = key.hash;
    item->uses = 1;
    item->known = false;
    ModInit(&item->mod, key.name, key.instance, &gConfig);
    ConfigItemT** link = HashLink(key.hash);
    item->pNextHash = *link;
    *link = item;
    ListEnqueueUnprot(BucketOf(key.name), &item->mod.list);
    return item;
}

// Takes an item out of the cache, whose use of it stays with the caller.
void RemoveItem(ConfigItemT* item) {
    ConfigItemT** link = HashLink(item->hash);
    while (*link != item) {
        link = &(*link)->pNextHash;
    }
    *link = item->pNextHash;
    ListExtractUnprot(BucketOf(item->mod.name), &item->mod.list);
}

// Puts as much of a value as the cache keeps into an item; one that was short and becomes long goes
// to its bucket's end. False when memory is exhausted.
bool SetValue(ConfigItemT* item, const char* value) {
    const size_t length = strnlen(value, kConfigValueLen);
    if (length > kConfigShortLen && strlen(item->value) <= kConfigShortLen) {
        if (item->value == item->shortValue) {
            auto* room = static_cast<char*>(malloc(kConfigValueLen + 1));
            if (room == nullptr) {
                return false;
            }
            item->value = room;
        }
        ListT** bucket = BucketOf(item->mod.name);
        ListExtractUnprot(bucket, &item->mod.list);
        ListEnqueueUnprot(bucket, &item->mod.list);
    }
    memcpy(item->value, value, length);
    item->value[length] = '\0';
    item->known = true;
    return true;
}

// Puts a value into the cache. Null when memory is exhausted.
ConfigItemT* PutItem(const KeyT& key, const char* value) {
    ConfigItemT* item = Find(key);
    if (item == nullptr) {
        item = AddItem(key);
    }
    return item != nullptr && SetValue(item, value) ? item : nullptr;
}

// Ends a use of an item; null is ignored. configSemaphore need not be held.
void LetGo(ConfigItemT* item) {
    const NoCancelT no_cancel;
    if (item != nullptr && --item->uses == 0) {
        ModExit(&item->mod);
        ListEnqueue(&gSpareItems, &item->mod.list);
    }
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
        item->uses++;
        item_ = item;
    }
    ConfigItemT* Get() const { return item_; }

  private:
    ConfigItemT* item_ = nullptr;
};

// ---- reads and writes ----

// Caches a value that is written; `use` receives a use of the item. False when the semaphore or
// memory is not to be had.
bool WriteItemToCache(const KeyT& key, const char* value, ItemUseT* use) {
    const CacheGuardT cache("writing");
    ConfigItemT* item = cache.Held() ? PutItem(key, value) : nullptr;
    if (item == nullptr) {
        return false;
    }
    gChanges++;
    use->Use(item);
    return true;
}

// The same, and then the file; `length` characters of the value go there.
bool WriteItemToStore(const KeyT& key, const char* value, size_t length, ItemUseT* use) {
    const ChangeT change(key);
    if (!WriteItemToCache(key, value, use)) {
        return false;
    }
    ConfigStoreWriteText(key.name, key.instance, value, length);
    return true;
}

// What a read saw when it looked into the cache.
struct LookT {
    UInt32 changes = 0;    // so far
    bool underWay = true;  // a change of the variable
};

// Caches a value that was read from the store, unless it may be an old one: see above.
void CacheRead(const KeyT& key, const char* value, const LookT& look) {
    const CacheGuardT cache("writing");
    if (cache.Held() && !look.underWay && gChanges == look.changes) {
        PutItem(key, value);
    }
}

// Copies a cached value; false when there is none or an empty one.
bool ReadItemFromCache(const KeyT& key, char* value, LookT* look) {
    const CacheGuardT cache("reading");
    if (!cache.Held()) {
        return false;
    }
    const ConfigItemT* item = Find(key);
    if (item != nullptr && item->value[0] != '\0') {
        memcpy(value, item->value, strlen(item->value) + 1);
        return true;
    }
    *look = {gChanges, ChangeT::IsUnderWay(key)};
    return false;
}

// Whether the cache holds just this value under the name as given.
bool IsUnchanged(const KeyT& key, const char* value) {
    const CacheGuardT cache("lookup");
    const ConfigItemT* item = cache.Held() && key.found_as_given ? Find(key) : nullptr;
    return item != nullptr && item->known && strcmp(item->value, value) == 0;
}

// A name and value for a dump.
struct DumpLineT {
    char name[sizeof(ModT::fullname)];
    char value[kConfigValueSize];

    void Take(ConfigItemT* item) {
        snprintf(name, sizeof(name), "%s", ModName(&item->mod));
        snprintf(value, sizeof(value), "%s", item->value);
    }
    void Print() const { printf("%-35s %s\n", name, value); }
};

// The n-th item of a bucket; false when it has fewer, or the cache cannot be had.
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
    memcpy(args.name, key.name, strlen(key.name));
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
    if (gConfigInitialized != 0) {
        return kNoError;
    }
    const MutexGuardT guard(&gInitMutex);
    if (gInitRunning) {
        // Done meanwhile, or a line that is logged in here asks for its filters.
        return kNoError;
    }
    gInitRunning = true;
    UInt32 smid = 0;
    sm_create("cnfg", 1, 2, &smid);
    configSemaphore = smid;
    ModInit(&gConfig.mod, "Config", 0, nullptr);
    memset(gConfig.pItems, 0, sizeof(gConfig.pItems));
    // Before the flush task starts: every task logs its start, and the first line of all loads the
    // log's settings.
    logmsg_set_config(&kLogConfig);
    ConfigStoreInit();
    gConfigInitialized = 1;
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
                RemoveItem(item);
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
    value[0] = '\0';
    KeyT key;
    if (!Begin(pName, instance, &key)) {
        return kBadParameter;
    }
    LookT look;
    if (!ReadItemFromCache(key, value, &look)) {
        if (ConfigStoreRead(key.name, instance, value, kStoreReadLen) != kNoError) {
            memcpy(value, kConfigNotSet, sizeof(kConfigNotSet));
        }
        CacheRead(key, value, look);
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
    KeyT key;
    if (!Begin(pName, instance, &key)) {
        return kBadParameter;
    }
    const bool store = (flags & kConfigCacheOnly) == 0;
    const size_t length = store ? strcspn(value, "\r\n") : strlen(value);
    if (IsUnchanged(key, value)) {
        return kNoError;
    }
    ItemUseT use;
    if (!(store ? WriteItemToStore(key, value, length, &use)
                : WriteItemToCache(key, value, &use))) {
        return kNoError;
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
    KeyT key;
    if (!Begin(pName, instance, &key)) {
        return kBadParameter;
    }
    if (ProxyProcessorNum() == 0) {
        loginfo("config", "delete %s[%d]\n", key.name, instance);
    }
    ItemUseT removed;
    const ChangeT change(key);
    ConfigStoreDelete(key.name, instance);
    const CacheGuardT cache("deleting");
    ConfigItemT* item = nullptr;
    if (cache.Held()) {
        item = Find(key);
        gChanges++;
    }
    if (item != nullptr) {
        RemoveItem(item);
        removed.Own(item);
    }
    return kNoError;
}

eErrorT ConfigRestore(const char* pName, int instance) {
    KeyT key;
    if (!Begin(pName, instance, &key)) {
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
    KeyT key;
    if (!Begin(pName, instance, &key)) {
        return kBadParameter;
    }
    const CacheGuardT cache("adding callback");
    if (!cache.Held()) {
        return kOutOfMemory;
    }
    ConfigItemT* item = Find(key);
    if (item == nullptr) {
        item = AddItem(key);
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
    KeyT key;
    if (!Begin(pName, instance, &key)) {
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
    KeyT key;
    if (!Begin(pName, instance, &key)) {
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
