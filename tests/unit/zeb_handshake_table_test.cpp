// lib/zeb_handshake_table.h against the core itself: from nothing known, every event in every state that the core can
// get into, and what it does then is what the table says. The core stands alone here, with effects that record.
#include <cerrno>
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
    IN_RESUME,
} input_kind_t;

typedef struct input_s {
    input_kind_t kind;
    uint32_t seq;
    uint32_t process;
    uint32_t resume;
    uint8_t ver;
    bool unsent; // what it has sent cannot be
    const char *text;
} input_t;

typedef struct core_s {
    zeb_handshake_t hs;
    uint32_t server;
    bool unsent;
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
    if (core_of(ctx)->unsent)
        return -EHOSTUNREACH;
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
    core->unsent = false;
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

uint32_t resume_seq(core_t *core)
{
    return list_empty(&core->hs.resume_comm_list)
               ? NO_SEQ
               : list_entry(core->hs.resume_comm_list.next, zeb_resume_comm_t, list)->seq;
}

bool unreported(const core_t *core)
{
    return zeb_app_set_test(&zeb_hs_get_ol_app(&core->hs, THE_PEER.app)->unreported_bmp, THE_PEER.node);
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
    core->unsent = input.unsent;
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
    case IN_RESUME:
        return zeb_hs_timer(hs, {ZEB_TIMER_TYPE_RESUME, resume_seq(core)});
    }
}

// Which of the table's events an input is for the core as it is.

int sync_event(const core_t *core, const input_t &input)
{
    if (input.resume != 0)
        return ZEB_PAIR_SYNC_RESUME;
    zeb_inst_id_t id = record(core);
    if (phase_of(core) == ZEB_PAIR_ONLINE) {
        bool one_process = id.sync_id == id.sync_ack_id && id.sync_id != 0;
        return one_process && input.process != id.sync_id ? ZEB_PAIR_SYNC_OTHER : ZEB_PAIR_SYNC;
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

int retry_event(const core_t *core)
{
    if (pending_seq(core) != 0)
        return ZEB_PAIR_RETRY;
    const zeb_retry_inst_t *retry = zeb_get_sync_inst_retry(&core->hs, MY_APP, THE_PEER);
    bool awaited = retry != nullptr && !zeb_hs_get_inst_state(&core->hs, THE_PEER).instance;
    return awaited && retry->unknown_rounds == ZEB_UNKNOWN_ROUND_NUM - 1 ? ZEB_PAIR_RETRY_3 : NO_EVENT;
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
        return pending_seq(core) != 0 ? (int)ZEB_PAIR_ACK_FOREIGN : NO_EVENT;
    case IN_MESSAGE:
        return ZEB_PAIR_MESSAGE;
    case IN_RETRY:
        return retry_event(core);
    case IN_RESUME:
        return resume_seq(core) != NO_SEQ ? (int)ZEB_PAIR_RESUME : NO_EVENT;
    default:
        return NO_EVENT;
    }
}

// The core's state but for what no step depends on.
typedef std::tuple<int, bool, bool, bool, int, int, uint32_t, uint32_t, uint32_t, bool> state_t;

state_t state_of(core_t *core)
{
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(&core->hs, THE_PEER.app);
    const zeb_retry_inst_t *retry = zeb_get_sync_inst_retry(&core->hs, MY_APP, THE_PEER);
    zeb_inst_id_t id = record(core);
    return {phase_of(core),
            zeb_app_set_test(&ol->srv_bmp, THE_PEER.node),
            unreported(core),
            resume_seq(core) != NO_SEQ,
            pending_seq(core) != 0,
            retry == nullptr ? -1 : retry->unknown_rounds,
            id.recv_seq,
            id.sync_id,
            id.sync_ack_id,
            core->hs.timer_inst_retry_open};
}

std::vector<input_t> inputs()
{
    std::vector<input_t> all = {
        {IN_PUBLISHED, 0, 0, 0, 2, false, "published"},
        {IN_WITHDRAWN, 0, 0, 0, 2, false, "withdrawn"},
        {IN_REOPENED, 0, 0, 0, 2, false, "reopened"},
        {IN_REPORTED, 0, 0, 0, 2, false, "reported"},
        {IN_SYNC, LAST_SEQ, PROCESS, 0, 2, false, "SYNC"},
        {IN_SYNC, LAST_SEQ, PROCESS + 1, 0, 2, false, "SYNC of the other process"},
        {IN_SYNC, LAST_SEQ + 1, PROCESS, 0, 2, false, "another SYNC"},
        {IN_SYNC, LAST_SEQ + 1, PROCESS + 1, 0, 2, false, "another SYNC of the other process"},
        {IN_SYNC, LAST_SEQ + 2, PROCESS, 1, 2, false, "SYNC with the resume mark"},
        {IN_SYNC, LAST_SEQ, PROCESS, 0, 1, false, "SYNC of version 1"},
        {IN_ACK, 0, PROCESS, 0, 2, false, "ack"},
        {IN_ACK, 0, PROCESS + 1, 0, 2, false, "ack of the other process"},
        {IN_ACK_0, 0, PROCESS, 0, 2, false, "ack without pseq"},
        {IN_ACK_77, 0, PROCESS, 0, 2, false, "ack with a foreign pseq"},
        {IN_ACK_OFF, 0, PROCESS, 0, 2, false, "ack of nothing pending"},
        {IN_ACK_OLD, 0, PROCESS, 0, 1, false, "ack of version 1"},
        {IN_ACK_OLD, 0, PROCESS + 1, 0, 1, false, "ack of version 1 of the other process"},
        {IN_MESSAGE, 0, 0, 0, 2, false, "message"},
        {IN_RETRY, 0, 0, 0, 2, false, "retry time-out"},
        {IN_RESUME, 0, 0, 0, 2, false, "resume time-out"},
    };
    size_t num = all.size();
    for (size_t i = 0; i < num; i++) {
        all.push_back(all[i]);
        all.back().unsent = true;
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
    unsigned actions;
    zeb_pair_phase_t next;
} expected_t;

constexpr unsigned ANY_SYNC = ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_SYNC_RESUME;

bool awaits_when_unsent(zeb_pair_event_t event)
{
    return event == ZEB_PAIR_PUBLISHED || event == ZEB_PAIR_PUBLISHED_AGAIN || event == ZEB_PAIR_SYNC_NEW ||
           event == ZEB_PAIR_SYNC_OTHER || event == ZEB_PAIR_SYNC_RESUME;
}

// The row and what the table's head adds to it.
expected_t expected_of(const zeb_pair_row_t &row, bool unsent)
{
    expected_t expected = {row.actions, row.next};
    if (!unsent || (row.actions & ANY_SYNC) == 0)
        return expected;
    expected.actions &= ~ANY_SYNC;
    if (awaits_when_unsent(row.event))
        expected.actions |= ZEB_PAIR_DO_AWAIT;
    expected.next = row.next == ZEB_PAIR_WAITING ? ZEB_PAIR_IDLE : ZEB_PAIR_HALF;
    return expected;
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

typedef std::vector<input_t> road_t;

std::string text_of(const road_t &road)
{
    std::string text;
    for (const input_t &input : road)
        text += std::string("\n  ") + input.text + (input.unsent ? " (sends fail)" : "");
    return text;
}

int expected_retry_starts(const core_t *core, const input_t &input, bool was_open)
{
    if (input.kind == IN_SYNC && input.ver != 1)
        return was_open ? 0 : 1;
    return input.kind == IN_RETRY && indexed_list_num(&core->hs.inst_retry) != 0 ? 1 : 0;
}

bool is_server_known(const core_t *core)
{
    return zeb_app_set_test(&zeb_hs_get_ol_app(&core->hs, THE_PEER.app)->srv_bmp, THE_PEER.node);
}

// Takes the road, and checks its last step. False when that cannot happen.
bool check_road(core_t *core, const road_t &road, uint32_t server, std::set<const zeb_pair_row_t *> *used)
{
    begin(core, server);
    for (size_t i = 0; i + 1 < road.size(); i++)
        happen(core, road[i]);
    const input_t &input = road.back();
    zeb_pair_phase_t phase = phase_of(core);
    if (input.kind == IN_MESSAGE && phase == ZEB_PAIR_ONLINE)
        return false;
    const zeb_pair_row_t *row = row_of(phase, event_of(core, input));
    expected_t expected = row == nullptr ? expected_t{0, phase} : expected_of(*row, input.unsent);
    bool was_open = core->hs.timer_inst_retry_open;
    bool was_server = is_server_known(core);
    core->done.clear();
    core->retry_starts = 0;
    happen(core, input);
    if (!was_server)
        expected.actions &= ~(unsigned)ZEB_PAIR_DO_QUIT;
    if (!is_server_known(core))
        expected.actions &= ~(unsigned)ZEB_PAIR_DO_JOIN;
    if (row != nullptr && (server == 0 || expected.actions == row->actions))
        used->insert(row);
    EXPECT_LE((uint32_t)is_server_known(core), server) << text_of(road);
    EXPECT_STREQ(zeb_pair_phase_text(phase_of(core)), zeb_pair_phase_text(expected.next)) << text_of(road);
    EXPECT_EQ(text_of(core->done), text_of(bits_of(expected.actions))) << text_of(road);
    EXPECT_EQ(core->retry_starts, expected_retry_starts(core, input, was_open)) << text_of(road);
    EXPECT_NE(zeb_hs_inst_phase(&core->hs, THE_PEER), ZEB_INST_BOTH) << text_of(road);
    return true;
}
} // namespace

class zeb_handshake_table : public testing::TestWithParam<uint32_t>
{
};

TEST_P(zeb_handshake_table, is_what_the_core_does_in_every_state_that_it_can_reach)
{
    core_t core;
    std::set<const zeb_pair_row_t *> used;
    std::map<state_t, road_t> known;
    std::vector<road_t> next = {{}};
    begin(&core, GetParam());
    known[state_of(&core)] = {};
    zeb_hs_clear(&core.hs);
    for (size_t i = 0; i < next.size() && !HasFailure(); i++) {
        for (const input_t &input : inputs()) {
            road_t road = next[i];
            road.push_back(input);
            if (check_road(&core, road, GetParam(), &used) && known.emplace(state_of(&core), road).second)
                next.push_back(road);
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
    EXPECT_EQ(text.str(), handshake_dot()) << "`make docs` draws it anew";
}
