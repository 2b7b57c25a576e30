/*
 * harness.cpp - the shared helpers of the data-operation tests.
 */
#include "harness.h"

#include <map>

#include <gtest/gtest.h>

namespace ops {

namespace {

// Which recorder collects the events of which handle. Written by the test
// thread around a handle's life, read by reader threads; guarded by
// g_registry_mutex.
std::mutex g_registry_mutex;
std::map<t_qel_hspace, Recorder *> g_registry;

void OnEvent(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr data)
{
    Recorder *recorder = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_registry_mutex);
        auto it = g_registry.find(hspace);
        if (it != g_registry.end()) recorder = it->second;
    }
    if (recorder == nullptr) {
        ADD_FAILURE() << "event " << event << " for a handle without a recorder";
        return;
    }
    recorder->record(hspace, event, data);
}

// Copies object into e and destroys it.
void TakeObject(t_qel_hspace_object *object, Event &e)
{
    if (*object == nullptr) return;
    t_kro_ptr data = nullptr;
    e.has_object = true;
    e.object_key = ObjectKey(*object);
    EXPECT_EQ(0u, qel_hspace_object_get_data(*object, &data));
    e.value_null = data == nullptr;
    e.object_value = ObjectValue(*object);
    EXPECT_EQ(0u, qel_hspace_object_destroy(object));
}

} // namespace

void InitLibrary()
{
    ASSERT_EQ(0u, qel_hspace_initialize(QEL_HSPACE_VERSION, 1));
}

// ---------------------------------------------------------------------------
// Recorder

void Recorder::set_hook(Hook hook)
{
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
}

bool Recorder::wait_count(size_t n)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (cond_.wait_for(lock, kWatchdog, [&] { return events_.size() >= n; })) return true;
    ADD_FAILURE() << "watchdog: " << events_.size() << " events of " << n << " within " << kWatchdog.count()
                  << " ms";
    return false;
}

size_t Recorder::count()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return events_.size();
}

std::vector<Event> Recorder::events()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

void Recorder::record(t_qel_hspace hspace, t_qel_hspace_event type, t_kro_ptr data)
{
    Event e;
    e.type = type;
    if (type == HSPACE_EVENT_LINK_FAIL) {
        e.status = static_cast<t_qel_hspace_fail_event_data_struct *>(data)->error;
    } else if (type == HSPACE_EVENT_POST_NOTIFICATION) {
        auto *d = static_cast<t_qel_hspace_post_notification_event_data_struct *>(data);
        e.trigger = d->trigger;
        TakeObject(&d->object, e);
    } else {
        auto *d = static_cast<t_qel_hspace_reply_image_event_data_struct *>(data);
        e.urid = d->urid;
        e.key = d->key != nullptr ? d->key : "<null>";
        e.status = d->status;
        e.cardinality = d->cardinality;
        e.index = d->index;
        TakeObject(&d->object, e);
    }
    Hook hook;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hook = hook_;
    }
    if (hook) hook(hspace, e);
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(e));
    cond_.notify_all();
}

// ---------------------------------------------------------------------------
// Client

Client::Client(FakeService &service) : svc(service)
{
    InitLibrary();
    std::string url = svc.url();
    qel_hspace_create_data data = {url.c_str(), "ops-test", "ops"};
    EXPECT_EQ(0u, qel_hspace_create(&data, OnEvent, &h));
    std::lock_guard<std::mutex> lock(g_registry_mutex);
    g_registry[h] = &events;
}

Client::~Client()
{
    if (h == nullptr) return;
    EXPECT_EQ(0u, qel_hspace_close(h));
    {
        std::lock_guard<std::mutex> lock(g_registry_mutex);
        g_registry.erase(h);
    }
    EXPECT_EQ(0u, qel_hspace_destroy(&h));
}

bool Client::open()
{
    svc.serve([](FakeConnection &c) { c.handshake(); });
    t_kro_error error = qel_hspace_open(h);
    EXPECT_EQ(0u, error);
    if (!svc.join() || error != 0) return false;
    conn = svc.take_connection();
    return conn.valid();
}

// ---------------------------------------------------------------------------
// Call

Call::Call(t_qel_hspace hspace, std::function<t_kro_error()> fn) : hspace_(hspace)
{
    thread_ = std::thread([this, fn] {
        t_kro_error r = fn();
        std::lock_guard<std::mutex> lock(mutex_);
        result_ = r;
        done_ = true;
        cond_.notify_all();
    });
}

Call::~Call()
{
    result();
    thread_.join();
}

t_kro_error Call::result()
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (cond_.wait_for(lock, kWatchdog, [this] { return done_; })) return result_;
    ADD_FAILURE() << "watchdog: a library call did not return within " << kWatchdog.count() << " ms";
    lock.unlock();
    qel_hspace_close(hspace_);
    lock.lock();
    cond_.wait_for(lock, kWatchdog, [this] { return done_; });
    return kNoResult;
}

// ---------------------------------------------------------------------------
// Exchanges

t_kro_error Bounded(t_qel_hspace hspace, std::function<t_kro_error()> fn)
{
    Call running(hspace, std::move(fn));
    return running.result();
}

t_kro_error Exchange(Client &c, std::function<t_kro_error()> call, Answer answer, Packet *sent)
{
    Call running(c.h, std::move(call));
    Packet p = c.conn.next_packet();
    if (p.wirelen != 0) answer(c.conn, p);
    if (sent != nullptr) *sent = p;
    return running.result();
}

Answer ReplyWith(t_kro_error status)
{
    return [status](FakeConnection &conn, const Packet &p) {
        if (!p.rr) {
            ADD_FAILURE() << "request without an rr subheader";
            return;
        }
        conn.reply(p.rr->corrid, status);
    };
}

Answer ObjectsWith(uint8_t opcode, Pairs kv)
{
    return [opcode, kv](FakeConnection &conn, const Packet &p) {
        if (!p.rr) {
            ADD_FAILURE() << "request without an rr subheader";
            return;
        }
        conn.objects(p.rr->corrid, opcode, kv);
    };
}

bool Barrier(Client &c)
{
    UserObject o("barrier", "b");
    t_kro_error r = Exchange(c, [&] { return qel_hspace_put(c.h, o.obj, HSPACE_PUT_SYNC, 0); }, ReplyWith(0));
    EXPECT_EQ(0u, r) << "barrier put";
    return r == 0;
}

// ---------------------------------------------------------------------------
// Objects and lists

UserObject::UserObject(const std::string &k) : key(k)
{
    InitLibrary();
    EXPECT_EQ(0u, qel_hspace_object_create(key.c_str(), nullptr, &obj));
}

UserObject::UserObject(const std::string &k, const std::string &value) : key(k)
{
    InitLibrary();
    kro_buf_create(&buf, static_cast<t_kro_uint4>(value.size()), 0);
    if (!value.empty()) memcpy(buf->ptr, value.data(), value.size());
    EXPECT_EQ(0u, qel_hspace_object_create(key.c_str(), buf, &obj));
}

UserObject::~UserObject()
{
    if (obj != nullptr) {
        EXPECT_EQ(0u, qel_hspace_object_destroy(&obj));
    }
    if (buf != nullptr) kro_buf_release(&buf);
}

std::string ObjectKey(t_qel_hspace_object object)
{
    t_kro_str key = nullptr;
    EXPECT_EQ(0u, qel_hspace_object_get_key(object, &key));
    return key != nullptr ? std::string(key) : std::string("<null>");
}

std::string ObjectValue(t_qel_hspace_object object)
{
    t_kro_ptr data = nullptr;
    EXPECT_EQ(0u, qel_hspace_object_get_data(object, &data));
    t_kro_buf buf = static_cast<t_kro_buf>(data);
    if (buf == nullptr) return std::string();
    return std::string(static_cast<const char *>(buf->ptr) + buf->pos, buf->lim - buf->pos);
}

Pairs Contents(t_kro_llist list)
{
    Pairs out;
    for (t_kro_ptr n = kro_llist_first(list); n != nullptr; n = kro_llist_next(list, n)) {
        auto object = static_cast<t_qel_hspace_object>(n);
        out.emplace_back(ObjectKey(object), ObjectValue(object));
    }
    return out;
}

void DestroyList(t_kro_llist *list)
{
    t_kro_ptr n;
    while ((n = kro_llist_first(*list)) != nullptr) {
        auto object = static_cast<t_qel_hspace_object>(n);
        kro_llist_remove(object);
        EXPECT_EQ(0u, qel_hspace_object_destroy(&object));
    }
    kro_llist_destroy(list);
}

std::vector<t_kro_error> CallEveryOperation(t_qel_hspace hspace, t_qel_hspace_object obj, t_kro_llist list,
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

} // namespace ops
