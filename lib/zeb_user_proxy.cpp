#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstring>

#include <zeb/zeb_ext.h>

#include "platform/gvr.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_gate.h"
#include "zeb_mng.h"
#include "zeb_slot.h"
#include "zeb_handshake_shell.h"

static int count_dispatchers(const zeb_msg_dispatcher_t *dispatcher)
{
    int num = 0;
    while (dispatcher[num].ver != 0 && dispatcher[num].fun != nullptr)
        num++;
    return num;
}

static int zeb_app_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                            zeb_app_event_fun_t event, bool thread)
{
    if (zeb_cfg_init() != 0)
        return -1;
    if (!zeb_valid_app_id(app)) {
        ZEB_ERROR("ZEB app registered with invalid ID %d.\n", app);
        return -EINVAL;
    }
    if (app_name == nullptr) {
        ZEB_ERROR("ZEB app %d registered name NULL.\n", app);
        return -EINVAL;
    }
    if (dispatcher == nullptr) {
        ZEB_ERROR("ZEB app %d registered dispatcher NULL.\n", app);
        return -EINVAL;
    }
    int num = count_dispatchers(dispatcher);
    ZEB_VERBOSE("ZEB app %d [%s] registered: %d dispatcher version, event %p.\n", app, app_name, num, (void *)event);
    int ret = zeb_add_app_mng(app, app_name, thread, num, dispatcher, event);
    if (ret != 0) {
        ZEB_INFO("ZEB registeration for app %d [%s] failed: %s.\n", app, app_name, strerror(-ret));
        return ret;
    }
    ret = gvr_lib_common_init();
    if (ret != 0)
        ZEB_ERROR("gvr_lib init err(ret:%d)!\r\n", ret);
    ZEB_INFO("ZEB registeration for app %d [%s] OK.\n", app, app_name);
    return 0;
}

int zeb_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event)
{
    zeb_call_t entered("zeb_register");
    if (entered.refused() != 0)
        return entered.refused();
    return zeb_app_register(app, app_name, dispatcher, event, true);
}

int zeb_register_without_thread(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                                zeb_app_event_fun_t event)
{
    zeb_call_t entered("zeb_register_without_thread");
    if (entered.refused() != 0)
        return entered.refused();
    return zeb_app_register(app, app_name, dispatcher, event, false);
}

int zeb_unregister(uint32_t app)
{
    zeb_call_t entered("zeb_unregister");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_valid_app_id(app)) {
        ZEB_ERROR("ZEB app unregistered with invalid ID %d.\n", app);
        return -EINVAL;
    }
    ZEB_INFO("ZEB app %d unregister service.\n", app);
    zeb_del_app_mng(app);
    return 0;
}

void zeb_run(void)
{
    zeb_call_t entered("zeb_run");
    if (entered.refused() != 0)
        return;
    zeb_notify_running();
}

int zeb_app_ready(uint32_t)
{
    zeb_call_t entered("zeb_app_ready");
    if (entered.refused() != 0)
        return entered.refused();
    zeb_run();
    return 0;
}

int zeb_stop(void)
{
    if (zeb_in_child("zeb_stop"))
        return -EPERM;
    if (zeb_runs_callbacks()) {
        ZEB_ERROR("ZEB zeb_stop called in a callback.\n");
        return -EDEADLK;
    }
    return zeb_stop_lib();
}

int zeb_comm_with(uint32_t src_app, uint32_t dst_app)
{
    zeb_call_t entered("zeb_comm_with");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_valid_app_id(src_app) || !zeb_valid_app_id(dst_app))
        return -EINVAL;
    return zeb_add_comm_app(src_app, dst_app);
}
