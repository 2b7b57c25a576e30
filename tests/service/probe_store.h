/*
 * probe_store.h - the memory store under a test's control: its health as
 * the test sets it, a call that fails with the status the test names, and
 * a close() that waits for the test, so that the service's stopping can be
 * watched from outside.
 */
#ifndef QEL_TESTS_PROBE_STORE_H
#define QEL_TESTS_PROBE_STORE_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "client_harness.h"
#include "store/store.h"

namespace operate {

// What the test sets and learns; shared with the store's threads.
struct Probe {
    std::atomic<bool> healthy{true};           // what healthy() answers
    std::atomic<uint32_t> fail{0};             // the next call completes with this status, once
    std::atomic<bool> hold_close{false};       // close() waits for release_close()

    // Test thread: waits, up to kBound, until close() was entered.
    bool wait_closing()
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, hspace::test::kBound, [&] { return closing; });
    }
    void release_close()
    {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        cond.notify_all();
    }

    std::mutex mutex;
    std::condition_variable cond;
    bool closing = false;                      // close() was entered
    bool released = false;                     // release_close() ran
};

class ProbeStore final : public hspace::service::Store {
public:
    static constexpr const char *kDown = "the probe says the store is down";

    ProbeStore(hspace::service::Listener &listener, Probe &probe)
        : inner_(hspace::service::make_memory_store(listener)), probe_(probe)
    {
    }
    void put(std::string_view key, std::string_view value, Done done) override
    {
        if (uint32_t s = failure()) return done(hspace::service::StoreStatus(s, why(s)));
        inner_->put(key, value, std::move(done));
    }
    void remove(std::string_view key, Done done) override
    {
        if (uint32_t s = failure()) return done(hspace::service::StoreStatus(s, why(s)));
        inner_->remove(key, std::move(done));
    }
    void read(std::string_view key, bool key_only, Read done) override
    {
        if (uint32_t s = failure()) return done(hspace::service::StoreStatus(s, why(s)), 0, {});
        inner_->read(key, key_only, std::move(done));
    }
    void follow(bool on) override { inner_->follow(on); }
    void begin(std::string_view key, bool key_only, bool with_objects, Read done) override
    {
        if (uint32_t s = failure()) return done(hspace::service::StoreStatus(s, why(s)), 0, {});
        inner_->begin(key, key_only, with_objects, std::move(done));
    }
    void close() override
    {
        std::unique_lock<std::mutex> lock(probe_.mutex);
        probe_.closing = true;
        probe_.cond.notify_all();
        if (probe_.hold_close) {
            EXPECT_TRUE(probe_.cond.wait_for(lock, hspace::test::kBound, [&] { return probe_.released; }))
                << "watchdog: the test did not release close()";
        }
        lock.unlock();
        inner_->close();
    }
    const char *kind() const override { return "probe"; }
    bool healthy(std::string *why) const override
    {
        if (probe_.healthy) return true;
        if (why != nullptr) *why = kDown;
        return false;
    }

    // The words a failure with status s comes with.
    static std::string why(uint32_t s) { return "probe failure " + std::to_string(s); }

private:
    uint32_t failure() { return probe_.fail.exchange(0); }

    std::unique_ptr<hspace::service::Store> inner_;
    Probe &probe_;
};

} // namespace operate

#endif /* QEL_TESTS_PROBE_STORE_H */
