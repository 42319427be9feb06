#include "probe_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

std::string str(long long value)
{
    return std::to_string(value);
}

std::string result(ssize_t ret)
{
    return ret < 0 ? strerrorname_np(errno) : str(ret);
}

long option(const words &w, const std::string &key, long otherwise)
{
    for (const std::string &word : w) {
        if (word.compare(0, key.size() + 1, key + "=") == 0)
            return strtol(word.c_str() + key.size() + 1, nullptr, 0);
    }
    return otherwise;
}

bool has(const words &w, const std::string &word)
{
    return std::find(w.begin(), w.end(), word) != w.end();
}

uint32_t number(const std::string &word)
{
    return (uint32_t)strtoll(word.c_str(), nullptr, 0);
}

words split(const std::string &text, char by)
{
    words parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, by);)
        parts.push_back(part);
    return parts;
}

struct sockaddr_tipc address(const std::string &text)
{
    words p = split(text, ':');
    p.resize(6, "0");
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    addr.family = AF_TIPC;
    size_t at = 1;
    if (p[0] == "raw") {
        addr.family = (unsigned short)number(p[1]);
        addr.addrtype = (unsigned char)number(p[2]);
        at = 3;
    } else {
        addr.addrtype = p[0] == "name" ? TIPC_ADDR_NAME : p[0] == "range" ? TIPC_ADDR_NAMESEQ : TIPC_ADDR_ID;
    }
    // Each of the three kinds of address has up to three numbers, in the same place.
    addr.addr.nameseq.type = number(p[at]);
    addr.addr.nameseq.lower = number(p[at + 1]);
    addr.addr.nameseq.upper = number(p[at + 2]);
    return addr;
}

std::string id_text(const struct tipc_portid &id)
{
    return "id:" + str(id.ref) + ":" + str(id.node);
}

bytes message(uint32_t num, size_t len)
{
    bytes data(len);
    for (size_t i = 0; i < len; i++)
        data[i] = (unsigned char)(num + i * 7 + (i >> 8));
    memcpy(data.data(), &num, std::min(len, sizeof(num)));
    return data;
}

std::string described(const unsigned char *data, size_t len, const std::string &prefix)
{
    uint32_t num = 0;
    memcpy(&num, data, std::min(len, sizeof(num)));
    bytes right = message(num, len);
    bool intact = len == 0 || memcmp(data, right.data(), len) == 0;
    return " " + prefix + "num=" + str(num) + " " + prefix + "data=" + (intact ? "intact" : "damaged");
}
