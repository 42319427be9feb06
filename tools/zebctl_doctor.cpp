// zebctl doctor: what is wrong with this node.
#include <algorithm>
#include <cstdio>

#include "ops_doctor.h"
#include "ops_table.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

static size_t count(const ops_diagnoses_t &list, ops_verdict_t verdict)
{
    return (size_t)std::count_if(list.begin(), list.end(),
                                 [=](const ops_diagnosis_t &one) { return one.verdict == verdict; });
}

static void print(const ops_diagnoses_t &list)
{
    json_t findings = json_t::array();
    for (const ops_diagnosis_t &one : list) {
        json_t out = {
            {"area", one.area}, {"verdict", ops_verdict_word(one.verdict)}, {"what", ops_printable(one.what)}};
        if (!one.type.empty())
            out["type"] = one.type;
        findings.push_back(out);
    }
    zebctl_print({{"type", "zeb.doctor.1"},
                  {"simulated", ops_doctor_simulated()},
                  {"wrong", count(list, OPS_WRONG)},
                  {"doubtful", count(list, OPS_DOUBTFUL)},
                  {"findings", findings}});
}

static void show(const ops_diagnoses_t &list)
{
    for (const ops_diagnosis_t &one : list) {
        printf("%-9s %-10s %s\n", ops_verdict_word(one.verdict), one.area.c_str(), ops_printable(one.what).c_str());
        if (!one.type.empty())
            printf("%-20s > %s\n", "", ops_printable(one.type).c_str());
    }
    printf("%zu wrong, %zu doubtful, %zu hints, %zu left out\n", count(list, OPS_WRONG), count(list, OPS_DOUBTFUL),
           count(list, OPS_HINT), count(list, OPS_LEFT_OUT));
}

static int run(zebctl_t *zebctl)
{
    zebctl_progress("looking at this node and the cluster");
    ops_diagnoses_t list = ops_doctor(zebctl_timeout_ms(zebctl));
    zebctl_progress("");
    zebctl->json ? print(list) : show(list);
    return count(list, OPS_WRONG) == 0 ? ZEBCTL_OK : ZEBCTL_PARTIAL;
}

void zebctl_add_doctor(CLI::App *app, zebctl_t *zebctl)
{
    CLI::App *command = app->add_subcommand("doctor", "what is wrong with this node, and what to type");
    command->callback([=] { zebctl->run = run; });
}
