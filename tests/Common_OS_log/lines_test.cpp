// Assembling lines, the repeat filter, the show and cull filters, and the configuration's part.
#include <string.h>

#include <algorithm>
#include <map>
#include <random>

#include "Common/OS/syslogf.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {

class LogLines : public LogFixtureT {};

TEST_F(LogLines, AnEntryPointPrintsUnderAForeignLevel) {
    logmsg_set_format(kLogFormatLevel);
    logcrit("a", "x%d\n", 1);
    logerr("a", "x%d\n", 2);
    logwarn("a", "x%d\n", 3);
    loginfo("a", "x%d\n", 4);
    EXPECT_EQ(logdebug("a", "x%d\n", 5), 19);
    EXPECT_EQ(cm_syslog(4, "%s", "z\n"), 15);
    EXPECT_EQ(loginfo(nullptr, "n\n"), 15);
    EXPECT_EQ(syslogf(9, SYS_TERM_NULL, 7, "t%d\n", 9) + syslogf(-1, SYS_OS_NULL, 0, nullptr), 16);
    syslogf(-1, SYS_TERM_NULL, 7, "t-1\n");
    syslogf(3, static_cast<gRtCategoryT>(500), 7, "t3\n");
    EXPECT_EQ(category_printf(UI_JVM_NULL, "c%s\n", "x"), 16);
    EXPECT_EQ(Printed(),
              "CRIT  pc[0]: a: x1\nERROR pc[0]: a: x2\nWARN  pc[0]: a: x3\nINFO  pc[0]: a: x4\n"
              "DEBUG pc[0]: a: x5\nWARN  pc[0]: z\nINFO  pc[0]: n\n"
              "DEBUG pc[0]: t9\nDEBUG pc[0]: t-1\nERROR pc[0]: t3\nDEBUG pc[0]: cx\n");
}

// What the log makes of the same calls, written as plainly as can be.
struct ModelT {
    static constexpr const char* kLevels[] = {"CRIT  ", "CRIT  ", "CRIT  ", "ERROR ",
                                              "WARN  ", "INFO  ", "INFO  ", "DEBUG "};
    struct TableT {
        std::string kind;
        std::string slots[kLogFilterCount];
    } tables[2] = {{"show", {}}, {"cull", {}}};
    std::string current, last, printed;
    int spew = 0, held_back = 0, level_limit = 7;

    static std::string Header(int level, const char* component) {
        const std::string name = component != nullptr ? component + std::string(": ") : "";
        return (kLevels[std::clamp(level, 0, 7)] + ("pc[0]: " + name)).substr(0, 1023);
    }

    static bool Contains(const TableT& table, const std::string& line, bool if_empty) {
        bool empty = true;
        bool found = false;
        for (const std::string& slot : table.slots) {
            empty = empty && slot.empty();
            found = found || (!slot.empty() && line.find(slot) != std::string::npos);
        }
        return empty ? if_empty : found;
    }

    void Print(const std::string& line) {
        const size_t level = std::string("  CEW ID").find(line[0]);
        if (Contains(tables[0], line, true) && !Contains(tables[1], line, false) &&
            static_cast<int>(level) <= level_limit) {
            printed += line;
        }
    }

    int Log(int level, const char* component, const std::string& text) {
        const std::string header = Header(level, component);
        const std::string call = (header + text).substr(0, 1023);
        current = (current + (current.empty() ? call : call.substr(header.size()))).substr(0, 511);
        if (call.find('\n') != std::string::npos) {
            const std::string line = std::exchange(current, "");
            if (spew != 0 && line == last) {
                held_back++;
            } else {
                if (spew != 0 && held_back > 0) {
                    Print("DEBUG pc[0]: ...last line repeated " + std::to_string(held_back + 1) +
                          " times\n");
                }
                held_back = spew != 0 ? 0 : held_back;
                Print(last = line);
            }
        }
        return static_cast<int>(header.size() + text.size());
    }

    int Add(TableT* table, const std::string& filter) {
        for (std::string& slot : table->slots) {
            if (slot.empty() && !filter.empty()) {
                slot = filter.substr(0, 369);
                return 0;
            }
        }
        printed += filter.empty()
                       ? ""
                       : "\"" + filter + "\" " + table->kind + " filter not added, table full\n";
        return -1;
    }

    int Delete(TableT* table, const std::string& filter) {
        for (std::string& slot : table->slots) {
            if (filter == "*") {
                slot.clear();
            } else if (!slot.empty() &&
                       strcasecmp(slot.c_str(), filter.substr(0, 369).c_str()) == 0) {
                slot.clear();
                return 0;
            }
        }
        printed += filter == "*" ? "" : "\"" + filter + "\" " + table->kind + " filter not found\n";
        return 0;
    }

    int Dump(const TableT& table) {
        printed += table.kind + " filters:\n";
        for (const std::string& slot : table.slots) {
            printed += slot.empty() ? "" : "  \"" + slot + "\"\n";
        }
        return 0;
    }
};

TEST_F(LogLines, AnySequenceOfCallsDiffersFromTheModel) {
    const struct {
        int (*add)(const char*);
        int (*remove)(const char*);
        int (*dump)();
    } kCalls[] = {{logmsg_showfilter_add, logmsg_showfilter_delete, logmsg_showfilter_dump},
                  {logmsg_cullfilter_add, logmsg_cullfilter_delete, logmsg_cullfilter_dump}};
    const std::string kFilters[] = {
        "a", "ab", "AB", "b\n", "c: ", "pc", "", std::string(369, 'x'), std::string(400, 'x'),
        "*", "**"};
    const std::string kTexts[] = {
        "a", "ab", "B", "b", "", std::string(400, 'x'), std::string(1100, 'y'), "%d\n", "\nq"};
    const std::string kLong(1030, 'n');
    const char* const kComponents[] = {nullptr, "c", "c", "c", kLong.c_str()};
    std::mt19937 random(7);
    const auto pick = [&](const auto& from) { return from[random() % std::size(from)]; };
    logmsg_set_format(kLogFormatLevel);
    ModelT model;
    for (int step = 0; step < 30000; step++) {
        const unsigned what = static_cast<unsigned>(random() % 64);
        const unsigned which = what % 2;
        const std::string filter = pick(kFilters);
        ModelT::TableT* const table = &model.tables[which];
        if (what < 6) {
            ASSERT_EQ(model.Add(table, filter), kCalls[which].add(filter.c_str()));
        } else if (what < 10) {
            ASSERT_EQ(model.Delete(table, filter), kCalls[which].remove(filter.c_str()));
        } else if (what < 12) {
            ASSERT_EQ(model.Dump(*table), kCalls[which].dump());
        } else if (what < 14) {
            logmsg_set_spewfilter(model.spew = static_cast<int>(random() % 3));
        } else if (what < 15) {
            syslogSetLogLevel(model.level_limit = static_cast<int>(1 + random() % 7));
        } else {
            const int level = static_cast<int>(random() % 12) - 2;
            const char* const component = pick(kComponents);
            const std::string text = pick(kTexts) + (random() % 4 != 0 ? "\n" : "");
            for (int times = what < 40 ? 1 : 3; times > 0; times--) {
                ASSERT_EQ(model.Log(level, component, text),
                          logmsg(level, component, "%s", text.c_str()));
            }
        }
        syslogDrainQueue();
    }
    EXPECT_TRUE(Printed() == model.printed);
    // Judged is what will be printed, not what stands behind it.
    logmsg_showfilter_delete("*");
    logmsg_cullfilter_delete("*");
    logmsg_cullfilter_add("bar");
    EXPECT_EQ(logmsg_print("INFO  ok, bar", 8), 8);
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

    stored = {{"logformat0", "  level bogus proc date"}};
    EXPECT_EQ(logmsg_format_load() + logmsg_get_format() * 10, 130);
    EXPECT_EQ(logmsg_format_dump() + logmsg_format_save(), 0);
    std::string spew = stored["logformat0"];
    for (const char* value : {"tRUE", "", "1"}) {  // no variable changes nothing
        stored["spewfilter0"] = value;
        logmsg_spewfilter_load();
        spew += std::to_string(logmsg_get_spewfilter());
    }
    for (const int on : {2, 0}) {
        logmsg_set_spewfilter(on);
        spew += stored["spewfilter0"];
    }
    EXPECT_EQ(spew, "date level proc 110TrueFalse");
    EXPECT_THAT(Printed(), testing::StartsWith("date level proc \n"));
}

}  // namespace
