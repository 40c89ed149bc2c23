// Faults are read from one table of names, defaults and allowed keys; a command-line fault is
// turned into the same JSON object as one of a script.
#include "tools/kestrelsim/faults.h"

#include <limits.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace kestrelsim {
namespace {

using nlohmann::json;

struct FaultName {
    const char* name;
    FaultKind kind;
    const char* keys;  // besides the selectors
    const char* defaults;
    const char* help;
};

constexpr FaultName kFaultNames[] = {
    {"noise", FaultKind::kNoise, "count bytes", "count=1", "bytes before the answer"},
    {"drop", FaultKind::kDrop, "", "", "no answer"},
    {"late", FaultKind::kLate, "ms", "ms=100", "the answer that much later"},
    {"split", FaultKind::kSplit, "ms", "ms=1", "the answer in single bytes that far apart"},
    {"duplicate", FaultKind::kDuplicate, "", "", "the answer twice"},
    {"corrupt", FaultKind::kCorrupt, "byte value", "byte=1 value=0x55",
     "one byte of the answer replaced"},
    {"short", FaultKind::kShort, "count", "count=1", "only the first bytes of the answer"},
    {"nack", FaultKind::kNack, "", "answer=block", "NACK for a block"},
    {"wrong-type", FaultKind::kWrongType, "value", "answer=device-type value=0x15",
     "a device-type reply that begins with another byte"},
    {"close", FaultKind::kClose, "at", "", "the line goes away after that many received bytes"},
    {"hold", FaultKind::kHold, "at", "at=0", "no byte from the host is taken after that many"},
    {"freeze", FaultKind::kFreeze, "at sent", "",
     "all stands still after that many bytes received, or sent (see kestrelsim's page)"},
    {"silent", FaultKind::kSilent, "", "", "no answer from the matching one on"},
    {"slow-erase", FaultKind::kSlowErase, "ms", "answer=block block=0 ms=1000",
     "the answer to an image's first block that much later"},
    {"steady-noise", FaultKind::kSteadyNoise, "ms", "ms=50",
     "a byte each so often, from the first message on"},
};

constexpr int kLongestMs = 24 * 3600 * 1000;
constexpr int kMostNoise = 1000000;

constexpr const char* kSelectorKeys = "fault unit answer image block attempt times after";

const std::map<std::string, UnitName> kUnits = {{"micro", UnitName::kMicro},
                                                {"camera", UnitName::kCamera}};
const std::map<std::string, AnswerKind> kAnswers = {{"version", AnswerKind::kVersion},
                                                    {"device-type", AnswerKind::kDeviceType},
                                                    {"flash-mode", AnswerKind::kFlashMode},
                                                    {"block", AnswerKind::kBlock}};
const std::map<std::string, Image> kImages = {
    {"micro", Image::kMicro}, {"camera", Image::kCamera}, {"system", Image::kSystem}};

bool HasWord(const std::string& words, const std::string& word) {
    return (" " + words + " ").find(" " + word + " ") != std::string::npos;
}

template <typename Value>
std::optional<Value> Named(const json& item, const char* key,
                           const std::map<std::string, Value>& names) {
    if (!item.contains(key)) {
        return std::nullopt;
    }
    const auto found = names.find(item[key].is_string() ? item[key].get<std::string>() : "");
    if (found == names.end()) {
        throw std::invalid_argument(std::string("no such ") + key + ": " + item[key].dump());
    }
    return found->second;
}

// A number from 0 to `most`, given as such or as text.
std::optional<int64_t> Number(const json& item, const char* key, int64_t most) {
    if (!item.contains(key)) {
        return std::nullopt;
    }
    const json& value = item[key];
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    size_t used = 0;
    int64_t number = -1;
    try {
        number = std::stoll(text, &used, 0);
    } catch (const std::exception&) {
        // Told below, with the value as it was given.
    }
    if (used != text.size() || number < 0 || number > most) {
        throw std::invalid_argument(std::string(key) + " is not a number from 0 to " +
                                    std::to_string(most) + ": " + value.dump());
    }
    return number;
}

std::optional<int> SmallNumber(const json& item, const char* key, int most = INT_MAX) {
    const auto number = Number(item, key, most);
    return number ? std::optional(static_cast<int>(*number)) : std::nullopt;
}

json FromWords(const std::string& words, bool name_first) {
    json item = json::object();
    std::istringstream stream(words);
    std::string word;
    if (name_first && stream >> word) {
        item["fault"] = word;
    }
    while (stream >> word) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos) {
            throw std::invalid_argument("key=value is missing its '=': " + word);
        }
        item[word.substr(0, equals)] = word.substr(equals + 1);
    }
    return item;
}

// Whether the fault changes answers, and not the line or the unit's verdict.
bool IsOfAnswers(FaultKind kind) {
    return kind != FaultKind::kNack && kind != FaultKind::kClose && kind != FaultKind::kHold &&
           kind != FaultKind::kFreeze && kind != FaultKind::kSteadyNoise;
}

const FaultName& FindName(const json& item) {
    const std::string name = item.value("fault", "");
    const auto* found = std::find_if(std::begin(kFaultNames), std::end(kFaultNames),
                                     [&](const FaultName& it) { return name == it.name; });
    if (found == std::end(kFaultNames)) {
        throw std::invalid_argument("no such fault: " + name + "\n" + FaultHelp());
    }
    return *found;
}

}  // namespace

std::string FaultHelp() {
    std::string text =
        "faults (any of them may be narrowed with unit=micro|camera,\n"
        "answer=version|device-type|flash-mode|block, image=micro|camera|system, block=N,\n"
        "attempt=N, after=N and times=N):\n";
    for (const FaultName& it : kFaultNames) {
        std::string line = std::string("  ") + it.name + " " + it.defaults;
        line.resize(std::max<size_t>(line.size() + 1, 48), ' ');
        text += line + it.help + "\n";
    }
    return text;
}

void Faults::Add(const std::string& text) {
    AddItem(FromWords(text, true));
}

void Faults::AddScript(const json& script) {
    for (const auto& [key, value] : script.items()) {
        if (key == "seed") {
            Seed(static_cast<uint32_t>(*Number(script, "seed", UINT32_MAX)));
        } else if (key == "faults" && value.is_array()) {
            for (const json& item : value) {
                AddItem(item);
            }
        } else {
            throw std::invalid_argument("a script holds \"seed\" and \"faults\", not: " + key);
        }
    }
}

void Faults::AddItem(const json& given) {
    if (!given.is_object()) {
        throw std::invalid_argument("a fault is an object, not: " + given.dump());
    }
    const FaultName& name = FindName(given);
    for (const auto& [key, value] : given.items()) {
        if (!HasWord(kSelectorKeys, key) && !HasWord(name.keys, key)) {
            throw std::invalid_argument(std::string(name.name) + " does not know " + key);
        }
    }
    json item = FromWords(name.defaults, false);
    item.update(given);
    Fault fault{name.kind,
                name.name,
                Named(item, "unit", kUnits),
                Named(item, "answer", kAnswers),
                Named(item, "image", kImages),
                SmallNumber(item, "block"),
                SmallNumber(item, "attempt"),
                SmallNumber(item, "times").value_or(-1),
                SmallNumber(item, "after").value_or(0),
                SmallNumber(item, "ms", kLongestMs).value_or(0),
                SmallNumber(item, "count", kMostNoise).value_or(0),
                SmallNumber(item, "byte").value_or(0),
                SmallNumber(item, "value", UINT8_MAX).value_or(0),
                Number(item, "at", INT64_MAX).value_or(0),
                Number(item, "sent", INT64_MAX).value_or(0),
                {}};
    if (item.contains("bytes")) {
        const auto bytes =
            FromHex(item["bytes"].is_string() ? item["bytes"].get<std::string>() : "?");
        if (!bytes) {
            throw std::invalid_argument("bytes is no hexadecimal text: " + item["bytes"].dump());
        }
        fault.bytes = *bytes;
    }
    if (fault.kind == FaultKind::kClose && fault.at == 0) {
        throw std::invalid_argument("close needs at=N, a number of received bytes");
    }
    if (fault.kind == FaultKind::kFreeze && (!fault.unit || (fault.at == 0) == (fault.sent == 0))) {
        throw std::invalid_argument("freeze needs a unit, and either at=N or sent=N");
    }
    if (fault.image || fault.block || fault.attempt) {
        fault.answer = AnswerKind::kBlock;
    }
    faults_.push_back(std::move(fault));
}

bool Faults::Matches(const Fault& fault, const AnswerId& id) {
    const bool is_block = id.kind == AnswerKind::kBlock;
    return fault.times != 0 && fault.unit.value_or(id.unit) == id.unit &&
           fault.answer.value_or(id.kind) == id.kind &&
           (!is_block || (fault.image.value_or(id.image) == id.image &&
                          fault.block.value_or(id.block) == id.block &&
                          fault.attempt.value_or(id.attempt) == id.attempt));
}

bool Faults::Strikes(Fault* fault, const AnswerId& id) {
    if (!Matches(*fault, id)) {
        return false;
    }
    if (fault->after > 0) {
        fault->after--;
        return false;
    }
    fault->times -= fault->times > 0 ? 1 : 0;
    return true;
}

bool Faults::Acknowledges(const AnswerId& id) {
    for (Fault& fault : faults_) {
        if (fault.kind == FaultKind::kNack && Strikes(&fault, id)) {
            return false;
        }
    }
    return true;
}

void Faults::ShapeBytes(const Fault& fault, Bytes* bytes, Bytes* noise, int* delay_ms) {
    switch (fault.kind) {
        case FaultKind::kNoise: {
            const Bytes more = fault.bytes.empty() ? Noise(fault.count) : fault.bytes;
            noise->insert(noise->end(), more.begin(), more.end());
            break;
        }
        case FaultKind::kLate:
        case FaultKind::kSlowErase:
            *delay_ms += fault.ms;
            break;
        case FaultKind::kDuplicate: {
            const Bytes once = *bytes;
            bytes->insert(bytes->end(), once.begin(), once.end());
            break;
        }
        case FaultKind::kCorrupt:
        case FaultKind::kWrongType:
            if (static_cast<size_t>(fault.byte) < bytes->size()) {
                (*bytes)[static_cast<size_t>(fault.byte)] = static_cast<uint8_t>(fault.value);
            }
            break;
        case FaultKind::kShort:
            bytes->resize(std::min(bytes->size(), static_cast<size_t>(fault.count)));
            break;
        default:
            break;
    }
}

std::vector<Piece> Faults::Shape(const Answer& answer) {
    Bytes bytes = answer.bytes;
    Bytes noise;
    int delay_ms = 0;
    int split_ms = -1;
    bool dropped = false;
    std::string struck;
    for (Fault& fault : faults_) {
        if (!IsOfAnswers(fault.kind) || !Strikes(&fault, answer.id)) {
            continue;
        }
        struck += (struck.empty() ? " [" : ", ") + fault.name;
        dropped = dropped || fault.kind == FaultKind::kDrop;
        split_ms = fault.kind == FaultKind::kSplit ? fault.ms : split_ms;
        if (fault.kind == FaultKind::kSilent) {
            silent_[static_cast<int>(answer.id.unit)] = true;
        }
        ShapeBytes(fault, &bytes, &noise, &delay_ms);
    }
    if (dropped || silent_[static_cast<int>(answer.id.unit)]) {
        return {};
    }
    std::vector<Piece> pieces;
    if (!noise.empty()) {
        pieces.push_back({delay_ms, noise, "noise"});
        delay_ms = 0;
    }
    const std::string meaning = answer.meaning + (struck.empty() ? "" : struck + "]");
    if (split_ms < 0) {
        pieces.push_back({delay_ms, bytes, meaning});
        return pieces;
    }
    for (const uint8_t byte : bytes) {
        pieces.push_back({delay_ms, {byte}, meaning});
        delay_ms = split_ms;
    }
    return pieces;
}

const Fault* Faults::Find(FaultKind kind, UnitName unit) const {
    const auto found = std::find_if(faults_.begin(), faults_.end(), [&](const Fault& fault) {
        return fault.kind == kind && fault.unit.value_or(unit) == unit;
    });
    return found == faults_.end() ? nullptr : &*found;
}

std::optional<int64_t> Faults::CloseAt(UnitName unit) const {
    const Fault* fault = Find(FaultKind::kClose, unit);
    return fault != nullptr ? std::optional(fault->at) : std::nullopt;
}

std::optional<int64_t> Faults::HoldAt(UnitName unit) const {
    const Fault* fault = Find(FaultKind::kHold, unit);
    return fault != nullptr ? std::optional(fault->at) : std::nullopt;
}

std::optional<int64_t> Faults::FreezeAt(UnitName unit) const {
    const Fault* fault = Find(FaultKind::kFreeze, unit);
    return fault != nullptr && fault->at > 0 ? std::optional(fault->at) : std::nullopt;
}

std::optional<int64_t> Faults::FreezeSent(UnitName unit) const {
    const Fault* fault = Find(FaultKind::kFreeze, unit);
    return fault != nullptr && fault->sent > 0 ? std::optional(fault->sent) : std::nullopt;
}

std::optional<int> Faults::SteadyNoise(UnitName unit) const {
    const Fault* fault = Find(FaultKind::kSteadyNoise, unit);
    return fault != nullptr ? std::optional(std::max(1, fault->ms)) : std::nullopt;
}

Bytes Faults::Noise(int count) {
    Bytes bytes;
    while (bytes.size() < static_cast<size_t>(count)) {
        const uint8_t byte = static_cast<uint8_t>(random_() >> 24);
        if (byte != 0xFF && byte != 0xA0) {
            bytes.push_back(byte);
        }
    }
    return bytes;
}

}  // namespace kestrelsim
