// The faults that a simulated unit is told to show, from the command line or a script, and what
// they make of an answer. All randomness comes from one generator, so that the same seed and the
// same traffic give the same run.
#pragma once

#include <stdint.h>

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tools/kestrelsim/unit.h"

namespace kestrelsim {

enum class FaultKind {
    kNoise,        // `count` bytes before the answer, or those of `bytes`
    kDrop,         // no answer
    kLate,         // the answer `ms` later
    kSplit,        // single bytes, `ms` apart
    kDuplicate,    // the answer twice
    kCorrupt,      // byte number `byte` of the answer replaced by `value`
    kShort,        // only the first `count` bytes of the answer
    kNack,         // NACK for a block
    kWrongType,    // a device-type reply that begins with `value`
    kClose,        // the line goes away when `at` bytes have been received
    kHold,         // the host's writes are held when `at` bytes have been received
    kFreeze,       // all stands still when `at` bytes have been received, or `sent` bytes sent
    kSilent,       // no answer from here on
    kSlowErase,    // the answer to an image's first block `ms` later
    kSteadyNoise,  // one byte each `ms` from the first message on
};

struct Fault {
    FaultKind kind;
    std::string name;
    // Which answers: those that match every selector given.
    std::optional<UnitName> unit;
    std::optional<AnswerKind> answer;
    std::optional<Image> image;
    std::optional<int> block;
    std::optional<int> attempt;
    int times = -1;  // how often it still strikes; below 0 without end
    int after = 0;   // how many matching answers it still lets pass
    int ms = 0;
    int count = 0;
    int byte = 0;
    int value = 0;
    int64_t at = 0;
    int64_t sent = 0;
    Bytes bytes;
};

// A part of a shaped answer: sent `delay_ms` after the part before it.
struct Piece {
    int delay_ms;
    Bytes bytes;
    std::string meaning;
};

class Faults {
  public:
    // Both throw std::invalid_argument with a text for the user.
    // `text` is "noise unit=micro answer=version count=3".
    void Add(const std::string& text);
    // `script` is {"seed": 7, "faults": [{"fault": "noise", "unit": "micro", ...}, ...]}.
    void AddScript(const nlohmann::json& script);

    void Seed(uint32_t seed) { random_.seed(seed); }

    // Whether a block is acknowledged.
    bool Acknowledges(const AnswerId& id);

    // What goes onto the line in place of `answer`: nothing at all when it is dropped.
    std::vector<Piece> Shape(const Answer& answer);

    // After how many received bytes the unit's line goes away.
    std::optional<int64_t> CloseAt(UnitName unit) const;

    // After how many received bytes the host's writes are held.
    std::optional<int64_t> HoldAt(UnitName unit) const;

    // After how many received or sent bytes the simulator freezes.
    std::optional<int64_t> FreezeAt(UnitName unit) const;
    std::optional<int64_t> FreezeSent(UnitName unit) const;

    // Milliseconds between two bytes of steady noise.
    std::optional<int> SteadyNoise(UnitName unit) const;

    // Random bytes that are neither a version reply's 0xFF nor a device-type reply's 0xA0.
    Bytes Noise(int count);

  private:
    void AddItem(const nlohmann::json& item);
    const Fault* Find(FaultKind kind, UnitName unit) const;
    static bool Matches(const Fault& fault, const AnswerId& id);
    // Counts the answer.
    static bool Strikes(Fault* fault, const AnswerId& id);
    void ShapeBytes(const Fault& fault, Bytes* bytes, Bytes* noise, int* delay_ms);

    std::vector<Fault> faults_;
    bool silent_[2] = {false, false};
    std::mt19937 random_;
};

// What `fault=help` prints: every fault with its parameters, one a line.
std::string FaultHelp();

}  // namespace kestrelsim
