// The recorder of a cluster: a process that takes the copies of all messages (sim_tap.h) out of a socket of its own. A
// cluster has one at a time. It takes the messages in the order of their times, a moment after they were sent, because
// a sender may be held up between a message and its copy.
#ifndef SIM_RECORDER_H
#define SIM_RECORDER_H

#include <queue>
#include <vector>

#include "capture.h"
#include "sim_tap.h"

typedef struct recorder_s {
    sim_self_t self;
    sim_socket_t *socket;
    int mark;                      // the descriptor that shows the broker that the socket is open
    std::vector<packet_t> waiting; // a heap, the earliest first
} recorder_t;

// Begins with `bytes` of each message's data. 0, -EBUSY when somebody else records, or another negative errno. `self`
// is that of a process that has entered the cluster.
int recorder_open(recorder_t *recorder, const sim_self_t *self, uint32_t bytes);
// No further messages are copied; those that were are still there to take.
void recorder_stop(recorder_t *recorder);
// Takes the next message. False when there is none, or with `all` false when an earlier one may still come.
bool recorder_take(recorder_t *recorder, bool all, packet_t *message);
uint32_t recorder_lost(const recorder_t *recorder); // messages for which there was no room
void recorder_close(recorder_t *recorder);

#endif
