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

#ifdef __cplusplus
}
#endif

#endif
