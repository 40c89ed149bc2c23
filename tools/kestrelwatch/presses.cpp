// Two presses.
#include "tools/kestrelwatch/presses.h"

namespace watch {

bool Presses::Press(std::int64_t nowMs) {
    if (counted_ || (dueMs_ >= 0 && nowMs < dueMs_)) {
        counted_ = true;
        dueMs_ = -1;
        return true;
    }
    dueMs_ = nowMs + windowMs_;
    return false;
}

bool Presses::Expired(std::int64_t nowMs) {
    if (dueMs_ < 0 || nowMs < dueMs_) {
        return false;
    }
    dueMs_ = -1;
    return true;
}

}  // namespace watch
