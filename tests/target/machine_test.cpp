// What the product needs of the emulated machine, shown without the product: when one of these
// fails, the machine is at fault. Runs only inside the machine.
#include <endian.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <termios.h>

#include <numeric>

#include "tests/target/read_bytes.h"

namespace {

int OpenRaw(const char* path) {
    const int fd = open(path, O_RDWR | O_NOCTTY);
    termios settings{};
    EXPECT_EQ(tcgetattr(fd, &settings), 0) << path;
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD;
    cfsetspeed(&settings, B115200);
    EXPECT_EQ(tcsetattr(fd, TCSANOW, &settings), 0);
    return fd;
}

}  // namespace

TEST(Machine, IsNotABigEndian32BitPowerPc) {
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_STREQ(name.machine, "ppc");
    EXPECT_EQ(sizeof(void*), 4u);
    EXPECT_EQ(htobe32(0x01020304), 0x01020304u);
    // The board's core has no AltiVec; neither may the machine have.
    EXPECT_NE(system("grep -qi altivec /proc/cpuinfo"), 0);
}

// The two lines are wired to each other outside the machine.
TEST(Machine, EmulatedUartsLoseBytesOnTheirWayOutAndBackIn) {
    const int one = OpenRaw("/dev/ttyS4");
    const int other = OpenRaw("/dev/ttyS5");
    std::string bytes(256, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    for (const auto& [from, to] : {std::pair{one, other}, std::pair{other, one}}) {
        ASSERT_EQ(write(from, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(ReadBytes(to, bytes.size()), bytes);
    }
}
