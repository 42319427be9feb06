// Both kinds of group work alike. app_kind and node_kind hold what differs: the list, the range of ids, what an
// empty member slot holds, and the words of the log lines.
#include "zeb_mc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_gate.h"
#include "zeb_slot.h"

constexpr int32_t APP_MC_ID_FIRST = 12288;
constexpr int32_t APP_MC_ID_LAST = 16383;
constexpr int32_t NODE_MC_ID_FIRST = 0x80000;
constexpr int32_t NODE_MC_ID_LAST = 0x8FFFF;

struct app_kind {
    typedef zeb_app_mc_t group_t;
    static constexpr const char *name = "app";
    static constexpr int32_t first_id = APP_MC_ID_FIRST;
    static constexpr int32_t last_id = APP_MC_ID_LAST;
    static constexpr int slots = ZEB_APP_MC_MBR_NUM;
    static constexpr uint32_t empty = 0;
    static bool is_empty(uint32_t mbr)
    {
        return mbr == 0;
    }
    static indexed_list<group_t> *groups(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
    {
        return &mc->app_mc_list;
    }
    static int32_t *count(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
    {
        return &mc->app_mc_num;
    }
    static int32_t *cursor(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
    {
        return &mc->cur_app_mc_id;
    }
};

struct node_kind {
    typedef zeb_node_mc_t group_t;
    static constexpr const char *name = "node";
    static constexpr int32_t first_id = NODE_MC_ID_FIRST;
    static constexpr int32_t last_id = NODE_MC_ID_LAST;
    static constexpr int slots = ZEB_NODE_MC_MBR_NUM;
    static constexpr uint32_t empty = 0xFFFFFFFFu;
    static bool is_empty(uint32_t mbr)
    {
        return !zeb_valid_node_id(mbr);
    }
    static indexed_list<group_t> *groups(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
    {
        return &mc->node_mc_list;
    }
    static int32_t *count(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
    {
        return &mc->node_mc_num;
    }
    static int32_t *cursor(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
    {
        return &mc->cur_node_mc_id;
    }
};

void zeb_mc_init(zeb_mc_t *mc)
{
    mc->app_mc_num = 0;
    mc->node_mc_num = 0;
    mc->cur_app_mc_id = APP_MC_ID_FIRST;
    mc->cur_node_mc_id = NODE_MC_ID_FIRST;
    indexed_list_init(&mc->app_mc_list);
    indexed_list_init(&mc->node_mc_list);
}

typedef struct group_id_s {
    uint32_t owner;
    uint32_t mc_id;
} group_id_t;

static zeb_mc_t *get_mc(uint32_t src_app)
{
    zeb_app_mng_t *slot = zeb_get_app_mng(src_app);
    if (slot != nullptr)
        return slot->mc;
    ZEB_ERROR_WHY("ZEB app %d does not registered.\n", src_app);
    return nullptr;
}

template <typename Kind>
static typename Kind::group_t *find_group(zeb_mc_t *mc, uint32_t mc_id) ZEB_REQUIRES(mc->mutex)
{
    return indexed_list_find(Kind::groups(mc), mc_id);
}

// The group. If there is none, logs an ERROR line and returns null.
template <typename Kind>
static typename Kind::group_t *get_group(zeb_mc_t *mc, uint32_t mc_id) ZEB_REQUIRES(mc->mutex)
{
    typename Kind::group_t *group = find_group<Kind>(mc, mc_id);
    if (group == nullptr)
        ZEB_ERROR_WHY("ZEB app %d does not create %s-private-mcast 0x%x.\n", mc->app_id, Kind::name, mc_id);
    return group;
}

template <typename Kind>
static void wrap_cursor(int32_t *cursor)
{
    if (*cursor <= Kind::last_id)
        return;
    ZEB_WARN("ZEB %s-private-mcast ID wrap-around to lower.\n", Kind::name);
    *cursor = Kind::first_id;
}

// Ascending, skipping ids in use, and wrapping at the end of the range. The loop ends because there are far fewer
// groups than ids.
template <typename Kind>
static int32_t get_new_mc_id(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
{
    int32_t *cursor = Kind::cursor(mc);
    wrap_cursor<Kind>(cursor);
    while (find_group<Kind>(mc, (uint32_t)*cursor) != nullptr) {
        (*cursor)++;
        wrap_cursor<Kind>(cursor);
    }
    return (*cursor)++;
}

static int32_t zeb_get_new_app_mc_id(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
{
    return get_new_mc_id<app_kind>(mc);
}

static int32_t zeb_get_new_node_mc_id(zeb_mc_t *mc) ZEB_REQUIRES(mc->mutex)
{
    return get_new_mc_id<node_kind>(mc);
}

template <typename Kind>
static int create_group(uint32_t src_app, int32_t (*get_new_id)(zeb_mc_t *mc))
{
    typedef typename Kind::group_t group_t;
    zeb_mc_t *mc = get_mc(src_app);
    if (mc == nullptr)
        return -ENOENT;
    int32_t mc_id = 0;
    {
        zeb_scoped_lock lock(mc->mutex);
        if (*Kind::count(mc) >= ZEB_MC_NUM) {
            ZEB_ERROR_WHY("ZEB app %d %s-private-mcast creation reach to %d.\n", src_app, Kind::name, ZEB_MC_NUM);
            return -ENOBUFS;
        }
        group_t *group = (group_t *)zeb_malloc(sizeof(group_t));
        for (uint32_t &mbr : group->mbr)
            mbr = Kind::empty;
        mc_id = get_new_id(mc);
        group->mc_id = mc_id;
        indexed_list_append(Kind::groups(mc), group, (uint32_t)mc_id);
        (*Kind::count(mc))++;
    }
    ZEB_VERBOSE("ZEB app %d create %s-private-mcast 0x%x.\n", src_app, Kind::name, (unsigned)mc_id);
    return mc_id;
}

template <typename Kind>
static void clear_member(typename Kind::group_t *group, uint32_t member)
{
    for (uint32_t &mbr : group->mbr) {
        if (mbr == member)
            mbr = Kind::empty;
    }
}

// A member that is already present moves to the first empty member slot, so adding it succeeds even in a full group.
template <typename Kind>
static int add_member(group_id_t id, uint32_t member)
{
    zeb_mc_t *mc = get_mc(id.owner);
    if (mc == nullptr)
        return -ENOENT;
    zeb_scoped_lock lock(mc->mutex);
    typename Kind::group_t *group = get_group<Kind>(mc, id.mc_id);
    if (group == nullptr)
        return -ENOENT;
    clear_member<Kind>(group, member);
    for (uint32_t &mbr : group->mbr) {
        if (Kind::is_empty(mbr)) {
            mbr = member;
            return 0;
        }
    }
    ZEB_ERROR_WHY("ZEB app %d %s-private-mcast 0x%x member reach to %d.\n", id.owner, Kind::name, id.mc_id,
                  Kind::slots);
    return -ENOBUFS;
}

template <typename Kind>
static void del_member(group_id_t id, uint32_t member)
{
    zeb_mc_t *mc = get_mc(id.owner);
    if (mc == nullptr)
        return;
    zeb_scoped_lock lock(mc->mutex);
    typename Kind::group_t *group = get_group<Kind>(mc, id.mc_id);
    if (group != nullptr)
        clear_member<Kind>(group, member);
}

template <typename Kind>
static void destroy_group(group_id_t id)
{
    zeb_mc_t *mc = get_mc(id.owner);
    if (mc == nullptr)
        return;
    zeb_scoped_lock lock(mc->mutex);
    typename Kind::group_t *group = get_group<Kind>(mc, id.mc_id);
    if (group == nullptr)
        return;
    indexed_list_remove(Kind::groups(mc), group);
    free(group);
    (*Kind::count(mc))--;
}

template <typename Kind>
static void get_members(group_id_t id, typename Kind::group_t *out)
{
    zeb_mc_t *mc = get_mc(id.owner);
    if (mc == nullptr)
        return;
    zeb_scoped_lock lock(mc->mutex);
    const typename Kind::group_t *group = find_group<Kind>(mc, id.mc_id);
    if (group != nullptr)
        *out = *group;
    else
        ZEB_ERROR_WHY("ZEB app %d does not create %s-private-mcast %d.\n", id.owner, Kind::name, id.mc_id);
}

int zeb_create_app_mcast(uint32_t src_app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_create_app_mcast");
    if (entered.refused() != 0)
        return entered.refused();
    return create_group<app_kind>(src_app, zeb_get_new_app_mc_id);
}

int zeb_add_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t new_app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_add_app_mcast");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_valid_app_id(new_app)) {
        ZEB_ERROR_WHY("ZEB app ID %d invalid.\n", new_app);
        return -EINVAL;
    }
    return add_member<app_kind>({src_app, mc_app}, new_app);
}

void zeb_del_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t del_app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_del_app_mcast");
    if (entered.refused() != 0)
        return;
    del_member<app_kind>({src_app, mc_app}, del_app);
}

void zeb_destroy_app_mcast(uint32_t src_app, uint32_t mc_app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_destroy_app_mcast");
    if (entered.refused() != 0)
        return;
    destroy_group<app_kind>({src_app, mc_app});
}

int zeb_create_node_mcast(uint32_t src_app)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_create_node_mcast");
    if (entered.refused() != 0)
        return entered.refused();
    return create_group<node_kind>(src_app, zeb_get_new_node_mc_id);
}

int zeb_add_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t new_node)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_add_node_mcast");
    if (entered.refused() != 0)
        return entered.refused();
    if (!zeb_valid_node_id(new_node)) {
        ZEB_ERROR_WHY("ZEB node ID %d invalid.\n", new_node);
        return -EINVAL;
    }
    return add_member<node_kind>({src_app, mc_node}, new_node);
}

void zeb_del_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t del_node)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_del_node_mcast");
    if (entered.refused() != 0)
        return;
    del_member<node_kind>({src_app, mc_node}, del_node);
}

void zeb_destroy_node_mcast(uint32_t src_app, uint32_t mc_node)
{
    zeb_clear_last_error();
    zeb_call_t entered("zeb_destroy_node_mcast");
    if (entered.refused() != 0)
        return;
    destroy_group<node_kind>({src_app, mc_node});
}

void zeb_copy_app_mc(uint32_t src_app, uint32_t mc_app, zeb_app_mc_t *out)
{
    memset(out, 0, sizeof(*out));
    get_members<app_kind>({src_app, mc_app}, out);
}

void zeb_copy_node_mc(uint32_t src_app, uint32_t mc_node, zeb_node_mc_t *out)
{
    memset(out, 0xFF, sizeof(*out));
    get_members<node_kind>({src_app, mc_node}, out);
}

void zeb_clear_mc(zeb_mc_t *mc)
{
    indexed_list_clear(&mc->app_mc_list);
    indexed_list_clear(&mc->node_mc_list);
    zeb_mc_init(mc);
}

void zeb_get_app_mc_mbr(uint32_t src_app, uint32_t mc_app, zeb_app_mc_t *out)
{
    memset(out, 0, sizeof(*out));
    zeb_call_t entered("zeb_get_app_mc_mbr");
    if (entered.refused() != 0)
        return;
    zeb_copy_app_mc(src_app, mc_app, out);
}

void zeb_get_node_mc_mbr(uint32_t src_app, uint32_t mc_node, zeb_node_mc_t *out)
{
    memset(out, 0xFF, sizeof(*out));
    zeb_call_t entered("zeb_get_node_mc_mbr");
    if (entered.refused() != 0)
        return;
    zeb_copy_node_mc(src_app, mc_node, out);
}

template <typename Kind>
static void print_group(const typename Kind::group_t *group)
{
    zeb_buf_printf("    ID 0x%x, members:", (unsigned)group->mc_id);
    for (uint32_t mbr : group->mbr) {
        if (!Kind::is_empty(mbr))
            zeb_buf_printf(" %d", mbr);
    }
    zeb_buf_printf("\n");
}

void zeb_cli_print_mc_info(zeb_mc_t *mc)
{
    zeb_buf_printf("  Private application multicast number %d:\n", mc->app_mc_num);
    indexed_list_each(&mc->app_mc_list, print_group<app_kind>);
    zeb_buf_printf("  Private node multicast number %d:\n", mc->node_mc_num);
    indexed_list_each(&mc->node_mc_list, print_group<node_kind>);
}
