/*
 * bench_hiredis.cpp - the peer's figures for scripts/bench: the same
 * synchronous set/get loops and connection counts as bench_report, with
 * hiredis against a redis-server started by the script. Rows in
 * bench_report's format; getrusage(RUSAGE_SELF) is the client's CPU.
 *
 *   bench_hiredis PORT [--quick]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <hiredis/hiredis.h>

namespace {

using Clock = std::chrono::steady_clock;

double g_scale = 1.0;
int g_port = 0;

long Iters(long n)
{
    long v = static_cast<long>(n * g_scale);
    return v < 10 ? 10 : v;
}

double CpuSeconds()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

struct Meter {
    Clock::time_point t0 = Clock::now();
    double c0 = CpuSeconds();
    double wall() const { return std::chrono::duration<double>(Clock::now() - t0).count(); }
    double cpu() const { return CpuSeconds() - c0; }
};

/* Runs op iters times in 9 batches; returns the median batch's mean
 * microseconds per op (robust to a busy machine's stalls) and the mean CPU
 * microseconds per op over all batches in *cpu_us. */
template <class Op> double MedianUs(long iters, Op op, double *cpu_us)
{
    const int batches = 9;
    long per = iters / batches > 0 ? iters / batches : 1;
    std::vector<double> us;
    double cpu0 = CpuSeconds();
    for (int b = 0; b < batches; b++) {
        Clock::time_point t0 = Clock::now();
        for (long i = 0; i < per; i++) op();
        us.push_back(std::chrono::duration<double>(Clock::now() - t0).count() / per * 1e6);
    }
    *cpu_us = (CpuSeconds() - cpu0) / (per * batches) * 1e6;
    std::sort(us.begin(), us.end());
    return us[batches / 2];
}

void Row(const std::string &key, const std::string &section, const std::string &label, double value,
         const char *unit, double cpu_us, const std::string &ref = "-", const std::string &goal = "-")
{
    printf("%s\t%s\t%s\t%.2f\t%s\t%.2f\t%s\t%s\n", key.c_str(), section.c_str(), label.c_str(), value, unit, cpu_us,
           ref.c_str(), goal.c_str());
    fflush(stdout);
    fprintf(stderr, "  %-44s %12.2f %-6s cpu %.2f us/op\n", label.c_str(), value, unit, cpu_us);
}

redisContext *Connect()
{
    redisContext *c = redisConnect("127.0.0.1", g_port);
    if (c == nullptr || c->err) {
        fprintf(stderr, "bench_hiredis: cannot connect to port %d\n", g_port);
        exit(1);
    }
    return c;
}

void Command(redisContext *c, const char *fmt, const char *key, const std::string *value = nullptr)
{
    redisReply *r = static_cast<redisReply *>(value ? redisCommand(c, fmt, key, value->data(), value->size())
                                                    : redisCommand(c, fmt, key));
    if (r == nullptr) {
        fprintf(stderr, "bench_hiredis: command failed\n");
        exit(1);
    }
    freeReplyObject(r);
}

void SyncFigures()
{
    redisContext *c = Connect();
    const struct {
        const char *tag;
        size_t len;
        long iters;
    } sizes[] = {{"64B", 64, 20000}, {"4KiB", 4096, 10000}, {"1MiB", 1 << 20, 300}};
    for (const auto &s : sizes) {
        std::string key = std::string("bench/") + s.tag, value(s.len, 'v');
        long iters = Iters(s.iters);
        double cpu, us = MedianUs(iters, [&] { Command(c, "SET %s %b", key.c_str(), &value); }, &cpu);
        Row(std::string("peer.set.") + s.tag, "Peer: redis-server + hiredis", std::string("SET, ") + s.tag, us, "us",
            cpu, std::string("floor.pingpong.") + s.tag);
        for (int i = 0; i < 50; i++) Command(c, "GET %s", key.c_str());
        us = MedianUs(iters, [&] { Command(c, "GET %s", key.c_str()); }, &cpu);
        Row(std::string("peer.get.") + s.tag, "Peer: redis-server + hiredis", std::string("GET, ") + s.tag, us, "us",
            cpu, std::string("floor.pingpong.") + s.tag);
        if (s.len == 64)
            Row("peer.cpu.get.64B", "Peer: redis-server + hiredis", "client CPU per GET, 64B", cpu, "us", cpu);
    }
    redisFree(c);
}

void ConnectionFigures()
{
    for (int conns : {1, 4, 16}) {
        std::vector<redisContext *> cs;
        for (int i = 0; i < conns; i++) cs.push_back(Connect());
        std::string value(64, 'v');
        Command(cs[0], "SET %s %b", "bench/thr", &value);
        std::atomic<bool> stop{false};
        std::atomic<long> done{0};
        std::vector<std::thread> ts;
        Meter m;
        for (int t = 0; t < conns; t++)
            ts.emplace_back([&, t] {
                long n = 0;
                while (!stop.load(std::memory_order_relaxed)) {
                    Command(cs[t], "GET %s", "bench/thr");
                    n++;
                }
                done += n;
            });
        std::this_thread::sleep_for(std::chrono::duration<double>(g_scale < 1 ? 0.3 : 1.0));
        stop = true;
        for (auto &t : ts) t.join();
        double wall = m.wall();
        Row("peer.conns." + std::to_string(conns), "Peer: redis-server + hiredis",
            std::to_string(conns) + " connection(s), GET", done.load() / wall, "op/s", m.cpu() / done.load() * 1e6);
        for (auto c : cs) redisFree(c);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: bench_hiredis PORT [--quick]\n");
        return 2;
    }
    g_port = atoi(argv[1]);
    if (argc > 2 && strcmp(argv[2], "--quick") == 0) g_scale = 0.1;
    fprintf(stderr, "peer: redis-server + hiredis\n");
    SyncFigures();
    ConnectionFigures();
    return 0;
}
