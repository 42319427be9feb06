// What the tests of zeb.hpp share: applications of this process, the process on the other node, and waiting.
#ifndef TESTS_CPP_TEST_H
#define TESTS_CPP_TEST_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zeb/zeb.hpp>

using namespace std::chrono_literals;

constexpr uint32_t CLIENT = 400; // of the tests
constexpr uint32_t SERVER = 401; // of the tests, in the same process
constexpr uint32_t PEER = 402;   // of the process on node 2
constexpr uint32_t NOBODY = 403;
constexpr auto PATIENCE = 60s; // for what must come

// Versions of messages and calls of PEER.
constexpr uint32_t ECHO = 1;   // a message is sent back, a call is answered with what it brings
constexpr uint32_t SILENT = 2; // calls are kept without an answer until the next is kept, or the process ends
constexpr uint32_t THROW = 3;  // a message's handler throws
constexpr uint32_t UNKNOWN = 9;

// Lines that handlers write, from any thread.
class story
{
  public:
    void tell(std::string line)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    std::vector<std::string> take(size_t num) // waits until there are so many
    {
        std::unique_lock<std::mutex> lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, PATIENCE, [&] { return lines_.size() >= num; }));
        return std::exchange(lines_, {});
    }
    bool wait(const std::string &line)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, PATIENCE, [&] { return std::count(lines_.begin(), lines_.end(), line) != 0; });
    }
    size_t size()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_.size();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

using lines_t = std::vector<std::string>;

// A process on node 2 that runs PEER, until this object ends.
class peer_process
{
  public:
    peer_process();
    ~peer_process();
    peer_process(const peer_process &) = delete;
    peer_process &operator=(const peer_process &) = delete;
    void end();       // by its own end, and waits for it
    int wait_death(); // the signal that ended it

  private:
    pid_t pid_ = -1;
    int input_ = -1;
};

// Registers, runs, and waits until the server is online.
inline zeb::app client_of(zeb::runtime &runtime, uint32_t server)
{
    zeb::app client = runtime.add(zeb::app_options(CLIENT, "client").peers({server})).value();
    runtime.run();
    EXPECT_FALSE(client.wait_online(server, PATIENCE));
    return client;
}

#endif
