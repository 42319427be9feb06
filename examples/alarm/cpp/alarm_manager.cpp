// Keeps the list of active alarms. It prints which line cards come and go, and which alarms they raise and clear, and
// answers calls for the list. It ends with its standard input. Usage: alarm_manager_cpp
#include <iostream>
#include <map>

#include "alarm.h"

using alarms::say;

// All of it runs in the handlers of one application, so one at a time: it needs no lock.
class manager
{
  public:
    void raise(const zeb::message &message)
    {
        zeb::node_id node = message.sender().node;
        auto raised = alarms::read_raise(message);
        if (!raised)
            return bad_message(node);
        auto key = std::make_pair(node, raised->id);
        if (active_.size() == ALARMS_MAX && active_.count(key) == 0) {
            std::cerr << "alarm_manager: the list is full, " << node << "/" << raised->id << " is not in it\n";
            return;
        }
        say("raised " + line_of(key, *raised));
        active_[key] = *std::move(raised);
    }

    void clear(const zeb::message &message)
    {
        zeb::node_id node = message.sender().node;
        auto id = alarms::read_clear(message);
        if (!id)
            return bad_message(node);
        if (active_.erase({node, *id}) != 0)
            say("cleared " + std::to_string(node) + "/" + std::to_string(*id));
    }

    zeb::message list() const
    {
        std::string text;
        for (const auto &[key, active] : active_)
            text += line_of(key, active) + "\n";
        return zeb::message::from_text(alarms::LIST, text);
    }

    void card_joined(zeb::node_id node)
    {
        say("card " + std::to_string(node) + " is here");
    }

    void card_quit(zeb::node_id node)
    {
        say("card " + std::to_string(node) + " is gone");
        active_.erase(active_.lower_bound({node, 0}), active_.lower_bound({node + 1, 0}));
    }

  private:
    using key_t = std::pair<zeb::node_id, uint32_t>; // node and alarm id
    static constexpr size_t ALARMS_MAX = 256;        // a list of so many is still one message

    static std::string line_of(key_t key, const alarms::alarm &active)
    {
        return std::to_string(key.first) + "/" + std::to_string(key.second) + " " +
               std::string(alarms::SEVERITIES[active.severity]) + " " + active.text;
    }

    static void bad_message(zeb::node_id node)
    {
        say("bad message from " + std::to_string(node));
    }

    std::map<key_t, alarms::alarm> active_;
};

int main()
{
    manager manager;
    zeb::runtime runtime; // after what the handlers use, so it ends before
    zeb::app_options options(alarms::MANAGER, "alarm_manager");
    options.peers({alarms::CARD, alarms::CONSOLE});
    options.on_message(alarms::RAISE, [&manager](const zeb::message &message) { manager.raise(message); });
    options.on_message(alarms::CLEAR, [&manager](const zeb::message &message) { manager.clear(message); });
    options.on_call(alarms::LIST, [&manager](const zeb::request &) { return manager.list(); });
    options.on_join([&manager](zeb::instance who) {
        if (who.app == alarms::CARD)
            manager.card_joined(who.node);
    });
    options.on_quit([&manager](zeb::instance who) {
        if (who.app == alarms::CARD)
            manager.card_quit(who.node);
    });
    if (!runtime.add(std::move(options)))
        return 1; // the library has said why
    say("ready");
    runtime.run();
    std::string line;
    while (std::getline(std::cin, line))
        continue;
}
