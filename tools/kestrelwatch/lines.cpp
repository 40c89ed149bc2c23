// Line assembly.
#include "tools/kestrelwatch/lines.h"

#include <utility>

namespace watch {

namespace {

const size_t kMaxLine = 65536;

}  // namespace

std::vector<std::string> LineSplitter::Feed(std::string_view bytes) {
    std::vector<std::string> lines;
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        const bool whole = end != std::string_view::npos;
        const size_t count = whole ? end + 1 : bytes.size();
        partial_.append(bytes.substr(0, count));
        bytes.remove_prefix(count);
        if (whole || partial_.size() >= kMaxLine) {
            lines.push_back(std::exchange(partial_, {}));
        }
    }
    return lines;
}

std::string LineSplitter::Rest() {
    return std::exchange(partial_, {});
}

}  // namespace watch
