/* The service codec: the worked examples byte for byte, the decoder and
 * framer on hostile input (the reply info bits and the framer's verdicts on
 * broken streams: tests/wire, against the library's encoders and scanner). */
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
    for (const char *p = text; *p != '\0'; p += *p == ' ' ? 1 : 2)
        if (*p != ' ') out.push_back(static_cast<char>(std::stoul(std::string(p, 2), nullptr, 16)));
    return out;
}

const std::string kHandshake = hex(
    "BA DC AD 01 00 00 00 46 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 FF 00 00 01 41 "
    "01 00 01 41 00 00 00 26 00 01 FF FF 00 04 64 61 74 61 00 09 61 6E 6F 6E 79 6D 6F 75 73 00 07 64 "
    "65 66 61 75 6C 74");

const std::string kSyncGet = hex(
    "BA DC AD 01 00 00 00 58 00 00 00 00 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00 FF 00 02 01 03 "
    "01 00 00 04 00 00 00 18 01 02 01 00 00 00 00 00 00 00 00 00 00 02 6B 31 01 00 00 01 00 00 00 18 "
    "00 00 00 00 00 00 00 07 80 00 00 00 00 00 00 00 01 00 01 03 00 00 00 08");

const std::string kNoReplyPut = hex(
    "BA DC AD 01 00 00 00 43 00 00 00 00 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00 FF 00 01 01 01 "
    "01 00 00 04 00 00 00 18 01 01 04 00 00 00 00 00 00 00 00 00 00 02 6B 31 01 00 01 01 00 00 00 0B "
    "61 62 63");

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
    Request get, put;
    get.dport = put.dport = 5, get.key = put.key = "k1";
    get.opcode = kOpGet, get.corrid = 7u;
    put.opcode = kOpPut, put.semantic = kSemNoReply, put.data = "abc";
    std::string bytes[3];
    encode_handshake_request(bytes[0], "data", "anonymous", "default");
    encode_request(bytes[1], get);
    encode_request(bytes[2], put);
    // Each encoder writes the worked example; its decoding keeps the raw
    // bytes, and the generic encoder reproduces it from the decoding.
    const std::string *want[3] = {&kHandshake, &kSyncGet, &kNoReplyPut};
    Packet p[3];
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(*want[i], bytes[i]) << i;
        EXPECT_TRUE(decode(*want[i], p[i])) << i;
        EXPECT_EQ(*want[i], p[i].raw) << i;
        EXPECT_EQ(want[i]->size(), p[i].wirelen) << i;
        std::string again;
        encode(again, p[i]);
        EXPECT_EQ(*want[i], again) << i;
    }
    // What the round trip cannot show: the fields only the decoder reads.
    ASSERT_TRUE(p[0].handshake_request && p[1].rr);
    EXPECT_EQ("default", p[0].handshake_request->client_group);
    EXPECT_EQ((std::vector<uint16_t>{kTypeHspace, kTypeRr}), p[1].subheader_types);
    EXPECT_TRUE(p[1].rr->is_request());
}

TEST(Codec, DecoderChecksEveryFieldAgainstItsSection)
{
    HspaceSubheader h;
    h.key = "abc";
    std::string sh, hs_long = kHandshake, first, second;
    put_hspace_subheader(sh, h);
    std::string long_key = sh;
    long_key[21] = 4; // key length 4 in a 25-byte section
    hs_long[0x3E] = 8; // client group length 8, 7 bytes left
    put_rr_subheader(first, RrSubheader::success(1, 0, 0));
    put_rr_subheader(second, RrSubheader::success(2, 0, 0));
    const std::string twice = first + section(9, 12, "zzzz") + second + section(kTypeReply, 8);
    const std::string body = section(kTypeObject, 8);
    const struct {
        const char *name;
        std::string bytes;
        bool ok;
    } cases[] = {
        {"key past its section", packet_with(32 + 25 + 8, 1, long_key + body), false},
        {"key filling its section", packet_with(32 + 25 + 8, 1, sh + body), true},
        {"rr section of 23", packet_with(32 + 23 + 8, 1, section(kTypeRr, 23, std::string(15, '\0')) + body), false},
        {"hspace section of 21", packet_with(32 + 21 + 8, 1, section(kTypeHspace, 21, std::string(13, '\0')) + body), false},
        {"handshake string past the body", hs_long, false},
        {"handshake request without fixed fields", packet_with(42, 0, section(kTypeHandshakeRequest, 10, "\0\1")), false},
        {"handshake reply without its name", packet_with(44, 0, section(kTypeHandshakeReply, 12, "\0\1\0\5")), false},
        {"handshake reply, empty name", packet_with(46, 0, section(kTypeHandshakeReply, 14, std::string("\0\1\0\5\0\0", 6))), true},
        {"one byte short", kSyncGet.substr(0, 87), false},
        {"one byte over", kSyncGet + "x", false},
    };
    for (const auto &c : cases) {
        Packet out;
        EXPECT_EQ(c.ok, decode(c.bytes, out)) << c.name;
    }
    // The later subheader of a type wins; unknown types are listed and skipped.
    Packet out;
    ASSERT_TRUE(decode(packet_with(static_cast<uint32_t>(32 + twice.size()), 3, twice), out));
    EXPECT_EQ(2u, out.rr->corrid);
    EXPECT_EQ((std::vector<uint16_t>{kTypeRr, 9, kTypeRr}), out.subheader_types);
    EXPECT_EQ(kTypeReply, out.body_type);
}

TEST(Codec, FramerWaitsOnEveryPrefixAndNeverOverreadsACorruptedPacket)
{
    // Every byte of each packet replaced by a few values; every prefix framed
    // from a buffer of exactly its size (the sanitizer build sees any overread).
    for (const std::string *bytes : {&kHandshake, &kSyncGet, &kNoReplyPut}) {
        for (size_t n = 0; n < bytes->size(); n++)
            EXPECT_EQ(FrameStatus::NeedMore, frame(bytes->substr(0, n)).status) << n << " bytes";
        EXPECT_EQ(FrameStatus::Complete, frame(*bytes).status);
        for (size_t i = 0; i < bytes->size(); i++) {
            for (uint8_t v : {0x00, 0x07, 0x80, 0xFF}) {
                std::string m = *bytes;
                m[i] = static_cast<char>(v);
                for (size_t n = 0; n <= m.size(); n++) {
                    std::vector<uint8_t> buf(m.begin(), m.begin() + n);
                    FrameResult f = frame(buf.data(), n);
                    Packet p;
                    EXPECT_TRUE(f.status != FrameStatus::Complete || !decode(buf.data(), f.wirelen, p) ||
                                p.raw.size() == f.wirelen);
                }
            }
        }
    }
}
