// Pacing: one byte lasts 11 bit times (start, 8 data, even parity, stop).
#include "tools/kestrelsim/line.h"

#include <algorithm>
#include <utility>

namespace kestrelsim {
namespace {

constexpr Nanos kBitsPerByte = 11;
constexpr size_t kReadSize = 65536;

// Bytes after which a paced line is looked at again at the latest. Well below the 4096 bytes that
// wait in a terminal's buffer, so that the buffer is refilled long before it runs dry.
constexpr size_t kGlance = 128;

}  // namespace

Nanos Line::LineTime(size_t bytes) const {
    return static_cast<Nanos>(bytes) * kBitsPerByte * kSecond / timing_.baud;
}

Nanos Line::Deadline() const {
    Nanos deadline = outgoing_.empty() ? kNever : outgoing_.front().due;
    if (receiving_) {
        deadline = std::min(deadline, next_);
    }
    if (!held_.empty()) {
        deadline = std::min(deadline, release_);
    }
    return holding_ ? std::min(deadline, busy_until_) : deadline;
}

Bytes Line::ReadNow(size_t limit) {
    Bytes bytes(std::min(limit, kReadSize));
    const long count = bytes.empty() ? 0 : terminal_.Read(bytes.data(), bytes.size());
    ended_ = ended_ || count < 0;
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

Bytes Line::Receive(Nanos now, size_t limit) {
    if (timing_.baud == 0) {
        return ReadNow(limit);
    }
    return timing_.patience > 0 ? ReceiveWithPatience(now, limit) : ReceivePaced(now, limit);
}

Bytes Line::ReceivePaced(Nanos now, size_t limit) {
    const size_t pending = terminal_.Pending();
    if (!receiving_) {
        if (pending == 0) {
            return ReadNow(1);  // nothing there, or the end
        }
        receiving_ = true;
        since_ = now;
        passed_ = 0;
    }
    const auto due = static_cast<size_t>((now - since_) * timing_.baud / (kBitsPerByte * kSecond));
    Bytes bytes = ReadNow(std::min({pending, due - passed_, limit}));
    passed_ += bytes.size();
    const size_t left = terminal_.Pending();
    receiving_ = left > 0;
    // One nanosecond more, so that the division above cannot round the last byte away.
    next_ = since_ + LineTime(passed_ + std::min(left, kGlance)) + 1;
    return bytes;
}

Bytes Line::ReceiveWithPatience(Nanos now, size_t limit) {
    const Bytes fresh = ReadNow(limit - std::min(limit, held_.size()));
    if (!fresh.empty()) {
        held_.insert(held_.end(), fresh.begin(), fresh.end());
        busy_until_ = std::max(now, busy_until_) + LineTime(fresh.size());
        release_ = std::min(busy_until_, now + timing_.patience);
        holding_ = true;
        terminal_.HoldHost(true);
    }
    if (holding_ && now >= busy_until_) {
        holding_ = false;
        terminal_.HoldHost(false);
    }
    return now >= release_ ? std::exchange(held_, {}) : Bytes{};
}

void Line::Send(ByteView bytes, Nanos now) {
    if (timing_.baud == 0) {
        terminal_.Write(bytes.data(), bytes.size());
        return;
    }
    sent_until_ = std::max(sent_until_, now);
    for (size_t i = 0; i < bytes.size(); i++) {
        outgoing_.push_back({sent_until_ + LineTime(i + 1), bytes[i]});
    }
    sent_until_ += LineTime(bytes.size());
}

void Line::Advance(Nanos now) {
    Bytes due;
    while (!outgoing_.empty() && outgoing_.front().due <= now) {
        due.push_back(outgoing_.front().byte);
        outgoing_.pop_front();
    }
    terminal_.Write(due.data(), due.size());
}

Bytes Line::HostLeft(size_t limit) {
    Bytes bytes = std::exchange(held_, {});
    for (Bytes more = ReadNow(limit - std::min(limit, bytes.size())); !more.empty();
         more = ReadNow(limit - std::min(limit, bytes.size()))) {
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    receiving_ = false;
    outgoing_.clear();
    if (holding_) {
        holding_ = false;
        terminal_.HoldHost(false);
    }
    terminal_.FlushToHost();
    return bytes;
}

}  // namespace kestrelsim
