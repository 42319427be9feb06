#include "zebd_loop.h"

#include <algorithm>
#include <utility>

constexpr int64_t LONGEST = 60000; // ms that a round waits when nothing is due

zebd_entry_t zebd_loop_add(zebd_loop_t *loop, int fd, short wanted, zebd_on_ready_t on_ready)
{
    loop->watches[++loop->last] = {fd, wanted, std::move(on_ready)};
    return loop->last;
}

void zebd_loop_want(zebd_loop_t *loop, zebd_entry_t watch, short wanted)
{
    auto found = loop->watches.find(watch);
    if (found != loop->watches.end())
        found->second.wanted = wanted;
}

zebd_entry_t zebd_loop_at(zebd_loop_t *loop, int64_t after, zebd_on_time_t on_time)
{
    loop->timers[++loop->last] = {ops_now() + after, std::move(on_time)};
    return loop->last;
}

zebd_entry_t zebd_loop_follow(zebd_loop_t *loop, zebd_on_event_t on_event)
{
    loop->followers[++loop->last] = std::move(on_event);
    return loop->last;
}

// A copy of each callback is called, because it may remove itself. Those that it adds have higher numbers; they are not
// called in this round.
void zebd_loop_tell(zebd_loop_t *loop, uint64_t number, const ops_event_t &event)
{
    zebd_entry_t newest = loop->last;
    for (auto it = loop->followers.begin(); it != loop->followers.end() && it->first <= newest;) {
        zebd_entry_t entry = it->first;
        zebd_on_event_t on_event = it->second;
        on_event(number, event);
        it = loop->followers.upper_bound(entry);
    }
}

void zebd_loop_remove(zebd_loop_t *loop, zebd_entry_t entry)
{
    loop->watches.erase(entry);
    loop->timers.erase(entry);
    loop->followers.erase(entry);
}

static int64_t time_to_wait(const zebd_loop_t *loop, int64_t longest)
{
    int64_t now = ops_now();
    int64_t wait = std::min(longest, LONGEST);
    for (const auto &timer : loop->timers)
        wait = std::min(wait, timer.second.at - now);
    return std::max<int64_t>(wait, 0);
}

static void call_timers(zebd_loop_t *loop)
{
    int64_t now = ops_now();
    std::vector<zebd_entry_t> due;
    for (const auto &timer : loop->timers) {
        if (timer.second.at <= now)
            due.push_back(timer.first);
    }
    for (zebd_entry_t entry : due) {
        auto found = loop->timers.find(entry);
        if (found == loop->timers.end())
            continue;
        zebd_on_time_t on_time = std::move(found->second.on_time);
        loop->timers.erase(found);
        on_time();
    }
}

static void call_ready(zebd_loop_t *loop, const std::vector<struct pollfd> &fds,
                       const std::vector<zebd_entry_t> &entries)
{
    for (size_t i = 0; i < fds.size(); i++) {
        auto found = fds[i].revents == 0 ? loop->watches.end() : loop->watches.find(entries[i]);
        if (found == loop->watches.end())
            continue;
        zebd_on_ready_t on_ready = found->second.on_ready;
        on_ready(fds[i].revents);
    }
}

void zebd_loop_round(zebd_loop_t *loop, int64_t longest)
{
    std::vector<struct pollfd> fds;
    std::vector<zebd_entry_t> entries;
    for (const auto &[entry, watch] : loop->watches) {
        fds.push_back({watch.fd, watch.wanted, 0});
        entries.push_back(entry);
    }
    int ready = poll(fds.data(), fds.size(), (int)time_to_wait(loop, longest));
    if (ready > 0)
        call_ready(loop, fds, entries);
    call_timers(loop);
}

void zebd_loop_run(zebd_loop_t *loop)
{
    while (!loop->ends)
        zebd_loop_round(loop, LONGEST);
}
