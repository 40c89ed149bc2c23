// Writes that get no further than halfway. With the store of another processor the test stands at
// the link, in the middle of a write.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include "Common/framework/config.h"
#include "Common/framework/configstore.h"
#include "Common/framework/proxy.h"
#include "Common/framework/rem_message.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

std::string gStored = "old";
int gSent;

std::string Read() {
    char value[kConfigValueSize];
    return ConfigRead("v", 0, value) == kNoError ? value : "(error)";
}

eErrorT SendCmd(RemMsgT*, const char* line, NotifyFuncT notify, void* user) {
    gSent++;
    if (notify != nullptr) {
        notify(kNoError, ("config v 0 " + gStored).c_str(), user);
    } else if (strcmp(line, "config v 0 \"\" rw file notify") == 0) {
        EXPECT_EQ(Read(), "old");
        gStored = "";
    }
    return kNoError;
}

void Connect() {
    Attach();
    static const ProxyTransportT transport = {1, nullptr, nullptr, nullptr, nullptr};
    ProxySetTransport(&transport);
    static RemMsgT master;
    master.SendCmd = SendCmd;
    ModInit(&master.mod, "remmsg", 1, nullptr);
    gpSlaveRemMsg = &master;
}

}  // namespace

TEST(PendingWrite, AReadMeanwhileDoesNotKeepTheOldValueForAnEmptyOne) {
    const StoreTree tree;
    Connect();
    EXPECT_EQ(Read(), "old");
    ConfigWrite("v", 0, "");
    EXPECT_EQ(gStored, "");
    EXPECT_EQ(Read(), "");
}

TEST(PendingWrite, WhatWouldReachAnotherVariableOrValueIsNotSent) {
    Connect();
    char value[20] = "";
    for (const char* name : {"two words", "tab\t", "\"quoted", "line\n"}) {
        EXPECT_EQ(ConfigStoreWriteText(name, 0, "v", 1), kBadParameter) << name;
        EXPECT_EQ(ConfigStoreRead(name, 0, value, sizeof(value)), kBadParameter) << name;
    }
    EXPECT_EQ(ConfigStoreWriteText("v", 0, "ends with \\", 11), kBadParameter);
    EXPECT_EQ(gSent, 0);
    EXPECT_EQ(ConfigStoreWriteText("v", 0, "\\ within", 8), kNoError);
    EXPECT_EQ(gSent, 1);
}

TEST(PendingWrite, AFullDiskLeavesTheDefaultToBeSeen) {
    const StoreTree tree;
    ConfigInit();
    tree.Put("choicev.choice", "default\n");
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    EXPECT_EQ(ConfigStoreWriteText("v", 0, "new", 3), kBadParameter);
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(Read(), "default");
}

TEST(PendingWrite, ALongValueDoesNotTakeTheNextLogLineAlong) {
    const StoreTree tree;
    const StdoutFile out;
    StartLog();
    std::string name = "a";
    for (const size_t length : {484, 485, 5000}) {
        const std::string after = "after " + std::to_string(length) + "\n";
        ConfigWrite(name.c_str(), 0, std::string(length, 'v').c_str());
        logerr("test", "%s", after.c_str());
        EXPECT_TRUE(out.WaitFor("config: " + name + "[0]:" + std::string(484, 'v') + "\n"));
        EXPECT_TRUE(out.WaitFor("ERROR pc[0]: test: " + after));
        name[0]++;
    }
}
