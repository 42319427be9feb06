// The application's own handler of log lines (zeb_set_log_handler).
// Any thread may enter, with any lock of the library held: a line is handed over without a lock, so the handler may
// change while lines are logged. A lock of its own orders two changes; the handler never runs under it.
#ifndef ZEB_LOG_HANDLER_H
#define ZEB_LOG_HANDLER_H

#include <zeb/zeb_ext.h>

bool zeb_has_log_handler();

// Hands a line to the handler, if there is one and this thread is not in it. `text` has neither prefix nor line end.
void zeb_handle_log_line(int level, const char *file, int line, const char *text);

// In a forked child the threads that were in the handler are gone.
void zeb_log_handler_enter_child();

#endif
