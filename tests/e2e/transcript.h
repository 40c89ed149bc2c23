// What a run of the updater is expected to show: console text from golden/console.txt and wire
// bytes from a frame builder of the tests' own, told in words.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace e2e {

using Words = std::vector<std::string>;

// A link frame around `payload`, as it stands on the wire.
std::string Frame(uint8_t type, const std::string& payload);

// Two big-endian bytes.
std::string Word(size_t value);

// `size` bytes that begin with `first` and hold every value, those that need stuffing included.
std::string Pattern(size_t size, uint8_t first = 0x13);

std::string Hex(unsigned value, int width = 1);
std::string FromHex(const std::string& hex);

// The images at hand and what the unit has.
struct Scene {
    std::string micro = Pattern(600);      // kestrelmicro.bin
    std::string camera = Pattern(300, 1);  // overlookcam.bin
    std::string system = Pattern(200, 2);  // overlooksys.bin
    std::string new_camera = "1001";       // overlookcamver
    std::string new_system = "2001";       // overlooksysver
    uint8_t unit_micro = 0x12;
    std::string unit_camera = "1000";
    std::string unit_system = "2000";

    bool camera_needed() const { return unit_camera != new_camera; }
    bool system_needed() const { return unit_system != new_system; }
    std::string VersionReply() const;
    std::string DeviceType() const;
    std::string FlashReply() const;
    // The scene after an update of everything.
    Scene Updated() const;
};

class Transcript {
  public:
    // Begins as every run does. The program's own name reads "kestrelflash".
    explicit Transcript(const Words& arguments, const Scene& scene = {});

    // Goes on with the words of `story`, separated by blanks; a word's values follow it as
    // "word:value,value". The words are listed in transcript.cpp.
    Transcript& Tell(const std::string& story);

    // The console text of that name in golden/console.txt.
    Transcript& Say(const std::string& name, const Words& values = {});

    // The wire, in order. Consecutive bytes in one direction are one line.
    Transcript& Event(int port, const std::string& event);
    Transcript& Bytes(int port, char direction, const std::string& bytes);

    // Progress is on: `total` bytes over the range. Each position is preceded by the console text
    // `trouble`, when there is one.
    Transcript& Progress(size_t total, int low, int high, const std::string& trouble = "",
                         const std::string& path = "");
    // So many more bytes are done.
    void Count(size_t bytes);

    const Scene& scene() const { return scene_; }
    const Words& arguments() const { return arguments_; }
    const std::string& console() const { return console_; }
    const std::string& wire() const { return wire_; }
    const std::string& positions() const { return positions_; }

  private:
    Scene scene_;
    Words arguments_;
    std::string console_;
    std::string wire_;
    std::string positions_;  // every number written, one behind the other
    std::string wire_end_;   // port and direction of the last line
    std::string trouble_;
    std::string path_;
    int total_ = 0;
    int done_ = 0;
    int low_ = 0;
    int width_ = 0;
    int last_ = 0;
};

}  // namespace e2e
