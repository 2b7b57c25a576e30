/*
 * kro_tls.cpp - TLS for the runtime's client sockets, over OpenSSL.
 *
 * A connection's SSL object is used by three kinds of thread: the reader
 * thread reads, one application thread at a time writes (the library
 * serialises its writers), and close interrupts from any thread. OpenSSL
 * allows one thread at a time in an SSL object, so each connection has one
 * lock held only around a single non-blocking SSL call (and the error
 * queries that belong to it), never while waiting: the descriptor is
 * non-blocking, and what an SSL call asks for (SSL_ERROR_WANT_READ or
 * _WANT_WRITE) decides what the thread then polls for, with the lock
 * released. So a writer blocked on a peer that does not read never holds
 * up the reader, and the reader waiting for bytes never holds up a writer.
 * Partial writes are enabled and the write buffer may move between retries
 * (SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER), so
 * a writer resumes a cut-short record with the rest of its own buffer.
 *
 * Only the reader reads records: renegotiation is refused and the client
 * offers no post-handshake authentication, so a write never needs to read.
 * Should one ever consume bytes anyway, the writer wakes the reader through
 * the connection's eventfd instead of leaving those bytes in OpenSSL's
 * buffer behind a reader asleep in poll.
 *
 * Bytes go through a BIO of our own that sends with MSG_NOSIGNAL (a peer's
 * reset never raises SIGPIPE) and records the errno of the last failed
 * call, which the failure texts report.
 *
 * An interrupt (close) sends a close_notify when no record is half-written
 * (so the peer sees an orderly end), then the socket layer shuts the
 * descriptor down, which wakes every poll on it; each waiting thread then
 * finds the socket interrupted and returns KRO_ERR_INTERRUPTED.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "kro_mutex.h"
#include "kro_private.h"
#include "kro_socket.h"

#define KRO_SCOPED_CAPABILITY KRO_TS_ATTR(scoped_lockable)

namespace {

/* The lock of one connection's SSL object, visible to clang's analysis. */
class KRO_CAPABILITY("mutex") SslLock {
public:
    void lock() KRO_ACQUIRE() { m_.lock(); }
    void unlock() KRO_RELEASE() { m_.unlock(); }

private:
    std::mutex m_;
};

class KRO_SCOPED_CAPABILITY SslGuard {
public:
    explicit SslGuard(SslLock &l) KRO_ACQUIRE(l) : l_(l) { l_.lock(); }
    ~SslGuard() KRO_RELEASE() { l_.unlock(); }

private:
    SslLock &l_;
};

} // namespace

/* A client configuration, shared by reference: the handle that made it
 * and every socket that uses it hold one. Immutable but for refs. */
struct kro_tls {
    SSL_CTX *ctx;                /* owned */
    bool has_cert;               /* a client certificate is configured */
    std::atomic<int> refs{1};    /* references held */
};

/* One TLS connection. ssl is used only under lock; the flags the handshake
 * sets are read after it, by the threads the handshake's success let in. */
struct kro_tls_conn {
    SslLock lock;                               /* held around each SSL call */
    SSL *ssl = nullptr;                         /* the connection; lock */
    bool write_partial KRO_GUARDED_BY(lock) = false; /* a record is half-written: no close_notify now */
    bool established KRO_GUARDED_BY(lock) = false;   /* the handshake completed */
    int wake = -1;                              /* eventfd: a writer tells the reader bytes wait in ssl */
    std::atomic<bool> asked_cert{false};        /* the service asked for a client certificate */
    bool has_cert = false;                      /* we had one to send */
    bool buffered = false;                      /* reader thread: OpenSSL held bytes after its last SSL_read */
    int fd = -1;                                /* the descriptor, not owned */
    std::atomic<int> last_errno{0};             /* errno of the BIO's last failed call */
    std::atomic<bool> saw_eof{false};           /* the BIO read the end of stream */
};

/* ---- the BIO: send with MSG_NOSIGNAL, recv, errno recorded ---- */

static int kro_tls_bio_write(BIO *bio, const char *data, int len)
{
    kro_tls_conn *c = static_cast<kro_tls_conn *>(BIO_get_data(bio));
    ssize_t n;
    BIO_clear_retry_flags(bio);
    do {
        n = send(c->fd, data, (size_t)len, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n >= 0) return (int)n;
    if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(bio);
    else c->last_errno.store(errno);
    return -1;
}

static int kro_tls_bio_read(BIO *bio, char *data, int len)
{
    kro_tls_conn *c = static_cast<kro_tls_conn *>(BIO_get_data(bio));
    ssize_t n;
    BIO_clear_retry_flags(bio);
    do {
        n = recv(c->fd, data, (size_t)len, 0);
    } while (n < 0 && errno == EINTR);
    if (n > 0) return (int)n;
    if (n == 0) {
        c->saw_eof.store(true);
        return 0;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_read(bio);
    else c->last_errno.store(errno);
    return -1;
}

static long kro_tls_bio_ctrl(BIO *bio, int cmd, long num, void *ptr)
{
    (void)bio, (void)num, (void)ptr;
    return cmd == BIO_CTRL_FLUSH ? 1 : 0;
}

static int kro_tls_bio_create(BIO *bio)
{
    BIO_set_init(bio, 1);
    return 1;
}

/* The method is made once for the process and never freed (OpenSSL keeps
 * no count of its users). */
static BIO_METHOD *kro_tls_bio_method(void)
{
    static BIO_METHOD *method = [] {
        BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kro socket");
        if (m == nullptr) return m;
        BIO_meth_set_write(m, kro_tls_bio_write);
        BIO_meth_set_read(m, kro_tls_bio_read);
        BIO_meth_set_ctrl(m, kro_tls_bio_ctrl);
        BIO_meth_set_create(m, kro_tls_bio_create);
        return m;
    }();
    return method;
}

/* ---- texts ---- */

/* The reason of the calling thread's most recent OpenSSL error, or what. */
static std::string kro_tls_reason(const char *what)
{
    unsigned long e = ERR_peek_last_error();
    const char *r = e != 0 ? ERR_reason_error_string(e) : nullptr;
    if (r != nullptr) return r;
    return what;
}

static void kro_tls_copy(const std::string &text, t_kro_char *out, t_kro_uint4 size)
{
    if (out == nullptr || size == 0) return;
    snprintf(out, size, "%s", text.c_str());
}

/* ---- configuration ---- */

/* Never asks for a passphrase: an encrypted key fails to load. */
static int kro_tls_no_passphrase(char *buf, int size, int rwflag, void *userdata)
{
    (void)buf, (void)size, (void)rwflag, (void)userdata;
    return 0;
}

/* Notes that the service sent a CertificateRequest (the callback runs
 * then, on the handshaking thread, with the lock held). */
static int kro_tls_on_certificate_request(SSL *ssl, void *arg)
{
    (void)arg;
    kro_tls_conn *c = static_cast<kro_tls_conn *>(SSL_get_app_data(ssl));
    if (c != nullptr) c->asked_cert.store(true);
    return 1;
}

/* "" when path can be opened for reading, else why not. */
static std::string kro_tls_unreadable(const char *what, const char *path)
{
    FILE *f = fopen(path, "r");
    if (f != nullptr) {
        fclose(f);
        return std::string();
    }
    return std::string("cannot read the ") + what + " " + path + ": " + strerror(errno);
}

t_kro_error kro_tls_create(const t_kro_tls_config_struct *config, t_kro_tls *tls, t_kro_char *detail,
                           t_kro_uint4 detail_size)
{
    std::string why;
    SSL_CTX *ctx;
    const char *key;
    if (config == NULL || tls == NULL) return KRO_ERR_INVALID_ARG;
    kro_tls_copy("", detail, detail_size);
    ERR_clear_error();
    ctx = SSL_CTX_new(TLS_client_method());
    if (ctx == nullptr) {
        kro_tls_copy("cannot make a TLS context: " + kro_tls_reason("no memory"), detail, detail_size);
        return KRO_ERR_TLS_CONFIG;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(ctx, 1);
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_default_passwd_cb(ctx, kro_tls_no_passphrase);
    SSL_CTX_set_cert_cb(ctx, kro_tls_on_certificate_request, nullptr);
    key = config->key_file != NULL ? config->key_file : config->cert_file;
    if (config->ca_file != NULL) {
        why = kro_tls_unreadable("CA file", config->ca_file);
        if (why.empty() && SSL_CTX_load_verify_locations(ctx, config->ca_file, nullptr) != 1)
            why = std::string("cannot use the CA file ") + config->ca_file + ": " + kro_tls_reason("no certificate");
    } else if (SSL_CTX_set_default_verify_paths(ctx) != 1) {
        why = "cannot use the system's CA store: " + kro_tls_reason("unknown reason");
    }
    if (why.empty() && config->key_file != NULL && config->cert_file == NULL)
        why = std::string("the key file ") + config->key_file + " is given without a certificate file";
    if (why.empty() && config->cert_file != NULL) {
        why = kro_tls_unreadable("certificate file", config->cert_file);
        if (why.empty() && SSL_CTX_use_certificate_chain_file(ctx, config->cert_file) != 1)
            why = std::string("cannot use the certificate file ") + config->cert_file + ": " +
                  kro_tls_reason("no certificate");
        if (why.empty()) why = kro_tls_unreadable("key file", key);
        if (why.empty() && SSL_CTX_use_PrivateKey_file(ctx, key, SSL_FILETYPE_PEM) != 1) {
            unsigned long e = ERR_peek_last_error();
            if (ERR_GET_LIB(e) != ERR_LIB_X509 || ERR_GET_REASON(e) != X509_R_KEY_VALUES_MISMATCH)
                why = std::string("cannot use the key file ") + key + ": " + kro_tls_reason("no key");
        }
        if (why.empty() && SSL_CTX_check_private_key(ctx) != 1)
            why = std::string("the key in ") + key + " does not belong to the certificate in " + config->cert_file;
    }
    ERR_clear_error();
    if (!why.empty()) {
        SSL_CTX_free(ctx);
        kro_tls_copy(why, detail, detail_size);
        return KRO_ERR_TLS_CONFIG;
    }
    *tls = new (std::nothrow) kro_tls;
    if (*tls != NULL) (*tls)->ctx = ctx, (*tls)->has_cert = config->cert_file != NULL;
    if (*tls == NULL) {
        SSL_CTX_free(ctx);
        kro_em_os_error_set(ENOMEM);
        return KRO_ERR_NO_MEMORY;
    }
    return 0;
}

t_kro_error kro_tls_destroy(t_kro_tls *tls)
{
    if (tls == NULL || *tls == NULL) return KRO_ERR_INVALID_ARG;
    kro_tls_release(*tls);
    *tls = NULL;
    return 0;
}

t_kro_tls kro_tls_ref(t_kro_tls tls)
{
    tls->refs.fetch_add(1);
    return tls;
}

void kro_tls_release(t_kro_tls tls)
{
    if (tls->refs.fetch_sub(1) != 1) return;
    SSL_CTX_free(tls->ctx);
    delete tls;
}

/* ---- waiting ---- */

/* Waits until fd reports events, or c's eventfd is signalled when wake is
 * set, or the socket's deadline passes. 0, ETIMEDOUT, or errno of poll. */
static int kro_tls_wait(t_kro_socket socket, kro_tls_conn *c, short events, bool wake)
{
    struct pollfd pfd[2] = {{c->fd, events, 0}, {c->wake, POLLIN, 0}};
    int rc;
    do {
        rc = poll(pfd, wake ? 2 : 1, kro_socket_remaining_ms(socket));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) return errno;
    if (rc == 0) return ETIMEDOUT;
    if (wake && (pfd[1].revents & POLLIN) != 0) {
        uint64_t n;
        (void)!read(c->wake, &n, sizeof n);
    }
    return 0;
}

/* ---- failures ---- */

/* True for the alerts a service sends when it refuses a client without a
 * certificate, or the certificate it got. */
static bool kro_tls_is_certificate_alert(int reason)
{
    switch (reason) {
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
    case SSL_R_TLSV1_ALERT_ACCESS_DENIED:
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
        return true;
    default:
        return false;
    }
}

/* Turns a failed SSL call (err from SSL_get_error, lock held) into a code
 * and records the reason on the socket. handshake: the failure ended
 * SSL_connect. */
static t_kro_error kro_tls_failure(t_kro_socket socket, kro_tls_conn *c, int err, bool handshake)
    KRO_REQUIRES(c->lock)
{
    unsigned long e = ERR_peek_last_error();
    int reason = ERR_GET_REASON(e);
    int sys = c->last_errno.load();
    std::string text;
    t_kro_error code = handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_NET;
    long verify = SSL_get_verify_result(c->ssl);
    if (err == SSL_ERROR_ZERO_RETURN) {
        code = handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_PEER_CLOSED;
        text = "the service ended the TLS session";
    } else if (err == SSL_ERROR_SSL && reason == SSL_R_CERTIFICATE_VERIFY_FAILED && verify != X509_V_OK) {
        code = KRO_ERR_TLS_VERIFY;
        text = std::string("certificate verify failed: ") + X509_verify_cert_error_string(verify);
        if (verify == X509_V_ERR_HOSTNAME_MISMATCH || verify == X509_V_ERR_IP_ADDRESS_MISMATCH) {
            X509_VERIFY_PARAM *param = SSL_get0_param(c->ssl);
            char *ip = verify == X509_V_ERR_IP_ADDRESS_MISMATCH ? X509_VERIFY_PARAM_get1_ip_asc(param) : nullptr;
            const char *want = ip != nullptr ? ip : X509_VERIFY_PARAM_get0_host(param, 0);
            if (want != nullptr) text += std::string(" (the certificate is not for ") + want + ")";
            OPENSSL_free(ip);
        }
    } else if (err == SSL_ERROR_SSL && c->asked_cert.load() && kro_tls_is_certificate_alert(reason)) {
        code = KRO_ERR_TLS_CLIENT_CERT;
        text = c->has_cert ? "the service refused our client certificate"
                           : "the service asked for a client certificate and none is configured";
        text += std::string(" (") + kro_tls_reason("alert") + ")";
    } else if (c->saw_eof.load() && (err == SSL_ERROR_SYSCALL || reason == SSL_R_UNEXPECTED_EOF_WHILE_READING)) {
        code = handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_PEER_CLOSED;
        text = handshake ? "the service closed the connection during the TLS handshake (is it a plain TCP port?)"
                         : "the service closed the connection without ending the TLS session";
    } else if (err == SSL_ERROR_SYSCALL && sys != 0) {
        kro_em_net_error_set(sys);
        text = std::string(handshake ? "TLS handshake failed: " : "") + strerror(sys);
    } else {
        text = std::string(handshake ? "TLS handshake failed: " : "TLS: ") + kro_tls_reason("unknown reason");
        if (reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_PACKET_LENGTH_TOO_LONG)
            text += " (the service does not speak TLS: is it a plain TCP port?)";
    }
    ERR_clear_error();
    kro_socket_detail_set(socket, text);
    return code;
}

/* ---- the connection ---- */

void kro_tls_conn_free(kro_tls_conn **conn)
{
    kro_tls_conn *c = *conn;
    if (c == nullptr) return;
    SSL_free(c->ssl);
    if (c->wake >= 0) close(c->wake);
    delete c;
    *conn = nullptr;
}

/* A name is a numeric address when inet_pton takes it. */
static bool kro_tls_is_address(const char *name)
{
    unsigned char buf[16];
    return inet_pton(AF_INET, name, buf) == 1 || inet_pton(AF_INET6, name, buf) == 1;
}

t_kro_error kro_tls_conn_open(t_kro_socket socket, t_kro_tls tls, const char *name, int fd, kro_tls_conn **conn)
{
    kro_tls_conn *c = new (std::nothrow) kro_tls_conn;
    BIO *bio = nullptr;
    BIO_METHOD *method = kro_tls_bio_method();
    t_kro_error error = 0;
    *conn = nullptr;
    if (c == nullptr) return KRO_ERR_NO_MEMORY;
    c->fd = fd;
    c->has_cert = tls->has_cert;
    c->wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ERR_clear_error();
    if (c->wake >= 0 && method != nullptr) c->ssl = SSL_new(tls->ctx);
    if (c->ssl != nullptr) bio = BIO_new(method);
    if (bio == nullptr) {
        kro_socket_detail_set(socket, "cannot set up TLS: " + kro_tls_reason(strerror(errno)));
        kro_tls_conn_free(&c);
        return KRO_ERR_NO_MEMORY;
    }
    BIO_set_data(bio, c);
    SSL_set_bio(c->ssl, bio, bio);
    SSL_set_app_data(c->ssl, c);
    SSL_set_hostflags(c->ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    /* The name check is the point of verification: no name, no handshake. */
    bool named = kro_tls_is_address(name) ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(c->ssl), name) == 1
                                          : SSL_set1_host(c->ssl, name) == 1;
    if (!named) {
        kro_socket_detail_set(socket, std::string("cannot check the service's certificate for the name ") + name);
        kro_tls_conn_free(&c);
        return KRO_ERR_TLS_CONFIG;
    }
    if (!kro_tls_is_address(name)) SSL_set_tlsext_host_name(c->ssl, name); // SNI; optional
    for (;;) {
        int rc, err, waited;
        {
            SslGuard guard(c->lock);
            ERR_clear_error();
            rc = SSL_connect(c->ssl);
            if (rc == 1) {
                c->established = true;
                c->buffered = SSL_has_pending(c->ssl) == 1; // bytes read past the handshake
                break;
            }
            err = SSL_get_error(c->ssl, rc);
            if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) {
                error = kro_tls_failure(socket, c, err, true);
                break;
            }
        }
        waited = kro_tls_wait(socket, c, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, false);
        if (waited == ETIMEDOUT) {
            kro_socket_detail_set(socket, "TLS handshake timed out");
            kro_em_net_error_set(ETIMEDOUT);
            error = KRO_ERR_TLS_TIMEOUT;
            break;
        }
        if (waited != 0) {
            kro_socket_detail_set(socket, std::string("TLS handshake: poll: ") + strerror(waited));
            kro_em_net_error_set(waited);
            error = KRO_ERR_NET;
            break;
        }
    }
    if (error != 0) kro_tls_conn_free(&c);
    *conn = c;
    return error;
}

/* Polls first when OpenSSL held no byte after the last read (a read would
 * only find the descriptor empty), then reads. Whether it held any is
 * noted under the lock at the end of each read, so that this test takes no
 * lock: the reader going for the lock just as the caller it woke writes
 * its next request would make both wait. Only this thread makes OpenSSL
 * read, but for a write that a wake-up reports. */
t_kro_error kro_tls_conn_read(t_kro_socket socket, kro_tls_conn *c, t_kro_byte *p, t_kro_uint4 n, t_kro_uint4 *got)
{
    bool first = true;
    for (;;) {
        int err = SSL_ERROR_WANT_READ, waited;
        if (!first || c->buffered) {
            SslGuard guard(c->lock);
            ERR_clear_error();
            int rc = SSL_read(c->ssl, p, (int)(n > 0x7FFFFFFFu ? 0x7FFFFFFFu : n));
            c->buffered = SSL_has_pending(c->ssl) == 1;
            if (rc > 0) {
                *got = (t_kro_uint4)rc;
                return 0;
            }
            err = SSL_get_error(c->ssl, rc);
            if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
            if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) return kro_tls_failure(socket, c, err, false);
        }
        first = false;
        if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
        waited = kro_tls_wait(socket, c, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, true);
        if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
        if (waited == ETIMEDOUT) {
            kro_em_net_error_set(ETIMEDOUT);
            return KRO_ERR_TIMEOUT;
        }
        if (waited != 0) {
            kro_em_net_error_set(waited);
            return KRO_ERR_NET;
        }
    }
}

t_kro_error kro_tls_conn_write(t_kro_socket socket, kro_tls_conn *c, const t_kro_byte *p, t_kro_uint4 n,
                               t_kro_uint4 *sent)
{
    t_kro_uint4 total = 0;
    *sent = 0;
    while (total < n) {
        int rc, err = SSL_ERROR_NONE, waited;
        bool pending;
        {
            SslGuard guard(c->lock);
            bool before = SSL_has_pending(c->ssl) == 1;
            ERR_clear_error();
            rc = SSL_write(c->ssl, p + total, (int)(n - total > 0x40000000u ? 0x40000000u : n - total));
            if (rc <= 0) err = SSL_get_error(c->ssl, rc);
            c->write_partial = err == SSL_ERROR_WANT_WRITE || err == SSL_ERROR_WANT_READ;
            pending = !before && SSL_has_pending(c->ssl) == 1; // this write read bytes the reader waits for
            if (rc <= 0 && !c->write_partial && !kro_socket_is_interrupted(socket)) {
                *sent = total;
                return kro_tls_failure(socket, c, err, false);
            }
        }
        if (pending) {
            uint64_t one = 1;
            (void)!write(c->wake, &one, sizeof one);
        }
        if (rc > 0) {
            total += (t_kro_uint4)rc;
            continue;
        }
        *sent = total;
        if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
        waited = kro_tls_wait(socket, c, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, false);
        if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
        if (waited == ETIMEDOUT) {
            kro_em_net_error_set(ETIMEDOUT);
            return KRO_ERR_TIMEOUT;
        }
        if (waited != 0) {
            kro_em_net_error_set(waited);
            return KRO_ERR_NET;
        }
    }
    *sent = total;
    return 0;
}

void kro_tls_conn_close_notify(kro_tls_conn *c)
{
    SslGuard guard(c->lock);
    if (!c->established || c->write_partial) return;
    SSL_shutdown(c->ssl);
    ERR_clear_error();
}
