// The parser of the statistics text. A text becomes a record that is no larger than itself, of the same content with a
// terminator and without, and what is shown of it cannot control a terminal.
#include "fuzz_tools.h"
#include "ops_stat.h"

using tools::require;

static size_t ids_of(const ops_stat_t &stat)
{
    size_t num = stat.process_apps.size() + stat.versions.size() + stat.named.size() + stat.unacked.size() +
                 stat.resumes.size() + stat.resent.size() + stat.sends.size() + stat.recvs.size() +
                 stat.sync_sends.size() + stat.sync_recvs.size() + stat.calls.size();
    for (const ops_peer_app_t &peer : stat.peer_apps)
        num += 1 + peer.servers.size() + peer.subscribers.size() + peer.instances.size() + peer.acked.size() +
               peer.online.size();
    for (const auto *groups : {&stat.app_groups, &stat.node_groups}) {
        for (const ops_group_t &group : *groups)
            num += 1 + group.members.size();
    }
    for (const ops_call_t &call : stat.calls)
        num += call.waiting.size() + call.replied.size();
    return num;
}

static void check_shown(const std::string &text)
{
    std::string shown = ops_printable(text);
    require(shown.size() == text.size());
    for (char c : shown)
        require(c == '\n' || (c >= ' ' && c <= '~'));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text((const char *)data, size);
    ops_stat_t stat = ops_stat_parse(text.data(), text.size());
    require((stat.parts & ~OPS_STAT_WHOLE) == 0);
    require(ids_of(stat) <= size / 2 + 1); // each has a digit and what it stands behind
    require(stat.name.size() <= size && stat.odd <= size && stat.first_odd.size() <= 100);
    require(stat.odd != 0 || stat.first_odd.empty());
    require(ops_stat_missing(stat).empty() == (!stat.cut && stat.parts == OPS_STAT_WHOLE && stat.odd == 0));
    check_shown(text);
    check_shown(stat.first_odd);
    std::string ended = text + '\0';
    ops_stat_t same = ops_stat_parse(ended.data(), ended.size());
    require(same.parts == stat.parts && same.odd == stat.odd && ids_of(same) == ids_of(stat) && same.name == stat.name);
    return 0;
}
