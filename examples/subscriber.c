/* subscriber - prints what happens to a key, or to every key with a prefix.
 *
 *   subscriber URL KEY        (a KEY ending in a star is a prefix pattern)
 *
 * Subscribes with qel_hspace_post and prints the initial image, then every
 * change notification, one line each, until SIGINT or SIGTERM (exit 0) or
 * until the connection fails (exit 1). When the service ends the
 * subscription (a notification of HSPACE_TRIGGER_ENDED, whose value says
 * why), it cancels the key and posts it again, which prints a new image.
 *
 * Threads: events are printed by the callback on the handle's reader
 * thread. The main thread blocks SIGINT, SIGTERM and SIGUSR1 before the
 * handle starts its thread (threads inherit the mask) and waits for them
 * with sigwait; the callback sends SIGUSR1 to the process when the link
 * fails or the subscription ends, since only the main thread may call the
 * blocking cancel and post.
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <qel_hspace.h>

enum { RUNNING, ENDED, LINK_FAILED };
static pthread_mutex_t break_mutex = PTHREAD_MUTEX_INITIALIZER;
static int pending = RUNNING; /* under break_mutex: what the reader thread saw */

/* Reader thread: tells the main thread what happened. */
static void report(int what)
{
    pthread_mutex_lock(&break_mutex);
    if (pending != LINK_FAILED) pending = what;
    pthread_mutex_unlock(&break_mutex);
    kill(getpid(), SIGUSR1); /* to the process: the main thread's sigwait takes it */
}

static void print_object(const char *what, t_qel_hspace_object object)
{
    t_kro_str key = NULL;
    t_kro_ptr data = NULL;
    t_kro_buf buf;
    qel_hspace_object_get_key(object, &key);
    qel_hspace_object_get_data(object, &data);
    buf = (t_kro_buf)data;
    if (buf == NULL)
        printf("%s %s\n", what, key);
    else
        printf("%s %s = %.*s\n", what, key, (int)(buf->lim - buf->pos), (const char *)buf->ptr + buf->pos);
    fflush(stdout);
}

/* Reader thread, no library lock held. Objects are ours: freed here. */
static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    switch (event) {
    case HSPACE_EVENT_POST_IMAGE: {
        t_qel_hspace_reply_image_event_data_struct *e = event_data;
        if (e->object != NULL) {
            print_object("image", e->object);
            qel_hspace_object_destroy(&e->object);
        } else if (e->status == 0) {
            printf("image: nothing stored under %s\n", e->key);
            fflush(stdout);
        } else {
            const t_kro_char *text = "?";
            qel_hspace_error_get_text(e->status, &text);
            printf("image failed: %s\n", text);
            fflush(stdout);
        }
        break;
    }
    case HSPACE_EVENT_POST_NOTIFICATION: {
        t_qel_hspace_post_notification_event_data_struct *e = event_data;
        if (e->trigger == HSPACE_TRIGGER_ENDED) {
            print_object("ended", e->object); /* the value is the cause */
            report(ENDED);
        } else {
            print_object(e->trigger == HSPACE_TRIGGER_STORED    ? "stored"
                         : e->trigger == HSPACE_TRIGGER_REMOVED ? "removed"
                                                                : "changed",
                         e->object);
        }
        qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_LINK_FAIL: {
        t_qel_hspace_fail_event_data_struct *e = event_data;
        const t_kro_char *text = "?";
        qel_hspace_error_get_text(e->error, &text);
        printf("connection lost: %s\n", text);
        fflush(stdout);
        report(LINK_FAILED);
        break;
    }
    case HSPACE_EVENT_GET_REPLY: /* no gets here */
        break;
    }
}

/* Main thread: the subscription of key was ended by the service. The
 * handle still holds it until the cancel (the service answers 2); then it
 * is posted again, once a second while the service's store is away. */
static t_kro_error subscribe_again(t_qel_hspace hspace, const char *key)
{
    struct timespec second = {1, 0};
    t_kro_error error;
    qel_hspace_cancel(hspace, key, HSPACE_CANCEL_SYNC, 0);
    while ((error = qel_hspace_post(hspace, key, NULL, HSPACE_POST_SYNC, 0, 0)) == HSPACE_STATUS_STORE_UNAVAILABLE ||
           error == HSPACE_STATUS_STORE_TIMEOUT)
        nanosleep(&second, NULL);
    return error;
}

int main(int argc, char **argv)
{
    qel_hspace_create_data create_data = {NULL, "subscriber", "examples"};
    t_qel_hspace hspace = NULL;
    t_kro_error error;
    const t_kro_char *text = "?";
    sigset_t signals;
    int signo = 0, what = RUNNING;

    if (argc != 3) {
        fprintf(stderr, "usage: %s URL KEY\n", argv[0]);
        return 2;
    }
    create_data.service_url = argv[1];

    /* Before any thread exists: every thread inherits the blocked mask, so
     * the signals stay pending for sigwait below. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    error = qel_hspace_create(&create_data, on_event, &hspace);
    if (error == 0) error = qel_hspace_open(hspace);
    if (error == 0) error = qel_hspace_post(hspace, argv[2], NULL, HSPACE_POST_SYNC, 0, 0);
    if (error != 0) {
        qel_hspace_error_get_text(error, &text);
        fprintf(stderr, "subscriber: %s\n", text);
    } else {
        fprintf(stderr, "subscriber: watching %s on %s; interrupt to stop\n", argv[2], argv[1]);
        while (error == 0 && sigwait(&signals, &signo) == 0 && signo == SIGUSR1) {
            pthread_mutex_lock(&break_mutex);
            what = pending;
            if (what == ENDED) pending = RUNNING;
            pthread_mutex_unlock(&break_mutex);
            if (what == LINK_FAILED) break;
            if (what == ENDED && (error = subscribe_again(hspace, argv[2])) != 0) {
                qel_hspace_error_get_text(error, &text);
                fprintf(stderr, "subscriber: subscribing again: %s\n", text);
            }
        }
    }

    if (hspace != NULL) {
        qel_hspace_close(hspace); /* ends the subscription with the connection */
        qel_hspace_destroy(&hspace);
    }
    qel_hspace_finalize();
    return error != 0 || what == LINK_FAILED ? 1 : 0;
}
