// One of many instances that start at the same time. It prints when all its pairs are online, how many synchronisation
// messages it sent, and how much memory it uses. Usage: start_cost INSTANCES. It starts with the first line on standard
// input and ends with the second.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <semaphore.h>
#include <unistd.h>

#include <zeb/zeb.h>

#include "zeb_flow_ctrl_stat.h"
#include "zeb_slot.h"

constexpr uint32_t APP = 100;

static int s_instances;
static int s_online; // pairs online; used by the proxy thread only
static sem_t s_all_online;

static void *drop(zeb_msg_t *msg)
{
    free(msg);
    return nullptr;
}

static void *on_event(zeb_event_t event)
{
    s_online += event.type == ZEB_APP_JOIN ? 1 : -1;
    if (s_online == s_instances)
        (void)sem_post(&s_all_online);
    return nullptr;
}

static uint32_t messages_sent()
{
    zeb_mng_stat_t *stat = zeb_get_app_mng(APP)->mng_stat;
    zeb_scoped_lock lock(&stat->mutex);
    return stat->total_send;
}

// Without shared memory, in which the simulator's queues lie.
static long anonymous_kb()
{
    char line[128];
    long kb = -1;
    FILE *fp = fopen("/proc/self/status", "re");
    while (fp != nullptr && kb < 0 && fgets(line, sizeof(line), fp) != nullptr)
        (void)sscanf(line, "RssAnon: %ld", &kb);
    if (fp != nullptr)
        (void)fclose(fp);
    return kb;
}

int main(int argc, char **argv)
{
    s_instances = argc > 1 ? atoi(argv[1]) : 2;
    (void)sem_init(&s_all_online, 0, 0);
    const zeb_msg_dispatcher_t table[] = {{1, drop}, {0, nullptr}};
    if (zeb_register(APP, "start", table, on_event) != 0 || zeb_comm_with(APP, APP) != 0)
        return 1;
    char line[16];
    printf("registered\n");
    (void)fflush(stdout);
    if (fgets(line, sizeof(line), stdin) == nullptr)
        return 1;
    zeb_run();
    // A semaphore instead of polling: hundreds of polling processes would leave no CPU time for the handshakes.
    while (sem_wait(&s_all_online) != 0) {
    }
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    printf("online %.3f sent %u rss %ld\n", (double)now.tv_sec + (double)now.tv_nsec / 1e9, messages_sent(),
           anonymous_kb());
    (void)fflush(stdout);
    (void)fgets(line, sizeof(line), stdin); // the other instances need this one until all their pairs are online
    _exit(0);
}
