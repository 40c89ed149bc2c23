// The camera at the end of serial port 0: device-type and flash-mode requests, then the blocks of
// its two images, the camera firmware before the system firmware.
#pragma once

#include <string>

#include "tools/kestrelsim/transfer.h"
#include "tools/kestrelsim/unit.h"

namespace kestrelsim {

// The two versions as the four characters that the device-type reply carries.
struct CameraVersions {
    std::string camera;
    std::string system;
};

class CameraUnit : public Unit {
  public:
    // `versions` is read at every device-type request; the owner changes it when an image came.
    CameraUnit(const CameraVersions* versions, Verdict verdict, EraseSink erase, ImageSink sink)
        : versions_(versions),
          verdict_(std::move(verdict)),
          erase_(std::move(erase)),
          sink_(std::move(sink)) {}

    Outcome OnMessage(const Message& message) override;
    std::string OnLineClosed() override;

  private:
    Outcome OnDeviceTypeRequest() const;
    Outcome OnFlashModeRequest(const Message& message);
    Outcome OnBlock(const Message& message);
    std::string WrongWith(const Transfer& transfer, const Bytes& payload) const;

    const CameraVersions* versions_;
    Verdict verdict_;
    EraseSink erase_;
    ImageSink sink_;
    Transfer camera_{Image::kCamera};
    Transfer system_{Image::kSystem};
};

}  // namespace kestrelsim
