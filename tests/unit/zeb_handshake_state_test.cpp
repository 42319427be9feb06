// The handshake's states through the whole library, every cell of state and event, the illegal ones too: the bits, the
// lists, what is sent, which timers start and what the application sees.
#include "handshake.h"

class zeb_handshake_state : public handshake_test, public testing::WithParamInterface<cell_t>
{
  protected:
    void SetUp() override
    {
        handshake_test::SetUp();
        start_app();
        (void)fake_tipc::take_subscriptions();
    }

    void happen(const std::string &event);
    void enter(const std::string &state);

    static std::string texts(const words_t &words)
    {
        lines_t lines;
        for (const word_t &word : words) {
            EXPECT_EQ(word.pair, pair_t(APP, PEER));
            lines.push_back(word.text);
        }
        return join(lines);
    }

    static std::string lists()
    {
        return std::to_string(pending().size()) + std::to_string(retry_num()) + std::to_string(resume_num());
    }
};

void zeb_handshake_state::happen(const std::string &event)
{
    pair_t pair(APP, PEER);
    uint32_t seq = my_seq(pair);
    const std::map<std::string, std::function<void()>> events = {
        {"publish", [&] { peer_published(); }},
        {"withdraw", [&] { peer_withdrawn(); }},
        {"sync same", [&] { sync(pair, PEER_SEQ); }},
        {"sync new", [&] { sync(pair, PEER_SEQ + 1); }},
        {"sync resume", [&] { sync(pair, PEER_SEQ + 2, 1); }},
        {"sync old", [&] { sync(pair, PEER_SEQ, 0, 1); }},
        {"ack right", [&] { ack(pair, seq, PEER_SEQ); }},
        {"ack pseq 0", [&] { ack(pair, seq, 0); }},
        {"ack pseq wrong", [&] { ack(pair, seq, PEER_SEQ + 9); }},
        {"ack seq wrong", [&] { ack(pair, seq + 9, PEER_SEQ); }},
        {"ack other id", [&] { ack(pair, seq, PEER_SEQ, PEER_PID + 1); }},
        {"ack client", [&] { ack(pair, seq, PEER_SEQ, PEER_PID, 0); }},
        {"ack old", [&] { ack_old(pair); }},
        {"message", [&] { message(pair); }},
        {"retry timer", [] { retry_timer(); }},
        {"resume timer", [] { resume_timer(); }},
    };
    events.at(event)();
}

// Each state by the events that lead there from idle.
void zeb_handshake_state::enter(const std::string &state)
{
    const std::map<std::string, lines_t> paths = {
        {"idle", {}},
        {"waiting", {"publish"}},
        {"half", {"sync same"}},
        {"half pending", {"publish", "sync same"}},
        {"half withdrawn", {"publish", "sync same", "withdraw"}},
        {"waiting again", {"publish", "sync same", "publish"}},
        {"acked", {"publish", "sync same", "publish", "ack right"}},
        {"acked old", {"publish", "ack old"}},
        {"differing", {"publish", "sync same", "ack other id"}},
        {"resumed", {"sync same", "resume timer"}},
        {"online", {"publish", "sync same", "ack right"}},
        {"online by message", {"sync same", "message"}},
        {"online client", {"publish", "sync same", "ack client"}},
    };
    for (const std::string &event : paths.at(state)) {
        happen(event);
        (void)sent(); // notes our sequence
    }
    (void)timers();
    (void)seen();
}

TEST_P(zeb_handshake_state, cell)
{
    const cell_t &cell = GetParam();
    enter(cell.state);
    happen(cell.event);
    EXPECT_EQ(bits(PEER), cell.bits) << phase({APP, PEER});
    EXPECT_EQ(lists(), cell.lists) << phase({APP, PEER});
    EXPECT_EQ(texts(sent()), cell.sent);
    EXPECT_EQ(timers(), cell.timers);
    EXPECT_EQ(texts(seen()), cell.seen);
}

// clang-format off
static const cell_t cells[] = {
    // idle
    {"idle", "publish", "----", "100", "sync", "", ""},
    {"idle", "withdraw", "----", "000", "", "", ""},
    {"idle", "sync same", "I---", "001", "ack", "retry resume", ""},
    {"idle", "sync new", "I---", "001", "ack", "retry resume", ""},
    {"idle", "sync resume", "I---", "110", "sync ack", "retry", ""},
    {"idle", "sync old", "I---", "001", "ack", "resume", ""},
    {"idle", "ack right", "----", "000", "", "", ""},
    {"idle", "ack pseq 0", "---S", "000", "", "", ""},
    {"idle", "ack pseq wrong", "----", "000", "", "", ""},
    {"idle", "ack seq wrong", "----", "000", "", "", ""},
    {"idle", "ack other id", "----", "000", "", "", ""},
    {"idle", "ack client", "----", "000", "", "", ""},
    {"idle", "ack old", "----", "000", "", "", ""},
    {"idle", "message", "----", "000", "", "", ""},
    {"idle", "retry timer", "----", "000", "", "", ""},
    {"idle", "resume timer", "----", "000", "", "", ""},
    // waiting
    {"waiting", "publish", "----", "100", "sync", "", ""},
    {"waiting", "withdraw", "----", "000", "", "", ""},
    {"waiting", "sync same", "I---", "110", "ack", "retry", ""},
    {"waiting", "sync new", "I---", "110", "ack", "retry", ""},
    {"waiting", "sync resume", "I---", "110", "sync ack", "retry", ""},
    {"waiting", "sync old", "I---", "100", "ack", "", ""},
    {"waiting", "ack right", "----", "100", "resume", "", ""},
    {"waiting", "ack pseq 0", "---S", "100", "", "", ""},
    {"waiting", "ack pseq wrong", "----", "100", "resume", "", ""},
    {"waiting", "ack seq wrong", "----", "100", "", "", ""},
    {"waiting", "ack other id", "----", "100", "resume", "", ""},
    {"waiting", "ack client", "----", "100", "resume", "", ""},
    {"waiting", "ack old", "-A-S", "000", "", "", ""},
    {"waiting", "message", "----", "100", "", "", ""},
    {"waiting", "retry timer", "----", "100", "sync", "", ""},
    {"waiting", "resume timer", "----", "100", "", "", ""},
    // half
    {"half", "publish", "----", "100", "sync", "", ""},
    {"half", "withdraw", "I---", "000", "", "", ""},
    {"half", "sync same", "I---", "002", "ack", "resume", ""},
    {"half", "sync new", "I---", "002", "ack", "resume", ""},
    {"half", "sync resume", "I---", "110", "sync ack", "", ""},
    {"half", "sync old", "I---", "002", "ack", "resume", ""},
    {"half", "ack right", "I--S", "001", "", "", ""},
    {"half", "ack pseq 0", "I--S", "001", "", "", ""},
    {"half", "ack pseq wrong", "I---", "001", "", "", ""},
    {"half", "ack seq wrong", "I--S", "001", "", "", ""},
    {"half", "ack other id", "I--S", "001", "", "", ""},
    {"half", "ack client", "I---", "001", "", "", ""},
    {"half", "ack old", "I---", "001", "", "", ""},
    {"half", "message", "IAOS", "001", "", "", "join message"},
    {"half", "retry timer", "I---", "001", "", "", ""},
    {"half", "resume timer", "----", "100", "resume", "", ""},
    // half pending
    {"half pending", "publish", "----", "110", "sync", "", ""},
    {"half pending", "withdraw", "I---", "010", "", "", ""},
    {"half pending", "sync same", "I---", "110", "ack", "", ""},
    {"half pending", "sync new", "I---", "110", "ack", "", ""},
    {"half pending", "sync resume", "I---", "110", "sync ack", "", ""},
    {"half pending", "sync old", "I---", "110", "ack", "", ""},
    {"half pending", "ack right", "IAOS", "000", "", "", "join"},
    {"half pending", "ack pseq 0", "I--S", "110", "", "", ""},
    {"half pending", "ack pseq wrong", "I---", "110", "", "", ""},
    {"half pending", "ack seq wrong", "I--S", "110", "", "", ""},
    {"half pending", "ack other id", "-A-S", "000", "", "", ""},
    {"half pending", "ack client", "IAO-", "000", "", "", ""},
    {"half pending", "ack old", "IAOS", "010", "", "", "join"},
    {"half pending", "message", "IAOS", "010", "", "", "join message"},
    {"half pending", "retry timer", "I---", "110", "sync", "retry", ""},
    {"half pending", "resume timer", "I---", "110", "", "", ""},
    // half withdrawn
    {"half withdrawn", "publish", "----", "110", "sync", "", ""},
    {"half withdrawn", "withdraw", "I---", "010", "", "", ""},
    {"half withdrawn", "sync same", "I---", "011", "ack", "resume", ""},
    {"half withdrawn", "sync new", "I---", "011", "ack", "resume", ""},
    {"half withdrawn", "sync resume", "I---", "110", "sync ack", "", ""},
    {"half withdrawn", "sync old", "I---", "011", "ack", "resume", ""},
    {"half withdrawn", "ack right", "I--S", "010", "", "", ""},
    {"half withdrawn", "ack pseq 0", "I--S", "010", "", "", ""},
    {"half withdrawn", "ack pseq wrong", "I---", "010", "", "", ""},
    {"half withdrawn", "ack seq wrong", "I--S", "010", "", "", ""},
    {"half withdrawn", "ack other id", "I--S", "010", "", "", ""},
    {"half withdrawn", "ack client", "I---", "010", "", "", ""},
    {"half withdrawn", "ack old", "I---", "010", "", "", ""},
    {"half withdrawn", "message", "IAOS", "010", "", "", "join message"},
    {"half withdrawn", "retry timer", "I---", "000", "", "", ""},
    {"half withdrawn", "resume timer", "I---", "010", "", "", ""},
    // waiting again
    {"waiting again", "publish", "----", "110", "sync", "", ""},
    {"waiting again", "withdraw", "----", "010", "", "", ""},
    {"waiting again", "sync same", "I---", "110", "ack", "", ""},
    {"waiting again", "sync new", "I---", "110", "sync ack", "", ""},
    {"waiting again", "sync resume", "I---", "110", "sync ack", "", ""},
    {"waiting again", "sync old", "I---", "110", "ack", "", ""},
    {"waiting again", "ack right", "-A-S", "010", "", "", ""},
    {"waiting again", "ack pseq 0", "---S", "110", "", "", ""},
    {"waiting again", "ack pseq wrong", "----", "110", "resume", "", ""},
    {"waiting again", "ack seq wrong", "---S", "110", "", "", ""},
    {"waiting again", "ack other id", "-A-S", "010", "", "", ""},
    {"waiting again", "ack client", "-A--", "010", "", "", ""},
    {"waiting again", "ack old", "-A-S", "010", "", "", ""},
    {"waiting again", "message", "----", "110", "", "", ""},
    {"waiting again", "retry timer", "----", "110", "sync", "retry", ""},
    {"waiting again", "resume timer", "----", "110", "", "", ""},
    // acked
    {"acked", "publish", "----", "110", "sync", "", ""},
    {"acked", "withdraw", "----", "010", "", "", ""},
    {"acked", "sync same", "IAOS", "010", "ack+pseq", "", "join"},
    {"acked", "sync new", "I---", "110", "sync ack+pseq", "", ""},
    {"acked", "sync resume", "I---", "110", "sync ack+pseq", "", ""},
    {"acked", "sync old", "IAOS", "010", "ack+pseq", "", "join"},
    {"acked", "ack right", "-A-S", "010", "", "", ""},
    {"acked", "ack pseq 0", "-A-S", "010", "", "", ""},
    {"acked", "ack pseq wrong", "-A-S", "010", "", "", ""},
    {"acked", "ack seq wrong", "-A-S", "010", "", "", ""},
    {"acked", "ack other id", "-A-S", "010", "", "", ""},
    {"acked", "ack client", "-A-S", "010", "", "", ""},
    {"acked", "ack old", "-A-S", "010", "", "", ""},
    {"acked", "message", "-A-S", "010", "", "", ""},
    {"acked", "retry timer", "-A-S", "010", "", "retry", ""},
    {"acked", "resume timer", "-A-S", "010", "", "", ""},
    // acked old
    {"acked old", "publish", "----", "100", "sync", "", ""},
    {"acked old", "withdraw", "----", "000", "", "", ""},
    {"acked old", "sync same", "IAOS", "000", "ack+pseq", "retry", "join"},
    {"acked old", "sync new", "IAOS", "000", "ack+pseq", "retry", "join"},
    {"acked old", "sync resume", "I---", "110", "sync ack+pseq", "retry", ""},
    {"acked old", "sync old", "IAOS", "000", "ack+pseq", "", "join"},
    {"acked old", "ack right", "-A-S", "000", "", "", ""},
    {"acked old", "ack pseq 0", "-A-S", "000", "", "", ""},
    {"acked old", "ack pseq wrong", "-A-S", "000", "", "", ""},
    {"acked old", "ack seq wrong", "-A-S", "000", "", "", ""},
    {"acked old", "ack other id", "-A-S", "000", "", "", ""},
    {"acked old", "ack client", "-A-S", "000", "", "", ""},
    {"acked old", "ack old", "-A-S", "000", "", "", ""},
    {"acked old", "message", "-A-S", "000", "", "", ""},
    {"acked old", "retry timer", "-A-S", "000", "", "", ""},
    {"acked old", "resume timer", "-A-S", "000", "", "", ""},
    // differing
    {"differing", "publish", "----", "100", "sync", "", ""},
    {"differing", "withdraw", "----", "000", "", "", ""},
    {"differing", "sync same", "-A-S", "001", "ack", "resume", ""},
    {"differing", "sync new", "I---", "110", "sync ack", "", ""},
    {"differing", "sync resume", "I---", "110", "sync ack", "", ""},
    {"differing", "sync old", "-A-S", "001", "ack", "resume", ""},
    {"differing", "ack right", "-A-S", "000", "", "", ""},
    {"differing", "ack pseq 0", "-A-S", "000", "", "", ""},
    {"differing", "ack pseq wrong", "-A-S", "000", "", "", ""},
    {"differing", "ack seq wrong", "-A-S", "000", "", "", ""},
    {"differing", "ack other id", "-A-S", "000", "", "", ""},
    {"differing", "ack client", "-A-S", "000", "", "", ""},
    {"differing", "ack old", "-A-S", "000", "", "", ""},
    {"differing", "message", "-A-S", "000", "", "", ""},
    {"differing", "retry timer", "-A-S", "000", "", "", ""},
    {"differing", "resume timer", "-A-S", "000", "", "", ""},
    // resumed
    {"resumed", "publish", "----", "100", "sync", "", ""},
    {"resumed", "withdraw", "----", "000", "", "", ""},
    {"resumed", "sync same", "I---", "110", "ack", "", ""},
    {"resumed", "sync new", "I---", "110", "sync ack", "", ""},
    {"resumed", "sync resume", "I---", "110", "sync ack", "", ""},
    {"resumed", "sync old", "I---", "100", "ack", "", ""},
    {"resumed", "ack right", "-A-S", "010", "", "", ""},
    {"resumed", "ack pseq 0", "---S", "100", "", "", ""},
    {"resumed", "ack pseq wrong", "----", "100", "resume", "", ""},
    {"resumed", "ack seq wrong", "---S", "100", "", "", ""},
    {"resumed", "ack other id", "-A-S", "010", "", "", ""},
    {"resumed", "ack client", "-A--", "010", "", "", ""},
    {"resumed", "ack old", "-A-S", "000", "", "", ""},
    {"resumed", "message", "----", "100", "", "", ""},
    {"resumed", "retry timer", "----", "100", "sync", "", ""},
    {"resumed", "resume timer", "----", "100", "", "", ""},
    // online
    {"online", "publish", "----", "100", "sync", "", "quit"},
    {"online", "withdraw", "----", "000", "", "", "quit"},
    {"online", "sync same", "IAOS", "000", "ack+pseq", "", ""},
    {"online", "sync new", "IAOS", "000", "ack+pseq", "", ""},
    {"online", "sync resume", "I---", "110", "sync ack+pseq", "", "quit"},
    {"online", "sync old", "IAOS", "000", "ack+pseq", "", ""},
    {"online", "ack right", "IAOS", "000", "", "", ""},
    {"online", "ack pseq 0", "IAOS", "000", "", "", ""},
    {"online", "ack pseq wrong", "IAOS", "000", "", "", ""},
    {"online", "ack seq wrong", "IAOS", "000", "", "", ""},
    {"online", "ack other id", "IAOS", "000", "", "", ""},
    {"online", "ack client", "IAOS", "000", "", "", ""},
    {"online", "ack old", "IAOS", "000", "", "", ""},
    {"online", "message", "IAOS", "000", "", "", "message"},
    {"online", "retry timer", "IAOS", "000", "", "", ""},
    {"online", "resume timer", "IAOS", "000", "", "", ""},
    // online by message
    {"online by message", "publish", "----", "100", "sync", "", "quit"},
    {"online by message", "withdraw", "----", "000", "", "", "quit"},
    {"online by message", "sync same", "IAOS", "001", "ack", "", ""},
    {"online by message", "sync new", "IAOS", "001", "ack", "", ""},
    {"online by message", "sync resume", "I---", "110", "sync ack+pseq", "", "quit"},
    {"online by message", "sync old", "IAOS", "001", "ack", "", ""},
    {"online by message", "ack right", "IAOS", "001", "", "", ""},
    {"online by message", "ack pseq 0", "IAOS", "001", "", "", ""},
    {"online by message", "ack pseq wrong", "IAOS", "001", "", "", ""},
    {"online by message", "ack seq wrong", "IAOS", "001", "", "", ""},
    {"online by message", "ack other id", "IAOS", "001", "", "", ""},
    {"online by message", "ack client", "IAOS", "001", "", "", ""},
    {"online by message", "ack old", "IAOS", "001", "", "", ""},
    {"online by message", "message", "IAOS", "001", "", "", "message"},
    {"online by message", "retry timer", "IAOS", "001", "", "", ""},
    {"online by message", "resume timer", "----", "100", "resume", "", "quit"},
    // online client
    {"online client", "publish", "----", "100", "sync", "", ""},
    {"online client", "withdraw", "----", "000", "", "", ""},
    {"online client", "sync same", "IAO-", "000", "ack+pseq", "", ""},
    {"online client", "sync new", "IAO-", "000", "ack+pseq", "", ""},
    {"online client", "sync resume", "I---", "110", "sync ack+pseq", "", ""},
    {"online client", "sync old", "IAO-", "000", "ack+pseq", "", ""},
    {"online client", "ack right", "IAOS", "000", "", "", ""},
    {"online client", "ack pseq 0", "IAOS", "000", "", "", ""},
    {"online client", "ack pseq wrong", "IAO-", "000", "", "", ""},
    {"online client", "ack seq wrong", "IAOS", "000", "", "", ""},
    {"online client", "ack other id", "IAOS", "000", "", "", ""},
    {"online client", "ack client", "IAO-", "000", "", "", ""},
    {"online client", "ack old", "IAO-", "000", "", "", ""},
    {"online client", "message", "IAO-", "000", "", "", "message"},
    {"online client", "retry timer", "IAO-", "000", "", "", ""},
    {"online client", "resume timer", "IAO-", "000", "", "", ""},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(handshake, zeb_handshake_state, testing::ValuesIn(cells), cell_name);
