// Reports of tasks and CPU use, from the process file system.
#include "Common/OS/linux/psosapi/taskinfo.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/psosapi/tasks.h"

namespace {

constexpr int kMaxTasks = 200;
constexpr int kMaxProcesses = 512;
constexpr int kMaxReported = 10;

// What a report needs of a task, copied so that nothing is printed under the lock.
struct TaskRowT {
    UInt32 id;
    char name[5];
    int priority;
    int pid;
    int tid;
    int usrtime;  // clock ticks at the last report
    int systime;
};

struct ProcessT {
    int pid;
    char name[32];
    long ticks;
};

ProcessT gLastProcesses[kMaxProcesses];  // of the last report; under gReportMutex
int gLastProcessCount;
pthread_mutex_t gReportMutex = PTHREAD_MUTEX_INITIALIZER;

int CopyTasks(TaskRowT (&rows)[kMaxTasks]) {
    MutexGuardT guard(&tcblistmutex);
    int count = 0;
    for (TCB* tcb = tcblist; tcb != nullptr && count < kMaxTasks; tcb = tcb->next) {
        TaskRowT& row = rows[count++];
        row = {id_of(tcb), {}, tcb->priority, tcb->pid, tcb->tid, tcb->usrtime, tcb->systime};
        memcpy(row.name, tcb->taskname, sizeof(tcb->taskname));
    }
    return count;
}

void StoreTimes(UInt32 id, int usrtime, int systime) {
    MutexGuardT guard(&tcblistmutex);
    for (TCB* tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        if (id_of(tcb) == id) {
            tcb->usrtime = usrtime;
            tcb->systime = systime;
        }
    }
}

// Reads name, user and system time (clock ticks) from a "stat" file; false when it is gone.
bool ReadStat(const char* path, char (&name)[32], long* usrtime, long* systime) {
    const NoCancelT no_cancel;
    FILE* file = fopen(path, "r");
    if (file == nullptr) {
        return false;
    }
    char line[512];
    const size_t length = fread(line, 1, sizeof(line) - 1, file);
    fclose(file);
    line[length] = '\0';
    // The name stands in parentheses and may hold some itself; the times are fields 14 and 15.
    const char* open = strchr(line, '(');
    const char* close = strrchr(line, ')');
    if (open == nullptr || close == nullptr) {
        return false;
    }
    snprintf(name, sizeof(name), "%.*s", static_cast<int>(close - open - 1), open + 1);
    return sscanf(close + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", usrtime,
                  systime) == 2;
}

// Fills `processes` with every process but this one; returns how many.
int ReadProcesses(ProcessT (&processes)[kMaxProcesses]) {
    const NoCancelT no_cancel;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return 0;
    }
    int count = 0;
    while (const dirent* entry = readdir(proc)) {
        const int pid =
            isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 ? atoi(entry->d_name) : 0;
        if (pid == 0 || pid == getpid() || count == kMaxProcesses) {
            continue;
        }
        char path[64];
        snprintf(path, sizeof(path), "/proc/%d/stat", pid);
        long usrtime = 0;
        long systime = 0;
        ProcessT& process = processes[count];
        if (ReadStat(path, process.name, &usrtime, &systime)) {
            process.pid = pid;
            process.ticks = usrtime + systime;
            count++;
        }
    }
    closedir(proc);
    return count;
}

long LastTicks(int pid) {
    for (int i = 0; i < gLastProcessCount; i++) {
        if (gLastProcesses[i].pid == pid) {
            return gLastProcesses[i].ticks;
        }
    }
    return 0;
}

long ToMilliseconds(long ticks) {
    return ticks * 1000 / sysconf(_SC_CLK_TCK);
}

int CompareBusiest(const void* a, const void* b) {
    const long ta = static_cast<const ProcessT*>(a)->ticks;
    const long tb = static_cast<const ProcessT*>(b)->ticks;
    return ta < tb ? 1 : ta > tb ? -1 : 0;
}

}  // namespace

void osTaskDump() {
    TaskRowT rows[kMaxTasks];
    const int count = CopyTasks(rows);
    printf("T[%d] Task:  ID    Name  Priority PID\n", count);
    for (int i = 0; i < count; i++) {
        printf("T[%d]    %08x  %4s    %3d    %3d\n", i, rows[i].id, rows[i].name, rows[i].priority,
               rows[i].pid);
    }
}

void osTaskUsage() {
    TaskRowT rows[kMaxTasks];
    const int count = CopyTasks(rows);
    puts("Task usage: name  pri     tid    user ms  system ms  since last ms");
    for (int i = 0; i < count; i++) {
        const TaskRowT& row = rows[i];
        char path[64];
        snprintf(path, sizeof(path), "/proc/self/task/%d/stat", row.tid);
        char name[32];
        long usrtime = 0;
        long systime = 0;
        if (row.tid == 0 || !ReadStat(path, name, &usrtime, &systime)) {
            printf("            %4s  %3d       -          -          -          -\n", row.name,
                   row.priority);
            continue;
        }
        const long since = usrtime + systime - row.usrtime - row.systime;
        printf("            %4s  %3d  %6d %10ld %10ld %10ld\n", row.name, row.priority, row.tid,
               ToMilliseconds(usrtime), ToMilliseconds(systime), ToMilliseconds(since));
        StoreTimes(row.id, static_cast<int>(usrtime), static_cast<int>(systime));
    }
}

void cpu_usage_other() {
    CancellableMutexGuardT guard(&gReportMutex);
    static ProcessT now[kMaxProcesses];
    static ProcessT delta[kMaxProcesses];
    const int count = ReadProcesses(now);
    for (int i = 0; i < count; i++) {
        delta[i] = now[i];
        delta[i].ticks -= LastTicks(now[i].pid);
    }
    memcpy(gLastProcesses, now, sizeof(gLastProcesses));
    gLastProcessCount = count;
    qsort(delta, static_cast<size_t>(count), sizeof(delta[0]), CompareBusiest);
    puts("Other processes:     pid  name              since last ms");
    for (int i = 0; i < count && i < kMaxReported && delta[i].ticks > 0; i++) {
        printf("                  %6d  %-16s  %10ld\n", delta[i].pid, delta[i].name,
               ToMilliseconds(delta[i].ticks));
    }
}
