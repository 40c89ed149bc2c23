// Assembling lines, the repeat filter, the show and cull filters, and the configuration's part.
#include <map>

#include "Common/OS/syslogf.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {

class LogLines : public LogFixtureT {};

TEST_F(LogLines, AnEntryPointPrintsUnderAForeignLevelOrTearsALine) {
    logmsg_set_format(kLogFormatLevel);
    logcrit("a", "x%d\n", 1);
    logerr("a", "x%d\n", 2);
    logwarn("a", "x%d\n", 3);
    loginfo("a", "x%d\n", 4);
    EXPECT_EQ(logdebug("a", "x%d\n", 5), 19);
    for (const int level : {-1, 2, 5, 9}) {
        logmsg(level, "a", "y%d\n", level);
    }
    EXPECT_EQ(cm_syslog(4, "%s", "z\n"), 15);
    EXPECT_EQ(loginfo(nullptr, "n\n"), 15);
    EXPECT_EQ(syslogf(9, SYS_TERM_NULL, 7, "t%d\n", 9), 16);
    syslogf(3, static_cast<gRtCategoryT>(500), 7, "t3\n");
    EXPECT_EQ(category_printf(UI_JVM_NULL, "c%s\n", "x"), 16);
    logwarn("a", "abc");
    loginfo("b", "def\n");
    loginfo("b", "one\ntwo");
    loginfo("b", "three\n");
    EXPECT_EQ(Printed(),
              "CRIT  pc[0]: a: x1\nERROR pc[0]: a: x2\nWARN  pc[0]: a: x3\nINFO  pc[0]: a: x4\n"
              "DEBUG pc[0]: a: x5\nCRIT  pc[0]: a: y-1\nCRIT  pc[0]: a: y2\nINFO  pc[0]: a: y5\n"
              "DEBUG pc[0]: a: y9\nWARN  pc[0]: z\nINFO  pc[0]: n\n"
              "DEBUG pc[0]: t9\nERROR pc[0]: t3\nDEBUG pc[0]: cx\n"
              "WARN  pc[0]: a: abcdef\nINFO  pc[0]: b: one\ntwoINFO  pc[0]: b: three\n");
}

TEST_F(LogLines, TextsThatAreTooLongSpillOver) {
    const std::string xs(3000, 'x');
    const std::string cut = "pc[0]: a: " + xs.substr(0, 511 - 16);  // and the level field's six
    EXPECT_EQ(loginfo("a", "%.600s\n", xs.c_str()), 16 + 601);
    // Longer than the formatting buffer: the end is cut off, so the line waits for another.
    EXPECT_EQ(loginfo("a", "%s\n", xs.c_str()), 16 + 3001);
    for (int i = 0; i < 100; i++) {
        loginfo("b", "never ends");
    }
    loginfo("b", "tail\n");
    // A component that leaves no room for the message.
    loginfo(xs.c_str(), "message");
    loginfo(nullptr, "\n");
    loginfo("a", "clean\n");
    EXPECT_EQ(Printed(), cut + cut + "pc[0]: " + xs.substr(0, 511 - 13) + "pc[0]: a: clean\n");
}

TEST_F(LogLines, RepeatsAreCountedWrongOrSwallowTheNextLine) {
    logmsg_set_format(kLogFormatLevel);
    for (const int filtered : {0, 1}) {
        loginfo("a", "%d\n", filtered);
        loginfo("a", "%d\n", filtered);
        logmsg_set_spewfilter(1);
    }
    loginfo("a", "%d", 1);
    loginfo("a", "\n");
    loginfo("a", "last\n");
    logerr("a", "last\n");  // equal but for the level
    EXPECT_EQ(Printed(),
              "INFO  pc[0]: a: 0\nINFO  pc[0]: a: 0\nINFO  pc[0]: a: 1\n"
              "DEBUG pc[0]: ...last line repeated 3 times\n"
              "INFO  pc[0]: a: last\nERROR pc[0]: a: last\n");
}

TEST_F(LogLines, AFilterDropsOrPassesTheWrongLine) {
    const auto passes = [this](const char* text) {
        loginfo("a", "%s\n", text);
        return Printed() == std::string("pc[0]: a: ") + text + "\n";
    };
    EXPECT_TRUE(passes("any"));
    logmsg_showfilter_add("foo");
    EXPECT_TRUE(passes("food") && passes("no Foo's but foo's case") && !passes("FOO"));
    logmsg_cullfilter_add("bar");
    EXPECT_TRUE(!passes("foobar") && passes("foo"));
    logmsg_showfilter_add("baz");
    logmsg_showfilter_delete("FOO");  // ignores case
    EXPECT_TRUE(!passes("foo") && passes("baz"));
    logmsg_showfilter_delete("*");
    EXPECT_TRUE(passes("foo") && !passes("bar"));
    // Judged is what will be printed, not what stands behind it.
    EXPECT_EQ(logmsg_print("INFO  ok, bar", 8), 8);
    EXPECT_EQ(Printed(), "ok");
}

TEST_F(LogLines, BadFiltersBreakTheTable) {
    const std::string longest(400, 'L');
    for (size_t i = 0; i < kLogFilterCount; i++) {
        EXPECT_EQ(logmsg_cullfilter_add(i == 0 ? longest.c_str() : std::string(i, 'q').c_str()), 0);
    }
    EXPECT_EQ(logmsg_cullfilter_add("eleventh"), -1);
    logmsg_cullfilter_delete("QQQ");
    logmsg_cullfilter_add("z");  // into the free slot, with nothing left of the longer one
    EXPECT_EQ(logmsg_cullfilter_delete("absent") + logmsg_cullfilter_delete(nullptr), 0);
    logmsg_cullfilter_dump();
    logmsg_cullfilter_delete("*");
    logmsg_cullfilter_dump();
    EXPECT_THAT(Printed(),
                testing::MatchesRegex(
                    "\"eleventh\" cull filter not added, table full\n"
                    "\"absent\" cull filter not found\n\"\" cull filter not found\n"
                    "cull filters:\n  \"L{369}\"\n  \"q\"\n  \"qq\"\n  \"z\"\n(  \"q{4,9}\"\n){6}"
                    "cull filters:\n"));
}

TEST_F(LogLines, SettingsChangeOnTheirWayThroughTheStore) {
    // A configuration in memory that also logs while it is asked, as the real one may.
    static std::map<std::string, std::string> stored;
    const LogConfigT config = {[](const char* name, int instance, char* value) {
                                   loginfo("config", "asked\n");
                                   const std::string text = stored[name + std::to_string(instance)];
                                   snprintf(value, kLogConfigValueSize, "%s", text.c_str());
                                   return text.empty() ? kItemNotFound : kNoError;
                               },
                               [](const char* name, int instance, const char* value) {
                                   stored[name + std::to_string(instance)] = value;
                                   return kNoError;
                               }};
    logmsg_set_config(&config);
    stored = {{"showfilter7", "stale"}, {"logformat0", "level"}};
    logmsg_showfilter_add("one");
    logmsg_cullfilter_add(std::string(kLogFilterSize, 'c').c_str());
    EXPECT_EQ(logmsg_showfilter_save() + logmsg_cullfilter_save(), 0);
    EXPECT_EQ(stored["showfilter0"] + stored["showfilter7"], "one");
    logmsg_showfilter_delete("*");
    logmsg_cullfilter_delete("*");
    // The first line reads all three.
    loginfo("a", "no match\n");
    loginfo("a", "one\n");
    EXPECT_EQ(Printed(), "show filters:\n  \"one\"\ncull filters:\n  \"" +
                             std::string(kLogFilterSize - 1, 'c') +
                             "\"\nINFO  pc[0]: config: asked\nINFO  pc[0]: a: one\n");
}

}  // namespace
