#include "fuzz_tools.h"
#include "ops_session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace tools
{
int64_t g_now;
std::deque<datagram_t> g_arrived;
std::vector<bytes_t> g_sent;
int g_fail_sends, g_fail_errno;
const void *g_event;
size_t g_event_len;
} // namespace tools

using namespace tools;

int64_t ops_wall() // its source has a session, which no target needs
{
    return g_now;
}

extern "C" {
int64_t __wrap__Z7ops_nowv()
{
    return g_now;
}

ssize_t __wrap_sendto(int, const void *bytes, size_t len, int, const struct sockaddr *, socklen_t)
{
    if (g_fail_sends > 0) {
        g_fail_sends--;
        errno = g_fail_errno;
        return -1;
    }
    g_sent.emplace_back((const uint8_t *)bytes, (const uint8_t *)bytes + len);
    return (ssize_t)len;
}

ssize_t __wrap_recvmsg(int, struct msghdr *read, int)
{
    if (g_arrived.empty()) {
        errno = EAGAIN;
        return -1;
    }
    datagram_t datagram = g_arrived.front();
    g_arrived.pop_front();
    size_t len = std::min(datagram.bytes.size(), read->msg_iov[0].iov_len);
    size_t control_len = std::min(datagram.control.size(), (size_t)read->msg_controllen);
    if (len != 0)
        memcpy(read->msg_iov[0].iov_base, datagram.bytes.data(), len);
    if (control_len != 0)
        memcpy(read->msg_control, datagram.control.data(), control_len);
    read->msg_controllen = control_len;
    read->msg_flags = datagram.flags | (len < datagram.bytes.size() ? MSG_TRUNC : 0);
    return (ssize_t)len;
}

ssize_t __wrap_recv(int, void *buffer, size_t size, int)
{
    if (g_event == nullptr) {
        errno = EAGAIN;
        return -1;
    }
    size_t len = std::min(size, g_event_len);
    memcpy(buffer, g_event, len);
    g_event = nullptr;
    return (ssize_t)len;
}
}
