// The configuration store's way to processor 0, for processors that keep no files: values travel in
// command lines. Private to the store; any thread may call.
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"

// Sends a value, without waiting for it to be stored. kNoError, or kBadParameter for a value that
// is too long for a command line.
eErrorT ConfigRemoteWrite(const char* pName, int instance, const char* s, size_t length);

// Asks for a value and waits up to 3 s for it; without answer the value is empty. Always kNoError.
eErrorT ConfigRemoteRead(const char* pName, int instance, char* s, int len);
