/*
 * etcd_test.cpp - hspaced's etcd store under faults, against a real etcd
 * started by the test on loopback: etcd stopped and started again under
 * live subscribers (nothing lost, nothing twice, while the data changed
 * behind the services' backs), its history compacted meanwhile (the
 * subscriptions end with the cause), the statuses of a store that cannot
 * serve (unreachable, frozen, a value too large) through the hspaced
 * program and its --store-timeout, and the secured link (TLS with a client
 * certificate, etcd's login, a token etcd drops renewed; a wrong password,
 * CA or certificate refused at start). Each through the service with the C
 * API and on the Store itself, where etcd's own words are checked. Every
 * wait is bounded and fails the test when it runs out; the cases share one
 * member, except the secured one.
 */
#include <sys/wait.h>

#include <fstream>
#include <memory>
#include <optional>

#include <asio.hpp>

#include "client_harness.h"
#include "etcd_cluster.h"
#include "server.h"
#include "store/store.h"

namespace {

using namespace hspace::test;
using hspace::service::kStatusStoreTimeout;
using hspace::service::kStatusStoreTooLarge;
using hspace::service::kStatusStoreUnavailable;
using hspace::service::ObjectView;
using hspace::service::Options;
using hspace::service::Server;
using hspace::service::Store;
using hspace::service::StoreStatus;
using Lines = std::vector<std::string>;

// "1 key=value" for a change stored, "2 key" removed, "4 key=why" ended.
std::string change(int trigger, const std::string &key, const std::string *value)
{
    return std::to_string(trigger) + " " + key + (value != nullptr && !value->empty() ? "=" + *value : "");
}

// An open C API handle on a service whose events go to its recorder.
class Handle {
public:
    explicit Handle(const std::string &url)
    {
        EXPECT_EQ(0u, Create(url, "test", "tests", &h));
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            g_registry[h] = &events;
        }
        EXPECT_EQ(0u, qel_hspace_open(h));
    }
    explicit Handle(const Server &server) : Handle(server.url()) {}
    ~Handle()
    {
        qel_hspace_close(h);
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            g_registry.erase(h);
        }
        EXPECT_EQ(0u, qel_hspace_destroy(&h));
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    t_kro_error put(const std::string &key, const std::string &value)
    {
        UserObject o(key, value);
        return qel_hspace_put(h, o.obj, HSPACE_PUT_SYNC, 0);
    }
    t_kro_error get(const std::string &key, Pairs *found = nullptr)
    {
        ObjectList list;
        t_kro_error status = qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list);
        if (found != nullptr) *found = list.contents();
        return status;
    }
    t_kro_error remove(const std::string &key) { return qel_hspace_remove(h, key.c_str(), HSPACE_REMOVE_SYNC, 0); }
    t_kro_error post(const std::string &key, t_kro_int4 flags = HSPACE_POST_FLAG_NO_IMAGE)
    {
        return qel_hspace_post(h, key.c_str(), nullptr, HSPACE_POST_SYNC, 0, flags);
    }
    t_kro_error cancel(const std::string &key) { return qel_hspace_cancel(h, key.c_str(), HSPACE_CANCEL_SYNC, 0); }
    // The events up to the first notification with trigger under key, as
    // change() lines (image objects as "image key=value"), forgotten.
    Lines until(int trigger, const std::string &key)
    {
        std::optional<Event> last;
        Lines out;
        for (const Event &e : events.take_until([&](const Event &e) {
                 if (e.type != HSPACE_EVENT_POST_NOTIFICATION || e.trigger != trigger || e.object_key != key)
                     return false;
                 last = e;
                 return true;
             }))
            out.push_back(e.type == HSPACE_EVENT_POST_NOTIFICATION
                              ? change(e.trigger, e.object_key, &e.object_value)
                              : "image " + e.object_key + (e.object_value.empty() ? "" : "=" + e.object_value));
        if (last) out.push_back(change(last->trigger, last->object_key, &last->object_value));
        return out;
    }

    t_qel_hspace h = nullptr;
    Recorder events;
};

// The etcd store on its own I/O thread, driven like the service drives it,
// its feed recorded: for etcd's words, which the service only logs.
class StoreProbe : public hspace::service::Listener {
public:
    explicit StoreProbe(const Options &options) : work_(io_.get_executor())
    {
        store_ = hspace::service::make_etcd_store(options, io_, *this, &error);
        thread_ = std::thread([this] { io_.run(); });
    }
    ~StoreProbe()
    {
        asio::post(io_, [this] {
            if (store_) store_->close();
            work_.reset();
        });
        thread_.join();
    }

    StoreStatus put(const std::string &key, const std::string &value)
    {
        return run([&](Store::Done done) { store_->put(key, value, std::move(done)); });
    }
    StoreStatus get(const std::string &key)
    {
        return run([&](Store::Done done) {
            store_->read(key, false,
                         [done](const StoreStatus &s, int64_t, const std::vector<ObjectView> &) { done(s); });
        });
    }
    // Follows the feed and waits until it runs.
    StoreStatus follow()
    {
        return run([&](Store::Done done) {
            store_->follow(true);
            store_->begin("", true, false, [done](const StoreStatus &s, int64_t, const std::vector<ObjectView> &) {
                done(s);
            });
        });
    }
    // The changes up to the first of key, forgotten; why the feed ended
    // when it ends first.
    Lines until(const std::string &key)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        Lines out;
        auto found = [&] {
            for (size_t i = 0; i < changes_.size(); i++) {
                if (changes_[i].compare(2, key.size() + 1, key + "=") != 0 && changes_[i].substr(2) != key) continue;
                out.assign(changes_.begin(), changes_.begin() + static_cast<long>(i) + 1);
                changes_.erase(changes_.begin(), changes_.begin() + static_cast<long>(i) + 1);
                return true;
            }
            return !ended_.empty();
        };
        EXPECT_TRUE(cond_.wait_for(lock, kBound, found)) << "watchdog: no change of " << key;
        if (out.empty() && !ended_.empty()) out.push_back("ended: " + ended_);
        return out;
    }

    std::string error; // why the store was not made

private:
    StoreStatus run(std::function<void(Store::Done)> call)
    {
        auto done = std::make_shared<std::promise<StoreStatus>>();
        std::future<StoreStatus> result = done->get_future();
        asio::post(io_, [&call, done] { call([done](const StoreStatus &s) { done->set_value(s); }); });
        if (result.wait_for(kBound) != std::future_status::ready) Die("a store call did not complete");
        return result.get();
    }
    void on_change(std::string_view key, uint8_t trigger, const std::string_view *value, int64_t,
                   const hspace::service::SharedValue &) override
    {
        std::string v = value != nullptr ? std::string(*value) : std::string();
        std::lock_guard<std::mutex> lock(mutex_);
        changes_.push_back(change(trigger, std::string(key), &v));
        cond_.notify_all();
    }
    void on_feed_ended(const std::string &why) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = why;
        cond_.notify_all();
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::unique_ptr<Store> store_;
    std::thread thread_;
    std::mutex mutex_;             // guards changes_ and ended_
    std::condition_variable cond_; // signals either
    Lines changes_;                // change() lines, in order
    std::string ended_;            // why the feed ended, once it has
};

// The hspaced program, started with args through the shell (which execs
// it, keeping its pid): its URL once it listens, its exit status, its
// standard error. Every read waits on the program, bounded by the test's
// watchdog.
class Program {
public:
    Program(const std::vector<std::string> &args, const std::string &log) : log_(log)
    {
        std::string cmd = "echo $$; exec " HSPACED_PROGRAM;
        for (const std::string &a : args) cmd += " '" + a + "'";
        out_ = popen((cmd + " 2>" + log).c_str(), "r");
        char line[512];
        if (out_ != nullptr && fgets(line, sizeof line, out_) != nullptr) pid_ = atoi(line);
        if (pid_ > 0 && fgets(line, sizeof line, out_) != nullptr && strncmp(line, "hspaced listening on ", 21) == 0)
            url.assign(line + 21, strcspn(line + 21, "\n"));
    }
    ~Program()
    {
        if (pid_ > 0 && status_ < 0) kill(pid_, SIGTERM);
        exit_status();
    }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Its exit status, once it has ended.
    int exit_status()
    {
        if (out_ == nullptr) return status_;
        int status = pclose(out_);
        out_ = nullptr;
        return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string log() const
    {
        std::ifstream in(log_);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    std::string url; // tcp://HOST:PORT, empty unless it listens

private:
    std::string log_;
    FILE *out_ = nullptr; // its standard output
    pid_t pid_ = -1;
    int status_ = -1;
};

// The cases on one shared member under a watchdog, each under its own key
// prefix; they stop it, freeze it and start it again, and leave it running.
class EtcdFaults : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        ASSERT_TRUE(EtcdCluster::installed()) << "etcd or etcdctl missing (scripts/install-deps)";
        ASSERT_TRUE(etcd().start(kTestBound)) << "etcd did not start";
    }
    static EtcdCluster &etcd()
    {
        static EtcdCluster cluster(1);
        return cluster;
    }
    Options options(const std::string &prefix, unsigned timeout_ms = 1500) const
    {
        Options o;
        o.store = etcd().store_url();
        o.store_prefix = prefix;
        o.store_timeout_ms = timeout_ms;
        o.log = false;
        return o;
    }
    // etcd stopped, the data changed by ctl steps (etcdctl arguments) while
    // only the test can reach it, then etcd serving everyone again.
    void behind_their_backs(const Lines &steps)
    {
        etcd().kill(0);
        ASSERT_TRUE(etcd().start(kTestBound, false));
        for (const std::string &step : steps) EXPECT_TRUE(etcd().ctl_ok(step)) << step;
        etcd().kill(0);
        ASSERT_TRUE(etcd().start(kTestBound));
    }
    static std::unique_ptr<Server> serve(const Options &options)
    {
        std::unique_ptr<Server> server(new Server(options));
        std::string error;
        EXPECT_TRUE(server->start(&error)) << error;
        return server;
    }
};

TEST_F(EtcdFaults, AnOutageUnderLiveSubscribersLosesNothingAndRepeatsNothing)
{
    // Subscribers on two instances (a pattern, and on B an exact key inside
    // it as well) and on the store itself, all running before the outage.
    Options o = options("outage/");
    std::unique_ptr<Server> a = serve(o), b = serve(o);
    Handle writer(*a), on_a(*a), on_b(*b);
    EXPECT_EQ(on_a.post("o/*"), 0u);
    EXPECT_EQ(on_b.post("o/*"), 0u);
    EXPECT_EQ(on_b.post("o/2"), 0u);
    StoreProbe store(o);
    ASSERT_EQ(store.follow().code, 0u);
    for (const char *k : {"1", "2", "3"}) EXPECT_EQ(writer.put(std::string("o/") + k, k), 0u);

    // etcd down: requests fail, subscriptions stay; while it is back for
    // the test alone, keys change that no instance sees happen; then the
    // first request once it serves again is served, and every subscriber
    // receives every change once, in etcd's order, and no end.
    etcd().kill(0);
    EXPECT_EQ(writer.put("o/lost", "x"), kStatusStoreUnavailable);
    behind_their_backs({"put outage/o/4 4", "put outage/o/2 2b", "del outage/o/1", "put outside/o/9 9"});
    EXPECT_EQ(writer.put("o/5", "5"), 0u);
    const Lines want = {"1 o/1=1", "1 o/2=2", "1 o/3=3", "1 o/4=4", "1 o/2=2b", "2 o/1", "1 o/5=5"};
    EXPECT_EQ(on_a.until(1, "o/5"), want);
    EXPECT_EQ(on_b.until(1, "o/5"), want);
    EXPECT_EQ(store.until("o/5"), want);

    // And it goes on as before; the outage ended nothing.
    EXPECT_EQ(writer.remove("o/5"), 0u);
    EXPECT_EQ(on_a.until(2, "o/5"), Lines{"2 o/5"});
    EXPECT_EQ(on_b.until(2, "o/5"), Lines{"2 o/5"});
}

TEST_F(EtcdFaults, HistoryCompactedDuringAnOutageEndsSubscriptionsWithTheCause)
{
    Options o = options("compact/");
    std::unique_ptr<Server> service = serve(o);
    Handle writer(*service), sub(*service);
    EXPECT_EQ(sub.post("c/*"), 0u);
    StoreProbe store(o);
    ASSERT_EQ(store.follow().code, 0u);
    EXPECT_EQ(writer.put("c/1", "1"), 0u);
    EXPECT_EQ(store.until("c/1"), Lines{"1 c/1=1"});
    long long seen = etcd().revision();

    // Two changes the feed missed, and etcd's history compacted past the
    // first: the feed cannot resume, and says so.
    behind_their_backs({"put compact/c/2 2", "put compact/c/3 3", "compact " + std::to_string(seen + 2)});
    EXPECT_EQ(store.until("c/never"), Lines{"ended: etcd compacted revision " + std::to_string(seen + 2) +
                                            "; the changes after revision " + std::to_string(seen) + " are lost"});
    Lines ended = sub.until(4, "c/*");
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_EQ(ended[0], "1 c/1=1");
    EXPECT_EQ(ended[1], "4 c/*=etcd compacted revision " + std::to_string(seen + 2) + "; the changes after revision " +
                            std::to_string(seen) + " are lost");

    // A new subscription starts afresh, with what etcd holds.
    EXPECT_EQ(sub.cancel("c/*"), KRO_ERR_NO_MATCH);
    EXPECT_EQ(sub.post("c/*", 0), 0u);
    EXPECT_EQ(writer.put("c/4", "4"), 0u);
    EXPECT_EQ(sub.until(1, "c/4"), (Lines{"image c/1=1", "image c/2=2", "image c/3=3", "1 c/4=4"}));
}

TEST_F(EtcdFaults, StoreFailuresAnswerWithTheirOwnStatusWithinStoreTimeout)
{
    // Values over etcd's request limit (8 MiB here): refused by etcd
    // itself, and over its gRPC server's message limit (512 KiB more).
    // Generous bounds: moving 8 MiB takes its time on a loaded machine.
    Options roomy = options("status/", 10000);
    std::unique_ptr<Server> service = serve(roomy);
    Handle c(*service);
    StoreProbe store(roomy);
    const std::pair<size_t, const char *> large[] = {{(8u << 20) + 4096, "request is too large"},
                                                     {9u << 20, "larger than max"}};
    for (const auto &[size, words] : large) {
        EXPECT_EQ(c.put("s/large", std::string(size, 'v')), kStatusStoreTooLarge) << size;
        StoreStatus s = store.put("s/large", std::string(size, 'v'));
        EXPECT_EQ(s.code, kStatusStoreTooLarge) << size;
        EXPECT_NE(s.why.find(words), std::string::npos) << s.why;
    }
    Pairs found;
    EXPECT_EQ(c.get("s/large", &found), 0u);
    EXPECT_TRUE(found.empty());

    // etcd frozen (its links stay up): no answer within --store-timeout is
    // 1102; etcd gone: 1101. Every operation, a subscription's start too,
    // through the program bounding each store call by --store-timeout.
    Options tight = options("status/", 300);
    Program hspaced({"--port", "0", "--quiet", "--store", tight.store, "--store-prefix", "status/",
                     "--store-timeout", "300"},
                    etcd().dir() + "/status-hspaced.log");
    ASSERT_FALSE(hspaced.url.empty()) << hspaced.log();
    Handle p(hspaced.url);
    StoreProbe hurried(tight); // shares the linked channel of this process
    while (p.put("s/1", "1") != 0) {
        // Until the program's link is up (a first link may take longer
        // than its bound on a loaded machine); the watchdog bounds this.
    }
    struct Fault {
        const char *name;
        std::function<void()> begin, end;
        uint32_t status;
        const char *words;
    };
    const Fault faults[] = {
        {"frozen", [] { etcd().freeze(0); }, [] { etcd().thaw(0); }, kStatusStoreTimeout,
         "did not answer within 300 ms"},
        {"down", [] { etcd().kill(0); }, [] { ASSERT_TRUE(etcd().start(kTestBound)); }, kStatusStoreUnavailable,
         "no etcd member reachable within 300 ms"},
    };
    for (const Fault &f : faults) {
        f.begin();
        EXPECT_EQ(p.put("s/1", "2"), f.status) << f.name;
        EXPECT_EQ(p.get("s/1"), f.status) << f.name;
        EXPECT_EQ(p.remove("s/1"), f.status) << f.name;
        EXPECT_EQ(p.post("s/" + std::string(f.name)), f.status) << f.name;
        StoreStatus s = hurried.get("s/1");
        EXPECT_EQ(s.code, f.status) << f.name;
        EXPECT_NE(s.why.find(f.words), std::string::npos) << f.name << ": " << s.why;
        f.end();
    }
    // Served again.
    EXPECT_EQ(c.put("s/1", "3"), 0u);
    EXPECT_EQ(c.get("s/1", &found), 0u);
    EXPECT_EQ(found, (Pairs{{"s/1", "3"}}));
}

// A secure cluster of its own: TLS with client certificates, etcd's login.
class EtcdSecured : public LibraryTest {};

TEST_F(EtcdSecured, TlsAndLoginServeAndWrongCredentialsFailAtStart)
{
    ASSERT_TRUE(EtcdCluster::installed(EtcdCluster::Secure::kTlsAndLogin))
        << "etcd, etcdctl or openssl missing (scripts/install-deps)";
    EtcdCluster etcd(1, EtcdCluster::Secure::kTlsAndLogin);
    ASSERT_TRUE(etcd.start(kTestBound)) << "the secure etcd did not start";
    const std::string password = etcd.dir() + "/password", wrong = etcd.dir() + "/wrong";
    std::ofstream(password) << EtcdCluster::kPassword << "\n";
    std::ofstream(wrong) << "not-the-password\n";
    Options o;
    o.store = etcd.store_url();
    o.store_cacert = etcd.file("ca.pem");
    o.store_cert = etcd.file("client.pem");
    o.store_key = etcd.file("client.key");
    o.store_user = EtcdCluster::kUser;
    o.store_password_file = password;
    o.log = false;

    // Stored, read and notified through the secured link; a token that
    // etcd drops (the password set again) is renewed by the next call.
    {
        Server service(o);
        std::string error;
        ASSERT_TRUE(service.start(&error)) << error;
        Handle writer(service), sub(service);
        EXPECT_EQ(sub.post("t/*"), 0u);
        EXPECT_EQ(writer.put("t/1", "1"), 0u);
        EXPECT_EQ(sub.until(1, "t/1"), Lines{"1 t/1=1"});
        ASSERT_TRUE(etcd.ctl_ok("user passwd hspace --interactive=false", std::string(EtcdCluster::kPassword) + "\n"));
        EXPECT_EQ(writer.put("t/2", "2"), 0u);
        Pairs found;
        EXPECT_EQ(writer.get("t/*", &found), 0u);
        EXPECT_EQ(found, (Pairs{{"t/1", "1"}, {"t/2", "2"}}));
        EXPECT_EQ(sub.until(1, "t/2"), Lines{"1 t/2=2"});
    }

    // Each wrong piece stops the start with a reason that names it, and
    // never a password.
    struct Wrong {
        const char *what;
        std::function<void(Options &)> change;
        const char *words;
    };
    const Wrong cases[] = {
        {"password", [&](Options &w) { w.store_password_file = wrong; },
         "refused the login of user hspace: etcdserver: authentication failed"},
        {"CA", [&](Options &w) { w.store_cacert = etcd.file("other-ca.pem"); }, "--store-cacert"},
        {"no client certificate", [](Options &w) { w.store_cert = w.store_key = ""; }, "cannot reach etcd"},
        {"no login", [](Options &w) { w.store_user = w.store_password_file = ""; }, "refused to read hspace/*"},
    };
    for (const Wrong &w : cases) {
        Options bad = o;
        w.change(bad);
        std::string error;
        EXPECT_FALSE(Server(bad).start(&error)) << w.what;
        EXPECT_NE(error.find(w.words), std::string::npos) << w.what << ": " << error;
        EXPECT_EQ(error.find("password-file"), std::string::npos) << error;
        EXPECT_EQ(error.find(EtcdCluster::kPassword), std::string::npos) << error;
        EXPECT_EQ(error.find("not-the-password"), std::string::npos) << error;
    }

    // The program exits 1 with the reason.
    Program hspaced({"--port", "0", "--store", o.store, "--store-cacert", o.store_cacert, "--store-cert",
                     o.store_cert, "--store-key", o.store_key, "--store-user", "hspace", "--store-password-file",
                     wrong},
                    etcd.dir() + "/hspaced.log");
    EXPECT_TRUE(hspaced.url.empty());
    EXPECT_EQ(hspaced.exit_status(), 1);
    std::string log = hspaced.log();
    EXPECT_NE(log.find("refused the login of user hspace"), std::string::npos) << log;
    EXPECT_EQ(log.find("not-the-password"), std::string::npos) << log;
}

} // namespace
