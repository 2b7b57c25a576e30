/*
 * hspace.cpp - the hspace command-line client: put, get, ls, rm, watch and
 * ping on a service, through the client library's C API. Options are
 * parsed with CLI11: every level has --help, nothing is sent before every
 * option and argument has been checked.
 *
 * Exit codes: 0 done, 1 not found (get, ls, rm), 2 usage, 3 any other
 * failure (the reason on stderr), 128+N for put, get, ls, rm or ping ended
 * by signal N.
 *
 * Threads: SIGINT, SIGTERM and SIGUSR1 are blocked first thing in main, so
 * every thread (the worker, the handles' reader threads) inherits the mask,
 * and only the main thread takes them, with sigtimedwait. The worker thread
 * runs the library's blocking calls and reports each step by bumping
 * `step_seq` and sending SIGUSR1 to the main thread; the main thread
 * meanwhile holds the deadline of the step and the signals. On a deadline or
 * a signal before the worker is done the process ends at once (_exit)
 * without touching the handle the worker is inside. watch also has the
 * reader thread, which prints the events (under print_mutex) and wakes the
 * worker (watch_state) when the subscription or the connection ends; the
 * worker then subscribes again or reconnects, with backoff.
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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "qel_hspace.h"

#ifndef HSPACE_VERSION
#define HSPACE_VERSION "unknown"
#endif

namespace {

const char kDefaultUrl[] = "tcp://127.0.0.1:7521";
constexpr size_t kMaxKey = 65535;                       // the wire's key length field
constexpr size_t kMaxPacket = size_t(1) << 30;          // the library's largest packet
constexpr size_t kPacketReserve = 4096;                 // headers around a put's key and value, rounded up
const char kPingKey[] = "hspace-ping";                  // ping cancels this key's (absent) subscription
constexpr double kBackoffFirst = 0.1;                   // seconds before the first retry of watch
constexpr double kBackoffMax = 5;                       // the longest wait between retries

enum Exit { kDone = 0, kNotFound = 1, kUsage = 2, kFailed = 3 };

// The commands: name, arguments as the usage shows them, one-line summary.
struct CommandInfo {
    const char *name;
    const char *usage;
    const char *summary;
};
const CommandInfo kCommands[] = {
    {"put", "put KEY [VALUE | -f FILE]", "store a value (VALUE, a file, or standard input)"},
    {"get", "get [-o FORMAT] KEY", "print the value under KEY, or every KEY and value of PREFIX*"},
    {"ls", "ls [-o FORMAT] [PATTERN]", "list the keys of PATTERN (a key or PREFIX*; default *)"},
    {"rm", "rm KEY", "delete the object under KEY"},
    {"watch", "watch [OPTIONS] KEY", "print KEY's or PREFIX*'s objects, then every change"},
    {"ping", "ping [-c COUNT]", "time a request's round trip; print the service's name"},
    {"help", "help [COMMAND]", "print this list, or a command's help"},
};

const char kGlobalUsage[] = "hspace [--url URL] [--timeout SECONDS] [--cacert FILE] [--cert FILE --key FILE] ";

const char kFooter[] =
    "Output formats (-o, --output, of get, ls and watch):\n"
    "  text  the default: every key and value is escaped, bytes other than printable\n"
    "        ASCII written as C escapes (\\n, \\t, \\r, \\\\, \\xNN), so each object stays on\n"
    "        one line\n"
    "  json  one JSON object per line: \"key\" and \"value\" as UTF-8 strings, or, for\n"
    "        bytes that are no valid UTF-8, in base64 with \"key_encoding\" or\n"
    "        \"value_encoding\": \"base64\"; watch adds \"event\" (image, stored, removed,\n"
    "        ended), and for images \"index\", \"count\" and \"resync\"\n"
    "  raw   as text, nothing escaped; get of one key writes the value's bytes alone\n"
    "\n"
    "Exit status:\n"
    "  0 done (watch: ended by SIGINT or SIGTERM), 1 not found (get, ls, rm), 2 usage\n"
    "  error, 3 any other failure: no connection, a timeout, a refused request, a\n"
    "  watch stopped at a break by --no-retry, an output error (the reason on\n"
    "  standard error); 128+N when another command is ended by signal N.\n"
    "\n"
    "TLS (tls://HOST:PORT URLs):\n"
    "  TLS 1.2 or newer. The service's certificate is checked against the CAs of\n"
    "  --cacert (default: the system's) and must name HOST; there is no switch to\n"
    "  skip the check. With --cert and --key the client presents that certificate\n"
    "  (PEM, the key not encrypted) and claims no name or group of its own: a service\n"
    "  that checks certificates knows it by the certificate's CN and O values. A TLS\n"
    "  failure is reported with its cause (certificate verify failed: ..., TLS\n"
    "  handshake timed out, the service asked for a client certificate ...).\n"
    "\n"
    "Environment:\n"
    "  HSPACE_URL     the service's URL when --url is not given\n"
    "  HSPACE_CACERT  --cacert when it is not given\n"
    "  HSPACE_CERT    --cert when it is not given\n"
    "  HSPACE_KEY     --key when it is not given\n"
    "  The three TLS variables apply to tls:// URLs only; the options are refused\n"
    "  with a tcp:// URL.";

const char kCacertHelp[] = "tls://: the CAs (PEM) to check the service's certificate against (default "
                           "$HSPACE_CACERT, else the system's)";
const char kCertHelp[] = "tls://: present this client certificate (PEM; default $HSPACE_CERT); needs --key";
const char kKeyHelp[] = "tls://: the private key of --cert (PEM, not encrypted; default $HSPACE_KEY)";

enum class Format { kText, kJson, kRaw };

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

// Appends bytes to out as the format prints them: escaped, or as they are.
void put_bytes(std::string &out, Format format, const char *p, size_t n)
{
    if (format == Format::kRaw) out.append(p, n);
    else escape(out, p, n);
}

// True when p[0..n) is well-formed UTF-8: no overlong form, no surrogate,
// nothing above U+10FFFF, no sequence cut short.
bool valid_utf8(const char *p, size_t n)
{
    const unsigned char *s = reinterpret_cast<const unsigned char *>(p);
    size_t i = 0;
    while (i < n) {
        unsigned c = s[i];
        size_t len;
        unsigned lo = 0x80, hi = 0xBF; // the range of the second byte
        if (c < 0x80) len = 1;
        else if (c >= 0xC2 && c <= 0xDF) len = 2;
        else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
        } else return false;
        if (n - i < len) return false;
        for (size_t k = 1; k < len; k++) {
            unsigned b = s[i + k];
            if (k == 1 ? (b < lo || b > hi) : (b & 0xC0) != 0x80) return false;
        }
        i += len;
    }
    return true;
}

std::string base64(const char *p, size_t n)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const unsigned char *s = reinterpret_cast<const unsigned char *>(p);
    std::string out;
    out.reserve((n + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < n; i += 3) {
        unsigned v = s[i] << 16 | s[i + 1] << 8 | s[i + 2];
        out += alphabet[v >> 18];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    if (i < n) {
        unsigned v = s[i] << 16 | (i + 1 < n ? s[i + 1] << 8 : 0);
        out += alphabet[v >> 18];
        out += alphabet[(v >> 12) & 63];
        out += i + 1 < n ? alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

using Json = nlohmann::ordered_json;

// Sets field to the bytes: a string when they are UTF-8, else their base64
// with FIELD_encoding "base64" beside it.
void json_bytes(Json &j, const char *field, const char *p, size_t n)
{
    if (valid_utf8(p, n)) {
        j[field] = std::string(p, n);
    } else {
        j[field] = base64(p, n);
        j[std::string(field) + "_encoding"] = "base64";
    }
}

// The service URL as the user typed it: scheme tcp or tls, a host (IPv4 address
// or name), a port 1-65535 in decimal and nothing after it. The library
// accepts more (an empty host, any port text, keeping its low 16 bits);
// the client refuses what would not reach the service meant. Empty text
// when the URL is usable, else what is wrong with it.
std::string check_url(const std::string &url)
{
    const std::string form = "; expected tcp://HOST:PORT or tls://HOST:PORT";
    size_t sep = url.find("://");
    if (url.empty()) return "the URL is empty" + form;
    if (sep == std::string::npos) return "'" + url + "' has no scheme" + form;
    std::string scheme = url.substr(0, sep), rest = url.substr(sep + 3);
    if (strcasecmp(scheme.c_str(), "tcp") != 0 && strcasecmp(scheme.c_str(), "tls") != 0)
        return "the scheme is '" + scheme + "'; only tcp and tls are supported";
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
//
// stdout is written with write(2) from a buffer of our own, never through
// stdio: a thread blocked writing to a full pipe then holds no lock but
// print_mutex, and nothing on the way out of the process (an _exit that
// flushes stdio, as the ThreadSanitizer runtime's does) waits for it.

std::mutex print_mutex;                        // serialises stdout and stderr among the threads
int output_errno = 0;                          // errno of the first failed write to stdout (under print_mutex)
std::string out_buffer;                        // bytes for stdout not yet written (under print_mutex)
constexpr size_t kOutChunk = 65536;            // written once this much is buffered

bool write_all(const char *p, size_t n)
{
    while (n > 0) {
        ssize_t done = write(STDOUT_FILENO, p, n);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) {
            if (output_errno == 0) output_errno = done < 0 ? errno : EIO;
            return false;
        }
        p += done;
        n -= static_cast<size_t>(done);
    }
    return true;
}

// Writes what is buffered; false, with output_errno set, when anything
// written to stdout was lost.
bool out_flush()
{
    if (output_errno == 0 && !out_buffer.empty()) write_all(out_buffer.data(), out_buffer.size());
    out_buffer.clear();
    return output_errno == 0;
}

bool out_write(const char *p, size_t n)
{
    if (out_buffer.size() + n > kOutChunk && !out_flush()) return false;
    if (n >= kOutChunk) return output_errno == 0 && write_all(p, n);
    out_buffer.append(p, n);
    return output_errno == 0;
}

bool out_write(const std::string &s)
{
    return out_write(s.data(), s.size());
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

// "TEXT (CODE)", then ": REASON" when the system gave one, else ": DETAIL"
// when the library recorded one (why an open or the TLS files failed;
// "DETAIL (CODE)" alone when it starts with the text), then advice where
// the code calls for it.
std::string describe_error(t_kro_error error, unsigned reason, const std::string &detail = std::string())
{
    std::string text = error_text(error), code = " (" + std::to_string(error) + ")";
    bool system = reason != 0 && (error == KRO_ERR_NET || error == KRO_ERR_NOT_CONNECTED || error == KRO_ERR_OS);
    std::string s = text + code;
    if (system) s += std::string(": ") + strerror(static_cast<int>(reason));
    else if (!detail.empty() && detail.compare(0, text.size(), text) == 0) s = escaped(detail) + code;
    else if (!detail.empty()) s += ": " + escaped(detail);
    switch (error) {
    case HSPACE_STATUS_STORE_UNAVAILABLE:
    case HSPACE_STATUS_STORE_TIMEOUT:
        s += "; the service is up but its store is not: try again later";
        break;
    case HSPACE_STATUS_CONNECTION_LIMIT: s += "; try again later"; break;
    case HSPACE_STATUS_PERMISSION_DENIED:
        s += "; the service's access rules do not let this client do that to this key";
        break;
    case HSPACE_STATUS_TOO_MANY_SUBSCRIPTIONS:
        s += "; the service bounds the subscriptions of one connection";
        break;
    case KRO_ERR_TIMEOUT: s += "; --timeout sets the bound, 0 for none"; break;
    default: break;
    }
    return s;
}

int failed(const std::string &what, t_kro_error error, unsigned reason = 0, const std::string &detail = std::string())
{
    std::lock_guard<std::mutex> lock(print_mutex);
    fprintf(stderr, "hspace: %s: %s\n", what.c_str(), describe_error(error, reason, detail).c_str());
    return kFailed;
}

// Why hspace's last open or TLS configuration failed, as the library saw it.
std::string detail_of(t_qel_hspace hspace)
{
    const t_kro_char *detail = nullptr;
    return qel_hspace_error_get_detail(hspace, &detail) == 0 && detail != nullptr ? detail : "";
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

// ---- the command, as parsed ----

struct Command {
    std::string name;                          // put, get, ls, rm, watch or ping
    std::string key;                           // the key or pattern (ls: the pattern)
    std::string value;                         // put
    Format format = Format::kText;             // get, ls, watch
    bool no_image = false;                     // watch --no-image
    bool no_retry = false;                     // watch --no-retry
    unsigned count = 1;                        // ping --count
    double timeout = 5;                        // --timeout, seconds; 0: none
    std::string url;
    bool tls = false;                          // the URL is tls://
    std::string tls_ca, tls_cert, tls_key;     // --cacert, --cert, --key (empty: not given)
};

bool is_pattern(const std::string &key)
{
    return !key.empty() && key.back() == '*';
}

// ---- the worker and the main thread's wait ----

pthread_t main_thread;                         // takes the signals; set before any other thread
sigset_t signals;                              // SIGINT, SIGTERM, SIGUSR1: blocked in every thread

enum Step { kConnecting, kRequesting, kWaiting, kFinished };
std::atomic<unsigned> step_seq{0};             // worker: bumped on every step
std::atomic<int> step_kind{kConnecting};       // worker: the current step
std::atomic<bool> step_bounded{true};          // worker: the main thread holds the step to --timeout
std::mutex step_mutex;                         // guards step_what
std::string step_what;                         // worker: what the step waits for

// The worker's results, written before the step becomes kFinished.
t_kro_error work_error = 0;                    // open's error, else the request's
unsigned work_reason = 0;                      // the system's reason of work_error on the worker thread
bool work_opened = false;                      // open succeeded
int work_status = kDone;                       // watch and ping: the exit status, already reported

constexpr t_kro_error kOutputError = ~0u;      // watch_failure: writing stdout failed
std::atomic<t_kro_error> watch_failure{0};     // reader thread: an output failure ends the watch

void wake_main()
{
    pthread_kill(main_thread, SIGUSR1);
}

// Worker thread: enters step kind, waiting for what; bounded steps are
// held to --timeout by the main thread.
void set_step(int kind, const std::string &what = std::string(), bool bounded = true)
{
    {
        std::lock_guard<std::mutex> lock(step_mutex);
        step_what = what;
    }
    step_bounded.store(bounded);
    step_kind.store(kind);
    step_seq.fetch_add(1);
    wake_main();
}

// --timeout in milliseconds for the library's timed calls; 0: no bound.
t_kro_uint4 timeout_ms(const Command &cmd)
{
    return static_cast<t_kro_uint4>(std::ceil(cmd.timeout * 1000));
}

// The bound the library itself puts on a call of the worker: none while the
// main thread holds the step to --timeout (it reports the deadline), else
// --timeout (a watch's retries: a try that times out is tried again).
t_kro_uint4 call_bound(const Command &cmd)
{
    return step_bounded.load() ? 0 : timeout_ms(cmd);
}

// Opens the handle, without the library's default bound of an open: the
// bound is --timeout's, 0 none at all.
t_kro_error open_handle(const Command &cmd, t_qel_hspace hspace)
{
    return qel_hspace_open_timed(hspace, call_bound(cmd));
}

// ---- watch: state shared with the reader thread ----

const Command *watched = nullptr;              // the watch command; set before any handle exists
std::atomic<bool> image_resync{false};         // worker: the next image replaces an earlier one

// What ended the current subscription or connection; the reader thread
// sets it, the worker waits for it.
struct WatchBreak {
    std::mutex mutex;
    std::condition_variable cond;
    bool ended = false;                        // the service ended the subscription
    std::string cause;                         // ... and why (escaped)
    bool link_failed = false;                  // the connection failed
    t_kro_error link_error = 0;                // ... with this error
    unsigned link_reason = 0;                  // ... and the system's reason
};
WatchBreak watch_break;

void watch_output_failed()
{
    t_kro_error none = 0;
    if (watch_failure.compare_exchange_strong(none, kOutputError)) wake_main();
}

void print_line(const std::string &line)
{
    std::lock_guard<std::mutex> lock(print_mutex);
    if (!out_write(line) || !out_write("\n", 1) || !out_flush()) watch_output_failed();
}

// One line of the watch's stream about object (none: an empty image).
std::string watch_line(const char *event, t_qel_hspace_object object, const char *cause = nullptr,
                       t_kro_int4 trigger = 0, t_kro_uint4 index = 0, t_kro_uint4 count = 0)
{
    Format format = watched->format;
    bool image = strcmp(event, "image") == 0, removed = strcmp(event, "removed") == 0;
    const char *key = object != nullptr ? object_key(object) : "";
    const char *value;
    size_t vn;
    if (object != nullptr) object_value(object, &value, &vn);
    else value = "", vn = 0;
    if (format == Format::kJson) {
        Json j;
        j["event"] = event;
        if (trigger != 0) j["trigger"] = trigger;
        if (object != nullptr) {
            json_bytes(j, "key", key, strlen(key));
            if (cause != nullptr) json_bytes(j, "cause", cause, strlen(cause));
            else if (!removed) json_bytes(j, "value", value, vn);
        }
        if (image) {
            if (index != 0) j["index"] = index;
            j["count"] = count;
            j["resync"] = image_resync.load();
        }
        return j.dump();
    }
    std::string line = event;
    if (trigger != 0) line += " " + std::to_string(trigger);
    if (image && object == nullptr) return line + " (none)";
    line += ' ';
    put_bytes(line, format, key, strlen(key));
    if (cause != nullptr) {
        line += ": ";
        put_bytes(line, format, cause, strlen(cause));
    } else if (!removed) {
        line += " = ";
        put_bytes(line, format, value, vn);
    }
    return line;
}

void watch_ended(const std::string &cause)
{
    std::lock_guard<std::mutex> lock(watch_break.mutex);
    if (!watch_break.ended) watch_break.cause = cause;
    watch_break.ended = true;
    watch_break.cond.notify_all();
}

// Event callback. Reader thread, no library lock held. Only watch
// subscribes, so only watch sees image and notification events.
void on_event(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    switch (event) {
    case HSPACE_EVENT_POST_IMAGE: {
        auto *e = static_cast<t_qel_hspace_reply_image_event_data_struct *>(event_data);
        if (e->status != 0) watch_ended(describe_error(e->status, 0));
        else print_line(watch_line("image", e->object, nullptr, 0, e->index, e->cardinality));
        if (e->object != nullptr) qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_POST_NOTIFICATION: {
        auto *e = static_cast<t_qel_hspace_post_notification_event_data_struct *>(event_data);
        if (e->trigger == HSPACE_TRIGGER_STORED) {
            print_line(watch_line("stored", e->object));
        } else if (e->trigger == HSPACE_TRIGGER_REMOVED) {
            print_line(watch_line("removed", e->object));
        } else if (e->trigger == HSPACE_TRIGGER_ENDED) {
            // The value is the cause, as text.
            const char *p;
            size_t n;
            object_value(e->object, &p, &n);
            std::string cause = n > 0 ? std::string(p, n) : std::string("no cause given");
            print_line(watch_line("ended", e->object, cause.c_str()));
            watch_ended(escaped(cause));
        } else {
            print_line(watch_line("trigger", e->object, nullptr, e->trigger));
        }
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
        std::lock_guard<std::mutex> lock(watch_break.mutex);
        watch_break.link_error = e->error != 0 ? e->error : KRO_ERR_PEER_CLOSED;
        watch_break.link_reason = recorded_reason(watch_break.link_error);
        watch_break.link_failed = true;
        watch_break.cond.notify_all();
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

// Ends the process at once, with the handle still in use by the worker,
// after message on stderr. stdout is flushed unless another thread is inside
// a write to it: one blocked on a full pipe must not keep the process alive.
[[noreturn]] void quit(int status, const std::string &message = std::string())
{
    std::unique_lock<std::mutex> lock(print_mutex, std::try_to_lock);
    if (lock.owns_lock()) out_flush();
    if (!message.empty()) fputs(message.c_str(), stderr);
    fflush(stderr);
    _exit(status);
}

// Main thread: waits until the worker has finished, giving each bounded
// step timeout seconds (0: no limit). Ends the process on the deadline (3),
// on an output failure of watch (3), or on SIGINT or SIGTERM (watch: 0,
// else 128+N).
void await_worker(const Command &cmd)
{
    const double timeout = cmd.timeout;
    unsigned seen = ~0u;
    bool bounded = false;
    timespec deadline{};
    while (step_kind.load() != kFinished) {
        if (watch_failure.load() == kOutputError)
            quit(kFailed, std::string("hspace: cannot write standard output: ") + strerror(output_errno) + "\n");
        unsigned now_seq = step_seq.load();
        if (now_seq != seen) {
            seen = now_seq;
            bounded = timeout > 0 && step_bounded.load() && step_kind.load() != kWaiting;
            clock_gettime(CLOCK_MONOTONIC, &deadline);
            double whole = std::floor(timeout);
            deadline.tv_sec += static_cast<time_t>(whole);
            deadline.tv_nsec += static_cast<long>((timeout - whole) * 1e9);
            if (deadline.tv_nsec >= 1000000000L) {
                deadline.tv_nsec -= 1000000000L;
                deadline.tv_sec++;
            }
        }
        int signo = wait_signal(bounded ? &deadline : nullptr);
        if (signo == SIGINT || signo == SIGTERM) quit(cmd.name == "watch" ? kDone : 128 + signo);
        if (signo == 0 && step_seq.load() == seen && step_kind.load() != kFinished) {
            char bound[32];
            snprintf(bound, sizeof bound, "%g", timeout);
            std::lock_guard<std::mutex> what_lock(step_mutex);
            quit(kFailed, std::string("hspace: timed out after ") + bound + " s " + step_what +
                              " (--timeout sets the bound, 0 for none)\n");
        }
    }
}

// Makes the command's handle; over TLS with the command's files, which the
// library reads here. With a client certificate the handshake claims no
// name or group (the library's defaults), so that a service which knows
// clients by their certificates takes the certificate's. kDone, or the
// failure reported and no handle.
int make_handle(const Command &cmd, t_qel_hspace *hspace)
{
    qel_hspace_create_data create_data;
    create_data.service_url = cmd.url.c_str();
    create_data.client_name = cmd.tls_cert.empty() ? "hspace" : nullptr;
    create_data.client_group = cmd.tls_cert.empty() ? "cli" : nullptr;
    *hspace = nullptr;
    t_kro_error error = qel_hspace_create(&create_data, on_event, hspace);
    if (error != 0) return failed(cmd.url, error);
    if (!cmd.tls) return kDone;
    qel_hspace_tls_options tls = {QEL_HSPACE_TLS_OPTIONS_VERSION, nullptr, nullptr, nullptr, nullptr};
    tls.ca_file = cmd.tls_ca.empty() ? nullptr : cmd.tls_ca.c_str();
    tls.cert_file = cmd.tls_cert.empty() ? nullptr : cmd.tls_cert.c_str();
    tls.key_file = cmd.tls_key.empty() ? nullptr : cmd.tls_key.c_str();
    error = qel_hspace_set_tls(*hspace, &tls);
    if (error == 0) return kDone;
    int status = failed("cannot use the TLS files", error, 0, detail_of(*hspace));
    qel_hspace_destroy(hspace);
    return status;
}

std::string connecting_to(const Command &cmd)
{
    return "connecting to " + cmd.url;
}

std::string answer_to(const Command &cmd, const std::string &request)
{
    return "waiting for the service's answer to " + request + " " + escaped(cmd.key);
}

// Worker thread: open, then the command's one request (put, get, ls, rm).
void work(t_qel_hspace hspace, const Command &cmd, t_kro_llist objects)
{
    set_step(kConnecting, connecting_to(cmd));
    t_kro_error error = open_handle(cmd, hspace);
    work_opened = error == 0;
    if (error == 0) {
        set_step(kRequesting, answer_to(cmd, cmd.name));
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
        } else if (cmd.name == "get" || cmd.name == "ls") {
            int flags = cmd.name == "ls" ? HSPACE_GET_FLAG_KEY_ONLY : 0;
            error = qel_hspace_get(hspace, cmd.key.c_str(), nullptr, HSPACE_GET_SYNC, 0, flags, objects);
        } else {
            error = qel_hspace_remove(hspace, cmd.key.c_str(), HSPACE_REMOVE_SYNC, 0);
        }
    }
    work_error = error;
    work_reason = recorded_reason(error);
    set_step(kFinished);
}

// ---- ping ----

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// True when the service answered the request, whatever it said: success,
// one of the library's codes the service uses, or a status of its own
// (the 1100s).
bool answered(t_kro_error error)
{
    return error == 0 || error == KRO_ERR_NO_MATCH || error == KRO_ERR_INVALID_ARG ||
           error == KRO_ERR_NOT_SUPPORTED || (error >= 1100 && error < 1200);
}

// Worker thread: connects, prints the service's name and the time it took,
// then times count requests that the service answers without its store (a
// cancel of a subscription that does not exist). Sets work_status.
void work_ping(const Command &cmd)
{
    t_qel_hspace hspace = nullptr;
    work_status = make_handle(cmd, &hspace);
    if (work_status != kDone) {
        set_step(kFinished);
        return;
    }
    set_step(kConnecting, connecting_to(cmd));
    auto start = std::chrono::steady_clock::now();
    t_kro_error error = open_handle(cmd, hspace);
    double connect_time = seconds_since(start);
    if (error != 0) {
        work_status = failed("cannot connect to " + cmd.url, error, recorded_reason(error), detail_of(hspace));
    } else {
        t_kro_str name = nullptr;
        qel_hspace_get_service_name(hspace, &name);
        char line[256];
        std::string text = "connected to " + escaped(name != nullptr ? name : "") + " at " + cmd.url;
        snprintf(line, sizeof line, " in %.3f ms\n", connect_time * 1e3);
        bool ok;
        {
            std::lock_guard<std::mutex> lock(print_mutex);
            ok = out_write(text + line) && out_flush();
        }
        double total = 0, least = 0, most = 0;
        for (unsigned i = 1; ok && error == 0 && i <= cmd.count; i++) {
            set_step(kRequesting, "waiting for the service's answer to ping " + std::to_string(i));
            start = std::chrono::steady_clock::now();
            error = qel_hspace_cancel(hspace, kPingKey, HSPACE_CANCEL_SYNC, 0);
            double rtt = seconds_since(start);
            if (!answered(error)) break;
            error = 0;
            total += rtt;
            least = i == 1 ? rtt : std::min(least, rtt);
            most = std::max(most, rtt);
            snprintf(line, sizeof line, "reply %u: %.3f ms\n", i, rtt * 1e3);
            std::lock_guard<std::mutex> lock(print_mutex);
            ok = out_write(line) && out_flush();
        }
        if (ok && error == 0 && cmd.count > 1) {
            snprintf(line, sizeof line, "%u replies: min %.3f ms, average %.3f ms, max %.3f ms\n", cmd.count,
                     least * 1e3, total / cmd.count * 1e3, most * 1e3);
            std::lock_guard<std::mutex> lock(print_mutex);
            ok = out_write(line) && out_flush();
        }
        if (!ok) {
            std::lock_guard<std::mutex> lock(print_mutex);
            work_status = output_failed();
        } else if (error != 0) {
            work_status = failed("ping " + cmd.url, error, recorded_reason(error));
        }
        qel_hspace_close(hspace);
    }
    qel_hspace_destroy(&hspace);
    set_step(kFinished);
}

// ---- watch ----

// Exponential backoff between the watch's retries.
struct Backoff {
    double next = kBackoffFirst;
    double take()
    {
        double wait = next;
        next = std::min(next * 2, kBackoffMax);
        return wait;
    }
    void reset() { next = kBackoffFirst; }
};

void notice(const Command &cmd, const std::string &text)
{
    std::lock_guard<std::mutex> lock(print_mutex);
    fprintf(stderr, "hspace: watch %s: %s\n", escaped(cmd.key).c_str(), text.c_str());
}

std::string seconds_text(double s)
{
    char text[32];
    snprintf(text, sizeof text, "%g s", s);
    return text;
}

// Statuses of a post that a later try may not get: the service's store or
// its connection limit, and the link.
bool transient(t_kro_error error)
{
    return error == HSPACE_STATUS_STORE_UNAVAILABLE || error == HSPACE_STATUS_STORE_TIMEOUT ||
           error == HSPACE_STATUS_CONNECTION_LIMIT || error == KRO_ERR_TIMEOUT ||
           (error > KRO_ERR_RUNTIME_BASE && error <= KRO_ERR_NOT_CONNECTED);
}

// Worker thread: the watch. The first connection and subscription must
// succeed; after that, a subscription the service ends is made again and a
// lost connection is made again, each after a backoff, with a notice on
// stderr and a resync image on stdout, unless --no-retry: then the first
// break ends the watch with 3. Sets work_status.
void work_watch(const Command &cmd)
{
    const int flags = cmd.no_image ? HSPACE_POST_FLAG_NO_IMAGE : 0;
    Backoff backoff;
    bool started = false; // a subscription was made: breaks from here on are retried
    auto pause = [&](double seconds) {
        set_step(kWaiting, std::string(), false);
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    };
    for (;;) {
        t_qel_hspace hspace = nullptr;
        work_status = make_handle(cmd, &hspace);
        if (work_status != kDone) break;
        {
            std::lock_guard<std::mutex> lock(watch_break.mutex);
            watch_break.link_failed = false;
            watch_break.ended = false;
        }
        set_step(kConnecting, connecting_to(cmd), !started);
        t_kro_error error = open_handle(cmd, hspace);
        if (error != 0) {
            unsigned reason = recorded_reason(error);
            std::string detail = detail_of(hspace);
            qel_hspace_destroy(&hspace);
            if (!started || cmd.no_retry) {
                work_status = failed("cannot connect to " + cmd.url, error, reason, detail);
                break;
            }
            double wait = backoff.take();
            notice(cmd, "cannot connect to " + cmd.url + ": " + describe_error(error, reason, detail) +
                            "; trying again in " + seconds_text(wait));
            pause(wait);
            continue;
        }
        // Subscribes until the connection fails (lost) or the watch ends
        // (go_on false).
        bool go_on = true;
        t_kro_error lost = 0;
        unsigned lost_reason = 0;
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(watch_break.mutex);
                watch_break.ended = false;
            }
            image_resync.store(started);
            set_step(kRequesting, answer_to(cmd, "watch"), !started);
            error = qel_hspace_post_timed(hspace, cmd.key.c_str(), nullptr, HSPACE_POST_SYNC, 0, flags,
                                          call_bound(cmd));
            if (error != 0) {
                unsigned reason = recorded_reason(error);
                if (!started || cmd.no_retry || !transient(error)) {
                    work_status = failed("watch " + escaped(cmd.key), error, reason);
                    go_on = false;
                    break;
                }
                double wait = backoff.take();
                notice(cmd, "subscribing failed: " + describe_error(error, reason) + "; trying again in " +
                                seconds_text(wait));
                // A post that timed out may still be registered by the
                // service: the cancel makes sure it is not.
                if (error == KRO_ERR_TIMEOUT)
                    qel_hspace_cancel_timed(hspace, cmd.key.c_str(), HSPACE_CANCEL_SYNC, 0, call_bound(cmd));
                t_qel_hspace_state state = HSPACE_STATE_OPEN;
                qel_hspace_get_state(hspace, &state);
                if (state != HSPACE_STATE_OPEN) {
                    lost = error;
                    lost_reason = reason;
                    break;
                }
                pause(wait);
                continue;
            }
            if (started)
                notice(cmd, cmd.no_image ? "subscribed again; changes made meanwhile were not seen"
                                         : "subscribed again; its image replaces the earlier one");
            started = true;
            backoff.reset();
            set_step(kWaiting, std::string(), false);
            std::unique_lock<std::mutex> lock(watch_break.mutex);
            watch_break.cond.wait(lock, [] { return watch_break.ended || watch_break.link_failed; });
            if (watch_break.link_failed) {
                lost = watch_break.link_error;
                lost_reason = watch_break.link_reason;
                break;
            }
            std::string cause = watch_break.cause;
            lock.unlock();
            if (cmd.no_retry) {
                std::lock_guard<std::mutex> print_lock(print_mutex);
                fprintf(stderr, "hspace: watch %s: the service ended the subscription: %s\n", escaped(cmd.key).c_str(),
                        cause.c_str());
                work_status = kFailed;
                go_on = false;
                break;
            }
            double wait = backoff.take();
            notice(cmd, "the service ended the subscription: " + cause + "; subscribing again in " +
                            seconds_text(wait));
            // The library keeps its record of the subscription until the
            // cancel; the service answers it with 2.
            qel_hspace_cancel_timed(hspace, cmd.key.c_str(), HSPACE_CANCEL_SYNC, 0, call_bound(cmd));
            pause(wait);
        }
        qel_hspace_close(hspace);
        qel_hspace_destroy(&hspace);
        if (!go_on) break;
        if (cmd.no_retry) {
            work_status = failed("watch " + escaped(cmd.key), lost, lost_reason);
            break;
        }
        double wait = backoff.take();
        notice(cmd, "connection lost: " + describe_error(lost, lost_reason) + "; reconnecting in " +
                        seconds_text(wait));
        pause(wait);
    }
    set_step(kFinished);
}

// ---- the commands' results ----

int finish_get(const Command &cmd, t_kro_llist objects)
{
    bool pattern = is_pattern(cmd.key), ls = cmd.name == "ls";
    int status = objects->num_elements == 0 ? kNotFound : kDone;
    if (status == kNotFound) {
        if (cmd.key == "*")
            fprintf(stderr, "hspace: %s: nothing is stored\n", cmd.name.c_str());
        else if (pattern)
            fprintf(stderr, "hspace: %s: no key starts with %s\n", cmd.name.c_str(),
                    escaped(cmd.key.substr(0, cmd.key.size() - 1)).c_str());
        else
            fprintf(stderr, "hspace: %s: nothing stored under %s\n", cmd.name.c_str(), escaped(cmd.key).c_str());
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
        const char *key = object_key(object);
        if (!ok) {
            // Output failed: the rest is only freed.
        } else if (cmd.format == Format::kRaw && !pattern && !ls) {
            ok = out_write(p, n);
        } else if (cmd.format == Format::kJson) {
            Json j;
            json_bytes(j, "key", key, strlen(key));
            if (!ls) json_bytes(j, "value", p, n);
            ok = out_write(j.dump() + "\n");
        } else {
            line.clear();
            if (pattern || ls) put_bytes(line, cmd.format, key, strlen(key));
            if (pattern && !ls) line += '\t';
            if (!ls) put_bytes(line, cmd.format, p, n);
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
    if (cmd.name == "get" || cmd.name == "ls") {
        if (error != 0) return failed(cmd.name + " " + key, error, work_reason);
        return finish_get(cmd, objects);
    }
    if (cmd.name == "put" && error == KRO_ERR_INVALID_ARG) {
        fprintf(stderr,
                "hspace: put %s: value is %zu bytes; the service refused it as larger than it can send back "
                "(hspaced's --max-queue bounds the values it accepts)\n",
                key.c_str(), cmd.value.size());
        return kFailed;
    }
    if (cmd.name == "put" && error == HSPACE_STATUS_STORE_TOO_LARGE) {
        fprintf(stderr, "hspace: put %s: value is %zu bytes; the service's store refused it as too large (%u)\n",
                key.c_str(), cmd.value.size(), error);
        return kFailed;
    }
    if (cmd.name == "rm" && error == KRO_ERR_NO_MATCH) {
        if (is_pattern(cmd.key))
            fprintf(stderr,
                    "hspace: rm: nothing stored under the key %s; rm removes one key, never a pattern "
                    "(list the keys with: hspace ls '%s')\n",
                    key.c_str(), key.c_str());
        else
            fprintf(stderr, "hspace: rm: nothing stored under %s\n", key.c_str());
        return kNotFound;
    }
    if (error != 0) return failed(cmd.name + " " + key, error, work_reason);
    return kDone;
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
        fprintf(stderr, "hspace put: no value: give VALUE, -f FILE, or '-' to read standard input\n"
                        "Run 'hspace put --help' for its usage.\n");
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

// ---- help ----

// text wrapped to width columns, every line after the first indented by
// indent spaces.
std::string wrap(const std::string &text, size_t first_column, size_t indent, size_t width = 79)
{
    std::string out;
    size_t column = first_column, at = 0;
    while (at < text.size()) {
        size_t end = text.find(' ', at);
        if (end == std::string::npos) end = text.size();
        std::string word = text.substr(at, end - at);
        if (column > indent && column + 1 + word.size() > width) {
            out += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (column > first_column || (column > indent && !out.empty())) {
            out += ' ';
            column++;
        }
        out += word;
        column += word.size();
        at = end + 1;
    }
    return out;
}

// "  TAG  DESCRIPTION" with the description from column 30, wrapped.
std::string help_entry(const std::string &tag, const std::string &description, size_t tag_indent = 2)
{
    const size_t column = 30;
    std::string line = std::string(tag_indent, ' ') + tag;
    if (line.size() + 2 > column) line += "  ";
    else line += std::string(column - line.size(), ' ');
    return line + wrap(description, line.size(), column) + "\n";
}

// One option's tag as help shows it: "-f, --file FILE".
std::string option_tag(const CLI::Option *opt)
{
    std::string tag;
    for (const std::string &s : opt->get_snames()) tag += (tag.empty() ? "-" : ", -") + s;
    for (const std::string &l : opt->get_lnames()) tag += (tag.empty() ? "--" : ", --") + l;
    if (!opt->get_option_text().empty()) tag += " " + opt->get_option_text();
    return tag;
}

const CommandInfo &command_info(const std::string &name)
{
    for (const CommandInfo &c : kCommands)
        if (name == c.name) return c;
    return kCommands[0];
}

// Every command with its usage, description, arguments and options: the
// "Commands" part of hspace --help, and the body of hspace COMMAND --help.
std::string describe_command(CLI::App *sub, bool alone)
{
    const CommandInfo &info = command_info(sub->get_name());
    std::string out;
    if (alone) {
        out += std::string("Usage: ") + kGlobalUsage + info.usage + "\n\n";
        out += wrap(sub->get_description(), 0, 0) + "\n";
        out += "\nArguments and options:\n";
    } else {
        out += help_entry(info.usage, sub->get_description());
    }
    size_t indent = alone ? 2 : 6;
    for (const CLI::Option *opt : sub->get_options()) {
        if (opt->get_name() == "--help") continue;
        std::string tag = opt->get_positional() ? opt->get_name(true) : option_tag(opt);
        out += help_entry(tag, opt->get_description(), indent);
    }
    if (alone) {
        out += "\nOptions of every command (before or after it):\n";
        out += help_entry("--url URL", "the service, tcp://HOST:PORT or tls://HOST:PORT (default $HSPACE_URL, else " +
                                           std::string(kDefaultUrl) + ")");
        out += help_entry("--timeout SECONDS", "seconds allowed for connecting and for each answer of the service; "
                                               "0: no limit (default 5)");
        out += help_entry("--cacert FILE", kCacertHelp);
        out += help_entry("--cert FILE", kCertHelp);
        out += help_entry("--key FILE", kKeyHelp);
        out += help_entry("-h, --help", "print this help and exit");
    }
    return out;
}

// The list of commands with their usage: help without a command, and the
// answer to no command or an unknown one.
std::string command_list()
{
    std::string out = std::string("Usage: ") + kGlobalUsage + "COMMAND [ARGUMENTS]\n\nCommands:\n";
    for (const CommandInfo &c : kCommands) out += help_entry(c.usage, c.summary);
    out += "\nRun 'hspace COMMAND --help' (or 'hspace help COMMAND') for a command's options,\n"
           "'hspace --help' for everything.\n";
    return out;
}

// The first word of argv that is no option nor an option's value: the
// command the user meant; empty when there is none.
std::string command_word(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--") return i + 1 < argc ? argv[i + 1] : "";
        if (a == "--url" || a == "--timeout" || a == "--cacert" || a == "--cert" || a == "--key") {
            i++;
            continue;
        }
        if (!a.empty() && a[0] == '-') continue;
        return a;
    }
    return std::string();
}

bool print_out(const std::string &text)
{
    return out_write(text) && out_flush();
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

    auto env = [](const char *name, const char *otherwise) {
        const char *value = getenv(name);
        return std::string(value != nullptr && *value != '\0' ? value : otherwise);
    };
    Command cmd;
    cmd.url = env("HSPACE_URL", kDefaultUrl);
    cmd.tls_ca = env("HSPACE_CACERT", "");
    cmd.tls_cert = env("HSPACE_CERT", "");
    cmd.tls_key = env("HSPACE_KEY", "");
    std::string timeout_text = "5", format_text = "text", count_text = "1";
    std::string value_arg, file, help_topic;
    bool raw = false;

    CLI::App app("hspace - store, fetch, list, remove and watch the objects of an hspace service.", "hspace");
    app.set_version_flag("--version", "hspace " HSPACE_VERSION, "print the version and exit");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--url", cmd.url,
                   "the service, tcp://HOST:PORT or tls://HOST:PORT (default $HSPACE_URL, else tcp://127.0.0.1:7521)")
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
    CLI::Option *cacert_opt = app.add_option("--cacert", cmd.tls_ca, kCacertHelp)
                                  ->option_text("FILE")
                                  ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    CLI::Option *cert_opt = app.add_option("--cert", cmd.tls_cert, kCertHelp)
                                ->option_text("FILE")
                                ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    CLI::Option *key_opt = app.add_option("--key", cmd.tls_key, kKeyHelp)
                               ->option_text("FILE")
                               ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    auto add_output = [&](CLI::App *sub) {
        sub->add_option("-o,--output", format_text, "text (the default), json (one object per line) or raw "
                                                     "(nothing escaped)")
            ->option_text("FORMAT")
            ->check(CLI::IsMember({"text", "json", "raw"}));
    };

    CLI::App *put = app.add_subcommand("put", "Store a value under KEY: VALUE, the contents of FILE, or standard "
                                              "input (no VALUE, or '-'; a terminal is refused).");
    put->add_option("KEY", cmd.key, "the key")->required();
    CLI::Option *value_opt = put->add_option("VALUE", value_arg, "the value; '-' reads standard input");
    put->add_option("-f,--file", file, "store the contents of FILE")->option_text("FILE")->excludes(value_opt);

    CLI::App *get = app.add_subcommand("get", "Print the value stored under KEY, then a newline; for a pattern "
                                              "PREFIX*, one KEY<TAB>VALUE line per key starting with PREFIX, in "
                                              "key order. Exit status 1 when nothing matches.");
    get->add_option("KEY", cmd.key, "the key, or a pattern ending in *")->required();
    add_output(get);
    get->add_flag("--raw", raw, "the same as --output raw");

    CLI::App *ls = app.add_subcommand("ls", "Print the keys that PATTERN matches, one a line, in key order, "
                                            "without their values. Exit status 1 when none does.");
    ls->add_option("PATTERN", cmd.key, "a key, or a prefix ending in * (default *: every key)");
    add_output(ls);

    CLI::App *rm = app.add_subcommand("rm", "Delete the object stored under KEY (one key: a * in it is a "
                                            "character like any other). Exit status 1 when there was none.");
    rm->add_option("KEY", cmd.key, "the key")->required();

    CLI::App *watch = app.add_subcommand(
        "watch", "Subscribe to KEY or PREFIX*: print the stored objects (\"image KEY = VALUE\", or \"image "
                 "(none)\"), then every change (\"stored KEY = VALUE\", \"removed KEY\"), one line each, until "
                 "SIGINT or SIGTERM. When the service ends the subscription (\"ended KEY: CAUSE\") or the "
                 "connection is lost, watch says so on standard error, subscribes again with backoff (0.1 s "
                 "doubling up to 5 s) and prints a new image, which replaces the earlier one; the first "
                 "connection and subscription must succeed.");
    watch->add_option("KEY", cmd.key, "the key, or a pattern ending in *")->required();
    watch->add_flag("--no-image", cmd.no_image, "print only the changes, no image");
    watch->add_flag("--no-retry", cmd.no_retry,
                    "stop at the first break (subscription ended, connection lost) with exit status 3 and its cause");
    add_output(watch);

    CLI::App *ping = app.add_subcommand("ping", "Connect, print the service's name and the time the connection and "
                                                "its handshake took, then the round trip time of COUNT requests "
                                                "that the service answers without its store.");
    ping->add_option("-c,--count", count_text, "requests to time (default 1)")
        ->option_text("COUNT")
        ->check([](const std::string &text) {
            if (text.empty() || text.size() > 7 || text.find_first_not_of("0123456789") != std::string::npos ||
                std::stoul(text) == 0)
                return "'" + text + "' is not a count from 1 to 9999999";
            return std::string();
        });

    CLI::App *help = app.add_subcommand("help", "Print the list of commands, or a command's help.");
    help->add_option("COMMAND", help_topic, "the command");

    std::string commands = "Commands:\n";
    for (CLI::App *sub : {put, get, ls, rm, watch, ping, help}) {
        commands += describe_command(sub, false);
        sub->group(""); // listed by the footer instead
    }
    app.footer(commands + "\n" + kFooter);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        CLI::App *sub = app.get_subcommands().empty() ? nullptr : app.get_subcommands().front();
        return print_out(sub != nullptr ? describe_command(sub, true) : app.help()) ? kDone : output_failed();
    } catch (const CLI::CallForVersion &) {
        return print_out(app.version() + "\n") ? kDone : output_failed();
    } catch (const CLI::ParseError &e) {
        std::string word = command_word(argc, argv);
        bool known = false;
        for (const CommandInfo &c : kCommands) known |= word == c.name;
        if (!known) {
            if (word.empty()) fprintf(stderr, "hspace: no command given\n\n");
            else fprintf(stderr, "hspace: '%s' is not a command\n\n", escaped(word).c_str());
            fputs(command_list().c_str(), stderr);
        } else {
            fprintf(stderr, "hspace %s: %s\nRun 'hspace %s --help' for its usage.\n", word.c_str(), e.what(),
                    word.c_str());
        }
        return kUsage;
    }
    if (help->parsed()) {
        if (help_topic.empty()) return print_out(command_list()) ? kDone : output_failed();
        for (CLI::App *sub : {put, get, ls, rm, watch, ping, help})
            if (sub->get_name() == help_topic) return print_out(describe_command(sub, true)) ? kDone : output_failed();
        fprintf(stderr, "hspace help: '%s' is not a command\n\n%s", escaped(help_topic).c_str(),
                command_list().c_str());
        return kUsage;
    }
    cmd.name = app.get_subcommands().front()->get_name();
    cmd.timeout = std::stod(timeout_text);
    cmd.format = raw || format_text == "raw" ? Format::kRaw : format_text == "json" ? Format::kJson : Format::kText;
    cmd.count = static_cast<unsigned>(std::stoul(count_text));
    if (cmd.name == "ls" && cmd.key.empty()) cmd.key = "*";

    // Everything is checked before anything is sent.
    std::string wrong = check_url(cmd.url);
    if (!wrong.empty()) {
        fprintf(stderr, "hspace: %s: %s\n", app.count("--url") > 0 ? "--url" : "HSPACE_URL", wrong.c_str());
        return kUsage;
    }
    // The TLS files: named on the command line only for a tls:// URL, a
    // certificate with its key; the variables' are for tls:// URLs alone.
    cmd.tls = strncasecmp(cmd.url.c_str(), "tls://", 6) == 0;
    for (const CLI::Option *opt : {cacert_opt, cert_opt, key_opt}) {
        if (opt->count() > 0 && !cmd.tls) {
            fprintf(stderr, "hspace: %s applies to tls:// URLs only, not %s\n", opt->get_name().c_str(),
                    cmd.url.c_str());
            return kUsage;
        }
    }
    if (cmd.tls && cmd.tls_cert.empty() != cmd.tls_key.empty()) {
        bool cert = !cmd.tls_cert.empty();
        const char *given = cert ? (cert_opt->count() > 0 ? "--cert" : "HSPACE_CERT")
                                 : (key_opt->count() > 0 ? "--key" : "HSPACE_KEY");
        fprintf(stderr, "hspace: %s requires %s\n", given, cert ? "--key (or HSPACE_KEY)" : "--cert (or HSPACE_CERT)");
        return kUsage;
    }
    if (!cmd.tls) cmd.tls_ca.clear(), cmd.tls_cert.clear(), cmd.tls_key.clear();
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

    int status;
    if (cmd.name == "watch" || cmd.name == "ping") {
        watched = &cmd;
        std::thread worker(cmd.name == "watch" ? work_watch : work_ping, std::cref(cmd));
        await_worker(cmd);
        worker.join();
        status = work_status;
    } else {
        t_qel_hspace hspace = nullptr;
        status = make_handle(cmd, &hspace);
        if (status != kDone) {
            qel_hspace_finalize();
            return status;
        }
        t_kro_llist objects = nullptr;
        kro_llist_create(&objects);
        std::thread worker(work, hspace, std::cref(cmd), objects);
        await_worker(cmd);
        worker.join();
        status = work_opened ? finish(cmd, objects)
                             : failed("cannot connect to " + cmd.url, work_error, work_reason, detail_of(hspace));
        qel_hspace_close(hspace);
        qel_hspace_destroy(&hspace);
        t_kro_ptr node;
        while ((node = kro_llist_first(objects)) != nullptr) {
            t_qel_hspace_object object = static_cast<t_qel_hspace_object>(node);
            kro_llist_remove(object);
            qel_hspace_object_destroy(&object);
        }
        kro_llist_destroy(&objects);
    }
    qel_hspace_finalize();
    return status;
}
