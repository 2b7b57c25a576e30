/*
 * reader_test.cpp - the reader thread and inbound dispatch, white-box:
 * replies matched to waiters by correlation id, a synchronous get's list,
 * reply-image and notification events with their fields, stray answers,
 * packets merged into one write or split into single bytes.
 */
#include "qel_hspace.cpp"

#include <map>

#include "client_harness.h"

namespace {

using namespace hspace::test;

struct Reader : OpenClientTest {
    Watchdog watchdog_;
};

// An answer with the given rr subheader: an object of opcode on "key", or a bare reply when opcode is 0.
std::string Encoded(const codec::RrSubheader &rr, uint8_t opcode = 0)
{
    Packet p;
    p.rr = rr;
    p.body_type = opcode != 0 ? codec::kTypeObject : codec::kTypeReply;
    if (opcode != 0) p.hspace = codec::HspaceSubheader();
    if (opcode != 0) p.hspace->opcode = opcode, p.hspace->key = "key";
    std::string bytes;
    codec::encode(bytes, p);
    return bytes;
}

// One write: a reply marked as a request and stray answers for ids never
// issued (all dropped), four waiters' replies in reverse order each with a
// status of its own, an asynchronous get's object larger than the read
// buffer, a notification. Then a synchronous get whose objects arrive out of
// order one byte per write, and one ended by a failed object.
TEST_F(Reader, AnswersReachTheirWaitersByCorrelationIdWhateverTheWrites)
{
    UserObject object("k-put");
    ObjectList list;
    int urid = 0;
    Call put([&] { return qel_hspace_put(c.h, object.obj, HSPACE_PUT_SYNC, 0); });
    Call remove([&] { return qel_hspace_remove(c.h, "k-remove", HSPACE_REMOVE_SYNC, -1); });
    Call get([&] { return qel_hspace_get(c.h, "k-get", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Call cancel([&] { return qel_hspace_cancel(c.h, "k-cancel", HSPACE_CANCEL_SYNC, 0); });
    std::vector<Packet> requests;
    for (int i = 0; i < 4; i++) {
        requests.push_back(c.conn.next_packet());
        ASSERT_TRUE(requests.back().rr && requests.back().hspace);
        EXPECT_EQ(codec::kSemSync, requests.back().hspace->semantic);
        EXPECT_EQ(0, requests.back().hspace->flags);
    }
    ASSERT_EQ(0u, qel_hspace_get(c.h, "big", &urid, HSPACE_GET_ASYNC, 0, 0, nullptr));
    Packet gp = c.conn.next_packet();
    ASSERT_TRUE(gp.rr);
    std::string big(3 * HSPACE_PKT_READBUF_SIZE + 17, 'x');
    for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('a' + i % 26);
    std::map<std::string, t_kro_error> status = {
        {"k-put", KRO_ERR_NO_MATCH}, {"k-remove", 0xDEADBEEF}, {"k-get", 0x7003}, {"k-cancel", 0x7004}};
    c.conn.batch();
    c.conn.send_raw(Encoded(codec::RrSubheader::request(requests[0].rr->corrid)));
    c.conn.object(0x3FFFFFFF, codec::kOpGet, "stray", "s", 1, 1);
    c.conn.object(0x3FFFFFFF, codec::kOpPost, "stray", "s", 1, 1);
    c.conn.reply(0x3FFFFFFE, 0);
    c.conn.reply(0, 5);
    for (auto it = requests.rbegin(); it != requests.rend(); ++it) c.conn.reply(it->rr->corrid, status.at(it->hspace->key));
    c.conn.object(gp.rr->corrid, codec::kOpGet, "big", big, 1, 1);
    c.conn.notify("n", 3, "after");
    ASSERT_TRUE(c.conn.flush());
    EXPECT_EQ(KRO_ERR_NO_MATCH, put.result());
    EXPECT_EQ(0xDEADBEEFu, remove.result());
    EXPECT_EQ(0x7003u, get.result());
    EXPECT_EQ(0x7004u, cancel.result());
    ASSERT_TRUE(c.events.wait_count(2));
    std::vector<Event> ev = c.events.events();
    EXPECT_EQ(&urid, ev[0].urid);
    EXPECT_EQ(big, ev[0].object_value);
    EXPECT_EQ(3, ev[1].trigger);
    EXPECT_EQ("after", ev[1].object_value);
    EXPECT_EQ(0, c.h->reqtable->num_elements); // every caller has returned

    // The list keeps the caller's own object and gains the answer's in
    // arrival order; the object numbered like the count completes the get.
    t_qel_hspace_object mine = nullptr;
    ASSERT_EQ(0u, qel_hspace_object_create("mine", nullptr, &mine));
    kro_llist_append(list, mine);
    Call split([&] { return qel_hspace_get(c.h, "key", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    Packet p = c.conn.next_packet();
    ASSERT_TRUE(p.rr);
    EXPECT_TRUE(p.rr->is_request());
    ExpectRequest(p, codec::kOpGet, codec::kSemSync, "key", codec::kTypeRequest);
    std::string bytes;
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "key/b", "bee", 3, 2);
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "key/a", "", 3, 1);
    codec::encode_object(bytes, p.rr->corrid, codec::kOpGet, "key/c", std::string(3, '\0'), 3, 3);
    ASSERT_TRUE(c.conn.send_raw_bytewise(bytes));
    EXPECT_EQ(0u, split.result());
    kro_llist_remove(mine);
    EXPECT_EQ(0u, qel_hspace_object_destroy(&mine));
    EXPECT_EQ((Pairs{{"key/b", "bee"}, {"key/a", ""}, {"key/c", std::string(3, '\0')}}), list.contents());
    list.clear();

    Call failed([&] { return qel_hspace_get(c.h, "key", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
    p = c.conn.next_packet();
    ASSERT_TRUE(p.rr);
    c.conn.send_raw(Encoded(codec::RrSubheader::failure(p.rr->corrid, 77), codec::kOpGet));
    EXPECT_EQ(77u, failed.result());
    EXPECT_EQ(1u, list.contents().size());
    EXPECT_EQ(2u, c.events.count());
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
        ASSERT_EQ(0u, qel_hspace_get(c.h, key, &urids[i], HSPACE_GET_ASYNC, 0, 0, nullptr));
        strcpy(key, "xxxxx");
        g[i] = c.conn.next_packet();
        ASSERT_TRUE(g[i].rr);
    }
    c.conn.objects(g[0].rr->corrid, codec::kOpGet, {{"Get-1/x", "one"}, {"Get-1/y", ""}});
    c.conn.reply(g[1].rr->corrid, KRO_ERR_NO_MATCH);
    c.conn.reply(g[2].rr->corrid, 0); // success never answers an asynchronous get: dropped
    c.conn.reply(g[2].rr->corrid, 0x6001);

    // Two subscriptions: an image of two objects, and an empty image.
    Packet p1, p2;
    auto early_then_ok = [](FakeConnection &fc, const Packet &p) {
        fc.object(p.rr->corrid, codec::kOpPost, "early", "e", 1, 1); // before the post's reply: dropped
        fc.reply(p.rr->corrid, 0);
    };
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "Post-1", &urids[3], HSPACE_POST_SYNC, 0x0F, 0); },
                           early_then_ok, &p1));
    ASSERT_TRUE(p1.rr);
    c.conn.objects(p1.rr->corrid, codec::kOpPost, {{"Post-1/a", "A"}, {"Post-1/b", "B"}});
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_post(c.h, "Post-2", &urids[4], HSPACE_POST_SYNC, 0x0F, 0); },
                           ReplyWith(0), &p2));
    c.conn.reply(p2.rr->corrid, KRO_ERR_NO_MATCH);
    // Dropped: success for a subscription, anything for one whose image is
    // complete, an image object whose rr subheader is marked as a request.
    c.conn.reply(p1.rr->corrid, 0);
    c.conn.reply(p1.rr->corrid, 0x6002);
    c.conn.send_raw(Encoded(codec::RrSubheader::request(p1.rr->corrid), codec::kOpPost));
    c.conn.notify("never/subscribed", 0xFF, "v1"); // notifications come for any key

    ASSERT_TRUE(c.events.wait_count(8));
    std::vector<std::string> got; // "kind urid-index key status num/count object=value trigger"
    for (const Event &e : c.events.events()) {
        char line[160];
        int u = e.urid != nullptr ? static_cast<int>(static_cast<int *>(e.urid) - urids) : -1;
        const char *kind = e.type == HSPACE_EVENT_GET_REPLY ? "get" : e.type == HSPACE_EVENT_POST_IMAGE ? "image" : "";
        snprintf(line, sizeof line, "%s%s u%d %s %#x %u/%u %s=%s t%d", e.state == HSPACE_STATE_OPEN ? "" : "!open ",
                 e.type == HSPACE_EVENT_POST_NOTIFICATION ? "note" : kind, u, e.key.c_str(), unsigned(e.status),
                 unsigned(e.index), unsigned(e.cardinality), e.object_key.c_str(),
                 e.value_null ? "(null)" : e.object_value.c_str(), e.trigger);
        got.push_back(line);
    }
    EXPECT_EQ((std::vector<std::string>{"get u0 Get-1 0 1/2 Get-1/x=one t0", "get u0 Get-1 0 2/2 Get-1/y=(null) t0",
                                        "get u1 Get-2 0 0/0 = t0", "get u2 Get-3 0x6001 0/0 = t0",
                                        "image u3 Post-1 0 1/2 Post-1/a=A t0", "image u3 Post-1 0 2/2 Post-1/b=B t0",
                                        "image u4 Post-2 0 0/0 = t0", "note u-1  0 0/0 never/subscribed=v1 t255"}),
              got); // the trigger widened without sign

    // The gets are gone; both subscriptions remain, complete, and end
    // silently at close.
    qel_hspace_lock(c.h);
    EXPECT_EQ(2, c.h->reqtable->num_elements);
    for (t_kro_ptr n = kro_llist_first(c.h->reqtable); n != nullptr; n = kro_llist_next(c.h->reqtable, n))
        EXPECT_TRUE(((t_qel_hspace_request)n)->initial_image_complete);
    qel_hspace_unlock(c.h);
    EXPECT_EQ(0u, qel_hspace_close(c.h));
    EXPECT_EQ(8u, c.events.events().size());
}

} // namespace
