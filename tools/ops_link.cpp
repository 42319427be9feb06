#include "ops_link.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ops_record.h"

constexpr int64_t HELLO_TIME = 2000; // ms until a zebd that runs has said so
constexpr int64_t PATIENCE = 5000;   // ms that its answer takes longer than the instances that it asks
constexpr size_t EVENTS_MAX = 4096;  // that nobody has taken yet
constexpr size_t READ_SIZE = 64 << 10;

static int fail(ops_session_t *session, int ret, const std::string &why)
{
    session->why = why;
    return ret;
}

static int gone(ops_session_t *session)
{
    ops_link_close(session);
    return fail(session, -EPIPE, "the zebd of this node went away");
}

void ops_link_close(ops_session_t *session)
{
    if (session->sd != -1)
        (void)close(session->sd);
    session->sd = -1;
    session->in.clear();
    session->in_seen = 0;
    session->follow_id = 0;
    session->by_zebd = false;
}

static bool wait_for(int sd, short what, int64_t deadline)
{
    struct pollfd entry = {sd, what, 0};
    int64_t left = std::min<int64_t>(deadline - ops_now(), INT_MAX);
    return left > 0 && poll(&entry, 1, (int)left) > 0;
}

static int send_record(ops_session_t *session, const ops_json_t &record, int64_t deadline)
{
    std::string line = ops_record_line(record);
    for (size_t sent = 0; sent < line.size();) {
        ssize_t len = send(session->sd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (len > 0)
            sent += (size_t)len;
        else if (errno == EPIPE) // why it was closed may still be there to be read
            return 0;
        else if (errno != EAGAIN && errno != EINTR)
            return gone(session);
        else if (!wait_for(session->sd, POLLOUT, deadline))
            return fail(session, -ETIMEDOUT, "the zebd of this node does not read");
    }
    return 0;
}

// The next whole line. A zebd that writes none within the bound is none.
static int read_line(ops_session_t *session, std::string *line, int64_t deadline)
{
    for (;;) {
        size_t end = session->in.find('\n', session->in_seen);
        if (end != std::string::npos) {
            line->assign(session->in, 0, end);
            session->in.erase(0, end + 1);
            session->in_seen = 0;
            return 0;
        }
        session->in_seen = session->in.size();
        if (session->in.size() > OPS_RECORD_MAX)
            return gone(session);
        char bytes[READ_SIZE];
        ssize_t len = recv(session->sd, bytes, sizeof(bytes), MSG_DONTWAIT);
        if (len > 0)
            session->in.append(bytes, (size_t)len);
        else if (len == 0 || (errno != EAGAIN && errno != EINTR))
            return gone(session);
        else if (!wait_for(session->sd, POLLIN, deadline))
            return fail(session, -ETIMEDOUT, "the zebd of this node does not answer");
    }
}

static void keep_event(ops_session_t *session, const ops_json_t &record)
{
    ops_event_t event = {};
    if (!ops_record_to_event(record, &event))
        return;
    if (session->events.size() < EVENTS_MAX)
        session->events.push_back(event);
    else
        session->events.back() = {event.at, OPS_EVENT_LOST, {}, {}, 0};
}

// The next record that is no event, and its number. Events are kept.
static int read_record(ops_session_t *session, ops_json_t *record, uint32_t *id, int64_t deadline)
{
    std::string line;
    for (;;) {
        int ret = read_line(session, &line, deadline);
        if (ret != 0)
            return ret;
        *record = ops_record_parse(line);
        int64_t number = 0;
        if (!record->is_object() || !ops_record_number(*record, "id", 0, UINT32_MAX, &number))
            continue;
        *id = (uint32_t)number;
        if (session->follow_id == 0 || *id != session->follow_id || record->contains("errno"))
            return 0;
        keep_event(session, *record);
        if (session->waits_event)
            return 0;
    }
}

static int errno_of(const std::string &name)
{
    static const std::pair<const char *, int> numbers[] = {
        {"EACCES", EACCES}, {"ENOENT", ENOENT}, {"EHOSTUNREACH", EHOSTUNREACH}, {"ETIMEDOUT", ETIMEDOUT},
        {"EUSERS", EUSERS}, {"EINVAL", EINVAL}, {"EADDRINUSE", EADDRINUSE},     {"EMSGSIZE", EMSGSIZE}};
    for (const auto &[text, number] : numbers) {
        if (name == text)
            return number;
    }
    return EPROTO;
}

// 0, or the error that the record is.
static int check_error(ops_session_t *session, const ops_json_t &record)
{
    std::string name;
    std::string text;
    if (!ops_record_text(record, "errno", &name))
        return 0;
    (void)ops_record_text(record, "text", &text);
    return fail(session, -errno_of(name), ops_record_narrow(text));
}

// The answer to the request `id`; answers to others, which came too late, are dropped.
static int read_answer(ops_session_t *session, uint32_t id, ops_json_t *record, int64_t deadline)
{
    for (;;) {
        uint32_t got = 0;
        int ret = read_record(session, record, &got, deadline);
        if (ret != 0)
            return ret;
        if (got == id || got == 0)
            return check_error(session, *record);
    }
}

static int call(ops_session_t *session, ops_json_t request, ops_json_t *answer, int64_t deadline)
{
    uint32_t id = ++session->next_id;
    request["id"] = id;
    int ret = send_record(session, request, deadline);
    return ret == 0 ? read_answer(session, id, answer, deadline) : ret;
}

static std::string user_name()
{
    const struct passwd *entry = getpwuid(geteuid());
    return entry == nullptr ? "number " + std::to_string(geteuid()) : entry->pw_name;
}

static int connect_to(ops_session_t *session, const std::string &path)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path))
        return fail(session, -ECONNREFUSED, "the path of zebd's socket is too long: " + path);
    memcpy(addr.sun_path, path.c_str(), path.size());
    int sd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (sd == -1)
        return fail(session, -ECONNREFUSED, std::string("no Unix socket: ") + strerror(errno));
    if (connect(sd, (struct sockaddr *)&addr, sizeof(addr)) == 0) {
        session->sd = sd;
        return 0;
    }
    int err = errno;
    (void)close(sd);
    if (err == EACCES)
        return fail(session, -EACCES,
                    "zebd may be asked by root and the group zeb, and user " + user_name() + " may not open " + path +
                        ". Type: sudo usermod -aG zeb " + user_name());
    if (err == EAGAIN)
        return fail(session, -ETIMEDOUT, "zebd at " + path + " takes no connection");
    return fail(session, -ECONNREFUSED, "no zebd at " + path + ": " + strerror(err));
}

static int greet(ops_session_t *session, const std::string &path, int64_t deadline)
{
    ops_json_t answer;
    int64_t node = 0;
    int ret = call(session, {{"type", "zebd.hello.1"}}, &answer, std::min(deadline, ops_now() + HELLO_TIME));
    if (ret != 0)
        return ret == -EPIPE ? fail(session, -ECONNREFUSED, "zebd at " + path + " went away") : ret;
    if (!ops_record_number(answer, "node", 0, ZEB_NODE_NUM - 1, &node))
        return fail(session, -ECONNREFUSED, "what serves at " + path + " is no zebd");
    if (session->node != (uint32_t)node)
        return fail(session, -EXDEV, "the zebd at " + path + " serves node " + std::to_string(node));
    return 0;
}

int ops_link_open(ops_session_t *session, int64_t deadline)
{
    ops_link_close(session);
    std::string path = ops_zebd_path();
    int ret = connect_to(session, path);
    if (ret == 0)
        ret = greet(session, path, deadline);
    if (ret != 0) {
        std::string why = session->why;
        ops_link_close(session);
        return fail(session, ret, why);
    }
    session->by_zebd = true;
    return 0;
}

int ops_link_view(ops_session_t *session, std::vector<ops_seen_t> *seen, int64_t deadline)
{
    seen->clear();
    uint32_t id = ++session->next_id;
    int ret = send_record(session, {{"type", "zebd.view.1"}, {"id", id}}, deadline);
    for (bool done = false; ret == 0 && !done;) { // a large view comes in several records
        ops_json_t answer;
        ret = read_answer(session, id, &answer, deadline);
        auto insts = answer.find("instances");
        if (ret != 0)
            return ret;
        if (insts == answer.end() || !insts->is_array())
            return fail(session, -EPROTO, "zebd answered something else than a view");
        for (const ops_json_t &record : *insts) {
            ops_seen_t one = {};
            if (ops_record_to_seen(record, &one))
                seen->push_back(one);
        }
        done = !answer.contains("more");
    }
    return ret;
}

// Asking.

typedef struct question_s {
    uint32_t id;
    bool done;
    std::multimap<uint32_t, size_t> waiting; // by ops_name_of: positions of the requests
} question_t;

typedef std::map<uint32_t, question_t> questions_t;

static bool same_question(const ops_request_t &one, const ops_request_t &other)
{
    return one.ask == other.ask && one.set == other.set && one.clear == other.clear;
}

// One record for all requests that ask the same.
static int send_questions(ops_session_t *session, std::vector<ops_request_t> *requests, int64_t timeout,
                          questions_t *questions)
{
    std::vector<bool> taken(requests->size());
    for (size_t first = 0; first < requests->size(); first++) {
        if (taken[first] || (*requests)[first].outcome != OPS_WAITING)
            continue;
        const ops_request_t &like = (*requests)[first];
        uint32_t id = ++session->next_id;
        question_t *question = &questions->emplace(id, question_t{id, false, {}}).first->second;
        ops_json_t insts = ops_json_t::array();
        for (size_t at = first; at < requests->size(); at++) {
            const ops_request_t &request = (*requests)[at];
            if (taken[at] || request.outcome != OPS_WAITING || !same_question(like, request))
                continue;
            taken[at] = true;
            question->waiting.emplace(ops_name_of(request.inst), at);
            insts.push_back({request.inst.app, request.inst.node});
        }
        ops_json_t record = {{"type", "zebd.ask.1"},
                             {"id", id},
                             {"ask", ops_record_ask(like.ask)},
                             {"set", like.set},
                             {"clear", like.clear},
                             {"timeout_ms", timeout},
                             {"insts", insts}};
        int ret = send_record(session, record, ops_now() + PATIENCE);
        if (ret != 0)
            return ret;
    }
    return 0;
}

static void take_answer(question_t *question, std::vector<ops_request_t> *requests, const ops_json_t &record)
{
    ops_inst_t inst = {};
    if (!ops_record_inst(record, &inst))
        return;
    auto found = question->waiting.find(ops_name_of(inst));
    if (found == question->waiting.end())
        return;
    ops_request_t *request = &(*requests)[found->second];
    question->waiting.erase(found);
    if (ops_record_to_reply(record, request))
        return;
    request->outcome = OPS_BROKEN;
    request->why = "zebd passed on something else than a reply";
}

static int read_answers(ops_session_t *session, std::vector<ops_request_t> *requests, int64_t timeout,
                        questions_t *questions)
{
    while (!questions->empty()) {
        ops_json_t record;
        uint32_t id = 0;
        int ret = read_record(session, &record, &id, ops_now() + timeout + PATIENCE);
        if (ret != 0)
            return ret;
        auto found = questions->find(id);
        if (found == questions->end())
            continue;
        ret = check_error(session, record);
        if (ret != 0)
            return ret;
        if (record.contains("done"))
            questions->erase(found);
        else
            take_answer(&found->second, requests, record);
    }
    return 0;
}

int ops_link_ask(ops_session_t *session, std::vector<ops_request_t> *requests, int64_t timeout)
{
    questions_t questions;
    int ret = send_questions(session, requests, timeout, &questions);
    if (ret == 0)
        ret = read_answers(session, requests, timeout, &questions);
    for (ops_request_t &request : *requests) {
        if (request.outcome != OPS_WAITING)
            continue;
        request.outcome = OPS_SILENT;
        request.why = ret == 0 ? "zebd did not ask it" : session->why;
    }
    return ret;
}

// What lies on the disk of another node.

int ops_link_processes(ops_session_t *session, uint32_t node, const std::vector<int32_t> &pids,
                       std::vector<ops_process_t> *processes, int64_t timeout)
{
    for (size_t first = 0; first < pids.size(); first += OPS_PROCESSES_MAX) {
        std::vector<int32_t> some(pids.begin() + (ptrdiff_t)first,
                                  pids.begin() + (ptrdiff_t)std::min(pids.size(), first + OPS_PROCESSES_MAX));
        ops_json_t answer;
        int ret = call(session, {{"type", "zebd.processes.1"}, {"node", node}, {"pids", some}, {"timeout_ms", timeout}},
                       &answer, ops_now() + timeout + PATIENCE);
        auto list = answer.find("processes");
        if (ret != 0)
            return ret;
        if (list == answer.end() || !list->is_array())
            return fail(session, -EPROTO, "zebd answered something else than processes");
        for (const ops_json_t &record : *list) {
            ops_process_t process = {};
            if (ops_record_to_process(record, &process))
                processes->push_back(process);
        }
    }
    return 0;
}

int ops_link_log(ops_session_t *session, uint32_t node, int32_t pid, int64_t offset, std::string *text, int64_t *next,
                 int64_t timeout)
{
    ops_json_t answer;
    std::string wide;
    int ret = call(session,
                   {{"type", "zebd.log.1"}, {"node", node}, {"pid", pid}, {"offset", offset}, {"timeout_ms", timeout}},
                   &answer, ops_now() + timeout + PATIENCE);
    if (ret != 0)
        return ret;
    if (!ops_record_text(answer, "text", &wide) || !ops_record_number(answer, "next", 0, INT64_MAX, next))
        return fail(session, -EPROTO, "zebd answered something else than a part of a log file");
    *text = ops_record_narrow(wide);
    return 0;
}

// Following.

int ops_link_follow(ops_session_t *session, int64_t since, int64_t deadline)
{
    uint32_t id = ++session->next_id;
    session->follow_id = id;
    return send_record(session, {{"type", "zebd.events.1"}, {"id", id}, {"since_ms", since}, {"follow", true}},
                       deadline);
}

int ops_link_wait_event(ops_session_t *session, int64_t deadline)
{
    while (session->events.empty()) {
        ops_json_t record;
        uint32_t id = 0;
        session->waits_event = true;
        int ret = read_record(session, &record, &id, deadline);
        session->waits_event = false;
        if (ret != 0)
            return ret;
        if (id == session->follow_id && check_error(session, record) != 0)
            return -EPROTO;
    }
    return 0;
}
