// A cluster that was made up, for tests of what zebd shows: NODES nodes with APPS applications each, of which each
// sends to the next ones. All is as it would be after an hour of sampling.
#ifndef PAGE_MODEL_H
#define PAGE_MODEL_H

#include "zebd.h"

constexpr int64_t PAGE_STEP = 10000; // ms between samples

zebd_model_t page_model(uint32_t nodes, uint32_t apps, uint32_t peers);

// Application `index` of `node`, both counted from 0.
ops_inst_t page_inst(uint32_t node, uint32_t index);

// The next sample of all.
void page_round(zebd_model_t *model, int64_t at);

void page_event(zebd_model_t *model, ops_event_kind_t kind, ops_inst_t inst, ops_inst_t peer);
void page_join(zebd_model_t *model, ops_inst_t inst);
void page_quit(zebd_model_t *model, ops_inst_t inst, int64_t ago); // ms

// Makes the pair one of which the window is full, or one that has room.
void page_block(zebd_model_t *model, ops_inst_t sender, ops_inst_t receiver, bool blocked);

#endif
