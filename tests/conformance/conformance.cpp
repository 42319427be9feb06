#include "conformance.h"

#include <cstdlib>
#include <memory>
#include <sstream>

const char PORTS[] = "1";
const char SERVICE[] = "2";
const char CANCEL_SERVICE[] = "6";
const char IMPORTANCE[] = "127";
const char SRC_DROPPABLE[] = "128";
const char DEST_DROPPABLE[] = "129";

// One process per node serves all tests: its start takes longer than most tests do.
static std::map<int, std::unique_ptr<probe>> s_probes;
static unsigned s_next_type = 20000;

namespace
{
class end_of_probes : public testing::Environment
{
    void TearDown() override
    {
        s_probes.clear();
    }
};
} // namespace

static testing::Environment *const s_end = testing::AddGlobalTestEnvironment(new end_of_probes);

long answer::num(const std::string &key) const
{
    auto it = of.find(key);
    return it == of.end() ? -1 : strtol(it->second.c_str(), nullptr, 0);
}

answer probe::get(const std::string &command)
{
    answer a;
    a.text = ask(command);
    std::istringstream in(a.text);
    in >> a.head;
    for (std::string word; in >> word;) {
        size_t at = word.find('=');
        std::string key = word.substr(0, at);
        std::string value = at == std::string::npos ? "" : word.substr(at + 1);
        a.of[key] += (a.of.count(key) != 0 && !a.of[key].empty() ? "," : "") + value;
    }
    return a;
}

void probe::ok(const std::string &command)
{
    EXPECT_EQ(ask(command), "0") << command;
}

void probe::open_receiver(const std::string &socket, const std::string &address, const std::string &scope)
{
    ok("open " + socket + " rdm");
    ok("bind " + socket + " " + address + " " + scope);
}

void probe::open_sender(const std::string &socket)
{
    ok("open " + socket + " rdm");
    ok("opt " + socket + " tipc " + DEST_DROPPABLE + " 0");
}

void probe::open_watch(const std::string &socket)
{
    ok("open " + socket + " seqpacket");
    ok("connect " + socket + " name:1:1");
}

void tipc::SetUp()
{
    cluster::reset();
    type_ = s_next_type++;
    for (auto &one : s_probes)
        one.second->ok("reset");
}

void tipc::TearDown()
{
    if (HasFailure())
        s_probes.clear(); // the next test must not take a late answer for its own
    cluster::reset();
}

probe &tipc::on(int node)
{
    std::unique_ptr<probe> &one = s_probes[node];
    if (!one)
        one = std::make_unique<probe>(node);
    return *one;
}

void tipc::drop(int node)
{
    s_probes.erase(node);
}

std::string tipc::name(unsigned instance) const
{
    return "name:" + type() + ":" + std::to_string(instance);
}

std::string tipc::range(unsigned lower, unsigned upper) const
{
    return "range:" + type() + ":" + std::to_string(lower) + ":" + std::to_string(upper);
}

std::string tipc::await(unsigned instance, const std::string &state) const
{
    return "await " + type() + " " + std::to_string(instance) + " " + state;
}

std::string tipc::subscribe(unsigned lower, unsigned upper, const std::string &filter, const std::string &handle) const
{
    return "subscribe t " + type() + " " + std::to_string(lower) + " " + std::to_string(upper) + " 0xffffffff " +
           filter + " " + handle;
}

static void lab(const std::string &words)
{
    std::string command = std::string(getenv("LAB")) + " " + words;
    ASSERT_EQ(system(command.c_str()), 0) << command;
}

void cut_between(int one, int other)
{
    lab("cut " + std::to_string(one) + " " + std::to_string(other));
}

void heal_between(int one, int other)
{
    lab("heal " + std::to_string(one) + " " + std::to_string(other));
    lab("wait-links");
}
