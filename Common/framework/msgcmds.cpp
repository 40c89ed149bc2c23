// The built-in commands, aliases and sub-command tables.
#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/intsoff.h"
#include "Common/framework/message.h"
#include "Common/framework/msg_internal.h"

namespace {

eErrorT AliasCmd(int argc, char** argv, char* pResponse);
eErrorT HelpCmd(int argc, char** argv, char* pResponse);
eErrorT ShellHelpCmd(int argc, char** argv, char* pResponse);

constexpr int kNamesPerLine = 4;

// Written by the task that runs "alias" only, and before the alias is in the command table.
char aliasName[kMsgMaxAliases][kMsgMaxLen + 1];
char aliasValue[kMsgMaxAliases][kMsgMaxLen + 1];

}  // namespace

CmdEntryT defaultCmds[5] = {
    {{}, "alias", AliasCmd, 1, "alias <name> <cmd>", 0, 0},
    {{}, "help", HelpCmd, 1, "help", kMsgCmdForward, 0},
    {{}, "?", HelpCmd, 1, "help", kMsgCmdForward, 0},
    {{}, "shellHelp", ShellHelpCmd, 1, "shell command help", 0, 0},
    {{}, nullptr, nullptr, 0, nullptr, 0, 0},
};
CmdEntryT aliasCmds[kMsgMaxAliases];

namespace {

CmdEntryT* CommandTable() {
    return reinterpret_cast<CmdEntryT*>(gCmdTable);
}

eErrorT ShellHelpCmd(int, char**, char*) {
    return kNoError;
}

// Sends the expansion of the alias that the command word stands for.
eErrorT RunAlias(int, char** argv, char*) {
    const char* expansion = nullptr;
    {
        const InterruptsOffT lock;
        const CmdEntryT* entry = MsgLookup(CommandTable(), argv[0]);
        if (entry != nullptr && entry->pFunc == RunAlias) {
            expansion = entry->syntax;
        }
    }
    if (expansion == nullptr) {
        return kItemNotFound;
    }
    if (!MsgMayNest("alias", argv[0])) {
        return kBadState;
    }
    const MsgNestingT nesting(MsgNesting() + 1);
    return MsgSendCmd(expansion, nullptr, nullptr);
}

void ListAliases() {
    for (int i = 0; i < kMsgMaxAliases; i++) {
        if (aliasCmds[i].name != nullptr) {
            printf("%s = %s\n", aliasName[i], aliasValue[i]);
        }
    }
}

// Joins words, each followed by a blank; false when they do not fit.
bool JoinWords(int count, char** words, char* text) {
    size_t at = 0;
    for (int i = 0; i < count; i++) {
        const size_t length = strlen(words[i]);
        if (at + length + 1 > kMsgMaxLen) {
            return false;
        }
        memcpy(text + at, words[i], length);
        at += length;
        text[at++] = ' ';
    }
    text[at] = '\0';
    return true;
}

eErrorT AliasCmd(int argc, char** argv, char*) {
    if (argc < 2) {
        ListAliases();
        return kNoError;
    }
    if (argc < 3) {
        return kBadParameter;
    }
    int slot = 0;
    while (slot < kMsgMaxAliases && aliasCmds[slot].name != nullptr) {
        slot++;
    }
    if (slot == kMsgMaxAliases) {
        puts("ERROR, alias table full");
        return kBadParameter;
    }
    if (strlen(argv[1]) > kMsgMaxLen || !JoinWords(argc - 2, argv + 2, aliasValue[slot])) {
        return kBadParameter;
    }
    strcpy(aliasName[slot], argv[1]);
    CmdEntryT* entry = &aliasCmds[slot];
    *entry = {{}, aliasName[slot], RunAlias, 1, aliasValue[slot], kMsgCmdSync, 0};
    const eErrorT err = MsgAddCmd(entry);
    if (err != kNoError) {
        entry->name = nullptr;
    }
    return err;
}

// Copies the name of the command that follows `name` in the table, over the length of a line; false
// at the end. The table may change between two calls.
bool NextName(char* name) {
    const InterruptsOffT lock;
    for (ListT* at = gCmdTable; at != nullptr; at = ListNextElement(gCmdTable, at)) {
        const char* found = reinterpret_cast<CmdEntryT*>(at)->name;
        if (strncasecmp(found, name, kMsgMaxLen) > 0) {
            snprintf(name, kMsgMaxLen + 1, "%s", found);
            return true;
        }
    }
    return false;
}

void ListCommands() {
    puts("Main commands:");
    char name[kMsgMaxLen + 1] = "";
    int column = 0;
    while (NextName(name)) {
        printf("%-16.16s", name);
        if (++column == kNamesPerLine) {
            putchar('\n');
            column = 0;
        }
    }
    if (column != 0) {
        putchar('\n');
    }
}

eErrorT HelpCmd(int argc, char** argv, char*) {
    if (argc < 2) {
        ListCommands();
        return kNoError;
    }
    char syntax[kMsgMaxLen + 1] = "";
    {
        const InterruptsOffT lock;
        const CmdEntryT* entry = MsgLookup(CommandTable(), argv[1]);
        if (entry == nullptr) {
            return kItemNotFound;
        }
        snprintf(syntax, sizeof(syntax), "%s", entry->syntax != nullptr ? entry->syntax : "");
    }
    puts(syntax);
    return kNoError;
}

}  // namespace

bool MsgMayNest(const char* what, const char* name) {
    if (MsgNesting() < kMsgMaxDepth) {
        return true;
    }
    printf("ERROR, %s \"%s\" not run: aliases and scripts nest at most %d deep\n", what, name,
           kMsgMaxDepth);
    return false;
}

eErrorT MsgSubCmdParse(CmdEntryT* subCmdTable, int argc, char** argv, char* pResponse) {
    OsAssert(subCmdTable);
    if (argc < 1) {
        puts("SUBCMD - Don't know what to do?");
        return kBadParameter;
    }
    if (argc < 2) {
        printf("\"%s\" - takes at least one argument\n", argv[0]);
        return kBadParameter;
    }
    const size_t length = strlen(argv[1]);
    for (const CmdEntryT* row = subCmdTable; row->name != nullptr; row++) {
        if (strncasecmp(row->name, argv[1], length) != 0) {
            continue;
        }
        if (argc - 1 < row->argcmin) {
            if (row->syntax != nullptr) {
                printf("Usage: %s\n", row->syntax);
            }
            return kBadParameter;
        }
        return row->pFunc != nullptr ? row->pFunc(argc - 1, argv + 1, pResponse) : kBadParameter;
    }
    printf("valid subcommands:");
    for (const CmdEntryT* row = subCmdTable; row->name != nullptr; row++) {
        printf(" %s", row->name);
    }
    putchar('\n');
    return kItemNotFound;
}
