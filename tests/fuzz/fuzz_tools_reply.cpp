// The management client, fed with replies, other datagrams and returned messages while requests of several batches are
// under way: each request has one outcome, and a good reply is that of its instance.
#include <arpa/inet.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

#include <linux/tipc.h>
#include <sys/socket.h>
#include <zeb/zeb_tlv.h>

#include "fuzz_tools.h"
#include "ops_client.h"

using tools::bytes_t;
using tools::require;

constexpr uint32_t NODE = 7;
constexpr size_t BATCHES = 4;

struct asked_t { // a batch, and what it has reported
    std::vector<ops_request_t> requests;
    ops_batch_t batch;
    size_t reported;
    bool live;
};

class world_t
{
  public:
    explicit world_t(ops_client_t *client) : client_(client)
    {
    }

    void begin(tools::input_t *input)
    {
        for (auto &asked : asked_) {
            if (asked != nullptr && asked->live)
                continue;
            asked = std::make_unique<asked_t>();
            fill(asked.get(), input);
            ops_client_begin(client_, &asked->batch);
            return;
        }
    }

    void cancel(size_t which)
    {
        asked_t *asked = asked_[which % BATCHES].get();
        if (asked == nullptr || !asked->live)
            return;
        ops_client_cancel(client_, &asked->batch);
        asked->live = false;
    }

    void pause(size_t which)
    {
        if (asked_t *asked = asked_[which % BATCHES].get())
            asked->batch.paused = !asked->batch.paused;
    }

    // Any request that has been sent and waits, or null.
    const ops_request_t *awaited(uint32_t which) const
    {
        if (client_->awaited.empty())
            return nullptr;
        std::vector<uint32_t> numbers;
        for (const auto &entry : client_->awaited)
            numbers.push_back(entry.first);
        std::sort(numbers.begin(), numbers.end());
        const ops_awaited_t &found = client_->awaited.at(numbers[which % numbers.size()]);
        return &(*found.batch->requests)[found.at];
    }

    void check() const
    {
        size_t waiting = 0;
        size_t live = 0;
        for (const auto &asked : asked_) {
            if (asked == nullptr || !asked->live)
                continue;
            live++;
            auto num = (size_t)std::count_if(asked->requests.begin(), asked->requests.end(),
                                             [](const auto &one) { return one.outcome == OPS_WAITING; });
            require(num == asked->batch.waiting && num + asked->reported == asked->requests.size());
            waiting += num;
        }
        require(client_->batches.size() == live);
        require(client_->awaited.size() <= waiting && client_->under_way == client_->young.size());
        require(client_->under_way <= client_->awaited.size());
        for (const auto &entry : client_->awaited) {
            const ops_request_t &request = (*entry.second.batch->requests)[entry.second.at];
            require(request.outcome == OPS_WAITING && request.seq == entry.first && request.sent_at != 0);
        }
    }

  private:
    void fill(asked_t *asked, tools::input_t *input)
    {
        uint32_t shape = input->number();
        for (uint32_t i = 0; i <= (shape & 15); i++) {
            ops_request_t request = ops_request({100 + i % 3, i / 3}, (ops_ask_t)((shape >> 4) % 3));
            request.set = shape >> 6 & 3;
            request.clear = request.set ^ 12;
            asked->requests.push_back(request);
        }
        asked->live = true;
        asked->batch.requests = &asked->requests;
        asked->batch.timeout = 1 + input->number(2) % 3000;
        asked->batch.on_done = [this, asked, again = (shape & 8) != 0](ops_request_t *request) {
            done(asked, request, again);
        };
    }

    // A batch that ends may be gone, and another one may begin, while its last request is reported.
    void done(asked_t *asked, const ops_request_t *request, bool again)
    {
        require(asked->live && request->outcome != OPS_WAITING);
        require(request->why.empty() == (request->outcome == OPS_ANSWERED));
        require(request >= asked->requests.data() && request < asked->requests.data() + asked->requests.size());
        asked->reported++;
        if (asked->batch.waiting != 0)
            return;
        require(asked->reported == asked->requests.size());
        asked->live = false;
        for (auto &slot : asked_) {
            if (slot.get() == asked)
                slot.reset();
        }
        tools::input_t none(nullptr, 0);
        if (again)
            begin(&none);
    }

    ops_client_t *client_;
    std::unique_ptr<asked_t> asked_[BATCHES];
};

static void put(bytes_t *bytes, size_t at, uint32_t value)
{
    value = htonl(value);
    memcpy(bytes->data() + at, &value, sizeof(value));
}

// The header of a reply to a request, or of the request itself.
static bytes_t header_of(const ops_request_t &request, bool reply, uint32_t len)
{
    bytes_t bytes(ZEB_MSG_HDR_LEN);
    bytes[0] = ZEB_MSG_VERSION;
    bytes[2] = reply ? OPS_REPLY_FLAGS : OPS_REQUEST_FLAGS;
    put(&bytes, 4, len);
    put(&bytes, 8, reply ? request.inst.node : NODE);
    put(&bytes, 12, reply ? NODE : request.inst.node);
    put(&bytes, 16, reply ? request.inst.app : ZEBD_APP_ID);
    put(&bytes, 20, reply ? ZEBD_APP_ID : request.inst.app);
    put(&bytes, 28, request.seq);
    return bytes;
}

// An identity, in either byte order, as an element of this length.
static bytes_t identity(const ops_request_t &request, uint32_t mask, bool swapped, uint32_t len)
{
    ops_app_info_t info = {request.inst.app, 4711, mask};
    if (swapped)
        info = {__builtin_bswap32(info.app), (int32_t)__builtin_bswap32(4711), __builtin_bswap32(mask)};
    bytes_t bytes(sizeof(struct tlv_desc) + sizeof(info));
    (void)TLV_SET(bytes.data(), OPS_APP_INFO, &info, sizeof(info));
    bytes[1] = (uint8_t)(bytes[1] + len);
    return bytes;
}

static void arrive(ops_client_t *client, const bytes_t &bytes, const bytes_t &control, int flags)
{
    tools::g_arrived.push_back({bytes, control, flags});
    ops_client_read(client);
    require(tools::g_arrived.empty());
}

// A reply to a request: as it should be, or with one byte of its header changed, or with a wrong length.
static void reply(world_t *world, ops_client_t *client, tools::input_t *input)
{
    const ops_request_t *request = world->awaited(input->number());
    if (request == nullptr)
        return;
    uint32_t how = input->number();
    uint32_t mask = input->number();
    bytes_t body = (how & 1) != 0 ? identity(*request, mask & 15, (how & 2) != 0, how >> 6 == 3 ? input->number() : 0)
                                  : input->bytes(mask);
    bytes_t bytes = header_of(*request, true, (uint32_t)(ZEB_MSG_HDR_LEN + body.size()));
    bool foreign = false; // from or to another instance, of another length or kind
    if ((how & 4) != 0) {
        size_t at = input->number() % ZEB_MSG_HDR_LEN;
        uint32_t change = input->number();
        bytes[at] = (uint8_t)(bytes[at] ^ change);
        bool length = at >= 4 && at < 8 && (how & 8) == 0; // a datagram that was cut may have it
        foreign = change != 0 && (at == 2 || length || (at >= 8 && at < 12) || (at >= 16 && at < 24));
    }
    bytes.insert(bytes.end(), body.begin(), body.end());
    if ((how & 8) != 0)
        bytes.resize(bytes.size() - std::min<size_t>(bytes.size(), input->number() % 64));
    bool good = (how & 12) == 0 && request->ask == OPS_ASK_STAT && !body.empty();
    uint64_t answered = client->answered;
    size_t awaited = client->awaited.size();
    arrive(client, bytes, {}, (how & 16) != 0 && !good ? MSG_TRUNC : 0);
    require(!good || client->answered == answered + 1);
    require(!foreign || (client->answered == answered && client->awaited.size() == awaited));
}

// Ancillary data: a request of ours that comes back, or anything; an item may say another length than it has.
static void returned(world_t *world, ops_client_t *client, tools::input_t *input)
{
    const ops_request_t *request = world->awaited(input->number());
    uint32_t how = input->number();
    bytes_t header = request != nullptr ? header_of(*request, false, input->number()) : input->bytes(36);
    if ((how & 1) != 0)
        header.resize(input->number() % 80);
    bytes_t control;
    for (int item = 0; item < 2; item++) {
        uint32_t code = htonl(input->number());
        bytes_t value = item == 0 ? bytes_t((uint8_t *)&code, (uint8_t *)&code + sizeof(code)) : header;
        struct cmsghdr head;
        memset(&head, 0, sizeof(head));
        head.cmsg_len = (how & 2) != 0 ? input->number(2) : CMSG_LEN(value.size());
        head.cmsg_level = (how & 4) != 0 ? (int)input->number() : SOL_TIPC;
        head.cmsg_type = (how & 8) != 0 ? (int)input->number() % 5 : (item == 0 ? TIPC_ERRINFO : TIPC_RETDATA);
        size_t at = control.size();
        control.resize(at + CMSG_SPACE(value.size()));
        memcpy(control.data() + at, &head, sizeof(head));
        std::copy(value.begin(), value.end(), control.begin() + (ptrdiff_t)(at + CMSG_LEN(0)));
    }
    arrive(client, {}, control, 0);
}

static void step(world_t *world, ops_client_t *client, tools::input_t *input)
{
    static const int errors[] = {EAGAIN, EINTR, ENOMEM, ENOBUFS, EHOSTUNREACH, EMSGSIZE, EAGAIN, EAGAIN};
    switch (input->number() % 9) {
    case 0:
        return world->begin(input);
    case 1:
        return world->cancel(input->number());
    case 2:
        return world->pause(input->number());
    case 3:
    case 4:
        return reply(world, client, input);
    case 5:
        return returned(world, client, input);
    case 6:
        tools::g_now += input->number(2);
        break;
    case 7:
        tools::g_fail_errno = errors[input->number() % 8];
        tools::g_fail_sends = (int)input->number() % 40;
        break;
    default:
        return arrive(client, input->bytes(input->number()), {}, 0);
    }
}

// Every request is one that an instance takes.
static void check_sent()
{
    for (const bytes_t &bytes : tools::g_sent) {
        uint32_t len = 0;
        memcpy(&len, bytes.data() + 4, sizeof(len));
        require(ntohl(len) == bytes.size() && bytes[2] == OPS_REQUEST_FLAGS);
        require(TLV_OK(bytes.data() + ZEB_MSG_HDR_LEN, (uint16_t)(bytes.size() - ZEB_MSG_HDR_LEN)));
    }
    tools::g_sent.clear();
}

static ops_client_t *fresh_client()
{
    static ops_client_t s_client;
    zeb_msg_t *buffer = s_client.recv_buf != nullptr ? s_client.recv_buf : zeb_msg_alloc(ZEB_MSG_MAX_DATA, 1, 0);
    s_client = ops_client_t();
    s_client.recv_buf = buffer;
    s_client.node = NODE;
    s_client.seq = 0xFFFFFFF0; // it passes 0
    s_client.on_message = [](const zeb_msg_t *msg) { return msg->hdr.app_ver == 9; };
    s_client.on_returned = [](const zeb_msg_hdr_t *hdr, uint32_t code) { return hdr->app_ver == code; };
    return &s_client;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tools::g_now = 1000;
    tools::g_fail_sends = 0;
    tools::input_t input(data, size);
    ops_client_t *client = fresh_client();
    world_t world(client);
    world.begin(&input);
    while (!input.empty()) {
        step(&world, client, &input);
        int64_t wake = ops_client_step(client);
        require(wake > tools::g_now || client->batches.empty());
        world.check();
        check_sent();
    }
    return 0;
}
