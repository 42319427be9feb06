// A simulated cluster for the fuzz targets of the simulator: its shared memory without other processes, and system
// calls that have no effect outside. Each input begins with the same memory.
#ifndef FUZZ_SIM_H
#define FUZZ_SIM_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "sim_socket.h"

namespace fuzz_sim
{
constexpr uint32_t NODES = 3; // addresses 1, 2 and 3

typedef struct calls_s {
    int64_t now;                 // ms: what the monotonic clock says
    bool (*held)(uint32_t port); // whether some process has a socket
    int32_t alive;               // process ids below it are those of processes
} calls_t;

extern sim_cluster_t g_cluster;
extern calls_t g_calls;
extern int g_file; // of the state

void reset(void); // the memory, as each input finds it
// Few sockets and blocks are ready, so that they are used again soon, and the search for blocks begins with the first
// one, so that an input does the same after others as alone.
void make_few(const sim_self_t *self, uint32_t sockets, uint32_t blocks);
int grow(sim_cluster_t *cluster, uint32_t area, uint32_t seen);
uint32_t blocks_in_use(void); // blocks that somebody has

static inline void require(bool holds)
{
    if (!holds)
        abort();
}

// What the target does with the bytes of its input: 0 when there are no more.
typedef struct input_s {
    const uint8_t *at;
    size_t left;
} input_t;

static inline uint32_t number(input_t *input, size_t bytes)
{
    uint32_t value = 0;
    for (size_t i = 0; i < bytes && input->left != 0; i++, input->left--)
        value = value << 8 | *input->at++;
    return value;
}
static inline uint32_t below(input_t *input, uint32_t limit) // 1 to 256
{
    return number(input, 1) % limit;
}
} // namespace fuzz_sim

#endif
