#include "connections.h"

const char SO_ERROR_NUMBER[] = "4";
const char CONN_TIMEOUT[] = "130";
const char NO_PORT[] = "2";
const char NO_NODE[] = "3";
const char CONN_SHUTDOWN[] = "5";

void connections::listen_for(int client)
{
    instance_++;
    on(1).ok("open l " + kind());
    on(1).ok("bind l " + listener() + " 2");
    on(1).ok("listen l 5");
    on(client).ok(await(instance_));
}

void connections::begin(int client, const std::string &socket)
{
    on(client).ok("open " + socket + " " + kind());
    on(client).ok("nonblock " + socket + " 1");
    EXPECT_EQ(on(client).ask("connect " + socket + " " + listener()), "EINPROGRESS");
    EXPECT_EQ(on(1).ask("poll l in wait=10000"), "in");
}

void connections::join(int client)
{
    close_all(client);
    listen_for(client);
    begin(client);
    EXPECT_EQ(on(1).get("accept l a").head, "0");
    EXPECT_EQ(on(client).ask("poll c out wait=10000"), "out");
    on(client).ok("nonblock c 0");
}

void connections::close_all(int client)
{
    (void)on(1).ask("close l");
    (void)on(1).ask("close a");
    (void)on(client).ask("close c");
}

void connections::expect_end(int node, const std::string &socket, const std::string &error, const std::string &from)
{
    EXPECT_EQ(on(node).ask("poll " + socket + " hup wait=20000"), "hup");
    answer got = on(node).get("recv " + socket);
    EXPECT_EQ(got.head, "0") << got.text;
    EXPECT_EQ(got.of["err"], error) << got.text;
    EXPECT_EQ(got.of["errlen"], "0") << got.text;
    EXPECT_EQ(got.of["from"], from) << got.text;
    EXPECT_FALSE(got.has("ret")) << got.text;
    EXPECT_FALSE(got.has("dest")) << got.text;
    expect_dead(node, socket);
}

void connections::expect_dead(int node, const std::string &socket)
{
    EXPECT_EQ(on(node).ask("recv " + socket), "EAGAIN") << "the end is told once";
    EXPECT_EQ(on(node).ask("poll " + socket + " all"), "in hup rdnorm") << "and polled for ever";
    EXPECT_EQ(on(node).ask("send " + socket + " none 1 10"), "EPIPE");
    EXPECT_EQ(on(node).ask("peer " + socket), "ENOTCONN");
    EXPECT_EQ(on(node).ask("connect " + socket + " " + listener()), "EINVAL") << "it cannot be used again";
    EXPECT_EQ(on(node).ask("opt " + socket + " socket " + SO_ERROR_NUMBER), "0 4");
}
