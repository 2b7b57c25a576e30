/*
 * kro_mutex.cpp - mutexes over POSIX mutexes. Any thread may call these;
 * unlock only from the owning thread.
 */
#include <pthread.h>

#include "kro_mutex.h"
#include "kro_private.h"

/* Every type is a plain default pthread mutex: the library never locks one
 * twice from a thread, so the three types need not differ. */
t_kro_error kro_mutex_create(t_kro_mutex_type type, t_kro_mutex *mutex)
{
    t_kro_mutex m = NULL;
    t_kro_error err;
    int rc;
    if (mutex == NULL) return KRO_ERR_INVALID_ARG;
    if (type != KRO_MT_REGULAR && type != KRO_MT_FAST && type != KRO_MT_SPINLOCK)
        return KRO_ERR_INVALID_ARG;
    err = kro_mm_alloc(sizeof(struct kro_mutex), &m, 0);
    if (err != 0) return err;
    rc = pthread_mutex_init(&m->mutex, NULL);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        kro_mm_free(&m);
        return KRO_ERR_OS;
    }
    *mutex = m;
    return 0;
}

/* The primitive itself: the pthread mutex inside carries no attributes. */
t_kro_error kro_mutex_lock(t_kro_mutex mutex) KRO_NO_THREAD_SAFETY_ANALYSIS
{
    int rc;
    if (mutex == NULL) return KRO_ERR_INVALID_ARG;
    rc = pthread_mutex_lock(&mutex->mutex);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return 0;
}

/* The primitive itself, like kro_mutex_lock. */
t_kro_error kro_mutex_unlock(t_kro_mutex mutex) KRO_NO_THREAD_SAFETY_ANALYSIS
{
    int rc;
    if (mutex == NULL) return KRO_ERR_INVALID_ARG;
    rc = pthread_mutex_unlock(&mutex->mutex);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return 0;
}

t_kro_error kro_mutex_destroy(t_kro_mutex *mutex)
{
    int rc;
    if (mutex == NULL || *mutex == NULL) return KRO_ERR_INVALID_ARG;
    rc = pthread_mutex_destroy(&(*mutex)->mutex);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return kro_mm_free(mutex);
}
