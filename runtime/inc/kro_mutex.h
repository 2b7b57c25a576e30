/*
 * kro_mutex.h - mutexes of the kro runtime (POSIX threads underneath).
 * Internal to the library: not installed, not exported.
 */
#ifndef KRO_MUTEX_H
#define KRO_MUTEX_H

#include "kro.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kro_mutex *t_kro_mutex;

/* Mutex types; the library uses KRO_MT_FAST and never locks a mutex twice
 * from one thread. All three are plain (non-recursive) mutexes here. */
typedef enum kro_mutex_type {
    KRO_MT_REGULAR = 0,
    KRO_MT_FAST = 1,
    KRO_MT_SPINLOCK = 2
} t_kro_mutex_type;

/* Creates a mutex into *mutex; 0, or KRO_ERR_OS, KRO_ERR_NO_MEMORY or
 * KRO_ERR_INVALID_ARG. */
t_kro_error kro_mutex_create(t_kro_mutex_type type, t_kro_mutex *mutex);
/* Blocks until the calling thread owns the mutex. */
t_kro_error kro_mutex_lock(t_kro_mutex mutex);
/* Releases a mutex the calling thread owns. */
t_kro_error kro_mutex_unlock(t_kro_mutex mutex);
/* Frees an unlocked mutex and clears *mutex. */
t_kro_error kro_mutex_destroy(t_kro_mutex *mutex);

#ifdef __cplusplus
}
#endif

#endif /* KRO_MUTEX_H */
