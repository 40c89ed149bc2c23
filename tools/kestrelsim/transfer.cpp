// The image's blocks, and the small texts that every unit shares.
#include "tools/kestrelsim/transfer.h"

namespace kestrelsim {

Bytes BlockReply(bool ack) {
    return {0x48, ack ? kReplyAck : kReplyNack};
}

const char* ImageText(Image image) {
    static const char* const kTexts[] = {"microcontroller", "camera", "system"};
    return kTexts[static_cast<int>(image)];
}

const char* ImageFileName(Image image) {
    static const char* const kNames[] = {"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"};
    return kNames[static_cast<int>(image)];
}

void Transfer::Begin(int blocks) {
    blocks_ = blocks;
    next_ = 0;
    attempt_ = 0;
    held_.clear();
    data_.clear();
}

std::string Transfer::Offer(const Bytes& payload) {
    if (payload.empty()) {
        if (attempt_ == 0) {
            return "a retry of a block that was not refused";
        }
        attempt_++;
        return "";
    }
    if (payload.size() < 2) {
        return "half a block number";
    }
    const int number = payload[0] * 256 + payload[1];
    if (!Running() || number != next_) {
        return "block " + std::to_string(number) + ", expected " +
               (Running() ? std::to_string(next_) : "none");
    }
    held_.assign(payload.begin() + 2, payload.end());
    attempt_++;
    return "";
}

void Transfer::Settle(bool acknowledged) {
    if (!acknowledged) {
        return;
    }
    data_.insert(data_.end(), held_.begin(), held_.end());
    held_.clear();
    attempt_ = 0;
    next_++;
}

std::string Transfer::Progress() const {
    return std::string(ImageText(image_)) + " image: " + std::to_string(next_) + " of " +
           std::to_string(blocks_) + " blocks";
}

}  // namespace kestrelsim
