// zebctl call, zebctl send: a call or a message of an application, and what becomes of it at each instance.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

#include "ops_table.h"
#include "zebctl_caller.h"
#include "zebctl_text.h"

constexpr double TIMEOUT = 10; // seconds, unless one is given

typedef struct call_options_s {
    zebctl_target_t target;
    bool call; // else a message
    uint32_t version;
    std::string data;
    std::string hex;
    std::string file;
    std::string out; // directory for the replies
    uint32_t from;
} call_options_t;

static int say(int code, const std::string &text)
{
    fprintf(stderr, "zebctl: %s\n", text.c_str());
    return code;
}

static int digit(char c)
{
    static const char digits[] = "0123456789abcdef";
    const char *at = c == '\0' ? nullptr : strchr(digits, c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
    return at == nullptr ? -1 : (int)(at - digits);
}

// Pairs of digits; blanks and colons may stand between.
static bool take_hex(const std::string &text, std::string *body)
{
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ' || text[i] == ':') {
            i++;
            continue;
        }
        int high = digit(text[i]);
        int low = i + 1 < text.size() ? digit(text[i + 1]) : -1;
        if (high < 0 || low < 0)
            return false;
        body->push_back((char)(high * 16 + low));
        i += 2;
    }
    return true;
}

static bool take_file(const std::string &path, std::string *body)
{
    FILE *fp = path == "-" ? stdin : fopen(path.c_str(), "re");
    if (fp == nullptr)
        return false;
    char part[4096];
    size_t len = 0;
    while (body->size() <= ZEB_MSG_MAX_DATA && (len = fread(part, 1, sizeof(part), fp)) != 0)
        body->append(part, len);
    int err = errno;
    bool failed = ferror(fp) != 0;
    if (fp != stdin)
        (void)fclose(fp);
    errno = err;
    return !failed;
}

static int take_body(const call_options_t &options, std::string *body)
{
    *body = options.data;
    if (!options.hex.empty() && !take_hex(options.hex, body))
        return say(ZEBCTL_USAGE, "--hex '" + options.hex + "' is no row of bytes, as in: --hex 01fe00");
    if (!options.file.empty() && !take_file(options.file, body))
        return say(ZEBCTL_ERROR, "the file " + options.file + " cannot be read: " + strerror(errno));
    if (body->size() > ZEB_MSG_MAX_DATA)
        return say(ZEBCTL_USAGE, "a message has at most " + std::to_string(ZEB_MSG_MAX_DATA) + " bytes");
    return ZEBCTL_OK;
}

static bool is_text(const std::string &body)
{
    return std::all_of(body.begin(), body.end(),
                       [](char c) { return (c >= ' ' && c <= '~') || c == '\n' || c == '\t'; });
}

static std::string hex_of(const std::string &body)
{
    std::string text;
    char byte[4];
    for (unsigned char c : body) {
        (void)snprintf(byte, sizeof(byte), "%02x", c);
        text += byte;
    }
    return text;
}

static std::string reply_path(const call_options_t &options, ops_inst_t inst)
{
    return options.out + "/" + ops_inst_text(inst);
}

static int save(const call_options_t &options, const zebctl_answer_t &answer)
{
    std::string path = reply_path(options, answer.inst);
    FILE *fp = fopen(path.c_str(), "we");
    bool good = fp != nullptr && fwrite(answer.body.data(), 1, answer.body.size(), fp) == answer.body.size();
    good = (fp != nullptr && fclose(fp) == 0) && good;
    return good ? ZEBCTL_OK : say(ZEBCTL_ERROR, "the reply cannot be written to " + path + ": " + strerror(errno));
}

static int save_all(const call_options_t &options, const zebctl_caller_t &caller)
{
    if (options.out.empty())
        return ZEBCTL_OK;
    if (mkdir(options.out.c_str(), 0777) != 0 && errno != EEXIST)
        return say(ZEBCTL_ERROR, "the directory " + options.out + " cannot be made: " + strerror(errno));
    int code = ZEBCTL_OK;
    for (const zebctl_answer_t &answer : caller.answers) {
        if (code == ZEBCTL_OK && answer.outcome == ZEBCTL_REPLY)
            code = save(options, answer);
    }
    return code;
}

static bool succeeded(const zebctl_answer_t &answer)
{
    return answer.outcome == ZEBCTL_REPLY || answer.outcome == ZEBCTL_DISPATCHED;
}

static bool was_sent(const zebctl_answer_t &answer)
{
    return answer.outcome < ZEBCTL_NOT_NAMED;
}

static json_t answer_json(const call_options_t &options, const zebctl_answer_t &answer)
{
    json_t out = zebctl_inst_json(answer.inst);
    out["outcome"] = zebctl_outcome_word(answer.outcome);
    if (was_sent(answer))
        out["took_ms"] = answer.took;
    if (answer.outcome == ZEBCTL_MISMATCH)
        out["versions"] = {{"low", answer.range.low}, {"high", answer.range.high}};
    if (!answer.why.empty())
        out["why"] = ops_printable(answer.why);
    if (answer.outcome != ZEBCTL_REPLY)
        return out;
    out["bytes"] = answer.body.size();
    if (!options.out.empty())
        out["file"] = reply_path(options, answer.inst);
    else
        out[is_text(answer.body) ? "text" : "hex"] = is_text(answer.body) ? answer.body : hex_of(answer.body);
    return out;
}

static void print_json(const call_options_t &options, const zebctl_caller_t &caller)
{
    json_t answers = json_t::array();
    for (const zebctl_answer_t &answer : caller.answers)
        answers.push_back(answer_json(options, answer));
    zebctl_print({{"type", options.call ? "zeb.call.1" : "zeb.send.1"},
                  {"node", caller.rows.session.node},
                  {"from", caller.from},
                  {"app", caller.app},
                  {"version", caller.version},
                  {"bytes", caller.body.size()},
                  {"instances", answers}});
}

// The reply in a cell: its text when that is one line, else its first bytes.
static std::string reply_cell(const call_options_t &options, const zebctl_answer_t &answer)
{
    std::string bytes = std::to_string(answer.body.size()) + " bytes";
    if (!options.out.empty())
        return bytes + " in " + reply_path(options, answer.inst);
    if (answer.body.empty())
        return bytes;
    std::string text = answer.body;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
        text.pop_back();
    if (is_text(text))
        return bytes + ": " + ops_printable(text);
    return bytes + ", hex: " + hex_of(answer.body);
}

static void show(const call_options_t &options, const zebctl_caller_t &caller)
{
    ops_table_t table = {{"INSTANCE", "OUTCOME", "MS", ""}};
    for (const zebctl_answer_t &answer : caller.answers)
        table.push_back({ops_inst_text(answer.inst), zebctl_outcome_word(answer.outcome),
                         was_sent(answer) ? std::to_string(answer.took) : "-",
                         answer.outcome == ZEBCTL_REPLY ? reply_cell(options, answer) : ops_printable(answer.why)});
    ops_print_table(table);
}

static int conclude(const zebctl_caller_t &caller)
{
    size_t good = (size_t)std::count_if(caller.answers.begin(), caller.answers.end(), succeeded);
    size_t late =
        (size_t)std::count_if(caller.answers.begin(), caller.answers.end(), [](const zebctl_answer_t &answer) {
            return answer.outcome == ZEBCTL_NO_ANSWER || answer.outcome == ZEBCTL_SENT;
        });
    if (good == caller.answers.size())
        return ZEBCTL_OK;
    (void)fflush(stdout);
    if (!caller.rows.zebctl->json)
        fprintf(stderr, "zebctl: of %zu instances %zu did not take it\n", caller.answers.size(),
                caller.answers.size() - good);
    return late == caller.answers.size() ? ZEBCTL_TIMED_OUT : ZEBCTL_PARTIAL;
}

static int call_or_send(zebctl_caller_t *caller, const zebctl_t *zebctl, const call_options_t &options)
{
    int code = zebctl_caller_begin(caller, zebctl, options.target);
    if (code == ZEBCTL_OK)
        options.call ? zebctl_caller_call(caller) : zebctl_caller_send(caller);
    zebctl_caller_end(caller);
    if (code != ZEBCTL_OK)
        return code;
    code = save_all(options, *caller);
    if (zebctl->json)
        print_json(options, *caller);
    else
        show(options, *caller);
    int ending = conclude(*caller);
    return code == ZEBCTL_OK ? ending : code;
}

static int run(zebctl_t *zebctl, const call_options_t &options)
{
    auto caller = std::make_unique<zebctl_caller_t>();
    caller->app = *options.target.app;
    caller->from = options.from;
    caller->version = options.version;
    caller->timeout = zebctl->has_timeout ? zebctl_timeout_ms(zebctl) : (int64_t)(TIMEOUT * 1000);
    int code = take_body(options, &caller->body);
    return code == ZEBCTL_OK ? call_or_send(caller.get(), zebctl, options) : code;
}

static CLI::App *add_command(CLI::App *app, zebctl_t *zebctl, call_options_t *options, const char *name,
                             const char *what)
{
    CLI::App *command = app->add_subcommand(name, what);
    zebctl_add_target(command, &options->target);
    command->add_option("--version", options->version, "version of the message")->required()->type_name("V");
    CLI::Option *data = command->add_option("--data", options->data, "its bytes, as text")->type_name("TEXT");
    CLI::Option *hex = command->add_option("--hex", options->hex, "its bytes, in hexadecimal")->type_name("HEX");
    CLI::Option *file =
        command->add_option("--file", options->file, "its bytes, from a file; - is standard input")->type_name("PATH");
    hex->excludes(data);
    file->excludes(data)->excludes(hex);
    zebctl_add_app(command, "--from", &options->from, "the application that it comes from");
    command->callback([=] { zebctl->run = [=](zebctl_t *self) { return run(self, *options); }; });
    return command;
}

void zebctl_add_call(CLI::App *app, zebctl_t *zebctl)
{
    static call_options_t options;
    options.call = true;
    CLI::App *command =
        add_command(app, zebctl, &options, "call", "call instances as an application, and show the replies");
    command->add_option("--out", options.out, "directory for the replies, a file for each")->type_name("DIR");
}

void zebctl_add_send(CLI::App *app, zebctl_t *zebctl)
{
    static call_options_t options;
    (void)add_command(app, zebctl, &options, "send", "send a message to instances as an application");
}
