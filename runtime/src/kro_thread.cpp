/*
 * kro_thread.cpp - threads over POSIX threads.
 *
 * A created thread's record lives from kro_thread_create until
 * kro_thread_destroy. Joins of one record are serialised by its mutex, so a
 * second joiner waits for the first and then returns at once. A thread that
 * destroys its own record detaches itself and touches the record no more.
 */
#include <pthread.h>

#include "kro_private.h"
#include "kro_thread.h"

struct kro_thread {
    pthread_t tid;           /* system thread; written by the creator under start */
    t_kro_thread_func entry; /* function the thread runs */
    t_kro_ptr arg;           /* its argument */
    pthread_mutex_t start;   /* held by the creator until tid is stored */
    pthread_mutex_t mutex;   /* held by a joiner for the whole join */
    bool joined;             /* the thread has been joined; under mutex */
    bool created;            /* started by kro_thread_create; false for foreign records */
};

/* Handle of a thread the runtime started, set by the trampoline before the
 * entry runs; null on other threads and after a thread freed its own. */
static thread_local struct kro_thread *kro_thread_self;

/* Handle of a thread the runtime did not start (zero-initialised:
 * created is false). Never joined, never freed. */
static thread_local struct kro_thread kro_thread_foreign;

/* Runs on the new thread. The creator holds start until it has stored the
 * thread id, so taking it here keeps the record out of the entry's hands
 * (it may free it) until the creator is done with it. */
static void *kro_thread_trampoline(void *p)
{
    struct kro_thread *thread = (struct kro_thread *)p;
    t_kro_thread_func entry = thread->entry;
    t_kro_ptr arg = thread->arg;
    pthread_mutex_lock(&thread->start);
    pthread_mutex_unlock(&thread->start);
    kro_thread_self = thread;
    entry(arg);
    /* The record may be gone now (freed by the entry); do not touch it. */
    kro_thread_self = NULL;
    return NULL;
}

t_kro_error kro_thread_create(t_kro_thread_func entry, t_kro_ptr arg, t_kro_uint4 flags,
                              t_kro_thread *thread)
{
    struct kro_thread *t = NULL;
    t_kro_error err;
    int rc;
    (void)flags;
    if (entry == NULL || thread == NULL) return KRO_ERR_INVALID_ARG;
    err = kro_mm_alloc(sizeof(struct kro_thread), &t, 1);
    if (err != 0) return err;
    t->entry = entry;
    t->arg = arg;
    t->joined = false;
    t->created = true;
    rc = pthread_mutex_init(&t->start, NULL);
    if (rc == 0) {
        rc = pthread_mutex_init(&t->mutex, NULL);
        if (rc != 0) pthread_mutex_destroy(&t->start);
    }
    if (rc != 0) {
        kro_em_os_error_set(rc);
        kro_mm_free(&t);
        return KRO_ERR_OS;
    }
    pthread_mutex_lock(&t->start);
    *thread = t;
    rc = pthread_create(&t->tid, NULL, kro_thread_trampoline, t);
    pthread_mutex_unlock(&t->start);
    if (rc != 0) {
        *thread = NULL;
        pthread_mutex_destroy(&t->start);
        pthread_mutex_destroy(&t->mutex);
        kro_mm_free(&t);
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return 0;
}

t_kro_thread kro_thread_current(void)
{
    return kro_thread_self != NULL ? kro_thread_self : &kro_thread_foreign;
}

/* Waits for the thread to end; at once for the calling thread itself and
 * for a thread already joined. A foreign thread's handle can only be
 * "joined" by its own thread. */
t_kro_error kro_thread_join(t_kro_thread thread)
{
    int rc = 0;
    if (thread == NULL) return KRO_ERR_INVALID_ARG;
    if (thread == kro_thread_current()) return 0;
    if (!thread->created) return KRO_ERR_INVALID_ARG;
    pthread_mutex_lock(&thread->mutex);
    if (!thread->joined) {
        rc = pthread_join(thread->tid, NULL);
        if (rc == 0) thread->joined = true;
    }
    pthread_mutex_unlock(&thread->mutex);
    if (rc != 0) {
        kro_em_os_error_set(rc);
        return KRO_ERR_OS;
    }
    return 0;
}

/* Frees a created thread's handle and clears *thread. On the thread itself
 * it detaches the thread, which must then only return from its entry; no
 * other thread may be joining it at that moment. Elsewhere it joins first. */
t_kro_error kro_thread_destroy(t_kro_thread *thread)
{
    struct kro_thread *t;
    t_kro_error err;
    int rc;
    if (thread == NULL || *thread == NULL) return KRO_ERR_INVALID_ARG;
    t = *thread;
    if (!t->created) return KRO_ERR_INVALID_ARG;
    if (t == kro_thread_self) {
        rc = pthread_detach(pthread_self());
        if (rc != 0) {
            kro_em_os_error_set(rc);
            return KRO_ERR_OS;
        }
        kro_thread_self = NULL;
    } else {
        err = kro_thread_join(t);
        if (err != 0) return err;
    }
    pthread_mutex_destroy(&t->start);
    pthread_mutex_destroy(&t->mutex);
    *thread = NULL;
    return kro_mm_free(&t);
}
