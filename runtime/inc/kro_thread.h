/*
 * kro_thread.h - threads of the kro runtime.
 * Internal to the library: not installed, not exported.
 */
#ifndef KRO_THREAD_H
#define KRO_THREAD_H

#include "kro.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kro_thread *t_kro_thread;
typedef void (*t_kro_thread_func)(t_kro_ptr arg);

/* Starts a thread running entry(arg). The new handle is stored into
 * *thread before the thread runs entry, so entry may compare
 * kro_thread_current() with it at once. flags is unused (pass 0). */
t_kro_error kro_thread_create(t_kro_thread_func entry, t_kro_ptr arg, t_kro_uint4 flags,
                              t_kro_thread *thread);

/* The calling thread's handle: equal to the one kro_thread_create stored
 * for it, and never null, also on threads the runtime did not start (those
 * get a handle of their own that no created thread shares). */
t_kro_thread kro_thread_current(void);

/* Returns when the thread has ended. Returns at once for a thread already
 * joined and when a thread joins itself. Concurrent joins are safe: each
 * returns once the thread has ended. */
t_kro_error kro_thread_join(t_kro_thread thread);

/* Frees the handle of a thread and clears *thread; joins first when the
 * thread has not been joined. A thread may free its own handle as its last
 * act before it returns from its entry function. */
t_kro_error kro_thread_destroy(t_kro_thread *thread);

#ifdef __cplusplus
}
#endif

#endif /* KRO_THREAD_H */
