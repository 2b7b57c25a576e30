/*
 * wire_test.cpp - the wire protocol, white-box: the bytes every encoder
 * writes, the field accessors, the handshake reply decoder, the packet
 * reader against a real loopback connection, and inbound processing of
 * packets whose subheaders are too short to use.
 *
 * Every blocking read has a watchdog that interrupts the socket after
 * kWatchdogSeconds, so a hang fails the test instead of stalling it.
 */
#include "qel_hspace.cpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int kWatchdogSeconds = 15; // bound of every blocking step in this file

using Bytes = std::vector<t_kro_byte>;

void InitLibrary() { ASSERT_EQ(0u, qel_hspace_initialize(QEL_HSPACE_VERSION, 1)); }

/* ---- byte helpers: big-endian fields and packet builders ---- */

void Put16(Bytes &b, uint32_t v)
{
    b.push_back((t_kro_byte)(v >> 8));
    b.push_back((t_kro_byte)v);
}

void Put32(Bytes &b, uint32_t v)
{
    Put16(b, v >> 16);
    Put16(b, v & 0xFFFF);
}

uint32_t Rd16(const Bytes &b, size_t off) { return (uint32_t)b.at(off) << 8 | b.at(off + 1); }
uint32_t Rd32(const Bytes &b, size_t off) { return Rd16(b, off) << 16 | Rd16(b, off + 2); }

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Hex(const char *text)
{
    Bytes out;
    for (const char *p = text; *p != '\0';) {
        if (*p == ' ') {
            p++;
            continue;
        }
        out.push_back((t_kro_byte)std::stoul(std::string(p, 2), nullptr, 16));
        p += 2;
    }
    return out;
}

/* A section preamble claiming len bytes, then payload. */
Bytes SectionLen(uint32_t type, uint32_t len, const Bytes &payload = {})
{
    Bytes b = {0x01, 0x00};
    Put16(b, type);
    Put32(b, len);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes Section(uint32_t type, const Bytes &payload = {}) { return SectionLen(type, 8 + (uint32_t)payload.size(), payload); }

Bytes Header(uint32_t wirelen, uint32_t numsh, uint32_t type, uint32_t magic_version = 0xBADCAD01)
{
    Bytes b;
    Put32(b, magic_version);
    Put32(b, wirelen);
    b.resize(27, 0);
    b.push_back(0xFF);
    b.push_back(0);
    b.push_back((t_kro_byte)numsh);
    Put16(b, type);
    return b;
}

/* A well-formed packet: header, subheaders, body section. */
Bytes Packet(const std::vector<Bytes> &subheaders, uint32_t body_type, const Bytes &payload = {})
{
    Bytes body = Section(body_type, payload);
    size_t wirelen = 32 + body.size();
    for (const Bytes &s : subheaders) wirelen += s.size();
    Bytes out = Header((uint32_t)wirelen, (uint32_t)subheaders.size(), body_type);
    for (const Bytes &s : subheaders) out.insert(out.end(), s.begin(), s.end());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes RrInfo(uint32_t corrid, uint32_t w1, uint32_t w2)
{
    Bytes b;
    Put32(b, 0);
    Put32(b, corrid);
    Put32(b, w1);
    Put32(b, w2);
    return Section(HSPACE_BODY_RR, b);
}

/* A successful reply's rr subheader, object num of count. */
Bytes RrOk(uint32_t corrid, uint32_t count = 0, uint32_t num = 0)
{
    return RrInfo(corrid, 0x04000000u | (count >> 3), (count & 7u) << 29 | num);
}

Bytes HsFields(uint32_t opcode, const std::string &key, uint32_t key_len, uint32_t triggers = 0)
{
    Bytes b = {0x01, (t_kro_byte)opcode, 0, (t_kro_byte)triggers};
    Put32(b, 0);
    Put32(b, 0);
    Put16(b, key_len);
    b.insert(b.end(), key.begin(), key.end());
    return b;
}

Bytes Hs(uint32_t opcode, const std::string &key, uint32_t triggers = 0)
{
    return Section(HSPACE_BODY_HSPACE, HsFields(opcode, key, (uint32_t)key.size(), triggers));
}

Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }

Bytes Prefix(const Bytes &b, size_t n) { return Bytes(b.begin(), b.begin() + n); }

/* A kro_buf record over bytes the test owns (never freed through it). */
struct kro_buf Wrap(Bytes &bytes)
{
    struct kro_buf b;
    b.refcount = 1;
    b.pos = 0;
    b.lim = (t_kro_uint4)bytes.size();
    b.size = (t_kro_uint4)bytes.size();
    b.wrapped = 1;
    b.ptr = bytes.data();
    return b;
}

/* ---- encoder output, taken apart ---- */

struct Wire {
    Bytes bytes;
    uint32_t wirelen = 0, dport = 0, numsh = 0, type = 0;
    bool has_hs = false;
    uint32_t hs_len = 0, opcode = 0, semantic = 0, triggers = 0, flags = 0;
    int32_t timeout = 0;
    std::string key;
    bool has_rr = false;
    uint32_t corrid = 0, w1 = 0, w2 = 0;
    uint32_t body_type = 0, body_len = 0;
    Bytes payload;
};

/* Takes an encoder's buffer: checks that it is exactly one packet
 * (pos == lim == size == wirelen, one reference, owns its data), parses it
 * and releases it. */
Wire Take(t_kro_buf buf)
{
    Wire w;
    size_t off = 32;
    EXPECT_EQ(1, buf->refcount);
    EXPECT_EQ(0, buf->wrapped);
    EXPECT_EQ(buf->size, buf->pos);
    EXPECT_EQ(buf->size, buf->lim);
    w.bytes.assign((t_kro_byte *)buf->ptr, (t_kro_byte *)buf->ptr + buf->size);
    kro_buf_release(&buf);
    w.wirelen = Rd32(w.bytes, 4);
    EXPECT_EQ(w.bytes.size(), w.wirelen);
    w.dport = Rd16(w.bytes, 18);
    w.numsh = w.bytes.at(29);
    w.type = Rd16(w.bytes, 30);
    for (uint32_t i = 0; i <= w.numsh; i++) {
        uint32_t type = Rd16(w.bytes, off + 2), len = Rd32(w.bytes, off + 4);
        EXPECT_EQ(0x01, w.bytes.at(off));
        EXPECT_EQ(0x00, w.bytes.at(off + 1));
        if (i == w.numsh) {
            w.body_type = type;
            w.body_len = len;
            w.payload.assign(w.bytes.begin() + off + 8, w.bytes.begin() + off + len);
        } else if (type == HSPACE_BODY_HSPACE) {
            w.has_hs = true;
            w.hs_len = len;
            w.opcode = w.bytes.at(off + 9);
            w.semantic = w.bytes.at(off + 10);
            w.triggers = w.bytes.at(off + 11);
            w.timeout = (int32_t)Rd32(w.bytes, off + 12);
            w.flags = Rd32(w.bytes, off + 16);
            w.key.assign(w.bytes.begin() + off + 22, w.bytes.begin() + off + 22 + Rd16(w.bytes, off + 20));
        } else if (type == HSPACE_BODY_RR) {
            w.has_rr = true;
            EXPECT_EQ(24u, len);
            w.corrid = Rd32(w.bytes, off + 12);
            w.w1 = Rd32(w.bytes, off + 16);
            w.w2 = Rd32(w.bytes, off + 20);
        }
        off += len;
    }
    EXPECT_EQ(w.wirelen, off);
    return w;
}

/* A handle that only the encoders and the reader touch (service_ltp,
 * socket, readbuf); value-initialised, so every other field is zero. */
struct BareHandle {
    qel_hspace_struct h{};
    BareHandle() = default;
    explicit BareHandle(t_kro_uint2 ltp) { h.service_ltp = ltp; }
    ~BareHandle()
    {
        if (h.readbuf != NULL) kro_buf_release(&h.readbuf);
        if (h.socket != NULL) kro_socket_destroy(&h.socket);
    }
};

/* ======================================================================
 * Encoders: three reference packets, byte for byte.
 * ====================================================================== */

TEST(ReferencePackets, ByteForByte)
{
    InitLibrary();
    BareHandle hs(5);
    Bytes value = Text("abc");
    struct kro_buf data = Wrap(value);
    t_qel_hspace_object object = NULL;
    ASSERT_EQ(0u, qel_hspace_object_create("k1", &data, &object));
    const struct {
        const char *name;
        t_kro_buf packet;
        const char *hex;
    } cases[] = {
        {"handshake request", qel_hspace_pkt_serialize_handshake_request("data", "anonymous", "default"),
         "BA DC AD 01 00 00 00 46 00 00 00 00 00 00 00 00"
         "00 00 00 00 00 00 00 00 00 00 00 FF 00 00 01 41"
         "01 00 01 41 00 00 00 26 00 01 FF FF 00 04 64 61"
         "74 61 00 09 61 6E 6F 6E 79 6D 6F 75 73 00 07 64"
         "65 66 61 75 6C 74"},
        {"synchronous get", qel_hspace_pkt_serialize_get_request(&hs.h, "k1", HSPACE_GET_SYNC, 0, 0, 7),
         "BA DC AD 01 00 00 00 58 00 00 00 00 00 00 00 00"
         "00 00 00 05 00 00 00 00 00 00 00 FF 00 02 01 03"
         "01 00 00 04 00 00 00 18 01 02 01 00 00 00 00 00"
         "00 00 00 00 00 02 6B 31 01 00 00 01 00 00 00 18"
         "00 00 00 00 00 00 00 07 80 00 00 00 00 00 00 00"
         "01 00 01 03 00 00 00 08"},
        {"no-reply put", qel_hspace_pkt_serialize_put_request(&hs.h, object, HSPACE_PUT_NOREPLY, 0, 0),
         "BA DC AD 01 00 00 00 43 00 00 00 00 00 00 00 00"
         "00 00 00 05 00 00 00 00 00 00 00 FF 00 01 01 01"
         "01 00 00 04 00 00 00 18 01 01 04 00 00 00 00 00"
         "00 00 00 00 00 02 6B 31 01 00 01 01 00 00 00 0B"
         "61 62 63"},
    };
    for (const auto &c : cases) EXPECT_EQ(Hex(c.hex), Take(c.packet).bytes) << c.name;
    EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
}

/* ======================================================================
 * Encoders: semantics, flags, lengths.
 * ====================================================================== */

TEST(Encoders, PutSemanticsFlagsAndData)
{
    InitLibrary();
    BareHandle hs(9);
    t_kro_buf data = NULL;
    t_qel_hspace_object object = NULL;
    kro_buf_create(&data, 12, 0);
    for (t_kro_byte i = 0; i < 12; i++) ((t_kro_byte *)data->ptr)[i] = (t_kro_byte)(0xA0 + i);
    data->pos = 3;
    data->lim = 10;
    ASSERT_EQ(0u, qel_hspace_object_create("key", data, &object));

    // No reply: one subheader, wire semantic 4, exactly the 7 bytes [3, 10).
    Wire w = Take(qel_hspace_pkt_serialize_put_request(&hs.h, object, HSPACE_PUT_NOREPLY, 0x7, 0));
    EXPECT_EQ(62u + 3 + 7, w.wirelen);
    EXPECT_EQ(9u, w.dport);
    EXPECT_EQ(1u, w.numsh);
    EXPECT_FALSE(w.has_rr);
    EXPECT_EQ(HSPACE_OPCODE_PUT, (int)w.opcode);
    EXPECT_EQ(4u, w.semantic);
    EXPECT_EQ(0u, w.flags);
    EXPECT_EQ("key", w.key);
    EXPECT_EQ((uint32_t)HSPACE_BODY_OBJECT, w.body_type);
    EXPECT_EQ(Bytes({0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9}), w.payload);
    // The object's buffer is untouched.
    EXPECT_EQ(3u, data->pos);
    EXPECT_EQ(10u, data->lim);
    EXPECT_EQ(12u, data->size);
    EXPECT_EQ(1, data->refcount);

    // Synchronous: an rr subheader with sno, marked as a request.
    w = Take(qel_hspace_pkt_serialize_put_request(&hs.h, object, HSPACE_PUT_SYNC, -1, 0x3FFFFFFF));
    EXPECT_EQ(86u + 3 + 7, w.wirelen);
    EXPECT_EQ(2u, w.numsh);
    EXPECT_EQ(1u, w.semantic);
    EXPECT_EQ(0u, w.flags);
    ASSERT_TRUE(w.has_rr);
    EXPECT_EQ(0x3FFFFFFFu, w.corrid);
    EXPECT_EQ(0x80000000u, w.w1);
    EXPECT_EQ(0u, w.w2);
    EXPECT_EQ(3u, data->pos);
    EXPECT_EQ(0u, qel_hspace_object_destroy(&object));

    // No data buffer: a body of type 257 and length 8, nothing after it.
    ASSERT_EQ(0u, qel_hspace_object_create("key", NULL, &object));
    w = Take(qel_hspace_pkt_serialize_put_request(&hs.h, object, HSPACE_PUT_NOREPLY, 0, 0));
    EXPECT_EQ(62u + 3, w.wirelen);
    EXPECT_EQ((uint32_t)HSPACE_BODY_OBJECT, w.body_type);
    EXPECT_EQ(8u, w.body_len);
    EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
    kro_buf_release(&data);
}

/* Requests without data: semantic to wire (any semantic but the replied
 * ones means no reply and no rr subheader), flag mask, triggers, timeout. */
TEST(Encoders, RequestSemanticsFlagsAndTriggers)
{
    BareHandle hs(5);
    const t_kro_int4 all = (t_kro_int4)0xFFFFFFFF;
    t_qel_hspace h = &hs.h;
    const struct {
        const char *name;
        t_kro_buf packet;
        uint32_t opcode, semantic, flags, triggers, corrid, wirelen;
        int32_t timeout;
    } cases[] = {
        {"async get", qel_hspace_pkt_serialize_get_request(h, "abc", HSPACE_GET_ASYNC, -3, 7, 11),
         HSPACE_OPCODE_GET, 3, 5, 0, 11, 86 + 3, -3},
        {"sync get, key-only", qel_hspace_pkt_serialize_get_request(h, "abc", HSPACE_GET_SYNC, 0, 2, 12),
         HSPACE_OPCODE_GET, 1, 0, 0, 12, 86 + 3, 0},
        {"sync get, all flags", qel_hspace_pkt_serialize_get_request(h, "abc", HSPACE_GET_SYNC, 0, all, 12),
         HSPACE_OPCODE_GET, 1, 5, 0, 12, 86 + 3, 0},
        {"post 6", qel_hspace_pkt_serialize_post_request(h, "k", HSPACE_POST_SYNC, 0x5A, 6, 3),
         HSPACE_OPCODE_POST, 1, 6, 0x5A, 3, 86 + 1, 0},
        {"post 1", qel_hspace_pkt_serialize_post_request(h, "k", HSPACE_POST_SYNC, 0x5A, 1, 3),
         HSPACE_OPCODE_POST, 1, 0, 0x5A, 3, 86 + 1, 0},
        {"post 2", qel_hspace_pkt_serialize_post_request(h, "k", HSPACE_POST_SYNC, 0x5A, 2, 3),
         HSPACE_OPCODE_POST, 1, 2, 0x5A, 3, 86 + 1, 0},
        {"post 4", qel_hspace_pkt_serialize_post_request(h, "k", HSPACE_POST_SYNC, 0x5A, 4, 3),
         HSPACE_OPCODE_POST, 1, 4, 0x5A, 3, 86 + 1, 0},
        {"post all", qel_hspace_pkt_serialize_post_request(h, "k", HSPACE_POST_SYNC, 0x5A, all, 3),
         HSPACE_OPCODE_POST, 1, 6, 0x5A, 3, 86 + 1, 0},
        {"sync cancel", qel_hspace_pkt_serialize_cancel_request(h, HSPACE_OPCODE_CANCEL, "kk", HSPACE_CANCEL_SYNC, 7, 4),
         HSPACE_OPCODE_CANCEL, 1, 0, 0, 4, 86 + 2, 0},
        {"cancel, other semantic and opcode",
         qel_hspace_pkt_serialize_cancel_request(h, 3, "kk", (t_qel_hspace_cancel_semantic)31, 7, 0), 3, 4, 0, 0, 0,
         62 + 2, 0},
        {"sync remove", qel_hspace_pkt_serialize_remove_request(h, "kk", HSPACE_REMOVE_SYNC, 7, 8),
         HSPACE_OPCODE_REMOVE, 1, 0, 0, 8, 86 + 2, 0},
        {"no-reply remove", qel_hspace_pkt_serialize_remove_request(h, "kk", HSPACE_REMOVE_NOREPLY, 7, 0),
         HSPACE_OPCODE_REMOVE, 4, 0, 0, 0, 62 + 2, 0},
    };
    for (const auto &c : cases) {
        Wire w = Take(c.packet);
        bool replied = c.semantic != 4;
        EXPECT_EQ(c.opcode, w.opcode) << c.name;
        EXPECT_EQ(c.semantic, w.semantic) << c.name;
        EXPECT_EQ(c.flags, w.flags) << c.name;
        EXPECT_EQ(c.triggers, w.triggers) << c.name;
        EXPECT_EQ(c.timeout, w.timeout) << c.name;
        EXPECT_EQ(c.wirelen, w.wirelen) << c.name;
        EXPECT_EQ(replied, w.has_rr) << c.name;
        EXPECT_EQ(replied ? 2u : 1u, w.numsh) << c.name;
        EXPECT_EQ(c.corrid, w.corrid) << c.name;
        EXPECT_EQ(replied ? 0x80000000u : 0u, w.w1) << c.name;
        EXPECT_EQ((uint32_t)HSPACE_BODY_REQUEST, w.body_type) << c.name;
        EXPECT_EQ(8u, w.body_len) << c.name;
    }
}

TEST(Encoders, HandshakeWithEmptyStrings)
{
    Wire w = Take(qel_hspace_pkt_serialize_handshake_request("", "", ""));
    EXPECT_EQ(50u, w.wirelen);
    EXPECT_EQ(0u, w.dport);
    EXPECT_EQ(0u, w.numsh);
    EXPECT_EQ((uint32_t)HSPACE_BODY_HANDSHAKE_REQUEST, w.type);
    EXPECT_EQ((uint32_t)HSPACE_BODY_HANDSHAKE_REQUEST, w.body_type);
    EXPECT_EQ(18u, w.body_len);
    EXPECT_EQ(Hex("00 01 FF FF 00 00 00 00 00 00"), w.payload);
}

/* ======================================================================
 * Packet layout: reply info, keys.
 * ====================================================================== */

TEST(PacketLayout, ReplyInfoBitLayouts)
{
    const struct {
        const char *info;
        t_kro_byte is_reply;
        t_kro_bool success;
        uint32_t count, num, error;
    } cases[] = {
        {"04 00 00 01 40 00 00 02", 1, 1, 10, 2, 0},
        {"00 00 00 00 00 00 00 02", 1, 0, 0, 0, 2},
        {"07 FF FF FF E0 00 00 00", 1, 1, 0x1FFFFFFF, 0, 0},
        {"7C 00 00 00 1F FF FF FF", 1, 1, 0, 0x1FFFFFFF, 0}, // reserved bits 30..27 ignored
        {"80 00 00 00 00 00 00 00", 0, 0, 0, 0, 0},          // what a request carries
    };
    for (const auto &c : cases) {
        Bytes info = Hex(c.info);
        Bytes rr = RrInfo(0xCAFEF00D, Rd32(info, 0), Rd32(info, 4));
        t_kro_uint4 corrid = 0, count = 99, num = 99;
        t_kro_bool success = 99;
        t_kro_error error = 99;
        qel_hspace_pkt_get_reply_info_from_rr_subheader(rr.data(), &corrid, &success, &count, &num, &error);
        EXPECT_EQ(c.is_reply, qel_hspace_pkt_is_reply(rr.data())) << c.info;
        EXPECT_EQ(0xCAFEF00Du, corrid) << c.info;
        EXPECT_EQ(c.success, success) << c.info;
        EXPECT_EQ(c.count, count) << c.info;
        EXPECT_EQ(c.num, num) << c.info;
        EXPECT_EQ(c.error, error) << c.info;
    }
}

TEST(PacketLayout, EmptyKey)
{
    BareHandle hs(5);
    t_kro_str key = NULL;
    Wire w = Take(qel_hspace_pkt_serialize_remove_request(&hs.h, "", HSPACE_REMOVE_NOREPLY, 0, 0));
    EXPECT_EQ(22u, w.hs_len);
    EXPECT_EQ(62u, w.wirelen);
    qel_hspace_pkt_get_key_from_hspace_subheader(w.bytes.data() + 32, &key);
    ASSERT_NE(nullptr, key);
    EXPECT_STREQ("", key);
    kro_mm_free(&key);
}

/* ======================================================================
 * Handshake reply decoder.
 * ====================================================================== */

Bytes HandshakeReplyBody(uint32_t type, uint32_t version, uint32_t ltp, uint32_t name_len, const std::string &name)
{
    Bytes fields;
    Put16(fields, version);
    Put16(fields, ltp);
    Put16(fields, name_len);
    fields.insert(fields.end(), name.begin(), name.end());
    return Section(type, fields);
}

TEST(HandshakeReply, DecodesNameOfExactLength)
{
    for (const std::string name : {"hspaced", ""}) {
        // Bytes after the name inside the section must not reach the name.
        Bytes body = HandshakeReplyBody(HSPACE_BODY_HANDSHAKE_REPLY, 0x0102, 0xFFFE, (uint32_t)name.size(), name + "XY");
        t_kro_uint2 version = 0, ltp = 0;
        t_kro_str decoded = NULL;
        ASSERT_EQ(0u, qel_hspace_pkt_deserialize_handshake_reply(body.data(), &version, &ltp, &decoded));
        EXPECT_EQ(0x0102, version);
        EXPECT_EQ(0xFFFE, ltp);
        ASSERT_NE(nullptr, decoded);
        EXPECT_EQ(name, std::string(decoded));
        kro_mm_free(&decoded);
    }
}

TEST(HandshakeReply, RefusesWrongTypeAndOverlongName)
{
    const Bytes bodies[] = {
        HandshakeReplyBody(HSPACE_BODY_HANDSHAKE_REQUEST, 1, 5, 3, "abc"), // not a reply
        HandshakeReplyBody(HSPACE_BODY_HANDSHAKE_REPLY, 1, 5, 4, "abc"),   // name runs past the body
        HandshakeReplyBody(HSPACE_BODY_HANDSHAKE_REPLY, 1, 5, 0xFFFF, ""),
        Section(HSPACE_BODY_HANDSHAKE_REPLY, Bytes{0, 1, 0, 5}),           // no room for the name length
    };
    for (const Bytes &body : bodies) {
        Bytes copy = body;
        t_kro_uint2 version = 7, ltp = 7;
        t_kro_str decoded = NULL;
        EXPECT_EQ(KRO_ERR_INVALID_PACKET, qel_hspace_pkt_deserialize_handshake_reply(copy.data(), &version, &ltp, &decoded));
        EXPECT_EQ(nullptr, decoded);
    }
}

/* ======================================================================
 * The packet reader over a real connection: the library's client socket,
 * connected to a listener on 127.0.0.1, and the accepted descriptor
 * through which the test plays the service.
 * ====================================================================== */

class Reader : public ::testing::Test {
protected:
    void SetUp() override { Open(); }
    void TearDown() override { Close(); }

    // A fresh connection and handle, with a watchdog that interrupts the
    // client socket if a read blocks for kWatchdogSeconds.
    void Open()
    {
        struct sockaddr_in addr;
        socklen_t len = sizeof addr;
        struct pollfd pfd;
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(listener, 0);
        memset(&addr, 0, sizeof addr);
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(0, bind(listener, (struct sockaddr *)&addr, sizeof addr));
        ASSERT_EQ(0, getsockname(listener, (struct sockaddr *)&addr, &len));
        ASSERT_EQ(0, listen(listener, 1));
        handle_ = new BareHandle();
        std::string url = "tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
        ASSERT_EQ(0u, qel_hspace_socket_create(url.c_str(), &handle_->h.socket));
        ASSERT_EQ(0u, kro_socket_connect(handle_->h.socket));
        pfd.fd = listener;
        pfd.events = POLLIN;
        ASSERT_EQ(1, poll(&pfd, 1, kWatchdogSeconds * 1000));
        peer_ = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        close(listener);
        ASSERT_GE(peer_, 0);
        struct timeval tv = {kWatchdogSeconds, 0};
        setsockopt(peer_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        fired_ = stop_ = false;
        watchdog_ = std::thread([this, socket = handle_->h.socket] {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!cond_.wait_for(lock, std::chrono::seconds(kWatchdogSeconds), [this] { return stop_; })) {
                fired_ = true;
                kro_socket_interrupt(socket);
            }
        });
    }

    void Close()
    {
        if (watchdog_.joinable()) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                stop_ = true;
            }
            cond_.notify_all();
            watchdog_.join();
            EXPECT_FALSE(fired_) << "a read blocked for " << kWatchdogSeconds << " s";
        }
        ClosePeer();
        delete handle_;
        handle_ = NULL;
    }

    void Send(const Bytes &bytes)
    {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = send(peer_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            ASSERT_GT(n, 0);
            done += (size_t)n;
        }
    }

    void ClosePeer()
    {
        if (peer_ >= 0) close(peer_);
        peer_ = -1;
    }

    t_kro_error Read(t_qel_hspace_packet *packet) { return qel_hspace_read_packet(&handle_->h, packet); }

    // Reads one packet and checks it is exactly `expected`; returns the
    // record (the caller frees it) or null.
    t_qel_hspace_packet ReadExpect(const Bytes &expected)
    {
        t_qel_hspace_packet packet = NULL;
        t_kro_error error = Read(&packet);
        EXPECT_EQ(0u, error);
        if (error != 0) return NULL;
        EXPECT_EQ(Bytes((t_kro_byte *)packet->header, (t_kro_byte *)packet->header + expected.size()), expected);
        return packet;
    }

    t_kro_buf readbuf() const { return handle_->h.readbuf; }

    BareHandle *handle_ = NULL;
    int peer_ = -1;
    std::thread watchdog_;
    std::mutex mutex_;
    std::condition_variable cond_;
    bool stop_ = false;
    bool fired_ = false;
};

Bytes Object(uint32_t corrid, const std::string &key, size_t data_len, t_kro_byte seed = 0)
{
    Bytes data(data_len);
    for (size_t i = 0; i < data_len; i++) data[i] = (t_kro_byte)(seed + i * 7);
    return Packet({Hs(HSPACE_OPCODE_GET, key), RrOk(corrid, 1, 1)}, HSPACE_BODY_OBJECT, data);
}

TEST_F(Reader, TwoPacketsFromOneReadNeedNoSecondRead)
{
    Bytes a = Object(1, "first", 10), b = Object(2, "second", 20);
    Send(Cat({a, b}));
    ClosePeer(); // any further read now fails with KRO_ERR_PEER_CLOSED
    t_qel_hspace_packet packet = ReadExpect(a);
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, readbuf()->size);
    EXPECT_EQ(b.size(), readbuf()->lim - readbuf()->pos); // the second packet is already here
    kro_mm_free(&packet);
    packet = ReadExpect(b);
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ(2u, qel_hspace_pkt_get_corrid_from_rr_subheader(packet->subheaders[HSPACE_BODY_RR]));
    kro_mm_free(&packet);
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, Read(&packet));
}

TEST_F(Reader, PacketsSentOneBytePerWriteAreAssembled)
{
    Bytes a = Object(1, "one", 40, 1), b = Object(2, "two", 300, 2), stream = Cat({a, b});
    std::thread writer([&] {
        for (t_kro_byte byte : stream)
            if (send(peer_, &byte, 1, MSG_NOSIGNAL) != 1) break;
    });
    t_qel_hspace_packet packet = ReadExpect(a);
    kro_mm_free(&packet);
    packet = ReadExpect(b);
    kro_mm_free(&packet);
    writer.join();
    EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, readbuf()->size);
}

TEST_F(Reader, PartialPacketIsKeptAcrossReads)
{
    Bytes a = Object(1, "a", 5), b = Object(2, "b", 50);
    Send(Cat({a, Bytes(b.begin(), b.begin() + 37)}));
    t_qel_hspace_packet packet = ReadExpect(a);
    kro_mm_free(&packet);
    Send(Bytes(b.begin() + 37, b.end()));
    packet = ReadExpect(b);
    kro_mm_free(&packet);
}

TEST_F(Reader, NoVerdictBeforeEightBytes)
{
    // Seven bytes that are no packet start: no verdict, the reader reads on
    // and meets the close.
    t_qel_hspace_packet packet = NULL;
    Send(Bytes(7, 0x55));
    shutdown(peer_, SHUT_WR);
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, Read(&packet));
    EXPECT_EQ(nullptr, packet);
    // Eight good header bytes of an unfinished packet: read on as well.
    Close();
    Open();
    Send(Prefix(Header(64, 0, HSPACE_BODY_REPLY), 8));
    shutdown(peer_, SHUT_WR);
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, Read(&packet));
    // The eighth byte of a bad start is the verdict.
    Close();
    Open();
    Send(Cat({Bytes(7, 0x55), Bytes(1, 0x55)}));
    EXPECT_EQ(KRO_ERR_INVALID_PACKET, Read(&packet));
    EXPECT_EQ(nullptr, packet);
}

TEST_F(Reader, BufferDoublesFor20000BytesAndStays)
{
    Bytes big = Packet({}, HSPACE_BODY_OBJECT, Bytes(20000 - 40, 0));
    for (size_t i = 40; i < big.size(); i++) big[i] = (t_kro_byte)(i * 13);
    Bytes small = Object(3, "after", 4);
    ASSERT_EQ(20000u, big.size());
    Send(Cat({big, small}));
    t_qel_hspace_packet packet = ReadExpect(big);
    EXPECT_EQ(32768u, readbuf()->size);
    kro_mm_free(&packet);
    packet = ReadExpect(small);
    EXPECT_EQ(32768u, readbuf()->size);
    kro_mm_free(&packet);
    // One doubling is enough for a packet of 9000 bytes.
    Close();
    Open();
    Bytes mid = Packet({}, HSPACE_BODY_OBJECT, Bytes(9000 - 40, 0x5A));
    Send(mid);
    packet = ReadExpect(mid);
    EXPECT_EQ(16384u, readbuf()->size);
    kro_mm_free(&packet);
}

TEST_F(Reader, PacketOfExactlyTheBufferSizeDoesNotGrowIt)
{
    Bytes exact = Packet({}, HSPACE_BODY_OBJECT, Bytes(HSPACE_PKT_READBUF_SIZE - 40, 0xEE));
    ASSERT_EQ(HSPACE_PKT_READBUF_SIZE, exact.size());
    Send(Cat({exact, exact}));
    for (int i = 0; i < 2; i++) {
        t_qel_hspace_packet packet = ReadExpect(exact);
        EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, readbuf()->size);
        kro_mm_free(&packet);
    }
}

TEST_F(Reader, SubheadersAreFiledByType)
{
    Bytes bare = Packet({}, HSPACE_BODY_REPLY);
    Bytes twice = Packet({RrOk(1), Hs(HSPACE_OPCODE_GET, "k"), RrOk(2)}, HSPACE_BODY_OBJECT, Text("v"));
    Bytes skipped = Packet({Section(5, Text("ignored")), Section(300), Section(0, Text("z"))}, HSPACE_BODY_REPLY);
    Send(Cat({bare, twice, skipped}));

    t_qel_hspace_packet packet = ReadExpect(bare);
    ASSERT_NE(nullptr, packet);
    for (t_kro_ptr slot : packet->subheaders) EXPECT_EQ(nullptr, slot);
    EXPECT_EQ((t_kro_byte *)packet->header + 32, packet->body);
    kro_mm_free(&packet);

    packet = ReadExpect(twice);
    ASSERT_NE(nullptr, packet);
    ASSERT_NE(nullptr, packet->subheaders[HSPACE_BODY_RR]);
    EXPECT_EQ((t_kro_byte *)packet->header + 32 + 24 + 23, packet->subheaders[HSPACE_BODY_RR]); // the second
    EXPECT_EQ(2u, qel_hspace_pkt_get_corrid_from_rr_subheader(packet->subheaders[HSPACE_BODY_RR]));
    EXPECT_EQ((t_kro_byte *)packet->header + 32 + 24, packet->subheaders[HSPACE_BODY_HSPACE]);
    EXPECT_EQ((t_kro_byte *)packet->header + 32 + 24 + 23 + 24, packet->body);
    kro_mm_free(&packet);

    packet = ReadExpect(skipped);
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ((t_kro_byte *)packet->header + 32 + 15 + 8, packet->subheaders[0]);
    for (int i = 1; i < HSPACE_SUBHEADER_SLOTS; i++) EXPECT_EQ(nullptr, packet->subheaders[i]) << i;
    EXPECT_EQ((t_kro_byte *)packet->header + 32 + 15 + 8 + 9, packet->body);
    kro_mm_free(&packet);
}

TEST_F(Reader, PeerCloseMidPacketLeavesPacketUntouched)
{
    Bytes a = Object(1, "key", 30);
    struct qel_hspace_packet sentinel;
    t_qel_hspace_packet packet = &sentinel;
    Send(Bytes(a.begin(), a.begin() + 50));
    ClosePeer();
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, Read(&packet));
    EXPECT_EQ(&sentinel, packet);
}

/* Invalid streams: each is refused with KRO_ERR_INVALID_PACKET from the
 * bytes received (the peer has closed, so reading on would give
 * KRO_ERR_PEER_CLOSED instead), without growing the buffer. */
struct InvalidCase {
    const char *name;
    Bytes bytes;
};

void PrintTo(const InvalidCase &c, std::ostream *os) { *os << c.name; }

class InvalidPacket : public Reader, public ::testing::WithParamInterface<InvalidCase> {};

TEST_P(InvalidPacket, IsRefused)
{
    struct qel_hspace_packet sentinel;
    t_qel_hspace_packet packet = &sentinel;
    Send(GetParam().bytes);
    ClosePeer();
    EXPECT_EQ(KRO_ERR_INVALID_PACKET, Read(&packet));
    EXPECT_EQ(&sentinel, packet);
    ASSERT_NE(nullptr, readbuf());
    EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, readbuf()->size);
}

Bytes WithWirelen(Bytes packet, uint32_t wirelen)
{
    Bytes field;
    Put32(field, wirelen);
    std::copy(field.begin(), field.end(), packet.begin() + 4);
    return packet;
}

const Bytes kGood = Packet({Hs(HSPACE_OPCODE_GET, "k"), RrOk(1, 1, 1)}, HSPACE_BODY_OBJECT, Text("data"));

INSTANTIATE_TEST_SUITE_P(
    Reader, InvalidPacket,
    ::testing::Values(
        InvalidCase{"BadMagic", Cat({Header(40, 0, 260, 0xBADCAE01), Section(260)})},
        InvalidCase{"BadVersion", Cat({Header(40, 0, 260, 0xBADCAD02), Section(260)})},
        InvalidCase{"EightBytesOfBadMagic", Prefix(Header(40, 0, 260, 0x0BADCAD1), 8)},
        InvalidCase{"WirelenBelowHeader", Prefix(Header(31, 0, 260), 8)},
        InvalidCase{"WirelenAbove1GiB", Prefix(Header(HSPACE_PKT_MAX_LEN + 1, 0, 260), 8)},
        InvalidCase{"WirelenMaxUint", Cat({Header(0xFFFFFFFF, 0, 260), Section(260)})},
        InvalidCase{"SubheaderLen7", Cat({Header(32 + 7 + 8, 1, 260), SectionLen(1, 7), Bytes(1), Section(260)})},
        InvalidCase{"BodyLen7", Cat({Header(32 + 8, 0, 260), SectionLen(260, 7), Bytes(1)})},
        InvalidCase{"BodyLen0", Cat({Header(32 + 8, 0, 260), SectionLen(260, 0)})},
        // A 4-byte subheader whose length field doubles as the body's type:
        // the sections add up to wirelen only by overlapping.
        InvalidCase{"SubheaderLen4OverlapsBody", Cat({Header(48, 1, 4), Hex("01 00 00 01 00 00 00 04 00 00 00 0C"),
                                                      Bytes(4)})},
        InvalidCase{"SubheaderPastWirelen", Cat({Header(32 + 24 + 8, 1, 260), SectionLen(1, 40), Bytes(16)})},
        InvalidCase{"BodyPastWirelen", Cat({Header(32 + 8, 0, 257), SectionLen(257, 9)})},
        InvalidCase{"NoRoomForBody", Cat({Header(32 + 24, 1, 260), RrOk(1)})},
        InvalidCase{"SectionsShortOfWirelen", WithWirelen(Cat({kGood, Bytes(4)}), (uint32_t)kGood.size() + 4)}),
    [](const ::testing::TestParamInfo<InvalidCase> &info) { return std::string(info.param.name); });

/* A valid packet before invalid bytes is still returned; the refusal is
 * the next call's. */
TEST_F(Reader, InvalidAfterValidIsRefusedOnTheNextCall)
{
    t_qel_hspace_packet packet = NULL;
    Send(Cat({kGood, Bytes(8, 0)}));
    ClosePeer();
    packet = ReadExpect(kGood);
    kro_mm_free(&packet);
    EXPECT_EQ(KRO_ERR_INVALID_PACKET, Read(&packet));
}

TEST_F(Reader, LargeAnnouncedLengthGrowsOnlyAsBytesArrive)
{
    // 1 GiB exactly is acceptable: the reader waits for it, without
    // allocating toward it.
    t_qel_hspace_packet packet = NULL;
    Send(Prefix(Header(HSPACE_PKT_MAX_LEN, 0, 260), 8));
    ClosePeer();
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, Read(&packet));
    EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, readbuf()->size);
}

/* ======================================================================
 * Inbound processing of subheaders too short to use: never filed, so the
 * packet is dropped without reading past its sections.
 * ====================================================================== */

std::vector<t_qel_hspace_event> g_events; // events seen by EventCollector, this thread only

void EventCollector(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    g_events.push_back(event);
    if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        auto *data = (t_qel_hspace_post_notification_event_data_struct *)event_data;
        qel_hspace_object_destroy(&data->object);
    }
}

class Inbound : public ::testing::Test {
protected:
    void SetUp() override
    {
        InitLibrary();
        g_events.clear();
        hs_.h.event_handler = EventCollector;
        new (&hs_.h.state) std::atomic<t_qel_hspace_state>(HSPACE_STATE_OPEN);
        kro_llist_create(&hs_.h.reqtable);
        ASSERT_EQ(0u, kro_mutex_create(KRO_MT_FAST, &hs_.h.mutex));
        ASSERT_EQ(0u, kro_cond_create(&hs_.h.cond));
        kro_llist_create(&objects_);
        qel_hspace_lock(&hs_.h);
        get_ = qel_hspace_request_create(&hs_.h, HSPACE_OPCODE_GET, "k", NULL, NULL, 1, 0, objects_);
        qel_hspace_unlock(&hs_.h);
        ASSERT_EQ(1u, get_->corrid);
    }

    void TearDown() override
    {
        t_kro_ptr node;
        while ((node = kro_llist_first(objects_)) != NULL) {
            t_qel_hspace_object object = (t_qel_hspace_object)node;
            kro_llist_remove(object);
            qel_hspace_object_destroy(&object);
        }
        kro_llist_destroy(&objects_);
        qel_hspace_request_destroy(&get_);
        kro_llist_destroy(&hs_.h.reqtable);
        kro_mutex_destroy(&hs_.h.mutex);
        kro_cond_destroy(&hs_.h.cond);
    }

    // Frames bytes (one whole packet) and processes the packet.
    void Process(Bytes bytes)
    {
        struct kro_buf in = Wrap(bytes);
        t_qel_hspace_packet packet = NULL;
        ASSERT_EQ(QEL_HSPACE_PKT_WHOLE, qel_hspace_pkt_scan_bytes(bytes.data(), (t_kro_uint4)bytes.size()));
        qel_hspace_pkt_frame(&in, &packet);
        EXPECT_EQ(in.lim, in.pos);
        filed_rr_ = packet->subheaders[HSPACE_BODY_RR] != NULL;
        filed_hs_ = packet->subheaders[HSPACE_BODY_HSPACE] != NULL;
        qel_hspace_process_packet(&hs_.h, packet);
        kro_mm_free(&packet);
    }

    BareHandle hs_;
    t_kro_llist objects_ = NULL;
    t_qel_hspace_request get_ = NULL;
    bool filed_rr_ = false, filed_hs_ = false;
};

TEST_F(Inbound, ShortRrSubheaderIsNotFiled)
{
    Bytes short_rr = SectionLen(HSPACE_BODY_RR, 8);
    // A bare reply and an object for corrid 1, each with an rr subheader
    // that is only a preamble: neither completes nor feeds the get.
    Process(Packet({short_rr}, HSPACE_BODY_REPLY));
    EXPECT_FALSE(filed_rr_);
    Process(Packet({Hs(HSPACE_OPCODE_GET, "k"), short_rr}, HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_FALSE(filed_rr_);
    EXPECT_TRUE(filed_hs_);
    // A short rr after a good one empties the slot too.
    Process(Packet({Hs(HSPACE_OPCODE_GET, "k"), RrOk(1, 1, 1), short_rr}, HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_FALSE(filed_rr_);
    EXPECT_EQ(0, objects_->num_elements);
    EXPECT_EQ(0, get_->sync_ctx->complete);
    EXPECT_EQ(get_, qel_hspace_request_get_by_corrid(&hs_.h, 1));
    // The same object with a whole rr subheader completes the get.
    Process(Packet({Hs(HSPACE_OPCODE_GET, "k"), RrOk(1, 1, 1)}, HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_EQ(1, objects_->num_elements);
    EXPECT_EQ(1, get_->sync_ctx->complete);
}

TEST_F(Inbound, HspaceSubheaderWithKeyPastItsSectionIsNotFiled)
{
    // Key length 10 in a section with room for 2 key bytes; and a section
    // shorter than the fixed fields.
    Bytes past = Section(HSPACE_BODY_HSPACE, HsFields(HSPACE_OPCODE_NOTIFICATION, "ab", 10));
    Bytes tiny = SectionLen(HSPACE_BODY_HSPACE, 21, Bytes(13, 0x07));
    Process(Packet({past}, HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_FALSE(filed_hs_);
    Process(Packet({tiny}, HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_FALSE(filed_hs_);
    Process(Packet({Section(HSPACE_BODY_HSPACE, HsFields(HSPACE_OPCODE_GET, "k", 200)), RrOk(1, 1, 1)},
                   HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_FALSE(filed_hs_);
    EXPECT_TRUE(filed_rr_);
    EXPECT_TRUE(g_events.empty());
    EXPECT_EQ(0, objects_->num_elements);
    EXPECT_EQ(0, get_->sync_ctx->complete);
    // A key that fills its section exactly is used.
    Process(Packet({Hs(HSPACE_OPCODE_NOTIFICATION, "ab")}, HSPACE_BODY_OBJECT, Text("v")));
    EXPECT_TRUE(filed_hs_);
    EXPECT_EQ(std::vector<t_qel_hspace_event>{HSPACE_EVENT_POST_NOTIFICATION}, g_events);
}

} // namespace
