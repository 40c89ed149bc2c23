// Options by the C library's own getopt_long.
#include "softupdate/kestrelwatch/options.h"

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

namespace {

const char* const kDefaultUpdater = "kestrelflash";
// The updater multiplies up to 100 percent by the width of the range in 32 bits.
constexpr std::int64_t kMaxWidth = INT32_MAX / 100;
constexpr double kMaxSeconds = 86400;
constexpr int kMaxRetries = 100;
// Lines are the board's own, except on a workstation, where a folder may stand for /dev.
constexpr bool kPortsCanBeGiven = KESTRELWATCH_DEV_VARIABLE[0] != '\0';

enum OptionT {
    kHelp = 'h',
    kCheck = 256,
    kNoVerify,
    kGiveUp,
    kRetries,
    kPort,
    kJson,
    kRecord,
    kPlain,
    kStall,
    kConfirm,
    kPipePath,
    kRange,
    kStrict
};

const option kOptions[] = {
    {"help", no_argument, nullptr, kHelp},
    {"check", no_argument, nullptr, kCheck},
    {"no-verify", no_argument, nullptr, kNoVerify},
    {"give-up", required_argument, nullptr, kGiveUp},
    {"retries", required_argument, nullptr, kRetries},
    {"port", required_argument, nullptr, kPort},
    {"json", required_argument, nullptr, kJson},
    {"record", required_argument, nullptr, kRecord},
    {"plain", no_argument, nullptr, kPlain},
    {"stall", required_argument, nullptr, kStall},
    {"confirm", required_argument, nullptr, kConfirm},
    {"pipe", required_argument, nullptr, kPipePath},
    {"range", required_argument, nullptr, kRange},
    {"strict", no_argument, nullptr, kStrict},
    {nullptr, 0, nullptr, 0},
};

const char kHelpText[] =
    "Usage: kestrelwatch [options] all|micro|overlook [q] [rebootoverlook]\n"
    "       kestrelwatch [options] -- updater arguments...\n"
    "Checks the files, asks the unit, updates it, and asks again. Status 0 only if the unit "
    "itself\n"
    "has said that it runs what the files offer.\n\n"
    "  --check               only check what can be checked without the unit, as a table\n"
    "  --no-verify           leave out the question at the end (the status is then 120)\n"
    "  --give-up SECONDS     end a run that stands where nothing is erased yet (60; 0: never)\n"
    "  --retries N           run again, where that is safe (0)\n"
    "  --port TARGET=DEVICE  the line of micro or camera; on a workstation\n"
    "  --json FILE|fd:N      one JSON object a line on what happens\n"
    "  --record FOLDER       keep what support asks for in a new file there\n"
    "  --plain               lines instead of a bar, on a terminal too\n"
    "  --stall SECONDS       tell when nothing has moved for so long (30; 0: never)\n"
    "  --confirm SECONDS     time for the second Ctrl-C, which interrupts a flash (10)\n"
    "  --pipe PATH           the progress pipe (in a private folder)\n"
    "  --range LOW HIGH      positions that the pipe carries (0 100)\n"
    "  --strict              accepted; it is always so now\n\n"
    "Without '--' the updater is kestrelflash, found beside kestrelwatch or in PATH. kestrelwatch\n"
    "adds '-p <pipe> <low> <high>' itself. Its own lines go to standard error.\n\n"
    "Exit status:\n"
    "  0      the unit runs what the files offer; or, for q and rebootoverlook, the updater's own\n"
    "  1      the updater's own: a query found that an update is required\n"
    "  255    the updater's own: a target failed\n"
    "  117    ended by --give-up before anything was erased\n"
    "  118    refused by the check\n"
    "  119    another run has this unit\n"
    "  120    the updater reported success, but the unit has not said that it runs the files\n"
    "  121    bad option or word, or nothing to do\n"
    "  122    bad range\n"
    "  123    pipe path refused: no FIFO, too long, in use, or not to be opened\n"
    "  124    the pipe, its folder or the lock could not be made\n"
    "  125    kestrelwatch itself failed\n"
    "  126    the updater is there but cannot be run\n"
    "  127    the updater was not found\n"
    "  128+n  signal n ended the updater\n";

bool Usage(RecordT* record, const std::string& text) {
    return Refuse(record, kStatusUsage, CauseT::kUsage, text);
}

bool BadRange(RecordT* record, const std::string& text) {
    return Refuse(record, kStatusRange, CauseT::kRange, "bad range: " + text);
}

// The whole of `text` as a 32-bit number.
bool WholeNumber(const char* text, int* number) {
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text, &end, 10);
    *number = static_cast<int>(value);
    return end != text && *end == '\0' && errno == 0 && value == *number;
}

bool Seconds(RecordT* record, const char* name, std::int64_t* ms) {
    char* end = nullptr;
    const double seconds = strtod(optarg, &end);
    // What is no number at all compares as false.
    if (end == optarg || *end != '\0' || !(seconds >= 0 && seconds <= kMaxSeconds)) {
        return Usage(record, std::string(name) + " takes 0 to 86400 seconds");
    }
    *ms = static_cast<std::int64_t>(seconds * 1000);
    return true;
}

bool Retries(RecordT* record) {
    int* const number = &record->options.retries;
    return (WholeNumber(optarg, number) && *number >= 0 && *number <= kMaxRetries) ||
           Usage(record, "--retries takes 0 to 100");
}

bool RangeLimit(RecordT* record, const char* text, int* limit) {
    return WholeNumber(text, limit) ||
           BadRange(record, "'" + std::string(text) + "' is not a 32-bit number");
}

// The option's second value is the next word, which may begin with a sign.
bool Range(RecordT* record, int argc, char** argv) {
    RangeT& range = record->options.range;
    if (optind >= argc) {
        return Usage(record, "--range takes two numbers");
    }
    const char* high = argv[optind++];
    if (!RangeLimit(record, optarg, &range.low) || !RangeLimit(record, high, &range.high)) {
        return false;
    }
    if (range.low >= range.high) {
        return BadRange(record, "the low end " + std::to_string(range.low) +
                                    " is not below the high end " + std::to_string(range.high));
    }
    if (range.high <= 0) {
        return BadRange(record, "the updater reports only positions above 0");
    }
    return std::int64_t{range.high} - range.low <= kMaxWidth ||
           BadRange(record, "wider than " + std::to_string(kMaxWidth) +
                                " positions, which the updater's arithmetic does not hold");
}

bool Port(RecordT* record) {
    const char* const names[kTargets] = {"micro=", "camera="};
    for (int target = 0; target < kTargets; target++) {
        const size_t length = strlen(names[target]);
        if (strncmp(optarg, names[target], length) == 0 && optarg[length] != '\0') {
            record->options.ports[target] = optarg + length;
            return kPortsCanBeGiven || Usage(record, "--port: the board's lines are its own");
        }
    }
    return Usage(record, "--port takes micro=DEVICE or camera=DEVICE");
}

bool Path(RecordT* record, const char* name, std::string* path) {
    *path = optarg;
    return !path->empty() || Usage(record, std::string(name) + " takes a path");
}

bool Take(int code, int argc, char** argv, RecordT* record) {
    OptionsT& options = record->options;
    switch (code) {
        case kHelp:
            return options.help = true;
        case kCheck:
            return options.checkOnly = true;
        case kNoVerify:
            options.verify = false;
            return true;
        case kGiveUp:
            return Seconds(record, "--give-up", &options.giveUpMs);
        case kRetries:
            return Retries(record);
        case kPort:
            return Port(record);
        case kJson:
            return Path(record, "--json", &options.json);
        case kRecord:
            return Path(record, "--record", &options.recordFolder);
        case kPlain:
            return options.plain = true;
        case kStall:
            return Seconds(record, "--stall", &options.stallMs);
        case kConfirm:
            return Seconds(record, "--confirm", &options.confirmMs);
        case kPipePath:
            return Path(record, "--pipe", &options.pipe);
        case kRange:
            return Range(record, argc, argv);
        case kStrict:
            return true;
        default:
            return Usage(record, "bad option '" + std::string(argv[optind - 1]) + "' (try --help)");
    }
}

bool Words(RecordT* record, std::vector<std::string> words) {
    OptionsT& options = record->options;
    if (words.empty()) {
        return Usage(record, options.ownUpdater
                                 ? "nothing to do: no updater behind '--'"
                                 : "nothing to do: say what to update (all, micro, overlook)");
    }
    if (std::find(words.begin(), words.end(), "-p") != words.end()) {
        return Usage(record, "'-p' is kestrelwatch's to add: use --pipe and --range");
    }
    options.words = std::move(words);
    if (!options.ownUpdater) {
        options.words.insert(options.words.begin(), kDefaultUpdater);
    }
    return true;
}

}  // namespace

bool ParseOptions(int argc, char** argv, RecordT* record) {
    char** const end = argv + argc;
    char** const dashes =
        std::find_if(argv, end, [](const char* word) { return strcmp(word, "--") == 0; });
    const int own = static_cast<int>(dashes - argv);
    std::vector<std::string> words;
    opterr = 0;
    optind = 0;  // anew
    for (;;) {
        // '-': other words come in their order, as values of option 1.
        const int code = getopt_long(own, argv, "-h", kOptions, nullptr);
        if (code == -1) {
            break;
        }
        if (code == 1) {
            words.emplace_back(optarg);
        } else if (!Take(code, own, argv, record)) {
            return false;
        }
    }
    if (record->options.help) {
        return true;
    }
    record->options.ownUpdater = dashes != end;
    if (dashes != end && !words.empty()) {
        return Usage(record, "'" + words[0] +
                                 "' stands before '--': give the updater's arguments behind its "
                                 "name");
    }
    return Words(record, dashes == end ? words : std::vector<std::string>(dashes + 1, end));
}

std::string HelpText() {
    return kHelpText;
}

}  // namespace watch
