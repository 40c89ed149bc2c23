// The two presses that it takes to interrupt an update: the first only warns, a second one within
// the stated time counts. Once one has counted, every later one counts at once.
#pragma once

#include <cstdint>

namespace watch {

class Presses {
  public:
    explicit Presses(std::int64_t windowMs) : windowMs_(windowMs) {}

    // Takes one press; true when it counts.
    bool Press(std::int64_t nowMs);

    // True once, when the time for the second press has run out.
    bool Expired(std::int64_t nowMs);

    // When the time runs out; -1: no press is waiting for its second.
    std::int64_t DueMs() const { return dueMs_; }

  private:
    std::int64_t windowMs_;
    std::int64_t dueMs_ = -1;
    bool counted_ = false;
};

}  // namespace watch
