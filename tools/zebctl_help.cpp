// zebctl help, zebctl version, and what the shells ask when they complete a line.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ops_conf.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

constexpr int64_t HELLO_TIME = 2000;   // ms for a zebd
constexpr int64_t COMPLETE_TIME = 500; // ms that a shell may wait
constexpr size_t COMPLETE_MAX = 2000;  // words
constexpr size_t ANSWER_MAX = 4096;    // bytes

static bool is_shown(const CLI::App *command)
{
    return !command->get_group().empty();
}

static int run_help(const CLI::App *app, const std::string &name)
{
    const CLI::App *about = name.empty() ? app : nullptr;
    for (const CLI::App *command : app->get_subcommands(is_shown)) {
        if (command->get_name() == name)
            about = command;
    }
    if (about == nullptr) {
        fprintf(stderr, "zebctl: there is no command '%s'\nType: zebctl --help\n", ops_printable(name).c_str());
        return ZEBCTL_USAGE;
    }
    printf("%s", about->help(name.empty() ? "" : "zebctl").c_str());
    return ZEBCTL_OK;
}

void zebctl_add_help(CLI::App *app, zebctl_t *zebctl)
{
    static std::string name;
    CLI::App *command = app->add_subcommand("help", "how a command is used");
    command->add_option("command", name, "of this command alone")->type_name("");
    command->callback([=] { zebctl->run = [=](zebctl_t *) { return run_help(app, name); }; });
}

// The answer of the zebd of this node to a hello; a discarded value when there is none.
static json_t ask_zebd(std::string *why)
{
    static const char hello[] = "{\"type\":\"zebd.hello.1\",\"id\":1}\n";
    std::string path = ops_zebd_path();
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    (void)snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    int sd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    std::string text;
    if (connect(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0 ||
        send(sd, hello, sizeof(hello) - 1, MSG_NOSIGNAL) != (ssize_t)sizeof(hello) - 1) {
        *why = path + ": " + strerror(errno);
        (void)close(sd);
        return json_t::parse("", nullptr, false);
    }
    int64_t deadline = ops_now() + HELLO_TIME;
    while (text.find('\n') == std::string::npos && text.size() < ANSWER_MAX && ops_now() < deadline) {
        char part[ANSWER_MAX];
        struct pollfd entry = {sd, POLLIN, 0};
        (void)poll(&entry, 1, 100);
        ssize_t len = recv(sd, part, sizeof(part), 0);
        if (len == 0)
            break;
        text.append(part, len < 0 ? 0 : (size_t)len);
    }
    (void)close(sd);
    *why = path + ": no answer";
    return json_t::parse(text, nullptr, false);
}

static int run_version(zebctl_t *zebctl)
{
    std::string why;
    json_t answer = ask_zebd(&why);
    std::string version;
    if (answer.is_object() && answer.contains("version") && answer["version"].is_string())
        version = answer["version"].get<std::string>();
    bool runs = answer.is_object();
    if (zebctl->json) {
        json_t out = {{"type", "zeb.version.1"}, {"zebctl", ZEB_TOOLS_VERSION}, {"zebd_runs", runs}};
        if (!version.empty())
            out["zebd"] = ops_printable(version);
        zebctl_print(out);
        return ZEBCTL_OK;
    }
    printf("zebctl " ZEB_TOOLS_VERSION "\n");
    if (!runs)
        printf("no zebd on this node (%s)\n", why.c_str());
    else
        printf("zebd %s\n", version.empty() ? "of an unknown version" : ops_printable(version).c_str());
    return ZEBCTL_OK;
}

void zebctl_add_version(CLI::App *app, zebctl_t *zebctl)
{
    CLI::App *command = app->add_subcommand("version", "the versions of zebctl and of the zebd of this node");
    command->callback([=] { zebctl->run = run_version; });
}

// Instances as words: ids and names, with their nodes once there is an @.
static std::set<std::string> app_words(const ops_view_t &view, bool nodes)
{
    std::set<std::string> words;
    for (const auto &one : view.insts) {
        ops_inst_t inst = ops_inst_of(one.first);
        if (inst.app == ZEBD_APP_ID)
            continue;
        std::string at = nodes ? "@" + std::to_string(inst.node) : "";
        std::string name = ops_conf_name(inst.app);
        words.insert(std::to_string(inst.app) + at);
        if (!name.empty() && name.find_first_of(" \t") == std::string::npos && ops_conf_apps(name).size() == 1)
            words.insert(name + at);
    }
    return words;
}

static std::set<std::string> node_words(const ops_view_t &view)
{
    std::set<std::string> words;
    for (const auto &one : view.insts)
        words.insert(std::to_string(ops_inst_of(one.first).node));
    return words;
}

static int run_complete(const CLI::App *app, const std::string &what, const std::string &prefix)
{
    std::set<std::string> words;
    ops_view_t view = {};
    view.sd = -1;
    if (what == "commands") {
        for (const CLI::App *command : app->get_subcommands(is_shown))
            words.insert(command->get_name());
    } else if (ops_view_open(&view) == 0) {
        (void)ops_view_sync(&view, ops_now() + COMPLETE_TIME); // what has come by then
        words = what == "nodes" ? node_words(view) : app_words(view, prefix.find('@') != std::string::npos);
        ops_view_close(&view);
    }
    size_t left = COMPLETE_MAX;
    for (const std::string &word : words) {
        if (word.compare(0, prefix.size(), prefix) == 0 && left-- > 0)
            printf("%s\n", ops_printable(word).c_str());
    }
    return ZEBCTL_OK;
}

void zebctl_add_complete(CLI::App *app, zebctl_t *zebctl)
{
    static std::string what;
    static std::string prefix;
    CLI::App *command = app->add_subcommand("complete", "words for a shell")->group("");
    command->add_option("what", what, "apps, nodes or commands")->required();
    command->add_option("prefix", prefix, "what they begin with");
    command->callback([=] { zebctl->run = [=](zebctl_t *) { return run_complete(app, what, prefix); }; });
}
