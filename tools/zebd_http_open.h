// The page in zebd's loop: one descriptor, one timer, and a follower of events while a browser shows the page, so that
// instances are asked more often then.
#ifndef ZEBD_HTTP_OPEN_H
#define ZEBD_HTTP_OPEN_H

#include "zebd_http.h"
#include "zebd_peer.h"

typedef struct zebd_http_page_s {
    zebd_loop_t *loop;
    zebd_peer_t *peer;
    zebd_http_t http;
    zebd_entry_t watch, timer, follower;
} zebd_http_page_t;

// Serves at `addr`, as zebd_http_start does. The record is zero but for `loop`, `peer` and `http.model`, and stays
// where it is. 0 and the page's address is in `text`, or a negative errno value and `text` says why.
int zebd_http_open(zebd_http_page_t *page, const char *addr, bool any, std::string *text);
void zebd_http_close(zebd_http_page_t *page); // a record that is zero, too

#endif
