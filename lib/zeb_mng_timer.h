// Timers made of topology subscriptions: each is a subscription with a time-out to a name that nobody publishes, whose
// user handle says what expired. Started and handled on the receive thread; no lock.
#ifndef ZEB_MNG_TIMER_H
#define ZEB_MNG_TIMER_H

#include <cstdint>
#include <linux/types.h>

typedef enum zeb_timer_type_e : uint32_t {
    ZEB_TIMER_TYPE_RESUME = 0,
    ZEB_TIMER_TYPE_INST = 1, // a returned acknowledgement is to be sent again
    ZEB_TIMER_TYPE_MONITOR = 2,
    ZEB_TIMER_TYPE_INST_RETRY = 3, // unacknowledged synchronisations are to be sent again
    ZEB_TIMER_TYPE_NUM = 4,
} zeb_timer_type_t;

// The user handle of a timer subscription, host order.
typedef struct zeb_timer_s {
    uint32_t type; // zeb_timer_type_t
    uint32_t seq;  // names the occasion
} zeb_timer_t;

static_assert(sizeof(zeb_timer_t) == 8, "a topology subscription's user handle has 8 bytes");

constexpr uint64_t ZEB_MONITOR_PERIOD = 1800; // seconds, doubled with every dump

// True while a retry timer is pending: at most one is.
extern bool zeb_timer_inst_retry_open;

// Starts a timer of `timeout` seconds. 0 (also when a retry timer is pending already), or -1.
int zeb_subscr_timer_event(__u64 timeout, zeb_timer_t timer);

// Timers that were pending on a lost topology connection never expire: the next start of a retry timer is a start
// again.
void zeb_timer_forget_lost();
void zeb_process_tipc_timer_event(zeb_timer_t timer);
void zeb_process_monitor_timer_event(uint32_t seq);

#endif
