// What the fuzz targets of the operators' programs share: an input that is read from front to back, and the system
// calls below the view and the client. One thread.
#ifndef TESTS_FUZZ_TOOLS_H
#define TESTS_FUZZ_TOOLS_H

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

namespace tools
{
typedef std::vector<uint8_t> bytes_t;

inline void require(bool holds)
{
    if (!holds)
        abort();
}

// Zeros and empty texts once it has ended.
class input_t
{
  public:
    input_t(const uint8_t *data, size_t size) : at_(data), end_(data + size)
    {
    }

    bool empty() const
    {
        return at_ == end_;
    }

    uint32_t number(size_t bytes = 1) // big-endian
    {
        uint32_t value = 0;
        for (size_t i = 0; i < bytes && !empty(); i++)
            value = value << 8 | *at_++;
        return value;
    }

    bytes_t bytes(size_t len)
    {
        len = len < (size_t)(end_ - at_) ? len : (size_t)(end_ - at_);
        bytes_t out(at_, at_ + len);
        at_ += len;
        return out;
    }

    std::string rest()
    {
        std::string out((const char *)at_, (size_t)(end_ - at_));
        at_ = end_;
        return out;
    }

  private:
    const uint8_t *at_;
    const uint8_t *end_;
};

struct datagram_t { // as recvmsg gives it
    bytes_t bytes;
    bytes_t control;
    int flags;
};

extern int64_t g_now;                    // ms, of ops_now()
extern std::deque<datagram_t> g_arrived; // what the client reads next
extern std::vector<bytes_t> g_sent;      // what it has sent
extern int g_fail_sends, g_fail_errno;   // the next so many
extern const void *g_event;              // what the view reads next; null: nothing has come
extern size_t g_event_len;
} // namespace tools

#endif
