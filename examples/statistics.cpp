// Reads the statistics of a running process, in C++. `statistics serve` answers each request with its own statistics as
// text; `statistics ask` prints the text of every serving instance.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <unistd.h>

#include <zeb/zeb_diag.h>

static constexpr uint32_t SERVING_APP = 101;
static constexpr uint32_t ASKING_APP = 201;

struct message_deleter {
    void operator()(zeb_msg_t *msg) const
    {
        free(msg);
    }
};
typedef std::unique_ptr<zeb_msg_t, message_deleter> message_ptr;

static std::mutex s_mutex;
static std::condition_variable s_changed;
static bool s_joined;

// Runs on the library's receive thread, because the application is registered without a thread. Only that thread may
// use the print buffer.
static void *on_request(zeb_msg_t *msg)
{
    message_ptr request(msg);
    zeb_buf_printf_reset();
    zeb_cli_print_lib_info(SERVING_APP);
    zeb_cli_print_app_info(SERVING_APP);
    zeb_cli_print_fc_stat(SERVING_APP);
    zeb_cli_print_mng_stat(SERVING_APP);
    zeb_cli_print_rpc_stat(SERVING_APP);
    (void)zeb_buf_printf_reply(request.get());
    return nullptr;
}

static void *on_event(zeb_event_t event)
{
    if (event.type == ZEB_APP_JOIN && event.event.app.app == SERVING_APP) {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_joined = true;
        s_changed.notify_all();
    }
    return nullptr;
}

static int serve()
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_request}, {0, nullptr}};
    if (zeb_register_without_thread(SERVING_APP, "statistics", dispatchers, nullptr) != 0 ||
        zeb_comm_with(SERVING_APP, ASKING_APP) != 0)
        return 1;
    zeb_run();
    char byte;
    while (read(0, &byte, 1) > 0)
        continue;
    return 0;
}

static int ask()
{
    const zeb_msg_dispatcher_t none[] = {{0, nullptr}};
    if (zeb_register(ASKING_APP, "ask", none, on_event) != 0 || zeb_comm_with(ASKING_APP, SERVING_APP) != 0)
        return 1;
    zeb_run();
    {
        std::unique_lock<std::mutex> lock(s_mutex);
        s_changed.wait(lock, [] { return s_joined; });
    }
    message_ptr request(zeb_msg_alloc(0, 1, 0));
    zeb_reply_msg_t replies;
    int ret = zeb_rpc(ASKING_APP, SERVING_APP, request.get(), 0, 5, &replies);
    for (int i = 0; i < replies.num; i++) {
        message_ptr reply(replies.msg[i]);
        if (reply->hdr.rpc_stat == ZEB_SUCCESS)
            printf("%s", reinterpret_cast<const char *>(reply->data));
    }
    return ret == 0 ? 0 : 1;
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "serve") == 0)
        return serve();
    if (argc == 2 && strcmp(argv[1], "ask") == 0)
        return ask();
    (void)fprintf(stderr, "usage: statistics serve | ask\n");
    return 2;
}
