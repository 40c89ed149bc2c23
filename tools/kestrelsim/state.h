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
};

class State {
  public:
    // Creates the folder when it is missing. Throws std::runtime_error when it cannot be used.
    explicit State(StateOptions options);

    uint8_t micro_version() const { return micro_version_; }
    const CameraVersions* camera_versions() const { return &camera_; }

    // Keeps a finished image and moves on the version that it brings.
    void Keep(Image image, const Bytes& data);

    // "microcontroller image, 6144 bytes", in the order in which they came.
    const std::vector<std::string>& received() const { return received_; }

  private:
    void Load();
    void Save() const;
    std::optional<std::string> NewVersion(Image image) const;

    const StateOptions options_;
    uint8_t micro_version_ = 0x10;
    CameraVersions camera_{"1000", "2000"};
    std::vector<std::string> received_;
};

}  // namespace kestrelsim
