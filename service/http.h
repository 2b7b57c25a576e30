/*
 * http.h - hspaced's HTTP endpoint for operators: GET /metrics (the
 * Prometheus text exposition), GET /health and GET /ready (200 "ok", or 503
 * with the reason as text). Anything else is 404; only GET and HEAD are
 * served.
 *
 * Served by cpp-httplib on threads of its own (one that accepts, one that
 * answers), never the service's I/O thread: the handlers read only what is
 * safe from any thread (atomics, the store's health query).
 */
#ifndef HSPACE_SERVICE_HTTP_H
#define HSPACE_SERVICE_HTTP_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace hspace {
namespace service {

struct HttpHandlers {
    std::function<std::string()> metrics;          // the exposition's text
    std::function<bool(std::string *why)> health;  // true, or false with why
    std::function<bool(std::string *why)> ready;   // true, or false with why
};

class HttpEndpoint {
public:
    // The handlers are called from the endpoint's thread, until stop().
    explicit HttpEndpoint(HttpHandlers handlers);
    // Stops it if it runs.
    ~HttpEndpoint();
    HttpEndpoint(const HttpEndpoint &) = delete;
    HttpEndpoint &operator=(const HttpEndpoint &) = delete;

    // Binds HOST:PORT (an IPv6 host between brackets; port 0 picks a free
    // one) and starts serving. False, with why in *error, when the address
    // is malformed or cannot be bound. Once.
    bool start(const std::string &address, std::string *error);
    // Stops serving and joins its threads; a request being answered is
    // finished first (its socket's reads and writes are bounded by 2 s).
    // Idempotent.
    void stop();
    // The port bound, after a successful start.
    uint16_t port() const { return port_; }

    // Splits "HOST:PORT" (or "[V6]:PORT"); false when it is not one.
    static bool split(const std::string &address, std::string *host, uint16_t *port);

private:
    HttpHandlers handlers_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;                       // runs the accept loop, from start() to stop()
    std::atomic<bool> loop_ended_{false};      // the accept loop returned
    uint16_t port_ = 0;
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_HTTP_H */
