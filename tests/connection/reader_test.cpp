/*
 * reader_test.cpp - the reader thread and inbound dispatch, white-box:
 * replies matched to waiters by correlation id, a synchronous get's list,
 * reply-image and notification events with their fields, answers for
 * unknown correlation ids, packets merged into one write or split into
 * single bytes.
 */
#include "kro.h"
#include "kro_buf.h"
#include "kro_llist.h"

/* Allocations the library makes through kro_mm_alloc in its own file are
 * counted per thread, so a test can prove that a packet was dropped without
 * building anything. */
static thread_local int t_allocations = 0;
static t_kro_error qel_test_counted_alloc(t_kro_uint4 size, void *variable, t_kro_bool clear);
#define kro_mm_alloc(size, variable, clear) qel_test_counted_alloc(size, variable, clear)
#include "qel_hspace.cpp"
#undef kro_mm_alloc

static t_kro_error qel_test_counted_alloc(t_kro_uint4 size, void *variable, t_kro_bool clear)
{
    t_allocations++;
    return kro_mm_alloc(size, variable, clear);
}

#include <map>

#include "client_harness.h"

namespace {

using namespace hspace::test;

using Reader = ConnectedTest;
using Inbound = LibraryTest;

TEST_F(Reader, RepliesCompleteWaitersByCorrelationIdInAnyOrder)
{
    UserObject object("k-put");
    ObjectList list;

    // Four waiters of four kinds; each reply carries a status of its own.
    Call put([&] { return qel_hspace_put(h, object.obj, HSPACE_PUT_SYNC, 0); });
    Call remove([&] { return qel_hspace_remove(h, "k-remove", HSPACE_REMOVE_SYNC, -1); });
    Call get([&] { return qel_hspace_get(h, "k-get", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Call cancel([&] { return qel_hspace_cancel(h, "k-cancel", HSPACE_CANCEL_SYNC, 0); });
    std::vector<Packet> requests;
    for (int i = 0; i < 4; i++) {
        requests.push_back(c.next_packet());
        ASSERT_TRUE(requests.back().rr.has_value() && requests.back().hspace.has_value());
    }
    // Put and remove return the status unchanged, 2 included; none sends flags.
    std::map<std::string, t_kro_error> status = {
        {"k-put", KRO_ERR_NO_MATCH}, {"k-remove", 0xDEADBEEF}, {"k-get", 0x7003}, {"k-cancel", 0x7004}};
    for (const Packet &p : requests) {
        EXPECT_EQ(2, p.numsh);
        EXPECT_EQ(codec::kSemSync, p.hspace->semantic);
        EXPECT_EQ(0, p.hspace->flags);
    }
    for (auto it = requests.rbegin(); it != requests.rend(); ++it) c.reply(it->rr->corrid, status.at(it->hspace->key));
    EXPECT_EQ(KRO_ERR_NO_MATCH, put.result());
    EXPECT_EQ(0xDEADBEEFu, remove.result());
    EXPECT_EQ(0x7003u, get.result());
    EXPECT_EQ(0x7004u, cancel.result());
    qel_hspace_lock(h);
    EXPECT_EQ(0, h->reqtable->num_elements);
    qel_hspace_unlock(h);
    CloseAndDestroy(&h);
    EXPECT_TRUE(g_events.events().empty());
}

TEST_F(Reader, SynchronousGetAppendsObjectsInArrivalOrderAfterTheCallersOwn)
{
    ObjectList list;
    t_qel_hspace_object mine = nullptr;
    ASSERT_EQ(0u, qel_hspace_object_create("mine", nullptr, &mine));
    kro_llist_append(list, mine);

    Call get([&] { return qel_hspace_get(h, "key", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Packet p = c.next_packet();
    ASSERT_TRUE(p.rr && p.hspace);
    EXPECT_TRUE(p.rr->is_request());
    EXPECT_EQ(0, p.hspace->timeout);
    ExpectRequest(p, codec::kOpGet, codec::kSemSync, "key", codec::kTypeRequest);
    // Numbered 2, 1, 3 of 3: the list follows arrival, the third completes.
    c.object(p.rr->corrid, codec::kOpGet, "key/b", "bee", 3, 2);
    c.object(p.rr->corrid, codec::kOpGet, "key/a", "", 3, 1);
    c.object(p.rr->corrid, codec::kOpGet, "key/c", std::string(3, '\0'), 3, 3);
    EXPECT_EQ(0u, get.result());
    kro_llist_remove(mine);
    EXPECT_EQ(0u, qel_hspace_object_destroy(&mine));
    Pairs expected = {
        {"key/b", "bee"}, {"key/a", ""}, {"key/c", std::string(3, '\0')}};
    EXPECT_EQ(expected, list.contents());
    list.clear();

    // A failed answer: its one object (count 0, number 0) ends the get with
    // the error, and the list keeps it.
    Call failed([&] { return qel_hspace_get(h, "key", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    p = c.next_packet();
    ASSERT_TRUE(p.rr.has_value());
    std::string bytes;
    Packet o;
    o.hspace = codec::HspaceSubheader();
    o.hspace->opcode = codec::kOpGet;
    o.hspace->key = "key";
    o.rr = codec::RrSubheader::failure(p.rr->corrid, 77);
    o.body_type = codec::kTypeObject;
    codec::encode(bytes, o);
    c.send_raw(bytes);
    EXPECT_EQ(77u, failed.result());
    EXPECT_EQ(1u, list.contents().size());
}

TEST_F(Reader, AsynchronousAnswersRaiseReplyImageEventsWithTheRequestsFields)
{
    int urids[5];

    // Three asynchronous gets: two objects, nothing stored, an error. The
    // caller's key buffer is reused at once.
    char key[16] = "Get-1";
    ASSERT_EQ(0u, qel_hspace_get(h, key, &urids[0], HSPACE_GET_ASYNC, 0, 0, nullptr));
    strcpy(key, "Get-2");
    ASSERT_EQ(0u, qel_hspace_get(h, key, &urids[1], HSPACE_GET_ASYNC, 0, 0, nullptr));
    strcpy(key, "Get-3");
    ASSERT_EQ(0u, qel_hspace_get(h, key, &urids[2], HSPACE_GET_ASYNC, 0, 0, nullptr));
    strcpy(key, "xxxxx");
    Packet g1 = c.next_packet(), g2 = c.next_packet(), g3 = c.next_packet();
    ASSERT_TRUE(g1.rr && g2.rr && g3.rr);
    c.objects(g1.rr->corrid, codec::kOpGet, {{"Get-1/x", "one"}, {"Get-1/y", ""}});
    c.reply(g2.rr->corrid, KRO_ERR_NO_MATCH);
    c.reply(g3.rr->corrid, 0); // success never answers an asynchronous get: dropped
    c.reply(g3.rr->corrid, 0x6001);

    // Two subscriptions: an image of two objects, and an empty image.
    Packet p1, p2;
    auto early_then_ok = [](FakeConnection &fc, const Packet &p) {
        fc.object(p.rr->corrid, codec::kOpPost, "early", "e", 1, 1); // before the post's reply: dropped
        fc.reply(p.rr->corrid, 0);
    };
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(h, "Post-1", &urids[3], HSPACE_POST_SYNC, 0x0F, 0); },
                           early_then_ok, &p1));
    ASSERT_TRUE(p1.rr.has_value());
    c.objects(p1.rr->corrid, codec::kOpPost, {{"Post-1/a", "A"}, {"Post-1/b", "B"}});
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(h, "Post-2", &urids[4], HSPACE_POST_SYNC, 0x0F, 0); },
                           ReplyWith(0), &p2));
    c.reply(p2.rr->corrid, KRO_ERR_NO_MATCH);
    // Replies no exchange produces are dropped: success for a subscription,
    // anything for one whose image is complete.
    c.reply(p1.rr->corrid, 0);
    c.reply(p1.rr->corrid, 0x6002);
    // An image object whose rr subheader is marked as a request: dropped.
    Packet request_marked;
    request_marked.hspace = codec::HspaceSubheader();
    request_marked.hspace->opcode = codec::kOpPost;
    request_marked.hspace->key = "marked";
    request_marked.rr = codec::RrSubheader::request(p1.rr->corrid);
    request_marked.body_type = codec::kTypeObject;
    std::string bytes;
    codec::encode(bytes, request_marked);
    c.send_raw(bytes);
    c.notify("end", 1);

    ASSERT_TRUE(g_events.wait_count(8));
    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(8u, ev.size());
    struct Want {
        t_qel_hspace_event type;        // the event
        int urid;                       // index into urids
        const char *key;                // the request's key
        t_kro_error status;             // the event's status
        t_kro_uint4 cardinality, index; // count and number of the object
        const char *object_key;         // null: no object
        const char *value;              // the object's value; "" for none
    } want[] = {
        {HSPACE_EVENT_GET_REPLY, 0, "Get-1", 0, 2, 1, "Get-1/x", "one"},
        {HSPACE_EVENT_GET_REPLY, 0, "Get-1", 0, 2, 2, "Get-1/y", ""},
        {HSPACE_EVENT_GET_REPLY, 1, "Get-2", 0, 0, 0, nullptr, nullptr},
        {HSPACE_EVENT_GET_REPLY, 2, "Get-3", 0x6001, 0, 0, nullptr, nullptr},
        {HSPACE_EVENT_POST_IMAGE, 3, "Post-1", 0, 2, 1, "Post-1/a", "A"},
        {HSPACE_EVENT_POST_IMAGE, 3, "Post-1", 0, 2, 2, "Post-1/b", "B"},
        {HSPACE_EVENT_POST_IMAGE, 4, "Post-2", 0, 0, 0, nullptr, nullptr},
    };
    for (size_t i = 0; i < sizeof want / sizeof want[0]; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(want[i].type, ev[i].type);
        EXPECT_EQ(&urids[want[i].urid], ev[i].urid);
        EXPECT_EQ(want[i].key, ev[i].key);
        EXPECT_EQ(want[i].status, ev[i].status);
        EXPECT_EQ(want[i].cardinality, ev[i].cardinality);
        EXPECT_EQ(want[i].index, ev[i].index);
        EXPECT_EQ(want[i].object_key != nullptr, ev[i].has_object);
        if (want[i].object_key != nullptr) {
            EXPECT_EQ(want[i].object_key, ev[i].object_key);
            EXPECT_EQ(want[i].value, ev[i].object_value);
            EXPECT_EQ(want[i].value[0] == '\0', ev[i].value_null);
        }
        EXPECT_EQ(HSPACE_STATE_OPEN, ev[i].state);
    }
    EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, ev[7].type);

    // The gets are gone; both subscriptions remain, their images complete.
    qel_hspace_lock(h);
    EXPECT_EQ(2, h->reqtable->num_elements);
    for (t_kro_ptr n = kro_llist_first(h->reqtable); n != nullptr; n = kro_llist_next(h->reqtable, n)) {
        EXPECT_EQ(HSPACE_OPCODE_POST, ((t_qel_hspace_request)n)->opcode);
        EXPECT_TRUE(((t_qel_hspace_request)n)->initial_image_complete);
    }
    qel_hspace_unlock(h);
    CloseAndDestroy(&h);
    EXPECT_EQ(8u, g_events.events().size()); // complete images end silently at close
}

TEST_F(Reader, NotificationsAreRaisedForAnyKey)
{
    c.notify("never/subscribed", 0xFF, "v1");
    c.notify("other", 0x01);
    ASSERT_TRUE(g_events.wait_count(2));
    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, ev[0].type);
    EXPECT_EQ(255, ev[0].trigger); // widened without sign
    EXPECT_EQ("never/subscribed", ev[0].object_key);
    EXPECT_EQ("v1", ev[0].object_value);
    EXPECT_EQ(1, ev[1].trigger);
    EXPECT_EQ("other", ev[1].object_key);
    EXPECT_TRUE(ev[1].value_null);
}

/* Frames bytes (one whole packet) in a buffer of their own and hands the
 * packet to inbound processing on the calling thread. Returns the number of
 * allocations processing made. */
int ProcessCounted(t_qel_hspace h, const std::string &bytes)
{
    t_kro_buf buf = nullptr;
    t_qel_hspace_packet packet = nullptr;
    kro_buf_create(&buf, (t_kro_uint4)bytes.size(), 0);
    memcpy(buf->ptr, bytes.data(), bytes.size());
    EXPECT_TRUE(qel_hspace_pkt_is_full(buf));
    qel_hspace_pkt_frame(buf, &packet);
    int before = t_allocations;
    qel_hspace_process_packet(h, packet);
    int made = t_allocations - before;
    EXPECT_EQ(0u, kro_mm_free(&packet));
    kro_buf_release(&buf);
    return made;
}

TEST_F(Inbound, AnswersForUnknownCorrelationIdsAreDroppedWithoutAllocating)
{
    t_qel_hspace h = nullptr;
    ASSERT_EQ(0u, Create("tcp://127.0.0.1:1", "tester", "tests", &h));
    ObjectList list;
    qel_hspace_lock(h);
    t_qel_hspace_request get =
        qel_hspace_request_create(h, HSPACE_OPCODE_GET, "key", nullptr, nullptr, 0, 0, list);
    qel_hspace_unlock(h);

    std::string object, reply;
    codec::encode_object(object, get->corrid + 1, codec::kOpGet, "key", "value", 1, 1);
    codec::encode_reply(reply, get->corrid + 1, 0);
    EXPECT_EQ(0, ProcessCounted(h, object));
    EXPECT_EQ(0, ProcessCounted(h, reply));
    EXPECT_FALSE(get->sync_ctx->complete);
    EXPECT_TRUE(list.contents().empty());
    // The same object addressed to the request is built (and counted).
    object.clear();
    codec::encode_object(object, get->corrid, codec::kOpGet, "key", "value", 1, 1);
    EXPECT_LT(0, ProcessCounted(h, object));
    EXPECT_TRUE(get->sync_ctx->complete);
    EXPECT_EQ(1u, list.contents().size());

    qel_hspace_lock(h);
    qel_hspace_request_destroy(&get);
    qel_hspace_unlock(h);
    EXPECT_EQ(0u, qel_hspace_destroy(&h));
}

TEST_F(Reader, MergedPacketsSplitPacketsAndStrayAnswersLeaveTheReaderWorking)
{
    int urid = 0;
    ObjectList list;
    UserObject object("p");

    // One write: stray answers for ids never issued, a put's reply, an
    // asynchronous get's answer with a value larger than the read buffer,
    // and a notification.
    Call put([&] { return qel_hspace_put(h, object.obj, HSPACE_PUT_SYNC, 0); });
    Packet pp = c.next_packet();
    ASSERT_EQ(0u, qel_hspace_get(h, "big", &urid, HSPACE_GET_ASYNC, 0, 0, nullptr));
    Packet gp = c.next_packet();
    ASSERT_TRUE(pp.rr && gp.rr);
    std::string big(3 * HSPACE_PKT_READBUF_SIZE + 17, 'x');
    c.batch();
    c.object(0x3FFFFFFF, codec::kOpGet, "stray", "s", 1, 1);
    c.object(0x3FFFFFFF, codec::kOpPost, "stray", "s", 1, 1);
    c.reply(0x3FFFFFFE, 0);
    c.reply(0, 5);
    c.reply(pp.rr->corrid, 0);
    c.object(gp.rr->corrid, codec::kOpGet, "big", big, 1, 1);
    c.notify("n", 3, "after");
    ASSERT_TRUE(c.flush());
    EXPECT_EQ(0u, put.result());
    ASSERT_TRUE(g_events.wait_count(2));

    // A synchronous get's whole answer, one byte per write.
    Call get([&] { return qel_hspace_get(h, "small", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Packet p = c.next_packet();
    ASSERT_TRUE(p.rr.has_value());
    std::string bytes;
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "small/1", "v1", 2, 1);
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "small/2", "v2", 2, 2);
    ASSERT_TRUE(c.send_raw_bytewise(bytes));
    EXPECT_EQ(0u, get.result());
    Pairs expected = {{"small/1", "v1"}, {"small/2", "v2"}};
    EXPECT_EQ(expected, list.contents());

    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(HSPACE_EVENT_GET_REPLY, ev[0].type);
    EXPECT_EQ(&urid, ev[0].urid);
    EXPECT_EQ(big, ev[0].object_value);
    EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, ev[1].type);
    EXPECT_EQ("after", ev[1].object_value);
}

} // namespace
