#include "tools/harborsh/completion.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// readline's header needs the names of stdio.
#include <readline/readline.h>

#include <sstream>

#include "Common/OS/linux/intsoff.h"
#include "Common/framework/message.h"
#include "tools/harborsh/diagnostics.h"

namespace harborsh {
namespace {

std::vector<std::string> gFound;

std::vector<std::string> CommandNames() {
    std::vector<std::string> names;
    const InterruptsOffT lock;
    for (ListT* at = gCmdTable; at != nullptr; at = ListNextElement(gCmdTable, at)) {
        names.emplace_back(reinterpret_cast<CmdEntryT*>(at)->name);
    }
    return names;
}

char* NextFound(const char*, int state) {
    static size_t next;
    next = state == 0 ? 0 : next;
    return next < gFound.size() ? strdup(gFound[next++].c_str()) : nullptr;
}

}  // namespace

std::vector<std::string> Candidates(const std::string& before, const std::string& text) {
    std::istringstream stream(before);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    std::vector<std::string> names;
    if (words.empty() || (words.size() == 1 && words[0] == "help")) {
        names = CommandNames();
    } else if (words.size() == 1) {
        names = SubCommandNames(words[0]);
    }
    std::erase_if(names, [&text](const std::string& name) {
        return strncasecmp(name.c_str(), text.c_str(), text.size()) != 0;
    });
    return names;
}

char** CompleteWord(const char* text, int start, int) {
    rl_attempted_completion_over = 1;  // file names are no words of commands
    gFound = Candidates(std::string(rl_line_buffer, static_cast<size_t>(start)), text);
    return rl_completion_matches(text, NextFound);
}

}  // namespace harborsh
