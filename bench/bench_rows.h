/*
 * bench_rows.h - what the benchmark programs share: iteration scaling, wall
 * and CPU clocks, the median-of-batches loop, latency percentiles, a
 * process's memory from /proc and the tab-separated row that scripts/bench
 * collects. One program, one thread of the main loop; nothing here locks.
 */
#ifndef QEL_BENCH_ROWS_H
#define QEL_BENCH_ROWS_H

#include <stdio.h>
#include <sys/resource.h>
#include <sys/types.h>

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

inline double Median(std::vector<double> v)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

/* The latency distribution of single operations, in microseconds. */
struct Dist {
    double p50 = -1, p99 = -1, p999 = -1;
    bool empty() const { return p50 < 0; }
};

/* Nearest-rank percentiles of samples (sorted in place). */
inline Dist Percentiles(std::vector<double> &samples)
{
    Dist d;
    if (samples.empty()) return d;
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) {
        size_t i = static_cast<size_t>(q * static_cast<double>(samples.size()));
        return samples[std::min(i, samples.size() - 1)];
    };
    d.p50 = at(0.50);
    d.p99 = at(0.99);
    d.p999 = at(0.999);
    return d;
}

/* Runs op iters times in 9 batches; returns the median batch's mean
 * microseconds per op (robust to a busy machine's stalls) and the mean CPU
 * microseconds per op over all batches in *cpu_us. With samples, each op's
 * own microseconds are appended there too (a clock read per op, some tens
 * of nanoseconds). */
template <class Op> double MedianUs(long iters, Op op, double *cpu_us, std::vector<double> *samples = nullptr)
{
    const int batches = 9;
    long per = iters / batches > 0 ? iters / batches : 1;
    std::vector<double> us;
    double cpu0 = CpuSeconds();
    for (int b = 0; b < batches; b++) {
        Clock::time_point t0 = Clock::now();
        if (samples == nullptr) {
            for (long i = 0; i < per; i++) op();
        } else {
            Clock::time_point t = t0;
            for (long i = 0; i < per; i++) {
                op();
                Clock::time_point next = Clock::now();
                samples->push_back(std::chrono::duration<double, std::micro>(next - t).count());
                t = next;
            }
        }
        us.push_back(std::chrono::duration<double>(Clock::now() - t0).count() / per * 1e6);
    }
    *cpu_us = (CpuSeconds() - cpu0) / (per * batches) * 1e6;
    return Median(us);
}

/* Batches of one kind of operation, taken in turn with other kinds so that
 * a machine whose load drifts weighs on all alike: each batch's mean
 * microseconds per op, every op's own microseconds, and the CPU taken. */
struct Series {
    std::vector<double> batch_us, samples;
    double cpu_s = 0;
    long ops = 0;

    template <class Op> void Run(long per, Op op)
    {
        Meter m;
        Clock::time_point t = m.t0;
        for (long i = 0; i < per; i++) {
            op();
            Clock::time_point next = Clock::now();
            samples.push_back(std::chrono::duration<double, std::micro>(next - t).count());
            t = next;
        }
        batch_us.push_back(m.wall() / per * 1e6);
        cpu_s += m.cpu();
        ops += per;
    }
    double MedianUs() const { return Median(batch_us); }
    double CpuUs() const { return ops > 0 ? cpu_s / ops * 1e6 : 0; }
    Dist Distribution() { return Percentiles(samples); }
};

/* A line of /proc/PID/status in bytes ("VmRSS", "VmHWM"); 0 when absent. */
inline double StatusBytes(pid_t pid, const char *field)
{
    char path[64], line[256], name[32];
    snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
    FILE *f = fopen(path, "r");
    double kb = 0, found = 0;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
        if (sscanf(line, "%31[^:]: %lf kB", name, &kb) == 2 && std::string(name) == field) {
            found = kb;
            break;
        }
    }
    if (f != nullptr) fclose(f);
    return found * 1024;
}

/* One row on standard output:
 *   key section label value unit cpu_us_per_op ref_key goal [p50 p99 p99.9]
 * and a progress line on standard error. A row's ratio is value /
 * value(ref_key); goal is "<= x", ">= x" or "-" (without a ref_key the
 * goal bounds the value itself). The distribution, in microseconds, is
 * written only when given. */
inline void Row(const std::string &key, const std::string &section, const std::string &label, double value,
                const char *unit, double cpu_us, const std::string &ref = "-", const std::string &goal = "-",
                const Dist &dist = Dist())
{
    char cpu[32] = "-", tail[96] = "";
    if (cpu_us >= 0) snprintf(cpu, sizeof cpu, "%.2f", cpu_us);
    if (!dist.empty()) snprintf(tail, sizeof tail, "\t%.2f %.2f %.2f", dist.p50, dist.p99, dist.p999);
    printf("%s\t%s\t%s\t%.2f\t%s\t%s\t%s\t%s%s\n", key.c_str(), section.c_str(), label.c_str(), value, unit, cpu,
           ref.c_str(), goal.c_str(), tail);
    fflush(stdout);
    fprintf(stderr, "  %-44s %12.2f %-6s cpu %s us/op\n", label.c_str(), value, unit, cpu);
}

} // namespace bench

#endif /* QEL_BENCH_ROWS_H */
