/* quickstart - a tour of every operation of the hspace client library.
 *
 *   quickstart URL        (e.g. tcp://127.0.0.1:7521, where hspaced listens)
 *
 * Opens one handle and, printing a transcript as it goes: puts (synchronous
 * and without reply), gets one key, gets a prefix pattern (fruit/ then a star)
 * returning several objects, gets the same pattern asynchronously (the
 * objects arrive as events), subscribes to the pattern (its initial image,
 * then notifications caused by this program's own puts and removes),
 * cancels, removes, and closes. Exits 0 when every step gave the expected
 * result, 1 otherwise.
 *
 * Events run on the handle's reader thread. Here the callback only formats
 * each event into a line and hands it to the main thread, which waits for
 * the lines it expects (with a bounded wait) and prints them, so the
 * transcript reads in order.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <qel_hspace.h>

#define WAIT_SECONDS 10  /* longest wait for an expected event */
#define MAX_EVENTS 64    /* event lines kept */
#define LINE_SIZE 256    /* bytes of one event line */

static pthread_mutex_t events_mutex = PTHREAD_MUTEX_INITIALIZER; /* guards the three below */
static pthread_cond_t events_cond = PTHREAD_COND_INITIALIZER;    /* signals events_count growth */
static char events[MAX_EVENTS][LINE_SIZE]; /* lines formatted by the callback */
static int events_count;                   /* lines recorded so far */
static int events_shown;                   /* main thread: lines printed so far */

static int failures; /* main thread: steps that did not give the expected result */

static const char *text_of(t_kro_error error)
{
    const t_kro_char *text = "?";
    qel_hspace_error_get_text(error, &text);
    return text;
}

/* Prints one step and its result; counts it as failed unless it is expected. */
static void step(const char *what, t_kro_error error, t_kro_error expected)
{
    printf("%-44s -> %s\n", what, text_of(error));
    if (error != expected) {
        printf("   (expected: %s)\n", text_of(expected));
        failures++;
    }
}

/* "KEY = VALUE" of an object into out. */
static void describe(t_qel_hspace_object object, char *out, size_t size)
{
    t_kro_str key = NULL;
    t_kro_ptr data = NULL;
    t_kro_buf buf;
    qel_hspace_object_get_key(object, &key);
    qel_hspace_object_get_data(object, &data);
    buf = (t_kro_buf)data;
    if (buf == NULL)
        snprintf(out, size, "%s (no value)", key);
    else
        snprintf(out, size, "%s = \"%.*s\"", key, (int)(buf->lim - buf->pos), (const char *)buf->ptr + buf->pos);
}

/* The event callback: reader thread, no library lock held. Formats the
 * event, frees its object (the object is the application's), and hands the
 * line to the main thread. */
static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    char line[LINE_SIZE];
    char object[LINE_SIZE - 64] = "";
    (void)hspace;
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE) {
        t_qel_hspace_reply_image_event_data_struct *e = event_data;
        const char *name = event == HSPACE_EVENT_GET_REPLY ? "get reply" : "post image";
        if (e->object != NULL) {
            describe(e->object, object, sizeof object);
            qel_hspace_object_destroy(&e->object);
            snprintf(line, sizeof line, "%s %u/%u: %s", name, (unsigned)e->index, (unsigned)e->cardinality, object);
        } else {
            snprintf(line, sizeof line, "%s for %s: %s", name, e->key,
                     e->status == 0 ? "nothing stored" : text_of(e->status));
        }
    } else if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        t_qel_hspace_post_notification_event_data_struct *e = event_data;
        describe(e->object, object, sizeof object);
        qel_hspace_object_destroy(&e->object);
        snprintf(line, sizeof line, "notification (%s): %s",
                 e->trigger == HSPACE_TRIGGER_STORED    ? "stored"
                 : e->trigger == HSPACE_TRIGGER_REMOVED ? "removed"
                 : e->trigger == HSPACE_TRIGGER_ENDED   ? "ended"
                                                        : "other",
                 object);
    } else {
        t_qel_hspace_fail_event_data_struct *e = event_data;
        snprintf(line, sizeof line, "link failure: %s", text_of(e->error));
    }

    pthread_mutex_lock(&events_mutex);
    if (events_count < MAX_EVENTS) {
        memcpy(events[events_count], line, sizeof line);
        events_count++;
        pthread_cond_broadcast(&events_cond);
    }
    pthread_mutex_unlock(&events_mutex);
}

/* Main thread: waits until n more events have arrived (at most
 * WAIT_SECONDS) and prints them. A shortfall counts as a failure. */
static void show_events(int n)
{
    struct timespec deadline;
    int err = 0;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += WAIT_SECONDS;
    pthread_mutex_lock(&events_mutex);
    while (events_count < events_shown + n && err != ETIMEDOUT)
        err = pthread_cond_timedwait(&events_cond, &events_mutex, &deadline);
    for (; events_shown < events_count; events_shown++) printf("   event: %s\n", events[events_shown]);
    if (err == ETIMEDOUT) {
        printf("   (timed out waiting for events)\n");
        failures++;
    }
    pthread_mutex_unlock(&events_mutex);
}

/* Stores value under key with the given semantic. */
static t_kro_error put(t_qel_hspace hspace, const char *key, const char *value, t_qel_hspace_put_semantic semantic)
{
    t_kro_buf buf = NULL;
    t_qel_hspace_object object = NULL;
    t_kro_error error;
    size_t len = strlen(value);
    if (len > 0) {
        kro_buf_create(&buf, (t_kro_uint4)len, 0); /* the value is [pos, lim) = [0, len) */
        memcpy(buf->ptr, value, len);
    }
    error = qel_hspace_object_create(key, buf, &object);
    if (error == 0) {
        error = qel_hspace_put(hspace, object, semantic, 0);
        qel_hspace_object_destroy(&object); /* the key and the buffer stay ours */
    }
    if (buf != NULL) kro_buf_release(&buf);
    return error;
}

/* A synchronous get as one step: prints the result, then every object
 * (freeing it), and checks the number of objects. */
static void get_step(t_qel_hspace hspace, const char *key, int expected)
{
    t_kro_llist objects = NULL;
    t_kro_error error;
    t_kro_ptr node;
    char line[LINE_SIZE];
    int count;
    kro_llist_create(&objects);
    error = qel_hspace_get(hspace, key, NULL, HSPACE_GET_SYNC, 0, 0, objects);
    snprintf(line, sizeof line, "get %s", key);
    step(line, error, 0);
    count = objects->num_elements;
    while ((node = kro_llist_first(objects)) != NULL) {
        t_qel_hspace_object object = (t_qel_hspace_object)node;
        kro_llist_remove(object); /* off the list, then freed: the objects are ours */
        describe(object, line, sizeof line);
        printf("   object: %s\n", line);
        qel_hspace_object_destroy(&object);
    }
    kro_llist_destroy(&objects);
    printf("   %d object%s\n", count, count == 1 ? "" : "s");
    if (count != expected) {
        printf("   (expected %d)\n", expected);
        failures++;
    }
}

int main(int argc, char **argv)
{
    qel_hspace_create_data create_data = {NULL, "quickstart", "examples"};
    t_qel_hspace hspace = NULL;
    t_kro_error error;

    if (argc != 2) {
        fprintf(stderr, "usage: %s URL   (e.g. tcp://127.0.0.1:7521)\n", argv[0]);
        return 2;
    }
    create_data.service_url = argv[1];

    printf("== connect to %s\n", argv[1]);
    step("initialize", qel_hspace_initialize(QEL_HSPACE_VERSION, 1), 0);
    error = qel_hspace_create(&create_data, on_event, &hspace);
    step("create", error, 0);
    if (error != 0) return 1;
    error = qel_hspace_open(hspace);
    step("open", error, 0);
    if (error != 0) {
        qel_hspace_destroy(&hspace);
        qel_hspace_finalize();
        return 1;
    }

    printf("\n== put\n");
    step("put greeting = \"hello\" (sync)", put(hspace, "greeting", "hello", HSPACE_PUT_SYNC), 0);
    step("put greeting = \"hello again\" (no reply)", put(hspace, "greeting", "hello again", HSPACE_PUT_NOREPLY),
         0);
    step("put fruit/apple = \"red\"", put(hspace, "fruit/apple", "red", HSPACE_PUT_SYNC), 0);
    step("put fruit/banana = \"yellow\"", put(hspace, "fruit/banana", "yellow", HSPACE_PUT_SYNC), 0);
    step("put fruit/cherry = \"dark red\"", put(hspace, "fruit/cherry", "dark red", HSPACE_PUT_SYNC), 0);

    printf("\n== get one key\n");
    get_step(hspace, "greeting", 1);
    get_step(hspace, "no/such/key", 0);

    printf("\n== get a pattern: every key starting with fruit/, in key order\n");
    get_step(hspace, "fruit/*", 3);

    printf("\n== get asynchronously: the objects arrive as events\n");
    step("get fruit/* (async)", qel_hspace_get(hspace, "fruit/*", NULL, HSPACE_GET_ASYNC, 0, 0, NULL), 0);
    show_events(3);

    printf("\n== post: subscribe to fruit/*\n");
    step("post fruit/*", qel_hspace_post(hspace, "fruit/*", NULL, HSPACE_POST_SYNC, 0, 0), 0);
    show_events(3); /* the initial image */
    step("post FRUIT/* again (same key, any case)", qel_hspace_post(hspace, "FRUIT/*", NULL, HSPACE_POST_SYNC, 0, 0),
         KRO_ERR_EXISTS);
    step("put fruit/durian = \"spiky\"", put(hspace, "fruit/durian", "spiky", HSPACE_PUT_SYNC), 0);
    show_events(1);
    step("put fruit/apple = \"green\"", put(hspace, "fruit/apple", "green", HSPACE_PUT_SYNC), 0);
    show_events(1);
    step("remove fruit/banana", qel_hspace_remove(hspace, "fruit/banana", HSPACE_REMOVE_SYNC, 0), 0);
    show_events(1);
    step("put greeting = \"not a fruit\"", put(hspace, "greeting", "not a fruit", HSPACE_PUT_SYNC), 0);

    printf("\n== cancel the subscription\n");
    step("cancel fruit/*", qel_hspace_cancel(hspace, "fruit/*", HSPACE_CANCEL_SYNC, 0), 0);
    step("cancel fruit/* again", qel_hspace_cancel(hspace, "fruit/*", HSPACE_CANCEL_SYNC, 0), KRO_ERR_NO_MATCH);

    printf("\n== remove\n");
    step("remove greeting", qel_hspace_remove(hspace, "greeting", HSPACE_REMOVE_SYNC, 0), 0);
    step("remove greeting again", qel_hspace_remove(hspace, "greeting", HSPACE_REMOVE_SYNC, 0), KRO_ERR_NO_MATCH);
    step("remove fruit/apple (no reply)", qel_hspace_remove(hspace, "fruit/apple", HSPACE_REMOVE_NOREPLY, 0), 0);
    step("remove fruit/cherry", qel_hspace_remove(hspace, "fruit/cherry", HSPACE_REMOVE_SYNC, 0), 0);
    step("remove fruit/durian", qel_hspace_remove(hspace, "fruit/durian", HSPACE_REMOVE_SYNC, 0), 0);
    get_step(hspace, "fruit/*", 0);

    printf("\n== close\n");
    step("close", qel_hspace_close(hspace), 0);
    step("destroy", qel_hspace_destroy(&hspace), 0);
    step("finalize", qel_hspace_finalize(), 0);
    if (events_count != events_shown) {
        printf("unexpected events: %d\n", events_count - events_shown);
        failures++;
    }

    printf("\n%s\n", failures == 0 ? "quickstart: every step gave the expected result"
                                   : "quickstart: some steps did not give the expected result");
    return failures == 0 ? 0 : 1;
}
