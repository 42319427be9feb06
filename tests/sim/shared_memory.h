// A cluster's shared memory of two nodes without a broker, for tests of what lies in it.
#ifndef TESTS_SIM_SHARED_MEMORY_H
#define TESTS_SIM_SHARED_MEMORY_H

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "sim_deliver.h"

inline int g_state_file = -1;
inline uint32_t g_woken; // calls for a socket's wake-up descriptor

class shared_memory : public testing::Test
{
  protected:
    explicit shared_memory(uint32_t one = 1, uint32_t other = 2) : one_(one), other_(other) // addresses of nodes
    {
    }
    void SetUp() override
    {
        char dir[] = "/tmp/sim_memory.XXXXXX";
        const char *why = "";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        ASSERT_EQ(sim_cluster_open(&cluster_, dir, true, &why), 0) << why;
        g_state_file = open((dir_ + "/state").c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_EQ(sim_node_index(state(), one_), 0U);
        ASSERT_EQ(sim_node_index(state(), other_), 1U);
    }
    void TearDown() override
    {
        sim_cluster_close(&cluster_);
        (void)close(g_state_file);
        std::filesystem::remove_all(dir_);
    }
    sim_state_t *state()
    {
        return cluster_.state;
    }
    uint32_t blocks_in_use()
    {
        uint32_t used = 0;
        for (uint32_t pool = 0; pool < SIM_POOLS; pool++) {
            const auto *owners = (const uint32_t *)sim_entry(state(), SIM_AREA_OWNERS + pool, 0);
            for (uint32_t i = 0; i < state()->areas[SIM_AREA_OWNERS + pool].ready; i++)
                used += owners[i] != 0 ? 1 : 0;
        }
        return used;
    }
    sim_socket_t *open_socket(int type = SOCK_RDM, uint32_t node = 0)
    {
        sim_socket_t *socket = sim_socket_take(&self_, (uint32_t)type, node, getpid());
        if (socket != nullptr)
            sim_socket_open(socket);
        return socket;
    }
    sim_record_t record(const sim_socket_t *from, const sim_socket_t *to, uint32_t len)
    {
        sim_record_t record = {};
        record.len = len;
        record.src_port = from->port;
        record.src_index = from->node;
        record.src_node = state()->nodes[from->node];
        record.dst_port = to->port;
        record.dst_index = to->node;
        return record;
    }

    std::string dir_;
    sim_cluster_t cluster_ = {};
    sim_self_t self_ = {&cluster_, 1,
                        [](sim_cluster_t *cluster, uint32_t area, uint32_t seen) {
                            return sim_area_grow(cluster->state, g_state_file, area, seen);
                        },
                        [](sim_cluster_t *, sim_socket_t *) { g_woken++; }};

  private:
    uint32_t one_;
    uint32_t other_;
};

#endif
