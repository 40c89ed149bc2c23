// A task that takes a sample on every beat of a periodic timer, and a main thread that waits for it
// with a time-out.
#include <stdio.h>

#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"

namespace {

constexpr UInt32 kBeat = 0x1;    // to the sensor: its timer
constexpr UInt32 kSample = 0x2;  // to the main task: a sample is there

UInt32 gLock;  // guards gTotal
int gTotal;

void Sensor(UInt32 main_task, UInt32 samples, UInt32, UInt32) {
    UInt32 timer;
    UInt32 events;
    tm_evevery(2, kBeat, &timer);  // every 20 ms
    for (UInt32 i = 1; i <= samples; i++) {
        ev_receive(kBeat, kEvAny, 0, &events);
        {
            const CancellableSemGuardT guard(gLock);
            gTotal += static_cast<int>(i);
            printf("sensor: sample %u\n", i);
        }
        ev_send(main_task, kSample);
    }
    tm_cancel(timer);
}  // returning ends the task

}  // namespace

int main() {
    os_init();
    t_attach("main", 0, nullptr);
    UInt32 self;
    t_ident(nullptr, 0, &self);
    sm_create("totl", 1, 0, &gLock);

    UInt32 sensor;
    UInt32 args[4] = {self, 3, 0, 0};
    t_create("sens", 10, 0, 0, 0, &sensor);
    t_start(sensor, 0, Sensor, args);

    UInt32 events;
    while (ev_receive(kSample, kEvAny, 200, &events) == kTaskOk) {
    }
    puts("main: no more samples");
    const CancellableSemGuardT guard(gLock);
    printf("main: total %d\n", gTotal);
    return 0;
}
