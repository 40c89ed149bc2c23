// The decoder is a machine of four states that takes one byte at a time.
#include "tools/kestrelsim/link_decoder.h"

#include <stdio.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace kestrelsim {
namespace {

constexpr uint8_t kStart = 0xFF;
constexpr uint8_t kEscape = 0xFE;
constexpr size_t kChecksumSize = 3;
constexpr size_t kHeaderSize = 3;

struct FrameType {
    uint8_t type;
    size_t least;  // payload bytes
    size_t most;
};

constexpr FrameType kFrameTypes[] = {
    {0x41, 0, 512},
    {0x42, 0, 512},
    {0x43, 0, 512},
    {kTypeStatusRequest, 1, 1},
    {kTypeMicroBlock, 0, 2 + 512},
    {kTypeGeneralPurpose, 1, 1},
    {0x81, 0, 512},
    {kTypeCameraBlock, 2, 2 + 64512},
    {kTypeSystemBlock, 2, 2 + 64512},
};

struct RawRequest {
    MessageKind kind;
    uint8_t fixed[3];
    size_t size;
};

constexpr RawRequest kRawRequests[] = {
    {MessageKind::kDeviceTypeRequest, {0x82, 0x06, 0x77}, 3},
    {MessageKind::kFlashModeRequest, {0x87, 0x43, 0x72}, 8},
};

const RawRequest* FindRequest(uint8_t first) {
    const auto* found = std::find_if(std::begin(kRawRequests), std::end(kRawRequests),
                                     [&](const RawRequest& it) { return it.fixed[0] == first; });
    return found == std::end(kRawRequests) ? nullptr : found;
}

std::string Format(const char* format, unsigned a, unsigned b) {
    char text[96];
    snprintf(text, sizeof text, format, a, b);
    return text;
}

}  // namespace

const char* ReasonText(Reason reason) {
    switch (reason) {
        case Reason::kStrayBytes:
            return "stray bytes";
        case Reason::kBadStuffing:
            return "bad stuffing";
        case Reason::kBadChecksum:
            return "bad checksum";
        case Reason::kWrongLength:
            return "wrong length";
        case Reason::kUnknownType:
            return "unknown type";
        case Reason::kCutShort:
            return "cut short";
        case Reason::kBadRequest:
            return "bad request";
        case Reason::kWrongLine:
            return "wrong line";
        case Reason::kOutOfOrder:
            return "out of order";
    }
    return "refused";
}

std::vector<Decoded> LinkDecoder::Feed(ByteView bytes) {
    for (const uint8_t byte : bytes) {
        Take(byte);
    }
    return std::exchange(out_, {});
}

std::vector<Decoded> LinkDecoder::Finish() {
    ReportSkipped();
    if (state_ == State::kFrame || state_ == State::kRequest) {
        Refuse(Reason::kCutShort, "the line ended inside a message");
    }
    state_ = State::kIdle;
    return std::exchange(out_, {});
}

void LinkDecoder::Take(uint8_t byte) {
    if (state_ == State::kRequest) {
        TakeOfRequest(byte);
    } else if (byte == kStart) {
        StartFrame();
    } else if (state_ == State::kFrame) {
        TakeOfFrame(byte);
    } else if (state_ == State::kHunting) {
        skipped_.push_back(byte);
    } else {
        wire_ = {byte};
        if (raw_requests_ && FindRequest(byte) != nullptr) {
            state_ = State::kRequest;
        } else {
            Refuse(Reason::kStrayBytes, "neither a start byte nor a request");
        }
    }
}

void LinkDecoder::StartFrame() {
    if (state_ == State::kFrame) {
        Refuse(Reason::kCutShort, "a start byte inside a frame");
    }
    ReportSkipped();
    state_ = State::kFrame;
    escaped_ = false;
    wire_ = {kStart};
    body_.clear();
}

void LinkDecoder::TakeOfFrame(uint8_t byte) {
    wire_.push_back(byte);
    if (escaped_) {
        if (byte > 1) {
            Refuse(Reason::kBadStuffing, Format("0xFE 0x%02X", byte, 0));
            return;
        }
        escaped_ = false;
        body_.push_back(static_cast<uint8_t>(kEscape + byte));
    } else if (byte == kEscape) {
        escaped_ = true;
        return;
    } else {
        body_.push_back(byte);
    }
    if (body_.size() == kHeaderSize && !HeaderFits()) {
        return;
    }
    if (body_.size() > kHeaderSize && body_.size() == kHeaderSize + PayloadSize() + kChecksumSize) {
        CloseFrame();
    }
}

bool LinkDecoder::HeaderFits() {
    const auto* found = std::find_if(std::begin(kFrameTypes), std::end(kFrameTypes),
                                     [&](const FrameType& it) { return it.type == body_[0]; });
    if (found == std::end(kFrameTypes)) {
        Refuse(Reason::kUnknownType, Format("type 0x%02X", body_[0], 0));
        return false;
    }
    const unsigned length = body_[1] * 256U + body_[2];
    if (length < kChecksumSize || PayloadSize() < found->least || PayloadSize() > found->most) {
        Refuse(Reason::kWrongLength, Format("type 0x%02X with a length of %u", body_[0], length));
        return false;
    }
    return true;
}

void LinkDecoder::CloseFrame() {
    const auto payload_end = body_.end() - kChecksumSize;
    uint32_t sum = 0;
    for (auto it = body_.begin() + kHeaderSize; it != payload_end; ++it) {
        sum += *it;
    }
    const uint32_t stated = static_cast<uint32_t>(payload_end[0]) << 16 |
                            static_cast<uint32_t>(payload_end[1]) << 8 | payload_end[2];
    const uint32_t right = (0x1000000 - sum) & 0xFFFFFF;
    if (stated != right) {
        Refuse(Reason::kBadChecksum, Format("0x%06X where 0x%06X is right", stated, right));
        return;
    }
    out_.emplace_back(Message{MessageKind::kFrame, body_[0],
                              Bytes(body_.begin() + kHeaderSize, payload_end), std::move(wire_)});
    state_ = State::kIdle;
}

void LinkDecoder::TakeOfRequest(uint8_t byte) {
    wire_.push_back(byte);
    const RawRequest* request = FindRequest(wire_[0]);
    const size_t position = wire_.size() - 1;
    if (position < sizeof request->fixed && byte != request->fixed[position]) {
        Refuse(Reason::kBadRequest,
               Format("0x%02X as byte %u", byte, static_cast<unsigned>(position)));
        return;
    }
    if (wire_.size() == request->size) {
        out_.emplace_back(Message{
            request->kind, 0, Bytes(wire_.begin() + sizeof request->fixed, wire_.end()), wire_});
        state_ = State::kIdle;
    }
}

void LinkDecoder::Refuse(Reason reason, std::string detail) {
    out_.emplace_back(Refusal{reason, std::move(detail), std::exchange(wire_, {})});
    state_ = State::kHunting;
}

void LinkDecoder::ReportSkipped() {
    if (!skipped_.empty()) {
        wire_.swap(skipped_);
        skipped_.clear();
        const State before = state_;
        Refuse(Reason::kStrayBytes, "skipped after a refusal");
        state_ = before;
    }
}

}  // namespace kestrelsim
