/*
 * get_test.cpp - get's flags on the wire. The request's other fields, the
 * result list, status-only answers and asynchronous events are in
 * connection/reader_test.cpp.
 */
#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

// Only the flag bits 1 and 4 reach the wire, for both semantics.
using Get = OpenClientTest;

TEST_F(Get, FlagsAreMaskedOnTheWire)
{
    ObjectList list;
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
}

} // namespace
} // namespace ops
