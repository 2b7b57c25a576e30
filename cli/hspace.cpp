/*
 * hspace.cpp - the hspace command-line client: put, get, rm and watch on a
 * service, through the client library's C API. Options are parsed with
 * CLI11: every level has --help, nothing is sent before every option and
 * argument has been checked.
 *
 * Exit codes: 0 done, 1 not found (get, rm), 2 usage, 3 any other failure
 * (the reason on stderr), 128+N for put, get or rm ended by signal N.
 *
 * Threads: SIGINT, SIGTERM and SIGUSR1 are blocked first thing in main, so
 * every thread (the worker, the handle's reader thread) inherits the mask,
 * and only the main thread takes them, with sigtimedwait. The worker thread
 * runs the library's blocking calls (open, then the one request) and
 * reports each step by setting `step` and sending SIGUSR1 to the main
 * thread; the main thread meanwhile holds the deadline of the step and the
 * signals. On a deadline or a signal before the worker is done the process
 * ends at once (_exit) without touching the handle the worker is inside.
 * watch also has the reader thread, which prints the events (under
 * print_mutex) and sends SIGUSR1 when the watch fails.
 */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "qel_hspace.h"

#ifndef HSPACE_VERSION
#define HSPACE_VERSION "unknown"
#endif

namespace {

const char kDefaultUrl[] = "tcp://127.0.0.1:7521";
constexpr size_t kMaxKey = 65535;                       // the wire's key length field
constexpr size_t kMaxPacket = size_t(1) << 30;          // the library's largest packet
constexpr size_t kPacketReserve = 4096;                 // headers around a put's key and value, rounded up

const char kFooter[] =
    "Output:\n"
    "  Every key and value printed is escaped: bytes other than printable ASCII are\n"
    "  written as C escapes (\\n, \\t, \\r, \\\\, \\xNN), so each object stays on one line.\n"
    "  Only get --raw writes the value's bytes as they are.\n"
    "\n"
    "Exit status:\n"
    "  0 done (watch: ended by SIGINT or SIGTERM), 1 not found (get, rm), 2 usage\n"
    "  error, 3 any other failure: no connection, a timeout, a refused request, an\n"
    "  output error (the reason on standard error); 128+N when put, get or rm is\n"
    "  ended by signal N.";

enum Exit { kDone = 0, kNotFound = 1, kUsage = 2, kFailed = 3 };

// ---- text ----

// Appends bytes to out, printable ASCII as is and everything else escaped.
void escape(std::string &out, const char *p, size_t n)
{
    static const char hex[] = "0123456789abcdef";
    for (size_t i = 0; i < n; i++) {
        unsigned char ch = static_cast<unsigned char>(p[i]);
        if (ch == '\\') out += "\\\\";
        else if (ch == '\n') out += "\\n";
        else if (ch == '\t') out += "\\t";
        else if (ch == '\r') out += "\\r";
        else if (ch >= 0x20 && ch < 0x7F) out += static_cast<char>(ch);
        else {
            out += "\\x";
            out += hex[ch >> 4];
            out += hex[ch & 15];
        }
    }
}

std::string escaped(const std::string &s)
{
    std::string out;
    escape(out, s.data(), s.size());
    return out;
}

// The service URL as the user typed it: scheme tcp, a host (IPv4 address
// or name), a port 1-65535 in decimal and nothing after it. The library
// accepts more (an empty host, any port text, keeping its low 16 bits);
// the client refuses what would not reach the service meant. Empty text
// when the URL is usable, else what is wrong with it.
std::string check_url(const std::string &url)
{
    const std::string form = "; expected tcp://HOST:PORT";
    size_t sep = url.find("://");
    if (url.empty()) return "the URL is empty" + form;
    if (sep == std::string::npos) return "'" + url + "' has no scheme" + form;
    std::string scheme = url.substr(0, sep), rest = url.substr(sep + 3);
    if (strcasecmp(scheme.c_str(), "tcp") != 0) return "the scheme is '" + scheme + "'; only tcp is supported";
    if (rest.find_first_of("[]") != std::string::npos || rest.find(':') != rest.rfind(':'))
        return "'" + rest + "' looks like an IPv6 address, which a service URL cannot carry; "
                            "give an IPv4 address or a host name";
    size_t colon = rest.find(':');
    if (colon == std::string::npos) return "no port" + form;
    std::string host = rest.substr(0, colon), port = rest.substr(colon + 1);
    if (host.empty()) return "the host is empty" + form;
    if (port.empty()) return "the port is empty" + form;
    if (port.find_first_not_of("0123456789") != std::string::npos) return "the port '" + port + "' is not a number";
    if (port.size() > 5 || std::stoul(port) < 1 || std::stoul(port) > 65535)
        return "the port " + port + " is out of range; ports are 1-65535";
    return std::string();
}

// ---- checked output ----

int output_errno = 0;                          // errno of the first failed write to stdout (main thread, or reader under print_mutex)

bool out_write(const char *p, size_t n)
{
    if (n == 0 || fwrite(p, 1, n, stdout) == n) return true;
    if (output_errno == 0) output_errno = errno != 0 ? errno : EIO;
    return false;
}

bool out_write(const std::string &s)
{
    return out_write(s.data(), s.size());
}

// Flushes stdout; false, with output_errno set, when anything written to
// it was lost.
bool out_flush()
{
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout) && output_errno == 0) return true;
    if (output_errno == 0) output_errno = errno != 0 ? errno : EIO;
    return false;
}

int output_failed()
{
    fprintf(stderr, "hspace: cannot write standard output: %s\n", strerror(output_errno));
    return kFailed;
}

// ---- library errors ----

const char *error_text(t_kro_error error)
{
    const t_kro_char *text = "unknown error";
    qel_hspace_error_get_text(error, &text);
    return text;
}

// The operating system's reason for error as the runtime recorded it on
// the calling thread, 0 when there is none.
unsigned recorded_reason(t_kro_error error)
{
    t_kro_uint4 reason = 0;
    if (error == KRO_ERR_NET || error == KRO_ERR_NOT_CONNECTED) kro_em_net_error_get(&reason);
    else if (error == KRO_ERR_OS) kro_em_os_error_get(&reason);
    return reason;
}

std::atomic<unsigned> link_reason{0};          // reader thread: the system's reason of the link failure

// "TEXT (CODE)", then ": REASON" when the system gave one.
std::string describe_error(t_kro_error error, unsigned reason)
{
    std::string s = std::string(error_text(error)) + " (" + std::to_string(error) + ")";
    if (reason == 0) reason = link_reason.load();
    if (reason != 0 && error >= KRO_ERR_RUNTIME_BASE) s += std::string(": ") + strerror(static_cast<int>(reason));
    return s;
}

int failed(const std::string &what, t_kro_error error, unsigned reason = 0)
{
    fprintf(stderr, "hspace: %s: %s\n", what.c_str(), describe_error(error, reason).c_str());
    return kFailed;
}

// ---- objects ----

// The value of a library object: pointer and length (null and 0 for none).
void object_value(t_qel_hspace_object object, const char **p, size_t *n)
{
    t_kro_ptr data = nullptr;
    qel_hspace_object_get_data(object, &data);
    t_kro_buf buf = static_cast<t_kro_buf>(data);
    *p = buf != nullptr ? static_cast<const char *>(buf->ptr) + buf->pos : "";
    *n = buf != nullptr ? buf->lim - buf->pos : 0;
}

const char *object_key(t_qel_hspace_object object)
{
    t_kro_str key = nullptr;
    qel_hspace_object_get_key(object, &key);
    return key != nullptr ? key : "";
}

// "KEY = VALUE" of an object, escaped.
std::string describe(t_qel_hspace_object object)
{
    std::string line;
    const char *p;
    size_t n;
    const char *key = object_key(object);
    escape(line, key, strlen(key));
    object_value(object, &p, &n);
    line += " = ";
    escape(line, p, n);
    return line;
}

// ---- the worker and the main thread's wait ----

enum Step { kConnecting, kRequesting, kFinished };

struct Command {
    std::string name;                          // put, get, rm or watch
    std::string key;
    std::string value;                         // put
    bool raw = false;                          // get --raw
};

pthread_t main_thread;                         // takes the signals; set before any other thread
sigset_t signals;                              // SIGINT, SIGTERM, SIGUSR1: blocked in every thread
std::atomic<int> step{kConnecting};            // worker: where it is; kFinished once its results are set

// The worker's results, written before step becomes kFinished.
t_kro_error work_error = 0;                    // open's error, else the request's
unsigned work_reason = 0;                      // the system's reason of work_error on the worker thread
bool work_opened = false;                      // open succeeded

void wake_main()
{
    pthread_kill(main_thread, SIGUSR1);
}

void set_step(int s)
{
    step.store(s);
    wake_main();
}

// Worker thread: open, then the command's one request.
void work(t_qel_hspace hspace, const Command &cmd, t_kro_llist objects)
{
    t_kro_error error = qel_hspace_open(hspace);
    work_opened = error == 0;
    if (error == 0) {
        set_step(kRequesting);
        if (cmd.name == "put") {
            t_kro_buf buf = nullptr;
            if (!cmd.value.empty()) {
                kro_buf_create(&buf, static_cast<t_kro_uint4>(cmd.value.size()), 0);
                memcpy(buf->ptr, cmd.value.data(), cmd.value.size());
            }
            t_qel_hspace_object object = nullptr;
            error = qel_hspace_object_create(cmd.key.c_str(), buf, &object);
            if (error == 0) {
                error = qel_hspace_put(hspace, object, HSPACE_PUT_SYNC, 0);
                qel_hspace_object_destroy(&object);
            }
            if (buf != nullptr) kro_buf_release(&buf);
        } else if (cmd.name == "get") {
            error = qel_hspace_get(hspace, cmd.key.c_str(), nullptr, HSPACE_GET_SYNC, 0, 0, objects);
        } else if (cmd.name == "rm") {
            error = qel_hspace_remove(hspace, cmd.key.c_str(), HSPACE_REMOVE_SYNC, 0);
        } else {
            error = qel_hspace_post(hspace, cmd.key.c_str(), nullptr, HSPACE_POST_SYNC, 0, 0);
        }
    }
    work_error = error;
    work_reason = recorded_reason(error);
    set_step(kFinished);
}

// ---- watch: state shared with the reader thread ----

std::mutex print_mutex;                        // serialises lines on stdout
constexpr t_kro_error kOutputError = ~0u;      // watch_failure: writing stdout failed
std::atomic<t_kro_error> watch_failure{0};     // reader thread: why the watch ended

void watch_fail(t_kro_error error)
{
    t_kro_error none = 0;
    if (watch_failure.compare_exchange_strong(none, error)) wake_main();
}

void print_line(const std::string &line)
{
    std::lock_guard<std::mutex> lock(print_mutex);
    if (!out_write(line) || !out_write("\n", 1) || !out_flush()) watch_fail(kOutputError);
}

// Event callback. Reader thread, no library lock held. Only watch
// subscribes, so only watch sees image and notification events.
void on_event(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    switch (event) {
    case HSPACE_EVENT_POST_IMAGE: {
        auto *e = static_cast<t_qel_hspace_reply_image_event_data_struct *>(event_data);
        if (e->status != 0) watch_fail(e->status);
        else print_line(e->object == nullptr ? "image (none)" : "image " + describe(e->object));
        if (e->object != nullptr) qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_POST_NOTIFICATION: {
        auto *e = static_cast<t_qel_hspace_post_notification_event_data_struct *>(event_data);
        std::string line;
        if (e->trigger == 1) {
            line = "stored " + describe(e->object);
        } else if (e->trigger == 2) {
            line = "removed " + escaped(object_key(e->object));
        } else {
            line = "trigger " + std::to_string(e->trigger) + " " + describe(e->object);
        }
        print_line(line);
        qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_GET_REPLY: {
        auto *e = static_cast<t_qel_hspace_reply_image_event_data_struct *>(event_data);
        if (e->object != nullptr) qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_LINK_FAIL: {
        auto *e = static_cast<t_qel_hspace_fail_event_data_struct *>(event_data);
        t_kro_error error = e->error != 0 ? e->error : KRO_ERR_PEER_CLOSED;
        link_reason = recorded_reason(error);
        watch_fail(error);
        break;
    }
    }
}

// Waits for a signal until deadline (none when null). Returns the signal,
// or 0 when the deadline passed.
int wait_signal(const timespec *deadline)
{
    for (;;) {
        int signo;
        if (deadline == nullptr) {
            signo = sigwaitinfo(&signals, nullptr);
        } else {
            timespec now, left;
            clock_gettime(CLOCK_MONOTONIC, &now);
            left.tv_sec = deadline->tv_sec - now.tv_sec;
            left.tv_nsec = deadline->tv_nsec - now.tv_nsec;
            if (left.tv_nsec < 0) {
                left.tv_nsec += 1000000000L;
                left.tv_sec--;
            }
            if (left.tv_sec < 0) return 0;
            signo = sigtimedwait(&signals, nullptr, &left);
            if (signo < 0 && errno == EAGAIN) return 0;
        }
        if (signo > 0) return signo;
    }
}

// Ends the process at once, with the handle still in use by the worker.
[[noreturn]] void quit(int status)
{
    {
        std::lock_guard<std::mutex> lock(print_mutex);
        fflush(stdout);
    }
    fflush(stderr);
    _exit(status);
}

// Main thread: waits until the worker has finished, giving each of its steps
// timeout seconds (0: no limit). Ends the process on the deadline (3) or on
// SIGINT or SIGTERM (watch: 0, else 128+N).
void await_worker(double timeout, const std::string &url, const Command &cmd)
{
    int seen = -1;
    timespec deadline{};
    while (step.load() != kFinished) {
        int now_step = step.load();
        if (now_step != seen) {
            seen = now_step;
            clock_gettime(CLOCK_MONOTONIC, &deadline);
            double whole = std::floor(timeout);
            deadline.tv_sec += static_cast<time_t>(whole);
            deadline.tv_nsec += static_cast<long>((timeout - whole) * 1e9);
            if (deadline.tv_nsec >= 1000000000L) {
                deadline.tv_nsec -= 1000000000L;
                deadline.tv_sec++;
            }
        }
        int signo = wait_signal(timeout > 0 ? &deadline : nullptr);
        if (signo == SIGINT || signo == SIGTERM) quit(cmd.name == "watch" ? kDone : 128 + signo);
        if (signo == 0 && step.load() == seen) {
            std::string what = seen == kConnecting ? "connecting to " + url
                                                   : "waiting for the service's answer to " + cmd.name + " " +
                                                         escaped(cmd.key);
            fprintf(stderr, "hspace: timed out after %g s %s\n", timeout, what.c_str());
            quit(kFailed);
        }
    }
}

// ---- the commands' results ----

int finish_get(const Command &cmd, t_kro_llist objects)
{
    bool pattern = !cmd.key.empty() && cmd.key.back() == '*';
    int status = objects->num_elements == 0 ? kNotFound : kDone;
    if (status == kNotFound) {
        if (pattern)
            fprintf(stderr, "hspace: get: no key starts with %s\n",
                    escaped(cmd.key.substr(0, cmd.key.size() - 1)).c_str());
        else
            fprintf(stderr, "hspace: get: nothing stored under %s\n", escaped(cmd.key).c_str());
    }
    bool ok = true;
    std::string line;
    t_kro_ptr node;
    while ((node = kro_llist_first(objects)) != nullptr) {
        t_qel_hspace_object object = static_cast<t_qel_hspace_object>(node);
        kro_llist_remove(object);
        const char *p;
        size_t n;
        object_value(object, &p, &n);
        if (!ok) {
            // Output failed: the rest is only freed.
        } else if (cmd.raw && !pattern) {
            ok = out_write(p, n);
        } else {
            line.clear();
            if (pattern) {
                const char *key = object_key(object);
                escape(line, key, strlen(key));
                line += '\t';
            }
            escape(line, p, n);
            line += '\n';
            ok = out_write(line);
        }
        qel_hspace_object_destroy(&object);
    }
    return out_flush() ? status : output_failed();
}

int finish(const Command &cmd, t_kro_llist objects)
{
    const std::string key = escaped(cmd.key);
    t_kro_error error = work_error;
    if (cmd.name == "get") {
        if (error != 0) return failed("get " + key, error, work_reason);
        return finish_get(cmd, objects);
    }
    if (cmd.name == "put" && error == KRO_ERR_INVALID_ARG) {
        fprintf(stderr,
                "hspace: put %s: value is %zu bytes; the service refused it as larger than it can send back "
                "(hspaced's --max-queue bounds the values it accepts)\n",
                key.c_str(), cmd.value.size());
        return kFailed;
    }
    if (cmd.name == "rm" && error == KRO_ERR_NO_MATCH) {
        if (!cmd.key.empty() && cmd.key.back() == '*')
            fprintf(stderr,
                    "hspace: rm: nothing stored under the key %s; rm removes one key, never a pattern "
                    "(list the keys with: hspace get '%s')\n",
                    key.c_str(), key.c_str());
        else
            fprintf(stderr, "hspace: rm: nothing stored under %s\n", key.c_str());
        return kNotFound;
    }
    if (error != 0) return failed(cmd.name + " " + key, error, work_reason);
    return kDone;
}

// Main thread, once the watch's post has succeeded: prints until a signal
// or a failure.
int finish_watch(const Command &cmd)
{
    while (watch_failure.load() == 0) {
        int signo = wait_signal(nullptr);
        if (signo == SIGINT || signo == SIGTERM) return kDone;
    }
    t_kro_error failure = watch_failure.load();
    if (failure == kOutputError) {
        std::lock_guard<std::mutex> lock(print_mutex);
        return output_failed();
    }
    return failed("watch " + escaped(cmd.key), failure);
}

bool read_all(FILE *f, std::string *out)
{
    char chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out->append(chunk, n);
    return !ferror(f);
}

// The value of put, from the argument, a file or standard input. Returns
// kDone or the exit status of the failure, which it has reported.
int read_value(const std::string *arg, const std::string &file, size_t max, std::string *value)
{
    if (arg != nullptr && *arg != "-") {
        *value = *arg;
        return kDone;
    }
    if (file.empty() && arg == nullptr && isatty(STDIN_FILENO)) {
        fprintf(stderr, "hspace: put: no value: give VALUE, -f FILE, or '-' to read standard input\n");
        return kUsage;
    }
    FILE *f = stdin;
    const char *name = "standard input";
    if (!file.empty()) {
        name = file.c_str();
        if ((f = fopen(name, "rb")) == nullptr) {
            fprintf(stderr, "hspace: cannot open %s: %s\n", name, strerror(errno));
            return kFailed;
        }
    }
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode) && static_cast<size_t>(st.st_size) > max) {
        fprintf(stderr, "hspace: put: value is %llu bytes; at most %zu\n", static_cast<unsigned long long>(st.st_size),
                max);
        if (f != stdin) fclose(f);
        return kUsage;
    }
    bool ok = read_all(f, value);
    int saved = errno;
    if (f != stdin) fclose(f);
    if (!ok) {
        fprintf(stderr, "hspace: cannot read %s: %s\n", name, strerror(saved));
        return kFailed;
    }
    return kDone;
}

} // namespace

int main(int argc, char **argv)
{
    // Before any thread exists: every thread inherits the mask.
    main_thread = pthread_self();
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const char *env_url = getenv("HSPACE_URL");
    std::string url = env_url != nullptr && *env_url != '\0' ? env_url : kDefaultUrl;
    std::string timeout_text = "5";
    Command cmd;
    std::string value_arg, file, help_topic;

    CLI::App app("hspace - store, fetch, remove and watch objects of an hspace service.", "hspace");
    app.footer(kFooter);
    app.set_version_flag("--version", "hspace " HSPACE_VERSION, "print the version and exit");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--url", url, "the service, tcp://HOST:PORT (default $HSPACE_URL, else tcp://127.0.0.1:7521)")
        ->option_text("URL")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--timeout", timeout_text,
                   "seconds allowed for connecting and for each answer of the service; 0: no limit (default 5)")
        ->option_text("SECONDS")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->check([](const std::string &text) {
            size_t digits = text.find_first_not_of("0123456789"), point = text.find('.');
            bool decimal = digits != 0 && (digits == std::string::npos ||
                                           (digits == point && point + 1 < text.size() &&
                                            text.find_first_not_of("0123456789", point + 1) == std::string::npos));
            if (!decimal) return "'" + text + "' is not a number of seconds (like 5 or 0.5)";
            size_t whole = digits == std::string::npos ? text.size() : digits;
            return whole > 7 ? text + " is out of range; at most 9999999 seconds" : std::string();
        });

    CLI::App *put = app.add_subcommand("put", "store a value under KEY: VALUE, the contents of FILE, or standard "
                                              "input (no VALUE, or '-')");
    put->add_option("KEY", cmd.key, "the key")->required();
    CLI::Option *value_opt = put->add_option("VALUE", value_arg, "the value; '-' reads standard input");
    put->add_option("-f,--file", file, "store the contents of FILE")->option_text("FILE")->excludes(value_opt);

    CLI::App *get = app.add_subcommand("get", "print the value stored under KEY, escaped, then a newline; for a "
                                              "pattern PREFIX*, one KEY<TAB>VALUE line per key starting with PREFIX, "
                                              "in key order");
    get->add_option("KEY", cmd.key, "the key, or a pattern ending in *")->required();
    get->add_flag("--raw", cmd.raw, "print the value's bytes only, unescaped, nothing added (one key)");

    CLI::App *rm = app.add_subcommand("rm", "delete the object stored under KEY (one key: a * in it is a "
                                            "character like any other)");
    rm->add_option("KEY", cmd.key, "the key")->required();

    CLI::App *watch = app.add_subcommand("watch", "subscribe to KEY or PREFIX*: print the stored objects "
                                                  "(\"image KEY = VALUE\", or \"image (none)\"), then every change "
                                                  "(\"stored KEY = VALUE\", \"removed KEY\"), one line each, until "
                                                  "SIGINT or SIGTERM");
    watch->add_option("KEY", cmd.key, "the key, or a pattern ending in *")->required();

    CLI::App *help = app.add_subcommand("help", "print this help, or a command's");
    help->add_option("COMMAND", help_topic, "the command")->check(CLI::IsMember({"put", "get", "rm", "watch"}));

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        return out_write(app.help()) && out_flush() ? kDone : output_failed();
    } catch (const CLI::CallForVersion &) {
        return out_write(app.version() + "\n") && out_flush() ? kDone : output_failed();
    } catch (const CLI::ParseError &e) {
        std::string where;
        for (CLI::App *sub : app.get_subcommands()) where = " " + sub->get_name();
        fprintf(stderr, "hspace: %s\nRun 'hspace%s --help' for the usage.\n", e.what(), where.c_str());
        return kUsage;
    }
    if (help->parsed()) {
        std::string text = help_topic.empty() ? app.help() : app.get_subcommand(help_topic)->help("hspace");
        return out_write(text) && out_flush() ? kDone : output_failed();
    }
    cmd.name = app.get_subcommands().front()->get_name();
    const double timeout = std::stod(timeout_text);

    // Everything is checked before anything is sent.
    std::string wrong = check_url(url);
    if (!wrong.empty()) {
        fprintf(stderr, "hspace: %s: %s\n", app.count("--url") > 0 ? "--url" : "HSPACE_URL", wrong.c_str());
        return kUsage;
    }
    if (cmd.key.size() > kMaxKey) {
        fprintf(stderr, "hspace: %s: key is %zu bytes; at most %zu\n", cmd.name.c_str(), cmd.key.size(), kMaxKey);
        return kUsage;
    }
    if (cmd.name == "put") {
        size_t max = kMaxPacket - kPacketReserve - cmd.key.size();
        int status = read_value(value_opt->count() > 0 ? &value_arg : nullptr, file, max, &cmd.value);
        if (status != kDone) return status;
        if (cmd.value.size() > max) {
            fprintf(stderr, "hspace: put: value is %zu bytes; at most %zu\n", cmd.value.size(), max);
            return kUsage;
        }
    }

    t_kro_error error = qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    if (error != 0) return failed("initialize", error);
    qel_hspace_create_data create_data;
    create_data.service_url = url.c_str();
    create_data.client_name = "hspace";
    create_data.client_group = "cli";
    t_qel_hspace hspace = nullptr;
    error = qel_hspace_create(&create_data, on_event, &hspace);
    if (error != 0) {
        qel_hspace_finalize();
        return failed(url, error);
    }
    t_kro_llist objects = nullptr;
    kro_llist_create(&objects);

    std::thread worker(work, hspace, std::cref(cmd), objects);
    await_worker(timeout, url, cmd);
    worker.join();

    int status;
    if (!work_opened) {
        status = failed("cannot connect to " + url, work_error, work_reason);
    } else if (cmd.name == "watch") {
        status = work_error != 0 ? failed("watch " + escaped(cmd.key), work_error, work_reason) : finish_watch(cmd);
    } else {
        status = finish(cmd, objects);
    }
    qel_hspace_close(hspace);
    qel_hspace_destroy(&hspace);
    t_kro_ptr node;
    while ((node = kro_llist_first(objects)) != nullptr) {
        t_qel_hspace_object object = static_cast<t_qel_hspace_object>(node);
        kro_llist_remove(object);
        qel_hspace_object_destroy(&object);
    }
    kro_llist_destroy(&objects);
    qel_hspace_finalize();
    return status;
}
