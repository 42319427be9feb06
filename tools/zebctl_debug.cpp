// zebctl debug: switches the levels that instances print.
#include <cstdio>

#include "ops_table.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

// The masks of levels to switch on and off: of one named twice, the last word counts.
static void take_masks(const std::vector<std::string> &levels, uint32_t *set, uint32_t *clear)
{
    for (const std::string &word : levels) {
        uint32_t bits = zebctl_level(word.substr(1));
        bool on = word[0] == '+';
        *set = on ? *set | bits : *set & ~bits;
        *clear = on ? *clear & ~bits : *clear | bits;
    }
}

static void show(const zebctl_rows_t *rows)
{
    ops_table_t table = {{"APP", "NODE", "PID", "LEVELS", ""}};
    for (const zebctl_row_t &row : rows->rows) {
        bool told = zebctl_has_identity(row);
        table.push_back(
            {std::to_string(row.seen.inst.app), std::to_string(row.seen.inst.node),
             told ? std::to_string(row.identity.info.pid) : "-",
             told ? zebctl_text_or(zebctl_joined(zebctl_level_names(row.identity.info.dbg_mask), ","), "none") : "-",
             ops_printable(row.why)});
    }
    ops_print_table(table);
}

static int switch_levels(zebctl_rows_t *rows)
{
    uint32_t set = 0;
    uint32_t clear = 0;
    take_masks(rows->zebctl->levels, &set, &clear);
    int ret = zebctl_ask_debug(rows, set, clear);
    if (ret != 0)
        return zebctl_say_unasked(rows, ret);
    if (rows->zebctl->json)
        zebctl_print(zebctl_record(rows, "zeb.debug.1", zebctl_identity_json));
    else
        show(rows);
    return zebctl_conclude(rows);
}

static int run(zebctl_t *zebctl, const zebctl_target_t &target)
{
    if (zebctl->levels.empty()) {
        fprintf(stderr, "zebctl: debug needs levels, as in: zebctl debug 100 +verbose -info\nType: zebctl --help\n");
        return ZEBCTL_USAGE;
    }
    zebctl_rows_t rows;
    int code = zebctl_open(&rows, zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(&rows, target);
    if (code == ZEBCTL_OK)
        code = switch_levels(&rows);
    zebctl_close(&rows);
    return code;
}

void zebctl_add_debug(CLI::App *app, zebctl_t *zebctl)
{
    static zebctl_target_t target;
    CLI::App *command = app->add_subcommand(
        "debug", "switch the levels that instances print: +verbose -info; verbose, info, warn, error, all");
    zebctl_add_target(command, &target);
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, target); }; });
}
