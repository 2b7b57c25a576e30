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
