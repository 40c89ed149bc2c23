// Messages: lines of text, a command with arguments, sent to the task that registered the command;
// the answer, a text and an error code, comes back through a notification function. Any task may
// send, add commands and listen. Handlers run in the task that registered the command,
// notifications in the task "msgn", unless a command asks for both at once in the sender's task.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/list.h"
#include "Common/framework/mod.h"

constexpr int kMsgMaxLen = 512;  // characters of a line, a response or a notification
constexpr int kMsgMaxArgs = 80;
constexpr int kMsgMaxAliases = 10;
constexpr int kMsgMaxNotify = 10;

// How deep aliases and scripts may nest in each other. What would go deeper is refused with
// kBadState and a line on standard output, so that loops end.
constexpr int kMsgMaxDepth = 8;

// CmdEntryT::flags.
constexpr UInt32 kMsgCmdSync = 0x1;     // run at once in the sender's task
constexpr UInt32 kMsgCmdForward = 0x2;  // send to the other processors too
constexpr int kMsgCmdUseShift = 16;     // the upper half is the service's: which use of taskID

// OutputMsgPrints.
constexpr UInt32 kMsgPrintCmd = 0x1;
constexpr UInt32 kMsgPrintRsp = 0x2;
constexpr UInt32 kMsgPrintNotify = 0x4;

// A command's handler: argv[0] is the command word as typed; the response, at most kMsgMaxLen
// bytes, goes to `pResponse`, which starts empty. argv is valid during the call.
typedef eErrorT (*CmdFuncT)(int argc, char** argv, char* pResponse);

// A listener, or the receiver of a command's outcome; the text is valid during the call.
typedef void (*NotifyFuncT)(eErrorT err, const char* pNotifyString, void* userDefined);

// One command. Tables of them end with a row whose name is null. The record stays the caller's and
// lives while the command is registered.
typedef struct CmdEntryS {
    ListT list;
    const char* name;
    CmdFuncT pFunc;
    int argcmin;         // least argc, the command word included
    const char* syntax;  // usage text; an alias's expansion
    UInt32 flags;
    UInt32 taskID;  // filled on registration: where the handler runs
} CmdEntryT;

// A dispatched command, as it travels: offsets in place of addresses, 32 bits wide.
typedef struct CmdArgS {
    char cmdString[kMsgMaxLen + 1];  // the line, split in place
    int argc;
    UInt32 argv[kMsgMaxArgs];  // each word's offset from the record's start
    NotifyFuncT pNotifyFunc;
    void* userDefined;
    UInt32 flags;    // the command's
    UInt32 nesting;  // how many aliases and scripts led to it
} CmdArgT;
static_assert(sizeof(CmdArgT) <= kModMaxArgs);

// One notification, as it travels.
typedef struct NotifyArgS {
    char notifyString[kMsgMaxLen + 1];
    NotifyFuncT pNotifyFunc;
    void* userDefined;
    eErrorT err;
} NotifyArgT;
static_assert(sizeof(NotifyArgT) <= kModMaxArgs);

// The command table, in ascending order of names without regard to case; changed and walked in the
// interrupts-off section.
extern ListT* gCmdTable;
extern CmdEntryT defaultCmds[5];
extern CmdEntryT aliasCmds[kMsgMaxAliases];
extern std::atomic<NotifyFuncT> gNotificationTable[kMsgMaxNotify];
extern std::atomic<UInt32> OutputMsgPrints;  // what is echoed on the console
extern std::atomic<UInt32> notifyTaskID;     // the task "msgn"

// Starts the notification task and adds the built-in commands, which run in the calling task.
// kNoError; kCantStartTask when either fails, or while a notification task runs already: then
// nothing changes.
eErrorT MsgInit();

// Asks the notification task to end.
void MsgExit();

// Adds a command, to run in the calling task. kNoError, or kAlreadyExists. A command of that name
// whose task is gone gives way.
eErrorT MsgAddCmd(CmdEntryT* pCmd);

// Adds a table of commands, up to the first that is refused. kNoError, kFuncReturnedError for a
// null table, or kAlreadyExists.
eErrorT MsgAddCmdTable(CmdEntryT* cmdTable);

// Removes a command. kNoError, or kItemNotFound.
eErrorT MsgDeleteCmd(CmdEntryT* pCmd);

// Removes a table of commands. kNoError, kFuncReturnedError for a null table, or kItemNotFound when
// one of them was absent (the others go).
eErrorT MsgDeleteCmdTable(CmdEntryT* cmdTable);

// The first command, from the list head `cmdTable` on, whose name begins with `s` without regard to
// case; null if there is none. Takes no lock: the caller is in the interrupts-off section, or knows
// that the table does not change.
CmdEntryT* MsgLookup(CmdEntryT* cmdTable, const char* s);

// Sends a command line. The outcome goes to `pNotifyFunc`(error, response, `userDefined`) (null:
// nowhere), in "msgn", or at once when the line is refused. kNoError once the command is on its
// way; kBadParameter for a line over 512 characters (then nobody is notified), for too few
// arguments, or when the command's task is gone; kItemNotFound for an unknown command;
// kOutOfResources in a script whose calls are not served. A handler that ends its own task is not
// answered.
eErrorT MsgSendCmd(const char* pCmdString, NotifyFuncT pNotifyFunc, void* userDefined);

// Sends a text to every listener, in "msgn". kNoError; kBadParameter for an empty text or one over
// 512 characters; kNotInitialized before MsgInit; the error of queueing.
eErrorT MsgSendNotification(const char* pNotifyString);

// Adds and removes a listener. A listener may remove itself while it is called.
eErrorT MsgAddNotification(NotifyFuncT pNotifyFunc);     // kNoError or kOutOfMemory
eErrorT MsgDeleteNotification(NotifyFuncT pNotifyFunc);  // kNoError or kBadParameter

// Sends each line of the file "<pFileName>.scr" with the same notification. Blocks while too many
// deferred calls wait, serving those of the calling task meanwhile. kNoError; kItemNotFound when
// the file cannot be opened; kBadState when aliases and scripts nest deeper than kMsgMaxDepth;
// kOutOfResources when the script was stopped because calls are not served. A line over 512
// characters is reported and skipped.
eErrorT MsgExecuteScript(const char* pFileName, NotifyFuncT pNotifyFunc, void* userDefined);

// Runs the row of `subCmdTable` whose name begins with argv[1], with the words from there on.
// Returns the handler's result; kBadParameter for too few words; kItemNotFound for no match.
eErrorT MsgSubCmdParse(CmdEntryT* subCmdTable, int argc, char** argv, char* pResponse);

// Switches the echo of "cmd", "rsp" or "notify". kNoError, or kBadParameter for another word.
eErrorT MsgPrintEnable(const char* pMsgType, Boolean enable);
