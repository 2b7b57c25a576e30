/*
 * kro_tls.cpp - TLS for the runtime's client sockets, over OpenSSL.
 *
 * A connection's SSL object is used by three kinds of thread: the reader
 * thread reads, one application thread at a time writes (the library
 * serialises its writers), and close interrupts from any thread. OpenSSL
 * allows one thread at a time in an SSL object; it may write while it
 * reads (an alert); and on a non-blocking socket a record it could send
 * only in part must be finished by retrying the very same write before it
 * writes anything else. With OpenSSL on the socket and a lock around each
 * call, a service that updated its keys in the middle of a large put
 * stalled the connection.
 *
 * So OpenSSL never touches the socket: it reads from and writes to two
 * memory BIOs, and this file moves the bytes. Each connection has two
 * locks, always taken in this order:
 *   - send: held by the one thread that moves encrypted bytes from the
 *     output BIO (through out) to the socket, in the order OpenSSL made
 *     them; it may block in send() while holding it;
 *   - ssl: held only around one SSL call or BIO transfer, never across a
 *     system call, so the reader and a writer never wait for each other's
 *     network.
 * The reader blocks in recv() with no lock held (exactly as a plain socket
 * reads: one system call), then hands the bytes to OpenSSL and decrypts
 * under ssl. A writer encrypts at most kChunk bytes under ssl, then sends
 * its records and everything written before them under send, so a large
 * put never sits whole in memory; its result is that of its own bytes.
 * What OpenSSL writes while the reader reads (an alert) is sent by the
 * reader only if no writer holds send and only as
 * far as the socket takes it without blocking (a reader that blocked in
 * send() would stop reading a peer that writes before it reads);
 * otherwise the writer holding send, which looks at the output BIO again
 * after it lets send go, takes it, and what is left goes out ahead of the
 * next writer's records.
 *
 * Sends use MSG_NOSIGNAL (a peer's reset never raises SIGPIPE). Within a
 * deadline (open) every recv() and send() waits in poll() first.
 *
 * An interrupt (close) queues a close_notify and sends it if no writer
 * holds send, then the socket layer shuts the descriptor down, which wakes
 * a blocked recv() and a blocked send(); each finds the socket interrupted
 * and returns KRO_ERR_INTERRUPTED.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "kro_mutex.h"
#include "kro_private.h"
#include "kro_socket.h"
#include "kro_wake.h"

#define KRO_SCOPED_CAPABILITY KRO_TS_ATTR(scoped_lockable)
#define KRO_ACQUIRED_BEFORE(...) KRO_TS_ATTR(acquired_before(__VA_ARGS__))
#define KRO_PT_GUARDED_BY(x) KRO_TS_ATTR(pt_guarded_by(x))

namespace {

/* A lock clang's analysis can follow. */
class KRO_CAPABILITY("mutex") Lock {
public:
    void lock() KRO_ACQUIRE() { m_.lock(); }
    void unlock() KRO_RELEASE() { m_.unlock(); }
    bool try_lock() KRO_TRY_ACQUIRE(true) { return m_.try_lock(); }

private:
    std::mutex m_;
};

class KRO_SCOPED_CAPABILITY Guard {
public:
    explicit Guard(Lock &l) KRO_ACQUIRE(l) : l_(l) { l_.lock(); }
    ~Guard() KRO_RELEASE() { l_.unlock(); }

private:
    Lock &l_;
};

constexpr t_kro_uint4 kChunk = 64u * 1024u;       /* plaintext bytes one SSL_write takes at most */
constexpr t_kro_uint4 kStage = 16u * 1024u;       /* small pieces of a write copied together: one record */
constexpr size_t kRawRead = 17u * 1024u;          /* bytes one recv() asks for: a whole record */

} // namespace

/* A client configuration, shared by reference: the handle that made it
 * and every socket that uses it hold one. Immutable but for refs. */
struct kro_tls {
    SSL_CTX *ctx;                /* owned */
    bool has_cert;               /* a client certificate is configured */
    std::atomic<int> refs{1};    /* references held */
};

/* One TLS connection over a socket's descriptor (not owned). */
struct kro_tls_conn {
    Lock send KRO_ACQUIRED_BEFORE(ssl);        /* one thread moves bytes to the socket */
    Lock ssl;                                  /* held around each SSL call and BIO transfer */
    SSL *tls KRO_PT_GUARDED_BY(ssl) = nullptr; /* the connection; owns in and out BIOs */
    BIO *in KRO_PT_GUARDED_BY(ssl) = nullptr;  /* bytes received, for OpenSSL to read */
    BIO *out KRO_PT_GUARDED_BY(ssl) = nullptr; /* bytes OpenSSL wrote, to be sent */
    bool established KRO_GUARDED_BY(ssl) = false; /* the handshake completed */
    uint64_t taken KRO_GUARDED_BY(ssl) = 0;    /* bytes moved from out into sending, ever */
    std::vector<t_kro_byte> sending KRO_GUARDED_BY(send); /* taken from out, not yet all sent */
    size_t sent KRO_GUARDED_BY(send) = 0;      /* bytes of sending already sent */
    uint64_t sent_total KRO_GUARDED_BY(send) = 0; /* bytes sent, ever: the first sent_total of all taken */
    std::atomic<bool> asked_cert{false};       /* the service asked for a client certificate */
    bool has_cert = false;                     /* we had one to send; set before use */
    int fd = -1;                               /* the descriptor; set before use */
    bool buffered = false;                     /* reader thread: OpenSSL held bytes after its last read */
    t_kro_byte raw[kRawRead];                  /* reader thread (or the handshake): bytes received */
};

/* ---- texts ---- */

/* The reason of the calling thread's most recent OpenSSL error, or what. */
static std::string kro_tls_reason(const char *what)
{
    unsigned long e = ERR_peek_last_error();
    const char *r = e != 0 ? ERR_reason_error_string(e) : nullptr;
    if (r != nullptr) return r;
    return what;
}

/* Whether the PEM file at path holds an encrypted key ("BEGIN ENCRYPTED
 * PRIVATE KEY", or a "Proc-Type: 4,ENCRYPTED" header). */
static bool kro_tls_key_encrypted(const char *path)
{
    char line[256];
    bool encrypted = false;
    FILE *f = fopen(path, "r");
    while (f != nullptr && !encrypted && fgets(line, sizeof line, f) != nullptr)
        encrypted = strstr(line, "ENCRYPTED") != nullptr;
    if (f != nullptr) fclose(f);
    return encrypted;
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
            std::string reason = kro_tls_reason("no key");
            bool mismatch = ERR_GET_LIB(e) == ERR_LIB_X509 && ERR_GET_REASON(e) == X509_R_KEY_VALUES_MISMATCH;
            if (kro_tls_key_encrypted(key))
                why = std::string("cannot use the key file ") + key + ": it is encrypted, and no passphrase is asked for";
            else if (!mismatch) // the check below says it in words
                why = std::string("cannot use the key file ") + key + ": " + reason;
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

/* Turns a failed SSL call (err from SSL_get_error) into a code and records
 * the reason on the socket. handshake: the failure ended SSL_connect. */
static t_kro_error kro_tls_failure(t_kro_socket socket, kro_tls_conn *c, int err, bool handshake)
    KRO_REQUIRES(c->ssl)
{
    unsigned long e = ERR_peek_last_error();
    int reason = ERR_GET_REASON(e);
    std::string text;
    t_kro_error code = handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_NET;
    long verify = SSL_get_verify_result(c->tls);
    if (err == SSL_ERROR_ZERO_RETURN) {
        code = handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_PEER_CLOSED;
        text = "the service ended the TLS session";
    } else if (err == SSL_ERROR_SSL && reason == SSL_R_CERTIFICATE_VERIFY_FAILED && verify != X509_V_OK) {
        code = KRO_ERR_TLS_VERIFY;
        text = std::string("certificate verify failed: ") + X509_verify_cert_error_string(verify);
        if (verify == X509_V_ERR_HOSTNAME_MISMATCH || verify == X509_V_ERR_IP_ADDRESS_MISMATCH) {
            X509_VERIFY_PARAM *param = SSL_get0_param(c->tls);
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
    } else {
        text = std::string(handshake ? "TLS handshake failed: " : "TLS: ") + kro_tls_reason("unknown reason");
        if (reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_PACKET_LENGTH_TOO_LONG)
            text += " (the service does not speak TLS: is it a plain TCP port?)";
    }
    ERR_clear_error();
    kro_socket_detail_set(socket, text);
    return code;
}

/* ---- moving bytes ---- */

/* The socket's deadline (open's) as a monotonic time in nanoseconds; 0
 * for none. */
static uint64_t kro_tls_socket_deadline(t_kro_socket socket)
{
    int ms = kro_socket_remaining_ms(socket);
    return ms < 0 ? 0 : kro_clock_now_ns() + (uint64_t)ms * 1000000u + 1u;
}

/* Waits for events on c's descriptor until the monotonic deadline (not 0).
 * 0, ETIMEDOUT, or the errno of poll. */
static int kro_tls_poll(kro_tls_conn *c, short events, uint64_t deadline)
{
    struct pollfd pfd = {c->fd, events, 0};
    int rc;
    do {
        uint64_t now = kro_clock_now_ns();
        if (now >= deadline) return ETIMEDOUT;
        uint64_t ms = (deadline - now + 999999u) / 1000000u;
        rc = poll(&pfd, 1, ms > 0x7FFFFFFFu ? 0x7FFFFFFF : (int)ms);
    } while ((rc < 0 && errno == EINTR) || rc == 0);
    return rc < 0 ? errno : 0;
}

/* The result of moving bytes through the descriptor: done, the peer
 * ended the stream, or an errno value (ETIMEDOUT for the deadline,
 * EAGAIN for a send that would block). */
enum { KRO_TLS_EOF = -1 };

/* One recv() into the raw buffer, the reader's (or the handshake's); waits
 * in poll() first within a deadline. Bytes received: *n > 0, result 0. */
static int kro_tls_recv(t_kro_socket socket, kro_tls_conn *c, size_t *n)
{
    ssize_t got;
    uint64_t deadline = kro_tls_socket_deadline(socket);
    int waited = deadline != 0 ? kro_tls_poll(c, POLLIN, deadline) : 0;
    if (waited != 0) return waited;
    do {
        got = recv(c->fd, c->raw, sizeof c->raw, 0);
    } while (got < 0 && errno == EINTR);
    if (got == 0) return KRO_TLS_EOF;
    if (got < 0) return errno;
    *n = (size_t)got;
    return 0;
}

/* Sends what OpenSSL has written, in order: first what is left of sending,
 * then what the out BIO holds, until the first target bytes ever written
 * are out, or until nothing is left. block: a send may wait for the socket
 * until the monotonic deadline (0: without bound); else one that would
 * wait returns EAGAIN, the bytes kept for the next sender. send held. */
static int kro_tls_send_out(kro_tls_conn *c, bool block, uint64_t deadline, uint64_t target) KRO_REQUIRES(c->send)
{
    while (c->sent_total < target) {
        if (c->sent == c->sending.size()) {
            Guard guard(c->ssl);
            size_t pending = BIO_ctrl_pending(c->out);
            c->sending.resize(pending);
            c->sent = 0;
            if (pending == 0) return 0;
            KRO_CHECK(BIO_read(c->out, c->sending.data(), (int)pending) == (int)pending);
            c->taken += pending;
        }
        int flags = MSG_NOSIGNAL | (block && deadline == 0 ? 0 : MSG_DONTWAIT);
        ssize_t n = send(c->fd, c->sending.data() + c->sent, c->sending.size() - c->sent, flags);
        if (n >= 0) {
            c->sent += (size_t)n;
            c->sent_total += (uint64_t)n;
        } else if (errno == EAGAIN && block) {
            int waited = kro_tls_poll(c, POLLOUT, deadline);
            if (waited != 0) return waited;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

/* Whether the out BIO holds bytes no one has taken. */
static bool kro_tls_out_pending(kro_tls_conn *c)
{
    Guard guard(c->ssl);
    return BIO_ctrl_pending(c->out) > 0;
}

/* Sends what OpenSSL has written, only if no one else is sending and only
 * as far as the socket takes it at once: the reader's (and an interrupt's)
 * way. What stays is sent by the next writer. */
static void kro_tls_try_flush(kro_tls_conn *c)
{
    if (!c->send.try_lock()) return; // the holder looks at the out BIO again when it lets go
    (void)kro_tls_send_out(c, false, 0, UINT64_MAX);
    c->send.unlock();
}

/* Sends the first target bytes OpenSSL ever wrote (a writer's records and
 * all before them), waiting for the socket: the writers' (and the
 * handshake's) way; 0 or an errno value. Then, without waiting and without
 * failing on them, what others wrote meanwhile (a close_notify, a key
 * update's answer), looking at the out BIO again after letting send go, so
 * that bytes a reader could not send meanwhile are not left behind. */
static int kro_tls_flush(kro_tls_conn *c, uint64_t deadline, uint64_t target)
{
    c->send.lock();
    int rc = kro_tls_send_out(c, true, deadline, target);
    if (rc == 0) (void)kro_tls_send_out(c, false, 0, UINT64_MAX);
    c->send.unlock();
    if (rc == 0 && kro_tls_out_pending(c)) kro_tls_try_flush(c);
    return rc;
}

/* The first bytes ever written, up to what the out BIO holds now. */
static uint64_t kro_tls_written(kro_tls_conn *c) KRO_REQUIRES(c->ssl)
{
    return c->taken + BIO_ctrl_pending(c->out);
}

/* The code and recorded reason of a failed recv or send (result rc). */
static t_kro_error kro_tls_io_failure(t_kro_socket socket, int rc, bool handshake)
{
    if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
    if (rc == KRO_TLS_EOF) {
        kro_socket_detail_set(socket, handshake ? "the service closed the connection during the TLS handshake "
                                                  "(is it a plain TCP port?)"
                                                : "the service closed the connection without ending the TLS session");
        return handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_PEER_CLOSED;
    }
    kro_em_net_error_set(rc);
    if (rc == ETIMEDOUT) {
        if (handshake) kro_socket_detail_set(socket, "TLS handshake timed out");
        return handshake ? KRO_ERR_TLS_TIMEOUT : KRO_ERR_TIMEOUT;
    }
    kro_socket_detail_set(socket, std::string(handshake ? "TLS handshake failed: " : "") + strerror(rc));
    return handshake ? KRO_ERR_TLS_HANDSHAKE : KRO_ERR_NET;
}

/* ---- the connection ---- */

void kro_tls_conn_free(kro_tls_conn **conn)
{
    kro_tls_conn *c = *conn;
    if (c == nullptr) return;
    SSL_free(c->tls); // and the BIOs it owns
    delete c;
    *conn = nullptr;
}

/* A name is a numeric address when inet_pton takes it. */
static bool kro_tls_is_address(const char *name)
{
    unsigned char buf[16];
    return inet_pton(AF_INET, name, buf) == 1 || inet_pton(AF_INET6, name, buf) == 1;
}

/* Hands n received bytes to OpenSSL. */
static void kro_tls_take_in(kro_tls_conn *c, size_t n) KRO_REQUIRES(c->ssl)
{
    KRO_CHECK(BIO_write(c->in, c->raw, (int)n) == (int)n);
}

t_kro_error kro_tls_conn_open(t_kro_socket socket, t_kro_tls tls, const char *name, int fd, kro_tls_conn **conn)
{
    kro_tls_conn *c = new (std::nothrow) kro_tls_conn;
    *conn = nullptr;
    if (c == nullptr) return KRO_ERR_NO_MEMORY;
    c->fd = fd;
    c->has_cert = tls->has_cert;
    {
        Guard guard(c->ssl);
        ERR_clear_error();
        c->tls = SSL_new(tls->ctx);
        c->in = c->tls != nullptr ? BIO_new(BIO_s_mem()) : nullptr;
        c->out = c->in != nullptr ? BIO_new(BIO_s_mem()) : nullptr;
        if (c->out == nullptr) {
            BIO_free(c->in);
            kro_socket_detail_set(socket, "cannot set up TLS: " + kro_tls_reason("no memory"));
        } else {
            BIO_set_mem_eof_return(c->in, -1); // empty: "read again later", never the end
            SSL_set_bio(c->tls, c->in, c->out);
            SSL_set_app_data(c->tls, c);
            SSL_set_hostflags(c->tls, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        }
    }
    if (c->out == nullptr) {
        kro_tls_conn_free(&c);
        return KRO_ERR_NO_MEMORY;
    }
    /* The name check is the point of verification: no name, no handshake. */
    bool address = kro_tls_is_address(name), named;
    {
        Guard guard(c->ssl);
        named = address ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(c->tls), name) == 1
                        : SSL_set1_host(c->tls, name) == 1;
        if (named && !address) SSL_set_tlsext_host_name(c->tls, name); // SNI; optional
    }
    if (!named) {
        kro_socket_detail_set(socket, std::string("cannot check the service's certificate for the name ") + name);
        kro_tls_conn_free(&c);
        return KRO_ERR_TLS_CONFIG;
    }
    t_kro_error error = 0;
    for (;;) {
        int rc, err = SSL_ERROR_NONE, io;
        size_t n = 0;
        uint64_t written;
        {
            Guard guard(c->ssl);
            ERR_clear_error();
            rc = SSL_connect(c->tls);
            if (rc != 1) err = SSL_get_error(c->tls, rc);
            if (rc == 1) c->established = true;
            /* Bytes already received past the handshake wait for the reader. */
            if (rc == 1) c->buffered = SSL_pending(c->tls) > 0 || BIO_ctrl_pending(c->in) > 0;
            if (rc != 1 && err != SSL_ERROR_WANT_READ) error = kro_tls_failure(socket, c, err, true);
            written = kro_tls_written(c);
        }
        /* What the handshake wrote goes out first, an alert of a failure too. */
        io = kro_tls_flush(c, kro_tls_socket_deadline(socket), written);
        if (error != 0 || rc == 1) break;
        if (io == 0) io = kro_tls_recv(socket, c, &n);
        if (io != 0) {
            error = kro_tls_io_failure(socket, io, true);
            break;
        }
        Guard guard(c->ssl);
        kro_tls_take_in(c, n);
    }
    if (error != 0) kro_tls_conn_free(&c);
    *conn = c;
    return error;
}

/* Decrypts what OpenSSL holds first; receives (one recv(), no lock held)
 * only when it holds no whole record. */
t_kro_error kro_tls_conn_read(t_kro_socket socket, kro_tls_conn *c, t_kro_byte *p, t_kro_uint4 n, t_kro_uint4 *got)
{
    *got = 0;
    for (;;) {
        if (c->buffered) {
            int rc, err = SSL_ERROR_NONE;
            bool wrote;
            t_kro_error error = 0;
            {
                Guard guard(c->ssl);
                ERR_clear_error();
                rc = SSL_read(c->tls, p, (int)(n > 0x7FFFFFFFu ? 0x7FFFFFFFu : n));
                if (rc <= 0) err = SSL_get_error(c->tls, rc);
                /* After WANT_READ no whole record is left: receive first. */
                c->buffered = rc > 0 && (SSL_pending(c->tls) > 0 || BIO_ctrl_pending(c->in) > 0);
                wrote = BIO_ctrl_pending(c->out) > 0; // an alert
                if (rc <= 0 && err != SSL_ERROR_WANT_READ && !kro_socket_is_interrupted(socket))
                    error = kro_tls_failure(socket, c, err, false);
            }
            if (wrote) kro_tls_try_flush(c);
            if (rc > 0) {
                *got = (t_kro_uint4)rc;
                return 0;
            }
            if (kro_socket_is_interrupted(socket)) return KRO_ERR_INTERRUPTED;
            if (error != 0) return error;
        } else if (kro_socket_is_interrupted(socket)) {
            return KRO_ERR_INTERRUPTED;
        }
        size_t received = 0;
        int io = kro_tls_recv(socket, c, &received);
        if (io != 0) return kro_tls_io_failure(socket, io, false);
        Guard guard(c->ssl);
        kro_tls_take_in(c, received);
        c->buffered = true;
    }
}

/* Encrypts n bytes at p (at most kChunk), adds them to *sent once
 * encrypted (they are on their way whatever follows), and sends them with
 * everything written before them, within the deadline. */
static t_kro_error kro_tls_commit(t_kro_socket socket, kro_tls_conn *c, const t_kro_byte *p, t_kro_uint4 n,
                                  uint64_t deadline, t_kro_uint4 *sent)
{
    int rc;
    t_kro_error error = 0;
    uint64_t written;
    {
        Guard guard(c->ssl);
        ERR_clear_error();
        rc = SSL_write(c->tls, p, (int)n);
        if (rc <= 0 && !kro_socket_is_interrupted(socket))
            error = kro_tls_failure(socket, c, SSL_get_error(c->tls, rc), false);
        written = kro_tls_written(c);
    }
    if (rc <= 0) return kro_socket_is_interrupted(socket) ? KRO_ERR_INTERRUPTED : error;
    KRO_CHECK((t_kro_uint4)rc == n); // a memory BIO takes every record
    *sent += n;
    int io = kro_tls_flush(c, deadline, written);
    return io == 0 ? 0 : kro_tls_io_failure(socket, io, false);
}

/* Nothing is encrypted before what others left is out and the socket
 * takes bytes, so a deadline that passes first leaves the stream as it
 * was (nothing sent). Then the chunks go in records: pieces under kStage
 * bytes copied together (a small packet is one record), larger ones
 * encrypted where they are, at most kChunk bytes at a time. */
t_kro_error kro_tls_conn_write(t_kro_socket socket, kro_tls_conn *c, const t_kro_socket_chunk *chunks,
                               t_kro_uint4 count, uint64_t deadline, t_kro_uint4 *sent)
{
    t_kro_byte stage[kStage];
    t_kro_uint4 staged = 0;
    t_kro_error error = 0;
    *sent = 0;
    c->send.lock();
    int io = kro_tls_send_out(c, true, deadline, UINT64_MAX);
    if (io == 0 && deadline != 0) io = kro_tls_poll(c, POLLOUT, deadline);
    c->send.unlock();
    if (io != 0) return kro_tls_io_failure(socket, io, false);
    for (t_kro_uint4 i = 0; i < count && error == 0; i++) {
        const t_kro_byte *p = (const t_kro_byte *)chunks[i].ptr;
        t_kro_uint4 left = chunks[i].len;
        while (left > 0 && error == 0) {
            t_kro_uint4 take;
            if (staged == 0 && left >= kStage) { // large: encrypted where it is
                take = left < kChunk ? left : kChunk;
                error = kro_tls_commit(socket, c, p, take, deadline, sent);
            } else {
                take = left < kStage - staged ? left : kStage - staged;
                memcpy(stage + staged, p, take);
                staged += take;
                if (staged == kStage) error = kro_tls_commit(socket, c, stage, staged, deadline, sent), staged = 0;
            }
            p += take;
            left -= take;
        }
    }
    if (error == 0 && staged > 0) error = kro_tls_commit(socket, c, stage, staged, deadline, sent);
    return error;
}

void kro_tls_conn_close_notify(kro_tls_conn *c)
{
    {
        Guard guard(c->ssl);
        if (!c->established) return;
        ERR_clear_error();
        SSL_shutdown(c->tls);
        ERR_clear_error();
    }
    kro_tls_try_flush(c);
}
