// The view, fed with events of the topology service: it holds the instances that a count of each publication gives, up
// to its bound, also when it is nearly full.
#include <cerrno>
#include <cstring>
#include <map>

#include <linux/tipc.h>

#include "fuzz_tools.h"
#include "ops_view.h"

using tools::require;

constexpr size_t FREE = 3;                // instances that the nearly full view has room for
constexpr uint32_t OTHERS = 16384U << 16; // the first that it holds

struct model_t { // what the view must hold
    ops_view_t view;
    std::map<uint32_t, uint32_t> sockets; // of those that events have named
};

static bool is_other(const model_t *model, uint32_t name)
{
    return !model->view.insts.empty() && name >= OTHERS && name < OTHERS + OPS_VIEW_MAX;
}

static bool valid(uint32_t name)
{
    uint32_t app = name >> 16;
    return (app >= 1 && app <= 8191) || (app >= 16384 && app <= 20479);
}

// One event, as the view reads it.
static int feed(ops_view_t *view, const struct tipc_event *event, size_t len, ops_change_t *change, ops_inst_t *inst)
{
    tools::g_event = event;
    tools::g_event_len = len;
    return ops_view_read(view, change, inst);
}

static struct tipc_event event_of(tools::input_t *input)
{
    static const uint32_t apps[] = {1, 100, 101, 8191, 8192, 12288, 16383, 16384, 20479, 20480, 0, 65535};
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = input->number() % 4; // 0 is none, 1 to 3 are published, withdrawn, timed out
    event.found_lower = apps[input->number() % 12] << 16 | (input->number() & 7);
    event.found_upper = event.found_lower;
    uint32_t kind = input->number();
    if (kind > 250)
        event.found_upper += kind - 250;
    else if (kind == 250)
        event.found_lower = event.found_upper = input->number(4);
    uint32_t mark = kind == 249 ? input->number(4) : 0;
    memcpy(event.s.usr_handle, &mark, sizeof(mark));
    return event;
}

static void expect(model_t *model, const struct tipc_event &event, size_t room, ops_change_t change)
{
    uint32_t name = event.found_lower;
    if (event.event == TIPC_SUBSCR_TIMEOUT || name != event.found_upper || !valid(name)) {
        require(change == OPS_NO_CHANGE);
        return;
    }
    auto found = model->sockets.find(name);
    uint32_t before = found == model->sockets.end() ? 0 : found->second;
    ops_change_t expected = OPS_NO_CHANGE;
    if (event.event == TIPC_PUBLISHED && (before != 0 || model->sockets.size() < room)) {
        model->sockets[name] = before + 1;
        expected = before == 0 ? OPS_JOINED : OPS_NO_CHANGE;
    } else if (event.event == TIPC_WITHDRAWN && before != 0) {
        expected = before == 1 ? OPS_QUIT : OPS_NO_CHANGE;
        if (--model->sockets[name] == 0)
            model->sockets.erase(name);
    }
    require(change == expected);
}

static void check(const model_t &model, size_t others)
{
    require(model.view.insts.size() == others + model.sockets.size() && model.view.insts.size() <= OPS_VIEW_MAX);
    for (const auto &entry : model.sockets)
        require(ops_view_sockets(&model.view, ops_inst_of(entry.first)) == entry.second);
}

static model_t *nearly_full()
{
    static model_t *const s_model = [] {
        auto *model = new model_t();
        for (uint32_t name = OTHERS; model->view.insts.size() < OPS_VIEW_MAX - FREE; name++)
            model->view.insts[name] = {1};
        return model;
    }();
    return s_model;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static model_t s_empty;
    tools::input_t input(data, size);
    model_t *model = (input.number() & 1) != 0 ? nearly_full() : &s_empty;
    size_t others = model->view.insts.size();
    size_t room = OPS_VIEW_MAX - others;
    while (!input.empty()) {
        struct tipc_event event = event_of(&input);
        if (is_other(model, event.found_lower))
            continue;
        ops_change_t change = OPS_NO_CHANGE;
        ops_inst_t inst = {};
        require(feed(&model->view, &event, sizeof(event), &change, &inst) == 0);
        expect(model, event, room, change);
        require(change == OPS_NO_CHANGE || ops_name_of(inst) == event.found_lower);
    }
    check(*model, others);
    struct tipc_event part;
    memset(&part, 0xFF, sizeof(part));
    ops_change_t change = OPS_NO_CHANGE;
    ops_inst_t inst = {};
    require(feed(&model->view, &part, size % sizeof(part), &change, &inst) == -EPIPE && change == OPS_NO_CHANGE);
    require(ops_view_read(&model->view, &change, &inst) == -EAGAIN);
    for (const auto &entry : model->sockets)
        model->view.insts.erase(entry.first);
    model->sockets.clear();
    return 0;
}
