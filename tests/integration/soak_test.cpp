// A long run: a few hundred churning instances followed by one watcher
// through repeated faults (server restarts, forced expiry of the watcher's
// session). After every fault the watcher must agree with the server again,
// and after the warm-up the process's resident memory and open descriptors
// must stay flat. Opt-in (ctest registers it disabled); run it directly:
//   FERROW_SOAK_SECONDS=600 build/tests/soak_integration_test

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ferrow/service_watcher.h"
#include "logger/log_handler.h"
#include "tests/integration/watch_harness.h"
#include "tests/support/instance_writer.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::InstanceMap;

constexpr seconds kConvergenceBound{30};
// The phase of every cycle in which the publisher churns without a fault.
constexpr milliseconds kChurnPhase{8000};
// How long a restarted server stays down: longer than the session timeout.
constexpr milliseconds kOutage{5000};
// Growth allowed after the warm-up: allocator noise, not a leak per fault.
constexpr long kRssToleranceKib = 8 * 1024;
constexpr size_t kFdTolerance = 4;

long ResidentKib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

size_t OpenDescriptors() {
    size_t count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
        ::closedir(dir);
    }
    return count;
}

// The picture only: a soak must run in bounded memory, and the shared
// recorder keeps every event it sees.
class PictureObserver : public ServiceWatcherObserver {
public:
    void OnInstanceAdded(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_picture[id] = record;
        ++m_events;
    }
    void OnInstanceModified(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_picture[id] = record;
        ++m_events;
    }
    void OnInstanceRemoved(ServiceWatcher&, const ServiceId& id) override {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_picture.erase(id);
        ++m_events;
    }
    InstanceMap Picture() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_picture;
    }
    size_t Events() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_events;
    }

private:
    mutable std::mutex m_mtx;
    InstanceMap m_picture;
    size_t m_events = 0;
};

struct Sample {
    double at;
    long rssKib;
    size_t fds;
};

TEST(SoakTest, MemoryAndDescriptorsStayFlatThroughRepeatedFaults) {
    const char* configured = std::getenv("FERROW_SOAK_SECONDS");
    const seconds duration(configured != nullptr ? std::atol(configured) : 600);
    logging::SetMinimumLoggingLevel(logging::JXLOG_ERROR);

    testing::ZkServer server;
    server.Start();
    const std::string connect = server.ConnectString();
    testing::InstanceWriter truth(connect, "soak", milliseconds(10000));
    auto conn = testing::Connect(connect, milliseconds(4000));
    auto observer = std::make_shared<PictureObserver>();
    std::atomic<int> handlerCalls{0};
    ServiceWatcher watcher(conn, "soak", [&handlerCalls](int) { ++handlerCalls; });
    watcher.RegisterShared(observer);
    watcher.Start();
    testing::Churn churn(connect, "soak", 300, 7);

    const auto start = steady_clock::now();
    auto elapsed = [&start] { return std::chrono::duration<double>(steady_clock::now() - start).count(); };
    std::vector<Sample> samples;
    std::vector<double> convergence;
    for (int cycle = 0; steady_clock::now() - start < duration; ++cycle) {
        churn.Start();
        std::this_thread::sleep_for(kChurnPhase);  // the churn phase itself, not a wait for an outcome
        if (cycle % 2 == 0) {
            server.Stop();
            std::this_thread::sleep_for(kOutage);  // the outage itself
            server.Start();
        } else {
            ASSERT_TRUE(testing::ExpireAndAwaitNewSession(connect, *conn));
        }
        const auto healed = steady_clock::now();
        ASSERT_TRUE(churn.AwaitProgress(10, seconds(60)));
        churn.Stop();
        std::string why;
        auto taken = testing::AwaitConvergence(
            watcher, [&observer] { return observer->Picture(); }, [&truth] { return truth.ReadTruth(); },
            kConvergenceBound, &why);
        ASSERT_TRUE(taken.has_value()) << "cycle " << cycle << ": " << why;
        convergence.push_back(std::chrono::duration<double>(steady_clock::now() - healed).count());
        samples.push_back({elapsed(), ResidentKib(), OpenDescriptors()});
        std::printf("[ soak      ] %6.1f s cycle %3d (%s) rss %ld KiB fds %zu instances %zu events %zu "
                    "converged %s after the fault\n",
                    samples.back().at, cycle, cycle % 2 == 0 ? "restart" : "expiry ", samples.back().rssKib,
                    samples.back().fds, observer->Picture().size(), observer->Events(),
                    testing::Seconds(convergence.back()).c_str());
        std::fflush(stdout);  // progress shows while the run goes on
    }
    EXPECT_EQ(0, handlerCalls.load());
    ASSERT_GE(samples.size(), 4u) << "too short to judge: raise FERROW_SOAK_SECONDS";
    // The first third of the run is warm-up: caches, pools and the client's
    // buffers reach their working size.
    const size_t warm = samples.size() / 3;
    const Sample& base = samples[warm];
    long maxRss = 0;
    size_t maxFds = 0;
    for (size_t i = warm; i < samples.size(); ++i) {
        maxRss = std::max(maxRss, samples[i].rssKib);
        maxFds = std::max(maxFds, samples[i].fds);
    }
    std::printf("[ soak      ] after warm-up: rss %ld -> max %ld KiB, fds %zu -> max %zu; convergence max %s\n",
                base.rssKib, maxRss, base.fds, maxFds,
                testing::Seconds(*std::max_element(convergence.begin(), convergence.end())).c_str());
    EXPECT_LE(maxRss, base.rssKib + kRssToleranceKib);
    EXPECT_LE(maxFds, base.fds + kFdTolerance);
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
