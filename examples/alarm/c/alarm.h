/* What the three programs of the alarm application share: ids, messages, and the loop. The messages are those of the
 * C++ and the Python programs beside this folder, so programs of the three languages work together. */
#ifndef ALARM_H
#define ALARM_H

#include <zeb/zeb_ext.h>

#define MANAGER_APP 300 /* alarm_manager: keeps the list of active alarms */
#define CARD_APP 301    /* line_card: raises and clears alarms */
#define CONSOLE_APP 302 /* alarm_console: asks both */

/* Message versions. Numbers on the wire are big-endian. */
#define ALARM_RAISE 1 /* one-way, card to manager: uint32 alarm id, uint8 severity, text without its NUL */
#define ALARM_CLEAR 2 /* one-way, card to manager: uint32 alarm id */
#define ALARM_LIST 3  /* call, console to manager: empty. Reply: a line "NODE/ID SEVERITY TEXT" for each alarm */
#define CARD_STATUS 4 /* call, console to all cards: empty. Reply: "ports 48, alarms N" */

#define ALARM_TEXT_MAX 200 /* bytes of an alarm's text */

typedef struct alarm_s {
    uint32_t id;
    uint8_t severity; /* 1 minor, 2 major, 3 critical */
    char text[ALARM_TEXT_MAX + 1];
} alarm_t;

/* The word of a severity 1..3. */
const char *alarm_severity_word(uint8_t severity);

/* The severity of a word, or 0. */
uint8_t alarm_severity(const char *word);

/* New messages; the caller releases them with free(). */
zeb_msg_t *alarm_new_raise(const alarm_t *alarm);
zeb_msg_t *alarm_new_clear(uint32_t id);
zeb_msg_t *alarm_new_text(const char *text, uint32_t version); /* without its NUL */

/* Read a payload that came from a peer. They return 0, or -1 for one that no version of this application has sent. */
int alarm_read_raise(const zeb_msg_t *msg, alarm_t *alarm);
int alarm_read_clear(const zeb_msg_t *msg, uint32_t *id);

/* The loop of the polled application `app`: runs the library's callbacks, and `on_line` for each line of standard
 * input, in this thread. Returns at the end of standard input. A line of more than 511 bytes is cut into several. */
void alarm_loop(uint32_t app, void (*on_line)(void *context, char *line), void *context);

/* Registers a polled application that names two others, starts the library and prints "ready". Returns 0, or an error:
 * the library has put on standard error why. */
int alarm_start(const zeb_app_options_t *options, uint32_t peer, uint32_t other_peer);

#endif
