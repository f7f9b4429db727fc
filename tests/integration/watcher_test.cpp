// The service watcher over the real connection against a real ZooKeeper
// server: what it reports, added up, must equal what an independent client
// reads from the server.

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "ferrow/service_watcher.h"
#include "ferrow/zookeeper_connection.h"
#include "tests/support/expire_session.h"
#include "tests/support/instance_writer.h"
#include "tests/support/log_capture.h"
#include "tests/support/watcher_recorder.h"
#include "tests/support/shared_server_test.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Encoding;
using testing::InstanceMap;
using testing::InstanceWriter;
using testing::MakeRecord;
using testing::SameInstances;
using testing::SameRecord;
using testing::WatcherRecorder;
using testing::ZkServer;
using Kind = WatcherRecorder::Kind;

// Generous: each wait normally ends well within a second.
constexpr milliseconds kDeadline = seconds(60);
constexpr milliseconds kSessionTimeout = seconds(10);
// A session that must outlive a server restart. The client gives up a
// connection attempt that the starting server never answers after two thirds
// of it, so it also bounds how long a reconnection can stall.
constexpr milliseconds kRestartSessionTimeout = seconds(20);
// The shortest session the server grants, for a connection first made while
// the server starts, so that such a stall stays short.
constexpr milliseconds kShortSessionTimeout = seconds(4);

ServiceId NewId() {
    static boost::uuids::random_generator generate;
    return generate();
}

std::set<ServiceId> Ids(const InstanceMap& instances) {
    std::set<ServiceId> ids;
    for (const auto& entry : instances) ids.insert(entry.first);
    return ids;
}

std::set<ServiceId> Listed(const ServiceWatcher& watcher) {
    const std::vector<ServiceId> listed = watcher.ListInstances();
    std::set<ServiceId> ids(listed.begin(), listed.end());
    EXPECT_EQ(listed.size(), ids.size()) << "an instance is listed twice";
    return ids;
}

// A watcher of one service over its own connection, its recorder, and a
// writer of the same service over another connection. Members are destroyed
// watcher first, then its connection.
struct WatchedService {
    // Without `waitConnected` the watcher is started at once, connected or
    // not, and there is no writer (it could not connect either).
    WatchedService(const std::string& connect, const std::string& service, milliseconds sessionTimeout,
                   bool waitConnected = true)
        : writer(waitConnected ? std::make_unique<InstanceWriter>(connect, service, sessionTimeout) : nullptr) {
        ConnectionOptions options;
        options.connect = connect;
        options.sessionTimeout = sessionTimeout;
        conn = ZooKeeperConnection::Open(options);
        if (waitConnected) {
            EXPECT_TRUE(conn->WaitConnected(kDeadline));
        }
        watcher = std::make_unique<ServiceWatcher>(conn, service, recorder->ErrorHandler());
        watcher->RegisterShared(recorder);
        watcher->Start();
    }

    // Nothing went to the error handler and no report contradicted the
    // picture built from the earlier ones.
    void ExpectCleanRecord() const {
        const WatcherRecorder::State state = recorder->Snapshot();
        EXPECT_THAT(state.errors, ::testing::IsEmpty());
        EXPECT_THAT(state.anomalies, ::testing::IsEmpty());
    }

    std::unique_ptr<InstanceWriter> writer;
    std::shared_ptr<WatcherRecorder> recorder = std::make_shared<WatcherRecorder>();
    std::shared_ptr<ZooKeeperConnection> conn;
    std::unique_ptr<ServiceWatcher> watcher;
};

// Tests sharing one server; each watches a service named after the test.
class WatcherTest : public testing::SharedServerTest {
protected:
    void SetUp() override {
        m_service = std::make_unique<WatchedService>(s_server->ConnectString(),
                                                     ::testing::UnitTest::GetInstance()->current_test_info()->name(),
                                                     kSessionTimeout);
    }
    void TearDown() override {
        if (m_service) m_service->ExpectCleanRecord();
    }

    InstanceWriter& Writer() { return *m_service->writer; }
    WatcherRecorder& Recorder() { return *m_service->recorder; }
    ServiceWatcher& Watcher() { return *m_service->watcher; }

    std::unique_ptr<WatchedService> m_service;
};


TEST_F(WatcherTest, ReportsInstancesAddedModifiedAndRemoved) {
    const ServiceId a = NewId();
    const ServiceId b = NewId();
    InstanceMap expected;

    // Every step waits for its report, so that each one is a change of its own.
    Writer().Create(a, expected[a] = MakeRecord(1));
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));
    Writer().Create(b, expected[b] = MakeRecord(2));
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));
    Writer().Set(a, expected[a] = MakeRecord(3));
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));
    Writer().Remove(b);
    expected.erase(b);
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));
    Writer().Create(b, expected[b] = MakeRecord(4));
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));

    EXPECT_TRUE(SameInstances(Writer().ReadTruth(), Recorder().Snapshot().picture));
    const std::vector<WatcherRecorder::Event> events = Recorder().Snapshot().events;
    EXPECT_THAT(WatcherRecorder::KindsFor(events, a), ::testing::ElementsAre(Kind::Added, Kind::Modified));
    EXPECT_THAT(WatcherRecorder::KindsFor(events, b), ::testing::ElementsAre(Kind::Added, Kind::Removed, Kind::Added));
}

TEST_F(WatcherTest, DecodesRawAndCompressedRecordsAsWritten) {
    struct Case {
        ServiceId id;
        Encoding first;
        Encoding second;
        size_t metadataBytes;
    };
    // The last case inflates beyond the size a reader assumes when the
    // envelope states none.
    const std::vector<Case> cases = {
        {NewId(), Encoding::Raw, Encoding::Zlib, 0},
        {NewId(), Encoding::Zlib, Encoding::ZlibWithoutSize, 0},
        {NewId(), Encoding::ZlibWithoutSize, Encoding::Raw, 0},
        {NewId(), Encoding::ZlibWithoutSize, Encoding::Zlib, 40000},
    };
    InstanceMap expected;
    int seed = 0;
    for (const Case& c : cases) Writer().Create(c.id, expected[c.id] = MakeRecord(++seed, c.metadataBytes), c.first);
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));

    for (const Case& c : cases) Writer().Set(c.id, expected[c.id] = MakeRecord(++seed, c.metadataBytes), c.second);
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));

    const std::vector<WatcherRecorder::Event> events = Recorder().Snapshot().events;
    for (const Case& c : cases) {
        EXPECT_THAT(WatcherRecorder::KindsFor(events, c.id), ::testing::ElementsAre(Kind::Added, Kind::Modified));
        ServiceInstanceData read;
        ASSERT_TRUE(Watcher().GetInstanceData(c.id, read));
        EXPECT_TRUE(SameRecord(expected[c.id], read)) << read.ShortDebugString();
    }
}

TEST_F(WatcherTest, SkipsChildrenNotNamedByServiceIdWithWarning) {
    testing::LogCapture log;
    const std::vector<std::string> foreign = {"config", boost::uuids::to_string(NewId()) + "-old",
                                              " " + boost::uuids::to_string(NewId())};
    for (const std::string& name : foreign) Writer().CreateChild(name, MakeEnvelope(MakeRecord(7), Encoding::Raw));
    // Created last: the listing that shows it shows the foreign children too,
    // and is examined in full before the instance is read and reported.
    const ServiceId valid = NewId();
    InstanceMap expected;
    Writer().Create(valid, expected[valid] = MakeRecord(8));
    ASSERT_TRUE(Recorder().WaitForPicture(expected, kDeadline));

    EXPECT_EQ(std::set<ServiceId>{valid}, Listed(Watcher()));
    EXPECT_THAT(WatcherRecorder::KindsFor(Recorder().Snapshot().events, valid), ::testing::ElementsAre(Kind::Added));
    for (const std::string& name : foreign) {
        const std::string message = "Invalid child name at path '" + Writer().ServicePath() + "'. Could not convert '" +
                                    name + "' to ServiceId.";
        const std::vector<testing::LogCapture::Record> records = log.WithMessage(message);
        ASSERT_FALSE(records.empty()) << message;
        EXPECT_EQ(logging::JXLOG_WARNING, records.front().level);
        EXPECT_EQ("ferrow.service", records.front().source);
    }
}

TEST_F(WatcherTest, ListInstancesAndGetInstanceDataAgreeWithServer) {
    InstanceMap written;
    int seed = 0;
    for (Encoding encoding : {Encoding::Raw, Encoding::Zlib, Encoding::ZlibWithoutSize}) {
        const ServiceId id = NewId();
        Writer().Create(id, written[id] = MakeRecord(++seed), encoding);
    }
    ASSERT_TRUE(Recorder().WaitForPicture(written, kDeadline));

    InstanceMap truth = Writer().ReadTruth();
    ASSERT_TRUE(SameInstances(written, truth));
    EXPECT_EQ(Ids(truth), Listed(Watcher()));
    for (const auto& entry : truth) {
        ServiceInstanceData read;
        ASSERT_TRUE(Watcher().GetInstanceData(entry.first, read));
        EXPECT_TRUE(SameRecord(entry.second, read)) << read.ShortDebugString();
    }

    ServiceInstanceData untouched = MakeRecord(99);
    EXPECT_FALSE(Watcher().GetInstanceData(NewId(), untouched));
    EXPECT_TRUE(SameRecord(MakeRecord(99), untouched));

    const ServiceId removed = truth.begin()->first;
    Writer().Remove(removed);
    written.erase(removed);
    ASSERT_TRUE(Recorder().WaitForPicture(written, kDeadline));
    truth = Writer().ReadTruth();
    EXPECT_EQ(Ids(truth), Listed(Watcher()));
    ServiceInstanceData read;
    EXPECT_FALSE(Watcher().GetInstanceData(removed, read));
}

TEST_F(WatcherTest, DiscoversEveryInstanceOfALargeService) {
    constexpr int kInstances = 2000;
    InstanceMap written;
    for (int i = 0; i < kInstances; ++i) written[NewId()] = MakeRecord(i);
    Writer().CreateAll(written, Encoding::Zlib);

    ASSERT_TRUE(Recorder().WaitForPicture(written, kDeadline));
    EXPECT_TRUE(SameInstances(Writer().ReadTruth(), Recorder().Snapshot().picture));
    EXPECT_EQ(Ids(written), Listed(Watcher()));
    const std::vector<WatcherRecorder::Event> events = Recorder().Snapshot().events;
    EXPECT_EQ(static_cast<size_t>(kInstances), WatcherRecorder::Count(events, Kind::Added));
    EXPECT_EQ(0u, WatcherRecorder::Count(events, Kind::Removed));
}

TEST_F(WatcherTest, ExpiredSessionReportsEveryInstanceRemovedThenAddedFromNewSession) {
    InstanceMap written;
    for (int i = 0; i < 5; ++i) written[NewId()] = MakeRecord(i);
    Writer().CreateAll(written, Encoding::Raw);
    ASSERT_TRUE(Recorder().WaitForPicture(written, kDeadline));

    const size_t mark = Recorder().Snapshot().events.size();
    const std::int64_t expiredSession = m_service->conn->SessionId();
    testing::ExpireSession(s_server->ConnectString(), *m_service->conn, kDeadline);

    auto removedThenAdded = [&](const WatcherRecorder::State& state) {
        for (const auto& entry : written) {
            if (WatcherRecorder::KindsFor(state.events, entry.first, mark) !=
                std::vector<Kind>{Kind::Removed, Kind::Added}) {
                return false;
            }
        }
        return true;
    };
    EXPECT_TRUE(Recorder().WaitUntil(removedThenAdded, kDeadline));
    ASSERT_TRUE(Recorder().WaitForPicture(written, kDeadline));
    ASSERT_TRUE(m_service->conn->WaitConnected(kDeadline));
    EXPECT_NE(expiredSession, m_service->conn->SessionId());

    // The instances are watched again from the new session.
    const ServiceId changed = written.begin()->first;
    const ServiceId removed = written.rbegin()->first;
    Writer().Set(changed, written[changed] = MakeRecord(50));
    Writer().Remove(removed);
    written.erase(removed);
    ASSERT_TRUE(Recorder().WaitForPicture(written, kDeadline));
    EXPECT_TRUE(SameInstances(Writer().ReadTruth(), Recorder().Snapshot().picture));
    EXPECT_EQ(Ids(written), Listed(Watcher()));
}

// Tests that stop and start a server of their own.
class WatcherServerRestartTest : public ::testing::Test {
protected:
    std::string Service() const { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }

    ZkServer m_server;
};

TEST_F(WatcherServerRestartTest, RestartWithinSessionTimeoutLosesNothing) {
    m_server.Start();
    WatchedService service(m_server.ConnectString(), Service(), kRestartSessionTimeout);
    InstanceWriter& writer = *service.writer;
    const ServiceId a = NewId();
    const ServiceId b = NewId();
    const ServiceId c = NewId();
    InstanceMap expected;
    writer.Create(a, expected[a] = MakeRecord(1));
    writer.Create(b, expected[b] = MakeRecord(2));
    writer.Create(c, expected[c] = MakeRecord(3));
    ASSERT_TRUE(service.recorder->WaitForPicture(expected, kDeadline));
    const std::int64_t session = service.conn->SessionId();

    // Changes the watcher may still be reading when the server goes away.
    const ServiceId d = NewId();
    writer.Set(a, expected[a] = MakeRecord(10));
    writer.Remove(b);
    expected.erase(b);
    writer.Create(d, expected[d] = MakeRecord(11));
    m_server.Stop();
    m_server.Start();
    ASSERT_TRUE(writer.Connection().WaitConnected(kDeadline));
    ASSERT_TRUE(service.conn->WaitConnected(kDeadline));

    const ServiceId e = NewId();
    writer.Set(c, expected[c] = MakeRecord(12));
    writer.Create(e, expected[e] = MakeRecord(13));

    ASSERT_TRUE(SameInstances(expected, writer.ReadTruth())) << "the server lost writes";
    ASSERT_TRUE(service.recorder->WaitForPicture(expected, kDeadline));
    EXPECT_EQ(session, service.conn->SessionId());
    EXPECT_EQ(Ids(expected), Listed(*service.watcher));
    const std::vector<WatcherRecorder::Event> events = service.recorder->Snapshot().events;
    EXPECT_THAT(WatcherRecorder::KindsFor(events, a), ::testing::ElementsAre(Kind::Added, Kind::Modified));
    EXPECT_THAT(WatcherRecorder::KindsFor(events, b), ::testing::ElementsAre(Kind::Added, Kind::Removed));
    EXPECT_THAT(WatcherRecorder::KindsFor(events, c), ::testing::ElementsAre(Kind::Added, Kind::Modified));
    EXPECT_THAT(WatcherRecorder::KindsFor(events, d), ::testing::ElementsAre(Kind::Added));
    EXPECT_THAT(WatcherRecorder::KindsFor(events, e), ::testing::ElementsAre(Kind::Added));
    service.ExpectCleanRecord();
}

TEST_F(WatcherServerRestartTest, StartedWhileServerDownDiscoversInstancesOnceConnected) {
    m_server.Start();
    InstanceMap written;
    {
        InstanceWriter writer(m_server.ConnectString(), Service(), kSessionTimeout);
        for (int i = 0; i < 3; ++i) written[NewId()] = MakeRecord(i);
        writer.CreateAll(written, Encoding::Raw);
    }
    m_server.Stop();
    WatchedService service(m_server.ConnectString(), Service(), kShortSessionTimeout, false);
    m_server.Start();

    ASSERT_TRUE(service.recorder->WaitForPicture(written, kDeadline));
    EXPECT_EQ(Ids(written), Listed(*service.watcher));
    service.ExpectCleanRecord();
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
