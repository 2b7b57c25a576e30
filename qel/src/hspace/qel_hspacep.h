/*
 * qel_hspacep.h - private structures of the hspace client library: the
 * received packet, the request record with its wait context, the object and
 * the connection handle. Only qel_hspace.cpp (and white-box tests that
 * include it) see these.
 */
#ifndef QEL_HSPACEP_H
#define QEL_HSPACEP_H

#include <atomic>

#include "kro.h"
#include "kro_buf.h"
#include "kro_llist.h"
#include "kro_mutex.h"
#include "kro_socket.h"
#include "kro_thread.h"
#include "kro_wake.h"
#include "qel_hspace.h"

/* Wire constants. */
#define HSPACE_PKT_MAGIC 0xBADCADu      /* first three header bytes */
#define HSPACE_PKT_VERSION 0x01u        /* fourth header byte */
#define HSPACE_PKT_HEADER_LEN 32u       /* bytes of the packet header */
#define HSPACE_PKT_PREAMBLE_LEN 8u      /* bytes of a section preamble */
#define HSPACE_PKT_RR_LEN 24u           /* bytes of an rr subheader section */
#define HSPACE_PKT_HSPACE_FIXED_LEN 22u /* bytes of an hspace subheader before its key */
#define HSPACE_PKT_MAX_LEN (1u << 30)   /* largest packet accepted from the peer: 1 GiB */
#define HSPACE_PKT_READBUF_SIZE 8192u   /* initial size of a handle's read buffer */
#define HSPACE_PKT_READBUF_KEEP (128u << 10) /* an empty read buffer larger than this shrinks back */
#define HSPACE_PKT_DIRECT_MIN (64u << 10) /* object payloads at least this long are read into their own buffer */
#define HSPACE_KEY_MAX_LEN 65535u       /* longest key the 16-bit length field carries */
#define HSPACE_HANDSHAKE_STR_MAX_LEN 32767u /* longest handshake string (signed 16-bit length) */
#define HSPACE_CORRID_MAX 0x40000000u   /* correlation ids run 1..this, then wrap to 1 */
#define HSPACE_SUBHEADER_SLOTS 5        /* subheader types 0..4 are kept */

/* Section and body types. */
#define HSPACE_BODY_RR 1
#define HSPACE_BODY_HSPACE 4
#define HSPACE_BODY_OBJECT 257
#define HSPACE_BODY_REQUEST 259
#define HSPACE_BODY_REPLY 260
#define HSPACE_BODY_HANDSHAKE_REQUEST 321
#define HSPACE_BODY_HANDSHAKE_REPLY 322

/* Opcodes, on the wire and in request records. */
#define HSPACE_OPCODE_PUT 1
#define HSPACE_OPCODE_GET 2
#define HSPACE_OPCODE_POST 4
#define HSPACE_OPCODE_CANCEL 5
#define HSPACE_OPCODE_REMOVE 6
#define HSPACE_OPCODE_NOTIFICATION 7

/* Wire values of the semantic byte. */
#define HSPACE_WIRE_SEMANTIC_SYNC 1
#define HSPACE_WIRE_SEMANTIC_ASYNC 3
#define HSPACE_WIRE_SEMANTIC_NOREPLY 4

/* One received packet: pointers into the handle's read buffer, valid until
 * the next read on the handle. The reader thread keeps it on its stack;
 * records made by qel_hspace_read_packet are freed with one kro_mm_free. */
struct qel_hspace_packet {
    t_kro_llist_node next;                        /* list links, unused */
    t_kro_llist_node prev;
    t_kro_llist head;
    t_kro_ptr header;                             /* first byte of the packet */
    t_kro_ptr subheaders[HSPACE_SUBHEADER_SLOTS]; /* slot i: subheader of type i, or null */
    t_kro_ptr body;                               /* the body section, at its preamble */
    t_kro_buf value; /* a large object's payload, read apart from the read buffer (the body section
                        then ends at its preamble there); null otherwise. The packet's until an
                        object takes it; the reader releases it otherwise */
};
typedef struct qel_hspace_packet *t_qel_hspace_packet;

/* Wait context of a synchronous request; guarded by the handle's mutex. */
struct qel_hspace_request_sync_ctx_struct {
    t_kro_bool complete;        /* set once the request is completed; never cleared */
    t_kro_error error;          /* completion status */
    t_kro_bool user_reply_list; /* replies is the caller's list, not ours to free */
    t_kro_llist replies;        /* objects answering a synchronous get */
};
typedef struct qel_hspace_request_sync_ctx_struct *t_qel_hspace_request_sync_ctx;

/* One outstanding request; every field is guarded by the handle's mutex. */
struct qel_hspace_request;

/* Bits of a call's wake-up. */
#define QEL_HSPACE_CALL_GRANTED 0x1u  /* the call's turn to write has come */
#define QEL_HSPACE_CALL_COMPLETE 0x2u /* the call's request was completed or ended */
#define QEL_HSPACE_CALL_WRITTEN 0x4u  /* the turn's holder wrote the call's packet (outcome in sent) */

/* One data operation in progress, on its calling thread's stack: its place
 * in the send queue and its own wake-up. Other threads set its wake bits
 * under the handle's mutex and notify it after releasing the mutex; the
 * call leaves no pointer to itself behind when it returns. */
struct qel_hspace_call {
    struct kro_wake wake;              /* QEL_HSPACE_CALL_ bits */
    struct qel_hspace_call *send_next; /* mutex: the next call in the send queue */
    uint64_t deadline;                 /* monotonic nanoseconds; 0: none */
    const t_kro_socket_chunk *chunks;  /* its packet, in the caller's frame and buffers */
    t_kro_uint4 count;                 /* chunks in it */
    t_kro_error sent;                  /* the outcome of its write; read by the call once WRITTEN is set */
    t_kro_bool queued;                 /* mutex: in the send queue */
    t_kro_bool taken;                  /* mutex: in a batch the turn's holder is writing */
    t_kro_bool quiet;                  /* mutex: synchronous; no wake-up when written, only when answered */
};

/* An intrusive hash index over the request table: buckets of singly linked
 * chains threaded through a link field of the records, each chain in
 * creation order. Starts on the inline buckets (no allocation while few
 * records are outstanding), doubles onto the heap when the records
 * outnumber the buckets, and returns to the inline buckets when the last
 * record leaves. Guarded by the handle's mutex. */
#define HSPACE_INDEX_INLINE_BUCKETS 16u
struct qel_hspace_request_index {
    struct qel_hspace_request **buckets; /* inline_buckets or a heap array; null until first used */
    t_kro_uint4 mask;                    /* number of buckets - 1; a power of two minus one */
    t_kro_uint4 count;                   /* records in the index */
    struct qel_hspace_request *inline_buckets[HSPACE_INDEX_INLINE_BUCKETS];
};

struct qel_hspace_request {
    t_kro_llist_node next;            /* list links: the handle's reqtable */
    t_kro_llist_node prev;
    t_kro_llist head;                 /* the reqtable, or null when unlinked */
    struct qel_hspace_struct *hspace; /* the owning handle */
    t_kro_byte opcode;                /* HSPACE_OPCODE_ of the request */
    t_kro_buf buf;                    /* the encoded packet; one reference held */
    t_kro_uint4 corrid;               /* correlation id in the rr subheader */
    t_kro_ptr urid;                   /* the application's request id, never dereferenced */
    t_kro_bool dup_key;               /* key is our own copy */
    t_kro_str key;                    /* the key the request is about */
    t_kro_bool initial_image_complete; /* post: no further image object expected */
    t_qel_hspace_request_sync_ctx sync_ctx; /* null exactly for an asynchronous get, else &sync */
    struct qel_hspace_request_sync_ctx_struct sync; /* the wait context sync_ctx points at */
    struct kro_llist own_replies;     /* the replies list when the caller gave none */
    struct qel_hspace_request *corrid_next; /* chain link in the handle's corrid index */
    struct qel_hspace_request *key_next;    /* chain link in the handle's key index (posts only) */
    t_kro_uint4 key_hash;             /* hash of the case-folded key (posts only) */
    uint64_t seq;                     /* creation order on the handle, never wraps */
    t_kro_bool caller_waiting;        /* synchronous: the calling thread is still writing it or has not read the status */
    t_kro_bool orphaned;              /* ended while caller_waiting: the caller frees it */
    t_kro_bool in_event;              /* the reader thread is in a callback about it */
    t_kro_bool abandoned;             /* given up by its caller during that callback: the reader frees it */
    t_kro_bool cancelled;             /* post overtaken by a cancel before its own reply */
    t_kro_bool start_event;           /* post: raise the start event at its success reply */
    struct qel_hspace_call *call;     /* the synchronous call waiting on it (while caller_waiting), else null */
    t_kro_bool on_stack;              /* lives in its calling thread's frame: never freed, only unlinked */
    /* Asynchronous get: its holders, the request table and the calling
     * thread until its write is done; the last one to let go frees it. */
    std::atomic<int> owners;
};
typedef struct qel_hspace_request *t_qel_hspace_request;

/* A keyed object. Application-made objects borrow key and buffer; library-
 * made objects own both, the key's bytes following the record in its block. */
struct qel_hspace_object_struct {
    t_kro_llist_node next;    /* list links (a synchronous get's result list) */
    t_kro_llist_node prev;
    t_kro_llist head;
    t_kro_bool user_created;  /* 1: made by qel_hspace_object_create */
    t_kro_str key;            /* the key */
    union {
        t_kro_buf buf;        /* the value is [pos, lim) of it; null for none */
    } data;
};

/* The connection handle. Fields marked KRO_GUARDED_BY (checked by clang)
 * or "mutex" are guarded by mutex; the others are set before the reader
 * thread starts, belong to one thread, or are atomic. */
struct qel_hspace_struct {
    t_kro_str service_url;     /* our copy of the creation URL */
    t_kro_str service_name;    /* from the handshake reply; null until open */
    t_kro_uint2 service_version; /* from the handshake reply */
    t_kro_uint2 service_ltp;   /* from the handshake reply; dport of every request */
    t_kro_str client_name;     /* our copy, "anonymous" by default */
    t_kro_str client_group;    /* our copy, "default" by default */
    t_qel_hspace_event_handler_func event_handler; /* set once by create */
    t_kro_socket socket;       /* the client socket */
    t_kro_buf readbuf;         /* received bytes; reader thread (or open) only */
    t_kro_uint4 sno KRO_GUARDED_BY(mutex); /* last correlation id drawn */
    uint64_t seq KRO_GUARDED_BY(mutex); /* creation sequence number of the last request */
    /* The send turn: 0 idle, 1 a write is under way, 2 one is and calls
     * wait in the send queue. 0 to 1 and 1 to 2 and 2 to 1 under mutex;
     * 1 to 0 by the writer, without it. */
    std::atomic<uint32_t> send_state;
    struct qel_hspace_call *send_head KRO_GUARDED_BY(mutex); /* calls waiting for the turn, oldest first */
    struct qel_hspace_call *send_tail KRO_GUARDED_BY(mutex);
    t_kro_wake wake_pending KRO_GUARDED_BY(mutex); /* a call to notify once mutex is released */
    std::atomic<t_kro_error> link_error; /* why the link failed; set before state becomes FAILED */
    t_kro_llist reqtable;      /* mutex: outstanding requests, oldest first */
    struct qel_hspace_request_index corrid_index; /* mutex: every record of reqtable by corrid */
    struct qel_hspace_request_index key_index;    /* mutex: the posts of reqtable by case-folded key */
    t_kro_thread reader;       /* the reader thread; null until open */
    t_kro_mutex mutex;         /* the handle's one lock */
    t_kro_mutex mutex_close;   /* created and destroyed, never locked */
    t_kro_bool destroy KRO_GUARDED_BY(mutex); /* release the handle as the reader thread's last act */
    std::atomic<t_kro_bool> closing; /* an application thread's close has cut the socket */
    std::atomic<int> closers;  /* application threads inside close */
    std::atomic<t_qel_hspace_state> state; /* written under mutex (or before the reader starts), read anywhere */
    /* TLS and failure texts: the thread calling create, set_tls and open. */
    t_kro_bool tls_url;        /* the URL's scheme is tls */
    t_kro_tls tls;             /* TLS configuration; null until set_tls (or open) makes it */
    t_kro_str tls_server_name; /* our copy of the options' server name; null: the URL's host */
    t_kro_char detail[256];    /* why the last open or set_tls failed; "" after a success */
};

/* A library-made object (user_created 0) holding copies of key_len bytes
 * of key and data_len bytes of data; freed with qel_hspace_object_destroy.
 * Internal to the library (the C++ API copies objects with it). */
t_qel_hspace_object qel_hspace_object_make(const char *key, t_kro_uint4 key_len, const void *data,
                                           t_kro_uint4 data_len);

#endif /* QEL_HSPACEP_H */
