// Modules, their table, their callbacks, log lines and dumps.
#include "Common/framework/mod.h"

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

struct CallT {
    ModT* pMod;
    UInt32 funcIndex;
    UInt32 task;
    std::string args;
};
std::vector<CallT> gCalls;  // of callbacks that run in the main thread only

void Record(ModT* pMod, UInt32 funcIndex, void*, void* pArgs) {
    gCalls.push_back({pMod, funcIndex, SelfId(), static_cast<const char*>(pArgs)});
}

void* Number(std::uintptr_t number) {
    return reinterpret_cast<void*>(number);
}

void Nothing(ModT*, UInt32, void*, void*) {}

}  // namespace

TEST(Mod, InitFillsWhatTheServiceLeftOpenAndKeepsItsPresets) {
    const UInt32 self = Attach();
    ModT mod = {};
    mod.GetOwner = [](ModT*) -> ModT* { return nullptr; };
    mod.processorNum = 3;
    ModT owner = {};
    EXPECT_EQ(ModInit(&owner, "a name that is longer than thirty-two characters", -2, nullptr),
              kNoError);
    EXPECT_EQ(ModInit(&mod, "Service", 7, &owner), kNoError);
    EXPECT_STREQ(owner.name, "a name that is longer than thirt");
    EXPECT_STREQ(ModName(&owner), "a name that is longer than thirt[-2]");
    EXPECT_STREQ(ModName(&mod), "Service[7]");
    EXPECT_STREQ(ModName(nullptr), "none");
    EXPECT_EQ(memcmp(&mod.initializedSig, "CRVN", 4), 0);
    EXPECT_EQ(mod.taskID, self);
    EXPECT_EQ(mod.flags, kModFlagRegistered);
    EXPECT_EQ(ModGetProcNum(&mod), 3U);
    EXPECT_EQ(mod.Exit, ModExit);
    EXPECT_EQ(mod.CallCallbacks, ModCallCallbacks);
    EXPECT_EQ(mod.DebugCmd(&mod, nullptr), kNoError);
    EXPECT_EQ(mod.GetOwner(&mod), nullptr);
    EXPECT_EQ(ModGetOwner(&mod), &owner);
    EXPECT_EQ(mod.SetOwner(&mod, nullptr), kNoError);
    EXPECT_EQ(ModGetOwner(&mod), nullptr);
    mod.id = 9;
    EXPECT_EQ(ModID(&mod), 9U);

    EXPECT_EQ(ModFindByName("sERVICE", 7), &mod);
    EXPECT_EQ(ModFindByName("service", kModAnyInstance), &mod);
    EXPECT_EQ(ModFindByName("service", 8), nullptr);
    EXPECT_EQ(ModFindByName("servic", 7), nullptr);
    EXPECT_EQ(mod.Exit(&mod), kNoError);
    EXPECT_EQ(ModFindByName("service", 7), nullptr);
    EXPECT_EQ(mod.flags, 0U);
    EXPECT_EQ(ModInit(&mod, "Service", 8, nullptr), kNoError);
    EXPECT_EQ(ModFindByName("service", 8), &mod);
    EXPECT_EQ(numMods, 2);
}

TEST(Mod, The4001stModuleIsAcceptedButCannotBeFound) {
    Attach();
    const auto mods = std::make_unique<ModT[]>(kModMaxModules + 1);
    for (int i = 0; i <= kModMaxModules; i++) {
        ASSERT_EQ(ModInit(&mods[static_cast<size_t>(i)], "many", i, nullptr), kNoError);
    }
    EXPECT_EQ(numMods, kModMaxModules);
    EXPECT_EQ(ModFindByName("many", kModMaxModules - 1), &mods[kModMaxModules - 1]);
    EXPECT_EQ(ModFindByName("many", kModMaxModules), nullptr);
    EXPECT_NE(mods[kModMaxModules].flags & kModFlagRegistered, 0U);
    EXPECT_EQ(ModExit(&mods[kModMaxModules]), kNoError);
    EXPECT_EQ(numMods, kModMaxModules);
    EXPECT_EQ(ModExit(&mods[5]), kNoError);
    EXPECT_EQ(ModInit(&mods[kModMaxModules], "late", 0, nullptr), kNoError);
    EXPECT_EQ(gMods[5], &mods[kModMaxModules]);
}

TEST(Mod, RegistrationIsIdempotentAndTheEleventhCallbackGrowsTheArray) {
    Attach();
    TestModule mod;
    EXPECT_EQ(mod.pCallbacks, nullptr);
    for (std::uintptr_t round = 0; round < 2; round++) {
        for (std::uintptr_t i = 0; i < 10; i++) {
            EXPECT_EQ(ModAddCallback(&mod, 1, Record, Number(i), 0), kNoError);
        }
    }
    EXPECT_EQ(mod.numCallbacks, 10);
    EXPECT_EQ(ModAddCallback(&mod, 2, Record, Number(0), 0), kNoError);
    EXPECT_EQ(mod.numCallbacks, 20);
    EXPECT_EQ(ModDeleteCallback(&mod, 1, Record, Number(3)), kNoError);
    EXPECT_EQ(ModDeleteCallback(&mod, 1, Record, Number(3)), kItemNotFound);
    EXPECT_EQ(ModDeleteCallback(&mod, 3, Record, Number(4)), kItemNotFound);
    EXPECT_EQ(ModDeleteCallback(&mod, 1, Nothing, Number(4)), kItemNotFound);
    char text[] = "x";
    EXPECT_EQ(ModCallCallbacks(&mod, 1, text, 2), kNoError);
    EXPECT_EQ(gCalls.size(), 9U);
    EXPECT_EQ(ModAddCallback(&mod, 2, Record, Number(1), 0), kNoError);  // takes the freed slot
    EXPECT_EQ(mod.pCallbacks[3].funcIndex, 2U);
    EXPECT_EQ(ModDeleteAllCallbacks(&mod), kNoError);
    EXPECT_EQ(mod.numCallbacks, 0);
    EXPECT_EQ(mod.pCallbacks, nullptr);
    EXPECT_EQ(ModCallCallbacks(&mod, 1, text, 2), kNoError);
    EXPECT_EQ(gCalls.size(), 9U);
}

TEST(Mod, ADeferredCallbackRunsWhereItBelongsAndAtOnceInItsOwnTask) {
    const UInt32 self = Attach();
    TestModule mod;
    static std::atomic<UInt32> ran_in;
    static std::atomic<int> cut;
    ran_in = 0;
    cut = -1;
    ModuleTask task("othr");
    const auto remote = [](ModT*, UInt32, void*, void* pArgs) {
        const auto* bytes = static_cast<const char*>(pArgs);
        cut = bytes[kModMaxArgs - 1];
        ran_in = SelfId();
    };
    ModAddCallback(&mod, 5, Record, nullptr, kModCallbackDeferred);
    ModAddCallback(&mod, 5, Record, Number(1), 0);
    ModAddCallbackToTask(&mod, 5, remote, nullptr, kModCallbackDeferred, task.Id());
    ModAddCallbackToTask(&mod, 6, Record, nullptr, 0, task.Id());  // not deferred: the id is unused
    EXPECT_EQ(mod.pCallbacks[2].destTaskID, task.Id());
    EXPECT_EQ(mod.pCallbacks[3].destTaskID, self);
    std::string args(kModMaxArgs + 100, 'a');
    args[kModMaxArgs - 1] = 'z';
    EXPECT_EQ(ModCallCallbacks(&mod, 5, args.data(), static_cast<int>(args.size())), kNoError);
    ASSERT_EQ(gCalls.size(), 2U);  // already, before anything was dispatched
    EXPECT_EQ(gCalls[0].task, self);
    EXPECT_EQ(gCalls[0].args.size(), args.size());
    EXPECT_TRUE(Eventually([&] { return ran_in == task.Id(); }));
    EXPECT_EQ(cut, 'z');

    EXPECT_EQ(ModAddExceptionHandler(&mod, Record, nullptr), kNoError);
    char detail[] = "detail";
    EXPECT_EQ(ModThrowException(&mod, 0, "why", detail, sizeof(detail)), kNoError);
    EXPECT_EQ(gCalls.back().funcIndex, 0x7fffffffU);
    EXPECT_EQ(ModDeleteExceptionHandler(&mod, Record, nullptr), kNoError);

    task.Delete();
    EXPECT_EQ(ModCallCallbacks(&mod, 5, detail, 1), kNoError);  // lost without report
    EXPECT_TRUE(Eventually([] { return gFreeDCBsAvailable == kModNumDeferredCallbacks; }));
    std::thread([&] { EXPECT_EQ(ModCallCallbacks(&mod, 5, detail, 1), kItemNotFound); }).join();
}

// Firing reads the slots without the lock: no slot may be seen half changed, and none that stays
// registered may be missed, while others come and go, the array grows and is given up.
TEST(Mod, FiringIsSafeWhileCallbacksComeAndGo) {
    Attach();
    static std::atomic<int> bad;
    static std::atomic<int> steady;
    TestModule mod;
    TestModule neighbour("n");
    const auto one = [](ModT* pMod, UInt32, void* userDefined, void* pArgs) {
        bad += userDefined != Number(1) || pMod != pArgs;
    };
    const auto two = [](ModT* pMod, UInt32, void* userDefined, void* pArgs) {
        bad += userDefined != Number(2) || pMod != pArgs;
    };
    const auto stays = [](ModT*, UInt32, void*, void*) { steady++; };
    std::atomic<bool> stop{false};
    ModuleTask changer("chng");
    ModAddCallback(&mod, 1, stays, nullptr, 0);
    changer.Post([&] {
        for (int round = 0; round < 3000; round++) {
            for (ModT* pMod : {static_cast<ModT*>(&mod), static_cast<ModT*>(&neighbour)}) {
                ModAddCallback(pMod, 1, one, Number(1), 0);
                ModAddCallback(pMod, 1, two, Number(2), 0);
                for (std::uintptr_t i = 0; i < 9 && round % 16 == 0; i++) {
                    ModAddCallback(pMod, 2, Nothing, Number(i), 0);
                }
                ModDeleteCallback(pMod, 1, one, Number(1));
                ModDeleteCallback(pMod, 1, two, Number(2));
            }
            ModDeleteAllCallbacks(&neighbour);
        }
        stop = true;
    });
    int fired = 0;
    while (!stop) {
        ModCallCallbacks(&mod, 1, &mod, 0);
        ModCallCallbacks(&neighbour, 1, &neighbour, 0);
        fired++;
    }
    changer.Wait();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(steady, fired);
}

TEST(ModDeathTest, MisuseEndsTheProgramAndNamesTheService) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static ModT unsigned_mod = {};
    static ModT mod = {};
    static char big[kModMaxArgs + 1];
    Attach();
    ModInit(&mod, "m", 0, nullptr);
    const struct {
        void (*misuse)();
        const char* report;
    } cases[] = {
        {[] { ModInit(nullptr, "x", 0, nullptr); }, "pMod"},
        {[] { ModInit(&unsigned_mod, nullptr, 0, nullptr); }, "pName"},
        {[] { ModExit(nullptr); }, "pMod"},
        {[] { ModExit(&unsigned_mod); }, "ERROR, bad module ptr 0x[0-9a-f]+"},
        {[] { ModCallCallbacks(&unsigned_mod, 0, nullptr, 0); }, "bad module ptr"},
        {[] { ModDump(&unsigned_mod, 0); }, "bad module ptr"},
        {[] { ModAddCallback(&mod, 0, nullptr, nullptr, 0); }, "pFunc"},
        {[] { ModDeleteCallback(&mod, 0, nullptr, nullptr); }, "pFunc"},
        {[] { ModFindByName(nullptr, 0); }, "pName"},
        {[] { ModDeferFunctionCall(1, nullptr, nullptr, nullptr, 0); }, "pFunc"},
        {[] {
             ModDeferFunctionCall(
                 0, [](void*, void*) {}, nullptr, big, kModMaxArgs + 1);
         },
         "argLen <= sizeof\\(pDeferredFunc->args\\)"},
        {[] { ModDummyDebugCmd(nullptr, nullptr); }, "pMod"},
        {[] { ModLog(&mod, kLogInfo, nullptr); }, "format"},
        {[] { ModTrace(nullptr, nullptr); }, "format"},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(
            {
                dup2(STDERR_FILENO, STDOUT_FILENO);
                c.misuse();
            },
            std::string(c.report) + "(.|\n)*file Common/framework/mod,|Assertion failed: " +
                c.report + ", file Common/framework/mod,");
    }
}

TEST(Mod, LogLinesCarryTheLabelAndObeyTheFilters) {
    Attach();
    const StdoutFile out;
    StartLog();
    ModT owner = {};
    ModT mod = {};
    ModT unsigned_mod = {};
    ModInit(&owner, "100%", 1, nullptr);
    ModInit(&mod, "Worker", 2, &owner);
    ModLog(&mod, kLogWarning, "plain %d\n", 1);
    mod.flags |= kModFlagLogOwner;
    ModLog(&mod, kLogError, "owned %s\n", "two");
    ModTrace(&mod, "traced %d\n", 3);
    ModLog(&unsigned_mod, kLogError, "never\n");
    ModLog(nullptr, kLogError, "never\n");
    const std::string thirty_two(32, 'q');
    ModT longest = {};
    ModInit(&longest, thirty_two.c_str(), 0, nullptr);
    EXPECT_EQ(ModTraceFilterAdd(thirty_two.c_str()), kNoError);
    ModLog(&mod, kLogError, "never: filtered\n");
    ModLog(&longest, kLogError, "let through\n");
    EXPECT_EQ(ModTraceFilterAdd("wORKER"), kNoError);
    ModLog(&mod, kLogError, "again %d\n", 4);
    for (int i = 2; i < kModNumTraceFilters; i++) {
        EXPECT_EQ(ModTraceFilterAdd("filler"), kNoError);
    }
    EXPECT_EQ(ModTraceFilterAdd("eleventh"), kOutOfMemory);
    EXPECT_EQ(ModTraceFilterDelete("unknown"), kBadParameter);
    EXPECT_EQ(ModTraceFilterDelete("worker"), kNoError);
    EXPECT_EQ(ModTraceFilterDelete("worker"), kBadParameter);
    EXPECT_EQ(NumTraceFilters, kModNumTraceFilters - 1);
    EXPECT_EQ(ModTraceFilterDelete("*"), kNoError);
    EXPECT_EQ(NumTraceFilters, 0);
    ModLog(&mod, kLogError, "last\n");
    EXPECT_TRUE(out.WaitFor("last\n"));
    for (const char* line :
         {"WARN  pc[0]: Worker[2]: plain 1\n", "ERROR pc[0]: 100%[1].Worker[2]: owned two\n",
          "DEBUG pc[0]: 100%[1].Worker[2]: traced 3\n", ": again 4\n", "let through\n",
          "WARN  pc[0]: MOD: can't add trace, out of filter entries\n",
          "WARN  pc[0]: MOD: can't delete trace filter, name not found\n"}) {
        EXPECT_TRUE(out.Has(line)) << line;
    }
    EXPECT_FALSE(out.Has("never"));
}

TEST(Mod, DumpsShowTableNameAndRange) {
    Attach();
    TestModule mods[3] = {TestModule("beta", 0), TestModule("alpha", 1), TestModule("alpha", 0)};
    mods[1].flags |= kModFlagAllocated;
    ModAddCallback(&mods[1], 3, Nothing, nullptr, 0);
    const std::string heading =
        "Module               address  task flags\n-------------------- -------- ---- -----\n";
    const auto dump = [](auto action) {
        const StdoutFile out;
        action();
        return out.Text();
    };
    char row[80];
    snprintf(row, sizeof(row), "alpha[1]             %8x main AI   \n  callbacks: 3:0x%x \n",
             static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(&mods[1])),
             static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(&Nothing)));
    const std::string all = dump(ModDumpAll);
    EXPECT_EQ(all.find("3 modules\n" + heading + "beta[0]  "), 0U) << all;
    EXPECT_NE(all.find(row), std::string::npos) << all;
    EXPECT_EQ(dump([] { EXPECT_EQ(ModDumpByName("ALPHA", 1), kNoError); }), heading + row);
    const std::string both = dump([] { EXPECT_EQ(ModDumpByName("alpha", -1), kNoError); });
    EXPECT_EQ(both.find(heading + row + "alpha[0] "), 0U) << both;
    EXPECT_EQ(dump([] { EXPECT_EQ(ModDumpByName("alpha", 2), kBadParameter); }), "");
    EXPECT_EQ(dump([] { EXPECT_EQ(ModDumpRange(0, 1, 2), kNoError); }), row);
    EXPECT_EQ(dump([] { EXPECT_EQ(ModDumpRange(0, 3, 99999), kNoError); }), "");
    EXPECT_EQ(dump([] { EXPECT_EQ(ModDumpRange(1, 0, 9), kBadParameter); }), "");
    ModT* sorted[3] = {&mods[0], &mods[1], &mods[2]};
    qsort(sorted, 3, sizeof(void*), ModCompare);
    EXPECT_EQ(sorted[0], &mods[2]);
    EXPECT_EQ(sorted[2], &mods[0]);
    char text[6];
    EXPECT_STREQ(strEndCopy(text, "0123456789", sizeof(text)), "56789");
    EXPECT_STREQ(strEndCopy(text, "abc", sizeof(text)), "abc");
}
