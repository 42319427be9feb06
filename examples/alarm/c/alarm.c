#include "alarm.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define RAISE_HEAD 5      /* bytes before the text of ALARM_RAISE */
#define ITEMS_PER_TURN 64 /* so that standard input has its turn under load */

typedef struct line_input_s {
    char bytes[512];
    size_t used;
} line_input_t;

static const char *const s_words[] = {"", "minor", "major", "critical"};

const char *alarm_severity_word(uint8_t severity)
{
    return s_words[severity];
}

uint8_t alarm_severity(const char *word)
{
    uint8_t severity;

    for (severity = 3; severity > 0 && strcmp(word, s_words[severity]) != 0; severity--)
        continue;
    return severity;
}

zeb_msg_t *alarm_new_raise(const alarm_t *alarm)
{
    size_t length = strlen(alarm->text);
    uint32_t id = htonl(alarm->id);
    zeb_msg_t *msg = zeb_msg_alloc((int)(RAISE_HEAD + length), ALARM_RAISE, 0);

    memcpy(msg->data, &id, sizeof(id));
    msg->data[sizeof(id)] = alarm->severity;
    memcpy(msg->data + RAISE_HEAD, alarm->text, length);
    return msg;
}

zeb_msg_t *alarm_new_clear(uint32_t id)
{
    zeb_msg_t *msg = zeb_msg_alloc(sizeof(id), ALARM_CLEAR, 0);

    id = htonl(id);
    memcpy(msg->data, &id, sizeof(id));
    return msg;
}

zeb_msg_t *alarm_new_text(const char *text, uint32_t version)
{
    size_t length = strlen(text);
    zeb_msg_t *msg = zeb_msg_alloc((int)length, version, 0);

    memcpy(msg->data, text, length);
    return msg;
}

int alarm_read_raise(const zeb_msg_t *msg, alarm_t *alarm)
{
    uint32_t size = zeb_msg_data_len(msg);
    uint32_t length = size - RAISE_HEAD;

    if (size < RAISE_HEAD || length > ALARM_TEXT_MAX || memchr(msg->data + RAISE_HEAD, '\0', length) != NULL)
        return -1;
    memcpy(&alarm->id, msg->data, sizeof(alarm->id));
    alarm->id = ntohl(alarm->id);
    alarm->severity = msg->data[sizeof(alarm->id)];
    memcpy(alarm->text, msg->data + RAISE_HEAD, length);
    alarm->text[length] = '\0';
    return alarm->severity >= 1 && alarm->severity <= 3 ? 0 : -1;
}

int alarm_read_clear(const zeb_msg_t *msg, uint32_t *id)
{
    if (zeb_msg_data_len(msg) != sizeof(*id))
        return -1;
    memcpy(id, msg->data, sizeof(*id));
    *id = ntohl(*id);
    return 0;
}

/* Reads once. Returns 0 at the end. poll() knows nothing of the buffers of stdio, so the lines are taken apart here. */
static int read_lines(line_input_t *input, void (*on_line)(void *context, char *line), void *context)
{
    ssize_t got = read(STDIN_FILENO, input->bytes + input->used, sizeof(input->bytes) - 1 - input->used);
    char *line = input->bytes;
    char *end;

    if (got < 0)
        return errno == EINTR || errno == EAGAIN;
    if (got == 0)
        return 0;
    input->used += (size_t)got;
    input->bytes[input->used] = '\0';
    while ((end = strchr(line, '\n')) != NULL) {
        *end = '\0';
        on_line(context, line);
        line = end + 1;
    }
    input->used -= (size_t)(line - input->bytes);
    memmove(input->bytes, line, input->used);
    if (input->used == sizeof(input->bytes) - 1) {
        on_line(context, input->bytes);
        input->used = 0;
    }
    return 1;
}

void alarm_loop(uint32_t app, void (*on_line)(void *context, char *line), void *context)
{
    line_input_t input = {.used = 0};
    struct pollfd ready[] = {{.fd = STDIN_FILENO, .events = POLLIN}, {.fd = zeb_app_fd(app), .events = POLLIN}};

    for (;;) {
        if (poll(ready, 2, -1) < 0)
            continue; /* a signal */
        if (ready[1].revents != 0)
            (void)zeb_dispatch(app, ITEMS_PER_TURN);
        if (ready[0].revents != 0 && !read_lines(&input, on_line, context))
            return;
    }
}

int alarm_start(const zeb_app_options_t *options, uint32_t peer, uint32_t other_peer)
{
    int ret = zeb_register_app(options);

    if (ret == 0)
        ret = zeb_comm_with(options->app, peer);
    if (ret == 0)
        ret = zeb_comm_with(options->app, other_peer);
    if (ret != 0)
        return ret;
    zeb_run();
    (void)setvbuf(stdout, NULL, _IOLBF, 0); /* each line goes out at once, into a pipe too */
    puts("ready");
    return 0;
}
