// lib/zeb_handshake_table.h, with the phases of lib/zeb_handshake_state.cpp, against the core itself: from nothing
// known, every event in every state that the core can get into, and what it does then is what the table says. The core
// is alone here, with effects that record.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "handshake_dot.h"
#include "platform/list_algo.h"
#include "zeb_handshake_record.h"
#include "zeb_handshake_table.h"

namespace
{
constexpr uint32_t MY_APP = 100;
constexpr zeb_inst_t THE_PEER = {200, 9};
constexpr uint32_t LAST_SEQ = 5000; // of the peer's synchronisations
constexpr uint32_t NO_SEQ = 999999; // of none, neither side's
constexpr uint32_t PROCESS = 1;     // of the peer; its other process is the next number
constexpr int NO_EVENT = -1;        // nothing that the table names

typedef enum input_kind_e : int {
    IN_PUBLISHED,
    IN_WITHDRAWN,
    IN_REOPENED,
    IN_REPORTED,
    IN_SYNC,
    IN_ACK,     // of our last synchronisation, with the peer's last as pseq
    IN_ACK_0,   // with none
    IN_ACK_77,  // with another
    IN_ACK_OFF, // of none of ours
    IN_ACK_OLD, // of version 1
    IN_MESSAGE,
    IN_RETRY,
    IN_MINUTE,
    IN_RESUME,
    IN_RESUME_UNSENT,
    IN_RESUME_OTHER,
} input_kind_t;

typedef struct input_s {
    input_kind_t kind;
    uint32_t seq;
    uint32_t process;
    uint32_t resume;
    uint8_t ver;
    int send_error; // of the synchronisations that it makes us send
    const char *text;
} input_t;

typedef struct core_s {
    zeb_handshake_t hs;
    uint32_t server;
    int send_error;
    uint32_t last_seq; // given out
    std::vector<unsigned> done;
    int retry_starts;
} core_t;

core_t *core_of(void *ctx)
{
    return static_cast<core_t *>(ctx);
}

uint32_t get_seq(void *ctx)
{
    return ++core_of(ctx)->last_seq;
}

uint32_t get_id(void *)
{
    return 42;
}

bool is_server(void *, uint32_t)
{
    return true;
}

int start_timer(void *ctx, unsigned, zeb_timer_t timer)
{
    if (timer.type == ZEB_TIMER_TYPE_INST_RETRY)
        core_of(ctx)->retry_starts++;
    else
        core_of(ctx)->done.push_back(ZEB_PAIR_DO_AWAIT);
    return 0;
}

int send_sync(void *ctx, uint32_t, zeb_inst_t, const zeb_msg_sync_inst_t *body)
{
    if (core_of(ctx)->send_error != 0)
        return -core_of(ctx)->send_error;
    core_of(ctx)->done.push_back(body->resume != 0 ? ZEB_PAIR_DO_SYNC_RESUME : ZEB_PAIR_DO_SYNC);
    return 0;
}

void resend_sync(void *ctx, uint32_t, zeb_inst_t, const zeb_msg_sync_inst_t *)
{
    core_of(ctx)->done.push_back(ZEB_PAIR_DO_RESEND);
}

// The pseq is the one that the table's head says.
void send_ack(void *ctx, uint32_t, zeb_inst_t, const zeb_msg_sync_inst_ack_t *body)
{
    const zeb_inst_id_t *id = zeb_get_inst_id(&core_of(ctx)->hs, MY_APP, THE_PEER);
    ASSERT_NE(id, nullptr);
    EXPECT_EQ(body->pseq, id->sync_id == id->sync_ack_id ? id->send_seq : 0);
    core_of(ctx)->done.push_back(ZEB_PAIR_DO_ACK);
}

int resend_ack(void *, const zeb_returned_ack_t *)
{
    ADD_FAILURE() << "nothing came back";
    return 0;
}

void count(void *, zeb_hs_count_t, uint32_t, zeb_inst_t, int)
{
}

void forget_peer(void *, uint32_t, zeb_inst_t, bool)
{
}

void end_calls(void *, uint32_t, zeb_inst_t)
{
}

void notify_join(void *ctx, uint32_t, zeb_inst_t)
{
    core_of(ctx)->done.push_back(ZEB_PAIR_DO_JOIN);
}

void notify_quit(void *ctx, uint32_t, zeb_inst_t)
{
    core_of(ctx)->done.push_back(ZEB_PAIR_DO_QUIT);
}

void unsubscribe(void *, uint32_t)
{
}

bool log_on(void *, zeb_dbg_level_t)
{
    return false;
}

__attribute__((format(printf, 5, 6))) void log_line(void *, zeb_dbg_level_t, const char *, int, const char *, ...)
{
}

const zeb_hs_effects_t s_effects = {
    get_seq, get_id,      is_server, start_timer, send_sync,   resend_sync, send_ack, resend_ack,
    count,   forget_peer, end_calls, notify_join, notify_quit, unsubscribe, log_on,   log_line,
};

void begin(core_t *core, uint32_t server)
{
    zeb_hs_init(&core->hs, &s_effects, core);
    core->server = server;
    core->send_error = 0;
    core->last_seq = 0;
    zeb_hs_add_comm_app(&core->hs, MY_APP, THE_PEER.app);
}

// What the core remembers of the pair.
zeb_inst_id_t record(const core_t *core)
{
    const zeb_inst_id_t *id = zeb_get_inst_id(&core->hs, MY_APP, THE_PEER);
    return id == nullptr ? zeb_inst_id_t{} : *id;
}

uint32_t pending_seq(const core_t *core)
{
    const zeb_pending_sync_t *pending = indexed_list_find(&core->hs.inst_sync, zeb_inst_key(THE_PEER));
    return pending == nullptr ? 0 : pending->body.seq;
}

int pending_num(const core_t *core)
{
    return indexed_list_num(&core->hs.inst_sync);
}

// Those that another minute makes old enough for being sent again.
int old_num(const core_t *core)
{
    int num = 0;
    indexed_list_each(&core->hs.inst_sync, [&](const zeb_pending_sync_t *pending) {
        num += pending->minutes == ZEB_UNANSWERED_MINUTES - 1 ? 1 : 0;
    });
    return num;
}

int young_num(const core_t *core)
{
    int num = 0;
    indexed_list_each(&core->hs.inst_sync,
                      [&](const zeb_pending_sync_t *pending) { num += pending->minutes == 0 ? 1 : 0; });
    return num;
}

uint32_t resume_seq(const core_t *core, zeb_resume_kind_t kind)
{
    const zeb_resume_comm_t *resume = zeb_get_resume_comm(&core->hs, THE_PEER, kind);
    return resume == nullptr ? NO_SEQ : resume->seq;
}

bool resumes(const core_t *core, zeb_resume_kind_t kind)
{
    return resume_seq(core, kind) != NO_SEQ;
}

// Yet another process has used the name since the timer was started.
bool asks_again(const core_t *core)
{
    const zeb_resume_comm_t *resume = zeb_get_resume_comm(&core->hs, THE_PEER, ZEB_RESUME_OTHER_PROCESS);
    return resume != nullptr && resume->again;
}

bool unreported(const core_t *core)
{
    return zeb_app_set_test(&zeb_hs_get_ol_app(&core->hs, THE_PEER.app)->unreported_bmp, THE_PEER.node);
}

bool is_server_known(const core_t *core)
{
    return zeb_app_set_test(&zeb_hs_get_ol_app(&core->hs, THE_PEER.app)->srv_bmp, THE_PEER.node);
}

zeb_pair_phase_t phase_of(const core_t *core)
{
    return zeb_hs_pair_phase(&core->hs, MY_APP, THE_PEER);
}

void send_seq_ack(core_t *core, uint32_t seq, uint32_t process, uint32_t pseq)
{
    zeb_msg_sync_inst_ack_t body = {{seq, process, core->server, 0, 0}, pseq};
    zeb_hs_recv_seq_ack(&core->hs, MY_APP, THE_PEER, &body);
}

void happen(core_t *core, const input_t &input)
{
    core->send_error = input.send_error;
    zeb_handshake_t *hs = &core->hs;
    zeb_msg_sync_inst_t sync = {input.seq, input.process, core->server, input.resume, 0};
    zeb_msg_sync_inst_t old_ack = {pending_seq(core), input.process, core->server, 0, 0};
    uint32_t recv_seq = record(core).recv_seq;
    switch (input.kind) {
    case IN_PUBLISHED:
        return zeb_hs_published(hs, THE_PEER);
    case IN_WITHDRAWN:
        return zeb_hs_withdrawn(hs, THE_PEER);
    case IN_REOPENED:
        return zeb_hs_topology_reopened(hs);
    case IN_REPORTED:
        return zeb_hs_topology_reported(hs);
    case IN_SYNC:
        return zeb_hs_recv_sync(hs, MY_APP, THE_PEER, input.ver, &sync);
    case IN_ACK:
        return send_seq_ack(core, pending_seq(core), input.process, recv_seq);
    case IN_ACK_0:
        return send_seq_ack(core, pending_seq(core), input.process, 0);
    case IN_ACK_77:
        return send_seq_ack(core, pending_seq(core), input.process, 77);
    case IN_ACK_OFF:
        return send_seq_ack(core, NO_SEQ, input.process, recv_seq);
    case IN_ACK_OLD:
        return zeb_hs_recv_ack(hs, MY_APP, THE_PEER, &old_ack);
    case IN_MESSAGE:
        return zeb_hs_recv_traffic(hs, MY_APP, THE_PEER);
    case IN_RETRY:
        return zeb_hs_timer(hs, {ZEB_TIMER_TYPE_INST_RETRY, 0});
    case IN_MINUTE:
        return zeb_hs_minute(hs);
    case IN_RESUME:
        return zeb_hs_timer(hs, {ZEB_TIMER_TYPE_RESUME, resume_seq(core, ZEB_RESUME_PEER)});
    case IN_RESUME_UNSENT:
        return zeb_hs_timer(hs, {ZEB_TIMER_TYPE_RESUME, resume_seq(core, ZEB_RESUME_UNSENT)});
    case IN_RESUME_OTHER:
        return zeb_hs_timer(hs, {ZEB_TIMER_TYPE_RESUME, resume_seq(core, ZEB_RESUME_OTHER_PROCESS)});
    }
}

// Which of the table's events an input is for the core as it is.

// The process that synchronised is the one that acknowledged.
bool is_one_process(const core_t *core)
{
    zeb_inst_id_t id = record(core);
    return id.sync_id == id.sync_ack_id && id.sync_id != 0;
}

int sync_event(const core_t *core, const input_t &input)
{
    if (input.resume != 0)
        return ZEB_PAIR_SYNC_RESUME;
    zeb_inst_id_t id = record(core);
    if (phase_of(core) == ZEB_PAIR_ONLINE) {
        bool other = is_one_process(core) && input.process != id.sync_id;
        return other ? ZEB_PAIR_SYNC_OTHER : ZEB_PAIR_SYNC;
    }
    bool synced = zeb_hs_get_inst_state(&core->hs, THE_PEER).instance;
    if (!synced && id.recv_seq != 0 && id.recv_seq != input.seq)
        return ZEB_PAIR_SYNC_NEW;
    bool other = phase_of(core) == ZEB_PAIR_ACKED && input.process != id.sync_ack_id;
    return other ? ZEB_PAIR_SYNC_OTHER : ZEB_PAIR_SYNC;
}

int ack_event(const core_t *core, const input_t &input)
{
    zeb_inst_id_t id = record(core);
    if (pending_seq(core) == 0)
        return NO_EVENT;
    if (input.kind == IN_ACK && id.recv_seq == 0)
        return NO_EVENT; // its pseq is 0
    return id.recv_seq != 0 && input.process != id.sync_id ? ZEB_PAIR_ACK_OTHER : ZEB_PAIR_ACK;
}

int foreign_ack_event(const core_t *core, const input_t &input)
{
    if (pending_seq(core) == 0)
        return NO_EVENT;
    if (phase_of(core) != ZEB_PAIR_ONLINE)
        return ZEB_PAIR_ACK_FOREIGN;
    if (is_one_process(core) && input.process != record(core).sync_id)
        return ZEB_PAIR_ACK_FOREIGN_OTHER;
    return input.process != record(core).holder ? (int)ZEB_PAIR_ACK_FOREIGN : NO_EVENT;
}

int other_resume_event(const core_t *core)
{
    bool asked = phase_of(core) == ZEB_PAIR_ONLINE && pending_seq(core) != 0;
    return resumes(core, ZEB_RESUME_OTHER_PROCESS) && !asked ? (int)ZEB_PAIR_RESUME_OTHER : NO_EVENT;
}

int retry_event(const core_t *core)
{
    if (pending_seq(core) != 0)
        return ZEB_PAIR_RETRY;
    const zeb_retry_inst_t *retry = zeb_get_sync_inst_retry(&core->hs, MY_APP, THE_PEER);
    bool awaited = retry != nullptr && !zeb_hs_get_inst_state(&core->hs, THE_PEER).instance;
    return awaited && retry->unknown_rounds == ZEB_UNKNOWN_ROUND_NUM - 1 ? ZEB_PAIR_RETRY_3 : NO_EVENT;
}

int minute_event(const core_t *core)
{
    return old_num(core) != 0 ? (int)ZEB_PAIR_MINUTE : NO_EVENT;
}

int event_of(core_t *core, const input_t &input)
{
    switch (input.kind) {
    case IN_PUBLISHED:
        return unreported(core) ? ZEB_PAIR_PUBLISHED_AGAIN : ZEB_PAIR_PUBLISHED;
    case IN_WITHDRAWN:
        return ZEB_PAIR_WITHDRAWN;
    case IN_REPORTED:
        return unreported(core) ? (int)ZEB_PAIR_WITHDRAWN : NO_EVENT;
    case IN_SYNC:
        return sync_event(core, input);
    case IN_ACK:
    case IN_ACK_OLD:
        return ack_event(core, input);
    case IN_ACK_77:
        return foreign_ack_event(core, input);
    case IN_MESSAGE:
        return ZEB_PAIR_MESSAGE;
    case IN_RETRY:
        return retry_event(core);
    case IN_MINUTE:
        return minute_event(core);
    case IN_RESUME:
        return resumes(core, ZEB_RESUME_PEER) ? (int)ZEB_PAIR_RESUME : NO_EVENT;
    case IN_RESUME_UNSENT:
        return resumes(core, ZEB_RESUME_UNSENT) ? (int)ZEB_PAIR_RESUME_UNSENT : NO_EVENT;
    case IN_RESUME_OTHER:
        return other_resume_event(core);
    default:
        return NO_EVENT;
    }
}

// The core's state but for what no step depends on.
typedef std::tuple<int, bool, bool, bool, bool, bool, bool, int, int, int, int, uint32_t, uint32_t, uint32_t, uint32_t,
                   bool>
    state_t;

state_t state_of(core_t *core)
{
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(&core->hs, THE_PEER.app);
    const zeb_retry_inst_t *retry = zeb_get_sync_inst_retry(&core->hs, MY_APP, THE_PEER);
    zeb_inst_id_t id = record(core);
    return {phase_of(core),
            zeb_app_set_test(&ol->srv_bmp, THE_PEER.node),
            unreported(core),
            resumes(core, ZEB_RESUME_PEER),
            resumes(core, ZEB_RESUME_UNSENT),
            resumes(core, ZEB_RESUME_OTHER_PROCESS),
            asks_again(core),
            pending_num(core),
            old_num(core),
            young_num(core),
            retry == nullptr ? -1 : retry->unknown_rounds,
            id.recv_seq,
            id.sync_id,
            id.sync_ack_id,
            id.holder,
            core->hs.timer_inst_retry_open};
}

std::vector<input_t> inputs()
{
    std::vector<input_t> all = {
        {IN_PUBLISHED, 0, 0, 0, 2, 0, "published"},
        {IN_WITHDRAWN, 0, 0, 0, 2, 0, "withdrawn"},
        {IN_REOPENED, 0, 0, 0, 2, 0, "reopened"},
        {IN_REPORTED, 0, 0, 0, 2, 0, "reported"},
        {IN_SYNC, LAST_SEQ, PROCESS, 0, 2, 0, "SYNC"},
        {IN_SYNC, LAST_SEQ, PROCESS + 1, 0, 2, 0, "SYNC of the other process"},
        {IN_SYNC, LAST_SEQ + 1, PROCESS, 0, 2, 0, "another SYNC"},
        {IN_SYNC, LAST_SEQ + 1, PROCESS + 1, 0, 2, 0, "another SYNC of the other process"},
        {IN_SYNC, LAST_SEQ + 2, PROCESS, 1, 2, 0, "SYNC with the resume mark"},
        {IN_SYNC, LAST_SEQ, PROCESS, 0, 1, 0, "SYNC of version 1"},
        {IN_ACK, 0, PROCESS, 0, 2, 0, "ack"},
        {IN_ACK, 0, PROCESS + 1, 0, 2, 0, "ack of the other process"},
        {IN_ACK_0, 0, PROCESS, 0, 2, 0, "ack without pseq"},
        {IN_ACK_77, 0, PROCESS, 0, 2, 0, "ack with a foreign pseq"},
        {IN_ACK_77, 0, PROCESS + 1, 0, 2, 0, "ack with a foreign pseq of the other process"},
        {IN_ACK_OFF, 0, PROCESS, 0, 2, 0, "ack of nothing pending"},
        {IN_ACK_OLD, 0, PROCESS, 0, 1, 0, "ack of version 1"},
        {IN_ACK_OLD, 0, PROCESS + 1, 0, 1, 0, "ack of version 1 of the other process"},
        {IN_MESSAGE, 0, 0, 0, 2, 0, "message"},
        {IN_RETRY, 0, 0, 0, 2, 0, "retry time-out"},
        {IN_MINUTE, 0, 0, 0, 2, 0, "minute"},
        {IN_RESUME, 0, 0, 0, 2, 0, "resume time-out of a peer"},
        {IN_RESUME_UNSENT, 0, 0, 0, 2, 0, "resume time-out of what was not sent"},
        {IN_RESUME_OTHER, 0, 0, 0, 2, 0, "resume time-out of two processes"},
    };
    size_t num = all.size();
    for (int error : {EHOSTUNREACH, ENOBUFS}) {
        for (size_t i = 0; i < num; i++) {
            all.push_back(all[i]);
            all.back().send_error = error;
        }
    }
    return all;
}

const zeb_pair_row_t *row_of(zeb_pair_phase_t phase, int event)
{
    for (const zeb_pair_row_t &row : ZEB_PAIR_TABLE) {
        if (row.phase == phase && (int)row.event == event)
            return &row;
    }
    return nullptr;
}

typedef struct expected_s {
    std::vector<unsigned> done;
    zeb_pair_phase_t next;
} expected_t;

constexpr unsigned ANY_SYNC = ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_SYNC_RESUME;

zeb_pair_phase_t phase_when_unsent(zeb_pair_phase_t next)
{
    if (next == ZEB_PAIR_WAITING)
        return ZEB_PAIR_IDLE;
    return next == ZEB_PAIR_CROSSED ? ZEB_PAIR_HALF : next;
}

// The timer of a name that two processes have used, which is started before anything else.
bool awaits_first(const core_t *core, const input_t &input)
{
    uint32_t holder = record(core).holder;
    bool awaited = resumes(core, ZEB_RESUME_OTHER_PROCESS);
    if (input.kind == IN_SYNC)
        return !awaited && holder != 0 && holder != input.process;
    return input.kind == IN_REOPENED ? awaited : input.kind == IN_RESUME_OTHER && asks_again(core);
}

// What one action of a row comes to, for the core as it is.
std::vector<unsigned> done_for(const core_t *core, const input_t &input, unsigned action)
{
    if (action == ZEB_PAIR_DO_RESEND && input.kind == IN_MINUTE)
        return std::vector<unsigned>((size_t)old_num(core), action);
    if (action == ZEB_PAIR_DO_RESEND)
        return std::vector<unsigned>((size_t)pending_num(core), action);
    if (action == ZEB_PAIR_DO_QUIT && !is_server_known(core))
        return {};
    if (action == ZEB_PAIR_DO_AWAIT && pending_num(core) != 0)
        return {};
    if ((action & ANY_SYNC) == 0 || input.send_error == 0)
        return {action};
    return input.send_error == EHOSTUNREACH ? std::vector<unsigned>{} : std::vector<unsigned>{ZEB_PAIR_DO_AWAIT};
}

std::string text_of(const std::vector<unsigned> &actions)
{
    std::string text;
    for (unsigned action : actions)
        text += std::string(text.empty() ? "" : ", ") + ZEB_PAIR_ACTION_TEXTS[__builtin_ctz(action)];
    return text;
}

std::vector<unsigned> bits_of(unsigned actions)
{
    std::vector<unsigned> bits;
    for (int i = 0; i < ZEB_PAIR_ACTION_NUM; i++) {
        if ((actions & 1u << i) != 0)
            bits.push_back(1u << i);
    }
    return bits;
}

// What the table's head adds to the row, which may be none.
expected_t expected_of(const core_t *core, const input_t &input, const zeb_pair_row_t *row)
{
    expected_t expected = {{}, phase_of(core)};
    if (awaits_first(core, input))
        expected.done.push_back(ZEB_PAIR_DO_AWAIT);
    if (row == nullptr)
        return expected;
    for (unsigned action : bits_of(row->actions)) {
        std::vector<unsigned> done = done_for(core, input, action);
        expected.done.insert(expected.done.end(), done.begin(), done.end());
    }
    bool unsent = input.send_error != 0 && (row->actions & ANY_SYNC) != 0;
    if (unsent && input.kind == IN_SYNC)
        expected.done.push_back(ZEB_PAIR_DO_AWAIT); // the peer's
    expected.next = unsent ? phase_when_unsent(row->next) : row->next;
    return expected;
}

typedef std::vector<input_t> path_t;

std::string text_of(const path_t &path)
{
    std::string text;
    for (const input_t &input : path)
        text += std::string("\n  ") + input.text +
                (input.send_error != 0 ? " (sends fail: " + std::string(strerrorname_np(input.send_error)) + ")" : "");
    return text;
}

// What an input does with the retry timer, but for a retry time-out itself.
bool starts_retries(const core_t *core, const input_t &input, int event)
{
    if (core->hs.timer_inst_retry_open)
        return false;
    bool acked = input.kind == IN_ACK && (event == ZEB_PAIR_ACK || event == ZEB_PAIR_ACK_OTHER);
    return (input.kind == IN_SYNC && input.ver != 1) || (acked && !zeb_hs_get_inst_state(&core->hs, THE_PEER).instance);
}

bool is_whole(const std::vector<unsigned> &done, unsigned actions)
{
    unsigned all = 0;
    for (unsigned action : done)
        all |= action;
    return (all & actions) == actions;
}

void remove_action(std::vector<unsigned> *done, unsigned action)
{
    done->erase(std::remove(done->begin(), done->end(), action), done->end());
}

// Takes the path, and checks its last step. False when that cannot happen.
bool check_path(core_t *core, const path_t &path, uint32_t server, std::set<const zeb_pair_row_t *> *used)
{
    begin(core, server);
    for (size_t i = 0; i + 1 < path.size(); i++)
        happen(core, path[i]);
    const input_t &input = path.back();
    zeb_pair_phase_t phase = phase_of(core);
    if (input.kind == IN_MESSAGE && phase == ZEB_PAIR_ONLINE)
        return false;
    int event = event_of(core, input);
    const zeb_pair_row_t *row = row_of(phase, event);
    expected_t expected = expected_of(core, input, row);
    int retry_starts = starts_retries(core, input, event) ? 1 : 0;
    core->done.clear();
    core->retry_starts = 0;
    happen(core, input);
    if (!is_server_known(core))
        remove_action(&expected.done, ZEB_PAIR_DO_JOIN);
    if (input.kind == IN_RETRY)
        retry_starts = indexed_list_num(&core->hs.inst_retry) != 0 ? 1 : 0;
    if (row != nullptr && input.send_error == 0 && (server == 0 || is_whole(expected.done, row->actions)))
        used->insert(row);
    EXPECT_LE((uint32_t)is_server_known(core), server) << text_of(path);
    EXPECT_STREQ(zeb_pair_phase_text(phase_of(core)), zeb_pair_phase_text(expected.next)) << text_of(path);
    EXPECT_EQ(text_of(core->done), text_of(expected.done)) << text_of(path);
    EXPECT_EQ(core->retry_starts, retry_starts) << text_of(path);
    EXPECT_NE(zeb_hs_inst_phase(&core->hs, THE_PEER), ZEB_INST_BOTH) << text_of(path);
    return true;
}
} // namespace

class zeb_handshake_table : public testing::TestWithParam<uint32_t>
{
};

// A sanitizer's build takes the nearest states alone: all of them would take it minutes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t STATE_NUM_MAX = 3000;
#else
constexpr size_t STATE_NUM_MAX = SIZE_MAX;
#endif

TEST_P(zeb_handshake_table, is_what_the_core_does_in_every_state_that_it_can_reach)
{
    core_t core;
    std::set<const zeb_pair_row_t *> used;
    std::map<state_t, path_t> known;
    std::vector<path_t> next = {{}};
    begin(&core, GetParam());
    known[state_of(&core)] = {};
    zeb_hs_clear(&core.hs);
    for (size_t i = 0; i < next.size() && i < STATE_NUM_MAX && !HasFailure(); i++) {
        for (const input_t &input : inputs()) {
            path_t path = next[i];
            path.push_back(input);
            if (check_path(&core, path, GetParam(), &used) && known.emplace(state_of(&core), path).second)
                next.push_back(path);
            zeb_hs_clear(&core.hs);
        }
    }
    for (const zeb_pair_row_t &row : ZEB_PAIR_TABLE)
        EXPECT_EQ(used.count(&row), 1u) << zeb_pair_phase_text(row.phase) << ", " << ZEB_PAIR_EVENT_TEXTS[row.event]
                                        << " never comes to pass";
    EXPECT_GT(known.size(), 100u);
}

INSTANTIATE_TEST_SUITE_P(of, zeb_handshake_table, testing::Values(1u, 0u),
                         [](const testing::TestParamInfo<uint32_t> &server) {
                             return server.param != 0 ? "a_server" : "a_client";
                         });

TEST(zeb_handshake_table_rows, have_one_row_for_a_phase_and_an_event)
{
    std::set<std::pair<int, int>> cells;
    for (const zeb_pair_row_t &row : ZEB_PAIR_TABLE)
        EXPECT_TRUE(cells.emplace(row.phase, row.event).second)
            << zeb_pair_phase_text(row.phase) << ", " << ZEB_PAIR_EVENT_TEXTS[row.event];
}

TEST(zeb_handshake_table_rows, are_what_the_picture_shows)
{
    std::ifstream file(ZEB_DOCS "/handshake.dot");
    std::ostringstream text;
    text << file.rdbuf();
    EXPECT_EQ(text.str(), handshake_dot()) << "`make docs` draws it again";
}
