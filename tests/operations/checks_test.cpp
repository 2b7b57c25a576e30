/*
 * checks_test.cpp - the checks every operation makes before it takes the
 * handle's lock, in their fixed order: the library started (7), null
 * arguments and unknown semantics (12), unsupported variants (14), the
 * handle's state (13), the reader thread (23).
 */
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

template <typename T> T Sem(int v) { return static_cast<T>(v); }

// A handle never opened: HSPACE_STATE_INIT.
class CheckOrder : public ::testing::Test {
protected:
    FakeService svc; // the service
    Client c{svc};   // the handle
};
using CheckOrderOpen = OpenClientTest;

// Each row is one call on the never-opened handle and the check that must
// answer it.
TEST_F(CheckOrder, EveryOperationChecksInOrder)
{
    UserObject o("k", "value"), window("k", "value");
    window.buf->pos = 4;
    window.buf->lim = 3; // pos past lim
    ObjectList list, read_only;
    read_only->read_only = 1;
    t_qel_hspace h = c.h;
    const struct {
        std::function<t_kro_error()> call;
        t_kro_error want;
    } rows[] = {
        {[&] { return qel_hspace_put(nullptr, o.obj, HSPACE_PUT_SYNC, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_put(h, nullptr, HSPACE_PUT_PIPELINED, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_put(h, o.obj, Sem<t_qel_hspace_put_semantic>(3), 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_put(h, o.obj, Sem<t_qel_hspace_put_semantic>(-1), 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_put(h, window.obj, HSPACE_PUT_SYNC, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_put(h, window.obj, HSPACE_PUT_PIPELINED, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_put(h, o.obj, HSPACE_PUT_PIPELINED, 0); }, KRO_ERR_NOT_SUPPORTED},
        {[&] { return qel_hspace_put(h, o.obj, HSPACE_PUT_SYNC, 0); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_put(h, o.obj, HSPACE_PUT_NOREPLY, 0); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_get(nullptr, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_get(h, nullptr, nullptr, HSPACE_GET_SYNC, 0, 0, list); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_get(h, "k", nullptr, Sem<t_qel_hspace_get_semantic>(12), 0, 0, list); },
         KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, nullptr); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 1, 0, nullptr); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, read_only); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 1, 0, list); }, KRO_ERR_NOT_SUPPORTED},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_ASYNC, -1, 0, nullptr); }, KRO_ERR_NOT_SUPPORTED},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_get(h, "k", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_post(nullptr, "k", nullptr, HSPACE_POST_SYNC, 0, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_post(h, nullptr, nullptr, HSPACE_POST_SYNC, 0, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_post(h, "k", nullptr, Sem<t_qel_hspace_post_semantic>(21), 0, 0); },
         KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_post(h, "k", nullptr, HSPACE_POST_SYNC, 0, 0); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_cancel(nullptr, "k", HSPACE_CANCEL_SYNC, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_cancel(h, nullptr, HSPACE_CANCEL_SYNC, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_cancel(h, "k", Sem<t_qel_hspace_cancel_semantic>(31), 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_cancel(h, "k", HSPACE_CANCEL_SYNC, 0); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_remove(nullptr, "k", HSPACE_REMOVE_SYNC, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_remove(h, nullptr, HSPACE_REMOVE_NOREPLY, 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_remove(h, "k", Sem<t_qel_hspace_remove_semantic>(42), 0); }, KRO_ERR_INVALID_ARG},
        {[&] { return qel_hspace_remove(h, "k", HSPACE_REMOVE_SYNC, 0); }, KRO_ERR_INVALID_STATE},
        {[&] { return qel_hspace_remove(h, "k", HSPACE_REMOVE_NOREPLY, 0); }, KRO_ERR_INVALID_STATE},
    };
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; i++) EXPECT_EQ(rows[i].want, rows[i].call()) << "row " << i;
    EXPECT_EQ(0, list->num_elements);

    // On an open handle PIPELINED is refused without sending anything: the
    // next packet the service sees is the remove that follows.
    ASSERT_TRUE(c.open());
    EXPECT_EQ(KRO_ERR_NOT_SUPPORTED, Bounded([&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_PIPELINED, 0); }));
    Packet sent;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_remove(c.h, "k", HSPACE_REMOVE_SYNC, 0); }, ReplyWith(0),
                           &sent));
    ExpectRequest(sent, codec::kOpRemove, codec::kSemSync, "k", codec::kTypeRequest);
}

// A key the 16-bit length field cannot carry is an argument error for every
// operation, ahead of the state check; 65535 bytes pass the argument checks.
TEST_F(CheckOrder, KeyOf65536BytesIsAnArgumentError)
{
    ObjectList list;
    UserObject too_long(std::string(65536, 'k'), "v");
    UserObject longest(std::string(65535, 'k'), "v");
    for (t_kro_error r : CallEveryOperation(c.h, too_long.obj, list, too_long.key.c_str()))
        EXPECT_EQ(KRO_ERR_INVALID_ARG, r);
    for (t_kro_error r : CallEveryOperation(c.h, longest.obj, list, longest.key.c_str()))
        EXPECT_EQ(KRO_ERR_INVALID_STATE, r);
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_put(c.h, too_long.obj, HSPACE_PUT_PIPELINED, 0)) << "12 before 14";
}

// With the library stopped every call answers 7 before looking at its
// arguments, also on a handle made while it was running.
TEST_F(CheckOrder, EveryCallBeforeInitializeReturns7)
{
    UserObject o("k", "v");
    ObjectList list;
    ASSERT_EQ(0u, qel_hspace_finalize());
    t_qel_hspace_object copy = o.obj;
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_create(nullptr, nullptr, nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_get_key(nullptr, nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_get_data(nullptr, nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_destroy(&copy));
    EXPECT_EQ(o.obj, copy) << "nothing freed";
    for (t_qel_hspace h : {static_cast<t_qel_hspace>(nullptr), c.h})
        for (t_kro_error r : CallEveryOperation(h, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, r);
    InitLibrary();
}

// Every operation on a handle that is not open returns 13: never opened,
// closed after opening, failed with its connection.
TEST_F(CheckOrder, EveryOperationOnAHandleThatIsNotOpenReturns13)
{
    UserObject o("k", "v");
    ObjectList list;
    for (t_kro_error r : CallEveryOperation(c.h, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_INVALID_STATE, r);

    Client closed(svc);
    ASSERT_TRUE(closed.open());
    ASSERT_EQ(0u, qel_hspace_close(closed.h));
    EXPECT_EQ(HSPACE_STATE_CLOSED, State(closed.h));
    for (t_kro_error r : CallEveryOperation(closed.h, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_INVALID_STATE, r);

    Client failed(svc);
    ASSERT_TRUE(failed.open());
    failed.conn.close();
    ASSERT_TRUE(failed.events.wait_count(1));
    EXPECT_EQ(HSPACE_EVENT_LINK_FAIL, failed.events.events()[0].type);
    EXPECT_EQ(HSPACE_STATE_FAILED, State(failed.h));
    for (t_kro_error r : CallEveryOperation(failed.h, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_INVALID_STATE, r);

    EXPECT_EQ(0, list->num_elements);
}

// Inside the callback of a notification (raised without the lock) and of a
// reply-image event (the lock released around it) every operation returns
// 23 and destroy 13; nothing is sent and the handle serves on.
TEST_F(CheckOrderOpen, EveryOperationFromTheCallbackReturns23)
{
    UserObject o("k", "v");
    ObjectList list;
    std::vector<std::vector<t_kro_error>> results; // per event; written by the hook, read after wait_count
    c.events.set_hook([&](t_qel_hspace h, const Event &) {
        std::vector<t_kro_error> r = CallEveryOperation(h, o.obj, list, "k");
        t_qel_hspace copy = h;
        r.push_back(qel_hspace_destroy(&copy)); // still open: refused with 13
        EXPECT_EQ(h, copy);
        results.push_back(r);
    });

    c.conn.notify("k", 1, "changed");
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); },
                           ObjectsWith(codec::kOpGet, {{"k", "v"}})));
    ASSERT_TRUE(c.events.wait_count(2));
    c.events.set_hook(nullptr);

    ASSERT_EQ(2u, results.size());
    for (const auto &per_event : results) {
        ASSERT_EQ(9u, per_event.size());
        for (size_t i = 0; i < 8; i++) EXPECT_EQ(KRO_ERR_WOULD_DEADLOCK, per_event[i]);
        EXPECT_EQ(KRO_ERR_INVALID_STATE, per_event[8]);
    }

    Packet sent;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                           ReplyWith(KRO_ERR_NO_MATCH), &sent));
    ExpectRequest(sent, codec::kOpGet, codec::kSemSync, "k", codec::kTypeRequest);
    EXPECT_EQ(0, list->num_elements);
}

} // namespace
} // namespace ops
