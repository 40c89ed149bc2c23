#include "tools/harborsh/diagnostics.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "Common/OS/dev.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/OS/logger.h"
#include "Common/OS/syslogf.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/mod.h"
#include "Common/framework/modman.h"
#include "Common/framework/timer.h"
#include "tools/harborsh/services.h"

namespace harborsh {
namespace {

struct SubCommandsT {
    const char* command;
    const CmdEntryT* table;
};
std::mutex gMutex;
std::vector<SubCommandsT> gSubCommands;  // under gMutex

CmdEntryT Row(const char* name, CmdFuncT func, int argcmin = 1, const char* syntax = nullptr) {
    return {{}, name, func, argcmin, syntax, 0, 0};
}
CmdEntryT End() {
    return Row(nullptr, nullptr);
}

// Runs a function that prints and cannot fail.
template <void (*kFunction)()>
eErrorT Print(int, char**, char*) {
    kFunction();
    return kNoError;
}

// The result of a call that answers 0 for success.
eErrorT Checked(int result) {
    return result == 0 ? kNoError : kBadParameter;
}

bool Number(const char* text, long least, long most, int* number) {
    char* end;
    const long value = strtol(text, &end, 0);
    *number = static_cast<int>(value);
    return *text != '\0' && *end == '\0' && value >= least && value <= most;
}

eErrorT ModulesCmd(int argc, char** argv, char*) {
    int instance = kModAnyInstance;
    if (argc > 2 && !Number(argv[2], -1, 0x7fffffff, &instance)) {
        return kBadParameter;
    }
    if (argc > 1) {
        return ModDumpByName(argv[1], instance);
    }
    ModDumpAll();
    return kNoError;
}

// A command with a table of sub-commands, made on first use. Alone it runs the first of them.
#define SUBCOMMANDS(function, ...)                                       \
    CmdEntryT* function##Table() {                                       \
        static CmdEntryT table[] = {__VA_ARGS__, End()};                 \
        return table;                                                    \
    }                                                                    \
    eErrorT function(int argc, char** argv, char* pResponse) {           \
        if (argc < 2 && function##Table()->argcmin < 2) {                \
            return function##Table()->pFunc(argc, argv, pResponse);      \
        }                                                                \
        return MsgSubCmdParse(function##Table(), argc, argv, pResponse); \
    }

SUBCOMMANDS(TimersCmd, Row("all", Print<TimerDumpAll>), Row("active", Print<TimerDumpActive>))

SUBCOMMANDS(TasksCmd, Row("list", Print<osTaskDump>), Row("usage", Print<osTaskUsage>),
            Row("others", Print<cpu_usage_other>))

eErrorT DevicesCmd(int, char**, char*) {
    puts("device   inst state  opens closes     read  written");
    puts("-------- ---- ------ ----- ------ -------- --------");
    for (const DEVCB* dev = gpDEVCBHead; dev != nullptr; dev = dev->pNext) {
        printf("%-8.8s %4u %-6s %5u %6u %8u %8u\n", dev->name, dev->instance,
               dev->state == kDevOpened ? "open" : "closed", dev->numOpens, dev->numCloses,
               dev->numBytesRead, dev->numBytesWritten);
    }
    return kNoError;
}

eErrorT ListCategories(int argc, char** argv, char*) {
    for (const LutT* row = gRtCategoryLut; row->name != nullptr; row++) {
        if (argc > 1 && strcasestr(row->name, argv[1]) == nullptr) {
            continue;
        }
        const UInt8 status = gRtCategoryStatusWord[row->value];
        printf("%3d %-14.14s %-8s %s\n", static_cast<int>(row->value), row->name,
               (status & kTraceEnabled) != 0 ? "enabled" : "",
               (status & kTraceDebugEnabled) != 0 ? "debug" : "");
    }
    return kNoError;
}

eErrorT EnableCategory(int, char** argv, char*) {
    int number;
    return Number(argv[1], 0, CM_DEBG_NUM_CATEGORIES - 1, &number)
               ? CmDebgCategoryEnable(static_cast<gRtCategoryT>(number))
               : kBadParameter;
}

eErrorT DisableCategory(int, char** argv, char*) {
    int number;
    return Number(argv[1], 0, CM_DEBG_NUM_CATEGORIES - 1, &number)
               ? CmDebgCategoryDisable(static_cast<gRtCategoryT>(number))
               : kBadParameter;
}

SUBCOMMANDS(CategoriesCmd, Row("list", ListCategories, 1, "list [part of a name]"),
            Row("enable", EnableCategory, 2, "enable <number>"),
            Row("disable", DisableCategory, 2, "disable <number>"),
            Row("default", Print<CmDebgSetDefaultSettings>))

eErrorT LevelCmd(int, char** argv, char*) {
    int level;
    return Number(argv[1], kLogEmergency, kLogDebug, &level) ? Checked(syslogSetLogLevel(level))
                                                             : kBadParameter;
}

eErrorT LogCmd(int argc, char** argv, char*) {
    int level;
    if (!Number(argv[1], kLogEmergency, kLogDebug, &level)) {
        return kBadParameter;
    }
    logmsg(level, "shell", "%s\n", JoinFrom(2, argc, argv).c_str());
    return kNoError;
}

SUBCOMMANDS(TraceFilterCmd,
            Row(
                "add", [](int, char** argv, char*) { return ModTraceFilterAdd(argv[1]); }, 2,
                "add <module>"),
            Row(
                "delete", [](int, char** argv, char*) { return ModTraceFilterDelete(argv[1]); }, 2,
                "delete <module> or *"))

eErrorT MarkRing(int argc, char** argv, char*) {
    int words[4] = {};
    for (int i = 1; i < argc && i <= 4; i++) {
        if (!Number(argv[i], INT32_MIN, INT32_MAX, &words[i - 1])) {
            return kBadParameter;
        }
    }
    logger(static_cast<UInt32>(words[0]), static_cast<UInt32>(words[1]),
           static_cast<UInt32>(words[2]), static_cast<UInt32>(words[3]));
    return kNoError;
}

SUBCOMMANDS(RingCmd, Row("dump", Print<dump_log>),
            Row("mark", MarkRing, 2, "mark <number> [<number> [<number> [<number>]]]"),
            Row("pause", Print<pause_log>), Row("resume", Print<resume_log>))

eErrorT EchoCmd(int, char** argv, char*) {
    const bool on = strcasecmp(argv[2], "on") == 0;
    if (!on && strcasecmp(argv[2], "off") != 0) {
        return kBadParameter;
    }
    return MsgPrintEnable(argv[1], on ? 1 : 0);
}

eErrorT NotifyCmd(int argc, char** argv, char*) {
    return MsgSendNotification(JoinFrom(1, argc, argv).c_str());
}

eErrorT SleepCmd(int, char** argv, char*) {
    int milliseconds;
    if (!Number(argv[1], 0, 60000, &milliseconds)) {
        return kBadParameter;
    }
    if (!Stopping()) {
        tm_wkafter(static_cast<UInt32>(milliseconds + 9) / GetMillisecondsPerTick());
    }
    return kNoError;
}

// The outcome of a script's line, in "msgn" or at once.
void LineOutcome(eErrorT err, const char* text, void*) {
    if (*text != '\0') {
        puts(text);
    }
    if (err != kNoError) {
        printf("ERROR, %s\n", ErrorString(err));
    }
}

// A shell that ends does not wait for the scripts that scripts have left waiting.
eErrorT ScriptCmd(int, char** argv, char*) {
    return Stopping() ? kBadState : MsgExecuteScript(argv[1], LineOutcome, nullptr);
}

CmdEntryT* Commands() {
    static CmdEntryT table[] = {
        Row("calls", Print<ModDumpDeferredFuncList>, 1, "calls"),
        Row("categories", CategoriesCmd, 1, "categories [list]|enable|disable|default"),
        Row("devices", DevicesCmd, 1, "devices"),
        Row("echo", EchoCmd, 3, "echo cmd|rsp|notify on|off"),
        Row("level", LevelCmd, 2, "level <0 to 7>"),
        Row("log", LogCmd, 3, "log <level 0 to 7> <text>"),
        Row("modules", ModulesCmd, 1, "modules [<name> [<instance>]]"),
        Row("notify", NotifyCmd, 2, "notify <text>"),
        Row("ring", RingCmd, 1, "ring [dump]|mark|pause|resume"),
        Row("script", ScriptCmd, 2, "script <file without .scr>"),
        Row("sleep", SleepCmd, 2, "sleep <milliseconds>"),
        Row("tasks", TasksCmd, 1, "tasks [list]|usage|others"),
        Row("timers", TimersCmd, 1, "timers [all]|active"),
        Row("tracefilter", TraceFilterCmd, 1, "tracefilter add|delete"),
        Row("types", Print<ModDBDump>, 1, "types"),
        End(),
    };
    return table;
}

}  // namespace

bool AddDiagnostics() {
    KnowSubCommands("categories", CategoriesCmdTable());
    KnowSubCommands("ring", RingCmdTable());
    KnowSubCommands("tasks", TasksCmdTable());
    KnowSubCommands("timers", TimersCmdTable());
    KnowSubCommands("tracefilter", TraceFilterCmdTable());
    return MsgAddCmdTable(Commands()) == kNoError;
}

void KnowSubCommands(const char* command, const CmdEntryT* table) {
    const std::scoped_lock lock(gMutex);
    gSubCommands.push_back({command, table});
}

std::vector<std::string> SubCommandNames(const std::string& command) {
    const std::scoped_lock lock(gMutex);
    std::vector<std::string> names;
    for (const SubCommandsT& known : gSubCommands) {
        if (strncasecmp(known.command, command.c_str(), command.size()) == 0) {
            for (const CmdEntryT* row = known.table; row->name != nullptr; row++) {
                names.emplace_back(row->name);
            }
            break;
        }
    }
    return names;
}

std::string JoinFrom(int first, int argc, char** argv) {
    std::string text;
    for (int i = first; i < argc; i++) {
        text += (i > first ? " " : "") + std::string(argv[i]);
    }
    return text;
}

}  // namespace harborsh
