/* SPDX-License-Identifier: MIT
 *
 * Functions of an application that has never heard of the library, under names that the library has, too. */
#include <stdlib.h>

void sig_handler(int signo);
void* threadProc(void* argument);

void sig_handler(int signo) {
    (void)signo;
    abort();
}

void* threadProc(void* argument) {
    (void)argument;
    abort();
}

int o_pthread_mutex_lock(void* mutex);

int o_pthread_mutex_lock(void* mutex) {
    (void)mutex;
    abort();
}
