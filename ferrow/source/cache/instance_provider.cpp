#include "ferrow/instance_provider.h"

#include <algorithm>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "logger/logger.h"
#include "cache/provider_plan.h"
#include "metrics/metrics_registry.h"

namespace jx {
namespace ferrow {

// One thread's plan of one provider, and its round-robin position there.
struct InstanceProvider::ThreadSlot {
    std::uint64_t provider = 0;  // 0: unused
    std::shared_ptr<const Plan> plan;
    // Owns a reference to `plan` under a count of this thread's own: the
    // instances handed out share it, so that handing one out writes no
    // memory that another thread's choices write.
    std::shared_ptr<const void> owner;
    std::uint64_t turn = 0;
    // Sticky: the entry of `plan` that holds the provider's choice, as
    // looked up at the choice's generation (kNone: not in the plan).
    std::uint64_t stickyGeneration = static_cast<std::uint64_t>(-1);
    std::uint64_t stickyVersion = 0;
    std::size_t stickyIndex = static_cast<std::size_t>(-1);
};

// One Choose call: its thread's slot, its key, and the clock once it was
// read.
struct InstanceProvider::Choosing {
    ThreadSlot& slot;
    bool keyed = false;
    std::uint64_t keyHash = 0;
    std::int64_t now = 0;  // read at the first down instance met
};

namespace {

using Plan = InstanceProvider::Plan;

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.provider");

std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::uint64_t NextProviderId() {
    static std::atomic<std::uint64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

// splitmix64, one per thread: fast, and good enough to spread load.
std::uint64_t Random() {
    thread_local std::uint64_t state =
        std::random_device{}() ^ (std::hash<std::thread::id>{}(std::this_thread::get_id()) << 1);
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

// The plans of the last few providers this thread chose with, and the
// thread's own round-robin position in each: nothing a thread writes while
// choosing is shared with another.
struct ThreadPlans {
    using Slot = InstanceProvider::ThreadSlot;
    static constexpr std::size_t kSlots = 8;
    Slot slots[kSlots];
    std::size_t next = 0;
};
thread_local ThreadPlans t_plans;

// A thread's own reference to a plan, on cache lines of its own: its count
// changes with every instance handed out.
struct alignas(64) PlanOwner {
    std::shared_ptr<const Plan> plan;
};

// The entry's instance, owned through the thread's slot.
InstancePtr Hand(const InstanceProvider::ThreadSlot& slot, const Plan::Entry& entry) {
    return InstancePtr(slot.owner, entry.instance);
}

bool DownNow(const Plan::Entry& entry, std::int64_t& now) {
    const std::int64_t until = entry.health->downUntil.load(std::memory_order_relaxed);
    if (until == 0) return false;
    if (now == 0) now = NowNs();
    return until > now;
}

// Whether the entry may be chosen: up, or `evenDown`.
bool Up(const Plan::Entry& entry, bool evenDown, std::int64_t& now) { return evenDown || !DownNow(entry, now); }

// The weight the entry is drawn by within [begin, ...): its own, or 1 when
// `weighted` is false.
std::uint64_t WeightAt(const Plan& plan, std::size_t begin, std::size_t index, bool weighted) {
    if (!weighted) return 1;
    return plan.entries[index].cumulativeWeight - (index == begin ? 0 : plan.entries[index - 1].cumulativeWeight);
}

// The entry of [begin, begin + count) that `point` falls on among those that
// may be chosen, each taking its weight's share; Plan::kNone when none may.
std::size_t AmongUp(const Plan& plan, std::size_t begin, std::size_t count, bool weighted, bool evenDown,
                    std::int64_t& now, std::uint64_t point) {
    std::uint64_t upTotal = 0;
    for (std::size_t index = begin; index < begin + count; ++index) {
        upTotal += Up(plan.entries[index], evenDown, now) ? WeightAt(plan, begin, index, weighted) : 0;
    }
    if (upTotal == 0) return Plan::kNone;
    point %= upTotal;
    std::size_t last = Plan::kNone;
    for (std::size_t index = begin; index < begin + count; ++index) {
        if (!Up(plan.entries[index], evenDown, now)) continue;
        // A failure reported meanwhile may leave the point unspent: the
        // last instance that was up stands.
        last = index;
        const std::uint64_t weight = WeightAt(plan, begin, index, weighted);
        if (point < weight) return index;
        point -= weight;
    }
    return last;
}

std::int64_t Nanos(std::chrono::milliseconds time) { return std::chrono::nanoseconds(time).count(); }

// The doublings the next ejection of `health` gets: its ejections in a row,
// less one for each downTime it has behaved since the last one ended.
int Doublings(const InstanceProvider::Health& health, std::int64_t now, const DownInstancePolicy& policy) {
    const std::int64_t until = health.downUntil.load(std::memory_order_relaxed);
    if (health.ejections == 0 || until == 0) return 0;
    if (now <= until) return health.ejections;
    const std::int64_t behaved = (now - until) / std::max<std::int64_t>(Nanos(policy.downTime), 1);
    return static_cast<int>(std::max<std::int64_t>(0, health.ejections - behaved));
}

// Draws of a random or weighted choice before the instances that are up are
// counted instead: with half of them down, 1 choice in 256 gets that far.
constexpr int kDraws = 8;
// Points of the ring walked past a key's own before its instance is chosen
// among those that are up instead: with half of them down, a key in 2^32.
constexpr std::size_t kRingWalk = 32;

String What(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "an exception that is not a std::exception";
    }
}

}  // namespace

InstanceProvider::InstanceProvider(std::shared_ptr<const ServiceCache> cache, ProviderOptions options)
    : m_cache(std::move(cache)), m_options(std::move(options)), m_id(NextProviderId()) {
    if (!m_cache) throw std::invalid_argument("InstanceProvider needs a cache");
    if (m_options.down.errorThreshold < 1) throw std::invalid_argument("errorThreshold must be at least 1");
    m_metrics = std::make_unique<details::MetricsSource>([this](Metrics& metrics) { Collect(metrics); });
}

InstanceProvider::~InstanceProvider() {
    m_metrics->Close();
    {
        std::lock_guard<std::mutex> lock(m_planMtx);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_builder.joinable()) m_builder.join();
}

InstancePtr InstanceProvider::Choose() {
    Choosing choosing{CurrentSlot()};
    InstancePtr chosen = ChooseWith(choosing);
    m_counts.Add(chosen ? kChosen : kNoneChosen);
    return chosen;
}

InstancePtr InstanceProvider::Choose(std::string_view key) {
    if (m_options.strategy != ChoiceStrategy::kByKey) {
        throw std::logic_error("InstanceProvider::Choose(key) needs ChoiceStrategy::kByKey");
    }
    Choosing choosing{CurrentSlot(), true, KeyHash(key)};
    InstancePtr chosen = ChooseWith(choosing);
    m_counts.Add(chosen ? kChosen : kNoneChosen);
    return chosen;
}

InstancePtr InstanceProvider::ChooseWith(Choosing& choosing) {
    if (m_options.strategy == ChoiceStrategy::kSticky) return ChooseSticky(choosing);
    std::size_t index = ChooseIndex(choosing, false);
    if (index == Plan::kNone && m_options.whenAllDown == WhenAllDown::kChooseAmongDown) {
        index = ChooseIndex(choosing, true);
    }
    if (index == Plan::kNone) return nullptr;
    const Plan::Entry& entry = choosing.slot.plan->entries[index];
    if (m_options.strategy == ChoiceStrategy::kLeastRequest)
        entry.health->inFlight.fetch_add(1, std::memory_order_relaxed);
    return Hand(choosing.slot, entry);
}

std::size_t InstanceProvider::ChooseIndex(Choosing& choosing, bool evenDown) {
    for (std::size_t group = 0; group < Plan::kGroups; ++group) {
        const std::size_t index = ChooseIn(choosing, group, evenDown);
        if (index != Plan::kNone) return index;
    }
    return Plan::kNone;
}

std::size_t InstanceProvider::ChooseIn(Choosing& choosing, std::size_t group, bool evenDown) {
    const Plan& plan = *choosing.slot.plan;
    const std::size_t begin = plan.groupStart[group];
    const std::size_t count = plan.groupStart[group + 1] - begin;
    if (count == 0) return Plan::kNone;
    switch (m_options.strategy) {
        case ChoiceStrategy::kRoundRobin: {
            // The turn moves only when an instance is chosen, and past every
            // down instance it skips: each instance that is up gets one turn
            // per round, and a down one's turn is not handed to its neighbour.
            const std::uint64_t turn = choosing.slot.turn;
            for (std::size_t step = 0; step < count; ++step) {
                const std::size_t index = begin + static_cast<std::size_t>((turn + step) % count);
                if (!Up(plan.entries[index], evenDown, choosing.now)) continue;
                choosing.slot.turn = turn + step + 1;
                return index;
            }
            return Plan::kNone;
        }
        case ChoiceStrategy::kLeastRequest: {
            const std::size_t one = Draw(choosing, group, evenDown);
            if (one == Plan::kNone || count == 1) return one;
            const std::size_t other = Draw(choosing, group, evenDown);
            const auto load = [&](std::size_t index) {
                return plan.entries[index].health->inFlight.load(std::memory_order_relaxed);
            };
            return load(other) < load(one) ? other : one;
        }
        case ChoiceStrategy::kByKey:
            return choosing.keyed ? ByKey(choosing, group, evenDown) : Draw(choosing, group, evenDown);
        default:
            return Draw(choosing, group, evenDown);
    }
}

std::size_t InstanceProvider::Draw(Choosing& choosing, std::size_t group, bool evenDown) {
    // Random, or weighted when the group has weights (only drained groups
    // have none). A draw that meets a down instance is drawn again, so that
    // the instances that are up share the load in proportion, as if the
    // down ones were not there; when most are down, one pass over the group
    // chooses among the others with the same proportions.
    const Plan& plan = *choosing.slot.plan;
    const std::size_t begin = plan.groupStart[group];
    const std::size_t count = plan.groupStart[group + 1] - begin;
    const std::uint64_t total = plan.entries[begin + count - 1].cumulativeWeight;
    const bool weighted = m_options.strategy == ChoiceStrategy::kWeighted && total > 0;
    const auto first = plan.entries.begin() + static_cast<std::ptrdiff_t>(begin);
    for (int draw = 0; draw < kDraws; ++draw) {
        const std::size_t index =
            weighted ? begin + static_cast<std::size_t>(
                                   std::upper_bound(
                                       first, first + static_cast<std::ptrdiff_t>(count), Random() % total,
                                       [](std::uint64_t p, const Plan::Entry& e) { return p < e.cumulativeWeight; }) -
                                   first)
                     : begin + static_cast<std::size_t>(Random() % count);
        if (Up(plan.entries[index], evenDown, choosing.now)) return index;
    }
    return AmongUp(plan, begin, count, weighted, evenDown, choosing.now, Random());
}

std::size_t InstanceProvider::ByKey(Choosing& choosing, std::size_t group, bool evenDown) {
    // The points after a key's own belong to instances in proportion to
    // their shares: the keys of a down instance spread over the others as
    // those of one that left would, and come back to it once it is up.
    const Plan& plan = *choosing.slot.plan;
    const Plan::Ring& ring = plan.rings[group];
    const std::size_t size = ring.points.size();
    const std::size_t start = RingPoint(ring, choosing.keyHash);
    for (std::size_t step = 0; step < std::min(size, kRingWalk); ++step) {
        const std::size_t index = ring.owners[(start + step) % size];
        if (Up(plan.entries[index], evenDown, choosing.now)) return index;
    }
    // Most of the group is down: the key keeps one place among those up.
    const std::size_t begin = plan.groupStart[group];
    const std::size_t count = plan.groupStart[group + 1] - begin;
    return AmongUp(plan, begin, count, plan.entries[begin + count - 1].cumulativeWeight > 0, evenDown, choosing.now,
                   choosing.keyHash);
}

InstancePtr InstanceProvider::ChooseSticky(Choosing& choosing) {
    ThreadSlot& slot = choosing.slot;
    const Plan& plan = *slot.plan;
    // The choice is an instance, not a place in a plan: threads on plans of
    // different versions agree on it. Each looks it up in its own plan once
    // per change of the choice or of its plan.
    if (slot.stickyGeneration != m_stickyGeneration.load(std::memory_order_acquire) ||
        slot.stickyVersion != plan.version) {
        std::lock_guard<std::mutex> lock(m_stickyMtx);
        slot.stickyGeneration = m_stickyGeneration.load(std::memory_order_relaxed);
        slot.stickyVersion = plan.version;
        slot.stickyIndex = m_stickyChosen ? plan.EntryOf(*m_stickyChosen) : Plan::kNone;
    }
    const std::size_t held = slot.stickyIndex;
    // A drained choice stands only while nothing has a positive weight.
    const bool standing = held != Plan::kNone && (held < plan.groupStart[2] || plan.groupStart[2] == 0);
    if (standing && !DownNow(plan.entries[held], choosing.now)) return Hand(slot, plan.entries[held]);
    std::size_t index = ChooseIndex(choosing, false);
    if (index == Plan::kNone && m_options.whenAllDown == WhenAllDown::kChooseAmongDown) {
        // Every instance is down: the choice stands all the same, or one is
        // made among the down ones; either way it holds until one is up.
        index = standing ? held : ChooseIndex(choosing, true);
    }
    if (index == Plan::kNone) return nullptr;
    if (index == held) return Hand(slot, plan.entries[index]);
    // The latest choice stands: one that another thread made since this one
    // looked is kept, and this call still gets its own.
    std::lock_guard<std::mutex> lock(m_stickyMtx);
    if (m_stickyGeneration.load(std::memory_order_relaxed) == slot.stickyGeneration) {
        m_stickyChosen = plan.entries[index].instance->Id();
        m_stickyGeneration.store(++slot.stickyGeneration, std::memory_order_release);
        slot.stickyIndex = index;
    }
    return Hand(slot, plan.entries[index]);
}

InstanceProvider::ThreadSlot& InstanceProvider::CurrentSlot() {
    const std::uint64_t version = m_cache->Version();
    ThreadPlans& plans = t_plans;
    for (ThreadPlans::Slot& slot : plans.slots) {
        if (slot.provider != m_id) continue;
        if (slot.plan->version < version) Refresh(slot, version);
        return slot;
    }
    // A slot is taken over only once there is a plan: a filter that throws
    // leaves every slot of the thread as it was.
    std::shared_ptr<const Plan> plan = WaitForPlan(version);
    auto owner = std::make_shared<const PlanOwner>(PlanOwner{plan});
    ThreadPlans::Slot& slot = plans.slots[plans.next++ % ThreadPlans::kSlots];
    slot.provider = m_id;
    slot.owner = std::move(owner);
    slot.plan = std::move(plan);
    // Threads go round from different places.
    slot.turn = Random() >> 1;
    // Nothing looked up for another provider stands.
    slot.stickyGeneration = static_cast<std::uint64_t>(-1);
    slot.stickyIndex = Plan::kNone;
    return slot;
}

void InstanceProvider::Refresh(ThreadSlot& slot, std::uint64_t version) {
    if (m_planVersion.load(std::memory_order_acquire) > slot.plan->version) {
        {
            // The thread's references to the older plan go to the provider's
            // thread, which frees the plan if they were the last: freeing
            // one of a large service takes as long as building it.
            std::lock_guard<std::mutex> lock(m_planMtx);
            StartBuilder();  // first: a thread that cannot start leaves the slot as it was
            m_retired.push_back(std::move(slot.owner));
            m_retired.push_back(std::move(slot.plan));
            slot.plan = m_plan;
        }
        m_wake.notify_one();
        slot.owner = std::make_shared<const PlanOwner>(PlanOwner{slot.plan});
    }
    if (slot.plan->version < version) Request(version);
}

void InstanceProvider::Request(std::uint64_t version) {
    // Once per version: the threads that meet it later see it requested.
    if (m_requested.load(std::memory_order_relaxed) >= version) return;
    {
        std::lock_guard<std::mutex> lock(m_planMtx);
        if (m_requested.load(std::memory_order_relaxed) >= version) return;
        m_requested.store(version, std::memory_order_relaxed);
        StartBuilder();
    }
    m_wake.notify_one();
}

void InstanceProvider::StartBuilder() {
    // The thread is joined by the destructor: it never outlives `this`.
    if (!m_builder.joinable() && !m_stopping) m_builder = std::thread([this] { BuildPlans(); });
}

std::shared_ptr<const InstanceProvider::Plan> InstanceProvider::WaitForPlan(std::uint64_t version) {
    std::unique_lock<std::mutex> lock(m_planMtx);
    const auto ready = [&] { return m_plan && m_plan->version >= version; };
    if (ready()) return m_plan;
    const std::uint64_t failures = m_failures;
    if (m_requested.load(std::memory_order_relaxed) < version) m_requested.store(version, std::memory_order_relaxed);
    // An attempt at this version failed: one more. One not yet made or
    // under way serves every thread that waits for it.
    if (m_attempted >= version) m_retry = true;
    StartBuilder();
    m_wake.notify_one();
    m_built.wait(lock, [&] { return ready() || m_failures != failures; });
    if (ready()) return m_plan;
    std::rethrow_exception(m_failure);
}

void InstanceProvider::BuildPlans() {
    std::unique_lock<std::mutex> lock(m_planMtx);
    for (;;) {
        m_wake.wait(lock, [&] {
            return m_stopping || m_retry || m_requested.load(std::memory_order_relaxed) > m_attempted ||
                   !m_retired.empty();
        });
        if (m_stopping) return;
        if (!m_retired.empty()) {
            std::vector<std::shared_ptr<const void>> retired;
            retired.swap(m_retired);
            lock.unlock();
            retired.clear();
            lock.lock();
            continue;
        }
        m_retry = false;
        lock.unlock();
        // The filter runs in BuildPlan, with no lock held.
        SnapshotPtr snapshot = m_cache->Snapshot();
        const std::uint64_t version = snapshot->Version();
        std::shared_ptr<const Plan> plan;
        std::exception_ptr failure;
        try {
            plan = BuildPlan(std::move(snapshot));
        } catch (...) {
            failure = std::current_exception();
            JXLOG(logging::JXLOG_ERROR, g_log) << "Instance filter failed, choosing from the previous view instead "
                                                  "of version "
                                               << version << ": " << What(failure);
        }
        lock.lock();
        m_attempted = std::max(m_attempted, version);
        if (plan) {
            Install(std::move(plan));
        } else {
            m_failure = failure;
            ++m_failures;
        }
        m_built.notify_all();
    }
}

void InstanceProvider::Install(std::shared_ptr<const Plan> plan) {
    if (m_plan && m_plan->version >= plan->version) return;
    m_accepted.store(plan->entries.size(), std::memory_order_relaxed);
    m_plan = std::move(plan);
    m_planVersion.store(m_plan->version, std::memory_order_release);
}

std::shared_ptr<const InstanceProvider::Plan> InstanceProvider::BuildPlan(SnapshotPtr snapshot) {
    auto plan = std::make_shared<Plan>();
    plan->version = snapshot->Version();
    // The filter is the caller's code: it runs with no lock held.
    std::vector<const CachedInstance*> groups[Plan::kGroups];
    for (std::size_t index = 0; index < snapshot->size(); ++index) {
        const InstancePtr& instance = (*snapshot)[index];
        if (m_options.filter && !m_options.filter(*instance)) continue;
        const bool elsewhere = !m_options.zone.empty() && instance->Zone() != m_options.zone;
        const bool drained = instance->Weight() == 0;
        groups[(drained ? 2 : 0) + (elsewhere ? 1 : 0)].push_back(instance.get());
    }
    {
        std::lock_guard<std::mutex> lock(m_healthMtx);
        for (std::size_t group = 0; group < Plan::kGroups; ++group) {
            plan->groupStart[group] = plan->entries.size();
            std::uint64_t cumulative = 0;
            for (const CachedInstance* instance : groups[group]) {
                const std::shared_ptr<Health>& health = HealthOf(instance->Id());
                health->seenIn = std::max(health->seenIn, plan->version);
                cumulative += instance->Weight();
                plan->entries.push_back(Plan::Entry{instance, health, cumulative});
            }
        }
        plan->groupStart[Plan::kGroups] = plan->entries.size();
        plan->IndexIds();
        // Forget instances that left and have nothing left to count.
        const std::int64_t now = NowNs();
        const std::int64_t windowStart = now - Nanos(m_options.down.errorWindow);
        for (auto it = m_health.begin(); it != m_health.end();) {
            const Health& health = *it->second;
            // A call in flight keeps it too: its report must find the
            // record the choice counted it in.
            const bool counting = health.downUntil.load() > now || health.inFlight.load() > 0 ||
                                  (health.row > 0 && health.rowStart > windowStart) ||
                                  (health.calls > 0 && health.callsSince > windowStart) ||
                                  Doublings(health, now, m_options.down) > 0;
            it = health.seenIn < plan->version && !counting ? m_health.erase(it) : std::next(it);
        }
    }
    if (m_options.strategy == ChoiceStrategy::kByKey) {
        for (std::size_t group = 0; group < Plan::kGroups; ++group)
            plan->rings[group] = BuildRing(*plan, group, m_ringScale[group]);
    }
    plan->snapshot = std::move(snapshot);
    return plan;
}

const std::shared_ptr<InstanceProvider::Health>& InstanceProvider::HealthOf(const ServiceId& id) {
    std::shared_ptr<Health>& health = m_health[id];
    if (!health) health = std::make_shared<Health>();
    return health;
}

NoChoice InstanceProvider::WhyNone() {
    const std::shared_ptr<const Plan> plan = WaitForPlan(m_cache->Version());
    if (plan->snapshot.empty()) return m_cache->IsSynced() ? NoChoice::kEmpty : NoChoice::kNotSynced;
    return plan->entries.empty() ? NoChoice::kAllFiltered : NoChoice::kAllDown;
}

void InstanceProvider::ReportFailure(const ServiceId& id) {
    m_counts.Add(kFailed);
    const std::int64_t now = NowNs();
    std::lock_guard<std::mutex> lock(m_healthMtx);
    Health& health = *HealthOf(id);
    EndCall(health);
    if (health.downUntil.load(std::memory_order_relaxed) > now) return;  // ejected already: calls in flight
    CountCall(health, now, true);
    if (health.row == 0 || health.rowStart <= now - Nanos(m_options.down.errorWindow)) {
        health.row = 0;
        health.rowStart = now;
    }
    ++health.row;
    const DownInstancePolicy& policy = m_options.down;
    const bool byRate = policy.minimumCalls > 0 && health.calls >= policy.minimumCalls &&
                        health.failed >= policy.failureRate * health.calls;
    if (health.row >= policy.errorThreshold || byRate) Eject(health, now);
}

void InstanceProvider::ReportSuccess(const ServiceId& id) {
    m_counts.Add(kSucceeded);
    // Without a failure rate to count, a success only ends a row of
    // failures: when there is none, the thread's plan finds the record
    // without a lock.
    if (Health* planned = PlannedHealth(id); planned && m_options.down.minimumCalls == 0) {
        if (planned->row.load(std::memory_order_relaxed) == 0) return EndCall(*planned);
    }
    const std::int64_t now = NowNs();
    std::lock_guard<std::mutex> lock(m_healthMtx);
    Health& health = *HealthOf(id);
    EndCall(health);
    CountCall(health, now, false);
    health.row = 0;
}

void InstanceProvider::ReportEnd(const ServiceId& id) {
    m_counts.Add(kEnded);
    if (m_options.strategy != ChoiceStrategy::kLeastRequest) return;
    if (Health* planned = PlannedHealth(id)) return EndCall(*planned);
    std::lock_guard<std::mutex> lock(m_healthMtx);
    const auto it = m_health.find(id);
    if (it != m_health.end()) EndCall(*it->second);
}

InstanceProvider::Health* InstanceProvider::PlannedHealth(const ServiceId& id) const {
    for (const ThreadPlans::Slot& slot : t_plans.slots) {
        if (slot.provider != m_id) continue;
        const std::size_t index = slot.plan->EntryOf(id);
        return index == Plan::kNone ? nullptr : slot.plan->entries[index].health.get();
    }
    return nullptr;
}

void InstanceProvider::EndCall(Health& health) const {
    if (m_options.strategy != ChoiceStrategy::kLeastRequest) return;
    // Never below zero: a report of a call chosen before the instance's
    // record was forgotten, or reported twice, ends nothing.
    std::int64_t calls = health.inFlight.load(std::memory_order_relaxed);
    while (calls > 0 && !health.inFlight.compare_exchange_weak(calls, calls - 1, std::memory_order_relaxed)) {
    }
}

void InstanceProvider::CountCall(Health& health, std::int64_t now, bool failed) const {
    if (health.callsSince <= now - Nanos(m_options.down.errorWindow)) {
        health.callsSince = now;
        health.calls = 0;
        health.failed = 0;
    }
    ++health.calls;
    health.failed += failed ? 1 : 0;
}

void InstanceProvider::Eject(Health& health, std::int64_t now) {
    const DownInstancePolicy& policy = m_options.down;
    std::size_t down = 0;
    for (const auto& entry : m_health) down += entry.second->downUntil.load(std::memory_order_relaxed) > now ? 1 : 0;
    const std::size_t accepted = m_accepted.load(std::memory_order_relaxed);
    // Counted afresh either way: a refused instance is judged again on its
    // next failures, not on every one of them.
    health.row = 0;
    health.calls = 0;
    health.failed = 0;
    if (accepted > 0 && static_cast<double>(down + 1) > policy.maxEjectedShare * static_cast<double>(accepted)) {
        m_panicking.store(true, std::memory_order_relaxed);
        return;
    }
    m_panicking.store(false, std::memory_order_relaxed);
    const int doublings = Doublings(health, now, policy);
    const std::int64_t longest = Nanos(policy.maxDownTime);
    const std::int64_t time = std::min(longest, Nanos(policy.downTime) << std::min(doublings, 20));
    health.ejections = doublings + 1;
    health.downUntil.store(now + std::max<std::int64_t>(time, 0), std::memory_order_relaxed);
    m_counts.Add(kEjected);
}

void InstanceProvider::Collect(Metrics& metrics) const {
    ProviderMetrics figures;
    figures.service = m_cache->Service();
    figures.choices = m_counts.Sum(kChosen);
    figures.noChoices = m_counts.Sum(kNoneChosen);
    figures.successes = m_counts.Sum(kSucceeded);
    figures.failures = m_counts.Sum(kFailed);
    figures.ends = m_counts.Sum(kEnded);
    figures.ejections = m_counts.Sum(kEjected);
    figures.panicking = Panicking();
    const std::int64_t now = NowNs();
    {
        std::lock_guard<std::mutex> lock(m_healthMtx);
        for (const auto& entry : m_health) {
            figures.ejected += entry.second->downUntil.load(std::memory_order_relaxed) > now ? 1 : 0;
        }
    }
    metrics.providers.push_back(std::move(figures));
}

bool InstanceProvider::IsDown(const ServiceId& id) const { return DownFor(id) > std::chrono::milliseconds(0); }

std::chrono::milliseconds InstanceProvider::DownFor(const ServiceId& id) const {
    const std::int64_t now = NowNs();
    std::lock_guard<std::mutex> lock(m_healthMtx);
    const auto it = m_health.find(id);
    const std::int64_t until = it == m_health.end() ? 0 : it->second->downUntil.load(std::memory_order_relaxed);
    return until > now ? std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::nanoseconds(until - now)) +
                             std::chrono::milliseconds(1)
                       : std::chrono::milliseconds(0);
}

}  // namespace ferrow
}  // namespace jx
