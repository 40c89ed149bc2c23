// The module manager and the name hash.
#include "Common/framework/modman.h"

#include <random>

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

ModDBEntryT* Add(const std::string& name, size_t size = sizeof(ServiceT)) {
    return ModDBAdd(name.c_str(), static_cast<UInt32>(size), ServiceInit, nullptr);
}

TextsT gAnnounced;
int gAddAgain;

void Announced(ModT*, UInt32, void*, void* pArgs) {
    const auto* args = static_cast<ModAddDelArgsT*>(pArgs);
    gAnnounced.push_back((args->add != 0 ? "+" : "-") + std::string(args->name));
    if (args->add == 0 && gAddAgain-- > 0) {
        ModAddFromRemote(args->name, 2);
    }
}

class ModManager : public TaskTest {
  protected:
    ModManager() {
        EXPECT_EQ(ModManInit(), kNoError);
        ModAddCallback(&ModMan()->mod, 0, Announced, nullptr, 0);
    }
};

}  // namespace

TEST(Hash, FillsToTheLastEntryReplacesAndRefuses) {
    HashTableT table = {};
    HashTableEntryT entries[kHashEntries];
    HashInit(&table, entries, kHashEntries);
    const auto value = [](int i) { return reinterpret_cast<HashValueT>(0x1000L + i); };
    static std::string names[2 * kHashEntries];
    for (int i = 0; i < 2 * kHashEntries; i++) {  // the second half replaces
        names[i] = "name" + std::to_string(i % kHashEntries * (i % kHashEntries));
        ASSERT_EQ(HashAdd(&table, names[i].c_str(), value(i)), kNoError);
    }
    EXPECT_EQ(HashAdd(&table, "NAME0", value(0)), kOutOfMemory);
    for (int i = 0; i < kHashEntries; i++) {
        ASSERT_EQ(HashFind(&table, names[i].c_str()), value(kHashEntries + i));
    }
}

TEST_F(ModManager, AnyOrderOfTypesAndInstancesIsFoundAndCounted) {
    struct TypeT {
        std::string name;  // empty: not known
        int used = 0;
        int free = 0;
    };
    TypeT types[12];
    std::vector<int> order;
    std::vector<std::pair<ModT*, TypeT*>> instances;
    const size_t before = LowBytesInUse();
    std::minstd_rand random(1);
    for (int step = 0; step < 3000; step++) {
        const auto number = static_cast<int>(random() % 12);
        const std::string name = (random() % 2 == 0 ? "type" : "tyPE") + std::to_string(number);
        TypeT* type = &types[number];
        const bool known = !type->name.empty();
        ModDBEntryT* entry = ModDBFind(nullptr, name.c_str());
        ASSERT_TRUE(known ? entry->name == type->name : entry == nullptr);
        const auto operation = random() % 20;
        if (operation == 0) {
            const bool fits = !known && order.size() < kModEmptyEntries;
            gAnnounced.clear();
            const ModDBEntryT* added = Add(name);
            ASSERT_TRUE(fits ? added != nullptr : added == entry);
            ASSERT_EQ(gAnnounced, fits ? TextsT{"+" + name} : TextsT{});
            if (fits) {
                type->name = name;
                order.push_back(number);
            }
        } else if (operation < 12) {
            ModT* pMod = ModCloneLocal(name.c_str());
            ASSERT_EQ(pMod != nullptr, known && instances.size() < kModMaxInstances);
            for (int i = 0; i < 2 && pMod != nullptr; i++) {  // initialised once
                ASSERT_EQ(ModClone(pMod, 0), kNoError);
                ASSERT_EQ(reinterpret_cast<ServiceT*>(pMod)->inits, 1);
            }
            if (pMod != nullptr) {
                type->used++;
                instances.emplace_back(pMod, type);
            }
        } else if (!instances.empty()) {
            const auto& [pMod, its] = instances[random() % instances.size()];
            const bool used = (pMod->flags & kModFlagAllocated) != 0;
            ModAddCallback(pMod, 1, Announced, nullptr, 0);
            // ModFree: lives here, so the same, once.
            ASSERT_EQ(used && operation % 2 == 0 ? ModFree(pMod) : ModFreeLocal(pMod), kNoError);
            ASSERT_EQ(pMod->numCallbacks, 0);
            its->used -= used;
            its->free += used;
        }
    }
    std::string dump =
        "name                              size  used  free\n"
        "-------------------------------- ----- ----- -----\n";
    for (const int number : order) {
        const TypeT& type = types[number];
        char row[80];
        snprintf(row, sizeof(row), "%-32s %5zu %5d %5d\n", type.name.c_str(), sizeof(ServiceT),
                 type.used, type.free);
        dump += row;
    }
    EXPECT_EQ(Printed(ModDBDump), dump);
    ModT stranger = {};
    EXPECT_EQ(ModFreeLocal(&stranger), kItemNotFound);
    EXPECT_EQ(ModManExit(), kNoError);
    EXPECT_LT(LowBytesInUse(), before + sizeof(ServiceT));
    EXPECT_EQ(numMods, 0);  // nothing in the table refers to what was freed
}

TEST_F(ModManager, NamesAreCutAndTablesOfTypesAreTenAtMost) {
    static ModDBEntryT table[2] = {{"small", sizeof(ModT) - 1, ServiceInit, nullptr, {}, {}},
                                   {"none", sizeof(ModT), nullptr, nullptr, {}, {}}};
    const std::string cut(31, 'x');
    const ModDBEntryT* entry = Add(cut + "yz");
    EXPECT_STREQ(entry->name, cut.c_str());
    EXPECT_EQ(ModDBFind(nullptr, cut.c_str()), entry);
    EXPECT_EQ(Add(""), nullptr);
    EXPECT_EQ(Add("small", sizeof(ModT) - 1), nullptr);
    for (int i = 1; i <= gModDBSize; i++) {
        EXPECT_EQ(ModDBAddTable(table, 2), i < gModDBSize ? kNoError : kOutOfMemory);
    }
    EXPECT_EQ(ModCloneLocal("small"), nullptr);
    EXPECT_EQ(ModClone(ModCloneLocal("none"), 0), kNotImplemented);
    ModT stranger = {};
    strcpy(stranger.name, "stranger");
    EXPECT_EQ(ModClone(&stranger, 0), kBadParameter);
}

TEST_F(ModManager, ModulesOfOtherProcessorsComeAndGoAndMayComeBackMeanwhile) {
    TestModule one("one");
    TestModule two("two");
    EXPECT_EQ(ModAddFromRemote(nullptr, 2), kBadParameter);
    EXPECT_EQ(ModAddFromRemote("three", 2), kItemNotFound);
    for (const auto& [name, processor] :
         {std::pair("one", 2), {"two", 3}, {"two", 2}, {"ONE", 2}}) {
        EXPECT_EQ(ModAddFromRemote(name, processor), kNoError);
    }
    const auto places = [](int processor) {
        std::string text;
        for (int i = 0; i < 4; i++) {
            text += " " + std::to_string(FindModByProc(processor, i));
        }
        return text;
    };
    EXPECT_EQ(places(2) + places(3), " 0 2 3 -1 1 -1 -1 -1");
    EXPECT_EQ(ModDeleteFromRemote(0), kBadParameter);
    gAddAgain = 2;
    EXPECT_EQ(ModDeleteFromRemote(2), kNoError);
    EXPECT_THAT(gAnnounced, ElementsAre("+one", "+two", "+two", "+one", "-one", "+one", "-two",
                                        "+two", "-one"));
    EXPECT_EQ(places(2) + places(255), " 0 2 -1 -1 3 -1 -1 -1");
    gAddAgain = 1000000;  // a listener that brings everything back
    EXPECT_EQ(ModDeleteFromRemote(2), kNoError);
    EXPECT_EQ(places(2), " 0 2 -1 -1");
    while (ModAddFromRemote("one", 4) == kNoError) {
    }
    EXPECT_EQ(FindModByProc(4, kModMaxInstances - 4), kModMaxInstances - 1);
    EXPECT_EQ(ModAddFromRemote("one", 4), kOutOfResources);
    ModDeleteFromRemote(4);
    EXPECT_EQ(FindModByProc(4, 0), -1);
}
