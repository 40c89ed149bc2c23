// What a run of the updater is expected to show, built line by line and byte by byte from
// golden/console.txt and from a frame builder of the tests' own.
#pragma once

#include <stdint.h>

#include <initializer_list>
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

// The value in hexadecimal with at least `width` digits.
std::string Hex(unsigned value, int width = 1);

class Transcript {
  public:
    // Begins as every run does. The program's own name reads "kestrelflash".
    explicit Transcript(const Words& arguments);

    // The console text of that name in golden/console.txt.
    Transcript& Say(const std::string& name, const Words& values = {});
    // The last line: how it was executed.
    Transcript& Executed(bool successfully);

    // The wire, in order. Consecutive bytes in one direction are one line.
    Transcript& Event(int port, const std::string& event);
    Transcript& Host(int port, const std::string& bytes) { return Bytes(port, '>', bytes); }
    Transcript& Unit(int port, const std::string& bytes) { return Bytes(port, '<', bytes); }
    Transcript& Bytes(int port, char direction, const std::string& bytes);

    // Progress is on: `total` bytes over the range. Each position is preceded by the console text
    // `trouble`, when there is one.
    Transcript& Progress(size_t total, int low, int high, const std::string& trouble = "",
                         const std::string& path = "");
    // So many more bytes are done.
    Transcript& Count(size_t bytes);

    const Words& arguments() const { return arguments_; }
    const std::string& console() const { return console_; }
    const std::string& wire() const { return wire_; }
    const std::string& positions() const { return positions_; }

  private:
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

// The microcontroller's side of a run, and the default unit's answers.
struct Micro {
    std::string image;  // of kestrelmicro.bin
    uint8_t version = 0x12;

    void Open(Transcript* t) const;
    // Asks for the version and prints the reply, of which `body` of 13 bytes came.
    void Ask(Transcript* t, size_t body = 13) const;
    void ShowReply(Transcript* t, size_t body = 13) const;
    void Verdict(Transcript* t) const;
    // Up to and with the verdict that an update is needed.
    void Begin(Transcript* t) const;
    // A fresh block up to its sending; `from` names the 512 bytes it carries where that is not
    // `block`.
    void Send(Transcript* t, int block, int from = -1) const;
    // A block that goes well.
    void Block(Transcript* t, int block) const;
    void Blocks(Transcript* t, int from, int to) const;
    void Retry(Transcript* t, int block, int iteration) const;
    // The answer to a block: `count` bytes read. 2 puts the answer onto the wire as well, -2 does
    // not.
    static void Got(Transcript* t, bool ack, int count = 2);
    // Behind the last block's answer.
    static void End(Transcript* t);
    static void Close(Transcript* t) { t->Event(1, "closed"); }
    // All of it.
    void Update(Transcript* t) const;
    std::string Reply() const;
};

// The camera's side.
struct Camera {
    std::string camera;  // of overlookcam.bin
    std::string system;  // of overlooksys.bin
    std::string unit_camera = "1000";
    std::string unit_system = "2000";
    std::string new_camera = "1001";
    std::string new_system = "2001";

    bool camera_needed() const { return unit_camera != new_camera; }
    bool system_needed() const { return unit_system != new_system; }
    void Open(Transcript* t) const;
    void Sizes(Transcript* t) const;
    // Up to the pause behind the device-type request.
    void Ask(Transcript* t) const;
    void Reply(Transcript* t) const;
    void ShowReply(Transcript* t) const;
    void Verdict(Transcript* t) const;
    // Up to and with the verdict.
    void Begin(Transcript* t) const;
    // The flash-mode request.
    void Announce(Transcript* t) const;
    void FlashMode(Transcript* t) const;
    std::string FlashReply() const;
    void Block(Transcript* t, bool system, size_t block) const;
    void Send(Transcript* t, bool system, size_t block, size_t from) const;
    static void Got(Transcript* t, const std::string& reply);
    static void Close(Transcript* t) { t->Event(0, "closed"); }
    // From the first block to the last answer.
    void Transfer(Transcript* t) const;
    void Update(Transcript* t) const;
    std::string DeviceType() const;
};

}  // namespace e2e
