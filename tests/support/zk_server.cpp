#include "tests/support/zk_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace jx {
namespace testing {

namespace {

const char* const kServerJar = "/usr/share/java/zookeeper.jar";

sockaddr_in Loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// Sends a four-letter command and returns the whole answer; empty when the
// server does not accept or answer within a few seconds.
std::string FourLetterWord(int port, const char* command) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::string();
    timeval timeout{2, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    std::string answer;
    const sockaddr_in addr = Loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0 &&
        ::send(fd, command, std::strlen(command), MSG_NOSIGNAL) == static_cast<ssize_t>(std::strlen(command))) {
        char buffer[4096];
        for (ssize_t n; (n = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;) answer.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return answer;
}

std::string MakeTempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ferrow-zk-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
    }
    return pattern;
}

}  // namespace

int FreeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket failed");
    sockaddr_in addr = Loopback(0);
    socklen_t length = sizeof(addr);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot bind a loopback port");
    }
    ::close(fd);
    return ntohs(addr.sin_port);
}

std::string MakeConnectString(const std::vector<int>& clientPorts, const std::string& chroot) {
    std::string result;
    for (int port : clientPorts) {
        if (!result.empty()) result += ',';
        result += "127.0.0.1:" + std::to_string(port);
    }
    return result + chroot;
}

ZkServer::ZkServer() : ZkServer(Options()) {}

ZkServer::ZkServer(Options options) : ZkServer(std::move(options), 0, FreeLoopbackPort(), {}) {}

ZkServer::ZkServer(Options options, int myId, int clientPort, std::vector<std::string> serverLines)
    : m_options(std::move(options)),
      m_myId(myId),
      m_clientPort(clientPort),
      m_serverLines(std::move(serverLines)),
      m_dir(MakeTempDir()) {
    std::filesystem::create_directories(m_dir + "/data");
    if (m_myId != 0) std::ofstream(m_dir + "/data/myid") << m_myId << '\n';
    WriteConfig();
}

ZkServer::~ZkServer() {
    Stop();
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

void ZkServer::WriteConfig() const {
    std::ofstream cfg(m_dir + "/zoo.cfg");
    cfg << "tickTime=2000\n"
        << "initLimit=10\n"
        << "syncLimit=5\n"
        << "dataDir=" << m_dir << "/data\n"
        << "clientPort=" << m_clientPort << "\n"
        << "clientPortAddress=127.0.0.1\n"
        << "admin.enableServer=false\n"
        << "4lw.commands.whitelist=*\n"
        << "forceSync=no\n";
    for (const std::string& line : m_serverLines) cfg << line << '\n';
    for (const std::string& line : m_options.extraConfig) cfg << line << '\n';
}

void ZkServer::Start(std::chrono::seconds deadline) {
    Launch();
    WaitServing(std::chrono::steady_clock::now() + deadline);
}

void ZkServer::Launch() {
    if (Running()) return;
    // Everything the child needs is prepared before fork: between fork and
    // exec only async-signal-safe calls are allowed.
    const std::string cfg = m_dir + "/zoo.cfg";
    const std::string log = m_dir + "/server.log";
    std::vector<std::string> args = {"java",
                                     "-Xmx256m",
                                     "-XX:+UseSerialGC",
                                     "-XX:TieredStopAtLevel=1",
                                     "-Djava.awt.headless=true",
                                     "-cp",
                                     kServerJar,
                                     "org.apache.zookeeper.server.quorum.QuorumPeerMain",
                                     cfg};
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (logFd < 0) throw std::runtime_error("cannot open " + log);
    const pid_t parent = ::getpid();

    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(126);
        ::dup2(logFd, STDOUT_FILENO);
        ::dup2(logFd, STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(logFd);
    if (pid < 0) throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
    ::setpgid(pid, pid);  // also from here, so that Stop never races the child's own call
    m_pid = pid;
}

void ZkServer::WaitServing(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        if (FourLetterWord(m_clientPort, "srvr").find("Mode: ") != std::string::npos) return;
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            throw std::runtime_error("ZooKeeper server exited during start-up:\n" + LogTail());
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            const std::string tail = LogTail();
            Stop();
            throw std::runtime_error("ZooKeeper server did not start in time:\n" + tail);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void ZkServer::Stop() {
    if (!Running()) return;
    ::kill(-m_pid, SIGKILL);
    ::kill(m_pid, SIGKILL);
    while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
}

namespace {

// True when every thread of `pid` is stopped ('T' in its stat line).
bool AllThreadsStopped(pid_t pid) {
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::ifstream stat(task.path() / "stat");
        std::string line;
        std::getline(stat, line);
        const size_t close = line.rfind(')');
        if (close == std::string::npos || close + 2 >= line.size() || line[close + 2] != 'T') return false;
    }
    return !error;
}

}  // namespace

void ZkServer::Pause() {
    if (!Running()) return;
    ::kill(-m_pid, SIGSTOP);
    // The signal is delivered asynchronously: a request sent right after
    // kill() returns could still be answered.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!AllThreadsStopped(m_pid)) {
        if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("server did not stop on SIGSTOP");
        std::this_thread::yield();
    }
}

void ZkServer::Resume() {
    if (Running()) ::kill(-m_pid, SIGCONT);
}

std::string ZkServer::Mode() const {
    const std::string answer = FourLetterWord(m_clientPort, "srvr");
    const size_t at = answer.find("Mode: ");
    if (at == std::string::npos) return std::string();
    const size_t begin = at + std::strlen("Mode: ");
    return answer.substr(begin, answer.find('\n', begin) - begin);
}

std::string ZkServer::ConnectString(const std::string& chroot) const {
    return MakeConnectString({m_clientPort}, chroot);
}

std::string ZkServer::LogTail() const {
    std::ifstream in(m_dir + "/server.log");
    std::deque<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
        if (lines.size() > 40) lines.pop_front();
    }
    std::string tail;
    for (const std::string& line : lines) tail += line + '\n';
    return tail;
}

ZkEnsemble::ZkEnsemble(int size, ZkServer::Options options) {
    struct Ports {
        int client, quorum, election;
    };
    std::vector<int> taken;
    auto distinctPort = [&taken] {
        for (;;) {
            const int port = FreeLoopbackPort();
            if (std::find(taken.begin(), taken.end(), port) == taken.end()) {
                taken.push_back(port);
                return port;
            }
        }
    };
    std::vector<Ports> ports;
    std::vector<std::string> serverLines;
    for (int id = 1; id <= size; ++id) {
        ports.push_back({distinctPort(), distinctPort(), distinctPort()});
        serverLines.push_back("server." + std::to_string(id) + "=127.0.0.1:" + std::to_string(ports.back().quorum) +
                              ":" + std::to_string(ports.back().election));
    }
    for (int id = 1; id <= size; ++id) {
        m_servers.emplace_back(new ZkServer(options, id, ports[static_cast<size_t>(id - 1)].client, serverLines));
    }
}

void ZkEnsemble::Start(std::chrono::seconds deadline) {
    const auto until = std::chrono::steady_clock::now() + deadline;
    for (auto& server : m_servers) server->Launch();
    for (auto& server : m_servers) server->WaitServing(until);
}

std::string ZkEnsemble::ConnectString(const std::string& chroot) const {
    std::vector<int> clientPorts;
    for (const auto& server : m_servers) clientPorts.push_back(server->ClientPort());
    return MakeConnectString(clientPorts, chroot);
}

}  // namespace testing
}  // namespace jx
