// The library's one handshake: it locks g_lib_mutex, calls the core and carries out the core's effects. Events enter on
// the receive thread; queries, zeb_comm_with and zeb_del_reject_sync_inst_ack on any thread. Notifications, and
// messages whose result the core does not need, are gathered under g_lib_mutex and carried out in order once it is
// released: no callback runs under it. Two kinds of message are sent under it, because their result decides what is
// remembered: a first SYNC_INST, and a returned acknowledgement that is sent again.
#ifndef ZEB_HANDSHAKE_SHELL_H
#define ZEB_HANDSHAKE_SHELL_H

#include "zeb_handshake.h"
#include "zeb_handshake_since.h"
#include "zeb_lock.h"
#include "zeb_slot.h"

extern zeb_handshake_t g_zeb_handshake ZEB_GUARDED_BY(g_lib_mutex);

void zeb_handshake_start() ZEB_REQUIRES(g_lib_mutex); // forgets everything

// Carries out what the core left for later, and empties the list. Must not be called under a lock.
void zeb_carry_out(struct list_head *later);

// Has each application that gets every event, and has named a peer late, get the joins of the servers that are online.
// Begins every event, so that nobody misses what it changes.
void __zeb_tell_late_subscribers() ZEB_REQUIRES(g_lib_mutex);

// Calls event(core) under the lock, then carries out what it left for later.
template <typename Event>
static inline void zeb_handshake_event(Event event)
{
    struct list_head later;
    INIT_LIST_HEAD(&later);
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        g_zeb_handshake.ctx = &later;
        __zeb_tell_late_subscribers();
        event(&g_zeb_handshake);
        __zeb_since_note(&g_zeb_handshake);
    }
    zeb_carry_out(&later);
}

// Who talks to whom. zeb_add_comm_app returns 0, or -ENOENT when `src_app` is not registered here.
int zeb_add_comm_app(uint32_t src_app, uint32_t dst_app);
int __zeb_add_comm_app(uint32_t src_app, uint32_t dst_app) ZEB_REQUIRES(g_lib_mutex); // returns 0
void zeb_del_comm_app(uint32_t src_app) ZEB_REQUIRES(g_lib_mutex);

// Who is online.
void zeb_get_app_server(uint32_t app, zeb_app_set_t *ol_srv);
bool zeb_has_app_server(const zeb_app_set_t *ol_srv); // takes no lock

// Gives those of `num` nodes that have an online server, and returns whether any node at all has one. For a call to few
// nodes: it copies only what is asked for.
bool zeb_get_app_server_on(uint32_t app, const uint32_t *nodes, int num, zeb_app_set_t *ol_srv);
zeb_inst_state_t zeb_get_inst_state(zeb_inst_t inst);
zeb_since_t zeb_get_inst_since(zeb_inst_t inst);

// zeb_get_sender_state is for the receive thread alone. It reads the sets without the lock, because no other thread
// changes them.
zeb_inst_state_t zeb_get_sender_state(zeb_inst_t inst);
bool zeb_app_online(zeb_inst_t inst);
bool zeb_app_instance(zeb_inst_t inst);

// Events of the topology service.
void zeb_subscr_tipc_events(); // subscribes to every known application
void zeb_inst_published(zeb_inst_t inst);
void zeb_inst_withdrawn(zeb_inst_t inst);
void zeb_topology_reopened();
void zeb_handshake_minute();  // another minute has passed
void zeb_handshake_look();    // another five seconds have passed
void zeb_topology_reported(); // a reopened connection has reported every instance that exists

// Takes a received message with ZEB_MSG_FLAG_SYNC, and frees it.
void zeb_sync_msg_process(zeb_msg_t *msg);

// An ordinary message has arrived from a peer that is not online. Called before the message is handed on.
void zeb_notify_app_join(uint32_t my_app, zeb_inst_t peer);

// Returned acknowledgements. The time to live of `msg` is counted down; while it lasts, a copy is sent again after a
// second. Traffic to or from the peer makes the copies unnecessary.
void zeb_process_return_sync(zeb_msg_t *msg);
void zeb_del_reject_acks(uint32_t src_app, zeb_inst_t dst);

// Every send calls this. In the common case there is no returned acknowledgement, and no lock is needed.
static inline void zeb_del_reject_sync_inst_ack(uint32_t src_app, zeb_inst_t dst) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    if (g_zeb_handshake.sync_inst_ack_num.load(std::memory_order_relaxed) != 0)
        zeb_del_reject_acks(src_app, dst);
}

// Timers. `timeout` is in seconds. Returns -1 when the timer cannot be started, and else 0, also for a retry timer
// while one is running.
int zeb_subscr_timer_event(uint64_t timeout, zeb_timer_t timer);
void zeb_process_sync_timer_event(zeb_timer_t timer); // of type resume, inst or retry

// Sends the acknowledgement of the older version. Nothing in the library calls it. Returns 0, or the error.
int zeb_sync_app_inst_ack(uint32_t src_app, zeb_inst_t dst, uint32_t seq, bool is_server);

#endif
