#include "handshake.h"

#include "internals.h"

#include <sstream>

#include <zeb/zeb_diag.h>

static peer_t of(pair_t pair, uint8_t ver = 2)
{
    peer_t peer;
    peer.app = pair.second;
    peer.my_app = pair.first;
    peer.ver = ver;
    return peer;
}

void handshake_test::sync(pair_t pair, uint32_t seq, uint32_t resume, uint8_t ver)
{
    peer_syncs(seq, of(pair, ver), resume);
}

void handshake_test::ack(pair_t pair, uint32_t seq, uint32_t pseq, uint32_t id, uint32_t server)
{
    peer_t peer = of(pair);
    peer.id = id;
    peer.server = server != 0;
    peer_acks(seq, pseq, peer);
}

void handshake_test::ack_old(pair_t pair)
{
    peer_acks(my_seq(pair), 0, of(pair, 1));
}

void handshake_test::message(pair_t pair)
{
    receive(wire::message(from_peer(0, PEER_NODE, pair.second, pair.first), {1}), pair.first);
}

typedef struct entry_s {
    uint32_t app;
    uint32_t seq;
    uint32_t peer;
} entry_t;

// The entries "app/seq->peer/node" of the listing's section that begins with `title`.
static std::vector<entry_t> entries(const std::string &title)
{
    std::vector<entry_t> found;
    std::string text = listing(zeb_cli_print_lib_info);
    size_t at = text.find("  " + title + "(");
    if (at == std::string::npos)
        return found;
    at = text.find('\n', at) + 1;
    std::istringstream line(text.substr(at, text.find('\n', at) - at));
    std::string word;
    while (line >> word) {
        int app = 0;
        int seq = 0;
        int peer = 0;
        EXPECT_EQ(sscanf(word.c_str(), "%d/%d->%d/9", &app, &seq, &peer), 3) << word;
        found.push_back({(uint32_t)app, (uint32_t)seq, (uint32_t)peer});
    }
    return found;
}

void handshake_test::retry_timer()
{
    timer_expires(wire::RETRY_TIMER, 0);
}

void handshake_test::resume_timer()
{
    std::vector<entry_t> pending = entries("Communication resume info");
    timer_expires(wire::RESUME_TIMER, pending.empty() ? 0x7FFFFFFF : pending[0].seq);
}

words_t handshake_test::sent()
{
    words_t words;
    for (const fake_tipc::sent_t &one : fake_tipc::take_sent()) {
        wire::header_t header = wire::header_of(one.bytes);
        pair_t pair(header.src_app, header.dst_app);
        uint32_t pseq = one.bytes.size() == wire::BOTH_ACKS_LEN ? wire::get32(one.bytes, wire::PSEQ_AT) : 0;
        if (wire::get16(one.bytes, wire::TYPE_AT) == wire::SYNC_INST) {
            my_seq_[pair] = sync_word(one.bytes, wire::SEQ);
            words.push_back({pair, sync_word(one.bytes, wire::RESUME) != 0 ? "resume" : "sync"});
        } else if (pseq == 0) {
            words.push_back({pair, "ack"});
        } else {
            words.push_back({pair, pseq == my_seq_[pair] ? "ack+pseq" : "ack+" + std::to_string(pseq)});
        }
    }
    return words;
}

words_t handshake_test::seen()
{
    seen_t seen = take_seen();
    words_t words;
    for (const zeb_event_t &event : seen.events)
        words.push_back({pair_t(event.my_app, event.event.app.app), event.type == ZEB_APP_JOIN ? "join" : "quit"});
    for (const zeb_msg_hdr_t &header : seen.headers)
        words.push_back({pair_t(header.dst_app, header.src_app), "message"});
    return words;
}

std::string handshake_test::timers()
{
    const char *names[] = {"resume", "resend", "monitor", "retry"};
    lines_t words;
    for (const started_t &timer : take_timers())
        words.emplace_back(names[timer.type % 4]);
    return join(words);
}

std::string handshake_test::bits(uint32_t peer)
{
    static const struct {
        const char *what;
        char letter;
    } sets[] = {{"instance", 'I'}, {"instance acked", 'A'}, {"instance online", 'O'}, {"server", 'S'}};
    std::string text = listing(zeb_cli_print_lib_info);
    std::string bits;
    for (const auto &set : sets) {
        std::string title = "    Application " + std::to_string(peer) + " " + set.what + " on nodes:";
        size_t at = text.find(title);
        EXPECT_NE(at, std::string::npos) << title;
        std::string nodes = text.substr(at + title.size(), text.find('\n', at) - at - title.size());
        EXPECT_TRUE(nodes.empty() || nodes == " 9") << nodes;
        bits += nodes.empty() ? '-' : set.letter;
    }
    return bits;
}

std::vector<pair_t> handshake_test::pending()
{
    std::vector<pair_t> pairs;
    for (const entry_t &entry : entries("Unack instance sync"))
        pairs.emplace_back(entry.app, entry.peer);
    return pairs;
}

std::string handshake_test::phase(pair_t pair)
{
    return internals::phase(pair.first, pair.second, PEER_NODE);
}

int handshake_test::retry_num()
{
    return internals::retry_num();
}

int handshake_test::resume_num()
{
    return (int)entries("Communication resume info").size();
}

std::string handshake_test::join(const lines_t &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

void PrintTo(const cell_t &cell, std::ostream *out)
{
    *out << cell.state << " + " << cell.event;
}

std::string cell_name(const testing::TestParamInfo<cell_t> &cell)
{
    std::string name = std::string(cell.param.state) + " and " + cell.param.event;
    for (char &letter : name)
        letter = letter == ' ' ? '_' : letter;
    return name;
}
