// The shell's commands for what this folder tests.
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
    const char* lines;
    const char* answers;     // or the texts of the errors, behind each line
    const char* shown = "";  // on standard output
};

struct ConfigCommands : testing::Test {
    void SetUp() override {
        Attach();
        StartLog();
        ConfigLoadLogSettings();
        ASSERT_EQ(MsgInit(), kNoError);
        tree.Put("choicename1.choice", "default\n");
        shell.Run([] { EXPECT_EQ(ConfigCommandsAdd(), kNoError); });
    }

    std::string Answer(const std::string& line) const {
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

TEST_F(ConfigCommands, VariablesObey) {
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
        {"configwatch name 1; config name 1", ";config name 1 default;"},
        {"config NAME 1 \"two words\" r; config Name 1", ";config Name 1 two words;",
         "name[1] is now \"two words\" (r)\n"},
        {"configrestore Name 1; configrestore never; config cached 0 x rw cache",
         ";item not found;;", "name[1] is now \"default\" (rw)\n"},
        {"configunwatch name 1; configunwatch name 1", ";item not found;"},
        {"configdelete NAME 1; configdelete never", ";;", "INFO  pc[0]: config: delete name[1]\n"},
        {"config ../secret; config a.b 0 v; config x/ 0 v rw cache; config "
         "n2345678901234567890123456789012/../x 0 v",
         "bad parameter;bad parameter;bad parameter;bad parameter;",
         "config: name \"../secret\" refused: empty, or it holds '/' or '.'\n"},
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
