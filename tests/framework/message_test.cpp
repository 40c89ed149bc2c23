// Commands, responses, notifications, aliases, scripts.
#include "Common/framework/message.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/framework/commands.h"

namespace {

std::atomic<int> gRan;

eErrorT CountCmd(int, char**, char*) {
    gRan++;
    return kNoError;
}

eErrorT ScriptCmd(int, char** argv, char*) {
    return MsgExecuteScript(argv[1], nullptr, nullptr);
}

CmdEntryT gCmds[] = {
    {{}, "words", WordsCmd, 1, "words ...", 0, 0},
    {{}, "Two", WordsCmd, 3, "two <arg> <arg>", 0, 0},
    {{}, "count", CountCmd, 1, nullptr, 0, 0},
    {{}, "sync", WordsCmd, 1, "sync", kMsgCmdSync, 0},
    {{}, "script", ScriptCmd, 2, "script <name>", 0, 0},
    {{}, nullptr, nullptr, 0, nullptr, 0, 0},
};
CmdEntryT gHe = {{}, "he", WordsCmd, 1, nullptr, 0, 0};
CmdEntryT gLong = {{}, "a name over sixteen", WordsCmd, 1, nullptr, 0, 0};

// The main task owns all commands and serves them when a test says so.
class Message : public TaskTest {
  protected:
    Message() {
        EXPECT_EQ(MsgInit(), kNoError);
        EXPECT_EQ(MsgAddCmdTable(gCmds), kNoError);
    }

    // Sends a line and serves it and what it brings: what is printed, and its outcome.
    std::string Send(const std::string& line) {
        gOutcomes.clear();
        const std::string printed = Printed([&line] {
            MsgSendCmd(line.c_str(), Notify, &gOutcomes);
            while (ModProcessDeferredFunctions() != 0) {
            }
        });
        EXPECT_TRUE(WaitForOutcomes(1)) << line;
        return printed + gOutcomes.back();
    }

    void ExpectStories(std::initializer_list<std::pair<std::string, std::string>> stories) {
        for (const auto& [line, story] : stories) {
            EXPECT_EQ(Send(line), story) << line;
        }
    }
};

}  // namespace

TEST_F(Message, LinesAreSplitIntoWords) {
    std::string many = "words";
    std::string most;
    for (int i = 2; i <= 81; i++) {
        many += " " + std::to_string(i);
        most += i <= 80 ? std::to_string(i) + "|" : "";
    }
    const std::string fits(506, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"  \tWOR a\t b  ", "a|b|"},
        {R"(words "say \"hi\" \ there" end)", R"(say "hi" \ there|end|)"},
        {R"("words" "" x)", "|x|"},
        {R"(words "open end)", "open end|"},
        {R"(words "a"b c"d \)", R"(a|b|c"d|\|)"},
        {"words # no comment\n cut", "#|no|comment|"},
        {"words \x01\x7f\xff\rcut", "\x01\x7f\xff|"},
        {many, most},
        {"words " + fits, fits + "|"},
    };
    for (const auto& [line, words] : cases) {
        EXPECT_EQ(Send(line), "msgn: no error, " + words);
    }
    EXPECT_EQ(MsgSendCmd(("words x" + fits).c_str(), Notify, nullptr), kBadParameter);
}

TEST_F(Message, AbbreviationsFindTheFirstNameThatTheyBegin) {
    const std::string list =
        "Main commands:\n"
        "?               a name over sixtalias           count           \n"
        "help            script          shellHelp       sync            \n"
        "Two             words           \nmsgn: no error, ";
    MsgAddCmd(&gLong);
    for (const char* line : {"he", "H", "", "   ", "# comment"}) {
        EXPECT_EQ(Send(line), list) << line;
    }
    EXPECT_EQ(Send("help al"), "alias <name> <cmd>\nmsgn: no error, ");
    EXPECT_EQ(Send("help zz"), "msgn: item not found, ");
    CmdEntryT help = {{}, "HELP", WordsCmd, 1, nullptr, 0, 0};
    EXPECT_EQ(MsgAddCmd(&help), kAlreadyExists);
    MsgAddCmd(&gHe);
    EXPECT_EQ(Send("h x"), "msgn: no error, x|");
    EXPECT_EQ(MsgDeleteCmd(&gHe), kNoError);
    EXPECT_EQ(MsgDeleteCmd(&gHe), kItemNotFound);
    EXPECT_EQ(Send("h"), list);
}

TEST_F(Message, OutcomesArriveInTheNotificationTaskOrAtOnceAndAreEchoed) {
    ExpectStories({{"nonsense", "main: item not found, "},
                   {"two a", "Usage: two <arg> <arg>\nmain: bad parameter, "},
                   {"sync a", "main: no error, a|"}});
    MsgPrintEnable("CMD", 1);
    MsgPrintEnable("Rsp", 1);
    ExpectStories({{"two a b", "CMD: two a b\nRSP: a|b|\nmsgn: no error, a|b|"},
                   {"words", "CMD: words\nRSP: ERROR, bad state\nmsgn: bad state, " +
                                 std::string(512, 'r')}});
}

TEST_F(Message, SecretsReachTheListenersButNeverTheConsole) {
    MsgAddNotification(Notify);
    std::istringstream secrets(
        "push button 3|newpasswd x|a sw b|a roomsw b|set meetingpassword secret|"
        "set sippassword secret|set softwareupdatepassword secret|set mppassword secret|"
        "set globaldirectoryurlsp secret|set pwencryptiontyperemote secret|"
        "set pwencryptiontyperoom secret|set pwencryptiontypemeeting secret");
    for (std::string secret; std::getline(secrets, secret, '|');) {
        EXPECT_EQ(Printed([&] { MsgSendNotification(secret.c_str()); }), "");
    }
    const std::string fits(512, 'n');
    for (const std::string& plain :
         TextsT{"swb sw", "sippassword at an edge", "mppasswords ", fits}) {
        EXPECT_EQ(Printed([&] { MsgSendNotification(plain.c_str()); }), "NOTIFY: " + plain + "\n");
    }
    EXPECT_EQ(MsgSendNotification((fits + "n").c_str()), kBadParameter);
    ASSERT_TRUE(WaitForOutcomes(16));
    EXPECT_EQ(gOutcomes[5], "msgn: heard, set sippassword secret");
    EXPECT_EQ(gOutcomes[15], "msgn: heard, " + fits);
    MsgPrintEnable("notify", 0);
    EXPECT_EQ(Printed([] { MsgSendNotification("news"); }), "");
    EXPECT_TRUE(WaitForOutcomes(17)) << "switching the echo off silenced the listeners too";
}

TEST_F(Message, AListenerMayLeaveWhileItIsCalledAndTenIsTheMost) {
    static NotifyFuncT leaver;
    leaver = [](eErrorT, const char*, void*) {
        gRan++;
        EXPECT_EQ(MsgDeleteNotification(leaver), kNoError);
    };
    EXPECT_EQ(MsgDeleteNotification(leaver), kBadParameter);
    MsgAddNotification(leaver);
    for (int i = 1; i < kMsgMaxNotify; i++) {
        EXPECT_EQ(MsgAddNotification(Notify), kNoError);
    }
    EXPECT_EQ(MsgAddNotification(Notify), kOutOfMemory);
    MsgSendNotification("one");
    MsgSendNotification("two");
    EXPECT_TRUE(WaitForOutcomes(18));
    EXPECT_EQ(gRan, 1);
}

TEST_F(Message, AliasesExpandAndTheirLoopsEnd) {
    const std::string done = "msgn: no error, ";
    const std::string nested =
        " not run: aliases and scripts nest at most 8 deep\nmain: no error, ";
    ExpectStories({{"alias ll count \"a b\" c", done},
                   {"ll ignored", "main: no error, "},
                   {"alias", "ll = count a b c \n" + done},
                   {"alias one", "msgn: bad parameter, "},
                   {"alias LL help", "msgn: already exists, "},
                   {"alias big " + std::string(502, 'x'), done},
                   {"alias loop loop", done},
                   {"alias ping pong", done},
                   {"alias pong ping", done},
                   {"loop", "ERROR, alias \"loop\"" + nested},
                   {"ping", "ERROR, alias \"ping\"" + nested},
                   {"loop", "ERROR, alias \"loop\"" + nested}});  // the count starts anew
    EXPECT_EQ(gRan, 1);
    for (int i = 5; i < kMsgMaxAliases; i++) {
        EXPECT_EQ(Send("alias n" + std::to_string(i) + " x"), done);
    }
    EXPECT_EQ(Send("alias more x"), "ERROR, alias table full\nmsgn: bad parameter, ");
}

TEST_F(Message, ScriptsRunTheirLinesInOrderAndComeToAnEnd) {
    char dir[] = "/tmp/harbor_scripts_XXXXXX";
    EXPECT_EQ(chdir(mkdtemp(dir)), 0);
    const auto script = [](const std::string& name, const std::string& text, int times) {
        std::ofstream file(name + ".scr");
        for (int i = 0; i < times; i++) {
            file << text;
        }
    };
    const std::string fits = "words " + std::string(506, 'x');
    script("lines", "words a\nnonsense\n" + fits + "\n" + fits + "x\nwords b", 1);
    script("huge", "count\n", 1000);  // more lines than the pool has blocks
    script("self", "count\nscript self\nscript self\n", 1);
    ExpectStories(
        {{"script none", "msgn: item not found, "},
         {"script lines", "Executing \"lines\" script\nwords a\nnonsense\n" + fits + "\n" + fits +
                              "x\nERROR, line over 512 characters left "
                              "out\nwords b\nmsgn: no error, "}});
    Send("script huge");
    EXPECT_EQ(gRan.exchange(0), 1000);
    Send("script self");
    EXPECT_EQ(gRan.exchange(0), 255);  // 8 deep, each calling two
    ExpectLines({"ERROR, script \"self\" not run: aliases and scripts nest at most 8 deep\n"});
    std::filesystem::remove_all(dir);
}

TEST_F(Message, SeveralTasksSendAtOnceAndEveryCommandIsAnswered) {
    MsgDeleteCmdTable(gCmds);
    ModuleTask server("serv");
    server.Run([] { MsgAddCmdTable(gCmds); });
    std::atomic<bool> stop{false};
    std::thread changer([&stop] {  // the table changes meanwhile
        while (!stop) {
            MsgAddCmd(&gHe);
            MsgAddCmd(&gLong);
            MsgDeleteCmd(&gLong);
            MsgDeleteCmd(&gHe);
        }
    });
    const auto send = [] {
        Attach();
        for (size_t n = 0; n < 2000; n++) {
            while (gFreeDeferredFuncsAvailable < 200) {
                std::this_thread::yield();
            }
            EXPECT_EQ(MsgSendCmd("words x", Notify, &gOutcomes), kNoError);
        }
    };
    std::thread other(send);
    send();
    other.join();
    EXPECT_TRUE(WaitForOutcomes(4000));
    stop = true;
    changer.join();
    EXPECT_THAT(gOutcomes, testing::Each("msgn: no error, x|"));
}
