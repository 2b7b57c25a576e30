/*
 * metrics.cpp - the metric registry and its text exposition (metrics.h).
 */
#include "metrics.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

namespace hspace {
namespace service {
namespace metrics {

namespace {

// Stops the program on a defect of its own metric definitions.
[[noreturn]] void defect(const std::string &what)
{
    fprintf(stderr, "hspaced metrics: %s\n", what.c_str());
    abort();
}

// The shortest text that reads back as v; NaN and the infinities as the
// format spells them.
std::string number(double v)
{
    if (isnan(v)) return "NaN";
    if (isinf(v)) return v > 0 ? "+Inf" : "-Inf";
    if (v == floor(v) && fabs(v) < 1e15) {
        char buf[32];
        snprintf(buf, sizeof buf, "%.0f", v);
        return buf;
    }
    char buf[40];
    for (int precision = 1; precision <= 17; precision++) {
        snprintf(buf, sizeof buf, "%.*g", precision, v);
        if (strtod(buf, nullptr) == v) break;
    }
    return buf;
}

void write_sample(std::string &out, const std::string &name, const char *suffix, const std::string &labels,
            const std::string &value)
{
    out += name;
    out += suffix;
    if (!labels.empty()) {
        out += '{';
        out += labels;
        out += '}';
    }
    out += ' ';
    out += value;
    out += '\n';
}

const char *type_text(Type type)
{
    switch (type) {
    case Type::counter:
        return "counter";
    case Type::gauge:
        return "gauge";
    case Type::histogram:
        return "histogram";
    }
    return "untyped";
}

// help as the format wants it on a HELP line: '\' and newline escaped.
std::string escape_help(const std::string &help)
{
    std::string out;
    for (char c : help) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

} // namespace

bool valid_name(const std::string &name, bool label)
{
    if (name.empty() || (label && name.compare(0, 2, "__") == 0)) return false;
    for (size_t i = 0; i < name.size(); i++) {
        char c = name[i];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (!label && c == ':') ||
                  (i > 0 && c >= '0' && c <= '9');
        if (!ok) return false;
    }
    return true;
}

std::string quote_label(const std::string &value)
{
    std::string out = "\"";
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    out += '"';
    return out;
}

void Counter::render(std::string &out, const std::string &name, const std::string &labels) const
{
    write_sample(out, name, "", labels, std::to_string(value()));
}

void Gauge::render(std::string &out, const std::string &name, const std::string &labels) const
{
    write_sample(out, name, "", labels, std::to_string(value()));
}

void Reading::render(std::string &out, const std::string &name, const std::string &labels) const
{
    write_sample(out, name, "", labels, number(read_()));
}

Histogram::Histogram(std::vector<uint64_t> bounds, double scale)
    : bounds_(std::move(bounds)), scale_(scale), buckets_(new std::atomic<uint64_t>[bounds_.size() + 1])
{
    for (size_t i = 0; i < bounds_.size(); i++)
        if (i > 0 && bounds_[i] <= bounds_[i - 1]) defect("histogram bounds must increase");
    for (size_t i = 0; i <= bounds_.size(); i++) buckets_[i].store(0, std::memory_order_relaxed);
    if (scale_ > 0 && scale_ < 1) {
        double d = round(1 / scale_);
        if (fabs(d * scale_ - 1) < 1e-12) divisor_ = d;
    }
}

uint64_t Histogram::count() const
{
    uint64_t n = 0;
    for (size_t i = 0; i <= bounds_.size(); i++) n += buckets_[i].load(std::memory_order_relaxed);
    return n;
}

void Histogram::render(std::string &out, const std::string &name, const std::string &labels) const
{
    // One reading of each bucket: the cumulative counts then never
    // decrease, and _count is the +Inf bucket, however observations race.
    std::string prefix = labels.empty() ? std::string() : labels + ",";
    uint64_t cumulative = 0;
    for (size_t i = 0; i <= bounds_.size(); i++) {
        cumulative += buckets_[i].load(std::memory_order_relaxed);
        std::string le = i < bounds_.size() ? number(scaled(bounds_[i])) : "+Inf";
        write_sample(out, name, "_bucket", prefix + "le=" + quote_label(le), std::to_string(cumulative));
    }
    write_sample(out, name, "_sum", labels, number(scaled(sum())));
    write_sample(out, name, "_count", labels, std::to_string(cumulative));
}

template <class S> S &Family::add(std::vector<std::string> values, std::unique_ptr<S> series, bool hidden)
{
    owner_.check_open();
    if (values.size() != labels_.size())
        defect(name_ + ": " + std::to_string(values.size()) + " label values for " + std::to_string(labels_.size()) +
               " labels");
    std::string labels;
    for (size_t i = 0; i < values.size(); i++) {
        if (i > 0) labels += ',';
        labels += labels_[i] + "=" + quote_label(values[i]);
    }
    for (const Entry &e : series_)
        if (e.labels == labels) defect(name_ + ": series {" + labels + "} made twice");
    S &ref = *series;
    ref.always = !hidden;
    series_.push_back(Entry{std::move(labels), std::move(series)});
    return ref;
}

Counter &Family::counter(std::vector<std::string> values, bool hidden)
{
    if (type_ != Type::counter) defect(name_ + " is not a counter");
    return add(std::move(values), std::unique_ptr<Counter>(new Counter), hidden);
}

Gauge &Family::gauge(std::vector<std::string> values)
{
    if (type_ != Type::gauge) defect(name_ + " is not a gauge");
    return add(std::move(values), std::unique_ptr<Gauge>(new Gauge), false);
}

Histogram &Family::histogram(std::vector<std::string> values, std::vector<uint64_t> bounds, double scale,
                             bool hidden)
{
    if (type_ != Type::histogram) defect(name_ + " is not a histogram");
    for (const std::string &l : labels_)
        if (l == "le") defect(name_ + ": a histogram's label cannot be le");
    return add(std::move(values), std::unique_ptr<Histogram>(new Histogram(std::move(bounds), scale)), hidden);
}

void Family::reading(std::vector<std::string> values, std::function<double()> read)
{
    if (type_ == Type::histogram) defect(name_ + " is a histogram");
    add(std::move(values), std::unique_ptr<Reading>(new Reading(std::move(read))), false);
}

void Family::render(std::string &out) const
{
    out += "# HELP " + name_ + " " + escape_help(help_) + "\n";
    out += "# TYPE " + name_ + " " + type_text(type_) + "\n";
    for (const Entry &e : series_)
        if (e.series->always || !e.series->untouched()) e.series->render(out, name_, e.labels);
}

void Registry::check_open() const
{
    if (frozen_.load(std::memory_order_relaxed)) defect("a metric registered after the first exposition");
}

Family &Registry::family(std::string name, std::string help, Type type, std::vector<std::string> labels)
{
    check_open();
    if (!valid_name(name)) defect("\"" + name + "\" is not a metric name");
    for (const std::string &l : labels)
        if (!valid_name(l, true)) defect(name + ": \"" + l + "\" is not a label name");
    for (const auto &f : families_) {
        // A histogram's family also names its _bucket, _sum and _count.
        const std::string &n = f->name_;
        if (n == name || (f->type_ == Type::histogram &&
                          (name == n + "_bucket" || name == n + "_sum" || name == n + "_count")))
            defect("metric " + name + " registered twice");
    }
    families_.push_back(std::unique_ptr<Family>(
        new Family(*this, std::move(name), std::move(help), type, std::move(labels))));
    return *families_.back();
}

std::string Registry::render() const
{
    frozen_.store(true, std::memory_order_relaxed);
    std::vector<const Family *> sorted;
    for (const auto &f : families_) sorted.push_back(f.get());
    std::sort(sorted.begin(), sorted.end(), [](const Family *a, const Family *b) { return a->name_ < b->name_; });
    std::string out;
    out.reserve(8192);
    for (const Family *f : sorted) f->render(out);
    return out;
}

} // namespace metrics
} // namespace service
} // namespace hspace
