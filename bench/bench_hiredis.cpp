/*
 * bench_hiredis.cpp - the peer's figures for scripts/bench: the same
 * synchronous set/get loops, value sizes and connection counts as
 * bench_report, with hiredis against a redis-server started by the script,
 * and redis-server's resident memory per value byte stored (its pid from
 * INFO, its size from /proc). Rows in bench_rows.h's format;
 * getrusage(RUSAGE_SELF) is the client's CPU.
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

#include "bench_rows.h"

namespace {

using namespace bench;

int g_port = 0; // redis-server's port



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
    } sizes[] = {{"64B", 64, 20000}, {"1KiB", 1024, 20000}, {"64KiB", 64 << 10, 4000}, {"1MiB", 1 << 20, 600}};
    for (const auto &s : sizes) {
        std::string key = std::string("bench/") + s.tag, value(s.len, 'v');
        long iters = Iters(s.iters);
        std::vector<double> samples;
        double cpu, us = MedianUs(iters, [&] { Command(c, "SET %s %b", key.c_str(), &value); }, &cpu, &samples);
        Row(std::string("peer.set.") + s.tag, "Peer: redis-server + hiredis", std::string("SET, ") + s.tag, us, "us",
            cpu, std::string("floor.pingpong.") + s.tag, "-", Percentiles(samples));
        for (int i = 0; i < 50; i++) Command(c, "GET %s", key.c_str());
        samples.clear();
        us = MedianUs(iters, [&] { Command(c, "GET %s", key.c_str()); }, &cpu, &samples);
        Row(std::string("peer.get.") + s.tag, "Peer: redis-server + hiredis", std::string("GET, ") + s.tag, us, "us",
            cpu, std::string("floor.pingpong.") + s.tag, "-", Percentiles(samples));
        if (s.len == 64)
            Row("peer.cpu.get.64B", "Peer: redis-server + hiredis", "client CPU per GET, 64B", cpu, "us", cpu);
    }
    redisFree(c);
}

/* GETs of 64B for `seconds` from conns connections, a thread each; op/s. */
double ConnectionRound(int conns, double seconds, double *cpu_us)
{
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
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); // the measured stretch
    stop = true;
    for (auto &t : ts) t.join();
    double wall = m.wall();
    *cpu_us = m.cpu() / done.load() * 1e6;
    for (auto c : cs) redisFree(c);
    return done.load() / wall;
}

/* Rounds as bench_report's handles: every round measures every count
 * once; the median round of each. */
void ConnectionFigures()
{
    const int rounds = g_scale < 1 ? 5 : 9;
    const double seconds = g_scale < 1 ? 0.06 : 0.2;
    const int ns[] = {1, 2, 4, 8};
    std::vector<double> ops[4], cpu[4];
    for (int r = 0; r < rounds; r++)
        for (int i = 0; i < 4; i++) {
            double c;
            ops[i].push_back(ConnectionRound(ns[i], seconds, &c));
            cpu[i].push_back(c);
        }
    for (int i = 0; i < 4; i++)
        Row("peer.conns." + std::to_string(ns[i]), "Peer: redis-server + hiredis",
            std::to_string(ns[i]) + " connection(s), GET", Median(ops[i]), "op/s", Median(cpu[i]));
}

/* redis-server's resident bytes per value byte stored: the same counts,
 * sizes and keys as bench_report's hspaced figures, SETs pipelined. */
void MemoryFigures()
{
    redisContext *c = Connect();
    redisReply *info = static_cast<redisReply *>(redisCommand(c, "INFO server"));
    const char *at = info != nullptr && info->type == REDIS_REPLY_STRING ? strstr(info->str, "process_id:") : nullptr;
    pid_t pid = at != nullptr ? static_cast<pid_t>(atol(at + strlen("process_id:"))) : 0;
    if (info != nullptr) freeReplyObject(info);
    if (pid <= 0) {
        redisFree(c);
        return;
    }
    const struct {
        const char *tag;
        size_t len;
        long count;
    } sizes[] = {{"64B", 64, 100000}, {"1KiB", 1024, 20000}, {"64KiB", 64 << 10, 300}};
    char key[64];
    for (const auto &s : sizes) {
        long count = Iters(s.count);
        std::string value(s.len, 'v');
        Command(c, "SET %s %b", "bench/fence", &value);
        double before = StatusBytes(pid, "VmRSS");
        for (long i = 0; i < count; i++) {
            snprintf(key, sizeof key, "st/%s/%08ld", s.tag, i);
            redisAppendCommand(c, "SET %s %b", key, value.data(), value.size());
            if (i % 1000 == 999 || i == count - 1)
                for (long k = i - i % 1000; k <= i; k++) {
                    void *r = nullptr;
                    if (redisGetReply(c, &r) != REDIS_OK || r == nullptr) {
                        fprintf(stderr, "bench_hiredis: SET failed\n");
                        exit(1);
                    }
                    freeReplyObject(r);
                }
        }
        double after = StatusBytes(pid, "VmRSS");
        Row(std::string("peer.mem.perbyte.") + s.tag, "Memory per stored byte",
            "redis-server: resident bytes per value byte stored, " + std::to_string(count) + " values of " + s.tag,
            (after - before) / (static_cast<double>(count) * static_cast<double>(s.len)), "B/B", -1);
    }
    redisFree(c);
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
    MemoryFigures(); // first: redis-server's allocator holds nothing freed yet
    SyncFigures();
    ConnectionFigures();
    return 0;
}
