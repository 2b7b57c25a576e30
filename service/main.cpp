/*
 * main.cpp - hspaced, the reference hspace service as a program.
 *
 * Listens until SIGINT or SIGTERM, then closes every connection and exits
 * 0. Prints "hspaced listening on tcp://HOST:PORT" on stdout once it
 * listens (so a script can learn the port chosen for --port 0) and one
 * line per connection event on stderr. Exit status: 0 stopped by a signal,
 * 1 cannot listen or use the store, 2 usage error.
 *
 * Options are parsed with CLI11; --help and --version print on stdout and
 * exit 0 (help2man builds the manual page from them).
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <CLI/CLI.hpp>
#include <asio.hpp>

#include "server.h"

#ifndef HSPACE_VERSION
#define HSPACE_VERSION "unknown"
#endif

namespace {

const char kDescription[] =
    "hspaced - the reference hspace service: a keyed object store for development, tests and demos, in its "
    "own memory (nothing persisted) or in an etcd cluster. There is no authentication.";

const char kFooter[] =
    "Limits:\n"
    "  Keys are at most 65535 bytes (the wire's limit). A put whose value could never be\n"
    "  sent back under --max-queue is refused with status 12 and logged: the value plus\n"
    "  the key plus 86 bytes of packet headers must fit in --max-queue\n"
    "  (default 67108864 bytes, so values up to about 64 MiB).\n"
    "  A client whose unsent notifications exceed --max-queue (a subscriber that stops\n"
    "  reading) is disconnected; answers to a client's own requests never disconnect it:\n"
    "  while more than --max-queue bytes wait to be sent to it, its further requests\n"
    "  wait.\n"
    "  With --store etcd://, etcd's own limit on a request (--max-request-bytes,\n"
    "  1.5 MiB by default) also bounds values: a put over it is answered with 1103.\n"
    "\n"
    "etcd:\n"
    "  A request the store cannot serve is answered with 1101 (no etcd member reachable,\n"
    "  or none with a leader), 1102 (a member did not answer within --store-timeout;\n"
    "  a put or remove may have been applied) or 1103 (too large for etcd); etcd's own\n"
    "  words are logged beside the status. Subscriptions outlive an etcd outage: the\n"
    "  watch resumes where it stopped once etcd is back, and ends them (a notification\n"
    "  of trigger 4 whose value says why) only if etcd has compacted the changes missed.\n"
    "  With --store-cacert, --store-cert, --store-key or --store-user, the link and the\n"
    "  login are checked at start: a wrong CA, certificate or password exits 1.\n"
    "\n"
    "Output:\n"
    "  Prints \"hspaced listening on tcp://HOST:PORT\" on standard output when ready\n"
    "  (with --listen 0.0.0.0: tcp://127.0.0.1:PORT, then the other addresses), one\n"
    "  line per connection event on standard error (unless --quiet), and stops cleanly\n"
    "  on SIGINT or SIGTERM.\n"
    "\n"
    "Exit status:\n"
    "  0 stopped by SIGINT or SIGTERM, 1 cannot listen or use the store, 2 usage error.";

// Checks the --listen value: a host name or an IPv4 address, which a service
// URL (tcp://HOST:PORT) can carry. Empty text when it is usable, else why not.
std::string check_listen_host(const std::string &host)
{
    if (host.empty()) return "the host is empty";
    if (host.find_first_of(":[]") != std::string::npos)
        return "'" + host + "' is an IPv6 address; a service URL (tcp://HOST:PORT) cannot carry one, so clients "
                            "could not reach it: give an IPv4 address or a host name";
    return std::string();
}

// Checks the --store value: memory, or etcd:// and a comma-separated list of
// HOST:PORT with a port from 1 to 65535. Empty text when it is one, else why
// not.
std::string check_store(const std::string &store)
{
    static const char kEtcd[] = "etcd://";
    if (store == "memory") return std::string();
    if (store.compare(0, sizeof kEtcd - 1, kEtcd) != 0)
        return "'" + store + "' is not a store: memory or etcd://HOST:PORT[,HOST:PORT...]";
    std::string list = store.substr(sizeof kEtcd - 1);
    size_t at = 0;
    do {
        size_t comma = list.find(',', at);
        std::string member = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        size_t colon = member.rfind(':');
        std::string port = colon == std::string::npos ? std::string() : member.substr(colon + 1);
        if (colon == 0 || colon == std::string::npos || port.empty() || port.size() > 5 ||
            port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) < 1 ||
            std::stoul(port) > 65535)
            return "'" + member + "' in '" + store + "' is not HOST:PORT (a port from 1 to 65535)";
        at = comma == std::string::npos ? std::string::npos : comma + 1;
    } while (at != std::string::npos);
    return std::string();
}

// Checks a decimal number from min to max: digits only (no sign, no
// base prefix, no exponent). Empty text when it is one, else why not.
std::string check_number(const std::string &text, unsigned long long min, unsigned long long max)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return "'" + text + "' is not a decimal number";
    if (text.size() > 19 || std::stoull(text) < min || std::stoull(text) > max)
        return text + " is out of range; from " + std::to_string(min) + " to " + std::to_string(max);
    return std::string();
}

} // namespace

int main(int argc, char **argv)
{
    hspace::service::Options options;
    options.port = hspace::service::kDefaultPort;
    options.log = true;
    bool quiet = false;
    std::string port = std::to_string(options.port), max_queue = std::to_string(options.max_queue);
    std::string store_timeout = std::to_string(options.store_timeout_ms);

    CLI::App app(kDescription, "hspaced");
    app.footer(kFooter);
    app.set_version_flag("--version", "hspaced " HSPACE_VERSION, "print the version and exit");
    app.add_option("--listen", options.host, "address to listen on: an IPv4 address or a host name (default 127.0.0.1)")
        ->option_text("HOST")
        ->check([](const std::string &host) { return check_listen_host(host); });
    app.add_option("--port", port, "port to listen on, 0 picks a free one (default 7521)")
        ->option_text("N")
        ->check([](const std::string &text) { return check_number(text, 0, 65535); });
    app.add_option("--name", options.name, "service name sent to clients in the handshake (default hspaced)")
        ->option_text("NAME")
        ->check([](const std::string &name) {
            return name.size() > 0xFFFF ? "the name is " + std::to_string(name.size()) + " bytes; at most 65535"
                                        : std::string();
        });
    app.add_option("--max-queue", max_queue,
                   "bytes that may wait to be sent to one client; also bounds the values accepted (default 67108864)")
        ->option_text("BYTES")
        ->check([](const std::string &text) { return check_number(text, 1024, SIZE_MAX >> 1); });
    app.add_option("--store", options.store,
                   "where the objects live: memory (default) or etcd://HOST:PORT[,HOST:PORT...], every member of "
                   "an etcd cluster, tried in turn")
        ->option_text("STORE")
        ->check([](const std::string &store) { return check_store(store); });
    CLI::Option *prefix_opt =
        app.add_option("--store-prefix", options.store_prefix,
                       "etcd: the prefix of every key stored (default hspace/); refused with the memory store")
            ->option_text("P");
    app.add_option("--store-timeout", store_timeout,
                   "etcd: bound of each store call, failover included; also of a subscription's start (default 3000)")
        ->option_text("MS")
        ->check([](const std::string &text) { return check_number(text, 10, 3600000); });
    app.add_option("--store-cacert", options.store_cacert,
                   "etcd: speak TLS to etcd, checking the members' certificates against the CAs in FILE")
        ->option_text("FILE")
        ->check(CLI::ExistingFile);
    CLI::Option *cert = app.add_option("--store-cert", options.store_cert,
                                       "etcd: client certificate for TLS to etcd (PEM)")
                            ->option_text("FILE")
                            ->check(CLI::ExistingFile);
    CLI::Option *key = app.add_option("--store-key", options.store_key, "etcd: private key of --store-cert (PEM)")
                           ->option_text("FILE")
                           ->check(CLI::ExistingFile);
    cert->needs(key);
    key->needs(cert);
    CLI::Option *user =
        app.add_option("--store-user", options.store_user, "etcd: log in to etcd as this user")->option_text("NAME");
    CLI::Option *password = app.add_option("--store-password-file", options.store_password_file,
                                           "etcd: file whose first line is the password of --store-user")
                                ->option_text("FILE")
                                ->check(CLI::ExistingFile);
    user->needs(password);
    password->needs(user);
    app.add_flag("--quiet", quiet, "no connection log on standard error");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        fputs(app.help().c_str(), stdout);
        return 0;
    } catch (const CLI::CallForVersion &) {
        printf("%s\n", app.version().c_str());
        return 0;
    } catch (const CLI::ParseError &e) {
        fprintf(stderr, "hspaced: %s\nRun 'hspaced --help' for the options.\n", e.what());
        return 2;
    }
    // A prefix the memory store would ignore is refused, so that no one
    // believes two instances share (or keep apart) data they do not.
    if (prefix_opt->count() > 0 && options.store.compare(0, 7, "etcd://") != 0) {
        fprintf(stderr, "hspaced: --store-prefix applies to --store etcd://... only; the memory store has no prefix\n"
                        "Run 'hspaced --help' for the options.\n");
        return 2;
    }
    options.port = static_cast<uint16_t>(std::stoul(port));
    options.max_queue = static_cast<size_t>(std::stoull(max_queue));
    options.store_timeout_ms = static_cast<unsigned>(std::stoul(store_timeout));
    options.log = !quiet;

    // A host name is resolved here, to IPv4 only, so that the URL printed
    // below is one a client can use.
    asio::error_code ec;
    asio::ip::make_address_v4(options.host, ec);
    if (ec) {
        asio::io_context resolve_io;
        asio::ip::tcp::resolver resolver(resolve_io);
        auto results = resolver.resolve(asio::ip::tcp::v4(), options.host, "", ec);
        if (ec || results.empty()) {
            fprintf(stderr, "hspaced: cannot resolve %s to an IPv4 address%s%s\n", options.host.c_str(),
                    ec ? ": " : "", ec ? ec.message().c_str() : "");
            return 1;
        }
        options.host = results.begin()->endpoint().address().to_string();
    }

    // The signal set is in place before any thread exists, so SIGINT and
    // SIGTERM reach it from the first moment the service listens.
    asio::io_context signals_io;
    asio::signal_set signals(signals_io, SIGINT, SIGTERM);
    int caught = 0;
    signals.async_wait([&caught](const asio::error_code &error, int signo) {
        if (!error) caught = signo;
    });
    signal(SIGPIPE, SIG_IGN);

    hspace::service::Server server(options);
    std::string error;
    if (!server.start(&error)) {
        fprintf(stderr, "hspaced: %s\n", error.c_str());
        return 1;
    }
    // On the wildcard address the URL names the loopback address, which a
    // client on this host can use, and the line says what else reaches it.
    std::string listening = server.url();
    if (options.host == "0.0.0.0") {
        std::string port_text = listening.substr(listening.rfind(':') + 1);
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        listening = "tcp://127.0.0.1:" + port_text + " (all IPv4 addresses of this host" +
                    (host[0] != '\0' ? std::string("; from elsewhere tcp://") + host + ":" + port_text : "") + ")";
    }
    if (printf("hspaced listening on %s\n", listening.c_str()) < 0 || fflush(stdout) != 0) {
        fprintf(stderr, "hspaced: cannot write standard output: %s\n", strerror(errno));
        return 1;
    }

    signals_io.run();
    if (options.log) fprintf(stderr, "hspaced: %s, stopping\n", caught == SIGINT ? "SIGINT" : "SIGTERM");
    server.stop();
    return 0;
}
