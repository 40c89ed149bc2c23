// The board's memset. In the board build only: elsewhere, and under sanitizers, the C library's
// serves.
#include "Common/OS/linux/wordset.h"

extern "C" void* memset(void* destination, int value, size_t length) {
    return WordSet(destination, value, length);
}
