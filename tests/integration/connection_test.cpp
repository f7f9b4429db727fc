// The real connection against a real ZooKeeper server: watches, delivery,
// sessions, synchronous calls and destruction.

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

TEST_F(ConnectionTest, WatchesFireOnceInOrderOnTheDeliveryThreadAndLeaveNoBookkeepingBehind) {
    const size_t baseline = conn->PendingWatchCount();
    std::vector<std::string> journal;
    std::mutex issuerMtx;  // guards journal; held by the issuer across every request: no callback may run inside one
    auto record = [&, issuer = std::this_thread::get_id()](std::string what) {
        std::lock_guard<std::mutex> lock(issuerMtx);
        journal.push_back(std::this_thread::get_id() == issuer ? "on the issuer" : what);
    };
    auto items = [&] {
        std::lock_guard<std::mutex> lock(issuerMtx);
        return journal;
    };
    Connection::WatchHandle handles[4];
    {
        std::lock_guard<std::mutex> lock(issuerMtx);
        // Replaced before it is answered, as by an owner asking again: answered ZCLOSING, never fires.
        handles[0] = conn->AsyncGet(path, [&](int, int, String) { record("replaced watch"); },
                                    [&](int rc, String, const Stat*) { record("replaced " + std::to_string(rc)); }).second;
        handles[0] = conn->AsyncGet(path, [&, weak = std::weak_ptr<ZooKeeperConnection>(conn)](int type, int, String node) {
            String data(16, '\0');
            if (auto self = weak.lock()) self->Get(node, data, nullptr);  // a synchronous call on the delivery thread
            record(type == ZOO_CHANGED_EVENT ? "changed " + data : "?");
        }, [&](int rc, String, const Stat*) { record("read " + std::to_string(rc)); }).second;
        handles[1] = conn->AsyncGetChildren(path, [&](int type, int, String) { record(type == ZOO_CHILD_EVENT ? "child" : "?"); },
                                            [&](int rc, std::vector<String>) { record("list " + std::to_string(rc)); }).second;
        handles[2] = conn->AsyncGet(path, [&](int, int, String) { record("cancelled watch"); }, kIgnore).second;
        EXPECT_TRUE(handles[2].Cancel(nullptr));
        // A node that does not exist: answered so, and its watch, which
        // ZooKeeper never set, never fires, not even when the node is made.
        handles[3] = conn->AsyncGet(path + "/c", [&](int, int, String) { record("watch of a missing node"); },
                                    [&](int rc, String, const Stat*) { record("missing " + std::to_string(rc)); }).second;
        ASSERT_EQ(ZOK, conn->Set(path, "v1", -1, nullptr));
        ASSERT_EQ(ZOK, conn->Create(path + "/a", "", ZOO_OPEN_ACL_UNSAFE, 0));
        for (int i = 0; i < 3; ++i) conn->AsyncGet(path, nullptr, [&, i](int, String, const Stat*) { record(std::to_string(i)); });
    }
    ASSERT_TRUE(PollUntil([&] { return items().size() >= 9; }, kDeadline));
    ASSERT_EQ(ZOK, conn->Set(path, "v2", -1, nullptr));
    ASSERT_EQ(ZOK, conn->Create(path + "/b", "", ZOO_OPEN_ACL_UNSAFE, 0));
    ASSERT_EQ(ZOK, conn->Create(path + "/c", "", ZOO_OPEN_ACL_UNSAFE, 0));
    Flush(*conn);
    EXPECT_EQ(items(), (std::vector<std::string>{"replaced -116", "read 0", "list 0", "missing -101", "changed v1", "child",
                                                 "0", "1", "2"}));

    // The cancelled and the replaced watches are withdrawn shortly after; the others fired.
    EXPECT_TRUE(PollUntil([&] { return conn->PendingWatchCount() == baseline; }, kDeadline));
}

TEST_F(ConnectionTest, NoCallbackRunsAfterDestructionAndTheLastReferenceMayDieOnTheDeliveryThread) {
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

// Reads still waiting for their turn when the session expires die with it:
// ZCLOSING, as every request of a closed session, never a code the caller
// would take for a reason to try again on the new session.
TEST_F(ConnectionTest, ReadsWaitingWhenTheSessionExpiresCompleteClosing) {
    testing::Relay relay(s_server->ClientPort());
    ConnectionOptions options{relay.ConnectString(), std::chrono::seconds(4), ""};
    options.readWindow = 1;
    const auto expiring = ZooKeeperConnection::Open(options);
    ASSERT_TRUE(expiring->WaitConnected(kDeadline));
    relay.Blackhole();
    std::mutex mtx;
    std::vector<int> codes;  // guarded by mtx
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(ZOK, expiring->AsyncGet(path, nullptr, [&](int rc, String, const Stat*) {
            std::lock_guard<std::mutex> lock(mtx);
            codes.push_back(rc);
        }).first);
    }
    ASSERT_FALSE(testing::CloseSessionOnServer(s_server->ConnectString(), *expiring));
    relay.Heal();
    ASSERT_TRUE(PollUntil([&] {
        std::lock_guard<std::mutex> lock(mtx);
        return codes.size() == 50;
    }, kDeadline));
    std::lock_guard<std::mutex> lock(mtx);
    for (const int rc : codes) EXPECT_TRUE(rc == ZCLOSING || rc == ZCONNECTIONLOSS) << zerror(rc);
}

// Reads beyond the connection's window wait in it and are issued as answers
// arrive, or, once 2 answers wait for delivery, as they are delivered; they
// are still answered in the order they were asked for. Reads waiting when
// their handle goes are dropped unsent; reads waiting when the connection is
// destroyed are dropped without a callback.
TEST_F(ConnectionTest, ReadsBeyondTheWindowWaitAndKeepTheirOrder) {
    ConnectionOptions options{s_server->ConnectString(), std::chrono::seconds(10), ""};
    options.readWindow = 4;
    options.answersWaiting = 2;
    auto limited = ZooKeeperConnection::Open(options);
    ASSERT_TRUE(limited->WaitConnected(kDeadline));
    const size_t baseline = limited->PendingWatchCount();
    std::mutex mtx;
    std::vector<int> answered;  // guarded by mtx
    std::vector<Connection::WatchHandle> handles;
    // The first answer is held until answers have piled up and stopped
    // the reads, none left on the wire: only deliveries can start them again.
    std::promise<void> asked;
    std::shared_future<void> allAsked = asked.get_future().share();
    for (int i = 0; i < 200; ++i) {
        auto result = [&, i, allAsked](int rc, String, const Stat*) {
            if (i == 0) {
                allAsked.wait();
                EXPECT_TRUE(PollUntil([&] {
                    const ZooKeeperConnection::ReadCounts reads = limited->Reads();
                    return reads.onWire == 0 && reads.waiting > 0 && reads.answersWaiting >= 2;
                }, kDeadline));
            }
            std::lock_guard<std::mutex> lock(mtx);
            answered.push_back(rc == ZOK ? i : -1);
        };
        auto watched = limited->AsyncGet(path, i % 2 ? Connection::WatchFunction([](int, int, String) {}) : nullptr,
                                      std::move(result));
        ASSERT_EQ(ZOK, watched.first);
        handles.push_back(std::move(watched.second));
    }
    asked.set_value();
    Flush(*limited);
    std::vector<int> expected(200);
    for (int i = 0; i < 200; ++i) expected[static_cast<size_t>(i)] = i;
    {
        std::lock_guard<std::mutex> lock(mtx);
        EXPECT_EQ(answered, expected);
    }
    EXPECT_EQ(limited->PendingWatchCount(), baseline + 100);

    // Reads whose handles are destroyed while they wait are never sent (a
    // watcher destroyed during its first read of a large service would
    // otherwise have the server answer every read and then forget every
    // watch), and each is still answered once: ZCLOSING.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    limited->AsyncGet(path, nullptr, [released](int, String, const Stat*) { released.wait(); });
    std::vector<Connection::WatchHandle> abandoned;
    std::atomic<int> closing{0}, other{0};
    for (int i = 0; i < 100; ++i) {
        abandoned.push_back(limited->AsyncGet(path, [](int, int, String) {}, [&](int rc, String, const Stat*) {
            ++(rc == ZCLOSING ? closing : other);
        }).second);
    }
    ASSERT_TRUE(PollUntil([&] {
        const ZooKeeperConnection::ReadCounts reads = limited->Reads();
        return reads.onWire == 0 && reads.answersWaiting >= 2;
    }, kDeadline));
    const std::uint64_t issued = limited->Reads().issued;
    ASSERT_GT(limited->Reads().waiting, 0u);
    abandoned.clear();
    release.set_value();
    Flush(*limited);
    EXPECT_EQ(limited->Reads().issued, issued + 1) << "only the flush's own read is sent";
    // The dropped ones are answered by whichever thread dropped them, in
    // no order with the flush's.
    EXPECT_TRUE(PollUntil([&] { return closing + other == 100; }, kDeadline));
    EXPECT_EQ(closing.load(), 100);
    EXPECT_EQ(other.load(), 0);

    std::atomic<bool> destroyed{false};
    std::atomic<int> late{0};
    for (int i = 0; i < 100; ++i) {
        limited->AsyncGet(path, [&](int, int, String) { late += destroyed; }, [&](int, String, const Stat*) { late += destroyed; });
    }
    handles.clear();
    limited.reset();
    destroyed = true;
    EXPECT_EQ(0, late.load());
}

// Around a reconnection the connection re-arms its watches itself (here
// always: its limit is 0). A re-arm the server refuses is reported as a
// change, so that the owner reads the node again, rather than leaving the
// node unwatched while the session stays connected.
TEST_F(ConnectionTest, ARefusedRearmIsReportedAsAChange) {
    const auto rearming = ZooKeeperConnection::Open({s_server->ConnectString(), std::chrono::seconds(30), "", 0});
    std::atomic<int> changes{0};
    ASSERT_TRUE(rearming->WaitConnected(kDeadline));
    const auto handle = rearming->AsyncGet(path, [&](int type, int, String) { changes += type == ZOO_CHANGED_EVENT; }, kIgnore);
    Flush(*rearming);
    ACL owner{ZOO_PERM_ALL, {const_cast<char*>("digest"), const_cast<char*>("owner:AAAAAAAAAAAAAAAAAAAAAAAAAAA=")}};
    ACL_vector readableByTheOwnerAlone{1, &owner};
    zhandle_t* zh = zookeeper_init(s_server->ConnectString().c_str(), nullptr, 10000, nullptr, nullptr, 0);
    ASSERT_TRUE(PollUntil([zh] { return zoo_state(zh) == ZOO_CONNECTED_STATE; }, kDeadline));
    ASSERT_EQ(ZOK, zoo_set_acl(zh, path.c_str(), -1, &readableByTheOwnerAlone));
    zookeeper_close(zh);
    testing::LogCapture logs(logging::JXLOG_INFO);
    s_server->Stop();
    // The server stays down until the watch is out of the client (which
    // logs it), or the client would register it again by itself.
    ASSERT_TRUE(PollUntil([&] {
        return logs.Count("Connection lost while watching 1 nodes (reset request of about " + std::to_string(path.size() + 4) +
                          " bytes): the watches are armed again one by one after reconnecting") == 1;
    }, kDeadline));
    s_server->Start();
    EXPECT_TRUE(PollUntil([&] { return changes == 1; }, kDeadline));
    EXPECT_TRUE(PollUntil([&] { return rearming->PendingWatchCount() == 0; }, kDeadline));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
