#include "zebctl_caller.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <poll.h>
#include <set>
#include <tuple>

#include <zeb/zeb_ext.h>

#include "ops_conf.h"
#include "zebctl_progress.h"
#include "zebctl_text.h"

constexpr int64_t JOIN_TIME = 15000; // ms: a start takes one second, a retry of a handshake two
constexpr int64_t LOOK_TIME = 100;   // ms between two looks at counters
constexpr int64_t SLACK = 10000;     // ms that TIPC may hold a write back

const char *zebctl_outcome_word(zebctl_outcome_t outcome)
{
    static const char *const words[] = {"reply",     "dispatched", "sent",   "mismatch", "unavailable",
                                        "failed",    "no_answer",  "quit",   "dropped",  "not_named",
                                        "no_server", "not_online", "pending"};
    return words[outcome];
}

static std::string app_text(uint32_t app)
{
    std::string name = ops_conf_name(app);
    return "application " + std::to_string(app) + (name.empty() ? "" : " (" + name + ")");
}

static int say(int code, const std::string &text)
{
    zebctl_progress("");
    fprintf(stderr, "zebctl: %s\n", text.c_str());
    return code;
}

static bool names(const zebctl_row_t &row, uint32_t from)
{
    const ops_ids_t &named = row.stat.named;
    return row.seen.inst.app == from || std::find(named.begin(), named.end(), from) != named.end();
}

// Asks the instances who they are and whom they have named. When nobody may be asked, an id that was given is tried.
static int look_at_instances(zebctl_caller_t *caller, const zebctl_target_t &target)
{
    int code = zebctl_select(&caller->rows, target);
    if (code != ZEBCTL_OK)
        return code;
    int ret = zebctl_ask_identity(&caller->rows);
    if (ret == 0)
        ret = zebctl_ask_statistics(&caller->rows);
    if (ret != 0 && caller->from == 0)
        return say(ZEBCTL_ERROR, caller->rows.session.why +
                                     ". So it is not known whom the instances have named: give an id with --from");
    return ZEBCTL_OK;
}

typedef struct ids_s {
    std::set<uint32_t> here;     // published on this node
    std::set<uint32_t> anywhere; // in the cluster
} ids_t;

static int published_ids(zebctl_caller_t *caller, ids_t *ids)
{
    std::vector<ops_seen_t> seen;
    if (ops_session_view(&caller->rows.session, &seen, ops_now() + ZEBCTL_VIEW_TIME) != 0)
        return say(ZEBCTL_ERROR, caller->rows.session.why);
    for (const ops_seen_t &one : seen) {
        ids->anywhere.insert(one.inst.app);
        if (one.inst.node == caller->rows.session.node)
            ids->here.insert(one.inst.app);
    }
    return ZEBCTL_OK;
}

// The id that most of the instances know, and that no process of this node has; first one that nobody has at all. The
// instances' own id is the last choice. 0 when there is none.
static uint32_t best_id(const zebctl_caller_t *caller, const ids_t &ids)
{
    std::map<uint32_t, int> known;
    for (const zebctl_row_t &row : caller->rows.rows) {
        std::set<uint32_t> once(row.stat.named.begin(), row.stat.named.end());
        once.insert(row.seen.inst.app);
        for (uint32_t app : once)
            known[app]++;
    }
    typedef std::tuple<int, bool, bool, uint32_t> rank_t; // the least is the best
    rank_t best = {1, false, false, 0};
    for (const auto &[app, times] : known) {
        if (zeb_valid_app_id(app) != 0 && app != ZEBD_APP_ID && ids.here.count(app) == 0)
            best = std::min(best, rank_t(-times, app == caller->app, ids.anywhere.count(app) != 0, app));
    }
    return std::get<3>(best);
}

static std::string named_text(const zebctl_caller_t *caller)
{
    std::set<uint32_t> named;
    for (const zebctl_row_t &row : caller->rows.rows)
        named.insert(row.stat.named.begin(), row.stat.named.end());
    ops_ids_t ids(named.begin(), named.end());
    return ids.empty() ? "it has named none" : "it has named " + zebctl_joined(ids, ", ");
}

static int choose_id(zebctl_caller_t *caller)
{
    ids_t ids;
    int code = published_ids(caller, &ids);
    if (code != ZEBCTL_OK)
        return code;
    std::string node = "node " + std::to_string(caller->rows.session.node);
    if (caller->from == 0) {
        caller->from = best_id(caller, ids);
        if (caller->from == 0)
            return say(ZEBCTL_ERROR, app_text(caller->app) + " talks to no id that is free on " + node + " (" +
                                         named_text(caller) +
                                         "). Call from another node, or let the application name "
                                         "one more with zeb_comm_with");
        return ZEBCTL_OK;
    }
    if (ids.here.count(caller->from) != 0)
        return say(ZEBCTL_ERROR, app_text(caller->from) + " runs on " + node +
                                     " already, and two processes must not share it. Call from another node, or as "
                                     "another application with --from: " +
                                     named_text(caller));
    return ZEBCTL_OK;
}

// What is known before anything is sent.
static zebctl_answer_t expectation(const zebctl_caller_t *caller, const zebctl_row_t &row)
{
    zebctl_answer_t answer = {};
    answer.inst = row.seen.inst;
    answer.outcome = ZEBCTL_PENDING;
    if (!zebctl_has_application(row))
        return answer;
    if (row.stat.versions.empty()) {
        answer.outcome = ZEBCTL_CLIENT;
        answer.why = "a client: it has no dispatcher";
    } else if (!names(row, caller->from)) {
        ops_ids_t named = row.stat.named;
        answer.outcome = ZEBCTL_NOT_NAMED;
        answer.why = "it has not named " + app_text(caller->from) + ", but " +
                     (named.empty() ? "none" : zebctl_joined(named, ", ")) +
                     ": take one of these with --from, or let it call zeb_comm_with";
    }
    return answer;
}

// What the program prints is ours: the library's lines go nowhere.
static void drop_line(void *, int, const char *, int, const struct timespec *, const char *)
{
}

static int refused(const char *what, int ret)
{
    std::string why = zeb_last_error();
    return say(ZEBCTL_ERROR, std::string(what) + ": " + (why.empty() ? zeb_strerror(ret) : why));
}

static int register_id(const zebctl_caller_t *caller)
{
    static const zeb_app_dispatcher_t none[] = {{0, nullptr, nullptr}};
    (void)setenv("ZEB_DEBUG", "none", 1);          // else a mask of zeb.conf would print between our lines
    (void)setenv("VELK_DIR", "/proc/no_files", 1); // nor is our log of use to anyone
    (void)zeb_set_log_handler(drop_line, nullptr);
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = caller->from;
    options.mode = ZEB_APP_POLLED;
    options.name = "zebctl";
    options.dispatchers = none;
    int ret = zeb_register_app(&options);
    if (ret == 0 && caller->from != caller->app)
        ret = zeb_comm_with(caller->from, caller->app);
    if (ret != 0)
        return refused("the registration failed", ret);
    zeb_run();
    return ZEBCTL_OK;
}

static bool is_online(const zebctl_caller_t *caller, ops_inst_t inst, uint32_t *phase)
{
    zeb_peer_state_t state = {};
    (void)zeb_peer_state(caller->from, inst.app, inst.node, &state);
    *phase = state.phase;
    return state.phase >= ZEB_PEER_ONLINE && state.server != 0;
}

// Waits until each instance that may come online has done so, or the time is over.
static void join(zebctl_caller_t *caller)
{
    int64_t deadline = ops_now() + JOIN_TIME;
    for (zebctl_answer_t &answer : caller->answers) {
        int64_t left = deadline - ops_now();
        if (answer.outcome == ZEBCTL_PENDING && left > 0)
            (void)zeb_wait_online(caller->from, answer.inst.app, answer.inst.node, 1, (uint32_t)left);
        uint32_t phase = 0;
        if (answer.outcome != ZEBCTL_PENDING || is_online(caller, answer.inst, &phase))
            continue;
        answer.outcome = ZEBCTL_NOT_ONLINE;
        answer.why = phase == ZEB_PEER_HANDSHAKING
                         ? "it does not complete a handshake with " + app_text(caller->from) + " in " +
                               std::to_string(JOIN_TIME / 1000) + " s: it must name it with zeb_comm_with"
                         : (phase == ZEB_PEER_UNKNOWN ? "its name is no longer published" : "it has no dispatcher");
    }
}

int zebctl_caller_begin(zebctl_caller_t *caller, const zebctl_t *zebctl, const zebctl_target_t &target)
{
    zebctl_progress("asking the instances whom they have named");
    int code = zebctl_open(&caller->rows, zebctl);
    if (code == ZEBCTL_OK)
        code = look_at_instances(caller, target);
    if (code == ZEBCTL_OK)
        code = choose_id(caller);
    if (code != ZEBCTL_OK)
        return code;
    for (const zebctl_row_t &row : caller->rows.rows)
        caller->answers.push_back(expectation(caller, row));
    auto reachable = [](const zebctl_answer_t &answer) { return answer.outcome == ZEBCTL_PENDING; };
    if (std::none_of(caller->answers.begin(), caller->answers.end(), reachable))
        return ZEBCTL_OK;
    zebctl_progress("joining as application " + std::to_string(caller->from));
    zebctl_limit(JOIN_TIME + 2 * caller->timeout + SLACK, "TIPC held a message back for too long. Type: zebctl doctor");
    code = register_id(caller);
    if (code == ZEBCTL_OK)
        join(caller);
    return code;
}

static zeb_msg_t *new_message(const zebctl_caller_t *caller)
{
    zeb_msg_t *msg = zeb_msg_alloc((int)caller->body.size(), caller->version, 0);
    if (msg != nullptr && !caller->body.empty())
        memcpy(msg->data, caller->body.data(), caller->body.size());
    return msg;
}

static void fail(zebctl_answer_t *answer, int ret)
{
    std::string why = zeb_last_error();
    answer->outcome = ret == -ENOENT ? ZEBCTL_QUIT : ZEBCTL_FAILED;
    answer->why = why.empty() ? zeb_strerror(ret) : why;
}

// The range comes in the byte order of the server: of the two readings the one in order, and with the smaller numbers.
static zeb_mismatch_info_t read_range(const zeb_msg_t *msg)
{
    zeb_mismatch_info_t range = {};
    if (zeb_msg_size(msg) < sizeof(range))
        return range;
    memcpy(&range, msg->data, sizeof(range));
    zeb_mismatch_info_t other = {__builtin_bswap32(range.low), __builtin_bswap32(range.high)};
    bool swapped = other.low <= other.high && (range.low > range.high || other.high < range.high);
    return swapped ? other : range;
}

static std::string range_text(const zeb_mismatch_info_t &range)
{
    return "it has dispatchers of the versions " + std::to_string(range.low) + " to " + std::to_string(range.high);
}

static void take_outcome(zebctl_caller_t *caller, zebctl_answer_t *answer, zeb_msg_t *msg)
{
    uint32_t phase = 0;
    answer->outcome = ZEBCTL_FAILED;
    answer->why = zeb_reply_status_text(msg->hdr.rpc_stat);
    switch (msg->hdr.rpc_stat) {
    case ZEB_SUCCESS:
        answer->outcome = ZEBCTL_REPLY;
        answer->why.clear();
        answer->body.assign((const char *)msg->data, zeb_msg_size(msg));
        return;
    case ZEB_APP_MISMATCH:
        answer->outcome = ZEBCTL_MISMATCH;
        answer->range = read_range(msg);
        answer->why = range_text(answer->range);
        return;
    case ZEB_APP_UNAVAIL:
        answer->outcome = ZEBCTL_UNAVAILABLE;
        return;
    case ZEB_TIMEOUT:
        answer->outcome = ZEBCTL_NO_ANSWER;
        answer->why =
            "no answer in " + std::to_string(caller->timeout) + " ms. Type: zebctl ping " + ops_inst_text(answer->inst);
        return;
    default:
        if (!is_online(caller, answer->inst, &phase))
            answer->outcome = ZEBCTL_QUIT;
        answer->why = answer->outcome == ZEBCTL_QUIT ? "it quit before it answered" : "it answered without a reply";
    }
}

// What a completed call is told.
typedef struct pending_s {
    zebctl_caller_t *caller;
    zebctl_answer_t *answer;
} pending_t;

static void on_done(uint32_t, zeb_reply_msg_t *replies, void *context)
{
    const pending_t *pending = (const pending_t *)context;
    pending->answer->took = ops_now() - pending->answer->begun;
    pending->caller->waiting--;
    if (replies->num == 1)
        take_outcome(pending->caller, pending->answer, replies->msg[0]);
    else
        fail(pending->answer, -ENOENT);
}

// Dispatches what comes until no call waits; each has a limit of its own, and the library keeps it.
static void dispatch_all(zebctl_caller_t *caller)
{
    int64_t deadline = ops_now() + caller->timeout + SLACK;
    struct pollfd entry = {zeb_app_fd(caller->from), POLLIN, 0};
    while (caller->waiting != 0 && ops_now() < deadline) {
        (void)poll(&entry, 1, 100);
        (void)zeb_dispatch(caller->from, INT_MAX);
    }
}

void zebctl_caller_call(zebctl_caller_t *caller)
{
    zebctl_progress("waiting for replies");
    std::vector<pending_t> pending;
    pending.reserve(caller->answers.size()); // pointers to its elements are given away
    zeb_msg_t *msg = new_message(caller);
    for (zebctl_answer_t &answer : caller->answers) {
        if (answer.outcome != ZEBCTL_PENDING)
            continue;
        pending.push_back({caller, &answer});
        answer.begun = ops_now();
        caller->waiting++;
        int ret = zeb_rpc_async(caller->from, answer.inst.node, answer.inst.app, msg, 0, (uint32_t)caller->timeout,
                                on_done, &pending.back(), nullptr);
        if (ret == 0)
            continue;
        caller->waiting--;
        fail(&answer, ret);
    }
    zeb_msg_free(msg);
    dispatch_all(caller);
}

// Counters of what the instance got from us. False when it did not tell.
static bool counters(const zebctl_caller_t *caller, const ops_request_t &request, uint32_t *dispatched,
                     uint32_t *dropped)
{
    *dispatched = *dropped = 0;
    if (request.outcome != OPS_ANSWERED)
        return false;
    ops_stat_t stat = ops_stat_parse(request.text.data(), request.text.size());
    for (const ops_flow_recv_t &flow : stat.recvs) {
        if (flow.src.app != caller->from || flow.src.node != caller->rows.session.node)
            continue;
        *dispatched = flow.recv;
        *dropped = flow.drop;
    }
    return (stat.parts & OPS_STAT_FLOW) != 0;
}

// Asks the instances with that outcome for their statistics. False when they cannot be asked.
static bool ask_those(zebctl_caller_t *caller, zebctl_outcome_t outcome, int64_t timeout,
                      std::vector<ops_request_t> *requests, std::vector<zebctl_answer_t *> *asked)
{
    requests->clear();
    asked->clear();
    for (zebctl_answer_t &answer : caller->answers) {
        if (answer.outcome != outcome)
            continue;
        requests->push_back(ops_request(answer.inst, OPS_ASK_STAT));
        asked->push_back(&answer);
    }
    return ops_session_ask(&caller->rows.session, requests, timeout) == 0;
}

static void take_counters(const zebctl_caller_t *caller, const ops_request_t &request, zebctl_answer_t *answer)
{
    uint32_t dispatched = 0;
    uint32_t dropped = 0;
    answer->took = ops_now() - answer->begun;
    if (!counters(caller, request, &dispatched, &dropped))
        return;
    if (dispatched > answer->counted)
        answer->outcome = ZEBCTL_DISPATCHED;
    else if (dropped > answer->counted_drops)
        answer->outcome = ZEBCTL_DROPPED;
}

static void send_one(zebctl_caller_t *caller, zebctl_answer_t *answer, zeb_msg_t *msg)
{
    int64_t deadline = ops_now() + caller->timeout;
    int ret = 0;
    answer->begun = ops_now();
    do {
        ret = zeb_sendto(caller->from, answer->inst.node, answer->inst.app, msg, ZEB_SEND_NOWAIT);
        if (ret == -EAGAIN)
            (void)poll(nullptr, 0, (int)LOOK_TIME);
    } while (ret == -EAGAIN && ops_now() < deadline);
    answer->outcome = ZEBCTL_SENT;
    if (ret != 0)
        fail(answer, ret);
}

// Asks until each message was dispatched. A message that still waits when its sender quits is dropped, so this also
// keeps us there as long as it has time.
static void await_dispatch(zebctl_caller_t *caller)
{
    int64_t deadline = ops_now() + caller->timeout;
    std::vector<ops_request_t> requests;
    std::vector<zebctl_answer_t *> asked;
    for (;;) {
        bool told = ask_those(caller, ZEBCTL_SENT, std::max<int64_t>(1, deadline - ops_now()), &requests, &asked);
        for (size_t i = 0; told && i < asked.size(); i++)
            take_counters(caller, requests[i], asked[i]);
        if (asked.empty() || ops_now() >= deadline)
            return;
        (void)poll(nullptr, 0, (int)LOOK_TIME);
    }
}

static void explain(const zebctl_caller_t *caller, zebctl_answer_t *answer)
{
    if (answer->outcome == ZEBCTL_SENT)
        answer->why = "not seen to be dispatched in " + std::to_string(caller->timeout) +
                      " ms, and dropped if it still waits. Type: zebctl ping " + ops_inst_text(answer->inst);
    if (answer->outcome == ZEBCTL_DROPPED)
        answer->why = "it dropped the message as one of an unknown sender";
}

// A message of a version without a dispatcher counts as dispatched; the statistics say which there are.
static void find_mismatch(const zebctl_caller_t *caller, zebctl_answer_t *answer)
{
    for (const zebctl_row_t &row : caller->rows.rows) {
        const ops_ids_t &versions = row.stat.versions;
        if (row.seen.inst.node != answer->inst.node || row.seen.inst.app != answer->inst.app || versions.empty() ||
            std::find(versions.begin(), versions.end(), caller->version) != versions.end())
            continue;
        answer->outcome = ZEBCTL_MISMATCH;
        answer->range = {*std::min_element(versions.begin(), versions.end()),
                         *std::max_element(versions.begin(), versions.end())};
        answer->why = range_text(answer->range);
    }
}

void zebctl_caller_send(zebctl_caller_t *caller)
{
    zebctl_progress("waiting until it is dispatched");
    std::vector<ops_request_t> requests;
    std::vector<zebctl_answer_t *> asked;
    bool told = ask_those(caller, ZEBCTL_PENDING, caller->timeout, &requests, &asked);
    for (size_t i = 0; told && i < asked.size(); i++)
        (void)counters(caller, requests[i], &asked[i]->counted, &asked[i]->counted_drops);
    zeb_msg_t *msg = new_message(caller);
    for (zebctl_answer_t *answer : asked)
        send_one(caller, answer, msg);
    zeb_msg_free(msg);
    await_dispatch(caller);
    for (zebctl_answer_t *answer : asked) {
        explain(caller, answer);
        if (answer->outcome == ZEBCTL_DISPATCHED)
            find_mismatch(caller, answer);
    }
}

void zebctl_caller_end(zebctl_caller_t *caller)
{
    (void)zeb_stop();
    zebctl_limit(0, "");
    zebctl_progress("");
    zebctl_close(&caller->rows);
}
