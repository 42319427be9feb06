// Words that both programs use for the same things.
#ifndef OPS_TEXT_H
#define OPS_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "ops_wire.h"

// "APP@NODE".
std::string ops_inst_text(ops_inst_t inst);

// The bit of the level of that name, all bits for "all", 0 for another word.
uint32_t ops_level(const std::string &name);

// The names of the levels of a mask.
std::vector<std::string> ops_level_names(uint32_t mask);

#endif
