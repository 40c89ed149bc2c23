// pciplace VENDOR:DEVICE BAR ADDRESS: moves a PCI device's memory to a physical address of the
// emulated machine, through its configuration space in sysfs; ADDRESS 0 takes it off the bus.
// With the shared memory or the plain registers at 0xE0000000, a program that maps the board's
// clock block through /dev/mem finds something there.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

constexpr const char* kDevices = "/sys/bus/pci/devices/";
constexpr off_t kIdOffset = 0;
constexpr off_t kCommandOffset = 4;
constexpr off_t kBarOffset = 0x10;
constexpr uint32_t kMemoryEnable = 2;
constexpr uint32_t kBarTypeMask = 0x7;
constexpr uint32_t kBarIs64Bit = 0x4;

// The configuration space is little-endian whatever the processor is.
uint32_t ReadConfig(int fd, off_t offset) {
    uint8_t bytes[4] = {};
    if (pread(fd, bytes, sizeof bytes, offset) != sizeof bytes) {
        perror("read of the configuration space");
        exit(1);
    }
    return static_cast<uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16) |
           static_cast<uint32_t>(bytes[3]) << 24;
}

void WriteConfig(int fd, off_t offset, uint32_t value) {
    const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    if (pwrite(fd, bytes, sizeof bytes, offset) != sizeof bytes) {
        perror("write of the configuration space");
        exit(1);
    }
}

// The configuration space of the first device with this id (device above vendor), or -1.
int OpenDevice(uint32_t id) {
    DIR* devices = opendir(kDevices);
    if (devices == nullptr) {
        return -1;
    }
    int found = -1;
    while (const dirent* entry = readdir(devices)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string path = std::string(kDevices) + entry->d_name + "/config";
        const int fd = open(path.c_str(), O_RDWR);
        if (fd >= 0 && ReadConfig(fd, kIdOffset) == id) {
            found = fd;
            break;
        }
        close(fd);
    }
    closedir(devices);
    return found;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned vendor = 0, device = 0;
    if (argc != 4 || sscanf(argv[1], "%x:%x", &vendor, &device) != 2) {
        fputs("usage: pciplace VENDOR:DEVICE BAR ADDRESS\n", stderr);
        return 2;
    }
    const off_t bar = kBarOffset + 4 * strtol(argv[2], nullptr, 10);
    const uint32_t address = static_cast<uint32_t>(strtoul(argv[3], nullptr, 16));
    const int fd = OpenDevice(device << 16 | vendor);
    if (fd < 0) {
        fprintf(stderr, "no PCI device %s\n", argv[1]);
        return 1;
    }
    const uint32_t command = ReadConfig(fd, kCommandOffset) & 0xFFFF;
    WriteConfig(fd, kCommandOffset, command & ~kMemoryEnable);
    if (address == 0) {
        return 0;
    }
    const uint32_t old = ReadConfig(fd, bar);
    WriteConfig(fd, bar, address);
    if ((old & kBarTypeMask) == kBarIs64Bit) {
        WriteConfig(fd, bar + 4, 0);
    }
    WriteConfig(fd, kCommandOffset, command | kMemoryEnable);
    const uint32_t now = ReadConfig(fd, bar) & ~0xFu;
    if (now != address) {
        fprintf(stderr, "%s took address %x instead of %x\n", argv[1], now, address);
        return 1;
    }
    printf("%s BAR %s: %08x -> %08x\n", argv[1], argv[2], old, now);
    return 0;
}
