// requests_test.cpp - the request each operation sends, correlation ids, and
// the subscription record a post leaves until a cancel or a failure ends it.
#include <tuple>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

constexpr t_kro_int4 kNoImage = HSPACE_POST_FLAG_NO_IMAGE;

class Requests : public OpenClientTest {
protected:
    t_kro_error Post(const char *key, t_kro_int4 flags, t_kro_error status, Packet *sent = nullptr,
                     t_kro_ptr urid = nullptr)
    {
        return Exchange(c, [&] { return qel_hspace_post(c.h, key, urid, HSPACE_POST_SYNC, 0, flags); },
                        ReplyWith(status), sent);
    }
    t_kro_error Refused(const char *key, t_kro_int4 flags = 0)
    {
        return Bounded([&] { return qel_hspace_post(c.h, key, nullptr, HSPACE_POST_SYNC, 0, flags); });
    }
};

// Correlation ids start at 1 on a new handle, rise by one per request that
// expects an answer across operations and wrap from 0x40000000 to 1. A put
// sends the value window [pos, lim) of its object's buffer; only the flag
// bits 1 and 4 of a get and 2 and 4 of a post reach the wire, a post's
// triggers do; a get that finds nothing returns 0. The no-reply forms draw no id: one packet without an rr subheader to
// the service's ltp (5), the longest key whole, and the table left alone.
TEST_F(Requests, CorrelationIdsAndNoReplyForms)
{
    UserObject o("alpha", "xyz"), window("win", "0123456789ABCDEF"), longest(std::string(65535, 'x'), "v");
    window.buf->pos = 3;
    window.buf->lim = 10;
    ObjectList list;
    const struct {
        std::function<t_kro_error()> call;
        t_kro_error status; // the service's answer; every call returns 0
        int opcode, flags;
        std::string key;
        int body_type;
        std::string body;
    } calls[] = {
        {[&] { return qel_hspace_put(c.h, window.obj, HSPACE_PUT_SYNC, -1); }, 0, codec::kOpPut, 0, "win",
         codec::kTypeObject, "3456789"},
        {[&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, -1, list); }, KRO_ERR_NO_MATCH,
         codec::kOpGet, 0x5, "k", codec::kTypeRequest, ""},
        {[&] { return qel_hspace_post(c.h, "k", nullptr, HSPACE_POST_SYNC, 0x0F, 0xFF); }, 0, codec::kOpPost,
         codec::kFlagNoImage | codec::kFlagKeyOnly, "k", codec::kTypeRequest, ""},
        {[&] { return qel_hspace_cancel(c.h, "k", HSPACE_CANCEL_SYNC, 0); }, 0, codec::kOpCancel, 0, "k",
         codec::kTypeRequest, ""},
        {[&] { return qel_hspace_remove(c.h, "k", HSPACE_REMOVE_SYNC, 0); }, 0, codec::kOpRemove, 0, "k",
         codec::kTypeRequest, ""},
    };
    const struct { std::function<t_kro_error()> call; int opcode; std::string key; int body_type; const char *body; } noreply[] = {
        {[&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_NOREPLY, -1); }, codec::kOpPut, "alpha", codec::kTypeObject,
         "xyz"},
        {[&] { return qel_hspace_remove(c.h, "beta", HSPACE_REMOVE_NOREPLY, -1); }, codec::kOpRemove, "beta",
         codec::kTypeRequest, ""},
        {[&] { return qel_hspace_put(c.h, longest.obj, HSPACE_PUT_NOREPLY, 0); }, codec::kOpPut, longest.key,
         codec::kTypeObject, "v"},
    };
    uint32_t expected = 1;
    for (const auto &k : calls) {
        Packet sent;
        EXPECT_EQ(0u, Exchange(c, k.call, ReplyWith(k.status), &sent));
        ASSERT_TRUE(sent.rr && sent.hspace);
        EXPECT_EQ(expected++, sent.rr->corrid);
        EXPECT_TRUE(sent.rr->is_request());
        EXPECT_EQ(5, sent.dport);
        EXPECT_EQ((std::vector<uint16_t>{codec::kTypeHspace, codec::kTypeRr}), sent.subheader_types);
        EXPECT_EQ(std::tie(k.opcode, k.flags, k.key, k.body_type, k.body),
                  std::make_tuple(int(sent.hspace->opcode), sent.hspace->flags, sent.hspace->key, int(sent.body_type),
                                  sent.body));
        EXPECT_EQ(codec::kSemSync, sent.hspace->semantic);
        EXPECT_EQ(k.opcode == codec::kOpPost ? 0x0F : 0, sent.hspace->triggers);
        const int records = RequestCount(c.h); // 1 while the post's subscription lasts
        for (const auto &k : noreply) {
            EXPECT_EQ(0u, Bounded(k.call));
            EXPECT_EQ(records, RequestCount(c.h));
            Packet p = c.conn.next_packet();
            EXPECT_EQ(std::vector<uint16_t>{codec::kTypeHspace}, p.subheader_types);
            EXPECT_EQ(5, p.dport);
            EXPECT_EQ(k.body_type, p.type);
            ExpectRequest(p, k.opcode, codec::kSemNoReply, k.key, k.body_type, k.body);
        }
    }
    EXPECT_EQ(0, list->num_elements);
    SetCorrelationCounter(c.h, 0x3FFFFFFF);
    for (uint32_t want : {0x40000000u, 1u}) {
        Packet sent;
        EXPECT_EQ(0u, Exchange(c, calls[4].call, ReplyWith(0), &sent));
        EXPECT_EQ(want, sent.rr ? sent.rr->corrid : 0u);
    }
}

// A successful post stays as the subscription for its key in any letter
// case: a second post is refused with 20 and sends nothing (the next packet
// is the cancel), a remove of the key leaves it, and a cancel in another case
// ends it even when the service refuses the cancel. A failed post (2
// included) returns its status and leaves no record; a cancel of a key
// without a subscription is sent and returns the service's status.
TEST_F(Requests, ASubscriptionLastsFromASuccessfulPostToItsCancel)
{
    Packet sent;
    for (t_kro_error status : {77u, KRO_ERR_NO_MATCH}) EXPECT_EQ(status, Post("Sub", 0, status));
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(0u, Post("Sub", kNoImage, 0));
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
TEST_F(Requests, AFailedImageEndsTheSubscription)
{
    Packet sent;
    ASSERT_EQ(0u, Post("failing", 0, 0, &sent, reinterpret_cast<t_kro_ptr>(0xabc)));
    ASSERT_TRUE(sent.rr);
    c.conn.reply(sent.rr->corrid, 77);
    ASSERT_TRUE(c.events.wait_count(1));
    const Event e = c.events.events()[0];
    EXPECT_EQ(std::make_tuple(HSPACE_EVENT_POST_IMAGE, reinterpret_cast<t_kro_ptr>(0xabc), std::string("failing"), 77u, false),
              std::tie(e.type, e.urid, e.key, e.status, e.has_object));
    ASSERT_TRUE(Barrier(c));
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(0u, Post("failing", kNoImage, 0));
}

// Values larger than the reader's own buffer: a put sends its buffer's
// window whole behind its header, a synchronous get, an asynchronous get
// and a notification deliver theirs whole, and a large object for no
// request is dropped with what it carried.
TEST_F(Requests, LargeValuesTravelWhole)
{
    std::string value(300000, 'v');
    for (size_t i = 0; i < value.size(); i += 101) value[i] = (char)(i >> 3);
    UserObject o("big", value);
    o.buf->pos = 1;
    o.buf->lim--;
    Packet sent;
    ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); }, ReplyWith(0), &sent));
    EXPECT_TRUE(sent.body == value.substr(1, value.size() - 2)) << sent.body.size();
    ObjectList list;
    const Pairs answer = {{"big", value}, {"small", "s"}, {"big2", value + "2"}};
    ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "big", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                           ObjectsWith(codec::kOpGet, answer)));
    EXPECT_TRUE(answer == list.contents());
    ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "big", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); },
                           ObjectsWith(codec::kOpGet, {{"big", value}})));
    c.conn.object(99999, codec::kOpGet, "nobody's", value, 1, 1);
    c.conn.notify("big", 1, value);
    ASSERT_TRUE(c.events.wait_count(2));
    for (const Event &e : c.events.events()) EXPECT_TRUE(e.has_object && e.object_value == value) << e.type;
    EXPECT_EQ(0, RequestCount(c.h));
}

} // namespace
} // namespace ops
