/*
 * bench_report.cpp - the library's figures for scripts/bench: the network
 * floors, then the library against the reference service on loopback.
 *
 * The service (with the floors' echo peer and a responder) runs in a child
 * process forked
 * before any thread exists, so getrusage(RUSAGE_SELF) in this process is
 * the client's CPU time alone: the calling threads and the reader threads.
 *
 * Prints one row per figure on standard output, tab-separated:
 *   key  section  label  value  unit  cpu_us_per_op  ref_key  goal
 * The responder answers every request at once, in constant time (a get with
 * one object of 64 bytes, anything else with success), so figures taken
 * against it show the library's own costs apart from the service's.
 *
 * cpu_us_per_op, ref_key and goal are "-" when they do not apply; a row's
 * ratio is value / value(ref_key). Progress goes to standard error.
 *
 *   bench_report [--quick] [--only GROUP]
 * --quick runs a tenth of the iterations; --only runs one group of figures:
 * floors, sync, async, threads, subs, fanout or memory.
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
        out.assign(whole * reply, 'r');
        if (!WriteFull(fd, out.data(), out.size())) break;
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
            hspace::service::Server server;
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

void FloorPingPong(uint16_t port, uint32_t value, const char *tag, long iters)
{
    int fd = Connect(port, kGetRequestBytes, GetReplyBytes(value));
    std::vector<char> req(kGetRequestBytes, 'q'), reply(GetReplyBytes(value));
    for (int i = 0; i < 100; i++) {
        WriteFull(fd, req.data(), req.size());
        ReadFull(fd, reply.data(), reply.size());
    }
    double cpu, us = MedianUs(
                    iters,
                    [&] {
                        WriteFull(fd, req.data(), req.size());
                        ReadFull(fd, reply.data(), reply.size());
                    },
                    &cpu);
    Row(std::string("floor.pingpong.") + tag, "Floors", std::string("raw TCP ping-pong, reply of a ") + tag + " get",
        us, "us", cpu);
    close(fd);
}

void FloorOneWrite(uint16_t port, long iters)
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
    double wall = m.wall(), cpu = m.cpu();
    Row("floor.onewrite", "Floors", "one write() per request, bulk reader thread", iters / wall, "op/s",
        cpu / iters * 1e6);
    close(fd);
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

/* Mean latency of iters synchronous gets of key, and CPU per get. */
void GetLatency(t_qel_hspace h, const char *key, long iters, double *us, double *cpu_us)
{
    t_kro_llist list;
    kro_llist_create(&list);
    for (int i = 0; i < 50; i++) GetOnce(h, key, list);
    *us = MedianUs(iters, [&] { GetOnce(h, key, list); }, cpu_us);
    kro_llist_destroy(&list);
}

void SyncFigures(const std::string &url)
{
    t_qel_hspace h = OpenHandle(url);
    const struct {
        const char *tag;
        size_t len;
        long iters;
    } sizes[] = {{"64B", 64, 20000}, {"4KiB", 4096, 10000}, {"1MiB", 1 << 20, 300}};
    for (const auto &s : sizes) {
        std::string key = "bench/" + std::string(s.tag).substr(0, 3);
        key.resize(9, '_'); // the 9-byte key of the floors' sizes
        Value v(key.c_str(), s.len);
        long iters = Iters(s.iters);
        double us, cpu;
        us = MedianUs(iters, [&] { qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0); }, &cpu);
        Row(std::string("lib.put.") + s.tag, "Library against hspaced", std::string("synchronous put, ") + s.tag, us,
            "us", cpu, std::string("floor.pingpong.") + s.tag);
        GetLatency(h, key.c_str(), iters, &us, &cpu);
        Row(std::string("lib.get.") + s.tag, "Library against hspaced", std::string("synchronous get, ") + s.tag,
            us, "us", cpu, std::string("floor.pingpong.") + s.tag,
            s.len == 64 ? "<= 1.10" : s.len == (1u << 20) ? "<= 1.20" : "-");
        if (s.len == 64)
            Row("lib.cpu.get.64B", "Client CPU", "client CPU per synchronous get, 64B", cpu, "us", cpu,
                "peer.cpu.get.64B", "<= 1.00");
    }
    CloseHandle(h);
}

void AsyncFigure(const std::string &url)
{
    t_qel_hspace h = OpenHandle(url);
    Value v("bench/asy", 64);
    qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0);
    const long total = Iters(200000), window = 1024;
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
    Row("lib.get.async", "Library against hspaced", "asynchronous gets from one thread, 64B", total / wall, "op/s",
        m.cpu() / total * 1e6, "floor.onewrite", ">= 1.00");
    CloseHandle(h);
}

/* Synchronous gets of 64B for a fixed time from threads spread over
 * handles (thread t uses handle t % handles); total op/s. */
double Throughput(const std::string &url, int threads, int handles, double *cpu_us)
{
    std::vector<t_qel_hspace> hs;
    for (int i = 0; i < handles; i++) hs.push_back(OpenHandle(url));
    Value v("bench/thr", 64);
    qel_hspace_put(hs[0], v.object, HSPACE_PUT_SYNC, 0);
    std::atomic<bool> stop{false};
    std::atomic<long> done{0};
    std::vector<std::thread> ts;
    const double seconds = 1.0 * (g_scale < 1 ? 0.3 : 1.0);
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
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto &t : ts) t.join();
    double wall = m.wall();
    *cpu_us = m.cpu() / done.load() * 1e6;
    for (auto h : hs) CloseHandle(h);
    return done.load() / wall;
}

void ThroughputFigures(const std::string &url)
{
    double cpu;
    double eight = 0, eight_cpu = 0;
    for (int threads : {1, 2, 4, 8}) {
        double ops = Throughput(url, threads, 1, &cpu);
        Row("lib.threads." + std::to_string(threads), "Threads sharing one handle",
            std::to_string(threads) + " thread(s), one handle, synchronous gets", ops, "op/s", cpu, "lib.threads.1",
            threads == 8 ? ">= 2.50" : "-");
        if (threads == 8) eight = ops, eight_cpu = cpu;
    }
    for (int handles : {1, 4, 8, 16}) {
        double ops = Throughput(url, handles, handles, &cpu);
        Row("lib.handles." + std::to_string(handles), "Handles (one thread each)",
            std::to_string(handles) + " handle(s), synchronous gets", ops, "op/s", cpu,
            handles == 8 ? "-" : "peer.conns." + std::to_string(handles), handles == 4 || handles == 16 ? ">= 1.00" : "-");
    }
    /* The same 8 threads on one handle against a handle each. */
    Row("lib.threads.8.vs.handles", "Threads sharing one handle", "8 threads, one handle, against 8 handles", eight,
        "op/s", eight_cpu, "lib.handles.8", ">= 0.90");
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
    auto median = [](std::vector<double> x) {
        std::sort(x.begin(), x.end());
        return x[x.size() / 2];
    };
    for (long level : {1000L, 10000L, 100000L}) {
        while (live < level) {
            snprintf(key, sizeof key, "live/%ld", live++);
            if (qel_hspace_post(b, key, nullptr, HSPACE_POST_SYNC, 3, HSPACE_POST_FLAG_NO_IMAGE) != 0) exit(1);
        }
        std::vector<double> get_a, get_b, post_a, post_b;
        for (int r = 0; r < rounds; r++) {
            get_a.push_back(get_batch(a));
            get_b.push_back(get_batch(b));
            post_a.push_back(post_batch(a));
            post_b.push_back(post_batch(b));
        }
        std::string n = std::to_string(level);
        Row(tag + ".get.base." + n, section, "synchronous get, no subscriptions (beside " + n + ")", median(get_a),
            "us", -1);
        Row(tag + ".get." + n, section, "synchronous get with " + n + " subscriptions", median(get_b), "us", -1,
            tag + ".get.base." + n, "<= 1.10");
        Row(tag + ".post.base." + n, section, "one post, no subscriptions (beside " + n + ")", median(post_a), "us",
            -1);
        Row(tag + ".post." + n, section, "one post with " + n + " subscriptions", median(post_b), "us", -1,
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

/* Peak resident memory of putting, then of getting, a value of 48 MiB,
 * each in a child process of its own (ru_maxrss only rises), against the
 * bound of the value plus 16 MiB. Forked while this process runs no thread. */
void MemoryFigures(const std::string &url)
{
    const size_t n = 48u << 20; // under the service's default bound of 64 MiB per value
    const char *ops[] = {"put", "get"};
    Row("lib.mem.bound", "Memory", "the value plus 16 MiB (value of 48 MiB)", (n + (16u << 20)) / 1048576.0, "MiB", -1);
    for (const char *op : ops) {
        int fds[2];
        double peak = 0;
        if (pipe(fds) != 0) exit(1);
        pid_t pid = fork();
        if (pid == 0) {
            struct rusage before, after;
            getrusage(RUSAGE_SELF, &before);
            t_qel_hspace h = OpenHandle(url);
            if (op[0] == 'p') {
                Value v("bench/mem", n);
                memset(v.buf->ptr, 'm', n); // resident, as an application's value is
                if (qel_hspace_put(h, v.object, HSPACE_PUT_SYNC, 0) != 0) _exit(1);
            } else {
                t_kro_llist list;
                kro_llist_create(&list);
                if (qel_hspace_get(h, "bench/mem", nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0 || list->num_elements != 1)
                    _exit(1);
                t_qel_hspace_object o = static_cast<t_qel_hspace_object>(kro_llist_first(list));
                kro_llist_remove(o);
                qel_hspace_object_destroy(&o);
                kro_llist_destroy(&list);
            }
            CloseHandle(h);
            getrusage(RUSAGE_SELF, &after);
            double mib = (after.ru_maxrss - before.ru_maxrss) / 1024.0;
            if (write(fds[1], &mib, sizeof mib) != sizeof mib) _exit(1);
            _exit(0);
        }
        close(fds[1]);
        if (pid < 0 || read(fds[0], &peak, sizeof peak) != sizeof peak) exit(1);
        close(fds[0]);
        waitpid(pid, nullptr, 0);
        Row(std::string("lib.mem.") + op, "Memory", std::string("peak client memory to ") + op + " a value of 48 MiB",
            peak, "MiB", -1, "lib.mem.bound", "<= 1.00");
    }
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
    Peer peer;
    if (!peer.start()) {
        fprintf(stderr, "bench_report: cannot start the service process\n");
        return 1;
    }
    std::string url = "tcp://127.0.0.1:" + std::to_string(peer.service_port);
    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    if (runs("floors")) {
        FloorPingPong(peer.echo_port, 64, "64B", Iters(20000));
        FloorPingPong(peer.echo_port, 4096, "4KiB", Iters(10000));
        FloorPingPong(peer.echo_port, 1 << 20, "1MiB", Iters(300));
        FloorOneWrite(peer.echo_port, Iters(200000));
    }
    if (runs("sync")) SyncFigures(url);
    if (runs("async")) AsyncFigure(url);
    if (runs("threads")) ThroughputFigures(url);
    if (runs("subs")) {
        SubscriptionFigures(url, "lib.subs", "Subscriptions on the handle, against hspaced");
        SubscriptionFigures("tcp://127.0.0.1:" + std::to_string(peer.responder_port), "lib.resp.subs",
                            "Subscriptions on the handle, against the constant-time responder");
    }
    if (runs("fanout")) FanoutFigures(url);
    if (runs("memory")) MemoryFigures(url);
    if (count > 0) CountFigure(url, count);
    qel_hspace_finalize();
    peer.stop();
    return 0;
}
