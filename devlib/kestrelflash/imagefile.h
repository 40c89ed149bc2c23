// Image files as both update procedures read them: block by block, a block going out with its
// number in front. For the updater's thread only.
#pragma once

#include <stdio.h>

#include "Common/OS/types.h"

// Reads the next `dataSize` image bytes (fewer at the end of the file) behind the block's number in
// `block`, which holds 2 + dataSize bytes and is cleared first. The number goes into bytes 0 and 1,
// high byte first, its low 16 bits only. Says on standard output how much was read. Returns the
// number of image bytes, or -1 on a read error.
int ReadImageBlock(FILE* image, const char* name, SInt32 blockNumber, unsigned char* block,
                   int dataSize);

// Closes *image, if it is open, and sets it to null. Returns false when closing failed; the stream
// is gone then too, because the C library lets go of it whatever it answers.
bool CloseImage(FILE** image);
