// Addresses of the live page. One thread; nothing is kept between calls, and no name is looked up.
#ifndef ZEBD_HTTP_ADDR_H
#define ZEBD_HTTP_ADDR_H

#include <cstdint>
#include <string>

// A socket that listens on "ADDR:PORT" or "[ADDR]:PORT", and the port that it got; or a negative errno value, and `why`
// says what was wrong: -EPERM for an address that is not of the loopback device, unless `any`.
int zebd_http_listen(const char *where, bool any, uint16_t *port, std::string *why);

// Whether the Host header of a request names us. A page of another site can make a name of its own point here and have
// the browser ask, but then this header has that name. So only names of the loopback device are ours; and with `any`
// addresses in digits, which no name stands behind.
bool zebd_http_host_is_ours(const char *host, bool any);

#endif
