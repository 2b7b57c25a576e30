/*
 * kro_socket.h - TCP client sockets of the kro runtime (BSD sockets).
 * Internal to the library: not installed, not exported.
 *
 * One socket may be read by one thread while other threads write to it
 * (writes are serialised by the caller) and another thread interrupts it.
 * A socket given a TLS configuration (kro_socket_set_tls) speaks TLS over
 * its connection with the same contract (kro_tls.cpp).
 */
#ifndef KRO_SOCKET_H
#define KRO_SOCKET_H

#include "kro.h"
#include "kro_buf.h"
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kro_socket *t_kro_socket;

typedef struct kro_socket_device_client_create_data_struct {
    t_kro_str local_ifaddr;   /* local address to bind; "0.0.0.0" (or null) binds nothing */
    t_kro_ushort local_port;  /* local port; 0 for any */
    t_kro_str remote_ifaddr;  /* host name or numeric address of the peer; "" means loopback */
    t_kro_ushort remote_port; /* port of the peer */
} t_kro_socket_device_client_create_data_struct;

struct kro_socket_client_create_data {
    t_kro_socket_device_client_create_data_struct device_create_data;
};
typedef struct kro_socket_client_create_data *t_kro_socket_client_create_data;

/* Creates an unconnected client socket into *socket. On success the socket
 * owns create_data (both strings and the record, all allocated with
 * kro_mm_alloc) and frees it in kro_socket_destroy at the latest; on
 * failure the caller still owns it. */
t_kro_error kro_socket_client_create(t_kro_socket_client_create_data create_data,
                                     t_kro_socket *socket);

/* Bounds connect, reads and writes on the socket: once timeout_ms
 * milliseconds from now have passed they fail with KRO_ERR_TIMEOUT (a read
 * or write that is under way when it passes fails then). 0 removes the
 * bound. Name resolution is not bounded. Call it from the thread that
 * connects, before other threads use the socket. */
t_kro_error kro_socket_set_deadline(t_kro_socket socket, t_kro_uint4 timeout_ms);

/* Resolves the remote address and connects, blocking; disables Nagle's
 * algorithm. KRO_ERR_HOST_NOT_FOUND, KRO_ERR_CONN_REFUSED, KRO_ERR_TIMEOUT
 * (the deadline passed) or KRO_ERR_NET on failure; a failed socket may be
 * connected again. With TLS the handshake follows within the same
 * deadline: KRO_ERR_TLS_HANDSHAKE, _VERIFY, _CLIENT_CERT or _TIMEOUT. */
t_kro_error kro_socket_connect(t_kro_socket socket);

/* Blocks until at least one byte has arrived, stores at most lim - pos
 * bytes at ptr + pos, advances pos and stores the count. Never succeeds
 * with 0 bytes: the peer's orderly close is KRO_ERR_PEER_CLOSED, a read
 * interrupted by kro_socket_interrupt is KRO_ERR_INTERRUPTED, anything else
 * KRO_ERR_NET. A buffer without free space is KRO_ERR_INVALID_ARG. */
t_kro_error kro_socket_read(t_kro_socket socket, t_kro_buf buf, t_kro_uint4 *bytes_transferred);

/* Sends every byte of [pos, lim) (retrying partial writes and EINTR),
 * never raising SIGPIPE; 0 means all were sent. pos is left unchanged. */
t_kro_error kro_socket_write_single(t_kro_socket socket, t_kro_buf buf,
                                    t_kro_uint4 *bytes_transferred);

#define KRO_SOCKET_GATHER_MAX 64 /* chunks one gathered write takes at most */

/* One piece of a gathered write: len bytes at ptr. */
typedef struct kro_socket_chunk {
    const void *ptr;
    t_kro_uint4 len;
} t_kro_socket_chunk;

/* Sends the bytes of the count chunks in their order as one stream (in one
 * system call when the socket takes them all), retrying partial writes and
 * EINTR, never raising SIGPIPE; stores the bytes sent, also on failure.
 * deadline is a monotonic time in nanoseconds (kro_wake.h), 0 for none; it
 * bounds the write alone (the socket's own deadline is not consulted):
 * KRO_ERR_TIMEOUT once it has passed, checked before the first byte too, so
 * a count of 0 then means nothing was sent. A write cut by
 * kro_socket_interrupt is KRO_ERR_INTERRUPTED, any other failure
 * KRO_ERR_NET. Writers are serialised by the caller. */
t_kro_error kro_socket_write_gather(t_kro_socket socket, const t_kro_socket_chunk *chunks, t_kro_uint4 count,
                                    uint64_t deadline, t_kro_uint4 *bytes_transferred);

/* Makes a read blocked in another thread return KRO_ERR_INTERRUPTED
 * promptly; later reads fail the same way. */
t_kro_error kro_socket_interrupt(t_kro_socket socket);

/* Closes and frees the socket with its create data, and clears *socket. */
t_kro_error kro_socket_destroy(t_kro_socket *socket);

/* Copies the reason of the socket's last failed connect, read or write
 * (the system's or the TLS library's words, e.g. "certificate verify
 * failed: certificate has expired") into text, at most size bytes with the
 * terminator; "" when none failed. Any thread. */
t_kro_error kro_socket_error_detail(t_kro_socket socket, t_kro_char *text, t_kro_uint4 size);

/* ---- TLS (kro_tls.cpp, over OpenSSL) ---- */

/* A TLS client configuration: TLS 1.2 and newer, the peer's certificate
 * verified against the CA certificates, a client certificate sent when the
 * peer asks for one. Immutable once made; shared by reference. */
typedef struct kro_tls *t_kro_tls;

typedef struct kro_tls_config_struct {
    t_kro_str ca_file;   /* PEM CA certificates to trust; null: the system's store */
    t_kro_str cert_file; /* PEM client certificate (and chain); null: none */
    t_kro_str key_file;  /* PEM private key of cert_file; null: read from cert_file */
} t_kro_tls_config_struct;

/* Reads the files and makes a configuration into *tls. KRO_ERR_TLS_CONFIG
 * when a file cannot be read or used (an encrypted key too: nothing asks
 * for a passphrase), with the reason in detail (at most detail_size bytes
 * with the terminator; detail may be null). */
t_kro_error kro_tls_create(const t_kro_tls_config_struct *config, t_kro_tls *tls, t_kro_char *detail,
                           t_kro_uint4 detail_size);

/* Drops the caller's reference and clears *tls; the configuration lives on
 * in the sockets that use it. */
t_kro_error kro_tls_destroy(t_kro_tls *tls);

/* Makes kro_socket_connect run a TLS handshake over the new connection,
 * verifying that the peer's certificate holds server_name (a host name, or
 * a numeric address; null or "" means the remote address of the create
 * data, "localhost" when that is empty), and every read and write go
 * through TLS. The socket keeps its own reference and its own copy of the
 * name. Before connect, from the connecting thread. */
t_kro_error kro_socket_set_tls(t_kro_socket socket, t_kro_tls tls, t_kro_str server_name);

#ifdef __cplusplus
}
#endif

#endif /* KRO_SOCKET_H */
