/*
 * endings_test.cpp - how a connection ends, white-box: the service sending
 * bytes that are no packet, close (and destroy) inside a reply callback,
 * close and destroy inside the link-failure callback. A close from another
 * thread and a dropped connection are in operations/cut_test.cpp.
 */
#include <string.h>

#include <atomic>

#include "kro.h"

#include "fake_service.h"

/* The library's kro_mm_free calls are compared with a watched address, so a
 * test sees the very release of a handle whose destruction was deferred to
 * its reader thread, and how many callbacks were running then. */
static std::atomic<void *> s_watched{nullptr};
static hspace::test::Signal *s_released = nullptr;
static std::atomic<int> s_callbacks_at_release{-1};
static t_kro_error qel_test_watched_free(void *variable);
#define kro_mm_free(variable) qel_test_watched_free(variable)
#include "qel_hspace.cpp"
#undef kro_mm_free

#include "client_harness.h"

static t_kro_error qel_test_watched_free(void *variable)
{
    void *block = nullptr;
    if (variable != nullptr) memcpy(&block, variable, sizeof block);
    t_kro_error error = kro_mm_free(variable);
    if (block != nullptr && block == s_watched.load()) {
        s_callbacks_at_release.store(hspace::test::g_events.running());
        s_released->raise();
    }
    return error;
}

namespace {

using namespace hspace::test;

using Endings = LibraryTest;
using Ending = ConnectedTest;

// A good packet in the same write as the bad bytes is still delivered; the
// blocked caller and the link failure get the framing error.
TEST_F(Endings, BytesThatAreNoPacketFailTheLinkWithInvalidPacket)
{
    std::string past_end, short_section, short_body;
    codec::put_header(past_end, 48, 0, 0, 1, codec::kTypeReply);
    codec::put_preamble(past_end, codec::kTypeRr, 24);
    past_end.append(16, '\0');
    codec::put_preamble(past_end, codec::kTypeReply, 8);
    // A 4-byte rr section whose length field the next section's preamble
    // overlaps; it frames exactly only if the short section is taken.
    codec::put_header(short_section, 44, 0, 0, 1, codec::kTypeReply);
    codec::put_preamble(short_section, codec::kTypeRr, 4);
    short_section.append("\0\0\0\x08", 4);
    codec::put_header(short_body, 44, 0, 0, 0, codec::kTypeReply);
    codec::put_preamble(short_body, codec::kTypeReply, 8);
    short_body.append(4, '\0'); // wirelen 44: 4 bytes past the body
    const std::pair<const char *, std::string> inputs[] = {
        {"bad magic", "GARBAGE!GARBAGE!GARBAGE!GARBAGE!GARBAGE!"},
        {"sections past wirelen", past_end},
        {"section shorter than a preamble", short_section},
        {"sections short of wirelen", short_body}};
    for (const auto &input : inputs) {
        SCOPED_TRACE(input.first);
        g_events.reset();
        FakeService svc;
        t_qel_hspace h = nullptr;
        FakeConnection c;
        ASSERT_NO_FATAL_FAILURE(OpenOn(svc, &h, &c));
        Call remove([&] { return qel_hspace_remove(h, "k", HSPACE_REMOVE_SYNC, 0); });
        c.next_packet();
        c.batch();
        c.notify("before", 2);
        c.send_raw(input.second);
        ASSERT_TRUE(c.flush());
        EXPECT_EQ(KRO_ERR_INVALID_PACKET, remove.result());
        ASSERT_TRUE(g_events.wait_count(2));
        EXPECT_EQ(HSPACE_STATE_FAILED, State(h));
        CloseAndDestroy(&h);
        std::vector<Event> ev = g_events.events();
        ASSERT_EQ(2u, ev.size());
        EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, ev[0].type);
        EXPECT_EQ(HSPACE_EVENT_LINK_FAIL, ev[1].type);
        EXPECT_EQ(KRO_ERR_INVALID_PACKET, ev[1].status);
    }
}

// What a callback that closes, and maybe destroys, its handle got back.
struct CloseFromCallback {
    t_kro_error closed = 99, destroyed = 99;
    t_qel_hspace_state after_close = HSPACE_STATE_INIT;
    t_qel_hspace left = nullptr; // the pointer destroy was given: a deferred destroy leaves it alone
    Signal released;

    void run(t_qel_hspace hh, bool destroy)
    {
        closed = qel_hspace_close(hh);
        after_close = State(hh);
        if (!destroy) return;
        left = hh;
        s_released = &released;
        s_watched.store(hh);
        destroyed = qel_hspace_destroy(&left);
    }
    // The reader thread released h after the last callback had returned.
    void expect_released(t_qel_hspace h)
    {
        ASSERT_TRUE(released.wait());
        s_watched.store(nullptr);
        EXPECT_EQ(0, s_callbacks_at_release.load());
        EXPECT_EQ(0u, destroyed);
        EXPECT_EQ(h, left);
    }
};

// Close (and, with destroy, destroy) inside the first reply callback: the
// packet in hand is finished, the next one buffered is never processed, the
// remaining requests complete with 18.
void CloseInsideAReplyCallback(t_qel_hspace &h, FakeConnection &c, bool destroy)
{
    CloseFromCallback cb;
    int urid1 = 0, urid2 = 0;
    ObjectList list;
    std::unique_ptr<Call> sync_get;
    ASSERT_EQ(0u, qel_hspace_get(h, "g1", &urid1, HSPACE_GET_ASYNC, 0, 0, nullptr));
    Packet g1 = c.next_packet();
    ASSERT_TRUE(g1.rr);
    ASSERT_EQ(0u, qel_hspace_get(h, "g2", &urid2, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.next_packet();
    if (!destroy) { // a synchronous waiter would see its handle freed
        sync_get.reset(new Call([&] { return qel_hspace_get(h, "s", nullptr, HSPACE_GET_SYNC, 0, 0, list); }));
        c.next_packet();
    }
    std::atomic<int> calls{0};
    g_events.set_hook([&](t_qel_hspace hh, const Event &) {
        if (calls.fetch_add(1) == 0) cb.run(hh, destroy);
    });
    c.batch();
    c.object(g1.rr->corrid, codec::kOpGet, "g1", "v", 1, 1);
    c.notify("never-seen", 1);
    ASSERT_TRUE(c.flush());

    ASSERT_TRUE(g_events.wait_count(2));
    EXPECT_EQ(0u, cb.closed);
    EXPECT_EQ(HSPACE_STATE_CLOSING, cb.after_close);
    if (destroy) {
        cb.expect_released(h);
        h = nullptr;
    } else {
        EXPECT_EQ(KRO_ERR_CLOSED, sync_get->result());
        EXPECT_EQ(0u, qel_hspace_close(h));
        EXPECT_EQ(HSPACE_STATE_CLOSED, State(h));
        EXPECT_EQ(0u, qel_hspace_destroy(&h)); // joins the reader: no event follows
    }
    EXPECT_TRUE(c.wait_closed());
    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(&urid1, ev[0].urid);
    EXPECT_EQ(0u, ev[0].status);
    EXPECT_EQ(HSPACE_STATE_OPEN, ev[0].state);
    EXPECT_EQ(&urid2, ev[1].urid);
    EXPECT_EQ(KRO_ERR_CLOSED, ev[1].status);
    EXPECT_EQ(HSPACE_STATE_CLOSED, ev[1].state);
}

TEST_F(Ending, CloseInsideAReplyCallbackEndsTheConnectionAfterThatPacket)
{
    CloseInsideAReplyCallback(h, c, false);
}

TEST_F(Ending, CloseAndDestroyInsideAReplyCallbackReleaseTheHandleAfterTheLastCallback)
{
    CloseInsideAReplyCallback(h, c, true);
}

TEST_F(Ending, CloseAndDestroyInsideTheLinkFailureCallbackReleaseTheHandleAfterIt)
{
    CloseFromCallback cb;
    int urid = 0;
    ASSERT_EQ(0u, qel_hspace_get(h, "g", &urid, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.next_packet();
    g_events.set_hook([&](t_qel_hspace hh, const Event &e) {
        if (e.type == HSPACE_EVENT_LINK_FAIL) cb.run(hh, true);
    });
    c.close();
    cb.expect_released(h);
    h = nullptr;
    EXPECT_EQ(0u, cb.closed);
    EXPECT_EQ(HSPACE_STATE_CLOSED, cb.after_close);
    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(HSPACE_EVENT_GET_REPLY, ev[0].type);
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, ev[0].status);
    EXPECT_EQ(HSPACE_EVENT_LINK_FAIL, ev[1].type);
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, ev[1].status);
}

// A close inside a reply callback of the failure's sweep turns the failure
// into a close: no link-failure event, the rest end with the link's error.
TEST_F(Ending, CloseInsideAReplyCallbackOfALinkFailureSuppressesTheLinkFailureEvent)
{
    int urid1 = 0, urid2 = 0;
    ASSERT_EQ(0u, qel_hspace_get(h, "g1", &urid1, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.next_packet();
    ASSERT_EQ(0u, qel_hspace_get(h, "g2", &urid2, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.next_packet();
    CloseFromCallback cb;
    g_events.set_hook([&](t_qel_hspace hh, const Event &e) {
        if (e.urid == &urid1) cb.run(hh, false);
    });
    c.reset();
    ASSERT_TRUE(g_events.wait_count(2));
    EXPECT_EQ(0u, qel_hspace_close(h));
    EXPECT_EQ(0u, qel_hspace_destroy(&h)); // joins the reader: no event follows
    EXPECT_EQ(0u, cb.closed);
    EXPECT_EQ(HSPACE_STATE_CLOSED, cb.after_close);
    std::vector<Event> ev = g_events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(HSPACE_STATE_FAILED, ev[0].state);
    EXPECT_EQ(&urid2, ev[1].urid);
    EXPECT_EQ(HSPACE_STATE_CLOSED, ev[1].state);
    EXPECT_EQ(ev[0].status, ev[1].status); // the link's error, not 18
    EXPECT_NE(0u, ev[0].status);
    EXPECT_NE(KRO_ERR_CLOSED, ev[0].status);
}

} // namespace
