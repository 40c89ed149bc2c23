// Transcripts are told in words: plain ones that stand for a list of others, and ones that do
// something.
#include "tests/e2e/transcript.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

namespace e2e {
namespace {

constexpr size_t kMicroBlock = 512;
constexpr size_t kCameraBlock = 64512;

// Words that stand for others. Those that begin with "m." are about the microcontroller, with "c."
// about the camera.
const std::map<std::string, const char*> kStories = {
    {"m.open", "say:micro say:open opened:1"},
    {"m.request", "host:1,ff44000401fe01fe01fe01"},
    {"m.ask", "m.request m.unit:15 m.reply:13"},
    {"m.begin", "m.open m.ask m.verdict say:micro-begin"},
    {"m.work", "say:micro-working"},
    {"m.ack", "unit:1,4806 say:micro-got,ACK,2"},
    {"m.nack", "unit:1,480f say:micro-got,NACK,2"},
    {"m.end", "m.work say:micro-end"},
    {"m.update", "m.begin m.blocks:0,11 m.end closed:1"},
    {"m.current", "m.open m.ask m.verdict closed:1"},
    {"m.reboot", "say:micro say:open opened:1 say:reboot host:1,ff49000469fe01fe0197 closed:1"},
    {"m.unheard", "say:no-delimiter closed:1"},
    {"m.required", "m.verdict closed:1 say:required"},
    {"c.begin", "c.ask c.unit:13 c.reply c.verdict"},
    {"c.ask", "c.open c.sizes c.request"},
    {"c.request", "host:0,820677 say:await-device-type"},
    {"c.mode", "c.announce c.mode-unit:4 c.mode-reply"},
    {"c.update", "c.begin c.mode c.transfer closed:0"},
    {"c.current", "c.begin closed:0"},
    {"c.unheard", "say:no-device-type say:camera-crashed closed:0 executed:un"},
    {"c.failed", "say:camera-failed,ffffffff closed:0 executed:un"},
    {"c.no-file", "say:camera-failed,ffffffdc closed:0 executed:un"},
    {"done", "executed:"},
    {"failed", "executed:un"},
};

std::map<std::string, std::string> LoadFragments() {
    std::map<std::string, std::string> fragments;
    std::ifstream file(E2E_GOLDEN_DIR "/console.txt");
    std::string name;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("== ", 0) == 0) {
            name = line.substr(3);
            fragments[name] = "";
        } else if (!name.empty()) {
            fragments[name] += line + "\n";
        }
    }
    return fragments;
}

std::string Cut(const std::string& image, size_t block, size_t size) {
    return block * size < image.size() ? image.substr(block * size, size) : "";
}

size_t Blocks(const std::string& image) {
    return (image.size() + kCameraBlock - 1) / kCameraBlock;
}

std::string HexOf(const std::string& text, size_t at, int width = 1) {
    return Hex(static_cast<uint8_t>(text[at]), width);
}

size_t Number(const Words& values, size_t at, size_t otherwise = 0) {
    return at < values.size() ? std::stoul(values[at]) : otherwise;
}

std::string Text(size_t value) {
    return std::to_string(value);
}

// A fresh block of data: read, framed and sent.
void SendBlock(Transcript& t, const char* text, const char* file, uint8_t type, size_t number,
               const std::string& data, size_t full) {
    t.Say("read", {Text(data.size())});
    if (data.size() < full) {
        t.Say("last-block", {Text(data.size()), std::string(file) + " "});
    }
    t.Say(text, {Text(number), "1"}).Say("sending", {Text(number), Text(data.size() + 2)});
    t.Count(data.size());
    t.Bytes(type == 0x48 ? 1 : 0, '>', Frame(type, Word(number) + data));
}

// Block number and, where they differ, the number of the data's own block.
void SendMicro(Transcript& t, const Words& v) {
    const std::string data = Cut(t.scene().micro, Number(v, 1, Number(v, 0)), kMicroBlock);
    SendBlock(t, "micro-block", "kestrelmicro.bin", 0x48, Number(v, 0), data, kMicroBlock);
}

void SendCamera(Transcript& t, const Words& v) {
    const bool is_system = v.at(0) == "system";
    const std::string& image = is_system ? t.scene().system : t.scene().camera;
    const std::string data = Cut(image, Number(v, 2, Number(v, 1)), kCameraBlock);
    SendBlock(t, is_system ? "system-block" : "camera-block",
              is_system ? "overlooksys.bin" : "overlookcam.bin", is_system ? 0x89 : 0x88,
              Number(v, 1), data, kCameraBlock);
}

void CameraBlocks(Transcript& t, const std::string& image, size_t blocks) {
    for (size_t i = 0; i < blocks; i++) {
        const std::string number = Text(i);
        t.Say(image + "-working", {number});
        SendCamera(t, {image, number});
        t.Tell("unit:0,4806 c.got:4806");
    }
    t.Say(image + "-working", {Text(blocks)});
}

void ReplyBytes(Transcript& t, const char* text, const std::string& bytes) {
    for (size_t i = 0; i < bytes.size(); i++) {
        t.Say(text, {Text(i), HexOf(bytes, i)});
    }
}

void CameraVerdict(Transcript& t, const Words&) {
    const Scene& scene = t.scene();
    t.Say(scene.camera_needed() ? "camera-needed" : "camera-current",
          scene.camera_needed() ? Words{scene.unit_camera, scene.new_camera} : Words{});
    t.Count(scene.camera_needed() ? 0 : scene.camera.size());
    t.Say(scene.system_needed() ? "system-needed" : "system-current",
          scene.system_needed() ? Words{scene.unit_system, scene.new_system} : Words{});
    t.Count(scene.system_needed() ? 0 : scene.system.size());
}

using Doing = void (*)(Transcript&, const Words&);

const std::map<std::string, Doing> kDoings = {
    {"say", [](Transcript& t, const Words& v) { t.Say(v.at(0), Words(v.begin() + 1, v.end())); }},
    {"opened", [](Transcript& t, const Words& v) { t.Event(std::stoi(v.at(0)), "opened"); }},
    {"closed", [](Transcript& t, const Words& v) { t.Event(std::stoi(v.at(0)), "closed"); }},
    {"gone",
     [](Transcript& t, const Words& v) { t.Event(std::stoi(v.at(0)), "the line went away"); }},
    {"host",
     [](Transcript& t, const Words& v) { t.Bytes(std::stoi(v.at(0)), '>', FromHex(v.at(1))); }},
    {"unit",
     [](Transcript& t, const Words& v) { t.Bytes(std::stoi(v.at(0)), '<', FromHex(v.at(1))); }},
    {"executed",
     [](Transcript& t, const Words& v) {
         t.Say("executed", {"kestrelflash " + t.arguments().at(0), v.at(0) + "successfully"});
     }},
    // So many bytes of the version reply, as they come and as they are shown.
    {"m.unit",
     [](Transcript& t, const Words& v) {
         t.Bytes(1, '<', t.scene().VersionReply().substr(0, Number(v, 0)));
     }},
    {"m.reply",
     [](Transcript& t, const Words& v) {
         std::string bytes;
         for (size_t i = 0; i < Number(v, 0); i++) {
             bytes += "0x" + HexOf(t.scene().VersionReply(), i, 2) + " ";
         }
         t.Say("version-reply", {bytes});
     }},
    {"m.verdict",
     [](Transcript& t, const Words&) {
         const bool needed = static_cast<uint8_t>(t.scene().micro[0]) != t.scene().unit_micro;
         t.Say("micro-versions", {HexOf(t.scene().micro, 0, 2), Hex(t.scene().unit_micro, 2),
                                  needed ? "needed" : "not needed"});
     }},
    {"m.send", SendMicro},
    {"m.blocks",
     [](Transcript& t, const Words& v) {
         for (size_t i = Number(v, 0); i <= Number(v, 1); i++) {
             t.Tell("m.work m.send:" + Text(i) + " m.ack");
         }
     }},
    {"m.retry",
     [](Transcript& t, const Words& v) {
         t.Say("micro-working").Say("micro-block", v).Say("sending", {v.at(0), "0"});
         t.Bytes(1, '>', Frame(0x48, ""));
     }},
    // A block's answer of which only so many bytes were read.
    {"m.miss",
     [](Transcript& t, const Words& v) {
         t.Say("micro-got", {"NACK", v.at(0)});
     }},
    {"c.open",
     [](Transcript& t, const Words&) {
         t.Say("camera").Say("argument", {"0", "kestrelflash"});
         for (size_t i = 0; i < t.arguments().size(); i++) {
             t.Say("argument", {Text(i + 1), t.arguments()[i]});
         }
         t.Tell("say:open opened:0");
     }},
    {"c.sizes",
     [](Transcript& t, const Words&) {
         t.Say("count-blocks");
         t.Say("image-size", {"overlookcam.bin", Text(t.scene().camera.size())});
         t.Say("image-size", {"overlooksys.bin", Text(t.scene().system.size())});
     }},
    {"c.unit",
     [](Transcript& t, const Words& v) {
         t.Bytes(0, '<', t.scene().DeviceType().substr(0, Number(v, 0)));
     }},
    {"c.reply",
     [](Transcript& t, const Words&) {
         t.Say("first-byte").Say("device-type");
         ReplyBytes(t, "reply-byte", t.scene().DeviceType());
     }},
    {"c.verdict", CameraVerdict},
    {"c.announce",
     [](Transcript& t, const Words&) {
         const Scene& scene = t.scene();
         t.Bytes(0, '>',
                 "\x87\x43\x72" + scene.FlashReply().substr(3) +
                     Word(scene.camera_needed() ? Blocks(scene.camera) : 0) +
                     Word(scene.system_needed() ? Blocks(scene.system) : 0));
         t.Say("await-flash-mode");
     }},
    {"c.mode-unit",
     [](Transcript& t, const Words& v) {
         t.Bytes(0, '<', t.scene().FlashReply().substr(0, Number(v, 0)));
     }},
    {"c.mode-reply",
     [](Transcript& t, const Words&) {
         ReplyBytes(t, "reply-byte", t.scene().FlashReply());
         t.Say("counts", {Text(Blocks(t.scene().camera)), Text(Blocks(t.scene().system))});
     }},
    {"c.send", SendCamera},
    // A block's answer as it was read.
    {"c.got",
     [](Transcript& t, const Words& v) {
         const std::string reply = FromHex(v.at(0));
         t.Say("camera-got", {v.at(0) == "4806" ? "ACK" : "NACK", Text(reply.size())});
         ReplyBytes(t, "reply-of-block", reply);
     }},
    {"c.camera-image",
     [](Transcript& t, const Words&) { CameraBlocks(t, "camera", Blocks(t.scene().camera)); }},
    {"c.transfer",
     [](Transcript& t, const Words&) {
         if (t.scene().camera_needed()) {
             CameraBlocks(t, "camera", Blocks(t.scene().camera));
         }
         if (t.scene().system_needed()) {
             CameraBlocks(t, "system", Blocks(t.scene().system));
         }
         t.Say("come-up");
     }},
};

}  // namespace

std::string Word(size_t value) {
    return {static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}

std::string Hex(unsigned value, int width) {
    char text[16];
    snprintf(text, sizeof text, "%0*x", width, value);
    return text;
}

std::string FromHex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
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
        if (static_cast<uint8_t>(byte) < 0xFE) {
            frame += byte;
        } else {
            frame += '\xFE';
            frame += static_cast<char>(static_cast<uint8_t>(byte) - 0xFE);
        }
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

std::string Scene::VersionReply() const {
    return std::string("\xFF\x14\x00\x0D", 4) + static_cast<char>(unit_micro) + "kestrelsim";
}

std::string Scene::DeviceType() const {
    return "\xA0OVLK" + unit_system + unit_camera;
}

std::string Scene::FlashReply() const {
    const char* mode = camera_needed() ? (system_needed() ? "\x05" : "\x03") : "\x01";
    return std::string("\xA0\x43\x72") + mode;
}

Scene Scene::Updated() const {
    Scene after = *this;
    after.unit_micro = static_cast<uint8_t>(micro[0]);
    after.unit_camera = new_camera;
    after.unit_system = new_system;
    return after;
}

Transcript::Transcript(const Words& arguments, const Scene& scene)
    : scene_(scene), arguments_(arguments) {
    std::string all = "kestrelflash ";
    for (const std::string& argument : arguments) {
        all += argument + " ";
    }
    Say("entered", {all});
}

Transcript& Transcript::Tell(const std::string& story) {
    std::istringstream words(story);
    for (std::string word; words >> word;) {
        const size_t colon = std::min(word.find(':'), word.size());
        const std::string name = word.substr(0, colon);
        const auto list = kStories.find(name);
        if (list != kStories.end()) {
            Tell(list->second);
            continue;
        }
        Words values;
        std::istringstream rest(word.substr(std::min(colon + 1, word.size())));
        for (std::string value; std::getline(rest, value, ',');) {
            values.push_back(value);
        }
        if (values.empty()) {
            values.emplace_back();
        }
        const auto doing = kDoings.find(name);
        if (doing == kDoings.end()) {
            fprintf(stderr, "no word %s\n", name.c_str());
            abort();
        }
        doing->second(*this, values);
    }
    return *this;
}

Transcript& Transcript::Say(const std::string& name, const Words& values) {
    static const std::map<std::string, std::string> fragments = LoadFragments();
    if (fragments.count(name) == 0) {
        fprintf(stderr, "no text named %s\n", name.c_str());
        abort();
    }
    std::string text = fragments.at(name);
    size_t at = 0;
    for (const std::string& value : values) {
        at = text.find("{}", at);
        text.replace(at, 2, value);
        at += value.size();
    }
    console_ += text;
    return *this;
}

Transcript& Transcript::Event(int port, const std::string& event) {
    wire_ += std::to_string(port) + " " + event + "\n";
    wire_end_.clear();
    return *this;
}

Transcript& Transcript::Bytes(int port, char direction, const std::string& bytes) {
    const std::string start = std::to_string(port) + " " + direction + " ";
    if (wire_end_ == start) {
        wire_.pop_back();
    } else {
        wire_ += start;
    }
    for (size_t i = 0; i < bytes.size(); i++) {
        wire_ += HexOf(bytes, i, 2);
    }
    wire_ += "\n";
    wire_end_ = start;
    return *this;
}

Transcript& Transcript::Progress(size_t total, int low, int high, const std::string& trouble,
                                 const std::string& path) {
    trouble_ = trouble;
    path_ = path;
    total_ = static_cast<int>(total);
    low_ = low;
    width_ = high - low;
    return *this;
}

void Transcript::Count(size_t bytes) {
    done_ += static_cast<int>(bytes);
    const int position = total_ > 0 ? done_ * 100 / total_ * width_ / 100 + low_ : 0;
    if (position <= last_) {
        return;
    }
    last_ = position;
    positions_ += std::to_string(position);
    if (!trouble_.empty()) {
        Say(trouble_, {path_});
    }
    Say("percent", {std::to_string(position)});
}

}  // namespace e2e
