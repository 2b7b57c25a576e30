/*
 * open_test.cpp - opening a handle, white-box: the handshake bytes, a
 * refused connect, a service that hangs up or answers wrongly during the
 * handshake (the handle stays in HSPACE_STATE_INIT and a retry starts on a
 * clean stream), a second open, and what a successful open stores.
 */
#include "qel_hspace.cpp"

#include "client_harness.h"

namespace {

using namespace hspace::test;

using Open = LibraryTest;

TEST_F(Open, HandshakeCarriesDefaultsForNullAndEmptyStringsForEmptyNames)
{
    struct Case {
        const char *name, *group;         // given to create
        const char *sent_name, *sent_group; // expected in the handshake
    } cases[] = {{nullptr, nullptr, "anonymous", "default"}, {"", "", "", ""}, {"app-7", "grp", "app-7", "grp"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.sent_name);
        FakeService svc;
        Packet got;
        svc.serve([&got](FakeConnection &fc) { got = fc.handshake(); });
        t_qel_hspace h = nullptr;
        ASSERT_EQ(0u, Create(svc.url(), c.name, c.group, &h));
        ASSERT_EQ(0u, qel_hspace_open(h));
        ASSERT_TRUE(svc.join());
        ASSERT_TRUE(got.handshake_request.has_value());
        EXPECT_EQ("data", got.handshake_request->service_type);
        EXPECT_EQ(c.sent_name, got.handshake_request->client_name);
        EXPECT_EQ(c.sent_group, got.handshake_request->client_group);
        std::string expected;
        codec::encode_handshake_request(expected, "data", c.sent_name, c.sent_group);
        EXPECT_EQ(expected, got.raw);
        CloseAndDestroy(&h);
    }
}

TEST_F(Open, RefusedConnectLeavesInitAndTheSameHandleOpensOnceTheServiceListens)
{
    FakeService svc{FakeService::Deferred()};
    t_qel_hspace h = nullptr;
    ASSERT_EQ(0u, Create(svc.url(), "tester", "tests", &h));
    EXPECT_EQ(KRO_ERR_CONN_REFUSED, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_INIT, State(h));
    EXPECT_EQ(nullptr, h->reader);

    svc.listen();
    Packet got;
    svc.serve([&got](FakeConnection &c) { got = c.handshake(5, "late"); });
    ASSERT_EQ(0u, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    EXPECT_STREQ("late", h->service_name);
    ASSERT_TRUE(svc.join());
    EXPECT_EQ("tester", got.handshake_request.value_or(codec::HandshakeRequest()).client_name);
    CloseAndDestroy(&h);
}

TEST_F(Open, ServiceHangingUpMidHandshakeLeavesInitAndARetryReadsACleanStream)
{
    FakeService svc;
    // The first connection gets the first 20 bytes of a handshake reply, then
    // end of stream; bytes the reader keeps from it would corrupt the retry.
    std::string partial;
    codec::encode_handshake_reply(partial, 1, 5, "stale-name");
    partial.resize(20);
    svc.serve([&partial](FakeConnection &c) {
        c.expect_handshake();
        c.send_raw(partial);
        c.close();
    });
    svc.serve([](FakeConnection &c) { c.handshake(4242, "second", 7); });

    t_qel_hspace h = nullptr;
    ASSERT_EQ(0u, Create(svc.url(), "tester", "tests", &h));
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_INIT, State(h));
    ASSERT_NE(nullptr, h->readbuf);
    EXPECT_EQ(h->readbuf->pos, h->readbuf->lim);
    EXPECT_EQ(nullptr, h->service_name);
    EXPECT_EQ(0u, h->service_ltp);
    EXPECT_EQ(nullptr, h->reader);

    ASSERT_EQ(0u, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    EXPECT_STREQ("second", h->service_name);
    EXPECT_EQ(4242u, h->service_ltp);
    EXPECT_EQ(7u, h->service_version);
    ASSERT_TRUE(svc.join());
    CloseAndDestroy(&h);
}

TEST_F(Open, AnswerThatIsNoHandshakeReplyFailsWithInvalidPacket)
{
    FakeService svc;
    // A well-framed bare reply, then bytes that frame as nothing at all.
    svc.serve([](FakeConnection &c) {
        c.expect_handshake();
        c.reply(1, 0);
        c.wait_closed();
    });
    svc.serve([](FakeConnection &c) {
        c.expect_handshake();
        c.send_raw("NOT A PACKET AT ALL");
        c.wait_closed();
    });
    svc.serve([](FakeConnection &c) { c.handshake(5, "third"); });

    t_qel_hspace h = nullptr;
    ASSERT_EQ(0u, Create(svc.url(), "tester", "tests", &h));
    EXPECT_EQ(KRO_ERR_INVALID_PACKET, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_INIT, State(h));
    EXPECT_EQ(nullptr, h->service_name);
    EXPECT_EQ(KRO_ERR_INVALID_PACKET, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_INIT, State(h));
    ASSERT_EQ(0u, qel_hspace_open(h));
    EXPECT_STREQ("third", h->service_name);
    ASSERT_TRUE(svc.join());
    CloseAndDestroy(&h);
}

// The port of a service URL keeps only its low 16 bits.
TEST_F(Open, UrlPortKeepsItsLow16Bits)
{
    const struct {
        const char *url;
        t_kro_ushort port;
    } cases[] = {{"tcp://127.0.0.1:5", 5}, {"tcp://127.0.0.1:70000", 4464}, {"TCP://h:65536", 0}, {"tcp://h:-1", 65535}};
    for (const auto &k : cases) {
        t_kro_socket_client_create_data d = nullptr;
        ASSERT_EQ(0u, qel_hspace_socket_create_data_create(k.url, &d)) << k.url;
        EXPECT_EQ(k.port, d->device_create_data.remote_port) << k.url;
        qel_hspace_socket_create_data_destroy(&d);
    }
}

using OpenTwice = ConnectedTest;

TEST_F(OpenTwice, SecondOpenIsRefusedAndLeavesTheConnectionWorking)
{
    t_kro_thread reader = h->reader;
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    EXPECT_EQ(reader, h->reader);
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_remove(h, "k", HSPACE_REMOVE_SYNC, 0); }, ReplyWith(0)));

    EXPECT_EQ(0u, qel_hspace_close(h));
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_open(h)); // a closed handle is never reopened
}

} // namespace
