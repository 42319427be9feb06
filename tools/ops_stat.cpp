#include "ops_stat.h"

#include <cctype>
#include <cstring>

static const char OVERFLOW_LINE[] = "*** PRINT BUFFER STRING OVERFLOW ***";
constexpr size_t ODD_SHOWN = 100; // characters of an odd line that are kept

// Which list the entries of the next line belong to.
typedef enum list_e { NO_LIST = 0, UNACKED, RESUMES, RESENT, VERSIONS, APP_GROUPS, NODE_GROUPS } list_t;

typedef struct parser_s {
    ops_stat_t *stat;
    list_t list;
} parser_t;

typedef std::vector<int64_t> numbers_t;

// A decimal number as %d prints it, or a hexadecimal one as %x and %p do. Null when there is none, or none of 32 bits
// (a pointer has 64). Otherwise what follows it.
static const char *take_number(const char *at, bool hex, int64_t *number)
{
    bool negative = !hex && *at == '-';
    at += negative ? 1 : 0;
    if (hex ? isxdigit((unsigned char)*at) == 0 : isdigit((unsigned char)*at) == 0)
        return nullptr;
    int64_t value = 0;
    int64_t base = hex ? 16 : 10;
    for (; hex ? isxdigit((unsigned char)*at) != 0 : isdigit((unsigned char)*at) != 0; at++) {
        int digit = isdigit((unsigned char)*at) != 0 ? *at - '0' : tolower(*at) - 'a' + 10;
        value = value * base + digit;
        if (!hex && value > UINT32_MAX)
            return nullptr;
        value = hex ? value & 0xFFFFFFFFFFFF : value;
    }
    *number = negative ? -value : value;
    return *number < INT32_MIN ? nullptr : at;
}

static const char *take_pointer(const char *at)
{
    int64_t number = 0;
    if (strncmp(at, "(nil)", 5) == 0)
        return at + 5;
    return strncmp(at, "0x", 2) == 0 ? take_number(at + 2, true, &number) : nullptr;
}

// Matches the beginning of a line with a pattern: '#' is a decimal number and '^' a hexadecimal one, which are stored,
// '&' a pointer. What follows it, or null.
static const char *match(const char *line, const char *pattern, numbers_t *numbers)
{
    numbers->clear();
    for (; line != nullptr && *pattern != '\0'; pattern++) {
        int64_t number = 0;
        if (*pattern == '#' || *pattern == '^') {
            line = take_number(line, *pattern == '^', &number);
            numbers->push_back(number);
        } else if (*pattern == '&') {
            line = take_pointer(line);
        } else {
            line = *line == *pattern ? line + 1 : nullptr;
        }
    }
    return line;
}

static bool match_line(const char *line, const char *pattern, numbers_t *numbers)
{
    const char *rest = match(line, pattern, numbers);
    return rest != nullptr && *rest == '\0';
}

// The beginning of a line and then numbers, each after a blank. `ids` is set when the whole line matches.
static bool match_ids(const char *line, const char *pattern, numbers_t *numbers, ops_ids_t *ids)
{
    ops_ids_t found;
    const char *rest = match(line, pattern, numbers);
    while (rest != nullptr && *rest == ' ') {
        int64_t id = 0;
        rest = take_number(rest + 1, false, &id);
        found.push_back((uint32_t)id);
    }
    if (rest == nullptr || *rest != '\0')
        return false;
    *ids = found;
    return true;
}

static ops_inst_t inst_at(const numbers_t &n, size_t at)
{
    return {(uint32_t)n[at], (uint32_t)n[at + 1]};
}

static ops_peer_app_t *peer_app(ops_stat_t *stat, uint32_t app)
{
    for (ops_peer_app_t &peer : stat->peer_apps) {
        if (peer.app == app)
            return &peer;
    }
    stat->peer_apps.emplace_back();
    stat->peer_apps.back().app = app;
    return &stat->peer_apps.back();
}

static bool parse_peer_set(ops_stat_t *stat, const char *line)
{
    static const struct {
        const char *pattern;
        ops_ids_t ops_peer_app_t::*set;
    } sets[] = {
        {"    Application # server on nodes:", &ops_peer_app_t::servers},
        {"    Application # subscribed by applications:", &ops_peer_app_t::subscribers},
        {"    Application # instance on nodes:", &ops_peer_app_t::instances},
        {"    Application # instance acked on nodes:", &ops_peer_app_t::acked},
        {"    Application # instance online on nodes:", &ops_peer_app_t::online},
    };
    numbers_t n;
    ops_ids_t ids;
    for (const auto &set : sets) {
        if (!match_ids(line, set.pattern, &n, &ids))
            continue;
        peer_app(stat, (uint32_t)n[0])->*set.set = ids;
        return true;
    }
    return false;
}

// Lines that only say what follows.
static bool parse_title(parser_t *parser, const char *line)
{
    static const struct {
        const char *line;
        list_t list;
    } titles[] = {
        {"  Online application servers:", NO_LIST},
        {"  Online application subscribers:", NO_LIST},
        {"  Online application instances:", NO_LIST},
        {"  Online application instances acked:", NO_LIST},
        {"  Online application instances online:", NO_LIST},
        {"  Unack instance sync(src_app/seq->dst_app/dst_node):", UNACKED},
        {"  Communication resume info(src_app/seq->dst_app/dst_node):", RESUMES},
        {"  Resend instance sync ack(src_app->dst_app/dst_node/seq):", RESENT},
        {"    RPC already replies:", NO_LIST},
    };
    for (const auto &title : titles) {
        if (strcmp(line, title.line) != 0)
            continue;
        parser->list = title.list;
        return true;
    }
    return false;
}

static bool parse_pending(parser_t *parser, const char *line)
{
    ops_stat_t *stat = parser->stat;
    bool acks = parser->list == RESENT;
    std::vector<ops_pending_t> *list =
        acks ? &stat->resent : (parser->list == UNACKED ? &stat->unacked : &stat->resumes);
    numbers_t n;
    const char *rest = strncmp(line, "    ", 4) == 0 ? line + 3 : nullptr;
    while (rest != nullptr && *rest == ' ') {
        rest = match(rest, acks ? " #->#/#/#" : " #/#->#/#", &n);
        if (rest != nullptr)
            list->push_back({(uint32_t)n[0], (uint32_t)n[acks ? 3 : 1], inst_at(n, acks ? 1 : 2)});
    }
    return rest != nullptr && *rest == '\0';
}

static bool parse_versions(ops_stat_t *stat, const char *line)
{
    numbers_t n;
    const char *rest = strncmp(line, "  ", 2) == 0 ? line + 2 : nullptr; // a client has no more
    while (rest != nullptr && *rest != '\0') {
        rest = match(rest, "  version # &", &n);
        if (rest != nullptr)
            stat->versions.push_back((uint32_t)n[0]);
    }
    return rest != nullptr;
}

static bool parse_group(parser_t *parser, const char *line)
{
    numbers_t n;
    ops_ids_t members;
    if (!match_ids(line, "    ID 0x^, members:", &n, &members))
        return false;
    (parser->list == APP_GROUPS ? parser->stat->app_groups : parser->stat->node_groups)
        .push_back({(uint32_t)n[0], members});
    return true;
}

// A line that continues the one before.
static bool parse_entry(parser_t *parser, const char *line)
{
    switch (parser->list) {
    case UNACKED:
    case RESUMES:
    case RESENT:
        return parse_pending(parser, line);
    case VERSIONS:
        return parse_versions(parser->stat, line);
    case APP_GROUPS:
    case NODE_GROUPS:
        return parse_group(parser, line);
    default:
        return false;
    }
}

static bool parse_lib(ops_stat_t *stat, const char *line)
{
    numbers_t n;
    if (match_line(line, "Application #/# process's ZEB library information:", &n)) {
        stat->parts |= OPS_STAT_LIB;
        stat->app = (uint32_t)n[0];
        stat->node = (uint32_t)n[1];
        return true;
    }
    return match_line(line, "  ZEB library thread 0x^, subscription socket #", &n) ||
           match_ids(line, "  Applications in this process:", &n, &stat->process_apps) || parse_peer_set(stat, line);
}

// "Application 100/7 [name] information:". The name may hold anything, so its end is looked for from the line's end.
static bool parse_name(ops_stat_t *stat, const char *line)
{
    static const std::string end = "] information:";
    numbers_t n;
    const char *name = match(line, "Application #/# [", &n);
    size_t len = name == nullptr ? 0 : strlen(name);
    if (name == nullptr || len < end.size() || end != name + len - end.size())
        return false;
    stat->parts |= OPS_STAT_APP;
    stat->app = (uint32_t)n[0];
    stat->node = (uint32_t)n[1];
    stat->name.assign(name, len - end.size());
    return true;
}

static bool parse_app(parser_t *parser, const char *line)
{
    ops_stat_t *stat = parser->stat;
    numbers_t n;
    if (parse_name(stat, line))
        return true;
    if (match_line(line, "  Proxy thread 0x^, socket #, priority #", &n)) {
        stat->priority = (int32_t)n[2];
        stat->own_thread = n[0] != 0;
        return true;
    }
    if (match_line(line, "  Callback functions: event &, message dispatchers:", &n)) {
        parser->list = VERSIONS;
        return true;
    }
    if (match_line(line, "  Unprocessed message number #", &n)) {
        stat->queue = (uint32_t)n[0];
        return true;
    }
    if (match_line(line, "  Private application multicast number #:", &n)) {
        parser->list = APP_GROUPS;
        return true;
    }
    if (match_line(line, "  Private node multicast number #:", &n)) {
        parser->list = NODE_GROUPS;
        return true;
    }
    return match_ids(line, "  Communication peer applications:", &n, &stat->named);
}

static bool parse_flow(ops_stat_t *stat, const char *line)
{
    numbers_t n;
    if (match_line(line, "Application # overall statistics:", &n)) {
        stat->parts |= OPS_STAT_FLOW;
    } else if (match_line(line, "  total send #, unack #, mcast reject #, RPC reply exception #", &n)) {
        stat->send = (uint32_t)n[0];
        stat->send_unack = (int32_t)n[1];
        stat->mcast_reject = (uint32_t)n[2];
        stat->reply_exception = (uint32_t)n[3];
    } else if (match_line(line, "  total receive #, unack #, exception #", &n)) {
        stat->recv = (uint32_t)n[0];
        stat->recv_unack = (int32_t)n[1];
        stat->exception = (uint32_t)n[2];
    } else if (match_line(line, "    Send to application #/#: send #, unack #, reject #, RPC reply reject #", &n)) {
        stat->sends.push_back({inst_at(n, 0), (uint32_t)n[2], (int32_t)n[3], (uint32_t)n[4], (uint32_t)n[5]});
    } else if (match_line(line, "    Receive from application #/#: receive #, unack #, drop #, return #", &n)) {
        stat->recvs.push_back({inst_at(n, 0), (uint32_t)n[2], (int32_t)n[3], (uint32_t)n[4], (uint32_t)n[5]});
    } else {
        return false;
    }
    return true;
}

static bool parse_mng(ops_stat_t *stat, const char *line)
{
    numbers_t n;
    if (match_line(line, "Application # mng msg statistics:", &n)) {
        stat->parts |= OPS_STAT_MNG;
        return true;
    }
    if (match_line(line, "  total send #, total recv #", &n)) {
        stat->sync_send = (uint32_t)n[0];
        stat->sync_recv = (uint32_t)n[1];
        return true;
    }
    bool sent = match_line(line, "    Send to application #/#: inst #, inst ack #, inst seq ack #, failed #", &n);
    if (!sent && // no blank after the last comma: that is how it is printed
        !match_line(line, "    Receive from application #/#: inst #, inst ack #, inst seq ack #,reject #", &n))
        return false;
    (sent ? stat->sync_sends : stat->sync_recvs)
        .push_back({inst_at(n, 0), (uint32_t)n[2], (uint32_t)n[3], (uint32_t)n[4], (uint32_t)n[5]});
    return true;
}

static bool parse_waiting(ops_call_t *call, const char *line)
{
    numbers_t n;
    const char *rest = match(line, "    waiting for", &n);
    while (rest != nullptr && *rest == ' ') {
        rest = match(rest, " #/#", &n);
        if (rest != nullptr)
            call->waiting.push_back(inst_at(n, 0));
    }
    return rest != nullptr && *rest == '\0';
}

static bool parse_calls(ops_stat_t *stat, const char *line)
{
    numbers_t n;
    if (match_line(line, "Application # RPC waits:", &n)) {
        stat->parts |= OPS_STAT_CALLS;
        return true;
    }
    if (match_line(line, "  sequence #, timeout #s", &n)) {
        stat->calls.emplace_back();
        stat->calls.back().seq = (uint32_t)n[0];
        stat->calls.back().timeout = (uint32_t)n[1];
        return true;
    }
    if (stat->calls.empty())
        return false;
    const char *status = match(line, "      #/#, ", &n);
    if (status != nullptr)
        stat->calls.back().replied.emplace_back(inst_at(n, 0), status);
    return status != nullptr || parse_waiting(&stat->calls.back(), line);
}

static void parse_line(parser_t *parser, const std::string &text)
{
    ops_stat_t *stat = parser->stat;
    const char *line = text.c_str();
    bool plain = text.size() == strlen(line);
    if (text.empty() || (plain && parse_entry(parser, line)))
        return;
    parser->list = NO_LIST;
    if (!plain)
        line = "(a line with a zero byte)";
    if (parse_title(parser, line) || parse_lib(stat, line) || parse_app(parser, line) || parse_flow(stat, line) ||
        parse_mng(stat, line) || parse_calls(stat, line))
        return;
    if (stat->odd++ == 0)
        stat->first_odd.assign(line, strnlen(line, ODD_SHOWN));
}

// An overflow line and a terminator lie over the beginning of a text that did not fit into the buffer of the instance,
// and its last line may be a part. What they destroyed is left out.
static size_t skip_overflow(ops_stat_t *stat, const std::string &text)
{
    if (text.compare(0, sizeof(OVERFLOW_LINE) - 1, OVERFLOW_LINE) != 0)
        return 0;
    stat->cut = true;
    size_t remnant = text.find('\n', sizeof(OVERFLOW_LINE));
    return remnant == std::string::npos ? text.size() : remnant + 1;
}

ops_stat_t ops_stat_parse(const char *text, size_t len)
{
    ops_stat_t stat = {};
    parser_t parser = {&stat, NO_LIST};
    std::string all(text, len);
    while (!all.empty() && all.back() == '\0')
        all.pop_back();
    for (size_t at = skip_overflow(&stat, all); at < all.size();) {
        size_t end = all.find('\n', at);
        if (end == std::string::npos && stat.cut)
            break;
        end = end == std::string::npos ? all.size() : end;
        parse_line(&parser, all.substr(at, end - at));
        at = end + 1;
    }
    if (stat.cut) // its first line is gone, the one after it is not
        stat.parts |= OPS_STAT_LIB;
    return stat;
}

std::string ops_stat_missing(const ops_stat_t &stat)
{
    if (stat.cut)
        return "cut: the statistics are longer than the 16 KiB that an instance answers with";
    if (stat.parts != OPS_STAT_WHOLE)
        return "answered half: parts of the statistics are missing";
    if (stat.odd != 0)
        return "lines of the statistics that are unknown: " + std::to_string(stat.odd);
    return "";
}

std::string ops_printable(const std::string &text)
{
    std::string shown = text;
    for (char &c : shown) {
        if (c != '\n' && (c < ' ' || c > '~'))
            c = '?';
    }
    return shown;
}
