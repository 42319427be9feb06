// The exported calls: registration, life cycle, sending. Entered by application threads; no lock of its own.
#ifndef ZEB_USER_PROXY_H
#define ZEB_USER_PROXY_H

#include <zeb/zeb.h>

#include "zeb_mng_online.h"

constexpr int ZEB_APP_MC_MBR_NUM = 16;          // destination applications of one send
constexpr int ZEB_NODE_MC_MBR_NUM = 64;         // destination nodes of one send
constexpr uint32_t ZEB_NODE_NONE = 0xFFFFFFFFu; // an empty place in a node list

#endif
