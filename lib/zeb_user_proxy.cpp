#include "zeb_user_proxy.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <zeb/zeb_ext.h>

#include "platform/gvr.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
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

static int count_dispatchers(const zeb_app_dispatcher_t *dispatcher)
{
    int num = 0;
    while (dispatcher[num].ver != 0 && (dispatcher[num].message != nullptr || dispatcher[num].call != nullptr))
        num++;
    return num;
}

static int check_register_arg(uint32_t app, const char *app_name, const void *dispatcher)
{
    if (zeb_load_cfg() != 0)
        return -1;
    if (!zeb_valid_app_id(app)) {
        ZEB_ERROR_WHY("ZEB app registered with invalid ID %d.\n", app);
        return -EINVAL;
    }
    if (app_name == nullptr) {
        ZEB_ERROR_WHY("ZEB app %d registered name NULL.\n", app);
        return -EINVAL;
    }
    if (dispatcher == nullptr) {
        ZEB_ERROR_WHY("ZEB app %d registered dispatcher NULL.\n", app);
        return -EINVAL;
    }
    return 0;
}

static int register_spec(const zeb_app_spec_t *spec)
{
    uint32_t app = spec->app;
    ZEB_VERBOSE("ZEB app %d [%s] registered: %d dispatcher version, event %p.\n", app, spec->name, spec->dispatcher_num,
                (void *)spec->event);
    int ret = zeb_add_app_mng(spec);
    if (ret != 0) {
        ZEB_INFO("ZEB registeration for app %d [%s] failed: %s.\n", app, spec->name, strerror(-ret));
        return ret;
    }
    ret = gvr_lib_common_init();
    if (ret != 0)
        ZEB_ERROR("gvr_lib init err(ret:%d)!\r\n", ret);
    ZEB_INFO("ZEB registeration for app %d [%s] OK.\n", app, spec->name);
    return 0;
}

static int zeb_app_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                            zeb_app_event_fun_t event, zeb_app_mode_t mode)
{
    int ret = check_register_arg(app, app_name, dispatcher);
    if (ret != 0)
        return ret;
    zeb_app_spec_t spec = {app, app_name, mode, count_dispatchers(dispatcher), dispatcher, event, nullptr};
    return register_spec(&spec);
}

constexpr size_t OPTIONS_SIZE_MIN = offsetof(zeb_app_options_t, event); // what every registration needs
constexpr size_t OPTIONS_SIZE_MAX = 4096;

static bool all_zero(const uint8_t *bytes, size_t len)
{
    for (size_t i = 0; i < len; i++) {
        if (bytes[i] != 0)
            return false;
    }
    return true;
}

// Copies the options of a caller whose record may be shorter or longer than ours. False, with an ERROR line, when they
// ask for what this library does not know.
static bool take_options(const zeb_app_options_t *given, zeb_app_options_t *out)
{
    if (given == nullptr || given->size < OPTIONS_SIZE_MIN || given->size > OPTIONS_SIZE_MAX) {
        ZEB_ERROR_WHY("ZEB app registered with options of %d bytes.\n", given == nullptr ? 0 : (int)given->size);
        return false;
    }
    size_t known = given->size < sizeof(*out) ? given->size : sizeof(*out);
    memset(out, 0, sizeof(*out));
    memcpy(out, given, known);
    if (all_zero((const uint8_t *)given + known, given->size - known) && out->every_subscriber <= 1 &&
        out->mode <= ZEB_APP_POLLED)
        return true;
    ZEB_ERROR_WHY("ZEB app %d registered with unknown options.\n", out->app);
    return false;
}

// Tables for the callbacks with a context are listed as those without one.
static zeb_msg_dispatcher_fun_t listed(zeb_app_msg_fun_t fun)
{
    return reinterpret_cast<zeb_msg_dispatcher_fun_t>(reinterpret_cast<void *>(fun));
}

static int register_options(const zeb_app_options_t *options)
{
    int num = count_dispatchers(options->dispatchers);
    zeb_msg_dispatcher_t *rows = (zeb_msg_dispatcher_t *)zeb_malloc((num + 1) * (int)sizeof(zeb_msg_dispatcher_t));
    for (int i = 0; i < num; i++) {
        const zeb_app_dispatcher_t *row = &options->dispatchers[i];
        rows[i] = {row->ver, listed(row->message != nullptr ? row->message : row->call)};
    }
    zeb_app_event_fun_t event = reinterpret_cast<zeb_app_event_fun_t>(reinterpret_cast<void *>(options->event));
    zeb_app_spec_t spec = {options->app, options->name, (zeb_app_mode_t)options->mode, num, rows, event, options};
    int ret = register_spec(&spec);
    free(rows);
    return ret;
}

// Tells people who see neither log lines nor results why the application does not come up.
static int tell_result(uint32_t app, int ret)
{
    if (ret != 0)
        ZEB_SAY_UNHANDLED("zeb: application %u is not registered: %s%s", app, zeb_last_error(), zeb_advice());
    return ret;
}

int zeb_register(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_register");
    if (entered.refused() != 0)
        return tell_result(app, entered.refused());
    return tell_result(app, zeb_app_register(app, app_name, dispatcher, event, ZEB_APP_THREAD));
}

int zeb_register_without_thread(uint32_t app, const char *app_name, const zeb_msg_dispatcher_t *dispatcher,
                                zeb_app_event_fun_t event)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_register_without_thread");
    if (entered.refused() != 0)
        return tell_result(app, entered.refused());
    return tell_result(app, zeb_app_register(app, app_name, dispatcher, event, ZEB_APP_NO_THREAD));
}

int zeb_register_app(const zeb_app_options_t *options)
{
    zeb_app_options_t own = {};
    zeb_clear_last_error();
    zeb_call_t entered("zeb_register_app");
    int ret = entered.refused();
    if (ret == 0 && !take_options(options, &own))
        ret = -EINVAL;
    if (ret == 0)
        ret = check_register_arg(own.app, own.name, own.dispatchers);
    return tell_result(own.app, ret != 0 ? ret : register_options(&own));
}

static int get_polled(uint32_t app, zeb_app_info_t **app_info)
{
    *app_info = zeb_get_app_info(app);
    if (*app_info == nullptr) {
        zeb_note_not_registered(app);
        return -ENOENT;
    }
    if ((*app_info)->ready_fd != -1)
        return 0;
    zeb_note_error("ZEB app %d is not polled.\n", {{app}});
    return -EINVAL;
}

int zeb_app_fd(uint32_t app)
{
    zeb_call_t entered("zeb_app_fd");
    if (entered.refused() != 0)
        return entered.refused();
    zeb_app_info_t *app_info = nullptr;
    int ret = get_polled(app, &app_info);
    return ret != 0 ? ret : app_info->ready_fd;
}

int zeb_dispatch(uint32_t app, int max)
{
    zeb_call_t entered("zeb_dispatch");
    if (entered.refused() != 0)
        return entered.refused();
    zeb_app_info_t *app_info = nullptr;
    int ret = get_polled(app, &app_info);
    if (ret != 0)
        return ret;
    if (max < 1) {
        zeb_note_error("ZEB app %d dispatch of %d items.\n", {{app, (uint32_t)max}});
        return -EINVAL;
    }
    if (app_info->dispatching.exchange(true, std::memory_order_acquire)) {
        zeb_note_error("ZEB app %d: another thread dispatches, or this one does already.\n", {{app}});
        return -EBUSY;
    }
    bool before = zeb_set_callbacks(true);
    ret = zeb_dispatch_queue(app_info, max);
    (void)zeb_set_callbacks(before);
    app_info->dispatching.store(false, std::memory_order_release);
    return ret;
}

int zeb_unregister(uint32_t app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_unregister");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_valid_app_id(app)) {
        ZEB_ERROR_WHY("ZEB app unregistered with invalid ID %d.\n", app);
        return -EINVAL;
    }
    ZEB_INFO("ZEB app %d unregister service.\n", app);
    zeb_del_app_mng(app);
    return 0;
}

void zeb_run(void)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_run");
    if (entered.refused() != 0)
        return;
    zeb_notify_running();
}

int zeb_app_ready(uint32_t)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_app_ready");
    if (entered.refused() != 0)
        return entered.refused();
    zeb_notify_running();
    return 0;
}

int zeb_stop(void)
{
    zeb_clear_last_error();
    if (zeb_in_child("zeb_stop"))
        return -EPERM;
    if (zeb_runs_callbacks()) {
        ZEB_ERROR_WHY("ZEB zeb_stop called in a callback.\n");
        return -EDEADLK;
    }
    return zeb_stop_lib();
}

int zeb_comm_with(uint32_t src_app, uint32_t dst_app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_comm_with");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_valid_app_id(src_app) || !zeb_valid_app_id(dst_app)) {
        zeb_note_error("ZEB app %d comm with %d: invalid ID.\n", {{src_app, dst_app}});
        return -EINVAL;
    }
    return zeb_add_comm_app(src_app, dst_app);
}
