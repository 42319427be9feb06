// TIPC sockets: the application sockets, bound to their TIPC names, and the connection to the topology service with its
// subscriptions and timers. Registration creates the sockets. The receive thread binds the application sockets when the
// library runs, and owns the topology connection once it has started. There is no lock.
#ifndef ZEB_TIPC_H
#define ZEB_TIPC_H

#include <cstdint>
#include <linux/tipc.h>

#include "zeb_timer.h"

constexpr uint32_t ZEB_TIPC_NAME_TYPE = 2303;

// The first two return a descriptor, the last 0; -1 on failure.
int zeb_create_subscription_socket();
int zeb_create_app_socket(uint32_t app, int priority);
int zeb_bind_app_socket(uint32_t app, int sd);

// Sends one request on the topology connection; repeats at once on EINTR, ENOMEM and ENOBUFS. Returns 0, or -1 with
// errno.
int zeb_send_subscription(const struct tipc_subscr *request);

// Subscribe to the events of a range of instances, for `timeout` milliseconds or TIPC_WAIT_FOREVER, and cancel that
// subscription. Return 0 or -1.
int zeb_subscr_app_events(uint32_t lower, uint32_t upper, int timeout);
int zeb_unsubscr_app_events(uint32_t lower, uint32_t upper);

// Starts a timer of `timeout` seconds. The time-out in milliseconds is cut to its low 32 bits. Returns 0 or -1.
int zeb_start_timer(uint64_t timeout, zeb_timer_t timer);

#endif
