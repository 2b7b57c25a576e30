/*
 * bench_service.cpp - the service alone, through the thinnest client there
 * is: blocking sockets sending prebuilt requests, one thread per
 * connection. Rows in bench_report's format (scripts/bench runs it as
 * bench_rows_service):
 *
 *   - synchronous gets and puts of 64 B from 1, 4 and 16 connections to
 *     hspaced (memory store) and, when redis-server is installed, the same
 *     GET and SET to a redis-server of its own: throughput and the server's
 *     CPU per request (from /proc), so the two servers compare without
 *     either client library in the figures;
 *   - put-to-notification latency with 0 and 100,000 subscriptions held by
 *     another connection (exact keys and patterns that never select the
 *     key written);
 *   - the service's peak resident memory over its idle size while a value
 *     of 60 MiB is put, then got back, then a second one notified to a
 *     subscriber, less the values stored.
 *
 *   bench_rows_service [--quick] [--only peers|subs|memory]
 *   bench_rows_service --load PORT [--redis] [--ops N]
 *
 * --load only drives an hspaced (or with --redis a redis-server) already
 * listening on PORT, for a profiler run around it: N synchronous puts (SET),
 * then N gets (GET), from 1, 4 and 16 connections each, no rows.
 *
 * Each server runs in a child process (hspaced forked before any thread,
 * redis-server executed), so its CPU is its own.
 */
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "bench_rows.h"
#include "hspace_codec.h"
#include "server.h"

namespace {

using namespace bench;
namespace codec = hspace::codec;

[[noreturn]] void Die(const char *what)
{
    fprintf(stderr, "bench_service: %s: %s\n", what, strerror(errno));
    exit(1);
}

int Connect(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

void SendAll(int fd, const std::string &bytes)
{
    for (size_t off = 0; off < bytes.size();) {
        ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n <= 0) Die("send");
        off += static_cast<size_t>(n);
    }
}

// Reads from fd into buf until done(buf) gives the length of a complete
// answer at its start; removes and returns it.
template <class Done>
std::string ReadAnswer(int fd, std::string &buf, Done done)
{
    char chunk[65536];
    for (;;) {
        size_t n = done(buf);
        if (n > 0) {
            std::string out = buf.substr(0, n);
            buf.erase(0, n);
            return out;
        }
        ssize_t got = recv(fd, chunk, sizeof chunk, 0);
        if (got <= 0) Die("recv");
        buf.append(chunk, static_cast<size_t>(got));
    }
}

size_t HspacePacket(const std::string &buf)
{
    codec::FrameResult f = codec::frame(buf);
    if (f.status == codec::FrameStatus::Invalid) Die("invalid packet");
    return f.status == codec::FrameStatus::Complete ? f.wirelen : 0;
}

// One RESP answer: a simple string, an error, an integer or a bulk string.
size_t RespAnswer(const std::string &buf)
{
    size_t eol = buf.find("\r\n");
    if (eol == std::string::npos) return 0;
    if (buf[0] != '$') return eol + 2;
    long len = atol(buf.c_str() + 1);
    size_t total = eol + 2 + (len < 0 ? 0 : static_cast<size_t>(len) + 2);
    return buf.size() >= total ? total : 0;
}

std::string Resp(const std::vector<std::string> &args)
{
    std::string out = "*" + std::to_string(args.size()) + "\r\n";
    for (const std::string &a : args) out += "$" + std::to_string(a.size()) + "\r\n" + a + "\r\n";
    return out;
}

std::string HspaceRequest(uint8_t opcode, const std::string &key, uint32_t corrid, const std::string &data = "",
                          int32_t flags = 0)
{
    std::string out;
    codec::encode_request(out, codec::Request{1, opcode, codec::kSemSync, 0, 0, flags, key, corrid, data});
    return out;
}

int HspaceConnect(uint16_t port)
{
    int fd = Connect(port);
    if (fd < 0) Die("connect to hspaced");
    std::string hs, buf;
    codec::encode_handshake_request(hs, "data", "bench", "bench");
    SendAll(fd, hs);
    ReadAnswer(fd, buf, HspacePacket);
    return fd;
}

// CPU seconds the threads of process pid have run, to the nanosecond (the
// scheduler's own count in /proc/PID/task/TID/schedstat); 0 for pid 0.
double ProcessCpu(pid_t pid)
{
    if (pid <= 0) return 0;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task", static_cast<int>(pid));
    DIR *dir = opendir(path);
    if (dir == nullptr) return 0;
    double total = 0;
    while (dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::string stat = std::string(path) + "/" + e->d_name + "/schedstat";
        FILE *f = fopen(stat.c_str(), "r");
        unsigned long long ns = 0;
        if (f != nullptr && fscanf(f, "%llu", &ns) == 1) total += static_cast<double>(ns) / 1e9;
        if (f != nullptr) fclose(f);
    }
    closedir(dir);
    return total;
}

struct Child {
    pid_t pid = -1;
    uint16_t port = 0;
};

// hspaced (memory store) in a child process; its port.
Child ForkHspaced()
{
    int fds[2];
    if (pipe(fds) != 0) Die("pipe");
    Child c;
    c.pid = fork();
    if (c.pid < 0) Die("fork");
    if (c.pid == 0) {
        close(fds[0]);
        // The benchmarks hold up to 100,000 subscriptions on one connection, over the
        // service's default bound per connection.
        hspace::service::Options server_options;
        server_options.max_subscriptions = size_t(1) << 20;
        hspace::service::Server server(server_options);
        std::string error;
        if (!server.start(&error)) _exit(1);
        uint16_t port = server.port();
        if (write(fds[1], &port, sizeof port) != sizeof port) _exit(1);
        for (;;) pause(); // until the parent's SIGTERM
        _exit(0);
    }
    close(fds[1]);
    if (read(fds[0], &c.port, sizeof c.port) != sizeof c.port) Die("hspaced did not start");
    close(fds[0]);
    return c;
}

// redis-server on a free port, without persistence; pid -1 when it is not
// installed or does not answer.
Child StartRedis()
{
    Child c;
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (bind(probe, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        getsockname(probe, reinterpret_cast<sockaddr *>(&sa), &len) != 0)
        Die("probe port");
    close(probe);
    c.port = ntohs(sa.sin_port);
    std::string port = std::to_string(c.port);
    c.pid = fork();
    if (c.pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execlp("redis-server", "redis-server", "--port", port.c_str(), "--bind", "127.0.0.1", "--save", "",
               "--appendonly", "no", static_cast<char *>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 500; i++) {
        int fd = Connect(c.port);
        if (fd >= 0) {
            close(fd);
            return c;
        }
        int status;
        if (waitpid(c.pid, &status, WNOHANG) == c.pid) break;
        usleep(10000); // bench only: waiting for a program we started to listen
    }
    kill(c.pid, SIGKILL);
    waitpid(c.pid, nullptr, 0);
    return Child{};
}

void Stop(Child &c)
{
    if (c.pid <= 0) return;
    kill(c.pid, SIGTERM);
    waitpid(c.pid, nullptr, 0);
    c.pid = -1;
}

struct Loop {
    double ops_per_s;
    double server_cpu_us;
};

// conns threads, each on a connection of its own, send request and read
// one answer, per_conn times; connect makes and prepares a connection.
template <class Connect, class Answer>
Loop RunLoop(pid_t server, int conns, long per_conn, Connect connect, const std::string &request, Answer answer)
{
    std::vector<int> fds;
    for (int i = 0; i < conns; i++) fds.push_back(connect());
    double cpu0 = ProcessCpu(server);
    Clock::time_point t0 = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < conns; i++)
        threads.emplace_back([&, fd = fds[i]] {
            std::string buf;
            for (long n = 0; n < per_conn; n++) {
                SendAll(fd, request);
                ReadAnswer(fd, buf, answer);
            }
        });
    for (auto &t : threads) t.join();
    double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    double cpu = ProcessCpu(server) - cpu0;
    for (int fd : fds) close(fd);
    double ops = static_cast<double>(per_conn) * conns;
    return Loop{ops / wall, cpu / ops * 1e6};
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void PeerFigures()
{
    const std::string value(64, 'v');
    const char *section = "Service alone against redis-server (raw clients)";
    Child hs = ForkHspaced();
    Child redis = StartRedis();
    {
        int fd = HspaceConnect(hs.port);
        std::string buf;
        SendAll(fd, HspaceRequest(codec::kOpPut, "key:000", 1, value));
        ReadAnswer(fd, buf, HspacePacket);
        close(fd);
    }
    if (redis.pid > 0) {
        int fd = Connect(redis.port);
        std::string buf;
        SendAll(fd, Resp({"SET", "key:000", value}));
        ReadAnswer(fd, buf, RespAnswer);
        close(fd);
    }
    for (const char *op : {"get", "put"}) {
        bool get = strcmp(op, "get") == 0;
        std::string hreq = get ? HspaceRequest(codec::kOpGet, "key:000", 7)
                               : HspaceRequest(codec::kOpPut, "key:000", 7, value);
        std::string rreq = get ? Resp({"GET", "key:000"}) : Resp({"SET", "key:000", value});
        for (int conns : {1, 4, 16}) {
            // Rounds alternate between the servers so that the machine's
            // load drifts alike over both; medians of the rounds.
            const int rounds = 5;
            long per = Iters(60000) / conns / rounds;
            std::string n = std::to_string(conns), tag = std::string(op) + "." + n;
            std::string rkey = "svc.redis." + tag;
            std::vector<double> rops, rcpu, hops, hcpu;
            for (int round = 0; round < rounds; round++) {
                if (redis.pid > 0) {
                    Loop r = RunLoop(redis.pid, conns, per, [&] { return Connect(redis.port); }, rreq, RespAnswer);
                    rops.push_back(r.ops_per_s);
                    rcpu.push_back(r.server_cpu_us);
                }
                Loop h = RunLoop(hs.pid, conns, per, [&] { return HspaceConnect(hs.port); }, hreq, HspacePacket);
                hops.push_back(h.ops_per_s);
                hcpu.push_back(h.server_cpu_us);
            }
            if (redis.pid > 0) {
                Row(rkey, section, "redis-server, " + n + " connection(s), " + (get ? "GET" : "SET") + " 64B",
                    Median(rops), "op/s", -1);
                Row(rkey + ".cpu", section, "redis-server CPU per " + std::string(get ? "GET" : "SET") + ", " + n +
                    " connection(s)", Median(rcpu), "us", -1);
            }
            Row("svc.hspaced." + tag, section, "hspaced, " + n + " connection(s), " + op + " 64B", Median(hops),
                "op/s", -1, redis.pid > 0 ? rkey : "-", redis.pid > 0 ? ">= 1.00" : "-");
            Row("svc.hspaced." + tag + ".cpu", section, "hspaced CPU per " + std::string(op) + ", " + n +
                " connection(s)", Median(hcpu), "us", -1, redis.pid > 0 ? rkey + ".cpu" : "-",
                redis.pid > 0 ? "<= 1.00" : "-");
        }
    }
    Stop(redis);
    Stop(hs);
}

// A service with a subscriber, a writer and n subscriptions held by another
// connection, none of which selects the key written.
struct NotifyRig {
    Child server;
    int holder, sub, writer;
    std::string put, sbuf, wbuf;

    explicit NotifyRig(long n) : server(ForkHspaced())
    {
        holder = HspaceConnect(server.port);
        sub = HspaceConnect(server.port);
        writer = HspaceConnect(server.port);
        std::string buf;
        // Exact keys, and a pattern for every hundredth: prefixes of many lengths.
        const long batch = 1000;
        for (long i = 0; i < n; i += batch) {
            std::string out;
            long end = std::min(n, i + batch);
            for (long j = i; j < end; j++) {
                std::string key = "held/" + std::to_string(j);
                if (j % 100 == 0) key = "held/" + std::string(static_cast<size_t>(j / 100 % 40), 'p') + "*";
                out += HspaceRequest(codec::kOpPost, key, static_cast<uint32_t>(j + 1), "", codec::kFlagNoImage);
            }
            SendAll(holder, out);
            for (long j = i; j < end; j++) ReadAnswer(holder, buf, HspacePacket);
        }
        SendAll(sub, HspaceRequest(codec::kOpPost, "watched", 1, "", codec::kFlagNoImage));
        ReadAnswer(sub, buf, HspacePacket);
        put = HspaceRequest(codec::kOpPut, "watched", 2, std::string(64, 'v'));
    }
    ~NotifyRig()
    {
        close(holder);
        close(sub);
        close(writer);
        Stop(server);
    }
    // Mean microseconds from a put's write to its notification's arrival,
    // over iters puts.
    double Batch(long iters)
    {
        Clock::time_point t0 = Clock::now();
        for (long i = 0; i < iters; i++) {
            SendAll(writer, put);
            ReadAnswer(sub, sbuf, HspacePacket);
            ReadAnswer(writer, wbuf, HspacePacket);
        }
        return std::chrono::duration<double>(Clock::now() - t0).count() / iters * 1e6;
    }
};

void SubscriptionFigures()
{
    // Both services run at once and are measured in alternating batches,
    // so that the machine's load drifts alike over both; medians of the
    // batches.
    const char *section = "hspaced: subscriptions on other connections";
    NotifyRig none(0), many(100000);
    std::vector<double> a, b;
    long per = Iters(20000) / 20;
    for (int round = 0; round < 20; round++) {
        a.push_back(none.Batch(per));
        b.push_back(many.Batch(per));
    }
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    Row("svc.notify.0", section, "put-to-notification, no other subscriptions", a[a.size() / 2], "us", -1);
    Row("svc.notify.100000", section, "put-to-notification, 100000 subscriptions on another connection",
        b[b.size() / 2], "us", -1, "svc.notify.0", "<= 1.10");
}

// Peak resident bytes of process pid (VmHWM).
double PeakBytes(pid_t pid)
{
    char path[64], line[256];
    snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
    FILE *f = fopen(path, "r");
    double kb = 0;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr)
        if (sscanf(line, "VmHWM: %lf kB", &kb) == 1) break;
    if (f != nullptr) fclose(f);
    return kb * 1024;
}

void MemoryFigures()
{
    const char *section = "hspaced: memory for one large value";
    const double mib = 1024.0 * 1024.0;
    const std::string value(60 << 20, 'v');
    Child hs = ForkHspaced();
    int c = HspaceConnect(hs.port), sub = HspaceConnect(hs.port);
    std::string buf, sbuf;
    SendAll(c, HspaceRequest(codec::kOpGet, "none", 1));
    ReadAnswer(c, buf, HspacePacket);
    double base = PeakBytes(hs.pid);
    SendAll(c, HspaceRequest(codec::kOpPut, "big", 2, value));
    ReadAnswer(c, buf, HspacePacket);
    double put = PeakBytes(hs.pid);
    SendAll(c, HspaceRequest(codec::kOpGet, "big", 3));
    ReadAnswer(c, buf, HspacePacket);
    double get = PeakBytes(hs.pid);
    SendAll(sub, HspaceRequest(codec::kOpPost, "big2", 1, "", codec::kFlagNoImage));
    ReadAnswer(sub, sbuf, HspacePacket);
    SendAll(c, HspaceRequest(codec::kOpPut, "big2", 4, value));
    ReadAnswer(sub, sbuf, HspacePacket);
    ReadAnswer(c, buf, HspacePacket);
    double notify = PeakBytes(hs.pid);
    close(c);
    close(sub);
    Stop(hs);
    const double n = static_cast<double>(value.size());
    Row("svc.mem.put", section, "peak memory over idle, put of 60 MiB, less the value", (put - base - n) / mib, "MiB",
        -1, "-", "<= 16");
    Row("svc.mem.get", section, "the same, then a get of it", (get - base - n) / mib, "MiB", -1, "-", "<= 16");
    Row("svc.mem.notify", section, "the same, then a second value notified to a subscriber, less both values",
        (notify - base - 2 * n) / mib, "MiB", -1, "-", "<= 16");
}

} // namespace

int main(int argc, char **argv)
{
    std::string only;
    int load = 0;
    bool redis = false;
    long ops = 30000;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--quick") == 0) {
            g_scale = 0.1;
        } else if (strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
            only = argv[++i];
        } else if (strcmp(argv[i], "--load") == 0 && i + 1 < argc) {
            load = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--redis") == 0) {
            redis = true;
        } else if (strcmp(argv[i], "--ops") == 0 && i + 1 < argc) {
            ops = atol(argv[++i]);
        } else {
            fprintf(stderr, "usage: bench_rows_service [--quick] [--only peers|subs|memory] | --load PORT [--redis] "
                            "[--ops N]\n");
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    if (load > 0) {
        uint16_t port = static_cast<uint16_t>(load);
        const std::string value(64, 'v');
        std::vector<std::string> reqs = {HspaceRequest(codec::kOpPut, "key:000", 7, value),
                                         HspaceRequest(codec::kOpGet, "key:000", 7)};
        if (redis) reqs = {Resp({"SET", "key:000", value}), Resp({"GET", "key:000"})};
        for (const std::string &req : reqs)
            for (int conns : {1, 4, 16}) {
                Loop l = redis ? RunLoop(0, conns, ops / conns, [&] { return Connect(port); }, req, RespAnswer)
                               : RunLoop(0, conns, ops / conns, [&] { return HspaceConnect(port); }, req, HspacePacket);
                fprintf(stderr, "%d connection(s): %.0f op/s\n", conns, l.ops_per_s);
            }
        return 0;
    }
    if (only.empty() || only == "peers") PeerFigures();
    if (only.empty() || only == "subs") SubscriptionFigures();
    if (only.empty() || only == "memory") MemoryFigures();
    return 0;
}
