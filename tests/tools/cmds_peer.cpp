// What the commands of zebctl talk to in their tests. Usage: cmds_peer APP VERSIONS PEER…
// A server of the versions (1,3), or a client (-), that names the peers. The text of a call or message says what it
// does: "stall" keeps the dispatcher for ever, "quit" ends the process, "null" replies without a message; anything else
// is echoed, and printed.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include <zeb/zeb_ext.h>

static std::string text_of(zeb_msg_t *msg)
{
    return {(const char *)zeb_msg_data(msg), zeb_msg_size(msg)};
}

static void obey(const std::string &text)
{
    printf("%s\n", text.c_str());
    (void)fflush(stdout);
    if (text == "quit")
        _exit(0);
    while (text == "stall")
        (void)pause();
}

static void on_message(void *, zeb_msg_t *msg)
{
    obey(text_of(msg));
    zeb_msg_free(msg);
}

static void on_call(void *, zeb_msg_t *msg)
{
    std::string text = text_of(msg);
    obey(text);
    std::string answer = text == "bytes" ? std::string("\0\1\xff", 3) : "echo " + text;
    zeb_msg_t *reply = zeb_msg_alloc((int)answer.size(), msg->hdr.app_ver, 0);
    memcpy(reply->data, answer.data(), answer.size());
    (void)zeb_rpc_reply(msg, text == "null" ? nullptr : reply, 0);
    zeb_msg_free(reply);
    zeb_msg_free(msg);
}

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    uint32_t app = (uint32_t)strtoul(argv[1], nullptr, 10);
    std::string name = "app" + std::to_string(app);
    zeb_app_dispatcher_t table[8] = {};
    char *at = argv[2];
    for (int i = 0; i < 7 && *at >= '0' && *at <= '9'; i++) {
        table[i] = {(uint32_t)strtoul(at, &at, 10), on_message, on_call};
        at += *at == ',' ? 1 : 0;
    }
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = app;
    options.name = name.c_str();
    options.dispatchers = table;
    if (zeb_register_app(&options) != 0)
        return 1;
    for (int i = 3; i < argc; i++)
        (void)zeb_comm_with(app, (uint32_t)strtoul(argv[i], nullptr, 10));
    zeb_run();
    for (;;)
        (void)pause();
}
