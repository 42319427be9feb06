// Sockets: the applications', bound to their TIPC names, and the connection to the topology service with its
// subscriptions and timers. Sockets are made and bound at registration and start; the topology connection is the
// receive thread's once that has started. No lock.
#ifndef ZEB_TIPC_H
#define ZEB_TIPC_H

#include <cstdint>
#include <linux/tipc.h>

#include "zeb_timer.h"

constexpr uint32_t ZEB_TIPC_NAME_TYPE = 2303;

// Each returns a descriptor or 0, or -1.
int zeb_create_subscription_socket();
int zeb_create_app_socket(uint32_t app, int priority);
int zeb_bind_app_socket(uint32_t app, int sd);

// Sends one request on the topology connection, again at once on EINTR, ENOMEM and ENOBUFS. 0, or -1 with errno.
int zeb_send_subscription(const struct tipc_subscr *request);

// Asks for the events of a range of instances for `timeout` milliseconds or TIPC_WAIT_FOREVER, or no longer. 0 or -1.
int zeb_subscr_app_events(uint32_t lower, uint32_t upper, int timeout);
int zeb_unsubscr_app_events(uint32_t lower, uint32_t upper);

// Starts a timer of `timeout` seconds, kept to the low 32 bits of its milliseconds. 0 or -1.
int zeb_start_timer(uint64_t timeout, zeb_timer_t timer);

#endif
