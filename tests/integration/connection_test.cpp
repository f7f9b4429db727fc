// The real connection against a real ZooKeeper server.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ferrow/error.h"
#include "ferrow/zookeeper_connection.h"
#include "tests/support/expire_session.h"
#include "tests/support/log_capture.h"
#include "tests/support/poll.h"
#include "tests/support/shared_server_test.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ZkServer;

constexpr seconds kDeadline{30};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRearmCycles = 400;
constexpr int kFailedReads = 10000;
#else
constexpr int kRearmCycles = 1500;
constexpr int kFailedReads = 50000;
#endif

// Strings appended from any thread, awaited with a deadline.
class Recorder {
public:
    // Notifies under the lock: a waiter may destroy the recorder as soon as
    // it sees the item.
    void Add(std::string item) {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_items.push_back(std::move(item));
        m_cv.notify_all();
    }

    bool WaitForCount(size_t count) {
        return WaitUntil([count](const std::vector<std::string>& items) { return items.size() >= count; });
    }

    // Waits until `holds` is true of the items recorded so far.
    template <typename Predicate>
    bool WaitUntil(Predicate holds, seconds deadline = kDeadline) {
        std::unique_lock<std::mutex> lock(m_mtx);
        return m_cv.wait_for(lock, deadline, [&] { return holds(m_items); });
    }

    std::vector<std::string> Items() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_items;
    }

private:
    mutable std::mutex m_mtx;
    std::condition_variable m_cv;
    std::vector<std::string> m_items;
};

std::string EventText(int type, int state) {
    auto typeName = [](int t) -> std::string {
        if (t == ZOO_CHANGED_EVENT) return "changed";
        if (t == ZOO_CHILD_EVENT) return "child";
        if (t == ZOO_DELETED_EVENT) return "deleted";
        if (t == ZOO_CREATED_EVENT) return "created";
        if (t == ZOO_SESSION_EVENT) return "session";
        return std::to_string(t);
    };
    auto stateName = [](int s) -> std::string {
        if (s == ZOO_CONNECTED_STATE) return "connected";
        if (s == ZOO_EXPIRED_SESSION_STATE) return "expired";
        if (s == ZOO_CONNECTING_STATE) return "connecting";
        return std::to_string(s);
    };
    return typeName(type) + "/" + stateName(state);
}

class SessionRecorder : public ConnectionObserver {
public:
    void OnSessionEvent(int type, int state, String) override { events.Add(EventText(type, state)); }
    Recorder events;
};

// Waits on the delivery thread's queue: once the result of a read issued now
// has been delivered, everything the client produced before it has been too.
void Flush(const Connection& conn) {
    auto done = std::make_shared<std::promise<int>>();
    auto issued = conn.AsyncGet("/ferrow-flush-missing", Connection::WatchFunction(),
                                [done](int rc, String, const Stat*) { done->set_value(rc); });
    ASSERT_EQ(ZOK, issued.first);
    auto future = done->get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(kDeadline));
    EXPECT_EQ(ZNONODE, future.get());
}

// Ends the session of `conn` on the server and waits until `conn` reports it.
void ExpireSession(const ZkServer& server, const ZooKeeperConnection& conn, Recorder& events) {
    testing::ExpireSession(server.ConnectString(), conn);
    auto expired = [](const std::vector<std::string>& items) {
        return std::find(items.begin(), items.end(), "session/expired") != items.end();
    };
    ASSERT_TRUE(events.WaitUntil(expired, kDeadline)) << "the session never expired";
}

class ConnectionTest : public testing::SharedServerTest {
protected:
    static std::shared_ptr<ZooKeeperConnection> Connect(const ZkServer& server, milliseconds timeout = milliseconds(10000)) {
        ConnectionOptions options;
        options.connect = server.ConnectString();
        options.sessionTimeout = timeout;
        auto conn = ZooKeeperConnection::Open(options);
        EXPECT_TRUE(conn->WaitConnected(kDeadline));
        Flush(*conn);  // the connected event is behind us
        return conn;
    }

    // A fresh node path per test.
    static String TestPath() {
        return String("/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }

};


TEST_F(ConnectionTest, DataWatchFiresOnceWithChangedEventAndAllowsSyncCalls) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "v1", ZOO_OPEN_ACL_UNSAFE, 0));

    Recorder watch;
    Recorder result;
    auto armed = conn->AsyncGet(
        path,
        [&, raw = conn.get()](int type, int state, String node) {
            String data(16, '\0');
            const int rc = raw->Get(node, data, nullptr);  // synchronous, on the delivery thread
            watch.Add(EventText(type, state) + " " + node + " " + std::to_string(rc) + ":" + data);
        },
        [&](int rc, String data, const Stat* stat) {
            result.Add(std::to_string(rc) + ":" + data + ":" + std::to_string(stat ? stat->version : -1));
        });
    ASSERT_EQ(ZOK, armed.first);
    ASSERT_TRUE(result.WaitForCount(1));
    EXPECT_EQ("0:v1:0", result.Items()[0]);

    ASSERT_EQ(ZOK, conn->Set(path, "v2", -1, nullptr));
    ASSERT_TRUE(watch.WaitForCount(1));
    ASSERT_EQ(ZOK, conn->Set(path, "v3", -1, nullptr));
    Flush(*conn);
    EXPECT_EQ(std::vector<std::string>{"changed/connected " + path + " 0:v2"}, watch.Items());
}

TEST_F(ConnectionTest, ChildWatchFiresOnceWithChildEvent) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    ASSERT_EQ(ZOK, conn->Create(path + "/a", "", ZOO_OPEN_ACL_UNSAFE, 0));

    Recorder watch;
    Recorder result;
    auto armed = conn->AsyncGetChildren(
        path, [&](int type, int state, String node) { watch.Add(EventText(type, state) + " " + node); },
        [&](int rc, std::vector<String> children) {
            result.Add(std::to_string(rc) + ":" + (children.empty() ? String() : children.front()) + ":" +
                       std::to_string(children.size()));
        });
    ASSERT_EQ(ZOK, armed.first);
    ASSERT_TRUE(result.WaitForCount(1));
    EXPECT_EQ("0:a:1", result.Items()[0]);

    ASSERT_EQ(ZOK, conn->Create(path + "/b", "", ZOO_OPEN_ACL_UNSAFE, 0));
    ASSERT_TRUE(watch.WaitForCount(1));
    ASSERT_EQ(ZOK, conn->Create(path + "/c", "", ZOO_OPEN_ACL_UNSAFE, 0));
    Flush(*conn);
    EXPECT_EQ(std::vector<std::string>{"child/connected " + path}, watch.Items());
    std::vector<String> children;
    ASSERT_EQ(ZOK, conn->GetChildren(path, children));
    EXPECT_EQ(3u, children.size());
}

TEST_F(ConnectionTest, CancelledWatchNeverCallsBackAndIsFreedByItsEvent) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    const size_t baseline = conn->PendingWatchCount();

    std::atomic<int> calls{0};
    auto armed = conn->AsyncGet(path, [&](int, int, String) { ++calls; }, [](int, String, const Stat*) {});
    ASSERT_EQ(ZOK, armed.first);
    Flush(*conn);
    EXPECT_EQ(baseline + 1, conn->PendingWatchCount());
    EXPECT_TRUE(armed.second.Cancel(std::function<void()>()));

    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    Flush(*conn);
    EXPECT_EQ(0, calls.load());
    EXPECT_EQ(baseline, conn->PendingWatchCount());
}

TEST_F(ConnectionTest, WatchCancelledInsideItsOwnCallbackRunsCompletionAfterIt) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));

    Recorder order;
    Connection::WatchHandle handle;
    auto armed = conn->AsyncGet(
        path,
        [&](int, int, String) {
            order.Add("callback start");
            order.Add(handle.Cancel([&] { order.Add("completion"); }) ? "cancelled" : "not cancelled");
            order.Add("callback end");
        },
        [](int, String, const Stat*) {});
    ASSERT_EQ(ZOK, armed.first);
    handle = std::move(armed.second);
    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    ASSERT_TRUE(order.WaitForCount(4));
    EXPECT_EQ((std::vector<std::string>{"callback start", "cancelled", "callback end", "completion"}), order.Items());
}

TEST_F(ConnectionTest, ExpiredSessionIsReportedThenReplacedAndOldWatchesStaySilent) {
    testing::LogCapture logs;
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    const size_t baseline = conn->PendingWatchCount();

    // Runs a synchronous call from inside the new session's connected event.
    struct SyncObserver : ConnectionObserver {
        void OnSessionEvent(int, int state, String) override {
            if (state == ZOO_EXPIRED_SESSION_STATE) expired = true;
            if (state != ZOO_CONNECTED_STATE || !expired) return;
            calls.Add(std::to_string(EnsurePath(*conn, path + "/made/in/event", false, ZOO_OPEN_ACL_UNSAFE)) + " " +
                      std::to_string(conn->SessionId()));
        }
        const ZooKeeperConnection* conn = nullptr;
        String path;
        bool expired = false;  // only touched on the delivery thread
        Recorder calls;
    };
    struct ThrowingObserver : ConnectionObserver {
        void OnSessionEvent(int, int, String) override { throw std::runtime_error("observer boom"); }
    };
    auto sessions = std::make_shared<SessionRecorder>();
    auto sync = std::make_shared<SyncObserver>();
    sync->conn = conn.get();
    sync->path = path;
    auto thrower = std::make_shared<ThrowingObserver>();
    conn->RegisterShared(sessions);
    conn->RegisterShared(sync);
    conn->RegisterShared(thrower);

    std::atomic<int> oldWatchCalls{0};
    auto armed = conn->AsyncGet(path, [&](int, int, String) { ++oldWatchCalls; }, [](int, String, const Stat*) {});
    ASSERT_EQ(ZOK, armed.first);
    Flush(*conn);

    const std::int64_t oldId = conn->SessionId();
    // The second client takes the session over for a while: the connection
    // may see it lost and regained before it expires.
    ExpireSession(*s_server, *conn, sessions->events);
    ASSERT_TRUE(sync->calls.WaitForCount(1));
    const std::vector<std::string> events = sessions->events.Items();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ("session/expired", events[events.size() - 2]);
    EXPECT_EQ("session/connected", events.back());
    EXPECT_EQ(1, std::count(events.begin(), events.end(), "session/expired"));

    const std::int64_t newId = conn->SessionId();
    EXPECT_NE(0, newId);
    EXPECT_NE(oldId, newId);
    EXPECT_EQ("1 " + std::to_string(newId), sync->calls.Items()[0]);
    EXPECT_EQ(ZOK, conn->Exists(path + "/made/in/event", nullptr));

    ASSERT_EQ(ZOK, conn->Set(path, "after", -1, nullptr));
    Flush(*conn);
    EXPECT_EQ(0, oldWatchCalls.load());
    EXPECT_EQ(baseline, conn->PendingWatchCount());
    EXPECT_FALSE(logs.WithMessage("Callback threw: observer boom").empty());
}

TEST_F(ConnectionTest, ServerRestartWithinSessionTimeoutKeepsSessionAndWatches) {
    ZkServer server;
    server.Start();
    auto conn = Connect(server, milliseconds(30000));
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    auto sessions = std::make_shared<SessionRecorder>();
    conn->RegisterShared(sessions);
    Recorder watch;
    auto armed = conn->AsyncGet(path, [&](int type, int state, String) { watch.Add(EventText(type, state)); },
                                [](int, String, const Stat*) {});
    ASSERT_EQ(ZOK, armed.first);
    Flush(*conn);
    const std::int64_t id = conn->SessionId();

    server.Stop();
    ASSERT_TRUE(sessions->events.WaitUntil(
        [](const std::vector<std::string>& items) { return !items.empty() && items.back() == "session/connecting"; }));
    server.Start();
    ASSERT_TRUE(sessions->events.WaitUntil(
        [](const std::vector<std::string>& items) { return items.back() == "session/connected"; }));
    for (const std::string& event : sessions->events.Items()) EXPECT_NE("session/expired", event);
    EXPECT_EQ(id, conn->SessionId());

    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    ASSERT_TRUE(watch.WaitForCount(1));
    EXPECT_EQ("changed/connected", watch.Items()[0]);
}

TEST_F(ConnectionTest, GetReadsANodeNearTheSizeLimitAndRefusesOneAboveCapacity) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    String big(1000000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
    ASSERT_EQ(ZOK, conn->Create(path, big, ZOO_OPEN_ACL_UNSAFE, 0));

    String out(big.size(), 'x');
    Stat stat{};
    ASSERT_EQ(ZOK, conn->Get(path, out, &stat));
    EXPECT_TRUE(out == big);
    EXPECT_EQ(1000000, stat.dataLength);

    String small(big.size() - 1, 'x');
    EXPECT_EQ(ZBADARGUMENTS, conn->Get(path, small, nullptr));
    EXPECT_TRUE(small.empty());

    ASSERT_EQ(ZOK, conn->Set(path, "tiny", -1, nullptr));
    String roomy(64, 'x');
    ASSERT_EQ(ZOK, conn->Get(path, roomy, nullptr));
    EXPECT_EQ("tiny", roomy);
}

TEST_F(ConnectionTest, EnsurePathCreatesDeepPathsOnceAmongConcurrentCreators) {
    auto conn = Connect(*s_server);
    const String root = TestPath();
    EXPECT_TRUE(EnsurePath(*conn, root + "/a/b/c/d", false, ZOO_OPEN_ACL_UNSAFE));
    EXPECT_FALSE(EnsurePath(*conn, root + "/a/b/c/d", false, ZOO_OPEN_ACL_UNSAFE));

    Stat stat{};
    EXPECT_TRUE(EnsurePath(*conn, root + "/a/b/leaf", true, ZOO_OPEN_ACL_UNSAFE));
    ASSERT_EQ(ZOK, conn->Exists(root + "/a/b/leaf", &stat));
    EXPECT_EQ(conn->SessionId(), stat.ephemeralOwner);

    constexpr int kCreators = 4;
    std::vector<std::shared_ptr<ZooKeeperConnection>> conns;
    for (int i = 0; i < kCreators; ++i) conns.push_back(Connect(*s_server));
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::future<bool>> created;
    for (int i = 0; i < kCreators; ++i) {
        created.push_back(std::async(std::launch::async, [&, i] {
            start.wait();
            return EnsurePath(*conns[static_cast<size_t>(i)], root + "/x/y/z", false, ZOO_OPEN_ACL_UNSAFE);
        }));
    }
    go.set_value();
    int creators = 0;
    for (auto& result : created) creators += result.get() ? 1 : 0;
    EXPECT_EQ(1, creators);
    EXPECT_EQ(ZOK, conn->Exists(root + "/x/y/z", nullptr));
}

TEST_F(ConnectionTest, SyncCallTimesOutWhileTheServerDoesNotAnswer) {
    // The server imposes a long session, so that the client itself keeps the
    // request pending far beyond the connection's own deadline.
    ZkServer server(ZkServer::Options{{"minSessionTimeout=20000", "maxSessionTimeout=40000"}});
    server.Start();
    auto conn = Connect(server, milliseconds(2000));
    ASSERT_EQ(ZOK, conn->Create(TestPath(), "", ZOO_OPEN_ACL_UNSAFE, 0));

    server.Pause();
    const auto start = std::chrono::steady_clock::now();
    String out(16, '\0');
    const int rc = conn->Get(TestPath(), out, nullptr);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    server.Resume();

    EXPECT_EQ(ZOPERATIONTIMEOUT, rc);
    EXPECT_GE(elapsed, milliseconds(1900));
    EXPECT_LT(elapsed, milliseconds(6000));
    EXPECT_TRUE(conn->WaitConnected(kDeadline));
    EXPECT_EQ(ZOK, conn->Exists(TestPath(), nullptr));
}

TEST_F(ConnectionTest, NoCallbackRunsAfterDestructionWithCallbacksPending) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));

    std::atomic<bool> destroyed{false};
    std::atomic<int> late{0};
    for (int i = 0; i < 300; ++i) {
        auto armed = conn->AsyncGet(
            path, [&](int, int, String) { late += destroyed.load() ? 1 : 0; },
            [&](int, String, const Stat*) { late += destroyed.load() ? 1 : 0; });
        ASSERT_EQ(ZOK, armed.first);
        armed.second = Connection::WatchHandle();  // released, still armed
    }
    conn.reset();
    destroyed = true;
    EXPECT_EQ(0, late.load());
}

TEST_F(ConnectionTest, LastReferenceDroppedInsideACallbackOnTheDeliveryThread) {
    auto conn = Connect(*s_server);
    std::promise<void> released;
    auto releasedFuture = released.get_future().share();
    auto done = std::make_shared<std::promise<std::int64_t>>();
    auto armed = conn->AsyncGet("/missing", Connection::WatchFunction(),
                                [keep = conn, releasedFuture, done](int, String, const Stat*) mutable {
                                    releasedFuture.wait();
                                    EXPECT_EQ(1, keep.use_count());
                                    const std::int64_t id = keep->SessionId();
                                    keep.reset();  // destroys the connection here
                                    done->set_value(id);
                                });
    ASSERT_EQ(ZOK, armed.first);
    conn.reset();
    released.set_value();
    auto future = done->get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(kDeadline));
    EXPECT_NE(0, future.get());
}

TEST_F(ConnectionTest, ThrowingCallbacksAreLoggedAndDeliveryGoesOn) {
    testing::LogCapture logs;
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));

    auto armed = conn->AsyncGet(
        path, [](int, int, String) { throw std::runtime_error("watch boom"); },
        [](int, String, const Stat*) { throw std::runtime_error("result boom"); });
    ASSERT_EQ(ZOK, armed.first);
    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    Flush(*conn);

    const auto watchLog = logs.WithMessage("Callback threw: watch boom");
    const auto resultLog = logs.WithMessage("Callback threw: result boom");
    ASSERT_EQ(1u, watchLog.size());
    ASSERT_EQ(1u, resultLog.size());
    EXPECT_EQ(logging::JXLOG_ERROR, watchLog[0].level);
    EXPECT_EQ("ferrow.connection", resultLog[0].source);
}

TEST_F(ConnectionTest, DeliveryIsInOrderOnItsOwnThreadAndNeverInsideTheRequest) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));

    std::mutex issuerMtx;  // held by the issuer across every request
    Recorder order;
    std::atomic<int> onIssuer{0};
    const std::thread::id issuer = std::this_thread::get_id();
    auto record = [&](std::string what) {
        onIssuer += std::this_thread::get_id() == issuer ? 1 : 0;
        { std::lock_guard<std::mutex> lock(issuerMtx); }
        order.Add(std::move(what));
    };
    std::vector<Connection::WatchHandle> handles;
    {
        std::lock_guard<std::mutex> lock(issuerMtx);
        auto watched = conn->AsyncGet(path, [&](int, int, String) { record("event"); },
                                      [&](int, String, const Stat*) { record("read 0"); });
        ASSERT_EQ(ZOK, watched.first);
        handles.push_back(std::move(watched.second));
        for (int i = 1; i <= 20; ++i) {
            if (i == 10) {
                ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
            }
            auto read = conn->AsyncGet(path, Connection::WatchFunction(),
                                       [&, i](int, String, const Stat*) { record("read " + std::to_string(i)); });
            ASSERT_EQ(ZOK, read.first);
        }
    }
    ASSERT_TRUE(order.WaitForCount(22));
    std::vector<std::string> expected;
    for (int i = 0; i <= 20; ++i) {
        if (i == 10) expected.push_back("event");
        expected.push_back("read " + std::to_string(i));
    }
    EXPECT_EQ(expected, order.Items());
    EXPECT_EQ(0, onIssuer.load());
}

TEST_F(ConnectionTest, RearmedAndFailedWatchesLeaveNoBookkeepingBehind) {
    auto conn = Connect(*s_server);
    const String path = TestPath();
    ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    const size_t baseline = conn->PendingWatchCount();

    // Each change fires the watch, whose callback re-arms it on the delivery
    // thread; the last change is not re-armed.
    struct Rearmer {
        void Arm() {
            auto armed = conn->AsyncGet(
                path,
                [this](int, int, String) {
                    const int seen = ++events;
                    if (seen < kRearmCycles) Arm();
                    fired.Add("e");
                },
                [](int, String, const Stat*) {});
            EXPECT_EQ(ZOK, armed.first);
            handle = std::move(armed.second);
        }
        Rearmer(ZooKeeperConnection* c, String p) : conn(c), path(std::move(p)) {}
        ZooKeeperConnection* conn;
        String path;
        std::atomic<int> events{0};
        Connection::WatchHandle handle;
        Recorder fired;
    } rearmer(conn.get(), path);
    rearmer.Arm();
    for (int i = 1; i <= kRearmCycles; ++i) {
        ASSERT_EQ(ZOK, conn->Set(path, std::to_string(i), -1, nullptr));
        ASSERT_TRUE(rearmer.fired.WaitForCount(static_cast<size_t>(i)));
    }
    Flush(*conn);
    EXPECT_EQ(baseline, conn->PendingWatchCount());

    std::atomic<int> failed{0};
    auto allFailed = std::make_shared<std::promise<void>>();
    for (int i = 0; i < kFailedReads; ++i) {
        auto armed = conn->AsyncGet(path + "/missing", [](int, int, String) {},
                                    [&failed, allFailed](int rc, String, const Stat*) {
                                        EXPECT_EQ(ZNONODE, rc);
                                        if (++failed == kFailedReads) allFailed->set_value();
                                    });
        ASSERT_EQ(ZOK, armed.first);
    }
    ASSERT_EQ(std::future_status::ready, allFailed->get_future().wait_for(kDeadline));
    EXPECT_EQ(baseline, conn->PendingWatchCount());
}

// Enough 200-byte names that re-registering their watches in one request
// would pass the server's default limit of 1,048,575 bytes.
constexpr int kManyWatches = 5500;

TEST_F(ConnectionTest, WatchesAboveTheResetRequestLimitSurviveAServerRestartAndFireOnceEach) {
    ZkServer server;
    server.Start();
    auto conn = Connect(server, milliseconds(30000));
    const String parent = TestPath();
    ASSERT_EQ(ZOK, conn->Create(parent, "", ZOO_OPEN_ACL_UNSAFE, 0));
    std::vector<String> paths;
    for (int i = 0; i < kManyWatches; ++i) {
        String name = std::to_string(i);
        paths.push_back(parent + "/" + name + String(200 - name.size(), 'n'));
    }
    std::vector<std::thread> creators;
    for (int t = 0; t < 4; ++t) {
        creators.emplace_back([&, t] {
            for (size_t i = static_cast<size_t>(t); i < paths.size(); i += 4) {
                EXPECT_EQ(ZOK, conn->Create(paths[i], "v0", ZOO_OPEN_ACL_UNSAFE, 0));
            }
        });
    }
    for (std::thread& creator : creators) creator.join();
    const size_t baseline = conn->PendingWatchCount();

    // "<index>:<event>" per delivered event; index -1 is the child watch.
    Recorder events;
    std::vector<Connection::WatchHandle> handles;
    auto armed = std::make_shared<std::atomic<int>>(0);
    auto record = [&events](int index) {
        return [&events, index](int type, int state, String) {
            events.Add(std::to_string(index) + ":" + EventText(type, state));
        };
    };
    auto children = conn->AsyncGetChildren(parent, record(-1), [armed](int rc, std::vector<String>) {
        EXPECT_EQ(ZOK, rc);
        ++*armed;
    });
    ASSERT_EQ(ZOK, children.first);
    handles.push_back(std::move(children.second));
    for (int i = 0; i < kManyWatches; ++i) {
        auto data = conn->AsyncGet(paths[static_cast<size_t>(i)], record(i), [armed](int rc, String, const Stat*) {
            EXPECT_EQ(ZOK, rc);
            ++*armed;
        });
        ASSERT_EQ(ZOK, data.first);
        handles.push_back(std::move(data.second));
    }
    Flush(*conn);
    ASSERT_EQ(kManyWatches + 1, armed->load());
    ASSERT_EQ(baseline + kManyWatches + 1, conn->PendingWatchCount());
    const std::int64_t session = conn->SessionId();
    auto sessions = std::make_shared<SessionRecorder>();
    conn->RegisterShared(sessions);

    server.Stop();
    ASSERT_TRUE(sessions->events.WaitUntil(
        [](const std::vector<std::string>& items) { return !items.empty() && items.back() == "session/connecting"; }));
    server.Start();
    // Written while the watched connection reconnects and re-arms, so that
    // some nodes change before their watch is armed again and some after.
    auto writer = Connect(server);
    std::vector<std::string> expected{"-1:child/connected"};
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(ZOK, writer->Set(paths[static_cast<size_t>(i)], "v1", -1, nullptr));
        expected.push_back(std::to_string(i) + ":changed/connected");
        const int gone = kManyWatches - 1 - i;
        ASSERT_EQ(ZOK, writer->Delete(paths[static_cast<size_t>(gone)], -1));
        expected.push_back(std::to_string(gone) + ":deleted/connected");
    }
    ASSERT_TRUE(events.WaitForCount(expected.size())) << events.Items().size() << " events";

    // Changing a reported node again reports nothing; the untouched watches
    // are still armed: the last one's event comes after any stray one.
    for (int i = 0; i < 50; ++i) ASSERT_EQ(ZOK, writer->Set(paths[static_cast<size_t>(i)], "v2", -1, nullptr));
    ASSERT_EQ(ZOK, writer->Set(paths[100], "v1", -1, nullptr));
    expected.push_back("100:changed/connected");
    ASSERT_TRUE(events.WaitForCount(expected.size()));
    Flush(*conn);
    std::vector<std::string> seen = events.Items();
    std::sort(seen.begin(), seen.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, seen);

    // A server still starting may drop a fresh connection once more.
    EXPECT_EQ(session, conn->SessionId());
    const std::vector<std::string> states = sessions->events.Items();
    ASSERT_GE(states.size(), 2u);
    EXPECT_EQ("session/connecting", states.front());
    EXPECT_EQ("session/connected", states.back());
    for (const std::string& state : states) {
        EXPECT_TRUE(state == "session/connecting" || state == "session/connected") << state;
    }
    // Watches reported on re-arm are withdrawn from the client in the
    // background; then only the untouched ones are left.
    const size_t left = baseline + kManyWatches - 100 - 1;
    testing::PollUntil([&] { return conn->PendingWatchCount() == left; }, kDeadline);
    EXPECT_EQ(left, conn->PendingWatchCount());
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
