// The ground floor and the helpers that need no thread.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <random>

#include "Common/OS/assertion.h"
#include "Common/OS/bintree.h"
#include "Common/OS/errors.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/osstring.h"
#include "Common/OS/linux/procinfo.h"
#include "Common/OS/linux/wordset.h"

TEST(Errors, ACodeHasNoTextOrAForeignNumber) {
    EXPECT_EQ(kFileOpenError, -36);
    for (int code = 0; code >= -50; code--) {
        EXPECT_EQ(strcmp(ErrorString(static_cast<eErrorT>(code)), "unknown error") == 0,
                  code < kMaxError)
            << code;
    }
}

TEST(AssertionDeathTest, NamesTheConditionThePathWithoutExtensionAndTheFunction) {
    EXPECT_DEATH(
        OsAssert(1 + 1 == 3),
        "1 \\+ 1 == 3, file tests/Common_OS_linux/ground_test, line [0-9]+, function TestBody");
    EXPECT_DEATH(OsAssertText(false, "pDev"), "failed: pDev,");
}

TEST(BinTree, HoldsWhatAMapHoldsThroughRandomInserts) {
    std::mt19937_64 random(7);
    TreeT* tree = CreateTree();
    std::map<TreeKeyT, void*> model;
    for (TreeKeyT i = 0; i < 2000; i++) {
        const TreeKeyT key = i < 1000 ? i : static_cast<TreeKeyT>(random() % 5000);
        model[key] = reinterpret_cast<void*>(random() | 1);
        ASSERT_EQ(InsertItem(tree, key, model[key]), 0);
    }
    for (TreeKeyT key = 0; key < 5000; key++) {
        ASSERT_EQ(SearchTree(tree, key), model[key]) << key;
    }
    DestroyTree(tree);
}

TEST(LowMemory, BlocksFitInAnIdAreZeroedAndDoNotOverlap) {
    std::map<unsigned char*, size_t> blocks;
    const size_t before = LowBytesInUse();
    std::mt19937 random(3);
    for (int round = 0; round < 2000; round++) {
        const size_t size = round % 100 == 0 ? 300000 : random() % 10000;
        auto* block = static_cast<unsigned char*>(LowCalloc(size));
        ASSERT_EQ(from_id<unsigned char>(id_of(block)), block);
        ASSERT_EQ(std::count(block, block + size, 0), size);
        memset(block, round | 1, size);
        blocks[block] = size;
        if (round % 3 != 0) {
            const auto victim =
                std::next(blocks.begin(), static_cast<long>(random() % blocks.size()));
            LowFree(victim->first);
            blocks.erase(victim);
        }
    }
    for (const auto& [block, size] : blocks) {
        ASSERT_EQ(std::count(block, block + size, block[0]), size);
        LowFree(block);
    }
    EXPECT_EQ(LowBytesInUse(), before);
}

TEST(WordSet, SetsEveryLengthAtEveryAlignmentAndNothingElse) {
    for (size_t at = 0; at < 8; at++) {
        for (size_t length = 0; length < 100; length++) {
            std::string memory(128, '\x55');
            EXPECT_EQ(WordSet(memory.data() + at, 0x1A7, length), memory.data() + at);
            std::string expected(128, '\x55');
            ASSERT_EQ(memory, expected.replace(at, length, length, '\xA7')) << at << " " << length;
        }
    }
}

TEST(Strings, AHelperRunsOverABoundaryOrTakesAByteForABlank) {
    const std::pair<const char*, const char*> cases[] = {{"  abc \t\n", "abc"},
                                                         {"   ", ""},
                                                         {"", ""},
                                                         {"\xA0 x\xFF ", "\xA0 x\xFF"},
                                                         {"a b", "a b"}};
    for (const auto& [text, trimmed] : cases) {
        std::string buffer(text);
        EXPECT_STREQ(trim_str(buffer.data()), trimmed);
    }
    const std::string common(255, 'x');
    EXPECT_EQ(stricmp((common + "1").c_str(), (common + "2").c_str()), 0);
    setenv("HARBOR_TEST", "12345", 1);
    char value[6] = "keep";
    EXPECT_EQ(read_env("HARBOR_TEST", value, 5), -1);
    EXPECT_STREQ(value, "keep");
    EXPECT_EQ(read_env("HARBOR_TEST", value, 6), 0);
    EXPECT_STREQ(value, "12345");
}
