// The command line of zebctl. What the commands do is in a file of each.
#include "zebctl.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <zeb/zeb_msg.h>

#include "ops_conf.h"
#include "zebctl_text.h"

// Takes "+level" and "-level" out of the arguments, in their order: to the parser, "-info" would be five options.
static void take_levels(std::vector<std::string> *words, zebctl_t *zebctl)
{
    auto is_level = [](const std::string &word) {
        return word.size() > 1 && (word[0] == '+' || word[0] == '-') && ops_level(word.substr(1)) != 0;
    };
    std::copy_if(words->begin(), words->end(), std::back_inserter(zebctl->levels), is_level);
    words->erase(std::remove_if(words->begin(), words->end(), is_level), words->end());
}

// A decimal number without anything else, up to `max`.
static bool take_number(const std::string &text, uint32_t max, std::optional<uint32_t> *number)
{
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *number = (uint32_t)std::stoul(text);
    return **number <= max;
}

static bool is_number(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// An id, or a name that zeb.conf gives one application alone.
static std::string check_app(const std::string &text, zebctl_target_t *target)
{
    if (take_number(text, UINT32_MAX, &target->app) && zeb_valid_app_id(*target->app) != 0)
        return "";
    std::vector<uint32_t> apps = is_number(text) ? std::vector<uint32_t>() : ops_conf_apps(text);
    if (apps.size() == 1) {
        target->app = apps.front();
        return "";
    }
    if (apps.size() > 1)
        return "'" + text + "' is the name of several applications in " OPS_CONF_FILE ": " + zebctl_joined(apps, ", ") +
               ". Give the id";
    return "'" + text + "' is no application id: 1 to 8191, or 16384 to 20479" +
           (is_number(text) ? "" : "; and no name of one in " OPS_CONF_FILE);
}

static std::string check_node(const std::string &text, zebctl_target_t *target)
{
    return take_number(text, ZEB_NODE_NUM - 1, &target->node) ? "" : "'" + text + "' is no node id: 0 to 65535";
}

std::string zebctl_parse_target(const std::string &text, zebctl_target_t *target)
{
    size_t at = text.rfind('@'); // a name may have one
    std::string wrong = check_app(text.substr(0, at), target);
    return wrong.empty() && at != std::string::npos ? check_node(text.substr(at + 1), target) : wrong;
}

typedef std::string (*check_t)(const std::string &text, zebctl_target_t *target);

static CLI::Validator checked(check_t check, zebctl_target_t *target, const char *name)
{
    return CLI::Validator([=](const std::string &text) { return check(text, target); }, name, name);
}

static std::string s_ignored; // the checks store the values

void zebctl_add_filters(CLI::App *command, zebctl_target_t *target)
{
    command->add_option("--app", s_ignored, "only instances of this application")
        ->check(checked(check_app, target, "APP"))
        ->type_name("");
    command->add_option("--node", s_ignored, "only instances on this node")
        ->check(checked(check_node, target, "NODE"))
        ->type_name("");
}

void zebctl_add_target(CLI::App *command, zebctl_target_t *target)
{
    command->add_option("target", s_ignored, "an application, on all nodes or on one")
        ->required()
        ->check(checked(zebctl_parse_target, target, "APP[@NODE]"))
        ->type_name("");
}

void zebctl_add_app(CLI::App *command, const char *option, uint32_t *app, const char *what)
{
    auto check = [=](const std::string &text) {
        zebctl_target_t target;
        std::string wrong = check_app(text, &target);
        if (wrong.empty())
            *app = *target.app;
        return wrong;
    };
    command->add_option(option, s_ignored, what)->check(CLI::Validator(check, "APP", "APP"))->type_name("");
}

static std::string check_seconds(const std::string &text, double *seconds)
{
    char *unit = nullptr;
    *seconds = strtod(text.c_str(), &unit);
    std::string rest = unit;
    *seconds *= rest == "h" ? 3600 : (rest == "m" ? 60 : 1);
    bool known = rest.empty() || rest == "s" || rest == "m" || rest == "h";
    return known && unit != text.c_str() && *seconds >= 0.001 && *seconds <= 86400
               ? ""
               : "'" + text + "' is no time: 60s, 5m, 1h, at most 24h";
}

void zebctl_add_seconds(CLI::App *command, const char *option, double *seconds, const char *what)
{
    auto check = [=](const std::string &text) { return check_seconds(text, seconds); };
    command->add_option(option, s_ignored, what)->check(CLI::Validator(check, "TIME", "TIME"))->type_name("");
}

static int refuse(const std::string &why)
{
    fprintf(stderr, "zebctl: %s\nType: zebctl --help\n", why.c_str());
    return ZEBCTL_USAGE;
}

static void add_commands(CLI::App *app, zebctl_t *zebctl)
{
    zebctl_add_list(app, zebctl);
    zebctl_add_watch(app, zebctl);
    zebctl_add_stat(app, zebctl);
    zebctl_add_top(app, zebctl);
    zebctl_add_blocked(app, zebctl);
    zebctl_add_ping(app, zebctl);
    zebctl_add_debug(app, zebctl);
    zebctl_add_dump(app, zebctl);
    zebctl_add_census(app, zebctl);
    zebctl_add_call(app, zebctl);
    zebctl_add_send(app, zebctl);
    zebctl_add_log(app, zebctl);
    zebctl_add_wait(app, zebctl);
    zebctl_add_nodes(app, zebctl);
    zebctl_add_evidence(app, zebctl);
    zebctl_add_doctor(app, zebctl);
    zebctl_add_version(app, zebctl);
    zebctl_add_help(app, zebctl);
    zebctl_add_complete(app, zebctl);
}

int main(int argc, char **argv)
{
    zebctl_t zebctl;
    std::vector<std::string> words(argv + 1, argv + argc);
    take_levels(&words, &zebctl);

    CLI::App app("Shows and controls the ZEB applications of a cluster.", "zebctl");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_flag("--json", zebctl.json, "print JSON");
    CLI::Option *timeout = app.add_option("--timeout", zebctl.timeout, "seconds that an instance has for a reply (2)")
                               ->check(CLI::Range(0.001, 3600.0))
                               ->type_name("S");
    app.set_version_flag("--version", "zebctl " ZEB_TOOLS_VERSION);
    add_commands(&app, &zebctl);

    std::reverse(words.begin(), words.end()); // as the parser takes them
    try {
        app.parse(words);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) // --help, --version
            return app.exit(error);
        return refuse(error.what());
    }
    if (!zebctl.levels.empty() && !app.got_subcommand("debug"))
        return refuse("only debug takes levels");
    zebctl.has_timeout = timeout->count() != 0;
    return zebctl.run(&zebctl);
}
