/* SPDX-License-Identifier: MIT
 *
 * POSIX threads with hooks that are called when a thread is created, when it starts and when it ends. Public,
 * plain C. The library's hooks make a thread a member of its creator's group. Threads that are made by other
 * means run no hooks. Everything else about threads is left to <pthread.h>, with which these calls mix
 * freely.
 *
 *     o_pthread_t thread;
 *     if (o_pthread_create(&thread, NULL, body, argument) == 0) {
 *         o_pthread_join(thread, NULL);
 *     }
 */
#ifndef ORN_OS_O_PTHREAD_H
#define ORN_OS_O_PTHREAD_H

#include <pthread.h>

#include <orn/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/* NOLINTBEGIN(modernize-use-using): plain C */
typedef pthread_t o_pthread_t;
typedef pthread_attr_t o_pthread_attr_t;
typedef pthread_mutex_t o_pthread_mutex_t;
typedef pthread_mutexattr_t o_pthread_mutexattr_t;
/* NOLINTEND(modernize-use-using) */

/* These do what the POSIX functions of the same names do, and return 0 or an error number like them.
 *
 * o_pthread_create() runs the create hooks in the calling thread once the new thread exists. No hook runs
 * when it fails. The new thread waits for the create hooks, runs the start hooks, then start_routine, and
 * last the cleanup hooks in reverse order of registration, whether it ends by return, o_pthread_exit() or
 * cancellation. It cannot be cancelled while its hooks run.
 *
 * When a create hook throws, the new thread ends without having run anything, the results of earlier create
 * hooks are dropped, and the exception goes on to the caller. An exception that leaves a start or cleanup
 * hook ends the process. */
ORN_API int o_pthread_create(o_pthread_t* thread, o_pthread_attr_t const* attr, void* (*start_routine)(void*),
                             void* argument);
ORN_API int o_pthread_detach(o_pthread_t thread);
ORN_API void o_pthread_exit(void* result) __attribute__((noreturn));
ORN_API int o_pthread_join(o_pthread_t thread, void** result);
ORN_API int o_pthread_cancel(o_pthread_t thread);

/* The caller's kernel thread id, as gettid() returns it and /proc shows it; not an o_pthread_t. Any thread
 * may ask, however it was made. A child of fork() gets its own. */
ORN_API int o_pthread_self(void);

ORN_API int o_pthread_mutex_init(o_pthread_mutex_t* mutex, o_pthread_mutexattr_t const* attr);
ORN_API int o_pthread_mutex_destroy(o_pthread_mutex_t* mutex);
ORN_API int o_pthread_mutex_lock(o_pthread_mutex_t* mutex);
ORN_API int o_pthread_mutex_unlock(o_pthread_mutex_t* mutex);

/* Registers hooks. Any thread may call it. The record is five words of a pointer's size:
 *
 *     0xDEAD
 *     void* (*create)(void)     in the creating thread; its result is the argument of start
 *     int (*start)(void*)       first in the new thread
 *     0                         reserved
 *     int (*cleanup)(void)      last in the ending thread
 *
 * A null hook is passed over, and the results of start and cleanup are ignored. The record is copied. A
 * thread runs the hooks that were registered when it was created. Once the library that holds them has been
 * unmapped, hooks are not called any more. It must stay mapped while one of them runs.
 *
 * Returns 0, also for a record equal to one that is registered already, which adds nothing; EINVAL for a null
 * record, a wrong magic word or a hook that is no mapped code; ENOSPC when all places (16) are taken. */
ORN_API int o_pthread_register_extension(void const* record);

#ifdef __cplusplus
}
#endif

#endif
