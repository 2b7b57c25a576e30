/*
 * metrics_test.cpp - hspaced's metrics, health and readiness over HTTP,
 * scraped by a real HTTP client and read strictly: the exposition writer on
 * its own (escaping, hidden series, bucket edges, its defects), the
 * counters moving as requests are made over the wire, the endpoint's paths,
 * health and readiness through the service's life and its store's, scrapes
 * racing requests, and, where etcd is built, health following the etcd
 * members' links.
 */
#include <signal.h>

#include <memory>
#include <thread>

#include "acl.h"
#include "etcd_cluster.h"
#include "metrics.h"
#include "operate_support.h"
#include "probe_store.h"
#include "server.h"

namespace {

using namespace operate;
using hspace::service::Options;
using hspace::service::Server;
using hspace::test::kTestBound;
using hspace::test::Watchdog;
namespace metrics = hspace::service::metrics;

// A service on the memory store (or the probe's) with its HTTP endpoint on
// a free port.
std::unique_ptr<Server> serve(Options options = Options(), Probe *probe = nullptr)
{
    options.http = "127.0.0.1:0";
    if (probe != nullptr)
        options.store_factory = [probe](hspace::service::Listener &l) {
            return std::unique_ptr<hspace::service::Store>(new ProbeStore(l, *probe));
        };
    std::unique_ptr<Server> server(new Server(options));
    std::string error;
    EXPECT_TRUE(server->start(&error)) << error;
    EXPECT_NE(server->http_port(), 0);
    return server;
}

TEST(ExpositionWriter, RendersWhatTheFormatAllowsAndReadsBackExactly)
{
    metrics::Registry r;
    metrics::Family &odd = r.family("t_odd_total", "Help with a \\ backslash\nand a newline.", metrics::Type::counter,
                                    {"v"});
    // Label values a reader must get back byte for byte.
    const std::vector<std::string> values = {"plain", "quote \" inside", "back\\slash", "new\nline", "", "{}=,"};
    std::vector<metrics::Counter *> counters;
    for (const std::string &v : values) counters.push_back(&odd.counter({v}));
    for (size_t i = 0; i < counters.size(); i++) counters[i]->inc(i + 1);
    metrics::Family &hidden = r.family("t_hidden_total", "Shown once counted.", metrics::Type::counter, {"k"});
    metrics::Counter &quiet = hidden.counter({"quiet"}, true);
    metrics::Counter &loud = hidden.counter({"loud"}, true);
    metrics::Family &gauges = r.family("t_level", "A gauge.", metrics::Type::gauge);
    gauges.gauge().set(-5);
    metrics::Family &read = r.family("t_read", "A reading.", metrics::Type::gauge, {"k"});
    read.reading({"half"}, [] { return 0.5; });
    read.reading({"big"}, [] { return 1e20; });
    // Bounds 10 and 20 in a unit of 1/1000: 0.01 and 0.02. A value on a
    // bound belongs to that bucket.
    metrics::Histogram &h = r.family("t_seconds", "A histogram.", metrics::Type::histogram, {"op"})
                                .histogram({"x"}, {10, 20}, 1e-3);
    metrics::Histogram &unseen =
        r.family("t_unseen_seconds", "Hidden.", metrics::Type::histogram).histogram({}, {1}, 1, true);
    (void)unseen;
    loud.inc(3);
    struct Observation {
        uint64_t value;
        double le10, le20, inf; // cumulative counts after it
    };
    const Observation observations[] = {
        {0, 1, 1, 1}, {10, 2, 2, 2}, {11, 2, 3, 3}, {20, 2, 4, 4}, {21, 2, 4, 5}, {UINT64_C(1) << 40, 2, 4, 6},
    };
    double sum = 0;
    for (const Observation &o : observations) {
        h.observe(o.value);
        sum += static_cast<double>(o.value) * 1e-3;
        Exposition e(r.render());
        SCOPED_TRACE(o.value);
        EXPECT_EQ(e.value("t_seconds_bucket", {{"op", "x"}, {"le", "0.01"}}), o.le10);
        EXPECT_EQ(e.value("t_seconds_bucket", {{"op", "x"}, {"le", "0.02"}}), o.le20);
        EXPECT_EQ(e.value("t_seconds_bucket", {{"op", "x"}, {"le", "+Inf"}}), o.inf);
        EXPECT_EQ(e.value("t_seconds_count", {{"op", "x"}}), o.inf);
        EXPECT_DOUBLE_EQ(e.value("t_seconds_sum", {{"op", "x"}}), sum);
    }
    Exposition e(r.render());
    EXPECT_EQ(e.families["t_odd_total"].help, "Help with a \\ backslash\nand a newline.");
    ASSERT_EQ(e.families["t_odd_total"].samples.size(), values.size());
    for (size_t i = 0; i < values.size(); i++)
        EXPECT_EQ(e.value("t_odd_total", {{"v", values[i]}}), static_cast<double>(i + 1)) << values[i];
    EXPECT_FALSE(e.has("t_hidden_total", {{"k", "quiet"}}));
    EXPECT_EQ(e.value("t_hidden_total", {{"k", "loud"}}), 3);
    quiet.inc();
    EXPECT_TRUE(Exposition(r.render()).has("t_hidden_total", {{"k", "quiet"}}));
    EXPECT_EQ(e.value("t_level"), -5);
    EXPECT_EQ(e.value("t_read", {{"k", "half"}}), 0.5);
    EXPECT_EQ(e.value("t_read", {{"k", "big"}}), 1e20);
    EXPECT_TRUE(e.families["t_unseen_seconds"].samples.empty());
    // Families come in the order of their names.
    std::vector<std::string> names;
    for (const auto &f : e.families) names.push_back(f.first);
    std::string text = r.render();
    size_t last = 0;
    for (const std::string &n : names) {
        size_t at = text.find("# HELP " + n + " ");
        EXPECT_GE(at, last) << n;
        last = at;
    }

    // Nanoseconds read as seconds exactly as written in decimal, not as
    // the rounding noise of a product by 1e-9 (1.0407177060000001).
    struct Seconds {
        uint64_t ns;
        const char *text;
    };
    const Seconds seconds[] = {{1040717706, "1.040717706"}, {1, "1e-09"}, {UINT64_C(123456789012), "123.456789012"},
                               {300000000, "0.3"}};
    for (const Seconds &c : seconds) {
        metrics::Registry nr;
        nr.family("t_ns_seconds", "ns.", metrics::Type::histogram)
            .histogram({}, {25000, 300000000}, 1e-9)
            .observe(c.ns);
        std::string t = nr.render();
        EXPECT_NE(t.find(std::string("\nt_ns_seconds_sum ") + c.text + "\n"), std::string::npos) << t;
        EXPECT_NE(t.find("{le=\"2.5e-05\"} "), std::string::npos) << t;
        std::string in_bound = c.ns <= 300000000 ? "1" : "0"; // a value on a bound belongs to its bucket
        EXPECT_NE(t.find("{le=\"0.3\"} " + in_bound + "\n"), std::string::npos) << t;
    }
}

TEST(ExpositionWriterDeathTest, DefectsOfTheProgramsOwnDefinitionsAbort)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Defect {
        const char *what;
        void (*run)();
    };
    const Defect defects[] = {
        {"is not a metric name", [] { metrics::Registry().family("9lives", "h", metrics::Type::gauge); }},
        {"is not a label name", [] { metrics::Registry().family("a", "h", metrics::Type::gauge, {"__x"}); }},
        {"registered twice",
         [] {
             metrics::Registry r;
             r.family("a_total", "h", metrics::Type::counter);
             r.family("a_total", "h", metrics::Type::counter);
         }},
        {"registered twice",
         [] {
             metrics::Registry r;
             r.family("d", "h", metrics::Type::histogram);
             r.family("d_count", "h", metrics::Type::gauge);
         }},
        {"label values for",
         [] {
             metrics::Registry r;
             r.family("a_total", "h", metrics::Type::counter, {"x", "y"}).counter({"1"});
         }},
        {"made twice",
         [] {
             metrics::Registry r;
             metrics::Family &f = r.family("a_total", "h", metrics::Type::counter, {"x"});
             f.counter({"1"});
             f.counter({"1"});
         }},
        {"is not a counter", [] { metrics::Registry().family("g", "h", metrics::Type::gauge).counter(); }},
        {"cannot be le",
         [] { metrics::Registry().family("d", "h", metrics::Type::histogram, {"le"}).histogram({"1"}, {1}, 1); }},
        {"bounds must increase",
         [] { metrics::Registry().family("d", "h", metrics::Type::histogram).histogram({}, {2, 2}, 1); }},
        {"after the first exposition",
         [] {
             metrics::Registry r;
             r.render();
             r.family("late", "h", metrics::Type::gauge);
         }},
    };
    for (const Defect &d : defects) EXPECT_DEATH(d.run(), d.what) << d.what;
}

TEST(Metrics, CountersMoveWithRequestsByOperationAndStatus)
{
    Watchdog watchdog;
    Options options;
    options.max_queue = 4096; // a put of 5000 bytes is refused with 12
    std::unique_ptr<Server> server = serve(options);
    const uint16_t port = server->http_port();
    Exposition before = scrape(port);
    // Every family is there from the start, with its series of success.
    for (const char *name :
         {"hspaced_connections_open", "hspaced_connections_accepted_total", "hspaced_connections_refused_total",
          "hspaced_connections_dropped_total", "hspaced_requests_total", "hspaced_request_duration_seconds",
          "hspaced_subscriptions", "hspaced_notifications_total", "hspaced_received_bytes_total",
          "hspaced_sent_bytes_total", "hspaced_store_call_duration_seconds", "hspaced_store_errors_total",
          "hspaced_store_up", "hspaced_start_time_seconds"})
        EXPECT_EQ(before.families.count(name), 1u) << name;
    for (const char *op : {"put", "get", "post", "cancel", "remove"})
        EXPECT_TRUE(before.has("hspaced_requests_total", {{"op", op}, {"status", "0"}})) << op;
    for (const char *reason : {"connection_limit", "no_descriptor", "identity"})
        EXPECT_TRUE(before.has("hspaced_connections_refused_total", {{"reason", reason}})) << reason;
    EXPECT_EQ(before.value("hspaced_store_up"), 1);
    EXPECT_EQ(before.value("hspaced_connections_open"), 0);

    Wire a(server->port()), b(server->port());
    b.request(codec::kOpPost, "k*", 1);
    EXPECT_EQ(b.status(), 0u);
    EXPECT_EQ(b.status(), 2u); // the empty image
    EXPECT_EQ(scrape(port).value("hspaced_subscriptions"), 1);
    a.request(codec::kOpPut, "k1", 2, "v1");
    EXPECT_EQ(a.status(), 0u);
    a.request(codec::kOpGet, "k1", 3);
    EXPECT_EQ(a.status(), 0u);
    a.request(codec::kOpGet, "zz", 4);
    EXPECT_EQ(a.status(), 2u);
    a.request(codec::kOpRemove, "zz", 5);
    EXPECT_EQ(a.status(), 2u);
    a.request(codec::kOpRemove, "k1", 6);
    EXPECT_EQ(a.status(), 0u);
    // b's notifications of the put and the remove.
    EXPECT_EQ(b.next().hspace->triggers, 1);
    EXPECT_EQ(b.next().hspace->triggers, 2);
    a.request(codec::kOpCancel, "nothing", 7);
    EXPECT_EQ(a.status(), 2u);
    b.request(codec::kOpPost, "K*", 8); // the same key to the client
    EXPECT_EQ(b.status(), 20u);
    a.request(codec::kOpPut, "big", 9, std::string(5000, 'x'));
    EXPECT_EQ(a.status(), 12u);
    a.request(9, "k", 10); // no such operation
    EXPECT_EQ(a.status(), 14u);
    b.request(codec::kOpCancel, "k*", 11);
    EXPECT_EQ(b.status(), 0u);
    {
        Wire garbage(server->port(), false);
        garbage.send(std::string(64, '\xff'));
        EXPECT_TRUE(garbage.wait_closed());
    }

    Exposition after = scrape(port);
    auto delta = [&](const std::string &name, const Labels &labels) {
        return after.value(name, labels) - before.value(name, labels);
    };
    struct Moved {
        const char *name;
        Labels labels;
        double by;
    };
    const Moved moved[] = {
        {"hspaced_requests_total", {{"op", "put"}, {"status", "0"}}, 1},
        {"hspaced_requests_total", {{"op", "put"}, {"status", "12"}}, 1},
        {"hspaced_requests_total", {{"op", "get"}, {"status", "0"}}, 1},
        {"hspaced_requests_total", {{"op", "get"}, {"status", "2"}}, 1},
        {"hspaced_requests_total", {{"op", "remove"}, {"status", "0"}}, 1},
        {"hspaced_requests_total", {{"op", "remove"}, {"status", "2"}}, 1},
        {"hspaced_requests_total", {{"op", "post"}, {"status", "0"}}, 1},
        {"hspaced_requests_total", {{"op", "post"}, {"status", "20"}}, 1},
        {"hspaced_requests_total", {{"op", "cancel"}, {"status", "0"}}, 1},
        {"hspaced_requests_total", {{"op", "cancel"}, {"status", "2"}}, 1},
        {"hspaced_requests_total", {{"op", "other"}, {"status", "14"}}, 1},
        {"hspaced_request_duration_seconds_count", {{"op", "put"}}, 2},
        {"hspaced_request_duration_seconds_count", {{"op", "get"}}, 2},
        {"hspaced_request_duration_seconds_count", {{"op", "remove"}}, 2},
        {"hspaced_request_duration_seconds_count", {{"op", "post"}}, 2},
        {"hspaced_request_duration_seconds_count", {{"op", "cancel"}}, 2},
        {"hspaced_request_duration_seconds_count", {{"op", "other"}}, 1},
        // The refused put, the cancels and the duplicate post call no store.
        {"hspaced_store_call_duration_seconds_count", {{"call", "put"}}, 1},
        {"hspaced_store_call_duration_seconds_count", {{"call", "read"}}, 2},
        {"hspaced_store_call_duration_seconds_count", {{"call", "remove"}}, 2},
        {"hspaced_store_call_duration_seconds_count", {{"call", "begin"}}, 1},
        {"hspaced_notifications_total", {}, 2},
        {"hspaced_connections_accepted_total", {}, 3},
        {"hspaced_connections_dropped_total", {{"reason", "invalid"}}, 1},
        {"hspaced_connections_dropped_total", {{"reason", "slow"}}, 0},
        {"hspaced_connections_refused_total", {{"reason", "connection_limit"}}, 0},
        {"hspaced_received_bytes_total", {}, static_cast<double>(a.sent + b.sent + 64)},
    };
    for (const Moved &m : moved) EXPECT_EQ(delta(m.name, m.labels), m.by) << m.name << " " << testing::PrintToString(m.labels);
    // Every request series counted is one of those above: nothing else moved.
    double requests = 0;
    for (const Sample &s : after.families["hspaced_requests_total"].samples) requests += s.value;
    EXPECT_EQ(requests, 11);
    // A remove finding nothing is no store error; none failed.
    EXPECT_TRUE(after.families["hspaced_store_errors_total"].samples.empty());
    EXPECT_EQ(after.value("hspaced_subscriptions"), 0);
    // a and b are open (the garbage connection's end may not be counted yet).
    EXPECT_GE(after.value("hspaced_connections_open"), 2);
    // Bytes written are counted once written: all but maybe the last
    // answer, and never more than the clients read.
    double sent = delta("hspaced_sent_bytes_total", {});
    EXPECT_LE(sent, static_cast<double>(a.received + b.received));
    EXPECT_GE(sent, static_cast<double>(a.received + b.received - b.last));
    // Durations are sums of positive times.
    EXPECT_GT(after.value("hspaced_request_duration_seconds_sum", {{"op", "put"}}), 0);
    EXPECT_GT(after.value("hspaced_start_time_seconds"), 1.5e9);
}

// What the limits and the access rules turned away is counted: a denied
// request under its status, a connection over --max-connections refused, one
// without a handshake dropped at its deadline; the memory held for the
// connections is a gauge.
TEST(Metrics, LimitsAndDenialsAreCounted)
{
    Watchdog watchdog;
    Options options;
    options.max_connections = 2;
    options.handshake_timeout_ms = 100;
    std::string error;
    options.acl = hspace::service::Acl::parse("tests r a/*\n", &error);
    ASSERT_TRUE(options.acl) << error;
    std::unique_ptr<Server> server = serve(options);
    const uint16_t port = server->http_port();
    Wire a(server->port());
    a.request(codec::kOpPut, "a/1", 1, "secret");
    EXPECT_EQ(a.status(), 1104u);
    a.request(codec::kOpGet, "a/1", 2);
    EXPECT_EQ(a.status(), 2u);
    Wire silent(server->port(), false);
    Wire over(server->port(), false);
    std::string hello;
    codec::encode_handshake_request(hello, "data", "over", "tests");
    over.send(hello);
    EXPECT_EQ(over.status(), 1107u);
    EXPECT_TRUE(over.wait_closed());
    EXPECT_TRUE(silent.wait_closed());
    Exposition e = scrape(port);
    EXPECT_EQ(e.value("hspaced_requests_total", {{"op", "put"}, {"status", "1104"}}), 1);
    EXPECT_EQ(e.value("hspaced_requests_total", {{"op", "get"}, {"status", "2"}}), 1);
    EXPECT_EQ(e.value("hspaced_connections_refused_total", {{"reason", "connection_limit"}}), 1);
    EXPECT_EQ(e.value("hspaced_connections_refused_total", {{"reason", "identity"}}), 0);
    EXPECT_EQ(e.value("hspaced_connections_dropped_total", {{"reason", "handshake_timeout"}}), 1);
    EXPECT_EQ(e.value("hspaced_connections_dropped_total", {{"reason", "memory"}}), 0);
    EXPECT_GT(e.value("hspaced_connection_memory_bytes"), 0);
    EXPECT_EQ(e.value("hspaced_accept_pauses_total"), 0);
}

TEST(Metrics, StoreFailuresAreCountedByCallAndStatusAndLoggedOnce)
{
    Watchdog watchdog;
    Probe probe;
    Lines lines;
    Options options;
    options.log = true;
    options.log_sink = lines.sink();
    std::unique_ptr<Server> server = serve(options, &probe);
    Wire w(server->port());
    struct Failure {
        uint8_t opcode;
        const char *key;
        uint32_t status;
        const char *call, *level;
    };
    const Failure failures[] = {
        {codec::kOpPut, "f/1", 1101, "put", "error"},  {codec::kOpGet, "f/1", 1102, "read", "error"},
        {codec::kOpRemove, "f/1", 1103, "remove", "warn"}, {codec::kOpPost, "f/*", 1101, "begin", "error"},
        {codec::kOpPut, "f/2", 12, "put", "warn"},     {codec::kOpPut, "f/3", 7777, "put", "warn"},
    };
    uint32_t corrid = 1;
    for (const Failure &f : failures) {
        probe.fail = f.status;
        w.request(f.opcode, f.key, corrid++, f.opcode == codec::kOpPut ? "secret-value" : "");
        EXPECT_EQ(w.status(), f.status) << f.key;
    }
    Exposition e = scrape(server->http_port());
    for (const Failure &f : failures) {
        std::string status = f.status == 7777 ? "other" : std::to_string(f.status);
        SCOPED_TRACE(std::string(f.call) + " " + status);
        EXPECT_GE(e.value("hspaced_store_errors_total", {{"call", f.call}, {"status", status}}), 1);
        std::string op = f.opcode == codec::kOpPut ? "put" : f.opcode == codec::kOpGet ? "get"
                         : f.opcode == codec::kOpPost ? "post" : "remove";
        EXPECT_GE(e.value("hspaced_requests_total", {{"op", op}, {"status", status}}), 1);
    }
    EXPECT_EQ(e.value("hspaced_store_errors_total", {{"call", "put"}, {"status", "1101"}}), 1);
    server->stop();
    // One line per failure, at its level, with the store's words.
    size_t logged = 0;
    for (const std::string &line : lines.all()) {
        EXPECT_EQ(line.find("secret-value"), std::string::npos) << line;
        if (line.find("event=store_failed") == std::string::npos) continue;
        ASSERT_LT(logged, std::size(failures)) << line;
        const Failure &f = failures[logged++];
        EXPECT_NE(line.find(std::string("level=") + f.level), std::string::npos) << line;
        EXPECT_NE(line.find(std::string("call=") + f.call + " status=" + std::to_string(f.status)), std::string::npos)
            << line;
        EXPECT_NE(line.find("reason=\"" + ProbeStore::why(f.status) + "\""), std::string::npos) << line;
    }
    EXPECT_EQ(logged, std::size(failures));
}

TEST(Metrics, TheEndpointServesItsThreePathsAndNothingElse)
{
    Watchdog watchdog;
    std::unique_ptr<Server> server = serve();
    const uint16_t port = server->http_port();
    struct Case {
        const char *method, *path;
        int status;
        const char *body; // a prefix; null: any
    };
    const Case cases[] = {
        {"GET", "/metrics", 200, "# HELP hspaced_"},
        {"GET", "/health", 200, "ok\n"},
        {"GET", "/ready", 200, "ok\n"},
        {"HEAD", "/health", 200, ""},
        {"GET", "/", 404, nullptr},
        {"GET", "/metrics/x", 404, nullptr},
        {"GET", "/healthz", 404, nullptr},
        {"POST", "/metrics", 404, nullptr},
    };
    for (const Case &c : cases) {
        Answer a = http(port, c.path, c.method);
        SCOPED_TRACE(std::string(c.method) + " " + c.path);
        EXPECT_EQ(a.status, c.status);
        if (c.body != nullptr) {
            EXPECT_EQ(a.body.compare(0, strlen(c.body), c.body), 0) << a.body;
        }
    }

    // An address in use, or one that is not HOST:PORT, fails the start
    // with the reason; the service's own port is given back.
    struct Bad {
        std::string http, words;
    };
    const Bad bads[] = {
        {"127.0.0.1:" + std::to_string(port), "cannot listen on 127.0.0.1:" + std::to_string(port) + " for HTTP"},
        {"127.0.0.1", "is not HOST:PORT"},
        {"127.0.0.1:65536", "is not HOST:PORT"},
        {"::1:80", "is not HOST:PORT"},
        {"[::1:80", "is not HOST:PORT"},
        {":80", "is not HOST:PORT"},
    };
    for (const Bad &b : bads) {
        Options o;
        o.http = b.http;
        Server other(o);
        std::string error;
        EXPECT_FALSE(other.start(&error)) << b.http;
        EXPECT_NE(error.find(b.words), std::string::npos) << b.http << ": " << error;
    }
    server->stop();
    EXPECT_EQ(http(port, "/health").status, -1) << "the endpoint outlived the service";
}

TEST(Metrics, HealthAndReadinessFollowTheStoreAndTheServicesLife)
{
    Watchdog watchdog;
    Probe probe;
    probe.healthy = false;
    std::unique_ptr<Server> server = serve(Options(), &probe);
    const uint16_t port = server->http_port();
    const std::string down = std::string(ProbeStore::kDown) + "\n";
    struct Step {
        const char *what;
        bool store;                            // the store's health, set first
        int health;
        std::string health_body;
        int ready;
        std::string ready_body;
        double up;
    };
    const Step steps[] = {
        {"store never reached", false, 503, "store unreachable: " + down, 503, "store not reached yet: " + down, 0},
        {"store reached", true, 200, "ok\n", 200, "ok\n", 1},
        {"store lost: ready stays", false, 503, "store unreachable: " + down, 200, "ok\n", 0},
        {"store back", true, 200, "ok\n", 200, "ok\n", 1},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.what);
        probe.healthy = s.store;
        Answer health = http(port, "/health"), ready = http(port, "/ready");
        EXPECT_EQ(health.status, s.health);
        EXPECT_EQ(health.body, s.health_body);
        EXPECT_EQ(ready.status, s.ready);
        EXPECT_EQ(ready.body, s.ready_body);
        EXPECT_EQ(scrape(port).value("hspaced_store_up"), s.up);
    }

    // Stopping: both 503 until the endpoint goes with the service.
    probe.hold_close = true;
    std::thread stopper([&] { server->stop(); });
    ASSERT_TRUE(probe.wait_closing());
    for (const char *path : {"/health", "/ready"}) {
        Answer a = http(port, path);
        EXPECT_EQ(a.status, 503) << path;
        EXPECT_EQ(a.body, "stopping\n") << path;
    }
    probe.release_close();
    stopper.join();
    EXPECT_EQ(http(port, "/ready").status, -1);
}

TEST(Metrics, ScrapesRacingRequestsStayConsistent)
{
    Watchdog watchdog;
    std::unique_ptr<Server> server = serve();
    const uint16_t port = server->http_port();
    constexpr int kRounds = 150;
    std::atomic<bool> done{false};
    std::thread client([&] {
        Wire w(server->port());
        for (uint32_t i = 0; i < kRounds; i++) {
            w.request(codec::kOpPut, "r/" + std::to_string(i % 7), 2 * i, "v");
            EXPECT_EQ(w.status(), 0u);
            w.request(codec::kOpGet, "r/*", 2 * i + 1, "", codec::kFlagKeyOnly);
            for (uint32_t n = 0, of = 1; n < of; n++) {
                codec::Packet p = w.next();
                ASSERT_TRUE(p.rr.has_value());
                of = p.rr->count();
            }
        }
        done = true;
    });
    // Each scrape is read strictly (histograms whole), and no counter goes
    // back between two.
    double puts = 0, gets = 0, received = 0;
    int scrapes = 0;
    while (!done || scrapes < 3) {
        Exposition e = scrape(port);
        double p = e.value("hspaced_request_duration_seconds_count", {{"op", "put"}});
        double g = e.value("hspaced_requests_total", {{"op", "get"}, {"status", "0"}});
        double r = e.value("hspaced_received_bytes_total");
        EXPECT_GE(p, puts);
        EXPECT_GE(g, gets);
        EXPECT_GE(r, received);
        puts = p, gets = g, received = r;
        scrapes++;
    }
    client.join();
    Exposition e = scrape(port);
    EXPECT_EQ(e.value("hspaced_requests_total", {{"op", "put"}, {"status", "0"}}), kRounds);
    EXPECT_EQ(e.value("hspaced_request_duration_seconds_count", {{"op", "get"}}), kRounds);
}

#if QEL_TEST_ETCD
// An HTTP GET of path until its status is want, each try bounded; the
// watchdog bounds them all.
Answer until_status(uint16_t port, const char *path, int want)
{
    Answer a;
    while ((a = http(port, path)).status != want) {
    }
    return a;
}

TEST(MetricsEtcd, HealthFollowsTheLinksToTheMembers)
{
    if (!EtcdCluster::installed()) GTEST_SKIP() << "etcd (etcd-server, etcd-client) is not installed";
    Watchdog watchdog;
    EtcdCluster etcd(1);
    ASSERT_TRUE(etcd.start(kTestBound));
    Lines lines;
    Options o;
    o.store = etcd.store_url();
    o.store_prefix = "health/";
    o.store_timeout_ms = 500;
    o.log = true;
    o.log_sink = lines.sink();
    std::unique_ptr<Server> server = serve(o);
    const uint16_t port = server->http_port();
    Wire w(server->port());
    w.request(codec::kOpPut, "k", 1, "v");
    EXPECT_EQ(w.status(), 0u);
    EXPECT_EQ(http(port, "/health").body, "ok\n");
    EXPECT_EQ(http(port, "/ready").status, 200);
    EXPECT_EQ(scrape(port).value("hspaced_store_up"), 1);

    // The member gone: its link fails, without a request; then a request
    // fails with 1101, logged once, by the service.
    etcd.kill(0);
    Answer down = until_status(port, "/health", 503);
    EXPECT_EQ(down.body.compare(0, 42, "store unreachable: no etcd member linked ("), 0) << down.body;
    EXPECT_NE(down.body.find(o.store.substr(7)), std::string::npos) << down.body;
    EXPECT_EQ(http(port, "/ready").status, 200) << "ready once the store was reached";
    EXPECT_EQ(scrape(port).value("hspaced_store_up"), 0);
    w.request(codec::kOpPut, "k", 2, "v2");
    EXPECT_EQ(w.status(), 1101u);
    EXPECT_EQ(http(port, "/health").status, 503);
    std::vector<std::string> failed;
    for (const std::string &line : lines.all())
        if (line.find("failed") != std::string::npos) failed.push_back(line);
    ASSERT_EQ(failed.size(), 1u) << testing::PrintToString(failed);
    EXPECT_NE(failed[0].find("level=error event=store_failed conn=1 call=put status=1101"), std::string::npos)
        << failed[0];

    // Back: healthy again as soon as a request has been served.
    ASSERT_TRUE(etcd.start(kTestBound));
    uint32_t corrid = 3;
    do
        w.request(codec::kOpPut, "k", corrid++, "v3");
    while (w.status() != 0);
    EXPECT_EQ(http(port, "/health").body, "ok\n");
    EXPECT_EQ(scrape(port).value("hspaced_store_up"), 1);
}
#endif

} // namespace
