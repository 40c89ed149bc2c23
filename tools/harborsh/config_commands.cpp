// See config_commands.h. Everything here runs in the one task that registered the commands.
#include "tools/harborsh/config_commands.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <memory>
#include <string>
#include <vector>

#include "Common/OS/logmsg.h"
#include "Common/OS/sysCapsTable.h"
#include "Common/framework/bufpool.h"
#include "Common/framework/config.h"
#include "Common/framework/message.h"

namespace {

// The whole number that a word is, 0 for a word that is not there. False for any other word.
template <typename NumberT>
bool NumberAt(int argc, char** argv, int index, NumberT* number) {
    *number = 0;
    if (index >= argc) {
        return true;
    }
    char* end;
    const long long value = strtoll(argv[index], &end, 0);
    *number = static_cast<NumberT>(value);
    return *argv[index] != '\0' && *end == '\0' && value == *number;
}

// Runs `action`(name, instance) with a command's first words.
template <typename ActionT>
eErrorT WithInstance(int argc, char** argv, ActionT action) {
    int instance;
    return NumberAt(argc, argv, 2, &instance) ? action(argv[1], instance) : kBadParameter;
}

bool IsWord(const char* given, const char* word) {
    return strcasecmp(given, word) == 0;
}

// ---- configuration ----

eErrorT ConfigCmd(int argc, char** argv, char* pResponse) {
    int instance;
    if (!NumberAt(argc, argv, 2, &instance)) {
        return kBadParameter;
    }
    if (argc > 3) {
        bool cache_only = false;
        for (int i = 5; i < argc; i++) {
            cache_only = cache_only || IsWord(argv[i], "cache");
        }
        return ConfigWriteEx(argv[1], instance, argv[3], argc > 4 ? argv[4] : "rw",
                             cache_only ? kConfigCacheOnly : 0);
    }
    char value[kConfigValueSize];
    const eErrorT err = ConfigRead(argv[1], instance, value);
    if (err == kNoError) {
        snprintf(pResponse, kMsgMaxLen + 1, "config %s %d %s", argv[1], instance, value);
    }
    return err;
}

eErrorT DeleteCmd(int argc, char** argv, char*) {
    return WithInstance(argc, argv, ConfigDelete);
}

eErrorT RestoreCmd(int argc, char** argv, char*) {
    return WithInstance(argc, argv, ConfigRestore);
}

eErrorT DumpCmd(int argc, char** argv, char*) {
    if (argc < 2) {
        ConfigDumpAll();
        return kNoError;
    }
    return WithInstance(argc, argv, [](const char* name, int instance) {
        ConfigDumpByName(name, instance);
        return kNoError;
    });
}

void ShowChange(ModT*, UInt32, void*, void* pArgs) {
    const auto* args = static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    printf("%s[%d] is now \"%s\" (%.4s)\n", args->name, static_cast<int>(args->instance),
           args->value, args->permissions);
}

eErrorT WatchCmd(int argc, char** argv, char*) {
    return WithInstance(argc, argv, [](const char* name, int instance) {
        return ConfigAddCallback(name, instance, ShowChange, nullptr);
    });
}

eErrorT UnwatchCmd(int argc, char** argv, char*) {
    return WithInstance(argc, argv, [](const char* name, int instance) {
        return ConfigDeleteCallback(name, instance, ShowChange, nullptr);
    });
}

// ---- capabilities ----

eErrorT CapsCmd(int argc, char** argv, char* pResponse) {
    UInt32 section;
    if (!NumberAt(argc, argv, 1, &section)) {
        return kBadParameter;
    }
    dumpCapabilities(nullptr, argc > 1 ? section : UInt32{eSysCapNumSections});
    if (pSystemCapsTbl.load() == nullptr) {
        snprintf(pResponse, kMsgMaxLen + 1, "this product has no capabilities");
    }
    return kNoError;
}

// ---- buffer pools ----

// A pool made here, and its buffers that are out, the last taken at the end.
struct PoolT {
    BufPoolT pool = {};
    std::vector<BufT*> taken;
};
std::vector<std::unique_ptr<PoolT>>& Pools() {
    static std::vector<std::unique_ptr<PoolT>> pools;
    return pools;
}

PoolT* FindPool(const char* name, int instance) {
    const BufPoolT* found = BufPoolFindByName(name, instance);
    for (const auto& each : Pools()) {
        if (&each->pool == found) {
            return each.get();
        }
    }
    return nullptr;
}

// Runs `action`(pool) for the pool that the words name.
template <typename ActionT>
eErrorT WithPool(int argc, char** argv, ActionT action) {
    return WithInstance(argc, argv, [action](const char* name, int instance) {
        PoolT* pool = FindPool(name, instance);
        return pool != nullptr ? action(pool) : kItemNotFound;
    });
}

eErrorT PoolCreateCmd(int argc, char** argv, char*) {
    int instance;
    unsigned int bufs;
    unsigned int bytes;
    if (!NumberAt(argc, argv, 2, &instance) || !NumberAt(argc, argv, 3, &bufs) ||
        !NumberAt(argc, argv, 4, &bytes)) {
        return kBadParameter;
    }
    if (FindPool(argv[1], instance) != nullptr) {
        return kAlreadyExists;
    }
    auto pool = std::make_unique<PoolT>();
    const eErrorT err =
        BufPoolInit(&pool->pool, argv[1], instance, nullptr, bufs, bytes, sizeof(BufT), 0, 0);
    Pools().push_back(std::move(pool));
    return err;
}

eErrorT PoolOpenCmd(int argc, char** argv, char*) {
    return WithPool(argc, argv, [](PoolT* pool) { return BufPoolOpen(&pool->pool); });
}

eErrorT PoolCloseCmd(int argc, char** argv, char*) {
    return WithPool(argc, argv, [](PoolT* pool) { return BufPoolClose(&pool->pool); });
}

eErrorT PoolTakeCmd(int argc, char** argv, char* pResponse) {
    return WithPool(argc, argv, [pResponse](PoolT* pool) {
        BufT* pBuf = BufPoolBufAlloc(&pool->pool);
        if (pBuf == nullptr) {
            return kOutOfResources;
        }
        pool->taken.push_back(pBuf);
        snprintf(pResponse, kMsgMaxLen + 1, "%d out", static_cast<int>(pool->taken.size()));
        return kNoError;
    });
}

eErrorT PoolReturnCmd(int argc, char** argv, char* pResponse) {
    return WithPool(argc, argv, [pResponse](PoolT* pool) {
        if (pool->taken.empty()) {
            return kItemNotFound;
        }
        BufPoolBufFree(&pool->pool, pool->taken.back());
        pool->taken.pop_back();
        snprintf(pResponse, kMsgMaxLen + 1, "%d out", static_cast<int>(pool->taken.size()));
        return kNoError;
    });
}

eErrorT PoolDeleteCmd(int argc, char** argv, char*) {
    return WithPool(argc, argv, [](PoolT* pool) {
        for (BufT* pBuf : pool->taken) {
            BufPoolBufFree(&pool->pool, pBuf);
        }
        BufPoolExit(&pool->pool);
        std::erase_if(Pools(), [pool](const auto& each) { return each.get() == pool; });
        return kNoError;
    });
}

eErrorT PoolDumpCmd(int, char**, char*) {
    BufPoolDumpAll();
    return kNoError;
}

eErrorT PoolCheckCmd(int, char**, char*) {
    return BufPoolCheckAll();
}

eErrorT PoolDynamicCmd(int argc, char** argv, char*) {
    Boolean dynamic;
    if (!NumberAt(argc, argv, 1, &dynamic)) {
        return kBadParameter;
    }
    BufPoolSetDynamic(dynamic != 0 ? 1 : 0);
    return kNoError;
}

#define COMMAND(name, func, argcmin, syntax) \
    { {}, name, func, argcmin, syntax, 0, 0 }

CmdEntryT gPoolCmds[] = {
    COMMAND("create", PoolCreateCmd, 5, "pool create <name> <instance> <buffers> <bytes>"),
    COMMAND("open", PoolOpenCmd, 3, "pool open <name> <instance>"),
    COMMAND("close", PoolCloseCmd, 3, "pool close <name> <instance>"),
    COMMAND("take", PoolTakeCmd, 3, "pool take <name> <instance>"),
    COMMAND("return", PoolReturnCmd, 3, "pool return <name> <instance>"),
    COMMAND("delete", PoolDeleteCmd, 3, "pool delete <name> <instance>"),
    COMMAND("dump", PoolDumpCmd, 1, "pool dump"),
    COMMAND("check", PoolCheckCmd, 1, "pool check"),
    COMMAND("dynamic", PoolDynamicCmd, 2, "pool dynamic <0|1>"),
    COMMAND(nullptr, nullptr, 0, nullptr),
};

eErrorT PoolCmd(int argc, char** argv, char* pResponse) {
    return MsgSubCmdParse(gPoolCmds, argc, argv, pResponse);
}

// ---- the log's settings ----

struct FilterOperationsT {
    int (*add)(const char*);
    int (*remove)(const char*);
    int (*dump)();
    int (*save)();
};

eErrorT FilterCmd(const FilterOperationsT& filters, int argc, char** argv) {
    int result = -1;
    if (argc < 2 || IsWord(argv[1], "dump")) {
        result = filters.dump();
    } else if (IsWord(argv[1], "save")) {
        result = filters.save();
    } else if (argc > 2 && IsWord(argv[1], "add")) {
        result = filters.add(argv[2]);
    } else if (argc > 2 && IsWord(argv[1], "delete")) {
        result = filters.remove(argv[2]);
    }
    return result == 0 ? kNoError : kBadParameter;
}

eErrorT ShowFilterCmd(int argc, char** argv, char*) {
    return FilterCmd({logmsg_showfilter_add, logmsg_showfilter_delete, logmsg_showfilter_dump,
                      logmsg_showfilter_save},
                     argc, argv);
}

eErrorT CullFilterCmd(int argc, char** argv, char*) {
    return FilterCmd({logmsg_cullfilter_add, logmsg_cullfilter_delete, logmsg_cullfilter_dump,
                      logmsg_cullfilter_save},
                     argc, argv);
}

// The bit of a format keyword, 0 for another word.
int FormatBit(const char* word) {
    for (int bit = kLogFormatDate; bit <= kLogFormatProc; bit <<= 1) {
        char keyword[kLogFormatTextSize];
        const int length = logmsg_format_string(bit, keyword);
        keyword[length - 1] = '\0';
        if (IsWord(word, keyword)) {
            return bit;
        }
    }
    return 0;
}

eErrorT LogFormatCmd(int argc, char** argv, char* pResponse) {
    if (argc == 2 && IsWord(argv[1], "save")) {
        return logmsg_format_save() == 0 ? kNoError : kBadParameter;
    }
    int format = argc > 1 ? 0 : logmsg_get_format();
    for (int i = 1; i < argc; i++) {
        const int bit = FormatBit(argv[i]);
        if (bit == 0) {
            return kBadParameter;
        }
        format |= bit;
    }
    logmsg_set_format(format);
    logmsg_format_string(format, pResponse);
    return kNoError;
}

eErrorT SpewFilterCmd(int argc, char** argv, char* pResponse) {
    if (argc > 1) {
        if (!IsWord(argv[1], "on") && !IsWord(argv[1], "off")) {
            return kBadParameter;
        }
        logmsg_set_spewfilter(IsWord(argv[1], "on") ? 1 : 0);
    }
    snprintf(pResponse, kMsgMaxLen + 1, "%s", logmsg_get_spewfilter() != 0 ? "on" : "off");
    return kNoError;
}

CmdEntryT gConfigCmds[] = {
    COMMAND("config", ConfigCmd, 2,
            "config <name> [<instance> [<value> [<permission> [file|cache] [notify]]]]"),
    COMMAND("configdelete", DeleteCmd, 2, "configdelete <name> [<instance>]"),
    COMMAND("configdump", DumpCmd, 1, "configdump [<name> [<instance>]]"),
    COMMAND("configrestore", RestoreCmd, 2, "configrestore <name> [<instance>]"),
    COMMAND("configunwatch", UnwatchCmd, 2, "configunwatch <name> [<instance>]"),
    COMMAND("configwatch", WatchCmd, 2, "configwatch <name> [<instance>]"),
    COMMAND("caps", CapsCmd, 1, "caps [<section number>]"),
    COMMAND("pool", PoolCmd, 1, "pool create|open|close|take|return|delete|dump|check|dynamic ..."),
    COMMAND("showfilter", ShowFilterCmd, 1, "showfilter add|delete <text> | dump | save"),
    COMMAND("cullfilter", CullFilterCmd, 1, "cullfilter add|delete <text> | dump | save"),
    COMMAND("logformat", LogFormatCmd, 1, "logformat [<keyword> ...] | save"),
    COMMAND("spewfilter", SpewFilterCmd, 1, "spewfilter [on|off]"),
    COMMAND(nullptr, nullptr, 0, nullptr),
};

#undef COMMAND

}  // namespace

eErrorT ConfigCommandsAdd() {
    return MsgAddCmdTable(gConfigCmds);
}
