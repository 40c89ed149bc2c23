// The configuration store's way to processor 0, for processors that keep no files: values travel in
// command lines. Private to the store; any thread may call.
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"

// Sends a value, without waiting for it to be stored. kNoError, or kBadParameter for what a command
// line cannot carry: a value that is too long or ends with a backslash, a name with blanks or a
// quote in front.
eErrorT ConfigRemoteWrite(const char* pName, int instance, const char* s, size_t length);

// Asks for a value and waits up to 3 s for it; without answer the value is empty. kNoError, or
// kBadParameter for such a name.
eErrorT ConfigRemoteRead(const char* pName, int instance, char* s, int len);
