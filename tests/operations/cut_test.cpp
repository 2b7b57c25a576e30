/*
 * cut_test.cpp - calls cut short: a synchronous call of every kind blocked
 * on its answer while the application closes the handle (18) or the
 * service drops the connection (the link's error), with an asynchronous get
 * and subscriptions outstanding beside them.
 */
#include <memory>

#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

// drop: the service closes the connection; otherwise another thread closes
// the handle. Either way every blocked caller returns the same status, the
// objects a get received before the cut stay in its list (the caller's), the
// asynchronous get and the subscription with an open image get one event
// with that status, and the complete subscription ends silently. A close
// raises no link failure; destroy is refused (13) on the open and the failed
// handle.
class CutShort : public OpenClientTest {
protected:
    void Run(bool drop);
};

void CutShort::Run(bool drop)
{
    t_kro_ptr async_urid = reinterpret_cast<t_kro_ptr>(0xa);
    t_kro_ptr image_urid = reinterpret_cast<t_kro_ptr>(0xb);
    ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "open-image", image_urid, HSPACE_POST_SYNC, 0, 0); },
                           ReplyWith(0)));
    ASSERT_EQ(0u, Exchange(c, [&] {
        return qel_hspace_post(c.h, "complete", nullptr, HSPACE_POST_SYNC, 0, HSPACE_POST_FLAG_NO_IMAGE);
    }, ReplyWith(0)));
    ASSERT_EQ(0u,
              Bounded([&] { return qel_hspace_get(c.h, "async", async_urid, HSPACE_GET_ASYNC, 0, 0, nullptr); }));
    c.conn.next_packet();

    UserObject o("put", "v");
    ObjectList list;
    const t_kro_error expected = drop ? KRO_ERR_PEER_CLOSED : KRO_ERR_CLOSED;
    {
        const char *kinds[] = {"put", "get", "post", "cancel", "remove"};
        std::vector<std::function<t_kro_error()>> fns = {
            [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); },
            [&] { return qel_hspace_get(c.h, "get", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
            [&] { return qel_hspace_post(c.h, "post", nullptr, HSPACE_POST_SYNC, 0, 0); },
            [&] { return qel_hspace_cancel(c.h, "cancel", HSPACE_CANCEL_SYNC, 0); },
            [&] { return qel_hspace_remove(c.h, "remove", HSPACE_REMOVE_SYNC, 0); },
        };
        std::vector<std::unique_ptr<Call>> calls;
        for (auto &fn : fns) calls.push_back(std::make_unique<Call>(fn));

        // Every call has written its request, so each is waiting or about to.
        uint32_t get_corrid = 0;
        for (size_t i = 0; i < calls.size(); i++) {
            Packet p = c.conn.next_packet();
            if (p.hspace && p.rr && p.hspace->opcode == codec::kOpGet) get_corrid = p.rr->corrid;
        }
        ASSERT_NE(0u, get_corrid);
        t_qel_hspace same = c.h;
        EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_destroy(&same)) << "destroy of an open handle";
        EXPECT_EQ(c.h, same);
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
    EXPECT_EQ(drop ? HSPACE_STATE_FAILED : HSPACE_STATE_CLOSED, State(c.h));
    if (drop) {
        t_qel_hspace same = c.h;
        EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_destroy(&same)) << "destroy of a failed handle";
        EXPECT_EQ(c.h, same);
    } else {
        EXPECT_TRUE(c.conn.wait_closed());
        EXPECT_EQ(0u, qel_hspace_close(c.h)) << "a second close does nothing";
    }
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ((Pairs{{"g1", "v1"}, {"g2", "v2"}}), Contents(list)); // the caller's: ASan sees a leak

    std::vector<Event> ev = c.events.events();
    ASSERT_EQ(3u, ev.size());
    // The marker came first; the link failure comes last, in the failed state.
    if (drop) {
        EXPECT_EQ(HSPACE_EVENT_LINK_FAIL, ev[2].type);
        EXPECT_EQ(KRO_ERR_PEER_CLOSED, ev[2].status);
        EXPECT_EQ(HSPACE_STATE_FAILED, ev[2].state);
        ev.pop_back();
    } else {
        EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, ev[0].type);
        ev.erase(ev.begin());
    }
    // Then the ended requests in table order, each in the ending's state.
    const struct {
        t_qel_hspace_event type; // the event
        t_kro_ptr urid;          // the request's urid
        const char *key;         // the request's key
    } want[] = {{HSPACE_EVENT_POST_IMAGE, image_urid, "open-image"}, {HSPACE_EVENT_GET_REPLY, async_urid, "async"}};
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(want[i].type, ev[i].type);
        EXPECT_EQ(want[i].urid, ev[i].urid);
        EXPECT_EQ(want[i].key, ev[i].key);
        EXPECT_EQ(expected, ev[i].status);
        EXPECT_FALSE(ev[i].has_object);
        EXPECT_EQ(drop ? HSPACE_STATE_FAILED : HSPACE_STATE_CLOSED, ev[i].state);
    }
}

TEST_F(CutShort, ACloseReturns18ToEveryBlockedCall) { Run(false); }

TEST_F(CutShort, ADroppedConnectionReturnsTheLinkErrorToEveryBlockedCall) { Run(true); }

} // namespace
} // namespace ops
