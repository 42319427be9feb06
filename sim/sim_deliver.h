// What the kernel does with a message on its way: it finds the receiver's queue, refuses, returns, and moves the state
// of connections. The process that sends, or closes, does it for both sides. Programs and the broker enter here.
#ifndef SIM_DELIVER_H
#define SIM_DELIVER_H

#include "sim_names.h"
#include "sim_socket.h"

constexpr uint32_t SIM_FLOW_BLOCK = 1024;  // bytes of a block of flow control
constexpr uint32_t SIM_WINDOW_UNIT = 4096; // bytes of the receive buffer for a block of the window

// Delivers a message whose record says to whom (dst_port, dst_index), or to the broker when its link is impaired or
// cut. The block is gone after it. TIPC_OK, or the TIPC error with which it was refused; nothing has been returned
// then.
uint32_t sim_deliver(const sim_self_t *self, sim_block_t *block);
// As sim_deliver, on a link that is in order, for the broker.
uint32_t sim_deliver_now(const sim_self_t *self, sim_block_t *block);
// Makes a block of a record and its data. Null without memory.
sim_block_t *sim_message(const sim_self_t *self, const sim_record_t *record, const struct iovec *data, size_t num);
// Copies at most `size` bytes, from byte `from` of all parts on, and returns how many.
size_t sim_gather(void *to, size_t size, const struct iovec *parts, size_t num, size_t from);
// Sends a message back that was refused or never read, with what it began with. Does nothing when it is droppable, or
// was returned itself. Without `data` it comes back empty.
void sim_return(const sim_self_t *self, const sim_record_t *record, const uint8_t *data, uint32_t err);

// Takes a SYN out of the queue of a listening socket and connects `fresh` with its sender. The SYN's data, if any, is
// the first message of `fresh`. False when the queue is empty.
bool sim_accept(const sim_self_t *self, sim_socket_t *listener, sim_socket_t *fresh);
static inline uint32_t sim_flow_blocks(uint32_t bytes) // that flow control counts for a message
{
    constexpr uint32_t header = 24; // bytes of its head
    return (bytes + header) / SIM_FLOW_BLOCK + 1;
}
// Counts a message of `bytes` that was read from a connection; the sender may go on.
void sim_acknowledge(const sim_self_t *self, sim_socket_t *socket, uint32_t bytes);
void sim_count_sent(sim_socket_t *socket, int32_t blocks); // on its connection, before they are sent; less: not sent
void sim_set_window(sim_socket_t *socket, uint32_t window);
// Ends the connection of a socket, as shutdown() and close() do: `err` is what the peer reads.
void sim_disconnect(const sim_self_t *self, sim_socket_t *socket, uint32_t err);
// The other side is gone or out of reach: what the peer's sim_disconnect would have done here.
void sim_abort(const sim_self_t *self, sim_socket_t *socket, uint32_t err);
// Closes a socket: its unread messages go back, its slot is free. Its names must be gone. `all_gone`: no process has it
// any more, so that what killed ones left in its queue is freed as well.
void sim_socket_close(const sim_self_t *self, sim_socket_t *socket, bool all_gone);
// Closes a slot that a process took, or began to close, before it was killed. `owner` is that of its blocks.
void sim_socket_inherit(const sim_self_t *self, sim_socket_t *socket, uint32_t owner);

#endif
