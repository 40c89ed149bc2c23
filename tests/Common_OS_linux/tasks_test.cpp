// Tasks and events.
#include "Common/OS/linux/psosapi/tasks.h"

#include <gmock/gmock.h>

#include <thread>
#include <vector>

#include "Common/OS/linux/lowmem.h"
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

TEST(Tasks, NamesAreFoundInCreationOrderAndUnknownOnesStoreZero) {
    UInt32 ids[3];
    UInt32 found = 99;
    for (UInt32& id : ids) {
        ASSERT_EQ(t_create(&id == ids + 2 ? nullptr : "same", 1, 0, 0, 0, &id), kTaskOk);
    }
    for (const UInt32 id : {ids[0], ids[1]}) {
        EXPECT_EQ(t_ident("same", 0, &found), kTaskOk);
        EXPECT_EQ(found, id);
        t_delete(id);
    }
    for (const char* unknown : {"same", static_cast<const char*>(nullptr)}) {
        found = 99;
        EXPECT_EQ(t_ident(unknown, 0, &found), kTaskNotFound);  // this thread is no task
        EXPECT_EQ(found, 0U);
    }
    EXPECT_STREQ(t_name(ids[2]), "");
}

TEST(Tasks, PrioritiesOutOfRangeBecomeZeroWithAWarning) {
    const StdoutFile out;
    InitSyslogInterface();
    const UInt32 id = Spawn(
        "prio", [] { tm_wkafter(1000); }, 150);
    EXPECT_TRUE(out.WaitFor("os: t_start priority 150 out of range, setting to 0\n")) << out.Text();
    for (const auto& [priority, before] : {std::pair{20U, 0U}, {100, 20}, {5, 0}}) {
        UInt32 old = 99;
        EXPECT_EQ(t_setpri(id, priority, &old), kTaskOk);
        EXPECT_EQ(old, before);
    }
    t_delete(id);
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

TEST(Tasks, ReportsNameEveryTask) {
    std::atomic<int> tid{0};
    const auto body = [&] {
        tid = gettid();
        tm_wkafter(100000);
    };
    const UInt32 id = Spawn("rept", body, 33);
    ASSERT_TRUE(Eventually([&] { return tid != 0; }));
    const StdoutFile out;
    osTaskDump();
    osTaskUsage();
    cpu_usage_other();
    char line[80];
    snprintf(line, sizeof(line), "]    %08x  rept     33    %3d\n", id, getpid());
    EXPECT_TRUE(out.Has(line)) << out.Text();
    EXPECT_TRUE(out.Has(" " + std::to_string(tid) + " ")) << out.Text();
    t_delete(id);
}

TEST(Events, OnlyTheMatchedBitsAreConsumedAndATimedWaitLeavesNoTimer) {
    UInt32 captured = 0;
    EXPECT_EQ(ev_receive(1, 0, 0, &captured), kTaskNotATask);
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    EXPECT_EQ(ev_send(0, 0x80000033), kTaskOk);
    const struct {
        UInt32 mask, opt, ticks, result, captured;
    } cases[] = {
        {0x1, 0, 0, kTaskOk, 0x1},
        {0, 0, 0, kTaskOk, 0x80000032},  // only looks
        {0x6, kEvNoWait, 0, kTaskNoEvents, 0},
        {0x6, kEvNoWait | kEvAny, 0, kTaskOk, 0x2},
        {0x80000020, kEvNoWait, 0, kTaskOk, 0x80000020},
        {0x30, 0, 5, kTaskTimeOut, 0},
        {0x30, 0, 5, kTaskTimeOut, 0},
        {0x30, kEvAny, 5, kTaskOk, 0x10},
        {0xFFFFFFFF, kEvNoWait | kEvAny, 0, kTaskNoEvents, 0},
    };
    for (const auto& c : cases) {
        captured = 0;
        const double ms = MillisecondsOf(
            [&] { EXPECT_EQ(ev_receive(c.mask, c.opt, c.ticks, &captured), c.result); });
        EXPECT_EQ(captured, c.captured) << c.mask;
        // The first of the five ticks may be almost over when it is armed.
        EXPECT_TRUE(c.result != kTaskTimeOut || ms >= 39) << ms;
    }
    EXPECT_EQ(timerList, nullptr);
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
