// Every conversation of the folder beside this file, held word for word: console, wire and pauses
// in their order, the result, and nothing left open.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/kestrelflash/replay.h"

namespace {

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
    const Replayed replayed = Replay(std::string(CONVERSATIONS) + "/" + GetParam() + ".txt");
    EXPECT_EQ(replayed.expected, replayed.happened);
    EXPECT_EQ("", replayed.faults);
}

INSTANTIATE_TEST_SUITE_P(Conversations, Updater, testing::ValuesIn(Conversations()),
                         [](const auto& conversation) { return conversation.param; });

}  // namespace
