// The name table, in the cluster's shared memory. The broker alone changes it; everybody looks names up, without a
// lock: an entry is linked after it is whole, and stays readable for a while after it is unlinked.
#ifndef SIM_NAMES_H
#define SIM_NAMES_H

#include "sim_cluster.h"

typedef struct sim_name_s { // one binding
    uint32_t type;
    uint32_t lower;
    uint32_t upper;
    uint32_t scope;
    uint32_t port; // the socket
    uint32_t node; // index of its node
    uint32_t id;   // a later binding has a higher one; 0: the entry is not in use
    uint32_t next; // entry in the same chain, SIM_NONE at its end (entry 0 is never used)
} sim_name_t;

typedef struct sim_target_s {
    uint32_t port;
    uint32_t node; // index
} sim_target_t;

// A socket bound to a name, as node `from` sees it; sockets that share the name take turns, per node. `domain` limits
// the search (sim_in_domain). Of overlapping ranges the one with the lowest lower bound is used.
bool sim_name_lookup(sim_state_t *state, uint32_t type, uint32_t instance, uint32_t from, uint32_t domain,
                     sim_target_t *target);
// All sockets that are bound to a name in the range, each once; `take` gets them one after the other.
typedef void (*sim_take_t)(void *arg, const sim_target_t *target);
uint32_t sim_name_each(sim_state_t *state, uint32_t type, uint32_t lower, uint32_t upper, uint32_t from,
                       uint32_t domain, sim_take_t take, void *arg);
bool sim_name_visible(const sim_state_t *state, const sim_name_t *name, uint32_t from);

// For the broker.
int sim_name_insert(sim_state_t *state, const sim_name_t *name, uint32_t *entry); // 0, or -ENOSPC: grow, or full
void sim_name_remove(sim_state_t *state, uint32_t entry);
// Completes what a broker that was killed began: `entries` are those in use, in the order of their ids.
void sim_names_restore(sim_state_t *state, const uint32_t *entries, size_t num);
static inline sim_name_t *sim_name_at(sim_state_t *state, uint32_t entry)
{
    return (sim_name_t *)sim_entry(state, SIM_AREA_NAMES, entry % SIM_MAX_NAMES);
}

#endif
