/*
 * fake_service.h - a scriptable hspace service for tests, on 127.0.0.1 and
 * an ephemeral port.
 *
 * Every blocking call is bounded by a watchdog (default 10 s): when it runs
 * out, or the peer misbehaves, the call records a gtest failure and returns
 * false or an empty packet instead of hanging. Nothing sleeps. Packets are
 * built by the hspace codec; send_raw() sends anything at all.
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

namespace hspace {
namespace test {

using codec::Packet;

constexpr std::chrono::milliseconds kDefaultWatchdog{10000}; // bound of every blocking call

class StopSignal; // raised once, every blocking call of a service returns at once

// One accepted connection. Owns its socket; move-only. Not thread-safe: one
// thread uses it at a time (the test thread or one serve() script).
class FakeConnection {
public:
    FakeConnection() = default;                // not connected: every call fails
    ~FakeConnection();
    FakeConnection(FakeConnection &&other) noexcept;
    FakeConnection &operator=(FakeConnection &&other) noexcept;
    FakeConnection(const FakeConnection &) = delete;
    FakeConnection &operator=(const FakeConnection &) = delete;

    bool valid() const { return fd_ >= 0; } // has a socket: accepted and not closed here

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
    bool send_raw(const std::string &bytes);          // in one write
    bool send_raw_bytewise(const std::string &bytes); // one byte per write
    // From batch() to flush() sends only collect; flush() writes them at once.
    void batch();
    bool flush();

    // True once the client has closed; bytes read meanwhile stay for next_packet().
    bool wait_closed();
    // True once the client has sent unread bytes; reads nothing, so a client
    // blocked writing stays blocked.
    bool wait_readable();
    void close(); // orderly: end of stream (FIN) to the client
    void reset(); // abortive: the client sees a connection reset

private:
    friend class FakeService;
    FakeConnection(int fd, std::shared_ptr<StopSignal> stop, std::chrono::milliseconds watchdog);
    enum class Io { Ready, Closed, Failed };   // Failed: watchdog, stop or error, failure recorded
    Io read_some(std::chrono::steady_clock::time_point deadline, const char *what);
    bool write_all(const std::string &bytes);
    bool send(const std::string &bytes);

    int fd_ = -1;                              // the socket, non-blocking; -1 when none
    std::shared_ptr<StopSignal> stop_;         // shared with the service
    std::chrono::milliseconds watchdog_ = kDefaultWatchdog; // bound of each blocking call
    std::string in_;                           // received bytes not yet returned as packets
    std::string batch_;                        // bytes collected since batch()
    bool batching_ = false;                    // between batch() and flush()
};

// Listens on 127.0.0.1 at an ephemeral port. accept() runs on the calling
// thread; serve() runs scripts on one background thread in order, each with
// the next accepted connection, which stays open after the script until
// take_connection() or destruction. The destructor joins the scripts
// (bounded; then the stop signal ends every blocked call).
class FakeService {
public:
    explicit FakeService(std::chrono::milliseconds watchdog = kDefaultWatchdog);
    struct Deferred {}; // the bound port refuses connections until listen()
    explicit FakeService(Deferred, std::chrono::milliseconds watchdog = kDefaultWatchdog);
    ~FakeService();
    void listen();
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

    uint16_t port() const { return port_; }
    std::string url() const;                   // "tcp://127.0.0.1:<port>"

    FakeConnection accept(); // invalid, and a failure, on watchdog
    void serve(std::function<void(FakeConnection &)> script); // not from a script
    bool join(); // every queued script returned; false and a failure on watchdog
    // After join(): the connection of the earliest finished script still held.
    FakeConnection take_connection();

private:
    void run_scripts();

    int listen_fd_ = -1;                       // listening socket
    uint16_t port_ = 0;                        // its port
    std::chrono::milliseconds watchdog_;       // bound of each blocking call
    std::shared_ptr<StopSignal> stop_;         // shared with every accepted connection
    std::mutex mutex_;                         // guards scripts_, done_, busy_, quit_
    std::condition_variable cond_;             // signals scripts_, busy_ and quit_ changes
    std::deque<std::function<void(FakeConnection &)>> scripts_; // queued, not started
    std::deque<FakeConnection> done_;          // connections of finished scripts, oldest first
    bool busy_ = false;                        // a script is running
    bool quit_ = false;                        // the background thread is to end
    std::thread worker_;                       // runs the scripts; started by the first serve()
};

// A one-shot event between threads; wait() is bounded and records a failure.
class Signal {
public:
    void raise();
    bool wait(std::chrono::milliseconds bound = kDefaultWatchdog);

private:
    std::mutex mutex_;                         // guards raised_
    std::condition_variable cond_;             // signals raised_
    bool raised_ = false;                      // raise() was called
};

} // namespace test
} // namespace hspace

#endif /* QEL_TESTS_FAKE_SERVICE_H */
