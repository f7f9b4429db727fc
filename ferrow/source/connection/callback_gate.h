#pragma once

// Lets the callbacks of one object in until the object is closed, and lets
// the closer wait for the callbacks already inside on other threads.

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace jx {
namespace ferrow {

// Thread-safe. The gate must outlive every Pass it hands out: its owner
// keeps itself alive for as long as a callback runs.
class CallbackGate {
public:
    // One callback's passage through the gate, left when destroyed. Empty
    // (false) when the gate was closed: the callback must do nothing.
    class Pass {
    public:
        Pass() = default;
        Pass(Pass&& other) noexcept : m_gate(std::exchange(other.m_gate, nullptr)) {}
        Pass& operator=(Pass&&) = delete;  // a passage is not handed over
        ~Pass() {
            if (m_gate != nullptr) m_gate->Leave();
        }
        explicit operator bool() const { return m_gate != nullptr; }

    private:
        friend class CallbackGate;
        explicit Pass(CallbackGate* gate) : m_gate(gate) {}

        CallbackGate* m_gate = nullptr;
    };

    Pass Enter() {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_closed) return Pass();
        m_inside.push_back(std::this_thread::get_id());
        return Pass(this);
    }

    // Turns away every callback from now on, then waits until those inside
    // on other threads have left. Returns false, without waiting for them,
    // when the calling thread is inside a callback itself.
    bool Close() {
        const std::thread::id me = std::this_thread::get_id();
        std::unique_lock<std::mutex> lock(m_mtx);
        m_closed = true;
        m_cv.wait(lock, [&] { return std::all_of(m_inside.begin(), m_inside.end(), [&](std::thread::id id) { return id == me; }); });
        return m_inside.empty();
    }

private:
    void Leave() {
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            m_inside.erase(std::find(m_inside.begin(), m_inside.end(), std::this_thread::get_id()));
        }
        m_cv.notify_all();
    }

    std::mutex m_mtx;  // leaf lock: guards the two fields below
    std::condition_variable m_cv;
    bool m_closed = false;
    std::vector<std::thread::id> m_inside;  // one entry per callback inside
};

}  // namespace ferrow
}  // namespace jx
