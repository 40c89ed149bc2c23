// The simulator itself: one thread, one loop over lines, clock and signals.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/kestrelsim/event_log.h"
#include "tools/kestrelsim/faults.h"
#include "tools/kestrelsim/line.h"
#include "tools/kestrelsim/link_decoder.h"
#include "tools/kestrelsim/nodes.h"
#include "tools/kestrelsim/state.h"
#include "tools/kestrelsim/unit.h"

namespace kestrelsim {

struct SimulatorOptions {
    std::string folder;                 // of the nodes; empty: a temporary one
    int baud = 0;                       // 0: not paced
    int patience_ms = 40;               // of the microcontroller's line when paced
    double exit_when_idle = 0;          // seconds without any event; 0: never
    bool hang_when_cut = false;         // a unit whose transfer was given up answers no more
    std::map<int, std::string> attach;  // port to device, "fd:N" or "unix:PATH"
};

class Simulator {
  public:
    // Opens every line. Throws std::runtime_error.
    Simulator(const SimulatorOptions& options, State* state, Faults* faults, EventLog* log);
    ~Simulator();

    // Serves until `stop_fd` becomes readable, the attached lines end, or all has been idle for
    // long enough.
    void Run(int stop_fd);

    const std::string& folder() const { return nodes_.folder(); }
    int refusals() const { return refusals_; }
    const std::vector<std::string>& given_up() const { return given_up_; }

  private:
    struct Port;

    void AddPort(int number, const SimulatorOptions& options);
    std::unique_ptr<Unit> MakeUnit(UnitName name);
    Nanos NextDeadline() const;
    void TakeNodeEvents(Nanos now);
    void Serve(Port* port, Nanos now);
    void Receive(Port* port, const Bytes& bytes, Nanos now);
    void Take(Port* port, const Decoded& decoded, Nanos now);
    void Schedule(Port* port, const Answer& answer, Nanos now);
    void SendDue(Port* port, Nanos now);
    void Refuse(const Port& port, const Refusal& refusal, const std::string& what);
    void EndOfHost(Port* port, Nanos now);
    void CloseLine(Port* port, const char* why);
    void Freeze(Port* port);

    State* const state_;
    Faults* const faults_;
    EventLog* const log_;
    const Nanos exit_when_idle_;
    const bool hang_when_cut_;
    Nodes nodes_;
    std::vector<std::unique_ptr<Port>> ports_;
    Nanos last_event_;  // or the beginning
    int refusals_ = 0;
    std::string completed_;  // the image that the message at hand completed
    std::vector<std::string> given_up_;
};

}  // namespace kestrelsim
