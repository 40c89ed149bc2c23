// A log without its writer task: the test drains the queue itself and sees what is printed. Also
// lines that show when they were torn.
#pragma once

#include <gmock/gmock.h>

#include <sstream>
#include <vector>

#include "Common/OS/linux/semaphores.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

class LogFixtureT : public testing::Test {
  protected:
    void SetUp() override {
        UInt32 semaphore = 0;
        ASSERT_EQ(sm_create("logw", 1, 0, &semaphore), kSmOk);
        logqueue::log_Semaphore = semaphore;
    }

    // What was printed since the last call, with the queue drained.
    std::string Printed() {
        syslogDrainQueue();
        return out_.Fresh();
    }

    StdoutFile out_;
};

// A printed line of `length` characters that tells its number and length.
inline std::string Numbered(int number, size_t length) {
    std::string line = "pc[0]: " + std::to_string(number) + " " + std::to_string(length) + " ";
    line.resize(length - 1, '.');
    return line + "\n";
}

// The numbers of the lines in printed text; -1 for a torn one. Passes over what the log and the
// operating-system layer say themselves.
inline std::vector<int> NumbersIn(const std::string& text) {
    std::vector<int> numbers;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int number = -1;
        if (sscanf(line.append("\n").c_str(), "pc[0]: %d", &number) == 1 ||
            (line != logqueue::OVERFLOW_MSG + 6 && line.rfind("pc[0]: os: ", 0) != 0 &&
             line.rfind("pc[0]: ...last line repeated ", 0) != 0)) {
            numbers.push_back(line == Numbered(number, line.size()) ? number : -1);
        }
    }
    return numbers;
}
