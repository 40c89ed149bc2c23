// The shell as its users meet it: command lines from everywhere, and a terminal.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

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

    // Reads until `part` has come, and forgets what came up to its end.
    bool Expect(const std::string& part) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (;;) {
            const size_t at = text_.find(part);
            if (at != std::string::npos) {
                text_.erase(0, at + part.size());
                return true;
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
        return false;
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
        {"-c notify\\ a -c nosuch", -kItemNotFound, "NOTIFY: a\nERROR, item not found\n"},
        {"-c ''", 0, ""},
        {"-c 'notify \"a;\nnosuch'", -kItemNotFound, "NOTIFY: a;\nERROR, item not found\n"},
        {"-c 'script /nowhere/at/all'", -kItemNotFound, "ERROR, item not found\n"},
        {"/nowhere/at/all", -kItemNotFound, "harborsh: cannot read /nowhere/at/all\n"},
        {"/", -kItemNotFound, "harborsh: cannot read /\n"},
        {"/dev/null", 0, ""},
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
    const std::filesystem::path dir = testing::TempDir() + "harborsh_scripts";
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "self.scr") << "notify again\nscript " << (dir / "self").string() << "\n";
    const ResultT result = RunShell("-c 'script " + (dir / "self").string() +
                                    "; alias loop loop; loop; notify alive'");
    EXPECT_TRUE(Has(result.text, "not run: aliases and scripts nest at most 8 deep\n"));
    EXPECT_TRUE(Has(result.text, "NOTIFY: alive\n")) << result.text;
    EXPECT_EQ(result.status, 0);
    size_t runs = 0;
    for (size_t at = 0; (at = result.text.find("NOTIFY: again\n", at)) != std::string::npos; at++) {
        runs++;
    }
    EXPECT_EQ(runs, 8U);
    std::ofstream(dir / "plain") << "notify from a file\nnosuch\n";
    const ResultT plain = RunShell((dir / "plain").string());
    EXPECT_EQ(plain.text, "NOTIFY: from a file\nERROR, item not found\n");
    EXPECT_EQ(plain.status, -kItemNotFound);
    std::filesystem::remove_all(dir);
}

TEST(Harborsh, ACommandThatTakesTooLongIsLeftBehind) {
    const ResultT result = RunShell("-w 1 -c 'sleep 60000; demo timer 60000 1000'");
    EXPECT_EQ(result.status, -kTimeOut);
    EXPECT_TRUE(Has(result.text, "ERROR, no outcome in time")) << result.text;
}

TEST(Harborsh, TheDemonstrationCrossesTasks) {
    const ResultT result = RunShell(
        "-c 'demo call hi; demo callback news; demo timer 10 2; "
        "demo exception oops; demo stop; demo call again'");
    const std::string parts[] = {
        R"(wrk1: hop 1 with "hi"
wrk2: hop 2 with "hi"
cmds: hop 3 with "hi"
)",
        R"(wrk1: fires "news"
wrk1: whoever fires heard "news" from Worker[1]
wrk2: the neighbour heard "news" from Worker[1]
)",
        "wrk1: tick 1\nwrk1: tick 2\nwrk1: timer stopped\n",
        "exception of Worker[2]: oops\n",
        "cmds: hop 3 with \"again\"\n",
    };
    for (const std::string& part : parts) {
        EXPECT_TRUE(Has(result.text, part)) << part << "in\n" << result.text;
    }
    EXPECT_EQ(result.status, 0);
}

TEST(Harborsh, DiagnosticsShowAndChangeWhatTheyName) {
    const struct {
        const char* lines;
        const char* text;
    } cases[] = {
        {"modules", "Shell[0]  "},
        {"modules shell 1", "ERROR, bad parameter\n"},
        {"timers active", "Timer    run task"},
        {"tasks", "cmds"},
        {"calls", "DFC List 0 entries"},
        {"types", "remmsg  "},
        {"devices", "Ser         8 closed"},
        {"categories list g711", "  9 AUD  G711 ENC"},
        {"categories enable 9; categories list g711", "ENC  enabled  debug\n"},
        {"categories enable 123", "ERROR, bad parameter\n"},
        {"logformat level time", "time level "},
        {"level 7; log 7 shown; level 3; log 4 hidden", "pc[0]: shell: shown\n"},
        {"showfilter add oth; log 3 other; log 3 hidden", "shell: other\n"},
        {"config colour 1 blue; config colour 1", "config colour 1 blue\n"},
        {"pool create p 1 4 100; pool dump", "p[01]"},
        {"config colour 1x red", "ERROR, bad parameter\n"},
        {"pool create p 1 4294967296 100", "ERROR, bad parameter\n"},
        {"ring mark 1 0x20; ring dump", "00000001 00000020"},
        {"echo cmd on; shellHelp", "CMD: shellHelp\n"},
        {"echo cmd maybe", "ERROR, bad parameter\n"},
        {"tracefilter add shell; tracefilter delete *; tracefilter delete x",
         "ERROR, bad parameter\n"},
    };
    for (const auto& c : cases) {
        const ResultT result = RunShell("-c '" + std::string(c.lines) + "'");
        EXPECT_TRUE(Has(result.text, c.text)) << c.lines << "\n" << result.text;
        EXPECT_FALSE(Has(result.text, "hidden"));
    }
}

TEST(Harborsh, LogSettingsOfOneRunWorkInTheNextFromItsFirstLine) {
    const std::string store = OwnFolder("store");
    RunShell("-s " + store +
             " -c 'showfilter add shell; showfilter save; cullfilter add noisy;"
             "cullfilter save; logformat level; logformat save; spewfilter on'");
    const ResultT result = RunShell("-s " + store +
                                    " -c 'spewfilter; logformat; log 3 shown;"
                                    "log 3 shown; log 3 noisy; log 3 again'");
    EXPECT_TRUE(Has(result.text,
                    "show filters:\n  \"shell\"\ncull filters:\n  \"noisy\"\n"
                    "on\nlevel \nERROR pc[0]: shell: shown\n"
                    "ERROR pc[0]: shell: again\n"))
        << result.text;
    std::filesystem::remove_all(store);
}

TEST(Harborsh, ATerminalGetsAPromptCompletionAndHistory) {
    Session session;
    ASSERT_TRUE(session.Expect("harborsh> "));
    session.Type("noti\tfirst\r");
    EXPECT_TRUE(session.Expect("notify first"));
    EXPECT_TRUE(session.Expect("NOTIFY: first\r\n"));
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("demo callb\tnews\r");
    EXPECT_TRUE(session.Expect("demo callback news"));
    EXPECT_TRUE(session.Expect("heard \"news\" from Worker[1]"));
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("\x10\x10\r");  // the line before the last
    EXPECT_TRUE(session.Expect("NOTIFY: first\r\n"));
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("help \t\t");
    EXPECT_TRUE(session.Expect("alias"));
    EXPECT_TRUE(session.Expect("types"));
    session.Type("\x15nosuch\r");
    EXPECT_TRUE(session.Expect("ERROR, item not found"));
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("\x04");  // end of input
    EXPECT_EQ(session.ExitStatus(), -kItemNotFound);
}

TEST(Harborsh, OutputOfOtherTasksDoesNotSpoilTheLineBeingTyped) {
    Session session;
    ASSERT_TRUE(session.Expect("harborsh> "));
    session.Type("demo timer 200 3 &\r");
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("notify ty");
    EXPECT_TRUE(session.Expect("tick 2"));
    EXPECT_TRUE(session.Expect("harborsh> notify ty"));  // shown again below
    session.Type("ped\r");
    EXPECT_TRUE(session.Expect("NOTIFY: typed"));
    session.Type("exit\r");
    EXPECT_EQ(session.ExitStatus(), 0);
}

TEST(Harborsh, AnInterruptGivesUpTheLineOrTheWaitButNotTheShell) {
    Session session;
    ASSERT_TRUE(session.Expect("harborsh> "));
    session.Type("nosuch garbage");
    EXPECT_TRUE(session.Expect("garbage"));
    session.Type("\x03");
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("sleep 60000\r");
    EXPECT_TRUE(session.Expect("sleep 60000"));
    usleep(300000);
    session.Type("\x03");
    EXPECT_TRUE(session.Expect("ERROR, interrupted"));
    EXPECT_TRUE(session.Expect("harborsh> "));
    session.Type("exit\r");  // runs in the main task: the busy one does not hold it up
    EXPECT_EQ(session.ExitStatus(), 0);
}
