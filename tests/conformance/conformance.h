// What the tests of TIPC share: a probe (tipc_probe.cpp) on each node. Each test has a name type of its own.
#ifndef TESTS_CONFORMANCE_CONFORMANCE_H
#define TESTS_CONFORMANCE_CONFORMANCE_H

#include <map>
#include <set>
#include <string>

#include "cluster.h"

// A line of the probe: its first word, and the key=value words after it.
struct answer {
    std::string head;
    std::map<std::string, std::string> of;
    std::string text; // the whole line, for messages of failed tests

    long num(const std::string &key) const;
    bool has(const std::string &key) const
    {
        return of.count(key) != 0;
    }
};

class probe : public cluster::process
{
  public:
    explicit probe(int node) : process(node, "tipc_probe")
    {
    }
    answer get(const std::string &command);
    void ok(const std::string &command); // fails the test unless the answer is 0

    // Sockets in the state that most tests need.
    void open_receiver(const std::string &socket, const std::string &address, const std::string &scope = "2");
    void open_sender(const std::string &socket); // undeliverable messages are returned to it
    void open_watch(const std::string &socket);  // connected to the topology service
};

class tipc : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // The node's probe. It has no sockets when a test begins.
    probe &on(int node);
    void drop(int node); // the probe is dead: the next use starts another

    std::string type() const
    {
        return std::to_string(type_);
    }
    std::string name(unsigned instance) const; // of the test's own type
    std::string range(unsigned lower, unsigned upper) const;
    std::string await(unsigned instance, const std::string &state = "up") const; // the command for it

    // The command for a subscription to the test's own type. It never times out.
    std::string subscribe(unsigned lower, unsigned upper, const std::string &filter,
                          const std::string &handle = "watch") const;

  private:
    unsigned type_ = 0;
};

extern const char PORTS[];
extern const char SERVICE[];
extern const char CANCEL_SERVICE[];

// Options of SOL_TIPC.
extern const char IMPORTANCE[];
extern const char SRC_DROPPABLE[];
extern const char DEST_DROPPABLE[];

void cut_between(int one, int other);
void heal_between(int one, int other);

#endif
