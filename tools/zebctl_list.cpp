// zebctl list: every instance, one line each.
#include <cstdio>

#include "ops_conf.h"
#include "ops_table.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

// The name that it registered, and that of the configuration file of this node where it is another one.
static std::string name_of(const zebctl_row_t &row)
{
    std::string configured = ops_conf_name(row.seen.inst.app);
    if (!zebctl_has_application(row))
        return zebctl_text_or(configured, "-");
    bool other = !configured.empty() && configured != row.stat.name;
    return zebctl_text_or(row.stat.name, "-") + (other ? " (zeb.conf: " + ops_printable(configured) + ")" : "");
}

// ms of CLOCK_REALTIME since when it is up; 0: not known.
static int64_t up_since(const zebctl_row_t &row)
{
    return row.process.started != 0 ? row.process.started : row.seen.since;
}

static std::string note_of(const zebctl_row_t &row)
{
    std::string note = ops_printable(row.why);
    if (row.seen.sockets > 1)
        note += (note.empty() ? "" : "; ") + std::to_string(row.seen.sockets) + " processes share it";
    return note;
}

static std::string levels_of(const zebctl_row_t &row)
{
    return zebctl_text_or(zebctl_joined(ops_level_names(row.identity.info.dbg_mask), ","), "none");
}

static std::vector<std::string> list_cells(const zebctl_row_t &row)
{
    bool known = zebctl_has_identity(row);
    bool told = zebctl_has_application(row);
    return {std::to_string(row.seen.inst.app),
            name_of(row),
            std::to_string(row.seen.inst.node),
            known ? std::to_string(row.identity.info.pid) : "-",
            !told ? "-" : (row.stat.versions.empty() ? "client" : "server"),
            told ? zebctl_text_or(zebctl_joined(row.stat.versions, ","), "-") : "-",
            told ? std::to_string(row.stat.queue) : "-",
            known ? levels_of(row) : "-",
            zebctl_time_text(up_since(row)),
            zebctl_text_or(row.process.program, "-"),
            note_of(row)};
}

static void show(const zebctl_rows_t *rows)
{
    static const ops_importance_t importance = {0, 0, 0, 2, 0, 1, 0, 4, 5, 3, 0};
    ops_table_t table = {
        {"APP", "NAME", "NODE", "PID", "ROLE", "VERSIONS", "QUEUE", "LEVELS", "UP SINCE", "PROGRAM", ""}};
    for (const zebctl_row_t &row : rows->rows)
        table.push_back(list_cells(row));
    ops_print_table(table, importance);
}

static json_t list_json(const zebctl_row_t &row)
{
    json_t out = zebctl_list_json(row);
    std::string configured = ops_conf_name(row.seen.inst.app);
    if (!configured.empty())
        out["configured_name"] = ops_printable(configured);
    if (up_since(row) != 0)
        out["up_since_ms"] = up_since(row);
    return out;
}

// The names alone are worth a list.
static int ask_and_show(zebctl_rows_t *rows)
{
    zebctl_progress("asking the instances");
    int ret = zebctl_ask_identity(rows);
    if (ret == 0)
        ret = zebctl_ask_statistics(rows);
    if (ret == 0)
        zebctl_ask_processes(rows);
    zebctl_progress("");
    if (rows->zebctl->json)
        zebctl_print(zebctl_record(rows, "zeb.list.1", list_json));
    else
        show(rows);
    (void)fflush(stdout);
    if (ret == 0)
        return zebctl_conclude(rows);
    (void)zebctl_say_unasked(rows, ret);
    return ZEBCTL_PARTIAL;
}

static int run(zebctl_t *zebctl, const zebctl_target_t &target)
{
    zebctl_rows_t rows;
    int code = zebctl_open(&rows, zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(&rows, target);
    if (code == ZEBCTL_OK)
        code = ask_and_show(&rows);
    zebctl_close(&rows);
    return code;
}

void zebctl_add_list(CLI::App *app, zebctl_t *zebctl)
{
    static zebctl_target_t target;
    CLI::App *command = app->add_subcommand("list", "every instance, one line each");
    zebctl_add_filters(command, &target);
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, target); }; });
}
