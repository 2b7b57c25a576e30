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
 * stats(). With the memory store nothing is persisted; with the etcd store
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

namespace hspace {
namespace service {

class Listener;
class Store;

constexpr uint16_t kDefaultPort = 7521;                 // hspaced's port when none is given
constexpr size_t kDefaultMaxQueue = size_t(64) << 20;   // bytes a connection may have queued, unsent

struct Options {
    std::string host = "127.0.0.1";            // address to listen on (numeric IPv4 or IPv6)
    uint16_t port = 0;                         // port to listen on; 0 picks a free one
    std::string name = "hspaced";              // service name sent in the handshake reply
    uint16_t ltp = 1;                          // service_ltp sent in the handshake reply; nonzero
    size_t max_queue = kDefaultMaxQueue;       // unsent bytes per connection: notifications over it drop the
                                               // connection, answers over it hold its requests; bounds values too
    bool log = false;                          // one line per connection event on stderr
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
};

// Counters of the service's life, readable from any thread while it runs.
struct Stats {
    std::atomic<uint64_t> accepted{0};         // connections accepted
    std::atomic<uint64_t> open{0};             // connections open now
    std::atomic<uint64_t> dropped_invalid{0};  // connections closed for an invalid packet or handshake
    std::atomic<uint64_t> dropped_slow{0};     // connections closed for unsent notifications over max_queue
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

    // The listening port, after a successful start.
    uint16_t port() const;
    // "tcp://HOST:PORT" of the listener, after a successful start.
    std::string url() const;
    // Counters; valid from construction to destruction.
    const Stats &stats() const;

private:
    std::unique_ptr<Engine> engine_;           // the I/O context, listener, connections and store
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_SERVER_H */
