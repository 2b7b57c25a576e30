// checks_test.cpp - the checks every call makes before it takes the lock, in
// order: library started (7), arguments (12), variant supported (14), state
// (13), not on the reader thread (23).
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

template <typename T> T Sem(int v) { return static_cast<T>(v); }

class CheckOrder : public ::testing::Test { // a handle never opened
protected:
    FakeService svc; // the service
    Client c{svc};   // the handle
};
using CheckOrderOpen = OpenClientTest;

// One call on the never-opened handle per row, and the check that answers it.
TEST_F(CheckOrder, EveryOperationChecksInOrder)
{
    UserObject o("k", "value"), window("k", "value");
    window.buf->pos = 4;
    window.buf->lim = 3; // pos past lim
    ObjectList list, read_only;
    read_only->read_only = 1;
    t_qel_hspace h = c.h;
    const t_kro_llist l = list, ro = read_only;
    const std::pair<t_kro_error, t_kro_error> rows[] = { // (result, expected)
        {qel_hspace_put(h, nullptr, HSPACE_PUT_PIPELINED, 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_put(h, o.obj, Sem<t_qel_hspace_put_semantic>(3), 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_put(h, o.obj, Sem<t_qel_hspace_put_semantic>(-1), 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_put(h, window.obj, HSPACE_PUT_SYNC, 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_put(h, window.obj, HSPACE_PUT_PIPELINED, 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_put(h, o.obj, HSPACE_PUT_PIPELINED, 0), KRO_ERR_NOT_SUPPORTED},
        {qel_hspace_get(h, "k", nullptr, Sem<t_qel_hspace_get_semantic>(12), 0, 0, l), KRO_ERR_INVALID_ARG},
        {qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, nullptr), KRO_ERR_INVALID_ARG},
        {qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 1, 0, nullptr), KRO_ERR_INVALID_ARG},
        {qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, ro), KRO_ERR_INVALID_ARG},
        {qel_hspace_get(h, "k", nullptr, HSPACE_GET_SYNC, 1, 0, l), KRO_ERR_NOT_SUPPORTED},
        {qel_hspace_get(h, "k", nullptr, HSPACE_GET_ASYNC, -1, 0, nullptr), KRO_ERR_NOT_SUPPORTED},
        {qel_hspace_post(h, "k", nullptr, Sem<t_qel_hspace_post_semantic>(21), 0, 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_cancel(h, "k", Sem<t_qel_hspace_cancel_semantic>(31), 0), KRO_ERR_INVALID_ARG},
        {qel_hspace_remove(h, "k", Sem<t_qel_hspace_remove_semantic>(42), 0), KRO_ERR_INVALID_ARG},
    };
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; i++) EXPECT_EQ(rows[i].second, rows[i].first) << "row " << i;
    for (t_kro_error r : CallEveryOperation(nullptr, o.obj, l, "k")) EXPECT_EQ(KRO_ERR_INVALID_ARG, r) << "null handle";
    for (t_kro_error r : CallEveryOperation(h, nullptr, l, nullptr)) EXPECT_EQ(KRO_ERR_INVALID_ARG, r) << "null key";
    EXPECT_EQ(0, list->num_elements);
}

// A key the 16-bit length field cannot carry is an argument error for every
// operation, ahead of the state check; 65535 bytes pass on to the state
// check (13) on a handle never opened, closed after opening, or failed.
TEST_F(CheckOrder, KeyLengthThenStateOnEveryHandleThatIsNotOpen)
{
    ObjectList list;
    UserObject too_long(std::string(65536, 'k'), "v"), longest(std::string(65535, 'k'), "v");
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_put(c.h, too_long.obj, HSPACE_PUT_PIPELINED, 0)) << "12 before 14";
    Client closed(svc), failed(svc);
    ASSERT_TRUE(closed.open() && failed.open());
    ASSERT_EQ(0u, qel_hspace_close(closed.h));
    failed.conn.close();
    ASSERT_TRUE(failed.events.wait_count(1)); // the link failure: failed
    for (t_qel_hspace h : {c.h, closed.h, failed.h}) {
        for (t_kro_error r : CallEveryOperation(h, too_long.obj, list, too_long.key.c_str()))
            EXPECT_EQ(KRO_ERR_INVALID_ARG, r);
        for (t_kro_error r : CallEveryOperation(h, longest.obj, list, longest.key.c_str()))
            EXPECT_EQ(KRO_ERR_INVALID_STATE, r);
    }
    EXPECT_EQ(0, list->num_elements);
}

// The object calls check their arguments (12); an application's object
// borrows its key (the very pointer) and buffer, which create and destroy
// leave untouched, and a destroy sets the variable to null. With the library
// stopped every call answers 7 before looking at its arguments.
TEST_F(CheckOrder, ObjectArgumentsAndTheStoppedLibrary)
{
    UserObject o("k", "v");
    o.buf->pos = 1;
    o.buf->lim = 1; // an empty window: pos and lim are the application's
    t_qel_hspace_object none = nullptr, made = nullptr, copy = o.obj;
    t_kro_str key = nullptr;
    t_kro_ptr data = nullptr;
    const t_kro_error rows[] = {
        qel_hspace_object_create(nullptr, o.buf, &made), qel_hspace_object_create("k", o.buf, nullptr),
        qel_hspace_object_get_key(nullptr, &key),        qel_hspace_object_get_key(o.obj, nullptr),
        qel_hspace_object_get_data(nullptr, &data),      qel_hspace_object_get_data(o.obj, nullptr),
        qel_hspace_object_destroy(nullptr),              qel_hspace_object_destroy(&none),
    };
    for (size_t i = 0; i < 8; i++) EXPECT_EQ(KRO_ERR_INVALID_ARG, rows[i]) << "row " << i;
    EXPECT_EQ(nullptr, made);
    ASSERT_EQ(0u, qel_hspace_object_get_key(o.obj, &key));
    ASSERT_EQ(0u, qel_hspace_object_get_data(o.obj, &data));
    EXPECT_EQ(o.key.c_str(), key);
    EXPECT_EQ(static_cast<t_kro_ptr>(o.buf), data);
    ASSERT_EQ(0u, qel_hspace_object_create(o.key.c_str(), o.buf, &made));
    ASSERT_EQ(0u, qel_hspace_object_destroy(&made));
    EXPECT_EQ(nullptr, made);
    EXPECT_EQ(1, o.buf->refcount);
    EXPECT_EQ(1u, o.buf->pos);
    EXPECT_EQ(1u, o.buf->lim);

    ObjectList list;
    ASSERT_EQ(0u, qel_hspace_finalize());
    for (t_kro_error r : {qel_hspace_object_create(nullptr, nullptr, nullptr), qel_hspace_object_destroy(&copy),
                          qel_hspace_object_get_key(nullptr, nullptr), qel_hspace_object_get_data(nullptr, nullptr)})
        EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, r);
    EXPECT_EQ(o.obj, copy) << "nothing freed";
    for (t_qel_hspace h : {static_cast<t_qel_hspace>(nullptr), c.h})
        for (t_kro_error r : CallEveryOperation(h, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, r);
    InitLibrary();
}

// Inside the callback of a notification (raised without the lock) and of a
// reply-image event (the lock released around it) every operation returns
// 23 and destroy 13; nothing is sent and the handle serves on. A pipelined
// put is refused (14) without sending anything either.
TEST_F(CheckOrderOpen, EveryOperationFromTheCallbackReturns23)
{
    UserObject o("k", "v");
    ObjectList list;
    std::vector<std::vector<t_kro_error>> results; // per event; written by the hook, read after wait_count
    c.events.set_hook([&](t_qel_hspace h, const Event &) {
        results.push_back(CallEveryOperation(h, o.obj, list, "k"));
        t_qel_hspace copy = h;
        results.back().push_back(qel_hspace_destroy(&copy));
        EXPECT_EQ(h, copy);
    });
    c.conn.notify("k", 1, "changed");
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); },
                           ObjectsWith(codec::kOpGet, {{"k", "v"}})));
    ASSERT_TRUE(c.events.wait_count(2));
    std::vector<t_kro_error> want(8, KRO_ERR_WOULD_DEADLOCK);
    want.push_back(KRO_ERR_INVALID_STATE); // destroy of an open handle
    EXPECT_EQ(decltype(results)(2, want), results);
    EXPECT_EQ(KRO_ERR_NOT_SUPPORTED, Bounded([&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_PIPELINED, 0); }));
    Packet sent;
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                           ReplyWith(KRO_ERR_NO_MATCH), &sent));
    ExpectRequest(sent, codec::kOpGet, codec::kSemSync, "k", codec::kTypeRequest);
    EXPECT_EQ(0, list->num_elements);
}

} // namespace
} // namespace ops
