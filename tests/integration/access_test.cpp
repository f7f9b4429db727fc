// Protected services against a real server: an operator, two publishers A
// and B, and an anonymous client that only watches.

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/access_control.h"
#include "ferrow/service_cache.h"
#include "ferrow/service_registration.h"
#include "tests/support/instances.h"
#include "tests/support/server_suite.h"
#include "tests/support/support.h"

namespace jx {
namespace ferrow {
namespace {

using testing::MakeRecord;
using testing::PollUntil;
constexpr std::chrono::seconds kPatience{30};

class AccessTest : public testing::ServerSuite {
protected:
    // A session with `credentials`, under `chroot` (empty: none).
    std::shared_ptr<ZooKeeperConnection> Session(const String& credentials, const String& chroot = String()) {
        auto conn = ZooKeeperConnection::Open({s_server->ConnectString() + chroot, std::chrono::seconds(30), credentials});
        EXPECT_TRUE(conn->WaitConnected(kPatience));
        return conn;
    }
    const std::shared_ptr<ZooKeeperConnection> op = Session("op:secret"), a = Session("alice:pw-a"),
                                               b = Session("bob:pw-b"), anonymous = Session("");
};

std::vector<AclEntry> AclOf(const ZooKeeperConnection& conn, const String& path) {
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
    // Only the hostile instance below may be refused to it.
    std::atomic<int> refused{0};
    auto cache = std::make_shared<ServiceCache>(anonymous, "guarded", [&refused](int rc) {
        rc == ZNOAUTH ? void(++refused) : void(ADD_FAILURE() << zerror(rc));
    });
    cache->Start();
    ASSERT_TRUE(cache->WaitSynced(kPatience));
    EXPECT_EQ(AclOf(*op, ServicePath("guarded")), serviceAcl) << "the watcher's start-up weakened the list";
    EXPECT_EQ(AclOf(*anonymous, ServicePath("guarded"))[2].id, "alice:x");

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
    EXPECT_EQ(AclOf(*a, path), own);
    EXPECT_EQ(b->Set(path, bytes, -1, nullptr), ZNOAUTH);
    EXPECT_EQ(anonymous->Set(path, bytes, -1, nullptr), ZNOAUTH);
    EXPECT_EQ(anonymous->Delete(path, -1), ZNOAUTH);
    ServiceRegistration other(b, "guarded", MakeRecord(3));
    // B adds a node nobody else may read (CREATE allows any list): readers
    // skip it, and follow the rest of the service.
    const std::vector<AclEntry> hidden{{"auth", "", ZOO_PERM_ALL}};
    ASSERT_EQ(b->Create(InstancePath("guarded", rogue), bytes, hidden, ZOO_EPHEMERAL), ZOK);
    ServiceInstanceData changed = MakeRecord(4);
    published.Update(changed);

    // Re-created after its session expired, with the same list.
    ASSERT_TRUE(testing::ExpireSession(s_server->ConnectString(), *a));
    ASSERT_TRUE(PollUntil([&] { return a->Exists(path, nullptr) == ZOK; }, kPatience));
    EXPECT_EQ(AclOf(*a, path), own);

    // Protected again with its publishers live: their nodes, whose hashes
    // the operator cannot read, are theirs; only the hidden one is named.
    try {
        ProtectService(*op, "guarded", "op:secret", {DigestIdentity("alice:pw-a"), DigestIdentity("bob:pw-b")});
        ADD_FAILURE() << "the hidden node went unnamed";
    } catch (const OpenInstances& e) {
        EXPECT_EQ(e.Ids(), std::vector<String>{boost::uuids::to_string(rogue)});
    }

    testing::InstanceMap truth{{published.Id(), changed}, {other.Id(), MakeRecord(3)}};
    EXPECT_TRUE(PollUntil(
        [&] {
            testing::InstanceMap seen;
            const SnapshotPtr snapshot = cache->Snapshot();
            for (const InstancePtr& instance : *snapshot) seen.emplace(instance->Id(), instance->Record());
            return cache->IsSynced() && testing::SameInstances(truth, seen);
        },
        kPatience));
    EXPECT_GE(refused, 1);
}

// Without protection nothing changes, except that a publisher with
// credentials still keeps its own record to itself.
TEST_F(AccessTest, UnprotectedServicesStayOpen) {
    ServiceRegistration anonymousPublisher(anonymous, "open", MakeRecord(1));
    EXPECT_EQ(AclOf(*anonymous, anonymousPublisher.Path()),
              (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_ALL}}));
    EXPECT_EQ(b->Set(anonymousPublisher.Path(), EncodeInstanceData(MakeRecord(5), false), -1, nullptr), ZOK);
    ServiceRegistration withCredentials(a, "open", MakeRecord(2));
    EXPECT_EQ(b->Set(withCredentials.Path(), EncodeInstanceData(MakeRecord(5), false), -1, nullptr), ZNOAUTH);
    EXPECT_EQ(AclOf(*anonymous, ServicePath("open")), (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_ALL}}));
}

// Protecting a service sets its list first, then names every instance that
// is not as a publisher with credentials makes it (open to anyone, granting
// a stranger or an address more than READ, persistent, with children), or
// locks or removes them; one whose own list keeps the operator out stays
// named. A client adding open instances meanwhile leaves none open. A
// protected root keeps strangers from adding services, deleting an empty
// protected one or taking the root.
TEST_F(AccessTest, UnsafeInstancesAreNamedOrRemovedAndAProtectedRootKeepsServicesFromStrangers) {
    const std::shared_ptr<ZooKeeperConnection> mallory = Session("mallory:pw-m");
    const String bytes = EncodeInstanceData(MakeRecord(1), false);
    const auto plant = [&](const ZooKeeperConnection& conn, const std::vector<AclEntry>& acl, int flags) {
        const ServiceId id = boost::uuids::random_generator()();
        EXPECT_EQ(conn.Create(InstancePath("legacy", id), bytes, acl, flags), ZOK);
        return boost::uuids::to_string(id);
    };
    ServiceRegistration open(anonymous, "legacy", MakeRecord(1));
    const String own = plant(*mallory, {{"world", "anyone", ZOO_PERM_READ | ZOO_PERM_CREATE}, {"auth", "", ZOO_PERM_ALL}}, 0);
    const String byAddress = plant(*anonymous, {{"world", "anyone", ZOO_PERM_READ}, {"ip", "127.0.0.1", ZOO_PERM_ALL}},
                                   ZOO_EPHEMERAL);
    const String pinned = plant(*mallory, {{"world", "anyone", ZOO_PERM_READ}, {"auth", "", ZOO_PERM_ALL}}, 0);
    const String readOnly = plant(*anonymous, {{"world", "anyone", ZOO_PERM_READ}}, ZOO_EPHEMERAL);
    ASSERT_EQ(mallory->Create(InstancePath("legacy", boost::uuids::string_generator()(pinned)) + "/pin", "",
                              {{"auth", "", ZOO_PERM_ALL}}, 0), ZOK);
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop && anonymous->Create(InstancePath("legacy", boost::uuids::random_generator()()), bytes,
                                          ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL) == ZOK) {
        }
    });
    std::set<String> named;
    try {
        ProtectService(*op, "legacy", "op:secret", {DigestIdentity("alice:pw-a")});
        ADD_FAILURE() << "unsafe instances were left unnamed";
    } catch (const OpenInstances& e) {
        named.insert(e.Ids().begin(), e.Ids().end());
    }
    stop = true;
    flood.join();
    std::vector<String> children;
    ASSERT_EQ(op->GetChildren(ServicePath("legacy"), children), ZOK);
    EXPECT_EQ(named, std::set<String>(children.begin(), children.end())) << "every one of them, flood included";
    EXPECT_TRUE(named.count(own) && named.count(byAddress) && named.count(pinned) && named.count(readOnly));
    EXPECT_EQ(anonymous->Create(InstancePath("legacy", boost::uuids::random_generator()()), bytes,
                                ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL), ZNOAUTH) << "protected all the same";
    try {
        ProtectService(*op, "legacy", "op:secret", {DigestIdentity("alice:pw-a")}, OpenInstancePolicy::kLock);
        ADD_FAILURE() << "a node the operator cannot remove went unnamed";
    } catch (const OpenInstances& e) {
        EXPECT_EQ(e.Ids(), std::vector<String>{pinned});
    }
    for (const ZooKeeperConnection* writer : {anonymous.get(), mallory.get()}) {
        EXPECT_EQ(writer->Set(open.Path(), bytes, -1, nullptr), ZNOAUTH);
        EXPECT_EQ(writer->Set(InstancePath("legacy", boost::uuids::string_generator()(byAddress)), bytes, -1, nullptr), ZNOAUTH);
    }
    EXPECT_EQ(op->Exists(InstancePath("legacy", boost::uuids::string_generator()(own)), nullptr), ZNONODE);

    // A service seized before the root is protected is named; the root is
    // protected all the same, and its marker keeps it from being emptied.
    ASSERT_EQ(mallory->Create(ServicePath("seized"), String(), {{"world", "anyone", ZOO_PERM_READ}, {"auth", "", ZOO_PERM_ALL}}, 0), ZOK);
    try {
        ProtectRoot(*op, "op:secret", {DigestIdentity("alice:pw-a")});
        ADD_FAILURE() << "a service out of the operator's reach went unnamed";
    } catch (const UnmanagedServices& e) {
        EXPECT_EQ(e.Services(), std::vector<String>{"seized"});
    }
    EXPECT_EQ(anonymous->Delete(String("/srv2/") + kRootMarker, -1), ZNOAUTH);
    const std::vector<AclEntry> openRoot{{"world", "anyone", ZOO_PERM_ALL}};
    EXPECT_EQ(anonymous->Create(ServicePath("billing"), String(), ZOO_OPEN_ACL_UNSAFE, 0), ZNOAUTH);
    EXPECT_EQ(anonymous->SetAcl("/srv2", openRoot), ZNOAUTH);
    ProtectService(*op, "empty", "op:secret", {DigestIdentity("bob:pw-b")});
    EXPECT_EQ(anonymous->Delete(ServicePath("empty"), -1), ZNOAUTH);
    EXPECT_EQ(b->Delete(ServicePath("empty"), -1), ZNOAUTH);
    EXPECT_EQ(a->Create(ServicePath("alices"), String(), ZOO_OPEN_ACL_UNSAFE, 0), ZOK) << "a listed creator";
    // A creator's registration makes the service open to publishers, but
    // its list is the creator's alone to change.
    {
        ServiceRegistration made(a, "alicenew", MakeRecord(1));
        EXPECT_EQ(AclOf(*a, ServicePath("alicenew")),
                  (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_READ | ZOO_PERM_CREATE | ZOO_PERM_DELETE},
                                         {"digest", DigestIdentity("alice:pw-a"), ZOO_PERM_ALL}}));
        EXPECT_EQ(mallory->SetAcl(ServicePath("alicenew"), openRoot), ZNOAUTH);
        ServiceRegistration open(anonymous, "alicenew", MakeRecord(2));
        EXPECT_EQ(anonymous->Delete(ServicePath("alicenew"), -1), ZNOAUTH);
    }
    // Re-protecting needs ADMIN on the service alone, not CREATE on /srv2.
    ASSERT_EQ(op->Create(ServicePath("handed"), String(), {{"world", "anyone", ZOO_PERM_READ},
                                                           {"digest", DigestIdentity("bob:pw-b"), ZOO_PERM_ALL}}, 0), ZOK);
    EXPECT_NO_THROW(ProtectService(*b, "handed", "bob:pw-b", {DigestIdentity("alice:pw-a")}));
    try {
        ProtectService(*b, "bobs", "bob:pw-b", {});
        ADD_FAILURE() << "bob added a service";
    } catch (const AccessDenied& e) {
        EXPECT_EQ(e.Path(), "/srv2");
        EXPECT_EQ(e.Permission(), "create");
    }
    EXPECT_EQ(op->SetAcl("/srv2", openRoot), ZOK);  // as the other tests expect it
}

// A listed publisher that deletes another's instance sees it published
// again at once; one that puts its own node under that id after an expiry
// is never adopted, and its node outlives the registration it displaced.
TEST_F(AccessTest, ARegistrationRestoresItsNodeAndNeverAdoptsAnother) {
    ProtectService(*op, "shared", "op:secret", {DigestIdentity("alice:pw-a"), DigestIdentity("bob:pw-b")});
    testing::Relay relay(s_server->ClientPort());
    const auto alicesConn = ZooKeeperConnection::Open({relay.ConnectString(), std::chrono::seconds(4), "alice:pw-a"});
    ASSERT_TRUE(alicesConn->WaitConnected(kPatience));
    auto alice = std::make_unique<ServiceRegistration>(alicesConn, "shared", MakeRecord(1));
    const auto owner = [&] {
        Stat stat{};
        return b->Exists(alice->Path(), &stat) == ZOK ? stat.ephemeralOwner : -1;
    };
    ASSERT_EQ(b->Delete(alice->Path(), -1), ZOK);
    EXPECT_TRUE(PollUntil([&] { return owner() == alicesConn->SessionId(); }, kPatience)) << "not published again";

    testing::LogCapture log(logging::JXLOG_ERROR);
    relay.Blackhole();
    testing::CloseSessionOnServer(s_server->ConnectString(), *alicesConn);
    ASSERT_TRUE(PollUntil([&] { return owner() == -1; }, kPatience)) << "the expiry did not take the node";
    ASSERT_EQ(b->Create(alice->Path(), EncodeInstanceData(MakeRecord(2), false), PublisherInstanceAcl(), 0), ZOK);
    relay.Heal();
    const String refused = "Instance not published: another session's node holds its id: " + alice->Path();
    ASSERT_TRUE(PollUntil([&] { return log.Count(refused) == 1; }, kPatience));
    EXPECT_FALSE(alice->IsPublished());
    EXPECT_THROW(alice->Update(MakeRecord(3)), ZooError);
    const String path = alice->Path();
    alice.reset();
    Stat stat{};
    EXPECT_EQ(b->Exists(path, &stat), ZOK) << "the displaced registration deleted another's node";
}

// On a fresh ensemble (a chroot of its own here), the operator's first
// protect makes a root that strangers cannot empty, delete or re-list, and
// protect-root keeps it so.
TEST_F(AccessTest, AFreshRootIsNeverOpenNorEmptied) {
    for (const char* fresh : {"/fresh-protect", "/fresh-root"}) {
        ASSERT_EQ(op->Create(fresh, String(), ZOO_OPEN_ACL_UNSAFE, 0), ZOK);
        const auto opHere = Session("op:secret", fresh), stranger = Session("", fresh);
        if (String(fresh) == "/fresh-protect") {
            ProtectService(*opHere, "payments", "op:secret", {DigestIdentity("alice:pw-a")});
            EXPECT_EQ(AclOf(*opHere, "/srv2"),
                      (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_READ | ZOO_PERM_CREATE},
                                             {"digest", DigestIdentity("op:secret"), ZOO_PERM_ALL}}));
        } else {
            ProtectRoot(*opHere, "op:secret", {});
            EXPECT_EQ(stranger->Delete("/srv2", -1), ZNOTEMPTY) << "the marker keeps it";
        }
        EXPECT_EQ(stranger->Delete(String("/srv2/") + kRootMarker, -1), ZNOAUTH);
        EXPECT_EQ(stranger->SetAcl("/srv2", {{"world", "anyone", ZOO_PERM_ALL}}), ZNOAUTH);
    }
}

// A stranger that keeps deleting the empty root and creating it open while
// protect-root runs never leaves it open behind a marker: when protect-root
// returns, the root and its marker are the operator's.
TEST_F(AccessTest, ProtectRootWinsARaceForAnEmptyRoot) {
    for (int round = 0; round < 40; ++round) {
        const String fresh = "/race-" + std::to_string(round);
        ASSERT_EQ(op->Create(fresh, String(), ZOO_OPEN_ACL_UNSAFE, 0), ZOK);
        const auto opHere = Session("op:secret", fresh), stranger = Session("", fresh);
        std::atomic<bool> stop{false};
        std::thread churn([&] {
            while (!stop) {
                stranger->Delete("/srv2", -1);
                stranger->Create("/srv2", String(), ZOO_OPEN_ACL_UNSAFE, 0);
            }
        });
        bool protectedRoot = true;
        try {
            ProtectRoot(*opHere, "op:secret", {});
        } catch (const std::runtime_error&) {
            protectedRoot = false;  // gave up, saying so: allowed, never silently open
        }
        stop = true;
        churn.join();
        if (!protectedRoot) continue;
        EXPECT_EQ(AclOf(*opHere, "/srv2"), (std::vector<AclEntry>{{"world", "anyone", ZOO_PERM_READ},
                                                                 {"digest", DigestIdentity("op:secret"), ZOO_PERM_ALL}}))
            << round;
        EXPECT_EQ(stranger->Delete(String("/srv2/") + kRootMarker, -1), ZNOAUTH) << round;
    }
}

// A persistent node planted among the instances is left out by a reader
// told to leave such nodes out, and followed by any other.
TEST_F(AccessTest, APlantedPersistentInstanceCanBeLeftOut) {
    ServiceRegistration real(a, "planted", MakeRecord(1));
    ASSERT_EQ(b->Create(InstancePath("planted", boost::uuids::random_generator()()), EncodeInstanceData(MakeRecord(2), false),
                        ZOO_OPEN_ACL_UNSAFE, 0), ZOK);
    const auto follow = [&](bool ephemeralOnly) {
        auto cache = std::make_shared<ServiceCache>(anonymous, "planted", [](int rc) { ADD_FAILURE() << zerror(rc); });
        cache->Watcher().IgnorePersistentInstances(ephemeralOnly);
        cache->Start();
        EXPECT_TRUE(cache->WaitSynced(kPatience));
        std::set<ServiceId> ids;
        for (const InstancePtr& instance : cache->Snapshot()) ids.insert(instance->Id());
        return ids;
    };
    EXPECT_EQ(follow(true), std::set<ServiceId>{real.Id()});
    EXPECT_EQ(follow(false).size(), 2u);
}

// A registration whose node another client keeps deleting and creating
// under its id tries again, on the same healthy connection, for as long as
// it lives, and publishes once the churn stops.
TEST_F(AccessTest, ARegistrationOutlastsChurnOnItsNode) {
    ServiceRegistration churned(a, "churned", MakeRecord(1));
    const String bytes = EncodeInstanceData(MakeRecord(2), false);
    testing::LogCapture log(logging::JXLOG_ERROR);
    const auto gaveUp = [&] {
        const auto records = log.Records();
        return std::any_of(records.begin(), records.end(), [](const auto& record) {
            return record.message.find("Instance not published again") != std::string::npos;
        });
    };
    for (int i = 0; i < 5000 && !gaveUp(); ++i) {
        anonymous->Delete(churned.Path(), -1);
        anonymous->Create(churned.Path(), bytes, ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL);
    }
    anonymous->Delete(churned.Path(), -1);
    EXPECT_TRUE(gaveUp()) << "the churn never outran the registration's own attempts";
    EXPECT_TRUE(PollUntil([&] {
        Stat stat{};
        return churned.IsPublished() && b->Exists(churned.Path(), &stat) == ZOK && stat.ephemeralOwner == a->SessionId();
    }, kPatience));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
