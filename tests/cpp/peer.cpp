// The program of the tests, and of the process on node 2.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "cpp_test.h"

static const char *s_self;

// Begins to run and ends with its standard input.
static int run_peer()
{
    zeb::app peer;
    zeb::request kept;
    zeb::runtime runtime;
    zeb::app_options options(PEER, "peer");
    options.peers({CLIENT, SERVER});
    options.on_message(ECHO, [&peer](zeb::message message) {
        zeb::instance from = message.sender();
        (void)peer.send(from, std::move(message));
    });
    options.on_message(THROW, [](zeb::message) { throw std::runtime_error("nobody catches it"); });
    options.on_call(ECHO, [](const zeb::request &request) { return request.message().clone(); });
    options.on_call(SILENT, [&kept](zeb::request request) { kept = std::move(request); });
    peer = runtime.add(std::move(options)).value();
    runtime.run();
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0)
        continue;
    return runtime.stop() ? 1 : 0;
}

peer_process::peer_process()
{
    const char *lab = getenv("LAB");
    int ends[2];
    if (lab == nullptr || pipe2(ends, O_CLOEXEC) != 0)
        abort();
    pid_ = fork();
    if (pid_ == 0) {
        (void)dup2(ends[0], STDIN_FILENO);
        (void)execl(lab, lab, "exec", "2", "--", s_self, "--peer", nullptr);
        _exit(127);
    }
    (void)close(ends[0]);
    input_ = ends[1];
}

void peer_process::end()
{
    if (input_ != -1)
        (void)close(std::exchange(input_, -1));
    int status = 0;
    if (pid_ != -1)
        (void)waitpid(std::exchange(pid_, -1), &status, 0);
    EXPECT_EQ(status, 0);
}

int peer_process::wait_death()
{
    int status = 0;
    (void)waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status) - 128;
}

peer_process::~peer_process()
{
    end();
}

int main(int argc, char **argv)
{
    s_self = argv[0];
    if (argc > 1 && std::string(argv[1]) == "--peer")
        return run_peer();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
