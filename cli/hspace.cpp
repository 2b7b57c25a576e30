/*
 * hspace.cpp - the hspace command-line client: put, get, rm and watch on a
 * service, through the client library's C API.
 *
 * Exit codes: 0 done, 1 not found (get, rm), 2 usage, 3 any other failure
 * (with the library's error text on stderr).
 *
 * Threads: the main thread runs the command. watch also has the handle's
 * reader thread, which prints the events (under print_mutex). watch blocks
 * SIGINT, SIGTERM and SIGUSR1 before the handle starts its thread, so every
 * thread inherits the mask, and the main thread takes them with sigwait;
 * the reader thread sends SIGUSR1 to the process when the watch fails.
 */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "qel_hspace.h"

namespace {

const char kDefaultUrl[] = "tcp://127.0.0.1:7521";

const char kHelp[] =
    "usage: hspace [--url URL] COMMAND ARGS...\n"
    "\n"
    "Commands:\n"
    "  put KEY VALUE      store VALUE under KEY\n"
    "  put KEY -f FILE    store the contents of FILE under KEY\n"
    "  put KEY [-]        store standard input under KEY\n"
    "  get [--raw] KEY    print the value stored under KEY, then a newline\n"
    "                     (--raw: the value's bytes only, nothing added)\n"
    "  get PREFIX*        print \"KEY<TAB>VALUE\" for every key starting with\n"
    "                     PREFIX, in key order\n"
    "  rm KEY             delete KEY\n"
    "  watch KEY          subscribe to KEY (or PREFIX*): print the stored\n"
    "                     objects (\"image KEY = VALUE\", or \"image (none)\"),\n"
    "                     then every change (\"stored KEY = VALUE\",\n"
    "                     \"removed KEY\"), one line each, until SIGINT or\n"
    "                     SIGTERM\n"
    "  help               this text\n"
    "\n"
    "Options:\n"
    "  --url URL          the service, tcp://HOST:PORT; default $HSPACE_URL,\n"
    "                     else tcp://127.0.0.1:7521\n"
    "  -h, --help         this text\n"
    "\n"
    "Except with get --raw, bytes of keys and values other than printable\n"
    "ASCII are printed as C escapes (\\n, \\t, \\\\, \\xNN).\n"
    "\n"
    "Exit status: 0 done, 1 not found (get, rm), 2 usage error, 3 any other\n"
    "failure (the reason on stderr). watch exits 0 when interrupted.\n";

enum Exit { kDone = 0, kNotFound = 1, kUsage = 2, kFailed = 3 };

int usage_error(const std::string &what)
{
    fprintf(stderr, "hspace: %s\n\n%s", what.c_str(), kHelp);
    return kUsage;
}

const char *error_text(t_kro_error error)
{
    const t_kro_char *text = "unknown error";
    qel_hspace_error_get_text(error, &text);
    return text;
}

int failed(const char *what, t_kro_error error)
{
    fprintf(stderr, "hspace: %s: %s (%u)\n", what, error_text(error), static_cast<unsigned>(error));
    return kFailed;
}

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

void escape(std::string &out, const char *s)
{
    escape(out, s, strlen(s));
}

// The value of a library object: pointer and length (null and 0 for none).
void object_value(t_qel_hspace_object object, const char **p, size_t *n)
{
    t_kro_ptr data = nullptr;
    qel_hspace_object_get_data(object, &data);
    t_kro_buf buf = static_cast<t_kro_buf>(data);
    *p = buf != nullptr ? static_cast<const char *>(buf->ptr) + buf->pos : nullptr;
    *n = buf != nullptr ? buf->lim - buf->pos : 0;
}

const char *object_key(t_qel_hspace_object object)
{
    t_kro_str key = nullptr;
    qel_hspace_object_get_key(object, &key);
    return key;
}

// "KEY = VALUE" of an object, escaped.
std::string describe(t_qel_hspace_object object)
{
    std::string line;
    const char *p;
    size_t n;
    escape(line, object_key(object));
    object_value(object, &p, &n);
    line += " = ";
    escape(line, p != nullptr ? p : "", n);
    return line;
}

// ---- watch: state shared between the reader thread and the main thread ----

std::mutex print_mutex;                        // serialises lines on stdout
bool watching = false;                         // set before the handle opens; read-only after
sigset_t watch_signals;                        // SIGINT, SIGTERM, SIGUSR1; blocked in every thread while watching
std::atomic<t_kro_error> watch_failure{0};     // reader thread: why the watch ended, 0 when interrupted

void print_line(const std::string &line)
{
    std::lock_guard<std::mutex> lock(print_mutex);
    fwrite(line.data(), 1, line.size(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

// Reader thread: ends the watch with error.
void watch_fail(t_kro_error error)
{
    if (!watching) return;
    watch_failure = error;
    kill(getpid(), SIGUSR1); // to the process: the main thread's sigwait takes it
}

// Event callback of every command. Reader thread, no library lock held.
// Only watch subscribes, so only watch sees image and notification events.
void on_event(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    switch (event) {
    case HSPACE_EVENT_POST_IMAGE: {
        auto *e = static_cast<t_qel_hspace_reply_image_event_data_struct *>(event_data);
        if (e->status != 0) {
            watch_fail(e->status);
        } else if (e->object == nullptr) {
            print_line("image (none)");
        } else {
            print_line("image " + describe(e->object));
        }
        if (e->object != nullptr) qel_hspace_object_destroy(&e->object);
        break;
    }
    case HSPACE_EVENT_POST_NOTIFICATION: {
        auto *e = static_cast<t_qel_hspace_post_notification_event_data_struct *>(event_data);
        std::string line;
        if (e->trigger == 1) {
            line = "stored " + describe(e->object);
        } else if (e->trigger == 2) {
            line = "removed ";
            escape(line, object_key(e->object));
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
        watch_fail(e->error != 0 ? e->error : KRO_ERR_PEER_CLOSED);
        break;
    }
    }
}

// ---- commands ----

bool read_all(FILE *f, std::string *out)
{
    char chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out->append(chunk, n);
    return !ferror(f);
}

int cmd_put(t_qel_hspace hspace, const char *key, const std::string &value)
{
    t_kro_buf buf = nullptr;
    if (!value.empty()) {
        kro_buf_create(&buf, static_cast<t_kro_uint4>(value.size()), 0);
        memcpy(buf->ptr, value.data(), value.size());
    }
    t_qel_hspace_object object = nullptr;
    t_kro_error error = qel_hspace_object_create(key, buf, &object);
    if (error == 0) {
        error = qel_hspace_put(hspace, object, HSPACE_PUT_SYNC, 0);
        qel_hspace_object_destroy(&object);
    }
    if (buf != nullptr) kro_buf_release(&buf);
    return error == 0 ? kDone : failed("put", error);
}

int cmd_get(t_qel_hspace hspace, const char *key, bool raw)
{
    t_kro_llist objects = nullptr;
    kro_llist_create(&objects);
    t_kro_error error = qel_hspace_get(hspace, key, nullptr, HSPACE_GET_SYNC, 0, 0, objects);
    size_t len = strlen(key);
    bool pattern = len > 0 && key[len - 1] == '*';
    int status = error != 0 ? failed("get", error) : objects->num_elements == 0 ? kNotFound : kDone;
    if (status == kNotFound) fprintf(stderr, "hspace: nothing stored under %s\n", key);
    t_kro_ptr node;
    while ((node = kro_llist_first(objects)) != nullptr) {
        t_qel_hspace_object object = static_cast<t_qel_hspace_object>(node);
        kro_llist_remove(object);
        const char *p;
        size_t n;
        object_value(object, &p, &n);
        if (error != 0) {
            // Objects that came before a failure are not printed.
        } else if (pattern) {
            std::string line;
            escape(line, object_key(object));
            line += '\t';
            escape(line, p != nullptr ? p : "", n);
            line += '\n';
            fwrite(line.data(), 1, line.size(), stdout);
        } else {
            if (n > 0) fwrite(p, 1, n, stdout);
            if (!raw) fputc('\n', stdout);
        }
        qel_hspace_object_destroy(&object);
    }
    kro_llist_destroy(&objects);
    if (fflush(stdout) != 0 && status == kDone) {
        fprintf(stderr, "hspace: cannot write standard output: %s\n", strerror(errno));
        status = kFailed;
    }
    return status;
}

int cmd_rm(t_qel_hspace hspace, const char *key)
{
    t_kro_error error = qel_hspace_remove(hspace, key, HSPACE_REMOVE_SYNC, 0);
    if (error == KRO_ERR_NO_MATCH) {
        fprintf(stderr, "hspace: nothing stored under %s\n", key);
        return kNotFound;
    }
    return error == 0 ? kDone : failed("rm", error);
}

// Prints events until a signal or a failure. The handle is open; the
// signals were blocked before it was opened.
int cmd_watch(t_qel_hspace hspace, const char *key)
{
    t_kro_error error = qel_hspace_post(hspace, key, nullptr, HSPACE_POST_SYNC, 0, 0);
    if (error != 0) return failed("watch", error);
    int signo = 0;
    sigwait(&watch_signals, &signo);
    t_kro_error failure = watch_failure.load();
    if (failure != 0) return failed("watch", failure);
    return kDone;
}

} // namespace

int main(int argc, char **argv)
{
    const char *url = getenv("HSPACE_URL");
    if (url == nullptr || *url == '\0') url = kDefaultUrl;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        const char *a = argv[i];
        if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
            fputs(kHelp, stdout);
            return kDone;
        } else if (strcmp(a, "--url") == 0) {
            if (i + 1 >= argc) return usage_error("--url needs a value");
            url = argv[++i];
        } else if (strncmp(a, "--url=", 6) == 0) {
            url = a + 6;
        } else {
            return usage_error(std::string("unknown option ") + a);
        }
    }
    if (i >= argc) return usage_error("no command");
    std::string command = argv[i++];
    int nargs = argc - i;
    char **args = argv + i;

    // Check the command's arguments before connecting.
    std::string value;
    bool raw = false;
    const char *key = nullptr;
    if (command == "help") {
        fputs(kHelp, stdout);
        return kDone;
    } else if (command == "put") {
        if (nargs < 1 || nargs > 3) return usage_error("put KEY [VALUE | -f FILE | -]");
        key = args[0];
        if (nargs == 3 && strcmp(args[1], "-f") == 0) {
            FILE *f = fopen(args[2], "rb");
            if (f == nullptr) {
                fprintf(stderr, "hspace: cannot open %s: %s\n", args[2], strerror(errno));
                return kFailed;
            }
            bool ok = read_all(f, &value);
            fclose(f);
            if (!ok) {
                fprintf(stderr, "hspace: cannot read %s\n", args[2]);
                return kFailed;
            }
        } else if (nargs == 1 || (nargs == 2 && strcmp(args[1], "-") == 0)) {
            if (!read_all(stdin, &value)) {
                fprintf(stderr, "hspace: cannot read standard input\n");
                return kFailed;
            }
        } else if (nargs == 2) {
            value = args[1];
        } else {
            return usage_error("put KEY [VALUE | -f FILE | -]");
        }
        if (value.size() > 0x3FFFFF00u) return usage_error("value too large");
    } else if (command == "get") {
        if (nargs == 2 && strcmp(args[0], "--raw") == 0) {
            raw = true;
            key = args[1];
        } else if (nargs == 1) {
            key = args[0];
        } else {
            return usage_error("get [--raw] KEY");
        }
    } else if (command == "rm" || command == "watch") {
        if (nargs != 1) return usage_error(command + " KEY");
        key = args[0];
        if (command == "watch") {
            sigemptyset(&watch_signals);
            sigaddset(&watch_signals, SIGINT);
            sigaddset(&watch_signals, SIGTERM);
            sigaddset(&watch_signals, SIGUSR1);
            pthread_sigmask(SIG_BLOCK, &watch_signals, nullptr);
            watching = true;
        }
    } else {
        return usage_error("unknown command " + command);
    }

    t_kro_error error = qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    if (error != 0) return failed("initialize", error);
    qel_hspace_create_data create_data;
    create_data.service_url = url;
    create_data.client_name = "hspace";
    create_data.client_group = "cli";
    t_qel_hspace hspace = nullptr;
    error = qel_hspace_create(&create_data, on_event, &hspace);
    if (error != 0) {
        qel_hspace_finalize();
        return failed(url, error);
    }
    int status;
    error = qel_hspace_open(hspace);
    if (error != 0) {
        fprintf(stderr, "hspace: cannot connect to %s: %s (%u)\n", url, error_text(error),
                static_cast<unsigned>(error));
        status = kFailed;
    } else if (command == "put") {
        status = cmd_put(hspace, key, value);
    } else if (command == "get") {
        status = cmd_get(hspace, key, raw);
    } else if (command == "rm") {
        status = cmd_rm(hspace, key);
    } else {
        status = cmd_watch(hspace, key);
    }
    qel_hspace_close(hspace);
    qel_hspace_destroy(&hspace);
    qel_hspace_finalize();
    return status;
}
