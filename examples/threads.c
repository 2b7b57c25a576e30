/* threads - one handle shared by several threads.
 *
 *   threads URL [ROUNDS]      (default 200 rounds per thread)
 *
 * Four threads use the same open handle at once: each stores values under
 * its own keys with synchronous puts and reads every one back with a
 * synchronous get. The library serialises the requests on the connection
 * and hands each waiting thread its own answer. Prints each thread's
 * counts and exits 0 when every get returned what its thread had put.
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qel_hspace.h>

#define THREADS 4 /* threads sharing the handle */
#define KEYS 10   /* keys per thread, reused round after round */

struct worker {
    pthread_t thread;     /* the thread */
    int id;               /* 0..THREADS-1 */
    t_qel_hspace hspace;  /* the shared handle */
    int rounds;           /* put and get pairs to make */
    int ok;               /* gets that returned the value put */
    int wrong;            /* gets that returned anything else */
    t_kro_error error;    /* first error, 0 when none */
};

/* Returns 1 when the get of key yields exactly one object holding value. */
static int get_matches(t_qel_hspace hspace, const char *key, const char *value, t_kro_error *error)
{
    t_kro_llist objects = NULL;
    t_kro_ptr node;
    int match = 0;
    kro_llist_create(&objects);
    *error = qel_hspace_get(hspace, key, NULL, HSPACE_GET_SYNC, 0, 0, objects);
    if (*error == 0 && objects->num_elements == 1) {
        t_kro_ptr data = NULL;
        t_kro_buf buf;
        qel_hspace_object_get_data((t_qel_hspace_object)kro_llist_first(objects), &data);
        buf = (t_kro_buf)data;
        match = buf != NULL && buf->lim - buf->pos == strlen(value) &&
                memcmp((const char *)buf->ptr + buf->pos, value, strlen(value)) == 0;
    }
    while ((node = kro_llist_first(objects)) != NULL) {
        t_qel_hspace_object object = (t_qel_hspace_object)node;
        kro_llist_remove(object);
        qel_hspace_object_destroy(&object);
    }
    kro_llist_destroy(&objects);
    return match;
}

static void *work(void *arg)
{
    struct worker *w = arg;
    char key[64], value[64];
    int i;
    for (i = 0; i < w->rounds && w->error == 0; i++) {
        t_kro_buf buf = NULL;
        t_qel_hspace_object object = NULL;
        t_kro_error error;
        size_t len;
        snprintf(key, sizeof key, "threads/%d/%d", w->id, i % KEYS);
        snprintf(value, sizeof value, "thread %d round %d", w->id, i);
        len = strlen(value);
        kro_buf_create(&buf, (t_kro_uint4)len, 0);
        memcpy(buf->ptr, value, len);
        qel_hspace_object_create(key, buf, &object);
        error = qel_hspace_put(w->hspace, object, HSPACE_PUT_SYNC, 0);
        qel_hspace_object_destroy(&object);
        kro_buf_release(&buf);
        if (error == 0) {
            if (get_matches(w->hspace, key, value, &error))
                w->ok++;
            else if (error == 0)
                w->wrong++;
        }
        if (error != 0) w->error = error;
    }
    for (i = 0; i < KEYS; i++) {
        snprintf(key, sizeof key, "threads/%d/%d", w->id, i);
        qel_hspace_remove(w->hspace, key, HSPACE_REMOVE_NOREPLY, 0);
    }
    return NULL;
}

/* No events are expected: no asynchronous get, no subscription. */
static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    (void)event_data;
    if (event == HSPACE_EVENT_LINK_FAIL) printf("connection lost\n");
}

int main(int argc, char **argv)
{
    qel_hspace_create_data create_data = {NULL, "threads", "examples"};
    t_qel_hspace hspace = NULL;
    struct worker workers[THREADS];
    t_kro_error error;
    const t_kro_char *text = "?";
    int i, failed = 0;
    int rounds = argc > 2 ? atoi(argv[2]) : 200;

    if (argc < 2 || argc > 3 || rounds <= 0) {
        fprintf(stderr, "usage: %s URL [ROUNDS]\n", argv[0]);
        return 2;
    }
    create_data.service_url = argv[1];
    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    error = qel_hspace_create(&create_data, on_event, &hspace);
    if (error == 0) error = qel_hspace_open(hspace);
    if (error != 0) {
        qel_hspace_error_get_text(error, &text);
        fprintf(stderr, "threads: cannot open %s: %s\n", argv[1], text);
        if (hspace != NULL) qel_hspace_destroy(&hspace);
        qel_hspace_finalize();
        return 1;
    }

    for (i = 0; i < THREADS; i++) {
        workers[i].id = i;
        workers[i].hspace = hspace;
        workers[i].rounds = rounds;
        workers[i].ok = workers[i].wrong = 0;
        workers[i].error = 0;
        pthread_create(&workers[i].thread, NULL, work, &workers[i]);
    }
    for (i = 0; i < THREADS; i++) {
        struct worker *w = &workers[i];
        pthread_join(w->thread, NULL);
        qel_hspace_error_get_text(w->error, &text);
        printf("thread %d: %d gets matched, %d did not, %s\n", w->id, w->ok, w->wrong, text);
        failed |= w->ok != rounds;
    }

    qel_hspace_close(hspace);
    qel_hspace_destroy(&hspace);
    qel_hspace_finalize();
    printf("threads: %s\n", failed ? "FAILED" : "every get returned what its thread had put");
    return failed;
}
