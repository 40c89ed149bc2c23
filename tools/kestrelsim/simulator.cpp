// Order within one turn of the loop: openings and closings first, then each line, so that what a
// host wrote before it left is never mistaken for the next host's.
#include "tools/kestrelsim/simulator.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/kestrelsim/micro_unit.h"

namespace kestrelsim {

struct Simulator::Port {
    Port(int number_in, bool is_camera) : number(number_in), decoder(is_camera) {}

    const int number;
    LinkDecoder decoder;
    std::optional<UnitName> name;
    std::unique_ptr<Unit> unit;
    std::unique_ptr<Line> line;  // null once it is gone
    std::unique_ptr<Line> gone;  // kept, so that a closing that is seen is the host's
    int64_t bytes_left = INT64_MAX;
    int64_t bytes_to_hold = INT64_MAX;
    int64_t bytes_to_freeze = INT64_MAX;
    int64_t sent_to_freeze = INT64_MAX;
    bool hung = false;  // until the unit is switched off, which is the simulator's end
    std::multimap<Nanos, Piece> scheduled;
    std::optional<int> noise_ms;
    Nanos next_noise = kNever;
    int opened = 0;
};

Simulator::Simulator(const SimulatorOptions& options, State* state, Faults* faults, EventLog* log)
    : state_(state),
      faults_(faults),
      log_(log),
      exit_when_idle_(static_cast<Nanos>(options.exit_when_idle * static_cast<double>(kSecond))),
      hang_when_cut_(options.hang_when_cut),
      nodes_(options.folder),
      last_event_(MonotonicNow()) {
    for (int number = 0; number < kPorts; number++) {
        AddPort(number, options);
    }
}

Simulator::~Simulator() = default;

void Simulator::AddPort(int number, const SimulatorOptions& options) {
    auto port = std::make_unique<Port>(number, number == 0);
    LineTiming timing{options.baud, 0};
    if (number <= 1) {
        port->name = number == 0 ? UnitName::kCamera : UnitName::kMicro;
        port->unit = MakeUnit(*port->name);
        port->bytes_left = faults_->CloseAt(*port->name).value_or(INT64_MAX);
        port->bytes_to_hold = faults_->HoldAt(*port->name).value_or(INT64_MAX);
        port->bytes_to_freeze = faults_->FreezeAt(*port->name).value_or(INT64_MAX);
        port->sent_to_freeze = faults_->FreezeSent(*port->name).value_or(INT64_MAX);
        port->noise_ms = faults_->SteadyNoise(*port->name);
    }
    const auto attached = options.attach.find(number);
    if (attached != options.attach.end()) {
        // A line that is there already has a pace of its own.
        port->line =
            std::make_unique<Line>(Terminal::Attach(attached->second, options.baud), LineTiming{});
    } else {
        timing.patience = number == 1 ? options.patience_ms * kMillisecond : 0;
        Terminal terminal = Terminal::MakePseudo();
        nodes_.Link(number, terminal.path());
        port->line = std::make_unique<Line>(std::move(terminal), timing);
    }
    if (port->bytes_to_hold == 0) {
        port->line->terminal().HoldHost(true);
    }
    ports_.push_back(std::move(port));
}

std::unique_ptr<Unit> Simulator::MakeUnit(UnitName name) {
    const Verdict verdict = [this](const AnswerId& id) { return faults_->Acknowledges(id); };
    const ImageSink sink = [this](Image image, const Bytes& data) {
        state_->Keep(image, data);
        completed_ = state_->received().back();
    };
    const EraseSink erase = [this](Image image) { state_->Erase(image); };
    if (name == UnitName::kMicro) {
        return std::make_unique<MicroUnit>(state_->micro_version(), verdict, erase, sink);
    }
    return std::make_unique<CameraUnit>(state_->camera_versions(), verdict, erase, sink);
}

void Simulator::Run(int stop_fd) {
    for (;;) {
        std::vector<pollfd> polled = {{stop_fd, POLLIN, 0}, {nodes_.fd(), POLLIN, 0}};
        for (const auto& port : ports_) {
            const bool wanted = port->line && port->line->WantsPoll();
            polled.push_back({wanted ? port->line->terminal().fd() : -1, POLLIN, 0});
        }
        const Nanos wait = std::max<Nanos>(0, NextDeadline() - MonotonicNow());
        const timespec timeout{static_cast<time_t>(wait / kSecond),
                               static_cast<long>(wait % kSecond)};
        ppoll(polled.data(), polled.size(), &timeout, nullptr);
        const Nanos now = MonotonicNow();
        TakeNodeEvents(now);
        for (const auto& port : ports_) {
            Serve(port.get(), now);
        }
        const bool idle =
            exit_when_idle_ > 0 && now >= last_event_ + exit_when_idle_ &&
            std::none_of(ports_.begin(), ports_.end(), [](auto& it) { return it->opened > 0; });
        const bool all_gone = std::none_of(ports_.begin(), ports_.end(),
                                           [](auto& it) { return it->line != nullptr; });
        if ((polled[0].revents & POLLIN) != 0 || idle || all_gone) {
            break;
        }
    }
    TakeNodeEvents(MonotonicNow());
    for (const auto& port : ports_) {
        EndOfHost(port.get(), MonotonicNow());
    }
}

Nanos Simulator::NextDeadline() const {
    Nanos deadline = MonotonicNow() + 3600 * kSecond;
    if (exit_when_idle_ > 0) {
        // Lines that are still open keep the simulator up; they are looked at again in a while.
        deadline = std::max(last_event_ + exit_when_idle_, MonotonicNow() + 50 * kMillisecond);
    }
    for (const auto& port : ports_) {
        if (!port->line) {
            continue;
        }
        deadline = std::min({deadline, port->line->Deadline(), port->next_noise});
        if (!port->scheduled.empty()) {
            deadline = std::min(deadline, port->scheduled.begin()->first);
        }
    }
    return deadline;
}

void Simulator::TakeNodeEvents(Nanos now) {
    const std::vector<Nodes::Event> events = nodes_.Events();
    for (size_t i = 0; i < events.size(); i++) {
        Port* port = ports_[static_cast<size_t>(events[i].port)].get();
        last_event_ = now;
        if (events[i].opened) {
            port->opened++;
            log_->Event(port->number, "opened");
            continue;
        }
        port->opened -= port->opened > 0 ? 1 : 0;
        // What is waiting on a line that is open again may be the next host's already.
        const bool opened_again =
            std::any_of(events.begin() + static_cast<long>(i) + 1, events.end(),
                        [&](const Nodes::Event& it) { return it.port == port->number; });
        if (port->line && !opened_again) {
            Receive(port, port->line->HostLeft(static_cast<size_t>(port->bytes_left)), now);
        }
        EndOfHost(port, now);
        log_->Event(port->number, "closed");
    }
}

void Simulator::Serve(Port* port, Nanos now) {
    if (!port->line) {
        return;
    }
    // A host that opened the line a moment ago may have written already; its opening is told first.
    if (port->opened > 0 || !nodes_.Watches(port->number)) {
        const int64_t limit = std::min(port->bytes_left, port->bytes_to_freeze);
        Receive(port, port->line->Receive(now, static_cast<size_t>(limit)), now);
    }
    if (port->bytes_to_freeze == 0) {
        port->bytes_to_freeze = INT64_MAX;
        Freeze(port);
    }
    if (port->bytes_left == 0) {
        EndOfHost(port, now);
        CloseLine(port, "the line went away");
        return;
    }
    SendDue(port, now);
    if (!port->line) {
        return;
    }
    port->line->Advance(now);
    if (port->line->ended() && port->line->terminal().path().empty()) {
        EndOfHost(port, now);
        CloseLine(port, "the attached line ended");
    }
}

void Simulator::Receive(Port* port, const Bytes& bytes, Nanos now) {
    if (bytes.empty()) {
        return;
    }
    last_event_ = now;
    port->bytes_left -= static_cast<int64_t>(bytes.size());
    port->bytes_to_hold -= static_cast<int64_t>(bytes.size());
    if (port->bytes_to_freeze != INT64_MAX) {
        port->bytes_to_freeze =
            std::max<int64_t>(0, port->bytes_to_freeze - static_cast<int64_t>(bytes.size()));
    }
    if (port->bytes_to_hold <= 0 && port->line) {
        port->line->terminal().HoldHost(true);
    }
    if (!port->unit) {
        log_->Received(port->number, bytes, "no unit on this line");
        return;
    }
    for (const Decoded& decoded : port->decoder.Feed(bytes)) {
        Take(port, decoded, now);
    }
}

void Simulator::Take(Port* port, const Decoded& decoded, Nanos now) {
    if (const auto* refusal = std::get_if<Refusal>(&decoded)) {
        Refuse(*port, *refusal, "");
        return;
    }
    const auto& message = std::get<Message>(decoded);
    const Outcome outcome = port->unit->OnMessage(message);
    if (outcome.refusal) {
        Refuse(*port, *outcome.refusal, outcome.meaning);
        return;
    }
    log_->Received(port->number, message.wire, outcome.meaning);
    if (!completed_.empty()) {
        log_->Event(port->number, "image complete", std::exchange(completed_, {}));
    }
    if (port->noise_ms && port->next_noise == kNever) {
        port->next_noise = now;
    }
    if (port->hung) {
        log_->Event(port->number, "hangs until it is switched off");
    } else if (outcome.answer) {
        Schedule(port, *outcome.answer, now);
    }
}

void Simulator::Schedule(Port* port, const Answer& answer, Nanos now) {
    const std::vector<Piece> pieces = faults_->Shape(answer);
    if (pieces.empty()) {
        log_->Event(port->number, "answer withheld", answer.meaning);
    }
    Nanos at = now;
    for (const Piece& piece : pieces) {
        at += piece.delay_ms * kMillisecond;
        port->scheduled.emplace(at, piece);
    }
}

void Simulator::SendDue(Port* port, Nanos now) {
    const auto send = [&](const Bytes& bytes, const std::string& what) {
        log_->Sent(port->number, bytes, what);
        port->line->Send(bytes, now);
        last_event_ = now;
    };
    while (!port->scheduled.empty() && port->scheduled.begin()->first <= now) {
        Piece piece = port->scheduled.begin()->second;
        port->scheduled.erase(port->scheduled.begin());
        if (port->sent_to_freeze <= static_cast<int64_t>(piece.bytes.size())) {
            const auto cut =
                piece.bytes.begin() + static_cast<std::ptrdiff_t>(port->sent_to_freeze);
            port->sent_to_freeze = INT64_MAX;
            send(Bytes(piece.bytes.begin(), cut), piece.meaning);
            piece.bytes.erase(piece.bytes.begin(), cut);
            Freeze(port);
            if (!port->line) {
                return;
            }
        } else if (port->sent_to_freeze != INT64_MAX) {
            port->sent_to_freeze -= static_cast<int64_t>(piece.bytes.size());
        }
        if (!piece.bytes.empty()) {
            send(piece.bytes, piece.meaning);
        }
    }
    if (port->next_noise <= now) {
        send(faults_->Noise(1), "noise");
        port->next_noise = now + *port->noise_ms * kMillisecond;
    }
}

void Simulator::Refuse(const Port& port, const Refusal& refusal, const std::string& what) {
    constexpr size_t kShown = 16;
    refusals_++;
    log_->Refused(port.number, refusal, what);
    const std::string hex =
        ToHex(ByteView(refusal.wire).first(std::min(refusal.wire.size(), kShown)));
    fprintf(stderr, "kestrelsim: REFUSED on port %d: %s: %s%s%s (%zu bytes: %s%s)\n", port.number,
            ReasonText(refusal.reason), refusal.detail.c_str(), what.empty() ? "" : ", ",
            what.c_str(), refusal.wire.size(), hex.c_str(),
            refusal.wire.size() > kShown ? "..." : "");
}

void Simulator::EndOfHost(Port* port, Nanos now) {
    for (const Decoded& decoded : port->decoder.Finish()) {
        Take(port, decoded, now);
    }
    port->scheduled.clear();
    port->next_noise = kNever;
    const std::string broken = port->unit ? port->unit->OnLineClosed() : "";
    if (!broken.empty()) {
        given_up_.push_back(broken);
        log_->Event(port->number, "transfer given up", broken);
        port->hung = hang_when_cut_;
    }
}

// Whoever runs a fault campaign does meanwhile what it wants to happen at just this byte.
void Simulator::Freeze(Port* port) {
    log_->Event(port->number, "frozen");
    printf("kestrelsim: frozen on port %d\n", port->number);
    fflush(stdout);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGUSR1, SIGUSR2, SIGINT, SIGTERM}) {
        sigaddset(&signals, number);
    }
    int number = 0;
    sigwait(&signals, &number);
    if (number == SIGUSR2) {
        EndOfHost(port, MonotonicNow());
        CloseLine(port, "the line went away");
    } else if (number != SIGUSR1) {
        kill(getpid(), number);  // for the loop, which ends by it
    }
}

void Simulator::CloseLine(Port* port, const char* why) {
    log_->Event(port->number, why);
    if (!port->line->terminal().path().empty()) {
        nodes_.Unlink(port->number);
    }
    port->line->HangUp();
    port->gone = std::move(port->line);
}

}  // namespace kestrelsim
