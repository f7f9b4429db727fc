#pragma once

// Chooses one instance of a service per call, from a ServiceCache, for a
// program that calls the service: by round robin, at random, at random by
// weight, or sticking to one; preferring a zone; skipping instances that a
// filter rejects, that are drained (weight 0) or that failed too often.
//
// Threads. Every member may be called from any thread at once. Choose takes
// no lock that the cache's updates take and allocates nothing while the
// cache is unchanged: it works on a plan derived from one snapshot (the
// instances the filter accepts, ordered by preference), built by the first
// Choose that sees a new version of the cache and then reused by every
// thread. Each thread keeps the plans of the last few providers it chose
// with, which keeps their snapshots alive until it chooses with others or
// ends.
//
// Ownership. The provider shares the cache. Destroy it on any thread.
//
// Preference. Among the instances the filter accepts and that are not down,
// Choose takes the first group that is not empty:
//   1. in the preferred zone, with a positive weight;
//   2. in another zone, with a positive weight;
//   3. in the preferred zone, drained (weight 0);
//   4. in another zone, drained.
// Without a preferred zone, 1 and 3 hold every instance. So a drained
// instance is never chosen while one with a positive weight is available,
// and a service whose instances are all drained is served by all of them
// alike. A record that sets no weight counts as kDefaultWeight (1): only an
// explicit weight of 0 drains. Within the group the strategy chooses.
//
// Down instances. ReportFailure and ReportSuccess count the outcomes of
// calls; DownInstancePolicy says when they eject an instance (make it down)
// and for how long; then it is skipped, and tried again with its counts
// cleared once the time is over. Its load
// is shared by the instances that are up in proportion, by every strategy,
// as if it were not there: one failure never doubles the load on a
// neighbour. When every accepted instance of every group is down,
// `whenAllDown` decides.
//
// A filter that throws. The exception reaches the caller of Choose; the
// provider and the calling thread keep the plans they had, and the next
// Choose builds the plan again.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "ferrow/instance_snapshot.h"
#include "ferrow/service_cache.h"
#include "utility/string.h"
#include "utility/uuid_hash.h"

namespace jx {
namespace ferrow {

enum class ChoiceStrategy {
    // Each instance in turn. Each calling thread goes round on its own,
    // from a random place, so that threads never contend on a counter. A
    // down instance's turn goes to the next instance that is up, and the
    // round goes on after it: every instance that is up gets one turn per
    // round, and so does each of the down ones when all are chosen among.
    kRoundRobin,
    // Uniformly at random.
    kRandom,
    // At random, in proportion to the record's `weight`.
    kWeighted,
    // The same instance until it leaves the cache, is drained, is marked down
    // or the filter rejects it; then another, at random, shared by all
    // threads. While every instance is down and the policy chooses among
    // them, the choice holds.
    kSticky,
};

// What Choose does when every instance the filter accepts is down.
enum class WhenAllDown {
    kChooseNone,       // returns null: the caller fails fast
    kChooseAmongDown,  // chooses among the down ones, as if none were down
};

// Why Choose returned null.
enum class NoChoice {
    kNotSynced,    // the cache's view is not complete (not yet, or not since an expiry) and held nothing to choose
    kEmpty,        // the service has no instance
    kAllFiltered,  // the filter rejects every instance
    kAllDown,      // every instance the filter accepts is down (and whenAllDown is kChooseNone)
};

// When an instance is ejected (down) and for how long. Only what the
// program reports counts: ReportFailure and ReportSuccess.
struct DownInstancePolicy {
    // Failures in a row, none older than errorWindow (a success ends the
    // row), that eject an instance.
    int errorThreshold = 3;
    std::chrono::milliseconds errorWindow{10'000};
    // Also ejected: an instance whose calls within errorWindow, at least
    // minimumCalls of them, failed in this share or more. 0 calls: off.
    int minimumCalls = 0;
    double failureRate = 0.5;
    // The first ejection lasts downTime; each one of the same instance that
    // follows doubles it, up to maxDownTime; each downTime it then behaves
    // takes one doubling back.
    std::chrono::milliseconds downTime{30'000};
    std::chrono::milliseconds maxDownTime{300'000};
    // Never more than this share of the instances the filter accepts is
    // ejected at once: a failure that would eject one more ejects nothing,
    // and the instance stays in the rotation (panic mode, see Panicking).
    // So a service-wide error spike never leaves fewer than this share of
    // the instances to choose from. 1.0: any number.
    double maxEjectedShare = 0.5;
};

struct ProviderOptions {
    ChoiceStrategy strategy = ChoiceStrategy::kRoundRobin;
    // Instances whose record has this zone come first; empty: no preference.
    String zone;
    // Accepts an instance; empty accepts all. Runs once per instance and
    // version of the cache, however many threads choose: on the first
    // choosing thread that meets the version, while the others keep
    // choosing from their previous plan (a thread with none waits). It runs
    // with no lock that a choice or the cache takes held: it must be
    // thread-safe and must not choose, with this provider or another.
    std::function<bool(const CachedInstance&)> filter;
    DownInstancePolicy down;
    WhenAllDown whenAllDown = WhenAllDown::kChooseNone;
};

class InstanceProvider {
public:
    // Throws std::invalid_argument for a null cache or a threshold below 1.
    explicit InstanceProvider(std::shared_ptr<const ServiceCache> cache, ProviderOptions options = {});
    ~InstanceProvider();

    // Shared state of the choosing threads: not copyable or movable.
    InstanceProvider(const InstanceProvider&) = delete;
    InstanceProvider& operator=(const InstanceProvider&) = delete;

    // One instance, or null when none is available. The pointer stays valid
    // as long as it is held, whatever the cache does meanwhile; it keeps
    // the snapshot it was chosen from alive, so hold it for a call, not for
    // ever.
    [[nodiscard]] InstancePtr Choose();

    // Why a Choose that returned null found nothing, judged now: call it
    // after the null, off the path that chooses (it may build the plan of a
    // newer version, and reads the clock).
    [[nodiscard]] NoChoice WhyNone();

    // A call to the instance `id` failed, or succeeded. Unknown ids count
    // too: an instance that comes back within the window keeps its count.
    // About one uncontended lock and one hash lookup each: cheap enough to
    // report every call.
    void ReportFailure(const ServiceId& id);
    void ReportSuccess(const ServiceId& id);
    // Whether `id` is down now, and for how much longer (zero when up).
    [[nodiscard]] bool IsDown(const ServiceId& id) const;
    [[nodiscard]] std::chrono::milliseconds DownFor(const ServiceId& id) const;
    // Whether the latest failure that should have ejected an instance did
    // not, because maxEjectedShare was reached; false again once an
    // ejection is made.
    [[nodiscard]] bool Panicking() const { return m_panicking.load(std::memory_order_relaxed); }

    struct Plan;
    struct Health;
    struct ThreadSlot;

private:
    struct Choosing;
    // The plan for the cache's latest snapshot, built if needed; `current`
    // (the caller's plan, may be null) while another thread builds it.
    std::shared_ptr<const Plan> LatestPlan(const std::shared_ptr<const Plan>& current);
    // This thread's slot, with the plan of the cache's current version.
    ThreadSlot& CurrentSlot();
    // Gives `slot` the latest plan.
    void Refresh(ThreadSlot& slot);
    std::shared_ptr<const Plan> BuildPlan(SnapshotPtr snapshot);
    // Requires m_healthMtx held. Counts one call of `health` at `now`,
    // starting a new window when the last one is over.
    void CountCall(Health& health, std::int64_t now, bool failed) const;
    // Requires m_healthMtx held. Ejects `health` at `now` unless the share
    // of ejected instances forbids it.
    void Eject(Health& health, std::int64_t now);
    // Requires m_healthMtx held. The health record of `id`, made if missing.
    const std::shared_ptr<Health>& HealthOf(const ServiceId& id);
    // The index in the plan of the instance to choose, or Plan::kNone;
    // `evenDown` ignores downs.
    std::size_t ChooseIndex(Choosing& choosing, bool evenDown);
    // The same within one group of preference; `evenDown` ignores downs.
    std::size_t ChooseIn(Choosing& choosing, std::size_t group, bool evenDown);
    InstancePtr ChooseSticky(Choosing& choosing);

    const std::shared_ptr<const ServiceCache> m_cache;
    const ProviderOptions m_options;
    const std::uint64_t m_id;  // names this provider in the threads' plan caches

    std::mutex m_buildMtx;  // held by the one thread building a plan, across the filter; before m_planMtx
    std::mutex m_planMtx;   // guards m_plan; taken only when the cache changed, never across the filter
    std::shared_ptr<const Plan> m_plan;

    mutable std::mutex m_healthMtx;  // guards m_health and each Health's failures
    std::unordered_map<ServiceId, std::shared_ptr<Health>> m_health;

    // The number of accepted instances in the latest plan, for maxEjectedShare.
    std::atomic<std::size_t> m_accepted{0};
    std::atomic<bool> m_panicking{false};

    // Sticky: the plan version (low half) and index (high half) of the choice.
    std::atomic<std::uint64_t> m_sticky{0};
};

}  // namespace ferrow
}  // namespace jx
