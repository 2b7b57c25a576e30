/*
 * bench_rows_etcd.cpp - hspaced on the etcd store against etcd itself: the
 * same synchronous puts and gets of 64 bytes, through the library and an
 * in-process hspaced whose store is etcd, and sent to etcd directly by a
 * gRPC client (etcd's own v3 API, one channel, the stubs the store uses),
 * from one client and from eight at once. Rows in scripts/bench's format;
 * each hspaced row's ratio is to etcd's (goal: at least 0.90 of etcd's
 * rate). Starts a one-member etcd of its own on loopback (data in /dev/shm
 * or $TMPDIR), or prints why not and no row when etcd is missing. The two
 * sides run in alternating batches, so that a change of the machine's load
 * weighs on both alike.
 *
 *   bench_rows_etcd [--quick]
 */
#include <string.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "bench_rows.h"
#include "etcd.grpc.pb.h"
#include "qel_hspace.h"
#include "server.h"
#include "service/etcd_cluster.h"

namespace {

namespace pb = etcdserverpb;

const std::string kValue(64, 'v');
constexpr int kKeys = 100; // keys written and read in turn

void on_event(t_qel_hspace, t_qel_hspace_event, t_kro_ptr) {}

// A library handle on the service: synchronous put and get that must succeed.
struct Library {
    explicit Library(const std::string &url)
    {
        qel_hspace_create_data cd = {url.c_str(), "bench", "bench"};
        if (qel_hspace_create(&cd, on_event, &h) != 0 || qel_hspace_open(h) != 0) {
            fprintf(stderr, "bench_rows_etcd: cannot open %s\n", url.c_str());
            exit(1);
        }
        kro_buf_create(&value, static_cast<t_kro_uint4>(kValue.size()), 0);
        memcpy(value->ptr, kValue.data(), kValue.size());
        kro_llist_create(&list);
    }
    ~Library()
    {
        qel_hspace_close(h);
        qel_hspace_destroy(&h);
        kro_buf_release(&value);
        kro_llist_destroy(&list);
    }
    void put(const std::string &key)
    {
        t_qel_hspace_object o = nullptr;
        qel_hspace_object_create(key.c_str(), value, &o);
        t_kro_error e = qel_hspace_put(h, o, HSPACE_PUT_SYNC, 0);
        qel_hspace_object_destroy(&o);
        if (e != 0) fail("put", e);
    }
    void get(const std::string &key)
    {
        t_kro_error e = qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list);
        if (e != 0 || kro_llist_first(list) == nullptr) fail("get", e);
        t_kro_ptr node;
        while ((node = kro_llist_first(list)) != nullptr) {
            auto o = static_cast<t_qel_hspace_object>(node);
            kro_llist_remove(o);
            qel_hspace_object_destroy(&o);
        }
    }
    [[noreturn]] static void fail(const char *what, t_kro_error e)
    {
        fprintf(stderr, "bench_rows_etcd: %s through hspaced failed: %u\n", what, e);
        exit(1);
    }
    t_qel_hspace h = nullptr;
    t_kro_buf value = nullptr;
    t_kro_llist list = nullptr;
};

// etcd's KV service called directly, as the store calls it (same prefix).
struct Direct {
    explicit Direct(const std::shared_ptr<grpc::Channel> &channel) : kv(pb::KV::NewStub(channel)) {}
    void put(const std::string &key)
    {
        grpc::ClientContext ctx;
        pb::PutRequest req;
        pb::PutResponse resp;
        req.set_key("bench/" + key);
        req.set_value(kValue);
        check("put", kv->Put(&ctx, req, &resp));
    }
    void get(const std::string &key)
    {
        grpc::ClientContext ctx;
        pb::RangeRequest req;
        pb::RangeResponse resp;
        req.set_key("bench/" + key);
        check("get", kv->Range(&ctx, req, &resp));
        if (resp.kvs_size() != 1) check("get", grpc::Status(grpc::StatusCode::NOT_FOUND, "no such key"));
    }
    static void check(const char *what, const grpc::Status &s)
    {
        if (s.ok()) return;
        fprintf(stderr, "bench_rows_etcd: %s sent to etcd failed: %s\n", what, s.error_message().c_str());
        exit(1);
    }
    std::unique_ptr<pb::KV::Stub> kv;
};

std::string key(long i) { return "k" + std::to_string(i % kKeys); }

// Operations per second of etcd's and hspaced's op, from one client each,
// measured in alternating batches so that a machine whose load changes
// weighs on both alike: the median batch of each.
std::pair<double, double> rates(long iters, const std::function<void(long)> &etcd_op,
                                const std::function<void(long)> &hspaced_op)
{
    const int batches = 9;
    long per = std::max(iters / batches, 1L), i = 0;
    std::vector<double> a, b;
    for (int n = 0; n < batches; n++)
        for (auto [op, out] : {std::pair{&etcd_op, &a}, std::pair{&hspaced_op, &b}}) {
            bench::Meter m;
            for (long k = 0; k < per; k++) (*op)(i++);
            out->push_back(per / m.wall());
        }
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    return {a[batches / 2], b[batches / 2]};
}

// The same with clients threads at once, each on its own client.
template <class A, class B>
std::pair<double, double> parallel_rates(int clients, long iters, const std::function<std::unique_ptr<A>()> &make_a,
                                         void (A::*op_a)(const std::string &),
                                         const std::function<std::unique_ptr<B>()> &make_b,
                                         void (B::*op_b)(const std::string &))
{
    std::vector<std::unique_ptr<A>> as;
    std::vector<std::unique_ptr<B>> bs;
    for (int t = 0; t < clients; t++) as.push_back(make_a()), bs.push_back(make_b());
    auto run = [&](auto &made, auto op, long per) {
        std::vector<std::thread> threads;
        bench::Meter m;
        for (int t = 0; t < clients; t++)
            threads.emplace_back([&, t] {
                for (long i = 0; i < per; i++) ((*made[t]).*op)("p" + std::to_string(t) + "/" + key(i));
            });
        for (std::thread &th : threads) th.join();
        return clients * per / m.wall();
    };
    const int batches = 5;
    long per = std::max(iters / clients / batches, 1L);
    std::vector<double> a, b;
    for (int n = 0; n < batches; n++) {
        a.push_back(run(as, op_a, per));
        b.push_back(run(bs, op_b, per));
    }
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    return {a[batches / 2], b[batches / 2]};
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--quick") == 0) {
            bench::g_scale = 0.1;
        } else {
            fprintf(stderr, "usage: bench_rows_etcd [--quick]\n");
            return 2;
        }
    }
    if (!EtcdCluster::installed()) {
        fprintf(stderr, "bench_rows_etcd: etcd is not installed (scripts/install-deps --etcd): no etcd rows\n");
        return 0;
    }
    EtcdCluster etcd(3);
    if (!etcd.start(std::chrono::seconds(30))) {
        fprintf(stderr, "bench_rows_etcd: etcd did not start: no etcd rows\n");
        return 1;
    }
    hspace::service::Options options;
    options.store = etcd.store_url();
    options.store_prefix = "bench/";
    options.log = false;
    hspace::service::Server service(options);
    std::string error;
    if (qel_hspace_initialize(QEL_HSPACE_VERSION, 1) != 0 || !service.start(&error)) {
        fprintf(stderr, "bench_rows_etcd: hspaced did not start: %s\n", error.c_str());
        return 1;
    }
    grpc::ChannelArguments args;
    auto channel =
        grpc::CreateCustomChannel("ipv4:" + etcd.store_url().substr(7), grpc::InsecureChannelCredentials(), args);
    Library lib(service.url());
    Direct direct(channel);
    for (long i = 0; i < kKeys; i++) direct.put(key(i)); // the gets find every key; the channel is linked

    const std::string section = "hspaced on etcd against etcd itself";
    const long iters = bench::Iters(4000);
    std::function<std::unique_ptr<Direct>()> make_direct = [&] { return std::make_unique<Direct>(channel); };
    std::function<std::unique_ptr<Library>()> make_library = [&] { return std::make_unique<Library>(service.url()); };
    struct Pair {
        const char *what;
        std::function<std::pair<double, double>()> measure;
    };
    const Pair pairs[] = {
        {"synchronous put 64 B, 1 client",
         [&] { return rates(iters, [&](long i) { direct.put(key(i)); }, [&](long i) { lib.put(key(i)); }); }},
        {"synchronous get 64 B, 1 client",
         [&] { return rates(iters, [&](long i) { direct.get(key(i)); }, [&](long i) { lib.get(key(i)); }); }},
        {"synchronous put 64 B, 8 clients",
         [&] { return parallel_rates(8, iters, make_direct, &Direct::put, make_library, &Library::put); }},
    };
    int n = 0;
    for (const Pair &p : pairs) {
        std::string k = "etcd.rate." + std::to_string(++n);
        auto [etcd_rate, hspaced_rate] = p.measure();
        bench::Row(k + ".direct", section, std::string("etcd directly (gRPC): ") + p.what, etcd_rate, "op/s", -1);
        bench::Row(k + ".hspaced", section, std::string("through hspaced: ") + p.what, hspaced_rate, "op/s", -1,
                   k + ".direct", ">= 0.90");
    }
    service.stop();
    qel_hspace_finalize();
    return 0;
}
