// What the tests of connections share. Each test runs for SOCK_STREAM and for SOCK_SEQPACKET.
#ifndef TESTS_CONFORMANCE_CONNECTIONS_H
#define TESTS_CONFORMANCE_CONNECTIONS_H

#include "conformance.h"

class connections : public tipc, public testing::WithParamInterface<const char *>
{
  protected:
    std::string kind() const
    {
        return GetParam();
    }
    bool is_stream() const
    {
        return kind() == "stream";
    }
    // Opens "l" on node 1, which listens to a new name, and waits until the node knows the name.
    void listen_for(int client);
    std::string listener() const // its name
    {
        return name(instance_);
    }
    // Opens "c" on the node, and begins to connect it to the listener, without waiting.
    void begin(int client, const std::string &socket = "c");
    // Connects "c" on the node to "a" on node 1. Sockets of these names, and the listener, are closed first.
    void join(int client);
    void close_all(int client);
    // The socket has come to an end, `error` is why, and no message was returned.
    void expect_end(int node, const std::string &socket, const std::string &error, const std::string &from);
    void expect_dead(int node, const std::string &socket);

  private:
    unsigned instance_ = 0;
};

extern const char SO_ERROR_NUMBER[];
extern const char CONN_TIMEOUT[];
extern const char NO_PORT[];
extern const char NO_NODE[];
extern const char CONN_SHUTDOWN[];

#endif
