// How tests start processes on nodes and hurt the cluster. The tests know nothing of what lies below: the lab or the
// simulator, whichever $LAB is.
#ifndef TESTS_INTEGRATION_CLUSTER_H
#define TESTS_INTEGRATION_CLUSTER_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

namespace cluster
{
void cut(int node);
void heal(int node); // returns when the links are up again
void node_down(int node);
void node_up(int node);
void write_file(int node, const std::string &path, const std::string &text); // the node's own
void remove_file(int node, const std::string &path);
void reset(); // every node up, linked and with its first files

extern const char CONF[];

// Every limit of a wait is multiplied by this. In virtual time the clock also jumps while the machine waits for its
// host.
extern int patience;

// A process on a node, spoken to in lines.
class process
{
  public:
    // `program` with its arguments lies beside the test. `board`: the node id that the process itself goes by, when it
    // is not its node's.
    process(int node, const std::string &program, int board = 0);
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    // Gives a command and returns what is said of it. Waits up to `seconds`.
    std::string ask(const std::string &command, int seconds = 60);
    void tell(const std::string &command);

    // The first line not yet taken that contains `text`; lines before it stay. Fails the test after `seconds`.
    std::string wait(const std::string &text, int seconds = 60);
    bool saw(const std::string &text); // among what has arrived, without taking it
    int count(const std::string &text);

    void kill(); // -9
    void stop(); // stalls it
    void resume();
    bool ended(int seconds); // by itself, within that time
    int node() const
    {
        return node_;
    }

  private:
    bool read_more(int ms);
    int node_;
    pid_t pid_;
    int in_;
    int out_;
    std::string partial_;
    std::deque<std::string> lines_;
};
} // namespace cluster

#endif
