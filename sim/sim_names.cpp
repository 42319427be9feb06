// Lookups in the name table, and the broker's changes of it.
#include "sim_names.h"

#include <cerrno>
#include <linux/tipc.h>

constexpr int TRIES = 100; // of a lookup that a change of the table came between; what the last one found is used

static uint32_t mixed(uint32_t a, uint32_t b)
{
    return (a * 31 + b) * 2654435761U; // the upper bits depend on every bit of both
}

static uint32_t *chain_of(sim_state_t *state, uint32_t type, uint32_t lower, uint32_t upper)
{
    if (lower == upper)
        return &state->singles[mixed(type, lower) / (UINT32_MAX / SIM_SINGLE_CHAINS + 1)];
    return &state->ranges[mixed(type, 0) / (UINT32_MAX / SIM_RANGE_CHAINS + 1)];
}

bool sim_name_visible(const sim_state_t *state, const sim_name_t *name, uint32_t from)
{
    if (name->node == from)
        return true;
    return name->scope != TIPC_NODE_SCOPE && sim_linked(state->down, from, name->node);
}

typedef struct search_s {
    sim_state_t *state;
    uint32_t type;
    uint32_t instance;
    uint32_t from;
    uint32_t domain;
    uint32_t lower; // of the range that is used
    uint32_t num;   // sockets found with it
    uint32_t wanted;
    sim_target_t target;
} search_t;

static void look_through(search_t *search, uint32_t first)
{
    sim_state_t *state = search->state;
    uint32_t limit = sim_name_num(state); // a chain that changes meanwhile cannot keep us forever
    for (uint32_t at = first; at != SIM_NONE && limit-- != 0; at = sim_load(&sim_name_at(state, at)->next)) {
        const sim_name_t *name = sim_name_at(state, at);
        if (name->type != search->type || search->instance < name->lower || search->instance > name->upper ||
            name->lower > search->lower || sim_load(&name->id) == 0)
            continue;
        if (!sim_name_visible(state, name, search->from) ||
            !sim_in_domain(search->domain, sim_node_address(state, name->node)))
            continue;
        if (name->lower < search->lower)
            search->num = 0;
        search->lower = name->lower;
        if (search->num++ == search->wanted)
            search->target = {name->port, name->node};
    }
}

static void search_once(search_t *search)
{
    sim_state_t *state = search->state;
    search->lower = UINT32_MAX;
    search->num = 0;
    look_through(search, sim_load(&state->ranges[mixed(search->type, 0) / (UINT32_MAX / SIM_RANGE_CHAINS + 1)]));
    look_through(search, sim_load(chain_of(state, search->type, search->instance, search->instance)));
}

bool sim_name_lookup(sim_state_t *state, uint32_t type, uint32_t instance, uint32_t from, uint32_t domain,
                     sim_target_t *target)
{
    search_t search = {state, type, instance, from, domain, 0, 0, 0, {}};
    for (int tries = 0; tries < TRIES; tries++) {
        uint32_t generation = sim_load(&state->generation);
        search.wanted = 0;
        search_once(&search);
        if (search.num > 1) {
            uint32_t turn = mixed(mixed(type, search.lower), from) / (UINT32_MAX / SIM_TURNS + 1);
            search.wanted = sim_add(&state->turns[turn], 1U) % search.num;
            search_once(&search);
        }
        if (search.num > search.wanted && generation % 2 == 0 && generation == sim_load(&state->generation))
            break;
        if (search.num == 0 && generation % 2 == 0 && generation == sim_load(&state->generation))
            return false;
    }
    *target = search.target;
    return search.num > search.wanted;
}

uint32_t sim_name_each(sim_state_t *state, uint32_t type, uint32_t lower, uint32_t upper, uint32_t from,
                       uint32_t domain, sim_take_t take, void *arg)
{
    static thread_local uint8_t s_seen[SIM_MAX_SOCKETS / 8];
    __builtin_memset(s_seen, 0, sizeof(s_seen));
    uint32_t num = 0;
    uint32_t all = sim_name_num(state);
    for (uint32_t i = 1; i < all; i++) {
        const sim_name_t *name = sim_name_at(state, i);
        if (sim_load(&name->id) == 0 || name->type != type || name->lower > upper || name->upper < lower)
            continue;
        if (!sim_name_visible(state, name, from) || !sim_in_domain(domain, sim_node_address(state, name->node)))
            continue;
        uint32_t slot = name->port % SIM_MAX_SOCKETS;
        if ((s_seen[slot / 8] & 1U << slot % 8) != 0)
            continue;
        s_seen[slot / 8] |= (uint8_t)(1U << slot % 8);
        sim_target_t target = {name->port, name->node};
        take(arg, &target);
        num++;
    }
    return num;
}

static void link_entry(sim_state_t *state, uint32_t entry)
{
    sim_name_t *name = sim_name_at(state, entry);
    uint32_t *chain = chain_of(state, name->type, name->lower, name->upper);
    sim_store(&name->next, sim_load(chain));
    sim_store(chain, entry);
}

int sim_name_insert(sim_state_t *state, const sim_name_t *name, uint32_t *entry)
{
    if (*entry == SIM_NONE) {
        if (state->name_num >= sim_load(&state->areas[SIM_AREA_NAMES].ready))
            return -ENOSPC;
        *entry = sim_add(&state->name_num, 1U);
    }
    (void)sim_add(&state->generation, 1U);
    sim_name_t *at = sim_name_at(state, *entry);
    sim_store(&at->id, 0U); // who goes through all entries skips it until it is whole
    uint32_t id = name->id;
    at->type = name->type;
    at->lower = name->lower;
    at->upper = name->upper;
    at->scope = name->scope;
    at->port = name->port;
    at->node = name->node;
    sim_store(&at->id, id);
    link_entry(state, *entry);
    (void)sim_add(&state->generation, 1U);
    return 0;
}

void sim_name_remove(sim_state_t *state, uint32_t entry)
{
    sim_name_t *name = sim_name_at(state, entry);
    uint32_t *at = chain_of(state, name->type, name->lower, name->upper);
    for (uint32_t limit = sim_name_num(state); *at != SIM_NONE && *at != entry && limit != 0; limit--)
        at = &sim_name_at(state, *at)->next;
    (void)sim_add(&state->generation, 1U);
    sim_store(&name->id, 0U);
    if (*at == entry)
        sim_store(at, sim_load(&name->next));
    (void)sim_add(&state->generation, 1U);
}

static bool in_chain(sim_state_t *state, uint32_t entry)
{
    const sim_name_t *name = sim_name_at(state, entry);
    uint32_t at = *chain_of(state, name->type, name->lower, name->upper);
    for (uint32_t limit = sim_name_num(state); at != SIM_NONE && at != entry && limit != 0; limit--)
        at = sim_name_at(state, at)->next;
    return at == entry;
}

static void unlink_unused(sim_state_t *state, uint32_t *at)
{
    for (uint32_t limit = sim_name_num(state); *at != SIM_NONE && limit != 0; limit--) {
        if (sim_name_at(state, *at)->id == 0)
            sim_store(at, sim_name_at(state, *at)->next);
        else
            at = &sim_name_at(state, *at)->next;
    }
}

// The chains are whole at any time. At most one entry is on its way in or out of one, so that all others are found
// meanwhile.
void sim_names_restore(sim_state_t *state, const uint32_t *entries, size_t num)
{
    if (sim_load(&state->generation) % 2 == 0)
        return; // no change was begun
    for (uint32_t &chain : state->singles) {
        if (chain != SIM_NONE)
            unlink_unused(state, &chain);
    }
    for (uint32_t &chain : state->ranges) {
        if (chain != SIM_NONE)
            unlink_unused(state, &chain);
    }
    for (size_t i = 0; i < num; i++) {
        if (!in_chain(state, entries[i]))
            link_entry(state, entries[i]);
    }
    (void)sim_add(&state->generation, 1U);
}
