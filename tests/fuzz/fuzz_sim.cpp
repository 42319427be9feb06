// The shared memory of a cluster, mapped privately, and the system calls of the simulator's own code.
#include "fuzz_sim.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fuzz_sim
{
sim_cluster_t g_cluster;
calls_t g_calls;
int g_file = -1;

static size_t s_size; // of the state

static void make()
{
    char dir[] = "/dev/shm/fuzz_sim.XXXXXX";
    const char *why = "";
    require(mkdtemp(dir) != nullptr && sim_cluster_open(&g_cluster, dir, true, &why) == 0);
    std::string state = std::string(dir) + "/state";
    g_file = open(state.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status = {};
    require(fstat(g_file, &status) == 0);
    s_size = (size_t)status.st_size;
    for (uint32_t node = 1; node <= NODES; node++)
        require(sim_node_index(g_cluster.state, node) == node - 1);
    void *same =
        mmap(g_cluster.state, s_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED | MAP_NORESERVE, g_file, 0);
    require(same == g_cluster.state);
    (void)unlink(state.c_str());
    (void)unlink((std::string(dir) + "/lock").c_str());
    (void)rmdir(dir);
}

// What was written is in pages of this process alone: without them the memory is that of the file again.
void reset()
{
    if (g_cluster.state == nullptr)
        make();
    require(madvise(g_cluster.state, s_size, MADV_DONTNEED) == 0);
    g_calls = {1000000, nullptr, 1000};
}

void make_few(const sim_self_t *self, uint32_t sockets, uint32_t blocks)
{
    static const uint32_t lengths[SIM_POOLS] = {0, 1000, 5000, 60000}; // of messages in each pool
    sim_area_t *areas = g_cluster.state->areas;
    areas[SIM_AREA_SOCKETS].ready = sockets;
    for (uint32_t pool = 0; pool < SIM_POOLS; pool++) {
        areas[SIM_AREA_BLOCKS + pool].ready = blocks;
        areas[SIM_AREA_OWNERS + pool].ready = 1;
        sim_block_free(g_cluster.state, sim_block_take(self, lengths[pool]));
        areas[SIM_AREA_OWNERS + pool].ready = blocks;
    }
}

int grow(sim_cluster_t *cluster, uint32_t area, uint32_t seen)
{
    return sim_area_grow(cluster->state, g_file, area, seen);
}

__attribute__((no_sanitize("coverage"))) uint32_t blocks_in_use()
{
    uint32_t used = 0;
    for (uint32_t pool = 0; pool < SIM_POOLS; pool++) {
        const auto *owners = (const uint32_t *)sim_entry(g_cluster.state, SIM_AREA_OWNERS + pool, 0);
        for (uint32_t i = 0; i < g_cluster.state->areas[SIM_AREA_OWNERS + pool].ready; i++)
            used += owners[i] != 0 ? 1 : 0;
    }
    return used;
}
} // namespace fuzz_sim

extern "C" {
long __real_syscall(long number, long a, long b, long c, long d, long e, long f);

static long fail(int err)
{
    errno = err;
    return -1;
}

// All that a call may have; fewer are passed mostly.
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f)
{
    switch (number) {
    case SYS_futex:
        return 0;
    case SYS_clock_gettime:
        *(struct timespec *)b = {(time_t)(fuzz_sim::g_calls.now / 1000), fuzz_sim::g_calls.now % 1000 * 1000000};
        return 0;
    case SYS_pidfd_open: // some descriptor: nobody waits for it. That of an epoll set takes long to close
        return (int32_t)a > 0 && (int32_t)a < fuzz_sim::g_calls.alive ? dup(fuzz_sim::g_file)
                                                                      : fail((int32_t)a > 0 ? ESRCH : EINVAL);
    case SYS_epoll_ctl:
        return 0;
    case SYS_openat: // /proc/PID/stat
        return fail(ENOENT);
    default:
        return __real_syscall(number, a, b, c, d, e, f);
    }
}

bool __wrap__Z15sim_socket_heldPK11sim_state_sij(const sim_state_t * /*state*/, int /*other*/, uint32_t port)
{
    return fuzz_sim::g_calls.held != nullptr && fuzz_sim::g_calls.held(port);
}
}
