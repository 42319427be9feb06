#include "ops_log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr int64_t READ_MAX = 32 << 10;
constexpr int ENTRIES_MAX = 16384;    // of the directory that are looked at
constexpr size_t SCAN = 1 << 20;      // bytes of a log file that are read to find the seam
constexpr size_t BLOCK = 4 << 10;     // bytes that have the start of a line
constexpr size_t STAMP_LEN = 25;      // with the blank that ends it
constexpr size_t NAME_STAMP_LEN = 15; // "YYYYMMDD-HHMMSS"
constexpr int64_t START_SLACK = 2000; // ms: what the start time of a process is wrong by

// Two digits, the first of which may be a blank. -1 when there is none.
static int two_digits(const char *at)
{
    int high = *at == ' ' ? 0 : *at - '0';
    int low = at[1] - '0';
    return high < 0 || high > 9 || low < 0 || low > 9 ? -1 : high * 10 + low;
}

int64_t ops_log_stamp(const char *line, size_t len)
{
    static const char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (len < STAMP_LEN || line[3] != ' ' || line[7] != ' ' || line[10] != ' ' || line[13] != ':' || line[16] != ':' ||
        line[19] != ' ' || line[24] != ' ')
        return 0;
    int month = 0;
    while (month < 12 && memcmp(line + 4, months + (size_t)month * 3, 3) != 0)
        month++;
    int64_t stamp = two_digits(line + 20);
    for (int part : {two_digits(line + 22), month + 1, two_digits(line + 8), two_digits(line + 11),
                     two_digits(line + 14), two_digits(line + 17)}) {
        if (stamp < 0 || part < 0)
            return 0;
        stamp = stamp * 100 + part;
    }
    return month == 12 ? 0 : stamp;
}

static size_t line_end(const char *text, size_t len, size_t at)
{
    const void *end = memchr(text + at, '\n', len - at);
    return end == nullptr ? len : (size_t)((const char *)end - text) + 1;
}

// Time grows from line to line, and falls at the seam alone, to no later than the first line has. Lines of one second
// have no such fall: then a line without a time, the rest of one that was written over, tells it.
size_t ops_log_seam(const char *text, size_t len)
{
    int64_t first = 0;
    int64_t last = 0;
    int64_t fall = 0;
    size_t seam = len;
    size_t after_last = 0; // where the line ends that has `last`
    size_t torn = 0;       // where the only line without a time begins
    int torn_lines = 0;
    for (size_t at = 0; at < len; at = line_end(text, len, at)) {
        int64_t stamp = ops_log_stamp(text + at, len - at);
        if (stamp == 0) {
            torn = at;
            torn_lines++;
            continue;
        }
        if (last - stamp > fall) {
            fall = last - stamp;
            seam = after_last;
        }
        first = first == 0 ? stamp : first;
        last = stamp;
        after_last = line_end(text, len, at);
    }
    if (first == 0 || last > first)
        return len; // the last line is newer than the first, so nothing was written over
    bool one_second = fall == 0 && torn_lines == 1 && torn != 0 && line_end(text, len, torn) < len;
    return one_second ? torn : seam;
}

ops_log_range_t ops_log_range(int64_t size, int64_t seam, int64_t offset, int64_t most)
{
    int64_t begin = offset;
    if (offset < 0) {
        // What is older than the seam follows it.
        begin = std::max(offset, -size) + seam;
        begin += begin < 0 ? size : 0;
    } else if (offset >= size && seam < size) {
        begin = 0; // it has gone on from its start
    } else if (offset >= size) {
        begin = size;
    }
    // The negative offset of a whole file begins at the seam itself; from there any other has read all.
    bool older = begin > seam || (begin == seam && offset < 0 && seam < size);
    int64_t end = older ? size : seam;
    int64_t len = std::min(std::max<int64_t>(end - begin, 0), most);
    int64_t next = begin + len;
    return {begin, len, older && next == size ? 0 : next};
}

std::string ops_log_program(const std::string &name, int32_t pid)
{
    static const std::string prefix = "log-";
    std::string middle = "-" + std::to_string(pid) + "-";
    if (name.size() <= prefix.size() + middle.size() + NAME_STAMP_LEN || name.compare(0, prefix.size(), prefix) != 0)
        return "";
    std::string stamp = name.substr(name.size() - NAME_STAMP_LEN);
    for (size_t i = 0; i < stamp.size(); i++) {
        if (i == 8 ? stamp[i] != '-' : isdigit((unsigned char)stamp[i]) == 0)
            return "";
    }
    size_t end = name.size() - NAME_STAMP_LEN - middle.size();
    return name.compare(end, middle.size(), middle) == 0 ? name.substr(prefix.size(), end - prefix.size()) : "";
}

// A plain file of one name, never a device or a pipe that would make us wait. -1 with errno set.
static int open_plain(const std::string &path, struct stat *status)
{
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd == -1)
        return -1;
    if (fstat(fd, status) == 0 && S_ISREG(status->st_mode) && status->st_nlink == 1)
        return fd;
    (void)close(fd);
    errno = ENOENT;
    return -1;
}

static std::string read_small(const std::string &path)
{
    char text[4096];
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return "";
    ssize_t len = read(fd, text, sizeof(text));
    (void)close(fd);
    return len <= 0 ? "" : std::string(text, (size_t)len);
}

static std::string last_part(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

static std::string program_by_exe(const std::string &proc)
{
    char path[PATH_MAX];
    ssize_t len = readlink((proc + "/exe").c_str(), path, sizeof(path));
    std::string program = len <= 0 ? "" : last_part(std::string(path, (size_t)len));
    static const std::string deleted = " (deleted)"; // an update has replaced it
    if (program.size() > deleted.size() &&
        program.compare(program.size() - deleted.size(), deleted.size(), deleted) == 0)
        program.resize(program.size() - deleted.size());
    return program;
}

// Ticks since the start of the system, field 22 of /proc/PID/stat. The name before it may hold anything but ends with
// the last parenthesis. -1 when there is none.
static int64_t start_ticks(const std::string &proc)
{
    std::string text = read_small(proc + "/stat");
    size_t at = text.rfind(')');
    for (int field = 2; field < 22 && at != std::string::npos; field++)
        at = text.find(' ', at + 1);
    return at == std::string::npos ? -1 : strtoll(text.c_str() + at, nullptr, 10);
}

static int64_t started_at(const std::string &proc)
{
    int64_t ticks = start_ticks(proc);
    int64_t per_second = sysconf(_SC_CLK_TCK);
    struct timespec boot = {};
    if (ticks < 0 || per_second <= 0 || clock_gettime(CLOCK_BOOTTIME, &boot) != 0)
        return 0;
    int64_t since_boot = (int64_t)boot.tv_sec * 1000 + boot.tv_nsec / 1000000;
    return ops_wall() - since_boot + ticks * 1000 / per_second;
}

static std::string log_directory()
{
    const char *root = getenv("VELK_DIR");
    return std::string(root == nullptr ? "/velk" : root) + "/dev/zeb";
}

// What is known of a process when its log file is looked for.
typedef struct known_s {
    std::string exe; // empty: it may not be read
    std::string argv0;
    std::string comm; // the first 15 characters of the program's name, unless the process changed it
    uid_t user;
} known_t;

// A number may have been used before, by another program, whose log file is still there.
static bool is_its_log(const known_t &known, const std::string &program, const struct stat &status, int64_t started)
{
    if (!known.exe.empty())
        return program == known.exe;
    if (program == known.argv0 || (!known.comm.empty() && program.compare(0, known.comm.size(), known.comm) == 0))
        return true;
    return status.st_uid == known.user && (int64_t)status.st_mtime * 1000 + START_SLACK >= started;
}

static void find_log(ops_process_t *process, const known_t &known)
{
    std::string directory = log_directory();
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr)
        return;
    std::string newest;
    struct dirent *entry = readdir(dir);
    for (int i = 0; entry != nullptr && i < ENTRIES_MAX; i++, entry = readdir(dir)) {
        std::string name = entry->d_name;
        std::string program = ops_log_program(name, process->pid);
        std::string stamp = program.empty() ? "" : name.substr(name.size() - NAME_STAMP_LEN);
        struct stat status = {};
        std::string path = directory + "/" + name;
        if (program.empty() || stamp <= newest || lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
            !is_its_log(known, program, status, process->started))
            continue;
        newest = stamp;
        process->log = path;
        process->log_bytes = status.st_size;
        process->program = program;
    }
    (void)closedir(dir);
}

ops_process_t ops_process_look(int32_t pid)
{
    ops_process_t process = {};
    process.pid = pid;
    std::string proc = "/proc/" + std::to_string(pid);
    struct stat status = {};
    if (pid <= 0 || stat(proc.c_str(), &status) != 0)
        return process;
    std::string comm = read_small(proc + "/comm");
    known_t known = {program_by_exe(proc), last_part(read_small(proc + "/cmdline").c_str()),
                     comm.substr(0, comm.find('\n')), status.st_uid};
    process.started = started_at(proc);
    process.program = !known.exe.empty() ? known.exe : (!known.argv0.empty() ? known.argv0 : known.comm);
    find_log(&process, known);
    return process;
}

static std::string read_at(int fd, int64_t offset, size_t len)
{
    std::string text(len, '\0');
    ssize_t got = pread(fd, text.data(), len, offset);
    text.resize(got <= 0 ? 0 : (size_t)got);
    return text;
}

// The time of the first whole line from `offset` on.
static int64_t stamp_at(int fd, int64_t offset)
{
    std::string text = read_at(fd, offset, BLOCK);
    for (size_t at = offset == 0 ? 0 : line_end(text.data(), text.size(), 0); at < text.size();
         at = line_end(text.data(), text.size(), at)) {
        int64_t stamp = ops_log_stamp(text.data() + at, text.size() - at);
        if (stamp != 0)
            return stamp;
    }
    return 0;
}

// The seam of a file that is too long to be read whole: lines before it are no older than the first.
static int64_t seam_of_long(int fd, int64_t size)
{
    int64_t first = stamp_at(fd, 0);
    int64_t low = 0;
    int64_t high = size;
    while (high - low > (int64_t)SCAN) {
        int64_t middle = low + (high - low) / 2;
        (stamp_at(fd, middle) >= first ? low : high) = middle;
    }
    std::string text = read_at(fd, low, (size_t)(high - low) + BLOCK);
    size_t begin = low == 0 ? 0 : line_end(text.data(), text.size(), 0);
    size_t seam = ops_log_seam(text.data() + begin, text.size() - begin);
    return std::min(size, low + (int64_t)(begin + seam));
}

int ops_log_read_some(const ops_process_t &process, int64_t offset, int64_t most, std::string *text, int64_t *next)
{
    text->clear();
    *next = 0;
    if (process.log.empty())
        return -ENOENT;
    struct stat status = {};
    int fd = open_plain(process.log, &status);
    if (fd == -1)
        return -errno;
    int64_t seam = 0;
    if (status.st_size > (int64_t)SCAN) {
        seam = seam_of_long(fd, status.st_size);
    } else {
        std::string whole = read_at(fd, 0, (size_t)status.st_size);
        seam = (int64_t)ops_log_seam(whole.data(), whole.size());
        status.st_size = std::min<int64_t>(status.st_size, (int64_t)whole.size());
    }
    ops_log_range_t range = ops_log_range(status.st_size, seam, offset, most);
    *text = read_at(fd, range.begin, (size_t)range.len);
    *next = range.begin + range.len == range.next ? range.begin + (int64_t)text->size() : range.next;
    (void)close(fd);
    return 0;
}

int ops_log_read(const ops_process_t &process, int64_t offset, std::string *text, int64_t *next)
{
    return ops_log_read_some(process, offset, READ_MAX, text, next);
}
