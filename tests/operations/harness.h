/*
 * harness.h - what the data-operation tests share: the library started, a
 * handle opened against the fake service, a recorder of the handle's
 * events, a blocking call run on a thread of its own, and object and list
 * helpers.
 *
 * Every wait is bounded by kWatchdog and records a gtest failure when it
 * runs out; nothing sleeps.
 */
#ifndef QEL_TESTS_OPERATIONS_HARNESS_H
#define QEL_TESTS_OPERATIONS_HARNESS_H

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_service.h"
#include "qel_hspace.h"

namespace ops {

using hspace::test::FakeConnection;
using hspace::test::FakeService;
using hspace::test::Packet;
using hspace::test::Signal;
namespace codec = hspace::codec;

constexpr std::chrono::milliseconds kWatchdog{10000}; // bound of every wait in these tests
constexpr t_kro_error kNoResult = 0xFFFFFFFFu;        // a call that did not return in time

using Pairs = std::vector<std::pair<std::string, std::string>>; // (key, value) of objects

// Starts the library; any thread, any number of times.
void InitLibrary();

// Number of records in the handle's request table, read under its mutex.
// Defined only in white-box executables.
int RequestCount(t_qel_hspace hspace);

// One event as the callback saw it. The callback copies the object's key and
// value and destroys the object (it is the application's).
struct Event {
    t_qel_hspace_event type;     // which event
    t_kro_ptr urid = nullptr;    // reply-image: the request's urid
    std::string key;             // reply-image: the request's key
    t_kro_error status = 0;      // reply-image: the status; link failure: the error
    uint32_t cardinality = 0;    // reply-image: objects in the answer
    uint32_t index = 0;          // reply-image: this object's number
    int trigger = 0;             // notification: the trigger
    bool has_object = false;     // an object came with the event
    bool value_null = false;     // the object's data buffer was null
    std::string object_key;      // copy of the object's key
    std::string object_value;    // copy of the object's value

    // The last event of a reply-image answer: a failure, an empty answer or
    // the object numbered like the count.
    bool is_final() const { return status != 0 || !has_object || index == cardinality; }
};

// Collects the events of one handle. record() runs on the reader thread;
// the rest on any thread. Thread-safe.
class Recorder {
public:
    using Hook = std::function<void(t_qel_hspace, const Event &)>;

    // Runs hook inside the callback, on the reader thread, before the event
    // is recorded (so a waiter that sees the event also sees the hook's work).
    void set_hook(Hook hook);
    // True once at least n events were recorded; false and a failure when the
    // watchdog runs out.
    bool wait_count(size_t n);
    size_t count();
    std::vector<Event> events();
    // The callback's body: copies the event, destroys its object, runs the
    // hook, records it.
    void record(t_qel_hspace hspace, t_qel_hspace_event type, t_kro_ptr data);

private:
    std::mutex mutex_;             // guards everything below
    std::condition_variable cond_; // signals a new event
    std::vector<Event> events_;    // in arrival order
    Hook hook_;                    // may be empty
};

// A handle on the fake service with its event recorder. The constructor
// creates the handle (HSPACE_STATE_INIT); open() lets a service script answer
// the handshake and keeps the service's side in conn. The destructor closes
// and destroys the handle. Test thread only.
class Client {
public:
    explicit Client(FakeService &svc);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool open();

    FakeService &svc;           // the service the handle talks to
    t_qel_hspace h = nullptr;   // the handle; null once destroyed
    Recorder events;            // every event of h
    FakeConnection conn;        // the service's side, after open()
};

// Runs fn, a library call that may block, on its own thread. result() waits
// for its return; when the watchdog runs out it records a failure and closes
// the handle so that the call returns. The destructor joins the thread.
class Call {
public:
    Call(t_qel_hspace hspace, std::function<t_kro_error()> fn);
    ~Call();
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    t_kro_error result();

private:
    t_qel_hspace hspace_;           // closed when the call hangs
    std::mutex mutex_;              // guards done_ and result_
    std::condition_variable cond_;  // signals done_
    bool done_ = false;             // fn returned
    t_kro_error result_ = kNoResult; // what fn returned
    std::thread thread_;            // runs fn
};

// Runs fn, a call that should return without an answer from the service,
// on its own thread under the watchdog (see Call), so that a call that
// wrongly waits fails the test instead of hanging it.
t_kro_error Bounded(t_qel_hspace hspace, std::function<t_kro_error()> fn);

// Runs call on its own thread, reads the request it sends from c.conn, lets
// answer answer it, and returns the call's result (kNoResult on watchdog).
// The request is stored in *sent when sent is not null. The default answer
// is a bare reply with status to the request's correlation id.
using Answer = std::function<void(FakeConnection &, const Packet &)>;
t_kro_error Exchange(Client &c, std::function<t_kro_error()> call, Answer answer, Packet *sent = nullptr);
Answer ReplyWith(t_kro_error status);
// An answer of objects (opcode codec::kOpGet or kOpPost) numbered 1..n of n.
Answer ObjectsWith(uint8_t opcode, Pairs kv);

// A round trip that proves the reader thread has processed every packet
// sent before it: a synchronous put answered with 0. True when it returned 0.
bool Barrier(Client &c);

// An application object and the buffer it borrows. The value is
// [pos, lim) of a buffer over `window`; without a value the object's data is
// null. The destructor destroys the object, then releases the buffer.
class UserObject {
public:
    explicit UserObject(const std::string &key);
    UserObject(const std::string &key, const std::string &value);
    ~UserObject();
    UserObject(const UserObject &) = delete;
    UserObject &operator=(const UserObject &) = delete;

    std::string key;                  // the key the object borrows
    t_kro_buf buf = nullptr;          // the value buffer, or null
    t_qel_hspace_object obj = nullptr; // the object
};

// The key and value of an object (an empty value for a null buffer).
std::string ObjectKey(t_qel_hspace_object object);
std::string ObjectValue(t_qel_hspace_object object);
// The (key, value) pairs of a result list, oldest first.
Pairs Contents(t_kro_llist list);
// Unlinks and destroys every object of a result list, then frees the list.
void DestroyList(t_kro_llist *list);

// Calls every data operation in every form on hspace, with key for the keyed
// ones, and returns their results in this order: put sync, put no-reply, get
// sync, get async, post, cancel, remove sync, remove no-reply. obj's key is
// used by the puts. For handles where every call is refused before anything
// is sent.
std::vector<t_kro_error> CallEveryOperation(t_qel_hspace hspace, t_qel_hspace_object obj, t_kro_llist list,
                                            const char *key);

} // namespace ops

#endif /* QEL_TESTS_OPERATIONS_HARNESS_H */
