/*
 * quickstart.cpp - the C++ API in one screen: open a Client, put, get a key
 * and a prefix pattern, get with a deadline and asynchronously, subscribe,
 * remove. Errors are exceptions here; every call also has a form taking a
 * std::error_code& that never throws.
 *
 *   quickstart_cpp tcp://127.0.0.1:7521
 */
#include <stdio.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <qel_hspace.hpp>

namespace qh = qel::hspace;

int main(int argc, char **argv)
{
    const char *url = argc > 1 ? argv[1] : "tcp://127.0.0.1:7521";
    try {
        qh::Options options;
        options.client_name = "quickstart-cpp";
        options.call_timeout = std::chrono::seconds(5); // every call's deadline, unless its Call says otherwise
        qh::Client client(url, options); // closes and frees everything when it goes out of scope
        client.open();

        client.put("greeting/en", "hello");
        client.put("greeting/fr", "bonjour");
        for (const qh::Object &o : client.get("greeting/*")) // Objects own what they hold; views need no copy
            printf("get %.*s = %.*s\n", int(o.key().size()), o.key().data(), int(o.value().size()), o.value().data());

        qh::Call call;
        call.timeout = std::chrono::seconds(2); // the whole get, answer included
        printf("with a deadline: %zu object(s)\n", client.get("greeting/en", call).size());
        std::future<qh::Objects> later = client.get_async("greeting/fr");
        printf("asynchronous: %zu object(s)\n", later.get().size());

        std::error_code ec;
        client.get("nothing/here", ec); // no throw: an empty result, ec clear
        printf("absent key: %s\n", ec ? ec.message().c_str() : "no objects, no error");

        std::mutex m;
        std::condition_variable cv;
        int changes = 0;
        {
            // The subscription lives as long as this object; callbacks run on
            // the connection's reader thread.
            qh::Subscription sub = client.subscribe(
                "greeting/*",
                [](qh::Image &&image) { printf("image: %zu object(s)\n", image.objects.size()); },
                [&](qh::Change &&c) {
                    printf("%s %.*s\n", c.trigger == qh::Trigger::removed ? "removed" : "stored",
                           int(c.object.key().size()), c.object.key().data());
                    std::lock_guard<std::mutex> lock(m);
                    changes++;
                    cv.notify_all();
                });
            client.put("greeting/de", "hallo");
            client.remove("greeting/de");
            std::unique_lock<std::mutex> lock(m);
            cv.wait_for(lock, std::chrono::seconds(5), [&] { return changes == 2; });
        } // cancelled here: no callback of it runs afterwards
        client.remove("greeting/en");
        client.remove("greeting/fr");
        printf("quickstart-cpp: ok\n");
        return 0;
    } catch (const std::system_error &e) {
        fprintf(stderr, "quickstart-cpp: %s (%d)\n", e.what(), e.code().value());
        return 1;
    }
}
