/* Diagnosis of a running process: listings, the print buffer and the debug switch. For management tools; these calls
 * have a version node of their own (ZEB_PRIVATE) and may change with the library.
 *
 * The listings append to one print buffer per process, which has no lock. Inside the library only the receive thread
 * uses it, so a program calls them from a callback of an application registered without a thread, or before zeb_run. */
#ifndef ZEB_DIAG_H
#define ZEB_DIAG_H

#include <platform/list_index.h>
#include <zeb/zeb.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Levels of log lines. The mask of a level is 1 << level; the mask of ZEB_DBG_LEVEL_ALL is 15. */
typedef enum zeb_dbg_level_e {
    ZEB_DBG_LEVEL_VERBOSE = 0,
    ZEB_DBG_LEVEL_INFO = 1,
    ZEB_DBG_LEVEL_WARN = 2,
    ZEB_DBG_LEVEL_ERROR = 3,
    ZEB_DBG_LEVEL_ALL = 4
} zeb_dbg_level_t;

#define ZEB_DBG_STATUS_LEN 32 /* bytes for the text of zeb_get_dbg_status_str */
#define ZEB_MSG_FLAGS_LEN 32  /* bytes for the text of zeb_get_msg_flags_str */

/* True when lines of the level go to standard output. */
bool zeb_dbg_verbose_on(void);
bool zeb_dbg_info_on(void);
bool zeb_dbg_warn_on(void);
bool zeb_dbg_error_on(void);

/* Switches the printing of `level` on (`set` true) or off. A level outside 0..4 is ignored. */
void zeb_dbg_update_level(bool set, int level);

/* Names of the levels that are printed, in `buf` of ZEB_DBG_STATUS_LEN bytes; "none" when `mask` is 0. The result
 * points into `buf` or at constant text. */
const char *zeb_get_dbg_status_str(uint32_t mask, char *buf);

/* Names of the header flag bits `flags`, in `buf` of ZEB_MSG_FLAGS_LEN bytes; "none" when no bit is set. */
const char *zeb_get_msg_flags_str(uint8_t flags, char *buf);

/* Texts of codes, constant. A code outside its table gives "", an unknown TIPC error "TIPC unknown". */
const char *zeb_tipc_err_string(uint32_t code);
const char *zeb_reply_stat_string(int stat);
const char *zeb_msg_type_string(int type);
const char *zeb_event_type_string(int type);

/* Empties the print buffer. */
void zeb_buf_printf_reset(void);

/* Appends at most 255 characters to the print buffer, which holds about 16 KiB. A text that does not fit is cut, and
 * the buffer's first line then says so. Call zeb_buf_printf_reset first. */
void zeb_buf_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Sends the print buffer as the reply to `request`. Returns the result of zeb_rpc_reply. */
int zeb_buf_printf_reply(const zeb_msg_t *request);

/* The print buffer as a message whose payload is the text and one NUL; null before the first zeb_buf_printf_reset. */
extern zeb_msg_t *g_print_msg;

/* Print to standard output. The first prints the header of a message in host order, when VERBOSE lines are printed; the
 * second prints `len` bytes at `data` in hex, 256 at most, when ERROR lines are printed. A byte of 0x80 or more has
 * eight digits. */
void zeb_dump_msg_hdr_info(const zeb_msg_t *msg);
void zeb_dump_msg_raw(const void *data, int len);

/* Append to the print buffer, each under the lock of what it lists. For an application that is not registered here
 * these two print all the same: the first the state of the library, which does not depend on `app` and only names it,
 * the second the line of the peers of `src_app` without a peer. */
void zeb_cli_print_lib_info(uint32_t app);
void zeb_cli_print_app_comm(uint32_t src_app);

/* Likewise, but they print nothing for an application that is not registered here. */
void zeb_cli_print_app_info(uint32_t app);
void zeb_cli_print_fc_stat(uint32_t app);  /* flow control counters */
void zeb_cli_print_mng_stat(uint32_t app); /* synchronisation messages */
void zeb_cli_print_rpc_stat(uint32_t app); /* calls in progress */

#define ZEB_APP_MC_MBR_NUM 16  /* member slots of an application group */
#define ZEB_NODE_MC_MBR_NUM 64 /* member slots of a node group */

/* A private group, handed out as a copy; its links belong to the library. */
typedef struct zeb_app_mc_s {
    struct list_head list;
    list_index_link_t index_link;
    int32_t mc_id;
    uint32_t mbr[ZEB_APP_MC_MBR_NUM]; /* 0 is an empty member slot */
} zeb_app_mc_t;

typedef struct zeb_node_mc_s {
    struct list_head list;
    list_index_link_t index_link;
    int32_t mc_id;
    uint32_t mbr[ZEB_NODE_MC_MBR_NUM]; /* above 65535 is an empty member slot; node 0 is a member like any other */
} zeb_node_mc_t;

/* The groups of one application. `mutex` points to the mutex of the application's record, which guards all fields below
 * it. */
typedef struct zeb_mc_s {
    uint32_t app_id;
    struct zeb_mutex_s *mutex;
    int32_t app_mc_num;
    int32_t node_mc_num;
    int32_t cur_app_mc_id;                    /* next candidate id */
    int32_t cur_node_mc_id;                   /* next candidate id */
    LIST_INDEXED(zeb_app_mc_t) app_mc_list;   /* by id, in creation order */
    LIST_INDEXED(zeb_node_mc_t) node_mc_list; /* by id, in creation order */
} zeb_mc_t;

/* Empties a set of groups without freeing any; owner and mutex stay. No other thread may use the set at that time. */
void zeb_mc_init(zeb_mc_t *mc);

/* Copy a group of `src_app` to `out`, under the lock of the application's record. When the application is not
 * registered here or has no such group, and in a forked child, all member slots of `out` are empty and an ERROR line is
 * logged. */
void zeb_get_app_mc_mbr(uint32_t src_app, uint32_t mc_app, zeb_app_mc_t *out);
void zeb_get_node_mc_mbr(uint32_t src_app, uint32_t mc_node, zeb_node_mc_t *out);

/* Appends the groups to the print buffer; the caller holds the set's mutex. */
void zeb_cli_print_mc_info(zeb_mc_t *mc);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
