#include "ferrow/instance_provider.h"

#include <algorithm>
#include <limits>
#include <random>
#include <stdexcept>
#include <unordered_set>
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
    std::uint64_t ended = 0;  // g_ended when the slots were last swept
};
thread_local ThreadPlans t_plans;

// The providers alive, and a count of those destroyed, so that each thread
// lets go of a destroyed provider's plan at its next choice. Never
// destroyed: a provider may outlive static destruction.
std::mutex& g_liveMtx = *new std::mutex;
std::unordered_set<std::uint64_t>& g_live = *new std::unordered_set<std::uint64_t>;
std::atomic<std::uint64_t> g_ended{0};

// Frees the slots of destroyed providers.
void Sweep(ThreadPlans& plans) {
    plans.ended = g_ended.load(std::memory_order_acquire);
    std::vector<std::shared_ptr<const void>> dropped;
    {
        std::lock_guard<std::mutex> lock(g_liveMtx);
        for (ThreadPlans::Slot& slot : plans.slots) {
            if (slot.provider == 0 || g_live.count(slot.provider) != 0) continue;
            slot.provider = 0;
            dropped.push_back(std::move(slot.owner));
            dropped.push_back(std::move(slot.plan));
        }
    }
}

// The provider whose filter this thread runs, if any: it must not choose
// with that provider, whose plan it is building.
thread_local const InstanceProvider* t_filtering = nullptr;

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
std::uint64_t WeightAt(const Plan& plan, std::size_t index, bool weighted) {
    if (!weighted) return 1;
    return plan.entries[index].weight;
}

// The entry of [begin, begin + count) that `point` falls on among those that
// may be chosen, each taking its weight's share; Plan::kNone when none may.
std::size_t AmongUp(const Plan& plan, std::size_t begin, std::size_t count, bool weighted, bool evenDown,
                    std::int64_t& now, std::uint64_t point) {
    std::uint64_t upTotal = 0;
    for (std::size_t index = begin; index < begin + count; ++index) {
        upTotal += Up(plan.entries[index], evenDown, now) ? WeightAt(plan, index, weighted) : 0;
    }
    if (upTotal == 0) return Plan::kNone;
    point %= upTotal;
    std::size_t last = Plan::kNone;
    for (std::size_t index = begin; index < begin + count; ++index) {
        if (!Up(plan.entries[index], evenDown, now)) continue;
        // A failure reported meanwhile may leave the point unspent: the
        // last instance that was up stands.
        last = index;
        const std::uint64_t weight = WeightAt(plan, index, weighted);
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
// Slots of the table tried after a key's own is down, before its instance
// is chosen among those that are up instead: with half of them down, a key
// in 2^32.
constexpr int kKeyDraws = 32;
// The filter's first retry, and its longest delay.
constexpr std::chrono::milliseconds kFirstRetry{100};
constexpr std::chrono::milliseconds kLongestRetry{10'000};

// The entries the provider judges outcomes against (see the header's "Down
// instances"): those with a positive weight, or the drained ones when every
// one is.
std::pair<std::size_t, std::size_t> Pool(const Plan& plan) {
    return plan.groupStart[2] > 0 ? std::make_pair(std::size_t{0}, plan.groupStart[2])
                                  : std::make_pair(plan.groupStart[2], plan.entries.size());
}

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
    const DownInstancePolicy& policy = m_options.down;
    // One failure alone cannot be told from the first of a service-wide
    // spike: a row is judged against what the others did meanwhile.
    if (policy.errorThreshold < 2) throw std::invalid_argument("errorThreshold must be at least 2");
    if (policy.minimumCalls == 1) throw std::invalid_argument("minimumCalls must be 0 (off) or at least 2");
    const auto share = [](double value) { return value >= 0 && value <= 1; };
    if (!share(policy.maxEjectedShare) || !share(policy.panicThreshold) || !share(policy.failureRate)) {
        throw std::invalid_argument("maxEjectedShare, panicThreshold and failureRate must be within [0, 1]");
    }
    {
        std::lock_guard<std::mutex> lock(g_liveMtx);
        g_live.insert(m_id);
    }
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
    {
        std::lock_guard<std::mutex> lock(g_liveMtx);
        g_live.erase(m_id);
    }
    g_ended.fetch_add(1, std::memory_order_release);
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
    bool panic = PanicNow();
    if (m_options.strategy == ChoiceStrategy::kSticky) return ChooseSticky(choosing, panic);
    std::size_t index = ChooseIndex(choosing, panic);
    // An ejection that starts a panic ejects after it says so: a choice that
    // found every instance down looks again.
    if (index == Plan::kNone && !panic && (panic = PanicNow())) index = ChooseIndex(choosing, true);
    if (index == Plan::kNone) return nullptr;
    const Plan::Entry& entry = choosing.slot.plan->entries[index];
    if (m_options.strategy == ChoiceStrategy::kLeastRequest)
        entry.health->inFlight.fetch_add(1, std::memory_order_relaxed);
    return Hand(choosing.slot, entry);
}

bool InstanceProvider::PanicNow() {
    if (!m_panic.load(std::memory_order_acquire)) return false;
    // The clock is read only in a panic, which an ejection's end may end.
    const std::int64_t now = NowNs();
    if (now < m_panicUntil.load(std::memory_order_relaxed)) return true;
    std::lock_guard<std::mutex> lock(m_healthMtx);
    Judge(now);
    return m_panic.load(std::memory_order_relaxed);
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
            const std::size_t one = Draw(choosing, group, evenDown, true);
            if (one == Plan::kNone || count == 1) return one;
            const std::size_t other = Draw(choosing, group, evenDown, true);
            // Every other one ejected since the first draw, on another thread.
            if (other == Plan::kNone) return one;
            // Calls in flight per unit of weight, compared as products; a
            // drained group's instances weigh alike.
            const bool weighed = plan.groupWeight[group] > 0;
            const auto load = [&](std::size_t index) {
                return static_cast<unsigned __int128>(
                    std::max<std::int64_t>(0, plan.entries[index].health->inFlight.load(std::memory_order_relaxed)));
            };
            const auto weight = [&](std::size_t index) -> unsigned __int128 {
                return WeightAt(plan, index, weighed);
            };
            return load(other) * weight(one) < load(one) * weight(other) ? other : one;
        }
        case ChoiceStrategy::kByKey:
            return choosing.keyed ? ByKey(choosing, group, evenDown) : Draw(choosing, group, evenDown, true);
        case ChoiceStrategy::kWeighted:
            return Draw(choosing, group, evenDown, true);
        default:
            return Draw(choosing, group, evenDown, false);
    }
}

std::size_t InstanceProvider::Draw(Choosing& choosing, std::size_t group, bool evenDown, bool byWeight) {
    // Uniform, or in proportion to weight when asked and the group's weights
    // differ. A draw that meets a down instance is drawn again, so that the
    // instances that are up share the load in proportion, as if the down
    // ones were not there; when most are down, one pass over the group
    // chooses among the others with the same proportions.
    const Plan& plan = *choosing.slot.plan;
    const std::size_t begin = plan.groupStart[group];
    const std::size_t count = plan.groupStart[group + 1] - begin;
    const Plan::Alias& alias = plan.aliases[group];
    const bool weighted = byWeight && !alias.slots.empty();
    for (int draw = 0; draw < kDraws; ++draw) {
        const std::uint64_t random = Random();
        std::size_t offset = TableSlot(random, count);
        if (weighted) {
            const Plan::Alias::Slot& slot = alias.slots[offset];
            if (static_cast<std::uint32_t>(random) >= slot.threshold) offset = slot.other;
        }
        if (Up(plan.entries[begin + offset], evenDown, choosing.now)) return begin + offset;
    }
    return AmongUp(plan, begin, count, weighted, evenDown, choosing.now, Random());
}

std::size_t InstanceProvider::ByKey(Choosing& choosing, std::size_t group, bool evenDown) {
    // Each slot belongs to an instance in proportion to its weight, so the
    // slots tried after a key's own spread the keys of a down instance over
    // the others as the keys of one that left would be, and the key comes
    // back once it is up.
    const Plan& plan = *choosing.slot.plan;
    const Plan::Table& table = *plan.tables[group];
    const std::vector<std::uint32_t>& entryOf = plan.tableEntries[group];
    const std::size_t slots = table.owners.size();
    std::uint64_t hash = choosing.keyHash;
    for (int draw = 0; draw <= kKeyDraws; ++draw) {
        const std::size_t index = entryOf[table.owners[TableSlot(hash, slots)]];
        if (Up(plan.entries[index], evenDown, choosing.now)) return index;
        hash = Mix(hash + 0x9e3779b97f4a7c15ULL);
    }
    // Most of the group is down: the key keeps one place among those up.
    const std::size_t begin = plan.groupStart[group];
    const std::size_t count = plan.groupStart[group + 1] - begin;
    return AmongUp(plan, begin, count, plan.groupWeight[group] > 0, evenDown, choosing.now,
                   choosing.keyHash);
}

InstancePtr InstanceProvider::ChooseSticky(Choosing& choosing, bool panic) {
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
    // A drained choice stands only while nothing has a positive weight; in
    // a panic a down one stands too, until one is up.
    const bool standing = held != Plan::kNone && (held < plan.groupStart[2] || plan.groupStart[2] == 0);
    if (standing && (panic || !DownNow(plan.entries[held], choosing.now))) return Hand(slot, plan.entries[held]);
    std::size_t index = ChooseIndex(choosing, panic);
    if (index == Plan::kNone && !panic && PanicNow()) index = standing ? held : ChooseIndex(choosing, true);
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
    if (plans.ended != g_ended.load(std::memory_order_relaxed)) Sweep(plans);
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
    std::shared_ptr<const void> previous[] = {std::move(slot.owner), std::move(slot.plan)};
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
    if (t_filtering == this) {
        throw std::logic_error("InstanceProvider: its filter chose with it, while its plan was being built");
    }
    std::unique_lock<std::mutex> lock(m_planMtx);
    const auto ready = [&] { return m_plan && m_plan->version >= version; };
    if (ready()) return m_plan;
    // The filter failed at this version: the provider's thread tries again
    // on its own schedule, and meanwhile every caller gets its exception.
    if (m_failure && m_failedVersion >= version) std::rethrow_exception(m_failure);
    const std::uint64_t failures = m_failures;
    if (m_requested.load(std::memory_order_relaxed) < version) m_requested.store(version, std::memory_order_relaxed);
    // An attempt even at a version tried already (the first, 0), unless one
    // is under way: its plan, or its failure, answers this wait.
    if (!m_building) m_wanted = true;
    StartBuilder();
    m_wake.notify_one();
    m_built.wait(lock, [&] { return ready() || m_failures != failures; });
    if (ready()) return m_plan;
    std::rethrow_exception(m_failure);
}

void InstanceProvider::BuildPlans() {
    std::unique_lock<std::mutex> lock(m_planMtx);
    std::chrono::milliseconds delay = kFirstRetry;
    std::chrono::steady_clock::time_point retryAt;
    for (;;) {
        const auto work = [&] {
            return m_stopping || m_wanted || m_requested.load(std::memory_order_relaxed) > m_attempted ||
                   !m_retired.empty();
        };
        // After a failure, the latest snapshot is tried again once the
        // delay is over, or at once when the cache has changed.
        if (m_failure) {
            m_wake.wait_until(lock, retryAt, work);
        } else {
            m_wake.wait(lock, work);
        }
        if (m_stopping) return;
        if (!m_retired.empty()) {
            std::vector<std::shared_ptr<const void>> retired;
            retired.swap(m_retired);
            lock.unlock();
            retired.clear();
            lock.lock();
            continue;
        }
        const bool retryDue = m_failure && std::chrono::steady_clock::now() >= retryAt;
        if (m_requested.load(std::memory_order_relaxed) <= m_attempted && !retryDue && !m_wanted) continue;
        m_wanted = false;
        m_building = true;
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
        }
        lock.lock();
        m_building = false;
        m_attempted = std::max(m_attempted, version);
        if (plan) {
            Install(std::move(plan));
            m_failure = nullptr;
            delay = kFirstRetry;
        } else {
            m_failure = failure;
            m_failedVersion = version;
            ++m_failures;
            retryAt = std::chrono::steady_clock::now() + delay;
            if (version != m_loggedVersion) {
                m_loggedVersion = version;
                if (m_plan) {
                    JXLOG(logging::JXLOG_ERROR, g_log)
                        << "Instance filter failed on version " << version << ", choosing from version "
                        << m_plan->version << " until it succeeds: " << What(failure);
                } else {
                    JXLOG(logging::JXLOG_ERROR, g_log) << "Instance filter failed on version " << version
                                                       << ", nothing to choose from until it succeeds: "
                                                       << What(failure);
                }
            }
            delay = std::min(delay * 2, kLongestRetry);
        }
        m_built.notify_all();
    }
}

void InstanceProvider::Install(std::shared_ptr<const Plan> plan) {
    if (m_plan && m_plan->version >= plan->version) return;
    {
        std::lock_guard<std::mutex> lock(m_healthMtx);
        m_view = plan;
        Judge(NowNs());
    }
    m_plan = std::move(plan);
    m_planVersion.store(m_plan->version, std::memory_order_release);
}

std::shared_ptr<const InstanceProvider::Plan> InstanceProvider::BuildPlan(SnapshotPtr snapshot) {
    auto plan = std::make_shared<Plan>();
    plan->version = snapshot->Version();
    // The filter is the caller's code: it runs with no lock held.
    std::vector<const CachedInstance*> groups[Plan::kGroups];
    {
        t_filtering = this;
        struct Done {
            ~Done() { t_filtering = nullptr; }
        } done;
        for (std::size_t index = 0; index < snapshot->size(); ++index) {
            const InstancePtr& instance = (*snapshot)[index];
            if (m_options.filter && !m_options.filter(*instance)) continue;
            const bool elsewhere = !m_options.zone.empty() && instance->Zone() != m_options.zone;
            const bool drained = instance->Weight() == 0;
            groups[(drained ? 2 : 0) + (elsewhere ? 1 : 0)].push_back(instance.get());
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_healthMtx);
        for (std::size_t group = 0; group < Plan::kGroups; ++group) {
            plan->groupStart[group] = plan->entries.size();
            for (const CachedInstance* instance : groups[group]) {
                const std::shared_ptr<Health>& health = HealthOf(instance->Id());
                health->seenIn = std::max(health->seenIn, plan->version);
                plan->groupWeight[group] += instance->Weight();
                plan->entries.push_back(Plan::Entry{instance, health, instance->Weight()});
            }
        }
        plan->groupStart[Plan::kGroups] = plan->entries.size();
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
    plan->IndexIds();
    for (std::size_t group = 0; group < Plan::kGroups; ++group) {
        plan->aliases[group] = BuildAlias(*plan, group);
        if (m_options.strategy != ChoiceStrategy::kByKey || plan->groupStart[group] == plan->groupStart[group + 1]) {
            continue;
        }
        // A group that did not change keeps its table: it is a function of
        // the ids and weights alone.
        std::vector<std::pair<ServiceId, std::uint64_t>> inputs = TableInputs(*plan, group);
        if (!m_tables[group] || inputs != m_tableInputs[group]) {
            m_tables[group] = std::make_shared<const Plan::Table>(BuildTable(inputs));
            m_tableInputs[group] = std::move(inputs);
        }
        plan->tables[group] = std::static_pointer_cast<const Plan::Table>(m_tables[group]);
        std::vector<std::uint32_t>& entryOf = plan->tableEntries[group];
        entryOf.reserve(m_tableInputs[group].size());
        for (const auto& input : m_tableInputs[group]) {
            entryOf.push_back(static_cast<std::uint32_t>(plan->EntryOf(input.first)));
        }
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
    Health* const counted = EndCounted(id);
    if (!counted) return;
    Health& health = *counted;
    if (health.downUntil.load(std::memory_order_relaxed) > now) return;  // ejected already: calls in flight
    CountCall(health, now, true);
    const DownInstancePolicy& policy = m_options.down;
    if (health.row == 0 || health.rowStart <= now - Nanos(policy.errorWindow)) {
        health.row = 0;
        health.rowStart = now;
    }
    const std::uint64_t seq = m_failed.load(std::memory_order_relaxed) + 1;
    m_failed.store(seq, std::memory_order_relaxed);
    if (health.row == 0) health.rowSeq = seq;
    health.failSeq = seq;
    ++health.row;
    // Judged against the others at each errorThreshold failures of a row,
    // and at each failure that may make a rate an outlier.
    const bool byRow = health.row % policy.errorThreshold == 0;
    const bool byRate = policy.minimumCalls > 0 && health.calls >= policy.minimumCalls &&
                        health.failed >= policy.failureRate * health.calls;
    if ((byRow && Outlier(health, now, false)) || (byRate && Outlier(health, now, true))) Eject(health, now);
}

void InstanceProvider::ReportSuccess(const ServiceId& id) {
    m_counts.Add(kSucceeded);
    // Without a failure rate to count, a success only ends a row of
    // failures: when there is none, the thread's plan finds the record
    // without a lock.
    if (Health* planned = PlannedHealth(id); planned && m_options.down.minimumCalls == 0) {
        if (planned->row.load(std::memory_order_relaxed) == 0) {
            Succeeded(*planned);
            return EndCall(*planned);
        }
    }
    const std::int64_t now = NowNs();
    std::lock_guard<std::mutex> lock(m_healthMtx);
    Health* const counted = EndCounted(id);
    if (!counted) return;
    CountCall(*counted, now, false);
    counted->row = 0;
    Succeeded(*counted);
}

void InstanceProvider::Succeeded(Health& health) const {
    // A write only after a failure: while none is reported, successes
    // share the line without writing it.
    const std::uint64_t seq = m_failed.load(std::memory_order_relaxed);
    if (health.okSeq.load(std::memory_order_relaxed) != seq) health.okSeq.store(seq, std::memory_order_relaxed);
}

InstanceProvider::Health* InstanceProvider::EndCounted(const ServiceId& id) {
    const auto it = m_health.find(id);
    if (it == m_health.end()) return nullptr;
    EndCall(*it->second);
    if (!m_view) return nullptr;
    const std::size_t index = m_view->EntryOf(id);
    const auto [begin, end] = Pool(*m_view);
    return index >= begin && index < end ? it->second.get() : nullptr;
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

bool InstanceProvider::Outlier(const Health& health, std::int64_t now, bool byRate) const {
    const auto [begin, end] = Pool(*m_view);
    const std::int64_t windowStart = now - Nanos(m_options.down.errorWindow);
    std::size_t failing = 0, succeeding = 0;
    std::int64_t calls = 0, failed = 0;
    for (std::size_t index = begin; index < end; ++index) {
        const Health& other = *m_view->entries[index].health;
        if (&other == &health || other.downUntil.load(std::memory_order_relaxed) > now) continue;
        // Reported on since this row began: the last outcome counts.
        if (other.row > 0) {
            failing += other.failSeq >= health.rowSeq ? 1 : 0;
        } else {
            succeeding += other.okSeq.load(std::memory_order_relaxed) >= health.rowSeq ? 1 : 0;
        }
        if (other.callsSince > windowStart) {
            calls += other.calls;
            failed += other.failed;
        }
    }
    // Unknown is no defence: with no other failing since the row began, the
    // failures are this instance's own.
    if (!byRate) return failing == 0 || succeeding > failing;
    const double share = static_cast<double>(health.failed) / static_cast<double>(health.calls);
    // Too few calls of the others to compare with: not judged by its rate.
    if (calls < m_options.down.minimumCalls) return false;
    const double others = static_cast<double>(failed) / static_cast<double>(calls);
    return share - others >= m_options.down.failureRate;
}

std::vector<InstanceProvider::Health*> InstanceProvider::DownInView(std::int64_t now) const {
    std::vector<Health*> down;
    if (!m_view) return down;
    const auto [begin, end] = Pool(*m_view);
    for (std::size_t index = begin; index < end; ++index) {
        Health* health = m_view->entries[index].health.get();
        if (health->downUntil.load(std::memory_order_relaxed) > now) down.push_back(health);
    }
    std::sort(down.begin(), down.end(), [](const Health* x, const Health* y) {
        return x->downUntil.load(std::memory_order_relaxed) < y->downUntil.load(std::memory_order_relaxed);
    });
    return down;
}

std::size_t InstanceProvider::PoolSize() const {
    if (!m_view) return 0;
    const auto [begin, end] = Pool(*m_view);
    return end - begin;
}

bool InstanceProvider::Panics(std::size_t down, std::size_t pool) const {
    return down > 0 && static_cast<double>(pool - down) < m_options.down.panicThreshold * static_cast<double>(pool);
}

void InstanceProvider::Eject(Health& health, std::int64_t now) {
    const DownInstancePolicy& policy = m_options.down;
    const std::vector<Health*> down = DownInView(now);
    const std::size_t pool = PoolSize();
    // Counted afresh either way: a refused instance is judged again on its
    // next failures, not on every one of them.
    health.row = 0;
    health.calls = 0;
    health.failed = 0;
    if (down.size() + 1 > Allowed(pool)) return;
    const int doublings = Doublings(health, now, policy);
    const std::int64_t longest = Nanos(policy.maxDownTime);
    const std::int64_t time = std::max<std::int64_t>(std::min(longest, Nanos(policy.downTime) << std::min(doublings, 20)), 1);
    health.ejections = doublings + 1;
    // A panic this ejection starts is declared before the instance is down,
    // so that no choice finds every instance down without it.
    if (Panics(down.size() + 1, pool)) {
        const std::int64_t until = now + time;
        m_panicUntil.store(down.empty() ? until : std::min(down.front()->downUntil.load(std::memory_order_relaxed), until),
                           std::memory_order_relaxed);
        m_panic.store(true, std::memory_order_release);
    }
    health.downUntil.store(now + time, std::memory_order_release);
    m_counts.Add(kEjected);
    Judge(now);
}

std::size_t InstanceProvider::Allowed(std::size_t pool) const {
    return static_cast<std::size_t>(m_options.down.maxEjectedShare * static_cast<double>(pool) + 1e-9);
}

void InstanceProvider::Judge(std::int64_t now) {
    if (!m_view) return;
    const std::vector<Health*> down = DownInView(now);
    const std::size_t pool = PoolSize();
    // Over the cap (instances that were up left, say): those whose time ends
    // first come back now; their next ejection still doubles.
    std::size_t back = 0;
    for (; down.size() - back > Allowed(pool); ++back) down[back]->downUntil.store(now, std::memory_order_relaxed);
    const bool panic = Panics(down.size() - back, pool);
    m_panicUntil.store(panic ? down[back]->downUntil.load(std::memory_order_relaxed)
                             : std::numeric_limits<std::int64_t>::max(),
                       std::memory_order_relaxed);
    m_panic.store(panic, std::memory_order_release);
}

bool InstanceProvider::Panicking() const {
    const std::int64_t now = NowNs();
    std::lock_guard<std::mutex> lock(m_healthMtx);
    return Panics(DownInView(now).size(), PoolSize());
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

Call::~Call() { Report(Outcome::kEnded); }

Call::Call(Call&& other) noexcept
    : m_provider(std::exchange(other.m_provider, nullptr)), m_instance(std::move(other.m_instance)) {}

Call& Call::operator=(Call&& other) noexcept {
    if (this != &other) {
        Report(Outcome::kEnded);
        m_provider = std::exchange(other.m_provider, nullptr);
        m_instance = std::move(other.m_instance);
    }
    return *this;
}

void Call::Succeeded() { Report(Outcome::kSucceeded); }
void Call::Failed() { Report(Outcome::kFailed); }
void Call::End() { Report(Outcome::kEnded); }

void Call::Report(Outcome outcome) {
    InstanceProvider* const provider = std::exchange(m_provider, nullptr);
    if (!provider || !m_instance) return;
    switch (outcome) {
        case Outcome::kSucceeded:
            return provider->ReportSuccess(m_instance->Id());
        case Outcome::kFailed:
            return provider->ReportFailure(m_instance->Id());
        case Outcome::kEnded:
            return provider->ReportEnd(m_instance->Id());
    }
}

}  // namespace ferrow
}  // namespace jx
