// Blocks of memory for messages, in pools of four sizes. A word for each block says whose it is: 0 for nobody's, a
// process's entry plus one, or the slot of the socket in whose queue it lies. To take a block is to exchange that word,
// so what a killed process had is found again.
#include "sim_socket.h"

#include <cstddef>

constexpr uint32_t POOL_BITS = 2; // of a block's number: index * SIM_POOLS + pool + 1

constexpr uint32_t QUEUE = 0x80000000U; // of an owner: sim_owner_queue and sim_owner_sending

static uint32_t pool_of(uint32_t number)
{
    return (number - 1) & (SIM_POOLS - 1);
}

static uint32_t ready(const sim_state_t *state, uint32_t pool)
{
    uint32_t owners = sim_load(&state->areas[SIM_AREA_OWNERS + pool].ready);
    uint32_t blocks = sim_load(&state->areas[SIM_AREA_BLOCKS + pool].ready);
    return owners < blocks ? owners : blocks;
}

static uint32_t *owner_of(sim_state_t *state, uint32_t number)
{
    uint32_t area = SIM_AREA_OWNERS + pool_of(number);
    return (uint32_t *)sim_entry(state, area, ((number - 1) >> POOL_BITS) & (state->areas[area].capacity - 1));
}

// Some block for any number.
sim_block_t *sim_block_of(sim_state_t *state, uint32_t number)
{
    uint32_t area = SIM_AREA_BLOCKS + pool_of(number);
    return (sim_block_t *)sim_entry(state, area, ((number - 1) >> POOL_BITS) & (state->areas[area].capacity - 1));
}

uint32_t sim_block_room(const sim_state_t *state, uint32_t number)
{
    return state->areas[SIM_AREA_BLOCKS + pool_of(number)].size - (uint32_t)offsetof(sim_block_t, data);
}

uint32_t sim_block_num(const sim_state_t *state)
{
    uint32_t num = 0;
    for (uint32_t pool = 0; pool < SIM_POOLS; pool++)
        num += ready(state, pool);
    return num;
}

// Where the last search ended: one that begins there mostly succeeds at once.
static uint32_t s_hints[SIM_POOLS];

static sim_block_t *search(sim_state_t *state, uint32_t pool, uint32_t owner)
{
    uint32_t num = ready(state, pool);
    uint32_t at = __atomic_load_n(&s_hints[pool], __ATOMIC_RELAXED);
    uint32_t *owners = (uint32_t *)sim_entry(state, SIM_AREA_OWNERS + pool, 0);
    for (uint32_t tries = 0; tries < num; tries++, at++) {
        at = at < num ? at : 0;
        if (__atomic_load_n(&owners[at], __ATOMIC_RELAXED) != 0 || !sim_swap(&owners[at], 0U, owner))
            continue;
        __atomic_store_n(&s_hints[pool], at, __ATOMIC_RELAXED);
        uint32_t number = (at << POOL_BITS) + pool + 1;
        sim_block_t *block = sim_block_of(state, number);
        block->number = number;
        return block;
    }
    return nullptr;
}

sim_block_t *sim_block_take(const sim_self_t *self, uint32_t len)
{
    sim_state_t *state = self->cluster->state;
    uint32_t pool = 0;
    while (pool < SIM_POOLS && sizeof(sim_block_t) + len > state->areas[SIM_AREA_BLOCKS + pool].size)
        pool++;
    if (pool == SIM_POOLS)
        return nullptr;
    for (;;) {
        uint32_t owners_seen = sim_load(&state->areas[SIM_AREA_OWNERS + pool].ready);
        uint32_t blocks_seen = sim_load(&state->areas[SIM_AREA_BLOCKS + pool].ready);
        sim_block_t *block = search(state, pool, self->owner);
        if (block != nullptr)
            return block;
        uint32_t before = owners_seen < blocks_seen ? owners_seen : blocks_seen;
        int owners = self->grow(self->cluster, SIM_AREA_OWNERS + pool, owners_seen);
        int blocks = self->grow(self->cluster, SIM_AREA_BLOCKS + pool, blocks_seen);
        if ((owners != 0 || blocks != 0) && ready(state, pool) == before)
            return nullptr;
    }
}

void sim_block_own(sim_state_t *state, sim_block_t *block, uint32_t owner)
{
    sim_store(owner_of(state, block->number), owner);
}

void sim_block_sent(sim_state_t *state, uint32_t number, uint32_t slot, uint32_t owner)
{
    (void)sim_swap(owner_of(state, number), sim_owner_sending(slot, owner), sim_owner_queue(slot));
}

void sim_block_free(sim_state_t *state, sim_block_t *block)
{
    // The link's count goes on, so that who still looks at the block in a queue fails to link to it.
    sim_store(&block->next, sim_link(sim_link_count(sim_load(&block->next)) + 1, SIM_CLOSED));
    sim_store(owner_of(state, block->number), 0U);
}

void sim_block_release(sim_state_t *state, sim_block_t *block)
{
    if (__atomic_sub_fetch(&block->holds, 1, __ATOMIC_SEQ_CST) == 0)
        sim_block_free(state, block);
}

// A process was killed while it put a block into a queue. When it is there it is freed with the socket at the latest.
// It is nowhere when the slot is free.
static void end_sending(sim_state_t *state, uint32_t *has, uint32_t before)
{
    uint32_t slot = before % SIM_MAX_SOCKETS;
    bool used = sim_load(&sim_socket_at(state, slot)->use) != SIM_SLOT_FREE;
    (void)sim_swap(has, before, used ? sim_owner_queue(slot) : 0U);
}

void sim_blocks_reclaim(sim_state_t *state, uint32_t owner)
{
    for (uint32_t pool = 0; pool < SIM_POOLS; pool++) {
        uint32_t num = ready(state, pool);
        uint32_t *owners = (uint32_t *)sim_entry(state, SIM_AREA_OWNERS + pool, 0);
        for (uint32_t i = 0; i < num; i++) {
            uint32_t has = __atomic_load_n(&owners[i], __ATOMIC_RELAXED);
            if (has != owner && owner < QUEUE && sim_owner_sending(has % SIM_MAX_SOCKETS, owner) == has)
                end_sending(state, &owners[i], has);
            if (__atomic_load_n(&owners[i], __ATOMIC_RELAXED) != owner)
                continue;
            sim_block_t *block = sim_block_of(state, (i << POOL_BITS) + pool + 1);
            block->number = (i << POOL_BITS) + pool + 1; // its owner may have been killed before it wrote that
            sim_block_free(state, block);
        }
    }
}
