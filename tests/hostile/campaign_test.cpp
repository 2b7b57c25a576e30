/*
 * campaign_test.cpp - seeded rounds (QEL_HOSTILE_SEEDS, default 16) of eight
 * threads calling every operation on one handle while the service answers
 * at random, then drops the link (orderly, reset, or half-way through an
 * answer) or stalls while the application closes. Every call returns a
 * status its ending allows; a drop raises exactly one link failure, last; a
 * close raises none; every accepted asynchronous get ends with one final
 * event; no request is left behind. Over plain TCP and over TLS.
 */
#include <map>
#include <set>

#include "client_harness.h"

namespace hostile {
using namespace hspace::test;
namespace {

constexpr int kThreads = 8;     // application threads per round
constexpr int kCalls = 30;      // calls per thread per round
constexpr int kMaxAnswers = 90; // the ending comes after at most this many answers

struct Lcg {
    uint64_t state;
    uint32_t next(uint32_t bound) { return static_cast<uint32_t>((state = state * 6364136223846793005ull + 1442695040888963407ull) >> 33) % bound; }
};

enum Ending { kFin, kReset, kCutAnswer, kStallAndClose, kEndings };

// Answers requests at random until `answers` have been answered, then ends
// as told; `ended` is raised once the ending is in place.
void Serve(FakeConnection &conn, Lcg rng, int answers, Ending ending, Signal &ended)
{
    for (int answered = 0; answered < answers;) {
        Packet p = conn.next_packet();
        if (p.wirelen == 0 || !p.hspace) return ended.raise(); // failure recorded by the fake
        if (!p.rr) continue;
        uint32_t id = p.rr->corrid;
        std::string out;
        if (p.hspace->opcode == codec::kOpGet) {
            for (uint32_t i = 1, n = rng.next(4); i <= n; i++)
                codec::encode_object(out, id, codec::kOpGet, p.hspace->key, std::string(i, 'v'), n, i);
            if (out.empty()) codec::encode_reply(out, id, rng.next(3) == 0 ? 77 : KRO_ERR_NO_MATCH);
        } else if (p.hspace->opcode == codec::kOpPost) {
            codec::encode_reply(out, id, rng.next(6) == 0 ? 77 : 0);
            if ((p.hspace->flags & codec::kFlagNoImage) == 0) codec::encode_object(out, id, codec::kOpPost, p.hspace->key, "image", 1, 1);
            codec::encode_notification(out, p.hspace->key, 1, "changed");
        } else {
            codec::encode_reply(out, id, rng.next(3) == 0 ? KRO_ERR_NO_MATCH : 0);
        }
        if (++answered == answers && ending == kCutAnswer) out.resize(rng.next(static_cast<uint32_t>(out.size())));
        conn.send_raw(out);
    }
    if (ending == kReset) conn.reset();
    else if (ending != kStallAndClose) conn.close();
    ended.raise();
}

struct Worker {
    std::set<uintptr_t> gets;        // asynchronous gets accepted (urid)
    std::vector<std::string> errors; // results the ending does not allow
};

void RunWorker(t_qel_hspace h, int t, uint64_t seed, bool closed, Worker &w)
{
    Lcg rng{seed * 31 + static_cast<uint64_t>(t)};
    std::string key = "k" + std::to_string(t % 3);
    UserObject small(key, "value"), large(key, std::string(256u << 10, 'L'));
    ObjectList list;
    // Allowed everywhere: the service's statuses, 13 once the handle is no
    // longer open; then 18 after a close, or the link's errors after a drop.
    std::set<t_kro_error> allowed = {0, KRO_ERR_NO_MATCH, 77, KRO_ERR_EXISTS, KRO_ERR_INVALID_STATE};
    if (closed) allowed.insert(KRO_ERR_CLOSED);
    else allowed.insert({KRO_ERR_PEER_CLOSED, KRO_ERR_NET});
    for (int i = 0; i < kCalls; i++) {
        uintptr_t urid = (static_cast<uintptr_t>(t) << 16) | static_cast<uintptr_t>(i + 1);
        t_kro_error r = 0;
        uint32_t op = rng.next(9);
        switch (op) {
        case 0: r = qel_hspace_put(h, small.obj, HSPACE_PUT_SYNC, 0); break;
        case 1: r = qel_hspace_put(h, large.obj, HSPACE_PUT_NOREPLY, 0); break;
        case 2: r = qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list); break;
        case 3: if ((r = qel_hspace_get(h, key.c_str(), reinterpret_cast<t_kro_ptr>(urid), HSPACE_GET_ASYNC, 0, 0, nullptr)) == 0) w.gets.insert(urid); break;
        case 4:
        case 5: r = qel_hspace_post(h, key.c_str(), nullptr, HSPACE_POST_SYNC, 1, rng.next(2) * HSPACE_POST_FLAG_NO_IMAGE); break;
        case 6: r = qel_hspace_cancel(h, key.c_str(), HSPACE_CANCEL_SYNC, 0); break;
        default: r = qel_hspace_remove(h, key.c_str(), op == 7 ? HSPACE_REMOVE_SYNC : HSPACE_REMOVE_NOREPLY, 0); break;
        }
        list.clear();
        if (allowed.count(r) == 0)
            w.errors.push_back("thread " + std::to_string(t) + " call " + std::to_string(i) + " (op " + std::to_string(op) + ") returned " + std::to_string(r));
    }
}

// Over plain TCP and over TLS (the parameter).
struct Campaign : LibraryTest, ::testing::WithParamInterface<bool> {
    FakeTls tls = ServiceTls();
    FakeService svc{GetParam() ? &tls : nullptr};
};
INSTANTIATE_TEST_SUITE_P(Transports, Campaign, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &p) { return p.param ? "tls" : "tcp"; });

TEST_P(Campaign, LinkDropsAndClosesUnderEightCallingThreads)
{
    const char *env = getenv("QEL_HOSTILE_SEEDS");
    uint64_t seeds = env != nullptr && atoll(env) > 0 ? static_cast<uint64_t>(atoll(env)) : 16;
    int by_ending[kEndings] = {};
    for (uint64_t seed = 1; seed <= seeds && !::testing::Test::HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        watchdog_.Kick();
        Lcg rng{seed};
        Ending ending = static_cast<Ending>(rng.next(kEndings));
        int answers = static_cast<int>(rng.next(kMaxAnswers));
        by_ending[ending]++;
        Client c(svc);
        ASSERT_TRUE(c.open());
        Signal ended, failed;
        c.events.set_hook([&](t_qel_hspace, const Event &e) {
            if (e.type == HSPACE_EVENT_LINK_FAIL) failed.raise();
        });
        std::thread service([&, answers, ending] { Serve(c.conn, rng, answers, ending, ended); });
        std::vector<Worker> workers(kThreads);
        std::vector<std::thread> threads;
        bool closed = ending == kStallAndClose;
        for (int t = 0; t < kThreads; t++)
            threads.emplace_back([&, t] { RunWorker(c.h, t, seed, closed, workers[t]); });
        ASSERT_TRUE(ended.wait());
        if (closed) EXPECT_EQ(0u, Bounded([&] { return qel_hspace_close(c.h); }));
        else ASSERT_TRUE(failed.wait()); // the drop, not the final close, ends the link
        for (std::thread &t : threads) t.join(); // bounded by the watchdog
        service.join();
        EXPECT_EQ(0u, qel_hspace_close(c.h)); // joins the reader: every event is in
        EXPECT_EQ(0, RequestCount(c.h));

        std::map<uintptr_t, int> finals;
        std::vector<Event> events = c.events.events();
        size_t fails = 0;
        for (const Event &e : events) {
            fails += e.type == HSPACE_EVENT_LINK_FAIL;
            EXPECT_TRUE(e.type != HSPACE_EVENT_LINK_FAIL || e.status == KRO_ERR_PEER_CLOSED || e.status == KRO_ERR_NET) << e.status;
            if (e.type == HSPACE_EVENT_GET_REPLY && e.is_final()) finals[reinterpret_cast<uintptr_t>(e.urid)]++;
        }
        EXPECT_EQ(closed ? 0u : 1u, fails);
        EXPECT_TRUE(closed || events.empty() || events.back().type == HSPACE_EVENT_LINK_FAIL);
        for (const Worker &w : workers) {
            for (const std::string &e : w.errors) ADD_FAILURE() << e;
            for (uintptr_t g : w.gets) EXPECT_EQ(1, finals[g]) << "final events of get " << g;
        }
    }
    printf("campaign (%s): %llu rounds: %d end of stream, %d reset, %d cut answer, %d stall and close\n",
           GetParam() ? "tls" : "tcp", static_cast<unsigned long long>(seeds), by_ending[kFin], by_ending[kReset], by_ending[kCutAnswer],
           by_ending[kStallAndClose]);
}

} // namespace
} // namespace hostile
