/*
 * get_test.cpp - get against the fake service: the request on the wire,
 * a synchronous get's result list, and an asynchronous get's events and
 * the record it leaves (none).
 */
#include <memory>

#include <gtest/gtest.h>

#include "harness.h"

namespace ops {
namespace {

// A synchronous get appends the answer's objects, in order, after what the
// list already held, and leaves no record.
TEST(Get, SyncAppendsTheObjectsInOrderAfterWhatTheListHeld)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    t_kro_llist list = nullptr;
    kro_llist_create(&list);
    UserObject held("held", "h");
    kro_llist_append(list, held.obj);

    Packet sent;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k*", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                           ObjectsWith(codec::kOpGet, {{"k1", "v1"}, {"k2", "v2"}, {"k3", "v3"}}), &sent));
    EXPECT_EQ((Pairs{{"held", "h"}, {"k1", "v1"}, {"k2", "v2"}, {"k3", "v3"}}), Contents(list));
    EXPECT_EQ(0, RequestCount(c.h));
    EXPECT_EQ(2, sent.numsh);
    ASSERT_TRUE(sent.hspace);
    EXPECT_EQ(codec::kOpGet, sent.hspace->opcode);
    EXPECT_EQ(codec::kSemSync, sent.hspace->semantic);
    EXPECT_EQ(0, sent.hspace->timeout);
    EXPECT_EQ("k*", sent.hspace->key);
    ASSERT_TRUE(sent.rr);
    EXPECT_TRUE(sent.rr->is_request());
    EXPECT_EQ(codec::kTypeRequest, sent.body_type);
    EXPECT_EQ("", sent.body);

    kro_llist_remove(held.obj); // ours; the rest are the library's, now ours to destroy
    DestroyList(&list);
}

// Only the flag bits 1 and 4 reach the wire, for both semantics.
TEST(Get, FlagsAreMaskedOnTheWire)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    t_kro_llist list = nullptr;
    kro_llist_create(&list);
    const std::pair<t_kro_int4, int32_t> cases[] = {{0xFF, 0x5}, {0x2, 0}, {0x1, 0x1}, {0x4, 0x4}, {-1, 0x5}};
    size_t events = 0;
    for (const auto &f : cases) {
        Packet sent;
        auto get = [&](t_qel_hspace_get_semantic semantic) {
            return Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, semantic, 0, f.first, list); },
                            ReplyWith(KRO_ERR_NO_MATCH), &sent);
        };
        EXPECT_EQ(0u, get(HSPACE_GET_SYNC));
        ASSERT_TRUE(sent.hspace);
        EXPECT_EQ(f.second, sent.hspace->flags) << "flags " << f.first;
        EXPECT_EQ(0u, get(HSPACE_GET_ASYNC));
        ASSERT_TRUE(sent.hspace);
        EXPECT_EQ(codec::kSemAsync, sent.hspace->semantic);
        EXPECT_EQ(f.second, sent.hspace->flags) << "flags " << f.first;
        ASSERT_TRUE(c.events.wait_count(++events));
    }
    EXPECT_EQ(0, list->num_elements);
    kro_llist_destroy(&list);
}

// A synchronous get answered with 2 (nothing stored) succeeds and adds
// nothing; any other failure status comes back as it is.
TEST(Get, SyncStatusOnlyAnswers)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    t_kro_llist list = nullptr;
    kro_llist_create(&list);
    UserObject held("held", "h");
    kro_llist_append(list, held.obj);
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                           ReplyWith(KRO_ERR_NO_MATCH)));
    EXPECT_EQ((Pairs{{"held", "h"}}), Contents(list));
    EXPECT_EQ(77u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                            ReplyWith(77)));
    EXPECT_EQ((Pairs{{"held", "h"}}), Contents(list));
    EXPECT_EQ(0, RequestCount(c.h));
    kro_llist_remove(held.obj);
    kro_llist_destroy(&list);
}

// An asynchronous get raises one event per object, numbered by the service,
// with its urid and its own copy of the key (the caller's string is gone by
// then), and leaves no record once the last one is delivered.
TEST(Get, AsyncRaisesOneEventPerObjectAndLeavesNoRecord)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    t_kro_ptr urid = reinterpret_cast<t_kro_ptr>(0x5eed);
    auto key = std::make_unique<std::string>("Async-Key");
    ASSERT_EQ(0u,
              Bounded(c.h, [&] { return qel_hspace_get(c.h, key->c_str(), urid, HSPACE_GET_ASYNC, 0, 0, nullptr); }));
    EXPECT_EQ(1, RequestCount(c.h));
    key->assign(key->size(), 'X');
    key.reset(); // ASan reports any later read of the caller's key

    Packet p = c.conn.next_packet();
    ASSERT_TRUE(p.rr && p.hspace);
    EXPECT_EQ("Async-Key", p.hspace->key);
    c.conn.objects(p.rr->corrid, codec::kOpGet, {{"a", "1"}, {"b", ""}, {"c", "333"}});
    ASSERT_TRUE(c.events.wait_count(3));
    ASSERT_TRUE(Barrier(c));
    EXPECT_EQ(0, RequestCount(c.h));

    std::vector<Event> ev = c.events.events();
    ASSERT_EQ(3u, ev.size());
    const Pairs objects = {{"a", "1"}, {"b", ""}, {"c", "333"}};
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(HSPACE_EVENT_GET_REPLY, ev[i].type);
        EXPECT_EQ(urid, ev[i].urid);
        EXPECT_EQ("Async-Key", ev[i].key);
        EXPECT_EQ(0u, ev[i].status);
        EXPECT_EQ(3u, ev[i].cardinality);
        EXPECT_EQ(i + 1, ev[i].index);
        ASSERT_TRUE(ev[i].has_object);
        EXPECT_EQ(objects[i].first, ev[i].object_key);
        EXPECT_EQ(objects[i].second, ev[i].object_value);
    }
    EXPECT_TRUE(ev[1].value_null) << "an empty value arrives as a null buffer";
}

// A status-only answer ends an asynchronous get with one event without an
// object: 2 is reported as success, anything else as itself.
TEST(Get, AsyncStatusOnlyAnswersRaiseOneEvent)
{
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    const std::pair<t_kro_error, t_kro_error> cases[] = {{KRO_ERR_NO_MATCH, 0}, {77, 77}};
    size_t n = 0;
    for (const auto &s : cases) {
        t_kro_ptr urid = reinterpret_cast<t_kro_ptr>(0x100 + n);
        EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "none", urid, HSPACE_GET_ASYNC, 0, 0, nullptr); },
                               ReplyWith(s.first)));
        ASSERT_TRUE(c.events.wait_count(++n));
        ASSERT_TRUE(Barrier(c));
        EXPECT_EQ(0, RequestCount(c.h));
        ASSERT_EQ(n, c.events.count()) << "exactly one event";
        Event e = c.events.events().back();
        EXPECT_EQ(HSPACE_EVENT_GET_REPLY, e.type);
        EXPECT_EQ(urid, e.urid);
        EXPECT_EQ("none", e.key);
        EXPECT_EQ(s.second, e.status);
        EXPECT_EQ(0u, e.cardinality);
        EXPECT_EQ(0u, e.index);
        EXPECT_FALSE(e.has_object);
    }
}

} // namespace
} // namespace ops
