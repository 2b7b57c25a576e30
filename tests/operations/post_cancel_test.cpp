/*
 * post_cancel_test.cpp - subscriptions against the fake service: the post
 * and cancel requests on the wire, the subscription record a post leaves
 * and what ends it (cancel, failure), and status-only images. Image events
 * are in connection/reader_test.cpp, endings by close in cut_test.cpp.
 */
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

constexpr t_kro_int4 kNoImage = HSPACE_POST_FLAG_NO_IMAGE;

using PostCancel = OpenClientTest;

// Posts key, answered with status; returns the post's result and stores the
// request in *sent.
t_kro_error Post(Client &c, const char *key, t_kro_ptr urid, t_kro_int4 flags, t_kro_error status,
                 Packet *sent = nullptr, t_kro_byte triggers = 0)
{
    return Exchange(c, [&] { return qel_hspace_post(c.h, key, urid, HSPACE_POST_SYNC, triggers, flags); },
                    ReplyWith(status), sent);
}

// Posts key where the post must be refused without sending anything.
t_kro_error Refused(Client &c, const char *key, t_kro_int4 flags = 0)
{
    return Bounded([&] { return qel_hspace_post(c.h, key, nullptr, HSPACE_POST_SYNC, 0, flags); });
}

t_kro_error Cancel(Client &c, const char *key, t_kro_error status, Packet *sent = nullptr, t_kro_int4 flags = 0)
{
    return Exchange(c, [&] { return qel_hspace_cancel(c.h, key, HSPACE_CANCEL_SYNC, flags); }, ReplyWith(status),
                    sent);
}

// A successful post stays as the subscription for its key in any letter
// case: a second post is refused with 20 and sends nothing (the next packet
// is the cancel), and the cancel, whose key differs in case too, ends it even
// when the service refuses it. A cancel of a key without a subscription is
// sent and returns the service's status. (A cancel answered with success is
// in the connection races test.)
TEST_F(PostCancel, ASubscriptionRefusesASecondPostUntilCancelled)
{
    Packet sent;
    EXPECT_EQ(0u, Post(c, "Sub", nullptr, 0xFF, 0, &sent, 0x0F));
    EXPECT_EQ(2, sent.numsh);
    ASSERT_TRUE(sent.hspace && sent.rr);
    EXPECT_EQ(codec::kOpPost, sent.hspace->opcode);
    EXPECT_EQ(codec::kSemSync, sent.hspace->semantic);
    EXPECT_EQ(0x0F, sent.hspace->triggers);
    EXPECT_EQ(codec::kFlagNoImage | codec::kFlagKeyOnly, sent.hspace->flags) << "only bits 2 and 4 go out";
    EXPECT_EQ("Sub", sent.hspace->key);
    EXPECT_TRUE(sent.rr->is_request());
    EXPECT_EQ(codec::kTypeRequest, sent.body_type);
    EXPECT_EQ(1, RequestCount(c.h));

    EXPECT_EQ(KRO_ERR_EXISTS, Refused(c, "SUB"));
    EXPECT_EQ(KRO_ERR_EXISTS, Refused(c, "sub", kNoImage));
    EXPECT_EQ(1, RequestCount(c.h));

    EXPECT_EQ(77u, Cancel(c, "sUb", 77, &sent, -1));
    ASSERT_TRUE(sent.rr);
    ExpectRequest(sent, codec::kOpCancel, codec::kSemSync, "sUb", codec::kTypeRequest);
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(0u, Post(c, "SUB", nullptr, kNoImage, 0));
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ(KRO_ERR_NO_MATCH, Cancel(c, "never-posted", KRO_ERR_NO_MATCH, &sent));
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ(0u, c.events.count());
}

// A post answered with a failure status returns it unchanged (2 included)
// and leaves no record: the next post of the key is accepted. A remove of
// the subscribed key, in either form, leaves that subscription in place.
TEST_F(PostCancel, AFailedPostLeavesNothingAndARemoveLeavesTheSubscription)
{
    for (t_kro_error status : {77u, KRO_ERR_NO_MATCH}) {
        EXPECT_EQ(status, Post(c, "k", nullptr, 0, status));
        EXPECT_EQ(0, RequestCount(c.h));
    }
    EXPECT_EQ(0u, Post(c, "k", nullptr, kNoImage, 0));
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_remove(c.h, "K", HSPACE_REMOVE_SYNC, 0); }, ReplyWith(0)));
    EXPECT_EQ(0u, Bounded([&] { return qel_hspace_remove(c.h, "k", HSPACE_REMOVE_NOREPLY, 0); }));
    c.conn.next_packet();
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ(KRO_ERR_EXISTS, Refused(c, "k"));
    EXPECT_EQ(0u, c.events.count());
}

// An image answered with 2 is one event with status 0 and no object; the
// subscription stays and receives notifications, and being complete it ends
// silently at close. An image answered with another status is one event
// with that status, and ends the subscription.
TEST_F(PostCancel, StatusOnlyImages)
{
    t_kro_ptr urid = reinterpret_cast<t_kro_ptr>(0xabc);
    Packet sent;
    ASSERT_EQ(0u, Post(c, "empty", urid, 0, 0, &sent));
    ASSERT_TRUE(sent.rr);
    c.conn.reply(sent.rr->corrid, KRO_ERR_NO_MATCH);
    c.conn.notify("empty", 2, "now");
    ASSERT_TRUE(c.events.wait_count(2));
    std::vector<Event> ev = c.events.events();
    EXPECT_EQ(HSPACE_EVENT_POST_IMAGE, ev[0].type);
    EXPECT_EQ(0u, ev[0].status);
    EXPECT_FALSE(ev[0].has_object);
    EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, ev[1].type);
    EXPECT_EQ("now", ev[1].object_value);
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ(KRO_ERR_EXISTS, Refused(c, "EMPTY"));

    ASSERT_EQ(0u, Post(c, "failing", urid, 0, 0, &sent));
    ASSERT_TRUE(sent.rr);
    c.conn.reply(sent.rr->corrid, 77);
    ASSERT_TRUE(c.events.wait_count(3));
    Event e = c.events.events()[2];
    EXPECT_EQ(HSPACE_EVENT_POST_IMAGE, e.type);
    EXPECT_EQ("failing", e.key);
    EXPECT_EQ(77u, e.status);
    EXPECT_FALSE(e.has_object);
    ASSERT_TRUE(Barrier(c));
    EXPECT_EQ(1, RequestCount(c.h)) << "only the complete subscription is left";
    EXPECT_EQ(0u, Post(c, "failing", urid, kNoImage, 0));

    ASSERT_EQ(0u, qel_hspace_close(c.h));
    EXPECT_EQ(3u, c.events.count()) << "complete subscriptions end silently";
}

} // namespace
} // namespace ops
