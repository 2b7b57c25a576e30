// stress_test.cpp - eight threads run every operation on shared keys of one
// handle, against a service thread that answers everything (now and then
// holding a post's reply so a cancel overtakes it), and a close in the middle;
// over plain TCP and over TLS.
#include <array>
#include <map>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

constexpr int kThreads = 8;               // application threads
constexpr int kIterations = 500;          // operations per thread
constexpr int kAnswersBeforeClose = 1600; // answered requests before the close: about half

// Answers every request with a correlation id: a get with 0-3 objects or a
// status, a post with its reply, an image and a notification; after
// kAnswersBeforeClose answers raises enough and reads on until the close.
void AnswerEverything(FakeConnection &conn, Signal &enough)
{
    std::minstd_rand rng(42); // deterministic; one generator per thread
    std::optional<Packet> held; // a post whose reply waits for the next answer
    auto answer = [&](const Packet &p) {
        uint32_t id = p.rr->corrid, n = static_cast<uint32_t>(rng() % 4);
        const std::string &key = p.hspace->key;
        bool image = (p.hspace->flags & codec::kFlagNoImage) == 0;
        conn.batch();
        if (p.hspace->opcode == codec::kOpGet && n == 0) {
            conn.reply(id, rng() % 5 == 0 ? 77 : KRO_ERR_NO_MATCH);
        } else if (p.hspace->opcode == codec::kOpGet) {
            conn.objects(id, codec::kOpGet, Pairs(n, {key, "v"}));
        } else if (p.hspace->opcode == codec::kOpPost) {
            conn.reply(id, 0);
            if (image && n % 3 == 0) conn.reply(id, KRO_ERR_NO_MATCH);
            else if (image) conn.objects(id, codec::kOpPost, Pairs(n % 3, {key, "i"}));
            conn.notify(key, 1, "changed");
        } else {
            conn.reply(id, n == 0 && p.hspace->opcode != codec::kOpPut ? KRO_ERR_NO_MATCH : 0);
        }
        conn.flush();
    };
    for (int answered = 0; answered < kAnswersBeforeClose; answered++) {
        Packet p = conn.next_packet();
        if (p.wirelen == 0 || !p.hspace) break; // failure recorded by the fake
        if (!p.rr) answered--;                  // no reply wanted
        else if (p.hspace->opcode == codec::kOpPost && !held && rng() % 4 == 0) held = p;
        else answer(p);
        if (held && p.rr && held->rr->corrid != p.rr->corrid) answer(*held), held.reset();
    }
    enough.raise();
    conn.wait_closed();
}

// urid -> key and final events of each call accepted: [0] asynchronous gets, [1] posts
using Issued = std::map<uintptr_t, std::pair<std::string, int>>;

// One application thread: kIterations calls, each failing the test when it
// returns a result its operation does not allow; the accepted gets and posts
// land in issued.
void RunWorker(t_qel_hspace h, int t, std::array<Issued, 2> &issued)
{
    std::minstd_rand rng(static_cast<uint32_t>(t) + 1);
    std::string own = "own-" + std::to_string(t);
    UserObject o(own, "value");
    ObjectList list;
    for (int i = 0; i < kIterations; i++) {
        uintptr_t urid = (static_cast<uintptr_t>(t) << 16) | static_cast<uintptr_t>(i + 1);
        std::string shared = "shared-" + std::to_string(rng() % 4);
        const char *key = shared.c_str();
        auto u = reinterpret_cast<t_kro_ptr>(urid);
        uint32_t op = static_cast<uint32_t>(rng() % 9), flags = rng() % 2 ? HSPACE_POST_FLAG_NO_IMAGE : 0;
        t_kro_error r, extra = 0; // extra: the one result besides 0, 13 and 18 the operation allows
        switch (op) {
        case 0: r = qel_hspace_put(h, o.obj, HSPACE_PUT_SYNC, 0); break;
        case 1: r = qel_hspace_put(h, o.obj, HSPACE_PUT_NOREPLY, 0); break;
        case 2: r = qel_hspace_get(h, own.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list), extra = 77; break;
        case 3: r = qel_hspace_get(h, key, u, HSPACE_GET_ASYNC, 0, 0, nullptr); break;
        case 4:
        case 5: r = qel_hspace_post(h, key, u, HSPACE_POST_SYNC, 1, (t_kro_int4)flags), extra = 20; break;
        case 6: r = qel_hspace_cancel(h, key, HSPACE_CANCEL_SYNC, 0), extra = 2; break;
        case 7: r = qel_hspace_remove(h, own.c_str(), HSPACE_REMOVE_SYNC, 0), extra = 2; break;
        default: r = qel_hspace_remove(h, own.c_str(), HSPACE_REMOVE_NOREPLY, 0);
        }
        list.clear();
        EXPECT_TRUE(r == 0 || r == extra || r == 13 || r == 18) << "thread " << t << ": operation " << op << " returned " << r;
        if (r == 0 && op >= 3 && op <= 5) issued[op != 3][urid] = {shared, 0};
    }
}

// Every call returns a result its operation allows, every asynchronous get
// ends with exactly one final event, and no image ends twice; over plain
// TCP and over TLS (the parameter).
class Stress : public ::testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Transports, Stress, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &p) { return p.param ? "tls" : "tcp"; });

TEST_P(Stress, ManyThreadsOnOneHandleWithACloseInTheMiddle)
{
    Watchdog watchdog; // ends the process if a call never returns
    FakeTls tls = ServiceTls();
    FakeService svc(GetParam() ? &tls : nullptr);
    Client c(svc);
    ASSERT_TRUE(c.open());
    Signal enough;
    std::thread service([&] { AnswerEverything(c.conn, enough); });
    std::vector<std::array<Issued, 2>> per_thread(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) threads.emplace_back([&, t] { RunWorker(c.h, t, per_thread[t]); });
    enough.wait(kBound);
    EXPECT_EQ(0u, qel_hspace_close(c.h));
    for (std::thread &t : threads) t.join();
    service.join();
    EXPECT_EQ(0, RequestCount(c.h));

    Issued issued[2];
    for (const auto &w : per_thread)
        for (int k = 0; k < 2; k++) issued[k].insert(w[k].begin(), w[k].end());
    for (const Event &e : c.events.events()) {
        if (e.type == HSPACE_EVENT_POST_NOTIFICATION) continue;
        int post = e.type == HSPACE_EVENT_POST_IMAGE;
        auto it = issued[post].find(reinterpret_cast<uintptr_t>(e.urid));
        ASSERT_NE(issued[post].end(), it) << "event for urid " << e.urid;
        EXPECT_EQ(it->second.first, e.key);
        it->second.second += e.is_final();
        EXPECT_TRUE(e.status == 0 || (!post && e.status == 77) || e.status == KRO_ERR_CLOSED) << e.status;
    }
    for (const auto &g : issued[0]) EXPECT_EQ(1, g.second.second) << "final events of async get " << g.first;
    for (const auto &p : issued[1]) EXPECT_GE(1, p.second.second) << "final image events of post " << p.first;
    EXPECT_LT(0u, issued[0].size());
    EXPECT_LT(0u, issued[1].size());
}

} // namespace
} // namespace ops
