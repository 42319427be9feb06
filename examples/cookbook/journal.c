/* Hands the library's log lines to the journal: systemd reads the priority before each line of standard error. */
#include <stdio.h>
#include <zeb/zeb_ext.h>

#define APP 100

/* From any thread, with locks of the library held: it makes no call of ZEB. */
static void to_journal(void *context, int level, const char *file, int line, const struct timespec *time,
                       const char *text)
{
    static const int priorities[] = {7, 6, 4, 3}; /* debug, info, warning, err of syslog.h */

    (void)file;
    (void)line;
    (void)time; /* the journal has its own */
    fprintf((FILE *)context, "<%d>%s\n", priorities[level], text);
}

int main(void)
{
    const zeb_msg_dispatcher_t client[] = {{0, NULL}};

    (void)zeb_set_log_handler(to_journal, stderr);
    if (zeb_register(APP, "journal", client, NULL) != 0)
        return 1;
    (void)zeb_register(APP, "journal", client, NULL); /* again: refused, with an ERROR line */
    return zeb_stop();
}
