// zebctl wait: until instances are published. The topology service alone is asked, so any number of them may wait.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>

#include "ops_conf.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

constexpr double TIMEOUT = 30; // seconds, unless one is given

typedef struct wait_options_s {
    std::vector<zebctl_target_t> targets;
    uint32_t count;
} wait_options_t;

static std::string target_text(const zebctl_target_t &target)
{
    std::string name = ops_conf_name(*target.app);
    return std::to_string(*target.app) + (target.node ? "@" + std::to_string(*target.node) : "") +
           (name.empty() ? "" : " (" + name + ")");
}

static std::vector<ops_inst_t> online(const ops_view_t &view, const zebctl_target_t &target)
{
    std::vector<ops_inst_t> insts;
    for (const auto &one : view.insts) {
        ops_inst_t inst = ops_inst_of(one.first);
        if (inst.app == *target.app && (!target.node || inst.node == *target.node))
            insts.push_back(inst);
    }
    return insts;
}

static uint32_t needed(const wait_options_t &options, const zebctl_target_t &target)
{
    return target.node ? 1 : options.count;
}

static bool all_online(const ops_view_t &view, const wait_options_t &options)
{
    return std::all_of(options.targets.begin(), options.targets.end(), [&](const zebctl_target_t &target) {
        return online(view, target).size() >= needed(options, target);
    });
}

// Waits for the next change. 0, or a negative errno value.
static int wait_change(ops_view_t *view, int64_t deadline)
{
    ops_change_t change = OPS_NO_CHANGE;
    ops_inst_t inst = {};
    int ret = ops_view_read(view, &change, &inst);
    if (ret != -EAGAIN)
        return ret;
    int64_t left = deadline - ops_now();
    if (left <= 0)
        return -ETIMEDOUT;
    struct pollfd entry = {view->sd, POLLIN, 0};
    (void)poll(&entry, 1, (int)std::min<int64_t>(left, 1000));
    return 0;
}

static int wait_all(ops_view_t *view, const wait_options_t &options, int64_t deadline)
{
    int ret = ops_view_open(view);
    if (ret == 0)
        ret = ops_view_sync(view, deadline);
    while (ret == 0 && !all_online(*view, options))
        ret = wait_change(view, deadline);
    return ret;
}

static void print(const ops_view_t &view, const wait_options_t &options, int64_t took)
{
    json_t targets = json_t::array();
    for (const zebctl_target_t &target : options.targets) {
        json_t insts = json_t::array();
        for (ops_inst_t inst : online(view, target))
            insts.push_back(zebctl_inst_json(inst));
        json_t out = {{"app", *target.app}};
        if (target.node)
            out["node"] = *target.node;
        out["needed"] = needed(options, target);
        out["online"] = insts.size() >= needed(options, target);
        out["instances"] = insts;
        targets.push_back(out);
    }
    zebctl_print({{"type", "zeb.wait.1"}, {"took_ms", took}, {"targets", targets}});
}

static void say_missing(const ops_view_t &view, const wait_options_t &options, int64_t timeout)
{
    for (const zebctl_target_t &target : options.targets) {
        size_t there = online(view, target).size();
        uint32_t wanted = needed(options, target);
        if (there >= wanted)
            continue;
        fprintf(stderr, "zebctl: %s is not online after %lld ms", target_text(target).c_str(), (long long)timeout);
        if (wanted > 1)
            fprintf(stderr, ": %zu of %u instances", there, wanted);
        fprintf(stderr, ". Type: zebctl list --app %u\n", *target.app);
    }
}

static int run(zebctl_t *zebctl, const wait_options_t &options)
{
    int64_t timeout = zebctl->has_timeout ? zebctl_timeout_ms(zebctl) : (int64_t)(TIMEOUT * 1000);
    int64_t begun = ops_now();
    ops_view_t view = {};
    zebctl_progress("waiting for " + target_text(options.targets.front()) +
                    (options.targets.size() > 1 ? " and others" : ""));
    int ret = wait_all(&view, options, begun + timeout);
    zebctl_progress("");
    if (ret != 0 && ret != -ETIMEDOUT) {
        fprintf(stderr, "zebctl: the topology service does not answer: %s. Type: zebctl doctor\n", strerror(-ret));
        ops_view_close(&view);
        return ZEBCTL_ERROR;
    }
    if (zebctl->json)
        print(view, options, ops_now() - begun);
    else if (ret != 0)
        say_missing(view, options, timeout);
    ops_view_close(&view);
    return ret == 0 ? ZEBCTL_OK : ZEBCTL_TIMED_OUT;
}

static std::string take_target(const std::string &text, wait_options_t *options)
{
    zebctl_target_t target;
    std::string wrong = zebctl_parse_target(text, &target);
    if (wrong.empty())
        options->targets.push_back(target);
    return wrong;
}

void zebctl_add_wait(CLI::App *app, zebctl_t *zebctl)
{
    static wait_options_t options;
    static std::vector<std::string> ignored; // the check stores them
    options.count = 1;
    CLI::App *command = app->add_subcommand("wait", "wait until instances are online");
    command->add_option("targets", ignored, "applications, on any node or on one")
        ->required()
        ->check(CLI::Validator([](const std::string &text) { return take_target(text, &options); }, "APP[@NODE]...",
                               "APP[@NODE]..."))
        ->type_name("");
    command->add_option("--count", options.count, "how many instances of each that has no node (1)")
        ->check(CLI::Range(1, 65536))
        ->type_name("N");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
