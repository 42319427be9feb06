// An event that leads from several phases to the same one, with the same actions but for a quit, is drawn once, from
// `any`; what leads nowhere else is in its phase.
#include "handshake_dot.h"

#include <map>
#include <utility>

#include "zeb_handshake_table.h"

static std::string actions_text(unsigned actions)
{
    std::string text;
    for (int i = 0; i < ZEB_PAIR_ACTION_NUM; i++) {
        if ((actions & 1u << i) != 0)
            text += std::string(text.empty() ? "" : ", ") + ZEB_PAIR_ACTION_TEXTS[i];
    }
    return text;
}

static std::string line_text(zeb_pair_event_t event, const std::string &from, unsigned actions)
{
    std::string what = actions_text(actions);
    return ZEB_PAIR_EVENT_TEXTS[event] + from + (what.empty() ? "" : "\\l    / " + what);
}

// How an event looks that is drawn once.
typedef struct common_s {
    int phase_num; // 0: it is not
    zeb_pair_phase_t next;
    unsigned actions;
    std::string phases; // " (idle, half)", or nothing for all of them
} common_t;

static common_t common_of(zeb_pair_event_t event)
{
    common_t common = {0, ZEB_PAIR_IDLE, 0, ""};
    for (const zeb_pair_row_t &row : ZEB_PAIR_TABLE) {
        if (row.event != event)
            continue;
        unsigned actions = row.actions & ~(unsigned)ZEB_PAIR_DO_QUIT;
        if (common.phase_num > 0 && (row.next != common.next || actions != common.actions))
            return {0, ZEB_PAIR_IDLE, 0, ""};
        common.phases += std::string(common.phase_num > 0 ? ", " : " (") + zeb_pair_phase_text(row.phase);
        common.phase_num++;
        common.next = row.next;
        common.actions = actions;
    }
    common.phases = common.phase_num == ZEB_PAIR_PHASE_NUM ? "" : common.phases + ")";
    if (common.phase_num < 2)
        common.phase_num = 0;
    return common;
}

// Lines that begin at the left; beside an arrow, a space away from it.
static void add_line(std::string *text, const std::string &line)
{
    *text += line + "\\l";
}

typedef std::map<std::pair<int, int>, std::string> edges_t; // label by phase and next; phase -1 is any

static edges_t all_edges()
{
    edges_t edges;
    for (int i = 0; i < ZEB_PAIR_EVENT_NUM; i++) {
        zeb_pair_event_t event = (zeb_pair_event_t)i;
        common_t common = common_of(event);
        if (common.phase_num != 0)
            add_line(&edges[{-1, common.next}], " " + line_text(event, common.phases, common.actions));
    }
    for (const zeb_pair_row_t &row : ZEB_PAIR_TABLE) {
        if (common_of(row.event).phase_num == 0)
            add_line(&edges[{row.phase, row.next}],
                     (row.phase == row.next ? "" : " ") + line_text(row.event, "", row.actions));
    }
    return edges;
}

static std::string node(const std::string &name, const std::string &title, const std::string &lines)
{
    std::string text = "    " + name + " [label=\"" + (lines.empty() ? title : "{" + title + "|" + lines + "}") + "\"";
    return text + (lines.empty() ? "" : ", shape=Mrecord") + "];\n";
}

static std::string name_of(int phase)
{
    return phase < 0 ? "any" : zeb_pair_phase_text((zeb_pair_phase_t)phase);
}

std::string handshake_dot()
{
    edges_t edges = all_edges();
    std::string text = "// Made from lib/zeb_handshake_table.h by `make docs`.\n"
                       "digraph handshake {\n"
                       "    graph [rankdir=TB, nodesep=0.25, ranksep=0.4, fontname=\"Helvetica\"];\n"
                       "    node [shape=box, style=rounded, fontname=\"Helvetica\", fontsize=13];\n"
                       "    edge [fontname=\"Helvetica\", fontsize=11, color=\"#555555\"];\n"
                       "    any [label=\"any phase\\n(when online: quit first)\", style=\"rounded,dashed\"];\n"
                       "    {rank=same; waiting; half}\n"
                       "    {rank=same; acked; crossed}\n"
                       "    {rank=max; online}\n";
    for (int phase = 0; phase < ZEB_PAIR_PHASE_NUM; phase++)
        text += node(name_of(phase), name_of(phase), edges[{phase, phase}]);
    for (const auto &edge : edges) {
        if (edge.first.first == edge.first.second)
            continue;
        text += "    " + name_of(edge.first.first) + " -> " + name_of(edge.first.second) + " [label=\"" + edge.second +
                "\"" + (edge.first.first < 0 ? ", style=dashed" : "") + "];\n";
    }
    return text + "}\n";
}
