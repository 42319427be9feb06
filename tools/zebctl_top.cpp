#include "zebctl_top.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

#include "zebctl_text.h"

typedef struct top_options_s {
    zebctl_target_t target;
    double interval = 1; // seconds
    bool batch = false;
    uint64_t count = 0; // tables; 0: without end
    std::string sort = "sent";
    std::string filter;
} top_options_t;

const ops_importance_t ZEBCTL_TOP_IMPORTANCE = {0, 1, 0, 0, 0, 2, 3, 0};

static const char *const SORTS[] = {"sent", "received", "queue", "unack", "instance"};

// Peers' messages of a sender alone: the total of the library may drift when peers rejoin.
static int64_t unacknowledged(const ops_stat_t &stat)
{
    int64_t sum = 0;
    for (const ops_flow_send_t &send : stat.sends)
        sum += send.unack;
    return sum;
}

static top_line_t line_of(const top_t &top, const zebctl_row_t &row)
{
    ops_rates_t rates = zebctl_rates(top.before, top.now, row);
    const zebctl_row_t *then = zebctl_row_of(top.before, row.seen.inst);
    top_line_t line = {};
    line.inst = row.seen.inst;
    line.name = row.stat.name;
    line.send = rates.send;
    line.recv = rates.recv;
    line.queue = row.stat.queue;
    line.unack = unacknowledged(row.stat);
    line.blocked = (size_t)std::count_if(row.stat.sends.begin(), row.stat.sends.end(),
                                         [](const ops_flow_send_t &send) { return send.unack > OPS_WINDOW; });
    line.answered = zebctl_has_application(row);
    line.grows = rates.span != 0 && (rates.queue > 0 || line.unack > unacknowledged(then->stat));
    line.note = row.why;
    return line;
}

static bool comes_before(const top_line_t &a, const top_line_t &b, top_sort_t sort)
{
    switch (sort) {
    case TOP_SENT:
        return a.send > b.send;
    case TOP_RECEIVED:
        return a.recv > b.recv;
    case TOP_QUEUE:
        return a.queue > b.queue;
    case TOP_UNACK:
        return a.unack > b.unack;
    default:
        return ops_name_of(a.inst) < ops_name_of(b.inst);
    }
}

static std::string growing(const std::string &number, bool grows)
{
    return grows ? "+" + number : number;
}

static std::vector<std::string> cells_of(const top_line_t &line)
{
    if (!line.answered)
        return {ops_inst_text(line.inst), "-", "-", "-", "-", "-", "-", ops_printable(line.note)};
    return {ops_inst_text(line.inst),     zebctl_text_or(line.name, "-"),
            zebctl_rate_text(line.send),  zebctl_rate_text(line.recv),
            std::to_string(line.queue),   growing(std::to_string(line.unack), line.grows),
            std::to_string(line.blocked), ops_printable(line.note)};
}

static bool passes(const top_line_t &line, const std::string &filter)
{
    std::string text = ops_inst_text(line.inst) + " " + ops_printable(line.name) + " " + ops_printable(line.note);
    return text.find(filter) != std::string::npos;
}

void zebctl_top_look(top_t *top, const zebctl_t *zebctl, const zebctl_target_t &target)
{
    top->before = std::move(top->now);
    top->now = zebctl_look(zebctl, target);
    top->looks++;
}

std::vector<top_line_t> zebctl_top_lines(const top_t &top)
{
    std::vector<top_line_t> lines;
    for (const zebctl_row_t &row : top.now.rows.rows) {
        if (row.asked)
            lines.push_back(line_of(top, row));
    }
    lines.erase(
        std::remove_if(lines.begin(), lines.end(), [&](const top_line_t &line) { return !passes(line, top.filter); }),
        lines.end());
    std::stable_sort(lines.begin(), lines.end(),
                     [&](const top_line_t &a, const top_line_t &b) { return comes_before(a, b, top.sort); });
    return lines;
}

std::string zebctl_top_summary(const top_t &top, const std::vector<top_line_t> &lines)
{
    double sent = 0;
    size_t blocked = 0;
    for (const top_line_t &line : lines) {
        sent += std::max(line.send, 0.0);
        blocked += line.blocked != 0 ? 1 : 0;
    }
    std::string text = zebctl_time_text(ops_wall()) + "  instances " + std::to_string(lines.size()) + "  sent " +
                       zebctl_rate_text(sent) + "/s  blocked " + std::to_string(blocked) + "  by " + SORTS[top.sort];
    if (!top.filter.empty())
        text += "  only with '" + ops_printable(top.filter) + "'";
    return top.now.code == ZEBCTL_OK ? text : text + "  " + ops_printable(top.now.why);
}

ops_table_t zebctl_top_table(const std::vector<top_line_t> &lines)
{
    ops_table_t table = {{"INSTANCE", "NAME", "SENT/S", "RECEIVED/S", "QUEUE", "UNACK", "BLOCKED", ""}};
    for (const top_line_t &line : lines)
        table.push_back(cells_of(line));
    return table;
}

static json_t rate_json(double rate)
{
    return rate < 0 ? json_t(nullptr) : json_t(rate);
}

static json_t top_json(const top_t &top)
{
    json_t instances = json_t::array();
    for (const top_line_t &line : zebctl_top_lines(top)) {
        json_t one = {{"app", line.inst.app}, {"node", line.inst.node}};
        if (line.answered) {
            one["name"] = ops_printable(line.name);
            one["sent_messages_per_s"] = rate_json(line.send);
            one["received_messages_per_s"] = rate_json(line.recv);
            one["queue_messages"] = line.queue;
            one["unacknowledged_messages"] = line.unack;
            one["blocked_peers"] = line.blocked;
            one["grows"] = line.grows;
        }
        if (!line.note.empty())
            one["missing"] = ops_printable(line.note);
        instances.push_back(one);
    }
    return {{"type", "zeb.top.1"},
            {"at_ms", ops_wall()},
            {"node", top.now.rows.session.node},
            {"unanswered", zebctl_unanswered(&top.now.rows)},
            {"instances", instances}};
}

static void print(const top_t &top, const zebctl_t *zebctl, bool first)
{
    std::vector<top_line_t> lines = zebctl_top_lines(top);
    if (zebctl->json)
        return zebctl_print_line(top_json(top));
    printf("%s%s\n", first ? "" : "\n", zebctl_top_summary(top, lines).c_str());
    ops_print_table(zebctl_top_table(lines), ZEBCTL_TOP_IMPORTANCE);
    (void)fflush(stdout);
}

// The first look is there for the rates of the second alone.
static int run_batch(top_t *top, const zebctl_t *zebctl, const top_options_t &options)
{
    auto interval = (int64_t)(options.interval * 1000);
    zebctl_top_look(top, zebctl, options.target);
    for (uint64_t i = 0; top->now.code == ZEBCTL_OK && (options.count == 0 || i < options.count); i++) {
        if (!zebctl_pause(interval))
            return ZEBCTL_OK;
        zebctl_top_look(top, zebctl, options.target);
        if (top->now.code == ZEBCTL_OK)
            print(*top, zebctl, i == 0);
    }
    if (top->now.code != ZEBCTL_OK) {
        fprintf(stderr, "zebctl: %s\n", top->now.why.c_str());
        return top->now.code;
    }
    return zebctl_conclude(&top->now.rows);
}

static int run(const zebctl_t *zebctl, const top_options_t &options)
{
    auto top = top_t();
    top.filter = options.filter;
    for (size_t i = 0; i < std::size(SORTS); i++)
        top.sort = options.sort == SORTS[i] ? (top_sort_t)i : top.sort;
    zebctl_catch_signals();
#ifdef ZEBCTL_CURSES
    if (!options.batch && !zebctl->json && isatty(STDOUT_FILENO) != 0 && isatty(STDIN_FILENO) != 0)
        return zebctl_top_screen(&top, zebctl, options.target, (int64_t)(options.interval * 1000));
#endif
    return run_batch(&top, zebctl, options);
}

void zebctl_add_top(CLI::App *app, zebctl_t *zebctl)
{
    static top_options_t options;
    CLI::App *command = app->add_subcommand("top", "the busiest instances, again and again");
    zebctl_add_filters(command, &options.target);
    zebctl_add_interval(command, &options.interval);
    command->add_flag("--batch", options.batch, "print tables, also on a terminal");
    command->add_option("-n", options.count, "end after this many tables")->type_name("N");
    command->add_option("--sort", options.sort, "sent, received, queue, unack or instance (sent)")
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(SORTS), std::end(SORTS))))
        ->type_name("KEY");
    command->add_option("--filter", options.filter, "only lines with this text")->type_name("TEXT");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
