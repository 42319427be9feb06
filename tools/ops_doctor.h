// What is wrong with this node, and with what can be seen of the cluster from here. Nothing is changed. Each question
// has a deadline; what cannot be looked at is said to be left out.
#ifndef OPS_DOCTOR_H
#define OPS_DOCTOR_H

#include <string>
#include <vector>

#include "ops_session.h"

typedef enum ops_verdict_e {
    OPS_GOOD = 0,
    OPS_LEFT_OUT = 1, // it could not be looked at
    OPS_HINT = 2,
    OPS_DOUBTFUL = 3,
    OPS_WRONG = 4,
    OPS_VERDICTS = 5
} ops_verdict_t;

typedef struct ops_diagnosis_s {
    std::string area;
    ops_verdict_t verdict;
    std::string what;
    std::string type; // what to type or to write; empty where there is nothing to do
} ops_diagnosis_t;

typedef std::vector<ops_diagnosis_t> ops_diagnoses_t;

const char *ops_verdict_word(ops_verdict_t verdict);

// Looks at everything. An instance has `timeout` milliseconds for each reply.
ops_diagnoses_t ops_doctor(int64_t timeout);

// Its parts; each adds what it finds.
bool ops_doctor_simulated();
void ops_doctor_tipc(ops_diagnoses_t *list);
void ops_doctor_links(ops_diagnoses_t *list);
void ops_doctor_clock(ops_diagnoses_t *list);
void ops_doctor_node_id(ops_diagnoses_t *list);
void ops_doctor_conf(ops_diagnoses_t *list);
void ops_doctor_log(ops_diagnoses_t *list);
void ops_doctor_cluster(ops_diagnoses_t *list, int64_t timeout);

// The parts that are the same for every text.
void ops_doctor_node_id_text(ops_diagnoses_t *list, const std::string &text);
void ops_doctor_conf_text(ops_diagnoses_t *list, const std::string &text);

// The room that the senders of an application need: `senders` has their priorities. See docs/operations.md.
uint64_t ops_doctor_rmem_needed(const std::vector<int32_t> &senders);

#endif
