// zebctl log: the log files of processes on any node, and what is added to them.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <poll.h>

#include "ops_conf.h"
#include "ops_log.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

constexpr int64_t LINE_LEN = 300;       // bytes of a record at most, with its time
constexpr int64_t POLL_TIME = 500;      // ms between two looks at a file
constexpr int64_t IDENTIFY_TIME = 5000; // ms between two looks at who has the name
constexpr size_t REST_MAX = 4096;       // bytes of a line that has not ended

typedef struct log_options_s {
    zebctl_target_t target;
    bool follow;
    uint32_t lines;
} log_options_t;

// A file that is shown, of an instance.
typedef struct tail_s {
    ops_inst_t inst;
    int32_t pid; // 0: not known
    bool there;  // its name is published
    int64_t next;
    std::string rest; // of a line that has not ended
    std::string why;  // it cannot be shown
} tail_t;

typedef struct log_s {
    const zebctl_t *zebctl;
    log_options_t options;
    ops_session_t session;
    std::vector<tail_t> tails;
} log_t;

static void print_line(const log_t *log, const tail_t &tail, const std::string &line)
{
    std::string text = ops_printable(line);
    if (log->zebctl->json) {
        json_t out = {{"type", "zeb.log.1"}, {"app", tail.inst.app}, {"node", tail.inst.node}, {"pid", tail.pid}};
        out["line"] = text;
        return zebctl_print_line(out);
    }
    std::string prefix = log->tails.size() > 1 ? ops_inst_text(tail.inst) + ": " : "";
    printf("%s%s\n", prefix.c_str(), text.c_str());
}

// The whole lines of the text; what is left of it goes into `rest`.
static std::vector<std::string> split(std::string *rest, const std::string &text)
{
    std::vector<std::string> lines;
    *rest += text;
    size_t at = 0;
    for (size_t end = rest->find('\n'); end != std::string::npos; end = rest->find('\n', at)) {
        lines.push_back(rest->substr(at, end - at));
        at = end + 1;
    }
    rest->erase(0, at);
    if (rest->size() > REST_MAX)
        rest->clear();
    return lines;
}

static std::string no_file(const log_t *log, const tail_t &tail)
{
    std::string where = "process " + std::to_string(tail.pid) + " of " + ops_inst_text(tail.inst) + " has no log file";
    const ops_conf_t *conf = ops_conf();
    if (tail.inst.node == log->session.node && conf->keys.count("zeb_log_cfg") != 0)
        return where + ", though zeb_log_cfg is set: it began before, or could not write. Type: zebctl doctor";
    return where + ": put zeb_log_cfg=0xc into [MISC_CONF] of " OPS_CONF_FILE " on node " +
           std::to_string(tail.inst.node) + ", and start it again";
}

// Reads on. 0, or a negative errno value with `why` set.
static int read_on(log_t *log, tail_t *tail, int64_t offset, std::string *text)
{
    int ret = ops_session_log(&log->session, tail->inst.node, tail->pid, offset, text, &tail->next,
                              zebctl_timeout_ms(log->zebctl));
    tail->why = ret == 0 ? "" : (ret == -ENOENT ? no_file(log, *tail) : log->session.why);
    return ret;
}

// A record begins with its time: what was cut off or written over does not.
static void drop_torn(std::vector<std::string> *lines)
{
    if (!lines->empty() && ops_log_stamp(lines->front().data(), lines->front().size()) == 0)
        lines->erase(lines->begin());
}

static void show_last(log_t *log, tail_t *tail)
{
    int64_t back = (int64_t)(log->options.lines + 1) * LINE_LEN;
    std::string text;
    std::vector<std::string> lines;
    int64_t offset = -back;
    for (int64_t got = 0; got <= back; offset = tail->next) {
        if (read_on(log, tail, offset, &text) != 0)
            return;
        if (text.empty())
            break;
        got += (int64_t)text.size();
        std::vector<std::string> more = split(&tail->rest, text);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    drop_torn(&lines);
    size_t skip = lines.size() > log->options.lines ? lines.size() - log->options.lines : 0;
    for (size_t i = skip; i < lines.size(); i++)
        print_line(log, *tail, lines[i]);
}

static void show_new(log_t *log, tail_t *tail)
{
    std::string text;
    do {
        if (read_on(log, tail, tail->next, &text) != 0)
            return;
        for (const std::string &line : split(&tail->rest, text))
            print_line(log, *tail, line);
    } while (!text.empty());
}

// Asks who they are. The name of application 1 is free again when this returns.
static int identify(log_t *log, std::vector<ops_request_t> *requests)
{
    requests->clear();
    for (const tail_t &tail : log->tails)
        requests->push_back(ops_request(tail.inst, OPS_ASK_INFO));
    int ret = ops_session_ask(&log->session, requests, zebctl_timeout_ms(log->zebctl));
    if (ret != 0 || log->session.by_zebd)
        return ret;
    ops_session_close(&log->session);
    return ops_session_open(&log->session, ops_now() + ZEBCTL_VIEW_TIME);
}

static int take_tails(log_t *log)
{
    zebctl_rows_t rows;
    int code = zebctl_open(&rows, log->zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(&rows, log->options.target);
    for (const zebctl_row_t &row : rows.rows) {
        if (row.asked)
            log->tails.push_back({row.seen.inst, 0, true, 0, "", ""});
    }
    log->session = rows.session;
    if (code != ZEBCTL_OK)
        return code;
    std::vector<ops_request_t> requests;
    if (identify(log, &requests) != 0) {
        fprintf(stderr, "zebctl: %s\n", log->session.why.c_str());
        return ZEBCTL_ERROR;
    }
    for (size_t i = 0; i < requests.size(); i++) {
        tail_t *tail = &log->tails[i];
        if (requests[i].outcome == OPS_ANSWERED)
            tail->pid = requests[i].info.pid;
        else
            tail->why = "it is not known which process " + ops_inst_text(tail->inst) + " is: " + requests[i].why;
    }
    return ZEBCTL_OK;
}

static void note(const log_t *log, const tail_t &tail, const std::string &what)
{
    (void)fflush(stdout);
    if (!log->zebctl->json)
        fprintf(stderr, "zebctl: %s %s\n", ops_inst_text(tail.inst).c_str(), what.c_str());
}

// An instance that quit may come back as another process, with a file of its own.
static void look_again(log_t *log)
{
    std::vector<ops_seen_t> seen;
    if (ops_session_view(&log->session, &seen, ops_now() + ZEBCTL_VIEW_TIME) != 0)
        return;
    for (tail_t &tail : log->tails) {
        bool there = std::any_of(seen.begin(), seen.end(), [&](const ops_seen_t &one) {
            return one.inst.app == tail.inst.app && one.inst.node == tail.inst.node;
        });
        if (tail.there && !there)
            note(log, tail, "has quit");
        tail.there = there;
    }
    std::vector<ops_request_t> requests;
    if (identify(log, &requests) != 0)
        return;
    for (size_t i = 0; i < requests.size(); i++) {
        tail_t *tail = &log->tails[i];
        if (requests[i].outcome != OPS_ANSWERED || requests[i].info.pid == tail->pid)
            continue;
        note(log, *tail, "is process " + std::to_string(requests[i].info.pid) + " now");
        tail->pid = requests[i].info.pid;
        tail->next = 0;
        tail->rest.clear();
    }
}

static void follow(log_t *log)
{
    int64_t look = ops_now() + IDENTIFY_TIME;
    for (;;) {
        (void)fflush(stdout);
        (void)poll(nullptr, 0, (int)POLL_TIME);
        if (ops_now() >= look) {
            look_again(log);
            look = ops_now() + IDENTIFY_TIME;
        }
        for (tail_t &tail : log->tails) {
            if (tail.pid != 0)
                show_new(log, &tail);
        }
        if (ferror(stdout) != 0) // nobody reads it any more
            return;
    }
}

static int show_all(log_t *log)
{
    size_t missing = 0;
    for (tail_t &tail : log->tails) {
        zebctl_progress("reading the log file of " + ops_inst_text(tail.inst));
        if (tail.pid != 0)
            show_last(log, &tail);
        zebctl_progress("");
        if (tail.why.empty())
            continue;
        (void)fflush(stdout);
        fprintf(stderr, "zebctl: %s\n", ops_printable(tail.why).c_str());
        missing++;
    }
    if (log->options.follow && missing < log->tails.size())
        follow(log);
    if (missing == log->tails.size())
        return ZEBCTL_ERROR;
    return missing == 0 ? ZEBCTL_OK : ZEBCTL_PARTIAL;
}

static int run(zebctl_t *zebctl, const log_options_t &options)
{
    auto log = std::make_unique<log_t>();
    log->zebctl = zebctl;
    log->options = options;
    int code = take_tails(log.get());
    if (code == ZEBCTL_OK)
        code = show_all(log.get());
    ops_session_close(&log->session);
    return code;
}

void zebctl_add_log(CLI::App *app, zebctl_t *zebctl)
{
    static log_options_t options;
    options.lines = 10;
    CLI::App *command = app->add_subcommand("log", "the log files of instances, on any node");
    zebctl_add_target(command, &options.target);
    command->add_flag("-f,--follow", options.follow, "show what is added, until Ctrl-C");
    command->add_option("-n,--lines", options.lines, "how many lines (10)")
        ->check(CLI::Range(1, 10000))
        ->type_name("N");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
