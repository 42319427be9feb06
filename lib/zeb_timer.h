// A timer is a topology subscription with a time-out, to a name that nobody publishes. Its user handle says what has
// expired.
#ifndef ZEB_TIMER_H
#define ZEB_TIMER_H

#include <cstdint>

typedef enum zeb_timer_type_e : uint32_t {
    ZEB_TIMER_TYPE_RESUME = 0,
    ZEB_TIMER_TYPE_INST = 1, // sends a returned acknowledgement again
    ZEB_TIMER_TYPE_MONITOR = 2,
    ZEB_TIMER_TYPE_INST_RETRY = 3, // sends unacknowledged synchronisations again
    ZEB_TIMER_TYPE_WAKE = 4,       // does nothing but wake the receive thread
    ZEB_TIMER_TYPE_NUM = 5,
} zeb_timer_type_t;

// The user handle of a timer subscription, host order.
typedef struct zeb_timer_s {
    uint32_t type; // zeb_timer_type_t
    uint32_t seq;  // number of the record to which the timer belongs
} zeb_timer_t;

static_assert(sizeof(zeb_timer_t) == 8, "a topology subscription's user handle has 8 bytes");

#endif
