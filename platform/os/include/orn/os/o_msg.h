/* SPDX-License-Identifier: MIT
 *
 * Message queues between the processes of one machine. A message is a type, up to four parts of data and at
 * most one descriptor; it arrives whole or not at all. Public, plain C. The library's command channel uses
 * them. What types and parts mean is left to those who talk. A queue carries messages one way, so answers
 * need another way back.
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
 * Names belong to the network namespace. They leave no file behind, and a name is free again when its process
 * has ended, in whatever way. Everybody may try to connect to a name and everybody may take one, so both
 * sides ask the kernel whom they have reached:
 *
 *     a queue takes messages from processes that run as its own effective user, and from root;
 *     a sender gives a message to queues that its own effective user or root created. When the name ends in a
 *     dot and a decimal number, as in "cmd.1234", the creator must be process 1234, and root may then send to
 *     any user's process;
 *     a process that may do more than its user (AT_SECURE, or not dumpable) deals with root alone, both ways.
 *
 * Every descriptor is close-on-exec. In a child of fork() the parent's queues are closed, while those of the
 * parent go on. Failing functions set errno. */
#ifndef ORN_OS_O_MSG_H
#define ORN_OS_O_MSG_H

#include <stddef.h>
#include <sys/types.h>

#include <orn/api.h>

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
 * fd in a message to send is the descriptor that goes along, when it is above 0; the sender keeps its own.
 * Nothing goes along for 0, so that a zeroed message never gives standard input away; duplicate descriptor 0
 * to send it. fd in a received message is the receiver's own descriptor, close-on-exec, or -1. */
typedef struct {
    int type;
    int fd;
    unsigned count; /* of parts */
    o_msg_part_t parts[O_MSG_MAX_PARTS];
    unsigned owned; /* what o_msg_release() gives back; o_msg_recv() alone sets it */
} o_msg_t;
/* NOLINTEND(modernize-use-using) */

/* Creates a queue, which the caller destroys. flags must be O_MSG_EXCLUSIVE. Returns null when it fails, with
 * EADDRINUSE when the name is taken and ENAMETOOLONG for one of more than 99 bytes. Any thread may call it.
 */
ORN_API o_msg_queue_t* o_msg_create_queue(char const* name, int flags);

/* Destroys the queue. Messages that wait in it are lost, and their descriptors closed. No thread may be
 * receiving from it or polling it. Returns 0, or -1 for a null queue. */
ORN_API int o_msg_destroy_queue(o_msg_queue_t* queue);

/* The descriptor to poll. It is readable when o_msg_recv() has something to do, which need not be a whole
 * message. The queue keeps owning it. -1 in a child of fork(). */
ORN_API int o_msg_queue_fd(o_msg_queue_t const* queue);

/* The size of all parts together, in bytes. -1 with EINVAL when there are too many parts or one has a length
 * but no data. */
ORN_API ssize_t o_msg_data_size(o_msg_t const* message);

/* Hands a message over. flags must be 0. Returns the message's data size, or -1 when nothing was handed over:
 *
 *     ECONNREFUSED   there is no such queue
 *     EACCES         there is one, but its creator is not to be trusted with the message
 *     EAGAIN         the queue was full, and for a second took no message, or for ten only those of others
 *     EMSGSIZE       there is more data than O_MSG_MAX_SIZE
 *
 * and whatever else the system reports. Any thread may call it. It blocks for about ten seconds at most and
 * is a cancellation point. Success does not mean that the message was welcome, since the receiver drops what
 * it does not trust or understand. Messages that one thread sends to one queue arrive in the same order. */
ORN_API ssize_t o_msg_send(char const* name, o_msg_t const* message, int flags);

/* Takes the next message and returns its data size, or -1 with EAGAIN when there is none. It does not block
 * and is no cancellation point. Only one thread at a time may receive from a queue.
 *
 * The caller offers count parts. A part with data is a buffer that the message must fill exactly. A part
 * without is allocated, with a NUL byte after its end, so that a text can be read whether or not its sender
 * ended it. A message may have fewer parts than are offered as long as all buffers are filled, and count then
 * says how many it has. Messages that do not fit the offer, were cut short, are too large or are no messages
 * at all are dropped with whatever came along, and the next one is taken.
 *
 * Give a received message back with o_msg_release() before you use it again. When nothing was received, fd is
 * -1 and the offer is as it was. */
ORN_API ssize_t o_msg_recv(o_msg_queue_t* queue, o_msg_t* message);

/* Frees the parts that o_msg_recv() allocated and makes them null, and closes the descriptor unless the
 * caller has taken it over and set fd to -1. Does nothing to a message that was not received. */
ORN_API void o_msg_release(o_msg_t* message);

#ifdef __cplusplus
}
#endif

#endif
