// The core of the instance handshake: what is known of each pair (local application, remote instance), which instances
// are online, and what each event leads to. An event is a call, one at a time; the core acts only through a table of
// effects. It has no socket, thread, clock, lock or global variable, so several cores can live in one process. The
// caller serialises the calls on one record; in the library that caller is zeb_handshake_shell.h.
//
// Each bit of an instance has one setter and one clearer, and only they touch it. zeb_handshake_table.h says what each
// event does to a pair.
#ifndef ZEB_HANDSHAKE_H
#define ZEB_HANDSHAKE_H

#include <atomic>
#include <cstdint>

#include <zeb/zeb_diag.h>

#include "platform/list_index.h"
#include "zeb_app_set.h"
#include "zeb_inst.h"
#include "zeb_mng_msg_sync.h"
#include "zeb_timer.h"

// What is known of one pair.
typedef struct zeb_inst_id_s {
    struct list_head list;
    list_index_link_t index_link;
    uint32_t src_app;
    zeb_inst_t dst;
    uint32_t sync_id;     // process id in the peer's last SYNC_INST
    uint32_t sync_ack_id; // process id in the peer's last accepted acknowledgement
    uint32_t send_seq;    // sequence number of the last SYNC_INST that we sent
    uint32_t recv_seq;    // sequence number of the peer's last SYNC_INST
    uint32_t holder;      // process id in the peer's last SYNC_INST; 0: none, or withdrawn since
    uint32_t sync_server; // 1 when the peer's last SYNC_INST says that it is a server
    bool one_sided;       // zeb_hs_find_one_sided has told of it
} zeb_inst_id_t;

// A SYNC_INST of ours that is not yet acknowledged.
typedef struct zeb_pending_sync_s {
    struct list_head list;
    list_index_link_t index_link;
    uint32_t src_app;
    zeb_inst_t dst;
    zeb_msg_sync_inst_t body; // as it is sent again: without the resume mark
    int minutes;              // calls of zeb_hs_minute since it was sent
    int looks;                // calls of zeb_hs_find_one_sided since it was sent
} zeb_pending_sync_t;

// A peer to which pending synchronisations are sent again.
typedef struct zeb_retry_inst_s {
    struct list_head list;
    list_index_link_t index_link;
    uint32_t src_app;
    zeb_inst_t dst;
    int unknown_rounds; // retry time-outs without a synchronisation from the peer, although it has acknowledged ours
} zeb_retry_inst_t;

// What a resume waits to do, and why.
typedef enum zeb_resume_kind_e : int {
    ZEB_RESUME_PEER,          // the peer has synchronised but has not come online
    ZEB_RESUME_UNSENT,        // a synchronisation of one local application could not be sent
    ZEB_RESUME_OTHER_PROCESS, // two processes had the instance's name at the same time: the one that stays is asked
} zeb_resume_kind_t;

// A resume that waits for its timer, and its peer.
typedef struct zeb_resume_comm_s {
    struct list_head list;
    uint32_t seq;     // number of the resume timer
    uint32_t src_app; // always 0
    zeb_inst_t dst;
    zeb_resume_kind_t kind;
    uint32_t unsent_app; // for ZEB_RESUME_UNSENT: the local application
    bool again;          // for ZEB_RESUME_OTHER_PROCESS: the process has changed again since the timer was started
} zeb_resume_comm_t;

// An acknowledgement of ours that was returned and waits to be sent again.
typedef struct zeb_returned_ack_s {
    struct list_head list;
    uint32_t timer_seq; // number of the timer; it becomes the sequence number in the message's header
    uint32_t src_app;
    zeb_inst_t dst;
    uint8_t ver;       // version byte of the message's header
    int type;          // type of the message's first element
    uint32_t sync_seq; // sequence number of the synchronisation that it acknowledges
    zeb_msg_t *msg;    // freed with the record; the core does not look into it
} zeb_returned_ack_t;

// One local application that talks to a remote one.
typedef struct zeb_subscr_app_s {
    struct list_head list; // in subscr_app_list
    uint32_t subscr_app;
    bool late; // the caller's: servers were online when it named the application, and it has not been told of them
} zeb_subscr_app_t;

// The state of one remote application, shared by all local applications that talk to it. Each set holds the nodes of
// the instances of which its comment is true.
typedef struct zeb_ol_app_s {
    struct list_head list;
    list_index_link_t index_link; // by app_id
    uint32_t app_id;
    zeb_app_set_t srv_bmp;            // has said that it is a server
    zeb_app_set_t inst_bmp;           // has synchronised with us
    zeb_app_set_t inst_ack_bmp;       // has acknowledged our synchronisation
    zeb_app_set_t ol_bmp;             // is online: has done both, and the process ids agree
    zeb_app_set_t unreported_bmp;     // known when the topology connection was lost, not yet reported by the new one
    struct list_head subscr_app_list; // zeb_subscr_app_t
} zeb_ol_app_t;

// A counter of synchronisation messages.
typedef enum zeb_hs_count_e : int {
    ZEB_HS_SENT,
    ZEB_HS_SEND_FAILED,
    ZEB_HS_RECEIVED,
} zeb_hs_count_t;

// What the core asks its caller to do. Each effect is called at once, in the order in which things happen; `ctx` is
// that of the core's record. Effects marked "later" may be carried out in order after the event, because nothing that
// follows depends on them. No effect may bring an event to the core; it may ask who talks to whom.
typedef struct zeb_hs_effects_s {
    uint32_t (*get_seq)(void *ctx);                // a new sequence number, never 0
    uint32_t (*get_id)(void *ctx);                 // this process's id
    bool (*is_server)(void *ctx, uint32_t my_app); // whether the application has dispatchers

    // Starts a timer; when it expires, zeb_hs_timer is called. Returns 0, or -1 when it cannot be started.
    int (*start_timer)(void *ctx, unsigned seconds, zeb_timer_t timer);

    // Sends a SYNC_INST. Returns 0 or a negative errno: -EHOSTUNREACH when nobody has the name.
    int (*send_sync)(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);

    // Sends a pending SYNC_INST again, and counts it. Later.
    void (*resend_sync)(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body);

    // Sends an acknowledgement, and counts it. Later.
    void (*send_ack)(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body);

    // Sends a returned acknowledgement again. Returns 0, or the error.
    int (*resend_ack)(void *ctx, const zeb_returned_ack_t *ack);

    // Counts a synchronisation message; `type` is that of its element.
    void (*count)(void *ctx, zeb_hs_count_t what, uint32_t my_app, zeb_inst_t peer, int type);

    // The peer's instance is gone or begins anew. What was sent to it and received from it is forgotten; if it was
    // online, its queued messages and the statistics are dropped as well.
    void (*forget_peer)(void *ctx, uint32_t my_app, zeb_inst_t peer, bool was_online);
    void (*end_calls)(void *ctx, uint32_t my_app, zeb_inst_t peer);   // ends the calls that wait for the peer
    void (*notify_join)(void *ctx, uint32_t my_app, zeb_inst_t peer); // a server has come online. Later
    void (*notify_quit)(void *ctx, uint32_t my_app, zeb_inst_t peer); // a server is no longer online. Later

    void (*unsubscribe)(void *ctx, uint32_t app); // no local application talks to `app` any more

    // Log lines. `log_on` is asked before anything is formatted.
    bool (*log_on)(void *ctx, zeb_dbg_level_t level);
    void (*log)(void *ctx, zeb_dbg_level_t level, const char *file, int line, const char *format, ...)
        __attribute__((format(printf, 5, 6)));
} zeb_hs_effects_t;

typedef struct zeb_handshake_s {
    const zeb_hs_effects_t *effects;
    void *ctx;                                  // handed to each effect
    bool timer_inst_retry_open;                 // a retry timer is running; there is at most one
    std::atomic<uint32_t> ol_app_changes;       // counts the changes of ol_app; may be read without the caller's lock
    indexed_list<zeb_ol_app_t> ol_app;          // by application
    indexed_list<zeb_inst_id_t> inst_id;        // by instance, as are the two below
    indexed_list<zeb_pending_sync_t> inst_sync; // our unacknowledged SYNC_INSTs, in the order in which they were sent
    indexed_list<zeb_retry_inst_t> inst_retry;
    struct list_head resume_comm_list;   // zeb_resume_comm_t
    struct list_head sync_inst_ack_list; // zeb_returned_ack_t
    std::atomic<int> sync_inst_ack_num;  // length of sync_inst_ack_list; may be read without the caller's lock
} zeb_handshake_t;

constexpr unsigned ZEB_RESUME_TIMEOUT = 60;    // seconds
constexpr unsigned ZEB_RESEND_ACK_TIMEOUT = 1; // seconds
constexpr unsigned ZEB_INST_RETRY_TIMEOUT = 2; // seconds
constexpr int ZEB_UNKNOWN_ROUND_NUM = 3;       // retry time-outs
constexpr int ZEB_UNANSWERED_MINUTES = 2;      // calls of zeb_hs_minute; the first may come right after the send
constexpr int ZEB_ONE_SIDED_LOOKS = 2;         // calls of zeb_hs_find_one_sided; likewise

// Limits on what a peer can make grow.
constexpr int ZEB_PAIR_NUM_MAX = 65536;   // pair records in a process
constexpr int ZEB_RESUME_NUM_MAX = 16384; // resumes that wait for their timer
constexpr int ZEB_RESUME_PER_INSTANCE_MAX = 16;
constexpr int ZEB_ACK_RESEND_NUM_MAX = 16384; // returned acknowledgements that wait to be sent again

void zeb_hs_init(zeb_handshake_t *hs, const zeb_hs_effects_t *effects, void *ctx);
void zeb_hs_clear(zeb_handshake_t *hs); // frees all records

// Who talks to whom.
void zeb_hs_add_comm_app(zeb_handshake_t *hs, uint32_t src_app, uint32_t dst_app);
void zeb_hs_del_comm_app(zeb_handshake_t *hs, uint32_t src_app); // removes `src_app` as a subscriber everywhere
zeb_ol_app_t *zeb_hs_get_ol_app(const zeb_handshake_t *hs, uint32_t app);

// Who is online. zeb_hs_get_app_server gives the nodes that have a server of `app`. zeb_hs_get_app_server_on gives
// those of `num` nodes that have one, and returns whether any node has one.
void zeb_hs_get_app_server(const zeb_handshake_t *hs, uint32_t app, zeb_app_set_t *ol_srv);
bool zeb_hs_get_app_server_on(const zeb_handshake_t *hs, uint32_t app, const uint32_t *nodes, int num,
                              zeb_app_set_t *ol_srv);

typedef struct zeb_inst_state_s {
    bool instance; // has synchronised with us
    bool online;
} zeb_inst_state_t;

// `ol` is null when nobody talks to the application.
static inline zeb_inst_state_t zeb_ol_app_inst_state(const zeb_ol_app_t *ol, uint32_t node)
{
    if (ol == nullptr)
        return {false, false};
    bool online = zeb_app_set_test(&ol->ol_bmp, node); // an online instance has synchronised
    return {online || zeb_app_set_test(&ol->inst_bmp, node), online};
}

zeb_inst_state_t zeb_hs_get_inst_state(const zeb_handshake_t *hs, zeb_inst_t inst);

// Events of the topology service.
void zeb_hs_published(zeb_handshake_t *hs, zeb_inst_t inst);
void zeb_hs_withdrawn(zeb_handshake_t *hs, zeb_inst_t inst);

// The topology connection was lost and has been reopened. Timers that were running never expire, and each instance that
// still exists is reported once more. zeb_hs_topology_reported follows once all are reported: the others were
// withdrawn meanwhile.
void zeb_hs_topology_reopened(zeb_handshake_t *hs);
void zeb_hs_topology_reported(zeb_handshake_t *hs);

// False when the pair is unknown and the limit of pairs is reached. The caller then drops the peer's synchronisations.
bool zeb_hs_has_room_for_pair(const zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer);

// Synchronisation messages. `ver` is the version byte of the header.
void zeb_hs_recv_sync(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, uint8_t ver,
                      const zeb_msg_sync_inst_t *body);
void zeb_hs_recv_ack(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_t *body);
void zeb_hs_recv_seq_ack(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_ack_t *body);

// An ordinary message of a peer that is not online, before it is handed on. It counts as the acknowledgement.
void zeb_hs_recv_traffic(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer);

// An acknowledgement was returned. Takes `ack`, whose timer_seq is not set yet.
void zeb_hs_ack_returned(zeb_handshake_t *hs, zeb_returned_ack_t *ack);

// Drops the returned acknowledgements of version 2: traffic to or from the peer makes them unnecessary.
void zeb_hs_del_reject_acks(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst);

// Timers. While a retry timer is running, starting another one does nothing and returns 0.
int zeb_hs_start_timer(zeb_handshake_t *hs, unsigned seconds, zeb_timer_t timer);
void zeb_hs_timer(zeb_handshake_t *hs, zeb_timer_t timer); // of type resume, inst or retry

// Another sixty seconds have passed. A SYNC_INST that has been pending for all of them is sent again, once.
void zeb_hs_minute(zeb_handshake_t *hs);

// Some seconds have passed. Calls tell(ctx of the record, …), once for each pair, when the peer has answered our
// SYNC_INST but has sent none to the application for all of them: it has not named the application.
void zeb_hs_find_one_sided(zeb_handshake_t *hs, void (*tell)(void *ctx, uint32_t my_app, zeb_inst_t peer));

#endif
