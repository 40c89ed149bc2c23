// The judgement and its words.
#include "softupdate/kestrelwatch/verdict.h"

#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

namespace watch {

namespace {

struct CauseRowT {
    CauseT cause;
    bool repeatable;  // another run may end better, and does no harm
    const char* code;
    const char* next;
};

const char kRunAgain[] = "run again";
const char kPowerCycle[] = "switch the unit off and on, then run again";
const char kFiles[] = "put the right file in place, then run again";
const char kLine[] = "check that the unit is on and its line connected, then run again";
const char kCommand[] = "see kestrelwatch --help";

const CauseRowT kCauseRows[] = {
    {CauseT::kNone, false, "none", "nothing"},
    {CauseT::kUsage, false, "usage", kCommand},
    {CauseT::kRange, false, "range", kCommand},
    {CauseT::kPipe, false, "pipe", "give another path with --pipe, or none"},
    {CauseT::kFolder, false, "folder", "make room and rights there, then run again"},
    {CauseT::kInternal, false, "internal", kRunAgain},
    {CauseT::kUpdaterMissing, false, "updater-missing", "install the updater beside kestrelwatch"},
    {CauseT::kUpdaterRefused, false, "updater-not-executable", "install the updater anew"},
    {CauseT::kUpdaterStrange, false, "updater-strange", "see that the program is the updater"},
    {CauseT::kUpdaterFailed, true, "updater-failed", kLine},
    {CauseT::kImageMissing, false, "image-missing", kFiles},
    {CauseT::kImageBad, false, "image-bad", kFiles},
    {CauseT::kVersionBad, false, "version-bad", kFiles},
    {CauseT::kImageRead, false, "image-unreadable", kFiles},
    {CauseT::kNode, false, "node", "see that the line is there and free, then run again"},
    {CauseT::kLauncherPipe, false, "stale-pipe", "remove that pipe or serve it, then run again"},
    {CauseT::kLocked, false, "locked", "wait until that update has ended"},
    {CauseT::kLineFailed, true, "line-failed", kLine},
    {CauseT::kLineWrite, true, "line-write", kLine},
    {CauseT::kNoAnswer, true, "no-answer", kLine},
    {CauseT::kAnswerCut, true, "answer-cut", kLine},
    {CauseT::kBlockUnanswered, false, "block-unanswered", kPowerCycle},
    {CauseT::kBlockCut, false, "block-answer-cut", kPowerCycle},
    {CauseT::kBlockRefused, false, "block-refused", kPowerCycle},
    {CauseT::kUnknownReply, false, "unknown-reply", kPowerCycle},
    {CauseT::kFilesChanged, false, "files-changed", "leave the files alone and run again"},
    {CauseT::kGaveUp, true, "gave-up", kLine},
    {CauseT::kInterrupted, false, "interrupted", "run again at any time"},
    {CauseT::kSignal, false, "signal", kRunAgain},
    {CauseT::kUnconfirmed, true, "unconfirmed", kLine},
    {CauseT::kStillDifferent, false, "still-different", kPowerCycle},
    {CauseT::kNotAsked, false, "not-asked", "ask with q before relying on it"},
};
static_assert(sizeof(kCauseRows) / sizeof(kCauseRows[0]) == static_cast<size_t>(CauseT::kCauses));

const CauseRowT& RowOf(CauseT cause) {
    return kCauseRows[static_cast<size_t>(cause)];
}

constexpr ImageT kEveryImage[] = {kMicro, kCamera, kSystem};

bool Partial(const RecordT& record, ImageT image) {
    const ImageStoryT& sent = record.update.story.images[image];
    return sent.touched && !sent.Complete();
}

bool AnyPartial(const RecordT& record) {
    return Partial(record, kMicro) || Partial(record, kCamera) || Partial(record, kSystem);
}

// The version that the unit reported in a run; -1: it did not.
long Reported(const RecordT& record, const RunT& run, ImageT image) {
    const ImageStoryT& it = run.story.images[image];
    const ImageFactsT& file = record.plan.images[image];
    return it.upToDate && !file.changed ? file.version : it.current;
}

// What one image's place in the unit holds, without its name.
std::string Held(const RecordT& record, ImageT image) {
    const ImageStoryT& sent = record.update.story.images[image];
    const long offered = record.plan.images[image].version;
    const long after = Reported(record, record.verify, image);
    const long before = Reported(record, record.ask, image);
    if (Confirmed(record.plan, record.verify.story, image)) {
        return VersionText(image, offered) + ", verified";
    }
    if (after >= 0) {
        return (after == before ? "still " : "reports ") + VersionText(image, after);
    }
    if (sent.touched && record.plan.images[image].changed) {
        return "was sent a file that changed, not verified";
    }
    if (sent.touched || (before < 0 && record.earlier[image].sent)) {
        return "was sent " + VersionText(image, offered) + ", not verified";
    }
    if (before < 0) {
        return "not touched";
    }
    return VersionText(image, before) + (before == offered ? ", up to date" : ", not touched");
}

// A target that was sent a part, or of whose answers the updater lost count; empty: neither.
std::string Broken(const RecordT& record, TargetT target) {
    bool touched = false;
    bool partial = false;
    bool confirmed = true;
    int acknowledged = 0;
    for (const ImageT image : kEveryImage) {
        if (TargetOf(image) == target) {
            const ImageStoryT& sent = record.update.story.images[image];
            touched = touched || sent.touched;
            partial = partial || Partial(record, image);
            confirmed = confirmed && Confirmed(record.plan, record.verify.story, image);
            acknowledged += sent.acknowledged;
        }
    }
    const std::string name = TargetName(target);
    if (partial && confirmed) {
        return name + " reports the new version, but may hold only part of its image";
    }
    if (partial && acknowledged == 0) {
        return name + " may have erased its image and not start";
    }
    if (partial) {
        return name + " holds part of an image and " +
               (target == kMicroTarget ? "may not start" : "will not start");
    }
    return touched && record.update.story.TroubleOf(target) != nullptr
               ? name + " may hold a damaged image"
               : "";
}

std::string UnitText(const RecordT& record) {
    std::string text;
    for (const TargetT target : {kMicroTarget, kCameraTarget}) {
        if (!record.plan.wanted[target]) {
            continue;
        }
        const std::string broken = Broken(record, target);
        if (!broken.empty()) {
            text += (text.empty() ? "" : "; ") + broken;
            continue;
        }
        for (const ImageT image : kEveryImage) {
            if (TargetOf(image) == target) {
                text += (text.empty() ? "" : "; ") + std::string(ImageName(image)) + " " +
                        Held(record, image);
            }
        }
    }
    return text.empty() ? "not asked" : text;
}

// From which version to which, of the images that are needed.
std::string Changes(const RecordT& record, const RunT& run, const char* otherwise) {
    std::string text;
    for (const ImageT image : kEveryImage) {
        const ImageStoryT& it = run.story.images[image];
        const bool asked = &run == &record.ask;
        const bool earlier = asked && record.earlier[image].sent;
        if (record.plan.Wants(image) && (it.needed || earlier)) {
            const long from = earlier ? record.earlier[image].from : it.current;
            const long offered = record.plan.images[image].version;
            text += (text.empty() ? "" : ", ") + std::string(ImageName(image)) + " " +
                    VersionText(image, from) + " to " + VersionText(image, offered) +
                    (asked && from > offered ? " (older)" : "");
        }
    }
    return text.empty() ? otherwise : text;
}

void Say(RecordT* record, int status, CauseT cause, const std::string& headline) {
    VerdictT& verdict = record->verdict;
    const bool partial = AnyPartial(*record);
    verdict.status = status;
    verdict.cause = cause;
    verdict.headline = headline;
    verdict.unit = UnitText(*record);
    verdict.next = partial ? kPowerCycle : RowOf(cause).next;
    verdict.repeatable = RowOf(cause).repeatable && !partial;
}

void Fail(RecordT* record, int status, CauseT cause, const std::string& why) {
    Say(record, status, cause, "FAILED: " + why);
}

// All that the lines of a run gave away, the first cause first.
std::string Troubles(const StoryT& story) {
    std::string text;
    for (const TroubleT& trouble : story.troubles) {
        text += (text.empty() ? "" : "; then ") + trouble.text;
    }
    return text;
}

// It ended as if it had done its work, and did not say so.
bool Mute(const RunT& run) {
    const int exit = WEXITSTATUS(run.waitStatus);
    return !run.story.spoke || exit == 0 || (run.story.asks && exit == 1);
}

std::string SignalText(int number) {
    return "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
}

// How a run ended that did not end well and whose lines do not tell more.
std::string EndText(const RunT& run) {
    const std::string what = run.story.What();
    const std::string status =
        "the updater ended with status " + std::to_string(WEXITSTATUS(run.waitStatus));
    if (run.interruptedBy != 0) {
        return "interrupted at " + what;
    }
    if (run.gaveUp) {
        return "given up at " + what;
    }
    if (WIFSIGNALED(run.waitStatus)) {
        return "the updater was ended by " + SignalText(WTERMSIG(run.waitStatus)) + " at " + what;
    }
    return Mute(run) ? status + " and did not say what it found" : status;
}

// The first cause before the last.
void FailRun(RecordT* record, const RunT& run) {
    const StoryT& story = run.story;
    const bool signalled = WIFSIGNALED(run.waitStatus);
    const int exit = WEXITSTATUS(run.waitStatus);
    std::string how = EndText(run);
    CauseT cause = CauseT::kUpdaterFailed;
    int status = signalled ? kStatusSignalBase + WTERMSIG(run.waitStatus) : exit;
    if (run.interruptedBy != 0) {
        cause = CauseT::kInterrupted;
        status = signalled ? status : kStatusSignalBase + run.interruptedBy;
    } else if (run.gaveUp) {
        cause = CauseT::kGaveUp;
        status = kStatusGaveUp;
    } else if (signalled) {
        cause = CauseT::kSignal;
    } else if (Mute(run)) {
        cause = CauseT::kUpdaterStrange;
        status = exit <= 1 ? static_cast<int>(kStatusDoubtful) : exit;
    }
    if (!story.troubles.empty()) {
        const bool more = cause != CauseT::kUpdaterFailed;
        cause = story.troubles[0].cause;
        how = Troubles(story) + (more ? "; then " + how : "");
    }
    Fail(record, status, cause, how);
}

// An image that was needed in this run and not acknowledged to its end; kImages: none.
ImageT Unfinished(const RecordT& record) {
    for (const ImageT image : kEveryImage) {
        const ImageStoryT& it = record.update.story.images[image];
        if (record.plan.Wants(image) && !it.upToDate && !it.Complete()) {
            return image;
        }
    }
    return kImages;
}

void SayRebooted(RecordT* record) {
    Say(record, 0, CauseT::kNone, "DONE: the microcontroller was asked to reboot the camera");
}

// The unit has said that it runs what the files offer.
void SayUpdated(RecordT* record) {
    const std::string changes = Changes(*record, record->ask, "");
    Say(record, 0, CauseT::kNone,
        (changes.empty() ? "UP TO DATE"
                         : "UPDATED in " + ElapsedText(record->updateMs) + ": " + changes) +
            (record->plan.reboot ? ", and the camera was asked to reboot" : ""));
}

void JudgeQuery(RecordT* record) {
    const RunT& ask = record->ask;
    if (record->plan.RebootsOnly()) {
        SayRebooted(record);
    } else if (WEXITSTATUS(ask.waitStatus) == 1) {
        Say(record, 1, CauseT::kNone,
            "UPDATE NEEDED: " + Changes(*record, ask, "an image differs"));
        record->verdict.next = "run without q";
    } else if (AllConfirmed(record->plan, ask.story)) {
        Say(record, 0, CauseT::kNone, "UP TO DATE");
    } else {
        Fail(record, kStatusDoubtful, CauseT::kUnconfirmed, "not every image was asked for");
    }
}

}  // namespace

const char* CauseCode(CauseT cause) {
    return RowOf(cause).code;
}

bool Refuse(RecordT* record, int status, CauseT cause, const std::string& text) {
    record->verdict = {status, cause, "FAILED: " + text, "not touched", RowOf(cause).next, false};
    return false;
}

bool EndedWell(const RunT& run) {
    if (!run.started || run.gaveUp || run.interruptedBy != 0 || WIFSIGNALED(run.waitStatus) ||
        !run.story.spoke) {
        return false;
    }
    const int exit = WEXITSTATUS(run.waitStatus);
    if (!run.story.asks) {
        return exit == 0;
    }
    return (exit == 0 && run.story.summary == StoryT::kNothingDue) ||
           (exit == 1 && run.story.summary == StoryT::kUpdateDue);
}

bool Confirmed(const PlanT& plan, const StoryT& story, ImageT image) {
    const ImageStoryT& it = story.images[image];
    // From 0x8000 on the updater finds a difference where there is none.
    const ImageFactsT& file = plan.images[image];
    return (it.upToDate && !file.changed) || (it.needed && it.current == file.version);
}

bool AllConfirmed(const PlanT& plan, const StoryT& story) {
    for (const ImageT image : kEveryImage) {
        if (plan.Wants(image) && !Confirmed(plan, story, image)) {
            return false;
        }
    }
    return true;
}

void Judge(RecordT* record) {
    const PlanT& plan = record->plan;
    const RunT& ask = record->ask;
    const RunT& update = record->update;
    const RunT& verify = record->verify;
    for (const RunT* run : {&ask, &update, &verify}) {
        if (!run->untold.empty()) {
            Fail(record, run->waitStatus, CauseT::kUpdaterRefused, run->untold);
            return;
        }
    }
    if (ask.started && !EndedWell(ask)) {
        FailRun(record, ask);
    } else if (ask.started && !ask.story.troubles.empty()) {
        Fail(record, kStatusDoubtful, ask.story.troubles[0].cause, Troubles(ask.story));
    } else if (record->filesChanged && !update.started) {
        Fail(record, kStatusDoubtful, CauseT::kFilesChanged,
             "the files were changed before anything was sent");
    } else if (plan.query) {
        JudgeQuery(record);
    } else if (!update.started && AllConfirmed(plan, ask.story)) {
        SayUpdated(record);
    } else if (!update.started) {
        Fail(record, kStatusDoubtful, CauseT::kUnconfirmed, "not every image was asked for");
    } else if (!EndedWell(update)) {
        FailRun(record, update);
    } else if (!update.story.troubles.empty()) {
        Fail(record, kStatusDoubtful, update.story.troubles[0].cause, Troubles(update.story));
    } else if (plan.RebootsOnly()) {
        SayRebooted(record);
    } else if (const ImageT image = Unfinished(*record); image != kImages) {
        Fail(record, kStatusDoubtful, CauseT::kBlockUnanswered,
             std::string(ImageName(image)) + ": not every block was sent and acknowledged");
    } else if (record->filesChanged) {
        Fail(record, kStatusDoubtful, CauseT::kFilesChanged,
             "the files were changed while the update ran");
    } else if (!verify.started) {
        Fail(record, kStatusDoubtful, CauseT::kNotAsked,
             "sent, but the unit was not asked what it runs");
    } else if (verify.interruptedBy != 0) {
        FailRun(record, verify);
    } else if (!EndedWell(verify)) {
        Fail(record, kStatusDoubtful, CauseT::kUnconfirmed,
             "sent, but the unit does not say what it runs: " +
                 (verify.story.troubles.empty() ? EndText(verify) : Troubles(verify.story)));
    } else if (!AllConfirmed(plan, verify.story)) {
        Fail(record, kStatusDoubtful, CauseT::kStillDifferent,
             "sent, but the unit does not say that it runs it: " +
                 Changes(*record, verify, "an image was not asked for"));
    } else {
        SayUpdated(record);
    }
}

std::string VerdictT::Text() const {
    return status == 0 ? headline + ". The unit: " + unit + "."
                       : headline + ". The unit: " + unit + ". Next: " + next + ".";
}

std::string ElapsedText(std::int64_t ms) {
    const long long seconds = ms / 1000;
    char text[40];
    if (seconds < 3600) {
        snprintf(text, sizeof(text), "%lld:%02lld", seconds / 60, seconds % 60);
    } else {
        snprintf(text, sizeof(text), "%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60,
                 seconds % 60);
    }
    return text;
}

}  // namespace watch
