/* subscriber - prints what happens to a key, or to every key with a prefix.
 *
 *   subscriber URL KEY        (a KEY ending in a star is a prefix pattern)
 *
 * Subscribes with qel_hspace_post and prints the initial image, then every
 * change notification, one line each, until SIGINT or SIGTERM (exit 0) or
 * until the connection fails (exit 1).
 *
 * Threads: events are printed by the callback on the handle's reader
 * thread. The main thread blocks SIGINT, SIGTERM and SIGUSR1 before the
 * handle starts its thread (threads inherit the mask) and waits for them
 * with sigwait; the callback sends SIGUSR1 to the process when the link
 * fails.
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include <qel_hspace.h>

static int link_failed; /* set by the reader thread; read by main after close joined it */

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
        print_object(e->trigger == 1 ? "stored" : e->trigger == 2 ? "removed" : "changed", e->object);
        qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_LINK_FAIL: {
        t_qel_hspace_fail_event_data_struct *e = event_data;
        const t_kro_char *text = "?";
        qel_hspace_error_get_text(e->error, &text);
        printf("connection lost: %s\n", text);
        fflush(stdout);
        link_failed = 1;
        kill(getpid(), SIGUSR1); /* to the process: the main thread's sigwait takes it */
        break;
    }
    case HSPACE_EVENT_GET_REPLY: /* no gets here */
        break;
    }
}

int main(int argc, char **argv)
{
    qel_hspace_create_data create_data = {NULL, "subscriber", "examples"};
    t_qel_hspace hspace = NULL;
    t_kro_error error;
    const t_kro_char *text = "?";
    sigset_t signals;
    int signo = 0;

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
        sigwait(&signals, &signo);
    }

    if (hspace != NULL) {
        qel_hspace_close(hspace); /* ends the subscription with the connection */
        qel_hspace_destroy(&hspace);
    }
    qel_hspace_finalize();
    return error != 0 || link_failed ? 1 : 0;
}
