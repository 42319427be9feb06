/* The message buffer, its wire header and the ranges of ids.
 *
 * A message is one heap block: a list link, a 36-byte header and the payload. zeb_msg_alloc makes it, free() releases
 * it; whoever holds the pointer owns it. Inside the process the header is in host byte order; the library converts it
 * when it sends and receives. The functions here are inline, so every module has its own copy. They take no lock and
 * work on the caller's message alone, so two threads must not use one message at once. */
#ifndef ZEB_MSG_H
#define ZEB_MSG_H

#include <arpa/inet.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <platform/list_head.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZEB_MSG_VERSION 2       /* library protocol version written into every new message */
#define ZEB_MSG_HDR_LEN 36      /* bytes of zeb_msg_hdr_t */
#define ZEB_MSG_MAX_DATA 0xF000 /* largest payload: 61440 bytes */

/* Bits of zeb_msg_hdr_t.flag. An RPC reply has REQUEST and ACK. */
#define ZEB_MSG_FLAG_SYNC 0x01    /* instance synchronisation */
#define ZEB_MSG_FLAG_REQUEST 0x02 /* RPC request */
#define ZEB_MSG_FLAG_ACK 0x04     /* with REQUEST: RPC reply */
#define ZEB_MSG_FLAG_MNG 0x08     /* management message */

#define ZEBD_APP_ID 1              /* the management daemon */
#define ZEB_NODE_LOCAL 0xFFFFFFFEu /* destination node: this node */
#define ZEB_NODE_ALL 0xFFFFFFFFu   /* destination node: every node */
#define ZEB_NODE_NUM 65536u        /* node ids are 0..65535 */

/* Status of an RPC reply, in zeb_msg_hdr_t.rpc_stat. */
typedef enum zeb_reply_stat_e {
    ZEB_SUCCESS = 0,      /* a reply of the application */
    ZEB_MISMATCH = 1,     /* library version mismatch */
    ZEB_APP_UNAVAIL = 2,  /* the application does not know the caller's instance */
    ZEB_APP_MISMATCH = 3, /* no dispatcher for the request's version; body zeb_mismatch_info_t in the sender's order */
    ZEB_SYSTEM_ERR = 4,   /* the request was not written, the server replied with null, or the instance quit */
    ZEB_TIMEOUT = 5,      /* no reply in time */
    ZEB_REPLY_STAT_NUM = 6
} zeb_reply_stat_t;

/* Wire header. Every field of 32 bits is big-endian on the wire. */
typedef struct zeb_msg_hdr_s {
    uint8_t zeb_ver;   /* library protocol version */
    uint8_t rsvd;      /* 0 */
    uint8_t flag;      /* ZEB_MSG_FLAG_... */
    uint8_t qos;       /* sent as the application wrote it */
    uint32_t len;      /* header and payload, bytes */
    uint32_t src_node; /* sender's node id */
    uint32_t dst_node; /* addressee's node id */
    uint32_t src_app;  /* sender's application id */
    uint32_t dst_app;  /* addressee's application id */
    uint32_t app_ver;  /* application message version; selects the receiver's dispatcher */
    uint32_t seq;      /* RPC sequence number; 0 in one-way messages */
    int32_t rpc_stat;  /* zeb_reply_stat_t; 0 in any message that is not a reply */
} zeb_msg_hdr_t;

#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif

typedef struct zeb_msg_s {
    struct list_head list; /* for the owner's queues; never sent */
    zeb_msg_hdr_t hdr;
    __extension__ uint8_t data[]; /* payload, hdr.len - ZEB_MSG_HDR_LEN bytes */
} zeb_msg_t;

#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic pop
#endif

/* Body of a version-mismatch reply. */
typedef struct zeb_mismatch_info_s {
    uint32_t low;  /* lowest version with a dispatcher */
    uint32_t high; /* highest */
} zeb_mismatch_info_t;

#ifdef __cplusplus
static_assert(sizeof(zeb_msg_hdr_t) == ZEB_MSG_HDR_LEN, "the wire header has 36 bytes");
static_assert(offsetof(zeb_msg_t, hdr) == sizeof(struct list_head), "the header follows the link");
static_assert(offsetof(zeb_msg_t, data) == sizeof(struct list_head) + ZEB_MSG_HDR_LEN,
              "the payload follows the header");
#endif

/* True for an application id that can be registered and addressed: 1..8191 and 16384..20479. */
static inline int zeb_valid_app_id(uint32_t app)
{
    return (app != 0 && app < 8192) || (app >= 16384 && app < 20480);
}

/* True for the id of an application-private multicast group: 12288..16383. */
static inline int zeb_valid_app_mc_id(uint32_t app)
{
    return app >= 12288 && app < 16384;
}

/* True for a node id: 0..65535. */
static inline int zeb_valid_node_id(uint32_t node)
{
    return node < ZEB_NODE_NUM;
}

/* True for the id of a node-private multicast group: 0x80000..0x8FFFF. */
static inline int zeb_valid_node_mc_id(uint32_t node)
{
    return node >= 0x80000 && node <= 0x8FFFF;
}

/* Declared here because strict C99 hides it in <unistd.h>. */
extern int usleep(unsigned int usec);

/* A block of `size` bytes, not zeroed, for a caller that writes all of it. In all else the same as zeb_malloc(). */
static inline void *zeb_malloc_dirty(int size)
{
    void *block = malloc((size_t)size);
    while (block == NULL) {
        (void)usleep(10);
        block = malloc((size_t)size);
    }
    return block;
}

/* A zero-filled block of `size` bytes, released with free(). Never fails: while memory is short, it tries again every
 * 10 microseconds. */
static inline void *zeb_malloc(int size)
{
    void *block = zeb_malloc_dirty(size);
    memset(block, 0, (size_t)size);
    return block;
}

/* A new message with `size` (0..ZEB_MSG_MAX_DATA) zeroed payload bytes and application version `app_ver`. The caller
 * owns it and releases it with free(). `flags` is reserved: pass 0. Returns null only when `size` is out of range,
 * never for lack of memory. */
static inline zeb_msg_t *zeb_msg_alloc(int size, uint32_t app_ver, int flags)
{
    zeb_msg_t *msg;
    int bytes;

    (void)flags;
    if (size < 0 || size > ZEB_MSG_MAX_DATA)
        return NULL;
    /* At least a whole zeb_msg_t, which ends in padding: compilers warn of a smaller block. */
    bytes = size + (int)offsetof(zeb_msg_t, data);
    msg = (zeb_msg_t *)zeb_malloc(bytes < (int)sizeof(zeb_msg_t) ? (int)sizeof(zeb_msg_t) : bytes);
    msg->hdr.zeb_ver = ZEB_MSG_VERSION;
    msg->hdr.len = (uint32_t)size + ZEB_MSG_HDR_LEN;
    msg->hdr.app_ver = app_ver;
    return msg;
}

/* Number of payload bytes of a message in host byte order. */
static inline uint32_t zeb_msg_data_len(const zeb_msg_t *msg)
{
    return msg->hdr.len - ZEB_MSG_HDR_LEN;
}

/* Fills in the addressing of a message. zeb_ver, rsvd, qos, len and app_ver are left unchanged. Used by the library. */
/* NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the signature is public */
static inline void zeb_encode_msg_hdr(zeb_msg_t *msg, uint8_t msg_flag, uint32_t src_app, uint32_t src_node,
                                      uint32_t dst_app, uint32_t dst_node, uint32_t seq, int rpc_stat)
{
    msg->hdr.flag = msg_flag;
    msg->hdr.src_app = src_app;
    msg->hdr.src_node = src_node;
    msg->hdr.dst_app = dst_app;
    msg->hdr.dst_node = dst_node;
    msg->hdr.seq = seq;
    msg->hdr.rpc_stat = rpc_stat;
}

/* The body of a ZEB_MISMATCH reply is big-endian on the wire; the bodies of all other replies are not converted. A
 * payload that is too short for it is left unchanged. */
static inline void zeb_swap_mismatch_info(zeb_msg_t *msg, uint32_t len)
{
    zeb_mismatch_info_t info;

    if (len < ZEB_MSG_HDR_LEN + sizeof(info))
        return;
    memcpy(&info, msg->data, sizeof(info));
    info.low = htonl(info.low);
    info.high = htonl(info.high);
    memcpy(msg->data, &info, sizeof(info));
}

/* Converts the header from host to network byte order, in place. Used by the library. */
static inline void zeb_convert_to_network(zeb_msg_t *msg)
{
    uint32_t len = msg->hdr.len;
    int32_t stat = msg->hdr.rpc_stat;

    msg->hdr.len = htonl(msg->hdr.len);
    msg->hdr.src_node = htonl(msg->hdr.src_node);
    msg->hdr.dst_node = htonl(msg->hdr.dst_node);
    msg->hdr.src_app = htonl(msg->hdr.src_app);
    msg->hdr.dst_app = htonl(msg->hdr.dst_app);
    msg->hdr.app_ver = htonl(msg->hdr.app_ver);
    msg->hdr.seq = htonl(msg->hdr.seq);
    msg->hdr.rpc_stat = (int32_t)htonl((uint32_t)msg->hdr.rpc_stat);
    if (stat == ZEB_MISMATCH)
        zeb_swap_mismatch_info(msg, len);
}

/* Converts the header from network to host byte order, in place. The buffer must hold hdr.len bytes from hdr on. Used
 * by the library. */
static inline void zeb_convert_to_host(zeb_msg_t *msg)
{
    msg->hdr.len = ntohl(msg->hdr.len);
    msg->hdr.src_node = ntohl(msg->hdr.src_node);
    msg->hdr.dst_node = ntohl(msg->hdr.dst_node);
    msg->hdr.src_app = ntohl(msg->hdr.src_app);
    msg->hdr.dst_app = ntohl(msg->hdr.dst_app);
    msg->hdr.app_ver = ntohl(msg->hdr.app_ver);
    msg->hdr.seq = ntohl(msg->hdr.seq);
    msg->hdr.rpc_stat = (int32_t)ntohl((uint32_t)msg->hdr.rpc_stat);
    if (msg->hdr.rpc_stat == ZEB_MISMATCH)
        zeb_swap_mismatch_info(msg, msg->hdr.len);
}

#ifdef __cplusplus
}
#endif

#endif
