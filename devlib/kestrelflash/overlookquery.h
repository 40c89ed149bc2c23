// The camera's versions: what its files offer and what the camera reports. For the updater's thread
// only; the port is open and enabled. Everything says what it does on standard output.
#pragma once

#include "Common/OS/errors.h"

struct OverlookVersionsT {
    int camera;
    int system;
};

// Room for the longest of the camera's raw replies.
constexpr int kOverlookReplySize = 15;

// Reads the versions of the images at hand from the version files; a file without hexadecimal text
// offers version 0. Returns kNoError, or kFileOpenError when one is missing.
eErrorT ReadNewOverlookVersions(OverlookVersionsT* versions);

// Asks the camera for the versions that it runs. Blocks for three seconds, and half a second for
// every byte in front of the reply. A version from 0x8000 on comes out negative. Returns kNoError,
// kBadState when no reply begins, or kFuncReturnedError when the request does not go out or the
// reply is short.
eErrorT AskOverlookVersions(OverlookVersionsT* versions);

// Sends a raw message, not a link frame. Returns kNoError, or kFuncReturnedError when less than all
// of it went out.
eErrorT SendOverlookRequest(const unsigned char* request, int size);

// Reads `size` bytes of a raw reply. Returns the number read, 0 when none came within 10 ms.
int ReadOverlookReply(unsigned char* reply, int size);

// Prints the first `count` bytes of a reply.
void PrintOverlookReply(const unsigned char* reply, int count);

// Says that a reply did not come whole.
void PrintOverlookReplyFailure();
