/*
 * qel_hspace.h - client library of the hspace keyed object store.
 *
 * One handle is one TCP connection to one service. Initialize the library
 * once, create a handle from a service URL ("tcp://host:port", or
 * "tls://host:port" for TLS) and a client identity, open it, then put, get,
 * post (subscribe), cancel and remove from
 * any number of threads. Asynchronous results arrive at the handle's event
 * callback, which runs on the handle's own reader thread.
 *
 * Every function returns a t_kro_error: 0 is success, the KRO_ERR_ codes of
 * kro.h are the library's and the runtime's, any other value is a status
 * the service sent. qel_hspace_error_get_text names every code.
 *
 * Compiles as C99 and as C++.
 */
#ifndef QEL_HSPACE_H
#define QEL_HSPACE_H

#include "kro.h"
#include "kro_buf.h"
#include "kro_llist.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QEL_HSPACE_VERSION 1 /* the version qel_hspace_initialize accepts */

/* The connection handle; opaque. */
typedef struct qel_hspace_struct *t_qel_hspace;

/* A keyed object: a key and a value buffer, linkable into a t_kro_llist. */
typedef struct qel_hspace_object_struct *t_qel_hspace_object;

/* What qel_hspace_create needs; owned by the application, copied by create. */
typedef struct qel_hspace_create_data {
    t_kro_str service_url;  /* "tcp://host:port" or "tls://host:port"; required */
    t_kro_str client_name;  /* sent in the handshake; null means "anonymous" */
    t_kro_str client_group; /* sent in the handshake; null means "default" */
} qel_hspace_create_data;
typedef qel_hspace_create_data *t_qel_hspace_create_data;

typedef enum qel_hspace_state {
    HSPACE_STATE_INIT = 0,    /* created, never opened, or an open failed */
    HSPACE_STATE_OPEN = 1,    /* connected; requests allowed */
    HSPACE_STATE_FAILED = 2,  /* the connection broke; close and destroy it */
    HSPACE_STATE_CLOSING = 3, /* close is under way */
    HSPACE_STATE_CLOSED = 4   /* final; only destroy is useful */
} t_qel_hspace_state;

typedef enum qel_hspace_put_semantic {
    HSPACE_PUT_SYNC = 0,      /* block until the service's reply, return its status */
    HSPACE_PUT_PIPELINED = 1, /* not supported: KRO_ERR_NOT_SUPPORTED */
    HSPACE_PUT_NOREPLY = 2    /* send and return; no reply */
} t_qel_hspace_put_semantic;

typedef enum qel_hspace_get_semantic {
    HSPACE_GET_SYNC = 10, /* block; objects are appended to the caller's list */
    HSPACE_GET_ASYNC = 11 /* return after sending; objects arrive as events */
} t_qel_hspace_get_semantic;

typedef enum qel_hspace_post_semantic {
    HSPACE_POST_SYNC = 20 /* block until the service accepted the subscription */
} t_qel_hspace_post_semantic;

typedef enum qel_hspace_cancel_semantic {
    HSPACE_CANCEL_SYNC = 30 /* block until the service's reply */
} t_qel_hspace_cancel_semantic;

typedef enum qel_hspace_remove_semantic {
    HSPACE_REMOVE_SYNC = 40,   /* block until the service's reply, return its status */
    HSPACE_REMOVE_NOREPLY = 41 /* send and return; no reply */
} t_qel_hspace_remove_semantic;

#define HSPACE_GET_FLAG_1 0x1          /* passed to the service unchanged */
#define HSPACE_GET_FLAG_KEY_ONLY 0x4   /* objects without their values */
#define HSPACE_POST_FLAG_NO_IMAGE 0x2  /* no initial image */
#define HSPACE_POST_FLAG_KEY_ONLY 0x4  /* image and notifications without values */
/* With HSPACE_POST_FLAG_NO_IMAGE: when the service's success reply to the
 * post arrives, the reader thread raises one HSPACE_EVENT_POST_IMAGE event
 * (status 0, cardinality 0, no object), in stream order, so every
 * notification raised after it follows the subscription's start. Library
 * only: never sent; ignored without HSPACE_POST_FLAG_NO_IMAGE. */
#define HSPACE_POST_FLAG_START_EVENT 0x100

/* Statuses the service answers with besides the library's own codes
 * (2 no match, 12 invalid argument, 14 not supported, 20 exists); each has
 * a text in qel_hspace_error_get_text. */
#define HSPACE_STATUS_STORE_UNAVAILABLE 1101u   /* the service cannot reach its store; retry later */
#define HSPACE_STATUS_STORE_TIMEOUT 1102u       /* the service's store did not answer in time */
#define HSPACE_STATUS_STORE_TOO_LARGE 1103u     /* the value is larger than the service's store accepts */
#define HSPACE_STATUS_PERMISSION_DENIED 1104u   /* the client's groups may not do this to this key */
#define HSPACE_STATUS_IDENTITY_REFUSED 1105u    /* the handshake claims a name or group the client's certificate does not hold */
#define HSPACE_STATUS_TOO_MANY_SUBSCRIPTIONS 1106u /* the connection holds as many subscriptions as the service allows */
#define HSPACE_STATUS_CONNECTION_LIMIT 1107u    /* the service serves as many connections as it allows */

/* The trigger of a change notification (the mask of qel_hspace_post
 * selects stored and removed by these bits; 0 selects both). */
#define HSPACE_TRIGGER_STORED 1  /* a put stored the key */
#define HSPACE_TRIGGER_REMOVED 2 /* a remove deleted the key */
#define HSPACE_TRIGGER_ENDED 4   /* the service ended the subscription of the notification's key; its
                                    value, when there is one, says why */

typedef enum qel_hspace_event {
    HSPACE_EVENT_LINK_FAIL = 1,        /* t_qel_hspace_fail_event_data_struct */
    HSPACE_EVENT_GET_REPLY = 2,        /* t_qel_hspace_reply_image_event_data_struct */
    HSPACE_EVENT_POST_IMAGE = 3,       /* t_qel_hspace_reply_image_event_data_struct */
    HSPACE_EVENT_POST_NOTIFICATION = 4 /* t_qel_hspace_post_notification_event_data_struct */
} t_qel_hspace_event;

/* The event callback. Runs on the handle's reader thread with no library
 * lock held, one event at a time in packet arrival order. event_data points
 * to the record of the event and lives only for the call; objects in it
 * pass to the application (free them with qel_hspace_object_destroy). It may
 * call close and destroy on its own handle; put, get, post, cancel and
 * remove on its own handle return KRO_ERR_WOULD_DEADLOCK. */
typedef void (*t_qel_hspace_event_handler_func)(t_qel_hspace hspace, t_qel_hspace_event event,
                                                t_kro_ptr event_data);

typedef struct qel_hspace_fail_event_data_struct {
    t_kro_error error; /* why reading from the connection failed */
} t_qel_hspace_fail_event_data_struct;

typedef struct qel_hspace_reply_image_event_data_struct {
    t_kro_ptr urid;            /* the application's id given to get or post */
    t_kro_str key;             /* the request's key; valid only during the callback */
    t_kro_error status;        /* 0 for an object or an empty answer, else the error */
    t_kro_uint4 cardinality;   /* objects in the answer; 0 when empty or failed */
    t_kro_uint4 index;         /* this object's number, 1..cardinality; 0 without object */
    t_qel_hspace_object object; /* the object (now the application's), or null */
} t_qel_hspace_reply_image_event_data_struct;

typedef struct qel_hspace_post_notification_event_data_struct {
    t_kro_int4 trigger;         /* the trigger the service reported */
    t_qel_hspace_object object; /* the changed object (now the application's) */
} t_qel_hspace_post_notification_event_data_struct;

/* ---- library ---- */

/* Starts the library; version must be QEL_HSPACE_VERSION (else
 * KRO_ERR_VERSION). threaded is accepted and not used. Call once from one
 * thread before anything else. */
KRO_API t_kro_error qel_hspace_initialize(t_kro_uint version, t_kro_bool threaded);

/* Stops the library; always 0. Call after every handle is destroyed. */
KRO_API t_kro_error qel_hspace_finalize(void);

/* Static text naming code: every library and runtime code has its own; any
 * other value is a service status. Works before initialize. 12 when text is
 * null. */
KRO_API t_kro_error qel_hspace_error_get_text(t_kro_error error, const t_kro_char **text);

/* ---- handle ---- */

/* Creates a handle in HSPACE_STATE_INIT into *hspace. create_data and its
 * strings may be reused as soon as create returns. Errors: 7; 12 for null
 * create_data, service_url, event_handler or hspace, or a client name or
 * group longer than 32767 bytes; 21 for a scheme other than tcp or tls; 22
 * for a malformed URL. */
KRO_API t_kro_error qel_hspace_create(t_qel_hspace_create_data create_data,
                                      t_qel_hspace_event_handler_func event_handler,
                                      t_qel_hspace *hspace);

/* Bound of open: connecting and the handshake together, in milliseconds. */
#define QEL_HSPACE_OPEN_TIMEOUT_MS 5000

/* Connects (with TLS for a tls:// handle), handshakes and starts the
 * reader thread, giving up after QEL_HSPACE_OPEN_TIMEOUT_MS (name
 * resolution aside) with KRO_ERR_TIMEOUT (KRO_ERR_TLS_TIMEOUT when the TLS
 * handshake was under way). On failure the handle stays in
 * HSPACE_STATE_INIT, open may be called again, and
 * qel_hspace_error_get_detail says why. Errors: 7, 12, 13 unless
 * HSPACE_STATE_INIT, the runtime's connect or read error, KRO_ERR_TIMEOUT,
 * KRO_ERR_INVALID_PACKET for an answer that is no handshake reply, and
 * KRO_ERR_TLS_HANDSHAKE, _VERIFY, _CLIENT_CERT, _CONFIG, _TIMEOUT. */
KRO_API t_kro_error qel_hspace_open(t_qel_hspace hspace);

/* qel_hspace_open with a bound of timeout_ms milliseconds instead of
 * QEL_HSPACE_OPEN_TIMEOUT_MS; 0 waits without bound. */
KRO_API t_kro_error qel_hspace_open_timed(t_qel_hspace hspace, t_kro_uint4 timeout_ms);

/* TLS options of a tls:// handle. Set version to
 * QEL_HSPACE_TLS_OPTIONS_VERSION; a null member takes its default. Files
 * are PEM. Later versions only add members at the end. */
#define QEL_HSPACE_TLS_OPTIONS_VERSION 1
typedef struct qel_hspace_tls_options {
    t_kro_uint4 version;   /* QEL_HSPACE_TLS_OPTIONS_VERSION */
    t_kro_str ca_file;     /* CA certificates the service's certificate must chain to; null: the system's store */
    t_kro_str cert_file;   /* client certificate (and chain), sent when the service asks for one; null: none */
    t_kro_str key_file;    /* private key of cert_file (not encrypted); null: read from cert_file */
    t_kro_str server_name; /* name the service's certificate must hold; null: the URL's host */
} qel_hspace_tls_options;

/* Sets the TLS options of a tls:// handle before open (without this call
 * open uses the defaults: the system's CA store, no client certificate).
 * The service's certificate is always verified, and its name against the
 * host; TLS 1.2 and newer only. The files are read here: a file that
 * cannot be read or used is KRO_ERR_TLS_CONFIG, with the reason in
 * qel_hspace_error_get_detail. options may be null (the defaults) and are
 * copied. Errors: 7; 12 for a null handle or a handle whose URL is not
 * tls://; 9 for an options version this library does not know; 13 unless
 * HSPACE_STATE_INIT; KRO_ERR_TLS_CONFIG. Same threading rules as open. */
KRO_API t_kro_error qel_hspace_set_tls(t_qel_hspace hspace, const qel_hspace_tls_options *options);

/* The reason of the handle's last failed open or qel_hspace_set_tls, in
 * the system's or the TLS library's words, e.g. "certificate verify failed:
 * certificate has expired", "TLS handshake timed out", "the service asked
 * for a client certificate and none is configured"; "" when the last one
 * succeeded. *text is the handle's and stays valid until its next open,
 * set_tls or destroy. Errors: 7, 12. */
KRO_API t_kro_error qel_hspace_error_get_detail(t_qel_hspace hspace, const t_kro_char **text);

/* Stores the handle's current state (read without a lock). */
KRO_API t_kro_error qel_hspace_get_state(t_qel_hspace hspace, t_qel_hspace_state *state);

/* Stores in *name the service's name from the handshake reply: a string
 * owned by the handle, valid until destroy; null until an open succeeded.
 * Errors: 7, 12. */
KRO_API t_kro_error qel_hspace_get_service_name(t_qel_hspace hspace, t_kro_str *name);

/* Ends the connection from any state. From an application thread it first
 * shuts the socket, so that a write blocked on a service that does not read
 * fails at once (that operation returns KRO_ERR_CLOSED), then returns when
 * every outstanding request has completed with KRO_ERR_CLOSED and the
 * reader thread has ended; from the event callback it returns at once and
 * the reader thread finishes the close. Errors: 7, 12. */
KRO_API t_kro_error qel_hspace_close(t_qel_hspace hspace);

/* Releases a handle in HSPACE_STATE_INIT or HSPACE_STATE_CLOSED and clears
 * *hspace; from the event callback (also while closing) it is deferred to
 * the end of the reader thread and *hspace is left as it is, except while
 * an application thread is inside qel_hspace_close of the handle: then it
 * is 13 and changes nothing (that thread destroys it after close returns).
 * Errors: 7, 12, 13 in any other state. REQUIRES: every other thread's call on the handle
 * has returned, including a synchronous call that close has just woken with
 * KRO_ERR_CLOSED; destroy frees the lock such a call still holds. */
KRO_API t_kro_error qel_hspace_destroy(t_qel_hspace *hspace);

/* ---- objects ---- */

/* Makes an object that borrows key and data (a t_kro_buf, or null for no
 * value): neither is copied, both must outlive the object. */
KRO_API t_kro_error qel_hspace_object_create(t_kro_str key, t_kro_ptr data,
                                             t_qel_hspace_object *object);
/* The object's key pointer (no copy). */
KRO_API t_kro_error qel_hspace_object_get_key(t_qel_hspace_object object, t_kro_str *key);
/* The object's value buffer (a t_kro_buf, possibly null); the value is the
 * bytes from ptr + pos to ptr + lim. */
KRO_API t_kro_error qel_hspace_object_get_data(t_qel_hspace_object object, t_kro_ptr *data);
/* Frees the object and clears *object. A library-made object frees its key
 * and value too; an application-made one leaves them alone. Unlink it from
 * any list first. */
KRO_API t_kro_error qel_hspace_object_destroy(t_qel_hspace_object *object);

/* ---- data operations ----
 * All check, in this order and before taking any lock: 7; 12 (null handle
 * or key, unknown semantic, key longer than 65535 bytes); 14; 13 unless
 * HSPACE_STATE_OPEN; 23 on the handle's reader thread. A synchronous call
 * returns the service's status, KRO_ERR_CLOSED when the handle is closed
 * meanwhile, or the link's error when the connection fails. */

/* Stores object under its key. flags is unused. */
KRO_API t_kro_error qel_hspace_put(t_qel_hspace hspace, t_qel_hspace_object object,
                                   t_qel_hspace_put_semantic semantic, t_kro_int4 flags);

/* Fetches what is stored under key. HSPACE_GET_SYNC appends the objects to
 * objects (required, writable) and turns KRO_ERR_NO_MATCH into 0;
 * HSPACE_GET_ASYNC raises HSPACE_EVENT_GET_REPLY events carrying urid.
 * timeout must be 0 (else 14). flags: HSPACE_GET_FLAG_1, _KEY_ONLY. */
KRO_API t_kro_error qel_hspace_get(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                   t_qel_hspace_get_semantic semantic, t_kro_int4 timeout,
                                   t_kro_int4 flags, t_kro_llist objects);

/* Subscribes to key: HSPACE_EVENT_POST_IMAGE events for the initial image,
 * then HSPACE_EVENT_POST_NOTIFICATION per change. KRO_ERR_EXISTS while a
 * post of the same key (any letter case) is active. triggers selects the
 * changes; flags: HSPACE_POST_FLAG_NO_IMAGE, _KEY_ONLY. */
KRO_API t_kro_error qel_hspace_post(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                    t_qel_hspace_post_semantic semantic, t_kro_byte triggers,
                                    t_kro_int4 flags);

/* Ends the subscription of key (any letter case), whatever the service
 * answers. flags is unused. */
KRO_API t_kro_error qel_hspace_cancel(t_qel_hspace hspace, t_kro_str key,
                                      t_qel_hspace_cancel_semantic semantic, t_kro_int4 flags);

/* Deletes what is stored under key. flags is unused. */
KRO_API t_kro_error qel_hspace_remove(t_qel_hspace hspace, t_kro_str key,
                                      t_qel_hspace_remove_semantic semantic, t_kro_int4 flags);

/* ---- timed data operations ----
 * The calls above with a deadline timeout_ms milliseconds from the call
 * (0: none, exactly the untimed call). It covers waiting for the turn to
 * send (requests go out one at a time, in call order), the write, and for a
 * synchronous call the wait for the answer; when it passes the call returns
 * KRO_ERR_TIMEOUT:
 * - before the write started: the request is withdrawn, nothing was sent;
 * - during the write, part of the packet sent: the stream is unusable, so
 *   the handle fails as on a broken link (HSPACE_STATE_FAILED by the time
 *   the call returns; every other outstanding request completes with
 *   KRO_ERR_TIMEOUT, then HSPACE_EVENT_LINK_FAIL with KRO_ERR_TIMEOUT);
 * - waiting for the answer: the request leaves the request table, so a late
 *   answer reaches no one and what it carries is freed. Objects a
 *   synchronous get received before the deadline stay in its list; none is
 *   added after the call returned. A timed-out post may still be registered
 *   by the service (its notifications then arrive; cancel the key to be
 *   sure); a timed-out cancel ends the local subscription as its answer
 *   would have.
 * An asynchronous get, a no-reply put or remove is bounded up to the end of
 * its write; the answers of an asynchronous get come as events whenever
 * they come. Argument and state checks are those of the untimed calls. */
KRO_API t_kro_error qel_hspace_put_timed(t_qel_hspace hspace, t_qel_hspace_object object,
                                         t_qel_hspace_put_semantic semantic, t_kro_int4 flags,
                                         t_kro_uint4 timeout_ms);
KRO_API t_kro_error qel_hspace_get_timed(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                         t_qel_hspace_get_semantic semantic, t_kro_int4 flags,
                                         t_kro_llist objects, t_kro_uint4 timeout_ms);
KRO_API t_kro_error qel_hspace_post_timed(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                          t_qel_hspace_post_semantic semantic, t_kro_byte triggers,
                                          t_kro_int4 flags, t_kro_uint4 timeout_ms);
KRO_API t_kro_error qel_hspace_cancel_timed(t_qel_hspace hspace, t_kro_str key,
                                            t_qel_hspace_cancel_semantic semantic, t_kro_int4 flags,
                                            t_kro_uint4 timeout_ms);
KRO_API t_kro_error qel_hspace_remove_timed(t_qel_hspace hspace, t_kro_str key,
                                            t_qel_hspace_remove_semantic semantic, t_kro_int4 flags,
                                            t_kro_uint4 timeout_ms);

#ifdef __cplusplus
}
#endif

#endif /* QEL_HSPACE_H */
