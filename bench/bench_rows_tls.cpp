/*
 * bench_rows_tls.cpp - what TLS costs a synchronous get: the same get of
 * 64 B and of 4 KiB over plain TCP and over TLS (1.3, client certificate),
 * against two hspaced instances of one child process, in one run, batches
 * interleaved (plain, TLS, plain, ...) so that both see the same machine.
 * Rows in scripts/bench's format on standard output.
 *
 * The child is forked before any thread exists, so getrusage is the
 * client's CPU. The certificates are made on the spot (tests/support).
 *
 *   bench_rows_tls [--quick]
 *   bench_rows_tls --count N [--plain]
 * The second form only makes N gets of 64 B over TLS (plain TCP with
 * --plain) and prints nothing: under strace -f -c or perf, two runs with
 * different N give the cost of one get by difference.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "bench_rows.h"
#include "certs.h"
#include "qel_hspace.h"
#include "server.h"

using namespace bench;
using hspace::test::Certs;

namespace {

bool ReadFull(int fd, void *p, size_t n)
{
    for (size_t done = 0; done < n;) {
        ssize_t r = read(fd, static_cast<char *>(p) + done, n - done);
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

void OnEvent(t_qel_hspace, t_qel_hspace_event, t_kro_ptr) {}

t_qel_hspace Open(const std::string &url)
{
    qel_hspace_create_data cd = {url.c_str(), nullptr, nullptr}; // claims nothing: the certificate names it
    qel_hspace_tls_options tls = {QEL_HSPACE_TLS_OPTIONS_VERSION, Certs().ca.c_str(), Certs().alice.cert.c_str(),
                                  Certs().alice.key.c_str(), nullptr};
    t_qel_hspace h = nullptr;
    if (qel_hspace_create(&cd, OnEvent, &h) != 0 || (url.compare(0, 6, "tls://") == 0 && qel_hspace_set_tls(h, &tls) != 0) ||
        qel_hspace_open(h) != 0) {
        fprintf(stderr, "bench_rows_tls: cannot open %s\n", url.c_str());
        exit(1);
    }
    return h;
}

void Get(t_qel_hspace h, const char *key, t_kro_llist list)
{
    if (qel_hspace_get(h, key, nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0) exit(1);
    t_kro_ptr n;
    while ((n = kro_llist_first(list)) != nullptr) {
        t_qel_hspace_object o = static_cast<t_qel_hspace_object>(n);
        kro_llist_remove(o);
        qel_hspace_object_destroy(&o);
    }
}

} // namespace

int main(int argc, char **argv)
{
    long count = -1;
    bool only_plain = false;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--quick") == 0) g_scale = 0.1;
        else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc) count = atol(argv[++i]);
        else if (strcmp(argv[i], "--plain") == 0) only_plain = true;
        else return fprintf(stderr, "usage: bench_rows_tls [--quick] | --count N [--plain]\n"), 2;
    }
    Certs(); // made before the fork: both processes read the files
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0) return 1;
    pid_t pid = fork();
    if (pid < 0) return 1;
    if (pid == 0) {
        close(up[0]), close(down[1]);
        hspace::service::Options o;
        o.tls_cert = Certs().server.cert;
        o.tls_key = Certs().server.key;
        o.tls_client_ca = Certs().ca;
        hspace::service::Server plain, tls(o);
        if (!plain.start() || !tls.start()) _exit(1);
        uint16_t ports[2] = {plain.port(), tls.port()};
        if (write(up[1], ports, sizeof ports) != sizeof ports) _exit(1);
        char b;
        while (read(down[0], &b, 1) > 0) {
        }
        plain.stop(), tls.stop();
        _exit(0);
    }
    close(up[1]), close(down[0]);
    uint16_t ports[2];
    if (!ReadFull(up[0], ports, sizeof ports)) return 1;
    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    t_qel_hspace plain = Open("tcp://127.0.0.1:" + std::to_string(ports[0]));
    t_qel_hspace tls = Open("tls://127.0.0.1:" + std::to_string(ports[1]));
    t_kro_llist list;
    kro_llist_create(&list);
    if (count >= 0) {
        t_qel_hspace h = only_plain ? plain : tls;
        t_kro_buf value;
        kro_buf_create(&value, 64, 0);
        memset(value->ptr, 'v', 64);
        t_qel_hspace_object o;
        qel_hspace_object_create("bench/tls/count", value, &o);
        if (qel_hspace_put(h, o, HSPACE_PUT_SYNC, 0) != 0) return 1;
        qel_hspace_object_destroy(&o);
        kro_buf_release(&value);
        for (long i = 0; i < count; i++) Get(h, "bench/tls/count", list);
    }
    const struct {
        const char *tag;
        size_t len;
        long iters;
    } sizes[] = {{"64B", 64, 20000}, {"4KiB", 4096, 10000}};
    for (const auto &s : sizes) {
        if (count >= 0) break;
        std::string key = std::string("bench/tls/") + s.tag;
        t_kro_buf value;
        kro_buf_create(&value, static_cast<t_kro_uint4>(s.len), 0);
        memset(value->ptr, 'v', s.len);
        t_qel_hspace_object o;
        qel_hspace_object_create(key.c_str(), value, &o);
        for (t_qel_hspace h : {plain, tls})
            if (qel_hspace_put(h, o, HSPACE_PUT_SYNC, 0) != 0) return 1;
        qel_hspace_object_destroy(&o);
        kro_buf_release(&value);
        for (int i = 0; i < 200; i++) Get(plain, key.c_str(), list), Get(tls, key.c_str(), list);
        // Nine batches of each, interleaved; the median batch of each.
        const int batches = 9;
        long per = Iters(s.iters) / batches;
        std::vector<double> us[2];
        double cpu[2] = {0, 0};
        for (int b = 0; b < batches; b++) {
            for (int which = 0; which < 2; which++) {
                t_qel_hspace h = which == 0 ? plain : tls;
                Meter m;
                for (long i = 0; i < per; i++) Get(h, key.c_str(), list);
                us[which].push_back(m.wall() / per * 1e6);
                cpu[which] += m.cpu() / (per * batches) * 1e6;
            }
        }
        for (auto &v : us) std::sort(v.begin(), v.end());
        std::string base = std::string("tls.get.plain.") + s.tag;
        Row(base, "TLS", std::string("synchronous get, ") + s.tag + ", plain TCP (same run)", us[0][batches / 2], "us",
            cpu[0]);
        Row(std::string("tls.get.") + s.tag, "TLS", std::string("synchronous get, ") + s.tag + ", TLS 1.3",
            us[1][batches / 2], "us", cpu[1], base, "<= 1.15");
    }
    kro_llist_destroy(&list);
    qel_hspace_close(plain), qel_hspace_close(tls);
    qel_hspace_destroy(&plain), qel_hspace_destroy(&tls);
    qel_hspace_finalize();
    close(down[1]);
    waitpid(pid, nullptr, 0);
    return 0;
}
