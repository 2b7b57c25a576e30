/*
 * bench_report.cpp - the library's figures for scripts/bench: the library
 * against the reference service on loopback, each figure beside its floor
 * (raw TCP ping-pong of the same message sizes, one write() per request)
 * measured in the same run, batches taken in turn.
 *
 * The service (with the floors' echo peer and a responder) runs in a child
 * process forked before any thread exists, so getrusage(RUSAGE_SELF) in
 * this process is the client's CPU time alone: the calling threads and the
 * reader threads. The responder answers every request at once, in constant
 * time (a get with one object of 64 bytes, anything else with success), so
 * figures taken against it show the library's own costs apart from the
 * service's.
 *
 * Prints one row per figure on standard output, in bench_rows.h's format
 * (latencies of single operations with their p50/p99/p99.9). Progress goes
 * to standard error.
 *
 *   bench_report [--quick] [--only GROUP]
 * --quick runs a tenth of the iterations; --only runs one group of figures:
 * memory, sizes, async, threads, subs or fanout.
 *
 *   bench_report --count N [--url URL]
 * counts the library's allocations over N synchronous gets of 64 bytes (the
 * link wraps malloc, calloc and realloc; only the library's runtime calls
 * them on that path) against URL, or against a forked service without
 * --url. Under strace -f -c, two runs with different N give the system
 * calls of one get by difference.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hspace_codec.h"
#include "qel_hspace.h"
#include "server.h"

/* Allocation counters: the link wraps malloc, calloc and realloc. */
static std::atomic<long> g_allocations{0};
extern "C" void *__real_malloc(size_t n);
extern "C" void *__real_calloc(size_t n, size_t m);
extern "C" void *__real_realloc(void *p, size_t n);
extern "C" void *__wrap_malloc(size_t n)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __real_malloc(n);
}
extern "C" void *__wrap_calloc(size_t n, size_t m)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __real_calloc(n, m);
}
extern "C" void *__wrap_realloc(void *p, size_t n)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __real_realloc(p, n);
}

#include "bench_rows.h"

namespace {

using namespace bench;



/* ---------------------------------------------------------------------
 * The peer process: the reference service and an echo peer for the
 * floors. The echo peer answers each whole request of req bytes with
 * reply bytes, all the answers to one read in one write.
 * --------------------------------------------------------------------- */

bool ReadFull(int fd, void *p, size_t n)
{
    char *c = static_cast<char *>(p);
    while (n > 0) {
        ssize_t r = read(fd, c, n);
        if (r <= 0) return false;
        c += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool WriteFull(int fd, const void *p, size_t n)
{
    const char *c = static_cast<const char *>(p);
    while (n > 0) {
        ssize_t r = write(fd, c, n);
        if (r <= 0) return false;
        c += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

void EchoConnection(int fd)
{
    uint32_t sizes[2];
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (!ReadFull(fd, sizes, sizeof sizes)) return (void)close(fd);
    size_t req = sizes[0], reply = sizes[1], pending = 0;
    std::vector<char> in(std::max<size_t>(req * 64, 1 << 16)), out;
    for (;;) {
        ssize_t r = read(fd, in.data(), in.size());
        if (r <= 0) break;
        pending += static_cast<size_t>(r);
        size_t whole = pending / req;
        pending %= req;
        if (whole == 0) continue;
        if (out.size() < whole * reply) out.assign(whole * reply, 'r'); // filled once, not per reply
        if (!WriteFull(fd, out.data(), whole * reply)) break;
    }
    close(fd);
}

void RespondConnection(int fd)
{
    namespace codec = hspace::codec;
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::string in, out, value(64, 'v');
    std::vector<char> buf(1 << 16);
    for (;;) {
        ssize_t r = read(fd, buf.data(), buf.size());
        if (r <= 0) break;
        in.append(buf.data(), static_cast<size_t>(r));
        size_t off = 0;
        out.clear();
        for (;;) {
            codec::FrameResult f = codec::frame(reinterpret_cast<const uint8_t *>(in.data()) + off, in.size() - off);
            if (f.status == codec::FrameStatus::Invalid) return (void)close(fd);
            if (f.status != codec::FrameStatus::Complete) break;
            codec::Packet p;
            if (!codec::decode(reinterpret_cast<const uint8_t *>(in.data()) + off, f.wirelen, p))
                return (void)close(fd);
            off += f.wirelen;
            if (p.handshake_request) codec::encode_handshake_reply(out, 1, 1, "responder");
            else if (p.rr && p.hspace && p.hspace->opcode == codec::kOpGet)
                codec::encode_object(out, p.rr->corrid, codec::kOpGet, p.hspace->key, value, 1, 1);
            else if (p.rr) codec::encode_reply(out, p.rr->corrid, 0);
        }
        in.erase(0, off);
        if (!out.empty() && !WriteFull(fd, out.data(), out.size())) break;
    }
    close(fd);
}

int Listen(uint16_t *port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 64) != 0) return -1;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    *port = ntohs(a.sin_port);
    return fd;
}

/* Forks the peer process; returns the service's and the echo peer's
 * ports. The peer ends when the pipe closes (this process exiting). */
struct Peer {
    pid_t pid = -1;
    int pipe_fd = -1;
    uint16_t service_port = 0, echo_port = 0, responder_port = 0;

    bool start()
    {
        int up[2], down[2];
        if (pipe(up) != 0 || pipe(down) != 0) return false;
        pid = fork();
        if (pid < 0) return false;
        if (pid == 0) {
            close(up[0]);
            close(down[1]);
            // The benchmarks hold up to 100,000 subscriptions on one connection, over the
            // service's default bound per connection.
            hspace::service::Options server_options;
            server_options.max_subscriptions = size_t(1) << 20;
            hspace::service::Server server(server_options);
            uint16_t ports[3] = {0, 0, 0};
            int lfd = Listen(&ports[1]), rfd = Listen(&ports[2]);
            if (lfd < 0 || rfd < 0 || !server.start()) _exit(1);
            ports[0] = server.port();
            for (auto serve : {std::make_pair(lfd, EchoConnection), std::make_pair(rfd, RespondConnection)})
                std::thread([serve] {
                    for (;;) {
                        int c = accept(serve.first, nullptr, nullptr);
                        if (c < 0) return;
                        std::thread(serve.second, c).detach();
                    }
                }).detach();
            WriteFull(up[1], ports, sizeof ports);
            char b;
            while (read(down[0], &b, 1) > 0) {
            }
            server.stop();
            _exit(0);
        }
        close(up[1]);
        close(down[0]);
        pipe_fd = down[1];
        uint16_t ports[3];
        if (!ReadFull(up[0], ports, sizeof ports)) return false;
        close(up[0]);
        service_port = ports[0];
        echo_port = ports[1];
        responder_port = ports[2];
        return true;
    }
    void stop()
    {
        if (pid <= 0) return;
        close(pipe_fd);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

int Connect(uint16_t port, uint32_t req, uint32_t reply)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return -1;
    uint32_t sizes[2] = {req, reply};
    WriteFull(fd, sizes, sizeof sizes);
    return fd;
}

/* The wire sizes of a get of the 9-byte key the library benches use: the
 * request, and the one object answering it with a value of n bytes. */
constexpr uint32_t kGetRequestBytes = 32 + 24 + 22 + 9 + 8;
uint32_t GetReplyBytes(uint32_t n) { return kGetRequestBytes + n; }

/* Runs a request loop of one write() per request against the echo peer,
 * with a thread reading the replies in bulk: the floor of asynchronous
 * requests. Returns requests per second and *cpu_us per request. */
double OneWriteRound(uint16_t port, long iters, double *cpu_us)
{
    int fd = Connect(port, kGetRequestBytes, GetReplyBytes(64));
    std::vector<char> req(kGetRequestBytes, 'q');
    size_t expect = static_cast<size_t>(iters) * GetReplyBytes(64);
    Meter m;
    std::thread reader([&] {
        std::vector<char> buf(1 << 16);
        size_t got = 0;
        while (got < expect) {
            ssize_t r = read(fd, buf.data(), buf.size());
            if (r <= 0) return;
            got += static_cast<size_t>(r);
        }
    });
    for (long i = 0; i < iters; i++) WriteFull(fd, req.data(), req.size());
    reader.join();
    double wall = m.wall();
    *cpu_us = m.cpu() / iters * 1e6;
    close(fd);
    return iters / wall;
}

/* ---------------------------------------------------------------------
 * The library.
 * --------------------------------------------------------------------- */

std::mutex g_mutex;             // guards the counters below
std::condition_variable g_cond; // signals them
long g_async_done = 0;          // asynchronous gets answered in full
long g_notified = 0;            // notifications received, every handle

void OnEvent(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr data)
{
    t_qel_hspace_object object = nullptr;
    bool count_get = false, count_note = false;
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE) {
        auto *reply = static_cast<t_qel_hspace_reply_image_event_data_struct *>(data);
        object = reply->object;
        count_get = event == HSPACE_EVENT_GET_REPLY && (reply->index == reply->cardinality || reply->status != 0);
    } else if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        object = static_cast<t_qel_hspace_post_notification_event_data_struct *>(data)->object;
        count_note = true;
    }
    if (object != nullptr) qel_hspace_object_destroy(&object);
    if (count_get || count_note) {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (count_get) g_async_done++;
        if (count_note) g_notified++;
        g_cond.notify_all();
    }
}

t_qel_hspace OpenHandle(const std::string &url)
{
    t_qel_hspace h = nullptr;
    qel_hspace_create_data cd = {url.c_str(), "bench", nullptr};
    if (qel_hspace_create(&cd, OnEvent, &h) != 0 || qel_hspace_open(h) != 0) {
        fprintf(stderr, "bench_report: cannot open %s\n", url.c_str());
        exit(1);
    }
    return h;
}

void CloseHandle(t_qel_hspace h)
{
    qel_hspace_close(h);
    qel_hspace_destroy(&h);
}

/* An object holding len bytes under key. */
struct Value {
    t_kro_buf buf = nullptr;
    t_qel_hspace_object object = nullptr;
    Value(const char *key, size_t len)
    {
        kro_buf_create(&buf, static_cast<t_kro_uint4>(len), 1);
        qel_hspace_object_create(key, buf, &object);
    }
    ~Value()
    {
        qel_hspace_object_destroy(&object);
        kro_buf_release(&buf);
    }
};

/* One synchronous get of key, its objects destroyed. */
void GetOnce(t_qel_hspace h, const char *key, t_kro_llist list)
{
    if (qel_hspace_get(h, key, nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0) {
        fprintf(stderr, "bench_report: get failed\n");
        exit(1);
    }
    t_kro_ptr n;
    while ((n = kro_llist_first(list)) != nullptr) {
        auto o = static_cast<t_qel_hspace_object>(n);
        kro_llist_remove(o);
        qel_hspace_object_destroy(&o);
    }
}

/* Synchronous put and get of each value size against hspaced, and the
 * raw TCP ping-pong of the same message sizes with the echo peer, in nine
 * rounds of a batch of each: the median batch's mean, the client's CPU per
 * operation and the distribution of single operations. */
void SizeFigures(const std::string &url, uint16_t echo_port)
{
    t_qel_hspace h = OpenHandle(url);
    t_kro_llist list;
    kro_llist_create(&list);
    const struct {
        const char *tag;
        size_t len;
        long iters;
        const char *goal;
    } sizes[] = {{"64B", 64, 20000, "<= 1.10"},
                 {"1KiB", 1024, 20000, "-"},
                 {"64KiB", 64 << 10, 4000, "-"},
                 {"1MiB", 1 << 20, 600, "<= 1.20"}};
    const char *section = "Library against hspaced, by value size";
    for (const auto &s : sizes) {
        std::string key = "bench/" + std::string(s.tag).substr(0, 3);
        key.resize(9, '_'); // the 9-byte key of the floors' sizes
        Value v(key.c_str(), s.len);
        int fd = Connect(echo_port, kGetRequestBytes, GetReplyBytes(static_cast<uint32_t>(s.len)));
        std::vector<char> req(kGetRequestBytes, 'q'), reply(GetReplyBytes(static_cast<uint32_t>(s.len)));
        auto pingpong = [&] {
            if (!WriteFull(fd, req.data(), req.size()) || !ReadFull(fd, reply.data(), reply.size())) {
                fprintf(stderr, "bench_report: the echo peer failed\n");
                exit(1);
            }
        };
        auto put = [&] {
            if (qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0) != 0) {
                fprintf(stderr, "bench_report: put failed\n");
                exit(1);
            }
        };
        auto get = [&] { GetOnce(h, key.c_str(), list); };
        const int rounds = 9;
        long per = std::max(Iters(s.iters) / rounds, 2L);
        for (long i = 0; i < std::min(per, 50L); i++) pingpong(), put(), get(); // warm-up
        Series f, p, g;
        for (int r = 0; r < rounds; r++) {
            f.Run(per, pingpong);
            p.Run(per, put);
            g.Run(per, get);
        }
        std::string floor_key = std::string("floor.pingpong.") + s.tag;
        Row(floor_key, "Floors", std::string("raw TCP ping-pong, reply of a ") + s.tag + " get", f.MedianUs(), "us",
            f.CpuUs(), "-", "-", f.Distribution());
        Row(std::string("lib.put.") + s.tag, section, std::string("synchronous put, ") + s.tag, p.MedianUs(), "us",
            p.CpuUs(), floor_key, "-", p.Distribution());
        Row(std::string("lib.get.") + s.tag, section, std::string("synchronous get, ") + s.tag, g.MedianUs(), "us",
            g.CpuUs(), floor_key, s.goal, g.Distribution());
        if (s.len == 64)
            Row("lib.cpu.get.64B", "Client CPU", "client CPU per synchronous get, 64B", g.CpuUs(), "us", g.CpuUs(),
                "peer.cpu.get.64B", "<= 1.00");
        close(fd);
    }
    kro_llist_destroy(&list);
    CloseHandle(h);
}

/* total asynchronous gets from one thread, at most window unanswered;
 * returns gets per second and *cpu_us per get. */
double AsyncRound(t_qel_hspace h, long total, double *cpu_us)
{
    const long window = 1024;
    long base;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        base = g_async_done;
    }
    Meter m;
    for (long sent = 0; sent < total; sent++) {
        if (sent % 256 == 0) {
            std::unique_lock<std::mutex> lock(g_mutex);
            g_cond.wait(lock, [&] { return sent - (g_async_done - base) < window; });
        }
        qel_hspace_get(h, "bench/asy", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr);
    }
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_cond.wait(lock, [&] { return g_async_done - base >= total; });
    }
    double wall = m.wall();
    *cpu_us = m.cpu() / total * 1e6;
    return total / wall;
}

/* Asynchronous gets against the one-write floor, five rounds of each in
 * turn; the median round of each. */
void AsyncFigures(const std::string &url, uint16_t echo_port)
{
    t_qel_hspace h = OpenHandle(url);
    Value v("bench/asy", 64);
    qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0);
    const int rounds = 5;
    const long total = Iters(300000) / rounds;
    std::vector<double> floor, lib, floor_cpu, lib_cpu;
    for (int r = 0; r < rounds; r++) {
        double cpu;
        floor.push_back(OneWriteRound(echo_port, total, &cpu));
        floor_cpu.push_back(cpu);
        lib.push_back(AsyncRound(h, total, &cpu));
        lib_cpu.push_back(cpu);
    }
    Row("floor.onewrite", "Floors", "one write() per request, bulk reader thread", Median(floor), "op/s",
        Median(floor_cpu));
    Row("lib.get.async", "Library against hspaced, by value size", "asynchronous gets from one thread, 64B",
        Median(lib), "op/s", Median(lib_cpu), "floor.onewrite", ">= 1.00");
    CloseHandle(h);
}

/* Synchronous gets of 64B for `seconds` from threads spread over handles
 * (thread t uses handle t % handles); total op/s. */
double Throughput(const std::string &url, int threads, int handles, double seconds, double *cpu_us)
{
    std::vector<t_qel_hspace> hs;
    for (int i = 0; i < handles; i++) hs.push_back(OpenHandle(url));
    Value v("bench/thr", 64);
    qel_hspace_put(hs[0], v.object, HSPACE_PUT_SYNC, 0);
    std::atomic<bool> stop{false};
    std::atomic<long> done{0};
    std::vector<std::thread> ts;
    Meter m;
    for (int t = 0; t < threads; t++)
        ts.emplace_back([&, t] {
            t_kro_llist list;
            kro_llist_create(&list);
            long n = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                GetOnce(hs[t % handles], "bench/thr", list);
                n++;
            }
            done += n;
            kro_llist_destroy(&list);
        });
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); // the measured stretch
    stop = true;
    for (auto &t : ts) t.join();
    double wall = m.wall();
    *cpu_us = m.cpu() / done.load() * 1e6;
    for (auto h : hs) CloseHandle(h);
    return done.load() / wall;
}

/* N threads sharing one handle against N handles with a thread each, for
 * N = 1, 2, 4, 8. Every round measures every arrangement once, so that a
 * stretch of the machine's load falls on all of them alike; the median
 * round of each. */
void ThroughputFigures(const std::string &url)
{
    const int rounds = g_scale < 1 ? 5 : 9;
    const double seconds = g_scale < 1 ? 0.06 : 0.2;
    const int ns[] = {1, 2, 4, 8};
    std::vector<double> one[4], many[4], one_cpu[4], many_cpu[4];
    for (int r = 0; r < rounds; r++)
        for (int i = 0; i < 4; i++) {
            double cpu;
            one[i].push_back(Throughput(url, ns[i], 1, seconds, &cpu));
            one_cpu[i].push_back(cpu);
            if (ns[i] == 1) continue; // one thread on one handle is one handle
            many[i].push_back(Throughput(url, ns[i], ns[i], seconds, &cpu));
            many_cpu[i].push_back(cpu);
        }
    many[0] = one[0], many_cpu[0] = one_cpu[0];
    const char *section = "Threads sharing one handle, against a handle per thread";
    for (int i = 0; i < 4; i++) {
        int n = ns[i];
        std::string k = std::to_string(n);
        Row("lib.threads." + k, section, k + " thread(s) on one handle, synchronous gets 64B", Median(one[i]), "op/s",
            Median(one_cpu[i]), "lib.threads.1", n == 8 ? ">= 2.50" : "-");
        Row("lib.handles." + k, section, k + " handle(s), a thread each, synchronous gets 64B", Median(many[i]),
            "op/s", Median(many_cpu[i]), "peer.conns." + k);
        if (n > 1)
            Row("lib.threads." + k + ".vs.handles", section, k + " threads on one handle, against " + k + " handles",
                Median(one[i]), "op/s", Median(one_cpu[i]), "lib.handles." + k, n == 8 ? ">= 0.90" : "-");
    }
}

/* Subscribes h to live/FROM .. live/TO-1 from eight threads at once (the
 * set-up of the subscription figures, untimed). */
void PostMany(t_qel_hspace h, long from, long to)
{
    const int threads = 8;
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; t++)
        ts.emplace_back([=] {
            char key[64];
            for (long i = from + t; i < to; i += threads) {
                snprintf(key, sizeof key, "live/%ld", i);
                if (qel_hspace_post(h, key, nullptr, HSPACE_POST_SYNC, 3, HSPACE_POST_FLAG_NO_IMAGE) != 0) {
                    fprintf(stderr, "bench_report: post failed\n");
                    exit(1);
                }
            }
        });
    for (auto &t : ts) t.join();
}

/* Get latency and post cost with 1k / 10k / 100k live subscriptions on
 * handle B, each beside the same figure on handle A, which holds none,
 * measured in alternating batches on the same connection pair so that a
 * busy machine slows both alike. Each figure is the median of nine batch
 * means; the posts of a batch are cancelled again untimed, so the counts
 * stay as stated. */
void SubscriptionFigures(const std::string &url, const std::string &tag, const std::string &section)
{
    t_qel_hspace a = OpenHandle(url), b = OpenHandle(url);
    Value v("bench/sub", 64);
    qel_hspace_put(a, v.object, HSPACE_PUT_SYNC, 0);
    t_kro_llist list;
    kro_llist_create(&list);
    long live = 0, probe = 0;
    const long posts = Iters(45), gets = Iters(1000);
    const int rounds = 9;
    char key[64];
    auto post_batch = [&](t_qel_hspace h) {
        long first = probe;
        Clock::time_point t0 = Clock::now();
        for (long i = 0; i < posts; i++) {
            snprintf(key, sizeof key, "probe/%ld", probe++);
            qel_hspace_post(h, key, nullptr, HSPACE_POST_SYNC, 3, HSPACE_POST_FLAG_NO_IMAGE);
        }
        double us = std::chrono::duration<double>(Clock::now() - t0).count() / posts * 1e6;
        for (long i = first; i < probe; i++) {
            snprintf(key, sizeof key, "probe/%ld", i);
            qel_hspace_cancel(h, key, HSPACE_CANCEL_SYNC, 0);
        }
        return us;
    };
    auto get_batch = [&](t_qel_hspace h) {
        Clock::time_point t0 = Clock::now();
        for (long i = 0; i < gets; i++) GetOnce(h, "bench/sub", list);
        return std::chrono::duration<double>(Clock::now() - t0).count() / gets * 1e6;
    };
    for (long level : {1000L, 10000L, 100000L}) {
        PostMany(b, live, level);
        live = level;
        std::vector<double> get_a, get_b, post_a, post_b;
        for (int r = 0; r < rounds; r++) {
            get_a.push_back(get_batch(a));
            get_b.push_back(get_batch(b));
            post_a.push_back(post_batch(a));
            post_b.push_back(post_batch(b));
        }
        std::string n = std::to_string(level);
        Row(tag + ".get.base." + n, section, "synchronous get, no subscriptions (beside " + n + ")", Median(get_a),
            "us", -1);
        Row(tag + ".get." + n, section, "synchronous get with " + n + " subscriptions", Median(get_b), "us", -1,
            tag + ".get.base." + n, "<= 1.10");
        Row(tag + ".post.base." + n, section, "one post, no subscriptions (beside " + n + ")", Median(post_a), "us",
            -1);
        Row(tag + ".post." + n, section, "one post with " + n + " subscriptions", Median(post_b), "us", -1,
            tag + ".post.base." + n, "<= 1.10");
    }
    kro_llist_destroy(&list);
    CloseHandle(a);
    CloseHandle(b);
}

/* One put reaching n subscribed handles: time from the put until every
 * handle had its notification. */
void FanoutFigures(const std::string &url)
{
    std::vector<t_qel_hspace> hs;
    for (int i = 0; i < 100; i++) hs.push_back(OpenHandle(url));
    for (int n : {1, 10, 100}) {
        std::string key = "fan/" + std::to_string(n);
        for (int i = 0; i < n; i++) qel_hspace_post(hs[i], key.c_str(), nullptr, HSPACE_POST_SYNC, 3, HSPACE_POST_FLAG_NO_IMAGE);
        Value v(key.c_str(), 64);
        t_qel_hspace writer = OpenHandle(url);
        const long puts = Iters(n == 100 ? 300 : 2000);
        Meter m;
        for (long i = 0; i < puts; i++) {
            long target;
            {
                std::lock_guard<std::mutex> lock(g_mutex);
                target = g_notified + n;
            }
            qel_hspace_put(writer, v.object, HSPACE_PUT_SYNC, 0);
            std::unique_lock<std::mutex> lock(g_mutex);
            g_cond.wait(lock, [&] { return g_notified >= target; });
        }
        double wall = m.wall();
        Row("lib.fanout." + std::to_string(n), "Notification fan-out",
            "put reaching " + std::to_string(n) + " subscriber(s), until all notified", wall / puts * 1e6, "us",
            m.cpu() / puts * 1e6, "lib.fanout.1");
        CloseHandle(writer);
        for (int i = 0; i < n; i++) qel_hspace_cancel(hs[i], key.c_str(), HSPACE_CANCEL_SYNC, 0);
    }
    for (auto h : hs) CloseHandle(h);
}

/* ---------------------------------------------------------------------
 * Memory.
 * --------------------------------------------------------------------- */

constexpr size_t kLargeValue = 60u << 20; // under the service's default --max-queue
const double kMiB = 1024.0 * 1024.0;

/* Runs fn in a child process of its own and waits for it, so that the
 * child's peak resident memory is fn's alone. Called before this process
 * starts any thread. */
template <class Fn> void InChild(Fn fn)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) return;
    if (pid == 0) {
        fn();
        fflush(stdout);
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
}

/* The peak resident memory of this process restarts from its current size
 * (where the kernel allows it; the peak so far is the base otherwise). */
double ResetPeak()
{
    FILE *f = fopen("/proc/self/clear_refs", "w");
    if (f != nullptr) {
        fputs("5", f);
        fclose(f);
    }
    return StatusBytes(getpid(), "VmHWM");
}

/* The client's memory for a put, then a get, of a value of 60 MiB, each in
 * a process of its own: the peak resident size over its size with the
 * handle open and idle, less the value itself (the application's buffer
 * for the put, the object the get returns). */
void ClientMemoryFigures(const std::string &url)
{
    const char *section = "Client: memory for one large value";
    for (bool put : {true, false})
        InChild([&] {
            qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
            t_qel_hspace h = OpenHandle(url);
            t_kro_llist list;
            kro_llist_create(&list);
            {
                Value small("bench/me0", 64);
                qel_hspace_put(h, small.object, HSPACE_PUT_SYNC, 0); // the handle's buffers in use once
                GetOnce(h, "bench/me0", list);
            }
            double base = ResetPeak(), peak;
            if (put) {
                Value v("bench/mem", kLargeValue);
                memset(v.buf->ptr, 'v', kLargeValue); // resident, as an application's value is
                if (qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0) != 0) {
                    fprintf(stderr, "bench_report: put of %zu bytes failed\n", kLargeValue);
                    _exit(1);
                }
                peak = StatusBytes(getpid(), "VmHWM");
            } else {
                if (qel_hspace_get(h, "bench/mem", nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0 ||
                    kro_llist_first(list) == nullptr) {
                    fprintf(stderr, "bench_report: get of %zu bytes failed\n", kLargeValue);
                    _exit(1);
                }
                peak = StatusBytes(getpid(), "VmHWM");
                GetOnce(h, "bench/mem", list);
            }
            Row(put ? "lib.mem.put" : "lib.mem.get", section,
                std::string("client: peak memory over idle, ") + (put ? "put" : "get") + " of 60 MiB, less the value",
                (peak - base - static_cast<double>(kLargeValue)) / kMiB, "MiB", -1, "-", "<= 16");
            kro_llist_destroy(&list);
            CloseHandle(h);
            qel_hspace_finalize();
        });
}

/* Resident memory of the service (its process, forked for this alone) per
 * byte of the values it stores: count values of each size under keys of
 * their own, put without replies and fenced by one synchronous get. */
void StoredBytesFigures(const Peer &store)
{
    const char *section = "Memory per stored byte";
    t_qel_hspace h = OpenHandle("tcp://127.0.0.1:" + std::to_string(store.service_port));
    t_kro_llist list;
    kro_llist_create(&list);
    const struct {
        const char *tag;
        size_t len;
        long count;
    } sizes[] = {{"64B", 64, 100000}, {"1KiB", 1024, 20000}, {"64KiB", 64 << 10, 300}};
    char key[64];
    for (const auto &s : sizes) {
        long count = Iters(s.count);
        Value warm("bench/fence", s.len);
        qel_hspace_put(h, warm.object, HSPACE_PUT_SYNC, 0);
        GetOnce(h, "bench/fence", list);
        double before = StatusBytes(store.pid, "VmRSS");
        t_kro_buf buf;
        kro_buf_create(&buf, static_cast<t_kro_uint4>(s.len), 0);
        memset(buf->ptr, 'v', s.len);
        for (long i = 0; i < count; i++) {
            snprintf(key, sizeof key, "st/%s/%08ld", s.tag, i);
            t_qel_hspace_object o;
            qel_hspace_object_create(key, buf, &o);
            if (qel_hspace_put(h, o, HSPACE_PUT_NOREPLY, 0) != 0) {
                fprintf(stderr, "bench_report: put failed\n");
                exit(1);
            }
            qel_hspace_object_destroy(&o);
        }
        kro_buf_release(&buf);
        GetOnce(h, "bench/fence", list); // every put before it is stored
        double after = StatusBytes(store.pid, "VmRSS");
        Row(std::string("svc.mem.perbyte.") + s.tag, section,
            "hspaced: resident bytes per value byte stored, " + std::to_string(count) + " values of " + s.tag,
            (after - before) / (static_cast<double>(count) * static_cast<double>(s.len)), "B/B", -1,
            std::string("peer.mem.perbyte.") + s.tag);
    }
    kro_llist_destroy(&list);
    CloseHandle(h);
}

/* Allocations of the library per synchronous get of 64 bytes. */
void CountFigure(const std::string &url, long n)
{
    t_qel_hspace h = OpenHandle(url);
    Value v("bench/cnt", 64);
    qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0);
    t_kro_llist list;
    kro_llist_create(&list);
    for (int i = 0; i < 100; i++) GetOnce(h, "bench/cnt", list);
    long before = g_allocations.load();
    for (long i = 0; i < n; i++) GetOnce(h, "bench/cnt", list);
    double per = double(g_allocations.load() - before) / n;
    kro_llist_destroy(&list);
    CloseHandle(h);
    Row("lib.allocs.get.64B", "Allocations and system calls", "library allocations per synchronous get, 64B", per,
        "allocs", -1);
}

} // namespace

int main(int argc, char **argv)
{
    std::string only, given_url;
    long count = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--quick") == 0) {
            g_scale = 0.1;
        } else if (strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
            only = argv[++i];
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc) {
            count = atol(argv[++i]);
        } else if (strcmp(argv[i], "--url") == 0 && i + 1 < argc) {
            given_url = argv[++i];
        } else {
            fprintf(stderr, "usage: bench_report [--quick] [--only GROUP] | --count N [--url URL]\n");
            return 2;
        }
    }
    auto runs = [&](const char *group) { return count == 0 && (only.empty() || only == group); };
    signal(SIGPIPE, SIG_IGN);
    if (count > 0 && !given_url.empty()) {
        qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
        CountFigure(given_url, count);
        qel_hspace_finalize();
        return 0;
    }
    Peer peer, store;
    if (!peer.start() || (runs("memory") && !store.start())) {
        fprintf(stderr, "bench_report: cannot start the service process\n");
        return 1;
    }
    std::string url = "tcp://127.0.0.1:" + std::to_string(peer.service_port);
    if (runs("memory")) ClientMemoryFigures(url); // children forked before any thread
    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    if (runs("memory")) StoredBytesFigures(store);
    store.stop();
    if (runs("sizes")) SizeFigures(url, peer.echo_port);
    if (runs("async")) AsyncFigures(url, peer.echo_port);
    if (runs("threads")) ThroughputFigures(url);
    if (runs("subs")) {
        SubscriptionFigures(url, "lib.subs", "Subscriptions on the handle, against hspaced");
        SubscriptionFigures("tcp://127.0.0.1:" + std::to_string(peer.responder_port), "lib.resp.subs",
                            "Subscriptions on the handle, against the constant-time responder");
    }
    if (runs("fanout")) FanoutFigures(url);
    if (count > 0) CountFigure(url, count);
    qel_hspace_finalize();
    peer.stop();
    return 0;
}
