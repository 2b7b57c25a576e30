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
 * Members: one gRPC channel per member of the URL, so that each member's
 * TLS certificate is checked against that member's own name. Calls go to
 * the current member while its link is up; when it fails (no link, no
 * leader, no answer within an attempt's bound) the next one becomes
 * current. A member whose link is down is reconnected at once when a call
 * needs it, rather than after gRPC's growing backoff, so the first call
 * after etcd comes back is served however long it was away.
 *
 * Threads: the calls are gRPC's callback API; gRPC runs their callbacks on
 * its own threads, which touch nothing but the call's own objects and post
 * the result to the I/O thread. Everything else runs on the I/O thread. A
 * work guard in every outstanding call keeps the I/O context running until
 * the call's result has been handled, so stop() waits for close()'s
 * cancellations to finish.
 *
 * Failures: each call is bounded by Options::store_timeout_ms and tried
 * again on the next member until then; it completes with 1101 when no
 * member could be reached or served it, 1102 when a reached member did not
 * answer in time, 1103 when etcd refuses the request's size, 12 for another
 * refusal, with etcd's own words beside the status. The Watch, when it
 * breaks, is reopened from the revision after the last one delivered, for
 * as long as it takes: the feed ends only when etcd has compacted that
 * revision away (Listener::on_feed_ended, with the cause).
 */
#include <errno.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
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
using std::chrono::milliseconds;

constexpr uint32_t kStatusRefused = 12;        // etcd refused the request as such
constexpr milliseconds kCallRetry{50};         // pause between two attempts of a call
constexpr milliseconds kAttempt{1000};         // bound of an attempt on a linked member: about an election
constexpr milliseconds kLinkWait{250};         // bound of an attempt that must first link its member
constexpr milliseconds kFeedRetryFirst{50};    // first pause before the Watch is reopened, doubled each time
constexpr milliseconds kFeedRetryMost{1000};   // up to this
constexpr milliseconds kNudgeEvery{50};        // a member's link is restarted at most this often
constexpr milliseconds kDeliveryGrace{100};    // least wait for the Watch to deliver a change made

// The first key after every key with the prefix ("\0" for all keys).
std::string range_end(const std::string &prefix)
{
    std::string end(prefix);
    while (!end.empty() && static_cast<unsigned char>(end.back()) == 0xFF) end.pop_back();
    if (end.empty()) return std::string(1, '\0');
    end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
    return end;
}

bool contains(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
}

// etcd's refusal of a request over its --max-request-bytes: its own
// ("etcdserver: request is too large", INVALID_ARGUMENT) or its gRPC
// server's ("grpc: received message larger than max", RESOURCE_EXHAUSTED).
bool too_large(const grpc::Status &s)
{
    return (s.error_code() == grpc::StatusCode::INVALID_ARGUMENT ||
            s.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED) &&
           (contains(s.error_message(), "too large") || contains(s.error_message(), "larger than max"));
}

// etcd no longer takes the token: it expired, or the users changed since.
bool token_refused(const grpc::Status &s)
{
    return s.error_code() == grpc::StatusCode::UNAUTHENTICATED || contains(s.error_message(), "invalid auth token") ||
           contains(s.error_message(), "auth store is old");
}

// A member of the URL: as given, and as a gRPC target of its numeric address.
struct Address {
    std::string host;                          // as given, without brackets
    std::string given;                         // HOST:PORT as given
    std::string target;                        // "ipv4:A:P" or "ipv6:[A]:P"
};

// "etcd://HOST:PORT[,HOST:PORT...]" as its members; empty, with *error set,
// when one is malformed or does not resolve.
std::vector<Address> members_of(const std::string &url, std::string *error)
{
    std::vector<Address> out;
    std::string list = url.substr(7);
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        std::string member = list.substr(start, comma - start);
        start = comma + 1;
        size_t colon = member.rfind(':');
        if (member.empty() || colon == std::string::npos || colon == 0 || colon + 1 == member.size()) {
            *error = "bad etcd member \"" + member + "\" in " + url + " (HOST:PORT)";
            return {};
        }
        std::string host = member.substr(0, colon), port = member.substr(colon + 1);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
        addrinfo hints{}, *res = nullptr;
        hints.ai_socktype = SOCK_STREAM;
        if (getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0 || res == nullptr) {
            *error = "cannot resolve etcd member " + member;
            return {};
        }
        char addr[NI_MAXHOST], serv[NI_MAXSERV];
        int rc = getnameinfo(res->ai_addr, res->ai_addrlen, addr, sizeof addr, serv, sizeof serv,
                             NI_NUMERICHOST | NI_NUMERICSERV);
        bool v6 = res->ai_family == AF_INET6;
        freeaddrinfo(res);
        if (rc != 0) {
            *error = "cannot resolve etcd member " + member;
            return {};
        }
        out.push_back(Address{host, member, v6 ? "ipv6:[" + std::string(addr) + "]:" + serv
                                                : "ipv4:" + std::string(addr) + ":" + serv});
    }
    return out;
}

// The whole of a file named by option into *out; false, with *error set,
// when it cannot be read.
bool read_file(const std::string &path, const char *option, std::string *out, std::string *error)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    if (!in || in.bad()) {
        *error = std::string("cannot read ") + option + " " + path + ": " + strerror(errno);
        return false;
    }
    *out = text.str();
    return true;
}

// What a channel is made of, beside its target: TLS or not, and with what.
struct Link {
    bool tls = false;
    std::string cacert, cert, key;             // PEM contents
};

// The channel to the member at address, made on first use and kept for the
// life of the process, shared by every store of the process that names the
// same member the same way. gRPC's threads go on touching a channel's
// connections for a while after its last call (reconnection backoff,
// keepalive, the tail of a completion), and a channel destroyed under them
// aborted the process now and then when a service was stopped and another
// started (the tests do); one channel per member, never destroyed, has no
// such window. The map is reachable until exit, so it is not a leak.
std::shared_ptr<grpc::Channel> channel_to(const Address &address, const Link &link)
{
    static std::mutex mutex;
    static auto *const channels = new std::map<std::string, std::shared_ptr<grpc::Channel>>;
    std::string id = address.target;
    if (link.tls) id += '\n' + address.host + '\n' + link.cacert + '\n' + link.cert + '\n' + link.key;
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<grpc::Channel> &channel = (*channels)[id];
    if (channel) return channel;
    grpc::ChannelArguments args;
    args.SetMaxReceiveMessageSize(-1);
    args.SetMaxSendMessageSize(-1);
    // A lost link is tried again within a second, not after gRPC's default
    // backoff of up to two minutes (and at once when a call needs it: see
    // EtcdStore::pick). An attempt to link may take 2 s (a TLS handshake on
    // a loaded machine) before it counts as failed.
    args.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
    args.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
    args.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 2000);
    // A member that stops answering without closing is noticed.
    args.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
    args.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 5000);
    std::shared_ptr<grpc::ChannelCredentials> credentials = grpc::InsecureChannelCredentials();
    if (link.tls) {
        // The member's certificate must name the member as the URL does.
        args.SetSslTargetNameOverride(address.host);
        grpc::SslCredentialsOptions ssl;
        ssl.pem_root_certs = link.cacert;
        ssl.pem_private_key = link.key;
        ssl.pem_cert_chain = link.cert;
        credentials = grpc::SslCredentials(ssl);
    }
    channel = grpc::CreateCustomChannel(address.target, credentials, args);
    return channel;
}

// A member and its stubs.
struct Member {
    std::string name;                          // HOST:PORT as given, for messages
    std::shared_ptr<grpc::Channel> channel;    // shared, see channel_to
    std::unique_ptr<pb::KV::Stub> kv;
    std::unique_ptr<pb::Watch::Stub> watch;
    std::unique_ptr<pb::Auth::Stub> auth;
    Clock::time_point nudged{};                // its link was last restarted (I/O thread)
};

// One unary call: its request, the response and context of its current
// attempt, its completion, and the guard that keeps the I/O context
// running until its result is handled. I/O thread only; gRPC has pointers
// into it while an attempt runs, and the store keeps it alive meanwhile.
template <class Request, class Response>
struct Call {
    Call(asio::io_context &io, Clock::time_point deadline) : work(io.get_executor()), timer(io), deadline(deadline) {}
    std::unique_ptr<grpc::ClientContext> ctx;
    Request req;
    Response resp;
    Work work;
    asio::steady_timer timer;                  // pause before the next attempt
    const Clock::time_point deadline;          // of the whole call
    size_t member = 0;                         // of the current attempt
    bool linked = false;                       // its member's link was up (when it began, then when it ended)
    bool login = false;                        // the call is the login itself: no token
    bool renewed = false;                      // the token was renewed for this call once
    std::string trouble;                       // why an earlier attempt failed
    // Starts an attempt on a member, with gRPC's callback.
    std::function<void(Member &, grpc::ClientContext *, Request *, Response *, std::function<void(grpc::Status)>)>
        method;
    std::function<void(const StoreStatus &)> done; // the completion, until it runs
};

class EtcdStore;

// The Watch stream of the feed. Deletes itself, on the I/O thread, after
// its end has been handled.
class Feed final : public grpc::ClientBidiReactor<pb::WatchRequest, pb::WatchResponse> {
public:
    Feed(EtcdStore &store, asio::io_context &io, uint64_t id, size_t member)
        : store_(store), io_(io), work_(io.get_executor()), id(id), member(member)
    {
    }
    void start(Member &m, const std::string &token, const std::string &key, const std::string &end,
               int64_t start_revision);
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
    const size_t member;                       // the member it runs on
};

class EtcdStore final : public Store {
public:
    EtcdStore(const Options &options, asio::io_context &io, Listener &listener, std::vector<Member> members,
              std::string password, std::string token)
        : io_(io), listener_(listener), members_(std::move(members)), prefix_(options.store_prefix),
          prefix_end_(range_end(options.store_prefix)), timeout_(options.store_timeout_ms), log_(options.log),
          user_(options.store_user), password_(std::move(password)), token_(std::move(token)), retry_timer_(io),
          sweep_timer_(io)
    {
    }

    void put(std::string_view key, std::string_view value, Done done) override
    {
        auto call = new_call<pb::PutRequest, pb::PutResponse>();
        call->req.set_key(prefix_ + std::string(key));
        call->req.set_value(value.data(), value.size());
        start(
            call, [](Member &m, auto *ctx, auto *req, auto *resp, auto cb) { m.kv->async()->Put(ctx, req, resp, cb); },
            [this, call, done](const StoreStatus &s) {
                if (s.code != 0) return failed("put", s, [&] { done(s); });
                after_delivery(call->resp.header().revision(), call->deadline, [done] { done(0); });
            });
    }

    void remove(std::string_view key, Done done) override
    {
        auto call = new_call<pb::DeleteRangeRequest, pb::DeleteRangeResponse>();
        call->req.set_key(prefix_ + std::string(key));
        start(
            call,
            [](Member &m, auto *ctx, auto *req, auto *resp, auto cb) {
                m.kv->async()->DeleteRange(ctx, req, resp, cb);
            },
            [this, call, done](const StoreStatus &s) {
                if (s.code != 0) return failed("remove", s, [&] { done(s); });
                if (call->resp.deleted() == 0) return done(kStatusNoMatch);
                after_delivery(call->resp.header().revision(), call->deadline, [done] { done(0); });
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
        start(
            call,
            [](Member &m, auto *ctx, auto *req, auto *resp, auto cb) { m.kv->async()->Range(ctx, req, resp, cb); },
            [this, call, done, revision](const StoreStatus &s) {
                if (s.code != 0) return failed("get", s, [&] { done(s, 0, {}); });
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
            feed_pause_ = kFeedRetryFirst;
            open_feed(0);
        } else {
            drop_feed();
            release_parked();
        }
    }

    void begin(std::string_view key, bool key_only, bool with_objects, Read done) override
    {
        if (closed_ || !want_) return done(StoreStatus(kStatusStoreUnavailable, "the store is closing"), 0, {});
        if (!live_) {
            Clock::time_point deadline = Clock::now() + timeout_;
            waiting_.push_back(Waiting{std::string(key), key_only, with_objects, deadline, std::move(done)});
            arm_sweep(deadline);
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
        for (auto &c : calls_) c.first->TryCancel();
        drop_feed();
        sweep_timer_.cancel();
        release_parked();
        fail_waiting(StoreStatus(kStatusStoreUnavailable, "the store is closing"));
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
        Clock::time_point deadline;            // answered with a failure then
        Read done;
    };
    struct Parked {                            // a completion waiting for its revision's delivery
        Clock::time_point deadline;            // run anyway then
        std::function<void()> done;
    };

    template <class Request, class Response>
    std::shared_ptr<Call<Request, Response>> new_call()
    {
        return std::make_shared<Call<Request, Response>>(io_, Clock::now() + timeout_);
    }

    // The member for the next attempt: the current one if its link is up,
    // else the next one whose link is, else the current one. When none is
    // linked, every member whose link is down is linked again now rather
    // than after its backoff, so that a cluster that has come back serves
    // this very call.
    size_t pick()
    {
        size_t n = members_.size();
        for (size_t k = 0; k < n; k++) {
            size_t j = (current_ + k) % n;
            if (members_[j].channel->GetState(true) == GRPC_CHANNEL_READY) return current_ = j;
        }
        Clock::time_point now = Clock::now();
        for (Member &m : members_) {
            if (m.channel->GetState(false) != GRPC_CHANNEL_TRANSIENT_FAILURE || now - m.nudged < kNudgeEvery)
                continue;
            m.nudged = now;
            grpc::experimental::ChannelResetConnectionBackoff(m.channel.get());
        }
        return current_;
    }

    // The member failed a call or the Watch: the next one becomes current.
    void member_failed(size_t member)
    {
        if (member == current_) current_ = (current_ + 1) % members_.size();
    }

    // How a call that ended with s is answered.
    StoreStatus status_of(const grpc::Status &s, bool linked, const std::string &trouble) const
    {
        std::string text = s.error_message();
        switch (s.error_code()) {
        case grpc::StatusCode::OK:
            return StoreStatus(0);
        case grpc::StatusCode::DEADLINE_EXCEEDED:
            if (linked)
                return StoreStatus(kStatusStoreTimeout, "etcd did not answer within " +
                                                            std::to_string(timeout_.count()) + " ms" +
                                                            (trouble.empty() ? "" : " (before: " + trouble + ")"));
            return StoreStatus(kStatusStoreUnavailable,
                               "no etcd member reachable within " + std::to_string(timeout_.count()) + " ms" +
                                   (trouble.empty() ? "" : ": " + trouble));
        case grpc::StatusCode::INVALID_ARGUMENT:
        case grpc::StatusCode::OUT_OF_RANGE:
        case grpc::StatusCode::FAILED_PRECONDITION:
        case grpc::StatusCode::RESOURCE_EXHAUSTED:
            if (too_large(s)) return StoreStatus(kStatusStoreTooLarge, text);
            if (s.error_code() != grpc::StatusCode::RESOURCE_EXHAUSTED) return StoreStatus(kStatusRefused, text);
            return StoreStatus(kStatusStoreUnavailable, text); // too many requests, no space left
        default:
            return StoreStatus(kStatusStoreUnavailable, text.empty() ? "etcd call ended" : text);
        }
    }

    // Starts call: its attempts through method, then done on the I/O
    // thread with the final status.
    template <class Request, class Response, class Method>
    void start(const std::shared_ptr<Call<Request, Response>> &call, Method method,
               std::function<void(const StoreStatus &)> done)
    {
        call->method = method;
        call->done = std::move(done);
        attempt(call);
    }

    // One attempt of call on the member pick() chose. An attempt that
    // fails for want of a member with a leader (UNAVAILABLE: no link, or no
    // leader; or no answer within its bound: its member is frozen or its
    // leader is gone and not yet replaced) is made again on the next member
    // after a pause, until the call's deadline. A request under way when
    // its member died may have been applied, and is made again all the
    // same. A refused token is renewed once and the call made again.
    template <class Request, class Response>
    void attempt(const std::shared_ptr<Call<Request, Response>> &call)
    {
        call->member = pick();
        Member &m = members_[call->member];
        call->linked = m.channel->GetState(false) == GRPC_CHANNEL_READY;
        call->ctx.reset(new grpc::ClientContext);
        auto left = std::chrono::duration_cast<milliseconds>(call->deadline - Clock::now());
        call->ctx->set_deadline(std::chrono::system_clock::now() + std::min(left, call->linked ? kAttempt : kLinkWait));
        call->ctx->set_wait_for_ready(true);
        call->ctx->AddMetadata("hasleader", "true");
        if (!call->login && !token_.empty()) call->ctx->AddMetadata("token", token_);
        // The store owns the call while gRPC has it; gRPC's callback holds
        // nothing but the key, since gRPC destroys it on its own thread,
        // maybe after the I/O context is gone. The work guard in the call
        // keeps the I/O context running until the result is handled.
        grpc::ClientContext *ctx = call->ctx.get();
        calls_.emplace(ctx, call);
        call->method(m, ctx, &call->req, &call->resp, [this, ctx](grpc::Status s) {
            asio::post(io_, [this, ctx, s] {
                auto it = calls_.find(ctx);
                if (it == calls_.end()) return;
                auto call = std::static_pointer_cast<Call<Request, Response>>(it->second);
                calls_.erase(it);
                finish_attempt(call, s);
            });
        });
    }

    template <class Request, class Response>
    void finish_attempt(const std::shared_ptr<Call<Request, Response>> &call, const grpc::Status &s)
    {
        if (s.ok()) {
            if (want_ && feed_ == nullptr && !closed_) reopen_feed_now();
            return finish(call, StoreStatus(0));
        }
        if (!closed_ && !call->login && !call->renewed && !user_.empty() && token_refused(s)) {
            call->renewed = true;
            return renew_token([this, call](const StoreStatus &renewal) {
                if (renewal.code == 0 && !closed_) return attempt(call);
                finish(call,
                       renewal.code == 0 ? StoreStatus(kStatusStoreUnavailable, "the store is closing") : renewal);
            });
        }
        bool again = s.error_code() == grpc::StatusCode::UNAVAILABLE ||
                     s.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
        // No answer in time from a member still linked is etcd's slowness;
        // a link that went meanwhile (a request gRPC holds for the next
        // link) is etcd out of reach.
        call->linked = members_[call->member].channel->GetState(false) == GRPC_CHANNEL_READY;
        if (again) {
            member_failed(call->member);
            if (s.error_code() == grpc::StatusCode::UNAVAILABLE)
                call->trouble = members_[call->member].name + ": " + s.error_message();
        }
        if (again && !closed_ && Clock::now() + kCallRetry < call->deadline) {
            call->timer.expires_after(kCallRetry);
            call->timer.async_wait([this, call](const asio::error_code &) {
                if (!closed_) return attempt(call);
                finish(call, StoreStatus(kStatusStoreUnavailable, "the store is closing"));
            });
            return;
        }
        finish(call, status_of(s, call->linked, call->trouble));
    }

    // Ends call with status: its completion runs, its work guard goes.
    template <class Request, class Response>
    void finish(const std::shared_ptr<Call<Request, Response>> &call, const StoreStatus &status)
    {
        auto done = std::move(call->done); // may own the call: no cycle
        call->done = nullptr;
        call->work.reset();
        done(status);
    }

    template <class F>
    void failed(const char *what, const StoreStatus &s, F complete)
    {
        if (log_ && !closed_) fprintf(stderr, "hspaced: etcd %s failed, status %u: %s\n", what, s.code, s.why.c_str());
        complete();
    }

    // Fetches a new token for the user, then runs then with the outcome;
    // calls that ask while one is being fetched wait for it.
    void renew_token(std::function<void(const StoreStatus &)> then)
    {
        renewing_.push_back(std::move(then));
        if (renewing_.size() > 1) return;
        auto call = new_call<pb::AuthenticateRequest, pb::AuthenticateResponse>();
        call->login = true;
        call->req.set_name(user_);
        call->req.set_password(password_);
        start(
            call,
            [](Member &m, auto *ctx, auto *req, auto *resp, auto cb) {
                m.auth->async()->Authenticate(ctx, req, resp, cb);
            },
            [this, call](const StoreStatus &s) {
                if (s.code == 0) token_ = call->resp.token();
                if (log_ && !closed_) {
                    if (s.code == 0)
                        fprintf(stderr, "hspaced: etcd token of user %s renewed\n", user_.c_str());
                    else
                        fprintf(stderr, "hspaced: etcd login of user %s failed, status %u: %s\n", user_.c_str(), s.code,
                                s.why.c_str());
                }
                std::vector<std::function<void(const StoreStatus &)>> waiting(std::move(renewing_));
                renewing_.clear();
                for (auto &w : waiting) w(s);
            });
    }

    // Runs done once the feed has delivered revision, or at once when the
    // feed is not asked for (so a writer sees its own change notified
    // before its reply). Should the feed not deliver it by deadline, done
    // runs then all the same (the change is made; its notification follows
    // when the Watch is back).
    void after_delivery(int64_t revision, Clock::time_point deadline, std::function<void()> done)
    {
        if (!want_ || revision <= delivered_) return done();
        // A call answered at its deadline still leaves the Watch a moment.
        deadline = std::max(deadline, Clock::now() + kDeliveryGrace);
        parked_.emplace(revision, Parked{deadline, std::move(done)});
        arm_sweep(deadline);
    }

    void release_parked(bool all = true)
    {
        while (!parked_.empty() && (all || parked_.begin()->first <= delivered_)) {
            auto done = std::move(parked_.begin()->second.done);
            parked_.erase(parked_.begin());
            done();
        }
    }

    void fail_waiting(const StoreStatus &why)
    {
        std::vector<Waiting> waiting(std::move(waiting_));
        waiting_.clear();
        for (Waiting &w : waiting) w.done(why, 0, {});
    }

    // The sweep runs at when, or sooner if it is due sooner.
    void arm_sweep(Clock::time_point when)
    {
        if (closed_ || (sweep_armed_ && sweep_at_ <= when)) return;
        sweep_armed_ = true;
        sweep_at_ = when;
        sweep_timer_.expires_at(when);
        sweep_timer_.async_wait([this](const asio::error_code &ec) {
            if (ec) return; // re-armed or closed
            sweep_armed_ = false;
            sweep();
        });
    }

    // Ends what waited for the feed past its deadline: completions whose
    // change the Watch has not delivered (a Watch that delivers nothing for
    // that long is stuck on a member that no longer answers, and is opened
    // again), and subscriptions' starts.
    void sweep()
    {
        Clock::time_point now = Clock::now(), next = Clock::time_point::max();
        std::vector<std::function<void()>> late;
        for (auto it = parked_.begin(); it != parked_.end();) {
            if (it->second.deadline > now) {
                next = std::min(next, it->second.deadline);
                ++it;
                continue;
            }
            late.push_back(std::move(it->second.done));
            it = parked_.erase(it);
        }
        std::vector<Waiting> expired;
        for (auto it = waiting_.begin(); it != waiting_.end();) {
            if (it->deadline > now) {
                next = std::min(next, it->deadline);
                ++it;
                continue;
            }
            expired.push_back(std::move(*it));
            it = waiting_.erase(it);
        }
        if (!late.empty() && live_ && feed_ != nullptr) {
            if (log_)
                fprintf(stderr, "hspaced: etcd watch delivered nothing after revision %lld for %lld ms; reopening it\n",
                        static_cast<long long>(delivered_), static_cast<long long>(timeout_.count()));
            member_failed(feed_->member);
            feed_cause_ = "no answer for " + std::to_string(timeout_.count()) + " ms";
            feed_->cancel(); // on_watch_end reopens it
        }
        if (next != Clock::time_point::max()) arm_sweep(next);
        // A member that is linked and does not start the Watch is slow
        // (1102); without a link it is out of reach (1101).
        bool linked = feed_ != nullptr && members_[feed_->member].channel->GetState(false) == GRPC_CHANNEL_READY;
        StoreStatus why = linked ? StoreStatus(kStatusStoreTimeout, "etcd did not start the watch within " +
                                                                        std::to_string(timeout_.count()) + " ms")
                                 : StoreStatus(kStatusStoreUnavailable, "etcd watch down: " + feed_trouble_);
        for (auto &done : late) done();
        for (Waiting &w : expired) w.done(why, 0, {});
    }

    // Opens a Watch of the prefix: from start_revision, or from now when 0.
    void open_feed(int64_t start_revision)
    {
        size_t member = pick();
        feed_ = new Feed(*this, io_, ++feed_ids_, member);
        live_ = false;
        resuming_ = start_revision != 0;
        feed_->start(members_[member], token_, prefix_, prefix_end_, start_revision);
    }

    // The Watch is down and waits to be reopened: reopens it now.
    void reopen_feed_now()
    {
        retry_timer_.cancel();
        open_feed(delivered_ != 0 ? delivered_ + 1 : 0);
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
        if (log_) fprintf(stderr, "hspaced: etcd feed ended: %s\n", why.c_str());
        want_ = false;
        drop_feed();
        release_parked();
        fail_waiting(StoreStatus(kStatusStoreUnavailable, why));
        listener_.on_feed_ended(why);
    }

    asio::io_context &io_;
    Listener &listener_;
    std::vector<Member> members_;
    size_t current_ = 0;                       // the member calls go to while its link is up
    const std::string prefix_;                 // every key is stored under it
    const std::string prefix_end_;             // the end of its range
    const milliseconds timeout_;               // bound of a call and of a subscription's start
    const bool log_;                           // failures on stderr
    const std::string user_;                   // etcd user, or empty
    const std::string password_;               // its password (never logged)
    std::string token_;                        // its current token, or empty
    std::vector<std::function<void(const StoreStatus &)>> renewing_; // waiting for a new token
    std::map<grpc::ClientContext *, std::shared_ptr<void>> calls_; // calls gRPC has, by context; close() cancels
    bool closed_ = false;                      // close() ran

    // The feed.
    bool want_ = false;                        // follow(true) is in force
    Feed *feed_ = nullptr;                     // the current Watch; it owns itself
    uint64_t feed_ids_ = 0;                    // id of the last Watch opened
    bool live_ = false;                        // the current Watch was created
    bool resuming_ = false;                    // it continues after delivered_
    int64_t delivered_ = 0;                    // every change up to this revision was delivered
    bool broken_ = false;                      // the Watch broke and has not run again since (logged once)
    std::string feed_trouble_;                 // why it last broke, with its member
    std::string feed_cause_;                   // why it is being cancelled, for on_watch_end
    milliseconds feed_pause_ = kFeedRetryFirst; // before the next reopening
    asio::steady_timer retry_timer_;           // pause before the Watch is reopened
    std::multimap<int64_t, Parked> parked_;    // completions waiting for a revision's delivery
    std::vector<Waiting> waiting_;             // begin() calls waiting for the feed
    asio::steady_timer sweep_timer_;           // ends what waited past its deadline
    bool sweep_armed_ = false;
    Clock::time_point sweep_at_;               // when it runs, while armed
};

void Feed::start(Member &m, const std::string &token, const std::string &key, const std::string &end,
                 int64_t start_revision)
{
    pb::WatchCreateRequest *c = create_.mutable_create_request();
    c->set_key(key);
    c->set_range_end(end);
    c->set_start_revision(start_revision);
    // Ends the Watch when its member loses the cluster's leader, so that it
    // is reopened on a member that has one rather than going silent.
    ctx_.AddMetadata("hasleader", "true");
    if (!token.empty()) ctx_.AddMetadata("token", token);
    m.watch->async()->Watch(&ctx_, this);
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
        end_feed("etcd compacted revision " + std::to_string(r.compact_revision()) + "; the changes after revision " +
                 std::to_string(delivered_) + " are lost");
        return;
    }
    if (r.canceled()) {
        feed_cause_ = r.cancel_reason().empty() ? "etcd cancelled the watch" : r.cancel_reason();
        feed_->cancel(); // on_watch_end reopens it
        return;
    }
    if (r.created()) {
        if (!resuming_) delivered_ = r.header().revision();
        live_ = true;
        feed_pause_ = kFeedRetryFirst;
        if (broken_ && log_)
            fprintf(stderr, "hspaced: etcd watch resumed after revision %lld on %s\n",
                    static_cast<long long>(delivered_), members_[feed_->member].name.c_str());
        broken_ = false;
        std::vector<Waiting> waiting(std::move(waiting_));
        waiting_.clear();
        for (Waiting &w : waiting) begin(w.key, w.key_only, w.with_objects, std::move(w.done));
        if (feed_ == nullptr || id != feed_->id) return;
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
    size_t member = feed_->member;
    feed_ = nullptr;
    live_ = false;
    if (closed_ || !want_) return;
    std::string cause = std::move(feed_cause_);
    feed_cause_.clear();
    if (cause.empty()) cause = s.error_message().empty() ? "the watch ended" : s.error_message();
    feed_trouble_ = members_[member].name + ": " + cause;
    member_failed(member);
    if (!broken_ && log_)
        fprintf(stderr, "hspaced: etcd watch broke after revision %lld (%s); resuming from there when etcd answers\n",
                static_cast<long long>(delivered_), feed_trouble_.c_str());
    broken_ = true;
    bool renew = !user_.empty() && (token_refused(s) || contains(cause, "auth"));
    auto reopen = [this] {
        retry_timer_.expires_after(feed_pause_);
        feed_pause_ = std::min(feed_pause_ * 2, kFeedRetryMost);
        retry_timer_.async_wait([this](const asio::error_code &ec) {
            if (ec || closed_ || !want_ || feed_ != nullptr) return;
            open_feed(delivered_ != 0 ? delivered_ + 1 : 0);
        });
    };
    if (!renew) return reopen();
    renew_token([this, reopen](const StoreStatus &) {
        if (!closed_ && want_ && feed_ == nullptr) reopen();
    });
}

// Before the service starts on a secured link: the user's login (when a
// user is named) and a read of the prefix through the first member that
// answers, each bounded by the store's timeout. Empty when both worked,
// else why not; *token is the login's token.
std::string check_link(std::vector<Member> &members, const Options &options, const std::string &password,
                       std::string *token)
{
    std::string unreachable;
    auto deadline = [&] { return std::chrono::system_clock::now() + milliseconds(options.store_timeout_ms); };
    auto advice = [&](const std::string &text) {
        if (contains(text, "CERTIFICATE_VERIFY_FAILED") || contains(text, "certificate verify failed"))
            return text + " (is the member's certificate signed by the CA of --store-cacert, and does it name the "
                          "member as the URL does?)";
        if (contains(text, "Handshake") || contains(text, "handshake"))
            return text + " (a TLS handshake failed: does the member serve TLS, and want a client certificate "
                          "(--store-cert, --store-key)?)";
        return text;
    };
    for (Member &m : members) {
        if (!options.store_user.empty()) {
            grpc::ClientContext ctx;
            ctx.set_deadline(deadline());
            pb::AuthenticateRequest req;
            pb::AuthenticateResponse resp;
            req.set_name(options.store_user);
            req.set_password(password);
            grpc::Status s = m.auth->Authenticate(&ctx, req, &resp);
            if (s.error_code() == grpc::StatusCode::UNAVAILABLE ||
                s.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
                unreachable += "; " + m.name + ": " + advice(s.error_message());
                continue;
            }
            if (!s.ok())
                return "etcd at " + m.name + " refused the login of user " + options.store_user + ": " +
                       s.error_message();
            *token = resp.token();
        }
        grpc::ClientContext ctx;
        ctx.set_deadline(deadline());
        if (!token->empty()) ctx.AddMetadata("token", *token);
        pb::RangeRequest req;
        pb::RangeResponse resp;
        req.set_key(options.store_prefix);
        req.set_range_end(range_end(options.store_prefix));
        req.set_limit(1);
        req.set_keys_only(true);
        grpc::Status s = m.kv->Range(&ctx, req, &resp);
        if (s.ok()) return std::string();
        if (s.error_code() == grpc::StatusCode::UNAVAILABLE || s.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
            unreachable += "; " + m.name + ": " + advice(s.error_message());
            continue;
        }
        return "etcd at " + m.name + " refused to read " + options.store_prefix + "*" +
               (options.store_user.empty() ? "" : " to user " + options.store_user) + ": " + s.error_message();
    }
    return "cannot reach etcd" + unreachable;
}

} // namespace

std::unique_ptr<Store> make_etcd_store(const Options &options, asio::io_context &io, Listener &listener,
                                       std::string *error)
{
    std::vector<Address> addresses = members_of(options.store, error);
    if (addresses.empty()) return nullptr;
    Link link;
    link.tls = !options.store_cacert.empty() || !options.store_cert.empty() || !options.store_key.empty();
    if (options.store_cert.empty() != options.store_key.empty()) {
        *error = "--store-cert and --store-key go together";
        return nullptr;
    }
    if ((!options.store_cacert.empty() && !read_file(options.store_cacert, "--store-cacert", &link.cacert, error)) ||
        (!options.store_cert.empty() && !read_file(options.store_cert, "--store-cert", &link.cert, error)) ||
        (!options.store_key.empty() && !read_file(options.store_key, "--store-key", &link.key, error)))
        return nullptr;
    std::string password;
    if (!options.store_user.empty()) {
        if (options.store_password_file.empty()) {
            *error = "--store-user needs --store-password-file";
            return nullptr;
        }
        if (!read_file(options.store_password_file, "--store-password-file", &password, error)) return nullptr;
        password = password.substr(0, password.find_first_of("\r\n"));
        if (password.empty()) {
            *error = "--store-password-file " + options.store_password_file + " holds no password";
            return nullptr;
        }
    }
    // gRPC tears its library down when its last channel goes, while its
    // threads may still be returning from our callbacks; a process that
    // starts a service again (the tests do) would then race that teardown.
    // One reference held for the life of the process keeps it initialised.
    static const bool grpc_kept = (grpc_init(), true);
    (void)grpc_kept;
    std::vector<Member> members;
    for (const Address &a : addresses) {
        Member m;
        m.name = a.given;
        m.channel = channel_to(a, link);
        m.kv = pb::KV::NewStub(m.channel);
        m.watch = pb::Watch::NewStub(m.channel);
        m.auth = pb::Auth::NewStub(m.channel);
        members.push_back(std::move(m));
    }
    std::string token;
    if (link.tls || !options.store_user.empty()) {
        std::string why = check_link(members, options, password, &token);
        if (!why.empty()) {
            *error = why;
            return nullptr;
        }
        if (!link.tls && options.log)
            fprintf(stderr, "hspaced: warning: the etcd password travels unencrypted (no --store-cacert)\n");
    }
    return std::unique_ptr<Store>(
        new EtcdStore(options, io, listener, std::move(members), std::move(password), std::move(token)));
}

} // namespace service
} // namespace hspace
