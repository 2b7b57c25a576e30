/*
 * codec_test.cpp - the service-side codec: the client's packets byte for
 * byte, the reply info bit layout, the framer's and the decoder's rules on
 * hostile input.
 */
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hspace_codec.h"

using namespace hspace::codec;

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
    Packet hs = must_decode(kHandshake), g = must_decode(kSyncGet), p = must_decode(kNoReplyPut);
    ASSERT_TRUE(hs.handshake_request && g.hspace && g.rr && p.hspace);
    EXPECT_EQ("default", hs.handshake_request->client_group);
    EXPECT_EQ(0xFFFF, hs.handshake_request->fixed2);
    EXPECT_EQ((std::vector<uint16_t>{kTypeHspace, kTypeRr}), g.subheader_types);
    EXPECT_EQ("k1", g.hspace->key);
    EXPECT_EQ(7u, g.rr->corrid);
    EXPECT_TRUE(g.rr->is_request());
    EXPECT_FALSE(p.rr);
    EXPECT_EQ(kSemNoReply, p.hspace->semantic);
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
