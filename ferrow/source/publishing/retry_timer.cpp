#include "publishing/retry_timer.h"

#include <condition_variable>
#include <mutex>
#include <queue>
#include <thread>
#include <utility>
#include <vector>

namespace jx {
namespace ferrow {
namespace details {
namespace {

class Timer {
public:
    void Add(std::chrono::steady_clock::time_point at, std::function<void()> task) {
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            if (!m_started) {
                // Detached: the timer lives as long as the process.
                std::thread([this] { Run(); }).detach();
                m_started = true;
            }
            m_tasks.push(Task{at, m_next++, std::move(task)});
        }
        m_wake.notify_one();
    }

private:
    struct Task {
        std::chrono::steady_clock::time_point at;
        std::uint64_t order;  // ties run in the order given
        std::function<void()> run;
        bool operator>(const Task& other) const { return at != other.at ? at > other.at : order > other.order; }
    };

    void Run() {
        std::unique_lock<std::mutex> lock(m_mtx);
        for (;;) {
            if (m_tasks.empty()) {
                m_wake.wait(lock);
                continue;
            }
            const auto at = m_tasks.top().at;
            if (std::chrono::steady_clock::now() < at) {
                m_wake.wait_until(lock, at);
                continue;
            }
            std::function<void()> task = std::move(const_cast<Task&>(m_tasks.top()).run);
            m_tasks.pop();
            // Run, and released, without the lock: a task may add another.
            lock.unlock();
            task();
            task = nullptr;
            lock.lock();
        }
    }

    std::mutex m_mtx;
    std::condition_variable m_wake;
    std::priority_queue<Task, std::vector<Task>, std::greater<Task>> m_tasks;  // guarded by m_mtx
    std::uint64_t m_next = 0;                                                  // guarded by m_mtx
    bool m_started = false;                                                    // guarded by m_mtx
};

}  // namespace

void RunAfter(std::chrono::milliseconds delay, std::function<void()> task) {
    // Never destroyed: its thread may still run while statics are torn down.
    static Timer* const timer = new Timer;
    timer->Add(std::chrono::steady_clock::now() + delay, std::move(task));
}

}  // namespace details
}  // namespace ferrow
}  // namespace jx
