#include "zeb_app_info.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "platform/list_algo.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_gate.h"
#include "zeb_probe.h"
#include "zeb_tipc.h"
#include "zeb_rpc.h"

constexpr int THREAD_NAME_LEN = 16; // the kernel's limit, with the terminator

// The flags of a queued task. Messages that are queued have no ZEB_MSG_FLAG_MNG, events nothing else.
constexpr uint8_t TASK_FLAGS = ZEB_MSG_FLAG_MNG | ZEB_MSG_FLAG_ACK;

static void run_task(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    zeb_app_task_t fun = nullptr;
    memcpy(&fun, msg->data, sizeof(fun));
    free(msg);
    fun(app_info);
}

// Dispatches one event record and frees it.
static void zeb_dispatch_app_event(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    zeb_event_t event;
    memcpy(&event, msg->data, sizeof(event));
    ZEB_INFO("ZEB app %d dispatch app %d/%d event: %s.\n", app_info->app_id, event.event.app.app, event.event.app.node,
             zeb_event_type_string((int)event.type));
    if (app_info->with_context)
        app_info->options.event(app_info->options.context, &event);
    else
        (void)app_info->event_fun(event);
    free(msg);
}

// What the library itself has queued.
static void dispatch_own(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    if (msg->hdr.flag == TASK_FLAGS)
        run_task(app_info, msg);
    else
        zeb_dispatch_app_event(app_info, msg);
}

// Called with the mutex held after each change of the queue.
static void queue_changed(zeb_app_info_t *app_info) ZEB_REQUIRES(app_info->mutex)
{
    bool ready = app_info->queue_num != 0;
    app_info->queue_told = app_info->queue_told && ready;
    if (app_info->ready_fd == -1 || ready == app_info->ready)
        return;
    app_info->ready = ready;
    uint64_t count = 1; // the descriptor does not block: it has 0 when it is written and 1 when it is read
    while ((ready ? write(app_info->ready_fd, &count, sizeof(count))
                  : read(app_info->ready_fd, &count, sizeof(count))) < 0 &&
           errno == EINTR)
        continue;
}

static zeb_msg_t *first_item(zeb_app_info_t *app_info) ZEB_REQUIRES(app_info->mutex)
{
    zeb_msg_t *msg = list_record<zeb_msg_t>(app_info->msg_list.next);
    list_del(&msg->list);
    app_info->queue_num--;
    queue_changed(app_info);
    return msg;
}

// Waits while the queue is empty. Null when the library stops: what is queued stays there.
static zeb_msg_t *take_item(zeb_app_info_t *app_info)
{
    zeb_scoped_lock lock(&app_info->mutex);
    while (list_empty(&app_info->msg_list) && !zeb_stopping()) {
        struct timespec deadline = zeb_deadline_in(1);
        (void)zeb_cond_wait_until(&app_info->msg_cond, &app_info->mutex, &deadline);
    }
    return zeb_stopping() ? nullptr : first_item(app_info);
}

static void dispatch_item(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    if ((msg->hdr.flag & ZEB_MSG_FLAG_MNG) != 0)
        dispatch_own(app_info, msg);
    else
        zeb_dispatch_app_msg(app_info, msg);
}

// Null when there is none, or the library stops.
static zeb_msg_t *take_queued(zeb_app_info_t *app_info)
{
    zeb_scoped_lock lock(&app_info->mutex);
    return list_empty(&app_info->msg_list) || zeb_stopping() ? nullptr : first_item(app_info);
}

int zeb_dispatch_queue(zeb_app_info_t *app_info, int max)
{
    int num = 0;
    zeb_msg_t *msg = nullptr;
    for (; num < max && (msg = take_queued(app_info)) != nullptr; num++)
        dispatch_item(app_info, msg);
    return num;
}

static void *zeb_proxy_thread_fun(void *arg)
{
    zeb_app_info_t *app_info = (zeb_app_info_t *)arg;
    char name[THREAD_NAME_LEN];
    (void)snprintf(name, sizeof(name), "zeb_app_%u", app_info->app_id);
    (void)prctl(PR_SET_NAME, name);
    (void)zeb_set_callbacks(true);
    zeb_wait_for_running();
    if (zeb_stopping())
        return nullptr;
    ZEB_INFO("ZEB app %d proxy thread start.\n", app_info->app_id);
    zeb_msg_t *msg = nullptr;
    while ((msg = take_item(app_info)) != nullptr)
        dispatch_item(app_info, msg);
    return nullptr;
}

static bool init_queue(zeb_app_info_t *app_info)
{
    uint32_t app = app_info->app_id;
    return zeb_mutex_cond_init(&app_info->mutex, &app_info->msg_cond, [app](zeb_init_step_t step, int err) {
        if (step == ZEB_INIT_STEP_MUTEX)
            ZEB_ERROR_WHY("ZEB init app %d info mutex failed: %s.\n", app, strerror(err));
        else if (step == ZEB_INIT_STEP_ATTR)
            ZEB_ERROR_WHY("ZEB init app %d condition attribute failed: %s.\n", app, strerror(err));
        else if (step == ZEB_INIT_STEP_CLOCK)
            ZEB_ERROR_WHY("ZEB set app %d condition clock attribute failed: %s.\n", app, strerror(err));
        else
            ZEB_ERROR_WHY("ZEB init app %d msg distribute condition failed: %s.\n", app, strerror(err));
    });
}

static bool start_proxy_thread(zeb_app_info_t *app_info)
{
    int ret = pthread_create(&app_info->tid, nullptr, zeb_proxy_thread_fun, app_info);
    if (ret == 0)
        return true;
    ZEB_ERROR_WHY("ZEB create app %d proxy thread failed: %s.\n", app_info->app_id, strerror(ret));
    zeb_cond_destroy(&app_info->msg_cond);
    zeb_mutex_destroy(&app_info->mutex);
    return false;
}

static void free_record(zeb_app_info_t *app_info)
{
    free((void *)app_info->options.dispatchers);
    free(app_info->dispatcher);
    free(app_info);
}

// A copy of a table with one more row than it has: the version 0 of that ends it.
template <typename Row>
static Row *copy_table(const Row *rows, int num)
{
    Row *copy = (Row *)zeb_malloc((num + 1) * (int)sizeof(Row));
    memcpy(copy, rows, (size_t)num * sizeof(Row));
    return copy;
}

static zeb_app_info_t *new_record(const zeb_app_spec_t *spec)
{
    zeb_app_info_t *app_info = (zeb_app_info_t *)zeb_malloc(sizeof(zeb_app_info_t));
    app_info->app_id = spec->app;
    app_info->priority = zeb_get_app_priority(spec->app);
    (void)snprintf(app_info->name, sizeof(app_info->name), "%s", spec->name);
    app_info->dispatcher = copy_table(spec->dispatcher, spec->dispatcher_num);
    app_info->with_proxy_thread = spec->mode == ZEB_APP_THREAD;
    app_info->ready_fd = -1;
    app_info->event_fun = spec->event;
    app_info->with_context = spec->options != nullptr;
    if (!app_info->with_context)
        return app_info;
    app_info->options = *spec->options;
    app_info->options.dispatchers = copy_table(spec->options->dispatchers, spec->dispatcher_num);
    return app_info;
}

static bool open_ready_descriptor(zeb_app_info_t *app_info)
{
    app_info->ready_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (app_info->ready_fd == -1)
        ZEB_ERROR_WHY("ZEB create app %d ready descriptor failed: %s.\n", app_info->app_id, strerror(errno));
    return app_info->ready_fd != -1;
}

static void close_ready_descriptor(zeb_app_info_t *app_info)
{
    int fd = app_info->ready_fd;
    app_info->ready_fd = -1; // cleared first: a child that is forked now must not close it again
    if (fd != -1)
        (void)close(fd);
}

// No other thread knows the record yet.
static void init_lists(zeb_app_info_t *app_info) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    INIT_LIST_HEAD(&app_info->msg_list);
    app_info->mc.app_id = app_info->app_id;
    app_info->mc.mutex = &app_info->mutex;
    zeb_mc_init(&app_info->mc);
}

zeb_app_info_t *zeb_add_app_info(const zeb_app_spec_t *spec)
{
    ZEB_VERBOSE("ZEB add app %d info.\n", spec->app);
    zeb_app_info_t *app_info = new_record(spec);
    init_lists(app_info);

    app_info->sd = zeb_create_app_socket(spec->app, app_info->priority);
    if (app_info->sd == -1) {
        free_record(app_info);
        return nullptr;
    }
    if (spec->mode == ZEB_APP_POLLED && !open_ready_descriptor(app_info)) {
        (void)close(app_info->sd);
        free_record(app_info);
        return nullptr;
    }
    if (!init_queue(app_info) || (app_info->with_proxy_thread && !start_proxy_thread(app_info))) {
        (void)close(app_info->sd);
        close_ready_descriptor(app_info);
        free_record(app_info);
        return nullptr;
    }
    return app_info;
}

void zeb_end_proxy_thread(zeb_app_info_t *app_info)
{
    if (!app_info->with_proxy_thread)
        return;
    {
        zeb_scoped_lock lock(&app_info->mutex); // a thread that has tested the gate is waiting now
    }
    zeb_cond_signal(&app_info->msg_cond);
    (void)pthread_join(app_info->tid, nullptr);
    app_info->with_proxy_thread = false;
}

static void free_queue_and_groups(zeb_app_info_t *app_info)
{
    {
        zeb_scoped_lock lock(&app_info->mutex);
        (void)list_remove_matching<zeb_msg_t>(&app_info->msg_list, [](const zeb_msg_t *) { return true; });
    }
    zeb_scoped_lock lock(app_info->mc.mutex);
    zeb_clear_mc(&app_info->mc);
}

void zeb_del_app_info(zeb_app_info_t *app_info)
{
    if (app_info == nullptr)
        return;
    ZEB_INFO("ZEB destroy app %d info.\n", app_info->app_id);
    (void)close(app_info->sd);
    if (app_info->with_proxy_thread) {
        (void)pthread_cancel(app_info->tid);
        (void)pthread_join(app_info->tid, nullptr);
    }
    close_ready_descriptor(app_info);
    free_queue_and_groups(app_info);
    zeb_cond_destroy(&app_info->msg_cond);
    zeb_mutex_destroy(&app_info->mutex);
    free_record(app_info);
}

// True when the queue has passed what the application wants to be told of, for the first time since it was empty.
static bool passes_notice(zeb_app_info_t *app_info) ZEB_REQUIRES(app_info->mutex)
{
    uint32_t bound = app_info->options.queue_notice;
    if (bound == 0 || app_info->queue_num <= bound || app_info->queue_told)
        return false;
    app_info->queue_told = true;
    return true;
}

static void tell_of_queue(const zeb_app_info_t *app_info, uint32_t num)
{
    const zeb_app_options_t *options = &app_info->options;
    if (options->queue_passed != nullptr)
        options->queue_passed(options->context, app_info->app_id, num);
    else
        ZEB_WARN("ZEB app %d has %u items queued, more than %u.\n", app_info->app_id, num, options->queue_notice);
}

static void __append(zeb_app_info_t *app_info, zeb_msg_t *msg) ZEB_REQUIRES(app_info->mutex)
{
    list_add_tail(&msg->list, &app_info->msg_list);
    app_info->queue_num++;
    queue_changed(app_info);
}

static void append(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    uint32_t num = 0;
    {
        zeb_scoped_lock lock(&app_info->mutex);
        __append(app_info, msg);
        num = passes_notice(app_info) ? app_info->queue_num : 0;
    }
    if (num != 0)
        tell_of_queue(app_info, num);
}

static void enqueue(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    append(app_info, msg);
    if (app_info->with_proxy_thread)
        zeb_cond_signal(&app_info->msg_cond);
}

void zeb_queue_msg(zeb_msg_t *msg, zeb_app_info_t *app_info)
{
    append(app_info, msg);
    app_info->signal_due = true;
}

void zeb_signal_queued(zeb_app_info_t *app_info)
{
    if (!app_info->signal_due)
        return;
    app_info->signal_due = false;
    zeb_cond_signal(&app_info->msg_cond);
}

void zeb_enqueue_msg_dist(zeb_msg_t *msg, zeb_app_info_t *app_info)
{
    if (zeb_has_queue(app_info))
        enqueue(app_info, msg);
    else
        zeb_dispatch_app_msg(app_info, msg);
}

int zeb_enqueue_event_msg(uint32_t app, zeb_msg_t *msg)
{
    zeb_app_info_t *app_info = zeb_get_app_info(app);
    if (app_info == nullptr || app_info->event_fun == nullptr)
        return -1;
    if (zeb_has_queue(app_info))
        enqueue(app_info, msg);
    else
        zeb_dispatch_app_event(app_info, msg);
    return 0;
}

void zeb_enqueue_task(zeb_app_info_t *app_info, zeb_app_task_t fun)
{
    zeb_msg_t *msg = zeb_msg_alloc(sizeof(fun), 1, 0);
    assert(msg != NULL);
    msg->hdr.flag = TASK_FLAGS;
    memcpy(msg->data, &fun, sizeof(fun));
    {
        zeb_scoped_lock lock(&app_info->mutex);
        __append(app_info, msg);
    }
    if (app_info->with_proxy_thread)
        zeb_cond_signal(&app_info->msg_cond);
}

static void reply_app_mismatch(const zeb_app_info_t *app_info, const zeb_msg_t *msg)
{
    zeb_mismatch_info_t range = zeb_get_app_ver_range(app_info);
    int ret = zeb_rpc_reply_app_mismatch(msg, &range);
    if (ret < 0)
        ZEB_ERROR("ZEB app %d reply app mismatch [%d, %d] to %d/%d failed: %s.\n", app_info->app_id, range.low,
                  range.high, msg->hdr.src_app, msg->hdr.src_node, strerror(-ret));
}

void zeb_dispatch_app_msg(zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    uint32_t ver = msg->hdr.app_ver;
    char flags[ZEB_MSG_FLAGS_LEN];
    ZEB_VERBOSE("ZEB dispatch app %d msg from %d/%d, ver %d, data len %d, msg flags: %s.\n", app_info->app_id,
                msg->hdr.src_app, msg->hdr.src_node, ver, zeb_msg_data_len(msg),
                zeb_get_msg_flags_str(msg->hdr.flag, flags));
    // Before the lookup of the dispatcher: a message without a dispatcher counts as processed too.
    zeb_fc_update_recv_ok(app_info->fc, zeb_msg_sender(msg));

    if (zeb_run_dispatcher(app_info, msg))
        return;
    ZEB_VERBOSE("ZEB app %d ver %d dispatcher not exist.\n", app_info->app_id, ver);
    if (zeb_is_rpc_request(msg))
        reply_app_mismatch(app_info, msg);
    free(msg);
}

static void run_with_context(const zeb_app_info_t *app_info, const zeb_app_dispatcher_t *row, zeb_msg_t *msg)
{
    bool call = row->call != nullptr && zeb_is_rpc_request(msg);
    zeb_app_msg_fun_t fun = call ? row->call : row->message;
    if (fun != nullptr)
        fun(app_info->options.context, msg);
    else
        free(msg);
}

bool zeb_run_dispatcher(const zeb_app_info_t *app_info, zeb_msg_t *msg)
{
    const zeb_msg_dispatcher_t *row = app_info->dispatcher;
    while (row->ver != 0 && row->ver != msg->hdr.app_ver)
        row++;
    if (row->ver == 0)
        return false;
    ZEB_PROBE_DISPATCH_START(app_info->app_id, row->ver, msg->hdr.src_app, msg->hdr.src_node, msg->hdr.flag);
    if (app_info->with_context)
        run_with_context(app_info, &app_info->options.dispatchers[row - app_info->dispatcher], msg);
    else
        (void)row->fun(msg);
    ZEB_PROBE_DISPATCH_END(app_info->app_id, row->ver);
    return true;
}

zeb_msg_dispatcher_fun_t zeb_get_dispatch_fun(const zeb_app_info_t *app_info, uint32_t ver)
{
    for (const zeb_msg_dispatcher_t *row = app_info->dispatcher; row->ver != 0; row++) {
        if (row->ver == ver)
            return row->fun;
    }
    return nullptr;
}

zeb_mismatch_info_t zeb_get_app_ver_range(const zeb_app_info_t *app_info)
{
    zeb_mismatch_info_t range = {0xFFFFFFFFu, 0};
    for (const zeb_msg_dispatcher_t *row = app_info->dispatcher; row->ver != 0; row++) {
        range.low = row->ver < range.low ? row->ver : range.low;
        range.high = row->ver > range.high ? row->ver : range.high;
    }
    ZEB_VERBOSE("ZEB app %d version range [%d, %d].\n", app_info->app_id, range.low, range.high);
    return range;
}

bool zeb_is_app_server(uint32_t app)
{
    const zeb_app_info_t *app_info = zeb_get_app_info(app);
    return app_info != nullptr && app_info->dispatcher[0].ver != 0;
}

bool zeb_take_shared_name(zeb_inst_t inst)
{
    zeb_app_info_t *app_info = zeb_get_app_info(inst.app);
    if (app_info == nullptr || app_info->shared_name || inst.node != (uint32_t)zeb_get_my_node_id())
        return false;
    app_info->shared_name = true;
    return true;
}

static bool is_from(const zeb_msg_t *msg, zeb_inst_t src)
{
    return zeb_same_inst(zeb_msg_sender(msg), src);
}

void zeb_discard_app_msg(uint32_t recv_app, zeb_inst_t src)
{
    ZEB_INFO("ZEB app %d discard %d/%d msg.\n", recv_app, src.app, src.node);
    zeb_app_info_t *app_info = zeb_get_app_info(recv_app);
    if (app_info == nullptr)
        return;
    int num = 0;
    {
        zeb_scoped_lock lock(&app_info->mutex);
        num = list_remove_matching<zeb_msg_t>(&app_info->msg_list,
                                              [&](const zeb_msg_t *msg) { return is_from(msg, src); });
        app_info->queue_num -= (uint32_t)num;
        queue_changed(app_info);
    }
    zeb_fc_update_recv_drop(recv_app, src, num);
}

int zeb_unprocess_app_msg_num(uint32_t recv_app, zeb_inst_t src)
{
    zeb_app_info_t *app_info = zeb_get_app_info(recv_app);
    if (app_info == nullptr)
        return 0;
    int num = 0;
    zeb_scoped_lock lock(&app_info->mutex);
    list_each<zeb_msg_t>(&app_info->msg_list, [&](const zeb_msg_t *msg) { num += is_from(msg, src) ? 1 : 0; });
    return num;
}

zeb_msg_t *zeb_new_event_msg(uint32_t my_app, zeb_event_type_t type, zeb_inst_t inst)
{
    zeb_event_t event;
    memset(&event, 0, sizeof(event));
    event.my_app = my_app;
    event.type = type;
    event.event.app.node = inst.node;
    event.event.app.app = inst.app;
    static_assert(sizeof(event) == 16, "an event record's body has 16 bytes");

    zeb_msg_t *msg = zeb_msg_alloc(sizeof(event), 1, 0);
    assert(msg != NULL);
    msg->hdr.flag = ZEB_MSG_FLAG_MNG;
    memcpy(msg->data, &event, sizeof(event));
    return msg;
}
