// Does what its argument names, wrongly, as a program might, and prints what each call gives: its result and why. What
// the library itself says goes to standard error.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zeb/zeb_ext.h>

constexpr uint32_t APP = 100;
constexpr uint32_t OTHER = 101;

static bool s_no_tipc;
static sem_t s_joined;

// A kernel without the module.
extern "C" int socket(int domain, int type, int protocol) noexcept
{
    if (s_no_tipc && domain == AF_TIPC) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    typedef int (*socket_t)(int, int, int);
    static const socket_t real = reinterpret_cast<socket_t>(dlsym(RTLD_NEXT, "socket"));
    return real(domain, type, protocol);
}

static void print(const char *call, int result)
{
    printf("%s: %d %s\n", call, result, result != 0 ? zeb_last_error() : "");
}

static void *take_msg(zeb_msg_t *msg)
{
    free(msg);
    return nullptr;
}

static const zeb_msg_dispatcher_t TABLE[] = {{1, take_msg}, {0, nullptr}};

static void *tell_joined(zeb_event_t)
{
    (void)sem_post(&s_joined);
    return nullptr;
}

static int register_one(uint32_t app = APP, zeb_app_event_fun_t event = tell_joined)
{
    return zeb_register_without_thread(app, "misuse", TABLE, event);
}

// Until the application has joined its own instance.
static void run(zeb_app_event_fun_t event = tell_joined)
{
    (void)sem_init(&s_joined, 0, 0);
    print("zeb_register_without_thread", register_one(APP, event));
    zeb_run();
    while (sem_wait(&s_joined) != 0)
        continue;
}

static void call_in_a_callback()
{
    run([](zeb_event_t) -> void * {
        print("zeb_stop", zeb_stop());
        print("zeb_wait_online", zeb_wait_online(APP, OTHER, ZEB_NODE_ALL, 1, 0));
        (void)sem_post(&s_joined);
        return nullptr;
    });
}

static void use_in_a_child()
{
    print("zeb_register_without_thread", register_one());
    (void)fflush(stdout);
    pid_t pid = fork();
    if (pid != 0) {
        (void)waitpid(pid, nullptr, 0);
        return;
    }
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    print("zeb_send in the child", zeb_send(APP, APP, msg, 0));
    print("zeb_register_without_thread in the child", register_one(OTHER));
    free(msg);
    (void)fflush(stdout);
    _exit(0);
}

static void send_too_early()
{
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    zeb_reply_msg_t replies;
    print("zeb_sendto without a registration", zeb_sendto(APP, 1, APP, msg, 0));
    print("zeb_register_without_thread", register_one());
    print("zeb_send before zeb_run", zeb_send(APP, APP, msg, 0));
    print("zeb_rpc before zeb_run", zeb_rpc(APP, APP, msg, 0, 1, &replies));
    free(msg);
}

static void register_too_late()
{
    run();
    print("zeb_register_without_thread after zeb_run", register_one(OTHER));
}

static void name_too_late()
{
    run();
    print("zeb_comm_with after zeb_run", zeb_comm_with(APP, OTHER));
}

static void wrong_id()
{
    print("zeb_register_without_thread", register_one(8192));
    print("zeb_register_without_thread", register_one());
    print("zeb_comm_with", zeb_comm_with(APP, 0));
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    print("zeb_sendto", zeb_sendto(APP, 65536, APP, msg, 0));
    free(msg);
}

static void spoilt_length()
{
    print("zeb_register_without_thread", register_one());
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    zeb_reply_msg_t replies;
    msg->hdr.len = 0;
    print("zeb_send", zeb_send(APP, APP, msg, 0));
    print("zeb_rpc", zeb_rpc(APP, APP, msg, 0, 1, &replies));
    free(msg);
}

static void register_alone() // in a place where that fails
{
    print("zeb_register_without_thread", register_one());
}

static void same_id_twice()
{
    print("zeb_register_without_thread", register_one());
    print("zeb_register_without_thread", register_one());
}

static void no_tipc()
{
    s_no_tipc = true;
    print("zeb_register_without_thread", register_one());
}

static void free_twice()
{
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    zeb_msg_free(msg);
    zeb_msg_free(msg);
}

static const struct {
    const char *name;
    void (*fun)();
} MISUSES[] = {
    {"call_in_a_callback", call_in_a_callback},
    {"use_in_a_child", use_in_a_child},
    {"send_too_early", send_too_early},
    {"register_too_late", register_too_late},
    {"name_too_late", name_too_late},
    {"wrong_id", wrong_id},
    {"spoilt_length", spoilt_length},
    {"register_alone", register_alone},
    {"same_id_twice", same_id_twice},
    {"no_tipc", no_tipc},
    {"free_twice", free_twice},
};

int main(int argc, char **argv)
{
    for (const auto &misuse : MISUSES) {
        if (argc != 2 || strcmp(misuse.name, argv[1]) != 0)
            continue;
        misuse.fun();
        return 0;
    }
    fprintf(stderr, "usage: zeb_misuse NAME\n");
    return 2;
}
