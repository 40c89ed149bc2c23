// What the framework's tests share: the test's thread as a task, what is printed, tasks that host
// modules, and programs that end in an assertion.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/address.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "tests/support/eventually.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

using testing::ElementsAre;
using TextsT = std::vector<std::string>;

// Makes the calling thread a task.
inline UInt32 Attach() {
    UInt32 self = 0;
    t_attach("main", 0, &self);
    return ModSelf();
}

// Starts the log's output, with levels, and the framework.
inline void StartLog() {
    ASSERT_EQ(InitSyslogInterface(), 0);
    logmsg_set_format(kLogFormatLevel | kLogFormatProc);
    ModSetUp();
}

inline bool PoolsAreFull() {
    return gFreeDeferredFuncsAvailable == kModNumDeferredFuncs &&
           gFreeDCBsAvailable == kModNumDeferredCallbacks;
}

// How many files tasks leave open that are deleted while they do `use` again and again.
inline long FilesLeftOpen(void (*use)()) {
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const long before = open_files();
    for (int i = 0; i < 100; i++) {
        const UInt32 task = Spawn("file", [use] {
            for (;;) {
                use();
            }
        });
        usleep(500);
        t_delete(task);
    }
    return open_files() - before;
}

// A module that ends with its scope.
struct TestModule : ModT {
    explicit TestModule(const char* module_name = "m", int number = 0) : ModT{} {
        ModInit(this, module_name, number, nullptr);
    }
    ~TestModule() { ModExit(this); }
};

class TaskTest : public testing::Test {
  protected:
    // What `action` prints in this thread.
    template <typename ActionT>
    std::string Printed(ActionT action) const {
        const size_t before = out_.Text().size();
        action();
        return out_.Text().substr(before);
    }

    // Waits for these parts of the output, in any order.
    void ExpectLines(std::initializer_list<const char*> lines) const {
        for (const char* line : lines) {
            EXPECT_TRUE(out_.WaitFor(line)) << line;
        }
    }

    const StdoutFile out_;
    const UInt32 self_ = Attach();
};

struct DeathT {
    void (*misuse)();
    const char* report;
};

// Each case ends the program with its report (a regular expression), naming the service.
inline void ExpectDeaths(const char* service, std::initializer_list<DeathT> cases) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto die = [](const DeathT& c) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        c.misuse();
    };
    for (const DeathT& c : cases) {
        EXPECT_DEATH(die(c), std::string(c.report) + "(.|\n)*file Common/framework/" + service);
    }
}

class ModuleTask {
  public:
    explicit ModuleTask(const char* name) : id_(Spawn(name, ModTaskLoop)) {}
    ~ModuleTask() { Delete(); }

    UInt32 Id() const { return id_; }
    void Delete() {
        if (id_ != 0) {
            t_delete(std::exchange(id_, 0));
        }
    }

    // Runs `action` in the task and waits for its end.
    void Run(std::function<void()> action) {
        Post(std::move(action));
        EXPECT_TRUE(Eventually([this] { return pending_ == 0; }));
    }
    void Post(std::function<void()> action) {
        using RunT = std::function<void()>;
        pending_++;
        auto* run = new RunT([this, action = std::move(action)] {
            action();
            pending_--;
        });
        const auto call = [](void* user, void*) {
            (*std::unique_ptr<RunT>(static_cast<RunT*>(user)))();
        };
        ASSERT_EQ(ModDeferFunctionCall(id_, call, run, nullptr, 0), kNoError);
    }

    // From Block to Release the task serves nothing.
    void Block() {
        Post([this] {
            for (blocked_ = true; blocked_;) {
                tm_wkafter(1);
            }
        });
        EXPECT_TRUE(Eventually([this] { return blocked_.load(); }));
    }
    void Release() { blocked_ = false; }

  private:
    UInt32 id_;
    std::atomic<int> pending_{0};
    std::atomic<bool> blocked_{false};
};
