// Faults at times. A line of a script is a time and a command of tipcsim with its arguments:
//     1.5s cut 1 2
//     +200ms heal 1 2      # so long after the line before
#include "tipcsim_clock.h"
#include "tipcsim_record.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim_sys.h"

constexpr int FAILED = 125;
constexpr double MAX_SECONDS = 1e6;

typedef struct line_s {
    int number;
    int64_t time; // ms since the script began
    std::vector<std::string> words;
} line_t;

static int fail(const std::string &file, int number, const std::string &text)
{
    fprintf(stderr, "tipcsim: %s:%d: %s\n", file.c_str(), number, text.c_str());
    return FAILED;
}

// "1.5s", "200ms", or one of them behind a +. -1 when it is none.
static int64_t time_of(const std::string &word, int64_t before)
{
    char *end = nullptr;
    const char *from = word.c_str() + (word[0] == '+' ? 1 : 0);
    double value = *from >= '0' && *from <= '9' ? strtod(from, &end) : -1;
    double unit = end == nullptr ? 0 : strcmp(end, "ms") == 0 ? 1 : strcmp(end, "s") == 0 ? 1000 : 0;
    if (!(value >= 0 && value <= MAX_SECONDS * 1000) || unit == 0)
        return -1;
    return (int64_t)(value * unit + 0.5) + (word[0] == '+' ? before : 0);
}

// What is wrong with it; empty when it can be run.
static std::string check(const line_t &line, int64_t before, const std::string &time)
{
    static const char *const OTHERS[] = {"run", "exec", "cluster", "record", "show", "script", "broker"};
    if (line.time < 0)
        return "'" + time + "' is no time like 1.5s, 200ms or +100ms";
    if (line.time < before)
        return "its time is before that of the line above";
    if (line.words.empty())
        return "there is no command";
    bool other =
        std::any_of(std::begin(OTHERS), std::end(OTHERS), [&](const char *verb) { return line.words[0] == verb; });
    return other ? "'" + line.words[0] + "' is no command for a script" : "";
}

static bool read_script(const std::string &file, std::vector<line_t> *lines)
{
    std::ifstream in(file);
    std::string text;
    int64_t before = 0;
    for (int number = 1; std::getline(in, text); number++) {
        std::istringstream words(text.substr(0, text.find('#')));
        std::string time;
        line_t line = {number, 0, {}};
        if (!(words >> time))
            continue;
        line.time = time_of(time, before);
        for (std::string word; words >> word;)
            line.words.push_back(word);
        std::string why = check(line, before, time);
        if (!why.empty()) {
            (void)fail(file, number, why);
            return false;
        }
        before = line.time;
        lines->push_back(line);
    }
    if (in.eof())
        return true;
    fprintf(stderr, "tipcsim: cannot read %s: %s\n", file.c_str(), strerror(errno));
    return false;
}

static int run_line(const line_t &line, script_command_t command)
{
    int status = 0;
    (void)fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        status = command(line.words);
        (void)fflush(stdout);
        _exit(status);
    }
    if (pid < 0)
        return FAILED;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : FAILED;
}

static int run_lines(const std::string &file, const std::vector<line_t> &lines, script_command_t command)
{
    int64_t begin = sys_now();
    for (const line_t &line : lines) {
        clock_sleep_until(begin + line.time);
        int64_t now = sys_now() - begin;
        printf("%lld.%03lld s:", (long long)(now / 1000), (long long)(now % 1000));
        for (const std::string &word : line.words)
            printf(" %s", word.c_str());
        printf("\n");
        int status = run_line(line, command);
        if (status != 0) {
            (void)fail(file, line.number, line.words[0] + " failed");
            return status;
        }
    }
    return 0;
}

int script_run(const std::string &file, script_command_t command)
{
    std::vector<line_t> lines;
    return read_script(file, &lines) ? run_lines(file, lines, command) : FAILED;
}

pid_t script_begin(const std::string &file, script_command_t command)
{
    std::vector<line_t> lines;
    if (!read_script(file, &lines))
        return -1;
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)dup2(STDERR_FILENO, STDOUT_FILENO);
    int status = getppid() == parent ? run_lines(file, lines, command) : FAILED;
    (void)fflush(stdout);
    _exit(status);
}
