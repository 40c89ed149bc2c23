// What the framework and its peers are both given to do.
#pragma once

#include <time.h>

#include <cstddef>

// Arguments that travel with a call or an event.
struct Arguments {
    int step = 1;
    char text[60] = "a line of arguments";
};

constexpr size_t kListLength = 64;
constexpr size_t kListStride = 29;  // so that neighbours in time are none in the list

constexpr int kFarMs = 3600 * 1000;
constexpr int kPeriodMs = 100;
constexpr int kExpiryRounds = 5;

// Processor time of all threads of the process.
inline double ProcessorSeconds() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}
