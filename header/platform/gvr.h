/* The platform's process self-healing library, as far as ZEB calls it. platform/gvr holds a stand-in for systems
 * without one; CMake's ZEB_GVR_LIBRARY names the real library instead. */
#ifndef PLATFORM_GVR_H
#define PLATFORM_GVR_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Joins the calling process to the self-healing service. Returns 0, or non-zero when the service refuses. May be called
 * any number of times. */
int gvr_lib_common_init(void);

typedef enum gvr_action_e {
    GVR_UNDEF_ACT = 0,
    GVR_INNER_ACT = 1,        /* record the notice */
    GVR_KILL_PROCESS_ACT = 2, /* end the process */
    GVR_RELOAD_SELF_ACT = 3,
    GVR_RELOAD_NODE_ACT = 4,
    GVR_RESET_DEVICE_ACT = 5,
    GVR_REDUNDANCE_SWITCH_ACT = 6,
    GVR_ACT_MAX = 7
} gvr_action_t;

/* Carries out `action` on process `pid` on behalf of `module`, with `notice` as the reason on record. Returns 0, or
 * non-zero when the service refuses. */
int protect_selfhealing_do_action(int action, pid_t pid, const char *module, const char *notice);

/* Forces the notices on record to where they survive the process. */
void protect_selfhealing_flush_buf_in_emergency(void);

#ifdef __cplusplus
}
#endif

#endif
