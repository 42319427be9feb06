// How tests start processes on nodes and inject faults into the cluster. $LAB is the command of the lab or of the
// simulator; the tests do not know which.
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
void write_file(int node, const std::string &path, const std::string &text); // the node's own file
void remove_file(int node, const std::string &path);
void reset(); // every node is up, linked, and has the files that it began with

extern const char CONF[];

// Every limit of a wait is multiplied by this. In virtual time the clock also jumps while the machine waits for its
// host, so the limits must be longer there.
extern int patience;

// A process on a node. The test writes commands to its standard input and reads lines from its standard output.
class process
{
  public:
    // `program` has its arguments, and lies in the folder of the test. `board` is the node id that the process reads,
    // when that is not its node's.
    process(int node, const std::string &program, int board = 0);
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    // Gives a command and returns its result. Waits up to `seconds`.
    std::string ask(const std::string &command, int seconds = 60);
    void tell(const std::string &command);

    // Takes the first line that contains `text`; other lines stay. Fails the test after `seconds`.
    std::string wait(const std::string &text, int seconds = 60);
    bool saw(const std::string &text); // among the lines that have arrived; takes none
    int count(const std::string &text);

    void kill(); // -9
    void stop(); // until resume
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
