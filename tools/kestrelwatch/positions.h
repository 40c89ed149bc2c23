// What the progress pipe says. The updater opens the pipe, writes one decimal number without a
// line end and closes it, for each position; two of them may arrive as one run of digits ("12" and
// "13" as "1213"). It also prints each position on its output, right after writing it. Those lines
// settle what the digits mean; digits that no line explains are split by what is known of
// positions: they only grow, stay in the range and have no leading zero.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace watch {

// The range of positions asked of the updater; low < high.
struct RangeT {
    int low = 0;
    int high = 100;
};

class PositionStream {
  public:
    explicit PositionStream(RangeT range) : range_(range) {}

    // Takes what one read of the pipe gave. `nowMs` is a monotonic time in milliseconds.
    void Feed(std::string_view bytes, std::int64_t nowMs);

    // Takes a position that the updater printed. Bytes of the pipe that were written before the
    // line was printed must have been fed before.
    void Confirm(int position);

    // Interprets digits that have waited long enough for their line.
    void Settle(std::int64_t nowMs);

    // When Settle has something to do; -1: nothing waits.
    std::int64_t SettleDueMs() const;

    bool Any() const { return any_; }
    int Position() const { return position_; }

    // Whether the end of the range was reached. Once the updater has printed a position, only
    // printed positions count: a wrong guess at digits never looks like an end.
    bool AtEnd() const;

    // Share of the range that is done, 0 to 100.
    int Percent() const;

  private:
    RangeT range_;
    std::deque<std::string> waiting_;  // one entry a read
    std::int64_t waitingSinceMs_ = 0;
    bool any_ = false;
    int position_ = 0;
    bool confirmed_ = false;
    int highestConfirmed_ = 0;
};

// The last of the positions that the digits `run`, read at once after the position `after`, stand
// for; `after` itself when they make no sense. A run that is a valid position as a whole is one.
int LastOfRun(std::string_view run, int after, RangeT range);

}  // namespace watch
