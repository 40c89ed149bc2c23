// The simulator's one clock: monotonic nanoseconds.
#pragma once

#include <stdint.h>
#include <time.h>

namespace kestrelsim {

using Nanos = int64_t;

constexpr Nanos kMillisecond = 1000000;
constexpr Nanos kSecond = 1000 * kMillisecond;
constexpr Nanos kNever = INT64_MAX;

inline Nanos MonotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kSecond + now.tv_nsec;
}

}  // namespace kestrelsim
