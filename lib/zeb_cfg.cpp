#include "zeb_cfg.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_dm.h"
#include "zeb_lock.h"

static constexpr int CFG_LINE_LEN = 128;
static constexpr int NODE_ID_UNKNOWN = -1;

static const char APP_SECTION[] = "[APP_INFO_TBL]";
static const char APP_MC_SECTION[] = "[APP_MCAST_TBL]";
static const char MISC_SECTION[] = "[MISC_CONF]";

static const char NODE_ADVICE[] =
    " Type: mkdir -p /tmp/addr && echo 1 >" ZEB_NODE_ADDR_FILE ", with this node's number 0 to 65535 for 1";

static const char DBG_VARIABLE[] = "ZEB_DEBUG"; // of the environment; comes before the key
static const char DBG_KEY[] = "zeb_dbg_cfg";
static const char LOG_SIZE_KEY[] = "zeb_log_size";
static const char LOG_KEY[] = "zeb_log_cfg";
static const char BLOCKED_RESUME_KEY[] = "zeb_blocked_resume_enabled";

static pthread_once_t s_cfg_once = PTHREAD_ONCE_INIT;
// Accessed relaxed: two threads that read the file at once store the same id.
static std::atomic<int> s_my_node_id{NODE_ID_UNKNOWN};

typedef struct cfg_line_s {
    char raw[CFG_LINE_LEN]; // as read, with the line end
    char buf[CFG_LINE_LEN];
    char *text; // points into buf; trimmed
} cfg_line_t;

typedef struct cfg_file_s {
    FILE *fp;
    explicit cfg_file_s(const char *path) : fp(fopen(path, "re"))
    {
    }
    ~cfg_file_s()
    {
        if (fp != nullptr)
            (void)fclose(fp);
    }
    cfg_file_s(const cfg_file_s &) = delete;
    cfg_file_s &operator=(const cfg_file_s &) = delete;
} cfg_file_t;

// Trims white space at both ends. Text of white space alone stays as it is, so that it does not pass for an empty line.
static char *trim(char *text)
{
    char *start = text;
    while (isspace((unsigned char)*start))
        start++;
    if (*start == '\0')
        return text;
    char *end = start + strlen(start);
    while (isspace((unsigned char)end[-1]))
        end--;
    *end = '\0';
    return start;
}

static bool read_line(FILE *fp, cfg_line_t *line)
{
    if (fgets(line->raw, sizeof(line->raw), fp) == nullptr)
        return false;
    memcpy(line->buf, line->raw, sizeof(line->buf));
    line->text = trim(line->buf);
    return true;
}

static bool find_section(FILE *fp, const char *section)
{
    cfg_line_t line;
    while (read_line(fp, &line)) {
        if (line.text[0] != '#' && strcmp(line.text, section) == 0)
            return true;
    }
    ZEB_WARN("ZEB can't locate section %s.\n", section);
    return false;
}

// Reads the next line of the section that is neither empty nor a comment. False at the end of the section.
static bool next_item(FILE *fp, cfg_line_t *line)
{
    while (read_line(fp, line)) {
        if (line->text[0] == '[')
            return false;
        if (line->text[0] != '\0' && line->text[0] != '#')
            return true;
    }
    return false;
}

static void copy_text(char (&dst)[ZEB_CFG_TEXT_LEN], char *src)
{
    (void)snprintf(dst, sizeof(dst), "%s", trim(src));
}

// Looks up an entry in a table section. parse(line, &matched) says whether the line is a valid item and fills the
// caller's entry when it is the wanted one. log_missing() is called when the section has no such entry.
template <typename Parse, typename LogMissing>
static int find_table_entry(const char *section, Parse parse, LogMissing log_missing)
{
    cfg_file_t file(ZEB_CFG_FILE);
    if (file.fp == nullptr) {
        ZEB_ERROR("ZEB open config file %s failed: %s.\n", ZEB_CFG_FILE, strerror(errno));
        return -1;
    }
    if (!find_section(file.fp, section))
        return -1;
    cfg_line_t line;
    while (next_item(file.fp, &line)) {
        bool matched = false;
        if (!parse(line.text, &matched))
            ZEB_WARN("ZEB get invalid config item: %s.\n", line.raw);
        else if (matched)
            return 0;
    }
    log_missing();
    return -1;
}

static bool parse_app(const char *text, uint32_t app, zeb_app_cfg_t *out, bool *matched)
{
    int id = 0;
    int priority = 0;
    char name[CFG_LINE_LEN];
    char developer[CFG_LINE_LEN];
    char comment[CFG_LINE_LEN] = "";
    // NOLINTNEXTLINE(cert-err34-c): an id out of range only fails to match
    if (sscanf(text, "%d , %127[^,] , %d , %127[^,] , %127[^\r\n]", &id, name, &priority, developer, comment) < 4)
        return false;
    *matched = (uint32_t)id == app;
    if (!*matched)
        return true;
    memset(out, 0, sizeof(*out));
    out->id = (uint32_t)id;
    out->priority = priority;
    copy_text(out->name, name);
    copy_text(out->developer, developer);
    copy_text(out->comment, comment);
    ZEB_VERBOSE("ZEB get app config OK: id [%d] name [%s] priority [%d] developer [%s] comment [%s].\n", id, out->name,
                out->priority, out->developer, out->comment);
    return true;
}

int zeb_get_app_cfg(uint32_t app, zeb_app_cfg_t *out)
{
    return find_table_entry(
        APP_SECTION, [&](const char *text, bool *matched) { return parse_app(text, app, out, matched); },
        [app] { ZEB_ERROR("ZEB get app %d config failed.\n", app); });
}

// Reads the numbers of a member list, separated by any non-digits. Numbers past the last member are ignored.
static void parse_members(const char *text, zeb_app_mc_cfg_t *out)
{
    while (*text != '\0' && out->mbr_num < ZEB_CFG_MC_MBR_NUM) {
        if (!isdigit((unsigned char)*text)) {
            text++;
            continue;
        }
        char *end = nullptr;
        out->member[out->mbr_num++] = (uint32_t)strtoul(text, &end, 0);
        text = end;
    }
}

static void log_app_mc(const zeb_app_mc_cfg_t *cfg)
{
    if (!zeb_log_on(ZEB_DBG_LEVEL_VERBOSE))
        return;
    char members[ZEB_CFG_MC_MBR_NUM * 12] = "";
    size_t len = 0;
    for (int i = 0; i < cfg->mbr_num; i++)
        len += (size_t)snprintf(members + len, sizeof(members) - len, "%s%u", i == 0 ? "" : " ", cfg->member[i]);
    ZEB_VERBOSE("ZEB get app multi-cast config OK: id [0x%08x] name [%s] members [%s] comment [%s].\n", cfg->id,
                cfg->name, members, cfg->comment);
}

static bool parse_app_mc(const char *text, uint32_t app_mc, zeb_app_mc_cfg_t *out, bool *matched)
{
    unsigned id = 0;
    char name[CFG_LINE_LEN];
    char members[CFG_LINE_LEN];
    char comment[CFG_LINE_LEN] = "";
    // NOLINTNEXTLINE(cert-err34-c): an id out of range only fails to match
    if (sscanf(text, "%x , %127[^,] , %127[^,] , %127[^\r\n]", &id, name, members, comment) < 3)
        return false;
    *matched = id == app_mc;
    if (!*matched)
        return true;
    memset(out, 0, sizeof(*out));
    out->id = id;
    copy_text(out->name, name);
    copy_text(out->comment, comment);
    parse_members(members, out);
    log_app_mc(out);
    return true;
}

int zeb_get_app_mc_cfg(uint32_t app_mc, zeb_app_mc_cfg_t *out)
{
    return find_table_entry(
        APP_MC_SECTION, [&](const char *text, bool *matched) { return parse_app_mc(text, app_mc, out, matched); },
        [app_mc] { ZEB_WARN("ZEB get app multi-cast 0x%08x config failed.\n", app_mc); });
}

// Copies the value of the first line of the section that begins with `key` and has a "=".
static bool find_misc_value(const char *key, char *out, size_t len)
{
    cfg_file_t file(ZEB_CFG_FILE);
    if (file.fp == nullptr) {
        ZEB_ERROR("ZEB open config file %s failed: %s.\n", ZEB_CFG_FILE, strerror(errno));
        return false;
    }
    if (!find_section(file.fp, MISC_SECTION))
        return false;
    cfg_line_t line;
    while (next_item(file.fp, &line)) {
        if (strncmp(line.text, key, strlen(key)) != 0)
            continue;
        const char *equals = strchr(line.text, '=');
        if (equals == nullptr) {
            ZEB_VERBOSE("ZEB get invalid config item: %s.\n", line.raw);
            continue;
        }
        (void)snprintf(out, len, "%s", equals + 1);
        return true;
    }
    return false;
}

int zeb_get_misc_cfg(const char *key, char *out, size_t len)
{
    if (!find_misc_value(key, out, len)) {
        ZEB_WARN("ZEB get config '%s' failed.\n", key);
        return -1;
    }
    ZEB_VERBOSE("ZEB get config '%s' value [%s].\n", key, out);
    return 0;
}

static uint32_t get_misc_number(const char *key)
{
    char value[ZEB_CFG_VALUE_LEN];
    if (zeb_get_misc_cfg(key, value, sizeof(value)) != 0)
        return 0;
    return (uint32_t)strtol(value, nullptr, 0);
}

uint32_t zeb_get_dbg_cfg()
{
    uint32_t value = get_misc_number(DBG_KEY);
    ZEB_VERBOSE("ZEB get debug config 0x%x.\n", value);
    return value;
}

uint32_t zeb_get_log_cfg()
{
    uint32_t value = get_misc_number(LOG_KEY);
    ZEB_VERBOSE("ZEB get log config 0x%x.\n", value);
    return value;
}

uint32_t zeb_get_log_size()
{
    char value[ZEB_CFG_VALUE_LEN];
    if (zeb_get_misc_cfg(LOG_SIZE_KEY, value, sizeof(value)) != 0 || value[0] == '\0')
        return 0;
    uint32_t size = (uint32_t)strtol(value, nullptr, 0);
    ZEB_INFO("ZEB get log size 0x%x.\n", size);
    return size;
}

bool zeb_cfg_get_blocked_resume_enabled(void)
{
    char value[ZEB_CFG_VALUE_LEN] = "";
    bool enabled = zeb_get_misc_cfg(BLOCKED_RESUME_KEY, value, sizeof(value)) == 0 && strcmp(trim(value), "true") == 0;
    ZEB_VERBOSE("ZEB get blocked resume enabled: %s.\n", enabled ? "true" : "false");
    return enabled;
}

int zeb_get_app_priority(uint32_t app)
{
    zeb_app_cfg_t cfg;
    int priority = zeb_get_app_cfg(app, &cfg) == 0 ? cfg.priority : 0;
    ZEB_VERBOSE("ZEB get app %d config priority %d.\n", app, priority);
    return priority;
}

int zeb_get_app_mc_members(uint32_t app_mc, uint32_t mbrs[ZEB_CFG_MC_MBR_NUM])
{
    zeb_app_mc_cfg_t cfg;
    if (zeb_get_app_mc_cfg(app_mc, &cfg) != 0)
        return 0;
    memcpy(mbrs, cfg.member, sizeof(cfg.member));
    return cfg.mbr_num;
}

int zeb_read_my_node_id()
{
    cfg_file_t file(ZEB_NODE_ADDR_FILE);
    if (file.fp == nullptr) {
        ZEB_WARN_WHY("ZEB open node address config file %s failed: %s.\n", ZEB_NODE_ADDR_FILE, strerror(errno));
        zeb_advise(NODE_ADVICE);
        return NODE_ID_UNKNOWN;
    }
    int node = NODE_ID_UNKNOWN;
    // NOLINTNEXTLINE(cert-err34-c): the range is checked below
    if (fscanf(file.fp, "%d", &node) != 1) {
        ZEB_ERROR_WHY("ZEB get node address config failed.\n");
        zeb_advise(NODE_ADVICE);
        return NODE_ID_UNKNOWN;
    }
    if (node < 0 || node >= (int)ZEB_NODE_NUM) {
        ZEB_ERROR_WHY("ZEB get node address %d invalid.\n", node);
        zeb_advise(NODE_ADVICE);
        return NODE_ID_UNKNOWN;
    }
    ZEB_VERBOSE("ZEB get self node config ID %d.\n", node);
    return node;
}

int zeb_get_my_node_id(void)
{
    int node = s_my_node_id.load(std::memory_order_relaxed);
    if (node != NODE_ID_UNKNOWN)
        return node;
    node = zeb_read_my_node_id();
    if (node != NODE_ID_UNKNOWN)
        s_my_node_id.store(node, std::memory_order_relaxed);
    return node;
}

typedef struct mask_word_s {
    const char *word;
    uint32_t mask;
} mask_word_t;

static const mask_word_t MASK_WORDS[] = {{"verbose", 1u << ZEB_DBG_LEVEL_VERBOSE},
                                         {"info", 1u << ZEB_DBG_LEVEL_INFO},
                                         {"warn", 1u << ZEB_DBG_LEVEL_WARN},
                                         {"error", 1u << ZEB_DBG_LEVEL_ERROR},
                                         {"none", 0}};

// Adds what a word of ZEB_DEBUG stands for. An unknown word is named on standard error; false.
static bool add_mask_word(const char *word, int len, uint32_t *mask)
{
    for (const mask_word_t &entry : MASK_WORDS) {
        if (strlen(entry.word) == (size_t)len && strncmp(entry.word, word, (size_t)len) == 0) {
            *mask |= entry.mask;
            return true;
        }
    }
    zeb_say("zeb: ZEB_DEBUG does not know \"%.*s\": write error, warn, info, verbose or none, with commas between", len,
            word);
    return false;
}

// The debug mask that the environment asks for. False when it names no level.
static bool get_env_mask(uint32_t *mask)
{
    static const char separators[] = ", ";
    const char *text = getenv(DBG_VARIABLE);
    bool named = false;
    *mask = 0;
    while (text != nullptr && *text != '\0') {
        size_t len = strcspn(text, separators);
        if (len != 0 && add_mask_word(text, (int)len, mask))
            named = true;
        text += len + (text[len] != '\0' ? 1 : 0);
    }
    return named;
}

// Loads the debug mask first, so that it applies to the log lines of the later lookups.
static void init_masks()
{
    uint32_t mask = 0;
    if (!get_env_mask(&mask))
        mask = zeb_get_dbg_cfg() & ZEB_DBG_MASK_ALL;
    zeb_store_relaxed(&g_zeb_dbg_level, mask);
    zeb_store_relaxed(&g_zeb_log_level, zeb_get_log_cfg() & ZEB_DBG_MASK_ALL);
    if (zeb_load_relaxed(&g_zeb_log_level) != 0)
        zeb_dm_init();
    zeb_set_log_size(zeb_get_log_size());
}

int zeb_load_cfg()
{
    int ret = pthread_once(&s_cfg_once, init_masks);
    assert(ret == 0);
    return zeb_get_my_node_id() == NODE_ID_UNKNOWN ? -1 : 0;
}

int zeb_cfg_init(void)
{
    zeb_clear_last_error();
    return zeb_load_cfg();
}
