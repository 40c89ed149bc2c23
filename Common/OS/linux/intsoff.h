// The interrupts-off section: one process-wide lock that stands in for disabling interrupts. It
// guards short critical sections (lists, request queues, the event logger). Any thread may call.
#pragma once

#include <pthread.h>

#include "Common/OS/types.h"

// Enters the section and returns a token, the new nesting depth. Waits while another thread is
// inside. Sections nest in one thread once os_init has run; before that a second entry from the
// same thread waits for ever.
UInt32 interruptsOff();

// Leaves the section that returned `oldie`. A token other than the current depth is logged and the
// section is left all the same; a caller that is not inside is logged and changes nothing.
void interruptsRestore(UInt32 oldie);

// Leaves every section that the calling thread is in. Called as a task ends.
void interrupts_release_all();

// The process-wide lock behind the section, made recursive by os_init.
extern pthread_mutex_t intsoffmutex;

// Holds the section for a scope.
class InterruptsOffT {
  public:
    InterruptsOffT() : token_(interruptsOff()) {}
    ~InterruptsOffT() noexcept(false) { interruptsRestore(token_); }
    InterruptsOffT(const InterruptsOffT&) = delete;
    InterruptsOffT& operator=(const InterruptsOffT&) = delete;

  private:
    UInt32 token_;
};
