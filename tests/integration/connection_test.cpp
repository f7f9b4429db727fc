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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRearmCycles = 400, kFailedReads = 10000;
#else
constexpr int kRearmCycles = 1500, kFailedReads = 50000;
#endif

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
        handles[0] = conn->AsyncGet(path, [&, weak = std::weak_ptr<ZooKeeperConnection>(conn)](int type, int, String node) {
            String data(16, '\0');
            if (auto self = weak.lock()) self->Get(node, data, nullptr);  // a synchronous call on the delivery thread
            record(type == ZOO_CHANGED_EVENT ? "changed " + data : "?");
        }, [&](int rc, String, const Stat*) { record("read " + std::to_string(rc)); }).second;
        handles[1] = conn->AsyncGetChildren(path, [&](int type, int, String) { record(type == ZOO_CHILD_EVENT ? "child" : "?"); },
                                            [&](int rc, std::vector<String>) { record("list " + std::to_string(rc)); }).second;
        handles[2] = conn->AsyncGet(path, [&](int, int, String) { record("cancelled watch"); }, kIgnore).second;
        EXPECT_TRUE(handles[2].Cancel(nullptr));
        // Cancelled inside its own call: the completion runs after it.
        handles[3] = conn->AsyncGet(path, [&](int, int, String) {
            record(handles[3].Cancel([&] { record("completion"); }) ? "cancelled in the call" : "?");
        }, kIgnore).second;
        ASSERT_EQ(ZOK, conn->Set(path, "v1", -1, nullptr));
        ASSERT_EQ(ZOK, conn->Create(path + "/a", "", ZOO_OPEN_ACL_UNSAFE, 0));
        for (int i = 0; i < 3; ++i) conn->AsyncGet(path, nullptr, [&, i](int, String, const Stat*) { record(std::to_string(i)); });
    }
    ASSERT_TRUE(PollUntil([&] { return items().size() >= 9; }, kDeadline));
    ASSERT_EQ(ZOK, conn->Set(path, "v2", -1, nullptr));
    ASSERT_EQ(ZOK, conn->Create(path + "/b", "", ZOO_OPEN_ACL_UNSAFE, 0));
    Flush(*conn);
    EXPECT_EQ(items(), (std::vector<std::string>{"read 0", "list 0", "changed v1", "cancelled in the call", "completion",
                                                        "child", "0", "1", "2"}));

    // A watch re-armed from its own callback, many times; then reads of a
    // missing node, each with a watch that can never fire.
    std::atomic<int> events{0};
    std::function<void()> arm = [&] {
        handles[0] = conn->AsyncGet(path, [&](int, int, String) {
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

TEST_F(ConnectionTest, NoCallbackRunsAfterDestructionAndTheLastReferenceMayDieOnTheDeliveryThread) {
    testing::LogCapture logs;
    auto armed = conn->AsyncGet(path, [](int, int, String) { throw std::runtime_error("watch boom"); }, kIgnore);
    ASSERT_EQ(ZOK, conn->Set(path, "x", -1, nullptr));
    Flush(*conn);
    EXPECT_EQ(1u, logs.Count("Callback threw: watch boom", logging::JXLOG_ERROR)) << "and delivery goes on";
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

}  // namespace
}  // namespace ferrow
}  // namespace jx
