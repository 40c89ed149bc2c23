// One run of the launcher under test, with a folder of its own, seen from outside: its outputs
// (through pipes or a terminal), the signals and keys it gets, its end.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/eventually.h"

typedef std::vector<std::string> WordsT;

// The updater is a shell script. As the real one, it opens the pipe for each number and prints a
// line then. The launcher puts "-p <pipe> <low> <high>" behind its name.
constexpr char kUpdaterWords[] = R"(
raw() { printf %s "$1" >"$pipe"; }
pos() { raw "$1" && echo "percentdone: [$1]"; }
upto() { i=0; while [ $i -lt $1 ]; do i=$((i + 1)); pos $i; done; }
kilobytes() { i=0; while [ $i -lt $1 ]; do printf '%08d %01014d\n' $i $i; i=$((i + 1)); done; }
await() { i=0; while [ ! -e "$1" ] && [ $i -lt 6000 ]; do i=$((i + 1)); sleep 0.01; done; }
pipe=$2
)";

// A fresh folder, which is also the working directory and TMPDIR while it lives.
class Folder {
  public:
    Folder() : path_(std::filesystem::temp_directory_path() / "watchtest-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr || chdir(path_.c_str()) != 0) {
            abort();
        }
        setenv("TMPDIR", path_.c_str(), 1);
        setenv("TERM", "xterm", 1);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::current_path("/", ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    void Touch(const char* name) const { close(open(name, O_CREAT | O_WRONLY, 0600)); }

    // Waits, within reason, until `name` is there or is not.
    bool WaitFor(const std::string& name, bool there = true) const {
        return Eventually([&] { return std::filesystem::exists(name) == there; });
    }

    // The private folder that a launcher has at the moment; empty: none.
    std::string PrivateFolder() const {
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            if (entry.path().filename().string().starts_with("kestrelwatch-")) {
                return entry.path();
            }
        }
        return "";
    }

  private:
    std::string path_;
};

enum class UserT { kPipes, kTerminal };

class Session {
  public:
    // Starts the launcher with an updater that does `script`.
    Session(UserT user, WordsT options, const std::string& script) {
        options.insert(options.begin(), KESTRELWATCH);
        options.insert(options.end(), {"--", "sh", "-c", kUpdaterWords + script, "updater"});
        Start(user, options);
    }
    // Starts `words` as they are.
    explicit Session(const WordsT& words) { Start(UserT::kPipes, words); }
    ~Session() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            End();
        }
        CloseOutput();
        close(errorFd_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Signal(int number) const { kill(pid_, number); }
    bool Type(char key) const { return write(outputFd_, &key, 1) == 1; }
    // Standard output's reader, or the whole terminal, goes away.
    void CloseOutput() {
        close(outputFd_);
        outputFd_ = -1;
    }

    // Reads until `text` has appeared behind what an earlier call found; false when it does not
    // within reason.
    bool Sees(const std::string& text) {
        while (!Found(output, text, &seenOutput_) && !Found(error, text, &seenError_)) {
            if (!ReadMore()) {
                return false;
            }
        }
        return true;
    }

    // Reads everything and waits for the end: the exit status, or -n for signal n.
    int End() {
        while (ReadMore()) {
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

    std::string output;  // of both, in the case of a terminal
    std::string error;

  private:
    void Start(UserT user, const WordsT& words) {
        std::vector<char*> arguments(words.size() + 1, nullptr);
        for (size_t i = 0; i < words.size(); i++) {
            arguments[i] = const_cast<char*>(words[i].c_str());
        }
        int out[2] = {-1, -1};
        int err[2] = {-1, -1};
        if (user == UserT::kTerminal) {
            pid_ = forkpty(&out[0], nullptr, nullptr, nullptr);
        } else if (pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0) {
            pid_ = fork();
        }
        if (pid_ == 0) {
            setsid();
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(arguments[0], arguments.data());
            _exit(98);
        }
        close(out[1]);
        close(err[1]);
        outputFd_ = out[0];
        errorFd_ = err[0];
    }

    static bool Found(const std::string& in, const std::string& text, size_t* from) {
        const size_t at = in.find(text, *from);
        *from = at == std::string::npos ? *from : at + text.size();
        return at != std::string::npos;
    }

    static bool Append(const pollfd& end, std::string* to) {
        char bytes[65536];
        const ssize_t count = end.revents != 0 ? read(end.fd, bytes, sizeof(bytes)) : 0;
        to->append(bytes, count > 0 ? static_cast<size_t>(count) : 0);
        return count > 0;
    }

    bool ReadMore() {
        pollfd ends[] = {{outputFd_, POLLIN, 0}, {errorFd_, POLLIN, 0}};
        if ((outputFd_ < 0 && errorFd_ < 0) || poll(ends, 2, 60000) <= 0) {
            return false;
        }
        const bool more = Append(ends[0], &output);
        return Append(ends[1], &error) || more;
    }

    pid_t pid_ = -1;
    int outputFd_ = -1;
    int errorFd_ = -1;
    size_t seenOutput_ = 0;
    size_t seenError_ = 0;
};
