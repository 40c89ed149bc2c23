// Configuration variables: names, values, cache, callbacks, log and dumps, from one task.
#include "Common/framework/config.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "Common/OS/linux/semaphores.h"
#include "Common/framework/configstore.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

std::string Read(const char* name, int instance = 0) {
    char value[kConfigValueSize + 1];
    value[kConfigValueSize] = '#';
    const eErrorT err = ConfigRead(name, instance, value);
    EXPECT_EQ(value[kConfigValueSize], '#');
    EXPECT_TRUE(err == kNoError || value[0] == '\0');
    return err == kNoError ? value : ErrorString(err);
}

const std::string kMissing = "item not found";

std::vector<std::string> gCalls;
std::function<void(const ConfigValueChangedCallbackArgsT&)> gAction;

// Notes "user:name[instance]=value/permissions/flags" and does what the test wants done.
void Note(ModT* pMod, UInt32 funcIndex, void* userDefined, void* pArgs) {
    const auto& args = *static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    EXPECT_EQ(funcIndex, 0U);
    const std::string name = args.name + ("[" + std::to_string(args.instance) + "]");
    if (pMod != getConfigModule()) {
        EXPECT_EQ(ModName(pMod), name);
        EXPECT_EQ(pMod->pOwner, getConfigModule());
    }
    gCalls.push_back(std::string(static_cast<const char*>(userDefined)) + ":" + name + "=" +
                     args.value + "/" +
                     std::string(args.permissions, strnlen(args.permissions, 4)) + "/" +
                     std::to_string(args.flags));
    if (gAction) {
        gAction(args);
    }
}

void* User(const char* word) {
    return const_cast<char*>(word);
}

eErrorT Watch(const char* name, const char* user = "cb") {
    return ConfigAddImmediateCallback(name, 0, Note, User(user));
}

typedef std::vector<std::string> CallsT;

}  // namespace

TEST(Config, SpellingsOfANameAreOneVariableAndOneFile) {
    const StoreTree tree;
    EXPECT_EQ(ConfigWrite("LogFormat", 0, "date"), kNoError);
    EXPECT_EQ(Read("logformat"), "date");
    EXPECT_EQ(Read("LOGFORMAT"), "date");
    EXPECT_EQ(tree.Get("dat/logformat.dat"), "date\n");
    // 32 characters of a name count.
    const std::string name(32, 'N');
    ConfigWrite((name + "tail").c_str(), 3, "long");
    EXPECT_EQ(Read((name + "other").c_str(), 3), "long");
    EXPECT_EQ(Read(name.c_str(), 3), "long");
    EXPECT_EQ(Read(name.substr(1).c_str(), 3), kMissing);
    EXPECT_EQ(tree.Get("dat/" + std::string(32, 'n') + "3.dat"), "long\n");
    // Instances are variables of their own, negative ones share a file with 0.
    ConfigWrite("logformat", 1, "time");
    EXPECT_EQ(Read("logformat", 0), "date");
    EXPECT_EQ(Read("logformat", -1), "date");
    ConfigWrite("[@`{\x80Z", 0, "no letters");
    EXPECT_EQ(tree.Get("dat/[@`{\x80z.dat"), "no letters\n");
}

TEST(Config, MissingVariablesAreAskedOfTheStoreOnce) {
    const StoreTree tree;
    EXPECT_EQ(Read("v"), kMissing);
    tree.Put("dat/v.dat", "late\n");
    EXPECT_EQ(Read("v"), kMissing) << "the absence is cached";
    ConfigWrite("v", 0, "written");
    EXPECT_EQ(Read("v"), "written");
    tree.Put("dat/w.dat", "stored\n");
    EXPECT_EQ(Read("w"), "stored");
    tree.Put("dat/w.dat", "edited\n");
    EXPECT_EQ(Read("w"), "stored") << "so is the value";
    tree.Put("dat/e.dat", "\n");
    EXPECT_EQ(Read("e"), "");
    tree.Put("dat/e.dat", "filled\n");
    EXPECT_EQ(Read("e"), "filled") << "an empty value is not";
}

TEST(Config, ValuesAreKeptToTheLengthOfTheirClass) {
    const StoreTree tree;
    for (const size_t length : {0, 1, 28, 29, 30, 31, 368, 369, 370, 371, 400, 5000}) {
        SCOPED_TRACE(length);
        const std::string value(length, 'v');
        ConfigWrite("v", 0, value.c_str());
        EXPECT_EQ(Read("v"), value.substr(0, 369));
        EXPECT_EQ(tree.Get("dat/v.dat"), value + "\n");
        ConfigWrite("v", 0, "short again");
        EXPECT_EQ(Read("v"), "short again");
        const std::string fresh = "fresh" + std::to_string(length);
        tree.Put("dat/" + fresh + ".dat", value + "\n");
        EXPECT_EQ(Read(fresh.c_str()), value.substr(0, 369));
    }
}

TEST(Config, TypedReadsFollowThe32BitMachine) {
    const StoreTree tree;
    const struct {
        const char* value;
        UInt32 int32;
        UInt16 int16;
        Boolean truth;
    } cases[] = {{"12", 12, 12, 0},
                 {"-1", 0xFFFFFFFF, 0xFFFF, 0},
                 {"65537 apples", 65537, 1, 0},
                 {"4294967295", 0x7FFFFFFF, 0xFFFF, 0},
                 {"-99999999999", 0x80000000, 0, 0},
                 {"0x10", 0, 0, 0},
                 {"apples", 0, 0, 0},
                 {"TRUE", 0, 0, 1},
                 {"true", 0, 0, 1},
                 {"true ", 0, 0, 0},
                 {"1", 1, 1, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        ConfigWrite("v", 0, c.value);
        EXPECT_EQ(ConfigReadInt32("v", 0), c.int32);
        EXPECT_EQ(ConfigReadInt16("v", 0), c.int16);
        EXPECT_EQ(ConfigReadBool("v", 0), c.truth);
    }
    EXPECT_EQ(ConfigReadInt32("missing", 0), 0U);
    EXPECT_EQ(ConfigReadBool("missing", 0), 0U);
    ConfigWriteInt32("n", 0, 0xFFFFFFFF);
    EXPECT_EQ(Read("n"), "-1");
    ConfigWriteInt16("n", 0, 0xFFFF);
    EXPECT_EQ(Read("n"), "65535");
    ConfigWriteBool("n", 0, 7);
    EXPECT_EQ(Read("n"), "True");
    ConfigWriteBool("n", 0, 0);
    EXPECT_EQ(Read("n"), "False");
}

TEST(Config, NamesWithInstancesInThemAreVariablesOfInstance0) {
    const StoreTree tree;
    Attach();
    char value[kConfigValueSize];
    EXPECT_EQ(ConfigAddCallback2("ip", 1, 2, Note, User("two")), kNoError);
    EXPECT_EQ(ConfigAddCallback3("Ip", 1, -2, 3, Note, User("three")), kNoError);
    ConfigWrite2("ip", 1, 2, "a");
    ConfigWrite3("Ip", 1, -2, 3, "b");
    EXPECT_EQ(tree.Get("dat/ip1_2.dat"), "a\n");
    EXPECT_EQ(Read("ip1_-2_3"), "b");
    EXPECT_EQ(ConfigRead2("IP", 1, 2, value), kNoError);
    EXPECT_STREQ(value, "a");
    EXPECT_EQ(ConfigRead3("ip", 1, -2, 3, value), kNoError);
    EXPECT_STREQ(value, "b");
    EXPECT_EQ(gCalls, (CallsT{"two:ip1_2[0]=a/rw/0", "three:ip1_-2_3[0]=b/rw/0"}));
}

TEST(Config, UnchangedValuesAreNeitherWrittenNorTold) {
    const StoreTree tree;
    Attach();
    Watch("key");
    ConfigWrite("key", 0, "a");
    tree.Put("dat/key.dat", "edited\n");
    ConfigWrite("key", 0, "a");
    ConfigWrite("kEY", 0, "a");
    EXPECT_EQ(tree.Get("dat/key.dat"), "edited\n");
    EXPECT_EQ(gCalls.size(), 1U);
    ConfigWrite("Key", 0, "a");  // the first letter chooses the bucket: not found, written again
    EXPECT_EQ(tree.Get("dat/key.dat"), "a\n");
    EXPECT_EQ(gCalls.size(), 2U);
    ConfigWrite("key", 0, "A");
    EXPECT_EQ(gCalls.size(), 3U) << "the comparison minds case";
    // A variable that was never read is not known to be empty.
    tree.Put("dat/full.dat", "full\n");
    Watch("full");
    ConfigWrite("full", 0, "");
    EXPECT_EQ(tree.Get("dat/full.dat"), "\n");
    ConfigWrite("full", 0, "");
    EXPECT_EQ(gCalls.size(), 4U);
}

TEST(Config, CallbacksGetTheWholeChangeItemBeforeModule) {
    const StoreTree tree;
    Attach();
    Watch("Key", "item");
    Watch("key", "item");  // the same again
    ModAddCallback(getConfigModule(), 0, Note, User("all"), 0);
    ConfigWriteEx("KEY", 0, "one", "r", 0);
    ConfigWriteEx("key", 0, "cut\r\nhere", "abcdef", 4);
    ConfigWriteCacheOnly("key", 0, "cached\nonly");
    ConfigWritePerm("other", 7, std::string(400, 'x').c_str(), "");
    EXPECT_EQ(gCalls, (CallsT{"item:key[0]=one/r/0", "all:key[0]=one/r/0", "item:key[0]=cut/abcd/4",
                              "all:key[0]=cut/abcd/4", "item:key[0]=cached\nonly/rw/1",
                              "all:key[0]=cached\nonly/rw/1",
                              "all:other[7]=" + std::string(369, 'x') + "//0"}));
    EXPECT_EQ(tree.Get("dat/key.dat"), "cut\n");
    EXPECT_EQ(Read("key"), "cached\nonly");
}

TEST(Config, CallbacksMoveWithTheItemAndEndWithTheirRegistration) {
    const StoreTree tree;
    Attach();
    const char* users[] = {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11"};
    for (const char* user : users) {
        Watch("key", user);
    }
    EXPECT_EQ(ConfigDeleteCallback("key", 0, Note, User(users[3])), kNoError);
    EXPECT_EQ(ConfigDeleteCallback("key", 0, Note, User(users[3])), kItemNotFound);
    EXPECT_EQ(ConfigDeleteCallback("KEY", 0, Note, User(users[4])), kItemNotFound) << "as given";
    EXPECT_EQ(ConfigDeleteCallback("absent", 0, Note, User(users[4])), kItemNotFound);
    for (const size_t length : {29, 30, 369, 5, 40}) {
        gCalls.clear();
        ConfigWrite("key", 0, std::string(length, 'v').c_str());
        EXPECT_EQ(gCalls.size(), 11U) << length;
        EXPECT_EQ(gCalls.front().substr(0, 2), "0:");
        EXPECT_EQ(gCalls.back().substr(0, 3), "11:");
    }
    EXPECT_EQ(ModFindByName("key", 0)->numCallbacks > 10, true);
    ConfigDelete("key", 0);
    gCalls.clear();
    ConfigWrite("key", 0, "after");
    EXPECT_TRUE(gCalls.empty()) << "a delete takes the callbacks along";
}

TEST(Config, CallbacksMayWriteDeleteAndWatchTheirOwnVariable) {
    const StoreTree tree;
    Attach();
    Watch("key", "a");
    Watch("key", "b");
    // Each change is told to both, though the item is replaced in between.
    gAction = [](const ConfigValueChangedCallbackArgsT& args) {
        if (strlen(args.value) < 30) {
            ConfigWrite(args.name, 0, (args.value + std::string(20, '+')).c_str());
        }
    };
    ConfigWrite("key", 0, "0123456789");
    EXPECT_EQ(gCalls.size(), 4U);
    EXPECT_EQ(gCalls[0], "a:key[0]=0123456789/rw/0");
    EXPECT_EQ(Read("key"), "0123456789" + std::string(20, '+'));
    gCalls.clear();
    gAction = [](const ConfigValueChangedCallbackArgsT& args) { ConfigDelete(args.name, 0); };
    ConfigWrite("key", 0, "gone");
    EXPECT_EQ(Read("key"), kMissing);
    EXPECT_EQ(tree.Get("dat/key.dat"), "(none)");
    EXPECT_EQ(gCalls.size(), 2U) << "a change under way still reaches all";
    gCalls.clear();
    gAction = [](const ConfigValueChangedCallbackArgsT&) {
        Watch("next", "c");
        ConfigDeleteCallback("key", 0, Note, User("a"));
    };
    Watch("key", "a");
    ConfigWrite("key", 0, "1");
    ConfigWrite("key", 0, "2");
    ConfigWrite("next", 0, "3");
    EXPECT_EQ(gCalls, (CallsT{"a:key[0]=1/rw/0", "c:next[0]=3/rw/0"}));
}

TEST(Config, DeleteAndRestoreShowTheDefaultAgain) {
    const StoreTree tree;
    tree.Put("choicev.choice", "default\n");
    EXPECT_EQ(Read("v"), "default");
    ConfigWrite("v", 0, "mine");
    EXPECT_EQ(ConfigDelete("V", 0), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "(none)");
    EXPECT_EQ(Read("v"), "default");
    EXPECT_EQ(ConfigDelete("never", 0), kNoError);
    ConfigWrite("v", 0, "mine");
    EXPECT_EQ(ConfigRestore("V", 0), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "default\n");
    EXPECT_EQ(Read("v"), "default");
    EXPECT_EQ(ConfigRestore("never", 0), kItemNotFound);
}

TEST(Config, ChangesAreLoggedSecretsNever) {
    const StoreTree tree;
    const StdoutFile out;
    StartLog();
    for (const char* name : {"sw",
                             "roomsw",
                             "websw",
                             "userpassword0",
                             "meetingpassword",
                             "sippassword",
                             "softwareupdatepassword",
                             "mppassword",
                             "dot1xpwd",
                             "ldappassword",
                             "loginpassword",
                             "norteldirectoryurlsp",
                             "globaldirectoryurlsp",
                             "GlobalDirectoryURLSp7",
                             "xmpppassword",
                             "yahoopassword",
                             "pwencryptiontyperemote",
                             "pwencryptiontyperoom",
                             "pwencryptiontypeuser0",
                             "PwEncryptionTypeMeeting"}) {
        ConfigWrite(name, 0, "hidden");
        EXPECT_EQ(Read(name), "hidden");
    }
    ConfigWrite("Swing", 2, "shown\nnot");
    ConfigDelete("sw", 0);
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: swing[2]:shown\n"));
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: delete sw[0]\n"));
    EXPECT_FALSE(out.Has("hidden"));
    EXPECT_FALSE(out.Has("not"));
}

TEST(Config, DumpsShowTheCacheInBucketOrder) {
    const StoreTree tree;
    ConfigInit();
    const StdoutFile out;
    ConfigWrite("beta", 0, "2");
    ConfigWrite("alpha", 1, "1");
    ConfigWrite("alpha", 0, "");
    Read("absent");
    ConfigDumpAll();
    const std::string heading =
        "\nConfig item                         value\n"
        "----------------------------------- "
        "----------------------------------------------------------\n";
    EXPECT_EQ(out.Text(), heading +
                              "alpha[1]                            1\n"
                              "alpha[0]                            \n"
                              "absent[0]                           *(config item not set)*\n"
                              "beta[0]                             2\n"
                              "<end>\n");
    ConfigDumpByName("BETA", 0);
    ConfigDumpByName("Beta", 1);
    EXPECT_TRUE(out.Has("<end>\n" + heading + "beta[0]                             2\n" +
                        "ERROR, cannot locate item Beta\n"));
}

TEST(Config, NamesThatCouldLeaveTheFoldersAreRefusedAndNotCached) {
    const StoreTree tree;
    const StdoutFile out;
    StartLog();
    tree.Put("secret.dat", "secret\n");
    for (const std::string name : {"../secret", "a.b", "x/", "", "...............................",
                                   "a234567890123456789012345678901234567/../x"}) {
        SCOPED_TRACE(name);
        char value[kConfigValueSize] = "#";
        EXPECT_EQ(ConfigRead(name.c_str(), 0, value), kBadParameter);
        EXPECT_STREQ(value, "");
        EXPECT_EQ(ConfigWrite(name.c_str(), 0, "v"), kBadParameter);
        EXPECT_EQ(ConfigWriteCacheOnly(name.c_str(), 0, "v"), kBadParameter);
        EXPECT_EQ(ConfigDelete(name.c_str(), 0), kBadParameter);
        EXPECT_EQ(ConfigRestore(name.c_str(), 0), kBadParameter);
        EXPECT_EQ(ConfigAddCallback(name.c_str(), 0, Note, nullptr), kBadParameter);
        EXPECT_EQ(ConfigDeleteCallback(name.c_str(), 0, Note, nullptr), kBadParameter);
    }
    EXPECT_TRUE(out.WaitFor("config: name \"../secret\" refused: empty, or it holds '/' or '.'\n"));
    ConfigDumpAll();
    EXPECT_TRUE(out.Has("---\n<end>\n"));
    EXPECT_EQ(tree.Get("secret.dat"), "secret\n");
}

TEST(Config, WithoutItsSemaphoreReadsAskTheStoreAndWritesDoNothing) {
    const StoreTree tree;
    const StdoutFile out;
    StartLog();
    Attach();
    ConfigWrite("v", 0, "stored");
    sm_delete(configSemaphore);
    EXPECT_EQ(Read("v"), "stored");
    EXPECT_EQ(Read("missing"), kMissing);
    EXPECT_EQ(ConfigWrite("v", 0, "lost"), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "stored\n");
    EXPECT_EQ(Watch("v"), kOutOfMemory);
    EXPECT_EQ(ConfigDeleteCallback("v", 0, Note, nullptr), kItemNotFound);
    EXPECT_EQ(ConfigDelete("v", 0), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "(none)") << "the store is another matter";
    for (const char* purpose :
         {"lookup", "reading", "writing", "deleting", "adding callback", "deleting callback"}) {
        EXPECT_TRUE(
            out.WaitFor("ERROR pc[0]: config: can't acquire config database semaphore for " +
                        std::string(purpose) + ", task=\"main\"\n"))
            << purpose;
    }
}

TEST(Config, TheEndFreesTheCacheAndIsSafeTwice) {
    const StoreTree tree;
    for (int i = 0; i < 300; i++) {
        ConfigWriteInt32(("v" + std::to_string(i)).c_str(), 0, 1);
    }
    const int before = numMods;
    EXPECT_EQ(ConfigExit(), kNoError);
    EXPECT_EQ(ConfigExit(), kNoError);
    EXPECT_EQ(numMods, before - 301);
    EXPECT_EQ(Read("v7"), "1") << "from the store";
}

TEST(Config, MoreVariablesThanModuleSlotsStillWork) {
    const StoreTree tree;
    ConfigInit();
    for (int i = 0; i < kModMaxModules + 50; i++) {
        ConfigWriteCacheOnly(("v" + std::to_string(i)).c_str(), 0, "x");
    }
    const std::string last = "v" + std::to_string(kModMaxModules + 49);
    EXPECT_EQ(numMods, kModMaxModules);
    EXPECT_EQ(ModFindByName(last.c_str(), 0), nullptr);
    EXPECT_EQ(Read(last.c_str()), "x");
    ConfigDelete(last.c_str(), 0);
    EXPECT_EQ(Read(last.c_str()), kMissing);
}

TEST(Config, NullArgumentsAreProgrammingErrors) {
    const StoreTree tree;
    char value[kConfigValueSize];
    const char* path = "Common/framework/config";
    EXPECT_DEATH(ConfigRead(nullptr, 0, value), path);
    EXPECT_DEATH(ConfigRead("v", 0, nullptr), path);
    EXPECT_DEATH(ConfigWrite("v", 0, nullptr), path);
    EXPECT_DEATH(ConfigRead2(nullptr, 0, 0, value), path);
    EXPECT_DEATH(ConfigAddCallback("v", 0, nullptr, nullptr), path);
    EXPECT_DEATH(ConfigDelete(nullptr, 0), path);
}

TEST(Config, LogSettingsOfOneRunWorkInTheNext) {
    const StoreTree tree;
    gConfigLoaded = 0;
    const pid_t first = fork();
    if (first == 0) {
        ConfigLoadLogSettings();
        logmsg_showfilter_add("config");
        logmsg_cullfilter_add("noisy");
        logmsg_set_format(kLogFormatLevel);
        const bool saved = logmsg_showfilter_save() == 0 && logmsg_cullfilter_save() == 0 &&
                           logmsg_format_save() == 0;
        logmsg_set_spewfilter(1);
        _exit(saved ? 0 : 1);
    }
    int status;
    waitpid(first, &status, 0);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(tree.Get("dat/logformat.dat"), "level \n");
    const StdoutFile out;
    ConfigLoadLogSettings();
    EXPECT_TRUE(out.Has("show filters:\n  \"config\"\ncull filters:\n  \"noisy\"\n"));
    EXPECT_EQ(logmsg_get_spewfilter(), 1);
    InitSyslogInterface();
    ConfigWrite("noisy", 0, "culled");
    ConfigWrite("quiet", 0, "shown");
    loginfo("other", "hidden\n");
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: quiet[0]:shown\n"));
    EXPECT_FALSE(out.Has("culled"));
    EXPECT_FALSE(out.Has("hidden"));
}

TEST(Config, TheFirstLineLoadsTheLogSettingsThoughTheStoreIsStillStarting) {
    const StoreTree tree;
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
