/*
 * bench_store.cpp - hspaced's stores compared through the library: for the
 * memory store and the etcd store, synchronous put and get latency from one
 * client, put throughput from one client and from several at once, and the
 * delay of a notification from a write through one instance to a
 * subscriber on another (for the memory store, which one instance holds,
 * through the same instance).
 *
 *   bench_store [--ops N] [--etcd etcd://HOST:PORT,...]
 *
 * Without --etcd it starts a one-member etcd of its own (data in /dev/shm
 * or $TMPDIR) and stops it at the end.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qel_hspace.h"
#include "server.h"
#include "service/etcd_cluster.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t now_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// Notification delays seen by the subscriber: its value is the write's
// start time.
std::mutex delays_mutex;
std::condition_variable delays_cond;
std::vector<int64_t> delays;

void on_event(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr data)
{
    t_qel_hspace_object object = nullptr;
    if (event == HSPACE_EVENT_POST_NOTIFICATION)
        object = static_cast<t_qel_hspace_post_notification_event_data_struct *>(data)->object;
    else if (event != HSPACE_EVENT_LINK_FAIL)
        object = static_cast<t_qel_hspace_reply_image_event_data_struct *>(data)->object;
    if (object == nullptr) return;
    if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        t_kro_ptr d = nullptr;
        qel_hspace_object_get_data(object, &d);
        t_kro_buf buf = static_cast<t_kro_buf>(d);
        if (buf != nullptr) {
            std::string v(static_cast<const char *>(buf->ptr) + buf->pos, buf->lim - buf->pos);
            int64_t delay = now_ns() - strtoll(v.c_str(), nullptr, 10);
            std::lock_guard<std::mutex> lock(delays_mutex);
            delays.push_back(delay);
            delays_cond.notify_all();
        }
    }
    qel_hspace_object_destroy(&object);
}

struct Handle {
    explicit Handle(const std::string &url)
    {
        qel_hspace_create_data cd = {url.c_str(), "bench", "bench"};
        if (qel_hspace_create(&cd, on_event, &h) != 0 || qel_hspace_open(h) != 0) {
            fprintf(stderr, "bench_store: cannot open %s\n", url.c_str());
            exit(1);
        }
    }
    ~Handle()
    {
        qel_hspace_close(h);
        qel_hspace_destroy(&h);
    }
    t_kro_error put(const std::string &key, const std::string &value)
    {
        t_kro_buf buf = nullptr;
        kro_buf_create(&buf, static_cast<t_kro_uint4>(value.size()), 0);
        memcpy(buf->ptr, value.data(), value.size());
        t_qel_hspace_object o = nullptr;
        qel_hspace_object_create(key.c_str(), buf, &o);
        t_kro_error e = qel_hspace_put(h, o, HSPACE_PUT_SYNC, 0);
        qel_hspace_object_destroy(&o);
        kro_buf_release(&buf);
        return e;
    }
    t_kro_error get(const std::string &key)
    {
        t_kro_llist list = nullptr;
        kro_llist_create(&list);
        t_kro_error e = qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list);
        t_kro_ptr node;
        while ((node = kro_llist_first(list)) != nullptr) {
            t_qel_hspace_object o = static_cast<t_qel_hspace_object>(node);
            kro_llist_remove(o);
            qel_hspace_object_destroy(&o);
        }
        kro_llist_destroy(&list);
        return e;
    }
    t_qel_hspace h = nullptr;
};

std::unique_ptr<hspace::service::Server> start(const std::string &store)
{
    hspace::service::Options options;
    options.store = store;
    options.store_prefix = "bench/";
    std::unique_ptr<hspace::service::Server> s(new hspace::service::Server(options));
    std::string error;
    if (!s->start(&error)) {
        fprintf(stderr, "bench_store: %s\n", error.c_str());
        exit(1);
    }
    return s;
}

struct Summary {
    double p50_us, p99_us;
};
Summary summarize(std::vector<int64_t> ns)
{
    std::sort(ns.begin(), ns.end());
    if (ns.empty()) return {0, 0};
    return {ns[ns.size() / 2] / 1e3, ns[std::min(ns.size() - 1, ns.size() * 99 / 100)] / 1e3};
}

void run(const char *label, const std::string &store, int ops)
{
    auto a = start(store);
    auto b = store == "memory" ? nullptr : start(store);
    const std::string value(100, 'v');
    Handle c(a->url());

    std::vector<int64_t> put_ns, get_ns;
    int64_t t0 = now_ns();
    for (int i = 0; i < ops; i++) {
        int64_t s = now_ns();
        if (c.put("k" + std::to_string(i % 1000), value) != 0) fprintf(stderr, "bench_store: put failed\n");
        put_ns.push_back(now_ns() - s);
    }
    double put_rate = ops / ((now_ns() - t0) / 1e9);
    t0 = now_ns();
    for (int i = 0; i < ops; i++) {
        int64_t s = now_ns();
        c.get("k" + std::to_string(i % 1000));
        get_ns.push_back(now_ns() - s);
    }
    double get_rate = ops / ((now_ns() - t0) / 1e9);

    // Several clients putting at once.
    constexpr int kClients = 8;
    std::vector<std::thread> threads;
    t0 = now_ns();
    for (int t = 0; t < kClients; t++)
        threads.emplace_back([&, t] {
            Handle h(a->url());
            for (int i = 0; i < ops / kClients; i++) h.put("p" + std::to_string(t) + "/" + std::to_string(i % 100), value);
        });
    for (auto &th : threads) th.join();
    double par_rate = (ops / kClients * kClients) / ((now_ns() - t0) / 1e9);

    // Notification delay: writes through B (or A), subscriber on A.
    {
        std::lock_guard<std::mutex> lock(delays_mutex);
        delays.clear();
    }
    Handle sub(a->url()), writer((b ? b : a)->url());
    qel_hspace_post(sub.h, "n/*", nullptr, HSPACE_POST_SYNC, 0, HSPACE_POST_FLAG_NO_IMAGE);
    int notes = std::min(ops, 1000);
    for (int i = 0; i < notes; i++) writer.put("n/" + std::to_string(i % 10), std::to_string(now_ns()));
    {
        std::unique_lock<std::mutex> lock(delays_mutex);
        delays_cond.wait_for(lock, std::chrono::seconds(30), [&] { return delays.size() >= size_t(notes); });
    }
    Summary put_s = summarize(put_ns), get_s = summarize(get_ns), note_s = summarize(delays);
    printf("%-7s put  p50 %8.1f us  p99 %8.1f us  %9.0f puts/s (1 client)  %9.0f puts/s (%d clients)\n", label,
           put_s.p50_us, put_s.p99_us, put_rate, par_rate, kClients);
    printf("%-7s get  p50 %8.1f us  p99 %8.1f us  %9.0f gets/s (1 client)\n", label, get_s.p50_us, get_s.p99_us,
           get_rate);
    printf("%-7s notification %s  p50 %8.1f us  p99 %8.1f us  (%zu of %d)\n", label,
           b ? "B->A" : "same instance", note_s.p50_us, note_s.p99_us, delays.size(), notes);
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    int ops = 2000;
    std::string etcd_url;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--ops") == 0 && i + 1 < argc) {
            ops = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--etcd") == 0 && i + 1 < argc) {
            etcd_url = argv[++i];
        } else {
            fprintf(stderr, "usage: bench_store [--ops N] [--etcd etcd://HOST:PORT,...]\n");
            return 2;
        }
    }
    if (ops < 10) ops = 10;
    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    printf("bench_store: %d synchronous operations of 100-byte values per measure\n", ops);
    run("memory", "memory", ops);
    std::unique_ptr<EtcdCluster> etcd;
    if (etcd_url.empty()) {
        if (!EtcdCluster::installed()) {
            fprintf(stderr, "bench_store: etcd is not installed; etcd store not measured\n");
            return 0;
        }
        etcd.reset(new EtcdCluster(1));
        if (!etcd->start(std::chrono::seconds(20))) {
            fprintf(stderr, "bench_store: etcd did not start\n");
            return 1;
        }
        etcd_url = etcd->store_url();
    }
    run("etcd", etcd_url, ops);
    qel_hspace_finalize();
    return 0;
}
