// kestrelwatch: the front door to the updater. See docs/LAUNCHER.md.
#include <stdio.h>

#include "Common/OS/linux/standardfds.h"
#include "softupdate/kestrelwatch/launch.h"
#include "softupdate/kestrelwatch/options.h"

int main(int argc, char** argv) {
    FillStandardDescriptors();
    watch::RecordT record;
    if (!watch::ParseOptions(argc, argv, &record)) {
        fprintf(stderr, "kestrelwatch: %s\n", record.verdict.Text().c_str());
        return record.verdict.status;
    }
    if (record.options.help) {
        fputs(watch::HelpText().c_str(), stdout);
        return 0;
    }
    return watch::Launch(&record);
}
