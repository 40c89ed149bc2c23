// The shell's commands for what this folder tests, and through them what one task sees of
// variables.
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>

#include "Common/framework/config.h"
#include "Common/framework/message.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"
#include "tools/harborsh/config_commands.h"

namespace {

std::string gOutcome;
std::atomic<int> gAnswers{0};

struct ScenarioT {
    const char* lines;       // commands, and the test's own "put FILE LINE" and "get FILE"
    const char* answers;     // or the texts of the errors, behind each line
    const char* shown = "";  // on standard output
};

struct ConfigCommands : testing::Test {
    void SetUp() override {
        Attach();
        StartLog();
        ConfigLoadLogSettings();
        ASSERT_EQ(MsgInit(), kNoError);
        shell.Run([] { EXPECT_EQ(ConfigCommandsAdd(), kNoError); });
    }

    std::string Answer(const std::string& line) const {
        const size_t space = line.find(' ', 4);
        if (line.starts_with("put ")) {
            tree.Put(line.substr(4, space - 4), line.substr(space + 1) + "\n");
            return "";
        }
        if (line.starts_with("get ")) {
            return tree.Get(line.substr(4));
        }
        const int before = gAnswers;
        MsgSendCmd(
            line.c_str(),
            [](eErrorT err, const char* answer, void*) {
                gOutcome = err == kNoError ? answer : ErrorString(err);
                gAnswers++;
            },
            nullptr);
        EXPECT_TRUE(Eventually([before] { return gAnswers > before; })) << line;
        return gOutcome;
    }

    void Run(std::initializer_list<ScenarioT> scenarios) const {
        for (const ScenarioT& each : scenarios) {
            std::istringstream lines(each.lines);
            std::string answers;
            for (std::string line; std::getline(lines >> std::ws, line, ';');) {
                answers += Answer(line) + ";";
            }
            EXPECT_EQ(answers, each.answers) << each.lines;
            EXPECT_TRUE(out.WaitFor(each.shown)) << each.lines;
        }
    }

    const StoreTree tree;
    const StdoutFile out;
    ModuleTask shell{"shel"};
};

}  // namespace

TEST_F(ConfigCommands, VariablesAreWhatWasTypedOrElseWhatTheFilesHold) {
    Run({
        {"config beta 0 2; config alpha 1 1; config alpha 0 \"\"; config absent; configdump",
         ";;;item not found;;",
         "\nConfig item                         value\n"
         "----------------------------------- "
         "----------------------------------------------------------\n"
         "alpha[1]                            1\n"
         "alpha[0]                            \n"
         "absent[0]                           *(config item not set)*\n"
         "beta[0]                             2\n"
         "spewfilter[0]                       *(config item not set)*\n"
         "<end>\n"},
        // Spellings, files and defaults.
        {"put choicename1.choice default; configwatch name 1; config name 1",
         ";;config name 1 default;"},
        {"config NAME 1 \"two words\" r; config Name 1; get dat/name1.dat",
         ";config Name 1 two words;two words\n;", "name[1] is now \"two words\" (r)\n"},
        {"configrestore Name 1; get dat/name1.dat; configrestore never",
         ";default\n;item not found;", "name[1] is now \"default\" (rw)\n"},
        {"configunwatch name 1; configunwatch name 1", ";item not found;"},
        {"configdelete NAME 1; configdelete never; get dat/name1.dat", ";;(none);",
         "INFO  pc[0]: config: delete name[1]\n"},
        {"put choice.gen/name1.choice generated; config name 1", ";config name 1 generated;"},
        {"put dat/beta.dat edited; config beta -1; config beta",
         ";config beta -1 edited;config beta 0 2;"},
        // The cache: absence and values are kept, empty values are not.
        {"config v; put dat/v.dat stored; config v", "item not found;;item not found;"},
        {"put dat/w.dat stored; config w; put dat/w.dat edited; config w",
         ";config w 0 stored;;config w 0 stored;"},
        {"config cached 0 x rw cache; config cached; get dat/cached.dat; configdelete cached; "
         "config cached",
         ";config cached 0 x;(none);;item not found;"},
        // Names: 32 characters count; none may leave the folders.
        {"config N2345678901234567890123456789012tail 3 long; "
         "config n2345678901234567890123456789012other 3; config 2345678901234567890123456789012 "
         "3; "
         "get dat/n23456789012345678901234567890123.dat",
         ";config n2345678901234567890123456789012other 3 long;item not found;long\n;"},
        {"put secret.dat secret; config ../secret; get secret.dat", ";bad parameter;secret\n;",
         "config: name \"../secret\" refused: empty, or it holds '/' or '.'\n"},
        {"config a.b 0 v; config x/ 0 v rw cache; config ./n2345678901234567890123456789012/ 0 v; "
         "config n2345678901234567890123456789012/../x 0 v",
         "bad parameter;bad parameter;bad parameter;bad parameter;"},
    });
}

TEST_F(ConfigCommands, PoolsObey) {
    Run({
        {"caps", "this product has no capabilities;"},
        {"pool create test 3 2 1000; pool create TEST 3 2 1000; pool take test 3",
         ";already exists;out of resources;"},
        {"pool open test 3; pool take test 3; pool take test 3; pool take test 3",
         ";1 out;2 out;out of resources;"},
        {"pool return test 3; pool close test 3; pool check; pool dump", "1 out;;;;",
         "test[03]                closed    2     1024     0"},
        {"pool delete test 3; pool open test 3", ";item not found;"},
        {"pool burn", "item not found;", "valid subcommands: create open"},
    });
}
