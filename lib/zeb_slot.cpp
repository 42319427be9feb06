#include "zeb_slot.h"

#include <zeb/zeb.h>

#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_gate.h"

zeb_mutex_t g_lib_mutex = {PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP};
zeb_mng_t g_zeb_mng;
bool g_zeb_in_child;

void zeb_clear_slot(zeb_app_mng_t *slot)
{
    slot->sd = 0;
    slot->info = nullptr;
    slot->fc = nullptr;
    slot->rpc = nullptr;
    slot->mng_stat = nullptr;
    slot->mc = nullptr;
}

void zeb_clear_mng()
{
    g_zeb_mng.running = false;
    g_zeb_mng.blocked_resume = false;
    g_zeb_mng.wake_fd = -1;
    g_zeb_mng.subscr_sd = 0;
    g_zeb_mng.lib_tid = 0;
    for (zeb_app_mng_t &slot : g_zeb_mng.app) {
        slot.app_id = 0;
        zeb_clear_slot(&slot);
    }
}

void zeb_notify_running()
{
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        g_zeb_mng.running = true;
    }
    zeb_cond_broadcast(&g_zeb_mng.running_cond);
}

void zeb_wait_for_running()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    while (!g_zeb_mng.running && !zeb_stopping()) {
        struct timespec deadline = zeb_deadline_in(1);
        (void)zeb_cond_wait_until(&g_zeb_mng.running_cond, &g_lib_mutex, &deadline);
    }
}

bool zeb_refuse_child(const char *call)
{
    ZEB_ERROR_WHY("ZEB %s called in a child of the process that runs the library.\n", call);
    zeb_advise(" Let the child exec, or fork before the first registration.");
    return true;
}

void zeb_enable_blocked_resume(void)
{
    g_zeb_mng.blocked_resume.store(true, std::memory_order_relaxed);
}

void zeb_disable_blocked_resume(void)
{
    g_zeb_mng.blocked_resume.store(false, std::memory_order_relaxed);
}

bool zeb_blocked_resume_enabled(void)
{
    return zeb_cfg_get_blocked_resume_enabled() && g_zeb_mng.blocked_resume.load(std::memory_order_relaxed);
}
