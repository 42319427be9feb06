// The time-keeper's looks at /proc.
//
// New processes and threads are found by their numbers: the kernel gives numbers in order, and /proc/loadavg has the
// last one. Where that cannot be relied on, all of /proc is read at each look.
#include "tipcsim_clock.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "sim_files.h"

constexpr size_t MANY = 512; // numbers; with more, all of /proc is read

typedef struct look_s {
    thread_map_t threads;
    std::map<pid_t, int> processes;
    std::set<pid_t> unclear; // numbers that nobody had when they were looked at: a fork may be under way
    bool list;               // before the next moment all of /proc has to be read
    bool always_list;
    int loadavg;
    pid_t last;
    pid_t first; // `last` before the first process
    pid_t hot;   // the thread that was busy at the last look
    const char *counts;
} look_t;

static look_t s_look;

static ssize_t read_file(int fd, const char *path, char *text, size_t size)
{
    int used = fd >= 0 ? fd : open(path, O_RDONLY | O_CLOEXEC);
    ssize_t len = used >= 0 ? pread(used, text, size - 1, 0) : -1;
    if (used >= 0 && fd < 0)
        (void)close(used);
    text[len > 0 ? len : 0] = '\0';
    return len;
}

static pid_t last_number()
{
    char text[128];
    (void)read_file(s_look.loadavg, "/proc/loadavg", text, sizeof(text));
    const char *at = strrchr(text, ' ');
    return at != nullptr ? (pid_t)atol(at + 1) : 0;
}

static std::string path_of(pid_t pid, pid_t tid, const char *name)
{
    return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/" + name;
}

static int64_t start_of(const char *stat)
{
    const char *at = strrchr(stat, ')');
    for (int field = 2; at != nullptr && field < 22; field++)
        at = strchr(at + 1, ' ');
    return at == nullptr ? 0 : strtoll(at + 1, nullptr, 10) * (SIM_SECOND / sysconf(_SC_CLK_TCK));
}

static void close_files(const thread_t &thread)
{
    for (int fd : {thread.stat, thread.counts, thread.call}) {
        if (fd >= 0)
            (void)close(fd);
    }
}

static bool add_thread(pid_t pid, pid_t tid)
{
    if (s_look.threads.count(tid) != 0)
        return false;
    char text[1024];
    std::string stat = path_of(pid, tid, "stat");
    auto open_file = [](const std::string &path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC); };
    thread_t thread = {pid,
                       open_file(stat),
                       open_file(path_of(pid, tid, s_look.counts)),
                       open_file(path_of(pid, tid, "syscall")),
                       0,
                       '?',
                       0};
    if (read_file(thread.stat, stat.c_str(), text, sizeof(text)) <= 0) {
        close_files(thread);
        return false;
    }
    thread.started = start_of(text);
    s_look.threads[tid] = thread;
    s_look.processes[pid]++;
    return true;
}

static thread_map_t::iterator drop_thread(thread_map_t::iterator thread)
{
    close_files(thread->second);
    auto process = s_look.processes.find(thread->second.pid);
    if (--process->second == 0)
        s_look.processes.erase(process);
    return s_look.threads.erase(thread);
}

bool look_adopt(pid_t pid)
{
    bool any = false;
    if (pid == getpid())
        return false;
    sim_each_file(("/proc/" + std::to_string(pid) + "/task").c_str(), "", [&](const std::string &name) {
        any = (name[0] != '.' && add_thread(pid, (pid_t)atol(name.c_str()))) || any;
    });
    return any;
}

static pid_t field(const char *text, const char *name)
{
    const char *at = strstr(text, name);
    return at != nullptr ? (pid_t)atol(at + strlen(name)) : 0;
}

// Whether the number is that of a thread of the cluster which was not known.
static bool is_new(pid_t number)
{
    char text[4096];
    if (s_look.threads.count(number) != 0)
        return false;
    if (read_file(-1, ("/proc/" + std::to_string(number) + "/status").c_str(), text, sizeof(text)) <= 0) {
        (void)s_look.unclear.insert(number);
        return false;
    }
    (void)s_look.unclear.erase(number);
    pid_t pid = field(text, "\nTgid:");
    pid_t parent = field(text, "\nPPid:");
    if (s_look.processes.count(pid) != 0)
        return add_thread(pid, number);
    return (parent == getpid() || s_look.processes.count(parent) != 0) && look_adopt(pid);
}

static bool list_all()
{
    bool any = false;
    s_look.list = false;
    std::map<pid_t, int> known = s_look.processes;
    for (const auto &process : known)
        any = look_adopt(process.first) || any;
    sim_each_file("/proc", "", [&](const std::string &name) {
        pid_t pid = name.find_first_not_of("0123456789") == std::string::npos ? (pid_t)atol(name.c_str()) : 0;
        // The launcher may have had other children before.
        if (pid != 0 && (s_look.always_list || pid > s_look.first || s_look.last < s_look.first))
            any = is_new(pid) || any;
    });
    return any;
}

// In the order of their numbers, so that a process is known before its children. Who was unclear comes first: what has
// a number by now was started by somebody who is there.
static bool find_new()
{
    bool any = false;
    pid_t last = last_number();
    std::set<pid_t> unclear = s_look.unclear;
    for (pid_t number : unclear)
        any = is_new(number) || any;
    if (last - s_look.last > (pid_t)MANY || last < s_look.last || s_look.unclear.size() > MANY) {
        s_look.unclear.clear();
        s_look.list = true;
    } else {
        for (pid_t number = s_look.last + 1; number <= last; number++)
            any = is_new(number) || any;
    }
    s_look.last = last;
    if (s_look.list || s_look.always_list)
        any = list_all() || any;
    return any;
}

static uint64_t hash(const char *text, ssize_t len)
{
    uint64_t value = 14695981039346656037U;
    for (ssize_t i = 0; i < len; i++)
        value = (value ^ (uint8_t)text[i]) * 1099511628211U;
    return value;
}

// What the kernel counts whenever the thread runs. False when the thread has ended.
static bool read_counts(pid_t tid, const thread_t &thread, uint64_t *counts)
{
    char text[4096];
    std::string path = thread.counts >= 0 ? "" : path_of(thread.pid, tid, s_look.counts);
    ssize_t len = read_file(thread.counts, path.c_str(), text, sizeof(text));
    *counts = hash(text, len);
    return len > 0;
}

// The counts come first: who is asleep after that, with the same counts later, was asleep all the time.
static bool read_thread(pid_t tid, thread_t *thread)
{
    char text[1024];
    if (!read_counts(tid, *thread, &thread->seen))
        return false;
    std::string path = thread->stat >= 0 ? "" : path_of(thread->pid, tid, "stat");
    if (read_file(thread->stat, path.c_str(), text, sizeof(text)) <= 0)
        return false;
    const char *at = strrchr(text, ')');
    thread->state = at != nullptr && at[1] == ' ' ? at[2] : '?';
    return true;
}

static bool waits(const thread_t &thread)
{
    return strchr("STtZXx", thread.state) != nullptr;
}

// The state says "asleep" a little before a thread leaves the processor, and it may not leave it then. This file says
// "running" until it has left. A thread that we may not trace is believed.
static bool off_processor(pid_t tid, const thread_t &thread)
{
    char text[256];
    std::string path = thread.call >= 0 ? "" : path_of(thread.pid, tid, "syscall");
    return read_file(thread.call, path.c_str(), text, sizeof(text)) <= 0 || strncmp(text, "running", 7) != 0;
}

static bool first_pass()
{
    auto hot = s_look.threads.find(s_look.hot);
    if (hot != s_look.threads.end() && read_thread(hot->first, &hot->second) && !waits(hot->second))
        return false;
    for (auto it = s_look.threads.begin(); it != s_look.threads.end();) {
        if (!read_thread(it->first, &it->second)) {
            it = drop_thread(it);
            continue;
        }
        s_look.hot = it->first;
        if (!waits(it->second) || !off_processor(it->first, it->second))
            return false;
        ++it;
    }
    return true;
}

static bool second_pass()
{
    for (auto &thread : s_look.threads) {
        uint64_t before = thread.second.seen;
        s_look.hot = thread.first;
        if (!read_thread(thread.first, &thread.second) || thread.second.seen != before || !waits(thread.second))
            return false; // it ran, or is about to: its own time has come
    }
    return true;
}

bool look_all_asleep(look_call_t at_that_moment)
{
    (void)find_new();
    if (!first_pass())
        return false;
    at_that_moment();
    if (find_new() || !second_pass())
        return false;
    s_look.unclear.clear();
    return true;
}

const thread_map_t &look_threads()
{
    return s_look.threads;
}

const std::map<pid_t, int> &look_processes()
{
    return s_look.processes;
}

bool look_stopped(pid_t pid)
{
    auto leader = s_look.threads.find(pid);
    return leader != s_look.threads.end() && strchr("TtZXx", leader->second.state) != nullptr;
}

void look_prepare()
{
    char text[128];
    long run = 0;
    s_look.loadavg = open("/proc/loadavg", O_RDONLY | O_CLOEXEC);
    s_look.first = s_look.last = last_number();
    (void)read_file(-1, "/proc/self/schedstat", text, sizeof(text));
    bool counted = sscanf(text, "%*s %*s %ld", &run) == 1 && run != 0;
    s_look.counts = counted ? "schedstat" : "status"; // the latter has context switches, and costs more
}

void look_begin(pid_t command)
{
    struct rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) { // three for each thread
        files.rlim_cur = files.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &files);
    }
    pid_t last = last_number();
    bool wrapped = last < s_look.first;
    bool shown = wrapped ? command > s_look.first || command <= last : command > s_look.first && command <= last;
    s_look.always_list = s_look.first <= 0 || !shown;
    (void)look_adopt(command);
}
