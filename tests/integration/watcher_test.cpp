// The service watcher over the real connection against a real server: what
// it reports for every encoding, through an expiry, for hostile nodes, and
// when started while the server is down.

#include <zlib.h>

#include <fstream>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "ferrow/service_registration.h"
#include "ferrow/service_watcher.h"
#include "ferrow/zlib.h"
#include "tests/support/support.h"
#include "tests/support/recorder.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using Kind = testing::Recorder::Kind;
using testing::Encoding;
using testing::InstanceMap;
using testing::MakeRecord;

boost::uuids::random_generator g_generate;

// A watcher of one service on a connection of its own, with a writer.
struct Watched {
    Watched(const std::string& connect, const std::string& service, bool start = true)
        : conn(ZooKeeperConnection::Open({connect, milliseconds(10000), ""})), watcher(conn, service, recorder->ErrorHandler()) {
        watcher.RegisterShared(recorder);
        if (start) watcher.Start();
    }
    std::vector<ServiceId> Listed() const {
        auto ids = watcher.ListInstances();
        std::sort(ids.begin(), ids.end());
        return ids;
    }
    std::shared_ptr<ZooKeeperConnection> conn;
    std::shared_ptr<testing::Recorder> recorder = std::make_shared<testing::Recorder>();
    ServiceWatcher watcher;
};

std::vector<ServiceId> Ids(const InstanceMap& instances) {
    std::vector<ServiceId> ids;
    for (const auto& entry : instances) ids.push_back(entry.first);
    return ids;
}

class WatcherTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { (s_server = new testing::ZkServer())->Start(); }
    static void TearDownTestSuite() { delete s_server; }
    static std::string Name() { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }
    static inline testing::ZkServer* s_server = nullptr;
};

TEST_F(WatcherTest, ReportsWhatTheServerHoldsInEveryEncodingThroughAnExpiry) {
    testing::InstanceWriter writer(s_server->ConnectString(), Name());
    Watched watched(s_server->ConnectString(), Name());
    InstanceMap expected;
    for (int i = 0; i < 6; ++i) {
        const ServiceId id = g_generate();
        writer.Create(id, expected[id] = MakeRecord(i, i == 5 ? 5000 : 0), static_cast<Encoding>(i % 3));
    }
    writer.CreateChild("lock-0001", "x");
    ASSERT_TRUE(watched.recorder->WaitForPicture(expected));
    const ServiceId changed = expected.begin()->first, removed = expected.rbegin()->first;
    writer.Set(changed, expected[changed] = MakeRecord(50), Encoding::ZlibWithoutSize);
    writer.Remove(removed);
    expected.erase(removed);
    ASSERT_TRUE(watched.recorder->WaitForPicture(expected));
    EXPECT_EQ(Ids(expected), watched.Listed());
    ServiceInstanceData read;
    ASSERT_TRUE(watched.watcher.GetInstanceData(changed, read));
    EXPECT_TRUE(testing::SameRecord(read, expected[changed]));
    EXPECT_FALSE(watched.watcher.GetInstanceData(removed, read));

    // Every instance is reported removed, then added from the new session,
    // and is watched again there.
    const size_t mark = watched.recorder->Snapshot().events.size();
    ASSERT_TRUE(testing::ExpireSession(s_server->ConnectString(), *watched.conn));
    auto removedThenAdded = [&](const testing::Recorder::State& state) {
        for (const auto& entry : expected) {
            std::vector<Kind> kinds;
            for (size_t i = mark; i < state.events.size(); ++i) {
                if (state.events[i].id == entry.first) kinds.push_back(state.events[i].kind);
            }
            if (kinds != std::vector<Kind>{Kind::Removed, Kind::Added}) return false;
        }
        return true;
    };
    EXPECT_TRUE(watched.recorder->WaitUntil(removedThenAdded, milliseconds(30000)));
    writer.Set(changed, expected[changed] = MakeRecord(51));
    ASSERT_TRUE(watched.recorder->WaitForPicture(expected));
    EXPECT_TRUE(watched.recorder->Snapshot().errors.empty());
}

// A zlib stream of `inflated` zero bytes, deflated in pieces so that the
// inflated data never exist in memory.
String ZeroBomb(size_t inflated) {
    z_stream stream{};
    deflateInit(&stream, Z_BEST_COMPRESSION);
    const String zeros(1 << 20, '\0');
    String out;
    char buffer[1 << 16];
    for (size_t fed = 0;;) {
        if (stream.avail_in == 0 && fed < inflated) {
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
            stream.avail_in = static_cast<uInt>(std::min(zeros.size(), inflated - fed));
            fed += stream.avail_in;
        }
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof(buffer);
        const int rc = deflate(&stream, fed == inflated && stream.avail_in == 0 ? Z_FINISH : Z_NO_FLUSH);
        out.append(buffer, sizeof(buffer) - stream.avail_out);
        if (rc == Z_STREAM_END) break;
    }
    deflateEnd(&stream);
    return out;
}

String Envelope(const String& stream, std::optional<std::uint64_t> size, int compression) {
    messaging::ferrow::ZNodeData envelope;
    envelope.set_data(stream);
    if (size) envelope.set_data_size(*size);
    envelope.set_data_compression(static_cast<messaging::ferrow::ZNodeData::Compression>(compression));
    return envelope.SerializeAsString();
}

long PeakResidentKib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

// Each hostile node ends as its decoding decides, and a well-formed instance
// written after all of them still arrives.
TEST_F(WatcherTest, HostileNodesAreReportedWholeOrLoggedOrSkippedAndNeverStopTheOthers) {
    testing::LogCapture logs(logging::JXLOG_WARNING);
    testing::InstanceWriter writer(s_server->ConnectString(), Name());
    Watched watched(s_server->ConnectString(), Name());
    const auto big = MakeRecord(7, 1048575 - 400);  // the server's node limit, less the request's own fields
    const auto lying = MakeRecord(8, 200000);  // inflates far beyond a small size claim
    // A bomb first, alone: the watcher refuses it within the size cap.
    const long peakBefore = PeakResidentKib();
    const ServiceId bomb = g_generate();
    writer.CreateChild(boost::uuids::to_string(bomb), Envelope(ZeroBomb(512UL << 20), 100, 1));
    const std::string refused = "ZLibError ServiceWatcherImpl::InstanceResultCallback OnInstanceAdded: /srv2/" + Name() +
                                "/" + boost::uuids::to_string(bomb) + " exception=inflated data exceed the size limit";
    ASSERT_TRUE(testing::PollUntil([&] { return logs.Count(refused) == 1; }, std::chrono::seconds(30)));
    EXPECT_LT(PeakResidentKib() - peakBefore, 64 * 1024) << "KiB of peak resident set grown";

    struct Row {
        const char* what;
        String bytes;
        bool reported;
        std::string logged;  // an error record it causes, if any
    };
    const Row rows[] = {
        {"largest node", Envelope(big.SerializeAsString(), std::nullopt, 0), true, ""},
        {"size claim 0", Envelope(zlib::Compress(lying.SerializeAsString()), 0, 1), true, ""},
        {"size claim 1", Envelope(zlib::Compress(lying.SerializeAsString()), 1, 1), true, ""},
        {"size claim 2^64-1", Envelope(zlib::Compress(lying.SerializeAsString()), ~0ULL, 1), true, ""},
        {"unknown compression", Envelope(lying.SerializeAsString(), std::nullopt, 2), false, "Callback threw: Invalid compression option"},
    };
    std::vector<ServiceId> ids;
    for (const Row& row : rows) {
        ids.push_back(g_generate());
        writer.CreateChild(boost::uuids::to_string(ids.back()), row.bytes);
    }
    const ServiceId upper = g_generate();  // read under its lower-case name, which does not exist
    writer.CreateChild(boost::algorithm::to_upper_copy(boost::uuids::to_string(upper)), testing::MakeEnvelope(MakeRecord(5), Encoding::Raw));
    for (int i = 0; i < 1000; ++i) writer.CreateChild("foreign-" + std::to_string(i), "x");
    const ServiceId good = g_generate();
    writer.Create(good, MakeRecord(9));
    ASSERT_TRUE(watched.recorder->WaitUntil([&](const auto& state) { return state.picture.count(good) != 0; }, milliseconds(60000)));
    ASSERT_TRUE(testing::PollUntil([&] { return watched.watcher.ListInstances().size() == 7; }, std::chrono::seconds(30)));

    const InstanceMap picture = watched.recorder->Snapshot().picture;
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].what);
        EXPECT_EQ(picture.count(ids[i]), rows[i].reported ? 1u : 0u);
        ServiceInstanceData read;
        if (rows[i].reported) {
            ASSERT_TRUE(watched.watcher.GetInstanceData(ids[i], read));
            EXPECT_TRUE(testing::SameRecord(read, picture.at(ids[i])));
            EXPECT_TRUE(testing::SameRecord(read, i == 0 ? big : lying));
        } else {
            EXPECT_THROW(watched.watcher.GetInstanceData(ids[i], read), std::runtime_error);
        }
        if (!rows[i].logged.empty()) {
            EXPECT_EQ(logs.Count(rows[i].logged, logging::JXLOG_ERROR), 1u);
        }
    }
    ServiceInstanceData read;
    EXPECT_THROW(watched.watcher.GetInstanceData(bomb, read), zlib::ZLibError);
    EXPECT_FALSE(watched.watcher.GetInstanceData(upper, read));
    EXPECT_EQ(picture.size(), 5u);
    size_t warnings = 0;
    for (const auto& record : logs.Records()) warnings += record.message.find("Could not convert 'foreign-") != std::string::npos;
    EXPECT_GE(warnings, 1000u) << "one warning per foreign child at each listing";
}

TEST_F(WatcherTest, RegistrationPublishesCompressesUpdatesRefusesATakenIdAndReappearsAfterExpiry) {
    const auto conn = testing::Connect(s_server->ConnectString());
    String path;
    {
        ServiceRegistration registration(conn, "reg", MakeRecord(1));
        path = registration.Path();
        EXPECT_EQ(path, "/srv2/reg/" + boost::uuids::to_string(registration.Id()));
        EXPECT_EQ(registration.Id().version(), boost::uuids::uuid::version_random_number_based);
        EXPECT_EQ(testing::ReadNode(*conn, path), EncodeInstanceData(MakeRecord(1), false));
    }
    EXPECT_FALSE(testing::ReadNode(*conn, path)) << "deleted with the registration";
    const auto large = MakeRecord(3, 4 * kCompressionThreshold);
    const ServiceRegistration plain(conn, "reg", MakeRecord(2)), forced(conn, "reg", MakeRecord(2), true), big(conn, "reg", large);
    EXPECT_EQ(testing::ReadNode(*conn, forced.Path()), EncodeInstanceData(MakeRecord(2), true));
    EXPECT_TRUE(testing::SameRecord(DecodeInstanceData(*testing::ReadNode(*conn, big.Path())), large));
    EXPECT_LT(testing::ReadNode(*conn, big.Path())->size(), large.ByteSizeLong()) << "large records are stored compressed";
    EXPECT_THROW(ServiceRegistration(conn, "reg", plain.Id(), MakeRecord(7)), ZooError) << "a taken id";
    EXPECT_EQ(testing::ReadNode(*conn, plain.Path()), EncodeInstanceData(MakeRecord(2), false));

    ServiceRegistration registration(conn, "reg", MakeRecord(8));
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

TEST(WatcherServerDownTest, StartedWhileTheServerIsDownDiscoversInstancesOnceConnected) {
    testing::ZkServer server;
    server.Start();
    InstanceMap written;
    {
        testing::InstanceWriter writer(server.ConnectString(), "down");
        for (int i = 0; i < 3; ++i) writer.Create(g_generate(), MakeRecord(i));
        written = writer.ReadTruth();
    }
    server.Stop();
    Watched watched(server.ConnectString(), "down");
    server.Start();
    ASSERT_TRUE(watched.recorder->WaitForPicture(written));
    EXPECT_EQ(Ids(written), watched.Listed());
    EXPECT_EQ(watched.recorder->Snapshot().reports, written.size()) << "each instance added once, nothing else";
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
