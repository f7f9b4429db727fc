#pragma once

// Chooses one instance of a service per call, from a ServiceCache, for a
// program that calls the service: by round robin, at random, at random by
// weight, sticking to one, the less loaded of two, or by the caller's key;
// preferring a zone; skipping instances that a filter rejects, that are
// drained (weight 0) or that failed too often.
//
// Threads. Every member may be called from any thread at once. Choose takes
// no lock that the cache's updates take and allocates nothing while the
// cache is unchanged: it works on a plan derived from one snapshot (the
// instances the filter accepts, ordered by preference). The provider's own
// thread builds the plan of each new version of the cache once a choice
// meets that version, and every choosing thread then takes it up; until it
// is built they keep choosing from the previous plan, so a change of the
// service never makes a choice wait (only the first Choose of a thread, and
// WhyNone, wait for a plan). Each thread keeps the plans of the last few
// providers it chose with, which keeps their snapshots alive until it
// chooses with others or ends.
//
// Metrics: while it exists, its choices, the outcomes reported and its
// ejections are part of CollectMetrics (ferrow/metrics.h); choices are
// counted per thread, at no cost a choice can measure.
//
// Ownership. The provider shares the cache and owns its thread. Destroy it
// on any thread but its own (inside the filter): the destructor waits for a
// plan being built, so once it returns the filter is not running.
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
// Outcomes. ReportSuccess, ReportFailure and ReportEnd tell the provider how
// a call to the chosen instance ended. The first two count for ejection;
// with kLeastRequest each of the three ends the call that Choose began, and
// every choice must be reported exactly once.
//
// Down instances. DownInstancePolicy says when the reported outcomes eject
// an instance (make it down) and for how long; then it is skipped, and
// tried again with its counts cleared once the time is over. Its load is
// shared by the instances that are up in proportion, by every strategy, as
// if it were not there: one failure never doubles the load on a neighbour.
// When every accepted instance of every group is down, `whenAllDown`
// decides.
//
// A filter that throws. The plan of that version is not built: threads that
// have a plan keep choosing from it, and the exception is logged; a Choose
// or WhyNone that has none to choose from gets the exception, and the next
// one tries again. A newer version of the cache is tried anew.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ferrow/instance_snapshot.h"
#include "ferrow/service_cache.h"
#include "utility/string.h"
#include "utility/thread_counts.h"
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
    // The one with fewer calls in flight of two drawn at random (weights
    // aside): slow or overloaded instances, whose calls take longer, are
    // given fewer. A call is in flight from the Choose that returned it to
    // its report (ReportSuccess, ReportFailure or ReportEnd).
    kLeastRequest,
    // By the caller's key, Choose(key): a key (a user, a shard) keeps its
    // instance while that instance stays available, and when one joins or
    // leaves only the keys it takes or gives move, about 1/N of them; in
    // proportion to weight. Consistent hashing on a ring: every process that
    // sees the same instances places a key alike. A key whose instance is
    // down goes to the next one on the ring that is up, and comes back once
    // it is up again. Choose() without a key chooses at random.
    kByKey,
};

// What Choose does when every instance the filter accepts is down.
enum class WhenAllDown {
    kChooseNone,       // returns null: the caller fails fast
    kChooseAmongDown,  // chooses among the down ones, as if none were down
};

// Why Choose returned null.
enum class NoChoice {
    kNotSynced,    // the cache's view is not complete (not yet, or not since an
                   // expiry) and held nothing to choose
    kEmpty,        // the service has no instance
    kAllFiltered,  // the filter rejects every instance
    kAllDown,      // every instance the filter accepts is down (and whenAllDown is
                   // kChooseNone)
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
    // version of the cache that a choice meets, however many threads
    // choose, on the provider's own thread, with no lock that a choice or
    // the cache takes held. It must not choose with this provider, nor
    // destroy it.
    std::function<bool(const CachedInstance&)> filter;
    DownInstancePolicy down;
    WhenAllDown whenAllDown = WhenAllDown::kChooseNone;
};

class InstanceProvider {
public:
    // Throws std::invalid_argument for a null cache or a threshold below 1.
    // The provider's thread starts with the first choice.
    explicit InstanceProvider(std::shared_ptr<const ServiceCache> cache, ProviderOptions options = {});
    // Stops the provider's thread, after the plan it is building, if any.
    ~InstanceProvider();

    // Shared state of the choosing threads: not copyable or movable.
    InstanceProvider(const InstanceProvider&) = delete;
    InstanceProvider& operator=(const InstanceProvider&) = delete;

    // One instance, or null when none is available. The pointer stays valid
    // as long as it is held, whatever the cache does meanwhile; it keeps
    // the snapshot it was chosen from alive, so hold it for a call, not for
    // ever.
    [[nodiscard]] InstancePtr Choose();
    // With kByKey, the instance for `key`, or null when none is available.
    // Throws std::logic_error with any other strategy: a key it would ignore
    // is a caller's mistake.
    [[nodiscard]] InstancePtr Choose(std::string_view key);

    // Why a Choose that returned null found nothing, judged now: call it
    // after the null, off the path that chooses: it waits for the plan of
    // the cache's latest version, and rethrows the filter's exception when
    // that cannot be built.
    [[nodiscard]] NoChoice WhyNone();

    // A call to the instance `id` failed, or succeeded, or ended with no
    // outcome to count (cancelled by the caller, say); each ends a call in
    // flight for kLeastRequest. Unknown ids count too: an instance that
    // comes back within the window keeps its count. Cheap enough to report
    // every call: a success or an end finds the instance in the calling
    // thread's plan and takes no lock unless it ends a row of failures (or
    // minimumCalls is set); a failure takes one lock and one hash lookup.
    void ReportFailure(const ServiceId& id);
    void ReportSuccess(const ServiceId& id);
    void ReportEnd(const ServiceId& id);
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
    // What the metrics count (ferrow/metrics.h), per thread.
    enum Count : std::size_t { kChosen, kNoneChosen, kSucceeded, kFailed, kEnded, kEjected, kCounts };
    // Adds this provider's figures.
    void Collect(Metrics& metrics) const;

    struct Choosing;
    // A Choose with or without a key's hash.
    InstancePtr ChooseWith(Choosing& choosing);
    // This thread's slot, with the latest plan built.
    ThreadSlot& CurrentSlot();
    // Gives `slot` the latest plan built, and asks for one of `version`
    // if that is older.
    void Refresh(ThreadSlot& slot, std::uint64_t version);
    // Asks the provider's thread for the plan of `version` (or newer).
    void Request(std::uint64_t version);
    // Requires m_planMtx held. Starts the provider's thread if it is not.
    void StartBuilder();
    // A plan of `version` or newer, waiting for the provider's thread to
    // build it; rethrows the filter's exception when it could not.
    std::shared_ptr<const Plan> WaitForPlan(std::uint64_t version);
    // The provider's thread: builds the plan of the latest snapshot whenever
    // a choice has met a newer version than the last one tried.
    void BuildPlans();
    std::shared_ptr<const Plan> BuildPlan(SnapshotPtr snapshot);
    // Requires m_planMtx held. Makes `plan` the latest.
    void Install(std::shared_ptr<const Plan> plan);
    // Requires m_healthMtx held. Counts one call of `health` at `now`,
    // starting a new window when the last one is over.
    void CountCall(Health& health, std::int64_t now, bool failed) const;
    // The health record of `id` in this thread's plan, or null when the
    // thread has none or the plan does not hold the instance.
    Health* PlannedHealth(const ServiceId& id) const;
    // Ends a call in flight of `health`, for least request.
    void EndCall(Health& health) const;
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
    // At random, or by weight, within the group.
    std::size_t Draw(Choosing& choosing, std::size_t group, bool evenDown);
    // The key's instance within the group.
    std::size_t ByKey(Choosing& choosing, std::size_t group, bool evenDown);
    InstancePtr ChooseSticky(Choosing& choosing);

    const std::shared_ptr<const ServiceCache> m_cache;
    const ProviderOptions m_options;
    const std::uint64_t m_id;  // names this provider in the threads' plan caches

    // Guards what the provider's thread shares with the choosing threads
    // below; never held across the filter. Before m_healthMtx.
    std::mutex m_planMtx;
    std::condition_variable m_wake;   // the provider's thread waits for a request
    std::condition_variable m_built;  // WaitForPlan waits for an attempt
    std::shared_ptr<const Plan> m_plan;
    std::atomic<std::uint64_t> m_planVersion{0};  // m_plan's, read without the lock
    std::atomic<std::uint64_t> m_requested{0};    // the newest version a choice met; written under the lock
    std::uint64_t m_attempted = 0;                // the newest version the thread tried to build
    bool m_retry = false;                         // WaitForPlan wants another attempt
    std::uint64_t m_failures = 0;                 // attempts the filter failed, and the last one's exception
    std::exception_ptr m_failure;
    bool m_stopping = false;
    // References to plans that choosing threads let go of, for the provider's
    // thread to drop.
    std::vector<std::shared_ptr<const void>> m_retired;
    std::thread m_builder;
    // Points per unit of weight of each group's ring, kept from plan to plan;
    // used by the provider's thread only.
    double m_ringScale[4] = {};

    mutable std::mutex m_healthMtx;  // guards m_health and each Health's counts
    std::unordered_map<ServiceId, std::shared_ptr<Health>> m_health;

    // The number of accepted instances in the latest plan, for maxEjectedShare.
    std::atomic<std::size_t> m_accepted{0};
    std::atomic<bool> m_panicking{false};

    // Sticky: the instance chosen, and the count of its changes, which each
    // thread compares with the one it last looked up. After m_planMtx.
    std::mutex m_stickyMtx;
    std::optional<ServiceId> m_stickyChosen;           // guarded by m_stickyMtx
    std::atomic<std::uint64_t> m_stickyGeneration{0};  // written under m_stickyMtx

    ThreadCounts<kCounts> m_counts;
    // Made last by the constructor, closed first by the destructor.
    std::unique_ptr<details::MetricsSource> m_metrics;
};

}  // namespace ferrow
}  // namespace jx
