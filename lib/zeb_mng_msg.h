// What goes out and what the library itself sends: the sequence number and the one send primitive (zeb_mng_msg.cpp),
// the synchronisation messages (zeb_mng_msg_sync.cpp) and the management messages (zeb_mng_msg_mng.cpp). The send
// primitive is entered by any thread and takes no lock; receivers run on the receive thread. g_seq_mutex guards the
// sequence number alone and nothing is taken under it.
#ifndef ZEB_MNG_MSG_H
#define ZEB_MNG_MSG_H

#include <cstdint>

#include <zeb/zeb.h>

constexpr uint32_t ZEB_TIPC_NAME_TYPE = 2303;

// Type of a TLV element.
typedef enum zeb_msg_type_e : int {
    ZEB_MSG_PROC_NUM_ACK = 0,
    ZEB_MSG_SYNC_INST = 1,
    ZEB_MSG_SYNC_INST_ACK = 2,
    ZEB_MSG_DBG_CMD = 3,
    ZEB_MSG_APP_INFO = 4,
    ZEB_MSG_APP_STAT = 5,
    ZEB_MSG_PING = 6,
    ZEB_MSG_PING_ECHO = 7,
    ZEB_MSG_RELOAD = 8,
    ZEB_MSG_SYNC_INST_SEQ_ACK = 9,
    ZEB_MSG_TYPE_NUM = 10,
} zeb_msg_type_t;

// SYNC_INST and SYNC_INST_ACK, host order.
typedef struct zeb_msg_sync_inst_s {
    uint32_t seq;       // of the synchronisation
    uint32_t id;        // the sender's process id
    uint32_t is_server; // 1 when the sending application has dispatchers
    uint32_t resume;    // 1 for a resynchronisation after a resume time-out
    uint32_t ttl;       // how often a returned acknowledgement may still be sent again
} zeb_msg_sync_inst_t;

// SYNC_INST_SEQ_ACK, host order.
typedef struct zeb_msg_sync_inst_ack_s {
    zeb_msg_sync_inst_t sync;
    uint32_t pseq; // the acknowledger's own last synchronisation towards the peer, 0 while the peer is not confirmed
} zeb_msg_sync_inst_ack_t;

constexpr uint16_t ZEB_SYNC_INST_LEN = 20;     // wire length of zeb_msg_sync_inst_t
constexpr uint16_t ZEB_SYNC_INST_ACK_LEN = 24; // wire length of zeb_msg_sync_inst_ack_t
constexpr uint32_t ZEB_SYNC_TTL = 600;
constexpr uint32_t ZEB_SYNC_TTL_OFFSET = 16; // of `ttl` in the value, all three types

// TIPC instance number of an application on a node.
static inline uint32_t zeb_tipc_instance(uint32_t app, uint32_t node)
{
    return (app << 16) | (node & 0xFFFF);
}

void zeb_init_seq();
uint32_t zeb_get_seq(); // never 0

// Writes `msg` to the instance of `dst_app` on `dst_node` from the socket of `src_app`. Returns 0, -1 for a failed
// write, -EINVAL when `src_app` has no socket here. The message stays the caller's and is in host order again.
int zeb_tipc_sendto(uint32_t src_app, zeb_msg_t *msg, uint32_t dst_app, uint32_t dst_node, int flags);

// A message of the library's own with its header filled and room for `size` body bytes.
zeb_msg_t *zeb_new_lib_msg(uint32_t size, uint8_t flag, uint32_t src_app, uint32_t dst_app, uint32_t dst_node);

// Takes a received message with ZEB_MSG_FLAG_MNG.
void zeb_mng_msg_process(zeb_msg_t *msg);

// Management messages of flow control; node before application. The result of zeb_tipc_sendto.
int zeb_send_fc_ack(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, uint32_t ack_num);
int zeb_send_fc_ping(uint32_t src_app, uint32_t dst_node, uint32_t dst_app);
int zeb_send_fc_ping_echo(uint32_t src_app, uint32_t dst_node, uint32_t dst_app);
int zeb_send_fc_reload(uint32_t src_app, uint32_t dst_node, uint32_t dst_app);

// Sends a SYNC_INST and keeps it as pending. Returns 0 or the send error, after which nothing is pending.
int zeb_sync_app_inst(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, int is_server, int resume);

// Acknowledges the peer's synchronisation `seq`, in both versions' forms.
int zeb_sync_app_inst_ack_include_seq(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, uint32_t seq,
                                      int is_server);

// The acknowledgement of the older version alone.
int zeb_sync_app_inst_ack(uint32_t src_app, uint32_t dst_node, uint32_t dst_app, uint32_t seq, int is_server);

// Takes a received message with ZEB_MSG_FLAG_SYNC; frees it.
void zeb_sync_msg_process(zeb_msg_t *msg);

// `seq` of the SYNC_INST that the library itself built into `msg`.
uint32_t zeb_sync_inst_msg_seq(const zeb_msg_t *msg);

void zeb_recv_inst_sync(uint32_t my_app, uint32_t inst_node, uint32_t inst_app, const zeb_msg_sync_inst_t *body);
void zeb_recv_inst_sync_ack(uint32_t my_app, uint32_t inst_node, uint32_t inst_app, const zeb_msg_sync_inst_t *body);
void zeb_recv_inst_sync_ack_include_seq(uint32_t my_app, uint32_t inst_node, uint32_t inst_app,
                                        const zeb_msg_sync_inst_ack_t *body);

#endif
