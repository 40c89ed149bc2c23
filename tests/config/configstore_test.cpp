// The configuration store as its users see it: names, contents, streams, start, flushing, and the
// way to processor 0.
#include "Common/framework/configstore.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <string.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "Common/framework/proxy.h"
#include "Common/framework/rem_message.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

sem_t gSynced;
std::atomic<int> gSyncs{0};

std::string Read(const char* name, int instance, int len = 370) {
    std::vector<char> value(static_cast<size_t>(len) + 1, '#');
    const eErrorT err = ConfigStoreRead(name, instance, value.data(), len);
    EXPECT_EQ(value.back(), '#') << "written behind the buffer";
    return err == kNoError ? value.data() : ErrorString(err);
}

eErrorT Write(const char* name, int instance, std::string value) {
    return ConfigStoreWrite(name, instance, value.data());
}

}  // namespace

// The flush ends here: what the system has to write does not matter to the test.
extern "C" void sync() noexcept {
    gSyncs++;
    sem_post(&gSynced);
}

TEST(ConfigStore, FileNamesFollowInstanceAndFolder) {
    const StoreTree tree;
    ConfigStoreInit();
    char path[kConfigPathSize];
    EXPECT_STREQ(ConfigGetDatFileName("logformat", 0, path), "../dat/logformat.dat");
    EXPECT_STREQ(ConfigGetDatFileName("cullfilter", 3, path), "../dat/cullfilter3.dat");
    EXPECT_STREQ(ConfigGetDatFileName("x", -1, path), "../dat/x.dat");
    // The fallback of the defaults has no separator at its end.
    EXPECT_STREQ(ConfigGetChoiceFileName("x", 1, path), "../choicex1.choice");
    tree.Put("choice.gen/x1.choice", "generated\n");
    EXPECT_STREQ(ConfigGetChoiceFileName("x", 1, path), "../choice.gen/x1.choice");
    EXPECT_STREQ(ConfigGetDatFileName(std::string(4096, 'n').c_str(), 0, path), "");
}

TEST(ConfigStore, CurrentValueThenGeneratedThenShippedDefault) {
    const StoreTree tree;
    ConfigStoreInit();
    EXPECT_EQ(Read("v", 2), ErrorString(kBadParameter));
    tree.Put("choicev2.choice", "shipped\n");
    EXPECT_EQ(Read("v", 2), "shipped");
    tree.Put("choice.gen/v2.choice", "generated\n");
    EXPECT_EQ(Read("v", 2), "generated");
    EXPECT_EQ(Write("v", 2, "current"), kNoError);
    EXPECT_EQ(Read("v", 2), "current");
    char value[20];
    EXPECT_EQ(ConfigStoreChoiceRead("v", 2, value, sizeof(value)), kNoError);
    EXPECT_STREQ(value, "generated");
    EXPECT_EQ(ConfigStoreDelete("v", 2), kNoError);
    EXPECT_EQ(ConfigStoreDelete("v", 2), kBadParameter);
    EXPECT_EQ(Read("v", 2), "generated");
}

TEST(ConfigStore, OnlyTheFirstLineOfAFileCounts) {
    const StoreTree tree;
    ConfigStoreInit();
    const struct {
        std::string content;
        int len;
        std::string value;
    } cases[] = {
        {"a\nb\n", 370, "a"},
        {"a\r\nb\r\n", 370, "a"},
        {"a\rb\n", 370, "a"},
        {"\n", 370, ""},
        {"", 370, ""},
        {"no end", 370, "no end"},
        {"  kept  \n", 370, "  kept  "},
        {std::string("\x01\xff"
                     "a\0b\n",
                     6),
         370,
         "\x01\xff"
         "a"},
        {"abcdef\n", 4, "abc"},
        {"abc\n", 4, "abc"},
        {"abc\n", 1, ""},
        {std::string(1 << 20, 'x'), 370, std::string(369, 'x')},
        {std::string(369, 'x') + "\n", 370, std::string(369, 'x')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content.substr(0, 20));
        tree.Put("dat/v.dat", c.content);
        EXPECT_EQ(Read("v", 0, c.len), c.value);
    }
}

TEST(ConfigStore, AWriteCutsAtTheLineEndAndReplacesWhatWasThere) {
    const StoreTree tree;
    ConfigStoreInit();
    const std::string large(5000, 'y');
    const struct {
        std::string value, content;
    } cases[] = {{"a\r\nb", "a\n"}, {"", "\n"}, {"\nb", "\n"}, {large, large + "\n"}, {"x", "x\n"}};
    for (const auto& c : cases) {
        std::string value = c.value;
        EXPECT_EQ(ConfigStoreWrite("v", 0, value.data()), kNoError);
        EXPECT_EQ(tree.Get("dat/v.dat"), c.content);
        EXPECT_EQ(std::string(value.c_str()) + "\n", c.content) << "cut in place";
    }
}

TEST(ConfigStore, StreamsCarryLinesAndTheirEnd) {
    const StoreTree tree;
    ConfigStoreInit();
    void* stream = nullptr;
    EXPECT_EQ(ConfigStoreReadOpen("list", &stream), kBadParameter);
    EXPECT_EQ(stream, nullptr);
    ASSERT_EQ(ConfigStoreWriteOpen("list", &stream), kNoError);
    EXPECT_EQ(ConfigStoreWritePutLine(stream, "one\ntwo\r\nlonger\nIGNORED", 16), kNoError);
    EXPECT_EQ(ConfigStoreWriteClose(stream), kNoError);
    EXPECT_EQ(tree.Get("dat/list.dat"), "one\ntwo\r\nlonger\n\n");
    ASSERT_EQ(ConfigStoreReadOpen("list", &stream), kNoError);
    for (const char* line : {"one", "two", "longe", "r", ""}) {
        char data[6] = "#####";
        EXPECT_EQ(ConfigStoreReadGetLine(stream, data, sizeof(data)), kNoError);
        EXPECT_STREQ(data, line);
    }
    char data[6] = "#####";
    EXPECT_EQ(ConfigStoreReadGetLine(stream, data, sizeof(data)), kEndOfFile);
    EXPECT_STREQ(data, "");
    EXPECT_EQ(ConfigStoreReadClose(stream), kNoError);
    EXPECT_EQ(gsConfigWriteOutstanding, 0) << "streams are left out of flushing";
    tree.Put("choicelist.choice", "default\n");
    ConfigStoreDelete("list", 0);
    EXPECT_EQ(ConfigStoreReadOpen("list", &stream), kNoError);
    ConfigStoreReadClose(stream);
}

TEST(ConfigStore, StartTellsItsFoldersAndMakesTheFlushTaskOnce) {
    const StoreTree tree;
    const StdoutFile out;
    EXPECT_EQ(ConfigStoreInit(), 1);
    EXPECT_EQ(ConfigStoreInit(), 1);
    EXPECT_EQ(out.Text(),
              "Config Folder data initialized successfully(Choice dir: ../choice, Dat Dir: "
              "../dat/)\n");
    UInt32 tid;
    EXPECT_EQ(t_ident("csyn", 0, &tid), kTaskOk);
    EXPECT_EQ(tid, gsSyncTID);
    EXPECT_EQ(ConfigCreateFolder("../made"), 1);
    EXPECT_EQ(ConfigCreateFolder("../made"), 0);
    EXPECT_EQ(ConfigIsFolderExist("../made"), 1);
    EXPECT_EQ(ConfigIsFileExist("../made"), 0);
}

TEST(ConfigStore, EachFolderThatIsMissingEndsTheProgramByName) {
    const StoreTree tree;
    for (const char* folder : {"dat", "choice", "choice.gen"}) {
        std::filesystem::rename(tree.Path(folder), tree.Path("away"));
        const std::string macro = folder[0] == 'd'      ? "DAT"
                                  : strlen(folder) == 6 ? "CHOICE"
                                                        : "CHOICE_GEN";
        EXPECT_DEATH(ConfigStoreInit(), "ConfigIsFolderExist\\(CONFIG_" + macro +
                                            "_FOLDER\\).*Common/framework/configstore");
        std::filesystem::rename(tree.Path("away"), tree.Path(folder));
    }
    // A default folder that exists is kept while another falls back.
    snprintf(CONFIG_DAT_FOLDER, sizeof(CONFIG_DAT_FOLDER), "%s/choice.gen/", tree.Path("").c_str());
    ConfigStoreInit();
    EXPECT_NE(strcmp(CONFIG_DAT_FOLDER, NO_DAT_IN_OPT_DIR), 0);
    EXPECT_STREQ(CONFIG_CHOICE_FOLDER, NO_CHOICE_IN_OPT_DIR);
}

TEST(ConfigStore, NullAndZeroArgumentsAreProgrammingErrors) {
    char text[4] = "";
    void* stream = text;
    EXPECT_DEATH(ConfigStoreRead(nullptr, 0, text, 4), "Common/framework/configstore");
    EXPECT_DEATH(ConfigStoreRead("v", 0, nullptr, 4), "Common/framework/configstore");
    EXPECT_DEATH(ConfigStoreRead("v", 0, text, 0), "Common/framework/configstore");
    EXPECT_DEATH(ConfigStoreWrite("v", 0, nullptr), "Common/framework/configstore");
    EXPECT_DEATH(ConfigStoreWritePutLine(stream, "x", 0), "Common/framework/configstore");
    EXPECT_DEATH(ConfigStoreReadGetLine(nullptr, text, 4), "Common/framework/configstore");
}

TEST(ConfigStore, TwoWritesASecondApartAreFlushedOnceAfterTheQuiet) {
    const StoreTree tree;
    const StdoutFile out;
    sem_init(&gSynced, 0, 0);
    StartLog();
    ConfigStoreInit();
    Write("v", 0, "1");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Write("v", 0, "2");
    const double waited = MillisecondsOf([] { sem_wait(&gSynced); });
    EXPECT_GE(waited, 3000);
    EXPECT_TRUE(out.WaitFor("config: synching filesystem\n"));
    EXPECT_TRUE(out.WaitFor("config: sync complete "));
    EXPECT_EQ(gsConfigWriteOutstanding, 0);
    std::this_thread::sleep_for(std::chrono::seconds(6));
    EXPECT_EQ(gSyncs, 1) << "nothing new was written";
}

namespace {

// The link to processor 0, played by the test.
RemMsgT gMaster;
std::vector<std::string> gSent;
const char* gAnswer;  // null: none

eErrorT SendCmd(RemMsgT*, const char* line, NotifyFuncT notify, void* user) {
    gSent.push_back(line);
    if (notify != nullptr && gAnswer != nullptr) {
        notify(kNoError, gAnswer, user);
    }
    return kNoError;
}

}  // namespace

TEST(ConfigStore, OtherProcessorsAskProcessor0AndTouchNoFile) {
    const StoreTree tree;
    Attach();
    StartLog();
    static const ProxyTransportT transport = {1, nullptr, nullptr, nullptr, nullptr};
    ProxySetTransport(&transport);
    gMaster.SendCmd = SendCmd;
    ModInit(&gMaster.mod, "remmsg", 1, nullptr);
    gpSlaveRemMsg = &gMaster;
    const StdoutFile out;
    EXPECT_EQ(ConfigStoreInit(), 0);

    EXPECT_EQ(Write("v", 3, "say \"hi\"\nrest"), kNoError);
    EXPECT_EQ(gSent.back(), "config v 3 \"say \\\"hi\\\"\" rw file notify");
    EXPECT_EQ(Write("v", 3, std::string(600, 'x')), kBadParameter) << "longer than a command";
    const struct {
        const char* answer;
        int len;
        const char* value;
    } cases[] = {{"config v 3 word more", 370, "word"},
                 {"config v 3 abcdef", 4, "abc"},
                 {"config v 3", 370, ""},
                 {"config v 3 word", 1, ""},
                 {"", 370, ""}};
    for (const auto& c : cases) {
        gAnswer = c.answer;
        EXPECT_EQ(Read("v", 3, c.len), c.value) << c.answer;
    }
    EXPECT_EQ(gSent.back(), "config v 3");
    EXPECT_FALSE(out.Has("timeout"));
    gAnswer = nullptr;
    EXPECT_EQ(Read("v", 3), "");
    EXPECT_TRUE(out.Has("ConfigStoreRead: \"v[3]\" timeout\n"));
    EXPECT_EQ(ConfigStoreDelete("v", 3), kBadParameter);
    EXPECT_EQ(tree.Get("dat/v3.dat"), "(none)");
}

TEST(ConfigStore, AnAnswerAfterTheTimeOutReachesNobody) {
    Attach();
    static const ProxyTransportT transport = {1, nullptr, nullptr, nullptr, nullptr};
    ProxySetTransport(&transport);
    static NotifyFuncT late;
    static void* ticket;
    gMaster.SendCmd = [](RemMsgT*, const char*, NotifyFuncT notify, void* user) {
        late = notify;
        ticket = user;
        return kNoError;
    };
    ModInit(&gMaster.mod, "remmsg", 1, nullptr);
    gpSlaveRemMsg = &gMaster;
    EXPECT_EQ(Read("v", 0), "");
    late(kNoError, "config v 0 late", ticket);
    UInt32 captured;
    EXPECT_EQ(ev_receive(0x4000, kEvNoWait, 0, &captured), kTaskNoEvents);
    gMaster.SendCmd = [](RemMsgT*, const char*, NotifyFuncT notify, void* user) {
        late(kNoError, "config v 0 late", ticket);
        notify(kNoError, "config v 0 mine", user);
        return kNoError;
    };
    EXPECT_EQ(Read("v", 0), "mine");
}
