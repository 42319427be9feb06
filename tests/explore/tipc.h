// What the world's actions do in TIPC. For the world alone.
#ifndef EXPLORE_TIPC_H
#define EXPLORE_TIPC_H

#include "world.h"

template <typename T>
static inline void ring_pop(ring<T> *queue)
{
    queue->first = (queue->first + 1) % QUEUE_ROOM;
    queue->num--;
}

void put_message(world_t *world, int channel, message_t *message);
void mark_channel(world_t *world, int channel); // after a message was taken off

bool is_node(const world_t *world, uint32_t node); // whether there is a place on it
void apply_name_change(world_t *world, uint32_t node, const name_change_t *change);
void bind_names(proc_t *proc, bool bound);

void set_cut(world_t *world, uint32_t a, uint32_t b, bool cut);
void notice_cut(world_t *world, uint32_t node, uint32_t peer);
void heal(world_t *world, uint32_t a, uint32_t b);

void start(proc_t *proc);
void kill_proc(proc_t *proc);
void lose_connection(proc_t *proc, bool says_notconn, bool with_events);
void read_topology(proc_t *proc);
void expire_next(proc_t *proc);

#endif
