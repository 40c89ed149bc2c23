// The FPGA serial driver's substitute as a process of its own, for the time of a test. The
// program's path is compiled in.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

class DriverProcess {
  public:
    // `line` as the program's --line takes it; null: none.
    explicit DriverProcess(const char* line = nullptr) {
        unlink(kLog);
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ready[1], STDOUT_FILENO);
            const char* option = line != nullptr ? "--line" : nullptr;
            execl(FPGASERIAL_PROGRAM, "fpgaserial", "--log", kLog, option, line, nullptr);
            _exit(127);
        }
        close(ready[1]);
        char text[6] = {};
        EXPECT_EQ(read(ready[0], text, sizeof text), 6) << "the driver did not start";
        close(ready[0]);
    }

    ~DriverProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    DriverProcess(const DriverProcess&) = delete;
    DriverProcess& operator=(const DriverProcess&) = delete;

    // All that the driver saw so far.
    std::string Log() const {
        std::ifstream file(kLog);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

  private:
    static constexpr const char* kLog = "/tmp/fpgaserial.log";

    pid_t pid_ = -1;
};
