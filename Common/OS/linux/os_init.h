// One-time set-up of the operating-system layer.
#pragma once

#include <pthread.h>

// Makes the layer's process-wide locks what long-running programs need: the interrupts-off lock and
// the log's line lock recursive, all of them with priority inheritance. Call once at start-up,
// before any task is created and before any of the locks is used; later calls do nothing. A
// program that never calls it (the updater) runs with default locks, and interrupts-off sections
// then do not nest.
void os_init();

// The locks of the log's line assembly and of its queue. They stand here, beside the layer's other
// locks, because os_init makes them; only the log takes them.
extern pthread_mutex_t logmsgmutex;
extern pthread_mutex_t logqueuemutex;
