// Changes of the model, each with the events that follow from it. Nothing here has a descriptor.
#ifndef ZEBD_MODEL_H
#define ZEBD_MODEL_H

#include "zebd.h"

void zebd_model_event(zebd_model_t *model, zebd_loop_t *loop, const ops_event_t &event);

// An instance was published. `since` is 0 for one that was there when the daemon began: that is no event.
void zebd_model_join(zebd_model_t *model, zebd_loop_t *loop, ops_inst_t inst, uint32_t sockets, int64_t since);
void zebd_model_quit(zebd_model_t *model, zebd_loop_t *loop, ops_inst_t inst);

// Of those that quit, the last ZEBD_GONE_MAX stay.
void zebd_model_bound_gone(zebd_model_t *model);

// What an instance answered at `at`. Its counters and those of its pairs get a sample.
void zebd_model_stat(zebd_model_t *model, zebd_loop_t *loop, zebd_inst_t *inst, int64_t at);

// Forgets instances that quit a while ago, their pairs, and pairs without traffic where room is needed.
void zebd_model_clean(zebd_model_t *model, int64_t now);

// The statistics without their lists.
void zebd_model_shorten(ops_stat_t *stat);

#endif
