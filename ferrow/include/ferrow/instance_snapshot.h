#pragma once

// What a ServiceCache holds: every known instance of one service, as an
// immutable snapshot that any thread may read for as long as it holds it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <string_view>
#include <vector>

#include "ferrow/service_watcher_observer.h"
#include "utility/string.h"
#include "utility/uuid_hash.h"

namespace jx {
namespace ferrow {

class CachedInstance;
using InstancePtr = std::shared_ptr<const CachedInstance>;

// One instance as the cache knows it: its id, the fields that choosing and
// calling need at hand, and the whole record in its compact serialized form,
// decoded on demand: about 100 bytes beyond the serialized record, where a
// decoded record alone takes five times the serialized size. Immutable: a
// change of record makes a new CachedInstance, so a pointer to one never sees
// its record change. Any thread may read one it holds.
class CachedInstance {
    struct Key;  // only Make constructs

public:
    // Encodes `record` into a new instance.
    static InstancePtr Make(const ServiceId& id, const ServiceInstanceData& record);

    const ServiceId& Id() const { return m_id; }
    // Host and zone are views into this instance's own bytes: valid for as
    // long as the instance is held, like every snapshot entry.
    std::string_view Host() const { return View(m_host); }
    std::uint32_t Port() const { return m_port; }
    std::string_view Zone() const { return View(m_zone); }
    std::uint32_t Weight() const { return m_weight; }
    // Whether `other` holds the same record, byte for byte.
    bool SameRecordAs(const CachedInstance& other) const { return m_bytes == other.m_bytes; }

    // The whole record, decoded anew by each call (about a microsecond and a
    // few allocations): for metadata and the other fields, not for every
    // request.
    ServiceInstanceData Record() const;

    // For Make only (through std::make_shared).
    CachedInstance(Key, const ServiceId& id, const ServiceInstanceData& record);
    CachedInstance(const CachedInstance&) = delete;  // shared by pointer, never copied
    CachedInstance& operator=(const CachedInstance&) = delete;

private:
    // A field of the serialized record, by offset and size.
    struct Span {
        std::uint32_t offset = 0;
        std::uint32_t size = 0;
    };
    std::string_view View(Span span) const { return std::string_view(m_bytes.data() + span.offset, span.size); }

    const ServiceId m_id;
    const String m_bytes;
    const std::uint32_t m_port;
    const std::uint32_t m_weight;
    Span m_host;
    Span m_zone;
};

class InstanceTable;

// The instances of a service at one moment, in no particular order; the
// order changes from one snapshot to the next. Immutable and thread-safe.
// Snapshots share the instances they have in common: holding one costs a
// reference, not a copy, and keeps its instances alive.
class InstanceSnapshot {
public:
    // The number of entries per shared block: an update copies one or two
    // blocks and the list of blocks, never the whole snapshot.
    static constexpr std::size_t kBlockSize = 64;
    using Block = std::array<InstancePtr, kBlockSize>;

    // An empty snapshot, version 0.
    InstanceSnapshot() = default;

    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    // The entry at `index`, which must be below size(). Constant time.
    const InstancePtr& operator[](std::size_t index) const {
        return (*m_blocks[index / kBlockSize])[index % kBlockSize];
    }
    // The instance with `id`, or null. The first Find of a snapshot indexes
    // it (linear in size(), about 40 bytes per instance, kept as long as the
    // snapshot); every later one takes constant time, on any thread.
    [[nodiscard]] InstancePtr Find(const ServiceId& id) const;

    // Grows by one with every change the cache applies; equal versions of one
    // cache's snapshots mean equal contents.
    std::uint64_t Version() const { return m_version; }

    // Forward iteration over the entries, for range-for and the standard
    // algorithms. Valid while the snapshot is held.
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = InstancePtr;
        using difference_type = std::ptrdiff_t;
        using pointer = const InstancePtr*;
        using reference = const InstancePtr&;

        Iterator() = default;
        Iterator(const InstanceSnapshot& snapshot, std::size_t index) : m_snapshot(&snapshot), m_index(index) {}
        reference operator*() const { return (*m_snapshot)[m_index]; }
        pointer operator->() const { return &**this; }
        Iterator& operator++() {
            ++m_index;
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++m_index;
            return before;
        }
        bool operator==(const Iterator& other) const { return m_index == other.m_index; }
        bool operator!=(const Iterator& other) const { return m_index != other.m_index; }

    private:
        const InstanceSnapshot* m_snapshot = nullptr;
        std::size_t m_index = 0;
    };
    Iterator begin() const { return Iterator(*this, 0); }
    Iterator end() const { return Iterator(*this, m_size); }

private:
    friend class InstanceTable;
    InstanceSnapshot(std::vector<std::shared_ptr<const Block>> blocks, std::size_t size, std::uint64_t version)
        : m_blocks(std::move(blocks)), m_size(size), m_version(version) {}

    std::vector<std::shared_ptr<const Block>> m_blocks;
    std::size_t m_size = 0;
    std::uint64_t m_version = 0;
    // Built by the first Find: each id's position.
    mutable std::once_flag m_indexed;
    mutable std::unique_ptr<const std::unordered_map<ServiceId, std::size_t>> m_index;
};

// A snapshot held: shares ownership of an InstanceSnapshot (copying one
// copies a pointer) and reads as the snapshot itself, so that
// `for (const InstancePtr& instance : cache.Snapshot())` keeps the snapshot
// alive for the whole loop. Null only when default-constructed.
class SnapshotPtr {
public:
    SnapshotPtr() = default;
    SnapshotPtr(std::shared_ptr<const InstanceSnapshot> snapshot) : m_snapshot(std::move(snapshot)) {}

    const InstanceSnapshot& operator*() const { return *m_snapshot; }
    const InstanceSnapshot* operator->() const { return m_snapshot.get(); }
    const InstanceSnapshot* get() const { return m_snapshot.get(); }
    explicit operator bool() const { return m_snapshot != nullptr; }
    const std::shared_ptr<const InstanceSnapshot>& Shared() const { return m_snapshot; }

    std::size_t size() const { return m_snapshot->size(); }
    bool empty() const { return m_snapshot->empty(); }
    const InstancePtr& operator[](std::size_t index) const { return (*m_snapshot)[index]; }
    InstanceSnapshot::Iterator begin() const { return m_snapshot->begin(); }
    InstanceSnapshot::Iterator end() const { return m_snapshot->end(); }

private:
    std::shared_ptr<const InstanceSnapshot> m_snapshot;
};

}  // namespace ferrow
}  // namespace jx
