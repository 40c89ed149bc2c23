// Tasks and events.
#include "Common/OS/linux/psosapi/tasks.h"

#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/OS/syslogq.h"
#include "tests/support/eventually.h"
#include "tests/support/stdout_file.h"

namespace {

UInt32 Spawn(const char* name, fnptr* body, UInt32* args = nullptr, UInt32 priority = 10) {
    UInt32 id = 0;
    EXPECT_EQ(t_create(name, priority, 0, 0, 0, &id), kTaskOk);
    EXPECT_EQ(t_start(id, 0, body, args), kTaskOk);
    return id;
}

bool Ended(UInt32 id) {
    return Eventually([id] { return t_exists(id) == 0; });
}

std::atomic<UInt32> gWords[4];
std::atomic<UInt32> gResult;
std::atomic<UInt32> gCaptured;
std::atomic<int> gStage;

}  // namespace

TEST(Tasks, TheEntryGetsItsFourWordsAndTheTaskEndsWithIt) {
    UInt32 args[4] = {1, 0xFFFFFFFF, 3, 0x80000000};
    const UInt32 id = Spawn(
        "argsLONG",
        [](UInt32 a, UInt32 b, UInt32 c, UInt32 d) {
            gWords[0] = a, gWords[1] = b, gWords[2] = c, gWords[3] = d;
            UInt32 self = 0;
            t_ident(nullptr, 0, &self);
            gResult = self;
            EXPECT_STREQ(t_name(0), "args");
            EXPECT_EQ(t_setRefCon(0, 77), kTaskOk);
            EXPECT_EQ(t_getRefCon(self), 77U);
        },
        args);
    ASSERT_TRUE(Ended(id));
    EXPECT_EQ(gResult, id);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(gWords[i], args[i]);
    }
}

TEST(Tasks, NamesAreFoundInCreationOrderAndUnknownOnesStoreZero) {
    UInt32 first;
    UInt32 second;
    UInt32 found = 99;
    ASSERT_EQ(t_create("same", 1, 0, 0, 0, &first), kTaskOk);
    ASSERT_EQ(t_create("same", 2, 0, 0, 0, &second), kTaskOk);
    EXPECT_EQ(t_ident("same", 0, &found), kTaskOk);
    EXPECT_EQ(found, first);
    EXPECT_EQ(t_delete(first), 0U);
    EXPECT_EQ(t_ident("same", 0, &found), kTaskOk);
    EXPECT_EQ(found, second);
    EXPECT_EQ(t_ident("none", 0, &found), kTaskNotFound);
    EXPECT_EQ(found, 0U);
    found = 99;
    EXPECT_EQ(t_ident(nullptr, 0, &found), kTaskNotFound);  // this thread is no task
    EXPECT_EQ(found, 0U);
    UInt32 nameless;
    ASSERT_EQ(t_create(nullptr, 0, 0, 0, 0, &nameless), kTaskOk);
    EXPECT_STREQ(t_name(nameless), "");
}

TEST(Tasks, PrioritiesOutOfRangeBecomeZeroWithAWarning) {
    const StdoutFile out;
    InitSyslogInterface();
    const UInt32 id = Spawn(
        "prio", [](UInt32, UInt32, UInt32, UInt32) { tm_wkafter(1000); }, nullptr, 150);
    EXPECT_TRUE(out.WaitFor("os: t_start priority 150 out of range, setting to 0\n")) << out.Text();
    UInt32 old = 99;
    EXPECT_EQ(t_setpri(id, 20, &old), kTaskOk);
    EXPECT_EQ(old, 0U);
    EXPECT_EQ(t_setpri(id, 100, &old), kTaskOk);
    EXPECT_EQ(old, 20U);
    EXPECT_TRUE(out.WaitFor("os: t_setpri priority 100 out of range, setting to 0\n"));
    EXPECT_EQ(t_setpri(id, 5, &old), kTaskOk);
    EXPECT_EQ(old, 0U);
    EXPECT_EQ(t_delete(id), 0U);
    EXPECT_EQ(t_setpri(id, 1, &old), kTaskNotFound);
    EXPECT_TRUE(out.WaitFor("deleted task:prio\n")) << out.Text();
}

TEST(Tasks, StaleIdsTouchNothing) {
    const UInt32 id = Spawn("gone", [](UInt32, UInt32, UInt32, UInt32) {});
    ASSERT_TRUE(Ended(id));
    static UInt32 block[64] = {};
    for (const UInt32 bad : {id, id + 4, 3U, id_of(block)}) {
        EXPECT_EQ(ev_send(bad, 1), kTaskNotFound);
        EXPECT_EQ(t_delete(bad), 0U);
        EXPECT_EQ(t_start(bad, 0, nullptr, nullptr), kTaskNotFound);
        EXPECT_EQ(t_setRefCon(bad, 1), kTaskNotFound);
        EXPECT_EQ(t_getRefCon(bad), 0U);
        EXPECT_STREQ(t_name(bad), "????");
    }
    EXPECT_EQ(block[0], 0U);
}

TEST(Tasks, AttachedThreadsAreTasksUntilTheyEnd) {
    std::atomic<UInt32> id{0};
    std::thread thread([&] {
        UInt32 self = 42;
        EXPECT_EQ(t_attach("attd", 3, &self), kTaskOk);
        EXPECT_EQ(self, 42U);  // not written
        EXPECT_EQ(t_attach("agin", 3, &self), kTaskOk);
        ASSERT_EQ(t_ident(nullptr, 0, &self), kTaskOk);
        EXPECT_STREQ(t_name(0), "attd");
        id = self;
        UInt32 captured;
        EXPECT_EQ(ev_receive(1, 0, 0, &captured), kTaskOk);
    });
    ASSERT_TRUE(Eventually([&] { return id != 0; }));
    EXPECT_EQ(ev_send(id, 1), kTaskOk);
    thread.join();
    EXPECT_EQ(t_exists(id), 0U);
}

TEST(Tasks, AnAttachedThreadCanBeDeletedAndStillBeJoinedByItsMaker) {
    std::atomic<UInt32> id{0};
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void* arg) -> void* {
            t_attach("atde", 3, nullptr);
            UInt32 self;
            t_ident(nullptr, 0, &self);
            *static_cast<std::atomic<UInt32>*>(arg) = self;
            UInt32 captured;
            ev_receive(1, 0, 0, &captured);
            return nullptr;
        },
        &id);
    ASSERT_TRUE(Eventually([&] { return id != 0; }));
    EXPECT_EQ(t_delete(id), 0U);
    EXPECT_EQ(t_exists(id), 0U);
    void* result;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(Tasks, TheDeleteCallbackRunsOnceInTheDyingTaskHoweverItDies) {
    static std::atomic<int> runs;
    static std::atomic<UInt32> where;
    t_set_delete_callback([] {
        UInt32 self;
        t_ident(nullptr, 0, &self);
        where = self;
        runs++;
        t_delete(0);  // it is ending already: returns
        runs++;
    });
    fnptr* const ways[] = {
        [](UInt32, UInt32, UInt32, UInt32) {},
        [](UInt32, UInt32, UInt32, UInt32) { t_delete(0); },
        [](UInt32, UInt32, UInt32, UInt32) { pthread_exit(nullptr); },
        [](UInt32, UInt32, UInt32, UInt32) {
            gStage = 1;
            tm_wkafter(100000);
        },
    };
    for (fnptr* way : ways) {
        runs = 0;
        gStage = 0;
        const UInt32 id = Spawn("dies", way);
        if (way == ways[3]) {
            ASSERT_TRUE(Eventually([] { return gStage == 1; }));
            t_delete(id);
        }
        ASSERT_TRUE(Ended(id));
        EXPECT_EQ(runs, 2);
        EXPECT_EQ(where, id);
    }
    t_set_delete_callback(nullptr);
}

TEST(Tasks, TwoTasksThatDeleteEachOtherBothGo) {
    static UInt32 ids[2];
    for (int round = 0; round < 200; round++) {
        gStage = 0;
        for (UInt32& id : ids) {
            ASSERT_EQ(t_create("dual", 0, 0, 0, 0, &id), kTaskOk);
        }
        for (UInt32 i = 0; i < 2; i++) {
            UInt32 args[4] = {i, 0, 0, 0};
            t_start(
                ids[i], 0,
                [](UInt32 me, UInt32, UInt32, UInt32) {
                    gStage++;
                    while (gStage < 2) {
                        std::this_thread::yield();
                    }
                    t_delete(ids[1 - me]);
                },
                args);
        }
        ASSERT_TRUE(Ended(ids[0]));
        ASSERT_TRUE(Ended(ids[1]));
    }
}

TEST(Tasks, StartingAttachingAndDeletingTheSameTaskAtOnceIsSafe) {
    static std::atomic<bool> stop;
    stop = false;
    std::vector<std::thread> threads;
    threads.emplace_back([] {
        while (!stop) {
            UInt32 id;  // a priority out of range logs, which widens the race
            if (t_create("race", 200, 0, 0, 0, &id) == kTaskOk) {
                t_start(
                    id, 0, [](UInt32, UInt32, UInt32, UInt32) { tm_wkafter(1000); }, nullptr);
            }
        }
    });
    threads.emplace_back([] {
        while (!stop) {
            std::thread([] {
                t_attach("race", 200, nullptr);
                tm_wkafter(1);
            }).join();
        }
    });
    for (int i = 0; i < 2; i++) {
        threads.emplace_back([] {
            for (UInt32 id; !stop || t_ident("race", 0, &id) == kTaskOk;) {
                if (t_ident("race", 0, &id) == kTaskOk) {
                    t_delete(id);
                }
            }
        });
    }
    tm_wkafter(100);
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(Tasks, ReportsNameEveryTask) {
    InitSyslogInterface();
    const UInt32 id = Spawn(
        "rept",
        [](UInt32, UInt32, UInt32, UInt32) {
            gResult = static_cast<UInt32>(gettid());
            gStage = 1;
            tm_wkafter(100000);
        },
        nullptr, 33);
    ASSERT_TRUE(Eventually([] { return gStage == 1; }));
    const StdoutFile out;
    osTaskDump();
    osTaskUsage();
    cpu_usage_other();
    char line[80];
    snprintf(line, sizeof(line), "]    %08x  rept     33    %3d\n", id, getpid());
    EXPECT_TRUE(out.Has(line)) << out.Text();
    snprintf(line, sizeof(line), "rept   33  %6u ", gResult.load());
    EXPECT_TRUE(out.Has(line)) << out.Text();
    int priority = 0;
    EXPECT_STREQ(t_name_and_pri_from_pid(static_cast<int>(gResult.load()), &priority), "rept");
    EXPECT_EQ(priority, 33);
    EXPECT_STREQ(t_name_from_pid(1), "????");
    t_delete(id);
}

TEST(Events, MatchingKnowsAllAndAny) {
    const struct {
        UInt32 captured, mask, opt, matched;
    } cases[] = {{0x3, 0x1, 0, 0x1},
                 {0x3, 0x7, 0, 0},
                 {0x3, 0x7, kEvAny, 0x3},
                 {0x8, 0x7, kEvAny, 0},
                 {0xFFFFFFFF, 0x80000001, 0, 0x80000001}};
    for (const auto& c : cases) {
        EXPECT_EQ(events_matched(c.captured, c.mask, c.opt), c.matched);
    }
}

TEST(Events, OnlyTheMatchedBitsAreConsumed) {
    UInt32 captured = 0;
    EXPECT_EQ(ev_receive(1, 0, 0, &captured), kTaskNotATask);
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    EXPECT_EQ(ev_send(0, 0x13), kTaskOk);
    EXPECT_EQ(ev_receive(0x1, 0, 0, &captured), kTaskOk);
    EXPECT_EQ(captured, 0x1U);
    EXPECT_EQ(ev_receive(0, 0, 0, &captured), kTaskOk);
    EXPECT_EQ(captured, 0x12U);
    EXPECT_EQ(ev_receive(0x6, kEvNoWait, 0, &captured), kTaskNoEvents);
    EXPECT_EQ(ev_receive(0x6, kEvNoWait | kEvAny, 0, &captured), kTaskOk);
    EXPECT_EQ(captured, 0x2U);
    EXPECT_EQ(ev_receive(0x10, kEvAny, 5, &captured), kTaskOk);
    EXPECT_EQ(ev_receive(0xFFFFFFFF, kEvNoWait | kEvAny, 0, &captured), kTaskNoEvents);
}

TEST(Events, ATimedWaitExpiresAndLeavesNoTimer) {
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    UInt32 captured = 0;
    UInt32 result = 0;
    const double ms = MillisecondsOf([&] { result = ev_receive(1, 0, 5, &captured); });
    EXPECT_EQ(result, kTaskTimeOut);
    EXPECT_GE(ms, 39.0);  // the first of the five ticks may be almost over when it is armed
    ev_send(0, 1);
    EXPECT_EQ(ev_receive(1, 0, 5, &captured), kTaskOk);
    EXPECT_EQ(timerList, nullptr);
}

TEST(Events, EveryEventOfManySendersArrivesOnce) {
    static std::atomic<UInt32> receiver;
    static std::atomic<int> received[16];
    gStage = 0;
    const UInt32 id = Spawn("recv", [](UInt32, UInt32, UInt32, UInt32) {
        UInt32 captured;
        for (int timeouts = 0; timeouts < 1000;) {
            if (ev_receive(0xFFFF, kEvAny, 1 + static_cast<UInt32>(timeouts % 3), &captured) !=
                kTaskOk) {
                timeouts++;
                continue;
            }
            for (int bit = 0; bit < 16; bit++) {
                received[bit] += static_cast<int>(captured >> bit & 1);
            }
        }
    });
    receiver = id;
    std::vector<std::thread> senders;
    for (int bit = 0; bit < 16; bit++) {
        senders.emplace_back([bit] {
            for (int i = 0; i < 300; i++) {
                const int before = received[bit];
                ASSERT_EQ(ev_send(receiver, 1U << bit), kTaskOk);
                ASSERT_TRUE(Eventually([&] { return received[bit] == before + 1; }));
            }
        });
    }
    for (auto& sender : senders) {
        sender.join();
    }
    for (const auto& count : received) {
        EXPECT_EQ(count, 300);
    }
    t_delete(id);
    EXPECT_EQ(timerList, nullptr);
}
