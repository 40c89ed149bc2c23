// The command line as a whole: which arguments do what, in which order, and what happens when a
// port cannot be opened.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

const Micro kMicro = {Pattern(600)};

Camera TheCamera() {
    return {Pattern(300, 1), Pattern(200, 2)};
}

Case CommandCase(const std::string& name) {
    const Camera camera = TheCamera();
    Case it;
    it.name = "command-" + name;
    it.files = {{"kestrelmicro.bin", kMicro.image},
                {"overlookcam.bin", camera.camera},
                {"overlooksys.bin", camera.system},
                {"overlookcamver", camera.new_camera},
                {"overlooksysver", camera.new_system}};
    it.unit = {"--micro-version", "0x12"};
    return it;
}

void Reboot(Transcript* t) {
    t->Say("micro").Say("open").Event(1, "opened").Say("reboot");
    t->Host(1, Frame(0x49, "\x69")).Event(1, "closed");
}

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
        Case it = CommandCase("usage-" + testing::PrintToString(arguments.size()) +
                              (arguments.empty() ? "" : arguments[0].substr(0, 3)));
        Transcript t(arguments);
        it.steps = {{t.Say("usage"), 255}};
        Play(it);
    }
}

TEST(CommandLine, AnyArgumentThatBeginsWithQOnlyAsksAndUnknownOnesAreIgnored) {
    for (const Words& arguments : {Words{"qwerty", "micro2", "micro"}, Words{"micro", "q", "-p"},
                                   Words{"micro", "q", "-p", "x"}}) {
        Case it = CommandCase("query-" + arguments.back());
        Transcript t(arguments);
        kMicro.Open(&t);
        kMicro.Ask(&t);
        kMicro.Verdict(&t);
        t.Event(1, "closed").Say("required");
        it.steps = {{t, 1}};
        Play(it);
    }
}

TEST(CommandLine, AllUpdatesBothTargetsAndTheQueryAfterwardsFindsNothing) {
    Case it = CommandCase("all");
    Camera camera = TheCamera();
    it.kept = {{"kestrelmicro.bin", kMicro.image},
               {"overlookcam.bin", camera.camera},
               {"overlooksys.bin", camera.system}};
    Transcript before({"all", "q"});
    kMicro.Open(&before);
    kMicro.Ask(&before);
    kMicro.Verdict(&before);
    before.Event(1, "closed");
    camera.Begin(&before);
    before.Event(0, "closed").Say("required");
    Transcript update({"all"});
    kMicro.Update(&update);
    camera.Update(&update);
    update.Executed(true);
    Transcript after({"all", "q"});
    const Micro updated = {kMicro.image, static_cast<uint8_t>(kMicro.image[0])};
    updated.Open(&after);
    updated.Ask(&after);
    updated.Verdict(&after);
    after.Event(1, "closed");
    camera.unit_camera = camera.new_camera;
    camera.unit_system = camera.new_system;
    camera.Begin(&after);
    after.Event(0, "closed").Say("not-required");
    it.steps = {{before, 1}, {update, 0}, {after, 0}};
    Play(it);
}

TEST(CommandLine, RebootReplacesTheMicrocontrollersCheckAndEndsWithoutASummary) {
    Case micro = CommandCase("reboot");
    Transcript t({"micro", "rebootoverlook"});
    Reboot(&t);
    micro.steps = {{t, 0}};
    Play(micro);

    const Camera camera = TheCamera();
    Case all = CommandCase("reboot-all");
    all.kept = {{"overlookcam.bin", camera.camera}, {"overlooksys.bin", camera.system}};
    Transcript both({"all", "rebootoverlook"});
    Reboot(&both);
    camera.Update(&both);
    all.steps = {{both, 0}};
    Play(all);
}

TEST(CommandLine, AFailingMicrocontrollerLeavesTheCameraAlone) {
    for (const Words& arguments : {Words{"all"}, Words{"all", "q"}}) {
        Case it = CommandCase("all-fails-" + arguments.back());
        it.unit.insert(it.unit.end(), {"--fault", "silent unit=micro"});
        Transcript t(arguments);
        kMicro.Open(&t);
        t.Host(1, Frame(0x44, "\x01")).Say("no-delimiter").Event(1, "closed").Executed(false);
        it.steps = {{t, 255}};
        Play(it);
    }
}

// Each way in which a node cannot be opened looks the same. The ones for permission and business
// hold for the superuser as well: a read-only kernel file and a program that is running.
TEST(Ports, ANodeThatCannotBeOpenedIsGivenUpAfterTenTries) {
    const struct {
        const char* name;
        const char* target;  // what the node becomes a link to; null: no node at all
        bool own_nodes = true;
    } nodes[] = {{"missing", nullptr},
                 {"no-board", nullptr, false},
                 {"directory", "."},
                 {"forbidden", "/sys/devices/system/cpu/possible"},
                 {"busy", "/proc/self/exe"}};
    for (const int port : {1, 0}) {
        for (const auto& node : nodes) {
            Case it = CommandCase(std::string("node-") + node.name + std::to_string(port));
            it.own_nodes = node.own_nodes;
            it.prepare = [&](const Place& place) {
                const std::string path = place.dev + "/fpgaserial" + std::to_string(port);
                fs::remove(path);
                if (node.target != nullptr) {
                    fs::create_symlink(node.target, path);
                }
            };
            Transcript t({port == 1 ? "micro" : "overlook"});
            if (port == 1) {
                t.Say("micro");
            } else {
                t.Say("camera").Say("argument", {"0", "kestrelflash"});
                t.Say("argument", {"1", "overlook"});
            }
            for (int i = 0; i < 10; i++) {
                t.Say("open").Say("open-failed");
            }
            t.Say("give-up", {std::to_string(port)});
            t.Say("port-failed",
                  {port == 1 ? "flash_micro" : "flash_overlook", std::to_string(port), "-25"});
            it.steps = {{t.Executed(false), 255}};
            Play(it);
        }
    }
}

TEST(Ports, ANodeThatIsNoTerminalIsClosedAgain) {
    Case it = CommandCase("node-no-terminal");
    it.prepare = [](const Place& place) {
        fs::remove(place.dev + "/fpgaserial1");
        fs::create_symlink("/dev/null", place.dev + "/fpgaserial1");
    };
    Transcript t({"micro"});
    t.Say("micro").Say("open").Say("no-terminal", {"1"});
    t.Say("port-failed", {"flash_micro", "1", "-34"});
    it.steps = {{t.Executed(false), 255}};
    Play(it);
}

}  // namespace
}  // namespace e2e
