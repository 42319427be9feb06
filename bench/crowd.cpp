// Many peers in one process, without the library: publishes the names of NUMBER instances of APP, on the nodes from
// FIRST on, and answers every handshake with one of them. Usage: crowd APP FIRST NUMBER
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/tipc.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/tipc_name.h"
#include "wire.h"

constexpr uint32_t NAME_TYPE = 2303;
constexpr uint16_t SYNC_INST = 1;
constexpr uint32_t SEQ = 1; // the number of every peer's own synchronisation

static struct sockaddr_tipc name_of(uint32_t app, uint32_t node)
{
    return tipc_name(NAME_TYPE, app << 16 | node, TIPC_CLUSTER_SCOPE);
}

// A failed send needs no retry here: the other side retries its synchronisation.
static void answer(int sd, const wire::header_t &to, const wire::bytes_t &body)
{
    wire::header_t header;
    header.flag = wire::SYNC;
    header.src_app = to.dst_app;
    header.src_node = to.dst_node;
    header.dst_app = to.src_app;
    header.dst_node = to.src_node;
    wire::bytes_t bytes = wire::message(header, body);
    struct sockaddr_tipc addr = name_of(to.src_app, to.src_node);
    (void)sendto(sd, bytes.data(), bytes.size(), 0, (struct sockaddr *)&addr, sizeof(addr));
}

static void handshake(int sd, const wire::bytes_t &message)
{
    wire::header_t header = wire::header_of(message);
    wire::bytes_t body = wire::body_of(message);
    if ((header.flag & wire::SYNC) == 0 || body.size() < 8 || wire::get16(body, 2) != SYNC_INST)
        return;
    uint32_t pid = (uint32_t)getpid();
    answer(sd, header, wire::sync_inst(SEQ, pid, 1, 0));
    answer(sd, header, wire::sync_seq_ack(wire::get32(body, 4), pid, 1, SEQ));
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        (void)fprintf(stderr, "usage: crowd APP FIRST NUMBER\n");
        return 2;
    }
    uint32_t first = (uint32_t)atoi(argv[2]);
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    for (uint32_t node = first; node < first + (uint32_t)atoi(argv[3]); node++) {
        struct sockaddr_tipc addr = name_of((uint32_t)atoi(argv[1]), node);
        if (bind(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
            perror("bind");
            return 1;
        }
    }
    printf("ready\n");
    (void)fflush(stdout);
    for (;;) {
        wire::bytes_t message(66000);
        ssize_t len = recv(sd, message.data(), message.size(), 0);
        if (len < 36)
            continue; // a returned message
        message.resize((size_t)len);
        handshake(sd, message);
    }
}
