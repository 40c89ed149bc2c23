// A simulated unit with old firmware and a folder of new images, for whole runs of the launcher.
#pragma once

#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>

#include "tests/support/child.h"

inline std::string FileText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::string RandomBytes(size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() >> 24);
    }
    return bytes;
}

// What the environment names in place of what was built along.
inline std::string Setting(const char* variable, const char* built) {
    const char* const value = getenv(variable);
    return value != nullptr ? value : built;
}

class Unit {
  public:
    // `options` are the simulator's.
    explicit Unit(const WordsT& options) {
        folder_ = std::filesystem::temp_directory_path() / "watchunit-XXXXXX";
        if (mkdtemp(folder_.data()) == nullptr) {
            abort();
        }
        std::filesystem::create_directory(Images());
        Write("kestrelmicro.bin", "\x21" + RandomBytes(6143, 1));
        Write("overlookcam.bin", RandomBytes(80000, 2));
        Write("overlooksys.bin", RandomBytes(20000, 3));
        Write("overlookcamver", "0102\n");
        Write("overlooksysver", "0304\n");
        WordsT words = {KESTRELSIM,
                        "--dir",
                        folder_ + "/dev",
                        "--state",
                        folder_ + "/state",
                        "--images",
                        Images(),
                        "--micro-version",
                        "0x20",
                        "--camera-version",
                        "0101",
                        "--system-version",
                        "0303"};
        words.insert(words.end(), options.begin(), options.end());
        simulator_ = std::make_unique<Child>(UserT::kPipes, words);
        simulator_->Sees("ready in");
    }
    ~Unit() {
        simulator_.reset();
        std::filesystem::remove_all(folder_);
    }
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    std::string Images() const { return folder_ + "/images"; }
    std::string Folder() const { return folder_; }
    void Write(const std::string& name, const std::string& content) const {
        std::ofstream(Images() + "/" + name, std::ios::binary) << content;
    }

    // The launcher in the images' folder; `delay` is the percentage of the designed pauses.
    WordsT Launcher(const WordsT& words, int delay = 2) const {
        WordsT all = {"/bin/sh",
                      "-c",
                      "cd \"$0\" && exec env \"$@\"",
                      Images(),
                      "HARBOR_DEV_DIR=" + folder_ + "/dev",
                      "HARBOR_DELAY_PERCENT=" + std::to_string(delay),
                      "TMPDIR=" + folder_,
                      Setting("KESTRELWATCH_PROGRAM", KESTRELWATCH)};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    // What the unit really holds, image by image: "new", "old" or "part". Ends the simulator.
    std::string Holds() {
        simulator_->Signal(SIGTERM);
        simulator_->End();
        const std::string& said = simulator_->output;
        std::string text;
        const struct {
            const char* name;
            const char* file;
        } images[] = {{"microcontroller", "kestrelmicro.bin"},
                      {"camera", "overlookcam.bin"},
                      {"system", "overlooksys.bin"}};
        for (const auto& image : images) {
            const bool part = said.find(std::string(image.name) + " image: ") != std::string::npos;
            const bool same =
                FileText(folder_ + "/state/" + image.file) == FileText(Images() + "/" + image.file);
            text += std::string(text.empty() ? "" : " ") + (same ? "new" : part ? "part" : "old");
        }
        return text;
    }

  private:
    std::string folder_;
    std::unique_ptr<Child> simulator_;
};
