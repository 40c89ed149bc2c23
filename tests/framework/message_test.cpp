// Commands, responses, notifications, aliases, scripts.
#include "Common/framework/message.h"

#include <filesystem>
#include <fstream>
#include <random>
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

// The table is shown sorted, four names to a line, and a word stands for the first name that it
// begins, in any case.
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
    const std::string too_long(600, 'l');
    CmdEntryT long_name = {{}, too_long.c_str(), CountCmd, 1, nullptr, 0, 0};
    EXPECT_EQ(MsgAddCmd(&long_name), kNoError);
    model[too_long] = &long_name;
    std::deque<CmdEntryT> entries;
    std::minstd_rand random(1);
    for (int step = 0; step < 2000; step++) {
        const char* name = kNames[random() % 10];
        const auto at = model.find(name);
        if (random() % 2 == 0) {
            entries.push_back({{}, name, CountCmd, 1, nullptr, kMsgCmdSync, 0});
            ASSERT_EQ(MsgAddCmd(&entries.back()), at == model.end() ? kNoError : kAlreadyExists);
            model.emplace(name, &entries.back());
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
        if (step % 100 == 0) {
            std::string list = "Main commands:\n";
            size_t column = 0;
            for (const auto& [known, unused] : model) {
                list += (known + std::string(16, ' ')).substr(0, 16);
                list += ++column % 4 == 0 || column == model.size() ? "\n" : "";
            }
            ASSERT_EQ(Send("?"), list + "msgn: no error, ");
        }
    }
}

TEST_F(Message, ALineWithoutWordsListsTheCommandsAndHelpTellsTheirSyntax) {
    for (const char* line : {"", "   ", "# comment"}) {
        EXPECT_THAT(Send(line), testing::StartsWith("Main commands:\n?    ")) << line;
    }
    ExpectStories({{"help al", "alias <name> <cmd>\nmsgn: no error, "},
                   {"help count", "\nmsgn: no error, "},
                   {"help zz", "msgn: item not found, "}});
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

// What was sent to a task that deletes itself in a command is run and answered.
TEST_F(Message, CommandsBehindOneThatEndsItsTaskAreAnswered) {
    static CmdEntryT cmds[] = {
        {{}, "end", [](int, char**, char*) { return t_delete(0), kNoError; }, 1, nullptr, 0, 0},
        {{}, "later", WordsCmd, 1, nullptr, 0, 0},
        {{}, nullptr, nullptr, 0, nullptr, 0, 0},
    };
    ModuleTask task("ends");
    task.Run([] { MsgAddCmdTable(cmds); });
    task.Block();
    for (const char* line : {"end", "later 1", "later 2"}) {
        MsgSendCmd(line, Notify, &gOutcomes);
    }
    task.Release();
    EXPECT_TRUE(WaitForOutcomes(2));
    EXPECT_THAT(gOutcomes, ElementsAre("msgn: no error, 1|", "msgn: no error, 2|"));
    EXPECT_TRUE(Eventually(PoolsAreFull));
}

TEST_F(Message, SubCommandsAreFoundByTheirBeginnings) {
    static CmdEntryT rows[] = {{{}, "set", WordsCmd, 2, "set <value>", 0, 0},
                               {{}, "settle", WordsCmd, 1, nullptr, 0, 0},
                               {{}, "none", nullptr, 1, nullptr, 0, 0},
                               {{}, nullptr, nullptr, 0, nullptr, 0, 0}};
    static CmdEntryT cmd = {{},
                            "main",
                            [](int argc, char** argv, char* pResponse) {
                                return MsgSubCmdParse(rows, argc, argv, pResponse);
                            },
                            1,
                            nullptr,
                            kMsgCmdSync,
                            0};
    MsgAddCmd(&cmd);
    ExpectStories({{"main SE x y", "main: no error, x|y|"},
                   {"main sett 1", "main: no error, 1|"},
                   {"main se", "Usage: set <value>\nmain: bad parameter, "},
                   {"main none", "main: bad parameter, "},
                   {"main", "\"main\" - takes at least one argument\nmain: bad parameter, "},
                   {"main x", "valid subcommands: set settle none\nmain: item not found, "}});
    EXPECT_EQ(Printed([] { EXPECT_EQ(MsgSubCmdParse(rows, 0, nullptr, nullptr), kBadParameter); }),
              "SUBCMD - Don't know what to do?\n");
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
    script("self", "count\nscript self\nscript self\nscript self\n", 1);
    script("free", "sync a\nnonsense\ncount\n", 1);
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
    const UInt32 deaf = Spawn("deaf", [] { tm_wkafter(1000000); });
    const auto fill = [deaf](int left) {
        while (gFreeDeferredFuncsAvailable > left) {
            ModDeferFunctionCall(
                deaf, [](void*, void*) {}, nullptr, nullptr, 0);
        }
    };
    fill(100);
    EXPECT_THAT(Send("script free"), testing::EndsWith("count\nmsgn: no error, "));
    fill(50);
    EXPECT_THAT(Send("script free"),
                testing::EndsWith("count\nERROR, script \"free\" stopped: its commands are not "
                                  "served\nmsgn: out of resources, "));
    EXPECT_EQ(gRan, 1);
    t_delete(deaf);
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
