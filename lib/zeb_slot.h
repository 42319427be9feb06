// The record of the process: the slots of its applications and the state of the library (started, running, or in a
// forked child). A slot holds each area's record of one application. Slots are claimed in order, and freed all at once
// when the library stops. Registration writes a slot under g_lib_mutex and stores the application id last, so a lookup
// without the lock sees a complete slot.
#ifndef ZEB_SLOT_H
#define ZEB_SLOT_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "zeb_lock.h"

constexpr int ZEB_APP_SLOT_NUM = 32; // the last slot stays free and ends every scan

// Guards the slots against a second writer, the running state, and the handshake's record. Recursive: registration
// holds it while it calls code that takes it again. It is the outermost lock: every other lock of the library may be
// taken under it. No application callback runs under it.
extern zeb_mutex_t g_lib_mutex;

typedef struct zeb_app_mng_s {
    std::atomic<uint32_t> app_id; // 0: free. Stored last, with release order
    int sd;                       // the application's TIPC socket
    struct zeb_app_info_s *info;
    struct zeb_fc_s *fc;
    struct zeb_app_rpc_wait_s *rpc;
    struct zeb_mng_stat_s *mng_stat;
    struct zeb_mc_s *mc; // part of `info`
} zeb_app_mng_t;

typedef struct zeb_mng_s {
    bool running ZEB_GUARDED_BY(g_lib_mutex);
    std::atomic<bool> blocked_resume;
    int wake_fd;   // eventfd of the receive thread, written once, by zeb_stop
    int subscr_sd; // topology connection, -1 when closed; owned by the receive thread once that has started
    pthread_t lib_tid;
    uint32_t starts;         // of the library in this process; guarded by g_lib_mutex, read by the receive thread
    zeb_cond_t running_cond; // on g_lib_mutex: broadcast when the library runs, and when a server comes or goes
    zeb_app_mng_t app[ZEB_APP_SLOT_NUM];
} zeb_mng_t;

extern zeb_mng_t g_zeb_mng;

// The slot of an application; null when it is not registered here.
static inline zeb_app_mng_t *zeb_get_app_mng(uint32_t app)
{
    uint32_t id = 0;
    for (zeb_app_mng_t *slot = g_zeb_mng.app; (id = slot->app_id.load(std::memory_order_acquire)) != 0; slot++) {
        if (id == app)
            return slot;
    }
    return nullptr;
}

// Calls visit(slot) for each used slot in order.
template <typename Visit>
static inline void zeb_each_app_mng(Visit visit)
{
    for (zeb_app_mng_t *slot = g_zeb_mng.app; slot->app_id.load(std::memory_order_acquire) != 0; slot++)
        visit(slot);
}

void zeb_clear_slot(zeb_app_mng_t *slot); // the slot must have no application id
void zeb_clear_mng() ZEB_REQUIRES(g_lib_mutex);

void zeb_notify_running();
void zeb_wait_for_running(); // returns at a stop too

// Whether the caller is the receive thread. Only for a caller that has found a slot: the thread exists by then.
static inline bool zeb_on_receive_thread()
{
    return pthread_equal(pthread_self(), g_zeb_mng.lib_tid) != 0;
}

// True in a child that was forked after the library had started. The child has one thread, locks that other threads may
// have held at the fork, and the parent's sockets, so every exported call that needs any of these is refused.
extern bool g_zeb_in_child;

bool zeb_refuse_child(const char *call); // logs an ERROR line; returns true

static inline bool zeb_in_child(const char *call)
{
    return __builtin_expect(static_cast<long>(g_zeb_in_child), 0) != 0 && zeb_refuse_child(call);
}

#endif
