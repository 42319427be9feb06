// The handshake's state machine, drawn once: what each event does to a pair of a local application and a remote
// instance that it has named, when no other local application talks to that instance. An event that has no row for a
// phase leaves the phase as it is and does nothing that shows. The library does not run on this table; a test walks the
// core through every state that it can reach and holds each step against it, and docs/handshake.svg is made from it.
//
// What holds for every row and is in none:
// - A SYNC that cannot be sent is not pending: the pair is then idle where the row says waiting, and half where it says
//   crossed. In its place the resume timer is started, for another attempt, unless nobody has the name: then an event
//   tells when somebody has. After a SYNC of the peer's that starts the resume timer of the row too.
// - The resume timer of a row is not started while a SYNC of ours is pending.
// - The first SYNC from another process than that of the last one, without a withdrawal in between, starts a resume
//   timer before anything else, whatever the row: two processes have the name, and the one that stays is asked later.
//   When the process changes once more before the time-out, the timer is started again then. A new topology connection,
//   with which all timers are lost, starts this one again.
// - Joins and quits are notified of servers alone: of an instance that is known as one by then.
// - An acknowledgement carries a pseq, the sequence number of our last SYNC, once the process that synchronised is the
//   one that acknowledged; before that it carries 0.
// - A SYNC from a peer of version 2 starts the retry timer unless that is pending. It runs on while a pair whose SYNC
//   was pending then is in the retry list. So it is with an acknowledgement of version 2 before the peer's SYNC, which
//   puts the pair there.
// - A retry sends again every SYNC of the pair's that is pending, a minute each that is that old, once: one that could
// not be sent may follow another. Acked and
//   online do not say whether one is.
//
// What is not told here, since it needs a second local application: the peer's instance is online by another
// application's handshake, and this pair begins anew alone (a foreign pseq), or is asked together with the other's
// (two processes). Other tests hold that.
#ifndef ZEB_HANDSHAKE_TABLE_H
#define ZEB_HANDSHAKE_TABLE_H

#include "zeb_handshake_state.h"

typedef enum zeb_pair_event_e : int {
    ZEB_PAIR_PUBLISHED,
    ZEB_PAIR_PUBLISHED_AGAIN, // by a new topology connection, of an instance that was known when the old one was lost
    ZEB_PAIR_WITHDRAWN,       // or not reported by a new topology connection
    ZEB_PAIR_SYNC,            // without resume mark, and neither of the next two
    ZEB_PAIR_SYNC_NEW,        // not the last of the peer's, which we remember though it does not count any more
    ZEB_PAIR_SYNC_OTHER,      // acked or online: not from the process that acknowledged ours
    ZEB_PAIR_SYNC_RESUME,     // with the resume mark
    ZEB_PAIR_ACK,             // of what is pending: with the peer's last SYNC as pseq, or of version 1
    ZEB_PAIR_ACK_OTHER,       // the same, but not from the process that synchronised
    ZEB_PAIR_ACK_FOREIGN, // of what is pending, with another pseq, which is not 0; online: not the next one, and not
                          // from the process of the last SYNC, or that was withdrawn since
    ZEB_PAIR_ACK_FOREIGN_OTHER, // the same when online: not from the process that did both
    ZEB_PAIR_MESSAGE,           // an ordinary one, of an instance that is not online
    ZEB_PAIR_RETRY,             // time-out
    ZEB_PAIR_MINUTE,            // a SYNC of ours has been pending for a whole minute
    ZEB_PAIR_RETRY_3,           // the third of a pair in the retry list with nothing pending and no SYNC of the peer's
    ZEB_PAIR_RESUME,            // time-out of a peer that has synchronised
    ZEB_PAIR_RESUME_UNSENT,     // of a SYNC that could not be sent
    ZEB_PAIR_RESUME_OTHER,      // of a name that two processes have used; online: with nothing pending
    ZEB_PAIR_EVENT_NUM,
} zeb_pair_event_t;

// Bits, in the order in which they are done.
typedef enum zeb_pair_action_e : unsigned {
    ZEB_PAIR_DO_NOTHING = 0,
    ZEB_PAIR_DO_QUIT = 1,        // notified
    ZEB_PAIR_DO_SYNC = 2,        // a SYNC is sent
    ZEB_PAIR_DO_SYNC_RESUME = 4, // one with the resume mark
    ZEB_PAIR_DO_RESEND = 8,      // what is pending is sent again
    ZEB_PAIR_DO_ACK = 16,
    ZEB_PAIR_DO_JOIN = 32,  // notified
    ZEB_PAIR_DO_AWAIT = 64, // the resume timer is started
} zeb_pair_action_t;

constexpr int ZEB_PAIR_ACTION_NUM = 7;

constexpr const char *ZEB_PAIR_EVENT_TEXTS[ZEB_PAIR_EVENT_NUM] = {
    "published",
    "published again",
    "withdrawn",
    "SYNC",
    "new SYNC",
    "SYNC, other process",
    "SYNC, resume mark",
    "ack",
    "ack, other process",
    "ack, foreign pseq",
    "ack, foreign pseq, other process",
    "message",
    "retry time-out",
    "pending for a minute",
    "third retry time-out",
    "resume time-out",
    "resume time-out, not sent",
    "resume time-out, two processes",
};

constexpr const char *ZEB_PAIR_ACTION_TEXTS[ZEB_PAIR_ACTION_NUM] = {
    "quit", "send SYNC", "send SYNC with resume mark", "send SYNC again", "send ack", "join", "start resume timer",
};

typedef struct zeb_pair_row_s {
    zeb_pair_phase_t phase;
    zeb_pair_event_t event;
    unsigned actions; // zeb_pair_action_t
    zeb_pair_phase_t next;
} zeb_pair_row_t;

// clang-format off
constexpr zeb_pair_row_t ZEB_PAIR_TABLE[] = {
    // phase            event                       actions                                                   next
    {ZEB_PAIR_IDLE,     ZEB_PAIR_PUBLISHED,         ZEB_PAIR_DO_SYNC,                                         ZEB_PAIR_WAITING},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_PUBLISHED_AGAIN,   ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_SYNC,              ZEB_PAIR_DO_ACK | ZEB_PAIR_DO_AWAIT,                      ZEB_PAIR_HALF},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_SYNC_NEW,          ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_SYNC_RESUME,       ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_MESSAGE,           ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_ACKED},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_RETRY_3,           ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_RESUME_UNSENT,     ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_IDLE,     ZEB_PAIR_RESUME_OTHER,      ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},

    {ZEB_PAIR_WAITING,  ZEB_PAIR_PUBLISHED,         ZEB_PAIR_DO_SYNC,                                         ZEB_PAIR_WAITING},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_PUBLISHED_AGAIN,   ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_WITHDRAWN,         ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_IDLE},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_SYNC,              ZEB_PAIR_DO_ACK,                                          ZEB_PAIR_CROSSED},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_SYNC_NEW,          ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_SYNC_RESUME,       ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_ACK,               ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_ACKED},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_ACK_OTHER,         ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_ACKED},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_ACK_FOREIGN,       ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_MESSAGE,           ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_ACKED},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_RETRY,             ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_WAITING},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_MINUTE,            ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_WAITING},
    {ZEB_PAIR_WAITING,  ZEB_PAIR_RESUME_OTHER,      ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},

    {ZEB_PAIR_HALF,     ZEB_PAIR_PUBLISHED,         ZEB_PAIR_DO_SYNC,                                         ZEB_PAIR_WAITING},
    {ZEB_PAIR_HALF,     ZEB_PAIR_PUBLISHED_AGAIN,   ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_HALF,     ZEB_PAIR_SYNC,              ZEB_PAIR_DO_ACK | ZEB_PAIR_DO_AWAIT,                      ZEB_PAIR_HALF},
    {ZEB_PAIR_HALF,     ZEB_PAIR_SYNC_RESUME,       ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_HALF,     ZEB_PAIR_MESSAGE,           ZEB_PAIR_DO_JOIN,                                         ZEB_PAIR_ONLINE},
    {ZEB_PAIR_HALF,     ZEB_PAIR_RESUME,            ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_HALF,     ZEB_PAIR_RESUME_UNSENT,     ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_CROSSED},
    {ZEB_PAIR_HALF,     ZEB_PAIR_RESUME_OTHER,      ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},

    {ZEB_PAIR_CROSSED,  ZEB_PAIR_PUBLISHED,         ZEB_PAIR_DO_SYNC,                                         ZEB_PAIR_WAITING},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_PUBLISHED_AGAIN,   ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_WITHDRAWN,         ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_HALF},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_SYNC,              ZEB_PAIR_DO_ACK,                                          ZEB_PAIR_CROSSED},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_SYNC_RESUME,       ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_ACK,               ZEB_PAIR_DO_JOIN,                                         ZEB_PAIR_ONLINE},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_ACK_OTHER,         ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_ACKED},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_MESSAGE,           ZEB_PAIR_DO_JOIN,                                         ZEB_PAIR_ONLINE},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_RETRY,             ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_MINUTE,            ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_RESUME,            ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_CROSSED,  ZEB_PAIR_RESUME_OTHER,      ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},

    {ZEB_PAIR_ACKED,    ZEB_PAIR_PUBLISHED,         ZEB_PAIR_DO_SYNC,                                         ZEB_PAIR_WAITING},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_PUBLISHED_AGAIN,   ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_WITHDRAWN,         ZEB_PAIR_DO_NOTHING,                                      ZEB_PAIR_IDLE},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_SYNC,              ZEB_PAIR_DO_ACK | ZEB_PAIR_DO_JOIN,                       ZEB_PAIR_ONLINE},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_SYNC_NEW,          ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_SYNC_OTHER,        ZEB_PAIR_DO_ACK | ZEB_PAIR_DO_AWAIT,                      ZEB_PAIR_ACKED},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_SYNC_RESUME,       ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,                       ZEB_PAIR_CROSSED},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_ACK_FOREIGN,       ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_RETRY,             ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_ACKED},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_MINUTE,            ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_ACKED},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_RETRY_3,           ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_RESUME,            ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_RESUME_UNSENT,     ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_ACKED},
    {ZEB_PAIR_ACKED,    ZEB_PAIR_RESUME_OTHER,      ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_WAITING},

    {ZEB_PAIR_ONLINE,   ZEB_PAIR_PUBLISHED,         ZEB_PAIR_DO_QUIT | ZEB_PAIR_DO_SYNC,                      ZEB_PAIR_WAITING},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_PUBLISHED_AGAIN,   ZEB_PAIR_DO_QUIT | ZEB_PAIR_DO_SYNC_RESUME,               ZEB_PAIR_WAITING},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_WITHDRAWN,         ZEB_PAIR_DO_QUIT,                                         ZEB_PAIR_IDLE},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_SYNC,              ZEB_PAIR_DO_ACK,                                          ZEB_PAIR_ONLINE},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_SYNC_OTHER,        ZEB_PAIR_DO_QUIT | ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,    ZEB_PAIR_CROSSED},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_SYNC_RESUME,       ZEB_PAIR_DO_QUIT | ZEB_PAIR_DO_SYNC | ZEB_PAIR_DO_ACK,    ZEB_PAIR_CROSSED},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_ACK_FOREIGN,       ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_ONLINE},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_ACK_FOREIGN_OTHER, ZEB_PAIR_DO_QUIT | ZEB_PAIR_DO_SYNC_RESUME,               ZEB_PAIR_WAITING},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_RETRY,             ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_ONLINE},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_MINUTE,            ZEB_PAIR_DO_RESEND,                                       ZEB_PAIR_ONLINE},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_RESUME,            ZEB_PAIR_DO_QUIT | ZEB_PAIR_DO_SYNC_RESUME,               ZEB_PAIR_WAITING},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_RESUME_UNSENT,     ZEB_PAIR_DO_SYNC_RESUME,                                  ZEB_PAIR_ONLINE},
    {ZEB_PAIR_ONLINE,   ZEB_PAIR_RESUME_OTHER,      ZEB_PAIR_DO_SYNC,                                         ZEB_PAIR_ONLINE},
};
// clang-format on

#endif
