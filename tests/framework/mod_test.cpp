// Modules, their table, their callbacks, log lines and dumps.
#include "Common/framework/modman.h"
#include "tests/framework/module_task.h"

namespace {

TextsT gCalls;  // of callbacks that run in the main task

void Record(ModT*, UInt32 funcIndex, void*, void* pArgs) {
    gCalls.push_back(t_name(0) + std::to_string(funcIndex) + static_cast<const char*>(pArgs));
}

void* Number(std::uintptr_t number) {
    return reinterpret_cast<void*>(number);
}

void Nothing(ModT*, UInt32, void*, void*) {}

std::atomic<int> gBad;

template <std::uintptr_t kNumber>
void Comes(ModT* pMod, UInt32, void* user, void* args) {
    gBad += user != Number(kNumber) || pMod != args;
}

using Mod = TaskTest;

}  // namespace

TEST_F(Mod, InitKeepsPresetsAndTheTableIsSearchedInAnyCase) {
    TestModule owner("a name that is longer than thirty-two characters", -2);
    ModT mod = {};
    mod.GetOwner = [](ModT*) -> ModT* { return nullptr; };
    mod.processorNum = 3;
    ModInit(&mod, "Service", 7, &owner);
    EXPECT_STREQ(ModName(&owner), "a name that is longer than thirt[-2]");
    EXPECT_EQ(ModGetProcNum(&mod), 3U);
    EXPECT_EQ(mod.GetOwner(&mod), nullptr);
    EXPECT_EQ(ModGetOwner(&mod), &owner);
    EXPECT_EQ(ModFindByName("sERVICE", 7), &mod);
    EXPECT_EQ(ModFindByName("service", kModAnyInstance), &mod);
    EXPECT_EQ(ModFindByName("service", 8), nullptr);
    EXPECT_EQ(ModFindByName("servic", 7), nullptr);
    ModExit(&mod);
    EXPECT_EQ(ModFindByName("service", 7), nullptr);
}

TEST_F(Mod, The4001stModuleIsAcceptedButCannotBeFound) {
    static ModT mods[kModMaxModules + 1];
    ModT* last = &mods[kModMaxModules];
    for (ModT& mod : mods) {
        ModInit(&mod, "many", static_cast<int>(&mod - mods), nullptr);
    }
    EXPECT_EQ(ModFindByName("many", kModMaxModules - 1), last - 1);
    EXPECT_EQ(ModFindByName("many", kModMaxModules), nullptr);
    EXPECT_EQ(ModExit(last), kNoError);
}

TEST_F(Mod, RegistrationIsIdempotentAndTheEleventhCallbackGrowsTheArray) {
    TestModule mod;
    char text[] = "";
    for (std::uintptr_t i = 0; i < 20; i++) {
        ModAddCallback(&mod, 1, Record, Number(i % 10), 0);
    }
    EXPECT_EQ(mod.numCallbacks, 10);
    ModAddCallback(&mod, 2, Record, Number(0), 0);
    EXPECT_EQ(mod.numCallbacks, 20);
    EXPECT_EQ(ModDeleteCallback(&mod, 1, Record, Number(3)), kNoError);
    EXPECT_EQ(ModDeleteCallback(&mod, 1, Record, Number(3)), kItemNotFound);
    EXPECT_EQ(ModDeleteCallback(&mod, 3, Record, Number(4)), kItemNotFound);
    ModCallCallbacks(&mod, 1, text, 1);
    EXPECT_EQ(gCalls, TextsT(9, "main1"));
    ModDeleteAllCallbacks(&mod);
    ModCallCallbacks(&mod, 1, text, 1);
    EXPECT_EQ(gCalls.size(), 9U);
}

TEST_F(Mod, ADeferredCallbackRunsWhereItBelongsAndAtOnceInItsOwnTask) {
    static std::atomic<UInt32> ran_in;
    static std::atomic<int> last;
    TestModule mod;
    ModuleTask task("othr");
    const auto remote = [](ModT*, UInt32, void*, void* pArgs) {
        last = static_cast<const char*>(pArgs)[kModMaxArgs - 1];
        ran_in = ModSelf();
    };
    ModAddCallback(&mod, 5, Record, nullptr, kModCallbackDeferred);
    ModAddCallbackToTask(&mod, 5, remote, nullptr, kModCallbackDeferred, task.Id());
    std::string args(kModMaxArgs + 100, 'a');
    args[kModMaxArgs - 1] = 'z';
    ModCallCallbacks(&mod, 5, args.data(), static_cast<int>(args.size()));
    EXPECT_EQ(gCalls, TextsT{"main5" + args});  // already, before anything was dispatched
    EXPECT_TRUE(Eventually([&] { return ran_in == task.Id(); }));
    EXPECT_EQ(last, 'z');  // a deferred one gets what a block holds
    task.Delete();
    EXPECT_EQ(ModCallCallbacks(&mod, 5, args.data(), 1), kNoError);  // lost without report
    EXPECT_TRUE(Eventually(PoolsAreFull));
}

// Firing reads the slots without the lock: no slot may be seen half changed, and none that stays
// registered may be missed, while others come and go, the array grows and is given up.
TEST_F(Mod, FiringIsSafeWhileCallbacksComeAndGo) {
    static std::atomic<int> steady;
    TestModule mod;
    TestModule neighbour("n");
    const auto stays = [](ModT*, UInt32, void*, void*) { steady++; };
    ModAddCallback(&mod, 1, stays, nullptr, 0);
    std::atomic<bool> stop{false};
    ModuleTask changer("chng");
    changer.Post([&] {
        for (int round = 0; round < 30000; round++) {
            ModT* pMod = round % 2 == 0 ? &mod : &neighbour;
            ModAddCallback(pMod, 1, Comes<1>, Number(1), 0);
            ModDeleteCallback(pMod, 1, Comes<1>, Number(1));
            ModAddCallback(pMod, 1, Comes<2>, Number(2), 0);
            for (std::uintptr_t i = 0; i < 10 && round % 32 < 2; i++) {
                ModAddCallback(pMod, 2, Nothing, Number(i), 0);
            }
            ModDeleteCallback(pMod, 1, Comes<2>, Number(2));
            ModDeleteAllCallbacks(&neighbour);
        }
        stop = true;
    });
    int fired = 0;
    for (; !stop; fired++) {
        ModCallCallbacks(&mod, 1, &mod, 0);
        ModCallCallbacks(&neighbour, 1, &neighbour, 0);
    }
    changer.Delete();
    EXPECT_EQ(gBad, 0);
    EXPECT_EQ(steady, fired);
}

TEST(ModDeathTest, MisuseEndsTheProgramAndNamesTheService) {
    static ModT unsigned_mod = {};
    static char big[kModMaxArgs + 1];
    const auto too_long = [] {
        const auto nothing = [](void*, void*) {};
        ModDeferFunctionCall(Attach(), nothing, nullptr, big, sizeof(big));
    };
    ExpectDeaths("mod(man)?,",
                 {{[] { ModInit(nullptr, "x", 0, nullptr); }, "failed: pMod,"},
                  {[] { ModExit(&unsigned_mod); }, "ERROR, bad module ptr 0x[0-9a-f]+"},
                  {too_long, "argLen <= sizeof\\(pDeferredFunc->args\\)"}});
}

TEST_F(Mod, LogLinesCarryTheLabelAndObeyTheFilters) {
    StartLog();
    const std::string thirty_two(32, 'q');
    TestModule owner("100%d", 1);
    TestModule mod("Worker", 2);
    TestModule longest(thirty_two.c_str());
    ModT unsigned_mod = {};
    mod.pOwner = &owner;
    ModLog(&mod, kLogWarning, "plain %d\n", 1);
    mod.flags |= kModFlagLogOwner;
    ModLog(&mod, kLogError, "owned %s\n", "two");
    ModTrace(&mod, "traced %d\n", 3);
    ModLog(&unsigned_mod, kLogError, "never\n");
    ModTraceFilterAdd(thirty_two.c_str());
    ModLog(&mod, kLogError, "never: filtered\n");
    ModLog(&longest, kLogError, "let through\n");
    ModTraceFilterAdd("wORKER");
    ModLog(&mod, kLogError, "again\n");
    EXPECT_EQ(ModTraceFilterDelete("worker"), kNoError);
    EXPECT_EQ(ModTraceFilterDelete("worker"), kBadParameter);
    ExpectLines({"WARN  pc[0]: Worker[2]: plain 1\n",
                 "ERROR pc[0]: 100%d[1].Worker[2]: owned two\n",
                 "DEBUG pc[0]: 100%d[1].Worker[2]: traced 3\n", ": let through\n", ": again\n"});
    EXPECT_FALSE(out_.Has("never"));
}
