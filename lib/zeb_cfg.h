// The configuration file /etc/zeb.conf and the node id.
// Any thread may enter; there is no lock. Each lookup opens the file, reads it from the top and closes it. Only the
// node id is cached.
#ifndef ZEB_CFG_H
#define ZEB_CFG_H

#include <cstddef>
#include <cstdint>

#include <zeb/zeb.h>

#define ZEB_CFG_FILE "/etc/zeb.conf"
#define ZEB_NODE_ADDR_FILE "/tmp/addr/.zeb_node_addr"

constexpr int ZEB_CFG_TEXT_LEN = 32;
constexpr int ZEB_CFG_MC_MBR_NUM = 16;
constexpr int ZEB_CFG_VALUE_LEN = 16; // bytes for the value of a [MISC_CONF] key

typedef struct zeb_app_cfg_s {
    uint32_t id;
    char name[ZEB_CFG_TEXT_LEN];
    int32_t priority; // socket importance
    char developer[ZEB_CFG_TEXT_LEN];
    char comment[ZEB_CFG_TEXT_LEN];
} zeb_app_cfg_t;

typedef struct zeb_app_mc_cfg_s {
    uint32_t id;
    int32_t mbr_num;
    char name[ZEB_CFG_TEXT_LEN];
    uint32_t member[ZEB_CFG_MC_MBR_NUM];
    char comment[ZEB_CFG_TEXT_LEN];
} zeb_app_mc_cfg_t;

// Return 0 when the entry was found and `out` is filled, else -1.
int zeb_get_app_cfg(uint32_t app, zeb_app_cfg_t *out);
int zeb_get_app_mc_cfg(uint32_t app_mc, zeb_app_mc_cfg_t *out);
int zeb_get_misc_cfg(const char *key, char *out, size_t len);

// Returns the node id that the node-address file holds now, or -1.
int zeb_read_my_node_id();

// zeb_cfg_init for a caller whose last error it must not empty.
int zeb_load_cfg();

// Return the numeric value of their key, 0 when it is absent.
uint32_t zeb_get_dbg_cfg();
uint32_t zeb_get_log_cfg();
uint32_t zeb_get_log_size();

#endif
