// The service watcher and the registration over the real connection against
// a real server: the lifetime of watchers, hostile nodes, and publishing.
// Faults, expiries and the watch bookkeeping they leave are the schedule's
// (schedule_test.cpp).

#include <condition_variable>
#include <mutex>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/instance_data.h"
#include "ferrow/metrics.h"
#include "ferrow/service_registration.h"
#include "ferrow/zlib.h"
#include "tests/support/recorder.h"
#include "tests/support/server_suite.h"

namespace jx {
namespace ferrow {
namespace {

using testing::InstanceMap;
using testing::MakeRecord;
boost::uuids::random_generator g_generate;

using WatcherTest = testing::ServerSuite;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kCycles = 200;
#else
constexpr int kCycles = 1000;
#endif

// An observer that runs `act` with the watcher and the id of every instance
// reported added, with only the id of one reported removed, and with nulls
// on a session's expiry.
struct Hook : ServiceWatcherObserver, ConnectionObserver {
    explicit Hook(std::function<void(ServiceWatcher*, const ServiceId*)> act) : act(std::move(act)) {}
    void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& id, const ServiceInstanceData&) override { act(&watcher, &id); }
    void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override {}
    void OnInstanceRemoved(ServiceWatcher&, const ServiceId& id) override { act(nullptr, &id); }
    void OnSessionEvent(int, int state, String) override {
        if (state == ZOO_EXPIRED_SESSION_STATE) act(nullptr, nullptr);
    }
    const std::function<void(ServiceWatcher*, const ServiceId*)> act;
};

// A process that follows services in turn on one connection, destroying each
// watcher after 1 to 50 reports while its observer calls it back on the
// delivery thread: the observer gets answers and is never called once the
// destructor has returned, and each destroyed watcher's watches leave the
// connection (watches shared with a live watcher stay: schedule_test.cpp).
TEST_F(WatcherTest, WatchersDestroyedWhileCallingBackLeaveNothingBehind) {
    InstanceMap instances;
    for (int i = 0; i < 50; ++i) instances.emplace(g_generate(), MakeRecord(i));
    writer.CreateAll(instances);
    const auto conn = testing::Connect(s_server->ConnectString());
    std::atomic<int> calls{0}, answers{0}, late{0};
    std::atomic<bool> destroyed{false};
    const auto observer = std::make_shared<Hook>([&](ServiceWatcher* watcher, const ServiceId* id) {
        late += destroyed.load();
        ServiceInstanceData record;
        answers += !watcher->ListInstances().empty() && watcher->GetInstanceData(*id, record);
        ++calls;
    });
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        auto watcher = std::make_unique<ServiceWatcher>(conn, name, [](int) {});
        watcher->RegisterShared(observer);
        destroyed = false;
        const int reports = calls + 1 + cycle % 50;
        watcher->Start();
        ASSERT_TRUE(testing::PollUntil([&] { return calls >= reports; }, std::chrono::seconds(30), std::chrono::milliseconds(1)));
        watcher.reset();
        destroyed = true;
    }
    EXPECT_TRUE(testing::PollUntil([&] { return conn->PendingWatchCount() == 0; }, std::chrono::seconds(30)))
        << conn->PendingWatchCount() << " watches left in the connection";
    EXPECT_EQ(late, 0);
    EXPECT_EQ(answers, calls);
}

// A watcher destroyed from a callback of another on the delivery thread:
// from another watcher's observer and from a session observer, both while
// the connection notifies the expiry to the watchers being destroyed. And
// one destroyed on another thread meanwhile, by a thread holding a lock
// that the observer running then waits for: it waits for its own callbacks
// only, never for another watcher's observer.
TEST_F(WatcherTest, DestructionFromAnotherCallbackOnTheDeliveryThread) {
    writer.Create(g_generate(), MakeRecord(1));
    const auto conn = testing::Connect(s_server->ConnectString());
    testing::Watched a(conn, name);
    auto b = std::make_unique<testing::Watched<>>(conn, name);
    std::unique_ptr<testing::Watched<>> c;
    std::shared_ptr<testing::Recorder> bReports = b->recorder, cReports;
    size_t bSeen = 0, cSeen = 0;
    // What the destroying thread holds, and the observer waits for.
    std::mutex heldMtx;
    std::condition_variable heldCv;
    bool held = false;  // guarded by heldMtx
    std::atomic<bool> inExpiry{false}, blocked{false};
    a.watcher.RegisterShared(std::make_shared<Hook>([&](ServiceWatcher* watcher, const ServiceId*) {
        if (watcher != nullptr) return;  // a removal, as all are at the expiry
        b.reset();
        bSeen = bReports->Snapshot().reports;
        inExpiry = true;
        // Not let go within the deadline: the destroyer waited for this observer.
        std::unique_lock<std::mutex> lock(heldMtx);
        blocked = !heldCv.wait_for(lock, std::chrono::seconds(30), [&] { return !held; });
    }));
    const auto sessionObserver = std::make_shared<Hook>([&](ServiceWatcher*, const ServiceId* id) {
        if (id != nullptr) return;  // the expiry
        c.reset();
        cSeen = cReports->Snapshot().reports;
    });
    conn->RegisterShared(sessionObserver);
    c = std::make_unique<testing::Watched<>>(conn, name);  // notified after the session observer
    cReports = c->recorder;
    auto d = std::make_unique<testing::Watched<>>(conn, name);
    for (const auto* watched : {&a, b.get(), c.get(), d.get()}) ASSERT_TRUE(watched->Converges([&] { return writer.ReadTruth(); }));
    {
        std::lock_guard<std::mutex> lock(heldMtx);
        held = true;
    }
    // Closed on the server, not waited for: the new session follows the
    // expiry's delivery, which the observer holds up.
    testing::CloseSessionOnServer(s_server->ConnectString(), *conn);
    ASSERT_TRUE(testing::PollUntil([&] { return inExpiry.load(); }, std::chrono::seconds(30)));
    d.reset();
    {
        std::lock_guard<std::mutex> lock(heldMtx);
        held = false;
    }
    heldCv.notify_all();
    EXPECT_FALSE(blocked) << "destroying a watcher waited for another watcher's observer";
    ASSERT_TRUE(a.Converges([&] { return writer.ReadTruth(); })) << "delivery went on";
    EXPECT_TRUE(!b && !c);
    EXPECT_EQ(bReports->Snapshot().reports, bSeen);
    EXPECT_EQ(cReports->Snapshot().reports, cSeen);
    conn->UnregisterShared(sessionObserver);
}

// Each hostile node ends as its decoding decides, and a well-formed instance
// written after all of them still arrives.
TEST_F(WatcherTest, HostileNodesAreReportedWholeOrLoggedOrSkippedAndNeverStopTheOthers) {
    testing::LogCapture logs(logging::JXLOG_WARNING);
    testing::Watched watched(testing::Connect(s_server->ConnectString()), name);
    // A bomb: it claims 100 bytes and inflates past the cap.
    const ServiceId bomb = g_generate();
    writer.CreateChild(boost::uuids::to_string(bomb), testing::Envelope(zlib::Compress(String(zlib::kMaxDecompressedSize + 1, '\0')), 1, 100));
    const auto big = MakeRecord(7, 1048575 - 400);  // the server's node limit, less the request's own fields
    const auto lying = MakeRecord(8, 200000);       // inflates far beyond its size claim
    const std::pair<String, const ServiceInstanceData*> rows[] = {
        {testing::Envelope(big.SerializeAsString(), 0), &big},  // the largest node
        {testing::Envelope(zlib::Compress(lying.SerializeAsString()), 1, 1), &lying},
        {testing::Envelope(lying.SerializeAsString(), 2), nullptr},  // an unknown compression
        {testing::Envelope(zlib::Compress(lying.SerializeAsString()) + "junk", 1), nullptr},  // bytes after the stream
    };
    std::vector<ServiceId> ids;
    for (const auto& row : rows) writer.CreateChild(boost::uuids::to_string(ids.emplace_back(g_generate())), row.first);
    const ServiceId upper = g_generate();  // read under its lower-case name, which does not exist
    writer.CreateChild(boost::algorithm::to_upper_copy(boost::uuids::to_string(upper)), testing::MakeEnvelope(MakeRecord(5), {}));
    writer.CreateChild("foreign", "x");
    const ServiceId good = g_generate();
    writer.Create(good, MakeRecord(9));
    // One count everywhere: the three that decode are the instances, the
    // three that never do are counted apart. Reports may come in any order:
    // a read asked for again overtakes no one, but replaces the first.
    ASSERT_TRUE(testing::PollUntil([&] {
        return watched.watcher.ListInstances().size() == 3 && watched.watcher.UndecodableCount() == 3 &&
               watched.recorder->Snapshot().picture.size() == 3;
    }, std::chrono::seconds(60)));
    ASSERT_TRUE(watched.watcher.WaitSynced(std::chrono::seconds(60)));
    ASSERT_EQ(watched.recorder->Snapshot().picture.count(good), 1u);

    const InstanceMap picture = watched.recorder->Snapshot().picture;
    ServiceInstanceData read;
    for (size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(picture.count(ids[i]), rows[i].second != nullptr ? 1u : 0u) << i;
        if (rows[i].second == nullptr) {
            EXPECT_THROW(watched.watcher.GetInstanceData(ids[i], read), std::runtime_error);
            continue;
        }
        ASSERT_TRUE(watched.watcher.GetInstanceData(ids[i], read));
        EXPECT_TRUE(testing::SameRecord(read, picture.at(ids[i])) && testing::SameRecord(read, *rows[i].second)) << i;
    }
    EXPECT_EQ(picture.size(), 3u);
    EXPECT_EQ(logs.Count("Callback threw: Invalid compression option", logging::JXLOG_ERROR), 1u);
    const String zlibError = "ZLibError ServiceWatcherImpl::InstanceResultCallback OnInstanceAdded: ";
    EXPECT_EQ(logs.Count(zlibError + writer.InstancePath(bomb) + " exception=inflated data exceed the size limit"), 1u);
    EXPECT_EQ(logs.Count(zlibError + writer.InstancePath(ids[3]) + " exception=trailing bytes after the zlib stream"), 1u);
    EXPECT_THROW(watched.watcher.GetInstanceData(bomb, read), zlib::ZLibError);
    EXPECT_FALSE(watched.watcher.GetInstanceData(upper, read));
    // No removal of an id never reported added, whatever the core says of
    // a node it never found or never decoded.
    const auto events = watched.recorder->Snapshot().events;
    EXPECT_TRUE(std::none_of(events.begin(), events.end(), [&](const auto& e) { return e.kind == testing::Recorder::Kind::Removed; }));
    EXPECT_GE(logs.Count("Invalid child name at path '/srv2/" + name + "'. Could not convert 'foreign' to ServiceId."), 1u);
    // Its first good record is news to the observers: an addition.
    writer.Set(bomb, MakeRecord(10));
    ASSERT_TRUE(testing::PollUntil([&] { return watched.recorder->Snapshot().picture.count(bomb) == 1; }, std::chrono::seconds(30)));
    EXPECT_EQ(watched.recorder->Snapshot().events.back().kind, testing::Recorder::Kind::Added);
    EXPECT_EQ(watched.watcher.UndecodableCount(), 2u);
}

// A service node goes (deleted by an operator, or by the server: an empty
// container, an expired TTL node) and comes back with another instance: the
// watcher reports the old one removed and the new one added, says so in its
// listener and metrics, and never creates the node itself meanwhile, so that
// a container or TTL service can stay gone.
TEST_F(WatcherTest, FollowsTheServiceNodeThroughItsDeletionAndReturn) {
    zhandle_t* zh = zookeeper_init(s_server->ConnectString().c_str(), nullptr, 10000, nullptr, nullptr, 0);
    ASSERT_TRUE(testing::PollUntil([zh] { return zoo_state(zh) == ZOO_CONNECTED_STATE; }, std::chrono::seconds(10)));
    const auto conn = testing::Connect(s_server->ConnectString());
    for (const int flags : {0, ZOO_CONTAINER, ZOO_PERSISTENT_WITH_TTL}) {
        const String service = name + std::to_string(flags);
        SCOPED_TRACE(service);
        ASSERT_EQ(zoo_create2_ttl(zh, ServicePath(service).c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, flags,
                                  flags == ZOO_PERSISTENT_WITH_TTL ? 1000 : -1,
                                  nullptr, 0, nullptr), ZOK);
        const testing::InstanceWriter nodes(s_server->ConnectString(), service);
        const ServiceId first = g_generate(), second = g_generate();
        nodes.Create(first, MakeRecord(1));
        std::mutex newsMtx;
        std::vector<bool> news;  // guarded by newsMtx; outlives the watcher
        testing::Watched watched(conn, service);
        watched.watcher.SetServiceListener([&](bool exists) {
            std::lock_guard<std::mutex> lock(newsMtx);
            news.push_back(exists);
        });
        ASSERT_TRUE(watched.Converges([&] { return InstanceMap{{first, MakeRecord(1)}}; }));

        nodes.Remove(first);
        if (flags == 0) {
            ASSERT_EQ(conn->Delete(ServicePath(service), -1), ZOK);  // the server deletes the others
        }
        ASSERT_TRUE(testing::PollUntil([&] { return !watched.watcher.ServiceExists(); }, std::chrono::seconds(30)));
        ASSERT_TRUE(watched.watcher.WaitSynced(std::chrono::seconds(30)));
        EXPECT_EQ(conn->Exists(ServicePath(service), nullptr), ZNONODE) << "the watcher created the node again";
        EXPECT_TRUE(watched.watcher.ListInstances().empty());
        // Waiting costs nothing: not one request while nothing changes.
        const auto missingReads = [&] {
            for (ConnectionMetrics& c : CollectMetrics().connections) {
                if (c.sessionId == conn->SessionId()) return c.errors[ZNONODE];
            }
            return std::uint64_t{0};
        };
        const std::uint64_t before = missingReads();
        for (int i = 0; i < 100; ++i) ASSERT_EQ(conn->Exists("/srv2", nullptr), ZOK);
        EXPECT_EQ(missingReads(), before) << "the watcher keeps reading the missing node";

        // Created again as `register` does: the service node, then the instance.
        const ServiceRegistration back(conn, service, second, MakeRecord(2));
        ASSERT_TRUE(watched.Converges([&] { return InstanceMap{{second, MakeRecord(2)}}; }));
        EXPECT_TRUE(watched.watcher.ServiceExists());
        const auto events = watched.recorder->Snapshot().events;
        ASSERT_EQ(events.size(), 3u);
        EXPECT_TRUE(events[0].kind == testing::Recorder::Kind::Added && events[0].id == first);
        EXPECT_TRUE(events[1].kind == testing::Recorder::Kind::Removed && events[1].id == first);
        EXPECT_TRUE(events[2].kind == testing::Recorder::Kind::Added && events[2].id == second);
        EXPECT_TRUE(watched.recorder->Snapshot().errors.empty()) << "a missing node is no error";
        const Metrics metrics = CollectMetrics();
        const auto mine = std::find_if(metrics.watchers.begin(), metrics.watchers.end(),
                                       [&](const WatcherMetrics& w) { return w.service == service; });
        ASSERT_NE(mine, metrics.watchers.end());
        EXPECT_EQ(mine->serviceDeletions, 1u);
        EXPECT_EQ(mine->serviceCreations, 1u);
        std::lock_guard<std::mutex> lock(newsMtx);
        EXPECT_EQ(news, (std::vector<bool>{false, true}));
    }
    // Created again with an access list that shuts this client out: the
    // refusal reaches the error handler, as it would at the start.
    const String service = name + "0";
    testing::Watched watched(conn, service);
    ASSERT_TRUE(watched.watcher.WaitSynced(std::chrono::seconds(30)));
    std::vector<String> left;
    ASSERT_EQ(conn->GetChildren(ServicePath(service), left), ZOK);
    for (const String& child : left) ASSERT_EQ(conn->Delete(ServicePath(service) + "/" + child, -1), ZOK);
    ASSERT_EQ(conn->Delete(ServicePath(service), -1), ZOK);
    ASSERT_TRUE(testing::PollUntil([&] { return !watched.watcher.ServiceExists(); }, std::chrono::seconds(30)));
    char stranger[] = "stranger:AAAAAAAAAAAAAAAAAAAAAAAAAAA=";
    ACL only{ZOO_PERM_ALL, {const_cast<char*>("digest"), stranger}};
    ACL_vector shut{1, &only};
    ASSERT_EQ(zoo_create(zh, ServicePath(service).c_str(), "", 0, &shut, 0, nullptr, 0), ZOK);
    EXPECT_TRUE(testing::PollUntil([&] { return !watched.recorder->Snapshot().errors.empty(); }, std::chrono::seconds(30)));
    EXPECT_EQ(watched.recorder->Snapshot().errors.front(), ZNOAUTH);
    EXPECT_TRUE(watched.watcher.ServiceExists());
    zookeeper_close(zh);
}

TEST_F(WatcherTest, RegistrationPublishesCompressesUpdatesAndReappearsAfterExpiry) {
    const auto conn = testing::Connect(s_server->ConnectString());
    String path;
    {
        ServiceRegistration registration(conn, name, MakeRecord(1));
        path = registration.Path();
        EXPECT_EQ(path, writer.InstancePath(registration.Id()));
        EXPECT_EQ(registration.Id().version(), boost::uuids::uuid::version_random_number_based);
        EXPECT_EQ(testing::ReadNode(*conn, path), EncodeInstanceData(MakeRecord(1), false));
    }
    EXPECT_FALSE(testing::ReadNode(*conn, path)) << "deleted with the registration";
    const auto large = MakeRecord(3, 4 * kCompressionThreshold);
    const ServiceRegistration big(conn, name, large);
    const String stored = testing::ReadNode(*conn, big.Path()).value_or(String());
    EXPECT_TRUE(testing::SameRecord(DecodeInstanceData(stored), large));
    EXPECT_LT(stored.size(), large.ByteSizeLong()) << "large records are stored compressed";

    ServiceRegistration registration(conn, name, MakeRecord(8));
    registration.Update(MakeRecord(9));
    EXPECT_TRUE(testing::SameRecord(registration.Record(), MakeRecord(9)));
    const auto old = conn->SessionId();
    ASSERT_TRUE(testing::ExpireSession(s_server->ConnectString(), *conn));
    // Published again: owned by the connection's new session, with the latest record.
    EXPECT_TRUE(testing::PollUntil([&] {
        Stat stat{};
        String bytes(kInstanceReadCapacity, '\0');
        return conn->Get(registration.Path(), bytes, &stat) == ZOK && stat.ephemeralOwner != old &&
               bytes == EncodeInstanceData(MakeRecord(9), false);
    }, std::chrono::seconds(60)));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
