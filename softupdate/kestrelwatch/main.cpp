// kestrelwatch: the front door to the updater, step by step. See docs/LAUNCHER.md.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "Common/OS/linux/standardfds.h"
#include "softupdate/kestrelwatch/check.h"
#include "softupdate/kestrelwatch/follow.h"
#include "softupdate/kestrelwatch/options.h"
#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

namespace {

constexpr int kLastQuestions = 3;  // a camera may still be starting at the first
constexpr unsigned kQuestionPauseMs = 1000;

// The words of a question about the wanted targets. A request to reboot is no question.
std::vector<std::string> Question(const RecordT& record) {
    std::vector<std::string> words = record.options.words;
    if (record.plan.reboot) {
        std::erase(words, "rebootoverlook");
        std::erase(words, "micro");
        std::replace(words.begin(), words.end(), std::string("all"), std::string("overlook"));
    }
    words.emplace_back("q");
    return words;
}

std::vector<std::string> Command(const RecordT& record, const Place& place) {
    std::vector<std::string> words = record.options.words;
    words.insert(words.end(), {"-p", place.PipePath(), std::to_string(record.options.range.low),
                               std::to_string(record.options.range.high)});
    return words;
}

void TellFindings(SessionT* session, const PlanT& plan) {
    for (const FindingT& finding : plan.findings) {
        if (finding.level != FindingT::kFine) {
            session->Notice(finding.subject + ": " + finding.text + ".");
        }
    }
}

// What is about to be done, from the unit's own answer.
void TellNeeds(SessionT* session, const RecordT& record) {
    for (const ImageT image : {kMicro, kCamera, kSystem}) {
        const ImageStoryT& it = record.ask.story.images[image];
        if (record.plan.Wants(image) && it.needed) {
            const long offered = record.plan.images[image].version;
            session->Notice(std::string(ImageName(image)) + ": from " +
                            VersionText(image, it.current) + " to " + VersionText(image, offered) +
                            (it.current > offered ? ", which is older." : "."));
        }
    }
}

// Everything that the runs need. False when the verdict says why not.
bool SetUp(RecordT* record, SessionT* session) {
    if (!session->signals.Open() || !OpenTerminalChannel(&session->channels.output) ||
        !OpenPipeChannel(&session->channels.error)) {
        return Refuse(record, kStatusInternal, CauseT::kInternal,
                      std::string("no descriptors to be had: ") + strerror(errno));
    }
    std::string why;
    const int status = session->place.Make(*record, &why);
    if (status != 0) {
        return Refuse(record, status, status == kStatusPipe ? CauseT::kPipe : CauseT::kFolder, why);
    }
    session->guard = std::make_unique<Guard>();
    if (!session->guard->Start(&session->place, &session->channels)) {
        return Refuse(record, kStatusInternal, CauseT::kInternal,
                      std::string("no process to be had: ") + strerror(errno));
    }
    return true;
}

void Ask(RecordT* record, SessionT* session) {
    session->journal.Step("ask");
    const bool query = record->plan.query;
    Follow(session, *record, query ? record->options.words : Question(*record), true, &record->ask);
    record->filesChanged = NoteChanges(&record->plan);
    session->journal.Unit("before", *record, record->ask);
}

void Update(RecordT* record, SessionT* session) {
    session->journal.Step("update");
    session->pace.Plan(*record);
    TellNeeds(session, *record);
    Follow(session, *record, Command(*record, session->place), false, &record->update);
    record->filesChanged = NoteChanges(&record->plan);
}

// After a failure too: only the unit knows what it holds.
void AskAgain(RecordT* record, SessionT* session) {
    session->journal.Step("verify");
    for (int question = 1; question <= kLastQuestions; question++) {
        Follow(session, *record, Question(*record), true, &record->verify);
        if (EndedWell(record->verify) || record->verify.interruptedBy != 0 ||
            record->verify.gaveUp || !EndedWell(record->update)) {
            break;
        }
        if (question < kLastQuestions) {
            session->Notice("the unit does not say what it runs; asking again.");
            usleep(kQuestionPauseMs * 1000);
        }
    }
    record->filesChanged = NoteChanges(&record->plan);
    session->journal.Unit("after", *record, record->verify);
}

void RunOnce(RecordT* record, SessionT* session) {
    record->ask = record->update = record->verify = RunT();
    session->pace = Pace();
    const bool asked = !record->plan.RebootsOnly() || record->plan.query;
    if (asked) {
        Ask(record, session);
    }
    const RunT& ask = record->ask;
    const bool due =
        !asked || (EndedWell(ask) && ask.story.troubles.empty() && !record->filesChanged &&
                   (ask.story.summary == StoryT::kUpdateDue || record->plan.reboot));
    if (due && !record->plan.query) {
        Update(record, session);
        const RunT& update = record->update;
        if (asked && record->options.verify && update.started && update.interruptedBy == 0 &&
            !update.gaveUp) {
            AskAgain(record, session);
        }
    }
    record->updateMs = NowMs() - record->startMs;
    Judge(record);
}

// So that a later try does not call untouched what this one has sent.
void Remember(RecordT* record) {
    for (const ImageT image : {kMicro, kCamera, kSystem}) {
        EarlierT& earlier = record->earlier[image];
        if (record->update.story.images[image].touched && !earlier.sent) {
            earlier = {true, record->ask.story.images[image].current};
        }
    }
}

void Run(RecordT* record, SessionT* session) {
    for (int left = record->options.retries;; left--) {
        RunOnce(record, session);
        if (record->verdict.status == 0 || !record->verdict.repeatable || left == 0) {
            return;
        }
        session->Notice(record->verdict.headline + "; running again (" + std::to_string(left) +
                        (left == 1 ? " try left)." : " tries left)."));
        Remember(record);
    }
}

void LeaveBar(const RecordT& record, SessionT* session) {
    SightT sight;
    sight.elapsedMs = NowMs() - record.startMs;
    sight.what = record.verdict.status == 0 ? "done" : "ended";
    session->pace.Fill(NowMs(), &sight);
    sight.leftMs = -1;
    session->screen->Finish(sight);
}

// Checks, locks, asks, updates, asks again and reports, as the options say. Returns the status.
int Launch(RecordT* record) {
    record->startMs = NowMs();
    const bool checkOnly = record->options.checkOnly;
    std::vector<std::string> notices;
    SessionT session;
    bool fine = Check(record) && session.lock.Take(record) && CheckLines(record);
    fine = fine && (checkOnly || SetUp(record, &session));
    session.screen = std::make_unique<Screen>(record->options.plain);
    session.journal.Open(*record, &notices);
    for (const std::string& notice : notices) {
        session.screen->Say(notice);
    }
    session.journal.Step("check");
    session.journal.Plan(record->plan);
    if (checkOnly) {
        fputs(CheckTable(record->plan).c_str(), stdout);
        fflush(stdout);
    } else {
        TellFindings(&session, record->plan);
    }
    if (fine && checkOnly) {
        record->verdict = {0,  CauseT::kNone, "CHECKED: an update may start", "not asked",
                           "", false};
    } else if (fine) {
        Run(record, &session);
        LeaveBar(*record, &session);
    }
    // In this order: killed in between, kestrelwatch still has a guard that removes the rest.
    session.place.Remove();
    session.guard.reset();
    session.screen->Say(record->verdict.Text());
    session.journal.Verdict(*record);
    session.signals.Release();
    return record->verdict.status;
}

}  // namespace

}  // namespace watch

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
