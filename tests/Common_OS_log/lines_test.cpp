// Assembling lines, the repeat filter, the show and cull filters, and the configuration's part.
#include <functional>
#include <map>

#include "tests/Common_OS_log/logfixture.h"

namespace {

class LogLines : public LogFixtureT {};
class LogFilters : public LogFixtureT {};
class LogSettings : public LogFixtureT {};

// Formats that the compiler is not to judge.
int Log(const char* component, const char* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    const int result = va_logmsg(ap, kLogInfo, component, fmt);
    va_end(ap);
    return result;
}

TEST_F(LogLines, AnEntryPointPrintsUnderAForeignLevel) {
    const struct {
        std::function<int()> call;
        const char* line;
    } cases[] = {
        {[] { return logcrit("a", "x%d\n", 1); }, "CRIT  pc[0]: a: x1\n"},
        {[] { return logerr("a", "x%d\n", 2); }, "ERROR pc[0]: a: x2\n"},
        {[] { return logwarn("a", "x%d\n", 3); }, "WARN  pc[0]: a: x3\n"},
        {[] { return loginfo("a", "x%d\n", 4); }, "INFO  pc[0]: a: x4\n"},
        {[] { return logdebug("a", "x%d\n", 5); }, "DEBUG pc[0]: a: x5\n"},
        {[] { return logmsg(-1, "a", "y\n"); }, "CRIT  pc[0]: a: y\n"},
        {[] { return logmsg(2, "a", "y\n"); }, "CRIT  pc[0]: a: y\n"},
        {[] { return logmsg(5, "a", "y\n"); }, "INFO  pc[0]: a: y\n"},
        {[] { return logmsg(9, "a", "y\n"); }, "DEBUG pc[0]: a: y\n"},
        {[] { return cm_syslog(4, "%s", "z\n"); }, "WARN  pc[0]: z\n"},
        {[] { return Log(nullptr, "n\n"); }, "INFO  pc[0]: n\n"},
    };
    logmsg_set_format(kLogFormatLevel);
    for (const auto& c : cases) {
        EXPECT_EQ(c.call(), static_cast<int>(strlen(c.line))) << c.line;
        EXPECT_EQ(Printed(), c.line);
    }
    EXPECT_EQ(Log("a", nullptr), 0);
    EXPECT_EQ(Printed(), "");
}

TEST_F(LogLines, PartialWritesAreTornOrGetHeadersOfTheirOwn) {
    logmsg_set_format(kLogFormatLevel);
    logwarn("a", "abc");
    EXPECT_EQ(Printed(), "");
    loginfo("b", "def\n");
    EXPECT_EQ(Printed(), "WARN  pc[0]: a: abcdef\n");
    loginfo("b", "one\ntwo");
    EXPECT_EQ(Printed(), "INFO  pc[0]: b: one\ntwo");
    loginfo("b", "three\n");
    EXPECT_EQ(Printed(), "INFO  pc[0]: b: three\n");
}

TEST_F(LogLines, TextsThatAreTooLongSpillOver) {
    const std::string header = "pc[0]: a: ";
    const std::string xs(3000, 'x');
    // Longer than a line: cut to 511 characters, the level field's six included.
    EXPECT_EQ(Log("a", "%.600s\n", xs.c_str()), 16 + 601);
    EXPECT_EQ(Printed(), header + xs.substr(0, 511 - 16));
    // Longer than the formatting buffer: the end is cut off, so the line waits for another.
    EXPECT_EQ(Log("a", "%s\n", xs.c_str()), 16 + 3001);
    EXPECT_EQ(Printed(), "");
    Log("b", "tail\n");
    EXPECT_EQ(Printed(), header + xs.substr(0, 511 - 16));
    // A component that leaves no room for the message.
    Log(xs.c_str(), "message");
    Log(nullptr, "\n");
    EXPECT_EQ(Printed(), "pc[0]: " + xs.substr(0, 511 - 13));
    // A line that never ends takes no more than its buffer.
    for (int i = 0; i < 100; i++) {
        Log("a", "%.50s", xs.c_str());
    }
    Log("a", "\n");
    EXPECT_EQ(Printed(), header + xs.substr(0, 511 - 16));
    Log("a", "clean\n");
    EXPECT_EQ(Printed(), header + "clean\n");
}

TEST_F(LogLines, RepeatsAreCountedWrongOrSwallowTheNextLine) {
    logmsg_set_format(kLogFormatLevel);
    EXPECT_EQ(logmsg_get_spewfilter(), 0);
    loginfo("a", "same\n");
    loginfo("a", "same\n");
    EXPECT_EQ(Printed(), "INFO  pc[0]: a: same\nINFO  pc[0]: a: same\n");
    logmsg_set_spewfilter(1);
    loginfo("a", "new\n");
    loginfo("a", "new\n");
    loginfo("a", "ne");
    loginfo("a", "w\n");
    EXPECT_EQ(Printed(), "INFO  pc[0]: a: new\n");
    loginfo("a", "other\n");
    loginfo("a", "last\n");
    EXPECT_EQ(Printed(),
              "DEBUG pc[0]: ...last line repeated 3 times\n"
              "INFO  pc[0]: a: other\nINFO  pc[0]: a: last\n");
    logerr("a", "last\n");  // equal but for the level
    EXPECT_EQ(Printed(), "ERROR pc[0]: a: last\n");
}

TEST_F(LogFilters, AFilterDropsOrPassesTheWrongLine) {
    logmsg_showfilter_add("foo");
    Log("a", "food\n");
    Log("a", "Foo is not foo's case\n");
    Log("a", "FOO\n");
    EXPECT_EQ(Printed(), "pc[0]: a: food\npc[0]: a: Foo is not foo's case\n");
    logmsg_cullfilter_add("bar");
    Log("a", "foobar\n");
    Log("a", "foo\n");
    EXPECT_EQ(Printed(), "pc[0]: a: foo\n");
    logmsg_showfilter_add("baz");
    logmsg_showfilter_delete("FOO");  // ignores case
    Log("a", "foo\n");
    Log("a", "baz\n");
    EXPECT_EQ(Printed(), "pc[0]: a: baz\n");
    logmsg_showfilter_delete("*");
    logmsg_cullfilter_delete("*");
    EXPECT_EQ(logmsg_print("INFO  pc[0]: direct bar\n", 24), 24);
    EXPECT_EQ(Printed(), "pc[0]: direct bar\n");
    EXPECT_EQ(logmsg_print("", 0), 0);
    EXPECT_EQ(logmsg_print(nullptr, 5), 0);
}

TEST_F(LogFilters, BadFiltersBreakTheTable) {
    const struct {
        int (*add)(const char*);
        int (*remove)(const char*);
        int (*dump)();
        std::string kind;
    } tables[] = {
        {logmsg_showfilter_add, logmsg_showfilter_delete, logmsg_showfilter_dump, "show"},
        {logmsg_cullfilter_add, logmsg_cullfilter_delete, logmsg_cullfilter_dump, "cull"},
    };
    for (const auto& t : tables) {
        // None at all: neither kept nor counted as a filter that no line can pass.
        EXPECT_EQ(t.add(nullptr), -1);
        EXPECT_EQ(t.add(""), -1);
        EXPECT_EQ(t.remove(nullptr), 0);
        EXPECT_EQ(t.remove("absent"), 0);
        EXPECT_EQ(Printed(), "\"\" " + t.kind + " filter not found\n\"absent\" " + t.kind +
                                 " filter not found\n");
        Log("a", "passes\n");
        EXPECT_EQ(Printed(), "pc[0]: a: passes\n");

        const std::string longest(400, 'L');
        EXPECT_EQ(t.add(longest.c_str()), 0);
        for (int i = 1; i < 10; i++) {
            EXPECT_EQ(t.add(std::string(static_cast<size_t>(i), 'q').c_str()), 0);
        }
        EXPECT_EQ(t.add("eleventh"), -1);
        EXPECT_EQ(Printed(), "\"eleventh\" " + t.kind + " filter not added, table full\n");
        t.remove(longest.c_str());
        t.remove("QQQ");
        EXPECT_EQ(t.add("x\"y"), 0);  // into the first free slot
        t.dump();
        const std::string dumped = Printed();
        EXPECT_EQ(
            dumped.rfind(t.kind + " filters:\n  \"x\"y\"\n  \"q\"\n  \"qq\"\n  \"qqqq\"\n", 0), 0U)
            << dumped;
        t.remove("*");
        t.dump();
        EXPECT_EQ(Printed(), t.kind + " filters:\n");
        EXPECT_EQ(t.add(longest.c_str()), 0);
        t.dump();
        EXPECT_EQ(Printed(),
                  t.kind + " filters:\n  \"" + longest.substr(0, kLogFilterSize - 1) + "\"\n");
        t.remove("*");
    }
}

// A configuration in memory that also logs while it is asked, as the real one may.
std::map<std::string, std::string> gStore;
int gReads;

eErrorT ReadStore(const char* name, int instance, char* value) {
    gReads++;
    Log("config", "asked\n");
    const auto found = gStore.find(name + std::to_string(instance));
    snprintf(value, kLogConfigValueSize, "%s", found != gStore.end() ? found->second.c_str() : "");
    return found != gStore.end() ? kNoError : kItemNotFound;
}

eErrorT WriteStore(const char* name, int instance, const char* value) {
    gStore[name + std::to_string(instance)] = value;
    return kNoError;
}

const LogConfigT kStore = {ReadStore, WriteStore};

TEST_F(LogSettings, TheFirstLineMissesTheConfiguration) {
    gStore = {
        {"showfilter3", "foo"}, {"cullfilter9", std::string(370, 'c')}, {"logformat0", "level"}};
    logmsg_set_config(&kStore);
    Log("a", "no match\n");
    const std::string first = Printed();
    EXPECT_NE(first.find("show filters:\n  \"foo\"\n"), std::string::npos) << first;
    EXPECT_NE(first.find("cull filters:\n  \"" + std::string(369, 'c') + "\"\n"),
              std::string::npos);
    EXPECT_EQ(first.find("no match"), std::string::npos);
    EXPECT_EQ(gReads, 21);
    Log("a", "foo\n");
    EXPECT_EQ(Printed(), "INFO  pc[0]: a: foo\n");
    EXPECT_EQ(gReads, 21);
}

TEST_F(LogSettings, AProgramThatOptsOutReadsConfigurationAllTheSame) {
    logmsg_set_config(&kStore);
    gConfigLoaded = 1;
    Log("a", "x\n");
    EXPECT_EQ(Printed(), "pc[0]: a: x\n");
    EXPECT_EQ(gReads, 0);
    EXPECT_EQ(logmsg_get_format(), kLogFormatProc);
}

TEST_F(LogSettings, SettingsChangeOnTheirWayThroughTheStore) {
    gConfigLoaded = 1;
    // Without a configuration nothing is found and nothing is kept.
    EXPECT_EQ(logmsg_showfilter_load() + logmsg_showfilter_save() + logmsg_format_save(), 0);
    logmsg_set_spewfilter(0);
    logmsg_format_load();
    EXPECT_EQ(logmsg_get_format(), kLogFormatProc);

    logmsg_set_config(&kStore);
    gStore["showfilter7"] = "stale";
    logmsg_showfilter_add("one");
    logmsg_cullfilter_add("two");
    logmsg_showfilter_save();
    logmsg_cullfilter_save();
    EXPECT_EQ(gStore.size(), 20U);
    EXPECT_EQ(gStore["showfilter0"] + "," + gStore["showfilter7"] + "," + gStore["cullfilter0"],
              "one,,two");
    logmsg_showfilter_delete("*");
    EXPECT_EQ(logmsg_showfilter_load(), 1);

    logmsg_set_format(kLogFormatLevel | kLogFormatProc);
    logmsg_format_save();
    EXPECT_EQ(gStore["logformat0"], "level proc ");
    logmsg_format_dump();
    EXPECT_NE(out_.Text().find("level proc \n"), std::string::npos);
    const struct {
        const char* text;
        int format;
    } formats[] = {{"  time date ", 3},
                   {"Level levels proc", 8},
                   {"", 0},
                   {"   ", 0},
                   {"date time level proc", 15}};
    for (const auto& f : formats) {
        gStore["logformat0"] = f.text;
        logmsg_format_load();
        EXPECT_EQ(logmsg_get_format(), f.format) << f.text;
    }

    logmsg_set_spewfilter(1);
    EXPECT_EQ(gStore["spewfilter0"], "True");
    gStore["spewfilter0"] = "1";
    logmsg_spewfilter_load();
    EXPECT_EQ(logmsg_get_spewfilter(), 0);
    gStore["spewfilter0"] = "tRUE";
    logmsg_spewfilter_load();
    EXPECT_EQ(logmsg_get_spewfilter(), 1);
    gStore.erase("spewfilter0");
    logmsg_spewfilter_load();
    EXPECT_EQ(logmsg_get_spewfilter(), 1);
}

}  // namespace
