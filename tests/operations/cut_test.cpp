// cut_test.cpp - blocked calls cut short by a close (18) or a dropped connection,
// over plain TCP and over TLS.
#include <memory>
#include <tuple>

#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

// Every blocked caller returns the same status; the objects a get received
// before the cut stay in its list (the caller's); the asynchronous get and
// the subscription with an open image get one event with that status, in
// table order and the ending's state; the complete subscription ends
// silently. Only a drop raises a link failure, last; destroy is refused (13)
// on the open and the failed handle. Parameters: drop (else close), TLS.
class CutShort : public ::testing::TestWithParam<std::tuple<bool, bool>> {
protected:
    void SetUp() override { ASSERT_TRUE(c.open()); }

    FakeTls tls = ServiceTls();
    FakeService svc{std::get<1>(GetParam()) ? &tls : nullptr};
    Client c{svc};
};

TEST_P(CutShort, EveryBlockedCallReturnsTheSameStatus)
{
    const bool drop = std::get<0>(GetParam());
    const t_kro_error expected = drop ? KRO_ERR_PEER_CLOSED : KRO_ERR_CLOSED;
    const t_qel_hspace_state ended = drop ? HSPACE_STATE_FAILED : HSPACE_STATE_CLOSED;
    t_kro_ptr urid[] = {reinterpret_cast<t_kro_ptr>(0xa), reinterpret_cast<t_kro_ptr>(0xb)};
    for (t_kro_int4 f : {0, HSPACE_POST_FLAG_NO_IMAGE}) // "open-image" waits for its image, "complete" not
        ASSERT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, f ? "complete" : "open-image", f ? nullptr : urid[0],
                                                                HSPACE_POST_SYNC, 0, f); }, ReplyWith(0)));
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_get(c.h, "async", urid[1], HSPACE_GET_ASYNC, 0, 0, nullptr); }));
    c.conn.next_packet();

    UserObject o("put", "v");
    ObjectList list;
    const std::unique_ptr<Call> calls[] = {
        std::make_unique<Call>([&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); }),
        std::make_unique<Call>([&] { return qel_hspace_get(c.h, "get", nullptr, HSPACE_GET_SYNC, 0, 0, list); }),
        std::make_unique<Call>([&] { return qel_hspace_post(c.h, "post", nullptr, HSPACE_POST_SYNC, 0, 0); }),
        std::make_unique<Call>([&] { return qel_hspace_cancel(c.h, "cancel", HSPACE_CANCEL_SYNC, 0); }),
        std::make_unique<Call>([&] { return qel_hspace_remove(c.h, "remove", HSPACE_REMOVE_SYNC, 0); }),
    };
    uint32_t get_corrid = 0;
    for (size_t i = 0; i < 5; i++) { // every call has written its request
        Packet p = c.conn.next_packet();
        if (p.hspace && p.rr && p.hspace->opcode == codec::kOpGet) get_corrid = p.rr->corrid;
    }
    ASSERT_NE(0u, get_corrid);
    t_qel_hspace same = c.h;
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_destroy(&same)) << "destroy of an open handle";
    c.conn.object(get_corrid, codec::kOpGet, "g1", "v1", 3, 1);
    c.conn.object(get_corrid, codec::kOpGet, "g2", "v2", 3, 2);
    if (drop) {
        c.conn.close(); // the objects are in the stream before the end
    } else {
        c.conn.notify("marker", 1); // processed after the objects
        ASSERT_TRUE(c.events.wait_count(1));
        ASSERT_EQ(0u, qel_hspace_close(c.h));
    }
    for (size_t i = 0; i < 5; i++) EXPECT_EQ(expected, calls[i]->result()) << "call " << i;

    ASSERT_TRUE(c.events.wait_count(3));
    EXPECT_EQ(ended, State(c.h));
    if (drop) EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_destroy(&same)) << "destroy of a failed handle";
    else EXPECT_TRUE(c.conn.wait_closed());
    EXPECT_EQ(c.h, same);
    EXPECT_EQ(0u, qel_hspace_close(c.h)) << "a further close does nothing";
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ((Pairs{{"g1", "v1"}, {"g2", "v2"}}), Contents(list)); // the caller's: ASan sees a leak

    // The link failure comes last, the marker first.
    using Seen = std::tuple<t_qel_hspace_event, t_kro_ptr, std::string, t_kro_error, bool, t_qel_hspace_state>;
    std::vector<Seen> seen, want = {Seen{HSPACE_EVENT_POST_IMAGE, urid[0], "open-image", expected, false, ended},
                                    Seen{HSPACE_EVENT_GET_REPLY, urid[1], "async", expected, false, ended}};
    if (drop) want.push_back(Seen{HSPACE_EVENT_LINK_FAIL, nullptr, "", expected, false, ended});
    else want.insert(want.begin(), Seen{HSPACE_EVENT_POST_NOTIFICATION, nullptr, "", 0, true, HSPACE_STATE_OPEN});
    for (const Event &e : c.events.events()) seen.emplace_back(e.type, e.urid, e.key, e.status, e.has_object, e.state);
    EXPECT_EQ(want, seen);
}

INSTANTIATE_TEST_SUITE_P(CloseOrDrop, CutShort, ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<bool, bool>> &p) {
                             return std::string(std::get<0>(p.param) ? "drop" : "close") +
                                    (std::get<1>(p.param) ? "_tls" : "_tcp");
                         });

} // namespace
} // namespace ops
