// The module manager and the name hash.
#include "Common/framework/modman.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/semaphores.h"
#include "tests/framework/module_task.h"

namespace {

struct ServiceT {
    ModT mod;
    int inits;
};

eErrorT ServiceInit(ModT* pMod, const char* pName, int instance, void* pOwner) {
    EXPECT_EQ(sm_p(ModMan()->dbSemaphore, kSmNoWait, 0), kSmOk) << "called with the lock held";
    sm_v(ModMan()->dbSemaphore);
    reinterpret_cast<ServiceT*>(pMod)->inits++;
    return ModInit(pMod, pName, instance, pOwner);
}

ModDBEntryT* Add(const std::string& name) {
    return ModDBAdd(name.c_str(), sizeof(ServiceT), ServiceInit, nullptr);
}

ServiceT* Clone(const char* name) {
    ModT* pMod = ModCloneLocal(name);
    EXPECT_TRUE(pMod == nullptr || ModClone(pMod, 0) == kNoError);
    return reinterpret_cast<ServiceT*>(pMod);
}

TextsT gAnnounced;

class ModManager : public TaskTest {
  protected:
    ModManager() {
        const auto listen = [](ModT*, UInt32, void*, void* pArgs) {
            const auto* args = static_cast<const ModAddDelArgsT*>(pArgs);
            gAnnounced.push_back((args->add != 0 ? "+" : "-") + std::string(args->name));
        };
        StartLog();
        EXPECT_EQ(ModManInit(), kNoError);
        ModAddCallback(&ModMan()->mod, 0, listen, nullptr, 0);
    }
    // The count of instances of "service" that the dump shows.
    void ExpectCounts(int used, int free) {
        char row[80];
        snprintf(row, sizeof(row), "\n%-32s %5zu %5d %5d\n", "service", sizeof(ServiceT), used,
                 free);
        EXPECT_THAT(Printed(ModDBDump), testing::HasSubstr(row));
    }
};

}  // namespace

TEST(Hash, FillsToTheLastEntryReplacesAndRefuses) {
    HashTableT table = {};
    HashTableEntryT entries[kHashEntries];
    EXPECT_EQ(HashFind(&table, "x"), nullptr);
    EXPECT_EQ(HashAdd(&table, "x", nullptr), kBadParameter);
    HashInit(&table, entries, kHashEntries);
    std::string names[kHashEntries];
    const auto value = [](int i) { return reinterpret_cast<HashValueT>(0x1000L + i); };
    for (int i = 0; i < 2 * kHashEntries; i++) {  // the second half replaces
        const int at = i % kHashEntries;
        names[at] = "name" + std::to_string(at * at);
        ASSERT_EQ(HashAdd(&table, names[at].c_str(), value(i)), kNoError);
    }
    EXPECT_EQ(HashAdd(&table, "NAME0", value(0)), kOutOfMemory);
    for (int i = 0; i < kHashEntries; i++) {
        ASSERT_EQ(HashFind(&table, names[i].c_str()), value(kHashEntries + i));
    }
}

TEST_F(ModManager, TheEleventhTypeIsRefusedAndKnownOnesAreFoundInAnyCase) {
    const std::string cut(31, 'x');
    ModDBEntryT* first = Add(cut + "yz");
    EXPECT_EQ(ModDBFind(nullptr, cut.c_str()), first);
    for (int i = 1; i < kModEmptyEntries; i++) {
        EXPECT_NE(Add("type" + std::to_string(i)), nullptr);
    }
    EXPECT_EQ(Add("TYPE1"), ModDBFind(nullptr, "type1"));
    EXPECT_EQ(Add("eleventh"), nullptr);
    EXPECT_EQ(gAnnounced.size(), 10U);
    ExpectLines({"DEBUG pc[0]: MODMAN: ModDBAdd: added module:type8\n",
                 "WARN  pc[0]: MODMAN: ModDBAdd: module:TYPE1 already exists\n",
                 "WARN  pc[0]: MODMAN: ModDBAdd: can't add module:eleventh table is full\n"});
    static ModDBEntryT table;
    strcpy(table.name, "static");
    for (int i = 1; i < gModDBSize; i++) {
        EXPECT_EQ(ModDBAddTable(&table, 1), kNoError);
    }
    EXPECT_EQ(ModDBAddTable(&table, 1), kOutOfMemory);
    EXPECT_EQ(ModDBFind(nullptr, "STATIC"), &table);
}

TEST_F(ModManager, CloningInitialisesOnceAndFreeingKeepsThePlace) {
    const size_t before = LowBytesInUse();
    Add("service");
    Add("other");
    ModDBAdd("noinit", sizeof(ServiceT), nullptr, nullptr);
    EXPECT_EQ(Clone("unknown"), nullptr);
    EXPECT_EQ(ModClone(ModCloneLocal("noinit"), 0), kNotImplemented);
    ModT stranger = {};
    strcpy(stranger.name, "stranger");
    EXPECT_EQ(ModClone(&stranger, 0), kBadParameter);
    EXPECT_EQ(ModFreeLocal(&stranger), kItemNotFound);
    ServiceT* first = Clone("SERVICE");
    EXPECT_EQ(ModClone(&first->mod, 0), kNoError);
    EXPECT_EQ(first->inits, 1);
    ExpectCounts(1, 0);
    EXPECT_EQ(ModFree(&first->mod), kNoError);  // lives here: the same as ModFreeLocal
    ExpectCounts(0, 1);
    for (int i = 2; i < kModMaxInstances; i++) {
        ASSERT_NE(Clone("service"), nullptr);
    }
    ExpectCounts(kModMaxInstances - 2, 1);
    EXPECT_EQ(Clone("other"), nullptr);  // no place is left but that of another type
    EXPECT_EQ(Clone("service"), first);
    EXPECT_EQ(first->inits, 1);  // zeroed in between
    EXPECT_EQ(Clone("service"), nullptr);
    ExpectLines(
        {"CRIT  pc[0]: MODMAN: ModCloneLocal: can't allocate module:unknown, not in "
         "database\n",
         "CRIT  pc[0]: MODMAN: can't init module:noinit, NULL Init function\n",
         "ModCloneLocal: ERROR, can't allocate module \"service\", table is full\n"});
    EXPECT_EQ(ModManExit(), kNoError);
    EXPECT_LT(LowBytesInUse(), before + sizeof(ServiceT));
    EXPECT_EQ(numMods, 0);  // nothing in the table refers to what was freed
}

TEST_F(ModManager, RemoteModulesAreAnnouncedWhenTheyComeAndGo) {
    const TestModule one("one");
    const TestModule two("two");
    EXPECT_EQ(ModAddFromRemote("three", 2), kItemNotFound);
    ModAddFromRemote("one", 2);
    ModAddFromRemote("TWO", 3);
    ModAddFromRemote("two", 2);
    EXPECT_EQ(FindModByProc(2, 1), 2);
    EXPECT_EQ(FindModByProc(2, 2), -1);
    EXPECT_EQ(ModDeleteFromRemote(2), kNoError);
    EXPECT_EQ(FindModByProc(2, 0), -1);
    EXPECT_THAT(gAnnounced, ElementsAre("+one", "+two", "+two", "-one", "-two"));
    for (int i = 1; i <= kModMaxInstances; i++) {
        ASSERT_EQ(ModAddFromRemote("one", 2), i < kModMaxInstances ? kNoError : kOutOfResources);
    }
}

TEST_F(ModManager, CallbacksAreServedWhereOtherFunctionsAreCalled) {
    ModDBEntryT* entry = Add("service");
    ServiceT* service = Clone("service");
    service->mod.proxy.nodeType = kProxyClient;
    ProxyClientFuncT operation = nullptr;
    const ProxyServerFuncT server = [](ModT*, char*) { return 0; };
    ModRegProxyFuncs(
        &service->mod, "CallCallbacks", &operation, [] {}, server);
    EXPECT_EQ(operation, nullptr);
    EXPECT_NE(HashFind(&entry->proxyFuncHash, "CallCallbacks"), nullptr);
}
