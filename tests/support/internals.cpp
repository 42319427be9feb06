#include "internals.h"

#include "platform/list_algo.h"
#include "zeb_handshake_shell.h"
#include "zeb_handshake_state.h"
#include "zeb_rpc.h"
#include "zeb_slot.h"

const pthread_cond_t *internals::running_cond()
{
    return &g_zeb_mng.running_cond.impl;
}

const pthread_cond_t *internals::answer_cond(uint32_t app)
{
    return &zeb_get_app_rpc(app)->wait_cond.impl;
}

int internals::retry_num()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return list_length(&g_zeb_handshake.inst_retry.list);
}

const char *internals::phase(uint32_t my_app, uint32_t app, uint32_t node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return zeb_pair_phase_text(zeb_hs_pair_phase(&g_zeb_handshake, my_app, {app, node}));
}
