#include "ops_evidence_proc.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

constexpr size_t ENTRIES_MAX = 1024;  // threads or descriptors
constexpr size_t TEXT_MAX = 16 << 10; // of one file

static bool read_file(const std::string &path, std::string *text)
{
    text->clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return false;
    char part[4096];
    ssize_t len = 0;
    while (text->size() < TEXT_MAX && (len = read(fd, part, sizeof(part))) > 0)
        text->append(part, (size_t)len);
    int err = errno;
    (void)close(fd);
    errno = err;
    return len >= 0;
}

static std::string proc(int32_t pid)
{
    return "/proc/" + std::to_string(pid);
}

// The file under a title; or why it cannot be read.
static std::string titled(const std::string &dir, const char *name)
{
    std::string text;
    if (!read_file(dir + "/" + name, &text))
        return "== " + std::string(name) + ": " + strerror(errno) + "\n";
    std::replace(text.begin(), text.end(), '\0', ' ');
    return "== " + std::string(name) + "\n" + text + (text.empty() || text.back() != '\n' ? "\n" : "");
}

static bool exists(int32_t pid, std::string *why)
{
    if (access(proc(pid).c_str(), F_OK) == 0)
        return true;
    *why = "there is no process " + std::to_string(pid);
    return false;
}

std::string ops_evidence_process(int32_t pid, std::string *why)
{
    std::string text;
    if (!exists(pid, why))
        return "";
    for (const char *name : {"cmdline", "status", "stat", "limits", "schedstat", "io", "oom_score", "cgroup"})
        text += titled(proc(pid), name);
    return text;
}

// The numbers in a directory, ascending.
static std::vector<long> numbers(const std::string &path)
{
    std::vector<long> found;
    DIR *dir = opendir(path.c_str());
    for (struct dirent *entry; dir != nullptr && (entry = readdir(dir)) != nullptr && found.size() < ENTRIES_MAX;) {
        char *end = nullptr;
        long number = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0')
            found.push_back(number);
    }
    if (dir != nullptr)
        (void)closedir(dir);
    std::sort(found.begin(), found.end());
    return found;
}

static std::string state_of(const std::string &dir)
{
    std::string text;
    (void)read_file(dir + "/status", &text);
    size_t at = text.find("State:");
    return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
}

std::string ops_evidence_threads(int32_t pid, std::string *why)
{
    std::string text;
    if (!exists(pid, why))
        return "";
    for (long thread : numbers(proc(pid) + "/task")) {
        std::string dir = proc(pid) + "/task/" + std::to_string(thread);
        text += "thread " + std::to_string(thread) + "  " + state_of(dir) + "\n";
        for (const char *name : {"comm", "wchan", "syscall", "stack"})
            text += titled(dir, name);
        text += "\n";
    }
    return text;
}

std::string ops_evidence_descriptors(int32_t pid, std::string *why)
{
    if (!exists(pid, why))
        return "";
    std::string dir = proc(pid) + "/fd";
    if (access(dir.c_str(), R_OK | X_OK) != 0) {
        *why = dir + ": " + strerror(errno);
        return "";
    }
    std::vector<long> found = numbers(dir);
    std::string text =
        std::to_string(found.size()) + " descriptors" + (found.size() == ENTRIES_MAX ? " at least" : "") + "\n";
    for (long number : found) {
        char target[PATH_MAX];
        ssize_t len = readlink((dir + "/" + std::to_string(number)).c_str(), target, sizeof(target));
        text += std::to_string(number) + " " + (len < 0 ? strerror(errno) : std::string(target, (size_t)len)) + "\n";
    }
    return text;
}
