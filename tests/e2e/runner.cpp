// Processes are started with pipes for their output and are never waited for without a limit.
#include "tests/e2e/runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
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

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr auto kLimit = std::chrono::seconds(150);
constexpr int kAttempts = 4;
// A process that wants the processor and has to wait this long can make the link's 50 ms pass.
constexpr auto kStall = std::chrono::milliseconds(15);

const char* Environment(const char* name) {
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string ReadFile(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// A child with its two outputs, read as they come.
class Child {
  public:
    Child(const Words& command, const std::string& folder, const Files& environment) {
        int out[2];
        int err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC) + pipe2(err, O_CLOEXEC), 0);
        std::vector<char*> argv;
        for (const std::string& word : command) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            for (const auto& [name, value] : environment) {
                setenv(name.c_str(), value.c_str(), 1);
            }
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            if (chdir(folder.c_str()) == 0) {
                execvp(argv[0], argv.data());
            }
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        fds_[0] = out[0];
        fds_[1] = err[0];
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
        for (const int fd : fds_) {
            close(fd);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Reads until standard output holds `text` or `size` bytes, or the child has closed both. A
    // child that takes too long is ended, and says so.
    void Read(const std::string& text, size_t size) {
        const auto limit = std::chrono::steady_clock::now() + kLimit;
        while ((open_[0] || open_[1]) && text_[0].size() < size &&
               (text.empty() || text_[0].find(text) == std::string::npos)) {
            if (std::chrono::steady_clock::now() > limit) {
                ADD_FAILURE() << "hangs after:\n" << text_[0].substr(0, 4000);
                kill(pid_, SIGKILL);
            }
            pollfd polled[2] = {{open_[0] ? fds_[0] : -1, POLLIN, 0},
                                {open_[1] ? fds_[1] : -1, POLLIN, 0}};
            poll(polled, 2, 1000);
            for (int i = 0; i < 2; i++) {
                char buffer[65536];
                if (polled[i].revents != 0) {
                    const ssize_t count = read(fds_[i], buffer, sizeof buffer);
                    open_[i] = count > 0;
                    text_[i].append(buffer, static_cast<size_t>(std::max<ssize_t>(count, 0)));
                }
            }
        }
    }
    void Finish() { Read("", SIZE_MAX); }
    void Signal(int signal) const { kill(pid_, signal); }
    int Wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    const std::string& out() const { return text_[0]; }
    const std::string& err() const { return text_[1]; }

  private:
    pid_t pid_ = -1;
    int fds_[2] = {-1, -1};
    bool open_[2] = {true, true};
    std::string text_[2];
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

// What one step showed.
struct Seen {
    int status = 0;
    std::string console;
    std::string errors;
    std::string wire;
};

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string WithoutLines(const std::string& text, const std::vector<std::string>& marks) {
    std::istringstream lines(text);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        if (std::none_of(marks.begin(), marks.end(), [&](const std::string& mark) {
                return line.find(mark) != std::string::npos;
            })) {
            kept += line + "\n";
        }
    }
    return kept;
}

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
    return wire.wire();
}

// Where two texts part, with what stands around.
std::string Difference(const std::string& what, const std::string& expected,
                       const std::string& seen) {
    if (expected == seen) {
        return "";
    }
    size_t at = 0;
    while (at < expected.size() && at < seen.size() && expected[at] == seen[at]) {
        at++;
    }
    const size_t from = at > 300 ? at - 300 : 0;
    const auto around = [&](const std::string& text) {
        return text.substr(from, at - from) + "<<HERE>>" +
               text.substr(std::min(at, text.size()), 300);
    };
    return what + " differs at byte " + std::to_string(at) + " of " +
           std::to_string(expected.size()) + " expected and " + std::to_string(seen.size()) +
           " seen\n--- expected\n" + around(expected) + "\n--- seen\n" + around(seen) + "\n";
}

size_t FailedReads(const std::string& console) {
    size_t count = 0;
    for (const char* mark : {"######### Failed reading", "byteRead[0]", "byteRead[1]"}) {
        for (size_t at = 0; (at = console.find(mark, at)) != std::string::npos; at++) {
            count++;
        }
    }
    return count;
}

class Rig {
  public:
    explicit Rig(const Case& it) : case_(it) {
        folder_ = (fs::temp_directory_path() / "e2e.XXXXXX").string();
        EXPECT_NE(mkdtemp(folder_.data()), nullptr);
        place_ = {folder_ + "/work", folder_ + "/dev", folder_ + "/state"};
        fs::create_directories(place_.work);
        for (const auto& [name, content] : it.files) {
            WriteFile(fs::path(place_.work) / name, content);
        }
        Words command = {E2E_UNIT, "--dir",   place_.dev, "--state",  place_.state,
                         "--log",  LogFile(), "--images", place_.work};
        command.insert(command.end(), it.unit.begin(), it.unit.end());
        unit_.emplace(command, folder_, Files{});
        unit_->Read("ready in", SIZE_MAX);
        if (it.prepare) {
            it.prepare(place_);
        }
    }
    ~Rig() {
        unit_.reset();
        fs::remove_all(folder_);
    }

    // Plays all steps and returns every difference, empty when there is none.
    std::string Play() {
        std::string differences;
        for (const Step& step : case_.steps) {
            const Seen seen = Run(step);
            const std::string console = WithoutLines(seen.console, case_.unsteady);
            const std::string expected = WithoutLines(step.expected.console(), case_.unsteady);
            differences += Difference("console", expected, console);
            if (case_.stop_after == 0) {
                differences += Difference("wire", step.expected.wire(), seen.wire);
            }
            differences += Difference("standard error", "", seen.errors);
            differences +=
                Difference("exit status", std::to_string(step.status), std::to_string(seen.status));
            answer_missed_ = answer_missed_ || FailedReads(console) > FailedReads(expected);
            steps_.push_back(seen);
        }
        if (case_.inspect) {
            case_.inspect(place_);
        }
        unit_->Signal(SIGTERM);
        unit_->Finish();
        differences += Difference("the unit's exit status", std::to_string(case_.unit_status),
                                  std::to_string(unit_->Wait()));
        return differences + Kept();
    }

    bool answer_missed() const { return answer_missed_; }

    void Record(const std::string& folder) const {
        fs::create_directories(folder);
        for (size_t i = 0; i < steps_.size(); i++) {
            const std::string name = folder + "/" + case_.name + "." + std::to_string(i + 1);
            WriteFile(name + ".console", WithoutLines(steps_[i].console, case_.unsteady));
            WriteFile(name + ".wire",
                      steps_[i].wire + "exit " + std::to_string(steps_[i].status) + "\n");
        }
    }

  private:
    std::string LogFile() const { return folder_ + "/log"; }

    Seen Run(const Step& step) {
        std::istringstream prefix(*Environment("E2E_UPDATER") != '\0' ? Environment("E2E_UPDATER")
                                                                      : E2E_PROGRAM);
        Words command{std::istream_iterator<std::string>(prefix), {}};
        const std::string program = command.back();
        command.insert(command.end(), step.expected.arguments().begin(),
                       step.expected.arguments().end());
        Child updater(command, place_.work,
                      {{"HARBOR_DEV_DIR", case_.own_nodes ? place_.dev : ""},
                       {"HARBOR_DELAY_PERCENT", std::to_string(case_.delay_percent)}});
        if (case_.stop_after > 0) {
            updater.Read("", case_.stop_after);
            updater.Signal(SIGTERM);
        }
        updater.Finish();
        Seen seen;
        seen.status = updater.Wait();
        seen.console = ReplaceAll(updater.out(), program, "kestrelflash");
        seen.errors = updater.err();
        seen.wire = case_.stop_after > 0 ? "" : SettledWire(step.expected.wire());
        return seen;
    }

    // The unit learns of the closing a moment after the updater has ended.
    std::string SettledWire(const std::string& expected) {
        std::string wire;
        for (int i = 0; i < 100; i++) {
            const std::string log = ReadFile(LogFile());
            const size_t end = log.rfind('\n') + 1;
            wire = WireOf(log.substr(log_read_, end - log_read_));
            if (wire == expected) {
                log_read_ = end;
                return wire;
            }
            usleep(20000);
        }
        return wire;
    }

    std::string Kept() const {
        std::string differences;
        for (const char* name : {"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"}) {
            const auto expected = case_.kept.find(name);
            const fs::path path = fs::path(place_.state) / name;
            if (fs::exists(path) != (expected != case_.kept.end())) {
                differences +=
                    std::string(name) + (fs::exists(path) ? " was kept\n" : " is missing\n");
            } else if (fs::exists(path) && ReadFile(path) != expected->second) {
                differences += std::string(name) + " was kept, but is not the image\n";
            }
        }
        return differences;
    }

    const Case& case_;
    std::string folder_;
    Place place_;
    std::optional<Child> unit_;
    size_t log_read_ = 0;
    std::vector<Seen> steps_;
    bool answer_missed_ = false;
};

}  // namespace

Case::Case(const std::string& case_name, const Scene& case_scene, const Words& faults)
    : name(case_name), scene(case_scene) {
    files = AllImages();
    files["overlookcamver"] = scene.new_camera + "\n";
    files["overlooksysver"] = scene.new_system + "\n";
    unit = {"--micro-version",  std::to_string(scene.unit_micro),
            "--camera-version", scene.unit_camera,
            "--system-version", scene.unit_system};
    for (const std::string& fault : faults) {
        unit.insert(unit.end(), {"--fault", fault});
    }
}

void Case::Run(const Words& arguments, int status, const std::string& story) {
    Run(arguments, status, story, scene);
}

void Case::Run(const Words& arguments, int status, const std::string& story, const Scene& now) {
    steps.push_back({Transcript(arguments, now).Tell(story), status});
}

Files Case::AllImages() const {
    return {{"kestrelmicro.bin", scene.micro},
            {"overlookcam.bin", scene.camera},
            {"overlooksys.bin", scene.system}};
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
        if (*Environment("E2E_RECORD_DIR") != '\0') {
            rig.Record(Environment("E2E_RECORD_DIR"));
        }
        if (differences.empty() || !rig.answer_missed()) {
            slow = false;
            break;
        }
        slow = slow && stall >= kStall;
        printf("%s: an answer was missed, attempt %d; the machine stalled for up to %.1f ms\n",
               it.name.c_str(), attempt, std::chrono::duration<double, std::milli>(stall).count());
    }
    if (slow) {
        GTEST_SKIP() << "too slow a machine for the link's time-outs: " << differences;
    }
    EXPECT_EQ(differences, "");
}

}  // namespace e2e
