// Instance nodes written by a careless or hostile publisher: the watcher logs
// and goes on, never crashes, hangs or exhausts memory, and keeps delivering
// the well-formed instances of the same service.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>
#include <zlib.h>

#include "ferrow/service_watcher.h"
#include "ferrow/source/znode_data.h"
#include "ferrow/zlib.h"
#include "tests/integration/watch_harness.h"
#include "tests/support/instance_writer.h"
#include "tests/support/watcher_recorder.h"
#include "tests/support/log_capture.h"
#include "tests/support/poll.h"
#include "tests/support/shared_server_test.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::LogCapture;
using testing::WatcherRecorder;
using testing::ZkServer;

constexpr milliseconds kDeadline{30000};

// A zlib stream of `inflated` zero bytes, deflated in pieces so that the
// inflated data never exist in memory.
std::string ZeroBomb(size_t inflated) {
    z_stream stream{};
    EXPECT_EQ(Z_OK, deflateInit(&stream, Z_BEST_COMPRESSION));
    const std::string zeros(1 << 20, '\0');
    std::string out;
    char buffer[1 << 16];
    for (size_t fed = 0; fed < inflated || stream.avail_in > 0;) {
        if (stream.avail_in == 0) {
            const size_t piece = std::min(zeros.size(), inflated - fed);
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
            stream.avail_in = static_cast<uInt>(piece);
            fed += piece;
        }
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof(buffer);
        EXPECT_NE(Z_STREAM_ERROR, deflate(&stream, Z_NO_FLUSH));
        out.append(buffer, sizeof(buffer) - stream.avail_out);
    }
    int rc;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof(buffer);
        rc = deflate(&stream, Z_FINISH);
        out.append(buffer, sizeof(buffer) - stream.avail_out);
    } while (rc == Z_OK);
    EXPECT_EQ(Z_STREAM_END, rc);
    deflateEnd(&stream);
    return out;
}

std::string CompressedEnvelope(const std::string& stream, std::optional<std::uint64_t> dataSize, int compression) {
    messaging::ferrow::ZNodeData envelope;
    envelope.set_data(stream);
    if (dataSize) envelope.set_data_size(*dataSize);
    envelope.set_data_compression(static_cast<messaging::ferrow::ZNodeData::Compression>(compression));
    return envelope.SerializeAsString();
}

// The process's peak resident set, in KiB (VmHWM).
long PeakRssKib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

class HostileDataTest : public testing::SharedServerTest {
protected:
    void SetUp() override {
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        m_writer = std::make_unique<testing::InstanceWriter>(s_server->ConnectString(), name);
        m_watcherConn = testing::Connect(s_server->ConnectString(), milliseconds(10000));
        m_watcher = std::make_unique<ServiceWatcher>(m_watcherConn, name, m_recorder->ErrorHandler());
        m_watcher->RegisterShared(m_recorder);
        m_watcher->Start();
    }

    void TearDown() override { EXPECT_TRUE(m_recorder->Snapshot().errors.empty()) << "the error handler was called"; }

    std::string NodePath(const ServiceId& id) const { return m_writer->InstancePath(id); }

    // Creates an instance node holding `bytes`; returns its id.
    ServiceId Write(const std::string& bytes) {
        const ServiceId id = m_generate();
        m_writer->CreateChild(boost::uuids::to_string(id), bytes);
        return id;
    }

    // Waits until the watcher has issued the read of `id`'s node, so that the
    // result of every read issued later is delivered after that one's.
    void AwaitReadIssued(const ServiceId& id) {
        const std::string text = "Watching instance " + NodePath(id);
        EXPECT_TRUE(AwaitLog([&text](const LogCapture::Record& r) { return r.message == text; }, 1)) << text;
    }

    // Waits until at least `count` captured records satisfy `matches`.
    template <typename Match>
    bool AwaitLog(Match matches, size_t count) {
        return testing::PollUntil(
            [&] {
                const auto records = m_log.Records();
                return static_cast<size_t>(std::count_if(records.begin(), records.end(), matches)) >= count;
            },
            kDeadline, milliseconds(20));
    }

    size_t CountLog(const std::string& prefix) const {
        const auto records = m_log.Records();
        return static_cast<size_t>(std::count_if(records.begin(), records.end(), [&prefix](const auto& r) {
            return r.message.rfind(prefix, 0) == 0;
        }));
    }

    // Waits until the picture holds `id` with `record`.
    bool AwaitReported(const ServiceId& id, const ServiceInstanceData& record) {
        return m_recorder->WaitUntil(
            [&](const WatcherRecorder::State& state) {
                auto found = state.picture.find(id);
                return found != state.picture.end() && testing::SameRecord(found->second, record);
            },
            kDeadline);
    }

    // Writes a well-formed instance after everything before it and waits until
    // it is reported: the watcher is still delivering.
    ServiceId ExpectAWellFormedInstanceStillArrives() {
        const ServiceId id = m_generate();
        const ServiceInstanceData record = testing::MakeRecord(1);
        m_writer->Create(id, record, testing::Encoding::Zlib);
        EXPECT_TRUE(AwaitReported(id, record)) << "a well-formed instance was not reported after the hostile data";
        return id;
    }

    bool Listed(const ServiceId& id) const {
        const auto listed = m_watcher->ListInstances();
        return std::find(listed.begin(), listed.end(), id) != listed.end();
    }

    size_t Reported(const ServiceId& id) const { return m_recorder->Snapshot().picture.count(id); }

    LogCapture m_log;
    boost::uuids::random_generator m_generate;
    std::unique_ptr<testing::InstanceWriter> m_writer;
    std::shared_ptr<ZooKeeperConnection> m_watcherConn;
    std::shared_ptr<WatcherRecorder> m_recorder = std::make_shared<WatcherRecorder>();
    std::unique_ptr<ServiceWatcher> m_watcher;
};


TEST_F(HostileDataTest, NodeOfTheServersMaximumSizeIsReportedWhole) {
    // The server refuses requests above 1,048,575 bytes; the envelope leaves
    // room for the create request's own fields.
    const ServiceInstanceData record = testing::MakeRecord(7, 1048575 - 400);
    const std::string value = testing::MakeEnvelope(record, testing::Encoding::Raw);
    const ServiceId id = Write(value);
    EXPECT_TRUE(AwaitReported(id, record));
    ServiceInstanceData read;
    ASSERT_TRUE(m_watcher->GetInstanceData(id, read));
    EXPECT_TRUE(testing::SameRecord(record, read)) << "the synchronous read differs";
}

TEST_F(HostileDataTest, DecompressionBombIsRefusedWithinTheSizeCap) {
    const std::string bomb = ZeroBomb(512UL << 20);  // 512 MiB inflated
    const long peakBefore = PeakRssKib();
    const ServiceId id = Write(CompressedEnvelope(bomb, 100, 1));
    const std::string logged = "ZLibError ServiceWatcherImpl::InstanceResultCallback OnInstanceAdded: " +
                               NodePath(id) + " exception=inflated data exceed the size limit";
    EXPECT_TRUE(AwaitLog([&logged](const LogCapture::Record& r) { return r.message == logged; }, 1));
    ExpectAWellFormedInstanceStillArrives();
    // Observers never saw it; the watcher still counts it as known.
    EXPECT_EQ(0u, Reported(id));
    EXPECT_TRUE(Listed(id));
    ServiceInstanceData read;
    EXPECT_THROW(m_watcher->GetInstanceData(id, read), zlib::ZLibError);
    EXPECT_LT(PeakRssKib() - peakBefore, 64 * 1024) << "KiB of peak resident set grown";
}

TEST_F(HostileDataTest, DataSizeThatLiesInEitherDirectionStillDecodes) {
    std::vector<std::pair<ServiceId, ServiceInstanceData>> written;
    for (std::uint64_t claim : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1} << 62, ~std::uint64_t{0}}) {
        // Inflates far beyond a small claim.
        const ServiceInstanceData record = testing::MakeRecord(static_cast<int>(claim % 1000), 200000);
        written.emplace_back(Write(CompressedEnvelope(zlib::Compress(record.SerializeAsString()), claim, 1)), record);
    }
    for (const auto& [id, record] : written) EXPECT_TRUE(AwaitReported(id, record));
    EXPECT_EQ(0u, CountLog("ZLibError"));
}

TEST_F(HostileDataTest, RandomBytesAreEachReportedOrLoggedAsTheirDecodingDecides) {
    std::mt19937 random(20261121);
    std::vector<std::pair<ServiceId, std::string>> garbage;
    for (int i = 0; i < 200; ++i) {
        std::string bytes(1 + random() % 512, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        garbage.emplace_back(Write(bytes), bytes);
    }
    AwaitReadIssued(garbage.back().first);
    ExpectAWellFormedInstanceStillArrives();
    // Each value ends as its decoding decides: reported with whatever record
    // the bytes parsed into, refused by the inflater (logged), or refused for
    // an unknown compression (an exception that the connection logged).
    const testing::InstanceMap seen = m_recorder->Snapshot().picture;
    size_t unknownCompressions = 0;
    for (const auto& [id, bytes] : garbage) {
        SCOPED_TRACE(boost::uuids::to_string(id));
        EXPECT_TRUE(Listed(id));
        try {
            ServiceInstanceData record;
            record.ParseFromString(ParseZNodeData(bytes));
            ASSERT_EQ(1u, seen.count(id));
            EXPECT_TRUE(testing::SameRecord(record, seen.at(id)));
        } catch (const zlib::ZLibError& e) {
            EXPECT_EQ(0u, seen.count(id));
            EXPECT_EQ(1u, m_log.WithMessage("ZLibError ServiceWatcherImpl::InstanceResultCallback OnInstanceAdded: " +
                                            NodePath(id) + " exception=" + e.what())
                              .size());
        } catch (const std::runtime_error&) {
            ++unknownCompressions;
            EXPECT_EQ(0u, seen.count(id));
        }
    }
    EXPECT_LE(unknownCompressions, m_log.WithMessage("Callback threw: Invalid compression option").size());
}

TEST_F(HostileDataTest, UnknownCompressionIsLoggedAndOtherInstancesAreStillDelivered) {
    const ServiceId id = Write(CompressedEnvelope(testing::MakeRecord(3).SerializeAsString(), std::nullopt, 2));
    EXPECT_TRUE(AwaitLog(
        [](const LogCapture::Record& r) {
            return r.source == "ferrow.connection" && r.level == logging::JXLOG_ERROR &&
                   r.message == "Callback threw: Invalid compression option";
        },
        1));
    ExpectAWellFormedInstanceStillArrives();
    EXPECT_EQ(0u, Reported(id));
    EXPECT_TRUE(Listed(id));
    ServiceInstanceData read;
    EXPECT_THROW(m_watcher->GetInstanceData(id, read), std::runtime_error);
}

TEST_F(HostileDataTest, ThousandsOfForeignChildrenAreSkippedWithAWarningEach) {
    constexpr size_t kForeign = 3000;
    for (size_t i = 0; i < kForeign; ++i) m_writer->CreateChild("foreign-" + std::to_string(i), "x");
    const std::string prefix = "Invalid child name at path '" + m_writer->ServicePath() + "'. Could not convert 'foreign-";
    EXPECT_TRUE(AwaitLog(
        [&prefix](const LogCapture::Record& r) {
            return r.level == logging::JXLOG_WARNING && r.message.rfind(prefix, 0) == 0;
        },
        kForeign));
    const ServiceId id = ExpectAWellFormedInstanceStillArrives();
    EXPECT_EQ(std::vector<ServiceId>{id}, m_watcher->ListInstances());
}

TEST_F(HostileDataTest, UpperCaseUuidChildIsReadUnderItsLowerCaseNameAndNeverReported) {
    const ServiceId id = m_generate();
    const std::string upper = boost::algorithm::to_upper_copy(boost::uuids::to_string(id));
    m_writer->CreateChild(upper, testing::MakeEnvelope(testing::MakeRecord(5), testing::Encoding::Raw));
    // The name is read as an id, and the node is then looked up by the id's
    // canonical lower-case text, which does not exist.
    AwaitReadIssued(id);
    ExpectAWellFormedInstanceStillArrives();
    EXPECT_EQ(0u, Reported(id));
    EXPECT_FALSE(Listed(id));
    ServiceInstanceData read;
    EXPECT_FALSE(m_watcher->GetInstanceData(id, read));
    EXPECT_EQ(0u, CountLog("Invalid child name"));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
