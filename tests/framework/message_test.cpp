// Commands, responses, notifications, aliases, scripts.
#include "Common/framework/message.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/linux/psosapi/ptimer.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

// What arrived at notification functions and listeners, from any task.
struct OutcomeT {
    eErrorT err;
    std::string text;
    void* userDefined;
    std::string task;
};
std::mutex gMutex;
std::vector<OutcomeT> gOutcomes;

void Notify(eErrorT err, const char* text, void* userDefined) {
    const std::scoped_lock lock(gMutex);
    gOutcomes.push_back({err, text, userDefined, t_name(0)});
}

size_t Outcomes() {
    const std::scoped_lock lock(gMutex);
    return gOutcomes.size();
}

std::vector<std::string> gWords;  // of the last "words" command

eErrorT WordsCmd(int argc, char** argv, char* pResponse) {
    gWords.assign(argv, argv + argc);
    EXPECT_EQ(argv[argc], nullptr);
    EXPECT_STREQ(pResponse, "");
    snprintf(pResponse, kMsgMaxLen + 1, "%d words", argc);
    return kNoError;
}

eErrorT FailCmd(int, char**, char* pResponse) {
    strcpy(pResponse, "why");
    return kBadState;
}

eErrorT LongCmd(int, char**, char* pResponse) {
    memset(pResponse, 'r', kMsgMaxLen);
    return kNoError;
}

eErrorT ScriptCmd(int, char** argv, char*) {
    return MsgExecuteScript(argv[1], nullptr, nullptr);
}

CmdEntryT gCmds[] = {
    {{}, "words", WordsCmd, 1, "words ...", 0, 0},
    {{}, "Fail", FailCmd, 1, nullptr, 0, 0},
    {{}, "long", LongCmd, 1, nullptr, 0, 0},
    {{}, "two", WordsCmd, 2, "two <arg>", 0, 0},
    {{}, "hollow", nullptr, 1, nullptr, 0, 0},
    {{}, "sync", WordsCmd, 1, "sync", kMsgCmdSync, 0},
    {{}, "script", ScriptCmd, 2, "script <name>", 0, 0},
    {{}, nullptr, nullptr, 0, nullptr, 0, 0},
};

// The main task owns all commands and serves them when a test says so.
void Start() {
    Attach();
    ASSERT_EQ(MsgInit(), kNoError);
    ASSERT_EQ(MsgAddCmdTable(gCmds), kNoError);
}

// Serves commands until none is left, those queued meanwhile too.
void Serve() {
    while (ModProcessDeferredFunctions() != 0) {
    }
}

// Sends a line, serves it, and waits for its outcome.
OutcomeT Send(const std::string& line) {
    const size_t before = Outcomes();
    MsgSendCmd(line.c_str(), Notify, &gOutcomes);
    Serve();
    EXPECT_TRUE(Eventually([&] { return Outcomes() > before; })) << line;
    const std::scoped_lock lock(gMutex);
    return gOutcomes.back();
}

std::string Printed(const std::string& line) {
    const StdoutFile out;
    Send(line);
    return out.Text();
}

class InTempDir {
  public:
    InTempDir() {
        char path[] = "/tmp/harbor_scripts_XXXXXX";
        path_ = mkdtemp(path);
        EXPECT_EQ(chdir(path_.c_str()), 0);
    }
    ~InTempDir() {
        EXPECT_EQ(chdir(before_.c_str()), 0);
        std::filesystem::remove_all(path_);
    }
    InTempDir(const InTempDir&) = delete;
    InTempDir& operator=(const InTempDir&) = delete;
    static void Write(const char* name, const std::string& text) {
        std::ofstream(std::string(name) + ".scr") << text;
    }

  private:
    std::string before_ = std::filesystem::current_path();
    std::string path_;
};

}  // namespace

TEST(Message, LinesAreSplitIntoWords) {
    Start();
    const struct {
        std::string line;
        std::vector<std::string> words;
    } cases[] = {
        {"words", {"words"}},
        {"  \twords a\t b  ", {"words", "a", "b"}},
        {"WOR a", {"WOR", "a"}},
        {"words \"a b\" c", {"words", "a b", "c"}},
        {R"(words "say \"hi\" \ there" end)", {"words", R"(say "hi" \ there)", "end"}},
        {"words \"\" x", {"words", "", "x"}},
        {"words \"open end", {"words", "open end"}},
        {R"(words "open \)", {"words", "open \\"}},
        {"words \"a\"b", {"words", "a", "b"}},
        {"words a\"b c\"", {"words", "a\"b", "c\""}},
        {"words # no comment", {"words", "#", "no", "comment"}},
        {"\"words\" x", {"words", "x"}},
        {"words a\nb", {"words", "a"}},
        {"words a\rb\nc", {"words", "a"}},
        {"words a\nb\rc", {"words", "a"}},
        {"words \x01\x7f\xff", {"words", "\x01\x7f\xff"}},
    };
    for (const auto& c : cases) {
        gWords.clear();
        EXPECT_EQ(Send(c.line).err, kNoError) << c.line;
        EXPECT_EQ(gWords, c.words) << c.line;
    }
    std::string many = "words";
    for (int i = 2; i <= 81; i++) {
        many += " " + std::to_string(i);
    }
    EXPECT_EQ(Send(many).text, "80 words");
    EXPECT_EQ(gWords.back(), "80");
}

TEST(Message, LinesOf512CharactersPassWholeAndLongerOnesAreRefused) {
    Start();
    const std::string fits = "words " + std::string(506, 'x');
    EXPECT_EQ(Send(fits).text, "2 words");
    EXPECT_EQ(gWords[1].size(), 506U);
    EXPECT_EQ(MsgSendCmd((fits + "x").c_str(), Notify, nullptr), kBadParameter);
    EXPECT_EQ(Outcomes(), 1U);
    EXPECT_EQ(Send("long").text, std::string(512, 'r'));
    EXPECT_EQ(MsgSendNotification(""), kBadParameter);
    EXPECT_EQ(MsgSendNotification(std::string(513, 'n').c_str()), kBadParameter);
    EXPECT_EQ(MsgAddNotification(Notify), kNoError);
    EXPECT_EQ(MsgSendNotification(std::string(512, 'n').c_str()), kNoError);
    EXPECT_TRUE(Eventually([] { return Outcomes() == 3; }));
    EXPECT_EQ(gOutcomes[2].text.size(), 512U);
}

TEST(Message, AbbreviationsFindTheFirstNameThatTheyBegin) {
    Attach();
    ASSERT_EQ(MsgInit(), kNoError);
    for (const char* line : {"he", "h", "H", "", "   ", "# comment"}) {
        EXPECT_EQ(Printed(line),
                  "Main commands:\n"
                  "?               alias           help            shellHelp       \n")
            << line;
    }
    EXPECT_EQ(Printed("help al"), "alias <name> <cmd>\n");
    EXPECT_EQ(Send("help zz").err, kItemNotFound);
    EXPECT_EQ(Send("shellHelp").err, kNoError);
    CmdEntryT help = {{}, "HELP", WordsCmd, 1, nullptr, 0, 0};
    CmdEntryT he = {{}, "he", WordsCmd, 1, nullptr, 0, 0};
    CmdEntryT helper = {{}, "a name over sixteen", WordsCmd, 1, nullptr, 0, 0};
    EXPECT_EQ(MsgAddCmd(&help), kAlreadyExists);
    EXPECT_EQ(MsgAddCmd(&he), kNoError);
    EXPECT_EQ(MsgAddCmd(&helper), kNoError);
    EXPECT_EQ(Printed("?"),
              "Main commands:\n"
              "?               a name over sixtalias           he              \n"
              "help            shellHelp       \n");
    EXPECT_EQ(Send("h").text, "1 words");
    EXPECT_EQ(MsgDeleteCmd(&he), kNoError);
    EXPECT_EQ(MsgDeleteCmd(&he), kItemNotFound);
    EXPECT_EQ(MsgDeleteCmd(&helper), kNoError);
    EXPECT_EQ(MsgAddCmdTable(nullptr), kFuncReturnedError);
    EXPECT_EQ(MsgDeleteCmdTable(nullptr), kFuncReturnedError);
    EXPECT_EQ(MsgDeleteCmdTable(defaultCmds), kNoError);
    EXPECT_EQ(MsgDeleteCmdTable(defaultCmds), kItemNotFound);
    EXPECT_EQ(gCmdTable, nullptr);
    EXPECT_EQ(Send("help").err, kItemNotFound);
}

TEST(Message, OutcomesArriveInTheNotificationTaskOrAtOnce) {
    Start();
    const OutcomeT outcome = Send("fail");
    EXPECT_EQ(outcome.err, kBadState);
    EXPECT_EQ(outcome.text, "why");
    EXPECT_EQ(outcome.task, "msgn");
    EXPECT_EQ(outcome.userDefined, &gOutcomes);
    const struct {
        const char* line;
        eErrorT err;
    } refused[] = {{"nonsense", kItemNotFound}, {"two", kBadParameter}, {"hollow", kBadParameter}};
    for (const auto& r : refused) {
        const size_t before = Outcomes();
        EXPECT_EQ(MsgSendCmd(r.line, Notify, nullptr), r.err);
        ASSERT_EQ(Outcomes(), before + 1) << "at once";
        EXPECT_EQ(gOutcomes.back().err, r.err);
        EXPECT_EQ(gOutcomes.back().text, "");
        EXPECT_EQ(gOutcomes.back().task, "main");
        EXPECT_EQ(MsgSendCmd(r.line, nullptr, nullptr), r.err);
    }
    EXPECT_EQ(Printed("two"), "Usage: two <arg>\n");
    const size_t before = Outcomes();
    EXPECT_EQ(MsgSendCmd("sync a", Notify, nullptr), kNoError);
    ASSERT_EQ(Outcomes(), before + 1);
    EXPECT_EQ(gOutcomes.back().text, "2 words");
    EXPECT_EQ(gOutcomes.back().task, "main");

    CmdEntryT orphan = {{}, "orphan", WordsCmd, 1, nullptr, 0, 0};
    {
        ModuleTask task("orph");
        task.Run([&] { MsgAddCmd(&orphan); });
        EXPECT_EQ(orphan.taskID, task.Id());
    }
    EXPECT_EQ(MsgSendCmd("orphan", Notify, nullptr), kBadParameter);
    MsgExit();
    EXPECT_TRUE(Eventually([] {
        UInt32 id;
        return t_ident("msgn", 0, &id) == kTaskNotFound;
    }));
    EXPECT_EQ(MsgSendNotification("x"), kNotInitialized);
}

TEST(Message, EchoesFollowTheirSwitches) {
    Start();
    const StdoutFile out;
    const auto echoed = [&out](auto action) {
        const size_t before = out.Text().size();
        action();
        return out.Text().substr(before);
    };
    EXPECT_EQ(MsgPrintEnable("bad", 1), kBadParameter);
    EXPECT_EQ(MsgPrintEnable("CMD", 1), kNoError);
    EXPECT_EQ(MsgPrintEnable("Rsp", 1), kNoError);
    EXPECT_EQ(echoed([] { Send("words a"); }), "CMD: words a\nRSP: 2 words\n");
    EXPECT_EQ(echoed([] { Send("fail"); }),
              "CMD: fail\nRSP: ERROR, " + std::string(ErrorString(kBadState)) + "\n");
    EXPECT_EQ(MsgPrintEnable("cmd", 0), kNoError);
    EXPECT_EQ(MsgPrintEnable("rsp", 0), kNoError);
    EXPECT_EQ(echoed([] { Send("words a"); }), "");
    EXPECT_EQ(echoed([] { MsgSendNotification("news"); }), "NOTIFY: news\n");
    EXPECT_EQ(MsgPrintEnable("notify", 0), kNoError);
    EXPECT_EQ(echoed([] { MsgSendNotification("news"); }), "");
}

TEST(Message, SecretsReachTheListenersButNeverTheConsole) {
    Start();
    const StdoutFile out;
    ASSERT_EQ(MsgAddNotification(Notify), kNoError);
    const char* secrets[] = {"push button 3",
                             "newpasswd x",
                             "a sw b",
                             "a roomsw b",
                             "set meetingpassword secret",
                             "set sippassword secret",
                             "set softwareupdatepassword secret",
                             "set mppassword secret",
                             "set globaldirectoryurlsp secret",
                             "set pwencryptiontyperemote secret",
                             "set pwencryptiontyperoom secret",
                             "set pwencryptiontypemeeting secret"};
    for (const char* secret : secrets) {
        EXPECT_EQ(MsgSendNotification(secret), kNoError);
    }
    EXPECT_EQ(out.Text(), "");
    for (const char* plain : {"swb sw", "sippassword at an edge", "mppasswords "}) {
        EXPECT_EQ(MsgSendNotification(plain), kNoError);
        EXPECT_TRUE(out.Has("NOTIFY: " + std::string(plain) + "\n"));
    }
    ASSERT_TRUE(Eventually([] { return Outcomes() == 15; }));
    EXPECT_EQ(gOutcomes[5].text, secrets[5]);
    EXPECT_EQ(gOutcomes[5].err, kNoError);
    EXPECT_EQ(gOutcomes[5].userDefined, nullptr);
    EXPECT_EQ(gOutcomes[5].task, "msgn");
}

TEST(Message, AListenerMayLeaveWhileItIsCalledAndTenIsTheMost) {
    Start();
    static std::atomic<int> calls;
    calls = 0;
    static NotifyFuncT leaver;
    leaver = [](eErrorT, const char*, void*) {
        calls++;
        EXPECT_EQ(MsgDeleteNotification(leaver), kNoError);
    };
    EXPECT_EQ(MsgDeleteNotification(leaver), kBadParameter);
    EXPECT_EQ(MsgAddNotification(leaver), kNoError);
    for (int i = 1; i < kMsgMaxNotify; i++) {
        EXPECT_EQ(MsgAddNotification(Notify), kNoError);
    }
    EXPECT_EQ(MsgAddNotification(Notify), kOutOfMemory);
    MsgPrintEnable("notify", 0);
    MsgSendNotification("one");
    MsgSendNotification("two");
    EXPECT_TRUE(Eventually([] { return Outcomes() == 18; }));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(MsgAddNotification(leaver), kNoError);
}

TEST(Message, AliasesExpandAndTheirLoopsEnd) {
    Start();
    EXPECT_EQ(Send("alias ll words \"a b\" c").err, kNoError);
    EXPECT_EQ(Send("ll ignored").err, kNoError);
    Serve();
    EXPECT_EQ(gWords, (std::vector<std::string>{"words", "a", "b", "c"}));
    EXPECT_EQ(Printed("alias"), "ll = words a b c \n");
    EXPECT_EQ(Send("alias one").err, kBadParameter);
    EXPECT_EQ(Send("alias LL help").err, kAlreadyExists);
    // Expansions may be as long as a line lets them, and each word brings a blank.
    EXPECT_EQ(Send("alias big " + std::string(502, 'x')).err, kNoError);
    char name[] = "alias";
    char word[] = "w";
    std::string text(512, 'x');
    char* too_long[] = {name, word, text.data(), nullptr};
    char response[kMsgMaxLen + 1] = "";
    EXPECT_EQ(defaultCmds[0].pFunc(3, too_long, response), kBadParameter);

    EXPECT_EQ(Send("alias loop loop").err, kNoError);
    EXPECT_EQ(Send("alias ping pong").err, kNoError);
    EXPECT_EQ(Send("alias pong ping").err, kNoError);
    const std::string refused = " not run: aliases and scripts nest at most 8 deep\n";
    EXPECT_EQ(Printed("loop"), "ERROR, alias \"loop\"" + refused);
    EXPECT_EQ(Printed("ping"), "ERROR, alias \"ping\"" + refused);
    EXPECT_EQ(Printed("loop"), "ERROR, alias \"loop\"" + refused);  // the count starts anew
    for (int i = 5; i < kMsgMaxAliases; i++) {
        EXPECT_EQ(Send("alias n" + std::to_string(i) + " x").err, kNoError);
    }
    const StdoutFile out;
    EXPECT_EQ(Send("alias more x").err, kBadParameter);
    EXPECT_TRUE(out.Has("ERROR, alias table full\n"));
}

TEST(Message, ScriptsRunTheirLinesInOrder) {
    Start();
    const InTempDir dir;
    EXPECT_EQ(MsgExecuteScript("none", Notify, nullptr), kItemNotFound);
    EXPECT_EQ(MsgExecuteScript(std::string(5000, 'x').c_str(), Notify, nullptr), kItemNotFound);
    const std::string fits = "words " + std::string(506, 'x');
    InTempDir::Write("lines", "words a\nnonsense\n" + fits + "\n" + fits + "x\nwords b");
    const StdoutFile out;
    EXPECT_EQ(MsgExecuteScript("lines", Notify, nullptr), kNoError);
    Serve();
    EXPECT_TRUE(Eventually([] { return Outcomes() == 4; }));
    EXPECT_EQ(gWords, (std::vector<std::string>{"words", "b"}));
    EXPECT_EQ(out.Text(), "Executing \"lines\" script\nwords a\nnonsense\n" + fits + "\n" + fits +
                              "x\nERROR, line over 512 characters left out\nwords b\n");
}

TEST(Message, ScriptsThatCallThemselvesAndHugeOnesComeToAnEnd) {
    Start();
    const InTempDir dir;
    static std::atomic<int> ran;
    ran = 0;
    CmdEntryT count = {{},
                       "count",
                       [](int, char**, char*) {
                           ran++;
                           return kNoError;
                       },
                       1,
                       nullptr,
                       0,
                       0};
    MsgAddCmd(&count);
    std::string huge;
    for (int i = 0; i < 2000; i++) {
        huge += "count\n";
    }
    InTempDir::Write("huge", huge);
    InTempDir::Write("self", "count\nscript self\nscript self\n");
    InTempDir::Write("a", "go\n");
    StdoutFile out;
    EXPECT_EQ(Send("script huge").err, kNoError);  // more lines than the pool has blocks
    EXPECT_EQ(ran, 2000);
    Send("script self");
    EXPECT_EQ(ran, 2000 + 255);  // 8 deep, each calling two
    EXPECT_TRUE(
        out.Has("ERROR, script \"self\" not run: aliases and scripts nest at most 8 deep\n"));
    Send("alias go script a");  // a loop through both
    Send("go");
    EXPECT_EQ(gFreeDeferredFuncsAvailable, kModNumDeferredFuncs);
    // Nobody serves: the script gives up before the pool is empty.
    CmdEntryT deaf = {{}, "deaf", WordsCmd, 1, nullptr, 0, 0};
    static std::atomic<bool> go;
    go = false;
    ModuleTask task("deaf");
    task.Run([&] { MsgAddCmd(&deaf); });
    task.Post([] {
        while (!go) {
            tm_wkafter(1);
        }
    });
    std::string lines;
    for (int i = 0; i < 500; i++) {
        lines += "deaf\n";
    }
    InTempDir::Write("deaf", lines);
    EXPECT_EQ(MsgExecuteScript("deaf", nullptr, nullptr), kOutOfResources);
    EXPECT_TRUE(out.Has("ERROR, script \"deaf\" stopped: its commands are not served\n"));
    go = true;
    task.Wait();
    EXPECT_EQ(MsgDeleteCmd(&deaf), kNoError);
    EXPECT_EQ(MsgDeleteCmd(&count), kNoError);
}

TEST(Message, SubCommandsAreChosenByTheSecondWord) {
    CmdEntryT table[] = {
        {{}, "show", WordsCmd, 1, "show", 0, 0},
        {{}, "set", WordsCmd, 2, "set <value>", 0, 0},
        {{}, nullptr, nullptr, 0, nullptr, 0, 0},
    };
    char response[kMsgMaxLen + 1] = "";
    const auto parse = [&](std::vector<std::string> words, std::string* printed) {
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        response[0] = '\0';
        const StdoutFile out;
        const eErrorT err =
            MsgSubCmdParse(table, static_cast<int>(words.size()), argv.data(), response);
        *printed = out.Text();
        return err;
    };
    const struct {
        std::vector<std::string> words;
        eErrorT err;
        const char* printed;
    } cases[] = {
        {{}, kBadParameter, "SUBCMD - Don't know what to do?\n"},
        {{"cmd"}, kBadParameter, "\"cmd\" - takes at least one argument\n"},
        {{"cmd", "S", "x"}, kNoError, ""},
        {{"cmd", "set"}, kBadParameter, "Usage: set <value>\n"},
        {{"cmd", "SET", "1"}, kNoError, ""},
        {{"cmd", "get"}, kItemNotFound, "valid subcommands: show set\n"},
    };
    for (const auto& c : cases) {
        std::string printed;
        EXPECT_EQ(parse(c.words, &printed), c.err);
        EXPECT_EQ(printed, c.printed);
    }
    EXPECT_EQ(gWords, (std::vector<std::string>{"SET", "1"}));
}

TEST(Message, SeveralTasksSendAtOnceAndEveryCommandIsAnswered) {
    Attach();
    ASSERT_EQ(MsgInit(), kNoError);
    ModuleTask server("serv");
    server.Run([] { MsgAddCmdTable(gCmds); });
    constexpr size_t kSenders = 4;
    constexpr size_t kLines = 200;
    std::vector<std::thread> senders;
    senders.reserve(kSenders);
    std::atomic<bool> stop{false};
    std::thread changer([&stop] {  // the table changes meanwhile
        CmdEntryT extra = {{}, "sx", WordsCmd, 1, nullptr, 0, 0};
        CmdEntryT first = {{}, " first", WordsCmd, 1, nullptr, 0, 0};
        while (!stop) {
            MsgAddCmd(&extra);
            MsgAddCmd(&first);
            MsgDeleteCmd(&first);
            MsgDeleteCmd(&extra);
        }
    });
    for (size_t i = 0; i < kSenders; i++) {
        senders.emplace_back([] {
            UInt32 ignored;
            t_attach("send", 0, &ignored);
            for (size_t n = 0; n < kLines; n++) {
                while (gFreeDeferredFuncsAvailable < 200) {
                    std::this_thread::yield();
                }
                EXPECT_EQ(MsgSendCmd("words x", Notify, nullptr), kNoError);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_TRUE(Eventually([] { return Outcomes() == kSenders * kLines; }));
    stop = true;
    changer.join();
    for (const OutcomeT& outcome : gOutcomes) {
        EXPECT_EQ(outcome.text, "2 words");
    }
    EXPECT_EQ(MsgDeleteCmdTable(gCmds), kNoError);
}
