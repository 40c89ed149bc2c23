// Positions out of digits.
#include "tools/kestrelwatch/positions.h"

#include <ctype.h>

#include <algorithm>
#include <set>
#include <utility>

namespace watch {

namespace {

const std::int64_t kLineWaitMs = 250;
const size_t kMaxDigits = 10;  // of a position
const size_t kMaxRun = 8192;   // longer ones are nothing that the updater wrote

// Finds the split with the smallest steps, as the updater's own steps are small.
class RunSplitter {
  public:
    RunSplitter(std::string_view run, int high) : run_(run), high_(high) {}

    // The last number of a split of everything from `start` on, or -1.
    int Last(size_t start, int after) {
        if (start == run_.size()) {
            return after;
        }
        if (run_[start] == '0' || !tried_.insert({start, after}).second) {
            return -1;
        }
        std::int64_t number = 0;
        for (size_t end = start; end < run_.size() && end < start + kMaxDigits; end++) {
            number = number * 10 + (run_[end] - '0');
            if (number > high_) {
                break;
            }
            if (number > after) {
                const int last = Last(end + 1, static_cast<int>(number));
                if (last >= 0) {
                    return last;
                }
            }
        }
        return -1;
    }

  private:
    std::string_view run_;
    int high_;
    std::set<std::pair<size_t, int>> tried_;
};

bool IsDigit(char c) {
    return isdigit(static_cast<unsigned char>(c)) != 0;
}

// `after` advanced over every run of digits in one read; other bytes only separate.
int LastOfRead(std::string_view bytes, int after, RangeT range) {
    auto at = bytes.begin();
    while ((at = std::find_if(at, bytes.end(), IsDigit)) != bytes.end()) {
        const auto end = std::find_if_not(at, bytes.end(), IsDigit);
        after = LastOfRun({at, end}, after, range);
        at = end;
    }
    return after;
}

}  // namespace

int LastOfRun(std::string_view run, int after, RangeT range) {
    // A position of 0 or less, or below the range, is never written.
    after = std::max({after, 0, range.low - 1});
    if (run.size() > kMaxRun) {
        return after;
    }
    if (run.size() <= kMaxDigits && run[0] != '0') {
        const std::int64_t whole = std::stoll(std::string(run));
        if (whole > after && whole <= range.high) {
            return static_cast<int>(whole);
        }
    }
    return std::max(after, RunSplitter(run, range.high).Last(0, after));
}

void PositionStream::Feed(std::string_view bytes, std::int64_t nowMs) {
    if (bytes.empty()) {
        return;
    }
    if (waiting_.empty()) {
        waitingSinceMs_ = nowMs;
    }
    waiting_.emplace_back(bytes);
}

void PositionStream::Confirm(int position) {
    const std::string digits = std::to_string(position);
    const auto match = std::find_if(waiting_.begin(), waiting_.end(),
                                    [&](const auto& read) { return read.starts_with(digits); });
    if (match != waiting_.end()) {
        // Whatever was read before this number is older than it.
        match->erase(0, digits.size());
        waiting_.erase(waiting_.begin(), match->empty() ? match + 1 : match);
    }
    any_ = true;
    position_ = position;
    highestConfirmed_ = confirmed_ ? std::max(highestConfirmed_, position) : position;
    confirmed_ = true;
}

void PositionStream::Settle(std::int64_t nowMs) {
    if (waiting_.empty() || nowMs < SettleDueMs()) {
        return;
    }
    const int before = any_ ? position_ : std::max(0, range_.low - 1);
    int last = before;
    for (const std::string& read : waiting_) {
        last = LastOfRead(read, last, range_);
    }
    waiting_.clear();
    if (last > before) {
        any_ = true;
        position_ = last;
    }
}

std::int64_t PositionStream::SettleDueMs() const {
    return waiting_.empty() ? -1 : waitingSinceMs_ + kLineWaitMs;
}

bool PositionStream::AtEnd() const {
    return any_ && (confirmed_ ? highestConfirmed_ : position_) >= range_.high;
}

int PositionStream::Percent() const {
    if (!any_) {
        return 0;
    }
    const std::int64_t width = std::int64_t{range_.high} - range_.low;
    const std::int64_t done = std::int64_t{position_} - range_.low;
    return static_cast<int>(std::clamp(done * 100 / width, std::int64_t{0}, std::int64_t{100}));
}

}  // namespace watch
