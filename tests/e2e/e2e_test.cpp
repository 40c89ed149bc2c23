// The real updater against the simulated unit: each file of the folder `cases` holds all that can
// be seen of one case, and is compared with it as one text. With E2E_WRITE set, what was seen is
// written into the files instead.
//
//   # comment
//   ! OPTIONS                  of the simulator
//   % NAME SIZE FIRST          an image: SIZE bytes, the first one FIRST
//   $ COMMAND                  a shell command in the folder with the images, and what it shows
//   @ status 0                 how it ends
//   @ 1 > ff13                 at the end: what the unit met (< what it sent), port by port and in
//                              order; of long messages the beginning, the size and a checksum
//   @ unit 0 kestrelmicro.bin  how the unit ended, and the images that it kept unchanged
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/support/child.h"
#include "tests/support/eventually.h"

namespace {

namespace fs = std::filesystem;

constexpr int kAttempts = 8;  // a machine that stalls makes the updater miss an answer

std::string FileText(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

size_t Count(const std::string& text, const std::string& mark) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at++) {
        count++;
    }
    return count;
}

// Bytes that begin with `value` and hold every other one, those that need stuffing included.
void MakeImage(const std::string& path, size_t size, uint32_t value) {
    std::string image(size, static_cast<char>(value));
    uint32_t state = 0x2545F491U + value;
    for (size_t i = 1; i < size; i++) {
        state = state * 1664525U + 1013904223U;
        image[i] = static_cast<char>(state >> 24);
    }
    std::ofstream(path, std::ios::binary) << image;
}

std::string Shortened(const std::string& hex) {
    if (hex.size() <= 80) {
        return hex;
    }
    uint32_t checksum = 0;
    for (const char digit : hex) {
        checksum = checksum * 31 + static_cast<unsigned char>(digit);
    }
    return hex.substr(0, 40) + "... " + std::to_string(hex.size() / 2) + " bytes, checksum " +
           std::to_string(checksum);
}

// The unit's log, with consecutive bytes in one direction as one line.
std::string WireOf(const std::string& log) {
    const std::set<std::string> unseen = {"answer withheld", "image complete", "transfer given up"};
    std::string wire;
    std::string start;
    std::string hex;
    const auto end_line = [&] {
        wire += start.empty() ? "" : start + Shortened(hex) + "\n";
        start.clear();
        hex.clear();
    };
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const auto event = nlohmann::json::parse(line);
        const int port = event.value("port", -1);
        const std::string prefix = "@ " + std::to_string(port) + " ";
        if (event.contains("dir")) {
            const std::string now = prefix + (event["dir"] == "rx" ? "> " : "< ");
            if (now != start) {
                end_line();
            }
            start = now;
            hex += event["bytes"];
        } else if (port >= 0 && !unseen.contains(event["event"])) {
            end_line();
            wire += prefix + std::string(event["event"]) + "\n";
        }
    }
    end_line();
    return wire;
}

// A case's folders and unit, and everything that was seen so far.
class Rig {
  public:
    Rig() {
        // In memory where there is such a folder: the unit writes its log before it answers.
        const fs::path memory = "/dev/shm";
        folder_ = (fs::exists(memory) ? memory : fs::temp_directory_path()) / "e2e.XXXXXX";
        EXPECT_NE(mkdtemp(folder_.data()), nullptr);
        fs::create_directory(folder_ + "/work");
    }
    ~Rig() { fs::remove_all(folder_); }

    // Plays the case and returns what its file should hold.
    std::string Play(const std::string& file) {
        std::istringstream lines(file);
        std::string options;
        std::string seen;
        for (std::string line; std::getline(lines, line);) {
            const bool command = line.starts_with("$ ");
            if (command && !unit_) {
                StartUnit(options);
            }
            if (command || !unit_) {
                seen += line + "\n";
            }
            std::istringstream words(line.substr(std::min<size_t>(line.size(), 2)));
            std::string name;
            size_t size = 0;
            uint32_t first = 0;
            if (command) {
                seen += Run(line.substr(2));
            } else if (!unit_ && line.starts_with("! ")) {
                options += line.substr(1);
            } else if (!unit_ && line.starts_with("% ") && words >> name >> size >> first) {
                MakeImage(folder_ + "/work/" + name, size, first);
            }
        }
        return seen + EndUnit();
    }

  private:
    // Settings that are the same for the unit and what is played against it.
    std::unique_ptr<Child> Start(const std::string& command) {
        const std::string settings =
            "PATH=" + fs::path(E2E_PROGRAM).parent_path().string() +
            ":$PATH HARBOR_DELAY_PERCENT=5 HARBOR_DEV_DIR=" + folder_ + "/dev; export PATH " +
            "HARBOR_DELAY_PERCENT HARBOR_DEV_DIR; cd " + folder_ + "/work; ";
        return std::make_unique<Child>(UserT::kPipes, WordsT{"/bin/sh", "-c", settings + command});
    }

    void StartUnit(const std::string& options) {
        unit_ = Start("exec " E2E_UNIT " --dir ../dev --state ../state --log ../log --images ." +
                      options);
        EXPECT_TRUE(unit_->Sees("ready in"));
    }

    std::string Run(const std::string& command) {
        const auto child = Start(command);
        const int status = child->End();
        // The unit learns of the closing a moment after the updater has ended.
        Eventually(
            [&] {
                const std::string log = FileText(folder_ + "/log");
                return Count(log, "\"opened\"") == Count(log, "\"closed\"");
            },
            std::chrono::seconds(2));
        return child->output + child->error + "@ status " + std::to_string(status) + "\n";
    }

    std::string EndUnit() {
        unit_->Signal(SIGTERM);
        std::string end = "@ unit " + std::to_string(unit_->End());
        for (const char* name : {"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"}) {
            const std::string kept = FileText(folder_ + "/state/" + name);
            // The microcontroller has room for so much.
            const std::string sent =
                FileText(folder_ + "/work/" + name).substr(0, *name == 'k' ? 6144 : ~0U);
            end += kept.empty() ? "" : std::string(kept == sent ? " " : " changed:") + name;
        }
        end += fs::exists(folder_ + "/dev") ? " leaves its nodes\n" : "\n";
        return WireOf(FileText(folder_ + "/log")) + end;
    }

    std::string folder_;
    std::unique_ptr<Child> unit_;
};

size_t FailedReads(const std::string& text) {
    return Count(text, "Failed reading") + Count(text, "byteRead[0]") + Count(text, "byteRead[1]");
}

// An answer that was missed has the case played again, and nothing else does.
void Play(const std::string& name) {
    const std::string path = std::string(E2E_CASES) + "/" + name + ".txt";
    const std::string stated = FileText(path);
    std::string seen;
    bool missed = true;
    for (int attempt = 0; attempt < kAttempts && seen != stated && missed; attempt++) {
        seen = Rig().Play(stated);
        missed =
            FailedReads(seen) > FailedReads(stated) || Count(seen, " < ") < Count(stated, " < ");
    }
    if (getenv("E2E_WRITE") != nullptr) {
        std::ofstream(path) << seen;
        return;
    }
    EXPECT_EQ(stated, seen);
}

std::set<std::string> Cases() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(E2E_CASES)) {
        names.insert(entry.path().stem());
    }
    return names;
}

class EndToEnd : public testing::TestWithParam<std::string> {};

TEST_P(EndToEnd, ShowsAndDoes) {
    // Four pauses of three seconds, and the images' bytes at 11 bit times each. The last block of
    // the microcontroller is acknowledged up to ten milliseconds early.
    const double least =
        GetParam() == "ProgressInRealTime" ? 4 * 3000 + (600 + 300 + 200) * 11 / 115.2 - 10 : 0;
    EXPECT_GE(MillisecondsOf([] { Play(GetParam()); }), least);
}

INSTANTIATE_TEST_SUITE_P(Cases, EndToEnd, testing::ValuesIn(Cases()),
                         [](const auto& name) { return name.param; });

}  // namespace
