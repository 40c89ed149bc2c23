// Findings, in the order in which somebody would go through them.
#include "softupdate/kestrelwatch/check.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "devlib/kestrelflash/linkmsg.h"
#include "devlib/kestrelflash/linksend.h"
#include "devlib/kestrelflash/microupdate.h"
#include "devlib/kestrelflash/overlookupdate.h"
#include "softupdate/kestrelwatch/fd.h"
#include "softupdate/kestrelwatch/run.h"
#include "softupdate/kestrelwatch/sha256.h"
#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

const char* const kImageFiles[kImages] = {kMicroImageName, kOverlookCameraImageName,
                                          kOverlookSystemImageName};
const char* const kVersionFiles[kImages] = {nullptr, "overlookcamver", "overlooksysver"};

namespace {

constexpr off_t kMicroBytes = kMicroBlocks * kMicroBlockData;
constexpr off_t kMaxTotal = INT32_MAX / 100;  // bytes that the progress arithmetic holds
constexpr long kSignBit = 0x8000;
constexpr long kLastReported = 0xFFFF;

// Who serves the launcher pipe opens it anew for each command.
constexpr int kLooks = 20;
constexpr unsigned kLookMicros = 50000;

constexpr int kReplyBytes = 2;
constexpr double kByteMs = 11 * 1000.0 / 115200;  // start, 8 data, parity and stop bit

std::string ErrorText(int error) {
    return strerror(error);
}

void Add(PlanT* plan, const std::string& subject, const std::string& text) {
    plan->findings.push_back({FindingT::kFine, 0, CauseT::kNone, subject, text});
}

void Notice(PlanT* plan, const std::string& subject, const std::string& text) {
    plan->findings.push_back({FindingT::kNotice, 0, CauseT::kNone, subject, text});
}

void Refusal(PlanT* plan, CauseT cause, const std::string& subject, const std::string& text,
             int status = kStatusRefused) {
    plan->findings.push_back({FindingT::kRefusal, status, cause, subject, text});
}

// The updater's own scan: its name takes part, anything that begins with q is a query.
bool TakeWord(PlanT* plan, const std::string& word) {
    if (word == "all") {
        plan->wanted[kMicroTarget] = plan->wanted[kCameraTarget] = true;
    } else if (word == "micro") {
        plan->wanted[kMicroTarget] = true;
    } else if (word == "overlook") {
        plan->wanted[kCameraTarget] = true;
    } else if (word == "rebootoverlook") {
        plan->reboot = true;
    } else if (!word.empty() && word[0] == 'q') {
        plan->query = true;
    } else {
        return false;
    }
    return true;
}

bool CheckWords(RecordT* record) {
    PlanT* const plan = &record->plan;
    const OptionsT& options = record->options;
    for (size_t i = 0; i < options.words.size(); i++) {
        if (!TakeWord(plan, options.words[i]) && !options.ownUpdater && i > 0) {
            return Refuse(record, kStatusUsage, CauseT::kUsage,
                          "the updater knows no word '" + options.words[i] +
                              "' (all, micro, overlook, q, rebootoverlook)");
        }
    }
    if (!plan->wanted[kMicroTarget] && !plan->wanted[kCameraTarget]) {
        if (!options.ownUpdater) {
            return Refuse(record, kStatusUsage, CauseT::kUsage,
                          "nothing to do: say what to update (all, micro, overlook)");
        }
        // Whatever stands there may name its targets in another way.
        plan->wanted[kMicroTarget] = plan->wanted[kCameraTarget] = true;
    }
    // The request to reboot the camera takes the place of the microcontroller's update.
    if (plan->reboot && !plan->wanted[kMicroTarget]) {
        Notice(plan, "rebootoverlook", "has no effect without all or micro beside it");
        plan->reboot = false;
    }
    plan->wanted[kMicroTarget] = plan->wanted[kMicroTarget] && !plan->reboot;
    return true;
}

void CheckProgram(PlanT* plan, const std::string& name) {
    std::string why;
    const int status = FindUpdater(name, &plan->program, &why);
    if (status != 0) {
        const CauseT cause =
            status == kStatusNotFound ? CauseT::kUpdaterMissing : CauseT::kUpdaterRefused;
        Refusal(plan, cause, "updater", why, status);
    } else {
        Add(plan, "updater", plan->program);
    }
}

// Opens a regular file for reading; the reason is the finding otherwise.
Fd OpenFile(PlanT* plan, const char* name, FileIdT* id) {
    struct stat status = {};
    Fd file(open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
        Refusal(plan, errno == ENOENT ? CauseT::kImageMissing : CauseT::kImageBad, name,
                ErrorText(errno));
        return Fd();
    }
    if (!S_ISREG(status.st_mode)) {
        Refusal(plan, CauseT::kImageBad, name, "is no file");
        return Fd();
    }
    *id = FileId(name);
    return file;
}

bool ReadFully(int fd, unsigned char* bytes, size_t size, size_t* count) {
    *count = 0;
    while (*count < size) {
        const ssize_t got = read(fd, bytes + *count, size - *count);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        *count += static_cast<size_t>(got);
    }
    return true;
}

// What one image's blocks are made of.
struct BlockFormT {
    HARBOR_KESTREL_MESAGE_TYPE type;
    size_t size;
};

BlockFormT FormOf(ImageT image) {
    if (image == kMicro) {
        return {HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_MICRO_BLOCK, kMicroBlockData};
    }
    return {image == kCamera ? HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_CAMERA
                             : HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_SYSTEM,
            kOverlookBlockData};
}

// Every block as it will go over the line, stuffing included. Returns false where reading fails.
bool MeasureBlocks(int fd, ImageT image, ImageFactsT* facts) {
    const BlockFormT form = FormOf(image);
    const int wanted = image == kMicro ? kMicroBlocks : 0;  // 0: as many as the file fills
    const auto payload = std::make_unique<unsigned char[]>(kBlockNumberSize + form.size);
    const int bound = LinkFrameBound(static_cast<int>(kBlockNumberSize + form.size));
    const auto frame = std::make_unique<unsigned char[]>(static_cast<size_t>(bound));
    Sha256 hash;
    for (int block = 0; wanted == 0 || block < wanted; block++) {
        size_t count = 0;
        if (!ReadFully(fd, payload.get() + kBlockNumberSize, form.size, &count)) {
            return false;
        }
        if (count == 0 && wanted == 0) {
            break;
        }
        payload[0] = static_cast<unsigned char>(block >> 8);
        payload[1] = static_cast<unsigned char>(block);
        frame[0] = 0;
        int size = 0;
        buildHarborToKestrelMsg(form.type, static_cast<int>(kBlockNumberSize + count),
                                payload.get(), &size, frame.get());
        if (block == 0 && image == kMicro && count > 0) {
            facts->version = payload[kBlockNumberSize];
        }
        hash.Add(payload.get() + kBlockNumberSize, count);
        facts->blockBytes.push_back(static_cast<int>(count));
        facts->blockMs.push_back((size + kReplyBytes) * kByteMs);
    }
    facts->sha256 = hash.Hex();
    return true;
}

void CheckVersionFile(PlanT* plan, ImageT image) {
    ImageFactsT& facts = plan->images[image];
    const char* const name = kVersionFiles[image];
    const Fd file = OpenFile(plan, name, &facts.versionFile);
    if (file.Get() < 0) {
        return;
    }
    unsigned char bytes[64];
    size_t count = 0;
    if (!ReadFully(file.Get(), bytes, sizeof(bytes), &count)) {
        Refusal(plan, CauseT::kVersionBad, name, ErrorText(errno));
        return;
    }
    const std::string text(bytes, bytes + count);
    facts.version = HexVersion(text);
    if (facts.version < 0) {
        std::string shown = text.substr(0, std::min(text.find('\n'), size_t{24}));
        std::replace_if(
            shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        Refusal(plan, CauseT::kVersionBad, name, "is no hexadecimal version (\"" + shown + "\")");
    } else if (facts.version > kLastReported) {
        Notice(plan, name,
               VersionText(image, facts.version) +
                   ": more than a camera can report, so this update will come back every time");
    } else if (facts.version >= kSignBit) {
        Notice(plan, name,
               VersionText(image, facts.version) +
                   ": from 8000 on a version never counts as up to date, so this update will come "
                   "back every time");
    } else {
        Add(plan, name, "version " + VersionText(image, facts.version));
    }
}

// What is wrong with an image's size; empty when nothing is.
std::string WrongSize(ImageT image, off_t size) {
    if (size == 0) {
        return "is empty";
    }
    if (image == kMicro && size > kMicroBytes) {
        return "has " + std::to_string(size) + " bytes; only the first " +
               std::to_string(kMicroBytes) + " would be sent";
    }
    return size > kMaxTotal ? "has more than " + std::to_string(kMaxTotal) + " bytes" : "";
}

void CheckImage(PlanT* plan, ImageT image) {
    ImageFactsT& facts = plan->images[image];
    const char* const name = kImageFiles[image];
    const Fd file = OpenFile(plan, name, &facts.file);
    if (file.Get() < 0) {
        return;
    }
    const std::string wrong = WrongSize(image, facts.file.size);
    if (!wrong.empty()) {
        Refusal(plan, CauseT::kImageBad, name, wrong);
    } else if (!MeasureBlocks(file.Get(), image, &facts)) {
        Refusal(plan, CauseT::kImageBad, name, ErrorText(errno));
    } else if (image == kMicro && facts.version == 0) {
        Refusal(plan, CauseT::kImageBad, name, "begins with 0, which is no version");
    } else {
        Add(plan, name,
            std::to_string(facts.file.size) + " bytes" +
                (image == kMicro ? ", version " + VersionText(image, facts.version) : "") +
                ", sha256 " + facts.sha256.substr(0, 16));
    }
}

void CheckImages(PlanT* plan) {
    off_t total = 0;
    for (const ImageT image : {kMicro, kCamera, kSystem}) {
        if (plan->Wants(image)) {
            CheckImage(plan, image);
            if (image != kMicro) {
                CheckVersionFile(plan, image);
            }
            total += std::max(plan->images[image].file.size, off_t{0});
        }
    }
    if (total > kMaxTotal) {
        Refusal(plan, CauseT::kImageBad, "images",
                "have more than " + std::to_string(kMaxTotal) + " bytes together");
    }
}

// Whether the target's line will be opened.
bool Uses(const PlanT& plan, TargetT target) {
    return plan.wanted[target] || (plan.reboot && target == kMicroTarget);
}

// The file of events is emptied when it is opened.
bool CheckEvents(RecordT* record) {
    const FileIdT events = FileId(record->options.json.c_str());
    for (const char* name : {kImageFiles[kMicro], kImageFiles[kCamera], kImageFiles[kSystem],
                             kVersionFiles[kCamera], kVersionFiles[kSystem]}) {
        const FileIdT file = FileId(name);
        if (file.size >= 0 && file.device == events.device && file.inode == events.inode) {
            record->options.json.clear();
            return Refuse(record, kStatusUsage, CauseT::kUsage,
                          std::string("--json: ") + name + " is a file of the update");
        }
    }
    return true;
}

void CheckNodes(RecordT* record) {
    PlanT* const plan = &record->plan;
    struct stat last = {};
    for (const TargetT target : {kMicroTarget, kCameraTarget}) {
        const std::string& given = record->options.ports[target];
        plan->nodes[target] = given.empty() ? BoardNode(target) : given;
        struct stat status = {};
        if (!Uses(*plan, target)) {
            continue;
        }
        if (stat(plan->nodes[target].c_str(), &status) != 0) {
            Refusal(plan, CauseT::kNode, plan->nodes[target], ErrorText(errno));
        } else if (!S_ISCHR(status.st_mode)) {
            Refusal(plan, CauseT::kNode, plan->nodes[target], "is no device");
        } else if (status.st_rdev == last.st_rdev) {
            Refusal(plan, CauseT::kNode, plan->nodes[target], "is the line of both targets");
        }
        last = status;
    }
}

bool JudgeFindings(RecordT* record) {
    for (const FindingT& finding : record->plan.findings) {
        if (finding.level == FindingT::kRefusal) {
            return Refuse(record, finding.status, finding.cause,
                          finding.subject + ": " + finding.text);
        }
    }
    return true;
}

}  // namespace

long HexVersion(const std::string& text) {
    const size_t digits = std::min(text.find_first_not_of("0123456789abcdefABCDEF"), text.size());
    const size_t rest = text.find_first_not_of("\r\n \t", digits);
    if (digits == 0 || digits > 6 || rest != std::string::npos) {
        return -1;
    }
    return strtol(text.substr(0, digits).c_str(), nullptr, 16);
}

bool IsStalePipe(const char* path) {
    struct stat status = {};
    for (int look = 0; look < kLooks; look++) {
        if (stat(path, &status) != 0 || !S_ISFIFO(status.st_mode)) {
            return false;
        }
        const Fd probe(open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        if (probe.Get() >= 0 || errno != ENXIO) {
            return false;
        }
        usleep(kLookMicros);
    }
    return true;
}

FileIdT FileId(const char* path) {
    struct stat status = {};
    if (stat(path, &status) != 0) {
        return {};
    }
    const auto nanoseconds = [](const timespec& time) {
        return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
    };
    return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
            nanoseconds(status.st_ctim)};
}

bool NoteChanges(PlanT* plan) {
    bool any = false;
    for (const ImageT image : {kMicro, kCamera, kSystem}) {
        ImageFactsT& facts = plan->images[image];
        if (plan->Wants(image) &&
            (FileId(kImageFiles[image]) != facts.file ||
             (image != kMicro && FileId(kVersionFiles[image]) != facts.versionFile))) {
            facts.changed = true;
        }
        any = any || facts.changed;
    }
    return any;
}

bool Check(RecordT* record) {
    if (!CheckWords(record) || !CheckEvents(record)) {
        return false;
    }
    PlanT* const plan = &record->plan;
    CheckProgram(plan, record->options.words[0]);
    CheckImages(plan);
    std::string why;
    const int status = CheckPipePath(record->options.pipe, &why);
    if (status != 0) {
        Refusal(plan, status == kStatusPipe ? CauseT::kPipe : CauseT::kFolder, record->options.pipe,
                why, status);
    }
    CheckNodes(record);
    const std::string launcher = LauncherPipe();
    // With lines of its own the updater is given a folder that has no such pipe.
    if (!record->options.HasPorts() && IsStalePipe(launcher.c_str())) {
        Refusal(plan, CauseT::kLauncherPipe, launcher,
                "a pipe that nobody serves, in which the updater would wait for ever");
    }
    return JudgeFindings(record);
}

bool CheckLines(RecordT* record) {
    PlanT* const plan = &record->plan;
    for (const TargetT target : {kMicroTarget, kCameraTarget}) {
        const std::string& node = plan->nodes[target];
        if (!Uses(*plan, target)) {
            continue;
        }
        const Fd line(open(node.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        if (line.Get() < 0) {
            Refusal(plan, CauseT::kNode, node, ErrorText(errno));
        } else if (!record->options.ports[target].empty() && isatty(line.Get()) == 0) {
            Refusal(plan, CauseT::kNode, node, "is no serial line");
        } else {
            Add(plan, node, std::string("the line of the ") + TargetName(target) + " opens");
        }
    }
    return JudgeFindings(record);
}

std::string CheckTable(const PlanT& plan) {
    size_t width = 0;
    for (const FindingT& finding : plan.findings) {
        width = std::max(width, finding.subject.size());
    }
    std::string table;
    for (const FindingT& finding : plan.findings) {
        static const char* const kLevels[] = {"ok      ", "NOTICE  ", "REFUSED "};
        table += kLevels[finding.level] + finding.subject +
                 std::string(width - finding.subject.size() + 2, ' ') + finding.text + "\n";
    }
    return table;
}

}  // namespace watch
