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
    // ... failures in a row, which a success only reads while it is 0,
    // written under m_healthMtx, ...
    std::atomic<int> row{0};
    // ... and the provider's count of failures (m_failures) when a success
    // was last reported, stored only when it changed: tells whether this
    // instance succeeded since another's row of failures began.
    std::atomic<std::uint64_t> okSeq{0};
    // The fields below are guarded by m_healthMtx.
    alignas(64) std::int64_t rowStart = 0;  // the row's first failure
    std::int64_t callsSince = 0;            // the window of calls counted below
    int calls = 0;
    int failed = 0;
    std::uint64_t rowSeq = 0;   // the provider's count of failures at the row's first
    std::uint64_t failSeq = 0;  // ... and at the latest failure
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
        std::uint32_t weight;  // the record's; a drained group's are all 0
    };
    // Slots that keys fall into, each owned by an entry, in proportion to
    // the entries' weights (all alike in a drained group). A function of
    // the group's ids and weights alone: every process that sees the same
    // instances builds the same table. Shared by the plans of versions
    // whose group is the same.
    struct Table {
        std::vector<std::uint32_t> owners;  // a prime number of slots
    };
    // Draws an entry of a group in proportion to its weight in constant
    // time (Vose's alias method); empty when the group's weights are all
    // alike, when a uniform draw does.
    struct Alias {
        struct Slot {
            std::uint32_t threshold;  // of 2^32: below it the slot's own entry
            std::uint32_t other;      // the entry drawn otherwise, from the group's start
        };
        std::vector<Slot> slots;  // one per entry of the group, so one read per draw
    };
    static constexpr std::size_t kGroups = 4;
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    SnapshotPtr snapshot;
    std::uint64_t version = 0;
    std::vector<Entry> entries;
    std::size_t groupStart[kGroups + 1] = {};  // group g is [groupStart[g], groupStart[g + 1])
    std::uint64_t groupWeight[kGroups] = {};   // the sum of each group's weights
    // Only a plan of a provider that chooses by key has tables, and the
    // entry of each of their owners.
    std::shared_ptr<const Table> tables[kGroups];
    std::vector<std::uint32_t> tableEntries[kGroups];
    Alias aliases[kGroups];
    // Open addressing by the id's hash: entry index + 1, or 0 for a free
    // slot; a power of two at least twice the entries. Lets an outcome find
    // its instance's health without a lock.
    std::vector<std::uint32_t> byId;

    // Fills byId once the entries are in place.
    void IndexIds();
    // The entry of the instance `id`, or kNone.
    std::size_t EntryOf(const ServiceId& id) const;
};

// splitmix64's finalizer: every bit of the input moves every bit of the
// output.
inline std::uint64_t Mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

// The hash a key is placed by: the same for the same bytes in every process
// and on every platform, so that the clients of a service agree on where a
// key goes while they see the same instances.
std::uint64_t KeyHash(std::string_view key);

// The id and weight of each entry of `group` (1 each in a drained group),
// in the order of the ids' bytes: what the group's table is a function of.
std::vector<std::pair<ServiceId, std::uint64_t>> TableInputs(const InstanceProvider::Plan& plan, std::size_t group);

// The table of `inputs`, in which `owners` are indexes into `inputs`. Each
// instance takes slots in turn, in proportion to its weight, each at the
// next free place of a permutation of the slots that its id alone decides
// (the scheme of Google's Maglev balancer): when one instance joins or
// leaves, few slots other than its own change owner. The number of slots
// grows in steps with the number of instances (65,537 up to 1,024 of them,
// 1,048,583 up to 16,384, 16,777,259 beyond), so that an instance of average
// weight holds at least 64; a change across a step moves most keys.
InstanceProvider::Plan::Table BuildTable(const std::vector<std::pair<ServiceId, std::uint64_t>>& inputs);

// The slot of `hash` in a table of `slots` slots.
inline std::size_t TableSlot(std::uint64_t hash, std::size_t slots) {
    return static_cast<std::size_t>((static_cast<unsigned __int128>(hash) * slots) >> 64);
}

// The alias table of `group`'s weights, or an empty one when they are alike.
InstanceProvider::Plan::Alias BuildAlias(const InstanceProvider::Plan& plan, std::size_t group);

}  // namespace ferrow
}  // namespace jx
