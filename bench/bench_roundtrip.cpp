/*
 * bench_roundtrip.cpp - the library end to end against the reference
 * service in-process on loopback: synchronous put and get latency, no-reply
 * put throughput, and asynchronous gets in flight from one thread.
 */
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>

#include "qel_hspace.h"
#include "server.h"

namespace {

std::mutex g_mutex;                 // guards g_async_done
std::condition_variable g_cond;     // signals g_async_done
long g_async_done = 0;              // asynchronous gets answered in full

void on_event(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr data)
{
    if (event != HSPACE_EVENT_GET_REPLY) return;
    auto *reply = static_cast<t_qel_hspace_reply_image_event_data_struct *>(data);
    if (reply->object != nullptr) qel_hspace_object_destroy(&reply->object);
    if (reply->index == reply->cardinality) {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_async_done++;
        g_cond.notify_all();
    }
}

/* One service and one open handle for the whole run. */
struct Fixture {
    hspace::service::Server server;
    t_qel_hspace handle = nullptr;
    bool ok = false;

    Fixture()
    {
        if (!server.start()) return;
        std::string url = server.url();
        qel_hspace_create_data cd = {url.c_str(), "bench", nullptr};
        qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
        ok = qel_hspace_create(&cd, on_event, &handle) == 0 && qel_hspace_open(handle) == 0;
    }
    ~Fixture()
    {
        if (handle != nullptr) {
            qel_hspace_close(handle);
            qel_hspace_destroy(&handle);
        }
        qel_hspace_finalize();
    }
};

Fixture &fixture()
{
    static Fixture f;
    return f;
}

/* An object holding len bytes under key; the caller releases both. */
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

void BM_PutSync(benchmark::State &state)
{
    Fixture &f = fixture();
    if (!f.ok) return state.SkipWithError("no service");
    Value v("bench/put", static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        if (qel_hspace_put(f.handle, v.object, HSPACE_PUT_SYNC, 0) != 0) state.SkipWithError("put failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_PutSync)->Arg(16)->Arg(4096)->UseRealTime();

void BM_PutNoReply(benchmark::State &state)
{
    Fixture &f = fixture();
    if (!f.ok) return state.SkipWithError("no service");
    Value v("bench/noreply", static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        if (qel_hspace_put(f.handle, v.object, HSPACE_PUT_NOREPLY, 0) != 0) state.SkipWithError("put failed");
    /* One synchronous put drains the service's queue, so what was sent is
     * counted as done. */
    qel_hspace_put(f.handle, v.object, HSPACE_PUT_SYNC, 0);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_PutNoReply)->Arg(16)->Arg(4096)->UseRealTime();

void BM_GetSync(benchmark::State &state)
{
    Fixture &f = fixture();
    if (!f.ok) return state.SkipWithError("no service");
    Value v("bench/get", 64);
    qel_hspace_put(f.handle, v.object, HSPACE_PUT_SYNC, 0);
    t_kro_llist list;
    kro_llist_create(&list);
    for (auto _ : state) {
        if (qel_hspace_get(f.handle, "bench/get", nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0)
            state.SkipWithError("get failed");
        t_qel_hspace_object o;
        while ((o = static_cast<t_qel_hspace_object>(kro_llist_first(list))) != nullptr) {
            kro_llist_remove(o);
            qel_hspace_object_destroy(&o);
        }
    }
    kro_llist_destroy(&list);
}
BENCHMARK(BM_GetSync)->UseRealTime();

void BM_GetAsyncWindow(benchmark::State &state)
{
    Fixture &f = fixture();
    if (!f.ok) return state.SkipWithError("no service");
    Value v("bench/async", 64);
    qel_hspace_put(f.handle, v.object, HSPACE_PUT_SYNC, 0);
    const long window = state.range(0);
    for (auto _ : state) {
        long target;
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            target = g_async_done + window;
        }
        for (long i = 0; i < window; i++)
            qel_hspace_get(f.handle, "bench/async", nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr);
        std::unique_lock<std::mutex> lock(g_mutex);
        g_cond.wait(lock, [&] { return g_async_done >= target; });
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * window);
}
BENCHMARK(BM_GetAsyncWindow)->Arg(16)->Arg(256)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
