// Commands, responses, notifications, aliases, scripts.
#include "Common/framework/message.h"

#include <fstream>
#include <random>

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
CmdEntryT gOther = {{}, "he", WordsCmd, 1, nullptr, 0, 0};

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

// Scripts wait tick by tick for the pool; here a tick takes no time.
extern "C" UInt32 __real__Z10tm_wkafterj(UInt32 ticks);
extern "C" UInt32 __wrap__Z10tm_wkafterj(UInt32 ticks) {
    return __real__Z10tm_wkafterj(ticks > 1 ? ticks : 0);
}

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

// A word stands for the first name that it begins, in any case.
TEST_F(Message, AnyOrderOfAddingAndRemovingKeepsTheTableSorted) {
    static constexpr const char* kNames[] = {"a",    "he",   "HELP", "hel", "helper",
                                             "scri", "two4", "Zz",   "z",   "an"};
    struct LessT {
        bool operator()(const std::string& a, const std::string& b) const {
            return strcasecmp(a.c_str(), b.c_str()) < 0;
        }
    };
    std::map<std::string, CmdEntryT*, LessT> model;
    for (const char* name :
         {"alias", "help", "?", "shellHelp", "words", "Two", "count", "sync", "script"}) {
        model[name] = nullptr;
    }
    std::deque<CmdEntryT> entries;
    const auto add = [&](const char* name) {
        entries.push_back({{}, name, CountCmd, 1, nullptr, kMsgCmdSync, 0});
        ASSERT_EQ(MsgAddCmd(&entries.back()), model.contains(name) ? kAlreadyExists : kNoError);
        model.emplace(name, &entries.back());
    };
    const std::string too_long(600, 'l');
    add(too_long.c_str());
    std::minstd_rand random(1);
    for (int step = 0; step < 2000 && !HasFailure(); step++) {
        const char* name = kNames[random() % 10];
        const auto at = model.find(name);
        if (random() % 2 == 0) {
            add(name);
        } else if (at != model.end() && at->second != nullptr) {
            ASSERT_EQ(MsgDeleteCmd(at->second), kNoError);
            ASSERT_EQ(MsgDeleteCmd(at->second), kItemNotFound);
            model.erase(at);
        }
        std::string word = kNames[random() % 10];
        word.resize(random() % (word.size() + 1));
        const auto found = std::ranges::find_if(model, [&word](const auto& known) {
            return strncasecmp(known.first.c_str(), word.c_str(), word.size()) == 0;
        });
        const CmdEntryT* entry = MsgLookup(reinterpret_cast<CmdEntryT*>(gCmdTable), word.c_str());
        ASSERT_EQ(entry != nullptr ? entry->name : "", found != model.end() ? found->first : "");
    }
    for (const char* line : {"", "   ", "# comment"}) {
        EXPECT_THAT(Send(line), testing::StartsWith("Main commands:\n?    ")) << line;
    }
    ExpectStories({{"help al", "alias <name> <cmd>\nmsgn: no error, "},
                   {"help count", "\nmsgn: no error, "},
                   {"help zzz", "msgn: item not found, "}});
}

// A command belongs to the task that added it, not to a later one with the same id; and a second
// start of the messages leaves the first one's task in its place.
TEST_F(Message, CommandsOfATaskThatIsGoneRunNowhere) {
    static CmdEntryT entry = {{}, "theirs", CountCmd, 1, nullptr, 0, 0};
    auto task = std::make_unique<ModuleTask>("own1");
    task->Run([] { EXPECT_EQ(MsgAddCmd(&entry), kNoError); });
    const UInt32 id = task->Id();
    Send("theirs");
    task = nullptr;
    task = std::make_unique<ModuleTask>("own2");
    EXPECT_EQ(task->Id(), id);
    EXPECT_EQ(Send("theirs"), "main: bad parameter, ");
    task->Run([] {
        EXPECT_EQ(MsgAddCmd(&entry), kNoError);  // what is left of the other gives way
        EXPECT_EQ(MsgAddCmd(&entry), kAlreadyExists);
    });
    Send("theirs");
    EXPECT_EQ(gRan, 2);
    UInt32 next = 0;
    const UInt32 msgn = notifyTaskID;
    EXPECT_EQ(MsgInit(), kCantStartTask);
    EXPECT_EQ(notifyTaskID, msgn);
    t_delete(msgn);
    t_create("next", 1, 0, 0, 0, &next);
    EXPECT_EQ(next, msgn);
    EXPECT_EQ(MsgSendNotification("news"), kNotInitialized);
    EXPECT_EQ(MsgInit(), kNoError);
    EXPECT_EQ(Send("words b"), "msgn: no error, b|");
}

TEST_F(Message, SubCommandsAreFoundByTheirBeginnings) {
    static CmdEntryT rows[] = {{{}, "set", WordsCmd, 2, "set <value>", 0, 0},
                               {{}, "settle", WordsCmd, 1, nullptr, 0, 0},
                               {{}, "none", nullptr, 1, nullptr, 0, 0},
                               {{}, nullptr, nullptr, 0, nullptr, 0, 0}};
    const auto parse = [](int argc, char** argv, char* pResponse) {
        return MsgSubCmdParse(rows, argc, argv, pResponse);
    };
    static CmdEntryT cmd = {{}, "main", parse, 1, nullptr, kMsgCmdSync, 0};
    MsgAddCmd(&cmd);
    ExpectStories({{"main SE x y", "main: no error, x|y|"},
                   {"main sett 1", "main: no error, 1|"},
                   {"main se", "Usage: set <value>\nmain: bad parameter, "},
                   {"main none", "main: bad parameter, "},
                   {"main", "\"main\" - takes at least one argument\nmain: bad parameter, "},
                   {"main x", "valid subcommands: set settle none\nmain: item not found, "}});
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
    const std::string fits(512, 'n');
    const TextsT secrets = {"push button 3",
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
    for (const std::string& secret : secrets) {
        EXPECT_EQ(Printed([&] { MsgSendNotification(secret.c_str()); }), "");
    }
    for (const std::string& plain :
         TextsT{"swb sw", "sippassword at an edge", "mppasswords ", fits}) {
        EXPECT_EQ(Printed([&] { MsgSendNotification(plain.c_str()); }), "NOTIFY: " + plain + "\n");
    }
    EXPECT_EQ(MsgSendNotification((fits + "n").c_str()), kBadParameter);
    MsgPrintEnable("notify", 0);
    EXPECT_EQ(Printed([] { MsgSendNotification("news"); }), "");
    ASSERT_TRUE(WaitForOutcomes(17)) << "switching the echo off silenced the listeners too";
    EXPECT_EQ(gOutcomes[5], "msgn: heard, set sippassword secret");
    for (int i = 1; i <= kMsgMaxNotify; i++) {
        EXPECT_EQ(MsgAddNotification(Notify), i < kMsgMaxNotify ? kNoError : kOutOfMemory);
    }
    for (int i = 0; i <= kMsgMaxNotify; i++) {
        EXPECT_EQ(MsgDeleteNotification(Notify), i < kMsgMaxNotify ? kNoError : kBadParameter);
    }
    EXPECT_EQ(gOutcomes[15], "msgn: heard, " + fits);
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
    const std::string fits = "words " + std::string(506, 'x');
    std::string huge;  // more lines than the pool has blocks
    for (int i = 0; i < 1000; i++) {
        huge += "count\n";
    }
    std::ofstream("lines.scr") << "words a\nnonsense\n" + fits + "\n" + fits + "x\nwords b";
    std::ofstream("huge.scr") << huge;
    std::ofstream("self.scr") << "count\nscript self\nscript self\nscript self\n";
    std::ofstream("free.scr") << "sync a\nnonsense\ncount\n";
    ExpectStories(
        {{"script none", "msgn: item not found, "},
         {"script lines", "Executing \"lines\" script\nwords a\nnonsense\n" + fits + "\n" + fits +
                              "x\nERROR, line over 512 characters left "
                              "out\nwords b\nmsgn: no error, "}});
    Send("script huge");
    EXPECT_EQ(gRan.exchange(0), 1000);
    Send("script self");
    EXPECT_EQ(gRan.exchange(0), 3280);  // 8 deep, each calling three
    ExpectLines({"ERROR, script \"self\" not run: aliases and scripts nest at most 8 deep\n"});
    EXPECT_FALSE(out_.Has("stopped"));
    // Others hold most of the pool for good: a script runs where its lines need no block.
    UInt32 deaf = 0;
    t_create("deaf", 0, 0, 0, 0, &deaf);
    const std::pair<int, const char*> cases[] = {
        {100, "count\nmsgn: no error, "},
        {50,
         "count\nERROR, script \"free\" stopped: its commands are not served\n"
         "msgn: out of resources, "}};
    for (const auto& [left, end] : cases) {
        while (gFreeDeferredFuncsAvailable > left) {
            ModDeferFunctionCall(
                deaf, [](void*, void*) {}, nullptr, nullptr, 0);
        }
        EXPECT_THAT(Send("script free"), testing::EndsWith(end));
    }
    EXPECT_EQ(gRan, 1);
    std::ofstream("empty.scr");
    EXPECT_EQ(FilesLeftOpen([] { MsgExecuteScript("empty", nullptr, nullptr); }), 0);
    std::filesystem::remove_all(dir);
}

TEST_F(Message, TheTableMayChangeWhileCommandsAreSent) {
    std::atomic<bool> stop{false};
    std::thread changer([&stop] {
        while (!stop) {
            MsgAddCmd(&gOther);
            MsgDeleteCmd(&gOther);
        }
    });
    for (int i = 0; i < 5000; i++) {
        ASSERT_EQ(Send("sync x"), "main: no error, x|");
    }
    stop = true;
    changer.join();
}
