/*
 * tls_test.cpp - tls:// handles: every way an open can fail, each with its
 * own code and cause; key updates in the middle of reads and writes, a
 * forged record; the options call's checks and file errors; mutual
 * TLS through the C API and the C++ API against hspaced, which refuses a
 * client without a certificate and a plain-TCP client at the handshake; the
 * identity hspaced reads from a client certificate. Certificates come from
 * certs.h, made when the process starts.
 */
#include <chrono>
#include <set>
#include <thread>

#include "client_harness.h"
#include "qel_hspace.hpp"
#include "server.h"
#include "transport.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>

namespace {

namespace qh = qel::hspace;
using namespace hspace::test;
using hspace::service::Server;

// What a client sends and trusts: each member names a file of Certs(), or
// nothing; server_name overrides the URL's host.
struct ClientSide {
    std::string ca = Certs().ca;
    CertFiles cert = Certs().alice;
    std::string server_name;
    qel_hspace_tls_options options() const
    {
        auto str = [](const std::string &s) { return s.empty() ? nullptr : s.c_str(); };
        return {QEL_HSPACE_TLS_OPTIONS_VERSION, str(ca), str(cert.cert), str(cert.key), str(server_name)};
    }
};

// A handle on url with the client's TLS options, destroyed with the test.
struct Handle {
    t_qel_hspace h = nullptr;
    Handle(const std::string &url, const ClientSide &side)
    {
        EXPECT_EQ(0u, Create(url, nullptr, nullptr, &h)); // claims nothing: a certificate names it
        qel_hspace_tls_options o = side.options();
        if (h != nullptr && url.compare(0, 6, "tls://") == 0) {
            EXPECT_EQ(0u, qel_hspace_set_tls(h, &o));
        }
    }
    ~Handle()
    {
        if (h != nullptr) qel_hspace_close(h), qel_hspace_destroy(&h);
    }
    std::string detail() const
    {
        const t_kro_char *text = nullptr;
        EXPECT_EQ(0u, qel_hspace_error_get_detail(h, &text));
        return text != nullptr ? text : "<null>";
    }
};

struct Tls : LibraryTest {};

FakeTls Fake(const CertFiles &server, bool client_ca = false, int max_version = 0, int min_version = 0)
{
    return FakeTls{server.cert, server.key, client_ca ? Certs().ca : std::string(), max_version, min_version};
}

// Every failing open returns at once with its own code, says why in the
// detail, and leaves the handle in HSPACE_STATE_INIT. Rows against the
// fake: a plain service that answers a ClientHello with hspace bytes, one
// that never answers, certificates the client must refuse, and services
// that refuse the client's certificate or its absence (TLS 1.3 refuses
// after the client's handshake has ended, TLS 1.2 inside it); an old TLS;
// and the other way round, a tcp:// handle whose service answers in TLS.
TEST_F(Tls, EveryFailedOpenReadsAsItsCause)
{
    std::string reply;
    hspace::codec::encode_handshake_reply(reply, 1, 5, "fake");
    Signal stalled;
    auto answer_in_clear = [&](FakeConnection &c) { c.send_raw(reply), c.wait_closed(); };
    auto refuse = [](FakeConnection &c) { EXPECT_NE("", c.tls_error()); };
    ClientSide none;
    none.cert = {};
    ClientSide foreign, old, plain;
    plain.ca.clear();
    foreign.cert = Certs().foreign_client;
    old.cert = Certs().old_client;
    const struct {
        const char *what;
        std::optional<FakeTls> tls; // none: a plain TCP service
        ClientSide client;          // no CA: a tcp:// handle
        std::function<void(FakeConnection &)> script;
        t_kro_error code;
        const char *detail;
    } cases[] = {
        {"plain TCP service answering", std::nullopt, {}, answer_in_clear, KRO_ERR_TLS_HANDSHAKE,
         "TLS handshake failed: wrong version number (the service does not speak TLS: is it a plain TCP port?)"},
        {"service that never answers", std::nullopt, {}, [&](FakeConnection &) { stalled.wait(); },
         KRO_ERR_TLS_TIMEOUT, "TLS handshake timed out"},
        {"certificate of another CA", Fake(Certs().foreign_server), {}, refuse, KRO_ERR_TLS_VERIFY,
         "certificate verify failed: unable to get local issuer certificate"},
        {"expired certificate", Fake(Certs().expired), {}, refuse, KRO_ERR_TLS_VERIFY,
         "certificate verify failed: certificate has expired"},
        {"certificate for another name", Fake(Certs().wrong_name), {}, refuse, KRO_ERR_TLS_VERIFY,
         "certificate verify failed: IP address mismatch (the certificate is not for 127.0.0.1)"},
        {"no client certificate, TLS 1.3", Fake(Certs().server, true), none, refuse, KRO_ERR_TLS_CLIENT_CERT,
         "the service asked for a client certificate and none is configured (tlsv13 alert certificate required)"},
        {"no client certificate, TLS 1.2", Fake(Certs().server, true, TLS1_2_VERSION), none, refuse,
         KRO_ERR_TLS_CLIENT_CERT,
         "the service asked for a client certificate and none is configured (sslv3 alert handshake failure)"},
        {"client certificate of another CA", Fake(Certs().server, true), foreign, refuse, KRO_ERR_TLS_CLIENT_CERT,
         "the service refused our client certificate (tlsv1 alert unknown ca)"},
        {"expired client certificate", Fake(Certs().server, true, TLS1_2_VERSION), old, refuse,
         KRO_ERR_TLS_CLIENT_CERT, "the service refused our client certificate (sslv3 alert certificate expired)"},
        {"TLS 1.1 only", Fake(Certs().server, false, TLS1_1_VERSION, TLS1_VERSION), {}, refuse,
         KRO_ERR_TLS_HANDSHAKE, "TLS handshake failed: tlsv1 alert protocol version"},
        {"a tcp:// handle, the service closes half-way through its reply", std::nullopt, plain,
         [&](FakeConnection &c) { c.expect_handshake(), c.send_raw(reply.substr(0, 9)), c.close(); },
         KRO_ERR_PEER_CLOSED, "the service closed the connection before its handshake reply"},
        {"a tcp:// handle, the service answers with bytes that are no packet", std::nullopt, plain,
         [](FakeConnection &c) { c.expect_handshake(), c.send_raw(std::string(8, '\x16')), c.wait_closed(); },
         KRO_ERR_INVALID_PACKET, "the service's answer is no handshake reply"},
        {"a tcp:// handle, the service answers with a TLS alert", std::nullopt, plain,
         [](FakeConnection &c) { c.expect_handshake(), c.send_raw(std::string("\x15\x03\x03\x00\x02\x02\x46", 7)), c.close(); },
         KRO_ERR_PEER_CLOSED, "the service answered in TLS: use a tls:// URL"},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.what);
        FakeService svc(k.tls ? &*k.tls : nullptr);
        Handle c((k.client.ca.empty() ? "tcp://127.0.0.1:" : "tls://127.0.0.1:") +
                     svc.url().substr(svc.url().rfind(':') + 1),
                 k.client);
        svc.serve(k.script);
        bool stall = k.code == KRO_ERR_TLS_TIMEOUT;
        EXPECT_EQ(k.code, Bounded([&] { return qel_hspace_open_timed(c.h, stall ? 200 : 0); }));
        EXPECT_EQ(0u, std::string(c.detail()).find(k.detail)) << c.detail();
        EXPECT_EQ(HSPACE_STATE_INIT, State(c.h));
        stalled.raise();
        EXPECT_TRUE(svc.join());
        watchdog_.Kick();
    }
}

// The same certificate for elsewhere.invalid is accepted when the options
// name it; the open then succeeds on the very handle that failed, and the
// detail is empty again.
TEST_F(Tls, ServerNameOptionAndARetriedOpen)
{
    FakeService svc(Fake(Certs().wrong_name));
    ClientSide side;
    Handle c(svc.url(), side);
    svc.serve([](FakeConnection &) {});
    EXPECT_EQ(KRO_ERR_TLS_VERIFY, Bounded([&] { return qel_hspace_open(c.h); }));
    ASSERT_TRUE(svc.join());
    side.server_name = "elsewhere.invalid";
    qel_hspace_tls_options o = side.options();
    ASSERT_EQ(0u, qel_hspace_set_tls(c.h, &o));
    svc.serve([](FakeConnection &conn) { conn.handshake(); });
    EXPECT_EQ(0u, Bounded([&] { return qel_hspace_open(c.h); }));
    EXPECT_EQ("", c.detail());
    EXPECT_EQ(HSPACE_STATE_OPEN, State(c.h));
    ASSERT_TRUE(svc.join());
}

// The service updates its keys and asks the client to update its own while
// a large put is being written and answers are being read. Every answer
// arrives, the put completes, the service reads the whole put intact, and
// the client's own key update goes out ahead of its next write.
TEST_F(Tls, KeyUpdatesWhileAWriteAndReadsAreUnderWay)
{
    FakeTls tls = ServiceTls();
    FakeService svc(tls);
    Client c(svc);
    ASSERT_TRUE(c.open());
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_get(c.h, "a", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); }));
    Packet get = c.conn.next_packet();
    ASSERT_TRUE(get.rr);
    UserObject big("big", std::string(8u << 20, 'x'));
    Call put([&] { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); });
    ASSERT_TRUE(c.conn.wait_readable()); // the put is under way
    const uint32_t n = 64;
    for (uint32_t i = 1; i <= n; i++) {
        if (i % 16 == 1) {
            ASSERT_TRUE(c.conn.key_update());
        }
        ASSERT_TRUE(c.conn.object(get.rr->corrid, codec::kOpGet, "a", std::string(32u << 10, 'a'), n, i));
    }
    Packet p = c.conn.next_packet();
    ASSERT_TRUE(p.rr);
    EXPECT_EQ(std::string(8u << 20, 'x'), p.body);
    c.conn.reply(p.rr->corrid, 0);
    EXPECT_EQ(0u, put.result());
    ASSERT_TRUE(c.events.wait_count(n));
    EXPECT_EQ(n, c.events.events().back().index);
    ASSERT_TRUE(c.conn.key_update());
    ASSERT_TRUE(c.conn.notify("after", 1, "update")); // read after the update: the next write answers it
    ASSERT_TRUE(c.events.wait_count(n + 1));
    EXPECT_TRUE(Barrier(c));
    EXPECT_TRUE(c.conn.await_key_update());
}

// A forged record while nothing is being written: the reader's read fails
// its check, the link fails, and the service learns why from the alert
// OpenSSL wrote during that read, which the reader sent itself.
TEST_F(Tls, AForgedRecordEndsTheLinkAndTheServiceIsTold)
{
    FakeTls tls = ServiceTls();
    FakeService svc(tls);
    Client c(svc);
    ASSERT_TRUE(c.open());
    ASSERT_TRUE(c.conn.send_beneath_tls(std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'f')));
    EXPECT_EQ("sslv3 alert bad record mac", c.conn.read_until_tls_fails());
    ASSERT_TRUE(c.events.wait_count(1));
    EXPECT_EQ(HSPACE_EVENT_LINK_FAIL, c.events.events()[0].type);
    EXPECT_EQ(KRO_ERR_NET, c.events.events()[0].status);
}

// The options call: argument, version and state checks, and every file it
// cannot use named with the reason (an encrypted key fails; nothing asks
// for its passphrase).
TEST_F(Tls, OptionsAreCheckedAndFilesReadAtOnce)
{
    const TestCerts &z = Certs();
    t_qel_hspace tcp = nullptr, h = nullptr;
    ASSERT_EQ(0u, Create("tcp://127.0.0.1:1", nullptr, nullptr, &tcp));
    ASSERT_EQ(0u, Create("TLS://127.0.0.1:1", nullptr, nullptr, &h));
    qel_hspace_tls_options o = {QEL_HSPACE_TLS_OPTIONS_VERSION, z.ca.c_str(), nullptr, nullptr, nullptr};
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_set_tls(tcp, &o));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_set_tls(nullptr, &o));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, qel_hspace_error_get_detail(h, nullptr));
    EXPECT_EQ(0u, qel_hspace_set_tls(h, nullptr));
    o.version = 2;
    EXPECT_EQ(KRO_ERR_VERSION, qel_hspace_set_tls(h, &o));
    std::string garbage = z.dir + "/garbage.pem", missing = z.dir + "/missing.pem";
    FILE *f = fopen(garbage.c_str(), "w");
    ASSERT_TRUE(f != nullptr && fputs("not a certificate\n", f) >= 0 && fclose(f) == 0);
    const struct {
        const char *ca, *cert, *key;
        std::string detail;
    } bad[] = {
        {missing.c_str(), nullptr, nullptr, "cannot read the CA file " + missing + ": No such file or directory"},
        {garbage.c_str(), nullptr, nullptr, "cannot use the CA file " + garbage + ": "},
        {nullptr, garbage.c_str(), z.alice.key.c_str(), "cannot use the certificate file " + garbage + ": "},
        {nullptr, z.alice.cert.c_str(), missing.c_str(), "cannot read the key file " + missing + ": "},
        {nullptr, z.alice.cert.c_str(), nullptr, "cannot use the key file " + z.alice.cert + ": "},
        {nullptr, z.alice.cert.c_str(), z.bob.key.c_str(),
         "the key in " + z.bob.key + " does not belong to the certificate in " + z.alice.cert},
        {nullptr, z.alice.cert.c_str(), z.locked_key.c_str(),
         "cannot use the key file " + z.locked_key + ": it is encrypted, and no passphrase is asked for"},
        {nullptr, nullptr, z.alice.key.c_str(), "the key file " + z.alice.key + " is given without a certificate file"},
    };
    for (const auto &b : bad) {
        SCOPED_TRACE(b.detail);
        o = {QEL_HSPACE_TLS_OPTIONS_VERSION, b.ca, b.cert, b.key, nullptr};
        EXPECT_EQ(KRO_ERR_TLS_CONFIG, qel_hspace_set_tls(h, &o));
        const t_kro_char *text = nullptr;
        EXPECT_EQ(0u, qel_hspace_error_get_detail(h, &text));
        EXPECT_EQ(0u, std::string(text).find(b.detail)) << text;
    }
    unlink(garbage.c_str());
    o = {QEL_HSPACE_TLS_OPTIONS_VERSION, z.ca.c_str(), z.bob.cert.c_str(), z.bob.key.c_str(), "localhost"};
    EXPECT_EQ(0u, qel_hspace_set_tls(h, &o));
    EXPECT_EQ(0u, qel_hspace_close(h));
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_set_tls(h, &o));
    EXPECT_EQ(0u, qel_hspace_destroy(&h));
    EXPECT_EQ(0u, qel_hspace_destroy(&tcp));
}

// hspaced in-process with TLS and client certificates from the test CA.
struct Mutual : Tls {
    void SetUp() override
    {
        Tls::SetUp();
        hspace::service::Options o;
        o.tls_cert = Certs().server.cert;
        o.tls_key = Certs().server.key;
        o.tls_client_ca = Certs().ca;
        server.reset(new Server(o));
        std::string why;
        ASSERT_TRUE(server->start(&why)) << why;
        ASSERT_EQ(0u, server->url().find("tls://127.0.0.1:"));
    }
    std::unique_ptr<Server> server;
};

// alice subscribes, bob writes: the subscription's image, a notification
// and a get all cross TLS both ways.
TEST_F(Mutual, TwoClientsWithCertificatesThroughTheCApi)
{
    ClientSide bob_side;
    bob_side.cert = Certs().bob;
    Handle alice(server->url(), ClientSide()), bob(server->url(), bob_side);
    Recorder events;
    {
        std::lock_guard<std::mutex> lock(g_registry_mutex);
        g_registry[alice.h] = &events;
    }
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_open(alice.h); }));
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_open(bob.h); }));
    UserObject first("k/1", "one"), second("k/2", std::string(100000, 'x'));
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_put(bob.h, first.obj, HSPACE_PUT_SYNC, 0); }));
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_post(alice.h, "k/*", nullptr, HSPACE_POST_SYNC, 0, 0); }));
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_put(bob.h, second.obj, HSPACE_PUT_SYNC, 0); }));
    ASSERT_TRUE(events.wait_count(2));
    std::vector<Event> seen = events.events();
    EXPECT_EQ("one", seen[0].object_value);
    EXPECT_EQ(HSPACE_EVENT_POST_NOTIFICATION, seen[1].type);
    EXPECT_EQ(std::string(100000, 'x'), seen[1].object_value);
    ObjectList list;
    EXPECT_EQ(0u, Bounded([&] { return qel_hspace_get(alice.h, "k/*", nullptr, HSPACE_GET_SYNC, 0, 0, list); }));
    EXPECT_EQ((Pairs{{"k/1", "one"}, {"k/2", std::string(100000, 'x')}}), list.contents());
    EXPECT_EQ(0u, qel_hspace_close(alice.h));
    std::lock_guard<std::mutex> lock(g_registry_mutex);
    g_registry.erase(alice.h);
}

// The C++ API: Options::tls opens and serves; without a certificate the
// service refuses the client, and the exception says so; TLS options on a
// tcp:// URL are an invalid argument, never ignored.
TEST_F(Mutual, CppClientWithTlsOptions)
{
    qh::Options o;
    o.tls.ca_file = Certs().ca;
    o.tls.cert_file = Certs().bob.cert;
    o.tls.key_file = Certs().bob.key;
    o.reconnect.enabled = false;
    qh::Client client(server->url(), o);
    client.open();
    client.put("c/1", "value");
    qh::Objects got = client.get("c/1");
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ("value", got[0].value());

    o.tls.cert_file.clear(), o.tls.key_file.clear();
    qh::Client stranger(server->url(), o);
    try {
        stranger.open();
        ADD_FAILURE() << "open without a client certificate succeeded";
    } catch (const std::system_error &e) {
        EXPECT_EQ(qh::error::tls_client_cert, e.code());
        EXPECT_NE(std::string::npos, std::string(e.what()).find("asked for a client certificate")) << e.what();
    }
    qh::Client plain("tcp://127.0.0.1:1", o);
    std::error_code ec;
    plain.open(ec);
    EXPECT_EQ(qh::error::invalid_argument, ec);
}

// A plain-TCP client on the TLS port is refused at the TLS handshake, at
// once, and learns why; so is a client without a certificate. The service
// counts (and logs) both and serves the good client meanwhile.
TEST_F(Mutual, PlainAndCertificatelessClientsAreRefusedAtTheHandshake)
{
    std::string port = server->url().substr(server->url().rfind(':'));
    ClientSide none;
    none.cert = {};
    Handle good(server->url(), ClientSide()), plain("tcp://127.0.0.1" + port, none), bare(server->url(), none);
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_open(good.h); }));
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, Bounded([&] { return qel_hspace_open(plain.h); }));
    EXPECT_EQ("the service closed the connection before its handshake reply", plain.detail());
    EXPECT_EQ(KRO_ERR_TLS_CLIENT_CERT, Bounded([&] { return qel_hspace_open(bare.h); }));
    // The service counts a refusal once its side of the handshake has
    // ended, which the client may learn of first: waited for, bounded.
    auto deadline = std::chrono::steady_clock::now() + kBound;
    while (server->stats().tls_refused.load() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(2u, server->stats().tls_refused.load());
    UserObject o("still", "served");
    EXPECT_EQ(0u, Bounded([&] { return qel_hspace_put(good.h, o.obj, HSPACE_PUT_SYNC, 0); }));
}

// The identity of a client certificate: its CN and every O, in order.
TEST(TlsIdentity, CommonNameAndOrganisations)
{
    const struct {
        std::string file, name;
        std::vector<std::string> groups;
    } cases[] = {
        {Certs().alice.cert, "alice", {"readers"}},
        {Certs().bob.cert, "bob", {"writers", "readers"}},
        {Certs().server.cert, "hspaced", {}},
    };
    for (const auto &k : cases) {
        FILE *f = fopen(k.file.c_str(), "r");
        ASSERT_TRUE(f != nullptr);
        X509 *cert = PEM_read_X509(f, nullptr, nullptr, nullptr);
        fclose(f);
        hspace::service::PeerIdentity id = hspace::service::identity_of(cert);
        EXPECT_EQ(k.name, id.name);
        EXPECT_EQ(k.groups, id.groups);
        X509_free(cert);
    }
    EXPECT_EQ("", hspace::service::identity_of(nullptr).name);
}

} // namespace
