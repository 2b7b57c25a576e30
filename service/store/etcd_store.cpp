/*
 * etcd_store.cpp - the store in an etcd cluster, through etcd's v3 gRPC API.
 *
 * Mapping: put is Put, remove is DeleteRange (status 2 when it deleted
 * nothing), read is Range (a pattern is the range of its prefix, in key
 * order; key-only is keys_only). Every key is stored under the prefix of
 * Options::store_prefix. The change feed is one Watch of the whole prefix,
 * open while the service has subscriptions; begin() answers with a Range at
 * revision R once the Watch runs, so that the changes after R are exactly
 * the Watch's events after R.
 *
 * Threads: the calls are gRPC's callback API; gRPC runs their callbacks on
 * its own threads, which touch nothing but the call's own objects and post
 * the result to the I/O thread. Everything else runs on the I/O thread. A
 * work guard in every outstanding call keeps the I/O context running until
 * the call's result has been handled, so stop() waits for close()'s
 * cancellations to finish.
 *
 * Failures: each call waits at most Options::store_timeout_ms, also while
 * the channel reconnects (wait_for_ready), so a member's failover is waited
 * through. A call that fails completes with kStatusStoreUnavailable (or 12
 * when etcd refuses the request itself, e.g. a value over its request size
 * limit). A Watch that breaks is reopened from the revision after the last
 * one delivered; when that has not worked for store_timeout_ms, or etcd has
 * compacted that revision away, the feed ends (Listener::on_feed_ended).
 */
#include <netdb.h>
#include <stdio.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <asio.hpp>
#include <grpc/grpc.h>
#include <grpcpp/grpcpp.h>

#include "etcd.grpc.pb.h"
#include "server.h"
#include "store.h"

namespace hspace {
namespace service {

namespace {

namespace pb = etcdserverpb;
using Clock = std::chrono::steady_clock;
using Work = asio::executor_work_guard<asio::io_context::executor_type>;

constexpr uint32_t kStatusRefused = 12;        // etcd refused the request as such
constexpr std::chrono::milliseconds kFeedRetry{100}; // pause between two attempts to reopen the Watch
constexpr std::chrono::milliseconds kCallRetry{50};  // pause between two attempts of a call
constexpr std::chrono::milliseconds kAttempt{1000};  // bound of one attempt: about etcd's election timeout

// The first key after every key with the prefix ("\0" for all keys).
std::string range_end(const std::string &prefix)
{
    std::string end(prefix);
    while (!end.empty() && static_cast<unsigned char>(end.back()) == 0xFF) end.pop_back();
    if (end.empty()) return std::string(1, '\0');
    end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
    return end;
}

uint32_t status_of(const grpc::Status &s)
{
    switch (s.error_code()) {
    case grpc::StatusCode::OK:
        return 0;
    case grpc::StatusCode::INVALID_ARGUMENT:
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
    case grpc::StatusCode::OUT_OF_RANGE:
        return kStatusRefused;
    default:
        return kStatusStoreUnavailable;
    }
}

// "etcd://HOST:PORT[,HOST:PORT...]" as a gRPC target listing every member's
// address ("ipv4:A:P,A:P" or "ipv6:[A]:P,..."); empty, with *error set, when
// a member does not resolve or the members mix address families.
std::string grpc_target(const std::string &url, std::string *error)
{
    std::string list = url.substr(7), target;
    int family = 0;
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        std::string member = list.substr(start, comma - start);
        start = comma + 1;
        size_t colon = member.rfind(':');
        if (member.empty() || colon == std::string::npos || colon == 0 || colon + 1 == member.size()) {
            *error = "bad etcd member \"" + member + "\" in " + url + " (HOST:PORT)";
            return std::string();
        }
        std::string host = member.substr(0, colon), port = member.substr(colon + 1);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
        addrinfo hints{}, *res = nullptr;
        hints.ai_socktype = SOCK_STREAM;
        if (getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0 || res == nullptr) {
            *error = "cannot resolve etcd member " + member;
            return std::string();
        }
        char addr[NI_MAXHOST], serv[NI_MAXSERV];
        int rc = getnameinfo(res->ai_addr, res->ai_addrlen, addr, sizeof addr, serv, sizeof serv,
                             NI_NUMERICHOST | NI_NUMERICSERV);
        int f = res->ai_family;
        freeaddrinfo(res);
        if (rc != 0 || (family != 0 && f != family)) {
            *error = "etcd members must all be IPv4 or all IPv6: " + url;
            return std::string();
        }
        family = f;
        target += target.empty() ? (f == AF_INET6 ? "ipv6:" : "ipv4:") : ",";
        target += f == AF_INET6 ? "[" + std::string(addr) + "]:" + serv : std::string(addr) + ":" + serv;
    }
    return target;
}

class EtcdStore;

// The channel to the cluster at target, made on first use and kept for the
// life of the process, shared by every store of the process that names the
// same members. gRPC's threads go on touching a channel's connections for a
// while after its last call (reconnection backoff, keepalive, the tail of a
// completion), and a channel destroyed under them aborted the process now
// and then when a service was stopped and another started (the tests do);
// one channel per cluster, never destroyed, has no such window. The map is
// reachable until exit, so it is not a leak.
std::shared_ptr<grpc::Channel> channel_to(const std::string &target)
{
    static std::mutex mutex;
    static auto *const channels = new std::map<std::string, std::shared_ptr<grpc::Channel>>;
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<grpc::Channel> &channel = (*channels)[target];
    if (channel) return channel;
    grpc::ChannelArguments args;
    args.SetMaxReceiveMessageSize(-1);
    args.SetMaxSendMessageSize(-1);
    // Reconnect to a member that comes back within a fraction of a second,
    // not after gRPC's default backoff of up to two minutes.
    args.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
    args.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 100);
    args.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
    // A member that stops answering without closing is noticed.
    args.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
    args.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 5000);
    channel = grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), args);
    return channel;
}

// One unary call: its request, the response and context of its current
// attempt, and the guard that keeps the I/O context running until its
// result is handled. Shared by the gRPC callback and the posted handler.
template <class Request, class Response>
struct Call {
    Call(asio::io_context &io, Clock::time_point deadline) : work(io.get_executor()), timer(io), deadline(deadline) {}
    std::unique_ptr<grpc::ClientContext> ctx;
    Request req;
    Response resp;
    Work work;
    asio::steady_timer timer;                  // pause before the next attempt
    const Clock::time_point deadline;          // of the whole call
};

// The Watch stream of the feed. Deletes itself, on the I/O thread, after
// its end has been handled.
class Feed final : public grpc::ClientBidiReactor<pb::WatchRequest, pb::WatchResponse> {
public:
    Feed(EtcdStore &store, asio::io_context &io, uint64_t id) : store_(store), io_(io), work_(io.get_executor()), id(id)
    {
    }
    void start(pb::Watch::Stub &stub, const std::string &key, const std::string &end, int64_t start_revision);
    void cancel() { ctx_.TryCancel(); }

    // gRPC threads.
    void OnReadDone(bool ok) override;
    void OnDone(const grpc::Status &status) override;

private:
    EtcdStore &store_;
    asio::io_context &io_;
    Work work_;                                // released with the Feed
    grpc::ClientContext ctx_;
    pb::WatchRequest create_;                  // the one request written
    pb::WatchResponse resp_;                   // the response being read

public:
    const uint64_t id;                         // tells this Watch from its predecessors
};

class EtcdStore final : public Store {
public:
    EtcdStore(const Options &options, asio::io_context &io, Listener &listener, const std::string &target)
        : io_(io), listener_(listener), prefix_(options.store_prefix), prefix_end_(range_end(options.store_prefix)),
          timeout_(options.store_timeout_ms), log_(options.log), retry_timer_(io)
    {
        channel_ = channel_to(target);
        kv_ = pb::KV::NewStub(channel_);
        watch_ = pb::Watch::NewStub(channel_);
    }

    void put(std::string_view key, std::string_view value, Done done) override
    {
        auto call = new_call<pb::PutRequest, pb::PutResponse>();
        call->req.set_key(prefix_ + std::string(key));
        call->req.set_value(value.data(), value.size());
        attempt(call, [this](auto *ctx, auto *req, auto *resp, auto cb) { kv_->async()->Put(ctx, req, resp, std::move(cb)); }, [this, call, done](const grpc::Status &s) {
            if (!s.ok()) return failed("put", s, [&] { done(status_of(s)); });
            after_delivery(call->resp.header().revision(), [done] { done(0); });
        });
    }

    void remove(std::string_view key, Done done) override
    {
        auto call = new_call<pb::DeleteRangeRequest, pb::DeleteRangeResponse>();
        call->req.set_key(prefix_ + std::string(key));
        attempt(call, [this](auto *ctx, auto *req, auto *resp, auto cb) { kv_->async()->DeleteRange(ctx, req, resp, std::move(cb)); }, [this, call, done](const grpc::Status &s) {
            if (!s.ok()) return failed("remove", s, [&] { done(status_of(s)); });
            if (call->resp.deleted() == 0) return done(kStatusNoMatch);
            after_delivery(call->resp.header().revision(), [done] { done(0); });
        });
    }

    void read(std::string_view key, bool key_only, Read done) override { range(key, key_only, 0, std::move(done)); }

    // A Range of key (or of a pattern's prefix) as it was at revision, or
    // as it is now when revision is 0; done gets the revision read at.
    void range(std::string_view key, bool key_only, int64_t revision, Read done)
    {
        auto call = new_call<pb::RangeRequest, pb::RangeResponse>();
        call->req.set_revision(revision);
        if (is_pattern(key)) {
            std::string prefix = prefix_ + std::string(key.substr(0, key.size() - 1));
            call->req.set_range_end(range_end(prefix));
            call->req.set_key(std::move(prefix));
        } else {
            call->req.set_key(prefix_ + std::string(key));
        }
        call->req.set_keys_only(key_only);
        attempt(call, [this](auto *ctx, auto *req, auto *resp, auto cb) { kv_->async()->Range(ctx, req, resp, std::move(cb)); }, [this, call, done, revision](const grpc::Status &s) {
            if (!s.ok()) return failed("get", s, [&] { done(status_of(s), 0, {}); });
            std::vector<ObjectView> objects;
            objects.reserve(call->resp.kvs_size());
            for (const pb::KeyValue &kv : call->resp.kvs()) {
                std::string_view k(kv.key());
                if (k.compare(0, prefix_.size(), prefix_) != 0) continue;
                objects.push_back(ObjectView{k.substr(prefix_.size()), kv.value()});
            }
            done(0, revision != 0 ? revision : call->resp.header().revision(), objects);
        });
    }

    void follow(bool on) override
    {
        if (closed_ || on == want_) return;
        want_ = on;
        if (on) {
            failing_since_.reset();
            open_feed(0);
        } else {
            drop_feed();
            release_parked();
        }
    }

    void begin(std::string_view key, bool key_only, bool with_objects, Read done) override
    {
        if (closed_ || !want_) return done(kStatusStoreUnavailable, 0, {});
        if (!live_) {
            waiting_.push_back(Waiting{std::string(key), key_only, with_objects, std::move(done)});
            return;
        }
        // The image is read at the revision the feed has delivered, so that
        // the changes after it are exactly those the feed delivers next.
        if (!with_objects) return done(0, delivered_, {});
        range(key, key_only, delivered_, std::move(done));
    }

    void close() override
    {
        closed_ = true;
        want_ = false;
        for (grpc::ClientContext *ctx : calls_) ctx->TryCancel();
        drop_feed();
        release_parked();
        fail_waiting();
    }

    const char *kind() const override { return "etcd"; }

    // I/O thread: one response of the Watch with this id.
    void on_watch_response(uint64_t id, const pb::WatchResponse &r);
    // I/O thread: the Watch with this id ended.
    void on_watch_end(uint64_t id, const grpc::Status &s);

private:
    struct Waiting {                           // a begin() waiting for the feed to run
        std::string key;
        bool key_only;
        bool with_objects;
        Read done;
    };

    template <class Request, class Response>
    std::shared_ptr<Call<Request, Response>> new_call()
    {
        return std::make_shared<Call<Request, Response>>(io_, Clock::now() + timeout_);
    }

    // One attempt of call through method; done runs on the I/O thread with
    // the final status. An attempt that fails for want of a member with a
    // leader (UNAVAILABLE: its member is gone or has no leader; or no answer
    // within kAttempt: its member's leader is gone and not yet replaced) is
    // made again after a pause, until the call's deadline. A request under
    // way when its member died may have been applied, and is made again
    // all the same.
    template <class Request, class Response, class Method>
    void attempt(const std::shared_ptr<Call<Request, Response>> &call, Method method,
                 std::function<void(const grpc::Status &)> done)
    {
        call->ctx.reset(new grpc::ClientContext);
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(call->deadline - Clock::now());
        call->ctx->set_deadline(std::chrono::system_clock::now() + std::min(left, kAttempt));
        call->ctx->set_wait_for_ready(true);
        call->ctx->AddMetadata("hasleader", "true");
        calls_.insert(call->ctx.get());
        // gRPC destroys this callback on its own thread after running it, so
        // it hands the call and the completion (which may own the call too)
        // over to the I/O thread: the call's timer and context must die on
        // the thread that owns the I/O context, and never after it.
        auto *ctx = call->ctx.get();
        auto *req = &call->req;
        auto *resp = &call->resp;
        method(ctx, req, resp, std::function<void(grpc::Status)>([this, call, method, done](grpc::Status s) mutable {
                   asio::post(io_, [this, call = std::move(call), method, done = std::move(done), s] {
                       calls_.erase(call->ctx.get());
                       bool again = s.error_code() == grpc::StatusCode::UNAVAILABLE ||
                                    s.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
                       if (again && !closed_ && Clock::now() + kCallRetry < call->deadline) {
                           call->timer.expires_after(kCallRetry);
                           call->timer.async_wait([this, call, method, done](const asio::error_code &) {
                               if (!closed_) return attempt(call, method, done);
                               call->work.reset();
                               done(grpc::Status(grpc::StatusCode::CANCELLED, "store closed"));
                           });
                           return;
                       }
                       call->work.reset();
                       done(s);
                   });
               }));
    }

    template <class F>
    void failed(const char *what, const grpc::Status &s, F complete)
    {
        if (log_ && !closed_)
            fprintf(stderr, "hspaced: etcd %s failed: %s (%d)\n", what, s.error_message().c_str(),
                    static_cast<int>(s.error_code()));
        complete();
    }

    // Runs done once the feed has delivered revision, or at once when the
    // feed is not asked for (so a writer sees its own change notified
    // before its reply).
    void after_delivery(int64_t revision, std::function<void()> done)
    {
        if (!want_ || (live_ && revision <= delivered_)) return done();
        parked_.emplace(revision, std::move(done));
    }

    void release_parked(bool all = true)
    {
        while (!parked_.empty() && (all || parked_.begin()->first <= delivered_)) {
            auto done = std::move(parked_.begin()->second);
            parked_.erase(parked_.begin());
            done();
        }
    }

    void fail_waiting()
    {
        std::vector<Waiting> waiting(std::move(waiting_));
        waiting_.clear();
        for (Waiting &w : waiting) w.done(kStatusStoreUnavailable, 0, {});
    }

    // Opens a Watch of the prefix: from start_revision, or from now when 0.
    void open_feed(int64_t start_revision)
    {
        feed_ = new Feed(*this, io_, ++feed_ids_);
        live_ = false;
        resuming_ = start_revision != 0;
        feed_->start(*watch_, prefix_, prefix_end_, start_revision);
    }

    void drop_feed()
    {
        retry_timer_.cancel();
        if (feed_ != nullptr) feed_->cancel();
        feed_ = nullptr;
        live_ = false;
    }

    // Ends the feed for good and tells the listener.
    void end_feed(const std::string &why)
    {
        want_ = false;
        drop_feed();
        release_parked();
        fail_waiting();
        listener_.on_feed_ended(why);
    }

    asio::io_context &io_;
    Listener &listener_;
    const std::string prefix_;                 // every key is stored under it
    const std::string prefix_end_;             // the end of its range
    const std::chrono::milliseconds timeout_;  // bound of a call and of the feed's reconnection
    const bool log_;                           // failures on stderr
    std::shared_ptr<grpc::Channel> channel_;   // to the members, in turn; shared, see channel_to
    std::unique_ptr<pb::KV::Stub> kv_;
    std::unique_ptr<pb::Watch::Stub> watch_;
    std::set<grpc::ClientContext *> calls_;    // unary calls outstanding, cancelled by close()
    bool closed_ = false;                      // close() ran

    // The feed.
    bool want_ = false;                        // follow(true) is in force
    Feed *feed_ = nullptr;                     // the current Watch; it owns itself
    uint64_t feed_ids_ = 0;                    // id of the last Watch opened
    bool live_ = false;                        // the current Watch was created
    bool resuming_ = false;                    // it continues after delivered_
    int64_t delivered_ = 0;                    // every change up to this revision was delivered
    std::optional<Clock::time_point> failing_since_; // first failure of the current run of failures
    asio::steady_timer retry_timer_;           // pause before the Watch is reopened
    std::multimap<int64_t, std::function<void()>> parked_; // completions waiting for a revision's delivery
    std::vector<Waiting> waiting_;             // begin() calls waiting for the feed
};

void Feed::start(pb::Watch::Stub &stub, const std::string &key, const std::string &end, int64_t start_revision)
{
    pb::WatchCreateRequest *c = create_.mutable_create_request();
    c->set_key(key);
    c->set_range_end(end);
    c->set_start_revision(start_revision);
    // Ends the Watch when its member loses the cluster's leader, so that it
    // is reopened on a member that has one rather than going silent.
    ctx_.AddMetadata("hasleader", "true");
    stub.async()->Watch(&ctx_, this);
    StartWrite(&create_);
    StartRead(&resp_);
    StartCall();
}

void Feed::OnReadDone(bool ok)
{
    if (!ok) return; // OnDone follows
    // Posted before the next read starts: the next response's handler,
    // posted from whichever gRPC thread completes that read, comes after.
    auto r = std::make_shared<pb::WatchResponse>(std::move(resp_));
    resp_.Clear();
    asio::post(io_, [this, r] { store_.on_watch_response(id, *r); });
    StartRead(&resp_);
}

void Feed::OnDone(const grpc::Status &status)
{
    asio::post(io_, [this, status] {
        store_.on_watch_end(id, status);
        delete this;
    });
}

void EtcdStore::on_watch_response(uint64_t id, const pb::WatchResponse &r)
{
    if (feed_ == nullptr || id != feed_->id) return;
    if (r.compact_revision() != 0) {
        end_feed("etcd compacted the revisions after " + std::to_string(delivered_));
        return;
    }
    if (r.canceled()) {
        feed_->cancel(); // on_watch_end reopens it
        return;
    }
    if (r.created()) {
        if (!resuming_) delivered_ = r.header().revision();
        live_ = true;
        failing_since_.reset();
        std::vector<Waiting> waiting(std::move(waiting_));
        waiting_.clear();
        for (Waiting &w : waiting) begin(w.key, w.key_only, w.with_objects, std::move(w.done));
    }
    for (const pb::Event &e : r.events()) {
        const pb::KeyValue &kv = e.kv();
        std::string_view key(kv.key());
        if (kv.mod_revision() <= delivered_ || key.compare(0, prefix_.size(), prefix_) != 0) continue;
        delivered_ = kv.mod_revision();
        std::string_view value(kv.value());
        if (e.type() == pb::Event::DELETE)
            listener_.on_change(key.substr(prefix_.size()), kTriggerRemoved, nullptr, delivered_);
        else
            listener_.on_change(key.substr(prefix_.size()), kTriggerStored, &value, delivered_);
        if (feed_ == nullptr || id != feed_->id) return; // the listener stopped following
    }
    release_parked(false);
}

void EtcdStore::on_watch_end(uint64_t id, const grpc::Status &s)
{
    if (feed_ == nullptr || id != feed_->id) return; // dropped on purpose
    feed_ = nullptr;
    live_ = false;
    Clock::time_point now = Clock::now();
    if (!failing_since_) failing_since_ = now;
    if (closed_ || !want_) return;
    if (now - *failing_since_ >= timeout_) {
        end_feed("etcd watch failed for " + std::to_string(timeout_.count()) + " ms: " + s.error_message());
        return;
    }
    if (log_) fprintf(stderr, "hspaced: etcd watch ended (%s), reopening\n", s.error_message().c_str());
    retry_timer_.expires_after(kFeedRetry);
    retry_timer_.async_wait([this](const asio::error_code &ec) {
        if (ec || closed_ || !want_ || feed_ != nullptr) return;
        open_feed(delivered_ != 0 ? delivered_ + 1 : 0);
    });
}

} // namespace

std::unique_ptr<Store> make_etcd_store(const Options &options, asio::io_context &io, Listener &listener,
                                       std::string *error)
{
    std::string target = grpc_target(options.store, error);
    if (target.empty()) return nullptr;
    // gRPC tears its library down when its last channel goes, while its
    // threads may still be returning from our callbacks; a process that
    // starts a service again (the tests do) would then race that teardown.
    // One reference held for the life of the process keeps it initialised.
    static const bool grpc_kept = (grpc_init(), true);
    (void)grpc_kept;
    return std::unique_ptr<Store>(new EtcdStore(options, io, listener, target));
}

} // namespace service
} // namespace hspace
