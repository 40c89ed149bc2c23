// Process 1 of the emulated machine: mounts the usual file systems, does what /job says, prints a
// closing line that the script outside demands, and powers the machine off.
//
// A job is a text file with one order per line; empty lines and lines with # do nothing:
//   env NAME=VALUE                 for all that follows
//   shard INDEX COUNT              of all tests that follow, run every COUNTth
//   suite PROGRAM [FILTER]         every test of a GoogleTest program, each in its own process
//   run NAME SECONDS COMMAND...    a shell command with its time-out; exit status 77 skips
//   show COMMAND...                a shell command whose output belongs on the console
//   skip NAME REASON...            a test that cannot run here
//   shell                          an interactive shell on the console
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "target/guest/runner.h"

namespace {

constexpr const char* kBusybox = "/bin/busybox";
constexpr int kShowTimeoutSeconds = 300;

struct MountEntry {
    const char* type;
    const char* place;
    const char* options;
};

// The root is a RAM file system already; /tmp and /run stay on it, for a test's programs may lie
// below /tmp.
constexpr MountEntry kMounts[] = {
    {"proc", "/proc", ""},     {"sysfs", "/sys", ""},
    {"devtmpfs", "/dev", ""},  {"devpts", "/dev/pts", "ptmxmode=0666,mode=0620"},
    {"tmpfs", "/dev/shm", ""},
};

void MountAll() {
    for (const MountEntry& entry : kMounts) {
        mkdir(entry.place, 0755);
        if (mount(entry.type, entry.place, entry.type, 0, entry.options) != 0 && errno != EBUSY) {
            printf("mount %s: %s\n", entry.place, strerror(errno));
        }
    }
    chmod("/tmp", 01777);
}

void OpenConsole() {
    const int console = open("/dev/console", O_RDWR | O_NOCTTY);
    if (console < 0) {
        return;
    }
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(console, fd);
    }
    if (console > STDERR_FILENO) {
        close(console);
    }
}

void SetEnvironment() {
    setenv("PATH", "/bin", 1);
    setenv("HOME", "/tmp", 1);
    setenv("TERM", "vt100", 1);
}

void InteractiveShell() {
    printf("The machine's shell; `exit` powers it off.\n");
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        const int terminal = open("/dev/ttyPZ0", O_RDWR);
        for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            dup2(terminal, fd);
        }
        ioctl(terminal, TIOCSCTTY, 1);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl(kBusybox, "sh", "-i", nullptr);
        _exit(127);
    }
    while (waitpid(-1, nullptr, 0) != pid) {
    }
}

std::string RestOf(std::istringstream& words) {
    std::string rest;
    std::getline(words >> std::ws, rest);
    return rest;
}

bool Obey(const std::string& line, Runner& runner) {
    std::istringstream words(line);
    std::string verb, name;
    words >> verb;
    if (verb.empty() || verb[0] == '#') {
        return true;
    }
    if (verb == "env") {
        const std::string setting = RestOf(words);
        const size_t equals = setting.find('=');
        setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
    } else if (verb == "shard") {
        int shard = 0, shards = 1;
        words >> shard >> shards;
        runner = Runner(shard, shards);
    } else if (verb == "suite") {
        words >> name;
        runner.Suite(name, RestOf(words));
    } else if (verb == "run") {
        int seconds = 0;
        words >> name >> seconds;
        runner.Command(name, seconds, RestOf(words));
    } else if (verb == "show") {
        const ChildResult result =
            RunChild({"/bin/sh", "-c", RestOf(words)}, "/tmp", kShowTimeoutSeconds);
        printf("%s%s", result.output.c_str(), result.output.ends_with('\n') ? "" : "\n");
    } else if (verb == "except") {
        words >> name;
        runner.Except(name, RestOf(words));
    } else if (verb == "skip") {
        words >> name;
        runner.Skip(name, RestOf(words));
    } else if (verb == "shell") {
        InteractiveShell();
    } else {
        return false;
    }
    return true;
}

void DoJob(Runner& runner) {
    std::ifstream job("/job");
    if (!job) {
        runner.Fail("job", "/job cannot be read");
    }
    for (std::string line; std::getline(job, line);) {
        if (!Obey(line, runner)) {
            runner.Fail("job", "unknown order: " + line);
        }
        fflush(stdout);
    }
}

}  // namespace

int main() {
    if (getpid() != 1) {
        fputs("only for process 1 of the emulated machine\n", stderr);
        return 2;
    }
    MountAll();
    OpenConsole();
    SetEnvironment();
    sigset_t childEnded;
    sigemptyset(&childEnded);
    sigaddset(&childEnded, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnded, nullptr);
    RunChild({kBusybox, "--install", "-s", "/bin"}, "/", kShowTimeoutSeconds);
    RunChild({kBusybox, "ip", "link", "set", "lo", "up"}, "/", kShowTimeoutSeconds);

    Runner runner(0, 1);
    DoJob(runner);
    printf("machine: %d passed, %d failed, %d skipped\n", runner.counts().passed,
           runner.counts().failed, runner.counts().skipped);
    fflush(stdout);
    tcdrain(STDOUT_FILENO);
    sync();
    reboot(RB_POWER_OFF);
    return 1;
}
