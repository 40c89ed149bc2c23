// Updates the microcontroller (Kestrel) from its image file: twelve numbered blocks of 512 bytes
// over its port, each answered by two bytes of which the second counts (ACK or NACK). For the
// updater's thread only; the port is open and enabled. Everything says what it does on standard
// output.
#pragma once

#include <stdio.h>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "devlib/kestrelflash/linksend.h"

// Looked up in the working directory. Byte 0 is the image's version; 0 is not a valid one.
constexpr const char* kMicroImageName = "kestrelmicro.bin";

typedef struct {
    FILE* micro_file;     // the open image, null when no transfer is running
    SInt32 currentBlock;  // number of the block being sent, -1 before the first
    SInt32 totalBlock;
    SInt32 BlockRetries;  // attempts left; 3 means a fresh block, to be read from the file
} KestrelMicroUpdateInfoT;

extern KestrelMicroUpdateInfoT gMicroUpdateInfo;

// True when the image's version differs from `curMicroVer`, older or newer; false as well when the
// image cannot be read or has version 0.
Boolean KestrelMicroUpdateNeeded(unsigned char curMicroVer);

// Sends the whole image; only its first 6144 bytes count. `flashTarget` is not used. Returns
// kEndOfFile after the last block, kNoError when an answer did not come in time or retries ran out
// (the caller takes both for success), kFileOpenError, or kFuncReturnedError for a block that could
// not be read or sent. The image is closed on every way out.
eErrorT KestrelSerialProgMicro(CONTROLLER_FLASH_TYPE flashTarget);

// Advances the transfer by one answer: ACK to the next block, NACK to the next attempt, any other
// byte leaves it as it is. Always returns kNoError.
eErrorT SetupNextMicroDataBlock(KestrelMicroUpdateInfoT* updateInfo, unsigned char AckNack);

// Sends what the transfer's state calls for: a fresh block, an empty message for a retry, or
// nothing once the retries are used up (kNoError). Returns kEndOfFile, with the image closed, when
// all blocks are through; kFuncReturnedError, with the image closed, on failure.
eErrorT SendNextMicroDataBlock(KestrelMicroUpdateInfoT* updateInfo);
