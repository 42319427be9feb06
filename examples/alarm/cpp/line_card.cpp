// A line card. It reads commands from standard input:
//   raise ID SEVERITY TEXT   the alarm ID is active from now on; SEVERITY is minor, major or critical
//   clear ID                 it is not active any more
// and tells the alarm manager. It raises its active alarms again when a manager joins, so a manager that restarted, or
// could not be reached, knows them. It answers calls for its status. It ends with its standard input. Usage:
// line_card_cpp
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>

#include "alarm.h"

using alarms::say;

// Commands come from main, the rest from handlers.
class card
{
  public:
    bool start(zeb::runtime &runtime)
    {
        zeb::app_options options(alarms::CARD, "line_card");
        options.peers({alarms::MANAGER, alarms::CONSOLE});
        options.on_call(alarms::STATUS, [this](const zeb::request &) { return status(); });
        options.on_join([this](zeb::instance who) { joined(who); });
        auto added = runtime.add(std::move(options));
        app_ = added.value_or(zeb::app());
        return added.has_value();
    }

    void raise(alarms::alarm raised)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (active_.size() == ALARMS_MAX && active_.count(raised.id) == 0)
            return say("not sent: " + std::to_string(ALARMS_MAX) + " alarms are active");
        tell_managers(alarms::raise_message(raised));
        active_[raised.id] = std::move(raised);
    }

    void clear(uint32_t id)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        active_.erase(id);
        tell_managers(alarms::clear_message(id));
    }

  private:
    static constexpr size_t ALARMS_MAX = 64;

    void tell_managers(zeb::message message)
    {
        auto error = app_.send(alarms::MANAGER, std::move(message));
        say(error ? "not sent: " + error.message() : "sent");
    }

    void joined(zeb::instance who)
    {
        if (who.app != alarms::MANAGER)
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &[id, active] : active_)
            (void)app_.send(who, alarms::raise_message(active)); // gone again: it will join again
    }

    zeb::message status()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return zeb::message::from_text(alarms::STATUS, "ports 48, alarms " + std::to_string(active_.size()));
    }

    zeb::app app_;
    std::mutex mutex_; // guards active_, and that a manager gets raise and clear in their order
    std::map<uint32_t, alarms::alarm> active_;
};

static bool obey(card &card, const std::string &line)
{
    std::istringstream words(line);
    std::string verb, severity;
    alarms::alarm raised;
    if (!(words >> verb >> raised.id))
        return false;
    if (verb == "clear") {
        card.clear(raised.id);
        return true;
    }
    if (verb != "raise" || !(words >> severity) || (raised.severity = alarms::severity_of(severity)) == 0)
        return false;
    std::getline(words >> std::ws, raised.text);
    raised.text.resize(std::min(raised.text.size(), alarms::TEXT_MAX));
    card.raise(std::move(raised));
    return true;
}

int main()
{
    card card;
    zeb::runtime runtime; // after what the handlers use, so it ends before
    if (!card.start(runtime))
        return 1; // the library has said why
    say("ready");
    runtime.run();
    std::string line;
    while (std::getline(std::cin, line)) {
        if (!obey(card, line))
            std::cerr << "line_card: raise ID minor|major|critical TEXT, or clear ID\n";
    }
}
