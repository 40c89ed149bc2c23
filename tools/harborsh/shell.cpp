#include "tools/harborsh/shell.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/message.h"
#include "tools/harborsh/services.h"

namespace harborsh {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPumpPeriod = std::chrono::milliseconds(1);
constexpr auto kSettleLimit = std::chrono::seconds(2);

// The outcome that is waited for. Outcomes of commands that were given up come late; the number
// tells them apart.
struct OutcomeT {
    std::mutex mutex;
    UInt32 number = 0;
    bool there = false;
    eErrorT err = kNoError;
    std::string text;
};
OutcomeT gOutcome;
std::atomic<bool> gEnded{false};

void Notify(eErrorT err, const char* text, void* userDefined) {
    const std::scoped_lock lock(gOutcome.mutex);
    if (id_of(userDefined) == gOutcome.number) {
        gOutcome.there = true;
        gOutcome.err = err;
        gOutcome.text = text;
    }
}

UInt32 NewNumber() {
    const std::scoped_lock lock(gOutcome.mutex);
    gOutcome.there = false;
    return ++gOutcome.number;
}

bool OutcomeThere() {
    const std::scoped_lock lock(gOutcome.mutex);
    return gOutcome.there;
}

eErrorT ExitCmd(int, char**, char*) {
    gEnded = true;
    return kNoError;
}
CmdEntryT gExitCmd = {{}, "exit", ExitCmd, 1, "exit", kMsgCmdSync, 0};

}  // namespace

Shell::Shell(std::function<bool()> pump, int wait_seconds)
    : pump_(std::move(pump)), wait_seconds_(wait_seconds) {
    MsgAddCmd(&gExitCmd);
}

Shell::~Shell() {
    MsgDeleteCmd(&gExitCmd);
}

bool Shell::Ended() const {
    return gEnded;
}

void Shell::Fail(eErrorT err, const char* text) {
    status_ = err;
    fflush(stdout);
    fprintf(stderr, "ERROR, %s\n", text);
}

void Shell::Wait() {
    const auto end = Clock::now() + std::chrono::seconds(wait_seconds_);
    while (!OutcomeThere()) {
        if (!pump_()) {
            Fail(kTimeOut, "interrupted: the command goes on without the shell");
            return;
        }
        if (Clock::now() > end) {
            Fail(kTimeOut, "no outcome in time: the command goes on without the shell");
            return;
        }
        std::this_thread::sleep_for(kPumpPeriod);
    }
    const std::scoped_lock lock(gOutcome.mutex);
    if (!gOutcome.text.empty()) {
        puts(gOutcome.text.c_str());
    }
    status_ = gOutcome.err;
    if (status_ != kNoError) {
        Fail(status_, ErrorString(status_));
    }
}

// Waits for the deferred work that the command left behind, and for the log, so that what it prints
// comes before the next command.
void Shell::Settle() {
    const auto end = Clock::now() + kSettleLimit;
    while (!Settled() && Clock::now() < end && pump_()) {
        std::this_thread::sleep_for(kPumpPeriod);
    }
    syslogDrainQueue();
    fflush(stdout);
    pump_();
}

void Shell::Run(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos || text[first] == '#') {
        return;
    }
    const std::string line = text.substr(first);
    if (line.size() != strlen(line.c_str())) {
        Fail(kBadParameter, "line with a NUL character");
        return;
    }
    if (line.size() > kMsgMaxLen) {
        Fail(kBadParameter, "line over 512 characters");
        return;
    }
    MsgSendCmd(line.c_str(), Notify, from_id<void>(NewNumber()));
    Wait();
    Settle();
}

void Shell::RunAll(const std::string& lines) {
    for (const std::string& line : SplitLines(lines)) {
        if (Ended()) {
            return;
        }
        Run(line);
    }
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines(1);
    bool quoted = false;
    for (size_t i = 0; i < text.size(); i++) {
        const bool escaped = quoted && i > 0 && text[i - 1] == '\\';
        if (text[i] == '"' && !escaped) {
            quoted = !quoted;
        }
        if (text[i] == '\n' || (text[i] == ';' && !quoted)) {
            lines.emplace_back();
            quoted = false;
        } else {
            lines.back() += text[i];
        }
    }
    return lines;
}

}  // namespace harborsh
