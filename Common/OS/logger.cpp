// A recording checks for a pause inside the section too, so that once a dump has paused recording
// and passed through the section, the entries stand still.
#include "Common/OS/logger.h"

#include <stdio.h>
#include <stdlib.h>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/psosapi/ptimer.h"

std::atomic<Plogger_entry> orig_log_buffer{nullptr};
int max_entries;
int currix;
int max_logged;
std::atomic<int> log_state{0};
std::atomic<int> print_delay{0};
std::atomic<pprintf> pLogPrint{nullptr};

namespace {

constexpr int kDefaultEntries = 100;
constexpr int kDumpDelay = 1000;                 // microseconds
constexpr float kCounterPeriod = 4294934528.0F;  // counts after which the time stamps start anew

// What a dump works on.
struct RingT {
    Plogger_entry entries;
    int size;
    int next;
    int logged;
};

bool Recording() {
    return log_state == 0;
}

void InstallDefaultRing() {
    auto* ring = static_cast<Plogger_entry>(malloc(kDefaultEntries * sizeof(logger_entry)));
    if (ring == nullptr) {
        return;
    }
    {
        InterruptsOffT off;
        if (orig_log_buffer == nullptr) {
            orig_log_buffer = ring;
            max_entries = kDefaultEntries;
            currix = 0;
            max_logged = 0;
            return;
        }
    }
    free(ring);  // another thread was first
}

RingT LookAtRing() {
    InterruptsOffT off;
    return {orig_log_buffer, max_entries, currix, max_logged};
}

// Copies an entry; false when the ring is no longer the installed one.
bool CopyEntry(const RingT& ring, int index, logger_entry* entry) {
    InterruptsOffT off;
    if (orig_log_buffer != ring.entries || index >= max_entries) {
        return false;
    }
    *entry = ring.entries[index];
    return true;
}

char pchar(UInt32 word, int byte) {
    const UInt32 c = (word >> (8 * byte)) & 0xFF;
    return c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
}

void PrintAndWait(const char* line) {
    pLogPrint("%s", line);
    udelay(static_cast<UInt32>(print_delay));
}

void PrintEntry(const logger_entry& entry, float time, float elapsed) {
    char line[128];
    int used = snprintf(line, sizeof(line),
                        "%10.6f %9.6f %08X %08X %08X %08X :", static_cast<double>(time),
                        static_cast<double>(elapsed), entry.e1, entry.e2, entry.e3, entry.e4);
    for (const UInt32 word : {entry.e1, entry.e2, entry.e3, entry.e4}) {
        used += snprintf(line + used, sizeof(line) - static_cast<size_t>(used), " %c%c%c%c",
                         pchar(word, 0), pchar(word, 1), pchar(word, 2), pchar(word, 3));
    }
    snprintf(line + used, sizeof(line) - static_cast<size_t>(used), "\n");
    PrintAndWait(line);
}

void PrintEntries(const RingT& ring, float frequency) {
    logger_entry entry;
    if (ring.logged == 0 || !CopyEntry(ring, ring.logged - 1, &entry)) {
        return;
    }
    float previous = static_cast<float>(entry.time) / frequency;
    int index = ring.logged == ring.size && ring.next != 0 ? ring.next : 0;
    for (int i = 0; i < ring.logged && CopyEntry(ring, index, &entry); i++) {
        const float time = static_cast<float>(entry.time) / frequency;
        float elapsed = time - previous;
        if (time < previous) {
            elapsed = time + (kCounterPeriod / frequency - previous);
        }
        PrintEntry(entry, time, index == ring.next ? 0.0F : elapsed);
        previous = time;
        index = index + 1 == ring.size ? 0 : index + 1;
    }
}

// Pauses recording for a scope, also when a deleted task leaves it early.
class PauseT {
  public:
    PauseT() { pause_log(); }
    ~PauseT() {
        if (!keep_) {
            resume_log();
        }
    }
    PauseT(const PauseT&) = delete;
    PauseT& operator=(const PauseT&) = delete;
    void Keep() { keep_ = true; }

  private:
    bool keep_ = false;
};

}  // namespace

Plogger_entry init_logger(Plogger_entry buffer, int max_log_entries) {
    const bool usable = buffer != nullptr && max_log_entries > 0;
    InterruptsOffT off;
    Plogger_entry previous = orig_log_buffer;
    orig_log_buffer = usable ? buffer : nullptr;
    max_entries = usable ? max_log_entries : 0;
    currix = 0;
    max_logged = 0;
    return previous;
}

void logger(UInt32 e1, UInt32 e2, UInt32 e3, UInt32 e4) {
    if (!Recording()) {
        return;
    }
    if (orig_log_buffer == nullptr) {
        InstallDefaultRing();
    }
    const UInt32 time = CYCLES();
    InterruptsOffT off;
    Plogger_entry ring = orig_log_buffer;
    if (ring == nullptr || !Recording()) {
        return;
    }
    ring[currix] = {time, e1, e2, e3, e4};
    currix++;
    if (max_logged < max_entries) {
        max_logged++;
    }
    if (currix == max_entries) {
        currix = 0;
    }
}

void pause_log() {
    log_state++;
}

void resume_log() {
    log_state--;
}

void dump_log() {
    pLogPrint = printf;
    print_delay = kDumpDelay;
    const float frequency = GetProcessorFrequency();
    PauseT pause;
    const RingT ring = LookAtRing();
    char line[80];
    snprintf(line, sizeof(line),
             "Dumping logged information, %d entries in buffer\nINDEX = %02d:\n", ring.logged,
             ring.next);
    PrintAndWait(line);
    if (ring.entries == nullptr) {
        pause.Keep();
        return;
    }
    PrintAndWait("___TIME___ _ELAPSED_ _______ ________ ________ ________\n");
    PrintEntries(ring, frequency);
}
