// The two presses that it takes to interrupt an update: the first only warns, a second one within
// the stated time counts, unless it follows the one before so closely that it may be a key held
// down or a nervous double press. Once one has counted, every later one counts at once.
#pragma once

#include <cstdint>

namespace watch {

enum class PressT {
    kFirst,    // warn
    kTooFast,  // say nothing
    kCounts,   // interrupt
};

class Presses {
  public:
    explicit Presses(std::int64_t windowMs) : windowMs_(windowMs) {}

    // Takes one press.
    PressT Press(std::int64_t nowMs);

    // True once, when the time for the second press has run out.
    bool Expired(std::int64_t nowMs);

    // When the time runs out; -1: no press is waiting for its second.
    std::int64_t DueMs() const { return dueMs_; }

  private:
    std::int64_t windowMs_;
    std::int64_t dueMs_ = -1;
    std::int64_t lastMs_ = 0;
    bool counted_ = false;
};

}  // namespace watch
