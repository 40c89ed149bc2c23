// Transcripts are put together from fragments; the sequences are those of the two procedures.
#include "tests/e2e/transcript.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <map>

namespace e2e {
namespace {

constexpr size_t kMicroBlock = 512;
constexpr size_t kCameraBlock = 64512;

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

const std::string& Fragment(const std::string& name) {
    static const std::map<std::string, std::string> fragments = LoadFragments();
    const auto found = fragments.find(name);
    if (found == fragments.end()) {
        fprintf(stderr, "no text named %s\n", name.c_str());
        abort();
    }
    return found->second;
}

std::string Number(size_t value) {
    return std::to_string(value);
}

std::string Cut(const std::string& image, size_t block, size_t size) {
    return block * size < image.size() ? image.substr(block * size, size) : "";
}

size_t Blocks(const std::string& image) {
    return (image.size() + kCameraBlock - 1) / kCameraBlock;
}

uint8_t At(const std::string& text, size_t position) {
    return static_cast<uint8_t>(text[position]);
}

}  // namespace

std::string Word(size_t value) {
    return {static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}

std::string Hex(unsigned value, int width) {
    char text[16];
    snprintf(text, sizeof text, "%0*x", width, value);
    return text;
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
    std::string text(size, '\0');
    uint32_t state = 0x2545F491U + first;
    for (size_t i = 0; i < size; i++) {
        state = state * 1664525U + 1013904223U;
        text[i] = static_cast<char>(state >> 24);
    }
    if (size > 0) {
        text[0] = static_cast<char>(first);
    }
    return text;
}

Transcript::Transcript(const Words& arguments) : arguments_(arguments) {
    std::string all = "kestrelflash ";
    for (const std::string& argument : arguments) {
        all += argument + " ";
    }
    Say("entered", {all});
}

Transcript& Transcript::Say(const std::string& name, const Words& values) {
    std::string text = Fragment(name);
    size_t at = 0;
    for (const std::string& value : values) {
        at = text.find("{}", at);
        text.replace(at, 2, value);
        at += value.size();
    }
    console_ += text;
    return *this;
}

Transcript& Transcript::Executed(bool successfully) {
    return Say("executed", {"kestrelflash " + arguments_.at(0),
                            successfully ? "successfully" : "unsuccessfully"});
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
    for (const char byte : bytes) {
        wire_ += Hex(static_cast<uint8_t>(byte), 2);
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

Transcript& Transcript::Count(size_t bytes) {
    if (total_ > 0) {
        done_ += static_cast<int>(bytes);
        const int position = done_ * 100 / total_ * width_ / 100 + low_;
        if (position > last_) {
            last_ = position;
            positions_ += std::to_string(position);
            if (!trouble_.empty()) {
                Say(trouble_, {path_});
            }
            Say("percent", {std::to_string(position)});
        }
    }
    return *this;
}

std::string Micro::Reply() const {
    return std::string("\xFF\x14\x00\x0D", 4) + static_cast<char>(version) + "kestrelsim";
}

void Micro::Open(Transcript* t) const {
    t->Say("micro").Say("open").Event(1, "opened");
}

void Micro::Ask(Transcript* t, size_t body) const {
    t->Host(1, Frame(0x44, "\x01")).Unit(1, Reply().substr(0, 2 + body));
    ShowReply(t, body);
}

void Micro::ShowReply(Transcript* t, size_t body) const {
    std::string bytes;
    for (size_t i = 0; i < body; i++) {
        bytes += "0x" + Hex(At(Reply(), i), 2) + " ";
    }
    t->Say("version-reply", {bytes});
}

void Micro::Verdict(Transcript* t) const {
    const bool needed = At(image, 0) != version;
    t->Say("micro-versions",
           {Hex(At(image, 0), 2), Hex(version, 2), needed ? "needed" : "not needed"});
}

void Micro::Begin(Transcript* t) const {
    Open(t);
    Ask(t);
    Verdict(t);
    t->Say("micro-begin");
}

void Micro::Send(Transcript* t, int block, int from) const {
    const auto number = static_cast<size_t>(block);
    const std::string data = Cut(image, from < 0 ? number : static_cast<size_t>(from), kMicroBlock);
    t->Say("read", {Number(data.size())});
    if (data.size() < kMicroBlock) {
        t->Say("last-block", {Number(data.size()), "kestrelmicro.bin "});
    }
    t->Say("micro-block", {Number(number), "1"})
        .Say("sending", {Number(number), Number(data.size() + 2)});
    t->Count(data.size()).Host(1, Frame(0x48, Word(number) + data));
}

void Micro::Got(Transcript* t, bool ack, int count) {
    if (count == 2) {
        t->Unit(1, ack ? "\x48\x06" : "\x48\x0F");
    }
    t->Say("micro-got", {ack ? "ACK" : "NACK", std::to_string(abs(count))});
}

void Micro::Block(Transcript* t, int block) const {
    t->Say("micro-working");
    Send(t, block);
    Got(t, true);
}

void Micro::Blocks(Transcript* t, int from, int to) const {
    for (int block = from; block <= to; block++) {
        Block(t, block);
    }
}

void Micro::Retry(Transcript* t, int block, int iteration) const {
    const std::string number = std::to_string(block);
    t->Say("micro-working").Say("micro-block", {number, std::to_string(iteration)});
    t->Say("sending", {number, "0"}).Host(1, Frame(0x48, ""));
}

void Micro::End(Transcript* t) {
    t->Say("micro-working").Say("micro-end");
}

void Micro::Update(Transcript* t) const {
    Begin(t);
    Blocks(t, 0, 11);
    End(t);
    Close(t);
}

std::string Camera::DeviceType() const {
    return "\xA0OVLK" + unit_system + unit_camera;
}

std::string Camera::FlashReply() const {
    const char mode = camera_needed() ? (system_needed() ? 5 : 3) : 1;
    return std::string("\xA0\x43\x72") + mode;
}

void Camera::Open(Transcript* t) const {
    t->Say("camera").Say("argument", {"0", "kestrelflash"});
    for (size_t i = 0; i < t->arguments().size(); i++) {
        t->Say("argument", {Number(i + 1), t->arguments()[i]});
    }
    t->Say("open").Event(0, "opened");
}

void Camera::Sizes(Transcript* t) const {
    t->Say("count-blocks");
    t->Say("image-size", {"overlookcam.bin", Number(camera.size())});
    t->Say("image-size", {"overlooksys.bin", Number(system.size())});
}

void Camera::Ask(Transcript* t) const {
    Open(t);
    Sizes(t);
    t->Host(0, "\x82\x06\x77").Say("await-device-type");
}

void Camera::Reply(Transcript* t) const {
    t->Unit(0, DeviceType());
    ShowReply(t);
}

void Camera::ShowReply(Transcript* t) const {
    t->Say("first-byte").Say("device-type");
    for (size_t i = 0; i < 13; i++) {
        t->Say("reply-byte", {Number(i), Hex(At(DeviceType(), i))});
    }
}

void Camera::Verdict(Transcript* t) const {
    if (camera_needed()) {
        t->Say("camera-needed", {unit_camera, new_camera});
    } else {
        t->Say("camera-current").Count(camera.size());
    }
    if (system_needed()) {
        t->Say("system-needed", {unit_system, new_system});
    } else {
        t->Say("system-current").Count(system.size());
    }
}

void Camera::Begin(Transcript* t) const {
    Ask(t);
    Reply(t);
    Verdict(t);
}

void Camera::Announce(Transcript* t) const {
    t->Host(0, "\x87\x43\x72" + FlashReply().substr(3) +
                   Word(camera_needed() ? e2e::Blocks(camera) : 0) +
                   Word(system_needed() ? e2e::Blocks(system) : 0));
    t->Say("await-flash-mode");
}

void Camera::FlashMode(Transcript* t) const {
    Announce(t);
    t->Unit(0, FlashReply());
    for (size_t i = 0; i < 4; i++) {
        t->Say("reply-byte", {Number(i), Hex(At(FlashReply(), i))});
    }
    t->Say("counts", {Number(e2e::Blocks(camera)), Number(e2e::Blocks(system))});
}

void Camera::Send(Transcript* t, bool is_system, size_t block, size_t from) const {
    const std::string data = Cut(is_system ? system : camera, from, kCameraBlock);
    t->Say("read", {Number(data.size())});
    if (data.size() < kCameraBlock) {
        t->Say("last-block",
               {Number(data.size()), is_system ? "overlooksys.bin " : "overlookcam.bin "});
    }
    t->Say(is_system ? "system-block" : "camera-block", {Number(block), "1"});
    t->Say("sending", {Number(block), Number(data.size() + 2)}).Count(data.size());
    t->Host(0, Frame(is_system ? 0x89 : 0x88, Word(block) + data));
}

void Camera::Got(Transcript* t, const std::string& reply) {
    t->Say("camera-got", {reply == "\x48\x06" ? "ACK" : "NACK", Number(reply.size())});
    for (size_t i = 0; i < reply.size(); i++) {
        t->Say("reply-of-block", {Number(i), Hex(At(reply, i))});
    }
}

void Camera::Block(Transcript* t, bool is_system, size_t block) const {
    t->Say(is_system ? "system-working" : "camera-working", {Number(block)});
    Send(t, is_system, block, block);
    t->Unit(0, "\x48\x06");
    Got(t, "\x48\x06");
}

void Camera::Transfer(Transcript* t) const {
    if (camera_needed()) {
        for (size_t block = 0; block < e2e::Blocks(camera); block++) {
            Block(t, false, block);
        }
        t->Say("camera-working", {Number(e2e::Blocks(camera))});
    }
    if (system_needed()) {
        for (size_t block = 0; block < e2e::Blocks(system); block++) {
            Block(t, true, block);
        }
        t->Say("system-working", {Number(e2e::Blocks(system))});
    }
    t->Say("come-up");
}

void Camera::Update(Transcript* t) const {
    Begin(t);
    FlashMode(t);
    Transfer(t);
    Close(t);
}

}  // namespace e2e
