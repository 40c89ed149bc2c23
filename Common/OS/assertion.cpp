// Reporting of failed assertions.
#include "Common/OS/assertion.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void OsAssertFailed(const char* text, const char* path, int line, const char* function) {
    // A compiler cache may have handed the source over relative to the build folder.
    while (strncmp(path, "../", 3) == 0) {
        path += 3;
    }
    const char* dot = strrchr(path, '.');
    const int length =
        static_cast<int>(dot != nullptr ? dot - path : static_cast<long>(strlen(path)));
    fflush(stdout);
    fprintf(stderr, "Assertion failed: %s, file %.*s, line %d, function %s\n", text, length, path,
            line, function);
    fflush(stderr);
    abort();
}
