/*
 * kro_socket.cpp - TCP client sockets over BSD sockets.
 *
 * One thread reads, callers serialise their writes, and any thread may
 * interrupt. fd, tls_conn and interrupted are the only fields shared
 * between those threads and are atomic; fd is set only once a connect (and
 * its TLS handshake) has succeeded, after tls_conn, so an interrupt never
 * sees a half-made socket. A TLS socket reads and writes through
 * kro_tls.cpp, which serialises its own calls into OpenSSL.
 */
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <new>
#include <string>

#include "kro_llist.h"
#include "kro_private.h"
#include "kro_socket.h"
#include "kro_wake.h"

struct kro_socket {
    t_kro_socket_client_create_data create_data; /* addresses; owned, freed in destroy */
    std::atomic<int> fd{-1};                     /* connected descriptor, -1 when not connected */
    std::atomic<bool> interrupted{false};        /* set by kro_socket_interrupt, never cleared */
    std::chrono::steady_clock::time_point deadline; /* bound of connect, reads and writes; set by the connecting thread */
    bool bounded = false;                        /* deadline applies */
    t_kro_tls tls = nullptr;                     /* TLS configuration, one reference; null: plain TCP */
    t_kro_str tls_name = nullptr;                /* name the peer's certificate must hold; owned, null: the host */
    std::atomic<kro_tls_conn *> tls_conn{nullptr}; /* the TLS connection, stored before fd */
    std::mutex detail_mutex;                     /* guards detail */
    std::string detail;                          /* reason of the last failure */
};

void kro_socket_detail_set(t_kro_socket socket, const std::string &text)
{
    std::lock_guard<std::mutex> lock(socket->detail_mutex);
    socket->detail = text;
}

t_kro_error kro_socket_error_detail(t_kro_socket socket, t_kro_char *text, t_kro_uint4 size)
{
    if (socket == NULL || text == NULL || size == 0) return KRO_ERR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(socket->detail_mutex);
    snprintf(text, size, "%s", socket->detail.c_str());
    return 0;
}

bool kro_socket_is_interrupted(t_kro_socket socket) { return socket->interrupted.load(); }

/* Milliseconds left before the socket's deadline for poll: -1 without a
 * deadline, 0 once it has passed. */
int kro_socket_remaining_ms(t_kro_socket socket)
{
    if (!socket->bounded) return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(socket->deadline -
                                                                      std::chrono::steady_clock::now());
    return left.count() <= 0 ? 0 : (int)left.count();
}

/* Waits until fd is ready for events or the socket's deadline passes.
 * Returns 0, ETIMEDOUT or the errno value of a failed poll. */
static int kro_socket_wait(t_kro_socket socket, int fd, short events)
{
    struct pollfd pfd;
    int rc;
    pfd.fd = fd;
    pfd.events = events;
    do {
        rc = poll(&pfd, 1, kro_socket_remaining_ms(socket));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) return errno;
    return rc == 0 ? ETIMEDOUT : 0;
}

t_kro_error kro_socket_set_deadline(t_kro_socket socket, t_kro_uint4 timeout_ms)
{
    if (socket == NULL) return KRO_ERR_INVALID_ARG;
    socket->bounded = timeout_ms != 0;
    socket->deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    return 0;
}

t_kro_error kro_socket_client_create(t_kro_socket_client_create_data create_data,
                                     t_kro_socket *socket)
{
    t_kro_socket s;
    if (create_data == NULL || socket == NULL) return KRO_ERR_INVALID_ARG;
    if (create_data->device_create_data.remote_ifaddr == NULL) return KRO_ERR_INVALID_ARG;
    s = new (std::nothrow) kro_socket;
    if (s == NULL) {
        kro_em_os_error_set(ENOMEM);
        return KRO_ERR_NO_MEMORY;
    }
    s->create_data = create_data;
    *socket = s;
    return 0;
}

t_kro_error kro_socket_set_tls(t_kro_socket socket, t_kro_tls tls, t_kro_str server_name)
{
    if (socket == NULL || tls == NULL) return KRO_ERR_INVALID_ARG;
    if (socket->fd.load() >= 0) return KRO_ERR_INVALID_ARG;
    if (socket->tls != NULL) kro_tls_release(socket->tls);
    socket->tls = kro_tls_ref(tls);
    if (socket->tls_name != NULL) kro_mm_free(&socket->tls_name);
    if (server_name != NULL && server_name[0] != '\0') kro_str_assign(&socket->tls_name, server_name);
    return 0;
}

/* Connects fd to addr within the socket's deadline (also finishing a
 * connect that a signal interrupted). Returns 0 or the errno value of the
 * failure, ETIMEDOUT when the deadline passed. */
static int kro_socket_connect_fd(t_kro_socket socket, int fd, const struct sockaddr *addr, socklen_t addrlen)
{
    socklen_t len = sizeof(int);
    int flags = fcntl(fd, F_GETFL);
    int err = 0;
    if (socket->bounded && fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return errno;
    if (connect(fd, addr, addrlen) == 0) err = 0;
    else if (errno != EINTR && errno != EINPROGRESS) return errno;
    else if ((err = kro_socket_wait(socket, fd, POLLOUT)) == 0 &&
             getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err == 0 && socket->bounded && fcntl(fd, F_SETFL, flags) != 0) err = errno;
    return err;
}

/* Binds fd to the local address of the create data, of the given family.
 * Returns 0 or the errno value (or resolver code) of the failure. */
static int kro_socket_bind_local(int fd, int family, t_kro_str ifaddr, t_kro_ushort port)
{
    struct addrinfo hints;
    struct addrinfo *res = NULL;
    char service[8];
    int rc;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    snprintf(service, sizeof service, "%u", (unsigned)port);
    rc = getaddrinfo(ifaddr, service, &hints, &res);
    if (rc != 0) return rc == EAI_SYSTEM ? errno : rc;
    rc = bind(fd, res->ai_addr, res->ai_addrlen) == 0 ? 0 : errno;
    freeaddrinfo(res);
    return rc;
}

/* Resolves the remote host and tries each of its addresses in turn. On
 * failure no descriptor stays open; the result follows the last attempt. */
t_kro_error kro_socket_connect(t_kro_socket socket)
{
    t_kro_socket_device_client_create_data_struct *data;
    struct addrinfo hints;
    struct addrinfo *res = NULL;
    struct addrinfo *ai;
    t_kro_str node;
    t_kro_str local = NULL;
    char service[8];
    int one = 1;
    int last = ECONNREFUSED;
    int fd = -1;
    int rc;
    if (socket == NULL) return KRO_ERR_INVALID_ARG;
    if (socket->fd.load() >= 0) {
        kro_em_net_error_set(EISCONN);
        return KRO_ERR_NET;
    }
    data = &socket->create_data->device_create_data;
    node = data->remote_ifaddr[0] != '\0' ? data->remote_ifaddr : NULL;
    if (data->local_ifaddr != NULL && data->local_ifaddr[0] != '\0' &&
        strcmp(data->local_ifaddr, "0.0.0.0") != 0)
        local = data->local_ifaddr;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    snprintf(service, sizeof service, "%u", (unsigned)data->remote_port);
    rc = getaddrinfo(node, service, &hints, &res);
    if (rc != 0) {
        kro_em_net_error_set(rc == EAI_SYSTEM ? errno : rc);
        kro_socket_detail_set(socket, std::string(node != NULL ? node : "localhost") + ": " +
                                          (rc == EAI_SYSTEM ? strerror(errno) : gai_strerror(rc)));
        return KRO_ERR_HOST_NOT_FOUND;
    }
    for (ai = res; ai != NULL; ai = ai->ai_next) {
        fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (fd < 0) {
            last = errno;
            continue;
        }
        last = 0;
        if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) last = errno;
        if (last == 0 && (local != NULL || data->local_port != 0))
            last = kro_socket_bind_local(fd, ai->ai_family, local, data->local_port);
        if (last == 0) last = kro_socket_connect_fd(socket, fd, ai->ai_addr, ai->ai_addrlen);
        if (last == 0) break;
        close(fd);
        fd = -1;
    }
    freeaddrinfo(res);
    if (fd < 0) {
        kro_em_net_error_set(last);
        kro_socket_detail_set(socket, std::string("connect to ") + (node != NULL ? node : "localhost") + " port " +
                                          service + ": " +
                                          (last == ETIMEDOUT && socket->bounded ? "timed out" : strerror(last)));
        if (last == ETIMEDOUT && socket->bounded) return KRO_ERR_TIMEOUT;
        return last == ECONNREFUSED ? KRO_ERR_CONN_REFUSED : KRO_ERR_NET;
    }
    if (socket->tls != NULL) {
        kro_tls_conn *conn = NULL;
        const char *name = socket->tls_name != NULL ? socket->tls_name : node != NULL ? node : "localhost";
        t_kro_error error = kro_tls_conn_open(socket, socket->tls, name, fd, &conn);
        if (error != 0) {
            close(fd);
            return error;
        }
        socket->tls_conn.store(conn);
    }
    socket->fd.store(fd);
    /* An interrupt that came before the store saw no descriptor to shut. */
    if (socket->interrupted.load()) shutdown(fd, SHUT_RDWR);
    return 0;
}

/* One recv into [pos, lim) of buf; the reader thread only. */
t_kro_error kro_socket_read(t_kro_socket socket, t_kro_buf buf, t_kro_uint4 *bytes_transferred)
{
    ssize_t n;
    int fd;
    if (socket == NULL || buf == NULL || bytes_transferred == NULL) return KRO_ERR_INVALID_ARG;
    *bytes_transferred = 0;
    if (buf->pos >= buf->lim) return KRO_ERR_INVALID_ARG;
    if (socket->interrupted.load()) return KRO_ERR_INTERRUPTED;
    fd = socket->fd.load();
    if (fd < 0) return KRO_ERR_NOT_CONNECTED;
    if (kro_tls_conn *conn = socket->tls_conn.load()) {
        t_kro_error error = kro_tls_conn_read(socket, conn, (t_kro_byte *)buf->ptr + buf->pos, buf->lim - buf->pos,
                                              bytes_transferred);
        if (error == 0) buf->pos += *bytes_transferred;
        return error;
    }
    if (socket->bounded && kro_socket_wait(socket, fd, POLLIN) == ETIMEDOUT) {
        kro_em_net_error_set(ETIMEDOUT);
        return KRO_ERR_TIMEOUT;
    }
    do {
        n = recv(fd, (t_kro_byte *)buf->ptr + buf->pos, buf->lim - buf->pos, 0);
    } while (n < 0 && errno == EINTR);
    if (n > 0) {
        buf->pos += (t_kro_uint4)n;
        *bytes_transferred = (t_kro_uint4)n;
        return 0;
    }
    if (n < 0) kro_em_net_error_set(errno);
    if (socket->interrupted.load()) return KRO_ERR_INTERRUPTED;
    return n == 0 ? KRO_ERR_PEER_CLOSED : KRO_ERR_NET;
}

/* Sends [pos, lim) of buf completely; writers are serialised by the caller.
 * The count stores the bytes sent, also on failure. */
t_kro_error kro_socket_write_single(t_kro_socket socket, t_kro_buf buf,
                                    t_kro_uint4 *bytes_transferred)
{
    const t_kro_byte *p;
    t_kro_uint4 total = 0;
    t_kro_uint4 length;
    ssize_t n;
    int fd;
    if (socket == NULL || buf == NULL || bytes_transferred == NULL) return KRO_ERR_INVALID_ARG;
    *bytes_transferred = 0;
    if (buf->pos > buf->lim) return KRO_ERR_INVALID_ARG;
    fd = socket->fd.load();
    if (fd < 0) return KRO_ERR_NOT_CONNECTED;
    p = (const t_kro_byte *)buf->ptr + buf->pos;
    length = buf->lim - buf->pos;
    if (kro_tls_conn *conn = socket->tls_conn.load()) {
        t_kro_socket_chunk chunk = {p, length};
        int ms = kro_socket_remaining_ms(socket);
        uint64_t deadline = ms < 0 ? 0 : kro_clock_now_ns() + (uint64_t)ms * 1000000u + 1u;
        return kro_tls_conn_write(socket, conn, &chunk, 1, deadline, bytes_transferred);
    }
    while (total < length) {
        if (socket->bounded && kro_socket_wait(socket, fd, POLLOUT) == ETIMEDOUT) {
            kro_em_net_error_set(ETIMEDOUT);
            *bytes_transferred = total;
            return KRO_ERR_TIMEOUT;
        }
        n = send(fd, p + total, length - total, MSG_NOSIGNAL | (socket->bounded ? MSG_DONTWAIT : 0));
        if (n < 0) {
            if (errno == EINTR || (socket->bounded && (errno == EAGAIN || errno == EWOULDBLOCK))) continue;
            kro_em_net_error_set(errno);
            *bytes_transferred = total;
            return socket->interrupted.load() ? KRO_ERR_INTERRUPTED : KRO_ERR_NET;
        }
        total += (t_kro_uint4)n;
    }
    *bytes_transferred = total;
    return 0;
}

/* Waits until fd can take more bytes or the monotonic deadline passes.
 * Returns 0 or ETIMEDOUT. A failed poll counts as ready: the next send
 * reports the error. */
static int kro_socket_wait_writable(int fd, uint64_t deadline)
{
    struct pollfd pfd;
    struct timespec left;
    uint64_t now = kro_clock_now_ns();
    if (now >= deadline) return ETIMEDOUT;
    left.tv_sec = (time_t)((deadline - now) / 1000000000u);
    left.tv_nsec = (long)((deadline - now) % 1000000000u);
    pfd.fd = fd;
    pfd.events = POLLOUT;
    return ppoll(&pfd, 1, &left, NULL) == 0 ? ETIMEDOUT : 0;
}

/* One sendmsg per pass over the chunks not yet sent: blocking without a
 * deadline (close's shutdown ends it), else non-blocking with a wait for
 * room that the deadline bounds. */
t_kro_error kro_socket_write_gather(t_kro_socket socket, const t_kro_socket_chunk *chunks, t_kro_uint4 count,
                                    uint64_t deadline, t_kro_uint4 *bytes_transferred)
{
    struct iovec iov[KRO_SOCKET_GATHER_MAX];
    t_kro_uint4 first = 0; /* first chunk not wholly sent */
    t_kro_uint4 offset = 0; /* bytes of it already sent */
    t_kro_uint4 total = 0;
    int fd;
    if (socket == NULL || (chunks == NULL && count != 0) || count > KRO_SOCKET_GATHER_MAX ||
        bytes_transferred == NULL)
        return KRO_ERR_INVALID_ARG;
    *bytes_transferred = 0;
    fd = socket->fd.load();
    if (fd < 0) return KRO_ERR_NOT_CONNECTED;
    if (socket->interrupted.load()) return KRO_ERR_INTERRUPTED;
    if (deadline != 0 && kro_clock_now_ns() >= deadline) {
        kro_em_net_error_set(ETIMEDOUT);
        return KRO_ERR_TIMEOUT;
    }
    if (kro_tls_conn *conn = socket->tls_conn.load())
        return kro_tls_conn_write(socket, conn, chunks, count, deadline, bytes_transferred);
    for (;;) {
        struct msghdr msg;
        t_kro_uint4 n = 0;
        ssize_t sent;
        while (first < count && chunks[first].len == offset) first++, offset = 0;
        if (first == count) break;
        for (t_kro_uint4 i = first; i < count; i++) {
            if (chunks[i].len == (i == first ? offset : 0)) continue;
            iov[n].iov_base = (t_kro_byte *)chunks[i].ptr + (i == first ? offset : 0);
            iov[n].iov_len = chunks[i].len - (i == first ? offset : 0);
            n++;
        }
        memset(&msg, 0, sizeof msg);
        msg.msg_iov = iov;
        msg.msg_iovlen = n;
        sent = sendmsg(fd, &msg, MSG_NOSIGNAL | (deadline != 0 ? MSG_DONTWAIT : 0));
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (deadline != 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (kro_socket_wait_writable(fd, deadline) == 0) continue;
                kro_em_net_error_set(ETIMEDOUT);
                *bytes_transferred = total;
                return KRO_ERR_TIMEOUT;
            }
            kro_em_net_error_set(errno);
            *bytes_transferred = total;
            return socket->interrupted.load() ? KRO_ERR_INTERRUPTED : KRO_ERR_NET;
        }
        total += (t_kro_uint4)sent;
        while (sent > 0) {
            t_kro_uint4 step = chunks[first].len - offset;
            if ((size_t)sent < step) step = (t_kro_uint4)sent;
            offset += step;
            sent -= step;
            if (offset == chunks[first].len) first++, offset = 0;
        }
    }
    *bytes_transferred = total;
    return 0;
}

/* Marks the socket interrupted and shuts the connection down both ways,
 * which wakes a recv blocked on another thread. Sticky: later reads fail
 * with KRO_ERR_INTERRUPTED. 0 also when not connected. */
t_kro_error kro_socket_interrupt(t_kro_socket socket)
{
    int fd;
    if (socket == NULL) return KRO_ERR_INVALID_ARG;
    socket->interrupted.store(true);
    fd = socket->fd.load();
    if (kro_tls_conn *conn = fd >= 0 ? socket->tls_conn.load() : NULL) kro_tls_conn_close_notify(conn);
    if (fd >= 0 && shutdown(fd, SHUT_RDWR) != 0 && errno != ENOTCONN) {
        kro_em_net_error_set(errno);
        return KRO_ERR_NET;
    }
    return 0;
}

/* Closes the descriptor, frees the create data and the record, clears
 * *socket. No other thread may use the socket any more. */
t_kro_error kro_socket_destroy(t_kro_socket *socket)
{
    t_kro_socket s;
    t_kro_socket_client_create_data data;
    int fd;
    if (socket == NULL || *socket == NULL) return KRO_ERR_INVALID_ARG;
    s = *socket;
    fd = s->fd.exchange(-1);
    kro_tls_conn *conn = s->tls_conn.exchange(NULL);
    kro_tls_conn_free(&conn);
    if (s->tls != NULL) kro_tls_release(s->tls);
    if (s->tls_name != NULL) kro_mm_free(&s->tls_name);
    if (fd >= 0 && close(fd) != 0) kro_em_net_error_set(errno);
    data = s->create_data;
    if (data->device_create_data.remote_ifaddr != NULL)
        kro_mm_free(&data->device_create_data.remote_ifaddr);
    if (data->device_create_data.local_ifaddr != NULL)
        kro_mm_free(&data->device_create_data.local_ifaddr);
    kro_mm_free(&data);
    delete s;
    *socket = NULL;
    return 0;
}
