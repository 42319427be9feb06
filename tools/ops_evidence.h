// All that can be known of one process, saved to a new directory before it is ended: what it answers, twice, what its
// peers say of it, its threads, its log, and the state of the node. Also of a process that does not answer: then what
// is missing is said in SUMMARY.txt, with the reason.
//
// It waits for answers, so it is called by a process of its own. A file has 256 KiB at most, and there are at most
// as many files as parts.
#ifndef OPS_EVIDENCE_H
#define OPS_EVIDENCE_H

#include <string>
#include <vector>

#include "ops_session.h"

constexpr size_t OPS_EVIDENCE_FILE_MAX = 256 << 10;

typedef struct ops_evidence_s {
    ops_inst_t inst;
    int32_t pid;      // 0: what the instance says
    std::string dir;  // in which the new directory is made
    int64_t timeout;  // ms that an instance has for each reply
    int64_t interval; // ms between the two statistics
} ops_evidence_t;

typedef struct ops_evidence_part_s {
    std::string file;
    int64_t at;      // ms of CLOCK_REALTIME
    size_t bytes;    // that were written
    std::string why; // it is missing, or not whole; empty when it is there
} ops_evidence_part_t;

typedef struct ops_evidence_result_s {
    std::string path; // the new directory
    std::vector<ops_evidence_part_t> parts;
    size_t missing;  // parts with a `why`
    std::string why; // nothing was saved
} ops_evidence_result_t;

// 0, or a negative errno value when nothing could be saved: -ENOENT with an empty path when there is no such instance.
int ops_evidence(const ops_evidence_t &evidence, ops_evidence_result_t *result);

#endif
