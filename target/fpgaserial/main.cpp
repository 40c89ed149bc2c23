// fpgaserial [--log FILE] [--line N=STREAM]... : the FPGA serial driver's substitute in the
// emulated machine. Provides /dev/fpgaserial0, 1, 4, 5 and 6; what a STREAM can be,
// FpgaSerialDevice::Connect says. Every open, close, configuration record and receiver switch is a
// line of the log file, in the order in which the driver saw them. Prints "ready" when all devices
// are there.
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "target/fpgaserial/device.h"

namespace {

// The board's FPGA has these five lines.
constexpr int kNumbers[] = {0, 1, 4, 5, 6};

struct Options {
    std::string log = "/dev/stderr";
    std::map<int, std::string> streams;
};

bool Parse(int argc, char** argv, Options* options) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string value = argv[i + 1];
        const size_t equals = value.find('=');
        if (strcmp(argv[i], "--log") == 0) {
            options->log = value;
        } else if (strcmp(argv[i], "--line") == 0 && equals != std::string::npos) {
            options->streams[atoi(value.c_str())] = value.substr(equals + 1);
        } else {
            return false;
        }
    }
    return argc % 2 == 1;
}

bool StartAll(const Options& options, FILE* log,
              std::vector<std::unique_ptr<FpgaSerialDevice>>* devices) {
    for (const int number : kNumbers) {
        auto device = std::make_unique<FpgaSerialDevice>(number, log);
        const auto stream = options.streams.find(number);
        if (stream != options.streams.end() && !device->Connect(stream->second)) {
            perror(stream->second.c_str());
            return false;
        }
        if (!device->Start()) {
            perror("/dev/cuse");
            return false;
        }
        devices->push_back(std::move(device));
    }
    return true;
}

// The kernel makes a device node some time after it has our answer.
void WaitForNodes() {
    for (const int number : kNumbers) {
        const std::string node = "/dev/fpgaserial" + std::to_string(number);
        while (access(node.c_str(), F_OK) != 0) {
            usleep(1000);
        }
    }
}

void ServeForever(const std::vector<std::unique_ptr<FpgaSerialDevice>>& devices) {
    std::vector<pollfd> ready(2 * devices.size());
    for (;;) {
        for (size_t i = 0; i < devices.size(); ++i) {
            const FpgaSerialDevice& device = *devices[i];
            const int lineEvents = device.wantsToWrite() ? POLLIN | POLLOUT : POLLIN;
            ready[2 * i] = {device.cuseFd(), POLLIN, 0};
            ready[2 * i + 1] = {device.lineFd(), static_cast<short>(lineEvents), 0};
        }
        if (poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) {
            perror("poll");
            return;
        }
        for (size_t i = 0; i < devices.size(); ++i) {
            if (ready[2 * i].revents != 0) {
                devices[i]->ServeRequests();
            }
            if ((ready[2 * i + 1].revents & (POLLIN | POLLHUP)) != 0) {
                devices[i]->ReadLine();
            }
            if ((ready[2 * i + 1].revents & POLLOUT) != 0 && devices[i]->lineFd() >= 0) {
                devices[i]->WriteLine();
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, &options)) {
        fputs("usage: fpgaserial [--log FILE] [--line N=TERMINAL|N=pty:LINK|N=with:TERMINAL]...\n",
              stderr);
        return 2;
    }
    FILE* log = fopen(options.log.c_str(), "ae");
    if (log == nullptr) {
        perror(options.log.c_str());
        return 1;
    }
    std::vector<std::unique_ptr<FpgaSerialDevice>> devices;
    if (!StartAll(options, log, &devices)) {
        return 1;
    }
    // CUSE_INIT is answered asynchronously; the nodes appear while nothing else is asked of us.
    WaitForNodes();
    puts("ready");
    fflush(stdout);
    ServeForever(devices);
    return 1;
}
