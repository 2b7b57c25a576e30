/*
 * hspace_codec.cpp - framing, decoding and encoding of hspace packets.
 * Stateless; every function may run on any thread.
 */
#include "hspace_codec.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace hspace {
namespace codec {

namespace {

uint16_t get16(const uint8_t *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

uint32_t get32(const uint8_t *p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

void add8(std::string &out, uint8_t v)
{
    out.push_back(static_cast<char>(v));
}

void add16(std::string &out, uint16_t v)
{
    add8(out, static_cast<uint8_t>(v >> 8));
    add8(out, static_cast<uint8_t>(v));
}

void add32(std::string &out, uint32_t v)
{
    add16(out, static_cast<uint16_t>(v >> 16));
    add16(out, static_cast<uint16_t>(v));
}

// Stops the process when a string cannot be given a 16-bit length: a caller
// defect, never input from the network.
uint16_t string_len(const std::string &s)
{
    if (s.size() > kMaxString) {
        fprintf(stderr, "hspace_codec: string of %zu bytes does not fit a 16-bit length\n", s.size());
        abort();
    }
    return static_cast<uint16_t>(s.size());
}

void add_string(std::string &out, const std::string &s)
{
    add16(out, string_len(s));
    out.append(s);
}

// Reads a 16-bit length and that many bytes at *pos, within [.., end).
// Returns false when either runs past end.
bool take_string(const uint8_t *base, size_t end, size_t *pos, std::string_view *s)
{
    if (end - *pos < 2) return false;
    size_t len = get16(base + *pos);
    *pos += 2;
    if (end - *pos < len) return false;
    *s = std::string_view(reinterpret_cast<const char *>(base + *pos), len);
    *pos += len;
    return true;
}

// Writers over a block already sized: each stores big-endian at p and
// returns the position after it.
char *w8(char *p, uint8_t v)
{
    *p = static_cast<char>(v);
    return p + 1;
}
char *w16(char *p, uint16_t v)
{
    p[0] = static_cast<char>(v >> 8);
    p[1] = static_cast<char>(v);
    return p + 2;
}
char *w32(char *p, uint32_t v)
{
    p[0] = static_cast<char>(v >> 24);
    p[1] = static_cast<char>(v >> 16);
    p[2] = static_cast<char>(v >> 8);
    p[3] = static_cast<char>(v);
    return p + 4;
}
char *wbytes(char *p, std::string_view b)
{
    if (!b.empty()) memcpy(p, b.data(), b.size());
    return p + b.size();
}

// Appends n bytes to out and returns where they start, for the writers.
char *grow(std::string &out, size_t n)
{
    size_t at = out.size();
    out.resize(at + n);
    return &out[at];
}

char *header_at(char *p, uint32_t wirelen, uint8_t numsh, uint16_t type)
{
    p = w32(p, (kMagic << 8) | kVersion);
    p = w32(p, wirelen);
    memset(p, 0, 19);
    p += 19; // 8 bytes, sport and dport 0, 7 bytes
    p = w8(p, 0xFF);
    p = w8(p, 0);
    p = w8(p, numsh);
    return w16(p, type);
}

char *preamble_at(char *p, uint16_t type, uint32_t len)
{
    p = w8(p, 0x01);
    p = w8(p, 0x00);
    p = w16(p, type);
    return w32(p, len);
}

char *hspace_at(char *p, uint8_t opcode, uint8_t semantic, uint8_t triggers, int32_t timeout, int32_t flags,
                std::string_view key)
{
    p = preamble_at(p, kTypeHspace, static_cast<uint32_t>(kHspaceSectionBase + key.size()));
    p = w8(p, 0x01);
    p = w8(p, opcode);
    p = w8(p, semantic);
    p = w8(p, triggers);
    p = w32(p, static_cast<uint32_t>(timeout));
    p = w32(p, static_cast<uint32_t>(flags));
    p = w16(p, static_cast<uint16_t>(key.size()));
    return wbytes(p, key);
}

char *rr_at(char *p, const RrSubheader &rr)
{
    p = preamble_at(p, kTypeRr, static_cast<uint32_t>(kRrSectionSize));
    p = w32(p, 0);
    p = w32(p, rr.corrid);
    p = w32(p, rr.w1);
    return w32(p, rr.w2);
}

// Stops the process for a key the wire cannot carry or a packet over
// kMaxPacket: a caller defect, never input from the network.
void check_sizes(std::string_view key, size_t wirelen)
{
    if (key.size() > kMaxString || wirelen > kMaxPacket) {
        fprintf(stderr, "hspace_codec: key of %zu bytes or packet of %zu bytes does not fit the wire\n", key.size(),
                wirelen);
        abort();
    }
}

} // namespace

RrSubheader RrSubheader::request(uint32_t corrid)
{
    RrSubheader rr;
    rr.corrid = corrid;
    rr.w1 = kRequestBit;
    rr.w2 = 0;
    return rr;
}

RrSubheader RrSubheader::success(uint32_t corrid, uint32_t count, uint32_t num)
{
    RrSubheader rr;
    count &= kMaxCount;
    rr.corrid = corrid;
    rr.w1 = kSuccessBit | (count >> 3);
    rr.w2 = ((count & 7u) << 29) | (num & kMaxCount);
    return rr;
}

RrSubheader RrSubheader::failure(uint32_t corrid, uint32_t error)
{
    RrSubheader rr;
    rr.corrid = corrid;
    rr.w1 = 0;
    rr.w2 = error;
    return rr;
}

FrameResult frame(const uint8_t *data, size_t n)
{
    const FrameResult need_more = {FrameStatus::NeedMore, 0};
    const FrameResult invalid = {FrameStatus::Invalid, 0};
    if (n < 8) return need_more;
    uint32_t word = get32(data);
    if ((word >> 8) != kMagic || (word & 0xFFu) != kVersion) return invalid;
    uint32_t wirelen = get32(data + 4);
    if (wirelen < kHeaderSize || wirelen > kMaxPacket) return invalid;
    if (n < kHeaderSize) return need_more;

    // numsh subheaders, then the body: each preamble inside wirelen, each
    // section at least a preamble long and not past wirelen.
    unsigned sections = data[29] + 1u;
    size_t off = kHeaderSize;
    for (unsigned i = 0; i < sections; i++) {
        if (wirelen - off < kPreambleSize) return invalid;
        if (n < off + kPreambleSize) return need_more;
        uint32_t len = get32(data + off + 4);
        if (len < kPreambleSize || len > wirelen - off) return invalid;
        off += len;
    }
    if (off != wirelen) return invalid;
    if (n < wirelen) return need_more;
    return FrameResult{FrameStatus::Complete, wirelen};
}

bool decode(const uint8_t *data, size_t wirelen, PacketView &out)
{
    FrameResult f = frame(data, wirelen);
    if (f.status != FrameStatus::Complete || f.wirelen != wirelen) return false;

    out = PacketView();
    out.sport = get16(data + 16);
    out.dport = get16(data + 18);
    out.numsh = data[29];
    out.type = get16(data + 30);

    // frame() proved that every section lies inside the packet; only the
    // fields inside each section remain to be checked.
    size_t off = kHeaderSize;
    for (unsigned i = 0; i < out.numsh; i++) {
        const uint8_t *s = data + off;
        uint16_t type = get16(s + 2);
        uint32_t len = get32(s + 4);
        if (type == kTypeRr) {
            if (len < kRrSectionSize) return false;
            RrSubheader rr;
            rr.corrid = get32(s + 12);
            rr.w1 = get32(s + 16);
            rr.w2 = get32(s + 20);
            out.rr = rr;
        } else if (type == kTypeHspace) {
            if (len < kHspaceSectionBase) return false;
            size_t keylen = get16(s + 20);
            if (len - kHspaceSectionBase < keylen) return false;
            HspaceView h;
            h.opcode = s[9];
            h.semantic = s[10];
            h.triggers = s[11];
            h.timeout = static_cast<int32_t>(get32(s + 12));
            h.flags = static_cast<int32_t>(get32(s + 16));
            h.key = std::string_view(reinterpret_cast<const char *>(s + 22), keylen);
            out.hspace = h;
        }
        off += len;
    }

    const uint8_t *body = data + off;
    size_t body_len = get32(body + 4);
    out.body_type = get16(body + 2);
    out.body = std::string_view(reinterpret_cast<const char *>(body + kPreambleSize), body_len - kPreambleSize);
    if (out.body_type == kTypeHandshakeRequest || out.body_type == kTypeHandshakeReply) {
        size_t pos = kPreambleSize + 4;
        if (body_len < pos) return false;
        out.fixed1 = get16(body + 8);
        out.fixed2 = get16(body + 10);
        int strings = out.body_type == kTypeHandshakeRequest ? 3 : 1;
        for (int i = 0; i < strings; i++)
            if (!take_string(body, body_len, &pos, &out.strings[i])) return false;
    }
    return true;
}

bool decode(const uint8_t *data, size_t wirelen, Packet &out)
{
    PacketView v;
    if (!decode(data, wirelen, v)) return false;
    out = Packet();
    out.wirelen = static_cast<uint32_t>(wirelen);
    out.sport = v.sport;
    out.dport = v.dport;
    out.numsh = v.numsh;
    out.type = v.type;
    size_t off = kHeaderSize;
    for (unsigned i = 0; i < v.numsh; i++) {
        out.subheader_types.push_back(get16(data + off + 2));
        off += get32(data + off + 4);
    }
    if (v.hspace) {
        HspaceSubheader h;
        h.opcode = v.hspace->opcode;
        h.semantic = v.hspace->semantic;
        h.triggers = v.hspace->triggers;
        h.timeout = v.hspace->timeout;
        h.flags = v.hspace->flags;
        h.key.assign(v.hspace->key);
        out.hspace = h;
    }
    out.rr = v.rr;
    out.body_type = v.body_type;
    out.body.assign(v.body);
    if (v.body_type == kTypeHandshakeRequest) {
        HandshakeRequest hs;
        hs.fixed1 = v.fixed1;
        hs.fixed2 = v.fixed2;
        hs.service_type.assign(v.strings[0]);
        hs.client_name.assign(v.strings[1]);
        hs.client_group.assign(v.strings[2]);
        out.handshake_request = hs;
    } else if (v.body_type == kTypeHandshakeReply) {
        HandshakeReply hs;
        hs.version = v.fixed1;
        hs.ltp = v.fixed2;
        hs.name.assign(v.strings[0]);
        out.handshake_reply = hs;
    }
    out.raw.assign(reinterpret_cast<const char *>(data), wirelen);
    return true;
}

void put_header(std::string &out, uint32_t wirelen, uint16_t sport, uint16_t dport, uint8_t numsh,
                uint16_t type)
{
    add32(out, (kMagic << 8) | kVersion);
    add32(out, wirelen);
    out.append(8, '\0');
    add16(out, sport);
    add16(out, dport);
    out.append(7, '\0');
    add8(out, 0xFF);
    add8(out, 0);
    add8(out, numsh);
    add16(out, type);
}

void put_preamble(std::string &out, uint16_t type, uint32_t len)
{
    add8(out, 0x01);
    add8(out, 0x00);
    add16(out, type);
    add32(out, len);
}

void put_hspace_subheader(std::string &out, const HspaceSubheader &h)
{
    uint16_t keylen = string_len(h.key);
    put_preamble(out, kTypeHspace, static_cast<uint32_t>(kHspaceSectionBase + keylen));
    add8(out, 0x01);
    add8(out, h.opcode);
    add8(out, h.semantic);
    add8(out, h.triggers);
    add32(out, static_cast<uint32_t>(h.timeout));
    add32(out, static_cast<uint32_t>(h.flags));
    add_string(out, h.key);
}

void put_rr_subheader(std::string &out, const RrSubheader &rr)
{
    put_preamble(out, kTypeRr, static_cast<uint32_t>(kRrSectionSize));
    add32(out, 0);
    add32(out, rr.corrid);
    add32(out, rr.w1);
    add32(out, rr.w2);
}

void encode(std::string &out, const Packet &p)
{
    size_t wirelen = kHeaderSize + kPreambleSize + p.body.size();
    uint8_t numsh = 0;
    if (p.hspace) {
        wirelen += kHspaceSectionBase + string_len(p.hspace->key);
        numsh++;
    }
    if (p.rr) {
        wirelen += kRrSectionSize;
        numsh++;
    }
    put_header(out, static_cast<uint32_t>(wirelen), p.sport, p.dport, numsh, p.body_type);
    if (p.hspace) put_hspace_subheader(out, *p.hspace);
    if (p.rr) put_rr_subheader(out, *p.rr);
    put_preamble(out, p.body_type, static_cast<uint32_t>(kPreambleSize + p.body.size()));
    out.append(p.body);
}

void encode_request(std::string &out, const Request &r)
{
    Packet p;
    p.dport = r.dport;
    HspaceSubheader h;
    h.opcode = r.opcode;
    h.semantic = r.semantic;
    h.triggers = r.triggers;
    h.timeout = r.timeout;
    h.flags = r.flags;
    h.key = r.key;
    p.hspace = h;
    if (r.corrid) p.rr = RrSubheader::request(*r.corrid);
    if (r.opcode == kOpPut) {
        p.body_type = kTypeObject;
        p.body = r.data;
    } else {
        p.body_type = kTypeRequest;
    }
    encode(out, p);
}

void encode_handshake_request(std::string &out, const std::string &service_type,
                              const std::string &client_name, const std::string &client_group)
{
    Packet p;
    p.body_type = kTypeHandshakeRequest;
    add16(p.body, 1);
    add16(p.body, 0xFFFF);
    add_string(p.body, service_type);
    add_string(p.body, client_name);
    add_string(p.body, client_group);
    encode(out, p);
}

void encode_handshake_reply(std::string &out, uint16_t version, uint16_t ltp, const std::string &name)
{
    Packet p;
    p.body_type = kTypeHandshakeReply;
    add16(p.body, version);
    add16(p.body, ltp);
    add_string(p.body, name);
    encode(out, p);
}

void encode_reply(std::string &out, uint32_t corrid, uint32_t status)
{
    char *p = grow(out, kReplySize);
    p = header_at(p, static_cast<uint32_t>(kReplySize), 1, kTypeReply);
    p = rr_at(p, status == 0 ? RrSubheader::success(corrid, 0, 0) : RrSubheader::failure(corrid, status));
    preamble_at(p, kTypeReply, static_cast<uint32_t>(kPreambleSize));
}

void encode_object_head(std::string &out, uint32_t corrid, uint8_t opcode, std::string_view key, size_t value_size,
                        uint32_t count, uint32_t num, int32_t flags)
{
    size_t wirelen = object_size(key.size(), value_size);
    check_sizes(key, wirelen);
    char *p = grow(out, wirelen - value_size);
    p = header_at(p, static_cast<uint32_t>(wirelen), 2, kTypeObject);
    p = hspace_at(p, opcode, 0, 0, 0, flags, key);
    p = rr_at(p, RrSubheader::success(corrid, count, num));
    preamble_at(p, kTypeObject, static_cast<uint32_t>(kPreambleSize + value_size));
}

void encode_object(std::string &out, uint32_t corrid, uint8_t opcode, std::string_view key, std::string_view value,
                   uint32_t count, uint32_t num, int32_t flags)
{
    encode_object_head(out, corrid, opcode, key, value.size(), count, num, flags);
    out.append(value);
}

void encode_notification_head(std::string &out, std::string_view key, uint8_t trigger, size_t value_size)
{
    size_t wirelen = notification_size(key.size(), value_size);
    check_sizes(key, wirelen);
    char *p = grow(out, wirelen - value_size);
    p = header_at(p, static_cast<uint32_t>(wirelen), 1, kTypeObject);
    p = hspace_at(p, kOpNotification, 0, trigger, 0, 0, key);
    preamble_at(p, kTypeObject, static_cast<uint32_t>(kPreambleSize + value_size));
}

void encode_notification(std::string &out, std::string_view key, uint8_t trigger, std::string_view value)
{
    encode_notification_head(out, key, trigger, value.size());
    out.append(value);
}

} // namespace codec
} // namespace hspace
