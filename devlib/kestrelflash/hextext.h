// Hexadecimal text, as the camera and its version files write versions. Any thread may call.
#pragma once

#include "Common/OS/types.h"

// The value of the at most 6 leading hexadecimal digits of `hexStg` (not null), most significant
// first; 0 when it starts with none. Both letter cases count. The test for a decimal digit is
// loose: every character from '*' to '?' counts with its low four bits, so that ':' is 10 and '/'
// is 15. There is no prefix: the x of "0x12" ends the number.
int axxtoi(const SInt8* hexStg);
