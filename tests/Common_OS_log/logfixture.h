// A log without its writer task: the test drains the queue itself and sees what is printed.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Common/OS/linux/semaphores.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
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
        const std::string text = out_.Text();
        std::string fresh = text.substr(seen_);
        seen_ = text.size();
        return fresh;
    }

    StdoutFile out_;

  private:
    size_t seen_ = 0;
};
