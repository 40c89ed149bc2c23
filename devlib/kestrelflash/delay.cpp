// The updater's pause.
#include "devlib/kestrelflash/delay.h"

#include <sys/select.h>

#include "Common/OS/linux/board.h"

void Delay(int delay_usecs) {
    const int usecs = BoardDelay(delay_usecs);
    if (usecs <= 0) {
        return;
    }
    timeval timeout;
    do {
        // The C library takes a second or more in the microseconds field and normalises it.
        timeout.tv_sec = 0;
        timeout.tv_usec = usecs;
    } while (select(0, nullptr, nullptr, nullptr, &timeout) < 0);
}
