// Evidence of instances that quit while they were blocked, or while a sender waited for them: what the model knows of
// each goes into a file of its own, and the last ZEBD_EVIDENCE_MAX files are kept.
#ifndef ZEBD_EVIDENCE_H
#define ZEBD_EVIDENCE_H

#include "ops_record.h"
#include "zebd.h"

// The samples of an instance, and of a pair.
ops_json_t zebd_record_of_inst(const zebd_inst_t &inst);
ops_json_t zebd_record_of_pair(const zebd_pair_t &pair);

// Begins to follow the events. The directory must be there.
void zebd_evidence_open(zebd_loop_t *loop, const zebd_model_t *model, const std::string &dir);

// Whether the instance is blocked, or blocks a sender.
bool zebd_evidence_is_due(const zebd_model_t &model, ops_inst_t inst);

// Saves what is known of it. 0 or a negative errno value.
int zebd_evidence_save(const zebd_model_t &model, ops_inst_t inst, const std::string &dir);

#endif
