/*
 * races_test.cpp - a subscription ended while its post caller has been
 * woken but has not resumed, white-box: the post's reply raced against a
 * cancel's completion and against the end of the connection, round after
 * round (run it under ThreadSanitizer and AddressSanitizer), and a cancel
 * answered before the post it overtook.
 */
#include "qel_hspace.cpp"

#include "client_harness.h"

namespace {

using namespace hspace::test;

using Races = LibraryTest;
struct Race : OpenClientTest {
    Watchdog watchdog_;
};

constexpr int kCancelRounds = 300;     // post/cancel races on one connection
constexpr int kConnectionRounds = 120; // post reply against the connection's end

TEST_F(Race, PostReplyAgainstACancelCompletingInTheSameWrite)
{
    for (int i = 0; i < kCancelRounds; i++) {
        SCOPED_TRACE(i);
        watchdog_.Kick();
        bool cancel_first = i % 3 == 2;                 // the cancel overtakes the post
        t_kro_error post_status = i % 5 == 4 ? 0x6100 : 0; // the service refuses the post
        t_kro_int4 flags = i % 2 == 0 ? HSPACE_POST_FLAG_NO_IMAGE : 0;
        Call post([&] { return qel_hspace_post(c.h, "Race", nullptr, HSPACE_POST_SYNC, 1, flags); });
        Packet p = c.conn.next_packet();
        Call cancel([&] { return qel_hspace_cancel(c.h, "rACE", HSPACE_CANCEL_SYNC, 0); });
        Packet q = c.conn.next_packet();
        ASSERT_TRUE(p.rr && q.rr);
        c.conn.batch();
        if (cancel_first) c.conn.reply(q.rr->corrid, 0);
        c.conn.reply(p.rr->corrid, post_status);
        if (!cancel_first) c.conn.reply(q.rr->corrid, 0);
        ASSERT_TRUE(c.conn.flush());
        EXPECT_EQ(post_status, post.result());
        EXPECT_EQ(0u, cancel.result());
        ASSERT_EQ(0, RequestCount(c.h));
    }
    EXPECT_EQ(0u, qel_hspace_close(c.h));
    EXPECT_TRUE(c.events.events().empty());
}

TEST_F(Races, PostReplyAgainstTheEndOfTheConnection)
{
    FakeService svc;
    for (int i = 0; i < kConnectionRounds; i++) {
        SCOPED_TRACE(i);
        watchdog_.Kick();
        bool no_image = i % 2 == 0;
        bool service_hangs_up = i % 4 < 2; // else the application closes
        Client c(svc);
        ASSERT_TRUE(c.open());
        int urid = 0, flags = no_image ? HSPACE_POST_FLAG_NO_IMAGE : 0;
        Call post([&] { return qel_hspace_post(c.h, "k", &urid, HSPACE_POST_SYNC, 1, flags); });
        Packet p = c.conn.next_packet();
        ASSERT_TRUE(p.rr.has_value());
        c.conn.reply(p.rr->corrid, 0);
        // The reply precedes the end of stream: the post succeeded, and its
        // open image (if any) ends with the link's error, then the link
        // failure. A close right after the reply: the post got its reply
        // (and an open image then ends with 18) or ends with 18.
        if (service_hangs_up) c.conn.close();
        else EXPECT_EQ(0u, qel_hspace_close(c.h));
        t_kro_error status = post.result();
        EXPECT_TRUE(status == 0 || (!service_hangs_up && status == KRO_ERR_CLOSED)) << status;
        size_t images = status == 0 && !no_image ? 1 : 0, n = images + (service_hangs_up ? 1 : 0);
        ASSERT_TRUE(c.events.wait_count(n));
        EXPECT_EQ(0u, qel_hspace_close(c.h)); // joins the reader: no event follows
        std::vector<Event> ev = c.events.events();
        ASSERT_EQ(n, ev.size());
        if (images > 0) {
            EXPECT_EQ(&urid, ev[0].urid);
            EXPECT_EQ(service_hangs_up ? KRO_ERR_PEER_CLOSED : KRO_ERR_CLOSED, ev[0].status);
        }
        if (service_hangs_up) {
            EXPECT_EQ(HSPACE_EVENT_LINK_FAIL, ev.back().type);
            EXPECT_EQ(KRO_ERR_PEER_CLOSED, ev.back().status);
        }
    }
}

TEST_F(Race, CancelAnsweredBeforeThePostItOvertookEndsThatPostWhenItsReplyArrives)
{
    int urid = 0;
    Call post([&] { return qel_hspace_post(c.h, "Sub", &urid, HSPACE_POST_SYNC, 1, 0); });
    Packet p = c.conn.next_packet();
    Call cancel([&] { return qel_hspace_cancel(c.h, "sUB", HSPACE_CANCEL_SYNC, 0); });
    Packet q = c.conn.next_packet();
    ASSERT_TRUE(p.rr && q.rr);
    c.conn.reply(q.rr->corrid, 0);
    EXPECT_EQ(0u, cancel.result());
    qel_hspace_lock(c.h);
    t_qel_hspace_request record = qel_hspace_request_get_post(c.h, "SUB");
    EXPECT_TRUE(record != nullptr && record->cancelled && !record->sync_ctx->complete);
    qel_hspace_unlock(c.h);

    // The post's own reply, then image objects for it: the post returns the
    // reply's status, the subscription is gone and its objects are dropped.
    c.conn.reply(p.rr->corrid, 0);
    EXPECT_EQ(0u, post.result());
    EXPECT_EQ(0, RequestCount(c.h));
    c.conn.objects(p.rr->corrid, codec::kOpPost, {{"Sub/a", "dropped"}});

    // A new post of the key is accepted and delivers its image.
    int urid2 = 0;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "SUB", &urid2, HSPACE_POST_SYNC, 1, 0); },
                           [](FakeConnection &fc, const Packet &p) {
                               fc.reply(p.rr->corrid, 0);
                               fc.objects(p.rr->corrid, codec::kOpPost, {{"Sub/b", "kept"}});
                           }));
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ(1, RequestCount(c.h));

    // Overtaken and then refused: the post returns the refusal.
    Call refused([&] { return qel_hspace_post(c.h, "other", nullptr, HSPACE_POST_SYNC, 1, 0); });
    Packet p3 = c.conn.next_packet();
    Call cancel3([&] { return qel_hspace_cancel(c.h, "OTHER", HSPACE_CANCEL_SYNC, 0); });
    Packet q3 = c.conn.next_packet();
    ASSERT_TRUE(p3.rr && q3.rr);
    c.conn.reply(q3.rr->corrid, 0x6300);
    EXPECT_EQ(0x6300u, cancel3.result());
    c.conn.reply(p3.rr->corrid, 0x6200);
    EXPECT_EQ(0x6200u, refused.result());
    EXPECT_EQ(1, RequestCount(c.h));

    EXPECT_EQ(0u, qel_hspace_close(c.h));
    std::vector<Event> ev = c.events.events();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(&urid2, ev[0].urid);
    EXPECT_EQ("SUB", ev[0].key);
    EXPECT_EQ("Sub/b", ev[0].object_key);
}

} // namespace

int hspace::test::RequestCount(t_qel_hspace h)
{
    qel_hspace_lock(h);
    int n = h->reqtable->num_elements;
    qel_hspace_unlock(h);
    return n;
}
