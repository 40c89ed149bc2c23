// kestrelsim, a simulated unit: the microcontroller on serial port 1 and the camera on port 0, on
// pseudo-terminals that any program can open in place of the board's serial lines.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "Common/OS/linux/standardfds.h"
#include "tools/kestrelsim/event_log.h"
#include "tools/kestrelsim/faults.h"
#include "tools/kestrelsim/simulator.h"
#include "tools/kestrelsim/state.h"

namespace {

using namespace kestrelsim;

enum Status { kDone = 0, kCannotRun = 1, kUsage = 2, kRefusedSomething = 3 };

constexpr int kScriptDepth = 3;       // a script, its faults, a fault's keys
constexpr double kLongestIdle = 1e6;  // seconds

struct Options {
    SimulatorOptions simulator;
    StateOptions state;
    std::string log;
    std::string script;
    std::vector<std::string> faults;
    std::vector<std::string> attach;
    std::optional<uint32_t> seed;
};

void Describe(CLI::App* app, Options* options) {
    const auto four = CLI::Validator(
        [](const std::string& text) {
            return text.size() == 4 ? std::string() : "a version has four characters: " + text;
        },
        "XXXX");
    app->add_option("--dir", options->simulator.folder,
                    "folder for the nodes (default: a new one)");
    app->add_option("--state", options->state.folder, "folder that keeps images and versions");
    app->add_option("--log", options->log, "event log, JSON lines");
    app->add_option("--images", options->state.images_folder,
                    "folder with overlookcamver and overlooksysver: the camera's versions after "
                    "an update")
        ->check(CLI::ExistingDirectory);
    app->add_option("--micro-version", options->state.micro_version,
                    "the microcontroller's version, 0 to 255 or 0x00 to 0xff");
    app->add_option("--camera-version", options->state.camera_version, "four characters")
        ->check(four);
    app->add_option("--system-version", options->state.system_version, "four characters")
        ->check(four);
    app->add_option("--camera-new-version", options->state.camera_new_version,
                    "the camera's version after an update")
        ->check(four);
    app->add_option("--system-new-version", options->state.system_new_version,
                    "the system version after an update")
        ->check(four);
    app->add_flag("--power-fail", options->state.power_fail,
                  "an image under way has erased the one before: until it is complete, its target "
                  "reports version 0xff or FFFF");
    app->add_flag("--hang-when-cut", options->simulator.hang_when_cut,
                  "a unit whose transfer was given up answers nothing until it is switched off, "
                  "which is this program's end");
    app->add_option("--baud", options->simulator.baud, "pace the lines, 11 bit times a byte")
        ->check(CLI::Range(1, 10000000));
    app->add_option("--patience", options->simulator.patience_ms,
                    "paced: milliseconds after which the microcontroller has a frame although the "
                    "line is still busy with it; 0: never early (default 40)")
        ->check(CLI::NonNegativeNumber);
    app->add_option("--seed", options->seed, "for everything random (default 0)");
    app->add_option("--fault", options->faults, "a fault, for example \"late unit=micro ms=80\"")
        ->type_size(1)
        ->allow_extra_args(false);
    app->add_option("--script", options->script, "faults from a JSON file")
        ->check(CLI::ExistingFile);
    app->add_option("--attach", options->attach,
                    "PORT=PATH, PORT=fd:N or PORT=unix:PATH: a line that is already there")
        ->type_size(1)
        ->allow_extra_args(false);
    app->add_option("--exit-when-idle", options->simulator.exit_when_idle,
                    "end after so many seconds with all lines closed and nothing happening, "
                    "counted from the start too (default 0: never)")
        ->check(CLI::Range(0.0, kLongestIdle));
    app->footer(FaultHelp());
}

void ReadAttachments(Options* options) {
    for (const std::string& text : options->attach) {
        const size_t equals = text.find('=');
        const std::string port = text.substr(0, equals);
        if (equals == std::string::npos || port.size() != 1 || port[0] < '0' ||
            port[0] >= '0' + kPorts) {
            throw std::invalid_argument("--attach takes PORT=PATH with a port from 0 to 7: " +
                                        text);
        }
        options->simulator.attach[port[0] - '0'] = text.substr(equals + 1);
    }
}

Faults ReadFaults(const Options& options) {
    Faults faults;
    if (!options.script.empty()) {
        std::ifstream file(options.script);
        // What is nested deeper than any script is would exhaust the stack.
        const auto shallow = [](int depth, nlohmann::json::parse_event_t, const nlohmann::json&) {
            if (depth > kScriptDepth) {
                throw std::invalid_argument("a script that is nested too deep");
            }
            return true;
        };
        try {
            faults.AddScript(nlohmann::json::parse(file, shallow));
        } catch (const nlohmann::json::exception& error) {
            throw std::invalid_argument(options.script + ": " + error.what());
        }
    }
    for (const std::string& text : options.faults) {
        faults.Add(text);
    }
    if (options.seed) {
        faults.Seed(*options.seed);
    }
    return faults;
}

// A descriptor that becomes readable when the user wants the simulator to end.
int StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    const int fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) {
        throw std::runtime_error(std::string("signalfd: ") + strerror(errno));
    }
    // What lets a frozen simulator go on.
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return fd;
}

int Run(Options* options) {
    FillStandardDescriptors();
    ReadAttachments(options);
    Faults faults = ReadFaults(*options);
    const int stop_fd = StopSignals();
    // A host waits no longer than 10 to 50 ms for some answers. Both are favours: not granted, the
    // simulator is merely less punctual on a loaded machine.
    setpriority(PRIO_PROCESS, 0, -10);
    prctl(PR_SET_TIMERSLACK, 1000);
    State state(options->state);
    EventLog log(options->log);
    Simulator simulator(options->simulator, &state, &faults, &log);
    log.Event(-1, "ready", simulator.folder());
    printf("kestrelsim: ready in %s\n", simulator.folder().c_str());
    fflush(stdout);
    simulator.Run(stop_fd);
    for (const std::string& text : state.received()) {
        printf("kestrelsim: received %s\n", text.c_str());
    }
    for (const std::string& text : simulator.given_up()) {
        printf("kestrelsim: incomplete: %s\n", text.c_str());
    }
    printf("kestrelsim: refused %d\n", simulator.refusals());
    return simulator.refusals() > 0 ? kRefusedSomething : kDone;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app(
            "A simulated unit on pseudo-terminals. Exit status: 0 done, 1 could not run, 2 wrong "
            "arguments, 3 something malformed was refused.");
        Options options;
        Describe(&app, &options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? kDone : kUsage;
        }
        return Run(&options);
    } catch (const std::invalid_argument& error) {
        fprintf(stderr, "kestrelsim: %s\n", error.what());
        return kUsage;
    } catch (const std::exception& error) {
        fprintf(stderr, "kestrelsim: %s\n", error.what());
        return kCannotRun;
    }
}
