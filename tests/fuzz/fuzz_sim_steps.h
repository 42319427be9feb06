// Included before all else into the simulator's sources: what they do with memory that others see is a step, before
// each of which another process may do something, or this one may be killed.
#ifndef FUZZ_SIM_STEPS_H
#define FUZZ_SIM_STEPS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

extern "C" void fuzz_sim_come_between(void);
extern uint32_t g_fuzz_sim_left; // steps until something happens, 0 for nothing

static inline void fuzz_sim_step(void)
{
    if (g_fuzz_sim_left != 0 && --g_fuzz_sim_left == 0)
        fuzz_sim_come_between();
}

#define __atomic_load_n(...) (fuzz_sim_step(), __atomic_load_n(__VA_ARGS__))
#define __atomic_store_n(...) (fuzz_sim_step(), __atomic_store_n(__VA_ARGS__))
#define __atomic_exchange_n(...) (fuzz_sim_step(), __atomic_exchange_n(__VA_ARGS__))
#define __atomic_compare_exchange_n(...) (fuzz_sim_step(), __atomic_compare_exchange_n(__VA_ARGS__))
#define __atomic_fetch_add(...) (fuzz_sim_step(), __atomic_fetch_add(__VA_ARGS__))
#define __atomic_sub_fetch(...) (fuzz_sim_step(), __atomic_sub_fetch(__VA_ARGS__))

#endif
