// The camera holds the sender to the block counts that the flash-mode request announced.
#include "tools/kestrelsim/camera_unit.h"

namespace kestrelsim {
namespace {

constexpr size_t kBlockSize = 64512;

enum : uint8_t { kModeSystem = 1, kModeCamera = 3, kModeBoth = 5 };

Outcome Refused(const Message& message, const char* meaning, Reason reason, std::string detail) {
    return {meaning, {}, Refusal{reason, std::move(detail), message.wire}};
}

}  // namespace

Outcome CameraUnit::OnMessage(const Message& message) {
    if (message.kind == MessageKind::kDeviceTypeRequest) {
        return OnDeviceTypeRequest();
    }
    if (message.kind == MessageKind::kFlashModeRequest) {
        return OnFlashModeRequest(message);
    }
    if (message.type == kTypeCameraBlock || message.type == kTypeSystemBlock) {
        return OnBlock(message);
    }
    return Refused(message, "microcontroller message", Reason::kWrongLine,
                   "a frame for the microcontroller");
}

Outcome CameraUnit::OnDeviceTypeRequest() const {
    Bytes bytes = {0xA0, 'O', 'V', 'L', 'K'};
    const std::string versions = versions_->system + versions_->camera;
    bytes.insert(bytes.end(), versions.begin(), versions.end());
    return {"device-type request",
            Answer{{UnitName::kCamera, AnswerKind::kDeviceType},
                   bytes,
                   "system version " + versions_->system + ", camera version " + versions_->camera},
            {}};
}

Outcome CameraUnit::OnFlashModeRequest(const Message& message) {
    const uint8_t mode = message.payload[0];
    const int camera = message.payload[1] * 256 + message.payload[2];
    const int system = message.payload[3] * 256 + message.payload[4];
    const std::string counts = "mode " + std::to_string(mode) + ", " + std::to_string(camera) +
                               " camera and " + std::to_string(system) + " system blocks";
    const bool fits = (mode == kModeSystem && camera == 0) ||
                      (mode == kModeCamera && system == 0) || mode == kModeBoth;
    if (!fits || camera + system == 0) {
        return Refused(message, "flash-mode request", Reason::kBadRequest, counts);
    }
    camera_.Begin(camera);
    system_.Begin(system);
    return {
        "flash-mode request, " + counts,
        Answer{{UnitName::kCamera, AnswerKind::kFlashMode}, {0xA0, 0x43, 0x72, mode}, "flash mode"},
        {}};
}

std::string CameraUnit::WrongWith(const Transfer& transfer, const Bytes& payload) const {
    if (&transfer == &system_ && camera_.Running()) {
        return "a system block before the camera image is complete";
    }
    const size_t size = payload.size() < 2 ? 0 : payload.size() - 2;
    const bool last = transfer.next() == transfer.blocks() - 1;
    if (transfer.Running() && (size == 0 || (size < kBlockSize && !last))) {
        return "a block of " + std::to_string(size) + " bytes in the middle of the image";
    }
    return "";
}

Outcome CameraUnit::OnBlock(const Message& message) {
    const bool is_camera = message.type == kTypeCameraBlock;
    const Image image = is_camera ? Image::kCamera : Image::kSystem;
    Transfer& transfer = is_camera ? camera_ : system_;
    std::string wrong = WrongWith(transfer, message.payload);
    if (wrong.empty()) {
        wrong = transfer.Offer(message.payload);
    }
    const std::string name =
        std::string(ImageText(image)) + " block " + std::to_string(transfer.next());
    if (!wrong.empty()) {
        return Refused(message, name.c_str(), Reason::kOutOfOrder, wrong);
    }
    const AnswerId id = transfer.Id(UnitName::kCamera);
    const size_t size = transfer.offered();
    if (transfer.next() == 0 && id.attempt == 1) {
        erase_(image);
    }
    const bool ack = verdict_(id);
    transfer.Settle(ack);
    if (ack && !transfer.Running()) {
        sink_(image, transfer.data());
    }
    return {name + " with " + std::to_string(size) + " bytes",
            Answer{id, BlockReply(ack), ack ? "ACK" : "NACK"},
            {}};
}

std::string CameraUnit::OnLineClosed() {
    std::string text;
    for (Transfer* transfer : {&camera_, &system_}) {
        if (transfer->Running()) {
            text += (text.empty() ? "" : ", ") + transfer->Progress();
        }
        transfer->Begin(0);
    }
    return text;
}

}  // namespace kestrelsim
