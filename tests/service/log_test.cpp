/*
 * log_test.cpp - hspaced's log: every kind of field in both formats read
 * back exactly (text by a strict key=value reader, JSON by a JSON parser),
 * the levels, the service's events with hostile names and keys and never a
 * value's bytes, and the program's options (--log-level, --log-format,
 * --quiet, --http) end to end, down to its summary at stop.
 */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>

#include "log.h"
#include "operate_support.h"
#include "server.h"

extern char **environ;

namespace {

using namespace operate;
using hspace::service::Logger;
using hspace::service::LogField;
using hspace::service::LogFormat;
using hspace::service::LogLevel;
using hspace::service::Options;
using hspace::service::Server;
using hspace::test::Watchdog;
using Fields = std::vector<std::pair<std::string, std::string>>; // name, value's bytes (numbers as written)

// A text line read strictly: NAME=VALUE separated by one space, a value
// bare (printable ASCII but space, '"', '=' and backslash) or quoted (with
// backslash escapes of '"', backslash and \xHH); the bytes of each value.
Fields read_text(const std::string &line)
{
    Fields out;
    size_t i = 0;
    while (i < line.size()) {
        size_t eq = line.find('=', i);
        EXPECT_NE(eq, std::string::npos) << line;
        if (eq == std::string::npos) return out;
        std::string name = line.substr(i, eq - i), value;
        for (char c : name) EXPECT_TRUE(islower(static_cast<unsigned char>(c)) || c == '_') << line;
        i = eq + 1;
        if (i < line.size() && line[i] == '"') {
            for (i++; i < line.size() && line[i] != '"'; i++) {
                if (line[i] != '\\') {
                    value += line[i];
                    continue;
                }
                char e = i + 1 < line.size() ? line[++i] : '?';
                if (e == 'x' && i + 2 < line.size()) {
                    value += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                } else {
                    EXPECT_TRUE(e == '"' || e == '\\') << "escape \\" << e << " in " << line;
                    value += e;
                }
            }
            EXPECT_LT(i, line.size()) << "unterminated value in " << line;
            i++;
        } else {
            size_t end = line.find(' ', i);
            value = line.substr(i, end == std::string::npos ? std::string::npos : end - i);
            EXPECT_FALSE(value.empty()) << "an empty bare value in " << line;
            for (char c : value) EXPECT_TRUE(c != '"' && c != '=' && c != '\\') << line;
            i += value.size();
        }
        out.emplace_back(name, value);
        if (i < line.size()) {
            EXPECT_EQ(line[i], ' ') << line;
            i++;
        }
    }
    return out;
}

// A JSON line read by the JSON parser: each string's characters are the
// bytes logged (none above U+00FF); numbers and booleans as written.
Fields read_json(const std::string &line)
{
    Fields out;
    nlohmann::ordered_json j = nlohmann::ordered_json::parse(line, nullptr, false);
    EXPECT_TRUE(j.is_object()) << line;
    if (!j.is_object()) return out;
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (!it.value().is_string()) {
            out.emplace_back(it.key(), it.value().dump());
            continue;
        }
        const std::string &utf8 = it.value().get_ref<const std::string &>();
        std::string bytes;
        for (size_t k = 0; k < utf8.size(); k++) {
            unsigned char c = static_cast<unsigned char>(utf8[k]);
            if (c < 0x80) {
                bytes += static_cast<char>(c);
            } else {
                EXPECT_TRUE((c & 0xE0) == 0xC0 && c <= 0xC3 && k + 1 < utf8.size()) << "a character above U+00FF";
                bytes += static_cast<char>(((c & 0x03) << 6) | (static_cast<unsigned char>(utf8[++k]) & 0x3F));
            }
        }
        out.emplace_back(it.key(), bytes);
    }
    return out;
}

Fields read_line(LogFormat format, const std::string &line)
{
    for (char c : line)
        EXPECT_TRUE(c >= 0x20 && c <= 0x7E) << "a byte outside printable ASCII in " << line;
    return format == LogFormat::json ? read_json(line) : read_text(line);
}

std::string field(const Fields &fields, const std::string &name)
{
    for (const auto &f : fields)
        if (f.first == name) return f.second;
    return "(absent)";
}

TEST(Log, EveryKindOfFieldReadsBackExactlyInBothFormats)
{
    const std::string big(5000, 'k');
    struct Row {
        LogField field;
        std::string text, json; // the value as a reader gets it back
    };
    const Row rows[] = {
        {{"plain", "abc-1.2/x"}, "abc-1.2/x", "abc-1.2/x"},
        {{"space", "a b"}, "a b", "a b"},
        {{"quote", "say \"hi\""}, "say \"hi\"", "say \"hi\""},
        {{"equals", "a=b"}, "a=b", "a=b"},
        {{"backslash", "a\\b\\x41"}, "a\\b\\x41", "a\\b\\x41"},
        {{"empty", ""}, "", ""},
        {{"control", std::string_view("a\nb\x01\x7f\0z", 7)}, std::string("a\nb\x01\x7f\0z", 7),
         std::string("a\nb\x01\x7f\0z", 7)},
        {{"high", "\xc3\xa9\xff\x80"}, "\xc3\xa9\xff\x80", "\xc3\xa9\xff\x80"},
        {{"negative", -42}, "-42", "-42"},
        {{"largest", UINT64_MAX}, "18446744073709551615", "18446744073709551615"},
        {{"size", size_t(7)}, "7", "7"},
        {{"yes", true}, "true", "true"},
        {{"no", false}, "false", "false"},
        {LogField::seconds("uptime_s", 1.23456), "1.235", "1.235"},
        {{"cut", big}, big.substr(0, Logger::kMaxField) + "...(5000 bytes)",
         big.substr(0, Logger::kMaxField) + "...(5000 bytes)"},
    };
    for (LogFormat format : {LogFormat::text, LogFormat::json}) {
        Logger logger(true, LogLevel::debug, format);
        for (const Row &r : rows) {
            std::string line = logger.format(LogLevel::warn, "probe_event", {r.field});
            SCOPED_TRACE(line);
            Fields f = read_line(format, line);
            ASSERT_EQ(f.size(), 4u);
            EXPECT_EQ(f[0].first, "ts");
            EXPECT_TRUE(f[0].second.size() == 24 && f[0].second[10] == 'T' && f[0].second.back() == 'Z')
                << f[0].second;
            EXPECT_EQ(f[1], (std::pair<std::string, std::string>("level", "warn")));
            EXPECT_EQ(f[2], (std::pair<std::string, std::string>("event", "probe_event")));
            EXPECT_EQ(f[3].second, format == LogFormat::json ? r.json : r.text);
        }
    }
    // A bare value is written as it is, a quoted one only when it must be.
    Logger text(true, LogLevel::info, LogFormat::text);
    std::string line = text.format(LogLevel::info, "e", {{"a", "x"}, {"b", "y z"}, {"n", 3}});
    EXPECT_EQ(line.substr(line.find(" level=")), " level=info event=e a=x b=\"y z\" n=3");
}

TEST(Log, LevelsKeepTheMoreSevereEvents)
{
    const LogLevel levels[] = {LogLevel::error, LogLevel::warn, LogLevel::info, LogLevel::debug};
    for (LogLevel at : levels) {
        for (LogLevel event : levels) {
            std::vector<std::string> got;
            Logger logger(true, at, LogFormat::text, [&](std::string_view l) { got.emplace_back(l); });
            logger.event(event, "e");
            EXPECT_EQ(got.size(), event <= at ? 1u : 0u) << to_text(at) << " " << to_text(event);
            EXPECT_EQ(logger.enabled(event), event <= at);
        }
    }
    std::vector<std::string> got;
    Logger off(false, LogLevel::debug, LogFormat::text, [&](std::string_view l) { got.emplace_back(l); });
    off.event(LogLevel::error, "e");
    EXPECT_TRUE(got.empty());
    LogLevel l;
    EXPECT_FALSE(hspace::service::parse_log_level("verbose", &l));
    EXPECT_TRUE(hspace::service::parse_log_level("warn", &l));
    EXPECT_EQ(l, LogLevel::warn);
}

// The service's events, read back in the format of the parameter.
class ServiceLog : public ::testing::TestWithParam<LogFormat> {};

TEST_P(ServiceLog, EventsNameTheirFieldsAndNeverAValuesBytes)
{
    Watchdog watchdog;
    const LogFormat format = GetParam();
    Lines lines;
    Options o;
    o.log = true;
    o.log_level = LogLevel::debug;
    o.log_format = format;
    o.log_sink = lines.sink();
    o.max_queue = 4096;
    const std::string secret = "SECRET-\x01\xfe-VALUE";
    const std::string key("k \"1\"=\\\n\x02\xe9\0", 11); // a NUL last
    const std::string name = "evil\nname \"x\"", group = "g=1 \x7f";
    std::string huge;
    while (huge.size() < 5000) huge += secret;
    {
        Server server(o);
        ASSERT_TRUE(server.start());
        Wire w(server.port(), false);
        std::string hello;
        codec::encode_handshake_request(hello, "data", name, group);
        w.send(hello);
        ASSERT_TRUE(w.next().handshake_reply.has_value());
        w.request(codec::kOpPut, key, 1, secret);
        EXPECT_EQ(w.status(), 0u);
        w.request(codec::kOpGet, key, 2);
        EXPECT_EQ(w.next().body, secret);
        w.request(codec::kOpPut, "big", 3, huge);
        EXPECT_EQ(w.status(), 12u);
        Wire garbage(server.port(), false);
        garbage.send("\xff\xff\xff\xff\xff\xff\xff\xff" + secret);
        EXPECT_TRUE(garbage.wait_closed());
        server.stop();
    }
    std::vector<std::string> all = lines.all();
    std::vector<Fields> events;
    for (const std::string &line : all) {
        SCOPED_TRACE(line);
        EXPECT_EQ(line.find("SECRET"), std::string::npos);
        EXPECT_EQ(line.find("VALUE"), std::string::npos);
        events.push_back(read_line(format, line));
        EXPECT_EQ(events.back().size() >= 3 ? events.back()[2].first : "", "event");
    }
    // Each expected event, in this order among the others, with these fields.
    const std::string size = std::to_string(huge.size());
    struct Expected {
        std::string event;
        Fields fields;
    };
    const Expected expected[] = {
        {"started", {{"level", "info"}, {"store", "memory"}, {"http", "off"}}},
        {"conn_accepted", {{"level", "info"}, {"conn", "1"}}},
        {"conn_handshake", {{"conn", "1"}, {"client", name}, {"group", group}}},
        {"request", {{"level", "debug"}, {"conn", "1"}, {"op", "put"}, {"key", key}, {"status", "0"}}},
        {"request", {{"conn", "1"}, {"op", "get"}, {"key", key}, {"status", "0"}}},
        {"put_refused",
         {{"level", "warn"}, {"conn", "1"}, {"key", "big"}, {"value_bytes", size}, {"max_queue", "4096"}}},
        {"request", {{"conn", "1"}, {"op", "put"}, {"key", "big"}, {"status", "12"}}},
        {"conn_accepted", {{"conn", "2"}}},
        {"conn_closed",
         {{"level", "warn"},
          {"conn", "2"},
          {"reason", "a packet of 4294967295 bytes announced, over the 196655 bytes a handshake may have"}}},
        {"conn_closed", {{"conn", "1"}, {"reason", "service stopping"}}},
        {"stopped", {{"connections", "2"}, {"requests", "3"}, {"errors", "1"}, {"notifications", "0"}}},
    };
    size_t at = 0;
    for (const Expected &e : expected) {
        while (at < events.size() && field(events[at], "event") != e.event) at++;
        ASSERT_LT(at, events.size()) << "no " << e.event << " where expected in:\n" << testing::PrintToString(all);
        for (const auto &[n, v] : e.fields) EXPECT_EQ(field(events[at], n), v) << e.event << " " << n;
        at++;
    }
    EXPECT_NE(field(events.back(), "uptime_s"), "(absent)");
}

INSTANTIATE_TEST_SUITE_P(Formats, ServiceLog, ::testing::Values(LogFormat::text, LogFormat::json),
                         [](const testing::TestParamInfo<LogFormat> &i) { return to_text(i.param); });

// hspaced as a child process: standard output through a pipe (its first
// line read with a bound), standard error into a file.
class Program {
public:
    Program(const std::vector<std::string> &args, const std::string &err_path) : err_path_(err_path)
    {
        int out[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<char *> argv{const_cast<char *>(HSPACED_PROGRAM)};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&pid_, HSPACED_PROGRAM, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        out_ = out[0];
    }
    ~Program()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_);
    }
    // The first line on standard output; empty when it ends first, or
    // when none comes within kBound (a failure).
    std::string first_line()
    {
        std::string line;
        char c;
        while (true) {
            pollfd p{out_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(kBound.count())) != 1) {
                ADD_FAILURE() << "watchdog: no line from hspaced within " << kBound.count() << " ms";
                return std::string();
            }
            if (read(out_, &c, 1) != 1 || c == '\n') return line;
            line += c;
        }
    }
    // Sends signo (0: none) and returns the exit status (-1: not an exit).
    int end(int signo = 0)
    {
        if (signo != 0) kill(pid_, signo);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::vector<std::string> err_lines() const
    {
        std::ifstream in(err_path_);
        std::vector<std::string> lines;
        for (std::string l; std::getline(in, l);) lines.push_back(l);
        return lines;
    }

private:
    std::string err_path_;
    pid_t pid_ = -1;
    int out_ = -1;
};

class ProgramTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/qel-log-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    std::string err() const { return dir_ + "/stderr"; }
    std::string dir_;
    Watchdog watchdog_;
};

TEST_F(ProgramTest, UsageAndStartErrorsExitWithTheirStatus)
{
    // A port taken by a listener of the test's.
    int busy = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof sa;
    ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    ASSERT_EQ(listen(busy, 1), 0);
    ASSERT_EQ(getsockname(busy, reinterpret_cast<sockaddr *>(&sa), &len), 0);
    const std::string taken = "127.0.0.1:" + std::to_string(ntohs(sa.sin_port));
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *words;
    };
    const Case cases[] = {
        {{"--quiet", "--log-level", "debug"}, 2, "excludes"},
        {{"--log-level", "loud"}, 2, "--log-level"},
        {{"--log-format", "xml"}, 2, "--log-format"},
        {{"--http", "nowhere"}, 2, "is not HOST:PORT"},
        {{"--http", "127.0.0.1:99999"}, 2, "is not HOST:PORT"},
        {{"--port", "0", "--http", taken}, 1, "event=start_failed reason=\"cannot listen on"},
        {{"--port", "0", "--log-format", "json", "--http", taken}, 1, "\"event\":\"start_failed\""},
    };
    for (const Case &c : cases) {
        Program p(c.args, err());
        SCOPED_TRACE(testing::PrintToString(c.args));
        EXPECT_EQ(p.first_line(), "");
        EXPECT_EQ(p.end(), c.status);
        std::string all;
        for (const std::string &l : p.err_lines()) all += l + "\n";
        EXPECT_NE(all.find(c.words), std::string::npos) << all;
    }
    close(busy);
}

TEST_F(ProgramTest, JsonLinesFromStartToTheSummaryAndMetricsOverHttp)
{
    Program p({"--port", "0", "--http", "127.0.0.1:0", "--log-format", "json"}, err());
    std::string listening = p.first_line();
    ASSERT_EQ(listening.compare(0, 32, "hspaced listening on tcp://127.0"), 0) << listening;
    uint16_t port = static_cast<uint16_t>(std::stoi(listening.substr(listening.rfind(':') + 1)));
    // Logged before the line above: the endpoint's port.
    std::vector<std::string> lines = p.err_lines();
    ASSERT_FALSE(lines.empty());
    Fields started = read_json(lines[0]);
    ASSERT_EQ(field(started, "event"), "started");
    std::string endpoint = field(started, "http");
    uint16_t http_port = static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    {
        Wire w(port);
        w.request(codec::kOpPut, "k", 1, "v");
        EXPECT_EQ(w.status(), 0u);
        EXPECT_EQ(scrape(http_port).value("hspaced_requests_total", {{"op", "put"}, {"status", "0"}}), 1);
    }
    EXPECT_EQ(http(http_port, "/ready").body, "ok\n");
    EXPECT_EQ(p.end(SIGTERM), 0);
    lines = p.err_lines();
    ASSERT_GE(lines.size(), 2u);
    for (const std::string &l : lines) read_line(LogFormat::json, l);
    Fields stopping, stopped = read_json(lines.back());
    for (const std::string &l : lines)
        if (field(read_json(l), "event") == "stopping") stopping = read_json(l);
    EXPECT_EQ(field(stopping, "signal"), "SIGTERM");
    EXPECT_EQ(field(stopped, "event"), "stopped");
    EXPECT_EQ(field(stopped, "connections"), "1");
    EXPECT_EQ(field(stopped, "requests"), "1");
    EXPECT_EQ(field(stopped, "errors"), "0");
}

TEST_F(ProgramTest, QuietLogsErrorsOnly)
{
    Program p({"--port", "0", "--quiet"}, err());
    std::string listening = p.first_line();
    ASSERT_FALSE(listening.empty());
    {
        Wire w(static_cast<uint16_t>(std::stoi(listening.substr(listening.rfind(':') + 1))));
        w.request(codec::kOpGet, "k", 1);
        EXPECT_EQ(w.status(), 2u);
    }
    EXPECT_EQ(p.end(SIGINT), 0);
    EXPECT_EQ(p.err_lines(), std::vector<std::string>());
}

} // namespace
