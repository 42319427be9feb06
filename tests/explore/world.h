// A few processes with the handshake's core, over a model of TIPC that does what the kernel does. Time is virtual.
// Whatever may happen in more than one order is an action, and the caller chooses the order. The same actions in the
// same order give the same world.
#ifndef EXPLORE_WORLD_H
#define EXPLORE_WORLD_H

#include <cstdint>
#include <string>
#include <vector>

#include "zeb_handshake.h"

constexpr int PLACE_NUM = 4;            // where a process runs; its successor may overlap with it
constexpr int PROC_NUM = 2 * PLACE_NUM; // process p runs at place p / 2
constexpr int APP_NUM = 2;              // of a place
constexpr int NAME_NUM = PLACE_NUM * APP_NUM;
constexpr int NODE_NUM = 5; // nodes 1 to 4
constexpr int PEER_NUM = 7; // applications that one application names
constexpr int CHANNEL_NUM = PROC_NUM * PROC_NUM * APP_NUM;
constexpr int QUEUE_ROOM = 64;
constexpr int TIMER_ROOM = 128;

constexpr uint32_t EVENT_DELAY_MAX = 2000;    // ms from an event's happening to its being read, at most
constexpr uint32_t REOPEN_PERIOD = 2000;      // ms from one attempt to reopen the topology connection to the next
constexpr uint32_t REPORT_TIME = 2000;        // ms after which a new connection has reported what there is
constexpr uint32_t TOLERANCE = 1500;          // ms from a link's cut to its being noticed
constexpr uint32_t TOLERANCE_DELAY_MAX = 500; // ms by which one side may be later
constexpr uint32_t MINUTE = 60000;            // ms from one call of zeb_hs_minute to the next
constexpr uint32_t NEVER = UINT32_MAX;

typedef struct app_config_s {
    uint32_t app; // 0: there is none
    bool server;
    uint32_t peer[PEER_NUM]; // applications that it names; 0: none
} app_config_t;

typedef struct place_config_s {
    uint32_t node; // 0: there is no such place
    uint8_t ver;   // of its messages
    app_config_t app[APP_NUM];
} place_config_t;

typedef struct config_s {
    place_config_t place[PLACE_NUM];
    bool self;          // each application names itself too, as it does in the library
    uint32_t delay_min; // of a message, ms
    uint32_t delay_max;
    bool untimed; // nothing is overdue until faults end
    // A server's message may be read before its join: each application of a process reads a socket of its own. What one
    // of them reads of a pair that begins anew may overtake what was sent to another.
    bool early;
} config_t;

typedef enum op_e : uint8_t {
    OP_WAIT,       // value: ms
    OP_RECV,       // a, b, c: process b reads the next message from process a for its application c
    OP_REROUTE,    // same; b is dead, and another process of its place takes the message
    OP_DROP,       // same; b is dead, and the message is lost
    OP_DROP_LAST,  // a, b, c: the link between them is cut, and the last message was still on it
    OP_EVENT,      // a: process a reads its topology connection
    OP_NAMES,      // a, b: node b learns of the next change of names on node a
    OP_NOTICE,     // a, b: node a takes its link to node b for lost
    OP_SEND,       // a, b: application a % 2 of process a / 2 sends to name b, when that is an online server
    OP_START,      // a: process a starts
    OP_KILL,       // a
    OP_UNBIND,     // a: process a's names are withdrawn
    OP_BIND,       // a
    OP_CUT,        // a, b: the link between nodes a and b
    OP_HEAL,       // a, b
    OP_LOSE,       // a, b: process a's topology connection; b: LOSE_ bits
    OP_FAIL_OPEN,  // a, b: process a's next b attempts to open a topology connection fail
    OP_FAIL_TIMER, // a, b: the next b starts of timers on an open connection
    OP_FAIL_SEND,  // a, b: the next b sends of synchronisations
    OP_FAIL_ACK,   // a, b: the next b sends of acknowledgements
    OP_PICK,       // a, b: of two processes that have a name of place a, the b-th receives what is sent to it
    OP_NUM,
} op_t;

constexpr uint8_t LOSE_SAYS_NOTCONN = 1; // a timer's start then says -ENOTCONN, otherwise -1
constexpr uint8_t LOSE_WITH_EVENTS = 2;  // those that are not read yet are lost too

typedef struct action_s {
    op_t op;
    uint8_t a;
    uint8_t b;
    uint8_t c;
    uint32_t value;
} action_t;

typedef enum kind_e : uint8_t {
    KIND_SYNC,
    KIND_ACK,
    KIND_RETURNED_ACK,
    KIND_TRAFFIC,
} kind_t;

typedef struct message_s {
    kind_t kind;
    uint8_t ver;
    uint8_t from; // name of the application that sent it; of a returned one: to which it was sent
    uint8_t to;   // name of the application that reads it
    bool doomed;  // sent into a cut link
    uint32_t src_pid;
    uint32_t dst_pid;
    uint32_t sent;
    uint32_t due;
    zeb_msg_sync_inst_ack_t body;
} message_t;

typedef struct event_s {
    uint8_t kind; // as in TIPC: published, withdrawn, timed out
    uint8_t name;
    uint32_t sent;
    uint32_t due;
    zeb_timer_t timer;
} event_t;

typedef struct name_change_s {
    uint8_t name;
    uint8_t sub; // which process of the place
    bool bound;
    uint32_t sent;
    uint32_t due;
} name_change_t;

template <typename T>
struct ring {
    uint32_t first;
    uint32_t num;
    T item[QUEUE_ROOM];
};

template <typename T>
static inline T *ring_at(ring<T> *queue, uint32_t i)
{
    return &queue->item[(queue->first + i) % QUEUE_ROOM];
}

typedef enum connection_e : uint8_t {
    CONNECTION_OPEN,
    CONNECTION_DYING,  // lost, not noticed yet
    CONNECTION_CLOSED, // noticed, and no new one yet
} connection_t;

typedef struct pending_timer_s {
    uint32_t expiry;
    zeb_timer_t timer;
} pending_timer_t;

struct world_s;

typedef struct proc_s {
    struct world_s *world;
    int index;
    uint32_t pid;
    uint32_t seq;
    bool alive;
    bool bound;
    zeb_handshake_t hs;
    connection_t connection;
    bool dying_says_notconn;
    uint32_t retry_at; // of reading a connection that is not open
    uint32_t started;
    uint32_t minute_at; // of the last call of zeb_hs_minute
    uint32_t report_at; // from when on, with nothing left to read, a new connection has reported all; NEVER: it has
    ring<event_t> events;
    int timer_num;
    uint32_t timer_next;
    pending_timer_t timer[TIMER_ROOM];
    int fail_open;
    int fail_timer;
    int fail_send;
    int fail_ack;
    bool joined[NAME_NUM];
    bool withdrawn[NAME_NUM]; // by the last event of the name
} proc_t;

typedef enum violation_e : int {
    VIOLATION_NONE,
    VIOLATION_JOIN_TWICE,
    VIOLATION_QUIT_WITHOUT_JOIN,
    VIOLATION_MESSAGE_WITHOUT_JOIN,
    VIOLATION_ONLINE_WITHDRAWN,
    VIOLATION_GROWTH,
    VIOLATION_NOT_ONLINE,
    VIOLATION_OTHER_PROCESS,
    VIOLATION_NO_SERVER,
    VIOLATION_ONLINE_WITH_NOBODY,
    VIOLATION_NOT_JOINED,
    VIOLATION_NOT_QUIET,
    VIOLATION_STORM,
    VIOLATION_NUM,
} violation_t;

typedef struct world_s {
    config_t config;
    uint64_t rng; // 0: no delay but the smallest
    uint32_t now;
    uint32_t pid; // last one given
    bool untimed; // nothing is overdue
    bool verbose;
    uint64_t channel_mask[CHANNEL_NUM / 64]; // those that hold messages
    ring<message_t> channel[CHANNEL_NUM];
    uint32_t names_num; // changes under way, on all links
    ring<name_change_t> names[NODE_NUM][NODE_NUM];
    uint8_t view[NODE_NUM][NAME_NUM]; // processes of a name's place that have it, as a node knows: bits
    bool cut[NODE_NUM][NODE_NUM];
    bool noticed[NODE_NUM][NODE_NUM];
    bool links_cut; // some are
    uint32_t cut_at[NODE_NUM][NODE_NUM];
    uint8_t pick[PLACE_NUM];
    bool subscribed[PLACE_NUM][NAME_NUM];
    proc_t proc[PROC_NUM];
    uint32_t run_steps;
    uint64_t steps; // of all runs, as is the next
    uint64_t core_sends;
    uint32_t last_send; // of a core
    uint32_t last_online_change;
    violation_t violation; // the first
    char text[160];        // of it
} world_t;

// The world is large: it is made once and used for many runs.
world_t *world_new();
void world_free(world_t *world);
void world_init(world_t *world, const config_t *config);

// Does the action. False: it cannot happen now.
bool apply(world_t *world, action_t action);
bool is_enabled(const world_t *world, action_t action);

// When what waits is read: when it is due, as early as possible, or as late as possible.
typedef enum order_e : int {
    ORDER_DUE,
    ORDER_EARLIEST,
    ORDER_LATEST,
} order_t;

// What happens next without a choice of the caller, and when; NEVER: nothing waits. Timers are not included: they
// expire in OP_WAIT.
uint32_t next_by_itself(world_t *world, order_t order, action_t *action);
uint32_t next_timer(const world_t *world);
bool has_unanswered(const proc_t *proc); // a synchronisation that zeb_hs_minute may send again

void violate(world_t *world, violation_t violation, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Names. A name is an application of a place.
static inline int name_of(int place, int app)
{
    return place * APP_NUM + app;
}

static inline const app_config_t *name_app(const world_t *world, int name)
{
    return &world->config.place[name / APP_NUM].app[name % APP_NUM];
}

static inline zeb_inst_t name_inst(const world_t *world, int name)
{
    return {name_app(world, name)->app, world->config.place[name / APP_NUM].node};
}

int name_index(const world_t *world, zeb_inst_t inst);        // -1: no name
bool app_names(const world_t *world, int name, uint32_t app); // whether the name's application names another
uint32_t proc_node(const proc_t *proc);
const char *proc_text(int proc); // "A0"

static inline int channel_index(int src, int dst, int app)
{
    return (src * PROC_NUM + dst) * APP_NUM + app;
}

static inline uint64_t next_random(uint64_t *state)
{
    *state ^= *state << 13;
    *state ^= *state >> 7;
    *state ^= *state << 17;
    return *state;
}

#endif
