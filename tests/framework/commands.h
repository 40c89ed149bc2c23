// What the tests of commands share: where outcomes arrive, and a command that tells its words.
#pragma once

#include <mutex>

#include "Common/framework/message.h"
#include "tests/framework/module_task.h"

// What arrived at notification functions and listeners, of any task: "task: outcome, text".
inline std::mutex gOutcomeMutex;
inline TextsT gOutcomes;

inline void Notify(eErrorT err, const char* text, void* user) {
    const std::scoped_lock lock(gOutcomeMutex);
    const std::string outcome = user == &gOutcomes ? ErrorString(err) : "heard";
    gOutcomes.push_back(std::string(t_name(0)) + ": " + outcome + ", " + text);
}

inline bool WaitForOutcomes(size_t count) {
    return Eventually([count] {
        const std::scoped_lock lock(gOutcomeMutex);
        return gOutcomes.size() >= count;
    });
}

// Responds with its words; without one it fails, and its response overruns by a character.
inline eErrorT WordsCmd(int argc, char** argv, char* pResponse) {
    std::string words;
    for (int i = 1; i < argc; i++) {
        words += std::string(argv[i]) + "|";
    }
    words.resize(kMsgMaxLen + 1, argc > 1 ? '\0' : 'r');
    words.copy(pResponse, kMsgMaxLen + 1);
    return argc > 1 ? kNoError : kBadState;
}
