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

// The answer to a line, or the text of its error.
std::string Send(const std::string& line) {
    const int before = gAnswers;
    MsgSendCmd(
        line.c_str(),
        [](eErrorT err, const char* text, void*) {
            gOutcome = err == kNoError ? text : ErrorString(err);
            gAnswers++;
        },
        nullptr);
    EXPECT_TRUE(Eventually([before] { return gAnswers > before; })) << line;
    return gOutcome;
}

}  // namespace

TEST(ConfigCommands, EachCommandDoesWhatItsUsageSays) {
    const StoreTree tree;
    Attach();
    const StdoutFile out;
    ConfigLoadLogSettings();
    ASSERT_EQ(MsgInit(), kNoError);
    ModuleTask shell("shel");
    shell.Run([] { EXPECT_EQ(ConfigCommandsAdd(), kNoError); });
    tree.Put("choicename1.choice", "default\n");
    const struct {
        const char* line;
        const char* answer;
        const char* shown;  // on standard output, "" for nothing in particular
    } cases[] = {
        {"configwatch name 1", "", ""},
        {"config name 1", "config name 1 default", ""},
        {"config name 1 \"two words\" r", "", "name[1] is now \"two words\" (r)\n"},
        {"config NAME 1", "config NAME 1 two words", ""},
        {"configdump name 1", "", "name[1]                             two words\n"},
        {"configrestore name 1", "", "name[1] is now \"default\" (rw)\n"},
        {"configunwatch name 1", "", ""},
        {"configunwatch name 1", "item not found", ""},
        {"config cached 0 x rw cache", "", ""},
        {"config cached", "config cached 0 x", ""},
        {"configdelete cached", "", ""},
        {"config cached", "item not found", ""},
        {"config ../name", "bad parameter", ""},
        {"configdump", "", "<end>\n"},
        {"caps", "this product has no capabilities", ""},
        {"pool create test 3 2 1000", "", ""},
        {"pool create TEST 3 2 1000", "already exists", ""},
        {"pool take test 3", "out of resources", ""},
        {"pool open test 3", "", ""},
        {"pool take test 3", "1 out", ""},
        {"pool take test 3", "2 out", ""},
        {"pool take test 3", "out of resources", ""},
        {"pool return test 3", "1 out", ""},
        {"pool close test 3", "", ""},
        {"pool dump", "", "test[03]                closed    2     1024     0"},
        {"pool check", "", ""},
        {"pool delete test 3", "", ""},
        {"pool open test 3", "item not found", ""},
        {"pool dynamic 1", "", ""},
        {"pool dynamic 0", "", ""},
        {"pool burn", "item not found", "valid subcommands: create open"},
        {"showfilter add abc", "", ""},
        {"showfilter dump", "", "show filters:\n  \"abc\"\n"},
        {"showfilter save", "", ""},
        {"showfilter delete *", "", ""},
        {"cullfilter add", "bad parameter", ""},
        {"logformat level time", "time level ", ""},
        {"logformat colour", "bad parameter", ""},
        {"logformat", "time level ", ""},
        {"logformat save", "", ""},
        {"spewfilter on", "on", ""},
        {"spewfilter maybe", "bad parameter", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Send(c.line), c.answer) << c.line;
        EXPECT_TRUE(out.WaitFor(c.shown)) << c.line;
    }
    EXPECT_EQ(tree.Get("dat/name1.dat"), "default\n");
    EXPECT_EQ(tree.Get("dat/cached.dat"), "(none)");
    EXPECT_EQ(tree.Get("dat/showfilter.dat"), "abc\n");
    EXPECT_EQ(tree.Get("dat/logformat.dat"), "time level \n");
    EXPECT_EQ(tree.Get("dat/spewfilter.dat"), "True\n");
}
