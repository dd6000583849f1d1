// The layer's short-lived threads.

#include "tconfd/tconfd_internal.h"

#include <csignal>

void tconfd_block_signals()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

int tconfd_thread_start(void *(*body)(void *), void *arg)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int error = pthread_create(&thread, &attributes, body, arg);
    pthread_attr_destroy(&attributes);
    return error;
}
