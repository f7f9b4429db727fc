#pragma once

// The delivery thread of a ZooKeeperConnection: a FIFO of callbacks run one at
// a time by one thread.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

namespace jx {
namespace ferrow {
namespace details {

// Logs the exception being handled (call only inside a catch block) at
// JXLOG_ERROR with its text.
void LogCallbackFailure();

// Runs `func`; an exception it throws is logged and swallowed. Returns
// whether it threw.
template <typename Func>
bool RunGuarded(Func&& func) {
    try {
        func();
        return false;
    } catch (...) {
        LogCallbackFailure();
        return true;
    }
}

// Thread-safe. Items are tagged with the session generation that produced
// them: an item whose generation is no longer current when its turn comes is
// dropped, unless it was pushed with `always` (results must be delivered).
// Owned by the connection and by the delivery thread through shared_ptr, so
// the thread may outlive the connection while it finishes its last item.
class DeliveryQueue {
public:
    DeliveryQueue() = default;
    DeliveryQueue(const DeliveryQueue&) = delete;  // shared by identity
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

    // Appends an item. After Stop the item is destroyed at once, unrun.
    void Push(std::uint64_t generation, bool always, std::function<void()> func);

    // Items of any other generation, except `always` ones, are dropped from
    // now on; 0 drops them all.
    void SetGeneration(std::uint64_t generation) { m_generation.store(generation); }

    // Makes Run return once the item it is running (if any) has returned.
    // Never waits.
    void Stop();

    // The delivery thread's body: runs items in order until Stop, catching
    // and logging what they throw. Items left at the end are destroyed unrun.
    static void Run(std::shared_ptr<DeliveryQueue> queue);

    // Exceptions items let escape, for the metrics; also counted by whoever
    // guards a callback of its own on the delivery thread.
    std::atomic<std::uint64_t> m_exceptions{0};

private:
    struct Item {
        std::uint64_t generation = 0;
        bool always = false;
        std::function<void()> func;
    };

    // Waits for the next item; returns false once stopped.
    bool Pop(Item& item);

    std::mutex m_mtx;
    std::condition_variable m_cv;
    std::deque<Item> m_items;  // guarded by m_mtx
    bool m_stopped = false;    // guarded by m_mtx
    std::atomic<std::uint64_t> m_generation{0};
};

}  // namespace details
}  // namespace ferrow
}  // namespace jx
