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
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"
#include "tests/support/timer_pool.h"

namespace {

// An entry function that shows its arguments in its task's word, and waits to be deleted.
void Show(UInt32 a, UInt32 b, UInt32 c, UInt32 d) {
    t_setRefCon(0, a + 3 * b + 5 * c + 7 * d);
    ev_receive(2, 0, 0, &a);
}

}  // namespace

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
    static UInt32 no_task[64];
    t_set_delete_callback(t_close);
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
            EXPECT_EQ(from_id<TCB>(id)->taskWaiting, 0);
            EXPECT_TRUE(uses.insert({id, t_incarnation(id)}).second) << "a number used again";
        } else if (what < 5 && at->tid == 0) {
            UInt32 args[4] = {number, 0xFFFFFFFF, 0x80000000 + number, 1};
            at->refcon = args[0] + 3 * args[1] + 5 * args[2] + 7 * args[3];
            EXPECT_EQ(t_start(at->id, 0, Show, args), kTaskOk);
            ASSERT_TRUE(Eventually([&] { return t_getRefCon(at->id) == at->refcon; }));
            at->priority = at->priority > 99 ? 0 : at->priority;
            at->tid = from_id<TCB>(at->id)->tid;
            EXPECT_EQ(t_name_from_pid(at->tid), t_name(at->id));
        } else if (what < 7) {
            const UInt32 id = at->id;
            EXPECT_EQ(ev_send(id, 1), kTaskOk);
            EXPECT_EQ(t_delete_incarnation(id, at->incarnation + 1), kTaskOk);  // means another
            EXPECT_EQ(t_exists(id), 1U);
            tasks.erase(at);
            EXPECT_EQ(t_delete(id), kTaskOk);
            const UInt32 inside = tasks.empty() ? 1 : tasks[0].id + 4;
            for (const UInt32 bad : {id, inside, id_of(no_task)}) {
                EXPECT_EQ(t_exists(bad) + t_is_open(bad) + t_incarnation(bad), 0U);
                EXPECT_EQ(t_getRefCon(bad) + t_delete(bad), 0U);
                EXPECT_EQ(ev_send(bad, 1), kTaskNotFound);
                EXPECT_EQ(t_start(bad, 0, Show, nullptr), kTaskNotFound);
                EXPECT_STREQ(t_name(bad), "????");
            }
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
            EXPECT_EQ(t_name(task.id), task.name);
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
    osTaskUsage();
    cpu_usage_other();
    const std::string usage = out.Fresh();
    for (const TaskT& task : tasks) {
        EXPECT_TRUE(task.tid == 0 ||
                    usage.find(" " + std::to_string(task.tid) + " ") != usage.npos);
    }
    EXPECT_EQ(std::count(no_task, std::end(no_task), 0U), 64);
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
        EXPECT_TRUE(deleted ? t_exists(id) == 0 : Ended(id));
        void* result;
        EXPECT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, deleted ? PTHREAD_CANCELED : nullptr);
    }
}

TEST(Tasks, TheDeleteCallbackRunsOnceInTheDyingTaskWhenItsStackHasUnwound) {
    static std::vector<UInt32> runs;
    t_set_delete_callback([] {
        runs.push_back(Self());
        t_delete(0);  // it is ending already: returns
        EXPECT_EQ(ev_send(0, 1), kTaskOk);
        t_close();
        EXPECT_EQ(ev_send(0, 1), kTaskNotFound);
        EXPECT_EQ(t_exists(Self()), 1U);
        runs.push_back(t_is_open(0));
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
        EXPECT_THAT(runs, testing::ElementsAre(0, id, 0));
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

TEST(Tasks, ATaskStartedTwiceAtOnceHasTwoThreadsOrDeletedTwiceIsFreedTwice) {
    const auto twice = [](auto action) {
        pthread_mutex_lock(&tcblistmutex);
        std::thread threads[] = {std::thread(action), std::thread(action)};
        usleep(20000);  // by now both are about to take it
        pthread_mutex_unlock(&tcblistmutex);
        threads[0].join();
        threads[1].join();
    };
    for (int round = 0; round < 5; round++) {
        UInt32 id = 0;
        t_create("twce", 0, 0, 0, 0, &id);
        std::atomic<int> started{0};
        twice([&] { started += t_start(id, 0, Show, nullptr) == kTaskOk ? 1 : 0; });
        EXPECT_EQ(started, 1);
        twice([id] { t_delete(id); });
        EXPECT_EQ(t_exists(id), 0U);
    }
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

TEST(Events, AnEventIsLostWhileOthersAreSentAndReceived) {
    constexpr int kSends = 10000;
    std::atomic<int> received[4] = {};
    const UInt32 id = Spawn("recv", [&] {
        UInt32 captured;
        for (UInt32 i = 0;; i++) {
            // By turns it looks, and waits with a time-out and without one.
            if (ev_receive(0xF, kEvAny | (i / 8 & 1), i % 4, &captured) == kTaskOk) {
                for (int bit = 0; bit < 4; bit++) {
                    received[bit] += static_cast<int>(captured >> bit & 1);
                }
            }
            ev_send(0, 0x10);
            EXPECT_EQ(ev_receive(0x10, kEvNoWait, 0, &captured), kTaskOk);
        }
    });
    std::thread senders[4];
    for (int bit = 0; bit < 4; bit++) {
        senders[bit] = std::thread([came = &received[bit], id, bit] {
            for (int i = 1; i <= kSends; i++) {
                ASSERT_EQ(ev_send(id, 1U << bit), kTaskOk);
                for (int look = 0; look < 1000 && *came < i; look++) {
                    std::this_thread::yield();
                }
                ASSERT_TRUE(Eventually([&] { return *came == i; })) << i;
            }
        });
    }
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        while (!stop) {
            ev_send(id, 0x20);
        }
    });
    for (auto& sender : senders) {
        sender.join();
    }
    stop = true;
    busy.join();
    EXPECT_LE(Length(&timerList), 1);  // the time-out of one wait
    t_delete(id);
    EXPECT_THAT(received, testing::Each(testing::Eq(kSends)));
    EXPECT_EQ(timerList, nullptr);
}
