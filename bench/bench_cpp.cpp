/*
 * bench_cpp.cpp - the C++ API's costs, each against its reference in the
 * same run, rounds interleaved so that drift of the machine hits both alike:
 *
 *   - a synchronous get through the C++ API against the C one, against
 *     hspaced in-process on loopback;
 *   - a notification (put to change), a burst of notifications, and an
 *     unsubscribe, on a Client holding N other subscriptions against one
 *     holding none. These run against a responder that answers at once
 *     without any work (a change of "probe" notified before the put's
 *     answer), so that only the Client's own cost can grow with N.
 *
 * Prints per-round medians of each, the ratios and the goals.
 *
 *   bench_cpp [ROUNDS] [GETS_PER_ROUND] [VALUE_BYTES] [SUBSCRIPTIONS]
 *   bench_cpp --rows [--quick]
 *
 * --rows prints the figures as rows in bench_rows.h's format for
 * scripts/bench instead (the table goes to standard error): 21 rounds of
 * 2,000 gets of 100 bytes and 100,000 subscriptions, or 5 rounds of 300
 * with --quick (the subscriptions stay 100,000).
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench_rows.h"
#include "hspace_codec.h"
#include "qel_hspace.h"
#include "qel_hspace.hpp"
#include "server.h"

namespace {

namespace qh = qel::hspace;
namespace codec = hspace::codec;
using Clock = std::chrono::steady_clock;

void on_event(t_qel_hspace, t_qel_hspace_event, t_kro_ptr) {}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double us_since(Clock::time_point t0, long n)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / n;
}

constexpr int kBurst = 1000; // notifications the responder sends for a put of "burst"

// Answers every request at once: the handshake; a post with success and no
// image; a cancel and a remove with success; a get with no match; a
// put with success, after one notification of "probe" for a put of "probe"
// and kBurst of them for a put of "burst". One thread per connection, on
// 127.0.0.1 and an ephemeral port; stop() ends them all.
class Responder {
public:
    Responder()
    {
        listen_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (bind(listen_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(listen_, 16) != 0 ||
            getsockname(listen_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
            abort();
        port_ = ntohs(a.sin_port);
        acceptor_ = std::thread([this] {
            for (;;) {
                int fd = accept(listen_, nullptr, nullptr);
                if (fd < 0) return;
                int one = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                fds_.push_back(fd);
                conns_.emplace_back([fd] { serve(fd); });
            }
        });
    }
    ~Responder()
    {
        shutdown(listen_, SHUT_RDWR);
        close(listen_);
        acceptor_.join();
        for (int fd : fds_) shutdown(fd, SHUT_RDWR);
        for (auto &t : conns_) t.join();
        for (int fd : fds_) close(fd);
    }
    std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port_); }

    static inline std::atomic<long> cancels{0}; // cancels answered, by every connection

private:
    static void serve(int fd)
    {
        std::string in, out, probe;
        codec::encode_notification(probe, "probe", HSPACE_TRIGGER_STORED, "v");
        char buf[65536];
        for (;;) {
            ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0) return;
            in.append(buf, static_cast<size_t>(n));
            size_t at = 0;
            out.clear();
            for (;;) {
                codec::FrameResult f = codec::frame(reinterpret_cast<const uint8_t *>(in.data()) + at, in.size() - at);
                if (f.status == codec::FrameStatus::Invalid) return;
                if (f.status == codec::FrameStatus::NeedMore) break;
                codec::Packet p;
                if (!codec::decode(reinterpret_cast<const uint8_t *>(in.data()) + at, f.wirelen, p)) return;
                at += f.wirelen;
                if (p.handshake_request) {
                    codec::encode_handshake_reply(out, 1, 1, "responder");
                    continue;
                }
                if (!p.hspace || !p.rr) continue;
                if (p.hspace->opcode == codec::kOpPut) {
                    int times = p.hspace->key == "probe" ? 1 : p.hspace->key == "burst" ? kBurst : 0;
                    for (int i = 0; i < times; i++) out += probe;
                }
                if (p.hspace->opcode == codec::kOpCancel) cancels.fetch_add(1);
                if (p.hspace->semantic == codec::kSemNoReply) continue;
                codec::encode_reply(out, p.rr->corrid, p.hspace->opcode == codec::kOpGet ? KRO_ERR_NO_MATCH : 0);
                if (p.hspace->opcode == codec::kOpPost && (p.hspace->flags & codec::kFlagNoImage) == 0)
                    codec::encode_reply(out, p.rr->corrid, KRO_ERR_NO_MATCH);
            }
            in.erase(0, at);
            for (size_t done = 0; done < out.size();) {
                ssize_t w = write(fd, out.data() + done, out.size() - done);
                if (w <= 0) return;
                done += static_cast<size_t>(w);
            }
        }
    }

    int listen_ = -1;                 // listening socket
    uint16_t port_ = 0;               // its port
    std::thread acceptor_;            // accepts until the listener closes
    std::vector<int> fds_;            // accepted connections (acceptor, then destructor)
    std::vector<std::thread> conns_;  // one per connection
};

// A Client on the responder holding `others` subscriptions besides its
// probe's: exact keys and patterns of five prefix lengths, none covering
// "probe".
struct Subscriber {
    Subscriber(const std::string &url, long others) : client(url)
    {
        client.open();
        probe = client.subscribe("probe", nullptr, [this](qh::Change &&) { changes.fetch_add(1, std::memory_order_relaxed); },
                                 qh::SubscribeOptions{0, true, false});
        char key[40];
        for (long i = 0; i < others; i++) {
            if (i % 10 == 9)
                snprintf(key, sizeof key, "q/%ld/*", i);
            else
                snprintf(key, sizeof key, "bench/sub/%07ld", i);
            subs.push_back(client.subscribe(key, nullptr, nullptr, qh::SubscribeOptions{0, true, false}));
        }
    }
    qh::Client client;
    qh::Subscription probe;
    std::vector<qh::Subscription> subs;
    std::atomic<long> changes{0};
};

} // namespace

int main(int argc, char **argv)
{
    bool rows_out = argc > 1 && strcmp(argv[1], "--rows") == 0;
    bool quick = rows_out && argc > 2 && strcmp(argv[2], "--quick") == 0;
    int rounds = rows_out ? (quick ? 5 : 21) : argc > 1 ? atoi(argv[1]) : 21;
    int gets = rows_out ? (quick ? 300 : 2000) : argc > 2 ? atoi(argv[2]) : 2000;
    size_t value_bytes = !rows_out && argc > 3 ? strtoul(argv[3], nullptr, 10) : 100;
    long subscriptions = !rows_out && argc > 4 ? atol(argv[4]) : 100000;
    FILE *table = rows_out ? stderr : stdout; // the human table
    // The benchmarks hold up to 100,000 subscriptions on one connection, over the
    // service's default bound per connection.
    hspace::service::Options server_options;
    server_options.max_subscriptions = size_t(1) << 20;
    hspace::service::Server server(server_options);
    std::string error;
    if (!server.start(&error)) {
        fprintf(stderr, "bench_cpp: hspaced: %s\n", error.c_str());
        return 1;
    }
    const std::string url = server.url();
    const char *key = "bench/key";

    qh::Client cpp(url);
    cpp.open();
    cpp.put(key, std::string(value_bytes, 'v'));

    qel_hspace_create_data cd = {url.c_str(), "bench", nullptr};
    t_qel_hspace h = nullptr;
    if (qel_hspace_create(&cd, on_event, &h) != 0 || qel_hspace_open(h) != 0) {
        fprintf(stderr, "bench_cpp: cannot open the C handle\n");
        return 1;
    }

    // One round: gets synchronous gets, each freeing what it got, as an
    // application would. Returns microseconds per get.
    auto c_round = [&] {
        auto t0 = Clock::now();
        for (int i = 0; i < gets; i++) {
            t_kro_llist list;
            kro_llist_create(&list);
            if (qel_hspace_get(h, key, nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0) abort();
            t_qel_hspace_object o;
            while ((o = static_cast<t_qel_hspace_object>(kro_llist_first(list))) != nullptr) {
                kro_llist_remove(o);
                qel_hspace_object_destroy(&o);
            }
            kro_llist_destroy(&list);
        }
        return us_since(t0, gets);
    };
    auto cpp_round = [&] {
        auto t0 = Clock::now();
        std::error_code ec;
        for (int i = 0; i < gets; i++) {
            qh::Objects objects = cpp.get(key, ec);
            if (ec || objects.size() != 1) abort();
        }
        return us_since(t0, gets);
    };

    c_round(); // warm-up
    cpp_round();
    std::vector<double> c_us, cpp_us, ratios;
    for (int r = 0; r < rounds; r++) {
        double a = c_round(), b = cpp_round();
        c_us.push_back(a);
        cpp_us.push_back(b);
        ratios.push_back(b / a);
    }
    fprintf(table, "synchronous get of one %zu-byte object, %d rounds x %d gets, interleaved\n", value_bytes, rounds,
            gets);
    fprintf(table, "%-10s %14s\n", "api", "us/get (median)");
    fprintf(table, "%-10s %14.2f\n", "C", median(c_us));
    fprintf(table, "%-10s %14.2f\n", "C++", median(cpp_us));
    fprintf(table, "%-10s %14.3f  (C++ / C, median of per-round ratios)\n", "ratio", median(ratios));
    const std::string get_section = "C++ API against the C API", sub_section = "C++ Client: 100,000 subscriptions";
    if (rows_out) {
        bench::Row("cpp.get.c", get_section, "C API: synchronous get, 100B (same rounds)", median(c_us), "us", -1);
        bench::Row("cpp.get.cpp", get_section, "C++ API: synchronous get, 100B", median(cpp_us), "us", -1,
                   "cpp.get.c");
    }
    qel_hspace_close(h);
    qel_hspace_destroy(&h);

    // Subscriptions on the Client: none against `subscriptions`.
    Responder responder;
    Subscriber none(responder.url(), 0), many(responder.url(), subscriptions);
    const int unsubscribes = 1000;
    auto notify_round = [&](Subscriber &s) {
        long before = s.changes.load();
        auto t0 = Clock::now();
        for (int i = 0; i < gets; i++) s.client.put("probe", "v"); // answered after its notification
        if (s.changes.load() - before != gets) abort();
        return us_since(t0, gets);
    };
    auto burst_round = [&](Subscriber &s) {
        long before = s.changes.load();
        auto t0 = Clock::now();
        s.client.put("burst", "v");
        if (s.changes.load() - before != kBurst) abort();
        return us_since(t0, kBurst);
    };
    // Resets unsubscribes subscriptions; microseconds per reset until the
    // resets returned, or until the service answered their cancels.
    auto unsubscribe_round = [&](Subscriber &s, bool answered) {
        std::vector<qh::Subscription> extra;
        char k[32];
        for (int i = 0; i < unsubscribes; i++) {
            snprintf(k, sizeof k, "bench/extra/%d", i);
            extra.push_back(s.client.subscribe(k, nullptr, nullptr, qh::SubscribeOptions{0, true, false}));
        }
        long before = Responder::cancels.load();
        auto t0 = Clock::now();
        for (auto &sub : extra) sub.reset();
        double us = us_since(t0, unsubscribes);
        while (Responder::cancels.load() - before < unsubscribes) std::this_thread::yield();
        return answered ? us_since(t0, unsubscribes) : us;
    };
    struct Row {
        const char *name, *key;
        std::function<double(Subscriber &)> round;
        std::vector<double> none_us, many_us, ratios;
    } rows[] = {{"notification (put to change)", "cpp.notify", notify_round, {}, {}, {}},
                {"notification in a burst", "cpp.burst", burst_round, {}, {}, {}},
                {"unsubscribe (reset returns)", "cpp.unsub",
                 [&](Subscriber &s) { return unsubscribe_round(s, false); }, {}, {}, {}},
                {"unsubscribe (cancel answered)", "cpp.unsub.answered",
                 [&](Subscriber &s) { return unsubscribe_round(s, true); }, {}, {}, {}}};
    for (Row &row : rows) {
        row.round(none), row.round(many); // warm-up
        for (int r = 0; r < rounds; r++) {
            double a = row.round(none), b = row.round(many);
            row.none_us.push_back(a);
            row.many_us.push_back(b);
            row.ratios.push_back(b / a);
        }
    }
    fprintf(table, "\nC++ Client with %ld subscriptions against none, against a responder doing no work, %d rounds\n",
            subscriptions, rounds);
    fprintf(table, "%-30s %12s %12s %8s %8s\n", "figure", "none us", "many us", "ratio", "goal");
    for (Row &row : rows) {
        double ratio = median(row.ratios);
        fprintf(table, "%-30s %12.2f %12.2f %8.3f %8s\n", row.name, median(row.none_us), median(row.many_us), ratio,
                ratio <= 1.10 ? "met" : "not met");
        if (!rows_out) continue;
        std::string base = std::string(row.key) + ".0", many = std::string(row.key) + "." + std::to_string(subscriptions);
        bench::Row(base, sub_section, std::string(row.name) + ", no other subscriptions", median(row.none_us), "us", -1);
        bench::Row(many, sub_section, std::string(row.name) + ", " + std::to_string(subscriptions) + " subscriptions",
                   median(row.many_us), "us", -1, base, "<= 1.10");
    }
    return 0;
}
