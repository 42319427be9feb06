// One process of a measurement. A server answers until it is killed. A client reads orders from standard input, one per
// line, and prints one line of `name=value` words for each.
//   bench TRANSPORT serve|client INDEX SERVERS [WORK]
//   oneway SIZE COUNT        COUNT messages to every server; ends when the last one is processed
//   trip SIZE COUNT          COUNT calls, one after the other
//   rate SIZE COUNT RATE     COUNT calls, RATE per second; the latency of a late call counts from the time it was due
//   burst SIZE COUNT         COUNT messages to every server while the servers are stopped; COUNT must fit the window
#include "bench.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

static const bench_transport_t *const s_transports[] = {
    &g_bench_zeb, &g_bench_zeb_nothread, &g_bench_zeb_crowd, &g_bench_raw, &g_bench_threads, &g_bench_threads_nothread,
#ifdef BENCH_WITH_ZMQ
    &g_bench_zmq,
#endif
#ifdef BENCH_WITH_NNG
    &g_bench_nng,
#endif
};

static bench_conf_t s_conf;
static const bench_transport_t *s_transport;
static char s_data[BENCH_SIZE_MAX];
static uint64_t s_seq;

void bench_fail(const char *what)
{
    (void)fprintf(stderr, "bench: %s failed: %s\n", what, strerror(errno));
    _exit(1);
}

static double now_us()
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

// The resources that this process has used since its start.
static bench_count_t usage()
{
    struct rusage used;
    (void)getrusage(RUSAGE_SELF, &used);
    auto us = [](const struct timeval &time) { return (uint64_t)time.tv_sec * 1000000 + (uint64_t)time.tv_usec; };
    bench_count_t count = {};
    count.cpu_us = us(used.ru_utime) + us(used.ru_stime);
    count.switches = (uint64_t)(used.ru_nvcsw + used.ru_nivcsw);
    FILE *fp = fopen("/proc/self/statm", "re");
    long pages = 0;
    if (fp == nullptr || fscanf(fp, "%*d %ld", &pages) != 1)
        bench_fail("statm");
    (void)fclose(fp);
    count.rss_kb = (uint64_t)(pages * sysconf(_SC_PAGESIZE) / 1024);
    return count;
}

// Server.

typedef struct seen_s {
    uint64_t received;
    uint64_t last;
    uint32_t disordered;
} seen_t;

static void work_on(const void *data, size_t len)
{
    static volatile uint32_t s_sink;
    uint32_t sum = 0;
    for (int round = 0; round < s_conf.work; round++) {
        for (size_t i = 0; i < len; i++)
            sum = sum * 31 + ((const uint8_t *)data)[i];
    }
    s_sink = sum;
    (void)s_sink;
}

bool bench_received(int server, const void *data, size_t len, bench_count_t *answer)
{
    static seen_t s_seen[BENCH_SERVER_NUM][BENCH_SENDER_NUM];
    bench_msg_t msg;
    memcpy(&msg, data, sizeof(msg));
    seen_t *seen = &s_seen[server][msg.sender % BENCH_SENDER_NUM];
    if (msg.kind == BENCH_DATA) {
        seen->disordered += msg.seq == seen->last + 1 ? 0 : 1;
        seen->last = msg.seq;
        seen->received++;
        work_on(data, len);
        return false;
    }
    if (msg.seq == 0) { // a timed call: it asks for no counts
        *answer = {};
        answer->kind = BENCH_TRIP;
        return true;
    }
    *answer = usage();
    answer->kind = BENCH_TRIP;
    answer->received = seen->received;
    answer->disordered = seen->disordered;
    return true;
}

// Client.

static const void *payload(bench_kind_t kind, uint64_t seq)
{
    bench_msg_t msg = {kind, (uint32_t)s_conf.index, seq};
    memcpy(s_data, &msg, sizeof(msg));
    return s_data;
}

static void plain_call(size_t size)
{
    bench_count_t answers[BENCH_SERVER_NUM];
    if (s_transport->call(payload(BENCH_TRIP, 0), size, answers) != s_conf.server_num)
        bench_fail("call");
}

// The sum of all servers' counts of this client's messages. Asks again until all messages have arrived: in transports
// with separate connections for calls and for one-way messages, a call can overtake messages sent before it.
static bench_count_t counted()
{
    bench_count_t answers[BENCH_SERVER_NUM];
    bench_count_t sum;
    int sharing = bench_servers_per_process(&s_conf);
    do {
        sum = {};
        if (s_transport->call(payload(BENCH_TRIP, 1), sizeof(bench_msg_t), answers) != s_conf.server_num)
            bench_fail("count");
        for (int i = 0; i < s_conf.server_num; i++) {
            sum.received += answers[i].received;
            sum.disordered += answers[i].disordered;
            sum.cpu_us += answers[i].cpu_us / (uint64_t)sharing; // each server reports the figures of its whole process
            sum.switches += answers[i].switches / (uint64_t)sharing;
            sum.rss_kb = std::max(sum.rss_kb, answers[i].rss_kb);
        }
    } while (sum.received < s_seq * (uint64_t)s_conf.server_num);
    return sum;
}

typedef struct run_s {
    double begin_us;
    bench_count_t mine;
    bench_count_t servers;
} run_t;

static run_t begin_run()
{
    run_t run;
    run.servers = counted();
    run.mine = usage();
    run.begin_us = now_us();
    return run;
}

static void end_run(const run_t *run, int count)
{
    bench_count_t servers = counted();
    double end_us = now_us();
    bench_count_t mine = usage();
    printf("count=%d begin=%.1f end=%.1f us=%.1f lost=%lld disordered=%u", count, run->begin_us, end_us,
           end_us - run->begin_us, (long long)(s_seq * (uint64_t)s_conf.server_num - servers.received),
           servers.disordered);
    printf(" client_cpu=%.3f server_cpu=%.3f switches=%.3f client_rss=%llu server_rss=%llu",
           (double)(mine.cpu_us - run->mine.cpu_us) / count, (double)(servers.cpu_us - run->servers.cpu_us) / count,
           (double)(mine.switches - run->mine.switches + servers.switches - run->servers.switches) / count,
           (unsigned long long)mine.rss_kb, (unsigned long long)servers.rss_kb);
}

static void send_all(size_t size, int count)
{
    for (int i = 0; i < count; i++)
        s_transport->send(payload(BENCH_DATA, ++s_seq), size);
}

static void oneway(size_t size, int count)
{
    run_t run = begin_run();
    send_all(size, count);
    end_run(&run, count);
    printf("\n");
}

// Prints `what` and waits for a line: measure.py writes it once the servers are stopped, or continued.
static void say_and_wait(const char *what)
{
    char line[128];
    printf("%s\n", what);
    (void)fflush(stdout);
    if (fgets(line, sizeof(line), stdin) == nullptr)
        bench_fail("order");
}

// Measures sending alone: the servers are stopped, so no send wakes one and none answers.
static void burst(size_t size, int count)
{
    run_t run = begin_run();
    say_and_wait("begun");
    run.mine = usage();
    send_all(size, count);
    bench_count_t sent = usage();
    say_and_wait("sent");
    end_run(&run, count);
    printf(" send_cpu=%.3f\n", (double)(sent.cpu_us - run.mine.cpu_us) / count);
}

static void print_latency(std::vector<double> *times)
{
    std::sort(times->begin(), times->end());
    auto at = [&](double share) {
        return (*times)[(size_t)std::min((double)times->size() - 1, share * (double)times->size())];
    };
    printf(" p50=%.1f p99=%.1f p999=%.1f max=%.1f\n", at(0.5), at(0.99), at(0.999), times->back());
}

static void trips(size_t size, int count)
{
    std::vector<double> times;
    times.reserve((size_t)count);
    run_t run = begin_run();
    for (int i = 0; i < count; i++) {
        double begin = now_us();
        plain_call(size);
        times.push_back(now_us() - begin);
    }
    end_run(&run, count);
    print_latency(&times);
}

static void wait_until(double due_us)
{
    struct timespec due = {(time_t)(due_us / 1e6), (long)(std::fmod(due_us, 1e6) * 1e3)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR)
        continue;
}

static void rate(size_t size, int count, double per_second)
{
    std::vector<double> times;
    times.reserve((size_t)count);
    run_t run = begin_run();
    double first = now_us() + 1000;
    for (int i = 0; i < count; i++) {
        double due = first + i * 1e6 / per_second;
        if (now_us() < due)
            wait_until(due);
        plain_call(size);
        times.push_back(now_us() - due);
    }
    end_run(&run, count);
    print_latency(&times);
}

static bool obey(const char *line)
{
    char verb[16] = "";
    size_t size = 0;
    int count = 0;
    double per_second = 0;
    int words = sscanf(line, "%15s %zu %d %lf", verb, &size, &count, &per_second);
    if (words < 3 || size < sizeof(bench_msg_t) || size > BENCH_SIZE_MAX || count < 1)
        return false;
    std::string what = verb;
    if (what == "oneway")
        oneway(size, count);
    else if (what == "burst" && count <= BENCH_WINDOW - BENCH_ACK_BATCH)
        burst(size, count);
    else if (what == "trip")
        trips(size, count);
    else if (what == "rate" && words == 4 && per_second > 0)
        rate(size, count, per_second);
    else
        return false;
    (void)fflush(stdout);
    return true;
}

int main(int argc, char **argv)
{
    if (argc < 5) {
        (void)fprintf(stderr, "usage: bench TRANSPORT serve|client INDEX SERVERS [WORK]\n");
        return 2;
    }
    for (const bench_transport_t *transport : s_transports)
        s_transport = strcmp(transport->name, argv[1]) == 0 ? transport : s_transport;
    s_conf = {atoi(argv[3]), atoi(argv[4]), argc > 5 ? atoi(argv[5]) : 0};
    if (s_transport == nullptr || s_conf.server_num < 1 || s_conf.server_num > BENCH_SERVER_NUM) {
        (void)fprintf(stderr, "bench: %s is not here\n", argv[1]);
        return 2;
    }
    if (strcmp(argv[2], "serve") == 0) {
        s_transport->serve(&s_conf);
        printf("ready\n");
        (void)fflush(stdout);
        for (;;)
            (void)pause();
    }
    s_transport->open(&s_conf);
    printf("ready\n");
    (void)fflush(stdout);
    char line[128];
    while (fgets(line, sizeof(line), stdin) != nullptr) {
        if (!obey(line))
            bench_fail(line);
    }
    _exit(0);
}
