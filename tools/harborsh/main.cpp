// harborsh: an interactive shell over the framework's text commands, for people at the board.
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "Common/OS/errors.h"
#include "Common/OS/log.h"
#include "tools/harborsh/services.h"
#include "tools/harborsh/shell.h"
#include "tools/harborsh/terminal.h"

namespace {

constexpr const char* kPrompt = "harborsh> ";

struct OptionsT {
    std::vector<std::string> commands;  // -c
    std::string script;
    bool echo = false;
    int wait_seconds = 30;
    int log_level = kLogWarning;
    std::string store;
};

// Runs the lines of a stream; with `echo` shows each behind the prompt first.
void RunStream(harborsh::Shell* shell, std::istream* in, bool echo) {
    for (std::string line; !shell->Ended() && std::getline(*in, line);) {
        if (echo) {
            printf("%s%s\n", kPrompt, line.c_str());
            fflush(stdout);
        }
        shell->Run(line);
    }
}

int RunInteractive(const OptionsT& options) {
    harborsh::Terminal terminal(kPrompt);
    harborsh::Shell shell([&terminal] { return terminal.Pump(); }, options.wait_seconds);
    for (std::string line; !shell.Ended() && terminal.ReadLine(&line);) {
        shell.Run(line);
    }
    return shell.Status();
}

int Run(const OptionsT& options) {
    if (options.commands.empty() && options.script.empty() && isatty(STDIN_FILENO) != 0 &&
        isatty(STDOUT_FILENO) != 0) {
        return RunInteractive(options);
    }
    harborsh::Shell shell([] { return true; }, options.wait_seconds);
    if (!options.commands.empty()) {
        for (const std::string& lines : options.commands) {
            shell.RunAll(lines);
        }
    } else if (!options.script.empty()) {
        std::ifstream in(options.script);
        in.peek();  // a folder opens, but cannot be read
        if (!in) {
            fprintf(stderr, "harborsh: cannot read %s\n", options.script.c_str());
            return -kItemNotFound;
        }
        RunStream(&shell, &in, options.echo);
    } else {
        RunStream(&shell, &std::cin, options.echo);
    }
    return shell.Status();
}

// Interrupts are for the main thread: the tasks, started meanwhile, inherit a mask without them.
class MaskedT {
  public:
    MaskedT() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, &before_);
    }
    ~MaskedT() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    MaskedT(const MaskedT&) = delete;
    MaskedT& operator=(const MaskedT&) = delete;

  private:
    sigset_t before_;
};

int Main(int argc, char** argv) {
    CLI::App app("A shell over the framework's text commands.");
    OptionsT options;
    app.add_option("-c", options.commands, "run the lines, separated by semicolons, and end")
        ->type_name("LINE[; LINE]");
    app.add_option("script", options.script, "run the lines of a file and end")->excludes("-c");
    app.add_flag("-e,--echo", options.echo, "show each line behind a prompt before it is run");
    app.add_option("-s,--store", options.store, "folder that keeps the configuration");
    app.add_option("-w,--wait", options.wait_seconds, "seconds that a command may take")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option("-l,--log", options.log_level, "highest level of log lines that are shown")
        ->check(CLI::Range(0, 7))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    {
        const MaskedT masked;
        if (!harborsh::StartServices(options.log_level, options.store)) {
            return 1;
        }
    }
    const int status = Run(options);
    harborsh::StopServices();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "harborsh: %s\n", error.what());
        return 1;
    }
}
