/*
 * hspace_codec.h - the hspace wire protocol seen from the service's side:
 * an incremental framer over received bytes, a decoder of whole packets into
 * plain values, and encoders of every packet the service sends (and of the
 * client's requests, so tests can compare bytes).
 *
 * Pure functions over bytes: no sockets, no state, no locks; any thread.
 * Independent of the client library: the wire values are mirrored here.
 * Byte strings are std::string (arbitrary bytes, NULs included).
 */
#ifndef HSPACE_CODEC_H
#define HSPACE_CODEC_H

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hspace {
namespace codec {

// Packet header and sections.
constexpr uint32_t kMagic = 0xBADCAD;          // header bytes 0..2
constexpr uint8_t kVersion = 1;                // header byte 3
constexpr size_t kHeaderSize = 32;             // bytes of the packet header
constexpr size_t kPreambleSize = 8;            // bytes of every section preamble
constexpr size_t kRrSectionSize = 24;          // bytes of an rr subheader section
constexpr size_t kHspaceSectionBase = 22;      // bytes of an hspace subheader section without its key
constexpr uint32_t kMaxPacket = 1u << 30;      // largest wirelen accepted, in bytes (1 GiB)
constexpr size_t kMaxString = 0xFFFF;          // longest key or handshake string, in bytes

// Section types (subheaders and bodies).
constexpr uint16_t kTypeRr = 1;                // rr subheader
constexpr uint16_t kTypeHspace = 4;            // hspace subheader
constexpr uint16_t kTypeObject = 257;          // body: one object's value
constexpr uint16_t kTypeRequest = 259;         // body: empty (get, post, cancel, remove)
constexpr uint16_t kTypeReply = 260;           // body: bare reply, status in the rr subheader
constexpr uint16_t kTypeHandshakeRequest = 321; // body: handshake request
constexpr uint16_t kTypeHandshakeReply = 322;  // body: handshake reply

// Opcodes of the hspace subheader.
constexpr uint8_t kOpPut = 1;                  // put request
constexpr uint8_t kOpGet = 2;                  // get request; object answering a get
constexpr uint8_t kOpPost = 4;                 // post request; object of a post's initial image
constexpr uint8_t kOpCancel = 5;               // cancel of a post
constexpr uint8_t kOpRemove = 6;               // remove request
constexpr uint8_t kOpNotification = 7;         // change notification to a subscriber

// Wire semantics of the hspace subheader.
constexpr uint8_t kSemSync = 1;                // the client waits for the reply
constexpr uint8_t kSemAsync = 3;               // asynchronous get
constexpr uint8_t kSemNoReply = 4;             // no reply wanted

// Wire flag bits of the hspace subheader.
constexpr int32_t kFlagBit0 = 0x1;             // get: copied from the caller's flags
constexpr int32_t kFlagNoImage = 0x2;          // post: no initial image
constexpr int32_t kFlagKeyOnly = 0x4;          // get, post: keys without values

// Reply info bits (rr subheader word 1).
constexpr uint32_t kRequestBit = 0x80000000u;  // set in requests, clear in replies
constexpr uint32_t kSuccessBit = 0x04000000u;  // set in successful replies
constexpr uint32_t kMaxCount = 0x1FFFFFFFu;    // largest reply count or number (29 bits)

// hspace subheader (section type 4).
struct HspaceSubheader {
    uint8_t opcode = 0;                        // kOp*
    uint8_t semantic = 0;                      // kSem* in requests; 0 in what the service sends
    uint8_t triggers = 0;                      // post: trigger mask; notification: the trigger
    int32_t timeout = 0;                       // get: timeout; 0 otherwise
    int32_t flags = 0;                         // kFlag* bits
    std::string key;                           // key bytes, no NUL
};

// rr subheader (section type 1): correlation id and the two reply info words.
struct RrSubheader {
    uint32_t corrid = 0;                       // correlation id
    uint32_t w1 = 0;                           // reply info word 1 (offset 16)
    uint32_t w2 = 0;                           // reply info word 2 (offset 20)

    // The words of a request: W1 = kRequestBit, W2 = 0.
    static RrSubheader request(uint32_t corrid);
    // A successful reply; count and num are cut to 29 bits.
    static RrSubheader success(uint32_t corrid, uint32_t count, uint32_t num);
    // A failed reply: W1 = 0, W2 = error.
    static RrSubheader failure(uint32_t corrid, uint32_t error);

    bool is_request() const { return (w1 & kRequestBit) != 0; }
    bool is_success() const { return (w1 & kSuccessBit) != 0; }
    // Reply count and number of a successful reply; 0 for a failed one.
    uint32_t count() const { return is_success() ? ((w1 & 0x03FFFFFFu) << 3) | (w2 >> 29) : 0; }
    uint32_t num() const { return is_success() ? (w2 & kMaxCount) : 0; }
    // Error of a failed reply (all of W2); 0 for a successful one.
    uint32_t error() const { return is_success() ? 0 : w2; }
};

// Handshake request body (type 321).
struct HandshakeRequest {
    uint16_t fixed1 = 1;                       // body offset 8; the client sends 1
    uint16_t fixed2 = 0xFFFF;                  // body offset 10; the client sends 0xFFFF
    std::string service_type;                  // "data" from the client
    std::string client_name;                   // the client's name
    std::string client_group;                  // the client's group
};

// Handshake reply body (type 322).
struct HandshakeReply {
    uint16_t version = 0;                      // service_version
    uint16_t ltp = 0;                          // service_ltp: the client's dport from then on
    std::string name;                          // service_name
};

// One packet. decode() fills every field; encode() reads sport, dport,
// hspace, rr, body_type and body and computes the rest.
struct Packet {
    uint32_t wirelen = 0;                      // header: whole packet length
    uint16_t sport = 0;                        // header: source port
    uint16_t dport = 0;                        // header: destination port
    uint8_t numsh = 0;                         // header: number of subheaders
    uint16_t type = 0;                         // header: body type
    std::vector<uint16_t> subheader_types;     // section type of each subheader, wire order
    std::optional<HspaceSubheader> hspace;     // last hspace subheader, if any
    std::optional<RrSubheader> rr;             // last rr subheader, if any
    uint16_t body_type = 0;                    // section type in the body's preamble
    std::string body;                          // body bytes after the preamble
    std::optional<HandshakeRequest> handshake_request; // body_type 321, decoded
    std::optional<HandshakeReply> handshake_reply;     // body_type 322, decoded
    std::string raw;                           // all wirelen bytes as received
};

// The same packet decoded in place: every string views the bytes decoded
// and is valid while they are. No allocation; what the service decodes each
// request with. Handshake strings are decoded for body types 321 and 322.
struct HspaceView {
    uint8_t opcode = 0;                        // kOp*
    uint8_t semantic = 0;                      // kSem*
    uint8_t triggers = 0;                      // post: trigger mask; notification: the trigger
    int32_t timeout = 0;                       // get: timeout
    int32_t flags = 0;                         // kFlag* bits
    std::string_view key;                      // key bytes
};
struct PacketView {
    uint16_t sport = 0;                        // header: source port
    uint16_t dport = 0;                        // header: destination port
    uint8_t numsh = 0;                         // header: number of subheaders
    uint16_t type = 0;                         // header: body type
    std::optional<HspaceView> hspace;          // last hspace subheader, if any
    std::optional<RrSubheader> rr;             // last rr subheader, if any
    uint16_t body_type = 0;                    // section type in the body's preamble
    std::string_view body;                     // body bytes after the preamble
    uint16_t fixed1 = 0, fixed2 = 0;           // body 321: the fixed fields; 322: version and ltp
    std::string_view strings[3];               // body 321: service type, client name, group; 322: the name
};

// Result of frame().
enum class FrameStatus {
    NeedMore,                                  // nothing wrong so far; more bytes needed
    Invalid,                                   // the bytes cannot start a valid packet
    Complete,                                  // a whole valid packet of `wirelen` bytes starts at data
};

struct FrameResult {
    FrameStatus status;                        // see FrameStatus
    uint32_t wirelen;                          // packet length when Complete, else 0
};

// Frames the packet that starts at data, given the n bytes received so far.
// Reads nothing outside [data, data + n). Reports Invalid as soon as the
// bytes present prove it: bad magic or version, wirelen below 32 or above
// kMaxPacket, a section length below 8, a section running past wirelen, or
// the numsh subheaders and the body ending short of wirelen.
FrameResult frame(const uint8_t *data, size_t n);

// Decodes the whole packet at data (wirelen bytes, as framed by frame()) into
// out. Subheaders are taken by section type, a later one replacing an earlier
// one of the same type; types other than 1 and 4 are stepped over. Returns
// false, out unspecified, when the packet does not frame as exactly wirelen
// bytes or a field runs outside its section: an rr section under 24 bytes,
// an hspace key running past its section, handshake strings running past
// the body.
bool decode(const uint8_t *data, size_t wirelen, Packet &out);
// The same checks, decoding in place into out (views into data).
bool decode(const uint8_t *data, size_t wirelen, PacketView &out);

// The same over a byte string (decode: the whole string is the packet).
inline FrameResult frame(const std::string &bytes)
{
    return frame(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}
inline bool decode(const std::string &bytes, Packet &out)
{
    return decode(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), out);
}

// Appends the packet p (subheaders in the order hspace, rr) to out. numsh,
// type and wirelen are computed from p; its raw, handshake and
// subheader_types fields are not read. REQUIRES: key of at most kMaxString
// bytes (aborts otherwise).
void encode(std::string &out, const Packet &p);

// Section writers, for tests that build malformed packets by hand.
void put_header(std::string &out, uint32_t wirelen, uint16_t sport, uint16_t dport, uint8_t numsh,
                uint16_t type);
void put_preamble(std::string &out, uint16_t type, uint32_t len);
void put_hspace_subheader(std::string &out, const HspaceSubheader &h);
void put_rr_subheader(std::string &out, const RrSubheader &rr);

// A request as the client builds it.
struct Request {
    uint16_t dport = 0;                        // the service's ltp
    uint8_t opcode = 0;                        // kOpPut, kOpGet, kOpPost, kOpCancel or kOpRemove
    uint8_t semantic = kSemSync;               // wire semantic
    uint8_t triggers = 0;                      // post: trigger mask
    int32_t timeout = 0;                       // get: timeout
    int32_t flags = 0;                         // wire flags
    std::string key;                           // the key
    std::optional<uint32_t> corrid;            // rr subheader with this id, or none
    std::string data;                          // put: the object's value (body 257); others: body 259
};

// Appends a client request, byte for byte as the client sends it.
void encode_request(std::string &out, const Request &r);

// Appends a handshake request (body 321, fixed fields 1 and 0xFFFF).
void encode_handshake_request(std::string &out, const std::string &service_type,
                              const std::string &client_name, const std::string &client_group);

// Appends a handshake reply (body 322).
void encode_handshake_reply(std::string &out, uint16_t version, uint16_t ltp, const std::string &name);

// Bytes of a bare reply.
constexpr size_t kReplySize = kHeaderSize + kRrSectionSize + kPreambleSize;

// Appends a bare reply (body 260) to corrid: success (count 0, num 0) when
// status is 0, else a failure carrying status as its error.
void encode_reply(std::string &out, uint32_t corrid, uint32_t status);

// Appends an object answering corrid: hspace subheader with opcode (kOpGet or
// kOpPost), key and flags; a successful rr subheader numbered num of count;
// body 257 holding value (an empty value sends the bare preamble).
void encode_object(std::string &out, uint32_t corrid, uint8_t opcode, std::string_view key, std::string_view value,
                   uint32_t count, uint32_t num, int32_t flags = 0);
// The same without the value's bytes, which the caller sends right after
// (a gathered write): the packet's first bytes, for a value of value_size.
// REQUIRES: the packet fits kMaxPacket.
void encode_object_head(std::string &out, uint32_t corrid, uint8_t opcode, std::string_view key, size_t value_size,
                        uint32_t count, uint32_t num, int32_t flags = 0);
// Bytes of an object's packet, or of a notification's, with that key and value.
constexpr size_t object_size(size_t key_size, size_t value_size)
{
    return kHeaderSize + kHspaceSectionBase + key_size + kRrSectionSize + kPreambleSize + value_size;
}
constexpr size_t notification_size(size_t key_size, size_t value_size)
{
    return kHeaderSize + kHspaceSectionBase + key_size + kPreambleSize + value_size;
}

// Appends a notification: hspace subheader with opcode 7, the trigger and
// the key; no rr subheader; body 257 holding value (may be empty).
void encode_notification(std::string &out, std::string_view key, uint8_t trigger,
                         std::string_view value = std::string_view());
// The same without the value's bytes (see encode_object_head).
void encode_notification_head(std::string &out, std::string_view key, uint8_t trigger, size_t value_size);

} // namespace codec
} // namespace hspace

#endif /* HSPACE_CODEC_H */
