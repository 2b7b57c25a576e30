/*
 * qel_hspace_client.cpp - the C++ face (qel_hspace.hpp) over the C API.
 *
 * A Client owns one link at a time: a C handle plus the count of calls
 * running on it. Every handle's single C callback finds its Client through
 * a registry and routes the event: get answers by urid to the waiting call,
 * subscription images by urid and notifications by key or pattern to the
 * Subscription objects. urids are 64-bit ids drawn from the Client, never
 * pointers, so a late answer for a forgotten id is found by nobody and its
 * objects are freed.
 *
 * Threads: application threads make calls; the handle's reader thread runs
 * every callback; the Client's worker thread re-establishes a failed link,
 * reports state changes and sends cancels that a callback asked for (the
 * reader thread cannot send blocking requests on its own handle).
 *
 * Locking: Impl::mu guards everything of an Impl not marked atomic and every
 * Subscription::State_ field but the constant ones. It is never held across
 * a C call that blocks or a user callback.
 */
#include "qel_hspace.hpp"

#include <string.h>
#include <strings.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <unordered_map>

#include "qel_hspacep.h"

namespace qel {
namespace hspace {

// ---- errors ----

namespace {

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
        case KRO_ERR_BAD_ADDRESS: return std::errc::invalid_argument;
        case KRO_ERR_INVALID_STATE: return std::errc::operation_not_permitted;
        case KRO_ERR_NOT_SUPPORTED: return std::errc::not_supported;
        case KRO_ERR_CLOSED: return std::errc::operation_canceled;
        case KRO_ERR_EXISTS: return std::errc::file_exists;
        case KRO_ERR_BAD_PROTOCOL: return std::errc::protocol_not_supported;
        case KRO_ERR_WOULD_DEADLOCK: return std::errc::resource_deadlock_would_occur;
        case KRO_ERR_CONN_REFUSED: return std::errc::connection_refused;
        case KRO_ERR_HOST_NOT_FOUND: return std::errc::host_unreachable;
        case KRO_ERR_PEER_CLOSED: return std::errc::connection_reset;
        case KRO_ERR_INTERRUPTED: return std::errc::interrupted;
        case KRO_ERR_INVALID_PACKET: return std::errc::bad_message;
        case KRO_ERR_NOT_CONNECTED: return std::errc::not_connected;
        case KRO_ERR_TIMEOUT: return std::errc::timed_out;
        case KRO_ERR_NO_MEMORY: return std::errc::not_enough_memory;
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

// A deep copy of a library-made object (a notification routed to several
// subscriptions gets one object per subscription).
t_qel_hspace_object clone_object(t_qel_hspace_object source)
{
    t_kro_buf from = source->data.buf;
    return qel_hspace_object_make(source->key, static_cast<t_kro_uint4>(strlen(source->key)),
                                  from ? static_cast<const char *>(from->ptr) + from->pos : nullptr,
                                  from ? from->lim - from->pos : 0);
}

// A failure of the link or a close, as opposed to a status the service sent.
bool is_link_error(t_kro_error e)
{
    return e == KRO_ERR_CLOSED || (e > KRO_ERR_RUNTIME_BASE && e < KRO_ERR_RUNTIME_BASE + 100);
}

void *to_urid(uint64_t id) { return reinterpret_cast<void *>(static_cast<uintptr_t>(id)); }
uint64_t from_urid(void *urid) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(urid)); }

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

// One subscription. key, pattern, options and handlers are constant; the
// rest is guarded by the Client's Impl::mu.
struct __attribute__((visibility("hidden"))) Subscription::State_ {
    std::weak_ptr<Client::Impl> client;    // the Client; expired once it is gone
    std::string key;                       // key or pattern as subscribed
    bool pattern = false;                  // key ends in '*'
    SubscribeOptions options;
    Client::ImageHandler on_image;
    Client::ChangeHandler on_change;
    bool live = true;                      // mu: callbacks may run; cleared by cancel, close or a refused image
    uint64_t image_id = 0;                 // mu: urid of the post on the current link
    uint64_t link_gen = 0;                 // mu: the link it is posted on
    bool resync = false;                   // mu: the open image follows a re-established link
    Objects image;                         // mu: objects of the open image (reader thread fills it)

    bool selects(std::string_view k) const
    {
        return pattern ? k.substr(0, key.size() - 1) == std::string_view(key).substr(0, key.size() - 1) : k == key;
    }
};

// One get answered through events: a get with a deadline, get_async.
struct GetCall {
    Objects objects;                       // mu: the answer so far
    t_kro_error status = 0;                // mu: once done
    bool done = false;                     // mu: the final event arrived
    Client::GetHandler handler;            // set: run on the reader thread once done
};

struct __attribute__((visibility("hidden"))) Client::Impl : std::enable_shared_from_this<Client::Impl> {
    // A C handle and the calls running on it. Freed by retire().
    struct Link {
        t_qel_hspace h = nullptr;
        uint64_t gen = 0;                  // number of this link, from 1
        int users = 0;                     // mu: calls on h that have not returned
        bool retiring = false;             // mu: retire() waits for users to reach 0
        bool failed = false;               // mu: its failure was handled
    };
    struct Task {
        enum Kind { Report, Relink, Cancel } kind;
        explicit Task(Kind k, State s = State::idle) : kind(k), state(s) {}
        State state = State::idle;         // Report
        std::error_code ec;                // Report, Relink: the cause
        Link *link = nullptr;              // Relink: the failed link
        std::string key;                   // Cancel
        uint64_t gen = 0;                  // Cancel: the link it was posted on
    };

    Impl(std::string u, Options o) : url(std::move(u)), options(std::move(o)) {}
    ~Impl() { KRO_CHECK(link == nullptr && !worker.joinable()); }

    const std::string url;
    const Options options;
    std::atomic<State> state{State::idle};
    std::mutex mu;
    std::condition_variable cv;            // any change of the fields under mu that someone waits for
    Link *link = nullptr;                  // mu: the link calls use; null unless connected (or failed, kept)
    uint64_t gen = 0;                      // mu: links made so far
    uint64_t next_id = 1;                  // mu: the next urid
    bool closed = false;                   // mu: close() ran
    std::unordered_map<uint64_t, std::shared_ptr<GetCall>> gets;              // mu: by urid
    std::unordered_map<uint64_t, std::shared_ptr<Subscription::State_>> images; // mu: open images by urid
    std::vector<std::shared_ptr<Subscription::State_>> subs;                  // mu: live subscriptions
    const Subscription::State_ *delivering = nullptr; // mu: whose callback runs now
    std::thread::id delivering_thread;     // mu: the thread running it
    std::deque<Task> tasks;                // mu: for the worker
    std::thread worker;                    // started by the first open
    std::thread::id worker_id;             // set before the worker starts
    std::string open_detail;               // mu: why the last failed connect failed, in detail

    // ---- links ----

    Link *acquire(const Call &call, std::error_code &ec);
    void release(Link *l);
    std::error_code connect(Link *&out);
    void retire(Link *l);

    // ---- events (reader thread) ----

    void dispatch(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data);
    void link_failed(std::error_code cause);
    bool failed_meanwhile(Link *l);
    template <class F> void deliver(const std::shared_ptr<Subscription::State_> &s, F &&fn);

    // ---- worker ----

    void run_worker();
    void relink(Link *failed, std::error_code cause);
    bool post(const std::shared_ptr<Subscription::State_> &s);
    void push(Task t);
    void report(State s, std::error_code ec);

    // ---- application side ----

    void shutdown();
    void cancel(const std::shared_ptr<Subscription::State_> &s);
};

// ---- registry: C handle -> Impl ----

namespace {

std::mutex g_registry_mu;                                             // guards g_registry
std::unordered_map<t_qel_hspace, std::weak_ptr<Client::Impl>> g_registry; // every handle a Client made
thread_local const Client::Impl *t_in_callback = nullptr;             // the Client whose callback this thread runs

void registry_add(t_qel_hspace h, const std::shared_ptr<Client::Impl> &impl)
{
    std::lock_guard<std::mutex> lock(g_registry_mu);
    g_registry[h] = impl;
}

void registry_remove(t_qel_hspace h)
{
    std::lock_guard<std::mutex> lock(g_registry_mu);
    g_registry.erase(h);
}

void c_event(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data)
{
    std::shared_ptr<Client::Impl> impl;
    {
        std::lock_guard<std::mutex> lock(g_registry_mu);
        auto it = g_registry.find(h);
        if (it != g_registry.end()) impl = it->second.lock();
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
// waits up to call.timeout for the link to come back).
Client::Impl::Link *Client::Impl::acquire(const Call &call, std::error_code &ec)
{
    std::unique_lock<std::mutex> lock(mu);
    if (link == nullptr && call.wait_for_link && !closed) {
        auto ready = [this] { return link != nullptr || closed || state.load() != State::reconnecting; };
        if (call.timeout.count() > 0)
            cv.wait_for(lock, call.timeout, ready);
        else
            cv.wait(lock, ready);
    }
    if (link == nullptr) {
        State s = state.load();
        ec = make_error_code(closed ? error::closed : s == State::idle ? error::invalid_state : error::not_connected);
        return nullptr;
    }
    link->users++;
    return link;
}

void Client::Impl::release(Link *l)
{
    std::lock_guard<std::mutex> lock(mu);
    if (--l->users == 0 && l->retiring) cv.notify_all();
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
    if (e == 0) e = qel_hspace_open_timed(h, static_cast<t_kro_uint4>(options.open_timeout.count()));
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
    KRO_CHECK(qel_hspace_destroy(&l->h) == 0);
    delete l;
}

// ---- events ----

// Runs fn (a callback of s) unless s was cancelled; a cancel from another
// thread meanwhile waits for it to return. Reader thread, mu not held.
template <class F> void Client::Impl::deliver(const std::shared_ptr<Subscription::State_> &s, F &&fn)
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
    cv.notify_all();
}

void Client::Impl::dispatch(t_qel_hspace h, t_qel_hspace_event event, t_kro_ptr data)
{
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE) {
        auto *d = static_cast<t_qel_hspace_reply_image_event_data_struct *>(data);
        Object object(d->object);
        bool final = d->status != 0 || d->object == nullptr || d->index == d->cardinality;
        uint64_t id = from_urid(d->urid);
        std::unique_lock<std::mutex> lock(mu);
        if (event == HSPACE_EVENT_GET_REPLY) {
            auto it = gets.find(id);
            if (it == gets.end()) return; // the caller gave up: object freed here
            std::shared_ptr<GetCall> call = it->second;
            if (object) call->objects.push_back(std::move(object));
            if (!final) return;
            gets.erase(it);
            call->status = d->status;
            call->done = true;
            if (!call->handler) {
                cv.notify_all();
                return;
            }
            lock.unlock();
            call->handler(make_error_code(call->status), std::move(call->objects));
            return;
        }
        auto it = images.find(id);
        if (it == images.end()) return;
        std::shared_ptr<Subscription::State_> s = it->second;
        if (object) s->image.push_back(std::move(object));
        if (!final) return;
        images.erase(it);
        Image image;
        image.objects = std::move(s->image);
        image.resync = s->resync;
        if (d->status != 0) {
            // The end of the link also ends the image: a resync follows, or close.
            if (is_link_error(d->status)) return;
            image.objects.clear();
            image.error = make_error_code(d->status);
        }
        lock.unlock();
        deliver(s, [&] { s->on_image(std::move(image)); });
        if (d->status != 0) {
            lock.lock();
            s->live = false; // the service ended it
            subs.erase(std::remove(subs.begin(), subs.end(), s), subs.end());
        }
        return;
    }
    if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        auto *d = static_cast<t_qel_hspace_post_notification_event_data_struct *>(data);
        Object object(d->object);
        std::vector<std::shared_ptr<Subscription::State_>> selected;
        {
            std::lock_guard<std::mutex> lock(mu);
            for (const auto &s : subs)
                if (link != nullptr && s->link_gen == link->gen && s->selects(object.key())) selected.push_back(s);
        }
        for (size_t i = 0; i < selected.size(); i++) {
            Change change;
            change.trigger = d->trigger;
            change.object = i + 1 == selected.size() ? std::move(object) : Object(clone_object(object.native()));
            deliver(selected[i], [&] { selected[i]->on_change(std::move(change)); });
        }
        return;
    }
    // HSPACE_EVENT_LINK_FAIL: last event of h. A link not yet published
    // when it failed is caught by failed_meanwhile().
    auto *d = static_cast<t_qel_hspace_fail_event_data_struct *>(data);
    std::lock_guard<std::mutex> lock(mu);
    if (!closed && link != nullptr && link->h == h) link_failed(make_error_code(d->error));
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
    cv.notify_all();
}

void Client::Impl::report(State s, std::error_code ec)
{
    if (options.on_state) options.on_state(s, ec);
}

void Client::Impl::run_worker()
{
    std::unique_lock<std::mutex> lock(mu);
    for (;;) {
        cv.wait(lock, [this] { return closed || !tasks.empty(); });
        if (tasks.empty()) return; // closed
        Task t = std::move(tasks.front());
        tasks.pop_front();
        lock.unlock();
        if (t.kind == Task::Report) {
            report(t.state, t.ec);
        } else if (t.kind == Task::Relink) {
            relink(t.link, t.ec);
        } else {
            Call call;
            std::error_code ignored;
            if (Link *l = acquire(call, ignored)) {
                if (l->gen == t.gen) qel_hspace_cancel(l->h, t.key.c_str(), HSPACE_CANCEL_SYNC, 0);
                release(l);
            }
        }
        lock.lock();
    }
}

// Posts s on the current link as a fresh subscription. False when the link
// is gone or the post failed. Not under mu.
bool Client::Impl::post(const std::shared_ptr<Subscription::State_> &s)
{
    Link *l;
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(mu);
        if (!s->live || link == nullptr) return false;
        l = link;
        l->users++;
        id = next_id++;
        s->image_id = id;
        s->link_gen = l->gen;
        s->image.clear();
        if (!s->options.no_image) images[id] = s;
    }
    t_kro_int4 flags = (s->options.no_image ? HSPACE_POST_FLAG_NO_IMAGE : 0) |
                       (s->options.key_only ? HSPACE_POST_FLAG_KEY_ONLY : 0);
    t_kro_error e = qel_hspace_post(l->h, s->key.c_str(), to_urid(id), HSPACE_POST_SYNC, s->options.triggers, flags);
    std::lock_guard<std::mutex> lock(mu);
    if (e != 0) images.erase(id);
    if (--l->users == 0 && l->retiring) cv.notify_all();
    return e == 0;
}

// Worker: retires the failed link, then connects with bounded exponential
// backoff and jitter until it succeeds, runs out of attempts or close;
// re-posts every live subscription, whose next image is a resync.
void Client::Impl::relink(Link *failed, std::error_code cause)
{
    report(State::reconnecting, cause);
    retire(failed);
    const Reconnect &r = options.reconnect;
    std::minstd_rand random(std::random_device{}());
    auto delay = std::max(r.initial_delay, std::chrono::milliseconds(1));
    for (unsigned attempt = 1;; attempt++) {
        if (r.max_attempts != 0 && attempt > r.max_attempts) {
            state = State::failed;
            report(State::failed, cause);
            return;
        }
        // Equal jitter: half the delay fixed, half random.
        auto wait = delay / 2 + std::chrono::milliseconds(random() % (delay.count() / 2 + 1));
        {
            std::unique_lock<std::mutex> lock(mu);
            if (cv.wait_for(lock, wait, [this] { return closed; })) return;
        }
        Link *l = nullptr;
        std::error_code ec = connect(l);
        if (ec) {
            cause = ec;
            delay = std::min(delay * 2, std::max(r.max_delay, std::chrono::milliseconds(1)));
            continue;
        }
        std::vector<std::shared_ptr<Subscription::State_>> again;
        {
            std::unique_lock<std::mutex> lock(mu);
            if (closed) {
                lock.unlock();
                retire(l);
                return;
            }
            l->gen = ++gen;
            link = l;
            if (failed_meanwhile(l)) return; // the next relink is queued
            for (const auto &s : subs) {
                s->resync = true;
                again.push_back(s);
            }
        }
        for (const auto &s : again) post(s);
        std::lock_guard<std::mutex> lock(mu);
        if (link == l) {
            state = State::connected;
            push(Task{Task::Report, State::connected});
        }
        return;
    }
}

// ---- application side ----

// Cancels s: no callback of it runs after this returns (except the one this
// thread is inside). Any thread.
void Client::Impl::cancel(const std::shared_ptr<Subscription::State_> &s)
{
    std::unique_lock<std::mutex> lock(mu);
    if (!s->live) return;
    s->live = false;
    subs.erase(std::remove(subs.begin(), subs.end(), s), subs.end());
    images.erase(s->image_id);
    cv.wait(lock, [&] { return delivering != s.get() || delivering_thread == std::this_thread::get_id(); });
    if (link == nullptr || link->gen != s->link_gen) return; // not posted on the link calls use
    if (t_in_callback == this) { // the reader thread cannot wait for the answer
        Task t{Task::Cancel};
        t.key = s->key;
        t.gen = s->link_gen;
        push(std::move(t));
        return;
    }
    Link *l = link;
    l->users++;
    lock.unlock();
    qel_hspace_cancel(l->h, s->key.c_str(), HSPACE_CANCEL_SYNC, 0);
    release(l);
}

// Ends everything. From the Client's own callback or worker, the part that
// must wait for that thread runs on a thread of its own.
void Client::Impl::shutdown()
{
    Link *l;
    {
        std::lock_guard<std::mutex> lock(mu);
        if (closed) return;
        closed = true;
        state = State::closed;
        for (auto &s : subs) s->live = false;
        subs.clear();
        images.clear();
        l = std::exchange(link, nullptr);
        cv.notify_all();
    }
    // Closing first ends a blocking call the worker may be in on l. On the
    // reader thread the close waits for the finishing thread instead, which
    // joins the reader once this callback has returned.
    bool on_reader = t_in_callback == this;
    if (l != nullptr && !on_reader) qel_hspace_close(l->h);
    auto finish = [self = shared_from_this(), l] {
        if (self->worker.joinable()) self->worker.join();
        if (l != nullptr) self->retire(l);
    };
    if (on_reader || std::this_thread::get_id() == worker_id)
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
        m.worker = std::thread([&m] { m.run_worker(); });
        m.worker_id = m.worker.get_id();
    }
    m.push(Impl::Task{Impl::Task::Report, State::connected});
    m.failed_meanwhile(l);
}

// Runs fn(handle, ckey) on a link, with the checks every call shares.
template <class F> static void with_link(Client::Impl *impl, std::string_view key, const Call &call,
                                         std::error_code &ec, F &&fn)
{
    ec.clear();
    if (impl == nullptr) return ec = make_error_code(error::invalid_state), void();
    CKey ckey(key);
    if (!ckey.valid()) return ec = make_error_code(error::invalid_argument), void();
    Client::Impl::Link *l = impl->acquire(call, ec);
    if (l == nullptr) return;
    t_kro_error e = fn(l->h, ckey.c_str());
    impl->release(l);
    if (e != 0) ec = make_error_code(e);
}

static t_kro_error put_c(t_qel_hspace h, const char *key, std::string_view value, t_qel_hspace_put_semantic sem)
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
    return qel_hspace_put(h, &object, sem, 0);
}

void Client::put(std::string_view key, std::string_view value, const Call &call, std::error_code &ec) noexcept
{
    with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k) {
        return put_c(h, k, value, HSPACE_PUT_SYNC);
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
    with_link(impl_.get(), key, Call(), ec, [&](t_qel_hspace h, const char *k) {
        return put_c(h, k, value, HSPACE_PUT_NOREPLY);
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
    with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k) {
        return qel_hspace_remove(h, k, HSPACE_REMOVE_SYNC, 0);
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
    with_link(impl_.get(), key, Call(), ec, [&](t_qel_hspace h, const char *k) {
        return qel_hspace_remove(h, k, HSPACE_REMOVE_NOREPLY, 0);
    });
}
void Client::remove_noreply(std::string_view key)
{
    std::error_code ec;
    remove_noreply(key, ec);
    throw_if(ec, "qel::hspace::Client::remove_noreply");
}

// Sends an asynchronous get whose answer goes to call; the urid is returned
// in *id. Not under mu.
static t_kro_error send_get(Client::Impl &m, t_qel_hspace h, const char *key, bool key_only,
                            const std::shared_ptr<GetCall> &call, uint64_t *id)
{
    {
        std::lock_guard<std::mutex> lock(m.mu);
        *id = m.next_id++;
        m.gets[*id] = call;
    }
    t_kro_error e = qel_hspace_get(h, key, to_urid(*id), HSPACE_GET_ASYNC, 0, key_only ? HSPACE_GET_FLAG_KEY_ONLY : 0,
                                   nullptr);
    if (e != 0) {
        std::lock_guard<std::mutex> lock(m.mu);
        m.gets.erase(*id);
    }
    return e;
}

Objects Client::get(std::string_view key, const Call &call, std::error_code &ec) noexcept
{
    Objects result;
    auto deadline = std::chrono::steady_clock::now() + call.timeout;
    if (call.timeout.count() == 0) {
        with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k) {
            struct kro_llist list; // on the stack: no allocation
            list.head = &list;
            list.next = list.prev = reinterpret_cast<t_kro_llist_node>(&list);
            list.num_elements = 0;
            list.read_only = 0;
            t_kro_error e = qel_hspace_get(h, k, nullptr, HSPACE_GET_SYNC, 0,
                                           call.key_only ? HSPACE_GET_FLAG_KEY_ONLY : 0, &list);
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
    // With a deadline: an asynchronous get, and a wait here that may give up.
    auto pending = std::make_shared<GetCall>();
    uint64_t id = 0;
    with_link(impl_.get(), key, call, ec, [&](t_qel_hspace h, const char *k) {
        return send_get(*impl_, h, k, call.key_only, pending, &id);
    });
    if (ec) return result;
    Impl &m = *impl_;
    std::unique_lock<std::mutex> lock(m.mu);
    if (!m.cv.wait_until(lock, deadline, [&] { return pending->done; })) {
        m.gets.erase(id); // the late answer is freed by the reader thread
        ec = make_error_code(error::timeout);
        return result;
    }
    if (pending->status != 0) {
        ec = make_error_code(pending->status);
        return result;
    }
    return std::move(pending->objects);
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
    uint64_t id = 0;
    with_link(impl_.get(), key, Call(), ec, [&](t_qel_hspace h, const char *k) {
        return send_get(*impl_, h, k, key_only, pending, &id);
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
                               const SubscribeOptions &options, std::error_code &ec) noexcept
{
    ec.clear();
    if (impl_ == nullptr) return ec = make_error_code(error::invalid_state), Subscription();
    if (key.empty() || memchr(key.data(), 0, key.size()) != nullptr)
        return ec = make_error_code(error::invalid_argument), Subscription();
    auto s = std::make_shared<Subscription::State_>();
    s->client = impl_;
    s->key.assign(key);
    s->pattern = key.back() == '*';
    s->options = options;
    s->on_image = on_image ? std::move(on_image) : [](Image &&) {};
    s->on_change = on_change ? std::move(on_change) : [](Change &&) {};
    Impl &m = *impl_;
    Impl::Link *l = m.acquire(Call(), ec);
    if (l == nullptr) return Subscription();
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(m.mu);
        id = m.next_id++;
        s->image_id = id;
        s->link_gen = l->gen;
        if (!options.no_image) m.images[id] = s;
        m.subs.push_back(s); // before the post: the first change may beat its return
    }
    t_kro_int4 flags = (options.no_image ? HSPACE_POST_FLAG_NO_IMAGE : 0) | (options.key_only ? HSPACE_POST_FLAG_KEY_ONLY : 0);
    t_kro_error e = qel_hspace_post(l->h, s->key.c_str(), to_urid(id), HSPACE_POST_SYNC, options.triggers, flags);
    m.release(l);
    if (e != 0) {
        std::lock_guard<std::mutex> lock(m.mu);
        s->live = false;
        m.images.erase(id);
        m.subs.erase(std::remove(m.subs.begin(), m.subs.end(), s), m.subs.end());
        ec = make_error_code(e);
        return Subscription();
    }
    return Subscription(std::move(s));
}
Subscription Client::subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                               const SubscribeOptions &options)
{
    std::error_code ec;
    Subscription s = subscribe(key, std::move(on_image), std::move(on_change), options, ec);
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
