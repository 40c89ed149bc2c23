// One command line after another: sends it, waits for its outcome and for what it set going, and
// keeps the status of the last one. For the main thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Common/OS/errors.h"

namespace harborsh {

class Shell {
  public:
    // `pump` is called while the shell waits, at least every few milliseconds; it returns false to
    // stop waiting (the user interrupted). `wait_seconds` is how long a command may take.
    Shell(std::function<bool()> pump, int wait_seconds);
    ~Shell();
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;

    // Runs one line. Empty lines and comments do nothing and leave the status.
    void Run(const std::string& text);

    // Runs a text of lines separated by line feeds and by semicolons outside double quotes.
    void RunAll(const std::string& lines);

    // The exit status of the last command: 0, or its error code made positive (1 to 49).
    int Status() const { return -static_cast<int>(status_); }

    // Whether "exit" was run.
    bool Ended() const;

  private:
    void Wait();
    void Settle();
    void Fail(eErrorT err, const char* text);

    std::function<bool()> pump_;
    int wait_seconds_;
    eErrorT status_ = kNoError;
};

// Splits a text at line feeds and at semicolons outside double quotes.
std::vector<std::string> SplitLines(const std::string& text);

}  // namespace harborsh
