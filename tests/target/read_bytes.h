// Reading from a line whose other end may fail to send.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <string>

// Reads until `size` bytes are there or nothing comes for five seconds.
inline std::string ReadBytes(int fd, size_t size) {
    std::string bytes(size, '\0');
    pollfd ready{fd, POLLIN, 0};
    size_t have = 0;
    while (have < size && poll(&ready, 1, 5000) == 1) {
        const ssize_t n = read(fd, bytes.data() + have, size - have);
        if (n <= 0) {
            break;
        }
        have += static_cast<size_t>(n);
    }
    bytes.resize(have);
    return bytes;
}
