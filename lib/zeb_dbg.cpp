#include "zeb_dbg.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "zeb_log_handler.h"
#include "zeb_wire.h"

uint32_t g_zeb_dbg_level;
uint32_t g_zeb_log_level;
zeb_msg_t *g_print_msg;

static std::atomic<zeb_log_sink_t> s_sink; // takes the recorded lines; null while there is no file

// A message of fixed size: the header, then text and its NUL.
static union {
    zeb_msg_t msg;
    char bytes[ZEB_PRINT_BUF_LEN];
} s_print_buf;

static const char PRINT_OVERFLOW[] = "*** PRINT BUFFER STRING OVERFLOW ***\n";

static constexpr uint32_t PRINT_LEN_MAX = ZEB_PRINT_BUF_LEN - offsetof(zeb_msg_t, hdr); // bytes of header, text and NUL

void zeb_dbg_print_line(const char *text)
{
    char out[ZEB_DBG_LINE_LEN];
    size_t len = 0;
    for (const char *p = text; *p != '\0' && len < sizeof(out); p++) {
        out[len++] = *p;
        if (p[0] == '%' && p[1] == '%')
            p++;
    }
    (void)fwrite(out, 1, len, stdout);
}

void zeb_set_log_sink(zeb_log_sink_t sink)
{
    s_sink.store(sink, std::memory_order_release);
}

void zeb_cut_line_end(char *text)
{
    size_t len = strlen(text);
    while (len != 0 && (text[len - 1] == '\n' || text[len - 1] == '\r'))
        text[--len] = '\0';
}

void zeb_vlog_line(zeb_dbg_level_t level, const char *file, int line, const char *format, va_list args)
{
    int saved_errno = errno;
    char text[ZEB_DBG_LINE_LEN] = "";
    int prefix = snprintf(text, sizeof(text), "<%s, %d> %d: ", file, line, (int)level);
    if (prefix >= 0 && prefix < ZEB_DBG_LINE_LEN)
        (void)vsnprintf(text + prefix, sizeof(text) - (size_t)prefix, format, args);
    if ((zeb_load_relaxed(&g_zeb_dbg_level) & (1u << level)) != 0)
        zeb_dbg_print_line(text);
    zeb_log_sink_t sink = s_sink.load(std::memory_order_acquire);
    if (sink != nullptr && (zeb_load_relaxed(&g_zeb_log_level) & (1u << level)) != 0)
        sink(text);
    if (prefix >= 0 && prefix < ZEB_DBG_LINE_LEN && zeb_log_on(level)) {
        zeb_cut_line_end(text + prefix);
        zeb_handle_log_line(level, file, line, text + prefix);
    }
    errno = saved_errno;
}

void zeb_log_line(zeb_dbg_level_t level, const char *file, int line, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zeb_vlog_line(level, file, line, format, args);
    va_end(args);
}

static bool dbg_on(zeb_dbg_level_t level)
{
    return (zeb_load_relaxed(&g_zeb_dbg_level) & (1u << level)) != 0;
}

bool zeb_dbg_verbose_on(void)
{
    return dbg_on(ZEB_DBG_LEVEL_VERBOSE);
}

bool zeb_dbg_info_on(void)
{
    return dbg_on(ZEB_DBG_LEVEL_INFO);
}

bool zeb_dbg_warn_on(void)
{
    return dbg_on(ZEB_DBG_LEVEL_WARN);
}

bool zeb_dbg_error_on(void)
{
    return dbg_on(ZEB_DBG_LEVEL_ERROR);
}

void zeb_dbg_update_level(bool set, int level)
{
    if (level < ZEB_DBG_LEVEL_VERBOSE || level > ZEB_DBG_LEVEL_ALL)
        return;
    uint32_t bits = level == ZEB_DBG_LEVEL_ALL ? ZEB_DBG_MASK_ALL : 1u << level;
    uint32_t mask = zeb_load_relaxed(&g_zeb_dbg_level);
    if (set)
        mask |= bits;
    else
        mask = level == ZEB_DBG_LEVEL_ALL ? 0 : mask & ~bits;
    zeb_store_relaxed(&g_zeb_dbg_level, mask);

    char status[ZEB_DBG_STATUS_LEN];
    ZEB_VERBOSE("ZEB process %d current debug status: %s.\n", (int)getpid(), zeb_get_dbg_status_str(mask, status));
}

typedef struct bit_name_s {
    uint32_t bit;
    const char *name;
} bit_name_t;

// Writes a blank and the name of each bit of `bits` that is in the table. Returns the text after the first blank.
template <size_t N>
static const char *name_bits(const bit_name_t (&names)[N], uint32_t bits, char *buf, size_t buf_len)
{
    size_t len = 0;
    buf[0] = '\0';
    buf[1] = '\0';
    for (const bit_name_t &entry : names) {
        if ((bits & entry.bit) != 0 && len < buf_len)
            len += (size_t)snprintf(buf + len, buf_len - len, " %s", entry.name);
    }
    return buf + 1;
}

const char *zeb_get_dbg_status_str(uint32_t mask, char *buf)
{
    static const bit_name_t names[] = {{1, "verbose"}, {2, "info"}, {4, "warn"}, {8, "error"}};
    if (mask == 0)
        return "none";
    return name_bits(names, zeb_load_relaxed(&g_zeb_dbg_level), buf, ZEB_DBG_STATUS_LEN);
}

const char *zeb_get_msg_flags_str(uint8_t flags, char *buf)
{
    static const bit_name_t names[] = {{ZEB_MSG_FLAG_SYNC, "SYNC"},
                                       {ZEB_MSG_FLAG_REQUEST, "REQUEST"},
                                       {ZEB_MSG_FLAG_ACK, "ACK"},
                                       {ZEB_MSG_FLAG_MNG, "ZEB_MNG"}};
    if (flags == 0)
        return "none";
    return name_bits(names, flags, buf, ZEB_MSG_FLAGS_LEN);
}

template <size_t N>
static const char *text_of(const char *const (&texts)[N], int code)
{
    return code >= 0 && code < (int)N ? texts[code] : "";
}

const char *zeb_tipc_err_string(uint32_t code)
{
    static const char *const texts[] = {"TIPC no name", "TIPC no port", "TIPC no node", "TIPC overload"};
    return code >= 1 && code <= 4 ? texts[code - 1] : "TIPC unknown";
}

const char *zeb_reply_stat_string(int stat)
{
    static const char *const texts[ZEB_REPLY_STAT_NUM] = {"RPC success",
                                                          "ZEB version mismatch",
                                                          "application service unavailable",
                                                          "application service version mismatch",
                                                          "systerm error",
                                                          "RPC timeout"};
    return text_of(texts, stat);
}

const char *zeb_msg_type_string(int type)
{
    static const char *const texts[ZEB_MSG_TYPE_NUM] = {
        "processed message num ack", "sync instance",          "sync instance ack", "debug switch command",
        "application information",   "application statistics", "application ping",  "application ping echo",
        "reload application",        "sync instance seq ack"};
    return text_of(texts, type);
}

const char *zeb_event_type_string(int type)
{
    static const char *const texts[ZEB_EVENT_TYPE_NUM] = {"application join", "application quit"};
    return text_of(texts, type);
}

void zeb_dump_msg_hdr_info(const zeb_msg_t *msg)
{
    if (!zeb_dbg_verbose_on())
        return;
    char flags[ZEB_MSG_FLAGS_LEN];
    const zeb_msg_hdr_t *hdr = &msg->hdr;
    printf("===== ZEB message header information =====\n");
    printf("ZEB version %d, flag: %s, qos %d\n", hdr->zeb_ver, zeb_get_msg_flags_str(hdr->flag, flags), hdr->qos);
    printf("message length %d, app version %d\n", (int)hdr->len, (int)hdr->app_ver);
    printf("src app/node %d/%d, dst app/node %d/%d\n", (int)hdr->src_app, (int)hdr->src_node, (int)hdr->dst_app,
           (int)hdr->dst_node);
    printf("seq %d, RPC status %s\n", (int)hdr->seq, zeb_reply_stat_string(hdr->rpc_stat));
    printf("==========================================\n");
}

void zeb_dump_msg_raw(const void *data, int len)
{
    if (!zeb_dbg_error_on())
        return;
    const signed char *bytes = (const signed char *)data;
    printf("=== ZEB message raw data len %d ===\n", len);
    int shown = len < ZEB_DUMP_LEN ? len : ZEB_DUMP_LEN;
    for (int i = 0; i < shown; i++) {
        // Signed on purpose: 0x9c prints as ffffff9c.
        printf(" %02x", (unsigned)bytes[i]);
        if (i % 16 == 15)
            printf("\n");
    }
    printf("\n");
    if (shown < len)
        printf("=== cut after %d bytes ===\n", shown);
}

void zeb_buf_printf_reset(void)
{
    g_print_msg = &s_print_buf.msg;
    memset(&s_print_buf, 0, offsetof(zeb_msg_t, data) + sizeof(PRINT_OVERFLOW));
    g_print_msg->hdr.len = ZEB_MSG_HDR_LEN + 1;
}

void zeb_buf_printf(const char *format, ...)
{
    char line[ZEB_DBG_LINE_LEN];
    va_list args;
    va_start(args, format);
    int formatted = vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (formatted < 0 || g_print_msg == nullptr)
        return;

    char *text = s_print_buf.bytes + offsetof(zeb_msg_t, data);
    uint32_t len = (uint32_t)strlen(line);
    uint32_t room = PRINT_LEN_MAX - g_print_msg->hdr.len;
    if (len > room) {
        memcpy(text, PRINT_OVERFLOW, sizeof(PRINT_OVERFLOW));
        len = room;
    }
    char *end = text + zeb_msg_data_len(g_print_msg) - 1;
    memcpy(end, line, len);
    end[len] = '\0';
    g_print_msg->hdr.len += len;
}
