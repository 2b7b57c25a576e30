/*
 * server.cpp - the reference hspace service: the listener, the connections
 * and the protocol, run by one Asio I/O thread over a Store (store/).
 *
 * Threads: the Engine's I/O thread runs every handler below and alone
 * touches the store, the connection table and each connection's buffers; no
 * locks. The owning thread only starts and stops the engine; Stats are
 * atomics readable anywhere.
 *
 * A connection has at most one store call outstanding: while it runs the
 * connection reads no further request, so requests are served in the order
 * they were sent, whichever store completes them and however late.
 * Neither does it while more than max_queue bytes wait to be sent to it:
 * its own answers pace it and never disconnect it; only unsent
 * notifications over max_queue do.
 *
 * What a stranger can make the service hold is bounded: connections
 * (max_connections, each refused one closed at once), the time to the
 * handshake (handshake_timeout_ms), a packet's length (checked at its
 * header: a handshake's longest, or max_queue plus a key and headers),
 * subscriptions per connection (max_subscriptions), and the bytes all
 * connections hold (max_memory: see Engine::trim and Connection::backlogged).
 * A failing accept (no descriptor left) pauses accepting, with backoff.
 *
 * Subscriptions are found through an index (subscription_index.h), never
 * by a scan: a change costs what its subscribers cost, a cancel or a post
 * what a hash lookup costs, whatever else is subscribed.
 *
 * The order around a post, per connection: every notification of a change
 * at or before the revision R of the post's image comes before the post's
 * reply; then the reply, the image, and after it only changes after R. A
 * client that routes a notification to a subscription only once that
 * subscription's image is complete therefore sees each change once per
 * subscription, in order, however its subscriptions nest. Each change
 * reaches a connection once, however many of its subscriptions select it.
 *
 * Bytes on the wire are framed, decoded and encoded by the hspace codec;
 * they travel over plain TCP or TLS (transport.h), as the options say.
 *
 * Operators see the service through its log (log.h: one event a line) and,
 * with Options::http, its metrics, health and readiness (http.h): the I/O
 * thread counts into atomics (service_metrics.h), the HTTP endpoint's
 * threads read them and the store's health, and nothing else.
 */
#include "server.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <future>
#include <map>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <asio.hpp>

#include "acl.h"
#include "hspace_codec.h"
#include "http.h"
#include "read_buffer.h"
#include "keyed_hash.h"
#include "service_metrics.h"
#include "store/store.h"
#include "subscription_index.h"
#include "transport.h"

namespace hspace {
namespace service {

namespace {

// Statuses the service answers with besides the store's (the client
// library's codes).
constexpr uint32_t kStatusTooLarge = 12;       // a put's value could never be sent back under max_queue
constexpr uint32_t kStatusNotSupported = 14;   // unknown opcode
constexpr uint32_t kStatusExists = 20;         // the connection already subscribes to the key
constexpr uint32_t kStatusTooManySubscriptions = 1106; // the connection holds max_subscriptions already
constexpr uint32_t kStatusConnectionLimit = 1107; // answers the handshake of a connection over max_connections
constexpr uint32_t kStatusPermissionDenied = 1104; // the access rules refuse the request
constexpr uint32_t kStatusIdentityRefused = 1105;  // the handshake claims what the certificate does not hold
constexpr unsigned kLoggedDenials = 32;        // refused requests logged per connection; the rest are counted

// A packet of this many bytes or more, after the handshake, is received
// into a string of its own (Connection::large_), from which a put's value
// moves into the store.
constexpr size_t kLargePacket = 1024 * 1024;
constexpr size_t kLargeChunk = 1024 * 1024;    // most bytes asked of each read into it
constexpr size_t kMaxGather = 64;              // queued packets handed to one write
// Values of this many bytes or more are sent from the store's own string
// when it shares it (ObjectView::shared), after a packet's first bytes,
// instead of being copied into the packet.
constexpr size_t kShareFrom = 16 * 1024;

// The longest handshake request the codec can carry: packet header, body
// preamble, the two fixed fields and three strings of kMaxString bytes with
// their 16-bit lengths (196,655 bytes). A longer first packet is refused at
// its header.
constexpr size_t kMaxHandshake = codec::kHeaderSize + codec::kPreambleSize + 4 + 3 * (2 + codec::kMaxString);
// Headers of a request with a key: packet header, hspace subheader without
// its key, rr subheader, body preamble (86 bytes).
constexpr size_t kRequestHeaders =
    codec::kHeaderSize + codec::kHspaceSectionBase + codec::kRrSectionSize + codec::kPreambleSize;

// Pauses of the accept loop while accepting fails, doubling from the first.
constexpr std::chrono::milliseconds kAcceptPauseFirst{10};
constexpr std::chrono::milliseconds kAcceptPauseMax{1000};

// Log lines about refused and dropped connections: at most kLogBurst of a
// kind per kLogWindow; the rest are counted and summed up in one line.
// Denials come from clients that shook hands, often from a rule that is
// wrong, which the operator wants to see: more of them pass.
constexpr unsigned kLogBurst = 5;
constexpr unsigned kDenialBurst = 50;
constexpr std::chrono::seconds kLogWindow{1};

using Bytes = std::shared_ptr<const std::string>; // an encoded packet, shared between subscribers

// The key with ASCII letters lowered: keys the client compares as equal
// (without regard to letter case) fold to the same bytes.
std::string fold_key(std::string_view key)
{
    std::string folded(key);
    for (char &ch : folded)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch + 32);
    return folded;
}

// A status in words, for the log.
const char *status_text(uint32_t status)
{
    switch (status) {
    case kStatusStoreUnavailable:
        return "store unavailable";
    case kStatusStoreTimeout:
        return "store timed out";
    case kStatusStoreTooLarge:
        return "value too large for the store";
    default:
        return "refused";
    }
}

Bytes make_bytes(std::string s)
{
    return std::make_shared<const std::string>(std::move(s));
}

class Connection;

// One post of one connection, indexed under its key while it lives. Owned
// by its connection's table (Connection::subs).
struct Subscription : SubscriptionIndex::Entry {
    Subscription(Connection *c, std::string_view k, uint8_t t, bool ko)
        : Entry(std::string(k)), conn(c), folded(fold_key(k)), triggers(t), key_only(ko)
    {
    }
    Connection *const conn;                    // the owner
    const std::string folded;                  // fold_key(key): its name in the owner's table
    const uint8_t triggers;                    // mask of trigger bits; 0 selects all
    const bool key_only;                       // notifications without values
    bool starting = true;                      // its post waits for the store's begin()
    int64_t after = 0;                         // once begun: selects only changes after this revision (its image's)
};

// Which of a connection's subscriptions select one change: the begun ones,
// the one starting; and whether any of those wants the value.
struct Selection {
    bool begun = false;
    bool begun_value = false;
    bool fresh = false;                        // the starting subscription
    bool fresh_value = false;
};

// A change held for a connection while its post is starting: whether it
// goes before the post's reply or after its image depends on the image's
// revision, known only when the post has begun.
struct Held {
    std::string key;
    uint8_t trigger;
    std::optional<std::string> value;          // none for a removal
    int64_t revision;
    Selection by;                              // who selected it when it happened
};

// Nanoseconds on the steady clock, for durations.
uint64_t now_ns()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// The request being served, and whose store call a connection waits for.
struct Op {
    std::optional<uint32_t> corrid;            // answer to this correlation id; none: no answer
    uint8_t opcode = 0;
    bool key_only = false;
    bool image = false;                        // post: send the image
    uint64_t started = 0;                      // now_ns() when it was decoded
    uint64_t store_started = 0;                // now_ns() when its store call began
    std::string key;                           // its key, for the debug log only (empty otherwise)
};

// The kinds of log line that a stranger can make repeat: each is
// rate-limited on its own (Engine::log_limited), so that one flood does not
// hide the others.
enum class Repeat {
    AcceptError,                               // an accept failed for the connection's own sake
    OverCap,                                   // a connection refused over max_connections
    NoDescriptor,                              // a connection refused for want of a descriptor
    Invalid,                                   // a connection closed for an invalid packet
    Oversized,                                 // a connection closed for a length over the bound
    Slow,                                      // a connection dropped for unsent notifications
    Memory,                                    // a connection dropped over max_memory
    Timeout,                                   // a connection closed for no handshake in time
    Denied,                                    // a request the access rules refused
    IdentityRefused,                           // a handshake claiming what its certificate does not hold
    Tls,                                       // a connection whose TLS handshake failed
    Count
};

// The store call a request makes.
StoreCall store_call_of(uint8_t opcode)
{
    switch (opcode) {
    case codec::kOpPut:
        return StoreCall::put;
    case codec::kOpRemove:
        return StoreCall::remove;
    case codec::kOpPost:
        return StoreCall::begin;
    default:
        return StoreCall::read;
    }
}

// A client's groups for a log field: "a,b".
std::string join(const std::vector<std::string> &groups)
{
    std::string out;
    for (const std::string &g : groups) out += (out.empty() ? "" : ",") + g;
    return out;
}

const char *op_name(uint8_t opcode)
{
    switch (opcode) {
    case codec::kOpPut:
        return "put";
    case codec::kOpGet:
        return "get";
    case codec::kOpPost:
        return "post";
    case codec::kOpCancel:
        return "cancel";
    case codec::kOpRemove:
        return "remove";
    default:
        return "other";
    }
}

} // namespace

// The listener, the connections and the store. Everything but start(),
// stop() and the stats runs on the I/O thread.
class Engine final : public Listener {
public:
    explicit Engine(Options options)
        : options_(std::move(options)),
          logger_(options_.log, options_.log_level, options_.log_format, options_.log_sink),
          metrics_(stats_, [this] { return store_ && store_->healthy(nullptr); }),
          acl_(options_.acl)
    {
    }

    bool start(std::string *error);
    void stop();
    bool reload(std::string *error);

    // I/O thread: c asks to be forgotten (it has closed) for why; logged
    // as one of the kind of line repeat when it is one, else as an event.
    void forget(const Connection &c, const std::string &why, std::optional<Repeat> repeat);
    // I/O thread: whether a line of a kind a stranger can make repeat may be
    // written now (at most kLogBurst of a kind a window, kDenialBurst for
    // denials); a line it holds back is counted and summed up when the
    // window ends. False while warnings are not logged.
    bool let(Repeat kind);
    // I/O thread: n more bytes held by some connection (read buffers, unsent
    // packets), or n fewer.
    void hold(size_t n);
    void unhold(size_t n);
    // I/O thread: while over max_memory, drops the connection holding the
    // most, until under. May close any connection, the caller's too: only
    // where no loop over connections or subscriptions runs.
    void trim();
    // I/O thread: more than half of max_memory is held; a connection's fair
    // share of it then.
    bool memory_tight() const { return memory_ > options_.max_memory / 2; }
    size_t fair_share() const { return options_.max_memory / (2 * std::max<size_t>(conns_.size(), 1)); }
    // I/O thread: one decoded packet from a connection. packet, when not
    // null, holds the packet's bytes, which p views, and a put may take it
    // for its value (leaving it unspecified).
    void handle(Connection &c, const codec::PacketView &p, std::string *packet = nullptr);
    // I/O thread: one line in the printf style, logged at info as the
    // event "message" (logger_.event() is for events with fields).
    void log(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
    // I/O thread: c's request was answered with status (or would have
    // been, asking for none): counted, and logged at debug. now: now_ns()
    // if the caller just read it, else 0.
    void settle(Connection &c, uint32_t status, uint64_t now = 0);
    // I/O thread: the store call of c's op completed.
    void finish(Connection &c, const StoreStatus &outcome);
    void finish_read(Connection &c, const StoreStatus &outcome, const std::vector<ObjectView> &objects);
    void finish_post(Connection &c, const StoreStatus &outcome, int64_t revision,
                     const std::vector<ObjectView> &objects);
    // I/O thread: c is closing; its subscriptions end.
    void drop_all(Connection &c);

    void on_change(std::string_view key, uint8_t trigger, const std::string_view *value, int64_t revision,
                   const SharedValue &shared) override;
    void on_feed_ended(const std::string &why) override;

    const Options options_;                    // as given; read-only
    // The longest packet a connection may announce after its handshake: a
    // put of the longest key whose value is max_queue, which is answered
    // with kStatusTooLarge; a longer one closes the connection at its header.
    const size_t request_limit_ = std::min<size_t>(options_.max_queue + codec::kMaxString + kRequestHeaders,
                                                   codec::kMaxPacket);
    Stats stats_;                              // counters, any thread
    const Logger logger_;                      // any thread
    ServiceMetrics metrics_;                   // counted on the I/O thread, rendered on the HTTP endpoint's
    uint16_t port_ = 0;                        // listening port; set by start() before the thread
    std::string host_;                         // listening address as text; set by start()

private:
    void accept();
    void admit(asio::ip::tcp::socket socket);
    void refuse(asio::ip::tcp::socket socket, Repeat kind, const char *why);
    void accept_failed(const asio::error_code &ec);
    void expire_handshakes();
    void flush_log_limits();
    void shutdown();
    void send_objects(Connection &c, uint32_t corrid, uint8_t opcode, bool key_only,
                      const std::vector<ObjectView> &objects);
    void send_held(Connection &c, const Held &e, bool begun_only);
    void drop(Subscription &s);
    // Returns now_ns() at its completion.
    uint64_t store_done(Connection &c, const StoreStatus &outcome);
public:
    // The HTTP endpoint's port, 0 without one; owning thread, after start().
    uint16_t http_port() const { return http_ ? http_->port() : 0; }

private:
    // Any thread: GET /health's and GET /ready's answers.
    bool health(std::string *why) const;
    bool ready(std::string *why) const;
    void refollow();
    void deny(Connection &c, const codec::HspaceView &h);
    size_t revoke(Connection &c);

    std::shared_ptr<const Acl> acl_;           // rules in force, null for none; I/O thread (owner before start)
    bool start_tls(std::string *why);

    // Declared before io_: outlives the connections its handlers still hold.
    std::unique_ptr<asio::ssl::context> tls_;  // TLS of every connection; null: plain TCP
    asio::io_context io_{1};                   // runs every handler, on thread_ (one thread: the hint)
    asio::ip::tcp::acceptor acceptor_{io_};    // the listener
    std::thread thread_;                       // the I/O thread; joinable from start() to stop()
    bool started_ = false;                     // owning thread: start() succeeded once
    uint64_t next_id_ = 1;                     // I/O thread: id of the next connection
    std::map<uint64_t, std::shared_ptr<Connection>> conns_; // I/O thread: open connections by id
    SubscriptionIndex index_;                  // I/O thread: every subscription of every connection
    uint64_t changes_ = 0;                     // I/O thread: changes seen; marks a connection selected
    std::vector<std::pair<Connection *, Selection>> targets_; // I/O thread: on_change's, kept for its capacity

    // I/O thread, the connection limits.
    size_t memory_ = 0;                        // bytes held by all connections (Stats::memory's source)
    asio::steady_timer accept_timer_{io_};     // ends a pause of the accept loop
    std::chrono::milliseconds accept_pause_{0}; // the current pause; 0 while accepting works
    uint64_t accept_failures_ = 0;             // failed accepts in the current pause episode
    uint64_t accept_refusals_ = 0;             // connections accepted with the spare and closed in it
    int spare_fd_ = -1;                        // a descriptor held back: given up to accept and close a
                                               // connection while the process has none left
    asio::steady_timer handshake_timer_{io_};  // fires at the first deadline of awaiting_
    bool handshake_timer_armed_ = false;       // handshake_timer_ waits
    // Connections by handshake deadline, which is their accept order; an
    // entry whose connection has shaken hands or gone is skipped when due.
    std::deque<std::pair<std::chrono::steady_clock::time_point, uint64_t>> awaiting_;
    struct LogLimit {
        std::chrono::steady_clock::time_point since; // start of the current window
        unsigned printed = 0;                  // lines printed in it
        uint64_t suppressed = 0;               // lines counted, not printed, in it
    };
    std::array<LogLimit, static_cast<size_t>(Repeat::Count)> log_limits_; // by Repeat
    asio::steady_timer log_timer_{io_};        // sums up suppressed lines when a window ends
    bool log_timer_armed_ = false;             // log_timer_ waits
    bool trim_posted_ = false;                 // a trim() is posted
    bool following_ = false;                   // I/O thread: the store's feed is asked for
    enum Phase { kStarting, kServing, kStopping };
    std::atomic<int> phase_{kStarting};        // any thread; set by start() and stop()
    mutable std::atomic<bool> store_seen_{false}; // any thread: the store was once healthy since start
    uint64_t started_ns_ = 0;                  // owning thread: now_ns() when start() succeeded
    std::unique_ptr<HttpEndpoint> http_;       // owning thread; serves while the I/O thread runs
    // Declared after io_: destroyed first, while the context its calls
    // complete through still exists.
    std::unique_ptr<Store> store_;             // the objects; created by start()
};

namespace {

// One client connection. Lives while it is in the engine's table or an
// asynchronous operation holds it. I/O thread only.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(Engine &engine, Transport socket, uint64_t id, const asio::ip::tcp::endpoint &peer)
        : engine_(engine), socket_(std::move(socket)), id_(id), remote_(peer)
    {
    }

    uint64_t id() const { return id_; }
    bool closed() const { return closed_; }
    // The client's address and port, as accepted.
    const asio::ip::tcp::endpoint &remote() const { return remote_; }
    // Bytes the connection holds, counted in the engine's memory: its read
    // buffer and its unsent packets. 0 once closed.
    size_t footprint() const { return closed_ ? 0 : in_.capacity() + large_.size() + queued_; }
    // Bytes waiting to be sent to it.
    size_t unsent() const { return queued_; }
    // Who the client's verified certificate says it is; null without TLS
    // client certificates.
    const PeerIdentity *peer() const { return socket_.peer(); }

    // Runs the TLS handshake (if any), then starts reading.
    void start()
    {
        auto self = shared_from_this();
        socket_.async_handshake([self](const asio::error_code &ec) { self->on_handshake(ec); });
    }

    // Queues an encoded answer to this connection's own request. Answers
    // never close the connection: while more than max_queue bytes are
    // unsent, no further request of this connection is handled (see
    // pump), so they are bounded by max_queue plus one answer.
    void send(std::string bytes) { queue(make_bytes(std::move(bytes)), false); }
    // The same for bytes shared with others (a value the store shares).
    void send(Bytes bytes) { queue(std::move(bytes), false); }

    // Queues a notification. Closes the connection, abortively, when its
    // unsent notification bytes would exceed the engine's max_queue: a
    // subscriber that does not read cannot grow the service's memory.
    void notify(Bytes bytes) { queue(std::move(bytes), true); }

    // Closes the socket (once) and leaves the engine's table. abortive
    // resets the connection instead of letting the kernel drain it. repeat
    // names the kind of log line when a stranger could make the close
    // repeat (rate-limited); none logs it as a connection event.
    void close(const std::string &why, bool abortive = false, std::optional<Repeat> repeat = std::nullopt)
    {
        if (closed_) return;
        // Its buffers go with the object, once its aborted operations have
        // returned; they are not counted from here on.
        engine_.unhold(footprint());
        closed_ = true;
        socket_.close(abortive);
        engine_.drop_all(*this);
        engine_.forget(*this, why, repeat);
    }

    // Queues bytes as the connection's last packet, serves no further
    // request, and closes once they are written (or their write failed).
    void end(std::string bytes, const std::string &why)
    {
        ending_ = why;
        send(std::move(bytes));
    }

    // Marks a store call outstanding: no request is read until resume().
    // The connection keeps itself alive until then.
    void suspend()
    {
        op.store_started = now_ns();
        busy_ = true;
        hold_ = shared_from_this();
    }
    // The outstanding store call completed: serves the requests received
    // meanwhile and reads on.
    void resume()
    {
        busy_ = false;
        std::shared_ptr<Connection> self = std::move(hold_);
        pump();
    }
    Engine &engine() { return engine_; }

    bool handshaken = false;                   // the handshake was answered
    Identity identity;                         // who the client is; set by the handshake
    unsigned denials = 0;                      // requests the access rules refused
    // This connection's subscriptions by Subscription::folded, which the
    // key views: a post's duplicate test and a cancel are one lookup.
    std::unordered_map<std::string_view, std::unique_ptr<Subscription>, KeyedHash> subs;
    Subscription *starting = nullptr;          // the one whose post waits for the store, if any
    std::vector<Held> held;                    // changes held while starting is set
    std::string feed_lost;                     // why the store's feed ended while starting was set
    uint64_t selected = 0;                     // Engine::changes_ when a change last selected it
    size_t target = 0;                         // then: its place in the engine's targets
    Op op;                                     // the request of the outstanding store call
    bool warned_subscriptions = false;         // a post over max_subscriptions was logged

private:
    void queue(Bytes bytes, bool notification)
    {
        if (closed_) return;
        size_t n = bytes->size();
        queued_ += n;
        if (notification) notified_ += n;
        out_.push_back(Outbound{std::move(bytes), notification});
        engine_.hold(n);
        if (notified_ > engine_.options_.max_queue) {
            engine_.stats_.dropped_slow++;
            close("outbound queue over " + std::to_string(engine_.options_.max_queue) + " bytes", true,
                  Repeat::Slow);
            return;
        }
        if (in_flight_ == 0) write();
    }

    // No request is handled while this holds: more than max_queue bytes
    // unsent, or, while the service holds over half of max_memory, more
    // than this connection's share of it. It holds only while a write is
    // outstanding, whose completion (on_write) looks again.
    bool backlogged() const
    {
        if (queued_ > engine_.options_.max_queue) return true;
        return queued_ > engine_.fair_share() && engine_.memory_tight();
    }

    void on_handshake(const asio::error_code &ec);


    // Reads into the space the read buffer offers (see ReadBuffer), or
    // into large_ while a long packet comes. Not while a read is
    // outstanding.
    void read()
    {
        reading_ = true;
        if (large_want_ != 0) {
            // Pages are touched as bytes come: the string's capacity was
            // reserved (not filled) for the whole packet, and a read asks
            // for no more than is held already (at least a read buffer's
            // chunk), so what is filled for it at most doubles what the
            // client has sent. The chunk counts as held while the read
            // runs; what it did not fill is given back when it completes,
            // unless close() has already given back all of it.
            size_t have = large_.size();
            size_t ask = std::min({kLargeChunk, std::max(have, ReadBuffer::kMaxChunk), large_want_ - have});
            large_.resize(have + ask);
            engine_.hold(ask);
            auto self = shared_from_this();
            socket_.async_read_some(asio::buffer(&large_[have], ask), [self, have, ask](const asio::error_code &ec,
                                                                                        size_t n) {
                self->engine_.metrics_.received.inc(n);
                self->large_.resize(have + n);
                if (!self->closed_) self->engine_.unhold(ask - n);
                self->on_read(ec, 0);
            });
            return;
        }
        size_t before = in_.capacity(), space = 0;
        uint8_t *at = in_.prepare(&space);
        if (in_.capacity() > before)
            engine_.hold(in_.capacity() - before);
        else
            engine_.unhold(before - in_.capacity());
        auto self = shared_from_this();
        socket_.async_read_some(asio::buffer(at, space),
                                [self](const asio::error_code &ec, size_t n) { self->on_read(ec, n); });
    }

    void on_read(const asio::error_code &ec, size_t n)
    {
        reading_ = false;
        engine_.metrics_.received.inc(n);
        if (closed_) return;
        if (ec) {
            // A TLS client may end without a close_notify, as a TCP one does.
            bool eof = ec == asio::error::eof || ec == asio::ssl::error::stream_truncated;
            close(eof ? std::string("peer closed") : ec.message());
            return;
        }
        if (n > 0) in_.commit(n);
        pump();
    }

    // Serves the complete requests in in_ until one waits for the store or
    // the connection is backlogged, then reads more if neither holds.
    // Whatever stops it calls again: resume() when the store call completes,
    // on_write once no longer backlogged. Not reentrant: a store call
    // completed inside handle() lets the loop below go on. Never runs while
    // a read is outstanding (reads start only here and in on_write, when
    // neither busy nor backlogged). A packet is refused as soon as its
    // header's length is in: no longer than a handshake can be before the
    // handshake, than the engine's request_limit_ after it.
    void pump()
    {
        if (pumping_ || closed_) return;
        pumping_ = true;
        size_t off = 0;
        while (!closed_ && !busy_ && !backlogged() && ending_.empty()) {
            if (large_want_ != 0) {
                if (large_.size() < large_want_) break;
                handle_large();
                continue;
            }
            const uint8_t *data = in_.data() + off;
            size_t avail = in_.size() - off;
            if (avail >= ReadBuffer::kLengthEnd) {
                size_t wire = ReadBuffer::announced_at(data);
                size_t limit = handshaken ? engine_.request_limit_ : kMaxHandshake;
                if (wire > limit) {
                    engine_.stats_.dropped_invalid++;
                    close("a packet of " + std::to_string(wire) + " bytes announced, over the " +
                              std::to_string(limit) + " bytes " +
                              (handshaken ? "a request may have" : "a handshake may have"),
                          true, Repeat::Oversized);
                    return;
                }
            }
            codec::FrameResult f = codec::frame(data, avail);
            if (f.status == codec::FrameStatus::NeedMore) {
                if (start_large(data, avail)) off += avail;
                break;
            }
            codec::PacketView p;
            if (f.status == codec::FrameStatus::Invalid || !codec::decode(data, f.wirelen, p)) {
                engine_.stats_.dropped_invalid++;
                close("invalid packet", false, Repeat::Invalid);
                return;
            }
            off += f.wirelen;
            engine_.handle(*this, p);
            engine_.trim();
        }
        pumping_ = false;
        if (closed_) return;
        size_t before = in_.capacity();
        in_.consume(off);
        engine_.unhold(before - in_.capacity());
        if (!busy_ && !reading_ && !backlogged() && ending_.empty()) read();
    }

    // The packet at data, of which avail bytes are in, is long enough to be
    // received into large_ (after the handshake; pump() has refused it if
    // over request_limit_): its bytes move there and true is returned. Only
    // the string's capacity is reserved, so a length announced costs no
    // memory until its bytes come; the bytes held count as they come.
    bool start_large(const uint8_t *data, size_t avail)
    {
        if (!handshaken || avail < ReadBuffer::kLengthEnd) return false;
        size_t wire = ReadBuffer::announced_at(data);
        if (wire < kLargePacket) return false;
        large_.reserve(wire);
        large_.assign(reinterpret_cast<const char *>(data), avail);
        large_want_ = wire;
        engine_.hold(avail);
        return true;
    }

    // large_ holds its whole packet: framed, decoded and handled like any,
    // with large_ offered to a put for its value (which leaves the
    // connection's count for the store's).
    void handle_large()
    {
        std::string packet(std::move(large_));
        large_.clear();
        large_want_ = 0;
        engine_.unhold(packet.size());
        const uint8_t *data = reinterpret_cast<const uint8_t *>(packet.data());
        codec::FrameResult f = codec::frame(data, packet.size());
        codec::PacketView p;
        if (f.status != codec::FrameStatus::Complete || f.wirelen != packet.size() ||
            !codec::decode(data, f.wirelen, p)) {
            engine_.stats_.dropped_invalid++;
            close("invalid packet", false, Repeat::Invalid);
            return;
        }
        engine_.handle(*this, p, &packet);
        engine_.trim();
    }

    // Writes up to kMaxGather queued packets in one operation.
    void write()
    {
        std::vector<asio::const_buffer> buffers;
        for (size_t i = out_head_; i < out_.size() && buffers.size() < kMaxGather; i++)
            buffers.push_back(asio::buffer(*out_[i].bytes));
        in_flight_ = buffers.size();
        auto self = shared_from_this();
        socket_.async_write(buffers, [self](const asio::error_code &ec, size_t n) {
            self->engine_.metrics_.sent.inc(n);
            self->on_write(ec);
        });
    }

    void on_write(const asio::error_code &ec)
    {
        if (closed_) return;
        if (ec) {
            close(ec.message());
            return;
        }
        size_t sent = 0;
        for (; in_flight_ > 0; in_flight_--, out_head_++) {
            Outbound &o = out_[out_head_];
            sent += o.bytes->size();
            if (o.notification) notified_ -= o.bytes->size();
            o.bytes.reset();
        }
        queued_ -= sent;
        engine_.unhold(sent);
        // The queue's vector is emptied when all is sent, and compacted
        // when the sent entries at its front outnumber the unsent ones.
        if (out_head_ == out_.size()) {
            if (out_.capacity() > kMaxGather)
                std::vector<Outbound>().swap(out_);
            else
                out_.clear();
            out_head_ = 0;
        } else if (out_head_ >= kMaxGather && out_head_ * 2 >= out_.size()) {
            out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(out_head_));
            out_head_ = 0;
        }
        if (out_head_ < out_.size()) {
            write();
        } else if (!ending_.empty()) {
            close(ending_);
            return;
        }
        // pump() stopped backlogged with no read outstanding: go on.
        if (!reading_ && !busy_ && !backlogged()) pump();
    }

    struct Outbound {
        Bytes bytes;                           // an encoded packet; null once sent
        bool notification;                     // counted in notified_
    };

    Engine &engine_;                           // the owner of the table this connection is in
    Transport socket_;                         // the client's socket, plain or TLS
    const uint64_t id_;                        // number in logs and in the table
    const asio::ip::tcp::endpoint remote_;     // the client's address and port, for logs
    ReadBuffer in_;                            // received bytes not yet framed
    std::string large_;                        // the long packet being received, while large_want_
    size_t large_want_ = 0;                    // its length; 0 when none is
    std::vector<Outbound> out_;                // queued packets from out_head_; the first in_flight_ of
                                               // them are being written
    size_t out_head_ = 0;                      // index of the first unsent packet in out_
    size_t in_flight_ = 0;                     // packets of out_ handed to the current write
    size_t queued_ = 0;                        // bytes of the unsent packets
    size_t notified_ = 0;                      // bytes of the unsent notifications
    bool reading_ = false;                     // a read is outstanding
    bool closed_ = false;                      // close() ran
    bool busy_ = false;                        // a store call for op is outstanding
    bool pumping_ = false;                     // pump() is on the stack
    std::string ending_;                       // why end() was called; empty until then
    std::shared_ptr<Connection> hold_;         // this connection, while busy_
};

// A refused TLS handshake is logged and closes the connection; an accepted
// one logs the protocol and, with client certificates, who the client is.
void Connection::on_handshake(const asio::error_code &ec)
{
    if (closed_) return;
    if (ec) {
        engine_.stats_.tls_refused++;
        close("TLS handshake failed: " + ec.message(), false, Repeat::Tls);
        return;
    }
    if (socket_.tls()) {
        socket_.identify();
        const PeerIdentity *p = socket_.peer();
        if (engine_.logger_.enabled(LogLevel::info))
            engine_.logger_.event(LogLevel::info, "conn_tls",
                                  {{"conn", id_},
                                   {"tls", socket_.describe()},
                                   {"cn", p != nullptr ? p->name : std::string()},
                                   {"o", p != nullptr ? join(p->groups) : std::string()}});
    }
    read();
}

} // namespace

void Engine::log(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    logger_.message(LogLevel::info, fmt, ap);
    va_end(ap);
}

void Engine::settle(Connection &c, uint32_t status, uint64_t now)
{
    uint64_t ns = (now != 0 ? now : now_ns()) - c.op.started;
    metrics_.request(c.op.opcode, status, ns);
    if (logger_.enabled(LogLevel::debug))
        logger_.event(LogLevel::debug, "request",
                      {{"conn", c.id()}, {"op", op_name(c.op.opcode)}, {"key", c.op.key}, {"status", status},
                       {"us", ns / 1000}});
}

bool Engine::health(std::string *why) const
{
    int phase = phase_.load();
    if (phase != kServing) {
        *why = phase == kStarting ? "starting" : "stopping";
        return false;
    }
    std::string trouble;
    if (store_->healthy(&trouble)) return true;
    *why = "store unreachable: " + trouble;
    return false;
}

// Ready once serving and the store was once healthy (it is checked when
// asked until then); not while starting or stopping.
bool Engine::ready(std::string *why) const
{
    int phase = phase_.load();
    if (phase != kServing) {
        *why = phase == kStarting ? "starting" : "stopping";
        return false;
    }
    if (store_seen_.load()) return true;
    std::string trouble;
    if (!store_->healthy(&trouble)) {
        *why = "store not reached yet: " + trouble;
        return false;
    }
    store_seen_.store(true);
    return true;
}

// The first kLogBurst lines of a kind in a window are printed; the rest
// are counted, and one line sums them up when the window ends.
bool Engine::let(Repeat kind)
{
    if (!logger_.enabled(LogLevel::warn)) return false;
    LogLimit &l = log_limits_[static_cast<size_t>(kind)];
    auto now = std::chrono::steady_clock::now();
    if (now - l.since >= kLogWindow && l.suppressed == 0) {
        l.since = now;
        l.printed = 0;
    }
    if (l.printed >= (kind == Repeat::Denied ? kDenialBurst : kLogBurst)) {
        l.suppressed++;
        if (!log_timer_armed_ && acceptor_.is_open()) {
            log_timer_armed_ = true;
            log_timer_.expires_at(l.since + kLogWindow);
            log_timer_.async_wait([this](const asio::error_code &ec) {
                log_timer_armed_ = false;
                if (!ec) flush_log_limits();
            });
        }
        return false;
    }
    l.printed++;
    return true;
}

// Sums up the lines suppressed in windows that have ended, and waits for
// the end of those still open.
void Engine::flush_log_limits()
{
    static const char *const kWhat[] = {
        "accepts failed",
        "connections refused over --max-connections",
        "connections refused for want of a descriptor",
        "connections closed for an invalid packet",
        "connections closed for a length over the bound",
        "connections dropped for unsent notifications",
        "connections dropped over --max-memory",
        "connections closed for no handshake",
        "requests denied by the access rules",
        "handshakes refused for their identity",
        "connections whose TLS handshake failed",
    };
    static_assert(sizeof kWhat / sizeof kWhat[0] == static_cast<size_t>(Repeat::Count), "a text for each kind");
    auto now = std::chrono::steady_clock::now();
    std::optional<std::chrono::steady_clock::time_point> next;
    for (size_t i = 0; i < log_limits_.size(); i++) {
        LogLimit &l = log_limits_[i];
        if (l.suppressed == 0) continue;
        if (now - l.since < kLogWindow) {
            next = next ? std::min(*next, l.since + kLogWindow) : l.since + kLogWindow;
            continue;
        }
        logger_.event(LogLevel::warn, "suppressed", {{"count", l.suppressed}, {"of", kWhat[i]}});
        l = LogLimit{now, 0, 0};
    }
    if (!acceptor_.is_open()) next.reset(); // stopping: no timer may outlive shutdown()
    if (!next) return;
    log_timer_armed_ = true;
    log_timer_.expires_at(*next);
    log_timer_.async_wait([this](const asio::error_code &ec) {
        log_timer_armed_ = false;
        if (!ec) flush_log_limits();
    });
}

bool Engine::start(std::string *error)
{
    auto fail = [error](const std::string &why) {
        if (error != nullptr) *error = why;
        return false;
    };
    if (started_) return fail("already started");
    std::string why;
    if (!acl_ && !options_.acl_file.empty() && !(acl_ = Acl::load(options_.acl_file, &why))) return fail(why);
    if (!start_tls(&why)) return fail(why);
    store_ = options_.store_factory ? options_.store_factory(*this) : make_store(options_, io_, *this, &why);
    if (!store_) return fail(why.empty() ? std::string("no store was made") : why);
    asio::error_code ec;
    asio::ip::address address = asio::ip::make_address(options_.host, ec);
    if (ec) {
        asio::ip::tcp::resolver resolver(io_);
        auto results = resolver.resolve(options_.host, "", ec);
        if (ec || results.empty()) return fail("cannot resolve " + options_.host);
        address = results.begin()->endpoint().address();
    }
    asio::ip::tcp::endpoint endpoint(address, options_.port);
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    // Accepting with the spare descriptor (accept_failed) must not block.
    if (!ec) acceptor_.non_blocking(true, ec);
    if (!ec) port_ = acceptor_.local_endpoint(ec).port();
    if (ec) {
        asio::error_code ignored;
        acceptor_.close(ignored);
        return fail("cannot listen on " + options_.host + ":" + std::to_string(options_.port) + ": " + ec.message());
    }
    host_ = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    spare_fd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (!options_.http.empty()) {
        http_.reset(new HttpEndpoint(HttpHandlers{[this] { return metrics_.render(); },
                                                  [this](std::string *why) { return health(why); },
                                                  [this](std::string *why) { return ready(why); }}));
        if (!http_->start(options_.http, &why)) {
            http_.reset();
            acceptor_.close(ec);
            return fail(why);
        }
    }
    store_->healthy(nullptr); // a store that links lazily begins now
    accept();
    started_ = true;
    started_ns_ = now_ns();
    thread_ = std::thread([this] { io_.run(); });
    phase_ = kServing;
    logger_.event(LogLevel::info, "started",
                  {{"listen", host_ + ":" + std::to_string(port_)},
                   {"store", store_->kind()},
                   {"http", http_ ? options_.http.substr(0, options_.http.rfind(':') + 1) +
                                        std::to_string(http_->port())
                                  : std::string("off")}});
    return true;
}

// Makes the TLS context when the options ask for TLS: TLS 1.2 and newer,
// the certificate and key, and with a client CA, client certificates
// required and verified. False with the reason when a file cannot be used.
bool Engine::start_tls(std::string *why)
{
    const Options &o = options_;
    if (o.tls_cert.empty() && o.tls_key.empty() && o.tls_client_ca.empty()) return true;
    if (o.tls_cert.empty() || o.tls_key.empty()) {
        *why = "TLS needs both a certificate and its key";
        return false;
    }
    auto ctx = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    SSL_CTX *native = ctx->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_num_tickets(native, 0); // no resumption: nothing to send after the handshake
    SSL_CTX_set_default_passwd_cb(native, [](char *, int, int, void *) { return 0; }); // never prompt
    auto use = [&](const char *what, const std::string &file, auto &&load) {
        asio::error_code ec;
        load(file, ec);
        if (ec) *why = std::string("cannot use the TLS ") + what + " " + file + ": " + ec.message();
        return !ec;
    };
    bool ok = use("certificate", o.tls_cert,
                  [&](const std::string &f, asio::error_code &ec) { ctx->use_certificate_chain_file(f, ec); }) &&
              use("key", o.tls_key, [&](const std::string &f, asio::error_code &ec) {
                  ctx->use_private_key_file(f, asio::ssl::context::pem, ec);
              });
    if (ok && SSL_CTX_check_private_key(native) != 1) {
        *why = "the TLS key " + o.tls_key + " does not belong to the certificate " + o.tls_cert;
        ok = false;
    }
    if (ok && !o.tls_client_ca.empty()) {
        ok = use("client CA", o.tls_client_ca,
                 [&](const std::string &f, asio::error_code &ec) { ctx->load_verify_file(f, ec); });
        STACK_OF(X509_NAME) *names = ok ? SSL_load_client_CA_file(o.tls_client_ca.c_str()) : nullptr;
        if (names != nullptr) SSL_CTX_set_client_CA_list(native, names);
        ctx->set_verify_mode(asio::ssl::verify_peer | asio::ssl::verify_fail_if_no_peer_cert);
    }
    ERR_clear_error();
    if (ok) tls_ = std::move(ctx);
    return ok;
}

void Engine::stop()
{
    if (!thread_.joinable()) return;
    phase_ = kStopping;
    asio::post(io_, [this] { shutdown(); });
    thread_.join();
    if (http_) http_->stop();
    double uptime = static_cast<double>(now_ns() - started_ns_) / 1e9;
    logger_.event(LogLevel::info, "stopped",
                  {LogField::seconds("uptime_s", uptime),
                   {"connections", stats_.accepted.load()},
                   {"requests", metrics_.requests()},
                   {"errors", metrics_.errors()},
                   {"notifications", metrics_.notifications.value()}});
}

// I/O thread: closes the listener and every connection and ends the
// timers; the I/O thread's run() returns once their aborted operations
// have finished.
void Engine::shutdown()
{
    asio::error_code ignored;
    acceptor_.close(ignored);
    accept_timer_.cancel();
    handshake_timer_.cancel();
    log_timer_.cancel();
    if (spare_fd_ >= 0) ::close(spare_fd_);
    spare_fd_ = -1;
    std::vector<std::shared_ptr<Connection>> all;
    for (auto &entry : conns_) all.push_back(entry.second);
    for (auto &c : all) c->close("service stopping");
    store_->close();
}

// Accepts the next connection. A failed accept is handled by accept_failed,
// which calls again, after a pause unless the failure consumed a pending
// connection.
void Engine::accept()
{
    acceptor_.async_accept([this](const asio::error_code &ec, asio::ip::tcp::socket socket) {
        if (!acceptor_.is_open()) return;
        if (ec) {
            accept_failed(ec);
            return;
        }
        if (accept_pause_.count() != 0) {
            logger_.event(LogLevel::warn, "accept_resumed",
                          {{"failed_accepts", accept_failures_}, {"refused_meanwhile", accept_refusals_}});
            accept_pause_ = std::chrono::milliseconds(0);
            accept_failures_ = accept_refusals_ = 0;
            if (spare_fd_ < 0) spare_fd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        }
        admit(std::move(socket));
        accept();
    });
}

// A connection that went away while waiting (aborted, a protocol error, a
// firewall's refusal) has left the queue: accepting goes on at once, and
// the line is rate-limited. Anything else (no descriptor, no memory) would
// fail again at once: accepting pauses, from kAcceptPauseFirst doubling to
// kAcceptPauseMax, logged once when it starts and once when it ends. Out of
// descriptors, each pause first gives up the spare descriptor to accept one
// waiting connection and close it, so that its client learns at once
// instead of waiting in the queue, and takes it back.
void Engine::accept_failed(const asio::error_code &ec)
{
    const int e = ec.value();
    if (ec.category() == asio::error::get_system_category() &&
        (e == ECONNABORTED || e == EPROTO || e == EPERM || e == EINTR || e == ENETDOWN || e == ENONET ||
         e == ENOPROTOOPT || e == EHOSTUNREACH || e == EOPNOTSUPP || e == ENETUNREACH || e == EHOSTDOWN ||
         e == ETIMEDOUT)) {
        if (let(Repeat::AcceptError)) logger_.event(LogLevel::warn, "accept_failed", {{"reason", ec.message()}});
        accept();
        return;
    }
    accept_failures_++;
    if (accept_pause_.count() == 0) {
        stats_.accept_pauses++;
        accept_pause_ = kAcceptPauseFirst;
        logger_.event(LogLevel::error, "accept_failed",
                      {{"reason", ec.message()},
                       {"open", conns_.size()},
                       {"then", "accepting pauses, then retries with backoff (logged again when it works)"}});
    } else {
        accept_pause_ = std::min(accept_pause_ * 2, kAcceptPauseMax);
    }
    if ((e == EMFILE || e == ENFILE) && spare_fd_ >= 0) {
        ::close(spare_fd_);
        asio::error_code aec;
        asio::ip::tcp::socket socket = acceptor_.accept(aec);
        if (!aec) {
            accept_refusals_++;
            refuse(std::move(socket), Repeat::NoDescriptor, "no file descriptor left");
        }
        spare_fd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    accept_timer_.expires_after(accept_pause_);
    accept_timer_.async_wait([this](const asio::error_code &tec) {
        if (!tec && acceptor_.is_open()) accept();
    });
}

// Serves a new connection, or refuses it when max_connections are served.
// A connection not shaken hands by its deadline is closed (expire_handshakes).
void Engine::admit(asio::ip::tcp::socket socket)
{
    if (conns_.size() >= options_.max_connections) {
        refuse(std::move(socket), Repeat::OverCap, "the service serves --max-connections connections");
        return;
    }
    asio::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    asio::ip::tcp::endpoint peer = socket.remote_endpoint(ignored);
    auto c = std::make_shared<Connection>(
        *this, tls_ != nullptr ? Transport(std::move(socket), *tls_) : Transport(std::move(socket)), next_id_++, peer);
    conns_[c->id()] = c;
    stats_.accepted++;
    stats_.open++;
    if (logger_.enabled(LogLevel::info))
        logger_.event(LogLevel::info, "conn_accepted",
                      {{"conn", c->id()}, {"peer", peer.address().to_string() + ":" + std::to_string(peer.port())}});
    if (options_.handshake_timeout_ms > 0) {
        awaiting_.emplace_back(std::chrono::steady_clock::now() +
                                   std::chrono::milliseconds(options_.handshake_timeout_ms),
                               c->id());
        if (!handshake_timer_armed_) expire_handshakes();
    }
    c->start();
}

// Answers a connection that is not served with kStatusConnectionLimit (the
// answer its handshake gets), then closes it at once: what it sent is read
// off first, so that the close is a normal end of stream, not a reset that
// could overtake the answer. Plain system calls on the descriptor: this
// runs when descriptors run out, where nothing may need one more.
void Engine::refuse(asio::ip::tcp::socket socket, Repeat kind, const char *why)
{
    stats_.refused++;
    metrics_.refused(kind == Repeat::OverCap ? Refusal::connection_limit : Refusal::no_descriptor);
    asio::error_code ec;
    asio::ip::tcp::endpoint peer = socket.remote_endpoint(ec);
    if (let(kind))
        logger_.event(LogLevel::warn, "conn_refused",
                      {{"peer", peer.address().to_string() + ":" + std::to_string(peer.port())}, {"reason", why}});
    // Over TLS the answer could only come after a TLS handshake, whose cost
    // is what the refusal saves: the client sees its TLS handshake end.
    std::string out;
    if (tls_ == nullptr) codec::encode_reply(out, 0, kStatusConnectionLimit);
    const int fd = socket.native_handle();
    if (::send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(out.size()) &&
        ::shutdown(fd, SHUT_WR) == 0) {
        char sink[4096];
        for (int i = 0; i < 4 && ::recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0; i++) {
        }
    }
    socket.close(ec);
}

// Closes the connections whose handshake deadline has passed without a
// handshake, then waits for the next deadline.
void Engine::expire_handshakes()
{
    if (!acceptor_.is_open()) awaiting_.clear(); // stopping: no timer may outlive shutdown()
    auto now = std::chrono::steady_clock::now();
    while (!awaiting_.empty() && awaiting_.front().first <= now) {
        auto it = conns_.find(awaiting_.front().second);
        awaiting_.pop_front();
        if (it == conns_.end() || it->second->handshaken) continue;
        std::shared_ptr<Connection> c = it->second;
        stats_.dropped_handshake++;
        c->close("no handshake within " + std::to_string(options_.handshake_timeout_ms) + " ms", true, Repeat::Timeout);
    }
    handshake_timer_armed_ = !awaiting_.empty();
    if (!handshake_timer_armed_) return;
    handshake_timer_.expires_at(awaiting_.front().first);
    handshake_timer_.async_wait([this](const asio::error_code &ec) {
        if (ec) return; // stopping; a new deadline is set only while none waits
        handshake_timer_armed_ = false;
        expire_handshakes();
    });
}

void Engine::forget(const Connection &c, const std::string &why, std::optional<Repeat> repeat)
{
    if (conns_.erase(c.id()) == 0) return;
    stats_.open--;
    if (!repeat) {
        logger_.event(LogLevel::info, "conn_closed", {{"conn", c.id()}, {"reason", why}});
        return;
    }
    if (let(*repeat) && logger_.enabled(LogLevel::warn))
        logger_.event(LogLevel::warn, "conn_closed",
                      {{"conn", c.id()},
                       {"peer", c.remote().address().to_string() + ":" + std::to_string(c.remote().port())},
                       {"reason", why}});
}

void Engine::hold(size_t n)
{
    memory_ += n;
    stats_.memory.store(memory_, std::memory_order_relaxed);
    // A trim from here could close a connection inside a loop over them:
    // it is left to the connection's pump, or to a handler of its own.
    if (memory_ > options_.max_memory && !trim_posted_) {
        trim_posted_ = true;
        asio::post(io_, [this] {
            trim_posted_ = false;
            trim();
        });
    }
}

void Engine::unhold(size_t n)
{
    memory_ -= n;
    stats_.memory.store(memory_, std::memory_order_relaxed);
}

// Drops the connection holding the most until max_memory holds again. The
// scan over the connections is paid only while over the bound, which takes
// bytes sent or left unread by the connections dropped.
void Engine::trim()
{
    while (memory_ > options_.max_memory) {
        std::shared_ptr<Connection> heaviest;
        for (auto &entry : conns_)
            if (!heaviest || entry.second->footprint() > heaviest->footprint()) heaviest = entry.second;
        if (!heaviest || heaviest->footprint() == 0) return;
        stats_.dropped_memory++;
        std::string why = "holds " + std::to_string(heaviest->footprint()) + " bytes (" +
                          std::to_string(heaviest->unsent()) + " unsent), the most while all connections hold " +
                          std::to_string(memory_) + ", over --max-memory " + std::to_string(options_.max_memory);
        heaviest->close(why, true, Repeat::Memory);
    }
}

void Engine::handle(Connection &c, const codec::PacketView &p, std::string *packet)
{
    if (!c.handshaken) {
        if (p.body_type != codec::kTypeHandshakeRequest || p.strings[0] != "data") {
            stats_.dropped_invalid++;
            c.close("first packet is no handshake for service type \"data\"", false, Repeat::Invalid);
            return;
        }
        std::string out, why;
        // A verified client certificate names the client; without one the
        // handshake's claims are taken as they are.
        const PeerIdentity *peer = c.peer();
        std::optional<Subject> subject;
        if (peer != nullptr) subject = Subject{peer->name, peer->groups};
        std::optional<Identity> who = identify(p.strings[1], p.strings[2], subject ? &*subject : nullptr, &why);
        if (!who) {
            // The handshake has no status: a failed reply stands in for it.
            stats_.identity_refused++;
            metrics_.refused(Refusal::identity);
            if (let(Repeat::IdentityRefused))
                logger_.event(LogLevel::warn, "handshake_refused", {{"conn", c.id()}, {"reason", why}});
            codec::encode_reply(out, 0, kStatusIdentityRefused);
            c.end(std::move(out), "identity refused");
            return;
        }
        c.identity = std::move(*who);
        codec::encode_handshake_reply(out, 1, options_.ltp, options_.name);
        c.handshaken = true;
        if (logger_.enabled(LogLevel::info))
            logger_.event(LogLevel::info, "conn_handshake",
                          {{"conn", c.id()},
                           {"client", c.identity.name},
                           {"group", join(c.identity.groups)},
                           {"certified", c.identity.certified}});
        c.send(std::move(out));
        return;
    }

    // A request is answered when it carries a correlation id and does not
    // ask for no reply.
    std::optional<uint32_t> corrid;
    if (p.rr) corrid = p.rr->corrid;
    c.op = Op{};
    c.op.started = now_ns();
    if (!p.hspace) {
        if (corrid) {
            std::string out;
            codec::encode_reply(out, *corrid, kStatusNotSupported);
            c.send(std::move(out));
        }
        settle(c, kStatusNotSupported);
        return;
    }
    const codec::HspaceView &h = *p.hspace;
    const bool answer = corrid && h.semantic != codec::kSemNoReply;
    if (answer) c.op.corrid = corrid;
    c.op.opcode = h.opcode;
    if (logger_.enabled(LogLevel::debug)) c.op.key = std::string(h.key);
    c.op.key_only = (h.flags & codec::kFlagKeyOnly) != 0;
    if (acl_ && !acl_->permits(c.identity.groups, h.opcode, h.key)) {
        deny(c, h);
        if (answer) {
            std::string out;
            codec::encode_reply(out, *corrid, kStatusPermissionDenied);
            c.send(std::move(out));
        }
        settle(c, kStatusPermissionDenied);
        return;
    }
    Connection *cp = &c;
    std::string out;

    switch (h.opcode) {
    case codec::kOpPut: {
        // The largest packet that would carry the value: an object
        // answering a get or a post (a notification is smaller).
        size_t largest = codec::object_size(h.key.size(), p.body.size());
        if (largest > options_.max_queue) {
            logger_.event(LogLevel::warn, "put_refused",
                          {{"conn", c.id()},
                           {"key", h.key},
                           {"value_bytes", p.body.size()},
                           {"packet_bytes", largest},
                           {"max_queue", options_.max_queue}});
            if (answer) codec::encode_reply(out, *corrid, kStatusTooLarge);
            settle(c, kStatusTooLarge);
            break;
        }
        c.suspend();
        Store::Done done = [cp](const StoreStatus &outcome) { cp->engine().finish(*cp, outcome); };
        if (packet == nullptr) {
            store_->put(h.key, p.body, std::move(done));
            break;
        }
        // The value is the packet's last bytes: they move to its front in
        // place, and the string goes to the store as the value.
        std::string key(h.key);
        size_t at = static_cast<size_t>(p.body.data() - packet->data()), n = p.body.size();
        packet->erase(0, at);
        packet->resize(n);
        store_->put_owned(key, std::move(*packet), std::move(done));
        break;
    }
    case codec::kOpRemove:
        c.suspend();
        store_->remove(h.key, [cp](const StoreStatus &outcome) { cp->engine().finish(*cp, outcome); });
        break;
    case codec::kOpGet:
        if (!answer) {
            settle(c, 0);
            break;
        }
        c.suspend();
        store_->read(h.key, c.op.key_only,
                     [cp](const StoreStatus &outcome, int64_t, const std::vector<ObjectView> &objects) {
                         cp->engine().finish_read(*cp, outcome, objects);
                     });
        break;
    case codec::kOpPost: {
        std::unique_ptr<Subscription> sub(new Subscription(&c, h.key, h.triggers, c.op.key_only));
        if (c.subs.count(sub->folded) != 0) {
            if (answer) codec::encode_reply(out, *corrid, kStatusExists);
            settle(c, kStatusExists);
            break;
        }
        if (c.subs.size() >= options_.max_subscriptions) {
            if (!c.warned_subscriptions)
                logger_.event(LogLevel::warn, "post_refused",
                              {{"conn", c.id()},
                               {"subscriptions", c.subs.size()},
                               {"reason", "--max-subscriptions (logged once per connection)"}});
            c.warned_subscriptions = true;
            if (answer) codec::encode_reply(out, *corrid, kStatusTooManySubscriptions);
            settle(c, kStatusTooManySubscriptions);
            break;
        }
        c.op.image = answer && (h.flags & codec::kFlagNoImage) == 0;
        c.starting = sub.get();
        index_.add(*sub);
        c.subs.emplace(std::string_view(sub->folded), std::move(sub));
        refollow();
        c.suspend();
        store_->begin(h.key, c.op.key_only, c.op.image,
                      [cp](const StoreStatus &outcome, int64_t revision, const std::vector<ObjectView> &objects) {
                          cp->engine().finish_post(*cp, outcome, revision, objects);
                      });
        break;
    }
    case codec::kOpCancel: {
        auto it = c.subs.find(fold_key(h.key));
        bool found = it != c.subs.end();
        if (found) drop(*it->second);
        if (answer) codec::encode_reply(out, *corrid, found ? 0 : kStatusNoMatch);
        settle(c, found ? 0 : kStatusNoMatch);
        break;
    }
    default:
        if (corrid) codec::encode_reply(out, *corrid, kStatusNotSupported);
        settle(c, kStatusNotSupported);
        break;
    }
    if (!out.empty()) c.send(std::move(out));
}

// c's store call completed: counted, and a failure logged once, here,
// with the store's own account of it (the store logs none of its calls'
// failures). The store's being out of reach is an error; its refusal of
// a request, a warning.
uint64_t Engine::store_done(Connection &c, const StoreStatus &outcome)
{
    StoreCall call = store_call_of(c.op.opcode);
    uint64_t now = now_ns();
    metrics_.store_call(call, outcome.code, now - c.op.store_started);
    if (outcome.code == 0 || outcome.code == kStatusNoMatch) return now;
    static const char *const kCalls[] = {"put", "remove", "read", "begin"};
    bool down = outcome.code == kStatusStoreUnavailable || outcome.code == kStatusStoreTimeout;
    logger_.event(down ? LogLevel::error : LogLevel::warn, "store_failed",
                  {{"conn", c.id()},
                   {"call", kCalls[static_cast<size_t>(call)]},
                   {"status", outcome.code},
                   {"what", status_text(outcome.code)},
                   {"reason", outcome.why}});
    return now;
}

// Answers a put or a remove with the store's status.
void Engine::finish(Connection &c, const StoreStatus &outcome)
{
    uint64_t done = store_done(c, outcome);
    // Counted before the answer is sent: a client that has it sees it counted.
    settle(c, outcome.code, done);
    if (!c.closed() && c.op.corrid) {
        std::string out;
        codec::encode_reply(out, *c.op.corrid, outcome.code);
        c.send(std::move(out));
    }
    c.resume();
}

void Engine::finish_read(Connection &c, const StoreStatus &outcome, const std::vector<ObjectView> &objects)
{
    store_done(c, outcome);
    settle(c, outcome.code != 0 ? outcome.code : objects.empty() ? kStatusNoMatch : 0);
    if (!c.closed()) {
        if (outcome.code != 0) {
            std::string out;
            codec::encode_reply(out, *c.op.corrid, outcome.code);
            c.send(std::move(out));
        } else {
            send_objects(c, *c.op.corrid, codec::kOpGet, c.op.key_only, objects);
        }
    }
    c.resume();
}

// Sends a held change to c when its begun subscriptions selected it (all
// of them when begun_only, else the starting one too, now begun).
void Engine::send_held(Connection &c, const Held &e, bool begun_only)
{
    bool fresh = !begun_only && e.by.fresh;
    if (!e.by.begun && !fresh) return;
    bool value = e.value && (e.by.begun_value || (fresh && e.by.fresh_value));
    std::string out;
    codec::encode_notification(out, e.key, e.trigger, value ? std::string_view(*e.value) : std::string_view());
    metrics_.notifications.inc();
    c.notify(make_bytes(std::move(out)));
}

// The post's subscription has begun at revision (or failed). In this
// order: the held changes up to revision that the connection's other
// subscriptions select; the reply; the image; the held changes after
// revision that any of them selects, the new one included.
void Engine::finish_post(Connection &c, const StoreStatus &outcome, int64_t revision,
                         const std::vector<ObjectView> &objects)
{
    Subscription *sub = c.starting;
    if (sub == nullptr) { // the connection closed meanwhile
        metrics_.store_call(StoreCall::begin, outcome.code, now_ns() - c.op.store_started);
        c.resume();
        return;
    }
    c.starting = nullptr;
    // A notification may close the connection (which drops its
    // subscriptions): what is needed afterwards is taken first.
    std::vector<Held> held(std::move(c.held));
    c.held.clear();
    std::string feed_lost(std::move(c.feed_lost));
    c.feed_lost.clear();
    StoreStatus result = outcome;
    if (result.code == 0 && !feed_lost.empty()) result = StoreStatus(kStatusStoreUnavailable, std::move(feed_lost));
    store_done(c, result);
    if (result.code != 0) {
        drop(*sub);
        for (const Held &e : held)
            if (!c.closed()) send_held(c, e, true);
    } else {
        sub->starting = false;
        sub->after = revision;
        size_t i = 0;
        for (; i < held.size() && held[i].revision <= revision && !c.closed(); i++) send_held(c, held[i], true);
        settle(c, 0);
        if (c.op.corrid && !c.closed()) {
            std::string out;
            codec::encode_reply(out, *c.op.corrid, 0);
            c.send(std::move(out));
        }
        if (c.op.image && !c.closed()) send_objects(c, *c.op.corrid, codec::kOpPost, c.op.key_only, objects);
        for (; i < held.size() && !c.closed(); i++) send_held(c, held[i], false);
        // Rules reloaded while it started may no longer permit it.
        if (!c.closed() && acl_ && !acl_->permits(c.identity.groups, codec::kOpPost, sub->key)) revoke(c);
        c.resume();
        return;
    }
    settle(c, result.code);
    if (c.op.corrid && !c.closed()) {
        std::string out;
        codec::encode_reply(out, *c.op.corrid, result.code);
        c.send(std::move(out));
    }
    c.resume();
}

// Logs a request the access rules refused (the first kLoggedDenials of a
// connection, within the service-wide rate of such lines; the others are
// only counted): who, what, which key; never a value.
void Engine::deny(Connection &c, const codec::HspaceView &h)
{
    stats_.denied++;
    if (++c.denials > kLoggedDenials || !let(Repeat::Denied)) return;
    logger_.event(LogLevel::warn, "denied",
                  {{"conn", c.id()},
                   {"op", op_name(h.opcode)},
                   {"key", h.key},
                   {"client", c.identity.name},
                   {"group", join(c.identity.groups)},
                   {"certified", c.identity.certified},
                   {"more_logged", kLoggedDenials - c.denials}});
}

// Ends every begun subscription of c that the rules in force do not permit,
// each with a notification of trigger kTriggerEnded under its own key that
// says why. Returns how many ended.
size_t Engine::revoke(Connection &c)
{
    std::string out, first;
    size_t ended = 0;
    for (auto it = c.subs.begin(); it != c.subs.end();) {
        Subscription &s = *it->second;
        if (s.starting || acl_->permits(c.identity.groups, codec::kOpPost, s.key)) {
            ++it;
            continue;
        }
        if (ended++ == 0) first = escape_field(s.key);
        codec::encode_notification(out, s.key, kTriggerEnded, "permission denied");
        index_.remove(s);
        it = c.subs.erase(it);
    }
    if (ended == 0) return 0;
    log("conn %llu: %zu subscription%s no longer permitted, ended (\"%s\"%s)", static_cast<unsigned long long>(c.id()),
        ended, ended == 1 ? "" : "s", first.c_str(), ended == 1 ? "" : ", ...");
    refollow();
    c.notify(make_bytes(std::move(out)));
    return ended;
}

bool Engine::reload(std::string *error)
{
    std::string why;
    std::shared_ptr<const Acl> acl;
    if (!options_.acl_file.empty()) acl = Acl::load(options_.acl_file, &why);
    auto apply = [&] {
        if (options_.acl_file.empty()) {
            log("reload: no access rules to reload (no --acl)");
        } else if (!acl) {
            log("access rules not reloaded, the previous ones stay: %s", why.c_str());
        } else {
            acl_ = acl;
            // A revocation's notification may close its connection: the table is copied first.
            std::vector<std::shared_ptr<Connection>> all;
            for (auto &entry : conns_) all.push_back(entry.second);
            size_t ended = 0;
            for (auto &c : all)
                if (!c->closed()) ended += revoke(*c);
            log("access rules reloaded from %s: %zu rules, %zu subscriptions ended", options_.acl_file.c_str(),
                acl_->rules(), ended);
        }
    };
    if (thread_.joinable()) {
        std::promise<void> applied;
        asio::post(io_, [&] {
            apply();
            applied.set_value();
        });
        applied.get_future().wait();
    } else {
        apply();
    }
    if (!why.empty() && error != nullptr) *error = why;
    return why.empty();
}

// Forgets one subscription of its connection.
void Engine::drop(Subscription &s)
{
    Connection &c = *s.conn;
    if (c.starting == &s) c.starting = nullptr;
    index_.remove(s);
    c.subs.erase(std::string_view(s.folded)); // frees s
    refollow();
}

void Engine::drop_all(Connection &c)
{
    for (auto &entry : c.subs) index_.remove(*entry.second);
    c.subs.clear();
    c.starting = nullptr;
    c.held.clear();
    refollow();
}

// Asks the store for its change feed exactly while some connection
// subscribes.
void Engine::refollow()
{
    metrics_.subscriptions.set(static_cast<int64_t>(index_.size()));
    bool want = index_.size() > 0;
    if (want == following_ || !store_) return;
    following_ = want;
    store_->follow(want);
}

// Sends objects as answers numbered 1..n of n addressed to corrid, in one
// packet batch; status 2 when there is none.
void Engine::send_objects(Connection &c, uint32_t corrid, uint8_t opcode, bool key_only,
                          const std::vector<ObjectView> &objects)
{
    // Values the store shares from kShareFrom bytes are queued as they are
    // after their packet's first bytes; the rest is copied into packets.
    auto shared = [key_only](const ObjectView &o) {
        return !key_only && o.shared && o.value.size() >= kShareFrom && o.value.data() == o.shared->data() &&
               o.value.size() == o.shared->size();
    };
    std::string out;
    if (objects.empty()) codec::encode_reply(out, corrid, kStatusNoMatch);
    size_t total = 0;
    for (const ObjectView &o : objects)
        total += codec::object_size(o.key.size(), key_only || shared(o) ? 0 : o.value.size());
    out.reserve(total);
    uint32_t n = static_cast<uint32_t>(objects.size());
    for (uint32_t i = 0; i < n; i++) {
        const ObjectView &o = objects[i];
        if (!shared(o)) {
            codec::encode_object(out, corrid, opcode, o.key, key_only ? std::string_view() : o.value, n, i + 1);
            continue;
        }
        codec::encode_object_head(out, corrid, opcode, o.key, o.value.size(), n, i + 1);
        c.send(std::move(out));
        c.send(o.shared);
        out.clear();
    }
    if (!out.empty()) c.send(std::move(out));
}

// Sends a notification of the change of key to every connection with a
// subscription that selects the key and the change, once per connection;
// the value (none for a removal) goes to those whose selecting
// subscriptions are not all key-only. A connection whose post is starting
// holds the change until the post has begun. The subscriptions are found
// through the index: the cost is that of the selecting ones.
void Engine::on_change(std::string_view key, uint8_t trigger, const std::string_view *value, int64_t revision,
                       const SharedValue &shared)
{
    const uint64_t change = ++changes_;
    targets_.clear();
    index_.select(key, [&](SubscriptionIndex::Entry &entry) {
        Subscription &s = static_cast<Subscription &>(entry);
        if (s.triggers != 0 && (s.triggers & trigger) == 0) return;
        // The store's feed may deliver changes the image already held.
        if (!s.starting && revision <= s.after) return;
        Connection &c = *s.conn;
        if (c.selected != change) {
            c.selected = change;
            c.target = targets_.size();
            targets_.emplace_back(&c, Selection());
        }
        Selection &by = targets_[c.target].second;
        if (s.starting) {
            by.fresh = true;
            by.fresh_value = by.fresh_value || !s.key_only;
        } else {
            by.begun = true;
            by.begun_value = by.begun_value || !s.key_only;
        }
    });
    if (targets_.empty()) return;
    // A notification may close its connection, which then leaves conns_
    // and the index: each target is kept alive while it is served, and the
    // list is moved aside in case a close reenters.
    std::vector<std::pair<Connection *, Selection>> targets(std::move(targets_));
    // A large value the store shares follows its packet's first bytes as
    // it is (value_bytes) instead of being copied into the packet.
    bool share = value != nullptr && shared && value->size() >= kShareFrom && value->data() == shared->data() &&
                 value->size() == shared->size();
    Bytes with_value, without_value;
    for (auto &[cp, by] : targets) {
        std::shared_ptr<Connection> c = cp->shared_from_this();
        if (c->starting != nullptr) {
            std::optional<std::string> v;
            if (value != nullptr) v.emplace(*value);
            c->held.push_back(Held{std::string(key), trigger, std::move(v), revision, by});
            continue;
        }
        bool send_value = by.begun_value && value != nullptr;
        Bytes &bytes = send_value ? with_value : without_value;
        if (!bytes) {
            std::string out;
            if (send_value && share)
                codec::encode_notification_head(out, key, trigger, value->size());
            else
                codec::encode_notification(out, key, trigger, send_value ? *value : std::string_view());
            bytes = make_bytes(std::move(out));
        }
        metrics_.notifications.inc();
        c->notify(bytes);
        if (send_value && share) c->notify(shared);
    }
    targets.clear();
    targets_ = std::move(targets);
}

// Ends every subscription that has begun with a notification of trigger
// kTriggerEnded under its own key, whose value is why; a post starting
// will be answered with kStatusStoreUnavailable, after the changes held
// for the connection's begun subscriptions.
void Engine::on_feed_ended(const std::string &why)
{
    logger_.event(LogLevel::error, "feed_ended", {{"reason", why}, {"subscriptions", index_.size()}});
    following_ = false;
    std::vector<std::shared_ptr<Connection>> all;
    for (auto &entry : conns_) all.push_back(entry.second);
    for (auto &c : all) {
        if (c->starting != nullptr) {
            c->feed_lost = why;
            std::vector<Held> held(std::move(c->held));
            c->held.clear();
            for (const Held &e : held)
                if (!c->closed()) send_held(*c, e, true);
        }
        std::string out;
        for (auto it = c->subs.begin(); it != c->subs.end() && !c->closed();) {
            Subscription &s = *it->second;
            if (s.starting) {
                ++it;
                continue;
            }
            codec::encode_notification(out, s.key, kTriggerEnded, why);
            metrics_.notifications.inc();
            index_.remove(s);
            it = c->subs.erase(it);
        }
        if (!out.empty() && !c->closed()) c->notify(make_bytes(std::move(out)));
    }
    refollow();
}

Server::Server(Options options) : engine_(new Engine(std::move(options))) {}

Server::~Server()
{
    stop();
}

bool Server::start(std::string *error)
{
    return engine_->start(error);
}

void Server::stop()
{
    engine_->stop();
}

bool Server::reload(std::string *error)
{
    return engine_->reload(error);
}

uint16_t Server::port() const
{
    return engine_->port_;
}

std::string Server::url() const
{
    bool tls = !engine_->options_.tls_cert.empty();
    return (tls ? "tls://" : "tcp://") + engine_->host_ + ":" + std::to_string(engine_->port_);
}

const Stats &Server::stats() const
{
    return engine_->stats_;
}

uint16_t Server::http_port() const
{
    return engine_->http_port();
}

} // namespace service
} // namespace hspace
