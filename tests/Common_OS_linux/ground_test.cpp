// The ground floor and the helpers that need no thread.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Common/OS/assertion.h"
#include "Common/OS/bintree.h"
#include "Common/OS/errors.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/osstring.h"
#include "Common/OS/linux/procinfo.h"
#include "Common/OS/linux/wordset.h"

TEST(Errors, CodesKeepTheirNumbersAndEveryCodeHasAText) {
    EXPECT_EQ(kItemNotFound, -25);
    EXPECT_EQ(kFileOpenError, -36);
    EXPECT_EQ(kMaxError, -49);
    for (int code = 0; code >= kMaxError; code--) {
        EXPECT_STRNE(ErrorString(static_cast<eErrorT>(code)), "unknown error") << code;
    }
    EXPECT_STREQ(ErrorString(static_cast<eErrorT>(-50)), "unknown error");
}

TEST(AssertionDeathTest, NamesTheConditionThePathWithoutExtensionAndTheFunction) {
    EXPECT_DEATH(
        OsAssert(1 + 1 == 3),
        "1 \\+ 1 == 3, file tests/Common_OS_linux/ground_test, line [0-9]+, function TestBody");
    EXPECT_DEATH(OsAssertText(false, "pDev"), "failed: pDev,");
}

TEST(BinTree, HoldsWhatAMapHoldsThroughRandomInsertsAndRebuilds) {
    std::mt19937_64 random(7);
    TreeT* tree = CreateTree();
    std::map<TreeKeyT, void*> model;
    for (int i = 0; i < 2000; i++) {
        const TreeKeyT key =
            i < 1000 ? static_cast<TreeKeyT>(i) : static_cast<TreeKeyT>(random() % 5000);
        void* object = reinterpret_cast<void*>(random() | 1);
        ASSERT_EQ(InsertItem(tree, key, object), 0);
        model[key] = object;
    }
    for (TreeKeyT key = 0; key < 5000; key++) {
        const auto found = model.find(key);
        ASSERT_EQ(SearchTree(tree, key), found == model.end() ? nullptr : found->second) << key;
    }
    TreeItemT item = {~static_cast<TreeKeyT>(0), tree};
    ASSERT_EQ(BuildTree(tree, &item, 1), 0);
    EXPECT_EQ(SearchTree(tree, item.key), tree);
    EXPECT_EQ(SearchTree(tree, 1), nullptr);
    EXPECT_EQ(SearchTree(nullptr, 1), nullptr);
    DestroyTree(tree);
}

TEST(LowMemory, BlocksFitInAnIdAreZeroedAndDoNotOverlap) {
    std::vector<std::pair<unsigned char*, size_t>> blocks;
    const size_t before = LowBytesInUse();
    std::mt19937 random(3);
    for (int round = 0; round < 2000; round++) {
        const size_t size = round % 100 == 0 ? 300000 : random() % 10000;
        auto* block = static_cast<unsigned char*>(LowCalloc(size));
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(from_id<unsigned char>(id_of(block)), block);
        ASSERT_TRUE(std::all_of(block, block + size, [](unsigned char b) { return b == 0; }));
        memset(block, round | 1, size);
        blocks.emplace_back(block, size);
        if (round % 3 != 0) {
            const size_t victim = random() % blocks.size();
            LowFree(blocks[victim].first);
            blocks.erase(blocks.begin() + static_cast<long>(victim));
        }
    }
    for (const auto& [block, size] : blocks) {
        for (size_t i = 1; i < size; i++) {
            ASSERT_EQ(block[i], block[0]);
        }
        LowFree(block);
    }
    LowFree(nullptr);
    EXPECT_EQ(LowBytesInUse(), before);
    EXPECT_EQ(id_of(nullptr), 0U);
}

TEST(WordSet, SetsEveryLengthAtEveryAlignmentAndNothingElse) {
    unsigned char memory[128];
    for (size_t at = 0; at < 8; at++) {
        for (size_t length = 0; length < 100; length++) {
            std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0x55));
            EXPECT_EQ(WordSet(memory + at, 0x1A7, length), memory + at);
            for (size_t i = 0; i < sizeof(memory); i++) {
                ASSERT_EQ(memory[i], i >= at && i < at + length ? 0xA7 : 0x55)
                    << at << " " << length;
            }
        }
    }
}

TEST(Strings, TrimmingStopsAtBytesFrom128AndEmptiesBlanks) {
    const struct {
        const char* text;
        const char* trimmed;
    } cases[] = {{"  abc \t\n", "abc"},
                 {"   ", ""},
                 {"", ""},
                 {"\xA0 x\xFF ", "\xA0 x\xFF"},
                 {"a b", "a b"}};
    for (const auto& c : cases) {
        std::string text(c.text);
        text.push_back('\0');
        EXPECT_STREQ(trim_str(text.data()), c.trimmed);
    }
}

TEST(Strings, ComparisonLooksAt255CharactersAndNumbersKnowTwoRadices) {
    EXPECT_EQ(stricmp("LogFormat", "logformat"), 0);
    EXPECT_LT(stricmp("a", "B"), 0);
    const std::string common(255, 'x');
    EXPECT_EQ(stricmp((common + "1").c_str(), (common + "2").c_str()), 0);
    char buffer[12];
    EXPECT_STREQ(itoa(-2147483647 - 1, buffer, 10), "-2147483648");
    EXPECT_STREQ(itoa(-1, buffer, 16), "ffffffff");
    EXPECT_EQ(itoa(1, buffer, 8), nullptr);
}

TEST(ProcInfo, EnvironmentValuesThatDoNotFitAreRefused) {
    setenv("HARBOR_TEST", "12345", 1);
    char buffer[6] = "keep";
    EXPECT_EQ(read_env("HARBOR_TEST", buffer, 5), -1);
    EXPECT_EQ(read_env("HARBOR_TEST_UNSET", buffer, 6), -1);
    EXPECT_EQ(read_env("HARBOR_TEST", buffer, 0), -1);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(read_env("HARBOR_TEST", buffer, 6), 0);
    EXPECT_STREQ(buffer, "12345");
}
