// The command line as a whole: which arguments do what, in which order, and what happens when a
// port cannot be opened.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

TEST(CommandLine, OnlyWholeWordsAreTargetsAndAnythingThatBeginsWithQOnlyAsks) {
    Case it("arguments", {});
    it.Run({}, 255, "usage");
    it.Run({"q", "micro2", "overlook "}, 255, "usage");
    it.Run({"-p", "all", "1"}, 255, "usage");
    it.Run({"rebootoverlook"}, 255, "usage");
    it.Run({"-p", "micro", "overlook", "all"}, 255, "usage");
    it.Run({"qwerty", "micro2", "micro"}, 1, "m.current required");
    it.Run({"micro", "q", "-p", "x"}, 1, "m.current required");
    Play(it);
}

TEST(CommandLine, AllUpdatesBothTargetsAndTheQueryAfterwardsFindsNothing) {
    Case it("all", {});
    it.kept = kAllImages;
    it.Run({"all", "q"}, 1, "m.current c.current required");
    it.Run({"all"}, 0, "m.update c.update done");
    it.scene = it.scene.Updated();
    it.Run({"all", "q"}, 0, "m.current c.current not-required");
    Play(it);
}

TEST(CommandLine, ConsoleLinesNeverReachALineWhereThereIsNoConsole) {
    Case it("no-console", {});
    it.closed_output = true;
    it.kept = kAllImages;
    it.Run({"all"}, 0, "m.update c.update done");
    Play(it);
}

TEST(Ports, ANodeThatCannotBeOpenedIsGivenUpAfterTenTries) {
    std::string tries = "micro";
    for (int i = 0; i < 10; i++) {
        tries += " open open-failed";
    }
    // What the node becomes a link to, and what follows.
    const std::pair<const char*, std::string> nodes[] = {
        {".", tries + " give-up:1 port-failed:flash_micro,1,-25 failed"},
        {"/dev/null", "micro open no-terminal:1 port-failed:flash_micro,1,-34 failed"}};
    for (const auto& node : nodes) {
        Case it(node.first, {});
        it.prepare = [&](const Place& place) {
            std::filesystem::remove(place.dev + "/fpgaserial1");
            std::filesystem::create_symlink(node.first, place.dev + "/fpgaserial1");
        };
        it.Run({"micro"}, 255, node.second);
        Play(it);
    }
}

}  // namespace
}  // namespace e2e
