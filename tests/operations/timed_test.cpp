// timed_test.cpp - the timed forms of the data operations: a deadline that
// passes while the call waits for its turn to send, while it writes, or
// while it waits for the answer; the late answer that then reaches no one;
// the start event of a subscription without image.
#include <memory>
#include <sstream>
#include <tuple>

#include "client_harness.h"

int SendQueueLength(t_qel_hspace hspace); // internals.cpp

namespace ops {
using namespace hspace::test;
namespace {

constexpr t_kro_uint4 kPasses = 50; // ms: a deadline each test lets pass
constexpr t_kro_int4 kNoImage = HSPACE_POST_FLAG_NO_IMAGE;
constexpr t_kro_int4 kStart = HSPACE_POST_FLAG_NO_IMAGE | HSPACE_POST_FLAG_START_EVENT;
const std::string kBig(16u << 20, 'x'); // more than the sockets buffer: its write blocks on a peer that does not read

using Timed = OpenClientTest;
// Over plain TCP and over TLS (the parameter).
struct TimedCalls : LibraryTest, ::testing::WithParamInterface<bool> {
    FakeTls tls = ServiceTls();
    FakeService svc{GetParam() ? &tls : nullptr}; // one connection per case
};
INSTANTIATE_TEST_SUITE_P(Transports, TimedCalls, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &p) { return p.param ? "tls" : "tcp"; });

struct TimedCall {
    const char *what;
    std::function<t_kro_error(t_kro_uint4 timeout_ms)> call;
};

// Every timed form on h; the synchronous get fills list, the puts send o.
std::vector<TimedCall> EveryTimedCall(t_qel_hspace h, t_qel_hspace_object o, t_kro_llist list)
{
    return {
        {"put", [=](t_kro_uint4 ms) { return qel_hspace_put_timed(h, o, HSPACE_PUT_SYNC, 0, ms); }},
        {"put, no reply", [=](t_kro_uint4 ms) { return qel_hspace_put_timed(h, o, HSPACE_PUT_NOREPLY, 0, ms); }},
        {"get", [=](t_kro_uint4 ms) { return qel_hspace_get_timed(h, "k", nullptr, HSPACE_GET_SYNC, 0, list, ms); }},
        {"get, asynchronous",
         [=](t_kro_uint4 ms) { return qel_hspace_get_timed(h, "k", nullptr, HSPACE_GET_ASYNC, 0, nullptr, ms); }},
        {"post", [=](t_kro_uint4 ms) { return qel_hspace_post_timed(h, "p", nullptr, HSPACE_POST_SYNC, 0, 0, ms); }},
        {"post, start event",
         [=](t_kro_uint4 ms) { return qel_hspace_post_timed(h, "q", nullptr, HSPACE_POST_SYNC, 0, kStart, ms); }},
        {"cancel", [=](t_kro_uint4 ms) { return qel_hspace_cancel_timed(h, "s", HSPACE_CANCEL_SYNC, 0, ms); }},
        {"remove", [=](t_kro_uint4 ms) { return qel_hspace_remove_timed(h, "k", HSPACE_REMOVE_SYNC, 0, ms); }},
        {"remove, no reply",
         [=](t_kro_uint4 ms) { return qel_hspace_remove_timed(h, "k", HSPACE_REMOVE_NOREPLY, 0, ms); }},
    };
}

// The events so far as one line: "get:0:key" (reply-image with object),
// "image:18" (without), "note:key", "fail:1009".
std::string Seen(Client &c)
{
    std::ostringstream s;
    for (const Event &e : c.events.events()) {
        if (e.type == HSPACE_EVENT_POST_NOTIFICATION) s << "note:" << e.object_key << " ";
        else if (e.type == HSPACE_EVENT_LINK_FAIL) s << "fail:" << e.status << " ";
        else s << (e.type == HSPACE_EVENT_GET_REPLY ? "get:" : "image:") << e.status << (e.has_object ? ":" + e.object_key : "") << " ";
    }
    return s.str();
}

// The request goes out and no answer comes in time: the call returns 1009
// and its record has left the table. The answer then comes late: it
// reaches no one (no event, nothing in the list, nothing leaked under ASan)
// except the notification, which no subscription filters; a timed-out
// cancel has ended the local subscription. An asynchronous get is bounded
// up to its write only: its late answer is its events.
TEST_P(TimedCalls, TheAnswerComesLateAndReachesNoOne)
{
    UserObject o("k", "v");
    const struct {
        const char *what;
        t_kro_int4 subscribe; // -1: no subscription of "s" first, else the post's flags
        std::function<t_kro_error(Client &, ObjectList &, t_kro_uint4)> call;
        Answer late;
        t_kro_error result;
        int records;          // in the table once the call returned
        const char *events;
    } cases[] = {
        {"put", -1, [&](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_put_timed(c.h, o.obj, HSPACE_PUT_SYNC, 0, ms); },
         ReplyWith(0), KRO_ERR_TIMEOUT, 0, ""},
        {"get", -1, [](Client &c, ObjectList &l, t_kro_uint4 ms) { return qel_hspace_get_timed(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, l, ms); },
         ObjectsWith(codec::kOpGet, {{"k", "late"}, {"k", "later"}}), KRO_ERR_TIMEOUT, 0, ""},
        {"post", -1, [](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_post_timed(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, 0, ms); },
         [](FakeConnection &conn, const Packet &p) {
             conn.reply(p.rr->corrid, 0);
             conn.objects(p.rr->corrid, codec::kOpPost, {{"s", "image"}});
             conn.notify("s", 1, "changed");
         }, KRO_ERR_TIMEOUT, 0, "note:s "},
        {"post with start event", -1,
         [](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_post_timed(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, kStart, ms); },
         ReplyWith(0), KRO_ERR_TIMEOUT, 0, ""},
        {"cancel of an image-less subscription", kNoImage,
         [](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_cancel_timed(c.h, "S", HSPACE_CANCEL_SYNC, 0, ms); },
         ReplyWith(0), KRO_ERR_TIMEOUT, 0, ""},
        {"cancel of a subscription waiting for its image", 0,
         [](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_cancel_timed(c.h, "s", HSPACE_CANCEL_SYNC, 0, ms); },
         ReplyWith(KRO_ERR_NO_MATCH), KRO_ERR_TIMEOUT, 0, ""},
        {"remove", -1, [](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_remove_timed(c.h, "k", HSPACE_REMOVE_SYNC, 0, ms); },
         ReplyWith(KRO_ERR_NO_MATCH), KRO_ERR_TIMEOUT, 0, ""},
        {"asynchronous get", -1,
         [](Client &c, ObjectList &, t_kro_uint4 ms) { return qel_hspace_get_timed(c.h, "k", nullptr, HSPACE_GET_ASYNC, 0, nullptr, ms); },
         ObjectsWith(codec::kOpGet, {{"k", "late"}}), 0, 1, "get:0:k "},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.what);
        Client c(svc);
        ASSERT_TRUE(c.open());
        ObjectList list;
        if (k.subscribe >= 0) {
            ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, k.subscribe); },
                                   ReplyWith(0)));
        }
        for (t_kro_uint4 ms = kPasses;; ms *= 4) {
            const t_kro_error result = Bounded([&] { return k.call(c, list, ms); });
            const int records = RequestCount(c.h);
            // A probe sent after the call: the service sees it first when
            // the deadline passed before the call's write (a slow machine):
            // the call was withdrawn unsent and is tried again with more time.
            Call probe([&] { return qel_hspace_remove(c.h, "probe", HSPACE_REMOVE_SYNC, 0); });
            Packet p = c.conn.next_packet();
            ASSERT_TRUE(p.rr && p.hspace);
            if (p.hspace->key == "probe") {
                EXPECT_EQ(KRO_ERR_TIMEOUT, result);
                c.conn.reply(p.rr->corrid, 0);
                EXPECT_EQ(0u, probe.result());
                ASSERT_LT(ms, 2000u) << "the call was never written before its deadline";
                continue;
            }
            EXPECT_EQ(k.result, result);
            EXPECT_EQ(k.records, records);
            k.late(c.conn, p);
            Packet q = c.conn.next_packet(); // answered after the late answer was processed
            ASSERT_TRUE(q.rr);
            c.conn.reply(q.rr->corrid, 0);
            EXPECT_EQ(0u, probe.result());
            break;
        }
        EXPECT_EQ(0, RequestCount(c.h));
        EXPECT_EQ(0, list->num_elements);
        EXPECT_EQ(k.events, Seen(c));
        EXPECT_EQ(HSPACE_STATE_OPEN, State(c.h));
        if (k.subscribe >= 0 || std::string(k.what).rfind("post", 0) == 0) { // the key is free again
            EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, kNoImage); },
                                   ReplyWith(0)));
        }
        watchdog_.Kick();
    }
}

// A put writing a value that the service does not read holds the turn to
// send: every timed call behind it returns 1009 once its deadline passes,
// withdrawn without a byte sent, the handle open and a cancel's
// subscription kept. When the service reads again the wire carries the
// put, then the next request made, nothing of the withdrawn calls.
TEST_F(Timed, TheTurnNeverComesAndTheCallIsWithdrawnUnsent)
{
    ObjectList list;
    UserObject o("k", "v"), big("big", kBig);
    ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, kNoImage); },
                           ReplyWith(0)));
    Call blocked([&] { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); });
    ASSERT_TRUE(c.conn.wait_readable());
    for (const TimedCall &k : EveryTimedCall(c.h, o.obj, list))
        EXPECT_EQ(KRO_ERR_TIMEOUT, Bounded([&] { return k.call(kPasses); })) << k.what;
    EXPECT_EQ(2, RequestCount(c.h)); // the subscription and the put
    EXPECT_EQ(HSPACE_STATE_OPEN, State(c.h));
    Packet p = c.conn.next_packet();
    ASSERT_TRUE(p.rr && p.hspace);
    EXPECT_EQ("big", p.hspace->key);
    c.conn.reply(p.rr->corrid, 0);
    EXPECT_EQ(0u, blocked.result());
    Packet next;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_remove_timed(c.h, "after", HSPACE_REMOVE_SYNC, 0, 10000); },
                           ReplyWith(0), &next));
    ExpectRequest(next, codec::kOpRemove, codec::kSemSync, "after", codec::kTypeRequest);
    EXPECT_EQ(0, list->num_elements);
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ("", Seen(c));
}

// Calls queued behind a write blocked on a service that does not read end
// with the close that cuts it, without writing: 18 each (an asynchronous
// get 0 when the close ended it first with its 18 event: its outcome).
TEST_F(Timed, CallsWaitingForTheTurnEndWithTheClose)
{
    UserObject o("k", "v"), big("big", kBig);
    ObjectList list;
    Call blocked([&] { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); });
    ASSERT_TRUE(c.conn.wait_readable());
    const std::unique_ptr<Call> queued[] = {
        std::make_unique<Call>([&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); }),
        std::make_unique<Call>([&] { return qel_hspace_get(c.h, "g", nullptr, HSPACE_GET_SYNC, 0, 0, list); }),
        std::make_unique<Call>([&] { return qel_hspace_remove(c.h, "k", HSPACE_REMOVE_NOREPLY, 0); }),
        std::make_unique<Call>([&] { return qel_hspace_get(c.h, "a", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); }),
    };
    while (SendQueueLength(c.h) < 4) std::this_thread::yield(); // bounded by the watchdogs of the calls
    ASSERT_EQ(0u, qel_hspace_close(c.h));
    EXPECT_EQ(KRO_ERR_CLOSED, blocked.result());
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(KRO_ERR_CLOSED, queued[i]->result()) << "call " << i;
    const t_kro_error async = queued[3]->result();
    EXPECT_EQ(async == 0 ? "get:18 " : "", Seen(c)) << async;
    EXPECT_TRUE(async == 0 || async == KRO_ERR_CLOSED) << async;
    EXPECT_EQ(0, SendQueueLength(c.h));
    EXPECT_EQ(0, RequestCount(c.h));
}

// Calls that queue behind a blocked write go out, once it is done, in the
// order they were made (the turn's holder writes them together), and each
// gets its own answer: those waiting for one are woken by it, the others
// once written.
TEST_F(Timed, CallsWaitingForTheTurnGoOutInTheirOrder)
{
    UserObject o("q0", "v"), big("big", kBig);
    ObjectList list;
    Call blocked([&] { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); });
    ASSERT_TRUE(c.conn.wait_readable());
    const std::function<t_kro_error()> calls[] = {
        [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); },
        [&] { return qel_hspace_get(c.h, "q1", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
        [&] { return qel_hspace_remove(c.h, "q2", HSPACE_REMOVE_NOREPLY, 0); },
        [&] { return qel_hspace_get(c.h, "q3", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); },
        [&] { return qel_hspace_remove_timed(c.h, "q4", HSPACE_REMOVE_SYNC, 0, 10000); },
    };
    std::vector<std::unique_ptr<Call>> queued;
    for (const auto &call : calls) {
        queued.push_back(std::make_unique<Call>(call));
        while (SendQueueLength(c.h) < static_cast<int>(queued.size())) std::this_thread::yield();
    }
    Packet p = c.conn.next_packet();
    ASSERT_TRUE(p.rr && p.hspace);
    c.conn.reply(p.rr->corrid, 0);
    for (int i = 0; i < 5; i++) {
        p = c.conn.next_packet();
        ASSERT_TRUE(p.hspace);
        EXPECT_EQ("q" + std::to_string(i), p.hspace->key);
        if (p.rr && p.hspace->opcode == codec::kOpGet) c.conn.objects(p.rr->corrid, codec::kOpGet, {{p.hspace->key, "v"}});
        else if (p.rr) c.conn.reply(p.rr->corrid, 0);
    }
    EXPECT_EQ(0u, blocked.result());
    for (auto &call : queued) EXPECT_EQ(0u, call->result());
    EXPECT_EQ((Pairs{{"q1", "v"}}), list.contents());
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ("get:0:q3 ", Seen(c));
    EXPECT_EQ(0, SendQueueLength(c.h));
    EXPECT_EQ(0, RequestCount(c.h));
}

// A deadline that cuts the write of a packet leaves the stream unusable:
// the call returns 1009 with the handle already failed; the get waiting for
// its answer returns 1009, the asynchronous get and the open image end with
// 1009 events, then the link failure with 1009; later calls are refused
// (13). The same cut by a close instead ends the put with 18.
TEST_P(TimedCalls, AWriteCutByItsDeadlineFailsTheHandle)
{
    UserObject big("big", kBig);
    for (bool close : {false, true}) {
        SCOPED_TRACE(close ? "cut by a close" : "cut by the deadline");
        Client c(svc);
        ASSERT_TRUE(c.open());
        ObjectList list;
        ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, 0); }, ReplyWith(0)));
        ASSERT_EQ(0u, Bounded([&] { return qel_hspace_get(c.h, "a", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); }));
        Call get([&] { return qel_hspace_get(c.h, "g", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
        c.conn.next_packet();
        c.conn.next_packet();
        const t_kro_error cause = close ? KRO_ERR_CLOSED : KRO_ERR_TIMEOUT;
        if (close) {
            Call put([&] { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); });
            ASSERT_TRUE(c.conn.wait_readable());
            ASSERT_EQ(0u, qel_hspace_close(c.h));
            EXPECT_EQ(cause, put.result());
        }
        // The put writes until its deadline; on a machine so slow that the
        // deadline passed before the first byte, it was withdrawn unsent
        // (the handle stays open) and is tried again with more time.
        for (t_kro_uint4 ms = 100; !close && State(c.h) == HSPACE_STATE_OPEN; ms *= 4) {
            ASSERT_LT(ms, 5000u) << "the put was never written before its deadline";
            EXPECT_EQ(cause, Bounded([&] { return qel_hspace_put_timed(c.h, big.obj, HSPACE_PUT_SYNC, 0, ms); }));
        }
        EXPECT_EQ(close ? HSPACE_STATE_CLOSED : HSPACE_STATE_FAILED, State(c.h));
        EXPECT_EQ(cause, get.result());
        ASSERT_TRUE(c.events.wait_count(close ? 2 : 3));
        const std::string ended = std::to_string(cause);
        EXPECT_EQ("image:" + ended + " get:" + ended + " " + (close ? "" : "fail:" + ended + " "), Seen(c));
        EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_remove_timed(c.h, "k", HSPACE_REMOVE_SYNC, 0, 1000));
        EXPECT_EQ(0, RequestCount(c.h));
        watchdog_.Kick();
    }
}

// With no image and the start flag, the post's success reply raises one
// image event (status 0, no object) where it lies in the stream: after the
// notifications before it, before those after it. The flag never reaches
// the wire; without "no image" it adds nothing, and a refused post raises
// nothing.
TEST_P(TimedCalls, TheStartEventMarksWhereTheSubscriptionBegins)
{
    auto urid = reinterpret_cast<t_kro_ptr>(0x5u);
    const struct {
        t_kro_int4 flags;
        t_kro_error status;
        bool image; // the service sends an image of one object
        const char *events;
    } cases[] = {
        {kStart, 0, false, "note:before image:0 note:after "},
        {kStart | HSPACE_POST_FLAG_KEY_ONLY, 0, false, "note:before image:0 note:after "},
        {HSPACE_POST_FLAG_START_EVENT, 0, true, "note:before image:0:s note:after "},
        {kStart, 77, false, "note:before note:after "},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.flags);
        Client c(svc);
        ASSERT_TRUE(c.open());
        Call post([&] { return qel_hspace_post_timed(c.h, "s", urid, HSPACE_POST_SYNC, 1, k.flags, 10000); });
        Packet p = c.conn.next_packet();
        ASSERT_TRUE(p.rr && p.hspace);
        EXPECT_EQ(k.flags & (codec::kFlagNoImage | codec::kFlagKeyOnly), p.hspace->flags);
        c.conn.batch();
        c.conn.notify("before", 1, "x");
        c.conn.reply(p.rr->corrid, k.status);
        if (k.image) c.conn.objects(p.rr->corrid, codec::kOpPost, {{"s", "v"}});
        c.conn.notify("after", 1, "y");
        ASSERT_TRUE(c.conn.flush());
        EXPECT_EQ(k.status, post.result());
        ASSERT_TRUE(c.events.wait_count(k.status == 0 ? 3 : 2));
        EXPECT_EQ(k.events, Seen(c));
        for (const Event &e : c.events.events()) {
            if (e.type != HSPACE_EVENT_POST_IMAGE) continue;
            EXPECT_EQ(std::make_tuple(urid, std::string("s"), k.image ? 1u : 0u, k.image ? 1u : 0u),
                      std::tie(e.urid, e.key, e.cardinality, e.index));
        }
        EXPECT_EQ(k.status == 0 ? 1 : 0, RequestCount(c.h));
        watchdog_.Kick();
    }
}

// The timed forms check as the untimed ones do: 12 for a null handle, a
// synchronous get without a list, 14 for a pipelined put, 13 on a handle
// not open, 23 from the callback; nothing is sent.
TEST_F(Timed, TheTimedFormsCheckAsTheUntimedOnes)
{
    UserObject o("k", "v");
    ObjectList list;
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_get_timed(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, nullptr, 1));
    EXPECT_EQ(KRO_ERR_NOT_SUPPORTED, qel_hspace_put_timed(c.h, o.obj, HSPACE_PUT_PIPELINED, 0, 1));
    for (const TimedCall &k : EveryTimedCall(nullptr, o.obj, list)) EXPECT_EQ(KRO_ERR_INVALID_ARG, k.call(1)) << k.what;
    std::vector<t_kro_error> from_callback;
    c.events.set_hook([&](t_qel_hspace h, const Event &) {
        for (const TimedCall &k : EveryTimedCall(h, o.obj, list)) from_callback.push_back(k.call(1));
    });
    c.conn.notify("k", 1, "changed");
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ(std::vector<t_kro_error>(9, KRO_ERR_WOULD_DEADLOCK), from_callback);
    Client unopened(svc);
    for (const TimedCall &k : EveryTimedCall(unopened.h, o.obj, list)) EXPECT_EQ(KRO_ERR_INVALID_STATE, k.call(1)) << k.what;
    EXPECT_EQ(0, list->num_elements);
    EXPECT_TRUE(Barrier(c));
}

} // namespace
} // namespace ops
