// Waiting for what another thread does: polls, and gives up only after a time that no loaded
// machine needs.
#pragma once

#include <chrono>
#include <thread>

// True as soon as `condition()` is; false after `limit`.
template <typename ConditionT>
bool Eventually(ConditionT condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Milliseconds that `action()` takes.
template <typename ActionT>
double MillisecondsOf(ActionT action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}
