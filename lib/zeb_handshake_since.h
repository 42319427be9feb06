// Since when each remote instance has been as far as it is. The core of the handshake has no clock: the shell marks the
// instances that an effect of an event concerns, and after the event the clock is read if one of them is further, or
// less far, than before. The receive thread writes, under g_lib_mutex; application threads read, and wait for servers
// on running_cond. An instance has one record from the first message of its handshake on.
#ifndef ZEB_HANDSHAKE_SINCE_H
#define ZEB_HANDSHAKE_SINCE_H

#include <zeb/zeb_ext.h>

#include "zeb_handshake.h"
#include "zeb_lock.h"
#include "zeb_slot.h"

constexpr int ZEB_SINCE_NUM_MAX = ZEB_PAIR_NUM_MAX; // records; past it the time of further instances is not known

// How far an instance is. A blocked one is online here: the windows are flow control's.
typedef struct zeb_since_s {
    zeb_peer_phase_t phase;
    bool server;  // online, with dispatchers
    int64_t time; // monotonic, nanoseconds; 0: not known
} zeb_since_t;

void __zeb_since_clear() ZEB_REQUIRES(g_lib_mutex);

// Marks an instance. Called by the core's effects, so under g_lib_mutex.
void zeb_since_touch(zeb_inst_t inst);

// Notes the time where a marked instance has changed, and wakes who waits for servers. Ends every event.
void __zeb_since_note(const zeb_handshake_t *hs) ZEB_REQUIRES(g_lib_mutex);

zeb_since_t __zeb_get_since(const zeb_handshake_t *hs, zeb_inst_t inst) ZEB_REQUIRES(g_lib_mutex);

#endif
