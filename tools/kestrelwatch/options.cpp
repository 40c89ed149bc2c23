// Command line through CLI11; the range and the seconds are checked here for lines of their own.
#include "tools/kestrelwatch/options.h"

#include <string.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <memory>
#include <utility>

#include "tools/kestrelwatch/statuses.h"

namespace watch {

namespace {

const char* const kDefaultUpdater = "kestrelflash";
// The updater multiplies up to 100 percent by the width of the range in 32 bits.
const std::int64_t kMaxWidth = INT32_MAX / 100;
const double kMaxSeconds = 86400;

int RangeLimit(const std::string& text) {
    int value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end) {
        throw SetupError(kStatusRange, "bad range: '" + text + "' is not a 32-bit number");
    }
    return value;
}

RangeT ParseRange(const std::pair<std::string, std::string>& texts) {
    const RangeT range = {RangeLimit(texts.first), RangeLimit(texts.second)};
    if (range.low >= range.high) {
        throw SetupError(kStatusRange, "bad range: the low end " + texts.first +
                                           " is not below the high end " + texts.second);
    }
    if (range.high <= 0) {
        throw SetupError(kStatusRange, "bad range: the updater reports only positions above 0");
    }
    if (std::int64_t{range.high} - range.low > kMaxWidth) {
        throw SetupError(kStatusRange,
                         "bad range: wider than " + std::to_string(kMaxWidth) +
                             " positions, which the updater's arithmetic does not hold");
    }
    return range;
}

std::int64_t Milliseconds(const char* option, double seconds) {
    if (!(seconds >= 0 && seconds <= kMaxSeconds)) {
        throw SetupError(kStatusUsage, std::string(option) + " takes 0 to 86400 seconds");
    }
    return static_cast<std::int64_t>(seconds * 1000);
}

std::vector<std::string> Command(std::vector<std::string> words, int argc,
                                 const char* const* argv) {
    if (argc == 0 && words.empty()) {
        throw SetupError(kStatusUsage, "nothing to do: say what to update (all, micro, overlook)");
    }
    if (argc > 0 && !words.empty()) {
        throw SetupError(kStatusUsage, "'" + words[0] +
                                           "' stands before '--': give the updater's "
                                           "arguments behind its name");
    }
    if (argc > 0) {
        words.assign(argv, argv + argc);
    } else {
        words.insert(words.begin(), kDefaultUpdater);
    }
    if (std::find(words.begin(), words.end(), "-p") != words.end()) {
        throw SetupError(kStatusUsage, "'-p' is kestrelwatch's to add: use --pipe and --range");
    }
    return words;
}

class UsageFormatter : public CLI::Formatter {
  public:
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
        return "Usage: kestrelwatch [options] all|micro|overlook [q]\n"
               "       kestrelwatch [options] -- updater arguments...\n";
    }
};

std::string Footer() {
    return "Without '--' the updater is " + std::string(kDefaultUpdater) +
           ", found beside kestrelwatch or in PATH.\n"
           "kestrelwatch adds '-p <pipe> <low> <high>' to the updater's arguments itself.\n"
           "The bar and kestrelwatch's own lines go to standard error.\n\n" +
           StatusTable();
}

}  // namespace

OptionsT ParseOptions(int argc, const char* const* argv) {
    const char* const* end = argv + argc;
    const char* const* dashes =
        std::find_if(argv, end, [](const char* word) { return strcmp(word, "--") == 0; });
    OptionsT options;
    std::vector<std::string> words;
    std::pair<std::string, std::string> range = {"0", "100"};
    double stall = 30;
    double confirm = 10;
    CLI::App app("Starts the updater, follows its progress pipe and shows a bar.", "kestrelwatch");
    app.formatter(std::make_shared<UsageFormatter>());
    app.footer(Footer());
    app.add_option("arguments", words, "Arguments of the updater");
    const CLI::Option* pipe =
        app.add_option("--pipe", options.pipe, "Path of the pipe (default: in a private folder)")
            ->type_name("PATH");
    app.add_option("--range", range, "Positions that the pipe carries (default: 0 100)")
        ->type_name("LOW HIGH");
    app.add_flag("--strict", options.strict, "A success that cannot be trusted is status 120");
    app.add_option("--stall", stall, "Warn when nothing has moved for so long; 0: never")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option("--confirm", confirm, "Time for the second Ctrl-C, which interrupts")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--plain", options.plain, "Lines instead of a bar, on a terminal too");
    try {
        app.parse(static_cast<int>(dashes - argv), argv);
    } catch (const CLI::CallForHelp&) {
        options.help = app.help();
        return options;
    } catch (const CLI::ParseError& error) {
        throw SetupError(kStatusUsage, std::string(error.what()) + " (try --help)");
    }
    if (pipe->count() > 0 && options.pipe.empty()) {
        throw SetupError(kStatusUsage, "--pipe takes a path");
    }
    options.range = ParseRange(range);
    options.stallMs = Milliseconds("--stall", stall);
    options.confirmMs = Milliseconds("--confirm", confirm);
    const char* const* command = dashes == end ? end : dashes + 1;
    if (dashes != end && command == end) {
        throw SetupError(kStatusUsage, "nothing to do: no updater behind '--'");
    }
    options.command = Command(words, static_cast<int>(end - command), command);
    return options;
}

}  // namespace watch
