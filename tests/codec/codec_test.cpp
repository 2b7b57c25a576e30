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

TEST(Codec, ServiceEncodersMatchTheGenericEncoderAndDecodeInPlace)
{
    // Each service encoder against the generic one on the same fields; the
    // head encoders write the same packet short of the value; the in-place
    // decoder reads every field back as views into the bytes.
    const std::string binary("\0\xff\x01v", 4), key_max(kMaxString, 'k');
    const struct {
        const char *name;
        uint8_t opcode;                        // kOpGet, kOpPost: an object; kOpNotification; 0: a bare reply
        std::string key, value;
        uint32_t a, b, c;                      // reply: corrid, status; object: corrid, count, num;
                                               // notification: trigger
        int32_t flags;
    } cases[] = {
        {"success", 0, "", "", 7, 0, 0, 0},
        {"failure", 0, "", "", 0xFFFFFFFF, 1103, 0, 0},
        {"get object", kOpGet, "k1", "v", 9, 1, 1, 0},
        {"post object, key only", kOpPost, "p/a", "", 3, kMaxCount, kMaxCount, kFlagKeyOnly},
        {"binary value, empty key", kOpGet, "", binary, 1, 2, 1, 0},
        {"longest key", kOpGet, key_max, "x", 1, 1, 1, 0},
        {"stored", kOpNotification, "n/1", "value", 1, 0, 0, 0},
        {"removed", kOpNotification, "n/1", "", 2, 0, 0, 0},
        {"ended, with its cause", kOpNotification, "n/*", "store history compacted", 4, 0, 0, 0},
    };
    for (const auto &c : cases) {
        Packet want;
        std::string got, head;
        if (c.opcode == 0) {
            want.rr = c.b == 0 ? RrSubheader::success(c.a, 0, 0) : RrSubheader::failure(c.a, c.b);
            want.body_type = kTypeReply;
            encode_reply(got, c.a, c.b);
            head = got;
        } else {
            HspaceSubheader h;
            h.opcode = c.opcode;
            h.key = c.key;
            h.flags = c.flags;
            if (c.opcode == kOpNotification) {
                h.triggers = static_cast<uint8_t>(c.a);
                encode_notification(got, c.key, h.triggers, c.value);
                encode_notification_head(head, c.key, h.triggers, c.value.size());
                EXPECT_EQ(notification_size(c.key.size(), c.value.size()), got.size()) << c.name;
            } else {
                want.rr = RrSubheader::success(c.a, c.b, c.c);
                encode_object(got, c.a, c.opcode, c.key, c.value, c.b, c.c, c.flags);
                encode_object_head(head, c.a, c.opcode, c.key, c.value.size(), c.b, c.c, c.flags);
                EXPECT_EQ(object_size(c.key.size(), c.value.size()), got.size()) << c.name;
            }
            want.hspace = h;
            want.body_type = kTypeObject;
            want.body = c.value;
            head += c.value;
        }
        std::string generic;
        encode(generic, want);
        EXPECT_EQ(generic, got) << c.name;
        EXPECT_EQ(generic, head) << c.name;
        PacketView v;
        ASSERT_TRUE(decode(reinterpret_cast<const uint8_t *>(got.data()), got.size(), v)) << c.name;
        EXPECT_EQ(v.body, c.value) << c.name;
        EXPECT_EQ(v.body.data(), got.data() + got.size() - c.value.size()) << c.name << ": not a view";
        EXPECT_EQ(v.hspace.has_value(), c.opcode != 0) << c.name;
        EXPECT_TRUE(!v.hspace || (v.hspace->key == c.key && v.hspace->flags == c.flags)) << c.name;
        EXPECT_EQ(v.rr.has_value(), want.rr.has_value()) << c.name;
        EXPECT_TRUE(!v.rr || (v.rr->w1 == want.rr->w1 && v.rr->w2 == want.rr->w2)) << c.name;
    }
    // The handshake's strings, in place.
    PacketView hs;
    ASSERT_TRUE(decode(reinterpret_cast<const uint8_t *>(kHandshake.data()), kHandshake.size(), hs));
    EXPECT_EQ(hs.body_type, kTypeHandshakeRequest);
    EXPECT_TRUE(hs.strings[0] == "data" && hs.strings[1] == "anonymous" && hs.strings[2] == "default");
    EXPECT_TRUE(hs.fixed1 == 1 && hs.fixed2 == 0xFFFF);
}
