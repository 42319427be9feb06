/* The calls of the platform's process self-healing library that ZEB uses. platform/gvr holds a stand-in for systems
 * without that library; CMake's ZEB_GVR_LIBRARY names the real one instead. */
#ifndef PLATFORM_GVR_H
#define PLATFORM_GVR_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Connects the calling process to the self-healing service. May be called any number of times. Returns 0, or non-zero
 * when the service refuses. */
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

/* Carries out `action` on process `pid` on behalf of `module` and records `notice` as the reason. Returns 0, or
 * non-zero when the service refuses. */
int protect_selfhealing_do_action(int action, pid_t pid, const char *module, const char *notice);

/* Writes the recorded notices to storage that survives the process. */
void protect_selfhealing_flush_buf_in_emergency(void);

#ifdef __cplusplus
}
#endif

#endif
