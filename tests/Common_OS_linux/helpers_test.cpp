// Helpers that run commands or look at processes.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "Common/OS/linux/procinfo.h"
#include "Common/OS/linux/system.h"
#include "tests/support/stdout_file.h"

TEST(ProcInfo, CommandsGiveTheirFirstLineTrimmedAndCut) {
    char line[8] = "old";
    EXPECT_EQ(read_command("printf '  abc  \\nsecond\\n'", line, sizeof(line)), 0);
    EXPECT_STREQ(line, "abc");
    EXPECT_EQ(read_command("echo 1234567890", line, sizeof(line)), 0);
    EXPECT_STREQ(line, "1234567");
    EXPECT_EQ(read_command("true", line, sizeof(line)), -1);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(read_command("/no/such/program 2>/dev/null", line, sizeof(line)), -1);
}

TEST(ProcInfo, ProcessesAreFoundByTheirWholeNameOnly) {
    ASSERT_EQ(prctl(PR_SET_NAME, "hbfindme"), 0);
    EXPECT_EQ(find_pid("hbfindme"), getpid());
    EXPECT_EQ(find_pid("hbfindm"), -1);
    EXPECT_EQ(find_pid("hbfindmes"), -1);
}

TEST(ProcInfo, BackTracesSayThatTheyAreNotThere) {
    const StdoutFile out;
    stackBackTrace(0);
    sstackBackTrace(0);
    EXPECT_EQ(out.Text(),
              "stackBackTrace(UInt32 taskID) not implemented.\n"
              "sstackBackTrace(UInt32 taskID) not implemented.\n");
}

TEST(ProcInfo, TheRootFileSystemsKindIsAskedOnce) {
    const int first = is_NFS();
    EXPECT_TRUE(first == 0 || first == -1);
    setenv("PATH", "", 1);
    EXPECT_EQ(is_NFS(), first);
}

TEST(System, TheBoardIsUnknownUntilItIsSet) {
    EXPECT_EQ(GetSystemHardwareType(), kUninitialized);
    SetSystemHardwareType(kHarbor);
    EXPECT_EQ(GetSystemHardwareType(), kHarbor);
    EXPECT_EQ(GetProcessorNum(), 0U);
}
