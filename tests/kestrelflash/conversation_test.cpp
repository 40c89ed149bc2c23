// Every conversation of the folder beside this file, held word for word: console, wire and pauses
// in their order, the result, and nothing left open.
//
// A conversation file says what is started and in which folder, and then everything that must
// follow, in order: console lines as they stand, and lines beginning with "@ " for what meets the
// outside: serial calls with their answers, pauses, and the result. The answers of the "@ " lines
// are what the fake serial port below gives back, so that one text is both the script and the
// expectation.
//
//   # comment
//   $ program arguments...          or: $ function values...
//   % name SIZE FIRST               an image: SIZE bytes, the first one FIRST (hexadecimal)
//   % name text TEXT                a file with that text
//   % name folder                   a folder in a file's place
//   @ open 1: 0                     Serial_Open(1, ...) returned 0
//   @ write 1 in 0: FF 44           bytes written with a time-out of 0, all of them...
//   @ write 1 in 0: FF 44 -> 1      ... or one only
//   @ write 1 in 0: frame 48 block 5 with 512 -> 3       a long frame, decoded
//   @ read 1 for 2 in 50000: 00 06  what came; nothing is a time-out
//   @ pause 500000
//   @ result 0
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "Common/OS/linux/board.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/logmsg.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "devlib/kestrelflash/kestrelflash.h"
#include "devlib/kestrelflash/microupdate.h"
#include "devlib/kestrelflash/overlookupdate.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/kestrelflash/updateflags.h"
#include "devlib/serialapi/serialapi.h"
#include "tests/kestrelflash/frame_decoder.h"

std::atomic<int> gConfigLoaded{0};

namespace {

std::vector<std::string> gAnswers;  // "@ " lines still to come, first one last
std::string gFaults;
std::map<int, std::string> gReceived;  // image bytes by frame type

// Says what is happening and takes the answer that the conversation has for it, which follows after
// a blank. What the conversation does not have breaks it off.
template <typename... ValuesT>
std::string Answer(const char* format, ValuesT... values) {
    char event[256];
    const int length = snprintf(event, sizeof event, format, values...);
    std::string answer = "?";
    if (!gAnswers.empty() && gAnswers.back().starts_with(event)) {
        answer = gAnswers.back().substr(strlen(event));
        gAnswers.pop_back();
    }
    printf("%s%s\n", event, answer.c_str());
    // Behind a colon stands any answer; all else is whole, or met with another result.
    if (answer == "?" ||
        (event[length - 1] != ':' && !answer.empty() && !answer.starts_with(" -> "))) {
        throw std::runtime_error("the conversation has another");
    }
    return answer;
}

// Long frames are decoded, everything else is told byte by byte.
std::string DescribeWrite(const Bytes& bytes) {
    char text[64];
    std::string hex;
    for (const unsigned char byte : bytes) {
        snprintf(text, sizeof text, " %02X", byte);
        hex += text;
    }
    unsigned char type = 0;
    Bytes payload;
    if (bytes[0] == 0xFF && !DecodeFrame(bytes, &type, &payload)) {
        gFaults += "malformed:" + hex + "\n";
    }
    if (payload.size() < 2) {
        return hex;
    }
    gReceived[type].append(payload.begin() + 2, payload.end());
    snprintf(text, sizeof text, " frame %02X block %d with %zu", type,
             payload[0] * 256 + payload[1], payload.size() - 2);
    return text;
}

void MakeFile(const std::string& line) {
    std::istringstream words(line);
    std::string name;
    std::string kind;
    std::string value;
    words >> name >> kind >> value;
    if (kind == "folder") {
        mkdir(name.c_str(), 0700);
        return;
    }
    if (kind != "text") {
        std::size_t byte = std::stoul(value, nullptr, 16);
        value.resize(std::stoul(kind));
        for (std::size_t i = 0; i < value.size(); i++, byte += i % 256 == 0 ? 38 : 37) {
            value[i] = static_cast<char>(byte);
        }
    }
    std::ofstream(name) << value;
}

int Run(std::vector<std::string> words) {
    if (words[0] == "KestrelSerialProgMicro") {
        return KestrelSerialProgMicro(CONTROLLER_FLASH_TYPE_KESTRELMICRO);
    }
    if (words[0] == "TransferOverlookImages") {
        OverlookUpdateInfoT camera = {};
        camera.overlook_cam_file = fopen(kOverlookCameraImageName, "r");
        camera.currentCamBlock = std::stoi(words[1]);
        camera.totalCamBlock = std::stoi(words[2]);
        return TransferOverlookImages(&camera);
    }
    std::vector<char*> argv(words.size() + 1);
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](auto& word) { return word.data(); });
    return KestrelFlashMain(static_cast<int>(words.size()), argv.data());
}

// Whatever was sent of an image is its beginning, unchanged.
void CheckImages() {
    std::map<int, std::string> names = {{0x48, kMicroImageName},
                                        {0x88, kOverlookCameraImageName},
                                        {0x89, kOverlookSystemImageName}};
    for (const auto& [type, bytes] : gReceived) {
        std::ostringstream image;
        image << std::ifstream(names[type]).rdbuf();
        if (!image.str().starts_with(bytes)) {
            gFaults += names[type] + " arrived changed\n";
        }
    }
}

// Replays the conversation in a folder of its own.
void Replay(const std::string& path) {
    std::string expected;
    char folder[] = "/tmp/harbor_replay_XXXXXX";
    if (mkdtemp(folder) == nullptr || chdir(folder) != 0) {
        throw std::runtime_error("no folder");
    }
    std::vector<std::string> command;
    std::ifstream conversation(path);
    for (std::string line; std::getline(conversation, line);) {
        if (expected.empty() && line.starts_with("% ")) {
            MakeFile(line.substr(2));
        } else if (expected.empty() && line.starts_with("$ ")) {
            std::istringstream words(line.substr(2));
            for (std::string word; words >> word;) {
                command.push_back(word);
            }
        } else if (!expected.empty() || !line.starts_with("#")) {
            expected += line + "\n";
            if (line.starts_with("@ ")) {
                gAnswers.insert(gAnswers.begin(), line);
            }
        }
    }
    const int lowest = dup(STDIN_FILENO);
    close(lowest);
    testing::internal::CaptureStdout();
    try {
        const int rc = Run(command);
        printf("@ result %d\n", rc);
    } catch (const std::exception& error) {
        printf("@ broken off: %s\n", error.what());
    }
    fflush(stdout);
    EXPECT_EQ(expected, testing::internal::GetCapturedStdout());
    EXPECT_EQ(lowest, dup(STDIN_FILENO)) << "files left open";
    CheckImages();
    EXPECT_EQ("", gFaults);
    std::filesystem::remove_all(folder);
}

std::vector<std::string> Conversations() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(CONVERSATIONS)) {
        names.push_back(entry.path().stem());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class Updater : public testing::TestWithParam<std::string> {};

TEST_P(Updater, KeepsTo) {
    Replay(std::string(CONVERSATIONS) + "/" + GetParam() + ".txt");
}

INSTANTIATE_TEST_SUITE_P(Conversations, Updater, testing::ValuesIn(Conversations()),
                         [](const auto& conversation) { return conversation.param; });

}  // namespace

// What the updater calls.

void TreeStub() {}

void DevMgrSerial_Init() {
    // The log must not read the configuration, and a lost reader must not end the update.
    if (gConfigLoaded != 1 || signal(SIGPIPE, SIG_IGN) != SIG_IGN) {
        gFaults += "the process is not set up\n";
    }
}

int BoardDelay(int usecs) {
    Answer("@ pause %d", usecs);
    return 0;
}

eErrorT Serial_Open(int port, SerialTxCallbackFuncPtrT tx, SerialRxCallbackFuncPtrT rx, void*,
                    const RS232Cfg* config) {
    const RS232Cfg wanted = {
        SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_EVEN, SERIAL_STOPBITS_1, 0, 0, 0};
    if (tx != nullptr || rx != nullptr || memcmp(config, &wanted, sizeof wanted) != 0) {
        gFaults += "wrong port settings\n";
    }
    return static_cast<eErrorT>(atoi(Answer("@ open %d:", port).c_str()));
}

eErrorT Serial_Enable(int port, SerialDirectionType direction) {
    return static_cast<eErrorT>(atoi(Answer("@ enable %d %d:", port, direction).c_str()));
}

eErrorT Serial_Disable(int port, SerialDirectionType direction) {
    return static_cast<eErrorT>(atoi(Answer("@ disable %d %d:", port, direction).c_str()));
}

eErrorT Serial_Close(int port) {
    return static_cast<eErrorT>(atoi(Answer("@ close %d:", port).c_str()));
}

int Serial_Write(int port, char* buf, int size, int usecs) {
    const std::string what = DescribeWrite(Bytes(buf, buf + size));
    const std::string answer = Answer("@ write %d in %d:%s", port, usecs, what.c_str());
    return answer.empty() ? size : atoi(answer.c_str() + 4);
}

int Serial_Read(int port, char* buf, int size, int usecs) {
    std::istringstream answer(Answer("@ read %d for %d in %d:", port, size, usecs));
    int count = 0;
    std::string word;
    while (answer >> word && word.size() == 2 && count < size) {
        buf[count++] = static_cast<char>(std::stoi(word, nullptr, 16));
    }
    return count;
}
