// zebctl: what its command line asks for, and its commands.
#ifndef ZEBCTL_H
#define ZEBCTL_H

#include <cstdint>
#include <optional>
#include <string>

// Exit codes; zebctl(1) lists them.
constexpr int ZEBCTL_OK = 0;
constexpr int ZEBCTL_NOTHING = 1; // no instance matches
constexpr int ZEBCTL_USAGE = 2;
constexpr int ZEBCTL_PARTIAL = 3;   // some instances did not answer; what could be had is shown
constexpr int ZEBCTL_NOT_ASKED = 4; // nobody could be asked: no TIPC, or application 1 is held

typedef enum zebctl_command_e { ZEBCTL_LIST, ZEBCTL_STAT, ZEBCTL_DEBUG, ZEBCTL_DUMP, ZEBCTL_CENSUS } zebctl_command_t;

typedef struct zebctl_options_s {
    zebctl_command_t command = ZEBCTL_LIST;
    std::optional<uint32_t> app;  // of one application alone
    std::optional<uint32_t> node; // on one node alone
    bool json = false;
    double timeout = 2; // seconds that an instance has for each reply
    uint32_t set = 0;   // masks of levels
    uint32_t clear = 0;
} zebctl_options_t;

// Runs the command. Returns the exit code.
int zebctl_run(const zebctl_options_t &options);

// The bit of the level of that name, all bits for "all", 0 for another word.
uint32_t zebctl_level(const std::string &name);

#endif
