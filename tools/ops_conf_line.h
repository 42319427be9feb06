// Lines of the configuration file, as the library reads them: in its pieces, trimmed as it trims, and split by its
// patterns. For ops_conf alone.
#ifndef OPS_CONF_LINE_H
#define OPS_CONF_LINE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr size_t OPS_CONF_LINE_MAX = 127; // characters that are read at once
constexpr size_t OPS_CONF_TEXT_MAX = 31;  // of a name, a developer or a comment
constexpr size_t OPS_CONF_VALUE_MAX = 15; // of the value of a key
constexpr size_t OPS_CONF_MEMBERS_MAX = 16;

typedef enum ops_conf_section_e {
    OPS_CONF_NONE = 0, // before the first, or after one that the library does not read
    OPS_CONF_APPS = 1,
    OPS_CONF_GROUPS = 2,
    OPS_CONF_MISC = 3,
    OPS_CONF_SECTIONS = 4
} ops_conf_section_t;

const char *ops_conf_section_name(ops_conf_section_t section); // with its brackets

// What the library reads at once: a line, or a piece of a line that is too long.
typedef struct ops_conf_piece_s {
    uint32_t line;    // counted from 1
    uint32_t part;    // of the line, counted from 0
    bool more;        // the line goes on in the next piece
    bool nul;         // it has a NUL byte: the library does not see what follows it
    std::string text; // trimmed; white space alone stays as it is
} ops_conf_piece_t;

std::vector<ops_conf_piece_t> ops_conf_pieces(const std::string &text);

std::string ops_conf_trim(const std::string &text);

// The section that a line begins; OPS_CONF_NONE when its text is no name of one.
ops_conf_section_t ops_conf_section(const std::string &text);

// A line of a table section. `fields` is how many of its fields were understood.
typedef struct ops_conf_item_s {
    int fields;
    uint32_t id;
    int32_t priority;    // of an application
    std::string name;    // these are trimmed and not cut
    std::string members; // of a group, the text
    std::string developer;
    std::string comment;
} ops_conf_item_t;

ops_conf_item_t ops_conf_app_item(const std::string &text);
ops_conf_item_t ops_conf_group_item(const std::string &text);

// A member list, all numbers of it, and where each begins.
typedef struct ops_conf_member_s {
    uint32_t app;
    size_t begin;
    size_t end;
} ops_conf_member_t;

std::vector<ops_conf_member_t> ops_conf_members(const std::string &text);

// The keys of [MISC_CONF] that the library asks for.
constexpr const char *OPS_CONF_KEYS[] = {"zeb_dbg_cfg", "zeb_log_cfg", "zeb_log_size", "zeb_blocked_resume_enabled"};

// The key that a line answers: the library looks at its beginning alone. Null when it answers none.
const char *ops_conf_key(const std::string &text);

#endif
