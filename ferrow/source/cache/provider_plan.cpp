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

// About this many points per ring, each instance given between kFewest and
// kMost of them on average: the more points, the closer each instance's
// share of the keys is to its weight's (within about 1/sqrt(points) of it),
// and the more memory and time a plan takes.
constexpr double kRingPoints = 160'000;
constexpr double kFewest = 16;
constexpr double kMost = 160;
// A ring keeps the points per unit of weight of the one before it while
// its total stays within this factor of the size it should have: a change
// of the service then moves only the keys of the points that came or went.
constexpr double kRescaleBeyond = 4;

// splitmix64's finalizer: every bit of the input moves every bit of the
// output.
std::uint64_t Mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

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

Plan::Ring BuildRing(const Plan& plan, std::size_t group, double& scale) {
    Plan::Ring ring;
    const std::size_t begin = plan.groupStart[group];
    const std::size_t end = plan.groupStart[group + 1];
    const auto count = static_cast<double>(end - begin);
    if (end == begin) return ring;
    // A drained group has no weights: its instances count alike.
    const std::uint64_t total = plan.entries[end - 1].cumulativeWeight;
    const auto weightOf = [&](std::size_t index) -> std::uint64_t {
        if (total == 0) return 1;
        return plan.entries[index].cumulativeWeight - (index == begin ? 0 : plan.entries[index - 1].cumulativeWeight);
    };
    const double weights = total == 0 ? count : static_cast<double>(total);
    const double wanted = std::clamp(kRingPoints, kFewest * count, kMost * count);
    if (scale <= 0 || scale * weights < wanted / kRescaleBeyond || scale * weights > wanted * kRescaleBeyond) {
        scale = wanted / weights;
    }
    std::vector<std::pair<std::uint64_t, std::uint32_t>> points;
    points.reserve(static_cast<std::size_t>(scale * weights + count));
    for (std::size_t index = begin; index < end; ++index) {
        const auto many = std::max<std::uint64_t>(1, std::llround(scale * static_cast<double>(weightOf(index))));
        const std::uint64_t seed = IdSeed(plan.entries[index].instance->Id());
        for (std::uint64_t k = 1; k <= many; ++k) {
            points.emplace_back(Mix(seed + k * 0x9e3779b97f4a7c15ULL), static_cast<std::uint32_t>(index));
        }
    }
    // Sorted by buckets of the top bits (about one point each, as hashes are
    // uniform), then within each bucket: linear where a sort would not be.
    const std::size_t n = points.size();
    unsigned bits = 1;
    while ((std::size_t{1} << bits) < n && bits < 24) ++bits;
    ring.shift = 64 - bits;
    ring.firstAt.assign((std::size_t{1} << bits) + 1, 0);
    for (const auto& point : points) ++ring.firstAt[(point.first >> ring.shift) + 1];
    for (std::size_t bucket = 1; bucket < ring.firstAt.size(); ++bucket)
        ring.firstAt[bucket] += ring.firstAt[bucket - 1];
    std::vector<std::uint32_t> next(ring.firstAt.begin(), ring.firstAt.end() - 1);
    std::vector<std::pair<std::uint64_t, std::uint32_t>> placed(n);
    for (const auto& point : points) placed[next[point.first >> ring.shift]++] = point;
    for (std::size_t bucket = 0; bucket + 1 < ring.firstAt.size(); ++bucket) {
        std::sort(placed.begin() + ring.firstAt[bucket], placed.begin() + ring.firstAt[bucket + 1]);
    }
    ring.points.reserve(n);
    ring.owners.reserve(n);
    for (const auto& [hash, owner] : placed) {
        ring.points.push_back(hash);
        ring.owners.push_back(owner);
    }
    return ring;
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

std::size_t RingPoint(const Plan::Ring& ring, std::uint64_t hash) {
    // Every point before the bucket's first is below the hash.
    std::size_t index = ring.firstAt[hash >> ring.shift];
    while (index < ring.points.size() && ring.points[index] < hash) ++index;
    return index == ring.points.size() ? 0 : index;
}

}  // namespace ferrow
}  // namespace jx
