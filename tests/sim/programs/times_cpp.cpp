// Waits of the C++ library in a cluster with virtual time: an hour of the virtual clock passes in each.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

using std::chrono::hours;
using std::chrono::steady_clock;
using std::chrono::system_clock;

template <typename wait_t>
static void hour_of(const char *what, wait_t wait)
{
    auto before = steady_clock::now();
    bool ended = wait();
    auto passed = steady_clock::now() - before;
    if (ended && passed >= hours(1) && passed < hours(1) + std::chrono::minutes(30))
        return;
    fprintf(stderr, "%s: %s, %lld s\n", what, ended ? "ended" : "did not end",
            (long long)std::chrono::duration_cast<std::chrono::seconds>(passed).count());
    exit(1);
}

int main()
{
    std::mutex mutex;
    std::timed_mutex timed;
    std::condition_variable condition;
    std::promise<void> promise;
    std::unique_lock<std::mutex> lock(mutex);
    timed.lock();
    hour_of("sleep_for", [] {
        std::this_thread::sleep_for(hours(1));
        return true;
    });
    hour_of("sleep_until", [] {
        std::this_thread::sleep_until(system_clock::now() + hours(1));
        return true;
    });
    hour_of("condition_variable::wait_for",
            [&] { return condition.wait_for(lock, hours(1)) == std::cv_status::timeout; });
    hour_of("condition_variable::wait_until",
            [&] { return condition.wait_until(lock, system_clock::now() + hours(1)) == std::cv_status::timeout; });
    hour_of("timed_mutex::try_lock_for",
            [&] { return std::async(std::launch::async, [&] { return !timed.try_lock_for(hours(1)); }).get(); });
    hour_of("future::wait_for", [&] { return promise.get_future().wait_for(hours(1)) == std::future_status::timeout; });
    timed.unlock();
    return 0;
}
