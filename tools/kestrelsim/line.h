// One serial line as the unit feels it: bytes reach it, and leave it, no faster than the line
// carries them. The schedule is absolute: being woken late delays a byte, but never the bytes
// after it.
//
// A pseudo-terminal cannot make a host wait in `write` for a few hundred bytes: its buffer takes
// them at once, and the host starts to wait for the answer while, on a wire, the frame would still
// be on its way. Where the host waits no longer than a frame lasts (the microcontroller's 50 ms),
// the line is given a patience: a frame is handed over at the latest that long after it was
// written, while the host's next write is held until the line time of the frame is over. So the
// update as a whole still takes the time of the line.
#pragma once

#include <deque>

#include "tools/kestrelsim/bytes.h"
#include "tools/kestrelsim/clock.h"
#include "tools/kestrelsim/terminal.h"

namespace kestrelsim {

struct LineTiming {
    int baud = 0;        // bits per second, 11 bit times a byte; 0: as fast as it goes
    Nanos patience = 0;  // 0: bytes arrive when the line has carried them, however long it takes
};

class Line {
  public:
    Line(Terminal terminal, LineTiming timing) : terminal_(std::move(terminal)), timing_(timing) {}

    const Terminal& terminal() const { return terminal_; }

    // Whether readable bytes are news; otherwise Deadline says when to come back.
    bool WantsPoll() const { return timing_.baud == 0 || timing_.patience > 0 || !receiving_; }
    Nanos Deadline() const;

    // Bytes, at most `limit`, that have reached the unit by `now`.
    Bytes Receive(Nanos now, size_t limit);

    // Queues bytes behind what is still being sent.
    void Send(ByteView bytes, Nanos now);

    // Puts onto the line what is due.
    void Advance(Nanos now);

    // The host left. Returns what it wrote and the line had not carried yet; what was on its way
    // to it is lost.
    Bytes HostLeft(size_t limit);

    // The line goes away under the host. Nothing else may follow.
    void HangUp() { terminal_.HangUp(); }

    // Whether an attached line has come to its end.
    bool ended() const { return ended_; }

  private:
    struct Outgoing {
        Nanos due;
        uint8_t byte;
    };

    Nanos LineTime(size_t bytes) const;
    Bytes ReadNow(size_t limit);
    Bytes ReceivePaced(Nanos now, size_t limit);
    Bytes ReceiveWithPatience(Nanos now, size_t limit);

    Terminal terminal_;
    const LineTiming timing_;
    bool ended_ = false;

    bool receiving_ =
        false;  // bytes are on the line: since `since_`, of which `passed_` are through
    Nanos since_ = 0;
    size_t passed_ = 0;
    Nanos next_ = kNever;

    Bytes held_;  // with patience: written by the host, not handed over before `release_`
    Nanos release_ = kNever;
    Nanos busy_until_ = 0;
    bool holding_ = false;

    std::deque<Outgoing> outgoing_;
    Nanos sent_until_ = 0;
};

}  // namespace kestrelsim
