// Ancillary data and returned messages: items of any type and length, a returned message of any content, and lengths
// that lie.
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>

#include "fuzz_peers.h"
#include "zeb_dbg.h"
#include "zeb_timer.h"

static void add_item(world::bytes_t *control, int type, const world::bytes_t &value, size_t len)
{
    size_t at = control->size();
    control->resize(at + CMSG_SPACE(value.size()));
    struct cmsghdr head;
    memset(&head, 0, sizeof(head));
    head.cmsg_len = len;
    head.cmsg_level = SOL_TIPC;
    head.cmsg_type = type;
    memcpy(control->data() + at, &head, sizeof(head));
    if (!value.empty())
        memcpy(control->data() + at + CMSG_LEN(0), value.data(), value.size());
}

// A message of ours that is returned.
static world::bytes_t returned(FuzzedDataProvider *input)
{
    wire::header_t header;
    header.flag = input->ConsumeIntegral<uint8_t>();
    header.src_app = input->ConsumeBool() ? world::SERVER : world::DAEMON;
    header.src_node = world::NODE;
    header.dst_app = input->ConsumeBool() ? world::PEER : input->ConsumeIntegral<uint32_t>();
    header.dst_node = input->ConsumeIntegralInRange<uint32_t>(peers::IDLE, peers::LAST);
    header.stat = input->ConsumeIntegral<uint8_t>();
    world::bytes_t body;
    switch (input->ConsumeIntegralInRange(0, 2)) {
    case 0:
        body = wire::sync_ack(70, peers::PID, 1, input->ConsumeIntegralInRange<uint32_t>(0, 3));
        break;
    case 1:
        body = wire::sync_seq_ack(70, peers::PID, 1, peers::SEQ, 600);
        break;
    default:
        body = input->ConsumeBytes<uint8_t>(input->ConsumeIntegralInRange(0, 1100));
    }
    if (input->ConsumeBool())
        header.len = input->ConsumeIntegral<uint32_t>();
    return wire::message(header, body);
}

static void add_items(FuzzedDataProvider *input, world::bytes_t *control)
{
    for (int num = input->ConsumeIntegralInRange(0, 4); num > 0; num--) {
        int type = input->ConsumeIntegralInRange(0, 5);
        world::bytes_t value =
            input->ConsumeBool() ? returned(input) : input->ConsumeBytes<uint8_t>(input->ConsumeIntegralInRange(0, 64));
        size_t len = input->ConsumeBool() ? CMSG_LEN(value.size()) : input->ConsumeIntegralInRange<size_t>(0, 3000);
        add_item(control, type, value, len);
    }
}

// Lets every timer of a returned acknowledgement expire: the library sends it again.
static void resend_returned()
{
    while (!world::timers().empty()) {
        world::timer_t_ timer = world::timers().front();
        world::timers().erase(world::timers().begin());
        if (timer.type != ZEB_TIMER_TYPE_INST)
            continue;
        struct tipc_event event;
        memset(&event, 0, sizeof(event));
        event.event = TIPC_SUBSCR_TIMEOUT;
        memcpy(event.s.usr_handle, &timer, sizeof(timer));
        world::event(event);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    world::reset();
    peers::set_up();
    uint8_t mode = input.ConsumeIntegral<uint8_t>();
    zeb_store_relaxed(&g_zeb_dbg_level, mode % 16 == 0 ? 15u : 0u);
    world::bytes_t control;
    if (mode % 4 == 3)
        control = input.ConsumeRemainingBytes<uint8_t>();
    else
        add_items(&input, &control);
    world::receive_anc((mode & 64) != 0 ? world::DAEMON : world::SERVER, control.data(), control.size());
    world::check();
    resend_returned();
    world::check();
    return 0;
}
