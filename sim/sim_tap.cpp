// The senders' side of a recorder.
#include "sim_tap.h"
#include "sim_sys.h"

#include <cstring>
#include <linux/tipc.h>

static uint64_t wall_clock(void) // ns
{
    return (uint64_t)sys_clock(CLOCK_REALTIME);
}

sim_block_t *sim_tap_copy(const sim_self_t *self, const sim_record_t *record, const uint8_t *data)
{
    sim_state_t *state = self->cluster->state;
    uint32_t port = sim_load(&state->recorder);
    if (port == SIM_NONE)
        return nullptr;
    sim_tap_t tap = {};
    uint32_t most = sim_load(&state->recorded);
    tap.time = wall_clock();
    tap.record = *record;
    tap.size = tap.record.len < most ? tap.record.len : most;
    sim_block_t *copy = sim_block_take(self, (uint32_t)sizeof(tap) + tap.size);
    if (copy == nullptr) {
        (void)sim_add(&state->unrecorded, 1U);
        return nullptr;
    }
    copy->record = {};
    copy->record.kind = SIM_TAPPED;
    copy->record.len = (uint32_t)sizeof(tap) + tap.size;
    copy->record.charge = (uint32_t)sizeof(sim_block_t) + copy->record.len;
    copy->record.dst_port = port;
    copy->record.droppable = 1;
    memcpy(copy->data, &tap, sizeof(tap));
    if (tap.size != 0) // without data there may be no address
        sim_copy(copy->data + sizeof(tap), data, tap.size);
    return copy;
}

void sim_tap_put(const sim_self_t *self, sim_block_t *copy, sim_fate_e fate, uint32_t code)
{
    if (copy == nullptr)
        return;
    sim_state_t *state = self->cluster->state;
    uint32_t port = copy->record.dst_port;
    sim_socket_t *recorder = sim_socket_of(state, port);
    uint32_t err = TIPC_ERR_NO_PORT;
    memcpy(copy->data + offsetof(sim_tap_t, fate), &fate, sizeof(fate));
    memcpy(copy->data + offsetof(sim_tap_t, code), &code, sizeof(code));
    if (recorder != nullptr)
        err = sim_queue_put(self, recorder, copy, SIM_TAP_LIMIT);
    if (err == TIPC_OK)
        return;
    sim_block_free(state, copy);
    if (err == TIPC_ERR_OVERLOAD)
        (void)sim_add(&state->unrecorded, 1U);
    else
        (void)sim_swap(&state->recorder, port, SIM_NONE);
}

void sim_tap_lost(const sim_self_t *self, const sim_record_t *record, const uint8_t *data, sim_fate_e fate)
{
    sim_tap_put(self, sim_tap_copy(self, record, data), fate, TIPC_OK);
}
