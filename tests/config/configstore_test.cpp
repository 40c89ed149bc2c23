// The configuration store: contents, start, flushing, and the way to processor 0; and what it does
// where files, folders and processes misbehave.
#include "Common/framework/configstore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <filesystem>
#include <semaphore>

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
    std::string value(static_cast<size_t>(len), '#');
    const eErrorT err = ConfigStoreRead(name.c_str(), 0, value.data(), len);
    return err == kNoError ? value.c_str() : ErrorString(err);
}

eErrorT Write(const std::string& name, std::string value) {
    const size_t length = value.find_first_of("\r\n");
    const eErrorT err = ConfigStoreWrite(name.c_str(), 0, value.data());
    EXPECT_TRUE(length == std::string::npos || value[length] == '\0') << "cut in place";
    return err;
}

// Another program's write comes between a write and its cut.
const char* gOtherWrite;
bool gInParts;

}  // namespace

TEST_F(ConfigStore, WhatCannotBeReadShowsTheDefaultAndIsNotWrittenAndACutLineIsTold) {
    const StdoutFile out;
    StartLog();
    ConfigStoreInit();
    tree.Put("choicev.choice", "default\n");
    const std::string file = tree.Path("dat/v.dat");
    const std::string cut = "../dat/v.dat ends without a line feed, ";
    const std::string cannot = "can't read ../dat/v.dat: ";
    const struct {
        std::string content, value, line;
        eErrorT written;
    } cases[] = {{std::string("\x01\xff\0b\n", 5), "\x01\xff", "", kNoError},
                 {std::string(1 << 20, 'x'), std::string(369, 'x'), "", kNoError},
                 {"begi", "begi", cut + "4 characters taken\n", kNoError},
                 {"", "", cut + "0 characters taken\n", kNoError},
                 {"folder", "default", cannot + "Is a directory\n", kBadParameter},
                 {"fifo", "default", cannot + "Invalid argument\n", kBadParameter},
                 {"closed", "default", cannot + "Permission denied\n", kBadParameter},
                 {"none", "default", "", kBadParameter}};
    EXPECT_EQ(Write(std::string(255, 'n'), "new"), kBadParameter) << "name too long";
    for (const auto& c : cases) {
        fs::remove(file);
        if (c.content == "folder") {
            fs::create_directory(file);
        } else if (c.content == "fifo") {
            ASSERT_EQ(mkfifo(file.c_str(), 0666), 0);
        } else if (c.content != "none") {
            tree.Put("dat/v.dat", c.content);
            chmod(file.c_str(), c.content == "closed" ? 0 : 0666);
        }
        chmod(tree.Path("dat").c_str(), 0555);
        // File permissions do not bind the superuser.
        EXPECT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0);
        EXPECT_EQ(Read("v"), c.value) << c.line;
        EXPECT_EQ(Write("v", "new"), c.written) << c.line;
        EXPECT_EQ(seteuid(getuid()), 0);
        chmod(tree.Path("dat").c_str(), 0755);
        EXPECT_TRUE(out.WaitFor(c.line)) << c.line;
    }
    EXPECT_EQ(out.Text().find("No such file"), std::string::npos);
}

TEST_F(ConfigStore, AFullDiskIsReportedAndLeavesTheBeginningTheOldValueOrTheDefault) {
    ConfigStoreInit();
    tree.Put("choicefresh.choice", "default\n");
    signal(SIGXFSZ, SIG_IGN);
    const int saved = dup(STDERR_FILENO);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);  // a file would count as disk
    const struct {
        const char *name, *old, *value;
        rlim_t room;
        const char *file, *read;
    } cases[] = {
        {"old", "an older and longer value\n", "replacement", 4, "repl", "repl"},
        {"line", "", "abcd", 4, "abcd", "abcd"},  // no room for the line feed
        {"full", "old\n", "new", 0, "old\n", "old"},
        {"fresh", nullptr, "new", 0, "(none)", "default"},
    };
    for (const auto& c : cases) {
        const std::string file = std::string("dat/") + c.name + ".dat";
        if (c.old != nullptr) {
            tree.Put(file, c.old);
        }
        const rlimit full = {c.room, RLIM_INFINITY};
        const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &full);
        const eErrorT err = Write(c.name, c.value);
        setrlimit(RLIMIT_FSIZE, &unlimited);
        EXPECT_EQ(err, kBadParameter) << c.name;
        EXPECT_EQ(tree.Get(file), c.file);
        EXPECT_EQ(Read(c.name), c.read);
    }
    dup2(saved, STDERR_FILENO);
    std::filesystem::remove_all(tree.Path("dat"));
    EXPECT_EQ(ConfigWrite("v", 0, "kept"), kNoError) << "the cache has it";
    char value[kConfigValueSize];
    ConfigRead("v", 0, value);
    EXPECT_STREQ(value, "kept");
}

TEST_F(ConfigStore, AStreamHoldsSeveralLinesAndGivesThemInPieces) {
    void* stream = nullptr;
    const auto text = [&stream] {
        std::string pieces;
        EXPECT_EQ(ConfigStoreReadOpen("v", &stream), kNoError);
        for (char piece[8]; ConfigStoreReadGetLine(stream, piece, 8) == kNoError;) {
            pieces += piece + std::string("|");
        }
        EXPECT_EQ(ConfigStoreReadClose(stream), kNoError);
        return pieces;
    };
    ConfigStoreInit();
    EXPECT_EQ(ConfigStoreReadOpen("v", &stream), kBadParameter);
    tree.Put("choicev.choice", "default\n");
    EXPECT_EQ(text(), "default||");
    tree.Put("dat/v.dat", std::string(50, 'x'));
    EXPECT_EQ(ConfigStoreWriteOpen("v", &stream), kNoError);
    EXPECT_EQ(ConfigStoreWritePutLine(stream, "first\r\nsecond line\n", 19), kNoError);
    EXPECT_EQ(ConfigStoreWriteClose(stream), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "first\r\nsecond line\n\n");
    EXPECT_EQ(text(), "first|second |line||");
}

TEST_F(ConfigStore, NamesThatLeaveTheFoldersAreRefusedByEveryOperation) {
    ConfigStoreInit();
    tree.Put("secret.dat", "secret\n");
    for (const char* name :
         {"../secret", "/etc/passwd", "a.b", "", "n2345678901234567890123456789012/../x"}) {
        char value[kConfigValueSize] = "#";
        void* stream = nullptr;
        for (const eErrorT err :
             {Write(name, "v"), ConfigWrite(name, 0, "v"), ConfigRead(name, 0, value),
              ConfigDelete(name, 0), ConfigStoreRead(name, 0, value, sizeof(value)),
              ConfigStoreChoiceRead(name, 0, value, sizeof(value)), ConfigStoreDelete(name, 0),
              ConfigStoreReadOpen(name, &stream), ConfigStoreWriteOpen(name, &stream)}) {
            EXPECT_EQ(err, kBadParameter) << name;
        }
    }
    EXPECT_EQ(tree.Get("secret.dat"), "secret\n");
    EXPECT_TRUE(fs::is_empty(tree.Path("dat")));
}

extern "C" int ftruncate(int fd, off_t size) noexcept {
    if (const char* line = std::exchange(gOtherWrite, nullptr); line != nullptr) {
        EXPECT_GT(pwrite(fd, line, strlen(line), 0), 0);
    }
    return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

// The system may write a part only.
extern "C" ssize_t pwritev(int fd, const iovec* parts, int count, off_t offset) {
    if (gInParts && parts[0].iov_len > 3) {
        return pwrite(fd, parts[0].iov_base, 3, offset);
    }
    return syscall(SYS_pwritev, fd, parts, count, offset, 0);
}

TEST_F(ConfigStore, AValueWrittenInPartsOrBesideAnotherWriterIsWhole) {
    gInParts = true;
    Write("v", "in parts");
    EXPECT_EQ(tree.Get("dat/v.dat"), "in parts\n");
    gInParts = false;
    Write("v", "a long value");
    gOtherWrite = "another long value\n";
    EXPECT_EQ(Write("v", "short"), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "short\n");
    EXPECT_EQ(ConfigStoreDelete("v", 0), kNoError);
    EXPECT_EQ(ConfigStoreDelete("v", 0), kBadParameter);
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
    EXPECT_EQ(ConfigCreateFolder("../made"), 1);
    EXPECT_EQ(ConfigCreateFolder("../made"), 0);
    EXPECT_EQ(ConfigIsFileExist("../made"), 0);
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
void (*gMeanwhile)();  // in the middle of the next read or write

eErrorT SendCmd(RemMsgT*, const char* line, NotifyFuncT notify, void* user) {
    gSent = line;
    if (auto* meanwhile = std::exchange(gMeanwhile, nullptr); meanwhile != nullptr) {
        meanwhile();
    }
    if (notify != nullptr && gAnswer != nullptr) {
        notify(kNoError, gAnswer, user);
    } else if (notify != nullptr) {
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

std::string CachedRead(const char* name = "v") {
    char value[kConfigValueSize];
    return ConfigRead(name, 0, value) == kNoError ? value : "(error)";
}

}  // namespace

TEST_F(ConfigStore, OtherProcessorsAskProcessor0AndTouchNoFile) {
    Connect();
    StartLog();
    const StdoutFile out;
    EXPECT_EQ(ConfigStoreInit(), 0);
    // What is over a command, would reach another variable or be another value is not sent.
    const std::string none;
    const struct {
        std::string name, value, sent;
    } writes[] = {{"v", "say \"hi\"\nrest", "config v 0 \"say \\\"hi\\\"\" rw file notify"},
                  {"v", "\\ within", "config v 0 \"\\ within\" rw file notify"},
                  {"v", "ends with \\", none},
                  {"v", std::string(490, 'x'), none},
                  {"v", std::string(600, 'x'), none},
                  {"v", "x" + std::string(256, '"'), none},
                  {"two words", "v", none},
                  {"tab\t", "v", none},
                  {"\"quoted", "v", none},
                  {"line\n", "v", none}};
    for (const auto& c : writes) {
        gSent = none;
        EXPECT_EQ(Write(c.name, c.value), c.sent == none ? kBadParameter : kNoError) << c.name;
        EXPECT_EQ(gSent, c.sent);
        EXPECT_TRUE(c.name == "v" || Read(c.name) == ErrorString(kBadParameter)) << c.name;
    }
    EXPECT_EQ(Read("v"), "");
    EXPECT_EQ(gSent, "config v 0");
    EXPECT_TRUE(out.Has("ConfigStoreRead: \"v[0]\" timeout\n"));
    ASSERT_NE(gLate, nullptr);
    gLate(kNoError, "config v 0 late", gLateTicket);
    gAnswer = "config v 0 abcdef more";
    EXPECT_EQ(Read("v") + Read("v", 4) + Read("v", 1), "abcdefabc");
    EXPECT_EQ(ConfigStoreDelete("v", 0), kBadParameter);
    EXPECT_TRUE(fs::is_empty(tree.Path("dat")));
}

TEST_F(ConfigStore, AReadKeepsNoValueThatWasChangedMeanwhile) {
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
    gAnswer = "config w 0 old";
    gMeanwhile = [] { ConfigWriteCacheOnly("w", 0, "new"); };
    EXPECT_EQ(CachedRead("w"), "old");
    EXPECT_EQ(CachedRead("w"), "new");
    gMeanwhile = [] { ConfigDelete("x", 0); };
    EXPECT_EQ(CachedRead("x"), "old");
    gAnswer = "config x 0 default";
    EXPECT_EQ(CachedRead("x"), "default");
}

TEST_F(ConfigStore, AWriteThatHangsHoldsUpWritesOfItsOwnFileOnly) {
    Connect();
    static std::binary_semaphore hangs{0};
    static std::binary_semaphore ends{0};
    static std::atomic<int> written{0};
    gMeanwhile = [] {
        hangs.release();
        ends.acquire();
    };
    const std::jthread writer([] { ConfigWrite("v", 0, "1"); });
    hangs.acquire();
    const std::jthread others([] {
        ConfigWriteCacheOnly("v", 0, "2");
        for (const char c : std::string("abcdefghijklmnopqrstuwxyz")) {
            ConfigWrite(std::string(1, c).c_str(), 0, "1");
            ConfigWriteCacheOnly("v", c, "1");
            written++;
        }
        ConfigDelete("v", 0);
        written++;
        ConfigWrite("v", 0, "3");
        written++;
    });
    EXPECT_TRUE(Eventually([] { return written >= 25; }));
    tm_wkafter(5);
    EXPECT_EQ(written, 25) << "a delete waits";
    ends.release();
    EXPECT_TRUE(Eventually([] { return written == 27; }));
    EXPECT_EQ(gSent, "config v 0 \"3\" rw file notify");
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
