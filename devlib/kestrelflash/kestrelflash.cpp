// The updater's command line and the order of its work.
#include "devlib/kestrelflash/kestrelflash.h"

#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/standardfds.h"
#include "Common/OS/logmsg.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "devlib/kestrelflash/microupdate.h"
#include "devlib/kestrelflash/overlookupdate.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/kestrelflash/updateflags.h"
#include "softupdate/progressctrl/progressctrl.h"

namespace {

constexpr int kUsageError = -1;
constexpr int kUpdateRequired = 1;

// Whole-word arguments and the flags that they set.
const struct {
    const char* word;
    Boolean* flags[2];
} kWords[] = {
    {"all", {&gbDoMicro, &gbDoOverlook}},
    {"micro", {&gbDoMicro, nullptr}},
    {"overlook", {&gbDoOverlook, nullptr}},
    {"rebootoverlook", {&gbRebootOverlook, nullptr}},
};

// Images whose sizes make up the total, by target.
const struct {
    const Boolean* wanted;
    const char* name;
    SInt32 progressCtrlT::*size;
} kImages[] = {
    {&gbDoMicro, kMicroImageName, &progressCtrlT::nMicroFileSize},
    {&gbDoOverlook, kOverlookCameraImageName, &progressCtrlT::nCamFileSize},
    {&gbDoOverlook, kOverlookSystemImageName, &progressCtrlT::nSysFileSize},
};

void PrintCommand(int argc, char** argv) {
    puts("Command entered:");
    for (int i = 0; i < argc; i++) {
        printf("%s ", argv[i]);
    }
    puts("\n");
}

// As strtol does, within an int; no text at all is 0.
int Number(const char* text) {
    const long value = text != nullptr ? strtol(text, nullptr, 10) : 0;
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

// Takes the three values behind "-p". The last may be the argument vector's ending null.
void SetUpProgress(char** values) {
    gProgressCtrl.bDoUpdate = 1;
    gProgressCtrl.pszCommPipe = values[0];
    gProgressCtrl.nRangeLowerLimit = Number(values[1]);
    gProgressCtrl.nRangeUpperLimit = Number(values[2]);
    if (progressCtrlInit(gProgressCtrl.pszCommPipe, gProgressCtrl.nRangeLowerLimit,
                         gProgressCtrl.nRangeUpperLimit) != 0) {
        gProgressCtrl.bDoUpdate = 0;
    }
}

void ApplyWord(const char* argument) {
    for (const auto& word : kWords) {
        if (strcmp(argument, word.word) == 0) {
            for (Boolean* flag : word.flags) {
                if (flag != nullptr) {
                    *flag = 1;
                }
            }
            return;
        }
    }
    if (argument[0] == 'q') {
        gbQueryOnly = 1;
    }
}

// The program's own name takes part: a link to the program can carry a command.
void ScanArguments(int argc, char** argv) {
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "-p") == 0 && argc >= i + 3) {
            SetUpProgress(argv + i + 1);
            i += 3;
        } else {
            ApplyWord(argv[i]);
        }
    }
}

void MeasureImages() {
    const char* missing = nullptr;
    for (const auto& image : kImages) {
        if (!*image.wanted) {
            continue;
        }
        struct stat status;
        if (stat(image.name, &status) != 0) {
            missing = image.name;
            continue;
        }
        const SInt32 size = static_cast<SInt32>(status.st_size);
        gProgressCtrl.*image.size = size;
        ProgressAddImage(size);
    }
    if (missing != nullptr) {
        printf("Can't stat %s. Cancelling progress control updates.\n", missing);
        gProgressCtrl.bDoUpdate = 0;
    }
}

// Drives the targets in order; the first failure ends it. Returns the last driver's result.
int DriveTargets(int argc, char** argv) {
    int result = 0;
    if (gbDoMicro) {
        puts("flash_micro() ...");
        result = flash_micro(argc, argv);
    }
    if (result >= 0 && gbDoOverlook) {
        puts("flash_overlook() ...");
        result = flash_overlook(argc, argv);
    }
    return result;
}

int SummariseQuery() {
    if (gbUpdateRequired) {
        puts("########## Kestrel Image(s) Update Required ....");
        return kUpdateRequired;
    }
    puts("########## NO Kestrel Image(s) Update Required ....");
    return 0;
}

}  // namespace

void print_usage() {
    printf("Usage: kestrelflash  [micro | overlook] [q] [-p <comm pipe> <range low> <range high>]");
    puts("* Default value.");
}

int KestrelFlashMain(int argc, char** argv) {
    FillStandardDescriptors();
    // A launcher reads the output through a pipe, and a crash must not keep lines back.
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    // A launcher or a console that goes away must not end an update half-way.
    signal(SIGPIPE, SIG_IGN);
    TreeStub();
    gConfigLoaded = 1;
    PrintCommand(argc, argv);
    gProgressCtrl = {};
    ScanArguments(argc, argv);
    DevMgrSerial_Init();
    if (!gbDoMicro && !gbDoOverlook) {
        print_usage();
        return kUsageError;
    }
    if (gProgressCtrl.bDoUpdate) {
        MeasureImages();
    }
    const int result = DriveTargets(argc, argv);
    if (result >= 0 && gbQueryOnly) {
        return SummariseQuery();
    }
    if (!gbRebootOverlook) {
        // A program that is itself named after a target may come without a further argument.
        printf("%s %s executed [%s] ....\n", argv[0], argc > 1 ? argv[1] : "(null)",
               result == 0 ? "successfully" : "unsuccessfully");
    }
    return result;
}
