/*
 * log.cpp - the lines of hspaced's log (log.h).
 */
#include "log.h"

#include <errno.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

namespace hspace {
namespace service {

namespace {

const char kHex[] = "0123456789abcdef";

bool printable(unsigned char ch)
{
    return ch >= 0x20 && ch <= 0x7E;
}

// The part of text written, and what is said of the rest.
std::string_view shown(std::string_view text)
{
    return text.size() > Logger::kMaxField ? text.substr(0, Logger::kMaxField) : text;
}

std::string cut_note(std::string_view text)
{
    return text.size() > Logger::kMaxField ? "...(" + std::to_string(text.size()) + " bytes)" : std::string();
}

// A text value in the key=value form (see log.h).
void append_text(std::string &out, std::string_view text)
{
    std::string_view part = shown(text);
    std::string note = cut_note(text);
    bool bare = !text.empty() && note.empty();
    for (char c : part) {
        unsigned char ch = static_cast<unsigned char>(c);
        if (!printable(ch) || ch == ' ' || ch == '"' || ch == '=' || ch == '\\') {
            bare = false;
            break;
        }
    }
    if (bare) {
        out.append(part);
        return;
    }
    out += '"';
    for (char c : part) {
        unsigned char ch = static_cast<unsigned char>(c);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += c;
        } else if (printable(ch)) {
            out += c;
        } else {
            out += "\\x";
            out += kHex[ch >> 4];
            out += kHex[ch & 15];
        }
    }
    out += note;
    out += '"';
}

// A JSON string (see log.h).
void append_json(std::string &out, std::string_view text)
{
    std::string_view part = shown(text);
    out += '"';
    for (char c : part) {
        unsigned char ch = static_cast<unsigned char>(c);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += c;
        } else if (printable(ch)) {
            out += c;
        } else {
            out += "\\u00";
            out += kHex[ch >> 4];
            out += kHex[ch & 15];
        }
    }
    out += cut_note(text);
    out += '"';
}

// Now in UTC, as 2025-03-01T10:00:00.123Z.
void append_time(std::string &out)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm t;
    gmtime_r(&now.tv_sec, &t);
    char buf[80];
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
             t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(now.tv_nsec / 1000000));
    out += buf;
}

} // namespace

const char *to_text(LogLevel level)
{
    switch (level) {
    case LogLevel::error:
        return "error";
    case LogLevel::warn:
        return "warn";
    case LogLevel::info:
        return "info";
    case LogLevel::debug:
        return "debug";
    }
    return "info";
}

bool parse_log_level(std::string_view word, LogLevel *level)
{
    for (LogLevel l : {LogLevel::error, LogLevel::warn, LogLevel::info, LogLevel::debug}) {
        if (word == to_text(l)) {
            *level = l;
            return true;
        }
    }
    return false;
}

const char *to_text(LogFormat format)
{
    return format == LogFormat::json ? "json" : "text";
}

bool parse_log_format(std::string_view word, LogFormat *format)
{
    if (word != "text" && word != "json") return false;
    *format = word == "json" ? LogFormat::json : LogFormat::text;
    return true;
}

std::string Logger::format(LogLevel level, const char *name, std::initializer_list<LogField> fields) const
{
    const bool json = format_ == LogFormat::json;
    std::string out;
    out.reserve(160);
    out += json ? "{\"ts\":\"" : "ts=";
    append_time(out);
    out += json ? "\",\"level\":\"" : " level=";
    out += to_text(level);
    out += json ? "\",\"event\":\"" : " event=";
    out += name;
    if (json) out += '"';
    for (const LogField &f : fields) {
        out += json ? ",\"" : " ";
        out += f.name_;
        out += json ? "\":" : "=";
        char num[32];
        switch (f.kind_) {
        case LogField::Kind::text:
            if (json)
                append_json(out, f.text_);
            else
                append_text(out, f.text_);
            break;
        case LogField::Kind::signed_int:
            snprintf(num, sizeof num, "%lld", static_cast<long long>(f.i_));
            out += num;
            break;
        case LogField::Kind::unsigned_int:
            snprintf(num, sizeof num, "%llu", static_cast<unsigned long long>(f.u_));
            out += num;
            break;
        case LogField::Kind::seconds:
            snprintf(num, sizeof num, "%.3f", f.seconds_ == f.seconds_ ? f.seconds_ : 0.0);
            out += num;
            break;
        case LogField::Kind::boolean:
            out += f.u_ != 0 ? "true" : "false";
            break;
        }
    }
    if (json) out += '}';
    return out;
}

void Logger::event(LogLevel level, const char *name, std::initializer_list<LogField> fields) const
{
    if (!enabled(level)) return;
    write(format(level, name, fields));
}

void Logger::message(LogLevel level, const char *fmt, va_list ap) const
{
    if (!enabled(level)) return;
    char line[512];
    vsnprintf(line, sizeof line, fmt, ap);
    event(level, "message", {{"msg", line}});
}

void Logger::write(const std::string &line) const
{
    if (sink_) {
        sink_(line);
        return;
    }
    // One write, so that lines of several threads never interleave.
    std::string whole = line + '\n';
    const char *p = whole.data();
    size_t left = whole.size();
    while (left > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

} // namespace service
} // namespace hspace
