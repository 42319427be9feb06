// What travels between a management tool and an instance, as docs/wire-format.md has it. The messages themselves are
// those of <zeb/zeb_msg.h> and <zeb/zeb_tlv.h>.
#ifndef OPS_WIRE_H
#define OPS_WIRE_H

#include <cstdint>

#include <zeb/zeb_msg.h>

constexpr uint32_t OPS_NAME_TYPE = 2303; // of the TIPC name of every instance
constexpr int32_t OPS_WINDOW = 1024;     // a sender with more unacknowledged messages than this waits

// Elements of management messages that tools send and read.
constexpr uint16_t OPS_DBG_CMD = 3;
constexpr uint16_t OPS_APP_INFO = 4;
constexpr uint16_t OPS_APP_STAT = 5;

// A request of a tool, and the reply to it.
constexpr uint8_t OPS_REQUEST_FLAGS = ZEB_MSG_FLAG_MNG | ZEB_MSG_FLAG_REQUEST;
constexpr uint8_t OPS_REPLY_FLAGS = OPS_REQUEST_FLAGS | ZEB_MSG_FLAG_ACK;

// These two travel in the byte order of their sender.
typedef struct ops_dbg_cmd_s {
    int32_t level;  // zeb_dbg_level_t
    int32_t dbg_on; // non-zero switches the level on
} ops_dbg_cmd_t;

typedef struct ops_app_info_s {
    uint32_t app;
    int32_t pid;
    uint32_t dbg_mask; // bit 1 << level for each level that is printed
} ops_app_info_t;

static_assert(sizeof(ops_dbg_cmd_t) == 8 && sizeof(ops_app_info_t) == 12, "bodies as they travel");

typedef struct ops_inst_s {
    uint32_t app;
    uint32_t node;
} ops_inst_t;

inline uint32_t ops_name_of(ops_inst_t inst)
{
    return inst.app << 16 | (inst.node & 0xFFFF);
}

inline ops_inst_t ops_inst_of(uint32_t name)
{
    return {name >> 16, name & 0xFFFF};
}

#endif
