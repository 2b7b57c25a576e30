/*
 * cli_watch_test.cpp - the hspace command-line client as a child process
 * against the scriptable fake service: watch through a subscription the
 * service ends and a connection it drops (re-subscribed with a resync image,
 * or stopped by --no-retry naming the cause), a post refused while
 * re-subscribing, --no-image on the wire, JSON lines of hostile bytes, and
 * ping's request and the service name it prints; the subscriber example
 * through an ended subscription. Every read from the child
 * and its exit are bounded by the watchdog; nothing sleeps.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_service.h"

extern char **environ;

namespace {

using hspace::codec::kFlagKeyOnly;
using hspace::codec::kFlagNoImage;
using hspace::codec::kOpGet;
using hspace::codec::kOpPut;
using hspace::codec::kOpRemove;
using hspace::codec::kOpCancel;
using hspace::codec::kOpPost;
using hspace::test::FakeConnection;
using hspace::test::FakeService;
using hspace::test::kDefaultWatchdog;
using hspace::test::Packet;
using Clock = std::chrono::steady_clock;

constexpr uint8_t kStored = 1, kEnded = 4;  // the triggers, as the service sends them

// waits until fd is readable or the deadline passes; false then.
bool readable(int fd, Clock::time_point deadline)
{
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left < 0) return false;
        pollfd pfd = {fd, POLLIN, 0};
        int n = poll(&pfd, 1, static_cast<int>(left) + 1);
        if (n > 0) return true;
        if (n < 0 && errno != EINTR) return false;
    }
}

// A program run with args (hspace with --timeout 0 first, unless told
// otherwise), its stdout and stderr read line by line.
class Cli {
public:
    explicit Cli(const std::vector<std::string> &args, const char *program = HSPACE_CLI)
    {
        int out[2], err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        std::vector<char *> argv;
        std::vector<std::string> all = {program};
        if (strcmp(program, HSPACE_CLI) == 0) all.insert(all.end(), {"--timeout", "0"});
        all.insert(all.end(), args.begin(), args.end());
        for (std::string &a : all) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&pid_, program, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        fd_[0] = out[0];
        fd_[1] = err[0];
        fcntl(out[0], F_SETPIPE_SZ, 4096); // the smallest: a few lines fill it
        pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        EXPECT_GE(pidfd_, 0) << strerror(errno);
    }
    ~Cli()
    {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (int fd : {fd_[0], fd_[1], pidfd_})
            if (fd >= 0) close(fd);
    }

    // The next line of stdout (stream 0) or stderr (1); "<none>" on the
    // watchdog or the end of the stream, with a failure.
    std::string line(int stream = 0)
    {
        std::string &buf = buf_[stream];
        Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
        for (;;) {
            size_t nl = buf.find('\n');
            if (nl != std::string::npos) {
                std::string l = buf.substr(0, nl);
                buf.erase(0, nl + 1);
                return l;
            }
            char chunk[4096];
            ssize_t n = readable(fd_[stream], deadline) ? read(fd_[stream], chunk, sizeof chunk) : -1;
            if (n <= 0) {
                ADD_FAILURE() << "no line on " << (stream == 0 ? "stdout" : "stderr") << "; so far: " << buf;
                return "<none>";
            }
            buf.append(chunk, static_cast<size_t>(n));
        }
    }
    std::string err_line() { return line(1); }

    // The exit status (128+N for signal N), bounded by the watchdog; -1
    // on the watchdog.
    int wait_exit()
    {
        if (!readable(pidfd_, Clock::now() + kDefaultWatchdog)) {
            ADD_FAILURE() << "hspace did not exit";
            return -1;
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void signal(int signo) { kill(pid_, signo); }

    // Waits until stdout's pipe is full (what a reader that stopped reading
    // leaves behind); false on the watchdog. Spins: a full pipe raises no
    // event on its reading end.
    bool wait_stdout_full()
    {
        int size = fcntl(fd_[0], F_GETPIPE_SZ);
        Clock::time_point deadline = Clock::now() + kDefaultWatchdog;
        for (int queued = 0; Clock::now() < deadline; sched_yield())
            if (ioctl(fd_[0], FIONREAD, &queued) == 0 && queued >= size) return true;
        ADD_FAILURE() << "stdout never filled";
        return false;
    }

private:
    pid_t pid_ = -1;
    int fd_[2] = {-1, -1};
    int pidfd_ = -1;
    bool reaped_ = false;
    std::string buf_[2];
};

// The next packet must be a request with opcode, key and wire flags.
uint32_t expect_request(FakeConnection &c, uint8_t opcode, const std::string &key, int32_t flags = 0)
{
    Packet p = c.next_packet();
    EXPECT_TRUE(p.hspace && p.rr) << "no request";
    if (!p.hspace || !p.rr) return 0;
    EXPECT_EQ(p.hspace->opcode, opcode);
    EXPECT_EQ(p.hspace->key, key);
    EXPECT_EQ(p.hspace->flags, flags);
    return p.rr->corrid;
}

// Accepts hspace's connection and answers its handshake and its post of
// key with the objects kv (no image with --no-image: flags).
FakeConnection subscribed(FakeService &fake, const std::string &key,
                          const std::vector<std::pair<std::string, std::string>> &kv, int32_t flags = 0)
{
    FakeConnection c = fake.accept();
    c.handshake();
    uint32_t corrid = expect_request(c, kOpPost, key, flags);
    c.reply(corrid);
    if ((flags & kFlagNoImage) == 0) {
        if (kv.empty()) c.reply(corrid, 2);
        else c.objects(corrid, kOpPost, kv);
    }
    return c;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// A subscription the service ends is cancelled (the service answers 2),
// posted again after the backoff, and its new image follows, in text and
// in JSON; SIGINT then ends the watch with 0.
TEST(CliWatch, EndedSubscriptionIsMadeAgainWithAResyncImage)
{
    struct Case {
        const char *format;
        std::vector<std::string> first, ended, resync, stored;
    };
    const Case cases[] = {
        {"text", {"image w/1 = a"}, {"ended w/*: store unavailable: etcd\\n down"},
         {"image w/1 = b", "image w/2 = c"}, {"stored w/2 = d\\xff"}},
        {"json",
         {R"({"event":"image","key":"w/1","value":"a","index":1,"count":1,"resync":false})"},
         {R"({"event":"ended","key":"w/*","cause":"store unavailable: etcd\n down"})"},
         {R"({"event":"image","key":"w/1","value":"b","index":1,"count":2,"resync":true})",
          R"({"event":"image","key":"w/2","value":"c","index":2,"count":2,"resync":true})"},
         {R"({"event":"stored","key":"w/2","value":"ZP8=","value_encoding":"base64"})"}},
    };
    for (const Case &t : cases) {
        SCOPED_TRACE(t.format);
        FakeService fake;
        Cli cli({"--url", fake.url(), "watch", "-o", t.format, "w/*"});
        FakeConnection c = subscribed(fake, "w/*", {{"w/1", "a"}});
        for (const std::string &l : t.first) EXPECT_EQ(cli.line(), l);
        c.notify("w/*", kEnded, "store unavailable: etcd\n down");
        for (const std::string &l : t.ended) EXPECT_EQ(cli.line(), l);
        EXPECT_EQ(cli.err_line(), "hspace: watch w/*: the service ended the subscription: store unavailable: "
                                  "etcd\\n down; subscribing again in 0.1 s");
        c.reply(expect_request(c, kOpCancel, "w/*"), 2);
        uint32_t corrid = expect_request(c, kOpPost, "w/*");
        c.reply(corrid);
        c.objects(corrid, kOpPost, {{"w/1", "b"}, {"w/2", "c"}});
        for (const std::string &l : t.resync) EXPECT_EQ(cli.line(), l);
        EXPECT_EQ(cli.err_line(), "hspace: watch w/*: subscribed again; its image replaces the earlier one");
        c.notify("w/2", kStored, std::string("d\xff", 2));
        for (const std::string &l : t.stored) EXPECT_EQ(cli.line(), l);
        cli.signal(SIGINT);
        EXPECT_EQ(cli.wait_exit(), 0);
    }
}

// A dropped connection is made again: a new handshake, post and image.
// With --no-image the post carries the flag every time and no image line
// is printed.
TEST(CliWatch, LostConnectionIsMadeAgain)
{
    for (bool no_image : {false, true}) {
        SCOPED_TRACE(no_image ? "--no-image" : "image");
        FakeService fake;
        std::vector<std::string> args = {"--url", fake.url(), "watch", "k"};
        if (no_image) args.push_back("--no-image");
        int32_t flags = no_image ? kFlagNoImage : 0;
        Cli cli(args);
        {
            FakeConnection c = subscribed(fake, "k", {{"k", "1"}}, flags);
            if (!no_image) {
                EXPECT_EQ(cli.line(), "image k = 1");
            }
            c.notify("k", kStored, "2");
            EXPECT_EQ(cli.line(), "stored k = 2");
            c.close();
        }
        EXPECT_EQ(cli.err_line(),
                  "hspace: watch k: connection lost: the service closed the connection (1003); reconnecting in 0.1 s");
        FakeConnection c = subscribed(fake, "k", {}, flags);
        if (!no_image) {
            EXPECT_EQ(cli.line(), "image (none)");
        }
        EXPECT_EQ(cli.err_line(), no_image ? "hspace: watch k: subscribed again; changes made meanwhile were not seen"
                                           : "hspace: watch k: subscribed again; its image replaces the earlier one");
        c.notify("k", kStored, "3");
        EXPECT_EQ(cli.line(), "stored k = 3");
        cli.signal(SIGTERM);
        EXPECT_EQ(cli.wait_exit(), 0);
    }
}

// --no-retry: the first break ends the watch with 3 and its cause.
TEST(CliWatch, NoRetryStopsAtTheFirstBreakNamingItsCause)
{
    struct Case {
        bool drop;                             // the connection drops, else the subscription is ended
        const char *message;
    };
    const Case cases[] = {
        {false, "hspace: watch p*: the service ended the subscription: compacted"},
        {true, "hspace: watch p*: the service closed the connection (1003)"},
    };
    for (const Case &t : cases) {
        SCOPED_TRACE(t.message);
        FakeService fake;
        Cli cli({"--url", fake.url(), "watch", "--no-retry", "p*"});
        FakeConnection c = subscribed(fake, "p*", {});
        EXPECT_EQ(cli.line(), "image (none)");
        if (t.drop) c.close();
        else c.notify("p*", kEnded, "compacted");
        if (!t.drop) {
            EXPECT_EQ(cli.line(), "ended p*: compacted");
        }
        EXPECT_EQ(cli.err_line(), t.message);
        EXPECT_EQ(cli.wait_exit(), 3);
    }
}

// While subscribing again, a status a later try may not get (the store
// unavailable) is tried again after a longer backoff; one it would get
// again (permission denied) ends the watch with 3 and advice. The first
// post's refusal ends it at once.
TEST(CliWatch, RefusedPostWhileSubscribingAgain)
{
    {
        FakeService fake;
        Cli cli({"--url", fake.url(), "watch", "k"});
        FakeConnection c = subscribed(fake, "k", {});
        EXPECT_EQ(cli.line(), "image (none)");
        c.notify("k", kEnded);
        EXPECT_EQ(cli.line(), "ended k: no cause given");
        EXPECT_TRUE(contains(cli.err_line(), "ended the subscription: no cause given; subscribing again in 0.1 s"));
        c.reply(expect_request(c, kOpCancel, "k"), 2);
        c.reply(expect_request(c, kOpPost, "k"), 1101);
        EXPECT_EQ(cli.err_line(), "hspace: watch k: subscribing failed: the service's store is unavailable (1101); "
                                  "the service is up but its store is not: try again later; trying again in 0.2 s");
        c.reply(expect_request(c, kOpPost, "k"), 1104);
        EXPECT_TRUE(contains(cli.err_line(), "hspace: watch k: permission denied (1104); the service's access rules"));
        EXPECT_EQ(cli.wait_exit(), 3);
    }
    FakeService fake;
    Cli cli({"--url", fake.url(), "watch", "k"});
    FakeConnection c = fake.accept();
    c.handshake();
    c.reply(expect_request(c, kOpPost, "k"), 1101);
    EXPECT_TRUE(contains(cli.err_line(), "hspace: watch k: the service's store is unavailable (1101)"));
    EXPECT_EQ(cli.wait_exit(), 3);
}

// While subscribing again, each try is bounded by --timeout: a post the
// service leaves unanswered times out, is cancelled (the service may have
// registered it) and tried again.
TEST(CliWatch, UnansweredPostWhileSubscribingAgainIsTriedAgain)
{
    FakeService fake;
    Cli cli({"--url", fake.url(), "--timeout", "3", "watch", "k"});
    FakeConnection c = subscribed(fake, "k", {});
    EXPECT_EQ(cli.line(), "image (none)");
    c.notify("k", kEnded, "gone");
    EXPECT_EQ(cli.line(), "ended k: gone");
    EXPECT_TRUE(contains(cli.err_line(), "ended the subscription: gone; subscribing again in 0.1 s"));
    c.reply(expect_request(c, kOpCancel, "k"), 2);
    expect_request(c, kOpPost, "k"); // never answered
    EXPECT_EQ(cli.err_line(), "hspace: watch k: subscribing failed: timed out (1009); --timeout sets the bound, 0 "
                              "for none; trying again in 0.2 s");
    c.reply(expect_request(c, kOpCancel, "k"), 2);
    uint32_t corrid = expect_request(c, kOpPost, "k");
    c.reply(corrid);
    c.objects(corrid, kOpPost, {{"k", "back"}});
    EXPECT_EQ(cli.line(), "image k = back");
    cli.signal(SIGINT);
    EXPECT_EQ(cli.wait_exit(), 0);
}

// ping: the service's name from the handshake (escaped, it comes from the
// peer), then one cancel of a key nobody subscribed per reply line, each
// answered with 2.
TEST(CliPing, NamesTheServiceAndTimesEachRequest)
{
    FakeService fake;
    Cli cli({"--url", fake.url(), "ping", "-c", "2"});
    FakeConnection c = fake.accept();
    c.handshake(5, "fake\nname");
    EXPECT_TRUE(contains(cli.line(), "connected to fake\\nname at " + fake.url() + " in "));
    for (int i = 1; i <= 2; i++) {
        c.reply(expect_request(c, kOpCancel, "hspace-ping"), 2);
        EXPECT_TRUE(contains(cli.line(), "reply " + std::to_string(i) + ": ")) << i;
    }
    EXPECT_TRUE(contains(cli.line(), "2 replies: min "));
    EXPECT_EQ(cli.wait_exit(), 0);
}

// Each one-shot command's request on the wire (opcode, key, flags: ls asks
// for keys only), the service's answer, and what the command prints on
// stdout and stderr (the service's statuses named, with advice) and exits
// with.
TEST(CliWire, OneRequestPerCommand)
{
    using Kv = std::vector<std::pair<std::string, std::string>>;
    struct Case {
        std::vector<std::string> args;
        uint8_t opcode;
        std::string key;
        int32_t flags;
        uint32_t status;                       // the answer's status; 0: the objects below
        Kv objects;
        std::vector<std::string> out;
        int exit;
        std::string err;                       // the first line of stderr, when there is one
    };
    const Case cases[] = {
        {{"ls"}, kOpGet, "*", kFlagKeyOnly, 0, {{"a", ""}, {"b\n", ""}}, {"a", "b\\n"}, 0, ""},
        {{"ls", "-o", "json", "p/*"}, kOpGet, "p/*", kFlagKeyOnly, 0, {{"p/1", ""}}, {R"({"key":"p/1"})"}, 0, ""},
        {{"ls", "p/*"}, kOpGet, "p/*", kFlagKeyOnly, 2, {}, {}, 1, ""},
        {{"get", "k"}, kOpGet, "k", 0, 0, {{"k", "v\t1"}}, {"v\\t1"}, 0, ""},
        {{"get", "-o", "json", "k"}, kOpGet, "k", 0, 0, {{"k", "v"}}, {R"({"key":"k","value":"v"})"}, 0, ""},
        {{"get", "k"}, kOpGet, "k", 0, 1101, {}, {}, 3,
         "hspace: get k: the service's store is unavailable (1101); the service is up but its store is not: try "
         "again later"},
        {{"ls"}, kOpGet, "*", kFlagKeyOnly, 1102, {}, {}, 3,
         "hspace: ls *: the service's store did not answer in time (1102); the service is up but its store is "
         "not: try again later"},
        {{"rm", "k"}, kOpRemove, "k", 0, 0, {}, {}, 0, ""},
        {{"rm", "k"}, kOpRemove, "k", 0, 2, {}, {}, 1, "hspace: rm: nothing stored under k"},
        {{"rm", "k"}, kOpRemove, "k", 0, 1104, {}, {}, 3,
         "hspace: rm k: permission denied (1104); the service's access rules do not let this client do that to "
         "this key"},
        {{"put", "k", "vv"}, kOpPut, "k", 0, 0, {}, {}, 0, ""},
        {{"put", "k", "vv"}, kOpPut, "k", 0, 1103, {}, {}, 3,
         "hspace: put k: value is 2 bytes; the service's store refused it as too large (1103)"},
        {{"put", "k", "vv"}, kOpPut, "k", 0, 12, {}, {}, 3,
         "hspace: put k: value is 2 bytes; the service refused it as larger than it can send back (hspaced's "
         "--max-queue bounds the values it accepts)"},
        {{"put", "k", "vv"}, kOpPut, "k", 0, 1107, {}, {}, 3,
         "hspace: put k: the service is at its connection limit (1107); try again later"},
    };
    for (const Case &t : cases) {
        SCOPED_TRACE(t.args[0] + " " + t.args.back() + " status " + std::to_string(t.status));
        FakeService fake;
        std::vector<std::string> args = {"--url", fake.url()};
        args.insert(args.end(), t.args.begin(), t.args.end());
        Cli cli(args);
        FakeConnection c = fake.accept();
        c.handshake();
        uint32_t corrid = expect_request(c, t.opcode, t.key, t.flags);
        if (t.status != 0 || t.opcode != kOpGet) c.reply(corrid, t.status);
        else c.objects(corrid, kOpGet, t.objects);
        for (const std::string &l : t.out) EXPECT_EQ(cli.line(), l);
        if (!t.err.empty()) {
            EXPECT_EQ(cli.err_line(), t.err);
        }
        EXPECT_EQ(cli.wait_exit(), t.exit);
    }
}

// A watch whose stdout is a full pipe (its reader stopped reading) still
// ends at once on SIGTERM, with 0, though its reader thread is blocked
// inside a write.
TEST(CliWatch, EndsOnASignalWhileItsOutputIsBlocked)
{
    FakeService fake;
    Cli cli({"--url", fake.url(), "watch", "k"});
    FakeConnection c = subscribed(fake, "k", {{"k", std::string(20000, 'v')}});
    ASSERT_TRUE(cli.wait_stdout_full());
    cli.signal(SIGTERM);
    EXPECT_EQ(cli.wait_exit(), 0);
}

// The subscriber example: an ended subscription is cancelled and posted
// again, once a second while the store is unavailable, then its new image
// and changes are printed.
TEST(SubscriberExample, EndedSubscriptionIsPostedAgain)
{
    FakeService fake;
    Cli sub({fake.url(), "w/*"}, SUBSCRIBER_EXAMPLE);
    FakeConnection c = subscribed(fake, "w/*", {});
    EXPECT_EQ(sub.line(), "image: nothing stored under w/*");
    c.notify("w/*", kEnded, "store lost");
    EXPECT_EQ(sub.line(), "ended w/* = store lost");
    c.reply(expect_request(c, kOpCancel, "w/*"), 2);
    c.reply(expect_request(c, kOpPost, "w/*"), 1101);
    uint32_t corrid = expect_request(c, kOpPost, "w/*");
    c.reply(corrid);
    c.objects(corrid, kOpPost, {{"w/1", "back"}});
    EXPECT_EQ(sub.line(), "image w/1 = back");
    c.notify("w/1", kStored, "again");
    EXPECT_EQ(sub.line(), "stored w/1 = again");
    sub.signal(SIGINT);
    EXPECT_EQ(sub.wait_exit(), 0);
}

} // namespace
