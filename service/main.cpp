/*
 * main.cpp - hspaced, the reference hspace service as a program.
 *
 * Listens until SIGINT or SIGTERM, then closes every connection and exits
 * 0. Prints "hspaced listening on tcp://HOST:PORT" on stdout once it
 * listens (so a script can learn the port chosen for --port 0) and one
 * line per connection event on stderr.
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <asio.hpp>

#include "server.h"

namespace {

const char kUsage[] =
    "usage: hspaced [--listen HOST] [--port N] [--name NAME] [--max-queue BYTES]\n"
    "               [--store memory|etcd://HOST:PORT[,HOST:PORT...]] [--store-prefix P] [--quiet]\n"
    "\n"
    "The reference hspace service: a keyed object store for development, tests and\n"
    "demos, in its own memory (nothing persisted) or in an etcd cluster.\n"
    "\n"
    "  --listen HOST      address to listen on (default 127.0.0.1)\n"
    "  --port N           port to listen on (default 7521; 0 picks a free port)\n"
    "  --name NAME        service name sent to clients (default hspaced)\n"
    "  --max-queue BYTES  unsent bytes a client may have queued before it is\n"
    "                     disconnected (default 67108864)\n"
    "  --store STORE      where the objects live: memory (default) or\n"
    "                     etcd://HOST:PORT[,HOST:PORT...], every member of an\n"
    "                     etcd cluster, tried in turn\n"
    "  --store-prefix P   etcd: the prefix of every key stored (default hspace/)\n"
    "  --quiet            no connection log on stderr\n"
    "  --help             this text\n"
    "\n"
    "Prints \"hspaced listening on tcp://HOST:PORT\" on stdout when ready;\n"
    "stops cleanly on SIGINT or SIGTERM.\n";

// Parses an unsigned decimal number no larger than max; false otherwise.
bool parse_number(const char *text, unsigned long long max, unsigned long long *out)
{
    char *end = nullptr;
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || v > max) return false;
    *out = v;
    return true;
}

int usage_error(const char *what, const char *arg)
{
    fprintf(stderr, "hspaced: %s%s%s\n%s", what, arg != nullptr ? ": " : "", arg != nullptr ? arg : "", kUsage);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    hspace::service::Options options;
    options.port = hspace::service::kDefaultPort;
    options.log = true;
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        unsigned long long n = 0;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            fputs(kUsage, stdout);
            return 0;
        } else if (strcmp(a, "--quiet") == 0) {
            options.log = false;
        } else if (strcmp(a, "--listen") == 0) {
            if (v == nullptr) return usage_error("missing value of", a);
            options.host = v;
            i++;
        } else if (strcmp(a, "--name") == 0) {
            if (v == nullptr) return usage_error("missing value of", a);
            if (strlen(v) > 0xFFFF) return usage_error("name too long", nullptr);
            options.name = v;
            i++;
        } else if (strcmp(a, "--store") == 0) {
            if (v == nullptr) return usage_error("missing value of", a);
            options.store = v;
            i++;
        } else if (strcmp(a, "--store-prefix") == 0) {
            if (v == nullptr) return usage_error("missing value of", a);
            options.store_prefix = v;
            i++;
        } else if (strcmp(a, "--port") == 0) {
            if (!parse_number(v, 65535, &n)) return usage_error("bad port", v);
            options.port = static_cast<uint16_t>(n);
            i++;
        } else if (strcmp(a, "--max-queue") == 0) {
            if (!parse_number(v, ~0ull, &n) || n == 0) return usage_error("bad byte count", v);
            options.max_queue = static_cast<size_t>(n);
            i++;
        } else {
            return usage_error("unknown argument", a);
        }
    }

    // The signal set is in place before any thread exists, so SIGINT and
    // SIGTERM reach it from the first moment the service listens.
    asio::io_context signals_io;
    asio::signal_set signals(signals_io, SIGINT, SIGTERM);
    int caught = 0;
    signals.async_wait([&caught](const asio::error_code &ec, int signo) {
        if (!ec) caught = signo;
    });
    signal(SIGPIPE, SIG_IGN);

    hspace::service::Server server(options);
    std::string error;
    if (!server.start(&error)) {
        fprintf(stderr, "hspaced: %s\n", error.c_str());
        return 1;
    }
    printf("hspaced listening on %s\n", server.url().c_str());
    fflush(stdout);

    signals_io.run();
    if (options.log) fprintf(stderr, "hspaced: %s, stopping\n", caught == SIGINT ? "SIGINT" : "SIGTERM");
    server.stop();
    return 0;
}
