// Replays a recorded conversation. A conversation file says what is started and in which folder,
// and then everything that must follow, in order: console lines as they stand, and lines beginning
// with "@ " for what meets the outside: serial calls with their answers, pauses, and the result.
// The answers of the "@ " lines are what the fake serial port of this file gives back, so that one
// text is both the script and the expectation.
//
//   # comment
//   $ program arguments...          or: $ function argument
//   % name SIZE FIRST               an image: SIZE bytes, the first one FIRST (hexadecimal)
//   % name text TEXT                a file with that text
//   % name folder                   a folder in a file's place
//   @ open 1: 0                     Serial_Open(1, ...) returned 0
//   @ write 1 in 0: FF 44           bytes written with a time-out of 0, all of them...
//   @ write 1 in 0: FF 44 -> 1      ... or one only
//   @ write 1 in 0: frame 48 block 5 with 512 -> 3       a long frame, decoded
//   @ read 1 for 2 in 50000: 00 06  what came; nothing is a time-out
//   @ read 1 for 2 in 50000: 00 06 and the image is lost     its descriptor, that is
//   @ pause 500000
//   @ result 0
#pragma once

#include <string>

struct Replayed {
    std::string expected;  // the conversation file from its first "@ " or console line on
    std::string happened;
    std::string faults;  // frames or image bytes that were wrong, streams left open; empty if none
};

// Replays the conversation in a folder of its own.
Replayed Replay(const std::string& path);
