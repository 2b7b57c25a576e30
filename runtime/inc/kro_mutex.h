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

/* Clang's thread-safety attributes, so that -Wthread-safety checks the
 * locking rules at compile time; empty for other compilers. */
#if defined(__clang__)
#define KRO_TS_ATTR(x) __attribute__((x))
#else
#define KRO_TS_ATTR(x)
#endif
#define KRO_CAPABILITY(name) KRO_TS_ATTR(capability(name))           /* the type is a lock */
#define KRO_GUARDED_BY(lock) KRO_TS_ATTR(guarded_by(lock))            /* field read and written under lock */
#define KRO_ACQUIRE(...) KRO_TS_ATTR(acquire_capability(__VA_ARGS__)) /* returns with the lock held */
#define KRO_RELEASE(...) KRO_TS_ATTR(release_capability(__VA_ARGS__)) /* returns with the lock released */
#define KRO_TRY_ACQUIRE(...) KRO_TS_ATTR(try_acquire_capability(__VA_ARGS__)) /* held when it returns the value */
#define KRO_REQUIRES(...) KRO_TS_ATTR(requires_capability(__VA_ARGS__)) /* called with the lock held */
#define KRO_NO_THREAD_SAFETY_ANALYSIS KRO_TS_ATTR(no_thread_safety_analysis) /* state the reason beside it */

struct KRO_CAPABILITY("mutex") kro_mutex;
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
t_kro_error kro_mutex_lock(t_kro_mutex mutex) KRO_ACQUIRE(mutex);
/* Releases a mutex the calling thread owns. */
t_kro_error kro_mutex_unlock(t_kro_mutex mutex) KRO_RELEASE(mutex);
/* Frees an unlocked mutex and clears *mutex. */
t_kro_error kro_mutex_destroy(t_kro_mutex *mutex);

#ifdef __cplusplus
}
#endif

#endif /* KRO_MUTEX_H */
