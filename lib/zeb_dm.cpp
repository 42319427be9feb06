#include "zeb_dm.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/list_algo.h"
#include "zeb_dbg.h"
#include "zeb_fd.h"
#include "zeb_lock.h"

FILE *g_zeb_log_fp;

static FILE *s_stat_fp;
static FILE *s_log_fp; // what zeb_dm_init has opened; g_zeb_log_fp may be a tool's
// Relaxed: one log line more or less does no harm.
static std::atomic<bool> s_closed;       // by zeb_dm_close_files or zeb_dm_stop
static std::atomic<int> s_recording;     // threads inside zeb_dm_record_log
static std::atomic<size_t> s_log_offset; // bytes since the file was opened or wrapped
static std::atomic<size_t> s_log_size{ZEB_LOG_SIZE_DEFAULT};

static const char DEFAULT_ROOT[] = "/velk";
static constexpr unsigned RECORD_TIME = 1; // seconds; a line takes microseconds

static const char ROOT_VARIABLE[] = "VELK_DIR";
static constexpr size_t SUB_DIRS_LEN = sizeof("/dev/zeb"); // with the terminator

// A constructor, because a management tool may open the stream itself: lines then go there too.
__attribute__((constructor)) static void take_log_lines()
{
    zeb_set_log_sink(zeb_dm_record_log);
}

void zeb_set_log_size(size_t size)
{
    if (size != 0)
        s_log_size.store(size, std::memory_order_relaxed);
}

static void record_log(const char *line)
{
    if (s_log_offset.load(std::memory_order_relaxed) >= s_log_size.load(std::memory_order_relaxed)) {
        // Not truncated: newer records overwrite older ones from the top.
        if (fseek(g_zeb_log_fp, 0, SEEK_SET) != 0)
            return;
        s_log_offset.store(0, std::memory_order_relaxed);
    }
    char when[32] = "";
    time_t now = time(nullptr);
    (void)ctime_r(&now, when);
    size_t when_len = strcspn(when, "\n");
    when[when_len++] = ' ';
    size_t line_len = strlen(line);
    (void)fwrite(when, 1, when_len, g_zeb_log_fp);
    (void)fwrite(line, 1, line_len, g_zeb_log_fp);
    s_log_offset.fetch_add(when_len + line_len, std::memory_order_relaxed);
}

// Counted before it looks whether the files are closed, so that zeb_dm_stop closes no stream that is in use.
void zeb_dm_record_log(const char *line)
{
    (void)s_recording.fetch_add(1, std::memory_order_seq_cst);
    if (!s_closed.load(std::memory_order_seq_cst) && g_zeb_log_fp != nullptr)
        record_log(line);
    (void)s_recording.fetch_sub(1, std::memory_order_seq_cst);
}

static bool write_stat(const char *when)
{
    size_t when_len = strlen(when);
    size_t text_len = zeb_msg_data_len(g_print_msg);
    return fwrite(when, 1, when_len, s_stat_fp) == when_len &&
           fwrite(g_print_msg->data, 1, text_len, s_stat_fp) == text_len && fflush(s_stat_fp) == 0 &&
           fsync(fileno(s_stat_fp)) == 0;
}

static bool rewrite_stat(const char *when)
{
    if (ftruncate(fileno(s_stat_fp), 0) != 0) {
        ZEB_ERROR("ZEB truncate stat file failed: %s.\n", strerror(errno));
        return false;
    }
    if (fseek(s_stat_fp, 0, SEEK_SET) != 0) {
        ZEB_ERROR("ZEB seek stat file failed: %s.\n", strerror(errno));
        return false;
    }
    if (!write_stat(when)) {
        ZEB_ERROR("ZEB write stat file failed: %s.\n", strerror(errno));
        return false;
    }
    return true;
}

void zeb_dm_record_stat()
{
    if (s_stat_fp == nullptr || g_print_msg == nullptr || s_closed.load(std::memory_order_relaxed))
        return;
    char when[32] = "";
    time_t now = time(nullptr);
    (void)ctime_r(&now, when);
    if (rewrite_stat(when))
        return;
    (void)fclose(s_stat_fp);
    s_stat_fp = nullptr;
}

static void flush_and_close(FILE *fp)
{
    (void)fflush(fp);
    (void)fsync(fileno(fp));
    (void)fclose(fp);
}

// The pointers to the closed streams stay, so s_closed must keep every thread off them: until the process is aborted,
// its threads go on logging and a second peer may ask for the abort too.
void zeb_dm_close_files()
{
    if (g_zeb_log_fp == nullptr || s_closed.load(std::memory_order_relaxed))
        return;
    s_closed.store(true, std::memory_order_relaxed);
    flush_and_close(g_zeb_log_fp);
    if (s_stat_fp != nullptr)
        flush_and_close(s_stat_fp);
}

static bool s_stopped; // by zeb_dm_stop
static int s_again;    // how often the files were opened again

// False when a thread does not come out of its line. A child that was forked in the middle of one has no such thread.
static bool wait_recorded()
{
    struct timespec deadline = zeb_deadline_in(RECORD_TIME);
    while (s_recording.load(std::memory_order_seq_cst) != 0) {
        if (zeb_deadline_passed(&deadline))
            return false;
        (void)sched_yield();
    }
    return true;
}

void zeb_dm_stop()
{
    if ((s_log_fp == nullptr && s_stat_fp == nullptr) || s_closed.load(std::memory_order_relaxed))
        return;
    s_stopped = true;
    s_closed.store(true, std::memory_order_seq_cst);
    if (!wait_recorded())
        return;
    if (s_log_fp != nullptr) {
        if (g_zeb_log_fp == s_log_fp)
            g_zeb_log_fp = nullptr;
        flush_and_close(s_log_fp);
        s_log_fp = nullptr;
    }
    if (s_stat_fp != nullptr)
        flush_and_close(s_stat_fp);
    s_stat_fp = nullptr;
    s_closed.store(g_zeb_log_fp == nullptr, std::memory_order_seq_cst); // a tool's stream goes on
}

void zeb_dm_start_again()
{
    if (!s_stopped)
        return;
    s_stopped = false;
    s_again++;
    s_log_offset.store(0, std::memory_order_relaxed);
    zeb_dm_init();
    s_closed.store(false, std::memory_order_seq_cst);
}

// Processes that start together make it at the same moment.
static bool make_dir(const char *path)
{
    return access(path, F_OK) == 0 || mkdir(path, 0777) == 0 || errno == EEXIST;
}

int zeb_make_log_dir(char *buf, size_t len)
{
    const char *root = getenv(ROOT_VARIABLE);
    (void)snprintf(buf, len, "%s", root != nullptr ? root : DEFAULT_ROOT);
    if (!make_dir(buf) || len - strlen(buf) < SUB_DIRS_LEN)
        return -1;
    (void)strcat(buf, "/dev");
    if (!make_dir(buf))
        return -1;
    (void)strcat(buf, "/zeb");
    return make_dir(buf) ? 0 : -1;
}

// Name of the running executable, without its directory.
static bool get_exe_name(char (&name)[ZEB_DM_PATH_LEN])
{
    char link[32];
    char path[ZEB_DM_PATH_LEN];
    (void)snprintf(link, sizeof(link), "/proc/%ld/exe", (long)getpid());
    ssize_t len = readlink(link, path, sizeof(path) - 1);
    if (len < 0)
        return false;
    path[len] = '\0';
    const char *slash = strrchr(path, '/');
    if (slash == nullptr)
        return false;
    (void)snprintf(name, sizeof(name), "%s", slash + 1);
    return true;
}

// Fills `file` from a directory entry. False when the entry is not an old file of the kind.
static bool read_old_file(const char *dir, const char *name, const char *prefix, zeb_dm_file_t *file)
{
    if (strncmp(name, prefix, strlen(prefix)) != 0)
        return false;
    int len = snprintf(file->path, sizeof(file->path), "%s/%s", dir, name);
    if (len < 0 || len >= (int)sizeof(file->path))
        return false;
    struct stat status;
    if (lstat(file->path, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    file->last_change_time = (uint32_t)status.st_mtime;
    return true;
}

// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): what qsort calls
static int newest_first(const void *a, const void *b)
{
    uint32_t time_a = ((const zeb_dm_file_t *)a)->last_change_time;
    uint32_t time_b = ((const zeb_dm_file_t *)b)->last_change_time;
    return time_a == time_b ? 0 : (time_a > time_b ? -1 : 1);
}

// Examines a limited number of files whose name begins with `prefix` and deletes all but the newest ZEB_DM_KEEP of
// them.
static void remove_old_files(const char *dir, const char *prefix)
{
    constexpr int room = ZEB_DM_KEEP * ZEB_DM_RESERVE_RATE;
    DIR *stream = opendir(dir);
    if (stream == nullptr)
        return;
    zeb_dm_file_t *files = (zeb_dm_file_t *)zeb_malloc(room * (int)sizeof(zeb_dm_file_t));
    int num = 0;
    const struct dirent *entry = nullptr;
    while (num < room && (entry = readdir(stream)) != nullptr) {
        if (read_old_file(dir, entry->d_name, prefix, &files[num]))
            num++;
    }
    (void)closedir(stream);
    if (num > ZEB_DM_KEEP)
        qsort(files, (size_t)num, sizeof(*files), newest_first);
    for (int i = ZEB_DM_KEEP; i < num; i++)
        (void)unlink(files[i].path);
    free(files);
}

typedef struct file_name_s {
    char dir[ZEB_DM_DIR_LEN];
    char exe[ZEB_DM_PATH_LEN];
    char stamp[32]; // UTC
} file_name_t;

// Opens "<dir>/<kind>-<exe>-<pid>-<stamp>" after it has deleted old files of the kind. Null on failure, with the path
// in `path` and errno set.
static FILE *open_file(const file_name_t *name, const char *kind, char (&path)[PATH_MAX])
{
    char prefix[ZEB_DM_PATH_LEN + 8];
    (void)snprintf(prefix, sizeof(prefix), "%s-%s", kind, name->exe);
    remove_old_files(name->dir, prefix);
    (void)snprintf(path, sizeof(path), "%s/%s-%ld-%s", name->dir, prefix, (long)getpid(), name->stamp);
    FILE *fp = fopen(path, "we");
    if (fp == nullptr)
        return nullptr;
    (void)fchmod(fileno(fp), 0777);
    (void)zeb_set_fd_close_on_exec(fileno(fp));
    return fp;
}

void zeb_dm_init()
{
    file_name_t name;
    if (zeb_make_log_dir(name.dir, sizeof(name.dir)) != 0)
        return;
    struct tm utc;
    time_t now = time(nullptr);
    name.stamp[0] = '\0';
    if (gmtime_r(&now, &utc) != nullptr)
        (void)strftime(name.stamp, sizeof(name.stamp), "%Y%m%d-%H%M%S", &utc);
    size_t len = strlen(name.stamp);
    if (s_again != 0) // it may be the same second
        (void)snprintf(name.stamp + len, sizeof(name.stamp) - len, "-%d", s_again + 1);
    if (!get_exe_name(name.exe))
        return;

    char path[PATH_MAX];
    FILE *log = open_file(&name, "log", path);
    if (log == nullptr) {
        ZEB_ERROR("ZEB open debug log file %s failed: %s.\n", path, strerror(errno));
    } else {
        (void)setvbuf(log, nullptr, _IOLBF, 0);
        s_log_fp = log;
        g_zeb_log_fp = log;
    }
    s_stat_fp = open_file(&name, "stat", path);
    if (s_stat_fp == nullptr)
        ZEB_ERROR("ZEB open stat file %s failed: %s.\n", path, strerror(errno));
}
