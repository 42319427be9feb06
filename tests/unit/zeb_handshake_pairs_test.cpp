// The handshake's states where pairs meet: two local applications that talk to one remote application, which share
// its bits, and one local application that talks to two remote ones, which share nothing but the timers and the lists.
#include "handshake.h"

constexpr uint32_t OTHER = APP + 1;   // a second local application
constexpr uint32_t SECOND = PEER + 1; // a second remote one

// A pair has a letter: a and b are the local applications of one table, p and q the remote ones of the other.
static const std::map<char, pair_t> PAIRS = {
    {'a', {APP, PEER}}, {'b', {OTHER, PEER}}, {'p', {APP, PEER}}, {'q', {APP, SECOND}}};

class zeb_handshake_pairs : public handshake_test, public testing::WithParamInterface<cell_t>
{
  protected:
    explicit zeb_handshake_pairs(const std::string &letters) : letters_(letters)
    {
    }

    void SetUp() override
    {
        handshake_test::SetUp();
        for (char letter : letters_) {
            pair_t pair = PAIRS.at(letter);
            if (letter != 'q')
                start_app(pair.first);
            ASSERT_EQ(zeb_comm_with(pair.first, pair.second), 0);
        }
        (void)fake_tipc::take_subscriptions();
    }

    void happen(const std::string &event);
    void enter(const lines_t &path);
    void check(const cell_t &cell);

    std::string texts(const words_t &words) const
    {
        std::string text;
        for (const word_t &word : words)
            text += (text.empty() ? "" : ", ") + word.text + " " + letter_of(word.pair);
        return text;
    }

    std::string lists() const
    {
        std::string text;
        for (pair_t pair : pending())
            text += letter_of(pair);
        return (text.empty() ? "-" : text) + " " + std::to_string(retry_num()) + " " + std::to_string(resume_num());
    }

  private:
    char letter_of(pair_t pair) const
    {
        for (char letter : letters_) {
            if (PAIRS.at(letter) == pair)
                return letter;
        }
        return '?';
    }

    // The first sequence of the remote application in that pair.
    static uint32_t first_seq(char letter)
    {
        return PEER_SEQ + 1000u * (uint32_t)(unsigned char)letter;
    }

    std::string letters_;
};

// "<what> <letter>"; a timer has no letter.
void zeb_handshake_pairs::happen(const std::string &event)
{
    char letter = event.back();
    std::string what = event.substr(0, event.size() - 2);
    if (event == "retry timer" || event == "resume timer") {
        event == "retry timer" ? retry_timer() : resume_timer();
        return;
    }
    pair_t pair = PAIRS.at(letter);
    uint32_t first = first_seq(letter);
    uint32_t seq = my_seq(pair);
    const std::map<std::string, std::function<void()>> events = {
        {"publish", [&] { peer_published(PEER_NODE, pair.second); }},
        {"withdraw", [&] { peer_withdrawn(PEER_NODE, pair.second); }},
        {"sync same", [&] { sync(pair, first); }},
        {"sync new", [&] { sync(pair, first + 1); }},
        {"sync resume", [&] { sync(pair, first + 2, 1); }},
        {"ack right", [&] { ack(pair, seq, first); }},
        {"ack wrong", [&] { ack(pair, seq, first + 9); }},
        {"ack pseq 0", [&] { ack(pair, seq, 0); }},
        {"message", [&] { message(pair); }},
    };
    events.at(what)();
}

void zeb_handshake_pairs::enter(const lines_t &path)
{
    for (const std::string &event : path) {
        happen(event);
        (void)sent(); // notes our sequences
    }
    (void)timers();
    (void)seen();
}

void zeb_handshake_pairs::check(const cell_t &cell)
{
    happen(cell.event);
    EXPECT_EQ(letters_ == "ab" ? bits(PEER) : bits(PEER) + " " + bits(SECOND), cell.bits);
    EXPECT_EQ(lists(), cell.lists);
    EXPECT_EQ(texts(sent()), cell.sent);
    EXPECT_EQ(timers(), cell.timers);
    EXPECT_EQ(texts(seen()), cell.seen);
}

// Two local applications. A publication or withdrawal names the remote application alone.
class zeb_handshake_two_local : public zeb_handshake_pairs
{
  protected:
    zeb_handshake_two_local() : zeb_handshake_pairs("ab")
    {
    }
};

TEST_P(zeb_handshake_two_local, cell)
{
    const std::map<std::string, lines_t> paths = {
        {"idle", {}},
        {"waiting", {"publish a"}},
        {"half a", {"sync same a"}},
        {"half b", {"sync same b"}},
        {"half both", {"sync same a", "sync same b"}},
        {"half a pending", {"publish a", "sync same a"}},
        {"half both pending", {"publish a", "sync same a", "sync same b"}},
        {"acked a", {"publish a", "sync same a", "publish a", "ack right a"}},
        {"online a", {"publish a", "sync same a", "ack right a"}},
        {"online b", {"publish a", "sync same b", "ack right b"}},
        {"online a half b", {"publish a", "sync same a", "sync same b", "ack right a"}},
        {"online both", {"publish a", "sync same a", "sync same b", "ack right a", "ack right b"}},
        {"online a by message", {"sync same a", "message a"}},
        {"online a retrying both", {"publish a", "sync same a", "sync same b", "message a"}},
    };
    enter(paths.at(GetParam().state));
    check(GetParam());
}

// Two remote applications.
class zeb_handshake_two_remote : public zeb_handshake_pairs
{
  protected:
    zeb_handshake_two_remote() : zeb_handshake_pairs("pq")
    {
    }
};

TEST_P(zeb_handshake_two_remote, cell)
{
    const std::map<std::string, lines_t> paths = {
        {"idle", {}},
        {"waiting p", {"publish p"}},
        {"waiting both", {"publish p", "publish q"}},
        {"half p", {"sync same p"}},
        {"half both", {"sync same p", "sync same q"}},
        {"half p pending both", {"publish p", "publish q", "sync same p"}},
        {"resumed p", {"sync same p", "resume timer"}},
        {"online p", {"publish p", "sync same p", "ack right p"}},
        {"online p waiting q", {"publish p", "publish q", "sync same p", "ack right p"}},
        {"online both", {"publish p", "publish q", "sync same p", "sync same q", "ack right p", "ack right q"}},
    };
    enter(paths.at(GetParam().state));
    check(GetParam());
}

// clang-format off
static const cell_t two_local[] = {
    // idle
    {"idle", "publish a", "----", "ab 0 0", "sync a, sync b", "", ""},
    {"idle", "withdraw a", "----", "- 0 0", "", "", ""},
    {"idle", "sync same a", "I---", "- 0 1", "ack a", "retry resume", ""},
    {"idle", "sync new a", "I---", "- 0 1", "ack a", "retry resume", ""},
    {"idle", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack a", "retry", ""},
    {"idle", "ack right a", "----", "- 0 0", "", "", ""},
    {"idle", "ack wrong a", "----", "- 0 0", "", "", ""},
    {"idle", "ack pseq 0 a", "---S", "- 0 0", "", "", ""},
    {"idle", "message a", "----", "- 0 0", "", "", ""},
    {"idle", "sync same b", "I---", "- 0 1", "ack b", "retry resume", ""},
    {"idle", "sync new b", "I---", "- 0 1", "ack b", "retry resume", ""},
    {"idle", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "retry", ""},
    {"idle", "ack right b", "----", "- 0 0", "", "", ""},
    {"idle", "ack wrong b", "----", "- 0 0", "", "", ""},
    {"idle", "ack pseq 0 b", "---S", "- 0 0", "", "", ""},
    {"idle", "message b", "----", "- 0 0", "", "", ""},
    {"idle", "retry timer", "----", "- 0 0", "", "", ""},
    {"idle", "resume timer", "----", "- 0 0", "", "", ""},
    // waiting
    {"waiting", "publish a", "----", "ab 0 0", "sync a, sync b", "", ""},
    {"waiting", "withdraw a", "----", "- 0 0", "", "", ""},
    {"waiting", "sync same a", "I---", "ab 1 0", "ack a", "retry", ""},
    {"waiting", "sync new a", "I---", "ab 1 0", "ack a", "retry", ""},
    {"waiting", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack a", "retry", ""},
    {"waiting", "ack right a", "----", "ab 0 0", "resume a, resume b", "", ""},
    {"waiting", "ack wrong a", "----", "ab 0 0", "resume a, resume b", "", ""},
    {"waiting", "ack pseq 0 a", "---S", "ab 0 0", "", "", ""},
    {"waiting", "message a", "----", "ab 0 0", "", "", ""},
    {"waiting", "sync same b", "I---", "ab 1 0", "ack b", "retry", ""},
    {"waiting", "sync new b", "I---", "ab 1 0", "ack b", "retry", ""},
    {"waiting", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "retry", ""},
    {"waiting", "ack right b", "----", "ab 0 0", "resume a, resume b", "", ""},
    {"waiting", "ack wrong b", "----", "ab 0 0", "resume a, resume b", "", ""},
    {"waiting", "ack pseq 0 b", "---S", "ab 0 0", "", "", ""},
    {"waiting", "message b", "----", "ab 0 0", "", "", ""},
    {"waiting", "retry timer", "----", "ab 0 0", "sync a, sync b", "", ""},
    {"waiting", "resume timer", "----", "ab 0 0", "", "", ""},
    // half a
    {"half a", "publish a", "----", "ab 0 0", "sync a, sync b", "", ""},
    {"half a", "withdraw a", "I---", "- 0 0", "", "", ""},
    {"half a", "sync same a", "I---", "- 0 2", "ack a", "resume", ""},
    {"half a", "sync new a", "I---", "- 0 2", "ack a", "resume", ""},
    {"half a", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack a", "", ""},
    {"half a", "ack right a", "I--S", "- 0 1", "", "", ""},
    {"half a", "ack wrong a", "I---", "- 0 1", "", "", ""},
    {"half a", "ack pseq 0 a", "I--S", "- 0 1", "", "", ""},
    {"half a", "message a", "IAOS", "- 0 1", "", "", "join a, message a"},
    {"half a", "sync same b", "I---", "- 0 2", "ack b", "resume", ""},
    {"half a", "sync new b", "I---", "- 0 2", "ack b", "resume", ""},
    {"half a", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", ""},
    {"half a", "ack right b", "I---", "- 0 1", "", "", ""},
    {"half a", "ack wrong b", "I---", "- 0 1", "", "", ""},
    {"half a", "ack pseq 0 b", "I--S", "- 0 1", "", "", ""},
    {"half a", "message b", "-A--", "- 0 1", "", "", "message b"},
    {"half a", "retry timer", "I---", "- 0 1", "", "", ""},
    {"half a", "resume timer", "----", "ab 0 0", "resume a, resume b", "", ""},
    // half b
    {"half b", "publish a", "----", "ab 0 0", "sync a, sync b", "", ""},
    {"half b", "withdraw a", "I---", "- 0 0", "", "", ""},
    {"half b", "sync same a", "I---", "- 0 2", "ack a", "resume", ""},
    {"half b", "sync new a", "I---", "- 0 2", "ack a", "resume", ""},
    {"half b", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack a", "", ""},
    {"half b", "ack right a", "I---", "- 0 1", "", "", ""},
    {"half b", "ack wrong a", "I---", "- 0 1", "", "", ""},
    {"half b", "ack pseq 0 a", "I--S", "- 0 1", "", "", ""},
    {"half b", "message a", "-A--", "- 0 1", "", "", "message a"},
    {"half b", "sync same b", "I---", "- 0 2", "ack b", "resume", ""},
    {"half b", "sync new b", "I---", "- 0 2", "ack b", "resume", ""},
    {"half b", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", ""},
    {"half b", "ack right b", "I--S", "- 0 1", "", "", ""},
    {"half b", "ack wrong b", "I---", "- 0 1", "", "", ""},
    {"half b", "ack pseq 0 b", "I--S", "- 0 1", "", "", ""},
    {"half b", "message b", "IAOS", "- 0 1", "", "", "join b, message b"},
    {"half b", "retry timer", "I---", "- 0 1", "", "", ""},
    {"half b", "resume timer", "----", "ab 0 0", "resume a, resume b", "", ""},
    // half both
    {"half both", "publish a", "----", "ab 0 0", "sync a, sync b", "", ""},
    {"half both", "withdraw a", "I---", "- 0 0", "", "", ""},
    {"half both", "sync same a", "I---", "- 0 3", "ack a", "resume", ""},
    {"half both", "sync new a", "I---", "- 0 3", "ack a", "resume", ""},
    {"half both", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack a", "", ""},
    {"half both", "ack right a", "I--S", "- 0 2", "", "", ""},
    {"half both", "ack wrong a", "I---", "- 0 2", "", "", ""},
    {"half both", "ack pseq 0 a", "I--S", "- 0 2", "", "", ""},
    {"half both", "message a", "IAOS", "- 0 2", "", "", "join a, message a"},
    {"half both", "sync same b", "I---", "- 0 3", "ack b", "resume", ""},
    {"half both", "sync new b", "I---", "- 0 3", "ack b", "resume", ""},
    {"half both", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", ""},
    {"half both", "ack right b", "I--S", "- 0 2", "", "", ""},
    {"half both", "ack wrong b", "I---", "- 0 2", "", "", ""},
    {"half both", "ack pseq 0 b", "I--S", "- 0 2", "", "", ""},
    {"half both", "message b", "IAOS", "- 0 2", "", "", "join b, message b"},
    {"half both", "retry timer", "I---", "- 0 2", "", "", ""},
    {"half both", "resume timer", "----", "ab 0 0", "resume a, resume b", "", ""},
    // half a pending
    {"half a pending", "publish a", "----", "ab 1 0", "sync a, sync b", "", ""},
    {"half a pending", "withdraw a", "I---", "- 1 0", "", "", ""},
    {"half a pending", "sync same a", "I---", "ab 1 0", "ack a", "", ""},
    {"half a pending", "sync new a", "I---", "ab 1 0", "ack a", "", ""},
    {"half a pending", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack a", "", ""},
    {"half a pending", "ack right a", "IAOS", "b 0 0", "", "", "join a"},
    {"half a pending", "ack wrong a", "I---", "ab 1 0", "", "", ""},
    {"half a pending", "ack pseq 0 a", "I--S", "ab 1 0", "", "", ""},
    {"half a pending", "message a", "IAOS", "b 1 0", "", "", "join a, message a"},
    {"half a pending", "sync same b", "I---", "ab 2 0", "ack b", "", ""},
    {"half a pending", "sync new b", "I---", "ab 2 0", "ack b", "", ""},
    {"half a pending", "sync resume b", "I---", "ab 2 0", "sync a, sync b, ack b", "", ""},
    {"half a pending", "ack right b", "I---", "ab 1 0", "resume b", "", ""},
    {"half a pending", "ack wrong b", "I---", "ab 1 0", "resume b", "", ""},
    {"half a pending", "ack pseq 0 b", "I--S", "ab 1 0", "", "", ""},
    {"half a pending", "message b", "IAO-", "a 1 0", "", "", "message b"},
    {"half a pending", "retry timer", "I---", "ab 1 0", "sync a, sync b", "retry", ""},
    {"half a pending", "resume timer", "I---", "ab 1 0", "", "", ""},
    // half both pending
    {"half both pending", "publish a", "----", "ab 2 0", "sync a, sync b", "", ""},
    {"half both pending", "withdraw a", "I---", "- 2 0", "", "", ""},
    {"half both pending", "sync same a", "I---", "ab 2 0", "ack a", "", ""},
    {"half both pending", "sync new a", "I---", "ab 2 0", "ack a", "", ""},
    {"half both pending", "sync resume a", "I---", "ab 2 0", "sync a, sync b, ack a", "", ""},
    {"half both pending", "ack right a", "IAOS", "b 1 0", "", "", "join a"},
    {"half both pending", "ack wrong a", "I---", "ab 2 0", "", "", ""},
    {"half both pending", "ack pseq 0 a", "I--S", "ab 2 0", "", "", ""},
    {"half both pending", "message a", "IAOS", "b 2 0", "", "", "join a, message a"},
    {"half both pending", "sync same b", "I---", "ab 2 0", "ack b", "", ""},
    {"half both pending", "sync new b", "I---", "ab 2 0", "ack b", "", ""},
    {"half both pending", "sync resume b", "I---", "ab 2 0", "sync a, sync b, ack b", "", ""},
    {"half both pending", "ack right b", "IAOS", "a 1 0", "", "", "join b"},
    {"half both pending", "ack wrong b", "I---", "ab 2 0", "", "", ""},
    {"half both pending", "ack pseq 0 b", "I--S", "ab 2 0", "", "", ""},
    {"half both pending", "message b", "IAOS", "a 2 0", "", "", "join b, message b"},
    {"half both pending", "retry timer", "I---", "ab 2 0", "sync a, sync b", "retry", ""},
    {"half both pending", "resume timer", "I---", "ab 2 0", "", "", ""},
    // acked a
    {"acked a", "publish a", "----", "ab 1 0", "sync a, sync b", "", ""},
    {"acked a", "withdraw a", "----", "- 1 0", "", "", ""},
    {"acked a", "sync same a", "IAOS", "b 1 0", "ack+pseq a", "", "join a"},
    {"acked a", "sync new a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", ""},
    {"acked a", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", ""},
    {"acked a", "ack right a", "-A-S", "b 1 0", "", "", ""},
    {"acked a", "ack wrong a", "-A-S", "b 1 0", "", "", ""},
    {"acked a", "ack pseq 0 a", "-A-S", "b 1 0", "", "", ""},
    {"acked a", "message a", "-A-S", "b 1 0", "", "", ""},
    {"acked a", "sync same b", "-A-S", "b 2 0", "ack b", "", ""},
    {"acked a", "sync new b", "-A-S", "b 2 0", "ack b", "", ""},
    {"acked a", "sync resume b", "I---", "ab 2 0", "sync a, sync b, ack b", "", ""},
    {"acked a", "ack right b", "----", "ab 1 0", "resume a, resume b", "", ""},
    {"acked a", "ack wrong b", "----", "ab 1 0", "resume a, resume b", "", ""},
    {"acked a", "ack pseq 0 b", "-A-S", "b 1 0", "", "", ""},
    {"acked a", "message b", "-A-S", "b 1 0", "", "", ""},
    {"acked a", "retry timer", "-A-S", "b 1 0", "sync b", "retry", ""},
    {"acked a", "resume timer", "-A-S", "b 1 0", "", "", ""},
    // online a
    {"online a", "publish a", "----", "ab 0 0", "sync a, sync b", "", "quit a"},
    {"online a", "withdraw a", "----", "- 0 0", "", "", "quit a"},
    {"online a", "sync same a", "IAOS", "b 0 0", "ack+pseq a", "", ""},
    {"online a", "sync new a", "IAOS", "b 0 0", "ack+pseq a", "", ""},
    {"online a", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", "quit a"},
    {"online a", "ack right a", "IAOS", "b 0 0", "", "", ""},
    {"online a", "ack wrong a", "IAOS", "b 0 0", "", "", ""},
    {"online a", "ack pseq 0 a", "IAOS", "b 0 0", "", "", ""},
    {"online a", "message a", "IAOS", "b 0 0", "", "", "message a"},
    {"online a", "sync same b", "IAOS", "b 1 0", "ack b", "", ""},
    {"online a", "sync new b", "IAOS", "b 1 0", "ack b", "", ""},
    {"online a", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", "quit a"},
    {"online a", "ack right b", "IAOS", "b 0 0", "resume b", "", ""},
    {"online a", "ack wrong b", "IAOS", "b 0 0", "resume b", "", ""},
    {"online a", "ack pseq 0 b", "IAOS", "b 0 0", "", "", ""},
    {"online a", "message b", "IAOS", "b 0 0", "", "", "message b"},
    {"online a", "retry timer", "IAOS", "b 0 0", "sync b", "", ""},
    {"online a", "resume timer", "IAOS", "b 0 0", "", "", ""},
    // online b
    {"online b", "publish a", "----", "ab 0 0", "sync a, sync b", "", "quit a"},
    {"online b", "withdraw a", "----", "- 0 0", "", "", "quit a"},
    {"online b", "sync same a", "IAOS", "a 1 0", "ack a", "", ""},
    {"online b", "sync new a", "IAOS", "a 1 0", "ack a", "", ""},
    {"online b", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", "quit a"},
    {"online b", "ack right a", "IAOS", "a 0 0", "resume a", "", ""},
    {"online b", "ack wrong a", "IAOS", "a 0 0", "resume a", "", ""},
    {"online b", "ack pseq 0 a", "IAOS", "a 0 0", "", "", ""},
    {"online b", "message a", "IAOS", "a 0 0", "", "", "message a"},
    {"online b", "sync same b", "IAOS", "a 0 0", "ack+pseq b", "", ""},
    {"online b", "sync new b", "IAOS", "a 0 0", "ack+pseq b", "", ""},
    {"online b", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack+pseq b", "", "quit a"},
    {"online b", "ack right b", "IAOS", "a 0 0", "", "", ""},
    {"online b", "ack wrong b", "IAOS", "a 0 0", "", "", ""},
    {"online b", "ack pseq 0 b", "IAOS", "a 0 0", "", "", ""},
    {"online b", "message b", "IAOS", "a 0 0", "", "", "message b"},
    {"online b", "retry timer", "IAOS", "a 0 0", "sync a", "", ""},
    {"online b", "resume timer", "IAOS", "a 0 0", "", "", ""},
    // online a half b
    {"online a half b", "publish a", "----", "ab 0 0", "sync a, sync b", "", "quit a"},
    {"online a half b", "withdraw a", "----", "- 0 0", "", "", "quit a"},
    {"online a half b", "sync same a", "IAOS", "b 1 0", "ack+pseq a", "", ""},
    {"online a half b", "sync new a", "IAOS", "b 1 0", "ack+pseq a", "", ""},
    {"online a half b", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", "quit a"},
    {"online a half b", "ack right a", "IAOS", "b 1 0", "", "", ""},
    {"online a half b", "ack wrong a", "IAOS", "b 1 0", "", "", ""},
    {"online a half b", "ack pseq 0 a", "IAOS", "b 1 0", "", "", ""},
    {"online a half b", "message a", "IAOS", "b 1 0", "", "", "message a"},
    {"online a half b", "sync same b", "IAOS", "b 1 0", "ack b", "", ""},
    {"online a half b", "sync new b", "IAOS", "b 1 0", "ack b", "", ""},
    {"online a half b", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", "quit a"},
    {"online a half b", "ack right b", "IAOS", "- 0 0", "", "", ""},
    {"online a half b", "ack wrong b", "IAOS", "b 1 0", "", "", ""},
    {"online a half b", "ack pseq 0 b", "IAOS", "b 1 0", "", "", ""},
    {"online a half b", "message b", "IAOS", "b 1 0", "", "", "message b"},
    {"online a half b", "retry timer", "IAOS", "b 1 0", "sync b", "retry", ""},
    {"online a half b", "resume timer", "IAOS", "b 1 0", "", "", ""},
    // online both
    {"online both", "publish a", "----", "ab 0 0", "sync a, sync b", "", "quit a"},
    {"online both", "withdraw a", "----", "- 0 0", "", "", "quit a"},
    {"online both", "sync same a", "IAOS", "- 0 0", "ack+pseq a", "", ""},
    {"online both", "sync new a", "IAOS", "- 0 0", "ack+pseq a", "", ""},
    {"online both", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", "quit a"},
    {"online both", "ack right a", "IAOS", "- 0 0", "", "", ""},
    {"online both", "ack wrong a", "IAOS", "- 0 0", "", "", ""},
    {"online both", "ack pseq 0 a", "IAOS", "- 0 0", "", "", ""},
    {"online both", "message a", "IAOS", "- 0 0", "", "", "message a"},
    {"online both", "sync same b", "IAOS", "- 0 0", "ack+pseq b", "", ""},
    {"online both", "sync new b", "IAOS", "- 0 0", "ack+pseq b", "", ""},
    {"online both", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack+pseq b", "", "quit a"},
    {"online both", "ack right b", "IAOS", "- 0 0", "", "", ""},
    {"online both", "ack wrong b", "IAOS", "- 0 0", "", "", ""},
    {"online both", "ack pseq 0 b", "IAOS", "- 0 0", "", "", ""},
    {"online both", "message b", "IAOS", "- 0 0", "", "", "message b"},
    {"online both", "retry timer", "IAOS", "- 0 0", "", "", ""},
    {"online both", "resume timer", "IAOS", "- 0 0", "", "", ""},
    // online a by message
    {"online a by message", "publish a", "----", "ab 0 0", "sync a, sync b", "", "quit a"},
    {"online a by message", "withdraw a", "----", "- 0 0", "", "", "quit a"},
    {"online a by message", "sync same a", "IAOS", "- 0 1", "ack a", "", ""},
    {"online a by message", "sync new a", "IAOS", "- 0 1", "ack a", "", ""},
    {"online a by message", "sync resume a", "I---", "ab 1 0", "sync a, sync b, ack+pseq a", "", "quit a"},
    {"online a by message", "ack right a", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "ack wrong a", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "ack pseq 0 a", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "message a", "IAOS", "- 0 1", "", "", "message a"},
    {"online a by message", "sync same b", "IAOS", "- 0 1", "ack b", "", ""},
    {"online a by message", "sync new b", "IAOS", "- 0 1", "ack b", "", ""},
    {"online a by message", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", "quit a"},
    {"online a by message", "ack right b", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "ack wrong b", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "ack pseq 0 b", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "message b", "IAOS", "- 0 1", "", "", "message b"},
    {"online a by message", "retry timer", "IAOS", "- 0 1", "", "", ""},
    {"online a by message", "resume timer", "----", "ab 0 0", "resume a, resume b", "", "quit a"},
    // online a retrying both
    {"online a retrying both", "publish a", "----", "ab 1 0", "sync a, sync b", "", "quit a"},
    {"online a retrying both", "withdraw a", "----", "- 1 0", "", "", "quit a"},
    {"online a retrying both", "sync same a", "IAOS", "b 2 0", "ack+pseq a", "", ""},
    {"online a retrying both", "sync new a", "IAOS", "b 2 0", "ack+pseq a", "", ""},
    {"online a retrying both", "sync resume a", "I---", "ab 2 0", "sync a, sync b, ack+pseq a", "", "quit a"},
    {"online a retrying both", "ack right a", "IAOS", "b 2 0", "", "", ""},
    {"online a retrying both", "ack wrong a", "IAOS", "b 2 0", "", "", ""},
    {"online a retrying both", "ack pseq 0 a", "IAOS", "b 2 0", "", "", ""},
    {"online a retrying both", "message a", "IAOS", "b 2 0", "", "", "message a"},
    {"online a retrying both", "sync same b", "IAOS", "b 2 0", "ack b", "", ""},
    {"online a retrying both", "sync new b", "IAOS", "b 2 0", "ack b", "", ""},
    {"online a retrying both", "sync resume b", "I---", "ab 1 0", "sync a, sync b, ack b", "", "quit a"},
    {"online a retrying both", "ack right b", "IAOS", "- 1 0", "", "", ""},
    {"online a retrying both", "ack wrong b", "IAOS", "b 2 0", "", "", ""},
    {"online a retrying both", "ack pseq 0 b", "IAOS", "b 2 0", "", "", ""},
    {"online a retrying both", "message b", "IAOS", "b 2 0", "", "", "message b"},
    {"online a retrying both", "retry timer", "IAOS", "b 1 0", "sync b", "retry", ""},
    {"online a retrying both", "resume timer", "IAOS", "b 2 0", "", "", ""},
};
// clang-format on

// clang-format off
static const cell_t two_remote[] = {
    // idle
    {"idle", "publish p", "---- ----", "p 0 0", "sync p", "", ""},
    {"idle", "withdraw p", "---- ----", "- 0 0", "", "", ""},
    {"idle", "sync same p", "I--- ----", "- 0 1", "ack p", "retry resume", ""},
    {"idle", "sync new p", "I--- ----", "- 0 1", "ack p", "retry resume", ""},
    {"idle", "sync resume p", "I--- ----", "p 1 0", "sync p, ack p", "retry", ""},
    {"idle", "ack right p", "---- ----", "- 0 0", "", "", ""},
    {"idle", "ack wrong p", "---- ----", "- 0 0", "", "", ""},
    {"idle", "ack pseq 0 p", "---S ----", "- 0 0", "", "", ""},
    {"idle", "message p", "---- ----", "- 0 0", "", "", ""},
    {"idle", "publish q", "---- ----", "q 0 0", "sync q", "", ""},
    {"idle", "withdraw q", "---- ----", "- 0 0", "", "", ""},
    {"idle", "sync same q", "---- I---", "- 0 1", "ack q", "retry resume", ""},
    {"idle", "sync new q", "---- I---", "- 0 1", "ack q", "retry resume", ""},
    {"idle", "sync resume q", "---- I---", "q 1 0", "sync q, ack q", "retry", ""},
    {"idle", "ack right q", "---- ----", "- 0 0", "", "", ""},
    {"idle", "ack wrong q", "---- ----", "- 0 0", "", "", ""},
    {"idle", "ack pseq 0 q", "---- ---S", "- 0 0", "", "", ""},
    {"idle", "message q", "---- ----", "- 0 0", "", "", ""},
    {"idle", "retry timer", "---- ----", "- 0 0", "", "", ""},
    {"idle", "resume timer", "---- ----", "- 0 0", "", "", ""},
    // waiting p
    {"waiting p", "publish p", "---- ----", "p 0 0", "sync p", "", ""},
    {"waiting p", "withdraw p", "---- ----", "- 0 0", "", "", ""},
    {"waiting p", "sync same p", "I--- ----", "p 1 0", "ack p", "retry", ""},
    {"waiting p", "sync new p", "I--- ----", "p 1 0", "ack p", "retry", ""},
    {"waiting p", "sync resume p", "I--- ----", "p 1 0", "sync p, ack p", "retry", ""},
    {"waiting p", "ack right p", "---- ----", "p 0 0", "resume p", "", ""},
    {"waiting p", "ack wrong p", "---- ----", "p 0 0", "resume p", "", ""},
    {"waiting p", "ack pseq 0 p", "---S ----", "p 0 0", "", "", ""},
    {"waiting p", "message p", "---- ----", "p 0 0", "", "", ""},
    {"waiting p", "publish q", "---- ----", "pq 0 0", "sync q", "", ""},
    {"waiting p", "withdraw q", "---- ----", "p 0 0", "", "", ""},
    {"waiting p", "sync same q", "---- I---", "p 0 1", "ack q", "retry resume", ""},
    {"waiting p", "sync new q", "---- I---", "p 0 1", "ack q", "retry resume", ""},
    {"waiting p", "sync resume q", "---- I---", "pq 1 0", "sync q, ack q", "retry", ""},
    {"waiting p", "ack right q", "---- ----", "p 0 0", "", "", ""},
    {"waiting p", "ack wrong q", "---- ----", "p 0 0", "", "", ""},
    {"waiting p", "ack pseq 0 q", "---- ---S", "p 0 0", "", "", ""},
    {"waiting p", "message q", "---- ----", "p 0 0", "", "", ""},
    {"waiting p", "retry timer", "---- ----", "p 0 0", "sync p", "", ""},
    {"waiting p", "resume timer", "---- ----", "p 0 0", "", "", ""},
    // waiting both
    {"waiting both", "publish p", "---- ----", "qp 0 0", "sync p", "", ""},
    {"waiting both", "withdraw p", "---- ----", "q 0 0", "", "", ""},
    {"waiting both", "sync same p", "I--- ----", "pq 1 0", "ack p", "retry", ""},
    {"waiting both", "sync new p", "I--- ----", "pq 1 0", "ack p", "retry", ""},
    {"waiting both", "sync resume p", "I--- ----", "qp 1 0", "sync p, ack p", "retry", ""},
    {"waiting both", "ack right p", "---- ----", "qp 0 0", "resume p", "", ""},
    {"waiting both", "ack wrong p", "---- ----", "qp 0 0", "resume p", "", ""},
    {"waiting both", "ack pseq 0 p", "---S ----", "pq 0 0", "", "", ""},
    {"waiting both", "message p", "---- ----", "pq 0 0", "", "", ""},
    {"waiting both", "publish q", "---- ----", "pq 0 0", "sync q", "", ""},
    {"waiting both", "withdraw q", "---- ----", "p 0 0", "", "", ""},
    {"waiting both", "sync same q", "---- I---", "pq 1 0", "ack q", "retry", ""},
    {"waiting both", "sync new q", "---- I---", "pq 1 0", "ack q", "retry", ""},
    {"waiting both", "sync resume q", "---- I---", "pq 1 0", "sync q, ack q", "retry", ""},
    {"waiting both", "ack right q", "---- ----", "pq 0 0", "resume q", "", ""},
    {"waiting both", "ack wrong q", "---- ----", "pq 0 0", "resume q", "", ""},
    {"waiting both", "ack pseq 0 q", "---- ---S", "pq 0 0", "", "", ""},
    {"waiting both", "message q", "---- ----", "pq 0 0", "", "", ""},
    {"waiting both", "retry timer", "---- ----", "pq 0 0", "sync p, sync q", "", ""},
    {"waiting both", "resume timer", "---- ----", "pq 0 0", "", "", ""},
    // half p
    {"half p", "publish p", "---- ----", "p 0 0", "sync p", "", ""},
    {"half p", "withdraw p", "I--- ----", "- 0 0", "", "", ""},
    {"half p", "sync same p", "I--- ----", "- 0 2", "ack p", "resume", ""},
    {"half p", "sync new p", "I--- ----", "- 0 2", "ack p", "resume", ""},
    {"half p", "sync resume p", "I--- ----", "p 1 0", "sync p, ack p", "", ""},
    {"half p", "ack right p", "I--S ----", "- 0 1", "", "", ""},
    {"half p", "ack wrong p", "I--- ----", "- 0 1", "", "", ""},
    {"half p", "ack pseq 0 p", "I--S ----", "- 0 1", "", "", ""},
    {"half p", "message p", "IAOS ----", "- 0 1", "", "", "join p, message p"},
    {"half p", "publish q", "I--- ----", "q 0 1", "sync q", "", ""},
    {"half p", "withdraw q", "I--- ----", "- 0 1", "", "", ""},
    {"half p", "sync same q", "I--- I---", "- 0 2", "ack q", "resume", ""},
    {"half p", "sync new q", "I--- I---", "- 0 2", "ack q", "resume", ""},
    {"half p", "sync resume q", "I--- I---", "q 1 1", "sync q, ack q", "", ""},
    {"half p", "ack right q", "I--- ----", "- 0 1", "", "", ""},
    {"half p", "ack wrong q", "I--- ----", "- 0 1", "", "", ""},
    {"half p", "ack pseq 0 q", "I--- ---S", "- 0 1", "", "", ""},
    {"half p", "message q", "I--- ----", "- 0 1", "", "", ""},
    {"half p", "retry timer", "I--- ----", "- 0 1", "", "", ""},
    {"half p", "resume timer", "---- ----", "p 0 0", "resume p", "", ""},
    // half both
    {"half both", "publish p", "---- I---", "p 0 1", "sync p", "", ""},
    {"half both", "withdraw p", "I--- I---", "- 0 1", "", "", ""},
    {"half both", "sync same p", "I--- I---", "- 0 3", "ack p", "resume", ""},
    {"half both", "sync new p", "I--- I---", "- 0 3", "ack p", "resume", ""},
    {"half both", "sync resume p", "I--- I---", "p 1 1", "sync p, ack p", "", ""},
    {"half both", "ack right p", "I--S I---", "- 0 2", "", "", ""},
    {"half both", "ack wrong p", "I--- I---", "- 0 2", "", "", ""},
    {"half both", "ack pseq 0 p", "I--S I---", "- 0 2", "", "", ""},
    {"half both", "message p", "IAOS I---", "- 0 2", "", "", "join p, message p"},
    {"half both", "publish q", "I--- ----", "q 0 1", "sync q", "", ""},
    {"half both", "withdraw q", "I--- I---", "- 0 1", "", "", ""},
    {"half both", "sync same q", "I--- I---", "- 0 3", "ack q", "resume", ""},
    {"half both", "sync new q", "I--- I---", "- 0 3", "ack q", "resume", ""},
    {"half both", "sync resume q", "I--- I---", "q 1 1", "sync q, ack q", "", ""},
    {"half both", "ack right q", "I--- I--S", "- 0 2", "", "", ""},
    {"half both", "ack wrong q", "I--- I---", "- 0 2", "", "", ""},
    {"half both", "ack pseq 0 q", "I--- I--S", "- 0 2", "", "", ""},
    {"half both", "message q", "I--- IAOS", "- 0 2", "", "", "join q, message q"},
    {"half both", "retry timer", "I--- I---", "- 0 2", "", "", ""},
    {"half both", "resume timer", "---- I---", "p 0 1", "resume p", "", ""},
    // half p pending both
    {"half p pending both", "publish p", "---- ----", "qp 1 0", "sync p", "", ""},
    {"half p pending both", "withdraw p", "I--- ----", "q 1 0", "", "", ""},
    {"half p pending both", "sync same p", "I--- ----", "pq 1 0", "ack p", "", ""},
    {"half p pending both", "sync new p", "I--- ----", "pq 1 0", "ack p", "", ""},
    {"half p pending both", "sync resume p", "I--- ----", "qp 1 0", "sync p, ack p", "", ""},
    {"half p pending both", "ack right p", "IAOS ----", "q 0 0", "", "", "join p"},
    {"half p pending both", "ack wrong p", "I--- ----", "pq 1 0", "", "", ""},
    {"half p pending both", "ack pseq 0 p", "I--S ----", "pq 1 0", "", "", ""},
    {"half p pending both", "message p", "IAOS ----", "q 1 0", "", "", "join p, message p"},
    {"half p pending both", "publish q", "I--- ----", "pq 1 0", "sync q", "", ""},
    {"half p pending both", "withdraw q", "I--- ----", "p 1 0", "", "", ""},
    {"half p pending both", "sync same q", "I--- I---", "pq 2 0", "ack q", "", ""},
    {"half p pending both", "sync new q", "I--- I---", "pq 2 0", "ack q", "", ""},
    {"half p pending both", "sync resume q", "I--- I---", "pq 2 0", "sync q, ack q", "", ""},
    {"half p pending both", "ack right q", "I--- ----", "pq 1 0", "resume q", "", ""},
    {"half p pending both", "ack wrong q", "I--- ----", "pq 1 0", "resume q", "", ""},
    {"half p pending both", "ack pseq 0 q", "I--- ---S", "pq 1 0", "", "", ""},
    {"half p pending both", "message q", "I--- ----", "pq 1 0", "", "", ""},
    {"half p pending both", "retry timer", "I--- ----", "pq 1 0", "sync p, sync q", "retry", ""},
    {"half p pending both", "resume timer", "I--- ----", "pq 1 0", "", "", ""},
    // resumed p
    {"resumed p", "publish p", "---- ----", "p 0 0", "sync p", "", ""},
    {"resumed p", "withdraw p", "---- ----", "- 0 0", "", "", ""},
    {"resumed p", "sync same p", "I--- ----", "p 1 0", "ack p", "", ""},
    {"resumed p", "sync new p", "I--- ----", "p 1 0", "sync p, ack p", "", ""},
    {"resumed p", "sync resume p", "I--- ----", "p 1 0", "sync p, ack p", "", ""},
    {"resumed p", "ack right p", "-A-S ----", "- 1 0", "", "", ""},
    {"resumed p", "ack wrong p", "---- ----", "p 0 0", "resume p", "", ""},
    {"resumed p", "ack pseq 0 p", "---S ----", "p 0 0", "", "", ""},
    {"resumed p", "message p", "---- ----", "p 0 0", "", "", ""},
    {"resumed p", "publish q", "---- ----", "pq 0 0", "sync q", "", ""},
    {"resumed p", "withdraw q", "---- ----", "p 0 0", "", "", ""},
    {"resumed p", "sync same q", "---- I---", "p 0 1", "ack q", "resume", ""},
    {"resumed p", "sync new q", "---- I---", "p 0 1", "ack q", "resume", ""},
    {"resumed p", "sync resume q", "---- I---", "pq 1 0", "sync q, ack q", "", ""},
    {"resumed p", "ack right q", "---- ----", "p 0 0", "", "", ""},
    {"resumed p", "ack wrong q", "---- ----", "p 0 0", "", "", ""},
    {"resumed p", "ack pseq 0 q", "---- ---S", "p 0 0", "", "", ""},
    {"resumed p", "message q", "---- ----", "p 0 0", "", "", ""},
    {"resumed p", "retry timer", "---- ----", "p 0 0", "sync p", "", ""},
    {"resumed p", "resume timer", "---- ----", "p 0 0", "", "", ""},
    // online p
    {"online p", "publish p", "---- ----", "p 0 0", "sync p", "", "quit p"},
    {"online p", "withdraw p", "---- ----", "- 0 0", "", "", "quit p"},
    {"online p", "sync same p", "IAOS ----", "- 0 0", "ack+pseq p", "", ""},
    {"online p", "sync new p", "IAOS ----", "- 0 0", "ack+pseq p", "", ""},
    {"online p", "sync resume p", "I--- ----", "p 1 0", "sync p, ack+pseq p", "", "quit p"},
    {"online p", "ack right p", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "ack wrong p", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "ack pseq 0 p", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "message p", "IAOS ----", "- 0 0", "", "", "message p"},
    {"online p", "publish q", "IAOS ----", "q 0 0", "sync q", "", ""},
    {"online p", "withdraw q", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "sync same q", "IAOS I---", "- 0 1", "ack q", "resume", ""},
    {"online p", "sync new q", "IAOS I---", "- 0 1", "ack q", "resume", ""},
    {"online p", "sync resume q", "IAOS I---", "q 1 0", "sync q, ack q", "", ""},
    {"online p", "ack right q", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "ack wrong q", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "ack pseq 0 q", "IAOS ---S", "- 0 0", "", "", ""},
    {"online p", "message q", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "retry timer", "IAOS ----", "- 0 0", "", "", ""},
    {"online p", "resume timer", "IAOS ----", "- 0 0", "", "", ""},
    // online p waiting q
    {"online p waiting q", "publish p", "---- ----", "qp 0 0", "sync p", "", "quit p"},
    {"online p waiting q", "withdraw p", "---- ----", "q 0 0", "", "", "quit p"},
    {"online p waiting q", "sync same p", "IAOS ----", "q 0 0", "ack+pseq p", "", ""},
    {"online p waiting q", "sync new p", "IAOS ----", "q 0 0", "ack+pseq p", "", ""},
    {"online p waiting q", "sync resume p", "I--- ----", "qp 1 0", "sync p, ack+pseq p", "", "quit p"},
    {"online p waiting q", "ack right p", "IAOS ----", "q 0 0", "", "", ""},
    {"online p waiting q", "ack wrong p", "IAOS ----", "q 0 0", "", "", ""},
    {"online p waiting q", "ack pseq 0 p", "IAOS ----", "q 0 0", "", "", ""},
    {"online p waiting q", "message p", "IAOS ----", "q 0 0", "", "", "message p"},
    {"online p waiting q", "publish q", "IAOS ----", "q 0 0", "sync q", "", ""},
    {"online p waiting q", "withdraw q", "IAOS ----", "- 0 0", "", "", ""},
    {"online p waiting q", "sync same q", "IAOS I---", "q 1 0", "ack q", "", ""},
    {"online p waiting q", "sync new q", "IAOS I---", "q 1 0", "ack q", "", ""},
    {"online p waiting q", "sync resume q", "IAOS I---", "q 1 0", "sync q, ack q", "", ""},
    {"online p waiting q", "ack right q", "IAOS ----", "q 0 0", "resume q", "", ""},
    {"online p waiting q", "ack wrong q", "IAOS ----", "q 0 0", "resume q", "", ""},
    {"online p waiting q", "ack pseq 0 q", "IAOS ---S", "q 0 0", "", "", ""},
    {"online p waiting q", "message q", "IAOS ----", "q 0 0", "", "", ""},
    {"online p waiting q", "retry timer", "IAOS ----", "q 0 0", "sync q", "", ""},
    {"online p waiting q", "resume timer", "IAOS ----", "q 0 0", "", "", ""},
    // online both
    {"online both", "publish p", "---- IAOS", "p 0 0", "sync p", "", "quit p"},
    {"online both", "withdraw p", "---- IAOS", "- 0 0", "", "", "quit p"},
    {"online both", "sync same p", "IAOS IAOS", "- 0 0", "ack+pseq p", "", ""},
    {"online both", "sync new p", "IAOS IAOS", "- 0 0", "ack+pseq p", "", ""},
    {"online both", "sync resume p", "I--- IAOS", "p 1 0", "sync p, ack+pseq p", "", "quit p"},
    {"online both", "ack right p", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "ack wrong p", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "ack pseq 0 p", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "message p", "IAOS IAOS", "- 0 0", "", "", "message p"},
    {"online both", "publish q", "IAOS ----", "q 0 0", "sync q", "", "quit q"},
    {"online both", "withdraw q", "IAOS ----", "- 0 0", "", "", "quit q"},
    {"online both", "sync same q", "IAOS IAOS", "- 0 0", "ack+pseq q", "", ""},
    {"online both", "sync new q", "IAOS IAOS", "- 0 0", "ack+pseq q", "", ""},
    {"online both", "sync resume q", "IAOS I---", "q 1 0", "sync q, ack+pseq q", "", "quit q"},
    {"online both", "ack right q", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "ack wrong q", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "ack pseq 0 q", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "message q", "IAOS IAOS", "- 0 0", "", "", "message q"},
    {"online both", "retry timer", "IAOS IAOS", "- 0 0", "", "", ""},
    {"online both", "resume timer", "IAOS IAOS", "- 0 0", "", "", ""},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(handshake, zeb_handshake_two_local, testing::ValuesIn(two_local), cell_name);
INSTANTIATE_TEST_SUITE_P(handshake, zeb_handshake_two_remote, testing::ValuesIn(two_remote), cell_name);
