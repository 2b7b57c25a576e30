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
 * Bytes on the wire are framed, decoded and encoded by the hspace codec;
 * they travel over plain TCP or TLS (transport.h), as the options say.
 */
#include "server.h"

#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include <asio.hpp>

#include "hspace_codec.h"
#include "store/store.h"
#include "transport.h"

namespace hspace {
namespace service {

namespace {

// Statuses the service answers with besides the store's (the client
// library's codes).
constexpr uint32_t kStatusTooLarge = 12;       // a put's value could never be sent back under max_queue
constexpr uint32_t kStatusNotSupported = 14;   // unknown opcode
constexpr uint32_t kStatusExists = 20;         // the connection already subscribes to the key

constexpr size_t kReadChunk = 64 * 1024;       // bytes asked of each read
constexpr size_t kMaxGather = 64;              // queued packets handed to one write

using Bytes = std::shared_ptr<const std::string>; // an encoded packet, shared between subscribers

// True when key is selected by the key or prefix pattern subscribed.
bool selects(const std::string &subscribed, std::string_view key)
{
    if (!is_pattern(subscribed)) return subscribed == key;
    return key.compare(0, subscribed.size() - 1, std::string_view(subscribed).substr(0, subscribed.size() - 1)) == 0;
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

// The key with ASCII letters lowered: equal for keys same_key_nocase calls
// equal.
std::string fold_key(const std::string &key)
{
    std::string folded(key);
    for (char &ch : folded)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch + 32);
    return folded;
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
    bool starting;                             // its post waits for the store's begin()
    int64_t after = 0;                         // selects only changes after this revision (its image's)
};

// A change held for a connection while one of its posts is starting.
struct Held {
    std::string key;
    uint8_t trigger;
    std::optional<std::string> value;          // none for a removal
    int64_t revision;
};

// The request whose store call a connection waits for.
struct Op {
    std::optional<uint32_t> corrid;            // answer to this correlation id; none: no answer
    uint8_t opcode = 0;
    bool key_only = false;
    bool image = false;                        // post: send the image
};

class Connection;

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
    // I/O thread: one decoded packet from a connection.
    void handle(Connection &c, const codec::Packet &p);
    // I/O thread: one line on stderr when logging is on.
    void log(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
    // I/O thread: the store call of c's op completed.
    void finish(Connection &c, uint32_t status);
    void finish_read(Connection &c, uint32_t status, const std::vector<ObjectView> &objects);
    void finish_post(Connection &c, uint32_t status, int64_t revision, const std::vector<ObjectView> &objects);
    // I/O thread: c drops n subscriptions (it cancelled or closed).
    void dropped_subscriptions(size_t n);

    void on_change(std::string_view key, uint8_t trigger, const std::string_view *value, int64_t revision) override;
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
    void refollow();
    static size_t largest_packet(const std::string &key, size_t value_size);
    bool start_tls(std::string *why);

    asio::io_context io_;                      // runs every handler, on thread_
    std::unique_ptr<asio::ssl::context> tls_;  // TLS of every connection; null: plain TCP
    asio::ip::tcp::acceptor acceptor_{io_};    // the listener
    std::thread thread_;                       // the I/O thread; joinable from start() to stop()
    bool started_ = false;                     // owning thread: start() succeeded once
    uint64_t next_id_ = 1;                     // I/O thread: id of the next connection
    std::map<uint64_t, std::shared_ptr<Connection>> conns_; // I/O thread: open connections by id
    size_t subscriptions_ = 0;                 // I/O thread: subscriptions of all connections
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
    Connection(Engine &engine, Transport socket, uint64_t id) : engine_(engine), socket_(std::move(socket)), id_(id)
    {
    }

    uint64_t id() const { return id_; }
    bool closed() const { return closed_; }
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
        socket_.close(abortive);
        size_t n = subs.size();
        subs.clear();
        folded.clear();
        held.clear();
        engine_.forget(id_, why);
        engine_.dropped_subscriptions(n);
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
    // The connection's subscription that is starting, if any.
    Subscription *starting()
    {
        return !subs.empty() && subs.back().starting ? &subs.back() : nullptr;
    }

    bool handshaken = false;                   // the handshake was answered
    std::vector<Subscription> subs;            // this connection's subscriptions, in post order
    std::unordered_set<std::string> folded;    // fold_key of every key in subs: a post's duplicate test
    Op op;                                     // the request of the outstanding store call
    std::vector<Held> held;                    // changes held while a post is starting

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

    void on_handshake(const asio::error_code &ec);

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
            // A TLS client may end without a close_notify, as a TCP one does.
            bool eof = ec == asio::error::eof || ec == asio::ssl::error::stream_truncated;
            close(eof ? std::string("peer closed") : ec.message());
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
        pumping_ = false;
        if (closed_) return;
        in_.erase(0, off);
        if (!busy_ && !reading_ && !backlogged()) read();
    }

    // Writes up to kMaxGather queued packets in one operation.
    void write()
    {
        std::vector<asio::const_buffer> buffers;
        for (size_t i = 0; i < out_.size() && i < kMaxGather; i++)
            buffers.push_back(asio::buffer(*out_[i].bytes));
        in_flight_ = buffers.size();
        auto self = shared_from_this();
        socket_.async_write(buffers, [self](const asio::error_code &ec, size_t) { self->on_write(ec); });
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
    Transport socket_;                         // the client's socket, plain or TLS
    const uint64_t id_;                        // number in logs and in the table
    std::string in_;                           // received bytes not yet framed (plus read space)
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

// A refused TLS handshake is logged and closes the connection; an accepted
// one logs the protocol and, with client certificates, who the client is.
void Connection::on_handshake(const asio::error_code &ec)
{
    if (closed_) return;
    if (ec) {
        engine_.stats_.tls_refused++;
        close("TLS handshake failed: " + ec.message());
        return;
    }
    if (socket_.tls()) {
        socket_.identify();
        const PeerIdentity *p = socket_.peer();
        std::string groups;
        for (const std::string &g : p != nullptr ? p->groups : std::vector<std::string>())
            groups += (groups.empty() ? "" : ",") + printable(g);
        engine_.log("conn %llu TLS %s%s%s%s%s", static_cast<unsigned long long>(id_), socket_.describe().c_str(),
                    p != nullptr ? ", client certificate CN \"" : "", p != nullptr ? printable(p->name).c_str() : "",
                    p != nullptr ? "\" O " : "", groups.c_str());
    }
    read();
}

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
    if (!start_tls(&why)) return fail(why);
    store_ = make_store(options_, io_, *this, &why);
    if (!store_) return fail(why);
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
            auto c = std::make_shared<Connection>(
                *this, tls_ != nullptr ? Transport(std::move(socket), *tls_) : Transport(std::move(socket)), next_id_++);
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
    c.op = Op{};
    if (answer) c.op.corrid = corrid;
    c.op.opcode = h.opcode;
    c.op.key_only = (h.flags & codec::kFlagKeyOnly) != 0;
    Connection *cp = &c;
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
        c.suspend();
        store_->put(h.key, p.body, [cp](uint32_t status) { cp->engine().finish(*cp, status); });
        break;
    }
    case codec::kOpRemove:
        c.suspend();
        store_->remove(h.key, [cp](uint32_t status) { cp->engine().finish(*cp, status); });
        break;
    case codec::kOpGet:
        if (!answer) break;
        c.suspend();
        store_->read(h.key, c.op.key_only, [cp](uint32_t status, int64_t, const std::vector<ObjectView> &objects) {
            cp->engine().finish_read(*cp, status, objects);
        });
        break;
    case codec::kOpPost: {
        if (c.folded.count(fold_key(h.key)) != 0) {
            if (answer) codec::encode_reply(out, *corrid, kStatusExists);
            break;
        }
        c.op.image = answer && (h.flags & codec::kFlagNoImage) == 0;
        c.subs.push_back(Subscription{h.key, h.triggers, c.op.key_only, true});
        c.folded.insert(fold_key(h.key));
        subscriptions_++;
        refollow();
        c.suspend();
        store_->begin(h.key, c.op.key_only, c.op.image,
                      [cp](uint32_t status, int64_t revision, const std::vector<ObjectView> &objects) {
                          cp->engine().finish_post(*cp, status, revision, objects);
                      });
        break;
    }
    case codec::kOpCancel: {
        uint32_t status = kStatusNoMatch;
        for (auto it = c.subs.begin(); it != c.subs.end(); ++it) {
            if (same_key_nocase(it->key, h.key)) {
                c.folded.erase(fold_key(it->key));
                c.subs.erase(it);
                dropped_subscriptions(1);
                status = 0;
                break;
            }
        }
        if (answer) codec::encode_reply(out, *corrid, status);
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

// Answers a put or a remove with the store's status.
void Engine::finish(Connection &c, uint32_t status)
{
    if (!c.closed() && c.op.corrid) {
        std::string out;
        codec::encode_reply(out, *c.op.corrid, status);
        c.send(std::move(out));
    }
    c.resume();
}

void Engine::finish_read(Connection &c, uint32_t status, const std::vector<ObjectView> &objects)
{
    if (!c.closed()) {
        if (status != 0) {
            std::string out;
            codec::encode_reply(out, *c.op.corrid, status);
            c.send(std::move(out));
        } else {
            send_objects(c, *c.op.corrid, codec::kOpGet, c.op.key_only, objects);
        }
    }
    c.resume();
}

// The post's subscription has begun at revision (or failed): answers it,
// sends its image, then the changes held meanwhile that the connection's
// subscriptions select, the new one only for changes after revision.
void Engine::finish_post(Connection &c, uint32_t status, int64_t revision, const std::vector<ObjectView> &objects)
{
    Subscription *sub = c.closed() ? nullptr : c.starting();
    if (sub != nullptr) {
        std::string out;
        if (status != 0) {
            c.folded.erase(fold_key(c.subs.back().key));
            c.subs.pop_back();
            c.held.clear();
            dropped_subscriptions(1);
            if (c.op.corrid) {
                codec::encode_reply(out, *c.op.corrid, status);
                c.send(std::move(out));
            }
        } else {
            // A notification may close the connection (and clear its subscriptions):
            // what is needed afterwards is taken first.
            sub->starting = false;
            sub->after = revision;
            std::vector<Held> held(std::move(c.held));
            c.held.clear();
            if (c.op.corrid) {
                codec::encode_reply(out, *c.op.corrid, 0);
                c.send(std::move(out));
            }
            if (c.op.image && !c.closed()) send_objects(c, *c.op.corrid, codec::kOpPost, c.op.key_only, objects);
            for (const Held &e : held) {
                if (c.closed()) break;
                bool match = false, want_value = false;
                for (const Subscription &s : c.subs) {
                    if (!selects(s.key, e.key) || (s.triggers != 0 && (s.triggers & e.trigger) == 0)) continue;
                    if (e.revision <= s.after) continue;
                    match = true;
                    want_value = want_value || !s.key_only;
                }
                if (!match) continue;
                out.clear();
                codec::encode_notification(out, e.key, e.trigger, want_value && e.value ? *e.value : std::string());
                c.notify(make_bytes(std::move(out)));
            }
        }
    }
    c.resume();
}

void Engine::dropped_subscriptions(size_t n)
{
    subscriptions_ -= n;
    refollow();
}

// Asks the store for its change feed exactly while some connection
// subscribes.
void Engine::refollow()
{
    bool want = subscriptions_ > 0;
    if (want == following_ || !store_) return;
    following_ = want;
    store_->follow(want);
}

// Sends objects as answers numbered 1..n of n addressed to corrid, in one
// packet batch; status 2 when there is none.
void Engine::send_objects(Connection &c, uint32_t corrid, uint8_t opcode, bool key_only,
                          const std::vector<ObjectView> &objects)
{
    std::string out;
    if (objects.empty()) codec::encode_reply(out, corrid, kStatusNoMatch);
    uint32_t n = static_cast<uint32_t>(objects.size());
    static const std::string none;
    std::string key, value;
    for (uint32_t i = 0; i < n; i++) {
        key.assign(objects[i].key.data(), objects[i].key.size());
        if (!key_only) value.assign(objects[i].value.data(), objects[i].value.size());
        codec::encode_object(out, corrid, opcode, key, key_only ? none : value, n, i + 1);
    }
    c.send(std::move(out));
}

// Sends a notification of the change of key to every connection with a
// subscription that selects the key and the trigger; the value (none for a
// removal) goes to those whose selecting subscriptions are not all key-only.
// A connection with a post starting holds the change until the post has
// begun.
void Engine::on_change(std::string_view key, uint8_t trigger, const std::string_view *value, int64_t revision)
{
    Bytes with_value, without_value;
    // A notification may close its connection, which leaves conns_: the targets
    // are taken first.
    std::vector<std::pair<std::shared_ptr<Connection>, bool>> targets; // connection, send the value
    for (auto &entry : conns_) {
        Connection &c = *entry.second;
        bool match = false, want_value = false;
        for (const Subscription &s : c.subs) {
            if (!selects(s.key, key) || (s.triggers != 0 && (s.triggers & trigger) == 0)) continue;
            // The store's feed may deliver changes the image already held.
            if (revision <= s.after) continue;
            match = true;
            want_value = want_value || !s.key_only;
        }
        if (!match) continue;
        if (c.starting() != nullptr) {
            std::optional<std::string> v;
            if (value != nullptr) v.emplace(*value);
            c.held.push_back(Held{std::string(key), trigger, std::move(v), revision});
            continue;
        }
        targets.emplace_back(entry.second, want_value && value != nullptr);
    }
    for (auto &t : targets) {
        Bytes &bytes = t.second ? with_value : without_value;
        if (!bytes) {
            std::string out;
            codec::encode_notification(out, std::string(key), trigger, t.second ? std::string(*value) : std::string());
            bytes = make_bytes(std::move(out));
        }
        t.first->notify(bytes);
    }
}

// Ends every subscription that has begun with a notification of trigger
// kTriggerEnded under its own key; starting posts are answered by their
// begin().
void Engine::on_feed_ended(const std::string &why)
{
    log("store feed ended: %s; ending every subscription", why.c_str());
    following_ = false;
    size_t ended = 0;
    std::vector<std::pair<std::shared_ptr<Connection>, std::string>> targets; // as in on_change
    for (auto &entry : conns_) {
        Connection &c = *entry.second;
        std::string out;
        for (auto it = c.subs.begin(); it != c.subs.end();) {
            if (it->starting) {
                ++it;
                continue;
            }
            codec::encode_notification(out, it->key, kTriggerEnded, std::string());
            c.folded.erase(fold_key(it->key));
            it = c.subs.erase(it);
            ended++;
        }
        if (!out.empty()) targets.emplace_back(entry.second, std::move(out));
    }
    dropped_subscriptions(ended);
    for (auto &t : targets) t.first->notify(make_bytes(std::move(t.second)));
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
    bool tls = !engine_->options_.tls_cert.empty();
    return (tls ? "tls://" : "tcp://") + engine_->host_ + ":" + std::to_string(engine_->port_);
}

const Stats &Server::stats() const
{
    return engine_->stats_;
}

} // namespace service
} // namespace hspace
