// Serves the page and the metrics of a cluster that was made up, and changes it by words on standard input; each gets
// "ok", at the end of the input it stops. Usage: page_server NODES APPS PEERS
//   round | join APP NODE | quit APP NODE [AGO] | block APP NODE APP NODE | free APP NODE APP NODE | events COUNT |
//   name APP NODE TEXT
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <unistd.h>

#include "page_model.h"
#include "zebd_http.h"

static zebd_http_t s_http;
static uint64_t s_waiting; // number of a request for a log of node 2, which is answered with the next "log"

static void ask_log(void *arg, uint64_t number, ops_inst_t inst, int32_t pid)
{
    (void)arg;
    if (inst.node == 2)
        s_waiting = number;
    else if (inst.node == 3)
        zebd_http_log_done(&s_http, number, -ENOENT, "it has no log file");
    else
        zebd_http_log_done(&s_http, number, 0,
                           "Sun Nov 22 09:17:55 2026 <board.cpp, 57> 1: process " + std::to_string(pid) +
                               (inst.app == 100 ? " <b>\x1b[1m\n" : " started\n"));
}

static void obey(zebd_model_t *model, const std::string &line)
{
    std::istringstream words(line);
    std::string command;
    ops_inst_t inst = {};
    ops_inst_t peer = {};
    words >> command >> inst.app >> inst.node;
    if (command == "round")
        page_round(model, ops_wall());
    else if (command == "join")
        page_join(model, inst);
    else if (command == "quit")
        page_quit(model, inst, words >> peer.app ? peer.app : 0);
    else if (command == "block" || command == "free") {
        words >> peer.app >> peer.node;
        page_block(model, inst, peer, command == "block");
    } else if (command == "events") {
        for (uint32_t i = 0; i < inst.app; i++)
            page_event(model, OPS_EVENT_JOINED, {i % 8000 + 1, 1}, {});
    } else if (command == "name")
        std::getline(words >> std::ws, model->insts[ops_name_of(inst)].stat.name);
    else if (command == "log")
        zebd_http_log_done(&s_http, s_waiting, 0, "from afar\n");
}

// False at the end of the input.
static bool take_input(zebd_model_t *model, std::string *input)
{
    char buf[4096];
    ssize_t len = read(STDIN_FILENO, buf, sizeof(buf));
    if (len <= 0)
        return false;
    input->append(buf, (size_t)len);
    for (size_t end; (end = input->find('\n')) != std::string::npos;) {
        obey(model, input->substr(0, end));
        input->erase(0, end + 1);
        zebd_http_turn(&s_http);
        printf("ok\n");
    }
    return fflush(stdout) == 0;
}

int main(int argc, char **argv)
{
    if (argc < 4)
        return 2;
    zebd_model_t model = page_model((uint32_t)atoi(argv[1]), (uint32_t)atoi(argv[2]), (uint32_t)atoi(argv[3]));
    std::string why;
    std::string input;
    s_http.model = &model;
    s_http.ask_log = ask_log;
    if (zebd_http_start(&s_http, argc > 4 ? argv[4] : "127.0.0.1:0", argc > 5, &why) != 0) {
        fprintf(stderr, "%s\n", why.c_str());
        return 1;
    }
    printf("%u\n", s_http.port);
    (void)fflush(stdout);
    for (;;) {
        struct pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {zebd_http_fd(&s_http), POLLIN, 0}};
        (void)poll(fds, 2, (int)zebd_http_due(&s_http));
        if (fds[0].revents != 0 && !take_input(&model, &input))
            break;
        zebd_http_turn(&s_http);
    }
    zebd_http_stop(&s_http);
    return 0;
}
