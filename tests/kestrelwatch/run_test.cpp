// Whole runs of the launcher with a fake updater: what a user, a script or a bad day can do to it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "tests/kestrelwatch/session.h"

namespace {

using testing::HasSubstr;

const UserT kPipes = UserT::kPipes;
const UserT kTerminal = UserT::kTerminal;

// A terminal's picture without what was drawn from a row's start and wiped to its end.
std::string WithoutBars(std::string text) {
    const std::string wipe = "\033[K";
    for (size_t end = text.find(wipe); end != std::string::npos; end = text.find(wipe)) {
        const size_t start = text.rfind('\r', end);
        text.erase(start, end + wipe.size() - start);
    }
    return text;
}

// The first bytes of the fake updater's long line `i`.
std::string LineStart(int i) {
    return std::to_string(100000000 + i).substr(1) + " 000";
}

TEST(WatchRun, OutputPassesUntouchedAndProgressComesAsPlainLines) {
    const Folder folder;
    Session session(kPipes, {},
                    "echo 'flash_micro() ...'; echo complaint >&2; printf 'no line'; echo ' end'\n"
                    "pos 5; pos 100; printf unfinished");
    EXPECT_EQ(session.End(), 0);
    EXPECT_EQ(session.output,
              "flash_micro() ...\nno line end\npercentdone: [5]\n"
              "percentdone: [100]\nunfinished");
    EXPECT_THAT(session.error, HasSubstr("complaint\n"));
    EXPECT_THAT(session.error, HasSubstr("kestrelwatch: 100 %  0:0"));
    EXPECT_THAT(session.error, HasSubstr("microcontroller: asking for its version\n"));
    EXPECT_EQ(session.error.find_first_of("\033\r"), std::string::npos);
    EXPECT_EQ(folder.PrivateFolder(), "");
}

TEST(WatchRun, BadInputIsRefusedBeforeAnythingStarts) {
    const Folder folder;
    folder.Touch("file");
    std::ofstream("script") << "not a program\n";
    chmod("script", 0755);
    mkfifo("taken", 0600);
    const int reader = open("taken", O_RDONLY | O_NONBLOCK);
    const struct {
        WordsT words;
        int status;
        const char* said;
    } rows[] = {
        {{}, 121, "nothing to do"},
        {{"--", "true", "-p", "x"}, 121, "use --pipe and --range"},
        {{"--stall", "-1", "--", "true"}, 121, "--stall takes"},
        {{"--range", "5", "6x", "--", "true"}, 122, "'6x' is not"},
        {{"--range", "10", "10", "--", "true"}, 122, "10 is not below the high end 10"},
        {{"--pipe", "file", "--", "true"}, 123, "file: exists and is no pipe"},
        {{"--pipe", "taken", "--", "true"}, 123, "another program reads"},
        {{"--pipe", std::string(256, 'x'), "--", "true"}, 123, "path too long"},
        {{"--pipe", "none/pipe", "--", "true"}, 124, "No such file"},
        {{"--", "./file"}, 126, "Permission denied"},
        {{"--", "./script"}, 126, "Exec format error"},
    };
    for (const auto& row : rows) {
        WordsT words = row.words;
        words.insert(words.begin(), KESTRELWATCH);
        Child session(kPipes, words);
        EXPECT_EQ(session.End(), row.status) << row.said;
        EXPECT_THAT(session.error, HasSubstr(row.said));
        EXPECT_EQ(std::count(session.error.begin(), session.error.end(), '\n'), 1);
        EXPECT_EQ(session.output, "");
    }
    close(reader);
    EXPECT_EQ(std::filesystem::file_size("file"), 0u);
    EXPECT_EQ(folder.PrivateFolder(), "");
}

TEST(WatchRun, AGivenPipeIsUsedAndOnlyAnOwnOneRemoved) {
    const Folder folder;
    mkfifo("there", 0600);
    for (const char* name : {"there", "fresh"}) {
        Session session(kPipes, {"--pipe", name, "--strict"},
                        "upto 100; [ $pipe = " + std::string(name) + " ]");
        EXPECT_EQ(session.End(), 0);
    }
    EXPECT_TRUE(std::filesystem::exists("there"));
    EXPECT_FALSE(std::filesystem::exists("fresh"));
}

TEST(WatchRun, NeitherAStandstillNorAnInterruptThatIsNotRepeatedInTimeEndsAnything) {
    const Folder folder;
    Session session(kPipes, {"--stall", "0.1", "--confirm", "0.1"},
                    "pos 1; await go; pos 100; await end");
    for (int i = 0; i < 2; i++) {
        EXPECT_TRUE(session.Sees("nothing has moved for 0:00"));
        session.Signal(SIGINT);
        EXPECT_TRUE(session.Sees("within 0.1 seconds"));
        EXPECT_TRUE(session.Sees("not interrupted"));
    }
    folder.Touch("go");
    EXPECT_TRUE(session.Sees("moving again"));
    folder.Touch("end");
    EXPECT_EQ(session.End(), 0);
}

// More than any pipe or terminal holds, while nobody reads a byte of it.
TEST(WatchRun, AReaderThatStandsStillDoesNotHoldTheUpdater) {
    const Folder folder;
    Session session(kPipes, {}, "kilobytes 2000; upto 100; : >done");
    EXPECT_TRUE(folder.WaitFor("done"));
    EXPECT_EQ(session.End(), 0);
    for (int i = 0; i < 2000; i++) {
        ASSERT_EQ(session.output.substr(size_t{1024} * static_cast<size_t>(i), 12), LineStart(i));
    }
    EXPECT_EQ(session.output.substr(size_t{2000} * 1024, 17), "percentdone: [1]\n");
}

TEST(WatchRun, OneInterruptWarnsAndTwoInterrupt) {
    const Folder folder;
    for (const int number : {SIGINT, SIGTERM}) {
        Session session(kPipes, {"--confirm", "600"}, "echo on; await never");
        EXPECT_TRUE(session.Sees("on\n"));
        session.Signal(number);
        EXPECT_TRUE(session.Sees("leave the unit dead"));
        EXPECT_TRUE(session.Sees("within 600 seconds"));
        usleep(1000000);
        session.Signal(number);
        EXPECT_TRUE(session.Sees("on to the updater"));
        EXPECT_EQ(session.End(), 128 + number);
    }
}

TEST(WatchRun, AKilledLauncherLeavesTheUpdaterAReader) {
    const Folder folder;
    Session session(kPipes, {}, "pos 1; await go; kilobytes 500; upto 100; : >done");
    EXPECT_TRUE(session.Sees("percentdone: [1]"));
    const std::string own = folder.PrivateFolder();
    EXPECT_TRUE(std::filesystem::is_fifo(own + "/progress"));
    session.Signal(SIGKILL);
    EXPECT_EQ(session.End(), -SIGKILL);
    folder.Touch("go");
    EXPECT_TRUE(folder.WaitFor("done"));
    EXPECT_TRUE(folder.WaitFor(own, false));
}

TEST(WatchTerminal, KeysDoNotReachTheUpdaterAndTheBarLeavesLinesWhole) {
    const Folder folder;
    Session session(kTerminal, {}, "pos 42; await go; pos 50; await end; kilobytes 50; pos 100");
    EXPECT_TRUE(session.Sees("]  42 %"));
    EXPECT_TRUE(session.Type("\003"));
    EXPECT_TRUE(session.Sees("leave the unit dead"));
    EXPECT_TRUE(session.Sees(" s to interrupt"));
    EXPECT_TRUE(session.Type("\032"));
    EXPECT_TRUE(session.Sees("not suspended"));
    folder.Touch("go");
    EXPECT_TRUE(session.Sees("]  50 %"));
    folder.Touch("end");
    EXPECT_EQ(session.End(), 0);
    EXPECT_THAT(session.output, HasSubstr("\033[K\r\nkestrelwatch: done"));
    const std::string text = WithoutBars(session.output);
    for (int i = 0; i < 50; i++) {
        const size_t at = text.find("\n" + LineStart(i));
        ASSERT_NE(at, std::string::npos) << i;
        EXPECT_EQ(text.substr(at + 1024, 2), "\r\n");
    }
}

TEST(WatchTerminal, NeitherAHangUpNorALostReaderEndsTheUpdate) {
    const Folder folder;
    for (const UserT user : {kPipes, kTerminal}) {
        const std::string done = user == kPipes ? "done-pipes" : "done-terminal";
        Session session(user, {"--strict"},
                        "pos 10; await go-" + done + "; kilobytes 500; upto 100; : >" + done);
        EXPECT_TRUE(session.Sees(" 10 %"));
        session.CloseOutput();
        folder.Touch(("go-" + done).c_str());
        EXPECT_TRUE(folder.WaitFor(done));
        EXPECT_TRUE(user == kTerminal || session.Sees("output is gone (Broken pipe)"));
        EXPECT_EQ(session.End(), 0);
    }
    EXPECT_EQ(folder.PrivateFolder(), "");
}

}  // namespace
