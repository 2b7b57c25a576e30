/*
 * bench_rows_etcd.cpp - hspaced on the etcd store against etcd itself: the
 * same synchronous puts and gets of 64 bytes, through the library and an
 * in-process hspaced whose store is etcd, and sent to etcd directly by a
 * gRPC client (etcd's own v3 API, one channel, the stubs the store uses),
 * from one client and from eight at once. Rows in scripts/bench's format;
 * each hspaced row's ratio is to etcd's (goal: at least 0.90 of etcd's
 * rate). Starts a one-member etcd of its own on loopback (data in /dev/shm
 * or $TMPDIR), or prints why not and no row when etcd is missing.
 *
 *   bench_rows_etcd [--quick]
 */
#include <string.h>

#include <atomic>
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

// Operations per second of op from one client: median of batches.
double rate_of(long iters, const std::function<void(long)> &op)
{
    long i = 0;
    double cpu = 0;
    return 1e6 / bench::MedianUs(iters, [&] { op(i++); }, &cpu);
}

// Operations per second of clients threads, each running op iters times
// on its own client.
template <class Client, class Make>
double parallel_rate(int clients, long iters, Make make, void (Client::*op)(const std::string &))
{
    std::vector<std::unique_ptr<Client>> made;
    for (int t = 0; t < clients; t++) made.push_back(make());
    std::vector<std::thread> threads;
    bench::Meter m;
    for (int t = 0; t < clients; t++)
        threads.emplace_back([&, t] {
            for (long i = 0; i < iters; i++) ((*made[t]).*op)("p" + std::to_string(t) + "/" + key(i));
        });
    for (std::thread &th : threads) th.join();
    return clients * iters / m.wall();
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
    EtcdCluster etcd(1);
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
    auto channel = grpc::CreateCustomChannel(etcd.store_url().substr(7), grpc::InsecureChannelCredentials(), args);
    Library lib(service.url());
    Direct direct(channel);
    for (long i = 0; i < kKeys; i++) direct.put(key(i)); // the gets find every key; the channel is linked

    const std::string section = "hspaced on etcd against etcd itself";
    const long iters = bench::Iters(2000);
    struct Pair {
        const char *what;
        std::function<double()> etcd, hspaced;
    };
    const Pair pairs[] = {
        {"synchronous put 64 B, 1 client", [&] { return rate_of(iters, [&](long i) { direct.put(key(i)); }); },
         [&] { return rate_of(iters, [&](long i) { lib.put(key(i)); }); }},
        {"synchronous get 64 B, 1 client", [&] { return rate_of(iters, [&](long i) { direct.get(key(i)); }); },
         [&] { return rate_of(iters, [&](long i) { lib.get(key(i)); }); }},
        {"synchronous put 64 B, 8 clients",
         [&] {
             return parallel_rate<Direct>(8, iters / 8, [&] { return std::make_unique<Direct>(channel); }, &Direct::put);
         },
         [&] {
             return parallel_rate<Library>(8, iters / 8, [&] { return std::make_unique<Library>(service.url()); },
                                           &Library::put);
         }},
    };
    int n = 0;
    for (const Pair &p : pairs) {
        std::string k = "etcd.rate." + std::to_string(++n);
        bench::Row(k + ".direct", section, std::string("etcd directly (gRPC): ") + p.what, p.etcd(), "op/s", -1);
        bench::Row(k + ".hspaced", section, std::string("through hspaced: ") + p.what, p.hspaced(), "op/s", -1,
                   k + ".direct", ">= 0.90");
    }
    service.stop();
    qel_hspace_finalize();
    return 0;
}
