// Bar and plain line.
#include "tools/kestrelwatch/bar.h"

#include <stdio.h>

#include <algorithm>

namespace watch {

namespace {

const size_t kMinBar = 10;
const size_t kMaxBar = 40;

std::string PercentText(int percent) {
    char text[16];
    snprintf(text, sizeof(text), "%3d %%", percent);
    return text;
}

std::string What(const SightT& sight) {
    return sight.stillMs > 0 ? "still for " + ElapsedText(sight.stillMs) + ", " + sight.what
                             : sight.what;
}

std::string Gauge(int percent, size_t width) {
    const size_t inner = width - 2;
    const size_t full = std::min(inner, inner * static_cast<size_t>(percent) / 100);
    std::string gauge = "[" + std::string(full, '=') + std::string(inner - full, ' ') + "]";
    if (full > 0 && full < inner) {
        gauge[full] = '>';
    }
    return gauge;
}

}  // namespace

std::string ElapsedText(std::int64_t ms) {
    const long long seconds = ms / 1000;
    char text[40];
    if (seconds < 3600) {
        snprintf(text, sizeof(text), "%lld:%02lld", seconds / 60, seconds % 60);
    } else {
        snprintf(text, sizeof(text), "%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60,
                 seconds % 60);
    }
    return text;
}

std::string RenderBar(const SightT& sight, int width) {
    const size_t room = width > 1 ? static_cast<size_t>(width) - 1 : 0;
    std::string line = PercentText(sight.percent) + "  " + ElapsedText(sight.elapsedMs);
    const size_t bar = std::clamp(static_cast<size_t>(std::max(width, 0)) / 3, kMinBar, kMaxBar);
    if (line.size() + 1 + bar <= room) {
        line = Gauge(sight.percent, bar) + " " + line;
    }
    const std::string what = "  " + (sight.note.empty() ? What(sight) : sight.note);
    if (line.size() + what.size() <= room) {
        return line + what;
    }
    const std::string dots = "...";
    const size_t least = 10;  // columns of text that are worth showing
    if (line.size() + least + dots.size() <= room) {
        return line + what.substr(0, room - line.size() - dots.size()) + dots;
    }
    return line.substr(0, room);
}

std::string RenderPlain(const SightT& sight) {
    return PercentText(sight.percent) + "  " + ElapsedText(sight.elapsedMs) + "  " + What(sight);
}

}  // namespace watch
