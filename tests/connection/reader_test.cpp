/*
 * reader_test.cpp - the reader thread and inbound dispatch, white-box:
 * replies matched to waiters by correlation id, a synchronous get's list,
 * reply-image and notification events with their fields, stray answers, and
 * packets merged into one write or split into single bytes.
 */
#include "qel_hspace.cpp"

#include <map>

#include "client_harness.h"

namespace {

using namespace hspace::test;

using Reader = ConnectedTest;

// Four waiters of four kinds, answered in reverse order, each with a status
// of its own that comes back unchanged (2 included); a reply marked as a
// request answers nobody.
TEST_F(Reader, RepliesCompleteWaitersByCorrelationIdInAnyOrder)
{
    UserObject object("k-put");
    ObjectList list;
    Call put([&] { return qel_hspace_put(h, object.obj, HSPACE_PUT_SYNC, 0); });
    Call remove([&] { return qel_hspace_remove(h, "k-remove", HSPACE_REMOVE_SYNC, -1); });
    Call get([&] { return qel_hspace_get(h, "k-get", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Call cancel([&] { return qel_hspace_cancel(h, "k-cancel", HSPACE_CANCEL_SYNC, 0); });
    std::vector<Packet> requests;
    for (int i = 0; i < 4; i++) {
        requests.push_back(c.next_packet());
        ASSERT_TRUE(requests.back().rr && requests.back().hspace);
        EXPECT_EQ(codec::kSemSync, requests.back().hspace->semantic);
        EXPECT_EQ(0, requests.back().hspace->flags);
    }
    Packet marked; // a reply whose rr subheader is marked as a request: dropped
    marked.rr = codec::RrSubheader::request(requests[0].rr->corrid);
    marked.body_type = codec::kTypeReply;
    std::string bytes;
    codec::encode(bytes, marked);
    c.send_raw(bytes);
    std::map<std::string, t_kro_error> status = {
        {"k-put", KRO_ERR_NO_MATCH}, {"k-remove", 0xDEADBEEF}, {"k-get", 0x7003}, {"k-cancel", 0x7004}};
    for (auto it = requests.rbegin(); it != requests.rend(); ++it) c.reply(it->rr->corrid, status.at(it->hspace->key));
    EXPECT_EQ(KRO_ERR_NO_MATCH, put.result());
    EXPECT_EQ(0xDEADBEEFu, remove.result());
    EXPECT_EQ(0x7003u, get.result());
    EXPECT_EQ(0x7004u, cancel.result());
    EXPECT_EQ(0, h->reqtable->num_elements); // every caller has returned
}

// The list keeps the caller's own objects and gains the answer's in arrival
// order; the object numbered like the count completes the get. A failed
// answer's one object ends the get with the error.
TEST_F(Reader, SynchronousGetAppendsObjectsInArrivalOrderAfterTheCallersOwn)
{
    ObjectList list;
    t_qel_hspace_object mine = nullptr;
    ASSERT_EQ(0u, qel_hspace_object_create("mine", nullptr, &mine));
    kro_llist_append(list, mine);
    Call get([&] { return qel_hspace_get(h, "key", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Packet p = c.next_packet();
    ASSERT_TRUE(p.rr);
    EXPECT_TRUE(p.rr->is_request());
    ExpectRequest(p, codec::kOpGet, codec::kSemSync, "key", codec::kTypeRequest);
    c.object(p.rr->corrid, codec::kOpGet, "key/b", "bee", 3, 2);
    c.object(p.rr->corrid, codec::kOpGet, "key/a", "", 3, 1);
    c.object(p.rr->corrid, codec::kOpGet, "key/c", std::string(3, '\0'), 3, 3);
    EXPECT_EQ(0u, get.result());
    kro_llist_remove(mine);
    EXPECT_EQ(0u, qel_hspace_object_destroy(&mine));
    EXPECT_EQ((Pairs{{"key/b", "bee"}, {"key/a", ""}, {"key/c", std::string(3, '\0')}}), list.contents());
    list.clear();

    Call failed([&] { return qel_hspace_get(h, "key", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    p = c.next_packet();
    ASSERT_TRUE(p.rr);
    Packet o;
    o.hspace = codec::HspaceSubheader();
    o.hspace->opcode = codec::kOpGet;
    o.hspace->key = "key";
    o.rr = codec::RrSubheader::failure(p.rr->corrid, 77);
    o.body_type = codec::kTypeObject;
    std::string bytes;
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
    char key[16];
    Packet g[3];
    for (int i = 0; i < 3; i++) {
        snprintf(key, sizeof key, "Get-%d", i + 1);
        ASSERT_EQ(0u, qel_hspace_get(h, key, &urids[i], HSPACE_GET_ASYNC, 0, 0, nullptr));
        strcpy(key, "xxxxx");
        g[i] = c.next_packet();
        ASSERT_TRUE(g[i].rr);
    }
    c.objects(g[0].rr->corrid, codec::kOpGet, {{"Get-1/x", "one"}, {"Get-1/y", ""}});
    c.reply(g[1].rr->corrid, KRO_ERR_NO_MATCH);
    c.reply(g[2].rr->corrid, 0); // success never answers an asynchronous get: dropped
    c.reply(g[2].rr->corrid, 0x6001);

    // Two subscriptions: an image of two objects, and an empty image.
    Packet p1, p2;
    auto early_then_ok = [](FakeConnection &fc, const Packet &p) {
        fc.object(p.rr->corrid, codec::kOpPost, "early", "e", 1, 1); // before the post's reply: dropped
        fc.reply(p.rr->corrid, 0);
    };
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(h, "Post-1", &urids[3], HSPACE_POST_SYNC, 0x0F, 0); },
                           early_then_ok, &p1));
    ASSERT_TRUE(p1.rr);
    c.objects(p1.rr->corrid, codec::kOpPost, {{"Post-1/a", "A"}, {"Post-1/b", "B"}});
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(h, "Post-2", &urids[4], HSPACE_POST_SYNC, 0x0F, 0); },
                           ReplyWith(0), &p2));
    c.reply(p2.rr->corrid, KRO_ERR_NO_MATCH);
    // Dropped: success for a subscription, anything for one whose image is
    // complete, an image object whose rr subheader is marked as a request.
    c.reply(p1.rr->corrid, 0);
    c.reply(p1.rr->corrid, 0x6002);
    Packet marked;
    marked.hspace = codec::HspaceSubheader();
    marked.hspace->opcode = codec::kOpPost;
    marked.hspace->key = "marked";
    marked.rr = codec::RrSubheader::request(p1.rr->corrid);
    marked.body_type = codec::kTypeObject;
    std::string bytes;
    codec::encode(bytes, marked);
    c.send_raw(bytes);
    c.notify("never/subscribed", 0xFF, "v1"); // notifications come for any key

    ASSERT_TRUE(g_events.wait_count(8));
    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(8u, ev.size());
    const struct {
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
    for (size_t i = 0; i < 7; i++) {
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
    EXPECT_EQ(255, ev[7].trigger); // widened without sign
    EXPECT_EQ("never/subscribed", ev[7].object_key);
    EXPECT_EQ("v1", ev[7].object_value);

    // The gets are gone; both subscriptions remain, complete, and end
    // silently at close.
    qel_hspace_lock(h);
    EXPECT_EQ(2, h->reqtable->num_elements);
    for (t_kro_ptr n = kro_llist_first(h->reqtable); n != nullptr; n = kro_llist_next(h->reqtable, n))
        EXPECT_TRUE(((t_qel_hspace_request)n)->initial_image_complete);
    qel_hspace_unlock(h);
    CloseAndDestroy(&h);
    EXPECT_EQ(8u, g_events.events().size());
}

// One write: stray answers for ids never issued, a put's reply, an
// asynchronous get's answer larger than the read buffer, a notification.
// Then a synchronous get's whole answer, one byte per write.
TEST_F(Reader, MergedPacketsSplitPacketsAndStrayAnswersLeaveTheReaderWorking)
{
    int urid = 0;
    ObjectList list;
    UserObject object("p");
    Call put([&] { return qel_hspace_put(h, object.obj, HSPACE_PUT_SYNC, 0); });
    Packet pp = c.next_packet();
    ASSERT_EQ(0u, qel_hspace_get(h, "big", &urid, HSPACE_GET_ASYNC, 0, 0, nullptr));
    Packet gp = c.next_packet();
    ASSERT_TRUE(pp.rr && gp.rr);
    std::string big(3 * HSPACE_PKT_READBUF_SIZE + 17, 'x');
    for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('a' + i % 26);
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

    Call get([&] { return qel_hspace_get(h, "small", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Packet p = c.next_packet();
    ASSERT_TRUE(p.rr);
    std::string bytes;
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "small/1", "v1", 2, 1);
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "small/2", "v2", 2, 2);
    ASSERT_TRUE(c.send_raw_bytewise(bytes));
    EXPECT_EQ(0u, get.result());
    EXPECT_EQ((Pairs{{"small/1", "v1"}, {"small/2", "v2"}}), list.contents());

    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(&urid, ev[0].urid);
    EXPECT_EQ(big, ev[0].object_value);
    EXPECT_EQ(3, ev[1].trigger);
    EXPECT_EQ("after", ev[1].object_value);
}

} // namespace
