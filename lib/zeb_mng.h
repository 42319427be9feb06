// The manager record: application slots, library start, running state, sockets.
// Registration runs on application threads under g_lib_mutex; everything else here is small and named for its caller.
#ifndef ZEB_MNG_H
#define ZEB_MNG_H

#include <pthread.h>

#include <zeb/zeb.h>

#include "platform/list_index.h"
#include "zeb_app_info.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_lock.h"
#include "zeb_rpc.h"

constexpr int ZEB_APP_SLOT_NUM = 32; // the last slot stays free and ends every scan

// Guards the manager record and its lists: slots, online state, handshake. Recursive: registration and the join path
// hold it while they call code that takes it again. The outermost of our locks: every other may be taken under it. No
// application callback runs under it.
extern zeb_mutex_t g_lib_mutex;

typedef struct zeb_app_mng_s {
    uint32_t app_id; // 0: free. Written last, with release order, so that a scan without the lock sees a whole slot
    zeb_app_info_t *info;
    zeb_fc_t *fc;
    zeb_app_rpc_wait_t *rpc;
    zeb_mng_stat_t *mng_stat;
} zeb_app_mng_t;

typedef struct zeb_mng_s {
    bool running ZEB_GUARDED_BY(g_lib_mutex);
    bool blocked_resume;  // relaxed
    bool subscr_reopened; // the topology connection was lost at least once; the receive thread's
    int subscr_sd;        // topology connection, -1 when closed; the receive thread's once that has started
    pthread_t lib_tid;
    zeb_cond_t running_cond;
    struct list_head ol_app_list ZEB_GUARDED_BY(g_lib_mutex);          // zeb_ol_app_t
    struct list_head inst_id_list ZEB_GUARDED_BY(g_lib_mutex);         // zeb_inst_id_t
    struct list_head inst_sync_list ZEB_GUARDED_BY(g_lib_mutex);       // zeb_msg_t: our unacknowledged SYNC_INSTs
    struct list_head resume_comm_list ZEB_GUARDED_BY(g_lib_mutex);     // zeb_resume_comm_t
    struct list_head rejoin_list ZEB_GUARDED_BY(g_lib_mutex);          // zeb_rejoin_t
    struct list_head sync_inst_ack_list ZEB_GUARDED_BY(g_lib_mutex);   // zeb_msg_t: returned acknowledgements
    struct list_head sync_inst_retry_list ZEB_GUARDED_BY(g_lib_mutex); // zeb_retry_inst_t
    list_index_t ol_app_index ZEB_GUARDED_BY(g_lib_mutex);             // of ol_app_list, by application
    list_index_t inst_id_index ZEB_GUARDED_BY(g_lib_mutex);            // of inst_id_list, by instance
    list_index_t inst_sync_index ZEB_GUARDED_BY(g_lib_mutex);       // zeb_pending_sync_t: of inst_sync_list, likewise
    list_index_t sync_inst_retry_index ZEB_GUARDED_BY(g_lib_mutex); // of sync_inst_retry_list, likewise
    int sync_inst_ack_num; // of sync_inst_ack_list; written under g_lib_mutex, read relaxed without it
    zeb_app_mng_t app[ZEB_APP_SLOT_NUM];
} zeb_mng_t;

extern zeb_mng_t g_zeb_mng;

// True in a child that a process with a started library forked. It has one thread, locks that others may have held at
// the fork, and the parent's sockets: every exported call that needs any of these is refused.
extern bool g_zeb_in_child;

bool zeb_refuse_child(const char *call); // with the line that says so

static inline bool zeb_in_child(const char *call)
{
    return __builtin_expect(static_cast<long>(g_zeb_in_child), 0) != 0 && zeb_refuse_child(call);
}

// Claims a slot for `app`, starting the library first if need be. The results of zeb_register.
int zeb_add_app_mng(uint32_t app, const char *app_name, bool thread, int dispatcher_num,
                    const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event);
void zeb_del_app_mng(uint32_t app);
zeb_app_mng_t *zeb_get_app_mng(uint32_t app); // null when not registered here

// Calls visit(slot) for each used slot in order.
template <typename Visit>
static inline void zeb_each_app_mng(Visit visit)
{
    for (zeb_app_mng_t *slot = g_zeb_mng.app; zeb_load_acquire(&slot->app_id) != 0; slot++)
        visit(slot);
}

void zeb_notify_running();
void zeb_wait_for_running();

int zeb_create_subscription_socket();
int zeb_create_app_socket(uint32_t app, int priority);
int zeb_bind_app_socket(uint32_t app, int sd);
int zeb_set_fd_close_on_exec(int fd);

#endif
