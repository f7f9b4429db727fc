// ServiceRegistration against a real ZooKeeper server: the ephemeral node,
// its encoding, in-place updates and re-publication after session expiry.

#include <chrono>
#include <memory>
#include <optional>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "ferrow/service_registration.h"
#include "ferrow/zookeeper_connection.h"
#include "messaging/ferrow/service.pb.h"
#include "tests/support/expire_session.h"
#include "tests/support/instance_writer.h"
#include "tests/support/poll.h"
#include "tests/support/shared_server_test.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using messaging::ferrow::ZNodeData;
using testing::MakeRecord;
using testing::ReadNode;
using testing::SameRecord;

class RegistrationTest : public testing::SharedServerTest {
protected:
    static std::shared_ptr<ZooKeeperConnection> Connect() { return testing::Connect(s_server->ConnectString()); }


    static ZNodeData::Compression CompressionOf(const String& bytes) {
        ZNodeData envelope;
        envelope.ParseFromString(bytes);
        return envelope.data_compression();
    }

};


TEST_F(RegistrationTest, PublishesAnEphemeralNodeOfTheSessionAndDeletesItWhenDestroyed) {
    const auto conn = Connect();
    const auto record = MakeRecord(1);
    String path;
    {
        ServiceRegistration registration(conn, "reg-lifetime", record);
        path = registration.Path();
        EXPECT_EQ(path, "/srv2/reg-lifetime/" + boost::uuids::to_string(registration.Id()));
        EXPECT_EQ(registration.Id().version(), boost::uuids::uuid::version_random_number_based);

        Stat stat{};
        const auto bytes = ReadNode(*conn, path, &stat);
        ASSERT_TRUE(bytes);
        EXPECT_EQ(stat.ephemeralOwner, conn->SessionId());
        EXPECT_TRUE(SameRecord(DecodeInstanceData(*bytes), record));
    }
    EXPECT_FALSE(ReadNode(*conn, path));
}

TEST_F(RegistrationTest, CompressesWhenAskedOrWhenTheRecordIsLarge) {
    const auto conn = Connect();
    const auto small = MakeRecord(2);
    const auto large = MakeRecord(3, 4 * kCompressionThreshold);
    const ServiceRegistration plain(conn, "reg-compression", small);
    const ServiceRegistration forced(conn, "reg-compression", small, true);
    const ServiceRegistration big(conn, "reg-compression", large);
    for (const auto* r : {&plain, &forced, &big}) {
        const auto bytes = ReadNode(*conn, r->Path());
        ASSERT_TRUE(bytes);
        EXPECT_EQ(CompressionOf(*bytes), r == &plain ? ZNodeData::COMP_NONE : ZNodeData::COMP_ZLIB);
        EXPECT_TRUE(SameRecord(DecodeInstanceData(*bytes), r == &big ? large : small));
        if (r == &big) {
            EXPECT_LT(bytes->size(), large.ByteSizeLong());
        }
    }
}

TEST_F(RegistrationTest, UpdateRewritesTheRecordInPlace) {
    const auto conn = Connect();
    ServiceRegistration registration(conn, "reg-update", MakeRecord(4));
    const auto changed = MakeRecord(5);
    registration.Update(changed);

    const auto bytes = ReadNode(*conn, registration.Path());
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(SameRecord(DecodeInstanceData(*bytes), changed));
}

TEST_F(RegistrationTest, ATakenIdIsRefusedWithNodeExistsAndTheFirstStays) {
    const auto conn = Connect();
    ServiceRegistration first(conn, "reg-duplicate", MakeRecord(6));
    try {
        ServiceRegistration second(conn, "reg-duplicate", first.Id(), MakeRecord(7));
        FAIL() << "a second registration under the same id was accepted";
    } catch (const ZooError& e) {
        EXPECT_EQ(e.Code(), ZNODEEXISTS);
    }
    const auto bytes = ReadNode(*conn, first.Path());
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(SameRecord(DecodeInstanceData(*bytes), MakeRecord(6)));
}

TEST_F(RegistrationTest, ReappearsWithItsLatestRecordAfterTheSessionExpired) {
    const auto conn = Connect();
    ServiceRegistration registration(conn, "reg-expiry", MakeRecord(8));
    const auto latest = MakeRecord(9);
    registration.Update(latest);
    const auto oldSession = conn->SessionId();

    testing::ExpireSession(s_server->ConnectString(), *conn);

    // Re-created means: owned by a new session of the same connection. Reads
    // may fail while the session is being replaced.
    String bytes;
    const auto republished = [&] {
        const auto session = conn->SessionId();
        Stat stat{};
        bytes.assign(kInstanceReadCapacity, '\0');
        return session != 0 && session != oldSession && conn->Get(registration.Path(), bytes, &stat) == ZOK &&
               stat.ephemeralOwner == session;
    };
    ASSERT_TRUE(testing::PollUntil(republished, std::chrono::seconds(60))) << "the node was not published again";
    EXPECT_TRUE(SameRecord(DecodeInstanceData(bytes), latest));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
