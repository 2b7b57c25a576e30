/*
 * etcd_cluster.h - an etcd cluster started by a test: each member a child
 * process on 127.0.0.1 with ports chosen at run time, its data and log under
 * a fresh temporary directory (in /dev/shm when there is one, so that fsyncs
 * cost nothing), removed with the cluster. Readiness is polled with etcdctl,
 * each poll bounded by its own timeouts and all by the caller's watchdog.
 * Owning thread only.
 */
#ifndef QEL_TESTS_ETCD_CLUSTER_H
#define QEL_TESTS_ETCD_CLUSTER_H

#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

class EtcdCluster {
public:
    // etcd and etcdctl are on the PATH.
    static bool installed() { return system("command -v etcd >/dev/null && command -v etcdctl >/dev/null") == 0; }

    explicit EtcdCluster(int members) : members_(members)
    {
        std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
        dir += "/qel-etcd-XXXXXX";
        if (mkdtemp(&dir[0]) != nullptr) dir_ = dir;
        for (Member &m : members_) m = Member{free_port(), free_port(), 0};
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
    // linearizable read succeeds through each of them. False when it did not.
    bool start(std::chrono::milliseconds watchdog)
    {
        if (dir_.empty()) return false;
        auto until = std::chrono::steady_clock::now() + watchdog;
        for (size_t i = 0; i < members_.size(); i++)
            if (members_[i].pid <= 0) spawn(i);
        for (const Member &m : members_) {
            std::string probe = "etcdctl --endpoints=127.0.0.1:" + std::to_string(m.client) +
                                " --dial-timeout=1s --command-timeout=1s get health-probe >/dev/null 2>&1";
            while (system(probe.c_str()) != 0)
                if (std::chrono::steady_clock::now() > until) return false;
        }
        return true;
    }

    // Kills member i (SIGKILL, no goodbye to its peers) and reaps it.
    void kill(size_t i)
    {
        if (members_[i].pid <= 0) return;
        ::kill(members_[i].pid, SIGKILL);
        waitpid(members_[i].pid, nullptr, 0);
        members_[i].pid = 0;
    }

    // "etcd://127.0.0.1:P,..." of every member, for Options::store.
    std::string store_url() const
    {
        std::string url = "etcd://";
        for (const Member &m : members_)
            url += (url.size() > 7 ? ",127.0.0.1:" : "127.0.0.1:") + std::to_string(m.client);
        return url;
    }

private:
    struct Member {
        int client;                            // client port
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

    // Member i in a child process whose output goes to its log, not to the
    // test's: the test's reader would wait for the members' end.
    void spawn(size_t i)
    {
        std::string initial, name = "m" + std::to_string(i);
        for (size_t j = 0; j < members_.size(); j++)
            initial += (j ? ",m" : "m") + std::to_string(j) + "=http://127.0.0.1:" + std::to_string(members_[j].peer);
        std::string client = "http://127.0.0.1:" + std::to_string(members_[i].client);
        std::string peer = "http://127.0.0.1:" + std::to_string(members_[i].peer);
        std::string cmd = "exec etcd --name " + name + " --data-dir " + dir_ + "/" + name +
                          " --listen-client-urls " + client + " --advertise-client-urls " + client +
                          " --listen-peer-urls " + peer + " --initial-advertise-peer-urls " + peer +
                          " --initial-cluster " + initial + " --initial-cluster-token " + dir_ +
                          " --max-request-bytes 8388608 </dev/null >/dev/null 2>>" + dir_ + "/" + name + ".log";
        pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        members_[i].pid = pid;
    }

    std::string dir_;                          // the cluster's folder; empty when it could not be made
    std::vector<Member> members_;
};

#endif /* QEL_TESTS_ETCD_CLUSTER_H */
