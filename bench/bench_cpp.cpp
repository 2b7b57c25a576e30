/*
 * bench_cpp.cpp - the C++ API's synchronous get against the C one, in the
 * same run, against hspaced in-process on loopback: the same key and value
 * size, rounds interleaved (C, C++, C, C++, ...) so that drift of the
 * machine hits both alike. Prints per-round medians of each and the ratio.
 *
 *   bench_cpp [ROUNDS] [GETS_PER_ROUND] [VALUE_BYTES]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "qel_hspace.h"
#include "qel_hspace.hpp"
#include "server.h"

namespace {

using Clock = std::chrono::steady_clock;

void on_event(t_qel_hspace, t_qel_hspace_event, t_kro_ptr) {}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    int rounds = argc > 1 ? atoi(argv[1]) : 21;
    int gets = argc > 2 ? atoi(argv[2]) : 2000;
    size_t value_bytes = argc > 3 ? strtoul(argv[3], nullptr, 10) : 100;
    hspace::service::Server server;
    std::string error;
    if (!server.start(&error)) {
        fprintf(stderr, "bench_cpp: hspaced: %s\n", error.c_str());
        return 1;
    }
    const std::string url = server.url();
    const char *key = "bench/key";

    qel::hspace::Client cpp(url);
    cpp.open();
    cpp.put(key, std::string(value_bytes, 'v'));

    qel_hspace_create_data cd = {url.c_str(), "bench", nullptr};
    t_qel_hspace h = nullptr;
    if (qel_hspace_create(&cd, on_event, &h) != 0 || qel_hspace_open(h) != 0) {
        fprintf(stderr, "bench_cpp: cannot open the C handle\n");
        return 1;
    }

    // One round: gets synchronous gets, each freeing what it got, as an
    // application would. Returns microseconds per get.
    auto c_round = [&] {
        auto t0 = Clock::now();
        for (int i = 0; i < gets; i++) {
            t_kro_llist list;
            kro_llist_create(&list);
            if (qel_hspace_get(h, key, nullptr, HSPACE_GET_SYNC, 0, 0, list) != 0) abort();
            t_qel_hspace_object o;
            while ((o = static_cast<t_qel_hspace_object>(kro_llist_first(list))) != nullptr) {
                kro_llist_remove(o);
                qel_hspace_object_destroy(&o);
            }
            kro_llist_destroy(&list);
        }
        return std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / gets;
    };
    auto cpp_round = [&] {
        auto t0 = Clock::now();
        std::error_code ec;
        for (int i = 0; i < gets; i++) {
            qel::hspace::Objects objects = cpp.get(key, ec);
            if (ec || objects.size() != 1) abort();
        }
        return std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / gets;
    };

    c_round(); // warm-up
    cpp_round();
    std::vector<double> c_us, cpp_us, ratios;
    for (int r = 0; r < rounds; r++) {
        double a = c_round(), b = cpp_round();
        c_us.push_back(a);
        cpp_us.push_back(b);
        ratios.push_back(b / a);
    }
    printf("synchronous get of one %zu-byte object, %d rounds x %d gets, interleaved\n", value_bytes, rounds, gets);
    printf("%-10s %14s\n", "api", "us/get (median)");
    printf("%-10s %14.2f\n", "C", median(c_us));
    printf("%-10s %14.2f\n", "C++", median(cpp_us));
    printf("%-10s %14.3f  (C++ / C, median of per-round ratios)\n", "ratio", median(ratios));

    qel_hspace_close(h);
    qel_hspace_destroy(&h);
    return 0;
}
