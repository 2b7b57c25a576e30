/*
 * open_test.cpp - opening a handle, white-box: the handshake bytes, the
 * service URL, a refused connect, bad handshake answers and refusals (the
 * handle stays in HSPACE_STATE_INIT and a retry starts on a clean stream), a
 * second open.
 */
#include "qel_hspace.cpp"

#include "client_harness.h"

namespace {

using namespace hspace::test;

using Open = LibraryTest;

TEST_F(Open, HandshakeCarriesDefaultsForNullAndEmptyStringsForEmptyNames)
{
    const struct {
        const char *name, *group;           // given to create
        const char *sent_name, *sent_group; // expected in the handshake
    } cases[] = {{nullptr, nullptr, "anonymous", "default"}, {"", "", "", ""}, {"app-7", "grp", "app-7", "grp"}};
    FakeService svc;
    for (const auto &k : cases) {
        Client c(svc, k.name, k.group);
        ASSERT_TRUE(c.open());
        std::string expected;
        codec::encode_handshake_request(expected, "data", k.sent_name, k.sent_group);
        EXPECT_EQ(expected, c.hello.raw) << k.sent_name;
    }
}

// The port keeps only its low 16 bits; the scheme is tcp in any letter case.
TEST_F(Open, UrlPortKeepsItsLow16BitsAndTheSchemeIsChecked)
{
    const struct {
        const char *url;
        t_kro_error error;
        t_kro_ushort port;
    } cases[] = {{"tcp://127.0.0.1:5", 0, 5},         {"tcp://127.0.0.1:70000", 0, 4464},
                 {"TCP://h:65536", 0, 0},             {"tcp://h:-1", 0, 65535},
                 {"udp://h:1", KRO_ERR_BAD_PROTOCOL, 0}, {"tcp://h", KRO_ERR_BAD_ADDRESS, 0},
                 {"h:1", KRO_ERR_BAD_ADDRESS, 0}};
    for (const auto &k : cases) {
        t_kro_socket_client_create_data d = nullptr;
        ASSERT_EQ(k.error, qel_hspace_socket_create_data_create(k.url, &d)) << k.url;
        if (k.error != 0) continue;
        EXPECT_EQ(k.port, d->device_create_data.remote_port) << k.url;
        qel_hspace_socket_create_data_destroy(&d);
    }
}

// Each bad answer fails the open and leaves INIT with nothing stored; the
// next open of the same handle reads a clean stream on a new connection.
// An open handle, and a closed one, refuse another open.
TEST_F(Open, FailedOpensLeaveInitAndTheSameHandleOpensOnceLater)
{
    FakeService svc{FakeService::Deferred()};
    Client c(svc);
    t_qel_hspace h = c.h;
    EXPECT_EQ(KRO_ERR_CONN_REFUSED, qel_hspace_open(h));
    svc.listen();
    t_qel_hspace never = nullptr;
    ASSERT_EQ(0u, Create(svc.url(), "tester", "tests", &never));
    EXPECT_EQ(0u, qel_hspace_destroy(&never)); // a handle never opened needs no close

    std::string partial, long_name;
    codec::encode_handshake_reply(partial, 1, 5, "stale-name");
    partial.resize(20); // bytes a retry must not see
    codec::encode_handshake_reply(long_name, 1, 5, "name");
    long_name[long_name.size() - 5] = 9; // the name's length runs past the body
    // A refusal is a failed reply in the handshake reply's place: its status
    // is the open's; a failed reply without status, or a request, is no refusal.
    std::string refused, limit, no_status, request;
    codec::encode_reply(refused, 0, HSPACE_STATUS_IDENTITY_REFUSED);
    codec::encode_reply(limit, 7, HSPACE_STATUS_CONNECTION_LIMIT);
    codec::Packet p;
    p.body_type = codec::kTypeReply;
    p.rr = codec::RrSubheader::failure(0, 0);
    codec::encode(no_status, p);
    p.rr = codec::RrSubheader::request(0);
    p.rr->w2 = HSPACE_STATUS_IDENTITY_REFUSED;
    codec::encode(request, p);
    const struct {
        std::string answer; // sent after the handshake request; "" a reply packet
        t_kro_error error;  // the open's result
    } cases[] = {{partial, KRO_ERR_PEER_CLOSED},
                 {"NOT A PACKET AT ALL", KRO_ERR_INVALID_PACKET},
                 {long_name, KRO_ERR_INVALID_PACKET},
                 {"", KRO_ERR_INVALID_PACKET},
                 {refused, HSPACE_STATUS_IDENTITY_REFUSED},
                 {limit, HSPACE_STATUS_CONNECTION_LIMIT},
                 {no_status, KRO_ERR_INVALID_PACKET},
                 {request, KRO_ERR_INVALID_PACKET}};
    for (const auto &k : cases) {
        svc.serve([&k](FakeConnection &fc) {
            fc.expect_handshake();
            if (k.answer.empty()) fc.reply(1, 0);
            else fc.send_raw(k.answer);
            fc.close();
        });
        EXPECT_EQ(k.error, qel_hspace_open(h));
        ASSERT_TRUE(svc.join());
        EXPECT_EQ(HSPACE_STATE_INIT, State(h));
        EXPECT_EQ(nullptr, h->service_name);
        EXPECT_EQ(nullptr, h->reader);
    }
    svc.serve([](FakeConnection &fc) { fc.handshake(4242, "second", 7); });
    ASSERT_EQ(0u, qel_hspace_open(h));
    ASSERT_TRUE(svc.join());
    c.conn = svc.take_connection();
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    EXPECT_STREQ("second", h->service_name);
    EXPECT_EQ(4242u, h->service_ltp);
    EXPECT_EQ(7u, h->service_version);
    t_kro_thread reader = h->reader;
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_open(h));
    EXPECT_EQ(reader, h->reader);
    EXPECT_EQ(0u, Exchange(c, [&] { return qel_hspace_remove(h, "k", HSPACE_REMOVE_SYNC, 0); }, ReplyWith(0)));
    EXPECT_EQ(0u, qel_hspace_close(h));
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_open(h)); // a closed handle is never reopened
}

} // namespace
