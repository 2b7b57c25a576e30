/*
 * open_test.cpp - opening a handle, white-box: the handshake bytes, a
 * refused connect, a service that hangs up or answers wrongly during the
 * handshake (the handle stays in HSPACE_STATE_INIT and a retry starts on a
 * clean stream), a second open, and what a successful open stores.
 */
#include "qel_hspace.cpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "connection_support.h"

namespace {

using namespace conn;

// A port that refuses connections until Listen(): the socket is bound
// first and listens later. After Listen() one connection is accepted on a
// thread of its own, its handshake answered like the service's, and it is
// held until the client closes. Every wait is bounded by kBound.
class LatePort {
public:
    LatePort()
    {
        struct sockaddr_in addr = {};
        socklen_t len = sizeof addr;
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_GE(fd_, 0);
        EXPECT_EQ(0, bind(fd_, (struct sockaddr *)&addr, sizeof addr));
        EXPECT_EQ(0, getsockname(fd_, (struct sockaddr *)&addr, &len));
        port_ = ntohs(addr.sin_port);
    }
    ~LatePort()
    {
        if (thread_.joinable()) thread_.join();
        close(fd_);
    }

    std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port_); }

    // Starts listening and serving one connection.
    void Listen(const std::string &name)
    {
        ASSERT_EQ(0, listen(fd_, 1));
        thread_ = std::thread([this, name] { Serve(name); });
    }

    // The handshake request received; after the client closed.
    Packet Handshake()
    {
        if (thread_.joinable()) thread_.join();
        return handshake_;
    }

private:
    // Waits for fd to become readable; false and a recorded failure after kBound.
    static bool Readable(int fd)
    {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, (int)kBound.count()) == 1) return true;
        ADD_FAILURE() << "watchdog: nothing to read within " << kBound.count() << " ms";
        return false;
    }

    void Serve(const std::string &name)
    {
        if (!Readable(fd_)) return;
        int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(c, 0);
        std::string in;
        char buf[4096];
        ssize_t n = 1;
        codec::FrameResult f = codec::frame(in);
        while (f.status == codec::FrameStatus::NeedMore && n > 0 && Readable(c)) {
            n = recv(c, buf, sizeof buf, 0);
            if (n > 0) in.append(buf, (size_t)n);
            f = codec::frame(in);
        }
        if (f.status == codec::FrameStatus::Complete && codec::decode(in.substr(0, f.wirelen), handshake_)) {
            std::string reply;
            codec::encode_handshake_reply(reply, 1, 5, name);
            EXPECT_EQ((ssize_t)reply.size(), send(c, reply.data(), reply.size(), MSG_NOSIGNAL));
            while (Readable(c) && recv(c, buf, sizeof buf, 0) > 0) {
            }
        } else {
            ADD_FAILURE() << "no handshake request from the client";
        }
        close(c);
    }

    int fd_ = -1;           // bound, later listening
    uint16_t port_ = 0;     // its port
    std::thread thread_;    // serves the one connection
    Packet handshake_;      // written by thread_, read after joining it
};

using Open = ConnectionTest;

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
    LatePort port;
    t_qel_hspace h = nullptr;
    ASSERT_EQ(0u, Create(port.url(), "tester", "tests", &h));
    EXPECT_EQ(KRO_ERR_CONN_REFUSED, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_INIT, State(h));
    EXPECT_EQ(nullptr, h->reader);

    port.Listen("late");
    ASSERT_EQ(0u, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    EXPECT_STREQ("late", h->service_name);
    CloseAndDestroy(&h);
    EXPECT_EQ("tester", port.Handshake().handshake_request.value_or(codec::HandshakeRequest()).client_name);
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
    FakeConnection c = svc.take_connection();

    // The stored ltp is the destination port of every request.
    t_qel_hspace_object object = nullptr;
    ASSERT_EQ(0u, qel_hspace_object_create("k", nullptr, &object));
    Call put([&] { return qel_hspace_put(h, object, HSPACE_PUT_SYNC, 0); });
    Packet p = c.next_packet();
    ASSERT_TRUE(p.rr.has_value());
    EXPECT_EQ(4242u, p.dport);
    c.reply(p.rr->corrid, 0);
    EXPECT_EQ(0u, put.Result());
    EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
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

TEST_F(Open, SecondOpenIsRefusedAndLeavesTheConnectionWorking)
{
    FakeService svc;
    t_qel_hspace h = nullptr;
    FakeConnection c;
    ASSERT_NO_FATAL_FAILURE(OpenOn(svc, &h, &c));
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    t_kro_thread reader = h->reader;
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_open(h));
    EXPECT_EQ(HSPACE_STATE_OPEN, State(h));
    EXPECT_EQ(reader, h->reader);

    Call remove([&] { return qel_hspace_remove(h, "k", HSPACE_REMOVE_SYNC, 0); });
    Packet p = c.next_packet();
    ASSERT_TRUE(p.rr.has_value());
    c.reply(p.rr->corrid, 0);
    EXPECT_EQ(0u, remove.Result());

    EXPECT_EQ(0u, qel_hspace_close(h));
    EXPECT_EQ(KRO_ERR_INVALID_STATE, qel_hspace_open(h)); // a closed handle is never reopened
    EXPECT_EQ(0u, qel_hspace_destroy(&h));
}

} // namespace
