// zebctl dump: the statistics text of instances.
#include <cstdio>

#include "zebctl_rows.h"
#include "zebctl_text.h"

static json_t dump_json(const zebctl_row_t &row)
{
    json_t out = zebctl_identity_json(row);
    out["cut"] = row.stat.cut;
    if (row.statistics.outcome == OPS_ANSWERED)
        out["text"] = ops_printable(row.statistics.text.c_str());
    return out;
}

static void show(const zebctl_rows_t *rows)
{
    for (const zebctl_row_t &row : rows->rows) {
        if (rows->rows.size() > 1)
            printf("==> %s <==\n", ops_inst_text(row.seen.inst).c_str());
        std::string text = row.statistics.text;
        while (!text.empty() && text.back() == '\0')
            text.pop_back();
        printf("%s", ops_printable(text).c_str());
    }
}

static int run(zebctl_t *zebctl, const zebctl_target_t &target)
{
    zebctl_rows_t rows;
    int code = zebctl_gather(&rows, zebctl, target);
    if (code == ZEBCTL_OK) {
        if (zebctl->json)
            zebctl_print(zebctl_record(&rows, "zeb.dump.1", dump_json));
        else
            show(&rows);
        code = zebctl_conclude(&rows);
    }
    zebctl_close(&rows);
    return code;
}

void zebctl_add_dump(CLI::App *app, zebctl_t *zebctl)
{
    static zebctl_target_t target;
    CLI::App *command = app->add_subcommand("dump", "the statistics text of instances");
    zebctl_add_target(command, &target);
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, target); }; });
}
