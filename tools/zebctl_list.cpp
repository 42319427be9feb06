// zebctl list: every instance, one line each.
#include <cstdio>

#include "ops_table.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

static std::vector<std::string> list_cells(const zebctl_row_t &row)
{
    bool told = zebctl_has_application(row);
    std::vector<std::string> cells = {std::to_string(row.seen.inst.app),
                                      told ? zebctl_text_or(row.stat.name, "-") : "-",
                                      std::to_string(row.seen.inst.node)};
    cells.push_back(zebctl_has_identity(row) ? std::to_string(row.identity.info.pid) : "-");
    cells.push_back(!told ? "-" : (row.stat.versions.empty() ? "client" : "server"));
    cells.push_back(told ? zebctl_text_or(zebctl_joined(row.stat.versions, ","), "-") : "-");
    cells.push_back(told ? std::to_string(row.stat.queue) : "-");
    cells.push_back(zebctl_has_identity(row)
                        ? zebctl_text_or(zebctl_joined(zebctl_level_names(row.identity.info.dbg_mask), ","), "none")
                        : "-");
    cells.push_back(zebctl_text_or(row.process.program, "-"));
    std::string note = ops_printable(row.why);
    if (row.seen.sockets > 1)
        note += (note.empty() ? "" : "; ") + std::to_string(row.seen.sockets) + " processes share it";
    cells.push_back(note);
    return cells;
}

static void show(const zebctl_rows_t *rows)
{
    ops_table_t table = {{"APP", "NAME", "NODE", "PID", "ROLE", "VERSIONS", "QUEUE", "LEVELS", "PROGRAM", ""}};
    for (const zebctl_row_t &row : rows->rows)
        table.push_back(list_cells(row));
    ops_print_table(table);
}

// The names alone are worth a list.
static int ask_and_show(zebctl_rows_t *rows)
{
    int ret = zebctl_ask_identity(rows);
    if (ret == 0)
        ret = zebctl_ask_statistics(rows);
    if (ret == 0)
        zebctl_ask_processes(rows);
    if (rows->zebctl->json)
        zebctl_print(zebctl_record(rows, "zeb.list.1", zebctl_list_json));
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
