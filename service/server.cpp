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
 * Bytes on the wire are framed, decoded and encoded by the hspace codec.
 */
#include "server.h"

#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <asio.hpp>

#include "hspace_codec.h"
#include "keyed_hash.h"
#include "store/store.h"
#include "subscription_index.h"

namespace hspace {
namespace service {

namespace {

// Statuses the service answers with besides the store's (the client
// library's codes).
constexpr uint32_t kStatusTooLarge = 12;       // a put's value could never be sent back under max_queue
constexpr uint32_t kStatusNotSupported = 14;   // unknown opcode
constexpr uint32_t kStatusExists = 20;         // the connection already subscribes to the key

constexpr size_t kReadChunk = 64 * 1024;       // bytes asked of each read
// A packet of this many bytes or more is received into a string of its own
// (Connection::large_), from which a put's value moves into the store.
constexpr size_t kLargePacket = 1024 * 1024;
constexpr size_t kLargeChunk = 1024 * 1024;    // bytes asked of each read into it
constexpr size_t kMaxGather = 64;              // queued packets handed to one write
// Values of this many bytes or more are sent from the store's own string
// when it shares it (ObjectView::shared), after a packet's first bytes,
// instead of being copied into the packet.
constexpr size_t kShareFrom = 16 * 1024;

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

// s with every byte outside printable ASCII replaced by '?', so that a log
// line stays one line whatever a client sends.
std::string printable(std::string_view s)
{
    std::string out(s);
    for (char &ch : out)
        if (static_cast<unsigned char>(ch) < 0x20 || static_cast<unsigned char>(ch) > 0x7E) ch = '?';
    return out;
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

// The request whose store call a connection waits for.
struct Op {
    std::optional<uint32_t> corrid;            // answer to this correlation id; none: no answer
    uint8_t opcode = 0;
    bool key_only = false;
    bool image = false;                        // post: send the image
};

} // namespace

// The listener, the connections and the store. Everything but start(),
// stop() and the stats runs on the I/O thread.
class Engine final : public Listener {
public:
    explicit Engine(Options options) : options_(std::move(options)) {}

    bool start(std::string *error);
    void stop();

    // I/O thread: the connection asks to be forgotten (it has closed).
    void forget(uint64_t id, const std::string &why);
    // I/O thread: one decoded packet from a connection. packet, when not
    // null, holds the packet's bytes, which p views, and a put may take it
    // for its value (leaving it unspecified).
    void handle(Connection &c, const codec::PacketView &p, std::string *packet = nullptr);
    // I/O thread: one line on stderr when logging is on.
    void log(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
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
    Stats stats_;                              // counters, any thread
    uint16_t port_ = 0;                        // listening port; set by start() before the thread
    std::string host_;                         // listening address as text; set by start()

private:
    void accept();
    void shutdown();
    void send_objects(Connection &c, uint32_t corrid, uint8_t opcode, bool key_only,
                      const std::vector<ObjectView> &objects);
    void send_held(Connection &c, const Held &e, bool begun_only);
    void drop(Subscription &s);
    void failed(Connection &c, const char *what, const StoreStatus &outcome);
    void refollow();

    asio::io_context io_{1};                   // runs every handler, on thread_ (one thread: the hint)
    asio::ip::tcp::acceptor acceptor_{io_};    // the listener
    std::thread thread_;                       // the I/O thread; joinable from start() to stop()
    bool started_ = false;                     // owning thread: start() succeeded once
    uint64_t next_id_ = 1;                     // I/O thread: id of the next connection
    std::map<uint64_t, std::shared_ptr<Connection>> conns_; // I/O thread: open connections by id
    SubscriptionIndex index_;                  // I/O thread: every subscription of every connection
    uint64_t changes_ = 0;                     // I/O thread: changes seen; marks a connection selected
    std::vector<std::pair<Connection *, Selection>> targets_; // I/O thread: on_change's, kept for its capacity
    bool following_ = false;                   // I/O thread: the store's feed is asked for
    // Declared after io_: destroyed first, while the context its calls
    // complete through still exists.
    std::unique_ptr<Store> store_;             // the objects; created by start()
};

namespace {

// One client connection. Lives while it is in the engine's table or an
// asynchronous operation holds it. I/O thread only.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(Engine &engine, asio::ip::tcp::socket socket, uint64_t id)
        : engine_(engine), socket_(std::move(socket)), id_(id)
    {
    }

    uint64_t id() const { return id_; }
    bool closed() const { return closed_; }

    // Starts reading.
    void start() { read(); }

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
    // resets the connection instead of letting the kernel drain it.
    void close(const std::string &why, bool abortive = false)
    {
        if (closed_) return;
        closed_ = true;
        asio::error_code ignored;
        if (abortive) socket_.set_option(asio::socket_base::linger(true, 0), ignored);
        socket_.close(ignored);
        engine_.drop_all(*this);
        engine_.forget(id_, why);
    }

    // Marks a store call outstanding: no request is read until resume().
    // The connection keeps itself alive until then.
    void suspend()
    {
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
    // This connection's subscriptions by Subscription::folded, which the
    // key views: a post's duplicate test and a cancel are one lookup.
    std::unordered_map<std::string_view, std::unique_ptr<Subscription>, KeyedHash> subs;
    Subscription *starting = nullptr;          // the one whose post waits for the store, if any
    std::vector<Held> held;                    // changes held while starting is set
    std::string feed_lost;                     // why the store's feed ended while starting was set
    uint64_t selected = 0;                     // Engine::changes_ when a change last selected it
    size_t target = 0;                         // then: its place in the engine's targets
    Op op;                                     // the request of the outstanding store call

private:
    void queue(Bytes bytes, bool notification)
    {
        if (closed_) return;
        queued_ += bytes->size();
        if (notification) notified_ += bytes->size();
        out_.push_back(Outbound{std::move(bytes), notification});
        if (notified_ > engine_.options_.max_queue) {
            engine_.stats_.dropped_slow++;
            close("outbound queue over " + std::to_string(engine_.options_.max_queue) + " bytes", true);
            return;
        }
        if (in_flight_ == 0) write();
    }

    bool backlogged() const { return queued_ > engine_.options_.max_queue; }

    void read()
    {
        reading_ = true;
        if (large_want_ != 0) {
            // Pages are touched as bytes come: the string's capacity was
            // reserved (not filled) for the whole packet.
            size_t have = large_.size(), ask = std::min(kLargeChunk, large_want_ - have);
            large_.resize(have + ask);
            auto self = shared_from_this();
            socket_.async_read_some(asio::buffer(&large_[have], ask), [self, have](const asio::error_code &ec,
                                                                                   size_t n) {
                self->large_.resize(have + n);
                self->on_read(ec, self->in_.size(), 0);
            });
            return;
        }
        size_t have = in_.size();
        in_.resize(have + kReadChunk);
        auto self = shared_from_this();
        socket_.async_read_some(asio::buffer(&in_[have], kReadChunk),
                                [self, have](const asio::error_code &ec, size_t n) { self->on_read(ec, have, n); });
    }

    void on_read(const asio::error_code &ec, size_t have, size_t n)
    {
        reading_ = false;
        if (closed_) return;
        in_.resize(have + n);
        if (ec) {
            close(ec == asio::error::eof ? std::string("peer closed") : ec.message());
            return;
        }
        pump();
    }

    // Serves the complete requests in in_ until one waits for the store or
    // the outbound queue is over max_queue, then reads more if neither holds.
    // Whatever stops it calls again: resume() when the store call completes,
    // on_write once the queue is back under max_queue. Not reentrant: a store
    // call completed inside handle() lets the loop below go on.
    void pump()
    {
        if (pumping_ || closed_) return;
        pumping_ = true;
        size_t off = 0;
        while (!closed_ && !busy_ && !backlogged()) {
            if (large_want_ != 0) {
                if (large_.size() < large_want_) break;
                handle_large();
                continue;
            }
            const uint8_t *data = reinterpret_cast<const uint8_t *>(in_.data()) + off;
            codec::FrameResult f = codec::frame(data, in_.size() - off);
            if (f.status == codec::FrameStatus::NeedMore) {
                if (start_large(data, in_.size() - off)) off = in_.size();
                break;
            }
            codec::PacketView p;
            if (f.status == codec::FrameStatus::Invalid || !codec::decode(data, f.wirelen, p)) {
                engine_.stats_.dropped_invalid++;
                close("invalid packet");
                return;
            }
            off += f.wirelen;
            engine_.handle(*this, p);
        }
        pumping_ = false;
        if (closed_) return;
        in_.erase(0, off);
        if (!busy_ && !reading_ && !backlogged()) read();
    }

    // The packet at data, of which avail bytes are in, is long enough to be
    // received into large_ (after the handshake, up to the longest request
    // that could be stored): its bytes move there and true is returned.
    // Only the string's capacity is reserved, so a length announced costs
    // no memory until its bytes come.
    bool start_large(const uint8_t *data, size_t avail)
    {
        if (!handshaken || avail < 8) return false;
        size_t wire = (size_t(data[4]) << 24) | (size_t(data[5]) << 16) | (size_t(data[6]) << 8) | size_t(data[7]);
        size_t most = codec::object_size(codec::kMaxString, engine_.options_.max_queue);
        if (wire < kLargePacket || wire > most) return false;
        large_.reserve(wire);
        large_.assign(reinterpret_cast<const char *>(data), avail);
        large_want_ = wire;
        return true;
    }

    // large_ holds its whole packet: framed, decoded and handled like any,
    // with large_ offered to a put for its value.
    void handle_large()
    {
        std::string packet(std::move(large_));
        large_.clear();
        large_want_ = 0;
        const uint8_t *data = reinterpret_cast<const uint8_t *>(packet.data());
        codec::FrameResult f = codec::frame(data, packet.size());
        codec::PacketView p;
        if (f.status != codec::FrameStatus::Complete || f.wirelen != packet.size() ||
            !codec::decode(data, f.wirelen, p)) {
            engine_.stats_.dropped_invalid++;
            close("invalid packet");
            return;
        }
        engine_.handle(*this, p, &packet);
    }

    // Writes up to kMaxGather queued packets in one operation.
    void write()
    {
        std::vector<asio::const_buffer> buffers;
        for (size_t i = 0; i < out_.size() && i < kMaxGather; i++)
            buffers.push_back(asio::buffer(*out_[i].bytes));
        in_flight_ = buffers.size();
        auto self = shared_from_this();
        asio::async_write(socket_, buffers, [self](const asio::error_code &ec, size_t) { self->on_write(ec); });
    }

    void on_write(const asio::error_code &ec)
    {
        if (closed_) return;
        if (ec) {
            close(ec.message());
            return;
        }
        for (; in_flight_ > 0; in_flight_--) {
            queued_ -= out_.front().bytes->size();
            if (out_.front().notification) notified_ -= out_.front().bytes->size();
            out_.pop_front();
        }
        if (!out_.empty()) write();
        // pump() stopped at the bound with no read outstanding: go on.
        if (!reading_ && !busy_ && !backlogged()) pump();
    }

    struct Outbound {
        Bytes bytes;                           // an encoded packet
        bool notification;                     // counted in notified_
    };

    Engine &engine_;                           // the owner of the table this connection is in
    asio::ip::tcp::socket socket_;             // the client's socket
    const uint64_t id_;                        // number in logs and in the table
    std::string in_;                           // received bytes not yet framed (plus read space)
    std::string large_;                        // the long packet being received, while large_want_
    size_t large_want_ = 0;                    // its length; 0 when none is
    std::deque<Outbound> out_;                 // queued packets; the first in_flight_ are being written
    size_t in_flight_ = 0;                     // packets of out_ handed to the current write
    size_t queued_ = 0;                        // bytes in out_
    size_t notified_ = 0;                      // bytes of the notifications in out_
    bool reading_ = false;                     // a read is outstanding
    bool closed_ = false;                      // close() ran
    bool busy_ = false;                        // a store call for op is outstanding
    bool pumping_ = false;                     // pump() is on the stack
    std::shared_ptr<Connection> hold_;         // this connection, while busy_
};

} // namespace

void Engine::log(const char *fmt, ...)
{
    if (!options_.log) return;
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    fprintf(stderr, "hspaced: %s\n", line);
}

bool Engine::start(std::string *error)
{
    auto fail = [error](const std::string &why) {
        if (error != nullptr) *error = why;
        return false;
    };
    if (started_) return fail("already started");
    std::string why;
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
    if (!ec) port_ = acceptor_.local_endpoint(ec).port();
    if (ec) {
        asio::error_code ignored;
        acceptor_.close(ignored);
        return fail("cannot listen on " + options_.host + ":" + std::to_string(options_.port) + ": " + ec.message());
    }
    host_ = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    accept();
    started_ = true;
    thread_ = std::thread([this] { io_.run(); });
    return true;
}

void Engine::stop()
{
    if (!thread_.joinable()) return;
    asio::post(io_, [this] { shutdown(); });
    thread_.join();
}

// I/O thread: closes the listener and every connection; the I/O thread's
// run() returns once their aborted operations have finished.
void Engine::shutdown()
{
    asio::error_code ignored;
    acceptor_.close(ignored);
    std::vector<std::shared_ptr<Connection>> all;
    for (auto &entry : conns_) all.push_back(entry.second);
    for (auto &c : all) c->close("service stopping");
    store_->close();
}

void Engine::accept()
{
    acceptor_.async_accept([this](const asio::error_code &ec, asio::ip::tcp::socket socket) {
        if (!acceptor_.is_open()) return;
        if (ec) {
            log("accept failed: %s", ec.message().c_str());
        } else {
            asio::error_code ignored;
            socket.set_option(asio::ip::tcp::no_delay(true), ignored);
            asio::ip::tcp::endpoint peer = socket.remote_endpoint(ignored);
            auto c = std::make_shared<Connection>(*this, std::move(socket), next_id_++);
            conns_[c->id()] = c;
            stats_.accepted++;
            stats_.open++;
            log("conn %llu accepted from %s:%u", static_cast<unsigned long long>(c->id()),
                peer.address().to_string().c_str(), peer.port());
            c->start();
        }
        accept();
    });
}

void Engine::forget(uint64_t id, const std::string &why)
{
    if (conns_.erase(id) == 0) return;
    stats_.open--;
    log("conn %llu closed: %s", static_cast<unsigned long long>(id), why.c_str());
}

void Engine::handle(Connection &c, const codec::PacketView &p, std::string *packet)
{
    if (!c.handshaken) {
        if (p.body_type != codec::kTypeHandshakeRequest || p.strings[0] != "data") {
            stats_.dropped_invalid++;
            c.close("first packet is no handshake for service type \"data\"");
            return;
        }
        std::string out;
        codec::encode_handshake_reply(out, 1, options_.ltp, options_.name);
        c.handshaken = true;
        log("conn %llu handshake: client \"%s\" group \"%s\"", static_cast<unsigned long long>(c.id()),
            printable(p.strings[1]).c_str(), printable(p.strings[2]).c_str());
        c.send(std::move(out));
        return;
    }

    // A request is answered when it carries a correlation id and does not
    // ask for no reply.
    std::optional<uint32_t> corrid;
    if (p.rr) corrid = p.rr->corrid;
    if (!p.hspace) {
        if (corrid) {
            std::string out;
            codec::encode_reply(out, *corrid, kStatusNotSupported);
            c.send(std::move(out));
        }
        return;
    }
    const codec::HspaceView &h = *p.hspace;
    const bool answer = corrid && h.semantic != codec::kSemNoReply;
    c.op = Op{};
    if (answer) c.op.corrid = corrid;
    c.op.opcode = h.opcode;
    c.op.key_only = (h.flags & codec::kFlagKeyOnly) != 0;
    Connection *cp = &c;
    std::string out;

    switch (h.opcode) {
    case codec::kOpPut: {
        // The largest packet that would carry the value: an object
        // answering a get or a post (a notification is smaller).
        size_t largest = codec::object_size(h.key.size(), p.body.size());
        if (largest > options_.max_queue) {
            log("conn %llu put refused: value of %zu bytes under key \"%s\" would make packets of %zu bytes, over "
                "--max-queue (%zu bytes)",
                static_cast<unsigned long long>(c.id()), p.body.size(), printable(h.key).c_str(), largest,
                options_.max_queue);
            if (answer) codec::encode_reply(out, *corrid, kStatusTooLarge);
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
        if (!answer) break;
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
        break;
    }
    default:
        if (corrid) codec::encode_reply(out, *corrid, kStatusNotSupported);
        break;
    }
    if (!out.empty()) c.send(std::move(out));
}

// Logs a store call that failed, with the store's own account of it.
void Engine::failed(Connection &c, const char *what, const StoreStatus &outcome)
{
    if (outcome.code == 0 || outcome.code == kStatusNoMatch) return;
    log("conn %llu %s failed: %s (%u)%s%.*s", static_cast<unsigned long long>(c.id()), what,
        status_text(outcome.code), outcome.code, outcome.why.empty() ? "" : ": ",
        static_cast<int>(std::min<size_t>(outcome.why.size(), 300)), outcome.why.data());
}

// Answers a put or a remove with the store's status.
void Engine::finish(Connection &c, const StoreStatus &outcome)
{
    failed(c, c.op.opcode == codec::kOpPut ? "put" : "remove", outcome);
    if (!c.closed() && c.op.corrid) {
        std::string out;
        codec::encode_reply(out, *c.op.corrid, outcome.code);
        c.send(std::move(out));
    }
    c.resume();
}

void Engine::finish_read(Connection &c, const StoreStatus &outcome, const std::vector<ObjectView> &objects)
{
    failed(c, "get", outcome);
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
    failed(c, "post", result);
    if (result.code != 0) {
        drop(*sub);
        for (const Held &e : held)
            if (!c.closed()) send_held(c, e, true);
    } else {
        sub->starting = false;
        sub->after = revision;
        size_t i = 0;
        for (; i < held.size() && held[i].revision <= revision && !c.closed(); i++) send_held(c, held[i], true);
        if (c.op.corrid && !c.closed()) {
            std::string out;
            codec::encode_reply(out, *c.op.corrid, 0);
            c.send(std::move(out));
        }
        if (c.op.image && !c.closed()) send_objects(c, *c.op.corrid, codec::kOpPost, c.op.key_only, objects);
        for (; i < held.size() && !c.closed(); i++) send_held(c, held[i], false);
        c.resume();
        return;
    }
    if (c.op.corrid && !c.closed()) {
        std::string out;
        codec::encode_reply(out, *c.op.corrid, result.code);
        c.send(std::move(out));
    }
    c.resume();
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
    log("store feed ended: %s; ending every subscription", why.c_str());
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

uint16_t Server::port() const
{
    return engine_->port_;
}

std::string Server::url() const
{
    return "tcp://" + engine_->host_ + ":" + std::to_string(engine_->port_);
}

const Stats &Server::stats() const
{
    return engine_->stats_;
}

} // namespace service
} // namespace hspace
