// The shell as its users meet it: command lines from everywhere, and a terminal.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "Common/OS/errors.h"

namespace {

struct ResultT {
    int status;
    std::string text;  // standard output and standard error
};

// Runs the shell with `arguments`, `input` on its standard input.
ResultT RunShell(const std::string& arguments, const std::string& input = "") {
    char path[] = "/tmp/harborsh_input_XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_EQ(write(fd, input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(fd);
    FILE* pipe = popen((HARBORSH " " + arguments + " 2>&1 <" + path).c_str(), "r");
    ResultT result;
    char block[4096];
    for (size_t got; (got = fread(block, 1, sizeof(block), pipe)) > 0;) {
        result.text.append(block, got);
    }
    result.status = WEXITSTATUS(pclose(pipe));
    unlink(path);
    return result;
}

std::string OwnFolder(const std::string& name) {
    return testing::TempDir() + "harborsh_" + name + std::to_string(getpid());
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The shell at a terminal of its own.
class Session {
  public:
    Session() {
        pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            setenv("TERM", "dumb", 1);
            setenv("INPUTRC", "/dev/null", 1);
            execl(HARBORSH, "harborsh", static_cast<char*>(nullptr));
            _exit(127);
        }
        Expect("harborsh> ");
    }
    ~Session() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(fd_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Type(const std::string& keys) {
        EXPECT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // A line's way from one prompt to the next.
    void Run(const std::string& keys, std::initializer_list<const char*> shown) {
        Type(keys);
        for (const char* part : shown) {
            Expect(part);
        }
        Expect("harborsh> ");
    }

    // Reads until `part` has come, and forgets what came up to its end.
    void Expect(const std::string& part) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (;;) {
            const size_t at = text_.find(part);
            if (at != std::string::npos) {
                text_.erase(0, at + part.size());
                return;
            }
            pollfd pfd = {fd_, POLLIN, 0};
            char block[1024];
            if (std::chrono::steady_clock::now() > end || poll(&pfd, 1, 1000) < 0) {
                break;
            }
            if (pfd.revents != 0) {
                const ssize_t got = read(fd_, block, sizeof(block));
                if (got <= 0) {
                    break;
                }
                text_.append(block, static_cast<size_t>(got));
            }
        }
        ADD_FAILURE() << "no \"" << part << "\" in:\n" << text_;
    }

    int ExitStatus() {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    int fd_ = -1;
    pid_t pid_ = -1;
    std::string text_;
};

}  // namespace

TEST(Harborsh, TheExitStatusIsThatOfTheLastCommand) {
    const struct {
        const char* arguments;
        int status;
        const char* text;
    } cases[] = {
        {"-c help", 0, "Main commands:\n"},
        {"-c nosuch", -kItemNotFound, "ERROR, item not found\n"},
        {"-c 'nosuch; shellHelp'", 0, "ERROR, item not found\n"},
        {"-c 'shellHelp; demo call'", -kBadParameter, "Usage: call <text>\n"},
        {"-c 'exit; nosuch'", 0, ""},
        {"-c 'notify \"a; b\"; notify c'", 0, "NOTIFY: a; b\nNOTIFY: c\n"},
        {"-w 1 -c 'sleep 60000; demo timer 60000 1000'", -kTimeOut, "ERROR, no outcome in time"},
        {"-c notify\\ a -c nosuch", -kItemNotFound, "NOTIFY: a\nERROR, item not found\n"},
        {"-c ''", 0, ""},
        {"-c 'notify \"a;\nnosuch'", -kItemNotFound, "NOTIFY: a;\nERROR, item not found\n"},
        {"-c 'script /nowhere/at/all'", -kItemNotFound, "ERROR, item not found\n"},
        {"/nowhere/at/all", -kItemNotFound, "harborsh: cannot read /nowhere/at/all\n"},
        {"/", -kItemNotFound, "harborsh: cannot read /\n"},
        {"/dev/null", 0, ""},
        {"-c 'config colour 1x red'", -kBadParameter, "ERROR, bad parameter\n"},
        {"-c 'pool create p 1 4294967296 100'", -kBadParameter, "ERROR, bad parameter\n"},
        {"-c 'categories enable 9; categories list g711'", 0, "ENC  enabled  debug\n"},
        {"-c 'modules shell'", 0, "Shell[0]  "},
        {"-c devices", 0, "Ser         8 closed"},
    };
    for (const auto& c : cases) {
        const ResultT result = RunShell(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments;
        EXPECT_TRUE(result.text.empty() ? *c.text == '\0' : Has(result.text, c.text))
            << c.arguments << "\n"
            << result.text;
    }
    EXPECT_NE(RunShell("--nonsense").status, 0);
}

TEST(Harborsh, LinesFromAPipeRunWithoutAPromptAndBadOnesAreRefusedOneByOne) {
    const std::string fits = "notify " + std::string(505, 'x');
    const ResultT result =
        RunShell("", "\n   \n# a comment\nnotify one\r\n" + fits + "\n" + fits +
                         "y\nnotify \x01\x7f\xff\nnotify \"open\n" +
                         std::string("notify \0 two\n", 13) + "unknown\x1b[A\nnotify last");
    EXPECT_EQ(result.text, "NOTIFY: one\nNOTIFY: " + std::string(505, 'x') +
                               "\nERROR, line over 512 characters\nNOTIFY: \x01\x7f\xff\n"
                               "NOTIFY: open\nERROR, line with a NUL character\n"
                               "ERROR, item not found\nNOTIFY: last\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(RunShell("-e", "notify a\n\nnotify b\n").text,
              "harborsh> notify a\nNOTIFY: a\nharborsh> \nharborsh> notify b\nNOTIFY: b\n");
}

TEST(Harborsh, ScriptsThatCallThemselvesAndAliasLoopsLeaveTheShellAlive) {
    const std::filesystem::path dir = OwnFolder("scripts");
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "self.scr") << "notify again\nscript " << (dir / "self").string() << "\n";
    const ResultT result = RunShell("-c 'script " + (dir / "self").string() +
                                    "; alias loop loop; loop; notify alive'");
    EXPECT_TRUE(Has(result.text, "not run: aliases and scripts nest at most 8 deep\n"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(std::count(result.text.begin(), result.text.end(), 'Y'), 8 + 1) << result.text;
    std::ofstream(dir / "plain") << "notify from a file\nnosuch\n";
    const ResultT plain = RunShell((dir / "plain").string());
    EXPECT_EQ(plain.text, "NOTIFY: from a file\nERROR, item not found\n");
    EXPECT_EQ(plain.status, -kItemNotFound);
    std::filesystem::remove_all(dir);
}

TEST(Harborsh, LogSettingsOfOneRunWorkInTheNextFromItsFirstLine) {
    const std::string store = OwnFolder("store");
    RunShell("-s " + store +
             " -c 'showfilter add shell; showfilter save; cullfilter add noisy; cullfilter save;"
             "logformat level; logformat save; spewfilter on'");
    const ResultT result =
        RunShell("-s " + store + " -c 'spewfilter; logformat; log 3 noisy; log 3 shown'");
    EXPECT_TRUE(Has(result.text,
                    "show filters:\n  \"shell\"\ncull filters:\n  \"noisy\"\non\nlevel \n"
                    "ERROR pc[0]: shell: shown\n"))
        << result.text;
    std::filesystem::remove_all(store);
}

TEST(Harborsh, ATerminalGetsAPromptCompletionAndHistory) {
    Session session;
    session.Run("noti\tfirst\r", {"notify first", "NOTIFY: first\r\n"});
    session.Run("demo callb\tnews\r", {"demo callback news", "heard \"news\" from Worker[1]"});
    session.Run("\x10\x10\r", {"NOTIFY: first\r\n"});  // the line before the last
    session.Run("help \t\t", {"alias", "types"});
    session.Run("\x15nosuch\r", {"ERROR, item not found"});
    session.Type("\x04");  // end of input
    EXPECT_EQ(session.ExitStatus(), -kItemNotFound);
}

TEST(Harborsh, OutputOfOtherTasksDoesNotSpoilTheLineBeingTyped) {
    Session session;
    session.Run("demo timer 200 3 &\r", {});
    session.Type("notify ty");
    session.Expect("tick 2");
    session.Expect("harborsh> notify ty");  // shown again below
    session.Type("ped\r");
    session.Expect("NOTIFY: typed");
    session.Type("exit\r");
    EXPECT_EQ(session.ExitStatus(), 0);
}

TEST(Harborsh, AnInterruptGivesUpTheLineOrTheWaitButNotTheShell) {
    Session session;
    session.Type("nosuch garbage");
    session.Expect("garbage");
    session.Run("\x03", {});
    session.Type("sleep 60000\r");
    session.Expect("sleep 60000");
    usleep(300000);
    session.Run("\x03", {"ERROR, interrupted"});
    session.Type("exit\r");  // runs in the main task: the busy one does not hold it up
    EXPECT_EQ(session.ExitStatus(), 0);
}
