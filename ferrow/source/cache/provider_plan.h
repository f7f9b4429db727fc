#pragma once

// What an InstanceProvider chooses from: the plan of one snapshot, the
// health records its entries share with the provider, and the hash ring that
// choosing by key walks. Private to the library.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "ferrow/instance_provider.h"

namespace jx {
namespace ferrow {

// What the provider knows of one instance's calls. Plans point to it; the
// provider keeps it while the instance is in the cache or still counting.
struct InstanceProvider::Health {
    // Read by every choice that meets the instance, so on a cache line of
    // their own: steady_clock nanoseconds until which the instance is down
    // (0: never was), ...
    alignas(64) std::atomic<std::int64_t> downUntil{0};
    // ... calls chosen by least request and not yet reported (written by
    // each such choice and report), ...
    std::atomic<std::int64_t> inFlight{0};
    // ... and failures in a row, which a success only reads while it is 0.
    // Written under m_healthMtx.
    std::atomic<int> row{0};
    // The fields below are guarded by m_healthMtx.
    alignas(64) std::int64_t rowStart = 0;  // the row's first failure
    std::int64_t callsSince = 0;            // the window of calls counted below
    int calls = 0;
    int failed = 0;
    int ejections = 0;  // ejections in a row, before they wear off
    // The newest version of a plan that included it.
    std::uint64_t seenIn = 0;
};

// The accepted instances of one snapshot, by group of preference (see the
// public header), with what Choose needs to decide without a lock. Immutable
// once built.
struct InstanceProvider::Plan {
    struct Entry {
        const CachedInstance* instance;  // kept alive by `snapshot`
        std::shared_ptr<Health> health;
        std::uint64_t cumulativeWeight;  // within its group, up to this entry
    };
    // Points on a circle of 64-bit hashes, each owned by an entry; a key
    // belongs to the first point at or after its hash. Only a plan of a
    // provider that chooses by key has rings.
    struct Ring {
        std::vector<std::uint64_t> points;  // ascending
        std::vector<std::uint32_t> owners;  // the entry of each point
        // Per bucket of the hash's top bits, the first point in or after it,
        // so that a lookup scans about one point instead of searching.
        std::vector<std::uint32_t> firstAt;
        unsigned shift = 63;  // a hash's bucket is hash >> shift
    };
    static constexpr std::size_t kGroups = 4;
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    SnapshotPtr snapshot;
    std::uint64_t version = 0;
    std::vector<Entry> entries;
    std::size_t groupStart[kGroups + 1] = {};  // group g is [groupStart[g], groupStart[g + 1])
    Ring rings[kGroups];
    // Open addressing by the id's hash: entry index + 1, or 0 for a free
    // slot; a power of two at least twice the entries. Lets an outcome find
    // its instance's health without a lock.
    std::vector<std::uint32_t> byId;

    // Fills byId once the entries are in place.
    void IndexIds();
    // The entry of the instance `id`, or kNone.
    std::size_t EntryOf(const ServiceId& id) const;
};

// The hash a key is placed by: the same for the same bytes in every process
// and on every platform, so that the clients of a service agree on where a
// key goes while they see the same instances.
std::uint64_t KeyHash(std::string_view key);

// The ring of the entries of `group`, each given points in proportion to
// its weight (all alike in a drained group): `scale` points per unit of
// weight, the previous ring's (0 for none) unless the ring would be too
// large or too small with it, when it is set anew. An instance's points are
// the first of one sequence of its own, so that, while the scale holds,
// only the keys of the points that came or went move.
InstanceProvider::Plan::Ring BuildRing(const InstanceProvider::Plan& plan, std::size_t group, double& scale);

// The index in `ring` of the point that `hash` belongs to; the ring is not
// empty.
std::size_t RingPoint(const InstanceProvider::Plan::Ring& ring, std::uint64_t hash);

}  // namespace ferrow
}  // namespace jx
