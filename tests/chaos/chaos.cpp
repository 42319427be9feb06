// The chaos test: processes on four nodes send, call and fan out while faults happen in a seeded order. After each
// round traffic stops. Then all living pairs must come online, every call must have ended, and every message must be
// accounted for. CHAOS_SECONDS is how long the test runs, CHAOS_SEED which faults it draws.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cluster.h"
#include "ledger.h"

using namespace chaos;
using cluster::process;

namespace
{
constexpr int QUIET_SECONDS = 120; // in which everything must recover

struct member_t { // a place for a process; a killed one is replaced
    int node;
    std::vector<std::string> apps;
    std::unique_ptr<process> program;
    const ledger_t *ledger;
    bool fresh; // it began in this round
};

struct totals_t {
    uint64_t rounds, faults, sent, refused, received, returned, to_quit, lost, doubled, damaged;
    uint64_t calls, calls_refused, outcomes[6];
};

class chaos_test : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
        dir_ = std::string(getenv("LAB_RUN")) + "/chaos";
        (void)mkdir(dir_.c_str(), 0700);
        seed_ = (uint32_t)atoi(getenv("CHAOS_SEED") != nullptr ? getenv("CHAOS_SEED") : "1");
        random_.seed(seed_);
        simulated_ = getenv("TIPCSIM_CLUSTER") != nullptr;
        add(1, {"500", "501", "502:nothread"});
        add(2, {"500", "501:nothread"});
        add(2, {"502"});
        for (int node : {3, 4}) {
            for (const char *app : {"500", "501", "502"})
                add(node, {app});
        }
    }

    uint32_t draw(uint32_t num)
    {
        return (uint32_t)(random_() % num);
    }

    void add(int node, const std::vector<std::string> &apps)
    {
        members_.push_back({node, apps, nullptr, nullptr, true});
        launch(&members_.back());
    }

    void launch(member_t *member);
    const ledger_t *map_ledger(const std::string &path);
    void end(member_t *member);

    // The faults. Each prints what it does, and adds to `undo_` what ends it. Killed processes are started again after
    // that.
    void kill_one();
    void kill_and_start_at_once();
    void cut_node();
    void blink_node();
    void power_off();
    void stall();
    void drop_topology();
    void delay();
    void fail_sends();
    void lose_node_file();
    void inject_fault();
    bool is_down(int node) const
    {
        return down_ != 0 && (node == 0 || node == down_);
    }

    void order(const std::string &words);
    void pause(uint32_t ms);
    void tell_all(const std::string &command);
    bool all_idle();
    bool all_online();
    void quiet();
    void check_accounts();
    bool explained(const member_t &from, const member_t &to, uint32_t peer, uint32_t app, uint32_t missing) const;
    uint32_t judge_pair(const member_t &from, uint32_t app, const member_t &to, uint32_t peer,
                        std::string *trouble) const;
    std::string judge_pairs();
    void judge_order();
    void judge_calls();
    void round();
    void take_stock(const ledger_t &ledger);
    void summary();

    std::string dir_;
    uint32_t seed_ = 0;
    std::mt19937 random_;
    bool simulated_ = false;
    uint32_t processes_ = 0;
    int down_ = 0; // the node without power, 0: none
    std::vector<member_t> members_;
    std::vector<std::function<void()>> undo_;
    std::map<const ledger_t *, ledger_t *> before_; // each living process's ledger at the end of the last round
    std::map<std::string, int> faults_;
    totals_t totals_ = {};
};

void chaos_test::launch(member_t *member)
{
    std::string path = dir_ + "/" + std::to_string(++processes_);
    std::string words = path + " " + std::to_string(processes_) + " " + std::to_string(seed_ * 1000 + processes_);
    for (const std::string &app : member->apps)
        words += " " + app;
    member->program = std::make_unique<process>(member->node, "chaos_agent " + words);
    member->program->wait("ready");
    member->ledger = map_ledger(path);
    member->fresh = true;
}

const ledger_t *chaos_test::map_ledger(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    void *at = mmap(nullptr, sizeof(ledger_t), PROT_READ, MAP_SHARED, fd, 0);
    EXPECT_NE(at, MAP_FAILED);
    (void)close(fd);
    before_[(const ledger_t *)at] = new ledger_t();
    return (const ledger_t *)at;
}

// A dead process's ledger is complete.
void chaos_test::end(member_t *member)
{
    member->program->kill();
    take_stock(*member->ledger);
    delete before_[member->ledger];
    before_.erase(member->ledger);
    (void)munmap((void *)member->ledger, sizeof(ledger_t));
    member->ledger = nullptr;
}

void chaos_test::order(const std::string &words)
{
    std::string command = std::string(getenv("LAB")) + " " + words + " >/dev/null";
    ASSERT_EQ(system(command.c_str()), 0) << command;
}

void chaos_test::pause(uint32_t ms)
{
    usleep(ms * 1000); // no condition ends it: how long traffic runs and a fault lasts is what is tested
}

void chaos_test::kill_one()
{
    member_t *member = &members_[draw((uint32_t)members_.size())];
    if (member->ledger == nullptr)
        return;
    printf("    kill %u on node %d\n", member->ledger->process, member->node);
    end(member);
}

void chaos_test::kill_and_start_at_once()
{
    member_t *member = &members_[draw((uint32_t)members_.size())];
    if (member->ledger == nullptr)
        return;
    printf("    restart %u on node %d\n", member->ledger->process, member->node);
    end(member);
    if (!is_down(member->node))
        launch(member);
}

void chaos_test::cut_node()
{
    int node = 1 + (int)draw(NODE_NUM);
    if (is_down(0))
        return; // one fault of a node's links at a time
    printf("    cut node %d\n", node);
    cluster::cut(node);
    undo_.push_back([node] { cluster::heal(node); });
    pause(500 + draw(3000));
}

// Shorter than the tolerance of the link, where there is one.
void chaos_test::blink_node()
{
    int node = 1 + (int)draw(NODE_NUM);
    if (is_down(0))
        return;
    printf("    blink node %d\n", node);
    cluster::cut(node);
    pause(draw(400));
    cluster::heal(node);
}

void chaos_test::power_off()
{
    int node = 1 + (int)draw(NODE_NUM);
    if (is_down(0))
        return;
    down_ = node;
    printf("    node %d down\n", node);
    for (member_t &member : members_) {
        if (member.node == node && member.ledger != nullptr)
            end(&member);
    }
    cluster::node_down(node);
    undo_.push_back([this, node] {
        cluster::node_up(node);
        down_ = 0;
    });
}

void chaos_test::stall()
{
    member_t *member = &members_[draw((uint32_t)members_.size())];
    if (member->ledger == nullptr)
        return;
    int node = member->node;
    printf("    stall %s\n", simulated_ ? ("node " + std::to_string(node)).c_str() : "a process");
    if (simulated_)
        order("stall " + std::to_string(node));
    else
        member->program->stop();
    pause(500 + draw(2500));
    if (simulated_)
        order("resume " + std::to_string(node));
    else
        member->program->resume();
}

void chaos_test::drop_topology()
{
    int node = 1 + (int)draw(NODE_NUM);
    printf("    drop the topology connections of node %d\n", node);
    order("drop-topology " + std::to_string(node));
}

void chaos_test::delay()
{
    std::string link = std::to_string(1 + draw(2)) + " " + std::to_string(3 + draw(2));
    printf("    delay %s\n", link.c_str());
    order("delay " + link + " " + std::to_string(1 + draw(80)));
    undo_.push_back([this, link] { order("delay " + link + " 0"); });
}

void chaos_test::fail_sends()
{
    static const char *const errors[] = {"EINTR", "ENOBUFS", "ENOMEM", "EHOSTUNREACH", "EPIPE"};
    std::string words = "fail --node " + std::to_string(1 + draw(NODE_NUM)) + " --sends " +
                        std::to_string(1 + draw(20)) + " --errno " + errors[draw(5)];
    printf("    %s\n", words.c_str());
    order(words);
}

// A process that starts without the file cannot register. One that runs has read it.
void chaos_test::lose_node_file()
{
    member_t *member = &members_[draw((uint32_t)members_.size())];
    if (member->ledger == nullptr || is_down(member->node))
        return;
    printf("    node file of node %d removed, %u restarted\n", member->node, member->ledger->process);
    cluster::remove_file(member->node, "/tmp/addr/.zeb_node_addr");
    end(member);
    process orphan(member->node, "chaos_agent " + dir_ + "/orphan 0 0 500");
    (void)orphan.wait("register -1");
    cluster::write_file(member->node, "/tmp/addr/.zeb_node_addr", std::to_string(member->node) + "\n");
}

void chaos_test::inject_fault()
{
    typedef void (chaos_test::*fault_t)();
    static const std::pair<const char *, fault_t> everywhere[] = {{"kill", &chaos_test::kill_one},
                                                                  {"restart", &chaos_test::kill_and_start_at_once},
                                                                  {"cut", &chaos_test::cut_node},
                                                                  {"blink", &chaos_test::blink_node},
                                                                  {"power off", &chaos_test::power_off},
                                                                  {"stall", &chaos_test::stall},
                                                                  {"node file", &chaos_test::lose_node_file}};
    static const std::pair<const char *, fault_t> on_simulator[] = {{"drop topology", &chaos_test::drop_topology},
                                                                    {"delay", &chaos_test::delay},
                                                                    {"failing sends", &chaos_test::fail_sends}};
    uint32_t kind = draw(simulated_ ? 10 : 7);
    const auto &fault = kind < 7 ? everywhere[kind] : on_simulator[kind - 7];
    faults_[fault.first]++;
    totals_.faults++;
    (this->*fault.second)();
}

void chaos_test::tell_all(const std::string &command)
{
    for (member_t &member : members_)
        (void)member.program->ask(command);
}

bool chaos_test::all_idle()
{
    for (member_t &member : members_) {
        if (member.program->ask("idle") != "yes")
            return false;
    }
    return true;
}

bool chaos_test::all_online()
{
    for (member_t &member : members_) {
        if (!member.program->ask("probe").empty())
            return false;
    }
    return true;
}

// Calls `holds` until it is true. Reports `what` when it is not after the quiet time.
template <typename Holds>
static void until(Holds holds, const char *what)
{
    // By the clock, not by the number of looks: in an emulated machine a look takes long.
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(QUIET_SECONDS);
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= end || testing::Test::HasFailure()) {
            ADD_FAILURE() << what;
            return;
        }
        usleep(100000); // between two looks
    }
}

void chaos_test::quiet()
{
    tell_all("off");
    until([this] { return all_idle(); }, "calls have not ended");
    until([this] { return all_online(); }, "living pairs are not online");
    if (HasFailure()) {
        for (member_t &member : members_) {
            printf("    %u on node %d: not online: %s\n", member.ledger->process, member.node,
                   member.program->ask("probe").c_str());
            (void)member.program->ask("state");
        }
    }
    tell_all("count");
}

// Whether one of these explains that messages are missing: a process began in this round, a quit, or returned messages.
bool chaos_test::explained(const member_t &from, const member_t &to, uint32_t app, uint32_t peer,
                           uint32_t missing) const
{
    if (from.fresh || to.fresh)
        return true;
    int there = instance_index(peer, (uint32_t)to.node);
    int here = instance_index(app, (uint32_t)from.node);
    const ledger_t *from_before = before_.at(from.ledger);
    const ledger_t *to_before = before_.at(to.ledger);
    return from.ledger->quits[there] != from_before->quits[there] || to.ledger->quits[here] != to_before->quits[here] ||
           from.ledger->app[app - FIRST_APP].returned[there] >= missing;
}

static const source_t *find_row(const source_t *rows, uint32_t number, uint32_t app)
{
    for (int i = 0; i < SOURCE_NUM && rows[i].process != 0; i++) {
        if (rows[i].process == number && rows[i].app == app)
            return &rows[i];
    }
    static const source_t none = {};
    return &none;
}

// The messages of `app` at `from` that did not reach `peer` at `to` in this round. Adds to `trouble` when nothing
// explains them.
uint32_t chaos_test::judge_pair(const member_t &from, uint32_t app, const member_t &to, uint32_t peer,
                                std::string *trouble) const
{
    uint32_t number = from.ledger->process;
    int there = instance_index(peer, (uint32_t)to.node);
    uint32_t sent = from.ledger->app[app - FIRST_APP].sent[there];
    uint32_t sent_before = before_.at(from.ledger)->app[app - FIRST_APP].sent[there];
    const source_t *row = find_row(to.ledger->app[peer - FIRST_APP].unicast, number, app);
    const source_t *row_before = find_row(before_.at(to.ledger)->app[peer - FIRST_APP].unicast, number, app);
    uint32_t missing = (sent - sent_before) - (row->received - row_before->received);
    if (missing == 0 || explained(from, to, app, peer, missing))
        return missing;
    *trouble += "    " + std::to_string(missing) + " of " + std::to_string(app) + "/" + std::to_string(from.node) +
                " to " + std::to_string(peer) + "/" + std::to_string(to.node) + " are lost (" + std::to_string(sent) +
                " sent, last seen " + std::to_string(row->last) + ")\n";
    return missing;
}

static std::vector<uint32_t> apps_of(const member_t &member)
{
    std::vector<uint32_t> apps;
    for (const std::string &app : member.apps)
        apps.push_back((uint32_t)atoi(app.c_str()));
    return apps;
}

std::string chaos_test::judge_pairs()
{
    std::string trouble;
    uint64_t missing = 0;
    for (const member_t &from : members_) {
        for (const member_t &to : members_) {
            for (uint32_t app : apps_of(from)) {
                for (uint32_t peer : apps_of(to))
                    missing += judge_pair(from, app, to, peer, &trouble);
            }
        }
    }
    totals_.to_quit = missing;
    return trouble;
}

void chaos_test::judge_order()
{
    for (const member_t &member : members_) {
        for (uint32_t app : apps_of(member)) {
            const app_t &own = member.ledger->app[app - FIRST_APP];
            for (const source_t *rows : {own.unicast, own.fan_outs}) {
                for (int i = 0; i < SOURCE_NUM && rows[i].process != 0; i++) {
                    EXPECT_EQ(rows[i].out_of_order, 0u) << app << "/" << member.node << " from process "
                                                        << rows[i].process << ": twice or out of order";
                    EXPECT_EQ(rows[i].damaged, 0u) << app << "/" << member.node;
                }
            }
        }
    }
}

void chaos_test::judge_calls()
{
    for (const member_t &member : members_) {
        for (uint32_t app : apps_of(member)) {
            const app_t &own = member.ledger->app[app - FIRST_APP];
            EXPECT_EQ(own.calls, own.calls_ended) << app << "/" << member.node;
            EXPECT_EQ(own.double_outcomes, 0u) << app << "/" << member.node;
            EXPECT_EQ(own.other_outcomes, 0u) << app << "/" << member.node;
        }
    }
}

// The last messages are still on their way: they have the quiet time to arrive.
void chaos_test::check_accounts()
{
    std::string trouble;
    until(
        [&] {
            trouble = judge_pairs();
            return trouble.empty();
        },
        "messages are lost without a quit or a return that explains it");
    printf("%s", trouble.c_str());
    judge_order();
    judge_calls();
    for (member_t &member : members_)
        EXPECT_EQ(member.program->ask("check"), "") << "invariants, node " << member.node;
}

void chaos_test::round()
{
    totals_.rounds++;
    uint64_t missing_before = totals_.to_quit;
    tell_all("on");
    pause(300 + draw(700));
    for (uint32_t num = 1 + draw(3); num > 0 && !HasFailure(); num--) {
        inject_fault();
        pause(100 + draw(1200));
    }
    for (auto &undo : undo_)
        undo();
    undo_.clear();
    for (member_t &member : members_) {
        if (member.ledger == nullptr)
            launch(&member);
    }
    quiet();
    check_accounts();
    printf("  round %llu: %llu messages to instances that quit or began, or returned; %s\n",
           (unsigned long long)totals_.rounds, (unsigned long long)totals_.to_quit,
           HasFailure() ? "NOT well" : "all well");
    (void)fflush(stdout);
    totals_.to_quit += missing_before;
    for (member_t &member : members_) {
        member.fresh = false;
        *before_[member.ledger] = *member.ledger;
    }
}

void chaos_test::take_stock(const ledger_t &ledger)
{
    for (const app_t &app : ledger.app) {
        for (int i = 0; i < INSTANCE_NUM; i++) {
            totals_.sent += app.sent[i];
            totals_.refused += app.refused[i];
            totals_.returned += app.returned[i];
        }
        totals_.calls += app.calls;
        totals_.calls_refused += app.calls_refused;
        for (int i = 0; i < 6; i++)
            totals_.outcomes[i] += app.outcomes[i];
        for (int i = 0; i < SOURCE_NUM; i++) {
            totals_.received += app.unicast[i].received;
            totals_.doubled += app.unicast[i].out_of_order + app.fan_outs[i].out_of_order;
            totals_.damaged += app.unicast[i].damaged + app.fan_outs[i].damaged;
        }
    }
}

void chaos_test::summary()
{
    for (member_t &member : members_) {
        if (member.ledger != nullptr)
            take_stock(*member.ledger);
    }
    const totals_t &t = totals_;
    typedef unsigned long long num_t;
    printf("seed %u: %llu rounds, %llu faults (", seed_, (num_t)t.rounds, (num_t)t.faults);
    for (const auto &fault : faults_)
        printf(" %s %d", fault.first.c_str(), fault.second);
    printf(
        " )\n  unicast: sent %llu, received %llu, refused %llu, returned %llu, twice or out of order %llu, damaged %llu\n",
        (num_t)t.sent, (num_t)t.received, (num_t)t.refused, (num_t)t.returned, (num_t)t.doubled, (num_t)t.damaged);
    printf("  calls %llu, refused %llu; outcomes: success %llu, mismatch %llu, unavailable %llu, version %llu, system "
           "error %llu, time-out %llu\n",
           (num_t)t.calls, (num_t)t.calls_refused, (num_t)t.outcomes[0], (num_t)t.outcomes[1], (num_t)t.outcomes[2],
           (num_t)t.outcomes[3], (num_t)t.outcomes[4], (num_t)t.outcomes[5]);
}
} // namespace

TEST_F(chaos_test, all_is_well_again_after_every_fault)
{
    time_t end = time(nullptr) + atoi(getenv("CHAOS_SECONDS") != nullptr ? getenv("CHAOS_SECONDS") : "60");
    const char *pace = getenv("CHAOS_PACE");
    if (pace != nullptr)
        tell_all(std::string("pace ") + pace);
    quiet();
    for (member_t &member : members_)
        member.fresh = false;
    while (time(nullptr) < end && !HasFailure())
        round();
    summary();
}
