/*
 * server.cpp - the reference hspace service: the listener, the connections
 * and the in-memory store, all run by one Asio I/O thread.
 *
 * Threads: the Engine's I/O thread runs every handler below and alone
 * touches the store, the connection table and each connection's buffers; no
 * locks. The owning thread only starts and stops the engine; Stats are
 * atomics readable anywhere.
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
#include <utility>
#include <vector>

#include <asio.hpp>

#include "hspace_codec.h"

namespace hspace {
namespace service {

namespace {

// Statuses the service answers with (the client library's codes).
constexpr uint32_t kStatusNoMatch = 2;         // nothing stored under the key, no such subscription
constexpr uint32_t kStatusTooLarge = 12;       // a put's value could never be sent back under max_queue
constexpr uint32_t kStatusNotSupported = 14;   // unknown opcode
constexpr uint32_t kStatusExists = 20;         // the connection already subscribes to the key

// Trigger values of notifications; a post's mask selects them by these bits.
constexpr uint8_t kTriggerStored = 1;          // a put stored the key
constexpr uint8_t kTriggerRemoved = 2;         // a remove deleted the key

constexpr size_t kReadChunk = 64 * 1024;       // bytes asked of each read
constexpr size_t kMaxGather = 64;              // queued packets handed to one write

using Bytes = std::shared_ptr<const std::string>; // an encoded packet, shared between subscribers

// A key ending in '*' is a prefix pattern.
bool is_pattern(const std::string &key)
{
    return !key.empty() && key.back() == '*';
}

// True when key is selected by the key or prefix pattern subscribed.
bool selects(const std::string &subscribed, const std::string &key)
{
    if (!is_pattern(subscribed)) return subscribed == key;
    return key.compare(0, subscribed.size() - 1, subscribed, 0, subscribed.size() - 1) == 0;
}

// Key equality without regard to ASCII letter case, as the client compares.
bool same_key_nocase(const std::string &a, const std::string &b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x + 32);
        if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y + 32);
        if (x != y) return false;
    }
    return true;
}

// s with every byte outside printable ASCII replaced by '?', so that a log
// line stays one line whatever a client sends.
std::string printable(const std::string &s)
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

struct Subscription {
    std::string key;                           // key or prefix pattern as posted
    uint8_t triggers;                          // mask of trigger bits; 0 selects all
    bool key_only;                             // notifications without values
};

class Connection;

} // namespace

// The listener, the connections and the store. Everything but start(),
// stop() and the stats runs on the I/O thread.
class Engine {
public:
    explicit Engine(Options options) : options_(std::move(options)) {}

    bool start(std::string *error);
    void stop();

    // I/O thread: the connection asks to be forgotten (it has closed).
    void forget(uint64_t id, const std::string &why);
    // I/O thread: one decoded packet from a connection.
    void handle(Connection &c, const codec::Packet &p);
    // I/O thread: one line on stderr when logging is on.
    void log(const char *fmt, ...) __attribute__((format(printf, 2, 3)));

    const Options options_;                    // as given; read-only
    Stats stats_;                              // counters, any thread
    uint16_t port_ = 0;                        // listening port; set by start() before the thread
    std::string host_;                         // listening address as text; set by start()

private:
    void accept();
    void shutdown();
    void answer_get(Connection &c, uint32_t corrid, uint8_t opcode, const std::string &key, bool key_only);
    void notify(const std::string &key, uint8_t trigger, const std::string *value);
    static size_t largest_packet(const std::string &key, size_t value_size);

    asio::io_context io_;                      // runs every handler, on thread_
    asio::ip::tcp::acceptor acceptor_{io_};    // the listener
    std::thread thread_;                       // the I/O thread; joinable from start() to stop()
    bool started_ = false;                     // owning thread: start() succeeded once
    uint64_t next_id_ = 1;                     // I/O thread: id of the next connection
    std::map<uint64_t, std::shared_ptr<Connection>> conns_; // I/O thread: open connections by id
    std::map<std::string, std::string> store_; // I/O thread: the objects, in key order
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
    // consume), so they are bounded by max_queue plus one answer.
    void send(std::string bytes) { queue(make_bytes(std::move(bytes)), false); }

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
        engine_.forget(id_, why);
    }

    bool handshaken = false;                   // the handshake was answered
    std::vector<Subscription> subs;            // this connection's subscriptions, in post order

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
        consume();
    }

    // Handles the complete packets received, until the outbound queue is
    // over max_queue (on_write calls again once it has drained), then reads
    // on.
    void consume()
    {
        size_t off = 0;
        while (!closed_ && !backlogged()) {
            const uint8_t *data = reinterpret_cast<const uint8_t *>(in_.data()) + off;
            codec::FrameResult f = codec::frame(data, in_.size() - off);
            if (f.status == codec::FrameStatus::NeedMore) break;
            codec::Packet p;
            if (f.status == codec::FrameStatus::Invalid || !codec::decode(data, f.wirelen, p)) {
                engine_.stats_.dropped_invalid++;
                close("invalid packet");
                return;
            }
            off += f.wirelen;
            engine_.handle(*this, p);
        }
        if (closed_) return;
        in_.erase(0, off);
        if (!backlogged()) read();
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
        if (!reading_ && !backlogged()) consume();
    }

    struct Outbound {
        Bytes bytes;                           // an encoded packet
        bool notification;                     // counted in notified_
    };

    Engine &engine_;                           // the owner of the table this connection is in
    asio::ip::tcp::socket socket_;             // the client's socket
    const uint64_t id_;                        // number in logs and in the table
    std::string in_;                           // received bytes not yet framed (plus read space)
    std::deque<Outbound> out_;                 // queued packets; the first in_flight_ are being written
    size_t in_flight_ = 0;                     // packets of out_ handed to the current write
    size_t queued_ = 0;                        // bytes in out_
    size_t notified_ = 0;                      // bytes of the notifications in out_
    bool reading_ = false;                     // a read is outstanding
    bool closed_ = false;                      // close() ran
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

void Engine::handle(Connection &c, const codec::Packet &p)
{
    if (!c.handshaken) {
        if (!p.handshake_request || p.handshake_request->service_type != "data") {
            stats_.dropped_invalid++;
            c.close("first packet is no handshake for service type \"data\"");
            return;
        }
        std::string out;
        codec::encode_handshake_reply(out, 1, options_.ltp, options_.name);
        c.handshaken = true;
        log("conn %llu handshake: client \"%s\" group \"%s\"", static_cast<unsigned long long>(c.id()),
            printable(p.handshake_request->client_name).c_str(), printable(p.handshake_request->client_group).c_str());
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
    const codec::HspaceSubheader &h = *p.hspace;
    const bool answer = corrid && h.semantic != codec::kSemNoReply;
    const bool key_only = (h.flags & codec::kFlagKeyOnly) != 0;
    std::string out;

    switch (h.opcode) {
    case codec::kOpPut: {
        size_t largest = largest_packet(h.key, p.body.size());
        if (largest > options_.max_queue) {
            log("conn %llu put refused: value of %zu bytes under key \"%s\" would make packets of %zu bytes, over "
                "the %zu-byte queue bound",
                static_cast<unsigned long long>(c.id()), p.body.size(), printable(h.key).c_str(), largest,
                options_.max_queue);
            if (answer) codec::encode_reply(out, *corrid, kStatusTooLarge);
            break;
        }
        std::string &value = store_[h.key];
        value = p.body;
        notify(h.key, kTriggerStored, &value);
        if (answer) codec::encode_reply(out, *corrid, 0);
        break;
    }
    case codec::kOpGet:
        if (answer) answer_get(c, *corrid, codec::kOpGet, h.key, key_only);
        break;
    case codec::kOpPost: {
        bool exists = false;
        for (const Subscription &s : c.subs) exists = exists || same_key_nocase(s.key, h.key);
        if (exists) {
            if (answer) codec::encode_reply(out, *corrid, kStatusExists);
            break;
        }
        c.subs.push_back(Subscription{h.key, h.triggers, key_only});
        if (!answer) break;
        codec::encode_reply(out, *corrid, 0);
        c.send(std::move(out));
        out.clear();
        if ((h.flags & codec::kFlagNoImage) == 0) answer_get(c, *corrid, codec::kOpPost, h.key, key_only);
        break;
    }
    case codec::kOpCancel: {
        uint32_t status = kStatusNoMatch;
        for (auto it = c.subs.begin(); it != c.subs.end(); ++it) {
            if (same_key_nocase(it->key, h.key)) {
                c.subs.erase(it);
                status = 0;
                break;
            }
        }
        if (answer) codec::encode_reply(out, *corrid, status);
        break;
    }
    case codec::kOpRemove: {
        bool removed = store_.erase(h.key) != 0;
        if (removed) notify(h.key, kTriggerRemoved, nullptr);
        if (answer) codec::encode_reply(out, *corrid, removed ? 0 : kStatusNoMatch);
        break;
    }
    default:
        if (corrid) codec::encode_reply(out, *corrid, kStatusNotSupported);
        break;
    }
    if (!out.empty()) c.send(std::move(out));
}

// The size of the largest packet that carries a value of value_size bytes
// stored under key: an object answering a get or a post, or a notification.
size_t Engine::largest_packet(const std::string &key, size_t value_size)
{
    static const std::string one(1, 'x');
    std::string object, notification;
    codec::encode_object(object, ~0u, codec::kOpPost, key, one, ~0u, ~0u, ~0);
    codec::encode_notification(notification, key, kTriggerRemoved, one);
    return std::max(object.size(), notification.size()) - 1 + value_size;
}

// Sends what is stored under key (or, for a pattern, under every key with
// its prefix, in key order) as objects numbered 1..n of n addressed to
// corrid, in one packet batch; status 2 when there is nothing.
void Engine::answer_get(Connection &c, uint32_t corrid, uint8_t opcode, const std::string &key, bool key_only)
{
    std::vector<const std::pair<const std::string, std::string> *> found;
    if (is_pattern(key)) {
        std::string prefix = key.substr(0, key.size() - 1);
        for (auto it = store_.lower_bound(prefix); it != store_.end(); ++it) {
            if (it->first.compare(0, prefix.size(), prefix) != 0) break;
            found.push_back(&*it);
        }
    } else {
        auto it = store_.find(key);
        if (it != store_.end()) found.push_back(&*it);
    }
    std::string out;
    if (found.empty()) codec::encode_reply(out, corrid, kStatusNoMatch);
    uint32_t n = static_cast<uint32_t>(found.size());
    for (uint32_t i = 0; i < n; i++) {
        static const std::string none;
        codec::encode_object(out, corrid, opcode, found[i]->first, key_only ? none : found[i]->second, n, i + 1);
    }
    c.send(std::move(out));
}

// Sends a notification of the change of key to every connection with a
// subscription that selects the key and the trigger; the value (none for a
// removal) goes to those whose selecting subscriptions are not all key-only.
void Engine::notify(const std::string &key, uint8_t trigger, const std::string *value)
{
    Bytes with_value, without_value;
    std::vector<std::pair<std::shared_ptr<Connection>, bool>> targets; // connection, send the value
    for (auto &entry : conns_) {
        bool match = false, want_value = false;
        for (const Subscription &s : entry.second->subs) {
            if (!selects(s.key, key) || (s.triggers != 0 && (s.triggers & trigger) == 0)) continue;
            match = true;
            want_value = want_value || !s.key_only;
        }
        if (match) targets.emplace_back(entry.second, want_value && value != nullptr);
    }
    for (auto &t : targets) {
        Bytes &bytes = t.second ? with_value : without_value;
        if (!bytes) {
            std::string out;
            codec::encode_notification(out, key, trigger, t.second ? *value : std::string());
            bytes = make_bytes(std::move(out));
        }
        t.first->notify(bytes);
    }
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
