/*
 * hostile_test.cpp - a broken or hostile service against the client, over
 * plain TCP and over TLS. Every call returns, statuses and events are the
 * defined ones: exactly one link failure when the link fails, none on a
 * close.
 */
#include <algorithm>
#include <memory>
#include <set>
#include <sstream>

#include "client_harness.h"
#include "qel_hspacep.h"

namespace hostile {
void CutSocketAsCloseDoes(t_qel_hspace hspace); // internals.cpp
using namespace hspace::test;
namespace {

using Packets = std::vector<std::string>; // one encoded packet each

std::string Reply(uint32_t corrid, uint32_t status = 0) { std::string s; codec::encode_reply(s, corrid, status); return s; }
std::string Object(uint32_t corrid, uint8_t op, const std::string &key, const std::string &value, uint32_t count, uint32_t num)
{ std::string s; codec::encode_object(s, corrid, op, key, value, count, num); return s; }
void Put32(std::string &s, size_t off, uint32_t v) { for (int i = 0; i < 4; i++) s[off + i] = static_cast<char>(v >> (24 - 8 * i)); }

// Closes the Client's handle (the reader thread is joined, so every event is
// recorded; the Client destroys it) and returns the events as one line:
// "get:0:key" (reply-image with object), "get:18" (without), "image:...",
// "note:key", "fail:1003".
std::string Finish(Client &c)
{
    EXPECT_EQ(0u, qel_hspace_close(c.h));
    std::ostringstream s;
    for (const Event &e : c.events.events()) {
        const char *kind = e.type == HSPACE_EVENT_GET_REPLY ? "get:" : e.type == HSPACE_EVENT_POST_IMAGE ? "image:" : "fail:";
        if (e.type == HSPACE_EVENT_POST_NOTIFICATION) s << "note";
        else s << kind << e.status;
        s << (e.has_object ? ":" + e.object_key : "") << " ";
    }
    return s.str();
}

// Every case runs over plain TCP and over TLS (the parameter).
struct Hostile : LibraryTest, ::testing::WithParamInterface<bool> {
    FakeTls tls = ServiceTls();
    FakeService svc{GetParam() ? &tls : nullptr}; // one connection per case
};
INSTANTIATE_TEST_SUITE_P(Transports, Hostile, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &p) { return p.param ? "tls" : "tcp"; });

// Every answer the client waits for, cut after every byte by the end of
// stream. expect[n] is "<call's result> <objects in its list> <events>"
// when the first n packets of the answer arrived whole.
TEST_P(Hostile, EveryAnswerCutAtEveryByteOffset)
{
    auto answer = [](uint8_t op, const char *prefix, uint32_t n) {
        return [=](uint32_t corrid) {
            Packets out;
            if (op == codec::kOpPost) out.push_back(Reply(corrid));
            for (uint32_t i = 1; i <= n; i++)
                out.push_back(Object(corrid, op, prefix + std::to_string(i), std::string(i * 7, 'v'), n, i));
            return out;
        };
    };
    UserObject o("k", "v");
    const struct {
        const char *what;
        std::function<t_kro_error(Client &, ObjectList &)> call;
        std::function<Packets(uint32_t corrid)> answer;
        std::vector<const char *> expect;
    } cases[] = {
        {"status reply", [&](Client &c, ObjectList &) { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); },
         [](uint32_t corrid) { return Packets{Reply(corrid)}; }, {"1003 0 fail:1003 "}},
        {"multi-object get answer",
         [](Client &c, ObjectList &list) { return qel_hspace_get(c.h, "g", nullptr, HSPACE_GET_SYNC, 0, 0, list); },
         answer(codec::kOpGet, "g", 3), {"1003 0 fail:1003 ", "1003 1 fail:1003 ", "1003 2 fail:1003 "}},
        {"asynchronous get answer",
         [](Client &c, ObjectList &) { return qel_hspace_get(c.h, "a", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); },
         answer(codec::kOpGet, "a", 3),
         {"0 0 get:1003 fail:1003 ", "0 0 get:0:a1 get:1003 fail:1003 ", "0 0 get:0:a1 get:0:a2 get:1003 fail:1003 "}},
        {"subscription image",
         [](Client &c, ObjectList &) { return qel_hspace_post(c.h, "s", nullptr, HSPACE_POST_SYNC, 1, 0); },
         answer(codec::kOpPost, "s", 2), {"1003 0 fail:1003 ", "0 0 image:1003 fail:1003 ", "0 0 image:0:s1 image:1003 fail:1003 "}},
        {"notification",
         [](Client &c, ObjectList &) { return qel_hspace_post(c.h, "n", nullptr, HSPACE_POST_SYNC, 1, HSPACE_POST_FLAG_NO_IMAGE); },
         [](uint32_t corrid) {
             Packets out{Reply(corrid), "", ""};
             codec::encode_notification(out[1], "n", 1, "x");
             codec::encode_notification(out[2], "n", 2, "");
             return out;
         },
         {"1003 0 fail:1003 ", "0 0 fail:1003 ", "0 0 note:n fail:1003 "}},
    };
    for (const auto &k : cases) {
        // TLS records carry the same bytes, and a TLS handshake per offset
        // is dear: over TLS every 16th offset and those at a packet's end.
        std::set<size_t> ends;
        size_t total = 0;
        for (const std::string &a : k.answer(1)) total += a.size(), ends.insert(total - 1), ends.insert(total);
        for (size_t cut = 0;; cut++) {
            if (GetParam() && cut < total && cut % 16 != 0 && ends.count(cut) == 0) continue;
            SCOPED_TRACE(std::string(k.what) + " cut after " + std::to_string(cut) + " bytes");
            Client c(svc);
            ASSERT_TRUE(c.open());
            ObjectList list;
            Call call([&] { return k.call(c, list); });
            Packet p = c.conn.next_packet();
            ASSERT_TRUE(p.rr);
            std::string bytes;
            size_t whole = 0;
            for (const std::string &a : k.answer(p.rr->corrid)) {
                bytes += a;
                whole += bytes.size() <= cut;
            }
            if (cut >= bytes.size()) { // every offset done: let the call end
                c.conn.send_raw(bytes);
                call.result();
                break;
            }
            c.conn.send_raw(bytes.substr(0, cut));
            c.conn.close();
            std::string expected = k.expect.at(whole);
            ASSERT_TRUE(c.events.wait_count(std::count(expected.begin(), expected.end(), ' ') - 2));
            EXPECT_EQ(HSPACE_STATE_FAILED, State(c.h));
            std::string got = std::to_string(call.result()) + " " + std::to_string(list->num_elements) + " ";
            EXPECT_EQ(expected, got + Finish(c));
            watchdog_.Kick();
        }
    }
}

// Bytes that follow the packet rules only in part, sent while a
// synchronous get waits, in the same write as a good notification ahead of
// them (which is still delivered); the service keeps the connection open.
// Invalid framing ends the link with 1006 at once, a lying length that the
// bytes do not yet disprove waits for them and ends with the end of stream,
// and a well-framed packet the client cannot use is dropped: the get then
// takes the genuine reply sent after it.
TEST_P(Hostile, GarbageAndLyingLengths)
{
    enum Ending { kInvalid, kEndOfStream, kDropped };
    struct Case {
        const char *what;
        std::function<std::string(uint32_t corrid)> bytes;
        Ending ending;
    };
    auto mutated = [](size_t off, uint32_t value, std::string tail = "") {
        return [=](uint32_t corrid) {
            std::string s = Reply(corrid);
            Put32(s, off, value);
            return s + tail;
        };
    };
    auto claimed = [](uint32_t wirelen) { // the body's length says so too
        return [=](uint32_t corrid) {
            std::string s = Reply(corrid);
            Put32(s, 4, wirelen);
            Put32(s, s.size() - 4, wirelen - (uint32_t)(s.size() - 8));
            return s;
        };
    };
    std::vector<Case> cases = {
        {"bad magic", mutated(0, 0xBADCAE01u), kInvalid},
        {"bad version", mutated(0, 0xBADCAD02u), kInvalid},
        {"wirelen below the header", mutated(4, 31), kInvalid},
        {"a 4-byte section, the body inside its preamble", [](uint32_t) {
             std::string s;
             codec::put_header(s, 44, 0, 0, 1, codec::kTypeReply);
             return s + std::string("\0\xff\0\0\0\0\0\4\0\0\0\x08", 12);
         }, kInvalid},
        {"section past wirelen", mutated(36, 1000), kInvalid},
        {"sections end short of wirelen", mutated(4, 72, std::string(8, '\0')), kInvalid},
        {"1 GiB claimed, 64 bytes sent", claimed(1u << 30), kEndOfStream},
        {"1 GiB + 1 claimed", claimed((1u << 30) + 1), kInvalid},
        {"rr subheader of 16 bytes, the corrid in them", [](uint32_t corrid) {
             std::string s;
             codec::put_header(s, 32 + 16 + 8, 0, 0, 1, codec::kTypeReply);
             codec::put_preamble(s, codec::kTypeRr, 16);
             s += std::string(8, '\0');
             Put32(s, s.size() - 4, corrid);
             codec::put_preamble(s, codec::kTypeReply, 8);
             return s;
         }, kDropped},
        {"key one byte longer than its subheader", [](uint32_t corrid) {
             std::string s = Object(corrid, codec::kOpGet, "key", "v", 1, 1);
             s[32 + 21] = 4; // the hspace subheader's key length
             return s;
         }, kDropped},
        {"unknown correlation id", [](uint32_t corrid) { return Reply(corrid + 1000, 5); }, kDropped},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        Client c(svc);
        ASSERT_TRUE(c.open());
        ObjectList list;
        Call get([&] { return qel_hspace_get(c.h, "k", nullptr, HSPACE_GET_SYNC, 0, 0, list); });
        Packet p = c.conn.next_packet();
        ASSERT_TRUE(p.rr);
        std::string bytes;
        codec::encode_notification(bytes, "before", 1, "x");
        c.conn.send_raw(bytes + k.bytes(p.rr->corrid));
        if (k.ending == kDropped) c.conn.reply(p.rr->corrid, 0);
        if (k.ending == kEndOfStream) c.conn.close();
        t_kro_error link = k.ending == kInvalid ? KRO_ERR_INVALID_PACKET : KRO_ERR_PEER_CLOSED;
        EXPECT_EQ(k.ending == kDropped ? 0u : link, get.result());
        EXPECT_EQ(0u, list->num_elements);
        ASSERT_TRUE(c.events.wait_count(k.ending == kDropped ? 1 : 2));
        EXPECT_EQ(k.ending == kDropped ? "note:before " : "note:before fail:" + std::to_string(link) + " ", Finish(c));
    }
}

// A close from another thread while a large put is blocked writing to a
// service that does not read, or while a get waits on an answer stalled
// half-way: every call ends with 18, without a link failure. So does a read
// that fails in the window between a close cutting the socket and taking
// the handle's lock. An event raised while another thread is inside close
// may not destroy the handle: that thread still touches it.
TEST_P(Hostile, CloseFromAnotherThreadEndsBlockedCalls)
{
    UserObject big("big", std::string(16u << 20, 'x'));
    std::atomic<t_kro_error> destroyed{0};
    auto async_get = [](Client &c) { return qel_hspace_get(c.h, "a", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); };
    auto unread = [](Client &c) { ASSERT_TRUE(c.conn.wait_readable()); };
    const struct {
        const char *what;
        std::function<t_kro_error(Client &)> call;
        std::function<void(Client &)> stall; // once the call is under way
        t_kro_error result;
        const char *events;
    } cases[] = {
        {"put, no reply", [&](Client &c) { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_NOREPLY, 0); }, unread, KRO_ERR_CLOSED, ""},
        {"put", [&](Client &c) { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); }, unread, KRO_ERR_CLOSED, ""},
        {"get, with an asynchronous one outstanding",
         [&](Client &c) {
             c.events.set_hook([&](t_qel_hspace h, const Event &) {
                 t_qel_hspace copy = h;
                 destroyed = qel_hspace_destroy(&copy);
                 EXPECT_EQ(h, copy);
             });
             EXPECT_EQ(0u, async_get(c));
             return qel_hspace_get(c.h, "g", nullptr, HSPACE_GET_SYNC, 0, 0, ObjectList());
         },
         [](Client &c) {
             c.conn.next_packet();
             Packet p = c.conn.next_packet();
             ASSERT_TRUE(p.rr);
             std::string answer = Object(p.rr->corrid, codec::kOpGet, "g", "v", 2, 1) + Object(p.rr->corrid, codec::kOpGet, "g", "w", 2, 2);
             c.conn.send_raw(answer.substr(0, answer.size() / 2 + 3));
         },
         KRO_ERR_CLOSED, "get:18 "},
        {"asynchronous get, its read cut as a close does", async_get,
         [](Client &c) {
             ASSERT_TRUE(c.conn.next_packet().rr);
             CutSocketAsCloseDoes(c.h);
             ASSERT_TRUE(c.events.wait_count(1));
         },
         0, "get:18 "},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.what);
        Client c(svc);
        ASSERT_TRUE(c.open());
        Call call([&] { return k.call(c); });
        k.stall(c);
        EXPECT_EQ(0u, Bounded([&] { return qel_hspace_close(c.h); }));
        EXPECT_EQ(k.result, call.result());
        EXPECT_EQ(HSPACE_STATE_CLOSED, State(c.h));
        EXPECT_EQ(k.events, Finish(c));
    }
    EXPECT_EQ(KRO_ERR_INVALID_STATE, destroyed.load());
}

// A service that writes a large answer before it reads, while the client
// writes a large put: the reader thread keeps reading during the write, so
// neither side stays blocked.
TEST_P(Hostile, ALargeAnswerAndALargePutCrossEachOther)
{
    Client c(svc);
    ASSERT_TRUE(c.open());
    ASSERT_EQ(0u, Bounded([&] { return qel_hspace_get(c.h, "flood", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr); }));
    Packet get = c.conn.next_packet();
    ASSERT_TRUE(get.rr);
    UserObject big("big", std::string(16u << 20, 'x'));
    Call put([&] { return qel_hspace_put(c.h, big.obj, HSPACE_PUT_SYNC, 0); });
    ASSERT_TRUE(c.conn.wait_readable());
    const uint32_t n = 256;
    Pairs kv(n, {"flood", std::string(64u << 10, 'f')});
    ASSERT_TRUE(c.conn.objects(get.rr->corrid, codec::kOpGet, kv)); // 16 MiB, written before reading
    Packet p = c.conn.next_packet();
    ASSERT_TRUE(p.rr);
    EXPECT_EQ(16u << 20, p.body.size());
    c.conn.reply(p.rr->corrid, 0);
    EXPECT_EQ(0u, put.result());
    ASSERT_TRUE(c.events.wait_count(n));
    EXPECT_EQ(n, c.events.events().back().index);
}

// A handshake reply cut at every byte by the end of stream fails the open
// with 1003; one that stops there (nothing, or half of it) makes a bounded
// open give up with 1009. Either way the handle stays in HSPACE_STATE_INIT
// and a later open succeeds.
TEST_P(Hostile, OpenAgainstABrokenHandshakeMayBeRetried)
{
    std::string reply;
    codec::encode_handshake_reply(reply, 1, 5, "fake");
    Client c(svc);
    for (size_t cut = 0; cut < reply.size() + 2; cut++) {
        bool stall = cut >= reply.size(); // the last two rounds: stall after 0 and after half
        size_t sent = stall ? (cut - reply.size()) * reply.size() / 2 : cut;
        SCOPED_TRACE(std::string(stall ? "stall after " : "cut after ") + std::to_string(sent));
        Signal done;
        svc.serve([&](FakeConnection &conn) {
            conn.expect_handshake();
            conn.send_raw(reply.substr(0, sent));
            if (stall) done.wait();
            conn.close();
        });
        EXPECT_EQ(stall ? KRO_ERR_TIMEOUT : KRO_ERR_PEER_CLOSED, qel_hspace_open_timed(c.h, stall ? 200 : 10000));
        EXPECT_EQ(HSPACE_STATE_INIT, State(c.h));
        done.raise();
        ASSERT_TRUE(svc.join());
    }
    ASSERT_TRUE(c.open());
    EXPECT_EQ("", Finish(c));
}

// cancel("k") is sent, then post("k"); the service answers in order. The
// cancel is not the later post's business: the post keeps its record, its
// image and its notifications, and a second post is refused locally.
TEST_P(Hostile, ACancelSentBeforeAPostLeavesThatPostsSubscription)
{
    Client c(svc);
    ASSERT_TRUE(c.open());
    Call cancel([&] { return qel_hspace_cancel(c.h, "k", HSPACE_CANCEL_SYNC, 0); });
    Packet q = c.conn.next_packet();
    Call post([&] { return qel_hspace_post(c.h, "K", nullptr, HSPACE_POST_SYNC, 1, 0); });
    Packet p = c.conn.next_packet();
    ASSERT_TRUE(q.rr && p.rr);
    ASSERT_EQ(codec::kOpCancel, q.hspace->opcode);
    c.conn.batch();
    c.conn.reply(q.rr->corrid, KRO_ERR_NO_MATCH);
    c.conn.reply(p.rr->corrid, 0);
    ASSERT_TRUE(c.conn.flush());
    EXPECT_EQ(KRO_ERR_NO_MATCH, cancel.result());
    EXPECT_EQ(0u, post.result());
    c.conn.objects(p.rr->corrid, codec::kOpPost, {{"k", "image"}});
    c.conn.notify("k", 1, "changed");
    ASSERT_TRUE(c.events.wait_count(2));
    EXPECT_EQ(KRO_ERR_EXISTS, Bounded([&] { return qel_hspace_post(c.h, "k", nullptr, HSPACE_POST_SYNC, 1, 0); }));
    EXPECT_EQ(1, RequestCount(c.h));
    EXPECT_EQ("image:0:k note:k ", Finish(c));
}

} // namespace
} // namespace hostile
