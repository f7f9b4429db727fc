// Faults and churn at the seams between scenarios. A schedule drawn from a
// seed runs a watcher and a cache on one connection, which reaches each
// server through a relay of its own, through relay resets, freezes shorter
// and longer than the session, cuts kept down while the servers are written
// directly, server restarts, forced expiries (also while the first reads
// are held in flight), members of an ensemble killed, the quorum lost,
// bursts of churn, and the destruction and re-creation of both (also while
// most of their first reads wait in the connection), churn following every
// step at once. Once quiet after each step, both views equal the server's,
// the connection and the server hold exactly the watches the live watchers
// need, and no report contradicts the ones before it.
//
// Replay. A seed fixes the whole schedule: the steps, every write (which
// instance, which change, what record, which encoding), the instances' ids
// and the connection's options (odd seeds have the connection re-arm every
// watch itself after a reconnection, through a small reset request limit;
// even ones leave that to the client's reset request). Timing it cannot
// fix: where a write lands relative to a read, a reconnection or a re-arm,
// how many reads are on the wire rather than waiting when a step holds
// them, when the client notices a lost connection, and which writes an
// ensemble refuses while it elects a leader (so the records written to
// every instance after that). Each run prints its seed:
// FERROW_SCHEDULE_SEED=N replays it, FERROW_SCHEDULE_REPEAT=K replays it K
// times (for a failure that depends on timing); FERROW_SCHEDULE_SECONDS=N
// draws new seeds for that long (the soak), then checks that the process's
// memory and descriptors stayed flat.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/service_cache.h"
#include "tests/support/recorder.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Kind = testing::Recorder::Kind;
using testing::InstanceMap;
using testing::PollUntil;
constexpr milliseconds kSession{4000};  // the server's minimum: two ticks
constexpr seconds kQuiet{60};           // from a step's end to agreement
// Far below what a schedule's watches need (about 70 bytes each, 2 per
// instance): every watch is taken out of the client at a lost connection
// and armed again by the connection.
constexpr size_t kSmallResetLimit = 4096;
// The size a step grows the service to before it holds a new watcher's
// first reads on a new connection: their 400 reads outnumber its first
// read window (16) many times, so that most of them wait.
constexpr size_t kReadingSize = 200;
// Under the sanitizers, one schedule of each kind and a restart of 5,000
// instances (10,000 watch records: still more than one request holds).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRuns = 1, kRestartPreload = 5000;
#else
constexpr int kRuns = 3, kRestartPreload = 10000;
#endif

// Servers on loopback with a relay in front of each; the watchers reach
// them through the relays, writers directly.
struct Cluster {
    explicit Cluster(int size) {
        if (size == 1) servers.push_back(std::make_unique<testing::ZkServer>());
        else servers = testing::ZkServer::Ensemble(size);
        for (auto& server : servers) server->Launch();
        for (auto& server : servers) {
            server->Start();
            relays.push_back(std::make_unique<testing::Relay>(server->ClientPort()));
            direct += (direct.empty() ? "" : ",") + server->ConnectString();
            relayed += (relayed.empty() ? "" : ",") + relays.back()->ConnectString();
        }
    }
    // The watches the members hold for all sessions, by kind; nothing when
    // one does not answer. "wchs" counts data watches only, "mntr" both.
    struct Watches {
        long data = 0, child = 0;
    };
    std::optional<Watches> ServerWatches() const {
        Watches total;
        for (const auto& server : servers) {
            const std::string data = testing::FourLetterWord(server->ClientPort(), "wchs");
            const std::string all = testing::FourLetterWord(server->ClientPort(), "mntr");
            const size_t dataAt = data.find("Total watches:"), allAt = all.find("zk_watch_count\t");
            if (dataAt == std::string::npos || allAt == std::string::npos) return std::nullopt;
            const long dataWatches = std::atol(data.c_str() + dataAt + 14);
            total.data += dataWatches;
            total.child += std::atol(all.c_str() + allAt + 15) - dataWatches;
        }
        return total;
    }
    // The member serving as leader (or standalone), waiting for an election.
    size_t Leader() const {
        size_t leader = 0;
        PollUntil([&] {
            for (leader = 0; leader < servers.size(); ++leader) {
                if (servers[leader]->Mode() == (servers.size() == 1 ? "standalone" : "leader")) return true;
            }
            return false;
        }, seconds(60), milliseconds(50));
        return leader;
    }

    std::vector<std::unique_ptr<testing::ZkServer>> servers;
    std::vector<std::unique_ptr<testing::Relay>> relays;
    std::string direct, relayed;
};

// A connection to `cluster` through the relays, connected.
std::shared_ptr<ZooKeeperConnection> Open(const Cluster& cluster, ConnectionOptions options) {
    options.connect = cluster.relayed;
    auto conn = ZooKeeperConnection::Open(options);
    EXPECT_TRUE(conn->WaitConnected(seconds(30)));
    return conn;
}

// The first report in `events` that no sequence of changes explains: an
// instance added while present, modified or removed while absent (never
// added, or removed and not added again), or modified to the record it
// already had (every write in these tests makes a record of its own).
// Empty when there is none.
std::string FirstFalseReport(const std::vector<testing::Recorder::Event>& events) {
    std::map<ServiceId, ServiceInstanceData> present;
    for (const auto& event : events) {
        const auto it = present.find(event.id);
        const std::string id = boost::uuids::to_string(event.id);
        if (event.kind == Kind::Added && it != present.end()) return id + " added twice";
        if (event.kind != Kind::Added && it == present.end()) {
            return id + (event.kind == Kind::Removed ? " removed" : " modified") + " while not added";
        }
        if (event.kind == Kind::Modified && testing::SameRecord(it->second, event.record)) return id + " modified twice to one record";
        if (event.kind == Kind::Removed) present.erase(it);
        else present[event.id] = event.record;
    }
    return "";
}

// Reads of one node issued by the test itself on `conn`, each completion
// counted with its code.
class OwnReads {
public:
    OwnReads(const ZooKeeperConnection& conn, const std::string& path, int count) {
        for (int i = 0; i < count; ++i) {
            const int rc = conn.AsyncGet(path, nullptr, [state = m_state, i](int code, String, const Stat*) {
                std::lock_guard<std::mutex> lock(state->mtx);
                state->codes[i].push_back(code);
            }).first;
            if (rc == ZOK) m_state->codes.emplace(i, std::vector<int>());  // else never completed
        }
    }
    // Waits until every read accepted has completed, then says how one of
    // them broke the rule for a read that dies with its session: completed
    // exactly once, with ZCLOSING (or ZCONNECTIONLOSS on the wire at the
    // cut, or ZOK), never ZSESSIONEXPIRED or ZINVALIDSTATE. Empty when none.
    std::string Broken(std::chrono::milliseconds deadline) const {
        const auto done = [this] {
            std::lock_guard<std::mutex> lock(m_state->mtx);
            for (const auto& entry : m_state->codes) {
                if (entry.second.empty()) return false;
            }
            return true;
        };
        if (!PollUntil(done, deadline)) return "a read never completed";
        std::lock_guard<std::mutex> lock(m_state->mtx);
        for (const auto& [read, codes] : m_state->codes) {
            if (codes.size() > 1) return "read " + std::to_string(read) + " completed " + std::to_string(codes.size()) + " times";
            if (codes[0] != ZOK && codes[0] != ZCONNECTIONLOSS && codes[0] != ZCLOSING) {
                return "read " + std::to_string(read) + " completed with " + zerror(codes[0]);
            }
        }
        return "";
    }

private:
    struct State {
        std::mutex mtx;  // guards codes
        std::map<int, std::vector<int>> codes;  // by read accepted: the codes it completed with
    };
    const std::shared_ptr<State> m_state = std::make_shared<State>();
};

enum class Step { ResetRelay, ShortFreeze, LongFreeze, RestartServer, Expire, Churn, Recreate, ResetWhileReading, ChangeAll,
                  WritesWhileCut, ExpireWhileReading, DestroyWhileReading, KillLeader, KillFollower, LoseQuorum };
const char* const kStepNames[] = {"reset", "short-freeze", "long-freeze", "restart", "expire", "churn", "recreate",
                                  "reset-while-reading", "change-all", "writes-while-cut", "expire-while-reading",
                                  "destroy-while-reading", "kill-leader", "kill-follower", "lose-quorum"};

enum class Change { Add, Set, Remove };

// One seed's run: a service of its own on `cluster`, preloaded, watched by
// a watcher and a cache on a connection with `options`; then steps.
class Schedule {
public:
    Schedule(Cluster& cluster, const ConnectionOptions& options, std::uint32_t seed, const std::string& service,
             int preload = 100)
        : m_options(options), m_conn(Open(cluster, options)), m_cluster(cluster), m_random(seed), m_service(service),
          m_writer(cluster.direct, m_service) {
        Grow(preload);
        Recreate();
    }

    // Runs `step`, then up to `churn` writes.
    void Run(Step step, int churn = 30) {
        auto& servers = m_cluster.servers;
        const size_t leader = servers.size() > 1 ? m_cluster.Leader() : 0;
        std::vector<size_t> stopped;
        switch (step) {
        case Step::ResetRelay: m_cluster.relays[0]->Reset(); break;
        case Step::ShortFreeze:
        case Step::LongFreeze:
            m_cluster.relays[0]->Blackhole();
            // The outage itself: shorter than the session, or long enough
            // for the server to end it.
            std::this_thread::sleep_for(step == Step::ShortFreeze ? milliseconds(1000) : kSession + seconds(2));
            m_cluster.relays[0]->Heal();
            break;
        case Step::RestartServer: stopped = {0}; break;
        case Step::Expire: ASSERT_TRUE(testing::ExpireSession(m_cluster.direct, *m_conn)); break;
        case Step::Churn: break;
        case Step::Recreate: Recreate(); break;
        case Step::ResetWhileReading:
            // New ones whose first reads are in flight, a child added then:
            // the reads that fail are retried once connected, and the child
            // listing that follows names the same instances again.
            Recreate();
            ASSERT_TRUE(PollUntil([&] { return m_watched->recorder->Snapshot().reports >= 50; }, seconds(60), milliseconds(1)));
            Write(Change::Add);
            m_cluster.relays[0]->Reset();
            break;
        case Step::ChangeAll: {
            InstanceMap all = m_writer.ReadTruth();
            for (auto& entry : all) entry.second = testing::MakeRecord(++m_version);
            m_writer.CreateAll(all, true);
        } break;
        case Step::WritesWhileCut: WriteWhileCut(); break;
        case Step::ExpireWhileReading: ExpireWhileReading(); break;
        case Step::DestroyWhileReading: DestroyWhileReading(); break;
        case Step::KillLeader: stopped = {leader}; break;
        case Step::KillFollower: stopped = {(leader + 1) % servers.size()}; break;
        case Step::LoseQuorum: stopped = {leader, (leader + 1) % servers.size()}; break;
        }
        // Churn right after every step: while a member is down or the
        // session comes back, while the new watcher reads, while watches
        // are armed again, or on its own; before the outage where no server
        // would take a write.
        const bool served = step != Step::RestartServer && step != Step::LoseQuorum;
        const int writes = churn == 0 ? 0 : static_cast<int>(m_random() % churn);
        for (int i = 0; !served && i < writes; ++i) Write();
        for (size_t i : stopped) servers[i]->Stop();
        for (int i = 0; served && i < writes; ++i) Write();
        if (step == Step::LoseQuorum) std::this_thread::sleep_for(kSession + seconds(2));  // the outage itself
        for (size_t i : stopped) servers[i]->Start();
    }

    // Both views equal the server's, and the watches are exactly the ones
    // needed (each watcher's child and node watch on the service, a data
    // watch per instance; the server keeps one of each per node); then no
    // report so far contradicts the ones before it.
    void ExpectQuiet(const std::string& where) {
        const auto truth = [this] { return m_writer.ReadTruth(); };
        ASSERT_TRUE(m_watched->Converges(truth, kQuiet)) << where;
        EXPECT_TRUE(m_watched->watcher.WaitSynced(kQuiet)) << where;
        EXPECT_TRUE(m_cache->WaitSynced(kQuiet)) << where;
        // Read once: nothing writes now, and reading a large service anew
        // for every poll would slow the server the cache waits for.
        const InstanceMap now = truth();
        EXPECT_TRUE(PollUntil([&] { return CacheHolds(now); }, kQuiet)) << where << ": the cache";
        const long instances = static_cast<long>(now.size());
        std::string off;
        EXPECT_TRUE(PollUntil([&] { return (off = WatchesOff(2 * (instances + 2), instances + 1, 1)).empty(); }, seconds(30)))
            << where << ", " << instances << " instances: " << off;
        const auto state = m_watched->recorder->Snapshot();
        EXPECT_EQ(FirstFalseReport(state.events), "") << where;
        EXPECT_TRUE(state.errors.empty()) << where << ": the error handler was called with " << state.errors.front();
    }

private:
    void Recreate() {
        m_cache.reset();
        m_watched.reset();
        m_watched.emplace(m_conn, m_service);
        m_cache.emplace(m_conn, m_service, [](int rc) { ADD_FAILURE() << "cache error " << rc; });
        m_cache->Start();
    }
    // Adds instances until the service has `size`.
    void Grow(size_t size) {
        InstanceMap added;
        while (m_live.size() < size) added.emplace(m_live.emplace_back(m_generate()), testing::MakeRecord(++m_version));
        m_writer.CreateAll(added);
    }
    // Makes one change, of a kind drawn unless `forced`. A write refused
    // while members are down is left out: the truth is read from the
    // servers.
    void Write(std::optional<Change> forced = std::nullopt) {
        const unsigned roll = m_random() % 100;
        const auto encoding = static_cast<testing::Encoding>(m_random() % 3);  // raw, zlib, zlib without size
        const Change change = forced ? *forced : roll < 35 ? Change::Add : roll < 75 ? Change::Set : Change::Remove;
        try {
            if (change == Change::Add || m_live.empty()) {
                return m_writer.Create(m_live.emplace_back(m_generate()), testing::MakeRecord(++m_version), encoding);
            }
            std::swap(m_live[m_random() % m_live.size()], m_live.back());
            if (change == Change::Set) return m_writer.Set(m_live.back(), testing::MakeRecord(++m_version), encoding);
            const ServiceId gone = m_live.back();
            m_live.pop_back();
            m_writer.Remove(gone);
        } catch (const std::runtime_error&) {
        }
    }
    // Every connection to the servers cut and kept down, shorter than the
    // session, while instances are added, changed and removed: the watches
    // are armed again after the reconnection (by the connection itself when
    // their reset request would pass its limit), and every change made while
    // nothing watched must be reported.
    void WriteWhileCut() {
        for (const auto& relay : m_cluster.relays) relay->Cut();
        ASSERT_TRUE(PollUntil([&] { return m_conn->State() != ZOO_CONNECTED_STATE; }, seconds(10)));
        for (const Change change : {Change::Add, Change::Set, Change::Remove}) Write(change);
        for (int i = static_cast<int>(m_random() % 10); i > 0; --i) Write();
        for (const auto& relay : m_cluster.relays) relay->Heal();
    }
    // New ones made on a new connection, whose read window is at its
    // smallest, then every relay frozen once the first report is in: the
    // rest of their first reads stay where they are, most waiting in the
    // connection, a window of them on the wire, until Heal.
    void RecreateAndHoldReads() {
        Grow(kReadingSize);
        m_cache.reset();
        m_watched.reset();
        m_conn = Open(m_cluster, m_options);
        Recreate();
        ASSERT_TRUE(PollUntil([&] { return m_watched->recorder->Snapshot().reports >= 1; }, seconds(60), milliseconds(1)));
        for (const auto& relay : m_cluster.relays) relay->Blackhole();
    }
    // The session closed on the server while the first reads are held: at
    // the expiry the core reports every instance it was watching removed,
    // also those still being read, and the watcher passes on only the ones
    // it had reported added. Reads of the test's own, issued behind the
    // watchers', die with the session as a user is promised.
    void ExpireWhileReading() {
        RecreateAndHoldReads();
        const OwnReads own(*m_conn, ServicePath(m_service), 64);
        const std::int64_t old = m_conn->SessionId();
        testing::CloseSessionOnServer(m_cluster.direct, *m_conn);
        for (const auto& relay : m_cluster.relays) relay->Heal();
        const auto renewed = [&] { return m_conn->SessionId() != 0 && m_conn->SessionId() != old; };
        // Should the close not have taken, the session is expired anew.
        ASSERT_TRUE(PollUntil(renewed, seconds(30)) || testing::ExpireSession(m_cluster.direct, *m_conn));
        EXPECT_EQ(own.Broken(seconds(30)), "") << "the session's reads";
    }
    // The watcher and the cache destroyed while most of their first reads
    // wait in the connection: none of their watched reads is handed to the
    // client after the destruction (the ones on the wire were before), and
    // no watch of theirs is left in the connection or on the server.
    void DestroyWhileReading() {
        RecreateAndHoldReads();
        const size_t waiting = m_conn->Reads().waiting;
        EXPECT_GT(waiting, 0u) << "no read waited in the connection to be dropped";
        m_cache.reset();
        m_watched.reset();
        const std::uint64_t issued = m_conn->Reads().issued;
        for (const auto& relay : m_cluster.relays) relay->Heal();
        const auto answered = [this] {
            const auto reads = m_conn->Reads();
            return reads.waiting == 0 && reads.onWire == 0 && reads.answersWaiting == 0;
        };
        EXPECT_TRUE(PollUntil(answered, kQuiet)) << "reads still outstanding after the destruction";
        // But for each watcher's completion marks (reads without a watch,
        // at most two: a round begun at the start and one at the connected
        // event), which nobody can tell from a live one's.
        EXPECT_LE(m_conn->Reads().issued - issued, 4u)
            << "reads handed to the client after their watchers were destroyed, " << waiting << " waiting then";
        std::string off;
        EXPECT_TRUE(PollUntil([&] { return (off = WatchesOff(0, 0, 0)).empty(); }, seconds(30)))
            << "with the watchers destroyed: " << off;
        Recreate();
    }
    // What differs from `records` watch records in the connection and
    // `data` and `child` watches on the servers; empty when nothing does.
    std::string WatchesOff(long records, long data, long child) const {
        std::string off;
        const long held = static_cast<long>(m_conn->PendingWatchCount());
        if (held != records) off += std::to_string(held) + " watch records in the connection for " + std::to_string(records) + "; ";
        const std::optional<Cluster::Watches> server = m_cluster.ServerWatches();
        if (!server) return off + "a server does not answer";
        if (server->data != data) {
            // Where they are, by session, as far as the first server knows.
            off += std::to_string(server->data) + " data watches on the servers for " + std::to_string(data) + " (" +
                   testing::FourLetterWord(m_cluster.servers[0]->ClientPort(), "wchc").substr(0, 400) + "); ";
        }
        if (server->child != child) off += std::to_string(server->child) + " child watches on the servers for " + std::to_string(child);
        return off;
    }
    bool CacheHolds(const InstanceMap& truth) const {
        const SnapshotPtr snapshot = m_cache->Snapshot();
        if (snapshot->size() != truth.size()) return false;
        for (const InstancePtr& instance : *snapshot) {
            const auto it = truth.find(instance->Id());
            if (it == truth.end() || !testing::SameRecord(it->second, instance->Record())) return false;
        }
        return true;
    }

    const ConnectionOptions m_options;
    std::shared_ptr<ZooKeeperConnection> m_conn;
    Cluster& m_cluster;
    std::mt19937 m_random;
    boost::uuids::basic_random_generator<std::mt19937> m_generate{m_random};
    const std::string m_service;
    testing::InstanceWriter m_writer;
    std::vector<ServiceId> m_live;
    int m_version = 0;
    std::optional<testing::Watched<>> m_watched;
    std::optional<ServiceCache> m_cache;
};

// The process's resident memory and open descriptors.
struct Footprint {
    static Footprint Now() {
        Footprint now;
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages;
        now.residentKiB = pages * ::sysconf(_SC_PAGESIZE) / 1024;
        const std::filesystem::directory_iterator fds("/proc/self/fd");
        now.descriptors = std::distance(begin(fds), end(fds));
        return now;
    }
    long residentKiB = 0;
    long descriptors = 0;
};

class ScheduleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { logging::SetMinimumLoggingLevel(logging::JXLOG_CRITICAL); }
    static void TearDownTestSuite() { s_clusters.clear(); }

    // The cluster of `size` servers, shared by the tests; started on first use.
    static Cluster& Servers(int size) {
        std::unique_ptr<Cluster>& cluster = s_clusters[size];
        if (!cluster) cluster = std::make_unique<Cluster>(size);
        return *cluster;
    }
    // Draws the schedules: one replayed seed (FERROW_SCHEDULE_REPEAT times),
    // new seeds for FERROW_SCHEDULE_SECONDS, or `runs` new seeds. Each has
    // every step of `always` once and others drawn from `choices`, five in
    // all. A test's first new seed is odd, so that every run of it has the
    // connection re-arm the watches itself.
    void RunSchedules(Cluster& cluster, const std::vector<Step>& always, const std::vector<Step>& choices, int runs) {
        const char* replay = std::getenv("FERROW_SCHEDULE_SEED");
        const char* repeat = std::getenv("FERROW_SCHEDULE_REPEAT");
        const char* soak = replay ? nullptr : std::getenv("FERROW_SCHEDULE_SECONDS");
        const auto until = std::chrono::steady_clock::now() + seconds(soak ? std::atol(soak) : 0);
        const int planned = replay ? (repeat ? std::atoi(repeat) : 1) : runs;
        std::random_device entropy;
        std::optional<Footprint> warm;
        for (int run = 0; soak ? std::chrono::steady_clock::now() < until : run < planned; ++run) {
            const std::uint32_t seed = replay ? static_cast<std::uint32_t>(std::strtoul(replay, nullptr, 10))
                                              : entropy() | (run == 0 ? 1u : 0u);
            RunSchedule(cluster, always, choices, seed, run);
            ASSERT_FALSE(HasFailure()) << "replay with FERROW_SCHEDULE_SEED=" << seed;
            if (soak && run == 0) warm = Footprint::Now();  // after a run to warm up: allocator, threads, caches
        }
        if (!warm) return;
        // The runs open and close connections, watchers and caches; what is
        // left of one after it ended grows with every run. Descriptors:
        // everything a run opens is closed by its end, so none more. Memory:
        // 16 MiB, twice the most the allocator was seen to keep after the
        // warm-up (about 8 MiB: the arenas of threads that come and go
        // reaching their peaks; nothing with a single arena), while 100 KiB
        // left behind by every run passes it within about 160 runs, half an
        // hour.
        const Footprint end = Footprint::Now();
        EXPECT_LE(end.descriptors, warm->descriptors) << "open descriptors after the warm-up run and at the end";
        EXPECT_LE(end.residentKiB, warm->residentKiB + 16 * 1024) << "resident KiB after the warm-up run and at the end";
    }

    // One schedule of `seed`, on a connection of its own; `run` names the
    // service apart from a replay of the same seed.
    void RunSchedule(Cluster& cluster, std::vector<Step> steps, const std::vector<Step>& choices, std::uint32_t seed, int run) {
        std::mt19937 draw(seed);
        while (steps.size() < 5) steps.push_back(choices[draw() % choices.size()]);
        for (size_t i = steps.size() - 1; i > 0; --i) std::swap(steps[i], steps[draw() % (i + 1)]);
        std::string names;
        for (const Step step : steps) names += std::string(names.empty() ? "" : ", ") + kStepNames[static_cast<int>(step)];
        // A small read window, and issuing stopped while 16 answers wait for
        // delivery: a new watcher's reads take longer, so that churn and
        // faults meet them, and meet reads held back for either reason.
        ConnectionOptions options{"", kSession, ""};
        options.readWindow = 16;
        options.answersWaiting = 16;
        options.resetRequestLimit = seed % 2 == 1 ? kSmallResetLimit : kDefaultResetRequestLimit;
        std::printf("[ schedule  ] seed %u (FERROW_SCHEDULE_SEED=%u replays it), watches re-armed by %s: %s\n", seed, seed,
                    seed % 2 == 1 ? "the connection" : "the client", names.c_str());
        std::fflush(stdout);  // the seed must be out before a step can hang
        Schedule schedule(cluster, options, static_cast<std::uint32_t>(draw()),
                          "schedule-" + std::to_string(seed) + "-" + std::to_string(run));
        const std::string where = "seed " + std::to_string(seed);
        schedule.ExpectQuiet(where + " at the start");
        for (size_t i = 0; i < steps.size() && !HasFailure(); ++i) {
            schedule.Run(steps[i]);
            schedule.ExpectQuiet(where + " after step " + std::to_string(i + 1) + " (" + kStepNames[static_cast<int>(steps[i])] + ")");
        }
    }

    static inline std::map<int, std::unique_ptr<Cluster>> s_clusters;
};

TEST_F(ScheduleTest, RandomFaultsOfOneServerAndChurnKeepEveryViewExact) {
    RunSchedules(Servers(1), {Step::WritesWhileCut, Step::ExpireWhileReading, Step::DestroyWhileReading},
                 {Step::ResetRelay, Step::ShortFreeze, Step::LongFreeze, Step::RestartServer, Step::Expire, Step::Churn,
                  Step::Recreate, Step::ResetWhileReading, Step::ChangeAll, Step::WritesWhileCut, Step::ExpireWhileReading,
                  Step::DestroyWhileReading},
                 kRuns);
}

TEST_F(ScheduleTest, RandomFaultsOfAnEnsembleAndChurnKeepEveryViewExact) {
    RunSchedules(Servers(3), {},
                 {Step::KillLeader, Step::KillFollower, Step::LoseQuorum, Step::Expire, Step::Recreate, Step::WritesWhileCut}, 1);
}

// The seam where a watch was doubled: a connection lost during the first
// read of 2,000 instances; then one change of each must be reported once.
TEST_F(ScheduleTest, AConnectionLostDuringTheInitialReadReportsEachChangeOnce) {
    Cluster& cluster = Servers(1);
    Schedule schedule(cluster, {"", kSession, ""}, 2, "schedule-first-read", 2000);
    for (const Step step : {Step::ResetWhileReading, Step::ChangeAll}) {
        schedule.Run(step, 0);
        schedule.ExpectQuiet(kStepNames[static_cast<int>(step)]);
    }
}

// More watches than the request that re-registers them after a reconnection
// holds: the connection re-arms them itself across a restart. The larger
// size runs as the heavy entry.
TEST_F(ScheduleTest, ARestartWithMoreWatchesThanOneRequestHoldsKeepsTheViewExact) {
    const char* size = std::getenv("FERROW_SCHEDULE_PRELOAD");
    Cluster& cluster = Servers(1);
    Schedule schedule(cluster, {"", seconds(30), ""}, 1, "schedule-restart", size ? std::atoi(size) : kRestartPreload);
    schedule.ExpectQuiet("after the first read");
    schedule.Run(Step::RestartServer);
    schedule.ExpectQuiet("after the restart");
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
