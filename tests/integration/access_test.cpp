// Protected services against a real server: an operator, two publishers A
// and B, and an anonymous client that only watches.

#include <boost/uuid/random_generator.hpp>
#include <gtest/gtest.h>

#include "ferrow/access_control.h"
#include "ferrow/service_cache.h"
#include "ferrow/service_registration.h"
#include "tests/support/instances.h"
#include "tests/support/server_suite.h"

namespace jx {
namespace ferrow {
namespace {

using testing::MakeRecord;
using testing::PollUntil;
constexpr std::chrono::seconds kPatience{30};

class AccessTest : public testing::ServerSuite {
protected:
    std::shared_ptr<ZooKeeperConnection> Session(const String& credentials) {
        auto conn = ZooKeeperConnection::Open({s_server->ConnectString(), std::chrono::seconds(30), credentials});
        EXPECT_TRUE(conn->WaitConnected(kPatience));
        return conn;
    }
    const std::shared_ptr<ZooKeeperConnection> op = Session("op:secret"), a = Session("alice:pw-a"),
                                               b = Session("bob:pw-b"), anonymous = Session("");
};

std::vector<AclEntry> NodeAcl(const ZooKeeperConnection& conn, const String& path) {
    std::vector<AclEntry> acl;
    EXPECT_EQ(conn.GetAcl(path, acl), ZOK) << path;
    return acl;
}

// Everything the threat model promises of a protected service, with
// an anonymous cache following it throughout and ending with the truth.
TEST_F(AccessTest, ProtectedServiceRefusesStrangersAndKeepsEachRecordToItsPublisher) {
    ProtectService(*op, "guarded", "op:secret", {DigestIdentity("alice:pw-a"), ParseIdentity("bob:pw-b")});
    // The server shows the hashes only to sessions with ADMIN on the node.
    const std::vector<AclEntry> serviceAcl = ServiceAcl(*op, "guarded");
    EXPECT_EQ(serviceAcl, ProtectedServiceAcl(DigestIdentity("op:secret"),
                                              {DigestIdentity("alice:pw-a"), DigestIdentity("bob:pw-b")}));
    auto cache = std::make_shared<ServiceCache>(anonymous, "guarded", [](int rc) { ADD_FAILURE() << zerror(rc); });
    cache->Start();
    ASSERT_TRUE(cache->WaitSynced(kPatience));
    EXPECT_EQ(NodeAcl(*op, ServicePath("guarded")), serviceAcl) << "the watcher's start-up weakened the list";
    EXPECT_EQ(NodeAcl(*anonymous, ServicePath("guarded"))[2].id, "alice:x");

    // Strangers change nothing.
    const ServiceId rogue = boost::uuids::random_generator()();
    const String bytes = EncodeInstanceData(MakeRecord(1), false);
    EXPECT_EQ(anonymous->Create(InstancePath("guarded", rogue), bytes, ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL), ZNOAUTH);
    EXPECT_THROW(ServiceRegistration(anonymous, "guarded", MakeRecord(1)), ZooError);
    EXPECT_THROW(ProtectService(*anonymous, "guarded", "mallory:x", {}), ZooError);

    // A publishes; only A may change its record, though B may add its own.
    ServiceRegistration published(a, "guarded", MakeRecord(2));
    const String path = published.Path();
    const std::vector<AclEntry> own{{"world", "anyone", ZOO_PERM_READ},
                                    {"digest", DigestIdentity("alice:pw-a"), ZOO_PERM_ALL}};
    EXPECT_EQ(NodeAcl(*a, path), own);
    EXPECT_EQ(b->Set(path, bytes, -1, nullptr), ZNOAUTH);
    EXPECT_EQ(anonymous->Set(path, bytes, -1, nullptr), ZNOAUTH);
    EXPECT_EQ(anonymous->Delete(path, -1), ZNOAUTH);
    ServiceRegistration other(b, "guarded", MakeRecord(3));
    ServiceInstanceData changed = MakeRecord(4);
    published.Update(changed);

    // Re-created after its session expired, with the same list.
    ASSERT_TRUE(testing::ExpireSession(s_server->ConnectString(), *a));
    ASSERT_TRUE(PollUntil([&] { return a->Exists(path, nullptr) == ZOK; }, kPatience));
    EXPECT_EQ(NodeAcl(*a, path), own);

    testing::InstanceMap truth{{published.Id(), changed}, {other.Id(), MakeRecord(3)}};
    EXPECT_TRUE(PollUntil(
        [&] {
            testing::InstanceMap seen;
            const SnapshotPtr snapshot = cache->Snapshot();
            for (const InstancePtr& instance : *snapshot) seen.emplace(instance->Id(), instance->Record());
            return cache->IsSynced() && testing::SameInstances(truth, seen);
        },
        kPatience));
}

// Without protection nothing changes, except that a publisher with
// credentials still keeps its own record to itself.
TEST_F(AccessTest, UnprotectedServicesStayOpen) {
    ServiceRegistration anonymousPublisher(anonymous, "open", MakeRecord(1));
    EXPECT_EQ(NodeAcl(*anonymous, anonymousPublisher.Path()),
              (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_ALL}}));
    EXPECT_EQ(b->Set(anonymousPublisher.Path(), EncodeInstanceData(MakeRecord(5), false), -1, nullptr), ZOK);
    ServiceRegistration withCredentials(a, "open", MakeRecord(2));
    EXPECT_EQ(b->Set(withCredentials.Path(), EncodeInstanceData(MakeRecord(5), false), -1, nullptr), ZNOAUTH);
    EXPECT_EQ(NodeAcl(*anonymous, ServicePath("open")), (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_ALL}}));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
