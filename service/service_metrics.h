/*
 * service_metrics.h - what hspaced counts, as Prometheus metrics
 * (metrics.h): connections, requests and their latency, subscriptions and
 * notifications, bytes, store calls. Every series is made when the service
 * is made; the I/O thread counts into them (one relaxed atomic operation a
 * count), the HTTP endpoint's thread renders them.
 *
 * The connection counters the service keeps in Stats (server.h) are read
 * from there when rendered, so nothing counts them twice.
 */
#ifndef HSPACE_SERVICE_SERVICE_METRICS_H
#define HSPACE_SERVICE_SERVICE_METRICS_H

#include <stdint.h>

#include <functional>
#include <string>

#include "metrics.h"

namespace hspace {
namespace service {

struct Stats;

// The store's calls, as the store interface names them (store.h).
enum class StoreCall : uint8_t { put, remove, read, begin, count };

// Why a connection was turned away before it was served.
enum class Refusal : uint8_t {
    connection_limit, // over the limit of connections served at once (answered 1107)
    no_descriptor,    // the process had no file descriptor left
    identity,         // its handshake claimed an identity the service refuses (answered 1105)
    count
};

class ServiceMetrics {
    metrics::Registry registry_;               // first: the references below point into it

public:
    // stats: the service's, read when rendering; store_up: whether the
    // store can be reached, called from the rendering thread. Both outlive
    // this object.
    ServiceMetrics(const Stats &stats, std::function<bool()> store_up);
    ServiceMetrics(const ServiceMetrics &) = delete;
    ServiceMetrics &operator=(const ServiceMetrics &) = delete;

    // A request of this opcode (codec's kOp*, any other counts as "other")
    // was answered with status (or would have been, if it asks for no
    // answer), ns nanoseconds after it was decoded.
    void request(uint8_t opcode, uint32_t status, uint64_t ns)
    {
        size_t op = op_index(opcode);
        requests_[op][status_index(status)]->inc();
        durations_[op]->observe(ns);
    }
    // A store call completed with status after ns nanoseconds.
    void store_call(StoreCall call, uint32_t status, uint64_t ns)
    {
        size_t c = static_cast<size_t>(call);
        store_durations_[c]->observe(ns);
        if (status != 0 && !(status == kNoMatch && call == StoreCall::remove))
            store_errors_[c][status_index(status)]->inc();
    }
    // A connection was refused.
    void refused(Refusal why) { refused_[static_cast<size_t>(why)]->inc(); }

    metrics::Counter &notifications;           // notifications queued to connections
    metrics::Counter &received;                // bytes read from clients
    metrics::Counter &sent;                    // bytes written to clients
    metrics::Gauge &subscriptions;             // subscriptions live now, of all connections

    // Requests counted so far, and those answered with a status other
    // than 0 and 2 (no match): for the summary at stop.
    uint64_t requests() const;
    uint64_t errors() const;

    // The exposition of every metric.
    std::string render() const { return registry_.render(); }

    static constexpr size_t kOps = 6;          // put, get, post, cancel, remove, other
    static constexpr size_t kStatuses = 13;    // the statuses below and "other"
    static const uint32_t kStatusList[kStatuses - 1];

private:
    static constexpr uint32_t kNoMatch = 2;
    static size_t op_index(uint8_t opcode);
    static size_t status_index(uint32_t status);

    metrics::Counter *requests_[kOps][kStatuses];
    metrics::Histogram *durations_[kOps];
    metrics::Histogram *store_durations_[static_cast<size_t>(StoreCall::count)];
    metrics::Counter *store_errors_[static_cast<size_t>(StoreCall::count)][kStatuses];
    metrics::Counter *refused_[static_cast<size_t>(Refusal::count)];
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_SERVICE_METRICS_H */
