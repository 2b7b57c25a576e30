/*
 * stress_test.cpp - eight application threads on one handle: mixed
 * synchronous, no-reply and asynchronous operations and subscriptions on
 * shared keys, against a service thread that answers everything (now and
 * then holding a post's reply back so a cancel can overtake it), and a close
 * in the middle. Every call returns a result its operation allows, every
 * asynchronous get ends with exactly one final event, and no image ends
 * twice. Run under ASan and TSan.
 */
#include <algorithm>
#include <map>
#include <optional>

#include <gtest/gtest.h>

#include "client_harness.h"

namespace ops {
using namespace hspace::test;
namespace {

constexpr int kThreads = 8;               // application threads
constexpr int kIterations = 500;          // operations per thread
constexpr int kAnswersBeforeClose = 1600; // answered requests before the close: about half
constexpr int kSharedKeys = 4;            // subscription keys shared by all threads

// Deterministic pseudo-random numbers; one generator per thread.
struct Lcg {
    uint64_t state;
    uint32_t next(uint32_t bound)
    {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(state >> 33) % bound;
    }
};

// Answers every request with a correlation id (a post's image after its
// reply); after kAnswersBeforeClose answers raises enough and reads on
// until the client closes.
void AnswerEverything(FakeConnection &conn, Signal &enough)
{
    Lcg rng{42};
    std::optional<Packet> held; // a post whose reply waits for the next answer
    int answered = 0;
    auto answer = [&](const Packet &p) {
        uint32_t id = p.rr->corrid;
        const std::string &key = p.hspace->key;
        uint32_t n = rng.next(4);
        conn.batch();
        if (p.hspace->opcode == codec::kOpGet && n == 0) {
            conn.reply(id, rng.next(5) == 0 ? 77 : KRO_ERR_NO_MATCH);
        } else if (p.hspace->opcode == codec::kOpGet) {
            Pairs kv;
            for (uint32_t i = 0; i < n; i++) kv.emplace_back(key, std::string(i, 'v'));
            conn.objects(id, codec::kOpGet, kv);
        } else if (p.hspace->opcode == codec::kOpPost) {
            conn.reply(id, 0);
            if ((p.hspace->flags & codec::kFlagNoImage) == 0 && n % 3 == 0) conn.reply(id, KRO_ERR_NO_MATCH);
            else if ((p.hspace->flags & codec::kFlagNoImage) == 0) conn.objects(id, codec::kOpPost, Pairs(n % 3, {key, "i"}));
            conn.notify(key, 1, "changed");
        } else {
            conn.reply(id, n == 0 && p.hspace->opcode != codec::kOpPut ? KRO_ERR_NO_MATCH : 0);
        }
        conn.flush();
        answered++;
    };
    while (answered < kAnswersBeforeClose) {
        Packet p = conn.next_packet();
        if (p.wirelen == 0 || !p.hspace) break; // failure recorded by the fake
        if (!p.rr) continue;                     // no reply wanted
        if (p.hspace->opcode == codec::kOpPost && !held && rng.next(4) == 0) {
            held = p;
            continue;
        }
        answer(p);
        if (held) answer(*held), held.reset();
    }
    enough.raise();
    conn.wait_closed();
}

// What one application thread did; read by the test thread after joining.
struct Worker {
    int returns = 0;                        // calls that returned
    std::map<uintptr_t, std::string> gets;  // asynchronous gets accepted: urid -> key
    std::map<uintptr_t, std::string> posts; // posts accepted: urid -> key
    std::vector<std::string> errors;        // results no operation allows
};

void RunWorker(t_qel_hspace h, int t, Worker &w)
{
    Lcg rng{static_cast<uint64_t>(t) + 1};
    std::string own = "own-" + std::to_string(t);
    UserObject o(own, "value");
    ObjectList list;
    auto check = [&](const char *op, t_kro_error r, std::initializer_list<t_kro_error> allowed) {
        w.returns++;
        if (std::find(allowed.begin(), allowed.end(), r) == allowed.end())
            w.errors.push_back("thread " + std::to_string(t) + ": " + op + " returned " + std::to_string(r));
        return r;
    };
    for (int i = 0; i < kIterations; i++) {
        uintptr_t urid = (static_cast<uintptr_t>(t) << 16) | static_cast<uintptr_t>(i + 1);
        std::string shared = "shared-" + std::to_string(rng.next(kSharedKeys));
        auto u = reinterpret_cast<t_kro_ptr>(urid);
        switch (rng.next(8)) {
        case 0: check("put", qel_hspace_put(h, o.obj, HSPACE_PUT_SYNC, 0), {0, 13, 18}); break;
        case 1: check("put no-reply", qel_hspace_put(h, o.obj, HSPACE_PUT_NOREPLY, 0), {0, 13, 18}); break;
        case 2:
            check("get", qel_hspace_get(h, own.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list), {0, 77, 13, 18});
            list.clear();
            break;
        case 3:
            if (check("get async", qel_hspace_get(h, shared.c_str(), u, HSPACE_GET_ASYNC, 0, 0, nullptr), {0, 13, 18}) == 0)
                w.gets[urid] = shared;
            break;
        case 4:
        case 5: {
            t_kro_int4 flags = rng.next(2) == 0 ? HSPACE_POST_FLAG_NO_IMAGE : 0;
            if (check("post", qel_hspace_post(h, shared.c_str(), u, HSPACE_POST_SYNC, 1, flags), {0, 20, 13, 18}) == 0)
                w.posts[urid] = shared;
            break;
        }
        case 6: check("cancel", qel_hspace_cancel(h, shared.c_str(), HSPACE_CANCEL_SYNC, 0), {0, 2, 13, 18}); break;
        default:
            if (rng.next(2) == 0)
                check("remove", qel_hspace_remove(h, own.c_str(), HSPACE_REMOVE_SYNC, 0), {0, 2, 13, 18});
            else
                check("remove no-reply", qel_hspace_remove(h, own.c_str(), HSPACE_REMOVE_NOREPLY, 0), {0, 13, 18});
        }
    }
}

TEST(Stress, ManyThreadsOnOneHandleWithACloseInTheMiddle)
{
    Watchdog watchdog; // ends the process if a call never returns
    FakeService svc;
    Client c(svc);
    ASSERT_TRUE(c.open());
    Signal enough;
    std::thread service([&] { AnswerEverything(c.conn, enough); });
    std::vector<Worker> workers(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) threads.emplace_back([&, t] { RunWorker(c.h, t, workers[t]); });
    enough.wait(kBound);
    EXPECT_EQ(0u, qel_hspace_close(c.h));
    for (std::thread &t : threads) t.join(); // bounded by the watchdog
    service.join();
    EXPECT_EQ(0, RequestCount(c.h));

    std::map<uintptr_t, std::string> gets, posts;
    for (const Worker &w : workers) {
        EXPECT_EQ(kIterations, w.returns);
        for (const std::string &e : w.errors) ADD_FAILURE() << e;
        gets.insert(w.gets.begin(), w.gets.end());
        posts.insert(w.posts.begin(), w.posts.end());
    }
    std::map<uintptr_t, int> get_finals, image_finals;
    for (const Event &e : c.events.events()) {
        uintptr_t urid = reinterpret_cast<uintptr_t>(e.urid);
        if (e.type == HSPACE_EVENT_POST_NOTIFICATION) continue;
        bool get = e.type == HSPACE_EVENT_GET_REPLY;
        auto &issued = get ? gets : posts;
        auto it = issued.find(urid);
        ASSERT_NE(issued.end(), it) << "event for urid " << urid;
        EXPECT_EQ(it->second, e.key);
        if (e.is_final()) (get ? get_finals : image_finals)[urid]++;
        EXPECT_TRUE(e.status == 0 || (get && e.status == 77) || e.status == KRO_ERR_CLOSED) << e.status;
    }
    for (const auto &g : gets) EXPECT_EQ(1, get_finals[g.first]) << "final events of async get " << g.first;
    for (const auto &f : image_finals) EXPECT_EQ(1, f.second) << "final image events of post " << f.first;
    EXPECT_LT(0u, gets.size());
    EXPECT_LT(0u, posts.size());
}

} // namespace
} // namespace ops
