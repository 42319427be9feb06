// The command line of zebctl. What the commands do is in zebctl_run.cpp.
#include "zebctl.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include <zeb/zeb_msg.h>

// Takes "+level" and "-level" out of the arguments, in their order: to the parser, "-info" would be five options.
static bool take_levels(std::vector<std::string> *words, zebctl_options_t *options)
{
    bool taken = false;
    for (auto it = words->begin(); it != words->end();) {
        uint32_t bits = it->size() > 1 && ((*it)[0] == '+' || (*it)[0] == '-') ? zebctl_level(it->substr(1)) : 0;
        if (bits == 0) {
            ++it;
            continue;
        }
        bool on = (*it)[0] == '+';
        options->set = on ? options->set | bits : options->set & ~bits;
        options->clear = on ? options->clear & ~bits : options->clear | bits;
        taken = true;
        it = words->erase(it);
    }
    return taken;
}

// A decimal number without anything else, up to `max`.
static bool take_number(const std::string &text, uint32_t max, std::optional<uint32_t> *number)
{
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *number = (uint32_t)std::stoul(text);
    return **number <= max;
}

static std::string check_app(const std::string &text, zebctl_options_t *options)
{
    if (take_number(text, UINT32_MAX, &options->app) && zeb_valid_app_id(*options->app) != 0)
        return "";
    return "'" + text + "' is no application id: 1 to 8191, or 16384 to 20479";
}

static std::string check_node(const std::string &text, zebctl_options_t *options)
{
    return take_number(text, ZEB_NODE_NUM - 1, &options->node) ? "" : "'" + text + "' is no node id: 0 to 65535";
}

// APP or APP@NODE.
static std::string check_target(const std::string &text, zebctl_options_t *options)
{
    size_t at = text.find('@');
    std::string wrong = check_app(text.substr(0, at), options);
    return wrong.empty() && at != std::string::npos ? check_node(text.substr(at + 1), options) : wrong;
}

typedef std::string (*check_t)(const std::string &text, zebctl_options_t *options);

static CLI::Validator checked(check_t check, zebctl_options_t *options, const char *name)
{
    return CLI::Validator([=](const std::string &text) { return check(text, options); }, name, name);
}

static void add_filters(CLI::App *command, zebctl_options_t *options)
{
    static std::string ignored; // the checks store the values
    command->add_option("--app", ignored, "only instances of this application")
        ->check(checked(check_app, options, "APP"))
        ->type_name("");
    command->add_option("--node", ignored, "only instances on this node")
        ->check(checked(check_node, options, "NODE"))
        ->type_name("");
}

static void add_target(CLI::App *command, zebctl_options_t *options)
{
    static std::string ignored;
    command->add_option("target", ignored, "an application, on all nodes or on one")
        ->required()
        ->check(checked(check_target, options, "APP[@NODE]"))
        ->type_name("");
}

static CLI::App *add_command(CLI::App *zebctl, zebctl_options_t *options, zebctl_command_t number, const char *name,
                             const char *what)
{
    CLI::App *command = zebctl->add_subcommand(name, what);
    command->callback([=] { options->command = number; });
    return command;
}

static int refuse(const std::string &why)
{
    fprintf(stderr, "zebctl: %s\nType: zebctl --help\n", why.c_str());
    return ZEBCTL_USAGE;
}

int main(int argc, char **argv)
{
    zebctl_options_t options;
    std::vector<std::string> words(argv + 1, argv + argc);
    bool levels = take_levels(&words, &options);

    CLI::App zebctl("Shows and controls the ZEB applications of a cluster.", "zebctl");
    zebctl.require_subcommand(1);
    zebctl.fallthrough();
    zebctl.add_flag("--json", options.json, "print JSON");
    zebctl.add_option("--timeout", options.timeout, "seconds that an instance has for a reply (2)")
        ->check(CLI::Range(0.001, 3600.0))
        ->type_name("S");
    zebctl.set_version_flag("--version", "zebctl " ZEB_TOOLS_VERSION);
    add_filters(add_command(&zebctl, &options, ZEBCTL_LIST, "list", "every instance, one line each"), &options);
    add_target(add_command(&zebctl, &options, ZEBCTL_STAT, "stat", "the counters of instances"), &options);
    CLI::App *debug = add_command(&zebctl, &options, ZEBCTL_DEBUG, "debug",
                                  "switch the levels that instances print: +verbose -info; verbose, info, warn, "
                                  "error, all");
    add_target(debug, &options);
    add_target(add_command(&zebctl, &options, ZEBCTL_DUMP, "dump", "the statistics text of instances"), &options);
    add_filters(add_command(&zebctl, &options, ZEBCTL_CENSUS, "census", "which node serves which version"), &options);

    std::vector<std::string> reversed(words.rbegin(), words.rend());
    try {
        zebctl.parse(reversed);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) // --help, --version
            return zebctl.exit(error);
        return refuse(error.what());
    }
    if (debug->parsed() != levels)
        return refuse(levels ? "only debug takes levels"
                             : "debug needs levels, as in: zebctl debug 100 +verbose -info");
    return zebctl_run(options);
}
