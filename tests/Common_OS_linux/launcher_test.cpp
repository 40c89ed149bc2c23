// Shell commands through the launcher pipe, against launchers good and bad. The pipe has a fixed
// path, so this suite gives way where one exists already.
#include "Common/OS/linux/launcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "Common/OS/syslogq.h"
#include "tests/support/stdout_file.h"

namespace {

constexpr char kPipe[] = "/tmp/plaunch";

// Plays a launcher: takes one command, gives one answer.
class Launcher {
  public:
    explicit Launcher(const std::string& answer)
        : thread_([this, answer] {
              char block[256];
              const int in = open(kPipe, O_RDONLY);
              ssize_t got;
              while ((got = read(in, block, sizeof(block))) > 0) {
                  command_.append(block, static_cast<size_t>(got));
              }
              close(in);
              const int out = open(kPipe, O_WRONLY);
              EXPECT_EQ(write(out, answer.data(), answer.size()),
                        static_cast<ssize_t>(answer.size()));
              close(out);
          }) {}

    std::string Command() {
        thread_.join();
        return command_;
    }

  private:
    std::string command_;
    std::thread thread_;
};

}  // namespace

TEST(LauncherPipe, AnswersGoodAndBadBecomeResultsAndAMissingPipeAnError) {
    if (access(kPipe, F_OK) == 0) {
        GTEST_SKIP() << kPipe << " exists: a launcher may be using it";
    }
    const StdoutFile out;
    InitSyslogInterface();
    EXPECT_EQ(system_pthread("nobody there"), -1);
    EXPECT_TRUE(out.WaitFor("system_pthread: nobody there [2 No such file or directory]\n"));
    EXPECT_NE(access(kPipe, F_OK), 0);  // never created

    ASSERT_EQ(mkfifo(kPipe, 0600), 0);
    const struct {
        const char* answer;
        int result;
    } cases[] = {{"0\n", 0},     {"42\n", 42},  {"-3", -3}, {"", -1},
                 {"what?\n", 0}, {"7\n9\n", 7}, {"\n", 0}};
    for (const auto& c : cases) {
        Launcher launcher(c.answer);
        EXPECT_EQ(system_pthread("./config_port close ttyS1"), c.result) << c.answer;
        EXPECT_EQ(launcher.Command(), "./config_port close ttyS1\n");
    }
    // A reader that goes at once must not end the process by a signal.
    std::atomic<bool> stop{false};
    std::thread fickle([&] {
        while (!stop) {
            close(open(kPipe, O_RDONLY | O_NONBLOCK));
            const int writer = open(kPipe, O_WRONLY | O_NONBLOCK);
            if (writer >= 0) {
                close(writer);
            }
        }
    });
    for (int i = 0; i < 20; i++) {
        // What nobody took may come back from the pipe as the answer: a text, which counts as 0.
        EXPECT_LE(system_pthread("hello"), 0);
    }
    stop = true;
    fickle.join();
    unlink(kPipe);
}
