#pragma once

// A TCP relay on a free loopback port that holds every byte for a fixed time
// in each direction before passing it on: a server that many milliseconds
// away, on a link with no bandwidth limit. The benchmark puts it between the
// measured client and the server to see what distance does to a sync.
//
// Each accepted connection is relayed to the target port by two pumps, one
// per direction, each a reader thread that stamps what it reads with its due
// time and a writer thread that sends it when due, in order. When one side
// closes, both are shut down. Not copyable: it owns its sockets and threads.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace jx {
namespace bench {

class DelayRelay {
public:
    // Listens on 127.0.0.1 in front of 127.0.0.1:`targetPort`; throws
    // std::runtime_error when it cannot.
    DelayRelay(int targetPort, std::chrono::milliseconds oneWay);
    // Closes the listener and every relayed connection and joins every thread.
    ~DelayRelay();
    DelayRelay(const DelayRelay&) = delete;  // owns sockets and threads
    DelayRelay& operator=(const DelayRelay&) = delete;

    // "127.0.0.1:<port>" of the relay.
    std::string ConnectString() const;

private:
    struct Pump;

    void Accept();
    void Read(Pump& pump);
    void Write(Pump& pump);

    const int m_target;
    const std::chrono::milliseconds m_delay;
    int m_listener = -1;
    int m_port = 0;
    std::thread m_acceptor;

    std::mutex m_mtx;  // guards the fields below and every pump's queue
    std::condition_variable m_cv;
    bool m_stopping = false;
    std::vector<std::unique_ptr<Pump>> m_pumps;
    std::vector<int> m_sockets;  // every relayed socket, shut down at the end
    std::vector<std::thread> m_threads;
};

}  // namespace bench
}  // namespace jx
