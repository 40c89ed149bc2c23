// Tasks and events.
#include "Common/OS/linux/psosapi/tasks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

namespace {

bool Ended(UInt32 id) {
    return Eventually([id] { return t_exists(id) == 0; });
}

UInt32 Self() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    return self;
}

void Sleep(UInt32, UInt32, UInt32, UInt32) {
    tm_wkafter(1000);
}

}  // namespace

TEST(Tasks, TheEntryGetsItsFourWordsAndTheTaskEndsWithIt) {
    UInt32 args[4] = {1, 0xFFFFFFFF, 3, 0x80000000};
    static std::vector<UInt32> seen;
    UInt32 id = 0;
    ASSERT_EQ(t_create("argsLONG", 0, 0, 0, 0, &id), kTaskOk);
    t_start(
        id, 0,
        [](UInt32 a, UInt32 b, UInt32 c, UInt32 d) {
            EXPECT_STREQ(t_name(0), "args");
            EXPECT_EQ(t_setRefCon(0, 77), kTaskOk);
            seen = {a, b, c, d, Self(), t_getRefCon(Self())};
        },
        args);
    ASSERT_TRUE(Ended(id));
    EXPECT_THAT(seen, testing::ElementsAre(args[0], args[1], args[2], args[3], id, 77));
}

TEST(Tasks, RandomCreatingStartingDeletingAndChangingDiffersFromAModel) {
    struct TaskT {
        UInt32 id;
        std::string name;
        UInt32 priority, incarnation, refcon;
        int tid;
    };
    const sched_param levels[] = {{0}, {1}};
    const bool real_time = sched_setscheduler(0, SCHED_RR, &levels[1]) == 0 &&
                           sched_setscheduler(0, SCHED_OTHER, &levels[0]) == 0;
    StdoutFile out;
    std::vector<TaskT> tasks;  // in the order created
    std::set<std::pair<UInt32, UInt32>> uses;
    std::mt19937 random(5);
    const auto any = [&](size_t below) { return static_cast<UInt32>(random() % below); };
    for (int step = 0; step < 800; step++) {
        const auto at = tasks.begin() + any(std::max<size_t>(tasks.size(), 1));
        const UInt32 what = tasks.empty() ? 0 : any(10);
        const UInt32 number = any(130);
        if (what < 3) {
            const char* name = std::array{"same", "sameAsThat", "b", "\0"}[number % 4];
            UInt32 id = 0;
            EXPECT_EQ(t_create(*name != 0 ? name : nullptr, number, 1, 2, 3, &id), kTaskOk);
            tasks.push_back({id, std::string(name, 0, 4), number, t_incarnation(id), 0, 0});
            EXPECT_EQ(from_id<TCB>(id)->events_captured, 0U);
            EXPECT_TRUE(uses.insert({id, t_incarnation(id)}).second) << "a number used again";
        } else if (what < 5 && at->tid == 0) {
            EXPECT_EQ(t_start(at->id, 0, Sleep, nullptr), kTaskOk);
            at->priority = at->priority > 99 ? 0 : at->priority;
            EXPECT_TRUE(Eventually([&] {
                const MutexGuardT guard(&tcblistmutex);
                return (at->tid = from_id<TCB>(at->id)->tid) != 0;
            }));
        } else if (what < 7) {
            const UInt32 id = at->id;
            tasks.erase(at);
            EXPECT_EQ(ev_send(id, 1), kTaskOk);
            EXPECT_EQ(t_delete(id), kTaskOk);
            EXPECT_EQ(t_exists(id) + t_is_open(id) + t_incarnation(id) + t_getRefCon(id), 0U);
        } else if (what < 9) {
            const UInt32 now = number > 99 && number != at->priority ? 0 : number;
            UInt32 old = 999;
            EXPECT_EQ(t_setpri(at->id, number, &old), kTaskOk);
            EXPECT_EQ(old, at->priority);
            if (real_time && at->tid != 0 && number != old) {
                EXPECT_EQ(sched_getscheduler(at->tid),
                          now != 0 && old == 0 ? SCHED_RR : SCHED_OTHER);
            }
            at->priority = now;
        } else {
            EXPECT_EQ(t_setRefCon(at->id, at->refcon = number), kTaskOk);
        }
        if (step % 20 != 0) {
            continue;
        }
        std::map<std::string, UInt32> first = {{"none", 0}};
        char line[80];
        snprintf(line, sizeof(line), "T[%zu] Task:  ID    Name  Priority PID\n", tasks.size());
        std::string dump = line;
        for (const TaskT& task : tasks) {
            first.insert({task.name, task.id});
            EXPECT_STREQ(t_name(task.id), task.name.c_str());
            EXPECT_EQ(t_getRefCon(task.id), task.refcon);
            EXPECT_EQ(t_incarnation(task.id), task.incarnation);
            snprintf(line, sizeof(line), "T[%td]    %08x  %4s    %3u    %3d\n", &task - &tasks[0],
                     task.id, task.name.c_str(), task.priority, task.tid != 0 ? getpid() : 0);
            dump += line;
        }
        for (const auto& [name, id] : first) {
            UInt32 found = 99;
            EXPECT_EQ(t_ident(name.c_str(), 7, &found), id != 0 ? kTaskOk : kTaskNotFound);
            EXPECT_EQ(found, id) << name;
        }
        osTaskDump();
        ASSERT_EQ(out.Fresh(), dump);
    }
}

TEST(Tasks, OnlyAPriorityThatIsForcedToZeroIsReportedAndEveryDeletion) {
    const StdoutFile out;
    InitSyslogInterface();
    ASSERT_TRUE(out.WaitFor("os: task:logw "));
    syslogSetLogLevel(4);
    UInt32 id = 0;
    t_create("prio", 150, 0, 0, 0, &id);
    for (const UInt32 priority : {150, 99, 100}) {
        t_setpri(id, priority, nullptr);
    }
    t_delete(id);
    EXPECT_TRUE(
        out.WaitFor("\npc[0]: os: t_setpri priority 100 out of range, setting to 0\n"
                    "pc[0]: os: task ???? deleted task:prio, pid 0\n"
                    "pc[0]: os: deleted task:prio\n"));
    EXPECT_FALSE(out.Has("priority 150"));
}

TEST(Tasks, StaleIdsTouchNothing) {
    const UInt32 id = Spawn("gone", [] {});
    ASSERT_TRUE(Ended(id));
    static UInt32 block[64] = {};
    for (const UInt32 bad : {id, id + 4, 3U, id_of(block)}) {
        EXPECT_EQ(ev_send(bad, 1), kTaskNotFound);
        EXPECT_EQ(t_delete(bad), 0U);
        EXPECT_EQ(t_start(bad, 0, Sleep, nullptr), kTaskNotFound);
        EXPECT_STREQ(t_name(bad), "????");
    }
    EXPECT_EQ(block[0], 0U);
}

TEST(Tasks, AttachedThreadsAreTasksUntilTheyEndOrAreDeletedAndTheirMakerJoinsThem) {
    for (const bool deleted : {false, true}) {
        std::atomic<UInt32> id{0};
        const auto attach = [](void* arg) -> void* {
            UInt32 self;
            EXPECT_EQ(t_attach("attd", 3, &self), kTaskOk);
            EXPECT_EQ(t_attach("agin", 3, &self), kTaskOk);
            EXPECT_STREQ(t_name(0), "attd");
            *static_cast<std::atomic<UInt32>*>(arg) = Self();
            ev_receive(1, 0, 0, &self);
            return nullptr;
        };
        pthread_t thread;
        pthread_create(&thread, nullptr, attach, &id);
        ASSERT_TRUE(Eventually([&] { return id != 0; }));
        EXPECT_EQ(deleted ? t_delete(id) : ev_send(id, 1), kTaskOk);
        EXPECT_TRUE(!deleted || t_exists(id) == 0);
        void* result;
        EXPECT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, deleted ? PTHREAD_CANCELED : nullptr);
        EXPECT_EQ(t_exists(id), 0U);
    }
}

TEST(Tasks, TheDeleteCallbackRunsOnceInTheDyingTaskWhenItsStackHasUnwound) {
    static std::vector<UInt32> runs;
    t_set_delete_callback([] {
        runs.push_back(Self());
        t_delete(0);  // it is ending already: returns
        runs.push_back(Self());
    });
    const std::function<void()> ways[] = {[] {}, [] { t_delete(0); }, [] { pthread_exit(nullptr); },
                                          [] { tm_wkafter(100000); }};
    struct OnStackT {
        ~OnStackT() { runs.push_back(0); }
    };
    for (const auto& way : ways) {
        runs.clear();
        const UInt32 id = Spawn("dies", [&way] {
            const OnStackT held;
            way();
        });
        if (&way == &ways[3]) {
            t_delete(id);
        }
        ASSERT_TRUE(Ended(id));
        EXPECT_THAT(runs, testing::ElementsAre(0, id, id));
    }
}

TEST(Tasks, AnAttachedThreadDeletedInItsDeleteCallbackStillGoes) {
    static std::atomic<UInt32> ending;
    ending = 0;
    t_set_delete_callback([] {
        ending = Self();
        tm_wkafter(10);
    });
    std::thread attached(t_attach, "attd", 3, nullptr);
    ASSERT_TRUE(Eventually([] { return ending != 0; }));
    std::thread([] { t_delete(ending); }).detach();
    attached.join();
    EXPECT_TRUE(Ended(ending));
    t_set_delete_callback(nullptr);
}

TEST(Tasks, TwoTasksThatDeleteEachOtherBothGo) {
    for (int round = 0; round < 200; round++) {
        std::atomic<UInt32> ids[2] = {};
        for (const int i : {0, 1}) {
            ids[i] = Spawn("dual", [&ids, i] {
                while (ids[1 - i] == 0) {
                    std::this_thread::yield();
                }
                t_delete(ids[1 - i]);
            });
        }
        ASSERT_TRUE(Ended(ids[0]) && Ended(ids[1]));
    }
}

TEST(Tasks, StartingAttachingAndDeletingTheSameTaskAtOnceIsSafe) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) {
            UInt32 id;  // a priority out of range logs, which widens the race
            t_create("race", 200, 0, 0, 0, &id);
            t_start(id, 0, Sleep, nullptr);
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            std::thread(t_attach, "race", 200, nullptr).join();
        }
    });
    for (int i = 0; i < 2; i++) {
        threads.emplace_back([&] {
            for (UInt32 id; t_ident("race", 0, &id) == kTaskOk || !stop;) {
                t_delete(id != 0 ? id : 1);
            }
        });
    }
    tm_wkafter(50);
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(Tasks, TheUsageReportNamesEveryTask) {
    std::atomic<int> tid{0};
    const auto body = [&] {
        tid = gettid();
        tm_wkafter(100000);
    };
    const UInt32 id = Spawn("rept", body, 33);
    ASSERT_TRUE(Eventually([&] { return tid != 0; }));
    const StdoutFile out;
    osTaskUsage();
    cpu_usage_other();
    EXPECT_TRUE(out.Has(" " + std::to_string(tid) + " ")) << out.Text();
    t_delete(id);
}

TEST(Events, RandomSendsAndReceivesDifferFromAModelOrATimedWaitLeavesItsTimer) {
    UInt32 captured = 0;
    EXPECT_EQ(ev_receive(1, 0, 0, &captured), kTaskNotATask);
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    EXPECT_EQ(ev_send(0, 0x80000033), kTaskOk);
    std::mt19937 random(3);
    UInt32 present = 0x80000033;
    for (int step = 0; step < 20000; step++) {
        const UInt32 mask = static_cast<UInt32>(random() & random());
        const UInt32 opt = static_cast<UInt32>(random() % 4);
        if (step % 2 == 0) {
            const UInt32 few = mask & static_cast<UInt32>(random());
            EXPECT_EQ(ev_send(random() % 2 == 0 ? 0 : Self(), few), kTaskOk);
            present |= few;
            continue;
        }
        // A mask of no events only looks; waiting for what is not there takes a tick.
        const UInt32 wanted = step % 37 == 0 ? 0 : step % 3 == 0 ? mask & present : mask;
        const bool all = (present & wanted) == wanted;
        const UInt32 match = (opt & kEvAny) != 0 ? present & wanted : all ? wanted : 0;
        const bool waits = match == 0 && wanted != 0 && (opt & kEvNoWait) == 0;
        captured = 99;
        const UInt32 result = ev_receive(wanted, opt, 1, &captured);
        EXPECT_EQ(events_matched(present, wanted, opt), match);
        EXPECT_EQ(result, wanted == 0 || match != 0 ? kTaskOk
                          : waits                   ? kTaskTimeOut
                                                    : kTaskNoEvents);
        ASSERT_EQ(captured, wanted == 0 ? present : match != 0 ? match : 99) << step;
        present &= ~match;
        step += waits ? 600 : 0;
    }
    // The first of the five ticks may be almost over when it is armed.
    const auto wait = [&] { EXPECT_EQ(ev_receive(~present, 0, 5, &captured), kTaskTimeOut); };
    EXPECT_GE(MillisecondsOf(wait), 39);
    EXPECT_EQ(timerList, nullptr);
    for (int i = 0; i < kTimerPoolSize; i++) {
        tm_evafter(100000, 1, &captured);
    }
    EXPECT_GE(MillisecondsOf(wait), 50);  // without a timer it keeps time by itself
}

TEST(Events, EveryEventOfManySendersArrivesOnce) {
    std::atomic<int> received[16] = {};
    const UInt32 id = Spawn("recv", [&] {
        UInt32 captured;
        for (UInt32 i = 0;; i++) {
            const UInt32 ticks = i % 4 != 0 ? i % 4 : 1000000;
            if (ev_receive(0xFFFF, kEvAny, ticks, &captured) == kTaskOk) {
                for (int bit = 0; bit < 16; bit++) {
                    received[bit] += static_cast<int>(captured >> bit & 1);
                }
            }
        }
    });
    std::thread senders[16];
    for (int bit = 0; bit < 16; bit++) {
        senders[bit] = std::thread([&received, id, bit] {
            for (int i = 1; i <= 300; i++) {
                ASSERT_EQ(ev_send(id, 1U << bit), kTaskOk);
                ASSERT_TRUE(Eventually([&] { return received[bit] == i; }));
            }
        });
    }
    for (auto& sender : senders) {
        sender.join();
    }
    pthread_mutex_lock(&tmcblistmutex);
    EXPECT_TRUE(timerList == nullptr || timerList->next == nullptr);  // the time-out of one wait
    pthread_mutex_unlock(&tmcblistmutex);
    t_delete(id);
    EXPECT_THAT(received, testing::Each(testing::Eq(300)));
    EXPECT_EQ(timerList, nullptr);
}
