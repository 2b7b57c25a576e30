/*
 * subscriber_resync.cpp - a subscriber that survives a restart of the
 * service and an outage of its store: it keeps a local copy of the keys
 * under a pattern, reports the link's state and the end of its subscription
 * by the service, and on the fresh image that follows either (a resync)
 * replaces its copy and prints what changed while it was away.
 *
 *   subscriber_resync URL PATTERN [CHANGES]
 *
 * Stops after CHANGES changes (default: never) or on SIGINT / SIGTERM.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include <qel_hspace.hpp>

namespace qh = qel::hspace;

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s URL PATTERN [CHANGES]\n", argv[0]);
        return 2;
    }
    long limit = argc > 3 ? atol(argv[3]) : -1;
    // Signals are taken by sigwait on this thread, so block them in every
    // thread the Client starts.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::mutex mu;                           // guards copy and changes
    std::map<std::string, std::string> copy; // the application's view of the keys
    long changes = 0;
    pthread_t main_thread = pthread_self();

    qh::Options options;
    options.client_name = "subscriber-resync";
    options.reconnect.initial_delay = std::chrono::milliseconds(50);
    options.reconnect.max_delay = std::chrono::seconds(2);
    options.on_state = [](qh::State s, std::error_code ec) {
        static const char *names[] = {"idle", "connected", "reconnecting", "failed", "closed"};
        printf("state %s%s%s\n", names[int(s)], ec ? ": " : "", ec ? ec.message().c_str() : "");
        fflush(stdout);
    };
    qh::Client client(argv[1], options);
    std::error_code ec;
    client.open(ec);
    if (ec) {
        fprintf(stderr, "open %s: %s\n", argv[1], ec.message().c_str());
        return 1;
    }
    qh::Subscription sub = client.subscribe(
        argv[2],
        [&](qh::Image &&image) {
            std::lock_guard<std::mutex> lock(mu);
            std::map<std::string, std::string> fresh;
            for (const qh::Object &o : image.objects) fresh[std::string(o.key())] = std::string(o.value());
            if (image.resync) {
                for (const auto &kv : fresh)
                    if (copy.count(kv.first) == 0 || copy[kv.first] != kv.second)
                        printf("resync: %s = %s\n", kv.first.c_str(), kv.second.c_str());
                for (const auto &kv : copy)
                    if (fresh.count(kv.first) == 0) printf("resync: %s gone\n", kv.first.c_str());
            }
            printf("image%s: %zu object(s)\n", image.resync ? " (resync)" : "", fresh.size());
            fflush(stdout);
            copy = std::move(fresh);
        },
        [&](qh::Change &&c) {
            std::lock_guard<std::mutex> lock(mu);
            std::string key(c.object.key());
            if (c.trigger == qh::Trigger::ended) {
                // The service ended the subscription (its store failed, say):
                // the Client subscribes again with backoff, and a resync
                // image follows once the service serves again.
                printf("ended by the service: %.*s\n", int(c.object.value().size()), c.object.value().data());
                fflush(stdout);
                return;
            }
            if (c.trigger == qh::Trigger::removed)
                copy.erase(key);
            else
                copy[key] = std::string(c.object.value());
            printf("change %d: %s%s%.*s\n", int(c.trigger), key.c_str(), c.object.has_value() ? " = " : "",
                   int(c.object.value().size()), c.object.value().data());
            fflush(stdout);
            if (++changes == limit) pthread_kill(main_thread, SIGUSR1);
        },
        qh::SubscribeOptions(), ec);
    if (ec) {
        fprintf(stderr, "subscribe %s: %s\n", argv[2], ec.message().c_str());
        return 1;
    }
    int sig = 0;
    sigwait(&signals, &sig);
    sub.reset();
    client.close();
    return 0;
}
