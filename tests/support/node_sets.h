// Sets of nodes as lists.
#ifndef TESTS_SUPPORT_NODE_SETS_H
#define TESTS_SUPPORT_NODE_SETS_H

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "zeb_handshake_shell.h"

typedef std::vector<uint32_t> nodes_t;

static inline nodes_t nodes_of(const zeb_app_set_t *set)
{
    nodes_t nodes;
    zeb_app_set_each(set, [&](uint32_t node) { nodes.push_back(node); });
    return nodes;
}

static inline nodes_t servers_of(uint32_t app)
{
    static zeb_app_set_t set;
    memset(&set, 0xEE, sizeof(set)); // what the caller's stack holds must not matter
    zeb_get_app_server(app, &set);
    EXPECT_EQ(zeb_has_app_server(&set), !nodes_of(&set).empty());
    return nodes_of(&set);
}

#endif
