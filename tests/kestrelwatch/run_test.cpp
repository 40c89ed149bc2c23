// Whole runs of the launcher with a fake updater: what a user, a script or a bad day can do to it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <random>

#include "tests/kestrelwatch/session.h"
#include "tests/kestrelwatch/terminal.h"

namespace {

using testing::HasSubstr;

const UserT kPipes = UserT::kPipes;
const UserT kTerminal = UserT::kTerminal;

// What a terminal was sent, without the bars and what wiped them.
std::string WithoutBars(std::string text) {
    const std::string start = "\r\033[?7l";
    const std::string last = "\033[?7h";
    for (size_t at = text.find(start); at != std::string::npos; at = text.find(start)) {
        const size_t end = text.find(last, at) + last.size();
        text.erase(at, end - at + (text[end] == '\r' && text[end + 1] != '\n' ? 1 : 0));
    }
    const std::string wipe = "\r\033[J";
    for (size_t at = text.find(wipe); at != std::string::npos; at = text.find(wipe)) {
        text.erase(at, wipe.size());
    }
    return text;
}

// The first bytes of the fake updater's long line `i`.
std::string LineStart(int i) {
    return std::to_string(100000000 + i).substr(1) + " 000";
}

TEST(WatchRun, OutputPassesUntouchedAndTheUnitIsAskedBeforeAndAfter) {
    const Folder folder;
    Session session(kPipes, {},
                    "echo complaint >&2; printf 'no line'; echo ' end'; begin; finish;"
                    "pos 100; printf unfinished");
    EXPECT_EQ(session.End(), 0) << session.error;
    EXPECT_THAT(session.output,
                testing::StartsWith("flash_micro() ...\nupdatedMicroVersion: 0x21"));
    EXPECT_THAT(session.output, HasSubstr("Required ....\nno line end\nATTEMPTING"));
    EXPECT_THAT(session.output, HasSubstr("percentdone: [100]\nunfinishedflash_micro() ...\n"));
    EXPECT_THAT(session.error, HasSubstr("complaint\n"));
    EXPECT_THAT(session.error, HasSubstr("kestrelwatch: 100 %  0:0"));
    EXPECT_THAT(session.error, HasSubstr("microcontroller 0x20 to 0x21. The unit: microcontroller "
                                         "0x21, verified.\n"));
    EXPECT_EQ(session.error.find_first_of("\033\r"), std::string::npos);
    EXPECT_EQ(folder.PrivateFolder(), "");
}

TEST(WatchRun, BadInputIsRefusedBeforeAnythingStarts) {
    const Folder folder;
    folder.Touch("file");
    folder.Touch("empty");
    std::ofstream("script") << "not a program\n";
    chmod("script", 0755);
    mkfifo("taken", 0600);
    const int reader = open("taken", O_RDONLY | O_NONBLOCK);
    const std::string dev = getenv("HARBOR_DEV_DIR");
    const struct {
        const char* before;  // a command
        WordsT words;
        int status;
        std::string said;
    } rows[] = {
        {"", {}, 121, "nothing to do"},
        {"", {"Q", "micro"}, 121, "knows no word 'Q'"},
        {"", {"al"}, 121, "knows no word 'al'"},
        {"", {"--nonsense", "all"}, 121, "bad option"},
        {"", {"--", "true", "-p", "x"}, 121, "use --pipe and --range"},
        {"", {"--give-up", "1x", "--", "true"}, 121, "--give-up takes"},
        {"", {"--retries", "1.5", "--", "true"}, 121, "--retries takes"},
        {"", {"--port", "mice=/dev/null", "--", "true"}, 121, "--port takes"},
        {"", {"--range", "5", "6x", "--", "true"}, 122, "'6x' is not"},
        {"", {"--range", "10", "10", "--", "true"}, 122, "10 is not below the high end 10"},
        {"", {"--pipe", "file", "--", "true", "micro"}, 123, "file: exists and is no pipe"},
        {"", {"--pipe", "taken", "--", "true", "micro"}, 123, "another program reads"},
        {"", {"--pipe", std::string(256, 'x'), "--", "true", "micro"}, 123, "path too long"},
        {"", {"--pipe", "none/pipe", "--", "true", "micro"}, 124, "No such file"},
        {"", {"--", "./file", "micro"}, 126, "Permission denied"},
        {"", {"--", "./script", "micro"}, 126, "Exec format error"},
        {"", {"--", "./none", "micro"}, 127, "No such file"},
        {"", {"--json", "kestrelmicro.bin", "--", "true", "micro"}, 121, "kestrelmicro.bin is"},
        {"", {"--port", "micro=/dev/null", "--", "true", "micro"}, 118, "is no serial line"},
        {"mv kestrelmicro.bin image",
         {"--", "true", "micro", "q"},
         118,
         "kestrelmicro.bin: No such file"},
        {"mkdir kestrelmicro.bin", {"--", "true", "micro"}, 118, "is no file"},
        {"rmdir kestrelmicro.bin; : >kestrelmicro.bin", {"--", "true", "micro"}, 118, "is empty"},
        {"head -c 9 /dev/zero >kestrelmicro.bin", {"--", "true", "micro"}, 118, "begins with 0"},
        {"head -c 6145 image /dev/zero >kestrelmicro.bin",
         {"--", "true", "micro"},
         118,
         "only the first 6144"},
        {"mv image kestrelmicro.bin", {"--", "true", "all"}, 118, "overlookcam.bin: No such"},
        {"echo x | tee overlookcam.bin >overlooksys.bin; echo v1.02 >overlookcamver; echo 1 "
         ">overlooksysver",
         {"--", "true", "all"},
         118,
         "overlookcamver: is no hexadecimal version (\"v1.02\")"},
        {"echo 1 >overlookcamver",
         {"--port", "micro=/dev/null", "--port", "camera=/dev/null", "--", "true", "all"},
         118,
         "both targets"},
        {"head -c 30000000 /dev/zero >overlookcam.bin",
         {"--", "true", "overlook"},
         118,
         "more than 21474836 bytes"},
        {"mkfifo $HARBOR_DEV_DIR/plaunch", {"--", "true", "micro"}, 118, dev + "/plaunch: a pipe"},
        // In a session without a terminal this device is there and does not open.
        {"rm $HARBOR_DEV_DIR/plaunch; ln -sf /dev/tty $HARBOR_DEV_DIR/fpgaserial1",
         {"--", "true", "micro"},
         118,
         "fpgaserial1: No such device or address"},
        {"rm $HARBOR_DEV_DIR/fpgaserial1",
         {"--", "true", "micro"},
         118,
         dev + "/fpgaserial1: No such file"},
        {": >$HARBOR_DEV_DIR/fpgaserial1", {"--", "true", "micro"}, 118, "is no device"},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(system(row.before), 0) << row.before;
        WordsT words = row.words;
        words.insert(words.begin(), KESTRELWATCH);
        Child session(kPipes, words);
        EXPECT_EQ(session.End(), row.status) << row.said;
        EXPECT_THAT(session.error, HasSubstr(row.said));
        EXPECT_THAT(session.error, HasSubstr("not touched. Next: "));
        EXPECT_EQ(session.output, "");
    }
    close(reader);
    EXPECT_EQ(std::filesystem::file_size("file"), 0u);
    EXPECT_EQ(folder.PrivateFolder(), "");
}

TEST(WatchRun, ACheckAloneIsATableAndStartsNothing) {
    const Folder folder;
    std::ofstream("overlookcam.bin") << "image";
    std::ofstream("overlooksys.bin") << "image";
    std::ofstream("overlookcamver") << "8001\n";
    std::ofstream("overlooksysver") << "error page\n";
    Child session(kPipes, {KESTRELWATCH, "--check", "--json", "fd:2", "--", "./none", "all"});
    EXPECT_EQ(session.End(), 127);
    for (const char* row : {"REFUSED updater", "ok      kestrelmicro.bin", "version 0x21",
                            "NOTICE  overlookcamver", "will come back", "REFUSED overlooksysver"}) {
        EXPECT_THAT(session.output, HasSubstr(row));
    }
    EXPECT_THAT(session.error, HasSubstr("\"cause\":\"updater-missing\""));
    Child fine(kPipes, {KESTRELWATCH, "--check", "--", "false", "micro"});
    EXPECT_EQ(fine.End(), 0);
    EXPECT_THAT(fine.error, HasSubstr("CHECKED: an update may start. The unit: not asked."));
}

TEST(WatchRun, AGivenPipeIsUsedAndOnlyAnOwnOneRemoved) {
    const Folder folder;
    mkfifo("there", 0600);
    for (const char* name : {"there", "fresh"}) {
        Session session(kPipes, {"--pipe", name, "--strict"},
                        "begin; finish; pos 100; [ $pipe = " + std::string(name) + " ]");
        EXPECT_EQ(session.End(), 0) << session.error;
        std::filesystem::remove("updated");
    }
    EXPECT_TRUE(std::filesystem::exists("there"));
    EXPECT_FALSE(std::filesystem::exists("fresh"));
}

TEST(WatchRun, NeitherAStandstillNorAnInterruptThatIsNotRepeatedInTimeEndsAFlash) {
    const Folder folder;
    Session session(kPipes, {"--stall", "0.1", "--confirm", "0.1", "--give-up", "0.1"},
                    "begin; await go; block 1; await end; finish");
    for (int i = 0; i < 2; i++) {
        EXPECT_TRUE(session.Sees("nothing has moved for 0:00"));
        session.Signal(SIGINT);
        EXPECT_TRUE(session.Sees("within 0.1 seconds"));
        EXPECT_TRUE(session.Sees("not interrupted"));
    }
    folder.Touch("go");
    EXPECT_TRUE(session.Sees("moving again"));
    folder.Touch("end");
    EXPECT_EQ(session.End(), 0) << session.error;
}

TEST(WatchRun, OnePressOrALimitEndsWhatStandsWhereNothingIsErased) {
    const Folder folder;
    const char* const hunt = "asking; await never";
    for (const bool asks : {true, false}) {
        const std::string words = asks ? std::string(hunt) : kAnswers + std::string(hunt);
        Session pressed({"--give-up", "0"}, words);
        EXPECT_TRUE(pressed.Sees("flash_micro() ...\n"));
        EXPECT_TRUE(asks || pressed.Sees("flash_micro() ...\n"));
        pressed.Signal(SIGINT);
        EXPECT_EQ(pressed.End(), 130);
        EXPECT_THAT(pressed.error, HasSubstr("FAILED: interrupted at microcontroller: asking"));
        Session limited({"--give-up", "0.3", "--retries", "1"}, words);
        EXPECT_EQ(limited.End(), 117);
        EXPECT_THAT(limited.error, HasSubstr("running again (1 try left)"));
        EXPECT_THAT(limited.error, HasSubstr("FAILED: given up at microcontroller: asking"));
    }
    // One that does not listen, and one that talks for ever.
    for (const char* words : {"trap '' TERM; asking; while :; do sleep 1; done",
                              "while :; do echo no line of the updater; done"}) {
        // What the first one had started may hold the lock for a moment longer.
        EXPECT_TRUE(Eventually([&] { return Session({"--give-up", "0.3"}, words).End() == 117; }));
    }
}

// More than any pipe or terminal holds, while nobody reads a byte of it.
TEST(WatchRun, AReaderThatStandsStillDoesNotHoldTheUpdater) {
    const Folder folder;
    Session session(kPipes, {}, "kilobytes 2000; begin; finish; : >done");
    EXPECT_TRUE(folder.WaitFor("done"));
    EXPECT_EQ(session.End(), 0);
    const size_t start = session.output.find(LineStart(0));
    for (int i = 0; i < 2000; i++) {
        ASSERT_EQ(session.output.substr(start + size_t{1024} * static_cast<size_t>(i), 12),
                  LineStart(i));
    }
}

TEST(WatchRun, OneInterruptOfAFlashWarnsAndTwoInterrupt) {
    const Folder folder;
    for (const int number : {SIGINT, SIGTERM}) {
        Session session(kPipes, {"--confirm", "600"}, "begin; await never");
        EXPECT_TRUE(session.Sees("block[0]"));
        session.Signal(number);
        EXPECT_TRUE(session.Sees("leave the unit dead"));
        EXPECT_TRUE(session.Sees("within 600 seconds"));
        usleep(1000000);
        session.Signal(number);
        EXPECT_TRUE(session.Sees("on to the updater"));
        EXPECT_EQ(session.End(), 128 + number);
        EXPECT_THAT(session.error, HasSubstr("may have erased its image"));
    }
}

TEST(WatchRun, AKilledLauncherLeavesTheUpdaterAReaderAndTheLock) {
    const Folder folder;
    Session session(kPipes, {}, "begin; pos 1; await go; kilobytes 500; finish; : >done");
    EXPECT_TRUE(session.Sees("percentdone: [1]"));
    const std::string own = folder.PrivateFolder();
    EXPECT_TRUE(std::filesystem::is_fifo(own + "/progress"));
    for (const bool killed : {false, true}) {
        if (killed) {
            session.Signal(SIGKILL);
            EXPECT_EQ(session.End(), -SIGKILL);
        }
        Session second(kPipes, {}, "echo started");
        EXPECT_EQ(second.End(), 119);
        EXPECT_THAT(second.error, HasSubstr("an update has been running since "));
        EXPECT_EQ(second.error.find("launcher is gone") != std::string::npos, killed);
        EXPECT_EQ(second.output, "");
    }
    folder.Touch("go");
    EXPECT_TRUE(folder.WaitFor("done"));
    EXPECT_TRUE(folder.WaitFor(own, false));
    EXPECT_TRUE(Eventually([] { return Session(kPipes, {}, "").End() == 0; }));
}

TEST(WatchRun, FilesThatChangeWhileTheUpdateRunsAreNoSuccess) {
    const Folder folder;
    Session session(kPipes, {}, "begin; echo more >>kestrelmicro.bin; finish");
    EXPECT_EQ(session.End(), 120);
    EXPECT_THAT(session.error, HasSubstr("the files were changed while the update ran"));
    std::filesystem::remove("updated");
    Session early({}, "echo >>kestrelmicro.bin;" + std::string(kAnswers) + ": >sent");
    EXPECT_EQ(early.End(), 120);
    EXPECT_THAT(early.error, HasSubstr("were changed before anything was sent. The unit: "
                                       "microcontroller 0x20, not touched"));
    EXPECT_FALSE(std::filesystem::exists("sent"));
    // A summary that no image stands behind.
    EXPECT_EQ(Session({}, "echo '########## NO Kestrel Image(s) Update Required'").End(), 120);
}

TEST(WatchRun, AQueryKeepsTheUpdatersStatusAndAQuestionLeftOutIsSaid) {
    const Folder folder;
    for (const int status : {1, 0}) {
        Child query(kPipes, {KESTRELWATCH, "--", "sh", "-c", std::string(kUpdaterWords) + "answer",
                             "updater", "micro", "q"});
        EXPECT_EQ(query.End(), status);
        EXPECT_THAT(query.error, HasSubstr(status == 1 ? "UPDATE NEEDED: microcontroller 0x20 to"
                                                       : "UP TO DATE"));
        Session session(kPipes, {"--no-verify"}, "begin; finish");
        EXPECT_EQ(session.End(), status == 1 ? 120 : 0);
        EXPECT_EQ(session.error.find("was not asked") != std::string::npos, status == 1);
    }
}

TEST(WatchRun, WhateverBecomesOfItsFilesTheUpdateGoesOn) {
    const Folder folder;
    signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const std::string gone = "fd:" + std::to_string(ends[1]);
    const struct {
        WordsT options;
        const char* said;
    } rows[] = {
        {{"--json", "/dev/full"}, "/dev/full is lost (No space left on device)"},
        {{"--json", gone}, "is lost (Broken pipe)"},
        {{"--json", "fd:700"}, "fd:700 cannot be written: Bad file descriptor"},
        {{"--json", "none/file"}, "none/file cannot be written"},
        {{"--record", "kestrelmicro.bin"}, "cannot be written: Not a directory"},
    };
    for (const auto& row : rows) {
        std::filesystem::remove("updated");
        Session session(kPipes, row.options, "sleep 0.3; begin; finish");
        EXPECT_EQ(session.End(), 0);
        EXPECT_THAT(session.error, HasSubstr(row.said));
    }
    close(ends[1]);
}

TEST(WatchTerminal, KeysDoNotReachTheUpdaterAndTheBarLeavesLinesWhole) {
    const Folder folder;
    Session session(kTerminal, {}, "begin; await go; block 1; await end; kilobytes 50; finish");
    EXPECT_TRUE(session.Sees("microcontroller: block 1 of 12"));
    EXPECT_TRUE(session.Type("\003"));
    EXPECT_TRUE(session.Sees("leave the unit dead"));
    EXPECT_TRUE(session.Sees(" s to interrupt"));
    EXPECT_TRUE(session.Type("\032"));
    EXPECT_TRUE(session.Sees("not suspended"));
    folder.Touch("go");
    folder.Touch("end");
    EXPECT_EQ(session.End(), 0);
    const std::string text = WithoutBars(session.output);
    EXPECT_THAT(text, HasSubstr("\r\nkestrelwatch: UPDATED"));
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
        Session session(user, {},
                        "begin; await go-" + done + "; kilobytes 500; finish; : >" + done);
        EXPECT_TRUE(session.Sees("block[0]"));
        session.CloseOutput();
        folder.Touch(("go-" + done).c_str());
        EXPECT_TRUE(folder.WaitFor(done));
        EXPECT_TRUE(user == kTerminal || session.Sees("output is gone (Broken pipe)"));
        EXPECT_EQ(session.End(), 0);
        std::filesystem::remove("updated");
    }
    EXPECT_EQ(folder.PrivateFolder(), "");
}

TEST(WatchTerminal, ATerminalOfAnyWidthThatIsNarrowedWhileItDrawsKeepsNoFragments) {
    const Folder folder;
    Session session(kTerminal, {"--stall", "0.05"},
                    "begin; i=0; while [ ! -e go ]; do block $i; i=$(((i + 1) % 12)); sleep 0.02;"
                    "done; finish");
    Picture picture;
    size_t shown = 0;
    std::mt19937 random(3);
    EXPECT_TRUE(session.Sees("block 1 of 12"));
    for (int round = 0; round < 60; round++) {
        const size_t width = random() % (round % 2 == 0 ? 300 : 60) + 1;
        EXPECT_TRUE(session.Sees("block["));
        picture.Show(session.output.substr(shown));
        shown = session.output.size();
        picture.Resize(width);
        session.Resize(width);
    }
    folder.Touch("go");
    EXPECT_EQ(session.End(), 0);
    picture.Show(session.output.substr(shown));
    std::string text = WithoutBars(session.output);
    std::string seen;
    for (const std::string& line : picture.Lines()) {
        const bool bar = line.find(" %  0:") < 80 && !line.starts_with("kestrelwatch");
        seen += bar ? "" : line + "\n";
    }
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    for (std::string* it : {&text, &seen}) {
        for (size_t at = it->find("\n\n"); at != std::string::npos; at = it->find("\n\n")) {
            it->erase(at, 1);
        }
    }
    EXPECT_EQ(seen, text);
}

// The updater's session has a terminal, which is not the line that it opens, and a hang-up of which
// does not end it.
TEST(WatchTerminal, ALineNeverControlsTheUpdater) {
    const Folder folder;
    Session session(kPipes, {},
                    "exec 3<>$HARBOR_DEV_DIR/fpgaserial1; begin; kill -HUP $$; "
                    "sed 's/.*) //' /proc/$$/stat | cut -d' ' -f5 >tty; finish");
    EXPECT_EQ(session.End(), 0) << session.error;
    dev_t tty = 0;
    std::ifstream("tty") >> tty;
    struct stat line = {};
    stat((std::string(getenv("HARBOR_DEV_DIR")) + "/fpgaserial1").c_str(), &line);
    EXPECT_EQ(major(tty), major(line.st_rdev));  // a pseudo-terminal
    EXPECT_NE(tty, line.st_rdev);
}

}  // namespace
