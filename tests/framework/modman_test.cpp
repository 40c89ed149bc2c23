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

class ModManager : public TaskTest {
  protected:
    ModManager() {
        StartLog();
        EXPECT_EQ(ModManInit(), kNoError);
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
    ExpectLines({"WARN  pc[0]: MODMAN: ModDBAdd: can't add module:eleventh table is full\n"});
}

TEST_F(ModManager, CloningInitialisesOnceAndFreeingKeepsThePlace) {
    const size_t before = LowBytesInUse();
    Add("service");
    Add("other");
    EXPECT_EQ(Clone("unknown"), nullptr);
    ServiceT* first = Clone("SERVICE");
    EXPECT_EQ(ModClone(&first->mod, 0), kNoError);
    EXPECT_EQ(first->inits, 1);
    ExpectCounts(1, 0);
    EXPECT_EQ(ModFree(&first->mod), kNoError);  // lives here: the same as ModFreeLocal
    ExpectCounts(0, 1);
    for (int i = 1; i < kModMaxInstances; i++) {
        ASSERT_NE(Clone("service"), nullptr);
    }
    ExpectCounts(kModMaxInstances - 1, 1);
    EXPECT_EQ(Clone("other"), nullptr);  // no place is left but that of another type
    EXPECT_EQ(Clone("service"), first);
    EXPECT_EQ(first->inits, 1);  // zeroed in between
    EXPECT_EQ(Clone("service"), nullptr);
    EXPECT_EQ(ModManExit(), kNoError);
    EXPECT_LT(LowBytesInUse(), before + sizeof(ServiceT));
    EXPECT_EQ(numMods, 0);  // nothing in the table refers to what was freed
}
