/* SPDX-License-Identifier: MIT
 *
 * Message queues between the processes of one machine. A message is a type, up to four parts of data and at
 * most one descriptor; it arrives whole or not at all. Public, plain C. The library's command channel lives
 * on them. What types and parts mean is left to those who talk, and so is every answer: a queue carries one
 * way.
 *
 *     o_msg_queue_t* queue = o_msg_create_queue("cmd.1234", O_MSG_EXCLUSIVE);
 *     o_msg_t message = {0};
 *     int sender = 0;
 *     message.count = 2;
 *     message.parts[0].data = &sender; // of exactly this size
 *     message.parts[0].length = sizeof sender;
 *     while (o_msg_recv(queue, &message) >= 0) { // the second part is allocated
 *         ...
 *         o_msg_release(&message);
 *         message.count = 2; // what is offered to the next one
 *     }
 *
 * Names are of the network namespace, leave no file behind and are free again when their process has ended,
 * however that happened. Everybody may try to connect to them, so both sides ask the kernel whom they
 * reached:
 *
 *     a queue takes messages from processes that run as its own effective user, and from root;
 *     a sender gives a message to queues that its own effective user or root created. When the name ends in a
 *     dot and a decimal number, as in "cmd.1234", only the queue that process 1234 created will do, and root
 *     may then send to any user's process;
 *     a process that may do more than its user (AT_SECURE, or not dumpable) deals with root alone, both ways.
 *
 * Every descriptor is close-on-exec. In a child of fork() the queues of its parent are closed; the parent's
 * go on as if nothing had been. Failing functions set errno. */
#ifndef ORN_OS_O_MSG_H
#define ORN_OS_O_MSG_H

#include <orn/api.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define O_MSG_MAX_PARTS 4
#define O_MSG_MAX_SIZE (128 * 1024) /* bytes, all parts of a message together */

#define O_MSG_EXCLUSIVE 1 /* o_msg_create_queue: the name must be free */

/* NOLINTBEGIN(modernize-use-using): plain C */
typedef struct o_msg_queue o_msg_queue_t;

typedef struct {
    void* data;
    size_t length;
} o_msg_part_t;

/* Zero it before the first use.
 *
 * fd, sending: above 0, the descriptor that goes along; the sender keeps its own. 0 and below: none, so that
 * a zeroed message never gives standard input away; who means descriptor 0 duplicates it first. fd, received:
 * the receiver's own number for the descriptor, close-on-exec, or -1. */
typedef struct {
    int type;
    int fd;
    unsigned count; /* of parts */
    o_msg_part_t parts[O_MSG_MAX_PARTS];
    unsigned owned; /* what o_msg_release() gives back; o_msg_recv() alone sets it */
} o_msg_t;
/* NOLINTEND(modernize-use-using) */

/* Creates the queue; flags must be O_MSG_EXCLUSIVE. Null when that fails: EADDRINUSE when the name is taken,
 * ENAMETOOLONG beyond 99 bytes. Any thread. */
ORN_API o_msg_queue_t* o_msg_create_queue(char const* name, int flags);

/* Closes the queue. Messages that wait in it are lost, and their descriptors closed. Nobody may be receiving
 * from it or polling it. Returns 0, or -1 for a null queue. */
ORN_API int o_msg_destroy_queue(o_msg_queue_t* queue);

/* The descriptor to poll: readable when o_msg_recv() has something to do, which need not be a whole message.
 * It stays the queue's. -1 in a child of fork(). */
ORN_API int o_msg_queue_fd(o_msg_queue_t const* queue);

/* The data of all parts in bytes. -1 with EINVAL when there are too many parts or one has a length without
 * data. */
ORN_API ssize_t o_msg_data_size(o_msg_t const* message);

/* Hands a message over; flags must be 0. Returns its data size, else -1 and nothing has been handed over:
 *
 *     ECONNREFUSED   there is no such queue
 *     EACCES         there is one, but whoever created it is not to be trusted with the message
 *     EAGAIN         its process has been behind with its messages for a second, or has let in others only
 *                    for ten
 *     EMSGSIZE       more data than O_MSG_MAX_SIZE
 *
 * and what else the system reports. Blocks for about ten seconds at most, and is a cancellation point. That a
 * message was handed over does not mean that it was welcome: the receiver drops what it does not trust or
 * understand. Messages that one thread sends to one queue arrive in this order. Any thread. */
ORN_API ssize_t o_msg_send(char const* name, o_msg_t const* message, int flags);

/* Takes the next message and returns its data size, never blocking: -1 with EAGAIN when there is none. Only
 * one thread at a time may receive from a queue; no cancellation point.
 *
 * The caller offers parts. One with data is a buffer that the message must fill exactly. One that is null is
 * allocated, with a NUL byte behind its length, so that a text can be read whether or not its sender ended
 * it. A message may have fewer parts than are offered as long as all buffers are filled, and count then says
 * how many it has. Messages that do not fit the offer, were cut short, are too large or are no messages at
 * all are dropped with whatever came along, and the next one is taken.
 *
 * A received message is given back with o_msg_release() before it is used again. When nothing is received fd
 * is -1 and the offer stands as it was. */
ORN_API ssize_t o_msg_recv(o_msg_queue_t* queue, o_msg_t* message);

/* Gives back what o_msg_recv() put in the message: the allocated parts, which are null again afterwards, and
 * the descriptor, unless the caller has taken it over and set fd to -1. Does nothing to any other message. */
ORN_API void o_msg_release(o_msg_t* message);

#ifdef __cplusplus
}
#endif

#endif
