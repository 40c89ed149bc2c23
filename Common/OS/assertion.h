// The one assertion macro of the system. It is for programming errors (a null argument, a record
// without its signature, an exhausted fixed pool) and is present in every build type.
#pragma once

// Ends the program when `condition` is false. Prints the condition's text, the source path without
// its extension, the line and the function on standard error, flushes standard output, and aborts.
#define OsAssert(condition) OsAssertText(condition, #condition)

// The same with a fixed text in place of the condition's own spelling.
#define OsAssertText(condition, text) \
    ((condition) ? (void)0 : OsAssertFailed((text), __FILE__, __LINE__, __func__))

// Reports a failed assertion and aborts. `path` is relative to the source root (the build maps
// it); its extension is left out of the report. Does not return.
[[noreturn]] void OsAssertFailed(const char* text, const char* path, int line,
                                 const char* function);
