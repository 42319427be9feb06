#include "cluster.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace cluster
{
const char CONF[] = "[MISC_CONF]\nzeb_dbg_cfg=0x8\n";

int patience = 1;

static std::vector<bool> s_down(64);
static std::vector<bool> s_cut(64);

static void lab(const std::string &words)
{
    std::string command = std::string(getenv("LAB")) + " " + words;
    ASSERT_EQ(system(command.c_str()), 0) << command;
}

static std::string path_of(int node, const std::string &path)
{
    return std::string(getenv("LAB_RUN")) + "/nodes/" + std::to_string(node) + path;
}

void cut(int node)
{
    s_cut[(size_t)node] = true;
    lab("cut " + std::to_string(node));
}

void heal(int node)
{
    s_cut[(size_t)node] = false;
    lab("heal " + std::to_string(node));
    lab("wait-links");
}

void node_down(int node)
{
    s_down[(size_t)node] = true;
    lab("node-down " + std::to_string(node));
}

void node_up(int node)
{
    s_down[(size_t)node] = false;
    lab("node-up " + std::to_string(node));
    lab("wait-links");
}

void write_file(int node, const std::string &path, const std::string &text)
{
    std::ofstream(path_of(node, path)) << text;
}

void remove_file(int node, const std::string &path)
{
    (void)unlink(path_of(node, path).c_str());
}

void reset()
{
    for (int node = 1; node <= 4; node++) {
        if (access(path_of(node, "").c_str(), F_OK) != 0)
            continue;
        if (s_down[(size_t)node])
            node_up(node);
        if (s_cut[(size_t)node])
            heal(node);
        write_file(node, "/etc/zeb.conf", CONF);
        write_file(node, "/tmp/addr/.zeb_node_addr", std::to_string(node) + "\n");
    }
}

static std::string program_path(const std::string &program)
{
    char self[512] = "";
    (void)!readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string dir(self);
    return dir.substr(0, dir.rfind('/') + 1) + program;
}

static std::vector<std::string> split(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

static void run_lab(std::vector<std::string> command, const std::vector<std::string> &words)
{
    command.insert(command.end(), words.begin(), words.end());
    std::vector<char *> args;
    for (std::string &word : command)
        args.push_back(&word[0]);
    args.push_back(nullptr);
    (void)execv(getenv("LAB"), args.data());
}

// Gives the process a node-address file of its own before it becomes the program.
static const char AS_BOARD[] = "mount -t tmpfs none /tmp/addr && echo $1 >/tmp/addr/.zeb_node_addr && exec \"$2\"";

process::process(int node, const std::string &program, int board) : node_(node)
{
    int to[2];
    int from[2];
    EXPECT_EQ(pipe2(to, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(from, O_CLOEXEC), 0);
    std::vector<std::string> words = split(program);
    words[0] = program_path(words[0]);
    bool simulated = getenv("TIPCSIM_CLUSTER") != nullptr; // there a board is a node like any other
    std::string name = std::to_string(simulated && board != 0 ? board : node);
    std::string board_name = std::to_string(board);
    pid_ = fork();
    if (pid_ == 0) {
        (void)dup2(to[0], 0);
        (void)dup2(from[1], 1);
        if (board == 0 || simulated)
            run_lab({"lab", "exec", name, "--"}, words);
        else
            run_lab({"lab", "exec", name, "--", "unshare", "--mount", "sh", "-c", AS_BOARD, "sh", board_name}, words);
        _exit(127);
    }
    (void)close(to[0]);
    (void)close(from[1]);
    in_ = to[1];
    out_ = from[0];
    (void)signal(SIGPIPE, SIG_IGN);
}

process::~process()
{
    kill();
    (void)close(in_);
    (void)close(out_);
    if (testing::Test::HasFailure()) {
        printf("--- lines of node %d's process that no test took:\n", node_);
        for (const std::string &line : lines_)
            printf("    %s\n", line.c_str());
    }
}

void process::tell(const std::string &command)
{
    std::string line = command + "\n";
    size_t done = 0;
    while (done < line.size()) {
        ssize_t num = write(in_, line.data() + done, line.size() - done);
        if (num <= 0)
            return;
        done += (size_t)num;
    }
}

std::string process::ask(const std::string &command, int seconds)
{
    tell(command);
    std::string head = "done " + command.substr(0, command.find(' ')) + " ";
    std::string line = wait(head, seconds);
    return line.size() < head.size() ? "" : line.substr(head.size());
}

bool process::read_more(int ms)
{
    struct pollfd fd = {out_, POLLIN, 0};
    if (poll(&fd, 1, ms) <= 0)
        return false;
    char text[65536];
    ssize_t num = read(out_, text, sizeof(text));
    if (num <= 0)
        return false;
    partial_.append(text, (size_t)num);
    size_t end;
    while ((end = partial_.find('\n')) != std::string::npos) {
        lines_.push_back(partial_.substr(0, end));
        partial_.erase(0, end + 1);
    }
    return true;
}

static long now_ms()
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string process::wait(const std::string &text, int seconds)
{
    long deadline = now_ms() + 1000L * seconds * patience;
    size_t looked = 0;
    for (;;) {
        for (; looked < lines_.size(); looked++) {
            if (lines_[looked].find(text) == std::string::npos)
                continue;
            std::string line = lines_[looked];
            lines_.erase(lines_.begin() + (long)looked);
            return line;
        }
        long left = deadline - now_ms();
        if (left <= 0) {
            ADD_FAILURE() << "node " << node_ << ": no line with '" << text << "' in " << seconds << " s";
            return "";
        }
        if (!read_more((int)left) && waitpid(pid_, nullptr, WNOHANG) != 0 && !read_more(0)) {
            ADD_FAILURE() << "node " << node_ << ": ended before a line with '" << text << "'";
            return "";
        }
    }
}

int process::count(const std::string &text)
{
    while (read_more(0))
        continue;
    int num = 0;
    for (const std::string &line : lines_)
        num += line.find(text) != std::string::npos ? 1 : 0;
    return num;
}

bool process::saw(const std::string &text)
{
    return count(text) != 0;
}

void process::kill()
{
    if (pid_ <= 0)
        return;
    (void)::kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

// Returns when every thread has stopped. The simulator stops a process only outside the locks that senders need: in the
// kernel's TIPC a stopped process holds none.
void process::stop()
{
    if (getenv("TIPCSIM_CLUSTER") != nullptr) {
        lab("stall --pid " + std::to_string(pid_));
        return;
    }
    (void)::kill(pid_, SIGSTOP);
    EXPECT_EQ(waitpid(pid_, nullptr, WUNTRACED), pid_);
}

void process::resume()
{
    (void)::kill(pid_, SIGCONT);
}

bool process::ended(int seconds)
{
    long deadline = now_ms() + 1000L * seconds;
    while (now_ms() < deadline) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return true;
        }
        (void)read_more(50);
    }
    return false;
}
} // namespace cluster
