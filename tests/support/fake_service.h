/*
 * fake_service.h - a scriptable hspace service for tests, on 127.0.0.1 and
 * an ephemeral port, in plain TCP or in TLS (FakeTls). Packets come from the
 * service's codec; send_raw() sends anything at all (inside TLS records
 * when the service speaks TLS). Every blocking call is bounded by
 * kDefaultWatchdog: when it runs out, or the peer misbehaves, the call
 * records a gtest failure and returns false or an empty packet instead of
 * hanging. Nothing sleeps.
 */
#ifndef QEL_TESTS_FAKE_SERVICE_H
#define QEL_TESTS_FAKE_SERVICE_H

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hspace_codec.h"

// OpenSSL's types, without its headers.
typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace hspace {
namespace test {

using codec::Packet;

constexpr std::chrono::milliseconds kDefaultWatchdog{10000}; // bound of every blocking call

// A service that speaks TLS: its certificate and key (PEM files) and, when
// client_ca is set, client certificates required from that CA.
struct FakeTls {
    std::string cert, key;
    std::string client_ca;  // empty: no client certificate asked for
    int max_version = 0;    // e.g. TLS1_2_VERSION; 0: the library's newest
    int min_version = 0;    // 0: the library's default
};

// One accepted connection; owns its socket, move-only. One thread at a time
// uses it (the test thread or one serve() script).
class FakeConnection {
public:
    FakeConnection() = default; // not connected: every call fails
    ~FakeConnection();
    FakeConnection(FakeConnection &&other) noexcept;
    FakeConnection &operator=(FakeConnection &&other) noexcept;
    FakeConnection(const FakeConnection &) = delete;
    FakeConnection &operator=(const FakeConnection &) = delete;

    bool valid() const { return fd_ >= 0; } // accepted and not closed here
    // Why the TLS handshake failed ("" when it succeeded, or without TLS);
    // every read and write of such a connection fails.
    const std::string &tls_error() const { return tls_error_; }

    // The client's next packet, decoded, with its raw bytes; an empty Packet
    // (wirelen 0) and a failure on watchdog, close or invalid bytes.
    Packet next_packet();
    Packet expect_handshake(); // next_packet() that must be a handshake request
    // expect_handshake() answered with a handshake reply; returns the request.
    Packet handshake(uint16_t ltp = 5, const std::string &name = "fake", uint16_t version = 1);

    bool reply(uint32_t corrid, uint32_t status = 0); // a bare reply: success when status is 0
    // Object num of count of an answer (kOpGet or kOpPost); an empty value sends no data.
    bool object(uint32_t corrid, uint8_t opcode, const std::string &key, const std::string &value,
                uint32_t count, uint32_t num, int32_t flags = 0);
    // A whole answer: the pairs as objects 1..n of n, in one write.
    bool objects(uint32_t corrid, uint8_t opcode, const std::vector<std::pair<std::string, std::string>> &kv);
    bool notify(const std::string &key, uint8_t trigger, const std::string &value = std::string());
    bool send_raw(const std::string &bytes) { return send(bytes); } // in one write
    bool send_raw_bytewise(const std::string &bytes);               // one byte per write
    void batch() { batching_ = true; } // sends only collect from here ...
    bool flush();                      // ... to here, which writes them at once

    // TLS 1.3: updates the service's keys and asks the client to update its
    // own (a KeyUpdate message, sent at once).
    bool key_update();
    // Reads until a KeyUpdate of the client's arrives after the last
    // key_update() (bytes read meanwhile stay for next_packet()).
    bool await_key_update();
    // TLS: bytes straight onto the socket, beneath the TLS session (a
    // forged record, say).
    bool send_beneath_tls(const std::string &bytes);
    // TLS: reads until the session fails and returns why (for instance the
    // client's alert); bytes read meanwhile stay for next_packet().
    std::string read_until_tls_fails();
    bool wait_closed();   // the client closed; bytes read meanwhile stay for next_packet()
    bool wait_readable(); // the client sent unread bytes; reads nothing, so a blocked writer stays blocked
    void close();         // orderly: end of stream (FIN) to the client
    void reset();         // abortive: the client sees a connection reset

private:
    friend class FakeService;
    explicit FakeConnection(int fd) : fd_(fd) {}
    bool start_tls(SSL_CTX *ctx); // the server's handshake; false with tls_error_ set
    void reset_fd();              // frees the TLS session, closes fd_
    enum class Io { Ready, Closed, Failed }; // Failed: watchdog or error, failure recorded
    Io read_some(std::chrono::steady_clock::time_point deadline, const char *what);
    bool write_all(const std::string &bytes);
    bool send(const std::string &bytes);

    int fd_ = -1;                      // the socket, non-blocking; -1 when none
    SSL *ssl_ = nullptr;               // the TLS session over fd_, or null
    std::unique_ptr<int> key_updates_; // KeyUpdate messages received (the TLS session's callback counts)
    int key_updates_seen_ = 0;         // of which had arrived at the last key_update()
    std::string tls_error_;            // why the TLS handshake failed
    std::string in_;                   // received bytes not yet returned as packets
    std::string batch_;                // bytes collected since batch()
    bool batching_ = false;            // between batch() and flush()
};

// Listens on 127.0.0.1 at an ephemeral port. serve() runs scripts in order on
// one background thread, each with the next accepted connection, which the
// service keeps after the script until take_connection(). The destructor
// joins the scripts.
class FakeService {
public:
    FakeService() : FakeService(Deferred()) { listen(); }
    // TLS with every client when tls is set, plain TCP when it is null.
    explicit FakeService(const FakeTls *tls) : FakeService(Deferred())
    {
        if (tls != nullptr) use_tls(*tls);
        listen();
    }
    explicit FakeService(const FakeTls &tls) : FakeService(&tls) {}
    struct Deferred {}; // the bound port refuses connections until listen()
    explicit FakeService(Deferred);
    ~FakeService();
    void listen();
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

    std::string url() const { return (tls_ != nullptr ? "tls://127.0.0.1:" : "tcp://127.0.0.1:") + std::to_string(port_); }
    bool tls() const { return tls_ != nullptr; }

    FakeConnection accept(); // on the calling thread; invalid, and a failure, on watchdog
    void serve(std::function<void(FakeConnection &)> script); // not from a script
    bool join(); // every queued script returned; false and a failure on watchdog
    FakeConnection take_connection(); // after join(): the oldest finished script's connection

private:
    void run_scripts();
    void use_tls(const FakeTls &tls);

    SSL_CTX *tls_ = nullptr;                                    // the TLS context; null: plain TCP
    int listen_fd_ = -1;                                        // listening socket
    uint16_t port_ = 0;                                         // its port
    std::mutex mutex_;                                          // guards scripts_, done_, busy_, quit_
    std::condition_variable cond_;                              // signals their changes
    std::deque<std::function<void(FakeConnection &)>> scripts_; // queued, not started
    std::deque<FakeConnection> done_;                           // connections of finished scripts
    bool busy_ = false;                                         // a script is running
    bool quit_ = false;                                         // the background thread is to end
    std::thread worker_;                                        // runs the scripts; started by serve()
};

// A one-shot event between threads; wait() is bounded and records a failure.
class Signal {
public:
    void raise();
    bool wait(std::chrono::milliseconds bound = kDefaultWatchdog);

private:
    std::mutex mutex_;             // guards raised_
    std::condition_variable cond_; // signals raised_
    bool raised_ = false;          // raise() was called
};

} // namespace test
} // namespace hspace

#endif /* QEL_TESTS_FAKE_SERVICE_H */
