// scale_test.cpp - 100,000 subscriptions on one handle, filed directly so the
// run stays short under the sanitizers, which see the close free each once.
#include <set>

#include "client_harness.h"

std::vector<uint32_t> FileSubscriptions(t_qel_hspace hspace, int n); // internals.cpp

namespace hspace {
namespace test {
namespace {

constexpr int kSubs = 100000; // subscriptions filed on the handle
constexpr int kGets = 300;    // asynchronous gets in flight together
constexpr int kStride = 9973; // every kStride-th subscription is sampled

std::string Key(const char *prefix, int i) { return prefix + std::to_string(i); }

TEST(Scale, EveryMessageFindsItsRecordAmong100000Subscriptions)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    std::vector<uint32_t> corrid = FileSubscriptions(c.h, kSubs); // of subscription i
    Watchdog watchdog; // the test's own bound starts after the filing

    // Gets answered in reverse order (each twice: the second reaches nobody),
    // and a stray corrid.
    std::vector<uint32_t> get_corrid;
    for (int j = 0; j < kGets; j++) {
        ASSERT_EQ(0u, qel_hspace_get(c.h, Key("get/", j).c_str(), reinterpret_cast<t_kro_ptr>(intptr_t(j)),
                                     HSPACE_GET_ASYNC, 0, 0, nullptr));
        Packet p = c.conn.next_packet();
        ASSERT_TRUE(p.rr);
        get_corrid.push_back(p.rr->corrid);
    }
    ASSERT_EQ(kSubs + kGets, RequestCount(c.h));
    c.conn.batch();
    for (int j = kGets - 1; j >= 0; j--) {
        c.conn.objects(get_corrid[j], codec::kOpGet, {{Key("get/", j), std::to_string(get_corrid[j])}});
        c.conn.objects(get_corrid[j], codec::kOpGet, {{"again", "dropped"}});
    }
    c.conn.objects(0x3FFFFFFF, codec::kOpGet, {{"stray", "x"}});
    ASSERT_TRUE(c.conn.flush());
    ASSERT_TRUE(Barrier(c));
    std::set<intptr_t> answered;
    for (const Event &e : c.events.events()) {
        intptr_t urid = reinterpret_cast<intptr_t>(e.urid);
        ASSERT_TRUE(e.type == HSPACE_EVENT_GET_REPLY && urid >= 0 && urid < kGets);
        EXPECT_EQ(Key("get/", int(urid)), e.key);
        EXPECT_EQ(std::to_string(get_corrid[urid]), e.object_value);
        EXPECT_TRUE(answered.insert(urid).second) << "answered twice: " << urid;
    }
    EXPECT_EQ(size_t(kGets), answered.size());
    EXPECT_EQ(kSubs, RequestCount(c.h));
    c.events.reset();

    // A post in another letter case finds the existing subscription; a cancel
    // in another case ends exactly its own, so its image reaches nobody and
    // a neighbour's still reaches that neighbour; a new post joins the table.
    int expected = kSubs, live = 0;
    for (int i = 0; i + kStride < kSubs; i += kStride, live++) {
        std::string upper = Key("SUB/", i), other = Key("SUB/", i + kStride / 2);
        EXPECT_EQ(KRO_ERR_EXISTS, Bounded([&] { return qel_hspace_post(c.h, upper.c_str(), nullptr, HSPACE_POST_SYNC, 0, 0); }));
        EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_cancel(c.h, other.c_str(), HSPACE_CANCEL_SYNC, 0); },
                               ReplyWith(0)));
        EXPECT_EQ(--expected, RequestCount(c.h));
        c.conn.object(corrid[i + kStride / 2], codec::kOpPost, "late", "x", 1, 1);
        c.conn.object(corrid[i + kStride / 2 + 1], codec::kOpPost, "live", Key("sub/", i + kStride / 2 + 1), 1, 1);
    }
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "New/Key", nullptr, HSPACE_POST_SYNC, 0, 0); },
                           ReplyWith(0)));
    EXPECT_EQ(++expected, RequestCount(c.h));
    EXPECT_EQ(KRO_ERR_EXISTS, Bounded([&] { return qel_hspace_post(c.h, "new/KEY", nullptr, HSPACE_POST_SYNC, 0, 0); }));
    ASSERT_TRUE(Barrier(c));
    for (const Event &e : c.events.events()) { // the subscription's key and urid, and the key sent for it
        EXPECT_EQ(HSPACE_EVENT_POST_IMAGE, e.type);
        EXPECT_EQ(Key("sub/", int(reinterpret_cast<intptr_t>(e.urid) - 1)), e.key);
        EXPECT_EQ(e.object_value, e.key);
    }
    EXPECT_EQ(size_t(live), c.events.count());
}

} // namespace
} // namespace test
} // namespace hspace
