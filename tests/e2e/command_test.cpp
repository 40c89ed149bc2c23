// The command line as a whole: which arguments do what, in which order, and what happens when a
// port cannot be opened.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

TEST(CommandLine, WithoutATargetItPrintsTheUsageAndOpensNoPort) {
    const Words lines[] = {{},
                           {"q"},
                           {"query"},
                           {"micro2"},
                           {"Micro"},
                           {"overlook "},
                           {"-p"},
                           {"-p", "all", "1"},
                           {"-q", "help"},
                           {"rebootoverlook"},
                           {"-p", "micro", "overlook", "all"}};
    for (const Words& arguments : lines) {
        Case it("usage-" + std::to_string(&arguments - lines), {});
        it.Run(arguments, 255, "say:usage");
        Play(it);
    }
}

TEST(CommandLine, AnyArgumentThatBeginsWithQOnlyAsksAndUnknownOnesAreIgnored) {
    const Words lines[] = {
        {"qwerty", "micro2", "micro"}, {"micro", "q", "-p"}, {"micro", "q", "-p", "x"}};
    for (const Words& arguments : lines) {
        Case it("query-" + std::to_string(&arguments - lines), {});
        it.Run(arguments, 1, "m.current say:required");
        Play(it);
    }
}

TEST(CommandLine, AllUpdatesBothTargetsAndTheQueryAfterwardsFindsNothing) {
    const Scene scene;
    Case it("all", scene);
    it.kept = it.AllImages();
    it.Run({"all", "q"}, 1, "m.current c.current say:required");
    it.Run({"all"}, 0, "m.update c.update done");
    it.Run({"all", "q"}, 0, "m.current c.current say:not-required", scene.Updated());
    Play(it);
}

TEST(CommandLine, RebootReplacesTheMicrocontrollersCheckAndEndsWithoutASummary) {
    Case micro("reboot-micro", {});
    micro.Run({"micro", "rebootoverlook"}, 0, "m.reboot");
    Play(micro);
    Case all("reboot-all", {});
    all.kept = all.AllImages();
    all.kept.erase("kestrelmicro.bin");
    all.Run({"all", "rebootoverlook"}, 0, "m.reboot c.update");
    Play(all);
}

TEST(CommandLine, AFailingMicrocontrollerLeavesTheCameraAlone) {
    Case it("all-fails", {}, {"silent unit=micro"});
    for (const Words& arguments : {Words{"all"}, Words{"all", "q"}}) {
        it.Run(arguments, 255, "m.open m.request m.unheard failed");
    }
    Play(it);
}

// Each way in which a node cannot be opened looks the same. Those for permission and for a busy
// node hold for the superuser as well: a read-only kernel file, and a program that is running.
TEST(Ports, ANodeThatCannotBeOpenedIsGivenUpAfterTenTries) {
    const struct {
        const char* name;
        const char* target;  // what the node becomes a link to; null: no node at all
        bool own_nodes = true;
    } nodes[] = {{"node-missing", nullptr},
                 {"node-no-board", nullptr, false},
                 {"node-directory", "."},
                 {"node-forbidden", "/sys/devices/system/cpu/possible"},
                 {"node-busy", "/proc/self/exe"}};
    for (const char* port : {"1", "0"}) {
        const bool micro = *port == '1';
        const std::string head = micro ? "say:micro"
                                       : "say:camera say:argument,0,kestrelflash "
                                         "say:argument,1,overlook";
        std::string tries;
        for (int i = 0; i < 10; i++) {
            tries += " say:open say:open-failed";
        }
        for (const auto& node : nodes) {
            Case it(std::string(node.name) + port, {});
            it.own_nodes = node.own_nodes;
            it.prepare = [&](const Place& place) {
                const std::string path = place.dev + "/fpgaserial" + port;
                fs::remove(path);
                if (node.target != nullptr) {
                    fs::create_symlink(node.target, path);
                }
            };
            it.Run({micro ? "micro" : "overlook"}, 255,
                   head + tries + " say:give-up," + port + " say:port-failed," +
                       (micro ? "flash_micro," : "flash_overlook,") + port + ",-25 failed");
            Play(it);
        }
    }
}

TEST(Ports, ANodeThatIsNoTerminalIsClosedAgain) {
    Case it("node-no-terminal", {});
    it.prepare = [](const Place& place) {
        fs::remove(place.dev + "/fpgaserial1");
        fs::create_symlink("/dev/null", place.dev + "/fpgaserial1");
    };
    it.Run({"micro"}, 255,
           "say:micro say:open say:no-terminal,1 say:port-failed,flash_micro,1,-34 failed");
    Play(it);
}

}  // namespace
}  // namespace e2e
