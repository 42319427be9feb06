// The sampler: holds the view and application 1 of this node, asks all instances for their statistics in rounds, and
// keeps the model. What others of the daemon ask goes through the same client, in turns.
//
// The topology connection is opened again when it is lost; what has changed meanwhile are events like any other. While
// another process is application 1, nobody is asked, and the name is tried again.
#ifndef ZEBD_SAMPLE_H
#define ZEBD_SAMPLE_H

#include "zebd.h"

constexpr int64_t ZEBD_FAST = 1000; // ms between two rounds while anyone follows events

typedef struct zebd_sampler_s {
    zebd_loop_t *loop;
    zebd_model_t *model;
    int64_t interval; // ms
    void (*say)(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

    ops_view_t view;
    bool in_step; // the view has all that was published when it was opened
    bool was_in_step;
    zebd_entry_t view_watch, view_timer;

    ops_client_t client;
    bool is_app1;
    bool said_held;
    zebd_entry_t client_watch, client_timer, step_timer;

    zebd_entry_t round_timer;
    bool in_round;
    int64_t began; // of the last round, ms of CLOCK_MONOTONIC
    int64_t took;  // from its begin to the last answer
    std::vector<ops_request_t> requests;
    ops_batch_t batch;
    std::map<uint32_t, size_t> stat_bytes; // by ops_name_of: of what is kept parsed
    size_t stats_size;                     // the sum of them
} zebd_sampler_t;

// Begins. 0, or a negative errno value: no TIPC.
int zebd_sampler_open(zebd_sampler_t *sampler);
void zebd_sampler_close(zebd_sampler_t *sampler);

// Asks the instances of a batch, beside the rounds. -EADDRINUSE while another process is application 1.
int zebd_sampler_ask(zebd_sampler_t *sampler, ops_batch_t *batch);
void zebd_sampler_cancel(zebd_sampler_t *sampler, ops_batch_t *batch);

// The client has something to do: a batch goes on.
void zebd_sampler_wake(zebd_sampler_t *sampler);

// Somebody began to follow events.
void zebd_sampler_hasten(zebd_sampler_t *sampler);

#endif
