// The operator's console. It reads commands from standard input: `list` asks the manager for the active alarms,
// `status` asks all line cards. It ends with its standard input. Usage: alarm_console_cpp
#include <algorithm>
#include <future>
#include <iostream>

#include "alarm.h"

using alarms::say;
using namespace std::chrono_literals;

// app::call would block here too, but its limit is in whole seconds.
static zeb::result<zeb::replies> ask(const zeb::app &console, zeb::app_id whom, uint32_t version)
{
    std::promise<zeb::result<zeb::replies>> promise;
    auto outcomes = promise.get_future();
    auto keep = [promise = std::move(promise)](zeb::result<zeb::replies> given) mutable {
        promise.set_value(std::move(given));
    };
    auto call = console.call_async(whom, zeb::message(version), 1500ms, std::move(keep));
    if (!call)
        return zeb::unexpected(call.error());
    return outcomes.get();
}

static void list(const zeb::app &console)
{
    auto outcomes = ask(console, alarms::MANAGER, alarms::LIST);
    if (!outcomes)
        return say("no manager: " + outcomes.error().message());
    const zeb::reply &reply = (*outcomes)[0];
    if (!reply)
        return say(std::string("no manager: ") + zeb::to_string(reply.status()));
    std::string_view text = reply.text();
    say(std::string(text) + std::to_string(std::count(text.begin(), text.end(), '\n')) + " alarms");
}

static void status(const zeb::app &console)
{
    auto outcomes = ask(console, alarms::CARD, alarms::STATUS);
    if (!outcomes)
        return say("no cards: " + outcomes.error().message());
    std::sort(outcomes->begin(), outcomes->end(),
              [](const zeb::reply &a, const zeb::reply &b) { return a.from() < b.from(); });
    for (const zeb::reply &reply : *outcomes)
        say("card " + std::to_string(reply.from().node) + ": " +
            (reply ? std::string(reply.text()) : zeb::to_string(reply.status())));
}

int main()
{
    zeb::runtime runtime;
    auto console =
        runtime.add(zeb::app_options(alarms::CONSOLE, "alarm_console").peers({alarms::MANAGER, alarms::CARD}));
    if (!console)
        return 1; // the library has said why
    say("ready");
    runtime.run();
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "list")
            list(*console);
        else if (line == "status")
            status(*console);
        else
            std::cerr << "alarm_console: list, or status\n";
    }
}
