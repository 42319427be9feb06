// What the library's shell does around a core: effects, and routing of what a process reads. Also the parts of the
// world that it sends to.
#ifndef EXPLORE_SHELL_H
#define EXPLORE_SHELL_H

#include "world.h"

extern const zeb_hs_effects_t g_effects;

void receive(proc_t *proc, message_t *message);
void read_event(proc_t *proc, const event_t *event);
void send_traffic(proc_t *proc, int app, int to);
bool may_send_traffic(const proc_t *proc, int app, int to);

// Of the world. 0, or the error.
int send_message(proc_t *proc, int app, zeb_inst_t dst, message_t *message);
int add_timer(proc_t *proc, unsigned seconds, zeb_timer_t timer);

#endif
