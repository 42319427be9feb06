// Timers made of topology subscriptions. Started and handled on the receive thread, one at a time, in the order in
// which the topology service reports them; no lock. No timer is ever cancelled: an occasion that ends early leaves its
// timer to find nothing.
#include "zeb_mng_timer.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <linux/tipc.h>

#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_mng.h"
#include "zeb_mng_online.h"
#include "zeb_mng_sync.h"

constexpr uint32_t TIMER_NAME_TYPE = 1; // the topology service's own type, of which nobody publishes instance 0

bool zeb_timer_inst_retry_open;

static bool s_retry_start_failed; // on an open connection: the retry timer counts as pending for good

int zeb_subscr_timer_event(__u64 timeout, zeb_timer_t timer)
{
    if (timer.type == ZEB_TIMER_TYPE_INST_RETRY) {
        if (zeb_timer_inst_retry_open)
            return 0;
        zeb_timer_inst_retry_open = true; // stays set when the start fails: no retry timer is started again
    }
    struct tipc_subscr request;
    memset(&request, 0, sizeof(request));
    request.seq.type = TIMER_NAME_TYPE;
    request.timeout = (uint32_t)(timeout * 1000);
    request.filter = TIPC_SUB_SERVICE;
    memcpy(request.usr_handle, &timer, sizeof(timer));
    ZEB_VERBOSE("ZEB add timer event type %d, seq %d.\n", timer.type, timer.seq);
    if (zeb_send_subscription(&request) == 0)
        return 0;
    ZEB_ERROR("ZEB send timer subscription msg failed: %s.\n,", strerror(errno));
    if (timer.type == ZEB_TIMER_TYPE_INST_RETRY && g_zeb_mng.subscr_sd != -1)
        s_retry_start_failed = true;
    return -1;
}

void zeb_timer_forget_lost()
{
    zeb_timer_inst_retry_open = s_retry_start_failed;
}

void zeb_process_tipc_timer_event(zeb_timer_t timer)
{
    ZEB_VERBOSE("ZEB perceived timer event of type %d seq %d.\n", timer.type, timer.seq);
    switch (timer.type) {
    case ZEB_TIMER_TYPE_RESUME:
        zeb_process_resume_timer_event(timer.seq);
        return;
    case ZEB_TIMER_TYPE_INST:
        zeb_process_resend_inst_timer_event(timer.seq);
        return;
    case ZEB_TIMER_TYPE_MONITOR:
        zeb_process_monitor_timer_event(timer.seq);
        return;
    case ZEB_TIMER_TYPE_INST_RETRY:
        zeb_process_inst_retry_timer_event(timer.seq);
        return;
    default:
        return;
    }
}

void zeb_process_monitor_timer_event(uint32_t seq)
{
    char text[32] = "";
    time_t now = time(nullptr);
    (void)ctime_r(&now, text);
    ZEB_VERBOSE("ZEB monitor timer: %s", text);

    uint32_t app = zeb_load_acquire(&g_zeb_mng.app[0].app_id);
    zeb_buf_printf_reset();
    zeb_cli_print_lib_info(app);
    zeb_buf_printf("\n");
    zeb_cli_print_app_info(app);
    zeb_buf_printf("\n");
    zeb_cli_print_fc_stat(app);
    zeb_buf_printf("\n");
    zeb_cli_print_mng_stat(app);
    zeb_buf_printf("\n");
    zeb_cli_print_rpc_stat(app);
    zeb_buf_printf("\n");

    uint32_t next = 2 * (seq == 0 ? 1 : seq);
    zeb_dm_record_stat();
    (void)zeb_subscr_timer_event(next * ZEB_MONITOR_PERIOD, {ZEB_TIMER_TYPE_MONITOR, next});
}
