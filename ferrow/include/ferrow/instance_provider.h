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
// chooses with others or ends; the plan of a provider destroyed meanwhile is
// let go at the thread's next choice with any provider.
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
// Outcomes. Tell the provider how each call ended. StartCall returns a
// Call that does it for you: its Succeeded or Failed reports the outcome,
// and a Call destroyed unreported ends its call with no outcome, so a
// forgotten report or an exception never leaves a call in flight; a second
// report of one Call does nothing. ReportSuccess, ReportFailure and
// ReportEnd do the same by id for a plain Choose; with kLeastRequest each
// ends one call of that instance, so each such choice must be reported
// exactly once.
//
// Down instances. DownInstancePolicy says when the reported outcomes eject
// an instance (make it down) and for how long; then it is skipped, and
// tried again with its counts cleared once the time is over. Failures are
// judged against the rest of the service: an error spike that every
// instance sees ejects none of them. Its load is shared by the instances
// that are up in proportion, by every strategy, as if it were not there:
// one failure never doubles the load on a neighbour. The instances counted
// (for the cap and the panic threshold) are those of the latest view the
// filter accepts with a positive weight (all of them, when every one is
// drained); only those are ever ejected.
//
// A filter that throws. The plan of that version is not built: threads that
// have a plan keep choosing from it, and the exception is logged once per
// version. The provider's thread tries again after 100 ms, then after twice
// as long each time up to 10 s, until it succeeds or the cache changes; a
// Choose, StartCall or WhyNone that has no plan to choose from throws the
// latest exception meanwhile.

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
    // Of two drawn at random in proportion to weight, the one with fewer
    // calls in flight per unit of weight (the first on a tie): slow or
    // overloaded instances, whose calls take longer, are given fewer, and
    // with no call in flight the shares are the weights'. A call is in
    // flight from the choice that returned it to its report (a Call's, or
    // ReportSuccess, ReportFailure or ReportEnd).
    kLeastRequest,
    // By the caller's key, Choose(key): the instance is a function of the
    // key and of the instances the filter accepts, their ids and weights
    // alone, so every process that sees the same instances places a key
    // alike, whatever it saw before. Shares follow the weights (within 2 %
    // for equal weights up to 16,384 instances); when one instance joins or
    // leaves, about its share of the keys move, and some between instances
    // that stayed too, under 1 % of all keys (docs/benchmarks.md). A key whose
    // instance is down goes to others in proportion to their weights, the
    // same ones for the same key, and comes back once it is up. Choose()
    // without a key chooses at random in proportion to weight.
    kByKey,
};

// Why Choose returned null.
enum class NoChoice {
    kNotSynced,    // the cache's view is not complete (not yet, or not since an
                   // expiry) and held nothing to choose
    kEmpty,        // the service has no instance
    kAllFiltered,  // the filter rejects every instance
    kAllDown,      // every instance the filter accepts is down (and panicThreshold is
                   // 0)
};

// When an instance is ejected (down) and for how long. Only what the
// program reports counts, and only for instances in the provider's latest
// view (accepted, with a positive weight, see the file's comment): the
// failures of an instance that left, or that the filter rejects, eject
// nothing.
struct DownInstancePolicy {
    // Failures in a row, none older than errorWindow (a success ends the
    // row), that eject an instance unless, of the other instances that are
    // up and were reported on since the row began, as many or more failed
    // last as succeeded last, one at least: a failure of the whole service
    // ejects nobody. Judged at every errorThreshold failures of the row;
    // at least 2, since one failure has nothing to be compared with.
    int errorThreshold = 3;
    std::chrono::milliseconds errorWindow{10'000};
    // Also ejected, when minimumCalls is set (0: off, else at least 2): an
    // instance with at least minimumCalls calls within errorWindow whose
    // share of failures exceeds the share of the other instances' calls
    // (within their windows, at least minimumCalls of them) by failureRate
    // or more. With the others healthy, 0.5 ejects at half of its calls
    // failed; with the others failing as much, never.
    int minimumCalls = 0;
    double failureRate = 0.5;
    // The first ejection lasts downTime; each one of the same instance that
    // follows doubles it, up to maxDownTime; each downTime it then behaves
    // takes one doubling back.
    std::chrono::milliseconds downTime{30'000};
    std::chrono::milliseconds maxDownTime{300'000};
    // At most this share of the instances counted (rounded down) is down at
    // once: a failure that would eject one more ejects nothing, and when the
    // view changes (instances that were up leave, say) the instances over
    // the cap come back, those whose time ends first first. 1.0: any number.
    double maxEjectedShare = 0.5;
    // While fewer than this share of the instances counted are up, Choose
    // chooses as if none were down (Panicking() says so): ejection never
    // leaves a service with less than this share to take its load. 0: never;
    // then a Choose that finds every instance down returns null.
    double panicThreshold = 0.5;
};

struct ProviderOptions {
    ChoiceStrategy strategy = ChoiceStrategy::kRoundRobin;
    // Instances whose record has this zone come first; empty: no preference.
    String zone;
    // Accepts an instance; empty accepts all. Runs once per instance and
    // version of the cache that a choice meets, however many threads
    // choose, on the provider's own thread, with no lock that a choice or
    // the cache takes held. It must not destroy the provider; a Choose,
    // StartCall or WhyNone of its own provider throws std::logic_error
    // there (so the plan fails as if the filter had thrown).
    std::function<bool(const CachedInstance&)> filter;
    DownInstancePolicy down;
};

class InstanceProvider;

// One call to a chosen instance, from InstanceProvider::StartCall to its
// end: reports the call's outcome to the provider once. Move-only; use it
// on one thread at a time. It must be destroyed (or moved from) before its
// provider is.
class Call {
public:
    // No instance: the provider had none to choose.
    Call() = default;
    // Ends the call unreported (ReportEnd) unless an outcome was reported.
    ~Call();
    Call(Call&& other) noexcept;
    // Ends this call as the destructor does, then takes `other`'s.
    Call& operator=(Call&& other) noexcept;
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Whether an instance was chosen.
    explicit operator bool() const { return m_instance != nullptr; }
    // The instance chosen, or null; valid for as long as it is held.
    const InstancePtr& Instance() const { return m_instance; }
    const CachedInstance* operator->() const { return m_instance.get(); }

    // The call's outcome, as ReportSuccess, ReportFailure or ReportEnd of
    // its instance. The first report of a Call counts; any other, and any
    // report of a Call with no instance, does nothing.
    void Succeeded();
    void Failed();
    void End();

private:
    friend class InstanceProvider;
    enum class Outcome { kSucceeded, kFailed, kEnded };
    Call(InstanceProvider* provider, InstancePtr instance) : m_provider(provider), m_instance(std::move(instance)) {}
    void Report(Outcome outcome);

    InstanceProvider* m_provider = nullptr;  // null once reported
    InstancePtr m_instance;
};

class InstanceProvider {
public:
    // Throws std::invalid_argument for a null cache, an errorThreshold below
    // 2, a minimumCalls of 1 or a share outside [0, 1]. The provider's thread starts with the first
    // choice.
    explicit InstanceProvider(std::shared_ptr<const ServiceCache> cache, ProviderOptions options = {});
    // Stops the provider's thread, after the plan it is building, if any.
    // Every Call it started must be gone first.
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
    // As Choose, as a Call that reports its end (see Outcomes above).
    [[nodiscard]] Call StartCall() { return Call(this, Choose()); }
    [[nodiscard]] Call StartCall(std::string_view key) { return Call(this, Choose(key)); }

    // Why a Choose that returned null found nothing, judged now: call it
    // after the null, off the path that chooses: it waits for the plan of
    // the cache's latest version, and rethrows the filter's exception when
    // that cannot be built.
    [[nodiscard]] NoChoice WhyNone();

    // A call to the instance `id` failed, or succeeded, or ended with no
    // outcome to count (cancelled by the caller, say); each ends a call in
    // flight for kLeastRequest (never below none). Outcomes of an id that
    // is not in the latest view count in the metrics only. Cheap enough to
    // report every call: a success or an end finds the instance in the
    // calling thread's plan and takes no lock unless it ends a row of
    // failures (or minimumCalls is set); a failure takes one lock and one
    // hash lookup.
    void ReportFailure(const ServiceId& id);
    void ReportSuccess(const ServiceId& id);
    void ReportEnd(const ServiceId& id);
    // Whether `id` is down now, and for how much longer (zero when up).
    [[nodiscard]] bool IsDown(const ServiceId& id) const;
    [[nodiscard]] std::chrono::milliseconds DownFor(const ServiceId& id) const;
    // Whether, now, fewer than panicThreshold of the instances counted are
    // up, so that Choose chooses as if none were down.
    [[nodiscard]] bool Panicking() const;

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
    // Notes a success of `health` for the judging of others' failures.
    void Succeeded(Health& health) const;
    // Ends a call in flight of `health`, for least request.
    void EndCall(Health& health) const;
    // Requires m_healthMtx held. Whether the failures of `health`, an
    // instance of the view's pool, are its own rather than the service's.
    bool Outlier(const Health& health, std::int64_t now, bool byRate) const;
    // Requires m_healthMtx held. Ejects `health` at `now` unless the share
    // of ejected instances forbids it.
    void Eject(Health& health, std::int64_t now);
    // Requires m_healthMtx held. The down instances the latest view counts,
    // those whose time ends first first; how many it counts; how many may
    // be down at once; whether `down` of `pool` down is a panic.
    std::vector<Health*> DownInView(std::int64_t now) const;
    std::size_t PoolSize() const;
    std::size_t Allowed(std::size_t pool) const;
    bool Panics(std::size_t down, std::size_t pool) const;
    // Requires m_healthMtx held. Brings the view's down instances within
    // the cap and sets the panic state, as of `now`.
    void Judge(std::int64_t now);
    // Whether a choice now is made as if no instance were down.
    bool PanicNow();
    // Requires m_healthMtx held. Ends a call in flight of `id`; returns its
    // health record when the latest view counts its outcomes, else null.
    Health* EndCounted(const ServiceId& id);
    // Requires m_healthMtx held. The health record of `id`, made if missing.
    const std::shared_ptr<Health>& HealthOf(const ServiceId& id);
    // The index in the plan of the instance to choose, or Plan::kNone;
    // `evenDown` ignores downs.
    std::size_t ChooseIndex(Choosing& choosing, bool evenDown);
    // The same within one group of preference; `evenDown` ignores downs.
    std::size_t ChooseIn(Choosing& choosing, std::size_t group, bool evenDown);
    // Within the group, at random, in proportion to weight if `byWeight`.
    std::size_t Draw(Choosing& choosing, std::size_t group, bool evenDown, bool byWeight);
    // The key's instance within the group.
    std::size_t ByKey(Choosing& choosing, std::size_t group, bool evenDown);
    InstancePtr ChooseSticky(Choosing& choosing, bool panic);

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
    bool m_wanted = false;                        // WaitForPlan waits for an attempt
    bool m_building = false;                      // an attempt is under way
    std::uint64_t m_failures = 0;                 // attempts the filter failed, and the last one's exception
    std::exception_ptr m_failure;                 // null once a plan is built again
    std::uint64_t m_failedVersion = 0;            // the version m_failure is of
    std::uint64_t m_loggedVersion = 0;            // the newest version whose failure was logged
    bool m_stopping = false;
    // References to plans that choosing threads let go of, for the provider's
    // thread to drop.
    std::vector<std::shared_ptr<const void>> m_retired;
    std::thread m_builder;
    // Each group's latest table and what it was built of, reused while the
    // group is the same; used by the provider's thread only.
    std::shared_ptr<const void> m_tables[4];
    std::vector<std::pair<ServiceId, std::uint64_t>> m_tableInputs[4];

    mutable std::mutex m_healthMtx;  // guards m_health, m_view and each Health's counts
    std::unordered_map<ServiceId, std::shared_ptr<Health>> m_health;
    // The latest plan: what outcomes are judged against.
    std::shared_ptr<const Plan> m_view;

    // Failures counted against instances of the view; written under
    // m_healthMtx.
    std::atomic<std::uint64_t> m_failed{0};
    // Whether choices are made as if none were down, and until when at most
    // (steady_clock nanoseconds): an ejection ending may end the panic.
    // Written under m_healthMtx.
    std::atomic<bool> m_panic{false};
    std::atomic<std::int64_t> m_panicUntil{0};

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
