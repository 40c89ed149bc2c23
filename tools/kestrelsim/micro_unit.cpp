// The microcontroller takes twelve blocks of up to 512 bytes; the image's first byte is its
// version.
#include "tools/kestrelsim/micro_unit.h"

namespace kestrelsim {
namespace {

constexpr int kBlocks = 12;
constexpr size_t kBlockSize = 512;
constexpr uint8_t kStatusVersion = 1;
constexpr uint8_t kRebootCamera = 0x69;

// Start byte, reply code, and thirteen bytes of which the host reads the third as the version.
Answer VersionReply(uint8_t version) {
    Bytes bytes = {0xFF, 0x14, 0x00, 0x0D, version};
    for (const char letter : std::string("kestrelsim")) {
        bytes.push_back(static_cast<uint8_t>(letter));
    }
    return {{UnitName::kMicro, AnswerKind::kVersion}, bytes, "version 0x" + ToHex({&version, 1})};
}

}  // namespace

Outcome MicroUnit::OnMessage(const Message& message) {
    if (message.kind != MessageKind::kFrame) {
        return {"camera request",
                {},
                Refusal{Reason::kWrongLine, "a request for the camera", message.wire}};
    }
    switch (message.type) {
        case kTypeStatusRequest:
            return OnStatusRequest(message);
        case kTypeGeneralPurpose:
            return OnGeneralPurpose(message);
        case kTypeMicroBlock:
            return OnBlock(message);
        case kTypeCameraBlock:
        case kTypeSystemBlock:
            return {"camera block",
                    {},
                    Refusal{Reason::kWrongLine, "a block for the camera", message.wire}};
        default:
            return {"a message that this unit does not serve", {}, {}};
    }
}

Outcome MicroUnit::OnStatusRequest(const Message& message) {
    if (message.payload[0] != kStatusVersion) {
        return {"a status request that this unit does not serve", {}, {}};
    }
    // A new run starts with this, also where nobody sees the line being closed between two runs.
    OnLineClosed();
    return {"version request", VersionReply(*version_), {}};
}

Outcome MicroUnit::OnGeneralPurpose(const Message& message) const {
    return {message.payload[0] == kRebootCamera ? "request to reboot the camera"
                                                : "a command that this unit does not serve",
            {},
            {}};
}

Outcome MicroUnit::OnBlock(const Message& message) {
    if (!transfer_.Running()) {
        transfer_.Begin(kBlocks);
        ended_short_ = false;
    }
    std::string wrong = transfer_.Offer(message.payload);
    if (wrong.empty() && ended_short_ && transfer_.offered() > 0) {
        wrong = "data after a block that was not full";
    }
    const std::string name = "microcontroller block " + std::to_string(transfer_.next());
    if (!wrong.empty()) {
        return {name, {}, Refusal{Reason::kOutOfOrder, wrong, message.wire}};
    }
    const AnswerId id = transfer_.Id(UnitName::kMicro);
    const size_t size = transfer_.offered();
    if (transfer_.next() == 0 && id.attempt == 1) {
        erase_(Image::kMicro);
    }
    const bool ack = verdict_(id);
    ended_short_ = ended_short_ || size < kBlockSize;
    transfer_.Settle(ack);
    if (ack && !transfer_.Running()) {
        sink_(Image::kMicro, transfer_.data());
    }
    const std::string attempt = id.attempt > 1 ? ", attempt " + std::to_string(id.attempt) : "";
    return {name + " with " + std::to_string(size) + " bytes" + attempt,
            Answer{id, BlockReply(ack), ack ? "ACK" : "NACK"},
            {}};
}

std::string MicroUnit::OnLineClosed() {
    const bool broken = transfer_.Running() && !transfer_.Untouched();
    std::string text = broken ? transfer_.Progress() : "";
    transfer_.Begin(0);
    ended_short_ = false;
    return text;
}

}  // namespace kestrelsim
