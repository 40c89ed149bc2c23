// Decodes what arrives on a unit's line: link frames (start byte, type, big-endian length, payload,
// 24-bit checksum, byte stuffing) and, on the camera's line, the two raw requests. Written from the
// byte layout alone, so that it can bear witness against any sender. One decoder per line; the
// outcome does not depend on how the bytes are cut into calls.
#pragma once

#include <stdint.h>

#include <string>
#include <variant>
#include <vector>

#include "tools/kestrelsim/bytes.h"

namespace kestrelsim {

enum class MessageKind { kFrame, kDeviceTypeRequest, kFlashModeRequest };

// Frame types that the units know by name.
constexpr uint8_t kTypeStatusRequest = 0x44;
constexpr uint8_t kTypeMicroBlock = 0x48;
constexpr uint8_t kTypeGeneralPurpose = 0x49;
constexpr uint8_t kTypeCameraBlock = 0x88;
constexpr uint8_t kTypeSystemBlock = 0x89;

struct Message {
    MessageKind kind;
    uint8_t type;   // of a frame; 0 for a raw request
    Bytes payload;  // of a frame, unstuffed; of a raw request, what follows its three fixed bytes
    Bytes wire;     // every byte as it came
};

enum class Reason {
    kStrayBytes,   // bytes outside any message
    kBadStuffing,  // 0xFE followed by neither 0x00 nor 0x01
    kBadChecksum,
    kWrongLength,  // a length that the frame's type cannot have
    kUnknownType,
    kCutShort,    // a message that ended before its length
    kBadRequest,  // a raw request with wrong fixed bytes, or counts that contradict its mode
    kWrongLine,   // a message that belongs to the other unit
    kOutOfOrder   // a block that is not the one to come next
};

// The reason as two or three words.
const char* ReasonText(Reason reason);

struct Refusal {
    Reason reason;
    std::string detail;
    Bytes wire;
};

using Decoded = std::variant<Message, Refusal>;

class LinkDecoder {
  public:
    // `raw_requests`: whether the camera's raw requests may occur on this line.
    explicit LinkDecoder(bool raw_requests) : raw_requests_(raw_requests) {}

    // What `bytes` complete or spoil, in the order of the line. After a refusal everything up to
    // the next start byte is skipped, and reported as stray.
    std::vector<Decoded> Feed(ByteView bytes);

    // The line ended: reports a message cut short and starts afresh.
    std::vector<Decoded> Finish();

  private:
    enum class State { kIdle, kFrame, kRequest, kHunting };

    void Take(uint8_t byte);
    void StartFrame();
    void TakeOfFrame(uint8_t byte);
    void TakeOfRequest(uint8_t byte);
    bool HeaderFits();
    void CloseFrame();
    void Refuse(Reason reason, std::string detail);
    void ReportSkipped();
    size_t PayloadSize() const { return (size_t{body_[1]} << 8 | body_[2]) - 3; }

    const bool raw_requests_;
    State state_ = State::kIdle;
    bool escaped_ = false;
    Bytes wire_;     // of the message under way
    Bytes body_;     // the same, unstuffed, without the start byte
    Bytes skipped_;  // since the last refusal
    std::vector<Decoded> out_;
};

}  // namespace kestrelsim
