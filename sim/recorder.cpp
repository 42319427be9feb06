// The recorder's side of its queue.
#include "recorder.h"
#include "sim_deliver.h"
#include "sim_sys.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <linux/tipc.h>

constexpr uint64_t HELD_UP = 100000000; // ns that a sender may take between a message's time and its copy

static bool later(const packet_t &a, const packet_t &b)
{
    return a.time > b.time;
}

static std::string fate_of(const sim_tap_t *tap)
{
    switch (tap->fate) {
    case SIM_FATE_REFUSED:
        return "refused: " + capture_error(tap->code) + (tap->record.droppable != 0 ? ", dropped" : "");
    case SIM_FATE_CUT:
        return "lost: the link is cut";
    case SIM_FATE_LOSS:
        return "lost on the link";
    default:
        return tap->record.kind == SIM_ACK ? "connection accepted" : "";
    }
}

static uint32_t form_of(const sim_record_t *record)
{
    if (record->kind == SIM_MCAST)
        return CAPTURE_MCAST;
    if (record->kind == SIM_ACK || record->kind == SIM_CONN_DATA)
        return CAPTURE_CONN;
    return record->named != 0 ? CAPTURE_NAMED : CAPTURE_DIRECT;
}

static packet_t message_of(const sim_state_t *state, const sim_tap_t *tap, const uint8_t *data)
{
    const sim_record_t *record = &tap->record;
    packet_t message;
    message.time = tap->time;
    message.from = record->src_node;
    message.from_port = record->src_port;
    message.to = record->dst_index < SIM_MAX_NODES ? state->nodes[record->dst_index] : 0;
    message.to_port = record->dst_port;
    message.form = form_of(record);
    message.importance = record->importance;
    message.syn = record->kind == SIM_SYN;
    message.droppable = record->droppable != 0;
    message.err = record->err;
    if (message.form == CAPTURE_MCAST || message.form == CAPTURE_NAMED) {
        message.type = record->type;
        message.lower = record->lower;
        message.upper = message.form == CAPTURE_MCAST ? record->upper : record->lower;
    }
    message.len = record->len;
    message.note = fate_of(tap);
    message.data.assign(data, data + tap->size);
    return message;
}

// Takes over the place of a recorder that is gone.
static bool register_port(sim_state_t *state, uint32_t port)
{
    for (;;) {
        uint32_t other = sim_load(&state->recorder);
        if (other != SIM_NONE && sim_socket_of(state, other) != nullptr)
            return false;
        if (sim_swap(&state->recorder, other, port))
            return true;
    }
}

int recorder_open(recorder_t *recorder, const sim_self_t *self, uint32_t bytes)
{
    sim_state_t *state = self->cluster->state;
    recorder->self = *self;
    recorder->mark = (int)sys_call(SYS_epoll_create1, EPOLL_CLOEXEC);
    recorder->socket = sim_socket_take(self, SOCK_RDM, 0, sys_getpid());
    if (recorder->socket == nullptr)
        return -ENOBUFS;
    recorder->socket->woken = 1; // senders need not wake it: it looks from time to time
    int ret = recorder->mark < 0 ? recorder->mark : sim_socket_mark(state, recorder->mark, recorder->socket->port);
    sim_socket_open(recorder->socket);
    if (ret == 0 && !register_port(state, recorder->socket->port))
        ret = -EBUSY;
    if (ret != 0) {
        recorder_close(recorder);
        return ret;
    }
    sim_store(&state->unrecorded, 0U);
    sim_store(&state->recorded, bytes);
    return 0;
}

void recorder_stop(recorder_t *recorder)
{
    (void)sim_swap(&recorder->self.cluster->state->recorder, recorder->socket->port, SIM_NONE);
}

// Whoever knows the port can send to it: what is no copy is passed over.
static bool is_copy(const sim_block_t *block, sim_tap_t *tap)
{
    if (block->record.kind != SIM_TAPPED || block->record.len < sizeof(*tap))
        return false;
    memcpy(tap, block->data, sizeof(*tap));
    return tap->size == block->record.len - sizeof(*tap);
}

static void empty_queue(recorder_t *recorder)
{
    sim_state_t *state = recorder->self.cluster->state;
    sim_link_t at;
    while (sim_block_t *block = sim_queue_first(state, recorder->socket, &at)) {
        sim_tap_t tap;
        if (!sim_queue_pop(state, recorder->socket, at, block))
            continue;
        if (is_copy(block, &tap)) {
            recorder->waiting.push_back(message_of(state, &tap, block->data + sizeof(tap)));
            std::push_heap(recorder->waiting.begin(), recorder->waiting.end(), later);
        }
        sim_block_release(state, block);
    }
}

static uint64_t wall_clock() // ns
{
    return (uint64_t)sys_clock(CLOCK_REALTIME);
}

bool recorder_take(recorder_t *recorder, bool all, packet_t *message)
{
    empty_queue(recorder);
    std::vector<packet_t> &waiting = recorder->waiting;
    if (waiting.empty() || (!all && waiting.front().time + HELD_UP > wall_clock()))
        return false;
    std::pop_heap(waiting.begin(), waiting.end(), later);
    *message = std::move(waiting.back());
    waiting.pop_back();
    return true;
}

uint32_t recorder_lost(const recorder_t *recorder)
{
    return sim_load(&recorder->self.cluster->state->unrecorded);
}

void recorder_close(recorder_t *recorder)
{
    recorder_stop(recorder);
    sim_socket_close(&recorder->self, recorder->socket, false);
    if (recorder->mark >= 0)
        (void)sys_close(recorder->mark);
}
