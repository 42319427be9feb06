// The processes of nodes, and signals to them. A process of a node is every one that a process of the node started,
// however it did: by a script, forked twice, in a session of its own, with all descriptors closed or an empty
// environment.
//
// What tells them is a mark that a process inherits, over fork and exec alike: the soft limit RLIMIT_LOCKS, which Linux
// hands down and shows in /proc/PID/limits and has not used since 2.4.25. It holds the cluster's number and the node's
// index. A process without a mark, because it may not set the limit or has taken it back, is one of the node that its
// environment names; if that names none, it is one of its parent's node.
//
// A signal goes to a descriptor of the process, after its start time and its mark have been compared, so it never meets
// a process that got the number of another one.
#ifndef SIM_TIPCSIM_PROCESSES_H
#define SIM_TIPCSIM_PROCESSES_H

#include <cstdint>

#include "tipcsim.h"

constexpr uint32_t TREE_COMMAND = 0;          // in place of a node: the command of `tipcsim cluster`
constexpr uint32_t TREE_SERVANT = UINT32_MAX; // and what serves a cluster, and is never signalled

void tree_id(); // gives the cluster its number, if it has none; called with the cluster's lock held
uint64_t tree_number(const char *dir); // of the cluster in this folder; 0 for none
bool tree_any(uint64_t number);        // whether a process of one of its nodes is alive
// Marks this process, and all that it starts from now on.
void tree_mark(uint32_t node);

void kill_node(uint32_t node);               // returns when all have ended
void kill_chosen(const options_t &options);  // the process of --pid, or those of the node in the first word
void stall_chosen(const options_t &options); // returns when all have stopped
void resume_chosen(const options_t &options);
pid_t pid_option(const options_t &options); // the process of --pid, or 0 without the option

// For `tipcsim cluster`: orphans of its tree become its children, so that none gets lost.
void tree_begin();
// Kills all processes of the cluster, and all below this one. Returns when none is left.
void tree_end();

#endif
