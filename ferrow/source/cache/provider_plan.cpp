#include "cache/provider_plan.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "utility/uuid_hash.h"

namespace jx {
namespace ferrow {
namespace {

using Plan = InstanceProvider::Plan;

// The instance's place on the ring, from its id's bytes in order, so that it
// is the same on every platform.
std::uint64_t IdSeed(const ServiceId& id) {
    std::uint64_t high = 0, low = 0;
    for (std::size_t i = 0; i < 8; ++i) high = (high << 8) | id.data[i];
    for (std::size_t i = 8; i < 16; ++i) low = (low << 8) | id.data[i];
    return Mix(high ^ Mix(low));
}

}  // namespace

std::uint64_t KeyHash(std::string_view key) {
    // FNV-1a over the bytes, then mixed: FNV alone leaves the high bits,
    // which pick the ring's bucket, poorly spread for short keys.
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char c : key) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3ULL;
    }
    return Mix(hash);
}

std::vector<std::pair<ServiceId, std::uint64_t>> TableInputs(const Plan& plan, std::size_t group) {
    const std::size_t begin = plan.groupStart[group];
    const std::size_t end = plan.groupStart[group + 1];
    std::vector<std::pair<ServiceId, std::uint64_t>> inputs;
    inputs.reserve(end - begin);
    const bool drained = plan.groupWeight[group] == 0;
    for (std::size_t index = begin; index < end; ++index) {
        inputs.emplace_back(plan.entries[index].instance->Id(), drained ? 1 : plan.entries[index].weight);
    }
    // By the ids' bytes: the same on every platform, whatever the snapshot's
    // order.
    std::sort(inputs.begin(), inputs.end(), [](const auto& x, const auto& y) {
        return std::lexicographical_compare(x.first.begin(), x.first.end(), y.first.begin(), y.first.end());
    });
    return inputs;
}

Plan::Table BuildTable(const std::vector<std::pair<ServiceId, std::uint64_t>>& inputs) {
    Plan::Table table;
    const std::size_t count = inputs.size();
    if (count == 0) return table;
    const std::size_t slots = count <= 1'024 ? 65'537 : count <= 16'384 ? 1'048'583 : 16'777'259;
    constexpr std::uint32_t kFree = static_cast<std::uint32_t>(-1);
    table.owners.assign(slots, kFree);
    // Each instance's permutation of the slots: from `at`, `skip` by `skip`
    // (the number of slots is prime, so every slot comes once).
    struct Walk {
        std::uint64_t at;
        std::uint64_t skip;
        std::uint64_t taken = 0;  // slots taken so far
    };
    std::vector<Walk> walks;
    walks.reserve(count);
    for (const auto& [id, weight] : inputs) {
        const std::uint64_t seed = IdSeed(id);
        walks.push_back(Walk{TableSlot(Mix(seed ^ 0x6a09e667f3bcc908ULL), slots),
                             1 + TableSlot(Mix(seed ^ 0xbb67ae8584caa73bULL), slots - 1)});
    }
    // Turns in proportion to weight: instance i's k-th turn falls at k / w_i,
    // the earliest first, ties to the lower index. Compared as products, so
    // that no rounding can differ between platforms.
    const auto later = [&](std::uint32_t x, std::uint32_t y) {
        const auto turnX = static_cast<unsigned __int128>(walks[x].taken + 1) * inputs[y].second;
        const auto turnY = static_cast<unsigned __int128>(walks[y].taken + 1) * inputs[x].second;
        return turnX != turnY ? turnX > turnY : x > y;
    };
    std::vector<std::uint32_t> heap;
    for (std::uint32_t index = 0; index < count; ++index) {
        if (inputs[index].second > 0) heap.push_back(index);
    }
    std::make_heap(heap.begin(), heap.end(), later);
    for (std::size_t filled = 0; filled < slots && !heap.empty(); ++filled) {
        std::pop_heap(heap.begin(), heap.end(), later);
        const std::uint32_t owner = heap.back();
        Walk& walk = walks[owner];
        while (table.owners[walk.at] != kFree) {
            walk.at += walk.skip;
            if (walk.at >= slots) walk.at -= slots;
        }
        table.owners[walk.at] = owner;
        ++walk.taken;
        std::push_heap(heap.begin(), heap.end(), later);
    }
    return table;
}

Plan::Alias BuildAlias(const Plan& plan, std::size_t group) {
    Plan::Alias alias;
    const std::size_t begin = plan.groupStart[group];
    const std::size_t count = plan.groupStart[group + 1] - begin;
    if (count == 0) return alias;
    const std::uint64_t total = plan.groupWeight[group];
    std::vector<std::uint64_t> weights(count);
    bool alike = true;
    for (std::size_t i = 0; i < count; ++i) {
        weights[i] = plan.entries[begin + i].weight;
        alike = alike && weights[i] == weights[0];
    }
    if (alike) return alias;
    // Each slot holds its entry's share scaled so that the mean is 2^32, the
    // excess of the heavy ones filling up the light ones.
    std::vector<long double> scaled(count);
    for (std::size_t i = 0; i < count; ++i) {
        scaled[i] = static_cast<long double>(weights[i]) * static_cast<long double>(count) / static_cast<long double>(total);
    }
    alias.slots.assign(count, Plan::Alias::Slot{0, 0});
    std::vector<std::uint32_t> small, large;
    for (std::uint32_t i = 0; i < count; ++i) (scaled[i] < 1 ? small : large).push_back(i);
    constexpr long double kOne = 4294967296.0L;
    while (!small.empty() && !large.empty()) {
        const std::uint32_t light = small.back(), heavy = large.back();
        small.pop_back();
        alias.slots[light] = {static_cast<std::uint32_t>(std::min(scaled[light] * kOne, kOne - 1)), heavy};
        scaled[heavy] -= 1 - scaled[light];
        if (scaled[heavy] < 1) {
            large.pop_back();
            small.push_back(heavy);
        }
    }
    // What is left holds about one share each, up to rounding.
    for (const std::uint32_t i : large) alias.slots[i] = {static_cast<std::uint32_t>(kOne - 1), i};
    for (const std::uint32_t i : small) alias.slots[i] = {static_cast<std::uint32_t>(kOne - 1), i};
    return alias;
}

void Plan::IndexIds() {
    std::size_t size = 2;
    while (size < 2 * entries.size()) size *= 2;
    byId.assign(size, 0);
    for (std::size_t index = 0; index < entries.size(); ++index) {
        std::size_t slot = std::hash<ServiceId>{}(entries[index].instance->Id()) & (size - 1);
        while (byId[slot] != 0) slot = (slot + 1) & (size - 1);
        byId[slot] = static_cast<std::uint32_t>(index + 1);
    }
}

std::size_t Plan::EntryOf(const ServiceId& id) const {
    const std::size_t mask = byId.size() - 1;
    for (std::size_t slot = std::hash<ServiceId>{}(id)&mask; byId[slot] != 0; slot = (slot + 1) & mask) {
        const std::size_t index = byId[slot] - 1;
        if (entries[index].instance->Id() == id) return index;
    }
    return kNone;
}

}  // namespace ferrow
}  // namespace jx
