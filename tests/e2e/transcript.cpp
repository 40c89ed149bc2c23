// Transcripts are told in words: those of golden/words.txt, and here those that do more than show a
// text.
#include "tests/e2e/transcript.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace e2e {
namespace {

using Values = const Words&;

constexpr size_t kMicroBlock = 512;
constexpr size_t kCameraBlock = 64512;

// Each word's lines.
std::map<std::string, Words> LoadWords() {
    std::map<std::string, Words> words;
    std::ifstream file(E2E_GOLDEN_DIR "/words.txt");
    std::string name;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("== ")) {
            name = line.substr(3);
        } else {
            words[name].push_back(line);
        }
    }
    return words;
}

std::string Hex(unsigned value, int width) {
    char text[16];
    snprintf(text, sizeof text, "%0*x", width, value);
    return text;
}

std::string HexOf(const std::string& bytes) {
    std::string hex;
    for (const char byte : bytes) {
        hex += Hex(static_cast<uint8_t>(byte), 2);
    }
    return hex;
}

size_t Blocks(const std::string& image) {
    return (image.size() + kCameraBlock - 1) / kCameraBlock;
}

// What tells the three images apart.
struct Image {
    const char* file;
    uint8_t type;
    int port;
    size_t block;
    std::string Scene::*content;
};

const std::map<std::string, Image> kImages = {
    {"micro", {"kestrelmicro.bin", 0x48, 1, kMicroBlock, &Scene::micro}},
    {"camera", {"overlookcam.bin", 0x88, 0, kCameraBlock, &Scene::camera}},
    {"system", {"overlooksys.bin", 0x89, 0, kCameraBlock, &Scene::system}}};

// A fresh block of data, read, framed and sent: the image, the number that it goes out under and,
// where they differ, that of the data's own block.
void Send(Transcript& t, Values v) {
    const Image& image = kImages.at(v.at(0));
    const std::string& content = t.scene.*image.content;
    const size_t from = std::stoul(v.back()) * image.block;
    const std::string data = content.substr(std::min(from, content.size()), image.block);
    const std::string size = std::to_string(data.size());
    t.Say("read", {size});
    if (data.size() < image.block) {
        t.Say("last-block", {size, std::string(image.file) + " "});
    }
    t.Say(v.at(0) + "-block", {v.at(1), "1"});
    t.Say("sending", {v.at(1), std::to_string(data.size() + 2)});
    t.Bytes(image.port, '>', HexOf(Frame(image.type, Word(std::stoul(v.at(1))) + data)));
}

// An image's blocks, each acknowledged: the first one, and the one behind the last.
void SendBlocks(Transcript& t, Values v) {
    for (size_t i = std::stoul(v.at(1)); i < std::stoul(v.at(2)); i++) {
        const std::string number = std::to_string(i);
        t.Say(v.at(0) + "-working", {number}).Tell("send:" + v.at(0) + "," + number);
        t.Say(v.at(0) == "micro" ? "m.ack" : "c.ack");
    }
}

// A word with each byte's number and value.
void EachByte(Transcript& t, Values v) {
    for (size_t i = 0; i < v.at(1).size() / 2; i++) {
        const size_t zero = v.at(1)[2 * i] == '0';
        t.Say(v.at(0), {std::to_string(i), v.at(1).substr(2 * i + zero, 2 - zero)});
    }
}

// Port and bytes; of the unit's, only so many where a third value says so.
void Host(Transcript& t, Values v) {
    t.Bytes(std::stoi(v.at(0)), '>', v.at(1));
}

void Unit(Transcript& t, Values v) {
    const size_t count = v.size() > 2 ? std::stoul(v.at(2)) : v.at(1).size();
    t.Bytes(std::stoi(v.at(0)), '<', v.at(1).substr(0, 2 * count));
}

const std::map<std::string, void (*)(Transcript&, Values)> kDoings = {
    {"host", Host},
    {"unit", Unit},
    {"bytes", EachByte},
    {"opened", [](Transcript& t, Values v) { t.Event(std::stoi(v.at(0)), "opened"); }},
    {"closed", [](Transcript& t, Values v) { t.Event(std::stoi(v.at(0)), "closed"); }},
    {"gone", [](Transcript& t, Values v) { t.Event(std::stoi(v.at(0)), "the line went away"); }},
    {"send", Send},
    {"blocks", SendBlocks},
};

}  // namespace

std::string Word(size_t value) {
    return {static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}

std::string Frame(uint8_t type, const std::string& payload) {
    uint32_t sum = 0;
    for (const char byte : payload) {
        sum += static_cast<uint8_t>(byte);
    }
    const uint32_t checksum = (0U - sum) & 0xFFFFFF;
    const std::string plain = std::string(1, static_cast<char>(type)) + Word(payload.size() + 3) +
                              payload + static_cast<char>(checksum >> 16) + Word(checksum & 0xFFFF);
    std::string frame = "\xFF";
    for (const char byte : plain) {
        const uint8_t value = static_cast<uint8_t>(byte);
        frame += value < 0xFE ? std::string(1, byte) : Word(0xFE00U + value - 0xFE);
    }
    return frame;
}

std::string Pattern(size_t size, uint8_t first) {
    std::string text(size, static_cast<char>(first));
    uint32_t state = 0x2545F491U + first;
    for (size_t i = 1; i < size; i++) {
        state = state * 1664525U + 1013904223U;
        text[i] = static_cast<char>(state >> 24);
    }
    return text;
}

Scene Scene::Updated() const {
    Scene after = *this;
    after.unit_micro = static_cast<uint8_t>(micro[0]);
    after.unit_camera = new_camera;
    after.unit_system = new_system;
    return after;
}

Transcript::Transcript(const Words& words, const Scene& scene_at_hand)
    : scene(scene_at_hand), arguments(words) {
    const Scene& s = scene;
    std::string line = "kestrelflash ";
    std::string list = "#### argv[0]=kestrelflash ...";
    for (size_t i = 0; i < words.size(); i++) {
        line += words[i] + " ";
        list += "\n#### argv[" + std::to_string(i + 1) + "]=" + words[i] + " ...";
    }
    const std::string micro = HexOf(s.micro.substr(0, 1));
    const std::string unit_micro = Hex(s.unit_micro, 2);
    const size_t camera_blocks = s.camera_needed() ? Blocks(s.camera) : 0;
    const size_t system_blocks = s.system_needed() ? Blocks(s.system) : 0;
    names_ = {
        {"command-line", line},
        {"command", words.empty() ? "" : "kestrelflash " + words[0]},
        {"arguments", list},
        {"micro", micro},
        {"unit-micro", unit_micro},
        {"micro-verdict", micro == unit_micro ? "not needed" : "needed"},
        {"version-reply", "ff14000d" + unit_micro + "6b65737472656c73696d"},
        {"device-type", HexOf("\xA0OVLK" + s.unit_system + s.unit_camera)},
        {"flash-mode", !s.camera_needed()  ? "01"
                       : s.system_needed() ? "05"
                                           : "03"},
        {"counts", HexOf(Word(camera_blocks) + Word(system_blocks))},
        {"camera-size", std::to_string(s.camera.size())},
        {"system-size", std::to_string(s.system.size())},
        {"camera-blocks", std::to_string(Blocks(s.camera))},
        {"system-blocks", std::to_string(Blocks(s.system))},
        {"verdicts", (s.camera_needed() ? "camera-needed:" + s.unit_camera + "," + s.new_camera
                                        : "camera-current") +
                         " " +
                         (s.system_needed() ? "system-needed:" + s.unit_system + "," + s.new_system
                                            : "system-current")},
        {"images",
         std::string(s.camera_needed() ? "c.camera " : "") + (s.system_needed() ? "c.system" : "")},
    };
    Say("entered");
}

std::string Transcript::Fill(std::string text, const Words& values) const {
    for (size_t at; (at = text.find('{')) != std::string::npos;) {
        const size_t end = text.find('}', at);
        const std::string name = text.substr(at + 1, end - at - 1);
        const size_t number = strtoul(name.c_str(), nullptr, 10);  // 0: not that of a value
        const std::string missing = number > 0 ? "" : names_.at(name);
        text.replace(at, end + 1 - at, number - 1 < values.size() ? values[number - 1] : missing);
    }
    return text;
}

Transcript& Transcript::Tell(const std::string& story) {
    std::istringstream words(story);
    for (std::string told; words >> told;) {
        const size_t colon = std::min(told.find(':'), told.size());
        const std::string word = told.substr(0, colon);
        Words values;
        std::istringstream rest(told.substr(std::min(colon + 1, told.size())));
        for (std::string value; std::getline(rest, value, ',');) {
            values.push_back(value);
        }
        const auto doing = kDoings.find(word);
        if (doing != kDoings.end()) {
            doing->second(*this, values);
        } else {
            Say(word, values);
        }
    }
    return *this;
}

Transcript& Transcript::Say(const std::string& word, const Words& values) {
    static const std::map<std::string, Words> words = LoadWords();
    const auto lines = words.find(word);
    if (lines == words.end()) {
        ADD_FAILURE() << "no word " << word;
        return *this;
    }
    for (const std::string& line : lines->second) {
        if (line.starts_with("@")) {
            Tell(Fill(line.substr(1), values));
        } else {
            console += Fill(line, values) + "\n";
        }
    }
    return *this;
}

void Transcript::Event(int port, const std::string& event) {
    wire += std::to_string(port) + " " + event + "\n";
    wire_end_.clear();
}

void Transcript::Bytes(int port, char direction, const std::string& hex) {
    const std::string start = std::to_string(port) + " " + direction + " ";
    if (wire_end_ == start) {
        wire.pop_back();
    } else {
        wire += start;
    }
    wire += hex + "\n";
    wire_end_ = start;
}

}  // namespace e2e
