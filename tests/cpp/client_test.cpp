/*
 * client_test.cpp - the C++ API against hspaced in-process (restartable on
 * the same port) and, for deadlines, a fake service that never answers.
 */
#include "cpp_support.h"

namespace {

using namespace cpptest;

TEST(CppErrors, CategoryMessagesAndMappings)
{
    const std::error_category &cat = qh::category();
    EXPECT_STREQ("qel_hspace", cat.name());
    const struct { t_kro_error code; std::errc errc; } mapped[] = {
        {KRO_ERR_INVALID_ARG, Errc::invalid_argument}, {KRO_ERR_BAD_ADDRESS, Errc::invalid_argument},
        {KRO_ERR_INVALID_STATE, Errc::operation_not_permitted}, {KRO_ERR_NOT_SUPPORTED, Errc::not_supported},
        {KRO_ERR_CLOSED, Errc::operation_canceled}, {KRO_ERR_EXISTS, Errc::file_exists}, {KRO_ERR_INTERRUPTED, Errc::interrupted},
        {KRO_ERR_BAD_PROTOCOL, Errc::protocol_not_supported}, {KRO_ERR_WOULD_DEADLOCK, Errc::resource_deadlock_would_occur},
        {KRO_ERR_CONN_REFUSED, Errc::connection_refused}, {KRO_ERR_HOST_NOT_FOUND, Errc::host_unreachable},
        {KRO_ERR_PEER_CLOSED, Errc::connection_reset}, {KRO_ERR_INVALID_PACKET, Errc::bad_message},
        {KRO_ERR_NOT_CONNECTED, Errc::not_connected}, {KRO_ERR_TIMEOUT, Errc::timed_out}, {KRO_ERR_NO_MEMORY, Errc::not_enough_memory},
        {KRO_ERR_TLS_HANDSHAKE, Errc::protocol_error}, {KRO_ERR_TLS_CLIENT_CERT, Errc::permission_denied},
        {KRO_ERR_TLS_CONFIG, Errc::invalid_argument}, {KRO_ERR_TLS_TIMEOUT, Errc::timed_out},
        {HSPACE_STATUS_STORE_UNAVAILABLE, Errc::resource_unavailable_try_again}, {HSPACE_STATUS_STORE_TIMEOUT, Errc::timed_out},
        {HSPACE_STATUS_STORE_TOO_LARGE, Errc::value_too_large}, {HSPACE_STATUS_PERMISSION_DENIED, Errc::permission_denied},
        {HSPACE_STATUS_IDENTITY_REFUSED, Errc::permission_denied}, {HSPACE_STATUS_CONNECTION_LIMIT, Errc::connection_refused}};
    for (const auto &m : mapped) {
        std::error_code ec = qh::make_error_code(m.code);
        EXPECT_EQ(ec, m.errc) << m.code;
        EXPECT_EQ(&ec.category(), &cat);
    }
    // Every code of the library, the runtime and the service has its own
    // text; other statuses pass through as themselves with the generic text,
    // and so do the codes no std::errc fits.
    const t_kro_error codes[] = {2, 7, 9, 12, 13, 14, 18, 20, 21, 22, 23, 1001, 1002, 1003, 1004, 1005, 1006, 1007, 1008,
                                 1009, 1010, 1011, 1012, 1013, 1014, 1015, 1101, 1102, 1103, 1104, 1105, 1106, 1107};
    std::set<std::string> texts;
    for (t_kro_error c : codes) {
        const t_kro_char *text = nullptr;
        qel_hspace_error_get_text(c, &text);
        EXPECT_EQ(text, qh::make_error_code(c).message()) << c;
        texts.insert(text);
    }
    EXPECT_EQ(std::size(codes), texts.size());
    std::error_code status = qh::make_error_code(t_kro_error(4242));
    EXPECT_TRUE(status.value() == 4242 && status.default_error_condition().category() == cat);
    EXPECT_FALSE(texts.count(status.message()));
    for (t_kro_error own : {KRO_ERR_TLS_VERIFY, t_kro_error(HSPACE_STATUS_TOO_MANY_SUBSCRIPTIONS)})
        EXPECT_EQ(qh::make_error_code(own).default_error_condition(), std::error_condition(int(own), cat));
    EXPECT_EQ(qh::make_error_code(KRO_ERR_TIMEOUT), qh::error::timeout);
    EXPECT_EQ(qh::make_error_code(t_kro_error(HSPACE_STATUS_STORE_UNAVAILABLE)), qh::error::store_unavailable);
    EXPECT_FALSE(qh::make_error_code(t_kro_error(0)));
}

TEST_F(CppTest, DataCallsBothForms)
{
    qh::Client c = client();
    EXPECT_EQ(qh::State::connected, c.state());
    c.put("k/1", "one");
    c.put("k/2", std::string(100000, 'x'));
    const std::byte bin[] = {std::byte{0}, std::byte{255}};
    std::error_code ec;
    c.put("bin", bin, 2, ec);
    ASSERT_FALSE(ec);
    c.put_noreply("k/3", "three");
    qh::Objects all = c.get("k/*");
    ASSERT_EQ(3u, all.size());
    EXPECT_TRUE(all[0].key() == "k/1" && all[0].value() == "one" && all[1].value().size() == 100000u);
    EXPECT_EQ(std::string("\0\xff", 2), c.get("bin").at(0).value());
    EXPECT_FALSE(c.get("k/1", qh::Call{{}, false, true}).at(0).has_value());
    EXPECT_TRUE(c.get("absent").empty());
    qh::Object moved = std::move(all[0]);
    EXPECT_TRUE(!all[0] && moved.value() == "one");

    c.remove("k/1");
    EXPECT_EQ(qh::error::no_match, (c.remove("k/1", ec), ec));
    EXPECT_THROW(c.remove("k/1"), std::system_error);
    c.remove_noreply("k/2");
    EXPECT_EQ(Errc::invalid_argument, (c.get(std::string_view("a\0b", 3), ec), ec));

    std::future<qh::Objects> f = c.get_async("k/3");
    ASSERT_EQ(std::future_status::ready, f.wait_for(kBound));
    EXPECT_EQ("three", f.get().at(0).value());
    Seen seen;
    c.get_async("k/*", [&](std::error_code e, qh::Objects &&o) { seen.add("async:" + std::to_string(e.value()) + ":" + std::to_string(o.size())); });
    EXPECT_TRUE(seen.wait_for("async:0:1"));
    EXPECT_EQ("three", c.get("k/3", qh::Call{std::chrono::seconds(10)}).at(0).value());

    // Every state's refusals.
    qh::Client idle(url()), empty, bad("udp://127.0.0.1:1");
    EXPECT_EQ(qh::error::invalid_state, (idle.get("k", ec), ec));
    EXPECT_EQ(qh::error::invalid_state, (empty.put("k", "v", ec), ec));
    EXPECT_EQ(Errc::protocol_not_supported, (bad.open(ec), ec));
    EXPECT_EQ(qh::error::invalid_state, (c.open(ec), ec));
    c.close();
    c.close();
    EXPECT_EQ(qh::State::closed, c.state());
    EXPECT_EQ(qh::error::closed, (c.put("k", "v", ec), ec));
    EXPECT_THROW(c.get("k"), std::system_error);
    EXPECT_THROW(c.get_async("k").get(), std::system_error);
}

// Overlapping subscriptions of one Client, each with its own trigger mask
// and key-only choice: the service sends one notification per change for
// all of them, and each receives its own selection of it. subscribe()
// returns once its image was delivered.
TEST_F(CppTest, OverlappingSubscriptionsEachGetTheirSelection)
{
    qh::Client c = client(), writer = client();
    writer.put("s/a", "1");
    const auto removed = std::uint8_t(qh::Trigger::removed), stored = std::uint8_t(qh::Trigger::stored);
    const struct {
        const char *key;
        qh::SubscribeOptions options;
        std::vector<std::string> log;
    } cases[] = {
        {"s/a", {}, {"image:0:s/a=1,", "change:1:s/a=2", "change:2:s/a"}},
        {"s/*", {}, {"image:0:s/a=1,", "change:1:s/a=2", "change:1:s/b=3", "change:2:s/a", "change:2:s/b"}},
        {"s*", {0, false, true}, {"image:0:s/a,", "change:1:s/a", "change:1:s/b", "change:2:s/a", "change:2:s/b"}},
        {"s/b", {removed}, {"image:0:", "change:2:s/b"}},
        {"s/b*", {stored, true}, {"change:1:s/b=3"}},
        {"s/a/deeper*", {}, {"image:0:"}},
        {"S/c", {}, {"image:0:", "change:1:S/c=6"}}, // the patterns above take only their own letters
        {"t/x", {qh::Trigger::stored | qh::Trigger::removed}, {"image:0:", "change:1:t/x=0"}},
    };
    constexpr size_t n = std::size(cases);
    Seen seen[n];
    std::vector<qh::Subscription> subs;
    for (size_t i = 0; i < n; i++) {
        subs.push_back(c.subscribe(cases[i].key, seen[i].images(), seen[i].changes(), cases[i].options));
        EXPECT_EQ(cases[i].options.no_image ? 0u : 1u, seen[i].lines().size()) << cases[i].key;
    }
    std::error_code ec;
    EXPECT_FALSE(c.subscribe("S/A", nullptr, nullptr, {}, ec));
    EXPECT_EQ(qh::error::exists, ec);

    writer.put("s/a", "2");
    writer.put("s/b", "3");
    writer.remove("s/a");
    writer.remove("s/b");
    writer.put("S/c", "6");
    writer.put("t/x", "0");
    ASSERT_TRUE(seen[n - 1].wait_for("change:1:t/x=0")); // the last: the others have theirs by then
    for (size_t i = 0; i < n; i++) EXPECT_EQ(cases[i].log, seen[i].lines()) << cases[i].key;

    // Cancelled: no further callback; the key may be subscribed again at once.
    subs[1].reset();
    ASSERT_FALSE(subs[1]);
    subs[0].reset();
    subs[0] = c.subscribe("s/a", seen[0].images(), seen[0].changes(), qh::SubscribeOptions{0, true, true});
    writer.put("s/a", "4");
    EXPECT_TRUE(seen[0].wait_for("change:1:s/a"));
    writer.put("t/x", "5");
    EXPECT_TRUE(seen[n - 1].wait_for("change:1:t/x=5"));
    EXPECT_EQ(cases[1].log, seen[1].lines());
    // A blocking call from a callback is refused, not deadlocked.
    Seen inner;
    qh::Subscription self = c.subscribe("u", [&](qh::Image &&) {
        std::error_code e;
        c.put("u", "x", e);
        inner.add("put:" + std::to_string(e.value()));
    }, nullptr);
    EXPECT_TRUE(inner.wait_for("put:23"));
}

// A subscription ended inside its own callback; a subscription, or its whole
// Client, ended from another thread while its callback runs: after reset()
// returns no callback of it runs.
TEST_F(CppTest, SubscriptionEndsFromItsCallbackAndFromAnotherThread)
{
    qh::Client c = client(), writer = client();
    Seen seen, sentinel;
    qh::Subscription self = c.subscribe("own", nullptr, [&](qh::Change &&ch) {
        seen.changes()(std::move(ch));
        self.reset(); // inside its own callback: the cancel is sent later
    });
    qh::Subscription last = c.subscribe("sentinel", nullptr, sentinel.changes());
    writer.put("own", "1");
    writer.put("own", "2");
    writer.put("sentinel", "s");
    ASSERT_TRUE(sentinel.wait_for("change:1:sentinel=s"));
    EXPECT_EQ(std::vector<std::string>{"change:1:own=1"}, seen.log);

    for (int round = 0; round < 20; round++) {
        Signal entered, go;
        std::atomic<bool> left{false}, after_reset{false};
        auto owner = std::make_unique<qh::Client>(client()); // ended whole in odd rounds
        qh::Subscription busy = (round % 2 ? *owner : c).subscribe("busy", nullptr, [&](qh::Change &&) {
            EXPECT_FALSE(after_reset.load());
            entered.raise(), go.wait(), left = true;
        });
        writer.put("busy", "x");
        ASSERT_TRUE(entered.wait());
        std::thread other([&] { // its reset must wait for the running callback
            if (round % 2 == 0) busy.reset();
            else owner.reset();
            EXPECT_TRUE(left.load()) << "returned while the callback ran";
            after_reset = true;
        });
        go.raise();
        other.join();
        writer.put("busy", "y");
        writer.put("sentinel", std::to_string(round));
        ASSERT_TRUE(sentinel.wait_for("change:1:sentinel=" + std::to_string(round)));
        watchdog_.Kick();
    }
}

// A Client or Subscription going out of scope in every state frees
// everything and runs no callback afterwards (ASan and TSan watch).
TEST_F(CppTest, RaiiInEveryState)
{
    Seen seen;
    std::atomic<int> after{0};
    std::atomic<bool> gone{false};
    auto watch = [&](qh::Client &c, const char *key) {
        return c.subscribe(key, [&](qh::Image &&) { after += gone; }, [&](qh::Change &&) { after += gone; });
    };
    { qh::Client never(url()); }
    {   // open, with a live subscription, a pending get and one outliving it
        qh::Client c = client();
        qh::Subscription inner = watch(c, "r");
        c.get_async("r", [&](std::error_code, qh::Objects &&) {});
        qh::Subscription outlives = watch(c, "r2");
        qh::Client moved = std::move(c);
        moved.put("r", "v");
        gone = true;
        moved.close();
        outlives.reset(); // after its Client closed: a no-op
    }
    gone = false;
    qh::Subscription orphan;
    {   // failed: reconnection off, the service gone
        qh::Client c = client(&seen, false);
        orphan = watch(c, "f");
        server_->stop();
        EXPECT_TRUE(seen.wait_for("state:3"));
        EXPECT_EQ(qh::State::failed, c.state());
        std::error_code ec;
        EXPECT_EQ(qh::error::invalid_state, (c.put("f", "v", ec), ec)); // the C handle's answer
        gone = true;
    }
    orphan.reset();
    gone = false;
    EXPECT_EQ(1u, seen.count("state:3"));
    EXPECT_EQ(0, after.load());
}

// hspaced stopped and started again on the same port while a subscriber
// lives: calls fail fast meanwhile, the subscription comes back with a
// resync image and then sees the changes made after the restart. A Client
// reconnecting with a long backoff goes out of scope at once.
TEST_F(CppTest, ReconnectsAndResyncsAfterRestart)
{
    Seen states, seen, slow_states;
    qh::Client c = client(&states);
    auto slow = std::make_unique<qh::Client>(client(&slow_states, true, std::chrono::hours(1)));
    c.put("w/1", "before");
    qh::Subscription s = c.subscribe("w/*", seen.images(), seen.changes());
    qh::Subscription slow_sub = slow->subscribe("w/*", nullptr, nullptr);
    ASSERT_TRUE(seen.wait_for("image:0:w/1=before,"));
    uint16_t port = server_->port();
    server_->stop();
    ASSERT_TRUE(states.wait_for("state:2") && slow_states.wait_for("state:2"));
    std::error_code ec;
    EXPECT_EQ(qh::error::not_connected, (c.put("w/2", "lost", ec), ec)); // fails fast
    slow.reset();
    Signal calling;
    std::thread restart([&] {
        calling.wait();
        start(port);
    });
    calling.raise(); // the link comes back only after the put below has begun
    c.put("w/2", "after", qh::Call{{}, true}, ec); // waits for the link instead of failing
    restart.join();
    EXPECT_FALSE(ec);
    ASSERT_TRUE(states.wait_for("state:1"));
    ASSERT_TRUE(seen.wait([&] {
        return std::any_of(seen.log.begin(), seen.log.end(), [](const std::string &l) { return l.rfind("image:1:", 0) == 0; });
    }));
    qh::Client writer = client();
    writer.put("w/3", "later");
    EXPECT_TRUE(seen.wait_for("change:1:w/3=later"));
    EXPECT_EQ(1u, seen.count("image:0:w/1=before,"));
    EXPECT_EQ("after", c.get("w/2").at(0).value());
}

} // namespace
