/*
 * store.h - where hspaced keeps its objects: one small interface, with the
 * embedded in-memory store (memory_store.cpp) and the etcd store
 * (etcd_store.cpp) behind it. The protocol code talks only to Store.
 *
 * Threads: every call is made on the service's I/O thread, and every
 * completion and every call of the Listener runs on that thread too, either
 * inside the call (the memory store) or later through the I/O context (the
 * etcd store). Views handed to a completion or to the Listener are valid
 * only during that call.
 *
 * Revisions: each change has a revision, increasing in the order the store
 * applies changes. The Listener sees the changes in that order, each once.
 */
#ifndef HSPACE_SERVICE_STORE_H
#define HSPACE_SERVICE_STORE_H

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace asio {
class io_context;
}

namespace hspace {
namespace service {

struct Options;

// Statuses a store completes with (the client library's codes).
constexpr uint32_t kStatusNoMatch = 2;           // nothing stored under the key
constexpr uint32_t kStatusStoreUnavailable = 1101; // the store cannot be reached or failed; retry later
constexpr uint32_t kStatusStoreTimeout = 1102;   // the store did not answer within --store-timeout
constexpr uint32_t kStatusStoreTooLarge = 1103;  // the store refuses a value of this size

// Trigger values of changes; a post's mask selects them by these bits.
constexpr uint8_t kTriggerStored = 1;            // a put stored the key
constexpr uint8_t kTriggerRemoved = 2;           // a remove deleted the key
constexpr uint8_t kTriggerEnded = 4;             // the service ended the subscription (never masked)

// A value's bytes as a string that whoever holds this keeps valid: a store
// that can hand out its values so lets the service send them without a copy.
using SharedValue = std::shared_ptr<const std::string>;

struct ObjectView {
    std::string_view key;
    std::string_view value;                      // empty when key-only
    SharedValue shared = nullptr;                // value's bytes, kept valid by holding it; null: copy them
};

// Receives the change feed while it is followed. I/O thread.
class Listener {
public:
    virtual ~Listener() = default;
    // One change: value is null for a removal. shared, when not null, holds
    // value's bytes for as long as it is kept (see ObjectView).
    virtual void on_change(std::string_view key, uint8_t trigger, const std::string_view *value, int64_t revision,
                           const SharedValue &shared = nullptr) = 0;
    // The feed stopped for good: the store no longer holds the changes
    // after the last one delivered (etcd compacted them while the feed was
    // broken), so none after it will be seen until follow(true) starts it
    // again. why says so in a line fit for a client ("etcd compacted
    // revision N; the changes after R are lost"). A store that cannot be
    // reached does not end the feed: it resumes where it stopped.
    virtual void on_feed_ended(const std::string &why) = 0;
};

// How a store call ended: its status and, for a failure, the store's own
// words for it (for the log beside the status; empty otherwise). Converts
// from and to the bare status, so a completion that wants only the number
// takes a uint32_t.
struct StoreStatus {
    StoreStatus(uint32_t code = 0, std::string why = std::string()) : code(code), why(std::move(why)) {}
    operator uint32_t() const { return code; }
    uint32_t code;
    std::string why;
};

class Store {
public:
    using Done = std::function<void(const StoreStatus &status)>;
    // status, the revision the objects were read at, the objects in key order.
    using Read =
        std::function<void(const StoreStatus &status, int64_t revision, const std::vector<ObjectView> &objects)>;

    virtual ~Store() = default;

    // Stores or replaces the value under key. When the feed is followed,
    // done runs after the Listener has seen the change.
    virtual void put(std::string_view key, std::string_view value, Done done) = 0;
    // The same with a value the store may take over (it is left
    // unspecified): a large value moves from the request into the store
    // without a copy. By default a put of the bytes.
    virtual void put_owned(std::string_view key, std::string &&value, Done done) { put(key, value, std::move(done)); }
    // Deletes key; kStatusNoMatch when nothing was stored. When the feed is
    // followed, done runs after the Listener has seen the change.
    virtual void remove(std::string_view key, Done done) = 0;
    // The object under key, or under every key with the prefix of a
    // pattern (a key ending in '*'), in key order; values left empty when
    // key_only. kStatusNoMatch is never returned: an empty list is.
    virtual void read(std::string_view key, bool key_only, Read done) = 0;
    // Starts or stops the change feed. Changes before follow(true) are
    // not delivered.
    virtual void follow(bool on) = 0;
    // For a subscription's start: waits until the feed runs, then reads
    // like read() (no objects when with_objects is false) at a revision R
    // such that every change after R reaches the Listener and none up to R
    // still will. Requires follow(true).
    virtual void begin(std::string_view key, bool key_only, bool with_objects, Read done) = 0;
    // Ends every outstanding call (their completions run with
    // kStatusStoreUnavailable or not at all) and the feed; the I/O thread's
    // run() then returns once nothing else is pending. I/O thread.
    virtual void close() = 0;
    // "memory" or "etcd", for logs.
    virtual const char *kind() const = 0;
};

// The store named by options.store: "memory" (also an empty name) or
// "etcd://HOST:PORT[,HOST:PORT...]". Null, with the reason in *error, for
// any other name or an etcd address that does not resolve. Owning thread,
// before the I/O thread runs.
std::unique_ptr<Store> make_store(const Options &options, asio::io_context &io, Listener &listener, std::string *error);

std::unique_ptr<Store> make_memory_store(Listener &listener);
// Defined by etcd_store.cpp, or by etcd_store_absent.cpp in a build without
// gRPC (which refuses with a reason).
std::unique_ptr<Store> make_etcd_store(const Options &options, asio::io_context &io, Listener &listener,
                                       std::string *error);

// A key ending in '*' is a prefix pattern.
inline bool is_pattern(std::string_view key)
{
    return !key.empty() && key.back() == '*';
}

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_STORE_H */
