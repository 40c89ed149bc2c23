// The simulator as a program: how it begins, what it refuses, how it ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/child.h"

namespace {

std::string Repeated(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; i++) {
        all += text;
    }
    return all;
}

// A folder that goes with the test.
class FolderT {
  public:
    FolderT() { EXPECT_NE(mkdtemp(path_.data()), nullptr); }
    ~FolderT() { std::filesystem::remove_all(path_); }
    FolderT(const FolderT&) = delete;
    FolderT& operator=(const FolderT&) = delete;
    std::string operator/(const char* name) const { return path_ + "/" + name; }

  private:
    std::string path_ = testing::TempDir() + "simprogram.XXXXXX";
};

}  // namespace

TEST(SimulatorProgram, EndsWithAWordAboutWhatItCannotDo) {
    const struct {
        WordsT words;
        const char* script;
        int status;
        const char* error;
    } cases[] = {
        {{}, "", 0, ""},
        {{"--log", "/dev/full"}, "", 1, "cannot write the log /dev/full: No space left"},
        {{"--fault", "late ms=86400000"}, "", 0, ""},
        {{"--fault", "late ms=86400001"}, "", 2, "ms is not a number from 0 to 86400000: "},
        {{"--fault", "late ms=4294967296"}, "", 2, "ms is not a number from 0 to 86400000: "},
        {{"--fault", "corrupt value=256"}, "", 2, "value is not a number from 0 to 255: "},
        {{"--fault", "corrupt value=-1"}, "", 2, "value is not a number from 0 to 255: "},
        {{"--fault", "noise count=2x"}, "", 2, "count is not a number from 0 to 1000000: "},
        {{"--exit-when-idle", "1e300"}, "", 2, "--exit-when-idle"},
        {{}, R"({"faults": [{"fault": "late", "ms": 4294967296}]})", 2, "ms is not a number"},
        {{}, R"({"faults": [{"fault": "corrupt", "value": 999}]})", 2, "value is not a number"},
        {{}, R"({"faults": [{"fault": "late", "ms": 18446744073709551615}]})", 2, "ms is not"},
        {{}, R"({"seed": 4294967296})", 2, "seed is not a number from 0 to 4294967295"},
        {{}, R"({"faults": {}})", 2, "a script holds \"seed\" and \"faults\", not: faults"},
        {{}, "nested", 2, "nested too deep"},
    };
    const FolderT folder;
    for (const auto& it : cases) {
        WordsT words = {KESTRELSIM, "--dir", folder / "dev", "--exit-when-idle", "0.01"};
        if (!it.words.empty() && it.words[0] == "--exit-when-idle") {
            words.resize(3);
        }
        words.insert(words.end(), it.words.begin(), it.words.end());
        if (*it.script != '\0') {
            const std::string deep = "{\"faults\": " + Repeated("[", 100000);
            std::ofstream(folder / "script") << (it.script[0] == 'n' ? deep : it.script);
            words.insert(words.end(), {"--script", folder / "script"});
        }
        Child simulator(UserT::kPipes, words);
        EXPECT_EQ(simulator.End(), it.status) << testing::PrintToString(words) << it.script;
        EXPECT_NE(simulator.error.find(it.error), std::string::npos) << simulator.error;
        EXPECT_EQ(simulator.error.empty(), it.status == 0) << simulator.error;
        EXPECT_FALSE(std::filesystem::exists(folder / "dev"));
    }
}

TEST(SimulatorProgram, AFolderIsOneSimulatorsAtATime) {
    const FolderT folder;
    const std::string node = folder / "dev/fpgaserial1";
    const WordsT words = {KESTRELSIM, "--dir", folder / "dev"};
    std::filesystem::path before;
    for (const int end : {SIGKILL, SIGTERM}) {
        Child first(UserT::kPipes, words);
        ASSERT_TRUE(first.Sees("ready")) << "after one that was killed: " << first.error;
        const auto device = std::filesystem::read_symlink(node);
        Child second(UserT::kPipes, words);
        EXPECT_EQ(second.End(), 1);
        EXPECT_NE(second.error.find("another simulator"), std::string::npos) << second.error;
        EXPECT_EQ(std::filesystem::read_symlink(node), device);
        first.Signal(end);
        EXPECT_EQ(first.End(), end == SIGKILL ? -SIGKILL : 0);
    }
}
