/* The kro runtime: memory, strings, mutex and condition, threads, client
 * sockets against peers on 127.0.0.1, the invariant check. (Buffers and
 * lists: tests/c99.) Every test that waits holds a Watchdog. */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "client_harness.h"
#include "kro_cond.h"
#include "kro_llist.h"
#include "kro_socket.h"
#include "kro_thread.h"

namespace {

using hspace::test::Signal;
using hspace::test::Watchdog; // every test that waits holds one, peer-side socket calls included

// What a test shares with the kro threads it starts.
struct ThreadCtx {
    t_kro_mutex mutex = NULL;
    t_kro_cond cond = NULL;
    bool waiting = false, go = false;         // under mutex
    t_kro_thread handle = NULL;               // stored by kro_thread_create before the entry runs
    bool same_at_start = false;               // current() == handle at the entry's first instruction
    t_kro_error self_join = 99, self_destroy = 99;
    t_kro_thread before = NULL, after = NULL; // current() around the self destroy
    Signal release, done;
};

// A TCP socket bound to 127.0.0.1 on an ephemeral port; listening unless asked not to.
struct Listener {
    explicit Listener(bool listening = true) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_in addr = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof addr;
        EXPECT_EQ(0, bind(fd, (struct sockaddr *)&addr, sizeof addr));
        EXPECT_EQ(0, getsockname(fd, (struct sockaddr *)&addr, &len));
        port = ntohs(addr.sin_port);
        EXPECT_TRUE(!listening || listen(fd, 8) == 0);
    }
    ~Listener() { close(fd); }
    int accept_one() { return accept4(fd, NULL, NULL, SOCK_CLOEXEC); }
    int fd;
    t_kro_ushort port;
};

// A client socket for host:port; its create data passes to the socket.
t_kro_socket make_socket(const char *host, t_kro_ushort port, const char *local = "0.0.0.0")
{
    t_kro_socket_client_create_data data = NULL;
    t_kro_socket s = NULL;
    KRO_ALLOC_RECORD(sizeof(struct kro_socket_client_create_data), &data, 1);
    kro_str_assign(&data->device_create_data.local_ifaddr, local);
    kro_str_assign(&data->device_create_data.remote_ifaddr, host);
    data->device_create_data.remote_port = port;
    EXPECT_EQ(0u, kro_socket_client_create(data, &s));
    return s;
}

// A client socket connected to a peer accepted here, and a 64-byte buffer.
struct Connected : ::testing::Test {
    Watchdog dog;
    Connected() : s(make_socket("127.0.0.1", listener.port))
    {
        EXPECT_EQ(0u, kro_socket_connect(s));
        peer = listener.accept_one();
        kro_buf_create(&buf, 64, 0);
    }
    ~Connected() override
    {
        if (peer >= 0) close(peer);
        kro_buf_release(&buf);
        EXPECT_EQ(0u, kro_socket_destroy(&s));
    }
    Listener listener;
    t_kro_socket s;
    int peer = -1;
    t_kro_buf buf = NULL;
    t_kro_uint4 n = 99;
};

} // namespace

TEST(KroMemory, AllocClearsAndFreeNullsTheVariable)
{
    unsigned char *block = NULL;
    ASSERT_EQ(0u, kro_mm_alloc(64, &block, 1));
    EXPECT_EQ(std::string(64, '\0'), std::string((char *)block, 64));
    EXPECT_TRUE(kro_mm_free(&block) == 0 && block == nullptr);
    EXPECT_EQ(KRO_ERR_INVALID_ARG, kro_mm_free(&block)); // already null: an error, not a double free
    EXPECT_EQ(KRO_ERR_INVALID_ARG, kro_mm_free(NULL));
    ASSERT_EQ(0u, kro_mm_alloc(0, &block, 0)); // a valid one-byte block
    block[0] = 1;
    EXPECT_EQ(0u, kro_mm_free(&block));

    t_kro_str s = NULL;
    kro_str_assign(&s, "ab"); // replaced below: the old copy is freed (LeakSanitizer)
    kro_str_assign(&s, NULL);
    EXPECT_EQ(nullptr, s);
}


TEST(KroSync, NotifyAllWakesTheWaiterAndATimedWaitTimesOut)
{
    Watchdog dog;
    static ThreadCtx ctx;
    t_kro_mutex bad = NULL;
    EXPECT_EQ(KRO_ERR_INVALID_ARG, kro_mutex_create((t_kro_mutex_type)7, &bad));
    ASSERT_EQ(0u, kro_mutex_create(KRO_MT_FAST, &ctx.mutex));
    ASSERT_EQ(0u, kro_cond_create(&ctx.cond));
    kro_mutex_lock(ctx.mutex);
    EXPECT_EQ(KRO_ERR_TIMEOUT, kro_cond_wait(ctx.cond, ctx.mutex, 1));
    kro_mutex_unlock(ctx.mutex);

    t_kro_thread waiter = NULL;
    ASSERT_EQ(0u, kro_thread_create(
                      [](t_kro_ptr) {
                          kro_mutex_lock(ctx.mutex);
                          ctx.waiting = true;
                          while (!ctx.go) kro_cond_wait(ctx.cond, ctx.mutex, KRO_WAIT_FOREVER);
                          kro_mutex_unlock(ctx.mutex);
                          ctx.done.raise();
                      },
                      NULL, 0, &waiter));
    // Once the mutex is ours with waiting set, the waiter is inside its wait.
    for (kro_mutex_lock(ctx.mutex); !ctx.waiting; kro_mutex_lock(ctx.mutex)) {
        kro_mutex_unlock(ctx.mutex);
        std::this_thread::yield();
    }
    ctx.go = true;
    EXPECT_EQ(0u, kro_cond_notifyall(ctx.cond));
    kro_mutex_unlock(ctx.mutex);
    ctx.done.wait();
    EXPECT_EQ(0u, kro_thread_destroy(&waiter));
    EXPECT_EQ(0u, kro_cond_destroy(&ctx.cond));
    EXPECT_TRUE(kro_mutex_destroy(&ctx.mutex) == 0 && ctx.mutex == nullptr);
}

TEST(KroThread, CurrentIsTheStoredHandleJoinsWaitAndSelfDestroyDetaches)
{
    Watchdog dog;
    static ThreadCtx ctx;
    t_kro_thread main_handle = kro_thread_current();
    ASSERT_EQ(0u, kro_thread_create(
                      [](t_kro_ptr) {
                          ctx.same_at_start = kro_thread_current() == ctx.handle;
                          ctx.self_join = kro_thread_join(kro_thread_current());
                          ctx.release.wait();
                      },
                      NULL, 0, &ctx.handle));
    EXPECT_NE(main_handle, ctx.handle);
    static t_kro_error joins[2] = {99, 99};
    std::thread joiners[2];
    for (int i = 0; i < 2; i++) joiners[i] = std::thread([i] { joins[i] = kro_thread_join(ctx.handle); });
    ctx.release.raise();
    for (std::thread &t : joiners) t.join();
    EXPECT_TRUE(joins[0] == 0 && joins[1] == 0);
    EXPECT_EQ(0u, kro_thread_join(ctx.handle)); // joined already: at once
    EXPECT_TRUE(ctx.same_at_start && ctx.self_join == 0);
    EXPECT_TRUE(kro_thread_destroy(&ctx.handle) == 0 && ctx.handle == nullptr);
    t_kro_thread foreign = NULL;
    std::thread([&] { foreign = kro_thread_current(); }).join();
    EXPECT_NE(main_handle, foreign);
    EXPECT_EQ(main_handle, kro_thread_current());

    // A thread destroys its own handle as its last act.
    ASSERT_EQ(0u, kro_thread_create(
                      [](t_kro_ptr) {
                          ctx.before = kro_thread_current();
                          ctx.self_destroy = kro_thread_destroy(&ctx.handle);
                          ctx.after = kro_thread_current();
                          ctx.done.raise();
                      },
                      NULL, 0, &ctx.handle));
    ctx.done.wait();
    EXPECT_TRUE(ctx.self_destroy == 0 && ctx.handle == nullptr);
    EXPECT_NE(ctx.before, ctx.after); // no longer the freed record
}

TEST_F(Connected, ReadFillsTheFreeSpaceAndWriteSendsTheWindow)
{
    t_kro_socket idle = make_socket("127.0.0.1", listener.port);
    EXPECT_EQ(KRO_ERR_NOT_CONNECTED, kro_socket_read(idle, buf, &n));
    EXPECT_EQ(KRO_ERR_NOT_CONNECTED, kro_socket_write_single(idle, buf, &n));
    EXPECT_EQ(0u, kro_socket_interrupt(idle)); // not connected: still 0
    EXPECT_EQ(0u, kro_socket_destroy(&idle));
    ASSERT_EQ(11, send(peer, "hello world", 11, 0));
    kro_buf_set_lim(buf, 4);
    while (buf->pos < buf->lim) ASSERT_EQ(0u, kro_socket_read(s, buf, &n)); // at most lim - pos per read
    EXPECT_EQ("hell", std::string((char *)buf->ptr, 4));
    EXPECT_EQ(KRO_ERR_INVALID_ARG, kro_socket_read(s, buf, &n)); // no free space
    kro_buf_set_pos(buf, 1);
    kro_buf_set_lim(buf, 4);
    ASSERT_EQ(0u, kro_socket_read(s, buf, &n));
    EXPECT_EQ(1u + n, buf->pos);
    EXPECT_EQ(std::string("o w", n), std::string((char *)buf->ptr + 1, n));
    kro_buf_set_lim(buf, buf->pos);
    const t_kro_uint4 read = n;
    kro_buf_set_pos(buf, 1); // sends [pos, lim) and moves nothing
    ASSERT_EQ(0u, kro_socket_write_single(s, buf, &n));
    EXPECT_TRUE(n == read && buf->pos == 1);
    std::string got(n, '\0');
    EXPECT_EQ((ssize_t)n, recv(peer, &got[0], n, MSG_WAITALL));
    EXPECT_EQ(std::string("o w", n), got);
}

TEST_F(Connected, InterruptEndsABlockedReadAndStays)
{
    static Signal reading;
    static t_kro_error result = 99;
    std::thread reader([this] {
        reading.raise();
        result = kro_socket_read(s, buf, &n); // the peer stays silent
    });
    reading.wait();
    EXPECT_EQ(0u, kro_socket_interrupt(s)); // before or during the recv
    reader.join();
    EXPECT_TRUE(result == KRO_ERR_INTERRUPTED && n == 0);
    (void)send(peer, "x", 1, MSG_NOSIGNAL); // data waiting changes nothing
    EXPECT_EQ(KRO_ERR_INTERRUPTED, kro_socket_read(s, buf, &n));
    EXPECT_EQ(0u, kro_socket_interrupt(s));
}

TEST_F(Connected, PeerCloseFailsReadsAndWritesWithoutSigpipe)
{
    ASSERT_EQ(3, send(peer, "abc", 3, 0));
    close(peer);
    peer = -1;
    t_kro_error rc = 0;
    for (int i = 0; i < 10 && rc == 0; i++) {
        rc = kro_socket_read(s, buf, &n);
        EXPECT_TRUE(rc != 0 || n > 0); // never zero bytes
    }
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, rc);
    EXPECT_EQ("abc", std::string((char *)buf->ptr, buf->pos));
    EXPECT_EQ(KRO_ERR_PEER_CLOSED, kro_socket_read(s, buf, &n));
    kro_buf_set_lim(buf, buf->pos);
    kro_buf_set_pos(buf, 0);
    rc = 0;
    for (int i = 0; i < 1000 && rc == 0; i++) rc = kro_socket_write_single(s, buf, &n);
    EXPECT_EQ(KRO_ERR_NET, rc); // and the process is still alive
    t_kro_uint4 net_error = 0;
    kro_em_net_error_get(&net_error);
    EXPECT_TRUE(net_error == (t_kro_uint4)EPIPE || net_error == (t_kro_uint4)ECONNRESET) << net_error;
}

TEST(KroSocket, ConnectReportsRefusedAndUnknownHostAndMayBeRetried)
{
    Watchdog dog;
    Listener listener(false); // bound, not yet listening: connects are refused
    t_kro_socket s = make_socket("127.0.0.1", listener.port);
    t_kro_uint4 net_error = 0;
    EXPECT_EQ(KRO_ERR_CONN_REFUSED, kro_socket_connect(s));
    EXPECT_TRUE(kro_em_net_error_get(&net_error) == 0 && net_error == (t_kro_uint4)ECONNREFUSED);
    ASSERT_EQ(0, listen(listener.fd, 8));
    EXPECT_EQ(0u, kro_socket_connect(s)); // the same record connects afresh
    close(listener.accept_one());
    EXPECT_EQ(0u, kro_socket_destroy(&s));
    const struct {
        const char *host, *local;
        t_kro_error want;
    } cases[] = {{"no-such-host.invalid", "0.0.0.0", KRO_ERR_HOST_NOT_FOUND},
                 {"", "0.0.0.0", 0}, // loopback, whichever family listens
                 {"localhost", "127.0.0.1", 0}};
    for (const auto &c : cases) {
        s = make_socket(c.host, listener.port, c.local);
        EXPECT_EQ(c.want, kro_socket_connect(s)) << c.host;
        if (c.want == 0) close(listener.accept_one());
        EXPECT_EQ(0u, kro_socket_destroy(&s));
    }
}

TEST(KroCheckDeathTest, FailurePrintsLastErrorsAndNamesTheLibrary)
{
#if defined(KRO_TEST_TSAN)
    GTEST_SKIP() << "death tests fork; not run under ThreadSanitizer";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *tail = "oserror = -?[0-9]+\nneterror = -?[0-9]+\n.*qel_hspace:[0-9]+: .*Assertion .\\(";
    int two = 2;
    // The error lines go to standard output; each case routes it to the checked stream.
    EXPECT_DEATH({ dup2(2, 1); KRO_CHECK(two == 3); }, std::string(tail) + "two == 3\\). failed");
    EXPECT_DEATH({ dup2(2, 1); kro_check_fail_no_memory(__LINE__, __func__); },
                 std::string("Fatal Error - Out of memory!\n") + tail + "0\\). failed");
#endif
}
