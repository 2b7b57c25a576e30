#!/usr/bin/env python3
"""Writes the seed corpus of the inbound fuzzer into corpus/inbound/.

Each file is one selector byte (the selector bits of inbound_harness.cpp)
followed by a stream of packets as the service sends them. The harness
holds these requests: corrid 1 a synchronous get of k1, 2 an asynchronous
get of k2, 3 a subscription to k3, 4 a synchronous put of k4, and with
SEL_CANCEL 5 a cancel of k3.

Run from anywhere: python3 fuzz/gen_corpus.py
"""
import os
import struct

SEL_HANDSHAKE, SEL_CANCEL, SEL_IMAGE_DONE, SEL_POST_WAITING, SEL_LINK_END = 0x01, 0x02, 0x04, 0x08, 0x10

RR, HSPACE, OBJECT, REQUEST, REPLY, HS_REQUEST, HS_REPLY = 1, 4, 257, 259, 260, 321, 322
GET, POST, NOTIFICATION = 2, 4, 7


def section(stype, payload=b""):
    return b"\x01\x00" + struct.pack(">HI", stype, 8 + len(payload)) + payload


def packet(subheaders, body_type, payload=b"", dport=0):
    body = section(body_type, payload)
    wirelen = 32 + sum(len(s) for s in subheaders) + len(body)
    header = struct.pack(">I I 8x H H 7x B x B H", 0xBADCAD01, wirelen, 0, dport, 0xFF, len(subheaders), body_type)
    assert len(header) == 32
    return header + b"".join(subheaders) + body


def rr(corrid, w1, w2):
    return section(RR, struct.pack(">IIII", 0, corrid, w1, w2))


def rr_ok(corrid, count=0, num=0):
    return rr(corrid, 0x04000000 | (count >> 3), ((count & 7) << 29) | num)


def rr_fail(corrid, error):
    return rr(corrid, 0, error)


def hspace(opcode, key, semantic=0, triggers=0, timeout=0, flags=0):
    key = key.encode()
    return section(HSPACE, struct.pack(">BBBBiiH", 1, opcode, semantic, triggers, timeout, flags, len(key)) + key)


def reply(corrid, error=0):
    return packet([rr_fail(corrid, error) if error else rr_ok(corrid)], REPLY)


def obj(opcode, corrid, key, data, count, num):
    return packet([hspace(opcode, key), rr_ok(corrid, count, num)], OBJECT, data)


def notification(key, data, trigger=1):
    return packet([hspace(NOTIFICATION, key, triggers=trigger)], OBJECT, data)


def handshake_reply(version, ltp, name):
    name = name.encode()
    return packet([], HS_REPLY, struct.pack(">HHH", version, ltp, len(name)) + name)


def h(hexlines):
    return bytes.fromhex(" ".join(hexlines))


HANDSHAKE_REQUEST = h(["BA DC AD 01 00 00 00 46 00 00 00 00 00 00 00 00",
                       "00 00 00 00 00 00 00 00 00 00 00 FF 00 00 01 41",
                       "01 00 01 41 00 00 00 26 00 01 FF FF 00 04 64 61",
                       "74 61 00 09 61 6E 6F 6E 79 6D 6F 75 73 00 07 64",
                       "65 66 61 75 6C 74"])
GET_REQUEST = h(["BA DC AD 01 00 00 00 58 00 00 00 00 00 00 00 00",
                 "00 00 00 05 00 00 00 00 00 00 00 FF 00 02 01 03",
                 "01 00 00 04 00 00 00 18 01 02 01 00 00 00 00 00",
                 "00 00 00 00 00 02 6B 31 01 00 00 01 00 00 00 18",
                 "00 00 00 00 00 00 00 07 80 00 00 00 00 00 00 00",
                 "01 00 01 03 00 00 00 08"])
PUT_REQUEST = h(["BA DC AD 01 00 00 00 43 00 00 00 00 00 00 00 00",
                 "00 00 00 05 00 00 00 00 00 00 00 FF 00 01 01 01",
                 "01 00 00 04 00 00 00 18 01 01 04 00 00 00 00 00",
                 "00 00 00 00 00 02 6B 31 01 00 01 01 00 00 00 0B",
                 "61 62 63"])

SEEDS = {
    "handshake_reply": (SEL_HANDSHAKE, handshake_reply(1, 5, "hspaced")),
    "handshake_reply_empty_name": (SEL_HANDSHAKE, handshake_reply(2, 7, "")),
    "replies_success": (0, b"".join(reply(c) for c in (1, 2, 3, 4))),
    "replies_failure_2": (0, b"".join(reply(c, 2) for c in (1, 2, 3, 4))),
    "reply_failure_post": (0, reply(3, 7)),
    "sync_get_1_of_1": (0, obj(GET, 1, "k1", b"abc", 1, 1)),
    "sync_get_3_of_3": (0, b"".join(obj(GET, 1, "k1", bytes([65 + i]) * (i + 1), 3, i + 1) for i in range(3))),
    "sync_get_empty_value": (0, obj(GET, 1, "k1", b"", 1, 1)),
    "async_get_2_of_2": (0, obj(GET, 2, "k2", b"one", 2, 1) + obj(GET, 2, "k2", b"two", 2, 2)),
    "post_image_then_notifications": (0, obj(POST, 3, "k3", b"i1", 2, 1) + obj(POST, 3, "k3", b"i2", 2, 2) +
                                      obj(POST, 3, "k3", b"late", 2, 2) + notification("k3", b"n1", 1) +
                                      notification("other", b"", 4)),
    "post_waiting_reply_then_image": (SEL_POST_WAITING, obj(POST, 3, "k3", b"early", 1, 1) + reply(3) +
                                      obj(POST, 3, "k3", b"i1", 1, 1)),
    "cancel_reply": (SEL_CANCEL, reply(5) + notification("k3", b"after cancel")),
    "image_done_no_match": (SEL_IMAGE_DONE, reply(3, 2) + obj(POST, 3, "k3", b"x", 1, 1)),
    "unknown_corrid_and_put": (0, obj(GET, 99, "k9", b"zz", 1, 1) + obj(GET, 4, "k4", b"p", 1, 1) + reply(99)),
    "notification_empty_key": (0, notification("", b"v", 2)),
    "client_requests": (0, HANDSHAKE_REQUEST + GET_REQUEST + PUT_REQUEST),
    "subheader_type5_and_duplicate_rr": (0, packet([section(5, b"skipped!"), rr_ok(77), hspace(GET, "k1"),
                                                    rr_ok(1, 1, 1)], OBJECT, b"second rr wins")),
    "link_end_all_outstanding": (SEL_LINK_END | SEL_CANCEL | SEL_POST_WAITING, b""),
    "link_end_after_image_and_garbage": (SEL_LINK_END | SEL_IMAGE_DONE, obj(GET, 1, "k1", b"a", 2, 1) +
                                         obj(GET, 2, "k2", b"b", 2, 1) + b"\x00" * 8),
    "mixed_stream": (SEL_HANDSHAKE | SEL_CANCEL, handshake_reply(1, 5, "svc") + obj(GET, 1, "k1", b"a", 2, 1) +
                     obj(GET, 2, "k2", b"b", 1, 1) + obj(GET, 1, "k1", b"c", 2, 2) + reply(4) +
                     obj(POST, 3, "k3", b"d", 1, 1) + notification("k3", b"e") + reply(5) +
                     GET_REQUEST[:40]),
}


def main():
    # The builders above must reproduce the reference requests exactly.
    assert packet([hspace(GET, "k1", semantic=1), rr(7, 0x80000000, 0)], REQUEST, dport=5) == GET_REQUEST
    assert packet([hspace(1, "k1", semantic=4)], OBJECT, b"abc", dport=5) == PUT_REQUEST
    out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "inbound")
    os.makedirs(out, exist_ok=True)
    for name, (selector, stream) in SEEDS.items():
        with open(os.path.join(out, name + ".bin"), "wb") as f:
            f.write(bytes([selector]) + stream)
    print("%d seeds written to %s" % (len(SEEDS), out))


if __name__ == "__main__":
    main()
