// Looks at instances, one after the other, for what is known only from two: rates, queues that do not move.
//
// Each look has a session of its own. So application 1 is free between two of them where no zebd runs, and a zebd that
// came or went meanwhile makes no difference.
#ifndef ZEBCTL_LOOK_H
#define ZEBCTL_LOOK_H

#include <string>

#include "ops_blocked.h"
#include "ops_rates.h"
#include "zebctl_rows.h"

typedef struct zebctl_look_s {
    int code; // ZEBCTL_OK, or the exit code with `why`; nothing is said yet
    std::string why;
    int64_t at;         // ms of CLOCK_MONOTONIC when the statistics had come
    zebctl_rows_t rows; // its session is closed; what it has of this node is kept
} zebctl_look_t;

// Asks the instances that match for identity and statistics. Waits a moment for another zebctl of this node that is
// application 1.
zebctl_look_t zebctl_look(const zebctl_t *zebctl, const zebctl_target_t &target);

// The same, and then measures the answers of those that have answered, one after the other: `alone_ms`.
zebctl_look_t zebctl_look_timed(const zebctl_t *zebctl, const zebctl_target_t &target);

// The same, and says what is wrong. ZEBCTL_OK, or an exit code.
int zebctl_look_once(const zebctl_t *zebctl, const zebctl_target_t &target, zebctl_look_t *look);

// The later of two looks: it has the instances of the earlier one too that are gone by then, with no socket, what is
// missing, and their last statistics.
int zebctl_look_again(const zebctl_t *zebctl, const zebctl_target_t &target, const zebctl_look_t &before,
                      zebctl_look_t *after);

// Both, `interval` milliseconds apart.
int zebctl_look_twice(const zebctl_t *zebctl, const zebctl_target_t &target, int64_t interval, zebctl_look_t *before,
                      zebctl_look_t *after);

// The row of the instance, or null.
const zebctl_row_t *zebctl_row_of(const zebctl_look_t &look, ops_inst_t inst);

// Compares a row of the later look with that of the earlier one. Rates of a process that began anew, or was not there,
// are not known.
ops_rates_t zebctl_rates(const zebctl_look_t &before, const zebctl_look_t &after, const zebctl_row_t &row);

// What a look has for ops_blocked: application 1 is left out.
ops_looks_t zebctl_looks_of(const zebctl_look_t &look);

// Adds "--interval S": seconds between two looks.
void zebctl_add_interval(CLI::App *command, double *interval);

// A rate for a table: "-" when it is not known.
std::string zebctl_rate_text(double rate);

// Lets SIGINT, SIGTERM and SIGHUP end what goes on for long, from now on at its own pace. A process that was started
// with such a signal ignored goes on ignoring it.
void zebctl_catch_signals();

// Whether one has come.
bool zebctl_stopped();

// Waits; a signal ends the wait. Whether none came.
bool zebctl_pause(int64_t ms);

#endif
