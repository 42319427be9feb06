// zebctl evidence: saves all that can be known of one process.
#include <cerrno>
#include <cstdio>

#include "ops_evidence.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

typedef struct evidence_options_s {
    zebctl_target_t target;
    std::string dir;
    int32_t pid;
    double interval;
} evidence_options_t;

static void print(const ops_evidence_t &evidence, const ops_evidence_result_t &result)
{
    json_t parts = json_t::array();
    for (const ops_evidence_part_t &part : result.parts) {
        json_t out = {{"file", part.file}, {"at_ms", part.at}, {"bytes", part.bytes}};
        if (!part.why.empty())
            out["missing"] = ops_printable(part.why);
        parts.push_back(out);
    }
    json_t record = {{"type", "zeb.evidence.1"}};
    record.update(zebctl_inst_json(evidence.inst));
    record["directory"] = result.path;
    record["missing"] = result.missing;
    record["parts"] = parts;
    zebctl_print(record);
}

static void show(const ops_evidence_result_t &result)
{
    printf("%s\n", result.path.c_str());
    (void)fflush(stdout);
    for (const ops_evidence_part_t &part : result.parts) {
        if (!part.why.empty())
            fprintf(stderr, "zebctl: %s %s: %s\n", part.file.c_str(), part.bytes == 0 ? "is missing" : "is not whole",
                    ops_printable(part.why).c_str());
    }
}

static int run(zebctl_t *zebctl, const evidence_options_t &options)
{
    if (!options.target.node) {
        fprintf(stderr, "zebctl: evidence is of one process: give its node, as in: zebctl evidence %u@3\n",
                *options.target.app);
        return ZEBCTL_USAGE;
    }
    ops_evidence_t evidence = {{*options.target.app, *options.target.node},
                               options.pid,
                               options.dir,
                               zebctl_timeout_ms(zebctl),
                               (int64_t)(options.interval * 1000)};
    ops_evidence_result_t result;
    zebctl_progress("saving what is known of " + ops_inst_text(evidence.inst));
    int ret = ops_evidence(evidence, &result);
    zebctl_progress("");
    if (ret != 0) {
        bool nobody = ret == -ENOENT && result.path.empty(); // else there is no such directory
        fprintf(stderr, "zebctl: nothing was saved: %s. Type: %s\n", result.why.c_str(),
                nobody ? "zebctl list" : "zebctl evidence --help");
        return nobody ? ZEBCTL_NOBODY : ZEBCTL_ERROR;
    }
    zebctl->json ? print(evidence, result) : show(result);
    return result.missing == 0 ? ZEBCTL_OK : ZEBCTL_PARTIAL;
}

void zebctl_add_evidence(CLI::App *app, zebctl_t *zebctl)
{
    static evidence_options_t options;
    options.dir = ".";
    options.interval = 1;
    CLI::App *command = app->add_subcommand("evidence", "save all that can be known of one process");
    zebctl_add_target(command, &options.target);
    command->add_option("--dir", options.dir, "in which a new directory is made (.)")->type_name("D");
    command->add_option("--pid", options.pid, "its process, for one that does not answer")->type_name("P");
    zebctl_add_seconds(command, "--interval", &options.interval, "between two statistics (1s)");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
