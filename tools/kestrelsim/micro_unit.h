// The microcontroller board at the end of serial port 1: version requests, image blocks, and the
// request to reboot the camera.
#pragma once

#include <string>

#include "tools/kestrelsim/transfer.h"
#include "tools/kestrelsim/unit.h"

namespace kestrelsim {

class MicroUnit : public Unit {
  public:
    // `version` is read at every version request; the owner changes it when an image came.
    MicroUnit(const uint8_t* version, Verdict verdict, EraseSink erase, ImageSink sink)
        : version_(version),
          verdict_(std::move(verdict)),
          erase_(std::move(erase)),
          sink_(std::move(sink)) {}

    Outcome OnMessage(const Message& message) override;
    std::string OnLineClosed() override;

  private:
    Outcome OnStatusRequest(const Message& message);
    Outcome OnGeneralPurpose(const Message& message) const;
    Outcome OnBlock(const Message& message);

    const uint8_t* version_;
    Verdict verdict_;
    EraseSink erase_;
    ImageSink sink_;
    Transfer transfer_{Image::kMicro};
    bool ended_short_ = false;  // a block came that was not full: only empty ones may follow
};

}  // namespace kestrelsim
