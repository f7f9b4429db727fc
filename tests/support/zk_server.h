#pragma once

// Real ZooKeeper servers for integration tests: the Debian package's server
// (java -cp /usr/share/java/zookeeper.jar ... QuorumPeerMain) on loopback
// ports, each in a temporary directory of its own. Not thread-safe.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace jx {
namespace testing {

// A TCP port on 127.0.0.1 that was free when the call returned.
int FreeLoopbackPort();

// The answer of a four-letter command ("srvr", "wchs", ...) sent to the
// server on `port`; empty when it does not answer within a few seconds.
std::string FourLetterWord(int port, const std::string& command);

// One server process. Its configuration, data and log (the server's output)
// live in a temporary directory that the destructor removes. The process is
// always ended by its id, with SIGKILL to its own process group: by Stop(),
// by the destructor (so also when a test fails) and by the kernel if the
// thread that started it dies.
class ZkServer {
public:
    // A standalone server on a free port, not started yet; `extraConfig` are
    // further zoo.cfg lines, e.g. "minSessionTimeout=20000".
    explicit ZkServer(const std::vector<std::string>& extraConfig = {});
    ~ZkServer();
    ZkServer(const ZkServer&) = delete;  // owns a process and a directory
    ZkServer& operator=(const ZkServer&) = delete;

    // Starts the process (a no-op when running) and waits until it serves
    // clients; throws std::runtime_error, with the end of the server log,
    // when it has not within `deadline` or the process ended.
    void Start(std::chrono::seconds deadline = std::chrono::seconds(60));
    // Starts the process without waiting (a no-op when running): members of
    // an ensemble serve only once enough of them run.
    void Launch();
    // Kills the process and reaps it; the data stays for the next Start, on
    // the same port. A no-op when not running.
    void Stop();
    // Freezes and thaws the process (SIGSTOP, SIGCONT): connections stay
    // open, nothing is answered. Pause returns once every thread stopped.
    void Pause();
    void Resume();

    bool Running() const { return m_pid > 0; }
    // The role "srvr" reports ("leader", "follower", "standalone"); empty
    // when the server does not answer or serves no clients.
    std::string Mode() const;
    int ClientPort() const { return m_clientPort; }
    std::string ConnectString() const { return "127.0.0.1:" + std::to_string(m_clientPort); }

    // `size` servers on loopback forming one ensemble, not started yet.
    static std::vector<std::unique_ptr<ZkServer>> Ensemble(int size);

private:

    int m_clientPort = FreeLoopbackPort();
    std::string m_dir;
    pid_t m_pid = -1;
};

}  // namespace testing
}  // namespace jx
