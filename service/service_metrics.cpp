/*
 * service_metrics.cpp - hspaced's metrics, registered (service_metrics.h).
 */
#include "service_metrics.h"

#include <time.h>

#include "hspace_codec.h"
#include "server.h"

namespace hspace {
namespace service {

namespace {

using metrics::Type;

const char *const kOpNames[ServiceMetrics::kOps] = {"put", "get", "post", "cancel", "remove", "other"};
const char *const kCallNames[] = {"put", "remove", "read", "begin"};
const char *const kRefusalNames[] = {"connection_limit", "no_descriptor", "identity"};

// Upper bounds of the latency buckets, in nanoseconds: 25 us to 10 s.
std::vector<uint64_t> latency_bounds()
{
    const uint64_t us = 1000, ms = 1000 * us, s = 1000 * ms;
    return {25 * us, 50 * us, 100 * us, 250 * us, 500 * us, 1 * ms,   2500 * us, 5 * ms,  10 * ms,
            25 * ms, 50 * ms, 100 * ms, 250 * ms, 500 * ms, 1 * s,    2500 * ms, 5 * s,   10 * s};
}

constexpr double kNanosecond = 1e-9;

double unix_now()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec / 1000000) / 1000.0;
}

} // namespace

const uint32_t ServiceMetrics::kStatusList[ServiceMetrics::kStatuses - 1] = {0,    2,    12,   14,   20,   1101,
                                                                               1102, 1103, 1104, 1105, 1106, 1107};

ServiceMetrics::ServiceMetrics(const Stats &stats, std::function<bool()> store_up)
    : notifications(registry_
                        .family("hspaced_notifications_total",
                                "Notifications of changes queued to subscribed connections.", Type::counter)
                        .counter()),
      received(registry_.family("hspaced_received_bytes_total", "Bytes read from clients.", Type::counter).counter()),
      sent(registry_.family("hspaced_sent_bytes_total", "Bytes written to clients.", Type::counter).counter()),
      subscriptions(registry_
                        .family("hspaced_subscriptions", "Subscriptions (posts) live now, of all connections.",
                                Type::gauge)
                        .gauge())
{
    static_assert(sizeof kCallNames / sizeof kCallNames[0] == static_cast<size_t>(StoreCall::count), "call names");
    static_assert(sizeof kRefusalNames / sizeof kRefusalNames[0] == static_cast<size_t>(Refusal::count),
                  "refusal names");
    registry_.family("hspaced_start_time_seconds", "When the service started, in seconds since the Unix epoch.",
                     Type::gauge)
        .reading({}, [start = unix_now()] { return start; });

    registry_.family("hspaced_connections_open", "Client connections open now.", Type::gauge)
        .reading({}, [&stats] { return static_cast<double>(stats.open.load(std::memory_order_relaxed)); });
    registry_.family("hspaced_connections_accepted_total", "Client connections accepted.", Type::counter)
        .reading({}, [&stats] { return static_cast<double>(stats.accepted.load(std::memory_order_relaxed)); });
    metrics::Family &refused = registry_.family(
        "hspaced_connections_refused_total",
        "Client connections turned away unserved, by reason: connection_limit (over the connection limit), "
        "no_descriptor (no file descriptor left), identity (a handshake the service refuses).",
        Type::counter, {"reason"});
    for (size_t i = 0; i < static_cast<size_t>(Refusal::count); i++) refused_[i] = &refused.counter({kRefusalNames[i]});
    metrics::Family &dropped = registry_.family(
        "hspaced_connections_dropped_total",
        "Client connections the service closed, by reason: invalid (an invalid packet or handshake, or a length "
        "no packet may have), slow (its unsent notifications over --max-queue), memory (the heaviest while over "
        "--max-memory), handshake_timeout (no handshake within --handshake-timeout), tls_handshake (its TLS handshake "
        "failed).",
        Type::counter, {"reason"});
    dropped.reading({"invalid"},
                    [&stats] { return static_cast<double>(stats.dropped_invalid.load(std::memory_order_relaxed)); });
    dropped.reading({"slow"},
                    [&stats] { return static_cast<double>(stats.dropped_slow.load(std::memory_order_relaxed)); });
    dropped.reading({"memory"},
                    [&stats] { return static_cast<double>(stats.dropped_memory.load(std::memory_order_relaxed)); });
    dropped.reading({"handshake_timeout"}, [&stats] {
        return static_cast<double>(stats.dropped_handshake.load(std::memory_order_relaxed));
    });
    dropped.reading({"tls_handshake"},
                    [&stats] { return static_cast<double>(stats.tls_refused.load(std::memory_order_relaxed)); });
    registry_
        .family("hspaced_connection_memory_bytes",
                "Bytes held for all connections now (read buffers, unsent packets), bounded by --max-memory.",
                Type::gauge)
        .reading({}, [&stats] { return static_cast<double>(stats.memory.load(std::memory_order_relaxed)); });
    registry_
        .family("hspaced_accept_pauses_total",
                "Times accepting failed and paused with backoff (out of file descriptors, for one).", Type::counter)
        .reading({}, [&stats] { return static_cast<double>(stats.accept_pauses.load(std::memory_order_relaxed)); });

    // Requests: a series per operation and status; those of a failure
    // status appear once counted.
    metrics::Family &requests =
        registry_.family("hspaced_requests_total",
                         "Requests served, by operation and status (the status answered: 0 success, 2 no match, "
                         "the client library's codes otherwise; other: any status not listed).",
                         Type::counter, {"op", "status"});
    metrics::Family &durations = registry_.family(
        "hspaced_request_duration_seconds",
        "Time from a request's decoding to its answer queued, the store's call included, by operation.",
        Type::histogram, {"op"});
    for (size_t op = 0; op < kOps; op++) {
        bool other = op == kOps - 1;
        for (size_t s = 0; s < kStatuses; s++) {
            std::string status = s + 1 < kStatuses ? std::to_string(kStatusList[s]) : "other";
            requests_[op][s] = &requests.counter({kOpNames[op], status}, other || s != 0);
        }
        durations_[op] = &durations.histogram({kOpNames[op]}, latency_bounds(), kNanosecond, other);
    }

    metrics::Family &store_durations =
        registry_.family("hspaced_store_call_duration_seconds",
                         "Time the store took to complete a call, by call (put, remove, read, begin: a "
                         "subscription's start); its _count is the number of calls.",
                         Type::histogram, {"call"});
    metrics::Family &store_errors =
        registry_.family("hspaced_store_errors_total",
                         "Store calls that failed, by call and status (1101 unavailable, 1102 timed out, 1103 "
                         "too large, 12 refused; other: any status not listed).",
                         Type::counter, {"call", "status"});
    for (size_t c = 0; c < static_cast<size_t>(StoreCall::count); c++) {
        store_durations_[c] = &store_durations.histogram({kCallNames[c]}, latency_bounds(), kNanosecond);
        for (size_t s = 0; s < kStatuses; s++) {
            std::string status = s + 1 < kStatuses ? std::to_string(kStatusList[s]) : "other";
            store_errors_[c][s] = &store_errors.counter({kCallNames[c], status}, true);
        }
    }
    registry_.family("hspaced_store_up", "1 while the store can be reached, else 0 (as GET /health says).",
                     Type::gauge)
        .reading({}, [up = std::move(store_up)] { return up() ? 1.0 : 0.0; });
}

size_t ServiceMetrics::op_index(uint8_t opcode)
{
    switch (opcode) {
    case codec::kOpPut:
        return 0;
    case codec::kOpGet:
        return 1;
    case codec::kOpPost:
        return 2;
    case codec::kOpCancel:
        return 3;
    case codec::kOpRemove:
        return 4;
    default:
        return kOps - 1;
    }
}

size_t ServiceMetrics::status_index(uint32_t status)
{
    for (size_t i = 0; i + 1 < kStatuses; i++)
        if (kStatusList[i] == status) return i;
    return kStatuses - 1;
}

uint64_t ServiceMetrics::requests() const
{
    uint64_t n = 0;
    for (size_t op = 0; op < kOps; op++)
        for (size_t s = 0; s < kStatuses; s++) n += requests_[op][s]->value();
    return n;
}

uint64_t ServiceMetrics::errors() const
{
    uint64_t n = 0;
    for (size_t op = 0; op < kOps; op++)
        for (size_t s = 0; s < kStatuses; s++)
            if (s + 1 == kStatuses || (kStatusList[s] != 0 && kStatusList[s] != kNoMatch))
                n += requests_[op][s]->value();
    return n;
}

} // namespace service
} // namespace hspace
