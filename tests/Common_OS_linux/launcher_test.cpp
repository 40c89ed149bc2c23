// Shell commands, directly and through the launcher pipe, against launchers good and bad.
#include "Common/OS/linux/launcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "Common/OS/linux/procinfo.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

TEST(LauncherPipe, AnswersGoodAndBadBecomeResultsAndAMissingPipeAnError) {
    char folder[] = "/tmp/launchXXXXXX";
    setenv("HARBOR_DEV_DIR", mkdtemp(folder), 1);
    const std::string pipe = std::string(folder) + "/plaunch";
    const StdoutFile out;
    InitSyslogInterface();
    EXPECT_EQ(system_pthread("nobody there"), -1);
    EXPECT_TRUE(out.WaitFor("system_pthread: nobody there [2 No such file or directory]\n"));
    EXPECT_NE(access(pipe.c_str(), F_OK), 0);  // never created

    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string zeros(126, '0');
    const std::pair<std::string, int> cases[] = {{"0\n", 0}, {"42\n", 42},       {"-3", -3},
                                                 {"", -1},   {"what?\n", 0},     {"7\n9\n", 7},
                                                 {"\n", 0},  {zeros + "12\n", 1}};  // cut at 127
    for (const auto& [answer, result] : cases) {
        // Plays a launcher: takes one command, gives one answer, and stays after a whole line.
        std::atomic<bool> returned{false};
        std::thread launcher([&, text = answer] {
            std::string command;
            std::getline(std::ifstream(pipe), command, '\0');
            EXPECT_EQ(command, "./config_port close ttyS1\n");
            std::ofstream out_end(pipe);
            out_end << text << std::flush;
            EXPECT_TRUE(Eventually([&] { return returned || !text.ends_with('\n'); }));
        });
        EXPECT_EQ(system_pthread("./config_port close ttyS1"), result) << answer;
        returned = true;
        launcher.join();
    }
    // Every caller gets the answer to its own command.
    std::thread launcher([&] {
        for (std::string command; command != "0";) {
            std::getline(std::ifstream(pipe), command);
            std::ofstream(pipe) << command << std::endl;
        }
    });
    const auto call = [](int first) {
        for (int i = first; i < first + 1000; i++) {
            EXPECT_EQ(system_pthread(std::to_string(i).c_str()), i);
        }
    };
    std::thread other(call, 1000);
    call(2000);
    other.join();
    EXPECT_EQ(system_pthread("0"), 0);
    launcher.join();
    // A reader that goes at once must not end the process by a signal.
    std::atomic<bool> stop{false};
    std::thread fickle([&] {
        while (!stop) {
            close(open(pipe.c_str(), O_RDONLY | O_NONBLOCK));
            close(open(pipe.c_str(), O_WRONLY | O_NONBLOCK));
        }
    });
    for (int i = 0; i < 1000; i++) {
        // What nobody took may come back from the pipe as the answer: a text, which counts as 0.
        EXPECT_LE(system_pthread("hello"), 0);
    }
    stop = true;
    fickle.join();
    std::filesystem::remove_all(folder);
}

TEST(ProcInfo, ATaskDeletedInACommandLeavesItsPipeOpen) {
    std::atomic<bool> asked{false};
    const int before = dup(1);
    close(before);
    const UInt32 id = Spawn("asks", [&] {
        char line[8];
        asked = true;
        read_command("sleep 1; echo x", line, sizeof(line));
    });
    ASSERT_TRUE(Eventually([&] { return asked.load(); }));
    tm_wkafter(20);
    t_delete(id);
    const int after = dup(1);
    close(after);
    EXPECT_EQ(after, before);
}

TEST(ProcInfo, CommandsGiveTheirFirstLineTrimmedAndCut) {
    const struct {
        const char* command;
        int result;
        const char* line;
    } cases[] = {{"printf '  abc  \\nsecond\\n'", 0, "abc"},
                 {"echo 1234567890", 0, "1234567"},
                 {"/no/such/program 2>/dev/null", -1, ""}};
    for (const auto& c : cases) {
        char line[8] = "old";
        EXPECT_EQ(read_command(c.command, line, sizeof(line)), c.result);
        EXPECT_STREQ(line, c.line);
    }
}

TEST(ProcInfo, AProcessIsFoundByItsWholeNameOnly) {
    const std::string name = "find" + std::to_string(getpid());
    prctl(PR_SET_NAME, name.c_str());
    EXPECT_EQ(find_pid(name.c_str()), getpid());
    for (const std::string& other : {name.substr(1), name + "x", name.substr(0, name.size() - 1)}) {
        EXPECT_EQ(find_pid(other.c_str()), -1) << other;
    }
}

TEST(ProcInfo, TheRootsMountIsAskedOnceAndTheAnswerKept) {
    char folder[] = "/tmp/mountXXXXXX";
    const std::string mount = std::string(mkdtemp(folder)) + "/mount";
    setenv("PATH", (std::string(folder) + ":" + getenv("PATH")).c_str(), 1);
    for (const auto& [table, answer] : {std::pair{"h:/x on / type nfs (rw)", -1},
                                        {"h:/x on /mnt type nfs (rw)", 0},
                                        {"/dev/root on / type ext2 (rw)", 0}}) {
        const auto ask_twice = [&, line = table] {
            std::ofstream(mount) << "#!/bin/sh\necho '" << line << "'\n";
            chmod(mount.c_str(), 0700);
            const int first = is_NFS();
            std::filesystem::remove(mount);
            _exit(first * 10 + is_NFS());
        };
        EXPECT_EXIT(ask_twice(), testing::ExitedWithCode(answer * 11 & 0xFF), "") << table;
    }
    std::filesystem::remove_all(folder);
}
