// The module manager and the name hash.
#include "Common/framework/modman.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/linux/system.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

struct ServiceT {
    ModT mod;
    int inits;
    ProxyClientFuncT operation;
};

eErrorT ServiceInit(ModT* pMod, const char* pName, int instance, void* pOwner) {
    EXPECT_EQ(sm_p(ModMan()->dbSemaphore, kSmNoWait, 0), kSmOk) << "called with the lock held";
    sm_v(ModMan()->dbSemaphore);
    reinterpret_cast<ServiceT*>(pMod)->inits++;
    return ModInit(pMod, pName, instance, pOwner);
}

std::vector<std::string> gAnnounced;

void Listen(ModT* pMod, UInt32 funcIndex, void*, void* pArgs) {
    EXPECT_EQ(pMod, &ModMan()->mod);
    EXPECT_EQ(funcIndex, 0U);
    const auto* args = static_cast<const ModAddDelArgsT*>(pArgs);
    EXPECT_EQ(args->procMap, 0U);
    gAnnounced.push_back((args->add != 0 ? "+" : "-") + std::string(args->name));
}

void Start() {
    Attach();
    StartLog();
    ASSERT_EQ(ModManInit(), kNoError);
    ASSERT_EQ(ModAddCallback(&ModMan()->mod, 0, Listen, nullptr, 0), kNoError);
}

ModT* Clone(const char* name) {
    ModT* pMod = ModCloneLocal(name);
    if (pMod != nullptr) {
        EXPECT_EQ(ModClone(pMod, 0), kNoError);
    }
    return pMod;
}

std::string Dump() {
    const StdoutFile out;
    ModDBDump();
    return out.Text();
}

}  // namespace

TEST(Hash, FillsToTheLastEntryReplacesAndRefuses) {
    HashTableT table = {};
    HashTableEntryT entries[kHashEntries];
    EXPECT_EQ(HashFind(&table, "x"), nullptr);
    EXPECT_EQ(HashAdd(&table, "x", nullptr), kBadParameter);
    HashInit(&table, entries, kHashEntries);
    std::vector<std::string> names;
    names.reserve(kHashEntries);
    for (int i = 0; i < kHashEntries; i++) {
        names.push_back("name" + std::to_string(i * i));
    }
    const auto value = [](size_t i) { return reinterpret_cast<HashValueT>(0x1000 + i); };
    for (size_t i = 0; i < kHashEntries; i++) {
        ASSERT_EQ(HashAdd(&table, names[i].c_str(), value(i)), kNoError);
    }
    EXPECT_EQ(HashAdd(&table, "one more", value(0)), kOutOfMemory);
    EXPECT_EQ(HashFind(&table, "one more"), nullptr);
    EXPECT_EQ(HashFind(&table, "NAME0"), nullptr);
    for (size_t i = 0; i < kHashEntries; i++) {
        ASSERT_EQ(HashFind(&table, names[i].c_str()), value(i));
    }
    EXPECT_EQ(HashAdd(&table, "name4", value(500)), kNoError);
    EXPECT_EQ(HashFind(&table, "name4"), value(500));
    EXPECT_EQ(table.numUsed, kHashEntries);
}

TEST(ModMan, TheEleventhTypeIsRefusedAndKnownOnesAreFoundInAnyCase) {
    const StdoutFile out;
    Start();
    const std::string cut(31, 'x');
    EXPECT_NE(ModDBAdd((cut + "yz").c_str(), sizeof(ServiceT), ServiceInit, nullptr), nullptr);
    EXPECT_EQ(ModDBFind(nullptr, cut.c_str()), ModDBFind(nullptr, (cut + "yz").c_str()));
    ModDBEntryT* first = ModDBAdd("type0", sizeof(ServiceT), ServiceInit, nullptr);
    EXPECT_EQ(HashFind(&first->proxyFuncHash, "Init"),
              reinterpret_cast<HashValueT>(ModInitProxyServer));
    for (int i = 1; i < kModEmptyEntries - 1; i++) {
        EXPECT_NE(
            ModDBAdd(("type" + std::to_string(i)).c_str(), sizeof(ServiceT), ServiceInit, nullptr),
            nullptr);
    }
    EXPECT_EQ(ModDBAdd("TYPE0", 1, nullptr, nullptr), first);
    EXPECT_EQ(ModDBAdd("eleventh", sizeof(ServiceT), ServiceInit, nullptr), nullptr);
    EXPECT_EQ(gAnnounced.size(), 10U);
    EXPECT_EQ(gAnnounced[1], "+type0");
    for (const char* line : {"DEBUG pc[0]: MODMAN: ModDBAdd: added module:type8\n",
                             "WARN  pc[0]: MODMAN: ModDBAdd: module:TYPE0 already exists\n",
                             "WARN  pc[0]: MODMAN: ModDBAdd: can't add module:eleventh table is "
                             "full\n"}) {
        EXPECT_TRUE(out.WaitFor(line)) << line;
    }
    static ModDBEntryT table[gModDBSize];
    strcpy(table[0].name, "static");
    EXPECT_EQ(ModDBAddTable(table, 1), kNoError);
    EXPECT_EQ(ModDBFind(nullptr, "STATIC"), &table[0]);
    for (int i = 2; i < gModDBSize; i++) {
        EXPECT_EQ(ModDBAddTable(&table[i], 1), kNoError);
    }
    EXPECT_EQ(ModDBAddTable(table, 1), kOutOfMemory);
    EXPECT_EQ(ModDBDelete(&table[0]), kNoError);
    EXPECT_EQ(ModDBFind(nullptr, "static"), &table[0]);
}

TEST(ModMan, CloningInitialisesOnceAndFreeingKeepsThePlace) {
    const StdoutFile out;
    Start();
    const size_t before = LowBytesInUse();
    ModDBAdd("service", sizeof(ServiceT), ServiceInit, nullptr);
    ModDBAdd("noinit", sizeof(ServiceT), nullptr, nullptr);
    EXPECT_EQ(ModCloneLocal("unknown"), nullptr);
    ModT* pMod = ModCloneLocal("SERVICE");
    ASSERT_NE(pMod, nullptr);
    auto* service = reinterpret_cast<ServiceT*>(pMod);
    EXPECT_EQ(pMod->flags, kModFlagAllocated);
    pMod->instance = 4;
    EXPECT_EQ(ModClone(pMod, 0), kNoError);
    EXPECT_EQ(ModClone(pMod, 0), kNoError);
    EXPECT_EQ(service->inits, 1);
    EXPECT_STREQ(ModName(pMod), "service[4]");
    EXPECT_EQ(pMod->proxy.remHandle, pMod);
    EXPECT_EQ(ModClone(ModCloneLocal("noinit"), 0), kNotImplemented);
    ModT stranger = {};
    strcpy(stranger.name, "stranger");
    EXPECT_EQ(ModClone(&stranger, 0), kBadParameter);
    EXPECT_EQ(ModFreeLocal(&stranger), kItemNotFound);

    char row[80];
    const auto shows = [&row](int used, int free) {
        snprintf(row, sizeof(row), "%-32s %5d %5d %5d\n", "service",
                 static_cast<int>(sizeof(ServiceT)), used, free);
        return Dump().find(row) != std::string::npos;
    };
    EXPECT_EQ(Dump().find("name                              size  used  free\n"
                          "-------------------------------- ----- ----- -----\n"),
              0U);
    EXPECT_TRUE(shows(1, 0));
    ModAddCallback(pMod, 1, Listen, nullptr, 0);
    EXPECT_EQ(ModFree(pMod), kNoError);  // lives here: the same as ModFreeLocal
    EXPECT_EQ(pMod->numCallbacks, 0);
    EXPECT_TRUE(shows(0, 1));
    EXPECT_NE(Clone("service"), pMod);
    EXPECT_TRUE(shows(1, 1));
    for (const char* line :
         {"CRIT  pc[0]: MODMAN: ModCloneLocal: can't allocate module:unknown, not in database\n",
          "CRIT  pc[0]: MODMAN: can't init module:noinit, NULL Init function\n",
          "DEBUG pc[0]: MODMAN: freeing local mod, address:0x",
          "DEBUG pc[0]: MODMAN: ModCloneLocal:SERVICE pMod:0x"}) {
        EXPECT_TRUE(out.WaitFor(line)) << line;
    }
    EXPECT_EQ(ModManExit(), kNoError);
    EXPECT_LT(LowBytesInUse(), before + sizeof(ServiceT));
    EXPECT_EQ(numMods, 0);  // nothing in the table refers to what was freed
}

TEST(ModMan, AFullTableTurnsToInstancesGivenBackAndThenRefuses) {
    const StdoutFile out;
    Start();
    ModDBAdd("service", sizeof(ServiceT), ServiceInit, nullptr);
    ModDBAdd("other", sizeof(ServiceT), ServiceInit, nullptr);
    ModT* given_back = nullptr;
    for (int i = 0; i < kModMaxInstances; i++) {
        ModT* pMod = Clone("service");
        ASSERT_NE(pMod, nullptr);
        given_back = i == 500 ? pMod : given_back;
    }
    EXPECT_EQ(Clone("service"), nullptr);
    ModFreeLocal(given_back);
    EXPECT_EQ(Clone("other"), nullptr);
    EXPECT_EQ(Clone("service"), given_back);
    EXPECT_EQ(reinterpret_cast<ServiceT*>(given_back)->inits, 1);  // zeroed in between
    EXPECT_EQ(numMods, kModMaxInstances + 1);
    EXPECT_TRUE(
        out.WaitFor("CRIT  pc[0]: MODMAN: ModCloneLocal: ERROR, can't allocate module "
                    "\"service\", table is full\n"));
    EXPECT_TRUE(out.Has("size  used  free"));
    ModManExit();
}

TEST(ModMan, RemoteModulesAreAnnouncedWhenTheyComeAndGo) {
    const StdoutFile out;
    Start();
    ModT one = {};
    ModT two = {};
    ModInit(&one, "one", 0, nullptr);
    ModInit(&two, "two", 0, nullptr);
    EXPECT_EQ(ModAddFromRemote(nullptr, 2), kBadParameter);
    EXPECT_EQ(ModAddFromRemote("three", 2), kItemNotFound);
    EXPECT_EQ(ModAddFromRemote("one", 2), kNoError);
    EXPECT_EQ(ModAddFromRemote("TWO", 3), kNoError);
    EXPECT_EQ(ModAddFromRemote("two", 2), kNoError);
    EXPECT_EQ(FindModByProc(2, 0), 0);
    EXPECT_EQ(FindModByProc(2, 1), 2);
    EXPECT_EQ(FindModByProc(2, 2), -1);
    EXPECT_EQ(FindModByProc(3, 0), 1);
    EXPECT_EQ(ModDeleteFromRemote(0), kBadParameter);
    EXPECT_EQ(ModDeleteFromRemote(2), kNoError);
    EXPECT_EQ(ModMan()->nRemModProcNum[0], 255);
    EXPECT_EQ(FindModByProc(2, 0), -1);
    EXPECT_EQ(gAnnounced, (std::vector<std::string>{"+one", "+two", "+two", "-one", "-two"}));
    for (int i = 0; i < kModMaxInstances - 1; i++) {
        ASSERT_EQ(ModAddFromRemote("one", 2), kNoError);
    }
    EXPECT_EQ(ModAddFromRemote("one", 2), kOutOfResources);
    EXPECT_TRUE(out.WaitFor("ERROR pc[0]: MODMAN: ModAddFromRemote: no mod name given\n"));
    EXPECT_TRUE(out.WaitFor("ERROR pc[0]: MODMAN: ModAddFromRemote: no module of name three\n"));
    EXPECT_TRUE(out.WaitFor("ERROR pc[0]: MODMAN: ModDeleteFromRemote: no proc # given\n"));
}

TEST(ModMan, ProxyFunctionsGoWhereTheSideOfTheLinkWantsThem) {
    Start();
    ModDBEntryT* entry = ModDBAdd("service", sizeof(ServiceT), ServiceInit, nullptr);
    auto* service = reinterpret_cast<ServiceT*>(Clone("service"));
    const ProxyClientFuncT client = [] {};
    const ProxyServerFuncT server = [](ModT*, char*) { return 0; };
    const auto server_value = reinterpret_cast<HashValueT>(server);
    const struct {
        const char* name;
        eProxyNodeT side;
        bool client_stored;
    } cases[] = {
        {"Open", kProxyClient, true},
        {"CallCallbacks", kProxyClient, false},
        {"Close", kProxyServer, false},
        {"CallCallbacks", kProxyServer, true},
    };
    for (const auto& c : cases) {
        HashInit(&entry->proxyFuncHash, entry->proxyFuncHashEntries, kHashEntries);
        service->operation = nullptr;
        service->mod.proxy.nodeType = c.side;
        EXPECT_EQ(ModRegProxyFuncs(&service->mod, c.name, &service->operation, client, server),
                  kNoError);
        EXPECT_EQ(service->operation == client, c.client_stored) << c.name;
        EXPECT_EQ(HashFind(&entry->proxyFuncHash, c.name) == server_value, !c.client_stored);
    }
    std::vector<std::string> names;
    names.reserve(kHashEntries);
    for (int i = 0; i < kHashEntries; i++) {
        names.push_back(std::to_string(i));
    }
    for (int i = 0; i < kHashEntries; i++) {
        HashAdd(&entry->proxyFuncHash, names[static_cast<size_t>(i)].c_str(), server_value);
    }
    EXPECT_EQ(ModRegProxyFuncs(&service->mod, "full", &service->operation, client, server),
              kOutOfMemory);
    ModT stranger = {};
    strcpy(stranger.name, "stranger");
    EXPECT_EQ(ModRegProxyFuncs(&stranger, "x", nullptr, client, server), kBadParameter);
}

TEST(ModManDeathTest, CloningNothingOrANamelessModuleEndsTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ModClone(nullptr, 0),
                 "Assertion failed: pMod != \\(\\(void \\*\\)0\\), file Common/framework/modman,");
    ModT nameless = {};
    EXPECT_DEATH(ModClone(&nameless, 0),
                 "Assertion failed: pMod->name\\[0\\] != 0, file Common/framework/modman,");
}
