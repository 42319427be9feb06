// Registration, the start and the stop of the library. Runs on application threads. Registration holds g_lib_mutex
// throughout; the stop does not while it waits for calls and threads to end, since these may need it.
#ifndef ZEB_MNG_H
#define ZEB_MNG_H

#include "zeb_app_info.h"

// Claims a slot for the application and starts the library first if necessary. Returns the results of zeb_register.
int zeb_add_app_mng(const zeb_app_spec_t *spec);
void zeb_del_app_mng(uint32_t app);

// Does what zeb_stop promises. The calling thread must not be inside the library.
int zeb_stop_lib();

#endif
