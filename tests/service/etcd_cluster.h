/*
 * etcd_cluster.h - an etcd cluster started by a test: each member a child
 * process on 127.0.0.1 with ports chosen at run time, its data and log under
 * a fresh temporary directory (in /dev/shm when there is one, so that fsyncs
 * cost nothing), removed with the cluster. Readiness is polled with etcdctl,
 * each poll bounded by its own timeouts and all by the caller's watchdog.
 * Owning thread only.
 *
 * Each member listens on two client ports: its client port, the one in
 * store_url(), and an admin port that only the test uses (ctl()). A member
 * started with start(watchdog, false) serves the admin port alone, so the
 * test can change the data while every service is cut off from it.
 *
 * A secure cluster (Secure::kTlsAndLogin) serves TLS on every client port
 * with certificates made on the spot by openssl (a CA, the members'
 * certificate for 127.0.0.1, a client certificate), wants a client
 * certificate, and has etcd's authentication enabled with a root user and
 * a user "hspace" whose role may read and write keys under "hspace/".
 */
#ifndef QEL_TESTS_ETCD_CLUSTER_H
#define QEL_TESTS_ETCD_CLUSTER_H

#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class EtcdCluster {
public:
    enum class Secure { kNo, kTlsAndLogin };
    static constexpr const char *kUser = "hspace";       // the secure cluster's user for hspaced
    static constexpr const char *kPassword = "s3cret-pw"; // its password

    // etcd and etcdctl are on the PATH, and openssl too for a secure cluster.
    static bool installed(Secure secure = Secure::kNo)
    {
        std::string probe = "command -v etcd >/dev/null && command -v etcdctl >/dev/null";
        if (secure == Secure::kTlsAndLogin) probe += " && command -v openssl >/dev/null";
        return system(probe.c_str()) == 0;
    }

    explicit EtcdCluster(int members, Secure secure = Secure::kNo) : members_(members), secure_(secure)
    {
        std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
        dir += "/qel-etcd-XXXXXX";
        if (mkdtemp(&dir[0]) != nullptr) dir_ = dir;
        for (Member &m : members_) m = Member{free_port(), free_port(), free_port(), 0};
        if (secure_ == Secure::kTlsAndLogin && !dir_.empty() && !make_certificates()) dir_.clear();
    }
    ~EtcdCluster()
    {
        for (size_t i = 0; i < members_.size(); i++) kill(i);
        std::error_code ignored;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
    }
    EtcdCluster(const EtcdCluster &) = delete;
    EtcdCluster &operator=(const EtcdCluster &) = delete;

    // Starts every member not running and waits, up to watchdog, until a
    // linearizable read succeeds through each of them, on its client port
    // when serve, else on its admin port only. A secure cluster's users are
    // made at its first start. False when it did not work.
    bool start(std::chrono::milliseconds watchdog, bool serve = true)
    {
        if (dir_.empty()) return false;
        auto until = std::chrono::steady_clock::now() + watchdog;
        for (size_t i = 0; i < members_.size(); i++)
            if (members_[i].pid <= 0) spawn(i, serve);
        // Ours, not another etcd that took a port ours wanted: the member
        // list names our peer port.
        for (Member &m : members_) {
            std::string probe = "etcdctl " + flags(serve ? m.client : m.admin, !users_made_) +
                                " --dial-timeout=1s --command-timeout=1s member list 2>/dev/null | grep -q " +
                                "'127.0.0.1:" + std::to_string(m.peer) + "' && etcdctl " +
                                flags(serve ? m.client : m.admin, !users_made_) +
                                " --dial-timeout=1s --command-timeout=1s get health-probe >/dev/null 2>&1";
            while (system(probe.c_str()) != 0) {
                if (m.pid > 0 && waitpid(m.pid, nullptr, WNOHANG) == m.pid) {
                    m.pid = 0;
                    fprintf(stderr, "etcd exited at start; its log is in %s\n", dir_.c_str());
                    return false;
                }
                if (std::chrono::steady_clock::now() > until) return false;
            }
        }
        if (secure_ == Secure::kTlsAndLogin && !users_made_) {
            for (const char *step : {"user add root --new-user-password=root-pw --interactive=false",
                                     "role add hspace", "role grant-permission hspace --prefix=true readwrite hspace/",
                                     "user add hspace --new-user-password=s3cret-pw --interactive=false",
                                     "user grant-role hspace hspace", "role add root", "user grant-role root root",
                                     "auth enable"})
                if (!ctl_ok(step)) return false;
            users_made_ = true;
        }
        return true;
    }

    // Kills member i (SIGKILL, no goodbye to its peers) and reaps it.
    void kill(size_t i)
    {
        if (members_[i].pid <= 0) return;
        ::kill(members_[i].pid, SIGCONT);
        ::kill(members_[i].pid, SIGKILL);
        waitpid(members_[i].pid, nullptr, 0);
        members_[i].pid = 0;
    }
    // Stops member i where it is (SIGSTOP), or lets it go on (SIGCONT),
    // and returns once it has (a signal takes effect after kill returns).
    void freeze(size_t i)
    {
        int status = 0;
        ::kill(members_[i].pid, SIGSTOP);
        waitpid(members_[i].pid, &status, WUNTRACED);
    }
    void thaw(size_t i)
    {
        int status = 0;
        ::kill(members_[i].pid, SIGCONT);
        waitpid(members_[i].pid, &status, WCONTINUED);
    }

    // etcdctl with args on member 0's admin port (as root in a secure
    // cluster), input on its standard input: its standard output, or
    // "etcdctl failed" when it exits nonzero.
    std::string ctl(const std::string &args, const std::string &input = "")
    {
        std::string in = dir_ + "/ctl.in";
        std::ofstream(in, std::ios::binary) << input;
        std::string cmd = "etcdctl " + flags(members_[0].admin, false) +
                          " --dial-timeout=2s --command-timeout=5s " + args + " <" + in + " 2>>" + dir_ + "/ctl.log";
        std::string out;
        FILE *f = popen(cmd.c_str(), "r");
        if (f == nullptr) return "etcdctl failed";
        char chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out.append(chunk, n);
        return pclose(f) == 0 ? out : "etcdctl failed";
    }
    bool ctl_ok(const std::string &args, const std::string &input = "") { return ctl(args, input) != "etcdctl failed"; }
    // The cluster's revision now, 0 when it cannot be read.
    long long revision()
    {
        std::string out = ctl("get revision-probe -w fields");
        size_t at = out.find("\"Revision\" : ");
        return at == std::string::npos ? 0 : atoll(out.c_str() + at + 13);
    }

    // "etcd://127.0.0.1:P,..." of every member, for Options::store.
    std::string store_url() const
    {
        std::string url = "etcd://";
        for (const Member &m : members_)
            url += (url.size() > 7 ? ",127.0.0.1:" : "127.0.0.1:") + std::to_string(m.client);
        return url;
    }
    // A file of the secure cluster: "ca.pem" (its CA), "client.pem" and
    // "client.key" (a client certificate of that CA), "other-ca.pem" (a CA
    // that signed none of them).
    std::string file(const char *name) const { return dir_ + "/tls/" + name; }
    // The folder of the cluster, for the test's own files.
    const std::string &dir() const { return dir_; }

private:
    struct Member {
        int client;                            // client port
        int admin;                             // the test's client port
        int peer;                              // peer port
        pid_t pid;                             // running process, or 0
    };

    // A port free at the time of the call: the kernel's choice for port 0.
    static int free_port()
    {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof a;
        int port = 0;
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
        close(fd);
        return port;
    }

    std::string scheme() const { return secure_ == Secure::kTlsAndLogin ? "https://" : "http://"; }

    // etcdctl's flags for the endpoint at port; as root once the users exist.
    std::string flags(int port, bool anonymous) const
    {
        std::string f = "--endpoints=" + scheme() + "127.0.0.1:" + std::to_string(port);
        if (secure_ == Secure::kNo) return f;
        f += " --cacert=" + file("ca.pem") + " --cert=" + file("client.pem") + " --key=" + file("client.key");
        return anonymous ? f : f + " --user=root:root-pw";
    }

    // The CAs and certificates of a secure cluster, EC keys for speed.
    bool make_certificates()
    {
        std::string tls = dir_ + "/tls";
        std::string script =
            "set -e; mkdir -p '" + tls + "'; cd '" + tls + "'\n"
            "key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out \"$1\" 2>/dev/null; }\n"
            "ca() { key $1.key; openssl req -x509 -new -key $1.key -out $1.pem -days 2 -subj /CN=$1 "
            "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign; }\n"
            "leaf() { key $1.key; openssl req -new -key $1.key -out $1.csr -subj /CN=$2;"
            " printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\\nextendedKeyUsage=serverAuth,clientAuth\\n' >$1.ext;"
            " openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile $1.ext "
            "-out $1.pem 2>/dev/null; }\n"
            "ca ca; ca other-ca; leaf member etcd-member; leaf client hspace-link\n";
        std::ofstream(dir_ + "/certificates.sh") << script;
        return system(("sh " + dir_ + "/certificates.sh >/dev/null").c_str()) == 0;
    }

    // Member i in a child process whose output goes to its log, not to the
    // test's: the test's reader would wait for the members' end.
    void spawn(size_t i, bool serve)
    {
        std::string initial, name = "m" + std::to_string(i);
        for (size_t j = 0; j < members_.size(); j++)
            initial += (j ? ",m" : "m") + std::to_string(j) + "=http://127.0.0.1:" + std::to_string(members_[j].peer);
        std::string client = scheme() + "127.0.0.1:" + std::to_string(members_[i].client);
        std::string admin = scheme() + "127.0.0.1:" + std::to_string(members_[i].admin);
        std::string peer = "http://127.0.0.1:" + std::to_string(members_[i].peer);
        std::string listen = serve ? client + "," + admin : admin;
        std::string cmd = "exec etcd --name " + name + " --data-dir " + dir_ + "/" + name +
                          " --listen-client-urls " + listen + " --advertise-client-urls " + (serve ? client : admin) +
                          " --listen-peer-urls " + peer + " --initial-advertise-peer-urls " + peer +
                          " --initial-cluster " + initial + " --initial-cluster-token " + dir_ +
                          " --max-request-bytes 8388608";
        if (secure_ == Secure::kTlsAndLogin)
            cmd += " --cert-file " + file("member.pem") + " --key-file " + file("member.key") +
                   " --trusted-ca-file " + file("ca.pem") + " --client-cert-auth";
        cmd += " </dev/null >/dev/null 2>>" + dir_ + "/" + name + ".log";
        pid_t pid = fork();
        if (pid == 0) {
            // A test that dies (a watchdog's abort, a sanitizer's report)
            // takes its members with it.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        members_[i].pid = pid;
    }

    std::string dir_;                          // the cluster's folder; empty when it could not be made
    std::vector<Member> members_;
    const Secure secure_;
    bool users_made_ = false;                  // a secure cluster's users and roles exist, auth is on
};

#endif /* QEL_TESTS_ETCD_CLUSTER_H */
