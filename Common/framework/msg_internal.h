// What the source files of the message service share among themselves.
#pragma once

#include "Common/OS/types.h"
#include "Common/framework/address.h"
#include "Common/framework/message.h"

// How many aliases and scripts led to what the calling task is doing.
UInt32 MsgNesting();
void MsgSetNesting(UInt32 nesting);

// Sets that number for a scope.
class MsgNestingT {
  public:
    explicit MsgNestingT(UInt32 nesting) : before_(MsgNesting()) { MsgSetNesting(nesting); }
    ~MsgNestingT() { MsgSetNesting(before_); }
    MsgNestingT(const MsgNestingT&) = delete;
    MsgNestingT& operator=(const MsgNestingT&) = delete;

  private:
    UInt32 before_;
};

// Whether an alias or a script may begin here; prints that it may not.
bool MsgMayNest(const char* what, const char* name);

// Whether a command that the calling task sends may take a call block. Where a script runs it waits
// until the pool has some to spare, see msgscript.cpp; false when none come back.
bool MsgScriptMayCall();
