// Two presses.
#include "tools/kestrelwatch/presses.h"

namespace watch {

namespace {

// Longer than a keyboard waits before it repeats a key that is held.
const std::int64_t kApartMs = 700;

}  // namespace

PressT Presses::Press(std::int64_t nowMs) {
    const bool apart = nowMs - lastMs_ >= kApartMs;
    lastMs_ = nowMs;
    if (counted_) {
        return PressT::kCounts;
    }
    if (dueMs_ < 0 || nowMs >= dueMs_) {
        dueMs_ = nowMs + windowMs_;
        return PressT::kFirst;
    }
    if (!apart) {
        return PressT::kTooFast;
    }
    counted_ = true;
    dueMs_ = -1;
    return PressT::kCounts;
}

bool Presses::Expired(std::int64_t nowMs) {
    if (dueMs_ < 0 || nowMs < dueMs_) {
        return false;
    }
    dueMs_ = -1;
    return true;
}

}  // namespace watch
