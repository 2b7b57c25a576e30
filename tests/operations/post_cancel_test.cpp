// post_cancel_test.cpp - the post and cancel requests on the wire, and the
// subscription record a post leaves until a cancel or a failure ends it.
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

constexpr t_kro_int4 kNoImage = HSPACE_POST_FLAG_NO_IMAGE;

class PostCancel : public OpenClientTest {
protected:
    t_kro_error Post(const char *key, t_kro_int4 flags, t_kro_error status, Packet *sent = nullptr,
                     t_kro_byte triggers = 0, t_kro_ptr urid = nullptr)
    {
        return Exchange(c, [&] { return qel_hspace_post(c.h, key, urid, HSPACE_POST_SYNC, triggers, flags); },
                        ReplyWith(status), sent);
    }
    t_kro_error Refused(const char *key, t_kro_int4 flags = 0)
    {
        return Bounded([&] { return qel_hspace_post(c.h, key, nullptr, HSPACE_POST_SYNC, 0, flags); });
    }
};

// A successful post stays as the subscription for its key in any letter
// case: a second post is refused with 20 and sends nothing (the next packet
// is the cancel), a remove of the key leaves it, and a cancel in another case
// ends it even when the service refuses the cancel. A failed post (2
// included) returns its status and leaves no record; a cancel of a key
// without a subscription is sent and returns the service's status.
TEST_F(PostCancel, ASubscriptionLastsFromASuccessfulPostToItsCancel)
{
    Packet sent;
    for (t_kro_error status : {77u, KRO_ERR_NO_MATCH}) EXPECT_EQ(status, Post("Sub", 0, status));
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(0u, Post("Sub", 0xFF, 0, &sent, 0x0F));
    EXPECT_EQ(2, sent.numsh);
    ASSERT_TRUE(sent.hspace && sent.rr);
    EXPECT_EQ(codec::kOpPost, sent.hspace->opcode);
    EXPECT_EQ("Sub", sent.hspace->key);
    EXPECT_EQ(0x0F, sent.hspace->triggers);
    EXPECT_EQ(codec::kFlagNoImage | codec::kFlagKeyOnly, sent.hspace->flags) << "only bits 2 and 4 go out";
    EXPECT_EQ(KRO_ERR_EXISTS, Refused("SUB"));
    EXPECT_EQ(KRO_ERR_EXISTS, Refused("sub", kNoImage));
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_remove(c.h, "SUB", HSPACE_REMOVE_SYNC, 0); }, ReplyWith(0)));
    EXPECT_EQ(0u, Bounded([&] { return qel_hspace_remove(c.h, "sub", HSPACE_REMOVE_NOREPLY, 0); }));
    c.conn.next_packet();
    EXPECT_EQ(1, RequestCount(c.h));

    auto cancel = [&](const char *key, t_kro_error status) {
        return Exchange(c, [&] { return qel_hspace_cancel(c.h, key, HSPACE_CANCEL_SYNC, -1); }, ReplyWith(status),
                        &sent);
    };
    EXPECT_EQ(77u, cancel("sUb", 77));
    ASSERT_TRUE(sent.rr);
    ExpectRequest(sent, codec::kOpCancel, codec::kSemSync, "sUb", codec::kTypeRequest);
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(0u, Post("SUB", kNoImage, 0));
    EXPECT_EQ(KRO_ERR_NO_MATCH, cancel("never-posted", KRO_ERR_NO_MATCH));
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ(0u, c.events.count());
}

// An image answered with a failure status is one event with that status and
// no object, and ends the subscription (other images: connection/reader_test).
TEST_F(PostCancel, AFailedImageEndsTheSubscription)
{
    Packet sent;
    ASSERT_EQ(0u, Post("failing", 0, 0, &sent, 0, reinterpret_cast<t_kro_ptr>(0xabc)));
    ASSERT_TRUE(sent.rr);
    c.conn.reply(sent.rr->corrid, 77);
    ASSERT_TRUE(c.events.wait_count(1));
    Event e = c.events.events()[0];
    EXPECT_EQ(HSPACE_EVENT_POST_IMAGE, e.type);
    EXPECT_EQ(reinterpret_cast<t_kro_ptr>(0xabc), e.urid);
    EXPECT_EQ("failing", e.key);
    EXPECT_EQ(77u, e.status);
    EXPECT_FALSE(e.has_object);
    ASSERT_TRUE(Barrier(c));
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(0u, Post("failing", kNoImage, 0));
}

} // namespace
} // namespace ops
