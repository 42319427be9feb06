// Stand-in for the platform's self-healing library. A notice goes to the system log and standard error; an action that
// ends a process kills it. Keeps no state; any thread may call it.
#include "platform/gvr.h"

#include <csignal>
#include <cstdio>
#include <syslog.h>
#include <unistd.h>

int gvr_lib_common_init(void)
{
    return 0;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the platform's signature
int protect_selfhealing_do_action(int action, pid_t pid, const char *module, const char *notice)
{
    switch (action) {
    case GVR_INNER_ACT:
        syslog(LOG_ERR, "%s: process %d: %s", module, (int)pid, notice);
        (void)fprintf(stderr, "%s: process %d: %s", module, (int)pid, notice);
        return 0;
    case GVR_KILL_PROCESS_ACT:
        return kill(pid, SIGKILL);
    default:
        return -1;
    }
}

void protect_selfhealing_flush_buf_in_emergency(void)
{
    sync();
}
