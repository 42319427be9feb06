// An application's private fan-out lists: groups of applications and groups of nodes. They live in the application's
// record and never travel.
// Any application thread may call; the application record's mutex guards the group set. Queries return copies.
#ifndef ZEB_MC_H
#define ZEB_MC_H

#include <cstdint>

#include <zeb/zeb_diag.h>

#include "zeb_lock.h"

constexpr int ZEB_MC_NUM = 128; // groups of each kind

static_assert(sizeof(indexed_list<zeb_app_mc_t>) == sizeof(list_indexed_t), "the set is one record for C and C++");

#endif
