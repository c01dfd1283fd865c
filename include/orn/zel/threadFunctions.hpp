// SPDX-License-Identifier: MIT
//
// Function pointers that a host may replace, so that zel runs over another thread layer or another way of
// writing. Public, for hosts only. Replace them before a second thread uses the library: they are plain
// variables that are read without a lock. To tell later whether one has been replaced, keep what it held at
// first. Comparing it with o_pthread_create, say, would not do: in a program that is not position-independent
// that name has another address than in the library.
#ifndef ORN_ZEL_THREADFUNCTIONS_HPP
#define ORN_ZEL_THREADFUNCTIONS_HPP

#include <sys/types.h>

#include <orn/api.h>
#include <orn/os/o_pthread.h>

extern "C" {

// Writes every control byte of every group. Has the contract of write(2), and must not block. Initially
// write().
ORN_API extern ssize_t (*orn_zel_thread_group_write)(int fd, void const* data, size_t length);

// The thread layer under thread::self() and Thread. Initially the o_pthread_ functions of the same names.
ORN_API extern int (*orn_zel_pthread_create)(o_pthread_t* thread, o_pthread_attr_t const* attributes,
                                             void* (*start)(void*), void* argument);
ORN_API extern int (*orn_zel_pthread_detach)(o_pthread_t thread);
ORN_API extern int (*orn_zel_pthread_self)(void);
ORN_API extern void (*orn_zel_pthread_exit)(void* result);
ORN_API extern int (*orn_zel_pthread_join)(o_pthread_t thread, void** result);
ORN_API extern int (*orn_zel_pthread_cancel)(o_pthread_t thread);
}

#endif
