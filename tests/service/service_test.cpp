/*
 * service_test.cpp - the client library against the reference service,
 * in-process on an ephemeral port: every operation and semantic, patterns,
 * subscriptions across handles, and raw clients that misbehave (garbage, no
 * handshake, a subscriber that never reads) while the others go on; each
 * case once per store, memory and etcd. Then what only the etcd store does:
 * data that outlives a service, instances that share it, a member's
 * failover, etcd stopped and back. Every wait is bounded by kBound (etcd's
 * start by kTestBound) and fails the test when it runs out.
 */
#include <errno.h>
#include <sys/time.h>

#include <memory>
#include <optional>
#include <set>

#include "client_harness.h"
#include "etcd_cluster.h"
#include "server.h"
#include "store/store.h"

namespace {

using namespace hspace::test;
using hspace::service::kStatusStoreUnavailable;
using hspace::service::Options;
using hspace::service::Server;

// One open handle on a service whose events go to its recorder.
class Client {
public:
    explicit Client(const Server &server)
    {
        EXPECT_EQ(0u, Create(server.url(), "test", "tests", &h));
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            g_registry[h] = &events;
        }
        EXPECT_EQ(0u, qel_hspace_open(h));
    }
    ~Client()
    {
        qel_hspace_close(h);
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            g_registry.erase(h);
        }
        EXPECT_EQ(0u, qel_hspace_destroy(&h));
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // A put of value, or of an object without data when there is none.
    t_kro_error put(const std::string &key, const std::optional<std::string> &value,
                    t_qel_hspace_put_semantic sem = HSPACE_PUT_SYNC)
    {
        std::unique_ptr<UserObject> o(value ? new UserObject(key, *value) : new UserObject(key));
        return qel_hspace_put(h, o->obj, sem, 0);
    }
    // A synchronous get that must end with status want: the objects ("" for no data).
    Pairs get(const std::string &key, t_kro_int4 flags = 0, t_kro_error want = 0)
    {
        ObjectList list;
        EXPECT_EQ(qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, flags, list), want) << key;
        return list.contents();
    }
    t_kro_error post(const std::string &key, t_kro_byte triggers = 0, t_kro_int4 flags = 0, uintptr_t urid = 0)
    {
        return qel_hspace_post(h, key.c_str(), reinterpret_cast<t_kro_ptr>(urid), HSPACE_POST_SYNC, triggers, flags);
    }
    t_kro_error cancel(const std::string &key) { return qel_hspace_cancel(h, key.c_str(), HSPACE_CANCEL_SYNC, 0); }
    t_kro_error remove(const std::string &key, t_qel_hspace_remove_semantic sem = HSPACE_REMOVE_SYNC)
    {
        return qel_hspace_remove(h, key.c_str(), sem, 0);
    }
    std::vector<Event> wait_events(size_t n)
    {
        events.wait_count(n);
        return events.events();
    }
    // The events before the notification of key with value, forgotten with it.
    std::vector<Event> wait_notification(const std::string &key, const std::string &value)
    {
        return events.take_until([&](const Event &e) {
            return e.type == HSPACE_EVENT_POST_NOTIFICATION && e.object_key == key && e.object_value == value;
        });
    }
    // The events before a put of "fence" by writer is notified here: every
    // notification the writer caused before has arrived. The first fence
    // subscribes to the key (without an image).
    std::vector<Event> fence(Client &writer)
    {
        EXPECT_TRUE(fences > 0 || post("fence", 0, HSPACE_POST_FLAG_NO_IMAGE) == 0) << "post of fence";
        std::string mark = std::to_string(++fences);
        EXPECT_EQ(writer.put("fence", mark), 0u);
        return wait_notification("fence", mark);
    }

    t_qel_hspace h = nullptr; // the handle
    Recorder events;          // its events
    int fences = 0;           // fences passed
};

// An event in one line, so that a sequence of them compares in one check:
// "get 7 p/* 0 1/3 p/a=v", "image 42 a/* 0 0/0", "note 1 a/3=three" (a
// removal: "note 2 a/1").
std::string show(const Event &e)
{
    std::string s;
    if (e.type == HSPACE_EVENT_POST_NOTIFICATION) {
        s = "note " + std::to_string(e.trigger);
    } else {
        s = (e.type == HSPACE_EVENT_GET_REPLY ? "get " : "image ") + std::to_string(reinterpret_cast<uintptr_t>(e.urid)) +
            " " + e.key + " " + std::to_string(e.status) + " " + std::to_string(e.index) + "/" +
            std::to_string(e.cardinality);
    }
    if (e.has_object) s += " " + e.object_key + (e.object_value.empty() ? "" : "=" + e.object_value);
    return s;
}
using Lines = std::vector<std::string>;
Lines show(const std::vector<Event> &events)
{
    Lines out;
    for (const Event &e : events) out.push_back(show(e));
    return out;
}

// One request packet, byte for byte as a client sends it.
std::string request(uint8_t opcode, const std::string &key, std::optional<uint32_t> corrid,
                    uint8_t semantic = codec::kSemSync, int32_t flags = 0, const std::string &data = "")
{
    std::string out;
    codec::encode_request(out, codec::Request{0, opcode, semantic, 0, 0, flags, key, corrid, data});
    return out;
}

// A client on a blocking socket whose every receive is bounded by kBound,
// speaking through the codec: for bytes the library never sends and for a
// peer that stops reading.
class RawClient {
public:
    // Connects to port (receive buffer shrunk to rcvbuf when nonzero) and,
    // unless told not to, shakes hands for service type "data" (reply: greeting).
    explicit RawClient(uint16_t port, int rcvbuf = 0, bool handshake = true)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (rcvbuf > 0) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
        timeval tv = {static_cast<time_t>(kBound.count() / 1000), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in sa{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0) << strerror(errno);
        if (!handshake) return;
        std::string out;
        codec::encode_handshake_request(out, "data", "raw", "tests");
        send(out);
        greeting = next();
        EXPECT_TRUE(greeting.handshake_reply.has_value());
    }
    ~RawClient() { close(fd_); }

    void send(const std::string &bytes)
    {
        ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // The next packet from the service; wirelen 0 at end of stream, on
    // garbage or on a timeout (a failure is recorded for the last two).
    codec::Packet next()
    {
        codec::Packet p;
        codec::FrameResult f;
        while ((f = codec::frame(in_)).status == codec::FrameStatus::NeedMore && read_some() > 0) {
        }
        EXPECT_NE(f.status, codec::FrameStatus::Invalid);
        if (f.status == codec::FrameStatus::Complete) {
            EXPECT_TRUE(codec::decode(in_.substr(0, f.wirelen), p));
            in_.erase(0, f.wirelen);
        }
        return p;
    }
    // True once the service has closed the connection (end of stream or a
    // reset), dropping whatever comes before; false when a receive times out.
    bool wait_closed()
    {
        ssize_t n;
        while ((n = read_some()) > 0) in_.clear();
        return n != kTimedOut;
    }

    codec::Packet greeting; // the handshake's reply

private:
    static constexpr ssize_t kTimedOut = -2;
    // Bytes received into in_, 0 at end of stream, -1 on an error, or
    // kTimedOut (a failure recorded) when nothing came within kBound.
    ssize_t read_some()
    {
        char chunk[65536];
        ssize_t n;
        while ((n = recv(fd_, chunk, sizeof chunk, 0)) < 0 && errno == EINTR) {
        }
        if (n > 0) in_.append(chunk, static_cast<size_t>(n));
        if (n >= 0 || errno != EAGAIN) return n;
        ADD_FAILURE() << "watchdog: nothing from the service within " << kBound.count() << " ms";
        return kTimedOut;
    }

    int fd_;         // the socket
    std::string in_; // received, not yet returned
};

// The etcd member the cases share, each under a key prefix of its own:
// started by the first case on etcd, killed at exit. Its store URL; empty
// when etcd is not installed or did not start.
const std::string &shared_etcd()
{
    static EtcdCluster etcd(1);
    static const std::string url = EtcdCluster::installed() && etcd.start(kTestBound) ? etcd.store_url() : "";
    return url;
}

// Each case with a service of its own on the store named by the parameter.
class ServiceTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        InitLibrary();
        ASSERT_TRUE(GetParam() != "etcd" || !shared_etcd().empty()) << "etcd (etcd-server, etcd-client) did not start";
        server_ = serve(options());
    }
    void TearDown() override { qel_hspace_finalize(); }

    // Options of a service on the case's store, under its key prefix.
    Options options(size_t max_queue = Options().max_queue) const
    {
        Options options;
        options.max_queue = max_queue;
        options.store_prefix = prefix_; // the etcd store's
        if (GetParam() == "etcd") options.store = shared_etcd();
        return options;
    }
    // A service started with options; a failure when it did not start.
    static std::unique_ptr<Server> serve(const Options &options)
    {
        std::unique_ptr<Server> server(new Server(options));
        std::string error;
        EXPECT_TRUE(server->start(&error)) << error;
        return server;
    }

    inline static int cases_ = 0;             // key prefixes handed out
    const std::string prefix_ = "case" + std::to_string(++cases_) + "/";
    std::unique_ptr<Server> server_;          // the case's service
};

TEST_P(ServiceTest, PutGetRemoveEverySemanticAndPatterns)
{
    Client c(*server_);

    // Each put, then a get on the same connection, sees the value: a
    // replace by a no-reply put; null data and an empty buffer both read
    // back as no data; binary and large values byte for byte.
    std::string binary("a\0b\xff\n", 5);
    std::string large(3 << 20, 'x');
    for (size_t i = 0; i < large.size(); i += 4096) large[i] = static_cast<char>(i / 4096);
    const struct {
        const char *key;
        std::optional<std::string> put;
        t_qel_hspace_put_semantic semantic;
        std::string want;
    } puts[] = {{"k1", std::string("v1"), HSPACE_PUT_SYNC, std::string("v1")},
                {"k1", std::string("v1b"), HSPACE_PUT_NOREPLY, std::string("v1b")},
                {"empty1", std::nullopt, HSPACE_PUT_SYNC, ""},
                {"empty2", std::string(), HSPACE_PUT_SYNC, ""},
                {"bin", binary, HSPACE_PUT_SYNC, binary},
                {"large", large, HSPACE_PUT_SYNC, large}};
    for (const auto &p : puts) {
        EXPECT_EQ(c.put(p.key, p.put, p.semantic), 0u) << p.key;
        EXPECT_TRUE(c.get(p.key) == (Pairs{{p.key, p.want}})) << p.key;
    }

    // Keys are case sensitive; a synchronous get of a missing key turns
    // status 2 into success with nothing.
    EXPECT_TRUE(c.get("K1").empty());
    EXPECT_TRUE(c.get("missing").empty());

    // Remove answers 2 for a missing key; a no-reply remove takes effect.
    EXPECT_EQ(c.remove("k1"), 0u);
    EXPECT_EQ(c.remove("k1"), KRO_ERR_NO_MATCH);
    EXPECT_EQ(c.remove("bin", HSPACE_REMOVE_NOREPLY), 0u);
    EXPECT_TRUE(c.get("bin").empty());
    EXPECT_EQ(c.remove("missing", HSPACE_REMOVE_NOREPLY), 0u);

    // A pattern: every key with the prefix, in key order; with key only,
    // without values.
    for (const char *k : {"p/c", "p/a", "q/x", "p/b", "p", "pz"}) EXPECT_EQ(c.put(k, std::string("v-") + k), 0u);
    EXPECT_EQ(c.get("p/*"), (Pairs{{"p/a", "v-p/a"}, {"p/b", "v-p/b"}, {"p/c", "v-p/c"}}));
    const std::pair<const char *, size_t> counts[] = {{"p*", 5}, {"*", 9}, {"nothing/*", 0}};
    for (const auto &[pattern, n] : counts) EXPECT_EQ(c.get(pattern).size(), n) << pattern;
    EXPECT_EQ(c.get("p/*", HSPACE_GET_FLAG_KEY_ONLY), (Pairs{{"p/a", ""}, {"p/b", ""}, {"p/c", ""}}));
    EXPECT_EQ(c.get("p/a", HSPACE_GET_FLAG_KEY_ONLY), (Pairs{{"p/a", ""}}));

    // Asynchronous: one event per object numbered 1..n of n, then one
    // empty answer for a missing key.
    for (const auto &[key, urid] : {std::pair<const char *, uintptr_t>{"p/*", 7}, {"none", 8}})
        EXPECT_EQ(qel_hspace_get(c.h, key, reinterpret_cast<t_kro_ptr>(urid), HSPACE_GET_ASYNC, 0, 0, nullptr), 0u);
    EXPECT_EQ(show(c.wait_events(4)), (Lines{"get 7 p/* 0 1/3 p/a=v-p/a", "get 7 p/* 0 2/3 p/b=v-p/b",
                                            "get 7 p/* 0 3/3 p/c=v-p/c", "get 8 none 0 0/0"}));
}

TEST_P(ServiceTest, SubscriptionImageNotificationsAndCancel)
{
    Client c(*server_);
    EXPECT_EQ(c.put("a/1", std::string("one")), 0u);
    EXPECT_EQ(c.put("a/2", std::string("two")), 0u);

    // The image: the stored objects addressed to the post, 1..n of n.
    EXPECT_EQ(c.post("a/*", 0, 0, 42), 0u);
    EXPECT_EQ(show(c.fence(c)), (Lines{"image 42 a/* 0 1/2 a/1=one", "image 42 a/* 0 2/2 a/2=two"}));

    // The same key in another letter case is a duplicate on this connection.
    EXPECT_EQ(c.post("A/*"), KRO_ERR_EXISTS);

    // Changes: stored with the value, removed without; the writer's own
    // notifications come before its put's reply.
    EXPECT_EQ(c.put("a/3", std::string("three")), 0u);
    EXPECT_EQ(c.remove("a/1"), 0u);
    EXPECT_EQ(c.put("b/1", std::string("other")), 0u);
    EXPECT_EQ(show(c.fence(c)), (Lines{"note 1 a/3=three", "note 2 a/1"}));

    // Cancel in another letter case ends it: no more notifications; a
    // second cancel finds nothing; a new post of the key is accepted.
    EXPECT_EQ(c.cancel("A/*"), 0u);
    EXPECT_EQ(c.cancel("a/*"), KRO_ERR_NO_MATCH);
    EXPECT_EQ(c.put("a/4", std::string("four")), 0u);
    EXPECT_TRUE(c.fence(c).empty());

    // No image with flag 2; an empty image otherwise.
    EXPECT_EQ(c.post("a/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(c.post("none"), 0u);
    EXPECT_EQ(show(c.fence(c)), (Lines{"image 0 none 0 0/0"})); // nothing else
}

TEST_P(ServiceTest, NotificationsReachAnotherHandleInOrderByTriggerMask)
{
    Client writer(*server_), sub(*server_);
    EXPECT_EQ(sub.post("seq/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("stored", 1, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("removed", 2, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("all", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("keys", 0, HSPACE_POST_FLAG_NO_IMAGE | HSPACE_POST_FLAG_KEY_ONLY), 0u);

    // Many puts, replied or not, each notified in the writer's order.
    Lines want;
    for (int i = 0; i < 300; i++) {
        std::string key = "seq/" + std::to_string(100 + i % 50), value = std::to_string(i);
        EXPECT_EQ(writer.put(key, value, i % 3 ? HSPACE_PUT_NOREPLY : HSPACE_PUT_SYNC), 0u);
        want.push_back("note 1 " + key + "=" + value);
    }
    // A trigger mask selects stores (1) or removals (2), 0 both; a key-only
    // subscription's notifications come without the value.
    for (const char *k : {"stored", "removed", "all", "keys"}) {
        EXPECT_EQ(writer.put(k, std::string("v")), 0u);
        EXPECT_EQ(writer.remove(k), 0u);
    }
    want.insert(want.end(), {"note 1 stored=v", "note 2 removed", "note 1 all=v", "note 2 all", "note 1 keys",
                             "note 2 keys"});
    EXPECT_EQ(show(sub.fence(writer)), want);
}

TEST_P(ServiceTest, MisbehavingRawClientsHarmNoOtherAndStopEndsAll)
{
    server_ = serve(options(1 << 20));
    Client good(*server_), writer(*server_);
    EXPECT_EQ(good.post("g/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);

    // The handshake reply: version 1, a nonzero ltp, the service's name.
    {
        RawClient raw(server_->port());
        const std::optional<codec::HandshakeReply> &reply = raw.greeting.handshake_reply;
        ASSERT_TRUE(reply.has_value());
        EXPECT_EQ(reply->version, 1);
        EXPECT_NE(reply->ltp, 0);
        EXPECT_EQ(reply->name, "hspaced");

        // An unknown opcode with a correlation id is answered 14; without
        // one it is dropped; a get without reply wanted is not answered.
        raw.send(request(3, "k", 11u) + request(9, "k", std::nullopt) +
                 request(codec::kOpGet, "k", 12u, codec::kSemNoReply) + request(codec::kOpGet, "k", 13u));
        const std::pair<uint32_t, t_kro_error> answers[] = {{11, KRO_ERR_NOT_SUPPORTED}, {13, KRO_ERR_NO_MATCH}};
        for (const auto &[corrid, status] : answers) {
            codec::Packet p = raw.next();
            ASSERT_TRUE(p.rr.has_value()) << corrid;
            EXPECT_EQ(p.rr->corrid, corrid);
            EXPECT_EQ(p.rr->error(), status);
        }
    }

    // Each closes its connection: anything but a handshake for service type
    // "data" first; after one, not a packet at all, a header claiming more
    // than the largest packet, a section length that runs past the packet.
    std::string other, huge, overrun;
    codec::encode_handshake_request(other, "other", "raw", "tests");
    codec::put_header(huge, codec::kMaxPacket + 1, 0, 0, 0, codec::kTypeRequest);
    codec::put_header(overrun, 48, 0, 1, 1, codec::kTypeRequest);
    codec::put_preamble(overrun, codec::kTypeHspace, 200);
    overrun.append(8, '\0');
    const std::pair<bool, std::string> bad[] = {
        {false, other}, {false, request(codec::kOpGet, "k", 1u)}, {true, "hello, service\r\n\r\n"}, {true, huge},
        {true, overrun}};
    for (const auto &[handshake, garbage] : bad) {
        RawClient raw(server_->port(), 0, handshake);
        raw.send(garbage);
        EXPECT_TRUE(raw.wait_closed()) << garbage.size() << " bytes";
    }
    // A packet cut short by the peer's close is no invalid packet.
    std::string cut = request(codec::kOpPut, "g/cut", std::nullopt, codec::kSemSync, 0, "never complete");
    RawClient(server_->port()).send(cut.substr(0, cut.size() - 3));
    EXPECT_EQ(server_->stats().dropped_invalid.load(), std::size(bad));

    // A subscriber that never reads again is disconnected: the writer's puts
    // each reach the good subscriber (which is waited for, so its own queue
    // stays small) until the slow one's queue overflows; the kernel's socket
    // buffers absorb a few MiB first.
    RawClient slow(server_->port(), 16384);
    slow.send(request(codec::kOpPost, "g/*", 1u, codec::kSemSync, codec::kFlagNoImage));
    codec::Packet p = slow.next();
    ASSERT_TRUE(p.rr && p.rr->is_success());
    const std::string value(256 * 1024, 'v');
    int puts = 0;
    for (; puts < 400 && server_->stats().dropped_slow.load() == 0; puts++) {
        std::string key = "g/big" + std::to_string(puts);
        ASSERT_EQ(writer.put(key, value), 0u);
        good.wait_notification(key, value);
    }
    EXPECT_EQ(server_->stats().dropped_slow.load(), 1u) << "after " << puts << " puts";
    EXPECT_TRUE(slow.wait_closed());

    // The others go on as before.
    EXPECT_EQ(writer.put("g/1", std::string("still")), 0u);
    EXPECT_EQ(good.get("g/1"), (Pairs{{"g/1", "still"}}));
    EXPECT_EQ(show(good.fence(writer)), (Lines{"note 1 g/1=still"}));
    EXPECT_EQ(server_->stats().open.load(), 2u);

    // A second service on the port, or a second start, is refused.
    Options busy = options();
    busy.port = server_->port();
    std::string error;
    EXPECT_FALSE(Server(busy).start(&error));
    EXPECT_NE(error.find("cannot listen"), std::string::npos) << error;
    EXPECT_FALSE(server_->start(&error));

    // Stop (twice: it is idempotent) fails every handle with a link failure.
    server_->stop();
    server_->stop();
    for (Client *c : {&good, &writer}) {
        std::vector<Event> ev = c->wait_events(1);
        ASSERT_EQ(ev.size(), 1u);
        EXPECT_EQ(ev[0].type, HSPACE_EVENT_LINK_FAIL);
        EXPECT_EQ(State(c->h), HSPACE_STATE_FAILED);
    }
    EXPECT_EQ(server_->stats().open.load(), 0u);
}

TEST_P(ServiceTest, ValuesAreBoundedAndAnswersOverTheBoundArePaced)
{
    server_ = serve(options(4096));
    Client writer(*server_);

    // A value is accepted when its largest packet fits: value + key + 86.
    EXPECT_EQ(writer.put("q/x", std::string(4096 - 86 - 3, 'v')), 0u);
    EXPECT_EQ(writer.put("q/y", std::string(4096 - 86 - 3 + 1, 'v')), KRO_ERR_INVALID_ARG);
    EXPECT_EQ(writer.get("q/*").size(), 1u) << "a refused put stored something";

    // 200 pattern gets, each answered with 9 KiB, sent at once by a client
    // with a small receive buffer: it is served at its pace, never dropped.
    for (int i = 1; i <= 3; i++)
        ASSERT_EQ(writer.put("p/" + std::to_string(i), std::string(3000, static_cast<char>('a' + i))), 0u);
    RawClient raw(server_->port(), 4096);
    std::string out;
    for (uint32_t corrid = 1; corrid <= 200; corrid++) out += request(codec::kOpGet, "p/*", corrid);
    raw.send(out);
    for (uint32_t i = 0; i < 600; i++) { // object i % 3 + 1 of answer i / 3 + 1
        codec::Packet p = raw.next();
        ASSERT_TRUE(p.rr && p.hspace) << "packet " << i;
        EXPECT_EQ(p.rr->corrid, i / 3 + 1);
        EXPECT_EQ(p.hspace->key, "p/" + std::to_string(i % 3 + 1));
        EXPECT_EQ(p.body, std::string(3000, static_cast<char>('a' + i % 3 + 1)));
    }
    EXPECT_EQ(server_->stats().dropped_slow.load(), 0u);
}

TEST_P(ServiceTest, QueuedAnswersKeepTheValuesTheyWereMadeWith)
{
    // Pipelined by a client that reads nothing until all is sent: the
    // answer to the first get still waits to be sent when the next put
    // replaces the value (large values are sent from the stored string
    // itself), and must go out as it was; a subscriber's notifications too.
    RawClient raw(server_->port(), 4096), sub(server_->port(), 4096);
    sub.send(request(codec::kOpPost, "big", 1u, codec::kSemSync, codec::kFlagNoImage));
    ASSERT_TRUE(sub.next().rr->is_success());
    const std::string a(200 * 1024, 'a'), b(200 * 1024, 'b'), c(100, 'c');
    raw.send(request(codec::kOpPut, "big", 1u, codec::kSemSync, 0, a) + request(codec::kOpGet, "big", 2u) +
             request(codec::kOpPut, "big", 3u, codec::kSemSync, 0, b) + request(codec::kOpGet, "big", 4u) +
             request(codec::kOpPut, "big", 5u, codec::kSemSync, 0, c) + request(codec::kOpGet, "big", 6u) +
             request(codec::kOpRemove, "big", 7u) + request(codec::kOpGet, "big", 8u));
    const std::pair<uint32_t, const std::string *> answers[] = {{1, nullptr}, {2, &a}, {3, nullptr}, {4, &b},
                                                                {5, nullptr}, {6, &c}, {7, nullptr}, {8, nullptr}};
    for (const auto &[corrid, value] : answers) {
        codec::Packet p = raw.next();
        ASSERT_TRUE(p.rr.has_value()) << corrid;
        EXPECT_EQ(p.rr->corrid, corrid);
        EXPECT_EQ(p.rr->error(), corrid == 8 ? KRO_ERR_NO_MATCH : 0u) << corrid;
        EXPECT_TRUE(value == nullptr || p.body == *value) << corrid << ": " << p.body.substr(0, 8);
    }
    for (const std::string *value : {&a, &b, &c}) {
        codec::Packet p = sub.next();
        EXPECT_TRUE(p.hspace && p.hspace->triggers == 1 && p.body == *value) << p.body.substr(0, 8);
    }
    codec::Packet removed = sub.next();
    EXPECT_TRUE(removed.hspace && removed.hspace->triggers == 2 && removed.body.empty());
}

TEST_P(ServiceTest, LongPacketsAreReceivedWholeWhateverFollowsThem)
{
    // Packets over a MiB are received into a string of their own, from
    // which a put's value moves into the store: the requests sent behind one
    // in the same write, a long packet that is no put, one refused for the
    // bound and one cut short by a close all behave as short ones do.
    server_ = serve(options(1536 * 1024));
    RawClient raw(server_->port());
    std::string value(1280 * 1024, 'x');
    for (size_t i = 0; i < value.size(); i += 999) value[i] = static_cast<char>(i / 999);
    const std::string over(1536 * 1024 + 1000, 'o'); // over the bound, under the longest request
    raw.send(request(codec::kOpPut, "long", 1u, codec::kSemSync, 0, value) + request(codec::kOpGet, "long", 2u) +
             request(codec::kOpGet, "long", 3u, codec::kSemSync, 0, std::string(1100 * 1024, 'g')) +
             request(codec::kOpPut, "long", 4u, codec::kSemSync, 0, over) + request(codec::kOpGet, "long", 5u));
    const std::pair<uint32_t, uint32_t> answers[] = {{1, 0}, {2, 0}, {3, 0}, {4, KRO_ERR_INVALID_ARG}, {5, 0}};
    for (const auto &[corrid, status] : answers) {
        codec::Packet p = raw.next();
        ASSERT_TRUE(p.rr.has_value()) << corrid;
        EXPECT_EQ(p.rr->corrid, corrid);
        EXPECT_EQ(p.rr->error(), status) << corrid;
        EXPECT_TRUE(corrid == 1 || corrid == 4 || p.body == value) << corrid;
    }
    {
        std::string cut = request(codec::kOpPut, "cut", 6u, codec::kSemSync, 0, value);
        RawClient(server_->port()).send(cut.substr(0, cut.size() / 2));
    }
    raw.send(request(codec::kOpGet, "cut", 7u));
    codec::Packet none = raw.next();
    EXPECT_TRUE(none.rr && none.rr->corrid == 7u && none.rr->error() == KRO_ERR_NO_MATCH);
    EXPECT_EQ(server_->stats().dropped_invalid.load(), 0u);
}

// What a raw connection received: notifications, replies and objects in
// arrival order.
struct Seen {
    bool note;          // a notification (else an answer to corrid)
    std::string key;    // notification or object key
    std::string value;  // notification or object value
    uint32_t corrid;    // answer: its correlation id
    uint32_t status;    // answer: its error, 0 on success
    uint32_t num;       // object: its number (1..count); 0 for a bare reply
    uint32_t count;     // object: the count
};

Seen seen(const codec::Packet &p)
{
    if (p.hspace && p.hspace->opcode == codec::kOpNotification)
        return Seen{true, p.hspace->key, p.body, 0, 0, 0, 0};
    EXPECT_TRUE(p.rr.has_value());
    Seen s{false, p.hspace ? p.hspace->key : "", p.body, p.rr ? p.rr->corrid : 0, p.rr ? p.rr->error() : 0, 0, 0};
    if (p.hspace && p.rr) s.num = p.rr->num(), s.count = p.rr->count();
    return s;
}

// Sends one post and reads, into log, up to its reply and its image's end:
// the last object, or the no-match reply. Its reply's status.
uint32_t post_raw(RawClient &raw, std::vector<Seen> &log, const std::string &key, uint32_t corrid, int32_t flags,
                  uint8_t triggers = 0)
{
    std::string out;
    codec::encode_request(out, codec::Request{0, codec::kOpPost, codec::kSemSync, triggers, 0, flags, key, corrid, ""});
    raw.send(out);
    bool replied = false;
    for (;;) {
        codec::Packet p = raw.next();
        if (p.wirelen == 0) return ~0u;
        log.push_back(seen(p));
        const Seen &s = log.back();
        if (s.note || s.corrid != corrid) continue;
        if (!replied) {
            replied = true;
            if (s.status != 0 || (flags & codec::kFlagNoImage) != 0) return s.status;
        } else if (s.num == s.count) { // the last object, or the no-match reply (0 of 0)
            return 0;
        }
    }
}

// Whether the key or pattern subscribed selects key.
bool selects(const std::string &subscribed, const std::string &key)
{
    if (subscribed.empty() || subscribed.back() != '*') return subscribed == key;
    return key.compare(0, subscribed.size() - 1, subscribed, 0, subscribed.size() - 1) == 0;
}

TEST_P(ServiceTest, PostsAmidWritesSendTheChangesUpToTheImageBeforeTheReplyAndOnlyLaterOnesAfterIt)
{
    // Connection a subscribes to every key written before any write, then
    // posts subscriptions inside, over and beside it while a writer puts
    // "n/(i % 5)" = i for i = 0, 1, ...; connection b posts an exact key
    // first, then a pattern over it.
    RawClient a(server_->port()), b(server_->port());
    std::vector<Seen> log_a, log_b;
    ASSERT_EQ(post_raw(a, log_a, "n/*", 1, codec::kFlagNoImage), 0u);
    std::atomic<bool> posted{false};
    std::promise<void> begun; // a few writes made
    int written = 0;
    std::thread writer([&] {
        Client w(*server_);
        for (int i = 0; i < 100000 && (i < 20 || !posted); i++, written = i) {
            if (i == 3) begun.set_value();
            if (w.put("n/" + std::to_string(i % 5), std::to_string(i)) != 0u) break;
        }
    });
    EXPECT_EQ(begun.get_future().wait_for(kBound), std::future_status::ready);
    const struct {
        const char *key;
        int32_t flags;
        uint8_t triggers;
        uint32_t status;
    } posts[] = {
        {"n/1", 0, 0, 0},                               // an exact key inside the pattern
        {"n/2", codec::kFlagKeyOnly, 0, 0},             // key only: the pattern still wants values
        {"n*", 0, 0, 0},                                // a pattern over the first
        {"n/3", codec::kFlagNoImage, 0, 0},             // no image
        {"n/4", 0, hspace::service::kTriggerRemoved, 0}, // a mask that selects none of the puts
        {"N/1", 0, 0, KRO_ERR_EXISTS},                  // the same key, in other letters
        {"m/*", 0, 0, 0},                               // beside: nothing there
    };
    uint32_t corrid = 10;
    for (const auto &post : posts)
        EXPECT_EQ(post_raw(a, log_a, post.key, ++corrid, post.flags, post.triggers), post.status) << post.key;
    ASSERT_EQ(post_raw(b, log_b, "n/0", 1, 0), 0u);
    ASSERT_EQ(post_raw(b, log_b, "n/*", 2, 0), 0u);
    // Cancels find their subscription, or none.
    for (const auto &[key, status] : {std::pair<const char *, uint32_t>{"N/1", 0}, {"n/1", 2}, {"n/9", 2}}) {
        a.send(request(codec::kOpCancel, key, ++corrid));
        do log_a.push_back(seen(a.next()));
        while (log_a.back().note);
        EXPECT_EQ(log_a.back().corrid, corrid);
        EXPECT_EQ(log_a.back().status, status) << key;
    }
    posted = true;
    writer.join();
    ASSERT_GE(written, 20);
    const std::string last = std::to_string(written - 1);
    for (auto [raw, log] : {std::pair<RawClient *, std::vector<Seen> *>{&a, &log_a}, {&b, &log_b}})
        for (bool got = std::any_of(log->begin(), log->end(), [&](const Seen &s) { return s.note && s.value == last; });
             !got; got = log->back().note && log->back().value == last) {
            log->push_back(seen(raw->next()));
            ASSERT_FALSE(log->back().key.empty() && log->back().corrid == 0) << "stream ended";
        }

    // a: every write notified once, in order, with its value (a's first
    // subscription wants values); each image holds exactly the state the
    // notifications before its reply describe.
    int next = 0;
    std::map<std::string, std::string> state; // key -> value, from a's notifications so far
    for (size_t i = 0; i < log_a.size(); i++) {
        const Seen &s = log_a[i];
        if (s.note) {
            EXPECT_EQ(s.key + "=" + s.value, "n/" + std::to_string(next % 5) + "=" + std::to_string(next)) << i;
            next++;
            state[s.key] = s.value;
            continue;
        }
        size_t p = s.corrid - 11;
        if (p >= std::size(posts) || s.num != 0 || s.status != 0 || (posts[p].flags & codec::kFlagNoImage)) continue;
        Pairs want, got;
        for (const auto &[k, v] : state)
            if (selects(posts[p].key, k)) want.emplace_back(k, posts[p].flags & codec::kFlagKeyOnly ? "" : v);
        for (size_t j = i + 1; j < log_a.size() && !log_a[j].note && log_a[j].corrid == s.corrid && log_a[j].num != 0;
             j++)
            got.emplace_back(log_a[j].key, log_a[j].value);
        EXPECT_EQ(got, want) << posts[p].key << " after " << next << " writes";
    }
    EXPECT_EQ(next, written);

    // b: before the pattern's reply, n/0 alone; the pattern's image holds
    // n/0 as b last saw it; after the image, every later write once, in
    // order, from the one after the newest in the image.
    std::string n0;
    size_t i = 0;
    for (; i < log_b.size() && !(log_b[i].corrid == 2 && log_b[i].num == 0); i++) {
        EXPECT_TRUE(log_b[i].key == "n/0" || log_b[i].key.empty()) << log_b[i].key;
        if (log_b[i].key == "n/0") n0 = log_b[i].value;
    }
    int newest = -1;
    for (i++; i < log_b.size() && !log_b[i].note; i++) {
        EXPECT_EQ(log_b[i].corrid, 2u);
        if (log_b[i].key == "n/0") {
            EXPECT_EQ(log_b[i].value, n0);
        }
        if (!log_b[i].value.empty()) newest = std::max(newest, std::stoi(log_b[i].value));
    }
    for (next = newest + 1; i < log_b.size(); i++, next++)
        EXPECT_EQ(log_b[i].key + "=" + log_b[i].value, "n/" + std::to_string(next % 5) + "=" + std::to_string(next));
    EXPECT_EQ(next, written);
}

std::string store_name(const ::testing::TestParamInfo<std::string> &info) { return info.param; }
INSTANTIATE_TEST_SUITE_P(Stores, ServiceTest,
                         ::testing::ValuesIn(QEL_TEST_ETCD ? Lines{"memory", "etcd"} : Lines{"memory"}), store_name);

// The memory store, except that a subscription's begin completes only
// after the next put or remove has been told to the listener: with its
// image read at the begin (early) or after that change (late), alternately,
// the first early. So a change arrives while a post starts, on one side of
// its image or the other, in an order the test fixes (the etcd store does
// the same at the mercy of timing). A put of "!end" ends the feed instead,
// its value the cause, then completes the begin waiting.
class LateBeginStore final : public hspace::service::Store {
public:
    // Tells the test thread that a begin waits for its change.
    struct Gate {
        std::mutex mutex;
        std::condition_variable cond;
        int begun = 0; // begins called so far
        bool wait_for(int n)
        {
            std::unique_lock<std::mutex> lock(mutex);
            return cond.wait_for(lock, kBound, [&] { return begun >= n; });
        }
    };
    LateBeginStore(hspace::service::Listener &listener, Gate &gate)
        : inner_(hspace::service::make_memory_store(listener)), listener_(listener), gate_(gate)
    {
    }
    void put(std::string_view key, std::string_view value, Done done) override
    {
        if (key == "!end") {
            listener_.on_feed_ended(std::string(value));
            release();
            return done(0);
        }
        inner_->put(key, value, [this, done](const hspace::service::StoreStatus &s) { release(), done(s); });
    }
    void remove(std::string_view key, Done done) override
    {
        inner_->remove(key, [this, done](const hspace::service::StoreStatus &s) { release(), done(s); });
    }
    void read(std::string_view key, bool key_only, Read done) override { inner_->read(key, key_only, done); }
    void follow(bool on) override { inner_->follow(on); }
    void begin(std::string_view key, bool key_only, bool with_objects, Read done) override
    {
        pending_ = Pending{std::string(key), key_only, with_objects, (begins_++ % 2) == 1, std::move(done), 0, {}};
        if (!pending_->late)
            inner_->begin(key, key_only, with_objects,
                          [this](const hspace::service::StoreStatus &, int64_t revision,
                                 const std::vector<hspace::service::ObjectView> &objects) {
                              pending_->revision = revision;
                              for (const auto &o : objects) pending_->image.emplace_back(o.key, o.value);
                          });
        std::lock_guard<std::mutex> lock(gate_.mutex);
        gate_.begun = begins_;
        gate_.cond.notify_all();
    }
    void close() override { inner_->close(); }
    const char *kind() const override { return "late-begin memory"; }

private:
    void release()
    {
        if (!pending_) return;
        Pending p = std::move(*pending_);
        pending_.reset();
        if (p.late) return inner_->begin(p.key, p.key_only, p.with_objects, p.done);
        std::vector<hspace::service::ObjectView> image;
        for (const auto &[k, v] : p.image) image.push_back(hspace::service::ObjectView{k, v});
        p.done(0, p.revision, image);
    }
    struct Pending {
        std::string key;
        bool key_only, with_objects, late;
        Read done;
        int64_t revision;                                   // early: the image's
        std::vector<std::pair<std::string, std::string>> image; // early: read at the begin
    };
    std::unique_ptr<hspace::service::Store> inner_;
    hspace::service::Listener &listener_;
    Gate &gate_;
    std::optional<Pending> pending_;
    int begins_ = 0;
};

// A packet in one line: "note 1 o/x=0", "reply 4 0", "object 2 1/1 o/b=1".
std::string line(const codec::Packet &p)
{
    if (p.hspace && p.hspace->opcode == codec::kOpNotification)
        return "note " + std::to_string(p.hspace->triggers) + " " + p.hspace->key + (p.body.empty() ? "" : "=" + p.body);
    if (!p.rr) return "?";
    if (!p.hspace) return "reply " + std::to_string(p.rr->corrid) + " " + std::to_string(p.rr->error());
    return "object " + std::to_string(p.rr->corrid) + " " + std::to_string(p.rr->num()) + "/" +
           std::to_string(p.rr->count()) + " " + p.hspace->key + (p.body.empty() ? "" : "=" + p.body);
}

TEST(ServiceOrder, ChangesWhileAPostStartsGoBeforeItsReplyUpToItsImageAndAfterItBeyond)
{
    Watchdog watchdog;
    LateBeginStore::Gate gate;
    Options options;
    options.store_factory = [&gate](hspace::service::Listener &l) {
        return std::unique_ptr<hspace::service::Store>(new LateBeginStore(l, gate));
    };
    Server server(options);
    ASSERT_TRUE(server.start());
    RawClient a(server.port()), w(server.port());
    // Each post of a is begun by the writer's change after it, its image
    // read before that change (early) or after it (late), alternately.
    const struct {
        const char *key;
        int32_t flags;
        std::string change;   // the writer's: a put "k=v" or a remove "-k"
        Lines want;           // what a receives, in this order
    } steps[] = {
        {"o/*", codec::kFlagNoImage, "o/x=0", {"reply 1 0", "note 1 o/x=0"}},              // early
        {"o/b", 0, "o/b=1", {"note 1 o/b=1", "reply 2 0", "object 2 1/1 o/b=1"}},          // late
        {"o/c", 0, "o/c=2", {"reply 3 0", "reply 3 2", "note 1 o/c=2"}},                   // early
        {"o*", 0, "-o/b", {"note 2 o/b", "reply 4 0", "object 4 1/2 o/c=2", "object 4 2/2 o/x=0"}}, // late
        {"o/x", codec::kFlagKeyOnly, "o/x=3", {"reply 5 0", "object 5 1/1 o/x", "note 1 o/x=3"}}, // early
        {"p/*", 0, "o/c=4", {"note 1 o/c=4", "reply 6 0", "reply 6 2"}},                   // late, beside
    };
    uint32_t corrid = 0;
    for (const auto &step : steps) {
        a.send(request(codec::kOpPost, step.key, ++corrid, codec::kSemSync, step.flags));
        ASSERT_TRUE(gate.wait_for(static_cast<int>(corrid))) << step.key;
        bool put = step.change[0] != '-';
        size_t eq = step.change.find('=');
        w.send(put ? request(codec::kOpPut, step.change.substr(0, eq), corrid, codec::kSemSync, 0,
                             step.change.substr(eq + 1))
                   : request(codec::kOpRemove, step.change.substr(1), corrid));
        EXPECT_EQ(line(w.next()), "reply " + std::to_string(corrid) + " 0") << step.key;
        Lines got;
        for (size_t i = 0; i < step.want.size(); i++) got.push_back(line(a.next()));
        EXPECT_EQ(got, step.want) << step.key;
    }
    // Nothing else was sent: the next packet is the answer to a cancel.
    a.send(request(codec::kOpCancel, "o/c", 99u));
    EXPECT_EQ(line(a.next()), "reply 99 0");

    // The feed ends while a post starts: every begun subscription ends with
    // trigger 4 and the cause; the post is answered 1101 and holds nothing.
    a.send(request(codec::kOpPost, "q", ++corrid));
    ASSERT_TRUE(gate.wait_for(static_cast<int>(corrid)));
    w.send(request(codec::kOpPut, "!end", 100u, codec::kSemSync, 0, "store history compacted"));
    EXPECT_EQ(line(w.next()), "reply 100 0");
    std::set<std::string> want, got;
    for (const char *key : {"o/*", "o/b", "o*", "o/x", "p/*"}) {
        want.insert(std::string("note 4 ") + key + "=store history compacted");
        got.insert(line(a.next()));
    }
    EXPECT_EQ(got, want);
    EXPECT_EQ(line(a.next()), "reply " + std::to_string(corrid) + " " + std::to_string(kStatusStoreUnavailable));
    a.send(request(codec::kOpCancel, "q", 101u) + request(codec::kOpCancel, "o/*", 102u));
    EXPECT_EQ(line(a.next()), "reply 101 2");
    EXPECT_EQ(line(a.next()), "reply 102 2");
}

// What only the etcd store does, on the shared member or on a cluster of
// the case's own.
class EtcdTest : public ServiceTest {};
INSTANTIATE_TEST_SUITE_P(Store, EtcdTest, ::testing::ValuesIn(Lines(QEL_TEST_ETCD, "etcd")), store_name);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EtcdTest);

TEST_P(EtcdTest, DataOutlivesTheServiceAndInstancesShareItWithoutGapOrDuplicate)
{
    // Written through one service, read back through its successor.
    EXPECT_EQ(Client(*server_).put("kept", std::string("across restarts")), 0u);
    server_ = serve(options());
    std::unique_ptr<Server> b = serve(options());
    Client reader(*server_);
    EXPECT_EQ(reader.get("kept"), (Pairs{{"kept", "across restarts"}}));

    // A writer on B runs while a subscriber on A posts: every write is in
    // the image or in the notifications, exactly once, in the writer's
    // order, including those between the image's read and the watch.
    constexpr int kWrites = 200, kBeforePost = 40;
    std::promise<void> begun; // more than kBeforePost writes stored
    std::thread writer([&] {
        Client w(*b);
        for (int i = 0; i < kWrites; i++) {
            EXPECT_EQ(w.put("s/" + std::to_string(1000 + i), std::to_string(i),
                            i % 2 ? HSPACE_PUT_NOREPLY : HSPACE_PUT_SYNC), 0u);
            if (i == kBeforePost) begun.set_value(); // i even: a reply, after every no-reply put before it
        }
    });
    EXPECT_EQ(begun.get_future().wait_for(kBound), std::future_status::ready);
    Client sub(*server_);
    EXPECT_EQ(sub.post("s/*"), 0u);
    writer.join();
    Lines seen, want;
    size_t image = 0;
    for (const Event &e : sub.wait_notification("s/1199", "199")) {
        image += e.type == HSPACE_EVENT_POST_IMAGE && e.has_object;
        if (e.has_object) seen.push_back(e.object_key + "=" + e.object_value);
    }
    seen.push_back("s/1199=199");
    for (int i = 0; i < kWrites; i++) want.push_back("s/" + std::to_string(1000 + i) + "=" + std::to_string(i));
    EXPECT_EQ(seen, want) << "image of " << image;
    EXPECT_GE(image, static_cast<size_t>(kBeforePost));
}

TEST_P(EtcdTest, FailoverOfAMemberThenAnOutageAndRecovery)
{
    EtcdCluster etcd(3);
    ASSERT_TRUE(etcd.start(kTestBound));
    Options options = this->options();
    options.store = etcd.store_url();
    options.store_timeout_ms = 5000;
    std::unique_ptr<Server> service = serve(options);
    Client writer(*service), sub(*service);
    EXPECT_EQ(sub.post("f/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(writer.put("f/1", std::string("one")), 0u);
    EXPECT_TRUE(sub.wait_notification("f/1", "one").empty());

    // The first member, the one the service talks to, dies: writes and the
    // subscription go on through the others, with no gap.
    etcd.kill(0);
    for (const char *v : {"two", "three"}) EXPECT_EQ(writer.put(std::string("f/") + v, std::string(v)), 0u);
    EXPECT_TRUE(sub.wait_notification("f/two", "two").empty());
    EXPECT_TRUE(sub.wait_notification("f/three", "three").empty());

    // Every member stopped: a service with a short bound answers each
    // request with the store's status for "unreachable" within its bound;
    // its subscription outlives the outage.
    options.store_timeout_ms = 1000;
    std::unique_ptr<Server> outage = serve(options);
    Client c(*outage);
    EXPECT_EQ(c.post("f/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    for (size_t member : {1, 2}) etcd.kill(member);
    EXPECT_EQ(c.put("f/lost", std::string("x")), kStatusStoreUnavailable);
    EXPECT_TRUE(c.get("f/1", 0, kStatusStoreUnavailable).empty());
    EXPECT_EQ(c.remove("f/1"), kStatusStoreUnavailable);
    EXPECT_EQ(c.post("g"), kStatusStoreUnavailable);

    // etcd back, as etcd itself tells (a linearizable read through each
    // member): the very first request is served, however long the
    // reconnection backoff had grown, and both subscriptions go on with
    // every change and no end.
    ASSERT_TRUE(etcd.start(kTestBound));
    EXPECT_EQ(c.put("f/4", std::string("four")), 0u);
    EXPECT_EQ(c.get("f/*", HSPACE_GET_FLAG_KEY_ONLY),
              (Pairs{{"f/1", ""}, {"f/4", ""}, {"f/three", ""}, {"f/two", ""}}));
    EXPECT_EQ(writer.put("f/5", std::string("five")), 0u);
    for (Client *subscriber : {&c, &sub}) {
        EXPECT_TRUE(subscriber->wait_notification("f/4", "four").empty());
        EXPECT_TRUE(subscriber->wait_notification("f/5", "five").empty());
    }
}

} // namespace
