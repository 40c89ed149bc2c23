// What a run of the updater is expected to show: console text and wire bytes, told in the words of
// golden/words.txt, with a frame builder of the tests' own.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace e2e {

using Words = std::vector<std::string>;

const Words kAllImages = {"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"};

// A link frame around `payload`, as it stands on the wire.
std::string Frame(uint8_t type, const std::string& payload);

// Two big-endian bytes.
std::string Word(size_t value);

// `size` bytes that begin with `first` and hold every value, those that need stuffing included.
std::string Pattern(size_t size, uint8_t first = 0x13);

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
    // The scene after an update of everything.
    Scene Updated() const;
};

class Transcript {
  public:
    // Begins as every run does. The program's own name reads "kestrelflash".
    explicit Transcript(const Words& words, const Scene& scene_at_hand = {});

    // Goes on with the words of `story`, separated by blanks; a word's values follow it as
    // "word:value,value".
    Transcript& Tell(const std::string& story);
    Transcript& Say(const std::string& word, const Words& values = {});

    // The wire, in order. Consecutive bytes in one direction are one line.
    void Event(int port, const std::string& event);
    void Bytes(int port, char direction, const std::string& hex);

    Scene scene;
    Words arguments;
    std::string console;
    std::string wire;

  private:
    std::string Fill(std::string text, const Words& values) const;

    std::map<std::string, std::string> names_;  // what the scene says
    std::string wire_end_;                      // port and direction of the last line
};

}  // namespace e2e
