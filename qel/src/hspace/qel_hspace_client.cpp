/*
 * qel_hspace_client.cpp - the C++ face (qel_hspace.hpp) over the C API.
 *
 * A Client owns one link at a time: a C handle plus the count of calls
 * running on it. Every handle's single C callback finds its Client through
 * a registry and routes the event: get answers by urid to the waiting call,
 * subscription images by urid, notifications through an index of the live
 * subscriptions (key subscriptions by key; patterns by prefix, probed once
 * per prefix length in use; both by the key with its letters folded, as
 * duplicates are judged), so neither routing nor a cancel looks at the
 * subscriptions a key does not concern. urids are 64-bit ids drawn from the
 * Client, never pointers, so a late answer for a forgotten id is found by
 * nobody and its objects are freed.
 *
 * Order: a subscription takes notifications only from the link its latest
 * post went out on, and only once that post's image is complete (without
 * image: once its start event came). The service sends every change its
 * image holds before the post's answer, and only later changes after the
 * image, so each change reaches each subscription once, after its image.
 *
 * Threads: application threads make calls; the handle's reader thread runs
 * every subscription callback and get handler; the Client's worker thread
 * re-establishes a failed link, posts again the subscriptions the service
 * ended, sends the cancels of reset Subscriptions, times out asynchronous
 * gets and reports state changes. Teardown never waits for the service: a
 * close cuts every call short, and a worker inside a connection attempt is
 * left to finish it on its own.
 *
 * Locking: Impl::mu guards everything of an Impl not marked atomic or
 * const, and every Subscription::State_ field but the constant ones. It is
 * never held across a C call that blocks or a user callback.
 */
#include "qel_hspace.hpp"

#include <string.h>
#include <strings.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <unordered_map>

#include "qel_hspacep.h"

namespace qel {
namespace hspace {

namespace {

using Clock = std::chrono::steady_clock;

class Category final : public std::error_category {
public:
    const char *name() const noexcept override { return "qel_hspace"; }
    std::string message(int code) const override
    {
        const t_kro_char *text = nullptr;
        qel_hspace_error_get_text(static_cast<t_kro_error>(code), &text);
        return text != nullptr ? text : "unknown error";
    }
    std::error_condition default_error_condition(int code) const noexcept override
    {
        switch (static_cast<t_kro_error>(code)) {
        case KRO_ERR_INVALID_ARG:
        case KRO_ERR_BAD_ADDRESS:
        case KRO_ERR_TLS_CONFIG: return std::errc::invalid_argument;
        case KRO_ERR_INVALID_STATE: return std::errc::operation_not_permitted;
        case KRO_ERR_NOT_SUPPORTED: return std::errc::not_supported;
        case KRO_ERR_CLOSED: return std::errc::operation_canceled;
        case KRO_ERR_EXISTS: return std::errc::file_exists;
        case KRO_ERR_BAD_PROTOCOL: return std::errc::protocol_not_supported;
        case KRO_ERR_WOULD_DEADLOCK: return std::errc::resource_deadlock_would_occur;
        case KRO_ERR_CONN_REFUSED:
        case HSPACE_STATUS_CONNECTION_LIMIT: return std::errc::connection_refused;
        case KRO_ERR_HOST_NOT_FOUND: return std::errc::host_unreachable;
        case KRO_ERR_PEER_CLOSED: return std::errc::connection_reset;
        case KRO_ERR_INTERRUPTED: return std::errc::interrupted;
        case KRO_ERR_INVALID_PACKET: return std::errc::bad_message;
        case KRO_ERR_NOT_CONNECTED: return std::errc::not_connected;
        case KRO_ERR_TIMEOUT:
        case KRO_ERR_TLS_TIMEOUT:
        case HSPACE_STATUS_STORE_TIMEOUT: return std::errc::timed_out;
        case KRO_ERR_NO_MEMORY: return std::errc::not_enough_memory;
        case KRO_ERR_TLS_HANDSHAKE: return std::errc::protocol_error;
        case KRO_ERR_TLS_CLIENT_CERT:
        case HSPACE_STATUS_PERMISSION_DENIED:
        case HSPACE_STATUS_IDENTITY_REFUSED: return std::errc::permission_denied;
        case HSPACE_STATUS_STORE_UNAVAILABLE: return std::errc::resource_unavailable_try_again;
        case HSPACE_STATUS_STORE_TOO_LARGE: return std::errc::value_too_large;
        default: return std::error_condition(code, *this);
        }
    }
};

void throw_if(const std::error_code &ec, const char *what)
{
    if (ec) throw std::system_error(ec, what);
}

// A key as the C API needs it: NUL-terminated. Short keys stay on the
// stack; a key with a NUL byte inside is refused (the C API would cut it).
class CKey {
public:
    explicit CKey(std::string_view key)
    {
        valid_ = memchr(key.data(), 0, key.size()) == nullptr;
        if (key.size() < sizeof(small_)) {
            memcpy(small_, key.data(), key.size());
            small_[key.size()] = 0;
            str_ = small_;
        } else {
            big_.assign(key);
            str_ = big_.c_str();
        }
    }
    bool valid() const { return valid_; }
    const char *c_str() const { return str_; }

private:
    char small_[192];  // the copy of a short key
    std::string big_;  // the copy of a long key
    const char *str_;  // one of them
    bool valid_;       // no NUL inside
};

// A deep copy of a library-made object, with its value or key only (a
// notification routed to several subscriptions gives each its own object).
t_qel_hspace_object clone_object(t_qel_hspace_object source, bool with_value)
{
    t_kro_buf from = with_value ? source->data.buf : nullptr;
    return qel_hspace_object_make(source->key, static_cast<t_kro_uint4>(strlen(source->key)),
                                  from ? static_cast<const char *>(from->ptr) + from->pos : nullptr,
                                  from ? from->lim - from->pos : 0);
}

// A failure of the link or a close, as opposed to a status the service sent
// or a deadline that passed.
bool is_link_error(t_kro_error e)
{
    return e == KRO_ERR_CLOSED ||
           (e > KRO_ERR_RUNTIME_BASE && e < KRO_ERR_RUNTIME_BASE + 100 && e != KRO_ERR_TIMEOUT);
}

// The key with ASCII letters lowered: equal for keys the C API and the
// service take for the same subscription.
std::string fold(std::string_view key)
{
    std::string folded(key);
    for (char &ch : folded)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch + ('a' - 'A'));
    return folded;
}

// fold(key) without allocating for keys up to 191 bytes.
class Folded {
public:
    explicit Folded(std::string_view key)
    {
        char *to = small_;
        if (key.size() >= sizeof(small_)) {
            big_.resize(key.size());
            to = &big_[0];
        }
        for (size_t i = 0; i < key.size(); i++) {
            char ch = key[i];
            to[i] = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + ('a' - 'A')) : ch;
        }
        view_ = std::string_view(to, key.size());
    }
    Folded(const Folded &) = delete;
    Folded &operator=(const Folded &) = delete;
    std::string_view view() const { return view_; }

private:
    char small_[192];       // the folded copy of a short key
    std::string big_;       // that of a long key
    std::string_view view_; // one of them
};

void *to_urid(uint64_t id) { return reinterpret_cast<void *>(static_cast<uintptr_t>(id)); }
uint64_t from_urid(void *urid) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(urid)); }

// A call's deadline: none, or a point on the steady clock.
class Deadline {
public:
    Deadline() = default; // none
    // bound from now; no_deadline (or a bound the clock cannot hold) is none.
    explicit Deadline(std::chrono::milliseconds bound)
    {
        if (bound >= std::chrono::hours(24 * 365 * 100)) return;
        bounded_ = true;
        at_ = Clock::now() + bound;
    }
    bool bounded() const { return bounded_; }
    Clock::time_point at() const { return at_; }
    bool passed() const { return bounded_ && Clock::now() >= at_; }
    // What is left, as a timed C call takes it: 0 is no bound, so a bounded
    // deadline gives at least 1 ms (more than 49 days counts as none).
    t_kro_uint4 c_ms() const
    {
        if (!bounded_) return 0;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(at_ - Clock::now()).count();
        if (left > 0xFFFFFFFFll) return 0;
        return left < 1 ? 1 : static_cast<t_kro_uint4>(left);
    }
    // Waits on cv, lock held, until pred holds or the deadline passes; pred's value.
    template <class P> bool wait(std::condition_variable &cv, std::unique_lock<std::mutex> &lock, P pred) const
    {
        if (!bounded_) {
            cv.wait(lock, pred);
            return true;
        }
        return cv.wait_until(lock, at_, pred);
    }

private:
    bool bounded_ = false;   // false: no deadline
    Clock::time_point at_{}; // when bounded
};

// The C data operations under a deadline (none passed yet).
t_kro_error c_put(t_qel_hspace h, t_qel_hspace_object object, t_qel_hspace_put_semantic semantic, const Deadline &d)
{
    return qel_hspace_put_timed(h, object, semantic, 0, d.c_ms());
}
t_kro_error c_remove(t_qel_hspace h, const char *key, t_qel_hspace_remove_semantic semantic, const Deadline &d)
{
    return qel_hspace_remove_timed(h, key, semantic, 0, d.c_ms());
}
t_kro_error c_post(t_qel_hspace h, const char *key, uint64_t id, t_kro_byte triggers, t_kro_int4 flags,
                   const Deadline &d)
{
    return qel_hspace_post_timed(h, key, to_urid(id), HSPACE_POST_SYNC, triggers, flags, d.c_ms());
}
t_kro_error c_cancel(t_qel_hspace h, const char *key, const Deadline &d)
{
    return qel_hspace_cancel_timed(h, key, HSPACE_CANCEL_SYNC, 0, d.c_ms());
}

void c_event(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data);

} // namespace

const std::error_category &category() noexcept
{
    static const Category instance;
    return instance;
}

// ---- objects ----

std::string_view Object::key() const noexcept
{
    return object_ != nullptr ? std::string_view(object_->key) : std::string_view();
}

std::string_view Object::value() const noexcept
{
    if (object_ == nullptr || object_->data.buf == nullptr) return std::string_view();
    t_kro_buf b = object_->data.buf;
    return std::string_view(static_cast<const char *>(b->ptr) + b->pos, b->lim - b->pos);
}

bool Object::has_value() const noexcept { return object_ != nullptr && object_->data.buf != nullptr; }

// ---- shared state ----

// One subscription. The const fields are set once; the rest is guarded by
// the Client's Impl::mu.
struct __attribute__((visibility("hidden"))) Subscription::State_ {
    State_(std::weak_ptr<Client::Impl> c, std::string_view k, const SubscribeOptions &o, Client::ImageHandler i,
           Client::ChangeHandler ch)
        : client(std::move(c)), key(k), folded(fold(k)), pattern(k.back() == '*'), options(o),
          on_image(i ? std::move(i) : [](Image &&) {}), on_change(ch ? std::move(ch) : [](Change &&) {})
    {
    }

    const std::weak_ptr<Client::Impl> client; // the Client; expired once it is gone
    const std::string key;                    // key or pattern as subscribed
    const std::string folded;                 // fold(key): what a duplicate is judged by, the index's key
    const bool pattern;                       // key ends in '*'
    const SubscribeOptions options;
    const Client::ImageHandler on_image;
    const Client::ChangeHandler on_change;
    bool live = true;            // mu: indexed, callbacks may run; cleared by reset, close or an end for good
    bool ready = false;          // mu: the image (or start event) of its post on link_gen came: changes reach it
    bool settled = false;        // mu: its first image was delivered (or its start event came): subscribe returns
    bool had_image = false;      // mu: an image was delivered, so the next one is a resync
    bool retrying = false;       // mu: waits in Impl::retry to be posted again
    bool cancel_first = false;   // mu: the handle or the service may still hold a post of it on link_gen
    uint64_t post_id = 0;        // mu: urid of its latest post
    uint64_t link_gen = 0;       // mu: the link that post went out on
    t_kro_error refused = 0;     // mu: the status the service refused its first image with
    Objects image;               // mu: objects of the open image (reader thread fills it)

    std::string_view prefix() const { return std::string_view(folded).substr(0, key.size() - 1); } // pattern: folded
};

// An asynchronous get: its answer so far and who takes it.
struct GetCall {
    Objects objects;                       // mu: the answer so far
    Client::GetHandler handler;            // run once with the result (the reader thread, or the worker's timeout)
};

struct __attribute__((visibility("hidden"))) Client::Impl : std::enable_shared_from_this<Client::Impl> {
    using Sub = std::shared_ptr<Subscription::State_>;
    // A C handle and the calls running on it. Freed by retire().
    struct Link {
        t_qel_hspace h = nullptr;
        uint64_t gen = 0;                  // number of this link, from 1
        int users = 0;                     // mu: calls on h that have not returned
        bool retiring = false;             // mu: retire() waits for users to reach 0
        bool failed = false;               // mu: its failure was handled
    };
    struct Task {
        enum Kind { Report, Relink } kind;
        explicit Task(Kind k, State s = State::idle) : kind(k), state(s) {}
        State state = State::idle;         // Report
        std::error_code ec;                // Report, Relink: the cause
        Link *link = nullptr;              // Relink: the failed link
    };
    // A cancel the worker is to send for a reset Subscription.
    struct PendingCancel {
        Sub sub;                           // the subscription (its key, kept while queued)
        uint64_t gen = 0;                  // the link it was posted on: sent only on that one
        bool sending = false;              // the worker sends it now
    };
    enum class Posted { done, again }; // again: post it later (the service could not take it now)

    Impl(std::string u, Options o) : url(std::move(u)), options(normalized(std::move(o))) {}
    ~Impl() { KRO_CHECK(link == nullptr && !worker.joinable()); }

    static Options normalized(Options o)
    {
        if (o.open_timeout.count() <= 0) o.open_timeout = Options().open_timeout;
        if (o.call_timeout.count() <= 0) o.call_timeout = Options().call_timeout;
        return o;
    }
    Deadline deadline(const Call &call) const
    {
        return Deadline(call.timeout.count() > 0 ? call.timeout : options.call_timeout);
    }

    const std::string url;
    const Options options;                 // deadlines normalized
    std::atomic<State> state{State::idle};
    std::mutex mu;
    std::condition_variable cv;            // application threads: a link, an answer, a subscription settled,
                                           // a callback or a cancel over, a link's calls returned
    std::condition_variable work_cv;       // the worker: a task, a cancel, a timer, close
    Link *link = nullptr;                  // mu: the link calls use; null unless connected (or failed, kept)
    uint64_t gen = 0;                      // mu: links made so far
    uint64_t next_id = 1;                  // mu: the next urid
    bool closed = false;                   // mu: close() ran
    std::unordered_map<uint64_t, std::shared_ptr<GetCall>> gets; // mu: by urid
    // mu: the deadlines of asynchronous gets, in order (all take call_timeout),
    // by urid; entries of gets already answered are dropped from the front.
    std::deque<std::pair<Clock::time_point, uint64_t>> get_deadlines;
    std::unordered_map<uint64_t, Sub> images;          // mu: posts awaiting image or start event, by urid
    // mu: the live subscriptions, keys by folded key and patterns by folded
    // prefix (the key without its '*'); a folded key has one at most.
    std::unordered_map<std::string_view, Sub> exact;
    std::unordered_map<std::string_view, Sub> prefixes;
    std::map<size_t, size_t> prefix_lengths;           // mu: prefix length -> patterns of it
    std::deque<Sub> retry;                             // mu: subscriptions to post again at retry_at
    Clock::time_point retry_at{};                      // mu: when, while retry is not empty
    std::chrono::milliseconds retry_delay{0};          // mu: backoff of the next round; 0 after a good one
    std::unordered_map<std::string_view, PendingCancel> cancels; // mu: cancels to send, by folded key
    std::deque<Sub> cancel_order;                      // mu: their subscriptions, oldest first (some gone)
    const Subscription::State_ *delivering = nullptr;  // mu: whose callback runs now
    std::thread::id delivering_thread;                 // mu: the thread running it
    std::deque<Task> tasks;                            // mu: for the worker
    bool connecting = false;               // mu: the worker is inside a connection attempt
    std::minstd_rand random{std::random_device{}()}; // mu: backoff jitter
    std::thread worker;                    // started by the first open
    std::thread::id worker_id;             // mu: the worker's, once started
    std::string open_detail;               // mu: why the last failed connect failed, in detail

    // ---- links ----

    Link *acquire(const Call &call, const Deadline &d, std::unique_lock<std::mutex> &lock, std::error_code &ec);
    Link *acquire(const Call &call, const Deadline &d, std::error_code &ec)
    {
        std::unique_lock<std::mutex> lock(mu);
        return acquire(call, d, lock, ec);
    }
    void release_locked(Link *l)
    {
        if (--l->users == 0 && l->retiring) cv.notify_all();
    }
    void release(Link *l)
    {
        std::lock_guard<std::mutex> lock(mu);
        release_locked(l);
    }
    std::error_code connect(Link *&out);
    void retire(Link *l);

    // ---- subscriptions (mu held) ----

    bool indexed(const Subscription::State_ &s) const;
    void index(const Sub &s);
    void unindex(const Sub &s);
    std::vector<Sub> live() const;
    void route(std::string_view key, int trigger, uint64_t g, std::vector<Sub> &out);
    Sub find_subscribed(std::string_view key);
    void queue_cancel(const Sub &s);
    void schedule_retry(const Sub &s);
    std::chrono::milliseconds jitter(std::chrono::milliseconds delay)
    {
        return delay / 2 + std::chrono::milliseconds(random() % (delay.count() / 2 + 1));
    }
    static t_kro_int4 post_flags(const SubscribeOptions &o)
    {
        return (o.no_image ? HSPACE_POST_FLAG_NO_IMAGE | HSPACE_POST_FLAG_START_EVENT : 0) |
               (o.key_only ? HSPACE_POST_FLAG_KEY_ONLY : 0);
    }

    // ---- events (reader thread) ----

    void dispatch(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data);
    void on_image_event(t_qel_hspace_reply_image_event_data_struct *d, bool get);
    void on_notification(t_qel_hspace h, t_qel_hspace_post_notification_event_data_struct *d);
    void link_failed(std::error_code cause);
    bool failed_meanwhile(Link *l);
    bool handle_failed(Link *l);
    template <class F> void deliver(const Sub &s, F &&fn, bool settles = false);

    // ---- worker ----

    void run_worker();
    void relink(Link *failed, std::error_code cause);
    Posted repost(const Sub &s);
    void send_cancel(std::unique_lock<std::mutex> &lock);
    void retry_round(std::unique_lock<std::mutex> &lock);
    void expire_gets(std::unique_lock<std::mutex> &lock);
    void push(Task t);
    void report(State s, std::error_code ec);
    void end_worker(bool detach);

    // ---- application side ----

    void shutdown();
    void cancel(const Sub &s);
};

// ---- registry: C handle -> Impl ----

namespace {

// Every handle a Client made. Never destroyed: a worker left to finish a
// connection attempt may still use it while the process exits.
struct Registry {
    std::mutex mu;                                                    // guards map
    std::unordered_map<t_qel_hspace, std::weak_ptr<Client::Impl>> map; // mu
};
Registry &registry()
{
    static Registry *r = new Registry;
    return *r;
}

thread_local const Client::Impl *t_in_callback = nullptr; // the Client whose callback this thread runs
thread_local std::vector<Client::Impl::Sub> t_targets;    // reader thread: a notification's subscriptions

void registry_add(t_qel_hspace h, const std::shared_ptr<Client::Impl> &impl)
{
    std::lock_guard<std::mutex> lock(registry().mu);
    registry().map[h] = impl;
}

void registry_remove(t_qel_hspace h)
{
    std::lock_guard<std::mutex> lock(registry().mu);
    registry().map.erase(h);
}

void c_event(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data)
{
    std::shared_ptr<Client::Impl> impl;
    {
        std::lock_guard<std::mutex> lock(registry().mu);
        auto it = registry().map.find(h);
        if (it != registry().map.end()) impl = it->second.lock();
    }
    if (impl != nullptr) {
        const Client::Impl *outer = std::exchange(t_in_callback, impl.get());
        impl->dispatch(h, event, data);
        t_in_callback = outer;
        return;
    }
    // Nobody to hand it to: free what the event carries.
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE)
        Object(static_cast<t_qel_hspace_reply_image_event_data_struct *>(data)->object);
    else if (event == HSPACE_EVENT_POST_NOTIFICATION)
        Object(static_cast<t_qel_hspace_post_notification_event_data_struct *>(data)->object);
}

std::once_flag g_init_once;

} // namespace

// ---- links ----

// A link for one call, counted in its users; null and ec set when there is
// none: closed, never opened, or down (unless call.wait_for_link, which
// waits for the link to come back until d passes: then error::timeout).
// Refused from the Client's own callbacks, which would wait for themselves.
Client::Impl::Link *Client::Impl::acquire(const Call &call, const Deadline &d, std::unique_lock<std::mutex> &lock,
                                          std::error_code &ec)
{
    if (t_in_callback == this) {
        ec = make_error_code(error::would_deadlock);
        return nullptr;
    }
    if (link == nullptr && call.wait_for_link && !closed &&
        !d.wait(cv, lock, [this] { return link != nullptr || closed || state.load() != State::reconnecting; })) {
        ec = make_error_code(error::timeout);
        return nullptr;
    }
    if (link == nullptr) {
        State s = state.load();
        ec = make_error_code(closed ? error::closed : s == State::idle ? error::invalid_state : error::not_connected);
        return nullptr;
    }
    link->users++;
    return link;
}

// A new handle, registered and opened; ec and out null on failure.
std::error_code Client::Impl::connect(Link *&out)
{
    out = nullptr;
    qel_hspace_create_data cd = {url.c_str(), options.client_name.empty() ? nullptr : options.client_name.c_str(),
                                 options.client_group.empty() ? nullptr : options.client_group.c_str()};
    t_qel_hspace h = nullptr;
    t_kro_error e = qel_hspace_create(&cd, c_event, &h);
    if (e != 0) return make_error_code(e);
    registry_add(h, shared_from_this());
    const Tls &t = options.tls;
    auto str = [](const std::string &v) { return v.empty() ? nullptr : v.c_str(); };
    qel_hspace_tls_options tls = {QEL_HSPACE_TLS_OPTIONS_VERSION, str(t.ca_file), str(t.cert_file), str(t.key_file),
                                  str(t.server_name)};
    bool wants_tls = url.size() > 6 && strncasecmp(url.c_str(), "tls://", 6) == 0;
    if (wants_tls || tls.ca_file || tls.cert_file || tls.key_file || tls.server_name) e = qel_hspace_set_tls(h, &tls);
    if (e == 0) e = qel_hspace_open_timed(h, Deadline(options.open_timeout).c_ms());
    if (e != 0) {
        const t_kro_char *detail = "";
        qel_hspace_error_get_detail(h, &detail);
        std::lock_guard<std::mutex> lock(mu);
        open_detail = detail;
    }
    if (e != 0) {
        registry_remove(h);
        qel_hspace_destroy(&h);
        return make_error_code(e);
    }
    out = new Link;
    out->h = h;
    return std::error_code();
}

// Closes l's handle, waits until no call runs on it, frees it. Not under mu,
// not on l's reader thread.
void Client::Impl::retire(Link *l)
{
    qel_hspace_close(l->h);
    {
        std::unique_lock<std::mutex> lock(mu);
        l->retiring = true;
        cv.wait(lock, [l] { return l->users == 0; });
    }
    registry_remove(l->h);
    // A worker finishing on its own may find the library finalized: then the handle stays.
    t_kro_error e = qel_hspace_destroy(&l->h);
    KRO_CHECK(e == 0 || e == KRO_ERR_NOT_INITIALIZED);
    delete l;
}

// ---- subscriptions ----

// Whether a live subscription has key (any letter case).
bool Client::Impl::indexed(const Subscription::State_ &s) const
{
    return s.pattern ? prefixes.count(s.prefix()) != 0 : exact.count(s.folded) != 0;
}

// Makes s live in the index. Its key (any letter case) is not there.
void Client::Impl::index(const Sub &s)
{
    if (s->pattern) {
        prefixes.emplace(s->prefix(), s);
        prefix_lengths[s->prefix().size()]++;
    } else {
        exact.emplace(s->folded, s);
    }
}

// Takes s out of the index, if it is there.
void Client::Impl::unindex(const Sub &s)
{
    auto &map = s->pattern ? prefixes : exact;
    auto it = map.find(s->pattern ? s->prefix() : std::string_view(s->folded));
    if (it == map.end() || it->second != s) return;
    map.erase(it);
    if (s->pattern) {
        auto n = prefix_lengths.find(s->prefix().size());
        if (--n->second == 0) prefix_lengths.erase(n);
    }
}

// Appends to out the subscriptions a change of key with trigger, received on
// link g, reaches: the key's own and every pattern over it whose image on g
// is complete and whose trigger mask selects the trigger. The index is
// probed with the folded key; a subscription selects by its exact letters.
void Client::Impl::route(std::string_view key, int trigger, uint64_t g, std::vector<Sub> &out)
{
    Folded f(key);
    auto take = [&](const Sub &s, size_t length) {
        if (s->ready && s->link_gen == g && (s->options.triggers == 0 || (s->options.triggers & trigger) != 0) &&
            key.compare(0, length, s->key, 0, length) == 0)
            out.push_back(s);
    };
    auto e = exact.find(f.view());
    if (e != exact.end()) take(e->second, key.size());
    for (const auto &length : prefix_lengths) {
        if (length.first > key.size()) break;
        auto p = prefixes.find(f.view().substr(0, length.first));
        if (p != prefixes.end()) take(p->second, length.first);
    }
}

// The live subscription of exactly key (a key or a pattern, in its
// letters), or null.
Client::Impl::Sub Client::Impl::find_subscribed(std::string_view key)
{
    Folded f(key);
    bool pattern = !key.empty() && key.back() == '*';
    auto &map = pattern ? prefixes : exact;
    auto it = map.find(pattern ? f.view().substr(0, key.size() - 1) : f.view());
    return it != map.end() && it->second->key == key ? it->second : nullptr;
}

// Every live subscription.
std::vector<Client::Impl::Sub> Client::Impl::live() const
{
    std::vector<Sub> all;
    all.reserve(exact.size() + prefixes.size());
    for (const auto &entry : exact) all.push_back(entry.second);
    for (const auto &entry : prefixes) all.push_back(entry.second);
    return all;
}

// Hands the cancel of s's post on s.link_gen to the worker, unless one of
// its key waits already.
void Client::Impl::queue_cancel(const Sub &s)
{
    if (!cancels.emplace(s->folded, PendingCancel{s, s->link_gen, false}).second) return;
    cancel_order.push_back(s);
    work_cv.notify_all();
}

// Puts s in the next round of posts again (the service ended it, or could
// not take its post); the round begins after the backoff's delay.
void Client::Impl::schedule_retry(const Sub &s)
{
    s->ready = false;
    if (s->retrying) return;
    s->retrying = true;
    if (retry.empty()) {
        retry_delay = std::max(retry_delay, std::max(options.reconnect.initial_delay, std::chrono::milliseconds(1)));
        retry_at = Clock::now() + jitter(retry_delay);
        work_cv.notify_all();
    }
    retry.push_back(s);
}

// ---- events ----

// Runs fn (a callback of s) unless s was cancelled; a cancel from another
// thread meanwhile waits for it to return. settles: s is settled once fn
// returned, in the same hold of mu that ends the delivery. Reader thread,
// mu not held.
template <class F> void Client::Impl::deliver(const Sub &s, F &&fn, bool settles)
{
    {
        std::lock_guard<std::mutex> lock(mu);
        if (!s->live) return;
        delivering = s.get();
        delivering_thread = std::this_thread::get_id();
    }
    fn();
    std::lock_guard<std::mutex> lock(mu);
    delivering = nullptr;
    if (settles) s->settled = true;
    cv.notify_all();
}

void Client::Impl::dispatch(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data)
{
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE)
        return on_image_event(static_cast<t_qel_hspace_reply_image_event_data_struct *>(data),
                              event == HSPACE_EVENT_GET_REPLY);
    if (event == HSPACE_EVENT_POST_NOTIFICATION)
        return on_notification(h, static_cast<t_qel_hspace_post_notification_event_data_struct *>(data));
    // HSPACE_EVENT_LINK_FAIL: last event of h. A link not yet published
    // when it failed is caught by failed_meanwhile().
    auto *d = static_cast<t_qel_hspace_fail_event_data_struct *>(data);
    std::lock_guard<std::mutex> lock(mu);
    if (!closed && link != nullptr && link->h == h) link_failed(make_error_code(d->error));
}

// An answer to a get, or a part of a post's image (its start event for a
// post without image).
void Client::Impl::on_image_event(t_qel_hspace_reply_image_event_data_struct *d, bool get)
{
    Object object(d->object);
    bool final = d->status != 0 || d->object == nullptr || d->index == d->cardinality;
    uint64_t id = from_urid(d->urid);
    std::unique_lock<std::mutex> lock(mu);
    if (get) {
        auto it = gets.find(id);
        if (it == gets.end()) return; // the caller gave up: object freed here
        std::shared_ptr<GetCall> call = it->second;
        if (object) call->objects.push_back(std::move(object));
        if (!final) return;
        gets.erase(it);
        while (!get_deadlines.empty() && gets.count(get_deadlines.front().second) == 0) get_deadlines.pop_front();
        lock.unlock();
        call->handler(make_error_code(d->status), std::move(call->objects));
        return;
    }
    auto it = images.find(id);
    if (it == images.end()) return; // cancelled, or an earlier post of it
    Sub s = it->second;
    if (object) s->image.push_back(std::move(object));
    if (!final) return;
    images.erase(it);
    if (d->status != 0) {
        // The end of the link ends the image too: the post goes out again
        // on the next link, or the Client closes, or, without reconnection,
        // a subscribe still waiting for its first image fails with it.
        s->image.clear();
        bool link = is_link_error(d->status) || d->status == KRO_ERR_TIMEOUT; // a write cut short fails the link too
        if (link && (options.reconnect.enabled || s->settled)) return;
        // The service refused the image, which ended the post: the first
        // one fails its subscribe; later, the subscription is posted again.
        if (!s->settled) {
            s->refused = d->status;
            s->live = false;
            unindex(s);
            cv.notify_all();
        } else if (s->live) {
            schedule_retry(s);
        }
        return;
    }
    s->ready = true;
    if (s->options.no_image) { // the start event
        s->settled = true;
        cv.notify_all();
        return;
    }
    Image image;
    image.objects = std::move(s->image);
    image.resync = s->had_image;
    s->had_image = true;
    lock.unlock();
    deliver(s, [&] { s->on_image(std::move(image)); }, true);
}

// A change: to every subscription it reaches, each with its own object
// (key only for a key-only subscription). Trigger::ended goes to the
// subscription of exactly its key, which is then posted again later.
void Client::Impl::on_notification(t_qel_hspace h, t_qel_hspace_post_notification_event_data_struct *d)
{
    Object object(d->object);
    if (!object) return;
    std::vector<Sub> targets = std::move(t_targets); // reused: no allocation per notification
    targets.clear();
    bool end_for_good = false;
    {
        std::lock_guard<std::mutex> lock(mu);
        if (closed || link == nullptr || link->h != h) return; // from a link being retired
        if (d->trigger == HSPACE_TRIGGER_ENDED) {
            Sub s = find_subscribed(object.key());
            if (s == nullptr || !s->ready || s->link_gen != link->gen) return;
            s->cancel_first = true; // the handle keeps its post of the key until a cancel
            if (options.reconnect.enabled) {
                schedule_retry(s);
            } else {
                s->ready = false;
                unindex(s);
                queue_cancel(s);
                end_for_good = true;
            }
            targets.push_back(std::move(s));
        } else {
            route(object.key(), d->trigger, link->gen, targets);
        }
    }
    for (size_t i = 0; i < targets.size(); i++) {
        const Sub &s = targets[i];
        Change change;
        change.trigger = static_cast<Trigger>(d->trigger);
        bool with_value = !s->options.key_only || d->trigger == HSPACE_TRIGGER_ENDED;
        if (i + 1 == targets.size() && (with_value || !object.has_value()))
            change.object = std::move(object);
        else
            change.object = Object(clone_object(object.native(), with_value));
        deliver(s, [&] { s->on_change(std::move(change)); });
    }
    if (end_for_good) {
        std::lock_guard<std::mutex> lock(mu);
        targets[0]->live = false;
    }
    targets.clear();
    t_targets = std::move(targets);
}

// The current link failed: hand it to the worker to re-establish, or keep
// it failed (calls then get the C handle's errors). Under mu, once per link.
void Client::Impl::link_failed(std::error_code cause)
{
    if (link->failed) return;
    link->failed = true;
    Task t{options.reconnect.enabled ? Task::Relink : Task::Report};
    t.ec = cause;
    if (options.reconnect.enabled) {
        t.link = std::exchange(link, nullptr);
        state = State::reconnecting;
    } else {
        t.state = State::failed;
        state = State::failed;
    }
    push(std::move(t));
}

// Whether l's handle failed (or was closed) while l is the current link;
// its failure is then handled here if its reader thread has not yet. The
// caller holds l as a user.
bool Client::Impl::handle_failed(Link *l)
{
    t_qel_hspace_state s = HSPACE_STATE_OPEN;
    qel_hspace_get_state(l->h, &s);
    if (s == HSPACE_STATE_OPEN) return false;
    std::lock_guard<std::mutex> lock(mu);
    if (!closed && link == l) link_failed(make_error_code(error::not_connected));
    return true;
}

// Right after l was published under mu: true when its reader thread failed
// before that (its LINK_FAIL found no link and was dropped); the failure is
// then handled here. Under mu.
bool Client::Impl::failed_meanwhile(Link *l)
{
    t_qel_hspace_state s = HSPACE_STATE_OPEN;
    qel_hspace_get_state(l->h, &s);
    if (s == HSPACE_STATE_OPEN) return false;
    link_failed(make_error_code(error::not_connected));
    return true;
}

// ---- worker ----

void Client::Impl::push(Task t)
{
    tasks.push_back(std::move(t));
    work_cv.notify_all();
}

void Client::Impl::report(State s, std::error_code ec)
{
    if (options.on_state) options.on_state(s, ec);
}

// Tasks first (also after close: a queued report still goes out), then,
// until close, cancels, rounds of posts again and gets past their deadline.
void Client::Impl::run_worker()
{
    std::unique_lock<std::mutex> lock(mu);
    for (;;) {
        if (!tasks.empty()) {
            Task t = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            if (t.kind == Task::Report)
                report(t.state, t.ec);
            else
                relink(t.link, t.ec);
            lock.lock();
            continue;
        }
        if (closed) return;
        if (!cancel_order.empty()) {
            send_cancel(lock);
            continue;
        }
        Clock::time_point now = Clock::now(), wake = Clock::time_point::max();
        if (!retry.empty()) {
            if (retry_at <= now) {
                retry_round(lock);
                continue;
            }
            wake = retry_at;
        }
        if (!get_deadlines.empty()) {
            if (get_deadlines.front().first <= now) {
                expire_gets(lock);
                continue;
            }
            wake = std::min(wake, get_deadlines.front().first);
        }
        if (wake == Clock::time_point::max())
            work_cv.wait(lock);
        else
            work_cv.wait_until(lock, wake);
    }
}

// Sends the oldest pending cancel on the link its post went out on (none
// when that link is gone), bounded by call_timeout. mu held, released
// around the call.
void Client::Impl::send_cancel(std::unique_lock<std::mutex> &lock)
{
    Sub s = std::move(cancel_order.front());
    cancel_order.pop_front();
    auto it = cancels.find(s->folded);
    if (it == cancels.end() || it->second.sub != s) return; // a subscribe of the key sent it
    if (link == nullptr || link->gen != it->second.gen) {
        cancels.erase(it);
        cv.notify_all();
        return;
    }
    it->second.sending = true;
    Link *l = link;
    l->users++;
    lock.unlock();
    c_cancel(l->h, s->key.c_str(), Deadline(options.call_timeout));
    lock.lock();
    release_locked(l);
    cancels.erase(s->folded); // still this one's: no other of the key was queued meanwhile
    cv.notify_all();
}

// Posts again the subscriptions waiting in retry, in order. The first that
// the service cannot take ends the round: it and the rest wait for the
// next, after a doubled delay. mu held, released around each post.
void Client::Impl::retry_round(std::unique_lock<std::mutex> &lock)
{
    std::deque<Sub> round = std::move(retry);
    retry.clear();
    bool failed = false;
    for (Sub &s : round) {
        if (!s->live || !s->retrying) continue;
        if (link == nullptr) { // a reconnection posts every live subscription again
            s->retrying = false;
            continue;
        }
        if (failed) {
            retry.push_back(std::move(s));
            continue;
        }
        s->retrying = false;
        lock.unlock();
        Posted r = repost(s);
        lock.lock();
        if (r == Posted::again && s->live && !s->retrying && link != nullptr) {
            s->retrying = true;
            retry.push_back(std::move(s));
            failed = true;
        }
    }
    if (failed) {
        auto top = std::max(options.reconnect.max_delay, std::chrono::milliseconds(1));
        retry_delay = std::min(retry_delay * 2, top);
        retry_at = Clock::now() + jitter(retry_delay);
    } else if (retry.empty()) {
        retry_delay = std::chrono::milliseconds(0);
    }
}

// Runs the handlers of asynchronous gets whose deadline passed with
// error::timeout, as callbacks of this Client (blocking calls in them are
// refused). mu held, released around the handlers.
void Client::Impl::expire_gets(std::unique_lock<std::mutex> &lock)
{
    Clock::time_point now = Clock::now();
    std::vector<std::shared_ptr<GetCall>> due;
    while (!get_deadlines.empty() && get_deadlines.front().first <= now) {
        auto it = gets.find(get_deadlines.front().second);
        get_deadlines.pop_front();
        if (it == gets.end()) continue;
        due.push_back(std::move(it->second));
        gets.erase(it); // the late answer is freed by the reader thread
    }
    lock.unlock();
    const Impl *outer = std::exchange(t_in_callback, this);
    for (const auto &call : due) call->handler(make_error_code(error::timeout), Objects());
    t_in_callback = outer;
    lock.lock();
}

// Posts s on the current link as a fresh subscription, first cancelling
// what the handle or the service may still hold of it there. Posted::again
// when the service could not take it now (a status, or no answer within
// call_timeout); done when posted, gone, or the link failed (the next link
// posts it). Worker, mu not held.
Client::Impl::Posted Client::Impl::repost(const Sub &s)
{
    std::unique_lock<std::mutex> lock(mu);
    if (!s->live || link == nullptr) return Posted::done;
    Link *l = link;
    l->users++;
    Deadline d(options.call_timeout);
    t_kro_error e = 0;
    if (s->cancel_first && s->link_gen == l->gen) {
        lock.unlock();
        e = c_cancel(l->h, s->key.c_str(), d);
        lock.lock();
        if (e != KRO_ERR_TIMEOUT && !is_link_error(e)) s->cancel_first = false; // answered: nothing of it is left
    }
    if (e == KRO_ERR_TIMEOUT || is_link_error(e) || !s->live) {
        release_locked(l);
        return e == KRO_ERR_TIMEOUT && s->live ? Posted::again : Posted::done;
    }
    uint64_t id = next_id++;
    s->post_id = id;
    s->link_gen = l->gen;
    s->ready = false;
    s->image.clear();
    images[id] = s;
    lock.unlock();
    e = c_post(l->h, s->key.c_str(), id, s->options.triggers, post_flags(s->options), d);
    lock.lock();
    release_locked(l);
    if (e == 0) return Posted::done;
    images.erase(id);
    s->ready = false;
    if (is_link_error(e)) return Posted::done;
    if (e == KRO_ERR_TIMEOUT || e == KRO_ERR_EXISTS) s->cancel_first = true; // the service may hold it
    return Posted::again;
}

// Worker: retires the failed link, then connects with bounded exponential
// backoff and jitter until it succeeds, runs out of attempts or close;
// posts every live subscription again, whose next image is a resync.
void Client::Impl::relink(Link *failed, std::error_code cause)
{
    report(State::reconnecting, cause);
    retire(failed);
    const Reconnect &r = options.reconnect;
    auto delay = std::max(r.initial_delay, std::chrono::milliseconds(1));
    for (unsigned attempt = 1;; attempt++) {
        if (r.max_attempts != 0 && attempt > r.max_attempts) {
            {
                std::lock_guard<std::mutex> lock(mu);
                state = State::failed;
                cv.notify_all(); // calls waiting for the link
            }
            report(State::failed, cause);
            return;
        }
        {
            std::unique_lock<std::mutex> lock(mu);
            if (work_cv.wait_for(lock, jitter(delay), [this] { return closed; })) return;
            connecting = true;
        }
        Link *l = nullptr;
        std::error_code ec = connect(l);
        std::vector<Sub> again;
        {
            std::unique_lock<std::mutex> lock(mu);
            connecting = false;
            if (closed) {
                lock.unlock();
                if (l != nullptr) retire(l);
                return;
            }
            if (ec) {
                cause = ec;
                delay = std::min(delay * 2, std::max(r.max_delay, std::chrono::milliseconds(1)));
                continue;
            }
            l->gen = ++gen;
            link = l;
            cv.notify_all(); // calls waiting for the link
            if (failed_meanwhile(l)) return; // the next relink is queued
            retry.clear();
            again = live();
            for (const Sub &s : again) {
                s->ready = false;
                s->retrying = false;
                s->cancel_first = false;
            }
        }
        for (const Sub &s : again) {
            if (repost(s) == Posted::done) continue;
            std::lock_guard<std::mutex> lock(mu);
            if (s->live && link == l) schedule_retry(s);
        }
        std::lock_guard<std::mutex> lock(mu);
        if (link == l) {
            state = State::connected;
            push(Task{Task::Report, State::connected});
        }
        return;
    }
}

// Joins the worker, or, when it is inside a connection attempt (which
// nothing can cut short), lets it finish that on its own: it holds the
// Impl and retires what it made.
void Client::Impl::end_worker(bool detach)
{
    if (!worker.joinable()) return;
    if (detach)
        worker.detach();
    else
        worker.join();
}

// ---- application side ----

// Cancels s: no callback of it runs after this returns (except the one this
// thread is inside); the worker sends the cancel. Any thread.
void Client::Impl::cancel(const Sub &s)
{
    std::unique_lock<std::mutex> lock(mu);
    if (!s->live) return;
    s->live = false;
    unindex(s);
    images.erase(s->post_id);
    cv.wait(lock, [&] { return delivering != s.get() || delivering_thread == std::this_thread::get_id(); });
    if (!closed && link != nullptr && link->gen == s->link_gen) queue_cancel(s);
}

// Ends everything. From the Client's own callback or worker, the part that
// must wait for that thread runs on a thread of its own.
void Client::Impl::shutdown()
{
    Link *l;
    bool detach;
    std::thread::id worker_thread;
    {
        std::lock_guard<std::mutex> lock(mu);
        if (closed) return;
        worker_thread = worker_id;
        closed = true;
        state = State::closed;
        for (const Sub &s : live()) s->live = false;
        exact.clear();
        prefixes.clear();
        prefix_lengths.clear();
        images.clear();
        retry.clear();
        cancels.clear();
        cancel_order.clear();
        get_deadlines.clear(); // the close answers those gets with error::closed
        l = std::exchange(link, nullptr);
        detach = connecting;
        cv.notify_all();
        work_cv.notify_all();
    }
    // Closing first ends a blocking call the worker may be in on l. On the
    // reader thread the close waits for the finishing thread instead, which
    // joins the reader once this callback has returned.
    bool on_reader = t_in_callback == this;
    if (l != nullptr && !on_reader) qel_hspace_close(l->h);
    auto finish = [self = shared_from_this(), l, detach] {
        self->end_worker(detach);
        if (l != nullptr) self->retire(l);
    };
    if (on_reader || std::this_thread::get_id() == worker_thread)
        std::thread(finish).detach();
    else
        finish();
}

// ---- Client ----

Client::Client() noexcept = default;

Client::Client(std::string url, Options options) : impl_(std::make_shared<Impl>(std::move(url), std::move(options)))
{
}

Client::~Client() { close(); }

Client::Client(Client &&other) noexcept = default;

Client &Client::operator=(Client &&other) noexcept
{
    if (this != &other) {
        close();
        impl_ = std::move(other.impl_);
    }
    return *this;
}

void Client::close() noexcept
{
    if (impl_ != nullptr) impl_->shutdown();
}

State Client::state() const noexcept { return impl_ != nullptr ? impl_->state.load() : State::closed; }

void Client::open()
{
    std::error_code ec;
    open(ec);
    if (!ec) return;
    std::string what = "qel::hspace::Client::open";
    if (impl_ != nullptr) {
        std::lock_guard<std::mutex> lock(impl_->mu);
        if (!impl_->open_detail.empty()) what += ": " + impl_->open_detail;
    }
    throw std::system_error(ec, what);
}

void Client::open(std::error_code &ec) noexcept
{
    ec.clear();
    if (impl_ == nullptr) return ec = make_error_code(error::invalid_state), void();
    std::call_once(g_init_once, [] { qel_hspace_initialize(QEL_HSPACE_VERSION, 1); });
    Impl &m = *impl_;
    {
        std::lock_guard<std::mutex> lock(m.mu);
        if (m.closed) return ec = make_error_code(error::closed), void();
        if (m.state.load() != State::idle || m.gen != 0) return ec = make_error_code(error::invalid_state), void();
        m.gen = ~uint64_t(0); // an open is under way
    }
    Impl::Link *l = nullptr;
    ec = m.connect(l);
    std::unique_lock<std::mutex> lock(m.mu);
    if (ec || m.closed) {
        m.gen = 0;
        lock.unlock();
        if (l != nullptr) m.retire(l), ec = make_error_code(error::closed);
        return;
    }
    l->gen = m.gen = 1;
    m.link = l;
    m.state = State::connected;
    if (!m.worker.joinable()) {
        m.worker = std::thread([self = impl_] { self->run_worker(); });
        m.worker_id = m.worker.get_id();
    }
    m.push(Impl::Task{Impl::Task::Report, State::connected});
    m.failed_meanwhile(l);
}

// Runs fn(handle, ckey, deadline) on a link, with the checks every call
// shares. A link whose handle failed before the call went out counts as
// down: the call fails fast with error::not_connected, or waits for the
// next link.
template <class F> static void with_link(Client::Impl *impl, std::string_view key, const Call &call,
                                         std::error_code &ec, F &&fn)
{
    ec.clear();
    if (impl == nullptr) return ec = make_error_code(error::invalid_state), void();
    CKey ckey(key);
    if (!ckey.valid()) return ec = make_error_code(error::invalid_argument), void();
    Deadline d = impl->deadline(call);
    for (;;) {
        Client::Impl::Link *l = impl->acquire(call, d, ec);
        if (l == nullptr) return;
        t_kro_error e = d.passed() ? KRO_ERR_TIMEOUT : fn(l->h, ckey.c_str(), d);
        if (e == KRO_ERR_INVALID_STATE && impl->options.reconnect.enabled && impl->handle_failed(l)) {
            impl->release(l);
            if (call.wait_for_link) continue;
            return ec = make_error_code(error::not_connected), void();
        }
        impl->release(l);
        if (e != 0) ec = make_error_code(e);
        return;
    }
}

static t_kro_error put_c(t_qel_hspace h, const char *key, std::string_view value, t_qel_hspace_put_semantic sem,
                         const Deadline &d)
{
    // Borrowed value: put encodes it into the request before returning.
    struct kro_buf buf = {1, 0, static_cast<t_kro_uint4>(value.size()), static_cast<t_kro_uint4>(value.size()), 1,
                          const_cast<char *>(value.data())};
    struct qel_hspace_object_struct object;
    kro_llist_node_init(&object);
    object.user_created = 1;
    object.key = key;
    object.data.buf = &buf;
    if (value.size() > HSPACE_PKT_MAX_LEN) return KRO_ERR_INVALID_ARG;
    return c_put(h, &object, sem, d);
}

void Client::put(std::string_view key, std::string_view value, const Call &call, std::error_code &ec) noexcept
{
    with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k, const Deadline &d) {
        return put_c(h, k, value, HSPACE_PUT_SYNC, d);
    });
}
void Client::put(std::string_view key, std::string_view value, std::error_code &ec) noexcept
{
    put(key, value, Call(), ec);
}
void Client::put(std::string_view key, std::string_view value, const Call &call)
{
    std::error_code ec;
    put(key, value, call, ec);
    throw_if(ec, "qel::hspace::Client::put");
}
void Client::put_noreply(std::string_view key, std::string_view value, std::error_code &ec) noexcept
{
    with_link(impl_.get(), key, Call(), ec, [&](t_qel_hspace h, const char *k, const Deadline &d) {
        return put_c(h, k, value, HSPACE_PUT_NOREPLY, d);
    });
}
void Client::put_noreply(std::string_view key, std::string_view value)
{
    std::error_code ec;
    put_noreply(key, value, ec);
    throw_if(ec, "qel::hspace::Client::put_noreply");
}

void Client::remove(std::string_view key, const Call &call, std::error_code &ec) noexcept
{
    with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k, const Deadline &d) {
        return c_remove(h, k, HSPACE_REMOVE_SYNC, d);
    });
}
void Client::remove(std::string_view key, std::error_code &ec) noexcept { remove(key, Call(), ec); }
void Client::remove(std::string_view key, const Call &call)
{
    std::error_code ec;
    remove(key, call, ec);
    throw_if(ec, "qel::hspace::Client::remove");
}
void Client::remove_noreply(std::string_view key, std::error_code &ec) noexcept
{
    with_link(impl_.get(), key, Call(), ec, [&](t_qel_hspace h, const char *k, const Deadline &d) {
        return c_remove(h, k, HSPACE_REMOVE_NOREPLY, d);
    });
}
void Client::remove_noreply(std::string_view key)
{
    std::error_code ec;
    remove_noreply(key, ec);
    throw_if(ec, "qel::hspace::Client::remove_noreply");
}

// Sends an asynchronous get whose answer goes to call, which the worker
// times out at call_timeout. Not under mu.
static t_kro_error send_get(Client::Impl &m, t_qel_hspace h, const char *key, bool key_only,
                            const std::shared_ptr<GetCall> &call, const Deadline &d)
{
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(m.mu);
        id = m.next_id++;
        m.gets[id] = call;
        if (d.bounded()) {
            if (m.get_deadlines.empty()) m.work_cv.notify_all();
            m.get_deadlines.emplace_back(d.at(), id);
        }
    }
    t_kro_error e = qel_hspace_get_timed(h, key, to_urid(id), HSPACE_GET_ASYNC,
                                         key_only ? HSPACE_GET_FLAG_KEY_ONLY : 0, nullptr, d.c_ms());
    if (e != 0) {
        std::lock_guard<std::mutex> lock(m.mu);
        m.gets.erase(id);
    }
    return e;
}

Objects Client::get(std::string_view key, const Call &call, std::error_code &ec) noexcept
{
    Objects result;
    with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k, const Deadline &d) {
        struct kro_llist list; // on the stack: no allocation
        list.head = &list;
        list.next = list.prev = reinterpret_cast<t_kro_llist_node>(&list);
        list.num_elements = 0;
        list.read_only = 0;
        t_kro_error e = qel_hspace_get_timed(h, k, nullptr, HSPACE_GET_SYNC, call.key_only ? HSPACE_GET_FLAG_KEY_ONLY : 0,
                                             &list, d.c_ms());
        result.reserve(static_cast<size_t>(list.num_elements));
        while (void *node = kro_llist_first(&list)) {
            kro_llist_remove(node);
            result.emplace_back(static_cast<t_qel_hspace_object>(node));
        }
        if (e != 0) result.clear();
        return e;
    });
    return result;
}
Objects Client::get(std::string_view key, std::error_code &ec) noexcept { return get(key, Call(), ec); }
Objects Client::get(std::string_view key, const Call &call)
{
    std::error_code ec;
    Objects r = get(key, call, ec);
    throw_if(ec, "qel::hspace::Client::get");
    return r;
}

void Client::get_async(std::string_view key, GetHandler done, bool key_only, std::error_code &ec) noexcept
{
    auto pending = std::make_shared<GetCall>();
    pending->handler = std::move(done);
    with_link(impl_.get(), key, Call(), ec, [&](t_qel_hspace h, const char *k, const Deadline &d) {
        return send_get(*impl_, h, k, key_only, pending, d);
    });
}
void Client::get_async(std::string_view key, GetHandler done, bool key_only)
{
    std::error_code ec;
    get_async(key, std::move(done), key_only, ec);
    throw_if(ec, "qel::hspace::Client::get_async");
}
std::future<Objects> Client::get_async(std::string_view key, bool key_only)
{
    auto promise = std::make_shared<std::promise<Objects>>();
    std::future<Objects> future = promise->get_future();
    std::error_code ec;
    get_async(
        key,
        [promise](std::error_code e, Objects &&objects) {
            if (e)
                promise->set_exception(std::make_exception_ptr(std::system_error(e, "qel::hspace::Client::get_async")));
            else
                promise->set_value(std::move(objects));
        },
        key_only, ec);
    if (ec) promise->set_exception(std::make_exception_ptr(std::system_error(ec, "qel::hspace::Client::get_async")));
    return future;
}

Subscription Client::subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                               const SubscribeOptions &options, const Call &call, std::error_code &ec) noexcept
{
    ec.clear();
    if (impl_ == nullptr) return ec = make_error_code(error::invalid_state), Subscription();
    if (key.empty() || memchr(key.data(), 0, key.size()) != nullptr)
        return ec = make_error_code(error::invalid_argument), Subscription();
    Impl &m = *impl_;
    if (t_in_callback == &m) return ec = make_error_code(error::would_deadlock), Subscription();
    Deadline d = m.deadline(call);
    auto s = std::make_shared<Subscription::State_>(impl_, key, options, std::move(on_image), std::move(on_change));
    std::unique_lock<std::mutex> lock(m.mu);
    // A cancel of the key still to be sent goes out first, from here; one
    // the worker is sending is waited for. The handle refuses a post while
    // it holds another of the key.
    for (;;) {
        if (m.closed) return ec = make_error_code(error::closed), Subscription();
        if (m.indexed(*s)) return ec = make_error_code(error::exists), Subscription();
        auto it = m.cancels.find(s->folded);
        if (it == m.cancels.end()) break;
        if (it->second.sending) {
            if (!d.wait(m.cv, lock, [&] { return m.closed || m.cancels.count(s->folded) == 0; }))
                return ec = make_error_code(error::timeout), Subscription();
            continue;
        }
        Impl::PendingCancel pending = std::move(it->second);
        m.cancels.erase(it);
        if (m.link == nullptr || m.link->gen != pending.gen) continue;
        Impl::Link *l = m.link;
        l->users++;
        lock.unlock();
        c_cancel(l->h, pending.sub->key.c_str(), d);
        lock.lock();
        m.release_locked(l);
    }
    Impl::Link *l = m.acquire(call, d, lock, ec);
    if (l == nullptr) return Subscription();
    uint64_t id = m.next_id++;
    s->post_id = id;
    s->link_gen = l->gen;
    m.index(s);
    m.images[id] = s;
    lock.unlock();
    t_kro_error e = d.passed() ? KRO_ERR_TIMEOUT
                               : c_post(l->h, s->key.c_str(), id, options.triggers, Impl::post_flags(options), d);
    lock.lock();
    m.release_locked(l);
    if (e != 0 && s->post_id == id) { // not posted again meanwhile on a new link
        m.images.erase(id);
        m.unindex(s);
        s->live = false;
        if (e == KRO_ERR_TIMEOUT && !m.closed && m.link == l) m.queue_cancel(s); // the service may hold it
        ec = make_error_code(e);
        return Subscription();
    }
    bool settled = d.wait(m.cv, lock, [&] { return s->settled || !s->live || m.closed; });
    if (!settled && m.delivering == s.get()) // its image arrived in time and is being delivered
        m.cv.wait(lock, [&] { return s->settled || !s->live; });
    if (m.closed) return ec = make_error_code(error::closed), Subscription();
    if (!s->live) return ec = make_error_code(s->refused != 0 ? s->refused : KRO_ERR_CLOSED), Subscription();
    if (!s->settled) {
        lock.unlock();
        m.cancel(s);
        return ec = make_error_code(error::timeout), Subscription();
    }
    return Subscription(std::move(s));
}
Subscription Client::subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                               const SubscribeOptions &options, std::error_code &ec) noexcept
{
    return subscribe(key, std::move(on_image), std::move(on_change), options, Call(), ec);
}
Subscription Client::subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                               const SubscribeOptions &options, const Call &call)
{
    std::error_code ec;
    Subscription s = subscribe(key, std::move(on_image), std::move(on_change), options, call, ec);
    throw_if(ec, "qel::hspace::Client::subscribe");
    return s;
}

void Subscription::reset() noexcept
{
    std::shared_ptr<State_> s = std::move(state_);
    if (s == nullptr) return;
    if (std::shared_ptr<Client::Impl> impl = s->client.lock()) impl->cancel(s);
}

} // namespace hspace
} // namespace qel
