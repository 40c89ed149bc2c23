// A component that logs: a line assembled from two calls, the repeat filter, and a cull filter.
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/log.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"

int main() {
    os_init();
    gConfigLoaded = 1;  // this program has no configuration
    logmsg_set_format(kLogFormatLevel);
    logmsg_cullfilter_add("os: ");  // not the services' own lines
    InitSyslogInterface();

    loginfo("fan", "speed %d ", 40);
    loginfo("fan", "percent\n");  // continues the line
    logmsg_set_spewfilter(1);
    for (int i = 0; i < 3; i++) {
        logwarn("fan", "blocked\n");
    }
    loginfo("fan", "turning again\n");
    tm_wkafter(50);  // the writer prints in its own time
    return 0;
}
