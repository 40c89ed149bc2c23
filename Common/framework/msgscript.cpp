// Scripts: files of command lines.
//
// A command of another time and place becomes a deferred call, and a script may well be longer than
// the pool, or run in the very task that its commands belong to. So where a script finds less than
// half of the pool free it first serves its own task's calls, which may be scripts in turn, and
// waits for the other tasks only when little is left.
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/framework/message.h"
#include "Common/framework/msg_internal.h"

namespace {

constexpr int kPlenty = kModNumDeferredFuncs / 2;  // free call blocks that scripts take from
constexpr int kReserve = 64;    // those that they leave to others: no pool is low by a script
constexpr int kPatience = 500;  // ticks that a script waits for a block

thread_local int gScripts;  // scripts of the calling task that have begun and not ended
thread_local int gServing;  // of them those that are serving calls

// One more of a number for a scope.
class OneMoreT {
  public:
    explicit OneMoreT(int* number) : number_(number) { ++*number_; }
    ~OneMoreT() { --*number_; }
    OneMoreT(const OneMoreT&) = delete;
    OneMoreT& operator=(const OneMoreT&) = delete;

  private:
    int* number_;
};

// A stream that goes with its scope; opened and closed with the deletion held off, which would
// otherwise come between and lose it.
class FileT {
  public:
    explicit FileT(const char* path) {
        const NoCancelT no_cancel;
        file_ = fopen(path, "r");
    }
    ~FileT() {
        const NoCancelT no_cancel;
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

// Runs the calling task's pending calls. How deep that nests is bounded as scripts themselves are.
int ServeOwnCalls() {
    if (gServing > kMsgMaxDepth) {
        return 0;
    }
    const OneMoreT serving(&gServing);
    return ModProcessDeferredFunctions();
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

bool MsgScriptMayCall() {
    int waited = 0;
    while (gScripts > 0 && gFreeDeferredFuncsAvailable < kPlenty) {
        if (ServeOwnCalls() > 0) {
            continue;
        }
        if (gFreeDeferredFuncsAvailable >= kReserve) {
            break;
        }
        if (++waited > kPatience) {
            return false;
        }
        tm_wkafter(1);
    }
    return true;
}

eErrorT MsgExecuteScript(const char* pFileName, NotifyFuncT pNotifyFunc, void* userDefined) {
    OsAssert(pFileName);
    if (!MsgMayNest("script", pFileName)) {
        return kBadState;
    }
    char path[PATH_MAX];
    if (snprintf(path, sizeof(path), "%s.scr", pFileName) >= static_cast<int>(sizeof(path))) {
        return kItemNotFound;
    }
    const FileT file(path);
    if (file.Get() == nullptr) {
        return kItemNotFound;
    }
    printf("Executing \"%s\" script\n", pFileName);
    const MsgNestingT nesting(MsgNesting() + 1);
    const OneMoreT running(&gScripts);
    char line[kMsgMaxLen + 2];  // one more than a line may have, to see that one is too long
    for (int length; (length = ReadLine(file.Get(), line, sizeof(line))) >= 0;) {
        puts(line);
        if (length > kMsgMaxLen) {
            printf("ERROR, line over %d characters left out\n", kMsgMaxLen);
            continue;
        }
        if (MsgSendCmd(line, pNotifyFunc, userDefined) == kOutOfResources) {
            printf("ERROR, script \"%s\" stopped: its commands are not served\n", pFileName);
            return kOutOfResources;
        }
    }
    return kNoError;
}
