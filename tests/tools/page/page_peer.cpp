// A process of some applications, each of which sends a little to the same one on the next node all the time. It obeys
// lines on standard input, and answers "ok" to each:
//   stall APP   from now on the dispatcher of APP waits, until
//   go APP
//   flood APP   APP sends to its peer until the window is full, and beyond: that call waits
// Usage: page_peer FIRST COUNT NEXT_NODE
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <zeb/zeb.h>

constexpr int PACE = 100;   // ms between two messages of an application
constexpr int FLOOD = 1100; // messages, more than a window

static std::mutex s_mutex;
static std::condition_variable s_go;
static uint32_t s_stalled; // application, 0: none; under the mutex

static void *on_message(zeb_msg_t *msg)
{
    std::unique_lock<std::mutex> lock(s_mutex);
    s_go.wait(lock, [&] { return s_stalled != msg->hdr.dst_app; });
    free(msg);
    return nullptr;
}

static void *on_event(zeb_event_t event)
{
    (void)event;
    return nullptr;
}

static void send_one(uint32_t app, uint32_t node, int flags)
{
    zeb_msg_t *msg = zeb_msg_alloc(16, 1, 0);
    (void)zeb_sendto(app, node, app, msg, flags);
    free(msg);
}

static void set_stalled(uint32_t app)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    s_stalled = app;
    s_go.notify_all();
}

static void obey(const std::string &line, uint32_t node)
{
    size_t space = line.find(' ');
    uint32_t app = (uint32_t)strtoul(line.c_str() + (space == std::string::npos ? line.size() : space), nullptr, 10);
    if (line.compare(0, 5, "stall") == 0)
        set_stalled(app);
    else if (line.compare(0, 2, "go") == 0)
        set_stalled(0);
    else
        std::thread([=] {
            for (int i = 0; i < FLOOD; i++)
                send_one(app, node, 0);
        }).detach();
    printf("ok\n");
    (void)fflush(stdout);
}

// False at the end of the input.
static bool take_input(uint32_t node)
{
    struct pollfd entry = {STDIN_FILENO, POLLIN, 0};
    if (poll(&entry, 1, PACE) <= 0)
        return true;
    static std::string input;
    char buf[256];
    ssize_t len = read(STDIN_FILENO, buf, sizeof(buf));
    if (len <= 0)
        return false;
    input.append(buf, (size_t)len);
    for (size_t end; (end = input.find('\n')) != std::string::npos;) {
        obey(input.substr(0, end), node);
        input.erase(0, end + 1);
    }
    return true;
}

int main(int argc, char **argv)
{
    static const char *const NAMES[] = {"routed", "alarmd", "linkd", "config", "stats"};
    static const zeb_msg_dispatcher_t DISPATCHERS[] = {{1, on_message}, {0, nullptr}};
    if (argc < 4)
        return 2;
    uint32_t first = (uint32_t)strtoul(argv[1], nullptr, 10);
    uint32_t count = (uint32_t)strtoul(argv[2], nullptr, 10);
    uint32_t node = (uint32_t)strtoul(argv[3], nullptr, 10);
    for (uint32_t app = first; app < first + count; app++) {
        if (zeb_register(app, NAMES[(app - first) % 5], DISPATCHERS, on_event) != 0)
            return 1;
    }
    zeb_run();
    while (take_input(node)) {
        for (uint32_t app = first; app < first + count; app++)
            send_one(app, node, ZEB_SEND_NOWAIT);
    }
    _exit(0); // a flood may still wait
}
