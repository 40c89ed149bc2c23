// Semaphores and the interrupts-off section.
#include "Common/OS/linux/semaphores.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

namespace {

UInt32 Create(UInt32 tokens) {
    UInt32 id = 0;
    EXPECT_EQ(sm_create("ABCDE", tokens, 0, &id), kSmOk);
    return id;
}

std::atomic<int> gWallClockAhead{0};  // seconds

}  // namespace

// The wall clock as long as it is wrong: what ends by it ends late.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME) {
        now->tv_sec += gWallClockAhead;
    }
    return result;
}

namespace {

// A task that does one thing after the other, told by the test.
class WorkerT {
  public:
    WorkerT() { Start(); }
    ~WorkerT() { t_delete(id_); }
    void Start() {
        id_ = Spawn("work", [this] {
            for (UInt32 event;;) {
                ev_receive(1, 0, 0, &event);
                job_();
                done_ = true;
            }
        });
    }
    void Do(std::function<void()> job) {
        job_ = std::move(job);
        done_ = false;
        ev_send(id_, 1);
        ASSERT_TRUE(Eventually([this] { return done_.load(); }));
    }
    // The task ends, and another one takes its place.
    void End() {
        t_delete(id_);
        Start();
    }

  private:
    UInt32 id_ = 0;
    std::function<void()> job_;
    std::atomic<bool> done_{false};
};

}  // namespace

TEST(Semaphore, RandomUseByTasksThatEndDiffersFromAModel) {
    constexpr int kNobody = -1;
    os_init();
    const StdoutFile out;
    InitSyslogInterface();
    syslogSetLogLevel(3);
    WorkerT workers[3];
    std::map<UInt32, int> holders;  // of each semaphore
    static UInt32 block[32];
    std::set<UInt32> refused = {0, 1, 0xFFFFFFFF, id_of(block)};  // and deleted ones
    int inside = kNobody;  // who has switched interrupts off, and how often
    UInt32 depth = 0;
    std::mt19937 random(9);
    for (int step = 0; step < 3000; step++) {
        const int who = static_cast<int>(random() % 3);
        auto chosen = holders.begin();
        std::advance(chosen, holders.empty() ? 0 : random() % holders.size());
        const UInt32 id = chosen != holders.end() ? chosen->first : 0;
        const int holder = chosen != holders.end() ? chosen->second : kNobody;
        const UInt32 what = static_cast<UInt32>(random() % 16);
        // Only who has nothing else waits: there is no order in what is taken here.
        const bool waits = inside != who && std::all_of(holders.begin(), holders.end(),
                                                        [&](auto& s) { return s.second != who; });
        if (id == 0 || (what == 0 && holders.size() < 40)) {
            const UInt32 tokens = waits ? static_cast<UInt32>(random() % 3) : 1;
            workers[who].Do([&] {
                const UInt32 made = Create(tokens);
                EXPECT_EQ(memcmp(from_id<SMCB>(made), "SEMAABCD", 8), 0);
                EXPECT_EQ(holders.count(made), 0U);
                refused.erase(made);
                refused.insert(made + 4);
                holders[made] = tokens == 0 ? who : kNobody;
            });
        } else if (what < 5) {
            const UInt32 opt = holder == kNobody && waits ? 0 : kSmNoWait;
            workers[who].Do(
                [&] { EXPECT_EQ(sm_p(id, opt, 0), holder == kNobody ? kSmOk : kSmTaken); });
            chosen->second = holder == kNobody ? who : holder;
        } else if (what < 10) {
            workers[who].Do([&] { EXPECT_EQ(sm_v(id), kSmOk); });
            chosen->second = holder == who ? kNobody : holder;
        } else if (what == 10 && (holder == kNobody || holder == who)) {
            workers[who].Do([&] { EXPECT_EQ(sm_delete(id), kSmOk); });
            holders.erase(chosen);
            refused.insert(id);
        } else if (what < 13 && (inside == who || inside == kNobody)) {
            workers[who].Do([&] { EXPECT_EQ(interruptsOff(), depth + 1); });
            inside = who;
            depth++;
        } else if (what < 15) {
            workers[who].Do([&] { interruptsRestore(depth + step % 2); });
            depth -= inside == who ? 1 : 0;
            inside = depth == 0 ? kNobody : inside;
        } else if (step % 4 == 0) {
            workers[who].End();
            for (auto& [smid, held_by] : holders) {
                held_by = held_by == who ? kNobody : held_by;
            }
            depth = inside == who ? 0 : depth;
            inside = inside == who ? kNobody : inside;
        }
        const int busy = pthread_mutex_trylock(&intsoffmutex);  // this thread is never inside
        EXPECT_EQ(busy, inside == kNobody ? 0 : EBUSY);
        if (busy == 0) {
            pthread_mutex_unlock(&intsoffmutex);
        }
        for (const UInt32 bad : refused) {
            ASSERT_EQ(sm_p(bad, 0, 0) + sm_v(bad) + sm_delete(bad), 3 * kSmBadId) << bad;
        }
    }
    EXPECT_LT(refused.size(), 150U);  // memory is used again
    for (const char* line :
         {"inconsistent intsoffcount: 1 oldie: 2\n", "called without", "re-ent"}) {
        EXPECT_TRUE(out.WaitFor(line)) << line;
    }
}

TEST(Semaphore, ZeroTokensMeanTakenByTheCreatorAndAWaiterCanBeDeleted) {
    const UInt32 id = Create(0);
    std::atomic<int> got{0};
    UInt32 waiters[2];
    gWallClockAhead = 1000;
    for (UInt32& waiter : waiters) {
        waiter = Spawn("wait", [&] {
            EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmTaken);
            EXPECT_EQ(sm_p(id, 0, 1), kSmOk);  // the time-out is ignored
            got++;
            EXPECT_EQ(sm_v(id), kSmOk);
        });
    }
    usleep(150000);
    t_delete(waiters[0]);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(sm_v(id), kSmOk);
    EXPECT_TRUE(Eventually([&] { return t_exists(waiters[1]) == 0; }));
    EXPECT_EQ(got, 1);
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmOk);
}
