// Objects and their two files.
#include "softupdate/kestrelwatch/journal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "softupdate/kestrelwatch/check.h"
#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

namespace {

constexpr int kVersion = 1;
constexpr int kLastWaitMs = 5000;

// Bytes beyond ASCII stand for the characters of the same number.
std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (byte < 0x20 || byte > 0x7E) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", byte);
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

std::string WallClock(const char* format) {
    const time_t now = time(nullptr);
    struct tm utc = {};
    char text[40] = "";
    if (gmtime_r(&now, &utc) != nullptr) {
        strftime(text, sizeof(text), format, &utc);
    }
    return text;
}

std::string List(const std::vector<std::string>& items) {
    std::string list;
    for (const std::string& item : items) {
        list += (list.empty() ? "" : ",") + item;
    }
    return "[" + list + "]";
}

// "fd:3" as 3; -1 for another text.
int DescriptorIn(const std::string& text) {
    if (!text.starts_with("fd:") || text.size() < 4 || text.size() > 8 ||
        text.find_first_not_of("0123456789", 3) != std::string::npos) {
        return -1;
    }
    return atoi(text.c_str() + 3);
}

std::string OpenFailure(const std::string& name) {
    return name + " cannot be written: " + strerror(errno) + "; the update goes on without it.";
}

}  // namespace

Json& Json::Raw(const char* name, const std::string& value) {
    members_ += (members_.empty() ? "" : ",") + Quoted(name) + ":" + value;
    return *this;
}

Json& Json::Text(const char* name, std::string_view value) {
    return Raw(name, Quoted(value));
}

Json& Json::Number(const char* name, std::int64_t value) {
    return Raw(name, std::to_string(value));
}

Json& Json::Seconds(const char* name, std::int64_t ms) {
    char text[40];
    snprintf(text, sizeof(text), "%lld.%03lld", static_cast<long long>(ms / 1000),
             static_cast<long long>(ms % 1000));
    return Raw(name, text);
}

Json& Json::Flag(const char* name, bool value) {
    return Raw(name, value ? "true" : "false");
}

void Journal::Add(SinkT sink) {
    if (outlet_ == nullptr) {
        outlet_ = std::make_unique<Outlet>(Outlet::kGiveUp, kLastWaitMs);
    }
    sinks_.push_back(std::move(sink));
}

void Journal::Open(const RecordT& record, std::vector<std::string>* notices) {
    const OptionsT& options = record.options;
    startMs_ = record.startMs;
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY;
    if (!options.json.empty()) {
        const int given = DescriptorIn(options.json);
        Fd file(given >= 0 ? fcntl(given, F_DUPFD_CLOEXEC, 3)
                           : open(options.json.c_str(), flags | O_TRUNC | O_NONBLOCK, 0644));
        if (file.Get() < 0) {
            notices->push_back(OpenFailure(options.json));
        } else {
            Add({std::move(file), options.json, false, false});
        }
    }
    if (!options.recordFolder.empty()) {
        mkdir(options.recordFolder.c_str(), 0755);
        const std::string path = options.recordFolder + "/kestrelwatch-" +
                                 WallClock("%Y%m%d-%H%M%S") + "-" + std::to_string(getpid()) +
                                 ".jsonl";
        Fd file(open(path.c_str(), flags | O_EXCL, 0644));
        if (file.Get() < 0) {
            notices->push_back(OpenFailure(path));
        } else {
            Add({std::move(file), path, true, false});
        }
    }
    std::vector<std::string> words;
    for (const std::string& word : options.words) {
        words.push_back(Quoted(word));
    }
    Write("start", Json()
                       .Number("version", kVersion)
                       .Text("time", WallClock("%Y-%m-%dT%H:%M:%SZ"))
                       .Number("process", getpid())
                       .Raw("command", List(words)));
    utsname host = {};
    if (uname(&host) == 0) {
        Write("host",
              Json()
                  .Text("name", host.nodename)
                  .Text("system", std::string(host.sysname) + " " + host.release)
                  .Text("machine", host.machine),
              true);
    }
}

void Journal::Write(const char* event, const Json& members, bool recordOnly) {
    if (outlet_ == nullptr) {
        return;
    }
    const std::string head = Json().Seconds("t", NowMs() - startMs_).Text("event", event).Object();
    const std::string body = members.Object();
    const std::string line =
        head.substr(0, head.size() - 1) + (body.size() > 2 ? "," + body.substr(1) : "}") + "\n";
    for (const SinkT& sink : sinks_) {
        if (sink.record || !recordOnly) {
            outlet_->Post(sink.file.Get(), line);
        }
    }
}

void Journal::Step(const char* step) {
    Write("step", Json().Text("step", step));
}

void Journal::Plan(const PlanT& plan) {
    std::vector<std::string> images;
    for (const ImageT image : {kMicro, kCamera, kSystem}) {
        const ImageFactsT& facts = plan.images[image];
        if (plan.Wants(image)) {
            images.push_back(Json()
                                 .Text("image", ImageName(image))
                                 .Text("file", kImageFiles[image])
                                 .Number("bytes", facts.file.size)
                                 .Text("sha256", facts.sha256)
                                 .Text("offers", VersionText(image, facts.version))
                                 .Number("blocks", static_cast<int>(facts.blockMs.size()))
                                 .Object());
        }
    }
    std::vector<std::string> findings;
    for (const FindingT& finding : plan.findings) {
        static const char* const kLevels[] = {"ok", "notice", "refused"};
        findings.push_back(Json()
                               .Text("level", kLevels[finding.level])
                               .Text("subject", finding.subject)
                               .Text("text", finding.text)
                               .Object());
    }
    Write("plan", Json()
                      .Raw("images", List(images))
                      .Text("micro_line", plan.nodes[kMicroTarget])
                      .Text("camera_line", plan.nodes[kCameraTarget])
                      .Raw("findings", List(findings)));
}

void Journal::Unit(const char* when, const RecordT& record, const RunT& run) {
    Json members;
    members.Text("when", when);
    for (const ImageT image : {kMicro, kCamera, kSystem}) {
        const ImageStoryT& it = run.story.images[image];
        if (it.upToDate || it.current >= 0) {
            const long version = it.upToDate ? record.plan.images[image].version : it.current;
            members.Raw(ImageName(image),
                        Json()
                            .Text("runs", VersionText(image, version))
                            .Flag("confirmed", Confirmed(record.plan, run.story, image))
                            .Object());
        }
    }
    Write("unit", members);
}

void Journal::Progress(const SightT& sight, const Pace& pace, const StoryT& story) {
    Json members;
    members.Text("what", sight.what)
        .Number("percent", sight.percent)
        .Number("acknowledged", pace.Acknowledged())
        .Number("bytes", pace.Total())
        .Number("in_flight",
                static_cast<std::int64_t>(sight.inFlight * static_cast<double>(pace.Total())));
    if (story.block >= 0) {
        members.Text("image", ImageName(story.image))
            .Number("block", story.block + 1)
            .Number("blocks", story.images[story.image].blocks)
            .Number("attempt", story.attempt);
    }
    if (sight.leftMs >= 0) {
        members.Seconds("left", sight.leftMs);
    }
    if (sight.rate > 0) {
        members.Number("rate", sight.rate);
    }
    if (story.position >= 0) {
        members.Number("position", story.position);
    }
    Write("progress", members);
}

void Journal::Notice(const std::string& text) {
    Write("notice", Json().Text("text", text));
}

void Journal::Line(const char* stream, std::string_view line) {
    Write("line", Json().Text("from", stream).Text("text", line), true);
}

void Journal::Verdict(const RecordT& record) {
    const VerdictT& verdict = record.verdict;
    Write("verdict", Json()
                         .Number("status", verdict.status)
                         .Text("cause", CauseCode(verdict.cause))
                         .Text("headline", verdict.headline)
                         .Text("unit", verdict.unit)
                         .Text("next", verdict.next)
                         .Flag("repeatable", verdict.repeatable));
}

std::vector<std::string> Journal::TakeLosses() {
    std::vector<std::string> losses;
    for (SinkT& sink : sinks_) {
        const int error = outlet_->Lost(sink.file.Get());
        if (error != 0 && !std::exchange(sink.lossTold, true)) {
            losses.push_back(sink.name + " is lost (" + strerror(error) + "); the update goes on.");
        }
    }
    return losses;
}

}  // namespace watch
