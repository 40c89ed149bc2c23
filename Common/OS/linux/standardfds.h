// What a program does first of all that opens lines, pipes or a log: header only, so that programs
// without the platform library have it too.
#pragma once

#include <fcntl.h>
#include <unistd.h>

// Points standard descriptors that were closed at the start to /dev/null: what is opened next would
// get their numbers, and every line that is printed. Before any other thread runs. Nothing is done
// about a /dev/null that cannot be opened.
inline void FillStandardDescriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= STDIN_FILENO && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}
