// What the simulated unit keeps: the images it received and the versions it reports, in memory and,
// when a folder is given, on disk, so that a simulator started later on the same folder continues
// where this one ended.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/kestrelsim/camera_unit.h"
#include "tools/kestrelsim/unit.h"

namespace kestrelsim {

struct StateOptions {
    std::string folder;         // empty: nothing is kept on disk
    std::string images_folder;  // where the host's version files lie; empty: unknown
    // Versions at start. Without one, what the folder remembers, else the defaults.
    std::optional<uint8_t> micro_version;
    std::optional<std::string> camera_version;
    std::optional<std::string> system_version;
    // Versions that the camera reports after an image came, since image bytes do not tell.
    std::optional<std::string> camera_new_version;
    std::optional<std::string> system_new_version;
    // An image that is under way has erased the one before, and is none until it is complete.
    bool power_fail = false;
};

class State {
  public:
    // Creates the folder when it is missing. Throws std::runtime_error when it cannot be used.
    explicit State(StateOptions options);

    const uint8_t* micro_version() const { return &micro_version_; }
    const CameraVersions* camera_versions() const { return &camera_; }

    // An image's first block came. With power_fail the image before it is gone, also from the
    // folder, and its version is the one of a target without firmware: 0xFF or "FFFF".
    void Erase(Image image);

    // Keeps a finished image and moves on the version that it brings.
    void Keep(Image image, const Bytes& data);

    // "microcontroller image, 6144 bytes", in the order in which they came.
    const std::vector<std::string>& received() const { return received_; }

  private:
    void Load();
    void Save() const;
    std::optional<std::string> NewVersion(Image image) const;
    std::string& CameraVersion(Image image);

    const StateOptions options_;
    uint8_t micro_version_ = 0x10;
    CameraVersions camera_{"1000", "2000"};
    std::vector<std::string> received_;
};

}  // namespace kestrelsim
