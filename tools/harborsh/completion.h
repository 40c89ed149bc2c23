// Completion of command names and of the words that follow them, for readline.
#pragma once

#include <string>
#include <vector>

namespace harborsh {

// readline's hook: the candidates for the word of `text` that lies from `start` to `end`.
char** CompleteWord(const char* text, int start, int end);

// The candidates, sorted, for a word that begins with `text` behind `before`, the line up to it.
std::vector<std::string> Candidates(const std::string& before, const std::string& text);

}  // namespace harborsh
