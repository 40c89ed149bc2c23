// Tasks and events.
#include "Common/OS/linux/psosapi/tasks.h"

#include <gmock/gmock.h>

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

namespace {

// What is known of one task, from outside.
struct TaskModelT {
    UInt32 id;
    std::string name;  // four characters at most
    UInt32 priority;
    UInt32 incarnation;
    bool started = false;
    UInt32 refcon = 0;
    int policy = SCHED_OTHER;
};

bool MayBeRealTime() {
    const sched_param round_robin = {1};
    const sched_param shared = {0};
    return sched_setscheduler(0, SCHED_RR, &round_robin) == 0 &&
           sched_setscheduler(0, SCHED_OTHER, &shared) == 0;
}

// Does random operations on tasks and on what is known of them.
class TaskModelsT {
  public:
    std::string text;  // what must be printed
    std::string log;   // what must be logged

    TaskModelsT() {
        UInt32 writer;
        t_ident("logw", 0, &writer);
        tasks_.push_back({writer, "logw", static_cast<UInt32>(from_id<TCB>(writer)->priority),
                          t_incarnation(writer), true});
    }

    void Create(const char* name, UInt32 priority) {
        UInt32 id = 0;
        EXPECT_EQ(t_create(name, priority, 1, 2, 3, &id), kTaskOk);
        tasks_.push_back(
            {id, std::string(name != nullptr ? name : "", 0, 4), priority, t_incarnation(id)});
        EXPECT_TRUE(uses_.insert({id, t_incarnation(id)}).second) << "a number used again";
    }

    void Start(TaskModelT& task) {
        Checked("t_start", &task.priority);
        EXPECT_EQ(t_start(task.id, 0, Sleep, nullptr), kTaskOk);
        task.started = true;
        EXPECT_TRUE(Eventually([&] { return t_is_open(task.id) != 0 && Tid(task) != 0; }));
    }

    void Delete(size_t at) {
        const TaskModelT task = tasks_[at];
        Print(&log, "pc[0]: os: task ???? deleted task:%4.4s, pid %d\n", task.name.c_str(),
              Pid(task));
        Print(&log, "pc[0]: os: deleted task:%s\n", Padded(task.name).c_str());
        EXPECT_EQ(t_delete(task.id), kTaskOk);
        EXPECT_EQ(t_exists(task.id) + t_is_open(task.id) + t_incarnation(task.id), 0U);
        EXPECT_EQ(t_start(task.id, 0, Sleep, nullptr), kTaskNotFound);
        tasks_.erase(tasks_.begin() + static_cast<long>(at));
    }

    void SetPriority(TaskModelT& task, UInt32 priority) {
        const UInt32 before = task.priority;
        UInt32 old = 999;
        EXPECT_EQ(t_setpri(task.id, priority, &old), kTaskOk);
        EXPECT_EQ(old, before);
        if (priority == before) {
            return;
        }
        task.priority = priority;
        Checked("t_setpri", &task.priority);
        if (task.started && real_time_) {
            task.policy = before == 0 && task.priority != 0 ? SCHED_RR : SCHED_OTHER;
            EXPECT_EQ(sched_getscheduler(Tid(task)), task.policy);
        }
    }

    void Look() {
        const std::string names[] = {"same", "b", "none", ""};
        for (const std::string& name : names) {
            UInt32 first = 0;
            for (const TaskModelT& task : tasks_) {
                first = first == 0 && task.name == name ? task.id : first;
            }
            UInt32 found = 99;
            EXPECT_EQ(t_ident(name.c_str(), 7, &found), first != 0 ? kTaskOk : kTaskNotFound);
            EXPECT_EQ(found, first) << name;
        }
        Print(&text, "T[%d] Task:  ID    Name  Priority PID\n", static_cast<int>(tasks_.size()));
        for (size_t i = 0; i < tasks_.size(); i++) {
            const TaskModelT& task = tasks_[i];
            EXPECT_STREQ(t_name(task.id), task.name.c_str());
            EXPECT_EQ(t_getRefCon(task.id), task.refcon);
            EXPECT_EQ(t_incarnation(task.id), task.incarnation);
            Print(&text, "T[%zu]    %08x  %4s    %3u    %3d\n", i, task.id, task.name.c_str(),
                  task.priority, Pid(task));
        }
        osTaskDump();
    }

    void Step(UInt32 what, UInt32 number) {
        const size_t at = tasks_.size() == 1 ? 0 : 1 + number % (tasks_.size() - 1);
        const char* const names[] = {"same", "sameAsThat", "b", nullptr};
        if (at == 0 || (what < 3 && tasks_.size() < 70)) {
            Create(names[number % 4], number / 4 % 130);
        } else if (what < 5 && !tasks_[at].started) {
            Start(tasks_[at]);
        } else if (what < 7) {
            Delete(at);
        } else if (what < 9) {
            SetPriority(tasks_[at], number % 3 == 0 ? tasks_[at].priority : number / 7 % 130);
        } else {
            tasks_[at].refcon = number;
            EXPECT_EQ(t_setRefCon(tasks_[at].id, number), kTaskOk);
        }
    }

    void DeleteAll() {
        while (tasks_.size() > 1) {
            Delete(tasks_.size() / 2);
        }
    }

  private:
    static int Tid(const TaskModelT& task) {
        const MutexGuardT guard(&tcblistmutex);
        return from_id<TCB>(task.id)->tid;
    }
    static int Pid(const TaskModelT& task) { return task.started ? getpid() : 0; }
    static std::string Padded(const std::string& name) {
        return std::string(4 - name.size(), ' ') + name;
    }

    template <typename... ArgsT>
    static void Print(std::string* text, const char* format, ArgsT... args) {
        char line[200];
        snprintf(line, sizeof(line), format, args...);
        *text += line;
    }

    void Checked(const char* caller, UInt32* priority) {
        if (*priority > 99) {
            Print(&log, "pc[0]: os: %s priority %u out of range, setting to 0\n", caller,
                  *priority);
            *priority = 0;
        }
    }

    const bool real_time_ = MayBeRealTime();
    std::vector<TaskModelT> tasks_;
    std::set<std::pair<UInt32, UInt32>> uses_;  // ids and incarnations so far
};

}  // namespace

TEST(Tasks, RandomCreatingStartingDeletingAndChangingDiffersFromAModel) {
    StdoutFile out;
    InitSyslogInterface();
    ASSERT_TRUE(out.WaitFor("os: task:logw "));  // from here on it shows its process
    syslogSetLogLevel(4);
    out.Fresh();
    TaskModelsT model;
    std::string text;
    std::string log;
    std::mt19937 random(5);
    for (int step = 0; step < 800; step++) {
        const UInt32 what = static_cast<UInt32>(random() % 10);
        model.Step(what, static_cast<UInt32>(random() % 100000));
        if (step % 20 == 0) {
            EXPECT_TRUE(Eventually([&] {
                log += out.Fresh();
                return log.size() >= model.log.size();
            }));
            model.Look();
            text += out.Fresh();
        }
    }
    EXPECT_EQ(text, model.text);
    EXPECT_EQ(log, model.log.substr(0, log.size()));
    model.DeleteAll();
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
