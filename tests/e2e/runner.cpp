// No process is waited for without a limit.
#include "tests/e2e/runner.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <thread>

#include "tests/support/child.h"
#include "tests/support/eventually.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr int kAttempts = 4;
// A process that wants the processor and has to wait this long can make the link's 50 ms pass.
constexpr auto kStall = std::chrono::milliseconds(15);

std::string ReadFile(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// The unit's log as transcripts have it.
std::string WireOf(const std::string& log) {
    Transcript wire({});
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const auto event = nlohmann::json::parse(line);
        const int port = event.value("port", -1);
        if (event.contains("dir")) {
            wire.Bytes(port, event["dir"] == "rx" ? '>' : '<', event["bytes"]);
        } else if (port >= 0 && event["event"] != "answer withheld" &&
                   event["event"] != "image complete" && event["event"] != "transfer given up") {
            wire.Event(port, event["event"]);
        }
    }
    return wire.wire;
}

long Count(const std::string& text, const std::vector<std::string>& marks) {
    long count = 0;
    for (const std::string& mark : marks) {
        for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at++) {
            count++;
        }
    }
    return count;
}

long FailedReads(const std::string& console) {
    return Count(console, {"Failed reading", "byteRead[0]", "byteRead[1]"});
}

// A console's text without the positions that are reported between its lines.
std::string WithoutPositions(std::string text) {
    for (size_t at = 0; (at = text.find("percentdone")) != std::string::npos;) {
        text.erase(at, text.find('\n', at) + 1 - at);
    }
    return text;
}

class Rig {
  public:
    explicit Rig(const Case& it) : case_(it) {
        // In memory where there is such a folder: the unit writes its log before it answers.
        const fs::path memory = "/dev/shm";
        folder_ = (fs::exists(memory) ? memory : fs::temp_directory_path()) / "e2e.XXXXXX";
        EXPECT_NE(mkdtemp(folder_.data()), nullptr);
        place_ = {folder_ + "/work", folder_ + "/dev", folder_ + "/state"};
        fs::create_directories(place_.work);
        for (const auto& [name, content] : it.files) {
            std::ofstream(place_.work + "/" + name, std::ios::binary) << content;
        }
        Words command = {E2E_UNIT, "--dir",          place_.dev, "--state",  place_.state,
                         "--log",  folder_ + "/log", "--images", place_.work};
        command.insert(command.end(), it.unit.begin(), it.unit.end());
        unit_.emplace(UserT::kPipes, command);
        EXPECT_TRUE(unit_->Sees("ready in"));
        it.prepare(place_);
    }
    ~Rig() {
        unit_.reset();
        fs::remove_all(folder_);
    }

    // Plays all steps and returns every difference, empty when there is none.
    std::string Play() {
        for (const Step& step : case_.steps) {
            Run(step);
        }
        case_.inspect(place_);
        unit_->Signal(SIGTERM);
        const int unit_status = unit_->End();
        refused_ = unit_status != case_.unit_status;
        Compare("the unit's exit status", std::to_string(case_.unit_status),
                std::to_string(unit_status));
        Compare("nodes left behind", "0", std::to_string(fs::exists(place_.dev)));
        for (const char* name : {"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"}) {
            const bool kept =
                std::find(case_.kept.begin(), case_.kept.end(), name) != case_.kept.end();
            // The microcontroller has room for so much.
            Compare(name, kept ? case_.files.at(name).substr(0, *name == 'k' ? 6144 : ~0U) : "",
                    ReadFile(place_.state + "/" + name));
        }
        return differences_;
    }

    bool answer_missed() const { return answer_missed_; }
    // Whether the unit was sent what it refuses: then it did not answer for another reason.
    bool refused() const { return refused_; }

  private:
    // Notes from where on two texts differ.
    void Compare(const std::string& what, const std::string& expected, const std::string& seen) {
        if (expected != seen) {
            const auto [is, was] =
                std::mismatch(seen.begin(), seen.end(), expected.begin(), expected.end());
            differences_ += what + " goes on with\n" + std::string(is, seen.end()).substr(0, 300) +
                            "\n--- instead of\n" + std::string(was, expected.end()).substr(0, 300) +
                            "\n";
        }
    }

    void Run(const Step& step) {
        Words command = {
            "/usr/bin/env",
            "--chdir=" + place_.work,
            "HARBOR_DEV_DIR=" + place_.dev,
            "HARBOR_DELAY_PERCENT=" + std::to_string(case_.delay_percent),
            "PATH=" + fs::path(E2E_PROGRAM).parent_path().string(),
            "/bin/sh",
            "-c",
            case_.closed_output ? "exec kestrelflash \"$@\" >&- 2>&-" : "exec kestrelflash \"$@\"",
            "sh"};
        command.insert(command.end(), step.expected.arguments.begin(),
                       step.expected.arguments.end());
        Child updater(UserT::kPipes, command);
        const std::string status = std::to_string(updater.End());
        const std::string console = WithoutPositions(updater.output);
        const std::string expected = case_.closed_output ? "" : step.expected.console;
        const std::string wire = SettledWire(step.expected.wire);
        Compare("console", expected, console);
        Compare("wire", step.expected.wire, wire);
        Compare("standard error", "", updater.error);
        Compare("exit status", std::to_string(step.status), status);
        answer_missed_ = answer_missed_ || FailedReads(console) > FailedReads(expected) ||
                         Count(wire, {" < "}) < Count(step.expected.wire, {" < "});
    }

    // The unit learns of the closing a moment after the updater has ended.
    std::string SettledWire(const std::string& expected) {
        std::string wire;
        size_t end = 0;
        const auto settled = [&] {
            const std::string log = ReadFile(folder_ + "/log");
            end = log.rfind('\n') + 1;
            wire = WireOf(log.substr(log_read_, end - log_read_));
            return wire == expected;
        };
        Eventually(settled, std::chrono::seconds(2));
        log_read_ = end;
        return wire;
    }

    const Case& case_;
    std::string folder_;
    Place place_;
    std::optional<Child> unit_;
    size_t log_read_ = 0;
    std::string differences_;
    bool answer_missed_ = false;
    bool refused_ = false;
};

// How long the machine kept a process waiting that had slept and wanted to go on, as the unit does
// before each of its answers, while `action` ran. Only such a delay, seen, excuses an answer that
// was missed.
template <typename ActionT>
std::chrono::nanoseconds LongestStall(ActionT action) {
    std::chrono::nanoseconds longest{0};
    const auto measure = [&longest,
                          nap = std::chrono::milliseconds(2)](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const auto before = steady_clock::now();
            std::this_thread::sleep_for(nap);
            longest =
                std::max<std::chrono::nanoseconds>(longest, steady_clock::now() - before - nap);
        }
    };
    std::jthread meter(measure);
    action();
    meter.request_stop();
    meter.join();
    return longest;
}

}  // namespace

Case::Case(const std::string& case_name, const Scene& case_scene, const Words& faults)
    : name(case_name), scene(case_scene) {
    files = {{"kestrelmicro.bin", scene.micro},
             {"overlookcam.bin", scene.camera},
             {"overlooksys.bin", scene.system},
             {"overlookcamver", scene.new_camera + "\n"},
             {"overlooksysver", scene.new_system + "\n"}};
    unit = {"--micro-version",  std::to_string(scene.unit_micro),
            "--camera-version", scene.unit_camera,
            "--system-version", scene.unit_system};
    for (const std::string& fault : faults) {
        unit.insert(unit.end(), {"--fault", fault});
    }
}

void Case::Run(const Words& arguments, int status, const std::string& story) {
    steps.push_back({Transcript(arguments, scene).Tell(story), status});
}

void Play(const Case& it) {
    SCOPED_TRACE(it.name);
    std::string differences;
    bool slow = true;  // in each attempt
    for (int attempt = 1; attempt <= kAttempts; attempt++) {
        Rig rig(it);
        const auto stall = LongestStall([&] { differences = rig.Play(); });
        if (differences.empty() || !rig.answer_missed()) {
            slow = false;
            break;
        }
        slow = slow && stall >= kStall && !rig.refused();
    }
    if (slow) {
        GTEST_SKIP() << "too slow a machine for the link's time-outs: " << differences;
    }
    EXPECT_EQ(differences, "");
}

void PlayFaulty(const Words& arguments, const std::string& head, const Scene& scene,
                std::initializer_list<Faulty> faults) {
    for (const Faulty& fault : faults) {
        Case it(fault.name, scene, {fault.fault});
        it.Run(arguments, fault.status, head + " " + fault.story);
        it.unit_status = fault.unit_status;
        it.kept = fault.kept;
        Play(it);
    }
}

}  // namespace e2e
