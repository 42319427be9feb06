// Instances whose report is not enough to bring the pair online. One that a reopened topology connection reports once
// more: a peer whose own connection held still takes us for known and would not synchronise by itself. And one to which
// a synchronisation could not be sent: the peer would wait for it, and we not miss it once another application of ours
// is online with the instance. Both are asked again until the pair is online. Everything runs on the receive thread;
// g_lib_mutex guards the list.
#ifndef ZEB_MNG_REJOIN_H
#define ZEB_MNG_REJOIN_H

#include <cstdint>

#include "zeb_lock.h"
#include "zeb_mng.h"

constexpr unsigned ZEB_REJOIN_TIMEOUT = 5; // seconds

typedef struct zeb_rejoin_s {
    struct list_head list; // in g_zeb_mng.rejoin_list
    uint32_t seq;          // of its timer, one of the resume type
    uint32_t app;
    uint32_t node;
} zeb_rejoin_t;

void zeb_rejoin_later(uint32_t app, uint32_t node);
bool zeb_has_rejoin(uint32_t app, uint32_t node);
void zeb_forget_rejoin(uint32_t app, uint32_t node); // the instance is withdrawn

// True when `seq` names an occasion of ours, which is handled then.
bool zeb_process_rejoin_timer_event(uint32_t seq);

#endif
