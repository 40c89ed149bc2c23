// Scripts: files of command lines.
//
// Every line that is no alias becomes a deferred call, and a script may well be longer than the
// pool, or run in the very task that its commands belong to. So a script that finds the pool low
// first serves its own task's calls, or waits for the other tasks to serve theirs.
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/framework/message.h"
#include "Common/framework/msg_internal.h"

namespace {

constexpr int kReserve = kModNumDeferredFuncs / 2;  // call blocks that scripts leave to others
constexpr int kPatience = 500;                      // ticks that a script waits for a block

thread_local bool gServingCalls;  // a script of this task is serving calls already

class FileT {
  public:
    explicit FileT(FILE* file) : file_(file) {}
    ~FileT() {
        if (file_ != nullptr) {
            fclose(file_);
        }
    }
    FileT(const FileT&) = delete;
    FileT& operator=(const FileT&) = delete;
    FILE* Get() const { return file_; }

  private:
    FILE* file_;
};

int ServeOwnCalls() {
    class ServingT {
      public:
        ServingT() { gServingCalls = true; }
        ~ServingT() { gServingCalls = false; }
        ServingT(const ServingT&) = delete;
        ServingT& operator=(const ServingT&) = delete;
    };
    if (gServingCalls) {
        return 0;
    }
    const ServingT serving;
    return ModProcessDeferredFunctions();
}

// Waits until the pool has blocks to spare; false when none come back.
bool WaitForBlocks() {
    int waited = 0;
    while (gFreeDeferredFuncsAvailable.load(std::memory_order_relaxed) < kReserve) {
        if (ServeOwnCalls() > 0) {
            continue;
        }
        // A script within a script of this task cannot serve, and its calls may be all that is
        // pending: it gives up sooner.
        waited += gServingCalls ? kPatience / 10 : 1;
        if (waited > kPatience) {
            return false;
        }
        tm_wkafter(1);
    }
    return true;
}

// Reads a line without its line feed. Returns its length, cut at `size` - 1; -1 at the end of the
// file.
int ReadLine(FILE* file, char* line, int size) {
    int length = 0;
    int c = getc(file);
    if (c == EOF) {
        return -1;
    }
    for (; c != EOF && c != '\n'; c = getc(file)) {
        if (length < size - 1) {
            line[length++] = static_cast<char>(c);
        }
    }
    line[length] = '\0';
    return length;
}

}  // namespace

eErrorT MsgExecuteScript(const char* pFileName, NotifyFuncT pNotifyFunc, void* userDefined) {
    OsAssert(pFileName);
    if (!MsgMayNest("script", pFileName)) {
        return kBadState;
    }
    char path[PATH_MAX];
    if (snprintf(path, sizeof(path), "%s.scr", pFileName) >= static_cast<int>(sizeof(path))) {
        return kItemNotFound;
    }
    const FileT file(fopen(path, "r"));
    if (file.Get() == nullptr) {
        return kItemNotFound;
    }
    printf("Executing \"%s\" script\n", pFileName);
    const MsgNestingT nesting(MsgNesting() + 1);
    char line[kMsgMaxLen + 2];  // one more than a line may have, to see that one is too long
    for (int length; (length = ReadLine(file.Get(), line, sizeof(line))) >= 0;) {
        puts(line);
        if (length > kMsgMaxLen) {
            printf("ERROR, line over %d characters left out\n", kMsgMaxLen);
            continue;
        }
        if (gFreeDeferredFuncsAvailable.load(std::memory_order_relaxed) < kReserve &&
            !WaitForBlocks()) {
            printf("ERROR, script \"%s\" stopped: its commands are not served\n", pFileName);
            return kOutOfResources;
        }
        MsgSendCmd(line, pNotifyFunc, userDefined);
    }
    return kNoError;
}
