/*
 * etcd_cluster.h - an etcd cluster of one or more members started by a
 * test: each member a child process of the test on 127.0.0.1 with client
 * and peer ports chosen at run time, its data in its own folder under a
 * fresh temporary directory (in /dev/shm when there is one, so that etcd's
 * fsyncs cost nothing), removed with the cluster.
 *
 * Readiness is polled with etcdctl, each poll bounded by its own command
 * timeout and all of them by the caller's watchdog. Owning thread only.
 */
#ifndef QEL_TESTS_ETCD_CLUSTER_H
#define QEL_TESTS_ETCD_CLUSTER_H

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

class EtcdCluster {
public:
    // The etcd and etcdctl programs; empty when etcd is not installed.
    static std::string program(const char *name)
    {
        for (const char *dir : {"/usr/bin/", "/usr/local/bin/"}) {
            std::string path = std::string(dir) + name;
            if (access(path.c_str(), X_OK) == 0) return path;
        }
        return std::string();
    }
    static bool installed() { return !program("etcd").empty() && !program("etcdctl").empty(); }

    explicit EtcdCluster(int members) : members_(members)
    {
        const char *base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp");
        std::string tmpl = std::string(base) + "/qel-etcd-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) dir_ = buf.data();
        for (Member &m : members_) {
            m.client = free_port();
            m.peer = free_port();
        }
    }
    ~EtcdCluster()
    {
        for (size_t i = 0; i < members_.size(); i++) kill(i);
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            if (system(cmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", dir_.c_str());
        }
    }
    EtcdCluster(const EtcdCluster &) = delete;
    EtcdCluster &operator=(const EtcdCluster &) = delete;

    // Starts every member not running and waits, up to watchdog, until the
    // cluster answers through each of them. False when it did not.
    bool start(std::chrono::milliseconds watchdog)
    {
        if (dir_.empty()) return false;
        for (size_t i = 0; i < members_.size(); i++)
            if (members_[i].pid <= 0) spawn(i);
        return wait_healthy(watchdog);
    }

    // Kills member i (SIGKILL, no goodbye to its peers) and reaps it.
    void kill(size_t i)
    {
        Member &m = members_[i];
        if (m.pid <= 0) return;
        ::kill(m.pid, SIGKILL);
        int status;
        waitpid(m.pid, &status, 0);
        m.pid = 0;
    }

    // "etcd://127.0.0.1:P,..." of every member, for Options::store.
    std::string store_url() const
    {
        std::string url = "etcd://";
        for (size_t i = 0; i < members_.size(); i++)
            url += (i ? ",127.0.0.1:" : "127.0.0.1:") + std::to_string(members_[i].client);
        return url;
    }

    // True once a linearizable read succeeds through every running member.
    bool wait_healthy(std::chrono::milliseconds watchdog)
    {
        auto until = std::chrono::steady_clock::now() + watchdog;
        for (size_t i = 0; i < members_.size(); i++) {
            if (members_[i].pid <= 0) continue;
            std::string cmd = program("etcdctl") + " --endpoints=127.0.0.1:" + std::to_string(members_[i].client) +
                              " --dial-timeout=1s --command-timeout=1s get health-probe >/dev/null 2>&1";
            while (system(cmd.c_str()) != 0)
                if (std::chrono::steady_clock::now() > until) return false;
        }
        return true;
    }

private:
    struct Member {
        int client = 0;                        // client port
        int peer = 0;                          // peer port
        pid_t pid = 0;                         // running process, or 0
    };

    // A port free at the time of the call: the kernel's choice for port 0.
    static int free_port()
    {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        int port = 0;
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
        close(fd);
        return port;
    }

    void spawn(size_t i)
    {
        std::string initial;
        for (size_t j = 0; j < members_.size(); j++)
            initial += (j ? ",m" : "m") + std::to_string(j) + "=http://127.0.0.1:" + std::to_string(members_[j].peer);
        std::string name = "m" + std::to_string(i);
        std::string client = "http://127.0.0.1:" + std::to_string(members_[i].client);
        std::string peer = "http://127.0.0.1:" + std::to_string(members_[i].peer);
        std::vector<std::string> args = {
            program("etcd"), "--name", name, "--data-dir", dir_ + "/" + name, "--listen-client-urls", client,
            "--advertise-client-urls", client, "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
            "--initial-cluster", initial, "--initial-cluster-token", dir_, "--max-request-bytes", "8388608",
            "--logger", "zap", "--log-outputs", dir_ + "/" + name + ".log"};
        std::vector<char *> argv;
        for (std::string &a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            // Not the test's output: the test's reader would wait for
            // the members' end.
            int null = open("/dev/null", O_RDWR);
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        members_[i].pid = pid;
    }

    std::string dir_;                          // the cluster's folder; empty when it could not be made
    std::vector<Member> members_;
};

#endif /* QEL_TESTS_ETCD_CLUSTER_H */
