// Runs what a job asks for in the emulated machine, one process at a time, and counts the results.
// For process 1 only: between two tests every other process of the machine is killed, so that none
// can disturb the next.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct Counts {
    int passed = 0;
    int failed = 0;
    int skipped = 0;
};

// How a child process ended, and all that it printed on standard output and standard error.
struct ChildResult {
    int status = 0;  // as waitpid gives it
    bool timedOut = false;
    double seconds = 0;
    std::string output;
};

class Runner {
  public:
    // Of all tests, in the order of the job, runs those whose index modulo `shards` is `shard`.
    Runner(int shard, int shards) : shard_(shard), shards_(shards) {}

    // Runs every test of a GoogleTest program that the filter names (empty: all) in a process of
    // its own, with the program's folder as the working directory.
    void Suite(const std::string& program, const std::string& filter);

    // Runs a shell command. It passes with exit status 0 and skips with 77, its last line then
    // being the reason.
    void Command(const std::string& name, int timeoutSeconds, const std::string& command);

    // From now on, tests whose full name matches the pattern (as of the shell) are skipped.
    void Except(const std::string& pattern, const std::string& reason);

    // Counts a test that cannot run here.
    void Skip(const std::string& name, const std::string& reason);

    // Counts a failure that is not a test's own, such as a job that cannot be read.
    void Fail(const std::string& name, const std::string& output);

    const Counts& counts() const { return counts_; }

  private:
    bool NextIsMine() { return next_++ % shards_ == shard_; }
    struct Exception {
        std::string pattern;
        std::string reason;
    };

    void GoogleTest(const std::string& program, const std::string& name);
    std::string ReasonToSkip(const std::string& name) const;
    void CountSkip(const std::string& name, const std::string& reason);
    void Pass(const std::string& name, double seconds);

    int shard_;
    int shards_;
    int next_ = 0;
    Counts counts_;
    std::vector<Exception> exceptions_;
};

// Runs a program with its arguments in the folder, kills it after the time-out, and then kills
// every other process. Blocks until all are gone.
ChildResult RunChild(const std::vector<std::string>& argv, const std::string& folder,
                     int timeoutSeconds);

// The full names in the listing that --gtest_list_tests prints, comments left out.
std::vector<std::string> ParseTestList(const std::string& listing);
