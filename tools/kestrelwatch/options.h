// The command line of kestrelwatch.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/kestrelwatch/positions.h"

namespace watch {

struct OptionsT {
    std::string help;  // not empty: print it and do nothing else
    std::string pipe;  // empty: a pipe in a private folder
    RangeT range;
    bool strict = false;
    bool plain = false;
    std::int64_t stallMs = 0;          // 0: no warning
    std::int64_t confirmMs = 0;        // time for the second press
    std::vector<std::string> command;  // the updater and its arguments, without "-p"
};

// Reads the command line. Throws SetupError with kStatusUsage or kStatusRange.
OptionsT ParseOptions(int argc, const char* const* argv);

}  // namespace watch
