#include "ferrow/service_watcher.h"

#include <cstdio>
#include <functional>
#include <mutex>
#include <set>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/error.h"
#include "ferrow/zlib.h"
#include "tests/support/fake_connection.h"
#include "tests/support/log_capture.h"

namespace jx {
namespace ferrow {
namespace {

using jx::logging::LogLevel;
using jx::testing::FakeConnection;
using jx::testing::LogCapture;
using messaging::ferrow::ZNodeData;
using Kind = FakeConnection::Kind;

const String kService = "/srv2/svc";

ServiceId Id(int n) {
    char text[37];
    std::snprintf(text, sizeof text, "%08x-0000-4000-8000-000000000000", n);
    return boost::lexical_cast<ServiceId>(text);
}

String Name(const ServiceId& id) { return boost::uuids::to_string(id); }
String PathOf(const ServiceId& id) { return kService + "/" + Name(id); }

String Envelope(const String& host, int compression = ZNodeData::COMP_NONE) {
    ServiceInstanceData record;
    record.set_host(host);
    ZNodeData envelope;
    envelope.set_data(compression == ZNodeData::COMP_ZLIB ? zlib::Compress(record.SerializeAsString())
                                                          : record.SerializeAsString());
    envelope.set_data_compression(static_cast<ZNodeData::Compression>(compression));
    return envelope.SerializeAsString();
}

struct Event {
    std::string kind;
    ServiceId id;
    std::string host;
    const ServiceWatcher* watcher;
    bool operator==(const Event& o) const { return kind == o.kind && id == o.id && host == o.host; }
};

class RecordingObserver : public ServiceWatcherObserver {
public:
    void OnInstanceAdded(ServiceWatcher& w, const ServiceId& id, const ServiceInstanceData& d) override {
        Add({"added", id, d.host(), &w});
    }
    void OnInstanceRemoved(ServiceWatcher& w, const ServiceId& id) override { Add({"removed", id, "", &w}); }
    void OnInstanceModified(ServiceWatcher& w, const ServiceId& id, const ServiceInstanceData& d) override {
        Add({"modified", id, d.host(), &w});
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_events;
    }

private:
    void Add(Event e) {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_events.push_back(std::move(e));
    }
    mutable std::mutex m_mtx;
    std::vector<Event> m_events;
};

// One watcher of "svc" over a scripted connection, with a recording observer
// and error handler.
struct Harness {
    explicit Harness(const String& name = "svc", bool withHandler = true) {
        ZkErrorHandler handler;
        if (withHandler) handler = [this](int rc) {
            std::lock_guard<std::mutex> lock(mtx);
            handled.push_back(rc);
        };
        watcher = std::make_unique<ServiceWatcher>(conn, name, handler);
        watcher->RegisterShared(observer);
    }
    std::vector<int> Handled() {
        std::lock_guard<std::mutex> lock(mtx);
        return handled;
    }
    void Deliver() { ASSERT_TRUE(conn->Drain()); }
    std::size_t Requests() const { return conn->Requests().size(); }
    // The index of the latest request for `path`.
    std::size_t Last(const String& path) const {
        const std::vector<FakeConnection::Request> requests = conn->Requests();
        for (std::size_t i = requests.size(); i-- > 0;)
            if (requests[i].path == path) return i;
        ADD_FAILURE() << "no request for " << path;
        return 0;
    }
    void Session(int state) {
        conn->SessionEvent(ZOO_SESSION_EVENT, state);
        Deliver();
    }
    // Starts connected and answers the first children read.
    void StartWith(std::vector<String> children) {
        watcher->Start();
        conn->FireChildren(0, ZOK, std::move(children));
        Deliver();
    }
    void Read(const ServiceId& id, int rc, const String& data = String()) {
        conn->FireData(Last(PathOf(id)), rc, data);
        Deliver();
    }
    void Watch(const ServiceId& id, int type) {
        conn->FireWatch(Last(PathOf(id)), type);
        Deliver();
    }

    std::shared_ptr<FakeConnection> conn = std::make_shared<FakeConnection>();
    std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
    std::mutex mtx;
    std::vector<int> handled;
    std::unique_ptr<ServiceWatcher> watcher;
};

// Records of the watcher's own source with exactly this level and text.
std::size_t Logged(const LogCapture& logs, LogLevel level, const std::string& text) {
    std::size_t n = 0;
    for (const LogCapture::Record& r : logs.WithMessage(text)) n += r.source == "ferrow.service" && r.level == level;
    return n;
}

std::size_t WatcherRecords(const LogCapture& logs) {
    std::size_t n = 0;
    for (const LogCapture::Record& r : logs.Records()) n += r.source == "ferrow.service";
    return n;
}

TEST(ServiceWatcherTest, EachStartReadsSrv2FollowedByTheNameAndRegistersForSessionEvents) {
    for (const String name : {"svc", "a/b", ""}) {
        Harness h(name);
        h.watcher->Start();
        h.watcher->Start();
        EXPECT_EQ(h.conn->ObserverSlots(), 2u);
        ASSERT_EQ(h.Requests(), 2u);
        for (const FakeConnection::Request& r : h.conn->Requests()) {
            EXPECT_EQ(r.path, "/srv2/" + name);
            EXPECT_EQ(r.kind, Kind::Children);
        }
    }
}

TEST(ServiceWatcherTest, StartOnDisconnectedSessionWaitsForConnection) {
    LogCapture logs;
    Harness h;
    h.conn->SetState(ZOO_CONNECTING_STATE);
    h.watcher->Start();
    EXPECT_EQ(h.Requests(), 0u);
    EXPECT_EQ(h.conn->Exists(kService, nullptr), ZNONODE);

    h.conn->SessionEvent(ZOO_CHILD_EVENT, ZOO_CONNECTED_STATE);
    h.Session(ZOO_CONNECTING_STATE);
    EXPECT_EQ(h.Requests(), 0u);
    EXPECT_EQ(WatcherRecords(logs), 0u);

    h.conn->SetState(ZOO_CONNECTED_STATE);
    h.Session(ZOO_CONNECTED_STATE);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Retrying startup " + kService), 1u);
    EXPECT_EQ(h.conn->Exists(kService, nullptr), ZOK);
    EXPECT_EQ(h.Requests(), 1u);
}

TEST(ServiceWatcherTest, RefusedRequestBelowApiErrorGoesToHandlerAndOthersRetryOnReconnection) {
    const String path = PathOf(Id(1));
    struct Site {
        std::function<void(Harness&, int)> refuse;
        int apiRc;
        String error, unexpected, retry;  // unexpected empty: such failures log nothing else
        std::size_t issued;               // requests made before the reconnection
        bool apiRetried;
    };
    const Site sites[] = {
        {[](Harness& h, int rc) { h.conn->FailCreate(rc); h.watcher->Start(); h.conn->FailCreate(std::nullopt); },
         ZNONODE, "Error in StartImpl " + kService, "", "Retrying startup " + kService, 0, true},
        {[](Harness& h, int rc) { h.conn->ScriptIssue(Kind::Children, rc); h.watcher->Start(); },
         ZNONODE, "Error watching service " + kService, "WatchService; unexpected result: " + kService,
         "Retrying service watch " + kService, 1, false},
        {[](Harness& h, int rc) { h.conn->ScriptIssue(Kind::Data, rc); h.StartWith({Name(Id(1))}); },
         ZSESSIONEXPIRED, "Error watching instance " + path, "WatchInstance; unexpected result: " + path,
         "Retrying instance watch: " + path, 2, false},
    };
    for (const Site& site : sites) {
        for (const int rc : {site.apiRc, int{ZAPIERROR}, int{ZCONNECTIONLOSS}}) {
            SCOPED_TRACE(site.error + " " + std::to_string(rc));
            LogCapture logs;
            Harness h;
            site.refuse(h, rc);
            const bool api = rc < ZAPIERROR;
            EXPECT_EQ(Logged(logs, logging::JXLOG_ERROR, site.error + ": " + zerror(rc)), api ? 1u : 0u);
            if (site.unexpected.empty()) {
                EXPECT_EQ(WatcherRecords(logs), api ? 1u : 0u);
            } else {
                EXPECT_EQ(Logged(logs, logging::JXLOG_INFO, site.unexpected + " result: " + zerror(rc)), api ? 0u : 1u);
            }
            EXPECT_EQ(h.Handled(), api ? std::vector<int>{rc} : std::vector<int>{});
            EXPECT_EQ(h.Requests(), site.issued);

            const bool retried = !api || site.apiRetried;
            h.Session(ZOO_CONNECTED_STATE);
            EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, site.retry), retried ? 1u : 0u);
            EXPECT_EQ(h.Requests(), site.issued + (retried ? 1u : 0u));
        }
    }
}

TEST(ServiceWatcherTest, EmptyErrorHandlerThrowsBadFunctionCallAndArmsNoRetry) {
    LogCapture logs;
    Harness h("svc", false);
    h.conn->FailExists(ZNOAUTH);
    EXPECT_THROW(h.watcher->Start(), std::bad_function_call);
    h.conn->FailExists(std::nullopt);
    h.Session(ZOO_CONNECTED_STATE);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Retrying startup " + kService), 0u);
    EXPECT_EQ(h.Requests(), 0u);
}

TEST(ServiceWatcherTest, ReadResultCodesFollowTheDecisionTable) {
    const String path = PathOf(Id(1));
    struct Case {
        bool instance;  // the instance's data read, else the service's children read
        int rc;
        LogLevel level;
        std::string text;  // empty: no record at all
        bool handled;
        bool retried;
    };
    const Case cases[] = {
        {false, ZNONODE, logging::JXLOG_CRITICAL, "Service node " + kService + " does not exist: " + zerror(ZNONODE), true, false},
        {false, ZCLOSING, logging::JXLOG_DEBUG, "", false, false},
        {false, ZNODEEXISTS, logging::JXLOG_CRITICAL, "Error reading children of service: " + String(zerror(ZNODEEXISTS)), true, false},
        {false, ZAPIERROR, logging::JXLOG_INFO, "ServiceResultCallback; unexpected result: " + kService + " result: -100", false, true},
        {false, ZCONNECTIONLOSS, logging::JXLOG_INFO, "ServiceResultCallback; unexpected result: " + kService + " result: -4", false, true},
        {true, ZCLOSING, logging::JXLOG_DEBUG, "", false, false},
        {true, ZNOAUTH, logging::JXLOG_ERROR, "Error watching instance " + path + ": " + zerror(ZNOAUTH), true, false},
        {true, ZAPIERROR, logging::JXLOG_INFO, "InstanceResultCallback; unexpected result: " + path + " result: -100", false, true},
        {true, ZCONNECTIONLOSS, logging::JXLOG_INFO, "InstanceResultCallback; unexpected result: " + path + " result: -4", false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.instance) + " " + std::to_string(c.rc));
        Harness h;
        const std::size_t issued = c.instance ? 2u : 1u;
        if (c.instance) h.StartWith({Name(Id(1))});
        else h.watcher->Start();
        LogCapture logs;
        if (c.instance) {
            h.Read(Id(1), c.rc);
        } else {
            h.conn->FireChildren(0, c.rc, {Name(Id(1))});
            h.Deliver();
        }
        EXPECT_EQ(WatcherRecords(logs), c.text.empty() ? 0u : 1u);
        if (!c.text.empty()) {
            EXPECT_EQ(Logged(logs, c.level, c.text), 1u);
        }
        EXPECT_EQ(h.Handled(), c.handled ? std::vector<int>{c.rc} : std::vector<int>{});
        EXPECT_TRUE(h.observer->Events().empty());
        h.Session(ZOO_CONNECTED_STATE);
        EXPECT_EQ(h.Requests(), issued + (c.retried ? 1u : 0u));
    }
}

TEST(ServiceWatcherTest, ChildEventRearmsWatchAndWatchesOnlyUnknownInstances) {
    LogCapture logs;
    Harness h;
    h.StartWith({Name(Id(1))});
    h.Read(Id(1), ZOK, Envelope("h1"));
    ASSERT_EQ(h.Requests(), 2u);

    h.conn->FireWatch(0, ZOO_DELETED_EVENT);
    h.Deliver();
    EXPECT_EQ(h.Requests(), 2u) << "other events on the service watch are dropped";

    h.conn->FireWatch(0, ZOO_CHILD_EVENT);
    h.Deliver();
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Instance list updated: " + kService), 1u);
    ASSERT_EQ(h.Requests(), 3u);
    h.conn->FireChildren(2, ZOK, {Name(Id(1)), Name(Id(2))});
    h.Deliver();
    ASSERT_EQ(h.Requests(), 4u);
    EXPECT_EQ(h.conn->Requests()[3].path, PathOf(Id(2)));
}

TEST(ServiceWatcherTest, ForeignChildNamesAreLoggedAndSkipped) {
    LogCapture logs;
    Harness h;
    const std::vector<String> foreign = {"lock-0001", " " + Name(Id(1)), Name(Id(1)) + "x"};
    std::vector<String> children = foreign;
    children.push_back(Name(Id(2)));
    h.StartWith(children);
    for (const String& child : foreign) {
        EXPECT_EQ(Logged(logs, logging::JXLOG_WARNING,
                         "Invalid child name at path '" + kService + "'. Could not convert '" + child + "' to ServiceId."),
                  1u);
    }
    ASSERT_EQ(h.Requests(), 2u);
    EXPECT_EQ(h.conn->Requests()[1].path, PathOf(Id(2)));
    EXPECT_TRUE(h.Handled().empty());
}

TEST(ServiceWatcherTest, FirstReadReportsAddedAndChangedDataReportsModified) {
    LogCapture logs;
    Harness h;
    h.StartWith({Name(Id(1))});
    h.Read(Id(1), ZOK, Envelope("h1", ZNodeData::COMP_ZLIB));
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Instance added: " + PathOf(Id(1))), 1u);
    EXPECT_EQ(h.watcher->ListInstances(), std::vector<ServiceId>{Id(1)});

    h.Watch(Id(1), ZOO_CHANGED_EVENT);
    EXPECT_EQ(h.observer->Events().size(), 1u) << "the event itself notifies nothing";
    h.Read(Id(1), ZOK, Envelope("h2"));
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Instance modified: " + PathOf(Id(1))), 2u);
    const std::vector<Event> events = h.observer->Events();
    ASSERT_EQ(events, (std::vector<Event>{{"added", Id(1), "h1", nullptr}, {"modified", Id(1), "h2", nullptr}}));
    EXPECT_EQ(events[0].watcher, h.watcher.get());
}

TEST(ServiceWatcherTest, DeletionEventReportsRemovedEvenForAnInstanceNeverRead) {
    LogCapture logs;
    Harness h;
    h.StartWith({Name(Id(1))});
    h.Watch(Id(1), ZOO_DELETED_EVENT);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Instance removed: " + PathOf(Id(1))), 1u);
    EXPECT_EQ(h.observer->Events(), (std::vector<Event>{{"removed", Id(1), "", nullptr}}));
    h.Watch(Id(1), ZOO_DELETED_EVENT);
    EXPECT_EQ(h.observer->Events().size(), 1u) << "the watch was cancelled";
}

TEST(ServiceWatcherTest, NoNodeResultRemovesOnlyAKnownInstance) {
    LogCapture logs;
    Harness h;
    h.StartWith({Name(Id(1)), Name(Id(2))});
    h.Read(Id(1), ZOK, Envelope("h1"));
    logs.Clear();

    h.Read(Id(2), ZNONODE);
    EXPECT_EQ(WatcherRecords(logs), 0u);
    EXPECT_EQ(h.observer->Events().size(), 1u);
    h.Watch(Id(2), ZOO_CHANGED_EVENT);
    EXPECT_EQ(h.Requests(), 4u) << "the unknown instance keeps its watch";

    h.Read(Id(1), ZNONODE);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Instance removed: " + PathOf(Id(1))), 1u);
    EXPECT_EQ(h.observer->Events().back(), (Event{"removed", Id(1), "", nullptr}));
    EXPECT_TRUE(h.watcher->ListInstances().empty());
    h.Watch(Id(1), ZOO_CHANGED_EVENT);
    EXPECT_EQ(h.Requests(), 4u) << "the removed instance's watch was cancelled";
}

TEST(ServiceWatcherTest, CorruptCompressedRecordIsLoggedAndInstanceStaysKnown) {
    LogCapture logs;
    Harness h;
    h.StartWith({Name(Id(1))});
    ZNodeData envelope;
    envelope.set_data("not zlib");
    envelope.set_data_compression(ZNodeData::COMP_ZLIB);
    h.Read(Id(1), ZOK, envelope.SerializeAsString());
    EXPECT_EQ(Logged(logs, logging::JXLOG_ERROR,
                     "ZLibError ServiceWatcherImpl::InstanceResultCallback OnInstanceAdded: " + PathOf(Id(1)) +
                         " exception=incorrect header check"),
              1u);
    EXPECT_TRUE(h.observer->Events().empty());
    EXPECT_EQ(h.watcher->ListInstances(), std::vector<ServiceId>{Id(1)});

    h.Read(Id(1), ZOK, envelope.SerializeAsString());
    EXPECT_EQ(Logged(logs, logging::JXLOG_ERROR,
                     "ZLibError ServiceWatcherImpl::InstanceResultCallback OnInstanceModified: " + PathOf(Id(1)) +
                         " exception=incorrect header check"),
              1u);
    h.Read(Id(1), ZOK, Envelope("h1"));
    EXPECT_EQ(h.observer->Events(), (std::vector<Event>{{"modified", Id(1), "h1", nullptr}}));
}

TEST(ServiceWatcherTest, UnknownCompressionThrowsOutOfResultCallbackAfterInsert) {
    Harness h;
    h.StartWith({Name(Id(1))});
    h.Read(Id(1), ZOK, Envelope("h1", 2));
    EXPECT_EQ(h.conn->Errors(), std::vector<std::string>{"Invalid compression option"});
    EXPECT_TRUE(h.observer->Events().empty());
    EXPECT_EQ(h.watcher->ListInstances(), std::vector<ServiceId>{Id(1)});
}

TEST(ServiceWatcherTest, ReconnectionRetriesStartupThenInstancesThenService) {
    LogCapture logs;
    Harness h;
    h.conn->ScriptIssue(Kind::Data, ZCONNECTIONLOSS);
    h.StartWith({Name(Id(1))});
    h.conn->ScriptIssue(Kind::Children, ZOPERATIONTIMEOUT);
    h.conn->FireWatch(0, ZOO_CHILD_EVENT);
    h.Deliver();
    h.conn->FailExists(ZCONNECTIONLOSS);
    h.watcher->Start();
    h.conn->FailExists(std::nullopt);
    ASSERT_EQ(h.Requests(), 3u);
    logs.Clear();

    h.Session(ZOO_CONNECTED_STATE);
    std::vector<std::string> retries;
    for (const LogCapture::Record& r : logs.Records())
        if (r.message.compare(0, 9, "Retrying ") == 0) retries.push_back(r.message);
    EXPECT_EQ(retries, (std::vector<std::string>{"Retrying startup " + kService, "Retrying instance watch: " + PathOf(Id(1)),
                                                 "Retrying service watch " + kService}));
    const std::vector<FakeConnection::Request> requests = h.conn->Requests();
    ASSERT_EQ(requests.size(), 6u);
    EXPECT_EQ(requests[3].path, kService);
    EXPECT_EQ(requests[4].path, PathOf(Id(1)));
    EXPECT_EQ(requests[5].path, kService);

    logs.Clear();
    h.Session(ZOO_CONNECTED_STATE);
    EXPECT_EQ(WatcherRecords(logs), 0u) << "nothing left to retry";
}

TEST(ServiceWatcherTest, InstanceFailingAgainOnRetryIsQueuedOnce) {
    LogCapture logs;
    Harness h;
    h.conn->ScriptIssue(Kind::Data, ZCONNECTIONLOSS);
    h.conn->ScriptIssue(Kind::Data, ZCONNECTIONLOSS);
    h.StartWith({Name(Id(1)), Name(Id(2))});
    h.conn->ScriptIssue(Kind::Data, ZOK);
    h.conn->ScriptIssue(Kind::Data, ZCONNECTIONLOSS);
    h.Session(ZOO_CONNECTED_STATE);
    ASSERT_EQ(h.Requests(), 5u);
    logs.Clear();

    h.Session(ZOO_CONNECTED_STATE);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Retrying instance watch: " + PathOf(Id(2))), 1u);
    EXPECT_EQ(WatcherRecords(logs), 2u) << "the retry and its 'Watching instance'";
    ASSERT_EQ(h.Requests(), 6u);
    EXPECT_EQ(h.conn->Requests()[5].path, PathOf(Id(2)));
}

TEST(ServiceWatcherTest, ExpiredSessionReportsEveryWatchedInstanceRemoved) {
    LogCapture logs;
    Harness h;
    h.conn->ScriptIssue(Kind::Data, ZOK);
    h.conn->ScriptIssue(Kind::Data, ZOK);
    h.conn->ScriptIssue(Kind::Data, ZOK);
    h.conn->ScriptIssue(Kind::Data, ZCONNECTIONLOSS);
    h.StartWith({Name(Id(1)), Name(Id(2)), Name(Id(3)), Name(Id(4))});
    for (int n : {1, 2, 3}) h.Read(Id(n), ZOK, Envelope("h"));
    logs.Clear();

    h.Session(ZOO_EXPIRED_SESSION_STATE);
    std::set<ServiceId> removed;
    for (const Event& e : h.observer->Events())
        if (e.kind == "removed") removed.insert(e.id);
    EXPECT_EQ(removed, (std::set<ServiceId>{Id(1), Id(2), Id(3)}));
    EXPECT_EQ(h.observer->Events().size(), 6u);
    EXPECT_TRUE(h.watcher->ListInstances().empty());
    EXPECT_EQ(Logged(logs, logging::JXLOG_INFO, "OnSessionEvent session expired, path=" + kService), 1u);
    for (int n : {1, 2, 3})
        EXPECT_EQ(Logged(logs, logging::JXLOG_INFO, "Expired session calling back for removed instance=" + Name(Id(n))), 1u);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Clearing watch handles " + kService), 1u);
    EXPECT_EQ(Logged(logs, logging::JXLOG_INFO, "Existing instance in retry container: " + PathOf(Id(4))), 1u);

    h.Watch(Id(1), ZOO_CHANGED_EVENT);
    EXPECT_EQ(h.Requests(), 5u) << "instance watches were cancelled";
    h.Session(ZOO_EXPIRED_SESSION_STATE);
    EXPECT_EQ(h.observer->Events().size(), 6u) << "a second expiry has nothing to report";

    logs.Clear();
    h.Session(ZOO_CONNECTED_STATE);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Retrying instance watch: " + PathOf(Id(4))), 1u);
    EXPECT_EQ(Logged(logs, logging::JXLOG_DEBUG, "Retrying service watch " + kService), 1u);
    ASSERT_EQ(h.Requests(), 7u);
    h.conn->FireChildren(6, ZOK, {Name(Id(1)), Name(Id(2)), Name(Id(3))});
    h.Deliver();
    EXPECT_EQ(h.Requests(), 10u) << "every instance is read afresh";
}

TEST(ServiceWatcherTest, CallbackArrivingAfterWatcherIsGoneDoesNothing) {
    LogCapture logs;
    Harness h;
    h.watcher->Start();
    h.watcher.reset();
    logs.Clear();
    h.conn->FireChildren(0, ZOK, {Name(Id(1))});
    h.Deliver();
    EXPECT_EQ(h.Requests(), 1u);
    EXPECT_EQ(WatcherRecords(logs), 0u);
    EXPECT_TRUE(h.conn->Errors().empty());
}

TEST(ServiceWatcherTest, GetInstanceDataReadsOneRecordSynchronously) {
    Harness h;
    h.conn->SetNode(PathOf(Id(1)), Envelope("h1", ZNodeData::COMP_ZLIB));
    ServiceInstanceData data;
    EXPECT_TRUE(h.watcher->GetInstanceData(Id(1), data));
    EXPECT_EQ(data.host(), "h1");
    EXPECT_EQ(h.conn->LastGetCapacity(), 1024u * 1024u);

    EXPECT_FALSE(h.watcher->GetInstanceData(Id(2), data));
    EXPECT_EQ(data.host(), "h1") << "left untouched";

    h.conn->SetNode(PathOf(Id(3)), String());
    EXPECT_TRUE(h.watcher->GetInstanceData(Id(3), data));
    EXPECT_EQ(data.host(), "");

    h.conn->FailGet(ZSESSIONEXPIRED);
    try {
        h.watcher->GetInstanceData(Id(1), data);
        FAIL() << "no exception";
    } catch (const ZooError& e) {
        EXPECT_EQ(e.Code(), ZSESSIONEXPIRED);
    }
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
