#pragma once

// Real ZooKeeper servers for integration tests: the Debian package's server
// (java -cp /usr/share/java/zookeeper.jar ... QuorumPeerMain) on loopback
// ports, each in a temporary directory of its own, and relays in front of
// them that can cut or reset the network path. Not thread-safe.

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace jx {
namespace testing {

// A TCP socket bound (port 0) or connected to `port` on 127.0.0.1, or -1.
inline int LoopbackSocket(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval timeout{2, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    const auto* address = reinterpret_cast<const sockaddr*>(&addr);
    if ((port == 0 ? ::bind(fd, address, sizeof(addr)) : ::connect(fd, address, sizeof(addr))) == 0) return fd;
    ::close(fd);
    return -1;
}

// A TCP port on 127.0.0.1 that was free when the call returned.
inline int FreeLoopbackPort() {
    const int fd = LoopbackSocket(0);
    sockaddr_in addr{};
    socklen_t length = sizeof(addr);
    if (fd < 0 || ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) throw std::runtime_error("no free port");
    ::close(fd);
    return ntohs(addr.sin_port);
}

// The answer of a four-letter command ("srvr", "wchs", ...) sent to the
// server on `port`; empty when it does not answer within a few seconds.
inline std::string FourLetterWord(int port, const std::string& command) {
    const int fd = LoopbackSocket(port);
    std::string answer;
    if (fd >= 0 && ::send(fd, command.data(), command.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(command.size())) {
        char buffer[4096];
        for (ssize_t n; (n = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;) answer.append(buffer, static_cast<size_t>(n));
    }
    if (fd >= 0) ::close(fd);
    return answer;
}

// Starts `argv` in a process group of its own with its output appended to
// `log`; the kernel kills it if the calling thread dies. Returns its id.
inline pid_t Spawn(const std::vector<std::string>& argv, const std::string& log) {
    // Everything the child needs is prepared before fork: between fork and
    // exec only async-signal-safe calls are allowed.
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(126);
        ::dup2(logFd, STDOUT_FILENO);
        ::dup2(logFd, STDERR_FILENO);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(logFd);
    if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    ::setpgid(pid, pid);  // also from here, so that Kill never races the child's own call
    return pid;
}

// Kills the process group of `pid` (a no-op when -1), reaps the process and
// sets `pid` to -1.
inline void Kill(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
}

// One server process. Its configuration, data and log (the server's output)
// live in a temporary directory that the destructor removes. The process is
// always ended by its id, with SIGKILL to its own process group: by Stop(),
// by the destructor (so also when a test fails) and by the kernel if the
// thread that started it dies. Not thread-safe.
class ZkServer {
public:
    // A standalone server on a free port, not started yet; `extraConfig` are
    // further zoo.cfg lines, e.g. "minSessionTimeout=20000".
    explicit ZkServer(const std::vector<std::string>& extraConfig = {})
        : m_dir((std::filesystem::temp_directory_path() / "ferrow-zk-XXXXXX").string()) {
        if (::mkdtemp(m_dir.data()) == nullptr) throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
        std::filesystem::create_directories(m_dir + "/data");
        std::ofstream cfg(m_dir + "/zoo.cfg");
        cfg << "tickTime=2000\ninitLimit=10\nsyncLimit=5\ndataDir=" << m_dir << "/data\nclientPort=" << m_clientPort
            << "\nclientPortAddress=127.0.0.1\nadmin.enableServer=false\n4lw.commands.whitelist=*\nforceSync=no\n"
            // TTL nodes, and container and TTL nodes deleted within a second
            // of becoming empty, for the tests of a service node's life.
            << "extendedTypesEnabled=true\n";
        for (const std::string& line : extraConfig) cfg << line << '\n';
    }
    ~ZkServer() {
        Stop();
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    ZkServer(const ZkServer&) = delete;  // owns a process and a directory
    ZkServer& operator=(const ZkServer&) = delete;

    // `size` servers on loopback forming one ensemble, not started yet.
    static std::vector<std::unique_ptr<ZkServer>> Ensemble(int size) {
        std::vector<std::string> lines;
        for (int id = 1; id <= size; ++id) {
            lines.push_back("server." + std::to_string(id) + "=127.0.0.1:" + std::to_string(FreeLoopbackPort()) + ":" +
                            std::to_string(FreeLoopbackPort()));
        }
        std::vector<std::unique_ptr<ZkServer>> servers;
        for (int id = 1; id <= size; ++id) {
            servers.push_back(std::make_unique<ZkServer>(lines));
            std::ofstream(servers.back()->m_dir + "/data/myid") << id << '\n';
        }
        return servers;
    }

    // Starts the process (a no-op when running) and waits until it serves
    // clients; throws std::runtime_error, with the server log, when it has
    // not within `deadline` or the process ended.
    void Start(std::chrono::seconds deadline = std::chrono::seconds(60)) {
        Launch();
        const bool serving = PollUntil([this] {
            if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = -1;
            return m_pid < 0 || !Mode().empty();
        }, deadline, std::chrono::milliseconds(50));
        if (serving && m_pid > 0) return;
        Stop();
        std::ostringstream log;
        log << std::ifstream(m_dir + "/server.log").rdbuf();
        throw std::runtime_error("ZooKeeper server did not start; its log:\n" + log.str());
    }
    // Starts the process without waiting (a no-op when running): members of
    // an ensemble serve only once enough of them run.
    void Launch() {
        if (Running()) return;
        m_pid = Spawn({"java", "-Xmx256m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                       "-Dznode.container.checkIntervalMs=200", "-cp", "/usr/share/java/zookeeper.jar",
                       "org.apache.zookeeper.server.quorum.QuorumPeerMain", m_dir + "/zoo.cfg"},
                      m_dir + "/server.log");
    }
    // Kills the process and reaps it; the data stays for the next Start, on
    // the same port. A no-op when not running.
    void Stop() { Kill(m_pid); }
    bool Running() const { return m_pid > 0; }
    // The role "srvr" reports ("leader", "follower", "standalone"); empty
    // when the server does not answer or serves no clients.
    std::string Mode() const {
        const std::string answer = FourLetterWord(m_clientPort, "srvr");
        const size_t at = answer.find("Mode: ");
        return at == std::string::npos ? std::string() : answer.substr(at + 6, answer.find('\n', at) - at - 6);
    }
    int ClientPort() const { return m_clientPort; }
    std::string ConnectString() const { return "127.0.0.1:" + std::to_string(m_clientPort); }

private:
    int m_clientPort = FreeLoopbackPort();
    std::string m_dir;
    pid_t m_pid = -1;
};

// A TCP relay (socat, forking one process per connection) on a free
// loopback port in front of `targetPort`. Blackhole freezes the relay and
// every connection through it, open as they are: no byte passes either way
// until Heal, as at a cut cable (connections attempted meanwhile are
// accepted by the kernel and get no answer). Cut closes every connection
// through it at once, both ends seeing theirs end, and leaves it frozen
// like Blackhole until Heal: the clients cannot reconnect meanwhile. Reset
// kills it, closing every connection, and starts it again on the same
// port. Not thread-safe.
class Relay {
public:
    explicit Relay(int targetPort) : m_target(targetPort) { Reset(); }
    ~Relay() { Kill(m_pid); }
    Relay(const Relay&) = delete;  // owns a process
    Relay& operator=(const Relay&) = delete;

    void Blackhole() const { ::kill(-m_pid, SIGSTOP); }
    void Cut() const {
        Blackhole();
        // The listener's children each carry one connection; the listener,
        // stopped, accepts nothing until Heal.
        std::ifstream children("/proc/" + std::to_string(m_pid) + "/task/" + std::to_string(m_pid) + "/children");
        for (pid_t child; children >> child;) ::kill(child, SIGKILL);
    }
    void Heal() const { ::kill(-m_pid, SIGCONT); }
    // Throws std::runtime_error when the relay does not listen within 10 s.
    void Reset() {
        Kill(m_pid);
        m_pid = Spawn({"socat", "TCP-LISTEN:" + std::to_string(m_port) + ",bind=127.0.0.1,reuseaddr,fork",
                       "TCP:127.0.0.1:" + std::to_string(m_target)},
                      "/dev/null");
        const auto listening = [this] {
            const int fd = LoopbackSocket(m_port);
            if (fd >= 0) ::close(fd);
            return fd >= 0;
        };
        if (!PollUntil(listening, std::chrono::seconds(10))) throw std::runtime_error("the relay does not listen");
    }
    std::string ConnectString() const { return "127.0.0.1:" + std::to_string(m_port); }

private:
    const int m_target;
    const int m_port = FreeLoopbackPort();
    pid_t m_pid = -1;
};

}  // namespace testing
}  // namespace jx
