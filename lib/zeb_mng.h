// Registration, the start and the stop of the library. Runs on application threads. Registration holds g_lib_mutex
// throughout; the stop does not while it waits for calls and threads to end, since these may need it.
#ifndef ZEB_MNG_H
#define ZEB_MNG_H

#include <zeb/zeb.h>

// Claims a slot for `app` and starts the library first if necessary. Returns the results of zeb_register.
int zeb_add_app_mng(uint32_t app, const char *app_name, bool thread, int dispatcher_num,
                    const zeb_msg_dispatcher_t *dispatcher, zeb_app_event_fun_t event);
void zeb_del_app_mng(uint32_t app);

// Does what zeb_stop promises. The calling thread must not be inside the library.
int zeb_stop_lib();

#endif
