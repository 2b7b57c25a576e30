/*
 * main.cpp - hspaced, the reference hspace service as a program.
 *
 * Listens until SIGINT or SIGTERM, then closes every connection and exits
 * 0; SIGHUP reads the access rules (--acl) again. Prints "hspaced
 * listening on tcp://HOST:PORT" (tls:// with TLS) on stdout once it listens
 * (so a script can learn the port chosen for --port 0) and logs one line
 * per event on stderr (log.h), down to --log-level, as text or JSON. With
 * --http, serves its metrics, health and readiness over HTTP. Exit status:
 * 0 stopped by a signal, 1 cannot listen or use the store or the TLS files,
 * 2 usage error (a bad rule file, or an address other than loopback that
 * would be served open: see check_exposure).
 *
 * Options are parsed with CLI11; --help and --version print on stdout and
 * exit 0 (help2man builds the manual page from them).
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdint.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <CLI/CLI.hpp>
#include <asio.hpp>

#include "acl.h"
#include "http.h"
#include "server.h"

#ifndef HSPACE_VERSION
#define HSPACE_VERSION "unknown"
#endif

namespace {

const char kDescription[] =
    "hspaced - the reference hspace service: a keyed object store for development, tests and demos, in its "
    "own memory (nothing persisted) or in an etcd cluster, over TCP or TLS. Every client may do everything "
    "unless --acl says otherwise; who a client is, is what it claims unless --tls-client-ca names it.";

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
    "  What any client can make the service hold is bounded: a packet longer than\n"
    "  a handshake can be (196655 bytes) before the handshake, or than --max-queue\n"
    "  plus 65621 bytes after it, closes the connection as soon as its header is in;\n"
    "  --max-memory bounds the read buffers and unsent packets of all connections\n"
    "  together (past half of it, a connection holding more than its share reads no\n"
    "  request until it has sent; past it, the connection holding the most is\n"
    "  dropped); --max-connections, --max-subscriptions and --handshake-timeout\n"
    "  bound the rest. Out of file descriptors, accepting pauses with backoff.\n"
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
    "TLS:\n"
    "  With --tls-cert and --tls-key the port speaks TLS 1.2 or newer only (clients use\n"
    "  tls://HOST:PORT); a client that does not, a plain TCP one too, is refused at the\n"
    "  TLS handshake and logged. With --tls-client-ca every client must also present a\n"
    "  certificate that CA signed; its subject's CN is the client's name and its O values\n"
    "  its groups, and a handshake claiming another name or group is refused (1105).\n"
    "\n"
    "Access rules (--acl FILE):\n"
    "  One rule a line, GROUP RIGHTS PATTERN; '#' starts a comment. RIGHTS is r (get,\n"
    "  subscribe), w (put, remove) or rw; PATTERN an exact key or a prefix ending in *\n"
    "  (* alone: every key). A request is allowed when a rule of one of the client's\n"
    "  groups covers all it touches (a get or subscription of PREFIX* needs a rule\n"
    "  PREFIX* or a shorter prefix); a refused one is answered with status 1104,\n"
    "  changes nothing and is logged. Without client certificates a client's group\n"
    "  is what its handshake claims. SIGHUP reads the file again; a bad file keeps\n"
    "  the rules in force (and is logged), or at start exits 2 naming its line.\n"
    "  Without --acl every client may do everything.\n"
    "  An address other than loopback is served only with --tls-client-ca and --acl,\n"
    "  or with --insecure.\n"
    "\n"
    "Output:\n"
    "  Prints \"hspaced listening on tcp://HOST:PORT\" on standard output when ready\n"
    "  (with --listen 0.0.0.0: tcp://127.0.0.1:PORT, then the other addresses), and\n"
    "  stops cleanly on SIGINT or SIGTERM. SIGHUP reloads the access rules (without\n"
    "  --acl, it is only logged).\n"
    "\n"
    "Log:\n"
    "  One line per event on standard error, with its time, level and name and its\n"
    "  fields: key=value text (--log-format text) or one JSON object (json):\n"
    "    ts=2025-03-01T10:00:00.123Z level=info event=conn_accepted conn=7 peer=127.0.0.1:50412\n"
    "  error: the store out of reach, a failed accept; warn: refusals, the store's\n"
    "  failures to serve a request; info (default): start, connections, stop with a\n"
    "  summary; debug: every request with its key, status and duration. Keys are\n"
    "  escaped; values never appear. --quiet is --log-level error. Lines about\n"
    "  refused and dropped connections and denied requests are rate-limited.\n"
    "\n"
    "HTTP (--http HOST:PORT):\n"
    "  GET /metrics  the service's metrics, in the Prometheus text format\n"
    "  GET /health   200 \"ok\" while it serves and its store can be reached, else 503\n"
    "                with the reason\n"
    "  GET /ready    200 once it listens and its store was reached, 503 while starting\n"
    "                or stopping\n"
    "  A --http address that cannot be bound exits 1.\n"
    "\n"
    "Exit status:\n"
    "  0 stopped by SIGINT or SIGTERM, 1 cannot listen or use the store or the TLS\n"
    "  files, 2 usage error: a bad option, a bad rule file, or an exposed address\n"
    "  refused (see above).";

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

// Checks a number of seconds: digits with an optional fraction (5, 0.5),
// at most 86400. Empty text when it is one, else why not.
std::string check_seconds(const std::string &text)
{
    size_t digits = text.find_first_not_of("0123456789"), point = text.find('.');
    bool decimal = digits != 0 && (digits == std::string::npos ||
                                   (digits == point && point + 1 < text.size() &&
                                    text.find_first_not_of("0123456789", point + 1) == std::string::npos));
    if (!decimal) return "'" + text + "' is not a number of seconds (like 5 or 0.5)";
    size_t whole = digits == std::string::npos ? text.size() : digits;
    if (whole > 5 || std::stod(text) > 86400) return text + " is out of range; at most 86400 seconds";
    return std::string();
}

// Raises the soft limit on open descriptors toward the hard one, enough for
// max_connections and some to spare; logs a warning when it stays under that.
void raise_descriptor_limit(size_t max_connections, const hspace::service::Logger &logger)
{
    const rlim_t want = static_cast<rlim_t>(max_connections) + 64;
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= want) return;
    rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? want : std::min(want, limit.rlim_max);
    if (limit.rlim_cur > before && setrlimit(RLIMIT_NOFILE, &limit) != 0) limit.rlim_cur = before;
    if (limit.rlim_cur < want)
        logger.event(hspace::service::LogLevel::warn, "descriptor_limit",
                     {{"limit", static_cast<unsigned long long>(limit.rlim_cur)},
                      {"max_connections", max_connections},
                      {"reason", "under --max-connections plus 64: past it, accepting fails and pauses"}});
}

// Checks that the service is not served open to a network: an address
// other than loopback (the IPv4 address listened on) is served only to
// clients whose certificates it verifies (certified) and under access
// rules (acl), unless insecure says otherwise. Rules alone are not enough:
// without certificates a client's group is what it claims. Empty text when
// it may listen, else why not.
std::string check_exposure(const std::string &address, bool certified, bool acl, bool insecure)
{
    asio::error_code ec;
    asio::ip::address_v4 a = asio::ip::make_address_v4(address, ec);
    if (insecure || (!ec && a.is_loopback()) || (certified && acl)) return std::string();
    return "refusing to listen on " + address + ", which is not a loopback address, without client certificates "
           "(--tls-cert, --tls-key, --tls-client-ca) and access rules (--acl): anyone who reaches the port could "
           "read, overwrite and delete every key. Give both, listen on 127.0.0.1, or start with --insecure to serve "
           "it anyway";
}

// Checks the --http value: HOST:PORT, an IPv6 host between brackets. Empty
// text when it is one, else why not.
std::string check_http(const std::string &address)
{
    std::string host;
    uint16_t port = 0;
    if (hspace::service::HttpEndpoint::split(address, &host, &port)) return std::string();
    return "'" + address + "' is not HOST:PORT (a port from 0 to 65535; an IPv6 host between brackets)";
}

} // namespace

int main(int argc, char **argv)
{
    using hspace::service::Logger;
    using hspace::service::LogLevel;
    hspace::service::Options options;
    options.port = hspace::service::kDefaultPort;
    options.log = true;
    bool quiet = false, insecure = false;
    std::string log_level = "info", log_format = "text";
    std::string port = std::to_string(options.port), max_queue = std::to_string(options.max_queue);
    std::string max_memory = std::to_string(options.max_memory);
    std::string handshake_timeout = "5", max_connections = std::to_string(options.max_connections);
    std::string max_subscriptions = std::to_string(options.max_subscriptions);
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
    app.add_option("--max-memory", max_memory,
                   "bytes that the read buffers and unsent packets of all clients may hold together; past half of "
                   "it a client holding more than its share waits, past it the one holding the most is dropped "
                   "(default 1073741824)")
        ->option_text("BYTES")
        ->check([](const std::string &text) { return check_number(text, 1 << 20, SIZE_MAX >> 1); });
    app.add_option("--max-connections", max_connections,
                   "clients served at once; one more is answered with status 1107 and closed (default 10000)")
        ->option_text("N")
        ->check([](const std::string &text) { return check_number(text, 1, 10000000); });
    app.add_option("--max-subscriptions", max_subscriptions,
                   "subscriptions one client may hold; a post over it is answered with status 1106 (default 10000)")
        ->option_text("N")
        ->check([](const std::string &text) { return check_number(text, 1, UINT32_MAX); });
    app.add_option("--handshake-timeout", handshake_timeout,
                   "seconds a new client has to send its handshake before it is closed; 0: no limit (default 5)")
        ->option_text("SECONDS")
        ->check([](const std::string &text) { return check_seconds(text); });
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
    app.add_option("--acl", options.acl_file,
                   "access rules: one GROUP RIGHTS PATTERN a line (see below); SIGHUP reads the file again")
        ->option_text("FILE");
    app.add_flag("--insecure", insecure,
                 "serve an address other than loopback without client certificates or access rules");
    app.add_option("--http", options.http,
                   "serve GET /metrics, /health and /ready over HTTP on this address (off by default)")
        ->option_text("HOST:PORT")
        ->check([](const std::string &address) { return check_http(address); });
    CLI::Option *level_opt =
        app.add_option("--log-level", log_level, "the least severe events logged: error, warn, info (default), debug")
            ->option_text("LEVEL")
            ->check(CLI::IsMember({"error", "warn", "info", "debug"}));
    app.add_option("--log-format", log_format, "log lines as key=value text (default) or JSON objects")
        ->option_text("text|json")
        ->check(CLI::IsMember({"text", "json"}));
    CLI::Option *tls_cert = app.add_option("--tls-cert", options.tls_cert,
                                           "serve TLS only, with this PEM certificate (and chain); needs --tls-key")
                            ->option_text("FILE")
                            ->check(CLI::ExistingFile);
    CLI::Option *tls_key = app.add_option("--tls-key", options.tls_key, "the PEM private key of --tls-cert (not encrypted)")
                           ->option_text("FILE")
                           ->check(CLI::ExistingFile);
    app.add_option("--tls-client-ca", options.tls_client_ca,
                   "require a client certificate signed by a CA of this PEM file; needs --tls-cert")
        ->option_text("FILE")
        ->check(CLI::ExistingFile)
        ->needs(tls_cert);
    tls_cert->needs(tls_key);
    tls_key->needs(tls_cert);
    app.add_flag("--quiet", quiet, "log errors only: the same as --log-level error")->excludes(level_opt);
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
    options.max_memory = static_cast<size_t>(std::stoull(max_memory));
    if (options.max_memory < options.max_queue) {
        fprintf(stderr,
                "hspaced: --max-memory %zu is under --max-queue %zu: a client's largest answer or put could not be "
                "held\nRun 'hspaced --help' for the options.\n",
                options.max_memory, options.max_queue);
        return 2;
    }
    options.max_connections = static_cast<size_t>(std::stoull(max_connections));
    options.max_subscriptions = static_cast<size_t>(std::stoull(max_subscriptions));
    // A nonzero timeout is at least 1 ms: 0 would mean no limit.
    double seconds = std::stod(handshake_timeout);
    options.handshake_timeout_ms = seconds == 0 ? 0 : std::max(1u, static_cast<unsigned>(seconds * 1000));
    options.store_timeout_ms = static_cast<unsigned>(std::stoul(store_timeout));
    hspace::service::parse_log_level(quiet ? "error" : log_level, &options.log_level);
    hspace::service::parse_log_format(log_format, &options.log_format);
    const Logger logger(true, options.log_level, options.log_format);
    if (!options.acl_file.empty()) {
        std::string error;
        options.acl = hspace::service::Acl::load(options.acl_file, &error);
        if (!options.acl) {
            fprintf(stderr, "hspaced: %s\n", error.c_str());
            return 2;
        }
    }

    // A host name is resolved here, to IPv4 only, so that the URL printed
    // below is one a client can use.
    asio::error_code ec;
    asio::ip::make_address_v4(options.host, ec);
    if (ec) {
        asio::io_context resolve_io;
        asio::ip::tcp::resolver resolver(resolve_io);
        auto results = resolver.resolve(asio::ip::tcp::v4(), options.host, "", ec);
        if (ec || results.empty()) {
            logger.event(LogLevel::error, "start_failed",
                         {{"reason", "cannot resolve " + options.host + " to an IPv4 address" +
                                         (ec ? ": " + ec.message() : std::string())}});
            return 1;
        }
        options.host = results.begin()->endpoint().address().to_string();
    }
    std::string exposed = check_exposure(options.host, !options.tls_client_ca.empty(), options.acl != nullptr, insecure);
    if (!exposed.empty()) {
        fprintf(stderr, "hspaced: %s\n", exposed.c_str());
        return 2;
    }

    // The signal set is in place before any thread exists, so SIGINT,
    // SIGTERM and SIGHUP reach it from the first moment the service
    // listens (one that comes before the wait below waits for it).
    asio::io_context signals_io;
    asio::signal_set signals(signals_io, SIGINT, SIGTERM, SIGHUP);
    signal(SIGPIPE, SIG_IGN);
    raise_descriptor_limit(options.max_connections, logger);

    hspace::service::Server server(options);
    std::string error;
    if (!server.start(&error)) {
        logger.event(LogLevel::error, "start_failed", {{"reason", error}});
        return 1;
    }
    // On the wildcard address the URL names the loopback address, which a
    // client on this host can use, and the line says what else reaches it.
    std::string listening = server.url();
    if (options.host == "0.0.0.0") {
        std::string scheme = listening.substr(0, listening.find("://") + 3);
        std::string port_text = listening.substr(listening.rfind(':') + 1);
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        listening = scheme + "127.0.0.1:" + port_text + " (all IPv4 addresses of this host" +
                    (host[0] != '\0' ? "; from elsewhere " + scheme + host + ":" + port_text : std::string()) + ")";
    }
    if (printf("hspaced listening on %s\n", listening.c_str()) < 0 || fflush(stdout) != 0) {
        logger.event(LogLevel::error, "start_failed",
                     {{"reason", std::string("cannot write standard output: ") + strerror(errno)}});
        return 1;
    }

    // SIGHUP reloads the access rules (the server logs how it went) and
    // waits on; SIGINT and SIGTERM end the wait.
    int caught = 0;
    std::function<void()> wait = [&] {
        signals.async_wait([&](const asio::error_code &error, int signo) {
            if (error) return;
            if (signo != SIGHUP) {
                caught = signo;
                return;
            }
            server.reload();
            wait();
        });
    };
    wait();
    signals_io.run();
    logger.event(LogLevel::info, "stopping", {{"signal", caught == SIGINT ? "SIGINT" : "SIGTERM"}});
    server.stop();
    return 0;
}
