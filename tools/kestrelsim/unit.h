// What a simulated unit is to the rest of the simulator: it takes the decoded messages of its line
// and says what it made of each one and what it answers. Units know nothing of time, lines or
// faults; whether a block is acknowledged is asked of the outside.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tools/kestrelsim/bytes.h"
#include "tools/kestrelsim/link_decoder.h"

namespace kestrelsim {

enum class UnitName { kMicro, kCamera };
enum class Image { kMicro, kCamera, kSystem };
enum class AnswerKind { kVersion, kDeviceType, kFlashMode, kBlock };

// Which answer it is; faults are chosen by this.
struct AnswerId {
    UnitName unit;
    AnswerKind kind;
    Image image = Image::kMicro;  // of a block, and so the next two
    int block = -1;
    int attempt = 1;  // 1 for the block itself, then one more for each retry
};

struct Answer {
    AnswerId id;
    Bytes bytes;
    std::string meaning;
};

// Exactly one of `answer` and `refusal`, or neither for a message that is taken in silence.
struct Outcome {
    std::string meaning;
    std::optional<Answer> answer;
    std::optional<Refusal> refusal;
};

// Says whether a block that fits is acknowledged.
using Verdict = std::function<bool(const AnswerId&)>;

// Takes a finished image. Called once per image that is complete.
using ImageSink = std::function<void(Image, const Bytes&)>;

// Told that an image's first block has come: what the unit held before is being erased.
using EraseSink = std::function<void(Image)>;

class Unit {
  public:
    virtual ~Unit() = default;
    virtual Outcome OnMessage(const Message& message) = 0;

    // The sender left: a transfer under way is given up. Says which, empty when there was none.
    virtual std::string OnLineClosed() = 0;
};

constexpr uint8_t kReplyAck = 0x06;
constexpr uint8_t kReplyNack = 0x0F;

// The two bytes that answer a block. The first one is ignored by the host.
Bytes BlockReply(bool ack);

const char* ImageText(Image image);

// "kestrelmicro.bin" and so on.
const char* ImageFileName(Image image);

}  // namespace kestrelsim
