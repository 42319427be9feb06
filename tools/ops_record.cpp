#include "ops_record.h"

#include <cstdint>

static const char *const OUTCOMES[] = {"waiting", "answered", "silent", "gone", "broken"};
static const char *const KINDS[] = {"", "joined", "quit", "blocked", "unblocked", "lost"};
static const char *const ASKS[] = {"info", "stat", "debug"};

bool ops_record_number(const ops_json_t &record, const char *name, int64_t min, int64_t max, int64_t *number)
{
    auto found = record.find(name);
    if (found == record.end() || !found->is_number_integer())
        return false;
    // A number above the range of int64_t is kept as an unsigned one.
    if (found->is_number_unsigned() && found->get<uint64_t>() > (uint64_t)INT64_MAX)
        return false;
    *number = found->get<int64_t>();
    return *number >= min && *number <= max;
}

bool ops_record_text(const ops_json_t &record, const char *name, std::string *text)
{
    auto found = record.find(name);
    if (found == record.end() || !found->is_string())
        return false;
    *text = found->get<std::string>();
    return true;
}

// Each byte as the character of that number.
std::string ops_record_wide(const std::string &bytes)
{
    std::string text;
    text.reserve(bytes.size());
    for (char byte : bytes) {
        auto value = (unsigned char)byte;
        if (value >= 0x80)
            text += (char)(0xC0 | value >> 6);
        text += value >= 0x80 ? (char)(0x80 | (value & 0x3F)) : byte;
    }
    return text;
}

// A character that is no byte becomes '?'.
std::string ops_record_narrow(const std::string &text)
{
    std::string bytes;
    bytes.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        auto value = (unsigned char)text[i];
        bool more = i + 1 < text.size() && ((unsigned char)text[i + 1] & 0xC0) == 0x80;
        if ((value == 0xC2 || value == 0xC3) && more) {
            bytes += (char)((value & 3) << 6 | ((unsigned char)text[++i] & 0x3F));
        } else if (value < 0x80) {
            bytes += text[i];
        } else if ((value & 0xC0) != 0x80) {
            bytes += '?';
        }
    }
    return bytes;
}

std::string ops_record_line(const ops_json_t &record)
{
    return record.dump(-1, ' ', false, ops_json_t::error_handler_t::replace) + "\n";
}

// How deep arrays and objects of a line go. The parser takes a frame for none of them, but what it made is taken down
// level by level.
static bool too_deep(const std::string &line)
{
    constexpr int DEEP = 16;
    int depth = 0;
    bool text = false;
    for (size_t i = 0; i < line.size() && depth <= DEEP; i++) {
        if (text && line[i] == '\\')
            i++;
        else if (line[i] == '"')
            text = !text;
        else if (!text && (line[i] == '[' || line[i] == '{'))
            depth++;
        else if (!text && (line[i] == ']' || line[i] == '}'))
            depth--;
    }
    return depth > DEEP;
}

ops_json_t ops_record_parse(const std::string &line)
{
    ops_json_t none = ops_json_t::value_t::discarded;
    if (too_deep(line))
        return none;
    ops_json_t record = ops_json_t::parse(line, nullptr, false);
    return record.is_object() ? record : none;
}

// The position of a word in a list; false when it is not there.
template <size_t N>
static bool find_word(const ops_json_t &record, const char *name, const char *const (&words)[N], int *at)
{
    std::string word;
    if (!ops_record_text(record, name, &word))
        return false;
    for (*at = 0; *at < (int)N; ++*at) {
        if (word == words[*at])
            return true;
    }
    return false;
}

static bool take_inst(const ops_json_t &record, const char *app_name, const char *node_name, ops_inst_t *inst)
{
    int64_t app = 0;
    int64_t node = 0;
    if (!ops_record_number(record, app_name, 1, UINT16_MAX, &app) || zeb_valid_app_id((uint32_t)app) == 0 ||
        !ops_record_number(record, node_name, 0, ZEB_NODE_NUM - 1, &node))
        return false;
    *inst = {(uint32_t)app, (uint32_t)node};
    return true;
}

bool ops_record_inst(const ops_json_t &record, ops_inst_t *inst)
{
    return take_inst(record, "app", "node", inst);
}

const char *ops_record_ask(ops_ask_t ask)
{
    return ASKS[ask];
}

ops_json_t ops_record_of_reply(const ops_request_t &request)
{
    ops_json_t record = {{"app", request.inst.app},
                         {"node", request.inst.node},
                         {"outcome", OUTCOMES[request.outcome]},
                         {"took_ms", request.took}};
    if (request.outcome != OPS_ANSWERED)
        record["why"] = ops_record_wide(request.why);
    else if (request.ask == OPS_ASK_STAT)
        record["text"] = ops_record_wide(request.text);
    else
        record["info"] = {{"app", request.info.app}, {"pid", request.info.pid}, {"dbg_mask", request.info.dbg_mask}};
    return record;
}

static bool take_info(const ops_json_t &record, ops_app_info_t *info)
{
    auto found = record.find("info");
    int64_t app = 0;
    int64_t pid = 0;
    int64_t mask = 0;
    if (found == record.end() || !found->is_object() || !ops_record_number(*found, "app", 0, UINT32_MAX, &app) ||
        !ops_record_number(*found, "pid", INT32_MIN, INT32_MAX, &pid) ||
        !ops_record_number(*found, "dbg_mask", 0, UINT32_MAX, &mask))
        return false;
    *info = {(uint32_t)app, (int32_t)pid, (uint32_t)mask};
    return true;
}

bool ops_record_to_reply(const ops_json_t &record, ops_request_t *request)
{
    int outcome = 0;
    std::string text;
    if (!find_word(record, "outcome", OUTCOMES, &outcome) || outcome == OPS_WAITING ||
        !ops_record_number(record, "took_ms", 0, INT64_MAX, &request->took))
        return false;
    if (outcome == OPS_ANSWERED && request->ask != OPS_ASK_STAT) {
        if (!take_info(record, &request->info))
            return false;
    } else if (!ops_record_text(record, outcome == OPS_ANSWERED ? "text" : "why", &text)) {
        return false;
    }
    (outcome == OPS_ANSWERED ? request->text : request->why) = ops_record_narrow(text);
    request->outcome = (ops_outcome_t)outcome;
    return true;
}

static bool of_pair(ops_event_kind_t kind)
{
    return kind == OPS_EVENT_BLOCKED || kind == OPS_EVENT_UNBLOCKED;
}

ops_json_t ops_record_of_event(const ops_event_t &event)
{
    ops_json_t record = {{"at_ms", event.at}, {"event", KINDS[event.kind]}};
    if (event.kind == OPS_EVENT_LOST)
        return record;
    record["app"] = event.inst.app;
    record["node"] = event.inst.node;
    if (of_pair(event.kind)) {
        record["peer_app"] = event.peer.app;
        record["peer_node"] = event.peer.node;
        record["unacknowledged"] = event.unack;
    }
    return record;
}

bool ops_record_to_event(const ops_json_t &record, ops_event_t *event)
{
    int kind = 0;
    int64_t unack = 0;
    *event = {};
    if (!find_word(record, "event", KINDS, &kind) || kind == 0 ||
        !ops_record_number(record, "at_ms", 0, INT64_MAX, &event->at))
        return false;
    event->kind = (ops_event_kind_t)kind;
    if (event->kind == OPS_EVENT_LOST)
        return true;
    if (!ops_record_inst(record, &event->inst))
        return false;
    if (!of_pair(event->kind))
        return true;
    if (!take_inst(record, "peer_app", "peer_node", &event->peer) ||
        !ops_record_number(record, "unacknowledged", INT32_MIN, INT32_MAX, &unack))
        return false;
    event->unack = (int32_t)unack;
    return true;
}

ops_json_t ops_record_of_seen(const ops_seen_t &seen)
{
    return {{"app", seen.inst.app}, {"node", seen.inst.node}, {"sockets", seen.sockets}, {"since_ms", seen.since}};
}

bool ops_record_to_seen(const ops_json_t &record, ops_seen_t *seen)
{
    int64_t sockets = 0;
    if (!record.is_object() || !ops_record_inst(record, &seen->inst) ||
        !ops_record_number(record, "sockets", 0, UINT32_MAX, &sockets) ||
        !ops_record_number(record, "since_ms", 0, INT64_MAX, &seen->since))
        return false;
    seen->sockets = (uint32_t)sockets;
    return true;
}

ops_json_t ops_record_of_process(const ops_process_t &process)
{
    return {{"pid", process.pid},
            {"program", ops_record_wide(process.program)},
            {"started_ms", process.started},
            {"log", ops_record_wide(process.log)},
            {"log_bytes", process.log_bytes}};
}

bool ops_record_to_process(const ops_json_t &record, ops_process_t *process)
{
    int64_t pid = 0;
    if (!record.is_object() || !ops_record_number(record, "pid", 0, INT32_MAX, &pid) ||
        !ops_record_text(record, "program", &process->program) || !ops_record_text(record, "log", &process->log) ||
        !ops_record_number(record, "started_ms", 0, INT64_MAX, &process->started) ||
        !ops_record_number(record, "log_bytes", 0, INT64_MAX, &process->log_bytes))
        return false;
    process->pid = (int32_t)pid;
    process->program = ops_record_narrow(process->program);
    process->log = ops_record_narrow(process->log);
    return true;
}
