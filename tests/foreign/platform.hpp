// What configuring libzmq writes for its own tests, as far as those over TIPC look at it.
#pragma once
#define ZMQ_HAVE_LINUX
#define ZMQ_HAVE_IPC
#define ZMQ_HAVE_TIPC
