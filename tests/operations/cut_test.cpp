/*
 * cut_test.cpp - calls cut short: a synchronous call of every kind blocked
 * on its answer while the application closes the handle (18) or the
 * service drops the connection (the link's error), with an asynchronous get
 * and subscriptions outstanding beside them.
 */
#include <memory>

#include <gtest/gtest.h>

#include "harness.h"

namespace ops {
namespace {

// drop: the service closes the connection; otherwise another thread closes
// the handle. Either way every blocked caller returns the same status, the
// objects a get received before the cut stay in its list (the caller's), the
// asynchronous get and the subscription with an open image get one event
// with that status, and the complete subscription ends silently.
void CutShort(bool drop)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    t_kro_ptr async_urid = reinterpret_cast<t_kro_ptr>(0xa);
    t_kro_ptr image_urid = reinterpret_cast<t_kro_ptr>(0xb);
    ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "open-image", image_urid, HSPACE_POST_SYNC, 0, 0); },
                           ReplyWith(0)));
    ASSERT_EQ(0u, Exchange(c, [&] {
        return qel_hspace_post(c.h, "complete", nullptr, HSPACE_POST_SYNC, 0, HSPACE_POST_FLAG_NO_IMAGE);
    }, ReplyWith(0)));
    ASSERT_EQ(0u,
              Bounded(c.h, [&] { return qel_hspace_get(c.h, "async", async_urid, HSPACE_GET_ASYNC, 0, 0, nullptr); }));
    c.conn.next_packet();

    UserObject o("put", "v");
    t_kro_llist list = nullptr;
    kro_llist_create(&list);
    const t_kro_error expected = drop ? KRO_ERR_PEER_CLOSED : KRO_ERR_CLOSED;
    {
        const char *kinds[] = {"put", "get", "post", "cancel", "remove"};
        std::vector<std::unique_ptr<Call>> calls;
        calls.push_back(std::make_unique<Call>(c.h, [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); }));
        calls.push_back(std::make_unique<Call>(
            c.h, [&] { return qel_hspace_get(c.h, "get", nullptr, HSPACE_GET_SYNC, 0, 0, list); }));
        calls.push_back(std::make_unique<Call>(
            c.h, [&] { return qel_hspace_post(c.h, "post", nullptr, HSPACE_POST_SYNC, 0, 0); }));
        calls.push_back(
            std::make_unique<Call>(c.h, [&] { return qel_hspace_cancel(c.h, "cancel", HSPACE_CANCEL_SYNC, 0); }));
        calls.push_back(
            std::make_unique<Call>(c.h, [&] { return qel_hspace_remove(c.h, "remove", HSPACE_REMOVE_SYNC, 0); }));

        // Every call has written its request, so each is waiting or about to.
        uint32_t get_corrid = 0;
        for (size_t i = 0; i < calls.size(); i++) {
            Packet p = c.conn.next_packet();
            if (p.hspace && p.rr && p.hspace->opcode == codec::kOpGet) get_corrid = p.rr->corrid;
        }
        ASSERT_NE(0u, get_corrid);
        c.conn.object(get_corrid, codec::kOpGet, "g1", "v1", 3, 1);
        c.conn.object(get_corrid, codec::kOpGet, "g2", "v2", 3, 2);
        if (drop) {
            c.conn.close(); // the objects are in the stream before the end
        } else {
            c.conn.notify("marker", 1); // processed after the objects
            ASSERT_TRUE(c.events.wait_count(1));
            ASSERT_EQ(0u, qel_hspace_close(c.h));
        }
        for (size_t i = 0; i < calls.size(); i++) EXPECT_EQ(expected, calls[i]->result()) << kinds[i];
    }

    ASSERT_TRUE(c.events.wait_count(3)); // after a drop the link failure comes last
    t_qel_hspace_state state;
    EXPECT_EQ(0u, qel_hspace_get_state(c.h, &state));
    EXPECT_EQ(drop ? HSPACE_STATE_FAILED : HSPACE_STATE_CLOSED, state);
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ((Pairs{{"g1", "v1"}, {"g2", "v2"}}), Contents(list));
    DestroyList(&list); // the caller's objects: ASan reports them if they leak

    std::vector<Event> ev = c.events.events();
    ASSERT_EQ(3u, ev.size());
    int get_replies = 0, images = 0, others = 0;
    for (const Event &e : ev) {
        if (e.type == HSPACE_EVENT_GET_REPLY) {
            get_replies++;
            EXPECT_EQ(async_urid, e.urid);
            EXPECT_EQ("async", e.key);
            EXPECT_EQ(expected, e.status);
            EXPECT_FALSE(e.has_object);
        } else if (e.type == HSPACE_EVENT_POST_IMAGE) {
            images++;
            EXPECT_EQ(image_urid, e.urid);
            EXPECT_EQ("open-image", e.key);
            EXPECT_EQ(expected, e.status);
            EXPECT_FALSE(e.has_object);
        } else {
            others++;
            EXPECT_EQ(drop ? HSPACE_EVENT_LINK_FAIL : HSPACE_EVENT_POST_NOTIFICATION, e.type);
            EXPECT_EQ(drop ? KRO_ERR_PEER_CLOSED : 0u, e.status);
        }
    }
    EXPECT_EQ(1, get_replies);
    EXPECT_EQ(1, images);
    EXPECT_EQ(1, others);
    EXPECT_EQ(drop ? HSPACE_EVENT_LINK_FAIL : HSPACE_EVENT_POST_NOTIFICATION, drop ? ev.back().type : ev.front().type)
        << "the link failure comes last, the marker first";
}

TEST(CutShort, ACloseReturns18ToEveryBlockedCall) { CutShort(false); }

TEST(CutShort, ADroppedConnectionReturnsTheLinkErrorToEveryBlockedCall) { CutShort(true); }

} // namespace
} // namespace ops
