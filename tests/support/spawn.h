// A task that runs a closure, and what tests ask about tasks.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>

#include "Common/OS/linux/psosapi/tasks.h"
#include "tests/support/eventually.h"

// The calling task's id, 0 for none.
inline UInt32 Self() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    return self;
}

// Waits until a task is gone.
inline bool Ended(UInt32 id) {
    return Eventually([id] { return t_exists(id) == 0; });
}

// Starts a task; what `body` refers to must outlive it. Call from one thread. Returns the id.
inline UInt32 Spawn(const char* name, std::function<void()> body, UInt32 priority = 10) {
    // Kept, as the task may be deleted before and while it runs.
    static auto& bodies = *new std::deque<std::function<void()>>;
    const auto at = static_cast<UInt64>(
        reinterpret_cast<std::uintptr_t>(&bodies.emplace_back(std::move(body))));
    UInt32 args[4] = {static_cast<UInt32>(at), static_cast<UInt32>(at >> 32), 0, 0};
    const auto run = [](UInt32 low, UInt32 high, UInt32, UInt32) {
        const auto place = static_cast<std::uintptr_t>(static_cast<UInt64>(high) << 32 | low);
        (*reinterpret_cast<std::function<void()>*>(place))();
    };
    UInt32 id = 0;
    EXPECT_EQ(t_create(name, priority, 0, 0, 0, &id), kTaskOk);
    EXPECT_EQ(t_start(id, 0, run, args), kTaskOk);
    return id;
}
