// zebctl as an application: it registers an id with the library, joins the instances that it calls, and gathers what
// becomes of a call or a message at each of them.
//
// An instance completes a handshake only with an application that it has named, or with its own id on another node. So
// the statistics of the instances are asked first: they say which ids those are.
#ifndef ZEBCTL_CALLER_H
#define ZEBCTL_CALLER_H

#include <string>
#include <vector>

#include "zebctl_rows.h"

typedef enum zebctl_outcome_e {
    ZEBCTL_REPLY = 0,       // of a call: `body`
    ZEBCTL_DISPATCHED = 1,  // of a message: it was handed to a dispatcher
    ZEBCTL_SENT = 2,        // TIPC took it, and no more is known
    ZEBCTL_MISMATCH = 3,    // no dispatcher of this version
    ZEBCTL_UNAVAILABLE = 4, // it does not know us
    ZEBCTL_FAILED = 5,
    ZEBCTL_NO_ANSWER = 6,
    ZEBCTL_QUIT = 7,
    ZEBCTL_DROPPED = 8,
    ZEBCTL_NOT_NAMED = 9,
    ZEBCTL_CLIENT = 10, // it has no dispatcher at all
    ZEBCTL_NOT_ONLINE = 11,
    ZEBCTL_PENDING = 12
} zebctl_outcome_t;

const char *zebctl_outcome_word(zebctl_outcome_t outcome);

typedef struct zebctl_answer_s {
    ops_inst_t inst;
    zebctl_outcome_t outcome;
    std::string why;  // unless it is a reply
    std::string body; // of a reply
    int64_t begun;
    int64_t took;           // ms
    uint32_t counted;       // messages of ours that it had dispatched before
    uint32_t counted_drops; // and dropped
    zeb_mismatch_info_t range;
} zebctl_answer_t;

typedef struct zebctl_caller_s {
    zebctl_rows_t rows; // the instances, with their statistics
    uint32_t app;       // that is called
    uint32_t from;      // 0: to be chosen
    uint32_t version;
    std::string body;
    int64_t timeout; // ms, of a call, and for a message until it is dispatched
    std::vector<zebctl_answer_t> answers;
    size_t waiting; // calls without an outcome
} zebctl_caller_t;

// Looks at the instances of the target, chooses the id, registers it and joins them. ZEBCTL_OK, or an exit code after
// it has said what is wrong. The answers then say who cannot be reached.
int zebctl_caller_begin(zebctl_caller_t *caller, const zebctl_t *zebctl, const zebctl_target_t &target);

// Call, or send to, each instance that is online, and fill the answers.
void zebctl_caller_call(zebctl_caller_t *caller);
void zebctl_caller_send(zebctl_caller_t *caller);

void zebctl_caller_end(zebctl_caller_t *caller);

#endif
