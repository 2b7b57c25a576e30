/*
 * endings_test.cpp - how a connection ends, white-box: close (and destroy)
 * inside a reply callback, close and destroy inside the link-failure
 * callback. Bytes that are no packet are in hostile/hostile_test.cpp; a
 * close from another thread and a dropped connection are in
 * operations/cut_test.cpp.
 */
#include <string.h>

#include <atomic>
#include <utility>

#include "kro.h"

#include "fake_service.h"

/* The library's kro_mm_free calls pass through a watch, so a test sees the
 * very release of a handle whose destruction was deferred to its reader
 * thread, and how many callbacks were running then. */
static t_kro_error qel_test_watched_free(void *variable);
#define kro_mm_free(variable) qel_test_watched_free(variable)
#include "qel_hspace.cpp"
#undef kro_mm_free

#include "client_harness.h"

namespace {

using namespace hspace::test;

using Endings = LibraryTest;
struct Ending : OpenClientTest {
    Watchdog watchdog_;
};

struct CloseFromCallback;
std::atomic<void *> s_watched{nullptr}; // the handle whose release is awaited
CloseFromCallback *s_watcher = nullptr; // told of that release; set before s_watched

// Closes c's handle, and with destroy also destroys it, inside the first
// callback whose event matches; keeps what those calls returned and sees the
// release of the handle by its reader thread.
struct CloseFromCallback {
    CloseFromCallback(Client &client, bool destroy, std::function<bool(const Event &)> match) : c(client)
    {
        c.events.set_hook([this, destroy, match](t_qel_hspace h, const Event &e) {
            if (!match(e) || ran.exchange(true)) return;
            closed = qel_hspace_close(h);
            after_close = State(h);
            if (!destroy) return;
            left = h;
            s_watcher = this;
            s_watched.store(h);
            destroyed = qel_hspace_destroy(&left);
        });
    }
    ~CloseFromCallback() { c.events.set_hook(nullptr); }

    // The reader thread released c's handle after the last callback had returned.
    void expect_released()
    {
        ASSERT_TRUE(released.wait());
        EXPECT_EQ(0, callbacks_at_release);
        EXPECT_EQ(0u, destroyed);
        EXPECT_EQ(c.h, left);
        c.h = nullptr;
    }

    Client &c;                                          // whose handle the callback closes
    std::atomic<bool> ran{false};                       // a callback has closed it
    t_kro_error closed = 99, destroyed = 99;            // what close and destroy returned
    t_qel_hspace_state after_close = HSPACE_STATE_INIT; // the state close left
    t_qel_hspace left = nullptr;   // the pointer destroy was given: a deferred destroy leaves it alone
    int callbacks_at_release = -1; // callbacks of c running when the handle's block was freed
    Signal released;               // the handle's block was freed
};

} // namespace

static t_kro_error qel_test_watched_free(void *variable)
{
    void *block = nullptr;
    if (variable != nullptr) memcpy(&block, variable, sizeof block);
    t_kro_error error = kro_mm_free(variable);
    if (block != nullptr && s_watched.compare_exchange_strong(block, nullptr)) {
        s_watcher->callbacks_at_release = s_watcher->c.events.running();
        s_watcher->released.raise();
    }
    return error;
}

namespace {

// Close (and, with destroy, destroy) inside the first reply callback: the
// packet in hand is finished, the next one buffered is never processed, the
// remaining requests complete with 18; a destroyed handle is released after
// the last callback.
TEST_F(Endings, CloseInsideAReplyCallbackEndsTheConnectionAfterThatPacket)
{
    FakeService svc;
    for (bool destroy : {false, true}) {
        SCOPED_TRACE(destroy ? "close and destroy" : "close");
        Client c(svc);
        ASSERT_TRUE(c.open());
        int urid1 = 0, urid2 = 0;
        ObjectList list;
        std::unique_ptr<Call> sync_get;
        ASSERT_EQ(0u, qel_hspace_get(c.h, "g1", &urid1, HSPACE_GET_ASYNC, 0, 0, nullptr));
        Packet g1 = c.conn.next_packet();
        ASSERT_TRUE(g1.rr);
        ASSERT_EQ(0u, qel_hspace_get(c.h, "g2", &urid2, HSPACE_GET_ASYNC, 0, 0, nullptr));
        c.conn.next_packet();
        if (!destroy) { // a synchronous waiter would see its handle freed
            sync_get.reset(new Call([&] { return qel_hspace_get(c.h, "s", nullptr, HSPACE_GET_SYNC, 0, 0, list); }));
            c.conn.next_packet();
        }
        CloseFromCallback cb(c, destroy, [](const Event &) { return true; });
        c.conn.batch();
        c.conn.object(g1.rr->corrid, codec::kOpGet, "g1", "v", 1, 1);
        c.conn.notify("never-seen", 1);
        ASSERT_TRUE(c.conn.flush());

        ASSERT_TRUE(c.events.wait_count(2));
        EXPECT_EQ(0u, cb.closed);
        EXPECT_EQ(HSPACE_STATE_CLOSING, cb.after_close);
        if (destroy) {
            cb.expect_released();
        } else {
            EXPECT_EQ(KRO_ERR_CLOSED, sync_get->result());
            EXPECT_EQ(0u, qel_hspace_close(c.h));
            EXPECT_EQ(HSPACE_STATE_CLOSED, State(c.h));
            t_qel_hspace h = std::exchange(c.h, nullptr);
            EXPECT_EQ(0u, qel_hspace_destroy(&h)); // joins the reader: no event follows
            EXPECT_EQ(nullptr, h);                 // and forgets the handle
        }
        EXPECT_TRUE(c.conn.wait_closed());
        std::vector<Event> ev = c.events.events();
        ASSERT_EQ(2u, ev.size());
        EXPECT_EQ(&urid1, ev[0].urid);
        EXPECT_EQ(0u, ev[0].status);
        EXPECT_EQ(HSPACE_STATE_OPEN, ev[0].state);
        EXPECT_EQ(&urid2, ev[1].urid);
        EXPECT_EQ(KRO_ERR_CLOSED, ev[1].status);
        EXPECT_EQ(HSPACE_STATE_CLOSED, ev[1].state);
    }
}

TEST_F(Ending, CloseAndDestroyInsideTheLinkFailureCallbackReleaseTheHandleAfterIt)
{
    int urid = 0;
    ASSERT_EQ(0u, qel_hspace_get(c.h, "g", &urid, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.conn.next_packet();
    CloseFromCallback cb(c, true, [](const Event &e) { return e.type == HSPACE_EVENT_LINK_FAIL; });
    c.conn.close();
    cb.expect_released();
    EXPECT_EQ(0u, cb.closed);
    EXPECT_EQ(HSPACE_STATE_CLOSED, cb.after_close);
    std::vector<Event> ev = c.events.events();
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
    ASSERT_EQ(0u, qel_hspace_get(c.h, "g1", &urid1, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.conn.next_packet();
    ASSERT_EQ(0u, qel_hspace_get(c.h, "g2", &urid2, HSPACE_GET_ASYNC, 0, 0, nullptr));
    c.conn.next_packet();
    CloseFromCallback cb(c, false, [&](const Event &e) { return e.urid == &urid1; });
    c.conn.reset();
    ASSERT_TRUE(c.events.wait_count(2));
    EXPECT_EQ(0u, qel_hspace_close(c.h));
    EXPECT_EQ(0u, qel_hspace_destroy(&c.h)); // joins the reader: no event follows
    EXPECT_EQ(0u, cb.closed);
    EXPECT_EQ(HSPACE_STATE_CLOSED, cb.after_close);
    std::vector<Event> ev = c.events.events();
    ASSERT_EQ(2u, ev.size());
    EXPECT_EQ(HSPACE_STATE_FAILED, ev[0].state);
    EXPECT_EQ(&urid2, ev[1].urid);
    EXPECT_EQ(HSPACE_STATE_CLOSED, ev[1].state);
    EXPECT_EQ(ev[0].status, ev[1].status); // the link's error, not 18
    EXPECT_NE(0u, ev[0].status);
    EXPECT_NE(KRO_ERR_CLOSED, ev[0].status);
}

} // namespace
