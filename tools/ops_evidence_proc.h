// What /proc tells of a process of this node. For ops_evidence alone.
#ifndef OPS_EVIDENCE_PROC_H
#define OPS_EVIDENCE_PROC_H

#include <cstdint>
#include <string>

// Its state, limits and command line; its threads, with what each waits for; its descriptors. `why` is set when the
// text is empty.
std::string ops_evidence_process(int32_t pid, std::string *why);
std::string ops_evidence_threads(int32_t pid, std::string *why);
std::string ops_evidence_descriptors(int32_t pid, std::string *why);

#endif
