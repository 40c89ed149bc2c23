// Commands: the table, parsing, dispatch and notifications. Aliases, help and sub-commands are in
// msgcmds.cpp, scripts in msgscript.cpp.
#include "Common/framework/message.h"

#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/msg_internal.h"
#include "Common/framework/proxy.h"
#include "Common/framework/rem_message.h"

ListT* gCmdTable;
std::atomic<NotifyFuncT> gNotificationTable[kMsgMaxNotify];
std::atomic<UInt32> OutputMsgPrints{kMsgPrintNotify};
std::atomic<UInt32> notifyTaskID{0};

namespace {

thread_local UInt32 gNesting;

constexpr UInt32 kNotifyPriority = 17;

// A notification that contains one of these reaches its listeners but never the console: key
// presses and secrets.
constexpr const char* kUnprinted[] = {
    "button",
    "passwd",
    " sw ",
    " roomsw ",
    " meetingpassword ",
    " sippassword ",
    " softwareupdatepassword ",
    " mppassword ",
    " globaldirectoryurlsp ",
    " pwencryptiontyperemote ",
    " pwencryptiontyperoom ",
    " pwencryptiontypemeeting ",
};

bool Echoes(UInt32 bit) {
    return (OutputMsgPrints & bit) != 0;
}

CmdEntryT* EntryOf(ListT* node) {
    return reinterpret_cast<CmdEntryT*>(node);
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// Copies a line, cut at the first line feed and the first carriage return.
void CopyLine(CmdArgT* args, const char* line) {
    const size_t length = strcspn(line, "\r\n");
    memcpy(args->cmdString, line, length);
    args->cmdString[length] = '\0';
}

// Ends the quoted word whose first character is at `from`, in place, with its escapes resolved.
// Returns what follows it.
char* EndQuotedWord(char* from) {
    char* to = from;
    while (*from != '\0' && *from != '"') {
        if (from[0] == '\\' && from[1] == '"') {
            from++;
        }
        *to++ = *from++;
    }
    char* rest = *from == '"' ? from + 1 : from;
    *to = '\0';
    return rest;
}

char* EndPlainWord(char* from) {
    while (*from != '\0' && !IsBlank(*from)) {
        from++;
    }
    char* rest = *from != '\0' ? from + 1 : from;
    *from = '\0';
    return rest;
}

// Splits the line into words, in place. Words beyond the 80th are left out.
void Split(CmdArgT* args) {
    char* at = args->cmdString;
    args->argc = 0;
    while (args->argc < kMsgMaxArgs) {
        while (IsBlank(*at)) {
            at++;
        }
        if (*at == '\0' || (*at == '#' && args->argc == 0)) {
            break;
        }
        const bool quoted = *at == '"';
        char* word = quoted ? at + 1 : at;
        args->argv[args->argc++] = static_cast<UInt32>(word - reinterpret_cast<char*>(args));
        at = quoted ? EndQuotedWord(word) : EndPlainWord(word);
    }
    if (args->argc == 0) {
        args->cmdString[0] = '\0';
        args->argv[0] = offsetof(CmdArgT, cmdString);
        args->argc = 1;
    }
}

const char* WordAt(const CmdArgT* args, int index) {
    return reinterpret_cast<const char*>(args) + args->argv[index];
}

void DeferredNotify(void*, void* pArgs) {
    const auto* args = static_cast<const NotifyArgT*>(pArgs);
    args->pNotifyFunc(args->err, args->notifyString, args->userDefined);
}

eErrorT QueueNotification(NotifyArgT* args) {
    const UInt32 task = notifyTaskID;
    if (task == 0) {
        return kNotInitialized;
    }
    return ModDeferFunctionCall(task, DeferredNotify, nullptr, args, sizeof(*args));
}

void PrintResponse(eErrorT err, const char* response) {
    if (err != kNoError) {
        printf("RSP: ERROR, %s\n", ErrorString(err));
    } else if (response[0] != '\0') {
        printf("RSP: %s\n", response);
    }
}

// Runs a dispatched command in its own task.
void DeferredCmd(void* userDefined, void* pArgs) {
    auto* args = static_cast<CmdArgT*>(pArgs);
    const auto handler = func_from_id<CmdFuncT>(id_of(userDefined));
    char* argv[kMsgMaxArgs + 1] = {};
    for (int i = 0; i < args->argc; i++) {
        argv[i] = reinterpret_cast<char*>(args) + args->argv[i];
    }
    NotifyArgT notify;
    notify.notifyString[0] = '\0';
    {
        const MsgNestingT nesting(args->nesting);
        notify.err = handler(args->argc, argv, notify.notifyString);
    }
    notify.notifyString[kMsgMaxLen] = '\0';
    if (args->pNotifyFunc != nullptr) {
        notify.pNotifyFunc = args->pNotifyFunc;
        notify.userDefined = args->userDefined;
        if ((args->flags & kMsgCmdSync) != 0) {
            DeferredNotify(nullptr, &notify);
        } else {
            QueueNotification(&notify);
        }
    }
    if (Echoes(kMsgPrintRsp)) {
        PrintResponse(notify.err, notify.notifyString);
    }
}

// What a command line needs of its command, copied while the table stands still.
struct CommandT {
    CmdFuncT pFunc;
    int argcmin;
    const char* syntax;
    UInt32 flags;
    UInt32 taskID;
    UInt32 use;  // of the task's id
};

constexpr UInt32 kFlagBits = (1U << kMsgCmdUseShift) - 1;
constexpr UInt32 kNoUse = 0xFFFFFFFF;

// Which use of the task's id a command was added by, kNoUse when that task is gone. The entry has
// room for the lower half of the number. A command that no task added runs in its sender's.
UInt32 UseOf(const CmdEntryT* entry) {
    if (entry->taskID == 0) {
        return 0;
    }
    const UInt32 use = t_incarnation(entry->taskID);
    return use != 0 && use << kMsgCmdUseShift == (entry->flags & ~kFlagBits) ? use : kNoUse;
}

bool FindCommand(const char* word, CommandT* command) {
    const InterruptsOffT lock;
    const CmdEntryT* entry = MsgLookup(EntryOf(gCmdTable), word);
    if (entry == nullptr) {
        return false;
    }
    *command = {entry->pFunc,  entry->argcmin, entry->syntax, entry->flags & kFlagBits,
                entry->taskID, UseOf(entry)};
    return true;
}

eErrorT Dispatch(const CommandT& command, CmdArgT* args) {
    if (args->argc < command.argcmin) {
        if (command.syntax != nullptr) {
            printf("Usage: %s\n", command.syntax);
        }
        return kBadParameter;
    }
    if (command.pFunc == nullptr) {
        return kBadParameter;
    }
    args->flags = command.flags;
    args->nesting = MsgNesting();
    void* handler = from_id<void>(func_id(command.pFunc));
    if ((command.flags & kMsgCmdSync) != 0) {
        DeferredCmd(handler, args);
        return kNoError;
    }
    if (!MsgScriptMayCall()) {
        return kOutOfResources;
    }
    return ModDeferToUse(command.taskID, command.use, DeferredCmd, handler, args, sizeof(*args));
}

// The first entry whose name is not less than `name`, compared over its length; null if there is
// none. The table stands still.
ListT* FirstNotLess(const char* name) {
    const size_t length = strlen(name);
    for (ListT* at = gCmdTable; at != nullptr; at = ListNextElement(gCmdTable, at)) {
        if (strncasecmp(EntryOf(at)->name, name, length) >= 0) {
            return at;
        }
    }
    return nullptr;
}

void CallListeners(eErrorT, const char* pNotifyString, void*) {
    for (const std::atomic<NotifyFuncT>& slot : gNotificationTable) {
        const NotifyFuncT listener = slot;
        if (listener != nullptr) {
            listener(kNoError, pNotifyString, nullptr);
        }
    }
}

bool Printable(const char* text) {
    for (const char* word : kUnprinted) {
        if (strstr(text, word) != nullptr) {
            return false;
        }
    }
    return true;
}

// Replaces one listener by another in the first slot that holds it.
bool ReplaceListener(NotifyFuncT from, NotifyFuncT to) {
    for (std::atomic<NotifyFuncT>& slot : gNotificationTable) {
        NotifyFuncT expected = from;
        if (slot.compare_exchange_strong(expected, to)) {
            return true;
        }
    }
    return false;
}

// Forgets the notification task when it ends, whatever ends it: its number may serve another task.
class NotifyTaskT {
  public:
    ~NotifyTaskT() {
        UInt32 self = ModSelf();
        notifyTaskID.compare_exchange_strong(self, 0);
    }
};

void NotifyTask(UInt32, UInt32, UInt32, UInt32) {
    const NotifyTaskT running;
    ModTaskLoop();
}

}  // namespace

UInt32 MsgNesting() {
    return gNesting;
}

void MsgSetNesting(UInt32 nesting) {
    gNesting = nesting;
}

eErrorT MsgInit() {
    UInt32 known = notifyTaskID;
    UInt32 task;
    if ((known != 0 && t_is_open(known) != 0) ||
        t_create("msgn", kNotifyPriority, 0, 0, 0, &task) != kTaskOk) {
        return kCantStartTask;
    }
    // Several may get here at once: one puts its task in place of what was there.
    if (!notifyTaskID.compare_exchange_strong(known, task)) {
        t_delete(task);
        return kCantStartTask;
    }
    if (t_start(task, 0, NotifyTask, nullptr) != kTaskOk) {
        notifyTaskID = 0;
        t_delete(task);
        return kCantStartTask;
    }
    MsgDeleteCmdTable(defaultCmds);  // those of an earlier start
    return MsgAddCmdTable(defaultCmds) == kNoError ? kNoError : kCantStartTask;
}

void MsgExit() {
    const UInt32 task = notifyTaskID.exchange(0);
    if (task != 0) {
        ev_send(task, kModEventExit);
    }
}

eErrorT MsgAddCmd(CmdEntryT* pCmd) {
    OsAssert(pCmd);
    OsAssert(pCmd->name);
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    const InterruptsOffT lock;
    ListT* next = FirstNotLess(pCmd->name);
    if (next != nullptr && strcasecmp(EntryOf(next)->name, pCmd->name) == 0) {
        const CmdEntryT* known = EntryOf(next);
        if ((known->flags & kMsgCmdSync) != 0 || UseOf(known) != kNoUse) {
            return kAlreadyExists;
        }
        ListExtractUnprot(&gCmdTable, next);
        next = FirstNotLess(pCmd->name);
    }
    pCmd->taskID = self;
    pCmd->flags = (pCmd->flags & kFlagBits) | t_incarnation(0) << kMsgCmdUseShift;
    if (next != nullptr) {
        ListInsertBeforeUnprot(&gCmdTable, next, &pCmd->list);
    } else {
        ListEnqueueUnprot(&gCmdTable, &pCmd->list);
    }
    return kNoError;
}

eErrorT MsgAddCmdTable(CmdEntryT* cmdTable) {
    if (cmdTable == nullptr) {
        return kFuncReturnedError;
    }
    eErrorT err = kNoError;
    for (CmdEntryT* row = cmdTable; row->name != nullptr && err == kNoError; row++) {
        err = MsgAddCmd(row);
    }
    return err;
}

eErrorT MsgDeleteCmd(CmdEntryT* pCmd) {
    OsAssert(pCmd);
    return ListExtractIfPresent(&gCmdTable, &pCmd->list) != nullptr ? kNoError : kItemNotFound;
}

eErrorT MsgDeleteCmdTable(CmdEntryT* cmdTable) {
    if (cmdTable == nullptr) {
        return kFuncReturnedError;
    }
    eErrorT result = kNoError;
    for (CmdEntryT* row = cmdTable; row->name != nullptr; row++) {
        const eErrorT err = MsgDeleteCmd(row);
        result = err != kNoError ? err : result;
    }
    return result;
}

CmdEntryT* MsgLookup(CmdEntryT* cmdTable, const char* s) {
    OsAssert(s);
    const size_t length = strlen(s);
    ListT* head = cmdTable != nullptr ? &cmdTable->list : nullptr;
    for (ListT* at = head; at != nullptr; at = ListNextElement(head, at)) {
        if (strncasecmp(EntryOf(at)->name, s, length) == 0) {
            return EntryOf(at);
        }
    }
    return nullptr;
}

eErrorT MsgSendCmd(const char* pCmdString, NotifyFuncT pNotifyFunc, void* userDefined) {
    OsAssert(pCmdString);
    if (Echoes(kMsgPrintCmd)) {
        printf("CMD: %s\n", pCmdString);
    }
    if (strlen(pCmdString) > kMsgMaxLen) {
        return kBadParameter;
    }
    CmdArgT args = {};
    CopyLine(&args, pCmdString);
    Split(&args);
    args.pNotifyFunc = pNotifyFunc;
    args.userDefined = userDefined;
    const bool master = ProxyProcessorNum() == 0;
    CommandT command = {};
    eErrorT err = kItemNotFound;
    if (FindCommand(WordAt(&args, 0), &command)) {
        err = Dispatch(command, &args);
        if (err == kNoError && master && (command.flags & kMsgCmdForward) != 0) {
            RemMsgSendCmd(pCmdString, nullptr, nullptr);
        }
    } else if (master) {
        RemMsgSendCmd(pCmdString, pNotifyFunc, userDefined);
    }
    if (err != kNoError && pNotifyFunc != nullptr) {
        pNotifyFunc(err, "", userDefined);
    }
    return err;
}

eErrorT MsgSendNotification(const char* pNotifyString) {
    OsAssert(pNotifyString);
    const size_t length = strlen(pNotifyString);
    if (length == 0 || length > kMsgMaxLen) {
        return kBadParameter;
    }
    if (Echoes(kMsgPrintNotify) && Printable(pNotifyString)) {
        printf("NOTIFY: %s\n", pNotifyString);
    }
    NotifyArgT args = {};
    memcpy(args.notifyString, pNotifyString, length);
    args.pNotifyFunc = CallListeners;
    args.err = kNoError;
    return QueueNotification(&args);
}

eErrorT MsgAddNotification(NotifyFuncT pNotifyFunc) {
    OsAssert(pNotifyFunc);
    return ReplaceListener(nullptr, pNotifyFunc) ? kNoError : kOutOfMemory;
}

eErrorT MsgDeleteNotification(NotifyFuncT pNotifyFunc) {
    OsAssert(pNotifyFunc);
    return ReplaceListener(pNotifyFunc, nullptr) ? kNoError : kBadParameter;
}

eErrorT MsgPrintEnable(const char* pMsgType, Boolean enable) {
    OsAssert(pMsgType);
    static constexpr struct {
        const char* word;
        UInt32 bit;
    } kTypes[] = {{"cmd", kMsgPrintCmd}, {"rsp", kMsgPrintRsp}, {"notify", kMsgPrintNotify}};
    for (const auto& type : kTypes) {
        if (strcasecmp(type.word, pMsgType) == 0) {
            if (enable != 0) {
                OutputMsgPrints |= type.bit;
            } else {
                OutputMsgPrints &= ~type.bit;
            }
            return kNoError;
        }
    }
    return kBadParameter;
}
