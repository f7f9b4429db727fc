#pragma once

// Counters that many threads increment at once without sharing a cache line:
// each thread adds to a slot of its own, and a reader sums the slots.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace jx {

namespace details {

// The slot index of the calling thread: below `kOwnedSlots`, one no other
// living thread holds (an index is handed back when its thread ends, and
// handed out again under a lock, so the next owner sees every count the last
// one made); kOwnedSlots once that many threads hold one.
inline constexpr std::size_t kOwnedSlots = 32;

class SlotIndex {
public:
    SlotIndex() {
        std::lock_guard<std::mutex> lock(Mutex());
        std::vector<std::size_t>& free = Free();
        if (!free.empty()) {
            m_index = free.back();
            free.pop_back();
        } else if (Next() < kOwnedSlots) {
            m_index = Next()++;
        }
    }
    ~SlotIndex() {
        if (m_index == kOwnedSlots) return;
        std::lock_guard<std::mutex> lock(Mutex());
        Free().push_back(m_index);
    }
    SlotIndex(const SlotIndex&) = delete;
    SlotIndex& operator=(const SlotIndex&) = delete;

    std::size_t Get() const { return m_index; }

private:
    // Never destroyed: threads may end while the process exits.
    static std::mutex& Mutex() {
        static std::mutex* const mtx = new std::mutex;
        return *mtx;
    }
    static std::vector<std::size_t>& Free() {
        static std::vector<std::size_t>* const free = new std::vector<std::size_t>;
        return *free;
    }
    static std::size_t& Next() {
        static std::size_t next = 0;
        return next;
    }

    std::size_t m_index = kOwnedSlots;
};

// The first call of a thread takes an index, handed back when the thread
// ends; the others read a variable that needs no initialization check.
inline std::size_t AssignSlot() {
    thread_local const SlotIndex index;
    return index.Get();
}

inline std::size_t ThisThreadSlot() {
    constexpr std::size_t kUnassigned = static_cast<std::size_t>(-1);
    thread_local std::size_t slot = kUnassigned;
    if (slot == kUnassigned) slot = AssignSlot();
    return slot;
}

}  // namespace details

// `Kinds` counters (at most 8), each the sum of per-thread slots. Add costs
// a thread that owns its slot a load and a store on a line no other thread
// writes, nor the line paired with it (processors fetch lines in pairs: two
// threads writing neighbouring lines slow each other down nearly as much
// as sharing one); the threads beyond details::kOwnedSlots share one slot and add
// atomically. Add and Sum may be called from any thread at once.
template <std::size_t Kinds>
class ThreadCounts {
    static_assert(Kinds >= 1 && Kinds <= 8, "one cache line of counters per slot");


public:
    void Add(std::size_t kind) {
        const std::size_t slot = details::ThisThreadSlot();
        std::atomic<std::uint64_t>& count = m_slots[slot].counts[kind];
        if (slot == details::kOwnedSlots) {
            count.fetch_add(1, std::memory_order_relaxed);
        } else {
            count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        }
    }

    std::uint64_t Sum(std::size_t kind) const {
        std::uint64_t sum = 0;
        for (const Slot& slot : m_slots) sum += slot.counts[kind].load(std::memory_order_relaxed);
        return sum;
    }

private:
    struct alignas(128) Slot {
        std::atomic<std::uint64_t> counts[Kinds] = {};
    };
    Slot m_slots[details::kOwnedSlots + 1];
};

}  // namespace jx
