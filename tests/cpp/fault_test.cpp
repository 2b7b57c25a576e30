/*
 * fault_test.cpp - the C++ API against a fake service that stops answering,
 * freezes, hangs up, or ends subscriptions: every call returns by its
 * deadline and the late answer reaches no one; teardown never waits on the
 * service; a subscription the service ends is posted again and resynced.
 * The test thread plays the service through the connection it took.
 */
#include "cpp_support.h"

namespace {

using namespace cpptest;
namespace codec = hspace::codec;

// A Client on the fake service; the test plays the service's side in conn_.
class FaultTest : public ::testing::Test {
protected:
    void TearDown() override { client_.reset(); }

    qh::Client &open(qh::Options o)
    {
        svc_.serve([](FakeConnection &c) { c.handshake(); });
        client_ = std::make_unique<qh::Client>(svc_.url(), o);
        client_->open();
        EXPECT_TRUE(svc_.join());
        conn_ = svc_.take_connection();
        return *client_;
    }
    // The next request, which must be opcode on key; its correlation id.
    uint32_t expect(uint8_t opcode, const std::string &key)
    {
        Packet p = conn_.next_packet();
        EXPECT_TRUE(p.hspace && p.rr && p.hspace->opcode == opcode && p.hspace->key == key)
            << "expected opcode " << int(opcode) << " on " << key << ", got "
            << (p.hspace ? std::to_string(p.hspace->opcode) + " on " + p.hspace->key : std::string("nothing"));
        return p.rr ? p.rr->corrid : 0;
    }
    // Subscribes key, answering the post with the image kv (none: no match).
    qh::Subscription subscribe(const std::string &key, Seen &seen, const Pairs &kv = {})
    {
        Async<qh::Subscription> call([&] { return client_->subscribe(key, seen.images(), seen.changes()); });
        uint32_t id = expect(codec::kOpPost, key);
        conn_.reply(id);
        kv.empty() ? conn_.reply(id, KRO_ERR_NO_MATCH) : conn_.objects(id, codec::kOpPost, kv);
        qh::Subscription s = call.wait();
        EXPECT_TRUE(s) << key;
        return s;
    }

    Watchdog watchdog_;
    FakeService svc_;
    std::unique_ptr<qh::Client> client_;
    FakeConnection conn_;
};

qh::Options WithDeadline(ms call_timeout)
{
    qh::Options o = TestOptions(false);
    o.call_timeout = call_timeout;
    return o;
}

// A service that reads every request and answers none in time: each call
// returns error::timeout at its deadline (Call's, else the Client's);
// the answers sent afterwards reach no one, and the stream stays in step.
TEST_F(FaultTest, EveryCallReturnsAtItsDeadline)
{
    qh::Client &c = open(WithDeadline(ms(40)));
    Seen never;
    std::atomic<int> handled{0};
    std::thread::id handler_thread;
    const struct Row {
        const char *name;
        uint8_t opcode;
        const char *key;
        std::function<std::error_code()> call;
        bool answer_post;     // the post's reply comes in time, its image does not
        bool cancel_follows;  // the Client cancels what the service may hold
    } rows[] = {
        {"get with the Client's deadline", codec::kOpGet, "g1",
         [&] { std::error_code ec; c.get("g1", ec); return ec; }, false, false},
        {"get with its own deadline", codec::kOpGet, "g2",
         [&] { std::error_code ec; c.get("g2", qh::Call{ms(5), false, true}, ec); return ec; }, false, false},
        {"get_async with a handler", codec::kOpGet, "g3",
         [&] {
             Signal done;
             std::error_code got;
             c.get_async("g3", [&](std::error_code e, qh::Objects &&o) {
                 got = e, handler_thread = std::this_thread::get_id();
                 handled += o.empty(), done.raise();
             });
             done.wait();
             return got;
         }, false, false},
        {"get_async with a future", codec::kOpGet, "g4",
         [&] {
             // Shared, so the state outlives the read of its exception: std::future::get
             // drops the state before rethrowing, and libstdc++'s exception_ptr counts
             // references where ThreadSanitizer cannot see them.
             std::shared_future<qh::Objects> f = c.get_async("g4").share();
             try {
                 f.get();
             } catch (const std::system_error &e) {
                 return e.code();
             }
             return std::error_code();
         }, false, false},
        {"put", codec::kOpPut, "p", [&] { std::error_code ec; c.put("p", "v", ec); return ec; }, false, false},
        {"remove", codec::kOpRemove, "r", [&] { std::error_code ec; c.remove("r", ec); return ec; }, false, false},
        {"subscribe waiting for its post's answer", codec::kOpPost, "s0",
         [&] { std::error_code ec; c.subscribe("s0", never.images(), never.changes(), {}, ec); return ec; }, false, true},
        {"subscribe without image", codec::kOpPost, "n0",
         [&] {
             std::error_code ec;
             c.subscribe("n0", never.images(), never.changes(), qh::SubscribeOptions{0, true, false}, ec);
             return ec;
         }, false, true},
        {"subscribe waiting for its image", codec::kOpPost, "s1",
         [&] { std::error_code ec; c.subscribe("s1", never.images(), never.changes(), {}, ec); return ec; }, true, true},
    };
    for (const Row &row : rows) {
        Async<std::error_code> call(row.call);
        uint32_t id = expect(row.opcode, row.key);
        if (row.answer_post) conn_.reply(id);
        EXPECT_EQ(qh::error::timeout, call.wait()) << row.name;
        // Late: the whole answer, and for a post a change of its key.
        if (row.opcode == codec::kOpPost) {
            if (!row.answer_post) conn_.reply(id);
            conn_.objects(id, codec::kOpPost, {{row.key, "late"}});
            conn_.notify(row.key, HSPACE_TRIGGER_STORED, "late");
        } else if (row.opcode == codec::kOpGet) {
            conn_.objects(id, row.opcode, {{row.key, "late"}, {row.key, "late2"}});
        } else {
            conn_.reply(id);
        }
        if (row.cancel_follows) conn_.reply(expect(codec::kOpCancel, row.key));
    }
    EXPECT_EQ(1, handled.load());
    EXPECT_NE(std::this_thread::get_id(), handler_thread);
    // In step: the next answer is the next call's.
    Async<qh::Objects> get([&] { return c.get("last", qh::Call{qh::no_deadline}); });
    conn_.objects(expect(codec::kOpGet, "last"), codec::kOpGet, {{"last", "1"}});
    qh::Objects last = get.wait();
    ASSERT_EQ(1u, last.size());
    EXPECT_EQ("last=1", Text(last[0]));
    EXPECT_TRUE(never.lines().empty());
}

// A service that accepts and never answers the handshake: open gives up at
// Options::open_timeout (the C handle's bound unless set) and leaves the
// Client idle, to be opened again.
TEST_F(FaultTest, OpenGivesUpOnASilentService)
{
    EXPECT_EQ(ms(QEL_HSPACE_OPEN_TIMEOUT_MS), qh::Options().open_timeout);
    Signal done;
    svc_.serve([&](FakeConnection &c) { c.expect_handshake(), done.wait(); });
    svc_.serve([](FakeConnection &c) { c.handshake(); });
    qh::Options o = TestOptions(false);
    o.open_timeout = ms(20);
    client_ = std::make_unique<qh::Client>(svc_.url(), o);
    std::error_code ec;
    client_->open(ec);
    EXPECT_EQ(qh::error::timeout, ec);
    EXPECT_EQ(qh::State::idle, client_->state());
    done.raise();
    client_->open();
    EXPECT_EQ(qh::State::connected, client_->state());
    EXPECT_TRUE(svc_.join());
}

// A service that does not read: a put whose write cannot finish returns at
// its deadline. The Client then reconnects once the link fails (the part
// written left the stream unusable; the service hangs up here in any case).
TEST_F(FaultTest, APutTheServiceDoesNotReadEndsAtItsDeadline)
{
    Seen states;
    qh::Client &c = open(TestOptions(true, ms(1), &states));
    svc_.serve([](FakeConnection &conn) {
        conn.handshake();
        Packet put = conn.next_packet();
        EXPECT_TRUE(put.hspace && put.rr && put.hspace->key == "after");
        conn.reply(put.rr->corrid);
    });
    std::error_code ec;
    c.put("big", std::string(size_t(16) << 20, 'b'), qh::Call{ms(200)}, ec);
    EXPECT_EQ(qh::error::timeout, ec);
    conn_.close();
    ASSERT_TRUE(states.wait_for("state:2"));
    c.put("after", "1", qh::Call{qh::no_deadline, true});
    EXPECT_TRUE(svc_.join());
    ASSERT_TRUE(states.wait([&] { return states.count("state:1") == 2; }));
    EXPECT_EQ((std::vector<std::string>{"state:1", "state:2", "state:1"}), states.lines());
}

// Changes that reach the connection before a subscription's image is
// complete (before the service's answer to a post without image) are not
// the subscription's: only those after it are delivered.
TEST_F(FaultTest, ChangesBeforeTheStartOfASubscriptionAreNotItsOwn)
{
    open(TestOptions(false));
    std::vector<qh::Subscription> kept; // live to the end: a reset would send a cancel
    for (bool image : {false, true}) {
        Seen seen;
        std::string key = image ? "with" : "without";
        Async<qh::Subscription> call([&] {
            return client_->subscribe(key, seen.images(), seen.changes(), qh::SubscribeOptions{0, !image, false});
        });
        uint32_t id = expect(codec::kOpPost, key);
        conn_.batch();
        conn_.notify(key, HSPACE_TRIGGER_STORED, "before");
        conn_.reply(id);
        if (image) conn_.notify(key, HSPACE_TRIGGER_STORED, "before the image");
        if (image) conn_.objects(id, codec::kOpPost, {{key, "image"}});
        conn_.notify(key, HSPACE_TRIGGER_STORED, "after");
        conn_.flush();
        kept.push_back(call.wait());
        ASSERT_TRUE(seen.wait_for("change:1:" + key + "=after"));
        std::vector<std::string> expected = {"change:1:" + key + "=after"};
        if (image) expected.insert(expected.begin(), "image:0:with=image,");
        EXPECT_EQ(expected, seen.lines());
    }
}

// The link fails under calls waiting without deadline: each returns the
// link's error at once, except a subscribe waiting for its image when the
// Client reconnects: its post goes out on the new link, and that image
// (not a resync: the first it delivers) ends the wait.
TEST_F(FaultTest, ALinkFailureEndsOrCarriesTheWaitingCalls)
{
    for (bool reconnect : {false, true}) {
        SCOPED_TRACE(reconnect ? "reconnecting" : "not reconnecting");
        qh::Options o = TestOptions(reconnect);
        o.call_timeout = qh::no_deadline;
        open(o);
        Seen seen;
        Async<std::error_code> get([&] { std::error_code ec; client_->get("g", ec); return ec; });
        expect(codec::kOpGet, "g");
        std::error_code subscribed;
        Async<qh::Subscription> sub([&] { return client_->subscribe("s", seen.images(), nullptr, {}, subscribed); });
        conn_.reply(expect(codec::kOpPost, "s")); // its image never comes on this link
        if (reconnect)
            svc_.serve([](FakeConnection &c) {
                c.handshake();
                Packet p = c.next_packet();
                EXPECT_TRUE(p.hspace && p.rr && p.hspace->opcode == codec::kOpPost && p.hspace->key == "s");
                c.reply(p.rr->corrid), c.objects(p.rr->corrid, codec::kOpPost, {{"s", "new"}});
            });
        conn_.close();
        EXPECT_EQ(Errc::connection_reset, get.wait()); // the peer closed the connection
        qh::Subscription s = sub.wait();
        EXPECT_EQ(reconnect, bool(s));
        if (reconnect) {
            EXPECT_EQ(std::vector<std::string>{"image:0:s=new,"}, seen.lines());
            ASSERT_TRUE(svc_.join());
            conn_ = svc_.take_connection();
        } else {
            EXPECT_EQ(Errc::connection_reset, subscribed);
        }
        s.reset();
        client_.reset();
    }
}

// Frozen: the service neither reads nor answers. Resetting a
// Subscription and destroying the Client return at once; no callback of
// them runs afterwards, though the reader goes on serving the others.
TEST_F(FaultTest, TeardownNeverWaitsOnAFrozenService)
{
    open(TestOptions(false));
    Seen a, b;
    qh::Subscription sa = subscribe("a", a), sb = subscribe("b", b, {{"b", "0"}});
    ::Bounded([&] { sa.reset(); return 0; });
    conn_.notify("a", HSPACE_TRIGGER_STORED, "after reset");
    conn_.notify("b", HSPACE_TRIGGER_STORED, "1");
    ASSERT_TRUE(b.wait_for("change:1:b=1"));
    expect(codec::kOpCancel, "a"); // sent by the worker, which now waits for its answer
    ::Bounded([&] { client_.reset(); return 0; });
    conn_.notify("b", HSPACE_TRIGGER_STORED, "after close");
    EXPECT_EQ(std::vector<std::string>{"image:0:"}, a.lines());
    EXPECT_EQ((std::vector<std::string>{"image:0:b=0,", "change:1:b=1"}), b.lines());
}

// A Client whose worker is inside a reconnection attempt that the service
// never answers, with no bound on it: calls fail fast, or wait for the
// link only until their deadline; the Client's destruction returns at once
// and the attempt finishes on its own once the service hangs up.
TEST_F(FaultTest, TeardownDuringAReconnectionAttempt)
{
    Seen states;
    qh::Options o = TestOptions(true, ms(1), &states);
    o.open_timeout = qh::no_deadline;
    qh::Client &c = open(o);
    Signal attempt, release;
    svc_.serve([&](FakeConnection &conn) {
        conn.expect_handshake();
        attempt.raise();
        release.wait();
    });
    conn_.close();
    ASSERT_TRUE(attempt.wait());
    ASSERT_TRUE(states.wait_for("state:2"));
    std::error_code ec;
    c.put("k", "v", ec);
    EXPECT_EQ(qh::error::not_connected, ec);
    c.put("k", "v", qh::Call{ms(20), true}, ec);
    EXPECT_EQ(qh::error::timeout, ec);
    qh::Subscription s = c.subscribe("k", nullptr, nullptr, {}, qh::Call{ms(20), true}, ec);
    EXPECT_TRUE(!s && ec == qh::error::timeout);
    ::Bounded([&] { client_.reset(); return 0; });
    release.raise();
    ASSERT_TRUE(svc_.join());
    svc_.take_connection().close();
    EXPECT_EQ((std::vector<std::string>{"state:1", "state:2"}), states.lines());
}

// The service ends a subscription (trigger 4 under its key, the cause as
// value): the subscription gets that change, nothing until it is posted
// again, then a resync image. The worker cancels what the handle keeps of
// the old post, then posts again with backoff while the service refuses.
// Without reconnection the end is final: the cancel goes out, nothing else.
TEST_F(FaultTest, SubscriptionEndedByTheServiceIsPostedAgain)
{
    for (bool reconnect : {true, false}) {
        SCOPED_TRACE(reconnect ? "reconnecting" : "not reconnecting");
        open(TestOptions(reconnect));
        Seen e, f;
        qh::Subscription se = subscribe("e/*", e, {{"e/1", "a"}}), sf = subscribe("f", f);
        conn_.batch();
        conn_.notify("e/1", HSPACE_TRIGGER_ENDED); // not a subscribed key: nobody's end
        conn_.notify("e/*", HSPACE_TRIGGER_ENDED, "store unavailable");
        conn_.notify("e/2", HSPACE_TRIGGER_STORED, "between"); // dropped: e/* is not posted now
        conn_.notify("f", HSPACE_TRIGGER_STORED, "1");
        conn_.flush();
        ASSERT_TRUE(f.wait_for("change:1:f=1"));
        conn_.reply(expect(codec::kOpCancel, "e/*"), KRO_ERR_NO_MATCH);
        std::vector<std::string> log = {"image:0:e/1=a,", "change:4:e/*=store unavailable"};
        if (reconnect) {
            conn_.reply(expect(codec::kOpPost, "e/*"), HSPACE_STATUS_STORE_UNAVAILABLE);
            uint32_t id = expect(codec::kOpPost, "e/*"); // no second cancel: nothing was left
            conn_.reply(id);
            conn_.objects(id, codec::kOpPost, {{"e/1", "b"}});
            log.push_back("image:1:e/1=b,");
        }
        conn_.notify("e/1", HSPACE_TRIGGER_STORED, "c");
        if (reconnect) log.push_back("change:1:e/1=c");
        // In step, and nothing else sent: the next request is this get.
        Async<qh::Objects> get([&] { return client_->get("sync"); });
        conn_.reply(expect(codec::kOpGet, "sync"), KRO_ERR_NO_MATCH);
        EXPECT_TRUE(get.wait().empty());
        EXPECT_EQ(log, e.lines());
        EXPECT_EQ((std::vector<std::string>{"image:0:", "change:1:f=1"}), f.lines());
        sf.reset(), se.reset();
        if (reconnect) conn_.reply(expect(codec::kOpCancel, "f")), conn_.reply(expect(codec::kOpCancel, "e/*"));
        else conn_.reply(expect(codec::kOpCancel, "f"));
        client_.reset();
    }
}

// Reset Subscriptions' cancels go out through the worker, one at a time;
// subscribing a key again sends its cancel first, taking it from the
// worker's queue, or waits for the one the worker is sending.
TEST_F(FaultTest, ACancelPrecedesThePostOfTheSameKey)
{
    open(TestOptions(false));
    Seen x, a, again;
    qh::Subscription sx = subscribe("x", x), sa = subscribe("a", a), kept[2];
    sx.reset();
    uint32_t cancel_x = expect(codec::kOpCancel, "x"); // the worker waits for its answer
    sa.reset();                                        // queued behind it
    {
        Async<qh::Subscription> call([&] { return client_->subscribe("A", again.images(), again.changes()); });
        conn_.reply(expect(codec::kOpCancel, "a")); // taken from the queue by subscribe
        uint32_t id = expect(codec::kOpPost, "A");
        conn_.reply(id);
        conn_.reply(id, KRO_ERR_NO_MATCH);
        EXPECT_TRUE(kept[0] = call.wait());
    }
    {
        Async<qh::Subscription> call([&] { return client_->subscribe("X", again.images(), again.changes()); });
        conn_.reply(cancel_x); // the one the worker sent: then the post
        uint32_t id = expect(codec::kOpPost, "X");
        conn_.reply(id);
        conn_.reply(id, KRO_ERR_NO_MATCH);
        EXPECT_TRUE(kept[1] = call.wait());
    }
    // Nothing else went out: the next request is this get.
    Async<qh::Objects> get([&] { return client_->get("sync"); });
    conn_.reply(expect(codec::kOpGet, "sync"), KRO_ERR_NO_MATCH);
    EXPECT_TRUE(get.wait().empty());
}

} // namespace
