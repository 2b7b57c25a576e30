/*
 * fake_service.cpp - the scriptable fake hspace service of the tests. Every
 * wait is a poll() on a non-blocking socket, bounded by the watchdog. Sends
 * use MSG_NOSIGNAL, and TLS calls block SIGPIPE on their thread and take
 * back one it raised: a vanished client never ends the test process, and
 * SIGPIPE stays deadly for the library under test.
 */
#include "fake_service.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace hspace {
namespace test {

using Clock = std::chrono::steady_clock;

namespace {

// True once fd reports one of events; false, and a failure naming what was
// awaited, when fd is -1 or the deadline passes.
bool wait_for(int fd, short events, Clock::time_point deadline, const char *what)
{
    const char *why = "no socket";
    while (fd >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        struct pollfd pfd = {fd, events, 0};
        int n = left.count() < 0 ? 0 : poll(&pfd, 1, static_cast<int>(left.count()) + 1);
        if (n < 0 && errno == EINTR) continue;
        why = n < 0 ? strerror(errno) : left.count() < 0 ? "watchdog" : nullptr;
        if (why != nullptr) break;
        if (pfd.revents != 0) return true;
    }
    ADD_FAILURE() << "fake service: " << why << " while waiting for " << what;
    return false;
}

// Runs one OpenSSL call with SIGPIPE blocked on this thread; a SIGPIPE it
// raised is taken back before the mask is restored.
template <class F> int NoSigpipe(F call)
{
    sigset_t pipe, old;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &old);
    int rc = call();
    struct timespec zero = {0, 0};
    while (sigtimedwait(&pipe, nullptr, &zero) == SIGPIPE) {
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return rc;
}

std::string TlsReason()
{
    unsigned long e = ERR_get_error();
    ERR_clear_error();
    const char *r = e != 0 ? ERR_reason_error_string(e) : nullptr;
    return r != nullptr ? r : "the connection ended";
}

} // namespace

FakeConnection::~FakeConnection() { close(); }

FakeConnection::FakeConnection(FakeConnection &&other) noexcept { *this = std::move(other); }

FakeConnection &FakeConnection::operator=(FakeConnection &&other) noexcept
{
    if (this != &other) {
        close();
        fd_ = other.fd_;
        other.fd_ = -1;
        ssl_ = other.ssl_;
        other.ssl_ = nullptr;
        key_updates_ = std::move(other.key_updates_);
        key_updates_seen_ = other.key_updates_seen_;
        tls_error_ = std::move(other.tls_error_);
        in_ = std::move(other.in_);
        batch_ = std::move(other.batch_);
        batching_ = other.batching_;
    }
    return *this;
}

bool FakeConnection::start_tls(SSL_CTX *ctx)
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    ssl_ = SSL_new(ctx);
    if (ssl_ == nullptr || SSL_set_fd(ssl_, fd_) != 1) {
        tls_error_ = "cannot make a TLS session";
        return false;
    }
    key_updates_.reset(new int(0));
    SSL_set_msg_callback_arg(ssl_, key_updates_.get());
    SSL_set_msg_callback(ssl_, [](int write_p, int, int type, const void *buf, size_t len, SSL *, void *arg) {
        if (!write_p && type == SSL3_RT_HANDSHAKE && len > 0 && *static_cast<const uint8_t *>(buf) == SSL3_MT_KEY_UPDATE)
            ++*static_cast<int *>(arg);
    });
    for (;;) {
        ERR_clear_error();
        int rc = NoSigpipe([&] { return SSL_accept(ssl_); });
        if (rc == 1) return true;
        int err = SSL_get_error(ssl_, rc);
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) {
            tls_error_ = TlsReason();
            break;
        }
        if (!wait_for(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, "the client's TLS handshake")) {
            tls_error_ = "watchdog";
            break;
        }
    }
    SSL_free(ssl_);
    ssl_ = nullptr;
    return false;
}

FakeConnection::Io FakeConnection::read_some(Clock::time_point deadline, const char *what)
{
    if (!tls_error_.empty()) {
        ADD_FAILURE() << "fake service: reading " << what << " after the TLS handshake failed: " << tls_error_;
        return Io::Failed;
    }
    if (ssl_ != nullptr) {
        for (;;) {
            char buf[65536];
            ERR_clear_error();
            int n = NoSigpipe([&] { return SSL_read(ssl_, buf, sizeof buf); });
            if (n > 0) {
                in_.append(buf, static_cast<size_t>(n));
                return Io::Ready;
            }
            int err = SSL_get_error(ssl_, n);
            if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) return ERR_clear_error(), Io::Closed;
            if (!wait_for(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, what)) return Io::Failed;
        }
    }
    for (;;) {
        if (!wait_for(fd_, POLLIN, deadline, what)) return Io::Failed;
        char buf[65536];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n > 0) {
            in_.append(buf, static_cast<size_t>(n));
            return Io::Ready;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
        return Io::Closed;
    }
}

Packet FakeConnection::next_packet()
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    for (;;) {
        codec::FrameResult f = codec::frame(in_);
        if (f.status == codec::FrameStatus::Complete) {
            Packet p;
            bool ok = codec::decode(reinterpret_cast<const uint8_t *>(in_.data()), f.wirelen, p);
            in_.erase(0, f.wirelen);
            if (ok) return p;
            ADD_FAILURE() << "fake service: the client sent a packet whose fields do not fit its sections";
            return Packet();
        }
        Io io = f.status == codec::FrameStatus::Invalid ? Io::Closed : read_some(deadline, "packet from the client");
        if (io == Io::Closed) ADD_FAILURE() << "fake service: the client sent no valid packet before its close";
        if (io != Io::Ready) return Packet();
    }
}

Packet FakeConnection::expect_handshake()
{
    Packet p = next_packet();
    if (p.wirelen != 0 && !p.handshake_request) {
        ADD_FAILURE() << "fake service: expected a handshake request, got body type " << p.body_type;
        return Packet();
    }
    return p;
}

Packet FakeConnection::handshake(uint16_t ltp, const std::string &name, uint16_t version)
{
    Packet p = expect_handshake();
    std::string b;
    codec::encode_handshake_reply(b, version, ltp, name);
    if (p.wirelen != 0) send(b);
    return p;
}

bool FakeConnection::reply(uint32_t corrid, uint32_t status)
{
    std::string b;
    codec::encode_reply(b, corrid, status);
    return send(b);
}

bool FakeConnection::object(uint32_t corrid, uint8_t opcode, const std::string &key, const std::string &value,
                            uint32_t count, uint32_t num, int32_t flags)
{
    std::string b;
    codec::encode_object(b, corrid, opcode, key, value, count, num, flags);
    return send(b);
}

bool FakeConnection::objects(uint32_t corrid, uint8_t opcode, const std::vector<std::pair<std::string, std::string>> &kv)
{
    std::string b;
    uint32_t n = static_cast<uint32_t>(kv.size());
    for (uint32_t i = 0; i < n; i++) codec::encode_object(b, corrid, opcode, kv[i].first, kv[i].second, n, i + 1);
    return send(b);
}

bool FakeConnection::notify(const std::string &key, uint8_t trigger, const std::string &value)
{
    std::string b;
    codec::encode_notification(b, key, trigger, value);
    return send(b);
}

bool FakeConnection::send_raw_bytewise(const std::string &bytes)
{
    for (char c : bytes)
        if (!send(std::string(1, c))) return false;
    return true;
}

bool FakeConnection::flush()
{
    batching_ = false;
    std::string bytes;
    bytes.swap(batch_);
    return write_all(bytes);
}

bool FakeConnection::send(const std::string &bytes)
{
    if (batching_) batch_.append(bytes);
    return batching_ || write_all(bytes);
}

bool FakeConnection::write_all(const std::string &bytes)
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    if (!tls_error_.empty()) {
        ADD_FAILURE() << "fake service: writing after the TLS handshake failed: " << tls_error_;
        return false;
    }
    for (size_t done = 0; ssl_ != nullptr && done < bytes.size();) {
        ERR_clear_error();
        int n = NoSigpipe([&] { return SSL_write(ssl_, bytes.data() + done, static_cast<int>(bytes.size() - done)); });
        int err = n > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl_, n);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) {
            ADD_FAILURE() << "fake service: TLS write: " << TlsReason();
            return false;
        } else if (!wait_for(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, "the client to read")) {
            return false;
        }
    }
    for (size_t done = 0; ssl_ == nullptr && done < bytes.size();) {
        ssize_t n = fd_ < 0 ? -1 : ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n >= 0) {
            done += static_cast<size_t>(n);
        } else if (fd_ >= 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            ADD_FAILURE() << "fake service: send: " << strerror(errno);
            return false;
        } else if (fd_ < 0 || errno != EINTR) {
            if (!wait_for(fd_, POLLOUT, deadline, "the client to read")) return false;
        }
    }
    return true;
}

bool FakeConnection::key_update()
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    if (key_updates_ != nullptr) key_updates_seen_ = *key_updates_;
    if (ssl_ == nullptr || SSL_key_update(ssl_, SSL_KEY_UPDATE_REQUESTED) != 1) {
        ADD_FAILURE() << "fake service: no TLS 1.3 session to update the keys of";
        return false;
    }
    for (;;) { // the message goes out with the next handshake step
        int rc = NoSigpipe([&] { return SSL_do_handshake(ssl_); });
        if (rc == 1) return true;
        int err = SSL_get_error(ssl_, rc);
        if (err != SSL_ERROR_WANT_WRITE && err != SSL_ERROR_WANT_READ) {
            ADD_FAILURE() << "fake service: key update: " << TlsReason();
            return false;
        }
        if (!wait_for(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, "the client to read")) return false;
    }
}

bool FakeConnection::await_key_update()
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    while (key_updates_ != nullptr && *key_updates_ == key_updates_seen_) {
        char buf[65536];
        ERR_clear_error();
        int n = NoSigpipe([&] { return SSL_read(ssl_, buf, sizeof buf); });
        if (n > 0) {
            in_.append(buf, static_cast<size_t>(n));
            continue;
        }
        int err = SSL_get_error(ssl_, n);
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) break;
        if (*key_updates_ != key_updates_seen_) break;
        if (!wait_for(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, "the client's key update")) break;
    }
    if (key_updates_ == nullptr || *key_updates_ == key_updates_seen_) {
        ADD_FAILURE() << "fake service: no key update from the client";
        return false;
    }
    return true;
}

bool FakeConnection::send_beneath_tls(const std::string &bytes)
{
    SSL *ssl = ssl_;
    ssl_ = nullptr; // write_all's plain path
    bool ok = write_all(bytes);
    ssl_ = ssl;
    return ok;
}

std::string FakeConnection::read_until_tls_fails()
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    while (ssl_ != nullptr) {
        char buf[65536];
        ERR_clear_error();
        int n = NoSigpipe([&] { return SSL_read(ssl_, buf, sizeof buf); });
        if (n > 0) {
            in_.append(buf, static_cast<size_t>(n));
            continue;
        }
        int err = SSL_get_error(ssl_, n);
        if (err == SSL_ERROR_ZERO_RETURN) return "close notify";
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) return TlsReason();
        if (!wait_for(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline, "the TLS session to fail"))
            return "watchdog";
    }
    return "no TLS session";
}

bool FakeConnection::wait_closed()
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    for (;;) {
        Io io = read_some(deadline, "close by the client");
        if (io == Io::Closed) return true;
        if (io == Io::Failed) return false;
    }
}

bool FakeConnection::wait_readable()
{
    return !in_.empty() || (ssl_ != nullptr && SSL_pending(ssl_) > 0) ||
           wait_for(fd_, POLLIN, Clock::now() + kDefaultWatchdog, "bytes from the client");
}

void FakeConnection::close()
{
    if (fd_ < 0) return;
    // Take what the client already sent, so the close is a FIN and not a
    // reset for unread data.
    char buf[4096];
    while (recv(fd_, buf, sizeof buf, 0) > 0) {
    }
    if (ssl_ != nullptr) NoSigpipe([&] { return SSL_shutdown(ssl_); }), ERR_clear_error(); // close_notify
    shutdown(fd_, SHUT_WR);
    reset_fd();
}

void FakeConnection::reset()
{
    if (fd_ < 0) return;
    struct linger lg = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    reset_fd();
}

void FakeConnection::reset_fd()
{
    SSL_free(ssl_);
    ssl_ = nullptr;
    ::close(fd_);
    fd_ = -1;
}

void FakeService::listen()
{
    if (listen_fd_ >= 0 && ::listen(listen_fd_, 16) != 0)
        ADD_FAILURE() << "fake service: cannot listen on 127.0.0.1: " << strerror(errno);
}

FakeService::FakeService(Deferred)
{
    struct sockaddr_in addr = {};
    socklen_t len = sizeof addr;
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<struct sockaddr *>(&addr), &len) != 0) {
        ADD_FAILURE() << "fake service: cannot bind on 127.0.0.1: " << strerror(errno);
        return;
    }
    port_ = ntohs(addr.sin_port);
}

void FakeService::use_tls(const FakeTls &tls)
{
    tls_ = SSL_CTX_new(TLS_server_method());
    bool ok = tls_ != nullptr && SSL_CTX_use_certificate_chain_file(tls_, tls.cert.c_str()) == 1 &&
              SSL_CTX_use_PrivateKey_file(tls_, tls.key.c_str(), SSL_FILETYPE_PEM) == 1;
    if (ok && tls.min_version != 0) {
        SSL_CTX_set_security_level(tls_, 0); // old versions too, as a peer that still speaks them
        ok = SSL_CTX_set_min_proto_version(tls_, tls.min_version) == 1;
    }
    if (ok && tls.max_version != 0) ok = SSL_CTX_set_max_proto_version(tls_, tls.max_version) == 1;
    if (ok && !tls.client_ca.empty()) {
        SSL_CTX_set_verify(tls_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        ok = SSL_CTX_load_verify_locations(tls_, tls.client_ca.c_str(), nullptr) == 1;
    }
    if (ok) SSL_CTX_set_num_tickets(tls_, 0);
    if (!ok) ADD_FAILURE() << "fake service: cannot set up TLS: " << TlsReason();
}

FakeService::~FakeService()
{
    if (worker_.joinable()) {
        join();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
            cond_.notify_all();
        }
        worker_.join();
    }
    done_.clear();
    if (listen_fd_ >= 0) ::close(listen_fd_);
    SSL_CTX_free(tls_);
}

FakeConnection FakeService::accept()
{
    Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
    for (;;) {
        if (!wait_for(listen_fd_, POLLIN, deadline, "a client to connect")) return FakeConnection();
        int fd = accept4(listen_fd_, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED)) continue;
        if (fd < 0) {
            ADD_FAILURE() << "fake service: accept: " << strerror(errno);
            return FakeConnection();
        }
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        FakeConnection conn(fd);
        if (tls_ != nullptr) conn.start_tls(tls_); // a failure stays in conn.tls_error()
        return conn;
    }
}

void FakeService::serve(std::function<void(FakeConnection &)> script)
{
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_.push_back(std::move(script));
    if (!worker_.joinable()) worker_ = std::thread(&FakeService::run_scripts, this);
    cond_.notify_all();
}

bool FakeService::join()
{
    std::unique_lock<std::mutex> lock(mutex_);
    auto idle = [this] { return scripts_.empty() && !busy_; };
    if (cond_.wait_for(lock, kDefaultWatchdog, idle)) return true;
    ADD_FAILURE() << "fake service: watchdog: scripts still running after " << kDefaultWatchdog.count() << " ms";
    scripts_.clear(); // the running one returns once its bounded calls have
    cond_.wait(lock, idle);
    return false;
}

FakeConnection FakeService::take_connection()
{
    std::lock_guard<std::mutex> lock(mutex_);
    FakeConnection conn;
    if (done_.empty()) ADD_FAILURE() << "fake service: no finished script holds a connection";
    else conn = std::move(done_.front()), done_.pop_front();
    return conn;
}

// Background thread: runs the queued scripts in order, each with the next
// accepted connection, and keeps the connection when the script returns.
void FakeService::run_scripts()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        cond_.wait(lock, [this] { return quit_ || !scripts_.empty(); });
        if (quit_) return;
        std::function<void(FakeConnection &)> script = std::move(scripts_.front());
        scripts_.pop_front();
        busy_ = true;
        lock.unlock();
        FakeConnection conn = accept();
        if (conn.valid()) script(conn);
        lock.lock();
        if (conn.valid()) done_.push_back(std::move(conn));
        busy_ = false;
        cond_.notify_all();
    }
}

void Signal::raise()
{
    std::lock_guard<std::mutex> lock(mutex_);
    raised_ = true;
    cond_.notify_all();
}

bool Signal::wait(std::chrono::milliseconds bound)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (cond_.wait_for(lock, bound, [this] { return raised_; })) return true;
    ADD_FAILURE() << "fake service: watchdog: signal not raised within " << bound.count() << " ms";
    return false;
}

} // namespace test
} // namespace hspace
