/*
 * metrics.h - counters, gauges and histograms, and their exposition in the
 * Prometheus text format (version 0.0.4).
 *
 * Each metric family is registered once, by name, with its help text, its
 * type and the names of its labels; each of its series (one per set of
 * label values) is made at registration too, and the code that counts
 * keeps a reference to it. Counting is then one relaxed atomic operation
 * on that series: no lookup, lock, allocation or formatting. The text is
 * made when it is asked for (render()), from the atomics' values then.
 *
 *   Registry r;
 *   Family &f = r.family("app_requests_total", "Requests served.", Type::counter, {"op"});
 *   Counter &puts = f.counter({"put"});
 *   puts.inc();                                   // any thread
 *   std::string text = r.render();                // any thread
 *
 * Threads: families and series are added on one thread before any other
 * thread counts or renders (the registry is then frozen: adding aborts);
 * after that, counting and rendering are safe from any thread at once.
 * References to series stay valid for the registry's life.
 */
#ifndef HSPACE_SERVICE_METRICS_H
#define HSPACE_SERVICE_METRICS_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace hspace {
namespace service {
namespace metrics {

enum class Type { counter, gauge, histogram };

class Registry;

// One series of a family, as the exposition writes it.
class Series {
public:
    virtual ~Series() = default;
    // Appends the series' sample lines: name, then {labels} when labels is
    // not empty (labels is `a="x",b="y"`), then the value.
    virtual void render(std::string &out, const std::string &name, const std::string &labels) const = 0;
    // No sample was counted yet: the series is left out of the exposition
    // unless it was made to be always shown.
    virtual bool untouched() const = 0;
    bool always = true;                        // shown even while untouched
};

// A value that only goes up.
class Counter final : public Series {
public:
    void inc(uint64_t n = 1) { value_.fetch_add(n, std::memory_order_relaxed); }
    uint64_t value() const { return value_.load(std::memory_order_relaxed); }
    void render(std::string &out, const std::string &name, const std::string &labels) const override;
    bool untouched() const override { return value() == 0; }

private:
    std::atomic<uint64_t> value_{0};
};

// A value that goes up and down.
class Gauge final : public Series {
public:
    void set(int64_t v) { value_.store(v, std::memory_order_relaxed); }
    void add(int64_t n) { value_.fetch_add(n, std::memory_order_relaxed); }
    int64_t value() const { return value_.load(std::memory_order_relaxed); }
    void render(std::string &out, const std::string &name, const std::string &labels) const override;
    bool untouched() const override { return false; }

private:
    std::atomic<int64_t> value_{0};
};

// A counter or gauge whose value is read when rendered: from an atomic
// kept elsewhere, or computed by a function (which must be safe to call
// from whatever thread renders).
class Reading final : public Series {
public:
    explicit Reading(std::function<double()> read) : read_(std::move(read)) {}
    void render(std::string &out, const std::string &name, const std::string &labels) const override;
    bool untouched() const override { return false; }

private:
    std::function<double()> read_;
};

// Observations counted in buckets by upper bound. Values are integers in a
// unit of the caller's (nanoseconds, bytes); scale turns them into the
// exposition's unit (1e-9 for nanoseconds to seconds). The exposition's
// buckets are cumulative, end with +Inf, and _count is the +Inf bucket.
class Histogram final : public Series {
public:
    // bounds: increasing upper bounds, in the caller's unit.
    Histogram(std::vector<uint64_t> bounds, double scale);
    void observe(uint64_t v)
    {
        size_t i = 0;
        while (i < bounds_.size() && v > bounds_[i]) i++;
        buckets_[i].fetch_add(1, std::memory_order_relaxed);
        sum_.fetch_add(v, std::memory_order_relaxed);
    }
    uint64_t count() const;
    uint64_t sum() const { return sum_.load(std::memory_order_relaxed); }
    void render(std::string &out, const std::string &name, const std::string &labels) const override;
    bool untouched() const override { return count() == 0; }

private:
    // v in the exposition's unit: divided by 1/scale when that is a whole
    // number (1e9 for nanoseconds), so that 1040717706 ns reads 1.040717706
    // rather than the product's rounding noise.
    double scaled(uint64_t v) const
    {
        return divisor_ != 0 ? static_cast<double>(v) / divisor_ : static_cast<double>(v) * scale_;
    }

    const std::vector<uint64_t> bounds_;
    const double scale_;
    double divisor_ = 0;                       // round(1 / scale_) when scale_ < 1 and that is whole, else 0
    std::unique_ptr<std::atomic<uint64_t>[]> buckets_; // bounds_.size() + 1, the last one for +Inf; not cumulative
    std::atomic<uint64_t> sum_{0};
};

// A metric family: its name, help, type and label names, and its series.
class Family {
public:
    // A series with these label values (as many as the family's label
    // names). hidden: left out of the exposition until counted.
    Counter &counter(std::vector<std::string> values = {}, bool hidden = false);
    Gauge &gauge(std::vector<std::string> values = {});
    Histogram &histogram(std::vector<std::string> values, std::vector<uint64_t> bounds, double scale,
                         bool hidden = false);
    // A counter or gauge read when rendered.
    void reading(std::vector<std::string> values, std::function<double()> read);

    const std::string &name() const { return name_; }
    Type type() const { return type_; }

private:
    friend class Registry;
    Family(Registry &owner, std::string name, std::string help, Type type, std::vector<std::string> labels)
        : owner_(owner), name_(std::move(name)), help_(std::move(help)), type_(type), labels_(std::move(labels))
    {
    }
    template <class S> S &add(std::vector<std::string> values, std::unique_ptr<S> series, bool hidden);
    void render(std::string &out) const;

    Registry &owner_;
    const std::string name_;
    const std::string help_;
    const Type type_;
    const std::vector<std::string> labels_;
    struct Entry {
        std::string labels;                    // rendered: a="x",b="y"
        std::unique_ptr<Series> series;
    };
    std::vector<Entry> series_;
};

class Registry {
public:
    Registry() = default;
    Registry(const Registry &) = delete;
    Registry &operator=(const Registry &) = delete;

    // Registers a family. A name or label name that the format does not
    // allow, a name registered before, or a registration after the first
    // render() aborts: they are the program's defects.
    Family &family(std::string name, std::string help, Type type, std::vector<std::string> labels = {});

    // Every family, in the order of their names, in the text format.
    std::string render() const;

private:
    friend class Family;
    void check_open() const;

    std::vector<std::unique_ptr<Family>> families_;
    mutable std::atomic<bool> frozen_{false};  // render() ran
};

// Content-Type of render()'s text.
constexpr const char *kContentType = "text/plain; version=0.0.4; charset=utf-8";

// True when name is a metric name ([a-zA-Z_:][a-zA-Z0-9_:]*) or, when
// label, a label name ([a-zA-Z_][a-zA-Z0-9_]*, not starting with "__").
bool valid_name(const std::string &name, bool label = false);
// value as a label value between quotes: '\', '"' and newline escaped.
std::string quote_label(const std::string &value);

} // namespace metrics
} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_METRICS_H */
