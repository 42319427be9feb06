// The half of a session that goes by the zebd of this node: one stream socket, a JSON record in each line. What follows
// is for ops_session.cpp; each call is the one of the session of that name.
//
// A zebd that goes away is -EPIPE. Then the socket is closed, and ops_link_open() tries the next one.
#ifndef OPS_LINK_H
#define OPS_LINK_H

#include "ops_session.h"

// Connects. 0; -ECONNREFUSED when no zebd serves there; -EACCES when it refuses this user; -ETIMEDOUT when it is
// stopped or hangs; -EXDEV when it serves another node. `why` is set.
int ops_link_open(ops_session_t *session, int64_t deadline);
void ops_link_close(ops_session_t *session);

int ops_link_view(ops_session_t *session, std::vector<ops_seen_t> *seen, int64_t deadline);
int ops_link_ask(ops_session_t *session, std::vector<ops_request_t> *requests, int64_t timeout);
int ops_link_processes(ops_session_t *session, uint32_t node, const std::vector<int32_t> &pids,
                       std::vector<ops_process_t> *processes, int64_t timeout);
int ops_link_log(ops_session_t *session, uint32_t node, int32_t pid, int64_t offset, std::string *text, int64_t *next,
                 int64_t timeout);

// Begins to follow; events come into session->events from then on.
int ops_link_follow(ops_session_t *session, int64_t since, int64_t deadline);

// Waits until an event is in session->events. 0, -ETIMEDOUT or -EPIPE.
int ops_link_wait_event(ops_session_t *session, int64_t deadline);

#endif
