/*
 * codec_test.cpp - the service-side codec: the client's packets byte for
 * byte, the reply info bit layout, round trips, the framer's rules on
 * hostile input; and the fake service against a raw client socket.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "fake_service.h"
#include "hspace_codec.h"

using namespace hspace::codec;
using hspace::test::FakeConnection;
using hspace::test::FakeService;

namespace {

// Bytes from a text of hexadecimal pairs separated by blanks.
std::string hex(const char *text)
{
    std::string out;
    for (const char *p = text; *p;) {
        if (*p == ' ' || *p == '\n') {
            p++;
            continue;
        }
        out.push_back(static_cast<char>(std::stoi(std::string(p, 2), nullptr, 16)));
        p += 2;
    }
    return out;
}

const std::string kHandshake = hex(
    "BA DC AD 01 00 00 00 46 00 00 00 00 00 00 00 00 "
    "00 00 00 00 00 00 00 00 00 00 00 FF 00 00 01 41 "
    "01 00 01 41 00 00 00 26 00 01 FF FF 00 04 64 61 "
    "74 61 00 09 61 6E 6F 6E 79 6D 6F 75 73 00 07 64 "
    "65 66 61 75 6C 74");

const std::string kSyncGet = hex(
    "BA DC AD 01 00 00 00 58 00 00 00 00 00 00 00 00 "
    "00 00 00 05 00 00 00 00 00 00 00 FF 00 02 01 03 "
    "01 00 00 04 00 00 00 18 01 02 01 00 00 00 00 00 "
    "00 00 00 00 00 02 6B 31 01 00 00 01 00 00 00 18 "
    "00 00 00 00 00 00 00 07 80 00 00 00 00 00 00 00 "
    "01 00 01 03 00 00 00 08");

const std::string kNoReplyPut = hex(
    "BA DC AD 01 00 00 00 43 00 00 00 00 00 00 00 00 "
    "00 00 00 05 00 00 00 00 00 00 00 FF 00 01 01 01 "
    "01 00 00 04 00 00 00 18 01 01 04 00 00 00 00 00 "
    "00 00 00 00 00 02 6B 31 01 00 01 01 00 00 00 0B "
    "61 62 63");

// The 8 reply info bytes of an rr subheader.
std::string info_bytes(const RrSubheader &rr)
{
    std::string out;
    put_rr_subheader(out, rr);
    return out.substr(16, 8);
}

// Decodes bytes that must be one valid packet.
Packet must_decode(const std::string &bytes)
{
    Packet p;
    EXPECT_TRUE(decode(bytes, p));
    return p;
}

FrameStatus status(const std::string &bytes)
{
    return frame(bytes).status;
}

// A header followed by the given sections; wirelen as given.
std::string packet_with(uint32_t wirelen, uint8_t numsh, const std::string &sections)
{
    std::string out;
    put_header(out, wirelen, 0, 0, numsh, kTypeObject);
    return out + sections;
}

std::string section(uint16_t type, uint32_t len, const std::string &payload = std::string())
{
    std::string out;
    put_preamble(out, type, len);
    return out + payload;
}

} // namespace

TEST(Codec, ClientPacketsByteForByte)
{
    std::string handshake, get_bytes, put_bytes;
    encode_handshake_request(handshake, "data", "anonymous", "default");
    Request get;
    get.dport = 5;
    get.opcode = kOpGet;
    get.key = "k1";
    get.corrid = 7u;
    encode_request(get_bytes, get);
    Request put;
    put.dport = 5;
    put.opcode = kOpPut;
    put.semantic = kSemNoReply;
    put.key = "k1";
    put.data = "abc";
    encode_request(put_bytes, put);

    // Each encoder writes the worked example; its decoding keeps the raw
    // bytes, and the generic encoder reproduces it from the decoding.
    const struct {
        const char *name;
        const std::string &want, &got;
    } cases[] = {{"handshake", kHandshake, handshake}, {"sync get", kSyncGet, get_bytes},
                 {"no-reply put", kNoReplyPut, put_bytes}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.want, c.got) << c.name;
        Packet p = must_decode(c.want);
        EXPECT_EQ(c.want, p.raw) << c.name;
        EXPECT_EQ(c.want.size(), p.wirelen) << c.name;
        std::string again;
        encode(again, p);
        EXPECT_EQ(c.want, again) << c.name;
    }

    // What the decoder reads from them.
    Packet hs = must_decode(kHandshake);
    ASSERT_TRUE(hs.handshake_request);
    EXPECT_EQ("data", hs.handshake_request->service_type);
    EXPECT_EQ("anonymous", hs.handshake_request->client_name);
    EXPECT_EQ("default", hs.handshake_request->client_group);
    EXPECT_EQ(1, hs.handshake_request->fixed1);
    EXPECT_EQ(0xFFFF, hs.handshake_request->fixed2);
    Packet g = must_decode(kSyncGet);
    EXPECT_EQ(5, g.dport);
    EXPECT_EQ((std::vector<uint16_t>{kTypeHspace, kTypeRr}), g.subheader_types);
    ASSERT_TRUE(g.hspace && g.rr);
    EXPECT_EQ(kOpGet, g.hspace->opcode);
    EXPECT_EQ(kSemSync, g.hspace->semantic);
    EXPECT_EQ("k1", g.hspace->key);
    EXPECT_EQ(7u, g.rr->corrid);
    EXPECT_TRUE(g.rr->is_request());
    EXPECT_EQ(kTypeRequest, g.body_type);
    Packet p = must_decode(kNoReplyPut);
    EXPECT_FALSE(p.rr);
    ASSERT_TRUE(p.hspace);
    EXPECT_EQ(kSemNoReply, p.hspace->semantic);
    EXPECT_EQ(kTypeObject, p.body_type);
    EXPECT_EQ("abc", p.body);
}

TEST(Codec, ReplyInfoBitLayout)
{
    const struct {
        RrSubheader rr;
        const char *info;
        bool request, success;
        uint32_t count, num, error;
    } cases[] = {
        {RrSubheader::success(1, 10, 2), "04 00 00 01 40 00 00 02", false, true, 10, 2, 0},
        {RrSubheader::success(1, kMaxCount, 0), "07 FF FF FF E0 00 00 00", false, true, kMaxCount, 0, 0},
        {RrSubheader::success(1, kMaxCount, kMaxCount), "07 FF FF FF FF FF FF FF", false, true, kMaxCount, kMaxCount, 0},
        {RrSubheader::failure(1, 2), "00 00 00 00 00 00 00 02", false, false, 0, 0, 2},
        {RrSubheader::request(1), "80 00 00 00 00 00 00 00", true, false, 0, 0, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(hex(c.info), info_bytes(c.rr)) << c.info;
        EXPECT_EQ(c.request, c.rr.is_request()) << c.info;
        if (c.request) continue;
        EXPECT_EQ(c.success, c.rr.is_success()) << c.info;
        EXPECT_EQ(c.count, c.rr.count()) << c.info;
        EXPECT_EQ(c.num, c.rr.num()) << c.info;
        EXPECT_EQ(c.error, c.rr.error()) << c.info;
    }
}

TEST(Codec, ServicePacketsRoundTrip)
{
    std::string out;
    encode_handshake_reply(out, 1, 5, "fake");
    Packet hr = must_decode(out);
    ASSERT_TRUE(hr.handshake_reply);
    EXPECT_EQ(kTypeHandshakeReply, hr.type);
    EXPECT_EQ(1, hr.handshake_reply->version);
    EXPECT_EQ(5, hr.handshake_reply->ltp);
    EXPECT_EQ("fake", hr.handshake_reply->name);

    // Replies: success without objects, and a failure code.
    for (uint32_t error : {0u, 20u}) {
        out.clear();
        encode_reply(out, 7, error);
        Packet r = must_decode(out);
        EXPECT_EQ(kTypeReply, r.body_type);
        EXPECT_FALSE(r.hspace);
        ASSERT_TRUE(r.rr);
        EXPECT_EQ(7u, r.rr->corrid);
        EXPECT_EQ(error == 0, r.rr->is_success());
        EXPECT_EQ(error, r.rr->error());
        EXPECT_EQ(0u, r.rr->count());
    }

    out.clear();
    encode_object(out, 3, kOpPost, "key", std::string("v\0w", 3), 4, 2, kFlagKeyOnly);
    Packet obj = must_decode(out);
    ASSERT_TRUE(obj.hspace && obj.rr);
    EXPECT_EQ((std::vector<uint16_t>{kTypeHspace, kTypeRr}), obj.subheader_types);
    EXPECT_EQ(kOpPost, obj.hspace->opcode);
    EXPECT_EQ(kFlagKeyOnly, obj.hspace->flags);
    EXPECT_EQ("key", obj.hspace->key);
    EXPECT_EQ(3u, obj.rr->corrid);
    EXPECT_EQ(4u, obj.rr->count());
    EXPECT_EQ(2u, obj.rr->num());
    EXPECT_EQ(std::string("v\0w", 3), obj.body);
    EXPECT_EQ(kTypeObject, obj.body_type);

    out.clear();
    encode_object(out, 3, kOpGet, "", "", 1, 1);
    Packet empty = must_decode(out);
    EXPECT_EQ("", empty.hspace->key);
    EXPECT_EQ("", empty.body);

    out.clear();
    encode_notification(out, "k1", 2, "new");
    Packet n = must_decode(out);
    ASSERT_TRUE(n.hspace);
    EXPECT_FALSE(n.rr);
    EXPECT_EQ(kOpNotification, n.hspace->opcode);
    EXPECT_EQ(2, n.hspace->triggers);
    EXPECT_EQ("k1", n.hspace->key);
    EXPECT_EQ("new", n.body);
    EXPECT_EQ(0, n.dport);

    // Every encoded packet frames as exactly itself, also when followed by more.
    FrameResult f = frame(out + out);
    EXPECT_EQ(FrameStatus::Complete, f.status);
    EXPECT_EQ(out.size(), f.wirelen);
}

TEST(Codec, FramerNeedsMoreOnEveryPrefixOfAValidPacket)
{
    for (const std::string *bytes : {&kHandshake, &kSyncGet, &kNoReplyPut}) {
        for (size_t n = 0; n < bytes->size(); n++)
            EXPECT_EQ(FrameStatus::NeedMore, status(bytes->substr(0, n))) << n << " bytes";
        EXPECT_EQ(FrameStatus::Complete, status(*bytes));
    }
}

TEST(Codec, FramerRejectsAsSoonAsTheBytesProveIt)
{
    std::string p = kSyncGet;
    std::string magic = p, version = p;
    magic[2] = static_cast<char>(0xAE);
    version[3] = 2;
    EXPECT_EQ(FrameStatus::Invalid, status(magic.substr(0, 8)));
    EXPECT_EQ(FrameStatus::Invalid, status(version.substr(0, 8)));
    EXPECT_EQ(FrameStatus::NeedMore, status(magic.substr(0, 7)));

    std::string h;
    put_header(h, 31, 0, 0, 0, kTypeObject);
    EXPECT_EQ(FrameStatus::Invalid, status(h.substr(0, 8)));
    h.clear();
    put_header(h, kMaxPacket + 1, 0, 0, 0, kTypeObject);
    EXPECT_EQ(FrameStatus::Invalid, status(h.substr(0, 8)));
    h.clear();
    put_header(h, kMaxPacket, 0, 0, 0, kTypeObject);
    EXPECT_EQ(FrameStatus::NeedMore, status(h + section(kTypeObject, kMaxPacket - 32)));

    // A section shorter than its preamble.
    EXPECT_EQ(FrameStatus::Invalid, status(packet_with(40, 0, section(kTypeObject, 7))));
    // A subheader running past wirelen, known from its preamble alone.
    EXPECT_EQ(FrameStatus::Invalid, status(packet_with(100, 1, section(kTypeRr, 69))));
    EXPECT_EQ(FrameStatus::NeedMore, status(packet_with(100, 1, section(kTypeRr, 60))));
    // The body ending short of wirelen.
    EXPECT_EQ(FrameStatus::Invalid, status(packet_with(41, 0, section(kTypeObject, 8))));
    // No room for the body's preamble after the subheaders.
    EXPECT_EQ(FrameStatus::Invalid, status(packet_with(32, 0, "")));
    EXPECT_EQ(FrameStatus::Invalid, status(packet_with(60, 1, section(kTypeRr, 24))));
    // The smallest packet: header and an empty body.
    EXPECT_EQ(FrameStatus::Complete, status(packet_with(40, 0, section(kTypeObject, 8))));
}

TEST(Codec, DecoderChecksEveryFieldAgainstItsSection)
{
    Packet out;
    // hspace subheader whose key length runs past its section.
    HspaceSubheader h;
    h.key = "abc";
    std::string sh;
    put_hspace_subheader(sh, h);
    sh[21] = 4; // key length 4 in a 25-byte section
    std::string bad = packet_with(32 + 25 + 8, 1, sh + section(kTypeObject, 8));
    EXPECT_EQ(FrameStatus::Complete, status(bad));
    EXPECT_FALSE(decode(bad, out));
    sh[21] = 3;
    EXPECT_TRUE(decode(packet_with(32 + 25 + 8, 1, sh + section(kTypeObject, 8)), out));
    EXPECT_EQ("abc", out.hspace->key);

    // rr and hspace sections too short for their fields.
    EXPECT_FALSE(decode(packet_with(32 + 23 + 8, 1, section(kTypeRr, 23, std::string(15, '\0')) +
                                                        section(kTypeObject, 8)), out));
    EXPECT_FALSE(decode(packet_with(32 + 21 + 8, 1, section(kTypeHspace, 21, std::string(13, '\0')) +
                                                        section(kTypeObject, 8)), out));

    // Handshake strings running past the body, and a body without the fixed fields.
    std::string hs = kHandshake;
    hs[0x3E] = 8; // client group length 8, 7 bytes left
    EXPECT_FALSE(decode(hs, out));
    EXPECT_FALSE(decode(packet_with(42, 0, section(kTypeHandshakeRequest, 10, "\0\1")), out));
    EXPECT_FALSE(decode(packet_with(44, 0, section(kTypeHandshakeReply, 12, "\0\1\0\5")), out));
    EXPECT_TRUE(decode(packet_with(46, 0, section(kTypeHandshakeReply, 14, std::string("\0\1\0\5\0\0", 6))), out));
    EXPECT_EQ("", out.handshake_reply->name);

    // Not a whole packet of exactly the given length.
    EXPECT_FALSE(decode(kSyncGet.substr(0, 87), out));
    EXPECT_FALSE(decode(kSyncGet + "x", out));

    // Subheaders by type: the later one of a type wins, unknown types are skipped.
    std::string first, second;
    put_rr_subheader(first, RrSubheader::success(1, 0, 0));
    put_rr_subheader(second, RrSubheader::success(2, 0, 0));
    std::string other = section(9, 12, "zzzz");
    std::string sections = first + other + second + section(kTypeReply, 8);
    ASSERT_TRUE(decode(packet_with(static_cast<uint32_t>(32 + sections.size()), 3, sections), out));
    EXPECT_EQ(2u, out.rr->corrid);
    EXPECT_EQ((std::vector<uint16_t>{kTypeRr, 9, kTypeRr}), out.subheader_types);
    EXPECT_EQ(kTypeReply, out.body_type);
}

TEST(Codec, CorruptedPacketsAreNeverReadOutOfBounds)
{
    // Every byte of each packet replaced by a few values; every prefix framed
    // from a buffer of exactly its size (the sanitizer build sees any overread).
    for (const std::string *bytes : {&kHandshake, &kSyncGet, &kNoReplyPut}) {
        for (size_t i = 0; i < bytes->size(); i++) {
            for (uint8_t v : {0x00, 0x07, 0x80, 0xFF}) {
                std::string m = *bytes;
                m[i] = static_cast<char>(v);
                for (size_t n = 0; n <= m.size(); n++) {
                    std::vector<uint8_t> buf(m.begin(), m.begin() + n);
                    FrameResult f = frame(buf.data(), n);
                    Packet p;
                    if (f.status == FrameStatus::Complete && decode(buf.data(), f.wirelen, p)) {
                        EXPECT_EQ(f.wirelen, p.raw.size());
                    }
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------
// The fake service, against a raw client socket.

namespace {

// A blocking client socket connected to the service, with a receive
// timeout so no read outlives the watchdog.
int connect_to(const FakeService &svc)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct timeval tv = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(svc.port());
    EXPECT_EQ(0, connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr));
    return fd;
}

// Reads one whole packet from fd; an empty Packet on error or timeout.
Packet read_packet(int fd, std::string &pending)
{
    for (;;) {
        FrameResult f = frame(pending);
        if (f.status == FrameStatus::Complete) {
            Packet p;
            EXPECT_TRUE(decode(reinterpret_cast<const uint8_t *>(pending.data()), f.wirelen, p));
            pending.erase(0, f.wirelen);
            return p;
        }
        if (f.status == FrameStatus::Invalid) return Packet();
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return Packet();
        pending.append(buf, static_cast<size_t>(n));
    }
}

} // namespace

TEST(FakeService, AnswersAHandshakeAndSendsScriptedPackets)
{
    FakeService svc;
    EXPECT_EQ("tcp://127.0.0.1:" + std::to_string(svc.port()), svc.url());
    int fd = connect_to(svc);
    FakeConnection c = svc.accept();
    ASSERT_TRUE(c.valid());

    // The handshake arrives byte by byte.
    for (char b : kHandshake) ASSERT_EQ(1, send(fd, &b, 1, MSG_NOSIGNAL));
    Packet hs = c.expect_handshake();
    ASSERT_TRUE(hs.handshake_request);
    EXPECT_EQ("anonymous", hs.handshake_request->client_name);
    EXPECT_EQ(kHandshake, hs.raw);
    ASSERT_TRUE(c.answer_handshake(5, "fake"));
    std::string expected, pending;
    encode_handshake_reply(expected, 1, 5, "fake");
    EXPECT_EQ(expected, read_packet(fd, pending).raw);

    // Two requests in one write come out one by one.
    ASSERT_EQ(static_cast<ssize_t>(kSyncGet.size() + kNoReplyPut.size()),
              send(fd, (kSyncGet + kNoReplyPut).data(), kSyncGet.size() + kNoReplyPut.size(), MSG_NOSIGNAL));
    EXPECT_EQ(kSyncGet, c.next_packet().raw);
    EXPECT_EQ(kNoReplyPut, c.next_packet().raw);

    // A batch leaves in one write; its packets keep their order and numbering.
    c.batch();
    c.objects(7, kOpGet, {{"a", "1"}, {"b", "2"}});
    c.notify("c", 1, "3");
    c.reply(8, 2);
    ASSERT_TRUE(c.flush());
    Packet a = read_packet(fd, pending), b = read_packet(fd, pending);
    Packet n = read_packet(fd, pending), r = read_packet(fd, pending);
    ASSERT_TRUE(a.rr && b.rr && n.hspace && r.rr);
    EXPECT_EQ("a", a.hspace->key);
    EXPECT_EQ(1u, a.rr->num());
    EXPECT_EQ(2u, b.rr->num());
    EXPECT_EQ(2u, b.rr->count());
    EXPECT_EQ(kOpNotification, n.hspace->opcode);
    EXPECT_EQ(2u, r.rr->error());

    // Bytewise sending, then an orderly close: the client reads the packet, then end of stream.
    std::string obj;
    encode_object(obj, 9, kOpGet, "k", "v", 1, 1);
    ASSERT_TRUE(c.send_raw_bytewise(obj));
    EXPECT_EQ(obj, read_packet(fd, pending).raw);
    c.close();
    char byte;
    EXPECT_EQ(0, recv(fd, &byte, 1, 0));
    close(fd);
}

TEST(FakeService, ScriptsServeConnectionsInOrderAndSeeTheClientClose)
{
    FakeService svc;
    // First connection: the handshake is refused by closing; the second is answered.
    svc.serve([](FakeConnection &c) {
        c.expect_handshake();
        c.close();
    });
    svc.serve([](FakeConnection &c) {
        c.handshake(9, "second");
        EXPECT_EQ(kSyncGet, c.next_packet().raw);
    });

    std::string pending;
    int first = connect_to(svc);
    ASSERT_EQ(static_cast<ssize_t>(kHandshake.size()), send(first, kHandshake.data(), kHandshake.size(), MSG_NOSIGNAL));
    char byte;
    EXPECT_EQ(0, recv(first, &byte, 1, 0));
    close(first);

    int second = connect_to(svc);
    ASSERT_EQ(static_cast<ssize_t>(kHandshake.size()), send(second, kHandshake.data(), kHandshake.size(), MSG_NOSIGNAL));
    Packet reply = read_packet(second, pending);
    ASSERT_TRUE(reply.handshake_reply);
    EXPECT_EQ(9, reply.handshake_reply->ltp);
    EXPECT_EQ("second", reply.handshake_reply->name);
    ASSERT_EQ(static_cast<ssize_t>(kSyncGet.size()), send(second, kSyncGet.data(), kSyncGet.size(), MSG_NOSIGNAL));
    ASSERT_TRUE(svc.join());

    // The finished script's connection passes to the test thread, still open.
    FakeConnection c = svc.take_connection();
    ASSERT_TRUE(c.valid());
    c.reply(7);
    Packet r = read_packet(second, pending);
    ASSERT_TRUE(r.rr);
    EXPECT_EQ(7u, r.rr->corrid);
    close(second);
    EXPECT_TRUE(c.wait_closed());
}

TEST(FakeService, WatchdogFailsTheTestInsteadOfHanging)
{
    FakeService svc(std::chrono::milliseconds(50));
    int fd = connect_to(svc);
    FakeConnection c = svc.accept();
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(0u, c.next_packet().wirelen), "watchdog");
    EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(c.wait_closed()), "watchdog");

    // A script blocked longer than join() allows is ended by the stop signal.
    ::testing::TestPartResultArray failures;
    {
        ::testing::ScopedFakeTestPartResultReporter reporter(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &failures);
        hspace::test::Signal started;
        int other = connect_to(svc);
        svc.serve([&started](FakeConnection &s) {
            s.set_watchdog(std::chrono::seconds(10));
            started.raise();
            s.next_packet();
        });
        EXPECT_TRUE(started.wait());
        EXPECT_FALSE(svc.join());
        close(other);
    }
    ASSERT_EQ(2, failures.size());
    std::string all = std::string(failures.GetTestPartResult(0).message()) + failures.GetTestPartResult(1).message();
    EXPECT_NE(std::string::npos, all.find("scripts still running"));
    EXPECT_NE(std::string::npos, all.find("stopped while waiting"));
    close(fd);
}
