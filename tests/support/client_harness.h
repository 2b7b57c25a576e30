/*
 * client_harness.h - what the client tests share: watchdogs, blocking calls
 * on helper threads, the recorder of a handle's events, handles opened on the
 * fake service, objects and result lists. Header-only (qel_test_support does
 * not link the library). Every wait is bounded; nothing sleeps.
 */
#ifndef QEL_TESTS_CLIENT_HARNESS_H
#define QEL_TESTS_CLIENT_HARNESS_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <future>
#include <map>

#include <gtest/gtest.h>

#include "certs.h"
#include "fake_service.h" // chrono, threads, strings, containers
#include "qel_hspace.h"

namespace hspace {
namespace test {

namespace codec = hspace::codec;

constexpr std::chrono::milliseconds kBound{10000}; // bound of every single wait
constexpr std::chrono::seconds kTestBound{30};     // bound of a whole test (or of one Kick())

using Pairs = std::vector<std::pair<std::string, std::string>>; // (key, value) of objects

// A call or the test hung; with a thread still inside the library going on is unsafe.
[[noreturn]] inline void Die(const char *what) { fprintf(stderr, "watchdog: %s\n", what), fflush(stderr), abort(); }

inline void InitLibrary() { ASSERT_EQ(0u, qel_hspace_initialize(QEL_HSPACE_VERSION, 1)); } // any number of times

// Defined by a white-box source that includes the library; both take the mutex.
int RequestCount(t_qel_hspace hspace); // records in the request table
void SetCorrelationCounter(t_qel_hspace hspace, uint32_t sno);

// Aborts the process when the test has not finished (or kicked it) within
// kTestBound, so a blocking call on the test thread fails fast.
class Watchdog {
public:
    Watchdog() : deadline_(std::chrono::steady_clock::now() + kTestBound), thread_([this] { Run(); }) {}
    ~Watchdog()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        done_ = true;
        cond_.notify_all();
        lock.unlock();
        thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

    void Kick() // another kTestBound from now (loops call it once per round)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        deadline_ = std::chrono::steady_clock::now() + kTestBound;
    }

private:
    void Run() // a Kick() during a wait moves the deadline the next wait uses
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!cond_.wait_until(lock, deadline_, [this] { return done_; }))
            if (std::chrono::steady_clock::now() >= deadline_) Die("the test did not finish in time");
    }

    std::mutex mutex_;                               // guards deadline_ and done_
    std::condition_variable cond_;                   // signals done_
    std::chrono::steady_clock::time_point deadline_; // abort after this
    bool done_ = false;                              // the test finished
    std::thread thread_;                             // runs Run()
};

// A blocking library call on a helper thread; result() waits at most kBound, then Die()s.
class Call {
public:
    explicit Call(std::function<t_kro_error()> fn) : result_(std::async(std::launch::async, std::move(fn))) {}
    ~Call() { result(); }

    t_kro_error result() // may be asked again
    {
        if (result_.valid() && result_.wait_for(kBound) != std::future_status::ready) Die("a library call did not return");
        if (result_.valid()) value_ = result_.get();
        return value_;
    }

private:
    std::future<t_kro_error> result_; // of the call on its own thread; invalid once read
    t_kro_error value_ = 0;           // the result, once read
};

// Runs fn, which must return without an answer from the service, so a wrong wait fails fast.
inline t_kro_error Bounded(std::function<t_kro_error()> fn) { return Call(std::move(fn)).result(); }

inline std::string ObjectKey(t_qel_hspace_object object)
{
    t_kro_str key = nullptr;
    EXPECT_EQ(0u, qel_hspace_object_get_key(object, &key));
    return key != nullptr ? std::string(key) : std::string("<null>");
}

inline std::string ObjectValue(t_qel_hspace_object object)
{
    t_kro_ptr data = nullptr;
    EXPECT_EQ(0u, qel_hspace_object_get_data(object, &data));
    t_kro_buf buf = static_cast<t_kro_buf>(data);
    if (buf == nullptr) return std::string();
    return std::string(static_cast<const char *>(buf->ptr) + buf->pos, buf->lim - buf->pos);
}

// One event as the callback saw it; the callback copies and destroys the object.
struct Event {
    t_qel_hspace_event type = HSPACE_EVENT_LINK_FAIL; // which event
    t_kro_ptr urid = nullptr;     // reply-image: the request's urid
    std::string key;              // reply-image: the request's key
    t_kro_error status = 0;       // reply-image: the status; link failure: the error
    uint32_t cardinality = 0;     // reply-image: objects in the answer
    uint32_t index = 0;           // reply-image: this object's number
    int trigger = 0;              // notification: the trigger
    bool has_object = false;      // an object came with the event
    bool value_null = false;      // the object's data buffer was null
    std::string object_key;       // copy of the object's key
    std::string object_value;     // copy of the object's value
    t_qel_hspace_state state = HSPACE_STATE_INIT; // the handle's state when the callback began

    // The last event of an answer: a failure, an empty answer or object count of count.
    bool is_final() const { return status != 0 || !has_object || index == cardinality; }
};

// Collects events in the order raised; record() runs on the reader thread. Thread-safe.
class Recorder {
public:
    using Hook = std::function<void(t_qel_hspace, const Event &)>;

    void reset() // forgets the events and the hook
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
        hook_ = nullptr;
    }
    // hook runs inside the callback before the event is recorded, so a waiter
    // that sees the event also sees the hook's work.
    void set_hook(Hook hook)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }

    void record(t_qel_hspace hspace, t_qel_hspace_event type, t_kro_ptr data)
    {
        Event e;
        t_qel_hspace_object object = nullptr;
        running_.fetch_add(1);
        e.type = type;
        EXPECT_EQ(0u, qel_hspace_get_state(hspace, &e.state));
        if (type == HSPACE_EVENT_LINK_FAIL) {
            e.status = static_cast<t_qel_hspace_fail_event_data_struct *>(data)->error;
        } else if (type == HSPACE_EVENT_POST_NOTIFICATION) {
            auto *d = static_cast<t_qel_hspace_post_notification_event_data_struct *>(data);
            e.trigger = d->trigger;
            object = d->object;
        } else {
            auto *d = static_cast<t_qel_hspace_reply_image_event_data_struct *>(data);
            e.urid = d->urid;
            e.key = d->key != nullptr ? d->key : "<null>";
            e.status = d->status;
            e.cardinality = d->cardinality;
            e.index = d->index;
            object = d->object;
        }
        if (object != nullptr) {
            t_kro_ptr value = nullptr;
            e.has_object = true;
            e.object_key = ObjectKey(object);
            EXPECT_EQ(0u, qel_hspace_object_get_data(object, &value));
            e.value_null = value == nullptr;
            e.object_value = ObjectValue(object);
            EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
        }
        std::unique_lock<std::mutex> lock(mutex_);
        Hook hook = hook_;
        lock.unlock();
        if (hook) hook(hspace, e);
        lock.lock();
        events_.push_back(std::move(e));
        cond_.notify_all();
        lock.unlock();
        running_.fetch_sub(1);
    }

    // At least n events recorded within kBound; else false and a failure.
    bool wait_count(size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (cond_.wait_for(lock, kBound, [&] { return events_.size() >= n; })) return true;
        ADD_FAILURE() << "watchdog: " << events_.size() << " events of " << n << " within " << kBound.count()
                      << " ms";
        return false;
    }
    // Waits for the first match; returns and forgets the events before it,
    // and forgets it. Empty, and a failure, when none comes within kBound.
    std::vector<Event> take_until(std::function<bool(const Event &)> match)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        size_t at = 0;
        auto found = [&] {
            for (at = 0; at < events_.size(); at++)
                if (match(events_[at])) return true;
            return false;
        };
        if (!cond_.wait_for(lock, kBound, found)) {
            ADD_FAILURE() << "watchdog: no matching event within " << kBound.count() << " ms";
            return {};
        }
        std::vector<Event> before(events_.begin(), events_.begin() + (long)at);
        events_.erase(events_.begin(), events_.begin() + (long)at + 1);
        return before;
    }
    size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_.size();
    }
    std::vector<Event> events()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    int running() const { return running_.load(); } // callbacks inside record()

private:
    std::mutex mutex_;             // guards events_ and hook_
    std::condition_variable cond_; // signals events_ growing
    std::vector<Event> events_;    // in arrival order
    Hook hook_;                    // may be empty
    std::atomic<int> running_{0};  // callbacks inside record()
};

inline std::mutex g_registry_mutex;                   // guards g_registry
inline std::map<t_qel_hspace, Recorder *> g_registry; // the recorder of each Client's handle

// The callback of every test handle: its Client's recorder, else one nobody reads.
inline void OnEvent(t_qel_hspace hspace, t_qel_hspace_event type, t_kro_ptr data)
{
    static Recorder unowned;
    Recorder *recorder = &unowned;
    {
        std::lock_guard<std::mutex> lock(g_registry_mutex);
        auto it = g_registry.find(hspace);
        if (it != g_registry.end()) recorder = it->second;
    }
    recorder->record(hspace, type, data);
}

// The service's side of TLS for the fake: the test CA's server certificate,
// and alice's asked for when client_ca.
inline FakeTls ServiceTls(bool client_ca = true)
{
    return FakeTls{Certs().server.cert, Certs().server.key, client_ca ? Certs().ca : std::string()};
}

// The client's side: the test CA, and alice's certificate.
inline qel_hspace_tls_options ClientTls()
{
    return {QEL_HSPACE_TLS_OPTIONS_VERSION, Certs().ca.c_str(), Certs().alice.cert.c_str(),
            Certs().alice.key.c_str(), nullptr};
}

inline t_kro_error Create(const std::string &url, const char *name, const char *group, t_qel_hspace *hspace)
{
    qel_hspace_create_data data = {url.c_str(), name, group};
    return qel_hspace_create(&data, OnEvent, hspace);
}

inline t_qel_hspace_state State(t_qel_hspace hspace)
{
    t_qel_hspace_state state = HSPACE_STATE_INIT;
    EXPECT_EQ(0u, qel_hspace_get_state(hspace, &state));
    return state;
}

// A handle on the fake service with its own recorder: created in INIT (with
// ClientTls() when the service speaks TLS), open() keeps the service's side
// in conn, the destructor closes and destroys it unless the test has (h
// null).
class Client {
public:
    explicit Client(FakeService &service, const char *name = "tester", const char *group = "tests")
        : svc(service)
    {
        InitLibrary();
        EXPECT_EQ(0u, Create(svc.url(), name, group, &h));
        qel_hspace_tls_options tls = ClientTls();
        if (svc.tls()) {
            EXPECT_EQ(0u, qel_hspace_set_tls(h, &tls));
        }
        std::lock_guard<std::mutex> lock(g_registry_mutex);
        g_registry[h] = &events;
    }
    ~Client()
    {
        EXPECT_TRUE(h == nullptr || qel_hspace_close(h) == 0);
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            for (auto it = g_registry.begin(); it != g_registry.end();)
                it = it->second == &events ? g_registry.erase(it) : std::next(it);
        }
        EXPECT_TRUE(h == nullptr || qel_hspace_destroy(&h) == 0);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool open() // false, and a failure, unless open with the service's side in conn
    {
        svc.serve([this](FakeConnection &c) { hello = c.handshake(); });
        t_kro_error opened = qel_hspace_open(h);
        EXPECT_EQ(0u, opened) << "open";
        if (!svc.join()) return false;
        conn = svc.take_connection();
        return opened == 0 && conn.valid();
    }

    FakeService &svc;         // the service the handle talks to
    t_qel_hspace h = nullptr; // the handle; null once destroyed
    Recorder events;          // every event of h
    FakeConnection conn;      // the service's side, after open()
    Packet hello;             // the handshake request, after open()
};

// Runs call on its own thread, lets answer answer the request it sends (kept
// in *sent), and returns the call's result.
using Answer = std::function<void(FakeConnection &, const Packet &)>;
inline t_kro_error Exchange(Client &c, std::function<t_kro_error()> call, Answer answer, Packet *sent = nullptr)
{
    Call running(std::move(call));
    Packet p = c.conn.next_packet();
    if (p.wirelen != 0) answer(c.conn, p);
    if (sent != nullptr) *sent = p;
    return running.result();
}

// p is a request of opcode and semantic on key, without flags, with the body.
inline void ExpectRequest(const Packet &p, int opcode, int semantic, const std::string &key, int body_type,
                          const std::string &body = "")
{
    ASSERT_TRUE(p.hspace);
    EXPECT_EQ(opcode, p.hspace->opcode);
    EXPECT_EQ(semantic, p.hspace->semantic);
    EXPECT_EQ(0, p.hspace->flags);
    EXPECT_EQ(key, p.hspace->key);
    EXPECT_EQ(body_type, p.body_type);
    EXPECT_EQ(body, p.body);
}

inline Answer ReplyWith(t_kro_error status)
{
    return [status](FakeConnection &conn, const Packet &p) {
        EXPECT_TRUE(p.rr.has_value() && conn.reply(p.rr->corrid, status)) << "request without an rr subheader";
    };
}

inline Answer ObjectsWith(uint8_t opcode, Pairs kv)
{
    return [opcode, kv](FakeConnection &conn, const Packet &p) {
        EXPECT_TRUE(p.rr.has_value() && conn.objects(p.rr->corrid, opcode, kv)) << "request without an rr subheader";
    };
}

// An application object and the buffer over its value that it borrows (null
// without a value); the destructor destroys the object, then the buffer.
class UserObject {
public:
    explicit UserObject(const std::string &k) : key(k)
    {
        InitLibrary();
        EXPECT_EQ(0u, qel_hspace_object_create(key.c_str(), nullptr, &obj));
    }
    UserObject(const std::string &k, const std::string &value) : key(k)
    {
        InitLibrary();
        kro_buf_create(&buf, static_cast<t_kro_uint4>(value.size()), 0);
        if (!value.empty()) memcpy(buf->ptr, value.data(), value.size());
        EXPECT_EQ(0u, qel_hspace_object_create(key.c_str(), buf, &obj));
    }
    ~UserObject()
    {
        EXPECT_TRUE(obj == nullptr || qel_hspace_object_destroy(&obj) == 0);
        if (buf != nullptr) kro_buf_release(&buf);
    }
    UserObject(const UserObject &) = delete;
    UserObject &operator=(const UserObject &) = delete;

    std::string key;                   // the key the object borrows
    t_kro_buf buf = nullptr;           // the value buffer, or null
    t_qel_hspace_object obj = nullptr; // the object
};

// A synchronous put answered with 0: the reader has processed all sent before it.
inline bool Barrier(Client &c)
{
    UserObject o("barrier", "b");
    t_kro_error r = Exchange(c, [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); }, ReplyWith(0));
    EXPECT_EQ(0u, r) << "barrier put";
    return r == 0;
}

inline Pairs Contents(t_kro_llist list)
{
    Pairs out;
    for (t_kro_ptr n = kro_llist_first(list); n != nullptr; n = kro_llist_next(list, n)) {
        auto object = static_cast<t_qel_hspace_object>(n);
        out.emplace_back(ObjectKey(object), ObjectValue(object));
    }
    return out;
}

// A caller's result list; clear() and the destructor destroy its objects.
class ObjectList {
public:
    ObjectList() { kro_llist_create(&list_); }
    ~ObjectList()
    {
        clear();
        kro_llist_destroy(&list_);
    }
    ObjectList(const ObjectList &) = delete;
    ObjectList &operator=(const ObjectList &) = delete;

    operator t_kro_llist() const { return list_; }
    t_kro_llist operator->() const { return list_; }
    Pairs contents() const { return Contents(list_); }

    void clear()
    {
        t_kro_ptr n;
        while ((n = kro_llist_first(list_)) != nullptr) {
            auto object = static_cast<t_qel_hspace_object>(n);
            kro_llist_remove(object);
            EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
        }
    }

private:
    t_kro_llist list_ = nullptr; // the list head
};

// Results of every operation in every form (put sync, no-reply; get sync,
// async; post; cancel; remove sync, no-reply), for handles that refuse them all.
inline std::vector<t_kro_error> CallEveryOperation(t_qel_hspace hspace, t_qel_hspace_object obj, t_kro_llist list,
                                                   const char *key)
{
    return {
        qel_hspace_put(hspace, obj, HSPACE_PUT_SYNC, 0),
        qel_hspace_put(hspace, obj, HSPACE_PUT_NOREPLY, 0),
        qel_hspace_get(hspace, key, nullptr, HSPACE_GET_SYNC, 0, 0, list),
        qel_hspace_get(hspace, key, nullptr, HSPACE_GET_ASYNC, 0, 0, nullptr),
        qel_hspace_post(hspace, key, nullptr, HSPACE_POST_SYNC, 0, 0),
        qel_hspace_cancel(hspace, key, HSPACE_CANCEL_SYNC, 0),
        qel_hspace_remove(hspace, key, HSPACE_REMOVE_SYNC, 0),
        qel_hspace_remove(hspace, key, HSPACE_REMOVE_NOREPLY, 0),
    };
}

// The library started, the test under a Watchdog; TearDown finalizes the
// library, so a Client belongs in the test's body, not in the fixture.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override { InitLibrary(); }
    void TearDown() override { qel_hspace_finalize(); }

    Watchdog watchdog_; // ends the process if the test hangs
};

// A Client c open on its own service svc.
class OpenClientTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(c.open()); }

    FakeService svc; // the service
    Client c{svc};   // the open handle and its events
};

} // namespace test
} // namespace hspace

#endif /* QEL_TESTS_CLIENT_HARNESS_H */
