#include "zebd_request.h"

#include <cerrno>
#include <iterator>

#include "ops_record.h"

constexpr int64_t TIMEOUT_MAX = 3600000; // ms
constexpr uint32_t LEVELS = 15;          // all of them, as a mask
constexpr size_t INSTS_MAX = OPS_VIEW_MAX;

typedef bool (*take_t)(const ops_json_t &record, zebd_request_t *request);

static bool take_number(const ops_json_t &record, const char *name, uint32_t max, uint32_t *number)
{
    int64_t value = 0;
    if (!ops_record_number(record, name, 0, max, &value))
        return false;
    *number = (uint32_t)value;
    return true;
}

static bool take_nothing(const ops_json_t & /*record*/, zebd_request_t * /*request*/)
{
    return true;
}

static bool take_timeout(const ops_json_t &record, zebd_request_t *request)
{
    return ops_record_number(record, "timeout_ms", 1, TIMEOUT_MAX, &request->timeout);
}

static bool take_which(const ops_json_t &record, zebd_request_t *request)
{
    std::string word;
    if (!ops_record_text(record, "ask", &word))
        return false;
    for (ops_ask_t ask : {OPS_ASK_INFO, OPS_ASK_STAT, OPS_ASK_DEBUG}) {
        request->ask = ask;
        if (word == ops_record_ask(ask))
            return true;
    }
    return false;
}

// [app, node]
static bool take_pair(const ops_json_t &pair, ops_inst_t *inst)
{
    if (!pair.is_array() || pair.size() != 2)
        return false;
    ops_json_t record = {{"app", pair[0]}, {"node", pair[1]}};
    return ops_record_inst(record, inst);
}

static bool take_ask(const ops_json_t &record, zebd_request_t *request)
{
    auto insts = record.find("insts");
    if (!take_which(record, request) || !take_timeout(record, request) || insts == record.end() || !insts->is_array() ||
        insts->size() > INSTS_MAX)
        return false;
    if (request->ask == OPS_ASK_DEBUG &&
        (!take_number(record, "set", LEVELS, &request->set) || !take_number(record, "clear", LEVELS, &request->clear)))
        return false;
    for (const ops_json_t &pair : *insts) {
        ops_inst_t inst = {};
        if (!take_pair(pair, &inst))
            return false;
        request->insts.push_back(inst);
    }
    return true;
}

static bool take_events(const ops_json_t &record, zebd_request_t *request)
{
    auto follow = record.find("follow");
    if (follow == record.end() || !follow->is_boolean())
        return false;
    request->follow = follow->get<bool>();
    return ops_record_number(record, "since_ms", 0, INT64_MAX, &request->since);
}

static bool take_history(const ops_json_t &record, zebd_request_t *request)
{
    return ops_record_inst(record, &request->inst);
}

static bool take_pids(const ops_json_t &record, zebd_request_t *request)
{
    auto pids = record.find("pids");
    if (pids == record.end() || !pids->is_array() || pids->size() > OPS_PROCESSES_MAX)
        return false;
    for (const ops_json_t &pid : *pids) {
        int64_t number = 0;
        if (!ops_record_number({{"pid", pid}}, "pid", 1, INT32_MAX, &number))
            return false;
        request->pids.push_back((int32_t)number);
    }
    return true;
}

static bool take_pid_and_offset(const ops_json_t &record, zebd_request_t *request)
{
    int64_t pid = 0;
    if (!ops_record_number(record, "pid", 1, INT32_MAX, &pid))
        return false;
    request->pids = {(int32_t)pid};
    return ops_record_number(record, "offset", -INT64_MAX, INT64_MAX, &request->offset);
}

static bool take_processes(const ops_json_t &record, zebd_request_t *request)
{
    return take_number(record, "node", ZEB_NODE_NUM - 1, &request->node) && take_timeout(record, request) &&
           take_pids(record, request);
}

static bool take_log(const ops_json_t &record, zebd_request_t *request)
{
    return take_number(record, "node", ZEB_NODE_NUM - 1, &request->node) && take_timeout(record, request) &&
           take_pid_and_offset(record, request);
}

static const struct {
    const char *name;
    take_t take;
} TYPES[] = {
    {"zebd.hello.1", take_nothing}, {"zebd.view.1", take_nothing},    {"zebd.ask.1", take_ask},
    {"zebd.events.1", take_events}, {"zebd.history.1", take_history}, {"zebd.processes.1", take_processes},
    {"zebd.log.1", take_log},
};
static_assert(std::size(TYPES) == ZEBD_LOG + 1, "a line for each type");

int zebd_request_parse(const std::string &line, zebd_request_t *request, std::string *why)
{
    *request = zebd_request_t();
    ops_json_t record = ops_record_parse(line);
    std::string name;
    *why = "the line is no JSON object with a type and an id from 1 on";
    if (!record.is_object() || !take_number(record, "id", UINT32_MAX, &request->id) || request->id == 0 ||
        !ops_record_text(record, "type", &name))
        return -EINVAL;
    for (size_t type = 0; type < std::size(TYPES); type++) {
        if (name != TYPES[type].name)
            continue;
        request->type = (zebd_type_t)type;
        *why = "a member of " + name + " is missing, of another type, or out of range";
        return TYPES[type].take(record, request) ? 0 : -EINVAL;
    }
    *why = "the type is unknown";
    return -ENOSYS;
}

bool zebd_request_parse_peer(const void *body, size_t len, zebd_request_t *request)
{
    *request = zebd_request_t();
    ops_json_t record = ops_record_parse(std::string((const char *)body, len));
    std::string name;
    if (!record.is_object() || !ops_record_text(record, "type", &name))
        return false;
    request->type = name == "processes" ? ZEBD_PROCESSES : ZEBD_LOG;
    if (name == "processes")
        return take_pids(record, request);
    return name == "log" && take_pid_and_offset(record, request);
}

std::string zebd_request_peer(const zebd_request_t &request)
{
    ops_json_t record;
    if (request.type == ZEBD_PROCESSES)
        record = {{"type", "processes"}, {"pids", request.pids}};
    else
        record = {{"type", "log"}, {"pid", request.pids[0]}, {"offset", request.offset}};
    return record.dump();
}

bool zebd_line_take(std::string *in, size_t *seen, std::string *line)
{
    size_t end = in->find('\n', *seen);
    if (end == std::string::npos) {
        *seen = in->size();
        return false;
    }
    line->assign(*in, 0, end);
    in->erase(0, end + 1);
    *seen = 0;
    return true;
}
