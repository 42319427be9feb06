// Addresses of the live page: where it listens, and for whom a request says that it is.
#include "zebd_http_addr.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

constexpr int BACKLOG = 32;

// "ADDR:PORT" or "[ADDR]:PORT" apart.
static bool split(const std::string &text, std::string *addr, std::string *port)
{
    size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    *addr = text.substr(0, colon);
    *port = text.substr(colon + 1);
    bool in_brackets = addr->size() > 2 && addr->front() == '[' && addr->back() == ']';
    if (in_brackets)
        *addr = addr->substr(1, addr->size() - 2);
    return in_brackets == (addr->find(':') != std::string::npos);
}

static bool to_port(const std::string &text, uint16_t *port)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    unsigned long number = strtoul(text.c_str(), nullptr, 10);
    *port = (uint16_t)number;
    return number <= UINT16_MAX;
}

static bool to_address(const std::string &text, struct in6_addr *addr6, struct in_addr *addr4, bool *is4)
{
    *is4 = inet_pton(AF_INET, text.c_str(), addr4) == 1;
    return *is4 || inet_pton(AF_INET6, text.c_str(), addr6) == 1;
}

static bool is_loopback(const std::string &text)
{
    struct in6_addr addr6 = {};
    struct in_addr addr4 = {};
    bool is4 = false;
    if (!to_address(text, &addr6, &addr4, &is4))
        return false;
    return is4 ? ntohl(addr4.s_addr) >> 24 == 127 : IN6_IS_ADDR_LOOPBACK(&addr6) != 0;
}

static bool is_address(const std::string &text)
{
    struct in6_addr addr6 = {};
    struct in_addr addr4 = {};
    bool is4 = false;
    return to_address(text, &addr6, &addr4, &is4);
}

bool zebd_http_host_is_ours(const char *host, bool any)
{
    std::string name = host == nullptr ? "" : host;
    std::string addr;
    std::string port;
    uint16_t number = 0;
    if (split(name, &addr, &port)) {
        if (!to_port(port, &number))
            return false;
        name = addr;
    } else if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string::npos) {
        return false;
    }
    return strcasecmp(name.c_str(), "localhost") == 0 || is_loopback(name) || (any && is_address(name));
}

static int bind_and_listen(int sd, const struct sockaddr *addr, socklen_t len, uint16_t *port)
{
    int on = 1;
    (void)setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(sd, addr, len) != 0 || listen(sd, BACKLOG) != 0)
        return -errno;
    struct sockaddr_storage got = {};
    socklen_t got_len = sizeof(got);
    if (getsockname(sd, (struct sockaddr *)&got, &got_len) != 0)
        return -errno;
    *port = ntohs(got.ss_family == AF_INET ? ((struct sockaddr_in *)&got)->sin_port
                                           : ((struct sockaddr_in6 *)&got)->sin6_port);
    return 0;
}

static int listen_at(const std::string &addr, uint16_t *port)
{
    struct sockaddr_in in4 = {};
    struct sockaddr_in6 in6 = {};
    bool is4 = false;
    (void)to_address(addr, &in6.sin6_addr, &in4.sin_addr, &is4);
    in4.sin_family = AF_INET;
    in4.sin_port = htons(*port);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(*port);
    int sd = socket(is4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (sd == -1)
        return -errno;
    int ret = is4 ? bind_and_listen(sd, (struct sockaddr *)&in4, sizeof(in4), port)
                  : bind_and_listen(sd, (struct sockaddr *)&in6, sizeof(in6), port);
    if (ret == 0)
        return sd;
    (void)close(sd);
    return ret;
}

int zebd_http_listen(const char *where, bool any, uint16_t *port, std::string *why)
{
    std::string addr;
    std::string digits;
    if (!split(where, &addr, &digits) || !to_port(digits, port)) {
        *why = "'" + std::string(where) + "' is no ADDRESS:PORT, as 127.0.0.1:8080 and [::1]:8080 are";
        return -EINVAL;
    }
    addr = addr == "localhost" ? "127.0.0.1" : addr;
    if (!is_address(addr)) {
        *why = "'" + addr + "' is no address: names are not looked up";
        return -EINVAL;
    }
    if (!any && !is_loopback(addr)) {
        *why = addr + " can be reached from other machines, and the page asks nobody who he is; --http-any serves it "
                      "there all the same";
        return -EPERM;
    }
    int sd = listen_at(addr, port);
    if (sd < 0)
        *why = "cannot listen on " + std::string(where) + ": " + strerror(-sd);
    return sd;
}
