// kestrelwatch: a launcher for the updater with a progress bar. See docs/LAUNCHER.md.
#include <stdio.h>

#include <exception>

#include "tools/kestrelwatch/options.h"
#include "tools/kestrelwatch/statuses.h"
#include "tools/kestrelwatch/watch.h"

int main(int argc, char** argv) {
    try {
        const watch::OptionsT options = watch::ParseOptions(argc, argv);
        if (!options.help.empty()) {
            fputs(options.help.c_str(), stdout);
            return 0;
        }
        return watch::Run(options);
    } catch (const watch::SetupError& error) {
        fprintf(stderr, "kestrelwatch: %s\n", error.what());
        return error.Status();
    } catch (const std::exception& error) {
        fprintf(stderr, "kestrelwatch: %s\n", error.what());
        return watch::kStatusInternal;
    }
}
