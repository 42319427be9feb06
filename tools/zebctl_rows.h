// The instances that a command is about, and what they answered. A command selects rows, asks what it needs, and shows
// them; a row without an answer is shown with what went wrong.
#ifndef ZEBCTL_ROWS_H
#define ZEBCTL_ROWS_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "ops_session.h"
#include "ops_stat.h"
#include "zebctl.h"

typedef nlohmann::ordered_json json_t;

constexpr int64_t ZEBCTL_VIEW_TIME = 5000; // ms for the topology service or the zebd

typedef struct zebctl_row_s {
    ops_seen_t seen;
    bool asked;             // false: this is application 1 itself
    ops_request_t identity; // of OPS_ASK_INFO or OPS_ASK_DEBUG
    ops_request_t statistics;
    ops_stat_t stat;
    ops_process_t process;
    double alone_ms; // that an identity request took when nothing else was asked; 0: not measured
    std::string why; // what is missing; empty when nothing is
} zebctl_row_t;

typedef struct zebctl_rows_s {
    const zebctl_t *zebctl;
    ops_session_t session;
    std::vector<zebctl_row_t> rows;
} zebctl_rows_t;

// Begins a session. ZEBCTL_OK, or an exit code after it has said what is wrong.
int zebctl_open(zebctl_rows_t *rows, const zebctl_t *zebctl);
void zebctl_close(zebctl_rows_t *rows);

// Fills the rows with the instances that match, none asked yet. ZEBCTL_OK, or an exit code after it has said what is
// wrong: ZEBCTL_NOBODY when none matches.
int zebctl_select(zebctl_rows_t *rows, const zebctl_target_t &target);

// The same without a word: 0 or a negative errno value, as ops_session_view.
int zebctl_pick(zebctl_rows_t *rows, const zebctl_target_t &target);

// Says that no instance matches.
std::string zebctl_nobody(const zebctl_target_t &target);

// Ask the selected instances: who they are; their statistics, of those that said who they are; to switch levels; and
// their nodes for their processes. 0 or a negative errno value, as ops_session_ask.
int zebctl_ask_identity(zebctl_rows_t *rows);
int zebctl_ask_statistics(zebctl_rows_t *rows);
int zebctl_ask_debug(zebctl_rows_t *rows, uint32_t set, uint32_t clear);
void zebctl_ask_processes(zebctl_rows_t *rows);

// Opens, selects, and asks for identity and statistics: what most commands begin with. ZEBCTL_OK, or an exit code.
int zebctl_gather(zebctl_rows_t *rows, const zebctl_t *zebctl, const zebctl_target_t &target);

// Says on standard error why nobody could be asked. Returns ZEBCTL_ERROR.
int zebctl_say_unasked(const zebctl_rows_t *rows, int ret);

// ZEBCTL_OK when all answered in full; else ZEBCTL_PARTIAL, after it has said how many did not (not with --json).
int zebctl_conclude(const zebctl_rows_t *rows);

bool zebctl_has_identity(const zebctl_row_t &row);
bool zebctl_has_application(const zebctl_row_t &row);
size_t zebctl_unanswered(const zebctl_rows_t *rows);

// A row as JSON: who it is; and what a list shows; and all counters.
json_t zebctl_identity_json(const zebctl_row_t &row);
json_t zebctl_list_json(const zebctl_row_t &row);
json_t zebctl_stat_json(const zebctl_row_t &row);
json_t zebctl_inst_json(ops_inst_t inst);

// The record of a command: its type with version, this node, how many did not answer, and each row.
json_t zebctl_record(const zebctl_rows_t *rows, const char *type, json_t (*json)(const zebctl_row_t &row));

// Prints a record, on one line for a stream.
void zebctl_print(const json_t &record);
void zebctl_print_line(const json_t &record);

#endif
