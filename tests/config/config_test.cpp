// Configuration variables: names, values, cache, callbacks, log and dumps, from one task.
#include "Common/framework/config.h"

#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <sstream>
#include <utility>

#include "Common/OS/linux/semaphores.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

struct Config : testing::Test {
    const StoreTree tree;
};

const std::string kMissing = "item not found";

std::string Read(const std::string& name, int instance = 0) {
    char value[kConfigValueSize + 1];
    value[kConfigValueSize] = '#';
    const eErrorT err = ConfigRead(name.c_str(), instance, value);
    EXPECT_EQ(value[kConfigValueSize], '#');
    EXPECT_TRUE(err == kNoError || value[0] == '\0');
    return err == kNoError ? value : ErrorString(err);
}

void Write(const std::string& name, const std::string& value, int instance = 0) {
    EXPECT_EQ(ConfigWrite(name.c_str(), instance, value.c_str()), kNoError);
}

// The calls since the last look, each as "user:name[instance]=value/permissions/flags|".
std::string gCalls;
std::string Calls() {
    return std::exchange(gCalls, "");
}

std::function<void(const ConfigValueChangedCallbackArgsT&)> gAction;

// Notes the call and does what the test wants done.
void Note(ModT* pMod, UInt32 funcIndex, void* userDefined, void* pArgs) {
    const auto& args = *static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    const std::string name = args.name + ("[" + std::to_string(args.instance) + "]");
    EXPECT_EQ(funcIndex, 0U);
    EXPECT_TRUE(pMod == getConfigModule() ||
                (ModName(pMod) == name && pMod->pOwner == getConfigModule()));
    gCalls += std::string(static_cast<const char*>(userDefined)) + ":" + name + "=" + args.value +
              "/" + std::string(args.permissions, strnlen(args.permissions, 4)) + "/" +
              std::to_string(args.flags) + "|";
    if (gAction) {
        gAction(args);
    }
}

eErrorT Watch(const char* name, const char* user = "cb") {
    return ConfigAddImmediateCallback(name, 0, Note, const_cast<char*>(user));
}

}  // namespace

TEST_F(Config, TypedReadsFollowThe32BitMachine) {
    const struct {
        const char* value;
        const char* read;  // as 32 and 16 bits, and as a truth
    } cases[] = {{"-1", "4294967295 65535 0"},
                 {"65537 apples", "65537 1 0"},
                 {"4294967295", "2147483647 65535 0"},
                 {"TRUE", "0 0 1"}};
    for (const auto& c : cases) {
        Write("v", c.value);
        EXPECT_EQ(std::to_string(ConfigReadInt32("v", 0)) + " " +
                      std::to_string(ConfigReadInt16("v", 0)) + " " +
                      std::to_string(ConfigReadBool("v", 0)),
                  c.read);
    }
    EXPECT_EQ(ConfigReadInt32("missing", 0), 0U);
    ConfigWriteInt32("n", 0, 0xFFFFFFFF);
    ConfigWriteInt16("n", 1, 0xFFFF);
    ConfigWriteBool("n", 2, 7);
    ConfigWriteBool("n", 3, 0);
    EXPECT_EQ(Read("n") + Read("n", 1) + Read("n", 2) + Read("n", 3), "-165535TrueFalse");
}

TEST_F(Config, ValuesAreKeptToTheLengthOfTheirClass) {
    for (const size_t length : {0, 1, 29, 30, 369, 370, 371, 5000}) {
        SCOPED_TRACE(length);
        const std::string value(length, 'v');
        Write("v", value);
        EXPECT_EQ(Read("v"), value.substr(0, 369));
        EXPECT_EQ(tree.Get("dat/v.dat"), value + "\n");
        Write("v", "short again");
        EXPECT_EQ(Read("v"), "short again");
        const std::string fresh = "fresh" + std::to_string(length);
        tree.Put("dat/" + fresh + ".dat", value + "\n");
        EXPECT_EQ(Read(fresh), value.substr(0, 369));
    }
}

TEST_F(Config, UnchangedValuesAreNeitherWrittenNorTold) {
    Attach();
    Watch("key");
    Write("key", "a");
    tree.Put("dat/key.dat", "edited\n");
    Write("key", "a");
    EXPECT_EQ(tree.Get("dat/key.dat"), "edited\n");
    EXPECT_EQ(Calls(), "cb:key[0]=a/rw/0|");
    Write("key", "A");
    EXPECT_EQ(Calls(), "cb:key[0]=A/rw/0|") << "the comparison minds case";
}

TEST_F(Config, CallbacksGetTheWholeChangeItemBeforeModule) {
    Attach();
    Watch("Key", "item");
    Watch("key", "item");  // the same again
    char all[] = "all";
    ModAddCallback(getConfigModule(), 0, Note, all, 0);
    ConfigWriteEx("KEY", 0, "one", "r", 0);
    ConfigWriteEx("key", 0, "cut\r\nhere", "abcdef", 4);
    ConfigWriteCacheOnly("key", 0, "cached\nonly");
    ConfigWritePerm("other", 7, std::string(400, 'x').c_str(), "");
    EXPECT_EQ(Calls(),
              "item:key[0]=one/r/0|all:key[0]=one/r/0|item:key[0]=cut/abcd/4|"
              "all:key[0]=cut/abcd/4|item:key[0]=cached\nonly/rw/1|all:key[0]=cached\nonly/rw/1|"
              "all:other[7]=" +
                  std::string(369, 'x') + "//0|");
    EXPECT_EQ(tree.Get("dat/key.dat"), "cut\n");
    EXPECT_EQ(Read("key"), "cached\nonly");
}

TEST_F(Config, CallbacksMayWriteDeleteAndWatchTheirOwnVariable) {
    Attach();
    Watch("key", "a");
    Watch("key", "b");
    const std::string longer = "0123456789" + std::string(20, '+');
    // Each change is told to both, though the item is replaced in between.
    gAction = [&](const ConfigValueChangedCallbackArgsT&) { Write("key", longer); };
    Write("key", "0123456789");
    EXPECT_EQ(Calls(), "a:key[0]=0123456789/rw/0|a:key[0]=" + longer + "/rw/0|b:key[0]=" + longer +
                           "/rw/0|b:key[0]=0123456789/rw/0|");
    EXPECT_EQ(Read("key"), longer);
    gAction = [](const ConfigValueChangedCallbackArgsT&) { ConfigDelete("key", 0); };
    Write("key", "gone");
    EXPECT_EQ(Read("key"), kMissing);
    EXPECT_EQ(tree.Get("dat/key.dat"), "(none)");
    EXPECT_EQ(Calls(), "a:key[0]=gone/rw/0|b:key[0]=gone/rw/0|") << "one under way reaches all";
}

TEST_F(Config, ChangesAreLoggedSecretsNever) {
    const StdoutFile out;
    StartLog();
    std::istringstream secrets(
        "sw roomsw websw userpassword0 meetingpassword sippassword softwareupdatepassword "
        "mppassword dot1xpwd ldappassword loginpassword norteldirectoryurlsp globaldirectoryurlsp "
        "GlobalDirectoryURLSp7 xmpppassword yahoopassword pwencryptiontyperemote "
        "pwencryptiontyperoom pwencryptiontypeuser0 PwEncryptionTypeMeeting");
    for (std::string name; secrets >> name;) {
        Write(name, "hidden");
    }
    Write("Swing", "shown\nnot", 2);
    ConfigDelete("sw", 0);
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: swing[2]:shown\n"));
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: delete sw[0]\n"));
    EXPECT_FALSE(out.Has("hidden") || out.Has("not"));
}

TEST_F(Config, WithoutItsSemaphoreReadsAskTheStoreAndWritesDoNothing) {
    const StdoutFile out;
    StartLog();
    Attach();
    Write("v", "stored");
    sm_delete(configSemaphore);
    EXPECT_EQ(Read("v"), "stored");
    EXPECT_EQ(Read("missing"), kMissing);
    Write("v", "lost");
    EXPECT_EQ(tree.Get("dat/v.dat"), "stored\n");
    EXPECT_EQ(Watch("v"), kOutOfMemory);
    EXPECT_EQ(ConfigDelete("v", 0), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "(none)") << "the store is another matter";
    EXPECT_TRUE(
        out.WaitFor("ERROR pc[0]: config: can't acquire config database semaphore for lookup, "
                    "task=\"main\"\n"));
}

TEST_F(Config, TheFirstLineLoadsTheLogSettingsThoughTheStoreIsStillStarting) {
    gConfigLoaded = 0;
    tree.Put("dat/logformat.dat", "level\n");
    const StdoutFile out;
    InitSyslogInterface();
    loginfo("early", "before there is a configuration\n");
    EXPECT_EQ(gConfigLoaded, 0);
    ConfigInit();  // its own task logs its start
    loginfo("first", "line\n");
    EXPECT_TRUE(Eventually([] { return logmsg_get_format() == kLogFormatLevel; }));
}
