// The command line of kestrelwatch.
#pragma once

#include "softupdate/kestrelwatch/record.h"

namespace watch {

// Reads the command line into record->options. False when it is refused: record->verdict then says
// why, with kStatusUsage or kStatusRange.
bool ParseOptions(int argc, char** argv, RecordT* record);

// What --help prints.
std::string HelpText();

}  // namespace watch
