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
#include <vector>

class DriverProcess {
  public:
    // `lines` as the program's --line takes them.
    explicit DriverProcess(const std::vector<std::string>& lines) {
        unlink(kLog);
        std::vector<const char*> argv{"fpgaserial", "--log", kLog};
        for (const std::string& line : lines) {
            argv.push_back("--line");
            argv.push_back(line.c_str());
        }
        argv.push_back(nullptr);
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ready[1], STDOUT_FILENO);
            execv(FPGASERIAL_PROGRAM, const_cast<char* const*>(argv.data()));
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
