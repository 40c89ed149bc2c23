// What a launch comes to: the exit status, the first cause, what the unit holds now, what to do
// next. Pure: everything is read from the record.
#pragma once

#include "softupdate/kestrelwatch/record.h"

namespace watch {

// The name of a cause in --json: stable, lower case, words joined by '-'.
const char* CauseCode(CauseT cause);

// For what ends a launch before the updater runs: fills record->verdict. Returns false.
bool Refuse(RecordT* record, int status, CauseT cause, const std::string& text);

// Fills record->verdict from what the runs told. Everything that decides between success and
// failure, and which failure, is in this function.
void Judge(RecordT* record);

// Whether a run ended by itself, with a status, after lines that only the updater prints.
bool EndedWell(const RunT& run);

// Whether the unit itself has said in this run that it runs what the file offers.
bool Confirmed(const PlanT& plan, const StoryT& story, ImageT image);

// Whether the unit said so of every image that is wanted.
bool AllConfirmed(const PlanT& plan, const StoryT& story);

// "0:07", "12:34", "1:02:03".
std::string ElapsedText(std::int64_t ms);

}  // namespace watch
