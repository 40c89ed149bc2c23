// The updater's lines, one table.
#include "tools/kestrelwatch/story.h"

#include <stdio.h>
#include <stdlib.h>

namespace watch {

namespace {

const int kMicroBlocks = 12;  // the microcontroller's image always travels as so many blocks

const char* const kMicro = "microcontroller";
const char* const kCamera = "camera";
const char* const kCameraFirmware = "camera firmware";
const char* const kSystemFirmware = "camera system";

// The number after the `nth` (from 0) occurrence of `mark`; `fallback` when there is none.
int NumberAfter(std::string_view line, char mark, int nth, int fallback) {
    size_t at = std::string_view::npos;
    for (int i = 0; i <= nth; i++) {
        at = line.find(mark, at + 1);  // npos + 1 is the start
        if (at == std::string_view::npos) {
            return fallback;
        }
    }
    const std::string digits(line.substr(at + 1, 11));
    char* end = nullptr;
    const long number = strtol(digits.c_str(), &end, 10);
    return end == digits.c_str() || number != static_cast<int>(number) ? fallback
                                                                       : static_cast<int>(number);
}

}  // namespace

// What a line does to the story, by the name of the action in the table below.
struct StoryRules {
    typedef void ActionT(Story& story, std::string_view line);

    struct RuleT {
        const char* start;
        const char* part;   // null: stays
        const char* stage;  // null: stays
        ActionT* action;    // null: none
    };

    static const RuleT kRules[];

    static void Block(Story& story, std::string_view line) {
        const int block = NumberAfter(line, '[', 0, 0);
        if (block != story.block_) {
            story.block_ = block;
            story.moves_++;
        }
        story.attempt_ = NumberAfter(line, '[', 1, 1);
        story.acknowledged_ = false;
        if (story.part_ == kMicro) {
            story.blocks_ = kMicroBlocks;
        } else {
            story.blocks_ =
                story.part_ == kCameraFirmware ? story.cameraBlocks_ : story.systemBlocks_;
        }
    }

    static void CameraTotals(Story& story, std::string_view line) {
        story.cameraBlocks_ = NumberAfter(line, ':', 0, 0);
        story.systemBlocks_ = NumberAfter(line, ':', 1, 0);
    }

    static void Acknowledged(Story& story, std::string_view) { story.acknowledged_ = true; }

    // The line says success on every way out of the transfer; the last block's reply tells more.
    static void MicroEnd(Story& story, std::string_view) {
        if (story.block_ == kMicroBlocks - 1 && story.acknowledged_) {
            story.Enter(kMicro, "starting again");
            return;
        }
        story.doubt_ = story.block_ < 0
                           ? "the microcontroller got no block"
                           : "the microcontroller did not acknowledge " + story.StageText();
    }

    static void UnknownReply(Story& story, std::string_view) {
        story.doubt_ = "after an unknown reply to a block of the " + story.part_ +
                       " the updater went on with the next piece of the image";
    }

    static void NothingToDo(Story& story, std::string_view) { story.run_ = RunT::kNothingToDo; }
    static void UpdateDue(Story& story, std::string_view) { story.run_ = RunT::kUpdateDue; }

    static void Reboot(Story& story, std::string_view) {
        if (story.run_ == RunT::kUpdate) {
            story.run_ = RunT::kReboot;
        }
    }

    static void MissingFile(Story& story, std::string_view line) {
        const size_t start = sizeof("Can't stat ") - 1;
        const size_t end = line.find(". Cancelling", start);
        story.noProgress_ = "the file " + std::string(line.substr(start, end - start)) +
                            " is missing, so the updater reports no progress";
    }

    static void PipeTrouble(Story& story, std::string_view) { story.pipeTrouble_ = true; }
    static void Trouble(Story& story, std::string_view line) { story.trouble_ = line; }
};

// The first entry that a line starts with is taken, so longer starts stand first.
const StoryRules::RuleT StoryRules::kRules[] = {
    {"flash_micro() ...", kMicro, "asking for its version", nullptr},
    {"##### Drop ", kMicro, "skipping noise on its line", nullptr},
    {"Kestrel Microcontroller fw update is [needed]", kMicro, "update needed", nullptr},
    {"Kestrel Microcontroller fw update is [not needed]", kMicro, "up to date", nullptr},
    {"Flashing Kestrel Micro Controller Image block[", kMicro, "block", Block},
    {"####### GOT A [ACK] FROM KESTREL MICRO CONTROLLER", nullptr, nullptr, Acknowledged},
    {"####### SUCCESSFULLY UPDATED KESTREL MICRO CONTROLLER", nullptr, nullptr, MicroEnd},
    {"sendHarborKestrelGPmsg -- cmd [", kCamera, "asking for a reboot", nullptr},
    {"Successfully rebooting Overlook camera", kCamera, "rebooting", Reboot},
    {"flash_overlook() ...", kCamera, "asking for its versions", nullptr},
    {"#### Got [", kCamera, "skipping noise on its line", nullptr},
    {"Overlook Camera Firmware is Already up to date", kCameraFirmware, "up to date", nullptr},
    {"Overlook System Firmware is Already up to date", kSystemFirmware, "up to date", nullptr},
    {"Current Overlook Camera FW Version", kCameraFirmware, "update needed", nullptr},
    {"Current Overlook System FW Version", kSystemFirmware, "update needed", nullptr},
    {"############# Trying to read the camera response for flashmode", kCamera,
     "preparing for the update", nullptr},
    {"Overlook FW update with, camNumBlocks:", nullptr, nullptr, CameraTotals},
    {"Flashing Overlook Camera Image block[", kCameraFirmware, "block", Block},
    {"Flashing Overlook System Image block[", kSystemFirmware, "block", Block},
    {"UNKNOWN RESPONSE FROM OVERLOOK DURING", nullptr, nullptr, UnknownReply},
    {"####### Overlook come up after update", kCamera, "starting again", nullptr},
    {"########## NO Kestrel Image(s) Update Required", nullptr, nullptr, NothingToDo},
    {"########## Kestrel Image(s) Update Required", nullptr, nullptr, UpdateDue},
    {"Can't stat ", nullptr, nullptr, MissingFile},
    {"progressCtrlSetPos: could not ", nullptr, nullptr, PipeTrouble},
    {"ERROR: ", nullptr, nullptr, Trouble},
    {"#### Failed", nullptr, nullptr, Trouble},
    {"######### Failed", nullptr, nullptr, Trouble},
    {"Could not open ", nullptr, nullptr, Trouble},
    {"Failed reading ", nullptr, nullptr, Trouble},
};

void Story::Enter(const char* part, const char* stage) {
    if (part_ == part && (stage_ == stage || (block_ >= 0 && std::string_view(stage) == "block"))) {
        return;
    }
    part_ = part;
    stage_ = stage;
    block_ = -1;
    attempt_ = 1;
    moves_++;
}

std::optional<int> Story::Read(std::string_view line) {
    const std::string_view position = "percentdone: [";
    if (line.starts_with(position)) {
        const int number = NumberAfter(line, '[', 0, -1);
        return number >= 0 ? std::optional<int>(number) : std::nullopt;
    }
    for (const StoryRules::RuleT& rule : StoryRules::kRules) {
        if (!line.starts_with(rule.start)) {
            continue;
        }
        if (rule.part != nullptr) {
            Enter(rule.part, rule.stage);
        }
        if (rule.action != nullptr) {
            rule.action(*this, line);
        }
        break;
    }
    return std::nullopt;
}

std::string Story::StageText() const {
    if (block_ < 0) {
        return stage_;
    }
    std::string text = stage_ + " " + std::to_string(block_ + 1);
    if (blocks_ > 0) {
        text += " of " + std::to_string(blocks_);
    }
    if (attempt_ > 1) {
        text += ", attempt " + std::to_string(attempt_);
    }
    return text;
}

std::string Story::What() const {
    return part_ + ": " + StageText();
}

}  // namespace watch
