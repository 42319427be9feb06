#include "ops_conf.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "ops_conf_line.h"
#include "ops_view.h"

constexpr size_t FILE_MAX = 1 << 20; // bytes that are read; nobody writes more by hand
constexpr int64_t FRESH = 1000;      // ms

const char *ops_conf_section_name(ops_conf_section_t section)
{
    static const char *const names[] = {"", "[APP_INFO_TBL]", "[APP_MCAST_TBL]", "[MISC_CONF]"};
    return names[section];
}

ops_conf_section_t ops_conf_section(const std::string &text)
{
    for (int i = OPS_CONF_APPS; i < OPS_CONF_SECTIONS; i++) {
        if (text == ops_conf_section_name((ops_conf_section_t)i))
            return (ops_conf_section_t)i;
    }
    return OPS_CONF_NONE;
}

std::string ops_conf_trim(const std::string &text)
{
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && isspace((unsigned char)text[begin]) != 0)
        begin++;
    if (begin == end)
        return text;
    while (isspace((unsigned char)text[end - 1]) != 0)
        end--;
    return text.substr(begin, end - begin);
}

std::vector<ops_conf_piece_t> ops_conf_pieces(const std::string &text)
{
    std::vector<ops_conf_piece_t> pieces;
    uint32_t line = 1;
    uint32_t part = 0;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        size_t len = (end == std::string::npos ? text.size() : end + 1) - at;
        if (len > OPS_CONF_LINE_MAX)
            len = OPS_CONF_LINE_MAX;
        std::string raw = text.substr(at, len);
        bool ends = raw.back() == '\n';
        at += len;
        size_t nul = raw.find('\0');
        bool more = !ends && at < text.size();
        pieces.push_back({line, part, more, nul != std::string::npos, ops_conf_trim(raw.substr(0, nul))});
        line += ends ? 1 : 0;
        part = ends ? 0 : part + 1;
    }
    return pieces;
}

// The texts of a pattern's fields have at most a line's length, and a NUL.
typedef struct texts_s {
    char one[OPS_CONF_LINE_MAX + 1];
    char two[OPS_CONF_LINE_MAX + 1];
    char three[OPS_CONF_LINE_MAX + 1];
} texts_t;

ops_conf_item_t ops_conf_app_item(const std::string &text)
{
    texts_t texts = {};
    int id = 0;
    int priority = 0;
    // NOLINTNEXTLINE(cert-err34-c): as the library reads it
    int fields = sscanf(text.c_str(), "%d , %127[^,] , %d , %127[^,] , %127[^\r\n]", &id, texts.one, &priority,
                        texts.two, texts.three);
    return {fields < 0 ? 0 : fields,   (uint32_t)id, priority, ops_conf_trim(texts.one), "", ops_conf_trim(texts.two),
            ops_conf_trim(texts.three)};
}

ops_conf_item_t ops_conf_group_item(const std::string &text)
{
    texts_t texts = {};
    unsigned id = 0;
    // NOLINTNEXTLINE(cert-err34-c): as the library reads it
    int fields = sscanf(text.c_str(), "%x , %127[^,] , %127[^,] , %127[^\r\n]", &id, texts.one, texts.two, texts.three);
    return {fields < 0 ? 0 : fields, id, 0, ops_conf_trim(texts.one), texts.two, "", ops_conf_trim(texts.three)};
}

std::vector<ops_conf_member_t> ops_conf_members(const std::string &text)
{
    std::vector<ops_conf_member_t> members;
    for (size_t at = 0; at < text.size();) {
        if (isdigit((unsigned char)text[at]) == 0) {
            at++;
            continue;
        }
        char *end = nullptr;
        uint32_t app = (uint32_t)strtoul(text.c_str() + at, &end, 0);
        size_t next = (size_t)(end - text.c_str());
        members.push_back({app, at, next});
        at = next;
    }
    return members;
}

const char *ops_conf_key(const std::string &text)
{
    for (const char *key : OPS_CONF_KEYS) {
        if (strncmp(text.c_str(), key, strlen(key)) == 0)
            return key;
    }
    return nullptr;
}

static void take_app(ops_conf_t *conf, const std::string &text)
{
    ops_conf_item_t item = ops_conf_app_item(text);
    if (item.fields >= 4)
        conf->apps.emplace(item.id, ops_conf_app_t{item.name.substr(0, OPS_CONF_TEXT_MAX), item.priority});
}

static void take_key(ops_conf_t *conf, const std::string &text)
{
    const char *key = ops_conf_key(text);
    size_t equals = text.find('=');
    if (key != nullptr && equals != std::string::npos)
        conf->keys.emplace(key, text.substr(equals + 1, OPS_CONF_VALUE_MAX));
}

ops_conf_t ops_conf_parse(const std::string &text)
{
    ops_conf_t conf = {};
    conf.found = true;
    bool seen[OPS_CONF_SECTIONS] = {};
    ops_conf_section_t section = OPS_CONF_NONE;
    for (const ops_conf_piece_t &piece : ops_conf_pieces(text)) {
        if (piece.text.empty() || piece.text[0] == '#')
            continue;
        if (piece.text[0] == '[') {
            section = ops_conf_section(piece.text);
            if (seen[section]) // the library stops at the first
                section = OPS_CONF_NONE;
            seen[section] = true;
        } else if (section == OPS_CONF_APPS) {
            take_app(&conf, piece.text);
        } else if (section == OPS_CONF_MISC) {
            take_key(&conf, piece.text);
        }
    }
    return conf;
}

bool ops_conf_text(std::string *text)
{
    text->clear();
    FILE *fp = fopen(OPS_CONF_FILE, "re");
    if (fp == nullptr)
        return false;
    char part[4096];
    size_t len = 0;
    while (text->size() < FILE_MAX && (len = fread(part, 1, sizeof(part), fp)) != 0)
        text->append(part, len);
    int err = errno;
    bool failed = ferror(fp) != 0;
    (void)fclose(fp);
    errno = err;
    return !failed;
}

// What tells one state of the file from the next.
typedef struct stamp_s {
    bool there;
    ino_t inode;
    off_t size;
    struct timespec time;
} stamp_t;

static stamp_t stamp()
{
    struct stat now = {};
    FILE *fp = fopen(OPS_CONF_FILE, "re");
    if (fp == nullptr)
        return {};
    bool there = fstat(fileno(fp), &now) == 0;
    (void)fclose(fp);
    return {there, now.st_ino, now.st_size, now.st_mtim};
}

static bool same(const stamp_t &one, const stamp_t &two)
{
    return one.there == two.there && one.inode == two.inode && one.size == two.size &&
           one.time.tv_sec == two.time.tv_sec && one.time.tv_nsec == two.time.tv_nsec;
}

static ops_conf_t read_conf()
{
    std::string text;
    return ops_conf_text(&text) ? ops_conf_parse(text) : ops_conf_t{};
}

const ops_conf_t *ops_conf()
{
    static ops_conf_t conf;
    static stamp_t known;
    static int64_t looked; // 0: never
    int64_t now = ops_now();
    if (looked != 0 && now - looked < FRESH)
        return &conf;
    stamp_t present = stamp();
    if (looked == 0 || !same(present, known))
        conf = read_conf();
    known = present;
    looked = now;
    return &conf;
}

std::string ops_conf_name(uint32_t app)
{
    const ops_conf_t *conf = ops_conf();
    auto found = conf->apps.find(app);
    return found == conf->apps.end() ? "" : found->second.name;
}

std::vector<uint32_t> ops_conf_apps(const std::string &name)
{
    std::vector<uint32_t> apps;
    for (const auto &[app, entry] : ops_conf()->apps) {
        if (entry.name == name)
            apps.push_back(app);
    }
    return apps;
}
