/*
 * kro_private.h - declarations shared by the runtime's own source files.
 * Never included outside runtime/src.
 */
#ifndef KRO_PRIVATE_H
#define KRO_PRIVATE_H

#include <pthread.h>

#include "kro.h"

/* Records err (an errno value) as the calling thread's last
 * operating-system error. */
void kro_em_os_error_set(int err);

/* Records err (an errno value, or a resolver code) as the calling thread's
 * last network error. */
void kro_em_net_error_set(int err);

/* A mutex; the condition variables wait on the pthread mutex inside. */
struct kro_mutex {
    pthread_mutex_t mutex; /* the system mutex, plain (non-recursive) */
};

#endif /* KRO_PRIVATE_H */
