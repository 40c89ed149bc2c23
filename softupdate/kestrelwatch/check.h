// The first step: everything that can be known before a line is opened, found out and judged.
#pragma once

#include "softupdate/kestrelwatch/record.h"

namespace watch {

// Names of the files in the working directory, by image; the microcontroller has no version file.
extern const char* const kImageFiles[kImages];
extern const char* const kVersionFiles[kImages];

// Looks at the words, the updater, the images and their versions, the pipe, the nodes and the
// launcher pipe, and fills record->plan. Opens no line; reads every image once. False when
// something is refused: record->verdict then says why.
bool Check(RecordT* record);

// Whether the nodes of the wanted targets open; opens and closes them, so call it with the lock
// held. Adds to the findings as Check does.
bool CheckLines(RecordT* record);

// The findings as a table, one row a line.
std::string CheckTable(const PlanT& plan);

// Hexadecimal text and nothing else but a line end behind it, 1 to 6 digits; -1 for another text.
long HexVersion(const std::string& text);

// Whether `path` is a pipe in whose opening the updater would wait for ever: looks for a second, if
// nobody reads it.
bool IsStalePipe(const char* path);

// What tells a file from another and from itself at another time.
FileIdT FileId(const char* path);

// Marks the images whose files are not the ones that were checked; whether there are any.
bool NoteChanges(PlanT* plan);

}  // namespace watch
