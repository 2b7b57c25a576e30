/*
 * kro_cond.cpp - condition variables over POSIX condition variables, timed
 * on the monotonic clock. Any thread may call these; a waiter owns the mutex
 * it passes.
 */
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "kro_cond.h"
#include "kro_private.h"

struct kro_cond {
    pthread_cond_t cond; /* the system condition variable, on CLOCK_MONOTONIC */
};

t_kro_error kro_cond_create(t_kro_cond *cond)
{
    t_kro_cond c = NULL;
    pthread_condattr_t attr;
    t_kro_error err;
    int rc;
    if (cond == NULL) return KRO_ERR_INVALID_ARG;
    err = kro_mm_alloc(sizeof(struct kro_cond), &c, 0);
    if (err != 0) return err;
    rc = pthread_condattr_init(&attr);
    if (rc == 0) {
        rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        if (rc == 0) rc = pthread_cond_init(&c->cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    if (rc != 0) {
        kro_em_os_error_set(rc);
        kro_mm_free(&c);
        return KRO_ERR_OS;
    }
    *cond = c;
    return 0;
}

t_kro_error kro_cond_wait(t_kro_cond cond, t_kro_mutex mutex, t_kro_uint4 timeout)
{
    struct timespec deadline;
    int rc;
    if (cond == NULL || mutex == NULL) return KRO_ERR_INVALID_ARG;
    if (timeout == KRO_WAIT_FOREVER) {
        rc = pthread_cond_wait(&cond->cond, &mutex->mutex);
    } else {
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += (time_t)(timeout / 1000u);
        deadline.tv_nsec += (long)(timeout % 1000u) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        rc = pthread_cond_timedwait(&cond->cond, &mutex->mutex, &deadline);
        if (rc == ETIMEDOUT) return KRO_ERR_TIMEOUT;
    }
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return 0;
}

t_kro_error kro_cond_notifyall(t_kro_cond cond)
{
    int rc;
    if (cond == NULL) return KRO_ERR_INVALID_ARG;
    rc = pthread_cond_broadcast(&cond->cond);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return 0;
}

/* Frees a condition variable that no thread waits on and clears *cond. */
t_kro_error kro_cond_destroy(t_kro_cond *cond)
{
    int rc;
    if (cond == NULL || *cond == NULL) return KRO_ERR_INVALID_ARG;
    rc = pthread_cond_destroy(&(*cond)->cond);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return kro_mm_free(cond);
}
