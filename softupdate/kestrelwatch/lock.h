// One update per unit. The lock is on a file that belongs to a line's device, and lives as long as
// any process of the run does: kestrelwatch, its guard, the updater. None is ever stale.
#pragma once

#include <string>
#include <vector>

#include "softupdate/kestrelwatch/fd.h"
#include "softupdate/kestrelwatch/record.h"

namespace watch {

class UnitLock {
  public:
    // Takes the locks of both lines that the plan names, those that are there; other processes
    // inherit them. False when another run has one of them, or none can be made: the verdict then
    // says so. Does not wait.
    bool Take(RecordT* record);

    // Tells others, beside this process, which updater is at work.
    void Note(pid_t updater) const;

  private:
    std::vector<Fd> files_;
    long long sinceSeconds_ = 0;
};

}  // namespace watch
