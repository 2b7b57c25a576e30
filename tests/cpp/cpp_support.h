/*
 * cpp_support.h - what the C++ API's tests share: the log of a
 * subscription's callbacks, a call run on a helper thread under the
 * watchdog, and hspaced in-process, restartable on the same port. Every
 * wait is bounded by kBound; nothing sleeps.
 */
#ifndef QEL_TESTS_CPP_SUPPORT_H
#define QEL_TESTS_CPP_SUPPORT_H

#include <algorithm>
#include <set>

#include "client_harness.h"
#include "qel_hspace.hpp"
#include "server.h"

namespace cpptest {

namespace qh = qel::hspace;
using namespace hspace::test;
using Errc = std::errc;
using ms = std::chrono::milliseconds;

// An object as the logs write it: "key=value", or "key" without a value.
inline std::string Text(const qh::Object &o)
{
    return std::string(o.key()) + (o.has_value() ? "=" + std::string(o.value()) : "");
}

// Lines the callbacks logged: "image:<resync>:<object>,...", "change:<trigger>:<object>", "state:<n>".
struct Seen {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<std::string> log; // mu; read unlocked only once the awaited lines are in
    std::thread::id thread;       // mu: the thread of the last callback
    void add(std::string line)
    {
        std::lock_guard<std::mutex> lock(mu);
        log.push_back(std::move(line)), thread = std::this_thread::get_id(), cv.notify_all();
    }
    bool wait(std::function<bool()> pred)
    {
        std::unique_lock<std::mutex> lock(mu);
        return cv.wait_for(lock, kBound, pred);
    }
    bool wait_for(const std::string &line) { return wait([&] { return count(line) > 0; }); }
    size_t count(const std::string &line) { return std::count(log.begin(), log.end(), line); } // mu or quiet
    std::vector<std::string> lines()
    {
        std::lock_guard<std::mutex> lock(mu);
        return log;
    }
    qh::Client::ImageHandler images()
    {
        return [this](qh::Image &&image) {
            std::string s = "image:" + std::to_string(image.resync) + ":";
            for (const auto &o : image.objects) s += Text(o) + ",";
            add(s);
        };
    }
    qh::Client::ChangeHandler changes()
    {
        return [this](qh::Change &&c) { add("change:" + std::to_string(int(c.trigger)) + ":" + Text(c.object)); };
    }
    std::function<void(qh::State, std::error_code)> states()
    {
        return [this](qh::State s, std::error_code) { add("state:" + std::to_string(int(s))); };
    }
};

// Runs fn on a helper thread: wait() returns its result, or ends the process
// when it has not come within kBound (a call that should have returned hung).
template <class R> class Async {
public:
    explicit Async(std::function<R()> fn) : result_(std::async(std::launch::async, std::move(fn))) {}
    ~Async()
    {
        if (result_.valid()) wait();
    }
    R wait()
    {
        if (result_.wait_for(kBound) != std::future_status::ready) Die("a C++ call did not return");
        return result_.get();
    }

private:
    std::future<R> result_; // of fn on its own thread
};

// Runs fn, which must return without the service's help.
template <class F> auto Bounded(F fn) -> decltype(fn())
{
    return Async<decltype(fn())>(std::move(fn)).wait();
}

// Options of a test Client: reconnecting (or not) with a short backoff.
inline qh::Options TestOptions(bool reconnect = true, ms backoff = ms(1), Seen *states = nullptr)
{
    qh::Options o;
    o.client_name = "cpp-test";
    o.reconnect.enabled = reconnect;
    o.reconnect.initial_delay = backoff;
    o.reconnect.max_delay = 20 * backoff;
    if (states != nullptr) o.on_state = states->states();
    return o;
}

// hspaced in-process, restartable on the same port; the test under a watchdog.
class CppTest : public ::testing::Test {
protected:
    void SetUp() override { start(0); }
    void start(uint16_t port)
    {
        hspace::service::Options o = service_options_;
        o.port = port;
        server_ = std::make_unique<hspace::service::Server>(o);
        std::string error;
        ASSERT_TRUE(server_->start(&error)) << error;
    }
    std::string url() const { return "tcp://127.0.0.1:" + std::to_string(server_->port()); }
    // An opened client; state changes go to seen as "state:<n>".
    qh::Client client(Seen *seen = nullptr, bool reconnect = true, ms backoff = ms(1))
    {
        qh::Client c(url(), TestOptions(reconnect, backoff, seen));
        c.open();
        return c;
    }
    Watchdog watchdog_;
    hspace::service::Options service_options_;
    std::unique_ptr<hspace::service::Server> server_;
};

} // namespace cpptest

#endif /* QEL_TESTS_CPP_SUPPORT_H */
