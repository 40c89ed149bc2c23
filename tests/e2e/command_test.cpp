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

TEST(CommandLine, RebootReplacesTheMicrocontrollersCheckAndEndsWithoutASummary) {
    Case it("reboot-all", {});
    it.kept = {"overlookcam.bin", "overlooksys.bin"};
    it.Run({"all", "rebootoverlook"}, 0, "m.reboot c.update");
    Play(it);
}

TEST(CommandLine, ConsoleLinesNeverReachALineWhereThereIsNoConsole) {
    Case it("no-console", {});
    it.closed_output = true;
    it.kept = kAllImages;
    it.Run({"all"}, 0, "m.update c.update done");
    Play(it);
}

// Each way in which a node cannot be opened looks the same. Those for permission and for a busy
// node hold for the superuser as well: a read-only kernel file, and a program that is running.
TEST(Ports, ANodeThatCannotBeOpenedIsGivenUpAfterTenTries) {
    std::string tries = "micro";
    for (int i = 0; i < 10; i++) {
        tries += " open open-failed";
    }
    tries += " give-up:1 port-failed:flash_micro,1,-25 failed";
    const struct {
        const char* name;
        const char* target;  // what the node becomes a link to; null: no node at all
        std::string story;
    } nodes[] = {
        {"node-missing", nullptr, tries},
        {"node-directory", ".", tries},
        {"node-forbidden", "/sys/devices/system/cpu/possible", tries},
        {"node-busy", "/proc/self/exe", tries},
        {"node-no-terminal", "/dev/null",
         "micro open no-terminal:1 port-failed:flash_micro,1,-34 failed"},
    };
    for (const auto& node : nodes) {
        Case it(node.name, {});
        it.prepare = [&](const Place& place) {
            std::filesystem::remove(place.dev + "/fpgaserial1");
            if (node.target != nullptr) {
                std::filesystem::create_symlink(node.target, place.dev + "/fpgaserial1");
            }
        };
        it.Run({"micro"}, 255, node.story);
        Play(it);
    }
}

TEST(Ports, ALineThatWentAwayHasNoNodeAndLeavesTheOtherAlone) {
    Case it("line-gone", {}, {"close unit=micro at=11"});
    it.Run({"micro"}, 255,
           "m.open m.request gone:1 no-delimiter disable-failed:1,1 closed:1 failed");
    it.Run({"overlook", "q"}, 1, "c.current required");
    it.inspect = [](const Place& place) {
        EXPECT_FALSE(std::filesystem::is_symlink(place.dev + "/fpgaserial1"));
    };
    Play(it);
}

}  // namespace
}  // namespace e2e
