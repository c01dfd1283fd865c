// SPDX-License-Identifier: MIT
//
// What the replaceable functions are as long as no host replaces them.
#include <orn/zel/threadFunctions.hpp>

#include <unistd.h>

extern "C" {

ssize_t (*orn_zel_thread_group_write)(int, void const*, size_t) = write;

int (*orn_zel_pthread_create)(o_pthread_t*, o_pthread_attr_t const*, void* (*)(void*),
                              void*) = o_pthread_create;
int (*orn_zel_pthread_detach)(o_pthread_t) = o_pthread_detach;
int (*orn_zel_pthread_self)(void) = o_pthread_self;
void (*orn_zel_pthread_exit)(void*) = o_pthread_exit;
int (*orn_zel_pthread_join)(o_pthread_t, void**) = o_pthread_join;
int (*orn_zel_pthread_cancel)(o_pthread_t) = o_pthread_cancel;
}
