// zebctl: what its commands share. Each command has a file, with one function that adds it to the command line.
#ifndef ZEBCTL_H
#define ZEBCTL_H

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Exit codes; zebctl(1) lists them.
constexpr int ZEBCTL_OK = 0;
constexpr int ZEBCTL_ERROR = 1;
constexpr int ZEBCTL_USAGE = 2;
constexpr int ZEBCTL_PARTIAL = 3;   // some instances did not answer; what could be had is shown
constexpr int ZEBCTL_NOBODY = 4;    // no instance matches
constexpr int ZEBCTL_TIMED_OUT = 5; // what was waited for did not come

// An application, on all nodes or on one.
typedef struct zebctl_target_s {
    std::optional<uint32_t> app;
    std::optional<uint32_t> node;
} zebctl_target_t;

typedef struct zebctl_s {
    bool json = false;
    double timeout = 2;                 // seconds that an instance has for each reply
    bool has_timeout = false;           // it was given
    std::vector<std::string> levels;    // "+verbose", "-info", in their order: only debug takes any
    std::function<int(zebctl_s *)> run; // of the command that was given
} zebctl_t;

inline int64_t zebctl_timeout_ms(const zebctl_t *zebctl)
{
    return (int64_t)(zebctl->timeout * 1000);
}

// Adds "--app APP" and "--node NODE", or an argument "APP[@NODE]". `target` outlives the command line.
void zebctl_add_filters(CLI::App *command, zebctl_target_t *target);
void zebctl_add_target(CLI::App *command, zebctl_target_t *target);

// Parses "APP" or "APP@NODE". APP is an id, or a name that zeb.conf gives one application. Returns what is wrong, empty
// when nothing is.
std::string zebctl_parse_target(const std::string &text, zebctl_target_t *target);

// Adds an option whose value is an application, or a time: "60s", "5m", "1h", or seconds.
void zebctl_add_app(CLI::App *command, const char *option, uint32_t *app, const char *what);
void zebctl_add_seconds(CLI::App *command, const char *option, double *seconds, const char *what);

// The commands, in the order of the help text.
void zebctl_add_list(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_watch(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_stat(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_top(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_blocked(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_ping(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_debug(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_dump(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_census(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_call(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_send(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_log(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_wait(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_nodes(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_evidence(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_doctor(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_version(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_help(CLI::App *app, zebctl_t *zebctl);
void zebctl_add_complete(CLI::App *app, zebctl_t *zebctl);

#endif
