// Versions are remembered in versions.json, images under the names that the host gives them.
#include "tools/kestrelsim/state.h"

#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kestrelsim {
namespace {

// Written beside and renamed, so that a reader never sees half a file.
void WriteFile(const std::string& path, const char* data, size_t size) {
    const std::string fresh = path + ".new";
    {
        std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
        file.write(data, static_cast<std::streamsize>(size));
        file.flush();
        if (!file) {
            throw std::runtime_error("cannot write " + fresh);
        }
    }
    std::filesystem::rename(fresh, path);
}

// The leading hexadecimal digits of a version file, as the four that a reply has room for.
std::optional<std::string> ReadVersionFile(const std::string& path) {
    std::ifstream file(path);
    std::string word;
    if (!(file >> word)) {
        return std::nullopt;
    }
    const unsigned long value = strtoul(word.c_str(), nullptr, 16) & 0xFFFF;
    char text[8];
    snprintf(text, sizeof text, "%04lX", value);
    return text;
}

}  // namespace

State::State(StateOptions options) : options_(std::move(options)) {
    if (!options_.folder.empty()) {
        std::filesystem::create_directories(options_.folder);
        Load();
    }
    micro_version_ = options_.micro_version.value_or(micro_version_);
    camera_.camera = options_.camera_version.value_or(camera_.camera);
    camera_.system = options_.system_version.value_or(camera_.system);
    Save();
}

void State::Load() {
    std::ifstream file(options_.folder + "/versions.json");
    if (!file) {
        return;
    }
    try {
        const auto versions = nlohmann::json::parse(file);
        const int micro = versions.at("micro").get<int>();
        if (micro < 0 || micro > UINT8_MAX) {
            throw std::runtime_error(options_.folder + "/versions.json: micro is no byte");
        }
        micro_version_ = static_cast<uint8_t>(micro);
        camera_.camera = versions.at("camera").get<std::string>();
        camera_.system = versions.at("system").get<std::string>();
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(options_.folder + "/versions.json: " + error.what());
    }
    if (camera_.camera.size() != 4 || camera_.system.size() != 4) {
        throw std::runtime_error(options_.folder + "/versions.json: a version has four characters");
    }
}

void State::Save() const {
    if (options_.folder.empty()) {
        return;
    }
    const nlohmann::ordered_json versions = {
        {"micro", micro_version_}, {"camera", camera_.camera}, {"system", camera_.system}};
    const std::string text = versions.dump() + "\n";
    WriteFile(options_.folder + "/versions.json", text.data(), text.size());
}

std::optional<std::string> State::NewVersion(Image image) const {
    const bool is_camera = image == Image::kCamera;
    const auto& announced = is_camera ? options_.camera_new_version : options_.system_new_version;
    if (announced || options_.images_folder.empty()) {
        return announced;
    }
    return ReadVersionFile(options_.images_folder +
                           (is_camera ? "/overlookcamver" : "/overlooksysver"));
}

std::string& State::CameraVersion(Image image) {
    return image == Image::kCamera ? camera_.camera : camera_.system;
}

void State::Erase(Image image) {
    if (!options_.power_fail) {
        return;
    }
    if (image == Image::kMicro) {
        micro_version_ = 0xFF;
    } else {
        CameraVersion(image) = "FFFF";
    }
    if (!options_.folder.empty()) {
        std::filesystem::remove(options_.folder + "/" + ImageFileName(image));
        Save();
    }
}

void State::Keep(Image image, const Bytes& data) {
    received_.push_back(std::string(ImageText(image)) + " image, " + std::to_string(data.size()) +
                        " bytes");
    if (image == Image::kMicro) {
        micro_version_ = data.empty() ? micro_version_ : data[0];
    } else {
        std::string& version = CameraVersion(image);
        version = NewVersion(image).value_or(version);
    }
    if (!options_.folder.empty()) {
        WriteFile(options_.folder + "/" + ImageFileName(image),
                  reinterpret_cast<const char*>(data.data()), data.size());
        Save();
    }
}

}  // namespace kestrelsim
