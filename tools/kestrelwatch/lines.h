// Whole lines out of a stream of bytes, so that nothing of ours ever lands inside a line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace watch {

class LineSplitter {
  public:
    // Takes bytes and returns the lines that they complete, each with its line end. A line that
    // grows beyond 64 KiB is handed out in pieces.
    std::vector<std::string> Feed(std::string_view bytes);

    // The start of a line that never ended, and forgets it.
    std::string Rest();

  private:
    std::string partial_;
};

}  // namespace watch
