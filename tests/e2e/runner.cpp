// Processes write their output into files and are never waited for without a limit.
#include "tests/e2e/runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/support/eventually.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kLimit = 150;  // seconds
constexpr int kAttempts = 4;
// A process that wants the processor and has to wait this long can make the link's 50 ms pass.
constexpr auto kStall = std::chrono::milliseconds(15);

void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string ReadFile(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// A child with its two outputs in the files PATH.out and PATH.err. One that takes too long is ended
// by SIGALRM.
class Child {
  public:
    Child(const char* program, Words command, const std::string& folder, const std::string& path,
          bool closed_output = false)
        : path_(path) {
        std::vector<char*> argv;
        for (std::string& word : command) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
            dup2(open((path + ".out").c_str(), flags, 0600), STDOUT_FILENO);
            dup2(open((path + ".err").c_str(), flags, 0600), STDERR_FILENO);
            if (closed_output) {
                close(STDOUT_FILENO);
                close(STDERR_FILENO);
            }
            alarm(kLimit);
            if (chdir(folder.c_str()) == 0) {
                execv(program, argv.data());
            }
            _exit(127);
        }
    }
    ~Child() {
        if (pid_ > 0) {
            End(SIGKILL);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Waits until standard output holds `text` and is `size` bytes long.
    void WaitFor(const std::string& text, size_t size) const {
        EXPECT_TRUE(Eventually([&] {
            const std::string all = out();
            return all.size() >= size && all.find(text) != std::string::npos;
        })) << path_;
    }
    // Sends a signal, when it is none of 0, and waits for the end.
    int End(int signal = 0) {
        int status = 0;
        kill(pid_, signal);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string out() const { return ReadFile(path_ + ".out"); }
    std::string err() const { return ReadFile(path_ + ".err"); }

  private:
    std::string path_;
    pid_t pid_ = -1;
};

// Measures how long the machine keeps a process waiting that has slept and wants to go on, as the
// unit does before each of its answers. Only such a delay, seen, excuses an answer that was missed.
class StallMeter {
  public:
    StallMeter() : thread_([this] { Run(); }) {}
    ~StallMeter() { Longest(); }
    // Ends the measurement.
    std::chrono::nanoseconds Longest() {
        if (thread_.joinable()) {
            stop_ = true;
            thread_.join();
        }
        return longest_;
    }

  private:
    void Run() {
        constexpr auto kNap = std::chrono::milliseconds(2);
        while (!stop_) {
            const auto before = std::chrono::steady_clock::now();
            std::this_thread::sleep_for(kNap);
            const std::chrono::nanoseconds late = std::chrono::steady_clock::now() - before - kNap;
            longest_ = std::max(longest_, late);
        }
    }

    std::atomic<bool> stop_{false};
    std::chrono::nanoseconds longest_{0};
    std::thread thread_;
};

// The unit's log, cut into steps at the marks that the runner left in it, as transcripts are.
std::string WireOf(const std::string& log) {
    Transcript wire({});
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const auto event = nlohmann::json::parse(line);
        const int port = event.value("port", -1);
        if (event.contains("dir")) {
            wire.Bytes(port, event["dir"] == "rx" ? '>' : '<', FromHex(event["bytes"]));
        } else if (port >= 0 && event["event"] != "answer withheld" &&
                   event["event"] != "image complete" && event["event"] != "transfer given up") {
            wire.Event(port, event["event"]);
        }
    }
    return wire.wire;
}

long Count(const std::string& text, const std::string& mark) {
    long count = 0;
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at++) {
        count++;
    }
    return count;
}

long FailedReads(const std::string& console) {
    return Count(console, "######### Failed reading") + Count(console, "byteRead[0]") +
           Count(console, "byteRead[1]");
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
            WriteFile(place_.work + "/" + name, content);
        }
        Words command = {"kestrelsim", "--dir",          place_.dev, "--state",  place_.state,
                         "--log",      folder_ + "/log", "--images", place_.work};
        command.insert(command.end(), it.unit.begin(), it.unit.end());
        unit_.emplace(E2E_UNIT, command, folder_, folder_ + "/unit");
        unit_->WaitFor("ready in", 0);
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
        const int unit_status = unit_->End(SIGTERM);
        Compare("nodes left behind", "0", std::to_string(fs::exists(place_.dev)));
        refused_ = unit_status != case_.unit_status;
        Compare("the unit's exit status", std::to_string(case_.unit_status),
                std::to_string(unit_status));
        for (const char* name : {"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"}) {
            const auto kept = case_.kept.find(name);
            const fs::path path = fs::path(place_.state) / name;
            if ((kept != case_.kept.end() ? kept->second : "none") !=
                (fs::exists(path) ? ReadFile(path) : "none")) {
                differences_ += std::string(name) + " is not what the unit was to keep\n";
            }
        }
        return differences_;
    }

    bool answer_missed() const { return answer_missed_; }
    // Whether the unit was sent what it refuses: then it did not answer for another reason.
    bool refused() const { return refused_; }

  private:
    // Notes where two texts part, with what stands around.
    void Compare(const std::string& what, const std::string& expected, const std::string& seen) {
        if (expected == seen) {
            return;
        }
        size_t at = 0;
        while (at < expected.size() && at < seen.size() && expected[at] == seen[at]) {
            at++;
        }
        const size_t from = at - std::min<size_t>(at, 300);
        differences_ += what + " differs at byte " + std::to_string(at) + "\n--- expected\n" +
                        expected.substr(from, 600) + "\n--- seen\n" + seen.substr(from, 600) + "\n";
    }

    void Run(const Step& step) {
        Words command = step.expected.arguments;
        command.insert(command.begin(), "kestrelflash");
        setenv("HARBOR_DEV_DIR", case_.own_nodes ? place_.dev.c_str() : "", 1);
        setenv("HARBOR_DELAY_PERCENT", std::to_string(case_.delay_percent).c_str(), 1);
        Child updater(E2E_PROGRAM, command, place_.work, folder_ + "/updater", case_.closed_output);
        if (case_.stop_after > 0) {
            updater.WaitFor("", case_.stop_after);
        }
        const std::string status = std::to_string(updater.End(case_.stop_after > 0 ? SIGTERM : 0));
        const std::string console = Steady(updater.out());
        const std::string expected = case_.closed_output ? "" : Steady(step.expected.console);
        const std::string wire = case_.stop_after > 0 ? "" : SettledWire(step.expected.wire);
        Compare("console", expected, console);
        Compare("wire", case_.stop_after > 0 ? "" : step.expected.wire, wire);
        Compare("standard error", "", updater.err());
        Compare("exit status", std::to_string(step.status), status);
        answer_missed_ = answer_missed_ || FailedReads(console) > FailedReads(expected) ||
                         Count(wire, " < ") < Count(step.expected.wire, " < ");
        if (const char* folder = getenv("E2E_RECORD_DIR")) {
            fs::create_directories(folder);
            const std::string name = std::string(folder) + "/" + case_.name + "." +
                                     std::to_string(&step - case_.steps.data() + 1);
            WriteFile(name + ".console", console);
            WriteFile(name + ".wire", wire + "exit " + status + "\n");
        }
    }

    // Without the lines that contain one of the case's unsteady texts.
    std::string Steady(const std::string& console) const {
        std::istringstream lines(console);
        std::string kept;
        for (std::string line; std::getline(lines, line);) {
            std::istringstream marks(case_.unsteady);
            bool steady = true;
            for (std::string mark; std::getline(marks, mark, '|');) {
                steady = steady && line.find(mark) == std::string::npos;
            }
            kept += steady ? line + (lines.eof() ? "" : "\n") : "";
        }
        return kept;
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

void Case::Keep(const Words& names) {
    for (const std::string& image : names) {
        kept[image] = files.at(image);
    }
}

void Play(const Case& it) {
    SCOPED_TRACE(it.name);
    std::string differences;
    bool slow = true;  // in each attempt
    for (int attempt = 1; attempt <= kAttempts; attempt++) {
        Rig rig(it);
        StallMeter meter;
        differences = rig.Play();
        const auto stall = meter.Longest();
        if (differences.empty() || !rig.answer_missed()) {
            slow = false;
            break;
        }
        slow = slow && stall >= kStall && !rig.refused();
        printf("%s: an answer was missed, attempt %d; the machine stalled for up to %.1f ms\n",
               it.name.c_str(), attempt, std::chrono::duration<double, std::milli>(stall).count());
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
        it.Keep(fault.kept);
        Play(it);
    }
}

}  // namespace e2e
