/*
 * order_test.cpp - exactly once and in order, whatever overlaps: nested and
 * overlapping subscriptions of one Client against hspaced while a writer
 * runs through their first images and through a restart of the service.
 *
 * The writer puts one key at a time with values from one counter, so the
 * service orders changes by value. Each subscription's log is cut into
 * epochs, one per image; within an epoch, the changes of a key follow the
 * image's value (or the key's last value before the epoch's service began)
 * without skipping a put that succeeded, never repeat, come in increasing
 * order, and come only from puts made to the epoch's service; at the end
 * each subscription's view equals what the service holds.
 */
#include "cpp_support.h"
#include "service/etcd_cluster.h"

namespace {

using namespace cpptest;

// One subscription's callbacks, cut into epochs.
struct Epochs {
    struct Epoch {
        bool resync = false;
        std::map<std::string, long> image;                 // key -> value
        std::vector<std::pair<std::string, long>> changes; // in arrival order
    };
    std::mutex mu;
    std::condition_variable cv;
    std::vector<Epoch> epochs;          // mu
    std::map<std::string, long> view;   // mu: the last epoch's image with its changes applied
    std::vector<std::string> faults;    // mu: what could not be placed in an epoch

    qh::Client::ImageHandler images()
    {
        return [this](qh::Image &&image) {
            std::lock_guard<std::mutex> lock(mu);
            Epoch e;
            e.resync = image.resync;
            for (const auto &o : image.objects) e.image[std::string(o.key())] = std::stol(std::string(o.value()));
            view = e.image;
            epochs.push_back(std::move(e));
            cv.notify_all();
        };
    }
    qh::Client::ChangeHandler changes()
    {
        return [this](qh::Change &&c) {
            std::lock_guard<std::mutex> lock(mu);
            std::string key(c.object.key());
            if (c.trigger != qh::Trigger::stored || !c.object.has_value() || epochs.empty()) {
                faults.push_back("unexpected change of " + key);
                return;
            }
            long v = std::stol(std::string(c.object.value()));
            epochs.back().changes.emplace_back(key, v);
            view[key] = v;
            cv.notify_all();
        };
    }
};

// The writer's record of one put.
struct Attempt {
    enum Outcome { stored, not_sent, unknown } outcome; // unknown: the link failed under it
    bool restarted;                                       // made after the first service was stopped
};

// Puts keys round robin from its own Client until stopped; every value is
// taken from one counter, so values order the puts.
class Writer {
public:
    Writer(const std::string &url, std::vector<std::string> keys) : keys_(std::move(keys)), client_(url, TestOptions())
    {
        client_.open();
        thread_ = std::thread([this] { run(); });
    }
    ~Writer() { stop(); }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    // From now on puts go to the service started next.
    void restarted() { restarted_ = true; }
    // Waits until every key had a put refused for want of a link since
    // restarted() (so each has a value no service holds).
    bool refused_all() { return wait([&] { return refused_.size() == keys_.size(); }); }
    // Waits until n puts were stored since restarted(), or in all with after false.
    bool stored(size_t n, bool after) { return wait([&] { return (after ? stored_after_ : stored_total_) >= n; }); }
    const std::map<long, Attempt> &attempts() const { return attempts_; } // once stopped
    const std::map<std::string, std::vector<long>> &values() const { return stored_; } // once stopped: by key

private:
    bool wait(std::function<bool()> pred)
    {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_for(lock, kBound, pred);
    }
    void run()
    {
        for (size_t i = 0; !stop_; i = (i + 1) % keys_.size()) {
            long v = ++counter_;
            bool after = restarted_;
            std::error_code ec;
            client_.put(keys_[i], std::to_string(v), ec);
            std::lock_guard<std::mutex> lock(mu_);
            Attempt::Outcome o = !ec ? Attempt::stored : ec == qh::error::not_connected ? Attempt::not_sent : Attempt::unknown;
            attempts_[v] = Attempt{o, after};
            if (o == Attempt::stored) stored_[keys_[i]].push_back(v);
            if (after && o == Attempt::not_sent) refused_.insert(keys_[i]);
            if (o == Attempt::stored) stored_total_++, stored_after_ += after;
            cv_.notify_all();
        }
    }

    const std::vector<std::string> keys_;
    qh::Client client_;
    std::atomic<bool> stop_{false}, restarted_{false};
    long counter_ = 0;                              // writer thread
    std::mutex mu_;                                 // guards what follows
    std::condition_variable cv_;                    // signals its changes
    std::map<long, Attempt> attempts_;              // by value
    std::map<std::string, std::vector<long>> stored_; // values stored, by key, in order
    std::set<std::string> refused_;                 // keys refused after restarted()
    size_t stored_total_ = 0, stored_after_ = 0;    // puts stored, in all and after restarted()
    std::thread thread_;
};

bool Selects(const std::string &sub, const std::string &key)
{
    return sub.back() == '*' ? key.compare(0, sub.size() - 1, sub, 0, sub.size() - 1) == 0 : sub == key;
}

// Checks one subscription's epochs against the writer's record; floor holds
// each key's highest value put before the restart.
void CheckEpochs(const std::string &sub, Epochs &e, const Writer &w, const std::map<std::string, long> &floor)
{
    std::lock_guard<std::mutex> lock(e.mu);
    EXPECT_TRUE(e.faults.empty()) << sub << ": " << e.faults.front();
    ASSERT_EQ(2u, e.epochs.size()) << sub << ": one image before the restart, one resync image after";
    for (size_t n = 0; n < e.epochs.size(); n++) {
        const Epochs::Epoch &epoch = e.epochs[n];
        EXPECT_EQ(n == 1, epoch.resync) << sub;
        std::map<std::string, long> last; // the key's value so far in this epoch
        for (const auto &kv : epoch.image) last[kv.first] = kv.second;
        for (const auto &change : epoch.changes) {
            const std::string &key = change.first;
            long v = change.second;
            std::string where = sub + " epoch " + std::to_string(n) + ": " + key + "=" + std::to_string(v);
            ASSERT_TRUE(Selects(sub, key)) << where;
            auto a = w.attempts().find(v);
            ASSERT_TRUE(a != w.attempts().end() && a->second.outcome != Attempt::not_sent) << where << ": never stored";
            EXPECT_EQ(n == 1, a->second.restarted) << where << ": put to the other service";
            long prev = last.count(key) ? last[key] : n == 1 && floor.count(key) ? floor.at(key) : 0;
            EXPECT_GT(v, prev) << where << ": again or out of order";
            const std::vector<long> &stored = w.values().at(key);
            auto skipped = std::upper_bound(stored.begin(), stored.end(), prev);
            EXPECT_TRUE(skipped == stored.end() || *skipped >= v) << where << ": " << *skipped << " skipped";
            last[key] = v;
        }
    }
}

// Subscriptions nested and overlapping in every way, on keys a writer
// changes from before the first images until after a restart of hspaced.
struct OrderCase {
    std::string name;
    std::vector<std::string> keys;
    std::vector<std::string> subs;
    bool etcd = false; // on the shared etcd member, else on the memory store
};
void PrintTo(const OrderCase &c, std::ostream *os) { *os << c.name; }

// The etcd member the etcd cases share, each under a key prefix of its own:
// started by the first, killed at exit. Its store URL; empty when etcd is
// not installed or did not start.
const std::string &SharedEtcd()
{
    static EtcdCluster etcd(1);
    static const std::string url = EtcdCluster::installed() && etcd.start(kTestBound) ? etcd.store_url() : "";
    return url;
}

std::vector<OrderCase> OrderCases()
{
    OrderCase nested{"nested", {}, {"r/*", "r/1*", "*"}};
    for (int i = 0; i < 5; i++) nested.keys.push_back("r/" + std::to_string(i)), nested.subs.push_back(nested.keys.back());
    nested.keys.push_back("r/10");
    OrderCase many{"many", {}, {"k/*"}};
    for (int i = 0; i < 10; i++) many.subs.push_back("k/" + std::to_string(i) + "*");
    char key[8];
    for (int i = 0; i < 1000; i++) {
        snprintf(key, sizeof key, "k/%03d", i);
        many.keys.push_back(key);
        many.subs.push_back(key);
    }
    std::vector<OrderCase> cases = {nested, many};
    for (OrderCase c : {nested, many})
        if (QEL_TEST_ETCD) c.name += "_etcd", c.etcd = true, cases.push_back(c);
    return cases;
}

class OrderTest : public CppTest, public ::testing::WithParamInterface<OrderCase> {
protected:
    void SetUp() override
    {
        if (GetParam().etcd) {
            ASSERT_FALSE(SharedEtcd().empty()) << "etcd (etcd-server, etcd-client) did not start";
            service_options_.store = SharedEtcd();
            static int runs = 0; // a fresh prefix for every run: the member keeps what earlier ones stored
            service_options_.store_prefix = "order/" + GetParam().name + "/" + std::to_string(++runs) + "/";
        }
        CppTest::SetUp();
    }
};

TEST_P(OrderTest, EveryChangeOnceInOrderThroughARestart)
{
    const OrderCase &c = GetParam();
    Writer writer(url(), c.keys);
    qh::Client subscriber = client();
    std::vector<std::unique_ptr<Epochs>> epochs;
    std::vector<qh::Subscription> subs;
    for (const std::string &s : c.subs) { // while the writer runs
        epochs.push_back(std::make_unique<Epochs>());
        subs.push_back(subscriber.subscribe(s, epochs.back()->images(), epochs.back()->changes()));
        watchdog_.Kick();
    }
    ASSERT_TRUE(writer.stored(2 * c.keys.size(), false));
    uint16_t port = server_->port();
    server_->stop();
    writer.restarted();
    ASSERT_TRUE(writer.refused_all());
    start(port);
    ASSERT_TRUE(writer.stored(3 * c.keys.size(), true));
    writer.stop();
    std::map<std::string, long> floor; // each key's last value stored before the restart
    for (const auto &kv : writer.values())
        for (long v : kv.second)
            if (!writer.attempts().at(v).restarted) floor[kv.first] = v;
    // Each subscription ends up with what the service holds, then its log is checked.
    qh::Client reader = client();
    for (size_t i = 0; i < c.subs.size(); i++) {
        std::map<std::string, long> held;
        for (const qh::Object &o : reader.get(c.subs[i])) held[std::string(o.key())] = std::stol(std::string(o.value()));
        Epochs &e = *epochs[i];
        std::unique_lock<std::mutex> lock(e.mu);
        EXPECT_TRUE(e.cv.wait_for(lock, kBound, [&] { return e.view == held; })) << c.subs[i] << ": view differs";
        lock.unlock();
        CheckEpochs(c.subs[i], e, writer, floor);
        watchdog_.Kick();
    }
}

INSTANTIATE_TEST_SUITE_P(Cpp, OrderTest, ::testing::ValuesIn(OrderCases()),
                         [](const ::testing::TestParamInfo<OrderCase> &info) { return info.param.name; });

} // namespace
