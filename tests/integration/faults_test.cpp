// A watcher following churning instances through real server faults: a
// three-server ensemble losing its leader, a follower, then its quorum; a
// forced session expiry; a standalone server stopped and started on the same
// data; and a restart while one connection watches many thousands of nodes.
// After each fault the watcher's picture and ListInstances must equal what an
// independent client reads, within the bound each test states.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/service_watcher.h"
#include "logger/log_handler.h"
#include "tests/integration/watch_harness.h"
#include "tests/support/poll.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::Churn;
using testing::InstanceMap;
using testing::WatcherRecorder;
using testing::ZkEnsemble;
using testing::ZkServer;

// The session timeout the watcher asks for: the server's minimum (two ticks
// of 2 s), so that outages longer than it are cheap to produce.
constexpr milliseconds kSessionTimeout{4000};
// Every convergence must happen within this bound after the fault healed.
constexpr seconds kConvergenceBound{20};
// How long a server or the quorum stays away: longer than the session timeout.
constexpr milliseconds kOutage{6000};
constexpr seconds kDeadline{60};

double Since(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// One watched service with a churning publisher and an independent reader.
class Scenario {
public:
    Scenario(const std::string& connect, const std::string& name, std::uint32_t seed)
        : m_truth(connect, name, milliseconds(10000)),
          m_watcherConn(testing::Connect(connect, kSessionTimeout)),
          m_watcher(m_watcherConn, name, m_recorder->ErrorHandler()),
          m_churn(connect, name, 60, seed) {
        m_watcher.RegisterShared(m_recorder);
        m_watcher.Start();
        m_churn.Start();
    }

    // Lets the churn make `writes` successful writes; fails the test if it
    // cannot within the deadline.
    void Progress(std::uint64_t writes) {
        ASSERT_TRUE(m_churn.AwaitProgress(writes, kDeadline))
            << "the publisher made no progress; failed writes: " << m_churn.Failed();
    }

    // Stops the churn and waits for the watcher to agree with the truth.
    // `healed` is when the fault ended; the time taken is printed and
    // recorded as the test property `property`.
    void ExpectConvergence(steady_clock::time_point healed, const char* property) {
        m_churn.Stop();
        std::string why;
        auto taken = testing::AwaitConvergence(
            m_watcher, [this] { return m_recorder->Snapshot().picture; }, [this] { return m_truth.ReadTruth(); },
            kConvergenceBound, &why);
        const double sinceHealed = Since(healed);
        ASSERT_TRUE(taken.has_value()) << "no convergence within " << kConvergenceBound.count()
                                       << " s of the last write: " << why;
        const auto state = m_recorder->Snapshot();
        std::printf("[ converged ] %s: %s after the fault healed (%s after the last write); %zu instances, "
                    "%llu writes, %llu failed, %zu events\n",
                    property, testing::Seconds(sinceHealed).c_str(), testing::Seconds(*taken).c_str(),
                    state.picture.size(), static_cast<unsigned long long>(m_churn.Succeeded()),
                    static_cast<unsigned long long>(m_churn.Failed()), state.events.size());
        ::testing::Test::RecordProperty(property, testing::Seconds(sinceHealed));
        for (const std::string& anomaly : state.anomalies) std::printf("[ anomaly   ] %s\n", anomaly.c_str());
        EXPECT_TRUE(state.errors.empty()) << "the error handler was called, first with " << state.errors.front();
    }

    const ZooKeeperConnection& WatcherConnection() const { return *m_watcherConn; }

private:
    testing::InstanceWriter m_truth;
    std::shared_ptr<ZooKeeperConnection> m_watcherConn;
    std::shared_ptr<WatcherRecorder> m_recorder = std::make_shared<WatcherRecorder>();
    ServiceWatcher m_watcher;
    Churn m_churn;
};

class EnsembleFaultTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        logging::SetMinimumLoggingLevel(logging::JXLOG_ERROR);
        s_ensemble = new ZkEnsemble(3);
        s_ensemble->Start();
    }
    static void TearDownTestSuite() {
        delete s_ensemble;
        s_ensemble = nullptr;
    }

    void SetUp() override { ASSERT_GE(LeaderIndex(), 0) << "the ensemble has no leader"; }

    // The index of the member that reports itself leader, or -1.
    static int LeaderIndex() {
        int leader = -1;
        const auto found = [&leader] {
            for (size_t i = 0; i < s_ensemble->Size(); ++i) {
                if (s_ensemble->Server(i).Running() && s_ensemble->Server(i).Mode() == "leader") {
                    leader = static_cast<int>(i);
                    return true;
                }
            }
            return false;
        };
        return testing::PollUntil(found, kDeadline, milliseconds(50)) ? leader : -1;
    }

    static void Start(ZkServer& server) { server.Start(seconds(60)); }

    static std::string Name() { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }

    // Churns, stops the member `pick()` names, churns on with the other two
    // (still a quorum once they have elected), starts it again and checks
    // that the watcher converges, reporting the time as `figure`.
    template <typename Pick>
    static void KillAndRestartOne(std::uint32_t seed, Pick pick, const char* figure) {
        Scenario scenario(s_ensemble->ConnectString(), Name(), seed);
        scenario.Progress(40);
        const size_t member = pick();
        s_ensemble->Server(member).Stop();
        scenario.Progress(40);
        Start(s_ensemble->Server(member));
        const auto healed = steady_clock::now();
        scenario.Progress(20);
        scenario.ExpectConvergence(healed, figure);
    }

    static ZkEnsemble* s_ensemble;
};

ZkEnsemble* EnsembleFaultTest::s_ensemble = nullptr;

TEST_F(EnsembleFaultTest, WatcherConvergesAfterTheLeaderIsKilledAndRestarted) {
    KillAndRestartOne(1, [] { return static_cast<size_t>(LeaderIndex()); }, "leader_restart_convergence_s");
}

TEST_F(EnsembleFaultTest, WatcherConvergesAfterAFollowerIsKilledAndRestarted) {
    KillAndRestartOne(2, [] { return static_cast<size_t>((LeaderIndex() + 1) % 3); },
                      "follower_restart_convergence_s");
}

TEST_F(EnsembleFaultTest, WatcherConvergesAfterQuorumIsLostLongerThanTheSessionTimeout) {
    Scenario scenario(s_ensemble->ConnectString(), Name(), 3);
    scenario.Progress(40);
    const std::int64_t session = scenario.WatcherConnection().SessionId();
    const size_t leader = static_cast<size_t>(LeaderIndex());
    const size_t follower = (leader + 1) % 3;
    s_ensemble->Server(leader).Stop();
    s_ensemble->Server(follower).Stop();
    // The outage itself: no quorum for longer than the session timeout.
    std::this_thread::sleep_for(kOutage);
    // One member back makes a quorum with the one that stayed.
    Start(s_ensemble->Server(leader));
    const auto healed = steady_clock::now();
    Start(s_ensemble->Server(follower));
    scenario.Progress(20);
    scenario.ExpectConvergence(healed, "quorum_loss_convergence_s");
    std::printf("[ session   ] %s\n", scenario.WatcherConnection().SessionId() == session
                                         ? "the watcher's session survived the outage"
                                         : "the watcher's session expired and was replaced");
}

TEST_F(EnsembleFaultTest, WatcherConvergesAfterItsSessionIsExpiredDuringChurn) {
    Scenario scenario(s_ensemble->ConnectString(), Name(), 4);
    scenario.Progress(40);
    ASSERT_TRUE(testing::ExpireAndAwaitNewSession(s_ensemble->ConnectString(), scenario.WatcherConnection()));
    const auto healed = steady_clock::now();
    scenario.Progress(40);
    scenario.ExpectConvergence(healed, "forced_expiry_convergence_s");
}

TEST(StandaloneFaultTest, WatcherConvergesAfterTheServerIsStoppedAndStartedOnTheSameData) {
    logging::SetMinimumLoggingLevel(logging::JXLOG_ERROR);
    ZkServer server;
    server.Start();
    Scenario scenario(server.ConnectString(), "standalone", 5);
    scenario.Progress(40);
    server.Stop();
    std::this_thread::sleep_for(kOutage);
    server.Start();
    const auto healed = steady_clock::now();
    scenario.Progress(20);
    scenario.ExpectConvergence(healed, "standalone_restart_convergence_s");
}

// The instance counts the scale scenario runs, from FERROW_SCALE_INSTANCES
// (e.g. "40000"); by default 15,000 and 25,000, on both sides of the count
// whose watches no longer fit in the request that re-registers them.
std::vector<size_t> ScaleCounts() {
    const char* text = std::getenv("FERROW_SCALE_INSTANCES");
    std::vector<size_t> counts;
    std::string list = text != nullptr ? text : "15000,25000";
    for (size_t start = 0; start < list.size();) {
        const size_t end = std::min(list.find(',', start), list.size());
        counts.push_back(std::stoul(list.substr(start, end - start)));
        start = end + 1;
    }
    return counts;
}

class ScaleFaultTest : public ::testing::TestWithParam<size_t> {
protected:
    static void SetUpTestSuite() { logging::SetMinimumLoggingLevel(logging::JXLOG_ERROR); }
};

// On reconnection the client re-registers every watch in one request, which
// the server refuses above its buffer limit (about 1 MB); past that size the
// connection re-arms the watches itself, so no count of instances is capped.
TEST_P(ScaleFaultTest, WatcherOfManyInstancesConvergesAfterAServerRestart) {
    const size_t count = GetParam();
    ZkServer server;
    server.Start();
    const std::string name = "scale" + std::to_string(count);
    testing::InstanceWriter writer(server.ConnectString(), name, milliseconds(30000));
    InstanceMap expected;
    boost::uuids::random_generator generate;
    for (size_t i = 0; i < count; ++i) expected.emplace(generate(), testing::MakeRecord(static_cast<int>(i)));
    writer.CreateAll(expected, testing::Encoding::Zlib, 32);

    auto watcherConn = testing::Connect(server.ConnectString(), milliseconds(30000));
    auto recorder = std::make_shared<WatcherRecorder>();
    ServiceWatcher watcher(watcherConn, name, recorder->ErrorHandler());
    watcher.RegisterShared(recorder);
    const auto started = steady_clock::now();
    watcher.Start();
    ASSERT_TRUE(recorder->WaitForPicture(expected, std::chrono::duration_cast<milliseconds>(kDeadline * 2)));
    std::printf("[ scale     ] %zu instances watched %s after Start\n", count, testing::Seconds(Since(started)).c_str());

    server.Stop();
    server.Start();
    const auto healed = steady_clock::now();
    // Changes made after the restart reach the watcher only through the
    // watches that survived the reconnection.
    auto entry = expected.begin();
    for (int changed = 0; changed < 100; ++changed, ++entry) {
        entry->second = testing::MakeRecord(static_cast<int>(count) + changed);
        writer.Set(entry->first, entry->second);
    }
    for (int removed = 0; removed < 100; ++removed) {
        auto last = std::prev(expected.end());
        writer.Remove(last->first);
        expected.erase(last);
    }
    std::string why;
    auto taken = testing::AwaitConvergence(
        watcher, [&recorder] { return recorder->Snapshot().picture; }, [&expected] { return expected; },
        kConvergenceBound, &why);
    ASSERT_TRUE(taken.has_value()) << count << " instances: no convergence within " << kConvergenceBound.count()
                                   << " s of the last write: " << why;
    std::printf("[ converged ] %zu instances: %s after the server was back\n", count,
                testing::Seconds(Since(healed)).c_str());
    RecordProperty("scale_restart_convergence_s", testing::Seconds(Since(healed)));
}

INSTANTIATE_TEST_SUITE_P(Instances, ScaleFaultTest, ::testing::ValuesIn(ScaleCounts()));

}  // namespace
}  // namespace ferrow
}  // namespace jx
