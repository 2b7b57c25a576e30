/*
 * server.h - the reference hspace service as a library: a keyed object
 * store that speaks the hspace wire protocol to any number of clients over
 * TCP, keeping its objects in memory or in an etcd cluster (Options::store).
 *
 *   hspace::service::Server server;            // 127.0.0.1, ephemeral port
 *   if (!server.start(&error)) ...;
 *   connect clients to server.url() ...
 *   server.stop();                             // also done by the destructor
 *
 * One I/O thread, owned by the server, runs every connection and owns the
 * store; nothing of it is shared with the caller except the counters of
 * stats(), and with the HTTP endpoint (Options::http) the metrics and the
 * store's health, which are safe to read from its threads. With the memory store nothing is persisted; with the etcd store
 * the service is stateless and any number of instances share the data.
 */
#ifndef HSPACE_SERVICE_SERVER_H
#define HSPACE_SERVICE_SERVER_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "log.h"

namespace hspace {
namespace service {

class Acl;
class Listener;
class Store;

constexpr uint16_t kDefaultPort = 7521;                 // hspaced's port when none is given
constexpr size_t kDefaultMaxQueue = size_t(64) << 20;   // bytes a connection may have queued, unsent
constexpr size_t kDefaultMaxMemory = size_t(1) << 30;   // bytes all connections may hold together
constexpr unsigned kDefaultHandshakeTimeoutMs = 5000;   // time a new connection has to send its handshake
constexpr size_t kDefaultMaxConnections = 10000;        // connections served at once
constexpr size_t kDefaultMaxSubscriptions = 10000;      // subscriptions of one connection

struct Options {
    std::string host = "127.0.0.1";            // address to listen on (numeric IPv4 or IPv6)
    uint16_t port = 0;                         // port to listen on; 0 picks a free one
    std::string name = "hspaced";              // service name sent in the handshake reply
    uint16_t ltp = 1;                          // service_ltp sent in the handshake reply; nonzero
    size_t max_queue = kDefaultMaxQueue;       // unsent bytes per connection: notifications over it drop the
                                               // connection, answers over it hold its requests; bounds values too
    size_t max_memory = kDefaultMaxMemory;     // bytes held for all connections together: their read buffers and
                                               // unsent packets. Past half of it, a connection holding more than
                                               // its share reads no request until it has sent; past all of it,
                                               // the connection holding the most is dropped
    unsigned handshake_timeout_ms = kDefaultHandshakeTimeoutMs; // a connection that has not sent its handshake
                                               // this long after it was accepted is closed; 0: no deadline
    size_t max_connections = kDefaultMaxConnections; // connections served at once; one more is answered with
                                               // status 1107 and closed at once
    size_t max_subscriptions = kDefaultMaxSubscriptions; // subscriptions of one connection; a post over it is
                                               // answered with status 1106
    bool log = false;                          // log events (log.h) at log_level and above; false: none
    LogLevel log_level = LogLevel::info;       // the least severe level logged
    LogFormat log_format = LogFormat::text;    // key=value text or JSON lines
    LogSink log_sink;                          // where lines go; null: standard error
    // "HOST:PORT" of the HTTP endpoint serving GET /metrics, /health and
    // /ready (http.h), on threads of its own; port 0 picks a free one.
    // Empty: none.
    std::string http;
    // Where the objects live: "memory" (embedded, the default) or
    // "etcd://HOST:PORT[,HOST:PORT...]" (every member of an etcd cluster,
    // tried in turn).
    std::string store = "memory";
    std::string store_prefix = "hspace/";      // etcd: every object's key is stored under this prefix
    unsigned store_timeout_ms = 3000;          // etcd: bound of each call (a post's start included)
    // When set, makes the store instead of `store` names (start() calls it
    // on the owning thread; the store then lives on the I/O thread): for
    // tests that drive the protocol over a store of their own.
    std::function<std::unique_ptr<Store>(Listener &listener)> store_factory;
    // etcd's link: TLS when any of the three files is named (the members'
    // certificates checked against store_cacert, or the system's CAs when
    // it is empty; a client certificate when store_cert and store_key are
    // named), and etcd's own authentication when store_user is set, with
    // the password read from store_password_file. Either makes start()
    // check the link and the login, and fail with the reason.
    std::string store_cacert;                  // etcd: CA certificates (PEM file)
    std::string store_cert;                    // etcd: client certificate (PEM file)
    std::string store_key;                     // etcd: its private key (PEM file)
    std::string store_user;                    // etcd: user name
    std::string store_password_file;           // etcd: file whose first line is the user's password
    // Access rules (acl.h) every request is judged by; null: every client
    // may do everything. Null with acl_file set: start() loads the file.
    std::shared_ptr<const Acl> acl;
    std::string acl_file;                      // where reload() reads the rules again; empty: nowhere
    // TLS: with a certificate and its key (PEM files) the port speaks TLS
    // only (1.2 and newer); with a client CA too, every client must present
    // a certificate that CA signed, or its TLS handshake is refused.
    std::string tls_cert;
    std::string tls_key;
    std::string tls_client_ca;
};

// Counters of the service's life, readable from any thread while it runs.
struct Stats {
    std::atomic<uint64_t> accepted{0};         // connections accepted
    std::atomic<uint64_t> open{0};             // connections open now
    std::atomic<uint64_t> dropped_invalid{0};  // connections closed for an invalid packet or handshake
    std::atomic<uint64_t> dropped_slow{0};     // connections closed for unsent notifications over max_queue
    std::atomic<uint64_t> dropped_memory{0};   // connections dropped as the heaviest while over max_memory
    std::atomic<uint64_t> dropped_handshake{0}; // connections closed for no handshake within the timeout
    std::atomic<uint64_t> refused{0};          // connections closed at accept: over max_connections, or
                                               // while the process had no descriptor left
    std::atomic<uint64_t> accept_pauses{0};    // times accepting failed and paused (e.g. out of descriptors)
    std::atomic<uint64_t> memory{0};           // bytes held for all connections now (see max_memory)
    std::atomic<uint64_t> denied{0};           // requests refused by the access rules
    std::atomic<uint64_t> identity_refused{0}; // handshakes refused: claims the certificate does not hold
    std::atomic<uint64_t> tls_refused{0};      // connections closed because their TLS handshake failed
};

// The service's machinery, private to server.cpp.
class Engine;

class Server {
public:
    explicit Server(Options options = Options());
    // Stops the service if it runs.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds, listens and starts the I/O thread. False, with the reason in
    // *error when error is not null, if the address cannot be used or the
    // server was started before. Call once, from the owning thread.
    bool start(std::string *error = nullptr);

    // Closes the listener and every connection, then joins the I/O thread.
    // Idempotent; not from the I/O thread.
    void stop();

    // Reads options.acl_file again and judges every later request by its
    // rules; subscriptions they no longer permit are ended, each with a
    // notification of trigger 4 whose value is "permission denied". When
    // the file cannot be read or has an error, the rules in force stay and
    // false is returned with the reason in *error (when not null). Without
    // an acl_file there is nothing to reload: true. Either way one line is
    // logged. Returns once the rules apply; from the owning thread, never
    // from the I/O thread.
    bool reload(std::string *error = nullptr);

    // The listening port, after a successful start.
    uint16_t port() const;
    // "tcp://HOST:PORT" of the listener ("tls://..." with TLS), after a
    // successful start.
    std::string url() const;
    // Counters; valid from construction to destruction.
    const Stats &stats() const;
    // The HTTP endpoint's port, after a successful start with Options::http.
    uint16_t http_port() const;

private:
    std::unique_ptr<Engine> engine_;           // the I/O context, listener, connections and store
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_SERVER_H */
