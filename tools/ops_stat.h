// The parser of the statistics text: what an instance answers to a statistics request, and what the statistics file
// holds below its first line. The formats are those of the library's listings; a test feeds it each of them.
//
// The text comes from a peer and may be anything. What is no line of a listing is counted and skipped; numbers that do
// not fit are such lines. The record grows with the text, which has 60 KiB at most, and not with what the text says.
#ifndef OPS_STAT_H
#define OPS_STAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ops_wire.h"

// Parts of the text, as bits.
constexpr uint32_t OPS_STAT_LIB = 1;    // the process's library
constexpr uint32_t OPS_STAT_APP = 2;    // the application
constexpr uint32_t OPS_STAT_FLOW = 4;   // flow control
constexpr uint32_t OPS_STAT_MNG = 8;    // synchronisation messages
constexpr uint32_t OPS_STAT_CALLS = 16; // calls in progress
constexpr uint32_t OPS_STAT_WHOLE = 31;

typedef std::vector<uint32_t> ops_ids_t;

// What the process knows of a peer application.
typedef struct ops_peer_app_s {
    uint32_t app;
    ops_ids_t servers;     // nodes
    ops_ids_t subscribers; // applications of the process
    ops_ids_t instances;   // nodes
    ops_ids_t acked;       // nodes
    ops_ids_t online;      // nodes
} ops_peer_app_t;

typedef struct ops_pending_s {
    uint32_t src_app;
    uint32_t seq;
    ops_inst_t dst;
} ops_pending_t;

typedef struct ops_group_s {
    uint32_t id;
    ops_ids_t members;
} ops_group_t;

typedef struct ops_flow_send_s {
    ops_inst_t dst;
    uint32_t send;
    int32_t unack;
    uint32_t reject;
    uint32_t reply_reject;
} ops_flow_send_t;

typedef struct ops_flow_recv_s {
    ops_inst_t src;
    uint32_t recv;
    int32_t unack;
    uint32_t drop;
    uint32_t returned;
} ops_flow_recv_t;

typedef struct ops_sync_s {
    ops_inst_t peer;
    uint32_t inst;
    uint32_t inst_ack;
    uint32_t inst_seq_ack;
    uint32_t failed; // sent: not written; received: came back
} ops_sync_t;

typedef struct ops_call_s {
    uint32_t seq;
    uint32_t timeout; // seconds, 0: no limit
    std::vector<ops_inst_t> waiting;
    std::vector<std::pair<ops_inst_t, std::string>> replied; // and the status
} ops_call_t;

typedef struct ops_stat_s {
    uint32_t parts; // OPS_STAT_... that were found
    bool cut;       // the text is longer than the instance's buffer: what follows is not all there is
    uint32_t odd;   // lines that are none of a listing
    std::string first_odd;

    uint32_t app;
    uint32_t node;
    ops_ids_t process_apps;
    std::vector<ops_peer_app_t> peer_apps;
    std::vector<ops_pending_t> unacked; // synchronisations
    std::vector<ops_pending_t> resumes;
    std::vector<ops_pending_t> resent; // acknowledgements

    std::string name;
    int32_t priority;
    bool own_thread;    // its callbacks run on a thread of their own; else on another one, or when its program says
    ops_ids_t versions; // with a dispatcher; none: a client
    ops_ids_t named;    // peer applications
    uint32_t queue;     // unprocessed messages
    std::vector<ops_group_t> app_groups;
    std::vector<ops_group_t> node_groups;

    uint32_t send, mcast_reject, reply_exception, recv, exception;
    int32_t send_unack, recv_unack;
    std::vector<ops_flow_send_t> sends;
    std::vector<ops_flow_recv_t> recvs;

    uint32_t sync_send, sync_recv;
    std::vector<ops_sync_t> sync_sends;
    std::vector<ops_sync_t> sync_recvs;

    std::vector<ops_call_t> calls;
} ops_stat_t;

// Parses `len` bytes at `text`, a terminator among them or not.
ops_stat_t ops_stat_parse(const char *text, size_t len);

// Why the record is not all there is, in a few words; empty when it is.
std::string ops_stat_missing(const ops_stat_t &stat);

// The text for a terminal: control characters and bytes beyond ASCII, which a peer may send, are shown as '?'.
std::string ops_printable(const std::string &text);

#endif
