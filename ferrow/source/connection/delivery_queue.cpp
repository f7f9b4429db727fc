#include "connection/delivery_queue.h"

#include <stdexcept>
#include <utility>

#include "logger/logger.h"

namespace jx {
namespace ferrow {
namespace details {

namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.connection");

}  // namespace

void LogCallbackFailure() {
    try {
        throw;
    } catch (const std::exception& e) {
        JXLOG(logging::JXLOG_ERROR, g_log) << "Callback threw: " << e.what();
    } catch (...) {
        JXLOG(logging::JXLOG_ERROR, g_log) << "Callback threw: unknown exception";
    }
}

void DeliveryQueue::Push(std::uint64_t generation, bool always, std::function<void()> func) {
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (!m_stopped) {
            m_items.push_back(Item{generation, always, std::move(func)});
            m_cv.notify_one();
            return;
        }
    }
    // Stopped: `func` is destroyed here, outside the lock.
}

void DeliveryQueue::Stop() {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_stopped = true;
    m_cv.notify_one();
}

bool DeliveryQueue::Pop(Item& item) {
    std::unique_lock<std::mutex> lock(m_mtx);
    m_cv.wait(lock, [this] { return m_stopped || !m_items.empty(); });
    if (m_stopped) return false;
    item = std::move(m_items.front());
    m_items.pop_front();
    return true;
}

void DeliveryQueue::Run(std::shared_ptr<DeliveryQueue> queue) {
    for (;;) {
        // Destroyed at the end of each turn, with no lock held: an item may
        // hold the last reference to the connection.
        Item item;
        if (!queue->Pop(item)) break;
        if (!item.always && item.generation != queue->m_generation.load()) continue;
        if (RunGuarded(item.func)) queue->m_exceptions.fetch_add(1, std::memory_order_relaxed);
    }
    std::deque<Item> left;
    {
        std::lock_guard<std::mutex> lock(queue->m_mtx);
        left.swap(queue->m_items);
    }
}

}  // namespace details
}  // namespace ferrow
}  // namespace jx
