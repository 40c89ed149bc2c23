// The job runner's reading of a suite's listing, which decides what runs in the emulated machine.
#include "target/guest/runner.h"

#include <gtest/gtest.h>

TEST(MachineRunner, ATestIsLostBetweenTheListingAndTheRun) {
    const std::string listing =
        "Running main() from gtest_main.cc\n"
        "Plain.\n"
        "  First\n"
        "  Second\n"
        "Typed/0.  # TypeParam = unsigned int\n"
        "  Holds\n"
        "All/Table.\n"
        "  Row/0  # GetParam() = 4-byte object <00-00 00-01>\n"
        "  Row/named  # GetParam() = \"a. b\"\n"
        "DISABLED_Off.\n"
        "  Sleeps\n";
    const std::vector<std::string> expected{"Plain.First",         "Plain.Second",
                                            "Typed/0.Holds",       "All/Table.Row/0",
                                            "All/Table.Row/named", "DISABLED_Off.Sleeps"};
    EXPECT_EQ(ParseTestList(listing), expected);
    EXPECT_TRUE(ParseTestList("").empty());
    EXPECT_TRUE(ParseTestList("terminate called.\n").empty());
}
