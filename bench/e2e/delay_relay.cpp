#include "delay_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace jx {
namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Small writes go out at once: the relay's delay is the only one wanted.
void NoDelay(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool SendAll(int fd, const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

// One direction of one relayed connection.
struct DelayRelay::Pump {
    int from = -1;
    int to = -1;
    std::deque<std::pair<Clock::time_point, std::string>> due;  // guarded by the relay's m_mtx
    bool ended = false;                                         // guarded by the relay's m_mtx
};

DelayRelay::DelayRelay(int targetPort, std::chrono::milliseconds oneWay) : m_target(targetPort), m_delay(oneWay) {
    m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, 16) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const std::string why = std::strerror(errno);
        if (m_listener >= 0) ::close(m_listener);
        throw std::runtime_error("delay relay: cannot listen on loopback: " + why);
    }
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread(&DelayRelay::Accept, this);
}

DelayRelay::~DelayRelay() {
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_stopping = true;
        for (const int fd : m_sockets) ::shutdown(fd, SHUT_RDWR);
    }
    m_cv.notify_all();
    ::shutdown(m_listener, SHUT_RDWR);
    m_acceptor.join();
    // No thread is started any more: the acceptor has ended.
    for (std::thread& thread : m_threads) thread.join();
    for (const int fd : m_sockets) ::close(fd);
    ::close(m_listener);
}

std::string DelayRelay::ConnectString() const { return "127.0.0.1:" + std::to_string(m_port); }

void DelayRelay::Accept() {
    for (;;) {
        const int client = ::accept(m_listener, nullptr, nullptr);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;  // shut down
        }
        const int server = ::socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in target = Loopback(m_target);
        if (server < 0 || ::connect(server, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
            ::close(client);
            if (server >= 0) ::close(server);
            continue;  // the client sees its connection closed, as with a server down
        }
        NoDelay(client);
        NoDelay(server);
        std::lock_guard<std::mutex> lock(m_mtx);
        m_sockets.push_back(client);
        m_sockets.push_back(server);
        if (m_stopping) {
            ::shutdown(client, SHUT_RDWR);
            ::shutdown(server, SHUT_RDWR);
            continue;
        }
        for (const auto& [from, to] : {std::pair{client, server}, std::pair{server, client}}) {
            m_pumps.push_back(std::make_unique<Pump>());
            Pump& pump = *m_pumps.back();
            pump.from = from;
            pump.to = to;
            m_threads.emplace_back(&DelayRelay::Read, this, std::ref(pump));
            m_threads.emplace_back(&DelayRelay::Write, this, std::ref(pump));
        }
    }
}

void DelayRelay::Read(Pump& pump) {
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::recv(pump.from, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        std::lock_guard<std::mutex> lock(m_mtx);
        if (n <= 0) {
            pump.ended = true;
            m_cv.notify_all();
            return;
        }
        pump.due.emplace_back(Clock::now() + m_delay, std::string(buffer, static_cast<size_t>(n)));
        m_cv.notify_all();
    }
}

void DelayRelay::Write(Pump& pump) {
    std::unique_lock<std::mutex> lock(m_mtx);
    for (;;) {
        if (m_stopping) return;
        if (pump.due.empty()) {
            if (pump.ended) break;
            m_cv.wait(lock);
            continue;
        }
        if (Clock::now() < pump.due.front().first) {
            m_cv.wait_until(lock, pump.due.front().first);
            continue;
        }
        std::string bytes = std::move(pump.due.front().second);
        pump.due.pop_front();
        lock.unlock();
        const bool sent = SendAll(pump.to, bytes);
        lock.lock();
        if (!sent) break;
    }
    // One side is gone: the other learns it, as it would from a real peer.
    ::shutdown(pump.to, SHUT_RDWR);
    ::shutdown(pump.from, SHUT_RDWR);
}

}  // namespace bench
}  // namespace jx
