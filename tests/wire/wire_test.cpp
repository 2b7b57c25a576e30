/* The library's wire code, white-box, against the service codec: every
 * encoder, the reply info bits, the handshake reply decoder, the
 * packet reader, the scanner, the filing of subheaders by type. */
#include "qel_hspace.cpp"

#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "client_harness.h"

namespace {

using namespace hspace::test;
using Bytes = std::string;

t_kro_byte *Ptr(Bytes &b) { return (t_kro_byte *)&b[0]; }

// A section of type whose length field says len (default: its real length).
Bytes Sec(uint16_t type, const Bytes &payload = "", int64_t len = -1)
{
    Bytes s;
    codec::put_preamble(s, type, len < 0 ? (uint32_t)(8 + payload.size()) : (uint32_t)len);
    return s + payload;
}

// A packet of header, the numsh subheader sections in subs, and a body.
Bytes Pkt(const Bytes &subs, int numsh, uint16_t body_type, const Bytes &body = "")
{
    Bytes s;
    codec::put_header(s, (uint32_t)(32 + subs.size() + 8 + body.size()), 0, 0, (uint8_t)numsh, body_type);
    return s + subs + Sec(body_type, body);
}

Bytes Header(uint32_t wirelen, uint8_t numsh = 0, uint32_t magic_version = 0xBADCAD01)
{
    Bytes s;
    codec::put_header(s, wirelen, 0, 0, numsh, codec::kTypeReply);
    for (int i = 0; i < 4; i++) s[i] = (char)(magic_version >> (24 - 8 * i));
    return s;
}

Bytes Rr(uint32_t corrid, uint32_t count = 0, uint32_t num = 0)
{
    Bytes s;
    codec::put_rr_subheader(s, codec::RrSubheader::success(corrid, count, num));
    return s;
}

// An hspace subheader; a key_len given overrides the key length field.
Bytes Hs(uint8_t opcode, const Bytes &key, int key_len = -1)
{
    codec::HspaceSubheader h;
    h.opcode = opcode;
    h.key = key;
    Bytes s;
    codec::put_hspace_subheader(s, h);
    if (key_len >= 0) s[20] = (char)(key_len >> 8), s[21] = (char)key_len;
    return s;
}

// An encoder's buffer: exactly one packet (pos == lim == size, one
// reference, owning its bytes), taken apart and released.
Bytes Take(t_kro_buf buf)
{
    EXPECT_TRUE(buf->refcount == 1 && !buf->wrapped && buf->pos == buf->size && buf->lim == buf->size);
    Bytes out((const char *)buf->ptr, buf->size);
    kro_buf_release(&buf);
    return out;
}

// A request to the service at dport 9, as the codec encodes it.
Bytes Req(uint8_t opcode, uint8_t semantic, const Bytes &key, std::optional<uint32_t> corrid, int32_t flags = 0,
          uint8_t triggers = 0, int32_t timeout = 0, const Bytes &data = "")
{
    codec::Request r;
    r.dport = 9, r.opcode = opcode, r.semantic = semantic, r.key = key, r.corrid = corrid;
    r.flags = flags, r.triggers = triggers, r.timeout = timeout, r.data = data;
    Bytes s;
    codec::encode_request(s, r);
    return s;
}

// A handle that only the encoders, the reader and inbound processing touch.
struct BareHandle {
    qel_hspace_struct h{};
    ~BareHandle()
    {
        if (h.readbuf != NULL) kro_buf_release(&h.readbuf);
        if (h.socket != NULL) kro_socket_destroy(&h.socket);
    }
};

// Every encoder against the codec: semantic to wire (no reply means no rr
// subheader), flag masks, triggers, timeout, value window, empty strings.
TEST(Encoders, EveryRequestMatchesTheCodec)
{
    BareHandle hs;
    hs.h.service_ltp = 9;
    t_qel_hspace h = &hs.h;
    const t_kro_int4 all = -1;
    UserObject object("key", "0123456789AB"), no_value("key");
    object.buf->pos = 3, object.buf->lim = 10;
    t_qel_hspace_object window = object.obj, bare = no_value.obj;
    Bytes handshake, empty;
    codec::encode_handshake_request(handshake, "data", "anonymous", "default");
    codec::encode_handshake_request(empty, "", "", "");
    auto *put = qel_hspace_pkt_serialize_put_request;
    auto *get = qel_hspace_pkt_serialize_get_request;
    auto *post = qel_hspace_pkt_serialize_post_request;
    auto *cancel = qel_hspace_pkt_serialize_cancel_request;
    auto *remove = qel_hspace_pkt_serialize_remove_request;
    using namespace hspace::codec;
    const struct {
        t_kro_buf packet;
        Bytes expected;
    } cases[] = {
        {qel_hspace_pkt_serialize_handshake_request("data", "anonymous", "default"), handshake},
        {qel_hspace_pkt_serialize_handshake_request("", "", ""), empty},
        {put(h, window, HSPACE_PUT_NOREPLY, 7, 0), Req(kOpPut, kSemNoReply, "key", {}, 0, 0, 0, "3456789")},
        {put(h, window, HSPACE_PUT_SYNC, all, 0x3FFFFFFF), Req(kOpPut, kSemSync, "key", 0x3FFFFFFF, 0, 0, 0, "3456789")},
        {put(h, bare, HSPACE_PUT_NOREPLY, 0, 0), Req(kOpPut, kSemNoReply, "key", {})},
        {get(h, "abc", HSPACE_GET_ASYNC, -3, all, 11), Req(kOpGet, kSemAsync, "abc", 11, 5, 0, -3)},
        {get(h, "abc", HSPACE_GET_SYNC, 0, 2, 12), Req(kOpGet, kSemSync, "abc", 12)},
        {post(h, "k", HSPACE_POST_SYNC, 0x5A, 1, 3), Req(kOpPost, kSemSync, "k", 3, 0, 0x5A)},
        {post(h, "k", HSPACE_POST_SYNC, 0x5A, all, 3), Req(kOpPost, kSemSync, "k", 3, 6, 0x5A)},
        {cancel(h, HSPACE_OPCODE_CANCEL, "kk", HSPACE_CANCEL_SYNC, 7, 4), Req(kOpCancel, kSemSync, "kk", 4)},
        {cancel(h, 3, "kk", (t_qel_hspace_cancel_semantic)31, 7, 0), Req(3, kSemNoReply, "kk", {})},
        {remove(h, "kk", HSPACE_REMOVE_SYNC, 7, 8), Req(kOpRemove, kSemSync, "kk", 8)},
        {remove(h, "", HSPACE_REMOVE_NOREPLY, 7, 0), Req(kOpRemove, kSemNoReply, "", {})},
    };
    for (const auto &c : cases) EXPECT_EQ(c.expected, Take(c.packet)) << &c - cases;
    EXPECT_TRUE(object.buf->pos == 3 && object.buf->lim == 10 && object.buf->refcount == 1); // read, not moved
}

// The reply info words as the codec builds them, byte for byte, and as the
// codec's and the library's accessors read them (reserved bits 30..27 ignored).
TEST(PacketLayout, ReplyInfoBits)
{
    using Info = std::tuple<t_kro_byte, t_kro_bool, uint32_t, uint32_t, uint32_t>; // reply, success, count, num, error
    using codec::RrSubheader;
    const uint32_t id = 0xCAFEF00D, max = codec::kMaxCount;
    const struct {
        RrSubheader rr;
        uint32_t w1, w2;
        Info info;
    } cases[] = {
        {RrSubheader::success(id, 10, 2), 0x04000001, 0x40000002, Info{1, 1, 10, 2, 0}},
        {RrSubheader::success(id, max, 0), 0x07FFFFFF, 0xE0000000, Info{1, 1, max, 0, 0}},
        {RrSubheader::success(id, max, max), 0x07FFFFFF, 0xFFFFFFFF, Info{1, 1, max, max, 0}},
        {RrSubheader::failure(id, 2), 0, 2, Info{1, 0, 0, 0, 2}},
        {RrSubheader::failure(id, 0xFFFFFFFF), 0, 0xFFFFFFFF, Info{1, 0, 0, 0, 0xFFFFFFFF}},
        {RrSubheader{id, 0x7C000000, 0x1FFFFFFF}, 0x7C000000, 0x1FFFFFFF, Info{1, 1, 0, max, 0}},
        {RrSubheader::request(id), 0x80000000, 0, Info{0, 0, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        Bytes rr, words;
        codec::put_rr_subheader(rr, c.rr);
        for (uint32_t w : {c.w1, c.w2})
            for (int shift = 24; shift >= 0; shift -= 8) words += (char)(w >> shift);
        EXPECT_EQ(words, rr.substr(16, 8)) << c.w1;
        EXPECT_EQ(c.info, Info(!c.rr.is_request(), c.rr.is_success(), c.rr.count(), c.rr.num(), c.rr.error())) << c.w1;
        t_kro_uint4 corrid = 0, count = 99, num = 99, error = 99;
        t_kro_bool success = 99;
        qel_hspace_pkt_get_reply_info_from_rr_subheader(Ptr(rr), &corrid, &success, &count, &num, &error);
        EXPECT_EQ(id, corrid);
        EXPECT_EQ(c.info, Info(qel_hspace_pkt_is_reply(Ptr(rr)), success, count, num, error)) << c.w1;
    }
}

// The body section of a handshake reply: type, version, ltp, name length
// and name bytes (which may run on past the name length).
Bytes ReplyBody(uint16_t type, uint16_t name_len, const Bytes &name)
{
    return Sec(type, Bytes("\x01\x02\xFF\xFE", 4) + Bytes{(char)(name_len >> 8), (char)name_len} + name);
}

TEST(HandshakeReply, DecodesTheNameOfExactLengthAndRefusesWhatDoesNotFit)
{
    for (const Bytes name : {"hspaced", ""}) {
        Bytes body = ReplyBody(codec::kTypeHandshakeReply, (uint16_t)name.size(), name + "XY");
        t_kro_uint2 version = 0, ltp = 0;
        t_kro_str decoded = NULL;
        ASSERT_EQ(0u, qel_hspace_pkt_deserialize_handshake_reply(Ptr(body), &version, &ltp, &decoded));
        EXPECT_TRUE(version == 0x0102 && ltp == 0xFFFE && name == decoded);
        kro_mm_free(&decoded);
    }
    for (Bytes body : {ReplyBody(codec::kTypeHandshakeRequest, 3, "abc"), ReplyBody(codec::kTypeHandshakeReply, 4, "abc"),
                       ReplyBody(codec::kTypeHandshakeReply, 0xFFFF, ""), Sec(codec::kTypeHandshakeReply, Bytes("\0\1\0\5", 4))}) {
        t_kro_uint2 version = 7, ltp = 7;
        t_kro_str decoded = NULL;
        EXPECT_EQ(KRO_ERR_INVALID_PACKET, qel_hspace_pkt_deserialize_handshake_reply(Ptr(body), &version, &ltp, &decoded));
        EXPECT_EQ(nullptr, decoded);
    }
}

// The packet reader, on a connection to the fake service.
using Reader = LibraryTest;

TEST_F(Reader, AssemblesSplitsAndGrowsOnlyAsBytesArrive)
{
    auto object = [](uint32_t corrid, size_t len) {
        return Pkt(Rr(corrid) + Hs(codec::kOpGet, "k"), 2, codec::kTypeObject, Bytes(len, 'x'));
    };
    const Bytes a = object(1, 10), b = object(2, 300), mid = object(3, 9000);
    const Bytes big = Pkt("", 0, codec::kTypeObject, Bytes(20000 - 40, 'z'));
    const Bytes exact = Pkt("", 0, codec::kTypeObject, Bytes(HSPACE_PKT_READBUF_SIZE - 40, 'e'));
    // The service sends (bytewise: one byte per write) from another thread,
    // the reader returns the packets in reads; an error: the service then
    // closes, and the next read fails so. size: the read buffer's at the end.
    const struct { const char *name; Bytes sent; bool bytewise; std::vector<Bytes> reads; t_kro_error error; t_kro_uint4 size; } cases[] = {
        {"two packets, then the close", a + b, false, {a, b}, KRO_ERR_PEER_CLOSED, 8192},
        {"one byte per write", a + b, true, {a, b}, 0, 8192},
        {"doubles twice for 20000 bytes and stays", big + a, false, {big, a}, 0, 32768},
        {"doubles once for 9000 bytes", mid, false, {mid}, 0, 16384},
        {"exactly the buffer size", exact + exact, false, {exact, exact}, 0, 8192},
        {"close mid-packet", a.substr(0, 50), false, {}, KRO_ERR_PEER_CLOSED, 8192},
        {"1 GiB announced, nothing allocated", Header(HSPACE_PKT_MAX_LEN).substr(0, 8), false, {}, KRO_ERR_PEER_CLOSED, 8192},
        {"invalid after valid", a + Bytes(8, 0), false, {a}, KRO_ERR_INVALID_PACKET, 8192},
    };
    FakeService svc;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        BareHandle hs;
        ASSERT_EQ(0u, qel_hspace_socket_create(svc.url().c_str(), &hs.h.socket));
        ASSERT_EQ(0u, kro_socket_connect(hs.h.socket));
        FakeConnection peer = svc.accept();
        std::thread writer([&] {
            EXPECT_TRUE(c.bytewise ? peer.send_raw_bytewise(c.sent) : peer.send_raw(c.sent));
            if (c.error != 0) peer.close();
        });
        for (const Bytes &want : c.reads) {
            t_qel_hspace_packet packet = NULL;
            EXPECT_EQ(0u, qel_hspace_read_packet(&hs.h, &packet));
            if (packet == NULL) break;
            EXPECT_EQ(want, Bytes((const char *)packet->header, qel_hspace_pkt_get_wirelen(packet->header)));
            kro_mm_free(&packet);
        }
        struct qel_hspace_packet sentinel;
        t_qel_hspace_packet packet = &sentinel;
        EXPECT_EQ(c.error, c.error != 0 ? qel_hspace_read_packet(&hs.h, &packet) : 0);
        EXPECT_EQ(&sentinel, packet); // untouched on error
        writer.join();
        ASSERT_NE(nullptr, hs.h.readbuf);
        EXPECT_EQ(c.size, hs.h.readbuf->size);
    }
}

// A large object's payload is read into a buffer of its own (the packet's
// value, the object's to be): the read buffer holds the packet's prefix only
// and keeps its size, the body section ends at its preamble there. It
// begins with the payload bytes that came with the prefix; a payload cut
// short fails the read (no leak). A large packet of another kind grows the
// read buffer, which shrinks back once it is empty again.
TEST_F(Reader, LargeObjectsAreReadApartAndTheBufferShrinksBack)
{
    Bytes payload(HSPACE_PKT_DIRECT_MIN + 1000, 'p');
    for (size_t i = 0; i < payload.size(); i += 997) payload[i] = (char)i;
    const Bytes big = Pkt(Rr(7) + Hs(codec::kOpGet, "k"), 2, codec::kTypeObject, payload);
    const Bytes prefix = big.substr(0, big.size() - payload.size());
    const Bytes small = Pkt(Rr(1), 1, codec::kTypeObject, "x"), reply = Pkt(Rr(8), 1, codec::kTypeReply, Bytes(200000, 'r'));
    FakeService svc;
    BareHandle hs;
    ASSERT_EQ(0u, qel_hspace_socket_create(svc.url().c_str(), &hs.h.socket));
    ASSERT_EQ(0u, kro_socket_connect(hs.h.socket));
    FakeConnection peer = svc.accept();
    auto next = [&](const Bytes &whole, const Bytes &value) {
        t_qel_hspace_packet packet = NULL;
        ASSERT_EQ(0u, qel_hspace_read_packet(&hs.h, &packet));
        const t_kro_byte *header = (const t_kro_byte *)packet->header;
        if (value.empty()) {
            EXPECT_EQ(nullptr, packet->value);
            EXPECT_EQ(whole, Bytes((const char *)header, qel_hspace_pkt_get_wirelen(packet->header)));
        } else {
            EXPECT_EQ(whole.substr(0, whole.size() - value.size()),
                      Bytes((const char *)header, (const t_kro_byte *)packet->body + 8 - header));
            ASSERT_NE(nullptr, packet->value);
            EXPECT_TRUE(packet->value->wrapped && packet->value->pos == 0 && packet->value->refcount == 1);
            EXPECT_EQ(value, Bytes((const char *)packet->value->ptr, packet->value->lim));
            kro_buf_release(&packet->value);
        }
        kro_mm_free(&packet);
    };
    ASSERT_TRUE(peer.send_raw(big + small)); // the prefix and some payload arrive together
    next(big, payload);
    next(small, "");
    EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, hs.h.readbuf->size);
    ASSERT_TRUE(peer.send_raw_bytewise(prefix) && peer.send_raw(payload)); // the prefix alone first
    next(big, payload);
    ASSERT_TRUE(peer.send_raw(reply));
    next(reply, "");
    EXPECT_LT(200000u, hs.h.readbuf->size);
    ASSERT_TRUE(peer.send_raw(small));
    next(small, "");
    EXPECT_EQ(HSPACE_PKT_READBUF_SIZE, hs.h.readbuf->size);
    ASSERT_TRUE(peer.send_raw(big.substr(0, big.size() - 10)));
    peer.close();
    struct qel_hspace_packet sentinel;
    t_qel_hspace_packet packet = &sentinel;
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, qel_hspace_read_packet(&hs.h, &packet));
    EXPECT_EQ(&sentinel, packet);
}

// The library's scanner and the codec's framer apply one set of rules:
// each stream is refused as soon as its bytes prove it invalid.
TEST(Scan, ScannerAndFramerAgreeOnEveryStream)
{
    const Bytes body = Sec(codec::kTypeReply);
    const struct {
        const char *name;
        Bytes bytes;
        qel_hspace_pkt_scan want;
    } cases[] = {
        {"bad magic", Header(40, 0, 0xBADCAE01) + body, QEL_HSPACE_PKT_INVALID},
        {"bad version", Header(40, 0, 0xBADCAD02) + body, QEL_HSPACE_PKT_INVALID},
        {"eight bytes of bad magic", Header(40, 0, 0x0BADCAD1).substr(0, 8), QEL_HSPACE_PKT_INVALID},
        {"seven bytes of bad magic", Header(40, 0, 0x0BADCAD1).substr(0, 7), QEL_HSPACE_PKT_MORE},
        {"wirelen below the header", Header(31).substr(0, 8), QEL_HSPACE_PKT_INVALID},
        {"wirelen above 1 GiB", Header(HSPACE_PKT_MAX_LEN + 1).substr(0, 8), QEL_HSPACE_PKT_INVALID},
        {"wirelen 1 GiB", Header(HSPACE_PKT_MAX_LEN) + Sec(1, "", HSPACE_PKT_MAX_LEN - 32), QEL_HSPACE_PKT_MORE},
        {"wirelen 2^32-1", Header(0xFFFFFFFF) + body, QEL_HSPACE_PKT_INVALID},
        {"subheader length 7", Header(32 + 7 + 8, 1) + Sec(1, "", 7) + Bytes(1, 0) + body, QEL_HSPACE_PKT_INVALID},
        {"body length 7", Header(32 + 8) + Sec(260, "", 7) + Bytes(1, 0), QEL_HSPACE_PKT_INVALID},
        {"body length 0", Header(32 + 8) + Sec(260, "", 0), QEL_HSPACE_PKT_INVALID},
        // The sections add up to wirelen only by overlapping.
        {"subheader length 4 overlapping the body", Header(48, 1) + Sec(1, Bytes("\0\0\0\x0C", 4), 4) + Bytes(4, 0),
         QEL_HSPACE_PKT_INVALID},
        {"subheader past wirelen", Header(32 + 24 + 8, 1) + Sec(1, "", 40) + Bytes(16, 0), QEL_HSPACE_PKT_INVALID},
        {"subheader inside wirelen", Header(100, 1) + Sec(1, "", 60), QEL_HSPACE_PKT_MORE},
        {"body past wirelen", Header(32 + 8) + Sec(257, "", 9), QEL_HSPACE_PKT_INVALID},
        {"no room for the body", Header(32 + 24, 1) + Rr(1), QEL_HSPACE_PKT_INVALID},
        {"no body", Header(32), QEL_HSPACE_PKT_INVALID},
        {"sections short of wirelen", Header(41) + body, QEL_HSPACE_PKT_INVALID},
        {"header and an empty body, and more", Header(40) + body + "zz", QEL_HSPACE_PKT_WHOLE},
    };
    const codec::FrameStatus framer[] = {codec::FrameStatus::NeedMore, codec::FrameStatus::Complete,
                                         codec::FrameStatus::Invalid};
    for (const auto &c : cases) {
        EXPECT_EQ(c.want, qel_hspace_pkt_scan_bytes((const t_kro_byte *)c.bytes.data(), (t_kro_uint4)c.bytes.size()))
            << c.name;
        EXPECT_EQ(framer[c.want], codec::frame(c.bytes).status) << c.name;
    }
}

// Subheaders are filed by type (a later one replaces an earlier one, other
// types are stepped over). One too short to use is not filed, so inbound
// processing drops its packet instead of reading past it.
TEST(Frame, FilesSubheadersByTypeAndNeverOneTooShort)
{
    const Bytes short_rr = Sec(codec::kTypeRr, "", 8), hs = Hs(codec::kOpGet, "k"), v = "v";
    const int _ = -1, R = 32 + 23; // R: the offset of a subheader after hs
    const struct {
        Bytes bytes;
        std::vector<int> slots; // offset of each slot's subheader from the header, -1 for none
        size_t body;            // offset of the body
    } cases[] = {
        {Pkt("", 0, codec::kTypeReply), {_, _, _, _, _}, 32},
        {Pkt(Rr(1) + hs + Rr(2), 3, codec::kTypeObject, v), {_, 32 + 24 + 23, _, _, 32 + 24}, 32 + 24 + 23 + 24},
        {Pkt(Sec(5, "ignored") + Sec(300) + Sec(0, "z"), 3, codec::kTypeReply), {32 + 15 + 8, _, _, _, _}, 32 + 32},
        {Pkt(short_rr, 1, codec::kTypeReply), {_, _, _, _, _}, 40},
        {Pkt(hs + short_rr, 2, codec::kTypeObject, v), {_, _, _, _, 32}, R + 8},
        {Pkt(hs + Rr(1, 1, 1) + short_rr, 3, codec::kTypeObject, v), {_, _, _, _, 32}, R + 32}, // emptied
        {Pkt(Hs(codec::kOpNotification, "ab", 10), 1, codec::kTypeObject, v), {_, _, _, _, _}, R + 1},
        {Pkt(Hs(codec::kOpNotification, "ab"), 1, codec::kTypeObject, v), {_, _, _, _, 32}, R + 1}, // key fills it
        {Pkt(Sec(codec::kTypeHspace, Bytes(13, 7), 21), 1, codec::kTypeObject, v), {_, _, _, _, _}, 32 + 21},
        {Pkt(Hs(codec::kOpGet, "k", 200) + Rr(1, 1, 1), 2, codec::kTypeObject, v), {_, R, _, _, _}, R + 24},
    };
    for (const auto &c : cases) {
        Bytes bytes = c.bytes;
        struct kro_buf in = {1, 0, (t_kro_uint4)bytes.size(), (t_kro_uint4)bytes.size(), 1, Ptr(bytes)};
        t_qel_hspace_packet packet = NULL;
        ASSERT_EQ(QEL_HSPACE_PKT_WHOLE, qel_hspace_pkt_scan_bytes(Ptr(bytes), (t_kro_uint4)bytes.size()));
        qel_hspace_pkt_frame(&in, &packet);
        EXPECT_EQ(in.lim, in.pos);
        for (int i = 0; i < HSPACE_SUBHEADER_SLOTS; i++)
            EXPECT_EQ(c.slots[i] < 0 ? nullptr : Ptr(bytes) + c.slots[i], packet->subheaders[i])
                << "case " << &c - cases << ", slot " << i;
        EXPECT_EQ(Ptr(bytes) + c.body, packet->body);
        kro_mm_free(&packet);
    }
}

} // namespace
