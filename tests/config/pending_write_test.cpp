// A variable read while its write is on the way from the cache to the store. The store is that of
// another processor, so that the test stands in the middle of the write.
#include <gtest/gtest.h>

#include "Common/framework/config.h"
#include "Common/framework/rem_message.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"

namespace {

std::string gStored = "old";

std::string Read() {
    char value[kConfigValueSize];
    return ConfigRead("v", 0, value) == kNoError ? value : "(error)";
}

eErrorT SendCmd(RemMsgT*, const char* line, NotifyFuncT notify, void* user) {
    if (notify != nullptr) {
        notify(kNoError, ("config v 0 " + gStored).c_str(), user);
    } else if (strcmp(line, "config v 0 \"\" rw file notify") == 0) {
        EXPECT_EQ(Read(), "old");
        gStored = "";
    }
    return kNoError;
}

}  // namespace

TEST(PendingWrite, AReadMeanwhileDoesNotKeepTheOldValueForAnEmptyOne) {
    const StoreTree tree;
    Attach();
    static const ProxyTransportT transport = {1, nullptr, nullptr, nullptr, nullptr};
    ProxySetTransport(&transport);
    static RemMsgT master;
    master.SendCmd = SendCmd;
    ModInit(&master.mod, "remmsg", 1, nullptr);
    gpSlaveRemMsg = &master;
    EXPECT_EQ(Read(), "old");
    ConfigWrite("v", 0, "");
    EXPECT_EQ(gStored, "");
    EXPECT_EQ(Read(), "");
}
