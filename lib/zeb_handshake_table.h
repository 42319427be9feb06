// The state machine of the handshake, drawn once: what each event does to a pair of a local application and a remote
// instance that the application has named, when no other local application talks to that instance. An event without a
// row for a phase leaves the phase as it is and has no visible effect. The library does not run on this table: a test
// takes the core through every state that it can reach and compares each step with the table, and docs/handshake.svg is
// made from it.
//
// These rules hold for every row and appear in none:
// - A SYNC that cannot be sent is not pending: the pair is then idle where the row says waiting, and half where the row
//   says crossed. Instead of the SYNC, the resume timer is started for another attempt, unless nobody has the name:
//   then an event says when somebody has it. If the event is a SYNC of the peer's, the resume timer for a peer that
//   has synchronised is started as well.
// - The resume timer of a row is not started while a SYNC of ours is pending.
// - A SYNC from another process than that of the last SYNC, with no withdrawal in between, starts a resume timer before
//   anything else, whatever the row says: two processes have the name, and the one that stays is asked later. Only the
//   first such SYNC does. If the process changes again before the time-out, the timer is started again at the time-out.
//   All timers are lost with a topology connection; a new connection starts this one again.
// - A join or a quit is notified only of a server: of an instance that is known to be one by then.
// - An acknowledgement that we send carries as its pseq the sequence number of our last SYNC, once the process that
//   synchronised is also the one that acknowledged. Until then its pseq is 0.
// - A SYNC from a peer of version 2 starts the retry timer unless the timer is running, and puts the pair in the retry
//   list if a SYNC of ours is pending then. An acknowledgement of version 2 before the peer's SYNC starts the timer
//   too, and puts the pair in the list. At its time-out the timer is started again while a pair is in the list.
// - A retry time-out sends every pending SYNC of the pair again. A minute sends each SYNC that is that old again, once.
//   More than one may be pending, because a SYNC that could not be sent may be sent after another one. The phases acked
//   and online do not say whether a SYNC is pending.
//
// The table leaves out what needs a second local application: the peer's instance is online through the other
// application's handshake, and this pair begins anew alone (after a foreign pseq), or is asked together with the other
// pair (after two processes had the name). Other tests cover that.
#ifndef ZEB_HANDSHAKE_TABLE_H
#define ZEB_HANDSHAKE_TABLE_H

#include "zeb_handshake_state.h"

typedef enum zeb_pair_event_e : int {
    ZEB_PAIR_PUBLISHED,
    ZEB_PAIR_PUBLISHED_AGAIN, // by a new topology connection; the instance was known when the old one was lost
    ZEB_PAIR_WITHDRAWN,       // or not reported by a new topology connection
    ZEB_PAIR_SYNC,            // without the resume mark, and neither of the next two
    ZEB_PAIR_SYNC_NEW,        // not the peer's last one, which we remember although it no longer counts
    ZEB_PAIR_SYNC_OTHER,      // acked or online: not from the process that acknowledged ours
    ZEB_PAIR_SYNC_RESUME,     // with the resume mark
    ZEB_PAIR_ACK,             // of a pending SYNC: its pseq is the peer's last SYNC, or it is of version 1
    ZEB_PAIR_ACK_OTHER,       // the same, but not from the process that synchronised
    ZEB_PAIR_ACK_FOREIGN, // of a pending SYNC, with another pseq, which is not 0; when online: not the next event, and
                          // not from the process of the last SYNC, or that one was withdrawn since
    ZEB_PAIR_ACK_FOREIGN_OTHER, // the same when online: not from the process that synchronised and acknowledged
    ZEB_PAIR_MESSAGE,           // an ordinary message of an instance that is not online
    ZEB_PAIR_RETRY,             // a retry time-out
    ZEB_PAIR_MINUTE,            // a SYNC of ours has been pending for a whole minute
    ZEB_PAIR_RETRY_3,           // the third, of a pair in the retry list with nothing pending and no SYNC from the peer
    ZEB_PAIR_RESUME,            // the resume time-out of a peer that has synchronised
    ZEB_PAIR_RESUME_UNSENT,     // the one of a SYNC that could not be sent
    ZEB_PAIR_RESUME_OTHER,      // the one of a name that two processes had; when online: with nothing pending
    ZEB_PAIR_EVENT_NUM,
} zeb_pair_event_t;

// Bits, in the order in which the actions are done.
typedef enum zeb_pair_action_e : unsigned {
    ZEB_PAIR_DO_NOTHING = 0,
    ZEB_PAIR_DO_QUIT = 1,        // a quit is notified
    ZEB_PAIR_DO_SYNC = 2,        // a SYNC is sent
    ZEB_PAIR_DO_SYNC_RESUME = 4, // a SYNC with the resume mark is sent
    ZEB_PAIR_DO_RESEND = 8,      // what is pending is sent again
    ZEB_PAIR_DO_ACK = 16,
    ZEB_PAIR_DO_JOIN = 32,  // a join is notified
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
