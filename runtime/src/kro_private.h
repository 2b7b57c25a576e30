/*
 * kro_private.h - declarations shared by the runtime's own source files.
 * Never included outside runtime/src.
 */
#ifndef KRO_PRIVATE_H
#define KRO_PRIVATE_H

#include <pthread.h>

#include "kro.h"

/* Records err (an errno value) as the calling thread's last
 * operating-system error. */
void kro_em_os_error_set(int err);

/* Records err (an errno value, or a resolver code) as the calling thread's
 * last network error. */
void kro_em_net_error_set(int err);

/* A mutex; the condition variables wait on the pthread mutex inside. */
struct kro_mutex {
    pthread_mutex_t mutex; /* the system mutex, plain (non-recursive) */
};

/* ---- between the sockets (kro_socket.cpp) and TLS (kro_tls.cpp) ---- */
#include <string>

#include "kro_socket.h"

struct kro_tls_conn; /* one TLS connection over a socket's descriptor */

/* kro_socket.cpp: milliseconds left before the socket's deadline for poll
 * (-1 without one, 0 once passed); whether it was interrupted; records the
 * reason of a failure for kro_socket_error_detail. Any thread. */
int kro_socket_remaining_ms(t_kro_socket socket);
bool kro_socket_is_interrupted(t_kro_socket socket);
void kro_socket_detail_set(t_kro_socket socket, const std::string &text);

/* kro_tls.cpp: another reference to tls, and dropping one. */
t_kro_tls kro_tls_ref(t_kro_tls tls);
void kro_tls_release(t_kro_tls tls);

/* Runs the client handshake over fd (connected, blocking) within the
 * socket's deadline, checking the peer's certificate for name; *conn is
 * the connection, null on failure (the reason recorded on the socket). */
t_kro_error kro_tls_conn_open(t_kro_socket socket, t_kro_tls tls, const char *name, int fd, kro_tls_conn **conn);
/* kro_socket_read, and kro_socket_write_gather (and _single) over TLS,
 * the write bounded by the monotonic deadline in nanoseconds (0: none):
 * one reader, one writer at a time, any thread interrupting (see
 * kro_tls.cpp). */
t_kro_error kro_tls_conn_read(t_kro_socket socket, kro_tls_conn *conn, t_kro_byte *p, t_kro_uint4 n,
                              t_kro_uint4 *got);
t_kro_error kro_tls_conn_write(t_kro_socket socket, kro_tls_conn *conn, const t_kro_socket_chunk *chunks,
                               t_kro_uint4 count, uint64_t deadline, t_kro_uint4 *sent);
/* Queues a close_notify and sends it unless a writer is sending; best
 * effort, never waits for the network. */
void kro_tls_conn_close_notify(kro_tls_conn *conn);
/* Frees the connection (not the descriptor) and clears *conn; no other
 * thread may use it any more. */
void kro_tls_conn_free(kro_tls_conn **conn);

#endif /* KRO_PRIVATE_H */
