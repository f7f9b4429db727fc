// The service watcher's and the registration's answers to every result code
// and session event, over the scripted connection. Each decision table of
// the watcher is a table here, one row per case.

#include "ferrow/service_watcher.h"

#include <cstdio>
#include <functional>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/instance_data.h"
#include "ferrow/service_registration.h"
#include "tests/support/fake_connection.h"
#include "tests/support/support.h"
#include "tests/support/recorder.h"
#include "watching/service_watcher_impl.h"

namespace jx {
namespace ferrow {
namespace {

using testing::FakeConnection;
using Op = FakeConnection::Op;
using Kind = testing::Recorder::Kind;
using L = logging::LogLevel;

const String kService = "/srv2/svc";

ServiceId Id(int n) {
    char text[37];
    std::snprintf(text, sizeof text, "%08x-0000-4000-8000-000000000000", n);
    return boost::lexical_cast<ServiceId>(text);
}
String Name(int n) { return boost::uuids::to_string(Id(n)); }
String PathOf(int n) { return kService + "/" + Name(n); }

// The core of one watcher of "svc" over a scripted connection, not started,
// recording its reports, handler codes and log records. The core alone:
// the public watcher's own requests and its handling of a missing service
// node would blur the core's tables.
struct Harness {
    Harness()
        : conn(std::make_shared<FakeConnection>()),
          recorder(std::make_shared<testing::Recorder>()),
          owner(conn, "svc", {}),
          core(std::make_shared<ServiceWatcherImpl>(owner, conn, "svc", recorder->ErrorHandler())),
          watcher(*core) {
        core->RegisterShared(recorder);
    }
    size_t Requests() const { return conn->Requests().size(); }
    // The index of the latest request for instance `n` (0: the service).
    size_t Last(int n) const {
        const auto requests = conn->Requests();
        for (size_t i = requests.size(); i-- > 0;) {
            if (requests[i].path == (n == 0 ? kService : PathOf(n))) return i;
        }
        ADD_FAILURE() << "no request for instance " << n;
        return 0;
    }
    void Session(int state) { conn->SessionEvent(state); }
    void List(int rc, const std::vector<String>& children) { conn->FireChildren(Last(0), rc, children); }
    void Read(int n, int rc, const String& data = String()) { conn->FireData(Last(n), rc, data); }
    void Watch(int n, int type) { conn->FireWatch(Last(n), type); }
    std::vector<Kind> Kinds() const {
        std::vector<Kind> kinds;
        for (const auto& event : recorder->Snapshot().events) kinds.push_back(event.kind);
        return kinds;
    }
    std::vector<int> Handled() const { return recorder->Snapshot().errors; }

    std::shared_ptr<FakeConnection> conn;
    std::shared_ptr<testing::Recorder> recorder;
    ServiceWatcher owner;  // named in the reports; never started
    std::shared_ptr<ServiceWatcherImpl> core;
    ServiceWatcherImpl& watcher;
    testing::LogCapture logs;
};

TEST(ServiceWatcherTest, RefusedRequestGoesToTheHandlerBelowApiErrorAndIsRetriedOnReconnectionOtherwise) {
    struct Row {
        std::function<void(Harness&, int)> refuse;
        int apiRc;
        String error, unexpected, retry;  // unexpected empty: logs nothing else
        size_t issued;                    // requests made before the reconnection
        bool apiRetried;
    };
    const Row rows[] = {
        {[](Harness& h, int rc) { h.conn->Fail(Op::Create, rc), h.watcher.Start(); }, ZNONODE,
         "Error in StartImpl " + kService, "", "Retrying startup " + kService, 0, true},
        {[](Harness& h, int rc) { h.conn->Fail(Op::Issue, rc), h.watcher.Start(); }, ZNONODE,
         "Error watching service " + kService, "WatchService; unexpected result: " + kService,
         "Retrying service watch " + kService, 1, false},
        {[](Harness& h, int rc) { h.watcher.Start(), h.conn->Fail(Op::Issue, rc), h.List(ZOK, {Name(1)}); },
         ZSESSIONEXPIRED, "Error watching instance " + PathOf(1), "WatchInstance; unexpected result: " + PathOf(1),
         "Retrying instance watch: " + PathOf(1), 2, false},
    };
    for (const Row& row : rows) {
        for (const int rc : {row.apiRc, int{ZAPIERROR}, int{ZCONNECTIONLOSS}}) {
            SCOPED_TRACE(row.error + " " + std::to_string(rc));
            Harness h;
            row.refuse(h, rc);
            const bool api = rc < ZAPIERROR;
            EXPECT_EQ(h.logs.Count(row.error + ": " + zerror(rc), L::JXLOG_ERROR), api ? 1u : 0u);
            if (!row.unexpected.empty()) {
                EXPECT_EQ(h.logs.Count(row.unexpected + " result: " + zerror(rc), L::JXLOG_INFO), api ? 0u : 1u);
            }
            EXPECT_EQ(h.Handled(), api ? std::vector<int>{rc} : std::vector<int>{});
            EXPECT_EQ(h.Requests(), row.issued);
            const bool retried = !api || row.apiRetried;
            h.Session(ZOO_CONNECTED_STATE);
            EXPECT_EQ(h.logs.Count(row.retry, L::JXLOG_DEBUG), retried ? 1u : 0u);
            EXPECT_EQ(h.Requests(), row.issued + (retried ? 1u : 0u));
        }
    }
}

TEST(ServiceWatcherTest, ReadResultsFollowTheDecisionTable) {
    struct Row {
        bool instance;  // the instance's data read, else the service's children read
        int rc;
        L level;
        String text;  // empty: logs nothing
        bool handled, retried;
    };
    const Row rows[] = {
        {false, ZNONODE, L::JXLOG_CRITICAL, "Service node " + kService + " does not exist: " + zerror(ZNONODE), true, false},
        {false, ZCLOSING, L::JXLOG_DEBUG, "", false, false},
        {false, ZNODEEXISTS, L::JXLOG_CRITICAL, "Error reading children of service: " + String(zerror(ZNODEEXISTS)), true, false},
        {false, ZAPIERROR, L::JXLOG_INFO, "ServiceResultCallback; unexpected result: " + kService + " result: -100", false, true},
        {true, ZCLOSING, L::JXLOG_DEBUG, "", false, false},
        {true, ZNOAUTH, L::JXLOG_ERROR, "Error watching instance " + PathOf(1) + ": " + zerror(ZNOAUTH), true, false},
        {true, ZAPIERROR, L::JXLOG_INFO, "InstanceResultCallback; unexpected result: " + PathOf(1) + " result: -100", false, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.instance) + " " + std::to_string(row.rc));
        Harness h;
        h.watcher.Start();
        if (row.instance) h.List(ZOK, {Name(1)});
        const size_t issued = h.Requests(), before = h.logs.Records().size();
        if (row.instance) h.Read(1, row.rc);
        else h.List(row.rc, {Name(1)});
        EXPECT_EQ(h.logs.Records().size() - before, row.text.empty() ? 0u : 1u);
        EXPECT_EQ(h.logs.Count(row.text, row.level), row.text.empty() ? 0u : 1u);
        EXPECT_EQ(h.Handled(), row.handled ? std::vector<int>{row.rc} : std::vector<int>{});
        EXPECT_TRUE(h.Kinds().empty());
        h.Session(ZOO_CONNECTED_STATE);
        EXPECT_EQ(h.Requests(), issued + (row.retried ? 1u : 0u));
    }
}

TEST(ServiceWatcherTest, ReportsFollowTheInstanceNodesEvents) {
    Harness h;
    h.watcher.Start();
    h.List(ZOK, {Name(1), Name(2), "lock-0001", Name(3) + "x"});
    ASSERT_EQ(h.Requests(), 3u) << "one read per instance; foreign children are skipped";
    h.Read(1, ZOK, EncodeInstanceData(testing::MakeRecord(1), true));
    h.Watch(1, ZOO_CHANGED_EVENT);
    EXPECT_EQ(h.Kinds().size(), 1u) << "the change event itself reports nothing";
    h.Read(1, ZOK, EncodeInstanceData(testing::MakeRecord(2), false));
    h.Read(2, ZNONODE);  // never known: nothing to report, the watch stays
    h.Watch(2, ZOO_DELETED_EVENT);  // reported although never read
    h.Watch(2, ZOO_DELETED_EVENT);  // that watch was cancelled
    h.Watch(0, ZOO_DELETED_EVENT);  // other events of the service watch are dropped
    EXPECT_EQ(h.Requests(), 4u);
    h.Watch(0, ZOO_CHILD_EVENT);
    h.List(ZOK, {Name(1), Name(4)});
    EXPECT_EQ(h.conn->Requests().back().path, PathOf(4)) << "only unknown instances are read";
    h.Read(1, ZNONODE);
    EXPECT_EQ(h.Kinds(), (std::vector<Kind>{Kind::Added, Kind::Modified, Kind::Removed, Kind::Removed}));
    EXPECT_TRUE(testing::SameRecord(h.recorder->Snapshot().events[1].record, testing::MakeRecord(2)));
    EXPECT_TRUE(h.watcher.ListInstances().empty()) << "an instance is known once read";

}

TEST(ServiceWatcherTest, StartWhileDisconnectedWaitsAndAnInstanceRefusedAgainIsRetriedAgain) {
    Harness h;
    h.conn->SetState(ZOO_CONNECTING_STATE);
    h.watcher.Start();
    EXPECT_EQ(h.Requests(), 0u) << "a start while disconnected waits for the connection";
    h.conn->SetState(ZOO_CONNECTED_STATE);
    h.Session(ZOO_CONNECTED_STATE);
    h.conn->Fail(Op::Issue, ZOK), h.conn->Fail(Op::Issue, ZCONNECTIONLOSS);
    h.List(ZOK, {Name(1), Name(2)});
    for (int reconnection = 1; reconnection <= 2; ++reconnection) {
        h.conn->Fail(Op::Issue, ZCONNECTIONLOSS);
        h.Session(ZOO_CONNECTED_STATE);
        EXPECT_EQ(h.logs.Count("Retrying instance watch: " + PathOf(2)), static_cast<size_t>(reconnection));
    }
    EXPECT_EQ(h.logs.Count("Retrying instance watch: " + PathOf(1)), 0u);
}

TEST(ServiceWatcherTest, ExpiredSessionReportsEveryWatchedInstanceRemovedAndRereadsAll) {
    Harness h;
    h.watcher.Start();
    h.conn->Fail(Op::Issue, ZOK), h.conn->Fail(Op::Issue, ZOK), h.conn->Fail(Op::Issue, ZCONNECTIONLOSS);
    h.List(ZOK, {Name(1), Name(2), Name(3)});
    h.Read(1, ZOK, EncodeInstanceData(testing::MakeRecord(1), false));
    h.Session(ZOO_EXPIRED_SESSION_STATE);
    EXPECT_EQ(h.logs.Count("Existing instance in retry container: " + PathOf(3), L::JXLOG_INFO), 1u);
    h.Session(ZOO_EXPIRED_SESSION_STATE);
    // Instance 2 was watched but never read: the removal is unconditional.
    EXPECT_EQ(h.Kinds(), (std::vector<Kind>{Kind::Added, Kind::Removed, Kind::Removed}));
    EXPECT_TRUE(h.watcher.ListInstances().empty());
    const size_t issued = h.Requests();
    h.Watch(1, ZOO_CHANGED_EVENT);
    EXPECT_EQ(h.Requests(), issued) << "instance watches were cancelled";
    h.Session(ZOO_CONNECTED_STATE);
    h.List(ZOK, {Name(1), Name(2), Name(3)});
    EXPECT_EQ(h.Requests(), issued + 5u) << "instance 3's retry, the service, then every instance afresh";
}

// The session's first connected event can reach a registration after it
// joined the connection's observers and before its constructor created the
// node. That event is no new session: publishing in answer would make the
// constructor's own create fail on a node that is already there.
TEST(RegistrationTest, AConnectedEventBeforeTheFirstCreatePublishesNothing) {
    const auto conn = std::make_shared<FakeConnection>();
    conn->AfterRegisterWeak([&conn] { conn->SessionEvent(ZOO_CONNECTED_STATE); });
    EXPECT_NO_THROW(ServiceRegistration(conn, "svc", testing::MakeRecord(1)));
}

// A create after an expiry that times out may still have made the node: the
// registration creates it again on the next connection, finding it there,
// and deletes it when destroyed, as it would a node it knows it made.
TEST(RegistrationTest, ANodeWhoseCreationWentUnansweredIsStillWithdrawn) {
    const auto conn = std::make_shared<FakeConnection>();
    String path;
    {
        ServiceRegistration registration(conn, "svc", testing::MakeRecord(1));
        path = registration.Path();
        conn->SessionEvent(ZOO_EXPIRED_SESSION_STATE);
        conn->Fail(Op::Create, ZOPERATIONTIMEOUT);
        conn->SessionEvent(ZOO_CONNECTED_STATE);
    }
    EXPECT_EQ(conn->Deleted(), std::vector<String>{path});
}

// A re-creation, after an expiry or after someone deleted the node while the
// session lives, whose request goes unanswered while the connection stays up
// is followed by no connected event: the registration reads the node and is
// published once it is this session's, creating it again when it is absent;
// when that read goes unanswered too, the answer of the node's watch settles.
TEST(RegistrationTest, ARecreationUnansweredWhileConnectedIsSettledByReadingTheNode) {
    struct Row {
        const char* what;
        std::vector<std::pair<Op, int>> answers;  // a re-creation checks the service node, creates, reads
        bool made;                                // the node is there all the same
        bool byWatch;                             // settled by the watch's read only
    };
    const Row rows[] = {
        {"create unanswered, node made", {{Op::Create, ZOPERATIONTIMEOUT}}, true, false},
        {"create unanswered, node absent", {{Op::Create, ZOPERATIONTIMEOUT}}, false, false},
        {"service node check unanswered", {{Op::Exists, ZOPERATIONTIMEOUT}}, false, false},
        {"create and read unanswered",
         {{Op::Exists, ZOK}, {Op::Create, ZOPERATIONTIMEOUT}, {Op::Exists, ZOPERATIONTIMEOUT}}, true, true},
        {"node found, read unanswered", {{Op::Exists, ZOK}, {Op::Create, ZNODEEXISTS}, {Op::Exists, ZCONNECTIONLOSS}},
         true, true},
    };
    for (const bool expiry : {true, false}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(String(row.what) + (expiry ? " after an expiry" : " after a deletion"));
            const auto conn = std::make_shared<FakeConnection>();
            ServiceRegistration registration(conn, "svc", testing::MakeRecord(1));
            const auto watch = [&] {  // the latest read of the node
                size_t last = 0;
                for (size_t i = 0; i < conn->RequestCount(); ++i) {
                    if (conn->At(i).path == registration.Path()) last = i;
                }
                return last;
            };
            conn->SetExists(registration.Path(), row.made);
            if (!expiry) conn->Fail(Op::Exists, ZNONODE);  // the deletion event's read
            for (const auto& [op, rc] : row.answers) conn->Fail(op, rc);
            const size_t before = conn->RequestCount();
            if (expiry) {
                conn->SessionEvent(ZOO_EXPIRED_SESSION_STATE);
                conn->SessionEvent(ZOO_CONNECTED_STATE);
            } else {
                conn->FireWatch(watch(), ZOO_DELETED_EVENT);
            }
            if (row.byWatch) {
                EXPECT_FALSE(registration.IsPublished());
                EXPECT_GE(watch(), before) << "the unread node is watched afresh";
                conn->FireData(watch(), ZOK, String());
            }
            EXPECT_TRUE(registration.IsPublished());
        }
    }
}

// The read that watches a new node can be lost with the connection right
// after the create: no watch is set then, and the next connected event
// (the client reconnects within the session) reads and watches the node
// again, so that its deletion meanwhile or later is still repaired.
TEST(RegistrationTest, AWatchLostWithTheConnectionIsSetAgainOnceConnected) {
    const auto conn = std::make_shared<FakeConnection>();
    ServiceRegistration registration(conn, "svc", testing::MakeRecord(1));
    ASSERT_EQ(conn->RequestCount(), 1u);  // the node's watch
    conn->FireData(0, ZCONNECTIONLOSS, String());
    conn->SetExists(registration.Path(), false);  // deleted while cut off
    conn->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_TRUE(registration.IsPublished()) << "created again";
    ASSERT_EQ(conn->RequestCount(), 2u) << "and watched again";
    conn->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(conn->RequestCount(), 2u) << "once";
}

// Watchers come and go on a long-lived connection: each leaves the
// connection's session observers as it found them, with or without
// tracking whether its view is complete.
TEST(ServiceWatcherTest, DestroyedWatchersLeaveNoSessionObserverBehind) {
    const auto conn = std::make_shared<FakeConnection>();
    for (int i = 0; i < 3; ++i) {
        ServiceWatcher watcher(conn, "svc", [](int) {});
        watcher.Start();
        if (i % 2 == 1) watcher.IsSynced();
    }
    EXPECT_EQ(conn->ObserverSlots(), 0u);
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
