// The configuration store: contents, start, flushing, and the way to processor 0; and what it does
// where files, folders and processes misbehave.
#include "Common/framework/configstore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <random>
#include <semaphore>
#include <set>

#include "Common/framework/config.h"
#include "Common/framework/proxy.h"
#include "Common/framework/rem_message.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace fs = std::filesystem;

namespace {

// The store's folders are in use, whether it is started or not.
struct ConfigStore : testing::Test {
    void SetUp() override { strcpy(CONFIG_DAT_FOLDER, NO_DAT_IN_OPT_DIR); }
    const StoreTree tree;
};

std::string Read(const std::string& name, int len = 370) {
    std::string value(static_cast<size_t>(len) + 1, '#');
    const eErrorT err = ConfigStoreRead(name.c_str(), 0, value.data(), len);
    EXPECT_EQ(value.back(), '#') << "written behind the buffer";
    return err == kNoError ? value.c_str() : ErrorString(err);
}

eErrorT Write(const std::string& name, std::string value) {
    return ConfigStoreWrite(name.c_str(), 0, value.data());
}

// File permissions do not bind the superuser: somebody else for a scope.
struct NobodyT {
    NobodyT() { EXPECT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0); }
    ~NobodyT() { EXPECT_EQ(seteuid(getuid()), 0); }
};

// Writes the values in turn, so many times each, in a process of its own; the store's task does not
// run there.
pid_t StartWriter(const std::set<std::string>& values, int times) {
    const pid_t pid = fork();
    if (pid == 0) {
        for (int i = 0; i < times; i++) {
            for (const std::string& value : values) {
                Write("v", value);
            }
        }
        _exit(0);
    }
    return pid;
}

int Finish(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

// Time as the flush task has it: its pauses end when the test says so, and so does its flush.
std::atomic<time_t> gNow{1000};
std::atomic<int> gSyncs{0};
std::counting_semaphore<> gPauses{0};
std::counting_semaphore<> gPauseEnds{0};

}  // namespace

extern "C" time_t time(time_t*) noexcept {
    return gNow;
}

extern "C" int select(int, fd_set*, fd_set*, fd_set*, timeval* time) {
    if (time->tv_sec != 5) {
        return poll(nullptr, 0, static_cast<int>(time->tv_sec * 1000 + time->tv_usec / 1000));
    }
    gPauses.release();
    gPauseEnds.acquire();
    return 0;
}

extern "C" void sync() noexcept {
    gSyncs++;
}

TEST_F(ConfigStore, AFlushWaitsForTheQuietAndComesOnce) {
    const StdoutFile out;
    StartLog();
    ConfigStoreInit();
    gPauses.acquire();
    const struct {
        int written, looked, flushes;  // the flush task looks at this time
    } steps[] = {{1000, 1000, 0},
                 {1003, 1006, 0},
                 {0, 1007, 1},
                 {0, 2000, 1},
                 {2000, 1500, 2}};  // the clock was set back: no wait
    for (const auto& step : steps) {
        if (step.written != 0) {
            gNow = step.written;
            Write("v", std::to_string(step.written));
        }
        gNow = step.looked;
        gPauseEnds.release();
        gPauses.acquire();
        EXPECT_EQ(gSyncs, step.flushes) << step.looked;
    }
    EXPECT_TRUE(out.WaitFor("config: synching filesystem\n"));
    EXPECT_TRUE(out.WaitFor("config: sync complete "));
}

TEST_F(ConfigStore, AFileIsItsFirstLineAndWhatCannotBeReadShowsTheDefault) {
    const StdoutFile out;
    StartLog();
    ConfigStoreInit();
    tree.Put("choicev.choice", "default\n");
    const std::string file = tree.Path("dat/v.dat");
    const std::string cut = "../dat/v.dat ends without a line feed, ";
    const struct {
        std::string content, value, line;
    } cases[] = {{"a\r\nb\r\n", "a", ""},
                 {"\n", "", ""},
                 {std::string("\x01\xff\0b\n", 5), "\x01\xff", ""},
                 {std::string(1 << 20, 'x'), std::string(369, 'x'), ""},
                 {"begi", "begi", cut + "4 characters taken\n"},
                 {"", "", cut + "0 characters taken\n"},
                 {"folder", "default", "can't read ../dat/v.dat: Is a directory\n"},
                 {"fifo", "default", "can't read ../dat/v.dat: Invalid argument\n"},
                 {"closed", "default", "can't read ../dat/v.dat: Permission denied\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content.substr(0, 20));
        fs::remove(file);
        if (c.content == "folder") {
            fs::create_directory(file);
        } else if (c.content == "fifo") {
            ASSERT_EQ(mkfifo(file.c_str(), 0666), 0);
        } else {
            tree.Put("dat/v.dat", c.content);
            chmod(file.c_str(), c.content == "closed" ? 0 : 0644);
        }
        const NobodyT nobody;
        EXPECT_EQ(Read("v"), c.value);
        EXPECT_TRUE(out.WaitFor(c.line));
    }
}

TEST_F(ConfigStore, AWriteCutsAtTheLineEndAndHarmsNothingWhereItCannot) {
    ConfigStoreInit();
    const std::string values[] = {"a\r\nb", "\nb", std::string(5000, 'y'), "x"};
    for (const std::string& value : values) {
        std::string text = value;
        EXPECT_EQ(ConfigStoreWrite("v", 0, text.data()), kNoError);
        EXPECT_EQ(tree.Get("dat/v.dat"), value.substr(0, value.find_first_of("\r\n")) + "\n");
        EXPECT_EQ(strlen(text.c_str()) + 1, tree.Get("dat/v.dat").size()) << "cut in place";
    }
    EXPECT_EQ(Write(std::string(255, 'n'), "new"), kBadParameter) << "name too long";
    fs::create_directory(tree.Path("dat/folder.dat"));
    ASSERT_EQ(mkfifo(tree.Path("dat/fifo.dat").c_str(), 0666), 0);
    chmod(tree.Path("dat").c_str(), 0555);
    chmod(tree.Path("dat/v.dat").c_str(), 0444);
    for (const char* name : {"folder", "fifo", "v", "fresh"}) {
        const NobodyT nobody;
        EXPECT_EQ(Write(name, "new"), kBadParameter) << name;
    }
    // The folder goes while the program runs, and comes back.
    fs::rename(tree.Path("dat"), tree.Path("away"));
    EXPECT_EQ(Write("v", "lost"), kBadParameter);
    EXPECT_EQ(Read("v"), ErrorString(kBadParameter));
    fs::rename(tree.Path("away"), tree.Path("dat"));
    EXPECT_EQ(Read("v"), "x");
}

TEST_F(ConfigStore, AFullDiskIsReportedAndLeavesTheBeginningTheOldValueOrTheDefault) {
    ConfigStoreInit();
    tree.Put("dat/old.dat", "an older and longer value\n");
    tree.Put("dat/full.dat", "old\n");
    tree.Put("choicefresh.choice", "default\n");
    signal(SIGXFSZ, SIG_IGN);
    const int saved = dup(STDERR_FILENO);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);  // a file would count as disk
    const auto limit = [](rlim_t bytes) {
        const rlimit full = {bytes, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &full);
    };
    limit(4);
    const eErrorT old = Write("old", "replacement");
    const eErrorT line = Write("line", "abcd");  // no room for the line feed
    limit(0);
    const eErrorT full = Write("full", "new");
    const eErrorT fresh = Write("fresh", "new");
    limit(RLIM_INFINITY);
    dup2(saved, STDERR_FILENO);
    for (const eErrorT err : {old, line, full, fresh}) {
        EXPECT_EQ(err, kBadParameter);
    }
    EXPECT_EQ(tree.Get("dat/old.dat") + tree.Get("dat/line.dat") + tree.Get("dat/full.dat"),
              "replabcdold\n");
    EXPECT_EQ(Read("fresh"), "default");
}

TEST_F(ConfigStore, NamesThatLeaveTheFoldersAreRefusedByEveryOperation) {
    ConfigStoreInit();
    tree.Put("secret.dat", "secret\n");
    for (const char* name : {"../secret", "/etc/passwd", "a.b", ""}) {
        char value[20] = "#";
        void* stream = nullptr;
        for (const eErrorT err :
             {Write(name, "v"), ConfigStoreRead(name, 0, value, sizeof(value)),
              ConfigStoreChoiceRead(name, 0, value, sizeof(value)), ConfigStoreDelete(name, 0),
              ConfigStoreReadOpen(name, &stream), ConfigStoreWriteOpen(name, &stream)}) {
            EXPECT_EQ(err, kBadParameter) << name;
        }
    }
    EXPECT_EQ(tree.Get("secret.dat"), "secret\n");
    EXPECT_TRUE(fs::is_empty(tree.Path("dat")));
}

TEST_F(ConfigStore, AKilledWriterLeavesTheOldValueOrTheNewOne) {
    const std::set<std::string> values = {std::string(300, 'a'), "b", std::string(40, 'c')};
    std::mt19937 random(1);
    for (int round = 0; round < 300; round++) {
        Write("v", "b");
        const pid_t writer = StartWriter(values, INT_MAX);
        usleep(static_cast<useconds_t>(random() % 3000));
        kill(writer, SIGKILL);
        Finish(writer);
        ASSERT_TRUE(values.count(Read("v"))) << "round " << round << ": " << Read("v");
        ASSERT_NE(tree.Get("dat/v.dat").find('\n'), std::string::npos) << round;
    }
}

TEST_F(ConfigStore, TwoProcessesLeaveOneWholeValue) {
    for (int round = 0; round < 300; round++) {
        const pid_t first = StartWriter({std::string(300, 'a')}, 5);
        const pid_t second = StartWriter({"b"}, 5);
        EXPECT_EQ(Finish(first) + Finish(second), 0);
        const std::string value = Read("v");
        ASSERT_TRUE(value == std::string(300, 'a') || value == "b") << value;
    }
}

TEST_F(ConfigStore, AMissingFolderEndsTheProgramByNameOthersAreToldOnce) {
    const char* folders[][2] = {{"dat", "DAT"}, {"choice", "CHOICE"}, {"choice.gen", "CHOICE_GEN"}};
    for (const auto& [folder, macro] : folders) {
        fs::rename(tree.Path(folder), tree.Path("away"));
        EXPECT_DEATH(ConfigStoreInit(), "ConfigIsFolderExist\\(CONFIG_" + std::string(macro) +
                                            "_FOLDER\\).*Common/framework/configstore");
        fs::rename(tree.Path("away"), tree.Path(folder));
    }
    // A default folder that exists is kept while another falls back.
    fs::create_directory(tree.Path("made"));
    strcpy(CONFIG_DAT_FOLDER, "../made/");
    const StdoutFile out;
    EXPECT_EQ(ConfigStoreInit(), 1);
    EXPECT_EQ(ConfigStoreInit(), 1);
    EXPECT_EQ(out.Text(),
              "Config Folder data initialized successfully(Choice dir: ../choice, Dat Dir: "
              "../made/)\n");
}

namespace {

// The link to processor 0, played by the test.
RemMsgT gMaster;
std::string gSent;
const char* gAnswer;  // null: none
NotifyFuncT gLate;    // the receiver and ticket of the answer that did not come
void* gLateTicket;
void (*gMeanwhile)();  // in the middle of a write

eErrorT SendCmd(RemMsgT*, const char* line, NotifyFuncT notify, void* user) {
    gSent = line;
    if (notify == nullptr) {
        if (gMeanwhile != nullptr) {
            gMeanwhile();
        }
    } else if (gAnswer != nullptr) {
        notify(kNoError, gAnswer, user);
    } else {
        gLate = notify;
        gLateTicket = user;
    }
    return kNoError;
}

void Connect() {
    Attach();
    static const ProxyTransportT transport = {1, nullptr, nullptr, nullptr, nullptr};
    ProxySetTransport(&transport);
    gMaster.SendCmd = SendCmd;
    ModInit(&gMaster.mod, "remmsg", 1, nullptr);
    gpSlaveRemMsg = &gMaster;
}

std::string CachedRead() {
    char value[kConfigValueSize];
    return ConfigRead("v", 0, value) == kNoError ? value : "(error)";
}

}  // namespace

TEST_F(ConfigStore, OtherProcessorsAskProcessor0AndTouchNoFile) {
    Connect();
    StartLog();
    const StdoutFile out;
    EXPECT_EQ(ConfigStoreInit(), 0);
    EXPECT_EQ(Write("v", "say \"hi\"\nrest"), kNoError);
    EXPECT_EQ(gSent, "config v 0 \"say \\\"hi\\\"\" rw file notify");
    for (const size_t length : {490, 600}) {
        EXPECT_EQ(Write("v", std::string(length, 'x')), kBadParameter) << "over a command";
    }
    EXPECT_EQ(Read("v"), "");
    EXPECT_EQ(gSent, "config v 0");
    EXPECT_TRUE(out.Has("ConfigStoreRead: \"v[0]\" timeout\n"));
    ASSERT_NE(gLate, nullptr);
    gLate(kNoError, "config v 0 late", gLateTicket);
    const struct {
        const char* answer;
        int len;
        const char* value;
    } cases[] = {{"config v 0 word more", 370, "word"},
                 {"config v 0 abcdef", 4, "abc"},
                 {"config v 0 word", 1, ""}};
    for (const auto& c : cases) {
        gAnswer = c.answer;
        EXPECT_EQ(Read("v", c.len), c.value) << c.answer;
    }
    EXPECT_EQ(ConfigStoreDelete("v", 0), kBadParameter);
    EXPECT_TRUE(fs::is_empty(tree.Path("dat")));
}

TEST_F(ConfigStore, AReadMeanwhileDoesNotKeepTheOldValueForAnEmptyOne) {
    Connect();
    gAnswer = "config v 0 old";
    EXPECT_EQ(CachedRead(), "old");
    gMeanwhile = [] {
        EXPECT_EQ(gSent, "config v 0 \"\" rw file notify");
        EXPECT_EQ(CachedRead(), "old");
        gAnswer = "config v 0 ";
    };
    ConfigWrite("v", 0, "");
    EXPECT_EQ(CachedRead(), "");
    EXPECT_STREQ(gAnswer, "config v 0 ") << "the write was not sent";
}

TEST_F(ConfigStore, AWriteThatHangsHoldsUpWritesOfItsOwnFileOnly) {
    Connect();
    static std::binary_semaphore hangs{0};
    static std::binary_semaphore ends{0};
    static std::atomic<int> written{0};
    gMeanwhile = [] {
        gMeanwhile = nullptr;
        hangs.release();
        ends.acquire();
    };
    const std::jthread writer([] {
        Attach();
        ConfigWrite("v", 0, "1");
    });
    hangs.acquire();
    const std::jthread others([] {
        Attach();
        ConfigWriteCacheOnly("v", 0, "2");
        for (const char c : std::string("abcdefghijklmnopqrstuwxyz")) {
            ConfigWrite(std::string(1, c).c_str(), 0, "1");
            ConfigWriteCacheOnly("v", c, "1");
            written++;
        }
        ConfigWrite("v", 0, "3");
        written++;
    });
    EXPECT_TRUE(Eventually([] { return written >= 25; }));
    EXPECT_NE(gSent, "config v 0 \"3\" rw file notify");
    ends.release();
    EXPECT_TRUE(Eventually([] { return written == 26; }));
    EXPECT_EQ(gSent, "config v 0 \"3\" rw file notify");
}

TEST_F(ConfigStore, WhatWouldReachAnotherVariableOrValueIsNotSent) {
    Connect();
    for (const char* name : {"two words", "tab\t", "\"quoted", "line\n"}) {
        EXPECT_EQ(Write(name, "v"), kBadParameter) << name;
        EXPECT_EQ(Read(name), ErrorString(kBadParameter)) << name;
    }
    EXPECT_EQ(Write("v", "ends with \\"), kBadParameter);
    EXPECT_EQ(gSent, "");
    EXPECT_EQ(Write("v", "\\ within"), kNoError);
    EXPECT_NE(gSent, "");
}

TEST_F(ConfigStore, ALongValueDoesNotTakeTheNextLogLineAlong) {
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
