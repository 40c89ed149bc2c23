// The shell as its users meet it: command lines from everywhere, and a terminal.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "Common/OS/errors.h"
#include "tests/support/child.h"
#include "tests/support/folder.h"

namespace {

struct ResultT {
    int status;
    std::string text;  // standard output and standard error
};

// Runs the shell with `arguments`, `input` on its standard input.
ResultT RunShell(const std::string& arguments, const std::string& input = "") {
    const FolderT folder;
    folder.Put("input", input);
    Child shell(UserT::kPipes,
                {"/bin/sh", "-c", HARBORSH " " + arguments + " 2>&1 <" + folder.Path("input")});
    const int status = shell.End();
    return {status, shell.output};
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The shell at a terminal of its own.
class Session : public Child {
  public:
    Session()
        : Child(UserT::kTerminal, {"/bin/sh", "-c", "TERM=dumb INPUTRC=/dev/null exec " HARBORSH}) {
        Expect("harborsh> ");
    }

    // A line's way from one prompt to the next.
    void Run(const std::string& keys, std::initializer_list<const char*> shown) {
        Type(keys);
        for (const char* part : shown) {
            Expect(part);
        }
        Expect("harborsh> ");
    }

    void Expect(const std::string& part) { EXPECT_TRUE(Sees(part)) << part << " in\n" << output; }
};

}  // namespace

TEST(Harborsh, TheExitStatusIsThatOfTheLastCommand) {
    const struct {
        const char* arguments;
        int status;
        const char* text;
    } cases[] = {
        {"-c nosuch", -kItemNotFound, "ERROR, item not found\n"},
        {"-c 'nosuch; shellHelp'", 0, "ERROR, item not found\n"},
        {"-c 'shellHelp; demo call'", -kBadParameter, "Usage: call <text>\n"},
        {"-c 'exit; nosuch'", 0, ""},
        {"-c 'notify \"a; b\"; notify c'", 0, "NOTIFY: a; b\nNOTIFY: c\n"},
        {"-w 1 -c 'sleep 60000; demo timer 60000 1000'", -kTimeOut, "ERROR, no outcome in time"},
        {"-c notify\\ a -c nosuch", -kItemNotFound, "NOTIFY: a\nERROR, item not found\n"},
        {"-c ''", 0, ""},
        {"-c 'notify \"a;\nnosuch'", -kItemNotFound, "NOTIFY: a;\nERROR, item not found\n"},
        {"-c 'script /nowhere/at/all'", -kItemNotFound, "ERROR, item not found\n"},
        {"/nowhere/at/all", -kItemNotFound, "harborsh: cannot read /nowhere/at/all\n"},
        {"/", -kItemNotFound, "harborsh: cannot read /\n"},
        {"/dev/null", 0, ""},
        {"-c 'config colour 1x red'", -kBadParameter, "ERROR, bad parameter\n"},
        {"-c 'pool create p 1 4294967296 100'", -kBadParameter, "ERROR, bad parameter\n"},
        {"-c 'categories enable 9; categories list g711'", 0, "ENC  enabled  debug\n"},
        {"-c devices", 0, "Ser         8 closed"},
    };
    for (const auto& c : cases) {
        const ResultT result = RunShell(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments;
        EXPECT_TRUE(result.text.empty() ? *c.text == '\0' : Has(result.text, c.text))
            << c.arguments << "\n"
            << result.text;
    }
    EXPECT_NE(RunShell("--nonsense").status, 0);
}

TEST(Harborsh, LinesFromAPipeRunWithoutAPromptAndBadOnesAreRefusedOneByOne) {
    const std::string fits = "notify " + std::string(505, 'x');
    const ResultT result =
        RunShell("", "\n   \n# a comment\nnotify one\r\n" + fits + "\n" + fits +
                         "y\nnotify \x01\x7f\xff\nnotify \"open\n" +
                         std::string("notify \0 two\n", 13) + "unknown\x1b[A\nnotify last");
    EXPECT_EQ(result.text, "NOTIFY: one\nNOTIFY: " + std::string(505, 'x') +
                               "\nERROR, line over 512 characters\nNOTIFY: \x01\x7f\xff\n"
                               "NOTIFY: open\nERROR, line with a NUL character\n"
                               "ERROR, item not found\nNOTIFY: last\n");
    EXPECT_EQ(result.status, 0);
    const ResultT file = RunShell("/proc/self/fd/0", "notify from a file\nnosuch\n");
    EXPECT_EQ(file.text, "NOTIFY: from a file\nERROR, item not found\n");
    EXPECT_EQ(file.status, -kItemNotFound);
}

TEST(Harborsh, AScriptThatCallsItselfThreeTimesHoldsUpNeitherTheNextLineNorTheEnd) {
    const FolderT folder;
    const std::string name = folder.Path("self");
    const std::string calls = "script " + name + "\nscript " + name + "\nscript " + name + "\n";
    const auto run = [&](const std::string& first, const std::string& behind) {
        folder.Put("self.scr", first + calls);
        return RunShell("-w 120 -c 'script " + name + "; " + behind + "'");
    };
    const ResultT result = run("", "devices");
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(Has(result.text, "Ser         8 closed")) << result.text.size();
    // A script a second until the shell ends: what waits then is dropped.
    const std::string slow = run("sleep 1000\n", "").text;
    size_t begun = 0;
    for (size_t at = 0; (at = slow.find("Executing", at)) != std::string::npos; at++) {
        begun++;
    }
    EXPECT_LT(begun, 20U);
}

TEST(Harborsh, ATerminalGetsAPromptCompletionAndHistory) {
    Session session;
    session.Run("noti\tfirst\r", {"notify first", "NOTIFY: first\r\n"});
    session.Run("demo callb\tnews\r", {"demo callback news", "heard \"news\" from Worker[1]"});
    session.Run("\x10\x10\r", {"NOTIFY: first\r\n"});  // the line before the last
    session.Run("help \t\t", {"alias", "types"});
    session.Type("\x15sleep 500\r");
    session.Expect("sleep 500");
    usleep(100000);
    session.Type("\x04");  // the end of input, while the command runs
    EXPECT_EQ(session.End(), 0);
}

TEST(Harborsh, OutputOfOtherTasksDoesNotSpoilTheLineBeingTyped) {
    Session session;
    session.Run("demo timer 200 3 &\r", {});
    session.Type("notify ty");
    session.Expect("tick 2");
    session.Expect("harborsh> notify ty");  // shown again below
    session.Type("ped\r");
    session.Expect("NOTIFY: typed");
    session.Type("exit\r");
    EXPECT_EQ(session.End(), 0);
}

TEST(Harborsh, AnInterruptGivesUpTheLineOrTheWaitButNotTheShell) {
    Session session;
    session.Type("nosuch garbage");
    session.Expect("garbage");
    session.Run("\x03", {});
    session.Type("sleep 60000\r");
    session.Expect("sleep 60000");
    usleep(300000);
    session.Run("\x03", {"ERROR, interrupted"});
    session.Type("exit\r");  // runs in the main task: the busy one does not hold it up
    EXPECT_EQ(session.End(), 0);
}
