// Modules, their table, their callbacks, log lines and dumps.
#include <random>

#include "Common/framework/modman.h"
#include "tests/framework/module_task.h"

namespace {

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

// What callbacks tell of themselves, by the task that they run in.
std::mutex gToldMutex;
std::map<std::string, TextsT> gTold;
std::atomic<size_t> gArgLen;

std::string Story(int function, const void* user, UInt32 event, const std::string& args) {
    return std::to_string(function) + " " + std::to_string(shown_address(user)) + " " +
           std::to_string(event) + " " + args;
}

template <int kFunction>
void Tell(ModT*, UInt32 funcIndex, void* user, void* pArgs) {
    const std::scoped_lock lock(gToldMutex);
    gTold[t_name(0)].push_back(
        Story(kFunction, user, funcIndex, {static_cast<const char*>(pArgs), gArgLen}));
}

constexpr CallbackFuncPtrT kTellers[] = {Tell<0>, Tell<1>};

// The main task and two others with a module, and what it should hold and call. Tasks are known by
// their index and by how often they were made anew.
class CallbackModelT {
  public:
    void Step(std::minstd_rand& random) {
        const auto function = static_cast<int>(random() % 2);
        void* user = Number(random() % 9);
        const auto event =
            static_cast<UInt32>(random() % 4 == 0 ? kModExceptionIndex : random() % 2);
        const int task = static_cast<int>(random() % 3);
        const auto operation = random() % 50;
        if (operation < 20) {
            Add(function, user, event, static_cast<int>(random() % 3), task);
        } else if (operation < 28) {
            Delete(function, user, event);
        } else if (operation < 46) {
            Fire(event, random() % 4 == 0 ? 1000 + random() % 50 : random() % 9);
        } else if (operation < 49) {
            Renew(task);
        } else if (random() % 8 == 0) {
            EXPECT_EQ(ModDeleteAllCallbacks(&mod_), kNoError);
            slots_.clear();
        }
        EXPECT_EQ(mod_.numCallbacks, static_cast<int>(slots_.size()));
    }
    int Reused() const { return reused_; }

  private:
    struct SlotT {
        int function = -1;  // free
        void* user = nullptr;
        UInt32 event = 0;
        bool deferred = false;
        int task = 0;
        int life = 0;
    };

    auto Find(int function, const void* user, UInt32 event) {
        return std::find_if(slots_.begin(), slots_.end(), [=](const SlotT& slot) {
            return slot.function == function && slot.user == user && slot.event == event;
        });
    }

    // `when`: 0 at once, 1 deferred to the caller, 2 deferred to `task`.
    void Add(int function, void* user, UInt32 event, int when, int task) {
        const CallbackFuncPtrT pFunc = kTellers[function];
        const UInt32 id = task == 0 ? self_ : tasks_[task]->Id();
        if (when == 1 && event == kModExceptionIndex) {
            EXPECT_EQ(ModAddExceptionHandler(&mod_, pFunc, user), kNoError);
        } else {
            const UInt32 flags = when == 0 ? 0 : kModCallbackDeferred;
            EXPECT_EQ(ModAddCallbackToTask(&mod_, event, pFunc, user, flags, when == 1 ? 0 : id),
                      kNoError);
        }
        auto slot = Find(function, user, event);
        if (slot != slots_.end() && (!slot->deferred || slot->life == lives_[slot->task])) {
            return;
        }
        slot = slot != slots_.end() ? slot : Find(-1, nullptr, 0);
        if (slot == slots_.end()) {
            slots_.resize(slots_.size() + 10);
            slot = slots_.end() - 10;
        }
        const int home = when == 2 ? task : 0;
        *slot = {function, user, event, when != 0, home, lives_[home]};
    }

    void Delete(int function, void* user, UInt32 event) {
        const auto slot = Find(function, user, event);
        const CallbackFuncPtrT pFunc = kTellers[function];
        EXPECT_EQ(event == kModExceptionIndex ? ModDeleteExceptionHandler(&mod_, pFunc, user)
                                              : ModDeleteCallback(&mod_, event, pFunc, user),
                  slot != slots_.end() ? kNoError : kItemNotFound);
        if (slot != slots_.end()) {
            *slot = {};
        }
    }

    void Fire(UInt32 event, size_t length) {
        std::map<std::string, TextsT> expected;
        std::string args(length, 'a');
        args += "z";
        gTold.clear();
        gArgLen = std::min<size_t>(args.size(), kModMaxArgs);
        if (event == kModExceptionIndex) {
            ModThrowException(&mod_, 0, "text", args.data(), static_cast<int>(args.size()));
        } else {
            EXPECT_EQ(ModCallCallbacks(&mod_, event, args.data(), static_cast<int>(args.size())),
                      kNoError);
        }
        const std::string told = args.substr(0, gArgLen);
        for (const SlotT& slot : slots_) {
            if (slot.function >= 0 && slot.event == event &&
                (!slot.deferred || slot.life == lives_[slot.task])) {
                const char* names[] = {"main", "tsk1", "tsk2"};
                expected[names[slot.deferred ? slot.task : 0]].push_back(
                    Story(slot.function, slot.user, event, told));
            }
        }
        tasks_[1]->Run([] {});
        tasks_[2]->Run([] {});
        EXPECT_EQ(ModCountDeferredCallbacks(&mod_), 0);
        ASSERT_EQ(gTold, expected);
    }

    // Another task takes the place, and normally the id, of one that goes.
    void Renew(int task) {
        if (task != 0) {
            const UInt32 before = tasks_[task]->Id();
            tasks_[task].reset();
            tasks_[task] = Make(task);
            lives_[task]++;
            reused_ += tasks_[task]->Id() == before;
        }
    }

    static std::unique_ptr<ModuleTask> Make(int task) {
        return std::make_unique<ModuleTask>(task == 1 ? "tsk1" : "tsk2");
    }

    TestModule mod_;
    const UInt32 self_ = ModSelf();
    std::vector<SlotT> slots_;
    std::unique_ptr<ModuleTask> tasks_[3] = {nullptr, Make(1), Make(2)};
    int lives_[3] = {};
    int reused_ = 0;
};

}  // namespace

TEST_F(Mod, AnyOrderOfRegistrationsReachesTheTasksThatAskedAndNoOthers) {
    std::minstd_rand random(1);
    CallbackModelT model;
    for (int step = 0; step < 1500 && !HasFailure(); step++) {
        SCOPED_TRACE(step);
        model.Step(random);
    }
    EXPECT_GT(model.Reused(), 0);
    EXPECT_TRUE(PoolsAreFull());
}

TEST_F(Mod, InitKeepsPresetsAndTheTableIsSearchedInAnyCase) {
    TestModule owner("a name that is longer than thirty-two characters", -2);
    ModT mod = {};
    mod.GetOwner = [](ModT*) -> ModT* { return nullptr; };
    mod.processorNum = 3;
    mod.id = 4;
    ModInit(&mod, "Service", 7, &owner);
    EXPECT_STREQ(ModName(&owner), "a name that is longer than thirt[-2]");
    EXPECT_STREQ(ModName(nullptr), "none");
    EXPECT_EQ(ModGetProcNum(&mod), 3U);
    EXPECT_EQ(ModID(&mod), 4U);
    EXPECT_EQ(mod.taskID, self_);
    EXPECT_EQ(mod.GetOwner(&mod), nullptr);
    EXPECT_EQ(ModGetOwner(&mod), &owner);
    EXPECT_EQ(mod.SetOwner(&mod, nullptr), kNoError);
    EXPECT_EQ(ModGetOwner(&mod), nullptr);
    EXPECT_EQ(ModFindByName("sERVICE", 7), &mod);
    EXPECT_EQ(ModFindByName("service", kModAnyInstance), &mod);
    EXPECT_EQ(ModFindByName("service", 8), nullptr);
    EXPECT_EQ(ModFindByName("servic", 7), nullptr);
    EXPECT_EQ(numMods, 2);
    ModExit(&mod);
    EXPECT_EQ(ModFindByName("service", 7), nullptr);
    EXPECT_EQ(numMods, 1);
    EXPECT_EQ(mod.flags, 0U);
    std::thread([&owner] {
        EXPECT_EQ(ModCallCallbacks(&owner, 1, nullptr, 0), kItemNotFound);
    }).join();
}

TEST_F(Mod, The4001stModuleIsAcceptedButCannotBeFound) {
    static ModT mods[kModMaxModules + 1];
    ModT* last = &mods[kModMaxModules];
    for (ModT& mod : mods) {
        ModInit(&mod, "many", static_cast<int>(&mod - mods), nullptr);
    }
    EXPECT_EQ(last->flags, kModFlagRegistered);
    EXPECT_EQ(ModFindByName("many", kModMaxModules - 1), last - 1);
    EXPECT_EQ(ModFindByName("many", kModMaxModules), nullptr);
    EXPECT_EQ(ModExit(last), kNoError);
    EXPECT_EQ(numMods, kModMaxModules);
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

TEST_F(Mod, TheDumpsShowModulesCallbacksAndWhatWaits) {
    ModT* mods[] = {new TestModule("Worker", 2), new TestModule(std::string(32, 'q').c_str()),
                    new TestModule("worker", 1)};
    mods[0]->flags |= kModFlagAllocated;
    ModAddCallback(mods[2], 5, Nothing, nullptr, 0);
    ModAddCallback(mods[2], 6, Nothing, nullptr, 0);
    const auto call = [](void*, void*) {};
    for (const std::uintptr_t user : {1, 2}) {
        ModDeferFunctionCall(0, call, Number(user), nullptr, 0);
        gFreeDeferredFuncs[user - 1].time = RealTimeMilliSeconds();
    }
    DFStats[3] = {self_, 0, 1, 9, 14, 4, 2};
    char rows[3][200];
    char waits[2][200];
    const UInt32 nothing = shown_address(&Nothing);
    const auto row = [&](int i, const char* name, const char* flags) {
        return snprintf(rows[i], sizeof(rows[i]), "%-20.20s %8x main %s   \n", name,
                        shown_address(mods[i]), flags);
    };
    row(0, "Worker[2]", "AI");
    row(1, "qqqqqqqqqqqqqqqqqqqq", " I");
    const int at = row(2, "worker[1]", " I");
    snprintf(rows[2] + at, sizeof(rows[2]) - static_cast<size_t>(at),
             "  callbacks: 5:0x%x 6:0x%x \n", nothing, nothing);
    for (int i = 0; i < 2; i++) {
        snprintf(waits[i], sizeof(waits[i]), "%d: DFC  func 0x%x task main @ %u", i,
                 shown_address(+call), gFreeDeferredFuncs[i].time);
    }
    const std::string heading =
        "Module               address  task flags\n"
        "-------------------- -------- ---- -----\n";
    const auto all = std::string(rows[0]) + rows[1] + rows[2];
    EXPECT_EQ(Printed(ModDumpAll), "3 modules\n" + heading + all);
    EXPECT_EQ(Printed([] { ModDumpByName("WORKER", kModAnyInstance); }),
              heading + rows[0] + rows[2]);
    EXPECT_EQ(Printed([] { ModDumpByName("worker", 1); }), heading + rows[2]);
    EXPECT_EQ(Printed([] {
                  EXPECT_EQ(ModDumpByName("worker", 3), kBadParameter);
                  EXPECT_EQ(ModDumpByName("work", kModAnyInstance), kBadParameter);
                  EXPECT_EQ(ModDumpRange(2, 0, 9), kBadParameter);
              }),
              "");
    EXPECT_EQ(Printed([] { EXPECT_EQ(ModDumpRange(0, 1, 2), kNoError); }), rows[1]);
    EXPECT_EQ(Printed([] { ModDumpRange(0, -1, 5000); }), all);
    const std::string waiting = Printed(ModDumpDeferredFuncList);
    EXPECT_THAT(waiting, testing::StartsWith("DFC List 2 entries, max 2 (current task main)\n"
                                             "task   min   max   avg  runs    total  in queue\n"
                                             "---- ----- ----- ----- ----- --------  --------\n"
                                             "DFC task rsp time min/max/avg runs  in queue\n"
                                             "DFC ---- -------------------- ----- --------\n"
                                             "DFC main        1     9     3     4        2\n" +
                                             std::string(waits[0]) + "mS ("));
    EXPECT_THAT(waiting, testing::HasSubstr("ms)  0x1\nstackBackTrace(UInt32 taskID) not "
                                            "implemented.\n" +
                                            std::string(waits[1]) + "mS ("));
    EXPECT_THAT(waiting, testing::EndsWith("ms)  0x2\n"));
    std::qsort(mods, 3, sizeof(ModT*), ModCompare);
    EXPECT_STREQ(ModName(mods[1]), (std::string(32, 'q') + "[0]").c_str());
    EXPECT_STREQ(ModName(mods[2]), "worker[1]");
}

TEST_F(Mod, LogLinesCarryTheLabelAndObeyTheFilters) {
    StartLog();
    ASSERT_TRUE(out_.WaitFor("task:logw"));
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
    ModThrowException(&mod, 0, nullptr, nullptr, 0);
    ModLog(&unsigned_mod, kLogError, "never\n");
    EXPECT_EQ(ModTraceFilterAdd(""), kBadParameter);
    EXPECT_EQ(ModTraceFilterAdd(thirty_two.c_str()), kNoError);
    ModLog(&mod, kLogError, "never: filtered\n");
    ModLog(&longest, kLogError, "let through\n");
    ModTraceFilterAdd("wORKER");
    ModLog(&mod, kLogError, "again\n");
    EXPECT_EQ(ModTraceFilterDelete("worker"), kNoError);
    EXPECT_EQ(ModTraceFilterDelete("worker"), kBadParameter);
    for (int i = 1; i < kModNumTraceFilters; i++) {
        EXPECT_EQ(ModTraceFilterAdd("other"), kNoError);
    }
    EXPECT_EQ(ModTraceFilterAdd("eleventh"), kOutOfMemory);
    ModLog(&mod, kLogError, "never: filtered\n");
    EXPECT_EQ(ModTraceFilterDelete("*"), kNoError);
    ModLog(&mod, kLogError, "free again\n");
    ASSERT_TRUE(out_.WaitFor("free again"));
    const std::string lines = out_.Text();
    EXPECT_EQ(lines.substr(lines.find("WARN  pc[0]: Worker")),
              "WARN  pc[0]: Worker[2]: plain 1\n"
              "ERROR pc[0]: 100%d[1].Worker[2]: owned two\n"
              "DEBUG pc[0]: 100%d[1].Worker[2]: traced 3\n"
              "DEBUG pc[0]: 100%d[1].Worker[2]: exception:Mod Fatal Exception ()\n"
              "ERROR pc[0]: " +
                  thirty_two +
                  "[0]: let through\n"
                  "ERROR pc[0]: 100%d[1].Worker[2]: again\n"
                  "WARN  pc[0]: MOD: can't delete trace filter, name not found\n"
                  "WARN  pc[0]: MOD: can't add trace, out of filter entries\n"
                  "ERROR pc[0]: 100%d[1].Worker[2]: free again\n");
}

TEST(StrEndCopy, KeepsTheEndOfALongerText) {
    char dest[6];
    EXPECT_STREQ(strEndCopy(dest, "abcde", 6), "abcde");
    EXPECT_STREQ(strEndCopy(dest, "abcdef", 6), "bcdef");
    EXPECT_STREQ(strEndCopy(dest, "abc", 1), "");
}
