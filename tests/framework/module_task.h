// A task that hosts modules, for tests: runs ModTaskLoop and, on demand, a test's code.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "tests/support/eventually.h"

inline UInt32 SelfId() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    return self;
}

// Makes the calling thread a task.
inline UInt32 Attach() {
    UInt32 ignored;
    t_attach("main", 0, &ignored);
    return SelfId();
}

// A module that ends with its scope.
struct TestModule : ModT {
    explicit TestModule(const char* module_name = "m", int number = 0) : ModT{} {
        ModInit(this, module_name, number, nullptr);
    }
    ~TestModule() { ModExit(this); }
    TestModule(const TestModule&) = delete;
    TestModule& operator=(const TestModule&) = delete;
};

// Starts the log's output, with levels, and the framework.
inline void StartLog() {
    ASSERT_EQ(InitSyslogInterface(), 0);
    logmsg_set_format(kLogFormatLevel | kLogFormatProc);
    ModSetUp();
}

class ModuleTask {
  public:
    explicit ModuleTask(const char* name) {
        EXPECT_EQ(t_create(name, 0, 0, 0, 0, &id_), kTaskOk);
        EXPECT_EQ(t_start(
                      id_, 0, [](UInt32, UInt32, UInt32, UInt32) { ModTaskLoop(); }, nullptr),
                  kTaskOk);
    }
    ~ModuleTask() { Delete(); }
    ModuleTask(const ModuleTask&) = delete;
    ModuleTask& operator=(const ModuleTask&) = delete;

    UInt32 Id() const { return id_; }

    void Delete() {
        if (id_ != 0) {
            t_delete(id_);
            id_ = 0;
        }
    }

    // Runs `action` in the task; Wait waits for all of them.
    void Post(std::function<void()> action) {
        auto* copy = new std::function<void()>(std::move(action));
        pending_++;
        struct ArgsT {
            ModuleTask* task;
        } args = {this};
        ASSERT_EQ(ModDeferFunctionCall(
                      id_,
                      [](void* userDefined, void* pArgs) {
                          auto* run = static_cast<std::function<void()>*>(userDefined);
                          (*run)();
                          delete run;
                          static_cast<ArgsT*>(pArgs)->task->pending_--;
                      },
                      copy, &args, sizeof(args)),
                  kNoError);
    }
    void Wait() {
        EXPECT_TRUE(Eventually([this] { return pending_ == 0; }));
    }
    void Run(std::function<void()> action) {
        Post(std::move(action));
        Wait();
    }

  private:
    UInt32 id_ = 0;
    std::atomic<int> pending_{0};
};
