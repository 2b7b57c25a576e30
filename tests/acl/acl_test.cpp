/*
 * acl_test.cpp - the service's access rules. The rule file's grammar and
 * its errors by line; matching checked against a model that scans every
 * rule; identities from a handshake's claims and a certificate's subject.
 * Then a running service (in-process, memory store) that enforces them: a
 * table of group x operation x key or pattern with the store compared
 * after every request, patterns half inside a rule, refusals without a
 * reply; reloads under live writers and subscribers, a bad file kept out;
 * identities from client certificates over TLS, and claims they refuse.
 */
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <random>

#include "acl.h"
#include "certs.h"
#include "client_harness.h"
#include "server.h"

namespace {

using namespace hspace::test;
using hspace::service::Acl;
using hspace::service::describe;
using hspace::service::escape_field;
using hspace::service::identify;
using hspace::service::Identity;
using hspace::service::Options;
using hspace::service::Server;
using hspace::service::Subject;
using hspace::test::CertFiles;
using hspace::test::Certs;
using Groups = std::vector<std::string>;

constexpr t_kro_error kDenied = HSPACE_STATUS_PERMISSION_DENIED;
constexpr uint8_t kPut = codec::kOpPut, kGet = codec::kOpGet, kPost = codec::kOpPost, kCancel = codec::kOpCancel,
                  kRemove = codec::kOpRemove;

std::shared_ptr<const Acl> Parse(const std::string &text)
{
    std::string error;
    std::shared_ptr<const Acl> acl = Acl::parse(text, &error);
    EXPECT_TRUE(acl) << error;
    return acl;
}

TEST(AclFile, EveryLineIsARuleACommentOrBlankAndAnErrorNamesItsLine)
{
    const std::string longest(codec::kMaxString, 'k');
    const struct {
        std::string text;
        int rules;         // rules parsed; -1: refused
        std::string error; // the refusal, exactly
    } cases[] = {
        {"", 0, ""},
        {"# a comment\n\n \t \n#another", 0, ""},
        {"g rw a*  # trailing comment\ng r b#c\n", 2, ""},
        {"g r a\r\ng w b\r\n", 2, ""},
        {"g r " + longest, 1, ""},
        {"g r " + longest + "k", -1, "line 1: the pattern is 65536 bytes; a key is at most 65535"},
        {"g rw", -1, "line 1: expected GROUP RIGHTS PATTERN, found 2 fields"},
        {"\n# two\n\ng r a b", -1, "line 4: expected GROUP RIGHTS PATTERN, found 4 fields"},
        {"g", -1, "line 1: expected GROUP RIGHTS PATTERN, found 1 field"},
        {"g x a", -1, "line 1: rights 'x' are not r, w or rw"},
        {"g r a\ng wr a", -1, "line 2: rights 'wr' are not r, w or rw"},
        {"g R a", -1, "line 1: rights 'R' are not r, w or rw"},
        {"g r a\\q", -1, "line 1: pattern: unknown escape \\q (\\xNN, \\t, \\n, \\r or \\\\)"},
        {"g r a\\x4", -1, "line 1: pattern: \\x needs two hex digits"},
        {"g r a\\xg0", -1, "line 1: pattern: \\x needs two hex digits"},
        {"g r a\\", -1, "line 1: pattern: '\\' ends the field; write \\\\ for a backslash"},
        {"g r a\\*", -1, "line 1: pattern: '\\' ends the field; write \\\\ for a backslash"},
        {"g\\ r a", -1, "line 1: group: '\\' ends the field; write \\\\ for a backslash"},
        {"g r a\x01z", -1, "line 1: control byte \\x01"},
        {std::string("g r a\0z", 7), -1, "line 1: control byte \\x00"},
        {"g r a\rz", -1, "line 1: control byte \\r"},
    };
    for (const auto &k : cases) {
        std::string error;
        std::shared_ptr<const Acl> acl = Acl::parse(k.text, &error);
        EXPECT_EQ(acl ? static_cast<int>(acl->rules()) : -1, k.rules) << escape_field(k.text);
        EXPECT_EQ(error, k.error) << escape_field(k.text);
    }
}

TEST(AclFile, LoadNamesTheFileAndTheLineOrWhyItCannotBeRead)
{
    char dir[] = "/tmp/acl_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/rules";
    std::ofstream(path) << "g rw a*\n\ng rw\n";
    std::string error;
    EXPECT_FALSE(Acl::load(path, &error));
    EXPECT_EQ(error, path + ":3: expected GROUP RIGHTS PATTERN, found 2 fields");
    EXPECT_FALSE(Acl::load(dir, &error));
    EXPECT_EQ(error, std::string("cannot read ") + dir + ": Is a directory");
    std::ofstream(path) << "g rw a*\n";
    std::shared_ptr<const Acl> acl = Acl::load(path, &error);
    ASSERT_TRUE(acl);
    EXPECT_TRUE(acl->permits({"g"}, kPut, "ab"));
    unlink(path.c_str());
    EXPECT_FALSE(Acl::load(path, &error));
    EXPECT_EQ(error, "cannot read " + path + ": No such file or directory");
    rmdir(dir);
}

TEST(AclMatch, ARequestNeedsOneRuleOverAllItTouches)
{
    std::shared_ptr<const Acl> acl = Parse("dev   rw  app/*\n"
                                           "dev   r   shared/*\n"
                                           "dev   r   shared/x/*   # inside the one above\n"
                                           "ops   w   config/motd\n"
                                           "ops   r   config/*\n"
                                           "audit r   *\n"
                                           "bin   rw  \\x00\\xff*\n"
                                           "star  rw  lit\\x2a\n"
                                           "sp\\x20ace r a\\x20b\n"
                                           "pre   r   ab*\n"
                                           "pre   r   abc*\n"
                                           "pre   r   abd\n");
    ASSERT_TRUE(acl);
    const struct {
        Groups groups;
        uint8_t opcode;
        std::string key;
        bool permitted;
    } cases[] = {
        {{"dev"}, kPut, "app/1", true},          {{"dev"}, kRemove, "app/1", true},
        {{"dev"}, kGet, "app/1", true},          {{"dev"}, kPost, "app/*", true},
        {{"dev"}, kGet, "app/x/*", true},        {{"dev"}, kGet, "app/", true},
        {{"dev"}, kGet, "app", false},           {{"dev"}, kGet, "ap*", false},
        {{"dev"}, kPost, "app*", false},         {{"dev"}, kGet, "*", false},
        {{"dev"}, kPut, "shared/1", false},      {{"dev"}, kGet, "shared/x/y", true},
        {{"dev"}, kGet, "shared*", false},       {{"dev"}, kPut, "APP/1", false},
        {{"dev"}, kPut, "app/*", true}, // a put's key is one key, '*' and all
        {{"ops"}, kPut, "config/motd", true},    {{"ops"}, kRemove, "config/motd", true},
        {{"ops"}, kPut, "config/motd2", false},  {{"ops"}, kPut, "config/mot", false},
        {{"ops"}, kGet, "config/motd", true},    {{"ops"}, kPost, "config/*", true},
        {{"ops"}, kGet, "config*", false},       {{"ops"}, kGet, "app/1", false},
        {{"audit"}, kGet, "*", true},            {{"audit"}, kPost, "", true},
        {{"audit"}, kPut, "x", false},           {{"audit"}, kRemove, "", false},
        {{"bin"}, kPut, std::string("\0\xff", 2), true},
        {{"bin"}, kPut, std::string("\0\xfe", 2), false},
        {{"star"}, kPut, "lit*", true},          {{"star"}, kGet, "lit*", false},
        {{"star"}, kPut, "lit", false},          {{"star"}, kPut, "lit*x", false},
        {{"sp ace"}, kGet, "a b", true},         {{"sp"}, kGet, "a b", false},
        {{"pre"}, kGet, "abc*", true},           {{"pre"}, kGet, "ab*", true},
        {{"pre"}, kGet, "ab", true},             {{"pre"}, kGet, "abe", true},
        {{"pre"}, kGet, "a*", false},            {{"pre"}, kGet, "a", false},
        {{}, kGet, "app/1", false},              {{"nobody"}, kPut, "app/1", false},
        {{"nobody", "audit", "dev"}, kPut, "app/1", true},
        {{"nobody", "audit"}, kGet, "app/1", true},
        // Cancel ends only the connection's own subscription; unknown
        // opcodes reach no store.
        {{}, kCancel, "config/*", true},         {{}, 3, "app/1", true},
        {{}, 200, "app/1", true},
    };
    for (const auto &k : cases)
        EXPECT_EQ(acl->permits(k.groups, k.opcode, k.key), k.permitted)
            << (k.groups.empty() ? "" : k.groups[0]) << " op " << int(k.opcode) << " " << escape_field(k.key);
}

// Random rule sets over a small alphabet, so that prefixes nest, overlap and
// repeat, judged against a scan of every rule, for every key and pattern.
TEST(AclMatch, AgreesWithAScanOfEveryRule)
{
    struct Rule {
        std::string group, pattern;
        bool prefix, read, write;
    };
    std::vector<std::string> keys{""};
    for (size_t i = 0; i < keys.size() && keys[i].size() < 4; i++)
        for (char ch : {'a', 'b', 'c'}) keys.push_back(keys[i] + ch);
    const Groups names{"g0", "g1", "g2"};
    for (unsigned seed = 1; seed <= 40; seed++) {
        std::mt19937 rng(seed);
        std::vector<Rule> rules(rng() % 24);
        std::string text;
        for (Rule &r : rules) {
            r = Rule{names[rng() % 3], keys[rng() % keys.size()], rng() % 2 == 0, false, false};
            r.prefix = r.prefix || r.pattern.empty(); // a field is never empty
            unsigned rights = 1 + rng() % 3;
            r.read = rights & 1, r.write = rights & 2;
            text += r.group + (rights == 1 ? " r " : rights == 2 ? " w " : " rw ");
            text += r.pattern + (r.prefix ? "*\n" : "\n");
        }
        std::shared_ptr<const Acl> acl = Parse(text);
        ASSERT_TRUE(acl);
        for (const Groups &groups : {Groups{"g0"}, Groups{"g1", "g2"}, Groups{}, Groups{"g3", "g0"}}) {
            for (const std::string &key : keys) {
                for (int kind = 0; kind < 3; kind++) { // put, get of the key, get of key*
                    bool want = false;
                    for (const Rule &r : rules) {
                        if (std::find(groups.begin(), groups.end(), r.group) == groups.end()) continue;
                        if (!(kind == 0 ? r.write : r.read)) continue;
                        bool starts = key.compare(0, r.pattern.size(), r.pattern) == 0;
                        want = want || (r.prefix ? starts : kind < 2 && key == r.pattern);
                    }
                    std::string request = kind == 2 ? key + "*" : key;
                    EXPECT_EQ(acl->permits(groups, kind == 0 ? kPut : kGet, request), want)
                        << "seed " << seed << " kind " << kind << " key '" << request << "'\n" << text;
                }
            }
        }
    }
}

TEST(AclMatch, EveryByteEscapedIsReadBackAsItself)
{
    std::string all;
    for (int b = 0; b < 256; b++) all.push_back(static_cast<char>(b));
    std::string escaped = escape_field(all);
    for (char ch : escaped) EXPECT_TRUE(ch > 0x20 && ch < 0x7F && ch != '"' && ch != '#') << int(ch);
    std::shared_ptr<const Acl> acl = Parse(escape_field("g\n \"#") + " w " + escaped + "\n");
    ASSERT_TRUE(acl);
    EXPECT_TRUE(acl->permits({"g\n \"#"}, kPut, all));
    EXPECT_FALSE(acl->permits({"g\n \"#"}, kPut, all.substr(1)));
}

TEST(Identities, ClaimsStandWithoutACertificateAndMustAgreeWithOne)
{
    const Subject alice{"alice", {"dev", "ops"}}, bare{"bob", {}};
    const struct {
        const Subject *subject;
        std::string name, group;
        std::optional<Identity> want; // none: refused
        std::string why;
    } cases[] = {
        {nullptr, "anyone", "admin", Identity{"anyone", {"admin"}, false}, ""},
        {nullptr, "", "", Identity{"", {""}, false}, ""},
        {&alice, "alice", "dev", Identity{"alice", {"dev", "ops"}, true}, ""},
        {&alice, "alice", "ops", Identity{"alice", {"dev", "ops"}, true}, ""},
        {&alice, "", "", Identity{"alice", {"dev", "ops"}, true}, ""},
        {&alice, "anonymous", "default", Identity{"alice", {"dev", "ops"}, true}, ""},
        {&bare, "bob", "default", Identity{"bob", {}, true}, ""},
        {&alice, "mallory", "dev", std::nullopt,
         "the handshake claims name \"mallory\", the certificate's CN is \"alice\""},
        {&alice, "Alice", "dev", std::nullopt,
         "the handshake claims name \"Alice\", the certificate's CN is \"alice\""},
        {&alice, "alice", "admin", std::nullopt,
         "the handshake claims group \"admin\", which is not an O value of the certificate (\"dev\", \"ops\")"},
        {&bare, "bob", "dev x", std::nullopt,
         "the handshake claims group \"dev\\x20x\", which is not an O value of the certificate (none)"},
    };
    for (const auto &k : cases) {
        std::string why;
        std::optional<Identity> got = identify(k.name, k.group, k.subject, &why);
        ASSERT_EQ(got.has_value(), k.want.has_value()) << k.name << "/" << k.group << ": " << why;
        EXPECT_EQ(why, k.why);
        if (!got) continue;
        EXPECT_EQ(got->name, k.want->name);
        EXPECT_EQ(got->groups, k.want->groups);
        EXPECT_EQ(got->certified, k.want->certified);
    }

    // As log lines name a client.
    const std::pair<Identity, std::string> described[] = {
        {{"app", {"dev"}, false}, "client \"app\" in group \"dev\""},
        {{"a b", {"dev", "o\"ps"}, true}, "client \"a\\x20b\" in groups \"dev\", \"o\\x22ps\" (certificate)"},
        {{"bob", {}, true}, "client \"bob\" in no group (certificate)"}};
    for (const auto &[who, text] : described) EXPECT_EQ(describe(who), text);
}

// ---- a running service ----

// One open handle of a client in a group, its events in a recorder.
class Member {
public:
    Member(const Server &server, const std::string &group, const std::string &name = "member")
    {
        EXPECT_EQ(0u, Create(server.url(), name.c_str(), group.c_str(), &h));
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            g_registry[h] = &events;
        }
        EXPECT_EQ(0u, qel_hspace_open(h));
    }
    ~Member()
    {
        qel_hspace_close(h);
        {
            std::lock_guard<std::mutex> lock(g_registry_mutex);
            g_registry.erase(h);
        }
        EXPECT_EQ(0u, qel_hspace_destroy(&h));
    }
    Member(const Member &) = delete;
    Member &operator=(const Member &) = delete;

    t_kro_error put(const std::string &key, const std::string &value,
                    t_qel_hspace_put_semantic semantic = HSPACE_PUT_SYNC)
    {
        UserObject o(key, value);
        return qel_hspace_put(h, o.obj, semantic, 0);
    }
    // The status of a synchronous get (2 for nothing found), its objects in *out.
    t_kro_error get(const std::string &key, Pairs *out = nullptr)
    {
        ObjectList list;
        t_kro_error e = qel_hspace_get(h, key.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, list);
        if (out != nullptr) *out = list.contents();
        return e;
    }
    t_kro_error post(const std::string &key)
    {
        return qel_hspace_post(h, key.c_str(), nullptr, HSPACE_POST_SYNC, 0, HSPACE_POST_FLAG_NO_IMAGE);
    }
    t_kro_error cancel(const std::string &key) { return qel_hspace_cancel(h, key.c_str(), HSPACE_CANCEL_SYNC, 0); }
    t_kro_error remove(const std::string &key, t_qel_hspace_remove_semantic semantic = HSPACE_REMOVE_SYNC)
    {
        return qel_hspace_remove(h, key.c_str(), semantic, 0);
    }
    // Every notification up to the one of key with value, which is dropped,
    // as "TRIGGER KEY[=VALUE]".
    std::vector<std::string> notes_until(const std::string &key, const std::string &value)
    {
        std::vector<std::string> out;
        for (const Event &e : events.take_until([&](const Event &e) {
                 return e.type == HSPACE_EVENT_POST_NOTIFICATION && e.object_key == key && e.object_value == value;
             }))
            out.push_back(std::to_string(e.trigger) + " " + e.object_key +
                          (e.object_value.empty() ? "" : "=" + e.object_value));
        return out;
    }

    t_qel_hspace h = nullptr; // the handle
    Recorder events;          // its events
};

// A service whose rules live in a file of the case's scratch directory.
class AclService : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        ASSERT_NE(mkdtemp(dir_), nullptr);
        path_ = std::string(dir_) + "/rules";
    }
    void TearDown() override
    {
        unlink(path_.c_str());
        rmdir(dir_);
        LibraryTest::TearDown();
    }
    void write(const std::string &rules) { std::ofstream(path_, std::ios::trunc) << rules; }
    // A service on rules (through the file, as hspaced --acl loads them).
    std::unique_ptr<Server> serve(const std::string &rules)
    {
        write(rules);
        Options options;
        options.acl_file = path_;
        std::unique_ptr<Server> server(new Server(options));
        std::string error;
        EXPECT_TRUE(server->start(&error)) << error;
        return server;
    }

    char dir_[32] = "/tmp/acl_test.XXXXXX";    // the scratch directory, made by SetUp
    std::string path_;                         // the rule file in it
};

TEST_F(AclService, EachRequestIsJudgedAndARefusalChangesNothing)
{
    std::unique_ptr<Server> server = serve("dev   rw  app/*\n"
                                           "dev   r   shared/*\n"
                                           "ops   w   config/motd\n"
                                           "ops   r   config/*\n"
                                           "audit r   *\n"
                                           "root  rw  *\n");
    Member root(*server, "root"), dev(*server, "dev"), ops(*server, "ops"), audit(*server, "audit"),
        nobody(*server, "nobody");
    std::map<std::string, std::string> store{{"app/1", "a"}, {"shared/1", "s"}, {"config/motd", "m"}, {"o", "o"}};
    for (const auto &[k, v] : store) ASSERT_EQ(root.put(k, v), 0u);

    const struct {
        Member &who;
        uint8_t opcode;
        std::string key;
        t_kro_error want;
    } cases[] = {
        {dev, kPut, "app/2", 0},           {dev, kPut, "shared/2", kDenied},   {dev, kPut, "o", kDenied},
        {dev, kRemove, "shared/1", kDenied}, {dev, kRemove, "app/1", 0},       {dev, kGet, "app/2", 0},
        {dev, kGet, "app/*", 0},           {dev, kGet, "ap*", kDenied},        {dev, kGet, "*", kDenied},
        {dev, kGet, "shared/*", 0},        {dev, kGet, "shared*", kDenied},    {dev, kGet, "o", kDenied},
        {dev, kPost, "app/*", 0},          {dev, kPost, "ap*", kDenied},       {dev, kPost, "config/*", kDenied},
        {dev, kPost, "shared/1", 0},       {dev, kPost, "app/*", KRO_ERR_EXISTS},
        {dev, kCancel, "config/*", KRO_ERR_NO_MATCH}, // the refused post registered nothing
        {ops, kPut, "config/motd", 0},     {ops, kPut, "config/motd2", kDenied},
        {ops, kPut, "config/mot", kDenied}, {ops, kPut, "CONFIG/motd", kDenied}, {ops, kGet, "config/*", 0},
        {ops, kGet, "app/2", kDenied},     {ops, kPost, "conf*", kDenied},     {ops, kRemove, "config/motd", 0},
        {audit, kGet, "*", 0},             {audit, kPost, "*", 0},             {audit, kPut, "app/3", kDenied},
        {audit, kRemove, "o", kDenied},    {nobody, kGet, "app/2", kDenied},   {nobody, kPut, "x", kDenied},
        {nobody, kCancel, "x", KRO_ERR_NO_MATCH},
    };
    uint64_t denials = 0;
    for (const auto &k : cases) {
        const std::string value = "v" + std::to_string(&k - cases);
        t_kro_error got = 0;
        switch (k.opcode) {
        case kPut: got = k.who.put(k.key, value); break;
        case kRemove: got = k.who.remove(k.key); break;
        case kGet: got = k.who.get(k.key); break;
        case kPost: got = k.who.post(k.key); break;
        case kCancel: got = k.who.cancel(k.key); break;
        }
        EXPECT_EQ(got, k.want) << &k - cases << ": op " << int(k.opcode) << " " << k.key;
        denials += got == kDenied;
        if (got == 0 && k.opcode == kPut) store[k.key] = value;
        if (got == 0 && k.opcode == kRemove) store.erase(k.key);
        Pairs now;
        EXPECT_EQ(root.get("*", &now), 0u);
        EXPECT_EQ(now, Pairs(store.begin(), store.end())) << "after " << &k - cases;
    }
    EXPECT_EQ(server->stats().denied.load(), denials);

    // Refused requests that want no reply get none and change nothing; the
    // connection serves on.
    EXPECT_EQ(dev.put("o", "quiet", HSPACE_PUT_NOREPLY), 0u);
    EXPECT_EQ(dev.remove("shared/1", HSPACE_REMOVE_NOREPLY), 0u);
    Pairs got;
    EXPECT_EQ(dev.get("shared/1", &got), 0u);
    EXPECT_EQ(got, (Pairs{{"shared/1", "s"}}));
    EXPECT_EQ(root.get("o", &got), 0u);
    EXPECT_EQ(got, (Pairs{{"o", "o"}}));
    EXPECT_EQ(server->stats().denied.load(), denials + 2);

    // Only the subscriptions permitted were registered: dev hears app/ and
    // shared/1, not config/.
    for (const char *k : {"config/x", "shared/2", "shared/1", "app/9"}) ASSERT_EQ(root.put(k, "n"), 0u);
    EXPECT_EQ(dev.notes_until("app/9", "n"), (std::vector<std::string>{"1 shared/1=n"}));
}

TEST_F(AclService, ReloadAppliesToLiveClientsAndABadFileKeepsTheRulesInForce)
{
    const std::string v1 = "w rw k/*\ns r k/*\nt r k/*\nt r t/*\nroot rw *\n";
    const std::string v2 = "w r k/*\ns r k/*\nt r t/*\nroot rw *\n";
    std::unique_ptr<Server> server = serve(v1);
    Member root(*server, "root"), s(*server, "s"), t(*server, "t"), w(*server, "w");
    ASSERT_EQ(s.post("k/*"), 0u);
    ASSERT_EQ(t.post("k/*"), 0u);
    ASSERT_EQ(t.post("t/*"), 0u);

    // Two writers put until refused; the rules change under them once each
    // has stored a few keys. Each sees its puts stored, then refused, never
    // stored again.
    constexpr int kWriters = 2, kBefore = 20;
    std::mutex mutex;
    std::condition_variable cond;
    int ready = 0;
    std::map<std::string, std::string> stored[kWriters];
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; i++) {
        writers.emplace_back([&, i] {
            Member m(*server, "w");
            int denied = 0;
            for (int n = 0; denied < 5 && n < 100000; n++) {
                std::string key = "k/" + std::to_string(i) + "/" + std::to_string(n), value = std::to_string(n);
                t_kro_error e = m.put(key, value);
                EXPECT_TRUE(e == 0 ? denied == 0 : e == kDenied) << key << ": " << e << " after " << denied;
                if (e == 0) stored[i][key] = value;
                denied += e == kDenied;
                if (n == kBefore) {
                    std::lock_guard<std::mutex> lock(mutex);
                    ready++;
                    cond.notify_all();
                }
            }
        });
    }
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(cond.wait_for(lock, kBound, [&] { return ready == kWriters; }));
    }
    write(v2);
    std::string error;
    EXPECT_TRUE(server->reload(&error)) << error;
    EXPECT_EQ(w.put("k/after", "x"), kDenied);
    for (std::thread &th : writers) th.join();

    // The store holds exactly the puts answered 0.
    std::map<std::string, std::string> all;
    for (const auto &m : stored) all.insert(m.begin(), m.end());
    Pairs got;
    EXPECT_EQ(root.get("k/*", &got), 0u);
    EXPECT_EQ(got, Pairs(all.begin(), all.end()));
    EXPECT_GT(all.size(), static_cast<size_t>(kWriters * kBefore));

    // t lost k/*: it heard every stored put, then the end of its
    // subscription, then nothing more of k/; s heard them and hears on.
    ASSERT_EQ(root.put("k/root", "r"), 0u);
    ASSERT_EQ(root.put("t/fence", "f"), 0u);
    std::vector<std::string> notes = t.notes_until("t/fence", "f");
    ASSERT_FALSE(notes.empty());
    EXPECT_EQ(notes.back(), "4 k/*=permission denied");
    notes.pop_back();
    EXPECT_EQ(notes.size(), all.size());
    for (const std::string &n : notes) EXPECT_EQ(n.compare(0, 4, "1 k/"), 0) << n;
    EXPECT_EQ(s.notes_until("k/root", "r").size(), all.size());
    EXPECT_EQ(t.cancel("k/*"), KRO_ERR_NO_MATCH);
    EXPECT_EQ(t.post("k/*"), kDenied);
    EXPECT_EQ(w.get("k/root", &got), 0u);

    // A file that does not parse, or is gone, leaves v2 in force.
    write("root rw *\nw rw\n");
    EXPECT_FALSE(server->reload(&error));
    EXPECT_EQ(error, path_ + ":2: expected GROUP RIGHTS PATTERN, found 2 fields");
    unlink(path_.c_str());
    EXPECT_FALSE(server->reload(&error));
    EXPECT_EQ(error, "cannot read " + path_ + ": No such file or directory");
    EXPECT_EQ(w.put("k/still", "x"), kDenied);
    EXPECT_EQ(t.post("k/*"), kDenied);
    EXPECT_EQ(root.put("k/still", "x"), 0u);

    // Back to v1: w writes again, t subscribes again.
    write(v1);
    EXPECT_TRUE(server->reload(&error)) << error;
    EXPECT_EQ(w.put("k/again", "x"), 0u);
    EXPECT_EQ(t.post("k/*"), 0u);
}

TEST_F(AclService, WithoutRulesEveryoneMayDoEverythingAndABadFileFailsTheStart)
{
    Server open_service;
    std::string error;
    ASSERT_TRUE(open_service.start(&error)) << error;
    {
        Member anyone(open_service, "whoever");
        EXPECT_EQ(anyone.put("k", "v"), 0u);
        EXPECT_EQ(anyone.get("*"), 0u);
        EXPECT_EQ(anyone.post("*"), 0u);
        EXPECT_EQ(anyone.remove("k"), 0u);
    }
    EXPECT_TRUE(open_service.reload(&error)); // nothing to reload
    EXPECT_EQ(open_service.stats().denied.load(), 0u);

    write("g rw *\ng rx *\n");
    Options options;
    options.acl_file = path_;
    Server bad(options);
    EXPECT_FALSE(bad.start(&error));
    EXPECT_EQ(error, path_ + ":2: rights 'rx' are not r, w or rw");
}

// With client certificates a client is its certificate: a claim it does not
// hold refuses the handshake, and its rules are its O values' (alice is in
// readers, bob in writers and readers).
TEST_F(AclService, ACertificateNamesTheClientAndAClaimItDoesNotHoldIsRefused)
{
    write("readers r *\nwriters rw w/*\n");
    Options options;
    options.acl_file = path_;
    options.tls_cert = Certs().server.cert;
    options.tls_key = Certs().server.key;
    options.tls_client_ca = Certs().ca;
    Server server(options);
    std::string error;
    ASSERT_TRUE(server.start(&error)) << error;
    const CertFiles &alice = Certs().alice, &bob = Certs().bob;
    const struct {
        const CertFiles &cert;
        const char *name, *group;       // claimed in the handshake
        t_kro_error open, put, get;     // open's result; a put under w/ and a get of w/* once open
    } cases[] = {
        {alice, "alice", "readers", 0, kDenied, 0},
        {alice, nullptr, nullptr, 0, kDenied, 0}, // "anonymous", "default": no claim
        {alice, "", "", 0, kDenied, 0},
        {bob, "bob", "readers", 0, 0, 0},         // a claim does not narrow the groups
        {bob, nullptr, "writers", 0, 0, 0},
        {alice, "bob", "readers", HSPACE_STATUS_IDENTITY_REFUSED, 0, 0},
        {alice, "Alice", nullptr, HSPACE_STATUS_IDENTITY_REFUSED, 0, 0},
        {alice, "alice", "writers", HSPACE_STATUS_IDENTITY_REFUSED, 0, 0},
        {bob, nullptr, "admins", HSPACE_STATUS_IDENTITY_REFUSED, 0, 0},
    };
    uint64_t refused = 0;
    for (const auto &k : cases) {
        const std::string row = std::string(k.name ? k.name : "(null)") + "/" + (k.group ? k.group : "(null)");
        t_qel_hspace h = nullptr;
        ASSERT_EQ(0u, Create(server.url(), k.name, k.group, &h));
        qel_hspace_tls_options tls = {QEL_HSPACE_TLS_OPTIONS_VERSION, Certs().ca.c_str(), k.cert.cert.c_str(),
                                      k.cert.key.c_str(), nullptr};
        ASSERT_EQ(0u, qel_hspace_set_tls(h, &tls));
        EXPECT_EQ(Bounded([&] { return qel_hspace_open(h); }), k.open) << row;
        if (k.open == 0) {
            UserObject o("w/" + row, "v");
            EXPECT_EQ(qel_hspace_put(h, o.obj, HSPACE_PUT_SYNC, 0), k.put) << row;
            ObjectList list;
            EXPECT_EQ(qel_hspace_get(h, "w/*", nullptr, HSPACE_GET_SYNC, 0, 0, list), k.get) << row;
        } else {
            refused++;
            EXPECT_EQ(State(h), HSPACE_STATE_INIT) << row;
        }
        qel_hspace_close(h);
        EXPECT_EQ(0u, qel_hspace_destroy(&h));
    }
    EXPECT_EQ(server.stats().identity_refused.load(), refused);
}

} // namespace
