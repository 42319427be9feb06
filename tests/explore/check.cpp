#include "check.h"

const char *violation_text(violation_t violation)
{
    static const char *const texts[VIOLATION_NUM] = {
        "ok",         "join-twice",    "quit-without-join", "message-without-join", "online-withdrawn", "growth",
        "not-online", "other-process", "no-server",         "online-with-nobody",   "not-joined",       "not-quiet",
        "storm",
    };
    return texts[violation];
}

static void do_op(world_t *world, op_t op, int a, int b)
{
    (void)apply(world, {op, (uint8_t)a, (uint8_t)b, 0, 0});
}

// Kills the older of two processes at one place: the newer one was to stay.
static void end_overlap(world_t *world, int place)
{
    proc_t *first = &world->proc[2 * place];
    proc_t *second = first + 1;
    if (first->alive && second->alive)
        do_op(world, OP_KILL, first->pid < second->pid ? first->index : second->index, 0);
}

static void end_faults(world_t *world)
{
    for (int place = 0; place < PLACE_NUM; place++)
        end_overlap(world, place);
    for (proc_t &proc : world->proc) {
        proc.fail_open = 0;
        proc.fail_timer = 0;
        proc.fail_send = 0;
        proc.fail_ack = 0;
        do_op(world, OP_BIND, proc.index, 0);
    }
    for (int a = 1; a < NODE_NUM; a++) {
        for (int b = a + 1; b < NODE_NUM; b++)
            do_op(world, OP_HEAL, a, b);
    }
}

// Lets everything happen as early as it can, until `end` or until nothing more can happen.
static void run_until(world_t *world, uint32_t end)
{
    while (world->violation == VIOLATION_NONE) {
        action_t action;
        uint32_t when = next_by_itself(world, ORDER_EARLIEST, &action);
        uint32_t expiry = next_timer(world);
        bool timer = expiry < when;
        uint32_t next = timer ? expiry : when;
        if (next > end)
            return;
        if (timer || when > world->now)
            (void)apply(world, {OP_WAIT, 0, 0, 0, next > world->now ? next - world->now : 0});
        if (!timer)
            (void)apply(world, action);
    }
}

typedef struct pair_s {
    const proc_t *proc;
    int name; // of the process's application
    const proc_t *peer;
    int peer_name;
} pair_t;

// Finds the pair by its last synchronisation. Its sync_ack_id may hold another identity although the pair is online: an
// acknowledgement without a pseq, of a second process that has gone since, leaves it there.
static const zeb_inst_id_t *find_inst_id(const zeb_handshake_t *hs, zeb_inst_t peer, uint32_t pid)
{
    return indexed_list_find_if(&hs->inst_id, zeb_inst_key(peer),
                                [&](const zeb_inst_id_t *id) { return id->sync_id == pid; });
}

static void check_pair(world_t *world, const pair_t *pair)
{
    zeb_inst_t peer = name_inst(world, pair->peer_name);
    const char *text = proc_text(pair->proc->index);
    if (!zeb_hs_get_inst_state(&pair->proc->hs, peer).online) {
        violate(world, VIOLATION_NOT_ONLINE, "%s is not online with %u/%u", text, peer.app, peer.node);
        return;
    }
    if (find_inst_id(&pair->proc->hs, peer, pair->peer->pid) == nullptr) {
        violate(world, VIOLATION_OTHER_PROCESS, "%s is online with a process of %u/%u that is not there any more", text,
                peer.app, peer.node);
        return;
    }
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(&pair->proc->hs, peer.app);
    bool server = name_app(world, pair->peer_name)->server;
    if (zeb_app_set_test(&ol->srv_bmp, peer.node) != server) {
        violate(world, VIOLATION_NO_SERVER, "%s takes %u/%u for %s server", text, peer.app, peer.node,
                server ? "no" : "a");
        return;
    }
    if (pair->proc->joined[pair->peer_name] != server)
        violate(world, VIOLATION_NOT_JOINED, "%s was not told that server %u/%u is online", text, peer.app, peer.node);
}

static const proc_t *proc_at(const world_t *world, int name)
{
    const proc_t *proc = &world->proc[name / APP_NUM * 2];
    return proc->alive ? proc : proc + 1;
}

static void check_nobody(world_t *world, const proc_t *proc, int peer_name)
{
    zeb_inst_t peer = name_inst(world, peer_name);
    if (zeb_hs_get_inst_state(&proc->hs, peer).online)
        violate(world, VIOLATION_ONLINE_WITH_NOBODY, "%s is online with %u/%u, which does not exist",
                proc_text(proc->index), peer.app, peer.node);
}

static void check_names(world_t *world, int name, int peer_name)
{
    uint32_t app = name_app(world, name)->app;
    uint32_t peer = name_app(world, peer_name)->app;
    if (app == 0 || peer == 0 || !app_names(world, name, peer))
        return;
    pair_t pair = {proc_at(world, name), name, proc_at(world, peer_name), peer_name};
    if (!pair.proc->alive)
        return;
    if (!pair.peer->alive)
        check_nobody(world, pair.proc, peer_name);
    else if (app_names(world, peer_name, app))
        check_pair(world, &pair);
}

void check_quiet(world_t *world)
{
    for (int name = 0; name < NAME_NUM && world->violation == VIOLATION_NONE; name++) {
        for (int peer = 0; peer < NAME_NUM; peer++)
            check_names(world, name, peer);
    }
}

uint32_t calm_down(world_t *world)
{
    uint32_t begin = world->now;
    world->untimed = false;
    end_faults(world);
    run_until(world, begin + CALM_BOUND);
    uint32_t took = world->last_send > begin ? world->last_send - begin : 0;
    check_quiet(world);
    if (world->violation != VIOLATION_NONE)
        return took;
    uint32_t quiet_from = world->now;
    run_until(world, begin + CALM_BOUND + STAY_TIME);
    if (world->last_send > quiet_from)
        violate(world, VIOLATION_NOT_QUIET, "a core still sends %u ms after the last fault", world->last_send - begin);
    check_quiet(world);
    return took;
}
