// Instances that wait for each other, for the tests of zebctl.
// Usage: blocked_peer receiver APP PEER FILE  a server whose dispatcher sleeps until FILE is there
//        blocked_peer polled APP PEER         a server whose program never dispatches
//        blocked_peer sender APP PEER         sends to PEER without end, from when it has joined
//        blocked_peer ring APP PEER           the same from its dispatcher: two of them block each other
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unistd.h>

#include <zeb/zeb.h>
#include <zeb/zeb_ext.h>

static std::mutex s_mutex;
static std::condition_variable s_joined;
static zeb_event_t s_event; // of the peer's join
static bool s_has_joined;
static uint32_t s_app;
static uint32_t s_peer;
static const char *s_file;

static void send_to(uint32_t node, uint32_t app)
{
    zeb_msg_t *msg = zeb_msg_alloc(8, 1, 0);
    if (zeb_sendto(s_app, node, app, msg, 0) != 0)
        (void)usleep(1000); // it has quit
    free(msg);
}

static void *sleep_until_told(zeb_msg_t *msg)
{
    while (access(s_file, F_OK) != 0)
        (void)usleep(10000); // between two looks
    free(msg);
    return nullptr;
}

static void *send_without_end(zeb_msg_t *msg)
{
    for (;;)
        send_to(msg->hdr.src_node, msg->hdr.src_app);
}

static void *ignore(zeb_msg_t *msg)
{
    free(msg);
    return nullptr;
}

static void *on_join(zeb_event_t event)
{
    if (event.type != ZEB_APP_JOIN || event.event.app.app != s_peer)
        return nullptr; // its own instance joins too
    std::lock_guard<std::mutex> lock(s_mutex);
    s_event = event;
    s_has_joined = true;
    s_joined.notify_one();
    return nullptr;
}

static void wait_for_join()
{
    std::unique_lock<std::mutex> lock(s_mutex);
    s_joined.wait(lock, [] { return s_has_joined; });
}

static int register_polled()
{
    static const zeb_app_dispatcher_t table[] = {{7, [](void *, zeb_msg_t *msg) { free(msg); }, nullptr},
                                                 {0, nullptr, nullptr}};
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = s_app;
    options.mode = ZEB_APP_POLLED;
    options.name = "polled";
    options.dispatchers = table;
    return zeb_register_app(&options);
}

int main(int argc, char **argv)
{
    if (argc < 4)
        return 2;
    std::string how = argv[1];
    s_app = (uint32_t)strtoul(argv[2], nullptr, 10);
    s_peer = (uint32_t)strtoul(argv[3], nullptr, 10);
    s_file = argc > 4 ? argv[4] : "";
    const zeb_msg_dispatcher_t table[] = {
        {1, how == "receiver" ? sleep_until_told : (how == "ring" ? send_without_end : ignore)}, {0, nullptr}};
    int ret = how == "polled" ? register_polled() : zeb_register(s_app, how.c_str(), table, on_join);
    if (ret != 0 || zeb_comm_with(s_app, s_peer) != 0)
        return 1;
    zeb_run();
    if (how == "receiver" || how == "polled")
        (void)pause();
    wait_for_join();
    do
        send_to(s_event.event.app.node, s_peer);
    while (how == "sender");
    for (;;)
        (void)pause();
}
