// A message that is freed at the end of its scope.
#ifndef ZEB_MSG_GUARD_H
#define ZEB_MSG_GUARD_H

#include <cstdlib>
#include <memory>

#include <zeb/zeb_msg.h>

struct zeb_free_msg {
    void operator()(zeb_msg_t *msg) const
    {
        free(msg);
    }
};

typedef std::unique_ptr<zeb_msg_t, zeb_free_msg> zeb_msg_guard_t;

#endif
