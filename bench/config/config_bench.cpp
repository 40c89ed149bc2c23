// The configuration beside what a program would use in its place: a mutex-guarded hash map of
// strings, and SQLite, in memory and on the same disk. On disk SQLite runs with synchronous=OFF,
// which promises what the store promises: written to the system at once, to the disk when it is
// flushed.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Common/framework/config.h"
#include "Common/framework/configstore.h"

namespace {

std::string Name(int64_t i) {
    return "variable_" + std::to_string(i);
}

std::string Value(int64_t i) {
    return "value of " + std::to_string(i);
}

// Names in an order that a cache of the processor cannot guess.
std::vector<std::string> ShuffledNames(int64_t count) {
    std::vector<std::string> names;
    for (int64_t i = 0; i < count; i++) {
        names.push_back(Name(i * 7919 % count));
    }
    return names;
}

// A prepared statement.
class StatementT {
  public:
    StatementT(sqlite3* db, const char* text) { sqlite3_prepare_v2(db, text, -1, &stmt_, nullptr); }
    ~StatementT() { sqlite3_finalize(stmt_); }
    StatementT(const StatementT&) = delete;
    StatementT& operator=(const StatementT&) = delete;

    // Runs it for a name and, unless empty, a value; the first column goes to `out`.
    bool Run(const std::string& name, const std::string& value, char* out) {
        sqlite3_bind_text(stmt_, 1, name.c_str(), -1, SQLITE_STATIC);
        if (!value.empty()) {
            sqlite3_bind_text(stmt_, 2, value.c_str(), -1, SQLITE_STATIC);
        }
        const bool row = sqlite3_step(stmt_) == SQLITE_ROW;
        if (row && out != nullptr) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, 0));
            snprintf(out, kConfigValueSize, "%s", text);
        }
        sqlite3_reset(stmt_);
        return row;
    }

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

// A table of variables in SQLite.
class SqliteT {
  public:
    SqliteT(const char* path, const char* journal, int64_t count) {
        sqlite3_open(path, &db_);
        Exec("PRAGMA synchronous=OFF");
        Exec(("PRAGMA journal_mode=" + std::string(journal)).c_str());
        Exec("CREATE TABLE v (name TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID");
        Exec("BEGIN");
        StatementT insert(db_, "INSERT INTO v VALUES (?, ?)");
        for (int64_t i = 0; i < count; i++) {
            insert.Run(Name(i), Value(i), nullptr);
        }
        Exec("COMMIT");
    }
    ~SqliteT() { sqlite3_close_v2(db_); }
    SqliteT(const SqliteT&) = delete;
    SqliteT& operator=(const SqliteT&) = delete;

    sqlite3* Db() { return db_; }

  private:
    void Exec(const char* text) { sqlite3_exec(db_, text, nullptr, nullptr, nullptr); }
    sqlite3* db_ = nullptr;
};

constexpr char kSelect[] = "SELECT value FROM v WHERE name = ?";
constexpr char kUpdate[] = "UPDATE v SET value = ?2 WHERE name = ?1 AND value <> ?2";

class GuardedMapT {
  public:
    explicit GuardedMapT(int64_t count) {
        for (int64_t i = 0; i < count; i++) {
            map_[Name(i)] = Value(i);
        }
    }
    bool Read(const char* name, char* value) {
        const std::lock_guard guard(mutex_);
        const auto at = map_.find(name);
        if (at == map_.end()) {
            return false;
        }
        memcpy(value, at->second.c_str(), at->second.size() + 1);
        return true;
    }
    bool Write(const char* name, const char* value) {
        const std::lock_guard guard(mutex_);
        std::string& held = map_[name];
        if (held == value) {
            return false;
        }
        held = value;
        return true;
    }

  private:
    std::mutex mutex_;
    std::unordered_map<std::string, std::string> map_;
};

void FillCache(int64_t count) {
    for (int64_t i = 0; i < count; i++) {
        ConfigWriteCacheOnly(Name(i).c_str(), 0, Value(i).c_str());
    }
}

void EmptyCache(int64_t count) {
    for (int64_t i = 0; i < count; i++) {
        ConfigDelete(Name(i).c_str(), 0);
    }
}

void CachedRead(benchmark::State& state) {
    FillCache(state.range(0));
    const auto names = ShuffledNames(state.range(0));
    char value[kConfigValueSize];
    size_t i = 0;
    for (auto _ : state) {
        ConfigRead(names[i++ % names.size()].c_str(), 0, value);
        benchmark::DoNotOptimize(value);
    }
    EmptyCache(state.range(0));
}

void CachedReadGuardedMap(benchmark::State& state) {
    GuardedMapT map(state.range(0));
    const auto names = ShuffledNames(state.range(0));
    char value[kConfigValueSize];
    size_t i = 0;
    for (auto _ : state) {
        map.Read(names[i++ % names.size()].c_str(), value);
        benchmark::DoNotOptimize(value);
    }
}

void CachedReadSqlite(benchmark::State& state) {
    SqliteT sqlite(":memory:", "MEMORY", state.range(0));
    StatementT select(sqlite.Db(), kSelect);
    const auto names = ShuffledNames(state.range(0));
    char value[kConfigValueSize];
    size_t i = 0;
    for (auto _ : state) {
        select.Run(names[i++ % names.size()], "", value);
        benchmark::DoNotOptimize(value);
    }
}

#define SIZES ->Arg(100)->Arg(300)->Arg(1000)->Arg(10000)
BENCHMARK(CachedRead) SIZES;
BENCHMARK(CachedReadGuardedMap) SIZES;
BENCHMARK(CachedReadSqlite) SIZES;

void UnchangedWrite(benchmark::State& state) {
    FillCache(state.range(0));
    const std::string name = Name(7);
    const std::string value = Value(7);
    for (auto _ : state) {
        ConfigWrite(name.c_str(), 0, value.c_str());
    }
    EmptyCache(state.range(0));
}
BENCHMARK(UnchangedWrite)->Arg(300);

void UnchangedWriteGuardedMap(benchmark::State& state) {
    GuardedMapT map(state.range(0));
    const std::string name = Name(7);
    const std::string value = Value(7);
    for (auto _ : state) {
        benchmark::DoNotOptimize(map.Write(name.c_str(), value.c_str()));
    }
}
BENCHMARK(UnchangedWriteGuardedMap)->Arg(300);

void UnchangedWriteSqlite(benchmark::State& state) {
    SqliteT sqlite(":memory:", "MEMORY", state.range(0));
    StatementT update(sqlite.Db(), kUpdate);
    const std::string name = Name(7);
    const std::string value = Value(7);
    for (auto _ : state) {
        update.Run(name, value, nullptr);
    }
}
BENCHMARK(UnchangedWriteSqlite)->Arg(300);

// Each iteration reads a variable that was never read before.
constexpr int64_t kFirstReads = 3000;

void FirstRead(benchmark::State& state) {
    for (int64_t i = 0; i < kFirstReads; i++) {
        std::ofstream("../dat/" + Name(i) + ".dat") << Value(i) << '\n';
    }
    char value[kConfigValueSize];
    int64_t i = 0;
    for (auto _ : state) {
        ConfigRead(Name(i++).c_str(), 0, value);
        benchmark::DoNotOptimize(value);
    }
    EmptyCache(kFirstReads);
}
BENCHMARK(FirstRead)->Iterations(kFirstReads);

void FirstReadSqlite(benchmark::State& state) {
    { SqliteT fill("../first.db", "DELETE", kFirstReads); }
    sqlite3* db;
    sqlite3_open("../first.db", &db);
    {
        StatementT select(db, kSelect);
        char value[kConfigValueSize];
        int64_t i = 0;
        for (auto _ : state) {
            select.Run(Name(i++), "", value);
            benchmark::DoNotOptimize(value);
        }
    }
    sqlite3_close(db);
    std::filesystem::remove("../first.db");
}
BENCHMARK(FirstReadSqlite)->Iterations(kFirstReads);

void ChangedWrite(benchmark::State& state) {
    int64_t i = 0;
    for (auto _ : state) {
        ConfigWrite("changing", 0, Value(i++).c_str());
    }
}
BENCHMARK(ChangedWrite);

void ChangedWriteSqlite(benchmark::State& state, const char* journal) {
    {
        SqliteT sqlite("../changed.db", journal, 300);
        StatementT update(sqlite.Db(), kUpdate);
        const std::string name = Name(7);
        int64_t i = 0;
        for (auto _ : state) {
            update.Run(name, Value(i++), nullptr);
        }
    }
    std::filesystem::remove("../changed.db");
}
BENCHMARK_CAPTURE(ChangedWriteSqlite, rollback, "DELETE");
BENCHMARK_CAPTURE(ChangedWriteSqlite, wal, "WAL");

}  // namespace

int main(int argc, char** argv) {
    // The store's fallback folders, beside a working directory of our own.
    std::string folder = std::filesystem::current_path() / "bench_config_XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    for (const char* each : {"start", "dat", "choice", "choice.gen"}) {
        std::filesystem::create_directory(std::filesystem::path(folder) / each);
    }
    std::filesystem::current_path(std::filesystem::path(folder) / "start");
    ConfigInit();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::current_path("/");
    std::filesystem::remove_all(folder);
    return 0;
}
