/*
 * log.h - hspaced's log: one line per event, with a timestamp, a level, the
 * event's name and its fields, as key=value text or as one JSON object.
 *
 *   text: ts=2025-03-01T10:00:00.123Z level=info event=conn_accepted conn=7 peer=127.0.0.1:50412
 *   json: {"ts":"2025-03-01T10:00:00.123Z","level":"info","event":"conn_accepted","conn":7,"peer":"127.0.0.1:50412"}
 *
 * Text fields: a value of printable ASCII without space, '"', '=' or '\' is
 * written as it is; any other is quoted, with '"' and '\' escaped by a
 * backslash and every byte outside printable ASCII as \xHH. JSON strings
 * escape '"' and '\', and every byte outside printable ASCII as \u00HH, so
 * a decoded string's characters are the bytes logged, one each. A text
 * field longer than kMaxField bytes is cut there and says how long it was.
 * So a line is one line whatever a client sends.
 *
 * Nothing in a line comes from a value's bytes: callers log keys, sizes
 * and statuses, never values.
 *
 * Threads: a Logger is immutable once made; event() may be called from any
 * thread. Each line is written with one write(2) to standard error, or
 * handed whole to the sink, which is then called from whichever thread
 * logs.
 */
#ifndef HSPACE_SERVICE_LOG_H
#define HSPACE_SERVICE_LOG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace hspace {
namespace service {

// Severities, the most severe first: a logger at a level writes the events
// of that level and the ones above it.
enum class LogLevel : uint8_t {
    error, // the service cannot do what it should: the store unreachable, a failed accept
    warn,  // a client or the store refused something, a connection dropped for its behaviour
    info,  // the service's life and each connection's: start, accepted, handshake, closed, stop
    debug, // every request, with its key, status and duration
};

enum class LogFormat : uint8_t { text, json };

// Where a logger's lines go instead of standard error: each line whole,
// without its newline. Called from the thread that logs.
using LogSink = std::function<void(std::string_view line)>;

// "error", "warn", "info", "debug"; parse_log_level is false for another word.
const char *to_text(LogLevel level);
bool parse_log_level(std::string_view word, LogLevel *level);
// "text", "json".
const char *to_text(LogFormat format);
bool parse_log_format(std::string_view word, LogFormat *format);

// One field of an event: a name (an identifier, written as it is) and a
// value, text or a number. Views what it is given: lives within the call.
class LogField {
public:
    enum class Kind : uint8_t { text, signed_int, unsigned_int, seconds, boolean };

    LogField(const char *name, std::string_view text) : name_(name), kind_(Kind::text), text_(text) {}
    LogField(const char *name, const char *text) : name_(name), kind_(Kind::text), text_(text) {}
    LogField(const char *name, const std::string &text) : name_(name), kind_(Kind::text), text_(text) {}
    template <class Int, class = std::enable_if_t<std::is_integral<Int>::value>>
    LogField(const char *name, Int n) : name_(name)
    {
        if constexpr (std::is_same<Int, bool>::value) {
            kind_ = Kind::boolean;
            u_ = n ? 1 : 0;
        } else if constexpr (std::is_signed<Int>::value) {
            kind_ = Kind::signed_int;
            i_ = static_cast<int64_t>(n);
        } else {
            kind_ = Kind::unsigned_int;
            u_ = static_cast<uint64_t>(n);
        }
    }
    // A duration or a time in seconds, written with millisecond precision.
    static LogField seconds(const char *name, double s)
    {
        LogField f(name, 0);
        f.kind_ = Kind::seconds;
        f.seconds_ = s;
        return f;
    }

private:
    friend class Logger;
    const char *name_;
    Kind kind_;
    std::string_view text_;
    int64_t i_ = 0;
    uint64_t u_ = 0;
    double seconds_ = 0;
};

class Logger {
public:
    static constexpr size_t kMaxField = 1024; // bytes of a text field written; the rest is cut

    // A logger that writes nothing.
    Logger() = default;
    // on false: writes nothing. sink null: standard error.
    Logger(bool on, LogLevel level, LogFormat format, LogSink sink = nullptr)
        : on_(on), level_(level), format_(format), sink_(std::move(sink))
    {
    }

    // Whether an event of this level is written: test it before building
    // costly fields.
    bool enabled(LogLevel level) const { return on_ && level <= level_; }

    // Writes one event when its level is enabled. name is an identifier
    // (lower case and '_').
    void event(LogLevel level, const char *name, std::initializer_list<LogField> fields = {}) const;

    // A line in the printf style, as the event "message" with the text in
    // its field msg (cut at 512 bytes).
    void message(LogLevel level, const char *fmt, va_list ap) const __attribute__((format(printf, 3, 0)));

    // The line event() writes, without its newline; for tests.
    std::string format(LogLevel level, const char *name, std::initializer_list<LogField> fields) const;

private:
    void write(const std::string &line) const;

    bool on_ = false;
    LogLevel level_ = LogLevel::info;
    LogFormat format_ = LogFormat::text;
    LogSink sink_;
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_LOG_H */
