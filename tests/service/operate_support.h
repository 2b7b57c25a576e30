/*
 * operate_support.h - what the tests of hspaced's operator surface share: a
 * client speaking the wire protocol through the codec that counts its
 * bytes, a strict reader of the Prometheus text exposition, an HTTP client
 * whose every call is bounded, and a sink that collects log lines. Every
 * wait is bounded by kBound and fails the test when it runs out.
 */
#ifndef QEL_TESTS_OPERATE_SUPPORT_H
#define QEL_TESTS_OPERATE_SUPPORT_H

#include <arpa/inet.h>
#include <errno.h>
#include <math.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "client_harness.h"
#include "hspace_codec.h"
#include "log.h"

namespace operate {

using hspace::test::kBound;
namespace codec = hspace::codec;

// A client on a blocking socket whose every receive is bounded by kBound;
// counts the bytes it sends and receives.
class Wire {
public:
    // Connects to port and, unless told not to, shakes hands.
    explicit Wire(uint16_t port, bool handshake = true, const std::string &name = "wire")
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        timeval tv = {static_cast<time_t>(kBound.count() / 1000), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in sa{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0) << strerror(errno);
        if (!handshake) return;
        std::string out;
        codec::encode_handshake_request(out, "data", name, "tests");
        send(out);
        EXPECT_TRUE(next().handshake_reply.has_value());
    }
    ~Wire() { close(fd_); }
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    void send(const std::string &bytes)
    {
        ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        sent += bytes.size();
    }
    // A request with correlation id corrid.
    void request(uint8_t opcode, const std::string &key, uint32_t corrid, const std::string &data = "",
                 int32_t flags = 0)
    {
        std::string out;
        codec::encode_request(out, codec::Request{0, opcode, codec::kSemSync, 0, 0, flags, key, corrid, data});
        send(out);
    }
    // The next packet; wirelen 0 at end of stream or on a timeout (a
    // failure is recorded for the timeout).
    codec::Packet next()
    {
        codec::Packet p;
        codec::FrameResult f;
        while ((f = codec::frame(in_)).status == codec::FrameStatus::NeedMore && read_some() > 0) {
        }
        EXPECT_NE(f.status, codec::FrameStatus::Invalid);
        if (f.status == codec::FrameStatus::Complete) {
            EXPECT_TRUE(codec::decode(in_.substr(0, f.wirelen), p));
            in_.erase(0, f.wirelen);
            last = f.wirelen;
        }
        return p;
    }
    // The status of the next packet, a reply (an object counts as 0).
    uint32_t status()
    {
        codec::Packet p = next();
        EXPECT_TRUE(p.rr.has_value());
        return p.rr ? p.rr->error() : 0xFFFFFFFFu;
    }
    // True once the service has closed the connection; false on a timeout.
    bool wait_closed()
    {
        ssize_t n;
        while ((n = read_some()) > 0) in_.clear();
        return n != -2;
    }

    size_t sent = 0;                           // bytes sent
    size_t received = 0;                       // bytes received
    size_t last = 0;                           // bytes of the last packet returned

private:
    // Bytes received into in_, 0 at end of stream, -1 on an error, -2
    // (a failure recorded) when nothing came within kBound.
    ssize_t read_some()
    {
        char chunk[65536];
        ssize_t n;
        while ((n = recv(fd_, chunk, sizeof chunk, 0)) < 0 && errno == EINTR) {
        }
        if (n > 0) {
            in_.append(chunk, static_cast<size_t>(n));
            received += static_cast<size_t>(n);
        }
        if (n >= 0 || errno != EAGAIN) return n;
        ADD_FAILURE() << "watchdog: nothing from the service within " << kBound.count() << " ms";
        return -2;
    }

    int fd_;
    std::string in_;
};

// One HTTP answer: status (-1 when there was none) and body.
struct Answer {
    int status = -1;
    std::string body;
    std::string content_type;
};

// A request to 127.0.0.1:port, every step bounded by kBound.
inline Answer http(uint16_t port, const std::string &path, const std::string &method = "GET")
{
    httplib::Client client("127.0.0.1", port);
    client.set_connection_timeout(kBound);
    client.set_read_timeout(kBound);
    client.set_write_timeout(kBound);
    httplib::Result r = method == "GET"    ? client.Get(path.c_str())
                        : method == "HEAD" ? client.Head(path.c_str())
                                           : client.Post(path.c_str(), "x", "text/plain");
    Answer a;
    if (!r) return a;
    a.status = r->status;
    a.body = r->body;
    a.content_type = r->get_header_value("Content-Type");
    return a;
}

using Labels = std::map<std::string, std::string>;

struct Sample {
    std::string name;
    Labels labels;
    double value = 0;
};

struct MetricFamily {
    std::string help;
    std::string type;
    std::vector<Sample> samples;
};

// The text exposition, read strictly: every departure from the format (or
// from what a histogram must be) is a test failure naming the line.
class Exposition {
public:
    explicit Exposition(const std::string &text) { parse(text); }

    std::map<std::string, MetricFamily> families;

    // The value of the sample name{labels}, or 0 when there is none (a
    // series shown only once counted).
    double value(const std::string &name, const Labels &labels = {}) const
    {
        const Sample *s = find(name, labels);
        return s != nullptr ? s->value : 0;
    }
    bool has(const std::string &name, const Labels &labels = {}) const { return find(name, labels) != nullptr; }

private:
    const Sample *find(const std::string &name, const Labels &labels) const
    {
        for (const auto &f : families)
            for (const Sample &s : f.second.samples)
                if (s.name == name && s.labels == labels) return &s;
        return nullptr;
    }

    static bool metric_name(const std::string &n, bool label)
    {
        if (n.empty()) return false;
        for (size_t i = 0; i < n.size(); i++) {
            char c = n[i];
            if (!(isalpha(static_cast<unsigned char>(c)) || c == '_' || (!label && c == ':') ||
                  (i > 0 && isdigit(static_cast<unsigned char>(c)))))
                return false;
        }
        return true;
    }

    static bool number(const std::string &t, double *v)
    {
        if (t == "+Inf" || t == "-Inf" || t == "NaN") {
            *v = t == "NaN" ? NAN : (t[0] == '+' ? INFINITY : -INFINITY);
            return true;
        }
        if (t.empty() || isspace(static_cast<unsigned char>(t[0]))) return false;
        char *end = nullptr;
        *v = strtod(t.c_str(), &end);
        return end == t.c_str() + t.size() && isfinite(*v);
    }

    void parse(const std::string &text)
    {
        ASSERT_FALSE(text.empty());
        ASSERT_EQ(text.back(), '\n') << "the exposition must end with a newline";
        std::string current; // family whose samples may follow
        std::string help_of; // family whose HELP was the last line
        std::set<std::string> series;
        size_t at = 0, number_of_line = 0;
        while (at < text.size()) {
            size_t nl = text.find('\n', at);
            std::string line = text.substr(at, nl - at);
            at = nl + 1;
            number_of_line++;
            SCOPED_TRACE("line " + std::to_string(number_of_line) + ": " + line);
            ASSERT_FALSE(line.empty()) << "empty line";
            if (line.compare(0, 7, "# HELP ") == 0) {
                size_t sp = line.find(' ', 7);
                std::string name = line.substr(7, sp == std::string::npos ? std::string::npos : sp - 7);
                ASSERT_TRUE(metric_name(name, false)) << name;
                ASSERT_EQ(families.count(name), 0u) << "family " << name << " twice";
                std::string help = sp == std::string::npos ? "" : line.substr(sp + 1), unescaped;
                for (size_t i = 0; i < help.size(); i++) {
                    if (help[i] != '\\') {
                        unescaped += help[i];
                        continue;
                    }
                    ASSERT_LT(i + 1, help.size()) << "a HELP ends in a backslash";
                    char e = help[++i];
                    ASSERT_TRUE(e == '\\' || e == 'n') << "escape \\" << e << " in a HELP";
                    unescaped += e == 'n' ? '\n' : '\\';
                }
                families[name].help = unescaped;
                help_of = name;
                current.clear();
                continue;
            }
            if (line.compare(0, 7, "# TYPE ") == 0) {
                size_t sp = line.find(' ', 7);
                ASSERT_NE(sp, std::string::npos);
                std::string name = line.substr(7, sp - 7), type = line.substr(sp + 1);
                ASSERT_EQ(name, help_of) << "TYPE must follow its family's HELP";
                ASSERT_TRUE(type == "counter" || type == "gauge" || type == "histogram") << type;
                families[name].type = type;
                current = name;
                help_of.clear();
                continue;
            }
            ASSERT_NE(line[0], '#') << "a comment the service does not write";
            ASSERT_FALSE(current.empty()) << "a sample outside its family";
            Sample s;
            size_t i = 0;
            while (i < line.size() && line[i] != '{' && line[i] != ' ') i++;
            s.name = line.substr(0, i);
            ASSERT_TRUE(metric_name(s.name, false)) << s.name;
            const MetricFamily &f = families[current];
            if (f.type == "histogram")
                ASSERT_TRUE(s.name == current + "_bucket" || s.name == current + "_sum" ||
                            s.name == current + "_count")
                    << s.name << " in histogram " << current;
            else
                ASSERT_EQ(s.name, current);
            if (i < line.size() && line[i] == '{') {
                i++;
                while (true) {
                    size_t eq = line.find('=', i);
                    ASSERT_NE(eq, std::string::npos);
                    std::string label = line.substr(i, eq - i);
                    ASSERT_TRUE(metric_name(label, true) && label.compare(0, 2, "__") != 0) << label;
                    ASSERT_EQ(s.labels.count(label), 0u) << "label " << label << " twice";
                    ASSERT_LT(eq + 1, line.size());
                    ASSERT_EQ(line[eq + 1], '"');
                    std::string value;
                    size_t j = eq + 2;
                    for (; j < line.size() && line[j] != '"'; j++) {
                        if (line[j] != '\\') {
                            value += line[j];
                            continue;
                        }
                        ASSERT_LT(j + 1, line.size());
                        char e = line[++j];
                        ASSERT_TRUE(e == '\\' || e == '"' || e == 'n') << "escape \\" << e;
                        value += e == 'n' ? '\n' : e;
                    }
                    ASSERT_LT(j, line.size()) << "unterminated label value";
                    s.labels[label] = value;
                    i = j + 1;
                    ASSERT_LT(i, line.size());
                    if (line[i] == '}') {
                        i++;
                        break;
                    }
                    ASSERT_EQ(line[i], ',');
                    i++;
                }
            }
            ASSERT_LT(i, line.size());
            ASSERT_EQ(line[i], ' ') << "one space before the value";
            std::string value = line.substr(i + 1);
            ASSERT_EQ(value.find(' '), std::string::npos) << "a timestamp the service does not write";
            ASSERT_TRUE(number(value, &s.value)) << "value " << value;
            std::string id = s.name + "{";
            for (const auto &l : s.labels) id += l.first + "=" + l.second + ",";
            ASSERT_TRUE(series.insert(id).second) << "series " << id << " twice";
            families[current].samples.push_back(s);
        }
        ASSERT_TRUE(help_of.empty()) << "a HELP without its TYPE";
        for (const auto &f : families) check_family(f.first, f.second);
    }

    static void check_family(const std::string &name, const MetricFamily &f)
    {
        SCOPED_TRACE(name);
        ASSERT_FALSE(f.type.empty());
        if (f.type == "counter") {
            EXPECT_EQ(name.size() > 6 ? name.substr(name.size() - 6) : "", "_total");
            for (const Sample &s : f.samples) EXPECT_GE(s.value, 0);
        }
        if (f.type != "histogram") return;
        // By series (the labels but le): buckets in order of le, cumulative,
        // ending with +Inf, whose count _count repeats; one _sum.
        std::map<Labels, std::vector<std::pair<double, double>>> buckets;
        std::map<Labels, int> sums;
        std::map<Labels, double> counts;
        for (const Sample &s : f.samples) {
            Labels rest = s.labels;
            if (s.name == name + "_bucket") {
                ASSERT_EQ(rest.count("le"), 1u) << "a bucket without le";
                double le = 0;
                ASSERT_TRUE(number(rest["le"], &le)) << rest["le"];
                rest.erase("le");
                buckets[rest].emplace_back(le, s.value);
            } else {
                ASSERT_EQ(rest.count("le"), 0u);
                if (s.name == name + "_sum")
                    sums[rest]++;
                else
                    counts[rest] = s.value;
            }
        }
        for (const auto &[labels, list] : buckets) {
            for (size_t k = 1; k < list.size(); k++) {
                EXPECT_LT(list[k - 1].first, list[k].first) << "le out of order";
                EXPECT_LE(list[k - 1].second, list[k].second) << "buckets not cumulative";
            }
            EXPECT_TRUE(isinf(list.back().first)) << "the last bucket is not +Inf";
            EXPECT_EQ(sums[labels], 1) << "one _sum per series";
            ASSERT_EQ(counts.count(labels), 1u) << "one _count per series";
            EXPECT_EQ(counts[labels], list.back().second) << "_count is not the +Inf bucket";
        }
        EXPECT_EQ(sums.size(), buckets.size());
        EXPECT_EQ(counts.size(), buckets.size());
    }
};

// Scrapes /metrics and reads it strictly.
inline Exposition scrape(uint16_t port)
{
    Answer a = http(port, "/metrics");
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.content_type, "text/plain; version=0.0.4; charset=utf-8");
    return Exposition(a.body);
}

// Log lines handed to Options::log_sink, from whichever thread logs.
class Lines {
public:
    hspace::service::LogSink sink()
    {
        return [this](std::string_view line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.emplace_back(line);
        };
    }
    std::vector<std::string> all() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace operate

#endif /* QEL_TESTS_OPERATE_SUPPORT_H */
