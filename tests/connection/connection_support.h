/*
 * connection_support.h - helpers shared by the connection tests: a
 * watchdog that ends a hung test, a library call run on a helper thread
 * with a bounded wait, the recorder that every test handle reports its
 * events to, and opening a handle on a fake service.
 *
 * Every wait here is bounded; nothing sleeps.
 */
#ifndef QEL_TESTS_CONNECTION_SUPPORT_H
#define QEL_TESTS_CONNECTION_SUPPORT_H

#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fake_service.h"
#include "qel_hspace.h"

namespace conn {

using hspace::test::FakeConnection;
using hspace::test::FakeService;
using hspace::test::Packet;
using hspace::test::Signal;
namespace codec = hspace::codec;

constexpr std::chrono::milliseconds kBound{10000}; // bound of every single wait
constexpr std::chrono::seconds kTestBound{30};     // bound of a whole test (or of one Kick())

// Ends the process with a message: a library call or the test itself hung,
// and a thread still inside the library makes going on unsafe.
[[noreturn]] inline void Die(const char *what)
{
    fprintf(stderr, "watchdog: %s\n", what);
    fflush(stderr);
    abort();
}

// Aborts the process when the test has not finished (or kicked it) within
// kTestBound, so a blocking call on the test thread fails fast.
class Watchdog {
public:
    Watchdog() : deadline_(std::chrono::steady_clock::now() + kTestBound), thread_([this] { Run(); }) {}
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        cond_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

    // Grants another kTestBound from now (loops call it once per round).
    void Kick()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        deadline_ = std::chrono::steady_clock::now() + kTestBound;
    }

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!done_) {
            if (cond_.wait_until(lock, deadline_) == std::cv_status::timeout && !done_ &&
                std::chrono::steady_clock::now() >= deadline_)
                Die("the test did not finish in time");
        }
    }

    std::mutex mutex_;                                // guards deadline_ and done_
    std::condition_variable cond_;                    // signals done_
    std::chrono::steady_clock::time_point deadline_;  // abort after this
    bool done_ = false;                               // the test finished
    std::thread thread_;                              // runs Run()
};

// A blocking library call on a helper thread. Result() waits for it at
// most kBound and ends the process when it does not return.
class Call {
public:
    explicit Call(std::function<t_kro_error()> fn) : result_(promise_.get_future())
    {
        thread_ = std::thread([this, fn] { promise_.set_value(fn()); });
    }
    ~Call()
    {
        if (thread_.joinable()) thread_.join();
    }
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    // The call's result, once it has returned; may be asked again.
    t_kro_error Result()
    {
        if (thread_.joinable()) {
            if (result_.wait_for(kBound) != std::future_status::ready) Die("a library call did not return");
            thread_.join();
            value_ = result_.get();
        }
        return value_;
    }

private:
    std::promise<t_kro_error> promise_;   // set by the helper thread
    std::future<t_kro_error> result_;     // read once by Result()
    t_kro_error value_ = 0;               // the result, after Result() joined the thread
    std::thread thread_;                  // runs the call
};

// One event as the callback saw it; the object is copied and destroyed in
// the callback.
struct Event {
    t_qel_hspace_event type = HSPACE_EVENT_LINK_FAIL; // which event
    t_kro_error status = 0;          // reply-image status, or the link-failure error
    t_kro_ptr urid = nullptr;        // reply-image: the request's urid
    std::string key;                 // reply-image: the request's key
    t_kro_uint4 cardinality = 0;     // reply-image: objects in the answer
    t_kro_uint4 index = 0;           // reply-image: this object's number
    bool has_object = false;         // an object came with the event
    std::string object_key;          // its key
    std::string object_value;        // its value, [pos, lim) of its buffer
    bool object_data_null = false;   // it had no value buffer
    t_kro_int4 trigger = 0;          // notification: the trigger
    t_qel_hspace_state state = HSPACE_STATE_INIT; // the handle's state when the callback began
};

// The key and value of an object as strings.
inline void ObjectFields(t_qel_hspace_object object, std::string *key, std::string *value, bool *data_null)
{
    t_kro_str k = nullptr;
    t_kro_ptr d = nullptr;
    EXPECT_EQ(0u, qel_hspace_object_get_key(object, &k));
    EXPECT_EQ(0u, qel_hspace_object_get_data(object, &d));
    *key = k != nullptr ? k : "";
    t_kro_buf buf = (t_kro_buf)d;
    *data_null = buf == nullptr;
    *value = buf == nullptr ? "" : std::string((const char *)buf->ptr + buf->pos, buf->lim - buf->pos);
}

// Collects the events of every handle of a test, in the order they were
// raised. A hook, when set, runs inside the callback before the event is
// recorded, so a waiter never sees an event whose hook is still running.
// Thread-safe.
class Recorder {
public:
    using Hook = std::function<void(t_qel_hspace, const Event &)>;

    void Reset()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
        hook_ = nullptr;
    }
    void SetHook(Hook hook)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }

    // The body of the handles' callback; reader thread.
    void Record(t_qel_hspace hspace, t_qel_hspace_event type, t_kro_ptr data)
    {
        Event e;
        t_qel_hspace_object object = nullptr;
        running_.fetch_add(1);
        e.type = type;
        EXPECT_EQ(0u, qel_hspace_get_state(hspace, &e.state));
        if (type == HSPACE_EVENT_LINK_FAIL) {
            e.status = ((t_qel_hspace_fail_event_data_struct *)data)->error;
        } else if (type == HSPACE_EVENT_POST_NOTIFICATION) {
            auto *n = (t_qel_hspace_post_notification_event_data_struct *)data;
            e.trigger = n->trigger;
            object = n->object;
        } else {
            auto *r = (t_qel_hspace_reply_image_event_data_struct *)data;
            e.urid = r->urid;
            e.key = r->key != nullptr ? r->key : "(null)";
            e.status = r->status;
            e.cardinality = r->cardinality;
            e.index = r->index;
            object = r->object;
        }
        if (object != nullptr) {
            e.has_object = true;
            ObjectFields(object, &e.object_key, &e.object_value, &e.object_data_null);
            EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
        }
        Hook hook;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            hook = hook_;
        }
        if (hook) hook(hspace, e);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(e);
        }
        cond_.notify_all();
        running_.fetch_sub(1);
    }

    // True once at least n events were recorded; a recorded failure when
    // that takes longer than kBound.
    bool WaitFor(size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (cond_.wait_for(lock, kBound, [&] { return events_.size() >= n; })) return true;
        ADD_FAILURE() << "watchdog: " << events_.size() << " events of " << n << " within " << kBound.count()
                      << " ms";
        return false;
    }

    std::vector<Event> Events()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    size_t Count(t_qel_hspace_event type)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t n = 0;
        for (const Event &e : events_) n += e.type == type ? 1 : 0;
        return n;
    }

    // Callbacks currently running.
    int Running() const { return running_.load(); }

private:
    std::mutex mutex_;              // guards events_ and hook_
    std::condition_variable cond_;  // signals events_ growing
    std::vector<Event> events_;     // in the order raised
    Hook hook_;                     // run inside the callback
    std::atomic<int> running_{0};   // callbacks inside Record()
};

inline Recorder g_events; // every test handle reports here

inline void OnEvent(t_qel_hspace hspace, t_qel_hspace_event type, t_kro_ptr data)
{
    g_events.Record(hspace, type, data);
}

// Initializes the library, resets the recorder and guards the test.
class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0u, qel_hspace_initialize(QEL_HSPACE_VERSION, 1));
        g_events.Reset();
    }
    void TearDown() override
    {
        g_events.Reset();
        qel_hspace_finalize();
    }

    Watchdog watchdog_; // ends the process if the test hangs
};

// Creates a handle on url with OnEvent as its callback.
inline t_kro_error Create(const std::string &url, const char *name, const char *group, t_qel_hspace *hspace)
{
    qel_hspace_create_data data;
    data.service_url = url.c_str();
    data.client_name = name;
    data.client_group = group;
    return qel_hspace_create(&data, OnEvent, hspace);
}

// Creates and opens a handle on svc; the handshake is answered with ltp on
// the service's thread, and the accepted connection is handed to *conn.
inline void OpenOn(FakeService &svc, t_qel_hspace *hspace, FakeConnection *conn, uint16_t ltp = 5)
{
    svc.serve([ltp](FakeConnection &c) { c.handshake(ltp); });
    ASSERT_EQ(0u, Create(svc.url(), "tester", "tests", hspace));
    ASSERT_EQ(0u, qel_hspace_open(*hspace));
    ASSERT_TRUE(svc.join());
    *conn = svc.take_connection();
    ASSERT_TRUE(conn->valid());
}

// Closes and destroys a handle from the test thread.
inline void CloseAndDestroy(t_qel_hspace *hspace)
{
    EXPECT_EQ(0u, qel_hspace_close(*hspace));
    EXPECT_EQ(0u, qel_hspace_destroy(hspace));
    EXPECT_EQ(nullptr, *hspace);
}

inline t_qel_hspace_state State(t_qel_hspace hspace)
{
    t_qel_hspace_state state = HSPACE_STATE_INIT;
    EXPECT_EQ(0u, qel_hspace_get_state(hspace, &state));
    return state;
}

// A caller's result list for a synchronous get.
class ObjectList {
public:
    ObjectList() { kro_llist_create(&list_); }
    ~ObjectList()
    {
        Clear();
        kro_llist_destroy(&list_);
    }
    ObjectList(const ObjectList &) = delete;
    ObjectList &operator=(const ObjectList &) = delete;

    t_kro_llist get() { return list_; }

    // The key and value of each object, oldest first.
    std::vector<std::pair<std::string, std::string>> Contents()
    {
        std::vector<std::pair<std::string, std::string>> out;
        for (t_kro_ptr n = kro_llist_first(list_); n != nullptr; n = kro_llist_next(list_, n)) {
            std::string key, value;
            bool data_null;
            ObjectFields((t_qel_hspace_object)n, &key, &value, &data_null);
            out.emplace_back(key, data_null ? "(null)" : value);
        }
        return out;
    }

    // Unlinks and destroys every object.
    void Clear()
    {
        t_kro_ptr n;
        while ((n = kro_llist_first(list_)) != nullptr) {
            t_qel_hspace_object object = (t_qel_hspace_object)n;
            kro_llist_remove(object);
            EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
        }
    }

private:
    t_kro_llist list_ = nullptr; // the list head
};

} // namespace conn

#endif /* QEL_TESTS_CONNECTION_SUPPORT_H */
