// The shell's commands that show and change what the services are doing.
#pragma once

#include <string>
#include <vector>

#include "Common/framework/message.h"

namespace harborsh {

// Adds the commands, to run in the calling task; false when one is refused.
bool AddDiagnostics();

// Makes a table of sub-commands known to completion.
void KnowSubCommands(const char* command, const CmdEntryT* table);

// The sub-commands of a command, in their table's order; none for a command without.
std::vector<std::string> SubCommandNames(const std::string& command);

// Joins words from `first` on with blanks.
std::string JoinFrom(int first, int argc, char** argv);

}  // namespace harborsh
