/*
 * objects_test.cpp - the keyed object: what an application-made object
 * borrows and leaves alone, what a library-made object owns, the argument
 * checks, and every object and data operation before the library starts.
 */
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

TEST(Objects, CreateBorrowsKeyAndDataAndChecksArguments)
{
    InitLibrary();
    const char *key = "borrowed";
    t_qel_hspace_object o = nullptr;
    t_kro_str got_key = nullptr;
    t_kro_ptr got_data = &got_key;

    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_create(nullptr, nullptr, &o));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_create(key, nullptr, nullptr));
    EXPECT_EQ(nullptr, o);

    ASSERT_EQ(0u, qel_hspace_object_create(key, nullptr, &o));
    ASSERT_NE(nullptr, o);
    EXPECT_EQ(0u, qel_hspace_object_get_key(o, &got_key));
    EXPECT_EQ(key, got_key) << "the very pointer, not a copy";
    EXPECT_EQ(0u, qel_hspace_object_get_data(o, &got_data));
    EXPECT_EQ(nullptr, got_data);

    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_get_key(nullptr, &got_key));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_get_key(o, nullptr));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_get_data(nullptr, &got_data));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_get_data(o, nullptr));

    EXPECT_EQ(0u, qel_hspace_object_destroy(&o));
    EXPECT_EQ(nullptr, o);
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_destroy(&o)) << "the variable already holds null";
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_object_destroy(nullptr));
}

TEST(Objects, DestroyingAnApplicationObjectLeavesKeyAndBuffer)
{
    InitLibrary();
    char key[] = "mine";
    t_kro_buf buf = nullptr;
    kro_buf_create(&buf, 16, 1);
    buf->pos = 2;
    buf->lim = 9;
    t_qel_hspace_object o = nullptr;
    ASSERT_EQ(0u, qel_hspace_object_create(key, buf, &o));
    t_kro_ptr data = nullptr;
    EXPECT_EQ(0u, qel_hspace_object_get_data(o, &data));
    EXPECT_EQ(buf, data);
    EXPECT_EQ(1, buf->refcount) << "create takes no reference";

    EXPECT_EQ(0u, qel_hspace_object_destroy(&o));
    EXPECT_EQ(nullptr, o);
    EXPECT_STREQ("mine", key);
    EXPECT_EQ(1, buf->refcount);
    EXPECT_EQ(2u, buf->pos);
    EXPECT_EQ(9u, buf->lim);
    kro_buf_release(&buf); // still ours, and still valid (ASan checks)
}

// A library-made object owns its key copy and its value; one with an empty
// value has a null buffer, and destroying it frees key and record only. A
// value's bytes share the buffer record's block (wrapped: one release frees
// both).
using LibraryObjects = OpenClientTest;

TEST_F(LibraryObjects, OwnKeyAndValue)
{
    ObjectList list;
    t_kro_error r = Exchange(c, [&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
                             ObjectsWith(codec::kOpGet, {{"empty", ""}, {"full", "abc"}}));
    EXPECT_EQ(0u, r);
    ASSERT_EQ(2, list->num_elements);
    auto empty = static_cast<t_qel_hspace_object>(kro_llist_first(list));
    auto full = static_cast<t_qel_hspace_object>(kro_llist_next(list, empty));
    t_kro_ptr data = &data;
    EXPECT_EQ(0u, qel_hspace_object_get_data(empty, &data));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ("empty", ObjectKey(empty));
    EXPECT_EQ(0u, qel_hspace_object_get_data(full, &data));
    t_kro_buf buf = static_cast<t_kro_buf>(data);
    ASSERT_NE(nullptr, buf);
    EXPECT_EQ(1, buf->refcount);
    EXPECT_NE(0, buf->wrapped);
    EXPECT_EQ(static_cast<t_kro_ptr>(buf + 1), buf->ptr);
    EXPECT_EQ(0u, buf->pos);
    EXPECT_EQ(3u, buf->lim);
    EXPECT_EQ(3u, buf->size);
    EXPECT_EQ("abc", ObjectValue(full));
}

// With the library stopped, every object and data operation answers 7 before
// looking at its arguments, also on a handle made while it was running.
TEST(Objects, EveryOperationBeforeInitializeReturns7)
{
    FakeService svc;
    Client c(svc);
    UserObject o("k", "v");
    ObjectList list;
    ASSERT_EQ(0u, qel_hspace_finalize());

    t_qel_hspace_object null_object = nullptr;
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_create(nullptr, nullptr, nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_get_key(nullptr, nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_get_data(nullptr, nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_destroy(nullptr));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_destroy(&null_object));
    EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, qel_hspace_object_destroy(&o.obj));
    EXPECT_NE(nullptr, o.obj) << "nothing freed";

    for (t_kro_error r : CallEveryOperation(nullptr, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, r);
    for (t_kro_error r : CallEveryOperation(c.h, o.obj, list, "k")) EXPECT_EQ(KRO_ERR_NOT_INITIALIZED, r);

    InitLibrary();
}

} // namespace
} // namespace ops
