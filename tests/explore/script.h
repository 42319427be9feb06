// Scripts: a world's configuration and its actions, as text. Scripts can be run and shortened.
#ifndef EXPLORE_SCRIPT_H
#define EXPLORE_SCRIPT_H

#include "check.h"

typedef struct script_s {
    config_t config;
    std::vector<action_t> actions;
    violation_t expected; // VIOLATION_NONE in scripts that are kept
} script_t;

std::string action_text(action_t action);
std::string script_text(const script_t *script);
bool script_parse(const std::string &text, script_t *script, std::string *error);

// Runs the script and then lets the world calm down. A violation is in the world.
uint32_t script_run(world_t *world, const script_t *script);

// The shortest script found that has the same violation.
script_t script_shrink(world_t *world, const script_t *script);

#endif
