// zebctl top: what its table holds, for a terminal and for a file.
#ifndef ZEBCTL_TOP_H
#define ZEBCTL_TOP_H

#include <string>
#include <vector>

#include "ops_table.h"
#include "zebctl_look.h"

typedef enum top_sort_e {
    TOP_SENT = 0, // messages in a second, most first
    TOP_RECEIVED = 1,
    TOP_QUEUE = 2,
    TOP_UNACK = 3,
    TOP_INSTANCE = 4 // by application, then by node
} top_sort_t;

typedef struct top_line_s {
    ops_inst_t inst;
    std::string name;
    double send; // messages in a second, or OPS_NO_RATE
    double recv;
    uint32_t queue;
    int64_t unack;  // to all peers, unacknowledged
    size_t blocked; // peers whose window is full
    bool answered;
    bool grows; // its queue or its unacknowledged messages, since the look before
    std::string note;
} top_line_t;

typedef struct top_s {
    zebctl_look_t before;
    zebctl_look_t now;
    size_t looks;
    top_sort_t sort;
    std::string filter; // of what a line shows; empty: all
} top_t;

// Looks once more.
void zebctl_top_look(top_t *top, const zebctl_t *zebctl, const zebctl_target_t &target);

// The lines in their order, those that the filter leaves.
std::vector<top_line_t> zebctl_top_lines(const top_t &top);

// What stands above the table, and the table, with its titles first.
std::string zebctl_top_summary(const top_t &top, const std::vector<top_line_t> &lines);
ops_table_t zebctl_top_table(const std::vector<top_line_t> &lines);
extern const ops_importance_t ZEBCTL_TOP_IMPORTANCE;

// Repaints the terminal until a key or a signal ends it. ZEBCTL_OK; ZEBCTL_ERROR when the terminal cannot be used.
int zebctl_top_screen(top_t *top, const zebctl_t *zebctl, const zebctl_target_t &target, int64_t interval);

#endif
