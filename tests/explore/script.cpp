// A script has a line for each place, link delay and action, in the words of the table below. Processes are A0 and A1
// at place A, applications of a place A.0 and A.1.
#include "script.h"

#include <cstdio>
#include <cstring>
#include <sstream>

#include "zeb_handshake_state.h"

typedef struct word_s {
    const char *word;
    const char *args; // p process, n node, c application of a place (its number), s and d sender and name, k number,
                      // l place, m milliseconds
} word_t;

static const word_t s_words[OP_NUM] = {
    {"wait", "m"},  {"recv", "ppc"},     {"reroute", "ppc"},   {"drop", "ppc"},     {"drop-last", "ppc"},
    {"event", "p"}, {"names", "nn"},     {"notice", "nn"},     {"send", "sd"},      {"start", "p"},
    {"kill", "p"},  {"unbind", "p"},     {"bind", "p"},        {"cut", "nn"},       {"heal", "nn"},
    {"lose", "pk"}, {"fail-open", "pk"}, {"fail-timer", "pk"}, {"fail-send", "pk"}, {"fail-ack", "pk"},
    {"pick", "lk"},
};

static std::string arg_text(char kind, uint32_t value)
{
    char text[16];
    switch (kind) {
    case 'p':
        return proc_text((int)value);
    case 's':
        (void)snprintf(text, sizeof(text), "%s.%u", proc_text((int)value / APP_NUM), value % APP_NUM);
        return text;
    case 'd':
        (void)snprintf(text, sizeof(text), "%c.%u", 'A' + (int)value / APP_NUM, value % APP_NUM);
        return text;
    case 'l':
        return std::string(1, (char)('A' + (int)value));
    default:
        return std::to_string(value);
    }
}

static uint32_t *arg_of(action_t *action, int i, uint32_t *value)
{
    const uint8_t args[] = {action->a, action->b, action->c};
    *value = s_words[action->op].args[i] == 'm' ? action->value : args[i];
    return value;
}

std::string action_text(action_t action)
{
    std::string text = s_words[action.op].word;
    for (int i = 0; s_words[action.op].args[i] != '\0'; i++) {
        uint32_t value = 0;
        (void)arg_of(&action, i, &value);
        text += " " + arg_text(s_words[action.op].args[i], value);
    }
    return text;
}

static void add_place(const place_config_t *place, char letter, std::string *text)
{
    for (int i = 0; i < APP_NUM; i++) {
        const app_config_t *app = &place->app[i];
        if (app->app == 0)
            continue;
        // The second slot is written when the first one is empty: actions count slots.
        std::string slot = i != 0 && place->app[0].app == 0 ? "." + std::to_string(i) : "";
        *text += std::string("place ") + letter + slot + " node " + std::to_string(place->node) + " ver " +
                 std::to_string(place->ver) + " app " + std::to_string(app->app) +
                 (app->server ? " server" : " client") + " names";
        for (uint32_t peer : app->peer) {
            if (peer != 0)
                *text += " " + std::to_string(peer);
        }
        *text += "\n";
    }
}

std::string script_text(const script_t *script)
{
    std::string text;
    for (int i = 0; i < PLACE_NUM; i++)
        add_place(&script->config.place[i], (char)('A' + i), &text);
    text += "delay " + std::to_string(script->config.delay_min) + " " + std::to_string(script->config.delay_max) + "\n";
    if (script->config.self)
        text += "self\n";
    if (script->config.untimed)
        text += "untimed\n";
    if (script->config.early)
        text += "early\n";
    for (action_t action : script->actions)
        text += action_text(action) + "\n";
    return text + "expect " + violation_text(script->expected) + "\n";
}

// Parsing.

static bool parse_proc(const std::string &text, uint32_t *value)
{
    if (text.size() < 2 || text[0] < 'A' || text[0] >= 'A' + PLACE_NUM || (text[1] != '0' && text[1] != '1'))
        return false;
    *value = (uint32_t)(text[0] - 'A') * 2 + (uint32_t)(text[1] - '0');
    return true;
}

static bool parse_number(const std::string &text, uint32_t *value)
{
    char *end = nullptr;
    *value = (uint32_t)strtoul(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0';
}

static bool parse_app_of(const std::string &text, size_t at, uint32_t of, uint32_t *value)
{
    if (text.size() != at + 2 || text[at] != '.' || (text[at + 1] != '0' && text[at + 1] != '1'))
        return false;
    *value = of * APP_NUM + (uint32_t)(text[at + 1] - '0');
    return true;
}

static bool parse_arg(char kind, const std::string &text, uint32_t *value)
{
    uint32_t of = 0;
    if (kind == 'p')
        return text.size() == 2 && parse_proc(text, value);
    if (kind == 's')
        return parse_proc(text, &of) && parse_app_of(text, 2, of, value);
    if (text.empty())
        return false;
    of = (uint32_t)(text[0] - 'A');
    if (kind == 'd')
        return of < PLACE_NUM && parse_app_of(text, 1, of, value);
    if (kind == 'l') {
        *value = of;
        return text.size() == 1 && of < PLACE_NUM;
    }
    return parse_number(text, value) && (kind == 'm' || *value < 256);
}

static bool parse_action(const std::string &word, std::istringstream *line, script_t *script)
{
    for (int op = 0; op < OP_NUM; op++) {
        if (word != s_words[op].word)
            continue;
        action_t action = {(op_t)op, 0, 0, 0, 0};
        uint8_t *const args[] = {&action.a, &action.b, &action.c};
        for (int i = 0; s_words[op].args[i] != '\0'; i++) {
            std::string text;
            uint32_t value = 0;
            *line >> text;
            if (!parse_arg(s_words[op].args[i], text, &value))
                return false;
            if (s_words[op].args[i] == 'm')
                action.value = value;
            else
                *args[i] = (uint8_t)value;
        }
        script->actions.push_back(action);
        return true;
    }
    return false;
}

static bool parse_place(std::istringstream *line, config_t *config)
{
    std::string name;
    std::string word;
    std::string role;
    uint32_t at = 0;
    uint32_t node = 0;
    uint32_t ver = 0;
    app_config_t app = {};
    *line >> name >> word >> node >> word >> ver >> word >> app.app >> role >> word;
    if (line->fail() || name[0] < 'A' || name[0] >= 'A' + PLACE_NUM || node == 0 || node >= NODE_NUM || app.app == 0)
        return false;
    if (name.size() != 1 && !parse_app_of(name, 1, 0, &at))
        return false;
    app.server = role == "server";
    for (uint32_t &peer : app.peer)
        *line >> peer;
    place_config_t *place = &config->place[name[0] - 'A'];
    place->node = node;
    place->ver = (uint8_t)ver;
    while (at < APP_NUM && place->app[at].app != 0)
        at++;
    if (at == APP_NUM)
        return false;
    place->app[at] = app;
    return true;
}

static bool parse_expected(std::istringstream *line, script_t *script)
{
    std::string word;
    *line >> word;
    for (int i = 0; i < VIOLATION_NUM; i++) {
        if (word == violation_text((violation_t)i)) {
            script->expected = (violation_t)i;
            return true;
        }
    }
    return false;
}

static bool parse_line(const std::string &text, script_t *script)
{
    std::istringstream line(text);
    std::string word;
    if (!(line >> word) || word[0] == '#')
        return true;
    if (word == "place")
        return parse_place(&line, &script->config);
    if (word == "delay")
        return (bool)(line >> script->config.delay_min >> script->config.delay_max);
    if (word == "expect")
        return parse_expected(&line, script);
    if (word == "self") {
        script->config.self = true;
        return true;
    }
    if (word == "early") {
        script->config.early = true;
        return true;
    }
    if (word == "untimed") {
        script->config.untimed = true;
        return true;
    }
    return parse_action(word, &line, script);
}

bool script_parse(const std::string &text, script_t *script, std::string *error)
{
    *script = {};
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (parse_line(line, script))
            continue;
        *error = "not understood: " + line;
        return false;
    }
    return true;
}

// Running.

typedef struct phases_s {
    zeb_pair_phase_t of[PROC_NUM][APP_NUM][NAME_NUM];
} phases_t;

// The pairs whose phase an action changes.
static void print_phases(const world_t *world, phases_t *known)
{
    for (int proc = 0; proc < PROC_NUM; proc++) {
        for (int i = 0; i < APP_NUM * NAME_NUM; i++) {
            int name = i % NAME_NUM;
            const app_config_t *app = &world->config.place[proc / 2].app[i / NAME_NUM];
            if (app->app == 0 || name_app(world, name)->app == 0)
                continue;
            zeb_inst_t peer = name_inst(world, name);
            zeb_pair_phase_t phase =
                world->proc[proc].alive ? zeb_hs_pair_phase(&world->proc[proc].hs, app->app, peer) : ZEB_PAIR_IDLE;
            zeb_pair_phase_t *before = &known->of[proc][i / NAME_NUM][name];
            if (phase != *before)
                printf("        %s: %u with %u/%u is %s, was %s\n", proc_text(proc), app->app, peer.app, peer.node,
                       zeb_pair_phase_text(phase), zeb_pair_phase_text(*before));
            *before = phase;
        }
    }
}

uint32_t script_run(world_t *world, const script_t *script)
{
    world_init(world, &script->config);
    phases_t phases = {};
    for (action_t action : script->actions) {
        bool done = apply(world, action);
        if (world->verbose) {
            printf("%8u  %s%s\n", world->now, action_text(action).c_str(), done ? "" : "   (not possible)");
            print_phases(world, &phases);
        }
        if (world->violation != VIOLATION_NONE)
            return 0;
    }
    if (world->verbose)
        printf("%8u  faults end\n", world->now);
    uint32_t end = calm_down(world);
    if (world->verbose)
        print_phases(world, &phases);
    return end;
}

// Shrinking: leaves out ever smaller pieces while the script has the same violation.

static bool fails_alike(world_t *world, const script_t *script)
{
    (void)script_run(world, script);
    return world->violation == script->expected;
}

static bool try_without(world_t *world, script_t *script, size_t from, size_t num)
{
    script_t shorter = *script;
    shorter.actions.erase(shorter.actions.begin() + (long)from, shorter.actions.begin() + (long)(from + num));
    if (!fails_alike(world, &shorter))
        return false;
    *script = shorter;
    return true;
}

static bool shrink_actions(world_t *world, script_t *script)
{
    size_t before = script->actions.size();
    for (size_t num = before; num > 0; num /= 2) {
        for (size_t from = 0; from + num <= script->actions.size();) {
            if (!try_without(world, script, from, num))
                from += num;
        }
    }
    return script->actions.size() < before;
}

static bool try_config(world_t *world, script_t *script, const config_t *config)
{
    script_t simpler = *script;
    simpler.config = *config;
    if (memcmp(&simpler.config, &script->config, sizeof(config_t)) == 0 || !fails_alike(world, &simpler))
        return false;
    *script = simpler;
    return true;
}

static void remove_peer(app_config_t *app, uint32_t peer)
{
    for (uint32_t &slot : app->peer) {
        if (slot == peer)
            slot = 0;
    }
}

// Removes both names: a pair of which only one names the other is another situation.
static void part(config_t *config, int place, int app, int peer)
{
    app_config_t *first = &config->place[place].app[app];
    uint32_t peer_app = first->peer[peer];
    remove_peer(first, peer_app);
    for (place_config_t &other : config->place) {
        for (app_config_t &second : other.app) {
            if (second.app == peer_app)
                remove_peer(&second, first->app);
        }
    }
}

static void shrink_app(world_t *world, script_t *script, int place, int app)
{
    config_t config = script->config;
    config.place[place].app[app] = {};
    if (try_config(world, script, &config))
        return;
    for (int peer = 0; peer < PEER_NUM; peer++) {
        config = script->config;
        part(&config, place, app, peer);
        (void)try_config(world, script, &config);
    }
    config = script->config;
    config.place[place].app[app].server = false;
    (void)try_config(world, script, &config);
}

static void shrink_config(world_t *world, script_t *script)
{
    for (int place = PLACE_NUM - 1; place >= 0; place--) {
        config_t config = script->config;
        config.place[place] = {};
        if (try_config(world, script, &config))
            continue;
        for (int app = APP_NUM - 1; app >= 0; app--)
            shrink_app(world, script, place, app);
    }
    config_t config = script->config;
    config.self = false;
    (void)try_config(world, script, &config);
    config = script->config;
    config.delay_min = 0;
    (void)try_config(world, script, &config);
}

static bool merge_waits(world_t *world, script_t *script, size_t i)
{
    script_t simpler = *script;
    if (i + 1 >= simpler.actions.size() || simpler.actions[i].op != OP_WAIT || simpler.actions[i + 1].op != OP_WAIT)
        return false;
    simpler.actions[i].value += simpler.actions[i + 1].value;
    simpler.actions.erase(simpler.actions.begin() + (long)i + 1);
    if (!fails_alike(world, &simpler))
        return false;
    *script = simpler;
    return true;
}

static void shorten_wait(world_t *world, script_t *script, size_t i)
{
    static const uint32_t values[] = {1,    10,   100,  500,  1000, 1500,  2000,  2600,
                                      3000, 4000, 5000, 6000, 8000, 10000, 30000, 60000};
    for (uint32_t value : values) {
        if (value >= script->actions[i].value)
            return;
        script_t simpler = *script;
        simpler.actions[i].value = value;
        if (!fails_alike(world, &simpler))
            continue;
        *script = simpler;
        return;
    }
}

static void shrink_waits(world_t *world, script_t *script)
{
    for (size_t i = 0; i < script->actions.size(); i++) {
        while (merge_waits(world, script, i)) {
        }
        if (script->actions[i].op == OP_WAIT)
            shorten_wait(world, script, i);
    }
}

script_t script_shrink(world_t *world, const script_t *script)
{
    script_t best = *script;
    do {
        shrink_config(world, &best);
        shrink_waits(world, &best);
    } while (shrink_actions(world, &best));
    return best;
}
