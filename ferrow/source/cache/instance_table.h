#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "ferrow/instance_snapshot.h"

namespace jx {
namespace ferrow {

// The writer's side of a cache's snapshots: applies one change at a time and
// publishes the result as an InstanceSnapshot. A change copies the one or two
// blocks it touches and the list of blocks; published snapshots keep sharing
// everything else. Not thread-safe: one writer at a time; the snapshots it
// publishes are free for any thread.
class InstanceTable {
public:
    // Adds the instance, or replaces the one with its id. Returns the one it
    // replaced, or null.
    InstancePtr Put(InstancePtr instance);
    // The instance with `id`, or null.
    InstancePtr Get(const ServiceId& id) const;
    // Removes the instance with `id`; returns it, or null when unknown.
    InstancePtr Remove(const ServiceId& id);
    // A snapshot of the contents now, one version above the previous one.
    SnapshotPtr Publish();

    std::size_t size() const { return m_size; }

private:
    using Block = InstanceSnapshot::Block;
    // The slot at `index`, in a block of its own: a block still shared with
    // a published snapshot is copied first.
    InstancePtr& Slot(std::size_t index);
    // The entry at `index`, for reading.
    const InstancePtr& At(std::size_t index) const;

    // The place of `id` in m_index, or the empty place where it would go.
    std::size_t Locate(const ServiceId& id) const;
    // Empties place `at`, shifting back the entries that probed past it.
    void Unindex(std::size_t at);
    // Doubles the index when one more entry would fill it beyond half.
    void Reserve();

    std::vector<std::shared_ptr<Block>> m_blocks;
    // Positions by id: open addressing with linear probing over positions
    // alone (the ids are the entries' own), at most half full: about 10
    // bytes per instance where a node-based map takes 56. Each place holds
    // a position + 1; 0 marks an empty place.
    std::vector<std::uint32_t> m_index;
    std::size_t m_size = 0;
    std::uint64_t m_version = 0;
};

}  // namespace ferrow
}  // namespace jx
