/*
 * fake_service.h - a scriptable hspace service for tests, on 127.0.0.1 and
 * an ephemeral port.
 *
 * The test drives it with blocking calls. Every call that waits is bounded
 * by a watchdog (default 10 s): when it runs out, or the peer misbehaves, the
 * call records a gtest failure (ADD_FAILURE) and returns false or an empty
 * packet instead of hanging. Nothing sleeps.
 *
 *   FakeService svc;
 *   svc.serve([](FakeConnection &c) {           // on a background thread
 *       c.handshake();                           // read the handshake, answer ltp 5
 *       Packet get = c.next_packet();
 *       c.objects(get.rr->corrid, codec::kOpGet, {{"k1", "v1"}, {"k2", "v2"}});
 *   });
 *   ... the client opens svc.url() and calls get ...
 *   svc.join();
 *
 * Packets are built by the hspace codec; send_raw() sends anything at all.
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

// The stop signal shared by a service and the connections it accepted: once
// raised, every blocking call returns at once. Thread-safe.
class StopSignal;

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

    // True while the connection has a socket (accepted and not closed here).
    bool valid() const { return fd_ >= 0; }
    void set_watchdog(std::chrono::milliseconds bound) { watchdog_ = bound; }

    // Returns the client's next packet, decoded, with its raw bytes. An
    // empty Packet (wirelen 0) and a recorded failure when the watchdog runs
    // out, the client closes, or the bytes are not a valid packet.
    Packet next_packet();
    // next_packet() that must be a handshake request (handshake_request set).
    Packet expect_handshake();
    // Sends a handshake reply.
    bool answer_handshake(uint16_t ltp = 5, const std::string &name = "fake", uint16_t version = 1);
    // expect_handshake() then answer_handshake(); returns the request.
    Packet handshake(uint16_t ltp = 5, const std::string &name = "fake", uint16_t version = 1);

    // A bare reply to corrid: success when status is 0, else that error.
    bool reply(uint32_t corrid, uint32_t status = 0);
    // One object of an answer to corrid (opcode kOpGet or kOpPost), number
    // num of count; an empty value sends no data.
    bool object(uint32_t corrid, uint8_t opcode, const std::string &key, const std::string &value,
                uint32_t count, uint32_t num, int32_t flags = 0);
    // A whole answer: the pairs (key, value) as objects numbered 1..n of n,
    // in one write.
    bool objects(uint32_t corrid, uint8_t opcode, const std::vector<std::pair<std::string, std::string>> &kv);
    // A change notification for key with the trigger and value.
    bool notify(const std::string &key, uint8_t trigger, const std::string &value = std::string());
    // Sends bytes as they are, in one write.
    bool send_raw(const std::string &bytes);
    // Sends bytes one per write (the client may still receive them merged).
    bool send_raw_bytewise(const std::string &bytes);

    // From batch() to flush(), the sends above only collect their bytes;
    // flush() sends everything collected in one write.
    void batch();
    bool flush();

    // True once the client has closed the connection (a read returns end of
    // stream or an error); bytes read meanwhile stay for next_packet().
    bool wait_closed();
    // True once the client has sent bytes not yet read here; reads nothing,
    // so a client blocked writing to a service that stopped reading stays
    // blocked. False and a recorded failure when the watchdog runs out.
    bool wait_readable();
    // Orderly close: end of stream to the client (FIN), then the socket is
    // released.
    void close();
    // Abortive close: the client sees a connection reset.
    void reset();

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

// Listens on 127.0.0.1 at an ephemeral port from construction to
// destruction. accept() runs on the calling thread; serve() runs scripts on
// one background thread, one after the other, each with the next accepted
// connection (use one or the other for a given connection). A script's
// connection stays open after the script returns, until take_connection()
// or the service's destruction. The destructor waits for the scripts
// (watchdog; on expiry the stop signal ends every blocked call), joins the
// thread and closes the connections it still holds and the listener.
class FakeService {
public:
    explicit FakeService(std::chrono::milliseconds watchdog = kDefaultWatchdog);
    // A service whose bound port refuses connections until listen().
    struct Deferred {};
    explicit FakeService(Deferred, std::chrono::milliseconds watchdog = kDefaultWatchdog);
    ~FakeService();
    // Starts listening, for a service made Deferred.
    void listen();
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

    uint16_t port() const { return port_; }
    std::string url() const;                   // "tcp://127.0.0.1:<port>"

    // Accepts the next connection; an invalid connection and a recorded
    // failure when none arrives within the watchdog.
    FakeConnection accept();
    // Queues script to run on the background thread with the next accepted
    // connection, after the scripts queued before it. Not from a script.
    void serve(std::function<void(FakeConnection &)> script);
    // Waits until every queued script has returned. False and a recorded
    // failure when the watchdog runs out; the stop signal is then raised.
    bool join();
    // After join(): hands over the connection of the earliest finished
    // script that is still held here, so the test thread can go on with it.
    // An invalid connection and a recorded failure when there is none.
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

// A one-shot event between the test thread and a script, e.g. to hold a
// script at a chosen point. wait() is bounded by the watchdog and records a
// failure when it runs out. Thread-safe.
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
