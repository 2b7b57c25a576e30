// put_remove_test.cpp - the requests put, remove and get send: the bytes of
// each form, the request table around them, get's flags, correlation ids.
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

using PutRemove = OpenClientTest;

// Correlation ids start at 1 on a new handle, rise by one per request that
// expects an answer across operations and wrap from 0x40000000 to 1. The
// no-reply forms draw none: one packet without an rr subheader to the
// service's ltp (5), the longest key whole, and the table left alone.
TEST_F(PutRemove, CorrelationIdsAndNoReplyForms)
{
    UserObject o("alpha", "xyz"), longest(std::string(65535, 'x'), "v");
    ObjectList list;
    const std::function<t_kro_error()> calls[] = {
        [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); },
        [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
        [&] { return qel_hspace_post(c.h, "k", nullptr, HSPACE_POST_SYNC, 0, HSPACE_POST_FLAG_NO_IMAGE); },
        [&] { return qel_hspace_cancel(c.h, "k", HSPACE_CANCEL_SYNC, 0); },
        [&] { return qel_hspace_remove(c.h, "k", HSPACE_REMOVE_SYNC, 0); },
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
    for (auto &call : calls) {
        Packet sent;
        EXPECT_EQ(0u, Exchange(c, call, ReplyWith(0), &sent));
        ASSERT_TRUE(sent.rr);
        EXPECT_EQ(expected++, sent.rr->corrid);
        EXPECT_TRUE(sent.rr->is_request());
        EXPECT_EQ(5, sent.dport);
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
    SetCorrelationCounter(c.h, 0x3FFFFFFF);
    for (uint32_t want : {0x40000000u, 1u}) {
        Packet sent;
        EXPECT_EQ(0u, Exchange(c, calls[4], ReplyWith(0), &sent));
        EXPECT_EQ(want, sent.rr ? sent.rr->corrid : 0u);
    }
}

// A synchronous put sends the value window [pos, lim) of the object's buffer
// (a bare body for a null buffer) and leaves object and buffer as they were;
// only the flag bits 1 and 4 of a get reach the wire, in both semantics.
TEST_F(PutRemove, PutSendsTheValueWindowAndGetMasksItsFlags)
{
    UserObject window("win", "0123456789ABCDEF"), no_value("nv");
    window.buf->pos = 3;
    window.buf->lim = 10;
    Packet sent;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_put(c.h, window.obj, HSPACE_PUT_SYNC, -1); }, ReplyWith(0),
                           &sent));
    EXPECT_EQ((std::vector<uint16_t>{codec::kTypeHspace, codec::kTypeRr}), sent.subheader_types);
    ExpectRequest(sent, codec::kOpPut, codec::kSemSync, "win", codec::kTypeObject, "3456789");
    EXPECT_EQ(3u, window.buf->pos);
    EXPECT_EQ(10u, window.buf->lim);
    EXPECT_EQ(1, window.buf->refcount);
    EXPECT_EQ("0123456789ABCDEF", std::string(static_cast<const char *>(window.buf->ptr), 16));
    EXPECT_EQ(77u, Exchange(c, [&] { return qel_hspace_put(c.h, no_value.obj, HSPACE_PUT_SYNC, 0); },
                            ReplyWith(77), &sent));
    // header 32 + hspace 22 + key 2 + rr 24 + bare body preamble 8
    EXPECT_EQ(88u, sent.wirelen);
    EXPECT_EQ(std::string("\x01\x00\x01\x01\x00\x00\x00\x08", 8), sent.raw.substr(sent.raw.size() - 8));

    ObjectList list;
    for (t_qel_hspace_get_semantic semantic : {HSPACE_GET_SYNC, HSPACE_GET_ASYNC}) {
        EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, semantic, 0, -1, list); },
                               ReplyWith(KRO_ERR_NO_MATCH), &sent));
        ASSERT_TRUE(sent.hspace);
        EXPECT_EQ(semantic == HSPACE_GET_SYNC ? codec::kSemSync : codec::kSemAsync, sent.hspace->semantic);
        EXPECT_EQ(0x5, sent.hspace->flags) << "every flag bit asked for";
    }
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ(0, list->num_elements);
}

} // namespace
} // namespace ops
