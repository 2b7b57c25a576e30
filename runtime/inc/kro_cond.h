/*
 * kro_cond.h - condition variables of the kro runtime.
 * Internal to the library: not installed, not exported.
 */
#ifndef KRO_COND_H
#define KRO_COND_H

#include "kro.h"
#include "kro_mutex.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kro_cond *t_kro_cond;

#define KRO_WAIT_FOREVER 0xFFFFFFFFu /* timeout value: no time limit */

t_kro_error kro_cond_create(t_kro_cond *cond);

/* Releases mutex (owned by the caller) while waiting and owns it again on
 * return. timeout is in milliseconds, KRO_WAIT_FOREVER for none; returns 0
 * when woken (possibly spuriously) and KRO_ERR_TIMEOUT when the time ran
 * out. Callers re-test their own condition in a loop. */
t_kro_error kro_cond_wait(t_kro_cond cond, t_kro_mutex mutex, t_kro_uint4 timeout);

/* Wakes every waiter. */
t_kro_error kro_cond_notifyall(t_kro_cond cond);

t_kro_error kro_cond_destroy(t_kro_cond *cond);

#ifdef __cplusplus
}
#endif

#endif /* KRO_COND_H */
