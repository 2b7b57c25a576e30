/*
 * service_test.cpp - the client library against the reference service,
 * started in-process on 127.0.0.1 and an ephemeral port: every operation
 * and semantic, patterns, subscriptions across handles, and clients that
 * misbehave on raw sockets (garbage, no handshake, a subscriber that never
 * reads) while the others go on. Every case runs once per store: memory,
 * and etcd (one member started by the test, each case under its own key
 * prefix). Then what only the etcd store does: data that outlives a
 * service, instances that share it, a member's failover, etcd stopped and
 * back.
 *
 * Every wait is bounded by kBound (etcd's start by kTestBound) and fails
 * the test when it runs out.
 */
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "client_harness.h"
#include "etcd_cluster.h"
#include "server.h"
#include "store/store.h"

namespace {

using namespace hspace::test;
using hspace::service::Options;
using hspace::service::Server;

// One open handle on the service whose events go to its recorder.
class Client {
public:
    explicit Client(const std::string &url, const char *name = "test")
    {
        EXPECT_EQ(0u, Create(url, name, "tests", &h));
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

    // A put of value, or of an object without data when value is empty.
    t_kro_error put(const std::string &key, const std::optional<std::string> &value,
                    t_qel_hspace_put_semantic sem = HSPACE_PUT_SYNC)
    {
        std::unique_ptr<UserObject> o(value ? new UserObject(key, *value) : new UserObject(key));
        return qel_hspace_put(h, o->obj, sem, 0);
    }
    // Synchronous get; the objects in arrival order ("" for no data).
    t_kro_error get(const std::string &key, Pairs *out, t_kro_int4 flags = 0)
    {
        ObjectList list;
        t_kro_error error = qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, flags, list);
        *out = list.contents();
        return error;
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

    t_qel_hspace h = nullptr; // the handle
    Recorder events;          // its events
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

// Appends one request packet to out, byte for byte as a client sends it.
void add_request(std::string &out, uint8_t opcode, const std::string &key, std::optional<uint32_t> corrid,
                 uint8_t semantic = codec::kSemSync, int32_t flags = 0, const std::string &data = "")
{
    codec::encode_request(out, codec::Request{0, opcode, semantic, 0, 0, flags, key, corrid, data});
}

// A client on a blocking socket whose every receive is bounded by kBound,
// speaking through the codec: for bytes the library never sends and for a
// peer that stops reading.
class RawClient {
public:
    // Connects to port; rcvbuf > 0 shrinks the socket's receive buffer first.
    explicit RawClient(uint16_t port, int rcvbuf = 0)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (rcvbuf > 0) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
        timeval tv = {static_cast<time_t>(kBound.count() / 1000), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0) << strerror(errno);
    }
    ~RawClient() { close(fd_); }

    void send(const std::string &bytes)
    {
        ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // The next packet from the service; false at end of stream, on garbage
    // or on a timeout (a failure is recorded for the last two).
    bool next(codec::Packet *p)
    {
        for (;;) {
            codec::FrameResult f = codec::frame(in_);
            EXPECT_NE(f.status, codec::FrameStatus::Invalid);
            if (f.status == codec::FrameStatus::Invalid) return false;
            if (f.status == codec::FrameStatus::Complete) {
                bool ok = codec::decode(in_.substr(0, f.wirelen), *p);
                in_.erase(0, f.wirelen);
                EXPECT_TRUE(ok);
                return ok;
            }
            ssize_t n = read_some();
            EXPECT_FALSE(n < 0 && errno == EAGAIN) << "watchdog: no packet from the service";
            if (n <= 0) return false;
        }
    }
    // Sends a handshake for service type "data"; the reply.
    codec::Packet handshake()
    {
        std::string out;
        codec::encode_handshake_request(out, "data", "raw", "tests");
        send(out);
        codec::Packet p;
        EXPECT_TRUE(next(&p) && p.handshake_reply.has_value());
        return p;
    }
    // True once the service has closed the connection (end of stream or a
    // reset), dropping whatever comes before; false, with a failure, when a
    // receive times out first.
    bool wait_closed()
    {
        ssize_t n;
        while ((n = read_some()) > 0) in_.clear();
        EXPECT_FALSE(n < 0 && errno == EAGAIN) << "watchdog: the service did not close the connection";
        return !(n < 0 && errno == EAGAIN);
    }

private:
    ssize_t read_some()
    {
        char chunk[65536];
        ssize_t n;
        while ((n = recv(fd_, chunk, sizeof chunk, 0)) < 0 && errno == EINTR) {
        }
        if (n > 0) in_.append(chunk, static_cast<size_t>(n));
        return n;
    }

    int fd_ = -1;    // the socket
    std::string in_; // received, not yet returned
};

// The etcd member shared by the cases of the store-parameterised suite,
// started by the first case that needs it, stopped at the end. Main thread
// only.
EtcdCluster *shared_etcd = nullptr;
int prefixes = 0;                              // key prefixes handed out

class SharedEtcd : public ::testing::Environment {
public:
    void TearDown() override
    {
        delete shared_etcd;
        shared_etcd = nullptr;
    }
};
const auto *const shared_etcd_environment = ::testing::AddGlobalTestEnvironment(new SharedEtcd);

std::vector<std::string> stores()
{
    std::vector<std::string> all{"memory"};
    if (QEL_TEST_ETCD) all.push_back("etcd");
    return all;
}

class ServiceTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        InitLibrary();
        if (GetParam() == "etcd") {
            ASSERT_TRUE(EtcdCluster::installed()) << "etcd-server and etcd-client are needed";
            if (shared_etcd == nullptr) {
                shared_etcd = new EtcdCluster(1);
                ASSERT_TRUE(shared_etcd->start(kTestBound)) << "etcd did not start";
            }
        }
        start_server(Options());
    }
    void TearDown() override
    {
        server_.reset();
        qel_hspace_finalize();
    }
    // Starts the service on the store under test; the etcd store gets a
    // key prefix of its own for each case.
    void start_server(Options options)
    {
        server_.reset();
        if (GetParam() == "etcd") {
            options.store = shared_etcd->store_url();
            options.store_prefix = "case" + std::to_string(++prefixes) + "/";
        }
        server_.reset(new Server(options));
        std::string error;
        ASSERT_TRUE(server_->start(&error)) << error;
        url_ = server_->url();
    }

    // A put by writer followed by its notification at subscriber, which
    // must have posted "fence": every notification the writer caused before
    // has arrived. Returns the events before the fence.
    std::vector<Event> fence(Client &writer, Client &subscriber)
    {
        std::string mark = std::to_string(++fences_);
        EXPECT_EQ(writer.put("fence", mark), 0u);
        return subscriber.wait_notification("fence", mark);
    }

    std::unique_ptr<Server> server_;
    std::string url_;
    int fences_ = 0;
};

TEST_P(ServiceTest, PutGetRemoveEverySemantic)
{
    Client c(url_);
    Pairs got;

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
        ASSERT_EQ(c.get(p.key, &got), 0u) << p.key;
        EXPECT_TRUE(got == (Pairs{{p.key, p.want}})) << p.key;
    }

    // Keys are case sensitive; a synchronous get of a missing key turns
    // status 2 into success with nothing.
    for (const char *key : {"K1", "missing"}) {
        ASSERT_EQ(c.get(key, &got), 0u) << key;
        EXPECT_TRUE(got.empty()) << key;
    }

    // Remove answers 2 for a missing key; a no-reply remove takes effect.
    EXPECT_EQ(c.remove("k1"), 0u);
    EXPECT_EQ(c.remove("k1"), KRO_ERR_NO_MATCH);
    EXPECT_EQ(c.remove("bin", HSPACE_REMOVE_NOREPLY), 0u);
    ASSERT_EQ(c.get("bin", &got), 0u);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(c.remove("missing", HSPACE_REMOVE_NOREPLY), 0u);
    EXPECT_EQ(c.put("after", std::string("ok")), 0u);
}

TEST_P(ServiceTest, PatternAndAsynchronousGets)
{
    Client c(url_);
    for (const char *k : {"p/c", "p/a", "q/x", "p/b", "p", "pz"}) EXPECT_EQ(c.put(k, std::string("v-") + k), 0u);
    Pairs got;

    // Every key with the prefix, in key order.
    ASSERT_EQ(c.get("p/*", &got), 0u);
    EXPECT_EQ(got, (Pairs{{"p/a", "v-p/a"}, {"p/b", std::string("v-p/b")},
                              {"p/c", std::string("v-p/c")}}));
    const std::pair<const char *, size_t> counts[] = {{"p*", 5}, {"*", 6}, {"nothing/*", 0}};
    for (const auto &[pattern, n] : counts) {
        ASSERT_EQ(c.get(pattern, &got), 0u) << pattern;
        EXPECT_EQ(got.size(), n) << pattern;
    }

    // Key only: objects without values.
    ASSERT_EQ(c.get("p/*", &got, HSPACE_GET_FLAG_KEY_ONLY), 0u);
    EXPECT_EQ(got, (Pairs{{"p/a", ""}, {"p/b", ""}, {"p/c", ""}}));
    ASSERT_EQ(c.get("p/a", &got, HSPACE_GET_FLAG_KEY_ONLY), 0u);
    EXPECT_EQ(got, (Pairs{{"p/a", ""}}));

    // Asynchronous: one event per object numbered 1..n of n, then one
    // empty answer for a missing key.
    EXPECT_EQ(qel_hspace_get(c.h, "p/*", reinterpret_cast<t_kro_ptr>(uintptr_t(7)), HSPACE_GET_ASYNC, 0, 0, nullptr),
              0u);
    EXPECT_EQ(qel_hspace_get(c.h, "none", reinterpret_cast<t_kro_ptr>(uintptr_t(8)), HSPACE_GET_ASYNC, 0, 0, nullptr),
              0u);
    EXPECT_EQ(show(c.wait_events(4)), (Lines{"get 7 p/* 0 1/3 p/a=v-p/a", "get 7 p/* 0 2/3 p/b=v-p/b",
                                            "get 7 p/* 0 3/3 p/c=v-p/c", "get 8 none 0 0/0"}));
}

TEST_P(ServiceTest, SubscriptionImageNotificationsAndCancel)
{
    Client c(url_);
    EXPECT_EQ(c.put("a/1", std::string("one")), 0u);
    EXPECT_EQ(c.put("a/2", std::string("two")), 0u);
    EXPECT_EQ(c.post("fence"), 0u);
    c.wait_events(1); // the fence's empty image
    c.events.reset();

    // The image: the stored objects addressed to the post, 1..n of n.
    EXPECT_EQ(c.post("a/*", 0, 0, 42), 0u);
    EXPECT_EQ(show(c.wait_events(2)), (Lines{"image 42 a/* 0 1/2 a/1=one", "image 42 a/* 0 2/2 a/2=two"}));
    c.events.reset();

    // The same key in another letter case is a duplicate on this connection.
    EXPECT_EQ(c.post("A/*"), KRO_ERR_EXISTS);

    // Changes: stored with the value, removed without; the writer's own
    // notifications come before its put's reply.
    EXPECT_EQ(c.put("a/3", std::string("three")), 0u);
    EXPECT_EQ(c.remove("a/1"), 0u);
    EXPECT_EQ(c.put("b/1", std::string("other")), 0u);
    EXPECT_EQ(show(fence(c, c)), (Lines{"note 1 a/3=three", "note 2 a/1"}));

    // Cancel in another letter case ends it: no more notifications; a
    // second cancel finds nothing; a new post of the key is accepted.
    EXPECT_EQ(c.cancel("A/*"), 0u);
    EXPECT_EQ(c.cancel("a/*"), KRO_ERR_NO_MATCH);
    EXPECT_EQ(c.put("a/4", std::string("four")), 0u);
    EXPECT_TRUE(fence(c, c).empty());

    // No image with flag 2; an empty image otherwise.
    EXPECT_EQ(c.post("a/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(c.post("none"), 0u);
    EXPECT_EQ(show(fence(c, c)), (Lines{"image 0 none 0 0/0"})); // nothing else
}

TEST_P(ServiceTest, TriggerMaskAndKeyOnlySubscriptions)
{
    Client writer(url_), sub(url_);
    EXPECT_EQ(sub.post("fence"), 0u);
    EXPECT_EQ(sub.post("stored", 1, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("removed", 2, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("all", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(sub.post("keys", 0, HSPACE_POST_FLAG_NO_IMAGE | HSPACE_POST_FLAG_KEY_ONLY), 0u);
    sub.wait_events(1); // the fence's empty image
    sub.events.reset();

    for (const char *k : {"stored", "removed", "all", "keys"}) {
        EXPECT_EQ(writer.put(k, std::string("v")), 0u);
        EXPECT_EQ(writer.remove(k), 0u);
    }
    EXPECT_EQ(show(fence(writer, sub)), (Lines{"note 1 stored=v", "note 2 removed", "note 1 all=v", "note 2 all",
                                               "note 1 keys", "note 2 keys"}));
}

TEST_P(ServiceTest, NotificationsReachAnotherHandleInOrder)
{
    Client writer(url_, "writer"), sub(url_, "subscriber");
    EXPECT_EQ(sub.post("seq/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    constexpr int kPuts = 300;
    for (int i = 0; i < kPuts; i++) {
        char key[32];
        snprintf(key, sizeof key, "seq/%03d", i % 50);
        t_qel_hspace_put_semantic sem = i % 3 == 0 ? HSPACE_PUT_SYNC : HSPACE_PUT_NOREPLY;
        EXPECT_EQ(writer.put(key, std::to_string(i), sem), 0u);
    }
    Lines want;
    for (int i = 0; i < kPuts; i++) want.push_back("note 1 seq/" + std::string(i % 50 < 10 ? "00" : "0") +
                                                   std::to_string(i % 50) + "=" + std::to_string(i));
    EXPECT_EQ(show(sub.wait_events(kPuts)), want);
}

TEST_P(ServiceTest, OneHandleSharedByThreads)
{
    Client c(url_);
    constexpr int kThreads = 4, kOps = 100;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kOps; i++) {
                std::string key = "t" + std::to_string(t) + "/" + std::to_string(i % 10);
                std::string value = std::to_string(t * 1000 + i);
                Pairs got;
                if (c.put(key, value) != 0) failures++;
                if (c.get(key, &got) != 0 || got.size() != 1 || got[0].second != value) failures++;
            }
        });
    }
    for (auto &th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    Pairs got;
    ASSERT_EQ(c.get("t*", &got), 0u);
    EXPECT_EQ(got.size(), static_cast<size_t>(kThreads * 10));
}

TEST_P(ServiceTest, HandshakeAndUnknownRequestsOnTheWire)
{
    // The handshake reply: version 1, a nonzero ltp, the service's name.
    {
        RawClient raw(server_->port());
        codec::Packet p = raw.handshake();
        ASSERT_TRUE(p.handshake_reply.has_value());
        EXPECT_EQ(p.handshake_reply->version, 1);
        EXPECT_NE(p.handshake_reply->ltp, 0);
        EXPECT_EQ(p.handshake_reply->name, "hspaced");

        // An unknown opcode with a correlation id is answered 14; without
        // one it is dropped; a get without reply wanted is not answered.
        std::string out;
        add_request(out, 3, "k", 11u);
        add_request(out, 9, "k", std::nullopt);
        add_request(out, codec::kOpGet, "k", 12u, codec::kSemNoReply);
        add_request(out, codec::kOpGet, "k", 13u);
        raw.send(out);
        ASSERT_TRUE(raw.next(&p));
        ASSERT_TRUE(p.rr.has_value());
        EXPECT_EQ(p.rr->corrid, 11u);
        EXPECT_FALSE(p.rr->is_success());
        EXPECT_EQ(p.rr->error(), KRO_ERR_NOT_SUPPORTED);
        ASSERT_TRUE(raw.next(&p));
        EXPECT_EQ(p.rr->corrid, 13u);
        EXPECT_EQ(p.rr->error(), KRO_ERR_NO_MATCH);
    }

    // Anything but a handshake for service type "data" first: closed.
    std::string other, get_first;
    codec::encode_handshake_request(other, "other", "raw", "tests");
    add_request(get_first, codec::kOpGet, "k", 1u);
    for (const std::string &first : {other, get_first}) {
        RawClient raw(server_->port());
        raw.send(first);
        EXPECT_TRUE(raw.wait_closed());
    }
    EXPECT_EQ(server_->stats().dropped_invalid.load(), 2u);
}

TEST_P(ServiceTest, GarbageFromOneClientHarmsNoOther)
{
    Client good(url_), writer(url_);
    EXPECT_EQ(good.post("fence"), 0u);
    EXPECT_EQ(good.post("g/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    good.wait_events(1);
    good.events.reset();

    // Not a packet at all; a header claiming more than the largest packet;
    // a section length that runs past the packet; a packet cut short by the
    // peer's close.
    std::vector<std::string> bad;
    bad.push_back("hello, service\r\n\r\n");
    {
        std::string s;
        codec::put_header(s, codec::kMaxPacket + 1, 0, 0, 0, codec::kTypeRequest);
        bad.push_back(s);
    }
    {
        std::string s;
        codec::put_header(s, 48, 0, 1, 1, codec::kTypeRequest);
        codec::put_preamble(s, codec::kTypeHspace, 200);
        s.append(8, '\0');
        bad.push_back(s);
    }
    for (const std::string &garbage : bad) {
        RawClient raw(server_->port());
        raw.handshake();
        raw.send(garbage);
        EXPECT_TRUE(raw.wait_closed());
    }
    {
        RawClient raw(server_->port());
        raw.handshake();
        std::string out;
        add_request(out, codec::kOpPut, "g/cut", std::nullopt, codec::kSemSync, 0, "never complete");
        raw.send(out.substr(0, out.size() - 3));
    }
    EXPECT_EQ(server_->stats().dropped_invalid.load(), bad.size());

    // The others go on as before.
    EXPECT_EQ(writer.put("g/1", std::string("still")), 0u);
    Pairs got;
    ASSERT_EQ(good.get("g/*", &got), 0u);
    EXPECT_EQ(got, (Pairs{{"g/1", std::string("still")}}));
    EXPECT_EQ(show(fence(writer, good)), (Lines{"note 1 g/1=still"}));
}

TEST_P(ServiceTest, SlowSubscriberIsDisconnectedOthersGoOn)
{
    Options options;
    options.max_queue = 1 << 20;
    start_server(options);
    Client writer(url_, "writer"), good(url_, "good");
    EXPECT_EQ(good.post("big/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);

    // Subscribes, then never reads again.
    RawClient slow(server_->port(), 16384);
    slow.handshake();
    {
        std::string out;
        add_request(out, codec::kOpPost, "big/*", 1u, codec::kSemSync, codec::kFlagNoImage);
        slow.send(out);
        codec::Packet p;
        ASSERT_TRUE(slow.next(&p));
        ASSERT_TRUE(p.rr && p.rr->is_success());
    }

    // The writer's puts each reach the good subscriber (which is waited
    // for, so its own queue stays small) until the slow one's queue
    // overflows; the kernel's socket buffers absorb a few MiB first.
    const std::string value(256 * 1024, 'v');
    int puts = 0;
    for (; puts < 400 && server_->stats().dropped_slow.load() == 0; puts++) {
        std::string key = "big/" + std::to_string(puts);
        ASSERT_EQ(writer.put(key, value), 0u);
        good.wait_notification(key, value);
    }
    EXPECT_EQ(server_->stats().dropped_slow.load(), 1u) << "after " << puts << " puts";
    EXPECT_TRUE(slow.wait_closed());

    // The others are unharmed.
    EXPECT_EQ(writer.put("big/last", std::string("small")), 0u);
    good.wait_notification("big/last", "small");
    Pairs got;
    ASSERT_EQ(writer.get("big/last", &got), 0u);
    EXPECT_EQ(got.size(), 1u);
    EXPECT_EQ(server_->stats().open.load(), 2u);
}

TEST_P(ServiceTest, ValuesAreBoundedAndAnswersOverTheBoundArePaced)
{
    Options options;
    options.max_queue = 4096;
    start_server(options);
    Client writer(url_, "writer");

    // A value is accepted when its largest packet fits: value + key + 86.
    EXPECT_EQ(writer.put("q/x", std::string(4096 - 86 - 3, 'v')), 0u);
    EXPECT_EQ(writer.put("q/y", std::string(4096 - 86 - 3 + 1, 'v')), KRO_ERR_INVALID_ARG);
    Pairs got;
    ASSERT_EQ(writer.get("q/*", &got), 0u);
    EXPECT_EQ(got.size(), 1u) << "a refused put stored something";

    // 200 pattern gets, each answered with 9 KiB, sent at once by a client
    // with a small receive buffer: it is served at its pace, never dropped.
    for (int i = 1; i <= 3; i++) ASSERT_EQ(writer.put("p/" + std::to_string(i), std::string(3000, static_cast<char>('a' + i))), 0u);
    RawClient raw(server_->port(), 4096);
    raw.handshake();
    std::string out;
    for (uint32_t corrid = 1; corrid <= 200; corrid++) add_request(out, codec::kOpGet, "p/*", corrid);
    raw.send(out);
    for (uint32_t corrid = 1; corrid <= 200; corrid++) {
        for (uint32_t num = 1; num <= 3; num++) {
            codec::Packet p;
            ASSERT_TRUE(raw.next(&p)) << "answer " << corrid << " object " << num;
            ASSERT_TRUE(p.rr && p.hspace);
            EXPECT_EQ(p.rr->corrid, corrid);
            EXPECT_EQ(p.hspace->key, "p/" + std::to_string(num));
            EXPECT_EQ(p.body, std::string(3000, static_cast<char>('a' + num)));
        }
    }
    EXPECT_EQ(server_->stats().dropped_slow.load(), 0u);
    EXPECT_EQ(writer.get("p/1", &got), 0u);
}

TEST_P(ServiceTest, StopEndsEveryConnection)
{
    Client c(url_);
    EXPECT_EQ(c.post("k"), 0u);
    c.wait_events(1);
    c.events.reset();
    server_->stop();
    server_->stop(); // idempotent
    std::vector<Event> ev = c.wait_events(1);
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].type, HSPACE_EVENT_LINK_FAIL);
    t_qel_hspace_state state;
    EXPECT_EQ(qel_hspace_get_state(c.h, &state), 0u);
    EXPECT_EQ(state, HSPACE_STATE_FAILED);
    EXPECT_EQ(server_->stats().open.load(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Stores, ServiceTest, ::testing::ValuesIn(stores()),
                         [](const ::testing::TestParamInfo<std::string> &info) { return info.param; });

TEST(ServerLifecycle, RefusesABusyPortAndASecondStart)
{
    Server first;
    ASSERT_TRUE(first.start());
    Options options;
    options.port = first.port();
    Server second(options);
    std::string error;
    EXPECT_FALSE(second.start(&error));
    EXPECT_NE(error.find("cannot listen"), std::string::npos) << error;
    EXPECT_FALSE(first.start(&error)); // only once
    first.stop();
    first.stop();
}

} // namespace

namespace {

// What only the etcd store does. Each case starts its services on a
// cluster of its own or under a key prefix of its own.
class EtcdTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!QEL_TEST_ETCD) GTEST_SKIP() << "the etcd store is not tested in this build";
        ASSERT_TRUE(EtcdCluster::installed()) << "etcd-server and etcd-client are needed";
        InitLibrary();
    }
    void TearDown() override { qel_hspace_finalize(); }

    static std::unique_ptr<Server> start(const std::string &store, const std::string &prefix, unsigned timeout_ms)
    {
        Options options;
        options.store = store;
        options.store_prefix = prefix;
        options.store_timeout_ms = timeout_ms;
        std::unique_ptr<Server> server(new Server(options));
        std::string error;
        EXPECT_TRUE(server->start(&error)) << error;
        return server;
    }
};

TEST_F(EtcdTest, DataOutlivesTheServiceAndInstancesShareItWithoutGapOrDuplicate)
{
    EtcdCluster etcd(1);
    ASSERT_TRUE(etcd.start(kTestBound));

    // Written through one service, read back through its successor.
    {
        auto first = start(etcd.store_url(), "share/", 3000);
        Client c(first->url());
        EXPECT_EQ(c.put("kept", std::string("across restarts")), 0u);
    }
    auto a = start(etcd.store_url(), "share/", 3000), b = start(etcd.store_url(), "share/", 3000);
    Client reader(a->url());
    Pairs got;
    ASSERT_EQ(reader.get("kept", &got), 0u);
    EXPECT_EQ(got, (Pairs{{"kept", "across restarts"}}));

    // A writer on B runs while a subscriber on A posts: every write is in
    // the image or in the notifications, exactly once, in the writer's
    // order, including those between the image's read and the watch.
    constexpr int kWrites = 200, kBeforePost = 40;
    std::mutex m;
    std::condition_variable cv;
    int written = 0;
    std::thread writer([&] {
        Client w(b->url());
        for (int i = 0; i < kWrites; i++) {
            char key[16];
            snprintf(key, sizeof key, "s/%03d", i);
            EXPECT_EQ(w.put(key, std::to_string(i), i % 2 ? HSPACE_PUT_NOREPLY : HSPACE_PUT_SYNC), 0u);
            std::lock_guard<std::mutex> lock(m);
            written = i + 1;
            cv.notify_all();
        }
    });
    {
        std::unique_lock<std::mutex> lock(m);
        EXPECT_TRUE(cv.wait_for(lock, kBound, [&] { return written >= kBeforePost; }));
    }
    Client sub(a->url());
    EXPECT_EQ(sub.post("s/*"), 0u);
    writer.join();
    Lines seen, want;
    size_t image = 0;
    for (const Event &e : sub.wait_notification("s/199", "199")) {
        image += e.type == HSPACE_EVENT_POST_IMAGE && e.has_object;
        if (e.has_object) seen.push_back(e.object_key + "=" + e.object_value);
    }
    seen.push_back("s/199=199");
    for (int i = 0; i < kWrites; i++) want.push_back("s/" + std::string(i < 10 ? "00" : i < 100 ? "0" : "") +
                                                     std::to_string(i) + "=" + std::to_string(i));
    EXPECT_EQ(seen, want) << "image of " << image;
    EXPECT_GE(image, static_cast<size_t>(kBeforePost));
}

TEST_F(EtcdTest, FailoverOfAMemberThenAnOutageAndRecovery)
{
    EtcdCluster etcd(3);
    ASSERT_TRUE(etcd.start(kTestBound));
    auto service = start(etcd.store_url(), "f/", 5000);
    Client writer(service->url()), sub(service->url());
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
    // request with the store's failure status, and ends its subscription
    // with a notification of trigger 4 under the subscribed key.
    auto outage = start(etcd.store_url(), "f/", 500);
    Client c(outage->url());
    EXPECT_EQ(c.post("f/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    etcd.kill(1);
    etcd.kill(2);
    Pairs got;
    EXPECT_EQ(c.put("f/lost", std::string("x")), hspace::service::kStatusStoreUnavailable);
    EXPECT_EQ(c.get("f/1", &got), hspace::service::kStatusStoreUnavailable);
    EXPECT_EQ(c.remove("f/1"), hspace::service::kStatusStoreUnavailable);
    EXPECT_EQ(show(c.wait_events(1)), (Lines{"note 4 f/*"})); // trigger 4: ended
    c.events.reset();
    EXPECT_EQ(c.post("g"), hspace::service::kStatusStoreUnavailable);
    // The ended subscription is still the client's until it cancels it.
    EXPECT_EQ(c.cancel("f/*"), KRO_ERR_NO_MATCH);

    // etcd back: the same service serves again, with everything written.
    ASSERT_TRUE(etcd.start(kTestBound));
    EXPECT_EQ(c.put("f/4", std::string("four")), 0u);
    ASSERT_EQ(c.get("f/*", &got, HSPACE_GET_FLAG_KEY_ONLY), 0u);
    EXPECT_EQ(got, (Pairs{{"f/1", ""}, {"f/4", ""}, {"f/three", ""}, {"f/two", ""}}));
    EXPECT_EQ(c.post("f/*", 0, HSPACE_POST_FLAG_NO_IMAGE), 0u);
    EXPECT_EQ(writer.put("f/5", std::string("five")), 0u);
    EXPECT_TRUE(c.wait_notification("f/5", "five").empty());
}

} // namespace
