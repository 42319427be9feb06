// Events of the topology service: published and withdrawn instances and expired timers, each routed to its area; and
// the monitor timer, which dumps the listings to the statistics file. Runs on the receive thread.
#ifndef ZEB_MNG_TOPOLOGY_H
#define ZEB_MNG_TOPOLOGY_H

#include <cstdint>
#include <linux/tipc.h>

#include "zeb_timer.h"

constexpr uint64_t ZEB_MONITOR_PERIOD = 1800; // seconds, doubled with every dump

void zeb_process_tipc_subscr_event(struct tipc_event event);
void zeb_process_tipc_timer_event(zeb_timer_t timer);
void zeb_process_monitor_timer_event(uint32_t seq);

#endif
