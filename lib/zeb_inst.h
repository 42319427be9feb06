// One remote instance: an application on a node. Passed by value. Where a function takes a local application too, that
// comes first.
#ifndef ZEB_INST_H
#define ZEB_INST_H

#include <cstdint>

#include <zeb/zeb_msg.h>

typedef struct zeb_inst_s {
    uint32_t app;
    uint32_t node;
} zeb_inst_t;

static inline bool zeb_same_inst(zeb_inst_t a, zeb_inst_t b)
{
    return a.app == b.app && a.node == b.node;
}

static inline bool zeb_valid_inst(zeb_inst_t inst)
{
    return zeb_valid_app_id(inst.app) && zeb_valid_node_id(inst.node);
}

static inline uint64_t zeb_inst_key(zeb_inst_t inst)
{
    return (uint64_t)inst.app << 32 | inst.node;
}

// The instance number of its TIPC name.
static inline uint32_t zeb_tipc_instance(zeb_inst_t inst)
{
    return inst.app << 16 | (inst.node & 0xFFFF);
}

// The sender of a message in host order.
static inline zeb_inst_t zeb_msg_sender(const zeb_msg_t *msg)
{
    return {msg->hdr.src_app, msg->hdr.src_node};
}

// The receiver of a message in host order.
static inline zeb_inst_t zeb_msg_receiver(const zeb_msg_t *msg)
{
    return {msg->hdr.dst_app, msg->hdr.dst_node};
}

#endif
