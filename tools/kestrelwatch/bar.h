// How a sight of the run looks: one line for a terminal's last row, one for a plain log. Pure
// functions; plain ASCII, no escape sequences.
#pragma once

#include <cstdint>
#include <string>

#include "tools/kestrelwatch/model.h"

namespace watch {

// "0:07", "12:34", "1:02:03".
std::string ElapsedText(std::int64_t ms);

// The bar, always shorter than `width` columns so that the terminal never wraps it. What does not
// fit is left out or cut: first the text, then the bar; the percentage stays longest.
std::string RenderBar(const SightT& sight, int width);

// One line of a log, without its line end.
std::string RenderPlain(const SightT& sight);

}  // namespace watch
