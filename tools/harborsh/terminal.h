// The shell at a terminal: line editing, history and completion. Other tasks print while a line is
// being edited, so what goes to standard output and standard error is led through a pipe and shown
// above the line. For the main thread.
#pragma once

#include <functional>
#include <string>

namespace harborsh {

class Terminal {
  public:
    explicit Terminal(const char* prompt);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Reads a line; false at the end of the input. An interrupt gives up the line being edited.
    bool ReadLine(std::string* line);

    // Shows what was printed meanwhile. False when the user interrupted since the last call.
    bool Pump();

  private:
    void Show(bool editing);

    std::string prompt_;
    int out_;    // the terminal
    int error_;  // where standard error went
    int pipe_;   // what the process prints
};

}  // namespace harborsh
