// The store where files, folders and processes misbehave.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "Common/framework/configstore.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace fs = std::filesystem;

namespace {

eErrorT Write(const char* name, std::string value) {
    return ConfigStoreWrite(name, 0, value.data());
}

std::string Read(const char* name) {
    char value[370];
    return ConfigStoreRead(name, 0, value, sizeof(value)) == kNoError ? value : "(error)";
}

// File permissions do not bind the superuser: somebody else for a scope.
class NobodyT {
  public:
    NobodyT() { EXPECT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0); }
    ~NobodyT() { EXPECT_EQ(seteuid(getuid()), 0); }
};

// Standard error for a scope, in a pipe: a file would count as disk.
class StderrPipeT {
  public:
    StderrPipeT() : saved_(dup(STDERR_FILENO)) {
        EXPECT_EQ(pipe(ends_), 0);
        dup2(ends_[1], STDERR_FILENO);
    }
    std::string Take() {
        dup2(saved_, STDERR_FILENO);
        for (const int fd : {saved_, ends_[1]}) {
            close(fd);
        }
        char text[4096] = "";
        EXPECT_GE(read(ends_[0], text, sizeof(text) - 1), 0);
        close(ends_[0]);
        return text;
    }

  private:
    int saved_;
    int ends_[2];
};

// The store's folders without its start: no task may run where processes are forked.
void UseFolders() {
    snprintf(CONFIG_DAT_FOLDER, sizeof(CONFIG_DAT_FOLDER), "%s", NO_DAT_IN_OPT_DIR);
}

pid_t Start(void (*work)()) {
    const pid_t pid = fork();
    if (pid == 0) {
        work();
        _exit(0);
    }
    return pid;
}

int Finish(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

}  // namespace

TEST(StoreFaults, WhatCannotBeReadFallsToTheDefaultAndIsLogged) {
    const StoreTree tree;
    const StdoutFile out;
    StartLog();
    ConfigStoreInit();
    for (const char* name : {"folder", "fifo", "closed", "cut", "empty"}) {
        tree.Put(std::string("choice") + name + ".choice", "default\n");
    }
    fs::create_directory(tree.Path("dat/folder.dat"));
    ASSERT_EQ(mkfifo(tree.Path("dat/fifo.dat").c_str(), 0666), 0);
    tree.Put("dat/closed.dat", "mine\n");
    chmod(tree.Path("dat/closed.dat").c_str(), 0);
    tree.Put("dat/cut.dat", "begi");
    tree.Put("dat/empty.dat", "");
    const NobodyT nobody;
    const struct {
        const char* name;
        const char* value;
        const char* line;
    } cases[] = {{"folder", "default", "can't read ../dat/folder.dat: Is a directory\n"},
                 {"fifo", "default", "can't read ../dat/fifo.dat: Invalid argument\n"},
                 {"closed", "default", "can't read ../dat/closed.dat: Permission denied\n"},
                 {"cut", "begi", "../dat/cut.dat ends without a line feed, 4 characters taken\n"},
                 {"empty", "", "../dat/empty.dat ends without a line feed, 0 characters taken\n"}};
    for (const auto& c : cases) {
        EXPECT_EQ(Read(c.name), c.value) << c.name;
        EXPECT_TRUE(out.WaitFor(c.line)) << c.name;
    }
    void* stream = nullptr;
    EXPECT_EQ(ConfigStoreReadOpen("fifo", &stream), kNoError) << "the default";
    ConfigStoreReadClose(stream);
}

TEST(StoreFaults, AWriteThatCannotOpenItsFileReportsAndHarmsNothing) {
    const StoreTree tree;
    ConfigStoreInit();
    fs::create_directory(tree.Path("dat/folder.dat"));
    ASSERT_EQ(mkfifo(tree.Path("dat/fifo.dat").c_str(), 0666), 0);
    ASSERT_EQ(mkfifo(tree.Path("dat/read.dat").c_str(), 0666), 0);
    const int reader = open(tree.Path("dat/read.dat").c_str(), O_RDONLY | O_NONBLOCK);
    tree.Put("dat/held.dat", "mine\n");
    chmod(tree.Path("dat").c_str(), 0555);
    chmod(tree.Path("dat/held.dat").c_str(), 0444);
    for (const char* name : {"folder", "fifo", "read", "held", "fresh"}) {
        const NobodyT nobody;
        testing::internal::CaptureStderr();
        EXPECT_EQ(Write(name, "new"), kBadParameter) << name;
        EXPECT_EQ(testing::internal::GetCapturedStderr().find("ConfigStoreWrite: fopen: "), 0U);
        void* stream = nullptr;
        EXPECT_EQ(ConfigStoreWriteOpen(name, &stream), kBadParameter) << name;
    }
    EXPECT_EQ(tree.Get("dat/held.dat"), "mine\n");
    EXPECT_EQ(Write(std::string(255, 'n').c_str(), "new"), kBadParameter) << "name too long";
    close(reader);
    chmod(tree.Path("dat").c_str(), 0755);
    // The folder goes while the program runs, and comes back.
    EXPECT_EQ(ConfigStoreDelete("folder", 0), kBadParameter);
    EXPECT_TRUE(fs::exists(tree.Path("dat/folder.dat"))) << "a folder is no value";
    fs::rename(tree.Path("dat"), tree.Path("away"));
    EXPECT_EQ(Write("held", "lost"), kBadParameter);
    EXPECT_EQ(Read("held"), "(error)");
    fs::rename(tree.Path("away"), tree.Path("dat"));
    EXPECT_EQ(Read("held"), "mine");
}

TEST(StoreFaults, AFullDiskIsReportedAndLeavesTheBeginningOrTheOldValue) {
    const StoreTree tree;
    ConfigStoreInit();
    tree.Put("dat/old.dat", "an older and longer value\n");
    tree.Put("dat/full.dat", "old\n");
    signal(SIGXFSZ, SIG_IGN);
    const rlimit four = {4, RLIM_INFINITY};  // the disk is full after four bytes
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    StderrPipeT errors;
    setrlimit(RLIMIT_FSIZE, &four);
    EXPECT_EQ(Write("old", "replacement"), kBadParameter);
    EXPECT_EQ(Write("fits", "abc"), kNoError);
    EXPECT_EQ(Write("line", "abcd"), kBadParameter) << "no room for the line feed";
    const rlimit none = {0, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &none);
    EXPECT_EQ(Write("full", "new"), kBadParameter);
    void* stream = nullptr;
    ASSERT_EQ(ConfigStoreWriteOpen("stream", &stream), kNoError);
    ConfigStoreWritePutLine(stream, "abc", 3);
    EXPECT_EQ(ConfigStoreWriteClose(stream), kBadParameter);
    setrlimit(RLIMIT_FSIZE, &before);
    const std::string lines = errors.Take();
    EXPECT_NE(lines.find("ConfigStoreWrite: fwrite: "), std::string::npos);
    EXPECT_NE(lines.find("ConfigStoreWriteClose: fclose: "), std::string::npos);
    EXPECT_EQ(tree.Get("dat/old.dat"), "repl");
    EXPECT_EQ(tree.Get("dat/fits.dat"), "abc\n");
    EXPECT_EQ(tree.Get("dat/line.dat"), "abcd");
    EXPECT_EQ(tree.Get("dat/full.dat"), "old\n");
}

TEST(StoreFaults, NamesThatLeaveTheFoldersAreRefusedByEveryOperation) {
    const StoreTree tree;
    ConfigStoreInit();
    tree.Put("secret.dat", "secret\n");
    tree.Put("secret.choice", "secret\n");
    for (const char* name : {"../secret", "/etc/passwd", "a/b", ".", "..", "a.b", ""}) {
        SCOPED_TRACE(name);
        char value[20] = "#";
        EXPECT_EQ(ConfigStoreRead(name, 0, value, sizeof(value)), kBadParameter);
        EXPECT_STREQ(value, "");
        EXPECT_EQ(ConfigStoreChoiceRead(name, 0, value, sizeof(value)), kBadParameter);
        EXPECT_EQ(ConfigStoreWrite(name, 0, value), kBadParameter);
        EXPECT_EQ(ConfigStoreDelete(name, 0), kBadParameter);
        void* stream = nullptr;
        EXPECT_EQ(ConfigStoreReadOpen(name, &stream), kBadParameter);
        EXPECT_EQ(ConfigStoreWriteOpen(name, &stream), kBadParameter);
    }
    EXPECT_EQ(tree.Get("secret.dat"), "secret\n");
    EXPECT_TRUE(fs::is_empty(tree.Path("dat")));
}

TEST(StoreFaults, AKilledWriterLeavesTheOldValueOrTheNewOne) {
    const StoreTree tree;
    const std::string values[] = {std::string(300, 'a'), "b", std::string(40, 'c')};
    UseFolders();
    Write("v", values[0]);
    std::mt19937 random(1);
    int found[3] = {};
    for (int round = 0; round < 300; round++) {
        const pid_t writer = Start([] {
            for (;;) {
                Write("v", std::string(300, 'a'));
                Write("v", "b");
                Write("v", std::string(40, 'c'));
            }
        });
        usleep(static_cast<useconds_t>(random() % 3000));
        kill(writer, SIGKILL);
        Finish(writer);
        const std::string value = Read("v");
        const auto* at = std::find(std::begin(values), std::end(values), value);
        ASSERT_NE(at, std::end(values)) << "round " << round << ": \"" << value << '"';
        found[at - values]++;
        ASSERT_NE(tree.Get("dat/v.dat").find('\n'), std::string::npos) << round;
    }
    printf("after 300 kills: %d, %d, %d times each value, never cut\n", found[0], found[1],
           found[2]);
}

TEST(StoreFaults, TwoProcessesLeaveOneWholeValue) {
    const StoreTree tree;
    UseFolders();
    Write("v", "b");
    for (int round = 0; round < 30; round++) {
        const pid_t first = Start([] {
            for (int i = 0; i < 50; i++) {
                Write("v", std::string(300, 'a'));
            }
        });
        const pid_t second = Start([] {
            for (int i = 0; i < 50; i++) {
                Write("v", "b");
            }
        });
        for (int i = 0; i < 50; i++) {
            EXPECT_EQ(Read("v").find_first_not_of("ab"), std::string::npos);
        }
        EXPECT_EQ(Finish(first), 0);
        EXPECT_EQ(Finish(second), 0);
        const std::string value = Read("v");
        ASSERT_TRUE(value == std::string(300, 'a') || value == "b") << value;
    }
}
