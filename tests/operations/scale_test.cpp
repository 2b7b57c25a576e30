/*
 * scale_test.cpp - one handle carrying 100,000 subscriptions, filed through
 * the table's own insert path (as an answered post leaves its record) so the
 * run stays short under the sanitizers: replies, images, cancels and new
 * posts over the wire still reach the right records, and a close abandons
 * them all.
 */
#include "qel_hspace.cpp"

#include <set>

#include "client_harness.h"

int hspace::test::RequestCount(t_qel_hspace hspace)
{
    qel_hspace_lock(hspace);
    int n = hspace->reqtable->num_elements;
    qel_hspace_unlock(hspace);
    return n;
}

namespace hspace {
namespace test {
namespace {

constexpr int kSubs = 100000;  // subscriptions filed on the handle
constexpr int kGets = 500;     // asynchronous gets in flight together
constexpr int kStride = 9973;  // every kStride-th subscription is sampled

std::string SubKey(int i) { return "sub/" + std::to_string(i); }

std::string UpperKey(int i) { return "SUB/" + std::to_string(i); }

class Scale : public OpenClientTest {
protected:
    void SetUp() override // kSubs answered subscriptions, urid i + 1
    {
        OpenClientTest::SetUp();
        qel_hspace_lock(c.h);
        for (int i = 0; i < kSubs; i++) {
            std::string key = SubKey(i);
            t_qel_hspace_request r = qel_hspace_request_create(c.h, HSPACE_OPCODE_POST, key.c_str(),
                                                               reinterpret_cast<t_kro_ptr>(intptr_t(i + 1)),
                                                               nullptr, 1, 0, nullptr);
            r->sync.complete = 1;
            r->caller_waiting = 0;
            r->initial_image_complete = 1;
            corrid.push_back(r->corrid);
        }
        qel_hspace_unlock(c.h);
        ASSERT_EQ(kSubs, RequestCount(c.h));
        watchdog_.Kick(); // the test's own bound starts after the filing
    }

    std::vector<uint32_t> corrid; // of subscription i
    Watchdog watchdog_;
};

// Thousands of asynchronous gets answered in reverse order, interleaved with
// images for sampled subscriptions, each reach their own record; stray and
// repeated corrids reach none.
TEST_F(Scale, RepliesAndImagesFindTheirRecords)
{
    std::vector<uint32_t> get_corrid;
    for (int j = 0; j < kGets; j++) {
        std::string key = "get/" + std::to_string(j);
        ASSERT_EQ(0u, qel_hspace_get(c.h, key.c_str(), reinterpret_cast<t_kro_ptr>(intptr_t(j)), HSPACE_GET_ASYNC,
                                     0, 0, nullptr));
        Packet p = c.conn.next_packet();
        ASSERT_TRUE(p.rr && p.hspace);
        EXPECT_EQ(key, p.hspace->key);
        get_corrid.push_back(p.rr->corrid);
    }
    ASSERT_EQ(kSubs + kGets, RequestCount(c.h));

    size_t images = 0;
    c.conn.batch();
    for (int j = kGets - 1; j >= 0; j--) {
        c.conn.objects(get_corrid[j], codec::kOpGet, {{"get/" + std::to_string(j), std::to_string(get_corrid[j])}});
        c.conn.objects(get_corrid[j], codec::kOpGet, {{"again", "dropped"}}); // its record has ended
        if (j % 3 == 0) {
            int i = (j * kStride) % kSubs;
            c.conn.object(corrid[i], codec::kOpPost, SubKey(i), "image", 1, 1);
            images++;
        }
    }
    c.conn.objects(0x3FFFFFFF, codec::kOpGet, {{"stray", "x"}});
    ASSERT_TRUE(c.conn.flush());
    ASSERT_TRUE(Barrier(c));

    std::set<intptr_t> answered;
    size_t seen_images = 0;
    for (const Event &e : c.events.events()) {
        intptr_t urid = reinterpret_cast<intptr_t>(e.urid);
        if (e.type == HSPACE_EVENT_GET_REPLY) {
            ASSERT_TRUE(urid >= 0 && urid < kGets);
            EXPECT_EQ("get/" + std::to_string(urid), e.key);
            EXPECT_EQ(e.key, e.object_key);
            EXPECT_EQ(std::to_string(get_corrid[urid]), e.object_value);
            EXPECT_TRUE(answered.insert(urid).second) << "answered twice: " << urid;
        } else {
            ASSERT_EQ(HSPACE_EVENT_POST_IMAGE, e.type);
            EXPECT_EQ(SubKey(int(urid - 1)), e.key);
            EXPECT_EQ(e.key, e.object_key);
            seen_images++;
        }
    }
    EXPECT_EQ(size_t(kGets), answered.size());
    EXPECT_EQ(images, seen_images);
    EXPECT_EQ(kSubs, RequestCount(c.h));
}

// Among 100,000 subscriptions a post finds the existing one whatever the
// letter case, a cancel in another case ends exactly that one, a new post
// joins the table, and a synchronous get completes with its own objects.
TEST_F(Scale, PostsCancelsAndGetsKeepTheirMeaning)
{
    for (int i = 0; i < kSubs; i += kStride) {
        std::string upper = UpperKey(i);
        EXPECT_EQ(KRO_ERR_EXISTS, Bounded([&] { return qel_hspace_post(c.h, upper.c_str(), nullptr, HSPACE_POST_SYNC, 0, 0); }));
    }
    int expected = kSubs;
    for (int i = kStride / 2; i < kSubs; i += kStride) {
        std::string upper = UpperKey(i);
        Packet sent;
        EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_cancel(c.h, upper.c_str(), HSPACE_CANCEL_SYNC, 0); },
                               ReplyWith(0), &sent));
        EXPECT_EQ(upper, sent.hspace->key);
        EXPECT_EQ(--expected, RequestCount(c.h));
        // Its image now reaches nobody; a neighbour's still does.
        c.conn.object(corrid[i], codec::kOpPost, SubKey(i), "late", 1, 1);
        c.conn.object(corrid[i + 1], codec::kOpPost, SubKey(i + 1), "live", 1, 1);
    }
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "New/Key", nullptr, HSPACE_POST_SYNC, 0, 0); },
                           ReplyWith(0)));
    EXPECT_EQ(++expected, RequestCount(c.h));
    EXPECT_EQ(KRO_ERR_EXISTS, Bounded([&] { return qel_hspace_post(c.h, "new/KEY", nullptr, HSPACE_POST_SYNC, 0, 0); }));

    ObjectList list;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k/*", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                           ObjectsWith(codec::kOpGet, {{"k/1", "a"}, {"k/2", "b"}})));
    EXPECT_EQ((Pairs{{"k/1", "a"}, {"k/2", "b"}}), list.contents());
    EXPECT_EQ(expected, RequestCount(c.h));
    for (const Event &e : c.events.events()) {
        EXPECT_EQ(HSPACE_EVENT_POST_IMAGE, e.type);
        EXPECT_EQ("live", e.object_value);
    }
    // The close (in the fixture) abandons every subscription; the sanitizers
    // check that each record is freed exactly once.
}

} // namespace
} // namespace test
} // namespace hspace
