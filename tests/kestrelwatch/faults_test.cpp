// The table of docs/LAUNCHER.md, played: every fault of the simulated unit in every phase of a run.
// With KESTRELWATCH_WRITE_TABLE set, what was seen is written into that page instead. Another
// launcher (KESTRELWATCH_PROGRAM) that has only one unit plays the rows one by one
// (KESTRELWATCH_PLAYERS=1).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "tests/kestrelwatch/unit.h"
#include "tests/support/eventually.h"

namespace {

constexpr int kAttempts = 8;  // a machine that stalls makes the unit miss an answer's time
const char kBegin[] = "<!-- played by kestrelwatch_faults_test -->\n";

struct RowT {
    std::string faults;  // as the simulator takes them, joined by " + "
    std::string stated;  // the row's other columns
    std::string seen;
};

std::string Row(const RowT& row, const std::string& rest) {
    return "| " + row.faults + " |" + rest + "\n";
}

// Without the words that say the same in every row, and the value of a byte that is random.
std::string VerdictOf(const std::string& error) {
    const std::string mark = "kestrelwatch: ";
    const size_t unit = error.rfind(". The unit: ");
    const size_t start = error.rfind(mark, unit) + mark.size();
    std::string text = error.substr(start, unit - start);
    if (text.starts_with("UPDATED")) {
        return "UPDATED";
    }
    const std::string value = "an unknown answer (";
    for (size_t at = 0; (at = text.find(value, at)) != std::string::npos; at++) {
        text.erase(at + value.size() - 2, 5);
    }
    return text.substr(text.find(' ') + 1);
}

// One run; the columns behind the faults.
std::string PlayOnce(const std::string& faults) {
    WordsT options;
    std::istringstream stream(faults);
    std::string fault;
    for (std::string word; stream >> word;) {
        if (word != "+") {
            fault += word + " ";
        }
        if ((word == "+" || stream.peek() == EOF) && faults != "none") {
            options.insert(options.end(), {"--fault", fault});
            fault.clear();
        }
    }
    Unit unit(options);
    int status = 0;
    std::string said;
    // A pseudo-terminal's number may be one that somebody else's launcher has locked before.
    EXPECT_TRUE(Eventually([&] {
        Child launcher(UserT::kPipes, unit.Launcher({"--plain", "--give-up", "2", "all"}));
        status = launcher.End();
        said = launcher.error;
        return status != 119;
    }));
    const std::string holds = unit.Holds();
    EXPECT_TRUE(status != 0 || holds == "new new new") << faults << "\n" << said;
    return " " + std::to_string(status) + " | " + VerdictOf(said) + " | " + holds + " |";
}

bool Writes() {
    return getenv("KESTRELWATCH_WRITE_TABLE") != nullptr;
}

// What is written is what came twice.
void Play(RowT* row) {
    for (int attempt = 0; attempt < kAttempts && row->seen != row->stated; attempt++) {
        row->stated = Writes() && attempt > 0 ? row->seen : row->stated;
        row->seen = PlayOnce(row->faults);
    }
}

std::vector<RowT> RowsOf(const std::string& table) {
    std::vector<RowT> rows;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        const size_t end = line.find(" |", 2);
        if (line.starts_with("| ") && !line.starts_with("| faults ") && end != std::string::npos) {
            rows.push_back({line.substr(2, end - 2), line.substr(end + 2), ""});
        }
    }
    return rows;
}

TEST(WatchFaults, NoRowOfTheTableIsASuccessBesideAUnitThatIsNotUpdated) {
    const std::string page = FileText(KESTRELWATCH_PAGE);
    const size_t begin = page.find(kBegin) + sizeof(kBegin) - 1;
    const size_t end = page.find("\n\n", begin);
    const std::string table = page.substr(begin, end + 1 - begin);
    std::vector<RowT> rows = RowsOf(table);
    ASSERT_GT(rows.size(), 40u);
    std::atomic<size_t> next = 0;
    std::vector<std::thread> players;
    for (int i = std::stoi(Setting("KESTRELWATCH_PLAYERS", "5")); i > 0; i--) {
        players.emplace_back([&] {
            for (size_t at = next++; at < rows.size(); at = next++) {
                Play(&rows[at]);
            }
        });
    }
    for (std::thread& player : players) {
        player.join();
    }
    std::string stated;
    std::string seen;
    for (const RowT& row : rows) {
        stated += Row(row, row.stated);
        seen += Row(row, row.seen);
    }
    if (Writes()) {
        const size_t head = table.find("|\n| ", table.find("|---")) + 2;
        std::ofstream(KESTRELWATCH_PAGE)
            << page.substr(0, begin) + table.substr(0, head) + seen + page.substr(end + 1);
        return;
    }
    EXPECT_EQ(stated, seen);
}

}  // namespace
