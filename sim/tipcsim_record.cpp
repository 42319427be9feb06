// Recording what passes in a cluster, and showing it.
#include "tipcsim_record.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "recorder.h"
#include "sim_protocol.h"
#include "sim_sys.h"

constexpr int FAILED = 125;
constexpr int END_MS = 5000;
constexpr int64_t LOOK_MS = 5;     // between two looks into the recorder's queue
constexpr int64_t FOLDER_MS = 200; // between two looks whether the cluster is still there

typedef struct output_s {
    FILE *file;
    bool text;
    uint64_t num;  // messages
    uint64_t last; // time of the last one
} output_t;

static int fail(const std::string &text)
{
    fprintf(stderr, "tipcsim: %s\n", text.c_str());
    return FAILED;
}

static bool write_packet(output_t *out, const packet_t &packet)
{
    out->num++;
    out->last = packet.time;
    if (!out->text)
        return capture_add(out->file, packet);
    return fprintf(out->file, "%s\n", capture_line(packet).c_str()) >= 0;
}

static bool write_waiting(output_t *out, recorder_t *recorder, bool all)
{
    packet_t packet;
    bool fine = true;
    bool any = false;
    for (; fine && recorder_take(recorder, all, &packet); any = true)
        fine = write_packet(out, packet);
    return fine && (!any || fflush(out->file) == 0);
}

static sigset_t end_signals()
{
    sigset_t ends;
    (void)sigemptyset(&ends);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        (void)sigaddset(&ends, signal);
    return ends;
}

// Until a signal, the time, or the cluster's end. False when the output cannot be written.
static bool record_on(output_t *out, recorder_t *recorder, int64_t until)
{
    const struct timespec look = {0, LOOK_MS * 1000000};
    const sigset_t ends = end_signals();
    int64_t next_folder = 0;
    while (write_waiting(out, recorder, false)) {
        int64_t now = sys_now();
        if (now >= until || sys_call(SYS_rt_sigtimedwait, &ends, nullptr, &look, (size_t)8) > 0)
            return true;
        if (now >= next_folder && access(recorder->self.cluster->dir, F_OK) != 0)
            return true;
        next_folder = now >= next_folder ? now + FOLDER_MS : next_folder;
    }
    return false;
}

static bool record_to(output_t *out, recorder_t *recorder, const recording_t &what)
{
    int64_t until = what.seconds != 0 ? sys_now() + what.seconds * 1000 : INT64_MAX;
    const char *dir = recorder->self.cluster->dir;
    if (!out->text && (!capture_begin(out->file, dir) || fflush(out->file) != 0))
        return false;
    fprintf(stderr, "tipcsim: recording %s\n", dir);
    bool fine = record_on(out, recorder, until);
    recorder_stop(recorder);
    fine = fine && write_waiting(out, recorder, true);
    if (fine && !out->text)
        fine = capture_end(out->file, out->last, out->num, recorder_lost(recorder));
    return fine && fflush(out->file) == 0;
}

static int enter(sim_cluster_t *cluster, const std::string &tool, sim_self_t *self)
{
    int entry = sim_process_enter(cluster->state, getpid(), 0);
    if (entry < 0)
        return -ENOSPC;
    *self = {cluster, (uint32_t)entry + 1, sim_keeper_grow, sim_keeper_wake};
    return sim_ask_broker(cluster, tool.c_str(), SIM_HELLO, (uint32_t)getpid(), 0, 0, nullptr, 0);
}

static int record_with(FILE *file, sim_cluster_t *cluster, const std::string &tool, const recording_t &what)
{
    sim_self_t self;
    recorder_t recorder;
    output_t out = {file, what.text, 0, 0};
    int ret = enter(cluster, tool, &self);
    if (ret >= 0)
        ret = recorder_open(&recorder, &self, (uint32_t)what.bytes);
    if (ret < 0)
        return fail(std::string("cannot record: ") + (ret == -EBUSY ? "somebody else does" : strerror(-ret)));
    bool fine = record_to(&out, &recorder, what);
    int err = errno;
    uint32_t lost = recorder_lost(&recorder);
    recorder_close(&recorder);
    fprintf(stderr, "tipcsim: %llu messages recorded; there was no room for %u\n", (unsigned long long)out.num, lost);
    return fine ? 0 : fail(std::string("cannot write: ") + strerror(err));
}

int record_messages(sim_cluster_t *cluster, const std::string &tool, const recording_t &what)
{
    const sigset_t ends = end_signals();
    (void)sigprocmask(SIG_BLOCK, &ends, nullptr);
    FILE *file = what.text || what.file == "-" ? stdout : fopen(what.file.c_str(), "we");
    if (file == nullptr)
        return fail("cannot write " + what.file + ": " + strerror(errno));
    int status = record_with(file, cluster, tool, what);
    if (file != stdout && fclose(file) != 0)
        status = fail("cannot write " + what.file + ": " + strerror(errno));
    return status;
}

void record_end(sim_cluster_t *cluster)
{
    uint32_t port = sim_load(&cluster->state->recorder);
    const sim_socket_t *recorder = port != SIM_NONE ? sim_socket_of(cluster->state, port) : nullptr;
    int fd = recorder != nullptr ? (int)sys_call(SYS_pidfd_open, recorder->pid, 0) : -1;
    if (fd < 0)
        return;
    struct pollfd ended = {fd, POLLIN, 0};
    if (sys_call(SYS_pidfd_send_signal, fd, SIGTERM, nullptr, 0) == 0)
        (void)poll(&ended, 1, END_MS);
    (void)close(fd);
}

int show_file(const std::string &file)
{
    capture_t capture = {};
    packet_t packet;
    capture.file = file == "-" ? stdin : fopen(file.c_str(), "re");
    if (capture.file == nullptr)
        return fail("cannot read " + file + ": " + strerror(errno));
    while (capture_next(&capture, &packet))
        printf("%s\n", capture_line(packet).c_str());
    if (capture.file != stdin)
        (void)fclose(capture.file);
    return capture.why.empty() ? 0 : fail(file + ": " + capture.why);
}
