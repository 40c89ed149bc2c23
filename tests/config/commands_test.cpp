// The shell's commands for what this folder tests.
#include <gtest/gtest.h>

#include <atomic>
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

    // Lines, and what they answer, or the texts of their errors.
    void Run(std::initializer_list<std::pair<const char*, const char*>> lines) const {
        for (const auto& [line, answer] : lines) {
            EXPECT_EQ(Answer(line), answer) << line;
        }
    }

    const StoreTree tree;
    const StdoutFile out;
    ModuleTask shell{"shel"};
};

}  // namespace

TEST_F(ConfigCommands, VariablesObey) {
    Run({{"config beta 0 2", ""},
         {"config alpha 1 1", ""},
         {"config alpha 0 \"\"", ""},
         {"config absent", "item not found"},
         {"configdump", ""},
         {"configwatch name 1", ""},
         {"config name 1", "config name 1 default"},
         {"config NAME 1 \"two words\" r", ""},
         {"config Name 1", "config Name 1 two words"},
         {"configrestore Name 1", ""},
         {"configrestore never", "item not found"},
         {"config cached 0 x rw cache", ""},
         {"configunwatch name 1", ""},
         {"configunwatch name 1", "item not found"},
         {"configdelete NAME 1", ""},
         {"config ../secret", "bad parameter"},
         {"config n2345678901234567890123456789012/../x 0 v", "bad parameter"}});
    EXPECT_EQ(tree.Get("dat/cached.dat") + tree.Get("dat/beta.dat"), "(none)2\n");
    for (const char* shown :
         {"alpha[1]                            1\n"
          "alpha[0]                            \n"
          "absent[0]                           *(config item not set)*\n",
          "name[1] is now \"two words\" (r)\n", "name[1] is now \"default\" (rw)\n",
          "INFO  pc[0]: config: delete name[1]\n",
          "config: name \"../secret\" refused: empty, or it holds '/' or '.'\n"}) {
        EXPECT_TRUE(out.WaitFor(shown)) << shown;
    }
}

TEST_F(ConfigCommands, PoolsObey) {
    Run({{"caps", "this product has no capabilities"},
         {"pool create test 3 2 1000", ""},
         {"pool create TEST 3 2 1000", "already exists"},
         {"pool take test 3", "out of resources"},
         {"pool open test 3", ""},
         {"pool take test 3", "1 out"},
         {"pool take test 3", "2 out"},
         {"pool take test 3", "out of resources"},
         {"pool return test 3", "1 out"},
         {"pool close test 3", ""},
         {"pool check", ""},
         {"pool dump", ""},
         {"pool delete test 3", ""},
         {"pool open test 3", "item not found"},
         {"pool burn", "item not found"}});
    EXPECT_TRUE(out.Has("test[03]                closed    2     1024     0"));
    EXPECT_TRUE(out.Has("valid subcommands: create open"));
}
