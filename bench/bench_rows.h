/*
 * bench_rows.h - what the benchmark programs share: iteration scaling, wall
 * and CPU clocks, the median-of-batches loop and the tab-separated row that
 * scripts/bench collects. One program, one thread of the main loop; nothing
 * here locks.
 */
#ifndef QEL_BENCH_ROWS_H
#define QEL_BENCH_ROWS_H

#include <stdio.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double g_scale = 1.0; // iteration multiplier (--quick: 0.1)

inline long Iters(long n)
{
    long v = static_cast<long>(n * g_scale);
    return v < 10 ? 10 : v;
}

inline double CpuSeconds()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

/* Wall and CPU time of a stretch of work. */
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

inline void Row(const std::string &key, const std::string &section, const std::string &label, double value,
         const char *unit, double cpu_us, const std::string &ref = "-", const std::string &goal = "-")
{
    char cpu[32] = "-";
    if (cpu_us >= 0) snprintf(cpu, sizeof cpu, "%.2f", cpu_us);
    printf("%s\t%s\t%s\t%.2f\t%s\t%s\t%s\t%s\n", key.c_str(), section.c_str(), label.c_str(), value, unit, cpu,
           ref.c_str(), goal.c_str());
    fflush(stdout);
    fprintf(stderr, "  %-44s %12.2f %-6s cpu %s us/op\n", label.c_str(), value, unit, cpu);
}

} // namespace bench

#endif /* QEL_BENCH_ROWS_H */
