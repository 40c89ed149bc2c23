// Standard output turned into a file for the life of the object, so that a test sees what the
// program, its log writer included, has printed so far.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "tests/support/eventually.h"

class StdoutFile {
  public:
    StdoutFile() {
        fflush(stdout);
        char path[] = "/tmp/harbor_stdout_XXXXXX";
        file_ = mkstemp(path);
        unlink(path);
        saved_ = dup(STDOUT_FILENO);
        dup2(file_, STDOUT_FILENO);
    }
    ~StdoutFile() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close(file_);
    }
    StdoutFile(const StdoutFile&) = delete;
    StdoutFile& operator=(const StdoutFile&) = delete;

    std::string Text() const {
        fflush(stdout);
        std::string text;
        char block[4096];
        ssize_t got;
        for (off_t at = 0; (got = pread(file_, block, sizeof(block), at)) > 0; at += got) {
            text.append(block, static_cast<size_t>(got));
        }
        return text;
    }

    // What was printed since the last call.
    std::string Fresh() {
        const std::string text = Text();
        return text.substr(std::exchange(seen_, text.size()));
    }

    bool Has(const std::string& part) const { return Text().find(part) != std::string::npos; }

    // Waits for output of another thread.
    bool WaitFor(const std::string& part) const {
        return Eventually([&] { return Has(part); });
    }

  private:
    int file_;
    int saved_;
    size_t seen_ = 0;
};
