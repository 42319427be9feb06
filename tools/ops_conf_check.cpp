// What is wrong with the configuration file, line by line.
#include "ops_conf.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include <zeb/zeb_msg.h>

#include "ops_conf_line.h"

constexpr int32_t PRIORITY_MAX = 3; // of TIPC
constexpr uint32_t LEVELS = 15;

static const char APP_FORM[] = "id , name , priority , developer , comment; the comment may be missing";
static const char GROUP_FORM[] = "id in hexadecimal , name , member applications , comment; the comment may be missing";

typedef struct check_s {
    std::vector<ops_finding_t> findings;
    ops_conf_section_t section;
    uint32_t begun[OPS_CONF_SECTIONS]; // line at which a section begins; 0: not yet
    bool ignored;                      // the lines up to the next section are not read
    bool comment;                      // the line so far is a comment
    std::map<uint32_t, uint32_t> apps; // line of each id
    std::map<uint32_t, uint32_t> groups;
    std::map<std::string, uint32_t> names;
    std::map<std::string, uint32_t> keys;
    uint32_t line; // that is looked at
} check_t;

static void find(check_t *check, ops_severity_t severity, const std::string &what, const std::string &should)
{
    check->findings.push_back({check->line, severity, what, should});
}

static std::string quoted(const std::string &text)
{
    return "'" + text + "'";
}

static std::string number(size_t value)
{
    return std::to_string(value);
}

// The line of the entry that was there first, or 0 when this is it.
template <typename Key>
static uint32_t earlier(std::map<Key, uint32_t> *lines, const Key &key, uint32_t line)
{
    return lines->emplace(key, line).second ? 0 : (*lines)[key];
}

static void check_text(check_t *check, const char *field, const std::string &text)
{
    if (text.size() > OPS_CONF_TEXT_MAX)
        find(check, OPS_WARNING,
             std::string("the ") + field + " has " + number(text.size()) + " characters and is cut to " +
                 quoted(text.substr(0, OPS_CONF_TEXT_MAX)),
             "a " + std::string(field) + " of at most 31 characters");
}

// "0x64 , …": the pattern reads the 0 and stops at the x.
static bool hexadecimal(const std::string &text)
{
    return text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

static std::string not_an_app(const ops_conf_item_t &item, const std::string &text)
{
    if (hexadecimal(text))
        return "the id is not decimal: the library reads no item";
    if (item.fields == 0)
        return "the line does not begin with an id: the library reads no item";
    static const char *const missing[] = {"", "name", "priority, a number,", "developer"};
    return std::string("no ") + missing[item.fields] + " after the " +
           (item.fields == 1 ? "id" : (item.fields == 2 ? "name" : "priority")) + ": the library reads no item";
}

static void check_app(check_t *check, const std::string &text)
{
    ops_conf_item_t item = ops_conf_app_item(text);
    if (item.fields < 4)
        return find(check, OPS_ERROR, not_an_app(item, text), APP_FORM);
    std::string id = std::to_string((int32_t)item.id);
    if (zeb_valid_app_id(item.id) == 0)
        return find(check, OPS_ERROR, "no application can have the id " + id, "an id of 1 to 8191, or 16384 to 20479");
    if (uint32_t line = earlier(&check->apps, item.id, check->line); line != 0)
        return find(check, OPS_ERROR, "never used: application " + id + " stands in line " + number(line) + " already",
                    "one line for each application");
    if (item.priority < 0 || item.priority > PRIORITY_MAX)
        find(check, OPS_ERROR,
             "TIPC has no priority " + std::to_string(item.priority) + ": the application cannot be registered",
             "a priority of 0 to 3");
    if (uint32_t line = earlier(&check->names, item.name, check->line); line != 0)
        find(check, OPS_NOTE, "the application of line " + number(line) + " has the name " + quoted(item.name) + " too",
             "a name of its own, so that it can be given in place of the id");
    check_text(check, "name", item.name);
    check_text(check, "developer", item.developer);
    check_text(check, "comment", item.comment);
}

static void check_member(check_t *check, const std::string &text, const ops_conf_member_t &member)
{
    std::string written = text.substr(member.begin, member.end - member.begin);
    std::string value = std::to_string(member.app);
    if (member.begin > 0 && text[member.begin - 1] == '-')
        find(check, OPS_WARNING, "the sign of -" + written + " is not seen: the member is " + value, "the id alone");
    if (written.size() > 1 && written[0] == '0' && isdigit((unsigned char)written[1]) != 0)
        find(check, OPS_WARNING, written + " is octal: the member is " + value, "no 0 before a decimal id");
    if (zeb_valid_app_id(member.app) == 0)
        find(check, OPS_ERROR, "no application can have the id " + value + " of a member",
             "members of 1 to 8191, or 16384 to 20479");
}

static void check_members(check_t *check, const std::string &text)
{
    std::vector<ops_conf_member_t> members = ops_conf_members(text);
    if (members.empty())
        find(check, OPS_ERROR, "the group has no members", "ids with blanks between");
    if (members.size() > OPS_CONF_MEMBERS_MAX)
        find(check, OPS_ERROR,
             "the group has " + number(members.size()) + " members, and the library takes the first 16",
             "at most 16 members");
    members.resize(std::min(members.size(), OPS_CONF_MEMBERS_MAX));
    for (const ops_conf_member_t &member : members)
        check_member(check, text, member);
}

static std::string not_a_group(const ops_conf_item_t &item)
{
    static const char *const missing[] = {"the line does not begin with a hexadecimal id", "no name after the id",
                                          "no members after the name"};
    return std::string(missing[item.fields]) + ": the library reads no item";
}

static void check_group(check_t *check, const std::string &text)
{
    ops_conf_item_t item = ops_conf_group_item(text);
    if (item.fields < 3)
        return find(check, OPS_ERROR, not_a_group(item), GROUP_FORM);
    if (uint32_t line = earlier(&check->groups, item.id, check->line); line != 0)
        return find(check, OPS_ERROR, "never used: the group stands in line " + number(line) + " already",
                    "one line for each group");
    check_text(check, "name", item.name);
    check_text(check, "comment", item.comment);
    check_members(check, item.members);
}

static std::string known_keys()
{
    std::string keys;
    for (const char *key : OPS_CONF_KEYS)
        keys += (keys.empty() ? "" : ", ") + std::string(key);
    return keys;
}

static void check_levels(check_t *check, const std::string &key, uint32_t value)
{
    if ((value & ~LEVELS) != 0)
        find(check, OPS_WARNING, key + " takes the lowest four bits alone: " + number(value & LEVELS),
             "0 to 15: 1 verbose, 2 info, 4 warn, 8 error, added up");
}

static void check_number(check_t *check, const std::string &key, const std::string &value)
{
    char *end = nullptr;
    uint32_t result = (uint32_t)strtol(value.c_str(), &end, 0);
    std::string rest = end;
    if (end == value.c_str())
        return find(check, OPS_ERROR, quoted(value) + " is no number and counts as 0",
                    "a number, decimal or with 0x before it");
    if (ops_conf_trim(rest).find_first_not_of(" \t") != std::string::npos)
        find(check, OPS_WARNING, "what follows the number " + number(result) + " is not seen: " + quoted(rest),
             "the number alone");
    if (key != "zeb_log_size")
        check_levels(check, key, result);
    else if (value.find('-') != std::string::npos)
        find(check, OPS_ERROR, "the size is negative: the log file never starts over", "bytes, as 100000");
}

static void check_value(check_t *check, const std::string &key, const std::string &whole)
{
    std::string value = whole.substr(0, OPS_CONF_VALUE_MAX);
    if (value.size() < whole.size())
        find(check, OPS_WARNING, "the value is cut to 15 characters: " + quoted(value),
             "a value of at most 15 characters");
    if (key != "zeb_blocked_resume_enabled")
        return check_number(check, key, value);
    std::string word = ops_conf_trim(value);
    if (word != "true" && word != "false")
        find(check, OPS_ERROR, quoted(value) + " counts as false", "true or false, in small letters");
}

static void check_misc(check_t *check, const std::string &text)
{
    const char *key = ops_conf_key(text);
    size_t equals = text.find('=');
    std::string written = ops_conf_trim(text.substr(0, equals));
    if (key == nullptr)
        return find(check, OPS_WARNING, "the library does not know the key " + quoted(written),
                    "one of " + known_keys());
    if (equals == std::string::npos)
        return find(check, OPS_ERROR, "no = after the key: the library skips the line", std::string(key) + "=value");
    uint32_t line = earlier(&check->keys, std::string(key), check->line);
    if (line != 0)
        return find(check, OPS_ERROR, "never used: line " + number(line) + " answers the key " + key + " already",
                    "one line for each key");
    if (written != key)
        find(check, OPS_ERROR,
             "counts as the key " + std::string(key) + ", because " + quoted(written) + " begins with it",
             "the key alone; # in front of a line that shall not count");
    check_value(check, key, text.substr(equals + 1));
}

static void check_section(check_t *check, const std::string &text)
{
    check->section = ops_conf_section(text);
    check->ignored = true;
    if (check->section == OPS_CONF_NONE)
        return find(check, OPS_ERROR, "the library does not know the section " + quoted(text) + " and skips it",
                    "[APP_INFO_TBL], [APP_MCAST_TBL] or [MISC_CONF], in capital letters, alone on its line");
    uint32_t *begun = &check->begun[check->section];
    if (*begun != 0)
        return find(check, OPS_ERROR,
                    "the library reads the section of line " + number(*begun) + " alone, and skips this one",
                    "its lines in the section of line " + number(*begun));
    *begun = check->line;
    check->ignored = false;
}

static void check_item(check_t *check, const std::string &text)
{
    if (isspace((unsigned char)text[0]) != 0) {
        if (check->section != OPS_CONF_MISC)
            find(check, OPS_NOTE, "a blank line: each look-up that passes it logs a WARN line",
                 "no line, or # at its beginning");
        return;
    }
    if (check->section == OPS_CONF_APPS)
        check_app(check, text);
    else if (check->section == OPS_CONF_GROUPS)
        check_group(check, text);
    else
        check_misc(check, text);
}

static bool blank(const std::string &text)
{
    return text.empty() || isspace((unsigned char)text[0]) != 0;
}

// How the library reads the line is a finding; and what is in the line it looks at then.
static void check_form(check_t *check, const ops_conf_piece_t &piece)
{
    if (piece.part == 0 && piece.text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        find(check, OPS_ERROR, "begins with a byte order mark, which hides what follows", "plain text without one");
    if (piece.nul)
        find(check, OPS_ERROR, "has a NUL byte, and what follows it is not read", "plain text");
    if (piece.part == 0)
        check->comment = piece.text[0] == '#';
    if (piece.part == 0 && piece.more)
        find(check, OPS_WARNING, "has more than 127 characters: the library reads what follows as a line of its own",
             check->comment ? "# before each line of a comment" : "at most 127 characters");
    else if (piece.part == 1 && check->comment && !blank(piece.text) && piece.text[0] != '#')
        find(check, OPS_ERROR, "the rest of a long comment is no comment: the library reads " + quoted(piece.text),
             "# before each line of a comment");
}

static void check_piece(check_t *check, const ops_conf_piece_t &piece)
{
    check->line = piece.line;
    check_form(check, piece);
    if (piece.text.empty() || piece.text[0] == '#')
        return;
    if (piece.text[0] == '[')
        return check_section(check, piece.text);
    if (check->section == OPS_CONF_NONE && check->begun[OPS_CONF_APPS] + check->begun[OPS_CONF_GROUPS] == 0 &&
        check->begun[OPS_CONF_MISC] == 0 && !check->ignored && !blank(piece.text))
        return find(check, OPS_ERROR, "stands before the first section and is not read",
                    "it in the section that it belongs to");
    if (check->section != OPS_CONF_NONE && !check->ignored)
        check_item(check, piece.text);
}

std::vector<ops_finding_t> ops_conf_check(const std::string &text)
{
    check_t check = {};
    for (const ops_conf_piece_t &piece : ops_conf_pieces(text))
        check_piece(&check, piece);
    check.line = 0;
    for (int i = OPS_CONF_APPS; i < OPS_CONF_SECTIONS; i++) {
        if (check.begun[i] == 0)
            find(&check, OPS_NOTE,
                 std::string("there is no section ") + ops_conf_section_name((ops_conf_section_t)i) +
                     ": defaults hold, and each look-up logs a WARN line",
                 "the line " + std::string(ops_conf_section_name((ops_conf_section_t)i)));
    }
    return check.findings;
}
