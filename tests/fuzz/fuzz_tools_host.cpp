// The Host header of a request to the live page: a name that is taken for ours is one of the loopback device, or an
// address in digits where those are allowed, and what is taken without them is taken with them.
#include <arpa/inet.h>
#include <strings.h>

#include "fuzz_tools.h"
#include "zebd_http_addr.h"

using tools::require;

// The name without a port and brackets.
static std::string bare(const std::string &host)
{
    if (!host.empty() && host.front() == '[')
        return host.substr(1, host.find(']') - 1);
    return host.substr(0, host.find(':'));
}

static bool is_loopback(const std::string &name)
{
    struct in_addr addr4 = {};
    struct in6_addr addr6 = {};
    if (inet_pton(AF_INET, name.c_str(), &addr4) == 1)
        return ntohl(addr4.s_addr) >> 24 == 127;
    return inet_pton(AF_INET6, name.c_str(), &addr6) == 1 && IN6_IS_ADDR_LOOPBACK(&addr6);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tools::input_t input(data, size);
    std::string host = input.rest();
    host = host.c_str(); // as a header comes: no byte 0 in it
    bool ours = zebd_http_host_is_ours(host.c_str(), false);
    bool ours_with_any = zebd_http_host_is_ours(host.c_str(), true);
    std::string name = bare(host);
    require(!ours || ours_with_any);
    require(!ours || strcasecmp(name.c_str(), "localhost") == 0 || is_loopback(name));
    require(!ours_with_any || ours || name.find_first_not_of("0123456789abcdefABCDEF.:") == std::string::npos);
    return 0;
}
