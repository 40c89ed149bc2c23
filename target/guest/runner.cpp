#include "target/guest/runner.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <sstream>

namespace {

constexpr int kTestTimeoutSeconds = 300;
constexpr int kSkipStatus = 77;
constexpr size_t kOutputShown = 8192;
constexpr const char* kOutputFile = "/run/output";

double Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string ReadAll(const char* path) {
    std::string all;
    FILE* file = fopen(path, "r");
    if (file == nullptr) {
        return all;
    }
    char block[4096];
    for (size_t n; (n = fread(block, 1, sizeof block, file)) > 0;) {
        all.append(block, n);
    }
    fclose(file);
    return all;
}

[[noreturn]] void BecomeChild(const std::vector<std::string>& argv, const std::string& folder) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // A leader of a group, but not of a session: no terminal that a test opens becomes its own.
    setpgid(0, 0);
    const int input = open("/dev/null", O_RDONLY);
    const int output = open(kOutputFile, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(input);
    close(output);
    std::vector<char*> words;
    for (const std::string& word : argv) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    if (chdir(folder.c_str()) == 0) {
        execv(words[0], words.data());
    }
    perror(words[0]);
    _exit(127);
}

// Reaps children until `pid` has ended; false when that has not happened by the deadline.
bool WaitFor(pid_t pid, double deadline, int* status) {
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    for (;;) {
        int ended = 0;
        pid_t who;
        while ((who = waitpid(-1, &ended, WNOHANG)) > 0) {
            if (who == pid) {
                *status = ended;
                return true;
            }
        }
        const double left = deadline - Now();
        if (left <= 0) {
            return false;
        }
        timespec wait{};
        wait.tv_sec = static_cast<time_t>(left);
        wait.tv_nsec = static_cast<long>((left - static_cast<double>(wait.tv_sec)) * 1e9);
        sigtimedwait(&childEnded, nullptr, &wait);
    }
}

std::string DescribeEnd(const ChildResult& result) {
    char text[64];
    if (result.timedOut) {
        return "timed out";
    }
    if (WIFSIGNALED(result.status)) {
        snprintf(text, sizeof text, "ended by signal %d", WTERMSIG(result.status));
    } else {
        snprintf(text, sizeof text, "exit status %d", WEXITSTATUS(result.status));
    }
    return text;
}

bool ExitedWith(const ChildResult& result, int status) {
    return !result.timedOut && WIFEXITED(result.status) && WEXITSTATUS(result.status) == status;
}

// The text that a skipped GoogleTest gives as its reason, on the lines after ": Skipped".
std::string SkipReason(const std::string& output) {
    const size_t mark = output.find(": Skipped\n");
    if (mark == std::string::npos) {
        return "no reason given";
    }
    const size_t start = mark + sizeof(": Skipped\n") - 1;
    return output.substr(start, output.find('\n', start) - start);
}

std::string LastLine(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const size_t end = text.rfind('\n');
    return end == std::string::npos ? text : text.substr(end + 1);
}

}  // namespace

ChildResult RunChild(const std::vector<std::string>& argv, const std::string& folder,
                     int timeoutSeconds) {
    ChildResult result;
    const double start = Now();
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        BecomeChild(argv, folder);
    }
    result.timedOut = !WaitFor(pid, start + timeoutSeconds, &result.status);
    result.seconds = Now() - start;
    kill(-1, SIGKILL);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    result.output = ReadAll(kOutputFile);
    return result;
}

std::vector<std::string> ParseTestList(const std::string& listing) {
    std::vector<std::string> names;
    std::string suite;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        line = line.substr(0, line.find("  # "));
        const size_t end = line.find_last_not_of(' ');
        line = end == std::string::npos ? "" : line.substr(0, end + 1);
        if (line.starts_with("  ")) {
            names.push_back(suite + line.substr(2));
        } else if (line.ends_with('.')) {
            suite = line;
        }
    }
    return names;
}

void Runner::Suite(const std::string& program, const std::string& filter) {
    std::vector<std::string> argv{program, "--gtest_list_tests"};
    if (!filter.empty()) {
        argv.push_back("--gtest_filter=" + filter);
    }
    const ChildResult listing = RunChild(argv, FolderOf(program), kTestTimeoutSeconds);
    const std::vector<std::string> names = ParseTestList(listing.output);
    if (!ExitedWith(listing, 0)) {
        Fail(program, DescribeEnd(listing) + "\n" + listing.output);
    } else if (names.empty() && filter.empty()) {
        Fail(program, "the suite holds no test");
    }
    for (const std::string& name : names) {
        if (NextIsMine()) {
            GoogleTest(program, name);
        }
    }
}

void Runner::Except(const std::string& pattern, const std::string& reason) {
    exceptions_.push_back({pattern, reason});
}

std::string Runner::ReasonToSkip(const std::string& name) const {
    if (name.starts_with("DISABLED_") || name.find(".DISABLED_") != std::string::npos) {
        return "disabled in its source";
    }
    for (const Exception& exception : exceptions_) {
        if (fnmatch(exception.pattern.c_str(), name.c_str(), 0) == 0) {
            return exception.reason;
        }
    }
    return "";
}

void Runner::GoogleTest(const std::string& program, const std::string& name) {
    if (const std::string reason = ReasonToSkip(name); !reason.empty()) {
        CountSkip(name, reason);
        return;
    }
    const ChildResult result = RunChild({program, "--gtest_filter=" + name, "--gtest_color=no"},
                                        FolderOf(program), kTestTimeoutSeconds);
    if (!ExitedWith(result, 0)) {
        Fail(name, DescribeEnd(result) + "\n" + result.output);
    } else if (result.output.find("[  SKIPPED ] 1 test") != std::string::npos) {
        CountSkip(name, SkipReason(result.output));
    } else if (result.output.find("[  PASSED  ] 1 test.") != std::string::npos) {
        Pass(name, result.seconds);
    } else {
        // A program may leave with status 0 from inside a test.
        Fail(name, "the test did not come to its end\n" + result.output);
    }
}

void Runner::Command(const std::string& name, int timeoutSeconds, const std::string& command) {
    if (!NextIsMine()) {
        return;
    }
    if (const std::string reason = ReasonToSkip(name); !reason.empty()) {
        CountSkip(name, reason);
        return;
    }
    const ChildResult result = RunChild({"/bin/sh", "-c", command}, "/tmp", timeoutSeconds);
    if (ExitedWith(result, 0)) {
        Pass(name, result.seconds);
    } else if (ExitedWith(result, kSkipStatus)) {
        CountSkip(name, LastLine(result.output));
    } else {
        Fail(name, DescribeEnd(result) + "\n" + result.output);
    }
}

void Runner::Pass(const std::string& name, double seconds) {
    ++counts_.passed;
    printf("PASS %s (%.2f s)\n", name.c_str(), seconds);
}

void Runner::Skip(const std::string& name, const std::string& reason) {
    if (NextIsMine()) {
        CountSkip(name, reason);
    }
}

void Runner::CountSkip(const std::string& name, const std::string& reason) {
    ++counts_.skipped;
    printf("SKIP %s: %s\n", name.c_str(), reason.c_str());
}

void Runner::Fail(const std::string& name, const std::string& output) {
    ++counts_.failed;
    printf("FAIL %s\n", name.c_str());
    const size_t from = output.size() > kOutputShown ? output.size() - kOutputShown : 0;
    std::istringstream lines(output.substr(from));
    for (std::string line; std::getline(lines, line);) {
        printf("  | %s\n", line.c_str());
    }
}
