// A list of steps, and where the story stands in it.
#include "softupdate/kestrelwatch/pace.h"

#include <algorithm>

#include "Common/OS/linux/board.h"

namespace watch {

namespace {

constexpr int kRestartPause = 3000000;  // microseconds, as all of these
constexpr int kReplyPause = 3000000;
constexpr double kMsOfMicros = 0.001;

double PauseMs(int usecs) {
    return BoardDelay(usecs) * kMsOfMicros;
}

}  // namespace

void Pace::PlanMicro(const PlanT& plan) {
    const ImageFactsT& facts = plan.images[kMicro];
    for (size_t block = 0; block < facts.blockMs.size(); block++) {
        steps_.push_back({StepT::kBlock, kMicro, static_cast<int>(block), facts.blockBytes[block],
                          facts.blockMs[block]});
    }
    steps_.push_back({StepT::kMicroRestart, kMicro, -1, 0, PauseMs(kRestartPause)});
}

void Pace::PlanCamera(const PlanT& plan, bool camera, bool system) {
    steps_.push_back({StepT::kCameraAsk, kCamera, -1, 0, PauseMs(kReplyPause)});
    if (!camera && !system) {
        return;
    }
    steps_.push_back({StepT::kCameraMode, kCamera, -1, 0, PauseMs(kReplyPause)});
    for (const ImageT image : {kCamera, kSystem}) {
        const ImageFactsT& facts = plan.images[image];
        const bool needed = image == kCamera ? camera : system;
        for (size_t block = 0; needed && block < facts.blockMs.size(); block++) {
            steps_.push_back({StepT::kBlock, image, static_cast<int>(block),
                              facts.blockBytes[block], facts.blockMs[block]});
        }
    }
    steps_.push_back({StepT::kCameraRestart, kCamera, -1, 0, PauseMs(kRestartPause)});
}

void Pace::Plan(const RecordT& record) {
    const PlanT& plan = record.plan;
    const ImageStoryT* const asked = record.ask.story.images;
    steps_.push_back({StepT::kStart, kMicro, -1, 0, 0});
    if (plan.Wants(kMicro) && asked[kMicro].needed) {
        PlanMicro(plan);
    }
    if (plan.Wants(kCamera)) {
        PlanCamera(plan, asked[kCamera].needed, asked[kSystem].needed);
    }
    if (record.options.verify && plan.Wants(kCamera)) {
        steps_.push_back({StepT::kAsk, kCamera, -1, 0, PauseMs(kReplyPause)});
    }
    for (const StepT& step : steps_) {
        total_ += step.bytes;
    }
}

// The step that the story is in; the current one where it tells nothing new.
size_t Pace::Find(const StoryT& story) const {
    const auto is = [&](const StepT& step) {
        if (story.asks) {
            return step.kind == StepT::kAsk;
        }
        if (story.block >= 0) {
            return step.kind == StepT::kBlock && step.image == story.image &&
                   step.block == story.block;
        }
        if (story.stage == kStageRestarting) {
            return step.kind ==
                   (story.target == kMicroTarget ? StepT::kMicroRestart : StepT::kCameraRestart);
        }
        return story.target == kCameraTarget &&
               step.kind ==
                   (story.stage == kStagePreparing ? StepT::kCameraMode : StepT::kCameraAsk);
    };
    const auto found = std::find_if(steps_.begin() + static_cast<long>(at_), steps_.end(), is);
    return found == steps_.end() ? at_ : static_cast<size_t>(found - steps_.begin());
}

void Pace::Follow(const StoryT& story, std::int64_t nowMs) {
    if (steps_.empty()) {
        return;
    }
    if (!begun_) {
        begun_ = true;
        stepMs_ = nowMs;
    }
    const StepT& before = steps_[at_];
    const size_t now = Find(story);
    if (before.kind == StepT::kBlock && !story.asks && !taken_ &&
        story.images[before.image].acknowledged > before.block) {
        taken_ = true;
        lastAckMs_ = nowMs;
        double& late = late_[TargetOf(before.image)];
        const double share = std::max(static_cast<double>(nowMs - stepMs_) / before.ms - 1, 0.0);
        late = late < 0 ? share : std::min(late, share);
        acknowledged_ += before.bytes;
    }
    if (now == at_) {
        return;
    }
    if (steps_[now].kind == StepT::kBlock &&
        (before.kind != StepT::kBlock || TargetOf(before.image) != TargetOf(steps_[now].image))) {
        firstMs_ = nowMs;
        firstBytes_ = acknowledged_;
    }
    at_ = now;
    taken_ = false;
    stepMs_ = nowMs;
}

double Pace::Needs(const StepT& step) const {
    const double late = step.kind == StepT::kBlock ? late_[TargetOf(step.image)] : 0;
    return step.ms * (1 + std::max(late, 0.0));
}

void Pace::Fill(std::int64_t nowMs, SightT* sight) const {
    if (total_ == 0 || !begun_) {
        return;
    }
    sight->percent = static_cast<int>(acknowledged_ * 100 / total_);
    const StepT& step = steps_[at_];
    const double spent = static_cast<double>(nowMs - stepMs_);
    const double needs = Needs(step);
    double left = taken_ ? 0 : std::max(needs - spent, 0.0);
    for (size_t i = at_ + 1; i < steps_.size(); i++) {
        left += Needs(steps_[i]);
    }
    sight->leftMs = static_cast<std::int64_t>(left);
    if (step.kind == StepT::kBlock && !taken_ && needs > 0) {
        sight->inFlight = std::min(spent / needs, 1.0) * step.bytes / static_cast<double>(total_);
    }
    if (step.kind == StepT::kBlock && lastAckMs_ > firstMs_) {
        sight->rate =
            static_cast<int>((acknowledged_ - firstBytes_) * 1000 / (lastAckMs_ - firstMs_));
    }
}

}  // namespace watch
