/*
 * hspace_codec.cpp - framing, decoding and encoding of hspace packets.
 * Stateless; every function may run on any thread.
 */
#include "hspace_codec.h"

#include <stdio.h>
#include <stdlib.h>

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
bool take_string(const uint8_t *base, size_t end, size_t *pos, std::string *s)
{
    if (end - *pos < 2) return false;
    size_t len = get16(base + *pos);
    *pos += 2;
    if (end - *pos < len) return false;
    s->assign(reinterpret_cast<const char *>(base + *pos), len);
    *pos += len;
    return true;
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

bool decode(const uint8_t *data, size_t wirelen, Packet &out)
{
    FrameResult f = frame(data, wirelen);
    if (f.status != FrameStatus::Complete || f.wirelen != wirelen) return false;

    out = Packet();
    out.wirelen = static_cast<uint32_t>(wirelen);
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
        out.subheader_types.push_back(type);
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
            HspaceSubheader h;
            h.opcode = s[9];
            h.semantic = s[10];
            h.triggers = s[11];
            h.timeout = static_cast<int32_t>(get32(s + 12));
            h.flags = static_cast<int32_t>(get32(s + 16));
            h.key.assign(reinterpret_cast<const char *>(s + 22), keylen);
            out.hspace = h;
        }
        off += len;
    }

    const uint8_t *body = data + off;
    size_t body_len = get32(body + 4);
    out.body_type = get16(body + 2);
    out.body.assign(reinterpret_cast<const char *>(body + kPreambleSize), body_len - kPreambleSize);
    if (out.body_type == kTypeHandshakeRequest) {
        HandshakeRequest hs;
        size_t pos = kPreambleSize + 4;
        if (body_len < pos) return false;
        hs.fixed1 = get16(body + 8);
        hs.fixed2 = get16(body + 10);
        if (!take_string(body, body_len, &pos, &hs.service_type)) return false;
        if (!take_string(body, body_len, &pos, &hs.client_name)) return false;
        if (!take_string(body, body_len, &pos, &hs.client_group)) return false;
        out.handshake_request = hs;
    } else if (out.body_type == kTypeHandshakeReply) {
        HandshakeReply hs;
        size_t pos = kPreambleSize + 4;
        if (body_len < pos) return false;
        hs.version = get16(body + 8);
        hs.ltp = get16(body + 10);
        if (!take_string(body, body_len, &pos, &hs.name)) return false;
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
    Packet p;
    p.rr = status == 0 ? RrSubheader::success(corrid, 0, 0) : RrSubheader::failure(corrid, status);
    p.body_type = kTypeReply;
    encode(out, p);
}

void encode_object(std::string &out, uint32_t corrid, uint8_t opcode, const std::string &key,
                   const std::string &value, uint32_t count, uint32_t num, int32_t flags)
{
    Packet p;
    HspaceSubheader h;
    h.opcode = opcode;
    h.flags = flags;
    h.key = key;
    p.hspace = h;
    p.rr = RrSubheader::success(corrid, count, num);
    p.body_type = kTypeObject;
    p.body = value;
    encode(out, p);
}

void encode_notification(std::string &out, const std::string &key, uint8_t trigger, const std::string &value)
{
    Packet p;
    HspaceSubheader h;
    h.opcode = kOpNotification;
    h.triggers = trigger;
    h.key = key;
    p.hspace = h;
    p.body_type = kTypeObject;
    p.body = value;
    encode(out, p);
}

} // namespace codec
} // namespace hspace
