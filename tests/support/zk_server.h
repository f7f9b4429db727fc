#pragma once

// Real ZooKeeper servers for integration tests: the Debian package's server
// (java -cp /usr/share/java/zookeeper.jar ... QuorumPeerMain) on loopback
// ports, each in a temporary directory of its own.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace jx {
namespace testing {

// A TCP port on 127.0.0.1 that was free when the call returned.
int FreeLoopbackPort();

// "127.0.0.1:<p1>,127.0.0.1:<p2>...", followed by `chroot` (e.g. "/app").
std::string MakeConnectString(const std::vector<int>& clientPorts, const std::string& chroot = "");

// One server process. Its configuration, data and log file (the server's
// stdout and stderr) live in a temporary directory removed by the destructor.
// The process is always ended by its id, with SIGKILL to its own process
// group: by Stop(), by the destructor (so also when a test fails) and by the
// kernel if the thread that started it dies. Not thread-safe.
class ZkServer {
public:
    struct Options {
        // Further zoo.cfg lines, e.g. "minSessionTimeout=20000".
        std::vector<std::string> extraConfig;
    };

    // A standalone server on a free port; not started yet.
    ZkServer();
    explicit ZkServer(Options options);
    ~ZkServer();
    ZkServer(const ZkServer&) = delete;  // owns a process and a directory
    ZkServer& operator=(const ZkServer&) = delete;

    // Starts the process and waits until it serves clients. Throws
    // std::runtime_error, with the tail of the server log, when it has not
    // within `deadline` or the process ended.
    void Start(std::chrono::seconds deadline = std::chrono::seconds(30));

    // Kills the process and reaps it; the data stays for the next Start,
    // which uses the same port. A no-op when not running.
    void Stop();

    // Freezes and thaws the process (SIGSTOP, SIGCONT): connections stay
    // open, nothing is answered.
    void Pause();
    void Resume();

    bool Running() const { return m_pid > 0; }
    // The server's role as "srvr" reports it ("leader", "follower",
    // "standalone"); empty when it does not answer or serves no clients.
    std::string Mode() const;
    int ClientPort() const { return m_clientPort; }
    std::string ConnectString(const std::string& chroot = "") const;
    const std::string& Directory() const { return m_dir; }
    // The last lines of the server log, for failure messages.
    std::string LogTail() const;

private:
    friend class ZkEnsemble;

    // A member of an ensemble: `serverLines` are the shared server.N lines.
    ZkServer(Options options, int myId, int clientPort, std::vector<std::string> serverLines);

    void WriteConfig() const;
    void Launch();
    // Waits until the server reports a mode ("srvr"); throws as Start.
    void WaitServing(std::chrono::steady_clock::time_point deadline);

    Options m_options;
    int m_myId = 0;  // 0: standalone
    int m_clientPort = 0;
    std::vector<std::string> m_serverLines;
    std::string m_dir;
    pid_t m_pid = -1;
};

// `size` servers on loopback forming one ensemble (distinct client, quorum
// and election ports, server.N=127.0.0.1:quorum:election, myid files).
class ZkEnsemble {
public:
    explicit ZkEnsemble(int size, ZkServer::Options options = ZkServer::Options());
    ZkEnsemble(const ZkEnsemble&) = delete;  // owns its servers
    ZkEnsemble& operator=(const ZkEnsemble&) = delete;

    // Starts every member, then waits until each one serves.
    void Start(std::chrono::seconds deadline = std::chrono::seconds(60));

    ZkServer& Server(size_t index) { return *m_servers.at(index); }
    size_t Size() const { return m_servers.size(); }
    std::string ConnectString(const std::string& chroot = "") const;

private:
    std::vector<std::unique_ptr<ZkServer>> m_servers;
};

}  // namespace testing
}  // namespace jx
