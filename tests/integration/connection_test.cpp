// The real connection against a real ZooKeeper server: watches, delivery,
// sessions, synchronous calls and destruction.

#include <algorithm>
#include <atomic>
#include <future>

#include <gtest/gtest.h>

#include "tests/support/instances.h"
#include "tests/support/support.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using testing::PollUntil;
constexpr std::chrono::seconds kDeadline{30};
const Connection::DataResult kIgnore = [](int, String, const Stat*) {};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRearmCycles = 400, kFailedReads = 10000;
#else
constexpr int kRearmCycles = 1500, kFailedReads = 50000;
#endif

// Strings appended from any thread; as a session observer, the states.
struct Journal : ConnectionObserver {
    void Add(std::string item) {
        std::lock_guard<std::mutex> lock(mtx);
        items.push_back(std::move(item));
    }
    void OnSessionEvent(int, int state, String) override {
        Add(state == ZOO_CONNECTED_STATE ? "connected" : state == ZOO_EXPIRED_SESSION_STATE ? "expired" : "connecting");
    }
    std::vector<std::string> Items() {
        std::lock_guard<std::mutex> lock(mtx);
        return items;
    }
    bool Has(size_t count) { return PollUntil([&] { return Items().size() >= count; }, kDeadline); }
    std::mutex mtx;
    std::vector<std::string> items;
};

// Once the result of a read issued now has been delivered, everything the
// client produced before it has been too.
void Flush(const Connection& conn) {
    auto done = std::make_shared<std::promise<void>>();
    conn.AsyncGet("/missing", nullptr, [done](int, String, const Stat*) { done->set_value(); });
    ASSERT_EQ(std::future_status::ready, done->get_future().wait_for(kDeadline));
}

class ConnectionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { (s_server = new testing::ZkServer())->Start(); }
    static void TearDownTestSuite() { delete s_server; }
    // A connection whose connected event is behind it, and a fresh node.
    void SetUp() override {
        Flush(*conn);
        ASSERT_EQ(ZOK, conn->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    }
    static inline testing::ZkServer* s_server = nullptr;
    std::shared_ptr<ZooKeeperConnection> conn = testing::Connect(s_server->ConnectString());
    String path = String("/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(ConnectionTest, WatchesFireOnceInOrderOnTheDeliveryThreadAndACancelledOneNeverCallsBack) {
    const size_t baseline = conn->PendingWatchCount();
    Journal journal;
    std::mutex issuerMtx;  // held by the issuer across every request: no callback may run inside one
    auto record = [&, issuer = std::this_thread::get_id()](std::string what) {
        std::lock_guard<std::mutex> lock(issuerMtx);
        journal.Add(std::this_thread::get_id() == issuer ? "on the issuer" : what);
    };
    std::vector<Connection::WatchHandle> handles;
    {
        std::lock_guard<std::mutex> lock(issuerMtx);
        handles.push_back(conn->AsyncGet(path, [&, raw = conn.get()](int type, int, String node) {
            String data(16, '\0');
            raw->Get(node, data, nullptr);  // a synchronous call on the delivery thread
            record(type == ZOO_CHANGED_EVENT ? "changed " + data : "?");
        }, [&](int rc, String, const Stat*) { record("read " + std::to_string(rc)); }).second);
        handles.push_back(conn->AsyncGetChildren(path, [&](int type, int, String) { record(type == ZOO_CHILD_EVENT ? "child" : "?"); },
                                                 [&](int rc, std::vector<String>) { record("list " + std::to_string(rc)); }).second);
        handles.push_back(conn->AsyncGet(path, [&](int, int, String) { record("cancelled watch"); }, kIgnore).second);
        EXPECT_TRUE(handles.back().Cancel(nullptr));
        ASSERT_EQ(ZOK, conn->Set(path, "v1", -1, nullptr));
        ASSERT_EQ(ZOK, conn->Create(path + "/a", "", ZOO_OPEN_ACL_UNSAFE, 0));
        for (int i = 0; i < 3; ++i) conn->AsyncGet(path, nullptr, [&, i](int, String, const Stat*) { record(std::to_string(i)); });
    }
    ASSERT_TRUE(journal.Has(7));
    ASSERT_EQ(ZOK, conn->Set(path, "v2", -1, nullptr));
    ASSERT_EQ(ZOK, conn->Create(path + "/b", "", ZOO_OPEN_ACL_UNSAFE, 0));
    Flush(*conn);
    EXPECT_EQ(journal.Items(), (std::vector<std::string>{"read 0", "list 0", "changed v1", "child", "0", "1", "2"}));
    EXPECT_EQ(baseline, conn->PendingWatchCount());
}

TEST_F(ConnectionTest, WatchCancelledInItsOwnCallbackCompletesAfterItAndNoBookkeepingIsLeftBehind) {
    const size_t baseline = conn->PendingWatchCount();
    Journal order;
    Connection::WatchHandle handle = conn->AsyncGet(path, [&](int, int, String) {
        order.Add(handle.Cancel([&] { order.Add("completion"); }) ? "cancelled" : "not cancelled");
        order.Add("callback end");
    }, kIgnore).second;
    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    ASSERT_TRUE(order.Has(3));
    EXPECT_EQ(order.Items(), (std::vector<std::string>{"cancelled", "callback end", "completion"}));

    // A watch re-armed from its own callback, many times; then reads of a
    // missing node, each with a watch that can never fire.
    std::atomic<int> events{0};
    std::function<void()> arm = [&] {
        handle = conn->AsyncGet(path, [&](int, int, String) {
            if (events + 1 < kRearmCycles) arm();
            ++events;  // counted once re-armed: the next change is not missed
        }, kIgnore).second;
    };
    arm();
    for (int i = 1; i <= kRearmCycles; ++i) {
        ASSERT_EQ(ZOK, conn->Set(path, std::to_string(i), -1, nullptr));
        ASSERT_TRUE(PollUntil([&] { return events >= i; }, kDeadline, milliseconds(0)));
    }
    std::atomic<int> failed{0};
    for (int i = 0; i < kFailedReads; ++i) {
        conn->AsyncGet(path + "/missing", [](int, int, String) {}, [&](int rc, String, const Stat*) { failed += rc == ZNONODE; });
    }
    ASSERT_TRUE(PollUntil([&] { return failed == kFailedReads; }, kDeadline));
    EXPECT_EQ(baseline, conn->PendingWatchCount());
}

TEST_F(ConnectionTest, ExpiredSessionIsReportedOnceThenReplacedAndItsWatchesStaySilent) {
    testing::LogCapture logs;
    const size_t baseline = conn->PendingWatchCount();
    // Makes a synchronous call from inside the new session's connected event.
    struct SyncObserver : Journal {
        void OnSessionEvent(int type, int state, String p) override {
            Journal::OnSessionEvent(type, state, p);
            const auto items = Items();
            if (state == ZOO_CONNECTED_STATE && std::count(items.begin(), items.end(), "expired") != 0) {
                Add(std::to_string(EnsurePath(*conn, path + "/made/in/event", false, ZOO_OPEN_ACL_UNSAFE)));
            }
        }
        std::shared_ptr<ZooKeeperConnection> conn;
        String path;
    };
    struct Thrower : ConnectionObserver {
        void OnSessionEvent(int, int, String) override { throw std::runtime_error("observer boom"); }
    };
    auto sessions = std::make_shared<SyncObserver>();
    sessions->conn = conn;
    sessions->path = path;
    conn->RegisterWeak(sessions);
    conn->RegisterShared(std::make_shared<Thrower>());
    std::atomic<int> oldWatchCalls{0};
    auto armed = conn->AsyncGet(path, [&](int, int, String) { ++oldWatchCalls; }, kIgnore);
    Flush(*conn);
    const std::int64_t old = conn->SessionId();

    ASSERT_TRUE(testing::ExpireSession(s_server->ConnectString(), *conn));
    ASSERT_TRUE(PollUntil([&] { return !sessions->Items().empty() && sessions->Items().back() == "1"; }, kDeadline));
    const auto events = sessions->Items();
    EXPECT_EQ(std::count(events.begin(), events.end(), "expired"), 1);
    EXPECT_EQ(events[events.size() - 3], "expired");
    EXPECT_NE(old, conn->SessionId());
    ASSERT_EQ(ZOK, conn->Set(path, "after", -1, nullptr));
    Flush(*conn);
    EXPECT_EQ(0, oldWatchCalls.load());
    EXPECT_EQ(baseline, conn->PendingWatchCount());
    EXPECT_GE(logs.Count("Callback threw: observer boom", logging::JXLOG_ERROR), 1u);
}

TEST_F(ConnectionTest, SynchronousCallsReadUpToTheCapacityCreatePathsOnceAndTimeOut) {
    String big(1000000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
    ASSERT_EQ(ZOK, conn->Set(path, big, -1, nullptr));
    String out(big.size(), 'x'), small(big.size() - 1, 'x');
    ASSERT_EQ(ZOK, conn->Get(path, out, nullptr));
    EXPECT_TRUE(out == big);
    EXPECT_EQ(ZBADARGUMENTS, conn->Get(path, small, nullptr));
    EXPECT_TRUE(small.empty());

    std::vector<std::future<bool>> created;
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    for (int i = 0; i < 4; ++i) {
        created.push_back(std::async(std::launch::async, [&, start, c = testing::Connect(s_server->ConnectString())] {
            start.wait();
            return EnsurePath(*c, path + "/x/y/z", false, ZOO_OPEN_ACL_UNSAFE);
        }));
    }
    go.set_value();
    EXPECT_EQ(1, std::count_if(created.begin(), created.end(), [](auto& result) { return result.get(); }));

    // The server imposes a long session, so that the client itself keeps the
    // request pending far beyond the connection's own deadline.
    testing::ZkServer slow({"minSessionTimeout=20000", "maxSessionTimeout=40000"});
    slow.Start();
    auto paused = testing::Connect(slow.ConnectString(), milliseconds(2000));
    slow.Pause();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ZOPERATIONTIMEOUT, paused->Exists("/", nullptr));
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    slow.Resume();
    EXPECT_GE(elapsed, milliseconds(1900));
    EXPECT_LT(elapsed, milliseconds(6000));
    EXPECT_TRUE(paused->WaitConnected(kDeadline));
}

TEST_F(ConnectionTest, ThrowingCallbacksAreLoggedAndNoCallbackRunsAfterDestruction) {
    testing::LogCapture logs;
    auto armed = conn->AsyncGet(path, [](int, int, String) { throw std::runtime_error("watch boom"); },
                                [](int, String, const Stat*) { throw std::runtime_error("result boom"); });
    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    Flush(*conn);
    EXPECT_EQ(1u, logs.Count("Callback threw: watch boom", logging::JXLOG_ERROR));
    EXPECT_EQ(1u, logs.Count("Callback threw: result boom", logging::JXLOG_ERROR));
    std::atomic<bool> destroyed{false};
    std::atomic<int> late{0};
    for (int i = 0; i < 300; ++i) {
        conn->AsyncGet(path, [&](int, int, String) { late += destroyed; }, [&](int, String, const Stat*) { late += destroyed; });
    }
    conn.reset();
    destroyed = true;
    EXPECT_EQ(0, late.load());

    // The last reference dropped inside a callback destroys the connection on its own delivery thread.
    auto other = testing::Connect(s_server->ConnectString());
    std::promise<void> released;
    auto done = std::make_shared<std::promise<std::int64_t>>();
    other->AsyncGet("/missing", nullptr, [keep = other, r = released.get_future().share(), done](int, String, const Stat*) mutable {
        r.wait();
        const std::int64_t id = keep->SessionId();
        keep.reset();
        done->set_value(id);
    });
    other.reset();
    released.set_value();
    auto future = done->get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(kDeadline));
    EXPECT_NE(0, future.get());
}

// Enough 200-byte names that re-registering their watches in one request
// would pass the server's limit of 1,048,575 bytes: the connection re-arms
// them itself, and every node changed around the restart is reported once.
TEST_F(ConnectionTest, WatchesAboveTheResetRequestLimitSurviveAServerRestartAndFireOnceEach) {
    constexpr int kManyWatches = 5500;
    testing::ZkServer server;
    server.Start();
    auto watched = testing::Connect(server.ConnectString(), milliseconds(30000));
    auto writer = testing::Connect(server.ConnectString());
    ASSERT_EQ(ZOK, watched->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0));
    Journal events;
    std::vector<String> paths;
    std::vector<Connection::WatchHandle> handles;
    for (int i = 0; i < kManyWatches; ++i) {
        paths.push_back(path + "/" + std::to_string(i) + String(200, 'n'));
        ASSERT_EQ(ZOK, writer->Create(paths.back(), "", ZOO_OPEN_ACL_UNSAFE, 0));
        handles.push_back(watched->AsyncGet(paths.back(), [&events, i](int type, int, String) {
            events.Add(std::to_string(i) + (type == ZOO_CHANGED_EVENT ? " changed" : " deleted"));
        }, kIgnore).second);
    }
    handles.push_back(watched->AsyncGetChildren(path, [&](int, int, String) { events.Add("child"); }, [](int, std::vector<String>) {}).second);
    Flush(*watched);
    const std::int64_t session = watched->SessionId();
    auto sessions = std::make_shared<Journal>();
    watched->RegisterShared(sessions);
    server.Stop();
    ASSERT_TRUE(sessions->Has(1));
    server.Start();
    // Written while the watched connection reconnects and re-arms, so that
    // some nodes change before their watch is armed again and some after.
    std::vector<std::string> expected{"child"};
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(ZOK, writer->Set(paths[i], "v1", -1, nullptr));
        ASSERT_EQ(ZOK, writer->Delete(paths[kManyWatches - 1 - i], -1));
        expected.push_back(std::to_string(i) + " changed");
        expected.push_back(std::to_string(kManyWatches - 1 - i) + " deleted");
    }
    ASSERT_TRUE(events.Has(expected.size()));
    for (int i = 0; i < 50; ++i) ASSERT_EQ(ZOK, writer->Set(paths[i], "v2", -1, nullptr));  // reported already: silent
    ASSERT_EQ(ZOK, writer->Set(paths[100], "v1", -1, nullptr));
    expected.push_back("100 changed");
    ASSERT_TRUE(events.Has(expected.size()));
    Flush(*watched);
    auto seen = events.Items();
    std::sort(seen.begin(), seen.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, seen);
    EXPECT_EQ(session, watched->SessionId());
    EXPECT_EQ(sessions->Items().back(), "connected");
    const size_t left = kManyWatches - 101;
    EXPECT_TRUE(PollUntil([&] { return watched->PendingWatchCount() == left; }, kDeadline)) << watched->PendingWatchCount();
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
