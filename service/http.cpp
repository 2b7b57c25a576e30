/*
 * http.cpp - hspaced's HTTP endpoint (http.h) on cpp-httplib.
 */
#include "http.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <httplib.h>

#include "metrics.h"

namespace hspace {
namespace service {

namespace {

constexpr time_t kIoSeconds = 2;               // bound of each read and write of a request's socket
constexpr size_t kMaxBody = 1024;              // a request's body: none is needed

// Answers 200 "ok", or 503 with why, from a check.
void answer(httplib::Response &res, const std::function<bool(std::string *)> &check)
{
    std::string why;
    if (check(&why)) {
        res.status = 200;
        res.set_content("ok\n", "text/plain; charset=utf-8");
    } else {
        res.status = 503;
        res.set_content(why + "\n", "text/plain; charset=utf-8");
    }
}

} // namespace

HttpEndpoint::HttpEndpoint(HttpHandlers handlers) : handlers_(std::move(handlers)) {}

HttpEndpoint::~HttpEndpoint()
{
    stop();
}

bool HttpEndpoint::split(const std::string &address, std::string *host, uint16_t *port)
{
    size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == address.size() || address.size() - colon > 6)
        return false;
    std::string digits = address.substr(colon + 1);
    if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long n = std::stoul(digits);
    if (n > 65535) return false;
    std::string h = address.substr(0, colon);
    if (h.front() == '[') {
        if (h.size() < 3 || h.back() != ']') return false;
        h = h.substr(1, h.size() - 2);
    } else if (h.find(':') != std::string::npos) {
        return false; // an IPv6 address goes between brackets
    }
    *host = h;
    *port = static_cast<uint16_t>(n);
    return true;
}

bool HttpEndpoint::start(const std::string &address, std::string *error)
{
    std::string host;
    uint16_t port = 0;
    if (server_ || !split(address, &host, &port)) {
        *error = server_ ? "the HTTP endpoint was started before"
                         : "'" + address + "' is not HOST:PORT (an IPv6 host between brackets)";
        return false;
    }
    server_.reset(new httplib::Server);
    httplib::Server &s = *server_;
    // One thread answers: a scrape or a probe is short, and a client that
    // stalls holds it for kIoSeconds at most.
    s.new_task_queue = [] { return new httplib::ThreadPool(1); };
    s.set_read_timeout(kIoSeconds, 0);
    s.set_write_timeout(kIoSeconds, 0);
    s.set_keep_alive_timeout(kIoSeconds);
    s.set_payload_max_length(kMaxBody);
    // SO_REUSEADDR only: the library's default adds SO_REUSEPORT, which
    // would let a second service bind the same address and take half the
    // scrapes instead of failing to start.
    s.set_socket_options([](int sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    s.Get("/metrics", [this](const httplib::Request &, httplib::Response &res) {
        res.set_content(handlers_.metrics(), metrics::kContentType);
    });
    s.Get("/health", [this](const httplib::Request &, httplib::Response &res) { answer(res, handlers_.health); });
    s.Get("/ready", [this](const httplib::Request &, httplib::Response &res) { answer(res, handlers_.ready); });

    errno = 0;
    int bound = port == 0 ? s.bind_to_any_port(host) : (s.bind_to_port(host, port) ? port : -1);
    if (bound <= 0) {
        int e = errno;
        *error = "cannot listen on " + address + " for HTTP" + (e != 0 ? std::string(": ") + strerror(e) : "");
        server_.reset();
        return false;
    }
    port_ = static_cast<uint16_t>(bound);
    loop_ended_ = false;
    thread_ = std::thread([this, &s] {
        s.listen_after_bind();
        loop_ended_ = true;
    });
    // stop() does nothing to a server whose loop has not begun: it begins
    // before start() returns, at once (the socket is bound).
    while (!s.is_running() && !loop_ended_) std::this_thread::yield();
    return true;
}

void HttpEndpoint::stop()
{
    if (!thread_.joinable()) return;
    server_->stop();
    thread_.join();
    server_.reset();
}

} // namespace service
} // namespace hspace
