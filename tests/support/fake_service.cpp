/*
 * fake_service.cpp - the scriptable fake hspace service of the tests. Every
 * wait is a poll() on a non-blocking socket, bounded by the watchdog. Sends
 * use MSG_NOSIGNAL: a vanished client never raises SIGPIPE.
 */
#include "fake_service.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

} // namespace

FakeConnection::~FakeConnection() { close(); }

FakeConnection::FakeConnection(FakeConnection &&other) noexcept { *this = std::move(other); }

FakeConnection &FakeConnection::operator=(FakeConnection &&other) noexcept
{
    if (this != &other) {
        close();
        fd_ = other.fd_;
        other.fd_ = -1;
        in_ = std::move(other.in_);
        batch_ = std::move(other.batch_);
        batching_ = other.batching_;
    }
    return *this;
}

FakeConnection::Io FakeConnection::read_some(Clock::time_point deadline, const char *what)
{
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
    for (size_t done = 0; done < bytes.size();) {
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
    return !in_.empty() || wait_for(fd_, POLLIN, Clock::now() + kDefaultWatchdog, "bytes from the client");
}

void FakeConnection::close()
{
    if (fd_ < 0) return;
    // Take what the client already sent, so the close is a FIN and not a
    // reset for unread data.
    char buf[4096];
    while (recv(fd_, buf, sizeof buf, 0) > 0) {
    }
    shutdown(fd_, SHUT_WR);
    ::close(fd_);
    fd_ = -1;
}

void FakeConnection::reset()
{
    if (fd_ < 0) return;
    struct linger lg = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
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
        return FakeConnection(fd);
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
